#include "SegmentTool.h"

#include <algorithm>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <new>

#include "CErrors.h"
#include "CTensor.h"
#include "ColourImage.h"
#include "SegmentationFileName.h"
#include "Segmenter.h"

namespace NSegmentTool {

namespace {

const char* const kUsage =
    "Usage: tarnwick-segment IMAGE K [options]\n"
    "\n"
    "Writes K nested superpixel segmentations of IMAGE, fine to coarse, as\n"
    "IMAGE_seg0.ppm ... IMAGE_seg<K-1>.ppm beside the image: the segmentation\n"
    "files that 'tarnwick IMAGE K LABELS' reads. Every region of a level is\n"
    "a union of regions of the level before, and every region is painted in a\n"
    "colour of its own, as close to its mean colour as the others allow.\n"
    "\n"
    "Arguments:\n"
    "  IMAGE                  binary colour (P6) or grey (P5) pixmap, PNG or JPEG\n"
    "  K                      number of levels, 0 to 10 (0 writes nothing)\n"
    "\n"
    "Options:\n"
    "  -o, --output DIR       write into DIR (created when missing)\n"
    "      --format ppm|png   file format of the segmentations; default: ppm\n"
    "                         (with the image's ending) for a pixmap image, else png\n"
    "  -r, --regions N1,N2,.. region counts, fine to coarse, one per level, each\n"
    "                         at most 0.8 times the one before (1 may follow 1);\n"
    "                         default pixels/500 for the finest, pixels/3000 for\n"
    "                         the coarsest level and geometric steps between\n"
    "                         (640x480, K = 3: 614,251,102)\n"
    "  -h, --help             show this text and exit\n"
    "      --version          show the version and exit\n"
    "\n"
    "Exit status: 0 done, 1 a file could not be read or written, 2 bad arguments.\n";

bool isInteger(const std::string& aText) {
  size_t start = aText.size() > 1 && aText[0] == '-' ? 1 : 0;
  if (start == aText.size()) return false;
  for (; start < aText.size(); start++)
    if (aText[start] < '0' || aText[start] > '9') return false;
  return true;
}

int parseInteger(const std::string& aText, const std::string& aName) {
  if (!isInteger(aText)) throw EArgumentError(aName, "'" + aText + "' is not a whole number");
  errno = 0;
  const long value = std::strtol(aText.c_str(), nullptr, 10);
  if (errno == ERANGE || value < -1000000000L || value > 1000000000L)
    throw EArgumentError(aName, "'" + aText + "' is out of range");
  return static_cast<int>(value);
}

std::vector<int> parseRegions(const std::string& aText) {
  std::vector<int> counts;
  size_t start = 0;
  while (true) {
    const size_t comma = aText.find(',', start);
    const int count = parseInteger(aText.substr(start, comma - start), "--regions");
    if (count < 1) throw EArgumentError("--regions", "every region count must be at least 1");
    if (!counts.empty() && count > NSegment::coarserLimit(counts.back()))
      throw EArgumentError("--regions", std::to_string(count) + " regions after " + std::to_string(counts.back()) +
                                            ": each level needs at most 0.8 times the regions of the one before " +
                                            "(levels that do not shrink make the labelling slow)");
    counts.push_back(count);
    if (comma == std::string::npos) return counts;
    start = comma + 1;
  }
}

// The value of an option given as "--name VALUE" or "--name=VALUE".
bool optionValue(const std::vector<std::string>& aArgs, size_t& i, const std::string& aShort,
                 const std::string& aLong, std::string& aValue) {
  const std::string& arg = aArgs[i];
  if (arg.rfind(aLong + "=", 0) == 0) {
    aValue = arg.substr(aLong.size() + 1);
  } else if (arg == aShort || arg == aLong) {
    if (i + 1 == aArgs.size()) throw EArgumentError(arg, "needs a value");
    aValue = aArgs[++i];
  } else {
    return false;
  }
  if (aValue.empty()) throw EArgumentError(aLong, "needs a value");
  return true;
}

// Creates the output folder and checks that files can be made in it; a name
// whose status cannot even be read (too long a component, a loop of links, a
// parent that may not be entered) gets the system's reason.
void ensureFolder(const std::string& aFolder) {
  std::error_code error;
  std::filesystem::create_directories(aFolder, error);
  std::error_code statusError;
  if (!std::filesystem::is_directory(aFolder, statusError)) {
    const std::error_code& reason = error ? error : statusError;
    throw EFileError(aFolder, "cannot create the output folder" + (reason ? ": " + reason.message() : ""));
  }
  if (access(aFolder.c_str(), W_OK | X_OK) != 0)
    throw EFileError(aFolder, std::string("cannot write into the output folder: ") + std::strerror(errno));
}

void run(const COptions& aOptions) {
  const bool pixmapImage = NImageFile::detect(aOptions.image) == NImageFile::EFormat::Pixmap;
  const NImageFile::EFormat format =
      aOptions.format.value_or(pixmapImage ? NImageFile::EFormat::Pixmap : NImageFile::EFormat::Png);
  // Pixmaps of a pixmap image keep its ending, whatever it is.
  const std::string ending = pixmapImage && format == NImageFile::EFormat::Pixmap ? "" : NImageFile::ending(format);
  // Names first, so that a name the labelling tool cannot use fails before any work.
  std::vector<std::string> names;
  for (int k = 0; k < aOptions.levels; k++)
    names.push_back(segmentationName(aOptions.image, aOptions.outputDir, k, ending));
  const CTensor<float> image = NColourImage::read(aOptions.image, NImageFile::EContent::Photo);
  if (aOptions.levels == 0) return;
  // Checked before the segmentation, whose work would be lost otherwise.
  if (!aOptions.outputDir.empty()) ensureFolder(aOptions.outputDir);
  const std::vector<int> counts = aOptions.regions.empty()
                                      ? NSegment::defaultRegionCounts(image.xSize() * image.ySize(), aOptions.levels)
                                      : aOptions.regions;
  const std::vector<CMatrix<int>> levels = NSegment::segment(image, counts);
  for (size_t k = 0; k < levels.size(); k++) {
    const int regions = levels[k].size() > 0 ? *std::max_element(levels[k].data(), levels[k].data() + levels[k].size()) + 1 : 0;
    NImageFile::write(names[k], NSegment::paintRegions(image, levels[k]), format);
    std::cout << names[k] << ": " << regions << (regions == 1 ? " region" : " regions") << std::endl;
  }
}

}  // namespace

EArgumentError::EArgumentError(const std::string& aArgument, const std::string& aProblem) {
  std::cerr << "Error: " << aArgument << ": " << aProblem << "\nTry 'tarnwick-segment --help'." << std::endl;
}

COptions parseArguments(const std::vector<std::string>& aArgs) {
  COptions options;
  std::vector<std::string> positional;
  std::string regions;
  std::string format;
  for (size_t i = 0; i < aArgs.size(); i++) {
    const std::string& arg = aArgs[i];
    if (arg == "-h" || arg == "--help") {
      options.help = true;
      return options;
    }
    if (arg == "--version") {
      options.version = true;
      return options;
    }
    if (optionValue(aArgs, i, "-o", "--output", options.outputDir) || optionValue(aArgs, i, "-r", "--regions", regions))
      continue;
    if (optionValue(aArgs, i, "--format", "--format", format)) {
      NImageFile::EFormat parsed = NImageFile::EFormat::Pixmap;
      if (!NImageFile::parseWriteFormat(format, parsed)) throw EArgumentError("--format", "'" + format + "' is not ppm or png");
      options.format = parsed;
      continue;
    }
    // A negative number is a (bad) K, not an option.
    if (arg.size() > 1 && arg[0] == '-' && !isInteger(arg)) throw EArgumentError(arg, "unknown option");
    positional.push_back(arg);
  }
  if (positional.empty()) throw EArgumentError("IMAGE", "missing (usage: tarnwick-segment IMAGE K [options])");
  if (positional.size() == 1) throw EArgumentError("K", "missing (usage: tarnwick-segment IMAGE K [options])");
  if (positional.size() > 2) throw EArgumentError(positional[2], "unexpected argument");
  options.image = positional[0];
  options.levels = parseInteger(positional[1], "K");
  if (options.levels < 0 || options.levels > kMaxLevels)
    throw EArgumentError("K", positional[1] + " is not a level count from 0 to " + std::to_string(kMaxLevels));
  if (!regions.empty()) {
    options.regions = parseRegions(regions);
    if (static_cast<int>(options.regions.size()) != options.levels)
      throw EArgumentError("--regions", std::to_string(options.regions.size()) + " count(s) given for K = " +
                                            std::to_string(options.levels) + ", one per level needed");
  }
  return options;
}

std::string segmentationName(const std::string& aImage, const std::string& aOutputDir, int aLevel,
                             const std::string& aEnding) {
  const size_t slash = aImage.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : aImage.substr(0, slash + 1);
  const std::string file = slash == std::string::npos ? aImage : aImage.substr(slash + 1);
  const size_t dot = file.rfind('.');
  if (dot == std::string::npos)
    throw EArgumentError(aImage, "the image name needs an ending such as .ppm (the labelling tool requires one)");
  std::string target = folder;
  if (!aOutputDir.empty()) target = aOutputDir.back() == '/' ? aOutputDir : aOutputDir + "/";
  return segmentationFileName(target + file.substr(0, dot), aLevel, aEnding.empty() ? file.substr(dot) : aEnding);
}

int main(int argc, char** argv) {
  try {
    const COptions options = parseArguments(std::vector<std::string>(argv + 1, argv + argc));
    if (options.help) {
      std::cout << kUsage << std::flush;
    } else if (options.version) {
      std::cout << "tarnwick-segment " << TARNWICK_VERSION << std::endl;
    } else {
      run(options);
    }
    return 0;
  } catch (const EArgumentError&) {
    return 2;
  } catch (const ETarnwickError&) {
    return 1;
  } catch (const std::bad_alloc&) {
    std::cerr << "Error: not enough memory" << std::endl;
    return 1;
  }
}

}  // namespace NSegmentTool
