// epho: the command-line face of the library. Each subcommand lives in its own
// source file and registers itself (registry.h).
#include <cstdio>
#include <cstring>
#include <string>

#include "registry.h"

static void Usage(FILE* out) {
  std::fprintf(out, "usage: epho COMMAND [ARGS...]\n\ncommands:\n");
  for (const auto& c : epho_tool::Commands()) std::fprintf(out, "  %-10s %s\n", c.name, c.usage);
}

int main(int argc, char** argv) {
  if (argc < 2 || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help") ||
      !std::strcmp(argv[1], "help")) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const auto& c : epho_tool::Commands())
    if (!std::strcmp(c.name, argv[1])) return c.run(argc - 1, argv + 1);
  std::fprintf(stderr, "epho: unknown command '%s'\n\n", argv[1]);
  Usage(stderr);
  return 2;
}
