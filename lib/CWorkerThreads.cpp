#include "CWorkerThreads.h"

#include <omp.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace NWorkerThreads {

namespace {

int mStatus = 0;
bool mGuarding = false;

int usableCores() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  if (sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) > 0) return CPU_COUNT(&cores);
  return std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
}

// Runs at exit; while guarding, the exit did not come from the tool's own
// return, so only a library can have called it.
void reportForeignExit() {
  if (!mGuarding) return;
  std::fflush(stdout);
  std::fprintf(stderr,
               "Error: the worker threads could not be started (too little memory or too many threads); "
               "try a smaller OMP_NUM_THREADS or OMP_STACKSIZE\n");
  std::fflush(stderr);
  _exit(mStatus);
}

}  // namespace

void limitThreadCount() {
  const int limit = kThreadsPerCore * usableCores();
  if (omp_get_max_threads() > limit) omp_set_num_threads(limit);
}

CExitGuard::CExitGuard(int aStatus) {
  mStatus = aStatus;
  static const bool registered = std::atexit(reportForeignExit) == 0;
  mGuarding = registered;
}

CExitGuard::~CExitGuard() { mGuarding = false; }

}  // namespace NWorkerThreads
