// End-to-end runs of the labelling tool on small generated inputs.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "CTensor.h"
#include "CUtility.h"
#include "TestSupport.h"

namespace {

using NTest::CRunResult;
using NTest::CScratchDir;

const std::string kExe = TARNWICK_EXE;

// A 24 x 16 scene: left half dark red, right half light blue, a green square.
CTensor<float> sceneImage(int aWidth = 24, int aHeight = 16) {
  CTensor<float> image(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const bool square = x >= aWidth / 3 && x < aWidth / 2 && y >= aHeight / 4 && y < aHeight / 2;
      const float r = square ? 40.0f : (x < aWidth / 2 ? 150.0f : 90.0f);
      const float g = square ? 200.0f : (x < aWidth / 2 ? 30.0f : 140.0f);
      const float b = square ? 60.0f : (x < aWidth / 2 ? 40.0f : 220.0f);
      image(x, y, 0) = r + (x * 7 + y * 3) % 5;
      image(x, y, 1) = g + (x * 5 + y * 11) % 7;
      image(x, y, 2) = b;
    }
  return image;
}

// Blocks of aBlock x aBlock pixels, each in a colour of its own.
CTensor<float> blockSegmentation(int aWidth, int aHeight, int aBlock) {
  CTensor<float> seg(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const int id = (y / aBlock) * 64 + x / aBlock;
      seg(x, y, 0) = static_cast<float>(id % 256);
      seg(x, y, 1) = static_cast<float>((id * 37) % 256);
      seg(x, y, 2) = static_cast<float>(aBlock * 10);
    }
  return seg;
}

struct CScene {
  CScratchDir dir;
  std::string image;   // path of the image
  int width = 24;
  int height = 16;
};

// Writes the image, aSegs block segmentations (block sizes 2, 4, 8, ...) and a
// scribble label image with the given colours at fixed spots.
void makeScene(CScene& aScene, int aSegs, const std::vector<std::vector<float>>& aColours) {
  aScene.image = aScene.dir.file("frame.ppm");
  sceneImage(aScene.width, aScene.height).writeToPPM(aScene.image.c_str());
  for (int k = 0; k < aSegs; k++)
    blockSegmentation(aScene.width, aScene.height, 2 << k)
        .writeToPPM(aScene.dir.file("frame_seg" + std::to_string(k) + ".ppm").c_str());
  CTensor<float> labels(aScene.width, aScene.height, 3, 255.0f);
  const int spots[4][2] = {{2, 2}, {aScene.width - 3, aScene.height - 3}, {aScene.width * 5 / 12, aScene.height / 3},
                           {aScene.width - 3, 1}};
  for (size_t l = 0; l < aColours.size(); l++)
    for (int d = 0; d < 3; d++)
      for (int z = 0; z < 3; z++) labels(spots[l][0] + (d == 1), spots[l][1] + (d == 2), z) = aColours[l][z];
  labels.writeToPPM(aScene.dir.file("labels.ppm").c_str());
}

const std::vector<std::vector<float>> kThreeColours = {{255, 0, 0}, {0, 0, 255}, {0, 200, 0}};

CRunResult runTool(const std::vector<std::string>& aArgs, const std::string& aWorkDir = ".",
                   const std::vector<std::string>& aEnv = {}) {
  return NTest::run(kExe, aArgs, aWorkDir, aEnv);
}

const char* const kUsage[] = {
    "input image name missing! ",
    "The program needs 3 arguments (plus 2 optional arguments):",
    "- argument 1 : image file (ppm, png or jpeg)",
    "- argument 2 : number of hierarchy levels",
    "- argument 3 : initial sparse labels (ppm or png)",
    "- argument 3 : initial sparse labels (track-file; needs argument 4) ",
    "- argument 4*: frame number in track file [set to 0 if ppm is given]",
    "- argument 5*: regularization parameter alpha [default = 0.3]",
    "- argument 6*: output [default = 0]",
    "              (0: dense region image,",
    "               1: 0 plus dense regions overlayed to original image,",
    "               2: as 1 with initial labels)",
    "- argument 7*: output folder",
};

}  // namespace

TEST(DriverArguments, UsageTextWithStatusOne) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"img.ppm"}, {"img.ppm", "2"}}) {
    const CRunResult result = runTool(args);
    EXPECT_EQ(result.status, 1);
    const std::vector<std::string> lines = NTest::lines(result.out);
    ASSERT_EQ(lines.size(), 13u);
    for (size_t i = 0; i < lines.size(); i++) EXPECT_EQ(lines[i], kUsage[i]) << "line " << i + 1;
  }
}

TEST(DriverArguments, OptionsAreTakenAnywhereAndUnknownOnesRejected) {
  CScratchDir dir;
  // Options do not count as positional arguments: two positionals still get the usage text.
  CRunResult result = runTool({"--help", "img.ppm", "2"}, dir.path());
  EXPECT_EQ(result.status, 0);
  std::vector<std::string> lines = NTest::lines(result.out);
  ASSERT_GT(lines.size(), 13u);
  for (size_t i = 0; i < 13; i++) EXPECT_EQ(lines[i], kUsage[i]) << "line " << i + 1;
  EXPECT_NE(result.out.find("--help"), std::string::npos);
  for (const char* bad : {"--no-such-option", "--vector-bits=64", "--vector-bits", "--vector-bits=256x"}) {
    result = runTool({"img.ppm", "2", bad}, dir.path());
    EXPECT_EQ(result.status, 2) << bad;
    EXPECT_NE(result.err.find(bad), std::string::npos) << result.err;
  }
  EXPECT_TRUE(NTest::listDir(dir.path()).empty());
}

TEST(DriverArguments, TrackFileErrorsExitWithStatusZero) {
  CScratchDir dir;
  CRunResult result = runTool({"img.ppm", "2", "tracks.dat"}, dir.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "Error: Need frame number in track file\n");
  result = runTool({"img.ppm", "2", "tracks.dat", "-1"}, dir.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "Error: Frame number must be positive integer\n");
  // Nothing is created before these checks.
  EXPECT_TRUE(NTest::listDir(dir.path()).empty());
}

TEST(DriverArguments, ImageNameWithoutEndingFailsCleanly) {
  CScratchDir dir;
  const CRunResult result = runTool({"data.set/img", "1", "lab.ppm"}, dir.path());
  EXPECT_EQ(result.signal, 0);
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("basic_string::erase"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("data.set/img"), std::string::npos) << result.err;
}

TEST(DriverArguments, BadAlphaIsRejectedBeforeAnythingIsWritten) {
  CScene scene;
  makeScene(scene, 1, kThreeColours);
  for (const char* alpha : {"1", "1.5", "-0.1", "nan", "inf"}) {
    const CRunResult result = runTool({"frame.ppm", "1", "labels.ppm", "0", alpha}, scene.dir.path());
    EXPECT_EQ(result.status, 2) << alpha;
    EXPECT_NE(result.err.find("alpha"), std::string::npos) << result.err;
    EXPECT_FALSE(NTest::fileExists(scene.dir.file("TarnwickResults"))) << alpha;
  }
}

TEST(DriverRun, TranscriptAndFilesOfModeZero) {
  CScene scene;
  makeScene(scene, 2, kThreeColours);
  const CRunResult result = runTool({"frame.ppm", "2", "labels.ppm"}, scene.dir.path());
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> lines = NTest::lines(result.out);
  const std::vector<std::string> expected = {
      "",
      "load input file:            ./frame.ppm",
      "load superpixel file:       ./frame_seg0.ppm",
      "load superpixel file:       ./frame_seg1.ppm",
      "read sparse label file:     labels.ppm",
      "number of labels:  3",
      "alpha:             0.3",
      "",
      "iterations on ...",
      "resolution level: 0 / 3",
      "resolution level: 1 / 3",
      "resolution level: 2 / 3",
      "resolution level: 3 / 3",
      "",
  };
  ASSERT_EQ(lines.size(), expected.size() + 1) << result.out;
  for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(lines[i], expected[i]) << "line " << i + 1;
  const std::string& last = lines.back();
  EXPECT_EQ(last.rfind("total time:                        ", 0), 0u) << last;
  EXPECT_EQ(last.substr(last.size() - 8), " seconds");
  EXPECT_EQ(NTest::listDir(scene.dir.file("TarnwickResults")),
            (std::vector<std::string>{"frame_dense.ppm", "frame_dense_soft.ppm", "frame_initialLabels.ppm"}));
}

TEST(DriverRun, HardResultHoldsOnlyLabelColoursAndModesAddOverlays) {
  CScene scene;
  makeScene(scene, 2, kThreeColours);
  ASSERT_EQ(runTool({"frame.ppm", "2", "labels.ppm", "0", "0.3", "2"}, scene.dir.path()).status, 0);
  const std::string results = scene.dir.file("TarnwickResults/");
  CTensor<float> dense;
  dense.readFromPPM((results + "frame_dense.ppm").c_str());
  ASSERT_EQ(dense.xSize(), scene.width);
  std::set<std::vector<float>> seen;
  for (int y = 0; y < dense.ySize(); y++)
    for (int x = 0; x < dense.xSize(); x++) seen.insert({dense(x, y, 0), dense(x, y, 1), dense(x, y, 2)});
  for (const std::vector<float>& colour : seen)
    EXPECT_NE(std::find(kThreeColours.begin(), kThreeColours.end(), colour), kThreeColours.end());
  EXPECT_TRUE(NTest::fileExists(results + "frame_denseOUT.ppm"));

  // Mode 2 draws the initial labels over the overlay, mode 1 does not.
  CTensor<float> withLabels;
  withLabels.readFromPPM((results + "frame_denseOUT.ppm").c_str());
  ASSERT_EQ(runTool({"frame.ppm", "2", "labels.ppm", "0", "0.3", "1"}, scene.dir.path()).status, 0);
  CTensor<float> plain;
  plain.readFromPPM((results + "frame_denseOUT.ppm").c_str());
  EXPECT_EQ(withLabels(2, 2, 0), 255.0f);
  EXPECT_EQ(withLabels(2, 2, 1), 0.0f);
  EXPECT_NE(plain(2, 2, 1), 0.0f);
}

TEST(DriverRun, OneLabelGivesAUniformResult) {
  CScene scene;
  makeScene(scene, 1, {{0, 0, 0}});
  ASSERT_EQ(runTool({"frame.ppm", "1", "labels.ppm"}, scene.dir.path()).status, 0);
  CTensor<float> dense;
  dense.readFromPPM(scene.dir.file("TarnwickResults/frame_dense.ppm").c_str());
  for (int i = 0; i < dense.size(); i++) ASSERT_EQ(dense.data()[i], 0.0f);
}

TEST(DriverRun, ResultsDoNotDependOnTheThreadCount) {
  CScene scene;
  scene.width = 40;
  scene.height = 24;
  makeScene(scene, 3, kThreeColours);
  std::vector<std::string> outputs;
  for (const char* threads : {"OMP_NUM_THREADS=1", "OMP_NUM_THREADS=2"}) {
    const CRunResult result = runTool({"frame.ppm", "3", "labels.ppm", "0", "0.3", "2"}, scene.dir.path(), {threads});
    ASSERT_EQ(result.status, 0) << result.err;
    std::string all;
    for (const char* name : {"frame_dense.ppm", "frame_dense_soft.ppm", "frame_denseOUT.ppm", "frame_initialLabels.ppm"})
      all += NTest::readFile(scene.dir.file(std::string("TarnwickResults/") + name));
    outputs.push_back(all);
  }
  EXPECT_EQ(outputs[0], outputs[1]);
}

TEST(DriverRun, OutputFolderIsAPrefixAndLabelsAreReadBesideTheImage) {
  CScene scene;
  makeScene(scene, 0, kThreeColours);
  ASSERT_EQ(mkdir(scene.dir.file("sub").c_str(), 0755), 0);
  sceneImage().writeToPPM(scene.dir.file("sub/frame.ppm").c_str());
  NTest::writeFile(scene.dir.file("sub/labels.ppm"), NTest::readFile(scene.dir.file("labels.ppm")));
  ASSERT_EQ(runTool({"sub/frame.ppm", "0", "labels.ppm"}, scene.dir.path()).status, 0);
  EXPECT_TRUE(NTest::fileExists(scene.dir.file("sub/TarnwickResults/frame_dense.ppm")));
  ASSERT_EQ(runTool({"sub/frame.ppm", "0", "labels.ppm", "0", "0.3", "0", "res"}, scene.dir.path()).status, 0);
  EXPECT_TRUE(NTest::fileExists(scene.dir.file("resTarnwickResults/frame_dense.ppm")));
  ASSERT_EQ(runTool({"sub/frame.ppm", "0", "labels.ppm", "0", "0.3", "0", "out/"}, scene.dir.path()).status, 2);
}

TEST(DriverRun, TrackFileFrameSelection) {
  CScene scene;
  makeScene(scene, 1, {});
  // Label 2 (blue) in frame 1 at two points, label 0 (red) in frame 1, frame 0 elsewhere.
  NTest::writeFile(scene.dir.file("tracks.dat"),
                   "3\n3\n2 2\n1.5 1.9 1\n3 3 0\n0 1\n20.7 12.2 1\n2 1\n5 5 0\n");
  const CRunResult result = runTool({"frame.ppm", "1", scene.dir.file("tracks.dat"), "1", "0.3", "0"}, scene.dir.path());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("number of labels:  2\n"), std::string::npos);
  CTensor<float> initial;
  initial.readFromPPM(scene.dir.file("TarnwickResults/frame_initialLabels.ppm").c_str());
  EXPECT_EQ(initial(1, 1, 2), 255.0f);
  EXPECT_EQ(initial(1, 1, 0), 10.0f);
  EXPECT_EQ(initial(20, 12, 0), 255.0f);
  EXPECT_EQ(initial(20, 12, 1), 10.0f);
  EXPECT_EQ(initial(3, 3, 1), 255.0f);  // frame 0 point left out: white
}

TEST(DriverRun, ImagesSmallerThanTheCoarsestLevelStillGiveAResult) {
  CScratchDir dir;
  sceneImage(5, 3).writeToPPM(dir.file("frame.ppm").c_str());
  CTensor<float> labels(5, 3, 3, 255.0f);
  labels(0, 0, 1) = labels(0, 0, 2) = 0.0f;  // red at the top left
  labels(4, 2, 0) = labels(4, 2, 1) = 0.0f;  // blue at the bottom right
  labels.writeToPPM(dir.file("labels.ppm").c_str());
  const CRunResult result = runTool({"frame.ppm", "0", "labels.ppm"}, dir.path());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(NTest::lines(result.out)[7], "resolution level: 2 / 3");  // 2 x 1 pixels
  CTensor<float> dense;
  dense.readFromPPM(dir.file("TarnwickResults/frame_dense.ppm").c_str());
  EXPECT_EQ(dense(0, 0, 0), 255.0f);
  EXPECT_EQ(dense(4, 2, 2), 255.0f);
}
