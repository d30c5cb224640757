#include "TestSupport.h"

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

CMatrix<float> matrix(int aXSize, int aYSize, const std::vector<float>& aValues) {
  CMatrix<float> m(aXSize, aYSize);
  for (int i = 0; i < m.size(); i++) m.data()[i] = aValues[static_cast<size_t>(i)];
  return m;
}

std::vector<float> values(const CMatrix<float>& aMatrix) {
  return std::vector<float>(aMatrix.data(), aMatrix.data() + aMatrix.size());
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

}  // namespace NTest
