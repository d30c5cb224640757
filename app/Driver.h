// The command-line driver: argument handling, file naming and the
// coarse-to-fine run.
#pragma once

namespace NDriver {

// Which implementation relaxes the degrees: the flat-array one the tool uses,
// or the plain node-by-node reference it is checked against. Both give the
// same bits.
enum class ESolverPath { Fast, Reference };

// The program's entry; returns the process exit status.
int main(int argc, char** args, ESolverPath aPath = ESolverPath::Fast);

}  // namespace NDriver
