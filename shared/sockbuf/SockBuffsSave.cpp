// SockBuffsSave.cpp: the packet path (cutting, storing, pacing, notifying)
// and the recording file with its seek table.
#include "sockbuf/SockBuffs.h"

#include <fcntl.h>

#include <cmath>

#include "file/FilePrimitives.h"
#include "platform/Clock.h"
#include "sockbuf/IndexStr.h"
#include "sockbuf/SockBufVect.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/detail/MediaPkt.h"

namespace sp = shared::platform;
namespace pkt = shared::sockbuf::detail;
using shared::SemGuard;

namespace {
constexpr unsigned kTimeStampOffset = 16;
constexpr unsigned kIndexCapacity = 1000;

// Holds the windows' reader wake-ups for one network chunk: a consumer woken
// by the chunk's first packet would otherwise take the window's lock once
// per packet while the read thread is still storing the rest, and each
// collision costs both threads a sleep. A file source is paced packet by
// packet, so its packets wake readers as they are stored.
class ChunkWakeHold {
 public:
  ChunkWakeHold(SockBufVect* wnds, bool on) : wnds_(on ? wnds : nullptr) {
    if (wnds_ != nullptr) wnds_->HoldWakes(1);
  }
  ~ChunkWakeHold() {
    if (wnds_ != nullptr) wnds_->HoldWakes(0);
  }
  ChunkWakeHold(ChunkWakeHold const&) = delete;
  ChunkWakeHold& operator=(ChunkWakeHold const&) = delete;

 private:
  SockBufVect* const wnds_;
};
}  // namespace

// Whole packets are cut straight out of the caller's bytes; only a packet
// split across calls goes through the input register, where it waits for its
// rest. Cutting everything through the register would move the unread rest
// of each chunk to the front once per packet.
int SockBuffs::WriteData(void const* buf, unsigned len) {
  if (!opened_.load() || stop_.load() || buf == nullptr || len == 0) return 0;
  SemGuard g(lock_);
  ChunkWakeHold hold(wnds_.get(), readFd_ == -1);
  auto const* p = static_cast<unsigned char const*>(buf);
  if (input_->GetBytesUsed() != 0 && !CompletePending(&p, &len)) return 1;
  while (len >= pkt::kHeaderLen && !stop_.load()) {
    unsigned const size = pkt::PktLen(p);
    if (size > len) break;
    SaveMediaPkt(p, size);
    p += size;
    len -= size;
  }
  FlushWindowRun();
  if (len != 0 && !stop_.load() && !input_->SaveData(const_cast<unsigned char*>(p), len))
    return 0;
  return 1;
}

// Feeds the input register the bytes its pending packet lacks (the header
// first, then the rest it announces) and stores the packet once whole.
// lock_ held. false while the packet is still incomplete.
bool SockBuffs::CompletePending(unsigned char const** p, unsigned* len) {
  auto feed = [&](unsigned want) {
    unsigned const take = want < *len ? want : *len;
    if (take != 0 && input_->SaveData(const_cast<unsigned char*>(*p), take)) {
      *p += take;
      *len -= take;
    }
  };
  if (input_->GetBytesUsed() < pkt::kHeaderLen) feed(pkt::kHeaderLen - input_->GetBytesUsed());
  if (input_->GetBytesUsed() < pkt::kHeaderLen) return false;
  unsigned const size = pkt::PktLen(input_->GetBufPtr());
  if (input_->GetBytesUsed() < size) feed(size - input_->GetBytesUsed());
  unsigned n = static_cast<unsigned>(pktBuf_.size());
  if (!input_->GetData(pktBuf_.data(), &n)) return false;
  SaveMediaPkt(pktBuf_.data(), n);
  FlushWindowRun();  // the chunk's packets do not follow on in pktBuf_
  return true;
}

// lock_ held (once) by WriteData; released around NewMediaId and pacing.
void SockBuffs::SaveMediaPkt(unsigned char const* p, unsigned len) {
  if (len < kMinPacket) return;
  lastPktTime_.store(sp::NowSeconds());
  pktSeen_.store(1);
  bool const fromFile = readFd_ != -1;
  if (fromFile) fileBytesRead_.fetch_add(len);
  unsigned const mediaId = pkt::PktMediaId(p);
  unsigned const size = pkt::PktLen(p);
  if (mediaId == 0 || size > len) return;
  unsigned const ts = pkt::Le32(p + kTimeStampOffset);
  unsigned key = SearchMediaID(mediaId);
  if (key == 0) {
    ISockBuffNotify* notifier = notifier_.load();
    if (notifier == nullptr) return;
    // The application may take its time: readers get what is stored so far.
    FlushWindowRun();
    if (!fromFile) wnds_->HoldWakes(0);
    lock_.Signal();
    int const wanted = notifier->NewMediaId(mediaId, p[10], p[11]);
    lock_.Wait();
    if (!fromFile) wnds_->HoldWakes(1);
    if (stop_.load() || wanted == 0) return;
    key = SearchMediaID(mediaId);
    if (key == 0) return;
    wnds_->SetTSFstPkt(key, ts);
  }
  bool const waited = fromFile && PaceFilePacket(key, ts);
  if (stop_.load()) return;
  StoreInWindow(key, p, size);
  if (fromFile) FlushWindowRun();  // paced one by one: readers see each as it is due
  if (notifyOn_ && notifier_.load() != nullptr) NotifyPktRead(mediaId, p[11]);
  if (saveFd_ != -1) WriteSaveFile(p, size);
  if (ISockBuff* writer = fileMW_.load()) writer->Write(p, size, nullptr);
  if (fromFile && !waited) {  // let control threads in between file packets
    lock_.Signal();
    lock_.Wait();
  }
}

// lock_ held.
void SockBuffs::StoreInWindow(unsigned key, unsigned char const* p, unsigned len) {
  if (run_.len != 0 && (run_.key != key || run_.begin + run_.len != p)) FlushWindowRun();
  if (run_.len == 0) {
    run_.key = key;
    run_.begin = p;
  }
  run_.len += len;
}

// lock_ held.
void SockBuffs::FlushWindowRun() {
  if (run_.len == 0) return;
  if (wnds_->SavePacketsKey(run_.key, run_.begin, run_.len) != 0) sockError_.store(0);
  run_ = WindowRun{};
}

// A file source plays at the pace of its time stamps: a packet is due at the
// window's anchor tick plus its distance from the anchor time stamp. A wait
// longer than the maximum (a jump in the stamps) is cut to the maximum and
// the window re-anchored on this packet once the wait is over, so play goes
// on in real time from there. lock_ held; released while waiting.
bool SockBuffs::PaceFilePacket(unsigned key, unsigned ts) {
  unsigned ts0 = 0;
  unsigned tick0 = 0;
  wnds_->GetTSFstPkt(key, &ts0, &tick0);
  if (ts0 == 0 || tick0 == 0) {
    wnds_->SetTSFstPkt(key, ts);
    return false;
  }
  std::uint32_t const due = tick0 + (ts - ts0);
  auto const ahead = static_cast<std::int32_t>(due - sp::TickCount());
  if (ahead <= 0) return false;
  unsigned wait = static_cast<unsigned>(ahead);
  bool const reanchor = wait > maxWaitMs_.load();
  if (reanchor) wait = maxWaitMs_.load();
  lock_.Signal();
  SleepUnlessStopped(wait);
  lock_.Wait();
  if (reanchor) wnds_->SetTSFstPkt(key, ts);
  return true;
}

// --- Recording ----------------------------------------------------------------------

int SockBuffs::SetSaveFileName(char const* name) {
  SemGuard g(lock_);
  CloseSaveFile();
  if (name == nullptr) return 0;
  char const* c = name;
  while (*c == ' ' || *c == '\t') ++c;
  if (*c == '\0') return 0;
  // Not truncated: the index block is rewritten in place at offset 0 when
  // the seek table is built later (IndexStr::CreateIndexes).
  int fd = open_x(name, nullptr, O_WRONLY | O_CREAT, 0);
  if (fd == -1) return 0;
  IndexStr blank(kIndexCapacity);
  if (!blank.SaveIndexes(fd)) {
    close_x(fd);
    return 0;
  }
  saveFd_ = fd;
  return 1;
}

int SockBuffs::IsRecording() {
  SemGuard g(lock_);
  return saveFd_ != -1 ? 1 : 0;
}

// A short write (a full disk, a size limit) ends the recording; the live
// stream is not affected.
void SockBuffs::WriteSaveFile(void const* p, unsigned len) {
  if (len == 0) return;
  if (write_x(saveFd_, p, len) != static_cast<int>(len)) CloseSaveFile();
}

void SockBuffs::CloseSaveFile() {
  if (saveFd_ == -1) return;
  close_x(saveFd_);
  saveFd_ = -1;
}

// --- Seeking -------------------------------------------------------------------------

void SockBuffs::SetReadOffset(double percent) {
  readOffset_.store(percent);
  readOffsetPending_.store(1);
}

// Read thread, lock_ held.
void SockBuffs::ChangeReadOffset() {
  readOffsetPending_.store(0);
  unsigned const count = index_->GetnIndex();
  if (readFd_ == -1 || count == 0) return;
  double percent = readOffset_.load();
  if (!(percent >= 0.0)) percent = 0.0;  // NaN too
  if (percent > 100.0) percent = 100.0;
  // Default rounding: to nearest, ties to even.
  auto const i = static_cast<unsigned>(std::nearbyint(percent * count / 100.0));
  std::int64_t const target = i < count ? static_cast<std::int64_t>(index_->GetIndex(i))
                                        : fileSize_.load();
  if (target == 0) return;
  if (seek_x(nullptr, readFd_, target, SEEK_SET) != target) return;
  reset();
  fileBytesRead_.store(target);
}
