// The HTTP tunnel against scripted peers on loopback: exact request bytes
// (through a "proxy" on a free port), the service-line wait and its window.
#include "proxy/HTTPTunnel.h"

#include "FakeProxy.h"
#include "platform/Clock.h"
#include "proxy/ProxyParam.h"
#include "socket/SocketCtrl.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using proxytest::FakeProxy;

std::string Crlf(std::initializer_list<std::string> lines) {
  std::string out;
  for (auto const &l : lines)
    out += l + "\r\n";
  return out;
}

std::string const kKeepAlive = "Proxy-Connection: Keep-Alive";

TEST(HTTPTunnel, ModeWithoutGetOrPostIsNotUsable) {
  HTTPTunnel t(0, nullptr, HTTPTunnel::kNoSocket, nullptr);
  EXPECT_EQ(0, t.IsOk());
  EXPECT_EQ(0, t.connect("127.0.0.1", nullptr, "chat", 1, 1, nullptr, 1));
  char reply[64] = "x";
  EXPECT_EQ(0, t.WaitForServiceLine(reply));
  EXPECT_STREQ("", reply);
  EXPECT_EQ(0, t.RemoveSock());
  HTTPTunnel both(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
  EXPECT_EQ(1, both.IsOk());
  EXPECT_EQ(1, both.DoGet());
  EXPECT_EQ(1, both.DoPost());
}

TEST(HTTPTunnel, RefusedConnectionLeavesNoSocket) {
  ProxyParam nobody("127.0.0.1", static_cast<unsigned long>(proxytest::FreePort()), nullptr, nullptr, 2);
  for (int noWait : {0, 1}) {
    HTTPTunnel t(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
    EXPECT_EQ(0, t.connect("10.1.2.3", nullptr, "chat", 1, 1, &nobody, noWait));
    EXPECT_EQ(HTTPTunnel::kNoSocket, t.GetHTTPSock());
    EXPECT_EQ(0, t.RemoveSock());
  }
}

TEST(HTTPTunnel, LentControllerAdoptsOnlyAConnectedSocket) {
  SocketCtrl ctrl(nullptr, 1, 0, 0, 0, "lent");
  EXPECT_EQ(0, HTTPTunnel(1, &ctrl, 1234, nullptr).IsOk());
  EXPECT_EQ(1, HTTPTunnel(1, &ctrl, HTTPTunnel::kNoSocket, nullptr).IsOk());
  FakeProxy f;
  int port = f.Start();
  unsigned s = HTTPTunnel::kNoSocket;
  ASSERT_EQ(1, ctrl.connect("127.0.0.1", "TCP", port, nullptr, &s, nullptr, 1, 0));
  {
    HTTPTunnel t(2, &ctrl, s, nullptr);
    EXPECT_EQ(1, t.IsOk());
    EXPECT_EQ(s, t.GetHTTPSock());
    // Already connected: connect refuses to open another.
    EXPECT_EQ(0, t.connect("127.0.0.1", nullptr, "", 0, 0, nullptr, 1));
  }
  EXPECT_EQ(1, ctrl.IsConnected(s));  // the lent controller outlives the tunnel
  f.Finish();
}

TEST(HTTPTunnel, BothRequestsThroughAProxyThenTheServiceLine) {
  std::string const expected =
      Crlf({"POST http://10.1.2.3/index.html?srvaddr=chat&srvport=5000&id=17 HTTP/1.1", "Host: 10.1.2.3:80",
            "Content-Length: 2000000000", kKeepAlive, "Connection: Keep-Alive",
            "Proxy-Authorization: Basic YW5uOnB3", "",
            "GET http://10.1.2.3/index.html?srvaddr=chat&srvport=5000&id=17 HTTP/1.1", "Host: 10.1.2.3:80",
            kKeepAlive, "Connection: Keep-Alive", "Proxy-Authorization: Basic YW5uOnB3", "", "ZOL 17 chat"});
  FakeProxy f;
  int port = f.Expect(expected.size()).Start();
  ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(port), "ann", "pw", ProxyParam::kTypeHTTPProxy);
  HTTPTunnel t(3, nullptr, HTTPTunnel::kNoSocket, nullptr);
  ASSERT_EQ(1, t.connect("10.1.2.3", nullptr, "chat", 5000, 17, &proxy, 0));
  EXPECT_NE(HTTPTunnel::kNoSocket, t.GetHTTPSock());
  EXPECT_EQ(expected, f.Finish());
}

TEST(HTTPTunnel, OptionalPartsAreLeftOut) {
  {
    // No service: no query and no service line; a blank password still
    // sends "user:".
    std::string const expected = Crlf({"POST http://gw/index.html HTTP/1.1", "Host: gw:80",
                                       "Content-Length: 2000000000", kKeepAlive, "Connection: Keep-Alive",
                                       "Proxy-Authorization: Basic Ym9iOg==", ""});
    FakeProxy f;
    int port = f.Expect(expected.size()).Start();
    ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(port), "bob", "", 2);
    HTTPTunnel t(2, nullptr, HTTPTunnel::kNoSocket, nullptr);
    ASSERT_EQ(1, t.connect("gw", nullptr, "  ", 5000, 17, &proxy, 1));
    EXPECT_EQ(expected, f.Finish());
  }
  {
    // srvport and id 0: only srvaddr; no id in the service line; no
    // credentials without a user.
    std::string const expected = Crlf({"POST http://gw/index.html?srvaddr=tv HTTP/1.1", "Host: gw:80",
                                       "Content-Length: 2000000000", kKeepAlive, "Connection: Keep-Alive", "",
                                       "ZOL tv"});
    FakeProxy f;
    int port = f.Expect(expected.size()).Start();
    ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(port), nullptr, "pw", 2);
    HTTPTunnel t(2, nullptr, HTTPTunnel::kNoSocket, nullptr);
    ASSERT_EQ(1, t.connect("gw", nullptr, "tv", 0, 0, &proxy, 1));
    EXPECT_EQ(expected, f.Finish());
  }
  {
    // GET only: no service line even with a service.
    std::string const expected =
        Crlf({"GET http://gw/index.html?srvaddr=tv&id=3 HTTP/1.1", "Host: gw:80", kKeepAlive,
              "Connection: Keep-Alive", ""});
    FakeProxy f;
    int port = f.Expect(expected.size()).Start();
    ProxyParam proxy("127.0.0.1", static_cast<unsigned long>(port), nullptr, nullptr, 2);
    HTTPTunnel t(1, nullptr, HTTPTunnel::kNoSocket, nullptr);
    ASSERT_EQ(1, t.connect("gw", nullptr, "tv", 0, 3, &proxy, 0));
    EXPECT_EQ(expected, f.Finish());
  }
}

// Over-long parts fail before a byte is sent; the credential pair is cut.
TEST(HTTPTunnel, LineBoundsAndCredentialCut) {
  SocketCtrl ctrl(nullptr, 1, 0, 0, 0, "bounds");
  std::string const longUser(100, 'u');
  std::string const pair = longUser.substr(0, HTTPTunnel::kMaxAuthPair);
  // base64 of 94 'u's: 31 groups of "dXV1" and "dQ==" for the last one.
  std::string encoded;
  for (int i = 0; i < 31; ++i)
    encoded += "dXV1";
  encoded += "dQ==";
  std::string const expected = Crlf({"GET http://h/index.html HTTP/1.1", "Host: h:80", "Connection: Keep-Alive",
                                     "Proxy-Authorization: Basic " + encoded, ""});
  FakeProxy f;
  int port = f.Expect(expected.size()).Start();
  unsigned s = HTTPTunnel::kNoSocket;
  ASSERT_EQ(1, ctrl.connect("127.0.0.1", "TCP", port, nullptr, &s, nullptr, 1, 0));
  HTTPTunnel t(3, &ctrl, s, nullptr);
  std::string const host(600, 'h');
  std::string const service(600, 's');
  EXPECT_EQ(0, t.SendHTTPInitCmd(host.c_str(), "chat", 1, 1, nullptr, nullptr, 0));
  EXPECT_EQ(0, t.SendHTTPInitCmd("h", service.c_str(), 1, 1, nullptr, nullptr, 0));
  EXPECT_EQ(0, t.SendHTTPInitCmd("  ", "chat", 1, 1, nullptr, nullptr, 0));
  HTTPTunnel getOnly(1, &ctrl, s, nullptr);
  EXPECT_EQ(1, getOnly.SendHTTPInitCmd("h", nullptr, 0, 0, longUser.c_str(), "pw", 0));
  // Had a refused call sent anything, these bytes would not line up.
  EXPECT_EQ(expected, f.Finish());
}

class ServiceLine : public ::testing::Test {
protected:
  // A tunnel on a connection whose server sends script, then closes.
  std::unique_ptr<HTTPTunnel> Tunnel(std::string const &script) {
    port_ = fake_.Reply(script).Start();
    unsigned s = HTTPTunnel::kNoSocket;
    EXPECT_EQ(1, ctrl_.connect("127.0.0.1", "TCP", port_, nullptr, &s, nullptr, 1, 0));
    auto t = std::make_unique<HTTPTunnel>(3, &ctrl_, s, nullptr);
    EXPECT_EQ(1, t->IsOk());
    return t;
  }
  void TearDown() override { fake_.Finish(); }
  SocketCtrl ctrl_{nullptr, 1, 0, 0, 0, "wait"};
  FakeProxy fake_;
  int port_ = 0;
};

TEST_F(ServiceLine, ProxyLinesAreSkippedAndZolMatchesInAnyCase) {
  auto t = Tunnel(
      "HTTP/1.1 200 OK\r\nServer: x\r\nTransfer-Encoding: chunked\r\n\r\n8\r\nZOLA no\r\nZOL\r\nzol OK more\r\n");
  char reply[HTTPTunnel::kMaxReplyWord + 1] = "x";
  ASSERT_EQ(1, t->WaitForServiceLine(reply));
  EXPECT_STREQ("OK", reply);
}

TEST_F(ServiceLine, ClosedConnectionEndsTheWait) {
  auto t = Tunnel("HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 0\r\n\r\n");
  char reply[HTTPTunnel::kMaxReplyWord + 1];
  EXPECT_EQ(0, t->WaitForServiceLine(reply));
}

TEST_F(ServiceLine, ReplyWordIsCutToTheBuffer) {
  auto t = Tunnel("ZOL " + std::string(300, 'w') + "\r\n");
  char reply[11];
  ASSERT_EQ(1, t->WaitForServiceLine(reply, 10));
  EXPECT_EQ(std::string(10, 'w'), reply);
}

TEST_F(ServiceLine, WindowCountsFromConstruction) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource use(clock);
  {
    auto late = Tunnel("HTTP/1.1 200 OK\r\nZOL OK\r\n");
    clock.Advance(25000);
    char reply[HTTPTunnel::kMaxReplyWord + 1] = "x";
    // One read, then the window is over: the answer behind it is not read.
    EXPECT_EQ(0, late->WaitForServiceLine(reply));
    EXPECT_STREQ("", reply);
  }
}

TEST_F(ServiceLine, AnswerWithinTheWindowIsFound) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource use(clock);
  auto t = Tunnel("HTTP/1.1 200 OK\r\n\r\nZOL 17 granted\r\n");
  clock.Advance(20000);
  char reply[HTTPTunnel::kMaxReplyWord + 1];
  ASSERT_EQ(1, t->WaitForServiceLine(reply));
  EXPECT_STREQ("17", reply);
}

TEST_F(ServiceLine, FirstLineAnswersEvenAfterTheWindow) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource use(clock);
  auto t = Tunnel("ZOL OK\r\n");
  clock.Advance(25000);
  char reply[HTTPTunnel::kMaxReplyWord + 1];
  EXPECT_EQ(1, t->WaitForServiceLine(reply));
}

}  // namespace
