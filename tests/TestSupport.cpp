#include "TestSupport.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace NTest {

CScratchDir::CScratchDir() {
  std::string pattern = std::filesystem::temp_directory_path().string() + "/tarnwick-test-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("cannot create a scratch folder");
  mPath = pattern;
}

CScratchDir::~CScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(mPath, ignored);
}

CRunResult run(const std::string& aProgram, const std::vector<std::string>& aArgs, const std::string& aWorkDir,
               const std::vector<std::string>& aEnv) {
  CScratchDir capture;
  const std::string outFile = capture.file("stdout");
  const std::string errFile = capture.file("stderr");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0 || chdir(aWorkDir.c_str()) != 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (const std::string& entry : aEnv) putenv(const_cast<char*>(entry.c_str()));
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(aProgram.c_str()));
    for (const std::string& arg : aArgs) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(aProgram.c_str(), argv.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  CRunResult result;
  if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) result.signal = WTERMSIG(wstatus);
  result.out = readFile(outFile);
  result.err = readFile(errFile);
  return result;
}

CTensor<float> sceneImage(int aWidth, int aHeight) {
  CTensor<float> image(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const bool square = x >= aWidth / 3 && x < aWidth / 2 && y >= aHeight / 4 && y < aHeight / 2;
      const bool left = x < aWidth / 2;
      image(x, y, 0) = (square ? 40.0f : left ? 150.0f : 90.0f) + static_cast<float>((x * 7 + y * 3) % 5);
      image(x, y, 1) = (square ? 200.0f : left ? 30.0f : 140.0f) + static_cast<float>((x * 5 + y * 11) % 7);
      image(x, y, 2) = square ? 60.0f : left ? 40.0f : 220.0f;
    }
  return image;
}

CTensor<float> blockSegmentation(int aWidth, int aHeight, int aBlock) {
  CTensor<float> seg(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const int id = (y / aBlock) * 64 + x / aBlock;
      seg(x, y, 0) = static_cast<float>(id % 256);
      seg(x, y, 1) = static_cast<float>((id * 37) % 256);
      seg(x, y, 2) = static_cast<float>(aBlock * 10);
    }
  return seg;
}

CTensor<float> scribbles(int aWidth, int aHeight, const std::vector<std::vector<float>>& aColours) {
  CTensor<float> labels(aWidth, aHeight, 3, 255.0f);
  const int spots[4][2] = {{2, 2}, {aWidth - 3, aHeight - 3}, {aWidth * 5 / 12, aHeight / 3}, {aWidth - 3, 1}};
  for (size_t l = 0; l < aColours.size(); l++)
    for (int d = 0; d < 3; d++)
      for (int z = 0; z < 3; z++) labels(spots[l][0] + (d == 1), spots[l][1] + (d == 2), z) = aColours[l][z];
  return labels;
}

void writeScene(const std::string& aDir, int aWidth, int aHeight, int aSegs,
                const std::vector<std::vector<float>>& aColours) {
  sceneImage(aWidth, aHeight).writeToPPM((aDir + "/frame.ppm").c_str());
  for (int k = 0; k < aSegs; k++)
    blockSegmentation(aWidth, aHeight, 2 << k).writeToPPM((aDir + "/frame_seg" + std::to_string(k) + ".ppm").c_str());
  scribbles(aWidth, aHeight, aColours).writeToPPM((aDir + "/labels.ppm").c_str());
}

std::string pixmap(int aWidth, int aHeight, char aSample, const std::string& aMagic, int aMaxval) {
  const size_t samples = static_cast<size_t>(aWidth) * aHeight * (aMagic == "P5" ? 1 : 3);
  return aMagic + "\n" + std::to_string(aWidth) + " " + std::to_string(aHeight) + "\n" + std::to_string(aMaxval) +
         "\n" + std::string(samples, aSample);
}

std::string labelPixmap(int aWidth, int aHeight) {
  std::string image = pixmap(aWidth, aHeight, '\xff');
  const size_t pixels = image.size() - static_cast<size_t>(aWidth) * aHeight * 3;
  image.replace(pixels + 3 * static_cast<size_t>(aWidth + 1), 3, 3, '\0');
  image.replace(pixels + 3 * static_cast<size_t>((aHeight - 2) * aWidth + aWidth - 2) + 1, 2, 2, '\0');
  return image;
}

CMatrix<float> matrix(int aXSize, int aYSize, const std::vector<float>& aValues) {
  CMatrix<float> m(aXSize, aYSize);
  for (int i = 0; i < m.size(); i++) m.data()[i] = aValues[static_cast<size_t>(i)];
  return m;
}

std::vector<float> values(const CMatrix<float>& aMatrix) {
  return std::vector<float>(aMatrix.data(), aMatrix.data() + aMatrix.size());
}

std::vector<float> values(const CTensor<float>& aTensor) {
  return std::vector<float>(aTensor.data(), aTensor.data() + aTensor.size());
}

CTensor<float> readPixmap(const std::string& aPath) {
  CTensor<float> image;
  image.readFromPPM(aPath.c_str());
  return image;
}

std::string readFile(const std::string& aPath) {
  std::ifstream file(aPath, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

void writeFile(const std::string& aPath, const std::string& aContents) {
  std::ofstream file(aPath, std::ios::binary);
  file << aContents;
}

bool fileExists(const std::string& aPath) {
  struct stat info {};
  return stat(aPath.c_str(), &info) == 0;
}

std::vector<std::string> listDir(const std::string& aPath) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(aPath)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> lines(const std::string& aText) {
  std::vector<std::string> result;
  std::istringstream in(aText);
  std::string line;
  while (std::getline(in, line)) result.push_back(line);
  return result;
}

std::string stderrOf(const std::function<void()>& aAction) {
  testing::internal::CaptureStderr();
  aAction();
  return testing::internal::GetCapturedStderr();
}

}  // namespace NTest
