#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>

#include "SegmentTool.h"
#include "Segmenter.h"
#include "Superpixels.h"
#include "TestSupport.h"

namespace {

// A small scene: shaded background, a disc, a bar, a low-contrast square, noise.
CTensor<float> scene(int aWidth, int aHeight) {
  CTensor<float> image(aWidth, aHeight, 3);
  uint32_t state = 12345;
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      std::array<float, 3> rgb = {90.0f + x * 0.3f, 120.0f, 150.0f - y * 0.2f};
      const int dx = x - aWidth / 3;
      const int dy = y - aHeight / 2;
      if (dx * dx + dy * dy < aHeight * aHeight / 9) rgb = {220, 200, 40};
      if (x > aWidth * 2 / 3 && x < aWidth * 3 / 4) rgb = {30, 60, 30};
      if (x > aWidth / 8 && x < aWidth / 4 && y < aHeight / 4) rgb[1] += 25;
      for (int c = 0; c < 3; c++) {
        state = state * 1664525u + 1013904223u;
        image(x, y, c) = std::clamp(rgb[static_cast<size_t>(c)] + static_cast<float>(state >> 28) - 8.0f, 0.0f, 255.0f);
      }
    }
  return image;
}

int regionCount(const CMatrix<int>& aLabels) {
  return aLabels.size() > 0 ? *std::max_element(aLabels.data(), aLabels.data() + aLabels.size()) + 1 : 0;
}

// Labels of a painted image: one label per distinct colour, as the labelling tool reads it.
CMatrix<int> colourLabels(const CTensor<float>& aPainted) {
  const int n = aPainted.xSize() * aPainted.ySize();
  std::map<std::array<float, 3>, int> labelOf;
  CMatrix<int> labels(aPainted.xSize(), aPainted.ySize());
  for (int i = 0; i < n; i++) {
    const std::array<float, 3> colour = {aPainted.data()[i], aPainted.data()[i + n], aPainted.data()[i + 2 * n]};
    labels.data()[i] = labelOf.emplace(colour, static_cast<int>(labelOf.size())).first->second;
  }
  return labels;
}

// A row of aCount pixels, each a region of its own.
CMatrix<int> ownRegions(int aCount) {
  CMatrix<int> labels(aCount, 1);
  for (int x = 0; x < aCount; x++) labels(x, 0) = x;
  return labels;
}

bool nested(const CMatrix<int>& aFine, const CMatrix<int>& aCoarse) {
  std::map<int, int> parent;
  for (int i = 0; i < aFine.size(); i++)
    if (parent.emplace(aFine.data()[i], aCoarse.data()[i]).first->second != aCoarse.data()[i]) return false;
  return true;
}

// Every label forms a single 4-connected piece.
bool connected(const CMatrix<int>& aLabels) {
  CMatrix<int> pieces;
  return NSegment::connectedComponents(aLabels, pieces) == regionCount(aLabels);
}

// Region count of each level, or -1 for a level whose regions are not each one
// 4-connected piece or do not nest into the next coarser level.
std::vector<int> wellFormedCounts(const std::vector<CMatrix<int>>& aLevels) {
  std::vector<int> counts;
  for (size_t k = 0; k < aLevels.size(); k++) {
    const bool ok = connected(aLevels[k]) && (k == 0 || nested(aLevels[k - 1], aLevels[k]));
    counts.push_back(ok ? regionCount(aLevels[k]) : -1);
  }
  return counts;
}

NTest::CRunResult segmentTool(const std::vector<std::string>& aArgs, const std::string& aWorkDir = ".",
                              const std::vector<std::string>& aEnv = {}) {
  return NTest::run(TARNWICK_SEGMENT_EXE, aArgs, aWorkDir, aEnv);
}

}  // namespace

TEST(SegmentHierarchy, CoarseRegionsFollowStrongEdges) {
  // Two noisy halves: two regions must be exactly the halves, and no
  // finer region may straddle the edge.
  CTensor<float> image(64, 48, 3, 90.0f);
  for (int y = 0; y < 48; y++)
    for (int x = 0; x < 64; x++) {
      image(x, y, 0) = x < 40 ? 200.0f + (x * 7 + y * 3) % 11 : 40.0f + (x * 5 + y) % 13;
      image(x, y, 2) = x < 40 ? 60.0f : 180.0f;
    }
  const std::vector<CMatrix<int>> levels = NSegment::segment(image, {30, 8, 2});
  // Regions are connected, so one that straddled the edge would touch itself across it.
  for (const CMatrix<int>& level : levels)
    for (int y = 0; y < 48; y++) EXPECT_NE(level(39, y), level(40, y)) << "a region crosses the edge in row " << y;
  EXPECT_EQ(regionCount(levels[2]), 2);
}

TEST(SegmentHierarchy, LevelsAreNestedConnectedAndOfTheRequestedSize) {
  using NSegment::segment;
  EXPECT_EQ(wellFormedCounts(segment(CTensor<float>(1, 1, 3, 7.0f), {5, 2})), (std::vector<int>{1, 1}));
  EXPECT_EQ(wellFormedCounts(segment(scene(50, 1), {10, 3})), (std::vector<int>{10, 3}));
  EXPECT_EQ(wellFormedCounts(segment(CTensor<float>(40, 30, 3, 100.0f), {12, 4})), (std::vector<int>{12, 4}));
  // More regions than pixels, then a count that grows from one level to the
  // next: every level still has at most 0.8 times the regions of the one before.
  const std::vector<int> tiny = wellFormedCounts(segment(scene(4, 3), {50, 20}));
  EXPECT_TRUE(tiny[0] <= 12 && tiny[1] > 0 && tiny[1] <= 0.8 * tiny[0]) << tiny[0] << ", " << tiny[1];
  EXPECT_EQ(wellFormedCounts(segment(scene(40, 30), {5, 9})), (std::vector<int>{5, 4}));
  EXPECT_TRUE(segment(scene(8, 8), {}).empty());
}

TEST(SegmentPaint, EveryRegionGetsItsOwnColourNearItsMean) {
  // Regions 0 and 1 share the mean colour (10, 20, 30); region 2 is black in a
  // corner of the colour cube; region 3 has a fractional mean.
  CTensor<float> image(4, 1, 3);
  const float channels[3][4] = {{10, 10, 0, 100.4f}, {20, 20, 0, 100.6f}, {30, 30, 0, 255}};
  for (int c = 0; c < 3; c++)
    for (int x = 0; x < 4; x++) image(x, 0, c) = channels[c][x];
  const CTensor<float> painted = NSegment::paintRegions(image, ownRegions(4));
  auto colour = [&](int x) { return std::array<float, 3>{painted(x, 0, 0), painted(x, 0, 1), painted(x, 0, 2)}; };
  EXPECT_EQ(colour(0), (std::array<float, 3>{10, 20, 30}));
  const std::array<float, 3> nudged = colour(1);
  EXPECT_FLOAT_EQ(std::abs(nudged[0] - 10) + std::abs(nudged[1] - 20) + std::abs(nudged[2] - 30), 1.0f);
  EXPECT_EQ(colour(2), (std::array<float, 3>{0, 0, 0}));
  EXPECT_EQ(colour(3), (std::array<float, 3>{100, 101, 255}));

  // 3000 black single-pixel regions fill the corner of the cube without a repeat.
  const int n = 3000;
  const CTensor<float> many = NSegment::paintRegions(CTensor<float>(n, 1, 3, 0.0f), ownRegions(n));
  EXPECT_EQ(regionCount(colourLabels(many)), n);
  EXPECT_LE(*std::max_element(many.data(), many.data() + many.size()), 25.0f);
}

TEST(SegmentDefaults, RegionCountsFallGeometrically) {
  EXPECT_EQ(NSegment::defaultRegionCounts(640 * 480, 3), (std::vector<int>{614, 251, 102}));
  EXPECT_EQ(NSegment::defaultRegionCounts(640 * 480, 1), (std::vector<int>{614}));
  EXPECT_EQ(NSegment::defaultRegionCounts(10, 3), (std::vector<int>{1, 1, 1}));
  const std::vector<int> many = NSegment::defaultRegionCounts(1000000, 10);
  EXPECT_TRUE(std::is_sorted(many.rbegin(), many.rend()));
  EXPECT_EQ(many.front(), 2000);
  // Geometric steps of 0.82 are held to 0.8.
  EXPECT_EQ(many.back(), 268);
}

TEST(SegmentTool, ParsesOptionsAnywhereAndChecksThem) {
  using NSegmentTool::parseArguments;
  const NSegmentTool::COptions a = parseArguments({"-o", "out", "f.ppm", "3", "--regions=90,30,24"});
  EXPECT_EQ(a.image, "f.ppm");
  EXPECT_EQ(a.levels, 3);
  EXPECT_EQ(a.outputDir, "out");
  EXPECT_EQ(a.regions, (std::vector<int>{90, 30, 24}));
  EXPECT_TRUE(parseArguments({"f.ppm", "x", "--help"}).help);
  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {}, {"f.ppm"}, {"f.ppm", "3", "extra"}, {"f.ppm", "-1"}, {"f.ppm", "11"}, {"f.ppm", "2.5"}, {"f.ppm", "3x"},
           {"f.ppm", "99999999999999999999"}, {"f.ppm", "2", "--frobnicate"}, {"f.ppm", "2", "-o"},
           {"f.ppm", "2", "--output="}, {"f.ppm", "2", "-r", "10"}, {"f.ppm", "2", "-r", "10,20"},
           {"f.ppm", "2", "-r", "10,0"}, {"f.ppm", "2", "-r", "10,,5"}, {"f.ppm", "2", "-r", "10,5,"}, {"f.ppm", "2", "-r", "10,9"}, {"f.ppm", "2", "-r", "300,300"}}) {
    EXPECT_THROW(parseArguments(bad), NSegmentTool::EArgumentError) << ::testing::PrintToString(bad);
  }
}

TEST(SegmentTool, NamesFollowTheLabellingTool) {
  using NSegmentTool::segmentationName;
  EXPECT_EQ(segmentationName("data/seq/frame01.ppm", "", 12), "data/seq/frame01_seg12.ppm");
  EXPECT_EQ(segmentationName("/in/set.2/img.a.pnm", "", 1), "/in/set.2/img.a_seg1.pnm");
  EXPECT_EQ(segmentationName("data/frame.ppm", "out", 2), "out/frame_seg2.ppm");
  EXPECT_THROW(segmentationName("data.set/img", "", 0), NSegmentTool::EArgumentError);
}

TEST(SegmentExecutable, OutputFolderAndThreadCount) {
  NTest::CScratchDir dir;
  scene(100, 80).writeToPPM(dir.file("f.ppm").c_str());
  const NTest::CRunResult one = segmentTool({"f.ppm", "2", "-o", "out/one", "-r", "30,8"}, dir.path(), {"OMP_NUM_THREADS=1"});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_NE(one.out.find("f_seg1.ppm: 8 regions"), std::string::npos) << one.out;
  ASSERT_EQ(segmentTool({"f.ppm", "2", "--output=two/", "-r", "30,8"}, dir.path(), {"OMP_NUM_THREADS=2"}).status, 0);
  EXPECT_EQ(NTest::listDir(dir.file("out/one")), (std::vector<std::string>{"f_seg0.ppm", "f_seg1.ppm"}));
  for (const std::string name : {"f_seg0.ppm", "f_seg1.ppm"})
    EXPECT_EQ(NTest::readFile(dir.file("out/one/" + name)), NTest::readFile(dir.file("two/" + name)));

  // Grey input is painted in colour; no levels create no folder.
  NTest::writeFile(dir.file("grey.pgm"), "P5\n30 20\n255\n" + std::string(600, '\x50'));
  ASSERT_EQ(segmentTool({"grey.pgm", "1"}, dir.path()).status, 0);
  const CTensor<float> grey = NTest::readPixmap(dir.file("grey_seg0.pgm"));
  EXPECT_EQ(grey.zSize(), 3);
  EXPECT_EQ(grey(0, 0, 2), 80.0f);
  EXPECT_EQ(segmentTool({"grey.pgm", "0", "-o", "empty"}, dir.path()).status, 0);
  EXPECT_FALSE(NTest::fileExists(dir.file("empty")));
}

TEST(SegmentExecutable, ErrorsNameTheCulpritAndWriteNothing) {
  NTest::CScratchDir dir;
  NTest::writeFile(dir.file("text.ppm"), "this is not a pixmap\n");
  scene(20, 20).writeToPPM(dir.file("ok.ppm").c_str());
  NTest::writeFile(dir.file("noending"), NTest::readFile(dir.file("ok.ppm")));

  struct CCase {
    std::vector<std::string> args;
    int status;
    std::string named;  // what the message must name
  };
  const std::vector<CCase> cases = {
      {{"missing.ppm", "3"}, 1, "missing.ppm"},
      {{"text.ppm", "3"}, 1, "text.ppm"},
      {{"ok.ppm", "-2"}, 2, "K"},
      {{"ok.ppm", "3", "--bogus"}, 2, "--bogus"},
      {{"ok.ppm", "1", "--format", "tiff"}, 2, "--format"},
      {{"ok.ppm", "4", "-r", "300,300,300,300"}, 2, "at most 0.8 times"},
      {{"noending", "2"}, 2, "noending"},
      {{"ok.ppm", "1", "-o", "text.ppm"}, 1, "text.ppm"},
      {{}, 2, "IMAGE"},
  };
  for (const CCase& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const NTest::CRunResult result = segmentTool(c.args, dir.path());
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.signal, 0);
    EXPECT_NE(result.err.find(c.named), std::string::npos) << result.err;
    EXPECT_TRUE(result.out.empty());
  }
  EXPECT_EQ(NTest::listDir(dir.path()), (std::vector<std::string>{"noending", "ok.ppm", "text.ppm"}));
}

TEST(SegmentExecutable, UnusableOutputFoldersAreReportedBeforeSegmenting) {
  NTest::CScratchDir dir;
  scene(20, 20).writeToPPM(dir.file("ok.ppm").c_str());
  ASSERT_EQ(symlink("loop", dir.file("loop").c_str()), 0);
  struct CCase {
    std::string folder;
    const char* reason;
  };
  std::vector<CCase> cases = {
      {std::string(300, 'x'), "File name too long"},
      {"loop/inner", "Too many levels of symbolic links"},
      {"ok.ppm/inner", "Not a directory"},
  };
  // Permissions do not stop the superuser.
  if (geteuid() != 0) {
    ASSERT_EQ(mkdir(dir.file("locked").c_str(), 0), 0);
    cases.push_back({"locked/inner", "Permission denied"});
  }
  for (const CCase& c : cases) {
    SCOPED_TRACE(c.folder);
    const NTest::CRunResult result = segmentTool({"ok.ppm", "2", "-o", c.folder}, dir.path());
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.rfind("Error: " + c.folder + ": cannot create the output folder: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find(c.reason), std::string::npos) << result.err;
  }
}
