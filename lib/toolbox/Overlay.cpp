// Toolbox, not called by the labelling run: blending one image over another,
// for pictures of intermediate results.
#include "CUtility.h"
#include "TensorChecks.h"

using NTensorChecks::requireCovers;
using NTensorChecks::requireLayers;

void CUtility::plotOverlay(CTensor<float>& aInOut, const CTensor<float>& aIn, float ratio) {
  requireCovers(aIn.xSize(), aIn.ySize(), aInOut.xSize(), aInOut.ySize());
  requireLayers(aIn, aInOut.zSize());
  const float ratio1 = 1 - ratio;
  const int width = aInOut.xSize();
  const int height = aInOut.ySize();
  const int layers = aInOut.zSize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int z = 0; z < layers; z++)
      for (int x = 0; x < width; x++) aInOut(x, y, z) = aInOut(x, y, z) * ratio1 + ratio * aIn(x, y, z);
}
