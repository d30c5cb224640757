// Projections of label degrees: interval, hard labelling, simplex and unit balls.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "CProjection.h"

namespace {

const float mNaN = std::numeric_limits<float>::quiet_NaN();

// Degrees of a single pixel.
CTensor<float> pixel(const std::vector<float>& aValues) {
  CTensor<float> t(1, 1, static_cast<int>(aValues.size()));
  std::copy(aValues.begin(), aValues.end(), t.data());
  return t;
}

std::vector<float> valuesOf(const CTensor<float>& aTensor) { return {aTensor.data(), aTensor.data() + aTensor.size()}; }

CTensor<float> randomTensor(int aWidth, int aHeight, int aLayers, float aLow, float aHigh, unsigned aSeed) {
  std::mt19937 random(aSeed);
  std::uniform_real_distribution<float> value(aLow, aHigh);
  CTensor<float> t(aWidth, aHeight, aLayers);
  for (int i = 0; i < t.size(); i++) t.data()[i] = value(random);
  return t;
}

bool sameBits(const CTensor<float>& a, const CTensor<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

}  // namespace

TEST(Interval, ClampsAndKeepsNaN) {
  const float infinity = std::numeric_limits<float>::infinity();
  for (const auto& [in, out] : {std::make_pair(1.5f, 1.0f), std::make_pair(-0.2f, 0.0f), std::make_pair(0.5f, 0.5f),
                                std::make_pair(infinity, 1.0f), std::make_pair(-infinity, 0.0f)}) {
    float value = in;
    CProjection::interval(&value, 0.0f, 1.0f);
    EXPECT_EQ(value, out) << in;
  }
  float value = mNaN;
  CProjection::interval(&value, 0.0f, 1.0f);
  EXPECT_TRUE(std::isnan(value));
  value = 0.5f;  // an empty interval always yields its upper end
  CProjection::interval(&value, 2.0f, 1.0f);
  EXPECT_EQ(value, 1.0f);
}

TEST(Binary, OneHotWithTiesToTheLowestLabel) {
  const std::vector<float> cases[][2] = {{{0.3f, 0.3f, 0.4f}, {0, 0, 1}}, {{0.5f, 0.5f, 0}, {1, 0, 0}},
                                         {{0, 0, 0}, {1, 0, 0}},          {{-2, -0.5f, mNaN}, {0, 1, 0}},
                                         {{mNaN, mNaN}, {0, 0}},          {{-2, -1}, {0, 0}}};
  for (const auto& c : cases) {
    CTensor<float> t = pixel(c[0]);
    CProjection::binary(t);
    EXPECT_EQ(valuesOf(t), c[1]);
  }
}

TEST(Simplex, ExamplesAndAgreementOfBothMethods) {
  const std::vector<float> cases[][2] = {
      {{0.5f, 0.5f}, {0.5f, 0.5f}}, {{1, 1}, {0.5f, 0.5f}}, {{2, 0}, {1, 0}}, {{0.25f}, {1}}};
  for (const auto& c : cases) {
    CTensor<float> michelot = pixel(c[0]);
    CTensor<float> pivots = michelot;
    CProjection::simplex(michelot);
    CProjection::simplex_DSSC(pivots);
    EXPECT_EQ(valuesOf(michelot), c[1]);
    EXPECT_EQ(valuesOf(pivots), c[1]);
  }

  CTensor<float> michelot = randomTensor(9, 7, 6, -1.0f, 2.0f, 11);
  CTensor<float> pivots = michelot;
  CProjection::simplex(michelot);
  CProjection::simplex_DSSC(pivots);
  for (int y = 0; y < 7; y++)
    for (int x = 0; x < 9; x++) {
      float sum = 0;
      for (int k = 0; k < 6; k++) {
        EXPECT_GE(michelot(x, y, k), 0.0f);
        EXPECT_NEAR(pivots(x, y, k), michelot(x, y, k), 1e-6f);
        sum += michelot(x, y, k);
      }
      EXPECT_NEAR(sum, 1.0f, 1e-6f);
    }
}

TEST(L2Ball, CoupledAndWeightedScaling) {
  CTensor<float> p1 = pixel({0.3f, 0.4f});
  CTensor<float> p2 = pixel({0.0f, 0.5f});
  const CTensor<float> small = p1;
  CProjection::L2sphere_coupled(p1, p2);
  EXPECT_TRUE(sameBits(p1, small));
  EXPECT_EQ(valuesOf(p2), (std::vector<float>{0.0f, 0.5f}));

  p1 = pixel({3.0f, 0.0f});
  p2 = pixel({0.0f, 4.0f});
  CProjection::L2sphere_coupled(p1, p2);
  EXPECT_EQ(valuesOf(p1), (std::vector<float>{0.6f, 0.0f}));
  EXPECT_EQ(valuesOf(p2), (std::vector<float>{0.0f, 0.8f}));
  CTensor<float> shallow = pixel({1.0f});
  EXPECT_THROW(CProjection::L2sphere_coupled(p1, shallow), ETensorIncompatibleSize);

  p1 = pixel({3.0f});
  p2 = pixel({4.0f});
  CProjection::L2sphere_w_coupled(p1, p2, CMatrix<float>(1, 1, 0.01f), CMatrix<float>(1, 1, 0.0f));
  EXPECT_EQ(valuesOf(p1), std::vector<float>{3.0f});
  CProjection::L2sphere_w_coupled(p1, p2, CMatrix<float>(1, 1, 1.0f), CMatrix<float>(1, 1, 1.0f));
  EXPECT_EQ(valuesOf(p1), std::vector<float>{0.6f});
  EXPECT_EQ(valuesOf(p2), std::vector<float>{0.8f});
}

TEST(L2Ball, DykstraBoundsEveryPairwiseDifference) {
  CTensor<float> p1 = randomTensor(4, 3, 3, -3.0f, 3.0f, 21);
  CTensor<float> p2 = randomTensor(4, 3, 3, -3.0f, 3.0f, 22);
  CProjection::L2sphereIntersect_w_dykstra(p1, p2, CMatrix<float>(4, 3, 1.0f), CMatrix<float>(4, 3, 0.5f), 500, 0);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 4; x++)
      for (int a = 0; a < 3; a++)
        for (int b = a + 1; b < 3; b++) {
          const float d1 = 0.5f * (p1(x, y, a) - p1(x, y, b));
          const float d2 = 0.5f * (p2(x, y, a) - p2(x, y, b));
          EXPECT_LE(d1 * d1 + 0.5f * d2 * d2, 1.0f + 1e-3f);
        }

  // Differences already inside their balls are left alone.
  CTensor<float> inside1 = pixel({0.1f, 0.2f, 0.3f});
  CTensor<float> inside2 = pixel({0.3f, 0.2f, 0.1f});
  const CTensor<float> before = inside1;
  const CMatrix<float> one(1, 1, 1.0f);
  CProjection::L2sphereIntersect_w_dykstra(inside1, inside2, one, one, 10, 1);
  EXPECT_TRUE(sameBits(inside1, before));
}

TEST(Projections, ResultsDoNotDependOnTheThreadCount) {
  const CTensor<float> degrees = randomTensor(29, 31, 4, -0.5f, 1.5f, 31);
  const CMatrix<float> weights(29, 31, 0.7f);
  const auto project = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    std::vector<CTensor<float>> results(5, degrees);
    CProjection::binary(results[0]);
    CProjection::simplex(results[1]);
    CProjection::simplex_DSSC(results[2]);
    CProjection::L2sphere_coupled(results[3], results[4]);
    CProjection::L2sphere_w_coupled(results[3], results[4], weights, weights);
    return results;
  };
  const int threads = omp_get_max_threads();
  const std::vector<CTensor<float>> one = project(1);
  const std::vector<CTensor<float>> two = project(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) EXPECT_TRUE(sameBits(one[i], two[i])) << "result " << i;
}
