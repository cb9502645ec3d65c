// ISockBufOwner.h: what a stream register needs from the reader that feeds
// it (the buffered reader implements it; tests give their own).
//
// A register calls these hooks without holding any lock of its own, so an
// owner may take its own lock inside them (the owner's lock comes before a
// register's lock). The owner outlives every register it is attached to.
#pragma once

class ISockBuffExt;

class ISockBufOwner {
 public:
  // A register is being opened: make sure the source is open. 0 keeps the
  // register closed.
  virtual int OpenUrl() = 0;
  // A register was closed: the owner decides whether its connection is still
  // wanted. The result is not used by the register.
  virtual int VerifyConnection() = 0;
  // Where registers forward each packet they deliver; null for none.
  virtual ISockBuffExt* GetPktMWObj() = 0;
  // Non-zero while the owner's socket reports an error.
  virtual int IsSockError() = 0;

 protected:
  ISockBufOwner() = default;
  ISockBufOwner(const ISockBufOwner&) = default;
  ISockBufOwner& operator=(const ISockBufOwner&) = default;
  ~ISockBufOwner() = default;
};
