#include "CPng.h"

#include <png.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "CErrors.h"

namespace NPng {

namespace {

constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
// Deflate turns at most 2 bits into 258 bytes, so a file of n bytes holds at
// most 1032 n bytes of filtered rows; declared extents beyond that are corrupt.
constexpr unsigned long long kMaxInflation = 1032;

// What libpng reads from and where it leaves its error message. libpng leaves
// a failed call through longjmp; only plain data may live in the frames it
// skips, so everything here is a plain struct.
struct CSession {
  const unsigned char* data;
  size_t size;
  size_t position;
  char message[256];
};

void readBytes(png_structp aPng, png_bytep aOut, size_t aCount) {
  CSession* session = static_cast<CSession*>(png_get_io_ptr(aPng));
  if (aCount > session->size - session->position) png_error(aPng, "the file ends early (truncated)");
  std::memcpy(aOut, session->data + session->position, aCount);
  session->position += aCount;
}

void onError(png_structp aPng, png_const_charp aMessage) {
  CSession* session = static_cast<CSession*>(png_get_error_ptr(aPng));
  std::snprintf(session->message, sizeof session->message, "%s", aMessage);
  png_longjmp(aPng, 1);
}

// Damage in optional chunks is not worth a message: those chunks are skipped.
void onWarning(png_structp, png_const_charp) {}

// The libpng calls that can fail, each behind its own return point.
bool readInfo(png_structp aPng, png_infop aInfo) {
  if (setjmp(png_jmpbuf(aPng))) return false;
  png_read_info(aPng, aInfo);
  return true;
}

bool updateInfo(png_structp aPng, png_infop aInfo) {
  if (setjmp(png_jmpbuf(aPng))) return false;
  png_read_update_info(aPng, aInfo);
  return true;
}

bool readRows(png_structp aPng, png_bytepp aRows) {
  if (setjmp(png_jmpbuf(aPng))) return false;
  png_read_image(aPng, aRows);
  return true;
}

class CReader {
public:
  explicit CReader(CSession& aSession) {
    mPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, &aSession, onError, onWarning);
    if (mPng != nullptr) mInfo = png_create_info_struct(mPng);
    if (mInfo == nullptr) {
      png_destroy_read_struct(&mPng, nullptr, nullptr);
      throw std::bad_alloc();
    }
    png_set_read_fn(mPng, &aSession, readBytes);
  }
  ~CReader() { png_destroy_read_struct(&mPng, &mInfo, nullptr); }
  CReader(const CReader&) = delete;
  CReader& operator=(const CReader&) = delete;

  png_structp png() const { return mPng; }
  png_infop info() const { return mInfo; }

private:
  png_structp mPng = nullptr;
  png_infop mInfo = nullptr;
};

// Rejects extents no int index can reach and extents the file cannot hold.
void checkExtents(png_structp aPng, png_infop aInfo, size_t aFileSize, const std::string& aName) {
  const unsigned long long width = png_get_image_width(aPng, aInfo);
  const unsigned long long height = png_get_image_height(aPng, aInfo);
  const std::string extents = std::to_string(width) + " x " + std::to_string(height);
  if (width > INT_MAX || height > INT_MAX || width * height > INT_MAX / 3)
    throw EFileError(aName, "PNG image size " + extents + " is too large");
  const unsigned long long bits = static_cast<unsigned long long>(png_get_channels(aPng, aInfo)) *
                                  png_get_bit_depth(aPng, aInfo);
  const unsigned long long filtered = height * (1 + (width * bits + 7) / 8);
  if (filtered / kMaxInflation > aFileSize)
    throw EFileError(aName, "PNG image size " + extents + " is far more than the file's " +
                                std::to_string(aFileSize) + " bytes can hold (corrupt or truncated)");
}

// Sample i of a row of 8- or 16-bit big-endian samples.
unsigned short sample(const unsigned char* aRow, size_t i, int aDepth) {
  return aDepth == 16 ? static_cast<unsigned short>(aRow[2 * i] << 8 | aRow[2 * i + 1]) : aRow[i];
}

}  // namespace

bool hasSignature(const unsigned char* aBytes, size_t aSize) {
  return aSize >= sizeof kSignature && std::memcmp(aBytes, kSignature, sizeof kSignature) == 0;
}

NImageFile::CRaster decode(const std::vector<unsigned char>& aBytes, const std::string& aName) {
  CSession session{aBytes.data(), aBytes.size(), 0, {}};
  CReader reader(session);
  png_structp png = reader.png();
  png_infop info = reader.info();
  auto failure = [&] { return EFileError(aName, std::string("corrupt or truncated PNG file: ") + session.message); };

  if (!readInfo(png, info)) throw failure();
  checkExtents(png, info, aBytes.size(), aName);
  if (png_get_color_type(png, info) == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (png_get_color_type(png, info) == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8)
    png_set_expand_gray_1_2_4_to_8(png);
  png_set_interlace_handling(png);
  if (!updateInfo(png, info)) throw failure();

  NImageFile::CRaster raster;
  raster.width = static_cast<int>(png_get_image_width(png, info));
  raster.height = static_cast<int>(png_get_image_height(png, info));
  raster.depth = png_get_bit_depth(png, info);
  const int channels = png_get_channels(png, info);
  // Grey and grey+alpha keep one layer, RGB and RGBA three: alpha is dropped.
  raster.layers = channels < 3 ? 1 : 3;
  const size_t rowBytes = png_get_rowbytes(png, info);
  const size_t width = static_cast<size_t>(raster.width);
  if ((raster.depth != 8 && raster.depth != 16) || rowBytes != width * channels * (raster.depth / 8))
    throw EFileError(aName, "unexpected PNG sample layout after decoding");

  std::vector<unsigned char> pixels(rowBytes * static_cast<size_t>(raster.height));
  std::vector<png_bytep> rows(static_cast<size_t>(raster.height));
  for (size_t y = 0; y < rows.size(); y++) rows[y] = pixels.data() + y * rowBytes;
  if (!readRows(png, rows.data())) throw failure();

  raster.samples.resize(width * rows.size() * static_cast<size_t>(raster.layers));
  size_t k = 0;
  for (const png_bytep row : rows)
    for (size_t x = 0; x < width; x++)
      for (int z = 0; z < raster.layers; z++)
        raster.samples[k++] = sample(row, x * static_cast<size_t>(channels) + static_cast<size_t>(z), raster.depth);
  return raster;
}

namespace {

// No exception may cross libpng's frames: a failed allocation becomes a libpng error.
void appendBytes(png_structp aPng, png_bytep aData, size_t aCount) {
  auto* out = static_cast<std::vector<unsigned char>*>(png_get_io_ptr(aPng));
  bool grown = true;
  try {
    out->insert(out->end(), aData, aData + aCount);
  } catch (const std::bad_alloc&) {
    grown = false;
  }
  if (!grown) png_error(aPng, "out of memory");
}

void flushNothing(png_structp) {}

void onWriteError(png_structp aPng, png_const_charp) { png_longjmp(aPng, 1); }

bool writeImage(png_structp aPng, png_infop aInfo, png_uint_32 aWidth, png_uint_32 aHeight, png_bytepp aRows) {
  if (setjmp(png_jmpbuf(aPng))) return false;
  png_set_IHDR(aPng, aInfo, aWidth, aHeight, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(aPng, aInfo);
  png_write_image(aPng, aRows);
  png_write_end(aPng, nullptr);
  return true;
}

}  // namespace

std::vector<unsigned char> encode(int aWidth, int aHeight, const std::vector<unsigned char>& aRgb) {
  std::vector<unsigned char> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, onWriteError, onWarning);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  std::vector<png_bytep> rows(static_cast<size_t>(aHeight));
  // libpng takes the rows as non-const pointers but only reads them.
  auto* rgb = const_cast<unsigned char*>(aRgb.data());
  for (size_t y = 0; y < rows.size(); y++) rows[y] = rgb + y * static_cast<size_t>(aWidth) * 3;
  bool ok = info != nullptr;
  if (ok) {
    png_set_write_fn(png, &out, appendBytes, flushNothing);
    ok = writeImage(png, info, static_cast<png_uint_32>(aWidth), static_cast<png_uint_32>(aHeight), rows.data());
  }
  png_destroy_write_struct(&png, &info);
  if (!ok) throw std::bad_alloc();
  return out;
}

}  // namespace NPng
