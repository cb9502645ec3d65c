#include "expr/ExprParser.h"

#include "text/TextRoutines.h"

#include <cstddef>
#include <cstring>
#include <new>

ExprParser::ExprParser(unsigned maxParams, unsigned payloadSize, char const *delimiters,
                       char const *symbols, unsigned maxParamLen)
    : nParams_(0), payloadLen_(0), maxParams_(0), maxParamLen_(maxParamLen), payloadSize_(0),
      params_(nullptr), payload_(nullptr), types_(nullptr) {
  expr_.set_delimiters(comp_branco(delimiters) ? kDefaultDelimiters : delimiters);
  if (!comp_branco(symbols))
    expr_.set_simbols(symbols);
  if (maxParams != 0 && maxParamLen != 0) {
    std::size_t const area = std::size_t{maxParams} * (std::size_t{maxParamLen} + 1);
    params_ = new (std::nothrow) char[area]();
    types_ = new (std::nothrow) char[maxParams]();
    if (params_ && types_)
      maxParams_ = maxParams;
  }
  if (payloadSize != 0) {
    payload_ = new (std::nothrow) char[payloadSize]();
    if (payload_)
      payloadSize_ = payloadSize;
  }
}

ExprParser::~ExprParser() {
  delete[] params_;
  delete[] payload_;
  delete[] types_;
}

void ExprParser::SetDelims(char const *set) { expr_.set_delimiters(set); }

void ExprParser::SetSimbols(char const *set) { expr_.set_simbols(set); }

char *ExprParser::Slot(unsigned i) const {
  return params_ + std::size_t{i} * (std::size_t{maxParamLen_} + 1);
}

void ExprParser::reset() {
  for (unsigned i = 0; i < nParams_; ++i)
    std::memset(Slot(i), 0, std::size_t{maxParamLen_} + 1);
  if (types_ && maxParams_)
    std::memset(types_, 0, maxParams_);
  if (payload_)
    std::memset(payload_, 0, payloadLen_);
  nParams_ = 0;
  payloadLen_ = 0;
}

void ExprParser::Store(char const *text, unsigned len, int type) {
  if (len > maxParamLen_)
    len = maxParamLen_;
  std::memcpy(Slot(nParams_), text, len);
  Slot(nParams_)[len] = '\0';
  types_[nParams_] = static_cast<char>(type);
  ++nParams_;
}

unsigned ExprParser::parse(char const *text, unsigned textLen, unsigned *consumed) {
  reset();
  if (consumed)
    *consumed = 0;
  if (!text || !params_ || !payload_ || !types_ || maxParams_ == 0)
    return 0;
  expr_.set_expr(text, textLen);
  while (nParams_ < maxParams_) {
    int const type = expr_.get_token_expr();
    if (type == Expr::kEnd)
      break;
    if (type == Expr::kPayload) {
      unsigned long const offset = static_cast<unsigned long>(expr_.get_offset());
      int const value = latoi(expr_.get_text());  // saturates, never negative here
      unsigned long const n = value > 0 ? static_cast<unsigned long>(value) : 0;
      if (textLen <= offset || n > textLen - offset || n > payloadSize_)
        break;
      std::memcpy(payload_, text + offset, n);
      payloadLen_ = static_cast<unsigned>(n);
      if (consumed)
        *consumed = static_cast<unsigned>(offset + n);
      Store(expr_.get_text(), expr_.get_text_len(), type);
      break;  // a payload always ends the command
    }
    Store(expr_.get_text(), expr_.get_text_len(), type);
  }
  return nParams_;
}

unsigned ExprParser::parseSymbol(char const *text, char sep) {
  reset();
  if (!text || !params_ || !types_ || maxParams_ == 0)
    return 0;
  char const *p = text;
  auto endsLine = [](char c) { return c == '\0' || c == '\r' || c == '\n'; };
  if (endsLine(*p))
    return 0;
  bool lineDone = false;
  while (!lineDone && nParams_ < maxParams_) {
    char *const slot = Slot(nParams_);
    unsigned len = 0;
    for (;;) {
      char c = *p;
      if (endsLine(c)) {
        lineDone = true;
        break;
      }
      if (c == sep) {
        ++p;
        break;
      }
      if (c == '\\' && sep != '\\') {
        char const nx = p[1];
        if (nx == 'n' || nx == 'r' || nx == '\\' || (nx == sep && nx != '\0')) {
          c = nx == 'n' ? '\n' : nx == 'r' ? '\r' : nx;
          ++p;
        }
      }
      ++p;
      if (len < maxParamLen_)  // the rest of an over-long field is skipped
        slot[len++] = c;
    }
    slot[len] = '\0';
    ++nParams_;
  }
  return nParams_;
}

char const *ExprParser::GetParam(unsigned i, char *type) const {
  if (i >= nParams_) {
    if (type)
      *type = 0;
    return nullptr;
  }
  if (type)
    *type = types_[i];
  return Slot(i);
}

char const *ExprParser::GetBuffer(unsigned *len) const {
  if (len)
    *len = payloadLen_;
  return payloadLen_ ? payload_ : nullptr;
}
