// 7-parameter 3D similarity (scale, rotation, shift) between point sets.
#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <cmath>

#include "epho/orientation.h"
#include "epho/orientation/dlt_internal.h"
#include "platform/eerr/error_frame.h"

extern "C" {

// Closed-form least squares (SVD of the cross-covariance, with the
// reflection guard), so no approximation and no iteration are needed.
Emsc_Boolean epho_Solve3DLinearTrans(const double* from_xyz, const double* to_xyz, int32_t count,
                                     double* scale, double* rotation, double* translation,
                                     double* rms, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Solve3DLinearTrans";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(from_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(to_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(scale, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(rotation, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(translation, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 3, frame, EMSC_FALSE, L"At least %d points are needed, %d given", 3,
               static_cast<int>(count));
  try {
    Eigen::Matrix3Xd src(3, count), dst(3, count);
    for (int i = 0; i < count; ++i) {
      src.col(i) << from_xyz[3 * i], from_xyz[3 * i + 1], from_xyz[3 * i + 2];
      dst.col(i) << to_xyz[3 * i], to_xyz[3 * i + 1], to_xyz[3 * i + 2];
      EERR_FAIL_IF(!src.col(i).allFinite() || !dst.col(i).allFinite(), frame, EMSC_FALSE,
                   L"Point %d is not finite", i);
    }
    EERR_FAIL_IF(epho::LineDegeneracy(from_xyz, count, 3) < 1e-9 ||
                     epho::LineDegeneracy(to_xyz, count, 3) < 1e-9,
                 frame, EMSC_FALSE,
                 L"The points lie on a line: the rotation about it is not determined");
    const Eigen::Matrix4d T = Eigen::umeyama(src, dst, true);
    const Eigen::Matrix3d sR = T.topLeftCorner<3, 3>();
    const double s = std::cbrt(sR.determinant());
    EERR_FAIL_IF(!(s > 0.0) || !T.allFinite(), frame, EMSC_FALSE,
                 L"The points do not determine a similarity transform");
    const Eigen::Matrix3d R = sR / s;
    if (rms) {
      const Eigen::Matrix3Xd res = (sR * src).colwise() + T.topRightCorner<3, 1>() - dst;
      *rms = std::sqrt(res.squaredNorm() / count);
    }
    *scale = s;
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) rotation[3 * r + c] = R(r, c);
      translation[r] = T(r, 3);
    }
    return EMSC_TRUE;
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
