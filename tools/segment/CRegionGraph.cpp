#include "CRegionGraph.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <queue>
#include <tuple>

namespace {

// Weight of the squared texture difference against the squared colour difference.
constexpr double kTextureWeight = 8.0;
// Weight of the boundary contrast relative to the regions' inner contrast.
constexpr double kBoundaryWeight = 1.0;

}  // namespace

CRegionGraph::CRegionGraph(const CTensor<float>& aFeatures, const CMatrix<int>& aRegions, int aCount)
    : mInitial(aRegions), mRegions(static_cast<size_t>(aCount)), mParent(static_cast<size_t>(aCount)), mAlive(aCount) {
  const int w = aRegions.xSize();
  const int h = aRegions.ySize();
  const int n = w * h;
  const float* L = aFeatures.data();
  const float* A = L + n;
  const float* B = A + n;
  auto step = [&](int i, int j) {
    const float dl = L[i] - L[j];
    const float da = A[i] - A[j];
    const float db = B[i] - B[j];
    return std::sqrt(static_cast<double>(dl * dl + da * da + db * db));
  };
  for (int i = 0; i < n; i++) {
    CRegion& region = mRegions[static_cast<size_t>(aRegions.data()[i])];
    region.size++;
    region.colour[0] += L[i];
    region.colour[1] += A[i];
    region.colour[2] += B[i];
  }
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const int i = x + y * w;
      if (x + 1 < w) addPair(aRegions.data()[i], aRegions.data()[i + 1], step(i, i + 1));
      if (y + 1 < h) addPair(aRegions.data()[i], aRegions.data()[i + w], step(i, i + w));
    }
  for (int r = 0; r < aCount; r++) {
    mParent[static_cast<size_t>(r)] = r;
    mRegions[static_cast<size_t>(r)].stamp = mNextStamp++;
  }
}

void CRegionGraph::addPair(int aRegion, int aOther, double aStep) {
  if (aRegion == aOther) {
    mRegions[static_cast<size_t>(aRegion)].texture += aStep;
    mRegions[static_cast<size_t>(aRegion)].texturePairs++;
    return;
  }
  int e = edgeBetween(aRegion, aOther);
  if (e < 0) {
    e = static_cast<int>(mEdges.size());
    mEdges.push_back({std::min(aRegion, aOther), std::max(aRegion, aOther), 0, 0.0, true});
    mRegions[static_cast<size_t>(aRegion)].edges.push_back(e);
    mRegions[static_cast<size_t>(aOther)].edges.push_back(e);
  }
  mEdges[static_cast<size_t>(e)].length++;
  mEdges[static_cast<size_t>(e)].strength += aStep;
}

int CRegionGraph::edgeBetween(int aRegion, int aOther) const {
  for (const int e : mRegions[static_cast<size_t>(aRegion)].edges) {
    const CEdge& edge = mEdges[static_cast<size_t>(e)];
    if (edge.a == aOther || edge.b == aOther) return e;
  }
  return -1;
}

double CRegionGraph::colourDistance2(int aA, int aB) const {
  const CRegion& a = mRegions[static_cast<size_t>(aA)];
  const CRegion& b = mRegions[static_cast<size_t>(aB)];
  double sum = 0;
  for (int c = 0; c < 3; c++) {
    const double d = a.colour[c] / a.size - b.colour[c] / b.size;
    sum += d * d;
  }
  return sum;
}

double CRegionGraph::mergeCost(const CEdge& aEdge) const {
  const CRegion& a = mRegions[static_cast<size_t>(aEdge.a)];
  const CRegion& b = mRegions[static_cast<size_t>(aEdge.b)];
  auto inner = [](const CRegion& r) { return r.texturePairs > 0 ? r.texture / r.texturePairs : 0.0; };
  const double texture = inner(a) - inner(b);
  const double boundary = aEdge.strength / aEdge.length;
  // One colour unit in the denominator keeps the ratio finite for flat regions.
  const double contrast = boundary / (0.5 * (inner(a) + inner(b)) + 1.0);
  const double ward = static_cast<double>(a.size) * b.size / (a.size + b.size);
  return ward * (colourDistance2(aEdge.a, aEdge.b) + kTextureWeight * texture * texture) *
         (1.0 + kBoundaryWeight * contrast);
}

int CRegionGraph::merge(int aEdge) {
  CEdge& joined = mEdges[static_cast<size_t>(aEdge)];
  joined.alive = false;
  // The region with more edges survives, so fewer edges are moved.
  int keep = joined.a;
  int gone = joined.b;
  if (mRegions[static_cast<size_t>(gone)].edges.size() > mRegions[static_cast<size_t>(keep)].edges.size())
    std::swap(keep, gone);
  CRegion& k = mRegions[static_cast<size_t>(keep)];
  CRegion& g = mRegions[static_cast<size_t>(gone)];
  k.size += g.size;
  for (int c = 0; c < 3; c++) k.colour[c] += g.colour[c];
  // The boundary between the two becomes inner texture.
  k.texture += g.texture + joined.strength;
  k.texturePairs += g.texturePairs + joined.length;
  k.stamp = mNextStamp++;
  g.alive = false;
  mParent[static_cast<size_t>(gone)] = keep;
  mAlive--;

  auto dropEdge = [&](std::vector<int>& aList, int aDropped) {
    aList.erase(std::find(aList.begin(), aList.end(), aDropped));
  };
  dropEdge(k.edges, aEdge);
  for (const int e : g.edges) {
    if (e == aEdge) continue;
    CEdge& edge = mEdges[static_cast<size_t>(e)];
    const int other = edge.a == gone ? edge.b : edge.a;
    const int existing = edgeBetween(keep, other);
    if (existing >= 0) {
      mEdges[static_cast<size_t>(existing)].length += edge.length;
      mEdges[static_cast<size_t>(existing)].strength += edge.strength;
      edge.alive = false;
      dropEdge(mRegions[static_cast<size_t>(other)].edges, e);
    } else {
      edge.a = std::min(keep, other);
      edge.b = std::max(keep, other);
      k.edges.push_back(e);
    }
  }
  g.edges.clear();
  g.edges.shrink_to_fit();
  return keep;
}

int CRegionGraph::find(int aRegion) {
  int root = aRegion;
  while (mParent[static_cast<size_t>(root)] != root) root = mParent[static_cast<size_t>(root)];
  while (mParent[static_cast<size_t>(aRegion)] != root) {
    const int next = mParent[static_cast<size_t>(aRegion)];
    mParent[static_cast<size_t>(aRegion)] = root;
    aRegion = next;
  }
  return root;
}

void CRegionGraph::absorbSmall(int aMinSize) {
  // (size, region), smallest first; entries whose size is outdated are skipped.
  using CEntry = std::pair<int, int>;
  std::priority_queue<CEntry, std::vector<CEntry>, std::greater<CEntry>> queue;
  for (int r = 0; r < static_cast<int>(mRegions.size()); r++)
    if (mRegions[static_cast<size_t>(r)].alive && mRegions[static_cast<size_t>(r)].size < aMinSize)
      queue.push({mRegions[static_cast<size_t>(r)].size, r});
  while (!queue.empty()) {
    const auto [size, r] = queue.top();
    queue.pop();
    const CRegion& region = mRegions[static_cast<size_t>(r)];
    if (!region.alive || region.size != size || region.edges.empty()) continue;
    int best = -1;
    double bestDistance = 0;
    for (const int e : region.edges) {
      const CEdge& edge = mEdges[static_cast<size_t>(e)];
      const double d = colourDistance2(edge.a, edge.b);
      if (best < 0 || d < bestDistance) {
        best = e;
        bestDistance = d;
      }
    }
    const int kept = merge(best);
    if (mRegions[static_cast<size_t>(kept)].size < aMinSize) queue.push({mRegions[static_cast<size_t>(kept)].size, kept});
  }
}

void CRegionGraph::mergeDownTo(int aCount) {
  // (cost, edge, stamp of a, stamp of b), cheapest first. An entry is stale
  // once either region has changed since it was pushed.
  using CEntry = std::tuple<double, int, int, int>;
  std::priority_queue<CEntry, std::vector<CEntry>, std::greater<CEntry>> queue;
  auto push = [&](int e) {
    const CEdge& edge = mEdges[static_cast<size_t>(e)];
    queue.push({mergeCost(edge), e, mRegions[static_cast<size_t>(edge.a)].stamp,
                mRegions[static_cast<size_t>(edge.b)].stamp});
  };
  for (int e = 0; e < static_cast<int>(mEdges.size()); e++)
    if (mEdges[static_cast<size_t>(e)].alive) push(e);
  while (mAlive > aCount && !queue.empty()) {
    const auto [cost, e, stampA, stampB] = queue.top();
    queue.pop();
    const CEdge& edge = mEdges[static_cast<size_t>(e)];
    if (!edge.alive || mRegions[static_cast<size_t>(edge.a)].stamp != stampA ||
        mRegions[static_cast<size_t>(edge.b)].stamp != stampB)
      continue;
    const int kept = merge(e);
    for (const int next : mRegions[static_cast<size_t>(kept)].edges) push(next);
  }
}

CMatrix<int> CRegionGraph::labels() {
  CMatrix<int> result(mInitial.xSize(), mInitial.ySize());
  std::vector<int> number(mRegions.size(), -1);
  int count = 0;
  for (int i = 0; i < mInitial.size(); i++) {
    int& label = number[static_cast<size_t>(find(mInitial.data()[i]))];
    if (label < 0) label = count++;
    result.data()[i] = label;
  }
  return result;
}
