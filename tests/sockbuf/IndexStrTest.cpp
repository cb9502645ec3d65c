#include "sockbuf/IndexStr.h"

#include "PktTestUtil.h"
#include "file/FilePrimitives.h"
#include "file/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstdio>
#include <string>

namespace {

using namespace pkttest;

std::string Slurp(std::string const& path) {
  std::string out;
  if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) != 0;)
      out.append(buf, n);
    std::fclose(f);
  }
  return out;
}

// Adler-32 written out plainly, started from 0.
std::uint32_t Adler0(std::string const& bytes) {
  std::uint32_t a = 0, b = 0;
  for (unsigned char c : bytes) {
    a = (a + c) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

std::uint32_t At32(std::string const& s, unsigned off) {
  return Get32(reinterpret_cast<unsigned char const*>(s.data()) + off);
}

void Set32(std::string& s, unsigned off, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    s[off + i] = static_cast<char>(v >> (8 * i));
}

// Recomputes the stored checksum, so that only the damage under test is left.
void Reseal(std::string& block) {
  unsigned const cap = std::min(At32(block, 89), 1000u);
  Set32(block, 85, Adler0(block.substr(0, 85) + block.substr(89, 8 + 4 * cap)));
}

int ReadBlock(std::string const& path, IndexStr& idx) {
  int const fd = open_ap(path.c_str(), nullptr, O_RDONLY, 0);
  int const ok = idx.ReadIndexes(fd);
  close_x(fd);
  return ok;
}

TEST(IndexStr, TableLimits) {
  IndexStr big(1500);
  EXPECT_EQ(1000u, big.GetCapacity());
  EXPECT_EQ(4097u, big.GetBlockSize());

  IndexStr idx(2);
  EXPECT_EQ(0u, idx.FillIndexes());  // nothing to repeat
  EXPECT_EQ(1, idx.AddIndex(10));
  EXPECT_EQ(2u, idx.FillIndexes());
  EXPECT_EQ(10u, idx.GetIndex(1));
  EXPECT_EQ(0, idx.AddIndex(30));  // full: unchanged
  EXPECT_EQ(2u, idx.GetnIndex());
  EXPECT_EQ(0u, idx.GetIndex(2));
}

TEST(IndexStr, BlockIsWrittenByteForByteAndReadBack) {
  testutil::TempDir dir;
  std::string const path = dir / "rec.bin";
  IndexStr idx(3);
  idx.AddIndex(109);
  idx.AddIndex(0x01020304);
  int fd = open_ap(path.c_str(), nullptr, O_RDWR | O_CREAT, 0);
  ASSERT_NE(-1, fd);
  ASSERT_EQ(1, idx.SaveIndexes(fd));
  close_x(fd);

  std::string const block = Slurp(path);
  ASSERT_EQ(109u, block.size());
  EXPECT_EQ(std::string("IPTV-AVCONF") + std::string(9, ' ') + '\0', block.substr(0, 21));
  EXPECT_EQ(std::string("1.0.0.0") + std::string(56, ' ') + '\0', block.substr(21, 64));
  EXPECT_EQ(3u, At32(block, 89));
  EXPECT_EQ(2u, At32(block, 93));
  EXPECT_EQ(109u, At32(block, 97));
  EXPECT_EQ(std::string("\x04\x03\x02\x01", 4), block.substr(101, 4));
  EXPECT_EQ(0u, At32(block, 105));
  EXPECT_EQ(Adler0(block.substr(0, 85) + block.substr(89)), At32(block, 85));

  IndexStr back(1);
  ASSERT_EQ(1, ReadBlock(path, back));
  EXPECT_EQ(2u, back.GetnIndex());
  EXPECT_EQ(0x01020304u, back.GetIndex(1));
  EXPECT_EQ(0, back.ReadIndexes(-1));
}

TEST(IndexStr, ReadRefusesEveryKindOfDamage) {
  testutil::TempDir dir;
  std::string const path = dir / "rec.bin";
  IndexStr idx(4);
  idx.AddIndex(200);
  int fd = open_ap(path.c_str(), nullptr, O_RDWR | O_CREAT, 0);
  ASSERT_EQ(1, idx.SaveIndexes(fd));
  close_x(fd);
  std::string const good = Slurp(path);

  struct Damage {
    char const* what;
    void (*apply)(std::string&);
    int expected;
  };
  Damage const cases[] = {
      {"intact", [](std::string&) {}, 1},
      {"blank tag padding", [](std::string& b) { b[20] = ' '; Reseal(b); }, 1},
      {"other letter in tag", [](std::string& b) { b[3] = 'X'; Reseal(b); }, 0},
      {"other version", [](std::string& b) { b[23] = '1'; Reseal(b); }, 0},
      {"changed index byte", [](std::string& b) { b[97] ^= 1; }, 0},
      {"count over capacity", [](std::string& b) { Set32(b, 93, 5); Reseal(b); }, 0},
      {"capacity 0", [](std::string& b) { Set32(b, 89, 0); Reseal(b); }, 0},
      {"capacity over 1000", [](std::string& b) { Set32(b, 89, 1001); b.resize(97 + 4 * 1001); }, 0},
      {"huge capacity", [](std::string& b) { Set32(b, 89, 0xFFFFFFFF); }, 0},
      {"truncated entries", [](std::string& b) { b.resize(b.size() - 1); }, 0},
      {"truncated header", [](std::string& b) { b.resize(50); }, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    std::string bytes = good;
    c.apply(bytes);
    IndexStr reader(1000);
    EXPECT_EQ(c.expected, ReadBlock(dir.Write("d.bin", bytes), reader));
    if (c.expected == 0) {
      EXPECT_EQ(0u, reader.GetnIndex());
    }
  }
}

TEST(IndexStr, CreateIndexesMarksPacketStartsEvenlyOverARecording) {
  testutil::TempDir dir;
  IndexStr header(10);
  std::string rec(header.GetBlockSize(), '\0');
  std::vector<unsigned> starts;
  for (unsigned i = 0; i < 3000; ++i) {
    starts.push_back(static_cast<unsigned>(rec.size()));
    Bytes p = Pkt(1, i + 1, 20 + (i * 37) % 300);
    rec.append(p.begin(), p.end());
  }
  std::string const path = dir.Write("rec.bin", rec);

  IndexStr idx(10);
  ASSERT_EQ(1, idx.CreateIndexes(path.c_str()));
  // Expected marks: every file length / 10 bytes, from 0.
  unsigned const step = static_cast<unsigned>(rec.size()) / 10;
  std::vector<unsigned> expected;
  std::uint64_t mark = 0;
  for (unsigned s : starts) {
    if (s >= mark && expected.size() < 10) {
      expected.push_back(s);
      mark += step;
    }
  }
  std::vector<unsigned> got;
  for (unsigned i = 0; i < idx.GetnIndex(); ++i)
    got.push_back(idx.GetIndex(i));
  EXPECT_EQ(expected, got);

  IndexStr back(10);
  ASSERT_EQ(1, ReadBlock(path, back));
  EXPECT_EQ(got.size(), back.GetnIndex());
  EXPECT_EQ(rec.size(), Slurp(path).size());  // rewritten in place
  EXPECT_EQ(0, IndexStr(10).CreateIndexes((dir / "missing").c_str()));
}

}  // namespace
