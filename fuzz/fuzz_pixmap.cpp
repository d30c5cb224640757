// Feeds arbitrary bytes to the pixmap reader. Every input must end either in
// a complete image or in one of the reader's reported errors.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "CErrors.h"
#include "CPixmap.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  NFuzz::silenceErrorStream();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
  const std::vector<unsigned char> bytes(aData, aData + aSize);
  try {
    const NPixmap::CImage image = NPixmap::decode(bytes, "fuzz input");
    const bool layersValid = image.layers == 1 || image.layers == 3;
    const size_t expected = static_cast<size_t>(image.width) * static_cast<size_t>(image.height) *
                            static_cast<size_t>(image.layers);
    if (image.width <= 0 || image.height <= 0 || !layersValid || image.samples.size() != expected) std::abort();
  } catch (const EFileError&) {
  } catch (const EInvalidFileFormat&) {
  }
  return 0;
}
