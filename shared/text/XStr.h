// XStr.h: the library's string family.
//
//   XStr                 abstract view over a buffer whose capacity was fixed
//                        by its builder; the parameter type of every interface
//                        that carries text (XStr const &).
//   XStrDyn              owns a malloc'd buffer that grows exactly to fit;
//                        max size 0 means no limit.
//   XStrStatic<16384>    holds 16384 characters inline; the result type of
//                        the global operator+, so concatenation needs no heap.
//
// Text that does not fit is cut silently; nothing throws or reports. `==`
// ignores case, and a null text on either side makes it false. Storage is
// reached only through the two virtual operations Append and Assign.
//
// A string is used by one thread at a time. Copying an XStr (the base) is a
// shallow view copy: both objects then see the same buffer.
#pragma once

#include "platform/Export.h"

#include <cstdarg>

class SHAREDLIB_API XStr {
public:
  // View over buf holding at most maxSize characters; the buffer is not touched.
  XStr(char *buf, unsigned maxSize);
  XStr(XStr const &other);  // shallow: shares the buffer
  virtual ~XStr();

  virtual void Append(char const *s) = 0;
  virtual void Assign(char const *s) = 0;

  char const *GetStr() const { return text_; }
  operator char const *() const { return text_; }
  unsigned GetSize() const { return size_; }
  unsigned GetMaxSize() const { return maxSize_; }

  bool IsEmpty() const;
  // Empty, no buffer, or only spaces (a tab is not blank).
  bool IsBlank() const;
  // text[i] for i < size; otherwise a NUL that belongs to no string.
  char &At(unsigned i);
  // Case-sensitive comparison of the first min(strlen(p), size) characters:
  // a prefix longer than the string matches when the string begins it.
  bool StartsWith(char const *p) const;
  // 1-based position of c / of s; 0 when absent.
  unsigned StrChr(int c) const;
  unsigned StrStr(char const *s) const;
  // min(count, size - start) characters from 0-based start into dst, NUL
  // included; the caller guarantees room. Returns dst.
  char *SubStr(char *dst, unsigned start, unsigned count) const;

  void Assign(XStr const &other);
  void Assign(int value, int radix);
  XStr &operator=(XStr const &other);
  XStr &operator=(char const *s);
  XStr &operator+=(char const *s);
  XStr &operator+=(XStr const &other);

  // printf-style formatting into a 32768-byte scratch buffer (output beyond
  // it is cut), then Assign.
  void Format(char const *fmt, ...) __attribute__((format(printf, 2, 3)));

protected:
  static constexpr unsigned kFormatScratch = 32768;
  void _Format(char const *fmt, va_list args) __attribute__((format(printf, 2, 0)));

  char *text_;        // may be null: an XStrDyn without a buffer
  unsigned size_;     // characters held, NUL not counted
  unsigned maxSize_;  // most characters it may hold (XStrDyn: 0 = no limit)
};

class SHAREDLIB_API XStrDyn : public XStr {
public:
  explicit XStrDyn(unsigned maxSize = 0);
  XStrDyn(char const *s);  // NOLINT: implicit, as text flows freely
  XStrDyn(XStr const &other);
  XStrDyn(XStrDyn const &other);
  ~XStrDyn() override;

  void Append(char const *s) override;
  void Assign(char const *s) override;
  using XStr::Assign;

  XStrDyn &operator=(char const *s);
  XStrDyn &operator=(XStr const &other);
  XStrDyn &operator=(XStrDyn const &other);

  // Bytes currently allocated (room for GetAllocated() - 1 characters).
  unsigned GetAllocated() const { return allocated_; }

private:
  static constexpr unsigned kDefaultAlloc = 31;
  void Alloc(unsigned size);
  void Release();

  unsigned allocated_;
};

template <unsigned N>
class SHAREDLIB_API XStrStatic : public XStr {
public:
  XStrStatic();
  XStrStatic(char const *s);  // NOLINT: implicit, as text flows freely
  XStrStatic(XStr const &other);
  XStrStatic(XStrStatic const &other);
  ~XStrStatic() override;

  void Append(char const *s) override;
  void Assign(char const *s) override;
  using XStr::Assign;

  XStrStatic &operator=(char const *s);
  XStrStatic &operator=(XStr const &other);
  XStrStatic &operator=(XStrStatic const &other);

private:
  char buffer_[N + 1];
};

extern template class XStrStatic<16384>;

SHAREDLIB_API bool operator==(XStr const &a, XStr const &b);
SHAREDLIB_API bool operator==(XStr const &a, char const *b);
SHAREDLIB_API bool operator==(char const *a, XStr const &b);
SHAREDLIB_API bool operator!=(XStr const &a, XStr const &b);
SHAREDLIB_API bool operator!=(XStr const &a, char const *b);
SHAREDLIB_API bool operator!=(char const *a, XStr const &b);

SHAREDLIB_API XStrStatic<16384> operator+(XStr const &a, XStr const &b);
SHAREDLIB_API XStrStatic<16384> operator+(XStr const &a, char const *b);
SHAREDLIB_API XStrStatic<16384> operator+(char const *a, XStr const &b);
