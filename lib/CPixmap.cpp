#include "CPixmap.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace NPixmap {

namespace {

constexpr int kEnd = -1;

// Character source with getc semantics over the file's bytes.
class CScanner {
public:
  explicit CScanner(const std::vector<unsigned char>& aBytes) : mBytes(aBytes) {}
  int get() { return mPos < mBytes.size() ? mBytes[mPos++] : kEnd; }
  size_t position() const { return mPos; }

private:
  const std::vector<unsigned char>& mBytes;
  size_t mPos = 0;
};

bool isDigit(int c) { return c >= '0' && c <= '9'; }

// Numbers beyond this are reported as too large instead of overflowing.
constexpr long long kHuge = 1LL << 40;

// The start value may be negative (a non-digit taken as the first digit), so
// the value stops growing once its magnitude passes kHuge in either direction.
long long readDigits(CScanner& aIn, long long aValue, int& aChar) {
  aChar = aIn.get();
  while (isDigit(aChar)) {
    if (aValue < kHuge && aValue > -kHuge) aValue = aValue * 10 + (aChar - '0');
    aChar = aIn.get();
  }
  return aValue;
}

std::vector<unsigned char> slurp(const std::string& aFilename) {
  struct stat info {};
  if (stat(aFilename.c_str(), &info) != 0) throw EFileError("File not found: " + aFilename);
  if (S_ISDIR(info.st_mode)) throw EFileError(aFilename, "is a directory, not a pixmap file");
  // A pipe or device could block the open or never end; only plain files are read.
  if (!S_ISREG(info.st_mode)) throw EFileError(aFilename, "is not a regular file, not a pixmap file");
  std::ifstream file(aFilename, std::ios::binary);
  if (!file) throw EFileError("File not found: " + aFilename);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw EFileError(aFilename, "cannot be read");
  if (bytes.empty()) throw EFileError(aFilename, "is empty, not a pixmap file");
  return bytes;
}

}  // namespace

CImage read(const std::string& aFilename) { return decode(slurp(aFilename), aFilename); }

CImage decode(const std::vector<unsigned char>& aBytes, const std::string& aName) {
  CScanner in(aBytes);
  auto fail = [&](const std::string& aProblem) { return EFileError(aName, aProblem); };
  const auto truncatedHeader = "pixmap header ends before the pixel data";

  // Anything before the first 'P' is skipped.
  int c = in.get();
  while (c != 'P' && c != kEnd) c = in.get();
  if (c == kEnd) throw fail("not a pixmap file (no magic number P5 or P6)");
  c = in.get();
  CImage image;
  if (c == '5')
    image.layers = 1;
  else if (c == '6')
    image.layers = 3;
  else
    throw EInvalidFileFormat("PPM", aName);
  // Rest of the magic token.
  do c = in.get();
  while (c != ' ' && c != '\n' && c != kEnd);
  if (c == kEnd) throw fail(truncatedHeader);
  // Comments are recognised only directly after the magic line.
  c = in.get();
  while (c == '#') {
    do c = in.get();
    while (c != '\n' && c != kEnd);
    c = in.get();
  }
  while (c == '\n') c = in.get();
  if (c == kEnd) throw fail(truncatedHeader);
  // The character at hand is taken as the first digit of the width untested.
  const long long width = readDigits(in, c - '0', c);
  while (!isDigit(c) && c != kEnd) c = in.get();
  if (c == kEnd) throw fail(truncatedHeader);
  const long long height = readDigits(in, c - '0', c);
  while (c != ' ' && c != '\n' && c != kEnd) c = in.get();
  do c = in.get();
  while (!isDigit(c) && c != kEnd);
  if (c == kEnd) throw fail(truncatedHeader);
  const long long maxval = readDigits(in, c - '0', c);
  while (c != '\n' && c != kEnd) c = in.get();

  if (width <= 0 || height <= 0)
    throw fail("invalid image size " + std::to_string(width) + " x " + std::to_string(height));
  if (maxval != 255) throw fail("maximum value " + std::to_string(maxval) + " is not supported (only 255)");
  // Each extent is checked before the product so that it cannot overflow.
  if (width > INT_MAX || height > INT_MAX || width * height > INT_MAX / image.layers)
    throw fail("image size " + std::to_string(width) + " x " + std::to_string(height) + " is too large");
  const long long needed = width * height * image.layers;
  const size_t available = aBytes.size() - in.position();
  if (static_cast<size_t>(needed) > available)
    throw fail("truncated pixel data (" + std::to_string(available) + " of " + std::to_string(needed) + " bytes)");

  image.width = static_cast<int>(width);
  image.height = static_cast<int>(height);
  image.samples.assign(aBytes.begin() + static_cast<long>(in.position()),
                       aBytes.begin() + static_cast<long>(in.position() + static_cast<size_t>(needed)));
  return image;
}

namespace {

mode_t creationMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

void write(const std::string& aFilename, int aWidth, int aHeight, const std::vector<unsigned char>& aRgb) {
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
  ok = ok && std::fprintf(file, "P6 \n%d %d \n255\n", aWidth, aHeight) > 0;
  ok = ok && std::fwrite(aRgb.data(), 1, aRgb.size(), file) == aRgb.size();
  ok = (std::fclose(file) == 0) && ok;
  if (!ok || std::rename(temp.c_str(), aFilename.c_str()) != 0) {
    const int error = errno;
    unlink(temp.c_str());
    throw EFileError(aFilename, std::string("cannot be written: ") + std::strerror(error));
  }
}

}  // namespace NPixmap
