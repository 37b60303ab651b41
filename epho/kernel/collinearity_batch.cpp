// Batch collinearity: ground to film and film plus height to ground for
// arrays, with the orientation, the refraction / earth-curvature correction
// and the lens records of one camera applied in one pass. Every expression
// repeats the per-point kernels' operations in their order, so the results
// are theirs bit for bit; loops without branches let the compiler use vector
// lanes, which changes nothing in the results.
#include <cmath>
#include <limits>

#include "epho/collinearity.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The radial lens models whose loop is written out here: (count 3, any code)
// f = p0 + p1 r^2 + p2 r^4 and (count 5, code 0) f = p1 + p2 r^2 + p3 r^4;
// the model code is read as epho_CameraAwayDistortion reads it.
bool RadialLens(const Epho_CountedDoubles* lens, const Epho_CountedDoubles* additional,
                const double** coefficients) {
  if (additional && additional->count >= 1) return false;  // the additional model replaces it
  if (!lens || lens->count < 1 || !lens->data) return false;
  if (lens->count == 3) {
    *coefficients = lens->data;
    return true;
  }
  const double c = lens->data[0] + 0.5;
  if (lens->count == 5 && c > -1.0 && c < 1.0) {  // code 0: p0 + 0.5 truncates to 0
    *coefficients = lens->data + 1;
    return true;
  }
  return false;
}

// The same expression as epho_CameraObjectToImage, for every point; with
// kRadial the radial lens model (coefficients c) follows in the same pass.
template <bool kFlags, bool kRadial>
int32_t Collinearity(const double* m, int32_t count, const double* __restrict gx,
                     const double* __restrict gy, const double* __restrict gz,
                     double* __restrict fx, double* __restrict fy, uint8_t* __restrict failed,
                     const double* c) {
  const double c0 = kRadial ? c[0] : 0.0, c1 = kRadial ? c[1] : 0.0, c2 = kRadial ? c[2] : 0.0;
  int32_t bad = 0;
  for (int32_t i = 0; i < count; ++i) {
    const double w = m[0] + m[1] * gx[i] + m[2] * gy[i] + m[3] * gz[i];
    double u = (m[4] + m[5] * gx[i] + m[6] * gy[i] + m[7] * gz[i]) / w;
    double v = (m[8] + m[9] * gx[i] + m[10] * gy[i] + m[11] * gz[i]) / w;
    if (kRadial) {
      const double r2 = u * u + v * v;
      const double f = c0 + c1 * r2 + c2 * r2 * r2;
      u = u + u * f;
      v = v + v * f;
    }
    fx[i] = w == 0.0 ? kNaN : u;
    fy[i] = w == 0.0 ? kNaN : v;
    bad += w == 0.0;
    if (kFlags) failed[i] = w == 0.0;
  }
  return bad;
}

bool HasLens(const Epho_FilmProjection& p) {
  return (p.lens && p.lens->count > 0) || (p.additional && p.additional->count > 0);
}

}  // namespace

extern "C" {

int32_t epho_CameraObjectToImageBatch(const Epho_FilmProjection* projection, int32_t count,
                                      const double* X, const double* Y, const double* Z, double* x,
                                      double* y, uint8_t* failed) KZDV_NOEXCEPT {
  if (!projection || !projection->matrix || count < 0 || !X || !Y || !Z || !x || !y) return -1;
  const Epho_FilmProjection& p = *projection;
  const double* m = p.matrix;
  const double* __restrict gx = X;
  const double* __restrict gy = Y;
  const double* __restrict gz = Z;
  double* __restrict fx = x;
  double* __restrict fy = y;
  const double* c = nullptr;
  if (p.correction_kind <= 1 && RadialLens(p.lens, p.additional, &c))  // all in one pass
    return failed ? Collinearity<true, true>(m, count, gx, gy, gz, fx, fy, failed, c)
                  : Collinearity<false, true>(m, count, gx, gy, gz, fx, fy, nullptr, c);
  const int32_t bad = failed ? Collinearity<true, false>(m, count, gx, gy, gz, fx, fy, failed, c)
                             : Collinearity<false, false>(m, count, gx, gy, gz, fx, fy, nullptr, c);
  if (p.correction_kind > 1)
    for (int32_t i = 0; i < count; ++i)
      epho_CameraAwayCorrection(p.correction_kind, p.flying_height, gz[i], p.focal, &fx[i], &fy[i],
                                0);
  if (!HasLens(p)) return bad;
  if (RadialLens(p.lens, p.additional, &c)) {
    const double c0 = c[0], c1 = c[1], c2 = c[2];
    for (int32_t i = 0; i < count; ++i) {
      const double u = fx[i], v = fy[i];
      const double r2 = u * u + v * v;
      const double f = c0 + c1 * r2 + c2 * r2 * r2;
      fx[i] = u + u * f;
      fy[i] = v + v * f;
    }
    return bad;
  }
  for (int32_t i = 0; i < count; ++i) {
    double dx = 0.0, dy = 0.0;
    epho_CameraAwayDistortion(p.lens, p.additional, fx[i], fy[i], &dx, &dy);
    fx[i] += dx;
    fy[i] += dy;
  }
  return bad;
}

int32_t epho_CameraImageAndZToXYBatch(const Epho_FilmProjection* projection, int32_t count,
                                      const double* x, const double* y, const double* height,
                                      double* first, double* second,
                                      uint8_t* failed) KZDV_NOEXCEPT {
  if (!projection || !projection->matrix || count < 0 || !x || !y || !height || !first || !second)
    return -1;
  const Epho_FilmProjection& p = *projection;
  const double* m = p.matrix;
  const double* __restrict fx = x;
  const double* __restrict fy = y;
  const double* __restrict h = height;
  double* __restrict out1 = first;
  double* __restrict out2 = second;
  // Film points with the lens and the correction removed go to the outputs
  // first, then the intersection reads them from there.
  for (int32_t i = 0; i < count; ++i) out1[i] = fx[i], out2[i] = fy[i];
  if (HasLens(p)) {
    const double* c = nullptr;
    if (RadialLens(p.lens, p.additional, &c)) {
      const double c0 = c[0], c1 = c[1], c2 = c[2];
      for (int32_t i = 0; i < count; ++i) {
        const double u = out1[i], v = out2[i];
        const double r2 = u * u + v * v;
        const double f = c0 + c1 * r2 + c2 * r2 * r2;
        out1[i] = u - u * f;
        out2[i] = v - v * f;
      }
    } else {
      for (int32_t i = 0; i < count; ++i) {
        double dx = 0.0, dy = 0.0;
        epho_CameraAwayDistortion(p.lens, p.additional, out1[i], out2[i], &dx, &dy);
        out1[i] -= dx;
        out2[i] -= dy;
      }
    }
  }
  if (p.correction_kind > 1)
    for (int32_t i = 0; i < count; ++i)
      epho_CameraAwayCorrection(p.correction_kind, p.flying_height, h[i], p.focal, &out1[i],
                                &out2[i], 1);
  // The intersection, the same operations as epho_CameraImageAndZToXY: per
  // row (A, B, C) for the unknowns, then row1 - x row0 and row2 - y row0.
  const bool y_is_height = p.mode == 1;
  const double A0 = m[1], A1 = m[5], A2 = m[9];
  const double B0 = y_is_height ? m[3] : m[2], B1 = y_is_height ? m[7] : m[6],
               B2 = y_is_height ? m[11] : m[10];
  const double K0 = y_is_height ? m[2] : m[3], K1 = y_is_height ? m[6] : m[7],
               K2 = y_is_height ? m[10] : m[11];
  int32_t bad = 0;
  for (int32_t i = 0; i < count; ++i) {
    const double u = out1[i], v = out2[i];
    // C_i = c_i0 + c_i3 Z, or c_i0 - c_i2 height in mode 1.
    const double C0 = y_is_height ? m[0] - K0 * h[i] : m[0] + K0 * h[i];
    const double C1 = y_is_height ? m[4] - K1 * h[i] : m[4] + K1 * h[i];
    const double C2 = y_is_height ? m[8] - K2 * h[i] : m[8] + K2 * h[i];
    const double a1 = A1 - u * A0, b1 = B1 - u * B0, c1 = C1 - u * C0;
    const double a2 = A2 - v * A0, b2 = B2 - v * B0, c2 = C2 - v * C0;
    const double det = a1 * b2 - a2 * b1;
    const double s = (b1 * c2 - b2 * c1) / det, t = (a2 * c1 - a1 * c2) / det;
    out1[i] = det == 0.0 ? kNaN : s;
    out2[i] = det == 0.0 ? kNaN : t;
    bad += det == 0.0;
    if (failed) failed[i] = det == 0.0;
  }
  return bad;
}

}  // extern "C"
