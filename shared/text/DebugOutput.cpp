#include "text/DebugOutput.h"

#include "platform/Clock.h"
#include "platform/Compat.h"
#include "text/TextRoutines.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

constexpr unsigned kMaxPath = 260;
constexpr unsigned kMaxNotice = 513;
constexpr unsigned kConsoleLine = 513;

std::atomic<int> g_errorLevel{-1};
std::atomic<int> g_sink{kDebugSinkNone};
std::mutex g_sinkMutex;          // one notice line at a time into the sink
char g_debugFile[kMaxPath + 1];  // written under g_sinkMutex
char g_debugPath[kMaxPath + 1];  // written under g_sinkMutex

// "Sun Nov  2 19:01:11 2026": the C library's ctime form, without its newline
// and without depending on the program's locale.
bool ClassicTime(__int64 t, char *out, std::size_t size) {
  static char const *const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static char const *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm tm{};
  if (!shared::platform::LocalTime(t, &tm) || tm.tm_wday < 0 || tm.tm_wday > 6 || tm.tm_mon < 0 ||
      tm.tm_mon > 11)
    return false;
  _snprintf(out, size, "%.3s %.3s%3d %.2d:%.2d:%.2d %d", kDays[tm.tm_wday], kMonths[tm.tm_mon], tm.tm_mday,
            tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_year + 1900);
  return true;
}

void StoreName(char *dst, char const *src) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  if (comp_branco(src) || std::strlen(src) > kMaxPath)
    dst[0] = '\0';
  else
    ajusta_str(src, dst, static_cast<int>(kMaxPath));
}

void WriteNotice(char const *line) {
  int const sink = g_sink.load(std::memory_order_acquire);
  if (sink == kDebugSinkStderr) {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    std::fprintf(stderr, "%s\n", line);
    std::fflush(stderr);
  } else if (sink == kDebugSinkFile) {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    if (g_debugFile[0] == '\0')
      return;
    char path[2 * kMaxPath + 2] = {};
    std::size_t const n = std::strlen(g_debugPath);
    if (n == 0 || g_debugPath[n - 1] == '/')
      _snprintf(path, sizeof path, "%s%s", g_debugPath, g_debugFile);
    else
      _snprintf(path, sizeof path, "%s/%s", g_debugPath, g_debugFile);
    // Opened and closed per notice, as the logger does with its lines.
    if (std::FILE *f = std::fopen(path, "a+")) {
      std::fprintf(f, "%s\n", line);
      std::fclose(f);
    }
  }
}

}  // namespace

char *GetFormatDate(__int64 t, char *out, unsigned size, char const *fmt) {
  if (t == 0)
    t = shared::platform::NowSeconds();
  if (out && size != 0 && !comp_branco(fmt)) {
    out[0] = '\0';
    std::tm tm{};
    if (!shared::platform::LocalTime(t, &tm))
      return out;
    // The format is the caller's; strftime bounds the output.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::size_t const written = std::strftime(out, size, fmt, &tm);
#pragma GCC diagnostic pop
    if (written == 0)
      out[0] = '\0';
    return out;
  }
  thread_local char classic[64];
  if (!ClassicTime(t, classic, sizeof classic))
    classic[0] = '\0';
  if (out && size != 0)
    return CopyString(out, classic, size);
  return classic;
}

char *GetSysTime(char *out, unsigned size, char const *fmt) { return GetFormatDate(0, out, size, fmt); }

char *GetUptime(__int64 start, char *out, unsigned size, int msecs) {
  __int64 elapsed = 0;
  if (msecs) {
    // The tick count wraps every 49.7 days: subtract modulo 2^32 so a start
    // just before the wrap still reads as the few milliseconds it is. A
    // difference of 2^31 or more is taken as a start in the future.
    std::uint32_t const diff = shared::platform::TickCount() - static_cast<std::uint32_t>(start);
    elapsed = diff < 0x80000000u ? static_cast<__int64>(diff) : 0;
  } else {
    elapsed = shared::platform::NowSeconds() - start;
    if (elapsed < 0)
      elapsed = 0;
  }
  bool const none = (elapsed == 0);
  __int64 ms = 0;
  if (msecs) {
    ms = elapsed % 1000;
    elapsed /= 1000;
  }
  __int64 const days = elapsed / 86400;
  __int64 const hours = elapsed / 3600 - days * 24;
  __int64 const minutes = elapsed / 60 - (elapsed / 3600) * 60;
  __int64 const seconds = elapsed % 60;

  // The longest text, "106751991167300days 23hrs 59mins 59secs 999msecs",
  // is about 50 characters.
  thread_local char text[128];
  std::size_t used = 0;
  auto piece = [&](__int64 value, char const *one, char const *many) {
    int n = (value == 1) ? _snprintf(text + used, sizeof text - used, "%s", one)
                         : _snprintf(text + used, sizeof text - used, "%lld%s", value, many);
    if (n > 0)
      used += static_cast<std::size_t>(n);
  };
  text[0] = '\0';
  if (days)
    piece(days, "1day ", "days ");
  if (hours)
    piece(hours, "1hr ", "hrs ");
  if (minutes)
    piece(minutes, "1min ", "mins ");
  if (seconds || (!msecs && none))
    piece(seconds, "1sec ", "secs ");
  if (msecs && (ms || none))
    piece(ms, "1msec", "msecs");
  if (used > 0 && text[used - 1] == ' ')
    text[--used] = '\0';

  if (out && size != 0)
    return CopyString(out, text, size);
  return text;
}

void SetErrorLevel(int level) { g_errorLevel.store(level, std::memory_order_release); }

int GetErrorLevel(void) { return g_errorLevel.load(std::memory_order_acquire); }

void SetDebugFile(char const *name) { StoreName(g_debugFile, name); }

void SetDebugPath(char const *path) { StoreName(g_debugPath, path); }

char const *GetDebugFile(void) { return g_debugFile; }

char const *GetDebugPath(void) { return g_debugPath; }

void SetDebugSink(int sink) {
  if (sink < kDebugSinkNone || sink > kDebugSinkFile)
    sink = kDebugSinkNone;
  g_sink.store(sink, std::memory_order_release);
}

int GetDebugSink(void) { return g_sink.load(std::memory_order_acquire); }

void _DebugNotifyOnly(int level, char const *source, char const *fmt, ...) {
  if (level > GetErrorLevel() || !fmt)
    return;
  // Formatted even without a sink, so a bad format shows under sanitizers
  // whether or not anyone listens.
  char line[kMaxNotice + 1];
  int n = _snprintf(line, sizeof line, "%s: ", source ? source : "");
  std::size_t used = (n < 0) ? std::strlen(line) : static_cast<std::size_t>(n);
  va_list args;
  va_start(args, fmt);
  _vsnprintf(line + used, sizeof line - used, fmt, args);
  va_end(args);
  WriteNotice(line);
}

char *ConsoleReadLine(char *dst, unsigned size) {
  if (!dst || size == 0)
    return nullptr;
  char line[kConsoleLine] = {};
  if (!std::fgets(line, sizeof line, stdin))
    return nullptr;
  unsigned const n = size < kConsoleLine ? size : kConsoleLine;
  std::strncpy(dst, line, n);
  dst[n - 1] = '\0';
  return dst;
}

void ConsolePause(void) {
  std::fputs("\r\nPressione [Enter] para prosseguir...", stdout);
  std::fflush(stdout);
  char line[kConsoleLine];
  if (!std::fgets(line, sizeof line, stdin))
    return;
}
