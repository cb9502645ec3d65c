// The option plumbing of the example programs: help detection, numbers
// with their ranges, and texts with their fallbacks.
#include "ProgramArgs.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Argv {
  std::vector<std::string> words;
  std::vector<char *> ptrs;
  explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
    for (auto &s : words)
      ptrs.push_back(s.data());
  }
  int argc() const { return static_cast<int>(ptrs.size()); }
  char **argv() { return ptrs.data(); }
};

TEST(ProgramArgs, HelpIsFoundAnywhereButNotInsideValues) {
  Argv a({"prog", "-d", "3", "--help"});
  EXPECT_TRUE(examples::WantsHelp(a.argc(), a.argv()));
  Argv b({"prog", "-o", "-help.rec"});
  EXPECT_FALSE(examples::WantsHelp(b.argc(), b.argv()));
  Argv c({"prog", "-h"});
  EXPECT_TRUE(examples::WantsHelp(c.argc(), c.argv()));
}

TEST(ProgramArgs, NumbersOutsideTheirRangeOrMalformedAreRefused) {
  shared::XArgumentParser p;
  p.AddArgument('r', "kbps", "rate");
  p.AddArgument('l', "rate", "loss");
  p.AddArgument('d', "seconds", "duration");
  p.AddArgument('o', "file", "output");
  Argv a({"prog", "-r", "256", "-l", "0.7", "-d", "3x"});
  ASSERT_TRUE(p.Parse(a.argc(), a.argv()));
  bool ok = true;
  EXPECT_EQ(examples::OptionNumber(p, 'r', 512, 16, 1000, ok), 256);
  EXPECT_TRUE(ok);
  EXPECT_EQ(examples::OptionNumber(p, 'o', 9, 0, 10, ok), 9);  // absent: fallback, still ok
  EXPECT_TRUE(ok);
  EXPECT_EQ(examples::OptionNumber(p, 'l', 0, 0, 0.5, ok), 0);
  EXPECT_FALSE(ok);
  ok = true;
  EXPECT_EQ(examples::OptionNumber(p, 'd', 10, 1, 60, ok), 10);
  EXPECT_FALSE(ok);
  EXPECT_EQ(examples::OptionText(p, 'o', "default.rec"), "default.rec");
  Argv b({"prog", "-o", "x.rec"});
  ASSERT_TRUE(p.Parse(b.argc(), b.argv()));
  EXPECT_EQ(examples::OptionText(p, 'o', "default.rec"), "x.rec");
}

}  // namespace
