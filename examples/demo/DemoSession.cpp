#include "DemoSession.h"

#include "LossStage.h"
#include "media/MediaFrag.h"
#include "platform/Clock.h"
#include "sockbuf/IndexStr.h"
#include "sockbuf/SockBuffs.h"
#include "sockbuf/SockMWBuffs.h"
#include "thread/Thread.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

namespace demo {

namespace {

namespace sp = shared::platform;

constexpr unsigned kVideoWnd = 1;
constexpr unsigned kAudioWnd = 2;
constexpr unsigned kJitterSize = 4096;  // longest fragment the ordering stage holds
constexpr unsigned kWaitCount = 8;      // later fragments held before a gap is given up
constexpr unsigned kDefragMode = 2;     // output: media, first seq, len, type, flag, frame, ts
constexpr unsigned kOutHeader = 20;     // bytes before the frame data in that layout
constexpr unsigned kTrailerTicks = 25;  // uncounted tail that pushes the last frames out
constexpr unsigned kSettleSeconds = 10;
constexpr std::uint32_t kQuietMs = 2000;
constexpr unsigned kIndexEntries = 1000;  // the reader's index block holds this many

bool OpenWindows(SockBuffs &r) {
  if (!r.CreateWnd(kVideoWnd, kJitterSize, kWaitCount, 1, kDefragMode, kVideoId, 0) ||
      !r.CreateWnd(kAudioWnd, kJitterSize, kWaitCount, 1, kDefragMode, kAudioId, 0))
    return false;
  r.SetWndBlock(kVideoWnd, 0);
  r.SetWndBlock(kAudioWnd, 0);
  return true;
}

// Tallies the frames that come out of one window of the reader.
class FrameCheck {
public:
  FrameCheck(std::uint32_t media, unsigned counted) : media_(media), seen_(counted, false) {}

  // One packet read from the window (defragmenter's layout).
  void Take(unsigned char const *p, unsigned n, StreamResult &r) {
    bytes_ += n;
    ++frames_;
    if (n < kOutHeader || Le32(p) != media_) {
      ++r.framesCorrupt;
      return;
    }
    std::uint32_t const frame = Le32(p + 12);
    lastTs_ = Le32(p + 16);
    if (!any_) {
      firstTs_ = lastTs_;
      any_ = true;
    }
    if (!FrameIntact(media_, frame, p + kOutHeader, n - kOutHeader))
      ++r.framesCorrupt;
    if (any_ && frame < last_)
      ++r.framesOutOfOrder;
    last_ = frame;
    if (frame < seen_.size() && !seen_[frame]) {
      seen_[frame] = true;
      ++r.framesReceived;
    }
  }
  bool Seen(std::uint32_t frame) const { return frame < seen_.size() && seen_[frame]; }
  std::uint64_t Bytes() const { return bytes_; }
  unsigned Frames() const { return frames_; }
  std::uint32_t FirstTs() const { return firstTs_; }
  std::uint32_t LastTs() const { return lastTs_; }
  bool Any() const { return any_; }

private:
  std::uint32_t media_;
  std::vector<bool> seen_;
  std::uint64_t bytes_ = 0;
  unsigned frames_ = 0;
  std::uint32_t last_ = 0;
  std::uint32_t firstTs_ = 0, lastTs_ = 0;
  bool any_ = false;
};

// Takes every packet both windows hold now.
void Drain(SockBuffs &r, FrameCheck &video, StreamResult &v, FrameCheck &audio, StreamResult &a) {
  static thread_local std::vector<unsigned char> buf(70000);
  for (unsigned key : {kVideoWnd, kAudioWnd}) {
    ISockBuffExt *w = r.GetWndObj(key);
    unsigned n = 0;
    while (w != nullptr && w->Read(buf.data(), static_cast<unsigned>(buf.size()), &n) == S_OK) {
      if (key == kVideoWnd)
        video.Take(buf.data(), n, v);
      else
        audio.Take(buf.data(), n, a);
    }
  }
}

class MWSink final : public IFragmentSink {
public:
  explicit MWSink(SockMWBuffs &mw) : mw_(mw) {}
  bool Send(Bytes const &f) override { return mw_.write(f.data(), static_cast<unsigned>(f.size())) == 1; }

private:
  SockMWBuffs &mw_;
};

// Cuts one frame into fragments and passes them through the stage.
void SendFrame(MediaFrag &frag, LossStage &stage, Bytes const &frame) {
  static thread_local std::vector<unsigned char> buf(4096);
  if (!frag.SaveData(frame.data(), static_cast<unsigned>(frame.size())))
    return;
  unsigned n = 0;
  while (frag.GetData(buf.data(), static_cast<unsigned>(buf.size()), &n) && n > 0)
    stage.Push(Bytes(buf.begin(), buf.begin() + n));
}

// Waits until ms after start (the clock's tick), in short steps.
void SleepUntil(std::uint32_t start, std::uint32_t ms) {
  for (;;) {
    std::uint32_t const now = sp::TickCount() - start;
    if (now >= ms)
      return;
    XSleep(ms - now);
  }
}

class EndWatch final : public ISockBuffNotify {
public:
  int NewMediaId(unsigned, unsigned char, unsigned char) override { return 0; }
  void PktRead(unsigned long, unsigned, double, unsigned) override {}
  void EndOfStream() override { ended.store(true); }
  std::atomic<bool> ended{false};
};

}  // namespace

LiveResult RunLive(Config const &cfg, IStatusSink &status) {
  LiveResult res;
  std::remove(cfg.output.c_str());  // the recording is appended to otherwise
  SockBuffs reader(4, 1 << 20);
  std::string const url = cfg.udp ? "udp://127.0.0.1:0" : "tcp-listen://127.0.0.1:0";
  if (!reader.IsOk() || !reader.SetUrl(url.c_str())) {
    res.error = "reader cannot use " + url;
    return res;
  }
  if (!OpenWindows(reader) || !reader.Play() || reader.GetPort() == 0) {
    res.error = "reader cannot open " + url;
    return res;
  }
  if (!reader.SetSaveFileName(cfg.output.c_str())) {
    res.error = "cannot record to " + cfg.output;
    return res;
  }

  SockMWBuffs mw(cfg.kbps, 10, 3000, 0, 0, 0, nullptr, nullptr, 0, 1000, 0);
  std::string const to = std::string(cfg.udp ? "udp" : "tcp") + "://127.0.0.1:" + std::to_string(reader.GetPort());
  if (!mw.IsOk() || !mw.SetUrl(to.c_str()) || !mw.OpenUrl() || !mw.StartWriteThread()) {
    res.error = "sender cannot reach " + to;
    return res;
  }
  MWSink sink(mw);
  LossStage stage(sink, cfg.lossRate, cfg.reorderRate, cfg.seed);
  MediaFrag videoFrag(MediaFrag::kFragOn | MediaFrag::kPktExt, 1 << 16, 0, 0);
  MediaFrag audioFrag(MediaFrag::kFragOn | MediaFrag::kPktExt, 1 << 16, 0, 0);

  unsigned const ticks = cfg.seconds * 1000 / kAudioEveryMs;
  unsigned const perVideo = kVideoEveryMs / kAudioEveryMs;
  res.audio.framesSent = ticks;
  res.video.framesSent = (ticks + perVideo - 1) / perVideo;
  FrameCheck video(kVideoId, res.video.framesSent), audio(kAudioId, res.audio.framesSent);

  std::uint32_t const start = sp::TickCount();
  std::uint32_t nextStatus = 1000;
  std::uint64_t lastBytes = 0;
  auto report = [&](char const *phase, std::uint32_t atMs) {
    std::uint64_t const bytes = video.Bytes() + audio.Bytes();
    LiveStatus s{phase, atMs / 1000.0, (bytes - lastBytes) * 8.0 / 1000.0, cfg.kbps, mw.GetnPktSent(),
                 res.video.framesReceived + res.audio.framesReceived,
                 reader.GetWndObj(kVideoWnd)->GetnPktLost() + reader.GetWndObj(kAudioWnd)->GetnPktLost(),
                 stage.Reordered(), mw.GetnSecsInBuffer() * 1000.0};
    lastBytes = bytes;
    status.Live(s);
  };

  for (unsigned i = 0; i < ticks + kTrailerTicks; ++i) {
    if (i == ticks)
      stage.Bypass();
    std::uint32_t const ts = i * kAudioEveryMs;
    SleepUntil(start, ts);
    SendFrame(audioFrag, stage, MakeFrame(kAudioId, i, ts));
    if (i % perVideo == 0)
      SendFrame(videoFrag, stage, MakeFrame(kVideoId, i / perVideo, ts));
    Drain(reader, video, res.video, audio, res.audio);
    if (sp::TickCount() - start >= nextStatus) {
      report("live", nextStatus);
      nextStatus += 1000;
    }
  }
  stage.Flush();

  // Let the buffer empty and the last counted frames arrive.
  auto settled = [&] {
    for (std::uint32_t f = 0; f < res.video.framesSent; ++f)
      if (!video.Seen(f) && !stage.Damaged(kVideoId, f))
        return false;
    for (std::uint32_t f = 0; f < res.audio.framesSent; ++f)
      if (!audio.Seen(f) && !stage.Damaged(kAudioId, f))
        return false;
    return mw.GetnBytesInBuffer() == 0;
  };
  // Gives up early once nothing moved for a while: what is missing then is lost.
  std::uint32_t const settleStart = sp::TickCount();
  std::uint32_t lastProgress = settleStart;
  unsigned lastCount = 0;
  while (!settled() && sp::TickCount() - settleStart < kSettleSeconds * 1000 &&
         sp::TickCount() - lastProgress < kQuietMs) {
    XSleep(20);
    Drain(reader, video, res.video, audio, res.audio);
    unsigned const count = video.Frames() + audio.Frames();
    if (count != lastCount || mw.GetnBytesInBuffer() != 0) {
      lastCount = count;
      lastProgress = sp::TickCount();
    }
  }
  res.seconds = (sp::TickCount() - start) / 1000.0;
  res.mediaEndTs = (ticks + kTrailerTicks - 1) * kAudioEveryMs;
  report("live", sp::TickCount() - start);

  for (std::uint32_t f = 0; f < res.video.framesSent; ++f) {
    res.video.framesDamaged += stage.Damaged(kVideoId, f) ? 1 : 0;
    res.video.framesMissing += !video.Seen(f) && !stage.Damaged(kVideoId, f) ? 1 : 0;
  }
  for (std::uint32_t f = 0; f < res.audio.framesSent; ++f) {
    res.audio.framesDamaged += stage.Damaged(kAudioId, f) ? 1 : 0;
    res.audio.framesMissing += !audio.Seen(f) && !stage.Damaged(kAudioId, f) ? 1 : 0;
  }
  res.video.gaps = reader.GetWndObj(kVideoWnd)->GetnPktLost();
  res.audio.gaps = reader.GetWndObj(kAudioWnd)->GetnPktLost();
  res.fragmentsSent = mw.GetnPktSent();
  res.dropped = stage.Dropped();
  res.reordered = stage.Reordered();
  res.sendFailures = stage.SendFailures() + mw.GetnPktDropped();
  res.kbps = res.seconds > 0 ? (video.Bytes() + audio.Bytes()) * 8.0 / 1000.0 / res.seconds : 0;
  mw.Abort();
  reader.Stop();  // closes the recording
  // The recording starts with a blank index block; fill it in for seeking.
  if (!IndexStr(kIndexEntries).CreateIndexes(cfg.output.c_str()))
    res.error = "cannot index " + cfg.output;
  return res;
}

PlaybackResult RunPlayback(Config const &cfg, std::uint32_t mediaEndTs, IStatusSink &status) {
  PlaybackResult res;
  res.mediaEndTs = mediaEndTs;
  EndWatch end;
  SockBuffs player(4, 1 << 20);
  player.SetINotify(&end, 0, 0);
  if (!player.SetUrl(("file://" + cfg.output).c_str())) {
    res.error = "cannot play " + cfg.output;
    return res;
  }
  player.SetReadOffset(cfg.seekPercent);
  if (!OpenWindows(player) || !player.Play()) {
    res.error = "cannot play " + cfg.output;
    return res;
  }
  // Frames are checked for their bytes only: which ones a seek skips is the
  // index's business.
  StreamResult v, a;
  FrameCheck video(kVideoId, 0), audio(kAudioId, 0);
  std::uint32_t const start = sp::TickCount();
  std::uint32_t const limit = mediaEndTs + kSettleSeconds * 1000;
  std::uint32_t nextStatus = 1000;
  std::uint64_t lastBytes = 0;
  for (;;) {
    bool const ended = end.ended.load();
    Drain(player, video, v, audio, a);
    std::uint32_t const now = sp::TickCount() - start;
    if (now >= nextStatus) {
      std::uint64_t const bytes = video.Bytes() + audio.Bytes();
      status.Live({"playback", now / 1000.0, (bytes - lastBytes) * 8.0 / 1000.0, cfg.kbps, 0,
                   video.Frames() + audio.Frames(), 0, 0, 0});
      lastBytes = bytes;
      nextStatus += 1000;
    }
    if (ended || now > limit) {
      res.ended = ended;
      break;
    }
    XSleep(20);
  }
  res.wallSeconds = (sp::TickCount() - start) / 1000.0;
  res.corrupt = v.framesCorrupt + a.framesCorrupt;
  res.frames = video.Frames() + audio.Frames();
  if (audio.Any()) {
    res.firstTs = audio.FirstTs();
    res.lastTs = audio.LastTs();
  }
  player.Stop();
  return res;
}

bool Green(LiveResult const &live, PlaybackResult const &play) {
  bool const liveOk = live.error.empty() && live.video.framesMissing == 0 && live.audio.framesMissing == 0 &&
                      live.video.framesCorrupt == 0 && live.audio.framesCorrupt == 0 &&
                      live.video.framesOutOfOrder == 0 && live.audio.framesOutOfOrder == 0 &&
                      live.sendFailures == 0;
  bool const playOk = play.error.empty() && play.ended && play.frames > 0 && play.corrupt == 0;
  return liveOk && playOk;
}

}  // namespace demo
