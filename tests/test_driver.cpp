// End-to-end runs of the labelling tool on small generated inputs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CTensor.h"
#include "TestSupport.h"

namespace {

using NTest::CRunResult;
using NTest::CScratchDir;

const std::string kExe = TARNWICK_EXE;

const std::vector<std::vector<float>> kThreeColours = {{255, 0, 0}, {0, 0, 255}, {0, 200, 0}};

CRunResult runTool(const std::vector<std::string>& aArgs, const std::string& aWorkDir = ".") {
  return NTest::run(kExe, aArgs, aWorkDir);
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

// Too few positional arguments give the usage text with status 1; --help
// gives it with status 0 and the options after it, however few the positionals.
TEST(DriverArguments, UsageTextAndOptionsTakenAnywhere) {
  CScratchDir dir;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"img.ppm"}, {"img.ppm", "2"}, {"--help", "img.ppm", "2"}}) {
    const CRunResult result = runTool(args, dir.path());
    const bool help = !args.empty() && args[0] == "--help";
    EXPECT_EQ(result.status, help ? 0 : 1);
    const std::vector<std::string> lines = NTest::lines(result.out);
    ASSERT_GE(lines.size(), 13u);
    EXPECT_EQ(lines.size() > 13u, help);
    for (size_t i = 0; i < 13; i++) EXPECT_EQ(lines[i], kUsage[i]) << "line " << i + 1;
    EXPECT_EQ(result.out.find("--help") != std::string::npos, help);
  }
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--no-such-option"}, "--no-such-option"}, {{"--vector-bits=64"}, "--vector-bits=64"},
      {{"--vector-bits"}, "--vector-bits"},       {{"--vector-bits=256x"}, "--vector-bits=256x"},
      {{"--format"}, "--format"},                 {{"--format", "gif"}, "--format"},
      {{"--format="}, "--format"}};
  for (const auto& [options, named] : cases) {
    std::vector<std::string> args = {"img.ppm", "2"};
    args.insert(args.end(), options.begin(), options.end());
    const CRunResult result = runTool(args, dir.path());
    EXPECT_EQ(result.status, 2) << named;
    EXPECT_NE(result.err.find(named), std::string::npos) << result.err;
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

TEST(DriverRun, TranscriptAndFilesOfModeZero) {
  CScratchDir dir;
  NTest::writeScene(dir.path(), 24, 16, 2, kThreeColours);
  const CRunResult result = runTool({"frame.ppm", "2", "labels.ppm"}, dir.path());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
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
  EXPECT_EQ(NTest::listDir(dir.file("TarnwickResults")),
            (std::vector<std::string>{"frame_dense.ppm", "frame_dense_soft.ppm", "frame_initialLabels.ppm"}));
}

TEST(DriverRun, OneLabelGivesAUniformResult) {
  CScratchDir dir;
  NTest::writeScene(dir.path(), 24, 16, 1, {{0, 0, 0}});
  ASSERT_EQ(runTool({"frame.ppm", "1", "labels.ppm"}, dir.path()).status, 0);
  const CTensor<float> dense = NTest::readPixmap(dir.file("TarnwickResults/frame_dense.ppm"));
  EXPECT_EQ(NTest::values(dense), std::vector<float>(static_cast<size_t>(dense.size()), 0.0f));
}
