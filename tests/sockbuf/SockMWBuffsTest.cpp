// SockMWBuffs: buffering, its threads, and sending to a caller's sink or over
// loopback TCP and UDP through its own controller.
#include "sockbuf/SockMWBuffs.h"

#include "platform/Clock.h"
#include "socket/SendQueue.h"
#include "../socket/NetnsSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using shared::platform::ManualClock;
using shared::platform::ScopedClockSource;
constexpr auto kDeadline = 30s;

std::vector<char> Packet(unsigned seq, unsigned payload, unsigned char flagByte = 0) {
  std::vector<char> p(12 + payload, static_cast<char>(seq));
  unsigned char h[12] = {7, 0, 0, 0};
  for (int i = 0; i < 4; ++i)
    h[4 + i] = static_cast<unsigned char>(seq >> (8 * i));
  h[8] = static_cast<unsigned char>(payload);
  h[9] = static_cast<unsigned char>(payload >> 8);
  h[10] = 1;
  h[11] = flagByte;
  std::memcpy(p.data(), h, 12);
  return p;
}

unsigned SeqOf(char const *p) {
  unsigned v = 0;
  for (int i = 3; i >= 0; --i)
    v = v << 8 | static_cast<unsigned char>(p[4 + i]);
  return v;
}

// Records what is written to it; waits for a count with a deadline.
class RecordingSink final : public ISockBuff {
public:
  int OpenUrl() override { return 1; }
  int CloseUrl() override { return 1; }
  int IsOpened() override { return 1; }
  HRESULT __stdcall Write(void const *buf, unsigned len, unsigned *pWritten) override {
    std::lock_guard<std::mutex> g(mutex_);
    auto const *c = static_cast<char const *>(buf);
    packets_.emplace_back(c, c + len);
    *pWritten = len;
    cv_.notify_all();
    return S_OK;
  }
  std::vector<std::vector<char>> WaitFor(size_t n) {
    std::unique_lock<std::mutex> g(mutex_);
    cv_.wait_for(g, kDeadline, [&] { return packets_.size() >= n; });
    return packets_;
  }

private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::vector<char>> packets_;
};

void ExpectInOrder(std::vector<std::vector<char>> const &got, unsigned count) {
  ASSERT_EQ(count, got.size());
  for (unsigned i = 0; i < count; ++i)
    EXPECT_EQ(i, SeqOf(got[i].data())) << "position " << i;
}

TEST(SockMWBuffsStream, UnpacedStreamPassesEverythingInOrder) {
  RecordingSink direct;
  SockMWBuffs d(0, 0, 0, 0, 0, 0, nullptr, &direct, 0, 0, 0);
  ASSERT_EQ(1, d.IsOk());
  for (unsigned i = 0; i < 100; ++i)
    ASSERT_EQ(1, d.write(Packet(i, 100).data(), 112));
  ExpectInOrder(direct.WaitFor(100), 100);  // sent on the caller's thread
  EXPECT_EQ(100u, d.GetnPktSent());

  RecordingSink buffered;
  SockMWBuffs b(0, 0, 2000, 0, 0, SockMWBuffs::kFlagBuffered, nullptr, &buffered, 0, 0, 0);
  ASSERT_EQ(1, b.IsOk());
  ASSERT_EQ(1, b.StartWriteThread());
  EXPECT_EQ(0, b.StartWriteThread());
  for (unsigned i = 0; i < 300; ++i)
    ASSERT_EQ(1, b.write(Packet(i, 1000).data(), 1012));
  ExpectInOrder(buffered.WaitFor(300), 300);
}

TEST(SockMWBuffsStream, FullBufferDropsTheOldest) {
  RecordingSink sink;
  // 1 ms of buffer: 1,036 bytes, room for nine 112-byte packets.
  SockMWBuffs mw(0, 0, 1, 0, 0, SockMWBuffs::kFlagBuffered, nullptr, &sink, 0, 0, 0);
  ASSERT_EQ(1, mw.IsOk());
  for (unsigned i = 0; i < 20; ++i)
    ASSERT_EQ(1, mw.write(Packet(i, 100).data(), 112));
  EXPECT_EQ(11u, mw.GetnPktDropped());
  EXPECT_EQ(9u * 112u, mw.GetnBytesInBuffer());
  EXPECT_EQ(0, mw.write(Packet(99, 2000).data(), 2012));  // larger than the buffer
  char buf[200];
  unsigned len = 0;
  for (unsigned seq = 11; seq < 20; ++seq) {
    ASSERT_EQ(1, mw.GetPkt(buf, sizeof buf, &len));
    EXPECT_EQ(seq, SeqOf(buf));
  }
  EXPECT_EQ(STG_S_BLOCK, mw.Read(buf, sizeof buf, &len));
  mw.reset();
  EXPECT_EQ(0u, mw.GetnPktDropped());
}

TEST(SockMWBuffsStream, AudioGoesFirstAndRecordedPacketsAreResent) {
  RecordingSink sink;
  SockMWBuffs mw(0, 0, 1000, 0, 0, SockMWBuffs::kFlagBuffered, nullptr, &sink, 0, 0, SockMWBuffs::kBufAudioOwn);
  ASSERT_EQ(1, mw.IsOk());
  ASSERT_EQ(1, mw.CanUseAudioBuf());
  ASSERT_EQ(1, mw.EnablePktRec(100, 10));
  for (unsigned i = 1; i <= 4; ++i)
    ASSERT_EQ(1, mw.write(Packet(i, 50, i == 3 ? 0x10 : 0).data(), 62));
  EXPECT_EQ(62u, mw.GetnBytesAudioBuf());
  EXPECT_EQ(3u * 62u, mw.GetnBytesVideoBuf());
  char buf[100];
  unsigned len = 0;
  std::vector<unsigned> order;
  while (mw.GetPkt(buf, sizeof buf, &len))
    order.push_back(SeqOf(buf));
  EXPECT_EQ((std::vector<unsigned>{3, 1, 2, 4}), order);

  EXPECT_EQ(2u, mw.ResendPkts(1, 2));
  EXPECT_EQ(0u, mw.ResendPkts(50, 60));
  ASSERT_EQ(1, mw.write(Packet(5, 50).data(), 62));
  order.clear();
  while (mw.GetPkt(buf, sizeof buf, &len))
    order.push_back(SeqOf(buf));
  EXPECT_EQ((std::vector<unsigned>{1, 2, 5}), order);  // resent packets go ahead
}

TEST(SockMWBuffsStream, FragmentQueueCutsPacketsInlineOrOnItsThread) {
  RecordingSink sink;
  SockMWBuffs mw(0, 0, 1000, 0, 0, SockMWBuffs::kFlagBuffered | SockMWBuffs::kFlagFragQueue, nullptr, &sink, 0, 0,
                 0);
  ASSERT_EQ(1, mw.IsOk());
  EXPECT_EQ(1, mw.IsDefragOn());
  ASSERT_EQ(1, mw.write(Packet(1, 3000).data(), 3012));
  char buf[2000];
  unsigned len = 0;
  std::vector<unsigned> sizes;
  while (mw.GetPkt(buf, sizeof buf, &len))
    sizes.push_back(len);
  EXPECT_EQ((std::vector<unsigned>{1421, 1421, 221}), sizes);

  ASSERT_EQ(1, mw.StartDefragThread());
  ASSERT_EQ(1, mw.StartWriteThread());
  ASSERT_EQ(1, mw.write(Packet(2, 3000).data(), 3012));
  auto got = sink.WaitFor(3);
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ(221u, got[2].size());
  EXPECT_EQ(0x20, got[0][11] & 0x20);
}

TEST(SockMWBuffsStream, AbortStopsEverything) {
  RecordingSink sink;
  SockMWBuffs mw(512, 10, 1000, 0, 0, SockMWBuffs::kFlagFragQueue, nullptr, &sink, 0, 1000, 0);
  ASSERT_EQ(1, mw.IsOk());
  ASSERT_EQ(1, mw.StartWriteThread());
  ASSERT_EQ(1, mw.StartDefragThread());
  mw.Abort();
  EXPECT_EQ(0, mw.write(Packet(1, 10).data(), 22));
  EXPECT_EQ(0, mw.OpenUrl());
  EXPECT_EQ(0, mw.StartWriteThread());
  unsigned w = 0;
  EXPECT_EQ(STG_E_INVALIDPOINTER, mw.Write(Packet(1, 10).data(), 22, &w));
}

// --- Loopback --------------------------------------------------------------------

int Listen(int type, int *port) {
  int fd = ::socket(AF_INET, type, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || (type == SOCK_STREAM && ::listen(fd, 4) != 0))
    return -1;
  socklen_t n = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &n);
  *port = ntohs(a.sin_port);
  return fd;
}

// Waits up to the deadline for fd to be readable.
bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())) == 1;
}

// Accepts one connection and cuts the byte stream into packets until want
// packets came or the stream ended.
std::vector<unsigned> ReceiveTcp(int listenFd, unsigned want) {
  std::vector<unsigned> seqs;
  if (!Readable(listenFd))
    return seqs;
  int fd = ::accept(listenFd, nullptr, nullptr);
  std::string bytes;
  char buf[65536];
  while (seqs.size() < want && Readable(fd)) {
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0)
      break;
    bytes.append(buf, static_cast<size_t>(n));
    size_t off = 0;
    while (bytes.size() - off >= 12) {
      unsigned len = 12 + (static_cast<unsigned char>(bytes[off + 8]) | static_cast<unsigned char>(bytes[off + 9]) << 8);
      if (bytes.size() - off < len)
        break;
      seqs.push_back(SeqOf(bytes.data() + off));
      off += len;
    }
    bytes.erase(0, off);
  }
  ::close(fd);
  return seqs;
}

struct Joiner {
  std::thread t;
  ~Joiner() {
    if (t.joinable())
      t.join();
  }
};

TEST(SockMWBuffsLoopback, PacedTcpDeliversEveryPacketOnceInOrder) {
  int port = 0;
  int lfd = Listen(SOCK_STREAM, &port);
  ASSERT_GE(lfd, 0);
  constexpr unsigned kCount = 400;
  std::vector<unsigned> seqs;
  SendQueue queue(4096, 64, 64);
  {
    Joiner rx{std::thread([&] { seqs = ReceiveTcp(lfd, kCount); })};
    // 16,384 kbit/s: 2 MB per window, so 400 KB leave within a few slots.
    SockMWBuffs mw(16384, 10, 3000, 0, 0, 0, &queue, nullptr, 0, 1000, 0);
    ASSERT_EQ(1, mw.IsOk());
    EXPECT_EQ(0, mw.OpenUrl());  // no URL yet
    ASSERT_EQ(1, mw.SetUrl(("tcp://127.0.0.1:" + std::to_string(port)).c_str()));
    EXPECT_EQ(port, mw.GetPort());
    ASSERT_EQ(1, mw.OpenUrl());
    EXPECT_EQ(1, mw.OpenUrl());
    ASSERT_EQ(1, mw.StartWriteThread());
    for (unsigned i = 0; i < kCount; ++i)
      ASSERT_EQ(1, mw.write(Packet(i, 1000).data(), 1012));
    rx.t.join();
  }
  ::close(lfd);
  ASSERT_EQ(kCount, seqs.size());
  for (unsigned i = 0; i < kCount; ++i)
    ASSERT_EQ(i, seqs[i]);
}

TEST(SockMWBuffsLoopback, UnpacedUdpSendsEachPacketAsADatagram) {
  int port = 0;
  int fd = Listen(SOCK_DGRAM, &port);
  ASSERT_GE(fd, 0);
  SockMWBuffs mw(0, 0, 0, 0, 0, 0, nullptr, nullptr, 0, 0, 0);
  ASSERT_EQ(1, mw.SetUrl(("udp://127.0.0.1:" + std::to_string(port)).c_str()));
  ASSERT_EQ(1, mw.OpenUrl());
  for (unsigned i = 0; i < 20; ++i)
    ASSERT_EQ(1, mw.write(Packet(i, 500).data(), 512));
  char buf[2000];
  for (unsigned i = 0; i < 20; ++i) {
    ASSERT_TRUE(Readable(fd));
    ASSERT_EQ(512, ::recv(fd, buf, sizeof buf, 0));
    EXPECT_EQ(i, SeqOf(buf));
  }
  ::close(fd);
}

// Multicast only inside a namespace of the test's own: a veth pair (both
// ends inside) carries the group route, and the sender's own copy comes back
// through multicast loop.
TEST(SockMWBuffsMulticast, GroupUrlSendsDatagramsWithTheStreamTtl) {
  NSTEST_REQUIRE_NETNS();
  nstest::Netns ns("mc");
  ASSERT_TRUE(ns.ok());
  std::string const dev = nstest::Netns::Ifname("d");
  ASSERT_TRUE(nstest::RunOk(ns.ip() + "link add " + dev + " type veth peer name " + dev + "p"));
  ASSERT_TRUE(nstest::RunOk(ns.ip() + "link set " + dev + "p up"));
  ASSERT_TRUE(nstest::RunOk(ns.ip() + "addr add 10.231.18.1/24 dev " + dev));
  ASSERT_TRUE(nstest::RunOk(ns.ip() + "link set " + dev + " up multicast on"));
  ASSERT_TRUE(nstest::RunOk(ns.ip() + "route add 224.0.0.0/4 dev " + dev));
  ASSERT_TRUE(ns.RunIn([] {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    socklen_t alen = sizeof a;
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a));
    ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &alen));
    ip_mreq m{};
    ::inet_pton(AF_INET, "239.231.18.1", &m.imr_multiaddr);
    ::inet_pton(AF_INET, "10.231.18.1", &m.imr_interface);
    ASSERT_EQ(0, ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m));
    int on = 1;
    ASSERT_EQ(0, ::setsockopt(fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof on));

    SockMWBuffs mw(0, 0, 0, 0, 0, 0, nullptr, nullptr, 0, 0, 0);
    ASSERT_EQ(1, mw.SetUrl(("udp://@239.231.18.1:" + std::to_string(ntohs(a.sin_port))).c_str()));
    ASSERT_EQ(1, mw.OpenUrl());
    for (unsigned i = 0; i < 10; ++i)
      ASSERT_EQ(1, mw.write(Packet(i, 300).data(), 312));
    for (unsigned i = 0; i < 10; ++i) {
      char buf[2000];
      char ctl[CMSG_SPACE(sizeof(int))];
      iovec iov{buf, sizeof buf};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = ctl;
      msg.msg_controllen = sizeof ctl;
      ASSERT_TRUE(Readable(fd));
      ASSERT_EQ(312, ::recvmsg(fd, &msg, 0));
      EXPECT_EQ(i, SeqOf(buf));
      cmsghdr *c = CMSG_FIRSTHDR(&msg);
      ASSERT_NE(nullptr, c);
      int ttl = 0;
      std::memcpy(&ttl, CMSG_DATA(c), sizeof ttl);
      EXPECT_EQ(8, ttl);  // not the system's default of 1
    }
    ::close(fd);
  }));
}

TEST(SockMWBuffsPing, RulesOfSilenceAndOfTheWindowStart) {
  ManualClock clock;
  ScopedClockSource use(clock);
  int port = 0;
  int lfd = Listen(SOCK_STREAM, &port);
  ASSERT_GE(lfd, 0);
  {
    SockMWBuffs mw(512, 10, 3000, 0, 0, 0, nullptr, nullptr, 0, 1000, 0);
    ASSERT_EQ(1, mw.SetUrl(("tcp://127.0.0.1:" + std::to_string(port)).c_str()));
    ASSERT_EQ(1, mw.OpenUrl());  // counts as a ping
    EXPECT_EQ(1, mw.VerifyTCPPing());
    clock.Advance(30000);
    EXPECT_EQ(1, mw.VerifyTCPPing());
    clock.Advance(1);
    EXPECT_EQ(0, mw.VerifyTCPPing());  // 30 s of silence

    ASSERT_EQ(1, mw.CloseUrl());
    ASSERT_EQ(1, mw.OpenUrl());
    clock.Advance(21000);
    ASSERT_EQ(1, mw.SendPkt(Packet(1, 10).data(), 22));  // the window starts now
    EXPECT_EQ(0, mw.VerifyTCPPing());  // 21 s after the last ping
  }
  ::close(lfd);
}

TEST(SockMWBuffsPing, SilentPeerIsReconnected) {
  ManualClock clock;
  ScopedClockSource use(clock);
  int port = 0;
  int lfd = Listen(SOCK_STREAM, &port);
  ASSERT_GE(lfd, 0);
  std::vector<int> peers;
  {
    SockMWBuffs mw(0, 0, 0, 0, 0, 0, nullptr, nullptr, 0, 0, 0);
    ASSERT_EQ(1, mw.SetUrl(("tcp://127.0.0.1:" + std::to_string(port)).c_str()));
    mw.SetTCPPing(1, 1);
    ASSERT_EQ(1, mw.OpenUrl());
    ASSERT_TRUE(Readable(lfd));
    peers.push_back(::accept(lfd, nullptr, nullptr));
    ASSERT_EQ(1, mw.StartTCPPingThread());
    // The open counts as the last ping; 31 s of silence drops the link.
    clock.Advance(31000);
    ASSERT_TRUE(Readable(lfd));
    peers.push_back(::accept(lfd, nullptr, nullptr));
    EXPECT_GE(peers[1], 0);
    // The first connection was closed by the writer side.
    char c;
    ASSERT_TRUE(Readable(peers[0]));
    EXPECT_EQ(0, ::recv(peers[0], &c, 1, 0));
  }
  for (int fd : peers)
    ::close(fd);
  ::close(lfd);
}

}  // namespace

namespace {

// A long-form packet: 32-bit length at 8, type and flag bytes at 12 and 13.
std::vector<unsigned char> LongPacket(unsigned seq, unsigned payload, unsigned lengthField) {
  std::vector<unsigned char> p(14 + payload);
  for (unsigned i = 0; i < p.size(); ++i)
    p[i] = static_cast<unsigned char>(0x40 + i);
  for (int i = 0; i < 4; ++i) {
    p[i] = static_cast<unsigned char>(0x11 * (i + 1));
    p[4 + i] = static_cast<unsigned char>(seq >> (8 * i));
    p[8 + i] = static_cast<unsigned char>(lengthField >> (8 * i));
  }
  p[12] = 0x05;
  p[13] = 0x10;
  return p;
}

void ExpectShortForm(unsigned char const *s, std::vector<unsigned char> const &longPkt, unsigned payload) {
  unsigned char const want[12] = {0x11, 0x22, 0x33, 0x44, longPkt[4], longPkt[5], longPkt[6], longPkt[7],
                                  static_cast<unsigned char>(payload), static_cast<unsigned char>(payload >> 8),
                                  0x05, 0x10};
  EXPECT_EQ(0, std::memcmp(want, s, 12));
  EXPECT_EQ(0, std::memcmp(longPkt.data() + 14, s + 12, payload));
}

TEST(SockMWBuffsPacketForm, ConvertPktMapsTheLongHeaderOntoTheShortOne) {
  unsigned const payload = 300;  // length above 255: both length bytes matter
  auto const in = LongPacket(0x01020304, payload, payload);
  std::vector<unsigned char> out(12 + payload);
  ASSERT_EQ(12u + payload, SockMWBuffs::ConvertPkt(in.data(), static_cast<unsigned>(in.size()), out.data(),
                                                   static_cast<unsigned>(out.size())));
  ExpectShortForm(out.data(), in, payload);

  // In place: the short form is written over the long one.
  auto inPlace = in;
  ASSERT_EQ(12u + payload, SockMWBuffs::ConvertPkt(inPlace.data(), static_cast<unsigned>(inPlace.size()),
                                                   inPlace.data(), static_cast<unsigned>(inPlace.size())));
  ExpectShortForm(inPlace.data(), in, payload);

  // Bytes beyond the length field are not part of the packet.
  auto padded = LongPacket(9, 40, 20);
  EXPECT_EQ(32u, SockMWBuffs::ConvertPkt(padded.data(), static_cast<unsigned>(padded.size()), out.data(), 32));
}

TEST(SockMWBuffsPacketForm, ConvertPktRefusesWhatDoesNotFit) {
  std::vector<unsigned char> out(0x10000 + 64);
  unsigned const cap = static_cast<unsigned>(out.size());
  auto ok = LongPacket(1, 100, 100);
  unsigned const n = static_cast<unsigned>(ok.size());
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(ok.data(), 13, out.data(), cap));         // shorter than a header
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(ok.data(), n - 1, out.data(), cap));      // length beyond the bytes
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(ok.data(), n, out.data(), 12 + 99));      // output one byte short
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(nullptr, n, out.data(), cap));
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(ok.data(), n, nullptr, cap));
  // A payload the 16-bit field cannot count, and a length that would wrap.
  auto big = LongPacket(2, 0x10000, 0x10000);
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(big.data(), static_cast<unsigned>(big.size()), out.data(), cap));
  auto wrap = LongPacket(3, 10, 0xFFFFFFFFu);
  EXPECT_EQ(0u, SockMWBuffs::ConvertPkt(wrap.data(), static_cast<unsigned>(wrap.size()), out.data(), cap));
}

TEST(SockMWBuffsPacketForm, AdjustPktDatalenCountsThePayloadOnly) {
  RecordingSink sink;
  SockMWBuffs mw(0, 0, 0, 0, 0, 0, nullptr, &sink, 0, 0, 0);
  ASSERT_EQ(1, mw.IsDatalenPayloadOnly());
  // A packet built with a wrong length field is fixed up and then sent whole.
  auto pkt = Packet(5, 300);
  pkt[8] = pkt[9] = 0;
  auto const before = pkt;
  ASSERT_EQ(1, SockMWBuffs::AdjustPktDatalen(pkt.data(), 312));
  EXPECT_EQ(0x2C, static_cast<unsigned char>(pkt[8]));
  EXPECT_EQ(0x01, static_cast<unsigned char>(pkt[9]));
  pkt[8] = pkt[9] = 0;
  EXPECT_EQ(before, pkt);  // nothing else touched
  ASSERT_EQ(1, SockMWBuffs::AdjustPktDatalen(pkt.data(), 312));
  ASSERT_EQ(1, mw.write(pkt.data(), 312));
  auto const got = sink.WaitFor(1);
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(pkt, got[0]);

  // Header alone, and the largest payload the field counts.
  std::vector<char> big(12 + 0x10000);
  EXPECT_EQ(1, SockMWBuffs::AdjustPktDatalen(big.data(), 12));
  EXPECT_EQ(0, big[8] | big[9]);
  EXPECT_EQ(1, SockMWBuffs::AdjustPktDatalen(big.data(), 12 + 0xFFFF));
  EXPECT_EQ(-1, big[8] & big[9]);
  EXPECT_EQ(0, SockMWBuffs::AdjustPktDatalen(big.data(), 12 + 0x10000));
  EXPECT_EQ(0, SockMWBuffs::AdjustPktDatalen(big.data(), 11));
  EXPECT_EQ(0, SockMWBuffs::AdjustPktDatalen(nullptr, 100));
}

}  // namespace
