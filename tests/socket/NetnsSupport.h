// Network namespaces for tests that need interfaces or a gateway of their
// own. Every namespace is named "slu<pid><tag>" (unique to the test run) and
// deleted by its destructor, which also removes the veths inside it; names of
// runs that died before deleting theirs are swept when the next run starts.
// Nothing is created in the machine's own namespace.
//
// Creating namespaces needs root. Tests call NetnsPrerequisite() first: with
// a reason returned they skip, or fail when CI=true.
#pragma once

#include <functional>
#include <string>

namespace nstest {

// Empty when namespaces can be made here; otherwise why not.
std::string NetnsPrerequisite();
bool InCi();

// Runs a command through the shell; its exit status (-1 when it could not
// run). Output goes to *out when given.
int Run(std::string const &cmd, std::string *out = nullptr);
// Run, and a gtest failure showing the output when the status is not 0.
bool RunOk(std::string const &cmd);

class Netns {
public:
  explicit Netns(std::string const &tag);
  ~Netns();
  Netns(Netns const &) = delete;
  Netns &operator=(Netns const &) = delete;

  bool ok() const { return ok_; }
  std::string const &name() const { return name_; }
  // "ip -n <name> " for commands run in the namespace.
  std::string ip() const { return "ip -n " + name_ + " "; }
  // Interface names made from the same prefix, at most 15 characters.
  static std::string Ifname(std::string const &tag);
  // Runs fn on a thread of its own that entered this namespace first; the
  // calling thread never changes namespace. False when entering failed.
  bool RunIn(std::function<void()> const &fn) const;

private:
  std::string name_;
  bool ok_ = false;
};

}  // namespace nstest

// Skips (or fails in CI) the current test when namespaces cannot be made.
#define NSTEST_REQUIRE_NETNS()                                          \
  do {                                                                  \
    std::string const nstestWhy = nstest::NetnsPrerequisite();          \
    if (!nstestWhy.empty()) {                                           \
      if (nstest::InCi())                                               \
        FAIL() << nstestWhy << " (required in CI)";                     \
      GTEST_SKIP() << nstestWhy;                                        \
    }                                                                   \
  } while (0)
