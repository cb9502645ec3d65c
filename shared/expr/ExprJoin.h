// ExprJoin.h: joins texts or numbers into one bounded text with a separator,
// the reverse of ExprParser. Additions that would not fit are refused whole.
// Used by one thread at a time.
#pragma once

#include "platform/Export.h"

class SHAREDLIB_API ExprJoin {
public:
  static constexpr unsigned kSeparatorMax = 512;

  // maxLen 0 allocates nothing and every addition is refused. A separator
  // longer than 512 characters (or null) is not taken: none is used.
  ExprJoin(unsigned maxLen, char const *separator);
  ~ExprJoin();
  ExprJoin(ExprJoin const &) = delete;
  ExprJoin &operator=(ExprJoin const &) = delete;

  // Empties the text (allocating the buffer on first use); ok becomes 1.
  void reset();
  // Appends the separator (when withSep is set and the text is not empty)
  // and s, when the result fits maxLen: 1; otherwise 0, nothing changes and
  // ok becomes 0. A null s adds nothing but the separator.
  int AddString(char const *s, int withSep);
  int AddString(unsigned n, int withSep);  // n in decimal
  // Whether the same AddString would succeed.
  int CanAddString(char const *s, int withSep) const;
  int CanAddString(unsigned n, int withSep) const;

  char const *GetExpr() const;
  // 0 once an addition was refused since the last reset.
  int IsOk() const { return ok_; }

private:
  // Length after adding a text of len characters (with or without separator).
  unsigned long long NewLength(unsigned long long len, int withSep) const;

  char *buffer_;  // maxLen_ + 1 bytes
  int ok_;
  unsigned maxLen_;
  unsigned long long len_;
  unsigned long long sepLen_;
  char separator_[kSeparatorMax + 1];
};
