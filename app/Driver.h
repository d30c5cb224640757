// The command-line driver: argument handling, file naming and the
// coarse-to-fine run.
#pragma once

namespace NDriver {

// The program's entry; returns the process exit status.
int main(int argc, char** args);

}  // namespace NDriver
