// The SOCKS5 client against a real dante-server on loopback.
#include "proxy/Socks5.h"

#include "DanteServer.h"
#include "socket/SocketCtrl.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>

namespace {

using namespace proxytest;

// Reads n bytes from sock through the controller once they have arrived,
// so a broken relay fails the test instead of blocking it.
std::string ReadThrough(SocketCtrl &ctrl, unsigned sock, unsigned n, bool datagram = false) {
  std::string out;
  auto end = Clock::now() + kDeadline;
  while (out.size() < n && Clock::now() < end) {
    if (!Readable(static_cast<int>(sock), 200))
      continue;
    char buf[4096];
    unsigned want = datagram ? sizeof(buf) : std::min<unsigned>(sizeof(buf), n - static_cast<unsigned>(out.size()));
    int r = ctrl.read(buf, want, nullptr, sock, 0);
    if (r <= 0)
      break;
    out.append(buf, static_cast<size_t>(r));
    if (datagram)
      break;
  }
  return out;
}

class Socks5Dante : public ::testing::Test {
protected:
  void SetUp() override { PROXYTEST_REQUIRE_PEER(kDanted); }
  void StartDante(std::string const &user = "", std::string const &password = "") {
    if (!user.empty() && ::geteuid() != 0) {
      if (InCI())
        FAIL() << "the username test needs root to create its account";
      GTEST_SKIP() << "the username test needs root to create its account";
    }
    ASSERT_TRUE(dante_.Start(user, password)) << dante_.Log();
  }
  DanteServer dante_;
};

TEST_F(Socks5Dante, ConnectCarriesBytesBothWays) {
  StartDante();
  TcpEcho echo;
  Socks5 s;
  unsigned sock = Socks5::kNoSocket;
  ASSERT_EQ(1, s.connect("127.0.0.1", dante_.port(), nullptr, nullptr, &sock, nullptr));
  ASSERT_EQ(1, s.xconnect("127.0.0.1", echo.port())) << dante_.Log();
  std::string msg(5000, 'm');
  msg += "end";
  ASSERT_EQ(static_cast<int>(msg.size()),
            s.GetCtrl()->write(msg.data(), static_cast<unsigned>(msg.size()), sock, 1, 1, 0, 1, nullptr));
  EXPECT_EQ(msg, ReadThrough(*s.GetCtrl(), sock, static_cast<unsigned>(msg.size())));
}

TEST_F(Socks5Dante, RefusedTargetFailsTheRequest) {
  StartDante();
  int closedPort = FreePort();
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", dante_.port(), nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, s.xconnect("127.0.0.1", closedPort));
  EXPECT_EQ(1, s.IsAuthOk());
}

TEST_F(Socks5Dante, UsernameMethodChecksThePassword) {
  std::string const user = "slproxytest";
  StartDante(user, "Good-pass1");
  TcpEcho echo;
  {
    Socks5 s;
    EXPECT_EQ(0, s.connect("127.0.0.1", dante_.port(), user.c_str(), "wrong", nullptr, nullptr));
    EXPECT_EQ(0, s.IsAuthOk());
  }
  {
    Socks5 s;
    EXPECT_EQ(0, s.connect("127.0.0.1", dante_.port(), nullptr, nullptr, nullptr, nullptr));
  }
  Socks5 s;
  unsigned sock = Socks5::kNoSocket;
  ASSERT_EQ(1, s.connect("127.0.0.1", dante_.port(), user.c_str(), "Good-pass1", &sock, nullptr)) << dante_.Log();
  ASSERT_EQ(1, s.xconnect("127.0.0.1", echo.port()));
  ASSERT_EQ(2, s.GetCtrl()->write("ok", 2, sock, 1, 1, 0, 1, nullptr));
  EXPECT_EQ("ok", ReadThrough(*s.GetCtrl(), sock, 2));
  // Never in the proxy's or anyone's log through us.
  EXPECT_EQ(std::string::npos, dante_.Log().find("Good-pass1"));
}

TEST_F(Socks5Dante, BindWaitsForThePeerOnTheAnnouncedPort) {
  StartDante();
  Socks5 s;
  unsigned sock = Socks5::kNoSocket;
  ASSERT_EQ(1, s.connect("127.0.0.1", dante_.port(), nullptr, nullptr, &sock, nullptr));
  auto before = dante_.BindPorts();
  int result = -1;
  unsigned short bport = 0;
  char baddr[16] = "";
  {
    std::jthread binder([&] { result = s.xbind(0, "127.0.0.1", &bport, baddr, 15); });
    // xbind returns only after a peer connected, so the peer finds the
    // announced port on the proxy's side.
    int peerPort = 0;
    for (auto end = Clock::now() + kDeadline; peerPort == 0 && Clock::now() < end;) {
      for (int p : dante_.BindPorts())
        if (!before.count(p))
          peerPort = p;
      if (peerPort == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // polling, bounded by end
    }
    ASSERT_NE(0, peerPort) << dante_.Log();
    int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = Loopback(peerPort);
    ASSERT_EQ(0, ::connect(peer, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
    binder.join();
    ASSERT_EQ(1, result) << dante_.Log();
    EXPECT_EQ(peerPort, bport);
    EXPECT_STREQ("127.0.0.1", baddr);
    // From now on the control connection carries the peer's bytes.
    ASSERT_TRUE(SendAll(peer, "from the peer"));
    EXPECT_EQ("from the peer", ReadThrough(*s.GetCtrl(), sock, 13));
    ::close(peer);
  }
}

TEST_F(Socks5Dante, UdpAssociateRelaysDatagramsBothWays) {
  StartDante();
  UdpEcho echo;
  Socks5 s;
  ASSERT_EQ(1, s.connect("127.0.0.1", dante_.port(), nullptr, nullptr, nullptr, nullptr));
  unsigned short rport = 0;
  char raddr[16] = "";
  ASSERT_EQ(1, s.xudp(0, "", &rport, raddr, 15)) << dante_.Log();
  EXPECT_STREQ("127.0.0.1", raddr);
  EXPECT_NE(0, rport);
  // UDP may drop a datagram; resend a few times, each answer awaited.
  std::string reply;
  for (int i = 0; i < 5 && reply.empty(); ++i) {
    ASSERT_EQ(1, s.xudpsend("127.0.0.1", static_cast<unsigned short>(echo.port()), "ping", 4));
    if (Readable(static_cast<int>(s.GetUDPSock()), 4000))
      reply = ReadThrough(*s.GetCtrl(), s.GetUDPSock(), 1, true);
  }
  int ep = echo.port();
  EXPECT_EQ(Bytes({0, 0, 0, 1, 127, 0, 0, 1, ep >> 8, ep & 0xFF}) + "echo:ping", reply) << dante_.Log();
}

}  // namespace
