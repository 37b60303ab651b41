// Demo stage "matching": tie points on every overlapping pair of the block
// through epho_AutoTiePair. The cameras are the block's as a project starts
// with them (approximate exposures, fitted scan affines); each scan is
// matched inside the window that holds its image area. The pair results are
// merged into multi-ray tie points: a candidate of the left photograph that
// was found in several right photographs is one ground point seen in all of
// them. Their truth is the terrain the scans were rendered from: the left
// pixel taken to the ground through its true camera against the DEM and
// projected through the true camera of the other photograph. The tie points
// go to "tie_points.txt" for the block stage, one a line: id, the number of
// rays, (image id, x, y) for each (scan pixels), and the true X Y Z.
#include <gdal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "demo_setup.h"
#include "epho/autotie.h"
#include "registry.h"

namespace {

using namespace epho_tool::demo;

struct XformDelete {
  void operator()(Epho_CameraXform* x) const { epho_CameraXformDelete(x); }
};
using XformPtr = std::unique_ptr<Epho_CameraXform, XformDelete>;

XformPtr Prepared(Epho_Camera* camera) {
  if (!camera) return nullptr;
  Eerr_ErrorReport* err = nullptr;
  XformPtr x(epho_CameraXformGetFromCameraData(camera, &err));
  if (!x || !epho_CameraXformFillNoMIFData(x.get(), &err)) {
    PrintReport(err);
    return nullptr;
  }
  return x;
}

// The camera seen from the matching window: window pixel (x, y) is scan
// pixel (x + origin, y + origin).
Epho_Camera* InWindow(Epho_Camera* c) {
  if (!c) return nullptr;
  const double o = kWindowOrigin;
  c->forSrcAffine[2] += (c->forSrcAffine[0] + c->forSrcAffine[1]) * o;
  c->forSrcAffine[5] += (c->forSrcAffine[3] + c->forSrcAffine[4]) * o;
  if (!InvertAffine(c->forSrcAffine, c->invSrcAffine)) {
    epho_CameraDelete(c);
    return nullptr;
  }
  return c;
}

bool ReadScan(const std::string& path, std::vector<uint8_t>* pixels) {
  GDALAllRegister();
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  if (!ds) return false;
  pixels->resize(size_t(kScanSize) * kScanSize);
  const bool ok = GDALGetRasterXSize(ds) == kScanSize && GDALGetRasterYSize(ds) == kScanSize &&
                  GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, kScanSize, kScanSize,
                               pixels->data(), kScanSize, kScanSize, GDT_Byte, 0, 0) == CE_None;
  GDALClose(ds);
  return ok;
}

// The DEM's cell under map (e, n), as the camera's height iteration reads it
// (cells are flat steps); NaN off the DEM.
struct DemCells {
  std::vector<float> z;
  double gt[6] = {0, 1, 0, 0, 0, 1};
  int width = 0, height = 0;
  bool Read(const std::string& path) {
    GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
    if (!ds) return false;
    width = GDALGetRasterXSize(ds), height = GDALGetRasterYSize(ds);
    GDALGetGeoTransform(ds, gt);
    z.resize(size_t(width) * height);
    const bool ok = GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, width, height, z.data(),
                                 width, height, GDT_Float32, 0, 0) == CE_None;
    GDALClose(ds);
    return ok;
  }
  double At(double e, double n) const {
    const long c = long(std::floor((e - gt[0]) / gt[1])), r = long(std::floor((n - gt[3]) / gt[5]));
    if (c < 0 || r < 0 || c >= width || r >= height) return std::nan("");
    return z[size_t(r) * width + c];
  }
};

struct Tie {
  std::map<int, std::pair<double, double>> rays;  // photo -> scan pixel
};

bool DemoMatching(epho_tool::DemoContext& demo) {
  const auto started = std::chrono::steady_clock::now();
  auto dem = demo.files.find("dem");
  DemCells cells;
  if (dem == demo.files.end() || !cells.Read(dem->second)) {
    std::printf("  cannot read the DEM\n");
    return false;
  }
  std::vector<std::vector<uint8_t>> scans(kPhotos);
  std::vector<XformPtr> window(kPhotos), truthInverse(kPhotos), truthForward(kPhotos);
  for (int k = 0; k < kPhotos; ++k) {
    auto f = demo.files.find("scan." + std::to_string(k));
    if (f == demo.files.end() || !ReadScan(f->second, &scans[k])) {
      std::printf("  cannot read the scan of photograph %d\n", k);
      return false;
    }
    double scanToFilm[6];
    TrueScanToFilm(k, scanToFilm);
    window[k] = Prepared(InWindow(BlockCamera(demo, k, EMOD_FORWARD)));
    truthInverse[k] = Prepared(MakeCamera(TrueExposure(k), scanToFilm, dem->second, EMOD_INVERSE));
    truthForward[k] = Prepared(MakeCamera(TrueExposure(k), scanToFilm, dem->second, EMOD_FORWARD));
    if (!window[k] || !truthInverse[k] || !truthForward[k]) {
      std::printf("  the cameras of photograph %d are missing (fiducial stage not run?)\n", k);
      return false;
    }
  }

  // Overlapping pairs: neighbours along a strip up to two bases apart, and
  // across neighbouring strips up to one base along.
  std::vector<std::pair<int, int>> pairs;
  for (int i = 0; i < kPhotos; ++i)
    for (int j = i + 1; j < kPhotos; ++j) {
      const int ds = std::abs(StripOf(i) - StripOf(j)),
                dp = std::abs(PhotoInStrip(i) - PhotoInStrip(j));
      if ((ds == 0 && dp <= 2) || (ds == 1 && dp <= 1)) pairs.emplace_back(i, j);
    }

  Epho_AutoTieParams p;
  epho_AutoTieParamsDefault(&p);
  p.grid_spacing = 48;
  p.search_radius = 16;
  p.epipolar_tolerance = 3.0;  // the approximate orientations move the lines by about a pixel
  const int32_t capacity = epho_AutoTieGridSize(kWindowSize, kWindowSize, p.grid_spacing,
                                                p.template_half, nullptr, nullptr);
  std::vector<Epho_AutoTiePoint> found(static_cast<size_t>(capacity));
  std::map<std::pair<int, int32_t>, Tie> ties;  // (left photo, candidate)
  Epho_AutoTieStats total{};
  size_t done = 0;
  for (const auto& [i, j] : pairs) {
    const Epho_ImageViewByte left{scans[i].data() + size_t(kWindowOrigin) * (kScanSize + 1),
                                  kWindowSize, kWindowSize, kScanSize};
    const Epho_ImageViewByte right{scans[j].data() + size_t(kWindowOrigin) * (kScanSize + 1),
                                   kWindowSize, kWindowSize, kScanSize};
    int32_t count = 0;
    Epho_AutoTieStats stats{};
    Eerr_ErrorReport* err = nullptr;
    if (!epho_AutoTiePair(window[i].get(), &left, window[j].get(), &right, &p, found.data(),
                          capacity, &count, &stats, &err))
      return PrintReport(err);
    for (int32_t n = 0; n < count; ++n) {
      const Epho_AutoTiePoint& t = found[size_t(n)];
      Tie& tie = ties[{i, t.candidate}];
      tie.rays[i] = {t.left_x + kWindowOrigin, t.left_y + kWindowOrigin};
      tie.rays[j] = {t.right_x + kWindowOrigin, t.right_y + kWindowOrigin};
    }
    total.candidates += stats.candidates, total.outside += stats.outside, total.weak += stats.weak;
    total.off_epipolar += stats.off_epipolar, total.lsc_failed += stats.lsc_failed;
    total.accepted += stats.accepted;
    if (++done % 12 == 0 || done == pairs.size())
      std::printf(
          "  %zu/%zu pairs matched, %d pair points, %.1f s\n", done, pairs.size(), total.accepted,
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    std::fflush(stdout);
  }

  // Truth of every ray, and the file for the block stage.
  const std::string tie_path = demo.workdir + "/tie_points.txt";
  FILE* out = std::fopen(tie_path.c_str(), "w");
  if (!out) {
    std::printf("  cannot write %s\n", tie_path.c_str());
    return false;
  }
  double sq = 0;
  long rays = 0, multi = 0;
  int32_t id = 10000;
  for (const auto& [key, tie] : ties) {
    const auto& l = tie.rays.at(key.first);
    double image[2] = {l.first, l.second}, ground[3];
    if (!epho_CameraXformTransform(truthInverse[key.first].get(), 1, image, ground, nullptr))
      continue;
    ground[2] = cells.At(ground[0], ground[1]);
    std::fprintf(out, "%d %zu", ++id, tie.rays.size());
    for (const auto& [photo, xy] : tie.rays) {
      double g[2] = {ground[0], ground[1]}, truth[2];
      if (photo != key.first &&
          epho_CameraXformTransform(truthForward[photo].get(), 1, g, truth, nullptr)) {
        sq += std::pow(xy.first - truth[0], 2) + std::pow(xy.second - truth[1], 2);
        ++rays;
      }
      std::fprintf(out, " %d %.4f %.4f", PhotoId(photo), xy.first, xy.second);
    }
    std::fprintf(out, " %.3f %.3f %.3f\n", ground[0], ground[1], ground[2]);
    multi += tie.rays.size() > 2;
  }
  const bool written = std::fclose(out) == 0;
  const int points = id - 10000;
  if (!written || points == 0) {
    std::printf("  no tie point written\n");
    return false;
  }
  demo.files["tie_points"] = tie_path;
  const double rmse = std::sqrt(sq / double(std::max(rays, 1L)));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  demo.values["matching.tie_points"] = points;
  demo.values["matching.rmse_px"] = rmse;
  demo.Summary(
      "matching: %zu overlapping pairs, %d grid candidates (%d outside the overlap, %d weak, %d "
      "off the epipolar line, %d not refined), %d measured by NCC + LSC in %.1f s",
      pairs.size(), total.candidates, total.outside, total.weak, total.off_epipolar,
      total.lsc_failed, total.accepted, seconds);
  demo.Summary(
      "tie points: %d, %ld of them seen in 3 or more photographs; %ld matched rays against the "
      "true projections: RMSE %.3f px",
      points, multi, rays, rmse);
  return points >= 200 && multi > 0 && rmse < 0.3;
}

}  // namespace

EPHO_DEMO_STAGE(40, "matching", DemoMatching);
