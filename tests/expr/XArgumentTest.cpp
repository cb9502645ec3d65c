// XArgumentParser: values attached and detached, grouping, the end of the
// options, ignored letters, copies, and agreement with the C library's
// getopt where the two follow the same rules.
#include "expr/XArgument.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace {

using shared::XArgument;
using shared::XArgumentParser;

// argv storage for one command line.
class Argv {
public:
  using Words = std::vector<char const *>;
  Argv(Words const &words) {  // NOLINT: implicit, for tables of command lines
    for (char const *w : words)
      words_.emplace_back(w);
    for (auto &w : words_)
      pointers_.push_back(w.data());
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words_.size()); }
  char **argv() { return pointers_.data(); }

private:
  std::vector<std::string> words_;
  std::vector<char *> pointers_;
};

// Enabled options and their values, e.g. "p=8080 v=1".
std::string Seen(XArgumentParser const &parser) {
  std::string out;
  for (unsigned i = 0; i < parser.GetNumberOfArguments(); ++i) {
    XArgument const *a = parser.GetArgument(i);
    if (a->IsEnabled())
      out += std::string(out.empty() ? "" : " ") + a->GetId() + "=" + a->GetValue();
  }
  return out;
}

std::string ParseWith(Argv::Words const &words) {
  XArgumentParser parser;
  parser.AddArgument('p', true);
  parser.AddArgument('v', false);
  Argv args(words);
  EXPECT_TRUE(parser.Parse(args.argc(), args.argv()));
  return Seen(parser);
}

TEST(XArgumentParser, EveryOptionTakesAValue) {
  XArgumentParser parser;
  parser.AddArgument('p', true);
  parser.AddArgument('v', false);
  EXPECT_STREQ(parser.GetOptionString(), "p:v:");
  EXPECT_STREQ(parser.GetArgument('p')->GetName(), "param");
  EXPECT_STREQ(parser.GetArgument('v')->GetName(), "");
  EXPECT_EQ(parser.GetArgument('x'), nullptr);
  EXPECT_EQ(parser.GetArgument(2u), nullptr);
  EXPECT_EQ(parser.GetArgument(1u)->GetId(), 'v');

  struct {
    Argv::Words words;
    char const *seen;
  } const cases[] = {
      {{"prog", "-p", "8080", "-v"}, "p=8080"},      // v has no value to take
      {{"prog", "-v", "1", "-p", "8080"}, "p=8080 v=1"},
      {{"prog", "-p8080"}, "p=8080"},
      {{"prog", "-vp8080"}, "v=p8080"},              // the rest of the word is the value
      {{"prog", "-x"}, ""},
      {{"prog", "file", "-v", "1"}, ""},             // the first plain word ends the options
      {{"prog", "-p", "-v", "1"}, "v=1"},            // a value never starts with '-'
      {{"prog", "-:", "-?", "-p", "3"}, "p=3"},
  };
  for (auto const &c : cases)
    EXPECT_EQ(ParseWith(c.words), c.seen) << c.words.back();
}

TEST(XArgumentParser, ParseNeedsRegisteredOptions) {
  XArgumentParser parser;
  Argv args({"prog", "-p", "1"});
  EXPECT_FALSE(parser.Parse(args.argc(), args.argv()));
  parser.AddArgument('p', "port", "port to listen on");
  EXPECT_TRUE(parser.Parse(args.argc(), args.argv()));
  EXPECT_STREQ(parser.GetArgument('p')->GetValue(), "1");
  EXPECT_STREQ(parser.GetArgument('p')->GetHelp(), "port to listen on");
  EXPECT_TRUE(parser.ResetArguments());
  EXPECT_FALSE(parser.Parse(args.argc(), args.argv()));
  EXPECT_EQ(parser.GetNumberOfArguments(), 1u);
  EXPECT_NE(parser.GetArgument('p'), nullptr);
  EXPECT_TRUE(parser.Parse(0, nullptr) == false);
}

TEST(XArgumentParser, ReservedLettersAreNeverEnabled) {
  XArgumentParser parser;
  for (char id : {'?', '-', ':', 'a'})
    parser.AddArgument(id, true);
  Argv args({"prog", "-?", "x", "-:", "-a-", "-a", "z"});
  EXPECT_TRUE(parser.Parse(args.argc(), args.argv()));
  EXPECT_EQ(Seen(parser), "a=z");
}

TEST(XArgumentParser, ValuesAreCutAt1023Characters) {
  XArgumentParser parser;
  parser.AddArgument('p', true);
  std::string const longValue(5000, 'v');
  Argv args({"prog", "-p", longValue.c_str()});
  parser.Parse(args.argc(), args.argv());
  EXPECT_EQ(std::string(parser.GetArgument('p')->GetValue()), longValue.substr(0, 1023));
}

TEST(XArgumentParser, CopiesAreDeepAndTheCLibraryStateIsUntouched) {
  XArgumentParser original;
  original.AddArgument('p', "port", "help");
  XArgumentParser copy(original);
  optind = 5;
  Argv args({"prog", "-p", "9"});
  copy.Parse(args.argc(), args.argv());
  EXPECT_EQ(optind, 5);
  EXPECT_EQ(Seen(copy), "p=9");
  EXPECT_EQ(Seen(original), "");
  original = copy;
  EXPECT_EQ(Seen(original), "p=9");
  EXPECT_STREQ(original.GetArgument('p')->GetHelp(), "help");

  XArgument a;
  a.SetId('z');
  a.SetValue("v");
  a.SetEnabled();
  XArgument b(a);
  a.Reset();
  EXPECT_EQ(a.GetId(), 0);
  EXPECT_FALSE(a.IsEnabled());
  EXPECT_STREQ(a.GetValue(), "");
  EXPECT_EQ(b.GetId(), 'z');
  EXPECT_TRUE(b.IsEnabled());
  EXPECT_STREQ(b.GetValue(), "v");
  b.SetValue(nullptr);
  EXPECT_STREQ(b.GetValue(), "v");
}

// The C library's getopt with scanning stopped at the first plain word ("+")
// and no messages; the last value of each letter it returned.
std::map<char, std::string> WithCGetopt(Argv &args, char const *options) {
  std::map<char, std::string> seen;
  opterr = 0;
  optind = 0;  // full re-initialisation
  std::string const optionString = std::string("+") + options;
  for (int c; (c = getopt(args.argc(), args.argv(), optionString.c_str())) != -1;)
    if (c != '?' && c != ':')
      seen[static_cast<char>(c)] = optarg ? optarg : "";
  return seen;
}

TEST(XArgumentParser, AgreesWithTheCLibraryGetopt) {
  // Command lines where both follow the same rules: no option value that
  // starts with '-' (the C library would take it as the value).
  std::vector<Argv::Words> const lines = {
      {"prog"},
      {"prog", "-a", "1", "-b", "2", "-c", "3"},
      {"prog", "-a1", "-b2"},
      {"prog", "-ab", "c"},
      {"prog", "-c", "x", "plain", "-a", "1"},
      {"prog", "--", "-a", "1"},
      {"prog", "-z", "-a", "1"},
      {"prog", "-a"},
      {"prog", "-b", "", "-c", "v w"},
      {"prog", "-a", "1", "-a", "2"},
      {"prog", "-", "-a", "1"},
      {"prog", "-a", "1", "--", "-b", "2"},
  };
  for (auto const &words : lines) {
    XArgumentParser parser;
    for (char id : {'a', 'b', 'c'})
      parser.AddArgument(id, true);
    Argv ours(words);
    ASSERT_TRUE(parser.Parse(ours.argc(), ours.argv()));
    std::map<char, std::string> mine;
    for (char id : {'a', 'b', 'c'})
      if (parser.GetArgument(id)->IsEnabled())
        mine[id] = parser.GetArgument(id)->GetValue();
    Argv theirs(words);
    EXPECT_EQ(mine, WithCGetopt(theirs, parser.GetOptionString())) << Seen(parser);
  }
}

}  // namespace
