// SHA1.h: the SHA-1 digest (RFC 3174), incremental or in one call.
//
// C++ linkage on purpose: a C symbol of this name would collide with (and
// could silently replace) the one of a compression or crypto library linked
// into the same program.
//
// DoSHA1 keeps no state; a SHA1 object is used by one thread at a time.
#pragma once

#include "platform/Export.h"

#include <cstddef>
#include <cstdint>

// Incremental SHA-1: Update any number of times, then Final.
class SHAREDLIB_API SHA1 {
public:
  static constexpr unsigned kDigestSize = 20;
  // 40 hexadecimal digits and a NUL.
  static constexpr unsigned kHexSize = 41;

  SHA1();
  // Starts a new message.
  void Reset();
  // Appends len bytes (a null data with len > 0 is ignored).
  void Update(void const *data, std::size_t len);
  // Writes the 20-byte digest of the message so far and starts a new one.
  void Final(unsigned char digest[kDigestSize]);

private:
  void Block(unsigned char const *block);

  std::uint32_t state_[5];
  std::uint64_t length_;        // bytes of the message so far
  unsigned char pending_[64];   // bytes not yet in a whole block
  unsigned pendingLen_;
};

// The digest of len bytes of data into digest (20 bytes): 1, or 0 for a null
// digest or a null data with len > 0.
SHAREDLIB_API int DoSHA1(void const *data, std::size_t len, unsigned char *digest);
// The digest as 40 lower-case hex digits and a NUL into hex (size bytes):
// 40, or 0 (hex "" when size > 0) for size < 41 or a null data with len > 0.
SHAREDLIB_API int DoSHA1(void const *data, std::size_t len, char *hex, unsigned size);
