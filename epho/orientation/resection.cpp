// Space resection of a frame camera from control points.
#include <Eigen/Dense>
#include <cmath>
#include <vector>

#include "epho/angles.h"
#include "epho/orientation.h"
#include "epho/orientation/dlt_internal.h"
#include "platform/eerr/error_frame.h"

namespace {

constexpr int kMaxIterations = 30;

short RotationCode(int32_t rotation_system) {
  return rotation_system == 0 ? 2 : rotation_system == 1 ? 1 : 0;
}

void StoreOrientation(const Eigen::Matrix3d& R, const Eigen::Vector3d& C, short code,
                      double* outer) {
  double Rrow[9];
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 3; ++k) Rrow[3 * r + k] = R(r, k);
  outer[0] = C(0), outer[1] = C(1), outer[2] = C(2);
  epho_GetAngleFromRotMatrix(outer + 3, Rrow, code);
}

// Approximate orientation from a projective fit between film and the best
// plane through the ground points: with plane axes e1, e2 and centroid c,
// film ~ Kc R^T [e1 e2 c-C] (a, b, 1). Suits aerial blocks, whose control is
// nearly planar. Returns null or a reason.
const wchar_t* ApproximateFromPlane(const double* film, const double* ground, int n, double f,
                                    short code, double* outer) {
  Eigen::MatrixXd P(n, 3);
  for (int i = 0; i < n; ++i) P.row(i) << ground[3 * i], ground[3 * i + 1], ground[3 * i + 2];
  const Eigen::RowVector3d c = P.colwise().mean();
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(P.rowwise() - c, Eigen::ComputeThinV);
  Eigen::Vector3d e1 = svd.matrixV().col(0), e2 = svd.matrixV().col(1);
  const Eigen::Vector3d e3 = e1.cross(e2);
  std::vector<double> plane(2 * n);
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector3d d = (P.row(i) - c).transpose();
    plane[2 * i] = d.dot(e1);
    plane[2 * i + 1] = d.dot(e2);
  }
  double h[8];
  if (const wchar_t* why = epho::FitProjective2D(plane.data(), film, n, h)) return why;
  Eigen::Matrix3d H;
  H << h[1], h[2], h[0], h[4], h[5], h[3], h[6], h[7], 1.0;
  const Eigen::Matrix3d Kinv = Eigen::Vector3d(-1.0 / f, -1.0 / f, 1.0).asDiagonal();
  const Eigen::Matrix3d G = Kinv * H;
  double lambda = 2.0 / (G.col(0).norm() + G.col(1).norm());
  // The scene lies on the -w side of the camera: choose the sign of lambda so.
  if (lambda * G(2, 2) > 0) lambda = -lambda;
  Eigen::Matrix3d B;
  B.col(0) = lambda * G.col(0);
  B.col(1) = lambda * G.col(1);
  B.col(2) = B.col(0).cross(B.col(1));
  Eigen::Matrix3d E;
  E << e1, e2, e3;
  const Eigen::Matrix3d Rt_raw = B * E.transpose();
  Eigen::JacobiSVD<Eigen::Matrix3d> s3(Rt_raw, Eigen::ComputeFullU | Eigen::ComputeFullV);
  Eigen::Matrix3d Rt = s3.matrixU() * s3.matrixV().transpose();
  if (Rt.determinant() < 0) return L"No approximate orientation found";
  const Eigen::Matrix3d R = Rt.transpose();
  StoreOrientation(R, c.transpose() - R * (lambda * G.col(2)), code, outer);
  return nullptr;
}

// Approximate orientation from the 11-parameter DLT of >= 6 ground points
// well spread in depth (terrestrial and oblique configurations).
const wchar_t* ApproximateFromDlt(const double* film, const double* ground, int n, short code,
                                  double* outer) {
  Eigen::Matrix<double, 3, 4> P;
  if (const wchar_t* why = epho::FitProjective3D(film, ground, n, &P)) return why;
  Eigen::Matrix3d K, R;
  Eigen::Vector3d C;
  if (!epho::SplitProjection(P, &K, &R, &C)) return L"The fitted DLT is singular";
  StoreOrientation(R, C, code, outer);
  return nullptr;
}

const wchar_t* Approximate(const double* film, const double* ground, int n, double f, short code,
                           double* outer) {
  if (n < 4) return L"At least 4 points are needed without an approximate orientation";
  if (n >= 6 && epho::PlaneDegeneracy(ground, n) > 0.05 &&
      !ApproximateFromDlt(film, ground, n, code, outer))
    return nullptr;
  return ApproximateFromPlane(film, ground, n, f, code, outer);
}

// Residuals (observed - computed, 2n) and the Jacobian of the computed film
// coordinates with respect to (X0, Y0, Z0, angle slots 0..2). Returns false
// when a point lies in the plane of the perspective centre.
bool Linearise(const double* film, const double* ground, int n, double f, short code,
               const double* outer, Eigen::VectorXd& r, Eigen::MatrixXd& J) {
  double R[9];
  epho_RotateAll(outer + 3, R, code);
  // Derivatives of R by the three angles, by central differences of the
  // closed-form matrix (truncation error ~1e-13).
  const double h = 1e-6;
  double dR[3][9];
  for (int k = 0; k < 3; ++k) {
    double a[3] = {outer[3], outer[4], outer[5]}, Rp[9], Rm[9];
    a[k] += h;
    epho_RotateAll(a, Rp, code);
    a[k] -= 2 * h;
    epho_RotateAll(a, Rm, code);
    for (int i = 0; i < 9; ++i) dR[k][i] = (Rp[i] - Rm[i]) / (2 * h);
  }
  for (int i = 0; i < n; ++i) {
    const double d[3] = {ground[3 * i] - outer[0], ground[3 * i + 1] - outer[1],
                         ground[3 * i + 2] - outer[2]};
    // (u, v, w) = R^T d
    double uvw[3];
    for (int c = 0; c < 3; ++c) uvw[c] = R[c] * d[0] + R[3 + c] * d[1] + R[6 + c] * d[2];
    const double u = uvw[0], v = uvw[1], w = uvw[2];
    if (w == 0.0 || !std::isfinite(w)) return false;
    r(2 * i) = film[2 * i] - (-f * u / w);
    r(2 * i + 1) = film[2 * i + 1] - (-f * v / w);
    auto put = [&](int col, const double* duvw) {
      J(2 * i, col) = -f * (duvw[0] * w - u * duvw[2]) / (w * w);
      J(2 * i + 1, col) = -f * (duvw[1] * w - v * duvw[2]) / (w * w);
    };
    for (int k = 0; k < 3; ++k) {  // d(uvw)/dC_k = -R^T e_k = -(row k of R)
      const double duvw[3] = {-R[3 * k], -R[3 * k + 1], -R[3 * k + 2]};
      put(k, duvw);
    }
    for (int k = 0; k < 3; ++k) {
      double duvw[3];
      for (int c = 0; c < 3; ++c)
        duvw[c] = dR[k][c] * d[0] + dR[k][3 + c] * d[1] + dR[k][6 + c] * d[2];
      put(3 + k, duvw);
    }
  }
  return true;
}

// True when every point lies in front of the camera (w < 0, the camera
// looks along its -w axis).
bool AllInFront(const double* ground, int n, short code, const double* outer) {
  double R[9];
  epho_RotateAll(outer + 3, R, code);
  for (int i = 0; i < n; ++i) {
    const double d[3] = {ground[3 * i] - outer[0], ground[3 * i + 1] - outer[1],
                         ground[3 * i + 2] - outer[2]};
    if (!(R[2] * d[0] + R[5] * d[1] + R[8] * d[2] < 0.0)) return false;
  }
  return true;
}

}  // namespace

extern "C" {

Emsc_Boolean epho_Resection(const double* film_xy, const double* ground_xyz, int32_t count,
                            double focal, int32_t rotation_system, Emsc_Boolean use_approximation,
                            double* outer, double* sigma, double* sigma0,
                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Resection";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(film_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(outer, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 3, frame, EMSC_FALSE, L"At least %d control points are needed, %d given", 3,
               static_cast<int>(count));
  EERR_FAIL_IF(!(focal != 0.0) || !std::isfinite(focal), frame, EMSC_FALSE,
               L"The focal length must be finite and nonzero");
  for (int i = 0; i < count; ++i) {
    bool ok = std::isfinite(film_xy[2 * i]) && std::isfinite(film_xy[2 * i + 1]);
    for (int k = 0; k < 3; ++k) ok = ok && std::isfinite(ground_xyz[3 * i + k]);
    EERR_FAIL_IF(!ok, frame, EMSC_FALSE, L"Control point %d is not finite", i);
  }
  try {
    EERR_FAIL_IF(epho::LineDegeneracy(ground_xyz, count, 3) < 1e-9, frame, EMSC_FALSE,
                 L"The control points lie on a line");
    const short code = RotationCode(rotation_system);
    double x[6];
    if (use_approximation) {
      for (int k = 0; k < 6; ++k) x[k] = outer[k];
      for (int k = 0; k < 6; ++k)
        EERR_FAIL_IF(!std::isfinite(x[k]), frame, EMSC_FALSE,
                     L"The approximate orientation is not finite");
    } else {
      const wchar_t* why = Approximate(film_xy, ground_xyz, count, focal, code, x);
      EERR_FAIL_IF(why, frame, EMSC_FALSE, L"No approximate orientation: %s", why);
    }
    // Scale of the ground coordinates for the convergence test of the centre.
    double dist = 0;
    for (int i = 0; i < count; ++i)
      dist += std::hypot(ground_xyz[3 * i] - x[0], ground_xyz[3 * i + 1] - x[1],
                         ground_xyz[3 * i + 2] - x[2]);
    dist = dist / count + 1.0;

    const int m = 2 * count;
    Eigen::VectorXd r(m);
    Eigen::MatrixXd J(m, 6);
    Eigen::Matrix<double, 6, 6> N;
    bool converged = false;
    for (int it = 0; it < kMaxIterations && !converged; ++it) {
      EERR_FAIL_IF(!Linearise(film_xy, ground_xyz, count, focal, code, x, r, J), frame, EMSC_FALSE,
                   L"A control point lies in the plane of the perspective centre");
      N = J.transpose() * J;
      const Eigen::Matrix<double, 6, 1> g = J.transpose() * r;
      // Equilibrate (metres against radians) before judging the condition.
      const Eigen::Matrix<double, 6, 1> s = N.diagonal().cwiseSqrt().cwiseInverse();
      EERR_FAIL_IF(!s.allFinite(), frame, EMSC_FALSE,
                   L"The resection is not determined by these control points");
      const Eigen::Matrix<double, 6, 6> Ns = s.asDiagonal() * N * s.asDiagonal();
      Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, 6, 6>> es(Ns, Eigen::EigenvaluesOnly);
      EERR_FAIL_IF(!(es.eigenvalues()(0) > 1e-12 * es.eigenvalues()(5)), frame, EMSC_FALSE,
                   L"The resection is not determined by these control points");
      const Eigen::Matrix<double, 6, 1> dx = s.asDiagonal() * Ns.ldlt().solve(s.asDiagonal() * g);
      EERR_FAIL_IF(!dx.allFinite(), frame, EMSC_FALSE,
                   L"The resection is not determined by these control points");
      for (int k = 0; k < 6; ++k) x[k] += dx(k);
      converged = dx.head<3>().cwiseAbs().maxCoeff() < 1e-10 * dist &&
                  dx.tail<3>().cwiseAbs().maxCoeff() < 1e-10;
    }
    EERR_FAIL_IF(!converged, frame, EMSC_FALSE, L"The resection did not converge in %d iterations",
                 kMaxIterations);
    // Residuals and normal matrix at the solution for the precision measures.
    EERR_FAIL_IF(!Linearise(film_xy, ground_xyz, count, focal, code, x, r, J), frame, EMSC_FALSE,
                 L"A control point lies in the plane of the perspective centre");
    N = J.transpose() * J;
    EERR_FAIL_IF(!AllInFront(ground_xyz, count, code, x), frame, EMSC_FALSE,
                 L"The solution places control points behind the camera");
    const int redundancy = m - 6;
    const double s0 = redundancy > 0 ? std::sqrt(r.squaredNorm() / redundancy) : 0.0;
    for (int k = 0; k < 6; ++k) outer[k] = x[k];
    if (sigma) {
      const Eigen::Matrix<double, 6, 6> Q = N.inverse();
      for (int k = 0; k < 6; ++k) sigma[k] = s0 * std::sqrt(std::fabs(Q(k, k)));
    }
    if (sigma0) *sigma0 = s0;
    return EMSC_TRUE;
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
