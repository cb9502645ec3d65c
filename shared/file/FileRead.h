// FileRead.h: a whole file loaded once and handed out line by line.
//
// The constructor reads the file into memory and closes it; the readers never
// touch the file again, so it may be replaced or removed while it is parsed.
// Line ends are CR, LF and CR LF; the DOS end-of-file byte 0x1A ends a line
// too, and when a read starts on it nothing more is read. Each line end also
// takes one LF right after it, so LF LF and 0x1A LF end one line, not two.
//
// Copies share the loaded bytes (they are never written after loading); each
// copy has its own position and caches, and either may be destroyed first.
// One object is meant for one thread at a time; distinct copies may be used
// from different threads.
#pragma once

#include "platform/Export.h"

#include <memory>

class SHAREDLIB_API FileRead {
public:
  // Loads path, opened with flags (this platform's open flags, passed through
  // unchanged; the caller includes read access). A null path, a missing,
  // unreadable or not regular file, or a short read leaves the object not ok.
  FileRead(char const *path, unsigned flags);
  ~FileRead();
  FileRead(FileRead const &) = default;
  FileRead &operator=(FileRead const &) = default;

  // The next line without its end into dst. Result: 0 at the end of the data
  // (or when not ok); count + 1 when the line fitted (dst NUL-terminated, an
  // empty line gives 1); size when it filled dst, whose last byte is then
  // replaced by NUL. Longer lines are consumed whole. With size 0 nothing is
  // written and 0 is returned while the line is still consumed.
  unsigned read_line(char *dst, unsigned size);
  // Raw bytes up to the next CR or 0x1A (LF is an ordinary byte here): at
  // most size are kept, none is NUL-terminated, the CR is not stepped over.
  // Returns the number kept; at a CR that is 0 and the position stays, so the
  // caller moves on with seek(tell() + 1).
  unsigned read_line2(char *dst, unsigned size);
  // position = pos, or the size when pos >= size; returns the new position.
  // A negative position is kept, and reads from it return 0.
  long seek(long pos);
  long tell();
  // Bytes loaded.
  long GetFileSize();
  // Bytes that are neither CR nor 0x1A (every LF counts); computed once.
  long GetRealSize();
  // Number of LF bytes, i.e. of lines ended by LF or CR LF; computed once.
  long CountCr();
  // Non-zero when the whole file was read; every read returns 0 while zero.
  int IsOk() const { return ok_; }

private:
  // Reading state at position_: -1 when nothing can be read there, else 0.
  int Start();

  std::shared_ptr<unsigned char const> buffer_;  // null for an empty or unread file
  int position_ = 0;
  int size_ = 0;
  int realSize_ = -1;
  int lineCount_ = -1;
  int ok_ = 0;
};
