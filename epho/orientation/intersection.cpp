// Least-squares intersection of rays in ground space.
#include <Eigen/Dense>
#include <cmath>

#include "epho/orientation.h"
#include "platform/eerr/error_frame.h"

extern "C" {

// Minimises sum |(I - d d^T)(P - o)|^2 over P for unit directions d: the
// normal equations sum (I - d d^T) P = sum (I - d d^T) o. Their matrix loses
// rank exactly when all rays are parallel.
Emsc_Boolean epho_GetIntersectionWithPointRays(const double* origins, const double* directions,
                                               int32_t count, double* point, double* rms_distance,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_GetIntersectionWithPointRays";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(origins, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(directions, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(point, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 2, frame, EMSC_FALSE, L"At least %d rays are needed, %d given", 2,
               static_cast<int>(count));
  Eigen::Matrix3d A = Eigen::Matrix3d::Zero();
  Eigen::Vector3d b = Eigen::Vector3d::Zero();
  for (int i = 0; i < count; ++i) {
    const Eigen::Vector3d o(origins[3 * i], origins[3 * i + 1], origins[3 * i + 2]);
    Eigen::Vector3d d(directions[3 * i], directions[3 * i + 1], directions[3 * i + 2]);
    EERR_FAIL_IF(!o.allFinite() || !d.allFinite(), frame, EMSC_FALSE, L"Ray %d is not finite", i);
    const double len = d.norm();
    EERR_FAIL_IF(!(len > 0.0), frame, EMSC_FALSE, L"Ray %d has no direction", i);
    d /= len;
    const Eigen::Matrix3d proj = Eigen::Matrix3d::Identity() - d * d.transpose();
    A += proj;
    b += proj * o;
  }
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> es(A);
  // Eigenvalues of A lie in [0, count]; the smallest is ~count sin^2 of the
  // spread of the ray directions.
  EERR_FAIL_IF(!(es.eigenvalues()(0) > 1e-12 * count), frame, EMSC_FALSE,
               L"The rays are parallel: their intersection is not determined");
  const Eigen::Vector3d P = es.eigenvectors() * (es.eigenvalues().cwiseInverse().asDiagonal() *
                                                 (es.eigenvectors().transpose() * b));
  EERR_FAIL_IF(!P.allFinite(), frame, EMSC_FALSE,
               L"The rays are parallel: their intersection is not determined");
  if (rms_distance) {
    double sum = 0;
    for (int i = 0; i < count; ++i) {
      const Eigen::Vector3d o(origins[3 * i], origins[3 * i + 1], origins[3 * i + 2]);
      const Eigen::Vector3d d =
          Eigen::Vector3d(directions[3 * i], directions[3 * i + 1], directions[3 * i + 2])
              .normalized();
      const Eigen::Vector3d q = P - o;
      sum += (q - d * d.dot(q)).squaredNorm();
    }
    *rms_distance = std::sqrt(sum / count);
  }
  point[0] = P(0), point[1] = P(1), point[2] = P(2);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
