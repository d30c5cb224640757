// The Python module tarnwick: labelling and segmentation on numpy arrays, bit
// for bit what the command-line tools compute from the same pixels.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <new>
#include <stdexcept>

#include "ArrayConversion.h"
#include "CErrors.h"
#include "CImageFile.h"
#include "CUtility.h"
#include "ColourImage.h"
#include "Labelling.h"
#include "SegmentTool.h"
#include "Segmenter.h"

namespace py = pybind11;

namespace {

// The library's exceptions print their message when they are made and carry
// nothing; they become a RuntimeError pointing at that message.
template <class TFunction>
auto translated(TFunction aFunction) {
  const char* const kPrinted = "tarnwick: the computation failed (the reason is printed on standard error)";
  try {
    return aFunction();
  } catch (const ETarnwickError&) {
  }
  throw std::runtime_error(kPrinted);
}

py::tuple label(const py::handle& aImage, const py::handle& aLabels, const py::handle& aSegmentations, double aAlpha,
                bool aConverged) {
  NDriver::CLabellingInput problem;
  problem.image = NPython::colourImage(aImage, "image");
  NPython::CLabels labels = NPython::labelFunction(aLabels, problem.image);
  problem.labels = std::move(labels.labels);
  problem.confidence = std::move(labels.confidence);
  if (!py::isinstance<py::sequence>(aSegmentations) || py::isinstance<py::str>(aSegmentations) ||
      py::isinstance<py::array>(aSegmentations))
    throw py::type_error("segmentations must be a sequence (list or tuple) of arrays, fine to coarse");
  const py::sequence segmentations = py::reinterpret_borrow<py::sequence>(aSegmentations);
  for (size_t k = 0; k < segmentations.size(); k++)
    problem.segmentations.push_back(translated([&] {
      return NPython::segmentation(segmentations[k], problem.image, "segmentations[" + std::to_string(k) + "]");
    }));
  NDriver::CLabellingSettings settings;
  settings.alpha = static_cast<float>(aAlpha);
  settings.converged = aConverged;
  // At 1 the unlabelled pixels have no weight at all (a division by zero).
  if (!(settings.alpha >= 0.0f && settings.alpha < 1.0f))
    throw py::value_error("alpha must be a number from 0 up to (not including) 1, not " + std::to_string(aAlpha));
  CTensor<float> soft;
  CMatrix<int> hard;
  {
    py::gil_scoped_release release;
    translated([&] {
      soft = NDriver::solveLabelling(problem, settings);
      hard = NDriver::labelNumbers(NDriver::hardLabelling(soft));
      return 0;
    });
  }
  return py::make_tuple(NPython::degreesArray(soft), NPython::labelArray(hard));
}

py::list segment(const py::handle& aImage, int aLevels, const std::optional<std::vector<int>>& aRegions) {
  const CTensor<float> image = NPython::colourImage(aImage, "image");
  if (aLevels < 0 || aLevels > NSegmentTool::kMaxLevels)
    throw py::value_error("k must be a level count from 0 to " + std::to_string(NSegmentTool::kMaxLevels) + ", not " +
                          std::to_string(aLevels));
  std::vector<int> counts;
  if (aRegions) {
    counts = *aRegions;
    if (static_cast<int>(counts.size()) != aLevels)
      throw py::value_error("regions: " + std::to_string(counts.size()) + " count(s) given for k = " +
                            std::to_string(aLevels) + ", one per level needed");
    for (size_t k = 0; k < counts.size(); k++) {
      if (counts[k] < 1) throw py::value_error("regions: every region count must be at least 1");
      if (k > 0 && counts[k] > NSegment::coarserLimit(counts[k - 1]))
        throw py::value_error("regions: " + std::to_string(counts[k]) + " regions after " +
                              std::to_string(counts[k - 1]) +
                              ": each level needs at most 0.8 times the regions of the one before");
    }
  } else {
    counts = NSegment::defaultRegionCounts(image.xSize() * image.ySize(), aLevels);
  }
  std::vector<CMatrix<int>> levels;
  {
    py::gil_scoped_release release;
    levels = translated([&] { return NSegment::segment(image, counts); });
  }
  py::list result;
  for (const CMatrix<int>& level : levels) result.append(NPython::labelArray(level));
  return result;
}

py::array_t<std::uint8_t> colourize(const py::handle& aDegrees, const py::handle& aColours) {
  const CTensor<float> degrees = NPython::degreesTensor(aDegrees, "degrees");
  CTensor<float> canvas(degrees.xSize(), degrees.ySize(), 3, 255.0f);
  if (aColours.is_none()) {
    if (degrees.zSize() > CUtility::mPaletteSize)
      throw py::value_error("degrees: more labels than the " + std::to_string(CUtility::mPaletteSize) +
                            " palette colours; give colours");
    translated([&] {
      CUtility::plotOverlayColor(canvas, degrees, 1.0f);
      return 0;
    });
  } else {
    const std::vector<CVector<int>> colours = NPython::colourList(aColours, degrees.zSize());
    translated([&] {
      CUtility::plotOverlayColor(canvas, degrees, colours, 1.0f);
      return 0;
    });
  }
  return NPython::byteImage(canvas);
}

py::array_t<std::uint8_t> labelColours(const py::handle& aLabels) {
  const py::array array = py::isinstance<py::array>(aLabels) ? py::reinterpret_borrow<py::array>(aLabels) : py::array();
  if (array.ndim() != 3 || array.shape(2) != 3)
    throw py::value_error("labels must be an HxWx3 uint8 colour label image");
  CTensor<float> image(static_cast<int>(array.shape(1)), static_cast<int>(array.shape(0)), 3);
  const NPython::CLabels labels = NPython::labelFunction(aLabels, image);
  py::array_t<std::uint8_t> result({static_cast<py::ssize_t>(labels.colours.size()), static_cast<py::ssize_t>(3)});
  for (size_t k = 0; k < labels.colours.size(); k++)
    for (int c = 0; c < 3; c++) result.mutable_at(k, c) = static_cast<std::uint8_t>(labels.colours[k](c));
  return result;
}

// A file the library could not read or write; it has printed the reason.
[[noreturn]] void fileFailure(const std::string& aWhat, const std::string& aPath) {
  PyErr_SetString(PyExc_OSError,
                  ("tarnwick: cannot " + aWhat + " " + aPath + " (the reason is printed on standard error)").c_str());
  throw py::error_already_set();
}

py::array_t<std::uint8_t> readImage(const std::string& aPath, bool aExact) {
  CTensor<float> image;
  try {
    image = NImageFile::read(aPath, aExact ? NImageFile::EContent::ExactColours : NImageFile::EContent::Photo);
  } catch (const ETarnwickError&) {
    fileFailure("read", aPath);
  }
  return NPython::byteImage(NColourImage::toColour(image));
}

void writeImage(const std::string& aPath, const py::handle& aImage) {
  const CTensor<float> image = NPython::colourImage(aImage, "image");
  const bool png = aPath.size() >= 4 && aPath.compare(aPath.size() - 4, 4, ".png") == 0;
  try {
    NImageFile::write(aPath, image, png ? NImageFile::EFormat::Png : NImageFile::EFormat::Pixmap);
  } catch (const ETarnwickError&) {
    fileFailure("write", aPath);
  }
}

const char* const kLabelDoc = R"doc(label(image, labels, segmentations=(), alpha=0.3, converged=False) -> (soft, hard)

Turns a sparse labelling of an image into a dense one, exactly as the command
line `tarnwick` does for the same pixels.

image          HxWx3 or HxW (grey) uint8 array.
labels         HxW integer array: -1 unlabelled, 0 .. L-1 a label; or an HxWx3
               uint8 colour label image: white unlabelled, every other colour a
               label, numbered by first appearance in row order (as the command
               line numbers them; label_colours() lists them).
segmentations  sequence of superpixel segmentations, fine to coarse: HxW
               integer region maps (such as segment() returns) or HxWx3 uint8
               colour-coded images (such as tarnwick-segment writes).
alpha          weight of the labelled pixels against smoothness, 0 <= alpha < 1.
converged      solve to convergence with the labelled pixels fixed instead of
               the coarse-to-fine relaxation (as `tarnwick --converged`);
               alpha is not used then.

Returns soft, an HxWxL float32 array of label degrees, and hard, an HxW int32
array with the strongest label of every pixel (ties to the lowest; -1 where a
pixel has no degree at all). Raises TypeError or ValueError for bad arguments.
The computation runs without the global interpreter lock.)doc";

const char* const kSegmentDoc = R"doc(segment(image, k, regions=None) -> list of k arrays

Nested superpixel segmentations of an image, fine to coarse, the same regions
as `tarnwick-segment IMAGE k` makes.

image    HxWx3 or HxW (grey) uint8 array.
k        number of levels, 0 to 10.
regions  region count per level, fine to coarse, each at most 0.8 times the
         one before (1 may follow 1); by default pixels/500 for the finest,
         pixels/3000 for the coarsest level and geometric steps between.

Returns k HxW int32 region maps; regions are numbered 0, 1, ... in row order
of their first pixel, are 4-connected, and every region of a level is a union
of regions of the level before. Runs without the global interpreter lock.)doc";

const char* const kColourizeDoc = R"doc(colourize(degrees, colours=None) -> HxWx3 uint8 array

Paints a labelling as the result files of the command line: every pixel in the
sum of the label colours weighted by its degrees.

degrees  HxWxL float array (the soft result) or HxW integer label numbers
         (the hard result; -1, a pixel without label, is painted black).
colours  Lx3 uint8 array with the colour of every label, e.g. label_colours()
         of the scribbles; by default the fixed palette of track labels.

colourize(soft, label_colours(scribbles)) equals the file NAME_dense_soft and
colourize(hard, label_colours(scribbles)) the file NAME_dense.)doc";

const char* const kReadImageDoc = R"doc(read_image(path, exact=False) -> HxWx3 uint8 array

An image file as the command line reads it: a binary pixmap, PNG or JPEG,
told apart by the file's content; grey is repeated into three channels, alpha
dropped, 16-bit samples scaled to 0..255 and truncated to bytes. exact=True
refuses JPEG files, as the tools do for label and segmentation images (lossy
compression invents colours). Raises OSError when the file cannot be read.)doc";

const char* const kWriteImageDoc = R"doc(write_image(path, image)

Writes an HxWx3 (or HxW grey) uint8 array atomically, as PNG when the path
ends in ".png" and as a binary pixmap otherwise. Raises OSError when that
fails.)doc";

const char* const kLabelColoursDoc = R"doc(label_colours(labels) -> Lx3 uint8 array

The colours of an HxWx3 uint8 colour label image in the order label() numbers
them: first appearance in row order, white excluded.)doc";

}  // namespace

PYBIND11_MODULE(tarnwick, aModule) {
  aModule.doc() = "Dense labelling of an image from a few labelled pixels over a superpixel hierarchy, on numpy arrays.";
  aModule.def("label", &label, kLabelDoc, py::arg("image"), py::arg("labels"), py::arg("segmentations") = py::tuple(),
              py::arg("alpha") = 0.3, py::arg("converged") = false);
  aModule.def("segment", &segment, kSegmentDoc, py::arg("image"), py::arg("k"), py::arg("regions") = py::none());
  aModule.def("colourize", &colourize, kColourizeDoc, py::arg("degrees"), py::arg("colours") = py::none());
  aModule.def("label_colours", &labelColours, kLabelColoursDoc, py::arg("labels"));
  aModule.def("read_image", &readImage, kReadImageDoc, py::arg("path"), py::arg("exact") = false);
  aModule.def("write_image", &writeImage, kWriteImageDoc, py::arg("path"), py::arg("image"));
}
