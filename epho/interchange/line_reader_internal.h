// Reading the interchange text files: lines, tokens, numbers in the C
// locale, and the list of problems each reported as "file:line: what".
#ifndef EPHO_INTERCHANGE_LINE_READER_INTERNAL_H
#define EPHO_INTERCHANGE_LINE_READER_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

namespace epho::interchange {

// A text file split into lines (LF or CR LF), read whole. Throws
// InterchangeError when it cannot be read.
struct TextFile {
  std::string label;  // the name reports use (the file's base name)
  std::vector<std::string> lines;
};
TextFile ReadTextFile(const std::string& path);

// Whitespace-separated tokens of a line; a '#' outside quotes starts a
// comment. With `quotes`, "a b" is one token (without its quotes). Returns
// false with *why set for an unterminated quote.
bool Tokenize(const std::string& line, bool quotes, std::vector<std::string>* tokens,
              std::string* why);

// The whole token as a finite number (C locale, no blanks, no hexadecimal).
bool ParseDouble(const std::string& token, double* value);
// The whole token as a decimal integer within [min, max].
bool ParseInt(const std::string& token, int64_t min, int64_t max, int64_t* value);

// The shortest decimal text that reads back as exactly `value`.
std::string FormatDouble(double value);

// Problems found while reading; Raise throws them all at once.
class Problems {
 public:
  void Add(const std::string& label, size_t line, const std::string& what);
  void Add(const std::string& what) { list_.push_back(what); }
  bool empty() const { return list_.empty(); }
  size_t size() const { return list_.size(); }
  void RaiseIfAny() const;

 private:
  std::vector<std::string> list_;
};

}  // namespace epho::interchange

#endif  // EPHO_INTERCHANGE_LINE_READER_INTERNAL_H
