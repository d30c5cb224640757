// Feeds arbitrary bytes to the JPEG decoder. Every input must end either in a
// complete image or in the decoder's reported error.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "CJpeg.h"
#include "CErrors.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  NFuzz::silenceErrorStream();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
  const std::vector<unsigned char> bytes(aData, aData + aSize);
  try {
    const NImageFile::CRaster image = NJpeg::decode(bytes, "fuzz input");
    NFuzz::requireWholeImage(image.width, image.height, image.layers, image.samples.size());
    if (image.depth != 8 && image.depth != 16) std::abort();
  } catch (const EFileError&) {
  }
  return 0;
}
