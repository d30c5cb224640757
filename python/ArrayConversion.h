// Conversions between numpy arrays and the tensors of the labelling library,
// with the argument checks of the Python module: every problem is raised as a
// Python TypeError or ValueError that names the argument.
#pragma once

#include <pybind11/numpy.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CMatrix.h"
#include "CTensor.h"
#include "CVector.h"

namespace NPython {

namespace py = pybind11;

// At most this many labels, as on the command line.
constexpr int kMaxLabels = 256;

// An HxWx3 or HxW uint8 array as a tensor of three colour layers; a grey
// image has its values repeated, as the command line does with a grey pixmap.
CTensor<float> colourImage(const py::handle& aArray, const std::string& aName);

struct CLabels {
  CTensor<float> labels;                // one layer per label, 1 where a pixel carries it
  CMatrix<float> confidence;            // 1 at the labelled pixels
  std::vector<CVector<int>> colours;    // of every label, for the colour label image
};

// HxW integers (-1 unlabelled, 0 .. L-1 a label) or an HxWx3 uint8 colour
// label image (white unlabelled, labels numbered by the colours' first
// appearance in row order) of the image's extents.
CLabels labelFunction(const py::handle& aArray, const CTensor<float>& aImage);

// An HxWx3 uint8 colour-coded segmentation, or an HxW integer region map that
// is renumbered in row order of first appearance and painted as
// tarnwick-segment paints its files: every region in its mean colour or the
// nearest free one.
CTensor<float> segmentation(const py::handle& aArray, const CTensor<float>& aImage, const std::string& aName);

// An Lx3 uint8 array of label colours.
std::vector<CVector<int>> colourList(const py::handle& aArray, int aLabels);

// Degrees HxWxL float32 or label numbers HxW integer (-1 none) as a tensor of
// one layer per label: the degrees, or 1 for the pixel's label.
CTensor<float> degreesTensor(const py::handle& aArray, const std::string& aName);

py::array_t<float> degreesArray(const CTensor<float>& aDegrees);
py::array_t<std::int32_t> labelArray(const CMatrix<int>& aLabels);
// Layers 0 to 2 as an HxWx3 uint8 image, each value truncated to a byte as
// the result files are written.
py::array_t<std::uint8_t> byteImage(const CTensor<float>& aImage);

}  // namespace NPython
