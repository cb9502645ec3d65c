#include "file/FilePrimitives.h"

#include "platform/FileApi.h"
#include "text/TextRoutines.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace sp = shared::platform;

namespace {

constexpr int kDefaultMode = 0600;

bool IsPathSeparator(char c) { return c == '\\' || c == '/' || c == ':'; }

// Index of the last separator in s[0, len), or -1.
long LastSeparator(char const *s, std::size_t len) {
  for (std::size_t i = len; i > 0; --i)
    if (IsPathSeparator(s[i - 1]))
      return static_cast<long>(i - 1);
  return -1;
}

std::uint64_t Join(unsigned high, unsigned low) {
  return (static_cast<std::uint64_t>(high) << 32) | low;
}

// Opens an existing regular file for reading, as FileExist tests it: the
// descriptor or -1 (directories and unreadable files count as missing).
int OpenExisting(char const *path) {
  if (comp_branco(path))
    return -1;
  int fd = sp::SysOpenExistingForRead(path);
  if (fd < 0)
    return -1;
  if (sp::SysFileKind(fd) == sp::PathKind::kDirectory) {
    sp::SysClose(fd);
    return -1;
  }
  return fd;
}

long Transfer(int fd, void *buf, std::size_t n, bool write) {
  if (fd == -1 || (n > 0 && !buf))
    return -1;
  std::int64_t r = write ? sp::SysWrite(fd, buf, n) : sp::SysRead(fd, buf, n);
  return static_cast<long>(r);
}

std::size_t ClampCount(unsigned n) { return n > INT_MAX ? INT_MAX : n; }

}  // namespace

SHAREDLIB_BEGIN_C

// --- Descriptor tier --------------------------------------------------------

int open_x(char const *path, void * /*state*/, int flags, int pmode) {
  if (!path)
    return -1;
  return sp::SysOpen(path, flags, pmode == 0 ? kDefaultMode : pmode);
}

int close_x(int fd) {
  if (fd == -1)
    return -1;
  return sp::SysClose(fd) == 0 ? 0 : -1;
}

int read_x(int fd, void *buf, unsigned n) {
  return static_cast<int>(Transfer(fd, buf, ClampCount(n), false));
}

int write_x(int fd, void const *buf, unsigned n) {
  return static_cast<int>(Transfer(fd, const_cast<void *>(buf), ClampCount(n), true));
}

long hread_x(int fd, void *buf, long n) {
  if (n < 0)
    return -1;
  return Transfer(fd, buf, static_cast<std::size_t>(n), false);
}

long hwrite_x(int fd, void const *buf, long n) {
  if (n < 0)
    return -1;
  return Transfer(fd, const_cast<void *>(buf), static_cast<std::size_t>(n), true);
}

int lock_x(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh) {
  if (fd == -1)
    return 0;
  return sp::SysLockRange(fd, Join(offHigh, offLow), Join(lenHigh, lenLow)) ? 1 : 0;
}

int unlock_x(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh) {
  if (fd == -1)
    return 0;
  return sp::SysUnlockRange(fd, Join(offHigh, offLow), Join(lenHigh, lenLow)) ? 1 : 0;
}

__int64 seek_x(void * /*state*/, int fd, __int64 offset, int origin) {
  if (fd == -1)
    return -1;
  return sp::SysSeek(fd, offset, origin);
}

__int64 tell_x(void *state, int fd) { return seek_x(state, fd, 0, SEEK_CUR); }

int mkdir_x(char const *path) { return path && sp::SysMkdir(path) == 0 ? 0 : -1; }

int rmdir_x(char const *path) { return path && sp::SysRmdir(path) == 0 ? 0 : -1; }

int chdir_x(char const *path) { return path && sp::SysChdir(path) == 0 ? 0 : -1; }

char *getcwd_x(char *buf, unsigned size) {
  if (!buf || size == 0)
    return nullptr;
  return sp::SysGetCwd(buf, size);
}

// --- Library tier -----------------------------------------------------------

int open_ap(char const *path, void *state, int flags, int pmode) {
  int local = 0;
  return open_x(path, state ? state : &local, flags, pmode);
}

int close_ap(int fd, void * /*state*/) { return close_x(fd) == 0 ? 0 : -1; }

int read_ap(int fd, void *buf, unsigned n) {
  int r = read_x(fd, buf, n);
  if (r == -1) {
    std::perror("erro na leirura do arquivo");
    return -1;
  }
  return r;
}

int write_ap(int fd, void const *buf, unsigned n) { return write_x(fd, buf, n); }

long hread_ap(int fd, void *buf, long n) { return hread_x(fd, buf, n); }

long hwrite_ap(int fd, void const *buf, long n) { return hwrite_x(fd, buf, n); }

int lock_ap(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh) {
  return lock_x(fd, offLow, offHigh, lenLow, lenHigh);
}

int unlock_ap(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh) {
  return unlock_x(fd, offLow, offHigh, lenLow, lenHigh);
}

__int64 seek_ap(void *state, int fd, __int64 offset, int origin) {
  return seek_x(state, fd, offset, origin);
}

__int64 tell_ap(void *state, int fd) { return tell_x(state, fd); }

// --- Files and directories --------------------------------------------------

int FileExist(char const *path) {
  int fd = OpenExisting(path);
  if (fd < 0)
    return 0;
  sp::SysClose(fd);
  return 1;
}

__int64 GetFileLength64(char const *path) {
  int fd = OpenExisting(path);
  if (fd < 0)
    return -1;
  std::int64_t size = sp::SysFileSize(fd);
  sp::SysClose(fd);
  return size;
}

unsigned GetFileLength(char const *path) {
  __int64 size = GetFileLength64(path);
  return size < 0 ? 0u : static_cast<unsigned>(static_cast<std::uint64_t>(size) & 0xFFFFFFFFu);
}

int RenameFile(char const *from, char const *to) {
  if (comp_branco(from) || comp_branco(to))
    return 0;
  return sp::SysRenameNoReplace(from, to) ? 1 : 0;
}

// A direct test: changing into the directory and back, as a chdir-based
// probe would, races with every other thread that uses relative paths.
int DirectoryExist(char const *dir) {
  if (comp_branco(dir))
    return 0;
  return sp::SysPathKind(dir) == sp::PathKind::kDirectory ? 1 : 0;
}

int ExisteDir(char const *dir) { return DirectoryExist(dir); }

int CriaDir(char const *dir) {
  if (comp_branco(dir))
    return 0;
  if (DirectoryExist(dir))
    return 1;
  std::string path(dir);
  char *prefix = path.data();
  std::size_t len = path.size();
  // Each ancestor in turn; failures are left to the final test (an ancestor
  // may exist already or be made by someone else meanwhile).
  for (std::size_t i = 1; i < len; ++i) {
    if (!sp::SysIsNativeSeparator(prefix[i]) || sp::SysIsNativeSeparator(prefix[i - 1]))
      continue;
    prefix[i] = '\0';
    if (!DirectoryExist(prefix))
      mkdir_x(prefix);
    prefix[i] = dir[i];
  }
  if (!DirectoryExist(prefix))
    mkdir_x(prefix);
  return DirectoryExist(prefix);
}

int PodeCriarDir(char const *dir) {
  if (comp_branco(dir))
    return 0;
  std::string copy(dir);
  char *path = copy.data();
  std::size_t len = copy.size();
  int result = 0;
  for (bool first = true;; first = false) {
    while (len > 1 && sp::SysIsNativeSeparator(path[len - 1]))
      path[--len] = '\0';
    sp::PathKind kind = sp::SysPathKind(path);
    if (kind == sp::PathKind::kDirectory) {
      // The directory itself exists (first pass), or it is the nearest
      // existing ancestor, which must accept new entries.
      result = (first || sp::SysCanCreateIn(path)) ? 1 : 0;
      break;
    }
    if (kind != sp::PathKind::kMissing)
      break;  // a file or device is in the way
    while (len > 0 && !sp::SysIsNativeSeparator(path[len - 1]))
      --len;
    if (len == 0) {
      result = sp::SysCanCreateIn(".") ? 1 : 0;  // a relative name
      break;
    }
    path[len] = '\0';
  }
  return result;
}

// --- Paths ------------------------------------------------------------------

void sep_path(char const *path, char *dir, char *name) {
  if (!path || !*path) {
    if (dir)
      dir[0] = '\0';
    if (name)
      name[0] = '\0';
    return;
  }
  std::size_t len = std::strlen(path);
  std::size_t cut = static_cast<std::size_t>(LastSeparator(path, len) + 1);
  // When dir is path itself, name must be taken before dir is cut; otherwise
  // dir goes first so that name may overlay path.
  auto copyName = [&] {
    if (name) {
      std::memmove(name, path + cut, len - cut);
      name[len - cut] = '\0';
    }
  };
  auto copyDir = [&] {
    if (dir) {
      std::memmove(dir, path, cut);
      dir[cut] = '\0';
    }
  };
  if (dir == path) {
    copyName();
    copyDir();
  } else {
    copyDir();
    copyName();
  }
}

void sep_extensao(char *path, char *base, char *ext) {
  std::size_t len = path ? std::strlen(path) : 0;
  std::size_t dot = 0;
  for (std::size_t i = len; i > 1; --i) {
    if (path[i - 1] == '.') {
      dot = i - 1;
      break;
    }
  }
  if (dot == 0) {
    if (ext)
      ext[0] = '\0';
    if (base && len > 0)
      std::memmove(base, path, len + 1);
    else if (base)
      base[0] = '\0';
    return;
  }
  // ext first: base may be path itself.
  if (ext) {
    std::size_t n = len - dot < 4 ? len - dot : 4;
    std::memmove(ext, path + dot, n);
    ext[n] = '\0';
  }
  if (base) {
    std::memmove(base, path, dot);
    base[dot] = '\0';
  }
}

void sep_reduz(char const *path, char *out, unsigned n) {
  if (!out)
    return;
  std::memset(out, 0, static_cast<std::size_t>(n) + 1);
  if (!path)
    return;
  std::size_t len = std::strlen(path);
  char const *name = path + (LastSeparator(path, len) + 1);
  for (unsigned i = 0; i < n && name[i] && name[i] != '.' && name[i] != ' '; ++i)
    out[i] = name[i];
}

char *change_filename(char const *path, char *out, char const *name) {
  if (!out)
    return out;
  if (!path) {
    out[0] = '\0';
    path = out;
  }
  std::size_t len = std::strlen(path);
  while (len > 0 && path[len - 1] == ' ')
    --len;
  std::size_t cut = static_cast<std::size_t>(LastSeparator(path, len) + 1);
  if (out != path)
    std::memmove(out, path, cut);
  std::size_t nameLen = name ? std::strlen(name) : 0;
  if (nameLen > 0)
    std::memmove(out + cut, name, nameLen);
  out[cut + nameLen] = '\0';
  return out;
}

int add_dirsufix(char const *dir, char *out) {
  if (!out)
    return 0;
  std::size_t len = dir ? std::strlen(dir) : 0;
  if (dir != out)
    std::memmove(out, dir ? dir : "", len + 1);
  if (!comp_branco(out) && !IsPathSeparator(out[len - 1])) {
    out[len++] = '/';
    out[len] = '\0';
  }
  return static_cast<int>(len);
}

SHAREDLIB_END_C
