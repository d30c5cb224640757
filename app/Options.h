// Options of the command line: arguments that begin with "--", accepted
// anywhere. Every other argument keeps its positional meaning.
#pragma once

#include <string>
#include <vector>

#include "CImageFile.h"

namespace NDriver {

struct COptions {
  bool help = false;
  bool converged = false;  // solve the degrees to convergence instead of the exact run
  NImageFile::EFormat format = NImageFile::EFormat::Pixmap;  // of the result files
  int vectorBits = 0;  // widest registers the solver may use; 0: its default
};

struct COptionHelp {
  const char* name;
  const char* text;
};

// The options and what they do, for --help.
const std::vector<COptionHelp>& optionHelp();

// Moves the options out of argv into aOptions and returns the rest, program
// name first, in their order. Throws std::invalid_argument naming an unknown
// option or a bad value.
std::vector<char*> splitOptions(int argc, char** argv, COptions& aOptions);

}  // namespace NDriver
