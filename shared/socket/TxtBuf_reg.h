// TxtBuf_reg.h: one socket's received text, cut into lines.
//
// Bytes go in as they arrive (Put); complete lines come out (GetLine). A
// line ends at CR, LF or CR LF, also when the CR and the LF arrive in
// different reads. A line has at most 65535 bytes: when the register is full
// and holds no line end, its whole content comes out as one line, so a peer
// that never ends its line cannot stall the socket. Bytes are kept as they
// are (a NUL inside a line is data).
//
// Layout of the storage (grown on demand up to the capacity, freed when the
// register drains after growing past kKeepBytes):
//
//   buf_: [ consumed | pending bytes ........ | free ]
//         0          head_                     head_+size_
//
// Threads: none; the owning set's owner serialises use.
#pragma once

#include "platform/Export.h"

#include <vector>

class SHAREDLIB_API TxtBuf_reg {
public:
  static constexpr unsigned kMaxLine = 65535;
  // Storage up to this size is kept when the register drains; more is freed.
  static constexpr std::size_t kKeepBytes = 4096;
  // Bytes of storage held (for tests and memory accounting).
  std::size_t StorageBytes() const { return buf_.capacity(); }

  explicit TxtBuf_reg(unsigned capacity = kMaxLine);

  // Appends up to len bytes (no more than Room()); returns how many it took.
  unsigned Put(char const *data, unsigned len);
  // Takes the next line out into line (cut to size - 1, NUL-ended; the rest
  // of a cut line is dropped). Returns the length copied + 1, or 0 when no
  // complete line is held (or line is null / size is 0).
  int GetLine(char *line, unsigned size);
  // Takes every held byte out as one last line (no line end needed), cut to
  // size - 1 and NUL-ended: for a stream that ended. Returns the length
  // copied + 1, 0 when nothing is held.
  int TakeRest(char *line, unsigned size);
  // Bytes that Put still accepts.
  unsigned Room() const { return capacity_ - size_; }
  // Bytes held (no complete line among them after GetLine returned 0).
  unsigned Pending() const { return size_; }
  // Forgets everything held.
  void Reset();

private:
  // Copies lineLen bytes (cut to size - 1) out and consumes used bytes.
  int TakeOut(unsigned lineLen, unsigned used, char *line, unsigned size);
  // Offset from head_ of the first CR or LF, or -1.
  long FindEol();

  std::vector<char> buf_;
  unsigned capacity_;
  unsigned head_ = 0;      // first pending byte
  unsigned size_ = 0;      // pending bytes
  unsigned scanned_ = 0;   // pending bytes known to hold no line end
  bool skipLf_ = false;    // the last line ended with a CR at the very end
};
