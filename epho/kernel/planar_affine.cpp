// Six-parameter affine fitted by least squares (offset-first layout
// X = a0 + a1*x + a2*y, Y = a3 + a4*x + a5*y); two points give a similarity.
#include <cmath>

#include "epho/planar.h"
#include "epho/solvers.h"

extern "C" {

int32_t epho_Affine(int32_t n, const double* source_xy, const double* target_xy,
                    double* a) KZDV_NOEXCEPT {
  if (n < 2 || source_xy == nullptr || target_xy == nullptr || a == nullptr) return 1;
  if (n == 2) {
    double sim[4];
    if (epho_Similar(n, source_xy, target_xy, sim)) return 2;
    const double c = sim[2] * std::cos(sim[3]), s = sim[2] * std::sin(sim[3]);
    a[0] = sim[0];
    a[1] = c;
    a[2] = -s;
    a[3] = sim[1];
    a[4] = s;
    a[5] = c;
    return 0;
  }
  // Normal matrix of v = (1, x, y) (upper triangle); the two right-hand sides
  // sum(v X) and sum(v Y) are summed in the coefficient array itself, so on a
  // singular normal matrix that is what the caller finds there.
  double normal[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (int k = 0; k < 6; ++k) a[k] = 0.0;
  for (int32_t i = 0; i < n; ++i) {
    const double x = source_xy[2 * static_cast<std::ptrdiff_t>(i)];
    const double y = source_xy[2 * static_cast<std::ptrdiff_t>(i) + 1];
    const double tx = target_xy[2 * static_cast<std::ptrdiff_t>(i)];
    const double ty = target_xy[2 * static_cast<std::ptrdiff_t>(i) + 1];
    normal[0] += 1.0;
    normal[1] += x;
    normal[2] += y;
    normal[4] += x * x;
    normal[5] += x * y;
    normal[8] += y * y;
    a[0] += tx;
    a[1] += x * tx;
    a[2] += y * tx;
    a[3] += ty;
    a[4] += x * ty;
    a[5] += y * ty;
  }
  if (epho_Reverse3S(normal)) return 2;
  const double rhs_x[3] = {a[0], a[1], a[2]}, rhs_y[3] = {a[3], a[4], a[5]};
  for (int r = 0; r < 3; ++r) {
    const double* row = normal + 3 * r;
    a[r] = row[0] * rhs_x[0] + row[1] * rhs_x[1] + row[2] * rhs_x[2];
    a[3 + r] = row[0] * rhs_y[0] + row[1] * rhs_y[1] + row[2] * rhs_y[2];
  }
  return 0;
}

}  // extern "C"
