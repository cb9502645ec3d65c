#include "NetnsSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

namespace nstest {
namespace {

std::string const kPrefix = "slu";

std::string RunPrefix() { return kPrefix + std::to_string(::getpid()); }

// Deletes namespaces left by runs whose process no longer exists.
void SweepStale() {
  std::error_code ec;
  for (auto const &e : std::filesystem::directory_iterator("/var/run/netns", ec)) {
    std::string n = e.path().filename().string();
    if (n.rfind(kPrefix, 0) != 0)
      continue;
    std::size_t end = kPrefix.size();
    while (end < n.size() && n[end] >= '0' && n[end] <= '9')
      ++end;
    if (end == kPrefix.size())
      continue;
    long pid = std::strtol(n.substr(kPrefix.size(), end - kPrefix.size()).c_str(), nullptr, 10);
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
      Run("ip netns del " + n);
  }
}

}  // namespace

bool InCi() {
  char const *ci = std::getenv("CI");
  return ci != nullptr && std::strcmp(ci, "true") == 0;
}

std::string NetnsPrerequisite() {
  if (::geteuid() != 0)
    return "needs root to create network namespaces";
  if (Run("ip netns list") != 0)
    return "the ip tool (iproute2) is missing";
  static std::once_flag swept;
  std::call_once(swept, SweepStale);
  return "";
}

int Run(std::string const &cmd, std::string *out) {
  FILE *p = ::popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr)
    return -1;
  char buf[512];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), p)) > 0)
    if (out)
      out->append(buf, n);
  int st = ::pclose(p);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool RunOk(std::string const &cmd) {
  std::string out;
  int st = Run(cmd, &out);
  EXPECT_EQ(0, st) << cmd << "\n" << out;
  return st == 0;
}

Netns::Netns(std::string const &tag) : name_(RunPrefix() + tag) {
  ok_ = RunOk("ip netns add " + name_) && RunOk(ip() + "link set lo up");
}

Netns::~Netns() { Run("ip netns del " + name_); }

std::string Netns::Ifname(std::string const &tag) {
  std::string n = RunPrefix() + tag;
  EXPECT_LE(n.size(), 15u) << "interface name too long: " << n;
  return n;
}

bool Netns::RunIn(std::function<void()> const &fn) const {
  bool entered = false;
  std::thread t([&] {
    int fd = ::open(("/var/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
      return;
    entered = ::setns(fd, CLONE_NEWNET) == 0;
    ::close(fd);
    if (entered)
      fn();
  });
  t.join();
  EXPECT_TRUE(entered) << "could not enter namespace " << name_;
  return entered;
}

}  // namespace nstest
