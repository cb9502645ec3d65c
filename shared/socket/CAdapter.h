// CAdapter.h: the machine's network adapters and their hardware addresses.
//
// The constructor takes one snapshot of the adapter list (loopback left out)
// into a fixed table of kTableBytes; a machine with more adapters than fit,
// or none at all, leaves the object not ok. GetFirstMACaddress and
// GetNextMACaddress walk the snapshot with one cursor and write each address
// as all eight bytes of the record, lower-case hex separated by blanks:
// "00 1a 2b 3c 4d 5e 00 00" for a six-byte address (23 characters and NUL,
// so text must hold at least 24 bytes).
//
// The list is of the constructing thread's network namespace. No locks: one
// object is used by one thread at a time.
#pragma once

#include "platform/Export.h"

namespace shared::platform {
struct NetIfHwRecord;
}

class SHAREDLIB_API CAdapter {
public:
  static constexpr unsigned kTableBytes = 20736;
  static constexpr unsigned kMinText = 24;

  CAdapter();
  CAdapter(CAdapter const &) = delete;
  CAdapter &operator=(CAdapter const &) = delete;

  int IsOk() const { return ok_; }
  // 1 and the first adapter's address in text; 0 when not ok, text is null,
  // size is below 24 or there is no adapter.
  int GetFirstMACaddress(char *text, unsigned int size);
  // The adapter after the last one returned; 0 at the end of the list (and
  // on every later call until GetFirstMACaddress starts again).
  int GetNextMACaddress(char *text, unsigned int size);

private:
  int GetMACaddresses();
  static void FormatMACaddress(unsigned char const *bytes, char *text, unsigned int size);
  shared::platform::NetIfHwRecord const *Record(unsigned i) const;

  int result_;
  int ok_;
  alignas(8) unsigned char table_[kTableBytes];  // NetIfHwRecord slots
  unsigned count_;                               // records in table_
  int cursor_;                                   // record last returned, -1 none
};
