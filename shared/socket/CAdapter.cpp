#include "socket/CAdapter.h"

#include "platform/NetIf.h"

#include <cstring>

namespace sp = shared::platform;

namespace {
constexpr unsigned kSlots = CAdapter::kTableBytes / sizeof(sp::NetIfHwRecord);
static_assert(alignof(sp::NetIfHwRecord) <= 8, "records fit the table's alignment");
}  // namespace

CAdapter::CAdapter() : result_(0), ok_(0), count_(0), cursor_(-1) { result_ = GetMACaddresses(); }

sp::NetIfHwRecord const *CAdapter::Record(unsigned i) const {
  return reinterpret_cast<sp::NetIfHwRecord const *>(table_) + i;
}

int CAdapter::GetMACaddresses() {
  ok_ = 0;
  cursor_ = -1;
  count_ = 0;
  std::memset(table_, 0, sizeof(table_));
  unsigned n = 0;
  auto *slots = reinterpret_cast<sp::NetIfHwRecord *>(table_);
  // No adapter at all is a failure, as an empty adapter query is.
  if (!sp::NetIfHardwareList(slots, kSlots, &n) || n == 0)
    return 0;
  count_ = n;
  ok_ = 1;
  return 1;
}

int CAdapter::GetFirstMACaddress(char *text, unsigned int size) {
  if (!ok_ || text == nullptr || size < kMinText)
    return 0;
  cursor_ = 0;
  FormatMACaddress(Record(0)->addr, text, size);
  return 1;
}

int CAdapter::GetNextMACaddress(char *text, unsigned int size) {
  if (!ok_ || text == nullptr || size < kMinText || cursor_ < 0)
    return 0;
  unsigned next = static_cast<unsigned>(cursor_) + 1;
  if (next >= count_) {
    cursor_ = -1;
    return 0;
  }
  cursor_ = static_cast<int>(next);
  FormatMACaddress(Record(next)->addr, text, size);
  return 1;
}

void CAdapter::FormatMACaddress(unsigned char const *bytes, char *text, unsigned int size) {
  static char const kHex[] = "0123456789abcdef";
  if (size < kMinText)
    return;
  char *p = text;
  for (unsigned i = 0; i < 8; ++i) {
    if (i != 0)
      *p++ = ' ';
    *p++ = kHex[bytes[i] >> 4];
    *p++ = kHex[bytes[i] & 0x0f];
  }
  *p = '\0';
}
