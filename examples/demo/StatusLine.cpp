#include "StatusLine.h"

namespace demo {

void StatusLine::Live(LiveStatus const &s) {
  // Kept near 80 columns so a redrawn line does not wrap.
  char line[256];
  std::snprintf(line, sizeof line,
                "%s %.1fs  %.0f/%u kbit/s  out %u pkt  in %u frames  lost %u  reord %u  sendbuf %.0f ms",
                s.phase, s.elapsedSeconds, s.kbps, s.target, s.sent, s.received, s.lost, s.reordered,
                s.bufferedMs);
  if (terminal_) {
    std::fprintf(out_, "\r%s\033[K", line);
    open_ = true;
  } else {
    std::fprintf(out_, "%s\n", line);
  }
  std::fflush(out_);
}

void StatusLine::Done() {
  if (open_)
    std::fputc('\n', out_);
  open_ = false;
}

namespace {

void Row(std::FILE *out, char const *name, StreamResult const &r) {
  std::fprintf(out, "| %-6s | %8u | %8u | %8u | %8u | %8u | %8u | %6u |\n", name, r.framesSent,
               r.framesReceived, r.framesDamaged, r.framesMissing, r.framesCorrupt, r.framesOutOfOrder,
               r.gaps);
}

}  // namespace

void PrintSummary(std::FILE *out, Config const &cfg, LiveResult const &live, PlaybackResult const &play) {
  std::fprintf(out, "\nsession: %s over %s, %u s of media, target %u kbit/s, loss %.3f, reorder %.3f\n",
               cfg.output.c_str(), cfg.udp ? "UDP" : "TCP", cfg.seconds, cfg.kbps, cfg.lossRate,
               cfg.reorderRate);
  if (!live.error.empty())
    std::fprintf(out, "error: %s\n", live.error.c_str());
  std::fprintf(out, "| stream |   frames | received |  damaged |  missing |  corrupt | late     |   gaps |\n");
  std::fprintf(out, "|--------|----------|----------|----------|----------|----------|----------|--------|\n");
  Row(out, "video", live.video);
  Row(out, "audio", live.audio);
  std::fprintf(out, "packets on the wire %u, dropped by the loss stage %u, reordered %u, refused %u\n",
               live.fragmentsSent, live.dropped, live.reordered, live.sendFailures);
  std::fprintf(out, "achieved %.1f kbit/s of frame data against %u kbit/s in %.1f s\n", live.kbps, cfg.kbps,
               live.seconds);
  if (!play.error.empty())
    std::fprintf(out, "playback error: %s\n", play.error.c_str());
  else
    std::fprintf(out,
                 "playback from %.0f%%: %u frames (%u corrupt), audio %.2f s to %.2f s of %.2f s, "
                 "paced over %.1f s%s\n",
                 cfg.seekPercent, play.frames, play.corrupt, play.firstTs / 1000.0, play.lastTs / 1000.0,
                 play.mediaEndTs / 1000.0, play.wallSeconds, play.ended ? "" : " (no end of stream)");
  std::fprintf(out, "result: %s\n", Green(live, play) ? "OK" : "FAILED (unexpected loss or damage)");
}

}  // namespace demo
