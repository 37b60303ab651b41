// Eight-parameter projective transform fitted by linearised least squares:
// multiplying out the denominator gives equations linear in a0..a7,
//   X = a0 + a1*x + a2*y - a6*x*X - a7*y*X,  Y = a3 + a4*x + a5*y - a6*x*Y - a7*y*Y.
// The two affine triples share one 3x3 normal matrix, so a0..a5 are
// eliminated through its inverse and the remaining 2x2 system gives a6, a7.
#include <cstddef>

#include "epho/planar.h"
#include "epho/solvers.h"

namespace {

// out (3x2) = N^-1 (3x3 full) * cross (3x2).
void Times3x2(const double* n_inv, const double cross[3][2], double out[3][2]) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 2; ++c) {
      out[r][c] = n_inv[3 * r] * cross[0][c] + n_inv[3 * r + 1] * cross[1][c] +
                  n_inv[3 * r + 2] * cross[2][c];
    }
  }
}

}  // namespace

extern "C" {

int32_t epho_Perspect(int32_t n, const double* source_xy, const double* target_xy,
                      double* a) KZDV_NOEXCEPT {
  if (n < 4 || source_xy == nullptr || target_xy == nullptr || a == nullptr) return 1;
  for (int k = 0; k < 8; ++k) a[k] = 0.0;

  double normal[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  // sum of v^T v, v = (1, x, y)
  double rhs_x[3] = {0, 0, 0}, rhs_y[3] = {0, 0, 0};
  double cross_x[3][2] = {{0, 0}, {0, 0}, {0, 0}};  // sum of v^T (-x*X, -y*X)
  double cross_y[3][2] = {{0, 0}, {0, 0}, {0, 0}};  // sum of v^T (-x*Y, -y*Y)
  double s11 = 0.0, s12 = 0.0, s22 = 0.0, r6 = 0.0, r7 = 0.0;
  for (int32_t i = 0; i < n; ++i) {
    const double x = source_xy[2 * static_cast<std::ptrdiff_t>(i)];
    const double y = source_xy[2 * static_cast<std::ptrdiff_t>(i) + 1];
    const double tx = target_xy[2 * static_cast<std::ptrdiff_t>(i)];
    const double ty = target_xy[2 * static_cast<std::ptrdiff_t>(i) + 1];
    const double v[3] = {1.0, x, y};
    const double wx[2] = {-x * tx, -y * tx};
    const double wy[2] = {-x * ty, -y * ty};
    normal[0] += 1.0;
    normal[1] += x;
    normal[2] += y;
    normal[4] += x * x;
    normal[5] += x * y;
    normal[8] += y * y;
    for (int r = 0; r < 3; ++r) {
      rhs_x[r] += v[r] * tx;
      rhs_y[r] += v[r] * ty;
      for (int c = 0; c < 2; ++c) {
        cross_x[r][c] += v[r] * wx[c];
        cross_y[r][c] += v[r] * wy[c];
      }
    }
    s11 += wx[0] * wx[0] + wy[0] * wy[0];
    s12 += wx[0] * wx[1] + wy[0] * wy[1];
    s22 += wx[1] * wx[1] + wy[1] * wy[1];
    r6 += tx * wx[0] + ty * wy[0];
    r7 += tx * wx[1] + ty * wy[1];
  }
  if (epho_Reverse3S(normal)) return 2;

  // Reduce the 2x2 block and its right-hand side by the X and Y cross blocks.
  double t_x[3][2], t_y[3][2];  // N^-1 times each cross block
  Times3x2(normal, cross_x, t_x);
  Times3x2(normal, cross_y, t_y);
  for (int r = 0; r < 3; ++r) {
    s11 -= cross_x[r][0] * t_x[r][0] + cross_y[r][0] * t_y[r][0];
    s12 -= cross_x[r][0] * t_x[r][1] + cross_y[r][0] * t_y[r][1];
    s22 -= cross_x[r][1] * t_x[r][1] + cross_y[r][1] * t_y[r][1];
    r6 -= t_x[r][0] * rhs_x[r] + t_y[r][0] * rhs_y[r];
    r7 -= t_x[r][1] * rhs_x[r] + t_y[r][1] * rhs_y[r];
  }
  const double det = s22 * s11 - s12 * s12;
  const double a6 = (r6 * s22 - s12 * r7) / det;
  const double a7 = (s11 * r7 - r6 * s12) / det;

  // Back-substitute: each affine triple is N^-1 (rhs - cross * (a6, a7)).
  double red_x[3], red_y[3];
  for (int r = 0; r < 3; ++r) {
    red_x[r] = rhs_x[r] - (cross_x[r][0] * a6 + cross_x[r][1] * a7);
    red_y[r] = rhs_y[r] - (cross_y[r][0] * a6 + cross_y[r][1] * a7);
  }
  for (int r = 0; r < 3; ++r) {
    const double* row = normal + 3 * r;
    a[r] = row[0] * red_x[0] + row[1] * red_x[1] + row[2] * red_x[2];
    a[3 + r] = row[0] * red_y[0] + row[1] * red_y[1] + row[2] * red_y[2];
  }
  a[6] = a6;
  a[7] = a7;
  return 0;
}

}  // extern "C"
