// Expr.h: the tokenizer of protocol command lines and simple request lines.
//
// An Expr scans one text that the caller keeps alive (it stores only
// pointers). The text ends at its first NUL or, when a length was given to
// set_expr, at that length, whichever comes first: nothing past it is ever
// read, so a received buffer need not be NUL-terminated.
//
// Each get_* call yields one typed token (see the k* token types) and leaves
// its text, NUL-terminated, in the token text buffer. That buffer holds
// kTokenMax characters: a longer token is still consumed whole but its text
// is cut there. Nothing is reported but the token types; no input makes the
// tokenizer read or write out of bounds.
//
// An Expr is used by one thread at a time.
#pragma once

#include "platform/Export.h"

class SHAREDLIB_API Expr {
public:
  static constexpr unsigned kSetMax = 512;      // characters kept of a delimiter or symbol set
  static constexpr unsigned kTokenMax = 16384;  // characters kept of a token's text

  // Token types.
  enum : int {
    kEnd = 0,           // end of text, or a character that fits no rule (position kept)
    kDelimiter = 1,     // one character of the delimiter set
    kLineEnd = 2,       // LF, or CR LF (text "\n")
    kCR = 3,            // a CR not followed by LF
    kName = 4,
    kNumber = 5,        // digits and '.'
    kHexNumber = 6,     // a number continued by hexadecimal letters
    kString = 7,        // quoted text without its quotes; get_next_string's result
    kFunction = 8,      // a name followed (after white space) by '('
    kRestOfLine = 9,    // the rest of the line after a ':' that does not start the text
    kOpenString = 14,   // a quoted text whose closing quote is missing
    kHashWord = 15,     // '#' word (the '#'s dropped)
    kPayload = 16,      // '$' number: length of a payload that follows
    kLabel = 17,        // ':' word at the start of the text, or a '*' word
    kSigned = 18,       // word starting with '+' or '-'
    kSignedEnd = 19,    // such a word that ends with '+' or '-' (or a lone sign)
    kSymbol = 20,       // one character of the symbol set; "<=" is 0xB2, ">=" 0xB3
    kWord = 21,         // get_next_token's word
    kAmpWord = 22,      // '&' word (the '&'s dropped)
    kDottedName = 23,   // a name starting with a letter and holding a '.'
  };

  static constexpr char kDefaultDelimiters[] = "#:$()!*/<>=&,;?";
  static constexpr char kDefaultSymbols[] = "<>=,;?";

  // Null sets take the defaults above.
  explicit Expr(char const *text = nullptr, char const *delimiters = nullptr,
                char const *symbols = nullptr);

  // Start scanning text (up to its NUL) / its first len bytes (or its NUL).
  void set_expr(char const *text);
  void set_expr(char const *text, unsigned len);
  // Back to the start of the text; the token is emptied.
  void reset();
  // Characters consumed so far.
  long get_offset() const;

  // Copy at most 512 characters of the set; null empties it.
  void set_delimiters(char const *set);
  void set_simbols(char const *set);

  // The full tokenizer; returns the token type.
  int get_token_expr();
  // Simple tokenizer: a delimiter or control character alone (kDelimiter),
  // or a word up to one (kWord); white space after either is skipped.
  int get_next_token();
  // Text up to one of separators (",;" when null) or the end, trimmed of
  // white space; the separator found is the terminator (0 at the end) and is
  // consumed. kString, or kEnd when the position was already at the end.
  int get_next_string(char const *separators = nullptr);
  // Bracketed sub-expression: after white space, "(" or "[" and everything up
  // to its matching closer (both bracket kinds share one depth count), with
  // an even number of quotes. 1 with out holding the inside and the closer
  // consumed; 0 with out empty and the position unchanged otherwise. out
  // holds outSize bytes, or kTokenMax + 1 bytes for the first form; a longer
  // inside is cut.
  int get_expr(char *out);
  int get_expr(char *out, unsigned outSize);
  // Reads a token of a pre-tokenised byte stream: the byte at the position
  // is the type. 0 end; 4 a 32-bit value follows (copied into the token
  // text), 5 bytes in all; 5 or 7 a NUL-terminated string follows (copied);
  // 8 a 32-bit value, 6 bytes in all; 10 a NUL-terminated string whose
  // address the token text holds, its length + 2 bytes consumed after the
  // type; any other byte is type 1 with that byte as text. The stream is the
  // program's own; with a length given to set_expr, a record that does not
  // fit ends it (0).
  int get_token();
  // Request line: returns 1 when there is no word, 2 CONNECTION, 3 GET,
  // 4 HOST, 5 POST, 6 anything else. For GET and POST, out receives the path
  // and, after a '?', the query values of the keys listed in names (a null
  // entry ends the list; matched ignoring case) go to values[i], at most
  // valueSizes[i] characters, so each values[i] holds valueSizes[i] + 1
  // bytes. For the others out receives the rest of the text. out holds
  // outSize bytes (at most outSize - 1 characters are written).
  int http_parse(char *out, unsigned outSize, char const **names, char **values,
                 unsigned *valueSizes);

  // The current token.
  char const *get_text() const { return text_; }
  unsigned get_text_len() const { return textLen_; }
  int get_type() const { return type_; }
  // The separator that ended the last get_next_string (0 at the end).
  char get_terminator() const { return terminator_; }
  // The scan position.
  char const *get_position() const { return cur_; }

private:
  char Ch(char const *p) const { return (end_ && p >= end_) ? '\0' : *p; }
  bool IsDelim(char c) const;
  bool IsSymbol(char c) const;
  void SkipWhite();
  void ClearToken();
  // Empties the token, skips white space and answers the next character.
  char StartToken();
  void Put(char c);
  int SetType(int type);
  // Takes characters up to a delimiter or control character; the last one
  // taken, or 0 when none.
  char CollectWord();
  // Bytes left before the bound set by set_expr (unbounded: a large number).
  unsigned long Room() const;

  char const *start_;
  char const *cur_;
  char const *end_;  // null: the text ends only at its NUL
  signed char type_;
  char terminator_;
  char symbols_[kSetMax + 1];
  char delimiters_[kSetMax + 1];
  char text_[kTokenMax + 1];
  unsigned textLen_;
};
