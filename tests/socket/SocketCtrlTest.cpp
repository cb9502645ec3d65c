// SocketCtrl driven by dispatch passes on loopback, against every real
// demultiplexer (select, poll, epoll).
#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "socket/SendQueue.h"
#include "socket/SocketPrimitives.h"
#include "JoinedThread.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(20);

// Records every callback; the data answer and extra actions are settable.
class Recorder final : public ISocketCtrl {
public:
  std::vector<std::pair<unsigned, std::string>> data;
  std::vector<std::pair<unsigned, std::string>> closes;
  std::vector<unsigned> accepted;
  std::vector<std::pair<unsigned, std::string>> datagrams;
  std::function<int(SocketCtrl *, unsigned, char *, unsigned)> onData;
  int connectAnswer = 1;

  int acceptCallback(SocketCtrl *c, unsigned s, char *d, unsigned len) override {
    data.emplace_back(s, std::string(d, len));
    return onData ? onData(c, s, d, len) : 1;
  }
  int connectCallback(SocketCtrl *, unsigned, unsigned s) override {
    accepted.push_back(s);
    return connectAnswer;
  }
  void closeCallback(SocketCtrl *, unsigned s, char const *reason) override { closes.emplace_back(s, reason); }
  int acceptUDPCallback(SocketCtrl *, unsigned s, sockaddr_in *from, char *d, unsigned len) override {
    datagrams.emplace_back(s, std::string(d, len));
    lastFrom = *from;
    return 1;
  }
  sockaddr_in lastFrom{};
};

// A plain blocking client socket connected to 127.0.0.1:port.
int Dial(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void SendAll(int fd, std::string const &s) {
  ASSERT_EQ(static_cast<ssize_t>(s.size()), ::send(fd, s.data(), s.size(), MSG_NOSIGNAL));
}

// Reads exactly n bytes (or until the stream ends), with a deadline.
std::string ReadN(int fd, size_t n) {
  std::string out;
  auto end = Clock::now() + kDeadline;
  while (out.size() < n && Clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0)
      continue;
    char buf[65536];
    ssize_t r = ::recv(fd, buf, std::min(sizeof(buf), n - out.size()), 0);
    if (r <= 0)
      break;
    out.append(buf, static_cast<size_t>(r));
  }
  return out;
}

// True when the peer of fd has closed (end of stream or reset).
bool PeerClosed(int fd) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, 5000) <= 0)
    return false;
  char c;
  return ::recv(fd, &c, 1, MSG_DONTWAIT) <= 0;
}

// Waits until every socket in socks is readable (server side).
bool AllReadable(std::vector<unsigned> const &socks) {
  auto end = Clock::now() + kDeadline;
  while (Clock::now() < end) {
    std::vector<pollfd> p;
    for (unsigned s : socks)
      p.push_back(pollfd{static_cast<int>(s), POLLIN, 0});
    if (::poll(p.data(), p.size(), 200) == static_cast<int>(p.size()))
      return true;
  }
  return false;
}

class SocketCtrlTest : public ::testing::TestWithParam<int> {
protected:
  // A controller on the backend under test.
  std::unique_ptr<SocketCtrl> Make(char const *name, SendQueue *queue = nullptr) {
    int mode = GetParam();
    auto c = std::make_unique<SocketCtrl>(queue, 1, 65535, 0, mode == 8, name);
    if (mode == 2) {
      EXPECT_EQ(1, c->SetEventsModes(2));
    }
    EXPECT_EQ(static_cast<unsigned long>(mode), c->GetEventsMode());
    return c;
  }

  // Runs passes until pred holds or the deadline passes.
  static bool PumpUntil(SocketCtrl &c, ISocketCtrl *cb, std::function<bool()> const &pred) {
    auto end = Clock::now() + kDeadline;
    while (!pred()) {
      if (Clock::now() > end)
        return false;
      if (c.accept(cb, 1) < 0)
        return false;
    }
    return true;
  }

  // A listening server and one accepted client; returns the client fd.
  int Connect(SocketCtrl &srv, Recorder &rec, int port) {
    size_t before = rec.accepted.size();
    int fd = Dial(port);
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(PumpUntil(srv, &rec, [&] { return rec.accepted.size() > before; }));
    return fd;
  }

  // A listening controller with n accepted plain clients.
  struct Served {
    std::unique_ptr<SocketCtrl> srv;
    Recorder rec;
    int port = 0;
    std::vector<int> fds;  // client sides, in accept order; closed at the end
    ~Served() {
      for (int fd : fds)
        if (fd >= 0)
          ::close(fd);
    }
    unsigned S(size_t i) const { return rec.accepted[i]; }
    void Drop(size_t i) {
      ::close(fds[i]);
      fds[i] = -1;
    }
  };
  std::unique_ptr<Served> Serve(int n, int connectAnswer = 1) {
    auto sv = std::make_unique<Served>();
    sv->srv = Make("srv");
    sv->rec.connectAnswer = connectAnswer;
    sv->port = Listen(*sv->srv);
    for (int i = 0; i < n; ++i)
      sv->fds.push_back(Connect(*sv->srv, sv->rec, sv->port));
    return sv;
  }

  int Listen(SocketCtrl &srv) {
    unsigned ls = SocketCtrl::kNoSocket;
    int port = 0;
    EXPECT_EQ(1, srv.listen("tcp", 64, 0, "127.0.0.1", nullptr, &ls, 0, &port));
    EXPECT_NE(SocketCtrl::kNoSocket, ls);
    EXPECT_GT(port, 0);
    return port;
  }
};

TEST_P(SocketCtrlTest, ConnectAcceptExchangeAndMasterRules) {
  auto srv = Make("srv");
  Recorder rec;
  int port = Listen(*srv);
  EXPECT_EQ(1, srv->IsMasterSockRdy());
  EXPECT_EQ(1, srv->GetNumListenSocks());

  auto cli = Make("cli");
  unsigned cs = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "TCP", port, nullptr, &cs, nullptr, 1, 1));
  EXPECT_EQ(cs, cli->GetMasterSocket());
  EXPECT_EQ(1, cli->IsMasterSockRdy());
  EXPECT_EQ(1, cli->IsConnected(cs));
  ASSERT_TRUE(PumpUntil(*srv, &rec, [&] { return rec.accepted.size() == 1; }));
  unsigned ss = rec.accepted[0];
  EXPECT_EQ(1, srv->IsConnected(ss));
  EXPECT_EQ(0, srv->IsListenSock(ss));

  // A pass started from a callback of a pass is refused, not deadlocked.
  int nested = 0;
  rec.onData = [&](SocketCtrl *c, unsigned, char *, unsigned) {
    char tmp[8];
    unsigned from = 0;
    nested = c->accept(&rec, 0) == -1 && c->readall(tmp, 8, 0, 0, 0, &from, nullptr) == -1 ? 1 : -1;
    return 1;
  };
  EXPECT_EQ(5, cli->write("hello", 5, SocketCtrl::kNoSocket, 1, 1, -1, 0, nullptr));
  ASSERT_TRUE(PumpUntil(*srv, &rec, [&] { return !rec.data.empty(); }));
  EXPECT_EQ(1, nested);
  EXPECT_EQ(ss, rec.data[0].first);
  EXPECT_EQ("hello", rec.data[0].second);
  EXPECT_EQ(3, srv->write("abc", 3, ss, 1, 1, -1, 0, nullptr));
  char buf[4] = {};
  EXPECT_EQ(3, cli->read(buf, 3, nullptr, SocketCtrl::kNoSocket, 1));
  EXPECT_STREQ("abc", buf);

  // A second connection: makeMaster 0 keeps the master, 1 replaces it.
  unsigned cs2 = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "tcp", port, nullptr, &cs2, nullptr, 1, 0));
  EXPECT_EQ(cs, cli->GetMasterSocket());
  unsigned cs3 = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "tcp", port, nullptr, &cs3, nullptr, 1, 1));
  EXPECT_EQ(cs3, cli->GetMasterSocket());
  // Refusals leave *outSock at -1 and nothing open.
  unsigned bad = 0;
  EXPECT_EQ(0, cli->connect("", "TCP", port, nullptr, &bad, nullptr, 1, 1));
  EXPECT_EQ(SocketCtrl::kNoSocket, bad);
  EXPECT_EQ(0, cli->connect("127.0.0.1", "", port, nullptr, &bad, nullptr, 1, 1));
  EXPECT_TRUE(rec.closes.empty());
}

TEST_P(SocketCtrlTest, TextModeJoinsLinesSplitAcrossReads) {
  auto sv = Serve(1);
  sv->srv->SetTxtMode();
  Recorder &rec = sv->rec;
  // Each piece is its own read on the server: the line ends straddle them.
  for (std::string piece : {"ab\r", "\ncd\n", "ef\r", "gh\r\n", "tail"}) {
    SendAll(sv->fds[0], piece);
    size_t before = rec.data.size();
    // A pass per piece; pieces that complete no line deliver nothing.
    ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] {
      pollfd p{static_cast<int>(sv->S(0)), POLLIN, 0};
      return ::poll(&p, 1, 0) == 0 || rec.data.size() > before;
    }));
  }
  ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] { return rec.data.size() >= 4; }));
  ASSERT_EQ(4u, rec.data.size());
  char const *want[] = {"ab", "cd", "ef", "gh"};
  for (int i = 0; i < 4; ++i) {
    // The line comes NUL-ended with its length + 1.
    EXPECT_EQ(std::string(want[i], 2) + '\0', rec.data[static_cast<size_t>(i)].second);
  }
}

TEST_P(SocketCtrlTest, DataCallbackReturningZeroClosesOnlyItsSocket) {
  auto sv = Serve(2);
  Recorder &rec = sv->rec;
  unsigned sa = sv->S(0), sb = sv->S(1);
  rec.onData = [&](SocketCtrl *, unsigned s, char *, unsigned) { return s == sa ? 0 : 1; };
  SendAll(sv->fds[0], "bye");
  ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] { return !rec.closes.empty(); }));
  ASSERT_EQ(1u, rec.closes.size());
  EXPECT_EQ(sa, rec.closes[0].first);
  EXPECT_STREQ(SocketCtrl::kReasonCallback, rec.closes[0].second.c_str());
  EXPECT_EQ(0, sv->srv->IsConnected(sa));
  EXPECT_TRUE(PeerClosed(sv->fds[0]));
  // The other connection is untouched.
  SendAll(sv->fds[1], "still");
  ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] { return rec.data.back().first == sb; }));
  EXPECT_EQ(1, sv->srv->IsConnected(sb));
  EXPECT_EQ(1u, rec.closes.size());
}

TEST_P(SocketCtrlTest, PeerCloseIsReportedOnceWithItsReason) {
  auto sv = Serve(1);
  Recorder &rec = sv->rec;
  sv->Drop(0);
  ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] { return !rec.closes.empty(); }));
  sv->srv->accept(&rec, 0);
  ASSERT_EQ(1u, rec.closes.size());
  EXPECT_EQ(sv->S(0), rec.closes[0].first);
  EXPECT_STREQ(SocketCtrl::kReasonPeerClosed, rec.closes[0].second.c_str());
  EXPECT_EQ(0, sv->srv->IsConnected(sv->S(0)));
  EXPECT_TRUE(rec.data.empty());
}

TEST_P(SocketCtrlTest, WriteErrorClosesAtTheNextPassWithItsReason) {
  auto sv = Serve(1);
  SocketCtrl &srv = *sv->srv;
  unsigned ss = sv->S(0);
  // The peer resets the connection; the next send fails at once (and must
  // not raise SIGPIPE).
  linger l{1, 0};
  ::setsockopt(sv->fds[0], SOL_SOCKET, SO_LINGER, &l, sizeof(l));
  sv->Drop(0);
  auto end = Clock::now() + kDeadline;
  while (srv.CanSendData(ss) && Clock::now() < end)
    srv.write("x", 1, ss, 1, 1, -1, 0, nullptr);
  ASSERT_EQ(0, srv.CanSendData(ss));
  EXPECT_EQ(-1, srv.write("x", 1, ss, 1, 1, -1, 0, nullptr));
  EXPECT_EQ(1, srv.accept(&sv->rec, 0));
  ASSERT_EQ(1u, sv->rec.closes.size());
  EXPECT_EQ(ss, sv->rec.closes[0].first);
  EXPECT_STREQ(SocketCtrl::kReasonWriteError, sv->rec.closes[0].second.c_str());
  EXPECT_EQ(0, srv.IsConnected(ss));
  srv.accept(&sv->rec, 0);
  EXPECT_EQ(1u, sv->rec.closes.size());
}

// Regression: a callback closing another socket of the same pass must not
// make the walk touch that socket again, nor close it before the walk ends.
TEST_P(SocketCtrlTest, CloseSSockFromCallbackClosesAnotherSocketAtPassEnd) {
  for (bool viaClose : {false, true}) {
    auto sv = Serve(2);
    Recorder &rec = sv->rec;
    unsigned sa = sv->S(0), sb = sv->S(1);
    unsigned victim = SocketCtrl::kNoSocket;
    rec.onData = [&](SocketCtrl *c, unsigned s, char *, unsigned) {
      victim = s == sa ? sb : sa;
      if (viaClose)
        EXPECT_EQ(1, c->close(victim, 0));  // deferred: a pass is running
      else
        c->closeSSock(victim);
      EXPECT_EQ(0, c->CanSendData(victim));
      EXPECT_EQ(1, c->IsConnected(victim));  // still there until the pass ends
      return 1;
    };
    SendAll(sv->fds[0], "A");
    SendAll(sv->fds[1], "B");
    ASSERT_TRUE(AllReadable({sa, sb}));
    EXPECT_EQ(1, sv->srv->accept(&rec, 1));
    ASSERT_EQ(1u, rec.data.size()) << "the marked socket got a callback";
    EXPECT_NE(victim, rec.data[0].first);
    EXPECT_TRUE(rec.closes.empty()) << "closing through closeSSock is silent";
    EXPECT_EQ(0, sv->srv->IsConnected(victim));
    EXPECT_EQ(1, sv->srv->IsConnected(rec.data[0].first));
    EXPECT_TRUE(PeerClosed(victim == sa ? sv->fds[0] : sv->fds[1]));
  }
}

TEST_P(SocketCtrlTest, CloseAllFromCallbackEndsEverySocketAtPassEnd) {
  auto sv = Serve(2);
  sv->rec.onData = [](SocketCtrl *c, unsigned, char *, unsigned) { return c->close(SocketCtrl::kNoSocket, 0); };
  SendAll(sv->fds[0], "A");
  SendAll(sv->fds[1], "B");
  ASSERT_TRUE(AllReadable({sv->S(0), sv->S(1)}));
  EXPECT_EQ(1, sv->srv->accept(&sv->rec, 1));
  EXPECT_EQ(1u, sv->rec.data.size());
  EXPECT_TRUE(sv->rec.closes.empty());
  EXPECT_EQ(0, sv->srv->GetNumListenSocks());
  EXPECT_EQ(SocketCtrl::kNoSocket, sv->srv->GetMasterSocket());
  EXPECT_TRUE(PeerClosed(sv->fds[0]));
  EXPECT_TRUE(PeerClosed(sv->fds[1]));
}

TEST_P(SocketCtrlTest, RefusedConnectionIsClosedSilently) {
  auto sv = Serve(1, 0);
  EXPECT_EQ(0, sv->srv->IsConnected(sv->S(0)));
  EXPECT_TRUE(PeerClosed(sv->fds[0]));
  EXPECT_TRUE(sv->rec.closes.empty());
}

TEST_P(SocketCtrlTest, NonBlockingConnectCompletedByTestWriteSock) {
  auto srv = Make("srv");
  Recorder rec;
  int port = Listen(*srv);
  auto cli = Make("cli");
  unsigned cs = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "tcp", port, nullptr, &cs, nullptr, 0, 1));
  EXPECT_EQ(cs, cli->GetMasterSocket());
  EXPECT_EQ(0, cli->IsMasterSockRdy());
  EXPECT_EQ(0, cli->IsConnected(cs));
  EXPECT_EQ(1, cli->TestWriteSock(SocketCtrl::kNoSocket, 10, 1));
  EXPECT_EQ(1, cli->IsMasterSockRdy());
  EXPECT_EQ(1, cli->IsConnected(cs));
  ASSERT_TRUE(PumpUntil(*srv, &rec, [&] { return rec.accepted.size() == 1; }));

  // A refused connection fails the test and is closed.
  int freePort = 0;
  {
    SocketCtrl tmp(nullptr, 0, 0, 1, 0, "tmp");
    unsigned ls = 0;
    ASSERT_EQ(1, tmp.listen("tcp", 1, 0, "127.0.0.1", nullptr, &ls, 0, &freePort));
  }
  auto cli2 = Make("cli2");
  unsigned cs2 = 0;
  ASSERT_EQ(1, cli2->connect("127.0.0.1", "tcp", freePort, nullptr, &cs2, nullptr, 0, 1));
  EXPECT_EQ(0, cli2->TestWriteSock(cs2, 10, 1));
  EXPECT_EQ(SocketCtrl::kNoSocket, cli2->GetMasterSocket());
  EXPECT_EQ(0, cli2->IsConnected(cs2));
  EXPECT_EQ(0, cli2->TestWriteSock(SocketCtrl::kNoSocket, 1, 1));
}

TEST_P(SocketCtrlTest, DatagramsThroughAcceptUDP) {
  auto srv = Make("usrv");
  Recorder rec;
  unsigned us = 0;
  int port = 0;
  ASSERT_EQ(1, srv->listen("udp", 0, 0, "127.0.0.1", nullptr, &us, 0, &port));
  EXPECT_EQ(1, srv->IsUDP());
  EXPECT_EQ(0, srv->GetNumListenSocks());
  EXPECT_EQ(65507, srv->GetMaxMsgSize(SocketCtrl::kNoSocket));
  unsigned bad = 0;
  EXPECT_EQ(0, srv->listen("tcp", 1, 0, "127.0.0.1", nullptr, &bad, 0, nullptr));
  EXPECT_EQ(0, srv->connect("127.0.0.1", "tcp", port, nullptr, &bad, nullptr, 1, 0));

  auto cli = Make("ucli");
  unsigned cs = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "UDP", port, nullptr, &cs, nullptr, 1, 1));
  EXPECT_EQ(1, cli->IsUDP());
  EXPECT_EQ(5, cli->write("dgram", 5, SocketCtrl::kNoSocket, 1, 1, -1, 0, nullptr));
  auto end = Clock::now() + kDeadline;
  while (rec.datagrams.empty() && Clock::now() < end)
    srv->acceptUDP(&rec, 1);
  ASSERT_EQ(1u, rec.datagrams.size());
  EXPECT_EQ("dgram", rec.datagrams[0].second);
  unsigned cport = 0;
  ASSERT_EQ(1, GetSockName(cs, nullptr, 0, &cport));
  EXPECT_EQ(cport, GetSinPort(&rec.lastFrom));
  // The reply goes back to the source address; the client reads it.
  EXPECT_EQ(2, srv->write("ok", 2, us, 1, 1, -1, 0, &rec.lastFrom));
  char buf[8] = {};
  unsigned from = 0;
  sockaddr_in src{};
  EXPECT_EQ(2, cli->readall(buf, sizeof(buf), 0, 0, 5, &from, &src));
  EXPECT_EQ(cs, from);
  EXPECT_STREQ("ok", buf);

  // An empty host means any address for a datagram socket, and is refused
  // for a stream socket.
  SocketCtrl any(nullptr, 0, 0, 1, 0, "any");
  unsigned as = 0;
  EXPECT_EQ(1, any.connect("", "udp", port, nullptr, &as, nullptr, 1, 1));
  EXPECT_EQ(0, any.connect("", "TCP", port, nullptr, &as, nullptr, 1, 1));
}

TEST_P(SocketCtrlTest, MulticastGroupLoopsBackThroughAcceptUDP) {
  // A free UDP port: bind port 0, read it back, release it.
  int probe = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(probe, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
  unsigned port = 0;
  ASSERT_EQ(1, GetSockName(static_cast<SOCKET>(probe), nullptr, 0, &port));
  ::close(probe);

  auto c = Make("mcast");
  unsigned ms = 0;
  if (!c->connectMCast("239.255.7.7", static_cast<int>(port), "127.0.0.1", 1, &ms, 1))
    GTEST_SKIP() << "the kernel refused the group join";
  EXPECT_EQ(ms, c->GetMasterSocket());
  EXPECT_EQ(1, c->IsUDP());
  sockaddr_in def{};
  c->GetDefSin(&def);
  EXPECT_EQ(IPStrToLong("239.255.7.7"), def.sin_addr.s_addr);
  // Sent to the default address (the group) and looped back to the member.
  EXPECT_EQ(5, c->write("group", 5, ms, 1, 1, -1, 0, nullptr));
  Recorder rec;
  auto end = Clock::now() + kDeadline;
  while (rec.datagrams.empty() && Clock::now() < end)
    c->acceptUDP(&rec, 1);
  ASSERT_EQ(1u, rec.datagrams.size());
  EXPECT_EQ("group", rec.datagrams[0].second);
  unsigned bad = 0;
  EXPECT_EQ(0, c->connectMCast("not-a-group", static_cast<int>(port), nullptr, 1, &bad, 0));
  EXPECT_EQ(SocketCtrl::kNoSocket, bad);
}

TEST_P(SocketCtrlTest, WriteLineCutsLongTextAndAddsTheLineEnd) {
  auto srv = Make("srv");
  Recorder rec;
  int port = Listen(*srv);
  auto cli = Make("cli");
  unsigned cs = 0;
  ASSERT_EQ(1, cli->connect("127.0.0.1", "tcp", port, nullptr, &cs, nullptr, 1, 1));
  ASSERT_TRUE(PumpUntil(*srv, &rec, [&] { return rec.accepted.size() == 1; }));
  int ss = static_cast<int>(rec.accepted[0]);
  std::string text(70000, 'x');
  EXPECT_EQ(1, cli->writeLine(text.c_str(), SocketCtrl::kNoSocket, EOL_CRLF));
  EXPECT_EQ(1, cli->writeLine("y", cs, EOL_LF));
  std::string got = ReadN(ss, 65535 + 2 + 2);
  EXPECT_EQ(std::string(65535, 'x') + "\r\ny\n", got);
}

TEST_P(SocketCtrlTest, ReadallAcceptsThenReadsAndReportsTheEnd) {
  auto srv = Make("srv");
  int port = Listen(*srv);
  int fd = Dial(port);
  char buf[64];
  unsigned from = 0;
  unsigned accepted = SocketCtrl::kNoSocket;
  auto end = Clock::now() + kDeadline;
  while (accepted == SocketCtrl::kNoSocket && Clock::now() < end) {
    EXPECT_EQ(0, srv->readall(buf, sizeof(buf), 0, 0, 1, &from, nullptr));
    accepted = from;
  }
  ASSERT_NE(SocketCtrl::kNoSocket, accepted);
  EXPECT_EQ(1, srv->IsConnected(accepted));
  SendAll(fd, "data");
  int r = 0;
  end = Clock::now() + kDeadline;
  while (r == 0 && Clock::now() < end)
    r = srv->readall(buf, sizeof(buf), 0, 0, 1, &from, nullptr);
  EXPECT_EQ(4, r);
  EXPECT_EQ(accepted, from);
  ::close(fd);
  r = 0;
  end = Clock::now() + kDeadline;
  while (r == 0 && Clock::now() < end)
    r = srv->readall(buf, sizeof(buf), 0, 0, 1, &from, nullptr);
  EXPECT_EQ(-1, r);
  EXPECT_EQ(0, srv->IsConnected(accepted));
}

// getmsg joins a line that arrives in pieces, also on a non-blocking socket,
// and takes nothing past the line's end.
TEST_P(SocketCtrlTest, GetmsgJoinsALineArrivingInPieces) {
  auto sv = Serve(1);
  unsigned s = sv->S(0);
  ASSERT_EQ(1, sv->srv->set_non_blocking(s));
  SendAll(sv->fds[0], "hel");
  char buf[64] = {};
  int r = -2;
  JoinedThread reader([&] { r = sv->srv->getmsg(buf, sizeof(buf), 20, s); });
  // Send the rest only once the reader has taken the first piece.
  auto end = Clock::now() + kDeadline;
  int pending = 1;
  while (pending > 0 && Clock::now() < end) {
    pollfd p{static_cast<int>(s), POLLIN, 0};
    pending = ::poll(&p, 1, 10) > 0 ? 1 : 0;
  }
  SendAll(sv->fds[0], "lo\r\nnext\nraw");
  reader.Join();
  EXPECT_EQ(5, r);
  EXPECT_STREQ("hello", buf);
  EXPECT_EQ(4, sv->srv->getmsg(buf, sizeof(buf), 20, s));
  EXPECT_STREQ("next", buf);
  char raw[8] = {};
  EXPECT_EQ(3, sv->srv->read(raw, 3, nullptr, s, 1));
  EXPECT_STREQ("raw", raw);
}

// Function-pointer form of the pass.
std::vector<std::string> g_fnData;
std::vector<std::string> g_fnCloses;
int FnData(SocketCtrl *, unsigned, char *d, unsigned len) {
  g_fnData.emplace_back(d, len);
  return 1;
}
int FnConnect(SocketCtrl *, unsigned, unsigned) { return 1; }
void FnClose(SocketCtrl *, unsigned, char const *reason) { g_fnCloses.emplace_back(reason); }

TEST_P(SocketCtrlTest, FunctionFormGetsTheSameCallbacks) {
  g_fnData.clear();
  g_fnCloses.clear();
  auto srv = Make("srv");
  int port = Listen(*srv);
  int fd = Dial(port);
  SendAll(fd, "fn");
  auto end = Clock::now() + kDeadline;
  while (g_fnData.empty() && Clock::now() < end)
    srv->accept(FnData, FnConnect, FnClose, 0, 1);
  ASSERT_EQ(1u, g_fnData.size());
  EXPECT_EQ("fn", g_fnData[0]);
  ::close(fd);
  while (g_fnCloses.empty() && Clock::now() < end)
    srv->accept(FnData, FnConnect, FnClose, 0, 1);
  ASSERT_EQ(1u, g_fnCloses.size());
  EXPECT_EQ(SocketCtrl::kReasonPeerClosed, g_fnCloses[0]);
}

TEST_P(SocketCtrlTest, CloseAndDestructorCloseEverythingTheyHold) {
  int a = -1, b = -1;
  unsigned pending = 0;
  {
    auto srv = Make("srv");
    Recorder rec;
    int port = Listen(*srv);
    a = Connect(*srv, rec, port);
    b = Connect(*srv, rec, port);
    // close of one socket at once, outside a pass: no callback.
    EXPECT_EQ(1, srv->close(rec.accepted[0], 0));
    EXPECT_TRUE(PeerClosed(a));
    EXPECT_EQ(0, srv->close(rec.accepted[0], 0));
    // A connection left in progress is held as the master only.
    auto cli = Make("cli");
    ASSERT_EQ(1, cli->connect("127.0.0.1", "tcp", port, nullptr, &pending, nullptr, 0, 1));
    EXPECT_TRUE(rec.closes.empty());
  }
  EXPECT_TRUE(PeerClosed(b));
  EXPECT_EQ(-1, ::fcntl(static_cast<int>(pending), F_GETFD));
  ::close(a);
  ::close(b);
}

TEST_P(SocketCtrlTest, CloseAllOutsideAPassResetsTheController) {
  auto sv = Serve(1);
  SocketCtrl &srv = *sv->srv;
  EXPECT_EQ(1, srv.close(SocketCtrl::kNoSocket, 0));
  EXPECT_EQ(SocketCtrl::kNoSocket, srv.GetMasterSocket());
  EXPECT_EQ(0, srv.IsMasterSockRdy());
  EXPECT_EQ(0, srv.GetNumListenSocks());
  EXPECT_TRUE(PeerClosed(sv->fds[0]));
  EXPECT_LT(Dial(sv->port), 0);
  // The controller is usable again.
  sv->fds.push_back(Connect(srv, sv->rec, Listen(srv)));
  EXPECT_EQ(2u, sv->rec.accepted.size());
}

// Another thread connects and writes through the controller while the
// dispatch thread waits in its passes.
TEST_P(SocketCtrlTest, ConnectAndWriteFromAnotherThreadDuringPasses) {
  auto srv = Make("srv");
  Recorder rec;
  int port = Listen(*srv);
  std::atomic<bool> done{false};
  std::atomic<unsigned> clientSock{SocketCtrl::kNoSocket};
  JoinedThread other([&] {
    unsigned cs = 0;
    if (srv->connect("127.0.0.1", "tcp", port, nullptr, &cs, nullptr, 1, 0) == 1) {
      clientSock = cs;
      for (int i = 0; i < 20; ++i)
        srv->write("z", 1, cs, 1, 1, -1, 0, nullptr);
    }
    done = true;
  });
  size_t got = 0;
  ASSERT_TRUE(PumpUntil(*srv, &rec, [&] {
    got = 0;
    for (auto const &d : rec.data)
      got += d.second.size();
    return done && got == 20;
  }));
  other.Join();
  EXPECT_EQ(1, srv->IsConnected(clientSock));
  EXPECT_EQ(1u, rec.accepted.size());
}

INSTANTIATE_TEST_SUITE_P(Backends, SocketCtrlTest, ::testing::Values(1, 2, 8),
                         [](::testing::TestParamInfo<int> const &p) {
                           return p.param == 1 ? std::string("Select")
                                  : p.param == 2 ? std::string("Poll")
                                                 : std::string("Epoll");
                         });

TEST(SocketCtrlOptions, RecordsBitRateAndWordLayout) {
  SockOptions a, b;
  EXPECT_TRUE(a == b);
  b.framed = 1;
  b.secondBytes = 9;
  EXPECT_TRUE(a == b);  // only words 0, 2 and 3 tell records apart
  b.countStart = 5;
  EXPECT_FALSE(a == b);

  SocketCtrl c(nullptr, 0, 0, 1, 0, "opt");
  EXPECT_EQ(0u, c.GetBitRate(0, 7));
  EXPECT_EQ(1, c.SetBytesCount(1, 1000, 7));
  SockOptions o;
  ASSERT_EQ(1, c.GetSockOptions(7, &o));
  EXPECT_TRUE(o.Accounting());
  EXPECT_EQ(1000u, o.rateLimit);
  EXPECT_EQ(1000u, o.Reserve(5000, 100));
  o.Settle(1000, 600, 100);  // a short send gives back what it did not use
  EXPECT_EQ(400u, o.Reserve(5000, 100));
  o.Settle(400, 400, 100);
  EXPECT_EQ(1000u, o.Sent());
  EXPECT_EQ(0u, o.Reserve(1, 100));
  EXPECT_EQ(1u, o.Reserve(1, 101));  // a new second starts afresh
  o.Settle(1, 0, 100);               // a give-back for an older second changes nothing
  EXPECT_EQ(1u, o.secondBytes);
  o.SetSent(0x100000000ull);
  EXPECT_EQ(0x100000000ull, o.Sent());
  EXPECT_EQ(0, c.SetMaxSendQueue(1, 0, SocketCtrl::kNoSocket));  // no master socket
  c.InitSockOptVector();
  EXPECT_EQ(0, c.GetSockOptions(7, &o));
}

TEST(SocketCtrlOptions, RateLimitWithoutQueueSendsWholeWritesOrNothing) {
  shared::platform::ManualClock clock(1700000000, 1000, false);
  shared::platform::ScopedClockSource use(clock);
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  SocketCtrl c(nullptr, 0, 0, 1, 0, "rate");
  unsigned s = static_cast<unsigned>(fds[0]);
  ASSERT_EQ(1, c.SetBytesCount(1, 1000, s));
  std::string buf(1500, 'r');
  EXPECT_EQ(0, c.write(buf.data(), 1500, s, 1, 1, 0, 0, nullptr));
  EXPECT_EQ(800, c.write(buf.data(), 800, s, 1, 1, 0, 0, nullptr));
  EXPECT_EQ(0, c.write(buf.data(), 300, s, 1, 1, 0, 0, nullptr));
  EXPECT_EQ(200, c.write(buf.data(), 200, s, 1, 1, 0, 0, nullptr));
  clock.Advance(1000);
  EXPECT_EQ(1000, c.write(buf.data(), 1000, s, 1, 1, 0, 0, nullptr));
  // 2000 bytes over the 1 second since the first one.
  EXPECT_EQ(16000u, c.GetBitRate(1, s));
  EXPECT_EQ(0u, c.GetBitRate(0, s));  // restarted
  ::close(fds[0]);
  ::close(fds[1]);
}

// The soft descriptor limit raised to need (this machine's hard limit is
// 20,000); false when the hard limit is lower.
bool RaiseFdLimit(rlim_t need) {
  rlimit rl{};
  if (::getrlimit(RLIMIT_NOFILE, &rl) != 0)
    return false;
  if (rl.rlim_cur < need) {
    rl.rlim_cur = std::min(need, rl.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &rl) != 0)
      return false;
  }
  return rl.rlim_cur >= need;
}

// Dials n clients in batches below the listen backlog, each batch accepted
// by passes before the next. The client fds, in accept order.
std::vector<int> DialMany(SocketCtrl &srv, Recorder &rec, int port, size_t n) {
  std::vector<int> clients;
  auto end = Clock::now() + std::chrono::seconds(60);
  while (clients.size() < n && Clock::now() < end) {
    for (int i = 0; i < 500 && clients.size() < n; ++i)
      clients.push_back(Dial(port));
    while (rec.accepted.size() < clients.size() && Clock::now() < end)
      srv.accept(&rec, 1);
  }
  return clients;
}

// One Linux-mode controller holds far more connections than select could
// (2048) and serves a line on each.
TEST(SocketCtrlScale, FourThousandConnectionsOnOneEpollController) {
  constexpr size_t kConns = 4000;
  if (!RaiseFdLimit(2 * kConns + 64))
    GTEST_SKIP() << "descriptor limit too low";
  SocketCtrl srv(nullptr, 1, 65535, 0, 1, "scale");
  ASSERT_EQ(8u, srv.GetEventsMode());
  srv.SetTxtMode();
  Recorder rec;
  rec.onData = [](SocketCtrl *c, unsigned s, char *, unsigned) { return c->writeLine("pong", s, EOL_LF); };
  unsigned ls = 0;
  int port = 0;
  ASSERT_EQ(1, srv.listen("tcp", 1024, 0, "127.0.0.1", nullptr, &ls, 0, &port));
  std::vector<int> clients = DialMany(srv, rec, port, kConns);
  ASSERT_EQ(kConns, rec.accepted.size());
  for (int fd : clients)
    SendAll(fd, "ping\n");
  auto end = Clock::now() + std::chrono::seconds(60);
  while (rec.data.size() < kConns && Clock::now() < end)
    srv.accept(&rec, 1);
  ASSERT_EQ(kConns, rec.data.size());
  size_t served = 0;
  for (int fd : clients)
    served += ReadN(fd, 5) == "pong\n" ? 1 : 0;
  EXPECT_EQ(kConns, served);
  EXPECT_TRUE(rec.closes.empty());
  for (int fd : clients)
    ::close(fd);
}

// A select controller cannot watch more than 2048 sockets: a connection past
// that is refused (closed at once) instead of being held unwatched.
TEST(SocketCtrlScale, SelectControllerRefusesConnectionsPastItsLimit) {
  if (!RaiseFdLimit(2 * 2100 + 64))
    GTEST_SKIP() << "descriptor limit too low";
  SocketCtrl srv(nullptr, 1, 65535, 0, 0, "select");
  ASSERT_EQ(1u, srv.GetEventsMode());
  Recorder rec;
  unsigned ls = 0;
  int port = 0;
  ASSERT_EQ(1, srv.listen("tcp", 1024, 0, "127.0.0.1", nullptr, &ls, 0, &port));
  // The listening socket and the wake-up descriptor take two of the 2048
  // places.
  std::vector<int> clients = DialMany(srv, rec, port, 2046);
  ASSERT_EQ(2046u, rec.accepted.size());
  int extra = Dial(port);
  ASSERT_GE(extra, 0);
  srv.accept(&rec, 1);
  EXPECT_TRUE(PeerClosed(extra));
  EXPECT_EQ(2046u, rec.accepted.size());
  ::close(extra);
  for (int fd : clients)
    ::close(fd);
}

// --- Hardening: ownership of descriptors and their state -----------------------

// A loopback port that refuses connections: listened on, then closed.
int RefusingPort() {
  SocketCtrl probe(nullptr, 0, 0, 1, 1, "probe");
  unsigned ls = 0;
  int port = 0;
  return probe.listen("tcp", 1, 0, "127.0.0.1", nullptr, &ls, 0, &port) == 1 ? port : 0;
}

// A connection left in progress and then given up must take its queued bytes
// and its options with it, or the next socket with its number inherits them.
TEST(SocketCtrlClose, FailedInProgressConnectLeavesNothingForTheNextSocket) {
  SendQueue q(4096, 16, 16);
  SocketCtrl c(&q, 0, 0, 1, 1, "cli");
  int const refused = RefusingPort();
  ASSERT_GT(refused, 0);
  for (int way = 0; way < 2; ++way) {
    unsigned cs = 0;
    ASSERT_EQ(1, c.connect("127.0.0.1", "tcp", refused, nullptr, &cs, nullptr, 0, 1));
    ASSERT_EQ(1, c.SetMaxSendQueue(100000, 0, cs));
    ASSERT_EQ(1, c.SetBytesCount(1, 50, cs));
    ASSERT_EQ(5u, c.EnqueueData(cs, "stale", 5));
    if (way == 0)
      EXPECT_EQ(0, c.TestWriteSock(cs, 20, 1));  // refused: closed
    else
      EXPECT_EQ(1, c.closesocket(cs));
    EXPECT_EQ(0, q.HasData(cs)) << "way " << way;
    SockOptions o;
    EXPECT_EQ(0, c.GetSockOptions(cs, &o)) << "way " << way;
  }
}

// A blocking connect is watched only once it is connected: a pass running
// meanwhile must never see (and close) a socket still being connected, so a
// refused connect is closed once, by the connecting thread, and no pass
// reports a close for it.
TEST_P(SocketCtrlTest, RefusedBlockingConnectsAgainstARunningPass) {
  auto srv = Make("srv");
  int port = Listen(*srv);
  int const refused = RefusingPort();
  ASSERT_GT(refused, 0);
  std::atomic<int> closes{0}, bytes{0};
  std::atomic<bool> done{false};
  struct Counter final : ISocketCtrl {
    std::atomic<int> *closes, *bytes;
    int acceptCallback(SocketCtrl *, unsigned, char *, unsigned len) override {
      *bytes += static_cast<int>(len);
      return 1;
    }
    int connectCallback(SocketCtrl *, unsigned, unsigned) override { return 1; }
    void closeCallback(SocketCtrl *, unsigned, char const *) override { ++*closes; }
  } cb;
  cb.closes = &closes;
  cb.bytes = &bytes;
  JoinedThread pass([&] {
    auto end = Clock::now() + std::chrono::seconds(60);
    while (!done && Clock::now() < end)
      srv->accept(&cb, 1);
  });
  int made = 0;
  for (int i = 0; i < 100; ++i) {
    unsigned cs = 0;
    EXPECT_EQ(0, srv->connect("127.0.0.1", "tcp", refused, nullptr, &cs, nullptr, 1, 0));
    if (srv->connect("127.0.0.1", "tcp", port, nullptr, &cs, nullptr, 1, 0) == 1 &&
        srv->write("z", 1, cs, 1, 1, -1, 0, nullptr) == 1)
      ++made;
  }
  auto end = Clock::now() + kDeadline;
  while (bytes < made && Clock::now() < end)
    std::this_thread::yield();
  done = true;
  pass.Join();
  EXPECT_EQ(100, made);
  EXPECT_EQ(made, bytes.load());
  EXPECT_EQ(0, closes.load());
}

// Two threads writing large messages to one queued socket: every message
// arrives whole, never interleaved with the other thread's.
TEST_P(SocketCtrlTest, TwoWritersOnAQueuedSocketKeepMessagesWhole) {
  SendQueue q(4096, 64, 64);
  auto srv = Make("srv", &q);
  Recorder rec;
  int port = Listen(*srv);
  int fd = Connect(*srv, rec, port);
  unsigned s = rec.accepted[0];
  ASSERT_EQ(1, srv->set_non_blocking(s));
  ASSERT_EQ(1, srv->SetSndBufSize(4096, s));
  ASSERT_EQ(1, srv->SetMaxSendQueue(16u << 20, 0, s));
  constexpr size_t kMsg = 20000;
  constexpr int kPerWriter = 12;
  auto writer = [&](char base) {
    for (int i = 0; i < kPerWriter; ++i) {
      std::string const m(kMsg, static_cast<char>(base + i % 16));
      EXPECT_EQ(static_cast<int>(kMsg), srv->write(m.data(), kMsg, s, 1, 1, 0, 0, nullptr));
    }
  };
  std::string got;
  {
    JoinedThread a([&] { writer('A'); });
    JoinedThread b([&] { writer('a'); });
    got = ReadN(fd, 2 * kPerWriter * kMsg);
  }
  ASSERT_EQ(2 * kPerWriter * kMsg, got.size());
  for (size_t at = 0; at < got.size(); at += kMsg)
    ASSERT_EQ(std::string(kMsg, got[at]), got.substr(at, kMsg)) << "message at " << at << " torn";
  ::close(fd);
}

// A peer that ends its sending side still gets its last line (without a line
// end) delivered and every reply the controller accepted, then the close.
TEST_P(SocketCtrlTest, HalfCloseDeliversTheLastLineAndFlushesAcceptedReplies) {
  SendQueue q(65536, 64, 64);
  auto srv = Make("srv", &q);
  srv->SetTxtMode();
  Recorder rec;
  int port = Listen(*srv);
  int fd = Connect(*srv, rec, port);
  unsigned s = rec.accepted[0];
  ASSERT_EQ(1, srv->set_non_blocking(s));
  ASSERT_EQ(1, srv->SetMaxSendQueue(64u << 20, 0, s));
  std::string const reply = std::string(3u << 20, 'r') + "\n";
  rec.onData = [&](SocketCtrl *c, unsigned sock, char *, unsigned) {
    EXPECT_EQ(static_cast<int>(reply.size()),
              c->write(reply.data(), static_cast<unsigned>(reply.size()), sock, 1, 1, 0, 0, nullptr));
    return 1;
  };
  SendAll(fd, "first\nlast words");
  ASSERT_EQ(0, ::shutdown(fd, SHUT_WR));
  std::string got;
  {
    JoinedThread reader([&] { got = ReadN(fd, 2 * reply.size() + 1); });
    EXPECT_TRUE(PumpUntil(*srv, &rec, [&] { return !rec.closes.empty(); }));
  }
  ASSERT_EQ(2u, rec.data.size());
  EXPECT_STREQ("first", rec.data[0].second.c_str());
  EXPECT_STREQ("last words", rec.data[1].second.c_str());
  EXPECT_EQ(2 * reply.size(), got.size()) << "replies lost at the close";
  ASSERT_EQ(1u, rec.closes.size());
  EXPECT_EQ(SocketCtrl::kReasonPeerClosed, rec.closes[0].second);
  ::close(fd);
}

// A socket added by another thread while a pass waits wakes the wait: it is
// served long before the pass's time-out.
TEST_P(SocketCtrlTest, SocketAddedDuringALongWaitIsServedAtOnce) {
  auto srv = Make("srv");
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  struct Counter final : ISocketCtrl {
    std::atomic<int> got{0};
    int acceptCallback(SocketCtrl *, unsigned, char *, unsigned len) override {
      got += static_cast<int>(len);
      return 1;
    }
  } cb;
  unsigned ls = 0;
  int port = 0;
  ASSERT_EQ(1, srv->listen("tcp", 4, 0, "127.0.0.1", nullptr, &ls, 0, &port));
  std::atomic<bool> started{false};
  auto const begin = Clock::now();
  JoinedThread pass([&] {
    started = true;
    // Each pass may wait 30 s; without a wake-up the new socket would only
    // be watched after the first of them ended.
    while (cb.got == 0 && Clock::now() - begin < std::chrono::seconds(60))
      srv->accept(&cb, 30);
  });
  while (!started)
    std::this_thread::yield();
  ASSERT_EQ(1, srv->AddActiveSock(static_cast<unsigned>(fds[0])));
  ASSERT_EQ(3, ::send(fds[1], "hey", 3, 0));
  auto const added = Clock::now();
  pass.Join();
  EXPECT_EQ(3, cb.got.load());
  // Slop: a loaded machine may take seconds; the un-woken wait takes 30.
  EXPECT_LT(Clock::now() - added, std::chrono::seconds(15));
  srv->close(static_cast<unsigned>(fds[0]), 0);
  ::close(fds[1]);
}

// A stream that fills the buffer is read again at once: the bytes still come
// whole and in order, the short read ends the run, and an end met on such a
// read closes the socket as it would after a wait.
TEST_P(SocketCtrlTest, ReadallRunsOnAFullStreamAndEndsItAsAfterAWait) {
  auto sv = Serve(1);
  unsigned s = sv->S(0);
  std::string sent;
  for (int i = 0; i < 12; ++i)
    sent += std::string(8, static_cast<char>('a' + i));
  sent += "tail";
  SendAll(sv->fds[0], sent);
  ASSERT_TRUE(AllReadable({s}));
  std::string got;
  char buf[8];
  unsigned from = 0;
  auto end = Clock::now() + kDeadline;
  while (got.size() < sent.size() && Clock::now() < end) {
    int r = sv->srv->readall(buf, sizeof(buf), 0, 0, 1, &from, nullptr);
    ASSERT_GE(r, 0);
    if (r > 0) {
      EXPECT_EQ(s, from);
      got.append(buf, static_cast<std::size_t>(r));
    }
  }
  EXPECT_EQ(sent, got);
  // Exactly two buffers, then the end: the second read runs on and meets it.
  SendAll(sv->fds[0], std::string(16, 'z'));
  ASSERT_EQ(0, ::shutdown(sv->fds[0], SHUT_WR));
  int r = 0;
  std::vector<int> results;
  end = Clock::now() + kDeadline;
  while (r >= 0 && Clock::now() < end) {
    r = sv->srv->readall(buf, sizeof(buf), 0, 0, 1, &from, nullptr);
    if (r != 0)
      results.push_back(r);
  }
  EXPECT_EQ((std::vector<int>{8, 8, -1}), results);
  EXPECT_EQ(s, from);
  EXPECT_EQ(0, sv->srv->IsConnected(s));
}

// readall with all on a non-blocking socket keeps the bytes it took when the
// stream ends part way, and reports the end on the next call.
TEST_P(SocketCtrlTest, ReadallKeepsWhatItTookWhenTheStreamEndsEarly) {
  auto sv = Serve(1);
  unsigned s = sv->S(0);
  ASSERT_EQ(1, sv->srv->set_non_blocking(s));
  SendAll(sv->fds[0], "abc");
  ASSERT_EQ(0, ::shutdown(sv->fds[0], SHUT_WR));
  ASSERT_TRUE(AllReadable({s}));
  char buf[8] = {};
  unsigned from = 0;
  int r = 0;
  auto end = Clock::now() + kDeadline;
  while (r == 0 && Clock::now() < end)
    r = sv->srv->readall(buf, 6, 1, 0, 1, &from, nullptr);
  EXPECT_EQ(3, r);
  EXPECT_STREQ("abc", buf);
  r = 0;
  while (r == 0 && Clock::now() < end)
    r = sv->srv->readall(buf, 6, 1, 0, 1, &from, nullptr);
  EXPECT_EQ(-1, r);
  EXPECT_EQ(0, sv->srv->IsConnected(s));
}

// A line that went out in part on a non-blocking socket without a queue
// fails the socket, so the next line cannot be glued to the torn one.
TEST(SocketCtrlWrite, TornLineFailsTheSocket) {
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  SocketCtrl c(nullptr, 0, 0, 1, 0, "torn");
  unsigned s = static_cast<unsigned>(fds[0]);
  ASSERT_EQ(1, c.set_non_blocking(s));
  ASSERT_EQ(1, c.SetSndBufSize(4096, s));
  std::string const text(70000, 't');
  EXPECT_EQ(0, c.writeLine(text.c_str(), s, EOL_LF));
  char peek[8];
  ASSERT_GT(::recv(fds[1], peek, sizeof(peek), MSG_PEEK | MSG_DONTWAIT), 0) << "nothing went out at all";
  EXPECT_EQ(0, c.CanSendData(s));
  EXPECT_EQ(0, c.writeLine("next", s, EOL_LF));
  ::close(fds[0]);
  ::close(fds[1]);
}

// Write errors: marks made by a close callback survive to the next pass, and
// a number that is not active gets no callback.
TEST_P(SocketCtrlTest, WriteErrorsAreHandledOnceAndOnlyForActiveSockets) {
  auto srv = Make("srv");
  Recorder rec;
  int a[2], b[2], idle[2];
  for (int *p : {a, b, idle})
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, p));
  for (int *p : {a, b, idle})
    ASSERT_EQ(0, ::shutdown(p[1], SHUT_RD));  // our sends fail, nothing to read
  unsigned sa = static_cast<unsigned>(a[0]), sb = static_cast<unsigned>(b[0]);
  ASSERT_EQ(1, srv->AddActiveSock(sa));
  ASSERT_EQ(1, srv->AddActiveSock(sb));
  EXPECT_EQ(-1, srv->write("x", 1, sa, 1, 1, 0, 0, nullptr));
  EXPECT_EQ(-1, srv->write("x", 1, static_cast<unsigned>(idle[0]), 1, 1, 0, 0, nullptr));
  std::vector<unsigned> closed;
  struct OnClose final : ISocketCtrl {
    std::vector<unsigned> *closed;
    unsigned other;
    void closeCallback(SocketCtrl *c, unsigned sock, char const *reason) override {
      EXPECT_STREQ(SocketCtrl::kReasonWriteError, reason);
      closed->push_back(sock);
      c->write("y", 1, other, 1, 1, 0, 0, nullptr);  // fails: marks the other socket
    }
  } cb;
  cb.closed = &closed;
  cb.other = sb;
  EXPECT_TRUE(PumpUntil(*srv, &cb, [&] { return closed.size() >= 2; }));
  EXPECT_EQ((std::vector<unsigned>{sa, sb}), closed);
  srv->accept(&cb, 0);
  EXPECT_EQ(2u, closed.size());
  for (int *p : {a, b, idle})
    ::close(p[1]);
  ::close(idle[0]);
}

TEST_P(SocketCtrlTest, OverlongDatagramIsCountedNotDeliveredCut) {
  auto c = std::make_unique<SocketCtrl>(nullptr, 1, 100, 0, GetParam() == 8, "udp");
  if (GetParam() == 2) {
    ASSERT_EQ(1, c->SetEventsModes(2));
  }
  unsigned us = 0;
  int port = 0;
  ASSERT_EQ(1, c->listen("udp", 0, 0, "127.0.0.1", nullptr, &us, 0, &port));
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string const big(500, 'B'), small(50, 's');
  for (std::string const *d : {&big, &small})
    ASSERT_EQ(static_cast<ssize_t>(d->size()),
              ::sendto(fd, d->data(), d->size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)));
  Recorder rec;
  auto end = Clock::now() + kDeadline;
  while (rec.datagrams.empty() && Clock::now() < end)
    c->acceptUDP(&rec, 1);
  ASSERT_EQ(1u, rec.datagrams.size());
  EXPECT_EQ(small, rec.datagrams[0].second);
  EXPECT_EQ(1u, c->GetTruncatedDatagrams());
  ::close(fd);
}

// A descriptor closed behind the controller's back is forgotten, so only
// the pass that met it fails, not every later one.
TEST_P(SocketCtrlTest, DescriptorClosedBehindTheControllerFailsOnePassAtMost) {
  auto sv = Serve(1);
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  ASSERT_EQ(1, sv->srv->AddActiveSock(static_cast<unsigned>(fds[0])));
  ::close(fds[0]);
  sv->srv->accept(&sv->rec, 0);
  EXPECT_EQ(1, sv->srv->accept(&sv->rec, 0));
  EXPECT_EQ(1, sv->srv->accept(&sv->rec, 0));
  SendAll(sv->fds[0], "still served");
  EXPECT_TRUE(PumpUntil(*sv->srv, &sv->rec, [&] { return !sv->rec.data.empty(); }));
  ::close(fds[1]);
}

// Several threads writing to one rate-limited socket within one (frozen)
// second never send more than the second's allowance together.
TEST(SocketCtrlWrite, ConcurrentWritersNeverPassTheRateLimit) {
  shared::platform::ManualClock clock(1700000000, 1000, false);
  shared::platform::ScopedClockSource use(clock);
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  SocketCtrl c(nullptr, 0, 0, 1, 0, "rate");
  unsigned s = static_cast<unsigned>(fds[0]);
  constexpr int kLimit = 100000;
  ASSERT_EQ(1, c.SetBytesCount(1, kLimit, s));
  std::atomic<long> sent{0};
  std::atomic<long> drained{0};
  {
    JoinedThread drain([&] {
      char buf[65536];
      ssize_t r;
      while ((r = ::recv(fds[1], buf, sizeof(buf), 0)) > 0)
        drained += r;
    });
    {
      std::vector<JoinedThread> writers;
      for (int w = 0; w < 4; ++w)
        writers.emplace_back([&] {
          std::string const chunk(700, 'w');
          for (int refused = 0; refused < 50;) {
            int r = c.write(chunk.data(), 700, s, 1, 1, 0, 0, nullptr);
            if (r > 0)
              sent += r;
            else
              ++refused;
          }
        });
    }
    ::shutdown(fds[0], SHUT_WR);
  }
  EXPECT_LE(sent.load(), kLimit);
  EXPECT_GT(sent.load(), kLimit - 700 * 4);
  EXPECT_EQ(sent.load(), drained.load());
  ::close(fds[0]);
  ::close(fds[1]);
}

// Out of descriptors, the listening socket is rested instead of spinning the
// passes; accepting resumes when descriptors come free. Run in a child with
// a lowered descriptor limit; it reports through its exit code.
TEST(SocketCtrlScale, OutOfDescriptorsDoesNotSpinAndRecovers) {
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::alarm(60);  // the child ends by itself whatever happens
    SocketCtrl srv(nullptr, 1, 65535, 0, 1, "emfile");
    Recorder rec;
    unsigned ls = 0;
    int port = 0;
    if (srv.listen("tcp", 16, 0, "127.0.0.1", nullptr, &ls, 0, &port) != 1)
      ::_exit(2);
    int client = Dial(port);
    // The sanitizers' first type check of the clock needs a descriptor of
    // its own: make it now, while there are some.
    (void)shared::platform::TickCount();
    std::vector<int> filler;
    rlimit rl{};
    ::getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = static_cast<rlim_t>(client + 8);
    ::setrlimit(RLIMIT_NOFILE, &rl);
    for (int fd; (fd = ::dup(0)) >= 0;)
      filler.push_back(fd);
    timespec cpu0{}, cpu1{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu0);
    auto const wall0 = Clock::now();
    while (Clock::now() - wall0 < std::chrono::seconds(2))
      srv.accept(&rec, 1);
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu1);
    double const cpu = static_cast<double>(cpu1.tv_sec - cpu0.tv_sec) + (cpu1.tv_nsec - cpu0.tv_nsec) / 1e9;
    if (!rec.accepted.empty())
      ::_exit(3);
    if (cpu > 0.5)  // a spinning pass burns the whole 2 s
      ::_exit(4);
    for (int fd : filler)
      ::close(fd);
    auto const end = Clock::now() + kDeadline;
    while (rec.accepted.empty() && Clock::now() < end)
      srv.accept(&rec, 1);
    ::_exit(rec.accepted.size() == 1 ? 0 : 5);
  }
  int status = 0;
  ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status)) << "3: accepted while out of descriptors, 4: spun, 5: never resumed";
}

// Replies written by the callbacks of a pass are gathered per socket: they
// still arrive in order, to every socket written, and a socket closed by its
// callback gets its replies before the end of the stream.
TEST_P(SocketCtrlTest, RepliesOfAPassArriveInOrderAndBeforeTheirClose) {
  auto sv = Serve(2);
  sv->srv->SetTxtMode();
  Recorder &rec = sv->rec;
  unsigned const other = sv->S(1);
  rec.onData = [&](SocketCtrl *c, unsigned s, char *d, unsigned) {
    std::string const line(d);
    EXPECT_EQ(1, c->writeLine(("re:" + line).c_str(), s, EOL_CRLF));
    EXPECT_EQ(1, c->writeLine(("to:" + line).c_str(), other, EOL_LF));
    return line == "bye" ? 0 : 1;
  };
  SendAll(sv->fds[0], "a\nb\nbye\nlost\n");
  ASSERT_TRUE(PumpUntil(*sv->srv, &rec, [&] { return !rec.closes.empty(); }));
  std::string const replies = "re:a\r\nre:b\r\nre:bye\r\n";
  EXPECT_EQ(replies, ReadN(sv->fds[0], replies.size() + 1)) << "nothing after the refused line";
  std::string const copies = "to:a\nto:b\nto:bye\n";
  EXPECT_EQ(copies, ReadN(sv->fds[1], copies.size()));
  // A write outside a pass goes out at once.
  ASSERT_EQ(1, sv->srv->writeLine("now", other, EOL_LF));
  EXPECT_EQ("now\n", ReadN(sv->fds[1], 4));
}

// A wake-up that comes before the pass starts waiting is not lost.
TEST_P(SocketCtrlTest, WakeUpBeforeTheWaitEndsTheNextPassAtOnce) {
  auto srv = Make("srv");
  Listen(*srv);
  Recorder rec;
  srv->WakeUp();
  auto const begin = Clock::now();
  EXPECT_EQ(1, srv->accept(&rec, 30));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(15));
  // It was spent: the next pass waits its time (a short one here).
  EXPECT_EQ(1, srv->accept(&rec, 0));
}

// A binary-mode callback handed a full receive buffer may end it with a NUL.
TEST(SocketCtrlBinary, FullReceiveBufferHasRoomForATerminator) {
  SocketCtrl srv(nullptr, 1, 16, 0, 1, "srv");
  unsigned ls = 0;
  int port = 0;
  ASSERT_EQ(1, srv.listen("tcp", 4, 0, "127.0.0.1", nullptr, &ls, 0, &port));
  Recorder rec;
  rec.onData = [](SocketCtrl *, unsigned, char *d, unsigned len) {
    d[len] = '\0';
    return 1;
  };
  int fd = Dial(port);
  ASSERT_GE(fd, 0);
  SendAll(fd, std::string(16, 'x'));
  auto const end = Clock::now() + kDeadline;
  while (rec.data.empty() && Clock::now() < end)
    srv.accept(&rec, 1);
  ASSERT_FALSE(rec.data.empty());
  EXPECT_EQ(16u, rec.data[0].second.size());
  ::close(fd);
}

}  // namespace
