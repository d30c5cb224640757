// Distance transform, difference operators, file-name helpers and pixel picking.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

#include "CUtility.h"

namespace {

const float mFar = static_cast<float>(std::sqrt(static_cast<double>(1e21f)) + 1.0);

// Boundary pixels by the marking rule, then 1 + distance to the nearest one.
CMatrix<float> bruteForceDistance(const CTensor<float>& aTensor) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  CMatrix<float> marked(width, height, 0.0f);
  for (int z = 0; z < aTensor.zSize(); z++)
    for (int y = 0; y + 1 < height; y++)
      for (int x = 0; x + 1 < width; x++) {
        const int here = static_cast<int>(aTensor(x, y, z));
        if (here != static_cast<int>(aTensor(x + 1, y, z))) marked(x, y) = marked(x + 1, y) = 1;
        if (here != static_cast<int>(aTensor(x, y + 1, z))) marked(x, y) = marked(x, y + 1) = 1;
      }
  CMatrix<float> result(width, height, mFar);
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++)
      for (int my = 0; my < height; my++)
        for (int mx = 0; mx < width; mx++) {
          if (marked(mx, my) == 0) continue;
          const int squared = (x - mx) * (x - mx) + (y - my) * (y - my);
          const float d = static_cast<float>(std::sqrt(static_cast<double>(squared)) + 1.0);
          if (d < result(x, y)) result(x, y) = d;
        }
  return result;
}

void expectSame(const CMatrix<float>& aActual, const CMatrix<float>& aExpected) {
  ASSERT_EQ(aActual.xSize(), aExpected.xSize());
  ASSERT_EQ(aActual.ySize(), aExpected.ySize());
  for (int y = 0; y < aActual.ySize(); y++)
    for (int x = 0; x < aActual.xSize(); x++) EXPECT_EQ(aActual(x, y), aExpected(x, y)) << "at " << x << "," << y;
}

CMatrix<float> matrixOf(int aWidth, int aHeight, std::initializer_list<float> aValues) {
  CMatrix<float> m(aWidth, aHeight);
  std::copy(aValues.begin(), aValues.end(), m.data());
  return m;
}

CMatrix<float> randomIntegers(int aWidth, int aHeight, unsigned aSeed) {
  std::mt19937 random(aSeed);
  std::uniform_int_distribution<int> value(-9, 9);
  CMatrix<float> m(aWidth, aHeight);
  for (int i = 0; i < m.size(); i++) m.data()[i] = static_cast<float>(value(random));
  return m;
}

double dot(const CMatrix<float>& a, const CMatrix<float>& b) {
  double sum = 0;
  for (int i = 0; i < a.size(); i++) sum += static_cast<double>(a.data()[i]) * b.data()[i];
  return sum;
}

}  // namespace

TEST(DistanceTransform, ConstantTensorHasNoBoundary) {
  CTensor<float> tensor(5, 4, 2, 3.0f);
  CMatrix<float> distance;
  CUtility::euclideanDistanceTransform(tensor, distance);
  expectSame(distance, CMatrix<float>(5, 4, mFar));
}

TEST(DistanceTransform, SeamIsMarkedExceptInTheLastRow) {
  CTensor<float> tensor(6, 4, 1, 0.0f);
  for (int y = 0; y < 4; y++)
    for (int x = 3; x < 6; x++) tensor(x, y, 0) = 5.0f;
  CMatrix<float> distance;
  CUtility::euclideanDistanceTransform(tensor, distance);
  for (int y = 0; y < 3; y++) {
    EXPECT_EQ(distance(2, y), 1.0f);
    EXPECT_EQ(distance(3, y), 1.0f);
    EXPECT_EQ(distance(0, y), 3.0f);
    EXPECT_EQ(distance(5, y), 3.0f);
  }
  EXPECT_EQ(distance(2, 3), 2.0f);
  EXPECT_EQ(distance(3, 3), 2.0f);
  EXPECT_EQ(distance(1, 3), static_cast<float>(std::sqrt(2.0) + 1.0));
  expectSame(distance, bruteForceDistance(tensor));
}

TEST(DistanceTransform, LastRowAndColumnAreNotStartingPixels) {
  CTensor<float> tensor(4, 3, 1, 1.0f);
  tensor(3, 2, 0) = 2.0f;
  CMatrix<float> distance;
  CUtility::euclideanDistanceTransform(tensor, distance);
  expectSame(distance, CMatrix<float>(4, 3, mFar));

  // Above the last row the same step is seen, but only its upper pixels are marked.
  tensor(3, 1, 0) = 2.0f;
  CUtility::euclideanDistanceTransform(tensor, distance);
  EXPECT_EQ(distance(2, 1), 1.0f);
  EXPECT_EQ(distance(3, 1), 1.0f);
  EXPECT_EQ(distance(2, 2), 2.0f);
  EXPECT_EQ(distance(3, 2), 2.0f);
  expectSame(distance, bruteForceDistance(tensor));
}

TEST(DistanceTransform, ComparesTruncatedValuesInEveryLayer) {
  CTensor<float> tensor(3, 2, 2, 0.0f);
  tensor(0, 0, 0) = 2.3f;
  tensor(1, 0, 0) = 2.9f;
  tensor(2, 0, 0) = 2.9f;
  tensor(0, 1, 0) = 2.0f;
  tensor(1, 1, 0) = 2.0f;
  tensor(2, 1, 0) = 2.0f;
  CMatrix<float> distance;
  CUtility::euclideanDistanceTransform(tensor, distance);
  expectSame(distance, CMatrix<float>(3, 2, mFar));

  tensor(2, 0, 0) = 3.0f;
  CUtility::euclideanDistanceTransform(tensor, distance);
  EXPECT_EQ(distance(1, 0), 1.0f);
  EXPECT_EQ(distance(2, 0), 1.0f);
  EXPECT_EQ(distance(0, 0), 2.0f);

  tensor(2, 0, 0) = 2.9f;
  tensor(0, 0, 1) = -0.5f;
  tensor(0, 1, 1) = -1.0f;
  CUtility::euclideanDistanceTransform(tensor, distance);
  EXPECT_EQ(distance(0, 0), 1.0f);
  EXPECT_EQ(distance(0, 1), 1.0f);
  EXPECT_EQ(distance(2, 0), static_cast<float>(std::sqrt(4.0) + 1.0));
}

TEST(DistanceTransform, MatchesBruteForceOnRandomRegions) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> region(0, 3);
  std::uniform_int_distribution<int> sparse(0, 40);
  CTensor<float> tensor(17, 11, 2, 0.0f);
  for (int y = 0; y < 11; y++)
    for (int x = 0; x < 17; x++) {
      tensor(x, y, 0) = static_cast<float>(region(random) == 0 ? 1 : 0) + 0.5f;
      tensor(x, y, 1) = sparse(random) == 0 ? 9.0f : 0.0f;
    }
  for (int z = 0; z < 2; z++) {
    CTensor<float> layers(17, 11, z + 1);
    std::memcpy(layers.data(), tensor.data(), sizeof(float) * layers.size());
    CMatrix<float> distance;
    CUtility::euclideanDistanceTransform(layers, distance);
    expectSame(distance, bruteForceDistance(layers));
  }
}

TEST(DistanceTransform, EmptyAndSinglePixelTensors) {
  CMatrix<float> distance(3, 3, 0.0f);
  CUtility::euclideanDistanceTransform(CTensor<float>(0, 0, 1), distance);
  EXPECT_EQ(distance.size(), 0);
  CUtility::euclideanDistanceTransform(CTensor<float>(1, 1, 1, 4.0f), distance);
  expectSame(distance, CMatrix<float>(1, 1, mFar));
}

TEST(OneDimensionalTransform, SquaredDistancesToTheZeros) {
  CVector<float> f(5);
  f(0) = 0;
  f(1) = 1e21f;
  f(2) = 1e21f;
  f(3) = 0;
  f(4) = -7;  // beyond n, ignored
  CVector<float> d(9);
  CUtility::dt(f, d, 4);
  ASSERT_EQ(d.size(), 4);
  EXPECT_EQ(d(0), 0.0f);
  EXPECT_EQ(d(1), 1.0f);
  EXPECT_EQ(d(2), 1.0f);
  EXPECT_EQ(d(3), 0.0f);

  // A general lower envelope: min over q of f(q) + (p - q)^2.
  const float values[6] = {4, 9, 0.5f, 30, 2, 6};
  CVector<float> g(6);
  for (int i = 0; i < 6; i++) g(i) = values[i];
  CUtility::dt(g, d, 6);
  for (int p = 0; p < 6; p++) {
    float best = 1e30f;
    for (int q = 0; q < 6; q++) best = std::min(best, values[q] + static_cast<float>((p - q) * (p - q)));
    EXPECT_EQ(d(p), best) << "at " << p;
  }

  CUtility::dt(f, d, 0);
  EXPECT_EQ(d.size(), 0);
}

TEST(OneDimensionalTransform, ValuesAboveTheInfinityStayInRange) {
  CVector<float> f(3);
  f(0) = 3e21f;
  f(1) = 0;
  f(2) = 5e21f;
  CVector<float> d;
  CUtility::dt(f, d, 3);
  EXPECT_EQ(d(0), 1.0f);
  EXPECT_EQ(d(1), 0.0f);
  EXPECT_EQ(d(2), 1.0f);
}

TEST(DifferenceOperators, ForwardDifferenceAndBackwardDivergenceAlongEachAxis) {
  const CMatrix<float> row = matrixOf(3, 1, {1, 4, 9});
  CMatrix<float> result(3, 1);
  CUtility::getGrad_forwardx(row, result);
  expectSame(result, matrixOf(3, 1, {3, 5, 0}));
  CUtility::getDiv_backwardx(matrixOf(3, 1, {3, 5, 0}), result);
  expectSame(result, matrixOf(3, 1, {3, 2, -5}));

  const CMatrix<float> column = matrixOf(1, 3, {1, 4, 9});
  CMatrix<float> columnResult(1, 3);
  CUtility::getGrad_forwardy(column, columnResult);
  expectSame(columnResult, matrixOf(1, 3, {3, 5, 0}));
  CUtility::getDiv_backwardy(matrixOf(1, 3, {3, 5, 0}), columnResult);
  expectSame(columnResult, matrixOf(1, 3, {3, 2, -5}));

  CMatrix<float> wrongSize(2, 1);
  EXPECT_THROW(CUtility::getGrad_forwardx(row, wrongSize), ETensorIncompatibleSize);
}

TEST(DifferenceOperators, DivergenceIsTheNegativeAdjointOfTheGradient) {
  for (const auto& extents : {std::make_pair(7, 5), std::make_pair(1, 4), std::make_pair(4, 1), std::make_pair(2, 2)}) {
    const int width = extents.first;
    const int height = extents.second;
    const CMatrix<float> u = randomIntegers(width, height, 1);
    const CMatrix<float> p = randomIntegers(width, height, 2);
    CMatrix<float> gradient(width, height);
    CMatrix<float> divergence(width, height);
    CUtility::getGrad_forwardx(u, gradient);
    CUtility::getDiv_backwardx(p, divergence);
    EXPECT_EQ(dot(gradient, p), -dot(u, divergence)) << width << "x" << height;
    CUtility::getGrad_forwardy(u, gradient);
    CUtility::getDiv_backwardy(p, divergence);
    EXPECT_EQ(dot(gradient, p), -dot(u, divergence)) << width << "x" << height;
  }
}

TEST(DifferenceOperators, TensorLayersAndTheirSum) {
  CTensor<float> tensor(6, 5, 2);
  const CMatrix<float> layer0 = randomIntegers(6, 5, 3);
  const CMatrix<float> layer1 = randomIntegers(6, 5, 4);
  CMatrix<float> copy0 = layer0;
  CMatrix<float> copy1 = layer1;
  tensor.putMatrix(copy0, 0);
  tensor.putMatrix(copy1, 1);
  CMatrix<float> fromLayer(6, 5);
  CMatrix<float> fromMatrix(6, 5);
  CUtility::getGrad_forwardx(tensor, fromLayer, 1);
  CUtility::getGrad_forwardx(layer1, fromMatrix);
  expectSame(fromLayer, fromMatrix);
  CUtility::getGrad_forwardy(tensor, fromLayer, 1);
  CUtility::getGrad_forwardy(layer1, fromMatrix);
  expectSame(fromLayer, fromMatrix);
  CUtility::getDiv_backwardx(tensor, fromLayer, 0);
  CUtility::getDiv_backwardx(layer0, fromMatrix);
  expectSame(fromLayer, fromMatrix);
  CUtility::getDiv_backwardy(tensor, fromLayer, 0);
  CUtility::getDiv_backwardy(layer0, fromMatrix);
  expectSame(fromLayer, fromMatrix);

  CMatrix<float> sum(6, 5);
  for (int i = 0; i < sum.size(); i++) sum.data()[i] = layer0.data()[i] + layer1.data()[i];
  CMatrix<float> gx(6, 5);
  CMatrix<float> gy(6, 5);
  CUtility::getGradient(tensor, gx, gy);
  CUtility::getGrad_forwardx(sum, fromMatrix);
  expectSame(gx, fromMatrix);
  CUtility::getGrad_forwardy(sum, fromMatrix);
  expectSame(gy, fromMatrix);
}

TEST(DifferenceOperators, ResultsDoNotDependOnTheThreadCount) {
  const CMatrix<float> u = randomIntegers(31, 29, 6);
  const auto all = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    std::vector<CMatrix<float>> results(4, CMatrix<float>(31, 29));
    CUtility::getGrad_forwardx(u, results[0]);
    CUtility::getGrad_forwardy(u, results[1]);
    CUtility::getDiv_backwardx(u, results[2]);
    CUtility::getDiv_backwardy(u, results[3]);
    return results;
  };
  const int threads = omp_get_max_threads();
  const std::vector<CMatrix<float>> one = all(1);
  const std::vector<CMatrix<float>> two = all(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) expectSame(one[i], two[i]);
}

TEST(FileNames, EndingIsFromTheLastDotAnywhere) {
  const std::pair<std::string, std::string> cases[] = {
      {"tracks.dat", ".dat"}, {"run.2/labels", ".2/labels"}, {"labels", ""}, {"a.b.ppm", ".ppm"}, {"dir/", ""}};
  for (const auto& c : cases) {
    std::string end = "stale";
    CUtility::getEnding(&c.first, &end);
    EXPECT_EQ(end, c.second) << c.first;
  }
}

TEST(FileNames, DecompositionIntoFolderBaseAndEnding) {
  struct CCase {
    std::string in, path, name, end;
  };
  const CCase cases[] = {
      {"data/seq/frame01.ppm", "data/seq/", "frame01", ".ppm"},
      {"frame01.ppm", "./", "frame01", ".ppm"},
      {"/in/set.2/img.a.ppm", "/in/set.2/", "img.a", ".ppm"},
      {"dir/.ppm", "dir/", "", ".ppm"},
  };
  for (const CCase& c : cases) {
    std::string path, name, end;
    CUtility::decomposeFileName(&c.in, &path, &name, &end);
    EXPECT_EQ(path, c.path) << c.in;
    EXPECT_EQ(name, c.name) << c.in;
    EXPECT_EQ(end, c.end) << c.in;

    // The base name may be written over the input itself.
    std::string inOut = c.in;
    CUtility::decomposeFileName(&inOut, &path, &inOut, &end);
    EXPECT_EQ(inOut, c.name) << c.in;
    EXPECT_EQ(path, c.path) << c.in;
    EXPECT_EQ(end, c.end) << c.in;
  }
}

TEST(FileNames, FilePartWithoutDotThrowsTheEraseError) {
  for (const std::string in : {"data.set/img", "img"}) {
    std::string path, name, end;
    try {
      CUtility::decomposeFileName(&in, &path, &name, &end);
      ADD_FAILURE() << "no exception for " << in;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "basic_string::erase");
    }
  }
}

TEST(PixelPicking, TakesEveryKthPixelOfEveryLayer) {
  CTensor<float> source(7, 5, 3);
  for (int i = 0; i < source.size(); i++) source.data()[i] = static_cast<float>(i);
  CTensor<float> picked(4, 3, 2);
  CUtility::downsample_fac(picked, source, 2);
  for (int z = 0; z < 2; z++)
    for (int y = 0; y < 3; y++)
      for (int x = 0; x < 4; x++) EXPECT_EQ(picked(x, y, z), source(2 * x, 2 * y, z));

  CTensor<float> tooLarge(4, 3, 1);
  EXPECT_THROW(CUtility::downsample_fac(tooLarge, CTensor<float>(6, 5, 1, 0.0f), 2), ETensorIncompatibleSize);
  CTensor<float> tooDeep(2, 2, 4);
  EXPECT_THROW(CUtility::downsample_fac(tooDeep, source, 2), ETensorIncompatibleSize);
}
