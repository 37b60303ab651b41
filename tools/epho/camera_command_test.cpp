#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
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

namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

// Converting a file onto itself works; under a file size limit neither the
// source nor the target changes, no temporary is left, and the tool says so
// with exit 1 instead of dying of SIGXFSZ.
TEST(CameraCommand, ConvertOntoItselfAndUnderASizeLimit) {
  testutil::ScratchDir dir("camcmd_limit");
  std::string old_text = "Frame camera C\nheaderless\n152.5 0.001 -0.002 0 1e-08 0\n0\n";
  old_text += "40\n";
  for (int i = 0; i < 40; ++i) old_text += std::to_string(i * 1.25 - 20) + " ";
  old_text += "\n0\n";
  {
    std::ofstream(dir.File("a.cam"), std::ios::binary) << old_text;
    std::ofstream(dir.File("b.cam"), std::ios::binary) << "other file\n";
  }
  testutil::PrintedReports quiet;
  {
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = old_text.size() + 10;  // the new layout needs more
    setrlimit(RLIMIT_FSIZE, &small);
    const int self = RunCameraCommand({"camera", "convert", dir.File("a.cam"), dir.File("a.cam")});
    const int other = RunCameraCommand({"camera", "convert", dir.File("a.cam"), dir.File("b.cam")});
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(self, 1);
    EXPECT_EQ(other, 1);
  }
  EXPECT_EQ(quiet.texts().size(), 2u);
  EXPECT_EQ(Slurp(dir.File("a.cam")), old_text);
  EXPECT_EQ(Slurp(dir.File("b.cam")), "other file\n");
  int files = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) (void)e, ++files;
  EXPECT_EQ(files, 2);

  ASSERT_EQ(RunCameraCommand({"camera", "convert", dir.File("a.cam"), dir.File("a.cam")}), 0);
  Epho_CameraFrameInfo* c = CameraInfoFileRead(dir.WFile("a.cam").c_str(), nullptr, nullptr);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->fiducialValueCount, 40);
  EXPECT_EQ(c->fiducials_mm[39], 39 * 1.25 - 20);
  epho_CameraFrameInfoDelete(c);
}
