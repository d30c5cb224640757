// Results written under a temporary name and renamed into place, and the
// signal handling that keeps interrupted runs from leaving temporary files.
#pragma once

#include <string>

namespace NTemporaryFile {

// For the tools' entry points: SIGPIPE is ignored, so that a reader closing
// standard output only loses the progress lines; SIGINT, SIGTERM and SIGHUP
// remove the temporary files being written and then end the process by the
// same signal, with its conventional status.
void installSignalHandlers();

// A file in the target's folder under a name no longer than the target's own
// (but at least 7 bytes: a dot, part of the target's name and 6 random
// characters), so every target name the file system takes works. The file
// is removed when the object is destroyed uncommitted or the process is ended
// by one of the signals above in the meantime.
class CTemporaryFile {
public:
  explicit CTemporaryFile(const std::string& aTarget) : mTarget(aTarget) {}
  ~CTemporaryFile();
  CTemporaryFile(const CTemporaryFile&) = delete;
  CTemporaryFile& operator=(const CTemporaryFile&) = delete;

  // Creates the file (mode 0600) and returns its descriptor, or -1 with errno set.
  int create();
  // Renames the file onto the target; false with errno set when that fails.
  bool commit();

private:
  std::string mTarget;
  std::string mPath;
  int mSlot = -1;  // entry of the signal handler's list, -1 when not listed
  bool mPending = false;
};

}  // namespace NTemporaryFile
