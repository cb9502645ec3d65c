// Base64.h: base64 text of binary data (RFC 4648, standard alphabet, '='
// padding), used for the proxy authorization of the HTTP tunnel.
//
// Keeps no state; any thread may call it. Buffers belong to the caller.
#pragma once

#include "platform/Export.h"

#include <cstddef>
#include <cstdint>

// Failure results of encode64 and decode64.
constexpr int kBase64Invalid = -1;   // bad input (or null input with len > 0)
constexpr int kBase64TooSmall = -2;  // dst cannot hold the result

// Bytes encode64 needs for len input bytes, the NUL included.
constexpr std::size_t Base64EncodedSize(std::size_t len) { return (len + 2) / 3 * 4 + 1; }

// Encodes len bytes of src into dst as NUL-terminated text: its length, or
// kBase64TooSmall when dstSize is below Base64EncodedSize(len) (dst then
// holds "" when dstSize > 0), or kBase64Invalid for a null src with len > 0
// or an input too large for an int result.
SHAREDLIB_API int encode64(void const *src, unsigned len, char *dst, unsigned dstSize);
// Decodes len characters of src into dst: the number of bytes, or
// kBase64Invalid unless src is canonical base64 (length a multiple of 4, only
// the 64 alphabet characters, at most two '=' and only at the end, unused
// bits zero; no white space), or kBase64TooSmall when dst cannot hold the
// bytes (nothing is written then). len 0 decodes to 0 bytes.
SHAREDLIB_API int decode64(char const *src, unsigned len, void *dst, unsigned dstSize);
