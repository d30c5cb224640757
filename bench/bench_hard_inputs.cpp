// Convergence of --converged on inputs that strain a multilevel solver: a
// flat image, a smooth gradient in 8-bit steps (bands of equal pixels), black
// letterbox bars above and below noise (each bar one region of the
// segmentation), and plain noise; at 640x480 and 1280x960, without
// segmentation files and with three from the segmenter at its defaults, and
// three short scribbles. There is no ground truth to score: each case
// reports the iterations, the final error estimate and the wall time, and
// fails if it reaches the iteration limit or ends above the tolerance.
//
// Usage: bench_hard_inputs [--keep DIR] [LABELLING_TOOL]

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Converged.h"
#include "SegmentationFileName.h"
#include "Segmenter.h"
#include "SyntheticScene.h"
#include "ToolRun.h"

namespace {

constexpr int kLevels = 3;

enum class EKind { Flat, Gradient, Letterbox, Noise };

const char* nameOf(EKind aKind) {
  switch (aKind) {
    case EKind::Flat: return "flat";
    case EKind::Gradient: return "gradient";
    case EKind::Letterbox: return "letterbox";
    default: return "noise";
  }
}

CTensor<float> makeImage(EKind aKind, int aWidth, int aHeight) {
  CTensor<float> image(aWidth, aHeight, 3, 128.0f);
  NBench::CRandom random(7);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const double u = static_cast<double>(x) / aWidth;
      const double v = static_cast<double>(y) / aHeight;
      const std::array<double, 3> gradient = {80 + 100 * v + 20 * u, 120 + 80 * v, 200 + 40 * u};
      const bool bar = y < aHeight / 8 || y >= aHeight - aHeight / 8;
      for (int c = 0; c < 3; c++) {
        double value = 128;
        if (aKind == EKind::Gradient) value = gradient[static_cast<size_t>(c)];
        if (aKind == EKind::Noise || aKind == EKind::Letterbox) value = 128 + 10 * random.gaussian();
        if (aKind == EKind::Letterbox && bar) value = 0;
        image(x, y, c) = static_cast<float>(std::clamp(std::round(value), 0.0, 255.0));
      }
    }
  return image;
}

// Three strokes of three labels, a fourth of the way in from the corners
// and in the middle.
CTensor<float> makeScribbles(int aWidth, int aHeight) {
  CTensor<float> labels(aWidth, aHeight, 3, 255.0f);
  const int scale = std::max(1, aWidth / 320);
  const std::array<std::array<int, 2>, 3> starts = {
      {{aWidth / 4, aHeight / 4}, {3 * aWidth / 4 - 30 * scale, 3 * aHeight / 4}, {aWidth / 2, aHeight / 2}}};
  const std::array<std::array<float, 3>, 3> colours = {{{255, 0, 0}, {0, 0, 255}, {0, 255, 0}}};
  for (size_t s = 0; s < starts.size(); s++)
    for (int y = starts[s][1]; y < starts[s][1] + 3 * scale; y++)
      for (int x = starts[s][0]; x < starts[s][0] + 30 * scale; x++)
        for (int c = 0; c < 3; c++) labels(x, y, c) = colours[s][static_cast<size_t>(c)];
  return labels;
}

struct CSolve {
  int iterations = -1;
  double error = 0;
};

// The transcript's "converged solve: ... N iterations, estimated error E".
CSolve parseTranscript(const std::string& aFile) {
  std::ifstream file(aFile);
  std::string line;
  CSolve solve;
  while (std::getline(file, line)) {
    const size_t at = line.find("levels, ");
    if (line.rfind("converged solve:", 0) != 0 || at == std::string::npos) continue;
    std::sscanf(line.c_str() + at, "levels, %d iterations, estimated error %lf", &solve.iterations, &solve.error);
  }
  return solve;
}

}  // namespace

int main(int argc, char** argv) {
  std::string tool = TARNWICK_EXE;
  std::string keep;
  for (int i = 1; i < argc; i++) {
    if (std::strcmp(argv[i], "--keep") == 0 && i + 1 < argc)
      keep = argv[++i];
    else
      tool = argv[i];
  }
  const std::string root = keep.empty() ? std::filesystem::temp_directory_path().string() + "/bench_hard_inputs_" +
                                              std::to_string(getpid())
                                        : keep;
  std::cout << std::fixed << "Convergence of --converged on hard inputs, three scribbled labels\n\n"
            << "size      image        K  iterations   estimate  wall[s]\n";
  bool ok = true;
  for (const auto& size : std::vector<std::array<int, 2>>{{640, 480}, {1280, 960}})
    for (const EKind kind : {EKind::Flat, EKind::Gradient, EKind::Letterbox, EKind::Noise}) {
      const std::string name = std::to_string(size[0]) + "x" + std::to_string(size[1]);
      const std::string folder = root + "/" + name + "_" + nameOf(kind);
      std::filesystem::create_directories(folder);
      const CTensor<float> image = makeImage(kind, size[0], size[1]);
      image.writeToPPM((folder + "/image.ppm").c_str());
      makeScribbles(size[0], size[1]).writeToPPM((folder + "/scribbles.ppm").c_str());
      const std::vector<CMatrix<int>> levels =
          NSegment::segment(image, NSegment::defaultRegionCounts(size[0] * size[1], kLevels));
      for (size_t k = 0; k < levels.size(); k++)
        NSegment::paintRegions(image, levels[k])
            .writeToPPM(segmentationFileName(folder + "/image", static_cast<int>(k), ".ppm").c_str());
      for (const int segmentations : {0, kLevels}) {
        const std::string transcript = folder + "/transcript_K" + std::to_string(segmentations) + ".txt";
        const NBench::CRun run = NBench::runTool({tool, folder + "/image.ppm", std::to_string(segmentations),
                                                  "scribbles.ppm", "0", "0.3", "0", folder + "/K" +
                                                  std::to_string(segmentations) + "_", "--converged"},
                                                 transcript);
        const CSolve solve = parseTranscript(transcript);
        const NConverged::CConvergedParameters limits;
        const bool good = run.ok && solve.iterations >= 0 && solve.iterations < limits.mMaxIterations &&
                          solve.error <= limits.mTolerance;
        ok = ok && good;
        std::cout << std::left << std::setw(10) << name << std::setw(11) << nameOf(kind) << std::right
                  << std::setw(3) << segmentations << std::setw(12) << solve.iterations << std::setw(11)
                  << std::setprecision(6) << solve.error << std::setw(9) << std::setprecision(3) << run.wallSeconds
                  << (good ? "" : "  FAILED") << "\n";
      }
    }
  if (keep.empty()) std::filesystem::remove_all(root);
  return ok ? 0 : 1;
}
