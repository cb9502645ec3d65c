// Fuzzes the index block check: arbitrary bytes are written to a scratch file
// and read back with ReadIndexes, then rebuilt with CreateIndexes. A valid
// block must read back what it holds.
#include "file/FilePrimitives.h"
#include "sockbuf/IndexStr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

void Check(bool ok) {
  if (!ok)
    __builtin_trap();
}

std::string const& ScratchPath() {
  static std::string const path = "/tmp/fuzz_indexstr." + std::to_string(::getpid());
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const& path = ScratchPath();
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f)
    return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  IndexStr idx(1000);
  int const fd = open_ap(path.c_str(), nullptr, O_RDONLY, 0);
  if (idx.ReadIndexes(fd)) {
    Check(idx.GetnIndex() <= idx.GetCapacity() && idx.GetCapacity() <= IndexStr::kMaxIndexes);
    Check(size >= 97 + 4 * idx.GetCapacity());
  } else {
    Check(idx.GetnIndex() == 0);
  }
  close_x(fd);

  IndexStr rebuilt(static_cast<unsigned>(size % 20));
  if (rebuilt.CreateIndexes(path.c_str()))
    Check(rebuilt.GetnIndex() <= rebuilt.GetCapacity());
  std::remove(path.c_str());
  return 0;
}
