#include <gtest/gtest.h>

#include <string>

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

TEST(Layout, TensorLayersFollowEachOther) {
  const CTensor<float> t = numbered(4, 3, 3);
  EXPECT_EQ(t.size(), 36);
  EXPECT_EQ(t(0, 0, 2), 24.0f);
  for (int z = 0; z < 3; z++)
    for (int y = 0; y < 3; y++)
      for (int x = 0; x < 4; x++) EXPECT_EQ(t(x, y, z), static_cast<float>(x + (z * 3 + y) * 4));
}

TEST(Layout, MatrixRowsFollowEachOther) {
  CMatrix<int> m(3, 2, 0);
  m(2, 1) = 7;
  m(1, 0) = 5;
  EXPECT_EQ(m.size(), 6);
  EXPECT_EQ(m.data()[5], 7);
  EXPECT_EQ(m.data()[1], 5);
}

TEST(Construction, DefaultIsEmptyAndFilledSetsEveryElement) {
  const CTensor<float> empty;
  EXPECT_EQ(empty.xSize() + empty.ySize() + empty.zSize(), 0);
  EXPECT_EQ(empty.data(), nullptr);

  const CVector<int> v(5, 3);
  const CMatrix<float> m(2, 3, 1.5f);
  const CTensor<int> t(2, 2, 2, -4);
  for (int i = 0; i < v.size(); i++) EXPECT_EQ(v(i), 3);
  for (int i = 0; i < m.size(); i++) EXPECT_EQ(m.data()[i], 1.5f);
  for (int i = 0; i < t.size(); i++) EXPECT_EQ(t.data()[i], -4);
}

TEST(Construction, ValueAssignmentFillsEverything) {
  CTensor<float> t = numbered(3, 2, 2);
  t = 9.0f;
  for (int i = 0; i < t.size(); i++) EXPECT_EQ(t.data()[i], 9.0f);
  CVector<float> v(4, 0.0f);
  v = 2.0f;
  EXPECT_EQ(v[3], 2.0f);
}

// Copies must own their storage: the label colour list and the segmentation
// images are held by value in standard vectors.
TEST(Copy, CopiesAreIndependent) {
  CVector<int> v(3, 1);
  CVector<int> vCopy(v);
  vCopy(0) = 8;
  EXPECT_EQ(v(0), 1);
  EXPECT_NE(v.data(), vCopy.data());

  CMatrix<float> m(2, 2, 1.0f);
  CMatrix<float> mCopy(m);
  mCopy(1, 1) = 5.0f;
  EXPECT_EQ(m(1, 1), 1.0f);

  const CTensor<float> t = numbered(2, 2, 2);
  CTensor<float> tCopy(t);
  tCopy(1, 1, 1) = -1.0f;
  EXPECT_EQ(t(1, 1, 1), 7.0f);
  EXPECT_EQ(tCopy(0, 1, 1), 6.0f);
}

TEST(Copy, LargeVectorCopyIsComplete) {
  // Large enough for the parallel copy.
  CVector<int> v(200003);
  for (int i = 0; i < v.size(); i++) v(i) = i * 3;
  const CVector<int> copy(v);
  ASSERT_EQ(copy.size(), v.size());
  for (int i = 0; i < v.size(); i++) ASSERT_EQ(copy(i), i * 3) << "at " << i;
}

TEST(Copy, AssignmentTakesSourceExtentsAndStaysIndependent) {
  const CTensor<float> source = numbered(3, 2, 4);
  CTensor<float> target(1, 1, 1, 0.0f);
  target = source;
  EXPECT_EQ(target.xSize(), 3);
  EXPECT_EQ(target.ySize(), 2);
  EXPECT_EQ(target.zSize(), 4);
  for (int i = 0; i < source.size(); i++) EXPECT_EQ(target.data()[i], source.data()[i]);
  target(0, 0, 0) = 100.0f;
  EXPECT_EQ(source(0, 0, 0), 0.0f);

  // Same element count, other shape.
  CMatrix<int> wide(6, 1, 1);
  const CMatrix<int> tall(1, 6, 2);
  wide = tall;
  EXPECT_EQ(wide.xSize(), 1);
  EXPECT_EQ(wide.ySize(), 6);
  EXPECT_EQ(wide(0, 5), 2);

  CVector<int> shortVector(2, 0);
  shortVector = CVector<int>(5, 7);
  EXPECT_EQ(shortVector.size(), 5);
  EXPECT_EQ(shortVector(4), 7);
}

TEST(SetSize, AlwaysGivesAFreshBlock) {
  CTensor<float> t = numbered(4, 3, 2);
  const float* before = t.data();
  t.setSize(4, 3, 2);
  EXPECT_NE(t.data(), before);
  t.setSize(5, 1, 3);
  EXPECT_EQ(t.xSize(), 5);
  EXPECT_EQ(t.ySize(), 1);
  EXPECT_EQ(t.zSize(), 3);
  EXPECT_EQ(t.size(), 15);

  CMatrix<float> m(2, 2, 0.0f);
  const float* matrixBefore = m.data();
  m.setSize(2, 2);
  EXPECT_NE(m.data(), matrixBefore);

  CVector<int> v(3, 0);
  const int* vectorBefore = v.data();
  v.setSize(3);
  EXPECT_NE(v.data(), vectorBefore);
}

TEST(Layers, GetAndPutMatrixCopyWholeLayers) {
  CTensor<float> t = numbered(4, 3, 3);
  CMatrix<float> layer(4, 3);
  t.getMatrix(layer, 1);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 4; x++) EXPECT_EQ(layer(x, y), t(x, y, 1));

  const CMatrix<float> last = t.getMatrix(2);
  EXPECT_EQ(last.xSize(), 4);
  EXPECT_EQ(last(0, 0), 24.0f);

  CMatrix<float> replacement(4, 3, -2.0f);
  t.putMatrix(replacement, 0);
  EXPECT_EQ(t(3, 2, 0), -2.0f);
  EXPECT_EQ(t(0, 0, 1), 12.0f);
}

TEST(Layers, LargeLayerIsCopiedCompletely) {
  const CTensor<float> t = numbered(300, 250, 2);
  const CMatrix<float> layer = t.getMatrix(1);
  for (int i = 0; i < layer.size(); i++) ASSERT_EQ(layer.data()[i], static_cast<float>(i + 75000)) << "at " << i;
}

TEST(Layers, WrongMatrixSizeThrowsAndLeavesTargetUntouched) {
  const CTensor<float> t(12, 20, 2, 1.0f);
  CMatrix<float> narrow(10, 20, 5.0f);
  testing::internal::CaptureStderr();
  EXPECT_THROW(t.getMatrix(narrow, 0), ETensorIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception ETensorIncompatibleSize: x = 10:12, y = 20:20\n");
  for (int i = 0; i < narrow.size(); i++) ASSERT_EQ(narrow.data()[i], 5.0f);

  CMatrix<float> low(12, 19, 5.0f);
  testing::internal::CaptureStderr();
  EXPECT_THROW(t.getMatrix(low, 1), ETensorIncompatibleSize);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception ETensorIncompatibleSize: x = 12:12, y = 19:20\n");
}
