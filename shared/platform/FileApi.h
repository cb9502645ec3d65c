// FileApi.h: thin wrappers over the system's file and directory calls.
//
// The file primitives and the line reader never call the system themselves;
// they come here, so that another platform's implementation can sit beside
// the POSIX one (shared/platform/posix/FileApi.cpp). Each wrapper does one
// system call (EINTR is retried here, never by callers), leaves errno as the
// call set it, and reports failure with -1 / false. Descriptors are the
// platform's int descriptors; flags and modes are the platform's own values,
// passed through unchanged.
//
// Every function may be called from any thread; none keeps state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shared::platform {

// What a path names, without following it further than the system does.
enum class PathKind { kMissing, kFile, kDirectory, kOther };

// open(path, flags | close-on-exec, mode): the descriptor or -1.
int SysOpen(char const *path, int flags, int mode);
// Opens an existing file for reading without blocking on devices or FIFOs
// and without making it the controlling terminal: the descriptor or -1.
int SysOpenExistingForRead(char const *path);
// close(fd): 0 or -1. Not retried on EINTR: the descriptor is gone either way.
int SysClose(int fd);
// One read/write of at most n bytes (n is cut to what one call can report):
// the count transferred or -1.
std::int64_t SysRead(int fd, void *buf, std::size_t n);
std::int64_t SysWrite(int fd, void const *buf, std::size_t n);
// Moves the file position (origin is SEEK_SET/SEEK_CUR/SEEK_END): the new
// position or -1.
std::int64_t SysSeek(int fd, std::int64_t offset, int origin);
// Size in bytes of the open file: -1 on failure.
std::int64_t SysFileSize(int fd);
// Kind of the open file behind fd: kMissing when fd is not open.
PathKind SysFileKind(int fd);
// Kind of the object a path names: kMissing when it cannot be examined.
PathKind SysPathKind(char const *path);
// Takes an exclusive lock on [offset, offset + length) of the open file
// without waiting: true when taken. A lock held through another open of the
// same file conflicts, even inside this process. length must be non-zero.
bool SysLockRange(int fd, std::uint64_t offset, std::uint64_t length);
// Releases a lock taken by SysLockRange on the same range.
bool SysUnlockRange(int fd, std::uint64_t offset, std::uint64_t length);
// Renames from to to; fails (false, errno EEXIST) when to already exists.
bool SysRenameNoReplace(char const *from, char const *to);
// mkdir (with the widest mode the process's umask allows), rmdir, chdir: 0 or -1.
int SysMkdir(char const *path);
int SysRmdir(char const *path);
int SysChdir(char const *path);
// The working directory into buf: buf when it fitted with its NUL, else null.
char *SysGetCwd(char *buf, std::size_t size);
// True when the process may create entries in the directory dir.
bool SysCanCreateIn(char const *dir);
// True for the characters that separate directories in this platform's
// own paths (the ones the system itself understands).
bool SysIsNativeSeparator(char c);

}  // namespace shared::platform
