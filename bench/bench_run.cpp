// Benchmark of the whole labelling run, fast path against the node-by-node
// reference path. It generates its inputs (a textured scene of discs and
// polygons, three nested segmentations of about 2000, 500 and 120 regions and
// scribbles of five labels) at 320x240, 640x480 and 1280x960, runs every case
// in a forked child that calls the driver in-process, and reports wall and
// processor time, peak memory (also per pixel and per pixel-label), time per
// resolution level and per phase. The fast path runs with its defaults, on
// one thread and with every other register width the processor has; all its
// results and the reference path's must be byte-identical, or the benchmark
// exits with status 1 (as it does when a run fails).
//
// Usage: bench_run [--quick | --full | --fast-only] [--repeat=N] [--labels=N]
//   --quick     320x240 only (fast and reference path), a smoke run
//   --full      also runs the reference path at 1280x960 (several minutes)
//   --fast-only the fast path alone at every size
//   --repeat=N  every fast row is the run of median wall time among N
//   --labels=N  scribbles of the first N labels only (1 to 5; default 5): with
//               up to four labels one chunk holds them all

#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CFlatHierarchy.h"
#include "CMatrix.h"
#include "CTensor.h"
#include "ChildMeasurement.h"
#include "Driver.h"
#include "SegmentationFileName.h"
#include "Segmenter.h"
#include "SyntheticScene.h"

namespace {

using NDriver::CRunStats;
using NBench::CChildReport;
using NBench::CMeasurement;
using NBench::measureInChild;
using NDriver::ESolverPath;

// The scene is laid out in units of a 320x240 frame and sampled at each size,
// so that every size shows the same picture with the same scribbles.
constexpr double kFrameWidth = 320.0;
constexpr double kFrameHeight = 240.0;
constexpr int kShapes = 12;
constexpr int kLabels = 5;
const std::vector<int> kRegionCounts = {2000, 500, 120};
const std::array<std::array<int, 3>, kLabels> kLabelColours = {
    {{230, 25, 75}, {60, 180, 75}, {0, 130, 200}, {245, 130, 48}, {145, 30, 180}}};
const std::array<std::string, 3> kResultFiles = {"image_initialLabels.ppm", "image_dense_soft.ppm", "image_dense.ppm"};

struct CSize {
  int width;
  int height;
  std::string name() const { return std::to_string(width) + "x" + std::to_string(height); }
};

double secondsSince(std::chrono::steady_clock::time_point aStart) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - aStart).count();
}

// Scene

using NBench::CRandom;

// Smooth noise in [-1, 1] on a lattice of aCell frame units; the lattice
// values are hashed from their coordinates, so no size enters the pattern.
double valueNoise(double x, double y, double aCell, uint64_t aSeed) {
  auto lattice = [aSeed](int64_t i, int64_t j) {
    CRandom hash(aSeed ^ (static_cast<uint64_t>(i) * 0x8CB92BA72F3D8DD7ULL) ^ (static_cast<uint64_t>(j) << 32));
    return 2.0 * hash.uniform() - 1.0;
  };
  const double gx = x / aCell;
  const double gy = y / aCell;
  const int64_t ix = static_cast<int64_t>(std::floor(gx));
  const int64_t iy = static_cast<int64_t>(std::floor(gy));
  auto fade = [](double t) { return t * t * (3.0 - 2.0 * t); };
  const double tx = fade(gx - ix);
  const double ty = fade(gy - iy);
  const double top = lattice(ix, iy) + (lattice(ix + 1, iy) - lattice(ix, iy)) * tx;
  const double bottom = lattice(ix, iy + 1) + (lattice(ix + 1, iy + 1) - lattice(ix, iy + 1)) * tx;
  return top + (bottom - top) * ty;
}

enum class ETexture { Flat, Stripes, Checks, Blotches };

struct CShape {
  double cx, cy;
  bool disc;
  double radius;                               // discs
  std::vector<std::array<double, 2>> corners;  // polygons, star-shaped around the centre
  std::array<double, 3> colour;
  double shadeAngle, shadeStrength;  // linear shading across the shape
  ETexture texture;
  double period, amplitude, textureAngle;

  bool contains(double x, double y) const {
    if (disc) return (x - cx) * (x - cx) + (y - cy) * (y - cy) <= radius * radius;
    bool inside = false;
    for (size_t i = 0, j = corners.size() - 1; i < corners.size(); j = i++) {
      const auto& a = corners[i];
      const auto& b = corners[j];
      if ((a[1] > y) != (b[1] > y) && x < (b[0] - a[0]) * (y - a[1]) / (b[1] - a[1]) + a[0]) inside = !inside;
    }
    return inside;
  }
};

class CScene {
public:
  explicit CScene(uint64_t aSeed) {
    CRandom random(aSeed);
    for (int s = 0; s < kShapes; s++) mShapes.push_back(randomShape(random));
  }

  // 0 for the background, 1 + i for shape i (later shapes lie on top).
  int regionAt(double x, double y) const {
    for (int s = kShapes - 1; s >= 0; s--)
      if (mShapes[static_cast<size_t>(s)].contains(x, y)) return s + 1;
    return 0;
  }
  static int labelOfRegion(int aRegion) { return aRegion == 0 ? 0 : 1 + (aRegion - 1) % (kLabels - 1); }

  // Colour of a frame point before noise: shaded background or shape, with
  // the shape's texture and a soft illumination over the whole frame.
  std::array<double, 3> colourAt(double x, double y) const {
    const int region = regionAt(x, y);
    const double light = 1.0 + 0.12 * valueNoise(x, y, 90.0, 7);
    std::array<double, 3> colour{};
    if (region == 0) {
      const double t = y / kFrameHeight;
      const double blotch = 12.0 * valueNoise(x, y, 10.0, 3);
      colour = {90 + 60 * t + blotch, 120 + 30 * t + blotch, 160 - 50 * t + blotch};
    } else {
      const CShape& shape = mShapes[static_cast<size_t>(region - 1)];
      const double along = (x - shape.cx) * std::cos(shape.shadeAngle) + (y - shape.cy) * std::sin(shape.shadeAngle);
      const double shade = shape.shadeStrength * along + textureAt(shape, x, y);
      for (size_t c = 0; c < 3; c++) colour[c] = shape.colour[c] + shade;
    }
    for (double& channel : colour) channel *= light;
    return colour;
  }

private:
  static CShape randomShape(CRandom& aRandom) {
    CShape shape{};
    shape.cx = aRandom.uniform(25, kFrameWidth - 25);
    shape.cy = aRandom.uniform(25, kFrameHeight - 25);
    shape.disc = aRandom.uniform() < 0.4;
    shape.radius = aRandom.uniform(18, 55);
    if (!shape.disc) {
      const int corners = 3 + static_cast<int>(aRandom.uniform() * 5);
      const double turn = aRandom.uniform(0, 6.283185307179586);
      for (int k = 0; k < corners; k++) {
        const double angle = turn + 6.283185307179586 * (k + aRandom.uniform(-0.3, 0.3)) / corners;
        const double reach = shape.radius * aRandom.uniform(0.6, 1.0);
        shape.corners.push_back({shape.cx + reach * std::cos(angle), shape.cy + reach * std::sin(angle)});
      }
    }
    for (double& channel : shape.colour) channel = aRandom.uniform(40, 215);
    shape.shadeAngle = aRandom.uniform(0, 6.283185307179586);
    shape.shadeStrength = aRandom.uniform(-0.8, 0.8);
    shape.texture = static_cast<ETexture>(static_cast<int>(aRandom.uniform() * 4));
    shape.period = aRandom.uniform(3, 10);
    shape.amplitude = aRandom.uniform(10, 25);
    shape.textureAngle = aRandom.uniform(0, 3.141592653589793);
    return shape;
  }

  static double textureAt(const CShape& aShape, double x, double y) {
    switch (aShape.texture) {
      case ETexture::Stripes:
        return aShape.amplitude *
               std::sin(6.283185307179586 * (x * std::cos(aShape.textureAngle) + y * std::sin(aShape.textureAngle)) /
                        aShape.period);
      case ETexture::Checks:
        return (static_cast<int64_t>(std::floor(x / aShape.period) + std::floor(y / aShape.period)) % 2 == 0 ? 0.5
                                                                                                              : -0.5) *
               aShape.amplitude;
      case ETexture::Blotches:
        return aShape.amplitude * valueNoise(x, y, aShape.period, 11);
      case ETexture::Flat:
        break;
    }
    return 0.0;
  }

  std::vector<CShape> mShapes;
};

CTensor<float> renderImage(const CScene& aScene, const CSize& aSize, uint64_t aSeed) {
  CRandom noise(aSeed);
  const double unit = kFrameWidth / aSize.width;
  CTensor<float> image(aSize.width, aSize.height, 3);
  for (int y = 0; y < aSize.height; y++)
    for (int x = 0; x < aSize.width; x++) {
      const std::array<double, 3> colour = aScene.colourAt((x + 0.5) * unit, (y + 0.5) * unit);
      for (int c = 0; c < 3; c++)
        image(x, y, c) = static_cast<float>(std::clamp(std::round(colour[static_cast<size_t>(c)] + 6.0 * noise.gaussian()), 0.0, 255.0));
    }
  return image;
}

struct CStroke {
  double x0, y0, angle;
  int label;
};

constexpr double kStrokeLength = 16.0;  // frame units

// Two short strokes per region, each kept at least 4 frame units inside it.
std::vector<CStroke> scribbleStrokes(const CScene& aScene) {
  const int regions = kShapes + 1;
  const double margin = 4.0;
  auto keepsInside = [&](const CStroke& aStroke, int aRegion) {
    for (double t = 0; t <= kStrokeLength; t += 1.0) {
      const double x = aStroke.x0 + t * std::cos(aStroke.angle);
      const double y = aStroke.y0 + t * std::sin(aStroke.angle);
      for (const double dy : {-margin, 0.0, margin})
        for (const double dx : {-margin, 0.0, margin})
          if (x + dx < 0 || y + dy < 0 || x + dx >= kFrameWidth || y + dy >= kFrameHeight ||
              aScene.regionAt(x + dx, y + dy) != aRegion)
            return false;
    }
    return true;
  };
  CRandom random(99);
  std::vector<CStroke> strokes;
  for (int region = 0; region < regions; region++) {
    int drawn = 0;
    for (int attempt = 0; attempt < 4000 && drawn < 2; attempt++) {
      const CStroke stroke{random.uniform(0, kFrameWidth), random.uniform(0, kFrameHeight),
                           random.uniform(0, 6.283185307179586), CScene::labelOfRegion(region)};
      if (!keepsInside(stroke, region)) continue;
      strokes.push_back(stroke);
      drawn++;
    }
  }
  return strokes;
}

// The strokes on white, about one pixel per 320 of the width thick.
CTensor<float> renderScribbles(const std::vector<CStroke>& aStrokes, const CSize& aSize, int aLabels) {
  const double scale = aSize.width / kFrameWidth;
  const int thickness = std::max(1, static_cast<int>(scale));
  CTensor<float> canvas(aSize.width, aSize.height, 3, 255.0f);
  std::set<int> used;
  for (const CStroke& stroke : aStrokes) {
    if (stroke.label >= aLabels) continue;
    for (double t = 0; t <= kStrokeLength * scale; t += 0.5) {
      const int x = static_cast<int>(stroke.x0 * scale + t * std::cos(stroke.angle));
      const int y = static_cast<int>(stroke.y0 * scale + t * std::sin(stroke.angle));
      for (int dy = 0; dy < thickness; dy++)
        for (int dx = 0; dx < thickness; dx++)
          if (x + dx < aSize.width && y + dy < aSize.height)
            for (int c = 0; c < 3; c++)
              canvas(x + dx, y + dy, c) =
                  static_cast<float>(kLabelColours[static_cast<size_t>(stroke.label)][static_cast<size_t>(c)]);
    }
    used.insert(stroke.label);
  }
  if (static_cast<int>(used.size()) != aLabels)
    throw std::runtime_error("the scene leaves room for scribbles of only " + std::to_string(used.size()) + " labels");
  return canvas;
}

int regionCount(const CMatrix<int>& aLabels) {
  return aLabels.size() > 0 ? *std::max_element(aLabels.data(), aLabels.data() + aLabels.size()) + 1 : 0;
}

// Writes image.ppm, image_seg0..2.ppm and labels.ppm into aFolder.
void writeInputs(const CScene& aScene, const std::vector<CStroke>& aStrokes, const CSize& aSize,
                 const std::string& aFolder, int aLabels) {
  const auto start = std::chrono::steady_clock::now();
  std::filesystem::create_directories(aFolder);
  CTensor<float> image = renderImage(aScene, aSize, 5);
  image.writeToPPM((aFolder + "/image.ppm").c_str());
  const std::vector<CMatrix<int>> levels = NSegment::segment(image, kRegionCounts);
  std::cout << "  " << std::setw(9) << std::left << aSize.name() << std::right << " regions";
  for (size_t k = 0; k < levels.size(); k++) {
    NSegment::paintRegions(image, levels[k])
        .writeToPPM(segmentationFileName(aFolder + "/image", static_cast<int>(k), ".ppm").c_str());
    std::cout << (k == 0 ? " " : " / ") << regionCount(levels[k]);
  }
  renderScribbles(aStrokes, aSize, aLabels).writeToPPM((aFolder + "/labels.ppm").c_str());
  std::cout << ", " << aLabels << " labels, " << std::fixed << std::setprecision(1) << secondsSince(start) << " s" << std::endl;
}

bool generateInputs(const std::vector<CSize>& aSizes, const std::string& aRoot, int aLabels) {
  const CMeasurement generation = measureInChild(false, [&] {
    const CScene scene(2024);
    const std::vector<CStroke> strokes = scribbleStrokes(scene);
    for (const CSize& size : aSizes) writeInputs(scene, strokes, size, aRoot + "/" + size.name(), aLabels);
    CChildReport report;
    report.status = 0;
    return report;
  });
  return generation.ok;
}

// One labelling run: tarnwick IMG.ppm 3 labels.ppm 0 0.3 0 OUTPREFIX.
// aBits: the solver's register limit, 0 for its default.
CMeasurement measureRunOnce(const std::string& aFolder, const std::string& aOutPrefix, ESolverPath aPath,
                            int aThreads, int aBits) {
  return measureInChild(true, [&] {
    if (aThreads > 0) omp_set_num_threads(aThreads);
    if (aBits > 0) CFlatHierarchy::limitVectorBits(aBits);
    std::vector<std::string> arguments = {"tarnwick", aFolder + "/image.ppm", "3", "labels.ppm", "0", "0.3", "0",
                                          aFolder + "/" + aOutPrefix};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    CChildReport report;
    report.threads = omp_get_max_threads();
    report.status = NDriver::main(static_cast<int>(arguments.size()), argv.data(), aPath, &report.stats);
    return report;
  });
}

// The run of median wall time among aRepeats.
CMeasurement measureRun(const std::string& aFolder, const std::string& aOutPrefix, ESolverPath aPath, int aThreads,
                        int aBits, int aRepeats) {
  std::vector<CMeasurement> runs;
  for (int r = 0; r < aRepeats; r++) {
    runs.push_back(measureRunOnce(aFolder, aOutPrefix, aPath, aThreads, aBits));
    if (!runs.back().ok) return runs.back();
  }
  std::sort(runs.begin(), runs.end(),
            [](const CMeasurement& a, const CMeasurement& b) { return a.wallSeconds < b.wallSeconds; });
  return runs[runs.size() / 2];
}

std::string readBytes(const std::string& aPath) {
  std::ifstream file(aPath, std::ios::binary);
  if (!file) return "";
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool sameResults(const std::string& aFolder, const std::string& aPrefixA, const std::string& aPrefixB) {
  for (const std::string& name : kResultFiles) {
    const std::string a = readBytes(aFolder + "/" + aPrefixA + "TarnwickResults/" + name);
    if (a.empty() || a != readBytes(aFolder + "/" + aPrefixB + "TarnwickResults/" + name)) return false;
  }
  return true;
}

// Benchmark

struct COptions {
  bool quick = false;
  bool full = false;
  bool fastOnly = false;
  int repeats = 1;
  int labels = kLabels;
};

struct CCase {
  CSize size;
  bool reference;     // also run the reference path
};

std::vector<CCase> casesFor(const COptions& aOptions) {
  if (aOptions.quick) return {{{320, 240}, true}};
  return {{{320, 240}, !aOptions.fastOnly}, {{640, 480}, !aOptions.fastOnly}, {{1280, 960}, aOptions.full}};
}

// One run of a case: path, threads (0: the default), register limit (0: the default).
struct CRunKind {
  std::string name;
  ESolverPath path;
  int threads;
  int bits;
};

// The register width of the fast path's default: the widest the processor
// has up to the default limit.
int defaultBits() {
  CFlatHierarchy::limitVectorBits(CFlatHierarchy::kDefaultVectorBits);
  return CFlatHierarchy::vectorBits();
}

// The runs of every case: the fast path's default first (the others are
// compared with it), then one thread, every other register width the
// processor has, and the reference path.
std::vector<CRunKind> runKinds(bool aReference) {
  std::vector<CRunKind> kinds = {{"fast", ESolverPath::Fast, 0, 0}, {"fast", ESolverPath::Fast, 1, 0}};
  const int usual = defaultBits();
  for (int bits : {128, 256, 512}) {
    CFlatHierarchy::limitVectorBits(bits);
    if (CFlatHierarchy::vectorBits() == bits && bits != usual) kinds.push_back({"fast", ESolverPath::Fast, 0, bits});
  }
  CFlatHierarchy::limitVectorBits(CFlatHierarchy::kDefaultVectorBits);
  if (aReference) kinds.push_back({"reference", ESolverPath::Reference, 0, 0});
  return kinds;
}

void printHeader() {
  std::cout << "\nsize       path       bits thr  wall[s]   cpu[s] peak[MB]  B/px B/px/lab level 1/8   1/4    1/2      1"
               "  x fast  same\n";
}

// One row of the main table; aFast is the default fast run of the same size,
// or null for that run itself.
void printRow(const CSize& aSize, int aLabels, const CRunKind& aKind, const CMeasurement& aRun,
              const CMeasurement* aFast, bool aSame) {
  std::cout << std::left << std::setw(10) << aSize.name() << " " << std::setw(10) << aKind.name << std::right;
  if (!aRun.ok) {
    std::cout << "  run failed (see the messages above)\n";
    return;
  }
  const CRunStats& stats = aRun.report.stats;
  const double pixels = static_cast<double>(aSize.width) * aSize.height;
  const double bytes = aRun.peakMB * 1024.0 * 1024.0;
  std::cout << std::setw(5);
  if (aKind.path == ESolverPath::Reference)
    std::cout << "-";
  else
    std::cout << (aKind.bits > 0 ? aKind.bits : defaultBits());
  std::cout << std::setw(4) << aRun.report.threads << std::fixed << std::setprecision(2) << std::setw(9)
            << aRun.wallSeconds << std::setw(9) << aRun.cpuSeconds << std::setprecision(1) << std::setw(9)
            << aRun.peakMB << std::setprecision(0) << std::setw(6) << bytes / pixels << std::setw(9)
            << bytes / pixels / aLabels << std::setprecision(2) << std::setw(10) << stats.levelSeconds[0];
  for (int level = 1; level < 4; level++) std::cout << std::setw(7) << stats.levelSeconds[level];
  if (aFast != nullptr && aFast->ok)
    std::cout << std::setprecision(2) << std::setw(8) << aRun.wallSeconds / aFast->wallSeconds << "  "
              << (aSame ? "yes" : "NO");
  std::cout << "\n";
}

// Where the wall time of a fast run went, in seconds.
void printPhases(const CSize& aSize, const CRunKind& aKind, const CMeasurement& aRun) {
  if (!aRun.ok || aKind.path != ESolverPath::Fast) return;
  const CRunStats& s = aRun.report.stats;
  const double solver = s.weightSeconds + s.pixelSweepSeconds + s.layerSweepSeconds + s.projectionSeconds;
  const double setup = s.solveSeconds - s.buildSeconds - solver;
  double levels = 0;
  for (double level : s.levelSeconds) levels += level;
  const double other = aRun.wallSeconds - s.readSeconds - s.writeSeconds - levels;
  std::cout << std::left << std::setw(10) << aSize.name() << std::right << std::setw(5)
            << (aKind.bits > 0 ? aKind.bits : defaultBits()) << std::setw(4)
            << aRun.report.threads << std::fixed << std::setprecision(3);
  for (double phase : {s.readSeconds, levels - s.solveSeconds, s.buildSeconds, setup, s.weightSeconds,
                       s.pixelSweepSeconds, s.layerSweepSeconds, s.projectionSeconds, s.writeSeconds, other})
    std::cout << std::setw(8) << phase;
  std::cout << std::setprecision(1) << std::setw(8) << (solver > 0 ? s.updates / solver / 1e6 : 0.0) << "\n";
}

void printMachine(const COptions& aOptions) {
  double load[3] = {0, 0, 0};
  const bool hasLoad = getloadavg(load, 3) == 3;
  std::cout << "Labelling run: tarnwick IMG.ppm 3 labels.ppm 0 0.3 0 OUTPREFIX, each run in a child process\n"
            << "machine: " << std::thread::hardware_concurrency() << " hardware threads, omp_get_max_threads() "
            << omp_get_max_threads() << ", widest registers " << CFlatHierarchy::vectorBits() << " bits";
  if (hasLoad) std::cout << ", load average " << std::fixed << std::setprecision(2) << load[0];
  std::cout << "\n";
  if (aOptions.quick)
    std::cout << "quick run: 320x240 only\n";
  else if (aOptions.fastOnly)
    std::cout << "fast path only\n";
  else if (!aOptions.full)
    std::cout << "reference path at 320x240 and 640x480 only (--full adds 1280x960)\n";
  std::cout << "inputs: three nested segmentations of about " << kRegionCounts[0] << " / " << kRegionCounts[1]
            << " / " << kRegionCounts[2] << " regions, " << aOptions.labels << " labels; median of " << aOptions.repeats
            << " run(s) per row\n";
}

// Returns true when every run succeeded and every comparison matched.
bool benchmark(const COptions& aOptions, const std::string& aRoot) {
  const std::vector<CCase> cases = casesFor(aOptions);
  std::vector<CSize> sizes;
  for (const CCase& oneCase : cases) sizes.push_back(oneCase.size);
  if (!generateInputs(sizes, aRoot, aOptions.labels)) return false;
  printHeader();
  bool good = true;
  std::vector<std::string> verdicts;
  std::vector<std::pair<CSize, std::pair<CRunKind, CMeasurement>>> fastRuns;
  for (const CCase& oneCase : cases) {
    const std::string folder = aRoot + "/" + oneCase.size.name();
    const std::vector<CRunKind> kinds = runKinds(oneCase.reference);
    CMeasurement fast;
    bool allSame = true;
    for (size_t k = 0; k < kinds.size(); k++) {
      const CRunKind& kind = kinds[k];
      const std::string prefix = "run" + std::to_string(k) + "_";
      const int repeats = kind.path == ESolverPath::Fast ? aOptions.repeats : 1;
      const CMeasurement run = measureRun(folder, prefix, kind.path, kind.threads, kind.bits, repeats);
      const bool same = k == 0 || sameResults(folder, "run0_", prefix);
      if (k == 0) fast = run;
      printRow(oneCase.size, aOptions.labels, kind, run, k == 0 ? nullptr : &fast, same);
      good = good && run.ok && same;
      allSame = allSame && same;
      if (kind.path == ESolverPath::Fast) fastRuns.push_back({oneCase.size, {kind, run}});
    }
    verdicts.push_back(oneCase.size.name() + (allSame ? " byte-identical" : " DIFFERENT"));
    std::cout.flush();
  }
  std::cout << "\nsize       bits thr    read   level   build   setup weights  pixels  layers project   write"
               "   other  Mupd/s\n";
  for (const auto& [size, run] : fastRuns) printPhases(size, run.first, run.second);
  std::cout << "\nresult files of all runs against the first of their size:";
  for (const std::string& verdict : verdicts) std::cout << " " << verdict << ";";
  std::cout << "\n";
  return good;
}

void printLegend() {
  std::cout << "bits: register width of the fast path; thr: OpenMP threads; wall: whole child run; cpu: its user\n"
               "and system time; peak: its maximum resident memory, also in bytes per pixel and per pixel-label;\n"
               "level: wall time per resolution level; x fast: wall time over the first run's of the same size;\n"
               "same: result files byte-identical to that run's.\n"
               "Phases (wall time of the whole run; the solver phases as its first thread sees them): read the\n"
               "inputs; level: resampling between levels; build: hierarchy builds; setup: distance transform and\n"
               "data weight; weights: value-dependent weights and weight sums; pixels: pixel passes; layers:\n"
               "coarser-layer passes and the wait for the other thread; project: projection onto the simplex;\n"
               "write: result files; other: the rest (start-up, label set-up). Mupd/s: pixel-label updates per\n"
               "second of the solver phases, in millions.\n";
}

COptions parseOptions(int argc, char** argv) {
  COptions options;
  for (int i = 1; i < argc; i++) {
    const std::string option = argv[i];
    if (option == "--quick")
      options.quick = true;
    else if (option == "--full")
      options.full = true;
    else if (option == "--fast-only")
      options.fastOnly = true;
    else if (option.rfind("--repeat=", 0) == 0 && std::atoi(option.c_str() + 9) > 0)
      options.repeats = std::atoi(option.c_str() + 9);
    else if (option.rfind("--labels=", 0) == 0 && std::atoi(option.c_str() + 9) >= 1 &&
             std::atoi(option.c_str() + 9) <= kLabels)
      options.labels = std::atoi(option.c_str() + 9);
    else
      throw std::invalid_argument("unknown option " + option +
                                  "; usage: bench_run [--quick | --full | --fast-only] [--repeat=N] [--labels=N]");
  }
  if (options.quick + options.full + options.fastOnly > 1)
    throw std::invalid_argument("--quick, --full and --fast-only exclude each other");
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const COptions options = parseOptions(argc, argv);
    std::string root = (std::filesystem::temp_directory_path() / "bench_run.XXXXXX").string();
    if (mkdtemp(root.data()) == nullptr) throw std::runtime_error("cannot create a temporary folder");
    printMachine(options);
    const auto start = std::chrono::steady_clock::now();
    const bool good = benchmark(options, root);
    printLegend();
    std::cout << "total " << std::fixed << std::setprecision(0) << secondsSince(start) << " s\n";
    if (!good) {
      std::cout << "FAILED: inputs and results kept in " << root << std::endl;
      return 1;
    }
    std::filesystem::remove_all(root);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "Error: " << error.what() << std::endl;
    return 1;
  }
}
