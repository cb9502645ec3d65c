// SockBuffsSource.cpp: opening and closing the source, and the read thread.
#include "sockbuf/SockBuffs.h"

#include <fcntl.h>

#include "file/FilePrimitives.h"
#include "platform/Clock.h"
#include "socket/SocketPrimitives.h"
#include "sockbuf/IndexStr.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/detail/MediaPkt.h"
#include "thread/Thread.h"

namespace sp = shared::platform;
namespace pkt = shared::sockbuf::detail;
using shared::SemGuard;

namespace {
constexpr unsigned kStepMs = 100;
// How long a network read waits before the loop looks at stop and pause
// again. The controller's waits count whole seconds, so this is the shortest
// wait that still blocks.
constexpr long kReadWaitSeconds = 1;
// Pause before another attempt when the source cannot be (re)opened.
constexpr unsigned kReopenDelayMs = 1000;
// An application source with nothing to give is asked again after this.
constexpr unsigned kIdleSourceMs = 10;
constexpr char const kLoopbackIface[] = "127.0.0.1";
}  // namespace

int SockBuffs::SetUrl(char const* url) {
  SockUrl parsed;
  if (!parsed.Parse(url)) return 0;
  SemGuard g(lock_);
  if (opened_.load()) return 0;
  url_ = parsed;
  // A datagram carries whole packets: a short one is dropped, and its tail
  // never joins the next datagram.
  wholePacket_ = parsed.kind == SockUrl::kUdp || parsed.kind == SockUrl::kUdpMulticast;
  return 1;
}

int SockBuffs::OpenUrl() {
  if (!ok_) return 0;
  {
    SemGuard g(lock_);
    if (!opened_.load()) {
      bool own = iread_.load() == nullptr && readThreadEnabled_.load();
      if (own && !OpenSource()) return 0;
      opened_.store(1);
    }
  }
  if (readThreadEnabled_.load()) return StartReadSockThread();
  return 1;
}

// lock_ held.
int SockBuffs::OpenSource() {
  unsigned sock = kNoSocket;
  int port = 0;
  switch (url_.kind) {
    case SockUrl::kTcp:
      if (!connect(url_.host, "tcp", url_.port, nullptr, &sock, nullptr, 1, 1)) return 0;
      peerSock_ = sock;
      port = url_.port;
      break;
    case SockUrl::kTcpListen:
      if (GetNumListenSocks() > 0) return 1;  // kept across reconnects
      if (!listen("tcp", 1, url_.port, url_.host, nullptr, &sock, 0, &port)) return 0;
      break;
    case SockUrl::kUdp:
      if (!listen("udp", 0, url_.port, url_.host, nullptr, &sock, 1, &port)) return 0;
      break;
    case SockUrl::kUdpMulticast: {
      unsigned bound = 0;
      if (!connectMCast(url_.host, url_.port, kLoopbackIface, 1, &sock, 1)) return 0;
      if (GetSockName(sock, nullptr, 0, &bound)) port = static_cast<int>(bound);
      break;
    }
    case SockUrl::kFile: {
      int fd = open_x(url_.path, nullptr, O_RDONLY, 0);
      if (fd == -1) return 0;
      std::int64_t size = seek_x(nullptr, fd, 0, SEEK_END);
      std::int64_t start = 0;
      // A recording opens with its index block; a bare packet file has none.
      if (index_->ReadIndexes(fd)) start = seek_x(nullptr, fd, 0, SEEK_CUR);
      if (size < 0 || start < 0 || seek_x(nullptr, fd, start, SEEK_SET) != start) {
        close_x(fd);
        return 0;
      }
      readFd_ = fd;
      fileSize_.store(size);
      fileBytesRead_.store(start);
      break;
    }
    default:
      return 0;
  }
  port_.store(port);
  return 1;
}

int SockBuffs::CloseUrl() {
  SemGuard g(lock_);
  if (!opened_.load()) return 1;
  if (iread_.load() == nullptr && readThreadEnabled_.load()) {
    if (readFd_ != -1) {
      CloseReadFile();
    } else {
      if (url_.kind == SockUrl::kUdpMulticast && stop_.load())
        DropMembership(url_.host, kLoopbackIface, kNoSocket);
      if (url_.kind == SockUrl::kTcpListen) {
        if (peerSock_ != kNoSocket) close(peerSock_, 0);
      } else {
        close(kNoSocket, 0);
      }
    }
    peerSock_ = kNoSocket;
  }
  opened_.store(0);
  return 1;
}

int SockBuffs::VerifyConnection() {
  if (idleMode_.load() || !opened_.load()) return 1;
  if (iread_.load() != nullptr || !readThreadEnabled_.load()) return 1;
  SemGuard g(lock_);
  switch (url_.kind) {
    case SockUrl::kTcp:
      return IsConnected(peerSock_);
    case SockUrl::kTcpListen:
      return GetNumListenSocks() > 0 ? 1 : 0;
    case SockUrl::kFile:
      return readFd_ != -1 ? 1 : 0;
    default:
      return GetMasterSocket() != kNoSocket ? 1 : 0;
  }
}

void SockBuffs::CloseReadFile() {
  if (readFd_ == -1) return;
  close_x(readFd_);
  readFd_ = -1;
  fileSize_.store(0);
}

// --- Read thread ----------------------------------------------------------------------

int SockBuffs::StartReadSockThread() {
  if (!ok_) return 0;
  SemGuard t(threadLock_);
  if (thread_ != nullptr) return 1;
  // Start suspended so the handle is stored before the body can look at it.
  thread_ = CreateIThread(&SockBuffs::ReadThreadMain, this, 0, "SockBuffs: Read Thread");
  if (thread_ == nullptr) return 0;
  thread_->Resume();
  return 1;
}

int SockBuffs::ReadThreadMain(IThread* /*thread*/, void* self) {
  static_cast<SockBuffs*>(self)->ReadLoop();
  return 0;
}

void SockBuffs::SleepUnlessStopped(unsigned ms) {
  while (ms != 0 && !stop_.load()) {
    unsigned step = ms < kStepMs ? ms : kStepMs;
    sp::SleepMs(step);
    ms -= step;
  }
}

void SockBuffs::WaitWhilePaused() {
  PauseMedias();
  SetState(kPaused);
  while ((state_.load() & kPauseOn) != 0 && !stop_.load()) wake_.Wait();
  ResetState(kPaused);
}

void SockBuffs::WaitForStop() {
  while (!stop_.load()) wake_.Wait();
}

// Nothing to hold back here: windows keep what they have and the source
// simply is not read while paused.
void SockBuffs::PauseMedias() {}

void SockBuffs::ReadLoop() {
  while (!stop_.load()) {
    if (!opened_.load() && !OpenUrl()) {
      SleepUnlessStopped(kReopenDelayMs);
      continue;
    }
    unsigned sock = kNoSocket;
    int n = ReadSource(&sock);
    if ((state_.load() & kPauseOn) != 0) WaitWhilePaused();
    if (stop_.load()) break;
    if (n == -2) {  // end of the file
      ISockBuffNotify* notifier = notifier_.load();
      if (notifier != nullptr) notifier->EndOfStream();
      WaitForStop();
      break;
    }
    if (n < 0) {
      OnSourceError();
      continue;
    }
    if (n == 0) {
      if (sock != kNoSocket) {
        OnNewPeer(sock);
      } else if (!VerifyConnection()) {
        OnSourceError();
      }
      continue;
    }
    unsigned const len = static_cast<unsigned>(n);
    bool whole;
    {
      SemGuard g(lock_);
      whole = wholePacket_;
    }
    if (whole && (len < pkt::kHeaderLen || len < pkt::PktLen(readBuf_.data()))) continue;
    WriteData(readBuf_.data(), len);
    if (whole) {
      SemGuard g(lock_);
      input_->flush();
    }
  }
}

// > 0 bytes in readBuf_; 0 nothing (with *sock a new peer, if any); -1 the
// source failed; -2 the file ended.
int SockBuffs::ReadSource(unsigned* sock) {
  char* buf = reinterpret_cast<char*>(readBuf_.data());
  if (ISockBuffRead* app = iread_.load()) {
    int n = app->ReadData(buf, kReadSize);
    if (n > static_cast<int>(kReadSize)) n = static_cast<int>(kReadSize);
    if (n == 0) SleepUnlessStopped(kIdleSourceMs);
    return n;
  }
  bool file;
  {
    SemGuard g(lock_);
    file = readFd_ != -1;
  }
  if (file) return ReadFile();
  int n = readall(buf, kReadSize, 0, 0, kReadWaitSeconds, sock, nullptr);
  if (n > 0) *sock = kNoSocket;
  return n;
}

int SockBuffs::ReadFile() {
  int n;
  {
    SemGuard g(lock_);
    if (input_->GetBytesUsed() + kReadSize > input_->GetMaxBufLen()) {
      n = -3;
    } else {
      if (readOffsetPending_.load()) ChangeReadOffset();
      n = readFd_ == -1 ? -1 : read_x(readFd_, readBuf_.data(), kReadSize);
    }
  }
  if (n == -3) {
    SleepUnlessStopped(kStepMs);
    return 0;
  }
  if (n == 0) return -2;
  return n;
}

void SockBuffs::OnSourceError() {
  {
    SemGuard g(lock_);
    sockError_.store(1);
    input_->flush();
  }
  if (stop_.load()) return;
  CloseUrl();
  if (!OpenUrl()) SleepUnlessStopped(kReopenDelayMs);
}

// A listening source accepted a peer: it replaces the previous one and a new
// packet stream starts.
void SockBuffs::OnNewPeer(unsigned sock) {
  SemGuard g(lock_);
  if (peerSock_ != kNoSocket && peerSock_ != sock) close(peerSock_, 0);
  peerSock_ = sock;
  input_->flush();
}
