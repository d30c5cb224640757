#include "Converged.h"

#include <algorithm>
#include <utility>

#include "CMultilevelSolver.h"
#include "LabelSystem.h"

namespace NConverged {

CTensor<float> solveConverged(const CTensor<float>& aImage, const std::vector<CTensor<float>>& aSegmentations,
                              const CMatrix<int>& aLabelOf, int aLabelCount, const CConvergedParameters& aParameters,
                              CConvergedReport* aReport) {
  CLabelSystem system = buildLabelSystem(aImage, aSegmentations, aLabelOf, aLabelCount, aParameters);
  const int unknowns = system.mMatrix.nodeCount();
  // The solver keeps the only copy of the matrix.
  const CMultilevelSolver solver(std::move(system.mMatrix), aParameters.mBlockSize);
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const int n = width * height;
  std::vector<float> x(system.mRhs.size());
  const CSolveResult solved =
      solver.solve(std::move(system.mRhs), x.data(), aLabelCount, aParameters.mTolerance, aParameters.mMaxIterations);
  CTensor<float> result(width, height, aLabelCount, 0.0f);
  float* out = result.data();
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++) {
    const int unknown = system.mUnknownOfPixel[static_cast<size_t>(i)];
    if (unknown < 0) {
      out[i + static_cast<size_t>(aLabelOf.data()[i]) * n] = 1.0f;
      continue;
    }
    // The exact solution lies in [0, 1]; the iteration may overshoot by its tolerance.
    for (int l = 0; l < aLabelCount; l++)
      out[i + static_cast<size_t>(l) * n] = std::clamp(x[static_cast<size_t>(unknown) * aLabelCount + l], 0.0f, 1.0f);
  }
  if (aReport != nullptr) {
    aReport->mUnknowns = unknowns;
    aReport->mLevels = solver.levelCount();
    aReport->mIterations = solved.mIterations;
    aReport->mLargestError = solved.mLargestError;
  }
  return result;
}

}  // namespace NConverged
