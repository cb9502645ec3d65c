// sharedlib-chat: runs the chat server until interrupted (or for -t seconds).
//
//   sharedlib-chat -p 6667        then, in another terminal: nc 127.0.0.1 6667
#include "ChatServer.h"
#include "ProgramArgs.h"
#include "platform/Clock.h"
#include "thread/Thread.h"

#include <atomic>
#include <csignal>
#include <cstdio>

namespace {

std::atomic<bool> gStop{false};

extern "C" void OnSignal(int) { gStop.store(true); }

}  // namespace

int main(int argc, char **argv) {
  shared::XArgumentParser args;
  args.AddArgument('p', "port", "TCP port to listen on (default 6667; 0: any free port)");
  args.AddArgument('a', "address", "address to listen on (default 127.0.0.1)");
  args.AddArgument('t', "seconds", "stop after this many seconds (default 0: until Ctrl-C)");
  if (examples::WantsHelp(argc, argv)) {
    examples::PrintUsage(args, "sharedlib-chat",
                         "A line-protocol chat server: NICK, JOIN, PRIVMSG, PING/PONG, QUIT.", stdout);
    return 0;
  }
  args.Parse(argc, argv);
  bool ok = true;
  int const port = static_cast<int>(examples::OptionNumber(args, 'p', 6667, 0, 65535, ok));
  double const seconds = examples::OptionNumber(args, 't', 0, 0, 1e6, ok);
  std::string const addr = examples::OptionText(args, 'a', "127.0.0.1");
  if (!ok) {
    std::fprintf(stderr, "sharedlib-chat: bad option value (see --help)\n");
    return 2;
  }

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  examples::ChatServer chat;
  int const bound = chat.Listen(port, addr.c_str());
  if (bound < 0) {
    std::fprintf(stderr, "sharedlib-chat: cannot listen on %s:%d\n", addr.c_str(), port);
    return 1;
  }
  std::printf("chat server on %s:%d (try: nc %s %d)\n", addr.c_str(), bound, addr.c_str(), bound);
  std::fflush(stdout);
  std::int64_t const end = shared::platform::NowSeconds() + static_cast<std::int64_t>(seconds);
  while (!gStop.load() && (seconds == 0 || shared::platform::NowSeconds() < end))
    XSleep(100);  // the server runs on its own thread; this one only waits to stop
  return 0;
}
