// Runs PROJ's command-line programs (cct, cs2cs) from a test, as the
// independent truth that our conversions are checked against.
#ifndef EPHO_PROJ_CLI_TEST_UTIL_H
#define EPHO_PROJ_CLI_TEST_UTIL_H

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace projcli {

using Rows = std::vector<std::vector<double>>;

// Feeds `rows` (space-separated numbers, one row a line) to `command` and
// parses each output line into numbers ("inf"/"*" give no number). Returns an
// empty result when the program could not be run.
inline Rows Run(const std::string& command, const Rows& rows) {
  testutil::ScratchDir dir("projcli");
  const std::string in = dir.File("in.txt");
  {
    std::ofstream f(in);
    f.precision(17);
    for (const auto& r : rows) {
      for (size_t i = 0; i < r.size(); ++i) f << (i ? " " : "") << r[i];
      f << "\n";
    }
  }
  Rows out;
  FILE* p = ::popen((command + " < " + in + " 2>/dev/null").c_str(), "r");
  if (!p) return out;
  char line[4096];
  while (std::fgets(line, sizeof line, p)) {
    std::istringstream ss(line);
    std::vector<double> v;
    std::string tok;
    while (ss >> tok) {
      try {
        size_t used = 0;
        double d = std::stod(tok, &used);
        if (used == tok.size()) v.push_back(d);
      } catch (...) {
      }
    }
    out.push_back(v);
  }
  ::pclose(p);
  return out;
}

}  // namespace projcli

#endif  // EPHO_PROJ_CLI_TEST_UTIL_H
