#include "file/FileRead.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testutil::TempDir;
using Lines = std::vector<std::pair<unsigned, std::string>>;

// Every read_line result until 0, with the text for results above 0.
Lines AllLines(FileRead &f) {
  Lines out;
  char dst[64];
  for (unsigned r; out.size() < 100 && (r = f.read_line(dst, sizeof dst)) > 0;)
    out.emplace_back(r, dst);
  return out;
}

TEST(FileRead, EveryLineEndCombination) {
  std::vector<std::pair<std::string, Lines>> const cases = {
      {"a\r\n\r\nb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"one\ntwo\n", {{4, "one"}, {4, "two"}}},
      {"a\n\rb", {{2, "a"}, {1, ""}, {2, "b"}}},  // LF CR is two ends
      {"a\n\nb\n\n\nc", {{2, "a"}, {2, "b"}, {1, ""}, {2, "c"}}},  // each end takes one LF after it
      {"a\r\r\nb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"x\r\nlast", {{2, "x"}, {5, "last"}}},
      {"\x1A" "abc\n", {}},
      {"ab\x1A" "cd\n", {{3, "ab"}, {3, "cd"}}},
      {"ab\n\x1A" "cd", {{3, "ab"}}},
      {"ab\x1A\ncd", {{3, "ab"}, {3, "cd"}}},  // 0x1A takes the LF after it like the others
      {"ab\x1A\x1A" "cd", {{3, "ab"}}},
      {std::string("a\0b\n", 4), {{4, "a"}}},              // NUL is an ordinary byte
  };
  TempDir tmp;
  for (auto const &[bytes, lines] : cases) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    FileRead f(tmp.Write("lines.txt", bytes).c_str(), O_RDONLY);
    ASSERT_TRUE(f.IsOk());
    EXPECT_EQ(static_cast<long>(bytes.size()), f.GetFileSize());
    EXPECT_EQ(lines, AllLines(f));
    EXPECT_EQ(f.GetFileSize(), f.tell());
  }
}

TEST(FileRead, CutLinesRawReadsAndPositions) {
  TempDir tmp;
  FileRead f(tmp.Write("long.txt", "abcdef\nxy\nabc\r\nd\x1A").c_str(), O_RDONLY);
  char dst[16];
  EXPECT_EQ(3u, f.read_line(dst, 3));  // cut, but consumed whole
  EXPECT_STREQ("ab", dst);
  EXPECT_EQ(3u, f.read_line(dst, 3));  // fits: count + 1 == size
  EXPECT_STREQ("xy", dst);
  EXPECT_EQ(0u, f.read_line(dst, 0));  // size 0: nothing kept, line consumed
  EXPECT_EQ(2u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("d", dst);
  EXPECT_EQ(0u, f.read_line(dst, sizeof dst));
  EXPECT_EQ(15, f.GetRealSize());
  EXPECT_EQ(3, f.CountCr());

  EXPECT_EQ(0, f.seek(0));
  EXPECT_EQ(8u, f.read_line2(dst, 8));  // LF is raw data; kept 8, consumed to the CR
  EXPECT_EQ("abcdef\nx", std::string(dst, 8));
  EXPECT_EQ(13, f.tell());
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));  // at the CR: no move
  EXPECT_EQ(14, f.seek(f.tell() + 1));
  EXPECT_EQ(2u, f.read_line2(dst, sizeof dst));
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));  // 0x1A ends everything
  EXPECT_EQ(f.GetFileSize(), f.tell());

  EXPECT_EQ(f.GetFileSize(), f.seek(1000));
  EXPECT_EQ(-2, f.seek(-2));  // kept as given, never read from
  EXPECT_EQ(0u, f.read_line(dst, sizeof dst));
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));
}

TEST(FileRead, EmptyMissingAndUnreadableFiles) {
  TempDir tmp;
  char dst[8];
  FileRead empty(tmp.Write("empty", "").c_str(), O_RDONLY);
  EXPECT_TRUE(empty.IsOk());
  EXPECT_EQ(0, empty.GetFileSize());
  EXPECT_EQ(0u, empty.read_line(dst, sizeof dst));

  std::string fifo = tmp / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  for (std::string const &path : {tmp / "nope", tmp.path(), fifo}) {  // a FIFO is not waited on
    FileRead f(path.c_str(), O_RDONLY);
    EXPECT_FALSE(f.IsOk()) << path;
    EXPECT_EQ(0u, f.read_line(dst, sizeof dst));
  }

  testing::internal::CaptureStderr();  // flags pass through: no read access
  FileRead writeOnly(tmp.Write("wo", "data\n").c_str(), O_WRONLY);
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(writeOnly.IsOk());
  EXPECT_EQ(0u, writeOnly.read_line(dst, sizeof dst));

  std::string huge = tmp / "huge";  // sparse: beyond the 32-bit size, refused unread
  int fd = ::open(huge.c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_EQ(0, ::ftruncate(fd, 3LL << 30));
  ::close(fd);
  FileRead big(huge.c_str(), O_RDONLY);
  EXPECT_FALSE(big.IsOk());
  EXPECT_EQ(0, big.GetFileSize());
}

TEST(FileRead, FileReplacedOrRemovedWhileParsed) {
  TempDir tmp;
  std::string path = tmp.Write("cfg", "first\nsecond\nthird\n");
  FileRead f(path.c_str(), O_RDONLY);
  char dst[16];
  ASSERT_EQ(6u, f.read_line(dst, sizeof dst));
  tmp.Write("cfg", "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX\n");
  ASSERT_EQ(7u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("second", dst);
  ASSERT_EQ(0, std::remove(path.c_str()));
  ASSERT_EQ(6u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("third", dst);
}

TEST(FileRead, CopiesShareBytesButNotPositions) {
  TempDir tmp;
  auto original = std::make_unique<FileRead>(tmp.Write("s", "one\ntwo\n").c_str(), O_RDONLY);
  char dst[8];
  ASSERT_EQ(4u, original->read_line(dst, sizeof dst));
  FileRead copy = *original;
  FileRead assigned(nullptr, 0);
  assigned = *original;
  original.reset();  // either may be destroyed first
  ASSERT_EQ(4u, copy.read_line(dst, sizeof dst));
  EXPECT_STREQ("two", dst);
  EXPECT_EQ(4, assigned.tell());  // the position is copied too
  assigned.seek(0);
  ASSERT_EQ(4u, assigned.read_line(dst, sizeof dst));
  EXPECT_STREQ("one", dst);
}

}  // namespace
