// ExprParser: parameters, the "$n" payload and its bounds, the separator
// split with escapes; ExprJoin: bounded joining.
#include "expr/ExprJoin.h"
#include "expr/ExprParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> Params(ExprParser const &p) {
  std::vector<std::string> out;
  for (unsigned i = 0; i < p.GetnParam(); ++i)
    out.emplace_back(p.GetParam(i, nullptr));
  return out;
}

using Strings = std::vector<std::string>;

TEST(ExprParser, PayloadEndsTheCommand) {
  ExprParser p(10, 64);
  char const *text = "SEND 1 2 $5 hello";
  unsigned consumed = 99;
  EXPECT_EQ(p.parse(text, 17, &consumed), 4u);
  EXPECT_EQ(Params(p), (Strings{"SEND", "1", "2", "5"}));
  char type = 0;
  p.GetParam(3, &type);
  EXPECT_EQ(type, Expr::kPayload);
  p.GetParam(0, &type);
  EXPECT_EQ(type, Expr::kName);
  unsigned len = 0;
  char const *payload = p.GetBuffer(&len);
  ASSERT_NE(payload, nullptr);
  EXPECT_EQ(std::string(payload, len), "hello");
  EXPECT_EQ(consumed, 17u);

  // Binary bytes, NULs included, and whatever follows stays unparsed.
  std::string const binary("DATA $4 \0\x01\xFF$ NEXT", 17);
  EXPECT_EQ(p.parse(binary.data(), static_cast<unsigned>(binary.size()), &consumed), 2u);
  payload = p.GetBuffer(&len);
  ASSERT_EQ(len, 4u);
  EXPECT_EQ(std::string(payload, len), std::string("\0\x01\xFF$", 4));
  EXPECT_EQ(consumed, 12u);
}

TEST(ExprParser, PayloadLongerThanTextOrBufferIsRefused) {
  ExprParser p(10, 4);
  struct {
    std::string text;
    Strings params;
  } const cases[] = {
      {"X $10 abc", {"X"}},          // beyond the text
      {"X $5 hello", {"X"}},         // beyond the payload buffer
      {"X Y $4", {"X", "Y"}},        // nothing after the number
      {"X $99999999999999999999 abc", {"X"}},
      {"$4294967295 a", {}},
  };
  for (auto const &c : cases) {
    unsigned consumed = 99;
    EXPECT_EQ(p.parse(c.text.c_str(), static_cast<unsigned>(c.text.size()), &consumed), c.params.size());
    EXPECT_EQ(Params(p), c.params) << c.text;
    EXPECT_EQ(consumed, 0u) << c.text;
    unsigned len = 9;
    EXPECT_EQ(p.GetBuffer(&len), nullptr) << c.text;
    EXPECT_EQ(len, 0u);
  }
  // The text length bounds the payload even where a NUL comes later.
  char const text[] = "X $4 ab\0\0";
  unsigned consumed = 0;
  EXPECT_EQ(p.parse(text, 7, &consumed), 1u);
  EXPECT_EQ(p.parse(text, 9, &consumed), 2u);
  EXPECT_EQ(consumed, 9u);
}

TEST(ExprParser, LimitsAndRepeatedUse) {
  ExprParser p(3, 16, nullptr, nullptr, 4);
  std::string const line = "alpha b c d e";
  EXPECT_EQ(p.parse(line.c_str(), static_cast<unsigned>(line.size()), nullptr), 3u);
  EXPECT_EQ(Params(p), (Strings{"alph", "b", "c"}));
  EXPECT_EQ(p.parse("z", 1, nullptr), 1u);
  EXPECT_EQ(Params(p), (Strings{"z"}));
  char type = 5;
  EXPECT_EQ(p.GetParam(1, &type), nullptr);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(p.parse(nullptr, 5, nullptr), 0u);

  // The length bounds the scan of a text that is not NUL-terminated.
  std::vector<char> raw = {'a', 'b', ' ', 'c'};
  EXPECT_EQ(p.parse(raw.data(), 2, nullptr), 1u);
  EXPECT_EQ(Params(p), (Strings{"ab"}));

  ExprParser noPayload(3, 0);
  EXPECT_EQ(noPayload.parse("a b", 3, nullptr), 0u);
  EXPECT_EQ(noPayload.parseSymbol("a,b", ','), 2u);
  ExprParser noParams(0, 16);
  EXPECT_EQ(noParams.parse("a b", 3, nullptr), 0u);
  EXPECT_EQ(noParams.parseSymbol("a,b", ','), 0u);
}

TEST(ExprParser, DelimiterAndSymbolSets) {
  ExprParser p(10, 16);  // '*' is not a delimiter here: a '*' word is a label
  EXPECT_EQ(p.parse("*x y", 4, nullptr), 2u);
  char type = 0;
  EXPECT_STREQ(p.GetParam(0, &type), "*x");
  EXPECT_EQ(type, Expr::kLabel);

  ExprParser custom(10, 16, " ", "+");  // blank delimiters take the default
  EXPECT_EQ(custom.parse("a + b=c", 7, nullptr), 5u);
  EXPECT_EQ(Params(custom), (Strings{"a", "+", "b", "=", "c"}));
  custom.GetParam(3, &type);
  EXPECT_EQ(type, Expr::kDelimiter);
  custom.SetDelims("");
  custom.SetSimbols("");
  EXPECT_EQ(custom.parse("a+b=c d", 7, nullptr), 2u);
  EXPECT_EQ(Params(custom), (Strings{"a+b=c", "d"}));
}

TEST(ExprParser, SymbolSplitWithEscapes) {
  ExprParser p(8, 0, nullptr, nullptr, 3);
  struct {
    char const *text;
    char sep;
    Strings fields;
  } const cases[] = {
      {"a,b\\,c", ',', {"a", "b,c"}},
      {"x\\ny,\\r\\\\,\\q", ',', {"x\ny", "\r\\", "\\q"}},
      {"a,b\r\nc,d", ',', {"a", "b"}},
      {"a,", ',', {"a", ""}},
      {",", ',', {"", ""}},
      {"", ',', {}},
      {"\n", ',', {}},
      {"abcdef,gh", ',', {"abc", "gh"}},
      {"abcd\\,ef,g", ',', {"abc", "g"}},   // the skipped rest honours escapes
      {"a\\", ',', {"a\\"}},
      {"a|b", '|', {"a", "b"}},
      {"a\\b\\c", '\\', {"a", "b", "c"}},
      {"1,2,3,4,5,6,7,8,9,10", ',', {"1", "2", "3", "4", "5", "6", "7", "8"}},
  };
  for (auto const &c : cases) {
    EXPECT_EQ(p.parseSymbol(c.text, c.sep), c.fields.size()) << c.text;
    EXPECT_EQ(Params(p), c.fields) << c.text;
  }
  EXPECT_EQ(p.parseSymbol(nullptr, ','), 0u);
}

TEST(ExprJoin, BoundedJoining) {
  ExprJoin j(10, ", ");
  EXPECT_EQ(j.AddString("ab", 1), 1);  // no separator before the first text
  EXPECT_EQ(j.AddString(42u, 1), 1);
  EXPECT_STREQ(j.GetExpr(), "ab, 42");
  EXPECT_EQ(j.CanAddString("xy", 1), 1);
  EXPECT_EQ(j.CanAddString("xyz", 1), 0);
  EXPECT_EQ(j.AddString("xyz", 1), 0);  // refused whole
  EXPECT_STREQ(j.GetExpr(), "ab, 42");
  EXPECT_EQ(j.IsOk(), 0);
  EXPECT_EQ(j.AddString("xyz", 0), 1);
  EXPECT_STREQ(j.GetExpr(), "ab, 42xyz");
  EXPECT_EQ(j.AddString(4294967295u, 0), 0);
  j.reset();
  EXPECT_STREQ(j.GetExpr(), "");
  EXPECT_EQ(j.IsOk(), 1);
  EXPECT_EQ(j.AddString(4294967295u, 1), 1);
  EXPECT_STREQ(j.GetExpr(), "4294967295");

  ExprJoin none(0, ",");
  EXPECT_EQ(none.AddString("", 0), 0);
  EXPECT_STREQ(none.GetExpr(), "");
  std::string const longSep(513, '-');
  ExprJoin noSep(8, longSep.c_str());
  noSep.AddString("a", 1);
  noSep.AddString("b", 1);
  EXPECT_STREQ(noSep.GetExpr(), "ab");
}

}  // namespace
