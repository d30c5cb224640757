#include "Converged.h"

#include <omp.h>

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
  const CMultilevelSolver solver(std::move(system.mMatrix));
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const int n = width * height;
  CTensor<float> result(width, height, aLabelCount, 0.0f);
  float* out = result.data();
  for (int i = 0; i < n; i++)
    if (system.mUnknownOfPixel[static_cast<size_t>(i)] < 0) out[i + static_cast<size_t>(aLabelOf.data()[i]) * n] = 1.0f;
  // Every label is solved on its own, so sharing them out among the threads
  // in contiguous groups leaves each label's bits as they are; each group
  // writes the planes of its own labels.
  const int groups = std::max(1, std::min(aLabelCount, omp_get_max_threads()));
  std::vector<CSolveResult> results(static_cast<size_t>(groups));
#pragma omp parallel for schedule(static, 1)
  for (int g = 0; g < groups; g++) {
    const int first = g * aLabelCount / groups;
    const int columns = (g + 1) * aLabelCount / groups - first;
    std::vector<float> rhs(static_cast<size_t>(unknowns) * columns);
    for (int i = 0; i < unknowns; i++)
      for (int c = 0; c < columns; c++)
        rhs[static_cast<size_t>(i) * columns + c] = system.mRhs[static_cast<size_t>(i) * aLabelCount + first + c];
    std::vector<float> x(rhs.size());
    results[static_cast<size_t>(g)] =
        solver.solve(rhs.data(), x.data(), columns, aParameters.mTolerance, aParameters.mMaxIterations);
    for (int i = 0; i < n; i++) {
      const int unknown = system.mUnknownOfPixel[static_cast<size_t>(i)];
      if (unknown < 0) continue;
      // The exact solution lies in [0, 1]; the iteration may overshoot by its tolerance.
      for (int c = 0; c < columns; c++)
        out[i + static_cast<size_t>(first + c) * n] = std::clamp(x[static_cast<size_t>(unknown) * columns + c], 0.0f, 1.0f);
    }
  }
  if (aReport != nullptr) {
    aReport->mUnknowns = unknowns;
    aReport->mLevels = solver.levelCount();
    aReport->mIterations = 0;
    aReport->mLargestError = 0;
    for (const CSolveResult& entry : results) {
      aReport->mIterations = std::max(aReport->mIterations, entry.mIterations);
      aReport->mLargestError = std::max(aReport->mLargestError, entry.mLargestError);
    }
  }
  return result;
}

}  // namespace NConverged
