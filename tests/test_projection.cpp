// Projections of label degrees: interval, simplex and unit balls. The hard
// labelling is checked through its caller in test_labelling.cpp.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "CProjection.h"
#include "TestSupport.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Degrees of a single pixel.
CTensor<float> pixel(const std::vector<float>& aValues) {
  CTensor<float> t(1, 1, static_cast<int>(aValues.size()));
  std::copy(aValues.begin(), aValues.end(), t.data());
  return t;
}

CTensor<float> randomTensor(int aWidth, int aHeight, int aLayers, float aLow, float aHigh, unsigned aSeed) {
  std::mt19937 random(aSeed);
  std::uniform_real_distribution<float> value(aLow, aHigh);
  CTensor<float> t(aWidth, aHeight, aLayers);
  for (int i = 0; i < t.size(); i++) t.data()[i] = value(random);
  return t;
}

}  // namespace

TEST(Interval, ClampsAndKeepsNaN) {
  for (const auto& [in, out] : {std::make_pair(1.5f, 1.0f), std::make_pair(-0.2f, 0.0f), std::make_pair(0.5f, 0.5f),
                                std::make_pair(std::numeric_limits<float>::infinity(), 1.0f)}) {
    float value = in;
    CProjection::interval(&value, 0.0f, 1.0f);
    EXPECT_EQ(value, out) << in;
  }
  float value = kNaN;
  CProjection::interval(&value, 0.0f, 1.0f);
  EXPECT_TRUE(std::isnan(value));
}

TEST(Simplex, ExamplesAndAgreementOfBothMethods) {
  const std::vector<float> cases[][2] = {{{0.5f, 0.5f}, {0.5f, 0.5f}}, {{1, 1}, {0.5f, 0.5f}}, {{2, 0}, {1, 0}}};
  for (const auto& c : cases) {
    CTensor<float> michelot = pixel(c[0]);
    CTensor<float> pivots = michelot;
    CProjection::simplex(michelot);
    CProjection::simplex_DSSC(pivots);
    EXPECT_EQ(NTest::values(michelot), c[1]);
    EXPECT_EQ(NTest::values(pivots), c[1]);
  }

  CTensor<float> michelot = randomTensor(9, 7, 6, -1.0f, 2.0f, 11);
  CTensor<float> pivots = michelot;
  CProjection::simplex(michelot);
  CProjection::simplex_DSSC(pivots);
  const int pixels = 9 * 7;
  for (int i = 0; i < pixels; i++) {
    float sum = 0;
    for (int k = 0; k < 6; k++) {
      EXPECT_GE(michelot.data()[i + pixels * k], 0.0f);
      EXPECT_NEAR(pivots.data()[i + pixels * k], michelot.data()[i + pixels * k], 1e-6f);
      sum += michelot.data()[i + pixels * k];
    }
    EXPECT_NEAR(sum, 1.0f, 1e-6f);
  }
}

TEST(Simplex, RandomPivotsDoNotDependOnTheThreadCount) {
  const CTensor<float> degrees = randomTensor(29, 31, 4, -0.5f, 1.5f, 31);
  const auto project = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    CTensor<float> result = degrees;
    CProjection::simplex_DSSC(result);
    return NTest::values(result);
  };
  const int threads = omp_get_max_threads();
  const std::vector<float> one = project(1);
  const std::vector<float> two = project(2);
  omp_set_num_threads(threads);
  EXPECT_EQ(one, two);
}

TEST(L2Ball, JointVectorsAreScaledIntoTheBall) {
  CTensor<float> p1 = pixel({0.3f, 0.4f});
  CTensor<float> p2 = pixel({0.0f, 0.5f});
  CProjection::L2sphere_coupled(p1, p2);
  EXPECT_EQ(NTest::values(p1), (std::vector<float>{0.3f, 0.4f}));
  p1 = pixel({3.0f, 0.0f});
  p2 = pixel({0.0f, 4.0f});
  CProjection::L2sphere_coupled(p1, p2);
  EXPECT_EQ(NTest::values(p1), (std::vector<float>{0.6f, 0.0f}));
  EXPECT_EQ(NTest::values(p2), (std::vector<float>{0.0f, 0.8f}));
  // Weighted: sqrt(9 * 4 + 0.25 * 0) = 6, both fields shrink by the same factor.
  p1 = pixel({3.0f, 0.0f});
  p2 = pixel({0.0f, 0.5f});
  CProjection::L2sphere_w_coupled(p1, p2, CMatrix<float>(1, 1, 4.0f), CMatrix<float>(1, 1, 0.0f));
  EXPECT_FLOAT_EQ(p1(0, 0, 0), 0.5f);
  EXPECT_FLOAT_EQ(p2(0, 0, 1), 0.5f / 6.0f);
}

TEST(L2Ball, DykstraBringsEveryPairIntoItsBallAndKeepsTheSums) {
  CTensor<float> p1 = randomTensor(3, 2, 4, -4.0f, 4.0f, 11);
  CTensor<float> p2 = randomTensor(3, 2, 4, -4.0f, 4.0f, 12);
  const CMatrix<float> dx(3, 2, 1.0f);
  const CMatrix<float> dy(3, 2, 2.0f);
  std::vector<float> sums1(6, 0.0f);
  for (int k = 0; k < 4; k++)
    for (int i = 0; i < 6; i++) sums1[i] += p1.data()[k * 6 + i];
  CProjection::L2sphereIntersect_w_dykstra(p1, p2, dx, dy, 2000, 0);
  for (int y = 0; y < 2; y++)
    for (int x = 0; x < 3; x++) {
      float sum = 0.0f;
      for (int a = 0; a < 4; a++) {
        sum += p1(x, y, a);
        for (int b = a + 1; b < 4; b++) {
          const float d1 = 0.5f * (p1(x, y, a) - p1(x, y, b));
          const float d2 = 0.5f * (p2(x, y, a) - p2(x, y, b));
          EXPECT_LE(std::sqrt(d1 * d1 + 2.0f * d2 * d2), 1.01f) << x << "," << y << " pair " << a << b;
        }
      }
      EXPECT_NEAR(sum, sums1[y * 3 + x], 1e-3f);
    }
  // Pairs already inside their balls are left exactly as they are.
  CTensor<float> inside1 = pixel({0.1f, 0.3f, -0.2f});
  CTensor<float> inside2 = pixel({0.0f, 0.2f, 0.1f});
  const CMatrix<float> one(1, 1, 1.0f);
  CProjection::L2sphereIntersect_w_dykstra(inside1, inside2, one, one, 5, 0);
  EXPECT_EQ(NTest::values(inside1), (std::vector<float>{0.1f, 0.3f, -0.2f}));
  EXPECT_EQ(NTest::values(inside2), (std::vector<float>{0.0f, 0.2f, 0.1f}));
}
