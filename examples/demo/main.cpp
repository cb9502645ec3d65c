// sharedlib-demo: one media session on loopback with live statistics.
//
// With no arguments: 10 s of synthetic audio and video over TCP, paced at
// 512 kbit/s, recorded to sharedlib-demo.rec and played back from 50 %.
// Exits 0 on a green summary, 1 on unexpected loss or damage, 2 on bad
// options.
#include "DemoSession.h"
#include "ProgramArgs.h"
#include "StatusLine.h"

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv) {
  shared::XArgumentParser args;
  args.AddArgument('r', "kbps", "pacing rate of the sender in kbit/s (default 512)");
  args.AddArgument('d', "seconds", "media to send (default 10)");
  args.AddArgument('t', "tcp|udp", "transport (default tcp)");
  args.AddArgument('l', "rate", "fraction of packets the sender drops, 0-0.5 (default 0)");
  args.AddArgument('x', "rate", "fraction of packets the sender swaps with the next, 0-0.5 (default 0)");
  args.AddArgument('s', "percent", "where playback of the recording starts (default 50)");
  args.AddArgument('o', "file", "recording file (default sharedlib-demo.rec)");
  args.AddArgument('n', "seed", "seed of the loss and reorder stage (default 1)");
  if (examples::WantsHelp(argc, argv)) {
    examples::PrintUsage(args, "sharedlib-demo",
                         "One media session on loopback: synthetic audio+video, paced sender, ordering and\n"
                         "defragmenting reader, recording with an index, playback with a seek.",
                         stdout);
    return 0;
  }
  args.Parse(argc, argv);
  bool ok = true;
  demo::Config cfg;
  cfg.kbps = static_cast<unsigned>(examples::OptionNumber(args, 'r', 512, 16, 100000, ok));
  cfg.seconds = static_cast<unsigned>(examples::OptionNumber(args, 'd', 10, 1, 3600, ok));
  cfg.lossRate = examples::OptionNumber(args, 'l', 0, 0, 0.5, ok);
  cfg.reorderRate = examples::OptionNumber(args, 'x', 0, 0, 0.5, ok);
  cfg.seekPercent = examples::OptionNumber(args, 's', 50, 0, 99, ok);
  cfg.seed = static_cast<std::uint32_t>(examples::OptionNumber(args, 'n', 1, 0, 4294967295.0, ok));
  cfg.output = examples::OptionText(args, 'o', "sharedlib-demo.rec");
  std::string const transport = examples::OptionText(args, 't', "tcp");
  cfg.udp = transport == "udp";
  if (!ok || (transport != "tcp" && transport != "udp") || cfg.output.empty()) {
    std::fprintf(stderr, "sharedlib-demo: bad option value (see --help)\n");
    return 2;
  }

  // The live line redraws in place only on a terminal.
  demo::StatusLine status(stdout, ::isatty(STDOUT_FILENO) == 1);
  demo::LiveResult const live = demo::RunLive(cfg, status);
  status.Done();
  demo::PlaybackResult play;
  if (live.error.empty())
    play = demo::RunPlayback(cfg, live.mediaEndTs, status);
  status.Done();
  demo::PrintSummary(stdout, cfg, live, play);
  return demo::Green(live, play) ? 0 : 1;
}
