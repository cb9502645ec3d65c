#include "services/SHA1.h"

#include <cstring>

namespace {

std::uint32_t Rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

std::uint32_t LoadBigEndian(unsigned char const *p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

}  // namespace

SHA1::SHA1() { Reset(); }

void SHA1::Reset() {
  state_[0] = 0x67452301u;
  state_[1] = 0xEFCDAB89u;
  state_[2] = 0x98BADCFEu;
  state_[3] = 0x10325476u;
  state_[4] = 0xC3D2E1F0u;
  length_ = 0;
  pendingLen_ = 0;
  std::memset(pending_, 0, sizeof pending_);
}

void SHA1::Block(unsigned char const *block) {
  std::uint32_t w[80];
  for (int t = 0; t < 16; ++t)
    w[t] = LoadBigEndian(block + 4 * t);
  for (int t = 16; t < 80; ++t)
    w[t] = Rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
  std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3], e = state_[4];
  for (int t = 0; t < 80; ++t) {
    std::uint32_t f, k;
    if (t < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999u;
    } else if (t < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1u;
    } else if (t < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDCu;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6u;
    }
    std::uint32_t temp = Rotl(a, 5) + f + e + w[t] + k;
    e = d;
    d = c;
    c = Rotl(b, 30);
    b = a;
    a = temp;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
}

void SHA1::Update(void const *data, std::size_t len) {
  if (!data)
    return;
  auto const *p = static_cast<unsigned char const *>(data);
  length_ += len;
  if (pendingLen_ > 0) {
    std::size_t take = sizeof pending_ - pendingLen_;
    if (take > len)
      take = len;
    std::memcpy(pending_ + pendingLen_, p, take);
    pendingLen_ += static_cast<unsigned>(take);
    p += take;
    len -= take;
    if (pendingLen_ < sizeof pending_)
      return;
    Block(pending_);
    pendingLen_ = 0;
  }
  for (; len >= sizeof pending_; len -= sizeof pending_, p += sizeof pending_)
    Block(p);
  if (len > 0) {
    std::memcpy(pending_, p, len);
    pendingLen_ = static_cast<unsigned>(len);
  }
}

void SHA1::Final(unsigned char digest[kDigestSize]) {
  // The message length in bits, big-endian, after a 1 bit and the zeros that
  // make the total a multiple of 512 bits.
  std::uint64_t bits = length_ * 8;
  unsigned char tail[8];
  for (int i = 0; i < 8; ++i)
    tail[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
  static constexpr unsigned char kPad[64] = {0x80};
  std::size_t padLen = pendingLen_ < 56 ? 56 - pendingLen_ : 120 - pendingLen_;
  Update(kPad, padLen);
  Update(tail, sizeof tail);
  if (digest) {
    for (int i = 0; i < 5; ++i) {
      digest[4 * i] = static_cast<unsigned char>(state_[i] >> 24);
      digest[4 * i + 1] = static_cast<unsigned char>(state_[i] >> 16);
      digest[4 * i + 2] = static_cast<unsigned char>(state_[i] >> 8);
      digest[4 * i + 3] = static_cast<unsigned char>(state_[i]);
    }
  }
  Reset();
}

int DoSHA1(void const *data, std::size_t len, unsigned char *digest) {
  if (!digest || (!data && len > 0))
    return 0;
  SHA1 sha;
  sha.Update(data, len);
  sha.Final(digest);
  return 1;
}

int DoSHA1(void const *data, std::size_t len, char *hex, unsigned size) {
  if (hex && size > 0)
    hex[0] = '\0';
  if (!hex || size < SHA1::kHexSize)
    return 0;
  unsigned char digest[SHA1::kDigestSize];
  if (!DoSHA1(data, len, digest))
    return 0;
  static constexpr char kDigits[] = "0123456789abcdef";
  for (unsigned i = 0; i < SHA1::kDigestSize; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 15];
  }
  hex[2 * SHA1::kDigestSize] = '\0';
  return 2 * static_cast<int>(SHA1::kDigestSize);
}
