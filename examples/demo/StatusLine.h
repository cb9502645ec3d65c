// StatusLine.h: the demo's live status line and its summary table.
//
// On a terminal the live line is redrawn in place (carriage return, then
// the line, then erase to its end); otherwise every status is a plain line
// of its own, so logs and pipes stay readable.
//
// Caller's thread only.
#pragma once

#include "DemoSession.h"

#include <cstdio>

namespace demo {

class StatusLine final : public IStatusSink {
public:
  StatusLine(std::FILE *out, bool terminal) : out_(out), terminal_(terminal) {}
  void Live(LiveStatus const &s) override;
  // Ends a line being redrawn, before anything else is printed.
  void Done();

private:
  std::FILE *out_;
  bool terminal_;
  bool open_ = false;
};

void PrintSummary(std::FILE *out, Config const &cfg, LiveResult const &live, PlaybackResult const &play);

}  // namespace demo
