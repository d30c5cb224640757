// The two readings of a binary pixmap header after its magic number.
//
// The tool's own scanner has long-standing quirks that files in use rely on
// (any bytes before the magic number, comment lines only right after it, any
// non-digits between width and height, the samples after the first newline
// that follows the maximum value). The format's grammar separates the numbers
// by any white space or comments and puts exactly one white-space byte
// between the maximum value and the samples. CPixmap reads both and keeps the
// one that yields a complete image.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace NPixmapHeader {

struct CHeader {
  long long width = 0;
  long long height = 0;
  long long maxval = 0;
  size_t dataStart = 0;  // offset of the first sample
};

// A header, or what keeps the bytes from being one.
struct CReading {
  bool complete = false;
  CHeader header;
  std::string problem;  // set when not complete
};

// The tool's scanner; aStart is the offset just after the magic number.
CReading readQuirky(const std::vector<unsigned char>& aBytes, size_t aStart);

// The format's grammar; the magic number must open the file (offset 0).
CReading readStandard(const std::vector<unsigned char>& aBytes);

}  // namespace NPixmapHeader
