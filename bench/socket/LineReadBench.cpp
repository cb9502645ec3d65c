// Lines per second through SocketCtrl::getmsg and so_readLine on 64-byte
// lines, beside a plain recv loop that splits the same bytes itself (what a
// user would write instead). Each iteration sends 256 lines in one send and
// reads them back one line per call.
#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

constexpr int kLines = 256;

struct Pair {
  int fd[2] = {-1, -1};
  std::string block;
  Pair() {
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, fd);
    int big = 1 << 20;
    ::setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    ::setsockopt(fd[1], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    std::string const line = std::string(62, 'a') + "\r\n";
    for (int i = 0; i < kLines; ++i)
      block += line;
  }
  ~Pair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  bool Fill() const { return ::send(fd[0], block.data(), block.size(), 0) == static_cast<ssize_t>(block.size()); }
};

void BM_Getmsg(benchmark::State &state) {
  Pair p;
  SocketCtrl ctrl(nullptr, 1, 0, 1, 0, "bench");
  char buf[256];
  for (auto _ : state) {
    if (!p.Fill())
      state.SkipWithError("send");
    for (int i = 0; i < kLines; ++i)
      benchmark::DoNotOptimize(ctrl.getmsg(buf, sizeof buf, 5, static_cast<unsigned>(p.fd[1])));
  }
  state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_Getmsg);

void BM_SoReadLine(benchmark::State &state) {
  Pair p;
  char buf[256];
  for (auto _ : state) {
    if (!p.Fill())
      state.SkipWithError("send");
    for (int i = 0; i < kLines; ++i)
      benchmark::DoNotOptimize(so_readLine(buf, sizeof buf, static_cast<SOCKET>(p.fd[1])));
  }
  state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_SoReadLine);

// The reference: recv what has arrived and split it with memchr.
void BM_PlainRecvSplit(benchmark::State &state) {
  Pair p;
  std::string pending;
  char chunk[65536];
  for (auto _ : state) {
    if (!p.Fill())
      state.SkipWithError("send");
    int lines = 0;
    while (lines < kLines) {
      ssize_t r = ::recv(p.fd[1], chunk, sizeof chunk, 0);
      if (r <= 0)
        break;
      pending.append(chunk, static_cast<size_t>(r));
      std::size_t pos = 0;
      while (char const *nl = static_cast<char const *>(std::memchr(pending.data() + pos, '\n', pending.size() - pos))) {
        pos = static_cast<std::size_t>(nl - pending.data()) + 1;
        ++lines;
      }
      pending.erase(0, pos);
    }
    benchmark::DoNotOptimize(lines);
  }
  state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_PlainRecvSplit);

}  // namespace

BENCHMARK_MAIN();
