// Demo stage "orientation": two overlapping photographs of a synthetic frame
// camera with lens distortion over a patch of hilly ground. Each photograph is
// oriented by space resection from control points measured on the film (with
// a few micrometres of noise); then the ground points are recovered by
// intersecting the rays of the two photographs.
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "epho/collinearity.h"
#include "epho/orientation.h"
#include "registry.h"

namespace {

constexpr double kFocalMm = 153.0;
constexpr double kNoiseMm = 0.003;

bool DemoOrientation(epho_tool::DemoContext& demo) {
  // Radial lens distortion (primary record, 5 values, model code 0), mm.
  double lens_values[5] = {0.0, 2e-5, -4e-9, 1e-13, 0.0};
  const Epho_CountedDoubles lens{5, lens_values};
  const double truth[2][6] = {{10000.0, 20000.0, 1650.0, 0.012, -0.008, 0.02},
                              {10900.0, 20030.0, 1640.0, -0.006, 0.010, 0.015}};
  double matrix[2][12];
  for (int p = 0; p < 2; ++p) {
    if (epho_Get3x4ParFromInnerOuter(nullptr, truth[p], kFocalMm, 0, 0, matrix[p])) return false;
  }

  // Ground points on a 5 x 5 grid with relief, all seen in both photographs.
  std::mt19937 rng(2026);
  std::normal_distribution<double> noise(0.0, kNoiseMm);
  std::vector<double> ground, film[2];
  for (int i = 0; i < 5; ++i) {
    for (int j = 0; j < 5; ++j) {
      const double X = 10050.0 + 200.0 * i, Y = 19600.0 + 200.0 * j;
      const double Z = 120.0 + 40.0 * std::sin(X / 300.0) * std::cos(Y / 250.0);
      ground.insert(ground.end(), {X, Y, Z});
      for (int p = 0; p < 2; ++p) {
        double x, y, dx, dy;
        if (epho_CameraObjectToImage(matrix[p], X, Y, Z, &x, &y)) return false;
        // The lens displaces the ideal point to where it is measured.
        epho_CameraAwayDistortionIterative(&lens, nullptr, x, y, &dx, &dy, 1.0, 1);
        film[p].insert(film[p].end(), {x + dx + noise(rng), y + dy + noise(rng)});
      }
    }
  }
  const int count = static_cast<int>(ground.size() / 3);
  // Measurements corrected for the known lens distortion.
  for (int p = 0; p < 2; ++p) {
    for (int i = 0; i < count; ++i) {
      double dx, dy;
      epho_CameraAwayDistortion(&lens, nullptr, film[p][2 * i], film[p][2 * i + 1], &dx, &dy);
      film[p][2 * i] -= dx;
      film[p][2 * i + 1] -= dy;
    }
  }

  // Resection of each photograph from the nine control points of the grid's
  // corners, edge midpoints and centre.
  const int control[9] = {0, 2, 4, 10, 12, 14, 20, 22, 24};
  double oriented[2][6], centre_err = 0, angle_err = 0, sigma0 = 0;
  for (int p = 0; p < 2; ++p) {
    std::vector<double> cf, cg;
    for (int k : control) {
      cf.insert(cf.end(), {film[p][2 * k], film[p][2 * k + 1]});
      cg.insert(cg.end(), {ground[3 * k], ground[3 * k + 1], ground[3 * k + 2]});
    }
    double sigma[6], s0;
    Eerr_ErrorReport* err = nullptr;
    if (!epho_Resection(cf.data(), cg.data(), 9, kFocalMm, 0, EMSC_FALSE, oriented[p], sigma, &s0,
                        &err)) {
      eerr_PrintErrorReport(err, nullptr, 0);
      eerr_DeleteErrorReportEx(&err);
      return false;
    }
    for (int k = 0; k < 3; ++k) {
      centre_err = std::fmax(centre_err, std::fabs(oriented[p][k] - truth[p][k]));
      angle_err = std::fmax(angle_err, std::fabs(oriented[p][3 + k] - truth[p][3 + k]));
    }
    sigma0 = std::fmax(sigma0, s0);
  }
  demo.Summary(
      "resection of 2 photos from 9 control points each: centre error <= %.3f m, "
      "angle error <= %.1f urad, sigma0 %.1f um",
      centre_err, angle_err * 1e6, sigma0 * 1e3);

  // Intersection of the rays of both oriented photographs for all points.
  double oriented_matrix[2][12];
  for (int p = 0; p < 2; ++p) {
    if (epho_Get3x4ParFromInnerOuter(nullptr, oriented[p], kFocalMm, 0, 0, oriented_matrix[p]))
      return false;
  }
  double sum2[3] = {0, 0, 0};
  for (int i = 0; i < count; ++i) {
    double origins[6], dirs[6], point[3], rms;
    for (int p = 0; p < 2; ++p) {
      for (int k = 0; k < 3; ++k) origins[3 * p + k] = oriented[p][k];
      if (epho_CameraImageToRay(oriented_matrix[p], film[p][2 * i], film[p][2 * i + 1],
                                dirs + 3 * p))
        return false;
    }
    Eerr_ErrorReport* err = nullptr;
    if (!epho_GetIntersectionWithPointRays(origins, dirs, 2, point, &rms, &err)) {
      eerr_PrintErrorReport(err, nullptr, 0);
      eerr_DeleteErrorReportEx(&err);
      return false;
    }
    for (int k = 0; k < 3; ++k) sum2[k] += std::pow(point[k] - ground[3 * i + k], 2);
  }
  const double rmse_xy = std::sqrt((sum2[0] + sum2[1]) / (2.0 * count));
  const double rmse_z = std::sqrt(sum2[2] / count);
  demo.Summary(
      "intersection of %d points from 2 photos: RMSE XY %.3f m, Z %.3f m "
      "(film noise %.0f um, scale 1:%.0f)",
      count, rmse_xy, rmse_z, kNoiseMm * 1e3, 1500.0 / (kFocalMm * 1e-3));
  // A 3 um film error is about 3 cm on the ground at this scale; heights
  // from a 0.6 base/height ratio are a few times worse.
  return centre_err < 1.0 && rmse_xy < 0.2 && rmse_z < 0.5;
}

}  // namespace

EPHO_DEMO_STAGE(10, "orientation", DemoOrientation);
