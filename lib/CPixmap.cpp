#include "CPixmap.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "CAtomicFile.h"
#include "CPixmapHeader.h"

namespace NPixmap {

namespace {

std::vector<unsigned char> slurp(const std::string& aFilename) {
  struct stat info {};
  if (stat(aFilename.c_str(), &info) != 0) throw EFileError("File not found: " + aFilename);
  if (S_ISDIR(info.st_mode)) throw EFileError(aFilename, "is a directory, not a pixmap file");
  // A pipe or device could block the open or never end; only plain files are read.
  if (!S_ISREG(info.st_mode)) throw EFileError(aFilename, "is not a regular file, not a pixmap file");
  std::ifstream file(aFilename, std::ios::binary);
  if (!file) throw EFileError("File not found: " + aFilename);
  // The size the file had, in one read; then whatever it has grown by.
  std::vector<unsigned char> bytes(static_cast<size_t>(info.st_size));
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<size_t>(file.gcount()));
  if (!file.bad() && file) bytes.insert(bytes.end(), std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  if (file.bad()) throw EFileError(aFilename, "cannot be read");
  if (bytes.empty()) throw EFileError(aFilename, "is empty, not a pixmap file");
  return bytes;
}

}  // namespace

CImage read(const std::string& aFilename) { return decode(slurp(aFilename), aFilename); }

namespace {

using NPixmapHeader::CHeader;
using NPixmapHeader::CReading;

// What keeps aHeader from describing a usable image in aSize bytes; empty when
// nothing does.
std::string problemOf(const CHeader& aHeader, int aLayers, size_t aSize) {
  const long long width = aHeader.width;
  const long long height = aHeader.height;
  if (width <= 0 || height <= 0)
    return "invalid image size " + std::to_string(width) + " x " + std::to_string(height);
  if (aHeader.maxval != 255)
    return "maximum value " + std::to_string(aHeader.maxval) + " is not supported (only 255)";
  // Each extent is checked before the product so that it cannot overflow.
  if (width > INT_MAX || height > INT_MAX || width * height > INT_MAX / aLayers)
    return "image size " + std::to_string(width) + " x " + std::to_string(height) + " is too large";
  const long long needed = width * height * aLayers;
  const size_t available = aSize - aHeader.dataStart;
  if (static_cast<size_t>(needed) > available)
    return "truncated pixel data (" + std::to_string(available) + " of " + std::to_string(needed) + " bytes)";
  return "";
}

bool holdsExactlyThePicture(const CHeader& aHeader, int aLayers, size_t aSize) {
  return aHeader.dataStart + static_cast<size_t>(aHeader.width * aHeader.height * aLayers) == aSize;
}

bool sameImage(const CHeader& a, const CHeader& b) {
  return a.width == b.width && a.height == b.height && a.dataStart == b.dataStart;
}

}  // namespace

CImage decode(const std::vector<unsigned char>& aBytes, const std::string& aName) {
  auto fail = [&](const std::string& aProblem) { return EFileError(aName, aProblem); };
  // Anything before the first 'P' is skipped.
  size_t magic = 0;
  while (magic < aBytes.size() && aBytes[magic] != 'P') magic++;
  if (magic == aBytes.size()) throw fail("not a pixmap file (no magic number P5 or P6)");
  CImage image;
  const int kind = magic + 1 < aBytes.size() ? aBytes[magic + 1] : -1;
  if (kind == '5')
    image.layers = 1;
  else if (kind == '6')
    image.layers = 3;
  else
    throw EInvalidFileFormat("PPM", aName);

  const size_t size = aBytes.size();
  const CReading quirky = NPixmapHeader::readQuirky(aBytes, magic + 2);
  const CReading standard = NPixmapHeader::readStandard(aBytes);
  const std::string quirkyProblem = quirky.complete ? problemOf(quirky.header, image.layers, size) : quirky.problem;
  const std::string standardProblem =
      standard.complete ? problemOf(standard.header, image.layers, size) : standard.problem;
  const bool quirkyFits = quirkyProblem.empty();
  const bool standardFits = standardProblem.empty();
  // The format's grammar says best what is wrong, unless bytes before the
  // magic number leave the tool's reading as the only one.
  if (!quirkyFits && !standardFits) throw fail(magic == 0 ? standardProblem : quirkyProblem);
  // The tool's own reading stands unless only the format's grammar yields an
  // image, or both do, differently, and only the grammar's accounts for
  // exactly every byte of the file.
  const bool useStandard =
      !quirkyFits || (standardFits && !sameImage(quirky.header, standard.header) &&
                      holdsExactlyThePicture(standard.header, image.layers, size) &&
                      !holdsExactlyThePicture(quirky.header, image.layers, size));
  const CHeader& header = useStandard ? standard.header : quirky.header;
  image.width = static_cast<int>(header.width);
  image.height = static_cast<int>(header.height);
  const size_t needed = static_cast<size_t>(header.width * header.height * image.layers);
  image.samples.assign(aBytes.begin() + static_cast<long>(header.dataStart),
                       aBytes.begin() + static_cast<long>(header.dataStart + needed));
  return image;
}

void write(const std::string& aFilename, int aWidth, int aHeight, const std::vector<unsigned char>& aRgb) {
  const std::string header = "P6 \n" + std::to_string(aWidth) + " " + std::to_string(aHeight) + " \n255\n";
  std::vector<unsigned char> bytes(header.begin(), header.end());
  bytes.insert(bytes.end(), aRgb.begin(), aRgb.end());
  NAtomicFile::write(aFilename, bytes);
}

}  // namespace NPixmap
