// Image files of every format the tools read, chosen by the file's first
// bytes rather than its name: binary pixmaps, PNG and JPEG. Results are
// written as pixmaps or as PNG.
#pragma once

#include <string>

#include "CTensor.h"

namespace NImageFile {

enum class EFormat { Pixmap, Png, Jpeg };

// What a file is read for. Segmentation and label images need their exact
// colours, which lossy JPEG compression does not keep.
enum class EContent { Photo, ExactColours };

// The format by the file's signature. A file that cannot be opened, or holds
// neither PNG nor JPEG, counts as a pixmap: the pixmap reader then reports
// what is wrong with it.
EFormat detect(const std::string& aFilename);

// Reads an image into a tensor of one (grey) or three (colour) layers of
// values from 0 to 255. Pixmaps are read exactly as CTensor::readFromPPM
// reads them; see NPng::decode and NJpeg::decode for the others. A JPEG file
// read for ExactColours is refused with EFileError.
CTensor<float> read(const std::string& aFilename, EContent aContent);

// Writes layers 0 to 2 of aImage as aFormat (Pixmap or Png), atomically. Both
// formats receive the same bytes: each value truncated as by NPixmap::toByte.
void write(const std::string& aFilename, const CTensor<float>& aImage, EFormat aFormat);

// ".ppm" or ".png", the ending of written files.
std::string ending(EFormat aFormat);

// "ppm" or "png" as a format to write; false for anything else.
bool parseWriteFormat(const std::string& aText, EFormat& aFormat);

}  // namespace NImageFile
