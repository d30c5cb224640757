// Feeds arbitrary text to the track file reader through a scratch file. Every
// input must be read completely or rejected with a reported file error, and
// only palette colours may ever be painted into the image.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <array>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "CErrors.h"
#include "CTensor.h"
#include "CUtility.h"
#include "FuzzSupport.h"

namespace {

constexpr int kFrame = 1;
constexpr int kWidth = 16;
constexpr int kHeight = 12;

std::string gTrackFile;

void removeTrackFile() { unlink(gTrackFile.c_str()); }

using CColour = std::array<float, 3>;
std::set<CColour> gPalette;

void collectPalette() {
  for (int label = 0; label < CUtility::mPaletteSize; label++) {
    int r = 0;
    int g = 0;
    int b = 0;
    CUtility::paletteColor(label, r, g, b);
    gPalette.insert({static_cast<float>(r), static_cast<float>(g), static_cast<float>(b)});
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  NFuzz::silenceErrorStream();
  std::string pattern = std::filesystem::temp_directory_path().string() + "/tarnwick-fuzz-tracks-XXXXXX";
  const int fd = mkstemp(&pattern[0]);
  if (fd < 0) std::abort();
  close(fd);
  gTrackFile = pattern;
  std::atexit(removeTrackFile);
  collectPalette();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
  {
    std::ofstream file(gTrackFile, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(aData), static_cast<std::streamsize>(aSize));
    if (!file) std::abort();
  }
  CTensor<float> labels(kWidth, kHeight, 3, 255.0f);
  try {
    if (!CUtility::readTracks(gTrackFile.c_str(), kFrame, labels)) std::abort();
  } catch (const EFileError&) {
  } catch (const EInvalidFileFormat&) {
  }
  for (int y = 0; y < kHeight; y++)
    for (int x = 0; x < kWidth; x++) {
      const CColour colour = {labels(x, y, 0), labels(x, y, 1), labels(x, y, 2)};
      const bool white = colour == CColour{255.0f, 255.0f, 255.0f};
      if (!white && gPalette.count(colour) == 0) std::abort();
    }
  return 0;
}
