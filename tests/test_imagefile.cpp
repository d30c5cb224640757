// Image files: PNG and JPEG decoding of every kind, the choice by signature,
// the PNG writer, rejection of damaged files, and whole runs of both tools
// on PNG and JPEG inputs against the same inputs as pixmaps.
#include <gtest/gtest.h>

#include <jpeglib.h>
#include <png.h>
#include <zlib.h>

#include <csetjmp>
#include <string>
#include <vector>

#include "CImageFile.h"
#include "CJpeg.h"
#include "CPng.h"
#include "TestSupport.h"

namespace {

using NImageFile::EContent;
using NImageFile::EFormat;
using NTest::CScratchDir;

// A PNG of any kind written straight with libpng, so that the tool's own
// writer (8-bit RGB only) is not the only source of test files.
struct CPngLayout {
  const char* name;
  int colourType;
  int depth;
  int channels;  // samples per pixel in the file
  bool interlaced = false;
  bool transparency = false;  // a tRNS chunk
};

bool writeWithLibpng(png_structp aPng, png_infop aInfo, png_bytepp aRows) {
  if (setjmp(png_jmpbuf(aPng))) return false;
  png_write_info(aPng, aInfo);
  png_write_image(aPng, aRows);
  png_write_end(aPng, nullptr);
  return true;
}

// Palette entry i of the fixtures.
png_color paletteColour(int i) {
  return {static_cast<png_byte>(i * 40 + 5), static_cast<png_byte>(250 - i * 30), static_cast<png_byte>(i * i * 3)};
}

// Writes aSamples (interleaved, one value per sample, rows top to bottom).
void writePng(const std::string& aPath, const CPngLayout& aLayout, int aWidth, int aHeight,
              const std::vector<unsigned>& aSamples) {
  FILE* file = std::fopen(aPath.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, aWidth, aHeight, aLayout.depth, aLayout.colourType,
               aLayout.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  std::vector<png_color> palette;
  for (int i = 0; i < 6; i++) palette.push_back(paletteColour(i));
  if (aLayout.colourType == PNG_COLOR_TYPE_PALETTE) png_set_PLTE(png, info, palette.data(), 6);
  png_byte alphas[6] = {0, 10, 20, 30, 40, 50};
  png_color_16 transparent{};
  if (aLayout.transparency) png_set_tRNS(png, info, alphas, 6, &transparent);
  // Rows packed at the file's bit depth.
  const size_t rowSamples = static_cast<size_t>(aWidth) * aLayout.channels;
  const size_t rowBytes = (rowSamples * aLayout.depth + 7) / 8;
  std::vector<png_byte> bytes(rowBytes * aHeight, 0);
  for (size_t i = 0; i < aSamples.size(); i++) {
    png_byte* row = bytes.data() + (i / rowSamples) * rowBytes;
    const size_t s = i % rowSamples;
    if (aLayout.depth == 16) {
      row[2 * s] = static_cast<png_byte>(aSamples[i] >> 8);
      row[2 * s + 1] = static_cast<png_byte>(aSamples[i] & 0xff);
    } else {
      const size_t bit = s * aLayout.depth;
      row[bit / 8] |= static_cast<png_byte>(aSamples[i] << (8 - aLayout.depth - bit % 8));
    }
  }
  std::vector<png_bytep> rows;
  for (int y = 0; y < aHeight; y++) rows.push_back(bytes.data() + y * rowBytes);
  const bool written = writeWithLibpng(png, info, rows.data());
  png_destroy_write_struct(&png, &info);
  std::fclose(file);
  ASSERT_TRUE(written);
}

// A JPEG of interleaved 8-bit samples (one layer grey, three RGB).
std::string jpegBytes(int aWidth, int aHeight, int aLayers, const std::vector<unsigned char>& aPixels) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = aWidth;
  info.image_height = aHeight;
  info.input_components = aLayers;
  info.in_color_space = aLayers == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 95, TRUE);
  jpeg_start_compress(&info, TRUE);
  const size_t rowBytes = static_cast<size_t>(aWidth) * aLayers;
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<unsigned char*>(aPixels.data()) + info.next_scanline * rowBytes;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::string bytes(reinterpret_cast<char*>(buffer), size);
  std::free(buffer);
  return bytes;
}

// Flat colour aRgb over aWidth x aHeight pixels.
std::vector<unsigned char> flat(int aWidth, int aHeight, std::vector<unsigned char> aColour) {
  std::vector<unsigned char> pixels;
  for (int i = 0; i < aWidth * aHeight; i++) pixels.insert(pixels.end(), aColour.begin(), aColour.end());
  return pixels;
}

// Reads aPath expecting EFileError; returns what was printed.
std::string readFailure(const std::string& aPath) {
  testing::internal::CaptureStderr();
  EXPECT_THROW(NImageFile::read(aPath, EContent::Photo), EFileError) << aPath;
  return testing::internal::GetCapturedStderr();
}

class ImageFile : public testing::Test {
protected:
  std::string file(const std::string& aName, const std::string& aContents) const {
    NTest::writeFile(mDir.file(aName), aContents);
    return mDir.file(aName);
  }
  CScratchDir mDir;
};

// Every PNG kind: 4 x 3 pixels whose samples all differ; the expected value of
// each sample on the tool's 0..255 scale.
struct CPngCase {
  CPngLayout layout;
  int layers;  // of the decoded tensor
};

class PngKinds : public ImageFile, public testing::WithParamInterface<CPngCase> {};

// The sample the fixture stores at index i, within the file's bit depth.
unsigned fixtureSample(size_t i, const CPngLayout& aLayout) {
  if (aLayout.colourType == PNG_COLOR_TYPE_PALETTE) return static_cast<unsigned>(i % 6) % (1u << aLayout.depth);
  const unsigned maximum = (1u << aLayout.depth) - 1;
  return static_cast<unsigned>((i * 7919 + 13) % (maximum + 1));
}

// The value the decoder must give for sample value aSample of a file layer.
float expectedValue(unsigned aSample, const CPngLayout& aLayout) {
  if (aLayout.depth == 16) return static_cast<float>(aSample) * 255.0f / 65535.0f;
  return static_cast<float>(aSample * (255 / ((1u << aLayout.depth) - 1)));
}

TEST_P(PngKinds, DecodeToGreyOrColourWithoutAlpha) {
  const CPngCase& c = GetParam();
  const int width = 4;
  const int height = 3;
  std::vector<unsigned> samples;
  for (size_t i = 0; i < static_cast<size_t>(width * height * c.layout.channels); i++)
    samples.push_back(fixtureSample(i, c.layout));
  const std::string path = mDir.file("in.png");
  writePng(path, c.layout, width, height, samples);

  const CTensor<float> image = NImageFile::read(path, EContent::ExactColours);
  ASSERT_EQ(image.xSize(), width);
  ASSERT_EQ(image.ySize(), height);
  ASSERT_EQ(image.zSize(), c.layers);
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++)
      for (int z = 0; z < c.layers; z++) {
        const int channel = c.layout.colourType == PNG_COLOR_TYPE_PALETTE ? 0 : z;
        const unsigned sample = samples[static_cast<size_t>((y * width + x) * c.layout.channels + channel)];
        float expected = expectedValue(sample, c.layout);
        if (c.layout.colourType == PNG_COLOR_TYPE_PALETTE) {
          const png_color colour = paletteColour(static_cast<int>(sample));
          expected = z == 0 ? colour.red : z == 1 ? colour.green : colour.blue;
        }
        EXPECT_EQ(image(x, y, z), expected) << c.layout.name << " at " << x << "," << y << "," << z;
      }
}

INSTANTIATE_TEST_SUITE_P(
    ImageFile, PngKinds,
    testing::Values(CPngCase{{"grey1", PNG_COLOR_TYPE_GRAY, 1, 1}, 1}, CPngCase{{"grey4", PNG_COLOR_TYPE_GRAY, 4, 1}, 1},
                    CPngCase{{"grey8", PNG_COLOR_TYPE_GRAY, 8, 1}, 1},
                    CPngCase{{"grey16", PNG_COLOR_TYPE_GRAY, 16, 1}, 1},
                    CPngCase{{"greyAlpha8", PNG_COLOR_TYPE_GRAY_ALPHA, 8, 2}, 1},
                    CPngCase{{"greyAlpha16", PNG_COLOR_TYPE_GRAY_ALPHA, 16, 2}, 1},
                    CPngCase{{"rgb8", PNG_COLOR_TYPE_RGB, 8, 3}, 3}, CPngCase{{"rgb16", PNG_COLOR_TYPE_RGB, 16, 3}, 3},
                    CPngCase{{"rgba8", PNG_COLOR_TYPE_RGB_ALPHA, 8, 4}, 3},
                    CPngCase{{"rgba16", PNG_COLOR_TYPE_RGB_ALPHA, 16, 4}, 3},
                    CPngCase{{"palette8", PNG_COLOR_TYPE_PALETTE, 8, 1}, 3},
                    CPngCase{{"palette4", PNG_COLOR_TYPE_PALETTE, 4, 1}, 3},
                    CPngCase{{"paletteTransparent", PNG_COLOR_TYPE_PALETTE, 8, 1, false, true}, 3},
                    CPngCase{{"rgbInterlaced", PNG_COLOR_TYPE_RGB, 8, 3, true}, 3},
                    CPngCase{{"grey16Interlaced", PNG_COLOR_TYPE_GRAY, 16, 1, true}, 1}),
    [](const testing::TestParamInfo<CPngCase>& aInfo) { return std::string(aInfo.param.layout.name); });

TEST_F(ImageFile, FormatComesFromTheSignatureNotTheName) {
  CTensor<float> colours(3, 2, 3);
  for (int i = 0; i < colours.size(); i++) colours.data()[i] = static_cast<float>(i * 13);
  NImageFile::write(mDir.file("png.ppm"), colours, EFormat::Png);
  NImageFile::write(mDir.file("pixmap.png"), colours, EFormat::Pixmap);
  file("photo.ppm", jpegBytes(8, 8, 1, flat(8, 8, {100})));
  EXPECT_EQ(NImageFile::detect(mDir.file("png.ppm")), EFormat::Png);
  EXPECT_EQ(NImageFile::detect(mDir.file("pixmap.png")), EFormat::Pixmap);
  EXPECT_EQ(NImageFile::detect(mDir.file("photo.ppm")), EFormat::Jpeg);
  EXPECT_EQ(NImageFile::detect(mDir.file("missing.png")), EFormat::Pixmap);
  EXPECT_EQ(NTest::values(NImageFile::read(mDir.file("png.ppm"), EContent::ExactColours)), NTest::values(colours));
  EXPECT_EQ(NTest::values(NImageFile::read(mDir.file("pixmap.png"), EContent::ExactColours)), NTest::values(colours));
}

TEST_F(ImageFile, PngWriterStoresTheBytesOfThePixmapWriter) {
  // Out-of-range values are truncated to their lowest byte by both writers.
  const std::vector<float> values = {300.0f, 12.7f, -1.0f, 255.9f, 256.0f, -0.5f, 511.0f, 1e20f, 77.0f};
  CTensor<float> t(3, 1, 3);
  for (int i = 0; i < 9; i++) t(i / 3, 0, i % 3) = values[static_cast<size_t>(i)];
  NImageFile::write(mDir.file("t.png"), t, EFormat::Png);
  NImageFile::write(mDir.file("t.ppm"), t, EFormat::Pixmap);
  EXPECT_EQ(NTest::values(NImageFile::read(mDir.file("t.png"), EContent::Photo)),
            NTest::values(NImageFile::read(mDir.file("t.ppm"), EContent::Photo)));
  // Atomic like the pixmap writer: a failed write leaves nothing behind.
  testing::internal::CaptureStderr();
  EXPECT_THROW(NImageFile::write(mDir.file("no/such/t.png"), t, EFormat::Png), EFileError);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(mDir.file("no/such/t.png")), std::string::npos);
  EXPECT_EQ(NTest::listDir(mDir.path()), (std::vector<std::string>{"t.png", "t.ppm"}));
}

TEST_F(ImageFile, JpegDecodesToGreyOrColour) {
  const std::string grey = file("grey.jpg", jpegBytes(16, 8, 1, flat(16, 8, {90})));
  const std::string colour = file("colour.jpg", jpegBytes(16, 8, 3, flat(16, 8, {200, 40, 120})));
  const CTensor<float> g = NImageFile::read(grey, EContent::Photo);
  ASSERT_EQ(g.zSize(), 1);
  EXPECT_EQ(g(7, 5, 0), 90.0f);
  const CTensor<float> c = NImageFile::read(colour, EContent::Photo);
  ASSERT_EQ(c.zSize(), 3);
  EXPECT_EQ(c.xSize(), 16);
  EXPECT_EQ(c.ySize(), 8);
  // Lossy: the flat colour comes back within a few steps.
  EXPECT_NEAR(c(3, 3, 0), 200.0f, 3.0f);
  EXPECT_NEAR(c(3, 3, 1), 40.0f, 3.0f);
  EXPECT_NEAR(c(3, 3, 2), 120.0f, 3.0f);
}

// Damaged files of both formats: each must end in EFileError naming the file.
TEST_F(ImageFile, DamagedFilesAreReportedNamingTheFile) {
  CTensor<float> image(40, 30, 3);
  for (int i = 0; i < image.size(); i++) image.data()[i] = static_cast<float>((i * 7919) % 256);
  NImageFile::write(mDir.file("good.png"), image, EFormat::Png);
  const std::string png = NTest::readFile(mDir.file("good.png"));
  std::vector<unsigned char> noise;
  for (int i = 0; i < 40 * 30 * 3; i++) noise.push_back(static_cast<unsigned char>((i * 7919) % 256));
  const std::string jpeg = jpegBytes(40, 30, 3, noise);

  std::string flipped = png;
  flipped[png.size() / 2] = static_cast<char>(flipped[png.size() / 2] ^ 0x55);
  std::string badPalette = png;
  badPalette[25] = 3;  // colour type palette, but no palette chunk (and the IHDR checksum no longer fits)
  std::string flippedJpeg = jpeg;
  for (size_t i = jpeg.size() / 2; i < jpeg.size() / 2 + 8; i++) flippedJpeg[i] = static_cast<char>(0xff);
  const std::vector<std::string> damaged = {
      png.substr(0, 8), png.substr(0, 20), png.substr(0, 40), png.substr(0, png.size() / 2), flipped, badPalette,
      jpeg.substr(0, 3), jpeg.substr(0, 30), jpeg.substr(0, jpeg.size() / 2), jpeg.substr(0, jpeg.size() - 2),
      flippedJpeg};
  for (size_t i = 0; i < damaged.size(); i++) {
    const std::string path = file("damaged" + std::to_string(i) + ".img", damaged[i]);
    const std::string message = readFailure(path);
    EXPECT_EQ(message.rfind("Error: " + path + ": ", 0), 0u) << "case " << i << ": " << message;
  }
}

// A header that declares far more pixels than the file can hold is refused
// before the pixels are allocated (the sanitizer build would report the
// allocation otherwise).
TEST_F(ImageFile, HugeExtentsInASmallFileAreRefused) {
  CTensor<float> image(2, 2, 3, 10.0f);
  NImageFile::write(mDir.file("small.png"), image, EFormat::Png);
  std::string png = NTest::readFile(mDir.file("small.png"));
  // IHDR width and height at bytes 16..23 become 20000 x 20000, with the chunk's checksum fixed.
  const unsigned char extents[8] = {0, 0, 0x4e, 0x20, 0, 0, 0x4e, 0x20};
  for (int i = 0; i < 8; i++) png[16 + i] = static_cast<char>(extents[i]);
  const unsigned long crc = crc32(0, reinterpret_cast<const Bytef*>(png.data() + 12), 17);
  for (int i = 0; i < 4; i++) png[29 + i] = static_cast<char>((crc >> (24 - 8 * i)) & 0xff);
  std::string message = readFailure(file("huge.png", png));
  EXPECT_NE(message.find("20000 x 20000"), std::string::npos) << message;

  std::string jpeg = jpegBytes(8, 8, 3, flat(8, 8, {1, 2, 3}));
  // The frame header (SOF0, FF C0) holds the height and the width after the precision byte.
  const size_t sof = jpeg.find("\xff\xc0");
  ASSERT_NE(sof, std::string::npos);
  for (size_t i : {sof + 5, sof + 7}) {
    jpeg[i] = static_cast<char>(0x4e);
    jpeg[i + 1] = static_cast<char>(0x20);
  }
  message = readFailure(file("huge.jpg", jpeg));
  EXPECT_NE(message.find("20000 x 20000"), std::string::npos) << message;
}

}  // namespace

namespace {

const std::string kExe = TARNWICK_EXE;

// Image frame.EXT, three block segmentations and a label image in one format.
void writeScene(const CScratchDir& aDir, EFormat aFormat) {
  const std::string ext = NImageFile::ending(aFormat);
  NImageFile::write(aDir.file("frame" + ext), NTest::sceneImage(32, 24), aFormat);
  for (int k = 0; k < 3; k++)
    NImageFile::write(aDir.file("frame_seg" + std::to_string(k) + ext), NTest::blockSegmentation(32, 24, 2 << k), aFormat);
  NImageFile::write(aDir.file("labels" + ext), NTest::scribbles(32, 24, {{255, 0, 0}, {0, 0, 255}, {0, 200, 0}}), aFormat);
}

const std::vector<std::string> kResults = {"frame_initialLabels", "frame_dense_soft", "frame_dense", "frame_denseOUT"};

}  // namespace

TEST(ImageFileRuns, PngInputsGiveTheResultsOfPixmapInputsInEitherFormat) {
  CScratchDir ppm;
  CScratchDir png;
  writeScene(ppm, EFormat::Pixmap);
  writeScene(png, EFormat::Png);
  ASSERT_EQ(NTest::run(kExe, {"frame.ppm", "3", "labels.ppm", "0", "0.3", "2"}, ppm.path()).status, 0);
  ASSERT_EQ(NTest::run(kExe, {"frame.png", "3", "labels.png", "0", "0.3", "2"}, png.path()).status, 0);
  ASSERT_EQ(NTest::run(kExe, {"--format=png", "frame.png", "3", "labels.png", "0", "0.3", "2", "as"}, png.path()).status, 0);
  ASSERT_EQ(NTest::run(kExe, {"frame.ppm", "3", "--format", "png", "labels.ppm", "0", "0.3", "2"}, ppm.path()).status, 0);
  for (const std::string& name : kResults) {
    const std::string pixmap = ppm.file("TarnwickResults/" + name + ".ppm");
    EXPECT_EQ(NTest::readFile(png.file("TarnwickResults/" + name + ".ppm")), NTest::readFile(pixmap)) << name;
    const std::vector<float> expected = NTest::values(NImageFile::read(pixmap, EContent::Photo));
    for (const std::string& result : {png.file("asTarnwickResults/" + name + ".png"), ppm.file("TarnwickResults/" + name + ".png")}) {
      ASSERT_EQ(NImageFile::detect(result), EFormat::Png) << result;
      EXPECT_EQ(NTest::values(NImageFile::read(result, EContent::Photo)), expected) << result;
    }
  }
  EXPECT_EQ(NTest::listDir(png.file("asTarnwickResults")).size(), kResults.size());
}

TEST(ImageFileRuns, SegmentationsFallBackToPngThenPixmap) {
  CScratchDir dir;
  writeScene(dir, EFormat::Png);
  NImageFile::write(dir.file("frame_seg1.ppm"), NTest::blockSegmentation(32, 24, 4), EFormat::Pixmap);
  std::remove(dir.file("frame_seg1.png").c_str());
  NImageFile::write(dir.file("frame.jpg"), NTest::sceneImage(32, 24), EFormat::Pixmap);  // a pixmap under a JPEG name
  NTest::CRunResult result = NTest::run(kExe, {"frame.jpg", "3", "labels.png"}, dir.path());
  EXPECT_EQ(result.status, 0) << result.err;
  for (const char* name : {"frame_seg0.png", "frame_seg1.ppm", "frame_seg2.png"})
    EXPECT_NE(result.out.find(std::string("load superpixel file:       ./") + name), std::string::npos) << result.out;
  // With no candidate at all the name with the image's ending is reported.
  result = NTest::run(kExe, {"frame.jpg", "4", "labels.png"}, dir.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("File not found: ./frame_seg3.jpg"), std::string::npos) << result.err;
}

TEST(ImageFileRuns, JpegFrameRunsButJpegLabelsAndSegmentationsAreRefused) {
  CScratchDir dir;
  writeScene(dir, EFormat::Png);
  std::vector<unsigned char> pixels;
  const CTensor<float> image = NTest::sceneImage(32, 24);
  for (int y = 0; y < 24; y++)
    for (int x = 0; x < 32; x++)
      for (int z = 0; z < 3; z++) pixels.push_back(static_cast<unsigned char>(image(x, y, z)));
  const std::string jpeg = jpegBytes(32, 24, 3, pixels);
  NTest::writeFile(dir.file("frame.jpg"), jpeg);
  EXPECT_EQ(NTest::run(kExe, {"frame.jpg", "3", "labels.png"}, dir.path()).status, 0);

  NTest::writeFile(dir.file("labels.jpg"), jpeg);
  NTest::CRunResult result = NTest::run(kExe, {"frame.png", "3", "labels.jpg", "0", "0.3", "0", "refused"}, dir.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("labels.jpg: is a JPEG file"), std::string::npos) << result.err;
  NTest::writeFile(dir.file("frame_seg0.png"), jpeg);
  result = NTest::run(kExe, {"frame.png", "1", "labels.png", "0", "0.3", "0", "refused"}, dir.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("frame_seg0.png: is a JPEG file"), std::string::npos) << result.err;
  EXPECT_TRUE(NTest::listDir(dir.file("refusedTarnwickResults")).empty());
}

#ifdef TARNWICK_SEGMENT_EXE
TEST(ImageFileRuns, SegmentToolReadsAnyFormatAndWritesTheChosenOne) {
  const std::string exe = TARNWICK_SEGMENT_EXE;
  CScratchDir dir;
  const CTensor<float> image = NTest::sceneImage(32, 24);
  for (const std::string name : {"a.ppm", "d.ppm"}) NImageFile::write(dir.file(name), image, EFormat::Pixmap);
  for (const std::string name : {"b.png", "e.png"}) NImageFile::write(dir.file(name), image, EFormat::Png);
  NTest::writeFile(dir.file("c.jpg"), jpegBytes(32, 24, 1, flat(32, 24, {128})));
  const std::vector<std::vector<std::string>> runs = {
      {"a.ppm", "2", "-r", "20,5"}, {"b.png", "2", "-r", "20,5"}, {"c.jpg", "1"},
      {"d.ppm", "2", "-r", "20,5", "--format=png"}, {"e.png", "--format", "ppm", "2", "-r", "20,5"}};
  for (const std::vector<std::string>& args : runs) EXPECT_EQ(NTest::run(exe, args, dir.path()).status, 0) << args[0];
  EXPECT_EQ(NTest::listDir(dir.path()),
            (std::vector<std::string>{"a.ppm", "a_seg0.ppm", "a_seg1.ppm", "b.png", "b_seg0.png", "b_seg1.png", "c.jpg",
                                      "c_seg0.png", "d.ppm", "d_seg0.png", "d_seg1.png", "e.png", "e_seg0.ppm",
                                      "e_seg1.ppm"}));
  // The same pixels in, the same regions out, whatever the formats.
  for (const std::string level : {"_seg0", "_seg1"}) {
    const std::vector<float> expected = NTest::values(NImageFile::read(dir.file("a" + level + ".ppm"), EContent::Photo));
    for (const std::string& other : {"b" + level + ".png", "d" + level + ".png", "e" + level + ".ppm"})
      EXPECT_EQ(NTest::values(NImageFile::read(dir.file(other), EContent::Photo)), expected) << other;
  }
}
#endif
