#include "expr/Expr.h"

#include "text/CmdTables.h"
#include "text/TextRoutines.h"

#include <climits>
#include <cstring>

namespace {

// The tokenizer's control characters: they end words. Not the same set as
// isctrlchar's, which leaves out the blank and takes every byte below 0x20.
bool IsCtrl(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\x1A' || c == '\0';
}

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsHexLetter(char c) { return (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

bool IsNameStart(char c) { return IsLetter(c) || (c != '\0' && std::strchr("_\\[]|@^", c)); }

// Request words of http_parse.
Cmd_str const kHttpWords[] = {{"CONNECTION", 2}, {"GET", 3}, {"HOST", 4}, {"POST", 5}, {"", 0}};
constexpr int kHttpNoWord = 1;
constexpr int kHttpGet = 3;
constexpr int kHttpPost = 5;
constexpr int kHttpOther = 6;

// ajusta_str into a buffer of size bytes (size - 1 characters).
void FitInto(char const *src, char *dst, unsigned size) {
  if (!dst || size == 0)
    return;
  if (size == 1) {
    dst[0] = '\0';
    return;
  }
  unsigned chars = size - 1;
  ajusta_str(src, dst, chars > INT_MAX ? INT_MAX : static_cast<int>(chars));
}

}  // namespace

Expr::Expr(char const *text, char const *delimiters, char const *symbols)
    : start_(nullptr), cur_(nullptr), end_(nullptr), type_(0), terminator_(0), textLen_(0) {
  set_delimiters(delimiters ? delimiters : kDefaultDelimiters);
  set_simbols(symbols ? symbols : kDefaultSymbols);
  set_expr(text);
}

void Expr::set_expr(char const *text) {
  start_ = cur_ = text ? text : "";
  end_ = nullptr;
  terminator_ = 0;
  ClearToken();
  type_ = 0;
}

void Expr::set_expr(char const *text, unsigned len) {
  set_expr(text);
  if (text)
    end_ = text + len;
}

void Expr::reset() {
  cur_ = start_;
  terminator_ = 0;
  ClearToken();
  type_ = 0;
}

long Expr::get_offset() const { return static_cast<long>(cur_ - start_); }

void Expr::set_delimiters(char const *set) { CopyString(delimiters_, set, kSetMax); }

void Expr::set_simbols(char const *set) { CopyString(symbols_, set, kSetMax); }

bool Expr::IsDelim(char c) const { return ch_in_str(c, delimiters_) != 0; }

bool Expr::IsSymbol(char c) const { return ch_in_str(c, symbols_) != 0; }

void Expr::SkipWhite() {
  while (iswhite(Ch(cur_)))
    ++cur_;
}

void Expr::ClearToken() {
  text_[0] = '\0';
  textLen_ = 0;
}

void Expr::Put(char c) {
  if (textLen_ < kTokenMax) {  // over-long tokens are cut, never overrun
    text_[textLen_++] = c;
    text_[textLen_] = '\0';
  }
}

int Expr::SetType(int type) {
  type_ = static_cast<signed char>(type);
  return type;
}

char Expr::CollectWord() {
  char last = 0;
  for (char c; !IsDelim(c = Ch(cur_)) && !IsCtrl(c); ++cur_) {
    Put(c);
    last = c;
  }
  return last;
}

unsigned long Expr::Room() const {
  return end_ ? static_cast<unsigned long>(end_ - cur_) : ~0UL;
}

char Expr::StartToken() {
  ClearToken();
  type_ = 0;
  SkipWhite();
  return Ch(cur_);
}

int Expr::get_token_expr() {
  char const c = StartToken();
  if (c == '\0')
    return SetType(kEnd);

  if (IsSymbol(c)) {
    Put(c);
    ++cur_;
    SkipWhite();
    if ((c == '<' || c == '>') && Ch(cur_) == '=') {
      ++cur_;
      text_[0] = c == '<' ? '\xB2' : '\xB3';
    }
    return SetType(kSymbol);
  }

  if (c == '\r' || c == '\n') {
    int type = kLineEnd;
    if (c == '\n') {
      ++cur_;
    } else if (Ch(cur_ + 1) == '\n') {
      cur_ += 2;
    } else {
      ++cur_;
      type = kCR;
    }
    Put(type == kCR ? '\r' : '\n');
    SkipWhite();
    return SetType(type);
  }

  if (IsDigit(c) || c == '.') {
    for (char d; IsDigit(d = Ch(cur_)) || d == '.'; ++cur_)
      Put(d);
    if (!IsHexLetter(Ch(cur_)))
      return SetType(kNumber);
    for (char d; IsDigit(d = Ch(cur_)) || IsHexLetter(d); ++cur_)
      Put(d);
    return SetType(kHexNumber);
  }

  if (IsNameStart(c)) {
    // The first character is taken even when the caller made it a delimiter,
    // so the scan always moves on.
    bool const fromLetter = IsLetter(c);
    bool dotted = false;
    Put(c);
    ++cur_;
    for (char d; !IsDelim(d = Ch(cur_)) && !IsCtrl(d); ++cur_) {
      dotted = dotted || (d == '.' && fromLetter);
      Put(d);
    }
    SkipWhite();
    if (dotted)
      return SetType(kDottedName);
    return SetType(Ch(cur_) == '(' ? kFunction : kName);
  }

  if (c == '#' || c == '&') {
    while (Ch(cur_) == c)
      ++cur_;
    CollectWord();
    return SetType(c == '#' ? kHashWord : kAmpWord);
  }

  if (c == ':' || (c == '*' && !IsDelim('*'))) {
    if (c == ':' && cur_ != start_) {
      ++cur_;
      for (char d; (d = Ch(cur_)) != '\0' && d != '\r' && d != '\n'; ++cur_)
        Put(d);
      return SetType(kRestOfLine);
    }
    if (c == '*')
      Put(c);
    ++cur_;
    CollectWord();
    return SetType(kLabel);
  }

  if (c == '$') {
    ++cur_;
    for (char d; IsDigit(d = Ch(cur_)) || d == '.'; ++cur_)
      Put(d);
    if (Ch(cur_) != '\0')  // the character that ends the number goes too
      ++cur_;
    return SetType(kPayload);
  }

  if (c == '+' || c == '-') {
    Put(c);
    ++cur_;
    char last = CollectWord();
    if (last == '\0')
      last = c;
    return SetType((last == '+' || last == '-') ? kSignedEnd : kSigned);
  }

  if (c == '"' || c == '\'') {
    ++cur_;
    for (char d; (d = Ch(cur_)) != '\0' && d != c; ++cur_)
      Put(d);
    if (Ch(cur_) != c)
      return SetType(kOpenString);
    ++cur_;
    return SetType(kString);
  }

  if (IsDelim(c)) {
    Put(c);
    ++cur_;
    SkipWhite();
    return SetType(kDelimiter);
  }
  return SetType(kEnd);
}

int Expr::get_next_token() {
  char const c = StartToken();
  if (c == '\0')
    return SetType(kEnd);
  int type = kWord;
  if (IsDelim(c) || IsCtrl(c)) {
    Put(c);
    ++cur_;
    type = kDelimiter;
  } else {
    CollectWord();
  }
  SkipWhite();
  return SetType(type);
}

int Expr::get_next_string(char const *separators) {
  if (!separators)
    separators = ",;";
  terminator_ = 0;
  if (StartToken() == '\0')
    return SetType(kEnd);
  char c;
  for (; (c = Ch(cur_)) != '\0' && !ch_in_str(c, separators); ++cur_)
    Put(c);
  if (c != '\0') {
    terminator_ = c;
    ++cur_;
  }
  trim(text_, text_);
  textLen_ = static_cast<unsigned>(std::strlen(text_));
  return SetType(kString);
}

int Expr::get_expr(char *out) { return get_expr(out, kTokenMax + 1); }

int Expr::get_expr(char *out, unsigned outSize) {
  if (out && outSize)
    out[0] = '\0';
  char const *const saved = cur_;
  SkipWhite();
  char c = Ch(cur_);
  if (c != '(' && c != '[') {
    cur_ = saved;
    return 0;
  }
  ++cur_;
  unsigned long depth = 1;
  unsigned long quotes = 0;
  unsigned n = 0;
  for (; (c = Ch(cur_)) != '\0'; ++cur_) {
    if (c == '(' || c == '[') {
      ++depth;
    } else if (c == ')' || c == ']') {
      if (--depth == 0) {
        if (quotes % 2 != 0)
          break;
        ++cur_;
        if (out && outSize)
          out[n] = '\0';
        return 1;
      }
    } else if (c == '"' || c == '\'') {
      ++quotes;
    }
    if (out && n + 1 < outSize)
      out[n++] = c;
  }
  if (out && outSize)
    out[0] = '\0';
  cur_ = saved;
  return 0;
}

int Expr::get_token() {
  ClearToken();
  type_ = 0;
  if (Room() == 0)
    return SetType(kEnd);
  unsigned char const t = static_cast<unsigned char>(*cur_);
  auto stringLength = [this](char const *p) {
    unsigned long n = 0;
    while (Ch(p + n) != '\0')
      ++n;
    return n;
  };
  switch (t) {
    case 0:
      return SetType(kEnd);
    case 4:
    case 8: {
      unsigned long const size = t == 4 ? 5 : 6;
      if (Room() < size)
        return SetType(kEnd);
      std::memcpy(text_, cur_ + 1, 4);
      text_[4] = '\0';
      textLen_ = 4;
      cur_ += size;
      return SetType(t);
    }
    case 5:
    case 7: {
      unsigned long const len = stringLength(cur_ + 1);
      if (Room() < len + 2)
        return SetType(kEnd);
      for (unsigned long i = 0; i < len; ++i)
        Put(cur_[1 + i]);
      cur_ += len + 2;
      return SetType(t);
    }
    case 10: {
      unsigned long const len = stringLength(cur_ + 1);
      if (Room() < len + 3)
        return SetType(kEnd);
      char const *const s = cur_ + 1;
      std::memcpy(text_, &s, sizeof s);
      text_[sizeof s] = '\0';
      textLen_ = sizeof s;
      cur_ += 1 + len + 2;
      return SetType(t);
    }
    default:
      Put(static_cast<char>(t));
      ++cur_;
      return SetType(kDelimiter);
  }
}

int Expr::http_parse(char *out, unsigned outSize, char const **names, char **values,
                     unsigned *valueSizes) {
  if (out && outSize)
    out[0] = '\0';
  if (names && values)
    for (unsigned i = 0; names[i]; ++i)
      if (values[i])  // holds valueSizes[i] + 1 bytes, so at least one
        values[i][0] = '\0';

  if (get_next_string(" :") == kEnd)
    return kHttpNoWord;
  int code = search_cmd_seq(text_, kHttpWords);
  if (code == 0)
    code = kHttpOther;

  if (code != kHttpGet && code != kHttpPost) {
    SkipWhite();
    // The rest of the text, bounded by the length given to set_expr.
    unsigned long len = 0;
    while (Ch(cur_ + len) != '\0')
      ++len;
    if (out && outSize) {
      unsigned long const keep = len < outSize - 1 ? len : outSize - 1;
      std::memcpy(out, cur_, keep);
      out[keep] = '\0';
      trim(out, out);
    }
    cur_ += len;
    return code;
  }

  get_next_string(" ?");
  FitInto(text_, out, outSize);
  if (terminator_ != '?' || !names || !values || !valueSizes)
    return code;
  while (get_next_string(" =") != kEnd) {
    if (terminator_ != '=')
      continue;
    int found = -1;
    for (int i = 0; names[i]; ++i)
      if (fstricmp(names[i], text_) == 0) {
        found = i;
        break;
      }
    if (get_next_string(" &") == kEnd)
      break;
    if (found >= 0 && values[found] && valueSizes[found] != 0) {
      unsigned const chars = valueSizes[found];
      ajusta_str(text_, values[found], chars > INT_MAX ? INT_MAX : static_cast<int>(chars));
    }
  }
  return code;
}
