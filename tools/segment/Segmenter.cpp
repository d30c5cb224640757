#include "Segmenter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <unordered_map>

#include "CErrors.h"
#include "CRegionGraph.h"
#include "Superpixels.h"

namespace NSegment {

namespace {

// Pixels per region of the finest and of the coarsest default level. On the
// benchmark scenes the labelling tool does best with finest regions of about
// 500 pixels (200 loses four to six points of accuracy, 600 gains at 640x480
// but loses at 320x240); the coarsest level matters little.
constexpr double kFinestArea = 500.0;
constexpr double kCoarsestArea = 3000.0;

// The clustering starts with this many times the finest region count; the
// merging then removes the weakest boundaries first.
constexpr double kOverSegmentation = 2.5;
constexpr float kCompactness = 10.0f;
constexpr int kIterations = 5;
// Pieces below this fraction of a seed cell are absorbed before any merging.
constexpr double kMinPieceFraction = 0.25;

// Colour offsets within a ball, nearest first (ties in a fixed order). The
// ball grows on demand up to kMaxRadius; growing keeps the order of the
// offsets already listed.
class COffsets {
public:
  static constexpr int kMaxRadius = 32;
  // Null past the largest ball.
  const std::array<int, 3>* at(size_t i) {
    while (i >= mOffsets.size() && mRadius < kMaxRadius) grow();
    return i < mOffsets.size() ? &mOffsets[i] : nullptr;
  }

private:
  void grow() {
    mRadius = mRadius == 0 ? 8 : mRadius * 2;
    const int r2 = mRadius * mRadius;
    mOffsets.clear();
    for (int dz = -mRadius; dz <= mRadius; dz++)
      for (int dy = -mRadius; dy <= mRadius; dy++)
        for (int dx = -mRadius; dx <= mRadius; dx++)
          if (dx * dx + dy * dy + dz * dz <= r2) mOffsets.push_back({dx, dy, dz});
    std::stable_sort(mOffsets.begin(), mOffsets.end(), [](const auto& p, const auto& q) {
      return p[0] * p[0] + p[1] * p[1] + p[2] * p[2] < q[0] * q[0] + q[1] * q[1] + q[2] * q[2];
    });
  }

  int mRadius = 0;
  std::vector<std::array<int, 3>> mOffsets;
};

int colourKey(int r, int g, int b) { return (b * 256 + g) * 256 + r; }

// Takes the free colour nearest to aMean, searching from offset aNext on
// (colours only ever get taken, so an offset found taken stays taken). When
// the whole ball around aMean is taken, the first free colour in key order
// from aAnyFree on is taken instead.
std::array<int, 3> freeColour(const std::array<int, 3>& aMean, std::vector<bool>& aTaken, size_t& aNext,
                              COffsets& aOffsets, int& aAnyFree) {
  for (; const std::array<int, 3>* d = aOffsets.at(aNext); aNext++) {
    const int r = aMean[0] + (*d)[0];
    const int g = aMean[1] + (*d)[1];
    const int b = aMean[2] + (*d)[2];
    if (r < 0 || g < 0 || b < 0 || r > 255 || g > 255 || b > 255 || aTaken[static_cast<size_t>(colourKey(r, g, b))])
      continue;
    aTaken[static_cast<size_t>(colourKey(r, g, b))] = true;
    return {r, g, b};
  }
  while (aAnyFree < (1 << 24) && aTaken[static_cast<size_t>(aAnyFree)]) aAnyFree++;
  if (aAnyFree == (1 << 24)) throw EFileError("segmentation", "more regions than colours");
  aTaken[static_cast<size_t>(aAnyFree)] = true;
  return {aAnyFree % 256, aAnyFree / 256 % 256, aAnyFree / 65536};
}

}  // namespace

int coarserLimit(int aRegions) { return std::max(1, static_cast<int>(std::floor(0.8 * aRegions))); }

std::vector<int> defaultRegionCounts(int aPixels, int aLevels) {
  std::vector<int> counts;
  for (int k = 0; k < aLevels; k++) {
    const double t = aLevels > 1 ? static_cast<double>(k) / (aLevels - 1) : 0.0;
    const double area = kFinestArea * std::pow(kCoarsestArea / kFinestArea, t);
    const int count = std::max(1, static_cast<int>(std::lround(aPixels / area)));
    counts.push_back(counts.empty() ? count : std::min(count, coarserLimit(counts.back())));
  }
  return counts;
}

std::vector<CMatrix<int>> segment(const CTensor<float>& aImage, const std::vector<int>& aCounts) {
  std::vector<CMatrix<int>> levels;
  if (aCounts.empty()) return levels;
  const int pixels = aImage.xSize() * aImage.ySize();
  // The clustering sees a smoothed image, so that noise does not fray the
  // superpixels; the merging measures texture, so it sees the image as it is.
  const CTensor<float> lab = toLab(aImage);
  const int finest = std::clamp(aCounts.front(), 1, std::max(pixels, 1));
  const int seeds = static_cast<int>(std::min<double>(std::ceil(finest * kOverSegmentation), std::max(pixels, 1)));
  CMatrix<int> pieces;
  const int count = connectedComponents(slic(smooth(lab), seeds, kCompactness, kIterations), pieces);
  CRegionGraph graph(lab, pieces, count);
  graph.absorbSmall(static_cast<int>(kMinPieceFraction * pixels / seeds));
  for (const int target : aCounts) {
    // An image with fewer regions than asked for must still shrink per level.
    graph.mergeDownTo(levels.empty() ? std::max(target, 1) : std::min(target, coarserLimit(graph.count())));
    levels.push_back(graph.labels());
  }
  return levels;
}

CTensor<float> paintRegions(const CTensor<float>& aImage, const CMatrix<int>& aLabels) {
  const int n = aLabels.size();
  const int regions = n > 0 ? *std::max_element(aLabels.data(), aLabels.data() + n) + 1 : 0;
  std::vector<std::array<double, 4>> sums(static_cast<size_t>(regions), {0, 0, 0, 0});
  for (int i = 0; i < n; i++) {
    std::array<double, 4>& s = sums[static_cast<size_t>(aLabels.data()[i])];
    for (int c = 0; c < 3; c++) s[static_cast<size_t>(c)] += aImage.data()[i + static_cast<size_t>(c) * n];
    s[3] += 1.0;
  }
  std::vector<bool> taken(1 << 24, false);
  // Per mean colour, the offset where its search goes on.
  std::unordered_map<int, size_t> nextOffset;
  COffsets offsets;
  int anyFree = 0;
  std::vector<std::array<int, 3>> colours(static_cast<size_t>(regions));
  for (size_t r = 0; r < colours.size(); r++) {
    const double size = std::max(sums[r][3], 1.0);
    std::array<int, 3> mean{};
    for (size_t c = 0; c < 3; c++) mean[c] = static_cast<int>(std::clamp(std::lround(sums[r][c] / size), 0L, 255L));
    colours[r] = freeColour(mean, taken, nextOffset[colourKey(mean[0], mean[1], mean[2])], offsets, anyFree);
  }
  CTensor<float> painted(aLabels.xSize(), aLabels.ySize(), 3);
  for (int i = 0; i < n; i++)
    for (size_t c = 0; c < 3; c++)
      painted.data()[i + c * n] = static_cast<float>(colours[static_cast<size_t>(aLabels.data()[i])][c]);
  return painted;
}

}  // namespace NSegment
