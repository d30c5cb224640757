// Distance transform, difference operators and file-name helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>
#include <string>

#include "CUtility.h"
#include "TestSupport.h"

namespace {

const float kFar = static_cast<float>(std::sqrt(static_cast<double>(1e21f)) + 1.0);

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
  CMatrix<float> result(width, height, kFar);
  for (int i = 0; i < result.size(); i++)
    for (int j = 0; j < marked.size(); j++) {
      if (marked.data()[j] == 0) continue;
      const int dx = i % width - j % width;
      const int dy = i / width - j / width;
      result.data()[i] = std::min(result.data()[i], static_cast<float>(std::sqrt(double(dx * dx + dy * dy)) + 1.0));
    }
  return result;
}

std::vector<float> distanceOf(const CTensor<float>& aTensor) {
  CMatrix<float> distance(1, 1, 0.0f);
  CUtility::euclideanDistanceTransform(aTensor, distance);
  return NTest::values(distance);
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

// Starting pixels differ from their right or lower neighbour in the truncated
// value of some layer; pixels of the last row and column start only through
// a neighbour before them.
TEST(DistanceTransform, MatchesBruteForce) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> region(0, 3);
  std::uniform_int_distribution<int> sparse(0, 40);
  CTensor<float> tensor(17, 11, 2, 0.0f);
  for (int y = 0; y < 11; y++)
    for (int x = 0; x < 17; x++) {
      // Equal after truncation, unequal as floats; -0.5 truncates to 0 like 0 itself.
      tensor(x, y, 0) = (region(random) == 0 ? 1.0f : 0.0f) + (x % 2 == 0 ? 0.2f : 0.7f);
      tensor(x, y, 1) = sparse(random) == 0 ? 9.0f : (x * y) % 3 == 0 ? -0.5f : 0.0f;
    }
  EXPECT_EQ(distanceOf(tensor), NTest::values(bruteForceDistance(tensor)));
  // The bottom-right pixel differs from both neighbours but is no starting pixel.
  CTensor<float> corner(4, 3, 1, 1.0f);
  corner(3, 2, 0) = 2.0f;
  EXPECT_EQ(distanceOf(corner), std::vector<float>(12, kFar));
}

TEST(DifferenceOperators, ForwardDifferenceAndItsNegativeAdjoint) {
  CMatrix<float> row(3, 1);
  CUtility::getGrad_forwardx(NTest::matrix(3, 1, {1, 4, 9}), row);
  EXPECT_EQ(NTest::values(row), (std::vector<float>{3, 5, 0}));

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

TEST(Overlay, BlendsEveryLayerAndRejectsASmallerImage) {
  CTensor<float> canvas(2, 1, 2, 100.0f);
  CTensor<float> over(2, 1, 2);
  for (int i = 0; i < over.size(); i++) over.data()[i] = 40.0f * i;
  CUtility::plotOverlay(canvas, over, 0.25f);
  EXPECT_EQ(NTest::values(canvas), (std::vector<float>{75, 85, 95, 105}));
  testing::internal::CaptureStderr();
  EXPECT_THROW(CUtility::plotOverlay(canvas, CTensor<float>(1, 1, 2), 0.5f), ETensorIncompatibleSize);
  testing::internal::GetCapturedStderr();
}

TEST(FileNames, EndingAndDecomposition) {
  std::string end;
  const std::string name = "run.2/labels";
  CUtility::getEnding(&name, &end);
  EXPECT_EQ(end, ".2/labels");

  const std::string cases[][4] = {{"data/seq/frame01.ppm", "data/seq/", "frame01", ".ppm"},
                                  {"frame01.ppm", "./", "frame01", ".ppm"},
                                  {"/in/set.2/img.a.ppm", "/in/set.2/", "img.a", ".ppm"},
                                  {"dir/.ppm", "dir/", "", ".ppm"}};
  for (const auto& c : cases) {
    // The base name is written over the input itself, as the driver does.
    std::string inOut = c[0], path;
    CUtility::decomposeFileName(&inOut, &path, &inOut, &end);
    EXPECT_EQ(std::vector<std::string>({path, inOut, end}), std::vector<std::string>(c + 1, c + 4)) << c[0];
  }

  const std::string noDot = "data.set/img";
  std::string path, base;
  try {
    CUtility::decomposeFileName(&noDot, &path, &base, &end);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "basic_string::erase");
  }
}
