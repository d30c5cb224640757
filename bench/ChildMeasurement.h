// Runs a piece of benchmark work in a forked child and measures it from the
// parent: wall and processor time, peak memory, and a fixed-size report the
// child sends back through a pipe.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "Labelling.h"

namespace NBench {

struct CChildReport {
  int status = -1;
  int threads = 0;
  NDriver::CRunStats stats;
};

struct CMeasurement {
  bool ok = false;
  double wallSeconds = 0;
  double cpuSeconds = 0;  // user and system time of the child
  double peakMB = 0;
  CChildReport report;
};

inline void writeAll(int aFd, const void* aData, size_t aBytes) {
  const char* bytes = static_cast<const char*>(aData);
  while (aBytes > 0) {
    const ssize_t written = write(aFd, bytes, aBytes);
    if (written <= 0) return;
    bytes += written;
    aBytes -= static_cast<size_t>(written);
  }
}

inline size_t readAll(int aFd, void* aData, size_t aBytes) {
  char* bytes = static_cast<char*>(aData);
  size_t got = 0;
  while (got < aBytes) {
    const ssize_t n = read(aFd, bytes + got, aBytes - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

// Runs aWork in a forked child and measures it: the child's peak memory is
// its own, not the parent's, and OpenMP starts fresh in every child (the
// parent never opens a parallel region, so no thread pool is lost in a fork).
// aWork returns the report the child sends back through a pipe.
template <typename TWork>
CMeasurement measureInChild(bool aSilence, TWork aWork) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  std::cout.flush();
  std::cerr.flush();
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    close(fds[0]);
    if (aSilence) {
      const int devNull = open("/dev/null", O_WRONLY);
      if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
      }
    }
    CChildReport report;
    try {
      report = aWork();
    } catch (const std::exception& error) {
      std::cerr << "Error: " << error.what() << std::endl;
      report.status = -1;
    }
    std::cout.flush();
    writeAll(fds[1], &report, sizeof report);
    close(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  CMeasurement measurement;
  const size_t got = readAll(fds[0], &measurement.report, sizeof measurement.report);
  close(fds[0]);
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  measurement.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  measurement.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
  auto seconds = [](const timeval& aTime) { return static_cast<double>(aTime.tv_sec) + aTime.tv_usec / 1e6; };
  measurement.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  measurement.ok = got == sizeof measurement.report && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                   measurement.report.status == 0;
  return measurement;
}

}  // namespace NBench
