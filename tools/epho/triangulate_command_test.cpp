// `epho triangulate` on a small synthetic block made through the library: a
// strip of three vertical frame photographs over a rolling terrain, whose
// stored orientations are off by metres and milliradians. The refined tie
// points and the check points must come back to the terrain the block was
// built from, the results must be in the saved block, and bad blocks fail
// with the block file untouched.
#include "triangulate_command.h"

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cmath>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/estr/utf8.h"
#include "registry.h"
#include "test_util.h"

namespace {

using epho_tool::BlockFrame;
using epho_tool::ImageMeasure;

constexpr int kSize = 1000;  // pixels a side
constexpr double kPixel = 0.02, kFocal = 30.0, kHeight = 1100.0, kBase = 240.0;

double Terrain(double x, double y) {
  return 100.0 + 25.0 * std::sin(x / 180.0) * std::cos(y / 210.0);
}

Epho_Camera* Camera(double x0, double y0, double z0, double kappa) {
  Epho_Camera* c = epho_CameraCreate(nullptr);
  const double half = kSize * kPixel / 2;
  const double src[6] = {kPixel, 0, -half, 0, -kPixel, half};
  const double inv[6] = {1 / kPixel, 0, half / kPixel, 0, -1 / kPixel, half / kPixel};
  std::copy(src, src + 6, c->forSrcAffine);
  std::copy(inv, inv + 6, c->invSrcAffine);
  c->demsource = EMOD_DEM_CONSTANT;
  c->z_mean = 100.0;
  c->coeffs[0] = kFocal;
  c->coeffs[3] = x0, c->coeffs[4] = y0, c->coeffs[5] = z0;
  c->coeffs[8] = kappa;
  return c;
}

// Ground to pixels through the camera's own transform object.
bool Project(const Epho_Camera* camera, double x, double y, double z, double* px) {
  Epho_CameraXform* xf =
      epho_CameraXformGetFromCameraData(epho_CameraCopy(camera, nullptr), nullptr);
  double g[3] = {x, y, z};
  const bool ok = xf && epho_CameraXformTransform3DTo2D(xf, 1, g, px, nullptr);
  epho_CameraXformDelete(xf);
  return ok;
}

struct Synthetic {
  std::map<int32_t, std::vector<double>> truth;
  std::map<int32_t, Epho_PointUsage> usage;
};

// The block file: frames with perturbed cameras, points measured exactly
// with the true ones. Control on every third row and fourth column.
Synthetic MakeBlock(const std::string& file, bool perturb = true) {
  Synthetic s;
  EtxtTextU name(kzdv::FromUtf8(file));
  EphoBlockFile* b = EphoBlockFile::Open(name, true);
  EtxtTextU units(L"meters");
  b->PutHorizontalUnits(units);
  std::vector<epho_tool::CameraPtr> truth;
  std::vector<BlockFrame> frames;
  const double dx[3] = {0.0, 2.0, 0.0}, dy[3] = {0.0, 0.0, -1.5}, dk[3] = {0.0005, 0.0, 0.0};
  for (int i = 0; i < 3; ++i) {
    truth.emplace_back(Camera(i * kBase, 0, kHeight, 0.0));
    BlockFrame f;
    f.image = "photo_" + std::to_string(i) + ".tif";
    f.id = 11 + i;
    f.columns = f.rows = kSize;
    const double p = perturb ? 1.0 : 0.0;
    f.camera.reset(Camera(i * kBase + p * dx[i], p * dy[i], kHeight, p * dk[i]));
    frames.push_back(std::move(f));
  }
  std::string error;
  EXPECT_TRUE(epho_tool::PutBlockFrames(b, frames, &error)) << error;
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  int32_t id = 100;
  for (int gi = 0; gi < 8; ++gi)
    for (int gj = 0; gj < 14; ++gj) {
      const double x = -240 + 70.0 * gj + 3.0 * gi, y = -250 + 70.0 * gi, z = Terrain(x, y);
      std::vector<ImageMeasure> m;
      for (int i = 0; i < 3; ++i) {
        double px[2];
        if (Project(truth[i].get(), x, y, z, px) && px[0] > 5 && px[1] > 5 && px[0] < kSize - 5 &&
            px[1] < kSize - 5)
          m.push_back({11 + i, px[0], px[1]});
      }
      if (m.size() < 2) continue;
      const Epho_PointUsage u = gi % 3 == 0 && gj % 4 == 1   ? GCP_CONTROL
                                : gi % 3 == 1 && gj % 4 == 3 ? GCP_CHECK
                                                             : GCP_TIE;
      // Tie points start at a wrong place: the run intersects them anew.
      edlm_Add(points.Get(),
               epho_tool::MakeGroundPoint(++id, u, u == GCP_TIE ? 0 : x, u == GCP_TIE ? 0 : y,
                                          u == GCP_TIE ? 0 : z, 0.01f, m),
               nullptr);
      s.truth[id] = {x, y, z};
      s.usage[id] = u;
    }
  b->PutObjectPointsList(points);
  b->Save();
  b->Close();
  return s;
}

std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(Triangulate, FramesRoundTripThroughTheBlockFile) {
  testutil::ScratchDir dir("tri_frames");
  const std::string file = dir.File("strip.blk");
  MakeBlock(file);
  EtxtTextU name(kzdv::FromUtf8(file));
  EphoBlockFile* b = EphoBlockFile::Open(name, false);
  ASSERT_NE(b, nullptr);
  std::vector<BlockFrame> frames;
  std::string error;
  ASSERT_TRUE(epho_tool::GetBlockFrames(b, &frames, &error)) << error;
  b->Close();
  ASSERT_EQ(frames.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(frames[i].image, "photo_" + std::to_string(i) + ".tif");
    EXPECT_EQ(frames[i].id, 11 + i);
    EXPECT_EQ(frames[i].rows, kSize);
    epho_tool::CameraPtr expected(Camera(i * kBase + (i == 1 ? 2.0 : 0.0), i == 2 ? -1.5 : 0.0,
                                         kHeight, i == 0 ? 0.0005 : 0.0));
    EXPECT_TRUE(epho_CamerasAreSame(frames[i].camera.get(), expected.get())) << "frame " << i;
  }
}

TEST(Triangulate, RefinedPointsComeBackToTheTerrainAndAreSaved) {
  testutil::ScratchDir dir("tri_run");
  const std::string file = dir.File("strip.blk");
  const Synthetic s = MakeBlock(file);
  epho_tool::TriangulateOptions o;
  o.block = file;
  o.json = dir.File("run.json");
  o.plot = dir.File("run.svg");
  o.quiet = true;
  epho_tool::TriangulateResult r;
  ASSERT_EQ(epho_tool::Triangulate(o, &r), 0);
  EXPECT_TRUE(r.converged);
  EXPECT_EQ(r.images, 3);
  EXPECT_GT(r.control, 3);
  EXPECT_GT(r.check, 3);
  EXPECT_GT(r.tie, 20);
  EXPECT_EQ(r.report, dir.File("strip_triangulation.txt"));
  EXPECT_NE(Bytes(r.report).find("Image ID = 12"), std::string::npos);
  EXPECT_NE(Bytes(o.plot).find("<svg"), std::string::npos);
  boost::property_tree::ptree json;
  ASSERT_NO_THROW(boost::property_tree::read_json(o.json, json));
  EXPECT_EQ(json.get<int>("iterations"), r.iterations);

  // The saved block, read back: ties at the terrain, check residuals equal
  // to given minus truth-close adjusted points, image residuals stored.
  EtxtTextU name(kzdv::FromUtf8(file));
  EphoBlockFile* b = EphoBlockFile::Open(name, false);
  ASSERT_NE(b, nullptr);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  b->GetObjectPointsListCopy(points);
  b->Close();
  double tieWorst = 0, checkWorst = 0, imageResidual = 0;
  int ties = 0;
  for (long k = 0; k < points.Count(); ++k) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
    const std::vector<double>& t = s.truth.at(gp->id);
    if (gp->pointUsage == GCP_TIE) {
      tieWorst = std::fmax(tieWorst, std::fabs(gp->groundX - t[0]));
      tieWorst = std::fmax(tieWorst, std::fabs(gp->groundY - t[1]));
      tieWorst = std::fmax(tieWorst, std::fabs(gp->groundZ - t[2]));
      ++ties;
    } else {
      EXPECT_EQ(gp->groundX, t[0]) << "given coordinates stay";
      if (gp->pointUsage == GCP_CHECK)
        checkWorst = std::fmax(checkWorst, std::hypot(gp->residualX, gp->residualY, gp->residualZ));
    }
    for (long j = 0; j < edlm_CountList(gp->imagePoints); ++j) {
      auto* ip = static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, j, nullptr));
      imageResidual = std::fmax(imageResidual, std::hypot(ip->residualX, ip->residualY));
    }
  }
  EXPECT_EQ(ties, r.tie);
  // The stored orientations are off by up to 2 m (3 pixels); refined, the
  // points come back within a fraction of a ground pixel (0.73 m).
  EXPECT_LT(tieWorst, 0.35);
  EXPECT_LT(checkWorst, 0.35);
  EXPECT_GT(checkWorst, 0.0) << "residuals were written";
  EXPECT_LT(r.checkRmse[2], 0.25);
  EXPECT_LT(imageResidual, 0.5);
  EXPECT_GT(imageResidual, 0.0) << "image residuals were written";
}

// Blocks the command must refuse, each leaving the file byte-identical.
TEST(Triangulate, BadBlocksFailAndLeaveTheFile) {
  testutil::ScratchDir dir("tri_bad");
  struct Case {
    const char* what;
    std::function<void(EphoBlockFile*)> spoil;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"no images",
       [](EphoBlockFile* b) {
         EdlmList none(EphoBlockFile::freeBlkImage);
         none.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeBlkImage, nullptr, nullptr));
         b->PutImageList(none, nullptr, nullptr);
       },
       "no images"},
      {"foreign frames",
       [](EphoBlockFile* b) {
         Emif_Design* d = emif_DesignCreate(L"Other_Frame", EMIF_T_DOUBLE, L"f", 0, nullptr);
         EdlmList images(EphoBlockFile::freeBlkImage);
         images.Reset(
             edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeBlkImage, nullptr, nullptr));
         double f = 30;
         edlm_Add(images.Get(), emsc_MemDup(&f, sizeof f), nullptr);
         long size = sizeof f;
         b->PutImageList(images, &size, d);
         emif_DesignDestroy(d);
       },
       "Other_Frame"},
      {"unknown image",
       [](EphoBlockFile* b) {
         EdlmList points(EphoBlockFile::freeGroundPoint);
         b->GetObjectPointsListCopy(points);
         auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), 3, nullptr));
         static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, 0, nullptr))->imageId = 99;
         b->PutObjectPointsList(points);
       },
       "image 99"},
      {"no control",
       [](EphoBlockFile* b) {
         EdlmList points(EphoBlockFile::freeGroundPoint);
         b->GetObjectPointsListCopy(points);
         for (long k = 0; k < points.Count(); ++k)
           static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr))->pointUsage =
               GCP_TIE;
         b->PutObjectPointsList(points);
       },
       "no control"},
  };
  for (const Case& c : cases) {
    const std::string file = dir.File(std::string(c.what).replace(2, 1, "_") + ".blk");
    MakeBlock(file);
    EtxtTextU name(kzdv::FromUtf8(file));
    EphoBlockFile* b = EphoBlockFile::Open(name, false);
    c.spoil(b);
    b->Save();
    b->Close();
    const std::string before = Bytes(file);
    epho_tool::TriangulateOptions o;
    o.block = file;
    o.quiet = true;
    testing::internal::CaptureStderr();
    const int rc = epho_tool::Triangulate(o, nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 1) << c.what;
    EXPECT_NE(err.find(c.message), std::string::npos) << c.what << ": " << err;
    EXPECT_EQ(Bytes(file), before) << c.what;
  }
  epho_tool::TriangulateOptions o;
  o.block = dir.File("missing.blk");
  o.quiet = true;
  testing::internal::CaptureStderr();
  EXPECT_EQ(epho_tool::Triangulate(o, nullptr), 1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("no such block"), std::string::npos);
}

TEST(Triangulate, UsageErrorsExitTwo) {
  for (std::vector<std::string> args : {std::vector<std::string>{"triangulate"},
                                        {"triangulate", "a.blk", "--terms", "7"},
                                        {"triangulate", "a.blk", "--image-std", "abc"}}) {
    args.insert(args.begin(), "epho");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int rc = epho_tool::Main(static_cast<int>(argv.size()), argv.data());
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 2) << args[2];
  }
}

}  // namespace
