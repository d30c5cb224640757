// Owning three-dimensional array: layers (planes) one after the other, each
// laid out like a CMatrix, so element (x, y, z) lies at x + (z * ySize + y) * xSize.
#pragma once

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "CErrors.h"
#include "CMatrix.h"
#include "CPixmap.h"

class ETensorIncompatibleSize : public ETarnwickError {
public:
  ETensorIncompatibleSize(int a, int b, int c, int d) {
    std::cerr << "Exception ETensorIncompatibleSize: x = " << a << ":" << c << ", y = " << b << ":" << d
              << std::endl;
  }
  ETensorIncompatibleSize(int a, int b, int c) {
    std::cerr << "Exception ETensorIncompatibleSize: " << a << " " << b << " " << c << std::endl;
  }
};

template <class T>
class CTensor {
public:
  CTensor() = default;
  CTensor(int aXSize, int aYSize, int aZSize)
      : mXSize(aXSize), mYSize(aYSize), mZSize(aZSize), mData(allocate(aXSize, aYSize, aZSize)) {}
  CTensor(int aXSize, int aYSize, int aZSize, T aValue) : CTensor(aXSize, aYSize, aZSize) { fill(aValue); }
  CTensor(const CTensor& aCopyFrom) : CTensor(aCopyFrom.mXSize, aCopyFrom.mYSize, aCopyFrom.mZSize) {
    copyElements(aCopyFrom);
  }
  CTensor(CTensor&& aMoveFrom) noexcept { swap(aMoveFrom); }
  virtual ~CTensor() = default;

  CTensor& operator=(const CTensor& aCopyFrom);
  CTensor& operator=(CTensor&& aMoveFrom) noexcept { swap(aMoveFrom); return *this; }
  CTensor& operator=(T aValue) { fill(aValue); return *this; }

  // Fresh block of the new extents; the former contents are not kept.
  void setSize(int aXSize, int aYSize, int aZSize) {
    mData = allocate(aXSize, aYSize, aZSize);
    mXSize = aXSize;
    mYSize = aYSize;
    mZSize = aZSize;
  }
  void fill(T aValue) { std::fill(mData.get(), mData.get() + size(), aValue); }

  T& operator()(int ax, int ay, int az) { return mData[ax + (az * mYSize + ay) * mXSize]; }
  const T& operator()(int ax, int ay, int az) const { return mData[ax + (az * mYSize + ay) * mXSize]; }

  int xSize() const { return mXSize; }
  int ySize() const { return mYSize; }
  int zSize() const { return mZSize; }
  int size() const { return mXSize * mYSize * mZSize; }
  T* data() { return mData.get(); }
  const T* data() const { return mData.get(); }

  // Copies layer az into aMatrix, which must have the tensor's width and height.
  void getMatrix(CMatrix<T>& aMatrix, int az) const;
  CMatrix<T> getMatrix(int az) const;
  // Copies aMatrix (the tensor's width and height) into layer az.
  void putMatrix(CMatrix<T>& aMatrix, int az);

  // Layer-by-layer resampling with the CMatrix operations.
  void downsample(int aNewXSize, int aNewYSize);
  void downsample(int aNewXSize, int aNewYSize, const CMatrix<float>& aConfidence);
  void upsample(int aNewXSize, int aNewYSize);

  // Binary pixmap input ("P6" colour or "P5" grey) and "P6" output of
  // layers 0 to 2; a tensor with fewer layers is refused with EFileError.
  void readFromPPM(const char* aFilename);
  void writeToPPM(const char* aFilename) const;

protected:
  static std::unique_ptr<T[]> allocate(int aXSize, int aYSize, int aZSize) {
    const int n = aXSize * aYSize * aZSize;
    return n > 0 ? std::unique_ptr<T[]>(new T[static_cast<size_t>(n)]) : nullptr;
  }
  void copyElements(const CTensor& aFrom) { std::copy(aFrom.mData.get(), aFrom.mData.get() + size(), mData.get()); }
  void swap(CTensor& aOther) noexcept {
    std::swap(mXSize, aOther.mXSize);
    std::swap(mYSize, aOther.mYSize);
    std::swap(mZSize, aOther.mZSize);
    std::swap(mData, aOther.mData);
  }
  template <class Resample>
  void resampleLayers(int aNewXSize, int aNewYSize, Resample aResample);

  int mXSize = 0;
  int mYSize = 0;
  int mZSize = 0;
  std::unique_ptr<T[]> mData;
};

template <class T>
CTensor<T>& CTensor<T>::operator=(const CTensor& aCopyFrom) {
  if (this != &aCopyFrom) {
    if (size() != aCopyFrom.size()) mData = allocate(aCopyFrom.mXSize, aCopyFrom.mYSize, aCopyFrom.mZSize);
    mXSize = aCopyFrom.mXSize;
    mYSize = aCopyFrom.mYSize;
    mZSize = aCopyFrom.mZSize;
    copyElements(aCopyFrom);
  }
  return *this;
}

template <class T>
void CTensor<T>::getMatrix(CMatrix<T>& aMatrix, int az) const {
  if (aMatrix.xSize() != mXSize || aMatrix.ySize() != mYSize)
    throw ETensorIncompatibleSize(aMatrix.xSize(), aMatrix.ySize(), mXSize, mYSize);
  const int aMatrixSize = mXSize * mYSize;
  const T* src = mData.get() + static_cast<size_t>(aMatrixSize) * az;
  T* dst = aMatrix.data();
#pragma omp parallel for schedule(static) if (aMatrixSize > 65536)
  for (int i = 0; i < aMatrixSize; i++) dst[i] = src[i];
}

template <class T>
CMatrix<T> CTensor<T>::getMatrix(int az) const {
  CMatrix<T> result(mXSize, mYSize);
  getMatrix(result, az);
  return result;
}

template <class T>
void CTensor<T>::putMatrix(CMatrix<T>& aMatrix, int az) {
  const int aMatrixSize = mXSize * mYSize;
  std::copy(aMatrix.data(), aMatrix.data() + aMatrixSize, mData.get() + static_cast<size_t>(aMatrixSize) * az);
}

template <class T>
template <class Resample>
void CTensor<T>::resampleLayers(int aNewXSize, int aNewYSize, Resample aResample) {
  std::unique_ptr<T[]> result = allocate(aNewXSize, aNewYSize, mZSize);
  const size_t newLayer = static_cast<size_t>(std::max(aNewXSize * aNewYSize, 0));
  CMatrix<T> layer(mXSize, mYSize);
  for (int z = 0; z < mZSize; z++) {
    layer.setSize(mXSize, mYSize);
    getMatrix(layer, z);
    aResample(layer);
    std::copy(layer.data(), layer.data() + newLayer, result.get() + newLayer * z);
  }
  mData = std::move(result);
  mXSize = aNewXSize;
  mYSize = aNewYSize;
}

template <class T>
void CTensor<T>::downsample(int aNewXSize, int aNewYSize) {
  resampleLayers(aNewXSize, aNewYSize, [&](CMatrix<T>& m) { m.downsample(aNewXSize, aNewYSize); });
}

template <class T>
void CTensor<T>::downsample(int aNewXSize, int aNewYSize, const CMatrix<float>& aConfidence) {
  resampleLayers(aNewXSize, aNewYSize, [&](CMatrix<T>& m) { m.downsample(aNewXSize, aNewYSize, aConfidence); });
}

template <class T>
void CTensor<T>::upsample(int aNewXSize, int aNewYSize) {
  resampleLayers(aNewXSize, aNewYSize, [&](CMatrix<T>& m) { m.upsample(aNewXSize, aNewYSize); });
}

template <class T>
void CTensor<T>::readFromPPM(const char* aFilename) {
  NPixmap::CImage image = NPixmap::read(aFilename);
  setSize(image.width, image.height, image.layers);
  const int n = image.width * image.height;
  const int layers = image.layers;
  const unsigned char* src = image.samples.data();
  // In parallel: the first write to each fresh page costs the system a zeroing.
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++)
    for (int z = 0; z < layers; z++)
      mData[i + static_cast<size_t>(z) * n] = static_cast<T>(src[static_cast<size_t>(i) * layers + z]);
}

template <class T>
void CTensor<T>::writeToPPM(const char* aFilename) const {
  if (mZSize < 3) throw EFileError(aFilename, "cannot write " + std::to_string(mZSize) + " layers as a colour pixmap");
  const int n = mXSize * mYSize;
  std::vector<unsigned char> bytes(static_cast<size_t>(std::max(n, 0)) * 3);
  size_t k = 0;
  for (int i = 0; i < n; i++)
    for (int z = 0; z < 3; z++) bytes[k++] = NPixmap::toByte(static_cast<float>(mData[i + static_cast<size_t>(z) * n]));
  NPixmap::write(aFilename, mXSize, mYSize, bytes);
}
