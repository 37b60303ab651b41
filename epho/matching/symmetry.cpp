// Symmetry centre of a mark by correlation with its own mirror image.
//
// A window mirrored about a vertical axis at column a (pixel index units,
// a whole or half number) pairs column a - t with column a + t. Taking the
// first window centred on x1 and the second on x2 with x1 + x2 = 2a, the
// column-mirror cross sum pairs exactly those columns, and the two windows'
// own sums complete the normalised coefficient. For a mark symmetric about
// a0 the coefficient peaks at a = a0; near the peak it falls off with the
// square of the distance (the mirrored difference grows linearly), so a
// parabola through the best half-pixel step and its neighbours locates a0.
#include <cmath>
#include <cstdint>

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"

namespace {

using epho::matching::CoefficientFromSums;

struct AxisPeak {
  double position;     // axis in pixel index units
  double coefficient;  // at the best half-pixel step
  bool interior;       // best step has neighbours on both sides
  bool any;            // some coefficient was not 0
};

// vertical = true: axes x + d/2 (column mirror, window rows centred on
// `across`); false: axes y + d/2 (row mirror, window columns centred on
// `across`).
AxisPeak FindAxis(const uint32_t* image, uint32_t stride, int32_t centre, int32_t across,
                  uint32_t hw, uint32_t hh, int32_t radius, bool vertical) {
  const double n =
      static_cast<double>(2 * static_cast<int64_t>(hw) + 1) * (2 * static_cast<int64_t>(hh) + 1);
  auto coefficient = [&](int32_t d) {
    // Axis at centre + d/2: first window at c1, second at c2, c1 + c2 = 2*centre + d.
    const int32_t c1 = centre + (d >= 0 ? d / 2 : -((-d + 1) / 2));
    const int32_t c2 = 2 * centre + d - c1;
    double s1, ss1, s2, ss2, cross;
    if (vertical) {
      epho_getPixelSumSquareSumU32(image, stride, c1, across, hw, hh, &s1, &ss1);
      epho_getPixelSumSquareSumU32(image, stride, c2, across, hw, hh, &s2, &ss2);
      cross =
          getCrossSumU32ColumnMirror(image, stride, c1, across, image, stride, c2, across, hw, hh);
    } else {
      epho_getPixelSumSquareSumU32(image, stride, across, c1, hw, hh, &s1, &ss1);
      epho_getPixelSumSquareSumU32(image, stride, across, c2, hw, hh, &s2, &ss2);
      cross = getCrossSumU32RowMirror(image, stride, across, c1, image, stride, across, c2, hw, hh);
    }
    return CoefficientFromSums(n, s1, ss1, s2, ss2, cross);
  };
  AxisPeak peak{static_cast<double>(centre), 0.0, false, false};
  int32_t best = 0;
  double best_c = -2.0, before = 0.0, after = 0.0;
  double prev = 0.0;
  for (int32_t d = -2 * radius; d <= 2 * radius; ++d) {
    const double c = coefficient(d);
    if (c != 0.0) peak.any = true;
    if (c > best_c) {
      best_c = c;
      best = d;
      before = prev;
    }
    if (d == best + 1) after = c;
    prev = c;
  }
  peak.coefficient = best_c;
  peak.position = centre + 0.5 * best;
  peak.interior = best > -2 * radius && best < 2 * radius;
  if (peak.interior) {
    const double curvature = before - 2.0 * best_c + after;
    if (curvature < 0.0) {
      const double offset = 0.5 * (before - after) / curvature;  // in half-pixel steps
      peak.position += 0.5 * std::fmax(-0.5, std::fmin(0.5, offset));
    }
  }
  return peak;
}

}  // namespace

extern "C" int epho_FindSymmetryCenter(const uint32_t* image, uint32_t stride, int32_t x, int32_t y,
                                       uint32_t halfWidth, uint32_t halfHeight,
                                       uint32_t searchRadius, double* centre_x, double* centre_y,
                                       double* coefficient) KZDV_NOEXCEPT {
  if (!image || !centre_x || !centre_y || halfWidth > 32767 || halfHeight > 32767 ||
      searchRadius > 32767)
    return 2;
  const int32_t radius = static_cast<int32_t>(searchRadius);
  int32_t cx = x, cy = y;
  AxisPeak vx{}, vy{};
  // The first pass finds the axes with windows around the guess; the second
  // re-centres the windows on that estimate, where they hold the mark best.
  for (int pass = 0; pass < 2; ++pass) {
    vx = FindAxis(image, stride, x, cy, halfWidth, halfHeight, radius, true);
    vy = FindAxis(image, stride, y, cx, halfWidth, halfHeight, radius, false);
    cx = static_cast<int32_t>(std::lround(vx.position));
    cy = static_cast<int32_t>(std::lround(vy.position));
  }
  *centre_x = vx.position;
  *centre_y = vy.position;
  if (coefficient) *coefficient = std::fmin(vx.coefficient, vy.coefficient);
  return vx.interior && vy.interior && vx.any && vy.any ? 0 : 1;
}
