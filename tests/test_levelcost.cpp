// End-to-end runs on hierarchies whose coarser layers have very many links:
// layers that do not shrink and a hub region. The run announces the cost on
// standard error before the long wait, and refuses what exceeds the memory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

std::string pixmap(int aWidth, int aHeight, const std::vector<unsigned char>& aRgb) {
  return "P6\n" + std::to_string(aWidth) + " " + std::to_string(aHeight) + "\n255\n" +
         std::string(aRgb.begin(), aRgb.end());
}

// A 96 x 64 image whose segmentation is one background region around 1536
// one-pixel regions: every small region is two steps from all the others.
void writeHubScene(const NTest::CScratchDir& aDir) {
  const int width = 96;
  const int height = 64;
  std::vector<unsigned char> image(width * height * 3);
  std::vector<unsigned char> segmentation(width * height * 3, 250);
  std::vector<unsigned char> labels(width * height * 3, 255);
  int region = 0;
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      unsigned char* pixel = &image[3 * (y * width + x)];
      pixel[0] = static_cast<unsigned char>(x + y);
      pixel[1] = static_cast<unsigned char>(x);
      pixel[2] = static_cast<unsigned char>(255 - y);
      if (x % 2 == 1 && y % 2 == 1) {
        unsigned char* own = &segmentation[3 * (y * width + x)];
        own[0] = static_cast<unsigned char>(region % 256);
        own[1] = static_cast<unsigned char>(region / 256);
        own[2] = 7;
        region++;
      }
    }
  labels[3 * (5 * width + 5)] = 0;
  labels[3 * (60 * width + 90) + 1] = 0;
  NTest::writeFile(aDir.file("scene.ppm"), pixmap(width, height, image));
  NTest::writeFile(aDir.file("scene_seg0.ppm"), pixmap(width, height, segmentation));
  NTest::writeFile(aDir.file("labels.ppm"), pixmap(width, height, labels));
}

// The demo picture with its finest segmentation (300 regions) as all four levels.
void writeFlatScene(const NTest::CScratchDir& aDir) {
  const std::string examples = std::string(TARNWICK_SOURCE_DIR) + "/examples/";
  NTest::writeFile(aDir.file("scene.ppm"), NTest::readFile(examples + "demo.ppm"));
  NTest::writeFile(aDir.file("labels.ppm"), NTest::readFile(examples + "demo_labels.ppm"));
  for (int k = 0; k < 4; k++)
    NTest::writeFile(aDir.file("scene_seg" + std::to_string(k) + ".ppm"), NTest::readFile(examples + "demo_seg0.ppm"));
}

struct CScene {
  const char* what;
  void (*write)(const NTest::CScratchDir&);
  const char* levels;
  const char* culprit;  // the segmentation the messages name
  const char* cause;
};

const CScene kScenes[] = {
    {"hub region", writeHubScene, "1", "./scene_seg0.ppm", "a region touches so many others"},
    {"layers that do not shrink", writeFlatScene, "4", "./scene_seg3.ppm", "the layer does not shrink"},
};

// Runs the tool on a scene in aDir with its standard error in a pipe, and
// returns that output to its end or, with aStopAtWarning, up to a first line
// that is a warning, killing the run there; aStatus receives the exit status,
// -1 when killed.
std::string runWatchingErrors(const NTest::CScratchDir& aDir, const char* aLevels, rlim_t aAddressSpace,
                              bool aStopAtWarning, int& aStatus) {
  int errPipe[2];
  if (pipe(errPipe) != 0) return "";
  const pid_t pid = fork();
  if (pid == 0) {
    const int sink = open("/dev/null", O_RDWR);
    if (sink < 0 || chdir(aDir.path().c_str()) != 0) _exit(127);
    const rlimit limit{aAddressSpace, aAddressSpace};
    if (aAddressSpace != RLIM_INFINITY && setrlimit(RLIMIT_AS, &limit) != 0) _exit(127);
    dup2(sink, 0);
    dup2(sink, 1);
    dup2(errPipe[1], 2);
    close(errPipe[0]);
    execl(TARNWICK_EXE, TARNWICK_EXE, "scene.ppm", aLevels, "labels.ppm", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(errPipe[1]);
  std::string err;
  char buffer[4096];
  ssize_t length = 0;
  const auto warned = [&] { return aStopAtWarning && err.find('\n') != std::string::npos; };
  while (!warned() && (length = read(errPipe[0], buffer, sizeof buffer)) > 0) err.append(buffer, static_cast<size_t>(length));
  if (warned() && err.rfind("Warning: ", 0) == 0) kill(pid, SIGKILL);
  close(errPipe[0]);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  aStatus = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return err;
}

}  // namespace

TEST(LevelCost, CostlyHierarchiesAreAnnouncedBeforeTheWait) {
  for (const CScene& scene : kScenes) {
    SCOPED_TRACE(scene.what);
    NTest::CScratchDir dir;
    scene.write(dir);
    int status = 0;
    const std::string err = runWatchingErrors(dir, scene.levels, RLIM_INFINITY, true, status);
    EXPECT_EQ(err.rfind(std::string("Warning: ") + scene.culprit + ": " + scene.cause, 0), 0u) << err;
    EXPECT_NE(err.find("; expect at least "), std::string::npos) << err;
    EXPECT_NE(err.find(" MB for this level's hierarchy"), std::string::npos) << err;
  }
}

TEST(LevelCost, HierarchiesBeyondTheMemoryAreRefused) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer needs more address space than the limit leaves";
#endif
  for (const CScene& scene : kScenes) {
    SCOPED_TRACE(scene.what);
    NTest::CScratchDir dir;
    scene.write(dir);
    int status = 0;
    const std::string err = runWatchingErrors(dir, scene.levels, 60 << 20, false, status);
    EXPECT_EQ(status, 2) << err;
    // The warning of a level that still fits may come first.
    const std::string last = NTest::lines(err).empty() ? "" : NTest::lines(err).back();
    EXPECT_EQ(last.rfind(std::string("Error: ") + scene.culprit + ": " + scene.cause, 0), 0u) << err;
    EXPECT_NE(last.find("MB available"), std::string::npos) << err;
  }
}
