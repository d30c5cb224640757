#include <gtest/gtest.h>

#include "CTensor.h"

TEST(Smoke, TensorLayout) {
  CTensor<float> t(4, 3, 3, 0.0f);
  t(0, 0, 2) = 1.0f;
  EXPECT_EQ(t.data()[24], 1.0f);
}
