#include "platform/Compat.h"
#include "platform/PlatformInfo.h"
#include "platform/Types.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Compat, ItoaFollowsTheWindowsRules) {
  char buf[40];
  EXPECT_STREQ("ff", _itoa(255, buf, 16));
  EXPECT_STREQ("-1", _itoa(-1, buf, 10));
  EXPECT_STREQ("ffffffff", _itoa(-1, buf, 16));  // no sign outside radix 10
  EXPECT_STREQ("-2147483648", _itoa(-2147483647 - 1, buf, 10));
  EXPECT_STREQ("11111111111111111111111111111111", _itoa(-1, buf, 2));
  EXPECT_STREQ("", _itoa(5, buf, 1));
}

TEST(Compat, SnprintfAlwaysTerminates) {
  char buf[4];
  EXPECT_EQ(-1, _snprintf(buf, sizeof buf, "%s", "abcdef"));
  EXPECT_STREQ("abc", buf);
  EXPECT_EQ(2, _snprintf(buf, sizeof buf, "%d", 42));
  EXPECT_EQ(0, _stricmp("MiXed", "mIxED"));
  EXPECT_EQ(0, _strnicmp("abcX", "ABCy", 3));
}

TEST(Compat, CaseInsensitiveCompareTakesNull) {
  EXPECT_EQ(0, _stricmp(nullptr, nullptr));
  EXPECT_LT(_stricmp(nullptr, ""), 0);
  EXPECT_GT(_stricmp("a", nullptr), 0);
  EXPECT_LT(_strnicmp(nullptr, "a", 1), 0);
  EXPECT_EQ(0, _strnicmp(nullptr, "a", 0));
}

TEST(Platform, TestsAndResultCodes) {
  EXPECT_EQ(1, IsLinux());
  EXPECT_EQ(0, IsApple());
  EXPECT_EQ(0, IsWindowsVistaOrHigher());
  EXPECT_EQ(0x00030201L, STG_S_BLOCK);
  EXPECT_EQ(static_cast<HRESULT>(static_cast<std::int32_t>(0x80030005u)), STG_E_ACCESSDENIED);
  EXPECT_EQ(static_cast<std::uint32_t>(0x80030009u), static_cast<std::uint32_t>(STG_E_INVALIDPOINTER));
  EXPECT_EQ(static_cast<std::uint32_t>(0x80030201u), static_cast<std::uint32_t>(STG_E_INCOMPLETE));
  EXPECT_EQ(0xFFFFFFFFu, INVALID_SOCKET);
}

}  // namespace
