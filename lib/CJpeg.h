// JPEG files: decoding grey and colour (YCbCr or RGB) images.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CRaster.h"

namespace NJpeg {

// True when the bytes begin with a JPEG start-of-image marker.
bool hasSignature(const unsigned char* aBytes, size_t aSize);

// Decodes a whole JPEG file held in memory into 8-bit grey (one layer) or
// RGB (three layers). Corrupt or truncated data (libjpeg's warnings about
// damaged data included), CMYK images and extents that the file is far too
// small to hold throw EFileError naming aName; nothing is allocated for the
// pixels before the extents have been checked.
NImageFile::CRaster decode(const std::vector<unsigned char>& aBytes, const std::string& aName);

}  // namespace NJpeg
