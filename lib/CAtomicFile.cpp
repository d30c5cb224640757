#include "CAtomicFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CErrors.h"

namespace NAtomicFile {

namespace {

// mkstemp creates 0600; the result gets what open(2) with 0666 would give.
mode_t creationMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

void write(const std::string& aFilename, const std::vector<unsigned char>& aBytes) {
  std::string temp = aFilename + ".tmp-XXXXXX";
  const int fd = mkstemp(&temp[0]);
  if (fd < 0) throw EFileError(aFilename, std::string("cannot be created: ") + std::strerror(errno));
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    unlink(temp.c_str());
    throw EFileError(aFilename, "cannot be created");
  }
  bool ok = fchmod(fd, creationMode()) == 0;
  ok = ok && std::fwrite(aBytes.data(), 1, aBytes.size(), file) == aBytes.size();
  ok = (std::fclose(file) == 0) && ok;
  if (!ok || std::rename(temp.c_str(), aFilename.c_str()) != 0) {
    const int error = errno;
    unlink(temp.c_str());
    throw EFileError(aFilename, std::string("cannot be written: ") + std::strerror(error));
  }
}

}  // namespace NAtomicFile
