// MediaPkt.h (internal): the 12-byte media packet header the registers cut
// streams into. Integers are little-endian whatever the host.
//
//   0        4        8     10  11  12
//   +--------+--------+------+---+---+----------------
//   | media  | seq    | plen |b10|b11| payload (plen bytes)
//   +--------+--------+------+---+---+----------------
#pragma once

#include <cstdint>

namespace shared::sockbuf::detail {

constexpr unsigned kHeaderLen = 12;
constexpr unsigned kMaxPacketLen = 0xFFFFu + kHeaderLen;

inline std::uint32_t Le16(unsigned char const* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8;
}
inline std::uint32_t Le32(unsigned char const* p) {
  return Le16(p) | Le16(p + 2) << 16;
}
inline void PutLe16(unsigned char* p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}
inline void PutLe32(unsigned char* p, std::uint32_t v) {
  PutLe16(p, v);
  PutLe16(p + 2, v >> 16);
}

// Field readers over a buffer holding at least the header.
inline std::uint32_t PktMediaId(void const* pkt) { return Le32(static_cast<unsigned char const*>(pkt)); }
inline std::uint32_t PktSeq(void const* pkt) { return Le32(static_cast<unsigned char const*>(pkt) + 4); }
// Header plus payload length.
inline std::uint32_t PktLen(void const* pkt) {
  return Le16(static_cast<unsigned char const*>(pkt) + 8) + kHeaderLen;
}
inline unsigned char PktByte(void const* pkt, unsigned off) { return static_cast<unsigned char const*>(pkt)[off]; }

}  // namespace shared::sockbuf::detail
