#include "registry.h"

#include <cstdarg>

namespace epho_tool {

std::vector<Command>& Commands() {
  static std::vector<Command> commands;
  return commands;
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

}  // namespace epho_tool
