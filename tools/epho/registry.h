// Subcommands and demo stages of the `epho` tool register themselves from
// their own source files, so each subsystem adds its command or its stage of
// the demo without touching main.cpp:
//
//   static int RunPyramids(int argc, char** argv);   // argv[0] is "pyramids"
//   EPHO_COMMAND("pyramids", "IMAGE...  build binomial pyramid levels", RunPyramids);
//
//   static bool DemoMatching(DemoContext& demo);
//   EPHO_DEMO_STAGE(40, "matching", DemoMatching);
#ifndef EPHO_TOOL_REGISTRY_H
#define EPHO_TOOL_REGISTRY_H

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace epho_tool {

struct Command {
  const char* name;
  const char* usage;
  int (*run)(int argc, char** argv);
};

// State the demo stages hand to each other: the work folder, files made by
// earlier stages (by role, e.g. "dem", "ortho", "image.0"), and summary lines.
struct DemoContext {
  std::string workdir;
  std::map<std::string, std::string> files;
  std::map<std::string, double> values;
  std::vector<std::string> summary;
  bool verbose = false;
  void Summary(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

struct DemoStage {
  int order;
  const char* name;
  bool (*run)(DemoContext& demo);
};

std::vector<Command>& Commands();
std::vector<DemoStage>& DemoStages();

struct Registrar {
  Registrar(const Command& c) { Commands().push_back(c); }
  Registrar(const DemoStage& s) { DemoStages().push_back(s); }
};

}  // namespace epho_tool

#define EPHO_TOOL_CONCAT2(a, b) a##b
#define EPHO_TOOL_CONCAT(a, b) EPHO_TOOL_CONCAT2(a, b)
#define EPHO_COMMAND(name, usage, fn)                           \
  static ::epho_tool::Registrar EPHO_TOOL_CONCAT(epho_command_, \
                                                 __LINE__)(::epho_tool::Command{name, usage, fn})
#define EPHO_DEMO_STAGE(order, name, fn)          \
  static ::epho_tool::Registrar EPHO_TOOL_CONCAT( \
      epho_demo_stage_, __LINE__)(::epho_tool::DemoStage{order, name, fn})

#endif  // EPHO_TOOL_REGISTRY_H
