#include "text/XStr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(XStrDyn, ConstructionAllocatesAsDocumented) {
  XStrDyn unlimited(0u);
  EXPECT_EQ(31u, unlimited.GetAllocated());
  EXPECT_STREQ("", unlimited.GetStr());
  EXPECT_TRUE(unlimited.IsEmpty());

  XStrDyn ten(10u);
  EXPECT_EQ(11u, ten.GetAllocated());
  ten = "abcdefghijklmnop";
  EXPECT_STREQ("abcdefghij", ten.GetStr());
  EXPECT_EQ(10u, ten.GetSize());

  XStrDyn fromText("hello");
  EXPECT_EQ(6u, fromText.GetAllocated());
  EXPECT_EQ(0u, fromText.GetMaxSize());

  XStrDyn copy(ten);  // the limit is not copied
  EXPECT_EQ(0u, copy.GetMaxSize());
  copy += "XYZ";
  EXPECT_STREQ("abcdefghijXYZ", copy.GetStr());
}

TEST(XStrDyn, AppendRules) {
  XStrDyn s(0u);
  s += "abc";  // empty: behaves as Assign
  EXPECT_STREQ("abc", s.GetStr());
  s += "";
  s += static_cast<char const *>(nullptr);
  EXPECT_STREQ("abc", s.GetStr());

  XStrDyn limited(5u);
  limited = "abc";
  limited += "defgh";
  EXPECT_STREQ("abcde", limited.GetStr());
  limited += "x";  // full: nothing changes
  EXPECT_STREQ("abcde", limited.GetStr());

  XStrDyn exact("ab");
  exact += "cde";  // growth is exact-fit
  EXPECT_EQ(6u, exact.GetAllocated());
  EXPECT_STREQ("abcde", exact.GetStr());
}

TEST(XStrDyn, SelfReferenceIsSafe) {
  XStrDyn s("abcdef");
  s += s;  // grows while reading its own text
  EXPECT_STREQ("abcdefabcdef", s.GetStr());
  s = s.GetStr() + 3;
  EXPECT_STREQ("defabcdef", s.GetStr());
  s = s;
  EXPECT_STREQ("defabcdef", s.GetStr());
}

TEST(XStrDyn, CopyAssignmentKeepsBufferAtLeastSourceAllocation) {
  XStrDyn big(200u);
  big = "0123456789";
  XStrDyn small("x");
  small = big;
  EXPECT_EQ(big.GetAllocated(), small.GetAllocated());
  // The counter is real: filling up to it must stay inside the buffer (ASan).
  small += std::string(150, 'y').c_str();
  EXPECT_EQ(160u, small.GetSize());
}

TEST(XStr, ComparisonIgnoresCaseAndNullIsUnequal) {
  XStrDyn a("Abc");
  EXPECT_TRUE(a == "aBC");
  EXPECT_TRUE("ABC" == a);
  EXPECT_TRUE(a == XStrDyn("abc"));
  EXPECT_FALSE(a == "abd");
  EXPECT_FALSE(a == static_cast<char const *>(nullptr));
  EXPECT_TRUE(a != static_cast<char const *>(nullptr));
}

TEST(XStr, StartsWithUsesTheShorterLength) {
  XStrDyn ab("ab");
  EXPECT_TRUE(ab.StartsWith("abc"));
  EXPECT_TRUE(ab.StartsWith("a"));
  EXPECT_FALSE(ab.StartsWith("Ab"));
  EXPECT_FALSE(ab.StartsWith(""));
  EXPECT_FALSE(ab.StartsWith(nullptr));
  EXPECT_FALSE(XStrDyn("").StartsWith("a"));
}

TEST(XStr, SearchAndSubstrings) {
  XStrDyn banana("banana");
  EXPECT_EQ(2u, banana.StrChr('a'));
  EXPECT_EQ(0u, banana.StrChr('z'));
  EXPECT_EQ(0u, banana.StrChr(0));
  EXPECT_EQ(3u, banana.StrStr("nan"));
  EXPECT_EQ(0u, banana.StrStr("xyz"));
  EXPECT_EQ(0u, banana.StrStr(""));

  XStrDyn hello("hello");
  char dst[16];
  EXPECT_STREQ("llo", hello.SubStr(dst, 2, 100));
  EXPECT_STREQ("", hello.SubStr(dst, 5, 1));
  EXPECT_STREQ("", hello.SubStr(dst, 1, 0));
  EXPECT_EQ(nullptr, hello.SubStr(nullptr, 0, 1));

  EXPECT_EQ('e', hello.At(1));
  EXPECT_EQ('\0', hello.At(5));
  hello.At(99) = 'x';  // writes land nowhere visible
  EXPECT_EQ('\0', hello.At(100));
  EXPECT_STREQ("hello", hello.GetStr());
}

TEST(XStr, BlankAndNumbersAndFormat) {
  XStrDyn s("   ");
  EXPECT_TRUE(s.IsBlank());
  EXPECT_FALSE(s.IsEmpty());
  s = "\t";
  EXPECT_FALSE(s.IsBlank());
  s.Assign(255, 16);
  EXPECT_STREQ("ff", s.GetStr());
  s.Assign(-1, 10);
  EXPECT_STREQ("-1", s.GetStr());
  s.Format("%s-%04d", "id", 7);
  EXPECT_STREQ("id-0007", s.GetStr());

  XStrDyn limited(4u);
  limited.Format("%d", 123456);
  EXPECT_STREQ("1234", limited.GetStr());

  // Output longer than the scratch buffer is cut, not written past it.
  XStrDyn huge(0u);
  std::string arg(40000, 'w');
  huge.Format("%s", arg.c_str());
  EXPECT_EQ(32767u, huge.GetSize());
}

TEST(XStrStatic, ConcatenationIsCutAt16384) {
  XStrDyn a(std::string(10000, 'a').c_str());
  XStrDyn b(std::string(10000, 'b').c_str());
  XStrStatic<16384> joined = a + b;
  ASSERT_EQ(16384u, joined.GetSize());
  EXPECT_EQ('a', joined.At(9999));
  EXPECT_EQ('b', joined.At(10000));
  EXPECT_EQ('\0', joined.GetStr()[16384]);

  XStrStatic<16384> text = "x" + XStrDyn("y");
  text += "z";
  EXPECT_STREQ("xyz", text.GetStr());
  XStrStatic<16384> empty(static_cast<char const *>(nullptr));
  EXPECT_TRUE(empty.IsEmpty());
  XStrStatic<16384> nothing = static_cast<char const *>(nullptr) + XStrDyn("q");
  EXPECT_STREQ("q", nothing.GetStr());

  // A copy owns its own buffer.
  XStrStatic<16384> copy(text);
  copy += "!";
  EXPECT_STREQ("xyz", text.GetStr());
  EXPECT_STREQ("xyz!", copy.GetStr());
  copy = copy.GetStr() + 1;
  EXPECT_STREQ("yz!", copy.GetStr());
}

TEST(XStr, BaseCopyIsAShallowView) {
  XStrDyn owner("view");
  XStr const &base = owner;
  XStrStatic<16384> holder(base);
  EXPECT_STREQ("view", holder.GetStr());
  EXPECT_NE(owner.GetStr(), holder.GetStr());
}

}  // namespace
