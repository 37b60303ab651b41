// `epho block import` and `epho block export` through the whole tool: the
// hand-written sample project imported and triangulated, the block that
// comes out exported to a COLMAP model and imported again unchanged, and bad
// input refused with the file and line and no block left behind.
#include "block_interchange_command.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "epho/angles.h"
#include "platform/estr/utf8.h"
#include "registry.h"
#include "test_util.h"

namespace {

namespace ix = epho::interchange;
namespace fs = std::filesystem;

const std::string kData = std::string(EPHO_SOURCE_DIR) + "/testdata/interchange";

struct Outcome {
  int rc;
  std::string out, err;
};

Outcome RunEpho(std::vector<std::string> args) {
  args.insert(args.begin(), "epho");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Outcome o;
  o.rc = epho_tool::Main(static_cast<int>(argv.size()), argv.data());
  std::fflush(stdout);
  std::fflush(stderr);
  o.out = testing::internal::GetCapturedStdout();
  o.err = testing::internal::GetCapturedStderr();
  return o;
}

ix::Project Load(const std::string& file) {
  EtxtTextU name(kzdv::FromUtf8(file));
  EphoBlockFile* b = EphoBlockFile::Open(name, false);
  ix::Project p;
  if (!b) {
    ADD_FAILURE() << "cannot open " << file;
    return p;
  }
  std::string error;
  EXPECT_TRUE(epho_tool::GetProject(b, &p, &error)) << error;
  b->Close();
  return p;
}

bool Project(const Epho_Camera& camera, const double X[3], double pixel[2]) {
  Epho_CameraXform* xf =
      epho_CameraXformGetFromCameraData(epho_CameraCopy(&camera, nullptr), nullptr);
  double g[3] = {X[0], X[1], X[2]};
  const bool ok = xf && epho_CameraXformTransform3DTo2D(xf, 1, g, pixel, nullptr);
  epho_CameraXformDelete(xf);
  return ok;
}

void Rotation(const Epho_Camera& c, double R[9]) {
  epho_RotateAll(c.coeffs + 6, R,
                 c.RotationSystem == EPHO_OMEGA_PHI_KAPPA ? 2
                 : c.RotationSystem == 1                  ? 1
                                                          : 0);
}

TEST(BlockImport, HandWrittenProjectTriangulates) {
  testutil::ScratchDir dir("ix_e2e");
  const std::string block = dir.File("strip.blk");
  Outcome in = RunEpho({"block", "import", block, "--project", kData + "/project/project.txt"});
  ASSERT_EQ(in.rc, 0) << in.err;
  EXPECT_NE(in.out.find("3 images"), std::string::npos) << in.out;
  EXPECT_NE(in.out.find("control 6, check 2"), std::string::npos) << in.out;

  Outcome tri = RunEpho({"triangulate", block, "--report", dir.File("report.txt")});
  ASSERT_EQ(tri.rc, 0) << tri.out << tri.err;
  EXPECT_NE(tri.out.find("converged"), std::string::npos) << tri.out;

  // The check points come back to their surveyed place within a ground
  // pixel (16 cm at this scale), and every tie point got coordinates.
  const ix::Project p = Load(block);
  int ties = 0;
  for (const ix::Point& q : p.points) {
    if (q.usage == GCP_TIE) {
      EXPECT_TRUE(q.known) << q.id;
      ++ties;
    }
  }
  EXPECT_GT(ties, 10);
  const size_t at = tri.out.find("check points RMSE");
  ASSERT_NE(at, std::string::npos) << tri.out;
  double rx = 9, ry = 9, rz = 9;
  ASSERT_EQ(std::sscanf(tri.out.c_str() + at, "check points RMSE X %lf Y %lf Z %lf", &rx, &ry, &rz),
            3);
  EXPECT_LT(rx, 0.16);
  EXPECT_LT(ry, 0.16);
  EXPECT_LT(rz, 0.5);
}

TEST(BlockExport, ExportedAndImportedAgainIsTheSameBlock) {
  testutil::ScratchDir dir("ix_rt");
  const std::string block = dir.File("strip.blk"), again = dir.File("again.blk");
  ASSERT_EQ(RunEpho({"block", "import", block, "--project", kData + "/project/project.txt"}).rc, 0);
  ASSERT_EQ(RunEpho({"triangulate", block, "--report", dir.File("r.txt")}).rc, 0);
  Outcome out = RunEpho({"block", "export", block, "--colmap", dir.File("model")});
  ASSERT_EQ(out.rc, 0) << out.err;
  EXPECT_NE(out.out.find("1 cameras, 3 images"), std::string::npos) << out.out;
  // COLMAP knows no control points: the control file marks them again.
  Outcome in = RunEpho({"block", "import", again, "--colmap", dir.File("model"), "--control",
                        kData + "/project/control.txt"});
  ASSERT_EQ(in.rc, 0) << in.err;

  const ix::Project a = Load(block), b = Load(again);
  ASSERT_EQ(a.images.size(), b.images.size());
  ASSERT_EQ(a.points.size(), b.points.size());
  std::map<int32_t, const Epho_Camera*> ca, cb;
  for (size_t i = 0; i < a.images.size(); ++i) {
    EXPECT_EQ(b.images[i].id, a.images[i].id);
    EXPECT_EQ(b.images[i].name, a.images[i].name);
    EXPECT_EQ(b.images[i].columns, a.images[i].columns);
    EXPECT_EQ(b.images[i].rows, a.images[i].rows);
    const Epho_Camera &x = *a.images[i].camera, &y = *b.images[i].camera;
    for (int k = 3; k < 6; ++k) EXPECT_NEAR(y.coeffs[k], x.coeffs[k], 1e-9) << "centre " << k;
    double Rx[9], Ry[9];
    Rotation(x, Rx);
    Rotation(y, Ry);
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(Ry[k], Rx[k], 1e-12) << "rotation " << k;
    ca[a.images[i].id] = &x;
    cb[b.images[i].id] = &y;
  }
  // The import orders the points by id.
  std::map<int32_t, const ix::Point*> byId;
  for (const ix::Point& q : b.points) byId[q.id] = &q;
  size_t observations = 0;
  for (size_t i = 0; i < a.points.size(); ++i) {
    const ix::Point& p = a.points[i];
    ASSERT_TRUE(byId.count(p.id)) << p.id;
    const ix::Point& q = *byId.at(p.id);
    EXPECT_EQ(q.usage, p.usage) << p.id;
    EXPECT_EQ(q.std, p.std) << p.id;
    EXPECT_NEAR(q.X, p.X, 1e-9);
    EXPECT_NEAR(q.Y, p.Y, 1e-9);
    EXPECT_NEAR(q.Z, p.Z, 1e-9);
    ASSERT_EQ(q.observations.size(), p.observations.size()) << p.id;
    for (size_t k = 0; k < p.observations.size(); ++k) {
      const ix::Observation &o = p.observations[k], &r = q.observations[k];
      EXPECT_EQ(r.image, o.image);
      EXPECT_NEAR(r.x, o.x, 1e-9);
      EXPECT_NEAR(r.y, o.y, 1e-9);
      // The cameras: the same pixel of the point through both, lens included.
      const double X[3] = {p.X, p.Y, p.Z};
      double u[2], v[2];
      ASSERT_TRUE(Project(*ca.at(o.image), X, u));
      ASSERT_TRUE(Project(*cb.at(o.image), X, v));
      EXPECT_NEAR(v[0], u[0], 1e-9 * 3000);
      EXPECT_NEAR(v[1], u[1], 1e-9 * 3000);
      ++observations;
    }
  }
  EXPECT_GT(observations, 50u);
}

TEST(BlockImport, BadInputIsRefusedAndNothingIsWritten) {
  testutil::ScratchDir dir("ix_bad");
  for (const auto& e : fs::directory_iterator(kData + "/project"))
    fs::copy_file(e.path(), dir.path() / e.path().filename());
  {
    std::ofstream f(dir.File("measurements.txt"), std::ios::app);
    f << "strip_1 101 12.5\n";
  }
  const std::string block = dir.File("b.blk");
  Outcome o = RunEpho({"block", "import", block, "--project", dir.File("project.txt")});
  EXPECT_EQ(o.rc, 1);
  EXPECT_NE(o.err.find("measurements.txt:71: expected 4 values (image point x y), found 3"),
            std::string::npos)
      << o.err;
  EXPECT_FALSE(fs::exists(block));

  // No source, two sources, a block already there, a control point the
  // model lacks; and an export of tie points never triangulated.
  EXPECT_EQ(RunEpho({"block", "import", block}).rc, 1);
  EXPECT_EQ(RunEpho({"block", "import", block, "--project", "p", "--colmap", "c"}).rc, 2);
  ASSERT_EQ(RunEpho({"block", "import", block, "--project", kData + "/project/project.txt"}).rc, 0);
  o = RunEpho({"block", "import", block, "--colmap", kData + "/colmap"});
  EXPECT_EQ(o.rc, 1);
  EXPECT_NE(o.err.find("already exists"), std::string::npos) << o.err;
  o = RunEpho({"block", "import", dir.File("c.blk"), "--colmap", kData + "/colmap", "--control",
               kData + "/project/control.txt"});
  EXPECT_EQ(o.rc, 1);
  EXPECT_NE(o.err.find("control.txt:2: point 101 is not in the block"), std::string::npos) << o.err;
  EXPECT_FALSE(fs::exists(dir.File("c.blk")));
  o = RunEpho({"block", "export", block, "--colmap", dir.File("model")});
  EXPECT_EQ(o.rc, 1);
  EXPECT_NE(o.err.find("has no ground coordinates (triangulate the block first)"),
            std::string::npos)
      << o.err;
  EXPECT_FALSE(fs::exists(dir.File("model/points3D.txt")));
}

}  // namespace
