// DemoMedia.h: the synthetic audio/video stream of the demo, and the checks
// that what came out of the reader is what went in.
//
// Audio: one packet every 20 ms (kAudioBytes of samples). Video: one frame
// every 100 ms, 2,500 to 5,300 bytes, so every frame travels in several
// fragments of at most 1,400 bytes. Each packet carries the 8-byte
// extension whose bytes 4-7 hold the time stamp in ms, so fragments and
// recordings carry it too. The payload of frame f of media m is a pattern
// of (m, f, byte index), so a frame can be checked byte for byte on its own.
//
//   0       4      8    10   11   12      16      20
//   +-------+------+----+----+----+-------+-------+-------------------
//   | media | frame|len |type|flag| ext   | ts ms | pattern(m, f, k)
//   +-------+------+----+----+----+-------+-------+-------------------
//   len = 8 + data bytes; flag 0x10 for audio
//
// Plain functions; any thread.
#pragma once

#include <cstdint>
#include <vector>

namespace demo {

constexpr std::uint32_t kVideoId = 0x56494430;  // the two media identifiers
constexpr std::uint32_t kAudioId = 0x41554430;
constexpr unsigned kAudioEveryMs = 20;
constexpr unsigned kVideoEveryMs = 100;
constexpr unsigned kAudioBytes = 160;
constexpr unsigned char kAudioFlag = 0x10;
constexpr unsigned char kVideoType = 2;
constexpr unsigned char kAudioType = 3;
constexpr unsigned kExtBytes = 8;

using Bytes = std::vector<unsigned char>;

// Data bytes of frame f of a media.
unsigned FrameBytes(std::uint32_t media, std::uint32_t frame);
// The whole media packet of frame f, time-stamped tsMs.
Bytes MakeFrame(std::uint32_t media, std::uint32_t frame, std::uint32_t tsMs);
// True when data holds exactly the data bytes of frame f of media.
bool FrameIntact(std::uint32_t media, std::uint32_t frame, unsigned char const *data, unsigned len);

std::uint32_t Le32(unsigned char const *p);
unsigned Le16(unsigned char const *p);

}  // namespace demo
