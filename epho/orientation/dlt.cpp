// Direct linear transforms: the planar 8-parameter projective fit and the
// split of an 11-parameter DLT into inner and outer orientation.
#include <Eigen/Dense>
#include <cmath>

#include "epho/angles.h"
#include "epho/orientation.h"
#include "epho/orientation/dlt_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho {

namespace {
// Hartley normalisation: centroid to the origin, mean distance sqrt(2).
Eigen::Matrix3d Normaliser(const double* xy, int n) {
  double cx = 0, cy = 0;
  for (int i = 0; i < n; ++i) cx += xy[2 * i], cy += xy[2 * i + 1];
  cx /= n, cy /= n;
  double d = 0;
  for (int i = 0; i < n; ++i) d += std::hypot(xy[2 * i] - cx, xy[2 * i + 1] - cy);
  d /= n;
  const double s = d > 0 ? std::sqrt(2.0) / d : 1.0;
  Eigen::Matrix3d T;
  T << s, 0, -s * cx, 0, s, -s * cy, 0, 0, 1;
  return T;
}
}  // namespace

double LineDegeneracy(const double* pts, int n, int dim) {
  Eigen::MatrixXd a(n, dim);
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < dim; ++k) a(i, k) = pts[dim * i + k];
  a.rowwise() -= a.colwise().mean();
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a);
  const auto& s = svd.singularValues();
  if (!(s(0) > 0)) return 0.0;
  return s(1) / s(0);
}

double PlaneDegeneracy(const double* pts, int n) {
  Eigen::MatrixXd a(n, 3);
  for (int i = 0; i < n; ++i) a.row(i) << pts[3 * i], pts[3 * i + 1], pts[3 * i + 2];
  a.rowwise() -= a.colwise().mean();
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a);
  const auto& s = svd.singularValues();
  if (!(s(0) > 0)) return 0.0;
  return s(2) / s(0);
}

const wchar_t* FitProjective2D(const double* from, const double* to, int n, double* h) {
  for (int i = 0; i < 2 * n; ++i)
    if (!std::isfinite(from[i]) || !std::isfinite(to[i])) return L"A point is not finite";
  if (LineDegeneracy(from, n, 2) < 1e-10 || LineDegeneracy(to, n, 2) < 1e-10)
    return L"The points lie on a line";
  const Eigen::Matrix3d T1 = Normaliser(from, n), T2 = Normaliser(to, n);
  Eigen::MatrixXd A(2 * n, 9);
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector3d p = T1 * Eigen::Vector3d(from[2 * i], from[2 * i + 1], 1);
    const Eigen::Vector3d q = T2 * Eigen::Vector3d(to[2 * i], to[2 * i + 1], 1);
    A.row(2 * i) << p(0), p(1), 1, 0, 0, 0, -q(0) * p(0), -q(0) * p(1), -q(0);
    A.row(2 * i + 1) << 0, 0, 0, p(0), p(1), 1, -q(1) * p(0), -q(1) * p(1), -q(1);
  }
  // The null vector of A; a second (near) null vector means the fit is not
  // determined (e.g. three of four points on a line).
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(A, Eigen::ComputeFullV);
  const auto& s = svd.singularValues();
  if (s(7) < 1e-10 * s(0)) return L"The projective transform is not determined by these points";
  Eigen::VectorXd v = svd.matrixV().col(8);
  Eigen::Matrix3d Hn;
  Hn << v(0), v(1), v(2), v(3), v(4), v(5), v(6), v(7), v(8);
  const Eigen::Matrix3d H = T2.inverse() * Hn * T1;
  if (!(std::fabs(H(2, 2)) > 1e-12 * H.norm()))
    return L"The projective transform has a vanishing constant term";
  const Eigen::Matrix3d G = H / H(2, 2);
  h[0] = G(0, 2), h[1] = G(0, 0), h[2] = G(0, 1);
  h[3] = G(1, 2), h[4] = G(1, 0), h[5] = G(1, 1);
  h[6] = G(2, 0), h[7] = G(2, 1);
  for (int i = 0; i < 8; ++i)
    if (!std::isfinite(h[i])) return L"The projective transform is not determined by these points";
  return nullptr;
}

// The left block M of P is s Kc R^T with Kc = [[-f, -f k, x0],
// [0, -f a, y0], [0, 0, 1]]. An RQ split M = K Q (K upper triangular with a
// positive diagonal) gives K = Kc diag(-1, -1, 1) up to scale and
// R = Q^T diag(-1, -1, 1); the sign of s is fixed by det(M) so that R is a
// proper rotation. The perspective centre is -M^-1 p4.
bool SplitProjection(const Eigen::Matrix<double, 3, 4>& P, Eigen::Matrix3d* K_out,
                     Eigen::Matrix3d* R_out, Eigen::Vector3d* C_out) {
  if (!P.allFinite()) return false;
  Eigen::Matrix3d M = P.leftCols<3>();
  const double det = M.determinant();
  if (!(std::fabs(det) > 1e-14 * std::pow(M.norm(), 3))) return false;
  const Eigen::Vector3d C = -M.fullPivLu().solve(P.col(3));
  if (det < 0) M = -M;
  // RQ through QR of the flipped transpose.
  Eigen::Matrix3d flip = Eigen::Matrix3d::Zero();
  flip(0, 2) = flip(1, 1) = flip(2, 0) = 1;
  Eigen::HouseholderQR<Eigen::Matrix3d> qr((flip * M).transpose());
  const Eigen::Matrix3d Ra = qr.matrixQR().triangularView<Eigen::Upper>();
  const Eigen::Matrix3d Qa = qr.householderQ();
  Eigen::Matrix3d K = flip * Ra.transpose() * flip;
  Eigen::Matrix3d Q = flip * Qa.transpose();
  for (int i = 0; i < 3; ++i) {
    if (K(i, i) < 0) {
      K.col(i) *= -1;
      Q.row(i) *= -1;
    }
  }
  K /= K(2, 2);
  const Eigen::Matrix3d D = Eigen::Vector3d(-1, -1, 1).asDiagonal();
  *K_out = K;
  *R_out = Q.transpose() * D;
  *C_out = C;
  return K.allFinite() && C.allFinite();
}

const wchar_t* FitProjective3D(const double* film, const double* ground, int n,
                               Eigen::Matrix<double, 3, 4>* P) {
  const Eigen::Matrix3d T2 = Normaliser(film, n);
  Eigen::Vector3d c = Eigen::Vector3d::Zero();
  for (int i = 0; i < n; ++i)
    c += Eigen::Vector3d(ground[3 * i], ground[3 * i + 1], ground[3 * i + 2]);
  c /= n;
  double d = 0;
  for (int i = 0; i < n; ++i)
    d += (Eigen::Vector3d(ground[3 * i], ground[3 * i + 1], ground[3 * i + 2]) - c).norm();
  d /= n;
  if (!(d > 0)) return L"The ground points coincide";
  const double s = std::sqrt(3.0) / d;
  Eigen::Matrix4d T3 = Eigen::Matrix4d::Identity();
  T3.topLeftCorner<3, 3>() *= s;
  T3.topRightCorner<3, 1>() = -s * c;
  Eigen::MatrixXd A(2 * n, 12);
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector4d X =
        T3 * Eigen::Vector4d(ground[3 * i], ground[3 * i + 1], ground[3 * i + 2], 1.0);
    const Eigen::Vector3d q = T2 * Eigen::Vector3d(film[2 * i], film[2 * i + 1], 1.0);
    A.row(2 * i) << X.transpose(), Eigen::RowVector4d::Zero(), -q(0) * X.transpose();
    A.row(2 * i + 1) << Eigen::RowVector4d::Zero(), X.transpose(), -q(1) * X.transpose();
  }
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(A, Eigen::ComputeFullV);
  const auto& sv = svd.singularValues();
  if (sv(10) < 1e-10 * sv(0)) return L"The projective camera is not determined by these points";
  const Eigen::VectorXd v = svd.matrixV().col(11);
  Eigen::Matrix<double, 3, 4> Pn;
  Pn << v(0), v(1), v(2), v(3), v(4), v(5), v(6), v(7), v(8), v(9), v(10), v(11);
  *P = T2.inverse() * Pn * T3;
  return nullptr;
}

}  // namespace epho

extern "C" {

Emsc_Boolean epho_ApplyDLT2D(const double* h, double x, double y, double* X,
                             double* Y) KZDV_NOEXCEPT {
  const double w = 1 + h[6] * x + h[7] * y;
  if (w == 0.0) return EMSC_TRUE;
  *X = (h[0] + h[1] * x + h[2] * y) / w;
  *Y = (h[3] + h[4] * x + h[5] * y) / w;
  return EMSC_FALSE;
}

Emsc_Boolean epho_DeriveDLT2D(const double* from_xy, const double* to_xy, int32_t count,
                              double* coeffs, double* rms, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_DeriveDLT2D";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(from_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(to_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(coeffs, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 4, frame, EMSC_FALSE, L"At least %d point pairs are needed, %d given", 4,
               static_cast<int>(count));
  try {
    double h[8];
    const wchar_t* why = epho::FitProjective2D(from_xy, to_xy, count, h);
    EERR_FAIL_IF(why, frame, EMSC_FALSE, L"%s", why);
    double sum = 0;
    for (int i = 0; i < count; ++i) {
      double X, Y;
      EERR_FAIL_IF(epho_ApplyDLT2D(h, from_xy[2 * i], from_xy[2 * i + 1], &X, &Y), frame,
                   EMSC_FALSE, L"Point %d is mapped to infinity", i);
      sum +=
          (X - to_xy[2 * i]) * (X - to_xy[2 * i]) + (Y - to_xy[2 * i + 1]) * (Y - to_xy[2 * i + 1]);
    }
    for (int i = 0; i < 8; ++i) coeffs[i] = h[i];
    if (rms) *rms = std::sqrt(sum / count);
    return EMSC_TRUE;
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

// The DLT is the camera P = [[L0 L1 L2 L3], [L4 L5 L6 L7], [L8 L9 L10 1]].
Emsc_Boolean epho_DLT2Camera(const double* L, int32_t rotation_system, double* interior,
                             double* outer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_DLT2Camera";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(L, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(interior, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(outer, frame, EMSC_FALSE);
  for (int i = 0; i < 11; ++i)
    EERR_FAIL_IF(!std::isfinite(L[i]), frame, EMSC_FALSE, L"DLT parameter %d is not finite", i);
  Eigen::Matrix<double, 3, 4> P;
  P << L[0], L[1], L[2], L[3], L[4], L[5], L[6], L[7], L[8], L[9], L[10], 1.0;
  Eigen::Matrix3d K, R;
  Eigen::Vector3d C;
  EERR_FAIL_IF(!epho::SplitProjection(P, &K, &R, &C), frame, EMSC_FALSE,
               L"The DLT is singular: its 3x3 block has no inverse");
  interior[0] = K(0, 0);
  interior[1] = K(0, 2);
  interior[2] = K(1, 2);
  interior[3] = K(1, 1) / K(0, 0);
  interior[4] = K(0, 1) / K(0, 0);
  double Rrow[9];
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) Rrow[3 * r + c] = R(r, c);
  const short code = rotation_system == 0 ? 2 : rotation_system == 1 ? 1 : 0;
  outer[0] = C(0), outer[1] = C(1), outer[2] = C(2);
  epho_GetAngleFromRotMatrix(outer + 3, Rrow, code);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
