#include "file/FileRead.h"

#include "file/FilePrimitives.h"
#include "platform/FileApi.h"

#include <climits>
#include <cstdlib>
#include <new>

namespace {

constexpr unsigned char kCr = 13;
constexpr unsigned char kLf = 10;
constexpr unsigned char kEof = 0x1A;

bool EndsLine(unsigned char c) { return c == kCr || c == kLf || c == kEof; }
bool EndsRawLine(unsigned char c) { return c == kCr || c == kEof; }

// Copies data[from, end) up to the first byte that ends the line, keeping at
// most size bytes in dst (none when dst is null): returns where it stopped.
int CopyUntil(unsigned char const *data, int from, int end, char *dst, unsigned size,
              unsigned *kept, bool (*ends)(unsigned char)) {
  int p = from;
  *kept = 0;
  for (; p < end && !ends(data[p]); ++p)
    if (dst && *kept < size)
      dst[(*kept)++] = static_cast<char>(data[p]);
  return p;
}

}  // namespace

FileRead::FileRead(char const *path, unsigned flags) {
  if (!path || !FileExist(path))
    return;
  // Only regular files: opening a FIFO for reading would wait for a writer,
  // and a device has no length to load.
  if (shared::platform::SysPathKind(path) != shared::platform::PathKind::kFile)
    return;
  int fd = open_ap(path, nullptr, static_cast<int>(flags), 0);
  if (fd == -1)
    return;
  std::int64_t length = shared::platform::SysFileSize(fd);
  // The size fields are 32-bit: a larger file cannot be held and counts as
  // unreadable, like a failed length query.
  if (length < 0 || length > INT_MAX) {
    close_ap(fd, nullptr);
    return;
  }
  if (length > 0) {
    auto *bytes = static_cast<unsigned char *>(std::calloc(static_cast<std::size_t>(length), 1));
    if (bytes) {
      try {
        buffer_.reset(bytes, std::free);
      } catch (std::bad_alloc const &) {
        bytes = nullptr;  // reset has freed it already
      }
    }
    if (bytes) {
      // Loops only when the system hands the file over in pieces; a file
      // that shrank meanwhile ends the loop short and leaves the object not ok.
      unsigned total = 0;
      while (total < length) {
        int got = read_ap(fd, bytes + total, static_cast<unsigned>(length) - total);
        if (got <= 0)
          break;
        total += static_cast<unsigned>(got);
      }
      size_ = static_cast<int>(total);
      if (total < length) {
        close_ap(fd, nullptr);
        return;
      }
    }
  }
  close_ap(fd, nullptr);
  ok_ = 1;
}

FileRead::~FileRead() = default;

int FileRead::Start() {
  if (!ok_ || position_ < 0 || position_ >= size_)
    return -1;
  if (buffer_.get()[position_] == kEof) {
    position_ = size_;
    return -1;
  }
  return 0;
}

unsigned FileRead::read_line(char *dst, unsigned size) {
  if (Start() < 0)
    return 0;
  if (!dst)
    size = 0;
  unsigned char const *data = buffer_.get();
  unsigned kept = 0;
  int p = CopyUntil(data, position_, size_, dst, size, &kept, EndsLine);
  if (p < size_) {
    // Whatever ended the line (CR, LF or 0x1A) takes one LF right after it:
    // CR LF is one line end, and so are LF LF and 0x1A LF; LF CR is two.
    ++p;
    if (p < size_ && data[p] == kLf)
      ++p;
  }
  position_ = p;
  if (size == 0)
    return 0;
  if (kept < size) {
    dst[kept] = '\0';
    return kept + 1;
  }
  dst[size - 1] = '\0';
  return size;
}

unsigned FileRead::read_line2(char *dst, unsigned size) {
  if (Start() < 0)
    return 0;
  unsigned kept = 0;
  position_ = CopyUntil(buffer_.get(), position_, size_, dst, size, &kept, EndsRawLine);
  return kept;
}

long FileRead::seek(long pos) {
  position_ = pos >= size_ ? size_ : static_cast<int>(pos < INT_MIN ? INT_MIN : pos);
  return position_;
}

long FileRead::tell() { return position_; }

long FileRead::GetFileSize() { return size_; }

long FileRead::GetRealSize() {
  if (realSize_ < 0) {
    int n = 0;
    unsigned char const *data = buffer_.get();
    for (int i = 0; i < size_; ++i)
      if (data[i] != kCr && data[i] != kEof)
        ++n;
    realSize_ = n;
  }
  return realSize_;
}

long FileRead::CountCr() {
  if (lineCount_ < 0) {
    int n = 0;
    unsigned char const *data = buffer_.get();
    for (int i = 0; i < size_; ++i)
      if (data[i] == kLf)
        ++n;
    lineCount_ = n;
  }
  return lineCount_;
}
