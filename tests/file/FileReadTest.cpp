#include "file/FileRead.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testutil::TempDir;

// Every read_line result until 0, with the text for results above 0.
std::vector<std::pair<unsigned, std::string>> AllLines(FileRead &f, unsigned size = 64) {
  std::vector<std::pair<unsigned, std::string>> out;
  std::vector<char> dst(size + 1, '#');
  for (int guard = 0; guard < 100; ++guard) {
    unsigned r = f.read_line(dst.data(), size);
    if (r == 0)
      break;
    out.emplace_back(r, std::string(dst.data()));
  }
  return out;
}

using Lines = std::vector<std::pair<unsigned, std::string>>;

TEST(FileRead, EveryLineEndCombination) {
  struct Case {
    char const *name;
    std::string bytes;
    Lines lines;
  };
  std::vector<Case> const cases = {
      {"crlf blank line", "a\r\n\r\nb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"lf", "one\ntwo\n", {{4, "one"}, {4, "two"}}},
      {"cr", "one\rtwo\r", {{4, "one"}, {4, "two"}}},
      {"lf cr is two ends", "a\n\rb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"lf lf is two ends", "a\n\nb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"cr cr lf", "a\r\r\nb", {{2, "a"}, {1, ""}, {2, "b"}}},
      {"no final end", "x\r\nlast", {{2, "x"}, {5, "last"}}},
      {"only ends", "\r\n\n\r", {{1, ""}, {1, ""}, {1, ""}}},
      {"eof first", std::string("\x1A") + "abc\n", {}},
      {"eof ends a line", std::string("ab\x1A") + "cd\n", {{3, "ab"}, {3, "cd"}}},
      {"eof after lf", std::string("ab\n\x1A") + "cd", {{3, "ab"}}},
      {"eof is not followed by lf skip", std::string("ab\x1A\n") + "cd", {{3, "ab"}, {1, ""}, {3, "cd"}}},
      {"nul kept as a byte", std::string("a\0b\n", 4), {{4, "a"}}},
  };
  TempDir tmp;
  for (auto const &c : cases) {
    SCOPED_TRACE(c.name);
    FileRead f(tmp.Write("lines.txt", c.bytes).c_str(), O_RDONLY);
    ASSERT_TRUE(f.IsOk());
    EXPECT_EQ(static_cast<long>(c.bytes.size()), f.GetFileSize());
    EXPECT_EQ(c.lines, AllLines(f));
    EXPECT_EQ(f.GetFileSize(), f.tell());
    char dst[4];
    EXPECT_EQ(0u, f.read_line(dst, sizeof dst));  // stays at the end
  }
}

TEST(FileRead, LongLinesAreCutButConsumedWhole) {
  TempDir tmp;
  FileRead f(tmp.Write("long.txt", "abcdef\nxy\nabc\nlast").c_str(), O_RDONLY);
  char dst[8] = "#######";
  EXPECT_EQ(3u, f.read_line(dst, 3));
  EXPECT_STREQ("ab", dst);
  EXPECT_EQ(3u, f.read_line(dst, 3));  // fits exactly: count + 1 == size
  EXPECT_STREQ("xy", dst);
  EXPECT_EQ(0u, f.read_line(dst, 0));  // size 0 writes nothing but consumes
  EXPECT_EQ(0u, f.read_line(nullptr, 5));
  EXPECT_EQ(0, f.GetFileSize() - f.tell());
}

TEST(FileRead, RawReaderStopsAtCr) {
  TempDir tmp;
  FileRead f(tmp.Write("raw.txt", std::string("ab\ncd\r\nef\x1Agh")).c_str(), O_RDONLY);
  char dst[16] = {};
  EXPECT_EQ(5u, f.read_line2(dst, sizeof dst));
  EXPECT_EQ("ab\ncd", std::string(dst, 5));
  EXPECT_EQ(5, f.tell());
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));  // at the CR: no move
  EXPECT_EQ(5, f.tell());
  f.seek(f.tell() + 1);
  EXPECT_EQ(2u, f.read_line2(dst, 2));  // "\nef": 2 kept, 3 consumed
  EXPECT_EQ("\ne", std::string(dst, 2));
  EXPECT_EQ(9, f.tell());
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));  // 0x1A: the end
  EXPECT_EQ(f.GetFileSize(), f.tell());
}

TEST(FileRead, SeekTellAndCounts) {
  TempDir tmp;
  FileRead f(tmp.Write("c.txt", std::string("a\r\nb\x1A")).c_str(), O_RDONLY);
  EXPECT_EQ(3, f.GetRealSize());
  EXPECT_EQ(1, f.CountCr());
  EXPECT_EQ(3, f.seek(3));
  char dst[8];
  EXPECT_EQ(2u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("b", dst);
  EXPECT_EQ(5, f.seek(100));
  EXPECT_EQ(0, f.seek(0));
  EXPECT_EQ(-2, f.seek(-2));  // kept as given, but never read from
  EXPECT_EQ(-2, f.tell());
  EXPECT_EQ(0u, f.read_line(dst, sizeof dst));
  EXPECT_EQ(0u, f.read_line2(dst, sizeof dst));
}

TEST(FileRead, EmptyMissingAndUnreadableFiles) {
  TempDir tmp;
  FileRead empty(tmp.Write("empty", "").c_str(), O_RDONLY);
  EXPECT_TRUE(empty.IsOk());
  EXPECT_EQ(0, empty.GetFileSize());
  EXPECT_EQ(0, empty.GetRealSize());
  EXPECT_EQ(0, empty.CountCr());
  char dst[8];
  EXPECT_EQ(0u, empty.read_line(dst, sizeof dst));

  FileRead missing((tmp / "nope").c_str(), O_RDONLY);
  EXPECT_FALSE(missing.IsOk());
  EXPECT_EQ(0u, missing.read_line(dst, sizeof dst));
  FileRead null(nullptr, O_RDONLY);
  EXPECT_FALSE(null.IsOk());
  FileRead dir(tmp.path().c_str(), O_RDONLY);
  EXPECT_FALSE(dir.IsOk());
  std::string fifo = tmp / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  FileRead pipe(fifo.c_str(), O_RDONLY);  // refused, not waited on
  EXPECT_FALSE(pipe.IsOk());

  // Flags go through unchanged: write-only access makes the read fail.
  testing::internal::CaptureStderr();
  FileRead writeOnly(tmp.Write("wo", "data\n").c_str(), O_WRONLY);
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(writeOnly.IsOk());
  EXPECT_EQ(0u, writeOnly.read_line(dst, sizeof dst));

  // A file whose size does not fit the 32-bit fields is refused without
  // trying to load it (sparse, so it costs no disk).
  std::string huge = tmp / "huge";
  int fd = ::open(huge.c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
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
  tmp.Write("cfg", "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX\n");  // rewritten in place
  ASSERT_EQ(7u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("second", dst);
  ASSERT_EQ(0, std::remove(path.c_str()));
  ASSERT_EQ(6u, f.read_line(dst, sizeof dst));
  EXPECT_STREQ("third", dst);
  EXPECT_EQ(0u, f.read_line(dst, sizeof dst));
}

TEST(FileRead, CopiesShareBytesButNotPositions) {
  TempDir tmp;
  auto original = std::make_unique<FileRead>(tmp.Write("s", "one\ntwo\n").c_str(), O_RDONLY);
  char dst[8];
  ASSERT_EQ(4u, original->read_line(dst, sizeof dst));
  FileRead copy = *original;
  FileRead assigned(nullptr, 0);
  assigned = *original;
  original.reset();  // either may go first
  ASSERT_EQ(4u, copy.read_line(dst, sizeof dst));
  EXPECT_STREQ("two", dst);
  EXPECT_EQ(4, assigned.tell());
  assigned.seek(0);
  ASSERT_EQ(4u, assigned.read_line(dst, sizeof dst));
  EXPECT_STREQ("one", dst);
}

}  // namespace
