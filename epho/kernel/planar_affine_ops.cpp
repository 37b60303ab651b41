// Operations on an offset-first affine (X = a0 + a1*x + a2*y,
// Y = a3 + a4*x + a5*y): its inverse and the bounding box of a mapped
// rectangle.
#include <cmath>
#include <cstdint>
#include <limits>

#include "epho/planar.h"

namespace {

// Truncates towards zero and moves one further out (down for values <= 0,
// up for values > 0), saturating at the 32-bit range; NaN counts as <= 0.
int32_t OutwardInt(double v) {
  constexpr double kMax = std::numeric_limits<int32_t>::max() - 1;
  constexpr double kMin = std::numeric_limits<int32_t>::min() + 1;
  if (v > 0.0) return v >= kMax ? std::numeric_limits<int32_t>::max() : static_cast<int32_t>(v) + 1;
  if (!(v > kMin)) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v) - 1;
}

}  // namespace

extern "C" {

Emsc_Boolean epho_ReverseAffine(double* a) KZDV_NOEXCEPT {
  const double det = a[1] * a[5] - a[4] * a[2];
  if (det == 0.0) return EMSC_TRUE;
  const double a1 = a[5] / det, a2 = -a[2] / det, a4 = -a[4] / det, a5 = a[1] / det;
  const double a0 = -(a1 * a[0] + a2 * a[3]);
  const double a3 = -(a4 * a[0] + a5 * a[3]);
  a[0] = a0;
  a[1] = a1;
  a[2] = a2;
  a[3] = a3;
  a[4] = a4;
  a[5] = a5;
  return EMSC_FALSE;
}

int32_t* epho_GetNewBondingBox(const int32_t* rect_in, const double* a,
                               int32_t* rect_out) KZDV_NOEXCEPT {
  const int32_t corners[4][2] = {{rect_in[0], rect_in[1]},
                                 {rect_in[2], rect_in[3]},
                                 {rect_in[2], rect_in[1]},
                                 {rect_in[0], rect_in[3]}};
  int32_t min_x = 0, min_y = 0, max_x = 0, max_y = 0;
  for (int c = 0; c < 4; ++c) {
    const double x = corners[c][0], y = corners[c][1];
    const int32_t mx = OutwardInt(a[0] + a[1] * x + a[2] * y);
    const int32_t my = OutwardInt(a[3] + a[4] * x + a[5] * y);
    if (c == 0) {
      min_x = max_x = mx;
      min_y = max_y = my;
      continue;
    }
    if (mx < min_x) {
      min_x = mx;
    } else if (mx > max_x) {
      max_x = mx;
    }
    if (my < min_y) {
      min_y = my;
    } else if (my > max_y) {
      max_y = my;
    }
  }
  rect_out[0] = min_x;
  rect_out[1] = min_y;
  rect_out[2] = max_x;
  rect_out[3] = max_y;
  return rect_out;
}

}  // extern "C"
