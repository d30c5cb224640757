// The flat solver's weights, fixed through the inner iterations of one outer
// iteration: the value-dependent weights from the current degrees, then the
// edge products, weight sums and over-relaxation factors.
#include <algorithm>

#include "CFlatHierarchy.h"
#include "CSuperpixelLayer.h"
#include "flat/CShare.h"
#include "flat/FlatKernels.h"

using NFlat::CShare;
using NFlat::share;

// The pixel edges' value-dependent weights of the rows [aFirstRow, aEndRow).
// Grids too small for the three-tap derivative's plain interior take the
// literal path (on the first share only).
void CFlatHierarchy::computePixelVariableWeights(int aFirstRow, int aEndRow) {
  const int width = mXSize;
  const int height = mYSize;
  if (width < 3 || height < 3) {
    if (aFirstRow > 0 || aEndRow == aFirstRow) return;
    CTensor<float> degrees(width, height, mLabels);
    convertToImage(degrees);
    CMatrix<float> gx(width, height);
    CMatrix<float> gy(width, height);
    CSuperpixelLayer::diffusivities_fl(degrees, gx, gy);
    std::copy(gx.data(), gx.data() + width * height, mVarX.begin());
    std::copy(gy.data(), gy.data() + width * height, mVarY.begin());
    return;
  }
  const NFlat::CPixelPlanes planes{chunk(0) + mLayers[0].base, mChunkStride, mChunks, mLanes, mLabels,
                                   width, height, mVarX.data(), mVarY.data()};
  mKernels->pixelWeights(planes, aFirstRow, aEndRow);
}

// The value-dependent weights of one thread's share: pixel edges, then per
// coarser layer its neighbour pairs and its children's edges to it.
void CFlatHierarchy::computeVariableWeights(int aThread, int aThreads) {
  const CShare rows = share(mYSize, aThread, aThreads);
  computePixelVariableWeights(rows.begin, rows.end);
  for (int l = 1; l < size(); l++) {
    CLayer& layer = mLayers[l];
    CLayer& finer = mLayers[l - 1];
    const NFlat::CNodePairs pairs{chunk(0), mChunkStride, mChunks, mLanes, mLabels,
                                  layer.pairNodes.data(), 2, layer.base,
                                  layer.pairNodes.data() + 1, 2, layer.base, layer.pairVar.data()};
    const CShare myPairs = share(static_cast<int>(layer.pairVar.size()), aThread, aThreads);
    mKernels->nodePairWeights(pairs, myPairs.begin, myPairs.end);
    const NFlat::CNodePairs children{chunk(0), mChunkStride, mChunks, mLanes, mLabels,
                                     finer.parent.data(), 1, layer.base,
                                     nullptr, 1, finer.base, finer.parentVar.data()};
    const CShare myChildren = share(finer.nodes, aThread, aThreads);
    mKernels->nodePairWeights(children, myChildren.begin, myChildren.end);
  }
}

// The edge products, each node's weight sum in the order of its lists
// (pixels: up, left, down, right, parent) and the over-relaxation factor.
void CFlatHierarchy::computeWeightSums(int aThread, int aThreads, float aAlpha, float aOmega) {
  const int width = mXSize;
  const int height = mYSize;
  const float oneMinusAlpha = 1.0f - aAlpha;
  CLayer& pixels = mLayers[0];
  const CShare rows = share(height, aThread, aThreads);
  bool zero = false;
  auto gX = [&](int i) { return mConstX[i] * mVarX[i]; };
  auto gY = [&](int i) { return mConstY[i] * mVarY[i]; };
  for (int y = rows.begin; y < rows.end; y++)
    for (int x = 0; x < width; x++) {
      const int i = y * width + x;
      float* weights = &mPixelWeights[static_cast<size_t>(i) * 4];
      weights[0] = gX(i);
      weights[1] = gY(i);
      weights[2] = pixels.parentConst[i] * pixels.parentVar[i];
      float sum = 0.0f;
      if (y > 0) sum = sum + gY(i - width);
      if (x > 0) sum = sum + gX(i - 1);
      if (y < height - 1) sum = sum + weights[1];
      if (x < width - 1) sum = sum + weights[0];
      sum = sum + weights[2];
      const float md = mDataWeight[i] + oneMinusAlpha * sum;
      pixels.md[i] = md;
      weights[3] = aOmega / md;
      zero = zero || md == 0.0f;
    }
  mZeroWeightSum[aThread] = zero;
  for (int l = 1; l < size(); l++) {
    CLayer& layer = mLayers[l];
    const CLayer& finer = mLayers[l - 1];
    const CShare nodes = share(layer.nodes, aThread, aThreads);
    zero = false;
    const bool hasParent = l + 1 < size();
    for (int p = nodes.begin; p < nodes.end; p++) {
      float sum = 0.0f;
      float* g = layer.entryG.data() + layer.entryStart[layer.position[p]];
      for (int j = layer.nbrStart[p]; j < layer.nbrStart[p + 1]; j++) {
        *g = layer.nbrConst[j] * layer.pairVar[layer.nbrPair[j]];
        sum = sum + *g++;
      }
      for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
        *g = layer.childConst[j] * finer.parentVar[layer.child[j]];
        sum = sum + *g++;
      }
      const float parentG = layer.parentConst[p] * layer.parentVar[p];
      if (hasParent) *g = parentG;
      sum = sum + parentG;
      layer.md[p] = sum;
      layer.omegaOverMd[p] = aOmega / sum;
      zero = zero || sum == 0.0f;
    }
    mZeroWeightSum[l * aThreads + aThread] = zero;
  }
}
