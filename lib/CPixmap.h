// Binary pixmap files: the header scanner behind CTensor::readFromPPM and the
// atomic writer behind CTensor::writeToPPM.
#pragma once

#include <string>
#include <vector>

#include "CErrors.h"

namespace NPixmap {

struct CImage {
  int width = 0;
  int height = 0;
  int layers = 0;                      // 3 for "P6", 1 for "P5"
  std::vector<unsigned char> samples;  // interleaved, file order
};

// Reads a "P5" or "P6" file. Anything the scanner cannot turn into a complete
// image (no such file, no magic number, bad extents, maxval other than 255,
// truncated samples) throws EFileError or EInvalidFileFormat.
CImage read(const std::string& aFilename);
// The same scanner over bytes already in memory; aName stands in for the file
// name in messages.
CImage decode(const std::vector<unsigned char>& aBytes, const std::string& aName);

// Writes a "P6" file from interleaved RGB bytes. The data go to a temporary
// file beside the target that is renamed into place, so a failed or
// interrupted write never leaves a truncated image under the target name.
void write(const std::string& aFilename, int aWidth, int aHeight, const std::vector<unsigned char>& aRgb);

// Lowest byte of the value truncated toward zero; values with no int
// representation (NaN, beyond +-2^31) give 0.
inline unsigned char toByte(float aValue) {
  if (!(aValue > -2147483648.0f && aValue < 2147483648.0f)) return 0;
  return static_cast<unsigned char>(static_cast<unsigned int>(static_cast<int>(aValue)) & 0xffu);
}

}  // namespace NPixmap
