// Size checks of the label utilities: each throws ETensorIncompatibleSize
// (which prints its message) when a container is too small for a loop.
#pragma once

#include "CMatrix.h"
#include "CTensor.h"

namespace NTensorChecks {

inline void requireLayers(const CTensor<float>& aTensor, int aLayers) {
  if (aTensor.zSize() < aLayers) throw ETensorIncompatibleSize(aTensor.xSize(), aTensor.ySize(), aTensor.zSize());
}

// A container of aXSize by aYSize must offer at least the pixels the loop visits.
inline void requireCovers(int aXSize, int aYSize, int aNeededX, int aNeededY) {
  if (aXSize < aNeededX || aYSize < aNeededY) throw ETensorIncompatibleSize(aXSize, aYSize, aNeededX, aNeededY);
}

inline void requireSameExtents(const CMatrix<float>& aResult, int aXSize, int aYSize) {
  if (aResult.xSize() != aXSize || aResult.ySize() != aYSize)
    throw ETensorIncompatibleSize(aResult.xSize(), aResult.ySize(), aXSize, aYSize);
}

}  // namespace NTensorChecks
