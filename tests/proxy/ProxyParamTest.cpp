#include "proxy/ProxyParam.h"

#include <gtest/gtest.h>

#include <string>

TEST(ProxyParam, PortDefaultsFollowTheType) {
  ProxyParam socks("10.0.0.1", 0, nullptr, nullptr, ProxyParam::kTypeSocks5);
  EXPECT_EQ(1080u, socks.GetPort());
  EXPECT_EQ(1, socks.IsRdy());
  EXPECT_EQ(0, socks.CanAuth());
  EXPECT_EQ(1, socks.IsSocks5());

  ProxyParam http("10.0.0.1", 0, nullptr, nullptr, ProxyParam::kTypeHTTP);
  EXPECT_EQ(80u, http.GetPort());

  // An unknown type falls back to the HTTP proxy, which shares 1080.
  ProxyParam odd("10.0.0.1", 0, nullptr, nullptr, 9);
  EXPECT_EQ(2u, odd.GetProxyType());
  EXPECT_EQ(1080u, odd.GetPort());
  EXPECT_EQ(0, odd.SetProxyType(0));
  EXPECT_EQ(1, odd.SetProxyType(ProxyParam::kTypeHTTP));

  ProxyParam fixed("10.0.0.1", 8080, nullptr, nullptr, ProxyParam::kTypeHTTP);
  EXPECT_EQ(8080u, fixed.GetPort());
}

TEST(ProxyParam, ResetLeavesTheHTTPProxyTypeAndNothingReady) {
  ProxyParam p("proxy.lan", 3128, "bob", "pw", ProxyParam::kTypeSocks5);
  ASSERT_EQ(1, p.IsRdy());
  p.reset();
  EXPECT_EQ(0, p.IsRdy());
  EXPECT_EQ(2u, p.GetProxyType());
  EXPECT_EQ(0u, p.GetPort());
  EXPECT_STREQ("", p.GetHost());
  EXPECT_STREQ("", p.GetUser());
  EXPECT_STREQ("", p.GetPassword());
  ProxyParam fresh;
  EXPECT_EQ(2u, fresh.GetProxyType());
  EXPECT_EQ(0, fresh.IsRdy());
}

TEST(ProxyParam, TextFieldsAreCutTrimmedAndBlankedOut) {
  ProxyParam p("10.0.0.1", 0, nullptr, nullptr, ProxyParam::kTypeSocks5);
  p.SetUser(std::string(40, 'u').c_str());
  EXPECT_EQ(std::string(30, 'u'), p.GetUser());
  EXPECT_EQ(1, p.CanAuth());  // a user without a password may authenticate
  p.SetPasswd((std::string(70, 'p')).c_str());
  EXPECT_EQ(std::string(63, 'p'), p.GetPassword());
  p.SetHost(std::string(80, 'h').c_str());
  EXPECT_EQ(std::string(63, 'h'), p.GetHost());
  p.SetHost("proxy.lan   ");
  EXPECT_STREQ("proxy.lan", p.GetHost());
  p.SetHost("   ");
  EXPECT_STREQ("", p.GetHost());
  EXPECT_EQ(0, p.IsRdy());
  p.SetUser(nullptr);
  EXPECT_EQ(0, p.CanAuth());
}

TEST(ProxyParam, CopyRunsTheSettersAndAssignmentCopiesAsIs) {
  ProxyParam src("gw", 0, "ann", "secret", ProxyParam::kTypeHTTP);
  ProxyParam dst;
  dst.Copy(src);
  EXPECT_STREQ("gw", dst.GetHost());
  EXPECT_STREQ("ann", dst.GetUser());
  EXPECT_STREQ("secret", dst.GetPassword());
  EXPECT_EQ(80u, dst.GetPort());
  EXPECT_EQ(1, dst.IsHTTP());
  ProxyParam same;
  same = src;
  EXPECT_STREQ("secret", same.GetPassword());
  EXPECT_EQ(80u, same.GetPort());
}
