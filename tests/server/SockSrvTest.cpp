// SockSrv with plain POSIX clients on loopback: message delivery, writes,
// users and the idle policy (on the test clock, never on real time).
#include "server/SockSrv.h"

#include "ServerTestSupport.h"
#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

namespace {

using namespace srvtest;
namespace sp = shared::platform;

// A started server with its application and a loopback listener.
struct Fixture {
  App app;
  std::unique_ptr<SockSrv> srv;
  int port = -1;
  explicit Fixture(int linuxMode = 1) {
    srv = std::make_unique<SockSrv>(&app, nullptr, 65535, linuxMode, "test server");
    app.srv = srv.get();
    port = ListenAny(*srv);
  }
  // Connects a client and returns it with the server's socket of the user.
  std::pair<int, unsigned> Join() {
    unsigned before = Users(*srv);
    int fd = Dial(port);
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(Eventually([&] { return Users(*srv) == before + 1; }));
    return {fd, NewestUser(*srv)};
  }
};

class SockSrvModes : public ::testing::TestWithParam<int> {};

TEST_P(SockSrvModes, LinesArriveTerminatedCappedAndEchoedInOrder) {
  Fixture f(GetParam());
  ASSERT_TRUE(f.srv->IsOk());
  ASSERT_GT(f.port, 0);
  auto [fd, sock] = f.Join();
  std::string const big(20000, 'x');
  ASSERT_TRUE(SendAll(fd, "hello\r\n" + big + "\n\nbye\n"));
  ASSERT_TRUE(Eventually([&] { return f.app.Messages() == 3; }));
  EXPECT_EQ(f.app.Message(0), std::make_pair(sock, std::string("hello")));
  EXPECT_EQ(f.app.Message(1).second, std::string(SockSrv::kMaxMessage, 'x'));
  EXPECT_EQ(f.app.Message(2).second, "bye");
  EXPECT_TRUE(f.app.AllTerminated());
  std::string const want = "hello\r\n" + std::string(SockSrv::kMaxMessage, 'x') + "\r\nbye\r\n";
  EXPECT_EQ(ReadBytes(fd, want.size()), want);
  ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(SelectAndEpoll, SockSrvModes, ::testing::Values(0, 1));

TEST(SockSrv, RawWriteIsCutAt65535AndLineWriteStopsAtNul) {
  Fixture f;
  auto [fd, sock] = f.Join();
  std::string raw(70000, 'r');
  raw[65534] = 'E';
  EXPECT_EQ(f.srv->write(raw.data(), static_cast<int>(raw.size()), sock, 0), 1);
  char const line[] = "abc\0def";
  EXPECT_EQ(f.srv->write(line, 7, sock, 1), 1);
  std::string got = ReadBytes(fd, 65535 + 5);
  ASSERT_EQ(got.size(), 65535u + 5);
  EXPECT_EQ(got[65534], 'E');
  EXPECT_EQ(got.substr(65535), "abc\r\n");
  // Nothing else was sent: the next bytes are the echo of a new line.
  ASSERT_TRUE(SendAll(fd, "next\n"));
  EXPECT_EQ(ReadBytes(fd, 6), "next\r\n");
  // Refusals.
  EXPECT_EQ(f.srv->write(nullptr, 3, sock, 0), 0);
  EXPECT_EQ(f.srv->write("x", 0, sock, 0), 0);
  ::close(fd);
}

TEST(SockSrv, PeerClosesAreReportedOnceAndThePeakStays) {
  Fixture f;
  auto a = f.Join();
  auto b = f.Join();
  auto c = f.Join();
  ::close(a.first);
  Reset(b.first);
  ASSERT_TRUE(Eventually([&] { return Users(*f.srv) == 1; }));
  ASSERT_TRUE(Eventually([&] { return f.app.TotalCloses() == 2; }));
  EXPECT_EQ(f.app.Closes(a.second), 1);
  EXPECT_EQ(f.app.Closes(b.second), 1);
  EXPECT_EQ(f.srv->GetMaxUsers(), 3u);
  // The survivor is still served.
  ASSERT_TRUE(SendAll(c.first, "still\n"));
  EXPECT_EQ(ReadBytes(c.first, 7), "still\r\n");
  ::close(c.first);
  ASSERT_TRUE(Eventually([&] { return f.app.TotalCloses() == 3; }));
}

TEST(SockSrv, UsersAreUniqueAndRenamable) {
  Fixture f;
  auto [fd, sock] = f.Join();
  EXPECT_EQ(f.srv->AddUser(sock, "again", 7), 0);
  EXPECT_EQ(f.srv->AddUser(SockSrv::kNoSocket, "none", 0), 0);
  EXPECT_EQ(Users(*f.srv), 1u);
  SockSrvUser *u = f.srv->GetFirstIdleUser();
  ASSERT_NE(u, nullptr);
  EXPECT_STREQ(u->GetName(), "127.0.0.1");
  EXPECT_STREQ(u->GetPeerAddress(), "127.0.0.1");
  EXPECT_EQ(u->GetUserData(), 0u);
  EXPECT_EQ(f.srv->SetName(sock, "alice"), 1);
  EXPECT_STREQ(u->GetName(), "alice");
  EXPECT_EQ(f.srv->SetName(sock + 1000, "bob"), 0);
  EXPECT_EQ(f.srv->SetName(SockSrv::kNoSocket, "bob"), 0);
  ::close(fd);
}

TEST(SockSrv, FailedWriteDropsTheUserWithoutCallback) {
  Fixture f;
  // A socket that never connected: every send on it fails.
  int lone = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(lone, 0);
  auto sock = static_cast<unsigned>(lone);
  ASSERT_EQ(f.srv->AddUser(sock, "lone", 5), 1);
  EXPECT_EQ(f.srv->write("hi", 2, sock, 1), 0);
  EXPECT_EQ(Users(*f.srv), 0u);
  EXPECT_EQ(f.srv->write("hi", 2, sock, 0), 0);
  // The controller's pass that handles the marked failure stays silent too.
  f.srv->WakeUp();
  auto [fd, other] = f.Join();
  ASSERT_TRUE(SendAll(fd, "after\n"));
  EXPECT_EQ(ReadBytes(fd, 7), "after\r\n");
  EXPECT_EQ(f.app.TotalCloses(), 0);
  ::close(fd);
  ::close(lone);
}

TEST(SockSrv, UnderstoodNothingEndsTheConnection) {
  Fixture f;
  f.app.dataAnswer = 0;
  f.app.echo = false;
  auto [fd, sock] = f.Join();
  ASSERT_TRUE(SendAll(fd, "gibberish\n"));
  EXPECT_TRUE(PeerClosed(fd));
  ASSERT_TRUE(Eventually([&] { return f.app.Closes(sock) == 1; }));
  EXPECT_EQ(Users(*f.srv), 0u);
  ::close(fd);
}

TEST(SockSrv, DestructionClosesUsersWithoutCallbacks) {
  Fixture f;
  auto a = f.Join();
  auto b = f.Join();
  f.srv.reset();
  EXPECT_TRUE(PeerClosed(a.first));
  EXPECT_TRUE(PeerClosed(b.first));
  EXPECT_EQ(f.app.TotalCloses(), 0);
  ::close(a.first);
  ::close(b.first);
}

TEST(SockSrv, DelUserFromAnotherThreadClosesAtOnce) {
  Fixture f;
  auto a = f.Join();
  auto b = f.Join();
  EXPECT_EQ(f.srv->DelUser(a.second), 1);
  EXPECT_TRUE(PeerClosed(a.first));
  EXPECT_EQ(f.srv->DelUser(a.second), 0);
  EXPECT_EQ(f.srv->DelUsers(), 1);
  EXPECT_TRUE(PeerClosed(b.first));
  EXPECT_EQ(f.app.TotalCloses(), 0);
  ::close(a.first);
  ::close(b.first);
}

// A plain listener for the server's own outgoing connections.
struct Peer {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  int port = 0;
  Peer() {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    ::listen(fd, 4);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~Peer() { ::close(fd); }
  int Accept() {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 20000) == 1 ? ::accept(fd, nullptr, nullptr) : -1;
  }
};

TEST(SockSrv, ConnectsSynchronouslyAndThroughThePool) {
  Fixture f;
  EXPECT_EQ(f.srv->listen(0, "127.0.0.1", nullptr), 0);
  Peer peer;
  unsigned out = 0;
  ASSERT_EQ(f.srv->connect("127.0.0.1", peer.port, 0, nullptr, &out, 0, 1), 1);
  EXPECT_NE(f.srv->GetLastConnTime(), 0);
  int in = peer.Accept();
  ASSERT_GE(in, 0);
  // The outgoing connection is the controller's own socket (-1).
  EXPECT_EQ(f.srv->write("hello", 5, SockSrv::kNoSocket, 1), 1);
  EXPECT_EQ(ReadBytes(in, 7), "hello\r\n");
  ASSERT_TRUE(SendAll(in, "from peer\n"));
  ASSERT_TRUE(Eventually([&] { return f.app.Messages() == 1; }));
  EXPECT_EQ(f.app.Message(0), std::make_pair(out, std::string("from peer")));

  // A second connect replaces the first, checked on the pool.
  f.srv->SetConnPool(new ThreadPool(2));
  unsigned out2 = 0;
  ASSERT_EQ(f.srv->connect("127.0.0.1", peer.port, 0, nullptr, &out2, 0, 0), 1);
  EXPECT_TRUE(PeerClosed(in));
  ::close(in);
  int in2 = peer.Accept();
  ASSERT_GE(in2, 0);
  ASSERT_TRUE(Eventually([&] { return f.srv->GetSocketCtrl()->IsMasterSockRdy() != 0; }));
  EXPECT_EQ(f.srv->write("again", 5, SockSrv::kNoSocket, 1), 1);
  EXPECT_EQ(ReadBytes(in2, 7), "again\r\n");
  f.srv->close(out2);
  EXPECT_TRUE(PeerClosed(in2));
  ::close(in2);
  EXPECT_EQ(f.srv->connect("", peer.port, 0, nullptr, &out, 0, 1), 0);
  EXPECT_EQ(out, SockSrv::kNoSocket);
}

// --- Idle policy on the test clock ----------------------------------------------------

// The test clock must be installed before the server starts and removed
// after it is gone, hence the member order.
struct IdleFixture {
  sp::ManualClock clock{1700000000, 1000, false};
  sp::ScopedClockSource scoped{clock};
  Fixture f;
  std::int64_t t0 = sp::NowSeconds();
  void At(int seconds) { clock.SetSeconds(t0 + seconds); }
};

TEST(SockSrvIdle, WarnsOnceDropsAfterThirtySecondsAndSparesActiveAndDeclined) {
  IdleFixture x;
  auto &f = x.f;
  f.app.echo = false;
  auto chatty = f.Join();
  auto silent = f.Join();
  auto declined = f.Join();
  f.app.Decline(declined.second);
  for (int t = 5; t <= 45; t += 5) {
    x.At(t);
    if (t % 10 == 0) {  // the chatty user speaks every 10 s
      std::size_t before = f.app.Messages();
      ASSERT_TRUE(SendAll(chatty.first, "alive\n"));
      ASSERT_TRUE(Eventually([&] { return f.app.Messages() == before + 1; }));
    }
    f.srv->VerifyIdleUsers();
    // The server thread may run checks of its own meanwhile; the counts
    // below hold however many checks ran at each instant.
    EXPECT_EQ(f.app.Idles(silent.second), t < 15 ? 0 : 1) << t;
    EXPECT_EQ(f.app.Closes(silent.second), t < 30 ? 0 : 1) << t;
    EXPECT_EQ(f.app.Idles(chatty.second), 0) << t;
    if (t >= 15) {
      EXPECT_GE(f.app.Idles(declined.second), (t - 10) / 5) << t;
    }
  }
  EXPECT_TRUE(PeerClosed(silent.first));
  EXPECT_EQ(Users(*f.srv), 2u);
  EXPECT_EQ(f.app.Closes(declined.second), 0);
  // The idle walk lists the users from the longest silent.
  SockSrvUser *first = f.srv->GetFirstIdleUser();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->GetSocket(), declined.second);
  ASSERT_NE(f.srv->GetNextIdleUser(), nullptr);
  EXPECT_EQ(f.srv->GetNextIdleUser(), nullptr);
  ::close(chatty.first);
  ::close(silent.first);
  ::close(declined.first);
}

TEST(SockSrvIdle, TheServerThreadChecksEveryFiveSecondsOfTheClock) {
  IdleFixture x;
  auto &f = x.f;
  auto silent = f.Join();
  x.At(16);
  f.srv->WakeUp();  // the thread looks at the clock when its pass ends
  ASSERT_TRUE(Eventually([&] { return f.app.Idles(silent.second) == 1; }));
  x.At(31);
  f.srv->WakeUp();
  ASSERT_TRUE(Eventually([&] { return f.app.Closes(silent.second) == 1; }));
  EXPECT_TRUE(PeerClosed(silent.first));
  EXPECT_EQ(f.app.Idles(silent.second), 1);
  ::close(silent.first);
}

// A callback that removes other users during the idle walk must not break
// the walk: every silent user is still warned or dropped exactly once.
TEST(SockSrvIdle, CallbacksMayRemoveUsersDuringTheWalk) {
  IdleFixture x;
  auto &f = x.f;
  struct Remover final : ISockSrvCallback {
    SockSrv *srv = nullptr;
    std::vector<unsigned> victims;
    int idles = 0;
    int OnSockSrvData(char const *, unsigned, unsigned) override { return 1; }
    int OnSockSrvIdle(unsigned sock) override {
      ++idles;
      for (unsigned v : victims)
        if (v != sock)
          srv->DelUser(v);
      victims.clear();
      return 1;
    }
    void OnSockSrvClose(unsigned) override {}
  } remover;
  x.f.srv.reset();
  f.srv = std::make_unique<SockSrv>(&remover, nullptr, 65535, 1, "walk");
  remover.srv = f.srv.get();
  f.port = ListenAny(*f.srv);
  std::vector<std::pair<int, unsigned>> users;
  for (int i = 0; i < 4; ++i)
    users.push_back(f.Join());
  f.srv->Wait("test");  // hold the thread's own checks off while arming
  remover.victims = {users[1].second, users[2].second};
  f.srv->Signal("test");
  x.At(20);
  f.srv->VerifyIdleUsers();
  EXPECT_EQ(Users(*f.srv), 2u);
  EXPECT_EQ(remover.idles, 2);  // users 0 and 3; 1 and 2 were removed first
  for (auto &u : users)
    ::close(u.first);
}

}  // namespace
