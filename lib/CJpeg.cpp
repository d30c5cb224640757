#include "CJpeg.h"

#include <climits>
#include <csetjmp>
#include <cstdio>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "CErrors.h"

namespace NJpeg {

namespace {

// Every 8 x 8 block of a component carries at least one bit of entropy-coded
// data, so a file of n bytes holds at most 512 n pixels; declared extents
// beyond that are corrupt, and libjpeg is not asked to allocate for them.
constexpr unsigned long long kMaxPixelsPerByte = 512;

// libjpeg's error manager extended by the return point of the failing call
// and its message. libjpeg leaves a failed call through longjmp; only plain
// data may live in the frames it skips.
struct CErrors {
  jpeg_error_mgr manager;
  std::jmp_buf returnPoint;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void onError(j_common_ptr aInfo) {
  CErrors* errors = reinterpret_cast<CErrors*>(aInfo->err);
  (*aInfo->err->format_message)(aInfo, errors->message);
  std::longjmp(errors->returnPoint, 1);
}

// Warnings (level < 0) report damaged data that libjpeg would paper over with
// invented pixels, such as a file that ends early: they are errors here.
void onMessage(j_common_ptr aInfo, int aLevel) {
  if (aLevel < 0) onError(aInfo);
}

// The libjpeg calls that can fail, each behind its own return point.
bool create(jpeg_decompress_struct& aInfo, CErrors& aErrors) {
  if (setjmp(aErrors.returnPoint)) return false;
  jpeg_create_decompress(&aInfo);
  return true;
}

bool readHeader(jpeg_decompress_struct& aInfo, CErrors& aErrors, const unsigned char* aData, size_t aSize) {
  if (setjmp(aErrors.returnPoint)) return false;
  jpeg_mem_src(&aInfo, aData, static_cast<unsigned long>(aSize));
  jpeg_read_header(&aInfo, TRUE);
  return true;
}

bool start(jpeg_decompress_struct& aInfo, CErrors& aErrors) {
  if (setjmp(aErrors.returnPoint)) return false;
  jpeg_start_decompress(&aInfo);
  return true;
}

bool readRows(jpeg_decompress_struct& aInfo, CErrors& aErrors, unsigned char* aPixels, size_t aRowBytes) {
  if (setjmp(aErrors.returnPoint)) return false;
  while (aInfo.output_scanline < aInfo.output_height) {
    JSAMPROW row = aPixels + aInfo.output_scanline * aRowBytes;
    jpeg_read_scanlines(&aInfo, &row, 1);
  }
  return true;
}

class CDecompressor {
public:
  CDecompressor() {
    mInfo.err = jpeg_std_error(&mErrors.manager);
    mErrors.manager.error_exit = onError;
    mErrors.manager.emit_message = onMessage;
  }
  ~CDecompressor() { jpeg_destroy_decompress(&mInfo); }
  CDecompressor(const CDecompressor&) = delete;
  CDecompressor& operator=(const CDecompressor&) = delete;

  jpeg_decompress_struct& info() { return mInfo; }
  CErrors& errors() { return mErrors; }

private:
  // Zeroed, so that destroying after a failed creation finds no memory manager.
  jpeg_decompress_struct mInfo{};
  CErrors mErrors{};
};

void checkExtents(const jpeg_decompress_struct& aInfo, size_t aFileSize, const std::string& aName) {
  const unsigned long long width = aInfo.image_width;
  const unsigned long long height = aInfo.image_height;
  const std::string extents = std::to_string(width) + " x " + std::to_string(height);
  if (width * height > INT_MAX / 3) throw EFileError(aName, "JPEG image size " + extents + " is too large");
  if (width * height / kMaxPixelsPerByte > aFileSize)
    throw EFileError(aName, "JPEG image size " + extents + " is far more than the file's " +
                                std::to_string(aFileSize) + " bytes can hold (corrupt or truncated)");
}

}  // namespace

bool hasSignature(const unsigned char* aBytes, size_t aSize) {
  return aSize >= 3 && aBytes[0] == 0xff && aBytes[1] == 0xd8 && aBytes[2] == 0xff;
}

NImageFile::CRaster decode(const std::vector<unsigned char>& aBytes, const std::string& aName) {
  CDecompressor decompressor;
  jpeg_decompress_struct& info = decompressor.info();
  CErrors& errors = decompressor.errors();
  auto failure = [&] { return EFileError(aName, std::string("corrupt or truncated JPEG file: ") + errors.message); };

  if (!create(info, errors) || !readHeader(info, errors, aBytes.data(), aBytes.size())) throw failure();
  if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK)
    throw EFileError(aName, "CMYK JPEG files are not supported; save the image as RGB");
  checkExtents(info, aBytes.size(), aName);
  info.out_color_space = info.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
  if (!start(info, errors)) throw failure();

  NImageFile::CRaster raster;
  raster.width = static_cast<int>(info.output_width);
  raster.height = static_cast<int>(info.output_height);
  raster.layers = info.output_components;
  const size_t rowBytes = static_cast<size_t>(raster.width) * static_cast<size_t>(raster.layers);
  std::vector<unsigned char> pixels(rowBytes * static_cast<size_t>(raster.height));
  if (!readRows(info, errors, pixels.data(), rowBytes)) throw failure();
  raster.samples.assign(pixels.begin(), pixels.end());
  return raster;
}

}  // namespace NJpeg
