// Commands and demo stages of the `epho` tool register themselves from their
// own source files, so each subsystem adds its command or its stage of the
// demo without touching main.cpp or any other command.
//
// A command registers a *declare* function. It receives the command's own
// CLI11 subcommand, declares its options and positionals there (bound to a
// state object it owns), and returns the *run* function that the tool calls
// once the whole command line has parsed:
//
//   namespace {
//   struct PyramidsArgs { bool check = false; std::vector<std::string> images; };
//   int RunPyramids(const PyramidsArgs& a);        // 0 ok, 1 failure
//   epho_tool::Run DeclarePyramids(CLI::App& app) {
//     auto a = std::make_shared<PyramidsArgs>();
//     app.add_flag("--check", a->check, "only tell whether usable levels exist");
//     app.add_option("IMAGE", a->images, "image files")->required();
//     return [a] { return RunPyramids(*a); };
//   }
//   }  // namespace
//   EPHO_COMMAND("pyramids", "build 3x3 binomial pyramid levels", DeclarePyramids);
//
// A name with a blank registers a nested command: EPHO_COMMAND("block info",
// ...) and EPHO_COMMAND("block check", ...) in two files both hang below one
// `block` group, which the registry makes on demand (a group alone prints
// its usage and exits 2). Give the group its own description with
// EPHO_COMMAND_GROUP("block", "block files").
//
// Numeric options: declare them with IntegerOption / NumberOption below (or
// add the StrictInteger / StrictNumber transform yourself) so that "abc",
// "3x", "-5" for a count, "1e400" or an overflowing integer are usage errors.
//
// Exit codes, the same for every command: 0 success, 1 failure (the command
// printed why on standard error), 2 usage error (bad or missing arguments;
// the parser prints the message and the usage). A run function that prints
// an error must return 1; never print an error and return 0.
//
// Demo stages run in `order` in one work folder:
//
//   static bool DemoMatching(epho_tool::DemoContext& demo);
//   EPHO_DEMO_STAGE(40, "matching", DemoMatching);
#ifndef EPHO_TOOL_REGISTRY_H
#define EPHO_TOOL_REGISTRY_H

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace epho_tool {

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

// What a command does once its options are parsed: returns an ExitCode.
using Run = std::function<int()>;

struct Command {
  const char* name;         // "pyramids", or "group sub" for a nested command
  const char* description;  // one line, shown in `epho --help`
  Run (*declare)(CLI::App& app);
};

struct CommandGroup {
  const char* name;
  const char* description;
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
std::vector<CommandGroup>& CommandGroups();
std::vector<DemoStage>& DemoStages();

struct Registrar {
  Registrar(const Command& c) { Commands().push_back(c); }
  Registrar(const CommandGroup& g) { CommandGroups().push_back(g); }
  Registrar(const DemoStage& s) { DemoStages().push_back(s); }
};

// The whole tool: parses argv with every registered command and runs the one
// named. Prints help, version and usage errors itself; returns the exit code.
int Main(int argc, char** argv);

// Transforms for numeric options: the whole text must be a decimal number
// (optional sign, no blanks, no trailing characters, no hexadecimal or octal
// forms) within [min, max]; it is rewritten to its canonical decimal form.
CLI::Validator StrictInteger(long long min, long long max);
CLI::Validator StrictNumber(double min, double max);

// Options declared with the strict transforms above.
CLI::Option* IntegerOption(CLI::App& app, const std::string& name, int& value,
                           const std::string& description, int min, int max);
CLI::Option* NumberOption(CLI::App& app, const std::string& name, double& value,
                          const std::string& description, double min, double max);

}  // namespace epho_tool

#define EPHO_TOOL_CONCAT2(a, b) a##b
#define EPHO_TOOL_CONCAT(a, b) EPHO_TOOL_CONCAT2(a, b)
#define EPHO_COMMAND(name, description, declare)  \
  static ::epho_tool::Registrar EPHO_TOOL_CONCAT( \
      epho_command_, __LINE__)(::epho_tool::Command{name, description, declare})
#define EPHO_COMMAND_GROUP(name, description)     \
  static ::epho_tool::Registrar EPHO_TOOL_CONCAT( \
      epho_command_group_, __LINE__)(::epho_tool::CommandGroup{name, description})
#define EPHO_DEMO_STAGE(order, name, fn)          \
  static ::epho_tool::Registrar EPHO_TOOL_CONCAT( \
      epho_demo_stage_, __LINE__)(::epho_tool::DemoStage{order, name, fn})

#endif  // EPHO_TOOL_REGISTRY_H
