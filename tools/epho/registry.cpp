#include "registry.h"

#include <cpl_error.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>

#include "eerr.h"
#include "platform/eerr/eerr_print.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

#ifndef EPHO_VERSION
#define EPHO_VERSION "unknown"
#endif

namespace epho_tool {

std::vector<Command>& Commands() {
  static std::vector<Command> commands;
  return commands;
}

std::vector<CommandGroup>& CommandGroups() {
  static std::vector<CommandGroup> groups;
  return groups;
}

std::vector<DemoStage>& DemoStages() {
  static std::vector<DemoStage> stages;
  return stages;
}

void DemoContext::Summary(const char* format, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  summary.emplace_back(buf);
  std::printf("  %s\n", buf);
}

// ---- strict numbers ---------------------------------------------------------

namespace {

// The text without one leading '+', which from_chars does not take.
std::string_view Unsigned(const std::string& s) {
  std::string_view v(s);
  if (v.size() > 1 && v[0] == '+' && v[1] != '-') v.remove_prefix(1);
  return v;
}

}  // namespace

CLI::Validator StrictInteger(long long min, long long max) {
  std::ostringstream desc;
  desc << "INTEGER in [" << min << ", " << max << "]";
  return CLI::Validator(
      [min, max](std::string& text) -> std::string {
        const std::string_view v = Unsigned(text);
        long long value = 0;
        const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), value, 10);
        if (ec == std::errc::result_out_of_range)
          return "'" + text + "' is out of range [" + std::to_string(min) + ", " +
                 std::to_string(max) + "]";
        if (v.empty() || ec != std::errc() || end != v.data() + v.size())
          return "'" + text + "' is not an integer";
        if (value < min || value > max)
          return "'" + text + "' is out of range [" + std::to_string(min) + ", " +
                 std::to_string(max) + "]";
        text = std::to_string(value);
        return std::string();
      },
      desc.str(), "STRICT_INTEGER");
}

CLI::Validator StrictNumber(double min, double max) {
  std::ostringstream desc;
  desc << "NUMBER in [" << min << ", " << max << "]";
  const std::string range = desc.str().substr(10);
  return CLI::Validator(
      [min, max, range](std::string& text) -> std::string {
        const std::string_view v = Unsigned(text);
        double value = 0;
        const auto [end, ec] =
            std::from_chars(v.data(), v.data() + v.size(), value, std::chars_format::general);
        if (ec == std::errc::result_out_of_range) return "'" + text + "' is out of range " + range;
        if (v.empty() || ec != std::errc() || end != v.data() + v.size() || !std::isfinite(value))
          return "'" + text + "' is not a number";
        if (value < min || value > max) return "'" + text + "' is out of range " + range;
        char buf[64];
        const auto out = std::to_chars(buf, buf + sizeof buf, value);
        text.assign(buf, out.ptr);
        return std::string();
      },
      desc.str(), "STRICT_NUMBER");
}

CLI::Option* IntegerOption(CLI::App& app, const std::string& name, int& value,
                           const std::string& description, int min, int max) {
  return app.add_option(name, value, description)
      ->transform(StrictInteger(min, max))
      ->capture_default_str();
}

CLI::Option* NumberOption(CLI::App& app, const std::string& name, double& value,
                          const std::string& description, double min, double max) {
  return app.add_option(name, value, description)
      ->transform(StrictNumber(min, max))
      ->capture_default_str();
}

// ---- the tool -----------------------------------------------------------------

namespace {

std::vector<std::string> Words(const char* name) {
  std::vector<std::string> words;
  std::istringstream in(name);
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

CLI::App* FindSubcommand(CLI::App& parent, const std::string& name) {
  auto found = parent.get_subcommands([&](CLI::App* a) { return a->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

const char* GroupDescription(const std::string& name) {
  for (const auto& g : CommandGroups())
    if (name == g.name) return g.description;
  return "";
}

// While a command runs, every error report printed by the library and every
// GDAL error that reached no handler of the library is counted, so that a
// command that printed an error never exits 0.
struct PrintedErrors {
  int count = 0;
  Eerr_PrintHandler old_handler = nullptr;
  void* old_context = nullptr;
};
PrintedErrors* g_printed = nullptr;

void CountReport(const Eerr_ErrorReport* report, void* context) {
  auto* p = static_cast<PrintedErrors*>(context);
  if (report->severity >= EERR_SEVERITY_ERROR) ++p->count;
  if (p->old_handler) {
    p->old_handler(report, p->old_context);
    return;
  }
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", kzdv::ToUtf8(kzdv::ReportText(report)).c_str());
}

void CPL_STDCALL CountGdalError(CPLErr kind, CPLErrorNum number, const char* message) {
  std::fflush(stdout);
  std::fprintf(stderr, "epho: GDAL %s %d: %s\n", kind >= CE_Failure ? "error" : "warning",
               static_cast<int>(number), message ? message : "");
  if (kind >= CE_Failure && g_printed) ++g_printed->count;
}

class CountPrintedErrors {
 public:
  CountPrintedErrors() {
    kzdv::CurrentPrintHandler(&errors_.old_handler, &errors_.old_context);
    eerr_SetPrintHandler(CountReport, &errors_);
    g_printed = &errors_;
    CPLPushErrorHandler(CountGdalError);
  }
  ~CountPrintedErrors() {
    CPLPopErrorHandler();
    g_printed = nullptr;
    eerr_SetPrintHandler(errors_.old_handler, errors_.old_context);
  }
  int count() const { return errors_.count; }

 private:
  PrintedErrors errors_;
};

// The subcommand the command line named, deepest first.
CLI::App* Selected(CLI::App& app) {
  CLI::App* current = &app;
  for (;;) {
    auto subs = current->get_subcommands();
    if (subs.empty()) return current;
    current = subs.front();
  }
}

}  // namespace

int Main(int argc, char** argv) {
  CLI::App app(
      "Photogrammetry support library: pyramids, hierarchical files, camera files and a "
      "demo project.",
      "epho");
  app.set_version_flag("--version", std::string("epho ") + EPHO_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 success; 1 failure (the reason is printed on standard error); 2 usage error "
      "(unknown option, missing or malformed argument).\nRun 'epho COMMAND --help' for the options "
      "of a command.");

  std::vector<Command> commands = Commands();
  std::stable_sort(commands.begin(), commands.end(), [](const Command& a, const Command& b) {
    return std::strcmp(a.name, b.name) < 0;
  });
  std::map<const CLI::App*, Run> runs;
  for (const auto& c : commands) {
    const std::vector<std::string> words = Words(c.name);
    if (words.empty()) continue;
    CLI::App* parent = &app;
    for (size_t i = 0; i + 1 < words.size(); ++i) {
      CLI::App* group = FindSubcommand(*parent, words[i]);
      if (!group) {
        group = parent->add_subcommand(words[i], GroupDescription(words[i]));
        group->require_subcommand(1);
      }
      parent = group;
    }
    CLI::App* sub = parent->add_subcommand(words.back(), c.description);
    runs[sub] = c.declare(*sub);
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (dynamic_cast<const CLI::CallForVersion*>(&e)) {
      std::cout << e.what() << std::endl;
      return kExitOk;
    }
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      app.exit(e);  // --help
      return kExitOk;
    }
    std::string message = e.what();
    CLI::App* selected = Selected(app);
    const std::vector<std::string> rest = selected->remaining();
    if (!rest.empty() && selected->get_require_subcommand_min() > 0 &&
        selected->get_subcommands().empty())
      message = "unknown command '" + rest.front() + "'";
    std::cerr << "epho: " << message << "\n\n" << app.help();
    return kExitUsage;
  }
  CLI::App* selected = Selected(app);
  auto run = runs.find(selected);
  if (run == runs.end() || !run->second) {
    std::cerr << app.help();
    return kExitUsage;
  }
  try {
    CountPrintedErrors printed;
    const int rc = run->second();
    if (rc == kExitOk && printed.count() > 0) {
      std::fprintf(stderr, "epho %s: failed (errors were reported above)\n",
                   selected->get_name().c_str());
      return kExitFailure;
    }
    return rc;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::cerr << "epho " << selected->get_name() << ": " << e.what() << "\n";
    return kExitFailure;
  }
}

}  // namespace epho_tool
