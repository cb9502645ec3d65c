// Per-socket send options and rate state (the controller owns them; the
// send queue reserves and settles through ISendSink), and socket options.
#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "socket/detail/SocketCtrlInternal.h"
#include "socket/SocketPrimitives.h"
#include "thread/Semaphore.h"

#include <algorithm>

namespace sp = shared::platform;
using shared::SemGuard;
using shared::socket::detail::kNone;

unsigned SockOptions::Reserve(unsigned n, std::int64_t now) {
  if (Second() != now) {
    SetSecond(now);
    secondBytes = 0;
  }
  unsigned allow = n;
  if (rateLimit != 0)
    allow = secondBytes >= rateLimit ? 0 : std::min(n, rateLimit - secondBytes);
  secondBytes += allow;
  return allow;
}

void SockOptions::Settle(unsigned reserved, unsigned sent, std::int64_t now) {
  if (sent > 0) {
    if (countStart == 0) {
      countStart = static_cast<std::uint32_t>(now);
      if (countStart == 0)
        countStart = 1;
    }
    SetSent(Sent() + sent);
  }
  // What a short send did not use goes back to the second it was taken from.
  if (reserved > sent && Second() == now)
    secondBytes -= std::min(reserved - sent, secondBytes);
}

// Takes up to n bytes of sock's allowance for second now at once, so that
// concurrent writers can never spend one allowance twice. n when the socket
// has no record or counts without a limit.
unsigned SocketCtrl::ReserveAllowance(SOCKET s, unsigned n, std::int64_t now) {
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it == options_.end() || !it->second.Accounting())
    return n;
  return it->second.Reserve(n, now);
}

void SocketCtrl::SettleAllowance(SOCKET s, unsigned reserved, unsigned sent, std::int64_t now) {
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it != options_.end() && it->second.Accounting())
    it->second.Settle(reserved, sent, now);
}

SendTerms SocketCtrl::ReserveQueued(unsigned int sock, unsigned want) {
  SendTerms t;
  t.allow = want;
  if (optionCount_.load(std::memory_order_acquire) == 0)
    return t;
  SemGuard g(*optLock_);
  auto it = options_.find(sock);
  if (it == options_.end())
    return t;
  t.framed = it->second.framed != 0;
  t.rateLimit = it->second.rateLimit;
  if (it->second.Accounting()) {
    t.accounting = true;
    t.second = sp::NowSeconds();
    t.allow = it->second.Reserve(want, t.second);
  }
  return t;
}

void SocketCtrl::SettleQueued(unsigned int sock, SendTerms const &terms, unsigned sent) {
  if (terms.accounting)
    SettleAllowance(sock, terms.allow, sent, terms.second);
}

SockOptions &SocketCtrl::RecordOf(SOCKET s) {
  SockOptions &o = options_[s];
  NoteOptions();
  return o;
}

int SocketCtrl::SetMaxSendQueue(unsigned int maxBytes, int framed, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  SockOptions &o = RecordOf(s);
  o.maxQueue = maxBytes;
  o.framed = framed ? 1 : 0;
  return 1;
}

int SocketCtrl::SetBytesCount(int on, unsigned int bytesPerSecond, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  SockOptions &o = RecordOf(s);
  o.countOn = (on || bytesPerSecond) ? 1 : 0;
  o.rateLimit = bytesPerSecond;
  o.countStart = 0;
  o.SetSent(0);
  o.SetSecond(0);
  o.secondBytes = 0;
  return 1;
}

unsigned int SocketCtrl::GetBitRate(int reset, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it == options_.end() || it->second.countStart == 0)
    return 0;
  SockOptions &o = it->second;
  std::uint32_t now = static_cast<std::uint32_t>(sp::NowSeconds());
  std::uint32_t elapsed = now - o.countStart;  // modulo 2^32, like the stored start
  if (elapsed == 0)
    elapsed = 1;
  std::uint64_t bits = o.Sent() * 8 / elapsed;
  if (reset) {
    o.countStart = 0;
    o.SetSent(0);
  }
  return bits > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned>(bits);
}

void SocketCtrl::NoteOptions() { optionCount_.store(static_cast<unsigned>(options_.size()), std::memory_order_release); }

void SocketCtrl::InitSockOptVector() {
  SemGuard g(*optLock_);
  options_.clear();
  NoteOptions();
}

int SocketCtrl::GetSockOptions(unsigned int sock, SockOptions *out) {
  if (optionCount_.load(std::memory_order_acquire) == 0)
    return 0;  // no record anywhere: no lock for the common write
  SemGuard g(*optLock_);
  auto it = options_.find(sock);
  if (it == options_.end())
    return 0;
  if (out)
    *out = it->second;
  return 1;
}

int SocketCtrl::UpdateSockOptions(unsigned int sock, SockOptions const *opts) {
  if (sock == kNone || !opts)
    return 0;
  SemGuard g(*optLock_);
  options_[sock] = *opts;
  NoteOptions();
  return 1;
}

void SocketCtrl::WaitSockOpt() { optLock_->Wait(1); }

void SocketCtrl::SignalSockOpt() { optLock_->Signal(); }

int SocketCtrl::GetMaxMsgSize(unsigned int sock) { return ::GetMaxMsgSize(Resolve(sock)); }

int SocketCtrl::GetRcvBufSize(unsigned int sock) { return ::GetRcvBufSize(Resolve(sock)); }

int SocketCtrl::GetSndBufSize(unsigned int sock) { return ::GetSndBufSize(Resolve(sock)); }

int SocketCtrl::SetRcvBufSize(int bytes, unsigned int sock) {
  return ::SetRcvBufSize(static_cast<unsigned>(bytes), Resolve(sock));
}

int SocketCtrl::SetSndBufSize(int bytes, unsigned int sock) {
  return ::SetSndBufSize(static_cast<unsigned>(bytes), Resolve(sock));
}

int SocketCtrl::SetTCPNoDelay(int on, unsigned int sock) { return ::SetTCPNoDelay(on, Resolve(sock)); }

int SocketCtrl::SetMulticast(int ttl, char const *iface, unsigned int sock) {
  return ::SetMulticast(ttl, iface, Resolve(sock));
}

int SocketCtrl::AddMembership(char const *group, char const *iface, unsigned int sock) {
  return ::AddMembership(group, iface, Resolve(sock));
}

int SocketCtrl::DropMembership(char const *group, char const *iface, unsigned int sock) {
  return ::DropMembership(group, iface, Resolve(sock));
}

int SocketCtrl::set_non_blocking(unsigned int sock) { return ::set_non_blocking(Resolve(sock)); }

int SocketCtrl::set_dont_linger(unsigned int sock) { return ::set_dont_linger(Resolve(sock)); }
