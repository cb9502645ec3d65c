// QueueFront.h (internal to SendQueue): the front of one socket's queued
// bytes seen in place, as spans of its CLBuffer slots, and the pieces of a
// gathered send cut from them.
//
//   slots:  [ a a a a ] -> [ a a b b ] -> [ b b b c ] -> ...
//   view:    0 ..................................... Bytes()
//   pieces:  any byte ranges of the view, one piece per slot crossed
//
// Load starts a new send. Nothing is copied: the spans point into the slots, so a view is valid only
// while the record is not changed (the queue's lock is held from Load to the
// send and the drop). A framed message's 4-byte prefix may straddle slots;
// ReadLength joins it.
//
// No lock of its own: the owner (the send pass) serialises every call.
#pragma once

#include "platform/SocketApi.h"

#include <cstdint>
#include <vector>

class CLCtrlData;

namespace shared::socket::detail {

class QueueFront {
public:
  static constexpr unsigned kMaxPieces = shared::platform::kMaxSendPieces;  // pieces of one gathered send

  // Views up to max bytes from the front of rec.
  void Load(CLCtrlData const &rec, unsigned max);
  unsigned Bytes() const { return bytes_; }
  // The 4 bytes at offset at as a host-order length; false when they are not
  // all in the view. Moves the cursor, as AddRange does.
  bool ReadLength(unsigned at, std::uint32_t *out);
  // Adds pieces covering [from, from + n) of the view to the send being
  // planned while they number fewer than kMaxPieces; returns the bytes
  // covered. Ranges must come in ascending order between two Loads.
  unsigned AddRange(unsigned from, unsigned n);
  // The planned send: its pieces and their bytes.
  shared::platform::SockPiece const *Pieces() const { return pieces_.data(); }
  unsigned PieceCount() const { return static_cast<unsigned>(pieces_.size()); }
  unsigned Planned() const { return planned_; }

private:
  // Moves the cursor to the span holding offset at; false past the end.
  bool Seek(unsigned at);

  std::vector<shared::platform::SockPiece> spans_;
  std::vector<shared::platform::SockPiece> pieces_;
  unsigned bytes_ = 0;
  unsigned planned_ = 0;
  std::size_t span_ = 0;     // cursor: a span index
  unsigned spanStart_ = 0;   // cursor: the view offset of that span
};

}  // namespace shared::socket::detail
