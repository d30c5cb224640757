// Distance transform, difference operators, file-name helpers and pixel picking.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
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
      for (int i = 0; i < marked.size(); i++) {
        if (marked.data()[i] == 0) continue;
        const int dx = x - i % width;
        const int dy = y - i / width;
        result(x, y) = std::min(result(x, y), static_cast<float>(std::sqrt(double(dx * dx + dy * dy)) + 1.0));
      }
  return result;
}

void expectSame(const CMatrix<float>& aActual, const CMatrix<float>& aExpected) {
  ASSERT_EQ(aActual.xSize(), aExpected.xSize());
  ASSERT_EQ(aActual.ySize(), aExpected.ySize());
  for (int y = 0; y < aActual.ySize(); y++)
    for (int x = 0; x < aActual.xSize(); x++) EXPECT_EQ(aActual(x, y), aExpected(x, y)) << "at " << x << "," << y;
}

CMatrix<float> distanceOf(const CTensor<float>& aTensor) {
  CMatrix<float> distance(1, 1, 0.0f);
  CUtility::euclideanDistanceTransform(aTensor, distance);
  return distance;
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

TEST(DistanceTransform, WithoutBoundaryEverythingIsFar) {
  expectSame(distanceOf(CTensor<float>(5, 4, 2, 3.0f)), CMatrix<float>(5, 4, mFar));
  expectSame(distanceOf(CTensor<float>(1, 1, 1, 4.0f)), CMatrix<float>(1, 1, mFar));
  EXPECT_EQ(distanceOf(CTensor<float>(0, 0, 1)).size(), 0);
  // The bottom-right pixel differs from both neighbours, but it lies in the
  // last row and column, which are not starting pixels.
  CTensor<float> corner(4, 3, 1, 1.0f);
  corner(3, 2, 0) = 2.0f;
  expectSame(distanceOf(corner), CMatrix<float>(4, 3, mFar));
}

TEST(DistanceTransform, SeamIsMarkedExceptInTheLastRow) {
  CTensor<float> tensor(6, 4, 1, 0.0f);
  for (int y = 0; y < 4; y++)
    for (int x = 3; x < 6; x++) tensor(x, y, 0) = 5.0f;
  const CMatrix<float> distance = distanceOf(tensor);
  for (int y = 0; y < 3; y++) {
    EXPECT_EQ(distance(2, y), 1.0f);
    EXPECT_EQ(distance(3, y), 1.0f);
    EXPECT_EQ(distance(0, y), 3.0f);
  }
  EXPECT_EQ(distance(2, 3), 2.0f);
  EXPECT_EQ(distance(3, 3), 2.0f);
  EXPECT_EQ(distance(1, 3), static_cast<float>(std::sqrt(2.0) + 1.0));
  expectSame(distance, bruteForceDistance(tensor));
}

TEST(DistanceTransform, ComparesTruncatedValuesInEveryLayer) {
  CTensor<float> tensor(3, 2, 2, 0.0f);
  tensor(0, 0, 0) = 2.3f;
  tensor(1, 0, 0) = 2.9f;
  tensor(2, 0, 0) = 2.9f;
  tensor(0, 1, 0) = tensor(1, 1, 0) = tensor(2, 1, 0) = 2.0f;
  expectSame(distanceOf(tensor), CMatrix<float>(3, 2, mFar));
  tensor(2, 0, 0) = 3.0f;
  expectSame(distanceOf(tensor), matrixOf(3, 2, {2, 1, 1, static_cast<float>(std::sqrt(2.0) + 1), 2, 2}));
  // A step in layer 1 only; -0.5 truncates to 0 like 0 itself.
  tensor(2, 0, 0) = 2.9f;
  tensor(0, 0, 1) = -0.5f;
  tensor(1, 0, 1) = 0.0f;
  tensor(0, 1, 1) = -1.0f;
  expectSame(distanceOf(tensor), matrixOf(3, 2, {1, 2, 3, 1, 2, 3}));
}

TEST(DistanceTransform, MatchesBruteForceOnRandomRegions) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> region(0, 3);
  std::uniform_int_distribution<int> sparse(0, 40);
  for (int layers = 1; layers <= 2; layers++) {
    CTensor<float> tensor(17, 11, layers, 0.0f);
    for (int y = 0; y < 11; y++)
      for (int x = 0; x < 17; x++) {
        tensor(x, y, 0) = (region(random) == 0 ? 1.0f : 0.0f) + 0.5f;
        if (layers == 2) tensor(x, y, 1) = sparse(random) == 0 ? 9.0f : 0.0f;
      }
    expectSame(distanceOf(tensor), bruteForceDistance(tensor));
  }
}

TEST(DistanceTransform, OneDimensionalPass) {
  CVector<float> f(5, -7.0f);  // values beyond n are not read
  f(0) = f(3) = 0;
  f(1) = f(2) = 1e21f;
  CVector<float> d(9);
  CUtility::dt(f, d, 4);
  ASSERT_EQ(d.size(), 4);
  EXPECT_EQ(std::vector<float>(d.data(), d.data() + 4), (std::vector<float>{0, 1, 1, 0}));
  CUtility::dt(f, d, 0);
  EXPECT_EQ(d.size(), 0);

  // Values above the 1e21 "infinity" stay within the work arrays.
  f(0) = 3e21f;
  f(1) = 0;
  f(2) = 5e21f;
  CUtility::dt(f, d, 3);
  EXPECT_EQ(std::vector<float>(d.data(), d.data() + 3), (std::vector<float>{1, 0, 1}));
}

TEST(DifferenceOperators, ForwardDifferenceAndBackwardDivergence) {
  CMatrix<float> row(3, 1);
  CUtility::getGrad_forwardx(matrixOf(3, 1, {1, 4, 9}), row);
  expectSame(row, matrixOf(3, 1, {3, 5, 0}));
  CUtility::getDiv_backwardx(matrixOf(3, 1, {3, 5, 0}), row);
  expectSame(row, matrixOf(3, 1, {3, 2, -5}));
  CMatrix<float> column(1, 3);
  CUtility::getGrad_forwardy(matrixOf(1, 3, {1, 4, 9}), column);
  expectSame(column, matrixOf(1, 3, {3, 5, 0}));
  CUtility::getDiv_backwardy(matrixOf(1, 3, {3, 5, 0}), column);
  expectSame(column, matrixOf(1, 3, {3, 2, -5}));
  EXPECT_THROW(CUtility::getGrad_forwardx(matrixOf(2, 1, {1, 2}), row), ETensorIncompatibleSize);
}

TEST(DifferenceOperators, DivergenceIsTheNegativeAdjointOfTheGradient) {
  for (const auto& [width, height] : {std::make_pair(7, 5), std::make_pair(1, 4), std::make_pair(4, 1)}) {
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

TEST(DifferenceOperators, TensorLayersAndTheGradientOfTheirSum) {
  CMatrix<float> layer0 = randomIntegers(6, 5, 3);
  CMatrix<float> layer1 = randomIntegers(6, 5, 4);
  CTensor<float> tensor(6, 5, 2);
  tensor.putMatrix(layer0, 0);
  tensor.putMatrix(layer1, 1);
  CMatrix<float> fromLayer(6, 5);
  CMatrix<float> fromMatrix(6, 5);
  CUtility::getDiv_backwardy(tensor, fromLayer, 1);
  CUtility::getDiv_backwardy(layer1, fromMatrix);
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
  CTensor<float> u(31, 29, 1);
  CMatrix<float> layer = randomIntegers(31, 29, 6);
  u.putMatrix(layer, 0);
  const auto all = [&](int aThreads) {
    omp_set_num_threads(aThreads);
    std::vector<CMatrix<float>> results(4, CMatrix<float>(31, 29));
    CUtility::getGrad_forwardx(u, results[0], 0);
    CUtility::getGrad_forwardy(u, results[1], 0);
    CUtility::getDiv_backwardx(u, results[2], 0);
    CUtility::getDiv_backwardy(u, results[3], 0);
    return results;
  };
  const int threads = omp_get_max_threads();
  const std::vector<CMatrix<float>> one = all(1);
  const std::vector<CMatrix<float>> two = all(2);
  omp_set_num_threads(threads);
  for (size_t i = 0; i < one.size(); i++) expectSame(one[i], two[i]);
}

TEST(FileNames, EndingAndDecomposition) {
  for (const auto& [in, ending] : {std::make_pair("tracks.dat", ".dat"), std::make_pair("run.2/labels", ".2/labels"),
                                   std::make_pair("labels", ""), std::make_pair("a.b.ppm", ".ppm")}) {
    std::string end = "stale";
    const std::string name = in;
    CUtility::getEnding(&name, &end);
    EXPECT_EQ(end, ending) << in;
  }
  const std::string cases[][4] = {{"data/seq/frame01.ppm", "data/seq/", "frame01", ".ppm"},
                                  {"frame01.ppm", "./", "frame01", ".ppm"},
                                  {"/in/set.2/img.a.ppm", "/in/set.2/", "img.a", ".ppm"},
                                  {"dir/.ppm", "dir/", "", ".ppm"}};
  for (const auto& c : cases) {
    // The base name is written over the input itself, as the driver does.
    std::string inOut = c[0], path, end;
    CUtility::decomposeFileName(&inOut, &path, &inOut, &end);
    EXPECT_EQ(path, c[1]) << c[0];
    EXPECT_EQ(inOut, c[2]) << c[0];
    EXPECT_EQ(end, c[3]) << c[0];
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
