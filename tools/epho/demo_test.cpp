#include <gtest/gtest.h>

#include <cstdio>

#include "registry.h"
#include "test_util.h"

// Every registered demo stage runs and succeeds in a scratch folder: the demo
// is the README's first command, so a broken stage must fail the tests.
TEST(Demo, EveryStageSucceeds) {
  testutil::ScratchDir dir("demo");
  epho_tool::DemoContext demo;
  demo.workdir = dir.path().string();
  auto stages = epho_tool::DemoStages();
  std::stable_sort(stages.begin(), stages.end(),
                   [](const auto& a, const auto& b) { return a.order < b.order; });
  for (const auto& s : stages) EXPECT_TRUE(s.run(demo)) << "stage " << s.name;
}
