#include "text/TextRoutines.h"

#include "platform/Compat.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <string>

namespace {

constexpr unsigned kFieldSourceMax = 512;  // ajusta_string cuts its source here

unsigned char uc(char c) { return static_cast<unsigned char>(c); }

// Accumulates decimal digits with saturation at the given bounds.
template <typename T>
T ParseDecimal(char const *s, T minValue, T maxValue) {
  if (!s)
    return 0;
  while (*s == ' ' || *s == '\t')
    ++s;
  bool negative = false;
  if (*s == '-' || *s == '+')
    negative = *s++ == '-';
  T value = 0;
  for (; std::isdigit(uc(*s)); ++s) {
    int digit = *s - '0';
    if (negative) {
      if (value < (minValue + digit) / 10)
        return minValue;
      value = static_cast<T>(value * 10 - digit);
    } else {
      if (value > (maxValue - digit) / 10)
        return maxValue;
      value = static_cast<T>(value * 10 + digit);
    }
  }
  return value;
}

template <typename T>
char *FormatDecimal(T value, char *buf) {
  if (!buf)
    return buf;
  std::string text = std::to_string(value);
  std::memcpy(buf, text.c_str(), text.size() + 1);
  return buf;
}

// Removes every character for which drop() is true; returns the new length.
template <typename Pred>
int FilterInPlace(char *s, Pred drop) {
  if (!s)
    return 0;
  char *out = s;
  for (char *in = s; *in; ++in)
    if (!drop(*in))
      *out++ = *in;
  *out = '\0';
  return static_cast<int>(out - s);
}

// Copies at most size - 1 characters of [begin, begin + len) into dst.
char *CopyBounded(char const *begin, std::size_t len, char *dst, unsigned size) {
  if (!dst || size == 0)
    return dst;
  if (len > size - 1)
    len = size - 1;
  std::memmove(dst, begin, len);
  dst[len] = '\0';
  return dst;
}

}  // namespace

SHAREDLIB_BEGIN_C

char *CopyString(char *dst, char const *src, unsigned n) {
  if (!dst)
    return dst;
  dst[0] = '\0';
  if (src && n != 0) {
    std::strncpy(dst, src, n);
    dst[n] = '\0';
  }
  return dst;
}

char *fstrncpy(char *dst, char const *src, unsigned n) { return std::strncpy(dst, src, n); }

int fstricmp(char const *a, char const *b) { return _stricmp(a, b); }

int comp_branco(char const *s) {
  if (!s)
    return 1;
  for (; *s; ++s)
    if (*s != ' ')
      return 0;
  return 1;
}

int iswhite(char c) { return c == ' ' || c == '\t'; }

int strlen_b(char *s) {
  if (!s)
    return 0;
  std::size_t len = std::strlen(s);
  while (len > 0 && s[len - 1] == ' ')
    --len;
  return static_cast<int>(len);
}

char *trim(char const *src, char *dst) {
  if (!dst)
    return dst;
  if (!src) {
    dst[0] = '\0';
    return dst;
  }
  std::size_t len = std::strlen(src);
  while (len > 0 && src[len - 1] == ' ')
    --len;
  if (dst != src)
    std::memmove(dst, src, len);
  dst[len] = '\0';
  return dst;
}

char *strim(char const *src, char *dst) {
  if (src)
    while (*src == ' ')
      ++src;
  return trim(src, dst);
}

char *ajusta_str(char const *src, char *dst, int n) {
  if (!dst || n <= 0)
    return dst;
  if (!src) {
    dst[0] = '\0';
    return dst;
  }
  if (src != dst)
    fstrncpy(dst, src, static_cast<unsigned>(n));
  dst[n] = '\0';
  return trim(dst, dst);
}

char *ajusta_upp_str(char const *src, char *dst, int n) {
  ajusta_str(src, dst, n);
  return dst ? upper(dst, dst) : dst;
}

char *upper(char const *src, char *dst) {
  if (!src || !dst)
    return dst;
  std::size_t i = 0;
  do
    dst[i] = static_cast<char>(std::toupper(uc(src[i])));
  while (src[i++] != '\0');
  return dst;
}

char *lower(char const *src, char *dst) {
  if (!src || !dst)
    return dst;
  std::size_t i = 0;
  do
    dst[i] = static_cast<char>(std::tolower(uc(src[i])));
  while (src[i++] != '\0');
  return dst;
}

int removeEOL(char const *src, char *dst, unsigned size, int needEOL) {
  if (!src || !dst || size == 0)
    return 0;
  std::size_t len = std::strcspn(src, "\r\n");
  if (src[len] == '\0' && needEOL) {
    dst[0] = '\0';
    return 0;
  }
  CopyBounded(src, len, dst, size);
  std::size_t used = len;
  if (src[used] == '\r') {
    ++used;
    if (src[used] == '\n')
      ++used;
  } else if (src[used] == '\n') {
    ++used;
  }
  return static_cast<int>(used);
}

char *ajusta_string(char const *src, unsigned width, char mode, char *dst) {
  if (!dst)
    return dst;
  char text[kFieldSourceMax + 1];
  CopyString(text, src ? src : "", kFieldSourceMax);
  if (mode == 'T')
    strim(text, text);
  else
    trim(text, text);
  std::size_t len = std::strlen(text);
  if (len > width)
    len = width;
  std::size_t room = width - len;
  std::size_t before = 0;
  char pad = ' ';
  switch (mode) {
    case 'C': before = room / 2; break;
    case 'D': before = room; break;
    case 'Z': before = room; pad = '0'; break;
    default: break;
  }
  std::memset(dst, pad, before);
  std::memcpy(dst + before, text, len);
  std::memset(dst + before + len, ' ', room - before);
  dst[width] = '\0';
  return dst;
}

char *ajusta_str_buf(char const *src, unsigned width, char mode, char *dst) {
  if (!src || !dst)
    return dst;
  std::string field(std::size_t{width} + 1, '\0');
  ajusta_string(src, width, mode, field.data());
  std::memcpy(dst, field.data(), width);
  return dst;
}

int is_number(char const *s) {
  if (!s)
    return 0;
  if (*s == '-' || *s == '+')
    ++s;
  if (!*s)
    return 0;
  for (; *s; ++s)
    if (!std::isdigit(uc(*s)))
      return 0;
  return 1;
}

int is_alphanum(char c) { return std::isalnum(uc(c)) ? 1 : 0; }

int isctrlchar(char c) { return (uc(c) < 0x20 || uc(c) == 0x7F) ? 1 : 0; }

int isdelim(char c) {
  return (c == '\0' || std::strchr(" \t\r\n,;:=()[]{}<>\"'", c) != nullptr) ? 1 : 0;
}

int ch_in_str(char c, char const *set) {
  return (c != '\0' && set && std::strchr(set, c) != nullptr) ? 1 : 0;
}

int latoi(char const *s) { return ParseDecimal<int>(s, INT_MIN, INT_MAX); }

long latol(char const *s) { return ParseDecimal<long>(s, LONG_MIN, LONG_MAX); }

int hctoi(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

unsigned long lhtol(char const *s) {
  if (!s)
    return 0;
  while (*s == ' ' || *s == '\t')
    ++s;
  if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
    s += 2;
  unsigned long value = 0;
  for (int d; (d = hctoi(*s)) >= 0; ++s)
    value = (value << 4) | static_cast<unsigned long>(d);
  return value;
}

char *litoa(int value, char *buf) { return FormatDecimal(value, buf); }

char *lltoa(long value, char *buf) { return FormatDecimal(value, buf); }

int SubstChar(char *s, char from, char to) {
  if (!s || from == '\0')
    return 0;
  int count = 0;
  for (; *s; ++s)
    if (*s == from) {
      *s = to;
      ++count;
    }
  return count;
}

int FilterCtrlChars(char *s) {
  return FilterInPlace(s, [](char c) { return isctrlchar(c) != 0; });
}

int FilterChar(char *s, char c) {
  return FilterInPlace(s, [c](char x) { return x == c; });
}

char *get_prefix(char const *src, char sep, char *dst, unsigned size) {
  if (!src)
    return CopyBounded("", 0, dst, size);
  char const *at = std::strchr(src, sep);
  return CopyBounded(src, at ? static_cast<std::size_t>(at - src) : std::strlen(src), dst, size);
}

char *get_suffix(char const *src, char sep, char *dst, unsigned size) {
  char const *at = src ? std::strrchr(src, sep) : nullptr;
  if (!at || sep == '\0')
    return CopyBounded("", 0, dst, size);
  return CopyBounded(at + 1, std::strlen(at + 1), dst, size);
}

char *fill_string(char *dst, char c, unsigned n) {
  if (!dst)
    return dst;
  std::memset(dst, c, n);
  dst[n] = '\0';
  return dst;
}

SHAREDLIB_END_C
