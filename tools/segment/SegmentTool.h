// Command-line front end of tarnwick-segment: arguments, output names, run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CErrors.h"
#include "CImageFile.h"

namespace NSegmentTool {

// A bad command line; prints "Error: <argument>: <problem>" and a hint.
class EArgumentError : public ETarnwickError {
public:
  EArgumentError(const std::string& aArgument, const std::string& aProblem);
};

constexpr int kMaxLevels = 10;

struct COptions {
  std::string image;
  int levels = 0;
  std::vector<int> regions;  // empty: defaults for the image size
  std::string outputDir;     // empty: beside the image
  // Of the written files; unset: pixmap for a pixmap image, PNG otherwise.
  std::optional<NImageFile::EFormat> format;
  bool help = false;
  bool version = false;
};

// Throws EArgumentError. With --help or --version the rest is not checked.
COptions parseArguments(const std::vector<std::string>& aArgs);

// Name of segmentation aLevel of aImage as the labelling tool reads it:
// base name + "_seg" + level + aEnding (empty: the image's ending), in
// aOutputDir when given, else beside the image. Throws EArgumentError for a
// name without ending.
std::string segmentationName(const std::string& aImage, const std::string& aOutputDir, int aLevel,
                             const std::string& aEnding = "");

// The program; returns the exit status (0 success, 1 file error, 2 usage error).
int main(int argc, char** argv);

}  // namespace NSegmentTool
