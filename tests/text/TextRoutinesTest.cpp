#include "text/TextRoutines.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(TextRoutines, CopyStringBoundsAndNulls) {
  char dst[8] = "zzzzzzz";
  CopyString(dst, "abcdef", 3);
  EXPECT_STREQ("abc", dst);
  CopyString(dst, nullptr, 3);
  EXPECT_STREQ("", dst);
  std::strcpy(dst, "xy");
  CopyString(dst, "abc", 0);
  EXPECT_STREQ("", dst);
  EXPECT_EQ(nullptr, CopyString(nullptr, "abc", 3));

  char raw[4] = {'x', 'x', 'x', 'x'};
  fstrncpy(raw, "abcd", 3);  // strncpy: no terminator when the source is long
  EXPECT_EQ(0, std::memcmp(raw, "abcx", 4));
}

TEST(TextRoutines, BlankTestsAndLengths) {
  EXPECT_TRUE(comp_branco("   "));
  EXPECT_TRUE(comp_branco(""));
  EXPECT_TRUE(comp_branco(nullptr));
  EXPECT_FALSE(comp_branco("\t"));
  EXPECT_FALSE(comp_branco("  a "));
  EXPECT_TRUE(iswhite(' '));
  EXPECT_TRUE(iswhite('\t'));
  EXPECT_FALSE(iswhite('\n'));
  char s[] = "ab  ";
  EXPECT_EQ(2, strlen_b(s));
  EXPECT_EQ(0, strlen_b(nullptr));
  EXPECT_EQ(0, fstricmp("HeLLo", "hEllO"));
  EXPECT_LT(fstricmp("abc", "abd"), 0);
}

TEST(TextRoutines, TrimKeepsTabsAndWorksInPlace) {
  char buf[32] = "  a b \t  ";
  EXPECT_STREQ("  a b \t", trim(buf, buf));
  EXPECT_STREQ("a b \t", strim(buf, buf));
  char out[32];
  EXPECT_STREQ("x", strim("   x  ", out));
  EXPECT_STREQ("", strim("     ", out));
  EXPECT_STREQ("", trim(nullptr, out));
}

TEST(TextRoutines, AjustaStrFitsFields) {
  char field[64];
  EXPECT_STREQ("  ab", ajusta_str("  ab  ", field, 63));
  EXPECT_STREQ("", ajusta_str(nullptr, field, 63));
  char small[4];
  EXPECT_STREQ("abc", ajusta_str("abcdef", small, 3));
  EXPECT_STREQ("ab", ajusta_str("ab cd", small, 3));  // cut, then trimmed
  std::strcpy(field, "in place  ");
  EXPECT_STREQ("in place", ajusta_str(field, field, 63));
  EXPECT_STREQ("KEY 1", ajusta_upp_str("key 1  ", field, 63));
  EXPECT_EQ(nullptr, ajusta_str("x", nullptr, 10));

  std::string longName(300, 'n');
  char path[261];
  ajusta_str(longName.c_str(), path, 260);
  EXPECT_EQ(260u, std::strlen(path));
}

TEST(TextRoutines, UpperLowerIncludeTerminator) {
  char buf[16];
  EXPECT_STREQ("MIXED 1", upper("MiXeD 1", buf));
  EXPECT_STREQ("mixed 1", lower(buf, buf));
}

TEST(TextRoutines, RemoveEolConsumesEachLineEndWhole) {
  char dst[16];
  EXPECT_EQ(4, removeEOL("ab\r\ncd", dst, sizeof dst, 1));
  EXPECT_STREQ("ab", dst);
  EXPECT_EQ(3, removeEOL("ab\ncd", dst, sizeof dst, 1));
  EXPECT_EQ(3, removeEOL("ab\r\rcd", dst, sizeof dst, 1));  // a lone CR ends the line
  EXPECT_EQ(1, removeEOL("\n", dst, sizeof dst, 1));
  EXPECT_STREQ("", dst);
  EXPECT_EQ(0, removeEOL("ab", dst, sizeof dst, 1));
  EXPECT_STREQ("", dst);
  EXPECT_EQ(2, removeEOL("ab", dst, sizeof dst, 0));
  EXPECT_STREQ("ab", dst);
  // The copy is cut at size - 1 but the count covers the whole line.
  EXPECT_EQ(9, removeEOL("abcdefgh\n", dst, 4, 1));
  EXPECT_STREQ("abc", dst);
  EXPECT_EQ(0, removeEOL(nullptr, dst, sizeof dst, 0));
  EXPECT_EQ(0, removeEOL("a\n", dst, 0, 0));
}

TEST(TextRoutines, AjustaStringModes) {
  char dst[16];
  EXPECT_STREQ("00042", ajusta_string("42", 5, 'Z', dst));
  EXPECT_STREQ("   42", ajusta_string("42", 5, 'D', dst));
  EXPECT_STREQ(" 42  ", ajusta_string("42", 5, 'C', dst));
  EXPECT_STREQ("42   ", ajusta_string("42", 5, 'E', dst));
  EXPECT_STREQ("42   ", ajusta_string("  42", 5, 'T', dst));
  EXPECT_STREQ("  42 ", ajusta_string("  42", 5, 'E', dst));  // leading kept
  EXPECT_STREQ("abc", ajusta_string("abcdef", 3, 'D', dst));
  EXPECT_STREQ("   ", ajusta_string(nullptr, 3, 'E', dst));

  std::string huge(2000, 'q');
  std::string wide(600, '\0');
  ajusta_string(huge.c_str(), 599, 'E', wide.data());
  EXPECT_EQ(std::string(512, 'q') + std::string(87, ' '), std::string(wide.c_str()));

  char rec[6] = {'#', '#', '#', '#', '#', '#'};
  ajusta_str_buf("7", 5, 'Z', rec);
  EXPECT_EQ(0, std::memcmp(rec, "00007#", 6));  // exactly width bytes, no NUL
  EXPECT_EQ(rec, ajusta_str_buf(nullptr, 5, 'Z', rec));
}

TEST(TextRoutines, NumbersAndClasses) {
  EXPECT_TRUE(is_number("123"));
  EXPECT_TRUE(is_number("-5"));
  EXPECT_FALSE(is_number(""));
  EXPECT_FALSE(is_number("-"));
  EXPECT_FALSE(is_number("12a"));
  EXPECT_FALSE(is_number(nullptr));
  EXPECT_EQ(-42, latoi("  -42xyz"));
  EXPECT_EQ(0, latoi("abc"));
  EXPECT_EQ(2147483647, latoi("99999999999999"));
  EXPECT_EQ(-2147483647 - 1, latoi("-99999999999999"));
  EXPECT_EQ(0xBEEFul, lhtol("0xbeefz"));
  EXPECT_EQ(-1, hctoi('g'));
  char buf[24];
  EXPECT_STREQ("-2147483648", litoa(-2147483647 - 1, buf));
  EXPECT_TRUE(isctrlchar('\x1f'));
  EXPECT_TRUE(isctrlchar('\x7f'));
  EXPECT_FALSE(isctrlchar(' '));
  EXPECT_TRUE(isdelim(' '));
  EXPECT_TRUE(isdelim(';'));
  EXPECT_FALSE(isdelim('a'));
  EXPECT_FALSE(ch_in_str('\0', "abc"));
}

TEST(TextRoutines, FilterAndSplit) {
  char s[] = "a\tb\x01" "c";
  EXPECT_EQ(3, FilterCtrlChars(s));
  EXPECT_STREQ("abc", s);
  char t[] = "a.b.c";
  EXPECT_EQ(2, SubstChar(t, '.', '/'));
  EXPECT_STREQ("a/b/c", t);
  EXPECT_EQ(3, FilterChar(t, '/'));
  char part[4];
  EXPECT_STREQ("nam", get_prefix("name.ext", '.', part, sizeof part));
  EXPECT_STREQ("ext", get_suffix("a.name.ext", '.', part, sizeof part));
  EXPECT_STREQ("", get_suffix("noext", '.', part, sizeof part));
  char fill[5];
  EXPECT_STREQ("----", fill_string(fill, '-', 4));
}

}  // namespace
