#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "CPixmap.h"
#include "CTensor.h"
#include "TestSupport.h"

namespace {

std::string bytes(int aCount, int aFirst = 0) {
  std::string result;
  for (int i = 0; i < aCount; i++) result += static_cast<char>((aFirst + i) & 0xff);
  return result;
}

class Pixmap : public testing::Test {
protected:
  // Writes aContents to a file of the scratch folder and returns its path.
  std::string file(const std::string& aContents, const std::string& aName = "in.ppm") const {
    const std::string path = mDir.file(aName);
    NTest::writeFile(path, aContents);
    return path;
  }

  CTensor<float> read(const std::string& aPath) const {
    CTensor<float> t;
    t.readFromPPM(aPath.c_str());
    return t;
  }

  // Reads aPath expecting exception E; checks that the tensor kept its
  // contents and returns what was printed on the error stream.
  template <class E>
  std::string failure(const std::string& aPath) const {
    CTensor<float> t(1, 1, 1, 42.0f);
    testing::internal::CaptureStderr();
    bool thrown = false;
    try {
      t.readFromPPM(aPath.c_str());
    } catch (const E&) {
      thrown = true;
    } catch (...) {
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(thrown) << "no expected exception for " << aPath;
    EXPECT_EQ(t.xSize(), 1);
    EXPECT_EQ(t(0, 0, 0), 42.0f);
    return err;
  }

  // Expects an EFileError whose one-line message names the file.
  void expectFileError(const std::string& aContents, const std::string& aProblemPart) const {
    const std::string path = file(aContents);
    const std::string err = failure<EFileError>(path);
    EXPECT_EQ(err.rfind("Error: " + path + ": ", 0), 0u) << err;
    EXPECT_NE(err.find(aProblemPart), std::string::npos) << err;
    EXPECT_EQ(NTest::lines(err).size(), 1u) << err;
  }

  NTest::CScratchDir mDir;
};

}  // namespace

TEST_F(Pixmap, WriterProducesExactHeaderAndInterleavedSamples) {
  CTensor<float> t(2, 1, 3);
  for (int i = 0; i < t.size(); i++) t.data()[i] = static_cast<float>(10 + i);
  const std::string path = mDir.file("out.ppm");
  t.writeToPPM(path.c_str());
  const std::string expected = std::string("P6 \n2 1 \n255\n") + "\x0a\x0c\x0e\x0b\x0d\x0f";
  EXPECT_EQ(NTest::readFile(path), expected);
  EXPECT_EQ(NTest::listDir(mDir.path()), std::vector<std::string>{"out.ppm"});
}

TEST_F(Pixmap, RoundTripKeepsEveryByteValue) {
  CTensor<float> t(16, 16, 3);
  for (int z = 0; z < 3; z++)
    for (int y = 0; y < 16; y++)
      for (int x = 0; x < 16; x++) t(x, y, z) = static_cast<float>((x + 16 * y + 85 * z) % 256);
  const std::string path = mDir.file("round.ppm");
  t.writeToPPM(path.c_str());
  const CTensor<float> back = read(path);
  ASSERT_EQ(back.xSize(), 16);
  ASSERT_EQ(back.ySize(), 16);
  ASSERT_EQ(back.zSize(), 3);
  for (int i = 0; i < t.size(); i++) ASSERT_EQ(back.data()[i], t.data()[i]) << "at " << i;
}

TEST_F(Pixmap, WriterTruncatesAndKeepsTheLowestByte) {
  const std::vector<float> values = {300.0f, 12.7f, -1.0f, 255.9f, 256.0f, -0.5f, 511.0f, -256.0f, 0.99f};
  const std::vector<unsigned char> expected = {44, 12, 255, 255, 0, 0, 255, 0, 0};
  CTensor<float> t(3, 1, 3);
  for (int i = 0; i < 9; i++) t(i / 3, 0, i % 3) = values[static_cast<size_t>(i)];
  const std::string path = mDir.file("bytes.ppm");
  t.writeToPPM(path.c_str());
  const std::string written = NTest::readFile(path);
  const std::string header = "P6 \n3 1 \n255\n";
  ASSERT_EQ(written.size(), header.size() + 9);
  for (size_t i = 0; i < 9; i++)
    EXPECT_EQ(static_cast<unsigned char>(written[header.size() + i]), expected[i]) << "value " << values[i];
}

TEST_F(Pixmap, ValuesWithoutAnIntegerGiveZero) {
  CTensor<float> t(1, 1, 3);
  t(0, 0, 0) = std::numeric_limits<float>::quiet_NaN();
  t(0, 0, 1) = 1e20f;
  t(0, 0, 2) = -std::numeric_limits<float>::infinity();
  const std::string path = mDir.file("odd.ppm");
  t.writeToPPM(path.c_str());
  EXPECT_EQ(NTest::readFile(path), std::string("P6 \n1 1 \n255\n") + std::string(3, '\0'));
}

TEST_F(Pixmap, LayersBeyondTheThirdAreIgnoredAndFewerAreRefused) {
  CTensor<float> four(1, 1, 4, 7.0f);
  const std::string path = mDir.file("four.ppm");
  four.writeToPPM(path.c_str());
  EXPECT_EQ(NTest::readFile(path), "P6 \n1 1 \n255\n\x07\x07\x07");

  CTensor<float> grey(1, 1, 1, 7.0f);
  const std::string greyPath = mDir.file("grey.ppm");
  testing::internal::CaptureStderr();
  EXPECT_THROW(grey.writeToPPM(greyPath.c_str()), EFileError);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Error: " + greyPath + ": ", 0), 0u);
  EXPECT_FALSE(NTest::fileExists(greyPath));
}

TEST_F(Pixmap, WriterReplacesAnExistingFileWithOrdinaryPermissions) {
  const std::string path = file("old contents that are longer than the new image");
  CTensor<float> t(1, 1, 3, 1.0f);
  t.writeToPPM(path.c_str());
  EXPECT_EQ(NTest::readFile(path), "P6 \n1 1 \n255\n\x01\x01\x01");
  const mode_t mask = umask(0);
  umask(mask);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
}

TEST_F(Pixmap, FailedWritesLeaveNoFileBehind) {
  CTensor<float> t(2, 2, 3, 1.0f);
  const std::string missing = mDir.file("no/such/folder/out.ppm");
  testing::internal::CaptureStderr();
  EXPECT_THROW(t.writeToPPM(missing.c_str()), EFileError);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Error: " + missing + ": ", 0), 0u) << err;
  EXPECT_TRUE(NTest::listDir(mDir.path()).empty());

  // The target is a folder: the data can be written but not renamed into place.
  const std::string folder = mDir.file("taken");
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  testing::internal::CaptureStderr();
  EXPECT_THROW(t.writeToPPM(folder.c_str()), EFileError);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(NTest::listDir(mDir.path()), std::vector<std::string>{"taken"});
  EXPECT_TRUE(NTest::listDir(folder).empty());
}

TEST_F(Pixmap, ColourSamplesAreSpreadOverThreeLayers) {
  const CTensor<float> t = read(file("P6\n2 1\n255\n" + bytes(6, 1)));
  ASSERT_EQ(t.zSize(), 3);
  EXPECT_EQ(t(0, 0, 0), 1.0f);
  EXPECT_EQ(t(0, 0, 1), 2.0f);
  EXPECT_EQ(t(0, 0, 2), 3.0f);
  EXPECT_EQ(t(1, 0, 0), 4.0f);
  EXPECT_EQ(t(1, 0, 2), 6.0f);
}

TEST_F(Pixmap, GreyFilesGiveOneLayer) {
  const CTensor<float> t = read(file("P5\n3 2\n255\n" + bytes(6, 250)));
  ASSERT_EQ(t.xSize(), 3);
  ASSERT_EQ(t.ySize(), 2);
  ASSERT_EQ(t.zSize(), 1);
  EXPECT_EQ(t(0, 0, 0), 250.0f);
  EXPECT_EQ(t(2, 1, 0), 255.0f);
  EXPECT_EQ(t(0, 1, 0), 253.0f);
}

TEST_F(Pixmap, ReaderAcceptsTheHeaderVariantsOfCommonTools) {
  struct Case {
    const char* name;
    std::string header;
  };
  const std::vector<Case> cases = {
      {"comment after the magic line", "P6\n# made by hand\n3 2\n255\n"},
      {"two comments", "P6\n# one\n# two\n3 2\n255\n"},
      {"leading garbage", std::string("junk\0\xffP", 7) + "6\n3 2\n255\n"},
      {"extents on separate lines", "P6\n3\n2\n255\n"},
      {"blank lines after the magic line", "P6\n\n\n3 2\n255\n"},
      {"text without digits between the extents", "P6\n3 # by two\n2\n255\n"},
      {"height with a suffix", "P6\n3 2x\n255\n"},
      {"writer's own header", "P6 \n3 2 \n255\n"},
      {"maxval followed by text", "P6\n3 2\n255 trailing words\n"},
  };
  for (const Case& c : cases) {
    const CTensor<float> t = read(file(c.header + bytes(18) + "surplus"));
    EXPECT_EQ(t.xSize(), 3) << c.name;
    EXPECT_EQ(t.ySize(), 2) << c.name;
    EXPECT_EQ(t.zSize(), 3) << c.name;
    EXPECT_EQ(t(0, 0, 0), 0.0f) << c.name;
    EXPECT_EQ(t(2, 1, 2), 17.0f) << c.name;
  }
}

TEST_F(Pixmap, InMemoryReaderMatchesTheFileReader) {
  const std::string contents = "P6\n2 2\n255\n" + bytes(12, 3);
  const NPixmap::CImage image = NPixmap::decode(std::vector<unsigned char>(contents.begin(), contents.end()), "memory");
  EXPECT_EQ(image.width, 2);
  EXPECT_EQ(image.height, 2);
  EXPECT_EQ(image.layers, 3);
  const std::string samples(image.samples.begin(), image.samples.end());
  EXPECT_EQ(samples, bytes(12, 3));

  testing::internal::CaptureStderr();
  EXPECT_THROW(NPixmap::decode({'P', '6', '\n'}, "memory"), EFileError);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Error: memory: ", 0), 0u);
}

TEST_F(Pixmap, MissingFileIsReportedByName) {
  const std::string path = mDir.file("absent.ppm");
  EXPECT_EQ(failure<EFileError>(path), "File not found: " + path + "\n");
}

TEST_F(Pixmap, FolderIsRejected) {
  const std::string err = failure<EFileError>(mDir.path());
  EXPECT_EQ(err.rfind("Error: " + mDir.path() + ": ", 0), 0u) << err;
}

TEST_F(Pixmap, WrongMagicDigitIsAnInvalidFormat) {
  for (const std::string contents : {"P3\n3 2\n255\n", "P", "xxP7"}) {
    const std::string path = file(contents);
    EXPECT_EQ(failure<EInvalidFileFormat>(path), "Exception EInvalidFileFormat: File is not in PPM format: " + path + "\n")
        << contents;
  }
}

TEST_F(Pixmap, FilesWithoutAnImageAreRejected) {
  expectFileError("", "empty");
  expectFileError("no magic number in here", "magic");
}

TEST_F(Pixmap, HeadersCutShortAreRejected) {
  for (const std::string contents : {"P6", "P6\n", "P6\n# only a comment", "P6\n\n\n", "P6\n3", "P6\n3 ", "P6\n3 2",
                                     "P6\n3 2\n", "P6\n3 2 \nmaxval"})
    expectFileError(contents, "header");
}

TEST_F(Pixmap, BadExtentsAreRejected) {
  expectFileError("P6\n0 2\n255\n", "size");
  expectFileError("P6\n3 0\n255\n", "size");
  // A blank before the width is taken as its first digit: the width turns negative.
  expectFileError("P6\n 3 2\n255\n" + bytes(18), "size");
  // So is a comment after a magic line that ends in a blank.
  expectFileError("P6 \n# comment\n3 2\n255\n" + bytes(18), "size");
  expectFileError("P6 \n#" + std::string(60, '9') + " 2\n255\n", "size");
}

TEST_F(Pixmap, ExtentsBeyondTheIntRangeAreRejected) {
  expectFileError("P6\n" + std::string(60, '9') + " 2\n255\n", "too large");
  expectFileError("P6\n2 " + std::string(60, '9') + "\n255\n", "too large");
  expectFileError("P6\n" + std::string(30, '9') + " " + std::string(30, '9') + "\n255\n", "too large");
  expectFileError("P6\n70000 70000\n255\n", "too large");
  expectFileError("P6\n30000 30000\n255\n", "too large");
  // Fits, but the samples are missing: refused before anything is allocated.
  expectFileError("P5\n46340 46340\n255\n", "truncated");
}

TEST_F(Pixmap, OnlyMaxval255IsAccepted) {
  expectFileError("P6\n1 1\n65535\n" + bytes(6), "255");
  expectFileError("P6\n1 1\n15\n" + bytes(3), "255");
}

TEST_F(Pixmap, TruncatedPixelDataIsRejected) {
  expectFileError("P6\n3 2\n255\n" + bytes(17), "truncated");
  expectFileError("P5\n3 2\n255\n", "truncated");
  // The samples begin after the first newline that follows maxval.
  expectFileError("P6\n1 1\n255 " + std::string("abc"), "truncated");
}
