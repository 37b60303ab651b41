// The 3x4 projection matrix of a frame camera from its inner and outer
// orientation.
#include "epho/angles.h"
#include "epho/collinearity.h"
#include "epho/solvers.h"

extern "C" {

// With T = R * K (K the inner block, last row (-f, 0, 0)), row r of the
// result is T^-1[r] . (P - C): the denominator row gives -w/f and the
// numerators u, v of the camera-frame vector (u, v, w) = R^T (P - C), so that
// x = -f u / w, y = -f v / w.
Emsc_Boolean epho_Get3x4ParFromInnerOuter(const double* inner, const double* outer, double focal,
                                          int32_t rotation_system, int32_t photo_direction,
                                          double* m) KZDV_NOEXCEPT {
  const short code = rotation_system == 0 ? 2 : rotation_system == 1 ? 1 : 0;
  double R[9];
  epho_RotateAll(outer + 3, R, code);

  // K in the left three columns of the output rows while we work.
  if (inner) {
    m[0] = inner[0], m[1] = inner[1], m[2] = inner[2];
    m[4] = inner[3], m[5] = inner[4], m[6] = inner[5];
  } else {
    m[0] = 0.0, m[1] = 1.0, m[2] = 0.0;
    m[4] = 0.0, m[5] = 0.0, m[6] = 1.0;
  }
  m[8] = -focal, m[9] = 0.0, m[10] = 0.0;

  double T[9];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      T[3 * r + c] = R[3 * r] * m[c] + R[3 * r + 1] * m[4 + c] + R[3 * r + 2] * m[8 + c];
    }
  }
  if (epho_Com_Reverse3(T)) return EMSC_TRUE;

  if (photo_direction == 1) {
    for (int r = 0; r < 3; ++r) {
      const double t1 = T[3 * r + 1];
      T[3 * r + 1] = -T[3 * r + 2];
      T[3 * r + 2] = t1;
    }
  }
  const double X0 = outer[0], Y0 = outer[1], Z0 = outer[2];
  for (int r = 0; r < 3; ++r) {
    const double* t = T + 3 * r;
    m[4 * r] = -(X0 * t[0] + Y0 * t[1] + Z0 * t[2]);
    m[4 * r + 1] = t[0];
    m[4 * r + 2] = t[1];
    m[4 * r + 3] = t[2];
  }
  return EMSC_FALSE;
}

}  // extern "C"
