// XArgument.h: single-letter command-line options.
//
// The program registers each option letter with XArgumentParser::AddArgument
// and then calls Parse(argc, argv). Every registered option takes a value:
// "-p 8080", "-p8080", or grouped as the last letter of "-vp 8080". Scanning
// stops at the first word that is not an option ("-" alone counts as one such
// word) or after "--". Unknown letters and options missing their value are
// ignored.
//
// Parse keeps its scanning state in the call, not in the C library's global
// getopt state, so parsers may run in several threads at once; one parser
// object is used by one thread at a time.
#pragma once

#include "platform/Export.h"
#include "text/XStr.h"

#include <vector>

namespace shared {

class SHAREDLIB_API XArgument {
public:
  XArgument();
  XArgument(XArgument const &other);
  XArgument &operator=(XArgument const &other);
  ~XArgument();

  void SetId(char id) { id_ = id; }
  char GetId() const { return id_; }
  // Enabled stays set until Reset.
  void SetEnabled() { enabled_ = true; }
  bool IsEnabled() const { return enabled_; }

  // Store a copy; null leaves the field as it is.
  void SetName(char const *name);
  void SetHelp(char const *help);
  void SetValue(char const *value);
  // The texts; "" when never set.
  char const *GetValue() const;
  char const *GetName() const;
  char const *GetHelp() const;

  // Id 0, not enabled, and the three texts destroyed.
  void Reset();

private:
  static void Store(XStrDyn *&field, char const *text);
  static XStrDyn *Clone(XStrDyn const *field);

  char id_;
  bool enabled_;
  XStrDyn *value_;
  XStrDyn *name_;
  XStrDyn *help_;
};

class SHAREDLIB_API XArgumentParser {
public:
  XArgumentParser();
  XArgumentParser(XArgumentParser const &other);
  XArgumentParser &operator=(XArgumentParser const &other);
  virtual ~XArgumentParser();

  // Registers option id (no check for a repeated or unusable letter): every
  // option takes a value, whatever name says. Returns true.
  bool AddArgument(char id, char const *name, char const *help);
  // hasValue only decides whether the option's value name is "param".
  bool AddArgument(char id, bool hasValue);

  // false when no option is registered (or after ResetArguments); otherwise
  // marks every registered option seen as enabled with its value (cut to
  // 1023 characters; a later occurrence replaces an earlier one) and
  // returns true. argv[0] is the program.
  bool Parse(int argc, char **const argv);

  // The first argument with that letter / at that position; null when none.
  XArgument *GetArgument(char id) const;
  XArgument *GetArgument(unsigned index) const;
  unsigned GetNumberOfArguments() const;

  // Forgets the option letters: the arguments stay listed, Parse does nothing.
  bool ResetArguments();

  // The option letters, each followed by ':' (it takes a value).
  char const *GetOptionString() const { return options_.GetStr() ? options_.GetStr() : ""; }

private:
  static bool IsValidArgId(char c);
  void Clear();

  std::vector<XArgument *> arguments_;  // owned, in the order added
  XStrDyn options_;
};

}  // namespace shared
