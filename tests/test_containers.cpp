#include <gtest/gtest.h>

#include "CMatrix.h"
#include "CTensor.h"
#include "CVector.h"

namespace {

// Every element holds its own position in the block.
CTensor<float> numbered(int aX, int aY, int aZ) {
  CTensor<float> t(aX, aY, aZ);
  for (int i = 0; i < t.size(); i++) t.data()[i] = static_cast<float>(i);
  return t;
}

}  // namespace

TEST(Containers, LayersAndRowsFollowEachOther) {
  const CTensor<float> t = numbered(4, 3, 3);
  EXPECT_EQ(t(0, 0, 2), 24.0f);
  for (int z = 0; z < 3; z++)
    for (int y = 0; y < 3; y++)
      for (int x = 0; x < 4; x++) EXPECT_EQ(t(x, y, z), static_cast<float>(x + (z * 3 + y) * 4));
  CMatrix<int> m(3, 2, 0);
  m(2, 1) = 7;
  EXPECT_EQ(m.data()[5], 7);
}

// Copies must own their storage: label colours and segmentations are held by
// value in standard vectors.
TEST(Containers, CopiesAndAssignmentsAreIndependent) {
  CVector<int> v(200003);  // large enough for the parallel copy
  for (int i = 0; i < v.size(); i++) v(i) = i * 3;
  CVector<int> vCopy(v);
  vCopy(0) = 8;
  EXPECT_EQ(v(0), 0);
  for (int i = 1; i < v.size(); i++) ASSERT_EQ(vCopy(i), i * 3) << "at " << i;

  const CTensor<float> t = numbered(3, 2, 4);
  CTensor<float> tCopy(t);
  CTensor<float> assigned(1, 1, 1, 0.0f);
  assigned = t;
  tCopy(1, 1, 1) = assigned(1, 1, 1) = -1.0f;
  EXPECT_EQ(t(1, 1, 1), 10.0f);
  EXPECT_EQ(assigned.zSize(), 4);
  EXPECT_EQ(assigned(2, 1, 3), 23.0f);

  CMatrix<int> wide(6, 1, 1);
  CMatrix<int> tall(1, 6, 2);
  wide = tall;
  tall(0, 5) = 3;
  EXPECT_EQ(wide.xSize(), 1);
  EXPECT_EQ(wide(0, 5), 2);
}

TEST(Containers, GetAndPutMatrixCopyWholeLayers) {
  CTensor<float> t = numbered(300, 250, 3);  // large enough for the parallel copy
  const CMatrix<float> layer = t.getMatrix(2);
  for (int i = 0; i < layer.size(); i++) ASSERT_EQ(layer.data()[i], static_cast<float>(i + 150000)) << "at " << i;
  CMatrix<float> replacement(300, 250, -2.0f);
  t.putMatrix(replacement, 0);
  EXPECT_EQ(t(299, 249, 0), -2.0f);
  EXPECT_EQ(t(0, 0, 1), 75000.0f);
}

TEST(Containers, WrongMatrixSizeThrowsAndLeavesTargetUntouched) {
  const CTensor<float> t(12, 20, 2, 1.0f);
  CMatrix<float> narrow(10, 20, 5.0f);
  testing::internal::CaptureStderr();
  EXPECT_THROW(t.getMatrix(narrow, 0), ETensorIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception ETensorIncompatibleSize: x = 10:12, y = 20:20\n");
  for (int i = 0; i < narrow.size(); i++) ASSERT_EQ(narrow.data()[i], 5.0f);
}
