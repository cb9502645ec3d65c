// ProgramArgs.h: the command-line plumbing the example programs share, on
// top of shared::XArgumentParser.
//
// Every option of the parser takes a value, so a bare "-h" or "--help" is
// recognised here before parsing, and the usage text is printed from the
// options registered with the parser (letter, value name, help).
//
// Main thread only.
#pragma once

#include "expr/XArgument.h"

#include <cstdio>
#include <string>

namespace examples {

// True when argv asks for help ("-h", "--help" or "-?") anywhere.
bool WantsHelp(int argc, char **argv);

// Prints "usage: program [options]", the summary and one line per option.
void PrintUsage(shared::XArgumentParser const &parser, char const *program, char const *summary,
                std::FILE *out);

// The value of option id when given, else fallback.
std::string OptionText(shared::XArgumentParser const &parser, char id, char const *fallback);
// The value of option id as a number when given and well-formed; fallback
// when absent. ok turns false when the value is given but not a number in
// [lo, hi].
double OptionNumber(shared::XArgumentParser const &parser, char id, double fallback, double lo,
                    double hi, bool &ok);

}  // namespace examples
