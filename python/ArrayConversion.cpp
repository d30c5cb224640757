#include "ArrayConversion.h"

#include <climits>
#include <unordered_map>
#include <unordered_set>

#include "CErrors.h"
#include "CPixmap.h"
#include "CUtility.h"
#include "Segmenter.h"

namespace NPython {

namespace {

std::string typeName(const py::handle& aObject) { return py::str(py::type::of(aObject).attr("__name__")); }

std::string shapeText(const py::array& aArray) {
  std::string text = "(";
  for (py::ssize_t d = 0; d < aArray.ndim(); d++) text += (d > 0 ? ", " : "") + std::to_string(aArray.shape(d));
  return text + (aArray.ndim() == 1 ? ",)" : ")");
}

py::array requireArray(const py::handle& aObject, const std::string& aName) {
  if (!py::isinstance<py::array>(aObject))
    throw py::type_error(aName + " must be a numpy array, not " + typeName(aObject));
  return py::reinterpret_borrow<py::array>(aObject);
}

bool isByte(const py::array& aArray) { return aArray.dtype().kind() == 'u' && aArray.dtype().itemsize() == 1; }
bool isInteger(const py::array& aArray) { return aArray.dtype().kind() == 'i' || aArray.dtype().kind() == 'u'; }
std::string dtypeText(const py::array& aArray) { return py::str(aArray.dtype()); }

void requireByte(const py::array& aArray, const std::string& aName) {
  if (!isByte(aArray)) throw py::type_error(aName + " must have dtype uint8, not " + dtypeText(aArray));
}

// The array as row-major data of type T; values are converted as numpy casts them.
template <class T>
py::array_t<T, py::array::c_style> contiguous(const py::array& aArray) {
  return py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(aArray);
}

// An HxWx3 uint8 array as a three-layer tensor.
CTensor<float> colourTensor(const py::array& aArray) {
  const auto bytes = contiguous<std::uint8_t>(aArray);
  const int height = static_cast<int>(aArray.shape(0));
  const int width = static_cast<int>(aArray.shape(1));
  const size_t n = static_cast<size_t>(width) * height;
  CTensor<float> tensor(width, height, 3);
  const std::uint8_t* in = bytes.data();
  for (size_t i = 0; i < n; i++)
    for (size_t c = 0; c < 3; c++) tensor.data()[i + c * n] = in[3 * i + c];
  return tensor;
}

void requireExtents(const py::array& aArray, const CTensor<float>& aImage, const std::string& aName) {
  if (aArray.shape(0) != aImage.ySize() || aArray.shape(1) != aImage.xSize())
    throw py::value_error(aName + " has shape " + shapeText(aArray) + " but the image is " +
                          std::to_string(aImage.ySize()) + " x " + std::to_string(aImage.xSize()) +
                          " (height x width)");
}

// An HxWx3 uint8 colour array of the image's extents, or an HxW integer array.
bool isColourArray(const py::array& aArray, const CTensor<float>& aImage, const std::string& aName,
                   const std::string& aMapKind) {
  if (aArray.ndim() != 2 && !(aArray.ndim() == 3 && aArray.shape(2) == 3))
    throw py::value_error(aName + " must be an HxW " + aMapKind + " or an HxWx3 colour image, not of shape " +
                          shapeText(aArray));
  requireExtents(aArray, aImage, aName);
  if (aArray.ndim() == 3) {
    requireByte(aArray, aName + " (a colour image)");
    return true;
  }
  if (!isInteger(aArray))
    throw py::type_error(aName + " (a " + aMapKind + ") must have an integer dtype, not " + dtypeText(aArray));
  return false;
}

void requireLabelCount(int aLabels, int aPixels, const std::string& aName) {
  if (aLabels > kMaxLabels)
    throw py::value_error(aName + ": more than " + std::to_string(kMaxLabels) + " labels");
  if (static_cast<long long>(aPixels) * aLabels > INT_MAX)
    throw py::value_error(aName + ": too many labels for an image of this size");
}

CLabels colourLabels(const py::array& aArray, const CTensor<float>& aImage, const std::string& aName) {
  CLabels result;
  const CTensor<float> colours = colourTensor(aArray);
  // Count first, so that a photograph given by mistake fails fast.
  std::unordered_set<int> distinct;
  const int n = colours.xSize() * colours.ySize();
  for (int i = 0; i < n && static_cast<int>(distinct.size()) <= kMaxLabels; i++) {
    const int r = static_cast<int>(colours.data()[i]);
    const int g = static_cast<int>(colours.data()[i + n]);
    const int b = static_cast<int>(colours.data()[i + 2 * n]);
    if (r != 255 || g != 255 || b != 255) distinct.insert((r << 16) | (g << 8) | b);
  }
  if (distinct.empty()) throw py::value_error(aName + ": no labels (every pixel is white)");
  requireLabelCount(static_cast<int>(distinct.size()), n, aName);
  CUtility::color2labelFunction(result.labels, colours, result.colours);
  result.confidence = CMatrix<float>(aImage.xSize(), aImage.ySize(), 0.0f);
  CUtility::labelFunction2confidenceMask(result.labels, result.confidence);
  return result;
}

CLabels numberedLabels(const py::array& aArray, const CTensor<float>& aImage, const std::string& aName) {
  const auto numbers = contiguous<long long>(aArray);
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const int n = width * height;
  long long largest = -1;
  for (int i = 0; i < n; i++) {
    const long long value = numbers.data()[i];
    if (value < -1)
      throw py::value_error(aName + ": " + std::to_string(value) + " is no label (-1 unlabelled, 0 .. L-1 a label)");
    largest = std::max(largest, value);
  }
  if (largest < 0) throw py::value_error(aName + ": no labels (every pixel is -1)");
  if (largest >= kMaxLabels)
    throw py::value_error(aName + ": label " + std::to_string(largest) + " is beyond the " +
                          std::to_string(kMaxLabels) + " labels allowed");
  const int labelCount = static_cast<int>(largest) + 1;
  requireLabelCount(labelCount, n, aName);
  CLabels result;
  result.labels = CTensor<float>(width, height, labelCount, 0.0f);
  for (int i = 0; i < n; i++)
    if (numbers.data()[i] >= 0) result.labels.data()[i + static_cast<size_t>(numbers.data()[i]) * n] = 1.0f;
  result.confidence = CMatrix<float>(width, height, 0.0f);
  CUtility::labelFunction2confidenceMask(result.labels, result.confidence);
  return result;
}

}  // namespace

CTensor<float> colourImage(const py::handle& aArray, const std::string& aName) {
  const py::array array = requireArray(aArray, aName);
  if (array.ndim() != 2 && !(array.ndim() == 3 && array.shape(2) == 3))
    throw py::value_error(aName + " must be an HxWx3 colour or an HxW grey image, not of shape " + shapeText(array));
  requireByte(array, aName);
  if (array.shape(0) == 0 || array.shape(1) == 0) throw py::value_error(aName + " is empty: " + shapeText(array));
  if (array.shape(0) * array.shape(1) * 3 > INT_MAX) throw py::value_error(aName + " is too large");
  if (array.ndim() == 3) return colourTensor(array);
  const auto grey = contiguous<std::uint8_t>(array);
  const int height = static_cast<int>(array.shape(0));
  const int width = static_cast<int>(array.shape(1));
  const size_t n = static_cast<size_t>(width) * height;
  CTensor<float> tensor(width, height, 3);
  for (size_t c = 0; c < 3; c++)
    for (size_t i = 0; i < n; i++) tensor.data()[i + c * n] = grey.data()[i];
  return tensor;
}

CLabels labelFunction(const py::handle& aArray, const CTensor<float>& aImage) {
  const std::string name = "labels";
  const py::array array = requireArray(aArray, name);
  return isColourArray(array, aImage, name, "array of label numbers") ? colourLabels(array, aImage, name)
                                                                       : numberedLabels(array, aImage, name);
}

CTensor<float> segmentation(const py::handle& aArray, const CTensor<float>& aImage, const std::string& aName) {
  const py::array array = requireArray(aArray, aName);
  if (isColourArray(array, aImage, aName, "region map")) return colourTensor(array);
  const auto regions = contiguous<long long>(array);
  CMatrix<int> numbered(aImage.xSize(), aImage.ySize());
  std::unordered_map<long long, int> numberOf;
  for (int i = 0; i < numbered.size(); i++)
    numbered.data()[i] = numberOf.try_emplace(regions.data()[i], static_cast<int>(numberOf.size())).first->second;
  return NSegment::paintRegions(aImage, numbered);
}

std::vector<CVector<int>> colourList(const py::handle& aArray, int aLabels) {
  const std::string name = "colours";
  const py::array array = requireArray(aArray, name);
  if (array.ndim() != 2 || array.shape(1) != 3)
    throw py::value_error(name + " must be an Lx3 array of label colours, not of shape " + shapeText(array));
  requireByte(array, name);
  if (array.shape(0) < aLabels)
    throw py::value_error(name + ": " + std::to_string(array.shape(0)) + " colours for " + std::to_string(aLabels) +
                          " labels");
  const auto bytes = contiguous<std::uint8_t>(array);
  std::vector<CVector<int>> colours;
  for (py::ssize_t k = 0; k < array.shape(0); k++) {
    CVector<int> colour(3);
    for (int c = 0; c < 3; c++) colour(c) = bytes.data()[3 * k + c];
    colours.push_back(colour);
  }
  return colours;
}

CTensor<float> degreesTensor(const py::handle& aArray, const std::string& aName) {
  const py::array array = requireArray(aArray, aName);
  if (array.ndim() == 3) {
    if (array.dtype().kind() != 'f')
      throw py::type_error(aName + " (degrees) must have a floating-point dtype, not " + dtypeText(array));
    const auto degrees = contiguous<float>(array);
    const int height = static_cast<int>(array.shape(0));
    const int width = static_cast<int>(array.shape(1));
    const int labels = static_cast<int>(array.shape(2));
    if (labels == 0) throw py::value_error(aName + " has no labels: " + shapeText(array));
    const size_t n = static_cast<size_t>(width) * height;
    CTensor<float> tensor(width, height, labels);
    for (size_t i = 0; i < n; i++)
      for (int k = 0; k < labels; k++) tensor.data()[i + k * n] = degrees.data()[i * labels + k];
    return tensor;
  }
  if (array.ndim() != 2)
    throw py::value_error(aName + " must be HxWxL degrees or HxW label numbers, not of shape " + shapeText(array));
  if (!isInteger(array))
    throw py::type_error(aName + " (label numbers) must have an integer dtype, not " + dtypeText(array));
  const auto numbers = contiguous<long long>(array);
  const int height = static_cast<int>(array.shape(0));
  const int width = static_cast<int>(array.shape(1));
  const int n = width * height;
  long long largest = -1;
  for (int i = 0; i < n; i++) {
    if (numbers.data()[i] < -1) throw py::value_error(aName + ": " + std::to_string(numbers.data()[i]) + " is no label");
    largest = std::max(largest, numbers.data()[i]);
  }
  if (largest >= kMaxLabels) throw py::value_error(aName + ": label " + std::to_string(largest) + " is beyond the palette");
  CTensor<float> tensor(width, height, static_cast<int>(largest) + 1, 0.0f);
  for (int i = 0; i < n; i++)
    if (numbers.data()[i] >= 0) tensor.data()[i + static_cast<size_t>(numbers.data()[i]) * n] = 1.0f;
  return tensor;
}

py::array_t<float> degreesArray(const CTensor<float>& aDegrees) {
  const int width = aDegrees.xSize();
  const int height = aDegrees.ySize();
  const int labels = aDegrees.zSize();
  py::array_t<float> result({height, width, labels});
  float* out = result.mutable_data();
  const size_t n = static_cast<size_t>(width) * height;
  for (size_t i = 0; i < n; i++)
    for (int k = 0; k < labels; k++) out[i * labels + k] = aDegrees.data()[i + k * n];
  return result;
}

py::array_t<std::int32_t> labelArray(const CMatrix<int>& aLabels) {
  py::array_t<std::int32_t> result({aLabels.ySize(), aLabels.xSize()});
  std::copy(aLabels.data(), aLabels.data() + aLabels.size(), result.mutable_data());
  return result;
}

py::array_t<std::uint8_t> byteImage(const CTensor<float>& aImage) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  py::array_t<std::uint8_t> result({height, width, 3});
  std::uint8_t* out = result.mutable_data();
  const size_t n = static_cast<size_t>(width) * height;
  for (size_t i = 0; i < n; i++)
    for (size_t c = 0; c < 3; c++) out[3 * i + c] = NPixmap::toByte(aImage.data()[i + c * n]);
  return result;
}

}  // namespace NPython
