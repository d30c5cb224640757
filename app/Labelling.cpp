#include "Labelling.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <ostream>
#include <stdexcept>

#include "CFlatHierarchy.h"
#include "CHierarchy.h"
#include "CProjection.h"
#include "CSuperpixelLayer.h"
#include "CUtility.h"
#include "Converged.h"
#include "LevelCost.h"
#include "SolverRules.h"
#include "Solver.h"

namespace NDriver {

namespace {

constexpr int maxITER[7] = {50, 50, 30, 20, 10, 10, 10};
constexpr float aOMEGA[7] = {1.9f, 1.9f, 1.9f, 1.9f, 1.9f, 1.2f, 1.8f};
constexpr int maxGrid = 3;

// Extents of level il (0 coarsest .. 3 full size) of an image of aXSize x aYSize.
void levelSize(int aXSize, int aYSize, int il, int& aLevelX, int& aLevelY) {
  const float f = static_cast<float>(1.0 / std::pow(2.0, maxGrid - il));
  aLevelX = static_cast<int>(aXSize * f);
  aLevelY = static_cast<int>(aYSize * f);
}

// Images narrower or lower than 8 pixels have empty coarse levels: the run
// starts at the first level with at least one pixel in each direction.
int firstLevel(int aXSize, int aYSize) {
  for (int il = 0; il < maxGrid; il++) {
    int nXSize = 0;
    int nYSize = 0;
    levelSize(aXSize, aYSize, il, nXSize, nYSize);
    if (nXSize > 0 && nYSize > 0) return il;
  }
  return maxGrid;
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

CFlatHierarchy buildHierarchy(const CTensor<float>& aLab, const std::vector<const CTensor<float>*>& aSegs,
                              const CLabellingSettings& aSettings) {
  try {
    return CFlatHierarchy(aLab, aSegs);
  } catch (const CFlatHierarchy::ETooLarge& error) {
    throw std::runtime_error(tooLargeMessage(error, aSettings.segmentationNames));
  }
}

// Warns, once per run (aWarned), about a level whose hierarchy is costly.
void warnAboutCost(const CFlatHierarchy& aHierarchy, int il, int aLabels, const CLabellingSettings& aSettings,
                   bool& aWarned) {
  if (aSettings.warnings == nullptr || aWarned) return;
  CLevelCost cost;
  for (int l = 0; l < aHierarchy.size(); l++) {
    cost.nodes.push_back(aHierarchy.layerSize(l));
    cost.links.push_back(aHierarchy.layerLinks(l));
  }
  cost.labels = aLabels;
  for (int l = il; l <= maxGrid; l++) cost.sweepsLeft += 10LL * maxITER[l];
  cost.bytes = aHierarchy.bytes();
  const std::string warning = costWarning(cost, aSettings.segmentationNames);
  if (warning.empty()) return;
  *aSettings.warnings << warning << std::endl;
  aWarned = true;
}

// Whether the confidence-weighted resampling to aXSize x aYSize returns
// aLabels and aConf unchanged: the same size, a confidence of +0 or 1, labels
// of +0 or 1, and +0 wherever the confidence is not 1.
bool resamplesToItself(const CTensor<float>& aLabels, const CMatrix<float>& aConf, int aXSize, int aYSize) {
  if (aLabels.xSize() != aXSize || aLabels.ySize() != aYSize || aConf.xSize() != aXSize || aConf.ySize() != aYSize)
    return false;
  auto isPlusZero = [](float a) { return a == 0.0f && !std::signbit(a); };
  const int n = aXSize * aYSize;
  for (int i = 0; i < n; i++) {
    const float c = aConf.data()[i];
    if (c != 1.0f && !isPlusZero(c)) return false;
    for (int k = 0; k < aLabels.zSize(); k++) {
      const float label = aLabels.data()[static_cast<size_t>(k) * n + i];
      if (!(isPlusZero(label) || (label == 1.0f && c == 1.0f))) return false;
    }
  }
  return true;
}

// Relaxes aLab (the level's size) at level il.
void solveLevel(int il, const CLabellingInput& aIn, const CLabellingSettings& aSettings, CTensor<float>& aLab,
                bool& aWarned) {
  if (aSettings.log != nullptr) *aSettings.log << "resolution level: " << il << " / " << maxGrid << std::endl;
  const int segFiles = static_cast<int>(aIn.segmentations.size());
  const int labelCount = aIn.labels.zSize();
  int nXSize = 0;
  int nYSize = 0;
  levelSize(aIn.image.xSize(), aIn.image.ySize(), il, nXSize, nYSize);
  const int factor = static_cast<int>(std::pow(2.0, maxGrid - il));
  const bool fastAtFullSize = factor == 1 && aSettings.path == ESolverPath::Fast;
  // The labels and the confidence at the level's size, or the inputs
  // themselves where resampling would return them unchanged.
  CTensor<float> labelCopy;
  CMatrix<float> confCopy;
  const bool labelsInPlace = fastAtFullSize && resamplesToItself(aIn.labels, aIn.confidence, nXSize, nYSize);
  if (!labelsInPlace) {
    labelCopy = aIn.labels;
    labelCopy.downsample(nXSize, nYSize, aIn.confidence);
    confCopy = aIn.confidence;
    confCopy.downsample(nXSize, nYSize, aIn.confidence);
  }
  const CTensor<float>& labels = labelsInPlace ? aIn.labels : labelCopy;
  const CMatrix<float>& conf = labelsInPlace ? aIn.confidence : confCopy;
  // The image and the segmentations at the level's size; at full size the
  // fast path reads the inputs themselves where resampling would copy them.
  auto copyIsInput = [&](const CTensor<float>& aSegmentation) {
    return aSegmentation.xSize() == nXSize && aSegmentation.ySize() == nYSize &&
           aSegmentation.zSize() == aIn.image.zSize();
  };
  const bool inPlace = fastAtFullSize && std::all_of(aIn.segmentations.begin(), aIn.segmentations.end(), copyIsInput);
  std::vector<CTensor<float>> levelSegs;
  std::vector<const CTensor<float>*> levelSegPointers;
  if (inPlace) {
    levelSegPointers.push_back(&aIn.image);
    for (const CTensor<float>& segmentation : aIn.segmentations) levelSegPointers.push_back(&segmentation);
  } else {
    levelSegs.push_back(aIn.image);
    levelSegs.back().downsample(nXSize, nYSize);
    for (const CTensor<float>& segmentation : aIn.segmentations) {
      levelSegs.emplace_back(nXSize, nYSize, aIn.image.zSize());
      CUtility::downsample_fac(levelSegs.back(), segmentation, factor);
    }
    for (const CTensor<float>& tensor : levelSegs) levelSegPointers.push_back(&tensor);
  }
  // The data weight: 1, or with superpixels the distance to the nearest
  // region boundary of the finest segmentation spread over its regions.
  CMatrix<float> weight(nXSize, nYSize, 1.0f);
  if (aSettings.stats != nullptr)
    aSettings.stats->updates +=
        static_cast<long long>(nXSize) * nYSize * labelCount * NSolverRules::kInnerIterations * maxITER[il];
  const double solveStart = wallSeconds();
  if (aSettings.path == ESolverPath::Reference) {
    CHierarchy hierarchy(aLab, levelSegs);
    if (segFiles > 0) {
      CUtility::euclideanDistanceTransform(levelSegs[1], weight);
      hierarchy.getLayer(1)->distanceFunction(weight);
    }
    solveSegmentation_SOR(hierarchy, confCopy, labelCopy, weight, aSettings.alpha, aOMEGA[il], maxITER[il]);
    hierarchy.getLayer(0)->convertToImage(aLab);
  } else {
    CFlatHierarchy hierarchy = buildHierarchy(aLab, levelSegPointers, aSettings);
    if (aSettings.stats != nullptr) aSettings.stats->buildSeconds += wallSeconds() - solveStart;
    warnAboutCost(hierarchy, il, labelCount, aSettings, aWarned);
    if (segFiles > 0) {
      CUtility::euclideanDistanceTransform(*levelSegPointers[1], weight);
      hierarchy.distanceFunction(weight);
    }
    hierarchy.solve(conf, labels, weight, aSettings.alpha, aOMEGA[il], maxITER[il]);
    hierarchy.convertToImage(aLab);
    if (aSettings.stats != nullptr) {
      const CFlatHierarchy::CPhaseTimes& phases = hierarchy.phaseTimes();
      aSettings.stats->weightSeconds += phases.weights;
      aSettings.stats->pixelSweepSeconds += phases.pixelSweeps;
      aSettings.stats->layerSweepSeconds += phases.layerSweeps;
      aSettings.stats->projectionSeconds += phases.projection;
    }
  }
  if (aSettings.stats != nullptr) aSettings.stats->solveSeconds += wallSeconds() - solveStart;
}

// The degrees solved to convergence, labelled pixels fixed.
CTensor<float> solveConverged(const CLabellingInput& aInput, const CLabellingSettings& aSettings) {
  const double start = wallSeconds();
  NConverged::CConvergedReport report;
  CTensor<float> degrees = NConverged::solveConverged(aInput.image, aInput.segmentations, labelNumbers(aInput.labels),
                                                      aInput.labels.zSize(), NConverged::CConvergedParameters(), &report);
  const double seconds = wallSeconds() - start;
  if (aSettings.stats != nullptr) aSettings.stats->solveSeconds += seconds;
  if (aSettings.log != nullptr)
    *aSettings.log << "converged solve: " << report.mUnknowns << " unknowns, " << report.mLevels << " levels, "
                   << report.mIterations << " iterations, estimated error " << report.mLargestError << std::endl
                   << "total time:                        " << seconds << " seconds (wall)" << std::endl;
  return degrees;
}

}  // namespace

CTensor<float> solveLabelling(const CLabellingInput& aInput, const CLabellingSettings& aSettings) {
  if (aSettings.converged) return solveConverged(aInput, aSettings);
  const int xSize = aInput.image.xSize();
  const int ySize = aInput.image.ySize();
  const int labelCount = aInput.labels.zSize();
  const float labinit = 1.0f / labelCount;
  const int first = firstLevel(xSize, ySize);
  int nXSize = 0;
  int nYSize = 0;
  levelSize(xSize, ySize, first, nXSize, nYSize);
  CTensor<float> lab(nXSize, nYSize, labelCount, labinit);
  const std::clock_t start = std::clock();
  if (aSettings.log != nullptr) *aSettings.log << "iterations on ..." << std::endl;
  bool warned = false;
  for (int il = first; il <= maxGrid; il++) {
    const double levelStart = wallSeconds();
    solveLevel(il, aInput, aSettings, lab, warned);
    if (aSettings.stats != nullptr) aSettings.stats->levelSeconds[il] = wallSeconds() - levelStart;
    if (il == maxGrid) break;
    levelSize(xSize, ySize, il + 1, nXSize, nYSize);
    lab.upsample(nXSize, nYSize);
  }
  const std::clock_t stop = std::clock();
  if (aSettings.log != nullptr) {
    *aSettings.log << std::endl;
    *aSettings.log << "total time:                        " << static_cast<double>(stop - start) / 1000000.0
                   << " seconds" << std::endl;
  }
  return lab;
}

CTensor<float> hardLabelling(const CTensor<float>& aDegrees) {
  CTensor<float> hard(aDegrees);
  CProjection::binary(hard);
  return hard;
}

CMatrix<int> labelNumbers(const CTensor<float>& aHard) {
  CMatrix<int> numbers(aHard.xSize(), aHard.ySize(), -1);
  for (int k = 0; k < aHard.zSize(); k++)
    for (int y = 0; y < aHard.ySize(); y++)
      for (int x = 0; x < aHard.xSize(); x++)
        if (aHard(x, y, k) == 1.0f) numbers(x, y) = k;
  return numbers;
}

}  // namespace NDriver
