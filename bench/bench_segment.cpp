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
#include "Segmenter.h"

namespace {

constexpr int kLevels = 3;
constexpr int kScenesPerSize = 4;

// Deterministic pseudo-random numbers, independent of the standard library.
class CRandom {
public:
  explicit CRandom(uint64_t aSeed) : mState(aSeed * 2862933555777941757ULL + 3037000493ULL) {}
  double uniform() {
    mState = mState * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(mState >> 11) / 9007199254740992.0;
  }
  double gaussian() {
    const double u = std::max(uniform(), 1e-12);
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * uniform());
  }

private:
  uint64_t mState;
};

// Smooth random field in [-1, 1]: random values on a grid of aCell pixels,
// interpolated with a smooth step.
class CValueNoise {
public:
  CValueNoise(CRandom& aRandom, int aWidth, int aHeight, double aCell)
      : mCell(aCell), mNx(static_cast<int>(aWidth / aCell) + 2), mNy(static_cast<int>(aHeight / aCell) + 2) {
    for (int i = 0; i < mNx * mNy; i++) mValues.push_back(2.0 * aRandom.uniform() - 1.0);
  }
  double operator()(double x, double y) const {
    const double gx = x / mCell;
    const double gy = y / mCell;
    const int ix = static_cast<int>(gx);
    const int iy = static_cast<int>(gy);
    auto fade = [](double t) { return t * t * (3.0 - 2.0 * t); };
    const double tx = fade(gx - ix);
    const double ty = fade(gy - iy);
    auto v = [&](int i, int j) { return mValues[static_cast<size_t>(i + j * mNx)]; };
    const double top = v(ix, iy) + (v(ix + 1, iy) - v(ix, iy)) * tx;
    const double bottom = v(ix, iy + 1) + (v(ix + 1, iy + 1) - v(ix, iy + 1)) * tx;
    return top + (bottom - top) * ty;
  }

private:
  double mCell;
  int mNx;
  int mNy;
  std::vector<double> mValues;
};

struct CScene {
  CTensor<float> image;
  CMatrix<int> truth;
  int labels = 0;
};

// Ground truth: a Voronoi partition with boundaries bent by smooth noise and a
// few small elliptic objects on top. Colours are random, but every third
// region copies the colour of the one before with a small offset (a
// low-contrast boundary). Textures: flat, stripes, blotches, fine checks;
// smooth shading and Gaussian noise over everything.
CScene makeScene(int aWidth, int aHeight, int aSeed) {
  CRandom random(static_cast<uint64_t>(aSeed));
  const int regions = 16;
  const int objects = 6;
  std::vector<std::array<double, 2>> sites;
  for (int r = 0; r < regions; r++) sites.push_back({random.uniform() * aWidth, random.uniform() * aHeight});
  const double scale = aWidth / 320.0;
  const CValueNoise bendX(random, aWidth, aHeight, 40 * scale);
  const CValueNoise bendY(random, aWidth, aHeight, 40 * scale);
  CScene scene;
  scene.labels = regions + objects;
  scene.truth.setSize(aWidth, aHeight);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const double px = x + 18 * scale * bendX(x, y);
      const double py = y + 18 * scale * bendY(x, y);
      int best = 0;
      double bestD = 1e300;
      for (int r = 0; r < regions; r++) {
        const double d = (px - sites[static_cast<size_t>(r)][0]) * (px - sites[static_cast<size_t>(r)][0]) +
                         (py - sites[static_cast<size_t>(r)][1]) * (py - sites[static_cast<size_t>(r)][1]);
        if (d < bestD) {
          bestD = d;
          best = r;
        }
      }
      scene.truth(x, y) = best;
    }
  for (int o = 0; o < objects; o++) {
    const double cx = random.uniform() * aWidth;
    const double cy = random.uniform() * aHeight;
    const double rx = (8 + 8 * random.uniform()) * scale;
    const double ry = (8 + 8 * random.uniform()) * scale;
    for (int y = 0; y < aHeight; y++)
      for (int x = 0; x < aWidth; x++)
        if ((x - cx) * (x - cx) / (rx * rx) + (y - cy) * (y - cy) / (ry * ry) < 1.0) scene.truth(x, y) = regions + o;
  }

  struct CLook {
    std::array<double, 3> colour;
    int texture;
    double amplitude, period, angle;
  };
  std::vector<CLook> looks;
  for (int r = 0; r < scene.labels; r++) {
    CLook look{{40 + 175 * random.uniform(), 40 + 175 * random.uniform(), 40 + 175 * random.uniform()},
               static_cast<int>(random.uniform() * 4), 20 + 30 * random.uniform(), (5 + 10 * random.uniform()) * scale,
               3.14159 * random.uniform()};
    if (r % 3 == 2) {
      // Low contrast against the previous region: 8 units per channel.
      for (size_t c = 0; c < 3; c++) look.colour[c] = looks.back().colour[c] + (random.uniform() < 0.5 ? -8 : 8);
    }
    looks.push_back(look);
  }
  const CValueNoise blotches(random, aWidth, aHeight, 6 * scale);
  const CValueNoise light(random, aWidth, aHeight, 120 * scale);
  scene.image.setSize(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const CLook& look = looks[static_cast<size_t>(scene.truth(x, y))];
      double shade = 0;
      if (look.texture == 1)
        shade = look.amplitude * std::sin(6.28318 * (x * std::cos(look.angle) + y * std::sin(look.angle)) / look.period);
      else if (look.texture == 2)
        shade = look.amplitude * blotches(x, y);
      else if (look.texture == 3)
        shade = ((x / 3 + y / 3) % 2 == 0 ? 0.5 : -0.5) * look.amplitude;
      for (int c = 0; c < 3; c++) {
        const double v = (look.colour[static_cast<size_t>(c)] + shade) * (1.0 + 0.15 * light(x, y)) + 10.0 * random.gaussian();
        scene.image(x, y, c) = static_cast<float>(std::clamp(std::round(v), 0.0, 255.0));
      }
    }
  return scene;
}

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

const std::array<std::array<int, 3>, 22> kLabelColours = {
    {{230, 25, 75}, {60, 180, 75}, {0, 130, 200}, {245, 130, 48}, {145, 30, 180}, {70, 240, 240}, {240, 50, 230},
     {128, 128, 0}, {210, 245, 60}, {0, 128, 128}, {170, 110, 40}, {128, 0, 0}, {0, 0, 128}, {128, 128, 128},
     {0, 0, 0}, {255, 215, 180}, {255, 225, 25}, {0, 255, 128}, {128, 0, 255}, {255, 128, 128}, {64, 64, 192},
     {192, 64, 64}}};

// Scribbles: in every true region a few short strokes, kept well inside it;
// shorter ones where long ones do not fit.
CTensor<float> scribbles(const CScene& aScene, int aSeed) {
  const int w = aScene.truth.xSize();
  const int h = aScene.truth.ySize();
  const int margin = std::max(3, w / 64);
  auto inside = [&](int x, int y, int label) {
    for (int dy = -margin; dy <= margin; dy += margin)
      for (int dx = -margin; dx <= margin; dx += margin) {
        const int qx = x + dx;
        const int qy = y + dy;
        if (qx < 0 || qy < 0 || qx >= w || qy >= h || aScene.truth(qx, qy) != label) return false;
      }
    return true;
  };
  CRandom random(static_cast<uint64_t>(aSeed) + 1000);
  CTensor<float> canvas(w, h, 3, 255.0f);
  for (int label = 0; label < aScene.labels; label++) {
    int strokes = 0;
    for (int attempt = 0; attempt < 3000 && strokes < 3; attempt++) {
      const int x0 = static_cast<int>(random.uniform() * w);
      const int y0 = static_cast<int>(random.uniform() * h);
      const double angle = 6.28318 * random.uniform();
      const int length = attempt < 1000 ? w / 16 : w / 40;
      bool fits = true;
      for (int t = 0; t <= length && fits; t++)
        fits = inside(static_cast<int>(x0 + t * std::cos(angle)), static_cast<int>(y0 + t * std::sin(angle)), label);
      if (!fits) continue;
      for (int t = 0; t <= length; t++)
        for (int c = 0; c < 3; c++)
          canvas(static_cast<int>(x0 + t * std::cos(angle)), static_cast<int>(y0 + t * std::sin(angle)), c) =
              static_cast<float>(kLabelColours[static_cast<size_t>(label)][static_cast<size_t>(c)]);
      strokes++;
    }
  }
  return canvas;
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
    NSegment::paintRegions(aScene.image, aLevels[k]).writeToPPM((aFolder + "/scene_seg" + std::to_string(k) + ".ppm").c_str());
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
