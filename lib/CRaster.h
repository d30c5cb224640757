// Samples of a decoded PNG or JPEG file, before they become the tool's floats.
#pragma once

#include <vector>

namespace NImageFile {

struct CRaster {
  int width = 0;
  int height = 0;
  int layers = 0;                       // 1 grey, 3 colour; alpha is dropped
  int depth = 8;                        // bits per sample, 8 or 16
  std::vector<unsigned short> samples;  // interleaved, rows top to bottom

  // Sample value on the 0..255 scale: 16-bit samples become v * 255 / 65535.
  float value(size_t aIndex) const {
    const float v = static_cast<float>(samples[aIndex]);
    return depth == 16 ? v * 255.0f / 65535.0f : v;
  }
};

}  // namespace NImageFile
