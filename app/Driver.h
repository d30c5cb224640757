// The command-line driver: argument handling, file naming and the
// coarse-to-fine run.
#pragma once

#include "Labelling.h"

namespace NDriver {

// The program's entry; returns the process exit status. aStats, when given,
// receives the timings of the run.
int main(int argc, char** args, ESolverPath aPath = ESolverPath::Fast, CRunStats* aStats = nullptr);

}  // namespace NDriver
