// Fuzzes the buffered reader's packet cutter as a network source feeds it:
// arbitrary bytes go into WriteData in chunks of a size the first byte
// picks, with two windows bound (one ordering and defragmenting, one plain),
// and both windows are drained after every chunk.
#include "sockbuf/SockBuffs.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

constexpr unsigned kMediaA = 1;
constexpr unsigned kMediaB = 2;

void Check(bool ok) {
  if (!ok)
    __builtin_trap();
}

unsigned Le(unsigned char const* p, unsigned n) {
  unsigned v = 0;
  for (unsigned i = 0; i < n; ++i) v |= static_cast<unsigned>(p[i]) << (8 * i);
  return v;
}

// A plain window hands out whole packets of its own identifier only.
void DrainPlain(ISockBuffExt* w, std::vector<unsigned char>& buf) {
  unsigned n = 0;
  while (w->Read(buf.data(), static_cast<unsigned>(buf.size()), &n) == S_OK) {
    Check(n >= SockBuffs::kMinPacket);
    Check(Le(buf.data(), 4) == kMediaB);
    Check(Le(buf.data() + 8, 2) + 12 == n);
  }
}

void DrainStaged(ISockBuffExt* w, std::vector<unsigned char>& buf) {
  unsigned n = 0;
  for (int guard = 0; guard < 10000 && w->Read(buf.data(), static_cast<unsigned>(buf.size()), &n) == S_OK;
       ++guard)
    Check(n <= buf.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  static std::vector<unsigned char> buf(70000);
  SockBuffs reader(2, 1 << 16);
  reader.DisableReadThread();
  Check(reader.Play() == 1);
  Check(reader.CreateWnd(1, 2048, 3, 1, data[0] & 3u, kMediaA, 0) == 1);
  Check(reader.CreateWnd(2, 0, 0, 0, 0, kMediaB, 0) == 1);
  reader.SetWndBlock(1, 0);
  reader.SetWndBlock(2, 0);
  ISockBuffExt* staged = reader.GetWndObj(1);
  ISockBuffExt* plain = reader.GetWndObj(2);
  std::size_t const chunk = 1 + (data[0] >> 2) * 16u;
  for (std::size_t off = 1; off < size; off += chunk) {
    std::size_t const n = size - off < chunk ? size - off : chunk;
    reader.WriteData(data + off, static_cast<unsigned>(n));
    DrainPlain(plain, buf);
    DrainStaged(staged, buf);
  }
  reader.Stop();
  return 0;
}
