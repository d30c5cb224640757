#include "CImageFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "CAtomicFile.h"
#include "CErrors.h"
#include "CJpeg.h"
#include "CPng.h"

namespace NImageFile {

namespace {

constexpr size_t kSignatureBytes = 8;

std::vector<unsigned char> readHead(const std::string& aFilename, size_t aCount) {
  struct stat info {};
  if (stat(aFilename.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  std::ifstream file(aFilename, std::ios::binary);
  std::vector<unsigned char> head(aCount);
  file.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(aCount));
  head.resize(file ? aCount : static_cast<size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return head;
}

std::vector<unsigned char> readAll(const std::string& aFilename) {
  std::ifstream file(aFilename, std::ios::binary);
  if (!file) throw EFileError("File not found: " + aFilename);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw EFileError(aFilename, "cannot be read");
  return bytes;
}

CTensor<float> toTensor(const CRaster& aRaster) {
  CTensor<float> image(aRaster.width, aRaster.height, aRaster.layers);
  const size_t n = static_cast<size_t>(aRaster.width) * static_cast<size_t>(aRaster.height);
  float* data = image.data();
  size_t k = 0;
  for (size_t i = 0; i < n; i++)
    for (size_t z = 0; z < static_cast<size_t>(aRaster.layers); z++) data[i + z * n] = aRaster.value(k++);
  return image;
}

}  // namespace

EFormat detect(const std::string& aFilename) {
  const std::vector<unsigned char> head = readHead(aFilename, kSignatureBytes);
  if (NPng::hasSignature(head.data(), head.size())) return EFormat::Png;
  if (NJpeg::hasSignature(head.data(), head.size())) return EFormat::Jpeg;
  return EFormat::Pixmap;
}

CTensor<float> read(const std::string& aFilename, EContent aContent) {
  const EFormat format = detect(aFilename);
  if (format == EFormat::Pixmap) {
    CTensor<float> image;
    image.readFromPPM(aFilename.c_str());
    return image;
  }
  if (format == EFormat::Jpeg && aContent == EContent::ExactColours)
    throw EFileError(aFilename, "is a JPEG file; segmentation and label images must be PNG or pixmap files "
                                "(lossy compression changes colours, so regions and labels would be wrong)");
  const std::vector<unsigned char> bytes = readAll(aFilename);
  return toTensor(format == EFormat::Png ? NPng::decode(bytes, aFilename) : NJpeg::decode(bytes, aFilename));
}

void write(const std::string& aFilename, const CTensor<float>& aImage, EFormat aFormat) {
  if (aFormat == EFormat::Pixmap) {
    aImage.writeToPPM(aFilename.c_str());
    return;
  }
  if (aImage.zSize() < 3)
    throw EFileError(aFilename, "cannot write " + std::to_string(aImage.zSize()) + " layers as a colour PNG");
  const size_t n = static_cast<size_t>(aImage.xSize()) * static_cast<size_t>(aImage.ySize());
  std::vector<unsigned char> rgb(n * 3);
  const float* data = aImage.data();
  for (size_t i = 0; i < n; i++)
    for (size_t z = 0; z < 3; z++) rgb[3 * i + z] = NPixmap::toByte(data[i + z * n]);
  NAtomicFile::write(aFilename, NPng::encode(aImage.xSize(), aImage.ySize(), rgb));
}

std::string ending(EFormat aFormat) { return aFormat == EFormat::Png ? ".png" : ".ppm"; }

bool parseWriteFormat(const std::string& aText, EFormat& aFormat) {
  if (aText != "ppm" && aText != "png") return false;
  aFormat = aText == "png" ? EFormat::Png : EFormat::Pixmap;
  return true;
}

}  // namespace NImageFile
