#include "platform/FileApi.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace shared::platform {

namespace {

// Largest count one read/write call can report without overflow.
constexpr std::size_t kMaxTransfer = static_cast<std::size_t>(SSIZE_MAX);

template <typename Call>
auto RetryEintr(Call call) {
  for (;;) {
    auto r = call();
    if (r != -1 || errno != EINTR)
      return r;
  }
}

PathKind KindOf(struct stat const &st) {
  if (S_ISREG(st.st_mode))
    return PathKind::kFile;
  if (S_ISDIR(st.st_mode))
    return PathKind::kDirectory;
  return PathKind::kOther;
}

// One fcntl lock request. Open-file-description locks are used where the
// system has them: a process-wide POSIX lock would be dropped by closing any
// other descriptor of the same file, and would not conflict with a second
// open of the file inside this process.
bool LockRequest(int fd, short type, std::uint64_t offset, std::uint64_t length) {
  if (fd < 0 || length == 0)
    return false;
  constexpr std::uint64_t kMaxOff = static_cast<std::uint64_t>(INT64_MAX);
  if (offset > kMaxOff || length > kMaxOff - offset) {
    errno = EINVAL;
    return false;
  }
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(offset);
  fl.l_len = static_cast<off_t>(length);
#if defined(F_OFD_SETLK)
  int r = RetryEintr([&] { return ::fcntl(fd, F_OFD_SETLK, &fl); });
  if (r == 0 || errno != EINVAL)
    return r == 0;
  // A kernel without open-file-description locks: fall back to POSIX locks.
  fl.l_pid = 0;
#endif
  return RetryEintr([&] { return ::fcntl(fd, F_SETLK, &fl); }) == 0;
}

}  // namespace

int SysOpen(char const *path, int flags, int mode) {
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  return RetryEintr([&] { return ::open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode)); });
}

int SysOpenExistingForRead(char const *path) {
  return SysOpen(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0);
}

int SysClose(int fd) { return ::close(fd); }

std::int64_t SysRead(int fd, void *buf, std::size_t n) {
  if (n > kMaxTransfer)
    n = kMaxTransfer;
  return RetryEintr([&] { return ::read(fd, buf, n); });
}

std::int64_t SysWrite(int fd, void const *buf, std::size_t n) {
  if (n > kMaxTransfer)
    n = kMaxTransfer;
  return RetryEintr([&] { return ::write(fd, buf, n); });
}

std::int64_t SysSeek(int fd, std::int64_t offset, int origin) {
  return ::lseek(fd, static_cast<off_t>(offset), origin);
}

std::int64_t SysFileSize(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0)
    return -1;
  return static_cast<std::int64_t>(st.st_size);
}

PathKind SysFileKind(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0)
    return PathKind::kMissing;
  return KindOf(st);
}

PathKind SysPathKind(char const *path) {
  struct stat st {};
  if (!path || ::stat(path, &st) != 0)
    return PathKind::kMissing;
  return KindOf(st);
}

bool SysLockRange(int fd, std::uint64_t offset, std::uint64_t length) {
  return LockRequest(fd, F_WRLCK, offset, length);
}

bool SysUnlockRange(int fd, std::uint64_t offset, std::uint64_t length) {
  return LockRequest(fd, F_UNLCK, offset, length);
}

bool SysRenameNoReplace(char const *from, char const *to) {
  if (!from || !to) {
    errno = EINVAL;
    return false;
  }
#if defined(RENAME_NOREPLACE)
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
    return true;
  if (errno != EINVAL && errno != ENOSYS)
    return false;
  // The file system cannot rename atomically without replacing: check first.
#endif
  struct stat st {};
  if (::lstat(to, &st) == 0) {
    errno = EEXIST;
    return false;
  }
  return ::rename(from, to) == 0;
}

int SysMkdir(char const *path) { return ::mkdir(path, 0777); }

int SysRmdir(char const *path) { return ::rmdir(path); }

int SysChdir(char const *path) { return ::chdir(path); }

char *SysGetCwd(char *buf, std::size_t size) { return ::getcwd(buf, size); }

bool SysCanCreateIn(char const *dir) {
  return dir && ::access(dir, W_OK | X_OK) == 0 && SysPathKind(dir) == PathKind::kDirectory;
}

bool SysIsNativeSeparator(char c) { return c == '/'; }

}  // namespace shared::platform
