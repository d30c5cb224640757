#include "CTemporaryFile.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace NTemporaryFile {

namespace {

// The handler may run on any thread at any moment, so the files it removes
// are kept in fixed buffers: a slot's name is complete before it is marked.
constexpr int kSlots = 4;
char mNames[kSlots][PATH_MAX];
std::atomic<bool> mClaimed[kSlots];
std::atomic<bool> mListed[kSlots];

const int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

void removeAndEnd(int aSignal) {
  for (int i = 0; i < kSlots; i++)
    if (mListed[i].load()) unlink(mNames[i]);
  // The default action (installed by SA_RESETHAND) ends the process.
  raise(aSignal);
}

int claimSlot(const std::string& aPath) {
  if (aPath.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kSlots; i++) {
    bool expected = false;
    if (mClaimed[i].compare_exchange_strong(expected, true)) {
      std::memcpy(mNames[i], aPath.c_str(), aPath.size() + 1);
      return i;
    }
  }
  return -1;
}

void releaseSlot(int aSlot) {
  if (aSlot < 0) return;
  mListed[aSlot].store(false);
  mClaimed[aSlot].store(false);
}

uint64_t mix(uint64_t aValue) {
  aValue += 0x9e3779b97f4a7c15ULL;
  aValue = (aValue ^ (aValue >> 30)) * 0xbf58476d1ce4e5b9ULL;
  aValue = (aValue ^ (aValue >> 27)) * 0x94d049bb133111ebULL;
  return aValue ^ (aValue >> 31);
}

std::string randomCharacters(int aCount) {
  static std::atomic<uint64_t> counter{0};
  const char* const alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  uint64_t state = mix(static_cast<uint64_t>(getpid()) ^
                       mix(static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())) ^
                       mix(counter.fetch_add(1)));
  std::string result;
  for (int i = 0; i < aCount; i++, state /= 62) result += alphabet[state % 62];
  return result;
}

// "." + the start of the target's file name + 6 random characters.
std::string temporaryPath(const std::string& aTarget) {
  const size_t slash = aTarget.rfind('/');
  const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  const size_t nameLength = aTarget.size() - nameStart;
  constexpr size_t kRandom = 6;
  const size_t kept = nameLength > kRandom + 1 ? nameLength - kRandom - 1 : 0;
  return aTarget.substr(0, nameStart) + "." + aTarget.substr(nameStart, kept) + randomCharacters(kRandom);
}

}  // namespace

void installSignalHandlers() {
  signal(SIGPIPE, SIG_IGN);
  struct sigaction action {};
  action.sa_handler = removeAndEnd;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (const int signal : kEndingSignals) sigaction(signal, &action, nullptr);
}

CTemporaryFile::~CTemporaryFile() {
  if (mPending) unlink(mPath.c_str());
  releaseSlot(mSlot);
}

int CTemporaryFile::create() {
  for (int attempt = 0; attempt < 100; attempt++) {
    mPath = temporaryPath(mTarget);
    mSlot = claimSlot(mPath);
    // Listed before it is made, so that no moment leaves it unlisted.
    if (mSlot >= 0) mListed[mSlot].store(true);
    const int fd = open(mPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      mPending = true;
      return fd;
    }
    const int error = errno;
    releaseSlot(mSlot);
    mSlot = -1;
    errno = error;
    if (error != EEXIST) return -1;
  }
  return -1;
}

bool CTemporaryFile::commit() {
  if (std::rename(mPath.c_str(), mTarget.c_str()) != 0) return false;
  mPending = false;
  releaseSlot(mSlot);
  mSlot = -1;
  return true;
}

}  // namespace NTemporaryFile
