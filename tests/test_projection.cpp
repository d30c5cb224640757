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

// A tensor of width 1 and height 1 whose layers hold aValues.
CTensor<float> pixel(std::initializer_list<float> aValues) {
  CTensor<float> t(1, 1, static_cast<int>(aValues.size()));
  std::copy(aValues.begin(), aValues.end(), t.data());
  return t;
}

std::vector<float> layersOf(const CTensor<float>& aTensor, int ax, int ay) {
  std::vector<float> values;
  for (int k = 0; k < aTensor.zSize(); k++) values.push_back(aTensor(ax, ay, k));
  return values;
}

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
  const std::pair<float, float> cases[] = {{1.5f, 1.0f},     {-0.2f, 0.0f},      {0.5f, 0.5f},
                                           {infinity, 1.0f}, {-infinity, 0.0f}, {1.0f, 1.0f}};
  for (const auto& c : cases) {
    float value = c.first;
    CProjection::interval(&value, 0.0f, 1.0f);
    EXPECT_EQ(value, c.second) << c.first;
  }
  float nan = std::numeric_limits<float>::quiet_NaN();
  CProjection::interval(&nan, 0.0f, 1.0f);
  EXPECT_TRUE(std::isnan(nan));
  // An empty interval always yields its upper end.
  float value = 0.5f;
  CProjection::interval(&value, 2.0f, 1.0f);
  EXPECT_EQ(value, 1.0f);
}

TEST(Binary, OneHotWithTiesToTheLowestLabel) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  struct CCase {
    std::initializer_list<float> in;
    std::vector<float> out;
  };
  const CCase cases[] = {
      {{0.3f, 0.3f, 0.4f}, {0, 0, 1}}, {{0.5f, 0.5f, 0.0f}, {1, 0, 0}}, {{0, 0, 0}, {1, 0, 0}},
      {{nan, nan}, {0, 0}},            {{-2, -1}, {0, 0}},              {{-2, -0.5f, nan}, {0, 1, 0}},
  };
  for (const CCase& c : cases) {
    CTensor<float> t = pixel(c.in);
    CProjection::binary(t);
    EXPECT_EQ(layersOf(t, 0, 0), c.out);
  }
}

TEST(Simplex, ExamplesAndProjectionProperties) {
  struct CCase {
    std::initializer_list<float> in;
    std::vector<float> out;
  };
  const CCase cases[] = {{{0.5f, 0.5f}, {0.5f, 0.5f}}, {{1, 1}, {0.5f, 0.5f}}, {{2, 0}, {1, 0}}, {{0.25f}, {1}}};
  for (const CCase& c : cases) {
    CTensor<float> t = pixel(c.in);
    CProjection::simplex(t);
    EXPECT_EQ(layersOf(t, 0, 0), c.out);
    CTensor<float> pivots = pixel(c.in);
    CProjection::simplex_DSSC(pivots);
    EXPECT_EQ(layersOf(pivots, 0, 0), c.out);
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

TEST(L2Ball, CoupledScalesIntoTheUnitBall) {
  CTensor<float> p1 = pixel({0.3f, 0.4f});
  CTensor<float> p2 = pixel({0.0f, 0.5f});
  const CTensor<float> small1 = p1;
  const CTensor<float> small2 = p2;
  CProjection::L2sphere_coupled(p1, p2);
  EXPECT_TRUE(sameBits(p1, small1));
  EXPECT_TRUE(sameBits(p2, small2));

  CTensor<float> q1 = pixel({3.0f, 0.0f});
  CTensor<float> q2 = pixel({0.0f, 4.0f});
  CProjection::L2sphere_coupled(q1, q2);
  EXPECT_EQ(layersOf(q1, 0, 0), (std::vector<float>{0.6f, 0.0f}));
  EXPECT_EQ(layersOf(q2, 0, 0), (std::vector<float>{0.0f, 0.8f}));

  CTensor<float> shallow = pixel({1.0f});
  EXPECT_THROW(CProjection::L2sphere_coupled(q1, shallow), ETensorIncompatibleSize);
}

TEST(L2Ball, WeightedNormDecidesTheScaling) {
  CTensor<float> p1 = pixel({3.0f});
  CTensor<float> p2 = pixel({4.0f});
  CProjection::L2sphere_w_coupled(p1, p2, CMatrix<float>(1, 1, 0.01f), CMatrix<float>(1, 1, 0.0f));
  EXPECT_EQ(p1(0, 0, 0), 3.0f);
  EXPECT_EQ(p2(0, 0, 0), 4.0f);
  CProjection::L2sphere_w_coupled(p1, p2, CMatrix<float>(1, 1, 1.0f), CMatrix<float>(1, 1, 1.0f));
  EXPECT_EQ(p1(0, 0, 0), 0.6f);
  EXPECT_EQ(p2(0, 0, 0), 0.8f);
}

TEST(L2Ball, DykstraBoundsEveryPairwiseDifference) {
  CTensor<float> p1 = randomTensor(4, 3, 3, -3.0f, 3.0f, 21);
  CTensor<float> p2 = randomTensor(4, 3, 3, -3.0f, 3.0f, 22);
  const CMatrix<float> dx(4, 3, 1.0f);
  const CMatrix<float> dy(4, 3, 0.5f);

  CTensor<float> untouched1 = p1;
  CTensor<float> untouched2 = p2;
  CProjection::L2sphereIntersect_w_dykstra(untouched1, untouched2, dx, dy, 0, 0);
  EXPECT_TRUE(sameBits(untouched1, p1));

  CProjection::L2sphereIntersect_w_dykstra(p1, p2, dx, dy, 500, 0);
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
  CProjection::L2sphereIntersect_w_dykstra(inside1, inside2, CMatrix<float>(1, 1, 1.0f), CMatrix<float>(1, 1, 1.0f),
                                           10, 1);
  EXPECT_TRUE(sameBits(inside1, before));
}

TEST(Projections, ResultsDoNotDependOnTheThreadCount) {
  const CTensor<float> degrees = randomTensor(29, 31, 4, -0.5f, 1.5f, 31);
  const CTensor<float> field1 = randomTensor(29, 31, 4, -1.0f, 1.0f, 32);
  const CTensor<float> field2 = randomTensor(29, 31, 4, -1.0f, 1.0f, 33);
  const CMatrix<float> weights(29, 31, 0.7f);
  const auto project = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    std::vector<CTensor<float>> results(4, degrees);
    CProjection::binary(results[0]);
    CProjection::simplex(results[1]);
    CProjection::simplex_DSSC(results[2]);
    CTensor<float> p1 = field1;
    CTensor<float> p2 = field2;
    CProjection::L2sphere_coupled(p1, p2);
    CProjection::L2sphere_w_coupled(p1, p2, weights, weights);
    results[3] = p1;
    results.push_back(p2);
    return results;
  };
  const int threads = omp_get_max_threads();
  const std::vector<CTensor<float>> one = project(1);
  const std::vector<CTensor<float>> two = project(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) EXPECT_TRUE(sameBits(one[i], two[i])) << "result " << i;
}
