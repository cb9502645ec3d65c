#include "platform/Compat.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <strings.h>

SHAREDLIB_BEGIN_C

// A null text sorts before every other text and equals only null, so callers
// comparing a missing field get an answer instead of a crash.
int _stricmp(char const *a, char const *b) {
  if (!a || !b)
    return (a == b) ? 0 : (a ? 1 : -1);
  return strcasecmp(a, b);
}

int _strnicmp(char const *a, char const *b, std::size_t n) {
  if (!a || !b)
    return (a == b || n == 0) ? 0 : (a ? 1 : -1);
  return strncasecmp(a, b, n);
}

char *_itoa(int value, char *buf, int radix) {
  if (!buf)
    return buf;
  if (radix < 2 || radix > 36) {
    buf[0] = '\0';
    return buf;
  }
  // Like the Windows routine: the sign is written only in radix 10; other
  // radixes show the two's-complement bits of the value.
  bool negative = radix == 10 && value < 0;
  unsigned magnitude = negative ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value);
  char digits[40];
  int n = 0;
  do {
    unsigned d = magnitude % static_cast<unsigned>(radix);
    digits[n++] = static_cast<char>(d < 10 ? '0' + d : 'a' + (d - 10));
    magnitude /= static_cast<unsigned>(radix);
  } while (magnitude != 0);
  char *p = buf;
  if (negative)
    *p++ = '-';
  while (n > 0)
    *p++ = digits[--n];
  *p = '\0';
  return buf;
}

int _vsnprintf(char *buf, std::size_t size, char const *fmt, va_list args) {
  if (!buf || size == 0)
    return -1;
  if (!fmt) {  // a null format formats as the empty text
    buf[0] = '\0';
    return 0;
  }
  int n = std::vsnprintf(buf, size, fmt, args);
  if (n < 0) {
    buf[0] = '\0';
    return -1;
  }
  return static_cast<std::size_t>(n) >= size ? -1 : n;
}

int _snprintf(char *buf, std::size_t size, char const *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = _vsnprintf(buf, size, fmt, args);
  va_end(args);
  return n;
}

SHAREDLIB_END_C
