#include "media/MediaJitterBuf.h"

#include "platform/Clock.h"

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

}  // namespace

MediaJitterBuf::MediaJitterBuf(unsigned maxPackets, unsigned maxPacketSize, unsigned idleSeconds)
    : JitterBuffer(maxPackets, maxPacketSize),
      ok_(0),
      idleSeconds_(idleSeconds),
      maxPackets_(maxPackets),
      lastInsert_(0),
      lock_(3, 1, 0, kForever, -1) {
  ok_ = (lock_.IsOk() && maxPackets != 0 && maxPacketSize != 0 && idleSeconds != 0) ? 1 : 0;
}

MediaJitterBuf::~MediaJitterBuf() = default;

template <typename F>
auto MediaJitterBuf::Locked(F &&work) {
  shared::SemGuard guard(lock_, "MediaJitterBuf");
  VerifyIdleTime();
  return work();
}

void MediaJitterBuf::VerifyIdleTime() {
  if (idleSeconds_ == 0 || lastInsert_ == 0)
    return;
  std::int64_t const now = shared::platform::NowSeconds();
  // A clock set back makes the age meaningless: start afresh as well.
  if (now < lastInsert_ || now - lastInsert_ > static_cast<std::int64_t>(idleSeconds_))
    flush(0);
}

int MediaJitterBuf::insert(unsigned seq, char const *data, unsigned len) {
  return Locked([&] {
    int const result = JitterBuffer::insert(seq, data, len);
    if (result) {
      lastInsert_ = shared::platform::NowSeconds();
      while (JitterBuffer::GetnPacketsLeft() > maxPackets_) {
        if (JitterBuffer::popfirst(nullptr, nullptr) == 0)
          break;
      }
    }
    return result;
  });
}

int MediaJitterBuf::search(unsigned seq, char *buf, unsigned *len) {
  return Locked([&] { return JitterBuffer::search(seq, buf, len); });
}

int MediaJitterBuf::remove(unsigned seq) {
  return Locked([&] { return JitterBuffer::remove(seq); });
}

unsigned MediaJitterBuf::popfirst(char *buf, unsigned *len) {
  return Locked([&] { return JitterBuffer::popfirst(buf, len); });
}

unsigned MediaJitterBuf::popbytes(char *buf, unsigned *len) {
  return Locked([&] { return JitterBuffer::popbytes(buf, len); });
}

unsigned MediaJitterBuf::GetnPacketsLeft() {
  return Locked([&] { return JitterBuffer::GetnPacketsLeft(); });
}

unsigned MediaJitterBuf::GetnPacketsLost() {
  return Locked([&] { return JitterBuffer::GetnPacketsLost(); });
}

unsigned MediaJitterBuf::GetnPacketsInserted() {
  return Locked([&] { return JitterBuffer::GetnPacketsInserted(); });
}

unsigned MediaJitterBuf::GetnPacketsRemoved() {
  return Locked([&] { return JitterBuffer::GetnPacketsRemoved(); });
}

unsigned MediaJitterBuf::GetnBytesLeft() {
  return Locked([&] { return JitterBuffer::GetnBytesLeft(); });
}

unsigned MediaJitterBuf::GetPercFull() {
  return Locked([&] { return JitterBuffer::GetPercFull(); });
}

void MediaJitterBuf::GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted,
                             unsigned *removed) {
  Locked([&] { JitterBuffer::GetInfo(left, percFull, lost, inserted, removed); });
}

void MediaJitterBuf::flush(int lock) {
  if (lock)
    lock_.Wait(1, "MediaJitterBuf::flush");
  lastInsert_ = 0;
  JitterBuffer::flush();
  if (lock)
    lock_.Signal("MediaJitterBuf::flush");
}
