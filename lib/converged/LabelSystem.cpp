#include "LabelSystem.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace NConverged {

namespace {

// Keeps every unknown's system regular: a part of the graph without any
// labelled pixel settles at the even mix instead of being undetermined.
constexpr float kRegularisation = 1e-6f;
// Pixel edges weigh at least this: a pixel cluster behind edges of smaller
// weight would be decided by differences below the float resolution.
constexpr double kWeightFloor = 1e-4;
// The pixel count at which CConvergedParameters::mPixelLink applies as given.
constexpr double kReferencePixels = 320.0 * 240.0;

struct CEdge {
  int mFrom;
  int mTo;
  float mWeight;
};

double squaredDistance(const double* aA, const double* aB) {
  double sum = 0;
  for (int c = 0; c < 3; c++) sum += (aA[c] - aB[c]) * (aA[c] - aB[c]);
  return sum;
}

// The regions of one segmentation: each colour is one region, numbered in
// the order of first appearance.
struct CRegions {
  std::vector<int> mOfPixel;
  std::vector<double> mMean;  // three per region
  std::vector<int> mSize;
  int count() const { return static_cast<int>(mSize.size()); }
};

CRegions findRegions(const CTensor<float>& aSegmentation, const CTensor<float>& aImage) {
  const int n = aImage.xSize() * aImage.ySize();
  const float* seg = aSegmentation.data();
  const float* image = aImage.data();
  CRegions regions;
  regions.mOfPixel.resize(static_cast<size_t>(n));
  std::unordered_map<long long, int> idOfColour;
  for (int i = 0; i < n; i++) {
    const long long key = (static_cast<long long>(seg[i]) << 16) | (static_cast<long long>(seg[i + n]) << 8) |
                          static_cast<long long>(seg[i + 2 * n]);
    const auto found = idOfColour.emplace(key, regions.count());
    if (found.second) {
      regions.mSize.push_back(0);
      regions.mMean.insert(regions.mMean.end(), 3, 0.0);
    }
    const int id = found.first->second;
    regions.mOfPixel[static_cast<size_t>(i)] = id;
    regions.mSize[static_cast<size_t>(id)]++;
    for (int c = 0; c < 3; c++) regions.mMean[static_cast<size_t>(3 * id + c)] += image[i + c * n];
  }
  for (int r = 0; r < regions.count(); r++)
    for (int c = 0; c < 3; c++) regions.mMean[static_cast<size_t>(3 * r + c)] /= regions.mSize[static_cast<size_t>(r)];
  return regions;
}

// Each region's parent: the coarser region holding most of its pixels (the
// first such on a tie), so that segmentations need not be nested.
std::vector<int> parentsOf(const CRegions& aFine, const CRegions& aCoarse) {
  std::vector<std::unordered_map<int, int>> overlap(static_cast<size_t>(aFine.count()));
  for (size_t i = 0; i < aFine.mOfPixel.size(); i++) overlap[static_cast<size_t>(aFine.mOfPixel[i])][aCoarse.mOfPixel[i]]++;
  std::vector<int> parent(static_cast<size_t>(aFine.count()));
  for (size_t r = 0; r < overlap.size(); r++) {
    int best = -1;
    int bestCount = 0;
    for (const auto& entry : overlap[r])
      if (entry.second > bestCount || (entry.second == bestCount && entry.first < best)) {
        best = entry.first;
        bestCount = entry.second;
      }
    parent[r] = best;
  }
  return parent;
}

void addPixelEdges(const CTensor<float>& aImage, float aBeta, std::vector<CEdge>& aEdges) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const int n = width * height;
  const float* image = aImage.data();
  auto difference = [&](int a, int b) {
    double sum = 0;
    for (int c = 0; c < 3; c++) {
      const double d = static_cast<double>(image[a + c * n]) - image[b + c * n];
      sum += d * d;
    }
    return sum;
  };
  const size_t first = aEdges.size();
  double total = 0;
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      const int i = x + y * width;
      if (x + 1 < width) {
        const double d = difference(i, i + 1);
        total += d;
        aEdges.push_back({i, i + 1, static_cast<float>(d)});
      }
      if (y + 1 < height) {
        const double d = difference(i, i + width);
        total += d;
        aEdges.push_back({i, i + width, static_cast<float>(d)});
      }
    }
  const size_t count = aEdges.size() - first;
  // A flat image has no contrast to scale by: all its edges weigh 1.
  const double mean = count > 0 && total > 0 ? total / count : 1.0;
  for (size_t e = first; e < aEdges.size(); e++)
    aEdges[e].mWeight = static_cast<float>(std::max(std::exp(-aBeta * aEdges[e].mWeight / mean), kWeightFloor));
}

// Links of every pixel to its finest region and of every region to its
// parent, gated by the colour distance between the two ends; labelled pixels
// hold on to their region more strongly.
void addRegionLinks(const CTensor<float>& aImage, const std::vector<CTensor<float>>& aSegmentations,
                    const CConvergedParameters& aParameters, const CMatrix<int>& aLabelOf, std::vector<CEdge>& aEdges) {
  const int n = aImage.xSize() * aImage.ySize();
  std::vector<CRegions> layers;
  for (const CTensor<float>& segmentation : aSegmentations) layers.push_back(findRegions(segmentation, aImage));
  const double link = aParameters.mPixelLink * std::sqrt(kReferencePixels / n);
  const float* image = aImage.data();
  std::vector<double> distance(static_cast<size_t>(n));
  double total = 0;
  for (int i = 0; i < n; i++) {
    const double colour[3] = {image[i], image[i + n], image[i + 2 * n]};
    const int region = layers[0].mOfPixel[static_cast<size_t>(i)];
    distance[static_cast<size_t>(i)] = squaredDistance(colour, &layers[0].mMean[static_cast<size_t>(3 * region)]);
    total += distance[static_cast<size_t>(i)];
  }
  double mean = total > 0 ? total / n : 1.0;
  for (int i = 0; i < n; i++)
    aEdges.push_back({i, n + layers[0].mOfPixel[static_cast<size_t>(i)],
                      static_cast<float>((aLabelOf.data()[i] >= 0 ? aParameters.mSeedLink : 1.0) * link *
                                         std::exp(-aParameters.mGate * distance[static_cast<size_t>(i)] / mean))});
  int firstNode = n;
  for (size_t k = 0; k + 1 < layers.size(); k++) {
    const CRegions& fine = layers[k];
    const CRegions& coarse = layers[k + 1];
    const int coarseFirst = firstNode + fine.count();
    const std::vector<int> parent = parentsOf(fine, coarse);
    std::vector<double> gap(static_cast<size_t>(fine.count()));
    total = 0;
    for (int r = 0; r < fine.count(); r++) {
      gap[static_cast<size_t>(r)] = squaredDistance(&fine.mMean[static_cast<size_t>(3 * r)],
                                                    &coarse.mMean[static_cast<size_t>(3 * parent[static_cast<size_t>(r)])]);
      total += gap[static_cast<size_t>(r)];
    }
    mean = total > 0 ? total / fine.count() : 1.0;
    for (int r = 0; r < fine.count(); r++)
      aEdges.push_back({firstNode + r, coarseFirst + parent[static_cast<size_t>(r)],
                        static_cast<float>(aParameters.mParentLink * link * fine.mSize[static_cast<size_t>(r)] *
                                           std::exp(-aParameters.mGate * gap[static_cast<size_t>(r)] / mean))});
    firstNode = coarseFirst;
  }
}

int nodeCount(int aPixels, const std::vector<CEdge>& aEdges) {
  int count = aPixels;
  for (const CEdge& edge : aEdges) count = std::max(count, std::max(edge.mFrom, edge.mTo) + 1);
  return count;
}

}  // namespace

CLabelSystem buildLabelSystem(const CTensor<float>& aImage, const std::vector<CTensor<float>>& aSegmentations,
                              const CMatrix<int>& aLabelOf, int aLabelCount, const CConvergedParameters& aParameters) {
  const int n = aImage.xSize() * aImage.ySize();
  std::vector<CEdge> edges;
  edges.reserve(static_cast<size_t>(n) * (aSegmentations.empty() ? 2 : 3));
  addPixelEdges(aImage, aParameters.mBeta, edges);
  if (!aSegmentations.empty()) addRegionLinks(aImage, aSegmentations, aParameters, aLabelOf, edges);
  const int nodes = nodeCount(n, edges);

  CLabelSystem system;
  system.mLabelCount = aLabelCount;
  std::vector<int> unknownOf(static_cast<size_t>(nodes));
  int unknowns = 0;
  for (int i = 0; i < nodes; i++) unknownOf[static_cast<size_t>(i)] = i < n && aLabelOf.data()[i] >= 0 ? -1 : unknowns++;
  system.mUnknownOfPixel.assign(unknownOf.begin(), unknownOf.begin() + n);
  const auto labelOf = [&](int aNode) { return aLabelOf.data()[aNode]; };

  CSparseGraph& matrix = system.mMatrix;
  matrix.mGround.assign(static_cast<size_t>(unknowns), kRegularisation);
  system.mRhs.assign(static_cast<size_t>(unknowns) * aLabelCount, kRegularisation / aLabelCount);
  std::vector<int> links(static_cast<size_t>(unknowns) + 1, 0);
  for (const CEdge& edge : edges) {
    const int a = unknownOf[static_cast<size_t>(edge.mFrom)];
    const int b = unknownOf[static_cast<size_t>(edge.mTo)];
    if (a >= 0 && b >= 0) {
      links[static_cast<size_t>(a) + 1]++;
      links[static_cast<size_t>(b) + 1]++;
    } else if (a >= 0) {
      matrix.mGround[static_cast<size_t>(a)] += edge.mWeight;
      system.mRhs[static_cast<size_t>(a) * aLabelCount + labelOf(edge.mTo)] += edge.mWeight;
    } else if (b >= 0) {
      matrix.mGround[static_cast<size_t>(b)] += edge.mWeight;
      system.mRhs[static_cast<size_t>(b) * aLabelCount + labelOf(edge.mFrom)] += edge.mWeight;
    }
  }
  for (int i = 0; i < unknowns; i++) links[static_cast<size_t>(i) + 1] += links[static_cast<size_t>(i)];
  matrix.mStart = links;
  matrix.mNeighbour.resize(static_cast<size_t>(links.back()));
  matrix.mWeight.resize(static_cast<size_t>(links.back()));
  for (const CEdge& edge : edges) {
    const int a = unknownOf[static_cast<size_t>(edge.mFrom)];
    const int b = unknownOf[static_cast<size_t>(edge.mTo)];
    if (a < 0 || b < 0) continue;
    const int at = links[static_cast<size_t>(a)]++;
    matrix.mNeighbour[static_cast<size_t>(at)] = b;
    matrix.mWeight[static_cast<size_t>(at)] = edge.mWeight;
    const int bt = links[static_cast<size_t>(b)]++;
    matrix.mNeighbour[static_cast<size_t>(bt)] = a;
    matrix.mWeight[static_cast<size_t>(bt)] = edge.mWeight;
  }
  return system;
}

}  // namespace NConverged
