#include "ProgramArgs.h"

#include <cstdlib>
#include <cstring>

namespace examples {

bool WantsHelp(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0 ||
        std::strcmp(argv[i], "-?") == 0)
      return true;
  }
  return false;
}

void PrintUsage(shared::XArgumentParser const &parser, char const *program, char const *summary,
                std::FILE *out) {
  std::fprintf(out, "usage: %s [options]\n%s\n\noptions:\n", program, summary);
  for (unsigned i = 0; i < parser.GetNumberOfArguments(); ++i) {
    shared::XArgument const *a = parser.GetArgument(i);
    std::string const left = std::string("-") + a->GetId() + " " + a->GetName();
    std::fprintf(out, "  %-14s %s\n", left.c_str(), a->GetHelp());
  }
  std::fprintf(out, "  %-14s %s\n", "-h, --help", "this text");
}

std::string OptionText(shared::XArgumentParser const &parser, char id, char const *fallback) {
  shared::XArgument const *a = parser.GetArgument(id);
  return a && a->IsEnabled() ? std::string(a->GetValue()) : std::string(fallback);
}

double OptionNumber(shared::XArgumentParser const &parser, char id, double fallback, double lo,
                    double hi, bool &ok) {
  shared::XArgument const *a = parser.GetArgument(id);
  if (!a || !a->IsEnabled())
    return fallback;
  char *end = nullptr;
  double const v = std::strtod(a->GetValue(), &end);
  if (end == a->GetValue() || *end != '\0' || !(v >= lo && v <= hi)) {
    ok = false;
    return fallback;
  }
  return v;
}

}  // namespace examples
