// Lines, tokens and numbers of the interchange text files.
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "epho/interchange/interchange.h"
#include "epho/interchange/line_reader_internal.h"

namespace epho::interchange {

namespace {

std::string Joined(const std::vector<std::string>& problems) {
  std::string text;
  for (const std::string& p : problems) text += (text.empty() ? "" : "\n") + p;
  return text;
}

}  // namespace

InterchangeError::InterchangeError(const std::vector<std::string>& problems)
    : std::runtime_error(Joined(problems)), problems_(problems) {}

TextFile ReadTextFile(const std::string& path) {
  TextFile file;
  file.label = std::filesystem::path(path).filename().string();
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw InterchangeError({path + ": is a folder, not a text file"});
  std::ifstream in(path, std::ios::binary);
  if (!in) throw InterchangeError({path + ": cannot open (" + std::strerror(errno) + ")"});
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    file.lines.push_back(line);
  }
  if (in.bad()) throw InterchangeError({path + ": read error"});
  return file;
}

bool Tokenize(const std::string& line, bool quotes, std::vector<std::string>* tokens,
              std::string* why) {
  tokens->clear();
  size_t i = 0;
  const size_t n = line.size();
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; };
  while (i < n) {
    while (i < n && blank(line[i])) ++i;
    if (i == n || line[i] == '#') break;
    if (quotes && line[i] == '"') {
      const size_t end = line.find('"', i + 1);
      if (end == std::string::npos) {
        *why = "a quoted name has no closing quote";
        return false;
      }
      tokens->push_back(line.substr(i + 1, end - i - 1));
      i = end + 1;
      if (i < n && !blank(line[i]) && line[i] != '#') {
        *why = "a quoted name runs into the next value";
        return false;
      }
      continue;
    }
    const size_t start = i;
    while (i < n && !blank(line[i])) ++i;
    tokens->push_back(line.substr(start, i - start));
  }
  return true;
}

bool ParseDouble(const std::string& token, double* value) {
  if (token.empty()) return false;
  const char* first = token.data();
  const char* last = first + token.size();
  if (*first == '+') ++first;  // from_chars takes no plus sign
  if (first == last || *first == '+') return false;
  double v = 0;
  const auto r = std::from_chars(first, last, v, std::chars_format::general);
  if (r.ec != std::errc() || r.ptr != last || !std::isfinite(v)) return false;
  *value = v;
  return true;
}

bool ParseInt(const std::string& token, int64_t min, int64_t max, int64_t* value) {
  if (token.empty()) return false;
  const char* first = token.data();
  const char* last = first + token.size();
  if (*first == '+') ++first;
  if (first == last || *first == '+') return false;
  int64_t v = 0;
  const auto r = std::from_chars(first, last, v, 10);
  if (r.ec != std::errc() || r.ptr != last || v < min || v > max) return false;
  *value = v;
  return true;
}

std::string FormatDouble(double value) {
  char buffer[64];
  const auto r = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, r.ptr);
}

void Problems::Add(const std::string& label, size_t line, const std::string& what) {
  list_.push_back(label + ":" + std::to_string(line) + ": " + what);
}

void Problems::RaiseIfAny() const {
  if (!list_.empty()) throw InterchangeError(list_);
}

}  // namespace epho::interchange
