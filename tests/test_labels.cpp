// Label colour coding, the palette, rendering of label functions and the
// track file reader.
#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "CErrors.h"
#include "CUtility.h"
#include "TestSupport.h"

namespace {

using CRgb = std::tuple<float, float, float>;
const CRgb kWhite{255, 255, 255};

CTensor<float> whiteImage(int aWidth, int aHeight) { return CTensor<float>(aWidth, aHeight, 3, 255.0f); }

void setColor(CTensor<float>& aImage, int ax, int ay, const CRgb& aColor) {
  std::tie(aImage(ax, ay, 0), aImage(ax, ay, 1), aImage(ax, ay, 2)) = aColor;
}

CRgb colorAt(const CTensor<float>& aImage, int ax, int ay) {
  return {aImage(ax, ay, 0), aImage(ax, ay, 1), aImage(ax, ay, 2)};
}

CVector<int> color(int aR, int aG, int aB) {
  CVector<int> c(3);
  std::tie(c(0), c(1), c(2)) = std::make_tuple(aR, aG, aB);
  return c;
}

CRgb palette(int aLabel) {
  int r = 0, g = 0, b = 0;
  CUtility::paletteColor(aLabel, r, g, b);
  return CRgb(r, g, b);
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
  EXPECT_EQ(CUtility::getNumberOfLabels(image, colors), 4);
  EXPECT_EQ(colors.size(), 4u);

  colors.clear();
  EXPECT_EQ(CUtility::color2labelFunction(labels, whiteImage(4, 3), colors), 0);
  EXPECT_EQ(std::make_tuple(labels.xSize(), labels.ySize(), labels.zSize()), std::make_tuple(4, 3, 0));
}

TEST(LabelColors, LabelFunctionToColourAndPalette) {
  std::vector<CVector<int>> colors{color(200, 100, 0), color(0, 0, 255)};
  CTensor<float> labels(3, 1, 2, 0.0f);
  labels(0, 0, 0) = 0.5f;
  labels(1, 0, 1) = 1e-5f;  // the float nearest to 1e-5 lies below it: no label mass
  labels(2, 0, 1) = 2e-5f;
  CTensor<float> out(3, 1, 3, 7.0f);
  CUtility::labelFunction2color(labels, out, colors);
  EXPECT_EQ(colorAt(out, 0, 0), CRgb(100, 50, 0));
  EXPECT_EQ(colorAt(out, 1, 0), kWhite);
  EXPECT_EQ(colorAt(out, 2, 0), CRgb(0, 0, 255 * 2e-5f));

  EXPECT_EQ(palette(2), CRgb(10, 10, 255));
  std::set<CRgb> seen{kWhite};
  for (int k = 0; k < CUtility::mPaletteSize; k++) EXPECT_TRUE(seen.insert(palette(k)).second) << "label " << k;
  EXPECT_THROW(palette(CUtility::mPaletteSize), std::out_of_range);
}

TEST(Rendering, OverlayConfidenceMaskAndRectangle) {
  CTensor<float> image(2, 1, 3, 100.0f);
  setColor(image, 1, 0, CRgb(200, 50, 9));
  CTensor<float> labels(2, 1, 2, 0.0f);
  labels(0, 0, 0) = 1.0f;
  CUtility::plotOverlayColor(image, labels, {color(255, 10, 10), color(0, 0, 255)}, 0.3f);
  EXPECT_EQ(colorAt(image, 0, 0), CRgb(146.5f, 73, 73));
  const float keep = 1 - 0.3f;  // no label mass darkens by 1 - ratio
  EXPECT_EQ(colorAt(image, 1, 0), CRgb(200 * keep, 50 * keep, 9 * keep));

  // Mask 1 only where some degree is exactly 1.
  labels(1, 0, 1) = 0.999f;
  CMatrix<float> mask(2, 1, 5.0f);
  CUtility::labelFunction2confidenceMask(labels, mask);
  EXPECT_EQ(NTest::values(mask), (std::vector<float>{1, 0}));

  CTensor<float> square(5, 4, 3, 0.0f);
  CUtility::putRectangle(square, 0, 0, 1, 2, 3, 2);
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 5; x++) EXPECT_EQ(colorAt(square, x, y), x <= 2 && y <= 2 ? CRgb(1, 2, 3) : CRgb(0, 0, 0));
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
      for (int x = 0; x < 12; x++) count += colorAt(mCanvas, x, y) == kWhite ? 0 : 1;
    return count;
  }

  NTest::CScratchDir mDir;
  const std::string mFile = mDir.file("tracks.dat");
  CTensor<float> mCanvas = whiteImage(12, 8);
};

TEST_F(TrackReader, PaintsThePointsOfTheSelectedFrame) {
  EXPECT_TRUE(read("7 3\n"
                   "2 3\n10.9 3.2 5\n1 1 4\n0 1 5\n"
                   "2 2\n6 7 5\n-0.5 -0.9 5\n"
                   "45 2\n11.99 7.5 5\n0 1.7 5 trailing words are ignored",
                   5));
  EXPECT_EQ(paintedPixels(), 5);
  EXPECT_EQ(colorAt(mCanvas, 10, 3), CRgb(10, 10, 255));
  EXPECT_EQ(colorAt(mCanvas, 6, 7), palette(2));
  EXPECT_EQ(colorAt(mCanvas, 0, 0), palette(2));  // -0.5 truncates to 0
  EXPECT_EQ(colorAt(mCanvas, 11, 7), palette(45));
  EXPECT_EQ(colorAt(mCanvas, 0, 1), palette(45));  // the later point wins

  mCanvas = whiteImage(12, 8);
  EXPECT_TRUE(read("0 1\n3 2\n1 1 0\n-1 -1 1\n", 9));  // other frames are neither painted nor checked
  EXPECT_EQ(paintedPixels(), 0);

  testing::internal::CaptureStdout();
  EXPECT_FALSE(CUtility::readTracks(mDir.file("absent.dat").c_str(), 0, mCanvas));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "File not found.\n");
}

TEST_F(TrackReader, MalformedFilesAndOutsidePointsRaiseAFileErrorSayingWhere) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "expected the header value and the track count"},
      {"0 -1\n", "negative track count"},
      {"0 3\n3 1\n2 3 7\n", "track 2 of 3: expected label"},
      {"0 1\n-1 1\n2 2 0\n", "track 1 of 1: label -1 outside 0 to 255"},
      {"0 1\n256 1\n2 2 0\n", "track 1 of 1: label 256 outside 0 to 255"},
      {"0 1\n3 -4\n", "track 1 of 1: negative length -4"},
      {"0 2\n0 1\n1 1 0\n1 3\n1 1 0\n2 x 0\n", "track 2 of 2: expected x, y and frame of point 2 of 3"},
      {"0 1\n1 1000000\n1 1 0\n", "track 1 of 1: expected x, y and frame of point 2 of 1000000"},
      {"0 1\n1 2\n1 1 3\n0 8 3\n", "track 1 of 1: point 2 of 2 at (0, 8) lies outside the 12 by 8 image"},
      {"0 1\n1 1\n2 -1e30 3\n", "lies outside the 12 by 8 image"},
  };
  for (const auto& [contents, problem] : cases) {
    testing::internal::CaptureStderr();
    EXPECT_THROW(read(contents, 3), EFileError) << contents;
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(message.rfind("Error: " + mFile + ": ", 0), 0u) << message;
    EXPECT_NE(message.find(problem), std::string::npos) << message;
  }
}
