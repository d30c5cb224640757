// Benchmark of the superpixel hierarchy generator on synthetic scenes with a
// known ground truth: textured regions, noise and some low-contrast
// boundaries. Phase 1 reports the wall time of a run and, per level, the best
// labelling accuracy the regions allow (each region given its majority
// ground-truth label). Phase 2 runs the labelling tool with scribbles drawn
// from the ground truth, once on these hierarchies and once on a regular-grid
// hierarchy of the same region counts, and reports both accuracies.
//
// Usage: bench_segment [LABELLING_TOOL]   (default: the tool built beside it)

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "CMatrix.h"
#include "CTensor.h"
#include "SegmentationFileName.h"
#include "Segmenter.h"
#include "SyntheticScene.h"

namespace {

using NBench::CScene;
using NBench::kLabelColours;
using NBench::makeScene;
using NBench::scribbles;

constexpr int kLevels = 3;
constexpr int kScenesPerSize = 4;

int regionCount(const CMatrix<int>& aLabels) {
  return aLabels.size() > 0 ? *std::max_element(aLabels.data(), aLabels.data() + aLabels.size()) + 1 : 0;
}

// Fraction of pixels right when every region takes its majority true label.
double bestAccuracy(const CMatrix<int>& aRegions, const CScene& aScene) {
  const int regions = regionCount(aRegions);
  std::vector<int> votes(static_cast<size_t>(regions) * aScene.labels, 0);
  for (int i = 0; i < aRegions.size(); i++)
    votes[static_cast<size_t>(aRegions.data()[i]) * aScene.labels + aScene.truth.data()[i]]++;
  long right = 0;
  for (int r = 0; r < regions; r++)
    right += *std::max_element(votes.begin() + static_cast<long>(r) * aScene.labels,
                               votes.begin() + static_cast<long>(r + 1) * aScene.labels);
  return static_cast<double>(right) / aRegions.size();
}

// Nested regular grids of about aCounts[k] cells: a cell of a coarser grid
// gathers the finest cells whose centres fall into it.
std::vector<CMatrix<int>> gridHierarchy(int aWidth, int aHeight, const std::vector<int>& aCounts) {
  auto cells = [&](int aCount) {
    const double side = std::sqrt(static_cast<double>(aWidth) * aHeight / aCount);
    return std::array<int, 2>{std::max(1, static_cast<int>(std::lround(aWidth / side))),
                              std::max(1, static_cast<int>(std::lround(aHeight / side)))};
  };
  const std::array<int, 2> fine = cells(aCounts.front());
  std::vector<CMatrix<int>> levels;
  for (const int count : aCounts) {
    const std::array<int, 2> coarse = cells(count);
    CMatrix<int> labels(aWidth, aHeight);
    for (int y = 0; y < aHeight; y++)
      for (int x = 0; x < aWidth; x++) {
        const int fx = x * fine[0] / aWidth;
        const int fy = y * fine[1] / aHeight;
        const int cx = static_cast<int>((fx + 0.5) / fine[0] * coarse[0]);
        const int cy = static_cast<int>((fy + 0.5) / fine[1] * coarse[1]);
        labels(x, y) = cx + cy * coarse[0];
      }
    levels.push_back(labels);
  }
  return levels;
}

// Runs the labelling tool on aFolder/scene.ppm with its segmentations and
// scribbles; returns the accuracy of its dense labelling, or -1 on failure.
double labellingAccuracy(const std::string& aTool, const std::string& aFolder, const CScene& aScene) {
  const std::string command = "'" + aTool + "' '" + aFolder + "/scene.ppm' " + std::to_string(kLevels) +
                              " scribbles.ppm 0 0.3 0 '" + aFolder + "/' >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) return -1;
  CTensor<float> dense;
  try {
    dense.readFromPPM((aFolder + "/TarnwickResults/scene_dense.ppm").c_str());
  } catch (...) {
    return -1;
  }
  if (dense.xSize() != aScene.truth.xSize() || dense.ySize() != aScene.truth.ySize() || dense.zSize() != 3) return -1;
  long right = 0;
  for (int y = 0; y < dense.ySize(); y++)
    for (int x = 0; x < dense.xSize(); x++) {
      const auto& colour = kLabelColours[static_cast<size_t>(aScene.truth(x, y))];
      right += dense(x, y, 0) == colour[0] && dense(x, y, 1) == colour[1] && dense(x, y, 2) == colour[2];
    }
  return static_cast<double>(right) / (dense.xSize() * dense.ySize());
}

void writeHierarchy(const std::string& aFolder, const CScene& aScene, const std::vector<CMatrix<int>>& aLevels,
                    const CTensor<float>& aScribbles) {
  std::filesystem::create_directories(aFolder);
  CTensor<float>(aScene.image).writeToPPM((aFolder + "/scene.ppm").c_str());
  CTensor<float>(aScribbles).writeToPPM((aFolder + "/scribbles.ppm").c_str());
  for (size_t k = 0; k < aLevels.size(); k++)
    NSegment::paintRegions(aScene.image, aLevels[k])
        .writeToPPM(segmentationFileName(aFolder + "/scene", static_cast<int>(k), ".ppm").c_str());
}

bool toolWorks(const std::string& aTool) {
  struct stat info {};
  return stat(aTool.c_str(), &info) == 0 && (info.st_mode & S_IXUSR) != 0;
}

void segmentationPhase() {
  std::cout << "Phase 1: " << kLevels << " levels with the default region counts; time of segmenting and painting\n"
            << "size     scene  time[s]  regions (best accuracy) per level, fine to coarse\n";
  for (const std::array<int, 2> size : {std::array<int, 2>{320, 240}, std::array<int, 2>{640, 480}}) {
    double totalTime = 0;
    std::vector<double> meanBest(kLevels, 0.0);
    for (int seed = 1; seed <= kScenesPerSize; seed++) {
      const CScene scene = makeScene(size[0], size[1], seed);
      const auto start = std::chrono::steady_clock::now();
      const std::vector<CMatrix<int>> levels =
          NSegment::segment(scene.image, NSegment::defaultRegionCounts(size[0] * size[1], kLevels));
      for (const CMatrix<int>& level : levels) NSegment::paintRegions(scene.image, level);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      totalTime += seconds;
      std::cout << size[0] << "x" << size[1] << "  " << seed << "      " << seconds;
      for (size_t k = 0; k < levels.size(); k++) {
        const double best = bestAccuracy(levels[k], scene);
        meanBest[k] += best / kScenesPerSize;
        std::cout << "  " << regionCount(levels[k]) << " (" << best << ")";
      }
      std::cout << "\n";
    }
    std::cout << size[0] << "x" << size[1] << "  mean   " << totalTime / kScenesPerSize;
    for (const double best : meanBest) std::cout << "  (" << best << ")";
    std::cout << "\n";
  }
}

void labellingPhase(const std::string& aTool) {
  const std::string scratch = std::filesystem::temp_directory_path().string() + "/bench_segment";
  std::cout << "\nPhase 2: accuracy of the labelling tool with scribbles from the ground truth\n"
            << "size     scene  hierarchy  grid\n";
  for (const std::array<int, 2> size : {std::array<int, 2>{320, 240}, std::array<int, 2>{640, 480}}) {
    double meanSegments = 0;
    double meanGrid = 0;
    for (int seed = 1; seed <= kScenesPerSize; seed++) {
      const CScene scene = makeScene(size[0], size[1], seed);
      const std::vector<int> counts = NSegment::defaultRegionCounts(size[0] * size[1], kLevels);
      const CTensor<float> marks = scribbles(scene, seed);
      const std::string folder = scratch + "/" + std::to_string(size[0]) + "_" + std::to_string(seed);
      writeHierarchy(folder + "/segments", scene, NSegment::segment(scene.image, counts), marks);
      writeHierarchy(folder + "/grid", scene, gridHierarchy(size[0], size[1], counts), marks);
      const double segments = labellingAccuracy(aTool, folder + "/segments", scene);
      const double grid = labellingAccuracy(aTool, folder + "/grid", scene);
      meanSegments += segments / kScenesPerSize;
      meanGrid += grid / kScenesPerSize;
      std::cout << size[0] << "x" << size[1] << "  " << seed << "      " << segments << "     " << grid << std::endl;
    }
    std::cout << size[0] << "x" << size[1] << "  mean   " << meanSegments << "     " << meanGrid << "\n";
  }
  std::filesystem::remove_all(scratch);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string tool = argc > 1 ? argv[1] : TARNWICK_EXE;
  std::cout << std::fixed << std::setprecision(4);
  segmentationPhase();
  if (toolWorks(tool))
    labellingPhase(tool);
  else
    std::cout << "\nlabelling tool " << tool << " not found: phase 2 skipped\n";
  return 0;
}
