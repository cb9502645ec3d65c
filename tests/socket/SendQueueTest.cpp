// SendQueue with its thread, behind SocketCtrl::write, on loopback.
#include "socket/SendQueue.h"

#include "platform/Clock.h"
#include "platform/SocketApi.h"
#include "socket/SocketCtrl.h"
#include "socket/SocketPrimitives.h"
#include "JoinedThread.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using shared::platform::ManualClock;
using shared::platform::ScopedClockSource;
constexpr auto kDeadline = std::chrono::seconds(30);

class Accepter final : public ISocketCtrl {
public:
  std::vector<unsigned> accepted;
  int connectCallback(SocketCtrl *, unsigned, unsigned s) override {
    accepted.push_back(s);
    return 1;
  }
};

// Records the chunks the queue sends.
class ChunkLog final : public ISendQueueDump {
public:
  void Dump(unsigned, char const *, unsigned len, int sent) override {
    std::lock_guard<std::mutex> g(mutex);
    (sent ? sends : inserts).push_back(len);
  }
  std::vector<unsigned> Sends() {
    std::lock_guard<std::mutex> g(mutex);
    return sends;
  }
  std::mutex mutex;
  std::vector<unsigned> sends;
  std::vector<unsigned> inserts;
};

// A server controller with one accepted, non-blocking connection whose
// client has a small receive buffer (so writes soon have to be queued).
struct Link {
  SocketCtrl srv;
  Accepter acc;
  std::vector<int> clients;
  int port = 0;

  explicit Link(SendQueue *q) : srv(q, 1, 65535, 0, 1, "sq") {
    unsigned ls = 0;
    EXPECT_EQ(1, srv.listen("tcp", 16, 0, "127.0.0.1", nullptr, &ls, 0, &port));
  }
  ~Link() {
    for (int fd : clients)
      ::close(fd);
  }
  // Connects one more client; returns the server side of it.
  unsigned Add(bool nonBlocking = true) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
    clients.push_back(fd);
    size_t before = acc.accepted.size();
    auto end = Clock::now() + kDeadline;
    while (acc.accepted.size() == before && Clock::now() < end)
      srv.accept(&acc, 1);
    EXPECT_GT(acc.accepted.size(), before);
    unsigned s = acc.accepted.back();
    if (nonBlocking) {
      EXPECT_EQ(1, srv.set_non_blocking(s));
    }
    EXPECT_EQ(1, srv.SetSndBufSize(4096, s));
    return s;
  }
};

// Reads exactly n bytes from fd (or what came before the deadline).
std::string ReadN(int fd, size_t n) {
  std::string out;
  auto end = Clock::now() + kDeadline;
  while (out.size() < n && Clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0)
      continue;
    char buf[8192];
    ssize_t r = ::recv(fd, buf, std::min(sizeof(buf), n - out.size()), 0);
    if (r <= 0)
      break;
    out.append(buf, static_cast<size_t>(r));
  }
  return out;
}

bool NothingToRead(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 200) == 0;
}

std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i)
    s[i] = static_cast<char>((i * 131 + seed) % 251);
  return s;
}

template <typename Pred>
bool WaitFor(Pred pred) {
  auto end = Clock::now() + kDeadline;
  while (!pred()) {
    if (Clock::now() > end)
      return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(SendQueue, InsertRefusalsAndEmptyPasses) {
  SendQueue q(4096, 16, 16);
  ASSERT_EQ(1, q.IsOk());
  SocketCtrl c(&q, 0, 0, 1, 0, "c");
  EXPECT_EQ(0u, q.insert(5, "x", 0, 100, &c, 0));
  EXPECT_EQ(0u, q.insert(5, "x", 1, 100, nullptr, 0));
  EXPECT_EQ(0u, q.insert(SocketCtrl::kNoSocket, "x", 1, 100, &c, 0));
  EXPECT_EQ(0u, q.insert(5, nullptr, 1, 100, &c, 0));
  EXPECT_EQ(0u, q.insert(5, "x", 1, 0, &c, 0));
  EXPECT_EQ(1, q.SendQueuedData(0, 5));  // nothing queued: all done
  EXPECT_EQ(1, q.SendQueuedData(0, SocketCtrl::kNoSocket));
  unsigned count = 9;
  EXPECT_EQ(0u, q.GetSendQueueSize(SocketCtrl::kNoSocket, &count));
  EXPECT_EQ(0u, count);
  // Descriptor 0 is a socket like any other (the queue offsets its ids).
  EXPECT_EQ(3u, q.insert(0, "abc", 3, 100, &c, 0));
  EXPECT_EQ(3u, q.GetSendQueueSize(0, &count));
  EXPECT_EQ(1, q.erase(0));
  EXPECT_EQ(0, q.HasData(0));
  // All or nothing: an insert that would pass the record's limit part-way
  // (its first slot-size piece fits, the rest not) queues none of it.
  std::string const big(5000, 'b');
  EXPECT_EQ(5000u, q.insert(7, big.data(), 5000, 9500, &c, 0));
  EXPECT_EQ(0u, q.insert(7, big.data(), 5000, 9500, &c, 0));
  EXPECT_EQ(5000u, q.GetSendQueueSize(7, &count));
  q.erase(7);
}

TEST(SendQueue, StopAndStartTheThread) {
  SendQueue q(4096, 16, 16);
  SocketCtrl c(&q, 0, 0, 1, 0, "c");
  EXPECT_EQ(0, q.StartSendQueueThread());  // one runs already
  // Data for a socket that never turns writable keeps the thread in its
  // wait; the stop must still end it.
  int fds[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  char fill[4096] = {};
  while (::send(fds[0], fill, sizeof(fill), MSG_DONTWAIT) > 0) {
  }
  EXPECT_EQ(1u, q.insert(static_cast<unsigned>(fds[0]), "x", 1, 100, &c, 0));
  q.StopSendQueueThread();
  EXPECT_EQ(0, q.IsOk());
  EXPECT_EQ(0u, q.insert(5, "x", 1, 100, &c, 0));
  q.StopSendQueueThread();  // twice is harmless
  EXPECT_EQ(1, q.StartSendQueueThread());
  EXPECT_EQ(1, q.IsOk());
  EXPECT_EQ(1u, q.insert(5, "x", 1, 100, &c, 0));
  q.erase(5);
  q.erase(static_cast<unsigned>(fds[0]));
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(SendQueue, SlowReceiverGetsEveryByteOnceAndInOrder) {
  SendQueue q(4096, 64, 64);
  Link link(&q);
  unsigned s = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(8u << 20, 0, s));
  std::string const data = Pattern(64 * 1024, 7);
  size_t const chunk = 3000;
  bool queuedSome = false;
  for (size_t off = 0; off < data.size(); off += chunk) {
    unsigned n = static_cast<unsigned>(std::min(chunk, data.size() - off));
    ASSERT_EQ(static_cast<int>(n), link.srv.write(data.data() + off, n, s, 1, 1, 0, 0, nullptr));
    queuedSome = queuedSome || link.srv.isSockSndBufFull(s);
  }
  EXPECT_TRUE(queuedSome);
  unsigned count = 0;
  EXPECT_GT(link.srv.GetSndQueuedDataSize(s, &count), 0u);
  std::string got = ReadN(link.clients[0], data.size());
  ASSERT_EQ(data.size(), got.size());
  EXPECT_TRUE(got == data) << "bytes lost, repeated or reordered";
  EXPECT_TRUE(WaitFor([&] { return !link.srv.isSockSndBufFull(s); }));
  EXPECT_TRUE(NothingToRead(link.clients[0]));
}

TEST(SendQueue, RateLimitSpreadsARecordOverSeconds) {
  ManualClock clock(1700000000, 1000, false);
  ScopedClockSource use(clock);
  SendQueue q(4096, 64, 64);
  Link link(&q);
  unsigned s = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(100000, 0, s));
  ASSERT_EQ(1, link.srv.SetBytesCount(1, 1000, s));
  std::string const data = Pattern(3000, 3);
  // 1000 bytes go out at once, the rest waits in the queue.
  ASSERT_EQ(3000, link.srv.write(data.data(), 3000, s, 1, 1, 0, 0, nullptr));
  int fd = link.clients[0];
  EXPECT_EQ(data.substr(0, 1000), ReadN(fd, 1000));
  unsigned count = 0;
  EXPECT_EQ(2000u, link.srv.GetSndQueuedDataSize(s, &count));
  // Further passes within the same second send nothing.
  EXPECT_EQ(0, q.SendQueuedData(0, s));
  EXPECT_TRUE(NothingToRead(fd));
  EXPECT_EQ(2000u, link.srv.GetSndQueuedDataSize(s, &count));
  for (int second = 1; second <= 2; ++second) {
    clock.Advance(1000);
    EXPECT_EQ(data.substr(static_cast<size_t>(second) * 1000, 1000), ReadN(fd, 1000));
  }
  EXPECT_TRUE(WaitFor([&] { return !link.srv.isSockSndBufFull(s); }));
  // 3000 bytes counted over the 2 seconds since the first one.
  EXPECT_EQ(3000u * 8 / 2, link.srv.GetBitRate(0, s));

  // A framed message longer than a whole second's allowance cannot ever go
  // whole: it goes in pieces of the allowance instead of waiting for ever.
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(100000, 1, s));
  std::string const msg = Pattern(2500, 4);
  ASSERT_EQ(2500, link.srv.write(msg.data(), 2500, s, 1, 1, 0, 0, nullptr));  // this second is used up
  std::string got;
  for (int second = 0; second < 3; ++second) {
    clock.Advance(1000);
    got += ReadN(fd, std::min<size_t>(1000, msg.size() - got.size()));
  }
  EXPECT_TRUE(got == msg);
}

// Framed messages longer than a slot, and one longer than a whole read of
// the sender, reach a slow receiver whole and in order.
TEST(SendQueue, FramedMessagesLongerThanASlotGoOutWhole) {
  SendQueue q(1024, 64, 64);
  Link link(&q);
  unsigned s = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(8u << 20, 1, s));
  std::string all;
  unsigned seed = 0;
  for (size_t n : {3000u, 70000u, 500u, 3000u, 20000u, 1020u, 1021u, 9000u}) {
    std::string const m = Pattern(n, ++seed);
    ASSERT_EQ(static_cast<int>(n), link.srv.write(m.data(), static_cast<unsigned>(n), s, 1, 1, 0, 0, nullptr));
    all += m;
  }
  EXPECT_TRUE(link.srv.isSockSndBufFull(s));
  std::string got = ReadN(link.clients[0], all.size());
  ASSERT_EQ(all.size(), got.size());
  EXPECT_TRUE(got == all) << "bytes lost, repeated or reordered";
  EXPECT_TRUE(WaitFor([&] { return !link.srv.isSockSndBufFull(s); }));
}

TEST(SendQueue, FramedRecordsGoOutMessageByMessage) {
  SendQueue q(4096, 64, 64);
  ChunkLog dump;
  q.SetDebugDump(&dump);
  q.SetDebug(1);
  Link link(&q);
  unsigned s = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(100000, 1, s));
  std::string rec;
  std::string const m1 = Pattern(10, 1), m2 = Pattern(20, 2);
  for (std::string const *m : {&m1, &m2}) {
    std::uint32_t len = static_cast<std::uint32_t>(m->size());
    rec.append(reinterpret_cast<char const *>(&len), 4);
    rec += *m;
  }
  // The last message announces 50 bytes but holds 5: it must wait.
  std::uint32_t longLen = 50;
  rec.append(reinterpret_cast<char const *>(&longLen), 4);
  rec += "short";
  ASSERT_EQ(rec.size(), q.insert(s, rec.data(), static_cast<unsigned>(rec.size()), 100000, &link.srv, 1));
  EXPECT_EQ(m1 + m2, ReadN(link.clients[0], 30));
  ASSERT_TRUE(WaitFor([&] { return dump.Sends().size() >= 2; }));
  EXPECT_EQ((std::vector<unsigned>{10, 20}), dump.Sends());
  unsigned count = 0;
  EXPECT_EQ(9u, q.GetSendQueueSize(s, &count));
  EXPECT_EQ(0, q.SendQueuedData(0, s));
  EXPECT_TRUE(NothingToRead(link.clients[0]));

  // write() on a framed, queued socket keeps message boundaries too.
  q.erase(s);
  ASSERT_EQ(6, link.srv.write("framed", 6, s, 1, 1, 0, 0, nullptr));
  EXPECT_EQ("framed", ReadN(link.clients[0], 6));
  q.SetDebugDump(nullptr);
}

TEST(SendQueue, ClosingASocketDropsOnlyItsOwnQueue) {
  SendQueue q(4096, 64, 64);
  Link link(&q);
  unsigned a = link.Add();
  unsigned b = link.Add();
  std::string const da = Pattern(64 * 1024, 1), db = Pattern(64 * 1024, 2);
  for (unsigned s : {a, b})
    ASSERT_EQ(1, link.srv.SetMaxSendQueue(8u << 20, 0, s));
  ASSERT_EQ(static_cast<int>(da.size()), link.srv.write(da.data(), static_cast<unsigned>(da.size()), a, 1, 1, 0, 0, nullptr));
  ASSERT_EQ(static_cast<int>(db.size()), link.srv.write(db.data(), static_cast<unsigned>(db.size()), b, 1, 1, 0, 0, nullptr));
  ASSERT_TRUE(link.srv.isSockSndBufFull(a));
  ASSERT_TRUE(link.srv.isSockSndBufFull(b));
  EXPECT_EQ(1, link.srv.close(a, 0));
  EXPECT_EQ(0, q.HasData(a));
  EXPECT_EQ(db, ReadN(link.clients[1], db.size()));
}

// Data queued for a connection that never became active goes with its
// controller: the send thread must never write through a dead controller.
TEST(SendQueue, DestroyedControllerLeavesNothingQueued) {
  SendQueue q(4096, 64, 64);
  Link link(&q);
  unsigned cs = 0;
  {
    SocketCtrl cli(&q, 0, 0, 1, 0, "cli");
    ASSERT_EQ(1, cli.connect("127.0.0.1", "tcp", link.port, nullptr, &cs, nullptr, 0, 1));
    ASSERT_EQ(1, cli.SetMaxSendQueue(8u << 20, 0, cs));
    std::string const big = Pattern(4u << 20, 5);  // more than the kernel buffers hold
    ASSERT_EQ(static_cast<int>(big.size()), cli.write(big.data(), static_cast<unsigned>(big.size()), cs, 1, 1, 0, 0, nullptr));
    ASSERT_EQ(1, q.HasData(cs));
  }
  EXPECT_EQ(0, q.HasData(cs));
}

// The send thread never waits on one socket: a blocking, rate-limited socket
// whose peer reads nothing cannot hold the queue (and every other socket of
// it) hostage.
TEST(SendQueue, BlockingSocketThatTakesNothingStallsNoOther) {
  SendQueue q(4096, 256, 256);
  Link link(&q);
  unsigned stuck = link.Add(false);
  unsigned other = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(8u << 20, 0, stuck));
  ASSERT_EQ(1, link.srv.SetBytesCount(1, 1u << 30, stuck));
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(8u << 20, 0, other));
  std::string const big = Pattern(512 * 1024, 9);
  ASSERT_EQ(big.size(), link.srv.EnqueueData(stuck, big.data(), static_cast<unsigned>(big.size())));
  std::string const data = Pattern(64 * 1024, 8);
  ASSERT_EQ(data.size(), link.srv.EnqueueData(other, data.data(), static_cast<unsigned>(data.size())));
  EXPECT_TRUE(ReadN(link.clients[1], data.size()) == data);
  EXPECT_EQ(1, q.HasData(stuck));  // the queue's lock is free: this returns
}

// A stop from the send thread itself (here from the dump callback) ends the
// thread instead of waiting for its own end; a later start collects it.
TEST(SendQueue, StopFromItsOwnThreadDoesNotDeadlock) {
  SendQueue q(4096, 16, 16);
  struct Stopper final : ISendQueueDump {
    SendQueue *q = nullptr;
    std::atomic<int> calls{0};
    void Dump(unsigned, char const *, unsigned, int sent) override {
      if (sent && calls++ == 0)
        q->StopSendQueueThread();
    }
  } stopper;
  stopper.q = &q;
  q.SetDebugDump(&stopper);
  q.SetDebug(1);
  Link link(&q);
  unsigned s = link.Add();
  ASSERT_EQ(1, link.srv.SetMaxSendQueue(100000, 0, s));
  ASSERT_EQ(3u, link.srv.EnqueueData(s, "abc", 3));
  EXPECT_EQ("abc", ReadN(link.clients[0], 3));
  EXPECT_TRUE(WaitFor([&] { return q.IsOk() == 0; }));
  EXPECT_EQ(1, q.StartSendQueueThread());
  ASSERT_EQ(3u, link.srv.EnqueueData(s, "def", 3));
  EXPECT_EQ("def", ReadN(link.clients[0], 3));
  q.SetDebugDump(nullptr);
}

// The thread watches every socket with queued bytes, however many: more
// sockets than select could hold all drain, each in order.
TEST(SendQueue, ManyQueuedSocketsAllDrainInOrder) {
  constexpr int kSockets = 2100;
  rlimit rl{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &rl));
  rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, 2 * kSockets + 64);
  ::setrlimit(RLIMIT_NOFILE, &rl);
  if (rl.rlim_cur < 2 * kSockets + 64)
    GTEST_SKIP() << "descriptor limit too low";
  SendQueue q(4096, 64, 64);
  SocketCtrl c(&q, 0, 0, 1, 0, "many");
  std::vector<std::array<int, 2>> pairs(kSockets);
  for (auto &p : pairs) {
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, p.data()));
    unsigned s = static_cast<unsigned>(p[0]);
    ASSERT_EQ(1, c.SetMaxSendQueue(100000, 0, s));
    std::string const head = "head" + std::to_string(p[0]);
    std::string const tail = "tail" + std::to_string(p[0]);
    ASSERT_EQ(head.size(), c.EnqueueData(s, head.data(), static_cast<unsigned>(head.size())));
    ASSERT_EQ(tail.size(), c.EnqueueData(s, tail.data(), static_cast<unsigned>(tail.size())));
  }
  for (auto &p : pairs) {
    std::string const want = "head" + std::to_string(p[0]) + "tail" + std::to_string(p[0]);
    EXPECT_EQ(want, ReadN(p[1], want.size()));
  }
  for (auto &p : pairs) {
    c.closesocket(static_cast<unsigned>(p[0]));
    ::close(p[1]);
  }
}

int TcpOption(unsigned fd, int name) {
  int v = -1;
  socklen_t len = sizeof v;
  EXPECT_EQ(0, ::getsockopt(static_cast<int>(fd), IPPROTO_TCP, name, &v, &len));
  return v;
}

// Bytes written to the socket and not yet sent.
int NotSent(unsigned fd) {
  int n = -1;
  EXPECT_EQ(0, ::ioctl(static_cast<int>(fd), SIOCOUTQNSD, &n));
  return n;
}

// A queued send leaves nothing held back: with a cork (which holds a short
// segment for up to 200 ms) the bytes are on their way when the send
// returns, and the cork and Nagle's rule are still the owner's.
TEST(QueuedSend, LeavesNothingHeldBackAndTheOwnersOptionsAsTheyWere) {
  SendQueue q(4096, 4, 4);
  Link link(&q);
  unsigned const s = link.Add();
  int const client = link.clients.back();
  int const on = 1;
  ASSERT_EQ(0, ::setsockopt(static_cast<int>(s), IPPROTO_TCP, TCP_CORK, &on, sizeof on));

  char const bytes[100] = {};
  shared::platform::SockPiece const piece{bytes, sizeof bytes};
  ISendSink &sink = link.srv;
  EXPECT_EQ(100u, sink.SendQueued(s, &piece, 1));
  EXPECT_EQ(0, NotSent(s));
  EXPECT_EQ(0, TcpOption(s, TCP_NODELAY));
  EXPECT_NE(0, TcpOption(s, TCP_CORK));
  EXPECT_EQ(100u, ReadN(client, 100).size());

  // An owner that turned coalescing off keeps it off.
  int const off = 0;
  ASSERT_EQ(0, ::setsockopt(static_cast<int>(s), IPPROTO_TCP, TCP_CORK, &off, sizeof off));
  ASSERT_EQ(0, ::setsockopt(static_cast<int>(s), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
  EXPECT_EQ(100u, sink.SendQueued(s, &piece, 1));
  EXPECT_NE(0, TcpOption(s, TCP_NODELAY));
  EXPECT_EQ(100u, ReadN(client, 100).size());
}

}  // namespace
