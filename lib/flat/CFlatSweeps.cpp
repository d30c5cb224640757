// The flat solver's Gauss-Seidel passes for the labels of one chunk.
#include "CFlatHierarchy.h"
#include "flat/FlatKernels.h"


// Each pixel reads the new degrees of the pixels before it and the old ones of
// the pixels after it and of its parent. With a team of several threads the
// pass is shared, aMember doing its bands of rows, and aPass counts from 1.
// aSecondChunk: a chunk relaxed in the same pass (not in a shared one), or -1.
void CFlatHierarchy::sweepPixels(int aChunk, int aSecondChunk, float aAlpha, float aOmega, bool aProjectFirst,
                                 int aMember, int aTeam, long long aPass) {
  CLayer& pixels = mLayers[0];
  const NFlat::CProjection projection = projectionOf(pixels);
  const bool hasParent = size() > 1;
  NFlat::CPixelSweep sweep{mXSize,
                                 mYSize,
                                 chunk(aChunk) + pixels.base,
                                 mRhs.data() + aChunk * mRhsStride,
                                 mRhsQuad.data(),
                                 mPixelWeights.data(),
                                 hasParent ? pixels.parent.data() : nullptr,
                                 hasParent ? chunk(aChunk) + mLayers[1].base : nullptr,
                                 pixels.md.data(),
                                 1.0f - aAlpha,
                                 1.0f - aOmega,
                                 anyZeroWeightSum(0),
                                 aMember,
                                 aTeam,
                                 mBandProgress.data(),
                                 aPass,
                                 aProjectFirst ? &projection : nullptr,
                                 mKernels->project};
  if (aSecondChunk >= 0) {
    sweep.pairStride = static_cast<ptrdiff_t>(aSecondChunk - aChunk) * static_cast<ptrdiff_t>(mChunkStride);
    sweep.pairRhsStride = static_cast<ptrdiff_t>(aSecondChunk - aChunk) * static_cast<ptrdiff_t>(mRhsStride);
  }
  mKernels->sweepPixels(sweep);
}

// A coarser layer for one chunk or two; layer 1 asks for its children's
// degrees ahead (see FlatKernelsImpl.h).
void CFlatHierarchy::sweepLayer(int aLayer, int aChunk, int aSecondChunk, float aOmega) {
  const CLayer& layer = mLayers[aLayer];
  const int second = aSecondChunk < 0 ? aChunk : aSecondChunk;
  const NFlat::CLayerSweep sweep{{chunk(aChunk), chunk(second)},
                                 {chunk(aChunk) + layer.base, chunk(second) + layer.base},
                                 aSecondChunk < 0 ? 1 : 2,
                                 layer.order.data(),
                                 static_cast<int>(layer.order.size()),
                                 layer.entryStart.data(),
                                 layer.entryOffset.data(),
                                 layer.entryG.data(),
                                 layer.md.data(),
                                 layer.omegaOverMd.data(),
                                 1.0f - aOmega,
                                 anyZeroWeightSum(aLayer),
                                 aLayer == 1 ? kPrefetchLinks : 0};
  mKernels->sweepLayer(sweep);
}
