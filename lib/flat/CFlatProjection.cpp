// The flat solver's projection of every node's degrees onto the simplex.
#include <algorithm>

#include "CFlatHierarchy.h"
#include "SameBits.h"
#include "flat/CShare.h"
#include "flat/FlatKernels.h"

// One node, as the layers' normalize does it: rounds of thresholding, one per
// label. A round whose threshold equals the previous one to the bit selects
// the same degrees again, so all later rounds repeat it and are skipped.
void CFlatHierarchy::normalizeNode(const CLayer& aLayer, int aNode) {
  float* base = mValues.data() + aLayer.base + static_cast<size_t>(aNode) * 4;
  const size_t* offset = mLabelOffset.data();
  float mu = -1e10f;
  for (int round = 0; round < mLabels; round++) {
    float sum = 0.0f;
    float count = 0.0f;
    for (int i = 0; i < mLabels; i++)
      if (base[offset[i]] > mu) {
        sum += base[offset[i]];
        count += 1.0f;
      }
    const float next = (sum - 1.0f) / count;
    const bool settled = sameBits(next, mu);
    mu = next;
    if (settled) break;
  }
  for (int i = 0; i < mLabels; i++) base[offset[i]] = std::max(base[offset[i]] - mu, 0.0f);
}

// One thread's share of every layer's nodes, four at a time or more; the
// nodes beyond the last four one at a time, each layer's by one thread.
NFlat::CProjection CFlatHierarchy::projectionOf(CLayer& aLayer) {
  return {chunk(0) + aLayer.base, mChunkStride, mChunks, mLanes, mLabels, mLaneIndex.data()};
}

void CFlatHierarchy::normalizeShare(int aThread, int aThreads, bool aPixelsLater) {
  for (int l = 0; l < size(); l++) {
    CLayer& layer = mLayers[l];
    const int quads = layer.nodes / 4;
    const NFlat::CShare mine = NFlat::share(quads, aThread, aThreads);
    if (l > 0 || !aPixelsLater) mKernels->project(projectionOf(layer), mine.begin, mine.end);
    if (l % aThreads == aThread)
      for (int p = 4 * quads; p < layer.nodes; p++) normalizeNode(layer, p);
  }
}
