// Demo stages "block", "triangulation" and "summary": the scans, their
// cameras, control, check and the matched tie points as a block file; the
// triangulation refinement of that block; and the check points against the
// truth beside the image noise the demo simulates.
//
// The block's cameras are the ones a project starts with: exposures off by
// up to 0.6 m and 0.1 mrad (as navigation data would give them) and the scan affines fitted on the
// fiducial marks. Control and check points are terrain points measured in every scan that shows
// them at their true projections plus Gaussian noise of kImageNoisePx.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "demo_setup.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "registry.h"
#include "triangulate_command.h"

namespace {

using epho_tool::ImageMeasure;
using namespace epho_tool::demo;

struct TiePoint {
  int32_t id = 0;
  std::vector<ImageMeasure> rays;
  double x = 0, y = 0, z = 0;
};

std::vector<TiePoint> ReadTies(const std::string& path) {
  std::vector<TiePoint> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    TiePoint t;
    size_t n = 0;
    if (!(s >> t.id >> n)) continue;
    for (size_t k = 0; k < n; ++k) {
      ImageMeasure m{};
      s >> m.image >> m.x >> m.y;
      t.rays.push_back(m);
    }
    if (s >> t.x >> t.y >> t.z) out.push_back(t);
  }
  return out;
}

bool Fail(const char* what) {
  std::printf("  %s\n", what);
  return false;
}

bool DemoBlock(epho_tool::DemoContext& demo) {
  auto tiesFile = demo.files.find("tie_points");
  auto demFile = demo.files.find("dem");
  if (tiesFile == demo.files.end() || demFile == demo.files.end())
    return Fail("the matching stage made no tie points");
  const std::vector<TiePoint> ties = ReadTies(tiesFile->second);
  std::vector<epho_tool::BlockFrame> frames;
  std::vector<epho_tool::CameraPtr> truth;
  for (int k = 0; k < kPhotos; ++k) {
    epho_tool::BlockFrame f;
    f.image = demo.files["scan." + std::to_string(k)];
    f.id = PhotoId(k);
    f.columns = f.rows = kScanSize;
    f.camera.reset(BlockCamera(demo, k, EMOD_FORWARD));
    double scanToFilm[6];
    TrueScanToFilm(k, scanToFilm);
    truth.emplace_back(MakeCamera(TrueExposure(k), scanToFilm, std::string(), EMOD_FORWARD));
    if (!f.camera || !truth.back()) return Fail("the block's cameras cannot be made");
    frames.push_back(std::move(f));
  }

  // Control and check: terrain points on a 7 x 5 grid over the block (the
  // corners, edge midpoints and centre are control), measured in each scan
  // whose image area shows them.
  std::vector<Epho_CameraXform*> xf;
  for (const auto& c : truth)
    xf.push_back(epho_CameraXformGetFromCameraData(epho_CameraCopy(c.get(), nullptr), nullptr));
  std::mt19937 rng(2026);
  std::normal_distribution<double> noise(0.0, kImageNoisePx);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  const Exposure sw = TrueExposure(0), ne = TrueExposure(kPhotos - 1);
  int control = 0, check = 0;
  long measures = 0;
  bool ok = true;
  for (auto* x : xf) ok = ok && x;
  for (int i = 0; ok && i < 5; ++i)
    for (int j = 0; ok && j < 7; ++j) {
      const double e = sw.X - 50 + (ne.X - sw.X + 100) * j / 6.0;
      const double n = sw.Y - 150 + (ne.Y - sw.Y + 300) * i / 4.0;
      double g[3] = {e, n, TerrainHeight(e, n)};
      std::vector<ImageMeasure> m;
      for (int k = 0; ok && k < kPhotos; ++k) {
        double p[2], scanToFilm[6];
        ok = epho_CameraXformTransform3DTo2D(xf[size_t(k)], 1, g, p, nullptr) != 0;
        TrueScanToFilm(k, scanToFilm);
        const double fx = scanToFilm[0] * p[0] + scanToFilm[1] * p[1] + scanToFilm[2];
        const double fy = scanToFilm[3] * p[0] + scanToFilm[4] * p[1] + scanToFilm[5];
        if (std::fabs(fx) < kFrameHalfMm - 1 && std::fabs(fy) < kFrameHalfMm - 1)
          m.push_back({PhotoId(k), p[0] + noise(rng), p[1] + noise(rng)});
      }
      if (m.size() < 2) continue;
      const bool isControl = i % 2 == 0 && j % 3 == 0;
      edlm_Add(points.Get(),
               epho_tool::MakeGroundPoint(100 + 10 * i + j, isControl ? GCP_CONTROL : GCP_CHECK,
                                          g[0], g[1], g[2], 0.05f, m),
               nullptr);
      ++(isControl ? control : check);
      measures += long(m.size());
    }
  for (auto* x : xf) epho_CameraXformDelete(x);
  if (!ok) return Fail("a control point does not project");
  long tieRays = 0;
  for (const TiePoint& t : ties) {
    edlm_Add(points.Get(), epho_tool::MakeGroundPoint(t.id, GCP_TIE, 0, 0, 0, 0.0f, t.rays),
             nullptr);
    tieRays += long(t.rays.size());
  }

  const std::string path = demo.workdir + "/demo.blk";
  std::remove(path.c_str());
  EtxtTextU name(kzdv::FromUtf8(path));
  std::string error;
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, true);
    EtxtTextU units(L"meters");
    b->PutHorizontalUnits(units);
    b->PutVerticalUnits(units);
    const bool put = epho_tool::PutBlockFrames(b, frames, &error);
    if (put) {
      b->PutObjectPointsList(points);
      b->Save();
    }
    b->Close();
    if (!put) return Fail(error.c_str());
    // Reopened: the frames' cameras and the points as written.
    b = EphoBlockFile::Open(name, false);
    std::vector<epho_tool::BlockFrame> back;
    EdlmList readPoints(EphoBlockFile::freeGroundPoint);
    ok = b && epho_tool::GetBlockFrames(b, &back, &error) && back.size() == frames.size();
    if (ok) b->GetObjectPointsListCopy(readPoints);
    if (b) b->Close();
    for (size_t k = 0; ok && k < frames.size(); ++k)
      ok = epho_CamerasAreSame(back[k].camera.get(), frames[k].camera.get()) &&
           back[k].image == frames[k].image && back[k].id == frames[k].id;
    ok = ok && readPoints.Count() == points.Count();
    for (long k = 0; ok && k < points.Count(); ++k) {
      auto* a = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
      auto* r = static_cast<Epho_GroundPoint*>(edlm_GetAddr(readPoints.Get(), k, nullptr));
      ok = a->id == r->id && a->groundX == r->groundX && a->groundZ == r->groundZ &&
           a->pointUsage == r->pointUsage &&
           edlm_CountList(a->imagePoints) == edlm_CountList(r->imagePoints);
    }
  } catch (const EerrException& e) {
    std::printf("  %s\n", kzdv::ToUtf8(kzdv::ReportText(e.Report())).c_str());
    return false;
  }
  if (!ok) {
    std::printf("  the reopened block differs from what was written %s\n", error.c_str());
    return false;
  }
  demo.files["block"] = path;
  demo.Summary(
      "block: %s with %d frame cameras (exposures off by up to 0.6 m and 0.1 mrad, scan affines "
      "from the fiducials), %d control and %d check points (%ld measurements, %.1f px noise), "
      "%zu tie points (%ld rays); saved, closed, reopened and identical",
      path.c_str(), kPhotos, control, check, measures, kImageNoisePx, ties.size(), tieRays);
  return control >= 4 && check >= 10;
}

bool DemoTriangulation(epho_tool::DemoContext& demo) {
  auto block = demo.files.find("block");
  auto tiesFile = demo.files.find("tie_points");
  if (block == demo.files.end() || tiesFile == demo.files.end())
    return Fail("the block stage made no block");
  epho_tool::TriangulateOptions o;
  o.block = block->second;
  o.report = demo.workdir + "/demo_triangulation.txt";
  o.json = demo.workdir + "/demo_triangulation.json";
  o.plot = demo.workdir + "/demo_triangulation.svg";
  o.imageStd = kImageNoisePx;
  o.quiet = !demo.verbose;
  epho_tool::TriangulateResult r;
  const auto started = std::chrono::steady_clock::now();
  if (epho_tool::Triangulate(o, &r) != 0) return false;
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  // Tie points against the terrain they were matched on.
  std::map<int32_t, TiePoint> truth;
  for (const TiePoint& t : ReadTies(tiesFile->second)) truth[t.id] = t;
  EtxtTextU name(kzdv::FromUtf8(o.block));
  EdlmList points(EphoBlockFile::freeGroundPoint);
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, false);
    if (!b) return false;
    b->GetObjectPointsListCopy(points);
    b->Close();
  } catch (const EerrException& e) {
    std::printf("  %s\n", kzdv::ToUtf8(kzdv::ReportText(e.Report())).c_str());
    return false;
  }
  double sq[3] = {0, 0, 0};
  int ties = 0;
  for (long k = 0; k < points.Count(); ++k) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
    auto t = truth.find(gp->id);
    if (gp->pointUsage != GCP_TIE || t == truth.end()) continue;
    const double d[3] = {gp->groundX - t->second.x, gp->groundY - t->second.y,
                         gp->groundZ - t->second.z};
    for (int a = 0; a < 3; ++a) sq[a] += d[a] * d[a];
    ++ties;
  }
  for (double& v : sq) v = std::sqrt(v / std::max(ties, 1));
  demo.values["triangulation.s0"] = r.s0;
  for (int a = 0; a < 3; ++a)
    demo.values[std::string("triangulation.check_rmse.") + "xyz"[a]] = r.checkRmse[a];
  demo.values["triangulation.check_points"] = r.check;
  demo.Summary(
      "triangulation: %d images, %d control, %d check, %d tie points; converged in %d iterations "
      "(%.1f s), s0 %.4g; tie points against the terrain: RMSE X %.2f Y %.2f Z %.2f m",
      r.images, r.control, r.check, r.tie, r.iterations, seconds, r.s0, sq[0], sq[1], sq[2]);
  demo.Summary("report %s, JSON %s, plot %s", r.report.c_str(), o.json.c_str(), o.plot.c_str());
  return r.converged && ties > 0;
}

// The check points against the truth, beside the simulated image noise
// taken to the ground: one ground pixel per pixel in X and Y, and the
// height-to-base ratio more in Z.
bool DemoSummary(epho_tool::DemoContext& demo) {
  auto x = demo.values.find("triangulation.check_rmse.x");
  if (x == demo.values.end()) return Fail("the triangulation stage did not run");
  const double rmse[3] = {x->second, demo.values["triangulation.check_rmse.y"],
                          demo.values["triangulation.check_rmse.z"]};
  const double gsd = kScanPixelMm / kFocalMm * (kFlyingZ - kMeanTerrainZ);
  const double hb = (kFlyingZ - kMeanTerrainZ) / ForwardBase();
  const double noise[3] = {kImageNoisePx * gsd, kImageNoisePx * gsd, kImageNoisePx * gsd * hb};
  double worst = 0;
  for (int a = 0; a < 3; ++a) worst = std::max(worst, rmse[a] / noise[a]);
  demo.values["summary.noise_xy_m"] = noise[0];
  demo.values["summary.noise_z_m"] = noise[2];
  demo.values["summary.worst_ratio"] = worst;
  demo.Summary(
      "check point RMSE against the known truth: X %.3f m, Y %.3f m, Z %.3f m (%d check points)",
      rmse[0], rmse[1], rmse[2], int(demo.values["triangulation.check_points"]));
  demo.Summary(
      "simulated image noise %.2f px on the ground: %.3f m in X and Y (ground pixel %.3f m), "
      "%.3f m in Z (height/base %.2f)",
      kImageNoisePx, noise[0], gsd, noise[2], hb);
  demo.Summary("check point RMSE / ground noise: X %.2f, Y %.2f, Z %.2f (%s 2)", rmse[0] / noise[0],
               rmse[1] / noise[1], rmse[2] / noise[2], worst <= 2.0 ? "all within" : "NOT within");
  return worst <= 2.0;
}

}  // namespace

EPHO_DEMO_STAGE(45, "block", DemoBlock);
EPHO_DEMO_STAGE(47, "triangulation", DemoTriangulation);
EPHO_DEMO_STAGE(90, "summary", DemoSummary);
