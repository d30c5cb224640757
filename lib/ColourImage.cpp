#include "ColourImage.h"

#include <algorithm>

namespace NColourImage {

CTensor<float> toColour(const CTensor<float>& aImage) {
  if (aImage.zSize() != 1) return aImage;
  const int n = aImage.xSize() * aImage.ySize();
  CTensor<float> colour(aImage.xSize(), aImage.ySize(), 3);
  for (int c = 0; c < 3; c++) std::copy(aImage.data(), aImage.data() + n, colour.data() + static_cast<size_t>(c) * n);
  return colour;
}

CTensor<float> read(const std::string& aFilename, NImageFile::EContent aContent) {
  return toColour(NImageFile::read(aFilename, aContent));
}

}  // namespace NColourImage
