// Memory and file streams, and the line reader at every buffer size.
#include <gtest/gtest.h>

#include <string>

#include "mime/line_reader.h"
#include "mime/stream.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

// Every line of `text` read through a reader with the given buffer and line
// limit, each followed by "|".
std::string AllLines(const std::string& text, size_t buffer, size_t max_line = kMaxLineLength) {
  CXmViewStream in(text);
  CXmLineReader reader(in, buffer, max_line);
  std::string joined;
  for (std::string line;;) {
    EXPECT_TRUE(reader.ReadLine(&line).ok());
    if (line.empty()) break;
    joined += line + "|";
  }
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_EQ(reader.consumed(), text.size());
  return joined;
}

TEST(StreamTest, MemoryStreamOverwritesExtendsAndFillsGaps) {
  CXmMemoryStream s;
  ASSERT_TRUE(s.Write("hello world").ok());
  ASSERT_TRUE(s.Seek(6, SeekOrigin::kBegin).ok());
  ASSERT_TRUE(s.Write("WORLD!").ok());
  EXPECT_EQ(s.data(), "hello WORLD!");
  ASSERT_TRUE(s.Seek(-6, SeekOrigin::kEnd).ok());
  std::string rest;
  ASSERT_TRUE(ReadAll(s, &rest).ok());
  EXPECT_EQ(rest, "WORLD!");
  EXPECT_EQ(s.Seek(-1, SeekOrigin::kBegin), rc::kInvalidArg);
  ASSERT_TRUE(s.Seek(20, SeekOrigin::kBegin).ok());
  ASSERT_TRUE(s.Write("x").ok());
  EXPECT_EQ(s.data(), std::string("hello WORLD!") + std::string(8, '\0') + "x");
}

TEST(StreamTest, FileStreamAndItsErrors) {
  test::TempDir dir;
  CXmFileStream f;
  ASSERT_TRUE(f.Open(dir / "a.eml", CXmFileStream::kCreate).ok());
  ASSERT_TRUE(f.Write("line one\r\nline two\r\n").ok());
  EXPECT_EQ(f.Size(), 20u);
  ASSERT_TRUE(f.Rewind().ok());
  std::string all;
  ASSERT_TRUE(ReadAll(f, &all).ok());
  EXPECT_EQ(all, "line one\r\nline two\r\n");
  ASSERT_TRUE(f.Close().ok());
  EXPECT_EQ(test::ReadFile(dir / "a.eml"), all);

  CXmFileStream missing;
  EXPECT_EQ(missing.Open(dir / "none.eml", CXmFileStream::kRead), FromWin32(2));
  size_t got = 0;
  char c;
  EXPECT_EQ(missing.Read(&c, 1, &got), rc::kInvalidArg) << "not open";
  CXmFileStream ro;
  ASSERT_TRUE(ro.Open(dir / "a.eml", CXmFileStream::kRead).ok());
  EXPECT_TRUE(ro.Write("x").failed()) << "read-only";
  EXPECT_EQ(ro.Seek(-1, SeekOrigin::kBegin), rc::kInvalidArg);
}

TEST(LineReaderTest, SameLinesForEveryBufferSizeAndLongLinesInPieces) {
  const std::string text = "first\r\nsecond line\r\n\r\nbare lf\nlast without end";
  for (size_t buffer = 16; buffer <= text.size() + 2; ++buffer) {
    EXPECT_EQ(AllLines(text, buffer), "first\r\n|second line\r\n|\r\n|bare lf\n|last without end|") << buffer;
  }
  EXPECT_EQ(AllLines(std::string(25, 'a') + "\r\nb\r\n", 16, 10), "aaaaaaaaaa|aaaaaaaaaa|aaaaa\r\n|b\r\n|");
  EXPECT_EQ(AllLines("", 16), "");
}

TEST(LineReaderTest, RawReadsContinueWhereLinesStopped) {
  CXmViewStream in("head\r\nbody bytes");
  CXmLineReader reader(in, 16);
  std::string line;
  ASSERT_TRUE(reader.ReadLine(&line).ok());
  EXPECT_EQ(line, "head\r\n");
  char buf[3];
  size_t got = 0;
  std::string rest;
  do {
    ASSERT_TRUE(reader.Read(buf, sizeof buf, &got).ok());
    rest.append(buf, got);
  } while (got > 0);
  EXPECT_EQ(rest, "body bytes");
}

}  // namespace
}  // namespace trv
