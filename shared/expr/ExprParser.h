// ExprParser.h: splits one received command line into parameters.
//
// parse runs an Expr over the text and keeps up to maxParams token texts
// (each cut to maxParamLen characters) with their token types, plus an
// optional binary payload announced by a "$<length>" token: the payload is
// the <length> bytes that follow that token, and it always ends the command.
// parseSymbol instead splits a line by one separator character with
// backslash escapes.
//
// Every copy is bounded by the buffers given at construction; the text is
// never read past textLen. A parser is used by one thread at a time; the
// texts it answers stay valid until the next parse.
#pragma once

#include "expr/Expr.h"
#include "platform/Export.h"

class SHAREDLIB_API ExprParser {
public:
  static constexpr char kDefaultDelimiters[] = "#:$()/<>=&,;?";
  static constexpr unsigned kDefaultMaxParamLen = 255;

  // Blank delimiters (null, empty or spaces) take kDefaultDelimiters; blank
  // symbols keep the Expr default. Buffers are allocated when their sizes
  // are non-zero; a parser without a payload buffer parses nothing with
  // parse (parseSymbol needs none).
  ExprParser(unsigned maxParams, unsigned payloadSize, char const *delimiters = nullptr,
             char const *symbols = nullptr, unsigned maxParamLen = kDefaultMaxParamLen);
  ~ExprParser();
  ExprParser(ExprParser const &) = delete;
  ExprParser &operator=(ExprParser const &) = delete;

  void SetDelims(char const *set);
  void SetSimbols(char const *set);

  // Tokenises the first textLen bytes of text (less when a NUL comes first).
  // A "$n" token takes the n bytes after it as the payload when they lie
  // within textLen and fit the payload buffer, and ends the command;
  // *consumed (may be null) is then the offset of the payload's end, else 0.
  // Returns the parameter count.
  unsigned parse(char const *text, unsigned textLen, unsigned *consumed);
  // Fields separated by sep up to CR, LF or the end of text. In a field,
  // "\n" gives LF, "\r" CR, "\" + sep gives sep and "\\" a backslash; any
  // other backslash is kept. Over-long fields are cut. Types stay 0.
  unsigned parseSymbol(char const *text, char sep);

  unsigned GetnParam() const { return nParams_; }
  // Text of parameter i and its token type (type may be null); null and
  // type 0 when i is not below the count.
  char const *GetParam(unsigned i, char *type) const;
  // The payload and its length; null and 0 when none was taken.
  char const *GetBuffer(unsigned *len) const;

private:
  // Empties the results. Buffers start zero-filled and only their used
  // parts are cleared, so all of them read as zero past the current results
  // without clearing a large payload buffer on every line.
  void reset();
  char *Slot(unsigned i) const;
  void Store(char const *text, unsigned len, int type);

  unsigned nParams_;
  unsigned payloadLen_;
  unsigned maxParams_;
  unsigned maxParamLen_;
  unsigned payloadSize_;
  char *params_;   // maxParams_ slots of maxParamLen_ + 1 bytes
  char *payload_;  // payloadSize_ bytes
  char *types_;    // one per parameter
  Expr expr_;
};
