// `epho demo`: a small synthetic aerial project built end to end. Each
// subsystem adds its stage (registry.h); stages run in their order in one work
// folder and print a short summary.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "registry.h"

namespace {

struct DemoArgs {
  std::string dir = "epho-demo";
  bool verbose = false;
};

int RunDemo(const DemoArgs& args) {
  epho_tool::DemoContext demo;
  demo.verbose = args.verbose;
  const std::string& dir = args.dir;
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    std::fprintf(stderr, "epho demo: cannot create %s: %s\n", dir.c_str(), ec.message().c_str());
    return 1;
  }
  demo.workdir = std::filesystem::absolute(dir).string();
  auto stages = epho_tool::DemoStages();
  std::stable_sort(stages.begin(), stages.end(),
                   [](const auto& a, const auto& b) { return a.order < b.order; });
  std::printf("epho demo: synthetic aerial project in %s\n", demo.workdir.c_str());
  int failed = 0;
  using Clock = std::chrono::steady_clock;
  const auto started = Clock::now();
  auto since = [](Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
  };
  for (const auto& s : stages) {
    std::printf("[%s]\n", s.name);
    std::fflush(stdout);
    const auto stage_started = Clock::now();
    if (!s.run(demo)) {
      std::printf("  stage %s FAILED\n", s.name);
      ++failed;
    }
    std::printf("  (%.1f s)\n", since(stage_started));
  }
  std::printf("epho demo: %zu stages, %d failed, %.1f s in all\n", stages.size(), failed,
              since(started));
  return failed ? epho_tool::kExitFailure : epho_tool::kExitOk;
}

epho_tool::Run DeclareDemo(CLI::App& app) {
  auto args = std::make_shared<DemoArgs>();
  app.add_option("--workdir", args->dir, "folder of the project (made if missing)")
      ->capture_default_str();
  app.add_flag("-v,--verbose", args->verbose, "print more of each stage");
  return [args] { return RunDemo(*args); };
}

}  // namespace

EPHO_COMMAND("demo", "build a synthetic aerial project end to end", DeclareDemo);
