// Four-parameter similarity between two point sets, in closed form anchored
// at the first point (used for two-point affines and fiducial prediction).
#include <cmath>

#include "epho/planar.h"

extern "C" {

Emsc_Boolean epho_Similar(int32_t n, const double* source_xy, const double* target_xy,
                          double* similarity) KZDV_NOEXCEPT {
  if (n < 2 || source_xy == nullptr || target_xy == nullptr || similarity == nullptr) {
    return EMSC_TRUE;
  }
  const double sx0 = source_xy[0], sy0 = source_xy[1];
  const double tx0 = target_xy[0], ty0 = target_xy[1];
  double spread_target = 0.0, spread_source = 0.0, dot = 0.0, cross = 0.0;
  double mean_sx = sx0, mean_sy = sy0, mean_tx = tx0, mean_ty = ty0;
  for (int32_t i = 1; i < n; ++i) {
    const double* s = source_xy + 2 * static_cast<std::ptrdiff_t>(i);
    const double* t = target_xy + 2 * static_cast<std::ptrdiff_t>(i);
    mean_sx += s[0];
    mean_sy += s[1];
    mean_tx += t[0];
    mean_ty += t[1];
    const double dsx = s[0] - sx0, dsy = s[1] - sy0;
    const double dtx = t[0] - tx0, dty = t[1] - ty0;
    spread_target += dtx * dtx + dty * dty;
    spread_source += dsx * dsx + dsy * dsy;
    dot += dsx * dtx + dsy * dty;
    cross += dsx * dty - dsy * dtx;
  }
  mean_sx /= n;
  mean_sy /= n;
  mean_tx /= n;
  mean_ty /= n;
  // Ratio of spreads about point 0, deliberately not the least-squares scale.
  const double scale = std::sqrt(spread_target / spread_source);
  const double angle = std::atan2(cross, dot);
  const double c = std::cos(angle), s = std::sin(angle);
  similarity[0] = mean_tx - scale * (c * mean_sx - s * mean_sy);
  similarity[1] = mean_ty - scale * (s * mean_sx + c * mean_sy);
  similarity[2] = scale;
  similarity[3] = angle;
  return EMSC_FALSE;
}

}  // extern "C"
