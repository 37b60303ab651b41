// Collinearity through the 3x4 projection matrix: ground to film, film and
// height to ground, and the ground ray of a film point.
#include "epho/collinearity.h"

#include <cmath>

extern "C" {

Emsc_Boolean epho_CameraObjectToImage(const double* m, double X, double Y, double Z, double* x,
                                      double* y) KZDV_NOEXCEPT {
  const double w = m[0] + m[1] * X + m[2] * Y + m[3] * Z;
  if (w == 0.0) return EMSC_TRUE;
  *x = (m[4] + m[5] * X + m[6] * Y + m[7] * Z) / w;
  *y = (m[8] + m[9] * X + m[10] * Y + m[11] * Z) / w;
  return EMSC_FALSE;
}

// Each row i gives A_i*U + B_i*V + C_i for the two unknowns (U, V); the film
// equations row1 - x*row0 = 0 and row2 - y*row0 = 0 are then solved by
// Cramer's rule.
Emsc_Boolean epho_CameraImageAndZToXY(const double* m, int32_t mode, double x, double y,
                                      double height, double* first, double* second) KZDV_NOEXCEPT {
  double A[3], B[3], C[3];
  for (int i = 0; i < 3; ++i) {
    const double* r = m + 4 * i;
    if (mode != 1) {
      A[i] = r[1];
      B[i] = r[2];
      C[i] = r[0] + r[3] * height;
    } else {
      // The height is the negated object Y coordinate in this frame.
      A[i] = r[1];
      B[i] = r[3];
      C[i] = r[0] - r[2] * height;
    }
  }
  A[1] -= x * A[0];
  B[1] -= x * B[0];
  C[1] -= x * C[0];
  A[2] -= y * A[0];
  B[2] -= y * B[0];
  C[2] -= y * C[0];
  const double det = A[1] * B[2] - A[2] * B[1];
  if (det == 0.0) return EMSC_TRUE;
  *first = (B[1] * C[2] - B[2] * C[1]) / det;
  *second = (A[2] * C[1] - A[1] * C[2]) / det;
  return EMSC_FALSE;
}

double epho_GetAverageGroundZ(const double* a, const double* b, double offset,
                              int32_t mode) KZDV_NOEXCEPT {
  if (mode == 1) return (a[1] + b[1]) / 2.0 - offset;
  return (a[2] + b[2]) / 2.0 - offset;
}

// The ray is the intersection of the two planes (row1 - x row0) . P = 0 and
// (row2 - y row0) . P = 0 (linear parts), i.e. their cross product.
Emsc_Boolean epho_CameraImageToRay(const double* m, double x, double y, double* d) KZDV_NOEXCEPT {
  const double a[3] = {m[5] - x * m[1], m[6] - x * m[2], m[7] - x * m[3]};
  const double b[3] = {m[9] - y * m[1], m[10] - y * m[2], m[11] - y * m[3]};
  double c[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
  const double n2 = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
  if (!(n2 > 0.0) || !std::isfinite(n2)) return EMSC_TRUE;
  if (m[1] * c[0] + m[2] * c[1] + m[3] * c[2] < 0.0) {
    c[0] = -c[0];
    c[1] = -c[1];
    c[2] = -c[2];
  }
  d[0] = c[0];
  d[1] = c[1];
  d[2] = c[2];
  return EMSC_FALSE;
}

}  // extern "C"
