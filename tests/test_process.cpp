// End-to-end runs of both tools at the edges of the process: a standard
// output that nobody reads, interrupting signals, long file names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using NTest::CRunResult;

// An image named aBase + ".ppm" with one segmentation and a label image.
void writeScene(const NTest::CScratchDir& aDir, const std::string& aBase, int aWidth, int aHeight) {
  NTest::writeFile(aDir.file(aBase + ".ppm"), NTest::pixmap(aWidth, aHeight, '`'));
  NTest::writeFile(aDir.file(aBase + "_seg0.ppm"), NTest::pixmap(aWidth, aHeight, 'a'));
  NTest::writeFile(aDir.file("lab.ppm"), NTest::labelPixmap(aWidth, aHeight));
}

// Starts aProgram in aWorkDir with its output thrown away, or, with
// aClosedOutput, written into a pipe whose reading end is already closed.
pid_t start(const std::string& aProgram, const std::vector<std::string>& aArgs, const std::string& aWorkDir,
            bool aClosedOutput = false) {
  int pipeEnds[2];
  if (aClosedOutput && pipe(pipeEnds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    const int sink = open("/dev/null", O_RDWR);
    if (sink < 0 || chdir(aWorkDir.c_str()) != 0) _exit(127);
    if (aClosedOutput) close(pipeEnds[0]);
    dup2(sink, 0);
    dup2(aClosedOutput ? pipeEnds[1] : sink, 1);
    dup2(sink, 2);
    // The tools must cope with the default action, whatever the caller ignores.
    signal(SIGPIPE, SIG_DFL);
    std::vector<char*> argv{const_cast<char*>(aProgram.c_str())};
    for (const std::string& arg : aArgs) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(aProgram.c_str(), argv.data());
    _exit(127);
  }
  if (aClosedOutput) {
    close(pipeEnds[0]);
    close(pipeEnds[1]);
  }
  return pid;
}

CRunResult wait(pid_t aPid) {
  int wstatus = 0;
  waitpid(aPid, &wstatus, 0);
  CRunResult result;
  if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) result.signal = WTERMSIG(wstatus);
  return result;
}

bool running(pid_t aPid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(aPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// Sends aSignal to aPid while it is stopped with a temporary file (a name
// beginning with a dot) in aFolder; true when one was caught.
bool signalWhileTemporaryFileExists(pid_t aPid, const std::string& aFolder, int aSignal) {
  const int watch = inotify_init1(IN_CLOEXEC);
  if (watch < 0 || inotify_add_watch(watch, aFolder.c_str(), IN_CREATE) < 0) return false;
  bool caught = false;
  alignas(inotify_event) char buffer[4096];
  pollfd events{watch, POLLIN, 0};
  while (!caught && running(aPid)) {
    if (poll(&events, 1, 100) <= 0) continue;
    const ssize_t length = read(watch, buffer, sizeof buffer);
    for (ssize_t at = 0; at < length && !caught;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->len == 0 || event->name[0] != '.') continue;
      kill(aPid, SIGSTOP);
      waitpid(aPid, nullptr, WUNTRACED);
      caught = NTest::fileExists(aFolder + "/" + event->name);
      if (caught) kill(aPid, aSignal);
      kill(aPid, SIGCONT);
    }
  }
  close(watch);
  return caught;
}

bool hasTemporaryFile(const std::string& aFolder) {
  for (const std::string& name : NTest::listDir(aFolder))
    if (name[0] == '.') return true;
  return false;
}

}  // namespace

TEST(Process, AClosedStandardOutputLosesOnlyTheProgressLines) {
  NTest::CScratchDir dir;
  writeScene(dir, "img", 24, 16);
  const CRunResult labelled = wait(start(TARNWICK_EXE, {"img.ppm", "1", "lab.ppm"}, dir.path(), true));
  EXPECT_EQ(labelled.signal, 0);
  EXPECT_EQ(labelled.status, 0);
  EXPECT_EQ(NTest::listDir(dir.file("TarnwickResults")),
            (std::vector<std::string>{"img_dense.ppm", "img_dense_soft.ppm", "img_initialLabels.ppm"}));
  const CRunResult segmented = wait(start(TARNWICK_SEGMENT_EXE, {"img.ppm", "2", "-o", "segs"}, dir.path(), true));
  EXPECT_EQ(segmented.signal, 0);
  EXPECT_EQ(segmented.status, 0);
  EXPECT_EQ(NTest::listDir(dir.file("segs")), (std::vector<std::string>{"img_seg0.ppm", "img_seg1.ppm"}));
}

TEST(Process, InterruptedWritesLeaveNoTemporaryFile) {
  const struct {
    const char* program;
    std::vector<std::string> args;
    const char* folder;
  } tools[] = {
      {TARNWICK_EXE, {"img.ppm", "1", "lab.ppm"}, "TarnwickResults"},
      {TARNWICK_SEGMENT_EXE, {"img.ppm", "3", "-o", "segs"}, "segs"},
  };
  int catches = 0;
  for (const auto& tool : tools) {
    for (const int signal : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(std::string(tool.program) + " " + strsignal(signal));
      NTest::CScratchDir dir;
      writeScene(dir, "img", 640, 480);
      ASSERT_EQ(mkdir(dir.file(tool.folder).c_str(), 0755), 0);
      const pid_t pid = start(tool.program, tool.args, dir.path());
      const bool caught = signalWhileTemporaryFileExists(pid, dir.file(tool.folder), signal);
      const CRunResult result = wait(pid);
      EXPECT_FALSE(hasTemporaryFile(dir.file(tool.folder)));
      if (!caught) continue;  // every write was too quick to catch
      EXPECT_EQ(result.signal, signal);
      catches++;
    }
  }
  EXPECT_GT(catches, 0);
}

TEST(Process, ResultNamesUpToTheFileSystemsLimitAreWritten) {
  // The longest results, "_initialLabels.ppm" and "_seg0.ppm", take all 255 bytes.
  const std::string labelBase(255 - std::string("_initialLabels.ppm").size(), 'n');
  const std::string segmentBase(255 - std::string("_seg0.ppm").size(), 's');
  NTest::CScratchDir dir;
  writeScene(dir, labelBase, 24, 16);
  const CRunResult labelled = NTest::run(TARNWICK_EXE, {labelBase + ".ppm", "1", "lab.ppm"}, dir.path());
  EXPECT_EQ(labelled.status, 0) << labelled.err;
  EXPECT_TRUE(NTest::fileExists(dir.file("TarnwickResults/" + labelBase + "_dense_soft.ppm")));
  NTest::writeFile(dir.file(segmentBase + ".ppm"), NTest::pixmap(24, 16, '`'));
  const CRunResult segmented = NTest::run(TARNWICK_SEGMENT_EXE, {segmentBase + ".ppm", "1"}, dir.path());
  EXPECT_EQ(segmented.status, 0) << segmented.err;
  EXPECT_TRUE(NTest::fileExists(dir.file(segmentBase + "_seg0.ppm")));
}

TEST(Process, ThreadCountsBeyondTheCoresAreCappedAndUnstartableThreadsReported) {
  NTest::CScratchDir single;
  writeScene(single, "img", 24, 16);
  const std::vector<std::string> args = {"img.ppm", "1", "lab.ppm"};
  ASSERT_EQ(NTest::run(TARNWICK_EXE, args, single.path(), {"OMP_NUM_THREADS=1"}).status, 0);
  const struct {
    std::vector<std::string> env;
    int status;
    const char* message;
  } cases[] = {
      {{"OMP_NUM_THREADS=100000"}, 0, ""},
      // Two threads even on one core; no second thread gets its stack.
      {{"OMP_NUM_THREADS=2", "OMP_STACKSIZE=1000000G"}, 2, "Error: the worker threads could not be started"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.env.back());
    NTest::CScratchDir dir;
    writeScene(dir, "img", 24, 16);
    const CRunResult result = NTest::run(TARNWICK_EXE, args, dir.path(), c.env);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    if (c.status != 0) continue;
    for (const std::string& name : NTest::listDir(single.file("TarnwickResults")))
      EXPECT_EQ(NTest::readFile(dir.file("TarnwickResults/" + name)), NTest::readFile(single.file("TarnwickResults/" + name)));
  }
}
