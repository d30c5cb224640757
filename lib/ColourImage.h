// Colour images from pixmaps: the tools accept a grey pixmap wherever they
// expect colour and repeat its grey value in all three layers.
#pragma once

#include <string>

#include "CTensor.h"

namespace NColourImage {

// A one-layer (grey) tensor repeated into three layers; others unchanged.
CTensor<float> toColour(const CTensor<float>& aImage);

// Reads a pixmap (see CTensor::readFromPPM) as a colour image.
CTensor<float> read(const std::string& aFilename);

}  // namespace NColourImage
