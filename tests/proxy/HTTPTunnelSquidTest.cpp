// The HTTP tunnel end to end on 127.0.0.1:80: directly to the tunnel
// server of the test, and through a real squid, with and without Basic
// authentication. Port 80 needs root; these tests run one at a time.
#include "proxy/HTTPTunnel.h"

#include "SquidServer.h"
#include "platform/Clock.h"
#include "proxy/ProxyParam.h"
#include "socket/SocketCtrl.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using namespace proxytest;

// Reads through the controller until text appears (or the deadline).
bool ArrivesThrough(SocketCtrl &ctrl, unsigned sock, std::string const &text) {
  std::string got;
  auto end = Clock::now() + kDeadline;
  while (got.find(text) == std::string::npos && Clock::now() < end) {
    if (!Readable(static_cast<int>(sock), 200))
      continue;
    char buf[1024];
    int r = ctrl.read(buf, sizeof(buf), nullptr, sock, 0);
    if (r <= 0)
      break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got.find(text) != std::string::npos;
}

class TunnelOnPort80 : public ::testing::Test {
protected:
  void SetUp() override {
    if (!server_.ok()) {
      if (InCI())
        FAIL() << "cannot listen on 127.0.0.1:80 (root needed, and no other user of the port)";
      GTEST_SKIP() << "cannot listen on 127.0.0.1:80 (root needed, and no other user of the port)";
    }
    server_.Start();
  }
  // After the service line: bytes both ways over the tunnel.
  static void ExchangeThrough(HTTPTunnel &t) {
    char reply[HTTPTunnel::kMaxReplyWord + 1];
    ASSERT_EQ(1, t.WaitForServiceLine(reply));
    EXPECT_STREQ("OK", reply);
    ASSERT_EQ(1, t.GetCtrl()->writeLine("ping", t.GetHTTPSock(), EOL_CRLF));
    EXPECT_TRUE(ArrivesThrough(*t.GetCtrl(), t.GetHTTPSock(), "pong"));
  }
  TunnelServer server_;
};

TEST_F(TunnelOnPort80, DirectToTheServerOnPort80) {
  HTTPTunnel t(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
  ASSERT_EQ(1, t.connect("127.0.0.1", nullptr, "chat", 5000, 17, nullptr, 0));
  ExchangeThrough(t);
  t.GetCtrl()->close(SocketCtrl::kNoSocket, 0);
  std::string const &got = server_.Finish();
  EXPECT_EQ(0u, got.find("POST http://127.0.0.1/index.html?srvaddr=chat&srvport=5000&id=17 HTTP/1.1\r\n"
                         "Host: 127.0.0.1:80\r\nContent-Length: 2000000000\r\nConnection: Keep-Alive\r\n\r\n"
                         "GET http://127.0.0.1/index.html?"))
      << got;
  EXPECT_EQ(std::string::npos, got.find("Proxy-"));
  EXPECT_NE(std::string::npos, got.find("\r\n\r\nZOL 17 chat\r\n"));
}

class TunnelThroughSquid : public TunnelOnPort80 {
protected:
  void SetUp() override {
    PROXYTEST_REQUIRE_PEER(kSquid);
    TunnelOnPort80::SetUp();
  }
  SquidServer squid_;
};

TEST_F(TunnelThroughSquid, ServiceLineAndBytesBothWays) {
  ASSERT_TRUE(squid_.Start()) << squid_.Log();
  ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(squid_.port()), nullptr, nullptr,
                   ProxyParam::kTypeHTTPProxy);
  HTTPTunnel t(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
  ASSERT_EQ(1, t.connect("127.0.0.1", nullptr, "chat", 5000, 17, &proxy, 0));
  ExchangeThrough(t);
  t.GetCtrl()->close(SocketCtrl::kNoSocket, 0);
  std::string const &got = server_.Finish();
  // squid forwards the POST and streams what follows it as body bytes.
  EXPECT_NE(std::string::npos, got.find("POST /index.html?srvaddr=chat&srvport=5000&id=17 HTTP/1.1\r\n")) << got;
  EXPECT_NE(std::string::npos, got.find("GET http://127.0.0.1/index.html?srvaddr=chat")) << got;
  EXPECT_NE(std::string::npos, got.find("ZOL 17 chat\r\n")) << got;
}

TEST_F(TunnelThroughSquid, BasicAuthenticationIsRequiredAndChecked) {
  ASSERT_TRUE(squid_.Start("ann", "Sq-pass1")) << squid_.Log();
  auto attempt = [&](char const *user, char const *password) {
    ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(squid_.port()), user, password,
                     ProxyParam::kTypeHTTPProxy);
    HTTPTunnel t(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
    EXPECT_EQ(1, t.connect("127.0.0.1", nullptr, "chat", 0, 0, &proxy, 0));
    char reply[HTTPTunnel::kMaxReplyWord + 1];
    return t.WaitForServiceLine(reply);
  };
  EXPECT_EQ(1, attempt("ann", "Sq-pass1"));
  server_.Finish();

  // After a 407 squid keeps the connection open, so the wait ends with its
  // window: a clock running 10 times faster than real time ends it soon.
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource use(clock);
  std::jthread ticker([&clock](std::stop_token stop) {
    while (!stop.stop_requested()) {
      clock.Advance(1000);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // drives the clock, not a synchronisation
    }
  });
  EXPECT_EQ(0, attempt("ann", "wrong"));
  EXPECT_EQ(0, attempt(nullptr, nullptr));
}

}  // namespace
