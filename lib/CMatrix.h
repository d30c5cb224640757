// Owning two-dimensional array; element (x, y) lies at x + y * xSize.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

namespace NResample {

// Area walk that shrinks one line of aInLen samples into aOutLen cells, each
// output cell summing the input over a footprint of aFactor samples.
template <class T>
void shrinkLine(const T* aIn, int aInStride, int aInLen, T* aOut, int aOutStride, int aOutLen, float aFactor) {
  int i = 0;
  int o = 0;
  float remaining = aFactor;
  float w = 1.0f;
  while (o < aOutLen && i < aInLen) {
    if (remaining > 1.0f) {
      aOut[o * aOutStride] += aIn[i * aInStride] * w;
      remaining -= w;
      i++;
      w = 1.0f;
      if (!(remaining > 0.0f)) {
        o++;
        remaining = aFactor;
      }
    } else {
      aOut[o * aOutStride] += aIn[i * aInStride] * remaining;
      w = 1.0f - remaining;
      o++;
      remaining = aFactor;
    }
  }
}

// The mirror walk: every input sample spreads itself over aFactor output cells.
template <class T>
void enlargeLine(const T* aIn, int aInStride, int aInLen, T* aOut, int aOutStride, int aOutLen, float aFactor) {
  int i = 0;
  int o = 0;
  float remaining = aFactor;
  float w = 1.0f;
  while (i < aInLen && o < aOutLen) {
    if (remaining > 1.0f) {
      aOut[o * aOutStride] += aIn[i * aInStride] * w;
      remaining -= w;
      o++;
      w = 1.0f;
      if (!(remaining > 0.0f)) {
        i++;
        remaining = aFactor;
      }
    } else {
      aOut[o * aOutStride] += aIn[i * aInStride] * remaining;
      w = 1.0f - remaining;
      i++;
      remaining = aFactor;
    }
  }
}

}  // namespace NResample

template <class T>
class CMatrix {
public:
  CMatrix() = default;
  CMatrix(int aXSize, int aYSize) : mXSize(aXSize), mYSize(aYSize), mData(allocate(aXSize, aYSize)) {}
  CMatrix(int aXSize, int aYSize, T aValue) : CMatrix(aXSize, aYSize) { fill(aValue); }
  CMatrix(const CMatrix& aCopyFrom) : CMatrix(aCopyFrom.mXSize, aCopyFrom.mYSize) { copyElements(aCopyFrom); }
  CMatrix(CMatrix&& aMoveFrom) noexcept { swap(aMoveFrom); }
  virtual ~CMatrix() = default;

  CMatrix& operator=(const CMatrix& aCopyFrom);
  CMatrix& operator=(CMatrix&& aMoveFrom) noexcept { swap(aMoveFrom); return *this; }
  CMatrix& operator=(T aValue) { fill(aValue); return *this; }

  // Fresh block of the new extents; the former contents are not kept.
  void setSize(int aXSize, int aYSize) {
    mData = allocate(aXSize, aYSize);
    mXSize = aXSize;
    mYSize = aYSize;
  }
  void fill(T aValue) { std::fill(mData.get(), mData.get() + size(), aValue); }

  T& operator()(int ax, int ay) { return mData[ax + ay * mXSize]; }
  const T& operator()(int ax, int ay) const { return mData[ax + ay * mXSize]; }

  int xSize() const { return mXSize; }
  int ySize() const { return mYSize; }
  int size() const { return mXSize * mYSize; }
  T* data() { return mData.get(); }
  const T* data() const { return mData.get(); }

  // Area average onto a grid no larger than the current one.
  void downsample(int aNewXSize, int aNewYSize);
  // Confidence-weighted bilinear splatting onto a smaller grid.
  void downsample(int aNewXSize, int aNewYSize, const CMatrix<float>& aConfidence);
  // Area-weighted enlargement onto a grid no smaller than the current one.
  void upsample(int aNewXSize, int aNewYSize);

protected:
  static std::unique_ptr<T[]> allocate(int aXSize, int aYSize) {
    const int n = aXSize * aYSize;
    return n > 0 ? std::unique_ptr<T[]>(new T[static_cast<size_t>(n)]) : nullptr;
  }
  void copyElements(const CMatrix& aFrom) { std::copy(aFrom.mData.get(), aFrom.mData.get() + size(), mData.get()); }
  void swap(CMatrix& aOther) noexcept {
    std::swap(mXSize, aOther.mXSize);
    std::swap(mYSize, aOther.mYSize);
    std::swap(mData, aOther.mData);
  }

  int mXSize = 0;
  int mYSize = 0;
  std::unique_ptr<T[]> mData;
};

template <class T>
CMatrix<T>& CMatrix<T>::operator=(const CMatrix& aCopyFrom) {
  if (this != &aCopyFrom) {
    if (size() != aCopyFrom.size()) mData = allocate(aCopyFrom.mXSize, aCopyFrom.mYSize);
    mXSize = aCopyFrom.mXSize;
    mYSize = aCopyFrom.mYSize;
    copyElements(aCopyFrom);
  }
  return *this;
}

template <class T>
void CMatrix<T>::downsample(int aNewXSize, int aNewYSize) {
  const int oldX = mXSize;
  const int oldY = mYSize;
  std::unique_ptr<T[]> current = std::move(mData);
  int curX = oldX;
  if (aNewXSize < oldX) {
    std::unique_ptr<T[]> next(new T[static_cast<size_t>(aNewXSize) * oldY]());
    const float f = static_cast<float>(oldX) / static_cast<float>(aNewXSize);
    for (int y = 0; y < oldY; y++)
      NResample::shrinkLine(current.get() + y * oldX, 1, oldX, next.get() + y * aNewXSize, 1, aNewXSize, f);
    current = std::move(next);
    curX = aNewXSize;
  }
  if (aNewYSize < oldY) {
    std::unique_ptr<T[]> next(new T[static_cast<size_t>(curX) * aNewYSize]());
    const float f = static_cast<float>(oldY) / static_cast<float>(aNewYSize);
    for (int x = 0; x < curX; x++)
      NResample::shrinkLine(current.get() + x, curX, oldY, next.get() + x, curX, aNewYSize, f);
    current = std::move(next);
  }
  const float scale = static_cast<float>(aNewXSize * aNewYSize) / static_cast<float>(oldX * oldY);
  const int n = aNewXSize * aNewYSize;
  for (int i = 0; i < n; i++) current[i] *= scale;
  mData = std::move(current);
  mXSize = aNewXSize;
  mYSize = aNewYSize;
}

template <class T>
void CMatrix<T>::downsample(int aNewXSize, int aNewYSize, const CMatrix<float>& aConfidence) {
  const int n = aNewXSize * aNewYSize;
  std::vector<T> values(static_cast<size_t>(std::max(n, 0)), T(0));
  std::vector<T> weights(static_cast<size_t>(std::max(n, 0)), T(0));
  const float sx = static_cast<float>(aNewXSize) / static_cast<float>(mXSize);
  const float sy = static_cast<float>(aNewYSize) / static_cast<float>(mYSize);
  for (int y = 0; y < mYSize; y++) {
    for (int x = 0; x < mXSize; x++) {
      const float c = aConfidence(x, y);
      if (!(c > 0.0f)) continue;
      const float v = c * operator()(x, y);
      const float fx = x * sx;
      const int ix = static_cast<int>(fx);
      const float dx = fx - ix;
      const float fy = y * sy;
      const int iy = static_cast<int>(fy);
      const float dy = fy - iy;
      const bool right = ix + 1 < aNewXSize;
      const bool below = iy + 1 < aNewYSize;
      auto splat = [&](int cx, int cy, float w) {
        const int k = cx + cy * aNewXSize;
        values[k] += w * v;
        weights[k] += w * c;
      };
      splat(ix, iy, (1.0f - dx) * (1.0f - dy));
      if (right) splat(ix + 1, iy, dx * (1.0f - dy));
      if (below) splat(ix, iy + 1, (1.0f - dx) * dy);
      if (right && below) splat(ix + 1, iy + 1, dx * dy);
    }
  }
  setSize(aNewXSize, aNewYSize);
  for (int i = 0; i < n; i++) mData[i] = weights[i] > 0 ? values[i] / weights[i] : T(0);
}

template <class T>
void CMatrix<T>::upsample(int aNewXSize, int aNewYSize) {
  const int oldX = mXSize;
  const int oldY = mYSize;
  std::unique_ptr<T[]> current = std::move(mData);
  int curX = oldX;
  if (aNewXSize > oldX) {
    std::unique_ptr<T[]> next(new T[static_cast<size_t>(aNewXSize) * oldY]());
    const float g = static_cast<float>(aNewXSize) / static_cast<float>(oldX);
    for (int y = 0; y < oldY; y++)
      NResample::enlargeLine(current.get() + y * oldX, 1, oldX, next.get() + y * aNewXSize, 1, aNewXSize, g);
    current = std::move(next);
    curX = aNewXSize;
  }
  if (aNewYSize > oldY) {
    std::unique_ptr<T[]> next(new T[static_cast<size_t>(curX) * aNewYSize]());
    const float g = static_cast<float>(aNewYSize) / static_cast<float>(oldY);
    for (int x = 0; x < curX; x++)
      NResample::enlargeLine(current.get() + x, curX, oldY, next.get() + x, curX, aNewYSize, g);
    current = std::move(next);
  }
  mData = std::move(current);
  mXSize = aNewXSize;
  mYSize = aNewYSize;
}
