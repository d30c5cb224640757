// Helpers shared by the test suites: scratch folders, small images on disk and
// running the built executables.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CTensor.h"

namespace NTest {

// A fresh folder below the system's temporary folder, removed on destruction.
class CScratchDir {
public:
  CScratchDir();
  ~CScratchDir();
  CScratchDir(const CScratchDir&) = delete;
  CScratchDir& operator=(const CScratchDir&) = delete;
  const std::string& path() const { return mPath; }
  std::string file(const std::string& aName) const { return mPath + "/" + aName; }

private:
  std::string mPath;
};

struct CRunResult {
  int status = -1;     // exit status, or -1 when ended by a signal
  int signal = 0;      // the signal that ended the process, 0 if none
  std::string out;     // standard output
  std::string err;     // standard error
};

// Runs aProgram with aArgs (no shell) in aWorkDir and collects its output.
// aEnv entries of the form NAME=VALUE are added to the environment.
CRunResult run(const std::string& aProgram, const std::vector<std::string>& aArgs,
               const std::string& aWorkDir = ".", const std::vector<std::string>& aEnv = {});

// A scene: left half dark red, right half light blue, a green square, a little texture.
CTensor<float> sceneImage(int aWidth, int aHeight);
// Blocks of aBlock x aBlock pixels, each in a colour of its own.
CTensor<float> blockSegmentation(int aWidth, int aHeight, int aBlock);
// White with a short stroke of each colour of aColours, at fixed spots of the scene.
CTensor<float> scribbles(int aWidth, int aHeight, const std::vector<std::vector<float>>& aColours);
// Writes aDir/frame.ppm, its aSegs block segmentations (blocks of 2, 4, 8, ...)
// and aDir/labels.ppm with scribbles of aColours.
void writeScene(const std::string& aDir, int aWidth, int aHeight, int aSegs,
                const std::vector<std::vector<float>>& aColours);

// File contents of a binary pixmap in one sample value, written without the tool's writer.
std::string pixmap(int aWidth, int aHeight, char aSample, const std::string& aMagic = "P6", int aMaxval = 255);
// A label pixmap: white with a black pixel at (1, 1) and a red one at (w - 2, h - 2).
std::string labelPixmap(int aWidth, int aHeight);

// A matrix of the given extents filled row by row from aValues, and back.
CMatrix<float> matrix(int aXSize, int aYSize, const std::vector<float>& aValues);
std::vector<float> values(const CMatrix<float>& aMatrix);
std::vector<float> values(const CTensor<float>& aTensor);
// A pixmap read with the tool's reader.
CTensor<float> readPixmap(const std::string& aPath);

std::string readFile(const std::string& aPath);
void writeFile(const std::string& aPath, const std::string& aContents);
bool fileExists(const std::string& aPath);
// Names of the entries of a folder, sorted.
std::vector<std::string> listDir(const std::string& aPath);
// Splits text into lines without their newlines.
std::vector<std::string> lines(const std::string& aText);
// What aAction prints on the standard error stream.
std::string stderrOf(const std::function<void()>& aAction);

}  // namespace NTest
