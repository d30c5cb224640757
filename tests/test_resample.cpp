#include <gtest/gtest.h>

#include <vector>

#include "CMatrix.h"
#include "TestSupport.h"
#include "CTensor.h"

namespace {

using NTest::matrix;
using NTest::values;

void expectNear(const CMatrix<float>& aActual, int aXSize, int aYSize, const std::vector<float>& aExpected) {
  ASSERT_EQ(aActual.xSize(), aXSize);
  ASSERT_EQ(aActual.ySize(), aYSize);
  for (int i = 0; i < aActual.size(); i++)
    EXPECT_FLOAT_EQ(aActual.data()[i], aExpected[static_cast<size_t>(i)]) << "element " << i;
}

// A layer with a different ramp per layer, so that mixed-up layers show.
CTensor<float> ramps(int aXSize, int aYSize, int aZSize) {
  CTensor<float> t(aXSize, aYSize, aZSize);
  for (int z = 0; z < aZSize; z++)
    for (int y = 0; y < aYSize; y++)
      for (int x = 0; x < aXSize; x++) t(x, y, z) = static_cast<float>((z + 1) * (x + 3 * y));
  return t;
}

}  // namespace

TEST(AreaDownsample, RowAveragesOverFractionalFootprints) {
  CMatrix<float> half = matrix(4, 1, {1, 2, 3, 4});
  half.downsample(2, 1);
  EXPECT_EQ(values(half), (std::vector<float>{1.5f, 3.5f}));

  CMatrix<float> third = matrix(4, 1, {1, 2, 3, 4});
  third.downsample(3, 1);
  expectNear(third, 3, 1, {1.25f, 2.5f, 3.75f});

  // Factor 1.5: one input pixel is split between two output cells twice.
  CMatrix<float> twoThirds = matrix(6, 1, {1, 2, 3, 4, 5, 6});
  twoThirds.downsample(4, 1);
  expectNear(twoThirds, 4, 1, {4.0f / 3, 8.0f / 3, 13.0f / 3, 17.0f / 3});
}

TEST(AreaDownsample, ColumnsAndBothAxes) {
  CMatrix<float> column = matrix(1, 4, {1, 2, 3, 4});
  column.downsample(1, 2);
  EXPECT_EQ(values(column), (std::vector<float>{1.5f, 3.5f}));

  std::vector<float> grid;
  for (int i = 0; i < 16; i++) grid.push_back(static_cast<float>(i));
  CMatrix<float> blocks = matrix(4, 4, grid);
  blocks.downsample(2, 2);
  EXPECT_EQ(values(blocks), (std::vector<float>{2.5f, 4.5f, 10.5f, 12.5f}));

  CMatrix<float> onlyX = matrix(4, 2, {0, 2, 4, 6, 1, 1, 1, 1});
  onlyX.downsample(2, 2);
  EXPECT_EQ(values(onlyX), (std::vector<float>{1, 5, 1, 1}));

  CMatrix<float> same = matrix(2, 2, {1, 2, 3, 4});
  same.downsample(2, 2);
  EXPECT_EQ(values(same), (std::vector<float>{1, 2, 3, 4}));
}

TEST(AreaDownsample, ConstantStaysConstantForAnyFactor) {
  for (int from = 1; from <= 24; from++)
    for (int to = 1; to <= from; to++) {
      CMatrix<float> m(from, from + 3, 7.25f);
      m.downsample(to, (to + 2) / 2);
      ASSERT_EQ(m.xSize(), to);
      for (int i = 0; i < m.size(); i++) ASSERT_NEAR(m.data()[i], 7.25f, 1e-4f) << from << " -> " << to << " at " << i;
    }
}

TEST(Upsample, SpreadsEachPixelOverItsFootprint) {
  CMatrix<float> twice = matrix(2, 1, {0, 3});
  twice.upsample(4, 1);
  EXPECT_EQ(values(twice), (std::vector<float>{0, 0, 3, 3}));

  CMatrix<float> oneAndHalf = matrix(2, 1, {0, 3});
  oneAndHalf.upsample(3, 1);
  EXPECT_EQ(values(oneAndHalf), (std::vector<float>{0, 1.5f, 3}));

  CMatrix<float> column = matrix(1, 2, {0, 3});
  column.upsample(1, 3);
  EXPECT_EQ(values(column), (std::vector<float>{0, 1.5f, 3}));

  CMatrix<float> blocks = matrix(2, 2, {1, 2, 3, 4});
  blocks.upsample(4, 4);
  EXPECT_EQ(values(blocks), (std::vector<float>{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}));
}

TEST(Upsample, ConstantStaysConstantForAnyFactor) {
  for (int from = 1; from <= 16; from++)
    for (int to = from; to <= 40; to++) {
      CMatrix<float> m(from, (from + 1) / 2, 0.3f);
      m.upsample(to, to);
      ASSERT_EQ(m.xSize(), to);
      ASSERT_EQ(m.ySize(), to);
      for (int i = 0; i < m.size(); i++) ASSERT_NEAR(m.data()[i], 0.3f, 1e-5f) << from << " -> " << to << " at " << i;
    }
}

TEST(ConfidenceDownsample, ZeroConfidenceGivesZero) {
  CMatrix<float> m(6, 4, 5.0f);
  CMatrix<float> none(6, 4, 0.0f);
  m.downsample(3, 2, none);
  EXPECT_EQ(values(m), std::vector<float>(6, 0.0f));
}

TEST(ConfidenceDownsample, UnconfidentPixelsDoNotDilute) {
  CMatrix<float> row = matrix(4, 1, {10, 99, 10, 99});
  CMatrix<float> confidence = matrix(4, 1, {1, 0, 1, 0});
  row.downsample(2, 1, confidence);
  EXPECT_EQ(values(row), (std::vector<float>{10, 10}));
  EXPECT_EQ(values(confidence), (std::vector<float>{1, 0, 1, 0}));

  CMatrix<float> grid = matrix(2, 2, {2, 4, 6, 100});
  CMatrix<float> gridConfidence = matrix(2, 2, {1, 1, 1, 0});
  grid.downsample(1, 1, gridConfidence);
  EXPECT_EQ(values(grid), (std::vector<float>{3.5f}));

  // Same size: unconfident cells become 0 rather than taking a neighbour's value.
  CMatrix<float> same = matrix(3, 1, {4, 8, 12});
  CMatrix<float> sameConfidence = matrix(3, 1, {1, 0, 1});
  same.downsample(3, 1, sameConfidence);
  EXPECT_EQ(values(same), (std::vector<float>{4, 0, 12}));
}

TEST(ConfidenceDownsample, BilinearSplatWeightedByConfidence) {
  // Pixel 1 lands halfway between cells 0 and 1; cell 1 lies outside.
  CMatrix<float> pair = matrix(2, 1, {0, 10});
  CMatrix<float> confidence = matrix(2, 1, {1, 3});
  pair.downsample(1, 1, confidence);
  EXPECT_EQ(values(pair), (std::vector<float>{6}));

  CMatrix<float> three = matrix(3, 1, {3, 6, 9});
  CMatrix<float> ones(3, 1, 1.0f);
  three.downsample(2, 1, ones);
  expectNear(three, 2, 1, {3.75f, 7.5f});
}

TEST(TensorResampling, EveryLayerResampledByTheMatrixOperation) {
  CMatrix<float> confidence(6, 4, 1.0f);
  confidence(1, 1) = 0.0f;
  confidence(4, 2) = 0.5f;

  for (int op = 0; op < 3; op++) {
    CTensor<float> t = ramps(6, 4, 3);
    const int newX = op == 2 ? 9 : 4;
    const int newY = op == 2 ? 7 : 3;
    std::vector<CMatrix<float>> expected;
    for (int z = 0; z < 3; z++) expected.push_back(t.getMatrix(z));
    for (CMatrix<float>& layer : expected) {
      if (op == 0) layer.downsample(newX, newY);
      if (op == 1) layer.downsample(newX, newY, confidence);
      if (op == 2) layer.upsample(newX, newY);
    }
    if (op == 0) t.downsample(newX, newY);
    if (op == 1) t.downsample(newX, newY, confidence);
    if (op == 2) t.upsample(newX, newY);

    ASSERT_EQ(t.xSize(), newX);
    ASSERT_EQ(t.ySize(), newY);
    ASSERT_EQ(t.zSize(), 3);
    for (int z = 0; z < 3; z++)
      for (int y = 0; y < newY; y++)
        for (int x = 0; x < newX; x++) EXPECT_EQ(t(x, y, z), expected[z](x, y)) << "op " << op << " layer " << z;
  }
}
