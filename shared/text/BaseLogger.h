// BaseLogger.h: an append-only event log of comma-separated lines.
//
// Each Log() writes one line
//     "source","2009-03-01","12:34:56",text
// (source, date and time each in double quotes, the caller's text as given,
// the whole cut at 513 characters) to the log file, which is opened, appended
// to and closed again for every line: nothing stays open between calls, so
// other processes may read, move or delete the file at any time. A daily
// logger puts the date into the file name ("calls" + ".csv" writes
// calls-2009-03-01.csv) and switches files on the first line of a new day.
// Dates and times come from the clock seam (platform/Clock.h), in local time.
//
// A BaseLogger is a fixed-size value with no heap memory: copying copies all
// of it. Nothing is reported: a line that cannot be written is lost.
//
// Threads: several threads may Log through one logger; whole lines may then
// interleave. The date switch of a daily logger is not locked: give each
// thread its own logger, or log from one thread, when the file name of every
// line around midnight matters.
#pragma once

#include "platform/Export.h"

class SHAREDLIB_API BaseLogger {
public:
  static constexpr unsigned kMaxPath = 260;
  static constexpr unsigned kMaxLine = 513;

  // A blank name gives a logger that writes nothing. name and suffix are cut
  // to 260 characters; daily non-zero puts "-<date>" between them.
  BaseLogger(char const *name, char const *suffix, int daily);

  // Writes one line; null source or text writes nothing.
  void Log(char const *source, char const *text);

  // The file the next line goes to ("" when the logger is off). For a daily
  // logger it carries the date of the last line written.
  char const *GetFileName() const { return fileName_; }

private:
  int VerifyFileName(char const *date);
  void WriteLine(char const *line);

  int daily_;
  char baseName_[kMaxPath + 1];
  char suffix_[kMaxPath + 1];
  char fileName_[kMaxPath + 1];
  char currentDate_[11];
};
