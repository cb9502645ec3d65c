#include "services/Adler32.h"
#include "services/SHA1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace oracle {  // Oracles.cpp: zlib and the crypto library, kept apart from
                    // our adler32 and SHA1, which share their names
std::uint32_t Adler32(std::uint32_t start, unsigned char const *data, std::size_t len);
std::vector<unsigned char> Sha1(unsigned char const *data, std::size_t len);
}  // namespace oracle

namespace {

// Inputs around the points where the sums are reduced (5552) and the blocks
// end (64), plus random lengths; a quarter are all 0xFF, where sums grow fastest.
std::vector<std::vector<unsigned char>> Inputs(std::mt19937 &rng) {
  std::vector<std::size_t> lens = {0, 1, 7, 8, 9, 55, 56, 63, 64, 65, 5551, 5552, 5553, 11105, 100000};
  for (int i = 0; i < 60; ++i)
    lens.push_back(rng() % 20000);
  std::vector<std::vector<unsigned char>> out;
  for (std::size_t len : lens) {
    std::vector<unsigned char> v(len, 0xFF);
    if (rng() % 4 != 0)
      std::generate(v.begin(), v.end(), [&] { return static_cast<unsigned char>(rng()); });
    out.push_back(std::move(v));
  }
  return out;
}

std::string Hex(unsigned char const *d, std::size_t n) {
  std::string s;
  char two[3];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02x", d[i]);
    s += two;
  }
  return s;
}

TEST(Adler32, MatchesZlibFromEveryStartAndChains) {
  std::mt19937 rng(12345);
  for (auto const &data : Inputs(rng)) {
    // 1 is the standard start, 0 the index block's; the others are sums
    // carried over from an earlier piece.
    std::uint32_t carried = ((rng() % 65521) << 16) | (rng() % 65521);
    for (std::uint32_t start : {1u, 0u, carried, (65520u << 16) | 65520u}) {
      std::uint32_t whole = adler32(start, data.data(), data.size());
      EXPECT_EQ(oracle::Adler32(start, data.data(), data.size()), whole) << data.size() << " from " << start;
      std::size_t cut = data.empty() ? 0 : rng() % data.size();
      EXPECT_EQ(whole, adler32(adler32(start, data.data(), cut), data.data() + cut, data.size() - cut));
    }
  }
  EXPECT_EQ(0x11E60398u, adler32(1, "Wikipedia", 9));
  EXPECT_EQ(7u, adler32(7, nullptr, 10));
}

TEST(Sha1, RfcVectors) {
  std::string repeated;
  for (int i = 0; i < 10; ++i)
    repeated += "0123456701234567012345670123456701234567012345670123456701234567";
  std::vector<std::pair<std::string, char const *>> const vectors = {
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
      {repeated, "dea356a2cddd90c7a7ecedc5ebb563934f460452"},
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"}};
  for (auto const &[msg, digest] : vectors) {
    char hex[SHA1::kHexSize];
    EXPECT_EQ(40, DoSHA1(msg.data(), msg.size(), hex, sizeof hex));
    EXPECT_STREQ(digest, hex);
  }
}

TEST(Sha1, MatchesCryptoLibraryInOneCallAndInPieces) {
  std::mt19937 rng(7);
  SHA1 sha;  // reused: Final starts a new message
  for (auto const &data : Inputs(rng)) {
    std::string expected = Hex(oracle::Sha1(data.data(), data.size()).data(), 20);
    unsigned char digest[SHA1::kDigestSize];
    ASSERT_EQ(1, DoSHA1(data.data(), data.size(), digest));
    EXPECT_EQ(expected, Hex(digest, 20)) << data.size();
    for (std::size_t pos = 0, piece; pos < data.size(); pos += piece) {
      piece = std::min<std::size_t>(rng() % 130, data.size() - pos);
      sha.Update(data.data() + pos, piece);
    }
    sha.Final(digest);
    EXPECT_EQ(expected, Hex(digest, 20)) << "in pieces, " << data.size();
  }
  char hex[SHA1::kHexSize] = "x";
  EXPECT_EQ(0, DoSHA1("abc", 3, hex, SHA1::kHexSize - 1));
  EXPECT_STREQ("", hex);
  EXPECT_EQ(0, DoSHA1(nullptr, 3, hex, sizeof hex));
  EXPECT_EQ(0, DoSHA1("abc", 3, static_cast<unsigned char *>(nullptr)));
}

}  // namespace
