// End-to-end runs of the labelling tool on bad input: every failure must end
// the process normally with status 2 and one message naming the culprit, and
// must leave no result file behind.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"

namespace {

using NTest::CRunResult;

constexpr int kWidth = 24;
constexpr int kHeight = 16;

// A label image that looks like a photograph: every pixel a colour of its own.
std::string photograph() {
  std::string image = NTest::pixmap(kWidth, kHeight, '`');
  const size_t pixels = image.size() - kWidth * kHeight * 3;
  for (size_t i = 0; i < kWidth * kHeight; i++) image.replace(pixels + 3 * i, 3, {char(i), char(i / 3), '\x01'});
  return image;
}

// A valid image, segmentation, label image and track file in a scratch folder.
struct CScene {
  NTest::CScratchDir dir;
  CScene() {
    NTest::writeFile(dir.file("img.ppm"), NTest::pixmap(kWidth, kHeight, '`'));
    NTest::writeFile(dir.file("img_seg0.ppm"), NTest::pixmap(kWidth, kHeight, '`'));
    NTest::writeFile(dir.file("lab.ppm"), NTest::labelPixmap(kWidth, kHeight));
    NTest::writeFile(dir.file("tracks.dat"), "0 2\n3 1\n2.5 3.5 7\n0 2\n10 8 7\n1 1 6\n");
  }
  std::string results() const { return dir.file("TarnwickResults"); }
  CRunResult run(const std::vector<std::string>& aArgs) const { return NTest::run(TARNWICK_EXE, aArgs, dir.path()); }
};

// The common bar for a rejected input.
void checkRejected(const CRunResult& aResult, const CScene& aScene, const std::string& aName,
                    const std::string& aProblem) {
  EXPECT_EQ(aResult.signal, 0);
  EXPECT_EQ(aResult.status, 2);
  EXPECT_EQ(NTest::lines(aResult.err).size(), 1u) << aResult.err;
  EXPECT_NE(aResult.err.find(aName), std::string::npos) << aResult.err;
  EXPECT_NE(aResult.err.find(aProblem), std::string::npos) << aResult.err;
  if (NTest::fileExists(aScene.results())) {
    EXPECT_TRUE(NTest::listDir(aScene.results()).empty());
  }
}

enum class EKind { Contents, Missing, Folder, Pipe, Unreadable };

struct CBadFile {
  const char* what;
  EKind kind;
  std::string contents;
  const char* problem;
};

// One case per way a pixmap fails in the process; the reader's own messages
// for every damaged header are checked in test_pixmap.cpp.
const std::vector<CBadFile> kBadPixmaps = {
    {"missing", EKind::Missing, "", "File not found: "},
    {"folder", EKind::Folder, "", "is a directory"},
    {"named pipe", EKind::Pipe, "", "not a regular file"},
    {"unreadable", EKind::Unreadable, NTest::pixmap(kWidth, kHeight, '`'), "File not found: "},
    {"empty", EKind::Contents, "", "is empty"},
    {"text", EKind::Contents, "labels: sky, road\n", "not a pixmap file"},
    {"ASCII pixmap", EKind::Contents, "P3\n1 1\n255\n0 0 0\n", "EInvalidFileFormat"},
    {"truncated pixels", EKind::Contents, NTest::pixmap(kWidth, kHeight, '`').substr(0, 200), "truncated pixel data"},
};

// Replaces aPath by the bad file; false when the case cannot be set up here.
bool plant(const CBadFile& aBad, const std::string& aPath) {
  std::remove(aPath.c_str());
  if (aBad.kind == EKind::Folder) return mkdir(aPath.c_str(), 0755) == 0;
  if (aBad.kind == EKind::Pipe) return mkfifo(aPath.c_str(), 0644) == 0;
  if (aBad.kind != EKind::Missing) NTest::writeFile(aPath, aBad.contents);
  // Permissions do not stop the superuser from reading.
  return aBad.kind != EKind::Unreadable || (geteuid() != 0 && chmod(aPath.c_str(), 0) == 0);
}

// Plants aBad as aFile in a fresh scene and checks that the run of aArgs
// rejects it naming aName; the result has no message when it could not be planted.
CRunResult expectRejected(const CBadFile& aBad, const std::string& aFile, const std::vector<std::string>& aArgs,
                          const std::string& aName) {
  SCOPED_TRACE(aFile + ": " + aBad.what);
  CScene scene;
  if (!plant(aBad, scene.dir.file(aFile))) return {};
  const CRunResult result = scene.run(aArgs);
  checkRejected(result, scene, aName, aBad.problem);
  return result;
}

const std::vector<std::string> kLabelRun = {"img.ppm", "1", "lab.ppm"};
const std::vector<std::string> kTrackRun = {"img.ppm", "1", "tracks.dat", "7"};

}  // namespace

TEST(Robustness, BadPixmapsAreRejectedAsImageSegmentationAndLabelImage) {
  for (const char* role : {"img.ppm", "img_seg0.ppm", "lab.ppm"})
    for (const CBadFile& bad : kBadPixmaps) expectRejected(bad, role, kLabelRun, std::string("./") + role);
}

TEST(Robustness, InputsThatDoNotFitTheImageAreRejected) {
  const EKind kContents = EKind::Contents;
  const struct {
    const char* file;
    CBadFile bad;
  } cases[] = {
      {"img_seg0.ppm", {"quarter", kContents, NTest::pixmap(12, 8, '`'), "the segmentation is 12 x 8 but the image is 24 x 16"}},
      {"img_seg0.ppm", {"turned", kContents, NTest::pixmap(kHeight, kWidth, '`'), "the segmentation is 16 x 24"}},
      {"lab.ppm", {"wider", kContents, NTest::labelPixmap(kWidth + 1, kHeight), "the label image is 25 x 16"}},
      {"lab.ppm", {"lower", kContents, NTest::labelPixmap(kWidth, kHeight - 1), "the label image is 24 x 15"}},
      {"lab.ppm", {"photograph", kContents, photograph(), "more than 256 label colours"}},
      {"lab.ppm", {"white", kContents, NTest::pixmap(kWidth, kHeight, '\xff'), "no labels"}},
  };
  for (const auto& c : cases) expectRejected(c.bad, c.file, kLabelRun, std::string("./") + c.file);
}

// The reader's messages for every malformed track file are checked in test_labels.cpp.
TEST(Robustness, BadTrackFilesAreRejected) {
  const CBadFile cases[] = {
      {"missing", EKind::Missing, "", "cannot be opened"},
      {"folder", EKind::Folder, "", "cannot be opened"},
      {"named pipe", EKind::Pipe, "", "cannot be opened"},
      {"unreadable", EKind::Unreadable, "0 1\n3 1\n2 3 7\n", "cannot be opened"},
      {"text", EKind::Contents, "tracks of frame 7\n", "expected the header value"},
      {"point right of the image", EKind::Contents, "0 1\n3 1\n24 3 7\n", "outside the 24 by 16 image"},
      {"no point in the frame", EKind::Contents, "0 1\n3 1\n2 3 6\n", "no point in frame 7"},
  };
  for (const CBadFile& bad : cases) {
    const CRunResult result = expectRejected(bad, "tracks.dat", kTrackRun, "tracks.dat");
    // The transcript reports a track file that cannot be opened.
    if (!result.err.empty()) {
      EXPECT_EQ(result.out.find("File not found.\n") == std::string::npos, bad.kind == EKind::Contents) << result.out;
    }
  }
}

TEST(Robustness, BadArgumentsAreRejected) {
  CScene scene;
  NTest::writeFile(scene.dir.file("plainTarnwickResults"), "");
  NTest::writeFile(scene.dir.file("plain"), "");
  const struct {
    std::vector<std::string> args;
    const char* name;
    const char* problem;
  } cases[] = {
      {{"img.ppm", "99999999999", "lab.ppm"}, "argument 2", "too large"},
      {{"img.ppm", "1", "tracks.dat", "nan"}, "argument 4", "not a number"},
      {{"img.ppm", "1", "lab.ppm", "0", "0.3", "nan"}, "argument 6", "not a number"},
      {{"img.ppm", "1", "lab.ppm", "0", "1"}, "argument 5: alpha '1'", "must be a number from 0 up to (not including) 1"},
      {{"img.ppm", "1", "lab.ppm", "0", "1.5"}, "argument 5: alpha '1.5'", "must be a number from 0"},
      {{"img.ppm", "1", "lab.ppm", "0", "-0.1"}, "argument 5: alpha '-0.1'", "must be a number from 0"},
      {{"img.ppm", "1", "lab.ppm", "0", "nan"}, "argument 5: alpha 'nan'", "must be a number from 0"},
      {{"img.ppm", "1", "lab.ppm", "0", "inf"}, "argument 5: alpha 'inf'", "must be a number from 0"},
      {{"", "1", "lab.ppm"}, "argument 1", "no ending"},
      {{"data.set/img", "1", "lab.ppm"}, "argument 1: the image name 'data.set/img'", "no ending such as .ppm (basic_string::erase)"},
      // Segmentations are read one by one: a huge count fails at the first missing one.
      {{"img.ppm", "1000000000", "lab.ppm"}, "./img_seg1.ppm", "File not found: "},
      {{"img.ppm", "1", ""}, "./", "is a directory"},
      {{"img.ppm", "1", "lab.ppm", "0", "0.3", "0", "none/deeper/"}, "none/deeper/TarnwickResults", "No such file"},
      {{"img.ppm", "1", "lab.ppm", "0", "0.3", "0", "plain"}, "plainTarnwickResults", "in the way"},
      {{"img.ppm", "1", "lab.ppm", "0", "0.3", "0", "plain/"}, "plain/TarnwickResults", "Not a directory"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.name);
    checkRejected(scene.run(bad.args), scene, bad.name, bad.problem);
    // Arguments are checked before the results folder is made.
    if (std::string(bad.name).rfind("argument", 0) == 0) {
      EXPECT_FALSE(NTest::fileExists(scene.results()));
    }
  }
  EXPECT_FALSE(NTest::fileExists(scene.dir.file("none")));
}

// Permissions do not bind the superuser: as root the tool runs as the
// unprivileged user nobody, so that the check is exercised everywhere.
TEST(Robustness, UnwritableResultsFolderIsRejectedBeforeReading) {
  CScene scene;
  ASSERT_EQ(mkdir(scene.results().c_str(), 0555), 0);
  std::vector<std::string> args = {"img.ppm", "1", "lab.ppm"};
  CRunResult result;
  if (geteuid() == 0) {
    ASSERT_EQ(chmod(scene.dir.path().c_str(), 0755), 0);
    args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", TARNWICK_EXE});
    result = NTest::run("/usr/bin/setpriv", args, scene.dir.path());
  } else {
    result = scene.run(args);
  }
  checkRejected(result, scene, "TarnwickResults", "not writable");
  EXPECT_EQ(result.out.find("load input file"), std::string::npos);
}

// Runs that succeed: the documented conversions without a word, arguments
// that are no numbers read as before with a warning.
TEST(Robustness, AcceptedInputsAndArguments) {
  const std::string grey = NTest::pixmap(kWidth, kHeight, '`', "P5");
  const std::string frames = "0 1\n3 3\n2 3 0\n4 5 7\n6 7 2147483647\n";  // a point in each frame selected
  const struct {
    const char* file;
    std::string contents;
    std::vector<std::string> args;
    std::string warning;
  } cases[] = {
      {"img.ppm", grey, kLabelRun, ""},
      {"img_seg0.ppm", grey, kLabelRun, ""},
      {"lab.ppm", grey, kLabelRun, ""},
      {"tracks.dat", "0 1\n255 1\n23.9 15.9 7\n", kTrackRun, ""},
      {"tracks.dat", frames, {"img.ppm", "1", "tracks.dat", "frame_7"}, "argument 4: frame number 'frame_7' is not a number; using 0"},
      {"tracks.dat", frames, {"img.ppm", "1", "tracks.dat", "7th"}, "argument 4: frame number '7th' is not a number; using 7"},
      {"tracks.dat", frames, {"img.ppm", "1", "tracks.dat", "1e10"}, "argument 4: frame number '1e10' is beyond the int range; using 2147483647"},
      {"tracks.dat", frames, {"img.ppm", "1", "lab.ppm", "0", "abc"}, "argument 5: alpha 'abc' is not a number; using 0"},
      {"tracks.dat", frames, {"img.ppm", "1", "lab.ppm", "0", "0.5x"}, "argument 5: alpha '0.5x' is not a number; using 0.5"},
      {"tracks.dat", frames, {"img.ppm", "1", "lab.ppm", "0", "0.3", "abc"}, "argument 6: output mode 'abc' is not a number; using 0"},
      {"tracks.dat", frames, {"img.ppm", "1", "lab.ppm", "0", "0.3", "1e12"}, "argument 6: output mode '1e12' is beyond the int range; using 2147483647"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.warning);
    CScene scene;
    NTest::writeFile(scene.dir.file(c.file), c.contents);
    const CRunResult result = scene.run(c.args);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, c.warning.empty() ? "" : "Warning: " + c.warning + "\n");
    EXPECT_TRUE(NTest::fileExists(scene.results() + "/img_dense.ppm"));
  }
}
