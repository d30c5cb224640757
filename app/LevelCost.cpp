#include "LevelCost.h"

#include <cmath>
#include <sstream>

namespace NDriver {

namespace {

// Below this many coarser links per sweep a level is quick whatever its shape.
constexpr long long kNoticeableLinks = 1000000;
// A pixel's update walks about this many links (four neighbours, the parent).
constexpr long long kPixelLinks = 5;
// Link updates per second of processor time, measured on the development
// machine; the estimate only needs the order of magnitude.
constexpr double kUpdatesPerSecond = 1.5e9;
// Above this share of the layer below, a layer does not shrink.
constexpr double kShrinkRatio = 0.8;

std::string segmentationOf(int aLayer, const std::vector<std::string>& aNames) {
  const size_t index = static_cast<size_t>(aLayer - 1);
  return index < aNames.size() ? aNames[index] : "segmentation " + std::to_string(aLayer - 1);
}

// Why a layer has so many links, and what avoids them.
std::string cause(int aNodes, int aFinerNodes, int aLayer, long long aLinks, std::string& aRemedy) {
  std::ostringstream text;
  const long long perNode = aNodes > 0 ? aLinks / aNodes : 0;
  if (aLayer > 1 && aNodes > kShrinkRatio * aFinerNodes) {
    text << "the layer does not shrink (" << aNodes << " regions above " << aFinerNodes
         << " in the layer below), so its regions have about " << perNode << " links each";
    aRemedy = "Segmentations with at most 0.8 times the regions of the level below avoid this.";
  } else {
    text << "a region touches so many others that the layer's " << aNodes << " regions have about " << perNode
         << " links each";
    aRemedy = "Segmentations without a region that touches hundreds of others avoid this.";
  }
  return text.str();
}

std::string megabytes(size_t aBytes) { return std::to_string((aBytes + (1 << 20) - 1) >> 20) + " MB"; }

}  // namespace

// Finer levels have at least the regions of coarser ones, so the estimate
// from this level's links is a lower bound for the levels left.
std::string costWarning(const CLevelCost& aCost, const std::vector<std::string>& aNames) {
  long long coarse = 0;
  size_t worst = 1;
  for (size_t k = 1; k < aCost.links.size(); k++) {
    coarse += aCost.links[k];
    if (aCost.links[k] > aCost.links[worst]) worst = k;
  }
  if (coarse < kNoticeableLinks || coarse < kPixelLinks * aCost.nodes[0]) return "";
  const int layer = static_cast<int>(worst);
  const double updates = static_cast<double>(coarse) * aCost.labels * static_cast<double>(aCost.sweepsLeft);
  std::string remedy;
  std::ostringstream text;
  text.precision(2);
  text << "Warning: " << segmentationOf(layer, aNames) << ": "
       << cause(aCost.nodes[worst], aCost.nodes[worst - 1], layer, aCost.links[worst], remedy)
       << "; expect at least " << updates << " link updates (roughly " << std::lround(updates / kUpdatesPerSecond)
       << " s of processor time or more) and " << megabytes(aCost.bytes) << " for this level's hierarchy. " << remedy;
  return text.str();
}

std::string tooLargeMessage(const CFlatHierarchy::ETooLarge& aError, const std::vector<std::string>& aNames) {
  std::string remedy;
  const std::string why = cause(aError.nodes, aError.finerNodes, aError.layer, aError.links, remedy);
  return segmentationOf(aError.layer, aNames) + ": " + why + "; the hierarchy would need " + megabytes(aError.bytes) +
         ", more than the " + megabytes(aError.available) + " available. " + remedy;
}

}  // namespace NDriver
