#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "epho/camerafile.h"
#include "registry.h"
#include "test_util.h"

namespace {

int RunCameraCommand(std::vector<std::string> args) {
  args.insert(args.begin(), "epho");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  return epho_tool::Main(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

// `epho camera convert` turns an older headerless file into the current
// layout with the same calibration; `show` reads either layout.
TEST(CameraCommand, ConvertAndShow) {
  testutil::ScratchDir dir("camcmd");
  {
    std::ofstream old(dir.File("old.cam"));
    old << "Frame camera B\nheaderless\n152.5 0.001 -0.002 0 1e-08 0\n0\n"
           "4\n-100 100 100 -100\n2\n3 4.5\n";
  }
  EXPECT_EQ(RunCameraCommand({"camera", "show", dir.File("old.cam")}), 0);
  ASSERT_EQ(RunCameraCommand({"camera", "convert", dir.File("old.cam"), dir.File("new.cam")}), 0);

  std::ifstream in(dir.File("new.cam"));
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(first, "OVT Camera File Version: 2.0");
  Epho_CameraFrameInfo* c = CameraInfoFileRead(dir.WFile("new.cam").c_str(), nullptr, nullptr);
  ASSERT_NE(c, nullptr);
  EXPECT_STREQ(c->cameraName, L"Frame camera B");
  EXPECT_EQ(c->focalLength_mm, 152.5);
  EXPECT_EQ(c->observationKind, EPHO_DISTORTION_RADIAL_DISTANCE);
  ASSERT_EQ(c->fiducialValueCount, 4);
  EXPECT_EQ(c->fiducials_mm[3], -100.0);
  ASSERT_EQ(c->observationValueCount, 2);
  EXPECT_EQ(c->observations[1], 4.5);
  epho_CameraFrameInfoDelete(c);

  testutil::PrintedReports quiet;
  EXPECT_EQ(RunCameraCommand({"camera", "show", dir.File("missing.cam")}), 1);
  EXPECT_EQ(RunCameraCommand({"camera", "convert", dir.File("old.cam")}), 2);
}
