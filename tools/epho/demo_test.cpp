#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "registry.h"
#include "test_util.h"

namespace {

bool SummaryHas(const epho_tool::DemoContext& demo, const std::string& text) {
  return std::any_of(demo.summary.begin(), demo.summary.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace

// Every registered demo stage runs and succeeds in a scratch folder (the demo
// is the README's first command, so a broken stage must fail the tests), and
// the summary holds the block's results against the truth: the check points
// within twice the simulated image noise taken to the ground, the fitted
// scan affines and the matched rays within their bounds, and the
// triangulation's files beside the block.
TEST(Demo, EveryStageSucceedsAndTheCheckPointsMeetTheNoise) {
  testutil::ScratchDir dir("demo");
  epho_tool::DemoContext demo;
  demo.workdir = dir.path().string();
  auto stages = epho_tool::DemoStages();
  std::stable_sort(stages.begin(), stages.end(),
                   [](const auto& a, const auto& b) { return a.order < b.order; });
  for (const auto& s : stages) EXPECT_TRUE(s.run(demo)) << "stage " << s.name;

  auto value = [&](const std::string& key) {
    auto it = demo.values.find(key);
    EXPECT_NE(it, demo.values.end()) << key;
    return it == demo.values.end() ? -1.0 : it->second;
  };
  const double noise_xy = value("summary.noise_xy_m"), noise_z = value("summary.noise_z_m");
  ASSERT_GT(noise_xy, 0.0);
  EXPECT_GT(noise_z, noise_xy);  // the height-to-base ratio is above 1
  EXPECT_LE(value("triangulation.check_rmse.x"), 2 * noise_xy);
  EXPECT_LE(value("triangulation.check_rmse.y"), 2 * noise_xy);
  EXPECT_LE(value("triangulation.check_rmse.z"), 2 * noise_z);
  EXPECT_GT(value("triangulation.check_rmse.x"), 0.0);  // the noise is really there
  EXPECT_GE(value("triangulation.check_points"), 10.0);
  EXPECT_LT(value("fiducials.affine_error_px"), 0.25);
  EXPECT_LT(value("matching.rmse_px"), 0.3);
  EXPECT_GE(value("matching.tie_points"), 200.0);
  EXPECT_TRUE(SummaryHas(demo, "check point RMSE against the known truth"));
  EXPECT_TRUE(SummaryHas(demo, "simulated image noise"));
  for (const char* file : {"demo.blk", "demo_triangulation.txt", "demo_triangulation.json",
                           "demo_triangulation.svg", "demo_camera.cam", "tie_points.txt"})
    EXPECT_TRUE(std::filesystem::exists(dir.path() / file)) << file;
}
