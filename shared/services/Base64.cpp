#include "services/Base64.h"

#include <climits>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr signed char kNotBase64 = -1;

// Value of each character of the alphabet, kNotBase64 for every other.
struct DecodeTable {
  signed char value[256];
  constexpr DecodeTable() : value{} {
    for (auto &v : value)
      v = kNotBase64;
    for (int i = 0; i < 64; ++i)
      value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
  }
};
constexpr DecodeTable kDecode;

int Sextet(char c) { return kDecode.value[static_cast<unsigned char>(c)]; }

}  // namespace

int encode64(void const *src, unsigned len, char *dst, unsigned dstSize) {
  if (!src && len > 0)
    return kBase64Invalid;
  std::size_t need = Base64EncodedSize(len);
  if (need - 1 > static_cast<std::size_t>(INT_MAX))
    return kBase64Invalid;
  if (!dst || dstSize < need) {
    if (dst && dstSize > 0)
      dst[0] = '\0';
    return kBase64TooSmall;
  }
  auto const *in = static_cast<unsigned char const *>(src);
  char *out = dst;
  unsigned i = 0;
  for (; len - i >= 3; i += 3) {
    std::uint32_t v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
    *out++ = kAlphabet[v >> 18];
    *out++ = kAlphabet[(v >> 12) & 63];
    *out++ = kAlphabet[(v >> 6) & 63];
    *out++ = kAlphabet[v & 63];
  }
  if (len - i == 1) {
    std::uint32_t v = in[i] << 16;
    *out++ = kAlphabet[v >> 18];
    *out++ = kAlphabet[(v >> 12) & 63];
    *out++ = '=';
    *out++ = '=';
  } else if (len - i == 2) {
    std::uint32_t v = (in[i] << 16) | (in[i + 1] << 8);
    *out++ = kAlphabet[v >> 18];
    *out++ = kAlphabet[(v >> 12) & 63];
    *out++ = kAlphabet[(v >> 6) & 63];
    *out++ = '=';
  }
  *out = '\0';
  return static_cast<int>(out - dst);
}

int decode64(char const *src, unsigned len, void *dst, unsigned dstSize) {
  if (len == 0)
    return 0;
  if (!src || len % 4 != 0)
    return kBase64Invalid;
  unsigned pad = src[len - 1] == '=' ? (src[len - 2] == '=' ? 2u : 1u) : 0u;
  // Every character but the padding must be in the alphabet, and the last
  // character before the padding must not carry bits the padding drops.
  for (unsigned i = 0; i < len - pad; ++i)
    if (Sextet(src[i]) == kNotBase64)
      return kBase64Invalid;
  if (pad == 1 && (Sextet(src[len - 2]) & 0x03) != 0)
    return kBase64Invalid;
  if (pad == 2 && (Sextet(src[len - 3]) & 0x0F) != 0)
    return kBase64Invalid;
  unsigned bytes = len / 4 * 3 - pad;
  if (bytes > static_cast<unsigned>(INT_MAX))
    return kBase64Invalid;
  if (!dst || dstSize < bytes)
    return kBase64TooSmall;
  auto *out = static_cast<unsigned char *>(dst);
  unsigned o = 0;
  for (unsigned i = 0; i < len; i += 4) {
    std::uint32_t v = 0;
    for (unsigned k = 0; k < 4; ++k) {
      char c = src[i + k];
      v = (v << 6) | static_cast<std::uint32_t>(c == '=' ? 0 : Sextet(c));
    }
    out[o++] = static_cast<unsigned char>(v >> 16);
    if (o < bytes)
      out[o++] = static_cast<unsigned char>(v >> 8);
    if (o < bytes)
      out[o++] = static_cast<unsigned char>(v);
  }
  return static_cast<int>(bytes);
}
