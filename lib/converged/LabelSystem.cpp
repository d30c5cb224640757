#include "LabelSystem.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "TextureFeatures.h"

namespace NConverged {

namespace {

// Keeps every unknown's system regular: a part of the graph without any
// labelled pixel settles at the even mix instead of being undetermined.
constexpr float kRegularisation = 1e-6f;
// Pixel edges weigh at least this: a pixel cluster behind edges of smaller
// weight would be decided by differences below the float resolution.
constexpr double kWeightFloor = 1e-4;

struct CEdge {
  int mFrom;
  int mTo;
  float mWeight;
};

// What the weights compare, per pixel: planes of one value per pixel, in
// groups (the texture features, the plain colour); a distance is the sum over
// the groups of the group's squared distance divided by its mean.
struct CPixelValues {
  std::vector<const double*> mPlanes;
  std::vector<int> mGroupEnd;  // index into mPlanes after each group
  int channels() const { return static_cast<int>(mPlanes.size()); }
};

// Normalised distances of aCount items; aSquared(item, firstPlane, endPlane)
// gives one group's squared distance.
template <class TSquared>
std::vector<double> normalisedDistances(const CPixelValues& aValues, int aCount, const TSquared& aSquared) {
  std::vector<double> result(static_cast<size_t>(aCount), 0.0);
  std::vector<double> part(static_cast<size_t>(aCount));
  int first = 0;
  for (const int end : aValues.mGroupEnd) {
#pragma omp parallel for schedule(static)
    for (int i = 0; i < aCount; i++) part[static_cast<size_t>(i)] = aSquared(i, first, end);
    // Summed in item order, so that the mean does not depend on the threads.
    double total = 0;
    for (const double value : part) total += value;
    // A group without any contrast adds nothing.
    if (total > 0)
#pragma omp parallel for schedule(static)
      for (int i = 0; i < aCount; i++) result[static_cast<size_t>(i)] += part[static_cast<size_t>(i)] * aCount / total;
    first = end;
  }
  return result;
}

// The regions of one segmentation: each colour is one region, numbered in
// the order of first appearance, with the mean of every value plane.
struct CRegions {
  std::vector<int> mOfPixel;
  std::vector<double> mMean;  // channels per region
  std::vector<int> mSize;
  int count() const { return static_cast<int>(mSize.size()); }
};

CRegions findRegions(const CTensor<float>& aSegmentation, const CPixelValues& aValues) {
  const int n = aSegmentation.xSize() * aSegmentation.ySize();
  const int channels = aValues.channels();
  const float* seg = aSegmentation.data();
  CRegions regions;
  regions.mOfPixel.resize(static_cast<size_t>(n));
  std::unordered_map<long long, int> idOfColour;
  // Neighbouring pixels mostly share their region: the last colour's number
  // is kept at hand.
  long long lastKey = -1;
  int lastId = -1;
  for (int i = 0; i < n; i++) {
    const long long key = (static_cast<long long>(seg[i]) << 16) | (static_cast<long long>(seg[i + n]) << 8) |
                          static_cast<long long>(seg[i + 2 * n]);
    if (key != lastKey) {
      const auto found = idOfColour.emplace(key, regions.count());
      if (found.second) {
        regions.mSize.push_back(0);
        regions.mMean.insert(regions.mMean.end(), static_cast<size_t>(channels), 0.0);
      }
      lastKey = key;
      lastId = found.first->second;
    }
    regions.mOfPixel[static_cast<size_t>(i)] = lastId;
    regions.mSize[static_cast<size_t>(lastId)]++;
    for (int c = 0; c < channels; c++) regions.mMean[static_cast<size_t>(channels * lastId + c)] += aValues.mPlanes[c][i];
  }
  for (int r = 0; r < regions.count(); r++)
    for (int c = 0; c < channels; c++)
      regions.mMean[static_cast<size_t>(channels * r + c)] /= regions.mSize[static_cast<size_t>(r)];
  return regions;
}

// Each region's parent: the coarser region holding most of its pixels (the
// first such on a tie), so that segmentations need not be nested.
std::vector<int> parentsOf(const CRegions& aFine, const CRegions& aCoarse) {
  std::vector<std::unordered_map<int, int>> overlap(static_cast<size_t>(aFine.count()));
  // Counted by runs of pixels that share both regions.
  const size_t n = aFine.mOfPixel.size();
  for (size_t start = 0, end = 0; start < n; start = end) {
    for (end = start + 1; end < n && aFine.mOfPixel[end] == aFine.mOfPixel[start] && aCoarse.mOfPixel[end] == aCoarse.mOfPixel[start];)
      end++;
    overlap[static_cast<size_t>(aFine.mOfPixel[start])][aCoarse.mOfPixel[start]] += static_cast<int>(end - start);
  }
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

// Four-neighbour edges weighing exp(-beta * d / mean d), d the squared
// distance of the two pixels' values of aPlanes. A pixel adds its edge to
// the right, then the one below; each pixel's place in that order is known,
// so the rows are filled side by side.
void addPixelEdges(int aWidth, int aHeight, const std::vector<const double*>& aPlanes, float aBeta,
                   std::vector<CEdge>& aEdges) {
  auto difference = [&](int a, int b) {
    double sum = 0;
    for (const double* plane : aPlanes) sum += (plane[a] - plane[b]) * (plane[a] - plane[b]);
    return sum;
  };
  const size_t first = aEdges.size();
  const size_t perRow = 2 * static_cast<size_t>(aWidth) - 1;
  const size_t count = aWidth > 0 && aHeight > 0 ? (static_cast<size_t>(aHeight) - 1) * perRow + aWidth - 1 : 0;
  aEdges.resize(first + count);
  std::vector<double> distance(count);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < aHeight; y++) {
    size_t e = static_cast<size_t>(y) * perRow;
    for (int x = 0; x < aWidth; x++) {
      const int i = x + y * aWidth;
      for (const int j : {i + 1, i + aWidth}) {
        if (j == i + 1 ? x + 1 == aWidth : y + 1 == aHeight) continue;
        distance[e] = difference(i, j);
        aEdges[first + e] = {i, j, static_cast<float>(distance[e])};
        e++;
      }
    }
  }
  double total = 0;
  for (const double d : distance) total += d;
  // A flat image has no contrast to scale by: all its edges weigh 1.
  const double mean = count > 0 && total > 0 ? total / count : 1.0;
#pragma omp parallel for schedule(static)
  for (size_t e = first; e < aEdges.size(); e++)
    aEdges[e].mWeight = static_cast<float>(std::max(std::exp(-aBeta * aEdges[e].mWeight / mean), kWeightFloor));
}

// Links of every pixel to its finest region and of every region to its
// parent, gated by the normalised distance of the two ends' values; labelled
// pixels hold on to their region more strongly. Returns the number of
// regions of every segmentation.
std::vector<int> addRegionLinks(const CPixelValues& aValues, const std::vector<CTensor<float>>& aSegmentations,
                                const CConvergedParameters& aParameters, const CMatrix<int>& aLabelOf,
                                std::vector<CEdge>& aEdges) {
  const int n = aLabelOf.xSize() * aLabelOf.ySize();
  const int channels = aValues.channels();
  std::vector<CRegions> layers(aSegmentations.size());
#pragma omp parallel for schedule(dynamic, 1)
  for (size_t k = 0; k < aSegmentations.size(); k++) layers[k] = findRegions(aSegmentations[k], aValues);
  const double link = aParameters.mPixelLink * std::sqrt(kReferencePixels / n);
  const CRegions& finest = layers[0];
  const std::vector<double> distance = normalisedDistances(aValues, n, [&](int i, int aFirst, int aEnd) {
    const double* mean = &finest.mMean[static_cast<size_t>(channels) * finest.mOfPixel[static_cast<size_t>(i)]];
    double sum = 0;
    for (int c = aFirst; c < aEnd; c++) sum += (aValues.mPlanes[c][i] - mean[c]) * (aValues.mPlanes[c][i] - mean[c]);
    return sum;
  });
  const size_t first = aEdges.size();
  aEdges.resize(first + static_cast<size_t>(n));
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++)
    aEdges[first + static_cast<size_t>(i)] = {
        i, n + finest.mOfPixel[static_cast<size_t>(i)],
        static_cast<float>((aLabelOf.data()[i] >= 0 ? aParameters.mSeedLink : 1.0) * link *
                           std::max(std::exp(-aParameters.mGate * distance[static_cast<size_t>(i)]),
                                    static_cast<double>(aParameters.mGateFloor)))};
  int firstNode = n;
  for (size_t k = 0; k + 1 < layers.size(); k++) {
    const CRegions& fine = layers[k];
    const CRegions& coarse = layers[k + 1];
    const int coarseFirst = firstNode + fine.count();
    const std::vector<int> parent = parentsOf(fine, coarse);
    const std::vector<double> gap = normalisedDistances(aValues, fine.count(), [&](int r, int aFirst, int aEnd) {
      const double* a = &fine.mMean[static_cast<size_t>(channels) * r];
      const double* b = &coarse.mMean[static_cast<size_t>(channels) * parent[static_cast<size_t>(r)]];
      double sum = 0;
      for (int c = aFirst; c < aEnd; c++) sum += (a[c] - b[c]) * (a[c] - b[c]);
      return sum;
    });
    for (int r = 0; r < fine.count(); r++)
      aEdges.push_back({firstNode + r, coarseFirst + parent[static_cast<size_t>(r)],
                        static_cast<float>(aParameters.mParentLink * link * fine.mSize[static_cast<size_t>(r)] *
                                           std::exp(-aParameters.mGate * gap[static_cast<size_t>(r)]))});
    firstNode = coarseFirst;
  }
  std::vector<int> counts;
  for (const CRegions& layer : layers) counts.push_back(layer.count());
  return counts;
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
  // The plain colour, and with a texture window the features of the image;
  // pixel edges compare the features alone (the colour would cut a striped
  // region at every stripe), the region gates both.
  std::vector<double> colour(aImage.data(), aImage.data() + static_cast<size_t>(3) * n);
  CTextureFeatures features;
  CPixelValues values;
  const int radius = textureRadius(n, aParameters.mTextureRadius);
  if (radius > 0) {
    features = textureFeatures(aImage, radius, aParameters.mOrientationWeight);
    for (int c = 0; c < CTextureFeatures::kPlanes; c++) values.mPlanes.push_back(features.plane(c));
    values.mGroupEnd.push_back(values.channels());
  }
  const std::vector<const double*> edgePlanes =
      radius > 0 ? values.mPlanes : std::vector<const double*>{colour.data(), colour.data() + n, colour.data() + 2 * n};
  for (int c = 0; c < 3; c++) values.mPlanes.push_back(colour.data() + static_cast<size_t>(c) * n);
  values.mGroupEnd.push_back(values.channels());

  std::vector<CEdge> edges;
  edges.reserve(static_cast<size_t>(n) * (aSegmentations.empty() ? 2 : 3));
  addPixelEdges(aImage.xSize(), aImage.ySize(), edgePlanes, aParameters.mBeta, edges);
  const std::vector<int> regionCounts =
      aSegmentations.empty() ? std::vector<int>() : addRegionLinks(values, aSegmentations, aParameters, aLabelOf, edges);
  const int nodes = nodeCount(n, edges);

  CLabelSystem system;
  system.mLabelCount = aLabelCount;
  std::vector<int> unknownOf(static_cast<size_t>(nodes));
  int unknowns = 0;
  for (int i = 0; i < nodes; i++) unknownOf[static_cast<size_t>(i)] = i < n && aLabelOf.data()[i] >= 0 ? -1 : unknowns++;
  system.mUnknownOfPixel.assign(unknownOf.begin(), unknownOf.begin() + n);
  const auto labelOf = [&](int aNode) { return aLabelOf.data()[aNode]; };

  CSparseGraph& matrix = system.mMatrix;
  // The unlabelled pixels come first, then each segmentation's regions:
  // these are the smoother's phases (no region links to another of its own
  // segmentation).
  int regionUnknowns = 0;
  for (const int count : regionCounts) regionUnknowns += count;
  int phaseStart = unknowns - regionUnknowns;
  for (const int count : regionCounts) {
    matrix.mPhaseStart.push_back(phaseStart);
    phaseStart += count;
  }
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
