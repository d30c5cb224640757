#include "CFlatHierarchy.h"

#include <omp.h>
#include <emmintrin.h>
#include <immintrin.h>
#include <xmmintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "CErrors.h"
#include "CHierarchy.h"
#include "CMemoryBudget.h"
#include "CSuperpixelLayer.h"

namespace {

constexpr int kInnerIterations = 10;

// diffusivity_fl of four sums: the shift in float, root and division in double.
__m128 diffusivityOfSums(__m128 aSums) {
  const __m128 shifted = _mm_add_ps(aSums, _mm_set1_ps(mEpsilon));
  const __m128d one = _mm_set1_pd(1.0);
  const __m128d low = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(shifted)));
  const __m128d high = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(_mm_movehl_ps(shifted, shifted))));
  return _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high));
}

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

float vectorDiffusivity(const float* aA, const float* aB, int aLength) {
  float sum = 0.0f;
  for (int k = 0; k < aLength; k++) {
    const float d = aA[k] - aB[k];
    sum += d * d;
  }
  return CSuperpixelLayer::diffusivity_fl(sum);
}

bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof(float)) == 0; }

// Contiguous share [begin, end) of aCount items for one of aThreads threads.
struct CShare {
  int begin;
  int end;
};
CShare share(int aCount, int aThread, int aThreads) {
  const int block = (aCount + aThreads - 1) / aThreads;
  return {std::min(aCount, aThread * block), std::min(aCount, (aThread + 1) * block)};
}

// Barrier of one parallel team that spins briefly and then yields its core:
// when more threads are busy than there are cores (frames labelled side by
// side), a spinning waiter would keep the thread it waits for off the core.
class CYieldingBarrier {
public:
  explicit CYieldingBarrier(int aThreads) : mThreads(aThreads) {}
  void wait() {
    if (mThreads == 1) return;
    const unsigned generation = mGeneration.load(std::memory_order_acquire);
    if (mArrived.fetch_add(1, std::memory_order_acq_rel) == mThreads - 1) {
      mArrived.store(0, std::memory_order_relaxed);
      mGeneration.fetch_add(1, std::memory_order_release);
      return;
    }
    for (int spin = 0; mGeneration.load(std::memory_order_acquire) == generation; spin++) {
      if (spin < 4000)
        _mm_pause();
      else
        std::this_thread::yield();
    }
  }

private:
  const int mThreads;
  std::atomic<int> mArrived{0};
  std::atomic<unsigned> mGeneration{0};
};

// interval(v, 0, 1) on four lanes: max(0, v) keeps NaN as _mm_max_ps returns
// its second operand when a comparison fails, min likewise.
inline __m128 clampUnit(__m128 v) { return _mm_min_ps(_mm_set1_ps(1.0f), _mm_max_ps(_mm_setzero_ps(), v)); }

}  // namespace

CFlatHierarchy::CFlatHierarchy(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs)
    : mXSize(aImg.xSize()), mYSize(aImg.ySize()), mLabels(aImg.zSize()) {
  if (aSegs.empty()) throw CHierarchy::EMissingLayers(0);
  mDistRelaxation = static_cast<float>(0.2 * std::max(mXSize, mYSize));
  // Enough chunks to keep every thread busy, at most four labels each.
  const int threads = std::max(1, omp_get_max_threads());
  const int wanted = std::max((mLabels + 3) / 4, std::min(threads, mLabels));
  mLanes = std::max(1, (mLabels + wanted - 1) / std::max(wanted, 1));
  mChunks = (mLabels + mLanes - 1) / mLanes;
  mLaneIndex.resize(mLabels);
  for (int k = 0; k < mLabels; k++) mLaneIndex[k] = 4 * (k / mLanes) + k % mLanes;
  mLayers.resize(aSegs.size());
  buildPixelLayer(aSegs[0]);
  for (size_t k = 1; k < aSegs.size(); k++) buildCoarserLayer(static_cast<int>(k), aSegs[k], aSegs[k - 1]);
  allocateValues(aImg);
  for (int l = 1; l < size(); l++) buildEntries(l);
}

namespace {

template <class... T>
size_t bytesOf(const std::vector<T>&... aVectors) {
  return ((aVectors.capacity() * sizeof(T)) + ...);
}

}  // namespace

size_t CFlatHierarchy::bytes() const {
  size_t total = bytesOf(mValues, mConstX, mConstY, mVarX, mVarY, mPixelWeights, mConf, mWeight, mRhs);
  for (const CLayer& l : mLayers)
    total += bytesOf(l.x, l.y, l.firstLeaf, l.parent, l.parentConst, l.parentVar, l.childStart, l.child, l.childConst,
                     l.nbrStart, l.nbr, l.nbrDist, l.nbrConst, l.nbrPair, l.pairNodes, l.pairVar, l.md,
                     l.omegaOverMd, l.entryStart, l.entryOffset, l.entryG);
  return total;
}

float CFlatHierarchy::value(int aLayer, int aNode, int aLabel) const {
  return mValues[slot(mLayers[aLayer], aNode, aLabel)];
}

void CFlatHierarchy::gather(const CLayer& aLayer, int aNode, float* aOut) const {
  const float* base = mValues.data() + aLayer.base + static_cast<size_t>(aNode) * 4;
  for (int k = 0; k < mLabels; k++) aOut[k] = base[mLabelOffset[k]];
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
  mValues.assign(mChunkStride * mChunks, 0.0f);
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

// The links a coarser node's update walks, in its order: neighbours,
// children, parent; padded to a multiple of four with links of weight 0 to
// the zero slot, which leave the sum as it is.
void CFlatHierarchy::buildEntries(int aLayer) {
  CLayer& layer = mLayers[aLayer];
  const CLayer& finer = mLayers[aLayer - 1];
  const bool hasParent = aLayer + 1 < size();
  layer.entryStart.assign(layer.nodes + 1, 0);
  for (int p = 0; p < layer.nodes; p++) {
    const int links = layer.nbrStart[p + 1] - layer.nbrStart[p] + layer.childStart[p + 1] - layer.childStart[p] +
                      (hasParent ? 1 : 0);
    layer.entryStart[p + 1] = layer.entryStart[p] + (links + 3) / 4 * 4;
  }
  layer.entryOffset.assign(layer.entryStart[layer.nodes], static_cast<uint32_t>(mZeroSlot));
  layer.entryG.assign(layer.entryStart[layer.nodes], 0.0f);
  auto at = [](const CLayer& aOwner, int aNode) { return static_cast<uint32_t>(aOwner.base + 4 * static_cast<size_t>(aNode)); };
  for (int p = 0; p < layer.nodes; p++) {
    int e = layer.entryStart[p];
    for (int j = layer.nbrStart[p]; j < layer.nbrStart[p + 1]; j++) layer.entryOffset[e++] = at(layer, layer.nbr[j]);
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) layer.entryOffset[e++] = at(finer, layer.child[j]);
    if (hasParent) layer.entryOffset[e] = at(mLayers[aLayer + 1], layer.parent[p]);
  }
}

void CFlatHierarchy::buildPixelLayer(const CTensor<float>& aImage) {
  CLayer& layer = mLayers[0];
  const int n = mXSize * mYSize;
  layer.nodes = n;
  layer.x.resize(n);
  layer.y.resize(n);
  layer.firstLeaf.resize(n);
  for (int i = 0; i < n; i++) {
    layer.x[i] = static_cast<float>(i % mXSize);
    layer.y[i] = static_cast<float>(i / mXSize);
    layer.firstLeaf[i] = i;
  }
  allocateNodeArrays(layer);
  CMatrix<float> gx(mXSize, mYSize);
  CMatrix<float> gy(mXSize, mYSize);
  CSuperpixelLayer::diffusivities_fl(aImage, gx, gy);
  mConstX.assign(gx.data(), gx.data() + n);
  mConstY.assign(gy.data(), gy.data() + n);
  mVarX.assign(n, 0.0f);
  mVarY.assign(n, 0.0f);
  mPixelWeights.assign(static_cast<size_t>(n) * 4, 0.0f);
}

void CFlatHierarchy::pixelNeighbours(int aPixel, std::vector<int>& aOut) const {
  const int x = aPixel % mXSize;
  const int y = aPixel / mXSize;
  aOut.clear();
  if (y > 0) aOut.push_back(aPixel - mXSize);
  if (x > 0) aOut.push_back(aPixel - 1);
  if (y < mYSize - 1) aOut.push_back(aPixel + mXSize);
  if (x < mXSize - 1) aOut.push_back(aPixel + 1);
}

void CFlatHierarchy::buildCoarserLayer(int aLayer, const CTensor<float>& aSeg, const CTensor<float>& aFinerSeg) {
  if (aSeg.zSize() < 3) throw EFileError("segmentation image", "has fewer than three colour channels");
  CLayer& finer = mLayers[aLayer - 1];
  CLayer& layer = mLayers[aLayer];
  // Nodes in order of first appearance of their colour at the finer nodes' first leaves.
  std::unordered_map<int, int> nodeOfColour;
  int lastKey = -1;
  int lastNode = -1;
  for (int f = 0; f < finer.nodes; f++) {
    const int leaf = finer.firstLeaf[f];
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
      sumX += finer.x[layer.child[j]];
      sumY += finer.y[layer.child[j]];
    }
    const float count = static_cast<float>(layer.childStart[p + 1] - layer.childStart[p]);
    layer.x[p] = sumX / count;
    layer.y[p] = sumY / count;
    layer.firstLeaf[p] = finer.firstLeaf[layer.child[layer.childStart[p]]];
  }
  allocateNodeArrays(layer);

  linkNeighbours(aLayer);

  // Constant weights: colour at the first leaves, spatial factor from the distances.
  layer.nbrConst.resize(layer.nbr.size());
#pragma omp parallel for schedule(dynamic, 64)
  for (int a = 0; a < n; a++)
    for (int j = layer.nbrStart[a]; j < layer.nbrStart[a + 1]; j++) {
      const float dist = layer.nbrDist[j];
      const float exponent = -dist * dist / mDistRelaxation;
      const float spatial = static_cast<float>(std::exp(static_cast<double>(exponent)));
      layer.nbrConst[j] = colourDiffusivity(aSeg, layer.firstLeaf[a], aSeg, layer.firstLeaf[layer.nbr[j]]) * spatial;
    }
  layer.childConst.resize(layer.child.size());
#pragma omp parallel for schedule(dynamic, 64)
  for (int p = 0; p < n; p++) {
    const float count = static_cast<float>(layer.childStart[p + 1] - layer.childStart[p]);
    for (int j = layer.childStart[p]; j < layer.childStart[p + 1]; j++) {
      const int c = layer.child[j];
      const float w = colourDiffusivity(aSeg, layer.firstLeaf[p], aFinerSeg, finer.firstLeaf[c]);
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
  std::vector<int> finerNeighbours;
  for (int f = 0; f < finer.nodes; f++) {
    const int p = finer.parent[f];
    if (aLayer == 1) {
      pixelNeighbours(f, finerNeighbours);
    } else {
      finerNeighbours.assign(finer.nbr.begin() + finer.nbrStart[f], finer.nbr.begin() + finer.nbrStart[f + 1]);
    }
    for (int g : finerNeighbours) {
      const int q = finer.parent[g];
      if (q == p) continue;
      std::vector<int>& list = adjacent[p];
      if (std::find(list.begin(), list.end(), q) == list.end()) list.push_back(q);
    }
  }
  checkLinkMemory(aLayer, adjacent);
  layer.nbrStart.assign(n + 1, 0);
  layer.nbr.clear();
  layer.nbrDist.clear();
  for (int a = 0; a < n; a++) {
    const std::vector<int>& mine = adjacent[a];
    for (int b : mine) {
      layer.nbr.push_back(b);
      layer.nbrDist.push_back(1.0f);
    }
    for (int b : mine)
      for (int c : adjacent[b]) {
        if (c != a && std::find(mine.begin(), mine.end(), c) != mine.end()) continue;
        const float dx = layer.x[c] - layer.x[a];
        const float dy = layer.y[c] - layer.y[a];
        layer.nbr.push_back(c);
        layer.nbrDist.push_back(std::sqrt(dx * dx + dy * dy));
      }
    layer.nbrStart[a + 1] = static_cast<int>(layer.nbr.size());
  }
  // Every linked pair of nodes once, whichever node lists it and how often:
  // its value-dependent weight is the same from both ends.
  std::unordered_map<long long, int> pairOf;
  pairOf.reserve(layer.nbr.size());
  layer.nbrPair.resize(layer.nbr.size());
  layer.pairNodes.clear();
  for (int a = 0; a < n; a++)
    for (int j = layer.nbrStart[a]; j < layer.nbrStart[a + 1]; j++) {
      const int c = layer.nbr[j];
      const long long key = static_cast<long long>(std::min(a, c)) * n + std::max(a, c);
      const auto [entry, isNew] = pairOf.try_emplace(key, static_cast<int>(layer.pairNodes.size() / 2));
      if (isNew) {
        layer.pairNodes.push_back(a);
        layer.pairNodes.push_back(c);
      }
      layer.nbrPair[j] = entry->second;
    }
  layer.pairVar.assign(layer.pairNodes.size() / 2, 0.0f);
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

// The pixel edges' value-dependent weights of the rows aRows, as
// diffusivities_fl computes them from the degrees: per label the forward
// difference across the edge and the mean of the two central derivatives along
// it, summed over the labels in order. Grids too small for the three-tap
// derivative's plain interior take the literal path (on the first share only).
void CFlatHierarchy::computePixelVariableWeights(int aFirstRow, int aEndRow) {
  const int width = mXSize;
  const int height = mYSize;
  const int n = width * height;
  if (width < 3 || height < 3) {
    if (aFirstRow > 0 || aEndRow == aFirstRow) return;
    CTensor<float> degrees(width, height, mLabels);
    convertToImage(degrees);
    CMatrix<float> gx(width, height);
    CMatrix<float> gy(width, height);
    CSuperpixelLayer::diffusivities_fl(degrees, gx, gy);
    std::copy(gx.data(), gx.data() + n, mVarX.begin());
    std::copy(gy.data(), gy.data() + n, mVarY.begin());
    return;
  }
  const CLayer& pixels = mLayers[0];
  const __m128 minusHalf = _mm_set1_ps(-0.5f);
  const __m128 half = _mm_set1_ps(0.5f);
  // Central derivative with the mirrored border: -0.5 * before + 0.5 * after.
  auto derivative = [&](__m128 aBefore, __m128 aAfter) {
    return _mm_add_ps(_mm_mul_ps(minusHalf, aBefore), _mm_mul_ps(half, aAfter));
  };
  auto energy = [](__m128 aGradX, __m128 aGradY) {
    return _mm_add_ps(_mm_mul_ps(aGradX, aGradX), _mm_mul_ps(aGradY, aGradY));
  };
  alignas(16) float termsX[4];
  alignas(16) float termsY[4];
  for (int y = aFirstRow; y < aEndRow; y++) {
    const int up = y > 0 ? y - 1 : 0;
    const int down = y < height - 1 ? y + 1 : height - 1;
    const bool wide = wideVectors();
    for (int x = 0; x < width; x++) {
      // Eight or four pixels at once where all of them have both row neighbours.
      if (wide && x > 0 && x + 8 < width) {
        computePixelVariableWeights8(x, y);
        x += 7;
        continue;
      }
      if (x > 0 && x + 4 < width) {
        computePixelVariableWeights4(x, y);
        x += 3;
        continue;
      }
      const int left = x > 0 ? x - 1 : 0;
      const int right = x < width - 1 ? x + 1 : width - 1;
      float sumX = 0.0f;
      float sumY = 0.0f;
      // Per chunk the terms of its labels at once; summed in label order.
      for (int c = 0; c < mChunks; c++) {
        const float* m = chunk(c) + pixels.base;
        auto at = [&](int ax, int ay) { return _mm_loadu_ps(m + static_cast<size_t>(ay * width + ax) * 4); };
        const __m128 centre = at(x, y);
        if (x < width - 1) {
          const __m128 aGradX = _mm_sub_ps(at(x + 1, y), centre);
          const __m128 aGradY =
              _mm_mul_ps(half, _mm_add_ps(derivative(at(x, up), at(x, down)), derivative(at(x + 1, up), at(x + 1, down))));
          _mm_store_ps(termsX, energy(aGradX, aGradY));
        }
        if (y < height - 1) {
          const __m128 aGradX = _mm_mul_ps(
              half, _mm_add_ps(derivative(at(left, y), at(right, y)), derivative(at(left, y + 1), at(right, y + 1))));
          const __m128 aGradY = _mm_sub_ps(at(x, y + 1), centre);
          _mm_store_ps(termsY, energy(aGradX, aGradY));
        }
        const int lanes = std::min(mLanes, mLabels - c * mLanes);
        for (int lane = 0; lane < lanes; lane++) {
          if (x < width - 1) sumX += termsX[lane];
          if (y < height - 1) sumY += termsY[lane];
        }
      }
      mVarX[y * width + x] = CSuperpixelLayer::diffusivity_fl(sumX);
      mVarY[y * width + x] = CSuperpixelLayer::diffusivity_fl(sumY);
    }
  }
}

// computePixelVariableWeights for the pixels x .. x + 3 of row y, all with a
// left and a right neighbour: the terms of four pixels transposed to one
// vector per label, so that the four sums go label by label as above.
void CFlatHierarchy::computePixelVariableWeights4(int x, int y) {
  const int width = mXSize;
  const int height = mYSize;
  const int up = y > 0 ? y - 1 : 0;
  const int down = y < height - 1 ? y + 1 : height - 1;
  const bool below = y < height - 1;
  const __m128 minusHalf = _mm_set1_ps(-0.5f);
  const __m128 half = _mm_set1_ps(0.5f);
  auto derivative = [&](__m128 aBefore, __m128 aAfter) {
    return _mm_add_ps(_mm_mul_ps(minusHalf, aBefore), _mm_mul_ps(half, aAfter));
  };
  auto energy = [](__m128 aGradX, __m128 aGradY) {
    return _mm_add_ps(_mm_mul_ps(aGradX, aGradX), _mm_mul_ps(aGradY, aGradY));
  };
  __m128 sumX = _mm_setzero_ps();
  __m128 sumY = _mm_setzero_ps();
  for (int c = 0; c < mChunks; c++) {
    const float* m = chunk(c) + mLayers[0].base;
    auto at = [&](int ax, int ay) { return _mm_loadu_ps(m + static_cast<size_t>(ay * width + ax) * 4); };
    // Vertical derivatives of the columns x .. x + 4, each shared by two edges.
    __m128 vertical[5];
    for (int q = 0; q < 5; q++) vertical[q] = derivative(at(x + q, up), at(x + q, down));
    __m128 tx[4];
    __m128 ty[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
    for (int q = 0; q < 4; q++) {
      const int px = x + q;
      tx[q] = energy(_mm_sub_ps(at(px + 1, y), at(px, y)), _mm_mul_ps(half, _mm_add_ps(vertical[q], vertical[q + 1])));
      if (below)
        ty[q] = energy(
            _mm_mul_ps(half, _mm_add_ps(derivative(at(px - 1, y), at(px + 1, y)), derivative(at(px - 1, y + 1), at(px + 1, y + 1)))),
            _mm_sub_ps(at(px, y + 1), at(px, y)));
    }
    _MM_TRANSPOSE4_PS(tx[0], tx[1], tx[2], tx[3]);
    _MM_TRANSPOSE4_PS(ty[0], ty[1], ty[2], ty[3]);
    const int lanes = std::min(mLanes, mLabels - c * mLanes);
    for (int lane = 0; lane < lanes; lane++) {
      sumX = _mm_add_ps(sumX, tx[lane]);
      if (below) sumY = _mm_add_ps(sumY, ty[lane]);
    }
  }
  _mm_storeu_ps(&mVarX[y * width + x], diffusivityOfSums(sumX));
  _mm_storeu_ps(&mVarY[y * width + x], diffusivityOfSums(sumY));
}

namespace {

__attribute__((target("avx"), always_inline)) inline __m256 derivative8(__m256 aBefore, __m256 aAfter) {
  return _mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(-0.5f), aBefore), _mm256_mul_ps(_mm256_set1_ps(0.5f), aAfter));
}

__attribute__((target("avx"), always_inline)) inline __m256 energy8(__m256 aGradX, __m256 aGradY) {
  return _mm256_add_ps(_mm256_mul_ps(aGradX, aGradX), _mm256_mul_ps(aGradY, aGradY));
}

// The in-lane transpose of _MM_TRANSPOSE4_PS on both halves at once.
__attribute__((target("avx"), always_inline)) inline void transposeHalves(__m256& r0, __m256& r1, __m256& r2, __m256& r3) {
  const __m256 t0 = _mm256_unpacklo_ps(r0, r1);
  const __m256 t1 = _mm256_unpackhi_ps(r0, r1);
  const __m256 t2 = _mm256_unpacklo_ps(r2, r3);
  const __m256 t3 = _mm256_unpackhi_ps(r2, r3);
  r0 = _mm256_shuffle_ps(t0, t2, 0x44);
  r1 = _mm256_shuffle_ps(t0, t2, 0xee);
  r2 = _mm256_shuffle_ps(t1, t3, 0x44);
  r3 = _mm256_shuffle_ps(t1, t3, 0xee);
}

// Pixels (ax, ay) and (ax + 4, ay) of a plane of four lanes per pixel.
__attribute__((target("avx"), always_inline)) inline __m256 pixelPair(const float* aPlane, int aWidth, int ax, int ay) {
  const float* first = aPlane + static_cast<size_t>(ay * aWidth + ax) * 4;
  return _mm256_loadu2_m128(first + 16, first);
}

// diffusivityOfSums on eight sums.
__attribute__((target("avx"), always_inline)) inline __m256 diffusivityOfSums8(__m256 aSums) {
  const __m256 shifted = _mm256_add_ps(aSums, _mm256_set1_ps(mEpsilon));
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d low = _mm256_div_pd(one, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(shifted))));
  const __m256d high = _mm256_div_pd(one, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(shifted, 1))));
  return _mm256_set_m128(_mm256_cvtpd_ps(high), _mm256_cvtpd_ps(low));
}

}  // namespace

// computePixelVariableWeights4 for the pixels x .. x + 7, pixels x + q and
// x + 4 + q in the two halves of 256-bit registers.
__attribute__((target("avx"))) void CFlatHierarchy::computePixelVariableWeights8(int x, int y) {
  const int width = mXSize;
  const int height = mYSize;
  const int up = y > 0 ? y - 1 : 0;
  const int down = y < height - 1 ? y + 1 : height - 1;
  const bool below = y < height - 1;
  const __m256 half = _mm256_set1_ps(0.5f);
  __m256 sumX = _mm256_setzero_ps();
  __m256 sumY = _mm256_setzero_ps();
  for (int c = 0; c < mChunks; c++) {
    const float* m = chunk(c) + mLayers[0].base;
    __m256 vertical[5];
    for (int q = 0; q < 5; q++) vertical[q] = derivative8(pixelPair(m, width, x + q, up), pixelPair(m, width, x + q, down));
    __m256 tx[4];
    __m256 ty[4] = {_mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps()};
    for (int q = 0; q < 4; q++) {
      const int px = x + q;
      tx[q] = energy8(_mm256_sub_ps(pixelPair(m, width, px + 1, y), pixelPair(m, width, px, y)),
                      _mm256_mul_ps(half, _mm256_add_ps(vertical[q], vertical[q + 1])));
      if (below)
        ty[q] = energy8(_mm256_mul_ps(half, _mm256_add_ps(derivative8(pixelPair(m, width, px - 1, y), pixelPair(m, width, px + 1, y)),
                                                          derivative8(pixelPair(m, width, px - 1, y + 1), pixelPair(m, width, px + 1, y + 1)))),
                        _mm256_sub_ps(pixelPair(m, width, px, y + 1), pixelPair(m, width, px, y)));
    }
    transposeHalves(tx[0], tx[1], tx[2], tx[3]);
    transposeHalves(ty[0], ty[1], ty[2], ty[3]);
    const int lanes = std::min(mLanes, mLabels - c * mLanes);
    for (int lane = 0; lane < lanes; lane++) {
      sumX = _mm256_add_ps(sumX, tx[lane]);
      if (below) sumY = _mm256_add_ps(sumY, ty[lane]);
    }
  }
  _mm256_storeu_ps(&mVarX[y * width + x], diffusivityOfSums8(sumX));
  _mm256_storeu_ps(&mVarY[y * width + x], diffusivityOfSums8(sumY));
}

// First half of the weights fixed through the inner iterations: the
// value-dependent weights from the current degrees; one thread's share.
void CFlatHierarchy::computeVariableWeights(int aThread, int aThreads, std::vector<float>& aA,
                                            std::vector<float>& aB) {
  const CShare rows = share(mYSize, aThread, aThreads);
  computePixelVariableWeights(rows.begin, rows.end);
  for (int l = 1; l < size(); l++) {
    CLayer& layer = mLayers[l];
    CLayer& finer = mLayers[l - 1];
    const CShare pairs = share(static_cast<int>(layer.pairVar.size()), aThread, aThreads);
    int pair = pairs.begin;
    for (; pair + 4 <= pairs.end; pair += 4) {
      const float* a[4];
      const float* c[4];
      for (int q = 0; q < 4; q++) {
        a[q] = chunk(0) + layer.base + static_cast<size_t>(layer.pairNodes[2 * (pair + q)]) * 4;
        c[q] = chunk(0) + layer.base + static_cast<size_t>(layer.pairNodes[2 * (pair + q) + 1]) * 4;
      }
      _mm_storeu_ps(layer.pairVar.data() + pair, diffusivity4(a, c));
    }
    for (; pair < pairs.end; pair++) {
      gather(layer, layer.pairNodes[2 * pair], aA.data());
      gather(layer, layer.pairNodes[2 * pair + 1], aB.data());
      layer.pairVar[pair] = vectorDiffusivity(aA.data(), aB.data(), mLabels);
    }
    const CShare children = share(finer.nodes, aThread, aThreads);
    int c = children.begin;
    for (; c + 4 <= children.end; c += 4) {
      const float* parent[4];
      const float* child[4];
      for (int q = 0; q < 4; q++) {
        parent[q] = chunk(0) + layer.base + static_cast<size_t>(finer.parent[c + q]) * 4;
        child[q] = chunk(0) + finer.base + static_cast<size_t>(c + q) * 4;
      }
      _mm_storeu_ps(finer.parentVar.data() + c, diffusivity4(parent, child));
    }
    for (; c < children.end; c++) {
      gather(layer, finer.parent[c], aA.data());
      gather(finer, c, aB.data());
      finer.parentVar[c] = vectorDiffusivity(aA.data(), aB.data(), mLabels);
    }
  }
}

// vectorDiffusivity(a[q], b[q]) of four pairs of nodes, one per SIMD lane: the
// squared differences summed in label order, then diffusivity_fl's float sum
// and double root and division, lane by lane. a[q] and b[q] point to the
// nodes' slots in chunk 0.
__m128 CFlatHierarchy::diffusivity4(const float* const aA[4], const float* const aB[4]) const {
  __m128 sum = _mm_setzero_ps();
  for (int c = 0; c < mChunks; c++) {
    __m128 d[4];
    for (int q = 0; q < 4; q++)
      d[q] = _mm_sub_ps(_mm_loadu_ps(aA[q] + c * mChunkStride), _mm_loadu_ps(aB[q] + c * mChunkStride));
    _MM_TRANSPOSE4_PS(d[0], d[1], d[2], d[3]);
    const int lanes = std::min(mLanes, mLabels - c * mLanes);
    for (int lane = 0; lane < lanes; lane++) sum = _mm_add_ps(sum, _mm_mul_ps(d[lane], d[lane]));
  }
  return diffusivityOfSums(sum);
}

// Second half: the edge products, each node's weight sum in the order of its
// lists (pixels: up, left, down, right, parent) and the over-relaxation factor.
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
      const float md = aAlpha * mWeight[i] * mConf[i] + oneMinusAlpha * sum;
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
      float* g = layer.entryG.data() + layer.entryStart[p];
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

namespace {

// What one pixel pass of one label chunk reads and writes.
struct CPixelSweep {
  ptrdiff_t width;
  float* u;                  // degrees of the chunk, four lanes per pixel
  const float* rhs;
  const float* weights;      // per pixel: right edge, lower edge, parent edge, omega / md
  const int* parent;
  const float* parentValues;
  const float* md;
  __m128 oneMinusAlpha;
  __m128 oneMinusOmega;
};

inline __m128 edge(__m128 aOut, float aWeight, const float* aValues) {
  return _mm_sub_ps(aOut, _mm_mul_ps(_mm_set1_ps(aWeight), _mm_loadu_ps(aValues)));
}

// kCheck: some pixel of the layer has a weight sum of 0 and keeps its degree.
template <bool kUp, bool kLeft, bool kDown, bool kRight, bool kParent, bool kCheck>
__attribute__((always_inline)) inline void updatePixel(const CPixelSweep& s, ptrdiff_t i) {
  float* u = s.u;
  const __m128 own = _mm_loadu_ps(s.weights + 4 * i);
  __m128 out = _mm_setzero_ps();
  if (kUp) out = edge(out, s.weights[4 * (i - s.width) + 1], u + 4 * (i - s.width));
  if (kLeft) out = edge(out, s.weights[4 * (i - 1)], u + 4 * (i - 1));
  if (kDown) out = _mm_sub_ps(out, _mm_mul_ps(_mm_shuffle_ps(own, own, 0x55), _mm_loadu_ps(u + 4 * (i + s.width))));
  if (kRight) out = _mm_sub_ps(out, _mm_mul_ps(_mm_shuffle_ps(own, own, 0x00), _mm_loadu_ps(u + 4 * (i + 1))));
  if (kParent)
    out = _mm_sub_ps(out, _mm_mul_ps(_mm_shuffle_ps(own, own, 0xaa), _mm_loadu_ps(s.parentValues + 4 * s.parent[i])));
  if (kCheck && s.md[i] == 0.0f) return;
  out = _mm_mul_ps(s.oneMinusAlpha, out);
  const __m128 step = _mm_mul_ps(_mm_shuffle_ps(own, own, 0xff), _mm_sub_ps(_mm_loadu_ps(s.rhs + 4 * i), out));
  _mm_storeu_ps(u + 4 * i, clampUnit(_mm_add_ps(_mm_mul_ps(s.oneMinusOmega, _mm_loadu_ps(u + 4 * i)), step)));
}

template <bool kParent, bool kCheck>
void updateBorderPixel(const CPixelSweep& s, int x, int y, int aHeight) {
  const ptrdiff_t i = y * s.width + x;
  const bool up = y > 0;
  const bool left = x > 0;
  const bool down = y < aHeight - 1;
  const bool right = x < s.width - 1;
  // Every combination the borders can have, each a plain instantiation.
  switch ((up ? 8 : 0) | (left ? 4 : 0) | (down ? 2 : 0) | (right ? 1 : 0)) {
    case 0: updatePixel<false, false, false, false, kParent, kCheck>(s, i); break;
    case 1: updatePixel<false, false, false, true, kParent, kCheck>(s, i); break;
    case 2: updatePixel<false, false, true, false, kParent, kCheck>(s, i); break;
    case 3: updatePixel<false, false, true, true, kParent, kCheck>(s, i); break;
    case 4: updatePixel<false, true, false, false, kParent, kCheck>(s, i); break;
    case 5: updatePixel<false, true, false, true, kParent, kCheck>(s, i); break;
    case 6: updatePixel<false, true, true, false, kParent, kCheck>(s, i); break;
    case 7: updatePixel<false, true, true, true, kParent, kCheck>(s, i); break;
    case 8: updatePixel<true, false, false, false, kParent, kCheck>(s, i); break;
    case 9: updatePixel<true, false, false, true, kParent, kCheck>(s, i); break;
    case 10: updatePixel<true, false, true, false, kParent, kCheck>(s, i); break;
    case 11: updatePixel<true, false, true, true, kParent, kCheck>(s, i); break;
    case 12: updatePixel<true, true, false, false, kParent, kCheck>(s, i); break;
    case 13: updatePixel<true, true, false, true, kParent, kCheck>(s, i); break;
    case 14: updatePixel<true, true, true, false, kParent, kCheck>(s, i); break;
    default: updatePixel<true, true, true, true, kParent, kCheck>(s, i); break;
  }
}

// The pixels in row-major Gauss-Seidel order, computed as a skewed wavefront:
// bands of kBand rows, row r of a band trailing row r - 1 by one pixel. Each
// pixel still reads new degrees above and to its left and old ones below and
// to its right, but the rows' update chains are independent, so their
// latencies overlap.
constexpr int kBand = 6;

template <bool kParent, bool kCheck>
void sweepRows(const CPixelSweep& aSweep, int aHeight) {
  const CPixelSweep s = aSweep;  // a local copy: the stores cannot change it
  const int width = static_cast<int>(s.width);
  for (int y0 = 0; y0 < aHeight; y0 += kBand) {
    const int rows = std::min(kBand, aHeight - y0);
    const bool innerRows = rows == kBand && y0 > 0 && y0 + kBand < aHeight;
    for (int t = 0; t < width + rows - 1; t++) {
      if (innerRows && t >= kBand && t < width - 1) {
        const ptrdiff_t i = static_cast<ptrdiff_t>(y0) * width + t;
        for (int r = 0; r < kBand; r++) updatePixel<true, true, true, true, kParent, kCheck>(s, i + r * (s.width - 1));
        continue;
      }
      for (int r = 0; r < rows; r++) {
        const int x = t - r;
        if (x >= 0 && x < width) updateBorderPixel<kParent, kCheck>(s, x, y0 + r, aHeight);
      }
    }
  }
}

// updatePixel<true, true, true, true, kParent, false> of two pixels at once,
// one per 128-bit half of 256-bit registers: every lane goes through the same
// operations as there, in the same order.
__attribute__((target("avx"), always_inline)) inline __m256 both(const float* aFirst, const float* aSecond) {
  return _mm256_loadu2_m128(aSecond, aFirst);
}

__attribute__((target("avx"), always_inline)) inline __m256 broadcast(float aFirst, float aSecond) {
  return _mm256_set_m128(_mm_set1_ps(aSecond), _mm_set1_ps(aFirst));
}

template <bool kParent>
__attribute__((target("avx"), always_inline)) inline void updatePixelPair(const CPixelSweep& s, ptrdiff_t i, ptrdiff_t j) {
  const float* u = s.u;
  const __m256 own = both(s.weights + 4 * i, s.weights + 4 * j);
  const ptrdiff_t w = s.width;
  __m256 out = _mm256_sub_ps(_mm256_setzero_ps(), _mm256_mul_ps(broadcast(s.weights[4 * (i - w) + 1], s.weights[4 * (j - w) + 1]),
                                                                 both(u + 4 * (i - w), u + 4 * (j - w))));
  out = _mm256_sub_ps(out, _mm256_mul_ps(broadcast(s.weights[4 * (i - 1)], s.weights[4 * (j - 1)]), both(u + 4 * (i - 1), u + 4 * (j - 1))));
  out = _mm256_sub_ps(out, _mm256_mul_ps(_mm256_shuffle_ps(own, own, 0x55), both(u + 4 * (i + w), u + 4 * (j + w))));
  out = _mm256_sub_ps(out, _mm256_mul_ps(_mm256_shuffle_ps(own, own, 0x00), both(u + 4 * (i + 1), u + 4 * (j + 1))));
  if (kParent)
    out = _mm256_sub_ps(out, _mm256_mul_ps(_mm256_shuffle_ps(own, own, 0xaa),
                                           both(s.parentValues + 4 * s.parent[i], s.parentValues + 4 * s.parent[j])));
  out = _mm256_mul_ps(_mm256_set_m128(s.oneMinusAlpha, s.oneMinusAlpha), out);
  const __m256 step = _mm256_mul_ps(_mm256_shuffle_ps(own, own, 0xff), _mm256_sub_ps(both(s.rhs + 4 * i, s.rhs + 4 * j), out));
  const __m256 old = both(u + 4 * i, u + 4 * j);
  const __m256 relaxed = _mm256_add_ps(_mm256_mul_ps(_mm256_set_m128(s.oneMinusOmega, s.oneMinusOmega), old), step);
  const __m256 clamped = _mm256_min_ps(_mm256_set1_ps(1.0f), _mm256_max_ps(_mm256_setzero_ps(), relaxed));
  _mm256_storeu2_m128(s.u + 4 * j, s.u + 4 * i, clamped);
}

// sweepRows with the interior of every band two pixels at a time, for
// processors with 256-bit vectors. The six updates of a wavefront step
// depend only on the step before, so any two of them can go together.
template <bool kParent>
__attribute__((target("avx"))) void sweepRowsWide(const CPixelSweep& aSweep, int aHeight) {
  const CPixelSweep s = aSweep;
  const int width = static_cast<int>(s.width);
  for (int y0 = 0; y0 < aHeight; y0 += kBand) {
    const int rows = std::min(kBand, aHeight - y0);
    const bool innerRows = rows == kBand && y0 > 0 && y0 + kBand < aHeight;
    for (int t = 0; t < width + rows - 1; t++) {
      if (innerRows && t >= kBand && t < width - 1) {
        const ptrdiff_t i = static_cast<ptrdiff_t>(y0) * width + t;
        const ptrdiff_t next = width - 1;
        updatePixelPair<kParent>(s, i, i + 3 * next);
        updatePixelPair<kParent>(s, i + next, i + 4 * next);
        updatePixelPair<kParent>(s, i + 2 * next, i + 5 * next);
        continue;
      }
      for (int r = 0; r < rows; r++) {
        const int x = t - r;
        if (x >= 0 && x < width) updateBorderPixel<kParent, false>(s, x, y0 + r, aHeight);
      }
    }
  }
}

// 256-bit vectors are used where the processor has them, unless switched off.
std::atomic<bool> gWideVectorsAllowed{true};

}  // namespace

// One Gauss-Seidel pass over the pixels for the labels of one chunk: each
// pixel reads the new degrees of the pixels before it and the old ones of the
// pixels after it and of its parent.
void CFlatHierarchy::sweepPixels(int aChunk, float aAlpha, float aOmega) {
  CLayer& pixels = mLayers[0];
  const bool hasParent = size() > 1;
  const CPixelSweep sweep{mXSize,
                          chunk(aChunk) + pixels.base,
                          mRhs.data() + static_cast<size_t>(aChunk) * pixels.nodes * 4,
                          mPixelWeights.data(),
                          pixels.parent.data(),
                          hasParent ? chunk(aChunk) + mLayers[1].base : nullptr,
                          pixels.md.data(),
                          _mm_set1_ps(1.0f - aAlpha),
                          _mm_set1_ps(1.0f - aOmega)};
  const bool check = anyZeroWeightSum(0);
  if (!check && wideVectors())
    hasParent ? sweepRowsWide<true>(sweep, mYSize) : sweepRowsWide<false>(sweep, mYSize);
  else if (hasParent)
    check ? sweepRows<true, true>(sweep, mYSize) : sweepRows<true, false>(sweep, mYSize);
  else
    check ? sweepRows<false, true>(sweep, mYSize) : sweepRows<false, false>(sweep, mYSize);
}

// One Gauss-Seidel pass over a coarser layer for the labels of one chunk,
// each node's links four at a time.
void CFlatHierarchy::sweepLayer(int aLayer, int aChunk, float aOmega) {
  CLayer& layer = mLayers[aLayer];
  float* values = chunk(aChunk);
  float* u = values + layer.base;
  const uint32_t* offset = layer.entryOffset.data();
  const float* g = layer.entryG.data();
  const __m128 oneMinusOmega = _mm_set1_ps(1.0f - aOmega);
  const bool check = anyZeroWeightSum(aLayer);
  auto link = [&](__m128 aOut, int j) {
    return _mm_sub_ps(aOut, _mm_mul_ps(_mm_set1_ps(g[j]), _mm_loadu_ps(values + offset[j])));
  };
  for (int p = 0; p < layer.nodes; p++) {
    __m128 out = _mm_setzero_ps();
    for (int j = layer.entryStart[p]; j < layer.entryStart[p + 1]; j += 4)
      out = link(link(link(link(out, j), j + 1), j + 2), j + 3);
    if (check && layer.md[p] == 0.0f) continue;
    const __m128 old = _mm_loadu_ps(u + 4 * p);
    const __m128 step = _mm_mul_ps(_mm_set1_ps(layer.omegaOverMd[p]), _mm_sub_ps(_mm_setzero_ps(), out));
    _mm_storeu_ps(u + 4 * p, clampUnit(_mm_add_ps(_mm_mul_ps(oneMinusOmega, old), step)));
  }
}

namespace {

// The four nodes' four lanes at aBase, transposed: aLanes[q] holds lane q of
// all four nodes.
__attribute__((always_inline)) inline void loadTransposed(const float* aBase, __m128* aLanes) {
  __m128 r0 = _mm_loadu_ps(aBase);
  __m128 r1 = _mm_loadu_ps(aBase + 4);
  __m128 r2 = _mm_loadu_ps(aBase + 8);
  __m128 r3 = _mm_loadu_ps(aBase + 12);
  _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
  aLanes[0] = r0;
  aLanes[1] = r1;
  aLanes[2] = r2;
  aLanes[3] = r3;
}

__attribute__((always_inline)) inline void storeTransposed(const __m128* aLanes, float* aBase) {
  __m128 r0 = aLanes[0];
  __m128 r1 = aLanes[1];
  __m128 r2 = aLanes[2];
  __m128 r3 = aLanes[3];
  _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
  _mm_storeu_ps(aBase, r0);
  _mm_storeu_ps(aBase + 4, r1);
  _mm_storeu_ps(aBase + 8, r2);
  _mm_storeu_ps(aBase + 12, r3);
}

}  // namespace

// Projection of one node's degrees onto the simplex, as the layers'
// normalize does it: rounds of thresholding, one per label. A round whose
// threshold equals the previous one to the bit selects the same degrees
// again, so all later rounds repeat it and are skipped.
void CFlatHierarchy::normalizeNode(const CLayer& aLayer, int aNode, float* aScratch) {
  float* base = mValues.data() + aLayer.base + static_cast<size_t>(aNode) * 4;
  const size_t* offset = mLabelOffset.data();
  float* v = aScratch;
  for (int i = 0; i < mLabels; i++) v[i] = base[offset[i]];
  float mu = -1e10f;
  for (int round = 0; round < mLabels; round++) {
    float sum = 0.0f;
    float count = 0.0f;
    for (int i = 0; i < mLabels; i++)
      if (v[i] > mu) {
        sum += v[i];
        count += 1.0f;
      }
    const float next = (sum - 1.0f) / count;
    const bool settled = sameBits(next, mu);
    mu = next;
    if (settled) break;
  }
  for (int i = 0; i < mLabels; i++) base[offset[i]] = std::max(v[i] - mu, 0.0f);
}

// normalizeNode for the four nodes aNode .. aNode + 3 at once, one node per
// SIMD lane. A lane that has settled repeats its round unchanged while the
// others go on, so every lane ends with the threshold of its own node.
void CFlatHierarchy::normalizeQuad(const CLayer& aLayer, int aNode, std::vector<float>& aScratch) {
  // Per chunk the four nodes' vectors, transposed to one vector per lane.
  __m128* lanes = reinterpret_cast<__m128*>(aScratch.data());
  for (int c = 0; c < mChunks; c++) {
    loadTransposed(chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4, lanes + 4 * c);
  }
  const int* index = mLaneIndex.data();
  auto label = [&](int k) -> __m128& { return lanes[index[k]]; };
  const __m128 one = _mm_set1_ps(1.0f);
  __m128 mu = _mm_set1_ps(-1e10f);
  for (int round = 0; round < mLabels; round++) {
    __m128 sum = _mm_setzero_ps();
    __m128i count = _mm_setzero_si128();  // minus the number of degrees above mu
    for (int k = 0; k < mLabels; k++) {
      const __m128 above = _mm_cmpgt_ps(label(k), mu);
      sum = _mm_add_ps(sum, _mm_and_ps(above, label(k)));
      count = _mm_add_epi32(count, _mm_castps_si128(above));
    }
    const __m128 next = _mm_div_ps(_mm_sub_ps(sum, one), _mm_cvtepi32_ps(_mm_sub_epi32(_mm_setzero_si128(), count)));
    const bool settled =
        _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_castps_si128(next), _mm_castps_si128(mu))) == 0xffff;
    mu = next;
    if (settled) break;
  }
  for (int k = 0; k < mLabels; k++) label(k) = _mm_max_ps(_mm_setzero_ps(), _mm_sub_ps(label(k), mu));
  for (int c = 0; c < mChunks; c++) storeTransposed(lanes + 4 * c, chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4);
}

// normalizeQuad with the degrees held in registers, for kChunks chunks. The
// lanes of a chunk beyond its labels hold -inf: never above a threshold, they
// add +0 to a sum that starts at +0 and so cannot be -0, which changes
// nothing. The second round usually selects the same degrees as the first,
// and then its threshold is the first one's. With a threshold no lower than
// the first, it selects a subset of the first round's degrees, the same set
// when as many: that is tested without forming the sum again.
template <int kChunks>
void CFlatHierarchy::normalizeQuadFixed(const CLayer& aLayer, int aNode) {
  constexpr int kVectors = 4 * kChunks;
  __m128 v[kVectors];
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    loadTransposed(chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4, v + 4 * c);
    const int used = std::min(mLanes, mLabels - c * mLanes);
#pragma GCC unroll 4
    for (int lane = 0; lane < 4; lane++)
      if (lane >= used) v[4 * c + lane] = _mm_set1_ps(-INFINITY);
  }
  const __m128 one = _mm_set1_ps(1.0f);
  __m128i count;  // minus the number of degrees above the threshold
  auto round = [&](__m128 aMu) {
    __m128 sum = _mm_setzero_ps();
    count = _mm_setzero_si128();
#pragma GCC unroll 16
    for (int k = 0; k < kVectors; k++) {
      const __m128 above = _mm_cmpgt_ps(v[k], aMu);
      sum = _mm_add_ps(sum, _mm_and_ps(above, v[k]));
      count = _mm_add_epi32(count, _mm_castps_si128(above));
    }
    return _mm_div_ps(_mm_sub_ps(sum, one), _mm_cvtepi32_ps(_mm_sub_epi32(_mm_setzero_si128(), count)));
  };
  const __m128 first = _mm_set1_ps(-1e10f);
  __m128 mu = round(first);
  if (mLabels > 1) {
    __m128i again = _mm_setzero_si128();
#pragma GCC unroll 16
    for (int k = 0; k < kVectors; k++) again = _mm_add_epi32(again, _mm_castps_si128(_mm_cmpgt_ps(v[k], mu)));
    const __m128 same = _mm_and_ps(_mm_cmpge_ps(mu, first), _mm_castsi128_ps(_mm_cmpeq_epi32(again, count)));
    if (_mm_movemask_ps(same) != 0xf)
      for (int r = 1; r < mLabels; r++) {
        const __m128 next = round(mu);
        const bool settled =
            _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_castps_si128(next), _mm_castps_si128(mu))) == 0xffff;
        mu = next;
        if (settled) break;
      }
  }
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    __m128 r[4];
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) r[q] = _mm_max_ps(_mm_setzero_ps(), _mm_sub_ps(v[4 * c + q], mu));
    storeTransposed(r, chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4);
  }
}

void CFlatHierarchy::allowWideVectors(bool aAllowed) { gWideVectorsAllowed.store(aAllowed, std::memory_order_relaxed); }

bool CFlatHierarchy::wideVectors() {
  static const bool available = __builtin_cpu_supports("avx");
  return available && gWideVectorsAllowed.load(std::memory_order_relaxed);
}

namespace {

// One round of the projection for eight nodes: the threshold from the degrees
// above aMu, with their count (in float, as the plain path counts).
template <int kVectors>
__attribute__((target("avx"), always_inline)) inline __m256 thresholdRound(const __m256* v, __m256 aMu, __m256& aCount) {
  __m256 sum = _mm256_setzero_ps();
  aCount = _mm256_setzero_ps();
#pragma GCC unroll 16
  for (int k = 0; k < kVectors; k++) {
    const __m256 above = _mm256_cmp_ps(v[k], aMu, _CMP_GT_OS);
    sum = _mm256_add_ps(sum, _mm256_and_ps(above, v[k]));
    aCount = _mm256_add_ps(aCount, _mm256_and_ps(above, _mm256_set1_ps(1.0f)));
  }
  return _mm256_div_ps(_mm256_sub_ps(sum, _mm256_set1_ps(1.0f)), aCount);
}

}  // namespace

// normalizeQuadFixed for the eight nodes aNode .. aNode + 7, two neighbouring
// nodes per 256-bit load: after the in-lane transpose the lower halves hold
// the even nodes and the upper halves the odd ones.
template <int kChunks>
__attribute__((target("avx"))) void CFlatHierarchy::normalizeOctFixed(const CLayer& aLayer, int aNode) {
  constexpr int kVectors = 4 * kChunks;
  __m256 v[kVectors];
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    const float* base = chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4;
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) v[4 * c + q] = _mm256_loadu_ps(base + 8 * q);
    transposeHalves(v[4 * c], v[4 * c + 1], v[4 * c + 2], v[4 * c + 3]);
    const int used = std::min(mLanes, mLabels - c * mLanes);
#pragma GCC unroll 4
    for (int lane = 0; lane < 4; lane++)
      if (lane >= used) v[4 * c + lane] = _mm256_set1_ps(-INFINITY);
  }
  const __m256 first = _mm256_set1_ps(-1e10f);
  __m256 count;
  __m256 mu = thresholdRound<kVectors>(v, first, count);
  if (mLabels > 1) {
    __m256 again = _mm256_setzero_ps();
#pragma GCC unroll 16
    for (int k = 0; k < kVectors; k++)
      again = _mm256_add_ps(again, _mm256_and_ps(_mm256_cmp_ps(v[k], mu, _CMP_GT_OS), _mm256_set1_ps(1.0f)));
    const __m256 same = _mm256_and_ps(_mm256_cmp_ps(mu, first, _CMP_GE_OS), _mm256_cmp_ps(again, count, _CMP_EQ_OQ));
    if (_mm256_movemask_ps(same) != 0xff)
      for (int r = 1; r < mLabels; r++) {
        const __m256 next = thresholdRound<kVectors>(v, mu, count);
        const __m256i change = _mm256_castps_si256(_mm256_xor_ps(next, mu));
        mu = next;
        if (_mm256_testz_si256(change, change)) break;
      }
  }
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    float* base = chunk(c) + aLayer.base + static_cast<size_t>(aNode) * 4;
    __m256 r[4];
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) r[q] = _mm256_max_ps(_mm256_setzero_ps(), _mm256_sub_ps(v[4 * c + q], mu));
    transposeHalves(r[0], r[1], r[2], r[3]);
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) _mm256_storeu_ps(base + 8 * q, r[q]);
  }
}

bool CFlatHierarchy::anyZeroWeightSum(int aLayer) const {
  const auto first = mZeroWeightSum.begin() + static_cast<long>(aLayer) * mTeam;
  return std::find(first, first + mTeam, 1) != first + mTeam;
}

// One thread's share of every layer's nodes, four at a time.
void CFlatHierarchy::normalizeShare(int aThread, int aThreads, std::vector<float>& aScratch) {
  for (int l = 0; l < size(); l++) {
    CLayer& layer = mLayers[l];
    const int quads = layer.nodes / 4;
    const CShare mine = share(quads, aThread, aThreads);
    int q = mine.begin;
    if (mChunks <= 2 && wideVectors())
      for (; q + 2 <= mine.end; q += 2) mChunks == 1 ? normalizeOctFixed<1>(layer, 4 * q) : normalizeOctFixed<2>(layer, 4 * q);
    for (; q < mine.end; q++) {
      switch (mChunks) {
        case 1: normalizeQuadFixed<1>(layer, 4 * q); break;
        case 2: normalizeQuadFixed<2>(layer, 4 * q); break;
        default: normalizeQuad(layer, 4 * q, aScratch); break;
      }
    }
    if (l % aThreads == aThread)
      for (int p = 4 * quads; p < layer.nodes; p++) normalizeNode(layer, p, aScratch.data());
  }
}

void CFlatHierarchy::solve(const CMatrix<float>& aConf, const CTensor<float>& aLabels, const CMatrix<float>& aWeight,
                           float aAlpha, float aOmega, int maxiter) {
  const int width = mXSize;
  const int n = width * mYSize;
  // Data term: constant for the whole solve.
  mConf.resize(n);
  mWeight.resize(n);
  mRhs.assign(static_cast<size_t>(mChunks) * n * 4, 0.0f);
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++) {
    const int x = i % width;
    const int y = i / width;
    const float c = aConf(x, y) == 1.0f ? 1.0f : 0.0f;
    const float w = aWeight(x, y);
    mConf[i] = c;
    mWeight[i] = w;
    for (int k = 0; k < mLabels; k++)
      mRhs[static_cast<size_t>(k / mLanes) * n * 4 + static_cast<size_t>(i) * 4 + k % mLanes] =
          w * aAlpha * c * aLabels(x, y, k);
  }
  if (maxiter <= 0) return;
  const int layers = size();
  const int wanted = std::max(1, std::min(omp_get_max_threads(), mChunks));
  std::unique_ptr<CYieldingBarrier> barrier;
#pragma omp parallel num_threads(wanted)
  {
#pragma omp single
    {
      mTeam = omp_get_num_threads();
      mZeroWeightSum.assign(static_cast<size_t>(layers) * mTeam, 0);
      barrier = std::make_unique<CYieldingBarrier>(mTeam);
    }
    const int thread = omp_get_thread_num();
    const int threads = omp_get_num_threads();
    std::vector<float> a(mLabels);
    std::vector<float> b(mLabels);
    // Room for the lanes of every chunk, aligned for SIMD.
    std::vector<float> scratch(static_cast<size_t>(std::max(16 * mChunks, mLabels)) + 4);
    for (int iter = 0; iter < maxiter; iter++) {
      computeVariableWeights(thread, threads, a, b);
      barrier->wait();
      computeWeightSums(thread, threads, aAlpha, aOmega);
      barrier->wait();
      for (int inner = 0; inner < kInnerIterations; inner++) {
        for (int c = thread; c < mChunks; c += threads) {
          sweepPixels(c, aAlpha, aOmega);
          for (int l = 1; l < layers; l++) sweepLayer(l, c, aOmega);
        }
        barrier->wait();
        normalizeShare(thread, threads, scratch);
        barrier->wait();
      }
    }
  }
}
