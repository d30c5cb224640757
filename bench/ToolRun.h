// Runs the labelling tool as a process of its own and measures it from
// outside: wall time and peak memory of that process alone.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

namespace NBench {

struct CRun {
  bool ok = false;
  double wallSeconds = 0;
  double peakMB = 0;
};

// Runs aArguments (program first); its standard output goes to aOutput, or
// is discarded with its errors when aOutput is empty.
inline CRun runTool(const std::vector<std::string>& aArguments, const std::string& aOutput = "") {
  std::vector<char*> argv;
  for (const std::string& argument : aArguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::cout.flush();
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = aOutput.empty() ? open("/dev/null", O_WRONLY) : open(aOutput.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out >= 0) {
      dup2(out, STDOUT_FILENO);
      if (aOutput.empty()) dup2(out, STDERR_FILENO);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  CRun run;
  if (pid < 0) return run;
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  run.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return run;
}

}  // namespace NBench
