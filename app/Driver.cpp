#include "Driver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "CErrors.h"
#include "CFlatHierarchy.h"
#include "CImageFile.h"
#include "CTensor.h"
#include "CUtility.h"
#include "ColourImage.h"
#include "Labelling.h"
#include "Options.h"
#include "SegmentationFileName.h"

namespace {

bool mShowInit = false;
std::string mInputImg;
std::string mInputDir;
std::string mInputEnd;
std::string mResultDir;
std::string mTrackFile;
int mXSize = 0;
int mYSize = 0;
int mZSize = 0;

// Exit status of every failure other than the usage text.
constexpr int kFailure = 2;
// Labels beyond this many are rejected: the palette of track labels has as many
// colours, and a photograph given by mistake as a label image must fail fast.
constexpr int kMaxLabels = 256;

// A failure of the run whose message has already been printed.
class ERunFailure : public ETarnwickError {};

ERunFailure fail(const std::string& aMessage) {
  std::cerr << "Error: " << aMessage << std::endl;
  return ERunFailure{};
}

struct CSettings {
  NDriver::COptions options;
  int NoSegFiles = 0;
  int frameNo = -1;
  float aAlpha = 0.3f;
  int outChoice = 0;
  std::string outputBase;
  bool hasOutputBase = false;
  NDriver::ESolverPath path = NDriver::ESolverPath::Fast;
  NDriver::CRunStats* stats = nullptr;
};

void printUsage() {
  std::cout << "input image name missing! " << std::endl;
  std::cout << "The program needs 3 arguments (plus 2 optional arguments):" << std::endl;
  std::cout << "- argument 1 : image file (ppm, png or jpeg)" << std::endl;
  std::cout << "- argument 2 : number of hierarchy levels" << std::endl;
  std::cout << "- argument 3 : initial sparse labels (ppm or png)" << std::endl;
  std::cout << "- argument 3 : initial sparse labels (track-file; needs argument 4) " << std::endl;
  std::cout << "- argument 4*: frame number in track file [set to 0 if ppm is given]" << std::endl;
  std::cout << "- argument 5*: regularization parameter alpha [default = 0.3]" << std::endl;
  std::cout << "- argument 6*: output [default = 0]" << std::endl;
  std::cout << "              (0: dense region image," << std::endl;
  std::cout << "               1: 0 plus dense regions overlayed to original image," << std::endl;
  std::cout << "               2: as 1 with initial labels)" << std::endl;
  std::cout << "- argument 7*: output folder" << std::endl;
}

void printOptions() {
  std::cout << "options (anywhere on the line):" << std::endl;
  for (const NDriver::COptionHelp& option : NDriver::optionHelp())
    std::cout << "  " << option.name << "  " << option.text << std::endl;
}

void warn(int aPosition, const char* aWhat, const char* aText, const char* aProblem, const std::string& aUsed) {
  std::cerr << "Warning: argument " << aPosition << ": " << aWhat << " '" << aText << "' " << aProblem << "; using "
            << aUsed << std::endl;
}

// Text that strtod does not read to its end is taken as read (0 when no
// number begins it), as the command line always has, but named in a warning.
void warnUnlessNumber(const char* aText, int aPosition, const char* aWhat, const std::string& aUsed) {
  char* end = nullptr;
  std::strtod(aText, &end);
  if (end == aText || *end != '\0') warn(aPosition, aWhat, aText, "is not a number", aUsed);
}

// strtod truncated toward zero; values without an int representation are
// reported or clamped instead of being converted with undefined behaviour.
int truncatedArgument(const char* aText, int aPosition, const char* aWhat) {
  const double value = std::strtod(aText, nullptr);
  if (std::isnan(value))
    throw fail("argument " + std::to_string(aPosition) + ": " + aWhat + " '" + aText + "' is not a number");
  if (value >= 2147483648.0 || value <= -2147483649.0) {
    const int clamped = value > 0 ? INT_MAX : INT_MIN;
    warn(aPosition, aWhat, aText, "is beyond the int range", std::to_string(clamped));
    return clamped;
  }
  const int truncated = static_cast<int>(value);
  warnUnlessNumber(aText, aPosition, aWhat, std::to_string(truncated));
  return truncated;
}

// Returns false when the program must end right away with status aStatus.
bool parseArguments(int argc, char** argv, CSettings& aSettings, int& aStatus) {
  std::vector<char*> positional;
  try {
    positional = NDriver::splitOptions(argc, argv, aSettings.options);
  } catch (const std::invalid_argument& error) {
    throw fail(error.what());
  }
  if (aSettings.options.help) {
    printUsage();
    printOptions();
    aStatus = 0;
    return false;
  }
  if (aSettings.options.vectorBits > 0) CFlatHierarchy::limitVectorBits(aSettings.options.vectorBits);
  char** args = positional.data();
  const int N = static_cast<int>(positional.size()) - 1;
  if (N < 3) {
    printUsage();
    aStatus = 1;
    return false;
  }
  mInputImg = args[1];
  const long segFiles = std::strtol(args[2], nullptr, 10);
  if (segFiles > INT_MAX)
    throw fail(std::string("argument 2: number of hierarchy levels '") + args[2] + "' is too large");
  aSettings.NoSegFiles = static_cast<int>(std::max(segFiles, static_cast<long>(INT_MIN)));
  mTrackFile = args[3];
  CUtility::getEnding(&mTrackFile, &mInputEnd);
  if (mInputEnd == ".dat") {
    if (N == 3) {
      std::cout << "Error: Need frame number in track file" << std::endl;
      aStatus = 0;
      return false;
    }
    aSettings.frameNo = truncatedArgument(args[4], 4, "frame number");
    if (aSettings.frameNo < 0) {
      std::cout << "Error: Frame number must be positive integer" << std::endl;
      aStatus = 0;
      return false;
    }
  }
  if (N >= 5) {
    aSettings.aAlpha = static_cast<float>(std::strtod(args[5], nullptr));
    // Alpha mixes data and smoothness; at 1 unlabelled pixels have no weight at
    // all (a division by zero), outside [0, 1) the mix has no meaning.
    if (!(aSettings.aAlpha >= 0.0f && aSettings.aAlpha < 1.0f))
      throw fail(std::string("argument 5: alpha '") + args[5] + "' must be a number from 0 up to (not including) 1");
    std::ostringstream used;
    used << aSettings.aAlpha;
    warnUnlessNumber(args[5], 5, "alpha", used.str());
    aSettings.outChoice = N >= 6 ? truncatedArgument(args[6], 6, "output mode") : 0;
  }
  mShowInit = aSettings.outChoice == 2;
  if (N >= 7) {
    aSettings.outputBase = args[7];
    aSettings.hasOutputBase = true;
  }
  try {
    CUtility::decomposeFileName(&mInputImg, &mInputDir, &mInputImg, &mInputEnd);
  } catch (const std::out_of_range& error) {
    throw fail(std::string("argument 1: the image name '") + args[1] + "' has no ending such as .ppm (" +
               error.what() + ")");
  }
  return true;
}

// Makes the results folder without a shell; an existing folder is fine.
void createResultFolder(const CSettings& aSettings) {
  mResultDir = (aSettings.hasOutputBase ? aSettings.outputBase : mInputDir) + "TarnwickResults";
  if (mkdir(mResultDir.c_str(), 0777) != 0 && errno != EEXIST)
    throw fail("cannot create the results folder " + mResultDir + ": " + std::strerror(errno));
  struct stat info {};
  if (stat(mResultDir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    throw fail("cannot create the results folder " + mResultDir + ": a file of that name is in the way");
  if (access(mResultDir.c_str(), W_OK | X_OK) != 0)
    throw fail("the results folder " + mResultDir + " is not writable");
  mResultDir += "/";
  std::cout << std::endl;
}

void requireImageSize(const CTensor<float>& aTensor, const std::string& aName, const char* aWhat) {
  if (aTensor.xSize() != mXSize || aTensor.ySize() != mYSize)
    throw fail(aName + ": " + aWhat + " is " + std::to_string(aTensor.xSize()) + " x " +
               std::to_string(aTensor.ySize()) + " but the image is " + std::to_string(mXSize) + " x " +
               std::to_string(mYSize));
}

bool exists(const std::string& aName) {
  struct stat info {};
  return stat(aName.c_str(), &info) == 0;
}

// NAME_segK with the image's ending; when that is missing, the .png and then
// the .ppm file, so that a JPEG frame can have PNG segmentations. When none
// exists the first name is reported missing.
std::string segmentationName(int k) {
  const std::string stem = mInputDir + mInputImg;
  for (const std::string& ending : {mInputEnd, std::string(".png"), std::string(".ppm")})
    if (exists(segmentationFileName(stem, k, ending))) return segmentationFileName(stem, k, ending);
  return segmentationFileName(stem, k, mInputEnd);
}

// Counts the distinct label colours, stopping early past the limit; aNone
// says what is wrong when there is no label at all.
void checkLabelCount(const CTensor<float>& aColours, const std::string& aName, const std::string& aNone) {
  std::unordered_set<long long> colours;
  const int n = aColours.xSize() * aColours.ySize();
  const float* data = aColours.data();
  for (int i = 0; i < n; i++) {
    const float r = data[i];
    const float g = data[i + n];
    const float b = data[i + 2 * n];
    if (r == 255.0f && g == 255.0f && b == 255.0f) continue;
    colours.insert((static_cast<long long>(r) << 16) | (static_cast<long long>(g) << 8) | static_cast<long long>(b));
    if (static_cast<int>(colours.size()) > kMaxLabels)
      throw fail(aName + ": more than " + std::to_string(kMaxLabels) + " label colours; a label image holds white (" +
                 "unlabelled) and one colour per label");
  }
  if (colours.empty()) throw fail(aName + ": " + aNone);
  if (static_cast<long long>(n) * static_cast<long long>(colours.size()) > INT_MAX)
    throw fail(aName + ": too many labels for an image of this size");
}

struct CInputs {
  NDriver::CLabellingInput problem;
  std::vector<CVector<int>> mapLabelToColor;
};

void loadInputs(const CSettings& aSettings, CInputs& aIn) {
  const std::string imageName = mInputDir + mInputImg + mInputEnd;
  NDriver::CLabellingInput& problem = aIn.problem;
  problem.image = NColourImage::read(imageName, NImageFile::EContent::Photo);
  std::cout << "load input file:            " << imageName << std::endl;
  mXSize = problem.image.xSize();
  mYSize = problem.image.ySize();
  mZSize = problem.image.zSize();
  for (int i = 1; i <= aSettings.NoSegFiles; i++) {
    const std::string name = segmentationName(i - 1);
    std::cout << "load superpixel file:       " << name << std::endl;
    problem.segmentations.push_back(NColourImage::read(name, NImageFile::EContent::ExactColours));
    requireImageSize(problem.segmentations.back(), name, "the segmentation");
  }
  std::cout << "read sparse label file:     " << mTrackFile << std::endl;
  problem.confidence.setSize(mXSize, mYSize);
  problem.confidence.fill(0.0f);
  CTensor<float> inputTracks(mXSize, mYSize, mZSize, 255.0f);
  if (aSettings.frameNo == -1) {
    const std::string labelName = mInputDir + mTrackFile;
    inputTracks = NColourImage::read(labelName, NImageFile::EContent::ExactColours);
    requireImageSize(inputTracks, labelName, "the label image");
    checkLabelCount(inputTracks, labelName, "no labels (every pixel is white)");
  } else {
    if (!CUtility::readTracks(mTrackFile.c_str(), aSettings.frameNo, inputTracks))
      throw fail(mTrackFile + ": the track file cannot be opened (missing, unreadable or not a plain file)");
    checkLabelCount(inputTracks, mTrackFile, "no point in frame " + std::to_string(aSettings.frameNo));
  }
  const int labelCount = CUtility::color2labelFunction(problem.labels, inputTracks, aIn.mapLabelToColor);
  std::cout << "number of labels:  " << labelCount << std::endl;
  CUtility::labelFunction2confidenceMask(problem.labels, problem.confidence);
}

// Writes result NAME + aSuffix into the results folder in the chosen format.
void writeResult(const CSettings& aSettings, const CTensor<float>& aImage, const std::string& aSuffix) {
  const NImageFile::EFormat format = aSettings.options.format;
  NImageFile::write(mResultDir + mInputImg + aSuffix + NImageFile::ending(format), aImage, format);
}

void writeInitialLabels(const CSettings& aSettings, CInputs& aIn) {
  CTensor<float> sparseLabels(mXSize, mYSize, mZSize, 255.0f);
  CUtility::plotSparseLabels(sparseLabels, aIn.problem.labels, aIn.problem.confidence, aIn.mapLabelToColor);
  writeResult(aSettings, sparseLabels, "_initialLabels");
}

void writeOutputs(const CSettings& aSettings, const CInputs& aIn, const CTensor<float>& aSoft) {
  CTensor<float> canvas(mXSize, mYSize, mZSize, 255.0f);
  CUtility::plotOverlayColor(canvas, aSoft, aIn.mapLabelToColor, 1.0f);
  writeResult(aSettings, canvas, "_dense_soft");
  const CTensor<float> hard = NDriver::hardLabelling(aSoft);
  canvas.fill(255.0f);
  CUtility::plotOverlayColor(canvas, hard, aIn.mapLabelToColor, 1.0f);
  writeResult(aSettings, canvas, "_dense");
  if (aSettings.outChoice > 0) {
    canvas = aIn.problem.image;
    CUtility::plotOverlayColor(canvas, hard, aIn.mapLabelToColor, 0.4f);
    if (mShowInit)
      CUtility::plotSparseLabels(canvas, aIn.problem.labels, aIn.problem.confidence, aIn.mapLabelToColor);
    writeResult(aSettings, canvas, "_denseOUT");
  }
}

double secondsSince(std::chrono::steady_clock::time_point aStart) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - aStart).count();
}

int run(int argc, char** args, NDriver::ESolverPath aPath, NDriver::CRunStats* aStats) {
  CSettings settings;
  settings.path = aPath;
  settings.stats = aStats;
  int status = 0;
  if (!parseArguments(argc, args, settings, status)) return status;
  createResultFolder(settings);
  CInputs inputs;
  const auto readStart = std::chrono::steady_clock::now();
  loadInputs(settings, inputs);
  if (aStats != nullptr) aStats->readSeconds = secondsSince(readStart);
  const auto writeStart = std::chrono::steady_clock::now();
  writeInitialLabels(settings, inputs);
  if (aStats != nullptr) aStats->writeSeconds = secondsSince(writeStart);
  std::cout << "alpha:             " << settings.aAlpha << std::endl;
  std::cout << std::endl;
  NDriver::CLabellingSettings labelling;
  labelling.alpha = settings.aAlpha;
  labelling.converged = settings.options.converged;
  labelling.path = settings.path;
  labelling.stats = settings.stats;
  labelling.log = &std::cout;
  labelling.warnings = &std::cerr;
  for (int k = 0; k < settings.NoSegFiles; k++) labelling.segmentationNames.push_back(segmentationName(k));
  const CTensor<float> degrees = NDriver::solveLabelling(inputs.problem, labelling);
  const auto outputStart = std::chrono::steady_clock::now();
  writeOutputs(settings, inputs, degrees);
  if (aStats != nullptr) aStats->writeSeconds += secondsSince(outputStart);
  return 0;
}

}  // namespace

namespace NDriver {

int main(int argc, char** args, ESolverPath aPath, CRunStats* aStats) {
  // Every exception of the system prints its own message when it is made.
  try {
    return run(argc, args, aPath, aStats);
  } catch (const ETarnwickError&) {
  } catch (const std::bad_alloc&) {
    std::cerr << "Error: out of memory" << std::endl;
  } catch (const std::exception& error) {
    std::cerr << "Error: " << error.what() << std::endl;
  }
  return kFailure;
}

}  // namespace NDriver
