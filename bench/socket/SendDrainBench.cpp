// Send-queue drain: bytes written through one queued SocketCtrl socket (a
// SendQueue, SetMaxSendQueue) by a writer faster than the socket, into a
// loopback receiver, beside a plain blocking send loop of the same bytes on
// a plain socket, in the same run. Once with an 8 KiB send buffer, once
// with the system's default. Time runs from the first byte written to the
// last byte received. The plain loop runs with 64 KiB sends (the writer's
// pieces) and with 8 KiB ones, since a blocking send larger than a small send
// buffer is far slower on Linux; non-blocking loops show what a send thread
// meets when its sends outgrow the buffer, and when they do not.
//
//   bench_send_drain [runs] [case]   (default 5 runs of each side, alternating;
//                                     case "8k" or "default" runs only that one)
#include <sharedlib.h>

#include "SocketBenchSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace sockbench;

namespace {

constexpr std::size_t kChunk = 64 * 1024;

// A connected loopback pair: sender is the accepted end, receiver the
// connecting one; a thread drains the receiver until total bytes arrived.
struct Pair {
  int sender = -1;
  int receiver = -1;
  Pair() {
    int port = 0;
    int l = ListenLoopback(1, &port);
    receiver = ConnectLoopback(port);
    sender = ::accept4(l, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(l);
  }
  ~Pair() {
    if (sender >= 0)
      ::close(sender);
    if (receiver >= 0)
      ::close(receiver);
  }
  bool ok() const { return sender >= 0 && receiver >= 0; }
};

class Receiver {
public:
  Receiver(int fd, std::size_t total) : fd_(fd), thread_([this, total] { Run(total); }) {}
  // A run that failed half-way: end the receiver's wait and join it.
  ~Receiver() {
    if (thread_.joinable()) {
      ::shutdown(fd_, SHUT_RDWR);
      thread_.join();
    }
  }
  // Waits for the last byte; returns the bytes received.
  std::size_t Join() {
    thread_.join();
    return got_;
  }

private:
  void Run(std::size_t total) {
    std::vector<char> buf(256 * 1024);
    while (got_ < total) {
      ssize_t r = ::recv(fd_, buf.data(), buf.size(), 0);
      if (r <= 0)
        break;
      got_ += static_cast<std::size_t>(r);
    }
  }
  int fd_;
  std::size_t got_ = 0;
  std::thread thread_;
};

// MB/s of a plain send loop in pieces of chunk bytes (0: half of what
// SO_SNDBUF reports before each send, i.e. the size asked for): blocking, or
// non-blocking with a poll for room after a refused send (what a send
// thread does); 0 on failure.
double PlainLoop(std::string const &data, int sndBuf, std::size_t chunk, bool nonBlocking) {
  Pair p;
  if (!p.ok())
    return 0;
  if (sndBuf > 0)
    ::setsockopt(p.sender, SOL_SOCKET, SO_SNDBUF, &sndBuf, sizeof sndBuf);
  if (nonBlocking)
    ::fcntl(p.sender, F_SETFL, ::fcntl(p.sender, F_GETFL) | O_NONBLOCK);
  auto const start = Clock::now();
  Receiver rx(p.receiver, data.size());
  for (std::size_t off = 0; off < data.size();) {
    std::size_t piece = chunk;
    if (piece == 0) {
      int reported = 0;
      socklen_t len = sizeof reported;
      ::getsockopt(p.sender, SOL_SOCKET, SO_SNDBUF, &reported, &len);
      piece = static_cast<std::size_t>(std::max(reported / 2, 1024));
    }
    ssize_t r = ::send(p.sender, data.data() + off, std::min(piece, data.size() - off), MSG_NOSIGNAL);
    if (r < 0 && nonBlocking && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd w{p.sender, POLLOUT, 0};
      ::poll(&w, 1, 1000);
      continue;
    }
    if (r <= 0)
      return 0;
    off += static_cast<std::size_t>(r);
  }
  if (rx.Join() != data.size())
    return 0;
  return static_cast<double>(data.size()) / 1e6 / SecondsSince(start);
}

// A controller and its send queue; kept across runs, a queue has its slots
// from the runs before (a server's queue lives as long as the server).
struct QueuedSide {
  SendQueue queue{64 * 1024, 64, 64};
  SocketCtrl ctrl{&queue, 0, 0, 0, 1, "drain"};
};

// MB/s through a queued SocketCtrl socket of side; 0 on failure.
double QueuedSocket(QueuedSide &side, std::string const &data, int sndBuf) {
  SocketCtrl &ctrl = side.ctrl;
  Pair p;
  if (!p.ok() || ctrl.AddActiveSock(static_cast<SOCKET>(p.sender)) != 1)
    return 0;
  unsigned const s = static_cast<unsigned>(p.sender);
  p.sender = -1;  // the controller owns it now
  ctrl.set_non_blocking(s);
  if (sndBuf > 0)
    ctrl.SetSndBufSize(sndBuf, s);
  // The queue holds everything the writer hands over: it never waits.
  ctrl.SetMaxSendQueue(static_cast<unsigned>(data.size()), 0, s);
  auto const start = Clock::now();
  Receiver rx(p.receiver, data.size());
  bool ok = true;
  for (std::size_t off = 0; ok && off < data.size(); off += kChunk) {
    unsigned const n = static_cast<unsigned>(std::min(kChunk, data.size() - off));
    ok = ctrl.write(data.data() + off, n, s, 1, 1, 0, 0, nullptr) == static_cast<int>(n);
  }
  std::size_t const got = ok ? rx.Join() : 0;
  double const secs = SecondsSince(start);
  ctrl.close(s, 0);
  if (got != data.size())
    return 0;
  return static_cast<double>(data.size()) / 1e6 / secs;
}

// The same through a queue made for this run alone: every slot is new
// memory, touched for the first time while the writer fills it.
double FreshQueuedSocket(std::string const &data, int sndBuf) {
  QueuedSide side;
  return QueuedSocket(side, data, sndBuf);
}

}  // namespace

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int main(int argc, char **argv) {
  int const runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  struct Case {
    char const *name;
    int sndBuf;
    std::size_t bytes;
  } const cases[] = {{"8 KiB send buffer", 8192, 16u << 20}, {"default send buffer", 0, 64u << 20}};
  std::printf("MB/s, min / median / max of %d runs; the sides alternate within each run\n\n", runs);
  std::printf("| Case | Bytes | Queued SocketCtrl, fresh queue | Queued SocketCtrl, queue in use "
              "| Plain blocking, 64 KiB sends | Plain blocking, 8 KiB sends "
              "| Plain non-blocking + poll, 64 KiB sends "
              "| Plain non-blocking + poll, sends of SO_SNDBUF / 2 | Ours (in use) / best blocking plain (medians) |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|\n");
  int status = 0;
  for (Case const &c : cases) {
    if (argc > 2 && std::string(argv[2]) != (c.sndBuf != 0 ? "8k" : "default"))
      continue;
    std::string data(c.bytes, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
      data[i] = static_cast<char>(i * 131 % 251);
    std::vector<double> fresh, ours, big, small, nonBlocking, capped;
    QueuedSide side;
    status |= QueuedSocket(side, data, c.sndBuf) == 0 ? 1 : 0;  // the queue's slots come to exist
    for (int i = 0; i < runs; ++i) {
      big.push_back(PlainLoop(data, c.sndBuf, kChunk, false));
      fresh.push_back(FreshQueuedSocket(data, c.sndBuf));
      ours.push_back(QueuedSocket(side, data, c.sndBuf));
      small.push_back(PlainLoop(data, c.sndBuf, 8192, false));
      nonBlocking.push_back(PlainLoop(data, c.sndBuf, kChunk, true));
      capped.push_back(PlainLoop(data, c.sndBuf, 0, true));
      for (double v : {big.back(), fresh.back(), ours.back(), small.back(), nonBlocking.back(), capped.back()})
        status |= v == 0 ? 1 : 0;
    }
    std::printf("| %s | %zu MiB | %s | %s | %s | %s | %s | %s | %.2f |\n", c.name, c.bytes >> 20,
                Range(fresh, 1).c_str(), Range(ours, 1).c_str(),
                Range(big, 1).c_str(), Range(small, 1).c_str(), Range(nonBlocking, 1).c_str(),
                Range(capped, 1).c_str(),
                Median(ours) / std::max(Median(big), Median(small)));
    std::fflush(stdout);
  }
  if (status != 0)
    std::fprintf(stderr, "some run failed (0 MB/s)\n");
  return status;
}
