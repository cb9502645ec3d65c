// FilePrimitives.h: the file and directory layer the library and its programs
// use, and the path routines that work on fixed buffers.
//
// Two tiers over descriptors (int, -1 = none):
//   - the _x routines wrap one system call each and turn the descriptor -1
//     (or a null path) into an immediate failure;
//   - the _ap routines are what the library calls; they forward to the _x
//     ones, read_ap adding a message on a failed read.
// Flags and modes are this platform's own open flags (O_RDONLY, O_CREAT...),
// passed through unchanged. Descriptors are opened close-on-exec.
//
// Failures are reported by result values only; the one printed message is
// read_ap's. No routine keeps state; any thread may call them, and none
// changes the process's working directory except chdir_x/chdir_ap.
#pragma once

#include "platform/Export.h"
#include "platform/Types.h"

SHAREDLIB_BEGIN_C

// --- Descriptor tier --------------------------------------------------------

// Opens path with flags; pmode 0 means 0600 (read and write for the owner).
// state is a caller work area this layer does not touch. The descriptor or -1.
SHAREDLIB_API int open_x(char const *path, void *state, int flags, int pmode);
// 0 when closed, -1 for fd -1 or a failed close.
SHAREDLIB_API int close_x(int fd);
// One read/write of at most n bytes: the count or -1 (n above INT_MAX is cut).
SHAREDLIB_API int read_x(int fd, void *buf, unsigned n);
SHAREDLIB_API int write_x(int fd, void const *buf, unsigned n);
// As read_x/write_x with a long count: the count or -1 (also for n < 0).
SHAREDLIB_API long hread_x(int fd, void *buf, long n);
SHAREDLIB_API long hwrite_x(int fd, void const *buf, long n);
// Takes an exclusive lock on the byte range (offHigh:offLow, lenHigh:lenLow)
// without waiting: 1 when taken, 0 for fd -1, a zero length, a range held
// elsewhere (also by another open of the file in this process) or a
// descriptor not open for writing. The lock lasts until unlock_x or close.
SHAREDLIB_API int lock_x(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh);
// Releases a range taken by lock_x: 1 on success, 0 otherwise.
SHAREDLIB_API int unlock_x(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh);
// Moves the position (origin SEEK_SET, SEEK_CUR or SEEK_END) with 64-bit
// offsets: the new position or -1. state is not touched.
SHAREDLIB_API __int64 seek_x(void *state, int fd, __int64 offset, int origin);
// The current position or -1.
SHAREDLIB_API __int64 tell_x(void *state, int fd);
// 0 on success, -1 for a null path or a failure.
SHAREDLIB_API int mkdir_x(char const *path);
SHAREDLIB_API int rmdir_x(char const *path);
SHAREDLIB_API int chdir_x(char const *path);
// The working directory into buf: buf when it fitted (length < size), else
// null; null for a null buf or size 0.
SHAREDLIB_API char *getcwd_x(char *buf, unsigned size);

// --- Library tier -----------------------------------------------------------

// open_x, supplying a local work area when state is null.
SHAREDLIB_API int open_ap(char const *path, void *state, int flags, int pmode);
// 0 on success, -1 on any failure. state is not touched.
SHAREDLIB_API int close_ap(int fd, void *state);
// read_x; on -1 prints "erro na leirura do arquivo" with perror and returns -1.
SHAREDLIB_API int read_ap(int fd, void *buf, unsigned n);
SHAREDLIB_API int write_ap(int fd, void const *buf, unsigned n);
SHAREDLIB_API long hread_ap(int fd, void *buf, long n);
SHAREDLIB_API long hwrite_ap(int fd, void const *buf, long n);
SHAREDLIB_API int lock_ap(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh);
SHAREDLIB_API int unlock_ap(int fd, unsigned offLow, unsigned offHigh, unsigned lenLow, unsigned lenHigh);
SHAREDLIB_API __int64 seek_ap(void *state, int fd, __int64 offset, int origin);
SHAREDLIB_API __int64 tell_ap(void *state, int fd);

// --- Files and directories --------------------------------------------------

// 1 when path names an existing file (not a directory) this process can open
// for reading; 0 for a blank path, a missing or unreadable file.
SHAREDLIB_API int FileExist(char const *path);
// The size of such a file in bytes, cut to its low 32 bits (a file of
// 4 GiB + 5 bytes gives 5); 0 on failure or for a blank path.
SHAREDLIB_API unsigned GetFileLength(char const *path);
// The full 64-bit size of such a file; -1 on failure or for a blank path.
SHAREDLIB_API __int64 GetFileLength64(char const *path);
// Renames from to to: 1 on success; 0 when either is blank, when to already
// exists (it is never replaced) or the system refuses.
SHAREDLIB_API int RenameFile(char const *from, char const *to);
// 1 when dir names an existing directory. The working directory is left alone.
SHAREDLIB_API int DirectoryExist(char const *dir);
// Same test as DirectoryExist, under the name the configuration code uses.
SHAREDLIB_API int ExisteDir(char const *dir);
// Creates dir and every missing directory above it: 1 when dir is a
// directory afterwards (also when it already was), else 0. Only this
// platform's own separators divide the path ('/' here).
SHAREDLIB_API int CriaDir(char const *dir);
// 1 when CriaDir(dir) could succeed: dir is already a directory, or its
// nearest existing ancestor is a directory in which this process may create
// entries. Creates nothing.
SHAREDLIB_API int PodeCriarDir(char const *dir);

// --- Paths ------------------------------------------------------------------
// Separators are '\\', '/' and ':'. Outputs are the caller's buffers and must
// be large enough for the result (at most the input's length plus what each
// routine adds).

// Splits at the last separator: dir gets everything up to and including it
// ("" without one), name everything after it. Either output may be null; dir
// may be path itself.
SHAREDLIB_API void sep_path(char const *path, char *dir, char *name);
// Splits at the last '.' found after the first character: ext gets at most 4
// characters from the dot (the dot included; it holds 5 bytes), base the part
// before the dot. Without such a dot ext is "" and base the whole path. A null
// or empty path leaves both "". Either output may be null; base may be path.
SHAREDLIB_API void sep_extensao(char *path, char *base, char *ext);
// The file name after the last separator, cut at its first '.', space or end
// and to at most n characters; out holds n + 1 bytes and is NUL-filled past
// the name (out[n] is always NUL).
SHAREDLIB_API void sep_reduz(char const *path, char *out, unsigned n);
// Copies path to out (unless they are the same), ignoring trailing spaces,
// and replaces everything after the last separator by name. Returns out.
SHAREDLIB_API char *change_filename(char const *path, char *out, char const *name);
// Copies dir to out and appends '/' unless dir is blank or already ends in
// '/', ':' or '\\'. out may be dir. Returns the new length.
SHAREDLIB_API int add_dirsufix(char const *dir, char *out);

SHAREDLIB_END_C
