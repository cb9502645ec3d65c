// The send queue's gathered sends, driven through a scripted sink: short
// sends at every offset, many records in one call, the gather bound, and
// the framing and allowance rules across slot boundaries.
#include "socket/SendQueue.h"

#include "platform/SocketApi.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

namespace sp = shared::platform;

// Takes at most `budget` bytes per send (all when 0), within an allowance
// of `allowance` bytes when `limited`, and keeps what it took.
class ScriptedSink final : public ISendSink {
public:
  bool framed = false;
  bool limited = false;
  unsigned rateLimit = 0;
  unsigned allowance = 0;
  unsigned budget = 0;
  std::string got;
  std::vector<unsigned> piecesPerCall;
  int drained = 0;

  bool AcceptsQueued(unsigned) override { return true; }
  SendTerms ReserveQueued(unsigned, unsigned want) override {
    SendTerms t;
    t.framed = framed;
    t.rateLimit = rateLimit;
    t.allow = want;
    if (limited) {
      t.accounting = true;
      t.allow = std::min(want, allowance);
      allowance -= t.allow;
    }
    return t;
  }
  void SettleQueued(unsigned, SendTerms const &t, unsigned sent) override {
    EXPECT_LE(sent, t.allow);
    if (t.accounting)
      allowance += t.allow - sent;
  }
  unsigned SendQueued(unsigned, sp::SockPiece const *pieces, unsigned count) override {
    piecesPerCall.push_back(count);
    unsigned taken = 0;
    for (unsigned i = 0; i < count; ++i) {
      unsigned n = pieces[i].len;
      if (budget != 0)
        n = std::min(n, budget - taken);
      got.append(static_cast<char const *>(pieces[i].data), n);
      taken += n;
      if (n < pieces[i].len)
        break;
    }
    return taken;
  }
  void QueueDrained(unsigned) override { ++drained; }
};

// A descriptor the send thread never finds writable (a pipe's read end), so
// only the test's own passes send.
struct QuietSocket {
  int fds[2] = {-1, -1};
  QuietSocket() { EXPECT_EQ(0, ::pipe(fds)); }
  ~QuietSocket() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  unsigned Sock() const { return static_cast<unsigned>(fds[0]); }
};

std::string Framed(std::vector<std::string> const &msgs) {
  std::string rec;
  for (auto const &m : msgs) {
    std::uint32_t len = static_cast<std::uint32_t>(m.size());
    rec.append(reinterpret_cast<char const *>(&len), 4);
    rec += m;
  }
  return rec;
}

std::string Payload(unsigned n, char seed) {
  std::string s(n, '\0');
  for (unsigned i = 0; i < n; ++i)
    s[i] = static_cast<char>(seed + static_cast<char>(i % 23));
  return s;
}

unsigned Queued(SendQueue &q, unsigned sock) {
  unsigned count = 0;
  return q.GetSendQueueSize(sock, &count);
}

// Slots of 7 bytes put prefixes and payloads across slot boundaries at every
// phase. Whatever byte a short send stops at, the front loses exactly what
// went out: a message begun keeps its tail under a 4-byte prefix, nothing is
// lost, repeated or reordered.
TEST(SendQueueGather, FramedShortSendAtEveryOffsetKeepsTheRest) {
  std::vector<std::string> const msgs = {Payload(5, 'a'), "", Payload(13, 'k'), Payload(1, 'z'), Payload(30, 'A')};
  std::string const rec = Framed(msgs);
  std::string all;
  for (auto const &m : msgs)
    all += m;
  QuietSocket qs;
  for (unsigned cut = 1; cut < all.size(); ++cut) {
    SendQueue q(7, 64, 64);
    ScriptedSink sink;
    sink.framed = true;
    sink.budget = cut;
    ASSERT_EQ(rec.size(), q.insert(qs.Sock(), rec.data(), static_cast<unsigned>(rec.size()), 100000, &sink, 0));
    EXPECT_EQ(0, q.SendQueuedData(0, qs.Sock())) << "cut " << cut;
    ASSERT_EQ(cut, sink.got.size());
    // What is left: the rest of the message the cut fell in (under a fresh
    // prefix when begun), then every later message whole.
    unsigned left = 0, sent = 0;
    bool reached = false;
    for (auto const &m : msgs) {
      unsigned const n = static_cast<unsigned>(m.size());
      if (!reached && sent + n <= cut) {  // gone whole (an empty message right after the cut too)
        sent += n;
        continue;
      }
      left += 4 + n - (reached ? 0 : cut - sent);
      reached = true;
    }
    EXPECT_EQ(left, Queued(q, qs.Sock())) << "cut " << cut;
    sink.budget = 0;
    EXPECT_EQ(1, q.SendQueuedData(0, qs.Sock())) << "cut " << cut;
    EXPECT_EQ(all, sink.got) << "cut " << cut;
    EXPECT_EQ(0u, Queued(q, qs.Sock()));
    EXPECT_EQ(1, sink.drained);
  }
}

// Records of many inserts, framed or not, leave in one gathered call.
TEST(SendQueueGather, ManySmallRecordsGoInOneCall) {
  QuietSocket qs;
  for (bool framed : {false, true}) {
    SendQueue q(4096, 64, 64);
    ScriptedSink sink;
    sink.framed = framed;
    std::string all;
    for (int i = 0; i < 40; ++i) {
      std::string const m = Payload(10, static_cast<char>('a' + i % 20));
      std::string const rec = framed ? Framed({m}) : m;
      // A slot of its own per insert: 40 pieces.
      ASSERT_EQ(rec.size(), q.insert(qs.Sock(), rec.data(), static_cast<unsigned>(rec.size()), 100000, &sink, 1));
      all += m;
    }
    EXPECT_EQ(1, q.SendQueuedData(0, qs.Sock()));
    EXPECT_EQ(all, sink.got);
    EXPECT_EQ((std::vector<unsigned>{40}), sink.piecesPerCall) << "framed " << framed;
  }
}

// More queued pieces than one call may carry: calls of at most 64 pieces
// follow each other within one pass, in order.
TEST(SendQueueGather, MorePiecesThanTheBoundGoInSeveralCalls) {
  QuietSocket qs;
  SendQueue q(8, 256, 256);
  ScriptedSink sink;
  std::string all;
  for (int i = 0; i < 150; ++i) {
    std::string const m = Payload(5, static_cast<char>('A' + i % 40));
    ASSERT_EQ(5u, q.insert(qs.Sock(), m.data(), 5, 100000, &sink, 1));
    all += m;
  }
  EXPECT_EQ(1, q.SendQueuedData(0, qs.Sock()));
  EXPECT_EQ(all, sink.got);
  EXPECT_EQ((std::vector<unsigned>{64, 64, 22}), sink.piecesPerCall);
}

// A framed message over more slots than one call carries is judged whole
// against the allowance: with one byte too few nothing goes; with enough it
// goes out over several calls of the same pass.
TEST(SendQueueGather, FramedMessageOverManySlotsWaitsForItsWholeAllowance) {
  QuietSocket qs;
  SendQueue q(8, 512, 64);
  ScriptedSink sink;
  sink.framed = true;
  sink.limited = true;
  sink.rateLimit = 5000;
  std::string const m = Payload(1000, 'm');
  std::string const rec = Framed({m});
  ASSERT_EQ(rec.size(), q.insert(qs.Sock(), rec.data(), static_cast<unsigned>(rec.size()), 100000, &sink, 0));
  sink.allowance = 999;
  EXPECT_EQ(0, q.SendQueuedData(0, qs.Sock()));
  EXPECT_TRUE(sink.got.empty());
  EXPECT_EQ(999u, sink.allowance) << "an unused reservation goes back";
  sink.allowance = 1000;
  EXPECT_EQ(1, q.SendQueuedData(0, qs.Sock()));
  EXPECT_EQ(m, sink.got);
  EXPECT_GT(sink.piecesPerCall.size(), 1u);
  for (unsigned n : sink.piecesPerCall)
    EXPECT_LE(n, 64u);
  EXPECT_EQ(0u, sink.allowance);
}

}  // namespace
