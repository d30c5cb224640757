#include "Options.h"

#include <cstring>
#include <stdexcept>

namespace NDriver {

const std::vector<COptionHelp>& optionHelp() {
  static const std::vector<COptionHelp> help = {
      {"--help", "print this text and end"},
      {"--converged", "solve the labelling to convergence (labelled pixels fixed); alpha is not used"},
      {"--format ppm|png", "file format of the results (default ppm)"},
      {"--vector-bits=N", "use registers of at most N bits (128, 256 or 512; same results)"},
  };
  return help;
}

namespace {

// Splits "--name=value" into its name and value.
void splitValue(const std::string& aArgument, std::string& aName, std::string& aValue, bool& aHasValue) {
  const std::size_t equals = aArgument.find('=');
  aHasValue = equals != std::string::npos;
  aName = aArgument.substr(0, equals);
  aValue = aHasValue ? aArgument.substr(equals + 1) : std::string();
}

}  // namespace

std::vector<char*> splitOptions(int argc, char** argv, COptions& aOptions) {
  std::vector<char*> positional;
  if (argc > 0) positional.push_back(argv[0]);
  for (int i = 1; i < argc; i++) {
    if (std::strncmp(argv[i], "--", 2) != 0) {
      positional.push_back(argv[i]);
      continue;
    }
    std::string name;
    std::string value;
    bool hasValue = false;
    splitValue(argv[i], name, value, hasValue);
    if (name == "--help" && !hasValue) {
      aOptions.help = true;
    } else if (name == "--converged" && !hasValue) {
      aOptions.converged = true;
    } else if (name == "--format") {
      if (!hasValue && i + 1 == argc) throw std::invalid_argument("option --format needs a value: ppm or png");
      if (!hasValue) value = argv[++i];
      if (!NImageFile::parseWriteFormat(value, aOptions.format))
        throw std::invalid_argument("option --format: '" + value + "' is not ppm or png");
    } else if (name == "--vector-bits" && (value == "128" || value == "256" || value == "512")) {
      aOptions.vectorBits = std::stoi(value);
    } else if (name == "--vector-bits") {
      throw std::invalid_argument("option '" + std::string(argv[i]) + "': N is 128, 256 or 512");
    } else {
      throw std::invalid_argument("unknown option '" + std::string(argv[i]) + "' (see --help)");
    }
  }
  return positional;
}

}  // namespace NDriver
