// CAdapter: the formatted hardware addresses against the system's own view
// (sysfs) and against interfaces whose addresses the test sets.
#include "socket/CAdapter.h"

#include "NetnsSupport.h"

#include <gtest/gtest.h>

#include <net/if.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string ReadFirstLine(std::filesystem::path const &p) {
  std::ifstream in(p);
  std::string line;
  std::getline(in, line);
  return line;
}

// "aa:bb:cc:dd:ee:ff" as the adapter text: blanks, padded to eight bytes.
std::string EightByteText(std::string mac) {
  std::replace(mac.begin(), mac.end(), ':', ' ');
  while (mac.size() < 23)
    mac += mac.empty() ? "00" : " 00";
  return mac;
}

std::vector<std::string> Walk(CAdapter &a) {
  std::vector<std::string> out;
  char text[24];
  for (int r = a.GetFirstMACaddress(text, sizeof(text)); r == 1; r = a.GetNextMACaddress(text, sizeof(text)))
    out.push_back(text);
  return out;
}

TEST(CAdapter, ListsThisMachinesAdaptersAsSysfsShowsThem) {
  std::vector<std::string> expected;
  for (auto const &e : std::filesystem::directory_iterator("/sys/class/net")) {
    unsigned long flags = std::stoul(ReadFirstLine(e.path() / "flags"), nullptr, 16);
    std::string addr = ReadFirstLine(e.path() / "address");
    if ((flags & IFF_LOOPBACK) != 0 || addr.size() > 23)
      continue;
    expected.push_back(EightByteText(addr));
  }
  CAdapter a;
  if (expected.empty()) {
    EXPECT_EQ(0, a.IsOk());
    return;
  }
  ASSERT_EQ(1, a.IsOk());
  std::vector<std::string> got = Walk(a);
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(expected, got);
}

TEST(CAdapter, RefusesShortOrMissingTextAndNextBeforeFirst) {
  CAdapter a;
  if (!a.IsOk())
    GTEST_SKIP() << "this machine lists no adapter";
  char text[64];
  EXPECT_EQ(0, a.GetNextMACaddress(text, sizeof(text))) << "no cursor yet";
  EXPECT_EQ(0, a.GetFirstMACaddress(text, 23));
  EXPECT_EQ(0, a.GetFirstMACaddress(nullptr, 24));
  EXPECT_EQ(1, a.GetFirstMACaddress(text, 24));
  EXPECT_EQ(23u, std::string(text).size());
  EXPECT_EQ(0, a.GetNextMACaddress(text, 23));
}

class CAdapterNetns : public ::testing::Test {
protected:
  void SetUp() override {
    NSTEST_REQUIRE_NETNS();
    ns_ = std::make_unique<nstest::Netns>("m");
    peer_ = std::make_unique<nstest::Netns>("p");
    ASSERT_TRUE(ns_->ok() && peer_->ok());
  }
  // A veth with the given address in ns_, its other end in peer_.
  bool AddVeth(std::string const &tag, std::string const &mac) {
    return nstest::RunOk(ns_->ip() + "link add " + nstest::Netns::Ifname(tag) + " address " + mac +
                         " type veth peer name " + nstest::Netns::Ifname(tag + "p") + " netns " +
                         peer_->name());
  }
  std::unique_ptr<nstest::Netns> ns_;
  std::unique_ptr<nstest::Netns> peer_;
};

TEST_F(CAdapterNetns, LoopbackAloneIsNoAdapter) {
  ns_->RunIn([] {
    CAdapter a;
    char text[24];
    EXPECT_EQ(0, a.IsOk());
    EXPECT_EQ(0, a.GetFirstMACaddress(text, sizeof(text)));
  });
}

TEST_F(CAdapterNetns, SixByteAddressPrintsEightBytesAndTheListEnds) {
  ASSERT_TRUE(AddVeth("a", "00:1a:2b:3c:4d:5e"));
  std::unique_ptr<CAdapter> one;
  ns_->RunIn([&] { one = std::make_unique<CAdapter>(); });
  ASSERT_TRUE(one && one->IsOk());
  char text[24];
  ASSERT_EQ(1, one->GetFirstMACaddress(text, sizeof(text)));
  EXPECT_STREQ("00 1a 2b 3c 4d 5e 00 00", text);
  EXPECT_EQ(0, one->GetNextMACaddress(text, sizeof(text)));
  EXPECT_EQ(0, one->GetNextMACaddress(text, sizeof(text))) << "stays at the end";
  ASSERT_EQ(1, one->GetFirstMACaddress(text, sizeof(text))) << "First starts again";
  EXPECT_STREQ("00 1a 2b 3c 4d 5e 00 00", text);

  // A second adapter shows in a new object; the first keeps its snapshot.
  ASSERT_TRUE(AddVeth("b", "02:a0:b1:c2:d3:e4"));
  std::vector<std::string> two;
  ns_->RunIn([&] {
    CAdapter a;
    two = Walk(a);
  });
  EXPECT_EQ((std::vector<std::string>{"00 1a 2b 3c 4d 5e 00 00", "02 a0 b1 c2 d3 e4 00 00"}), two);
  EXPECT_EQ((std::vector<std::string>{"00 1a 2b 3c 4d 5e 00 00"}), Walk(*one));
}

}  // namespace
