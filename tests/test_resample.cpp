// Area resampling of matrices. Tensors resample layer by layer in every
// exact run, which the golden runs pin.
#include <gtest/gtest.h>

#include <vector>

#include "CMatrix.h"
#include "CTensor.h"
#include "TestSupport.h"

using NTest::matrix;
using NTest::values;

TEST(Resample, AreaAveragesAndSpreadsInBothPasses) {
  const struct {
    bool up;
    int xSize, ySize;
    std::vector<float> in;
    int newX, newY;
    std::vector<float> expected;
  } cases[] = {
      {false, 4, 1, {1, 2, 3, 4}, 2, 1, {1.5f, 3.5f}},
      {false, 4, 1, {1, 2, 3, 4}, 3, 1, {1.25f, 2.5f, 3.75f}},
      {false, 4, 2, {0, 2, 4, 6, 1, 1, 1, 1}, 2, 2, {1, 5, 1, 1}},
      {false, 4, 4, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, 2, 2, {2.5f, 4.5f, 10.5f, 12.5f}},
      {true, 2, 1, {0, 3}, 4, 1, {0, 0, 3, 3}},
      {true, 2, 1, {0, 3}, 3, 1, {0, 1.5f, 3}},
      {true, 1, 2, {0, 3}, 1, 3, {0, 1.5f, 3}},
      {true, 2, 2, {1, 2, 3, 4}, 4, 4, {1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}},
  };
  for (const auto& c : cases) {
    CMatrix<float> m = matrix(c.xSize, c.ySize, c.in);
    if (c.up) {
      m.upsample(c.newX, c.newY);
    } else {
      m.downsample(c.newX, c.newY);
    }
    EXPECT_EQ(values(m), c.expected) << c.xSize << "x" << c.ySize << " -> " << c.newX << "x" << c.newY;
  }
}

TEST(Resample, ConstantStaysConstantForAnyFactor) {
  for (int from = 1; from <= 16; from++)
    for (int to = 1; to <= 40; to++) {
      CMatrix<float> m(from, from + 3, 7.25f);
      if (to <= from) m.downsample(to, (to + 2) / 2);
      else m.upsample(to, from + 5);
      for (int i = 0; i < m.size(); i++) ASSERT_NEAR(m.data()[i], 7.25f, 1e-4f) << from << " -> " << to << " at " << i;
    }
}

TEST(Resample, ConfidenceWeightsWithoutDiluting) {
  CMatrix<float> none(6, 4, 5.0f);
  CMatrix<float> zero(6, 4, 0.0f);
  none.downsample(3, 2, zero);
  EXPECT_EQ(values(none), std::vector<float>(6, 0.0f));

  CMatrix<float> row = matrix(4, 1, {10, 99, 10, 99});
  CMatrix<float> confidence = matrix(4, 1, {1, 0, 1, 0});
  row.downsample(2, 1, confidence);
  EXPECT_EQ(values(row), (std::vector<float>{10, 10}));
  EXPECT_EQ(values(confidence), (std::vector<float>{1, 0, 1, 0}));

  // Same size: unconfident cells become 0 rather than taking a neighbour's value.
  CMatrix<float> same = matrix(3, 1, {4, 8, 12});
  CMatrix<float> sameConfidence = matrix(3, 1, {1, 0, 1});
  same.downsample(3, 1, sameConfidence);
  EXPECT_EQ(values(same), (std::vector<float>{4, 0, 12}));

  // Pixel 1 lands halfway between cells 0 and 1; cell 1 lies outside.
  CMatrix<float> pair = matrix(2, 1, {0, 10});
  CMatrix<float> pairConfidence = matrix(2, 1, {1, 3});
  pair.downsample(1, 1, pairConfidence);
  EXPECT_EQ(values(pair), (std::vector<float>{6}));
}
