#include "text/XStr.h"

#include "platform/Compat.h"
#include "text/TextRoutines.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool PointsInto(char const *p, char const *buf, std::size_t len) {
  return buf && p && p >= buf && p < buf + len;
}

}  // namespace

// --- XStr -------------------------------------------------------------------

XStr::XStr(char *buf, unsigned maxSize) : text_(buf), size_(0), maxSize_(maxSize) {}

XStr::XStr(XStr const &other) : text_(other.text_), size_(other.size_), maxSize_(other.maxSize_) {}

XStr::~XStr() = default;

bool XStr::IsEmpty() const { return size_ == 0 || text_ == nullptr; }

bool XStr::IsBlank() const { return IsEmpty() || comp_branco(text_); }

char &XStr::At(unsigned i) {
  if (text_ && i < size_)
    return text_[i];
  // Out of range: a NUL owned by no string. Reset on every call, so a caller
  // that writes through it cannot change what the next caller reads.
  thread_local char outside = '\0';
  outside = '\0';
  return outside;
}

bool XStr::StartsWith(char const *p) const {
  if (!p || !*p || IsEmpty())
    return false;
  std::size_t n = std::strlen(p);
  if (n > size_)
    n = size_;
  return std::strncmp(text_, p, n) == 0;
}

unsigned XStr::StrChr(int c) const {
  if (c == 0 || IsEmpty())
    return 0;
  char const *at = std::strchr(text_, c);
  return at ? static_cast<unsigned>(at - text_) + 1 : 0;
}

unsigned XStr::StrStr(char const *s) const {
  if (!s || !*s || IsEmpty())
    return 0;
  char const *at = std::strstr(text_, s);
  return at ? static_cast<unsigned>(at - text_) + 1 : 0;
}

char *XStr::SubStr(char *dst, unsigned start, unsigned count) const {
  if (!dst)
    return nullptr;
  dst[0] = '\0';
  if (count == 0 || start >= size_ || !text_)
    return dst;
  unsigned n = size_ - start;
  if (count < n)
    n = count;
  std::memmove(dst, text_ + start, n);
  dst[n] = '\0';
  return dst;
}

void XStr::Assign(XStr const &other) { Assign(other.text_); }

void XStr::Assign(int value, int radix) {
  char buf[40];
  Assign(_itoa(value, buf, radix));
}

XStr &XStr::operator=(XStr const &other) {
  if (this != &other)
    Assign(other.text_);
  return *this;
}

XStr &XStr::operator=(char const *s) {
  Assign(s);
  return *this;
}

XStr &XStr::operator+=(char const *s) {
  Append(s);
  return *this;
}

XStr &XStr::operator+=(XStr const &other) {
  Append(other.text_);
  return *this;
}

void XStr::Format(char const *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  _Format(fmt, args);
  va_end(args);
}

void XStr::_Format(char const *fmt, va_list args) {
  // The scratch buffer bounds the output: longer results are cut, never
  // written past it.
  std::string scratch(kFormatScratch, '\0');
  _vsnprintf(scratch.data(), scratch.size(), fmt, args);
  Assign(scratch.c_str());
}

// --- XStrDyn ----------------------------------------------------------------

XStrDyn::XStrDyn(unsigned maxSize) : XStr(nullptr, maxSize), allocated_(0) {
  Alloc(maxSize != 0 ? maxSize + 1 : kDefaultAlloc);
  Assign("");
}

XStrDyn::XStrDyn(char const *s) : XStr(nullptr, 0), allocated_(0) {
  if (s && *s) {
    Alloc(static_cast<unsigned>(std::strlen(s)) + 1);
    Assign(s);
  } else {
    Alloc(kDefaultAlloc);
    Assign("");
  }
}

XStrDyn::XStrDyn(XStr const &other) : XStr(nullptr, 0), allocated_(0) {
  Alloc(other.GetSize() + 1);
  Assign(other.GetStr());
}

XStrDyn::XStrDyn(XStrDyn const &other) : XStrDyn(static_cast<XStr const &>(other)) {}

XStrDyn::~XStrDyn() { Release(); }

void XStrDyn::Alloc(unsigned size) {
  if (size == 0)
    return;
  if (allocated_ == 0) {
    std::free(text_);
    text_ = static_cast<char *>(std::malloc(size));
    if (text_) {
      allocated_ = size;
      text_[0] = '\0';
    }
    return;
  }
  if (size > allocated_) {
    char *grown = static_cast<char *>(std::realloc(text_, size));
    if (grown) {
      text_ = grown;
      allocated_ = size;
    } else {
      Release();
    }
  }
}

void XStrDyn::Release() {
  std::free(text_);
  text_ = nullptr;
  size_ = 0;
  allocated_ = 0;
}

void XStrDyn::Assign(char const *s) {
  // A source inside our own buffer may move when the buffer grows: copy it.
  if (PointsInto(s, text_, allocated_)) {
    std::string copy(s);
    Assign(copy.c_str());
    return;
  }
  unsigned n = s ? static_cast<unsigned>(std::strlen(s)) : 0;
  if (maxSize_ != 0 && n > maxSize_)
    n = maxSize_;
  if (n + 1 > allocated_)
    Alloc(n + 1);
  if (allocated_ == 0) {
    size_ = 0;
    return;
  }
  size_ = n < allocated_ - 1 ? n : allocated_ - 1;
  CopyString(text_, s, size_);
}

void XStrDyn::Append(char const *s) {
  if (IsEmpty()) {
    Assign(s);
    return;
  }
  if (!s || !*s)
    return;
  if (PointsInto(s, text_, allocated_)) {
    std::string copy(s);
    Append(copy.c_str());
    return;
  }
  unsigned n = static_cast<unsigned>(std::strlen(s));
  if (maxSize_ != 0) {
    unsigned room = maxSize_ > size_ ? maxSize_ - size_ : 0;
    if (n > room)
      n = room;
  }
  if (n == 0)
    return;
  unsigned need = size_ + n + 1;
  if (allocated_ < need)
    Alloc(need);
  if (allocated_ < need)
    return;  // the append is dropped whole, not cut
  CopyString(text_ + size_, s, n);
  size_ += n;
}

XStrDyn &XStrDyn::operator=(char const *s) {
  Assign(s);
  return *this;
}

XStrDyn &XStrDyn::operator=(XStr const &other) {
  if (this != &other)
    Assign(other.GetStr());
  return *this;
}

XStrDyn &XStrDyn::operator=(XStrDyn const &other) {
  if (this == &other)
    return *this;
  // The assignment leaves this string's allocation equal to the source's, as
  // the member-wise copy always did; the buffer really is grown to that size
  // first, so the counter never claims room the buffer does not have.
  if (other.allocated_ > allocated_)
    Alloc(other.allocated_);
  Assign(other.GetStr());
  return *this;
}

// --- XStrStatic -------------------------------------------------------------

template <unsigned N>
XStrStatic<N>::XStrStatic() : XStr(buffer_, N) {
  buffer_[0] = '\0';
}

template <unsigned N>
XStrStatic<N>::XStrStatic(char const *s) : XStrStatic() {
  Assign(s);
}

template <unsigned N>
XStrStatic<N>::XStrStatic(XStr const &other) : XStrStatic() {
  Assign(other.GetStr());
}

template <unsigned N>
XStrStatic<N>::XStrStatic(XStrStatic const &other) : XStrStatic() {
  Assign(other.GetStr());
}

template <unsigned N>
XStrStatic<N>::~XStrStatic() = default;

template <unsigned N>
void XStrStatic<N>::Assign(char const *s) {
  if (s == buffer_)
    return;  // already holds exactly this text
  if (PointsInto(s, buffer_, sizeof buffer_)) {
    std::string copy(s);
    Assign(copy.c_str());
    return;
  }
  buffer_[0] = '\0';
  size_ = 0;
  if (!s)
    return;
  std::size_t n = std::strlen(s);
  size_ = static_cast<unsigned>(n < N ? n : N);
  if (size_ != 0)
    CopyString(buffer_, s, size_);
}

template <unsigned N>
void XStrStatic<N>::Append(char const *s) {
  if (IsEmpty()) {
    Assign(s);
    return;
  }
  if (!s || !*s || size_ >= N)
    return;
  if (PointsInto(s, buffer_, sizeof buffer_)) {
    std::string copy(s);
    Append(copy.c_str());
    return;
  }
  std::size_t n = std::strlen(s);
  if (n > N - size_)
    n = N - size_;
  std::memcpy(buffer_ + size_, s, n);
  size_ += static_cast<unsigned>(n);
  buffer_[size_] = '\0';
}

template <unsigned N>
XStrStatic<N> &XStrStatic<N>::operator=(char const *s) {
  Assign(s);
  return *this;
}

template <unsigned N>
XStrStatic<N> &XStrStatic<N>::operator=(XStr const &other) {
  if (this != &other)
    Assign(other.GetStr());
  return *this;
}

template <unsigned N>
XStrStatic<N> &XStrStatic<N>::operator=(XStrStatic const &other) {
  if (this != &other)
    Assign(other.GetStr());
  return *this;
}

template class XStrStatic<16384>;

// --- Global operators -------------------------------------------------------

namespace {

bool SameText(char const *a, char const *b) { return a && b && _stricmp(a, b) == 0; }

XStrStatic<16384> Concat(char const *a, char const *b) {
  XStrStatic<16384> joined(a);
  joined.Append(b);
  return joined;
}

}  // namespace

bool operator==(XStr const &a, XStr const &b) { return SameText(a.GetStr(), b.GetStr()); }
bool operator==(XStr const &a, char const *b) { return SameText(a.GetStr(), b); }
bool operator==(char const *a, XStr const &b) { return SameText(a, b.GetStr()); }
bool operator!=(XStr const &a, XStr const &b) { return !(a == b); }
bool operator!=(XStr const &a, char const *b) { return !(a == b); }
bool operator!=(char const *a, XStr const &b) { return !(a == b); }

XStrStatic<16384> operator+(XStr const &a, XStr const &b) { return Concat(a.GetStr(), b.GetStr()); }
XStrStatic<16384> operator+(XStr const &a, char const *b) { return Concat(a.GetStr(), b); }
XStrStatic<16384> operator+(char const *a, XStr const &b) { return Concat(a, b.GetStr()); }
