// The flat solver's Gauss-Seidel passes for the labels of one chunk.
#include "CFlatHierarchy.h"
#include "flat/FlatKernels.h"
#include "simd/CLanes.h"

using NSimd::CLanes4;

// Each pixel reads the new degrees of the pixels before it and the old ones of
// the pixels after it and of its parent. With a team of several threads the
// pass is shared, aMember doing its bands of rows, and aPass counts from 1.
void CFlatHierarchy::sweepPixels(int aChunk, float aAlpha, float aOmega, bool aProjectFirst, int aMember, int aTeam,
                                 long long aPass) {
  CLayer& pixels = mLayers[0];
  const NFlat::CProjection projection = projectionOf(pixels);
  const bool hasParent = size() > 1;
  const NFlat::CPixelSweep sweep{mXSize,
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
                                 aProjectFirst ? &projection : nullptr};
  mKernels->sweepPixels(sweep);
}

// A coarser layer, each node's links four at a time (padded with links of
// weight 0 to the zero slot). Layer 1 gathers its children's degrees from all
// over the pixel layer, in runs too short for the hardware to prefetch: at
// large sizes they come from memory, so the sweep asks for them a fixed number
// of links ahead.
void CFlatHierarchy::sweepLayer(int aLayer, int aChunk, float aOmega) {
  if (aLayer == 1)
    sweepLinks<true>(aLayer, aChunk, aOmega);
  else
    sweepLinks<false>(aLayer, aChunk, aOmega);
}

template <bool kPrefetch>
void CFlatHierarchy::sweepLinks(int aLayer, int aChunk, float aOmega) {
  CLayer& layer = mLayers[aLayer];
  const float* values = chunk(aChunk);
  float* u = chunk(aChunk) + layer.base;
  const uint32_t* offset = layer.entryOffset.data();
  const float* g = layer.entryG.data();
  const CLanes4 oneMinusOmega = CLanes4::splat(1.0f - aOmega);
  const bool check = anyZeroWeightSum(aLayer);
  auto link = [&](CLanes4 aOut, int j) {
    if (kPrefetch) __builtin_prefetch(values + offset[j + kPrefetchLinks]);
    return aOut - CLanes4::splat(g[j]) * CLanes4::load(values + offset[j]);
  };
  for (int p = 0; p < layer.nodes; p++) {
    CLanes4 out = CLanes4::zero();
    for (int j = layer.entryStart[p]; j < layer.entryStart[p + 1]; j += 4)
      out = link(link(link(link(out, j), j + 1), j + 2), j + 3);
    if (check && layer.md[p] == 0.0f) continue;
    const CLanes4 old = CLanes4::load(u + 4 * p);
    const CLanes4 step = CLanes4::splat(layer.omegaOverMd[p]) * (CLanes4::zero() - out);
    const CLanes4 relaxed = oneMinusOmega * old + step;
    CLanes4::min(CLanes4::splat(1.0f), CLanes4::max(CLanes4::zero(), relaxed)).store(u + 4 * p);
  }
}
