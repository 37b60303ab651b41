// Demo stages "fiducials" and "photograph pyramids". On every scan the eight
// fiducial marks of the camera file are found the way an operator would: predict a mark, find
// the symmetry centre of the mark near the prediction, let the measured
// marks predict the next one better; then the film-to-scan affine is fitted
// on all eight and compared with the affine the scan was rendered with. The
// fitted affines are the interior orientation of the block's cameras. Then
// the binomial pyramid levels of every scan are built and checked.
#include <gdal.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "demo_setup.h"
#include "epho/camerafile.h"
#include "epho/fiducial.h"
#include "epho/matching.h"
#include "epho/pyramid.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

using namespace epho_tool::demo;

bool ReadScan(const std::string& path, std::vector<uint32_t>* pixels) {
  GDALAllRegister();
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  if (!ds) return false;
  pixels->resize(size_t(kScanSize) * kScanSize);
  const bool ok = GDALGetRasterXSize(ds) == kScanSize && GDALGetRasterYSize(ds) == kScanSize &&
                  GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, kScanSize, kScanSize,
                               pixels->data(), kScanSize, kScanSize, GDT_UInt32, 0, 0) == CE_None;
  GDALClose(ds);
  return ok;
}

// The calibrated film positions of the marks, from the camera file.
bool CalibratedMarks(const epho_tool::DemoContext& demo, std::vector<point2DWithID>* film) {
  auto file = demo.files.find("camera_file");
  if (file == demo.files.end()) return false;
  Eerr_ErrorReport* err = nullptr;
  Epho_CameraFrameInfo* camera =
      CameraInfoFileRead(kzdv::FromUtf8(file->second).c_str(), nullptr, &err);
  if (!camera) return PrintReport(err);
  for (int m = 0; m < camera->fiducialValueCount / 2; ++m)
    film->push_back({m + 1, camera->fiducials_mm[2 * m], camera->fiducials_mm[2 * m + 1]});
  epho_CameraFrameInfoDelete(camera);
  return film->size() == size_t(kMarkCount);
}

bool DemoFiducials(epho_tool::DemoContext& demo) {
  constexpr uint32_t kHalf = 14;  // window about a mark (its ring is 7.4 px across)
  std::vector<point2DWithID> film;
  if (!CalibratedMarks(demo, &film)) {
    std::printf("  the camera file holds no %d fiducial marks\n", kMarkCount);
    return false;
  }
  double first_miss = 0, later_miss = 0, worst_rms = 0, worst_affine = 0, worst_coefficient = 1;
  for (int k = 0; k < kPhotos; ++k) {
    auto scanFile = demo.files.find("scan." + std::to_string(k));
    std::vector<uint32_t> scan;
    if (scanFile == demo.files.end() || !ReadScan(scanFile->second, &scan)) {
      std::printf("  cannot read the scan of photograph %d\n", k);
      return false;
    }
    double scanToFilm[6], filmToScan[6];
    TrueScanToFilm(k, scanToFilm);
    InvertAffine(scanToFilm, filmToScan);
    FiducialPrediction fiducials;
    fiducials.put_AllFilmCoordinates(kMarkCount, film.data());
    fiducials.put_ImageSize(kScanSize, kScanSize);
    // The marks sit about 5 % of the scan in from its edges.
    fiducials.put_FiducialToEdgePercent(0.05);
    for (int m = 0; m < kMarkCount; ++m) {
      double px = 0, py = 0;
      if (fiducials.get_Prediction(m + 1, &px, &py) != 0) return false;
      const double tx = filmToScan[0] * film[m].x + filmToScan[1] * film[m].y + filmToScan[2];
      const double ty = filmToScan[3] * film[m].x + filmToScan[4] * film[m].y + filmToScan[5];
      const double miss = std::hypot(px - tx, py - ty);
      (m < 2 ? first_miss : later_miss) = std::fmax(m < 2 ? first_miss : later_miss, miss);
      // Wide searches until two marks fix the scan's position and scale.
      const uint32_t radius = m < 2 ? 24 : 6;
      const long margin = long(radius + kHalf + 3);
      const long x = std::clamp(long(std::lround(px - 0.5)), margin, long(kScanSize) - 1 - margin);
      const long y = std::clamp(long(std::lround(py - 0.5)), margin, long(kScanSize) - 1 - margin);
      double cx, cy, coefficient;
      if (epho_FindSymmetryCenter(scan.data(), kScanSize, int32_t(x), int32_t(y), kHalf, kHalf,
                                  radius, &cx, &cy, &coefficient) != 0) {
        std::printf("  photograph %d: no symmetric mark near the prediction of fiducial %d\n", k,
                    m + 1);
        return false;
      }
      worst_coefficient = std::fmin(worst_coefficient, coefficient);
      // Symmetry centres count pixel k's centre as k; the cameras as k + 0.5.
      fiducials.put_MeasuredCoordinates(m + 1, cx + 0.5, cy + 0.5);
    }
    double a[6];
    point2DWithID residuals[kMarkCount];
    const double rms = fiducials.FinalSolve(a, residuals);
    if (rms < 0) {
      std::printf("  photograph %d: the film-to-scan affine cannot be fitted\n", k);
      return false;
    }
    worst_rms = std::fmax(worst_rms, rms);
    // Against the rendering affine over the image area.
    for (int i = 0; i <= 4; ++i)
      for (int j = 0; j <= 4; ++j) {
        const double fx = -kFrameHalfMm + kFrameHalfMm * j / 2,
                     fy = -kFrameHalfMm + kFrameHalfMm * i / 2;
        const double u = a[0] + a[1] * fx + a[2] * fy, v = a[3] + a[4] * fx + a[5] * fy;
        const double tu = filmToScan[0] * fx + filmToScan[1] * fy + filmToScan[2];
        const double tv = filmToScan[3] * fx + filmToScan[4] * fy + filmToScan[5];
        worst_affine = std::fmax(worst_affine, std::hypot(u - tu, v - tv));
      }
    // Kept in the camera record's layout (x' = c0 x + c1 y + c2), film to scan.
    const double c[6] = {a[1], a[2], a[0], a[4], a[5], a[3]};
    for (int i = 0; i < 6; ++i)
      demo.values["scan." + std::to_string(k) + ".film_to_scan." + std::to_string(i)] = c[i];
  }
  demo.values["fiducials.affine_error_px"] = worst_affine;
  demo.Summary(
      "fiducials: %d marks found on each of %d scans by their symmetry centre (coefficient >= "
      "%.2f); first predictions up to %.1f px off, later ones within %.2f px",
      kMarkCount, kPhotos, worst_coefficient, first_miss, later_miss);
  demo.Summary(
      "scan-to-film affines fitted on the marks: RMS residual <= %.3f px, <= %.3f px from the "
      "true affine over the image area",
      worst_rms, worst_affine);
  return worst_affine < 0.25 && worst_rms < 0.25;
}

bool DemoPhotoPyramids(epho_tool::DemoContext& demo) {
  long levels = 0;
  for (int k = 0; k < kPhotos; ++k) {
    auto scanFile = demo.files.find("scan." + std::to_string(k));
    if (scanFile == demo.files.end()) return false;
    const std::wstring name = kzdv::FromUtf8(scanFile->second);
    Eerr_ErrorReport* err = nullptr;
    epho_ComputePyramidLayers3x3(name.c_str(), nullptr, &err);
    if (err) return PrintReport(err);
    if (!epho_PyramidLayersCheck(name.c_str(), nullptr)) {
      std::printf("  the pyramid levels of %s do not check out\n", scanFile->second.c_str());
      return false;
    }
    levels = epho_PyramidLevelCount(kScanSize, kScanSize);
  }
  demo.Summary("photograph pyramids: %d scans with %ld binomial levels each, checked", kPhotos,
               levels);
  return true;
}

}  // namespace

EPHO_DEMO_STAGE(37, "fiducials", DemoFiducials);
EPHO_DEMO_STAGE(38, "photograph pyramids", DemoPhotoPyramids);
