// Pixmap files: the writer's exact bytes and atomic replacement, the reader's
// header scanning and its rejections.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>
#include <string>
#include <tuple>
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
  std::string file(const std::string& aContents) const {
    const std::string path = mDir.file("in.ppm");
    NTest::writeFile(path, aContents);
    return path;
  }

  // Reads aPath expecting exception E; checks that the tensor kept its
  // contents and returns what was printed on the error stream.
  template <class E>
  std::string failure(const std::string& aPath) const {
    CTensor<float> t(1, 1, 1, 42.0f);
    testing::internal::CaptureStderr();
    EXPECT_THROW(t.readFromPPM(aPath.c_str()), E) << aPath;
    EXPECT_EQ(t(0, 0, 0), 42.0f);
    return testing::internal::GetCapturedStderr();
  }

  // Writing aTensor to aPath must fail with a message naming aPath.
  void expectWriteFailure(CTensor<float> aTensor, const std::string& aPath) const {
    testing::internal::CaptureStderr();
    EXPECT_THROW(aTensor.writeToPPM(aPath.c_str()), EFileError);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Error: " + aPath + ": ", 0), 0u);
  }

  NTest::CScratchDir mDir;
};

}  // namespace

TEST_F(Pixmap, WriterTruncatesToTheLowestByteBehindAnExactHeader) {
  const std::vector<float> values = {300.0f, 12.7f, -1.0f,  255.9f, 256.0f, -0.5f,
                                     511.0f, 1e20f, std::numeric_limits<float>::quiet_NaN()};
  CTensor<float> t(3, 1, 3);
  for (int i = 0; i < 9; i++) t(i / 3, 0, i % 3) = values[static_cast<size_t>(i)];
  // An older, longer file is replaced, with ordinary permissions.
  const std::string path = file("old contents that are longer than the new image");
  t.writeToPPM(path.c_str());
  EXPECT_EQ(NTest::readFile(path), "P6 \n3 1 \n255\n" + std::string("\x2c\x0c\xff\xff\x00\x00\xff\x00\x00", 9));
  const mode_t mask = umask(0);
  umask(mask);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
  EXPECT_EQ(NTest::listDir(mDir.path()), std::vector<std::string>{"in.ppm"});
}

TEST_F(Pixmap, FailedWritesLeaveNoFileBehind) {
  const CTensor<float> t(2, 2, 3, 1.0f);
  expectWriteFailure(t, mDir.file("no/such/folder/out.ppm"));
  expectWriteFailure(CTensor<float>(2, 2, 1, 1.0f), mDir.file("grey.ppm"));
  EXPECT_TRUE(NTest::listDir(mDir.path()).empty());
  // The target is a folder: the data can be written but not renamed into place.
  const std::string folder = mDir.file("taken");
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  expectWriteFailure(t, folder);
  EXPECT_EQ(NTest::listDir(mDir.path()), std::vector<std::string>{"taken"});
  EXPECT_TRUE(NTest::listDir(folder).empty());
}

TEST_F(Pixmap, ReaderRejectsWhatIsNoCompleteImage) {
  const std::string absent = mDir.file("absent.ppm");
  EXPECT_EQ(failure<EFileError>(absent), "File not found: " + absent + "\n");
  const std::string ascii = file("P3\n3 2\n255\n");
  EXPECT_EQ(failure<EInvalidFileFormat>(ascii), "Exception EInvalidFileFormat: File is not in PPM format: " + ascii + "\n");

  const std::pair<std::string, const char*> cases[] = {
      {"", "empty"},
      {"no magic number in here", "magic"},
      {"P6\n3 2", "header"},
      {"P6\n0 2\n255\n", "size"},
      {"P6\n-3 2\n255\n" + bytes(18), "'-' where the width should be"},
      {"P6\n" + std::string(60, '9') + " 2\n255\n", "too large"},
      {"P6\n70000 70000\n255\n", "too large"},
      {"P5\n46340 46340\n255\n", "truncated"},  // refused before anything is allocated
      {"P6\n1 1\n65535\n" + bytes(6), "255"},
      {"P6\n3 2\n15\n" + bytes(18), "maximum value 15"},
      {"P6\n3 2\n255\n" + bytes(17), "truncated"},
      // Legal headers whose pixel data are cut short or whose maxval is not
      // 255 are refused for that reason, not as a garbled header.
      {"P6\t3\t2\t255\n" + bytes(17), "truncated pixel data (17 of 18 bytes)"},
      {"P6\n3 2\n# made by 2.10\n65535\n" + bytes(36), "maximum value 65535"},
      {"P6\n3 2\n255 " + bytes(10), "truncated pixel data"},
      // Bytes before the magic number: only the tool's reading applies.
      {"xx P6\n3 2\n255\n" + bytes(17), "truncated pixel data (17 of 18 bytes)"},
  };
  for (const auto& [contents, problem] : cases) {
    const std::string path = file(contents);
    const std::string err = failure<EFileError>(path);
    EXPECT_EQ(err.rfind("Error: " + path + ": ", 0), 0u) << err;
    EXPECT_NE(err.find(problem), std::string::npos) << err;
    EXPECT_EQ(NTest::lines(err).size(), 1u) << err;
  }
}

TEST_F(Pixmap, ReaderReadsTheHeaderVariantsOfTheFormatAndOfCommonTools) {
  const struct {
    std::string header;
    std::string tail;  // after the samples
  } cases[] = {
      {"P6\n# made by hand\n# twice\n3 2\n255\n", "surplus"},  // comments after the magic line
      {std::string("junk\0\xffP", 7) + "6\n3 2\n255\n", ""},  // leading garbage
      {"P6\n3\n2\n255\n", "surplus"},                           // extents on separate lines
      {"P6 \n3 2 \n255\n", ""},                                  // the writer's own header
      {"P6\t3\t2\t255\n", ""},                                  // tabs as separators
      {"P6\n3 2\n255 ", ""},                                      // one blank after maxval, then the samples
      {"P6\n3 2\n255\t", ""},                                    // one tab after maxval
      {"P6\n3 2\n# GIMP 2.10 export\n255\n", ""},                 // a comment with digits before maxval
      {"P6\n3 # 3 columns\n2\n255\n", ""},                        // a comment between width and height
      {"P6\n3 2\n255# comment ends the header\n", ""},             // a comment right after maxval
      {"P6 \n# comment after the writer's magic\n3 2\n255\n", ""},
      {"P6\n 3\r\n2\f255\v", ""},                                 // any white space
  };
  for (const auto& c : cases) {
    // Byte 10, a newline, among the samples catches a reading that skips to it.
    CTensor<float> t;
    t.readFromPPM(file(c.header + bytes(18, 5) + c.tail).c_str());
    EXPECT_EQ(std::make_tuple(t.xSize(), t.ySize(), t.zSize()), std::make_tuple(3, 2, 3)) << c.header;
    EXPECT_EQ(std::make_tuple(t(0, 0, 0), t(1, 0, 1), t(2, 1, 2)), std::make_tuple(5.0f, 9.0f, 22.0f)) << c.header;
  }
  CTensor<float> grey;
  grey.readFromPPM(file("P5\n3 2\n255\n" + bytes(6, 250)).c_str());
  EXPECT_EQ(std::make_tuple(grey.xSize(), grey.ySize(), grey.zSize()), std::make_tuple(3, 2, 1));
  EXPECT_EQ(NTest::values(grey.getMatrix(0)), (std::vector<float>{250, 251, 252, 253, 254, 255}));
}

TEST_F(Pixmap, WhereTheTwoReadingsDifferTheFileSizeDecides) {
  // A blank after maxval, then more bytes up to a newline: either the samples
  // begin after the blank (the format) or after the newline (the tool's reading).
  const struct {
    std::string contents;
    std::vector<float> samples;
  } cases[] = {
      {"P6\n1 1\n255 abc", {'a', 'b', 'c'}},            // only the format's reading is complete
      {"P6\n1 1\n255 ab\n", {'a', 'b', '\n'}},          // both complete, the format's holds exactly the file
      {"P6\n1 1\n255 junk\nxyz", {'x', 'y', 'z'}},       // the tool's reading holds exactly the file
      {"P6\n1 1\n255 ab\nxyzw", {'x', 'y', 'z'}},        // neither exactly: the tool's reading stays
      {"P6\r\n1 1\r\n255\r\nxyz", {'x', 'y', 'z'}},    // CR LF lines as read so far
  };
  for (const auto& c : cases) {
    CTensor<float> t;
    t.readFromPPM(file(c.contents).c_str());
    ASSERT_EQ(std::make_tuple(t.xSize(), t.ySize(), t.zSize()), std::make_tuple(1, 1, 3)) << c.contents;
    EXPECT_EQ(std::vector<float>(t.data(), t.data() + 3), c.samples) << c.contents;
  }
}
