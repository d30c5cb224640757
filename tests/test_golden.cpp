// Whole runs on small fixed scenes against checked-in checksums of their result
// files. The equality tests compare the fast path with the reference path, and
// both read the same schedule, weights and writers: these pin the results
// themselves, so a slip in any of them turns red here. The checksums were made
// by the reference path, which the fast path matched, and the pictures checked by eye.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Driver.h"
#include "TestSupport.h"

namespace {

// A deterministic integer hash, for noise and seed jitter.
unsigned mix(unsigned aA, unsigned aB, unsigned aC) {
  unsigned h = aA * 0x9E3779B1u ^ (aB + 0x7F4A7C15u) * 0x85EBCA77u ^ (aC + 0x165667B1u) * 0xC2B2AE3Du;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  return h;
}

// 64-bit FNV-1a of a file's bytes.
std::uint64_t checksum(const std::string& aBytes) {
  std::uint64_t hash = 1469598103934665603ull;
  for (const char c : aBytes) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

// Row-major 8-bit samples, written as a binary pixmap without the tool's writer
// so that the inputs stay fixed whatever the writer does.
struct CPicture {
  int width = 0;
  int height = 0;
  int channels = 3;
  std::vector<unsigned char> samples;

  CPicture(int aWidth, int aHeight, int aChannels = 3)
      : width(aWidth), height(aHeight), channels(aChannels),
        samples(static_cast<size_t>(aWidth) * aHeight * aChannels, 255) {}
  void set(int aX, int aY, const std::vector<int>& aColour) {
    for (int c = 0; c < channels; c++)
      samples[(static_cast<size_t>(aY) * width + aX) * channels + c] = static_cast<unsigned char>(aColour[c]);
  }
  void write(const std::string& aPath) const {
    const std::string header =
        (channels == 3 ? "P6\n" : "P5\n") + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    NTest::writeFile(aPath, header + std::string(samples.begin(), samples.end()));
  }
};

// A shaded background, a bright disc, a dark box and a diagonal band, with a
// few grey levels of noise.
CPicture scene(int aWidth, int aHeight, int aChannels) {
  CPicture picture(aWidth, aHeight, aChannels);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const int dx = x - aWidth * 2 / 3;
      const int dy = y - aHeight / 3;
      std::vector<int> colour = {60 + 100 * y / aHeight, 110 + 60 * x / aWidth, 190 - 50 * y / aHeight};
      if (4 * (dx * dx + dy * dy) < aHeight * aHeight / 4) colour = {235, 200, 60};
      if (x > aWidth / 8 && x < aWidth * 3 / 8 && y > aHeight / 2 && y < aHeight * 7 / 8) colour = {70, 45, 40};
      if (std::abs(x - y - aWidth / 4) < 3) colour = {150, 60, 160};
      for (int c = 0; c < 3; c++) colour[c] += static_cast<int>(mix(x, y, c) % 9) - 4;
      if (aChannels == 1) colour[0] = (colour[0] + colour[1] + colour[2]) / 3;
      picture.set(x, y, colour);
    }
  return picture;
}

// Nearest-seed regions around a jittered grid of seeds aCell pixels apart. A
// coarser level joins the regions whose seeds share a cell aCell << aLevel
// wide, so the levels are nested.
CPicture segmentation(int aWidth, int aHeight, int aCell, int aLevel, unsigned aSalt) {
  const int columns = (aWidth + aCell - 1) / aCell;
  const int rows = (aHeight + aCell - 1) / aCell;
  std::vector<int> seedX;
  std::vector<int> seedY;
  for (int j = 0; j < rows; j++)
    for (int i = 0; i < columns; i++) {
      seedX.push_back(std::min(aWidth - 1, i * aCell + static_cast<int>(mix(i, j, aSalt) % aCell)));
      seedY.push_back(std::min(aHeight - 1, j * aCell + static_cast<int>(mix(j, i, aSalt + 1) % aCell)));
    }
  const int group = aCell << aLevel;
  const int groupColumns = (aWidth + group - 1) / group;
  CPicture picture(aWidth, aHeight);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      size_t nearest = 0;
      int best = -1;
      for (size_t s = 0; s < seedX.size(); s++) {
        const int d = (x - seedX[s]) * (x - seedX[s]) + (y - seedY[s]) * (y - seedY[s]);
        if (best < 0 || d < best) {
          best = d;
          nearest = s;
        }
      }
      const int id = seedY[nearest] / group * groupColumns + seedX[nearest] / group;
      picture.set(x, y, {id % 256, 16 + 37 * (id / 256) + 8 * aLevel, static_cast<int>(aSalt % 200)});
    }
  return picture;
}

// Strokes of three pixels width from (aX0, aY0) to (aX1, aY1).
void stroke(CPicture& aLabels, int aX0, int aY0, int aX1, int aY1, const std::vector<int>& aColour) {
  const int steps = std::max(std::abs(aX1 - aX0), std::abs(aY1 - aY0));
  for (int s = 0; s <= steps; s++) {
    const int x = aX0 + (steps == 0 ? 0 : (aX1 - aX0) * s / steps);
    const int y = aY0 + (steps == 0 ? 0 : (aY1 - aY0) * s / steps);
    for (int d = -1; d <= 1; d++)
      if (x >= 0 && x < aLabels.width && y + d >= 0 && y + d < aLabels.height) aLabels.set(x, y + d, aColour);
  }
}

CPicture scribbles(int aWidth, int aHeight, int aLabels) {
  const std::vector<std::vector<int>> colours = {{255, 0, 0}, {0, 0, 255}, {0, 160, 0}, {0, 0, 0}, {250, 250, 0}};
  CPicture labels(aWidth, aHeight);
  const int w = aWidth;
  const int h = aHeight;
  stroke(labels, 2, h / 8, w / 2, h / 8, colours[0]);                       // background
  stroke(labels, w * 2 / 3 - 2, h / 3, w * 2 / 3 + 2, h / 3, colours[1]);   // disc
  if (aLabels > 2) stroke(labels, w / 6, h * 3 / 4, w / 3, h * 3 / 4, colours[2]);  // box
  if (aLabels > 3) stroke(labels, w / 4 + 4, 4, w / 4 + 10, 10, colours[3]);        // band
  if (aLabels > 4) stroke(labels, w - 6, h - 3, w - 2, h - 3, colours[4]);          // shaded corner
  return labels;
}

// Three tracks per label over frames 0 to 2, drifting right and down; label 45
// lies beyond the palette and starts in frame 1.
std::string tracks(int aWidth, int aHeight) {
  struct CTrack {
    int label;
    float x;  // start as a fraction of the extents
    float y;
  };
  const CTrack starts[] = {{0, 0.1f, 0.1f}, {0, 0.45f, 0.08f},  {0, 0.9f, 0.65f},   // background
                           {3, 0.62f, 0.3f}, {3, 0.7f, 0.36f},  {3, 0.66f, 0.25f},  // disc
                           {7, 0.2f, 0.62f}, {7, 0.3f, 0.8f},   {7, 0.25f, 0.7f},   // box
                           {45, 0.4f, 0.2f}, {45, 0.6f, 0.45f}, {45, 0.75f, 0.6f}};  // band
  std::ostringstream text;
  text << "0\n" << std::size(starts) << "\n";
  for (const CTrack& track : starts) {
    const int first = track.label == 45 ? 1 : 0;
    text << track.label << " " << 3 - first << "\n";
    for (int frame = first; frame < 3; frame++)
      text << std::min(track.x * aWidth + 0.5f * frame, aWidth - 0.5f) << " "
           << std::min(track.y * aHeight + 0.25f * frame, aHeight - 0.5f) << " " << frame << "\n";
  }
  return text.str();
}

struct CGolden {
  const char* name;
  int width;
  int height;
  int channels;  // of the image: 1 is a grey pixmap
  int segs;
  bool nested;
  int labels;    // scribble labels, or 0 for the track file
  int frame;
  const char* alpha;
  int mode;
  std::vector<std::pair<const char*, std::uint64_t>> files;  // result file and its checksum
};

const std::vector<CGolden> kGolden = {
    {"PixelsOnly", 40, 30, 3, 0, true, 3, 0, "0.3", 0,
     {{"scene_dense.ppm", 0x42de356f508e9b75ull},
      {"scene_dense_soft.ppm", 0xbcf0d0bc3b7dddabull},
      {"scene_initialLabels.ppm", 0x285dc175a052be56ull}}},
    {"OneLayerHighAlpha", 48, 36, 3, 1, true, 4, 0, "0.8", 1,
     {{"scene_dense.ppm", 0xc17d1a7ca9915dbcull},
      {"scene_denseOUT.ppm", 0x4e053c34a3a697aeull},
      {"scene_dense_soft.ppm", 0x8c14efd447b36f1cull},
      {"scene_initialLabels.ppm", 0x0e516283b66fcfdaull}}},
    {"TwoLayersNotNestedGrey", 53, 41, 1, 2, false, 5, 0, "0.3", 2,
     {{"scene_dense.ppm", 0x5efc4964e22ed250ull},
      {"scene_denseOUT.ppm", 0x90bd8a6d5bba72cbull},
      {"scene_dense_soft.ppm", 0x1c6dc56b47ae6dd7ull},
      {"scene_initialLabels.ppm", 0x3eea4cf81768fedfull}}},
    {"ThreeLayersTrackFile", 64, 48, 3, 3, true, 0, 2, "0.05", 2,
     {{"scene_dense.ppm", 0x72927ca9a08c5557ull},
      {"scene_denseOUT.ppm", 0xb33d36401eae3bc2ull},
      {"scene_dense_soft.ppm", 0x5847cfd75009968bull},
      {"scene_initialLabels.ppm", 0xf7708e0bc769db3eull}}},
    {"ThreeLayersOddSize", 45, 37, 3, 3, true, 0, 0, "0.3", 1,
     {{"scene_dense.ppm", 0xa0775f006df6a188ull},
      {"scene_denseOUT.ppm", 0xa081154d5144afdfull},
      {"scene_dense_soft.ppm", 0xf9e4493b947eb780ull},
      {"scene_initialLabels.ppm", 0x9097d8176901209dull}}},
    {"TinyImage", 6, 5, 3, 1, true, 0, 1, "0.3", 2,
     {{"scene_dense.ppm", 0x59a2f723d1d51bf7ull},
      {"scene_denseOUT.ppm", 0x3ea158c8e3555fb5ull},
      {"scene_dense_soft.ppm", 0x964e8af9703a6c82ull},
      {"scene_initialLabels.ppm", 0x3c51892124085465ull}}},
};

void PrintTo(const CGolden& aCase, std::ostream* aOut) { *aOut << aCase.name; }

void writeScene(const CGolden& aCase, const NTest::CScratchDir& aDir) {
  scene(aCase.width, aCase.height, aCase.channels).write(aDir.file("scene.ppm"));
  for (int k = 0; k < aCase.segs; k++) {
    const int cell = 3 + 2 * (aCase.nested ? 0 : k);
    segmentation(aCase.width, aCase.height, cell, aCase.nested ? k : 0, aCase.nested ? 11 : 11 + 5 * k)
        .write(aDir.file("scene_seg" + std::to_string(k) + ".ppm"));
  }
  if (aCase.labels > 0)
    scribbles(aCase.width, aCase.height, aCase.labels).write(aDir.file("labels.ppm"));
  else
    NTest::writeFile(aDir.file("tracks.dat"), tracks(aCase.width, aCase.height));
}

std::string hex(std::uint64_t aValue) {
  std::ostringstream text;
  text << "0x" << std::hex << std::setw(16) << std::setfill('0') << aValue << "ull";
  return text.str();
}

// Runs a case as the tool does and returns the checksums of its results, sorted by name.
std::vector<std::pair<std::string, std::uint64_t>> runCase(const CGolden& aCase) {
  NTest::CScratchDir dir;
  writeScene(aCase, dir);
  std::vector<std::string> args = {"tarnwick", dir.file("scene.ppm"), std::to_string(aCase.segs),
                                   aCase.labels > 0 ? "labels.ppm" : dir.file("tracks.dat"),
                                   std::to_string(aCase.frame), aCase.alpha, std::to_string(aCase.mode)};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  // One thread: results do not depend on the count, and a spinning team is slow on a busy machine.
  const int threadsBefore = omp_get_max_threads();
  omp_set_num_threads(1);
  testing::internal::CaptureStdout();
  const int status = NDriver::main(static_cast<int>(argv.size()), argv.data());
  testing::internal::GetCapturedStdout();
  omp_set_num_threads(threadsBefore);
  EXPECT_EQ(status, 0);
  std::vector<std::pair<std::string, std::uint64_t>> sums;
  const std::string results = dir.file("TarnwickResults/");
  for (const std::string& name : NTest::listDir(results))
    sums.emplace_back(name, checksum(NTest::readFile(results + name)));
  return sums;
}

// Lists files and checksums in the form of the table above.
std::string listing(const std::vector<std::pair<std::string, std::uint64_t>>& aFiles) {
  std::string text;
  for (const auto& [name, sum] : aFiles) text += "{\"" + name + "\", " + hex(sum) + "},\n";
  return text;
}

class Golden : public testing::TestWithParam<CGolden> {};

TEST_P(Golden, ResultFilesMatchTheirChecksums) {
  const CGolden& golden = GetParam();
  const std::vector<std::pair<std::string, std::uint64_t>> expected(golden.files.begin(), golden.files.end());
  EXPECT_EQ(listing(runCase(golden)), listing(expected));
}

INSTANTIATE_TEST_SUITE_P(Scenes, Golden, testing::ValuesIn(kGolden),
                         [](const testing::TestParamInfo<CGolden>& aInfo) { return aInfo.param.name; });

}  // namespace
