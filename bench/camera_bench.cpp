// The frame camera transform object on 1,000,000 points, single thread:
// ground to image (collinearity, lens distortion, film-to-pixel affine)
// against OpenCV's projectPoints on the same camera, and image to ground with
// the height iteration on a 2000 x 2000 DEM.
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "epho/angles.h"
#include "epho/camera.h"

#ifdef EPHO_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

constexpr long kPoints = 1000000;
constexpr double kFocal = 152.0;  // mm
constexpr double kX0 = 502000.0, kY0 = 5198000.0, kZ0 = 1900.0;
constexpr int kDem = 2000;  // cells a side, 2 m
constexpr double kDemX = 500000.0, kDemY = 5200000.0, kCell = 2.0;
// Model B: radial k1..k3 and decentring p1, p2 on normalised coordinates.
constexpr double k1 = -0.08, k2 = 0.03, k3 = -0.01, p1 = 4e-4, p2 = -3e-4;

Epho_Camera* Camera() {
  Epho_Camera* c = epho_CameraCreate(nullptr);
  c->coeffs[0] = kFocal;
  c->coeffs[3] = kX0, c->coeffs[4] = kY0, c->coeffs[5] = kZ0;
  c->coeffs[6] = 0.012, c->coeffs[7] = -0.021, c->coeffs[8] = 0.35;
  const double f = kFocal;
  const double lens[11] = {
      2, 1, 0, 0, -k1 / (f * f), -k2 / std::pow(f, 4), -k3 / std::pow(f, 6), -p2 / f, p1 / f, 0, 0};
  c->LensDistortion.count = 11;
  c->LensDistortion.data = static_cast<double*>(emsc_MemDup(lens, sizeof lens));
  c->z_mean = 400.0;
  return c;
}

std::string WriteDem(const std::string& path) {
  GDALAllRegister();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), kDem, kDem, 1, GDT_Float32, nullptr);
  double gt[6] = {kDemX, kCell, 0.0, kDemY, 0.0, -kCell};
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  std::vector<float> z(size_t(kDem) * kDem);
  for (int r = 0; r < kDem; ++r)
    for (int c = 0; c < kDem; ++c)
      z[size_t(r) * kDem + c] = float(400 + 25 * std::sin(c / 150.0) + 15 * std::cos(r / 90.0));
  const CPLErr written = GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, kDem, kDem,
                                      z.data(), kDem, kDem, GDT_Float32, 0, 0);
  GDALClose(ds);
  return written == CE_None ? path : std::string();
}

}  // namespace

int main() {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> uni(-1000.0, 1000.0);

  // ---- ground to image ----
  Epho_CameraXform* forward = epho_CameraXformGetFromCameraData(Camera(), nullptr);
  epho_CameraXformFillNoMIFData(forward, nullptr);
  std::vector<double> ground(3 * kPoints), work(3 * kPoints), ours(2 * kPoints);
  for (long i = 0; i < kPoints; ++i) {
    ground[3 * i] = kX0 + uni(rng);
    ground[3 * i + 1] = kY0 + uni(rng);
    ground[3 * i + 2] = 400.0 + 0.05 * uni(rng);
  }
  const double t_ours = bench::BestThreadSeconds(5, [&] {
    epho_CameraXformTransform3DTo2D(forward, kPoints, ground.data(), ours.data(), nullptr);
  });
  const double ours_others = bench::LastOthers();
#ifdef EPHO_HAVE_OPENCV
  cv::setNumThreads(1);
  // OpenCV looks along +z: its camera axes are (u, -v, -w) of ours, fy = -f;
  // the world origin sits at the perspective centre.
  double angles[3] = {0.012, -0.021, 0.35}, r[9];
  epho_RotateAll(angles, r, 2);
  const cv::Matx33d rt(r[0], r[3], r[6], r[1], r[4], r[7], r[2], r[5], r[8]);
  const cv::Matx33d rcv = cv::Matx33d(1, 0, 0, 0, -1, 0, 0, 0, -1) * rt;
  cv::Vec3d rvec;
  cv::Rodrigues(rcv, rvec);
  const cv::Vec3d tvec(0, 0, 0);
  const cv::Matx33d K(kFocal, 0, 0, 0, -kFocal, 0, 0, 0, 1);
  const std::vector<double> dist = {k1, k2, p1, p2, k3};
  std::vector<double> local(ground);
  for (long i = 0; i < kPoints; ++i)
    local[3 * i] -= kX0, local[3 * i + 1] -= kY0, local[3 * i + 2] -= kZ0;
  const cv::Mat obj(int(kPoints), 1, CV_64FC3, local.data());
  std::vector<cv::Point2d> theirs;
  const double t_cv =
      bench::BestThreadSeconds(5, [&] { cv::projectPoints(obj, rvec, tvec, K, dist, theirs); });
  double max_diff = 0;
  for (long i = 0; i < kPoints; ++i) {
    max_diff = std::fmax(max_diff, std::fabs(theirs[i].x - ours[2 * i]));
    max_diff = std::fmax(max_diff, std::fabs(theirs[i].y - ours[2 * i + 1]));
  }
  std::printf("same film coordinates within %.2e mm\n", max_diff);
  bench::PrintComparison("camera object ground->image, 1M points", "cv::projectPoints", t_ours,
                         t_cv, bench::Target(t_cv / t_ours, 2.0),
                         bench::BusyNote(ours_others, bench::LastOthers()));
#else
  std::printf("camera object ground->image, 1M points: ours %.4f s (OpenCV not found)\n", t_ours);
#endif
  epho_CameraXformDelete(forward);

  // ---- image to ground with the DEM iteration ----
  const auto dir = std::filesystem::temp_directory_path() / "epho_camera_bench";
  std::filesystem::create_directories(dir);
  const std::string dem = WriteDem((dir / "dem.tif").string());
  if (dem.empty()) {
    std::printf("cannot write the benchmark DEM in %s\n", dir.string().c_str());
    return 1;
  }
  Epho_Camera* c = Camera();
  c->direction = EMOD_INVERSE;
  c->demsource = EMOD_DEM_FILE;
  const std::wstring wdem(dem.begin(), dem.end());
  c->demfilename.data = etxt_Text_strdup(wdem.c_str());
  c->demfilename.count = static_cast<int32_t>(wdem.size() + 1);
  Epho_CameraXform* inverse = epho_CameraXformGetFromCameraData(c, nullptr);
  Eerr_ErrorReport* err = nullptr;
  if (!epho_CameraXformFillNoMIFData(inverse, &err)) {
    eerr_PrintErrorReport(err, nullptr, 0);
    return 1;
  }
  // Film points over the whole photograph (the camera has identity affines).
  std::uniform_real_distribution<double> film(-100.0, 100.0);
  std::vector<double> pixels(2 * kPoints), out(2 * kPoints);
  for (long i = 0; i < 2 * kPoints; ++i) pixels[i] = film(rng);
  const double t_inv = bench::BestSeconds(
      3, [&] { epho_CameraXformTransform(inverse, kPoints, pixels.data(), out.data(), nullptr); });
  std::printf("%-48s ours %10.4f s  %.2f million points/s (target >= 1.00)\n",
              "camera object image->ground, DEM 2000x2000", t_inv, kPoints / t_inv / 1e6);
  epho_CameraXformDelete(inverse);
  std::filesystem::remove_all(dir);
  return 0;
}
