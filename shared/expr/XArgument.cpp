#include "expr/XArgument.h"

#include "text/TextRoutines.h"

#include <cstring>

namespace shared {

namespace {

constexpr unsigned kValueMax = 1023;  // the option value buffer holds 1024 bytes

// The scanning state of one run over argv: the word and the letter within it.
// Options start with '-' and may be grouped; an option that takes a value
// takes the rest of its word or else the next word unless that starts with
// '-'; scanning ends at the first word that is not an option ("-" alone
// included) or after "--"; a letter not in the option string, ':', or a
// missing value gives '?'.
class OptionScanner {
public:
  OptionScanner(int argc, char **argv, char const *options)
      : argc_(argv ? argc : 0), argv_(argv), options_(options), index_(1), letter_(0) {}

  // The next option letter, '?' or -1 at the end; value receives the value
  // (empty for none), cut to kValueMax characters.
  int Next(char (&value)[kValueMax + 1]) {
    value[0] = '\0';
    if (letter_ == 0) {
      if (index_ >= argc_)
        return -1;
      char const *word = argv_[index_];
      if (!word || word[0] != '-' || word[1] == '\0')
        return -1;
      if (std::strcmp(word, "--") == 0) {
        ++index_;
        return -1;
      }
      letter_ = 1;
    }
    char const *word = argv_[index_];
    char const c = word[letter_++];
    bool const atWordEnd = word[letter_] == '\0';
    char const *entry = c == ':' ? nullptr : std::strchr(options_, c);
    if (!entry) {
      if (atWordEnd)
        NextWord();
      return '?';
    }
    if (entry[1] != ':') {
      if (atWordEnd)
        NextWord();
      return c;
    }
    if (!atWordEnd) {
      CopyString(value, word + letter_, kValueMax);
      NextWord();
      return c;
    }
    NextWord();
    if (index_ < argc_ && argv_[index_] && argv_[index_][0] != '-') {
      CopyString(value, argv_[index_], kValueMax);
      ++index_;
      return c;
    }
    return '?';
  }

private:
  void NextWord() {
    ++index_;
    letter_ = 0;
  }

  int argc_;
  char **argv_;
  char const *options_;
  int index_;   // word being scanned
  int letter_;  // position in it; 0 before the word is entered
};

}  // namespace

// --- XArgument --------------------------------------------------------------

XArgument::XArgument() : id_(0), enabled_(false), value_(nullptr), name_(nullptr), help_(nullptr) {}

XArgument::XArgument(XArgument const &other)
    : id_(other.id_), enabled_(other.enabled_), value_(Clone(other.value_)),
      name_(Clone(other.name_)), help_(Clone(other.help_)) {}

XArgument &XArgument::operator=(XArgument const &other) {
  if (this != &other) {
    Reset();
    id_ = other.id_;
    enabled_ = other.enabled_;
    value_ = Clone(other.value_);
    name_ = Clone(other.name_);
    help_ = Clone(other.help_);
  }
  return *this;
}

XArgument::~XArgument() { Reset(); }

XStrDyn *XArgument::Clone(XStrDyn const *field) { return field ? new XStrDyn(*field) : nullptr; }

void XArgument::Store(XStrDyn *&field, char const *text) {
  if (!text)
    return;
  if (!field)
    field = new XStrDyn();
  field->Assign(text);
}

void XArgument::SetName(char const *name) { Store(name_, name); }
void XArgument::SetHelp(char const *help) { Store(help_, help); }
void XArgument::SetValue(char const *value) { Store(value_, value); }

namespace {
char const *TextOf(XStrDyn const *field) {
  return (field && field->GetStr()) ? field->GetStr() : "";
}
}  // namespace

char const *XArgument::GetValue() const { return TextOf(value_); }
char const *XArgument::GetName() const { return TextOf(name_); }
// An argument added without help has none: "" rather than an invalid text.
char const *XArgument::GetHelp() const { return TextOf(help_); }

void XArgument::Reset() {
  id_ = 0;
  enabled_ = false;
  delete value_;
  delete name_;
  delete help_;
  value_ = name_ = help_ = nullptr;
}

// --- XArgumentParser --------------------------------------------------------

XArgumentParser::XArgumentParser() = default;

XArgumentParser::XArgumentParser(XArgumentParser const &other) : options_(other.options_) {
  arguments_.reserve(other.arguments_.size());
  for (XArgument const *a : other.arguments_)
    arguments_.push_back(new XArgument(*a));
}

XArgumentParser &XArgumentParser::operator=(XArgumentParser const &other) {
  if (this != &other) {
    Clear();
    for (XArgument const *a : other.arguments_)
      arguments_.push_back(new XArgument(*a));
    options_ = other.options_;
  }
  return *this;
}

XArgumentParser::~XArgumentParser() { Clear(); }

void XArgumentParser::Clear() {
  for (XArgument *a : arguments_)
    delete a;
  arguments_.clear();
}

bool XArgumentParser::IsValidArgId(char c) { return c != '\0' && c != '-' && c != ':' && c != '?'; }

bool XArgumentParser::AddArgument(char id, char const *name, char const *help) {
  auto *argument = new XArgument();
  argument->SetId(id);
  argument->SetName(name);
  argument->SetHelp(help);
  arguments_.push_back(argument);
  char letter[2] = {id, '\0'};
  options_.Append(letter);
  // GetName is never null, so every option takes a value.
  if (argument->GetName() != nullptr)
    options_.Append(":");
  return true;
}

bool XArgumentParser::AddArgument(char id, bool hasValue) {
  return AddArgument(id, hasValue ? "param" : nullptr, nullptr);
}

bool XArgumentParser::Parse(int argc, char **const argv) {
  if (options_.IsBlank())
    return false;
  OptionScanner scanner(argc, argv, GetOptionString());
  char value[kValueMax + 1];
  for (int c; (c = scanner.Next(value)) != -1;) {
    XArgument *argument = GetArgument(static_cast<char>(c));
    if (argument && IsValidArgId(argument->GetId())) {
      argument->SetEnabled();
      argument->SetValue(value);
    }
  }
  return true;
}

XArgument *XArgumentParser::GetArgument(char id) const {
  for (XArgument *a : arguments_)
    if (a->GetId() == id)
      return a;
  return nullptr;
}

XArgument *XArgumentParser::GetArgument(unsigned index) const {
  return index < arguments_.size() ? arguments_[index] : nullptr;
}

unsigned XArgumentParser::GetNumberOfArguments() const {
  return static_cast<unsigned>(arguments_.size());
}

bool XArgumentParser::ResetArguments() {
  options_.Assign("");
  return true;
}

}  // namespace shared
