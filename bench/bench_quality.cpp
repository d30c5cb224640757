// Quality benchmark of the labelling: synthetic scenes with ground truth at
// 160x120 to 1280x960, hierarchies of three levels made by the segmenter at
// its defaults, and two kinds of sparse labels: scribbles in a label image and
// single points in a track file. Every case runs the tool once as it is (the
// exact run) and once with --converged, each in a process of its own, and
// reports the mean intersection over union of the labels, the pixel accuracy,
// the wall time and the peak memory of the run.
//
// Usage: bench_quality [--quick] [--from N] [--no-exact] [--keep DIR] [LABELLING_TOOL]
//   --quick     160x120 and 320x240 only
//   --from N    start at the N-th size (1: 160x120 .. 4: 1280x960)
//   --no-exact  skip the exact runs (their columns stay 0)
//   --keep DIR  write the scenes into DIR and keep them (for the peer script
//               bench/peer_random_walker.py); default a temporary folder

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "CUtility.h"
#include "SegmentationFileName.h"
#include "Segmenter.h"
#include "SyntheticScene.h"
#include "ToolRun.h"

namespace {

using NBench::CRun;
using NBench::runTool;

constexpr int kLevels = 3;
constexpr int kScenesPerSize = 3;
// Six labels per scene: five regions and a small object.
constexpr int kRegions = 5;
constexpr int kObjects = 1;
constexpr int kPointsPerLabel = 5;

struct CScore {
  bool ok = false;
  double iou = 0;       // mean over the labels of the scene
  double accuracy = 0;  // share of pixels with their true label
};

// The label of every pixel of a result painted in aColours, -1 for others.
std::vector<int> labelsOf(const CTensor<float>& aPainted, const std::vector<std::array<int, 3>>& aColours) {
  std::vector<int> labels;
  for (int y = 0; y < aPainted.ySize(); y++)
    for (int x = 0; x < aPainted.xSize(); x++) {
      int label = -1;
      for (size_t l = 0; l < aColours.size() && label < 0; l++)
        if (aPainted(x, y, 0) == aColours[l][0] && aPainted(x, y, 1) == aColours[l][1] &&
            aPainted(x, y, 2) == aColours[l][2])
          label = static_cast<int>(l);
      labels.push_back(label);
    }
  return labels;
}

// Scores the dense result in aFolder, whose label l is painted in
// aColours[l]. The mean IoU runs over the labels that were marked: a label
// without a scribble or point cannot be found (its pixels still count as
// errors of the others).
CScore score(const std::string& aFolder, const NBench::CScene& aScene, const std::vector<std::array<int, 3>>& aColours) {
  CScore result;
  CTensor<float> dense;
  CTensor<float> marks;
  try {
    dense.readFromPPM((aFolder + "scene_dense.ppm").c_str());
    marks.readFromPPM((aFolder + "scene_initialLabels.ppm").c_str());
  } catch (...) {
    return result;
  }
  if (dense.xSize() != aScene.truth.xSize() || dense.ySize() != aScene.truth.ySize()) return result;
  const size_t labels = static_cast<size_t>(aScene.labels);
  std::vector<long> both(labels, 0);
  std::vector<long> truth(labels, 0);
  std::vector<long> found(labels, 0);
  std::vector<bool> marked(labels, false);
  const std::vector<int> denseLabels = labelsOf(dense, aColours);
  const std::vector<int> markLabels = labelsOf(marks, aColours);
  for (size_t i = 0; i < denseLabels.size(); i++) {
    const int t = aScene.truth.data()[i];
    truth[static_cast<size_t>(t)]++;
    if (markLabels[i] >= 0) marked[static_cast<size_t>(markLabels[i])] = true;
    if (denseLabels[i] < 0) continue;
    found[static_cast<size_t>(denseLabels[i])]++;
    both[static_cast<size_t>(t)] += denseLabels[i] == t;
  }
  long right = 0;
  int present = 0;
  for (size_t l = 0; l < labels; l++) {
    right += both[l];
    if (truth[l] == 0 || !marked[l]) continue;
    result.iou += static_cast<double>(both[l]) / static_cast<double>(truth[l] + found[l] - both[l]);
    present++;
  }
  result.iou /= std::max(present, 1);
  result.accuracy = static_cast<double>(right) / (dense.xSize() * dense.ySize());
  result.ok = true;
  return result;
}

// Single points well inside every true region, as a track file of frame 0
// whose track labels are the scene's labels.
void writePoints(const NBench::CScene& aScene, int aSeed, const std::string& aName) {
  const int w = aScene.truth.xSize();
  const int h = aScene.truth.ySize();
  const int margin = std::max(3, w / 64);
  NBench::CRandom random(static_cast<uint64_t>(aSeed) + 2000);
  std::vector<std::vector<std::array<int, 2>>> points(static_cast<size_t>(aScene.labels));
  for (int attempt = 0; attempt < 200000; attempt++) {
    const int x = static_cast<int>(random.uniform() * w);
    const int y = static_cast<int>(random.uniform() * h);
    const int label = aScene.truth(x, y);
    auto& list = points[static_cast<size_t>(label)];
    if (static_cast<int>(list.size()) >= kPointsPerLabel) continue;
    bool inside = true;
    for (int dy = -margin; dy <= margin && inside; dy += margin)
      for (int dx = -margin; dx <= margin && inside; dx += margin) {
        const int qx = x + dx;
        const int qy = y + dy;
        inside = qx >= 0 && qy >= 0 && qx < w && qy < h && aScene.truth(qx, qy) == label;
      }
    if (inside) list.push_back({x, y});
  }
  std::ofstream file(aName);
  file << "1\n" << aScene.labels << "\n";
  for (int label = 0; label < aScene.labels; label++) {
    const auto& list = points[static_cast<size_t>(label)];
    file << label << " " << list.size() << "\n";
    for (const auto& point : list) file << point[0] << " " << point[1] << " 0\n";
  }
}

struct CCase {
  std::string input;  // "scribbles" or "points"
  CScore exact;
  CScore converged;
  CRun exactRun;
  CRun convergedRun;
};

CCase runCase(const std::string& aTool, const std::string& aFolder, const NBench::CScene& aScene, bool aPoints,
              bool aExact) {
  CCase result;
  result.input = aPoints ? "points" : "scribbles";
  std::vector<std::array<int, 3>> colours;
  for (int l = 0; l < aScene.labels; l++) {
    std::array<int, 3> colour{};
    if (aPoints)
      CUtility::paletteColor(l, colour[0], colour[1], colour[2]);
    else
      colour = NBench::kLabelColours[static_cast<size_t>(l)];
    colours.push_back(colour);
  }
  const std::string labels = aPoints ? aFolder + "/points.dat" : "scribbles.ppm";
  const std::string image = aFolder + "/scene.ppm";
  for (const bool converged : {false, true}) {
    if (!converged && !aExact) {
      result.exact.ok = true;
      continue;
    }
    const std::string prefix = aFolder + (converged ? "/converged_" : "/exact_") + result.input + "_";
    std::vector<std::string> arguments = {aTool, image, std::to_string(kLevels), labels, "0", "0.3", "0", prefix};
    if (converged) arguments.push_back("--converged");
    const CRun run = runTool(arguments);
    const CScore scored = run.ok ? score(prefix + "TarnwickResults/", aScene, colours) : CScore();
    (converged ? result.convergedRun : result.exactRun) = run;
    (converged ? result.converged : result.exact) = scored;
  }
  return result;
}

void writeScene(const std::string& aFolder, const NBench::CScene& aScene, int aSeed) {
  std::filesystem::create_directories(aFolder);
  CTensor<float>(aScene.image).writeToPPM((aFolder + "/scene.ppm").c_str());
  NBench::scribbles(aScene, aSeed).writeToPPM((aFolder + "/scribbles.ppm").c_str());
  writePoints(aScene, aSeed, aFolder + "/points.dat");
  const int w = aScene.truth.xSize();
  const int h = aScene.truth.ySize();
  const std::vector<CMatrix<int>> levels = NSegment::segment(aScene.image, NSegment::defaultRegionCounts(w * h, kLevels));
  for (size_t k = 0; k < levels.size(); k++)
    NSegment::paintRegions(aScene.image, levels[k])
        .writeToPPM(segmentationFileName(aFolder + "/scene", static_cast<int>(k), ".ppm").c_str());
  // The ground truth as a grey image, label l at grey value l, for the peer script.
  CTensor<float> truth(w, h, 3);
  for (int z = 0; z < 3; z++)
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++) truth(x, y, z) = static_cast<float>(aScene.truth(x, y));
  truth.writeToPPM((aFolder + "/truth.ppm").c_str());
}

struct CTotals {
  double exactIou = 0, exactAccuracy = 0, convergedIou = 0, convergedAccuracy = 0;
  double exactSeconds = 0, convergedSeconds = 0, convergedPeak = 0, worstConverged = 1;
  int cases = 0;
  bool ok = true;
  void add(const CCase& aCase) {
    ok = ok && aCase.exact.ok && aCase.converged.ok;
    exactIou += aCase.exact.iou;
    exactAccuracy += aCase.exact.accuracy;
    convergedIou += aCase.converged.iou;
    convergedAccuracy += aCase.converged.accuracy;
    exactSeconds += aCase.exactRun.wallSeconds;
    convergedSeconds += aCase.convergedRun.wallSeconds;
    convergedPeak = std::max(convergedPeak, aCase.convergedRun.peakMB);
    worstConverged = std::min(worstConverged, aCase.converged.iou);
    cases++;
  }
};

void printRow(const std::string& aSize, const std::string& aScene, const CCase& aCase) {
  std::cout << std::left << std::setw(10) << aSize << std::setw(7) << aScene << std::setw(11) << aCase.input
            << std::right << std::setw(8) << aCase.exact.iou << std::setw(8) << aCase.exact.accuracy << std::setw(9)
            << aCase.exactRun.wallSeconds << std::setw(10) << aCase.converged.iou << std::setw(8)
            << aCase.converged.accuracy << std::setw(9) << aCase.convergedRun.wallSeconds << std::setw(9)
            << aCase.convergedRun.peakMB << (aCase.exact.ok && aCase.converged.ok ? "" : "  FAILED") << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::string tool = TARNWICK_EXE;
  std::string keep;
  bool quick = false;
  bool exact = true;
  size_t from = 1;
  for (int i = 1; i < argc; i++) {
    if (std::strcmp(argv[i], "--quick") == 0)
      quick = true;
    else if (std::strcmp(argv[i], "--no-exact") == 0)
      exact = false;
    else if (std::strcmp(argv[i], "--from") == 0 && i + 1 < argc)
      from = static_cast<size_t>(std::max(1, std::atoi(argv[++i])));
    else if (std::strcmp(argv[i], "--keep") == 0 && i + 1 < argc)
      keep = argv[++i];
    else
      tool = argv[i];
  }
  const std::string root =
      keep.empty() ? std::filesystem::temp_directory_path().string() + "/bench_quality_" + std::to_string(getpid()) : keep;
  std::vector<std::array<int, 2>> sizes = {{160, 120}, {320, 240}};
  if (!quick) {
    sizes.push_back({640, 480});
    sizes.push_back({1280, 960});
  }
  sizes.erase(sizes.begin(), sizes.begin() + static_cast<long>(std::min(from - 1, sizes.size())));
  std::cout << std::fixed << std::setprecision(3);
  std::cout << "Labelling quality, " << kScenesPerSize << " scenes of " << kRegions + kObjects
            << " labels per size, K = " << kLevels << ", scribbles and " << kPointsPerLabel
            << " points per label\n\n"
            << "size      scene  input         exact: IoU     acc  wall[s]  converged: IoU     acc  wall[s] peak[MB]\n";
  std::vector<CTotals> totals;
  for (const auto& size : sizes) {
    const std::string name = std::to_string(size[0]) + "x" + std::to_string(size[1]);
    CTotals total;
    for (int seed = 1; seed <= kScenesPerSize; seed++) {
      const NBench::CScene scene = NBench::makeScene(size[0], size[1], seed, kRegions, kObjects);
      const std::string folder = root + "/" + name + "_" + std::to_string(seed);
      writeScene(folder, scene, seed);
      for (const bool points : {false, true}) {
        const CCase result = runCase(tool, folder, scene, points, exact);
        printRow(name, std::to_string(seed), result);
        total.add(result);
      }
    }
    totals.push_back(total);
  }
  std::cout << "\nsize      exact: IoU     acc  wall[s]  converged: IoU  min IoU     acc  wall[s] peak[MB]\n";
  bool ok = true;
  for (size_t s = 0; s < sizes.size(); s++) {
    const CTotals& t = totals[s];
    const double n = std::max(t.cases, 1);
    std::cout << std::left << std::setw(10) << (std::to_string(sizes[s][0]) + "x" + std::to_string(sizes[s][1]))
              << std::right << std::setw(12) << t.exactIou / n << std::setw(8) << t.exactAccuracy / n << std::setw(9)
              << t.exactSeconds / n << std::setw(16) << t.convergedIou / n << std::setw(9) << t.worstConverged
              << std::setw(8) << t.convergedAccuracy / n << std::setw(9) << t.convergedSeconds / n << std::setw(9)
              << t.convergedPeak << "\n";
    ok = ok && t.ok;
  }
  if (keep.empty()) std::filesystem::remove_all(root);
  return ok ? 0 : 1;
}
