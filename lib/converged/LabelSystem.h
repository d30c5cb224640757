// The linear system of the converged labelling: the unknowns are the
// unlabelled pixels and the superpixel regions; labelled pixels are fixed and
// enter the right-hand sides.
#pragma once

#include <vector>

#include "CMatrix.h"
#include "CSparseGraph.h"
#include "CTensor.h"
#include "Converged.h"

namespace NConverged {

struct CLabelSystem {
  CSparseGraph mMatrix;
  std::vector<float> mRhs;             // unknown-major, one value per label
  std::vector<int> mUnknownOfPixel;    // -1 for a labelled pixel
  int mLabelCount = 0;
};

// Builds the system from the image, its segmentations (fine to coarse) and
// the per-pixel labels (-1 unlabelled).
CLabelSystem buildLabelSystem(const CTensor<float>& aImage, const std::vector<CTensor<float>>& aSegmentations,
                              const CMatrix<int>& aLabelOf, int aLabelCount, const CConvergedParameters& aParameters);

}  // namespace NConverged
