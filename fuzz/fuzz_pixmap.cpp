// Feeds arbitrary bytes to the pixmap reader. Every input must end either in
// a complete image or in one of the reader's reported errors.
#include <cstddef>
#include <cstdint>
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
    NFuzz::requireWholeImage(image.width, image.height, image.layers, image.samples.size());
  } catch (const EFileError&) {
  } catch (const EInvalidFileFormat&) {
  }
  return 0;
}
