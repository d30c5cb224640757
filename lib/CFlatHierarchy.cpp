#include "CFlatHierarchy.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "CErrors.h"
#include "CHierarchy.h"
#include "CMemoryBudget.h"
#include "CSuperpixelLayer.h"
#include "SolverRules.h"

// Building the flat hierarchy: nodes, links and constant weights of every
// layer, and the degrees' layout. The solve is in flat/CFlatSolve.cpp.

namespace {

// diffusivity() of two colour vectors of aImageA and aImageB at two pixels.
float colourDiffusivity(const CTensor<float>& aImageA, int aPixelA, const CTensor<float>& aImageB, int aPixelB) {
  const int width = aImageA.xSize();
  float sum = 0.0f;
  for (int k = 0; k < aImageA.zSize(); k++) {
    const float d = aImageA(aPixelA % width, aPixelA / width, k) - aImageB(aPixelB % width, aPixelB / width, k);
    sum += d * d;
  }
  return CSuperpixelLayer::diffusivity_fl(sum);
}

}  // namespace

namespace {

std::vector<const CTensor<float>*> addresses(const std::vector<CTensor<float>>& aTensors) {
  std::vector<const CTensor<float>*> result;
  for (const CTensor<float>& tensor : aTensors) result.push_back(&tensor);
  return result;
}

}  // namespace

CFlatHierarchy::CFlatHierarchy(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs)
    : CFlatHierarchy(aImg, addresses(aSegs)) {}

CFlatHierarchy::CFlatHierarchy(const CTensor<float>& aImg, const std::vector<const CTensor<float>*>& aSegs)
    : mXSize(aImg.xSize()), mYSize(aImg.ySize()), mLabels(aImg.zSize()) {
  if (aSegs.empty()) throw CHierarchy::EMissingLayers(0);
  mDistRelaxation = NSolverRules::distanceRelaxation(mXSize, mYSize);
  // Enough chunks to keep every thread busy, at most four labels each.
  const int threads = std::max(1, omp_get_max_threads());
  const int wanted = std::max((mLabels + 3) / 4, std::min(threads, mLabels));
  mLanes = std::max(1, (mLabels + wanted - 1) / std::max(wanted, 1));
  mChunks = (mLabels + mLanes - 1) / mLanes;
  mLaneIndex.resize(mLabels);
  for (int k = 0; k < mLabels; k++) mLaneIndex[k] = 4 * (k / mLanes) + k % mLanes;
  mLayers.resize(aSegs.size());
  buildPixelLayer(*aSegs[0]);
  for (size_t k = 1; k < aSegs.size(); k++) buildCoarserLayer(static_cast<int>(k), *aSegs[k], *aSegs[k - 1]);
  allocateValues(aImg);
  for (int l = 1; l < size(); l++) buildEntries(l);
}

namespace {

template <class... V>
size_t bytesOf(const V&... aVectors) {
  return ((aVectors.capacity() * sizeof(typename V::value_type)) + ...);
}

}  // namespace

size_t CFlatHierarchy::bytes() const {
  size_t total = bytesOf(mValues, mConstX, mConstY, mVarX, mVarY, mPixelWeights, mDataWeight, mRhs, mRhsQuad);
  for (const CLayer& l : mLayers)
    total += bytesOf(l.x, l.y, l.firstLeaf, l.parent, l.parentConst, l.parentVar, l.childStart, l.child, l.childConst,
                     l.nbrStart, l.nbr, l.nbrDist, l.nbrConst, l.nbrPair, l.pairNodes, l.pairVar, l.md,
                     l.omegaOverMd, l.order, l.position, l.entryStart, l.entryOffset, l.entryG);
  return total;
}

float CFlatHierarchy::value(int aLayer, int aNode, int aLabel) const {
  return mValues[slot(mLayers[aLayer], aNode, aLabel)];
}

void CFlatHierarchy::allocateNodeArrays(CLayer& aLayer) {
  const int n = aLayer.nodes;
  aLayer.parent.assign(n, -1);
  aLayer.parentConst.assign(n, 0.0f);
  aLayer.parentVar.assign(n, 0.0f);
  aLayer.md.assign(n, 0.0f);
  aLayer.omegaOverMd.assign(n, 0.0f);
}

// The degrees of all layers, chunk after chunk; every coarser node starts at
// 1 / labels, the pixels at aImg. A zero slot closes every chunk.
void CFlatHierarchy::allocateValues(const CTensor<float>& aImg) {
  size_t offset = 0;
  for (CLayer& layer : mLayers) {
    layer.base = offset;
    offset += static_cast<size_t>(layer.nodes) * 4;
  }
  mZeroSlot = offset;
  mChunkStride = offset + 4;
  // The link lists address a chunk with 32-bit offsets.
  if (mChunkStride > std::numeric_limits<uint32_t>::max()) throw std::length_error("image too large for the solver");
  NFlat::fillInParallel(mValues, mChunkStride * mChunks, 0.0f);
  mLabelOffset.resize(mLabels);
  for (int k = 0; k < mLabels; k++)
    mLabelOffset[k] = static_cast<size_t>(k / mLanes) * mChunkStride + static_cast<size_t>(k % mLanes);
  const int pixels = mLayers[0].nodes;
#pragma omp parallel for schedule(static)
  for (int i = 0; i < pixels; i++)
    for (int k = 0; k < mLabels; k++) mValues[slot(mLayers[0], i, k)] = aImg.data()[static_cast<size_t>(k) * pixels + i];
  for (int l = 1; l < size(); l++)
    for (int p = 0; p < mLayers[l].nodes; p++)
      for (int k = 0; k < mLabels; k++) mValues[slot(mLayers[l], p, k)] = 1.0f / static_cast<float>(mLabels);
}

// The order of a layer's sweep, in slots of two nodes whose updates do not
// read each other and so may overlap (the second -1 when alone). Of two
// linked nodes the later one reads the earlier one's new degrees and the
// earlier one the later one's old degrees, so the earlier one must go first;
// any order that keeps that for every link gives the same bits. Each slot
// takes the first node not yet swept and, as its partner, the first node
// within a short window after it whose earlier linked nodes are all swept:
// the order stays close to the node order, which keeps the children's degrees
// the sweep gathers close together in memory.
void CFlatHierarchy::scheduleSweep(CLayer& aLayer) {
  constexpr int kWindow = 64;
  const int n = aLayer.nodes;
  // Per node the later nodes linked to it (from either node's list), and how
  // many earlier linked nodes are not yet swept.
  std::vector<int> laterStart(n + 1, 0);
  std::vector<int> pending(n, 0);
  for (int p = 0; p < n; p++)
    for (int j = aLayer.nbrStart[p]; j < aLayer.nbrStart[p + 1]; j++) {
      const int r = aLayer.nbr[j];
      if (r == p) continue;
      laterStart[std::min(p, r) + 1]++;
      pending[std::max(p, r)]++;
    }
  for (int p = 0; p < n; p++) laterStart[p + 1] += laterStart[p];
  std::vector<int> later(laterStart[n]);
  std::vector<int> fill(laterStart.begin(), laterStart.end() - 1);
  for (int p = 0; p < n; p++)
    for (int j = aLayer.nbrStart[p]; j < aLayer.nbrStart[p + 1]; j++)
      if (aLayer.nbr[j] != p) later[fill[std::min(p, aLayer.nbr[j])]++] = std::max(p, aLayer.nbr[j]);
  std::vector<char> swept(n, 0);
  auto sweep = [&](int p) {
    swept[p] = 1;
    for (int j = laterStart[p]; j < laterStart[p + 1]; j++) pending[later[j]]--;
  };
  aLayer.order.clear();
  for (int first = 0; first < n;) {
    int partner = -1;
    for (int q = first + 1; q < std::min(n, first + 1 + kWindow) && partner < 0; q++)
      if (!swept[q] && pending[q] == 0) partner = q;
    aLayer.order.push_back(first);
    aLayer.order.push_back(partner);
    sweep(first);
    if (partner >= 0) sweep(partner);
    while (first < n && swept[first]) first++;
  }
  aLayer.position.assign(n, 0);
  for (int s = 0; s < static_cast<int>(aLayer.order.size()); s++)
    if (aLayer.order[s] >= 0) aLayer.position[aLayer.order[s]] = s;
}

// The links a coarser node's update walks, in its order: neighbours,
// children, parent; padded to a multiple of four with links of weight 0 to
// the zero slot. The lists follow the sweep order, so that the sweep reads
// them in one stream.
void CFlatHierarchy::buildEntries(int aLayer) {
  CLayer& layer = mLayers[aLayer];
  const CLayer& finer = mLayers[aLayer - 1];
  const bool hasParent = aLayer + 1 < size();
  scheduleSweep(layer);
  const int positions = static_cast<int>(layer.order.size());
  layer.entryStart.assign(positions + 1, 0);
  for (int s = 0; s < positions; s++) {
    const int p = layer.order[s];
    const int links = p < 0 ? 0
                            : layer.nbrStart[p + 1] - layer.nbrStart[p] + layer.childStart[p + 1] -
                                  layer.childStart[p] + (hasParent ? 1 : 0);
    layer.entryStart[s + 1] = layer.entryStart[s] + (links + 3) / 4 * 4;
  }
  NFlat::fillInParallel(layer.entryOffset, layer.entryStart[positions] + kPrefetchLinks, static_cast<uint32_t>(mZeroSlot));
  NFlat::fillInParallel(layer.entryG, layer.entryStart[positions], 0.0f);
  auto at = [](const CLayer& aOwner, int aNode) { return static_cast<uint32_t>(aOwner.base + 4 * static_cast<size_t>(aNode)); };
  for (int s = 0; s < positions; s++) {
    const int p = layer.order[s];
    if (p < 0) continue;
    int e = layer.entryStart[s];
    for (int j = layer.nbrStart[p]; j < layer.nbrStart[p + 1]; j++) layer.entryOffset[e++] = at(layer, layer.nbr[j]);
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) layer.entryOffset[e++] = at(finer, layer.child[j]);
    if (hasParent) layer.entryOffset[e] = at(mLayers[aLayer + 1], layer.parent[p]);
  }
}

void CFlatHierarchy::buildPixelLayer(const CTensor<float>& aImage) {
  CLayer& layer = mLayers[0];
  const int n = mXSize * mYSize;
  layer.nodes = n;
  allocateNodeArrays(layer);
  layer.omegaOverMd = {};  // a pixel's is among its weights
  CMatrix<float> gx(mXSize, mYSize);
  CMatrix<float> gy(mXSize, mYSize);
  CSuperpixelLayer::diffusivities_fl(aImage, gx, gy);
  mConstX.assign(gx.data(), gx.data() + n);
  mConstY.assign(gy.data(), gy.data() + n);
  mVarX.assign(n, 0.0f);
  mVarY.assign(n, 0.0f);
  NFlat::fillInParallel(mPixelWeights, static_cast<size_t>(n) * 4, 0.0f);
}

void CFlatHierarchy::buildCoarserLayer(int aLayer, const CTensor<float>& aSeg, const CTensor<float>& aFinerSeg) {
  if (aSeg.zSize() < 3) throw EFileError("segmentation image", "has fewer than three colour channels");
  CLayer& finer = mLayers[aLayer - 1];
  CLayer& layer = mLayers[aLayer];
  // A pixel is its own first leaf, its centre its coordinates.
  const bool pixels = aLayer == 1;
  auto leafOf = [&](int f) { return pixels ? f : finer.firstLeaf[f]; };
  auto centreX = [&](int f) { return pixels ? static_cast<float>(f % mXSize) : finer.x[f]; };
  auto centreY = [&](int f) { return pixels ? static_cast<float>(f / mXSize) : finer.y[f]; };
  // Nodes in order of first appearance of their colour at the finer nodes' first leaves.
  std::unordered_map<int, int> nodeOfColour;
  int lastKey = -1;
  int lastNode = -1;
  for (int f = 0; f < finer.nodes; f++) {
    const int leaf = leafOf(f);
    const int key = segmentColourKey(aSeg, leaf % mXSize, leaf / mXSize);
    if (key != lastKey) {
      lastNode = nodeOfColour.try_emplace(key, static_cast<int>(nodeOfColour.size())).first->second;
      lastKey = key;
    }
    finer.parent[f] = lastNode;
  }
  const int n = static_cast<int>(nodeOfColour.size());
  layer.nodes = n;
  layer.childStart.assign(n + 1, 0);
  for (int f = 0; f < finer.nodes; f++) layer.childStart[finer.parent[f] + 1]++;
  for (int p = 0; p < n; p++) layer.childStart[p + 1] += layer.childStart[p];
  layer.child.resize(finer.nodes);
  std::vector<int> fillPos(layer.childStart.begin(), layer.childStart.end() - 1);
  for (int f = 0; f < finer.nodes; f++) layer.child[fillPos[finer.parent[f]]++] = f;
  // Centres: unweighted means of the children's centres, summed in child order.
  layer.x.resize(n);
  layer.y.resize(n);
  layer.firstLeaf.resize(n);
  for (int p = 0; p < n; p++) {
    float sumX = 0.0f;
    float sumY = 0.0f;
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
      sumX += centreX(layer.child[j]);
      sumY += centreY(layer.child[j]);
    }
    const float count = static_cast<float>(layer.childStart[p + 1] - layer.childStart[p]);
    layer.x[p] = sumX / count;
    layer.y[p] = sumY / count;
    layer.firstLeaf[p] = leafOf(layer.child[layer.childStart[p]]);
  }
  allocateNodeArrays(layer);

  linkNeighbours(aLayer);

  // Constant weights: colour at the first leaves, spatial factor from the distances.
  layer.nbrConst.resize(layer.nbr.size());
#pragma omp parallel for schedule(dynamic, 64)
  for (int a = 0; a < n; a++)
    for (int j = layer.nbrStart[a]; j < layer.nbrStart[a + 1]; j++) {
      const float dist = layer.nbrDist[j];
      const float spatial = NSolverRules::spatialFactor(dist, mDistRelaxation);
      layer.nbrConst[j] = colourDiffusivity(aSeg, layer.firstLeaf[a], aSeg, layer.firstLeaf[layer.nbr[j]]) * spatial;
    }
  layer.childConst.resize(layer.child.size());
#pragma omp parallel for schedule(dynamic, 64)
  for (int p = 0; p < n; p++) {
    const float count = static_cast<float>(layer.childStart[p + 1] - layer.childStart[p]);
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
      const int c = layer.child[j];
      const float w = colourDiffusivity(aSeg, layer.firstLeaf[p], aFinerSeg, leafOf(c));
      finer.parentConst[c] = w;
      layer.childConst[j] = w * count;
    }
  }
}

CFlatHierarchy::ETooLarge::ETooLarge(int aLayer, int aNodes, int aFinerNodes, long long aLinks, size_t aBytes,
                                     size_t aAvailable)
    : std::runtime_error("superpixel layer " + std::to_string(aLayer) + " would need " +
                         std::to_string(aBytes >> 20) + " MB, more than the " + std::to_string(aAvailable >> 20) +
                         " MB available"),
      layer(aLayer), nodes(aNodes), finerNodes(aFinerNodes), links(aLinks), bytes(aBytes), available(aAvailable) {}

// The links linkNeighbours is about to make, counted before they take any
// memory: a layer that does not shrink or a hub region multiplies them.
void CFlatHierarchy::checkLinkMemory(int aLayer, const std::vector<std::vector<int>>& aAdjacent) const {
  const int n = mLayers[aLayer].nodes;
  std::vector<int> mark(n, -1);
  long long links = 0;
  for (int a = 0; a < n; a++) {
    for (int b : aAdjacent[a]) mark[b] = a;
    links += static_cast<long long>(aAdjacent[a].size());
    for (int b : aAdjacent[a])
      for (int c : aAdjacent[b]) links += (c == a || mark[c] != a) ? 1 : 0;
  }
  const size_t needed = bytes() + static_cast<size_t>(links) * kBytesPerLink;
  const size_t available = NMemoryBudget::available();
  // Link lists are indexed by int as well.
  if (needed > available || links > std::numeric_limits<int>::max() / 2)
    throw ETooLarge(aLayer, n, mLayers[aLayer - 1].nodes, links, needed, available);
}

// Adjacency from the finer layer's links (in their order, first discovery
// first), then the two-step neighbours, the node itself included once per
// adjacent neighbour that lists it back.
void CFlatHierarchy::linkNeighbours(int aLayer) {
  const CLayer& finer = mLayers[aLayer - 1];
  CLayer& layer = mLayers[aLayer];
  const int n = layer.nodes;
  std::vector<std::vector<int>> adjacent(n);
  const std::vector<int>& parent = finer.parent;
  auto link = [&](int p, int q) {
    std::vector<int>& list = adjacent[p];
    if (std::find(list.begin(), list.end(), q) == list.end()) list.push_back(q);
  };
  if (aLayer == 1) {
    // A pixel's neighbours in the order up, left, down, right; most share
    // the pixel's parent.
    for (int y = 0, f = 0; y < mYSize; y++)
      for (int x = 0; x < mXSize; x++, f++) {
        const int p = parent[f];
        if (y > 0 && parent[f - mXSize] != p) link(p, parent[f - mXSize]);
        if (x > 0 && parent[f - 1] != p) link(p, parent[f - 1]);
        if (y < mYSize - 1 && parent[f + mXSize] != p) link(p, parent[f + mXSize]);
        if (x < mXSize - 1 && parent[f + 1] != p) link(p, parent[f + 1]);
      }
  } else {
    for (int f = 0; f < finer.nodes; f++)
      for (int j = finer.nbrStart[f]; j < finer.nbrStart[f + 1]; j++)
        if (parent[finer.nbr[j]] != parent[f]) link(parent[f], parent[finer.nbr[j]]);
  }
  checkLinkMemory(aLayer, adjacent);
  layer.nbrStart.assign(n + 1, 0);
  layer.nbr.clear();
  layer.nbrDist.clear();
  std::vector<int> adjacentTo(n, -1);  // the node whose neighbours are being listed, or -1
  for (int a = 0; a < n; a++) {
    const std::vector<int>& mine = adjacent[a];
    for (int b : mine) {
      layer.nbr.push_back(b);
      layer.nbrDist.push_back(1.0f);
      adjacentTo[b] = a;
    }
    for (int b : mine)
      for (int c : adjacent[b]) {
        if (c != a && adjacentTo[c] == a) continue;
        const float dx = layer.x[c] - layer.x[a];
        const float dy = layer.y[c] - layer.y[a];
        layer.nbr.push_back(c);
        layer.nbrDist.push_back(std::sqrt(dx * dx + dy * dy));
      }
    layer.nbrStart[a + 1] = static_cast<int>(layer.nbr.size());
  }
  numberPairs(layer);
  layer.pairVar.assign(layer.pairNodes.size() / 2, 0.0f);
}

// Every linked pair of nodes once, whichever node lists it and how often
// (its value-dependent weight is the same from both ends), numbered in the
// order the lists first name it. Node a's pairs are known once the nodes
// before it are done: those with an earlier node were handed to it then,
// the others it names first itself, so no map of all pairs is needed.
void CFlatHierarchy::numberPairs(CLayer& aLayer) {
  const int n = aLayer.nodes;
  aLayer.nbrPair.resize(aLayer.nbr.size());
  aLayer.pairNodes.clear();
  std::vector<std::vector<std::pair<int, int>>> handed(n);  // per node: (earlier node, pair)
  std::vector<int> pairWith(n, -1);                          // of the node at hand
  for (int a = 0; a < n; a++) {
    for (const auto& [c, pair] : handed[a]) pairWith[c] = pair;
    for (int j = aLayer.nbrStart[a]; j < aLayer.nbrStart[a + 1]; j++) {
      const int c = aLayer.nbr[j];
      if (pairWith[c] < 0) {
        pairWith[c] = static_cast<int>(aLayer.pairNodes.size() / 2);
        aLayer.pairNodes.push_back(a);
        aLayer.pairNodes.push_back(c);
        if (c > a) handed[c].emplace_back(a, pairWith[c]);
      }
      aLayer.nbrPair[j] = pairWith[c];
    }
    for (const auto& entry : handed[a]) pairWith[entry.first] = -1;
    for (int j = aLayer.nbrStart[a]; j < aLayer.nbrStart[a + 1]; j++) pairWith[aLayer.nbr[j]] = -1;
    std::vector<std::pair<int, int>>().swap(handed[a]);
  }
}

void CFlatHierarchy::distanceFunction(CMatrix<float>& aDistance) const {
  const CLayer& layer = mLayers[1];
  float* data = aDistance.data();
  const int stride = aDistance.xSize();
  auto at = [&](int aPixel) -> float& { return data[aPixel / mXSize * stride + aPixel % mXSize]; };
  for (int p = 0; p < layer.nodes; p++) {
    float mean = 0.0f;
    int counter = 0;
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
      mean += at(layer.child[j]);
      counter++;
    }
    mean /= static_cast<float>(counter);
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
      float& e = at(layer.child[j]);
      e = static_cast<float>((static_cast<double>(e) - 1.0) / static_cast<double>(mean));
    }
  }
}

void CFlatHierarchy::convertToImage(CTensor<float>& aResult) const {
  const CLayer& pixels = mLayers[0];
  const int n = pixels.nodes;
  for (int k = 0; k < aResult.zSize(); k++) {
    float* out = aResult.data() + static_cast<size_t>(k) * n;
    const float* in = mValues.data() + mLabelOffset[k] + pixels.base;
    for (int i = 0; i < n; i++) out[i] = in[static_cast<size_t>(i) * 4];
  }
}
