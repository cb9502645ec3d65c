#include "text/BaseLogger.h"

#include "platform/Compat.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"

#include <cstdio>
#include <cstring>

namespace {

// Appends src to the NUL-terminated dst, which holds cap characters at most.
void AppendCut(char *dst, char const *src, std::size_t cap) {
  std::size_t const used = std::strlen(dst);
  if (used >= cap)
    return;
  std::size_t n = std::strlen(src);
  if (n > cap - used)
    n = cap - used;
  std::memcpy(dst + used, src, n);
  dst[used + n] = '\0';
}

}  // namespace

BaseLogger::BaseLogger(char const *name, char const *suffix, int daily)
    : daily_(daily), baseName_{}, suffix_{}, fileName_{}, currentDate_{} {
  if (!comp_branco(name)) {
    CopyString(baseName_, name, kMaxPath);
    CopyString(fileName_, name, kMaxPath);
  }
  if (!comp_branco(suffix)) {
    CopyString(suffix_, suffix, kMaxPath);
    // Without a name the logger stays off: a bare suffix is no file name.
    if (fileName_[0] != '\0')
      AppendCut(fileName_, suffix_, kMaxPath);
  }
}

void BaseLogger::Log(char const *source, char const *text) {
  // "2009-03-01","12:34:56" is 25 characters.
  char stamp[30] = {};
  GetSysTime(stamp, sizeof stamp, "\"%Y-%m-%d\",\"%H:%M:%S\"");
  // Just after the first quote: the date's ten characters come first.
  if (!VerifyFileName(stamp + 1) || !source || !text)
    return;
  char line[kMaxLine + 1];
  _snprintf(line, sizeof line, "\"%s\",%s,%s", source, stamp, text);
  line[kMaxLine] = '\0';
  WriteLine(line);
}

int BaseLogger::VerifyFileName(char const *date) {
  if (fileName_[0] == '\0')
    return 0;
  if (!daily_)
    return 1;
  // A date that could not be formatted gives no file to write to.
  if (!date || std::strlen(date) < 10)
    return 0;
  if (std::strncmp(date, currentDate_, 10) == 0)
    return 1;
  CopyString(currentDate_, date, 10);
  CopyString(fileName_, baseName_, kMaxPath);
  AppendCut(fileName_, "-", kMaxPath);
  AppendCut(fileName_, currentDate_, kMaxPath);
  AppendCut(fileName_, suffix_, kMaxPath);
  return 1;
}

void BaseLogger::WriteLine(char const *line) {
  if (comp_branco(line))
    return;
  std::FILE *f = std::fopen(fileName_, "a+");
  if (!f)
    return;
  std::fputs(line, f);
  std::fputs("\n", f);
  std::fclose(f);
}
