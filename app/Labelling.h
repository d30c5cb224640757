// The labelling pipeline on tensors in memory: the coarse-to-fine relaxation
// of the label degrees over the superpixel hierarchy (soft result) and the
// strongest label per pixel (hard result). The command line and the Python
// module both run it; it keeps no state between calls.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "CMatrix.h"
#include "CTensor.h"

namespace NDriver {

// Which implementation relaxes the degrees: the flat-array one the tool uses,
// or the plain node-by-node reference it is checked against. Both give the
// same bits.
enum class ESolverPath { Fast, Reference };

// What a run spent per resolution level and per phase, for benchmarks; all
// wall times, summed over the levels.
struct CRunStats {
  double levelSeconds[4] = {0, 0, 0, 0};  // per level, 0 coarsest
  long long updates = 0;                   // pixel-label updates of the solver
  double solveSeconds = 0;                 // hierarchy builds and solver calls
  double readSeconds = 0;                  // reading the input files
  double writeSeconds = 0;                 // writing the result files
  double buildSeconds = 0;                 // hierarchy builds
  // The fast solver's phases (CFlatHierarchy::CPhaseTimes).
  double weightSeconds = 0;
  double pixelSweepSeconds = 0;
  double layerSweepSeconds = 0;
  double projectionSeconds = 0;
};

// One labelling problem; every tensor has the image's width and height.
struct CLabellingInput {
  CTensor<float> image;                       // three colour layers, values 0..255
  std::vector<CTensor<float>> segmentations;  // colour-coded regions, fine to coarse
  CTensor<float> labels;                      // one layer per label, 1 where a pixel carries it
  CMatrix<float> confidence;                  // 1 at the labelled pixels, 0 elsewhere
};

struct CLabellingSettings {
  float alpha = 0.3f;  // weight of the labelled pixels against smoothness, [0, 1)
  bool converged = false;  // solve to convergence with the labelled pixels fixed (alpha unused)
  ESolverPath path = ESolverPath::Fast;
  CRunStats* stats = nullptr;   // receives the timings when given
  std::ostream* log = nullptr;  // receives the progress messages when given
  std::ostream* warnings = nullptr;  // receives warnings about the cost when given
  // Names of the segmentations for messages, fine to coarse; when missing,
  // "segmentation k" stands for them.
  std::vector<std::string> segmentationNames;
};

// The soft result: per pixel one degree per label (as many layers as
// aInput.labels), relaxed from coarse to fine, or with aSettings.converged
// the converged degrees of lib/converged. A hierarchy whose links would not
// fit into the memory throws std::runtime_error naming the segmentation.
CTensor<float> solveLabelling(const CLabellingInput& aInput, const CLabellingSettings& aSettings);

// The hard result of the degrees: 1 for the strongest label of every pixel
// (ties to the lowest), 0 for the others; all 0 where no degree exceeds -1.
CTensor<float> hardLabelling(const CTensor<float>& aDegrees);

// The label number of every pixel of a hard result, -1 where it has none.
CMatrix<int> labelNumbers(const CTensor<float>& aHard);

}  // namespace NDriver
