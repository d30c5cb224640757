// The flat solver's projection of every node's degrees onto the simplex.
#include <algorithm>
#include <atomic>

#include "CFlatHierarchy.h"
#include "SameBits.h"
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

NFlat::CProjection CFlatHierarchy::projectionOf(CLayer& aLayer) {
  return {chunk(0) + aLayer.base, mChunkStride, mChunks, mLanes, mLabels, mLaneIndex.data()};
}

// Every layer's whole quads of nodes in blocks that the threads take in turn
// from aTicket (0 at the start): how long a node takes depends on its degrees,
// so fixed shares would keep one thread waiting for the other. Every node's
// result is the same whoever projects it. The nodes beyond the last quad go
// one at a time, each layer's by one thread.
void CFlatHierarchy::normalizeShare(int aThread, int aThreads, bool aPixelsLater, std::atomic<int>& aTicket) {
  constexpr int kBlockQuads = 256;
  const int first = aPixelsLater ? 1 : 0;
  for (;;) {
    int block = aTicket.fetch_add(1, std::memory_order_relaxed);
    int l = first;
    for (; l < size(); l++) {
      const int blocks = (mLayers[l].nodes / 4 + kBlockQuads - 1) / kBlockQuads;
      if (block < blocks) break;
      block -= blocks;
    }
    if (l == size()) break;
    const int quads = mLayers[l].nodes / 4;
    mKernels->project(projectionOf(mLayers[l]), block * kBlockQuads, std::min(quads, (block + 1) * kBlockQuads));
  }
  for (int l = 0; l < size(); l++)
    if (l % aThreads == aThread)
      for (int p = mLayers[l].nodes / 4 * 4; p < mLayers[l].nodes; p++) normalizeNode(mLayers[l], p);
}
