// The flat solver's Gauss-Seidel passes for the labels of one chunk.
#include "CFlatHierarchy.h"
#include "flat/FlatKernels.h"
#include "simd/CLanes.h"

using NSimd::CLanes4;

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

// A coarser layer, each node's links four at a time (padded with links of
// weight 0 to the zero slot), for one chunk or two. Every node's update is a
// chain of dependent subtractions whose order the rounding fixes; the chains
// of two chunks are independent and overlap. Layer 1 gathers its children's
// degrees from all over the pixel layer, in runs too short for the hardware
// to prefetch: at large sizes they come from memory, so the sweep asks for
// them a fixed number of links ahead.
void CFlatHierarchy::sweepLayer(int aLayer, int aChunk, int aSecondChunk, float aOmega) {
  if (aSecondChunk < 0) {
    const int chunks[1] = {aChunk};
    aLayer == 1 ? sweepLinks<true, 1>(aLayer, chunks, aOmega) : sweepLinks<false, 1>(aLayer, chunks, aOmega);
  } else {
    const int chunks[2] = {aChunk, aSecondChunk};
    aLayer == 1 ? sweepLinks<true, 2>(aLayer, chunks, aOmega) : sweepLinks<false, 2>(aLayer, chunks, aOmega);
  }
}

template <bool kPrefetch, int kChunks>
void CFlatHierarchy::sweepLinks(int aLayer, const int* aChunks, float aOmega) {
  CLayer& layer = mLayers[aLayer];
  const float* values[kChunks];
  float* u[kChunks];
  for (int c = 0; c < kChunks; c++) {
    values[c] = chunk(aChunks[c]);
    u[c] = chunk(aChunks[c]) + layer.base;
  }
  const uint32_t* offset = layer.entryOffset.data();
  const float* g = layer.entryG.data();
  const CLanes4 oneMinusOmega = CLanes4::splat(1.0f - aOmega);
  const bool check = anyZeroWeightSum(aLayer);
  for (int p = 0; p < layer.nodes; p++) {
    CLanes4 out[kChunks];
    for (int c = 0; c < kChunks; c++) out[c] = CLanes4::zero();
    for (int j = layer.entryStart[p]; j < layer.entryStart[p + 1]; j += 4)
      for (int k = j; k < j + 4; k++) {
        const CLanes4 weight = CLanes4::splat(g[k]);
        for (int c = 0; c < kChunks; c++) {
          if (kPrefetch) __builtin_prefetch(values[c] + offset[k + kPrefetchLinks]);
          out[c] = out[c] - weight * CLanes4::load(values[c] + offset[k]);
        }
      }
    if (check && layer.md[p] == 0.0f) continue;
    const CLanes4 omegaOverMd = CLanes4::splat(layer.omegaOverMd[p]);
    for (int c = 0; c < kChunks; c++) {
      const CLanes4 old = CLanes4::load(u[c] + 4 * p);
      const CLanes4 step = omegaOverMd * (CLanes4::zero() - out[c]);
      const CLanes4 relaxed = oneMinusOmega * old + step;
      CLanes4::min(CLanes4::splat(1.0f), CLanes4::max(CLanes4::zero(), relaxed)).store(u[c] + 4 * p);
    }
  }
}
