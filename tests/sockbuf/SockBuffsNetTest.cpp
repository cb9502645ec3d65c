// The reader end to end on loopback: plain sockets in the test send, the
// read thread receives into windows that the test drains without blocking.
#include "sockbuf/SockBuffs.h"

#include "ReaderTestUtil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

using namespace readertest;

namespace {

constexpr unsigned kA = 0x1001;
constexpr unsigned kB = 0x2002;
constexpr unsigned kJitterSlot = 4096;  // largest packet the ordering window holds

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { Reset(); }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  int get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ != -1) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

sockaddr_in Loopback(unsigned short port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

unsigned short PortOf(int fd) {
  sockaddr_in a{};
  socklen_t n = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  return ntohs(a.sin_port);
}

// A TCP server on 127.0.0.1 with a port of the system's choice.
struct Server {
  Fd fd{::socket(AF_INET, SOCK_STREAM, 0)};
  Server() {
    sockaddr_in a = Loopback(0);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(::listen(fd.get(), 4), 0);
  }
  std::string Url() const { return "tcp://127.0.0.1:" + std::to_string(PortOf(fd.get())); }
  // The next peer, or -1 after 10 s.
  int Accept() {
    pollfd p{fd.get(), POLLIN, 0};
    if (::poll(&p, 1, 10000) != 1) return -1;
    return ::accept(fd.get(), nullptr, nullptr);
  }
};

void Send(int fd, Bytes const& b) {
  ASSERT_EQ(::send(fd, b.data(), b.size(), MSG_NOSIGNAL), static_cast<ssize_t>(b.size()));
}

int ConnectTo(unsigned short port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(port);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  return fd;
}

// A reader with an ordering window for kA and a plain one for kB.
struct Reader {
  SockBuffs r{4, 65536};
  ISockBuffExt* ordered = nullptr;
  ISockBuffExt* plain = nullptr;
  explicit Reader(std::string const& url) {
    EXPECT_EQ(r.SetUrl(url.c_str()), 1);
    EXPECT_EQ(r.CreateWnd(1, kJitterSlot, 3, 0, 0, kA, 0), 1);
    EXPECT_EQ(r.CreateWnd(2, 0, 0, 0, 0, kB, 0), 1);
    r.SetWndBlock(1, 0);
    r.SetWndBlock(2, 0);
    ordered = r.GetWndObj(1);
    plain = r.GetWndObj(2);
    EXPECT_EQ(r.Play(), 1);
  }
  ~Reader() { r.Stop(); }
};

std::vector<unsigned> const kSent = {1, 2, 4, 3, 5, 7, 8, 9, 10};  // 3 late, 6 lost

TEST(SockBuffsTcp, TwoStreamsInOrderWithLossesAndASplitPacket) {
  Server s;
  Reader rd(s.Url());
  Fd peer(s.Accept());
  ASSERT_NE(peer.get(), -1);
  for (unsigned seq : kSent) {
    Send(peer.get(), MediaPkt(kA, seq, seq * 40, 100));
    Send(peer.get(), MediaPkt(kB, seq, seq * 40, 100));
  }
  Bytes big = MediaPkt(kB, 11, 440, 3000);
  Send(peer.get(), Bytes(big.begin(), big.begin() + 1500));
  Send(peer.get(), Bytes(big.begin() + 1500, big.end()));
  std::vector<std::uint32_t> a = Seqs(ReadN(rd.ordered, 8));
  std::vector<Bytes> b = ReadN(rd.plain, 10);
  a.resize(8);  // 10 may still wait in the ordering stage
  EXPECT_EQ(a, (std::vector<std::uint32_t>{1, 2, 3, 4, 5, 7, 8, 9}));
  EXPECT_EQ(rd.ordered->GetnPktLost(), 1u);
  ASSERT_EQ(b.size(), 10u);
  EXPECT_EQ(b.back(), big);
  EXPECT_EQ(rd.plain->GetnPktLost(), 3u);  // 2->4, 3->5, 5->7
}

// The peer goes away: readers see the socket error, the reader reconnects by
// itself, and the first packet over the new connection clears the error.
TEST(SockBuffsTcp, PeerDropReconnectsAndReadersSeeTheError) {
  Server s;
  Reader rd(s.Url());
  Fd peer(s.Accept());
  ASSERT_NE(peer.get(), -1);
  Send(peer.get(), MediaPkt(kB, 1, 10));
  ASSERT_EQ(ReadN(rd.plain, 1).size(), 1u);
  peer.Reset();
  Bytes buf(256);
  unsigned n = 0;
  EXPECT_TRUE(WaitFor([&] { return rd.plain->Read(buf.data(), 256, &n) == STG_E_INCOMPLETE; }));
  peer.Reset(s.Accept());
  ASSERT_NE(peer.get(), -1);
  Send(peer.get(), MediaPkt(kB, 2, 20));
  EXPECT_EQ(Seqs(ReadN(rd.plain, 1)), (std::vector<std::uint32_t>{2}));
  EXPECT_EQ(rd.r.IsSockError(), 0);
}

// A listening source serves one peer at a time; a half packet left by the
// first peer does not leak into the second one's stream.
TEST(SockBuffsTcp, ListenSourceTakesOnePeerAfterAnother) {
  Reader rd("tcp-listen://127.0.0.1:0");
  ASSERT_NE(rd.r.GetPort(), 0);
  auto const port = static_cast<unsigned short>(rd.r.GetPort());
  {
    Fd peer(ConnectTo(port));
    Send(peer.get(), MediaPkt(kB, 1, 10));
    ASSERT_EQ(ReadN(rd.plain, 1).size(), 1u);
    Bytes half = MediaPkt(kB, 2, 20, 40);
    half.resize(30);
    Send(peer.get(), half);
  }
  Fd second(ConnectTo(port));
  Send(second.get(), MediaPkt(kB, 7, 70));
  EXPECT_EQ(Seqs(ReadN(rd.plain, 1)), (std::vector<std::uint32_t>{7}));
}

// Datagrams carry whole packets: a truncated one is dropped and trailing
// bytes of another never join the next datagram.
TEST(SockBuffsUdp, DatagramsWithGapsReorderingAndDamage) {
  Reader rd("udp://127.0.0.1:0");
  ASSERT_NE(rd.r.GetPort(), 0);
  Fd tx(::socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in to = Loopback(static_cast<unsigned short>(rd.r.GetPort()));
  auto sendTo = [&](Bytes const& b) {
    ASSERT_EQ(::sendto(tx.get(), b.data(), b.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(b.size()));
  };
  for (unsigned seq : kSent) {
    sendTo(MediaPkt(kA, seq, seq * 40, 200));
    Bytes b = MediaPkt(kB, seq, seq * 40, 200);
    if (seq == 4) b.resize(100);            // truncated: dropped
    if (seq == 5) b.resize(b.size() + 7);   // trailing junk: packet kept
    sendTo(b);
  }
  std::vector<std::uint32_t> a = Seqs(ReadN(rd.ordered, 8));
  a.resize(8);
  EXPECT_EQ(a, (std::vector<std::uint32_t>{1, 2, 3, 4, 5, 7, 8, 9}));
  EXPECT_EQ(Seqs(ReadN(rd.plain, 8)), (std::vector<std::uint32_t>{1, 2, 3, 5, 7, 8, 9, 10}));
}

TEST(SockBuffsUdp, MulticastOnLoopback) {
  SockBuffs r(2, 65536);
  ASSERT_EQ(r.SetUrl("udp://@239.255.77.1:0"), 1);
  if (!r.CreateWnd(1, 0, 0, 0, 0, kA, 0)) GTEST_SKIP() << "loopback cannot join a multicast group here";
  r.SetWndBlock(1, 0);
  ASSERT_EQ(r.Play(), 1);
  Fd tx(::socket(AF_INET, SOCK_DGRAM, 0));
  in_addr lo{};
  lo.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::setsockopt(tx.get(), IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof lo), 0);
  sockaddr_in to = Loopback(static_cast<unsigned short>(r.GetPort()));
  to.sin_addr.s_addr = inet_addr("239.255.77.1");
  Bytes p = MediaPkt(kA, 1, 10);
  // Datagrams may be lost; send until one arrives, bounded by ReadN's deadline.
  std::vector<Bytes> got;
  EXPECT_TRUE(WaitFor([&] {
    ::sendto(tx.get(), p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    for (Bytes& b : Drain(r.GetWndObj(1))) got.push_back(b);
    return !got.empty();
  }));
  r.Stop();
}

// An application source that never runs dry.
class Endless : public ISockBuffRead {
 public:
  virtual ~Endless() = default;
  int ReadData(void* buf, unsigned capacity) override {
    ++seq_;
    Bytes p = MediaPkt(kA, seq_, seq_ * 40);
    if (capacity < p.size()) return 0;
    std::copy(p.begin(), p.end(), static_cast<unsigned char*>(buf));
    reads.fetch_add(1);
    return static_cast<int>(p.size());
  }
  std::atomic<unsigned> reads{0};

 private:
  unsigned seq_ = 0;
};

TEST(SockBuffsControl, PauseAndStopFromAControlThreadWhileReading) {
  Endless src;
  SockBuffs r(2, 65536);
  r.SetIRead(&src);
  ASSERT_EQ(r.CreateWnd(1, 0, 0, 0, 0, kA, 0), 1);
  r.SetWndBlock(1, 0);
  ASSERT_EQ(r.Play(), 1);
  std::atomic<bool> ok{true};
  std::thread control([&] {
    auto check = [&](bool c) { ok = ok && c; };
    check(WaitFor([&] { return src.reads.load() > 10; }));
    check(r.Pause(1) == 1);
    check(WaitFor([&] { return r.IsPaused() != 0; }));
    unsigned const atPause = src.reads.load();
    Drain(r.GetWndObj(1));
    check(src.reads.load() == atPause);  // the source is not read while paused
    check(r.Pause(0) == 1);
    check(WaitFor([&] { return src.reads.load() > atPause + 10; }));
    check(r.Stop() == 1);
  });
  control.join();
  EXPECT_TRUE(ok.load());
  EXPECT_EQ(r.IsStopped(), 1);
  EXPECT_EQ(r.IsPaused(), 0);
}

}  // namespace
