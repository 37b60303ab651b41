// `epho demo`: a small synthetic aerial project built end to end. Each
// subsystem adds its stage (registry.h); stages run in their order in one work
// folder and print a short summary.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "registry.h"

namespace {

int RunDemo(int argc, char** argv) {
  epho_tool::DemoContext demo;
  std::string dir = "epho-demo";
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--workdir") && i + 1 < argc)
      dir = argv[++i];
    else if (!std::strcmp(argv[i], "-v"))
      demo.verbose = true;
    else {
      std::fprintf(stderr, "usage: epho demo [--workdir DIR] [-v]\n");
      return 2;
    }
  }
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
  for (const auto& s : stages) {
    std::printf("[%s]\n", s.name);
    std::fflush(stdout);
    if (!s.run(demo)) {
      std::printf("  stage %s FAILED\n", s.name);
      ++failed;
    }
  }
  std::printf("epho demo: %zu stages, %d failed\n", stages.size(), failed);
  return failed ? 1 : 0;
}

}  // namespace

EPHO_COMMAND("demo", "[--workdir DIR]  build a synthetic aerial project end to end", RunDemo);
