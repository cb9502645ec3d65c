// Fuzzes the parsers of received protocol text: the tokenizer, the command
// parser with its payload, the separator split and the request-line parser.
// The input is raw bytes; the first byte also picks the separator.
#include "expr/Expr.h"
#include "expr/ExprParser.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

void Check(bool ok) {
  if (!ok)
    __builtin_trap();
}

// Every token but the end must move the scan on, or a caller's loop spins.
void Tokenize(Expr &e, std::size_t size) {
  for (std::size_t guard = 0; guard <= size + 1; ++guard) {
    long const before = e.get_offset();
    int const type = e.get_token_expr();
    Check(std::strlen(e.get_text()) <= Expr::kTokenMax);
    if (type == Expr::kEnd)
      return;
    Check(e.get_offset() > before);
  }
  Check(false);
}

void CheckParams(ExprParser const &p, unsigned maxLen) {
  for (unsigned i = 0; i < p.GetnParam(); ++i)
    Check(std::strlen(p.GetParam(i, nullptr)) <= maxLen);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  // An exact-size copy: reading one byte past the given length is a finding.
  std::unique_ptr<char[]> exact(new char[size ? size : 1]);
  if (size)
    std::memcpy(exact.get(), data, size);
  std::string const text(reinterpret_cast<char const *>(data), size);  // NUL-terminated
  char const sep = size ? static_cast<char>(data[0]) : ',';

  Expr bounded;
  bounded.set_expr(exact.get(), static_cast<unsigned>(size));
  Tokenize(bounded, size);

  Expr e(text.c_str(), nullptr, nullptr);
  Tokenize(e, size);
  e.reset();
  for (std::size_t guard = 0; e.get_next_token() != Expr::kEnd; ++guard)
    Check(guard <= size);
  e.reset();
  for (std::size_t guard = 0; e.get_next_string(nullptr) != Expr::kEnd; ++guard)
    Check(guard <= size);
  e.reset();
  char inside[32];
  while (e.get_expr(inside, sizeof inside))
    Check(std::strlen(inside) < sizeof inside);

  constexpr unsigned kMaxLen = 16;
  ExprParser parser(8, 32, nullptr, nullptr, kMaxLen);
  unsigned consumed = 0;
  parser.parse(exact.get(), static_cast<unsigned>(size), &consumed);
  Check(consumed <= size);
  unsigned payloadLen = 0;
  parser.GetBuffer(&payloadLen);
  Check(payloadLen <= 32);
  CheckParams(parser, kMaxLen);
  parser.parseSymbol(text.c_str(), sep);
  CheckParams(parser, kMaxLen);

  // Now and then the input repeated past the token buffer, so that the
  // cutting of over-long tokens is exercised as well.
  if (size != 0 && (data[0] & 0x3F) == 0x30) {
    std::string big;
    while (big.size() <= Expr::kTokenMax + 64)
      big += text;
    Expr longText(big.c_str(), nullptr, nullptr);
    Tokenize(longText, big.size());
    longText.reset();
    while (longText.get_next_string(" ") != Expr::kEnd)
      Check(longText.get_text_len() <= Expr::kTokenMax);
  }

  char out[16];
  char v0[5];
  char v1[2];
  char const *names[] = {"id", "n", nullptr};
  char *values[] = {v0, v1};
  unsigned sizes[] = {sizeof v0 - 1, sizeof v1 - 1};
  Expr http;
  http.set_expr(exact.get(), static_cast<unsigned>(size));
  http.http_parse(out, sizeof out, names, values, sizes);
  Check(std::strlen(out) < sizeof out && std::strlen(v0) < sizeof v0 && std::strlen(v1) < sizeof v1);
  return 0;
}
