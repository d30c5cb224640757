// Label colour coding, the palette, rendering of label functions and the
// track file reader.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <random>
#include <set>
#include <tuple>

#include "CErrors.h"
#include "CUtility.h"
#include "TestSupport.h"

namespace {

using CRgb = std::tuple<float, float, float>;
const CRgb mWhite{255, 255, 255};

CTensor<float> whiteImage(int aWidth, int aHeight) { return CTensor<float>(aWidth, aHeight, 3, 255.0f); }

void setColor(CTensor<float>& aImage, int ax, int ay, const CRgb& aColor) {
  std::tie(aImage(ax, ay, 0), aImage(ax, ay, 1), aImage(ax, ay, 2)) = aColor;
}

CRgb colorAt(const CTensor<float>& aImage, int ax, int ay) {
  return {aImage(ax, ay, 0), aImage(ax, ay, 1), aImage(ax, ay, 2)};
}

CVector<int> color(int aR, int aG, int aB) {
  CVector<int> c(3);
  c(0) = aR;
  c(1) = aG;
  c(2) = aB;
  return c;
}

CRgb palette(int aLabel) {
  int r = 0, g = 0, b = 0;
  CUtility::paletteColor(aLabel, r, g, b);
  return CRgb(r, g, b);
}

bool sameBits(const CTensor<float>& a, const CTensor<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

}  // namespace

TEST(LabelColors, NumbersLabelsByFirstAppearanceInRowOrder) {
  CTensor<float> image = whiteImage(6, 3);
  const CRgb red{255, 0, 0}, blue{0, 0, 255}, black{0, 0, 0}, nearWhite{255, 255, 254};
  setColor(image, 5, 0, red);
  setColor(image, 2, 1, blue);
  setColor(image, 0, 2, black);
  setColor(image, 1, 2, nearWhite);
  setColor(image, 4, 2, red);
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  ASSERT_EQ(CUtility::color2labelFunction(labels, image, colors), 4);
  const CRgb expected[] = {red, blue, black, nearWhite};
  for (int k = 0; k < 4; k++) EXPECT_EQ(CRgb(colors[k](0), colors[k](1), colors[k](2)), expected[k]);
  // One-hot at labelled pixels, all zero at white ones.
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 6; x++)
      for (int k = 0; k < 4; k++)
        EXPECT_EQ(labels(x, y, k), colorAt(image, x, y) == expected[k] ? 1.0f : 0.0f) << x << "," << y;

  // Again with the filled list: nothing is added, indices stay.
  EXPECT_EQ(CUtility::getNumberOfLabels(image, colors), 4);
  EXPECT_EQ(colors.size(), 4u);
  std::vector<CVector<int>> prefilled{color(0, 0, 255)};
  EXPECT_EQ(CUtility::color2labelFunction(labels, image, prefilled), 4);
  EXPECT_EQ(labels(2, 1, 0), 1.0f);
}

TEST(LabelColors, WhiteImagesAndNonIntegerColours) {
  std::vector<CVector<int>> colors;
  CTensor<float> labels(2, 2, 5, 0.0f);
  EXPECT_EQ(CUtility::color2labelFunction(labels, whiteImage(4, 3), colors), 0);
  EXPECT_EQ(std::make_tuple(labels.xSize(), labels.ySize(), labels.zSize()), std::make_tuple(4, 3, 0));

  // Non-integer values never match an entry: each pixel adds its own, unused.
  CTensor<float> image = whiteImage(2, 1);
  setColor(image, 0, 0, CRgb(10.5f, 0, 0));
  setColor(image, 1, 0, CRgb(10.5f, 0, 0));
  EXPECT_EQ(CUtility::color2labelFunction(labels, image, colors), 2);
  EXPECT_EQ(colors[0](0), 10);
  EXPECT_EQ(labels(0, 0, 0) + labels(0, 0, 1), 0.0f);

  EXPECT_THROW(CUtility::getNumberOfLabels(CTensor<float>(2, 2, 1, 0.0f), colors), ETensorIncompatibleSize);
}

TEST(LabelColors, LabelFunctionToColour) {
  std::vector<CVector<int>> colors{color(200, 100, 0), color(0, 0, 255)};
  CTensor<float> labels(3, 1, 2, 0.0f);
  labels(0, 0, 0) = 0.5f;
  labels(1, 0, 1) = 1e-5f;  // the float nearest to 1e-5 lies below it: no label mass
  labels(2, 0, 1) = 2e-5f;
  CTensor<float> out(3, 1, 3, 7.0f);
  CUtility::labelFunction2color(labels, out, colors);
  EXPECT_EQ(colorAt(out, 0, 0), CRgb(100, 50, 0));
  EXPECT_EQ(colorAt(out, 1, 0), mWhite);
  EXPECT_EQ(colorAt(out, 2, 0), CRgb(0, 0, 255 * 2e-5f));
  EXPECT_THROW(CUtility::labelFunction2color(labels, out, {color(1, 2, 3)}), EMissingLabelColors);
}

TEST(Palette, FixedEntriesThenDistinctExtraColours) {
  EXPECT_EQ(palette(2), CRgb(10, 10, 255));
  EXPECT_EQ(palette(39), CRgb(210, 160, 210));
  std::set<CRgb> seen{mWhite};
  for (int k = 0; k < CUtility::mPaletteSize; k++) EXPECT_TRUE(seen.insert(palette(k)).second) << "label " << k;
  EXPECT_THROW(palette(-1), std::out_of_range);
  EXPECT_THROW(palette(CUtility::mPaletteSize), std::out_of_range);
}

TEST(Rendering, OverlayBlendsInTheStatedOrder) {
  CTensor<float> image(3, 1, 3, 100.0f);
  setColor(image, 1, 0, CRgb(200, 50, 9));
  std::vector<CVector<int>> colors{color(255, 10, 10), color(0, 0, 255)};
  CTensor<float> labels(3, 1, 2, 0.0f);
  labels(0, 0, 0) = 1.0f;
  labels(2, 0, 0) = 0.25f;
  labels(2, 0, 1) = 0.75f;
  CUtility::plotOverlayColor(image, labels, colors, 0.3f);
  EXPECT_EQ(colorAt(image, 0, 0), CRgb(146.5f, 73, 73));
  const float ratio1 = 1 - 0.3f;  // no label mass darkens by 1 - ratio
  EXPECT_EQ(colorAt(image, 1, 0), CRgb(200 * ratio1, 50 * ratio1, 9 * ratio1));
  CUtility::plotOverlayColor(image, labels, colors, 1.0f);
  EXPECT_EQ(colorAt(image, 2, 0), CRgb(63.75f, 2.5f, 193.75f));

  CTensor<float> many(1, 1, 42, 0.0f);
  many(0, 0, 41) = 1.0f;
  CTensor<float> pixel(1, 1, 3, 0.0f);
  CUtility::plotOverlayColor(pixel, many, 1.0f);
  EXPECT_EQ(colorAt(pixel, 0, 0), palette(41));
  EXPECT_THROW(CUtility::plotOverlayColor(pixel, CTensor<float>(1, 1, 257, 0.0f), 1.0f), EMissingLabelColors);
  EXPECT_THROW(CUtility::plotOverlayColor(image, many, 1.0f), ETensorIncompatibleSize);

  CTensor<float> layers(2, 1, 4, 10.0f);
  CUtility::plotOverlay(layers, CTensor<float>(2, 1, 4, 110.0f), 0.5f);
  EXPECT_EQ(layers(1, 0, 3), 60.0f);
}

TEST(Rendering, ConfidenceMaskAndSparseLabels) {
  CTensor<float> image = whiteImage(4, 3);
  setColor(image, 1, 1, CRgb(0, 0, 0));
  setColor(image, 3, 2, CRgb(200, 100, 0));
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  CUtility::color2labelFunction(labels, image, colors);
  labels(0, 0, 1) = 0.999f;
  CMatrix<float> mask(4, 3, 5.0f);
  CUtility::labelFunction2confidenceMask(labels, mask);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 4; x++) EXPECT_EQ(mask(x, y), (x == 1 && y == 1) || (x == 3 && y == 2) ? 1.0f : 0.0f);
  CMatrix<float> untouched(4, 3, 5.0f);
  CUtility::labelFunction2confidenceMask(CTensor<float>(4, 3, 0), untouched);
  EXPECT_EQ(untouched(2, 2), 5.0f);

  // Unblended colours where the mask is 1; nothing where it is 0.
  CTensor<float> canvas(4, 3, 3, 9.0f);
  CUtility::plotSparseLabels(canvas, labels, mask, colors);
  EXPECT_EQ(colorAt(canvas, 3, 2), CRgb(200, 100, 0));
  EXPECT_EQ(colorAt(canvas, 1, 1), CRgb(0, 0, 0));
  EXPECT_EQ(colorAt(canvas, 0, 0), CRgb(9, 9, 9));
  const CTensor<float> before = canvas;
  CUtility::plotSparseLabels(canvas, labels, CMatrix<float>(4, 3, 0.0f), colors);
  EXPECT_TRUE(sameBits(canvas, before));
}

TEST(Rendering, RectangleIsClippedToTheImage) {
  CTensor<float> image(5, 4, 3, 0.0f);
  CUtility::putRectangle(image, 0, 0, 1, 2, 3, 2);
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 5; x++) EXPECT_EQ(colorAt(image, x, y), x <= 2 && y <= 2 ? CRgb(1, 2, 3) : CRgb(0, 0, 0));
  const CTensor<float> before = image;
  CUtility::putRectangle(image, 10, 10, 9, 9, 9, 2);
  CUtility::putRectangle(image, 2, 2, 9, 9, 9, -1);
  EXPECT_TRUE(sameBits(image, before));
  CUtility::putRectangle(image, 4, 3, 7, 7, 7, 2147483647);
  EXPECT_EQ(colorAt(image, 0, 0), CRgb(7, 7, 7));
}

TEST(Rendering, ResultsDoNotDependOnTheThreadCount) {
  const int width = 37, height = 23, labelCount = 5;
  std::mt19937 random(1);
  std::uniform_real_distribution<float> degree(0.0f, 0.4f);
  CTensor<float> labels(width, height, labelCount);
  for (int i = 0; i < labels.size(); i++) labels.data()[i] = degree(random);
  for (int x = 0; x < width; x += 3) labels(x, x % height, x % labelCount) = 1.0f;
  std::vector<CVector<int>> colors;
  for (int k = 0; k < labelCount; k++) colors.push_back(color(40 * k, 255 - 30 * k, 7 * k + 1));
  CTensor<float> coded = whiteImage(width, height);
  for (int y = 0; y < height; y += 2) setColor(coded, y, y, CRgb(3.0f * y, 2, 1));

  const auto render = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    CTensor<float> canvas(width, height, 3, 100.0f);
    CUtility::plotOverlayColor(canvas, labels, colors, 0.4f);
    CUtility::plotOverlayColor(canvas, labels, 0.3f);
    CUtility::plotOverlay(canvas, labels, 0.25f);
    CMatrix<float> mask(width, height);
    CUtility::labelFunction2confidenceMask(labels, mask);
    CUtility::plotSparseLabels(canvas, labels, mask, colors);
    CUtility::putRectangle(canvas, 20, 10, 1, 2, 3, 4);
    CTensor<float> painted(width, height, 3);
    CUtility::labelFunction2color(labels, painted, colors);
    std::vector<CVector<int>> list;
    CTensor<float> decoded;
    CUtility::color2labelFunction(decoded, coded, list);
    return std::vector<CTensor<float>>{canvas, painted, decoded};
  };
  const int threads = omp_get_max_threads();
  const std::vector<CTensor<float>> one = render(1);
  const std::vector<CTensor<float>> two = render(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) EXPECT_TRUE(sameBits(one[i], two[i])) << "result " << i;
}

// Track files: read into a white canvas of 12 by 8 pixels.
class TrackReader : public ::testing::Test {
protected:
  bool read(const std::string& aContents, int aFrame) {
    NTest::writeFile(mFile, aContents);
    return CUtility::readTracks(mFile.c_str(), aFrame, mCanvas);
  }
  int paintedPixels() const {
    int count = 0;
    for (int y = 0; y < 8; y++)
      for (int x = 0; x < 12; x++) count += colorAt(mCanvas, x, y) == mWhite ? 0 : 1;
    return count;
  }
  // Reading aContents must fail with a message that contains aProblem.
  void expectFileError(const std::string& aContents, const std::string& aProblem) {
    testing::internal::CaptureStderr();
    EXPECT_THROW(read(aContents, 3), EFileError) << aContents;
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(message.rfind("Error: " + mFile + ": ", 0), 0u) << message;
    EXPECT_NE(message.find(aProblem), std::string::npos) << message;
  }

  NTest::CScratchDir mDir;
  const std::string mFile = mDir.file("tracks.dat");
  CTensor<float> mCanvas = whiteImage(12, 8);
};

TEST_F(TrackReader, PaintsThePointsOfTheSelectedFrame) {
  EXPECT_TRUE(read("7 4\n"
                   "2 3\n10.9 3.2 5\n1 1 4\n0 1 5\n"
                   "0 2   4 4 6\n 5.5 6.5 4\n"
                   "2 2\n6 7 5\n-0.5 -0.9 5\n"
                   "45 2\n11.99 7.5 5\n0 1.7 5 trailing words are ignored",
                   5));
  EXPECT_EQ(paintedPixels(), 5);
  EXPECT_EQ(colorAt(mCanvas, 10, 3), CRgb(10, 10, 255));
  EXPECT_EQ(colorAt(mCanvas, 6, 7), palette(2));
  EXPECT_EQ(colorAt(mCanvas, 0, 0), palette(2));  // -0.5 truncates to 0
  EXPECT_EQ(colorAt(mCanvas, 11, 7), palette(45));
  EXPECT_EQ(colorAt(mCanvas, 0, 1), palette(45));  // the later point wins

  // Tracks of the same label share a colour, hence a label.
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  EXPECT_EQ(CUtility::color2labelFunction(labels, mCanvas, colors), 2);

  mCanvas = whiteImage(12, 8);
  EXPECT_TRUE(read("0 1\n3 2\n1 1 0\n2 2 1\n", 9));
  EXPECT_EQ(paintedPixels(), 0);
}

TEST_F(TrackReader, MissingFileOrFolderIsReportedOnStandardOutput) {
  for (const std::string& name : {mDir.file("absent.dat"), mDir.path()}) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(CUtility::readTracks(name.c_str(), 0, mCanvas));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "File not found.\n") << name;
  }
  EXPECT_EQ(paintedPixels(), 0);
}

TEST_F(TrackReader, MalformedFilesRaiseAFileErrorSayingWhere) {
  expectFileError("", "expected the header value and the track count");
  expectFileError("header 2\n", "expected the header value and the track count");
  expectFileError("0 -1\n", "negative track count -1");
  expectFileError("0 2\n1 1\n2 2 0\n", "track 2 of 2: expected label and length");
  expectFileError("0 1\n256 1\n2 2 0\n", "track 1 of 1: label 256 outside 0 to 255");
  expectFileError("0 1\n-1 1\n2 2 0\n", "track 1 of 1: label -1 outside 0 to 255");
  expectFileError("0 1\n3 -4\n", "track 1 of 1: negative length -4");
  expectFileError("0 2\n0 1\n1 1 0\n1 3\n1 1 0\n2 x 0\n", "track 2 of 2: expected x, y and frame of point 2 of 3");
  expectFileError("0 1\n1 1000000\n1 1 0\n", "track 1 of 1: expected x, y and frame of point 2 of 1000000");
}

TEST_F(TrackReader, PointsOfTheSelectedFrameOutsideTheImageAreRejected) {
  for (const char* point : {"12 0 3", "0 8 3", "-1 0 3", "0 -1.5 3", "1e9 2 3", "2 -1e30 3"})
    expectFileError(std::string("0 1\n1 2\n1 1 3\n") + point + "\n",
                    "track 1 of 1: point 2 of 2 at (");
  expectFileError("0 1\n1 1\n12 0 3\n", "lies outside the 12 by 8 image");
  // Points of other frames are not checked.
  EXPECT_TRUE(read("0 1\n1 2\n12 0 4\n-1 -1 4\n", 3));
}
