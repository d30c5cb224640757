// The command-line driver: argument handling, file naming and the
// coarse-to-fine run.
#pragma once

namespace NDriver {

// Which implementation relaxes the degrees: the flat-array one the tool uses,
// or the plain node-by-node reference it is checked against. Both give the
// same bits.
enum class ESolverPath { Fast, Reference };

// What a run spent per resolution level, for benchmarks.
struct CRunStats {
  double levelSeconds[4] = {0, 0, 0, 0};  // wall time per level, 0 coarsest
  long long updates = 0;                   // pixel-label updates of the solver
  double solveSeconds = 0;                 // wall time of all solver calls
};

// The program's entry; returns the process exit status. aStats, when given,
// receives the timings of the run.
int main(int argc, char** args, ESolverPath aPath = ESolverPath::Fast, CRunStats* aStats = nullptr);

}  // namespace NDriver
