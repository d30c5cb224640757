#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CFilter.h"
#include "CMatrix.h"
#include "TestSupport.h"

using NTest::matrix;
using NTest::values;

TEST(Filter, DerivativeIsTheThreeTapCentralDifference) {
  const CDerivative<float> d(3);
  EXPECT_EQ((std::vector<float>{d(-1), d(0), d(1)}), (std::vector<float>{-0.5f, 0.0f, 0.5f}));
  testing::internal::CaptureStderr();
  EXPECT_THROW(CDerivative<float>(5), EFilterNotAvailable);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Exception EFilterNotAvailable", 0), 0u);
}

TEST(Filter, MirroredBordersAndShortAxes) {
  const CDerivative<float> d(3);
  CFilter<float> box(5, 2);
  for (int i = box.A(); i < box.B(); i++) box(i) = 1.0f;
  const struct {
    const char* what;
    bool alongX;
    const CFilter<float>& filter;
    int xSize, ySize;
    std::vector<float> in, expected;
  } cases[] = {
      {"constant along x", true, d, 5, 4, std::vector<float>(20, 7.5f), std::vector<float>(20, 0.0f)},
      {"constant along y", false, d, 5, 4, std::vector<float>(20, 7.5f), std::vector<float>(20, 0.0f)},
      {"ramp along x", true, d, 5, 1, {0, 1, 2, 3, 4}, {0.5f, 1, 1, 1, 0.5f}},
      {"ramp along y", false, d, 1, 5, {0, 1, 2, 3, 4}, {0.5f, 1, 1, 1, 0.5f}},
      {"no interior", true, d, 3, 1, {0, 2, 8}, {1, 4, 3}},
      // Width 2: column 0 lies in both border ranges and is summed twice.
      {"width 2", true, d, 2, 2, {1, 5, 2, 10}, {4, 2, 8, 4}},
      // Height 2: the overlapping row is simply computed again.
      {"height 2", false, d, 2, 2, {1, 2, 5, 10}, {2, 4, 2, 4}},
      {"width 1", true, d, 1, 2, {3, 4}, {0, 0}},
      {"height 1", false, d, 2, 1, {3, 4}, {0, 0}},
      {"long kernel, height 1", false, box, 2, 1, {3, 4}, {15, 20}},
      {"long kernel, width 1", true, box, 1, 2, {3, 4}, {30, 40}},
      {"long kernel, height 2", false, box, 1, 2, {1, 2}, {8, 7}},
  };
  for (const auto& c : cases) {
    CMatrix<float> result(c.xSize, c.ySize, 123.0f);
    if (c.alongX) {
      NFilter::filter(matrix(c.xSize, c.ySize, c.in), result, c.filter, 1);
    } else {
      NFilter::filter(matrix(c.xSize, c.ySize, c.in), result, 1, c.filter);
    }
    EXPECT_EQ(values(result), c.expected) << c.what;
  }
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
}
