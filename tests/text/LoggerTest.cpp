#include "text/BaseLogger.h"
#include "text/DebugOutput.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using shared::platform::ManualClock;
using shared::platform::ScopedClockSource;

// Seconds since 1970 of a local date and time.
std::int64_t Local(int y, int mo, int d, int h, int mi, int s) {
  std::tm tm{};
  tm.tm_year = y - 1900, tm.tm_mon = mo - 1, tm.tm_mday = d;
  tm.tm_hour = h, tm.tm_min = mi, tm.tm_sec = s, tm.tm_isdst = -1;
  return static_cast<std::int64_t>(std::mktime(&tm));
}

std::vector<std::string> Lines(fs::path const &p) {
  std::vector<std::string> out;
  std::ifstream in(p);
  for (std::string line; std::getline(in, line);)
    out.push_back(line);
  return out;
}

class Files : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/sharedlib-logger-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    dir_ = tmpl;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string In(char const *name) const { return (dir_ / name).string(); }
  fs::path dir_;
};

TEST_F(Files, LoggerWritesExactCsvLinesAndReopensPerLine) {
  ManualClock clock(Local(2009, 3, 1, 12, 34, 56));
  ScopedClockSource use(clock);
  BaseLogger log(In("events").c_str(), ".csv", 0);
  log.Log("src", "a,b \"c\"");
  log.Log(nullptr, "x");
  log.Log("x", nullptr);
  log.Log("long", std::string(600, 'z').c_str());
  auto lines = Lines(In("events.csv"));
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("\"src\",\"2009-03-01\",\"12:34:56\",a,b \"c\"", lines[0]);
  EXPECT_EQ(513u, lines[1].size());  // cut, not overflowed

  // Nothing stays open: a file removed between lines is simply made again.
  fs::remove(In("events.csv"));
  log.Log("after", "removal");
  EXPECT_EQ(std::vector<std::string>{"\"after\",\"2009-03-01\",\"12:34:56\",removal"}, Lines(In("events.csv")));

  // A blank name keeps the logger off, whatever the suffix.
  BaseLogger blank("   ", ".csv", 1);
  blank.Log("s", "t");
  EXPECT_STREQ("", blank.GetFileName());  // not even a dated "-<date>.csv"
}

TEST_F(Files, DailyLoggerSwitchesFilesAtMidnight) {
  ManualClock clock(Local(2009, 3, 1, 23, 59, 59));
  ScopedClockSource use(clock);
  BaseLogger log(In("calls").c_str(), ".csv", 1);
  log.Log("a", "before");
  log.Log("a", "still before");
  clock.Advance(1000);
  log.Log("a", "after");
  EXPECT_EQ(In("calls-2009-03-02.csv"), log.GetFileName());
  EXPECT_EQ(2u, Lines(In("calls-2009-03-01.csv")).size());
  EXPECT_EQ(std::vector<std::string>{"\"a\",\"2009-03-02\",\"00:00:00\",after"}, Lines(In("calls-2009-03-02.csv")));
  EXPECT_FALSE(fs::exists(In("calls.csv")));  // the undated name is never used
}

TEST(TimeText, FormatDateAndUptime) {
  std::int64_t const t = Local(2009, 3, 1, 8, 5, 9);
  char out[64];
  EXPECT_STREQ("2009-03-01 08:05:09", GetFormatDate(t, out, sizeof out, "%Y-%m-%d %H:%M:%S"));
  EXPECT_STREQ("", GetFormatDate(t, out, 5, "%Y-%m-%d"));  // does not fit
  // A blank format gives the classic form without its newline.
  std::time_t tt = static_cast<std::time_t>(t);
  char classic[64];
  ASSERT_NE(nullptr, ctime_r(&tt, classic));
  classic[std::strlen(classic) - 1] = '\0';
  EXPECT_STREQ(classic, GetFormatDate(t, out, sizeof out - 1, ""));
  EXPECT_STREQ(classic, GetFormatDate(t, nullptr, 0, "%Y"));

  ManualClock clock(t, 5000000);
  ScopedClockSource use(clock);
  EXPECT_STREQ("08:05:09", GetSysTime(out, sizeof out, "%H:%M:%S"));  // now, from the clock
  EXPECT_STREQ("1day 1hr 1min 1sec", GetUptime(t - 90061, out, sizeof out - 1, 0));
  EXPECT_STREQ("2hrs 2mins 2secs", GetUptime(t - 7322, out, sizeof out - 1, 0));
  EXPECT_STREQ("3days 1hr", GetUptime(t - 3 * 86400 - 3600, out, sizeof out - 1, 0));
  EXPECT_STREQ("0secs", GetUptime(t, out, sizeof out - 1, 0));
  EXPECT_STREQ("0secs", GetUptime(t + 10, nullptr, 0, 0));  // future start: nothing elapsed
  EXPECT_STREQ("1min 1sec 1msec", GetUptime(5000000 - 61001, out, sizeof out - 1, 1));
  EXPECT_STREQ("1sec", GetUptime(5000000 - 1000, out, sizeof out - 1, 1));
  EXPECT_STREQ("0msecs", GetUptime(5000000, nullptr, 0, 1));
  EXPECT_STREQ("1da", GetUptime(t - 90061, out, 3, 0));

  clock.SetTick(0x100);  // the tick count wrapped since the start
  EXPECT_STREQ("512msecs", GetUptime(0xFFFFFF00, out, sizeof out - 1, 1));
  EXPECT_STREQ("0msecs", GetUptime(0x200, out, sizeof out - 1, 1));  // a start in the future
}

TEST_F(Files, NoticesReachTheFileSinkOnlyWhenEnabled) {
  SetDebugFile(std::string(261, 'f').c_str());  // too long: cleared
  EXPECT_STREQ("", GetDebugFile());
  SetDebugPath(dir_.c_str());
  SetDebugFile("notices.log  ");
  EXPECT_STREQ("notices.log", GetDebugFile());
  fs::path const file = dir_ / "notices.log";

  _DebugNotifyOnly(0, "src", "off %d", 1);  // initial level -1: skipped
  SetErrorLevel(2);
  _DebugNotifyOnly(0, "src", "no sink %d", 2);  // initial sink: dropped
  EXPECT_FALSE(fs::exists(file));

  SetDebugSink(kDebugSinkFile);
  _DebugNotifyOnly(2, "src", "value %d of %s", 42, "x");
  _DebugNotifyOnly(3, "src", "too detailed");
  _DebugNotifyOnly(0, nullptr, "%s", std::string(600, 'q').c_str());
  SetDebugSink(kDebugSinkNone);
  SetErrorLevel(-1);
  SetDebugFile(nullptr);
  SetDebugPath(nullptr);

  auto lines = Lines(file);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("src: value 42 of x", lines[0]);
  EXPECT_EQ(513u, lines[1].size());
}

TEST_F(Files, ConsoleReadsLinesAndPauses) {
  std::ofstream(In("stdin.txt")) << "hello\nworld\nenter\n";
  ASSERT_NE(nullptr, std::freopen(In("stdin.txt").c_str(), "r", stdin));
  char dst[32];
  EXPECT_STREQ("hel", ConsoleReadLine(dst, 4));  // min(size, 513) bytes, the last one NUL
  EXPECT_EQ(nullptr, ConsoleReadLine(nullptr, 4));
  EXPECT_STREQ("world\n", ConsoleReadLine(dst, sizeof dst));
  testing::internal::CaptureStdout();
  ConsolePause();
  EXPECT_EQ("\r\nPressione [Enter] para prosseguir...", testing::internal::GetCapturedStdout());
  EXPECT_EQ(nullptr, ConsoleReadLine(dst, sizeof dst));  // the pause took "enter"
}

}  // namespace
