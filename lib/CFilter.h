// One-dimensional filter kernels and their application along one axis of a
// matrix with mirrored borders (the edge sample is repeated).
#pragma once

#include <algorithm>
#include <iostream>

#include "CErrors.h"
#include "CMatrix.h"
#include "CVector.h"

class EFilterIncompatibleSize : public ETarnwickError {
public:
  EFilterIncompatibleSize(int aInitialSize, int aResultSize) {
    std::cerr << "Exception EFilterIncompatibleSize: Initial container size: " << aInitialSize
              << "  Resulting container size: " << aResultSize << std::endl;
  }
};

class EFilterNotAvailable : public ETarnwickError {
public:
  EFilterNotAvailable(int aSize, int aOrder) {
    std::cerr << "Exception EFilterNotAvailable: derivative of order " << aOrder << " with " << aSize
              << " taps is not available" << std::endl;
  }
};

// Kernel of taps; the tap for offset i is mData[i + mDelta], offsets A() .. B() - 1.
template <class T>
class CFilter : public CVector<T> {
public:
  CFilter(int aSize, int aDelta) : CVector<T>(aSize), mDelta(aDelta) {}
  ~CFilter() override = default;

  int delta() const { return mDelta; }
  int A() const { return -mDelta; }
  int B() const { return this->mSize - mDelta; }
  T& operator()(int i) { return this->mData[i + mDelta]; }
  const T& operator()(int i) const { return this->mData[i + mDelta]; }

protected:
  int mDelta;
};

// Central-difference derivative; only the 3-tap kernel (-0.5, 0, 0.5) exists.
template <class T>
class CDerivative : public CFilter<T> {
public:
  explicit CDerivative(int aSize) : CFilter<T>(aSize, aSize / 2) {
    if (aSize != 3) throw EFilterNotAvailable(aSize, 1);
    (*this)(-1) = -0.5;
    (*this)(0) = 0;
    (*this)(1) = 0.5;
  }
  ~CDerivative() override = default;
};

namespace NFilter {

namespace detail {
// Mirror rule: index -1 reads 0, index N reads N - 1. A kernel longer than
// the axis can reach past the mirror image; such reads are clamped to the axis.
inline int reflect(int j, int n) {
  const int mirrored = j < 0 ? -1 - j : (j >= n ? 2 * n - 1 - j : j);
  return std::clamp(mirrored, 0, n - 1);
}
}  // namespace detail

// Along x (each row). The result is zeroed first and every border range adds
// into it, so on rows shorter than the kernel overlapping columns add twice.
template <class T>
void filter(const CMatrix<T>& aMatrix, CMatrix<T>& aResult, const CFilter<T>& aFilter, int /*aDummy*/) {
  if (aResult.xSize() != aMatrix.xSize() || aResult.ySize() != aMatrix.ySize())
    throw EFilterIncompatibleSize(aMatrix.xSize() * aMatrix.ySize(), aResult.xSize() * aResult.ySize());
  const int n = aMatrix.xSize();
  const int lowEnd = std::min(aFilter.delta(), n);
  const int highBegin = std::max(n - aFilter.B(), 0);
  aResult.fill(0);
  for (int y = 0; y < aMatrix.ySize(); y++) {
    auto border = [&](int x) {
      for (int i = aFilter.A(); i < aFilter.B(); i++) aResult(x, y) += aFilter(i) * aMatrix(detail::reflect(x + i, n), y);
    };
    for (int x = 0; x < lowEnd; x++) border(x);
    for (int x = aFilter.delta(); x < n - aFilter.B(); x++)
      for (int i = aFilter.A(); i < aFilter.B(); i++) aResult(x, y) += aFilter(i) * aMatrix(x + i, y);
    for (int x = highBegin; x < n; x++) border(x);
  }
}

// Along y (each column): low border rows, high border rows, then the interior;
// every output element is zeroed right before it is summed.
template <class T>
void filter(const CMatrix<T>& aMatrix, CMatrix<T>& aResult, int /*aDummy*/, const CFilter<T>& aFilter) {
  if (aResult.xSize() != aMatrix.xSize() || aResult.ySize() != aMatrix.ySize())
    throw EFilterIncompatibleSize(aMatrix.xSize() * aMatrix.ySize(), aResult.xSize() * aResult.ySize());
  const int n = aMatrix.ySize();
  const int width = aMatrix.xSize();
  auto borderRow = [&](int y) {
    for (int x = 0; x < width; x++) {
      aResult(x, y) = 0;
      for (int i = aFilter.A(); i < aFilter.B(); i++) aResult(x, y) += aFilter(i) * aMatrix(x, detail::reflect(y + i, n));
    }
  };
  for (int y = 0; y < std::min(aFilter.delta(), n); y++) borderRow(y);
  for (int y = std::max(n - aFilter.B(), 0); y < n; y++) borderRow(y);
  for (int y = aFilter.delta(); y < n - aFilter.B(); y++)
    for (int x = 0; x < width; x++) {
      aResult(x, y) = 0;
      for (int i = aFilter.A(); i < aFilter.B(); i++) aResult(x, y) += aFilter(i) * aMatrix(x, y + i);
    }
}

}  // namespace NFilter
