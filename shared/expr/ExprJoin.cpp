#include "expr/ExprJoin.h"

#include "text/TextRoutines.h"

#include <cstring>
#include <cstdio>
#include <new>

namespace {

constexpr unsigned kDigits = 12;  // the decimal digits of any 32-bit value and a NUL

char const *Decimal(unsigned n, char (&buf)[kDigits]) {
  std::snprintf(buf, sizeof buf, "%u", n);
  return buf;
}

}  // namespace

ExprJoin::ExprJoin(unsigned maxLen, char const *separator)
    : buffer_(nullptr), ok_(1), maxLen_(maxLen), len_(0), sepLen_(0) {
  separator_[0] = '\0';
  if (separator && std::strlen(separator) <= kSeparatorMax) {
    CopyString(separator_, separator, kSeparatorMax);
    sepLen_ = std::strlen(separator_);
  }
  reset();
}

ExprJoin::~ExprJoin() { delete[] buffer_; }

void ExprJoin::reset() {
  len_ = 0;
  if (!buffer_ && maxLen_ != 0)
    buffer_ = new (std::nothrow) char[std::size_t{maxLen_} + 1];
  if (buffer_)
    buffer_[0] = '\0';
  ok_ = 1;
}

unsigned long long ExprJoin::NewLength(unsigned long long len, int withSep) const {
  return len_ + ((withSep && len_ != 0) ? sepLen_ : 0) + len;
}

int ExprJoin::CanAddString(char const *s, int withSep) const {
  return buffer_ && NewLength(s ? std::strlen(s) : 0, withSep) <= maxLen_;
}

int ExprJoin::CanAddString(unsigned n, int withSep) const {
  char digits[kDigits];
  return CanAddString(Decimal(n, digits), withSep);
}

int ExprJoin::AddString(char const *s, int withSep) {
  if (!CanAddString(s, withSep)) {
    ok_ = 0;
    return 0;
  }
  if (withSep && len_ != 0) {
    std::memcpy(buffer_ + len_, separator_, sepLen_);
    len_ += sepLen_;
  }
  std::size_t const n = s ? std::strlen(s) : 0;
  std::memcpy(buffer_ + len_, s ? s : "", n);
  len_ += n;
  buffer_[len_] = '\0';
  return 1;
}

int ExprJoin::AddString(unsigned n, int withSep) {
  char digits[kDigits];
  return AddString(Decimal(n, digits), withSep);
}

char const *ExprJoin::GetExpr() const { return buffer_ ? buffer_ : ""; }
