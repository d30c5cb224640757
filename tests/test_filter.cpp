#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CFilter.h"
#include "CMatrix.h"
#include "TestSupport.h"

namespace {

using NTest::matrix;
using NTest::values;

CMatrix<float> alongX(const CMatrix<float>& aMatrix, const CFilter<float>& aFilter) {
  CMatrix<float> result(aMatrix.xSize(), aMatrix.ySize(), 123.0f);
  NFilter::filter(aMatrix, result, aFilter, 1);
  return result;
}

CMatrix<float> alongY(const CMatrix<float>& aMatrix, const CFilter<float>& aFilter) {
  CMatrix<float> result(aMatrix.xSize(), aMatrix.ySize(), 123.0f);
  NFilter::filter(aMatrix, result, 1, aFilter);
  return result;
}

CMatrix<float> transposed(const CMatrix<float>& aMatrix) {
  CMatrix<float> t(aMatrix.ySize(), aMatrix.xSize());
  for (int y = 0; y < aMatrix.ySize(); y++)
    for (int x = 0; x < aMatrix.xSize(); x++) t(y, x) = aMatrix(x, y);
  return t;
}

}  // namespace

TEST(Derivative, ThreeTapCentralDifference) {
  const CDerivative<float> d(3);
  EXPECT_EQ(d.delta(), 1);
  EXPECT_EQ(d.A(), -1);
  EXPECT_EQ(d.B(), 2);
  EXPECT_EQ(d(-1), -0.5f);
  EXPECT_EQ(d(0), 0.0f);
  EXPECT_EQ(d(1), 0.5f);

  testing::internal::CaptureStderr();
  EXPECT_THROW(CDerivative<float>(5), EFilterNotAvailable);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Exception EFilterNotAvailable", 0), 0u);
}

TEST(Filter, ConstantGivesZeroEverywhereIncludingBorders) {
  const CDerivative<float> d(3);
  const CMatrix<float> constant(5, 4, 7.5f);
  EXPECT_EQ(values(alongX(constant, d)), std::vector<float>(20, 0.0f));
  EXPECT_EQ(values(alongY(constant, d)), std::vector<float>(20, 0.0f));
}

TEST(Filter, RampHalvesAtTheMirroredBorders) {
  const CDerivative<float> d(3);
  const std::vector<float> expected = {0.5f, 1, 1, 1, 0.5f};
  EXPECT_EQ(values(alongX(matrix(5, 1, {0, 1, 2, 3, 4}), d)), expected);
  EXPECT_EQ(values(alongY(matrix(1, 5, {0, 1, 2, 3, 4}), d)), expected);
  // A three-pixel axis has no interior at all.
  EXPECT_EQ(values(alongX(matrix(3, 1, {0, 2, 8}), d)), (std::vector<float>{1, 4, 3}));
}

TEST(Filter, BothAxesAgreeWhenTheAxisHoldsTheKernel) {
  const CDerivative<float> d(3);
  std::vector<float> samples;
  for (int i = 0; i < 42; i++) samples.push_back(static_cast<float>((i * 37) % 11) * 0.37f - 1.1f);
  const CMatrix<float> m = matrix(7, 6, samples);

  const CMatrix<float> dx = alongX(m, d);
  const CMatrix<float> dy = alongY(transposed(m), d);
  EXPECT_EQ(values(dx), values(transposed(dy)));
  for (int y = 0; y < 6; y++)
    for (int x = 0; x < 7; x++) {
      const int left = x == 0 ? 0 : x - 1;
      const int right = x == 6 ? 6 : x + 1;
      const float expected = -0.5f * m(left, y) + 0.0f * m(x, y) + 0.5f * m(right, y);
      EXPECT_EQ(dx(x, y), expected) << x << "," << y;
    }
}

TEST(Filter, ShortAxesOverlapDifferentlyInTheTwoOverloads) {
  const CDerivative<float> d(3);
  // Width 2: column 0 lies in both border ranges and is summed twice.
  EXPECT_EQ(values(alongX(matrix(2, 2, {1, 5, 2, 10}), d)), (std::vector<float>{4, 2, 8, 4}));
  // Height 2: the overlapping row is simply computed again.
  EXPECT_EQ(values(alongY(matrix(2, 2, {1, 2, 5, 10}), d)), (std::vector<float>{2, 4, 2, 4}));
  // Length 1: everything mirrors onto the single sample.
  EXPECT_EQ(values(alongX(matrix(1, 2, {3, 4}), d)), (std::vector<float>{0, 0}));
  EXPECT_EQ(values(alongY(matrix(2, 1, {3, 4}), d)), (std::vector<float>{0, 0}));
}

TEST(Filter, LongKernelOnShortAxisStaysInside) {
  CFilter<float> box(5, 2);
  for (int i = box.A(); i < box.B(); i++) box(i) = 1.0f;
  EXPECT_EQ(values(alongY(matrix(2, 1, {3, 4}), box)), (std::vector<float>{15, 20}));
  EXPECT_EQ(values(alongX(matrix(1, 2, {3, 4}), box)), (std::vector<float>{30, 40}));
  EXPECT_EQ(values(alongY(matrix(1, 2, {1, 2}), box)), (std::vector<float>{8, 7}));
}

TEST(Filter, SizeMismatchIsReportedAndNothingWritten) {
  const CDerivative<float> d(3);
  const CMatrix<float> m(4, 6, 1.0f);
  CMatrix<float> other(6, 4, 9.0f);
  const std::string message = "Exception EFilterIncompatibleSize: Initial container size: 24  Resulting container size: 24\n";

  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::filter(m, other, d, 1), EFilterIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::filter(m, other, 1, d), EFilterIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
  EXPECT_EQ(values(other), std::vector<float>(24, 9.0f));

  CMatrix<float> smaller(4, 5);
  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::filter(m, smaller, d, 1), EFilterIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Exception EFilterIncompatibleSize: Initial container size: 24  Resulting container size: 20\n");
}
