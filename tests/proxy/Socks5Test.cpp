// The SOCKS5 client against a scripted proxy: exact request bytes, and the
// replies a real server would not send.
#include "proxy/Socks5.h"

#include "FakeProxy.h"
#include "proxy/ProxyParam.h"
#include "socket/SocketCtrl.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using proxytest::Bytes;
using proxytest::FakeProxy;

std::string const kGreeting = Bytes({5, 5, 0, 2, 0, 0, 0});
std::string const kNoAuth = Bytes({5, 0});
// Success with bound address 127.0.0.1:4242.
std::string const kOkReply = Bytes({5, 0, 0, 1, 127, 0, 0, 1, 0x10, 0x92});

// A proxy that accepts the greeting without credentials, then runs more.
FakeProxy &NoAuth(FakeProxy &f) { return f.Expect(7).Reply(kNoAuth); }

TEST(Socks5Scripted, GreetingOffersNoAuthAndUserPassword) {
  FakeProxy f;
  int port = NoAuth(f).Start();
  Socks5 s;
  unsigned sock = Socks5::kNoSocket;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, &sock, nullptr));
  EXPECT_EQ(1, s.IsAuthOk());
  EXPECT_EQ(1, s.IsConnected());
  EXPECT_EQ(s.GetTCPSock(), sock);
  EXPECT_NE(Socks5::kNoSocket, sock);
  EXPECT_EQ(kGreeting, f.Finish());
}

TEST(Socks5Scripted, NoAcceptableMethodFailsTheConnect) {
  FakeProxy f;
  int port = f.Expect(7).Reply(Bytes({5, 255})).Start();
  Socks5 s;
  unsigned sock = 7;
  EXPECT_EQ(0, s.connect("127.0.0.1", port, "u", "p", &sock, nullptr));
  EXPECT_EQ(0, s.IsAuthOk());
  EXPECT_EQ(7u, sock);  // untouched on failure
  f.Finish();
}

TEST(Socks5Scripted, SubNegotiationLengths) {
  {
    // A blank user sends ULEN 0 directly followed by PLEN.
    FakeProxy f;
    int port = f.Expect(7).Reply(Bytes({5, 2})).Expect(5).Reply(Bytes({1, 0})).Start();
    Socks5 s;
    ASSERT_EQ(1, s.connect("127.0.0.1", port, "  ", "pw", nullptr, nullptr));
    EXPECT_EQ(kGreeting + Bytes({1, 0, 2, 'p', 'w'}), f.Finish());
  }
  {
    // A 300-character user is cut to 255 bytes; a failed status refuses.
    std::string user(300, 'u');
    FakeProxy f;
    int port = f.Expect(7).Reply(Bytes({5, 2})).Expect(3 + 255 + 1).Reply(Bytes({1, 1})).Start();
    Socks5 s;
    EXPECT_EQ(0, s.connect("127.0.0.1", port, user.c_str(), "x", nullptr, nullptr));
    EXPECT_EQ(0, s.IsAuthOk());
    EXPECT_EQ(kGreeting + Bytes({1, 255}) + std::string(255, 'u') + Bytes({1, 'x'}), f.Finish());
  }
}

TEST(Socks5Scripted, ProxyParamSuppliesCredentialsOnlyWhenItCanAuthenticate) {
  ProxyParam notReady;
  Socks5 idle;
  EXPECT_EQ(0, idle.connect(&notReady, nullptr, nullptr));
  EXPECT_EQ(0, idle.connect(nullptr, nullptr, nullptr));

  FakeProxy f;
  int port = f.Expect(7).Reply(Bytes({5, 2})).Expect(8).Reply(Bytes({1, 0})).Start();
  ProxyParam p("127.0.0.1", static_cast<unsigned long>(port), "ann", "pw", ProxyParam::kTypeSocks5);
  Socks5 s;
  ASSERT_EQ(1, s.connect(&p, nullptr, nullptr));
  EXPECT_EQ(kGreeting + Bytes({1, 3, 'a', 'n', 'n', 2, 'p', 'w'}), f.Finish());
}

TEST(Socks5Scripted, ConnectEncodesDottedHostsAndNames) {
  FakeProxy f;
  NoAuth(f).Expect(10).Reply(kOkReply).Expect(3 + 2 + 14 + 2).Reply(kOkReply);
  // Refused: the request fails but the negotiation stays valid.
  f.Expect(10).Reply(Bytes({5, 5, 0, 1, 0, 0, 0, 0, 0, 0})).Expect(10).Reply(kOkReply);
  int port = f.Start();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(1, s.xconnect("10.1.2.3", 80));
  EXPECT_EQ(1, s.xconnect("proxy.example1", 443));
  EXPECT_EQ(0, s.xconnect("10.1.2.3", 81));
  EXPECT_EQ(1, s.IsAuthOk());
  EXPECT_EQ(1, s.xconnect("", 82));
  EXPECT_EQ(kGreeting + Bytes({5, 1, 0, 1, 10, 1, 2, 3, 0, 80}) +
                Bytes({5, 1, 0, 3, 14}) + "proxy.example1" + Bytes({1, 187}) +
                Bytes({5, 1, 0, 1, 10, 1, 2, 3, 0, 81}) + Bytes({5, 1, 0, 1, 0, 0, 0, 0, 0, 82}),
            f.Finish());
}

TEST(Socks5Scripted, RequestsBeforeNegotiationSendNothing) {
  Socks5 s;
  EXPECT_EQ(0, s.xconnect("10.1.2.3", 80));
  EXPECT_EQ(0, s.xudpsend("10.1.2.3", 80, "x", 1));
  EXPECT_EQ(0, s.RemoveSock(1));
  EXPECT_EQ(0, s.RemoveSock(0));
  EXPECT_EQ(0, s.IsConnected());
}

// Replies that must fail a request without reading past what they announce
// or hanging: the proxy closes after each.
TEST(Socks5Scripted, MalformedRepliesFailTheRequest) {
  struct Case {
    char const *what;
    std::string reply;
  };
  Case const cases[] = {
      {"IPv6 address type", Bytes({5, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 80})},
      {"domain length 200", Bytes({5, 0, 0, 3, 200}) + std::string(202, 'a')},
      {"domain length 128", Bytes({5, 0, 0, 3, 128}) + std::string(130, 'a')},
      {"domain length 0", Bytes({5, 0, 0, 3, 0, 0, 80})},
      {"unknown address type", Bytes({5, 0, 0, 9, 1, 2, 3, 4, 0, 80})},
      {"truncated header", Bytes({5, 0})},
      {"truncated address", Bytes({5, 0, 0, 1, 127, 0})},
      {"missing port byte", Bytes({5, 0, 0, 1, 127, 0, 0, 1, 0})},
      {"truncated name", Bytes({5, 0, 0, 3, 20, 'a', 'b'})},
      {"general failure", Bytes({5, 1, 0, 1, 0, 0, 0, 0, 0, 0})},
  };
  for (auto const &c : cases) {
    SCOPED_TRACE(c.what);
    FakeProxy f;
    int port = NoAuth(f).Expect(10).Reply(c.reply).Start();
    Socks5 s;
    ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, s.xconnect("1.2.3.4", 5));
    f.Finish();
  }
  {
    SCOPED_TRACE("closed in the method answer");
    FakeProxy f;
    int port = f.Expect(7).Reply(Bytes({5})).Start();
    Socks5 s;
    EXPECT_EQ(0, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
    f.Finish();
  }
}

TEST(Socks5Scripted, BindReportsTheFirstReplyAndWaitsForTheSecond) {
  FakeProxy f;
  NoAuth(f).Expect(10).Reply(kOkReply).Reply(Bytes({5, 0, 0, 1, 10, 0, 0, 9, 0x15, 0xB3}));
  NoAuth(f).Expect(10).Reply(Bytes({5, 0, 0, 3, 9}) + "localhost" + Bytes({0x1F, 0x90}));
  f.Reply(Bytes({5, 0, 0, 3, 4}) + "peer" + Bytes({0, 1}));
  // A bound address of 255.255.255.255 is a failure when it is asked for.
  NoAuth(f).Expect(10).Reply(Bytes({5, 0, 0, 1, 255, 255, 255, 255, 0, 1}));
  int port = f.Start();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  unsigned short bport = 0;
  char baddr[16] = "junk";
  EXPECT_EQ(1, s.xbind(7000, "10.0.0.9", &bport, baddr, 15));
  EXPECT_EQ(4242, bport);
  EXPECT_STREQ("127.0.0.1", baddr);

  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));  // same connection
  EXPECT_EQ(1, s.xbind(7000, "10.0.0.9", &bport, baddr, 15));
  EXPECT_EQ(8080, bport);
  EXPECT_STREQ("localhost", baddr);

  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, s.xbind(7000, "10.0.0.9", &bport, baddr, 15));
  EXPECT_EQ(0, bport);
  EXPECT_STREQ("", baddr);
  std::string const bindReq = Bytes({5, 2, 0, 1, 10, 0, 0, 9, 0x1B, 0x58});
  EXPECT_EQ(kGreeting + bindReq + kGreeting + bindReq + kGreeting + bindReq, f.Finish());
}

TEST(Socks5Scripted, BoundAddressTooLongForTheBufferIsLeftEmpty) {
  FakeProxy f;
  NoAuth(f).Expect(10).Reply(Bytes({5, 0, 0, 1, 192, 168, 100, 200, 0, 1})).Reply(kOkReply);
  int port = f.Start();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  unsigned short bport = 0;
  char baddr[8] = "junk";
  EXPECT_EQ(1, s.xbind(1, "1.2.3.4", &bport, baddr, 7));
  EXPECT_STREQ("", baddr);
  EXPECT_EQ(1, bport);
  f.Finish();
}

TEST(Socks5Scripted, CodeFourCarriesThreeEndpointsAndNeedsTheSecond) {
  FakeProxy f;
  NoAuth(f).Expect(3 + 7 + 7 + 7).Reply(kOkReply);
  int port = f.Start();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, s.xconnecthttp("1.1.1.1", 1, "", 2, "3.3.3.3", 3));
  EXPECT_EQ(0, s.xconnecthttp("1.1.1.1", 1, "2.2.2.2", 0, "3.3.3.3", 3));
  EXPECT_EQ(1, s.xconnecthttp("1.1.1.1", 1, "2.2.2.2", 2, "", 0));
  // Had a refused request sent anything, these bytes would not line up.
  EXPECT_EQ(kGreeting + Bytes({5, 4, 0, 1, 1, 1, 1, 1, 0, 1, 1, 2, 2, 2, 2, 0, 2, 1, 0, 0, 0, 0, 0, 0}),
            f.Finish());
}

TEST(Socks5Scripted, UdpAssociateThenDatagramsCarryTheSocksHeader) {
  int relay = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a = proxytest::Loopback(0);
  ASSERT_EQ(0, ::bind(relay, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
  int rport = proxytest::BoundPort(relay);

  FakeProxy f;
  NoAuth(f).Expect(10).Reply(Bytes({5, 0, 0, 1, 127, 0, 0, 1, rport >> 8, rport & 0xFF}));
  int port = f.Start();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
  unsigned short gotPort = 0;
  char gotAddr[16] = "";
  ASSERT_EQ(1, s.xudp(0, "", &gotPort, gotAddr, 15));
  EXPECT_EQ(rport, gotPort);
  EXPECT_STREQ("127.0.0.1", gotAddr);
  EXPECT_NE(Socks5::kNoSocket, s.GetUDPSock());

  auto receive = [&] {
    char buf[20000];
    if (!proxytest::Readable(relay, 20000))
      return std::string();
    ssize_t r = ::recv(relay, buf, sizeof(buf), 0);
    return r > 0 ? std::string(buf, static_cast<size_t>(r)) : std::string();
  };
  ASSERT_EQ(1, s.xudpsend("", 9, "abc", 3));
  EXPECT_EQ(Bytes({0, 0, 0, 1, 255, 255, 255, 255, 0, 9}) + "abc", receive());
  ASSERT_EQ(1, s.xudpsend("10.0.0.5", 0x1234, nullptr, 5));
  EXPECT_EQ(Bytes({0, 0, 0, 1, 10, 0, 0, 5, 0x12, 0x34}), receive());
  ASSERT_EQ(1, s.xudpsend("media.host", 53, "q", 1));
  EXPECT_EQ(Bytes({0, 0, 0, 3, 10}) + "media.host" + Bytes({0, 53}) + "q", receive());

  // Header plus payload must stay within 16,384 bytes.
  std::string big(Socks5::kMaxDatagram, 'x');
  EXPECT_EQ(0, s.xudpsend("", 9, big.data(), static_cast<unsigned>(big.size())));
  EXPECT_EQ(1, s.xudpsend("", 9, big.data(), Socks5::kMaxDatagram - 10));
  EXPECT_EQ(Socks5::kMaxDatagram, receive().size());

  EXPECT_EQ(1, s.RemoveSock(0));
  EXPECT_EQ(0, s.RemoveSock(0));  // no longer active
  ::close(static_cast<int>(s.GetUDPSock()));  // now the caller's
  EXPECT_EQ(1, s.RemoveSock(1));
  ::close(static_cast<int>(s.GetTCPSock()));
  EXPECT_EQ(kGreeting + Bytes({5, 3, 0, 1, 0, 0, 0, 0, 0, 0}), f.Finish());
  ::close(relay);
}

TEST(Socks5Scripted, LentControllerIsNotDeleted) {
  SocketCtrl ctrl(nullptr, 1, 0, 0, 0, "lent");
  FakeProxy f;
  int port = NoAuth(f).Start();
  {
    Socks5 s(&ctrl);
    ASSERT_EQ(1, s.connect("127.0.0.1", port, nullptr, nullptr, nullptr, nullptr));
    Socks5 borrowed;
    borrowed = s;
    EXPECT_EQ(&ctrl, borrowed.GetCtrl());
    EXPECT_EQ(s.GetTCPSock(), borrowed.GetTCPSock());
    EXPECT_EQ(1, borrowed.IsAuthOk());
  }
  EXPECT_EQ(1, ctrl.IsConnected(SocketCtrl::kNoSocket));
  f.Finish();
}

}  // namespace
