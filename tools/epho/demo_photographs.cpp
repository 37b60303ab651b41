// Demo stage "photographs": the block's 3 strips of 5 photographs, rendered
// as film scans through the frame camera model. Every scan pixel goes to the
// film through the scan's true scan-to-film affine; inside the image area it
// goes on to the ground through the camera (lens distortion, heights
// iterated against the DEM) and takes the ortho's value there; outside it,
// the fiducial marks are drawn at their calibrated film positions. A little
// sensor noise is added. The summary checks ground -> scan -> ground at
// known terrain points.
#include <gdal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "demo_setup.h"
#include "epho/camera.h"
#include "registry.h"

namespace {

using namespace epho_tool::demo;

struct Raster {
  int width = 0, height = 0;
  double gt[6] = {0, 1, 0, 0, 0, 1};
  std::vector<float> cells;
  bool Read(const std::string& path, int band) {
    GDALAllRegister();
    GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
    if (!ds) return false;
    width = GDALGetRasterXSize(ds), height = GDALGetRasterYSize(ds);
    GDALGetGeoTransform(ds, gt);
    cells.resize(size_t(width) * height);
    const bool ok = GDALRasterIO(GDALGetRasterBand(ds, band), GF_Read, 0, 0, width, height,
                                 cells.data(), width, height, GDT_Float32, 0, 0) == CE_None;
    GDALClose(ds);
    return ok;
  }
  // Bilinear value at map (e, n); false off the raster.
  bool At(double e, double n, double* v) const {
    const double c = (e - gt[0]) / gt[1] - 0.5, r = (n - gt[3]) / gt[5] - 0.5;
    const long c0 = long(std::floor(c)), r0 = long(std::floor(r));
    if (c0 < 0 || r0 < 0 || c0 + 1 >= width || r0 + 1 >= height) return false;
    const double fc = c - c0, fr = r - r0;
    auto cell = [&](long cc, long rr) { return double(cells[size_t(rr) * width + cc]); };
    *v = (1 - fr) * ((1 - fc) * cell(c0, r0) + fc * cell(c0 + 1, r0)) +
         fr * ((1 - fc) * cell(c0, r0 + 1) + fc * cell(c0 + 1, r0 + 1));
    return true;
  }
};

// Brightness of a fiducial mark at film offset (dx, dy) mm from its centre:
// a ring, a cross and a centre dot, symmetric about both film axes.
double MarkCover(double dx, double dy) {
  const double r = std::hypot(dx, dy);
  const bool ring = std::fabs(r - 0.32) < 0.05;
  const bool cross = (std::fabs(dx) < 0.035 && std::fabs(dy) < 0.22) ||
                     (std::fabs(dy) < 0.035 && std::fabs(dx) < 0.22);
  return ring || cross || r < 0.06 ? 1.0 : 0.0;
}

constexpr double kBackground = 12.0, kMarkGrey = 235.0, kSensorNoise = 1.5;

// Draws the marks (4 x 4 samples a pixel) into the scan's border.
void DrawMarks(const double scanToFilm[6], const double filmToScan[6], std::vector<float>* scan) {
  const double* c = scanToFilm;
  for (int m = 0; m < kMarkCount; ++m) {
    const double fx = kMarksMm[2 * m], fy = kMarksMm[2 * m + 1];
    const double u = filmToScan[0] * fx + filmToScan[1] * fy + filmToScan[2];
    const double v = filmToScan[3] * fx + filmToScan[4] * fy + filmToScan[5];
    for (int row = int(v) - 12; row <= int(v) + 12; ++row)
      for (int col = int(u) - 12; col <= int(u) + 12; ++col) {
        double cover = 0;
        for (int i = 0; i < 4; ++i)
          for (int j = 0; j < 4; ++j) {
            const double su = col + (j + 0.5) / 4, sv = row + (i + 0.5) / 4;
            cover +=
                MarkCover(c[0] * su + c[1] * sv + c[2] - fx, c[3] * su + c[4] * sv + c[5] - fy);
          }
        float& px = (*scan)[size_t(row) * kScanSize + col];
        px = float(kBackground + (kMarkGrey - kBackground) * cover / 16.0);
      }
  }
}

bool DemoPhotographs(epho_tool::DemoContext& demo) {
  const auto started = std::chrono::steady_clock::now();
  auto dem = demo.files.find("dem");
  auto ortho = demo.files.find("ortho");
  if (dem == demo.files.end() || ortho == demo.files.end()) {
    std::printf("  the terrain stage made no rasters\n");
    return false;
  }
  Raster texture;
  if (!texture.Read(ortho->second, 2)) {
    std::printf("  cannot read the ortho\n");
    return false;
  }
  double worst_m = 0;
  int checked = 0;
  for (int k = 0; k < kPhotos; ++k) {
    double scanToFilm[6], filmToScan[6];
    TrueScanToFilm(k, scanToFilm);
    InvertAffine(scanToFilm, filmToScan);
    Eerr_ErrorReport* err = nullptr;
    Epho_CameraXform* inverse = epho_CameraXformGetFromCameraData(
        MakeCamera(TrueExposure(k), scanToFilm, dem->second, EMOD_INVERSE), &err);
    if (!inverse || !epho_CameraXformFillNoMIFData(inverse, &err)) {
      epho_CameraXformDelete(inverse);
      return PrintReport(err);
    }
    std::vector<float> scan(size_t(kScanSize) * kScanSize, float(kBackground));
    std::vector<double> points;
    std::vector<int> columns;
    bool ok = true;
    for (int r = 0; ok && r < kScanSize; ++r) {
      // The pixel centres of this row inside the image area, to the ground.
      points.clear(), columns.clear();
      for (int c = 0; c < kScanSize; ++c) {
        const double u = c + 0.5, v = r + 0.5;
        const double fx = scanToFilm[0] * u + scanToFilm[1] * v + scanToFilm[2];
        const double fy = scanToFilm[3] * u + scanToFilm[4] * v + scanToFilm[5];
        if (std::fabs(fx) > kFrameHalfMm || std::fabs(fy) > kFrameHalfMm) continue;
        points.insert(points.end(), {u, v});
        columns.push_back(c);
      }
      if (columns.empty()) continue;
      ok = epho_CameraXformTransform(inverse, long(columns.size()), points.data(), nullptr, &err);
      for (size_t i = 0; ok && i < columns.size(); ++i) {
        double value = 0;
        if (texture.At(points[2 * i], points[2 * i + 1], &value))
          scan[size_t(r) * kScanSize + columns[i]] = float(value);
      }
    }
    DrawMarks(scanToFilm, filmToScan, &scan);
    // Known terrain points: ground -> scan -> ground through the model.
    Epho_CameraXform* forward = epho_CameraXformGetFromCameraData(
        MakeCamera(TrueExposure(k), scanToFilm, dem->second, EMOD_FORWARD), &err);
    ok = ok && forward != nullptr;
    const Exposure e = TrueExposure(k);
    for (int i = 0; ok && i < 25; ++i) {
      double g[3] = {e.X - 400 + 200 * (i % 5) + 3.1, e.Y - 400 + 200 * (i / 5) - 2.3, 0}, p[2],
             back[2];
      g[2] = TerrainHeight(g[0], g[1]);
      ok = epho_CameraXformTransform3DTo2D(forward, 1, g, p, &err) &&
           epho_CameraXformTransform(inverse, 1, p, back, &err);
      if (ok) {
        worst_m = std::fmax(worst_m, std::hypot(back[0] - g[0], back[1] - g[1]));
        ++checked;
      }
    }
    epho_CameraXformDelete(forward);
    epho_CameraXformDelete(inverse);
    if (!ok) return PrintReport(err);

    std::mt19937 rng(7000 + k);
    std::normal_distribution<double> noise(0.0, kSensorNoise);
    std::vector<uint8_t> bytes(scan.size());
    for (size_t i = 0; i < scan.size(); ++i)
      bytes[i] = uint8_t(std::lround(std::fmin(255.0, std::fmax(0.0, scan[i] + noise(rng)))));
    const std::string path = demo.workdir + "/" + PhotoName(k) + ".tif";
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), kScanSize, kScanSize,
                                 1, GDT_Byte, nullptr);
    const bool written =
        ds && GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, kScanSize, kScanSize,
                           bytes.data(), kScanSize, kScanSize, GDT_Byte, 0, 0) == CE_None;
    if (ds) GDALClose(ds);
    if (!written) {
      std::printf("  cannot write %s\n", path.c_str());
      return false;
    }
    demo.files["scan." + std::to_string(k)] = path;
    if (demo.verbose) std::printf("  %s rendered\n", path.c_str());
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  // The DEM cells are flat steps and the height iteration stops within 1 m,
  // so a point comes back within the lean of the ray over a metre or two.
  if (checked < 25 * kPhotos || worst_m > 2.0) {
    std::printf("  ground -> scan -> ground misses by %.3f m\n", worst_m);
    return false;
  }
  const double gsd = kScanPixelMm / kFocalMm * (kFlyingZ - kMeanTerrainZ);
  demo.Summary(
      "photographs: %d scans (%d strips x %d) of %dx%d px with %d fiducial marks, rendered "
      "through the frame camera (f %.0f mm, lens distortion) in %.1f s",
      kPhotos, kStrips, kPhotosPerStrip, kScanSize, kScanSize, kMarkCount, kFocalMm, seconds);
  demo.Summary(
      "flight plan: %.0f %% forward and %.0f %% side overlap, base %.0f m, strips %.0f m apart, "
      "ground pixel %.2f m, height/base %.2f; %d ground points back within %.2f m",
      100 * kForwardOverlap, 100 * kSideOverlap, ForwardBase(), StripSpacing(), gsd,
      (kFlyingZ - kMeanTerrainZ) / ForwardBase(), checked, worst_m);
  return true;
}

}  // namespace

EPHO_DEMO_STAGE(35, "photographs", DemoPhotographs);
