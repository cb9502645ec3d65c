// Pacing accuracy of SockMWBuffs over loopback UDP (or TCP), beside a plain
// sleep_until pacer (what a user would write instead) in the same run.
// For each rate: achieved rate against target over the run, the largest
// number of bytes received in any 100 ms, and process CPU per second.
#include <sharedlib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

namespace {

using SteadyClock = std::chrono::steady_clock;

double CpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool g_tcp = false;  // transport of every run: UDP unless "tcp" is asked for

// Counts the bytes received per millisecond. Over UDP each datagram carries
// the kernel's arrival time (SO_TIMESTAMPNS), so what is measured is when
// the bytes crossed loopback, whatever the receiving thread's scheduling;
// over TCP the time is when a read returned, which a stalled receiver
// bunches up.
class Receiver {
public:
  Receiver() {
    fd_ = ::socket(AF_INET, g_tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!g_tcp) {
      // Room for a second of the fastest rate, so a slow reader loses nothing.
      int const bytes = 16 << 20;
      if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
      int const on = 1;
      ::setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    }
    ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
    if (g_tcp)
      ::listen(fd_, 1);
    socklen_t n = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &n);
    port_ = ntohs(a.sin_port);
  }
  ~Receiver() { ::close(fd_); }
  int Port() const { return port_; }

  // Receives for ms milliseconds after the first byte; bytes per ms.
  std::vector<unsigned> Run(unsigned ms) {
    std::vector<unsigned> perMs(ms, 0);
    int const fd = g_tcp ? ::accept(fd_, nullptr, nullptr) : fd_;
    std::vector<char> buf(65536);
    long long first = -1;  // ns
    auto const giveUp = SteadyClock::now() + std::chrono::milliseconds(ms + 5000);
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) {
        if (SteadyClock::now() > giveUp)
          break;
        continue;
      }
      long long at = 0;
      ssize_t const r = Receive(fd, buf, &at);
      if (r == 0 && g_tcp)
        break;
      if (r <= 0)
        continue;
      if (first < 0)
        first = at;
      long long const msAt = (at - first) / 1000000;
      if (msAt >= ms)
        break;
      perMs[static_cast<size_t>(msAt)] += static_cast<unsigned>(r);
    }
    if (g_tcp)
      ::close(fd);
    return perMs;
  }

private:
  static long long Ns(timespec const &t) { return t.tv_sec * 1000000000ll + t.tv_nsec; }

  static ssize_t Receive(int fd, std::vector<char> &buf, long long *atNs) {
    if (g_tcp) {
      ssize_t r = ::recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
      timespec now{};
      clock_gettime(CLOCK_REALTIME, &now);
      *atNs = Ns(now);
      return r;
    }
    iovec iov{buf.data(), buf.size()};
    alignas(cmsghdr) char control[256];
    msghdr m{};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    m.msg_control = control;
    m.msg_controllen = sizeof control;
    ssize_t r = ::recvmsg(fd, &m, MSG_DONTWAIT);
    timespec stamp{};
    clock_gettime(CLOCK_REALTIME, &stamp);
    for (cmsghdr *c = CMSG_FIRSTHDR(&m); r > 0 && c; c = CMSG_NXTHDR(&m, c))
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS)
        std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
    *atNs = Ns(stamp);
    return r;
  }

  int fd_ = -1;
  int port_ = 0;
};

// The bytes a 1000 ms window lets through under the whole-packet window
// rule (a packet is refused when the window's bytes plus it exceed it):
// floor(window / packet) packets.
double CeilingBytesPerSecond(unsigned kbps, unsigned len) {
  unsigned long long const window = kbps * 1024ull / 8ull;
  return static_cast<double>(window / len * len);
}

void Report(char const *who, unsigned kbps, unsigned len, std::vector<unsigned> const &perMs, double cpu) {
  double const target = kbps * 1024.0 / 8.0;
  double const ceiling = CeilingBytesPerSecond(kbps, len);
  unsigned long long total = 0, sum100 = 0, worst100 = 0;
  for (size_t i = 0; i < perMs.size(); ++i) {
    total += perMs[i];
    sum100 += perMs[i];
    if (i >= 100)
      sum100 -= perMs[i - 100];
    worst100 = std::max(worst100, sum100);
  }
  double const secs = static_cast<double>(perMs.size()) / 1000.0;
  double const rate = static_cast<double>(total) / secs;
  unsigned long long const limit = static_cast<unsigned long long>(target / 10.0) + len;
  std::printf("%-11s %5u kbit/s %4u B  vs target %+6.2f%%  vs ceiling %+6.2f%% (%+5.2f%%)  max/100ms %7llu B "
              "(limit %7llu B)%s  cpu %5.1f ms/s\n",
              who, kbps, len, (rate / target - 1.0) * 100.0, (rate / ceiling - 1.0) * 100.0,
              (ceiling / target - 1.0) * 100.0, worst100, limit, worst100 > limit ? " OVER" : "",
              cpu / secs * 1000.0);
  std::fflush(stdout);
}

// The usual packet sizes, and sizes that divide the window (kbps * 128
// bytes, a power of two for every rate here) so the window rule costs nothing.
unsigned PacketBytes(unsigned kbps) { return kbps <= 64 ? 172 : 1400; }
unsigned EvenPacketBytes(unsigned kbps) { return kbps <= 64 ? 128 : 1024; }

std::vector<char> Packet(unsigned seq, unsigned len) {
  std::vector<char> p(len, 0);
  unsigned payload = len - 12;
  std::memcpy(&p[4], &seq, 4);
  p[8] = static_cast<char>(payload & 0xFF);
  p[9] = static_cast<char>(payload >> 8);
  return p;
}

void RunOurs(unsigned kbps, unsigned len, unsigned seconds, SendQueue *queue) {
  Receiver rx;
  std::vector<unsigned> perMs;
  std::thread t([&] { perMs = rx.Run(seconds * 1000); });
  // Per-millisecond pacing: each slot's budget spread across the slot.
  SockMWBuffs mw(kbps, 10, 3000, 1, 0, 0, queue, nullptr, 0, 1000, 0);
  char url[64];
  std::snprintf(url, sizeof url, "%s://127.0.0.1:%d", g_tcp ? "tcp" : "udp", rx.Port());
  mw.SetUrl(url);
  mw.OpenUrl();
  double const cpu0 = CpuSeconds();
  mw.StartWriteThread();
  unsigned const keep = static_cast<unsigned>(kbps * 1024u / 8u);  // about a second ahead
  auto const end = SteadyClock::now() + std::chrono::seconds(seconds) + std::chrono::milliseconds(300);
  unsigned seq = 0;
  while (SteadyClock::now() < end) {
    while (mw.GetnBytesInBuffer() < keep)
      mw.write(Packet(seq++, len).data(), len);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  double const cpu = CpuSeconds() - cpu0;
  mw.Abort();
  t.join();
  Report("SockMWBuffs", kbps, len, perMs, cpu);
}

// The usual hand-written pacer: one send per packet, sleep_until the time
// the bytes so far are due.
void RunSleepPacer(unsigned kbps, unsigned len, unsigned seconds) {
  Receiver rx;
  std::vector<unsigned> perMs;
  std::thread t([&] { perMs = rx.Run(seconds * 1000); });
  int fd = ::socket(AF_INET, g_tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(rx.Port()));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  double const cpu0 = CpuSeconds();
  double const bytesPerSec = kbps * 1024.0 / 8.0;
  auto const start = SteadyClock::now();
  auto const end = start + std::chrono::seconds(seconds) + std::chrono::milliseconds(300);
  unsigned long long sent = 0;
  unsigned seq = 0;
  while (SteadyClock::now() < end) {
    std::vector<char> p = Packet(seq++, len);
    if (::send(fd, p.data(), len, MSG_NOSIGNAL) != static_cast<ssize_t>(len))
      break;
    sent += len;
    std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<long long>(sent / bytesPerSec * 1e6)));
  }
  double const cpu = CpuSeconds() - cpu0;
  ::close(fd);
  t.join();
  Report("sleep_until", kbps, len, perMs, cpu);
}

}  // namespace

// Usage: bench_mw_pacing [tcp] [seconds per run, default 10] [kbit/s ...]
int main(int argc, char **argv) {
  int arg = 1;
  if (arg < argc && std::strcmp(argv[arg], "tcp") == 0) {
    g_tcp = true;
    ++arg;
  }
  unsigned seconds = arg < argc ? static_cast<unsigned>(std::atoi(argv[arg++])) : 10;
  if (seconds == 0)
    seconds = 10;
  std::vector<unsigned> rates;
  for (int i = arg; i < argc; ++i)
    rates.push_back(static_cast<unsigned>(std::atoi(argv[i])));
  if (rates.empty())
    rates = {64u, 512u, 2048u, 16384u};
  SendQueue queue(65536, 64, 64);
  std::printf("%s, %u s per run, 10 slots of 100 ms; ceiling: floor(window / packet) packets per window "
              "(its distance from the target in parentheses); limit: one slot's budget plus one packet\n",
              g_tcp ? "TCP" : "UDP", seconds);
  for (unsigned kbps : rates) {
    for (unsigned len : {PacketBytes(kbps), EvenPacketBytes(kbps)}) {
      RunOurs(kbps, len, seconds, &queue);
      RunSleepPacer(kbps, len, seconds);
    }
  }
  return 0;
}
