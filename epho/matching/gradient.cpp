// Dominant gradient direction of a window: a histogram of gradient
// directions over the full circle (so a window and its turned copy agree on
// the sense, not only the axis), weighted by gradient magnitude and by a
// Gaussian centred on the window so that pixels near its edge, which enter
// and leave as the window moves, count little.
#include <cmath>
#include <cstdint>

#include "epho/matching.h"

namespace {

constexpr int kBins = 36;
constexpr double kTwoPi = 6.283185307179586;

template <typename P>
int GradientAngle(const P* image, uint32_t stride, int32_t x, int32_t y, uint32_t half_width,
                  uint32_t half_height, double* angle) {
  if (!image || !angle) return 1;
  *angle = 0.0;
  const int32_t hw = static_cast<int32_t>(half_width), hh = static_cast<int32_t>(half_height);
  if (hw < 0 || hh < 0) return 1;
  const std::ptrdiff_t s = stride;
  // Gaussian of half the window size along each axis.
  const double sx = 0.5 * (hw + 0.5), sy = 0.5 * (hh + 0.5);
  const double kx = -0.5 / (sx * sx), ky = -0.5 / (sy * sy);
  double hist[kBins] = {0};
  double total = 0.0;
  for (int32_t i = -hh; i <= hh; ++i) {
    const double wy = std::exp(ky * i * i);
    const P* row = image + (static_cast<std::ptrdiff_t>(y) + i) * s + x;
    for (int32_t j = -hw; j <= hw; ++j) {
      const P* p = row + j;
      const double gx = 0.5 * (static_cast<double>(p[1]) - static_cast<double>(p[-1]));
      const double gy = 0.5 * (static_cast<double>(p[s]) - static_cast<double>(p[-s]));
      const double m = std::sqrt(gx * gx + gy * gy);
      if (!(m > 0.0)) continue;  // also skips NaN pixels
      const double w = m * wy * std::exp(kx * j * j);
      // Linear vote between the two nearest bin centres (bin b centred on
      // b * 10 degrees).
      double pos = std::atan2(gy, gx) / kTwoPi * kBins;
      if (pos < 0) pos += kBins;
      const int b0 = static_cast<int>(pos) % kBins;
      const double f = pos - std::floor(pos);
      hist[b0] += w * (1.0 - f);
      hist[(b0 + 1) % kBins] += w * f;
      total += w;
    }
  }
  if (!(total > 0.0)) return 1;
  // Two passes of a circular [1 2 1]/4 smoothing.
  for (int pass = 0; pass < 2; ++pass) {
    double smooth[kBins];
    for (int b = 0; b < kBins; ++b)
      smooth[b] =
          0.25 * hist[(b + kBins - 1) % kBins] + 0.5 * hist[b] + 0.25 * hist[(b + 1) % kBins];
    for (int b = 0; b < kBins; ++b) hist[b] = smooth[b];
  }
  int best = 0;
  for (int b = 1; b < kBins; ++b)
    if (hist[b] > hist[best]) best = b;
  const double before = hist[(best + kBins - 1) % kBins], after = hist[(best + 1) % kBins];
  const double curvature = before - 2.0 * hist[best] + after;
  const double offset = curvature < 0.0 ? 0.5 * (before - after) / curvature : 0.0;
  double a = (best + offset) * kTwoPi / kBins;
  if (a > M_PI) a -= kTwoPi;
  if (a <= -M_PI) a += kTwoPi;
  *angle = a;
  return 0;
}

}  // namespace

extern "C" {

int epho_GradiAngleByte(const uint8_t* image, uint32_t stride, int32_t x, int32_t y,
                        uint32_t halfWidth, uint32_t halfHeight,
                        double* angle_radians) KZDV_NOEXCEPT {
  return GradientAngle(image, stride, x, y, halfWidth, halfHeight, angle_radians);
}

int epho_GradiAngleDouble(const double* image, uint32_t stride, int32_t x, int32_t y,
                          uint32_t halfWidth, uint32_t halfHeight,
                          double* angle_radians) KZDV_NOEXCEPT {
  return GradientAngle(image, stride, x, y, halfWidth, halfHeight, angle_radians);
}

}  // extern "C"
