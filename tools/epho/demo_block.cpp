// Demo stages "block" and "triangulation": the photographs, their cameras,
// control, check and the matched tie points as a block file, then the
// triangulation refinement of that block.
//
// The block's cameras are the true ones moved by a metre or two and a few
// tenths of a milliradian, as approximate orientations from navigation data
// would be; control and check points are known terrain points (DEM heights)
// measured at their true projections, tie points are the matching stage's.
// The refinement must bring the check and tie points back to the terrain.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "demo_photo.h"
#include "gdal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "registry.h"
#include "triangulate_command.h"

namespace {

using epho_tool::ImageMeasure;

struct TiePoint {
  int32_t id;
  double lx, ly, rx, ry, x, y, z;
};

std::vector<TiePoint> ReadTies(const std::string& path) {
  std::vector<TiePoint> out;
  std::ifstream in(path);
  TiePoint t;
  while (in >> t.id >> t.lx >> t.ly >> t.rx >> t.ry >> t.x >> t.y >> t.z) out.push_back(t);
  return out;
}

std::string BlockPath(const epho_tool::DemoContext& demo) { return demo.workdir + "/demo.blk"; }

bool DemoBlock(epho_tool::DemoContext& demo) {
  auto tiesFile = demo.files.find("tie_points");
  auto demFile = demo.files.find("dem");
  if (tiesFile == demo.files.end() || demFile == demo.files.end()) {
    std::printf("  the matching stage made no tie points\n");
    return false;
  }
  const std::vector<TiePoint> ties = ReadTies(tiesFile->second);
  const char* names[2] = {"left", "right"};
  epho_tool::CameraPtr truth[2];
  std::vector<epho_tool::BlockFrame> frames;
  // Approximate orientations: centre and attitude errors of each photograph.
  const double dX[2] = {1.2, -0.8}, dY[2] = {-0.9, 1.1}, dZ[2] = {0.7, -0.5};
  const double dAngle[2][3] = {{3e-4, -2e-4, 4e-4}, {-2e-4, 3e-4, -3e-4}};
  for (int k = 0; k < 2; ++k) {
    truth[k].reset(epho_tool::DemoPhotoCamera(demo, names[k], EMOD_FORWARD));
    epho_tool::BlockFrame f;
    f.image = demo.files["photo." + std::string(names[k])];
    f.id = k + 1;
    f.columns = f.rows = epho_tool::kDemoPhotoSize;
    f.camera.reset(epho_CameraCopy(truth[k].get(), nullptr));
    if (!truth[k] || !f.camera) return false;
    f.camera->coeffs[3] += dX[k], f.camera->coeffs[4] += dY[k], f.camera->coeffs[5] += dZ[k];
    for (int a = 0; a < 3; ++a) f.camera->coeffs[6 + a] += dAngle[k][a];
    frames.push_back(std::move(f));
  }

  // Control and check: terrain points on a grid over the overlap, their
  // heights from the DEM cells, measured at their true projections.
  GDALDatasetH ds = GDALOpen(demFile->second.c_str(), GA_ReadOnly);
  if (!ds) return false;
  double gt[6];
  GDALGetGeoTransform(ds, gt);
  const int dw = GDALGetRasterXSize(ds), dh = GDALGetRasterYSize(ds);
  std::vector<float> dem(size_t(dw) * dh);
  const bool read = GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, dw, dh, dem.data(), dw,
                                 dh, GDT_Float32, 0, 0) == CE_None;
  GDALClose(ds);
  if (!read) return false;
  auto height = [&](double e, double n) {
    const long c = long(std::floor((e - gt[0]) / gt[1])), r = long(std::floor((n - gt[3]) / gt[5]));
    return double(dem[size_t(std::min(std::max(r, 0L), long(dh - 1))) * dw +
                      size_t(std::min(std::max(c, 0L), long(dw - 1)))]);
  };
  Epho_CameraXform* xf[2];
  for (int k = 0; k < 2; ++k)
    xf[k] = epho_CameraXformGetFromCameraData(epho_CameraCopy(truth[k].get(), nullptr), nullptr);
  const double xl = demo.values["photo.left.X0"], xr = demo.values["photo.right.X0"];
  const double y0 = demo.values["photo.Y0"];
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  int control = 0, check = 0;
  bool ok = xf[0] && xf[1];
  for (int i = 0; ok && i < 5; ++i)
    for (int j = 0; ok && j < 5; ++j) {
      const double e = xl + (xr - xl) * (j / 4.0) + (j == 0 ? 150 : j == 4 ? -150 : 0);
      const double n = y0 - 800 + 400.0 * i;
      double g[3] = {e, n, height(e, n)}, p[2][2];
      for (int k = 0; ok && k < 2; ++k)
        ok = epho_CameraXformTransform3DTo2D(xf[k], 1, g, p[k], nullptr) != 0;
      const bool isControl = (i % 2 == 0) && (j % 2 == 0);
      const std::vector<ImageMeasure> m = {{1, p[0][0], p[0][1]}, {2, p[1][0], p[1][1]}};
      edlm_Add(points.Get(),
               epho_tool::MakeGroundPoint(100 + 5 * i + j, isControl ? GCP_CONTROL : GCP_CHECK,
                                          g[0], g[1], g[2], 0.05f, m),
               nullptr);
      ++(isControl ? control : check);
    }
  epho_CameraXformDelete(xf[0]);
  epho_CameraXformDelete(xf[1]);
  if (!ok) {
    std::printf("  a control point does not project\n");
    return false;
  }
  for (const TiePoint& t : ties)
    edlm_Add(points.Get(),
             epho_tool::MakeGroundPoint(t.id, GCP_TIE, 0, 0, 0, 0.0f,
                                        {{1, t.lx, t.ly}, {2, t.rx, t.ry}}),
             nullptr);

  const std::string path = BlockPath(demo);
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
    if (!put) {
      std::printf("  %s\n", error.c_str());
      return false;
    }
    // Reopened: the frames' cameras and the points as written.
    b = EphoBlockFile::Open(name, false);
    std::vector<epho_tool::BlockFrame> back;
    EdlmList readPoints(EphoBlockFile::freeGroundPoint);
    ok = b && epho_tool::GetBlockFrames(b, &back, &error) && back.size() == 2;
    if (ok) b->GetObjectPointsListCopy(readPoints);
    if (b) b->Close();
    for (size_t k = 0; ok && k < 2; ++k)
      ok = epho_CamerasAreSame(back[k].camera.get(), frames[k].camera.get()) &&
           back[k].image == frames[k].image;
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
      "block: %s with 2 frame cameras (orientations off by up to %.1f m), %d control, %d check, "
      "%zu tie points; saved, reopened and identical",
      path.c_str(), 1.2, control, check, ties.size());
  return true;
}

bool DemoTriangulation(epho_tool::DemoContext& demo) {
  auto block = demo.files.find("block");
  auto tiesFile = demo.files.find("tie_points");
  if (block == demo.files.end() || tiesFile == demo.files.end()) {
    std::printf("  the block stage made no block\n");
    return false;
  }
  epho_tool::TriangulateOptions o;
  o.block = block->second;
  o.report = demo.workdir + "/demo_triangulation.txt";
  o.json = demo.workdir + "/demo_triangulation.json";
  o.plot = demo.workdir + "/demo_triangulation.svg";
  o.quiet = !demo.verbose;
  epho_tool::TriangulateResult r;
  if (epho_tool::Triangulate(o, &r) != 0) return false;

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
  const double tie[3] = {std::sqrt(sq[0] / std::max(ties, 1)), std::sqrt(sq[1] / std::max(ties, 1)),
                         std::sqrt(sq[2] / std::max(ties, 1))};
  demo.values["triangulation.s0"] = r.s0;
  demo.values["triangulation.check_rmse_z"] = r.checkRmse[2];
  demo.Summary(
      "triangulation: converged in %d iterations, s0 %.4f mm; check points RMSE against the "
      "truth X %.2f Y %.2f Z %.2f m, tie points X %.2f Y %.2f Z %.2f m (a ground pixel is "
      "%.1f m); report %s",
      r.iterations, r.s0, r.checkRmse[0], r.checkRmse[1], r.checkRmse[2], tie[0], tie[1], tie[2],
      demo.values["photo.pixel_mm"] * demo.values["photo.Z0"] / demo.values["photo.focal_mm"],
      r.report.c_str());
  const double horizontal = std::hypot(r.checkRmse[0], r.checkRmse[1]);
  return r.converged && ties > 0 && horizontal < 1.0 && r.checkRmse[2] < 3.0;
}

}  // namespace

EPHO_DEMO_STAGE(45, "block", DemoBlock);
EPHO_DEMO_STAGE(47, "triangulation", DemoTriangulation);
