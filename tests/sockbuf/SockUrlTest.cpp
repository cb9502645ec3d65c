#include "sockbuf/SockUrl.h"

#include <gtest/gtest.h>

#include <string>

TEST(SockUrl, EachFormFillsItsFields) {
  SockUrl u;
  ASSERT_EQ(1, u.Parse("TCP://media.example:5004"));
  EXPECT_EQ(SockUrl::kTcp, u.kind);
  EXPECT_STREQ("media.example", u.host);
  EXPECT_EQ(5004, u.port);
  EXPECT_TRUE(u.IsStream());

  ASSERT_EQ(1, u.Parse("tcp-listen://:0"));
  EXPECT_EQ(SockUrl::kTcpListen, u.kind);
  EXPECT_STREQ("", u.host);
  EXPECT_EQ(0, u.port);

  ASSERT_EQ(1, u.Parse("udp://127.0.0.1:65535"));
  EXPECT_EQ(SockUrl::kUdp, u.kind);
  EXPECT_EQ(65535, u.port);
  EXPECT_FALSE(u.IsStream());

  ASSERT_EQ(1, u.Parse("udp://@239.1.2.3:6000"));
  EXPECT_EQ(SockUrl::kUdpMulticast, u.kind);
  EXPECT_STREQ("239.1.2.3", u.host);

  ASSERT_EQ(1, u.Parse("file:///tmp/a.rec"));
  EXPECT_EQ(SockUrl::kFile, u.kind);
  EXPECT_STREQ("/tmp/a.rec", u.path);
  EXPECT_FALSE(u.IsNetwork());
}

TEST(SockUrl, RefusesWhatItCannotOpenAndClearsTheFields) {
  SockUrl u;
  ASSERT_EQ(1, u.Parse("tcp://h:1"));
  for (char const* bad : {"", "http://h:80", "tcp://h", "tcp://:80", "tcp://h:0", "tcp://h:65536",
                          "tcp://h:12a", "tcp://h:123456", "tcp://h/x:80", "udp://@10.0.0.1:5",
                          "udp://@239.1.2.300:5", "udp://@239.1.2.3x:5",
                          "file://"}) {
    EXPECT_EQ(0, u.Parse(bad)) << bad;
    EXPECT_EQ(SockUrl::kNone, u.kind) << bad;
    EXPECT_STREQ("", u.host) << bad;
  }
  EXPECT_EQ(0, u.Parse(nullptr));
}

TEST(SockUrl, LengthLimitsAreExact) {
  SockUrl u;
  std::string host(255, 'h');
  EXPECT_EQ(1, u.Parse(("tcp://" + host + ":1").c_str()));
  EXPECT_EQ(0, u.Parse(("tcp://" + host + "h:1").c_str()));
  std::string path(260, 'p');
  EXPECT_EQ(1, u.Parse(("file://" + path).c_str()));
  EXPECT_EQ(0, u.Parse(("file://" + path + "p").c_str()));
}
