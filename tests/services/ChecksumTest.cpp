#include "services/Adler32.h"
#include "services/SHA1.h"

#include "Oracles.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> RandomBytes(std::mt19937 &rng, std::size_t len) {
  std::vector<unsigned char> v(len);
  // Mostly random bytes, sometimes all 0xFF: the sums grow fastest then.
  bool saturated = rng() % 4 == 0;
  for (auto &b : v)
    b = saturated ? 0xFF : static_cast<unsigned char>(rng());
  return v;
}

// Lengths around the points where the sums are reduced and the unrolled loop
// ends, plus random ones.
std::vector<std::size_t> InterestingLengths(std::mt19937 &rng) {
  std::vector<std::size_t> lens = {0, 1, 2, 7, 8, 9, 15, 16, 63, 64, 65, 5551, 5552, 5553, 11104, 11105, 100000};
  for (int i = 0; i < 60; ++i)
    lens.push_back(rng() % 20000);
  return lens;
}

TEST(Adler32, MatchesZlibFromEveryStart) {
  std::mt19937 rng(12345);
  for (std::size_t len : InterestingLengths(rng)) {
    auto data = RandomBytes(rng, len);
    // 1 is the standard start, 0 the index block's; the others are sums
    // carried over from an earlier piece.
    std::uint32_t carried = ((rng() % 65521) << 16) | (rng() % 65521);
    for (std::uint32_t start : {1u, 0u, carried, (65520u << 16) | 65520u}) {
      SCOPED_TRACE(testing::Message() << "len " << len << " start " << start);
      EXPECT_EQ(oracle::Adler32(start, data.data(), len), adler32(start, data.data(), len));
    }
  }
  std::string wiki = "Wikipedia";
  EXPECT_EQ(0x11E60398u, adler32(1, wiki.data(), wiki.size()));
  EXPECT_EQ(7u, adler32(7, nullptr, 10));
}

TEST(Adler32, PiecesChainToTheWhole) {
  std::mt19937 rng(99);
  auto data = RandomBytes(rng, 30000);
  for (std::uint32_t start : {0u, 1u}) {
    std::uint32_t whole = adler32(start, data.data(), data.size());
    std::uint32_t sum = start;
    std::size_t pos = 0;
    while (pos < data.size()) {
      std::size_t piece = std::min<std::size_t>(rng() % 7000, data.size() - pos);
      sum = adler32(sum, data.data() + pos, piece);
      pos += piece;
    }
    EXPECT_EQ(whole, sum);
  }
}

std::string Hex(unsigned char const *d, std::size_t n) {
  static char const kDigits[] = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += kDigits[d[i] >> 4];
    s += kDigits[d[i] & 15];
  }
  return s;
}

std::string Sha1Hex(std::string const &msg) {
  char hex[SHA1::kHexSize];
  EXPECT_EQ(40, DoSHA1(msg.data(), msg.size(), hex, sizeof hex));
  return hex;
}

TEST(Sha1, RfcVectors) {
  EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", Sha1Hex("abc"));
  EXPECT_EQ("84983e441c3bd26ebaae4aa1f95129e5e54670f1",
            Sha1Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
  EXPECT_EQ("34aa973cd4c4daa4f61eeb2bdbad27316534016f", Sha1Hex(std::string(1000000, 'a')));
  std::string repeated;
  for (int i = 0; i < 80; ++i)
    repeated += "0123456701234567";
  repeated.resize(640);
  EXPECT_EQ("dea356a2cddd90c7a7ecedc5ebb563934f460452", Sha1Hex(repeated));
  EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", Sha1Hex(""));
}

TEST(Sha1, MatchesCryptoLibraryInOneCallAndInPieces) {
  std::mt19937 rng(7);
  SHA1 sha;
  for (std::size_t len : InterestingLengths(rng)) {
    auto data = RandomBytes(rng, len);
    auto expected = oracle::Sha1(data.data(), len);
    ASSERT_EQ(SHA1::kDigestSize, expected.size());
    unsigned char digest[SHA1::kDigestSize];
    ASSERT_EQ(1, DoSHA1(data.data(), len, digest));
    EXPECT_EQ(Hex(expected.data(), 20), Hex(digest, 20)) << "len " << len;

    // The same message in random pieces through one reused object.
    std::size_t pos = 0;
    while (pos < len) {
      std::size_t piece = std::min<std::size_t>(rng() % 130, len - pos);
      sha.Update(data.data() + pos, piece);
      pos += piece;
    }
    std::memset(digest, 0, sizeof digest);
    sha.Final(digest);
    EXPECT_EQ(Hex(expected.data(), 20), Hex(digest, 20)) << "pieces, len " << len;
  }
}

TEST(Sha1, RefusesMissingBuffers) {
  unsigned char digest[SHA1::kDigestSize];
  char hex[SHA1::kHexSize] = "x";
  EXPECT_EQ(0, DoSHA1("abc", 3, static_cast<unsigned char *>(nullptr)));
  EXPECT_EQ(0, DoSHA1(nullptr, 3, digest));
  EXPECT_EQ(1, DoSHA1(nullptr, 0, digest));
  EXPECT_EQ(0, DoSHA1("abc", 3, hex, SHA1::kHexSize - 1));
  EXPECT_STREQ("", hex);
  EXPECT_EQ(0, DoSHA1("abc", 3, static_cast<char *>(nullptr), 41));
}

}  // namespace
