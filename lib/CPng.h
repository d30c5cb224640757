// PNG files: decoding every standard kind (grey, grey+alpha, RGB, RGBA,
// palette; 1 to 16 bits) and encoding 8-bit RGB.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CRaster.h"

namespace NPng {

// True when the bytes begin with the PNG signature.
bool hasSignature(const unsigned char* aBytes, size_t aSize);

// Decodes a whole PNG file held in memory: palette images become RGB, grey
// below 8 bits is scaled to 8 bits, alpha and transparency are dropped and
// no gamma is applied. Corrupt or truncated data, and extents that the file
// is far too small to hold, throw EFileError naming aName; nothing is
// allocated for the pixels before the extents have been checked.
NImageFile::CRaster decode(const std::vector<unsigned char>& aBytes, const std::string& aName);

// An 8-bit RGB PNG of interleaved bytes, rows top to bottom.
std::vector<unsigned char> encode(int aWidth, int aHeight, const std::vector<unsigned char>& aRgb);

}  // namespace NPng
