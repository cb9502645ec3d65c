// Expr: tokens by type, bracketed sub-expressions, separators, the
// pre-tokenised stream and request lines.
#include "expr/Expr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Tokens = std::vector<std::pair<int, std::string>>;

Tokens Tokenize(Expr &e) {
  Tokens out;
  for (int type; (type = e.get_token_expr()) != Expr::kEnd && out.size() < 64;)
    out.emplace_back(type, e.get_text());
  return out;
}

Tokens Tokenize(char const *text, char const *delimiters = nullptr) {
  Expr e(text, delimiters, nullptr);
  return Tokenize(e);
}

struct TokenCase {
  char const *text;
  Tokens tokens;
};

TEST(ExprTokens, NamesNumbersAndSymbols) {
  TokenCase const cases[] = {
      {"a<=b", {{4, "a"}, {20, "\xB2"}, {4, "b"}}},
      {"x >= 1", {{4, "x"}, {20, "\xB3"}, {5, "1"}}},
      {"a < b", {{4, "a"}, {20, "<"}, {4, "b"}}},
      {"f (x)", {{8, "f"}, {1, "("}, {4, "x"}, {1, ")"}}},
      {"0x1F", {{5, "0"}, {4, "x1F"}}},
      {"12ab 1.5 .5", {{6, "12ab"}, {5, "1.5"}, {5, ".5"}}},
      {"host.domain.com _a.b x.y(", {{23, "host.domain.com"}, {4, "_a.b"}, {23, "x.y"}, {1, "("}}},
      {"[x]|@^\\ q", {{4, "[x]|@^\\"}, {4, "q"}}},
      {"a;b!c", {{4, "a"}, {20, ";"}, {4, "b"}, {1, "!"}, {4, "c"}}},
      {"+o -v x+ - +5-", {{18, "+o"}, {18, "-v"}, {4, "x+"}, {19, "-"}, {19, "+5-"}}},
  };
  for (auto const &c : cases)
    EXPECT_EQ(Tokenize(c.text), c.tokens) << c.text;
}

TEST(ExprTokens, QuotesMarksAndLineEnds) {
  TokenCase const cases[] = {
      {"'it''s'", {{7, "it"}, {7, "s"}}},
      {"''", {{7, ""}}},
      {"\"a 'b' c\" x", {{7, "a 'b' c"}, {4, "x"}}},
      {"\"open", {{14, "open"}}},
      {"#chan ##x #", {{15, "chan"}, {15, "x"}, {15, ""}}},
      {"&key &", {{22, "key"}, {22, ""}}},
      {"$12 abc", {{16, "12"}, {4, "abc"}}},
      {"$7", {{16, "7"}}},
      {"a\r\nb\rc\n", {{4, "a"}, {2, "\n"}, {4, "b"}, {3, "\r"}, {4, "c"}, {2, "\n"}}},
      {":nick!u PRIVMSG #c :hi there\r\nX",
       {{17, "nick"}, {1, "!"}, {4, "u"}, {4, "PRIVMSG"}, {15, "c"}, {9, "hi there"}, {2, "\n"}, {4, "X"}}},
      {"*all", {{1, "*"}, {4, "all"}}},  // '*' is a default delimiter
  };
  for (auto const &c : cases)
    EXPECT_EQ(Tokenize(c.text), c.tokens) << c.text;
  // Without '*' among the delimiters a '*' word is a label, anywhere.
  EXPECT_EQ(Tokenize("*all x *y", "#:$()/<>=&,;?"), (Tokens{{17, "*all"}, {4, "x"}, {17, "*y"}}));
}

TEST(ExprTokens, UnknownCharactersStopWithoutMoving) {
  for (char const *text : {"\xC3\xA9t\xC3\xA9", "\x01x", "\x1A"}) {
    Expr e(text, nullptr, nullptr);
    EXPECT_EQ(e.get_token_expr(), Expr::kEnd);
    EXPECT_STREQ(e.get_text(), "");
    EXPECT_EQ(e.get_offset(), 0);
  }
  // A name-start character that the caller made a delimiter still moves on.
  Expr e("__", "_", "");
  EXPECT_EQ(e.get_token_expr(), Expr::kName);
  EXPECT_GT(e.get_offset(), 0);
}

TEST(ExprTokens, OverlongTokensAreCutAndConsumedWhole) {
  std::string const longWord(Expr::kTokenMax + 5000, 'w');
  for (std::string const &text :
       {longWord + " next", "'" + longWord + "' next", "x :" + longWord + "\nnext", "#" + longWord + " next",
        "+" + longWord + " next", std::string(Expr::kTokenMax + 9, '9') + " next",
        "1" + std::string(Expr::kTokenMax + 9, 'f') + " next"}) {
    Expr e(text.c_str(), nullptr, nullptr);
    int type;
    std::size_t longest = 0;
    while ((type = e.get_token_expr()) != Expr::kEnd) {
      longest = std::max<std::size_t>(longest, std::strlen(e.get_text()));
      if (std::strcmp(e.get_text(), "next") == 0)
        break;
    }
    EXPECT_EQ(longest, Expr::kTokenMax);
    EXPECT_STREQ(e.get_text(), "next");
  }
}

TEST(ExprTokens, LengthBoundStopsTheScan) {
  char const buffer[] = {'a', 'b', 'c', ' ', 'd'};  // not NUL-terminated
  Expr e;
  e.set_expr(buffer, 3);
  EXPECT_EQ(e.get_token_expr(), Expr::kName);
  EXPECT_STREQ(e.get_text(), "abc");
  EXPECT_EQ(e.get_token_expr(), Expr::kEnd);
  e.set_expr(buffer, sizeof buffer);
  EXPECT_EQ(Tokenize(e), (Tokens{{4, "abc"}, {4, "d"}}));
  e.reset();
  EXPECT_EQ(e.get_offset(), 0);
  EXPECT_EQ(e.get_token_expr(), Expr::kName);
}

TEST(ExprSimple, NextTokenAndNextString) {
  Expr e("GET /x y\r", nullptr, nullptr);
  Tokens got;
  for (int type; (type = e.get_next_token()) != Expr::kEnd;)
    got.emplace_back(type, e.get_text());
  EXPECT_EQ(got, (Tokens{{21, "GET"}, {1, "/"}, {21, "x"}, {21, "y"}, {1, "\r"}}));

  e.set_expr("  a b , c;;d  ");
  std::vector<std::pair<std::string, char>> parts;
  while (e.get_next_string(nullptr) == Expr::kString)
    parts.emplace_back(e.get_text(), e.get_terminator());
  EXPECT_EQ(parts, (std::vector<std::pair<std::string, char>>{{"a b", ','}, {"c", ';'}, {"", ';'}, {"d", 0}}));
}

TEST(ExprSub, BracketedExpressions) {
  char out[64];
  Expr e("(a(b)c) d", nullptr, nullptr);
  EXPECT_EQ(e.get_expr(out), 1);
  EXPECT_STREQ(out, "a(b)c");
  EXPECT_STREQ(e.get_position(), " d");

  struct {
    char const *text;
    int result;
    char const *inside;
  } const cases[] = {
      {" [a)", 1, "a"},             // kinds need not match
      {"(\"x\" [y])", 1, "\"x\" [y]"},
      {"(a", 0, ""},                // text ends first
      {"(')", 0, ""},               // odd number of quotes
      {"('(')", 0, ""},             // brackets count inside quotes too
      {"x(a)", 0, ""},
  };
  for (auto const &c : cases) {
    e.set_expr(c.text);
    std::strcpy(out, "junk");
    EXPECT_EQ(e.get_expr(out), c.result) << c.text;
    EXPECT_STREQ(out, c.inside) << c.text;
    if (!c.result) {
      EXPECT_EQ(e.get_offset(), 0) << c.text;
    }
  }
  e.set_expr("(abcdef) z");
  char small[4];
  EXPECT_EQ(e.get_expr(small, sizeof small), 1);
  EXPECT_STREQ(small, "abc");
  EXPECT_STREQ(e.get_position(), " z");
}

TEST(ExprStream, PreTokenisedRecords) {
  std::vector<char> s;
  auto put32 = [&s](std::uint32_t v) {
    char b[4];
    std::memcpy(b, &v, 4);
    s.insert(s.end(), b, b + 4);
  };
  s.push_back(4);
  put32(0x12345678);
  s.insert(s.end(), {5, 'h', 'i', 0});
  s.push_back(8);
  put32(77);
  s.push_back('#');  // the sixth byte of a type 8 record
  s.insert(s.end(), {10, 'x', 'y', 0, '-'});
  s.push_back('!');
  s.push_back(0);

  Expr e;
  e.set_expr(s.data());
  std::uint32_t v = 0;
  ASSERT_EQ(e.get_token(), 4);
  std::memcpy(&v, e.get_text(), 4);
  EXPECT_EQ(v, 0x12345678u);
  ASSERT_EQ(e.get_token(), 5);
  EXPECT_STREQ(e.get_text(), "hi");
  ASSERT_EQ(e.get_token(), 8);
  std::memcpy(&v, e.get_text(), 4);
  EXPECT_EQ(v, 77u);
  ASSERT_EQ(e.get_token(), 10);
  char const *p = nullptr;
  std::memcpy(&p, e.get_text(), sizeof p);
  EXPECT_STREQ(p, "xy");
  ASSERT_EQ(e.get_token(), 1);
  EXPECT_STREQ(e.get_text(), "!");
  EXPECT_EQ(e.get_token(), 0);

  // With a length, a record cut short ends the stream instead of overrunning.
  e.set_expr(s.data(), 3);
  EXPECT_EQ(e.get_token(), 0);
}

TEST(ExprHttp, RequestLines) {
  char out[64];
  char id[8];
  char n[3];
  char const *names[] = {"ID", "n", nullptr};
  char *values[] = {id, n};
  unsigned sizes[] = {sizeof id - 1, sizeof n - 1};
  Expr e("GET /x?id=7&n=abc&zz=1&id HTTP/1.1", nullptr, nullptr);
  EXPECT_EQ(e.http_parse(out, sizeof out, names, values, sizes), 3);
  EXPECT_STREQ(out, "/x");
  EXPECT_STREQ(id, "7");
  EXPECT_STREQ(n, "ab");  // cut to its size

  struct {
    char const *line;
    int code;
    char const *out;
  } const cases[] = {
      {"POST /form HTTP/1.0", 5, "/form"},
      {"get /a", 3, "/a"},
      {"Host: example.com:80 ", 4, "example.com:80"},
      {"CONNECTION: keep-alive", 2, "keep-alive"},
      {"PUT /a b", 6, "/a b"},
      {"   ", 1, ""},
  };
  for (auto const &c : cases) {
    e.set_expr(c.line);
    std::strcpy(id, "old");
    EXPECT_EQ(e.http_parse(out, sizeof out, names, values, sizes), c.code) << c.line;
    EXPECT_STREQ(out, c.out) << c.line;
    EXPECT_STREQ(id, "") << c.line;
  }
  char tiny[4];
  e.set_expr("GET /abcdef?id=1");
  EXPECT_EQ(e.http_parse(tiny, sizeof tiny, nullptr, nullptr, nullptr), 3);
  EXPECT_STREQ(tiny, "/ab");
  e.set_expr("Host: abcdef");
  EXPECT_EQ(e.http_parse(tiny, sizeof tiny, nullptr, nullptr, nullptr), 4);
  EXPECT_STREQ(tiny, "abc");
}

}  // namespace
