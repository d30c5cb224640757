// Label colour coding, the palette and the rendering of label functions.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <tuple>

#include "CUtility.h"

namespace {

CTensor<float> whiteImage(int aWidth, int aHeight) { return CTensor<float>(aWidth, aHeight, 3, 255.0f); }

void setColor(CTensor<float>& aImage, int ax, int ay, float aR, float aG, float aB) {
  aImage(ax, ay, 0) = aR;
  aImage(ax, ay, 1) = aG;
  aImage(ax, ay, 2) = aB;
}

CVector<int> color(int aR, int aG, int aB) {
  CVector<int> c(3);
  c(0) = aR;
  c(1) = aG;
  c(2) = aB;
  return c;
}

void expectColor(const CTensor<float>& aImage, int ax, int ay, float aR, float aG, float aB) {
  EXPECT_EQ(aImage(ax, ay, 0), aR) << "at " << ax << "," << ay;
  EXPECT_EQ(aImage(ax, ay, 1), aG) << "at " << ax << "," << ay;
  EXPECT_EQ(aImage(ax, ay, 2), aB) << "at " << ax << "," << ay;
}

bool sameBits(const CTensor<float>& a, const CTensor<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

CTensor<float> randomTensor(int aWidth, int aHeight, int aLayers, float aLow, float aHigh, unsigned aSeed) {
  std::mt19937 random(aSeed);
  std::uniform_real_distribution<float> value(aLow, aHigh);
  CTensor<float> t(aWidth, aHeight, aLayers);
  for (int i = 0; i < t.size(); i++) t.data()[i] = value(random);
  return t;
}

}  // namespace

TEST(LabelColors, NumbersLabelsByFirstAppearanceInRowOrder) {
  CTensor<float> image = whiteImage(6, 3);
  setColor(image, 5, 0, 255, 0, 0);
  setColor(image, 2, 1, 0, 0, 255);
  setColor(image, 0, 2, 0, 0, 0);
  setColor(image, 4, 2, 255, 0, 0);
  std::vector<CVector<int>> colors;
  EXPECT_EQ(CUtility::getNumberOfLabels(image, colors), 3);
  ASSERT_EQ(colors.size(), 3u);
  EXPECT_EQ(std::make_tuple(colors[0](0), colors[0](1), colors[0](2)), std::make_tuple(255, 0, 0));
  EXPECT_EQ(std::make_tuple(colors[1](0), colors[1](1), colors[1](2)), std::make_tuple(0, 0, 255));
  // Black is an ordinary label colour.
  EXPECT_EQ(std::make_tuple(colors[2](0), colors[2](1), colors[2](2)), std::make_tuple(0, 0, 0));

  // A second pass over the same image adds nothing.
  EXPECT_EQ(CUtility::getNumberOfLabels(image, colors), 3);
  EXPECT_EQ(colors.size(), 3u);
}

TEST(LabelColors, KeepsExistingEntriesAndTheirIndices) {
  CTensor<float> image = whiteImage(3, 1);
  setColor(image, 0, 0, 255, 0, 0);
  setColor(image, 2, 0, 0, 0, 255);
  std::vector<CVector<int>> colors{color(0, 0, 255)};
  CTensor<float> labels;
  EXPECT_EQ(CUtility::color2labelFunction(labels, image, colors), 2);
  EXPECT_EQ(labels(2, 0, 0), 1.0f);
  EXPECT_EQ(labels(0, 0, 1), 1.0f);
}

TEST(LabelColors, AllWhiteImageHasNoLabels) {
  CTensor<float> image = whiteImage(4, 3);
  std::vector<CVector<int>> colors;
  CTensor<float> labels(2, 2, 5, 0.0f);
  EXPECT_EQ(CUtility::color2labelFunction(labels, image, colors), 0);
  EXPECT_EQ(labels.xSize(), 4);
  EXPECT_EQ(labels.ySize(), 3);
  EXPECT_EQ(labels.zSize(), 0);
}

TEST(LabelColors, LabelFunctionIsOneHotOnLabelledPixelsOnly) {
  CTensor<float> image = whiteImage(5, 4);
  setColor(image, 1, 0, 10, 20, 30);
  setColor(image, 3, 2, 0, 0, 0);
  setColor(image, 4, 3, 10, 20, 30);
  setColor(image, 0, 3, 255, 255, 254);
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  ASSERT_EQ(CUtility::color2labelFunction(labels, image, colors), 3);
  ASSERT_EQ(labels.zSize(), 3);
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 5; x++) {
      float sum = 0;
      for (int k = 0; k < 3; k++) {
        EXPECT_TRUE(labels(x, y, k) == 0.0f || labels(x, y, k) == 1.0f);
        sum += labels(x, y, k);
      }
      const bool white = image(x, y, 0) == 255 && image(x, y, 1) == 255 && image(x, y, 2) == 255;
      EXPECT_EQ(sum, white ? 0.0f : 1.0f) << "at " << x << "," << y;
    }
  EXPECT_EQ(labels(1, 0, 0), 1.0f);
  EXPECT_EQ(labels(4, 3, 0), 1.0f);
  EXPECT_EQ(labels(3, 2, 1), 1.0f);
  EXPECT_EQ(labels(0, 3, 2), 1.0f);
}

TEST(LabelColors, NonIntegerColoursNeverMatchAndAddAnEntryEach) {
  CTensor<float> image = whiteImage(3, 1);
  setColor(image, 0, 0, 10.5f, 0, 0);
  setColor(image, 1, 0, 10.5f, 0, 0);
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  EXPECT_EQ(CUtility::color2labelFunction(labels, image, colors), 2);
  EXPECT_EQ(colors[0](0), 10);
  for (int k = 0; k < 2; k++) EXPECT_EQ(labels(0, 0, k), 0.0f);
}

TEST(LabelColors, GreyImageIsRejected) {
  CTensor<float> grey(2, 2, 1, 0.0f);
  std::vector<CVector<int>> colors;
  EXPECT_THROW(CUtility::getNumberOfLabels(grey, colors), ETensorIncompatibleSize);
}

TEST(LabelColors, LabelFunctionToColourWeighsColoursAndPaintsEmptyPixelsWhite) {
  std::vector<CVector<int>> colors{color(200, 100, 0), color(0, 0, 255)};
  CTensor<float> labels(2, 1, 2, 0.0f);
  labels(0, 0, 0) = 0.5f;
  CTensor<float> out(2, 1, 3, 7.0f);
  CUtility::labelFunction2color(labels, out, colors);
  expectColor(out, 0, 0, 100, 50, 0);
  expectColor(out, 1, 0, 255, 255, 255);

  // The float nearest to 1e-5 lies just below it and still counts as no label.
  labels(1, 0, 1) = 1e-5f;
  CUtility::labelFunction2color(labels, out, colors);
  expectColor(out, 1, 0, 255, 255, 255);
  labels(1, 0, 1) = 2e-5f;
  CUtility::labelFunction2color(labels, out, colors);
  expectColor(out, 1, 0, 0, 0, 255 * 2e-5f);
}

TEST(Palette, FixedEntriesThenDistinctExtraColours) {
  int r = 0, g = 0, b = 0;
  CUtility::paletteColor(2, r, g, b);
  EXPECT_EQ(std::make_tuple(r, g, b), std::make_tuple(10, 10, 255));
  CUtility::paletteColor(39, r, g, b);
  EXPECT_EQ(std::make_tuple(r, g, b), std::make_tuple(210, 160, 210));
  std::set<std::tuple<int, int, int>> seen{{255, 255, 255}};
  for (int k = 0; k < CUtility::mPaletteSize; k++) {
    CUtility::paletteColor(k, r, g, b);
    EXPECT_TRUE(seen.insert({r, g, b}).second) << "label " << k;
    if (k < 40) {
      EXPECT_EQ(std::make_tuple(r, g, b), std::make_tuple(CUtility::mR[k], CUtility::mG[k], CUtility::mB[k]));
    }
  }
  EXPECT_THROW(CUtility::paletteColor(-1, r, g, b), std::out_of_range);
  EXPECT_THROW(CUtility::paletteColor(CUtility::mPaletteSize, r, g, b), std::out_of_range);
}

TEST(Overlay, BlendsLabelColourOverImage) {
  CTensor<float> image(2, 1, 3, 100.0f);
  setColor(image, 1, 0, 200, 50, 9);
  std::vector<CVector<int>> colors{color(255, 10, 10)};
  CTensor<float> labels(2, 1, 1, 0.0f);
  labels(0, 0, 0) = 1.0f;
  CUtility::plotOverlayColor(image, labels, colors, 0.3f);
  expectColor(image, 0, 0, 146.5f, 73.0f, 73.0f);
  // No label mass darkens the pixel by 1 - ratio.
  const float ratio1 = 1 - 0.3f;
  expectColor(image, 1, 0, 200 * ratio1, 50 * ratio1, 9 * ratio1);
}

TEST(Overlay, RatioOneReplacesAndRatioZeroKeeps) {
  std::vector<CVector<int>> colors{color(200, 100, 0), color(0, 0, 255)};
  CTensor<float> labels(1, 1, 2, 0.0f);
  labels(0, 0, 0) = 0.25f;
  labels(0, 0, 1) = 0.75f;
  CTensor<float> image(1, 1, 3, 40.0f);
  CUtility::plotOverlayColor(image, labels, colors, 0.0f);
  expectColor(image, 0, 0, 40, 40, 40);
  CUtility::plotOverlayColor(image, labels, colors, 1.0f);
  expectColor(image, 0, 0, 50, 25, 191.25f);
}

TEST(Overlay, PaletteVariantUsesPaletteColours) {
  CTensor<float> labels(1, 1, 42, 0.0f);
  labels(0, 0, 41) = 1.0f;
  CTensor<float> image(1, 1, 3, 0.0f);
  CUtility::plotOverlayColor(image, labels, 1.0f);
  int r = 0, g = 0, b = 0;
  CUtility::paletteColor(41, r, g, b);
  expectColor(image, 0, 0, r, g, b);

  CTensor<float> tooMany(1, 1, CUtility::mPaletteSize + 1, 0.0f);
  EXPECT_THROW(CUtility::plotOverlayColor(image, tooMany, 1.0f), EMissingLabelColors);
}

TEST(Overlay, ColourListShorterThanLabelsIsRejected) {
  CTensor<float> labels(1, 1, 2, 0.0f);
  CTensor<float> image(1, 1, 3, 0.0f);
  std::vector<CVector<int>> colors{color(1, 2, 3)};
  EXPECT_THROW(CUtility::plotOverlayColor(image, labels, colors, 1.0f), EMissingLabelColors);
  EXPECT_THROW(CUtility::labelFunction2color(labels, image, colors), EMissingLabelColors);
  CTensor<float> smallLabels(0, 1, 1);
  EXPECT_THROW(CUtility::plotOverlayColor(image, smallLabels, colors, 1.0f), ETensorIncompatibleSize);
}

TEST(Overlay, PlotOverlayBlendsEveryLayer) {
  CTensor<float> image(2, 2, 4, 10.0f);
  CTensor<float> other(2, 2, 4, 110.0f);
  other(1, 1, 3) = 0.0f;
  CUtility::plotOverlay(image, other, 0.5f);
  EXPECT_EQ(image(0, 0, 0), 60.0f);
  EXPECT_EQ(image(1, 1, 3), 5.0f);
}

TEST(ConfidenceMask, MarksExactlyTheCertainPixels) {
  CTensor<float> image = whiteImage(4, 3);
  setColor(image, 1, 1, 0, 0, 0);
  setColor(image, 3, 2, 9, 9, 9);
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  CUtility::color2labelFunction(labels, image, colors);
  CMatrix<float> mask(4, 3, 5.0f);
  CUtility::labelFunction2confidenceMask(labels, mask);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 4; x++) EXPECT_EQ(mask(x, y), (x == 1 && y == 1) || (x == 3 && y == 2) ? 1.0f : 0.0f);

  labels(1, 1, 0) = 0.999f;
  CUtility::labelFunction2confidenceMask(labels, mask);
  EXPECT_EQ(mask(1, 1), 0.0f);

  CTensor<float> none(4, 3, 0);
  mask.fill(5.0f);
  CUtility::labelFunction2confidenceMask(none, mask);
  EXPECT_EQ(mask(2, 2), 5.0f);
}

TEST(SparseLabels, PaintsUnblendedColoursWhereTheMaskIsOne) {
  std::vector<CVector<int>> colors{color(200, 100, 0)};
  CTensor<float> labels(2, 1, 1, 1.0f);
  CMatrix<float> mask(2, 1, 0.0f);
  CTensor<float> image(2, 1, 3, 255.0f);
  CUtility::plotSparseLabels(image, labels, mask, colors);
  expectColor(image, 0, 0, 255, 255, 255);
  expectColor(image, 1, 0, 255, 255, 255);
  mask(1, 0) = 1.0f;
  CUtility::plotSparseLabels(image, labels, mask, colors);
  expectColor(image, 0, 0, 255, 255, 255);
  expectColor(image, 1, 0, 200, 100, 0);
}

TEST(Rectangle, ClipsToTheImage) {
  CTensor<float> image(5, 4, 3, 0.0f);
  CUtility::putRectangle(image, 0, 0, 1, 2, 3, 2);
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 5; x++) {
      const bool inside = x <= 2 && y <= 2;
      expectColor(image, x, y, inside ? 1 : 0, inside ? 2 : 0, inside ? 3 : 0);
    }
  CTensor<float> before = image;
  CUtility::putRectangle(image, 10, 10, 9, 9, 9, 2);
  CUtility::putRectangle(image, -4, 1, 9, 9, 9, 2);
  CUtility::putRectangle(image, 2, 2, 9, 9, 9, -1);
  EXPECT_TRUE(sameBits(image, before));
  CUtility::putRectangle(image, 4, 3, 7, 7, 7, 2147483647);
  expectColor(image, 0, 0, 7, 7, 7);
}

TEST(Rendering, ResultsDoNotDependOnTheThreadCount) {
  const int width = 37;
  const int height = 23;
  const int labels = 5;
  std::vector<CVector<int>> colors;
  for (int k = 0; k < labels; k++) colors.push_back(color(40 * k, 255 - 30 * k, 7 * k + 1));
  CTensor<float> labelFunction = randomTensor(width, height, labels, 0.0f, 0.4f, 1);
  for (int x = 0; x < width; x += 3) labelFunction(x, x % height, x % labels) = 1.0f;
  const CTensor<float> image = randomTensor(width, height, 3, 0.0f, 255.0f, 2);
  CTensor<float> colorImage = whiteImage(width, height);
  for (int y = 0; y < height; y += 2) setColor(colorImage, y, y, 3.0f * y, 2, 1);

  const auto render = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    std::vector<CTensor<float>> results;
    CTensor<float> canvas = image;
    CUtility::plotOverlayColor(canvas, labelFunction, colors, 0.4f);
    CUtility::plotOverlayColor(canvas, labelFunction, 0.3f);
    CUtility::plotOverlay(canvas, image, 0.25f);
    CMatrix<float> mask(width, height);
    CUtility::labelFunction2confidenceMask(labelFunction, mask);
    CUtility::plotSparseLabels(canvas, labelFunction, mask, colors);
    CUtility::putRectangle(canvas, 20, 10, 1, 2, 3, 4);
    results.push_back(canvas);
    CTensor<float> painted(width, height, 3);
    CUtility::labelFunction2color(labelFunction, painted, colors);
    results.push_back(painted);
    std::vector<CVector<int>> list;
    CTensor<float> coded;
    CUtility::color2labelFunction(coded, colorImage, list);
    results.push_back(coded);
    return results;
  };
  const int threads = omp_get_max_threads();
  const std::vector<CTensor<float>> one = render(1);
  const std::vector<CTensor<float>> two = render(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) EXPECT_TRUE(sameBits(one[i], two[i])) << "result " << i;
}
