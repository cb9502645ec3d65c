// DemoSession.h: one media session on loopback, end to end.
//
//   synthetic audio+video -> per-media MediaFrag (fragments <= 1,400 bytes)
//     -> LossStage (optional loss/reorder) -> SockMWBuffs (paced at kbps)
//     -> TCP or UDP on 127.0.0.1 -> SockBuffs (ordering + defragmenting
//     windows, recording with its index block)
//   then the recording -> SockBuffs file source (time-stamp pacing, seek)
//
// RunLive sends for the configured duration and checks every frame that
// comes out of the reader; RunPlayback plays the recording from a
// percentage. Both report to an IStatusSink once a second.
//
// Threads: the caller's thread drives both runs (generating, sending and
// draining the windows); the library's threads do the pacing and reading.
#pragma once

#include "DemoMedia.h"

#include <cstdint>
#include <string>

namespace demo {

struct Config {
  unsigned kbps = 512;          // the multi-writer's pacing rate
  unsigned seconds = 10;        // media to send
  bool udp = false;
  double lossRate = 0;          // of fragments, in the sender
  double reorderRate = 0;
  double seekPercent = 50;      // where playback starts
  std::string output = "sharedlib-demo.rec";
  std::uint32_t seed = 1;
};

struct LiveStatus {
  char const *phase;
  double elapsedSeconds;
  double kbps;             // received in the last second
  unsigned target;         // kbit/s
  unsigned sent;           // packets (fragments) on the wire
  unsigned received;       // frames out of the windows
  unsigned lost;           // sequence gaps seen by the windows
  unsigned reordered;
  double bufferedMs;       // waiting in the multi-writer's buffer
};

class IStatusSink {
public:
  virtual void Live(LiveStatus const &s) = 0;

protected:
  ~IStatusSink() = default;
};

struct StreamResult {
  unsigned framesSent = 0;
  unsigned framesReceived = 0;
  unsigned framesDamaged = 0;     // hit by the loss stage: allowed to be missing
  unsigned framesMissing = 0;     // neither received nor damaged: unexpected
  unsigned framesCorrupt = 0;     // received with wrong bytes
  unsigned framesOutOfOrder = 0;  // received after a later frame
  unsigned gaps = 0;              // sequence gaps counted by the window
};

struct LiveResult {
  StreamResult video, audio;
  unsigned fragmentsSent = 0;
  unsigned dropped = 0, reordered = 0;
  unsigned sendFailures = 0;   // fragments the multi-writer refused or dropped
  double kbps = 0;             // received over the whole run
  double seconds = 0;
  std::uint32_t mediaEndTs = 0;  // time stamp of the last frame recorded
  std::string error;           // set when the session could not run
};

struct PlaybackResult {
  unsigned frames = 0;
  unsigned corrupt = 0;
  std::uint32_t firstTs = 0, lastTs = 0, mediaEndTs = 0;
  double wallSeconds = 0;
  bool ended = false;
  std::string error;
};

LiveResult RunLive(Config const &cfg, IStatusSink &status);
PlaybackResult RunPlayback(Config const &cfg, std::uint32_t mediaEndTs, IStatusSink &status);

// True when nothing went missing or wrong that the loss stage did not cause.
bool Green(LiveResult const &live, PlaybackResult const &play);

}  // namespace demo
