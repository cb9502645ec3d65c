// Media-path throughput of the buffered reader next to iperf3 in the same run.
//
// A sender thread streams 1,400-byte packets of one media identifier,
// unpaced, over loopback TCP into a SockBuffs listening source; a consumer
// thread drains the window with blocking reads. Reported: delivered bytes/s,
// heap allocations per packet once warm (whole process), and the read
// thread's CPU time per packet. Then iperf3 (one stream, loopback) runs for
// the same time. Usage: bench_reader [seconds=3] [window bytes=262144]
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kMedia = 0x5A;
constexpr unsigned kPktLen = 1400;
constexpr unsigned kBatch = 46;  // packets per send: about 64 KB

using Clock = std::chrono::steady_clock;

void Put32(unsigned char* p, unsigned v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// utime + stime in clock ticks of the thread whose name starts with prefix.
long ThreadCpuTicks(char const* prefix) {
  DIR* d = ::opendir("/proc/self/task");
  if (d == nullptr) return -1;
  long ticks = -1;
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string base = std::string("/proc/self/task/") + e->d_name;
    char comm[64] = {};
    FILE* f = std::fopen((base + "/comm").c_str(), "r");
    if (f == nullptr) continue;
    bool match = std::fgets(comm, sizeof comm, f) != nullptr && std::strncmp(comm, prefix, std::strlen(prefix)) == 0;
    std::fclose(f);
    if (!match) continue;
    f = std::fopen((base + "/stat").c_str(), "r");
    if (f == nullptr) continue;
    char line[1024] = {};
    if (std::fgets(line, sizeof line, f) != nullptr) {
      char const* p = std::strrchr(line, ')');
      unsigned long ut = 0, st = 0;
      // Fields after the name: state and 10 numbers, then utime, stime.
      if (p != nullptr && std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &st) == 2)
        ticks = static_cast<long>(ut + st);
    }
    std::fclose(f);
  }
  ::closedir(d);
  return ticks;
}

struct ReaderFigures {
  double bytesPerSecond = 0;
  double allocsPerPacket = 0;
  double cpuUsPerPacket = 0;
  double droppedShare = 0;  // packets the full window discarded, of all sent
};

ReaderFigures RunReader(double seconds, unsigned windowBytes) {
  ReaderFigures out;
  SockBuffs reader(1, windowBytes);
  if (!reader.SetUrl("tcp-listen://127.0.0.1:0") || !reader.CreateWnd(1, 0, 0, 0, 0, kMedia, 0) ||
      !reader.Play()) {
    std::fprintf(stderr, "reader did not start\n");
    return out;
  }
  ISockBuffExt* wnd = reader.GetWndObj(1);
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> bytes{0};
  std::atomic<std::uint64_t> packets{0};
  std::thread consumer([&] {
    std::vector<unsigned char> buf(70000);
    unsigned n = 0;
    while (!done.load() && wnd->Read(buf.data(), static_cast<unsigned>(buf.size()), &n) == S_OK) {
      bytes.fetch_add(n, std::memory_order_relaxed);
      packets.fetch_add(1, std::memory_order_relaxed);
    }
  });
  std::thread sender([&] {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<unsigned short>(reader.GetPort()));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      ::close(fd);
      return;
    }
    std::vector<unsigned char> batch(kPktLen * kBatch);
    unsigned seq = 0;
    while (!done.load()) {
      for (unsigned i = 0; i < kBatch; ++i) {
        unsigned char* p = batch.data() + i * kPktLen;
        Put32(p, kMedia);
        Put32(p + 4, ++seq);
        p[8] = static_cast<unsigned char>((kPktLen - 12) & 0xFF);
        p[9] = static_cast<unsigned char>((kPktLen - 12) >> 8);
        Put32(p + 16, seq * 10);
      }
      std::size_t off = 0;
      while (off < batch.size() && !done.load()) {
        ssize_t w = ::send(fd, batch.data() + off, batch.size() - off, MSG_NOSIGNAL);
        if (w <= 0) break;
        off += static_cast<std::size_t>(w);
      }
    }
    ::close(fd);
  });
  // Warm up, then measure.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::uint64_t const b0 = bytes.load(), p0 = packets.load(), a0 = bench::AllocationCount();
  long const c0 = ThreadCpuTicks("SockBuffs");
  auto const t0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  std::uint64_t const b1 = bytes.load(), p1 = packets.load(), a1 = bench::AllocationCount();
  long const c1 = ThreadCpuTicks("SockBuffs");
  double const dt = std::chrono::duration<double>(Clock::now() - t0).count();
  done.store(true);
  unsigned const lost = wnd->GetnPktLost();
  std::uint64_t const got = packets.load();
  out.droppedShare = got + lost ? static_cast<double>(lost) / static_cast<double>(got + lost) : 0;
  reader.Abort();  // wakes the consumer
  consumer.join();
  sender.join();
  reader.Stop();
  std::uint64_t const pk = p1 - p0;
  // CPU per packet the read thread stored: delivered ones plus those the
  // full window discarded (counted as lost by the window, over the whole run).
  double const storedShare = 1.0 - out.droppedShare;
  out.bytesPerSecond = static_cast<double>(b1 - b0) / dt;
  out.allocsPerPacket = pk ? static_cast<double>(a1 - a0) / static_cast<double>(pk) : 0;
  if (pk && c0 >= 0 && c1 >= 0)
    out.cpuUsPerPacket = static_cast<double>(c1 - c0) * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK)) /
                         (static_cast<double>(pk) / storedShare);
  return out;
}

// iperf3 single stream over loopback; bytes/s received, 0 when unavailable.
double RunIperf(double seconds) {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(probe, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&a), &len);
  unsigned const port = ntohs(a.sin_port);
  ::close(probe);
  std::string const server = "iperf3 -s -1 -B 127.0.0.1 -p " + std::to_string(port) + " >/dev/null 2>&1 &";
  if (std::system(server.c_str()) != 0) return 0;
  std::string const client = "iperf3 -c 127.0.0.1 -p " + std::to_string(port) + " -t " +
                              std::to_string(static_cast<int>(seconds + 0.5)) +
                              " --connect-timeout 5000 -J 2>/dev/null";
  double bps = 0;
  for (int attempt = 0; attempt < 50 && bps == 0; ++attempt) {  // the server needs a moment to listen
    FILE* p = ::popen(client.c_str(), "r");
    if (p == nullptr) return 0;
    std::string json;
    char chunk[4096];
    while (std::size_t n = std::fread(chunk, 1, sizeof chunk, p)) json.append(chunk, n);
    ::pclose(p);
    std::size_t at = json.find("\"sum_received\"");
    if (at != std::string::npos) at = json.find("\"bits_per_second\"", at);
    if (at != std::string::npos) bps = std::strtod(json.c_str() + json.find(':', at) + 1, nullptr);
    if (bps == 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return bps / 8;
}

}  // namespace

int main(int argc, char** argv) {
  double const seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
  auto const window = static_cast<unsigned>(argc > 2 ? std::atol(argv[2]) : 262144);
  ReaderFigures r = RunReader(seconds, window);
  double const iperf = RunIperf(seconds);
  std::printf("SockBuffs, %7u-byte window        : %10.1f MB/s  %.3f allocs/packet  %.2f us read-thread CPU/packet stored  %.0f %% dropped by the full window\n",
              window, r.bytesPerSecond / 1e6, r.allocsPerPacket, r.cpuUsPerPacket,
              100.0 * r.droppedShare);
  std::printf("iperf3 single stream, loopback      : %10.1f MB/s\n", iperf / 1e6);
  if (iperf > 0) std::printf("ratio                               : %10.1f %%\n", 100.0 * r.bytesPerSecond / iperf);
  return r.bytesPerSecond > 0 ? 0 : 1;
}
