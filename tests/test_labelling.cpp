// The labelling pipeline on tensors in memory, as the command line and the
// Python module run it. Its results against the command line's files are
// checked by the Python tests and, for both solver paths, by test_flat.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "CUtility.h"
#include "Labelling.h"
#include "TestSupport.h"

namespace {

const std::string kExamples = std::string(TARNWICK_SOURCE_DIR) + "/examples/";

CTensor<float> readPixmap(const std::string& aName) { return NTest::readPixmap(kExamples + aName); }

// The demo with its first aSegmentations segmentation files.
NDriver::CLabellingInput demoProblem(int aSegmentations, std::vector<CVector<int>>& aColours) {
  NDriver::CLabellingInput problem;
  problem.image = readPixmap("demo.ppm");
  for (int k = 0; k < aSegmentations; k++)
    problem.segmentations.push_back(readPixmap("demo_seg" + std::to_string(k) + ".ppm"));
  CUtility::color2labelFunction(problem.labels, readPixmap("demo_labels.ppm"), aColours);
  problem.confidence = CMatrix<float>(problem.image.xSize(), problem.image.ySize(), 0.0f);
  CUtility::labelFunction2confidenceMask(problem.labels, problem.confidence);
  return problem;
}

bool sameBits(const CTensor<float>& aA, const CTensor<float>& aB) {
  return aA.xSize() == aB.xSize() && aA.ySize() == aB.ySize() && aA.zSize() == aB.zSize() &&
         std::memcmp(aA.data(), aB.data(), sizeof(float) * aA.size()) == 0;
}

}  // namespace

// A run in between, with other labels, extents and alpha, leaves no trace.
TEST(Labelling, CallsShareNoState) {
  std::vector<CVector<int>> colours;
  const NDriver::CLabellingInput problem = demoProblem(2, colours);
  NDriver::CLabellingSettings settings;
  const CTensor<float> first = NDriver::solveLabelling(problem, settings);

  NDriver::CLabellingInput other;
  other.image = CTensor<float>(13, 9, 3, 80.0f);
  other.segmentations.push_back(CTensor<float>(13, 9, 3, 7.0f));
  other.labels = CTensor<float>(13, 9, 2, 0.0f);
  other.labels(0, 0, 0) = 1.0f;
  other.labels(12, 8, 1) = 1.0f;
  other.confidence = CMatrix<float>(13, 9, 0.0f);
  CUtility::labelFunction2confidenceMask(other.labels, other.confidence);
  NDriver::CLabellingSettings otherSettings;
  otherSettings.alpha = 0.7f;
  otherSettings.path = NDriver::ESolverPath::Reference;
  EXPECT_EQ(NDriver::solveLabelling(other, otherSettings).zSize(), 2);

  EXPECT_TRUE(sameBits(NDriver::solveLabelling(problem, settings), first));
}

TEST(Labelling, LabelNumbersOfTheStrongestDegrees) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  struct CCase {
    std::vector<float> degrees;  // of one pixel
    int expected;
  };
  const std::vector<CCase> cases = {
      {{0.2f, 0.5f, 0.3f}, 1},
      {{0.4f, 0.4f, 0.2f}, 0},  // a tie goes to the lowest label
      {{0.0f, 0.0f, 1.0f}, 2},
      {{0.0f, 0.0f, 0.0f}, 0},
      {{-2.0f, -0.5f, nan}, 1},
      {{nan, 0.1f, nan}, 1},
      {{nan, nan, nan}, -1},  // no winner
      {{-2.0f, -1.0f, -3.0f}, -1},
  };
  CTensor<float> degrees(static_cast<int>(cases.size()), 1, 3);
  for (size_t x = 0; x < cases.size(); x++)
    for (int k = 0; k < 3; k++) degrees(static_cast<int>(x), 0, k) = cases[x].degrees[k];
  const CMatrix<int> numbers = NDriver::labelNumbers(NDriver::hardLabelling(degrees));
  for (size_t x = 0; x < cases.size(); x++) EXPECT_EQ(numbers(static_cast<int>(x), 0), cases[x].expected) << x;
}
