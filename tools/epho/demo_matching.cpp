// Demo stage "matching": tie points between the two rendered photographs.
// Points on a grid of the left photograph are predicted in the right one
// through the two cameras at the DEM's mean height (the rough orientation a
// project starts with), found by an NCC search around the prediction, and
// refined by least-squares correlation. Their truth is the terrain itself:
// the left pixel taken to the ground through the left camera against the DEM
// and projected into the right photograph; the summary compares both
// matchers against it. The accepted points go to "tie_points.txt" (id, left
// x y, right x y in file pixels, and the true ground X Y Z) for the block
// stage.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "demo_photo.h"
#include "epho/matching.h"
#include "gdal.h"
#include "registry.h"

namespace {

constexpr int kSize = epho_tool::kDemoPhotoSize;

bool ReadBand(const std::string& path, GDALDataType type, void* data, int* w, int* h,
              double* gt = nullptr) {
  GDALAllRegister();
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  if (!ds) return false;
  *w = GDALGetRasterXSize(ds), *h = GDALGetRasterYSize(ds);
  if (gt) GDALGetGeoTransform(ds, gt);
  bool ok = true;
  if (data)
    ok = GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, *w, *h, data, *w, *h, type, 0, 0) ==
         CE_None;
  GDALClose(ds);
  return ok;
}

struct Xform {
  Epho_CameraXform* x = nullptr;
  ~Xform() { epho_CameraXformDelete(x); }
};

// A prepared transform object of a photograph; a constant height instead
// of the DEM when `constant` is given.
bool MakeXform(const epho_tool::DemoContext& demo, const char* which, int direction,
               const double* constant, Xform* out) {
  Epho_Camera* c = epho_tool::DemoPhotoCamera(demo, which, direction);
  if (!c) return false;
  if (constant) c->demsource = EMOD_DEM_CONSTANT, c->z_mean = *constant;
  Eerr_ErrorReport* err = nullptr;
  out->x = epho_CameraXformGetFromCameraData(c, &err);
  if (!out->x || !epho_CameraXformFillNoMIFData(out->x, &err)) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
    return false;
  }
  return true;
}

bool DemoMatching(epho_tool::DemoContext& demo) {
  auto lp = demo.files.find("photo.left"), rp = demo.files.find("photo.right");
  auto dp = demo.files.find("dem");
  if (lp == demo.files.end() || rp == demo.files.end() || dp == demo.files.end()) {
    std::printf("  the photographs stage made no photographs\n");
    return false;
  }
  std::vector<uint8_t> left(size_t(kSize) * kSize), right(size_t(kSize) * kSize);
  int w = 0, h = 0, dw = 0, dh = 0;
  double gt[6];
  bool ok = ReadBand(lp->second, GDT_Byte, left.data(), &w, &h) && w == kSize && h == kSize &&
            ReadBand(rp->second, GDT_Byte, right.data(), &w, &h) && w == kSize && h == kSize &&
            ReadBand(dp->second, GDT_Float32, nullptr, &dw, &dh, gt);
  std::vector<float> dem(size_t(dw) * dh);
  ok = ok && ReadBand(dp->second, GDT_Float32, dem.data(), &dw, &dh);
  if (!ok) {
    std::printf("  cannot read the photographs or the DEM\n");
    return false;
  }
  double mean = 0;
  for (float v : dem) mean += v;
  mean /= double(dem.size());
  auto demAt = [&](double e, double n, double* z) {
    const long c = long(std::floor((e - gt[0]) / gt[1])), r = long(std::floor((n - gt[3]) / gt[5]));
    if (c < 0 || r < 0 || c >= dw || r >= dh) return false;
    *z = dem[size_t(r) * dw + c];
    return true;
  };

  Xform leftFlat, rightForward, leftTrue, rightTrue;
  if (!MakeXform(demo, "left", EMOD_INVERSE, &mean, &leftFlat) ||
      !MakeXform(demo, "right", EMOD_FORWARD, nullptr, &rightForward) ||
      !MakeXform(demo, "left", EMOD_INVERSE, nullptr, &leftTrue) ||
      !MakeXform(demo, "right", EMOD_FORWARD, nullptr, &rightTrue))
    return false;

  const std::string tie_path = demo.workdir + "/tie_points.txt";
  FILE* ties = std::fopen(tie_path.c_str(), "w");
  if (!ties) {
    std::printf("  cannot write %s\n", tie_path.c_str());
    return false;
  }
  const uint32_t half = 10, radius = 24;
  std::vector<char> scratch(epho_NccSearchScratchBytes(half, half, 2 * radius + 1, 2 * radius + 1));
  int points = 0, rejected = 0;
  double ncc_sq = 0, lsc_sq = 0;
  for (int ly = 64; ly <= kSize - 64; ly += 56)
    for (int lx = 64; lx <= kSize - 64; lx += 56) {
      // Prediction at the mean height, truth against the DEM (file pixels:
      // pixel k has its centre at k + 0.5).
      double p[2] = {lx + 0.5, ly + 0.5}, g[3], flat[3], pred[2], truth[2];
      ok = epho_CameraXformTransform(leftFlat.x, 1, p, flat, nullptr) &&
           epho_CameraXformTransform(leftTrue.x, 1, p, g, nullptr);
      flat[2] = mean;
      ok = ok && demAt(g[0], g[1], &g[2]) &&
           epho_CameraXformTransform3DTo2D(rightForward.x, 1, flat, pred, nullptr) &&
           epho_CameraXformTransform(rightTrue.x, 1, g, truth, nullptr);
      if (!ok) {
        ++rejected;
        continue;
      }
      const int cx = int(std::floor(pred[0])), cy = int(std::floor(pred[1]));
      if (cx - int(radius + half) < 1 || cy - int(radius + half) < 1 ||
          cx + int(radius + half) >= kSize - 1 || cy + int(radius + half) >= kSize - 1) {
        ++rejected;  // outside the overlap
        continue;
      }
      Epho_NccPeak peak;
      const int rc = epho_NccSearchByte(left.data(), right.data(), kSize, kSize, lx, ly, half, half,
                                        cx - radius, cy - radius, cx + radius, cy + radius,
                                        scratch.data(), scratch.size(), &peak);
      if (rc != EPHO_NCC_SEARCH_OK || peak.on_border || peak.coefficient < 0.8) {
        ++rejected;
        continue;
      }
      // Least squares from the NCC peak, in the same k + 0.5 positions.
      double rx = peak.subpixel_column + 0.5, ry = peak.subpixel_row + 0.5;
      const int code = epho_OnePtLSCByteHalf(left.data(), kSize, lx, ly, right.data(), kSize, &rx,
                                             &ry, half, half, 10, 0.002f, 2.0f);
      if (code >= 0) {
        ++rejected;
        continue;
      }
      const double ex_ncc = peak.subpixel_column + 0.5 - truth[0],
                   ey_ncc = peak.subpixel_row + 0.5 - truth[1];
      const double ex = rx - truth[0], ey = ry - truth[1];
      ncc_sq += ex_ncc * ex_ncc + ey_ncc * ey_ncc;
      lsc_sq += ex * ex + ey * ey;
      ++points;
      std::fprintf(ties, "%d %.4f %.4f %.4f %.4f %.4f %.4f %.4f\n", 5000 + points, p[0], p[1], rx,
                   ry, g[0], g[1], g[2]);
    }
  const bool written = std::fclose(ties) == 0;
  if (points == 0 || !written) {
    std::printf("  no tie point found\n");
    return false;
  }
  demo.files["tie_points"] = tie_path;
  const double ncc_rmse = std::sqrt(ncc_sq / points), lsc_rmse = std::sqrt(lsc_sq / points);
  demo.values["matching.tie_points"] = points;
  demo.values["matching.rmse_px"] = lsc_rmse;
  demo.Summary(
      "matching: %d tie points on the photographs (%d rejected), RMSE against the true "
      "projections: NCC %.3f px, NCC+LSC %.3f px",
      points, rejected, ncc_rmse, lsc_rmse);
  return points >= 20 && lsc_rmse < 0.5;
}

}  // namespace

EPHO_DEMO_STAGE(40, "matching", DemoMatching);
