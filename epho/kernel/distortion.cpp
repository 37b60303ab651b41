// Lens distortion models of a frame camera, their fixed-point evaluation at
// the distorted position, and the refraction / earth-curvature correction.
#include <climits>
#include <cmath>

#include "epho/collinearity.h"

namespace {

// The whole number nearest to p0 (p0 + 0.5 truncated); -1, which names no
// model, when that is not a representable int (NaN, huge values).
int ModelCode(const double* p) {
  const double c = p[0] + 0.5;
  if (!(c > INT_MIN && c < INT_MAX)) return -1;
  return static_cast<int>(c);
}

// Radial balanced at a zero-distortion radius, affinity, a tangential profile
// T (divided by |p1| in the lens-distortion form, multiplied by |p2| in the
// additional-parameter form), and the polynomial terms p12..p21.
void ExtendedModel(const double* p, double r2_0, double r4_0, double r6_0, double t_scale,
                   bool divide_t, double x, double y, double* dx, double* dy) {
  const double x2 = x * x, y2 = y * y;
  const double r2 = x2 + y2, r4 = r2 * r2, r6 = r4 * r2;
  const double R = (r2 - r2_0) * p[4] + (r4 - r4_0) * p[5] + (r6 - r6_0) * p[6];
  double ex = R * x;
  double ey = R * y;
  ex += p[7] * x + p[8] * y;
  const double t = -(x2 * y2 * p[10] + (x2 - y2) * p[9] + (x2 * x2 - y2 * y2) * p[11]);
  const double T = divide_t ? t / t_scale : t * t_scale;
  ex += T * x;
  ey += T * y;
  ex += p[13] * y2 + p[12] * x * y + p[14] * x2 * y + p[15] * x * y2 + p[16] * x2 * y2;
  ey += p[17] * x * y + p[18] * x2 + p[19] * x2 * y + p[20] * x * y2 + p[21] * x2 * y2;
  *dx = ex;
  *dy = ey;
}

void Primary(const Epho_CountedDoubles& rec, double x, double y, double* dx, double* dy) {
  const double* p = rec.data;
  const double r2 = x * x + y * y;
  const int code = ModelCode(p);
  switch (rec.count) {
    case 3: {  // p0 is a coefficient here, not a code
      const double f = p[0] + p[1] * r2 + p[2] * r2 * r2;
      *dx = x * f;
      *dy = y * f;
      return;
    }
    case 5:
      if (code == 0) {
        const double f = p[1] + p[2] * r2 + p[3] * r2 * r2;
        *dx = x * f;
        *dy = y * f;
      }
      return;
    case 26:
      if (code == 1 && p[1] != 0.0) {
        const double r0 = p[22], r0_2 = r0 * r0;
        ExtendedModel(p, r0_2, r0_2 * r0_2, r0_2 * r0_2 * r0_2, std::fabs(p[1]), true, x, y, dx,
                      dy);
      }
      return;
    case 11:
      if (code == 2 && p[1] != 0.0) {
        const double R = p[4] * r2 + p[5] * r2 * r2 + p[6] * r2 * r2 * r2;
        *dx = -(x * R + (2 * x * x + r2) * p[7] + 2 * x * y * p[8] + p[9] * x + p[10] * y);
        *dy = -(y * R + (2 * y * y + r2) * p[8] + 2 * x * y * p[7]);
      }
      return;
    case 13:
      if (code == 3 && p[1] != 0.0) {
        const double r4 = r2 * r2;
        const double R = p[4] + p[5] * r2 + p[6] * r4 + p[7] * r4 * r2 + p[8] * r4 * r4;
        const double S = 1 + p[11] * r2 + p[12] * r4;
        *dx = x * R + S * ((2 * x * x + r2) * p[9] + 2 * p[10] * x * y);
        *dy = y * R + S * (2 * p[9] * x * y + (2 * y * y + r2) * p[10]);
      }
      return;
    default:
      return;
  }
}

// Parameters each additional-parameter model reads (highest index + 1).
int SecondaryNeeds(int code) {
  static const int kNeeds[8] = {0, 7, 8, 16, 18, 22, 6, 7};
  return kNeeds[code];
}

void Secondary(const Epho_CountedDoubles& rec, int code, double x, double y, double* dx,
               double* dy) {
  *dx = 0.0;
  *dy = 0.0;
  if (rec.count < SecondaryNeeds(code)) return;
  const double* p = rec.data;
  const double x2 = x * x, y2 = y * y;
  const double r2 = x2 + y2;
  const double q = r2 - p[3];
  switch (code) {
    case 1:
      *dx = x * (q * p[4] + p[5]);
      *dy = y * (q * p[4] - p[5]) + p[6] * x;
      return;
    case 2:
      *dx = x * (q * p[4] + p[5]) + p[6] * y;
      *dy = x * (p[7] * x + p[6]) + y * (q * p[4] - p[5]);
      return;
    case 3: {
      const double k = 2 * p[1] * p[1] / 3;
      const double u = x2 - k, v = y2 - k;
      *dx = p[4] * x + p[5] * y - 2 * u * p[6] + p[7] * x * y + (p[8] + p[10] * x) * v +
            (p[12] * y + p[14] * v) * u;
      *dy = p[5] * x - p[4] * y - 2 * v * p[7] + p[6] * x * y + (p[9] + p[11] * y) * u +
            (p[13] * x + p[15] * u) * v;
      return;
    }
    case 4:
      *dx = x * (p[4] + p[17] * r2 + p[16] * x2 * y2) + y * (p[5] + p[6] * x + p[8] * x2) +
            y2 * (p[7] + p[9] * x + p[10] * x2);
      *dy = y * (p[11] * x + p[17] * r2 + p[16] * x2 * y2) + x2 * (p[12] + p[13] * y) +
            y2 * (p[14] * x + p[15] * x2);
      return;
    case 5:
      // p3 is the squared zero-distortion radius; the tangential profile is
      // multiplied by |p2| here.
      if (p[2] != 0.0) {
        ExtendedModel(p, p[3], p[3] * p[3], p[3] * p[3] * p[3], std::fabs(p[2]), false, x, y, dx,
                      dy);
      }
      return;
    case 6: {
      const double f = q * (p[4] + p[5] * q);
      *dx = x * f;
      *dy = y * f;
      return;
    }
    case 7: {
      const double g = q * p[6];
      *dx = x * g + p[4] * y;
      *dy = y * g + p[5] * y;
      return;
    }
    default:
      return;
  }
}

}  // namespace

extern "C" {

void epho_CameraAwayDistortion(const Epho_CountedDoubles* primary,
                               const Epho_CountedDoubles* secondary, double x, double y, double* dx,
                               double* dy) KZDV_NOEXCEPT {
  *dx = 0.0;
  *dy = 0.0;
  if (primary && primary->count >= 1 && primary->data) Primary(*primary, x, y, dx, dy);
  // The additional parameters are an alternative to the lens distortion: a
  // valid secondary model replaces the primary result.
  // A negative count is read as an empty record (p0 cannot be read safely).
  if (secondary && secondary->count >= 1 && secondary->data) {
    const int code = ModelCode(secondary->data);
    if (code >= 1 && code <= 7) Secondary(*secondary, code, x, y, dx, dy);
  }
}

void epho_CameraAwayDistortionIterative(const Epho_CountedDoubles* primary,
                                        const Epho_CountedDoubles* secondary, double x, double y,
                                        double* dx, double* dy, double divergence_bound,
                                        int32_t mode) KZDV_NOEXCEPT {
  *dx = 0.0;
  *dy = 0.0;
  if (mode != 1) return;
  double px = 0.0, py = 0.0;
  double cx0 = divergence_bound, cy0 = divergence_bound;
  double u = x, v = y;
  for (int k = 0;; ++k) {
    double ex, ey;
    epho_CameraAwayDistortion(primary, secondary, u, v, &ex, &ey);
    if (k == 0 && std::fabs(ex) < 0.001 && std::fabs(ey) < 0.001) {
      *dx = ex;
      *dy = ey;
      return;
    }
    const double cx = std::fabs(ex - px), cy = std::fabs(ey - py);
    if (cx < 0.0001 && cy < 0.0001) {
      *dx = ex;
      *dy = ey;
      return;
    }
    if (cx > cx0 || cy > cy0) return;  // diverging: no distortion rather than a wrong one
    cx0 = cx;
    cy0 = cy;
    px = ex;
    py = ey;
    if (k + 1 > 10) {
      *dx = ex;
      *dy = ey;
      return;
    }
    u = x + ex;
    v = y + ey;
  }
}

// Refraction: radial displacement K r (1 + r^2/f^2) with K from the
// standard-atmosphere model (heights in km). Earth curvature: r^3 (H - h) /
// (2 R f^2) with R = 6380 km, i.e. r (E r^2/f^2) with E = (H - h) 7.837e-8.
void epho_CameraAwayCorrection(int32_t kind, double flying_height, double ground_height,
                               double focal, double* x, double* y,
                               int32_t direction) KZDV_NOEXCEPT {
  const double r2 = *x * *x + *y * *y;
  if (r2 <= 0.001) return;
  const double Hk = flying_height * 0.001;
  const double hk = ground_height * 0.001;
  const double K =
      0.00241 * (Hk / (Hk * Hk - 6 * Hk + 250) - hk * hk / (Hk * (hk * hk - 6 * hk + 250)));
  const double E = (flying_height - ground_height) * 7.837e-8;
  const double f2 = focal * focal;
  double factor;
  switch (kind) {
    case 2: {
      const double t = K * (1 + r2 / f2);
      factor = direction == 1 ? 1 - t : 1 + t;
      break;
    }
    case 3: {
      const double t = E * r2 / f2;
      factor = direction == 1 ? 1 + t : 1 - t;
      break;
    }
    case 4: {
      const double t = K * (1 + r2 / f2) - E * r2 / f2;
      factor = direction == 1 ? 1 - t : 1 + t;
      break;
    }
    default:
      return;
  }
  *x = *x * factor;
  *y = *y * factor;
}

}  // extern "C"
