// Colour images from image files: the tools accept a grey image wherever they
// expect colour and repeat its grey value in all three layers.
#pragma once

#include <string>

#include "CImageFile.h"
#include "CTensor.h"

namespace NColourImage {

// A one-layer (grey) tensor repeated into three layers; others unchanged.
CTensor<float> toColour(const CTensor<float>& aImage);

// Reads a pixmap, PNG or JPEG file (see NImageFile::read) as a colour image.
CTensor<float> read(const std::string& aFilename, NImageFile::EContent aContent);

}  // namespace NColourImage
