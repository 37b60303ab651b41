// Ground-to-film projection with radial lens distortion: our collinearity
// kernel (precomputed 3x4 matrix) plus the lens model, per point and as the
// batch call, against OpenCV's projectPoints on the same camera, the same
// distortion terms (k1, k2) and the same 1,000,000 points, single thread, in
// the same run, in processor time of the one thread. Each side takes its
// points in its own layout (ours arrays of X, Y, Z; OpenCV interleaved).
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "bench_util.h"
#include "epho/collinearity.h"

#ifdef EPHO_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

constexpr int kPoints = 1000000;
constexpr double kFocal = 153.0;  // mm

}  // namespace

int main() {
  const double outer[6] = {5000.0, 3000.0, 1650.0, 0.012, -0.008, 0.3};
  double m[12];
  epho_Get3x4ParFromInnerOuter(nullptr, outer, kFocal, 0, 0, m);
  // Radial distortion f(r) = p1 + p2 r^2 + p3 r^4 on film millimetres.
  double lens_values[5] = {0.0, 0.0, 2e-7, -4e-12, 0.0};
  const Epho_CountedDoubles lens{5, lens_values};

  std::vector<double> ground(3 * kPoints), ours(2 * kPoints);
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> uni(-700.0, 700.0);
  for (int i = 0; i < kPoints; ++i) {
    ground[3 * i] = outer[0] + uni(rng);
    ground[3 * i + 1] = outer[1] + uni(rng);
    ground[3 * i + 2] = 100.0 + 0.05 * uni(rng);
  }

  const double t_ours = bench::BestThreadSeconds(5, [&] {
    for (int i = 0; i < kPoints; ++i) {
      const double* P = &ground[3 * i];
      double x, y, dx, dy;
      epho_CameraObjectToImage(m, P[0], P[1], P[2], &x, &y);
      epho_CameraAwayDistortion(&lens, nullptr, x, y, &dx, &dy);
      ours[2 * i] = x + dx;
      ours[2 * i + 1] = y + dy;
    }
  });

  const double ours_others = bench::LastOthers();
  std::vector<double> X(kPoints), Y(kPoints), Z(kPoints), bx(kPoints), by(kPoints);
  for (int i = 0; i < kPoints; ++i)
    X[i] = ground[3 * i], Y[i] = ground[3 * i + 1], Z[i] = ground[3 * i + 2];
  const Epho_FilmProjection projection{m, &lens, nullptr, 0, 0, 0.0, 0.0};
  const double t_batch = bench::BestThreadSeconds(5, [&] {
    epho_CameraObjectToImageBatch(&projection, kPoints, X.data(), Y.data(), Z.data(), bx.data(),
                                  by.data(), nullptr);
  });
  const double batch_others = bench::LastOthers();
  int differ = 0;
  for (int i = 0; i < kPoints; ++i) differ += bx[i] != ours[2 * i] || by[i] != ours[2 * i + 1];
  std::printf("batch and per-point film coordinates: %d of %d points differ in any bit\n", differ,
              kPoints);

#ifdef EPHO_HAVE_OPENCV
  cv::setNumThreads(1);
  // The same camera in OpenCV's frame: camera axes (-u, v, -w) of ours, so
  // that fx = -f, fy = f give film x = -f u / w, y = -f v / w; distortion on
  // normalised coordinates: k1 = p2 f^2, k2 = p3 f^4.
  double R[9];
  {
    // Rows of R^T from the matrix: the numerator rows are the camera u, v
    // axes, the denominator row -w/f.
    for (int c = 0; c < 3; ++c) {
      R[0 + c] = -m[5 + c];          // -u axis
      R[3 + c] = m[9 + c];           // v axis
      R[6 + c] = m[1 + c] * kFocal;  // -w axis
    }
  }
  const cv::Matx33d Rcv(R);
  cv::Vec3d rvec;
  cv::Rodrigues(Rcv, rvec);
  const cv::Vec3d C(outer[0], outer[1], outer[2]);
  const cv::Vec3d tvec = -(Rcv * C);
  const cv::Matx33d K(-kFocal, 0, 0, 0, kFocal, 0, 0, 0, 1);
  const std::vector<double> dist = {lens_values[2] * kFocal * kFocal,
                                    lens_values[3] * std::pow(kFocal, 4), 0.0, 0.0, 0.0};
  const cv::Mat obj(kPoints, 1, CV_64FC3, ground.data());
  std::vector<cv::Point2d> theirs;
  const double t_cv =
      bench::BestThreadSeconds(5, [&] { cv::projectPoints(obj, rvec, tvec, K, dist, theirs); });
  double max_diff = 0;
  for (int i = 0; i < kPoints; ++i) {
    max_diff = std::fmax(max_diff, std::fabs(theirs[i].x - ours[2 * i]));
    max_diff = std::fmax(max_diff, std::fabs(theirs[i].y - ours[2 * i + 1]));
  }
  std::printf("same film coordinates within %.2e mm\n", max_diff);
  const double cv_others = bench::LastOthers();
  bench::PrintComparison("collinearity+radial distortion, 1M points, per point",
                         "cv::projectPoints", t_ours, t_cv, "(no target: per-point calls)",
                         bench::BusyNote(ours_others, cv_others));
  bench::PrintComparison("collinearity+radial distortion, 1M points, batch", "cv::projectPoints",
                         t_batch, t_cv, bench::Target(t_cv / t_batch, 8.0),
                         bench::BusyNote(batch_others, cv_others));
#else
  std::printf(
      "collinearity+radial distortion, 1M points: ours %.4f s per point, %.4f s batch "
      "(OpenCV not found)\n",
      t_ours, t_batch);
#endif
  return 0;
}
