// FdCtrl.h: sets of sockets with 1-based positions and a cursor.
//
//   IfdCtrl        the interface (count, zero, clr, set, isset, getfd,
//                  first/next); positions are 1-based, 0 means none
//   Myfd_set       fixed capacity of 2048, insertion order, with the
//                  historical duplicate rule of set (see there)
//   ITxtBufCtrl    per-socket text line buffers; defaults do nothing
//   IfdACtrl       IfdCtrl + ITxtBufCtrl: what a SocketCtrl hands out as its
//                  active-socket set
//   fdVector       growable, no duplicates; set, clr and isset cost the same
//                  whatever the count (see there); text defaults
//   fdATxtSVector  an fdVector that keeps one TxtBuf_reg per socket
//
// Removing a socket while first/next walk the set keeps the walk intact: it
// neither skips nor repeats a socket, whichever socket is removed (the
// current one, one already returned, or one still to come).
//
// Threads: no locks; the owner (a SocketCtrl, under its lock) serialises use.
#pragma once

#include "platform/Export.h"
#include "socket/SockEventsWrapper.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

class TxtBuf_reg;

class SHAREDLIB_API IfdCtrl {
public:
  virtual ~IfdCtrl();
  // Number of sockets held.
  virtual int count() = 0;
  // Empties the set.
  virtual void zero() = 0;
  // Removes fd; returns the 0-based index it stood at, or count() when absent.
  virtual int clr(unsigned int fd) = 0;
  // Adds fd; returns the new count, or 0 when nothing was added.
  virtual int set(unsigned int fd) = 0;
  // 1-based position of fd, 0 when absent.
  virtual int isset(unsigned int fd) = 0;
  // Socket at 1-based pos; 0xFFFFFFFF for 0 or beyond the count.
  virtual unsigned int getfd(unsigned int pos) = 0;
  // Restarts the cursor at position 1 and returns next(pos).
  virtual unsigned int first(unsigned int *pos) = 0;
  // Socket at the cursor, then advances; 0xFFFFFFFF past the end. *pos (if
  // not null) receives the position taken, 0 at the end.
  virtual unsigned int next(unsigned int *pos) = 0;
};

// Fixed set of at most 2048 sockets.
//
// set(fd) keeps a historical quirk on purpose: its search cannot tell a match
// at the last position from "absent", so adding the socket that stands last
// adds it again (set(5), set(5) holds 5 twice), while a socket found earlier
// is not added (set(5), set(7), set(5) returns 0).
class SHAREDLIB_API Myfd_set : public IfdCtrl {
public:
  Myfd_set();
  ~Myfd_set() override;

  int count() override;
  void zero() override;
  int clr(unsigned int fd) override;
  int set(unsigned int fd) override;
  int isset(unsigned int fd) override;
  unsigned int getfd(unsigned int pos) override;
  unsigned int first(unsigned int *pos) override;
  unsigned int next(unsigned int *pos) override;

private:
  std::uint32_t count_;
  std::uint32_t fds_[kSewSelectMaxSockets];
  std::uint32_t cursor_;  // the 1-based position next() returns next
};

// Per-socket text line buffers, reached by socket. Every default does
// nothing and returns 0 (no buffer).
class SHAREDLIB_API ITxtBufCtrl {
public:
  virtual ~ITxtBufCtrl();
  // Appends up to len received bytes to fd's buffer; returns bytes taken.
  virtual int PutTxt(unsigned int fd, char const *data, unsigned int len);
  // Takes the next complete line out of fd's buffer into line (NUL-ended,
  // cut to size - 1); returns the line's length + 1, 0 when none is complete.
  virtual int GetTxtLine(unsigned int fd, char *line, unsigned int size);
  // Creates fd's buffer (1 when it exists afterwards).
  virtual int AddTxtBuf(unsigned int fd);
  // Deletes fd's buffer (1 when there was one).
  virtual int DelTxtBuf(unsigned int fd);
  // *room = bytes fd's buffer can still take; 1 when fd has a buffer.
  virtual int GetTxtRoom(unsigned int fd, unsigned int *room);
  // *pending = bytes held that are not yet a complete line; 1 when fd has a buffer.
  virtual int GetTxtPending(unsigned int fd, unsigned int *pending);
};

class SHAREDLIB_API IfdACtrl : public IfdCtrl, public ITxtBufCtrl {
public:
  ~IfdACtrl() override;
};

// Growable set without a capacity limit. Unlike Myfd_set it never holds a
// socket twice: set of a present socket returns 0.
//
// Sockets stand in a dense array, found through a table indexed by socket
// number (a hash for numbers of 2^20 and above), so set, clr and isset do not
// depend on the count. set appends. clr fills the gap with the last socket
// instead of shifting the rest, so the order is insertion order only until
// the first removal; no caller depends on more. During a walk, a removal of
// a socket already returned first moves the last returned socket into the
// gap, so the not yet returned ones stay behind the cursor.
class SHAREDLIB_API fdVector : public IfdACtrl {
public:
  fdVector();
  ~fdVector() override;

  int count() override;
  void zero() override;
  int clr(unsigned int fd) override;
  int set(unsigned int fd) override;
  int isset(unsigned int fd) override;
  unsigned int getfd(unsigned int pos) override;
  unsigned int first(unsigned int *pos) override;
  unsigned int next(unsigned int *pos) override;

private:
  void place(std::uint32_t fd, std::uint32_t pos);  // records fds_[pos - 1] = fd
  std::vector<std::uint32_t> fds_;  // dense; [0, cursor_ - 1) already walked
  std::vector<std::uint32_t> pos_;  // by socket number below 2^20: 1-based position, 0 = absent
  std::unordered_map<std::uint32_t, std::uint32_t> bigPos_;  // the same for larger numbers
  std::uint32_t cursor_ = 1;
};

// fdVector whose every socket has a TxtBuf_reg: set creates it, clr and
// zero delete it. The six text operations reach the socket's register.
// With SetLazyRegisters(true), set creates none: the owner adds a register
// (AddTxtBuf) to the sockets that carry text, when they first need it.
// Registers are found by hash, so accept and close cost does not grow with
// the number of sockets.
class SHAREDLIB_API fdATxtSVector : public fdVector {
public:
  fdATxtSVector();
  ~fdATxtSVector() override;

  void zero() override;
  int clr(unsigned int fd) override;
  int set(unsigned int fd) override;

  int PutTxt(unsigned int fd, char const *data, unsigned int len) override;
  int GetTxtLine(unsigned int fd, char *line, unsigned int size) override;
  int AddTxtBuf(unsigned int fd) override;
  int DelTxtBuf(unsigned int fd) override;
  int GetTxtRoom(unsigned int fd, unsigned int *room) override;
  int GetTxtPending(unsigned int fd, unsigned int *pending) override;

  // The socket's register, or null. Valid until the socket leaves the set.
  TxtBuf_reg *GetTxtBuf(unsigned int fd);
  void SetLazyRegisters(bool lazy) { lazy_ = lazy; }

private:
  std::unordered_map<std::uint32_t, std::unique_ptr<TxtBuf_reg>> regs_;
  bool lazy_ = false;
};
