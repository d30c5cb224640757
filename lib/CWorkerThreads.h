// The worker threads of the parallel loops, as the tools' entry points set
// them up: a sane count, and a message of the tool when they cannot start.
#pragma once

namespace NWorkerThreads {

// Threads per usable core that a run may have at most. Results do not depend
// on the count; beyond a few per core the runtime only spends time and memory
// (tens of thousands of threads crash it).
constexpr int kThreadsPerCore = 2;

// Lowers the thread count of the parallel loops (OMP_NUM_THREADS, default
// one per core) to kThreadsPerCore times the cores this process may run on.
void limitThreadCount();

// While an object of this class lives, an exit of the process from inside a
// library (the threading runtime ends the process when it cannot create its
// threads) prints a message of the tool naming the cause and ends with
// aStatus instead.
class CExitGuard {
public:
  explicit CExitGuard(int aStatus);
  ~CExitGuard();
  CExitGuard(const CExitGuard&) = delete;
  CExitGuard& operator=(const CExitGuard&) = delete;
};

}  // namespace NWorkerThreads
