// Label utilities: colour coding of labels, the track file reader, the
// Euclidean distance transform, rendering of label functions, discrete
// gradient and divergence operators, file-name helpers and pixel picking.
#pragma once

#include <iostream>
#include <string>
#include <vector>

#include "CErrors.h"
#include "CMatrix.h"
#include "CTensor.h"
#include "CVector.h"

// A colour list (or the palette) with fewer colours than the label function
// has labels.
class EMissingLabelColors : public ETarnwickError {
public:
  EMissingLabelColors(int aColors, int aLabels) {
    std::cerr << "Exception EMissingLabelColors: " << aColors << " colours for " << aLabels << " labels"
              << std::endl;
  }
};

class CUtility {
public:
  CUtility() = delete;

  // Fixed palette for labels without a colour list; mGray is unused.
  static const int mR[40];
  static const int mG[40];
  static const int mB[40];
  static const int mGray[40];
  // Number of labels paletteColor knows: the 40 fixed ones and 216 more.
  static constexpr int mPaletteSize = 256;

  // Colour of aLabel (0 .. mPaletteSize - 1): mR/mG/mB for 0 .. 39, beyond that
  // further colours distinct from each other, from the fixed ones and from white.
  static void paletteColor(int aLabel, int& aR, int& aG, int& aB);

  // Appends every colour of the image not yet in the list, except white, in
  // row order of first appearance; returns the list's size.
  static int getNumberOfLabels(const CTensor<float>& aInputColor, std::vector<CVector<int>>& mapLabelToColor);
  // Resizes aLabelFunction to the image and one layer per label; 1 where the
  // pixel carries the label, 0 elsewhere. Returns the number of labels.
  static int color2labelFunction(CTensor<float>& aLabelFunction, const CTensor<float>& aInputColor,
                                 std::vector<CVector<int>>& mapLabelToColor);
  // Paints layers 0 to 2 of aOutputColor (sized by the caller) with the
  // degree-weighted label colours; white where the pixel has no label mass.
  static void labelFunction2color(const CTensor<float>& aLabelFunction, CTensor<float>& aOutputColor,
                                  const std::vector<CVector<int>>& mapLabelToColor);

  // Paints the points of frame aFrame into aLabelColor in palette colours.
  // Returns false (and says so on standard output) when the file cannot be
  // opened; throws EFileError for malformed files and out-of-image points.
  static bool readTracks(const char* aFilename, int aFrame, CTensor<float>& aLabelColor);

  // aComputed (resized) = 1 + Euclidean distance to the nearest pixel on a
  // boundary between differing truncated values of any layer.
  static void euclideanDistanceTransform(const CTensor<float>& aTensor, CMatrix<float>& aComputed);
  // One-dimensional squared distance transform of the first n values of f;
  // d is resized to n elements.
  static void dt(const CVector<float>& f, CVector<float>& d, int n);

  // Blends the label colours over aInOut: new = old * (1 - ratio) + ratio * colour.
  static void plotOverlayColor(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction,
                               const std::vector<CVector<int>>& mapLabelToColor, float ratio);
  // The same with the palette colours.
  static void plotOverlayColor(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction, float ratio);
  // 1 where some label has degree exactly 1, else 0; no labels leave it unwritten.
  static void labelFunction2confidenceMask(const CTensor<float>& aLabelFunction, CMatrix<float>& aConfidenceMask);
  // Stores the label colours (unblended) where the mask is exactly 1.
  static void plotSparseLabels(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction,
                               const CMatrix<float>& aConfidenceMask,
                               const std::vector<CVector<int>>& mapLabelToColor);
  // Fills the square of half side r around (ix, iy), clipped to the image.
  static void putRectangle(CTensor<float>& aTensor, int ix, int iy, int mr, int mg, int mb, int r);

  // Ending of *in from its last '.' anywhere in the path; empty without a dot.
  static void getEnding(const std::string* in, std::string* end);
  // Splits *in into folder (with '/', "./" if none), base name and ending;
  // fileName may alias in. Throws std::out_of_range("basic_string::erase")
  // when the file part has no dot.
  static void decomposeFileName(const std::string* in, std::string* path, std::string* fileName,
                                std::string* end);

  // aImg(x, y, z) = aImg_o(x * k, y * k, z) over the extents of aImg.
  static void downsample_fac(CTensor<float>& aImg, const CTensor<float>& aImg_o, int k);

  // Toolbox the labelling run does not call (lib/toolbox/Differences.cpp,
  // Overlay.cpp).
  // Forward differences (zero in the last column/row) and the backward
  // divergence, their negative adjoint; results are sized by the caller.
  static void getGrad_forwardx(const CMatrix<float>& aMatrix, CMatrix<float>& aResultX);
  static void getGrad_forwardy(const CMatrix<float>& aMatrix, CMatrix<float>& aResultY);
  static void getDiv_backwardx(const CMatrix<float>& aMatrix, CMatrix<float>& aResultX);
  static void getDiv_backwardy(const CMatrix<float>& aMatrix, CMatrix<float>& aResultY);
  static void getGrad_forwardx(const CTensor<float>& aTensor, CMatrix<float>& aResultX, int z);
  static void getGrad_forwardy(const CTensor<float>& aTensor, CMatrix<float>& aResultY, int z);
  static void getDiv_backwardx(const CTensor<float>& aTensor, CMatrix<float>& aResultX, int z);
  static void getDiv_backwardy(const CTensor<float>& aTensor, CMatrix<float>& aResultY, int z);
  // Forward differences summed over the layers, in layer order.
  static void getGradient(const CTensor<float>& aTensor, CMatrix<float>& aResultX, CMatrix<float>& aResultY);
  // Blends aIn over every layer of aInOut.
  static void plotOverlay(CTensor<float>& aInOut, const CTensor<float>& aIn, float ratio);
};
