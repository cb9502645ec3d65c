#include "DemoMedia.h"

namespace demo {

namespace {

unsigned char Pattern(std::uint32_t media, std::uint32_t frame, unsigned k) {
  return static_cast<unsigned char>(media * 31u + frame * 7u + k + (k >> 8));
}

void Put32(Bytes &b, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

}  // namespace

std::uint32_t Le32(unsigned char const *p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

unsigned Le16(unsigned char const *p) { return p[0] | p[1] << 8; }

unsigned FrameBytes(std::uint32_t media, std::uint32_t frame) {
  return media == kAudioId ? kAudioBytes : 2500 + (frame % 8) * 400;
}

Bytes MakeFrame(std::uint32_t media, std::uint32_t frame, std::uint32_t tsMs) {
  unsigned const n = FrameBytes(media, frame);
  unsigned const len = kExtBytes + n;
  Bytes b;
  b.reserve(12 + len);
  Put32(b, media);
  Put32(b, frame);
  b.push_back(static_cast<unsigned char>(len));
  b.push_back(static_cast<unsigned char>(len >> 8));
  b.push_back(media == kAudioId ? kAudioType : kVideoType);
  b.push_back(media == kAudioId ? kAudioFlag : 0);
  Put32(b, frame);  // extension: frame number, then the time stamp
  Put32(b, tsMs);
  for (unsigned k = 0; k < n; ++k)
    b.push_back(Pattern(media, frame, k));
  return b;
}

bool FrameIntact(std::uint32_t media, std::uint32_t frame, unsigned char const *data, unsigned len) {
  if (len != FrameBytes(media, frame))
    return false;
  for (unsigned k = 0; k < len; ++k) {
    if (data[k] != Pattern(media, frame, k))
      return false;
  }
  return true;
}

}  // namespace demo
