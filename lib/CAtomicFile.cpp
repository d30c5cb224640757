#include "CAtomicFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "CErrors.h"
#include "CTemporaryFile.h"

namespace NAtomicFile {

namespace {

// The temporary file is created 0600; the result gets what open(2) with 0666 would give.
mode_t creationMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

void write(const std::string& aFilename, const std::vector<unsigned char>& aBytes) {
  NTemporaryFile::CTemporaryFile temp(aFilename);
  const int fd = temp.create();
  if (fd < 0) throw EFileError(aFilename, std::string("cannot be created: ") + std::strerror(errno));
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    throw EFileError(aFilename, "cannot be created");
  }
  bool ok = fchmod(fd, creationMode()) == 0;
  ok = ok && std::fwrite(aBytes.data(), 1, aBytes.size(), file) == aBytes.size();
  ok = (std::fclose(file) == 0) && ok;
  if (!ok || !temp.commit()) {
    const int error = errno;
    throw EFileError(aFilename, std::string("cannot be written: ") + std::strerror(error));
  }
}

}  // namespace NAtomicFile
