#include "services/Adler32.h"

namespace {

constexpr std::uint32_t kBase = 65521;
// Most bytes that can be summed before the 32-bit sums must be reduced:
// the largest n with 255 n (n + 1) / 2 + (n + 1) (kBase - 1) < 2^32.
constexpr std::size_t kMaxRun = 5552;

}  // namespace

std::uint32_t adler32(std::uint32_t adler, void const *buf, std::size_t len) {
  if (!buf)
    return adler;
  auto const *p = static_cast<unsigned char const *>(buf);
  std::uint32_t a = (adler & 0xFFFFu) % kBase;
  std::uint32_t b = (adler >> 16) % kBase;
  while (len > 0) {
    std::size_t run = len < kMaxRun ? len : kMaxRun;
    len -= run;
    for (; run >= 8; run -= 8, p += 8) {
      a += p[0]; b += a;
      a += p[1]; b += a;
      a += p[2]; b += a;
      a += p[3]; b += a;
      a += p[4]; b += a;
      a += p[5]; b += a;
      a += p[6]; b += a;
      a += p[7]; b += a;
    }
    for (; run > 0; --run, ++p) {
      a += *p;
      b += a;
    }
    a %= kBase;
    b %= kBase;
  }
  return (b << 16) | a;
}
