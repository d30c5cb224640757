// Owning one-dimensional array of numbers with a deep-copying value semantics.
#pragma once

#include <algorithm>
#include <memory>

template <class T>
class CVector {
public:
  CVector() = default;
  explicit CVector(int aSize) : mSize(aSize), mData(allocate(aSize)) {}
  CVector(int aSize, T aValue) : CVector(aSize) { fill(aValue); }
  CVector(const CVector& aCopyFrom);
  CVector(CVector&& aMoveFrom) noexcept { swap(aMoveFrom); }
  virtual ~CVector() = default;

  CVector& operator=(const CVector& aCopyFrom);
  CVector& operator=(CVector&& aMoveFrom) noexcept { swap(aMoveFrom); return *this; }
  CVector& operator=(T aValue) { fill(aValue); return *this; }

  // Fresh block of the new size; the former contents are not kept.
  void setSize(int aSize) { mData = allocate(aSize); mSize = aSize; }
  void fill(T aValue) { std::fill(mData.get(), mData.get() + mSize, aValue); }

  T& operator()(int i) { return mData[i]; }
  const T& operator()(int i) const { return mData[i]; }
  T& operator[](int i) { return mData[i]; }
  const T& operator[](int i) const { return mData[i]; }

  int size() const { return mSize; }
  T* data() { return mData.get(); }
  const T* data() const { return mData.get(); }

protected:
  static std::unique_ptr<T[]> allocate(int aSize) {
    return aSize > 0 ? std::unique_ptr<T[]>(new T[static_cast<size_t>(aSize)]) : nullptr;
  }
  void swap(CVector& aOther) noexcept {
    std::swap(mSize, aOther.mSize);
    std::swap(mData, aOther.mData);
  }

  int mSize = 0;
  std::unique_ptr<T[]> mData;
};

template <class T>
CVector<T>::CVector(const CVector& aCopyFrom) : mSize(aCopyFrom.mSize), mData(allocate(aCopyFrom.mSize)) {
  const T* src = aCopyFrom.mData.get();
  T* dst = mData.get();
  const int n = mSize;
#pragma omp parallel for schedule(static) if (n > 65536)
  for (int i = 0; i < n; i++) dst[i] = src[i];
}

template <class T>
CVector<T>& CVector<T>::operator=(const CVector& aCopyFrom) {
  if (this != &aCopyFrom) {
    if (mSize != aCopyFrom.mSize) setSize(aCopyFrom.mSize);
    std::copy(aCopyFrom.mData.get(), aCopyFrom.mData.get() + mSize, mData.get());
  }
  return *this;
}
