// Parsers and a shared keyword index used from two threads at once: nothing
// may be shared behind the caller's back (TSan runs this).
#include "expr/XArgument.h"
#include "text/HashT.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

TEST(ConcurrentParse, TwoArgumentParsersAndOneSharedIndex) {
  Hash_cmd const commands(srvcmd_vet);
  auto work = [&commands](char letter, std::string value, unsigned *mismatches) {
    std::string const option = std::string("-") + letter;
    for (int round = 0; round < 2000; ++round) {
      shared::XArgumentParser parser;
      parser.AddArgument(letter, true);
      std::vector<std::string> words = {"prog", option, value + std::to_string(round)};
      std::vector<char *> argv;
      for (auto &w : words)
        argv.push_back(w.data());
      argv.push_back(nullptr);
      parser.Parse(static_cast<int>(words.size()), argv.data());
      if (words[2] != parser.GetArgument(letter)->GetValue())
        ++*mismatches;
      if (commands.search(letter == 'a' ? "privmsg" : "Whois") != (letter == 'a' ? 1049u : 1115u))
        ++*mismatches;
    }
  };
  unsigned mismatchesA = 0;
  unsigned mismatchesB = 0;
  std::thread a(work, 'a', "left", &mismatchesA);
  std::thread b(work, 'b', "right", &mismatchesB);
  a.join();
  b.join();
  EXPECT_EQ(mismatchesA, 0u);
  EXPECT_EQ(mismatchesB, 0u);
}

}  // namespace
