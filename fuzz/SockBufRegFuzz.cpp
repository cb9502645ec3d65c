// Fuzzes the stream registers as the buffered reader drives them: raw bytes
// are cut into packets by an input register, stored in a stream register
// with the ordering stage and the defragmenter behind it, and read out
// through the last stage until it has nothing more. The pieces straddle the
// input register's compaction point, and partial reads leave its read
// offset anywhere. The first two bytes pick
// the frame layout, the wait count and the size of the pieces fed in.
#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/SockBuf_reg.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

void Check(bool ok) {
  if (!ok)
    __builtin_trap();
}

class Owner final : public ISockBufOwner {
 public:
  virtual ~Owner() = default;
  int OpenUrl() override { return 1; }
  int VerifyConnection() override { return 1; }
  ISockBuffExt* GetPktMWObj() override { return nullptr; }
  int IsSockError() override { return 0; }
};

constexpr unsigned kMaxPacket = 0xFFFF + 12;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2)
    return 0;
  unsigned const mode = data[0] & 3;
  unsigned const waitCount = (data[0] >> 2) & 15;
  unsigned const piece = 1u + data[1] * 16u;
  data += 2;
  size -= 2;

  Owner owner;
  SockBuf_reg input(2 * kMaxPacket, 0);
  input.SetBlock(0);
  input.OpenUrl();
  SockBuf_reg stream(64 * 1024, 0);
  stream.SetSockBuffs(&owner);
  stream.SetBlock(0);
  Check(stream.SetOptions(2048, waitCount, 0, 1, mode) == 1);
  stream.OpenUrl();
  ISockBuffExt* out = stream.GetObj();

  std::vector<unsigned char> packet(kMaxPacket);
  std::vector<unsigned char> frame(70000);
  for (std::size_t at = 0; at < size; at += piece) {
    unsigned const n = static_cast<unsigned>(size - at < piece ? size - at : piece);
    input.SaveData(const_cast<std::uint8_t*>(data + at), n);
    for (;;) {
      unsigned len = kMaxPacket;
      if (!input.GetData(packet.data(), &len))
        break;
      Check(len >= 12 && len <= kMaxPacket);
      stream.SaveData(packet.data(), len);
    }
    for (int reads = 0; reads < 64; ++reads) {
      unsigned got = 0;
      HRESULT const r = out->Read(frame.data(), static_cast<unsigned>(frame.size()), &got);
      if (r != S_OK)
        break;
      Check(got >= 12 && got <= frame.size());
    }
    // The read offset must never show: used and free add up to the window.
    Check(stream.GetBytesUsed() + stream.GetBytesLeft() == stream.GetMaxBufLen());
    Check(input.GetBytesUsed() + input.GetBytesLeft() == input.GetMaxBufLen());
  }
  return 0;
}
