// The track file reader: frame selection, palette colours, missing and
// malformed files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CErrors.h"
#include "CUtility.h"
#include "TestSupport.h"

namespace {

class TrackReader : public ::testing::Test {
protected:
  // Writes aContents to a track file and reads frame aFrame into a white
  // canvas of 12 by 8 pixels.
  bool read(const std::string& aContents, int aFrame) {
    const std::string file = mDir.file("tracks.dat");
    NTest::writeFile(file, aContents);
    return CUtility::readTracks(file.c_str(), aFrame, mCanvas);
  }
  bool isWhite(int ax, int ay) const {
    return mCanvas(ax, ay, 0) == 255.0f && mCanvas(ax, ay, 1) == 255.0f && mCanvas(ax, ay, 2) == 255.0f;
  }
  int paintedPixels() const {
    int count = 0;
    for (int y = 0; y < mCanvas.ySize(); y++)
      for (int x = 0; x < mCanvas.xSize(); x++) count += isWhite(x, y) ? 0 : 1;
    return count;
  }
  void expectPalette(int ax, int ay, int aLabel) const {
    int r = 0, g = 0, b = 0;
    CUtility::paletteColor(aLabel, r, g, b);
    EXPECT_EQ(mCanvas(ax, ay, 0), r) << "at " << ax << "," << ay;
    EXPECT_EQ(mCanvas(ax, ay, 1), g) << "at " << ax << "," << ay;
    EXPECT_EQ(mCanvas(ax, ay, 2), b) << "at " << ax << "," << ay;
  }

  NTest::CScratchDir mDir;
  CTensor<float> mCanvas{12, 8, 3, 255.0f};
};

}  // namespace

TEST_F(TrackReader, PaintsThePointsOfTheSelectedFrameOnly) {
  const std::string tracks =
      "7 3\n"
      "2 3\n10.9 3.2 5\n1 1 4\n0 0 5\n"
      "0 2   4 4 6\n 5.5 6.5 4\n"
      "2 1\n6 7 5\n";
  EXPECT_TRUE(read(tracks, 5));
  EXPECT_EQ(paintedPixels(), 3);
  expectPalette(10, 3, 2);
  EXPECT_EQ(mCanvas(10, 3, 2), 255.0f);
  EXPECT_EQ(mCanvas(10, 3, 0), 10.0f);
  expectPalette(0, 0, 2);
  expectPalette(6, 7, 2);

  // Two tracks of the same label carry the same colour, hence one label.
  std::vector<CVector<int>> colors;
  CTensor<float> labels;
  EXPECT_EQ(CUtility::color2labelFunction(labels, mCanvas, colors), 1);
}

TEST_F(TrackReader, PointsOfOtherFramesLeaveTheCanvasUnchanged) {
  EXPECT_TRUE(read("0 1\n3 2\n1 1 0\n2 2 1\n", 9));
  EXPECT_EQ(paintedPixels(), 0);
}

TEST_F(TrackReader, LaterPointsOverwriteAndLabelsBeyondTheFixedPaletteWork) {
  EXPECT_TRUE(read("0 2\n1 1\n4 4 0\n45 1\n4.7 4.1 0\n", 0));
  EXPECT_EQ(paintedPixels(), 1);
  expectPalette(4, 4, 45);
}

TEST_F(TrackReader, TruncatesTowardZeroAndAcceptsTheImageEdges) {
  EXPECT_TRUE(read("0 1\n0 3\n-0.5 -0.9 1\n11.99 7.5 1\n0 7 1\ntrailing words are ignored", 1));
  EXPECT_EQ(paintedPixels(), 3);
  expectPalette(0, 0, 0);
  expectPalette(11, 7, 0);
  expectPalette(0, 7, 0);
}

TEST_F(TrackReader, MissingFileOrFolderIsReportedOnStandardOutput) {
  for (const std::string& name : {mDir.file("absent.dat"), mDir.path()}) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(CUtility::readTracks(name.c_str(), 0, mCanvas));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "File not found.\n") << name;
    EXPECT_EQ(paintedPixels(), 0);
  }
}

TEST_F(TrackReader, MalformedFilesRaiseAFileErrorSayingWhere) {
  struct CCase {
    const char* contents;
    const char* problem;
  };
  const CCase cases[] = {
      {"", "expected the header value and the track count"},
      {"header 2\n", "expected the header value and the track count"},
      {"0\n", "expected the header value and the track count"},
      {"0 -1\n", "negative track count -1"},
      {"0 2\n1 1\n2 2 0\n", "track 2 of 2: expected label and length"},
      {"0 1\n256 1\n2 2 0\n", "track 1 of 1: label 256 outside 0 to 255"},
      {"0 1\n-1 1\n2 2 0\n", "track 1 of 1: label -1 outside 0 to 255"},
      {"0 1\n3 -4\n", "track 1 of 1: negative length -4"},
      {"0 2\n0 1\n1 1 0\n1 3\n1 1 0\n2 x 0\n", "track 2 of 2: expected x, y and frame of point 2 of 3"},
      {"0 1\n1 2\n1 1 0\n2 2\n", "track 1 of 1: expected x, y and frame of point 2 of 2"},
      {"0 1\n1 1000000\n1 1 0\n", "track 1 of 1: expected x, y and frame of point 2 of 1000000"},
  };
  for (const CCase& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_THROW(read(c.contents, 0), EFileError) << c.contents;
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(message.rfind("Error: " + mDir.file("tracks.dat") + ": ", 0), 0u) << message;
    EXPECT_NE(message.find(c.problem), std::string::npos) << message;
  }
}

TEST_F(TrackReader, PointsOfTheSelectedFrameOutsideTheImageAreRejected) {
  const char* outside[] = {"12 0 3", "0 8 3", "-1 0 3", "0 -1.5 3", "1e9 2 3", "2 -1e30 3"};
  for (const char* point : outside) {
    testing::internal::CaptureStderr();
    EXPECT_THROW(read(std::string("0 1\n1 2\n1 1 3\n") + point + "\n", 3), EFileError) << point;
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_NE(message.find("track 1 of 1: point 2 of 2 at ("), std::string::npos) << message;
    EXPECT_NE(message.find("lies outside the 12 by 8 image"), std::string::npos) << message;
  }
  // The same points in another frame are not checked.
  EXPECT_TRUE(read("0 1\n1 2\n12 0 4\n-1 -1 4\n", 3));
}
