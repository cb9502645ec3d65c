// IpString and XIpAddr: dotted hosts, resolved names, refusals, setters fed
// with the object's own fields.
#include "socket/XIpAddr.h"

#include "NetnsSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>

namespace {

bool SinIsZero(XIpAddr &a) {
  sockaddr_in zero{};
  return std::memcmp(a.GetSin(), &zero, sizeof(zero)) == 0;
}

void ExpectCleared(XIpAddr &a) {
  EXPECT_STREQ("", a.GetHost());
  EXPECT_EQ(0u, a.GetPort());
  EXPECT_EQ(XIpAddr::kNoAddr, a.GetIpLong());
  EXPECT_TRUE(SinIsZero(a));
  EXPECT_EQ(0, a.IsOk());
}

TEST(IpString, BlankEmptiesAndLongTextIsCut) {
  IpString s("  ");
  EXPECT_STREQ("", s.GetIp());
  s.SetIp("10.231.0.2");
  EXPECT_STREQ("10.231.0.2", s.GetIp());
  s.SetIp("not-an-address-but-kept");
  EXPECT_STREQ("not-an-address-", s.GetIp());
  s.SetIp(nullptr);
  EXPECT_STREQ("", s.GetIp());
}

TEST(XIpAddr, DottedHostFillsIpAndSin) {
  XIpAddr a("192.168.1.10", 5000, nullptr);
  EXPECT_EQ(::inet_addr("192.168.1.10"), a.GetIpLong());
  EXPECT_EQ(AF_INET, a.GetSin()->sin_family);
  EXPECT_EQ(htons(5000), a.GetSin()->sin_port);
  EXPECT_EQ(::inet_addr("192.168.1.10"), a.GetSin()->sin_addr.s_addr);
  EXPECT_STREQ("192.168.1.10", a.GetHost());
  EXPECT_EQ(5000u, a.GetPort());
  EXPECT_EQ(10, a.GetTTL());
  EXPECT_STREQ("", a.GetLocalIp());
  EXPECT_EQ(1, a.IsOk());
}

TEST(XIpAddr, NameResolvesIntoSinWhileIpStaysUnset) {
  XIpAddr a;
  ASSERT_EQ(1, a.SetAddr("localhost", 80, "127.0.0.1"));
  EXPECT_EQ(XIpAddr::kNoAddr, a.GetIpLong());
  EXPECT_EQ(AF_INET, a.GetSin()->sin_family);
  EXPECT_EQ(htons(80), a.GetSin()->sin_port);
  EXPECT_EQ(127u, ntohl(a.GetSin()->sin_addr.s_addr) >> 24);
  EXPECT_STREQ("localhost", a.GetHost());
  EXPECT_STREQ("127.0.0.1", a.GetLocalIp());
  EXPECT_EQ(1, a.IsOk());
}

TEST(XIpAddr, RefusedSetAddrLeavesObjectCleared) {
  XIpAddr a("10.0.0.1", 1234, nullptr);
  EXPECT_EQ(0, a.SetAddr("10.0.0.1", 0, nullptr));
  ExpectCleared(a);
  ASSERT_EQ(1, a.SetAddr("10.0.0.1", 1234, nullptr));
  EXPECT_EQ(0, a.SetAddr("10.0.0.1", 1234, "abc"));
  ExpectCleared(a);
  EXPECT_STREQ("", a.GetLocalIp());
  EXPECT_EQ(0, a.SetAddr("   ", 1234, nullptr));
  ExpectCleared(a);
  // A port that does not fit the address record is refused, not cut.
  EXPECT_EQ(0, a.SetAddr("10.0.0.1", 65536, nullptr));
  ExpectCleared(a);
  EXPECT_EQ(1, a.SetAddr("10.0.0.1", 65535, nullptr));
}

TEST(XIpAddr, CopyTakesHostAndPortButNotLocalIp) {
  XIpAddr src("10.0.0.7", 7000, "10.0.0.1");
  XIpAddr dst;
  ASSERT_EQ(1, dst.SetAddr(&src));
  EXPECT_STREQ("10.0.0.7", dst.GetHost());
  EXPECT_EQ(7000u, dst.GetPort());
  EXPECT_STREQ("", dst.GetLocalIp());
  EXPECT_EQ(src.GetSin()->sin_addr.s_addr, dst.GetSin()->sin_addr.s_addr);

  dst.SetTTL(3);
  EXPECT_EQ(0, dst.SetAddr(nullptr));
  ExpectCleared(dst);
  EXPECT_EQ(10, dst.GetTTL());
}

TEST(XIpAddr, SettersAcceptTheObjectsOwnFields) {
  XIpAddr a("10.0.0.7", 7000, "10.0.0.1");
  ASSERT_EQ(1, a.SetAddr(&a));
  EXPECT_STREQ("10.0.0.7", a.GetHost());
  ASSERT_EQ(1, a.SetAddr(a.GetHost(), 7001, a.GetLocalIp()));
  EXPECT_STREQ("10.0.0.7", a.GetHost());
  EXPECT_EQ(7001u, a.GetPort());
  ASSERT_EQ(1, a.SetAddr("10.0.0.7", 7001, "10.0.0.1"));
  EXPECT_EQ(1, a.SetLocalIp(a.GetLocalIp()));
  EXPECT_STREQ("10.0.0.1", a.GetLocalIp());
  EXPECT_EQ(1, a.SetIp(a.GetHost()));
  EXPECT_STREQ("10.0.0.7", a.GetHost());
  a.SetHost(a.GetHost());
  EXPECT_STREQ("10.0.0.7", a.GetHost());
  a.SetHost(a.GetHost() + 3, 4);
  EXPECT_STREQ("0.0.", a.GetHost());
}

TEST(XIpAddr, SetIpKeepsPortAndSin) {
  XIpAddr a("10.0.0.7", 7000, nullptr);
  sockaddr_in before = *a.GetSin();
  ASSERT_EQ(1, a.SetIp("10.1.2.3"));
  EXPECT_STREQ("10.1.2.3", a.GetHost());
  EXPECT_EQ(::inet_addr("10.1.2.3"), a.GetIpLong());
  EXPECT_EQ(7000u, a.GetPort());
  EXPECT_EQ(0, std::memcmp(&before, a.GetSin(), sizeof(before)));

  EXPECT_EQ(0, a.SetIp("ten.one"));
  EXPECT_STREQ("", a.GetHost());
  EXPECT_EQ(XIpAddr::kNoAddr, a.GetIpLong());
  EXPECT_EQ(0, a.SetIp(static_cast<char const *>(nullptr)));

  ASSERT_EQ(1, a.SetIp(::inet_addr("172.16.5.4")));
  EXPECT_STREQ("172.16.5.4", a.GetHost());
  EXPECT_EQ(::inet_addr("172.16.5.4"), a.GetIpLong());
  EXPECT_EQ(0, a.SetIp(XIpAddr::kNoAddr));
  EXPECT_STREQ("", a.GetHost());
}

TEST(XIpAddr, SetHostCutsAndMeasures) {
  XIpAddr a("10.0.0.7", 7000, nullptr);
  std::string const longName(70, 'h');
  a.SetHost(longName.c_str(), 63);
  EXPECT_EQ(std::string(63, 'h'), a.GetHost());
  EXPECT_EQ(::inet_addr("10.0.0.7"), a.GetIpLong()) << "the length form leaves ip alone";
  a.SetHost(longName.c_str(), 64);
  EXPECT_STREQ("", a.GetHost());
  a.SetHost("abcdef", 3);
  EXPECT_STREQ("abc", a.GetHost());
  a.SetHost("ab", 10);
  EXPECT_STREQ("ab", a.GetHost());
  a.SetHost(nullptr, 3);
  EXPECT_STREQ("", a.GetHost());

  a.SetHost(longName.c_str());
  EXPECT_EQ(std::string(63, 'h'), a.GetHost());
  EXPECT_EQ(XIpAddr::kNoAddr, a.GetIpLong());
  a.SetHost("  ");
  EXPECT_STREQ("", a.GetHost());
}

TEST(XIpAddr, CompAddrIgnoresCaseOfHostAndLocalIp) {
  XIpAddr a;
  a.SetHost("Media.Example");
  a.SetPortA(554);
  EXPECT_EQ(1, a.CompAddr("media.EXAMPLE", 554, ""));
  EXPECT_EQ(1, a.CompAddr("media.example", 554, nullptr));
  EXPECT_EQ(0, a.CompAddr("media.example", 555, ""));
  EXPECT_EQ(0, a.CompAddr("media.example", 554, "10.0.0.1"));
  EXPECT_EQ(0, a.CompAddr(nullptr, 554, ""));
}

TEST(XIpAddr, IsOkRefusesANumberThatIsNoAddress) {
  XIpAddr a;
  a.SetHost("12345");
  a.SetPortA(80);
  EXPECT_EQ(0, a.IsOk()) << "a bare number with no parsed address";
  a.SetHost("media");
  EXPECT_EQ(1, a.IsOk());
  a.SetPortA(0);
  EXPECT_EQ(0, a.IsOk());
  // inet_addr takes a bare number as an address, so SetIp makes it usable.
  ASSERT_EQ(1, a.SetIp("12345"));
  a.SetPortA(80);
  EXPECT_EQ(1, a.IsOk());
}

// In a namespace with only loopback no resolver can be reached, so the
// look-up fails at once and never leaves the machine.
TEST(XIpAddrNetns, UnresolvableNameRefusesAndClears) {
  NSTEST_REQUIRE_NETNS();
  nstest::Netns ns("r");
  ASSERT_TRUE(ns.ok());
  ns.RunIn([] {
    XIpAddr a("10.0.0.7", 7000, "10.0.0.1");
    EXPECT_EQ(0, a.SetAddr("no-such-host.invalid", 7000, "10.0.0.1"));
    ExpectCleared(a);
    EXPECT_STREQ("", a.GetLocalIp());
  });
}

}  // namespace
