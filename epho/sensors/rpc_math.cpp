// RPC arithmetic: the forward rational functions on batches of points and
// their inversion at a given height by Newton's method.
#include <algorithm>
#include <cmath>
#include <string>

#include "epho/sensors/sensors_internal.h"

namespace epho::sensors {
namespace {

// Points per block of the forward evaluation: the normalised coordinates and
// the four polynomial values of a block stay in the first-level cache, and
// the loops over a block have no dependence between points, so the compiler
// can run several points per vector register.
constexpr long kBlock = 64;

// c[0] + c[1] t[1] + ... + c[19] t[19] in that order (t[0] is 1); the
// vector bodies add in the same order.
inline double Dot20(const double* c, const double* t) {
  double s = c[0];
  for (int k = 1; k < 20; ++k) s += c[k] * t[k];
  return s;
}

// Value and derivatives with respect to L and P of one 20-term cubic.
void CubicWithGradient(const double* c, double l, double p, double h, double* value, double* dl,
                       double* dp) {
  double t[20];
  RpcTerms(l, p, h, t);
  *value = Dot20(c, t);
  const double gl[20] = {0,     1,         0,     0,     p,         h, 0, 2 * l,     0, 0,
                         p * h, 3 * l * l, p * p, h * h, 2 * l * p, 0, 0, 2 * l * h, 0, 0};
  const double gp[20] = {0,     0, 1,         0, l,     0,         h,     0, 2 * p,     0,
                         l * h, 0, 2 * l * p, 0, l * l, 3 * p * p, h * h, 0, 2 * p * h, 0};
  *dl = *dp = 0;
  for (int k = 1; k < 20; ++k) {
    *dl += c[k] * gl[k];
    *dp += c[k] * gp[k];
  }
}

}  // namespace

void RpcTerms(double l, double p, double h, double t[20]) {
  t[0] = 1;
  t[1] = l;
  t[2] = p;
  t[3] = h;
  t[4] = l * p;
  t[5] = l * h;
  t[6] = p * h;
  t[7] = l * l;
  t[8] = p * p;
  t[9] = h * h;
  t[10] = p * t[5];
  t[11] = l * t[7];
  t[12] = l * t[8];
  t[13] = l * t[9];
  t[14] = t[7] * p;
  t[15] = p * t[8];
  t[16] = p * t[9];
  t[17] = t[7] * h;
  t[18] = t[8] * h;
  t[19] = h * t[9];
}

RpcForward::RpcForward(const double* rpc)
    : coef(rpc + EPHO_RPC_LINE_NUM),
      lon_off(rpc[EPHO_RPC_LONG_OFF]),
      lat_off(rpc[EPHO_RPC_LAT_OFF]),
      h_off(rpc[EPHO_RPC_HEIGHT_OFF]),
      lon_k(1.0 / rpc[EPHO_RPC_LONG_SCALE]),
      lat_k(1.0 / rpc[EPHO_RPC_LAT_SCALE]),
      h_k(1.0 / rpc[EPHO_RPC_HEIGHT_SCALE]),
      // Line and sample count from the centre of the first pixel.
      line_off(rpc[EPHO_RPC_LINE_OFF] + 0.5),
      samp_off(rpc[EPHO_RPC_SAMP_OFF] + 0.5),
      line_scale(rpc[EPHO_RPC_LINE_SCALE]),
      samp_scale(rpc[EPHO_RPC_SAMP_SCALE]) {}

bool RpcForwardBatch(const double* rpc, long count, const double* ground_xyz, double* image_xy,
                     VectorPath path) {
  const RpcForward f(rpc);
  const double* ln = f.coef;
  const double* ld = f.coef + 20;
  const double* sn = f.coef + 40;
  const double* sd = f.coef + 60;
  const long done = path == VectorPath::kAvx2 && VectorPathRuns(VectorPath::kAvx2)
                        ? RpcForwardAvx2(f, count, ground_xyz, image_xy)
                        : 0;
  for (long start = done; start < count; start += kBlock) {
    const long n = std::min(kBlock, count - start);
    const double* g = ground_xyz + 3 * start;
    double vl[kBlock], vp[kBlock], vh[kBlock];
    for (long i = 0; i < n; ++i) {
      vl[i] = (g[3 * i] - f.lon_off) * f.lon_k;
      vp[i] = (g[3 * i + 1] - f.lat_off) * f.lat_k;
      vh[i] = (g[3 * i + 2] - f.h_off) * f.h_k;
    }
    double a[kBlock], b[kBlock], c[kBlock], d[kBlock];
    for (long i = 0; i < n; ++i) {
      const double l = vl[i], p = vp[i], h = vh[i];
      const double lp = l * p, lh = l * h, ph = p * h, ll = l * l, pp = p * p, hh = h * h;
      const double t[20] = {1.0,    l,      p,      h,      lp,     lh,     ph,
                            ll,     pp,     hh,     p * lh, l * ll, l * pp, l * hh,
                            ll * p, p * pp, p * hh, ll * h, pp * h, h * hh};
      a[i] = Dot20(ln, t);
      b[i] = Dot20(ld, t);
      c[i] = Dot20(sn, t);
      d[i] = Dot20(sd, t);
    }
    double* out = image_xy + 2 * start;
    for (long i = 0; i < n; ++i) {
      out[2 * i] = c[i] / d[i] * f.samp_scale + f.samp_off;
      out[2 * i + 1] = a[i] / b[i] * f.line_scale + f.line_off;
    }
  }
  bool all_finite = true;
  for (long i = 0; i < 2 * count; ++i) all_finite = all_finite && std::isfinite(image_xy[i]);
  return all_finite;
}

bool RpcInverseAt(const double* rpc, double image_x, double image_y, double h, double* lon,
                  double* lat) {
  const double line = image_y - 0.5 - rpc[EPHO_RPC_LINE_OFF];
  const double samp = image_x - 0.5 - rpc[EPHO_RPC_SAMP_OFF];
  const double line_scale = rpc[EPHO_RPC_LINE_SCALE], samp_scale = rpc[EPHO_RPC_SAMP_SCALE];
  const double hn = (h - rpc[EPHO_RPC_HEIGHT_OFF]) / rpc[EPHO_RPC_HEIGHT_SCALE];
  if (!std::isfinite(line) || !std::isfinite(samp) || !std::isfinite(hn)) return false;
  // Newton in normalised (L, P), from the centre of the model's validity.
  double l = 0, p = 0;
  for (int it = 0; it < EPHO_RPC_INVERSE_MAX_ITERATIONS; ++it) {
    double ln, ln_l, ln_p, ld, ld_l, ld_p, sn, sn_l, sn_p, sd, sd_l, sd_p;
    CubicWithGradient(rpc + EPHO_RPC_LINE_NUM, l, p, hn, &ln, &ln_l, &ln_p);
    CubicWithGradient(rpc + EPHO_RPC_LINE_DEN, l, p, hn, &ld, &ld_l, &ld_p);
    CubicWithGradient(rpc + EPHO_RPC_SAMP_NUM, l, p, hn, &sn, &sn_l, &sn_p);
    CubicWithGradient(rpc + EPHO_RPC_SAMP_DEN, l, p, hn, &sd, &sd_l, &sd_p);
    if (ld == 0 || sd == 0) return false;
    // Residuals in pixels and their Jacobian with respect to (L, P).
    const double rl = ln / ld * line_scale - line, rs = sn / sd * samp_scale - samp;
    if (std::fabs(rl) <= EPHO_RPC_INVERSE_TOLERANCE_PX &&
        std::fabs(rs) <= EPHO_RPC_INVERSE_TOLERANCE_PX) {
      *lon = l * rpc[EPHO_RPC_LONG_SCALE] + rpc[EPHO_RPC_LONG_OFF];
      *lat = p * rpc[EPHO_RPC_LAT_SCALE] + rpc[EPHO_RPC_LAT_OFF];
      return true;
    }
    const double jll = (ln_l * ld - ln * ld_l) / (ld * ld) * line_scale;
    const double jlp = (ln_p * ld - ln * ld_p) / (ld * ld) * line_scale;
    const double jsl = (sn_l * sd - sn * sd_l) / (sd * sd) * samp_scale;
    const double jsp = (sn_p * sd - sn * sd_p) / (sd * sd) * samp_scale;
    const double det = jsl * jlp - jsp * jll;
    if (!(std::fabs(det) > 0) || !std::isfinite(det)) return false;
    const double dl = (jlp * rs - jsp * rl) / det;
    const double dp = (jsl * rl - jll * rs) / det;
    l -= dl;
    p -= dp;
    if (!std::isfinite(l) || !std::isfinite(p)) return false;
    // The last step may be limited by rounding near the solution: accept a
    // step whose effect in the image is already below the tolerance.
    if (std::fabs(jsl * dl + jsp * dp) <= EPHO_RPC_INVERSE_TOLERANCE_PX * 1e-3 &&
        std::fabs(jll * dl + jlp * dp) <= EPHO_RPC_INVERSE_TOLERANCE_PX * 1e-3) {
      *lon = l * rpc[EPHO_RPC_LONG_SCALE] + rpc[EPHO_RPC_LONG_OFF];
      *lat = p * rpc[EPHO_RPC_LAT_SCALE] + rpc[EPHO_RPC_LAT_OFF];
      return true;
    }
  }
  return false;
}

std::wstring RpcNumbersProblem(const double* rpc) {
  for (int i = 0; i < EPHO_RPC_NUMBER_COUNT; ++i)
    if (!std::isfinite(rpc[i])) return L"RPC number " + std::to_wstring(i) + L" is not finite";
  for (int i = EPHO_RPC_LINE_SCALE; i <= EPHO_RPC_HEIGHT_SCALE; ++i)
    if (rpc[i] == 0) return L"RPC scale " + std::to_wstring(i) + L" is zero";
  if (rpc[EPHO_RPC_LINE_DEN] == 0 || rpc[EPHO_RPC_SAMP_DEN] == 0)
    return L"The constant term of an RPC denominator is zero";
  return L"";
}

bool DemGrid::HeightAt(double x, double y, double* h) const {
  const double fx = to_file[0] + to_file[1] * x + to_file[2] * y;
  const double fy = to_file[3] + to_file[4] * x + to_file[5] * y;
  if (!(fx >= 0 && fx <= width && fy >= 0 && fy <= height)) return false;
  // Between cell centres; the outer half cells take their edge values.
  const double cx = std::clamp(fx - 0.5, 0.0, double(width - 1));
  const double cy = std::clamp(fy - 0.5, 0.0, double(height - 1));
  const long x0 = std::min(long(cx), width - 2 < 0 ? 0 : width - 2);
  const long y0 = std::min(long(cy), height - 2 < 0 ? 0 : height - 2);
  const long x1 = std::min(x0 + 1, width - 1), y1 = std::min(y0 + 1, height - 1);
  const double tx = cx - x0, ty = cy - y0;
  const double z00 = cells[size_t(y0) * width + x0], z01 = cells[size_t(y0) * width + x1];
  const double z10 = cells[size_t(y1) * width + x0], z11 = cells[size_t(y1) * width + x1];
  for (double z : {z00, z01, z10, z11})
    if (!std::isfinite(z) || (has_null && z == null_value)) return false;
  *h = (z00 * (1 - tx) + z01 * tx) * (1 - ty) + (z10 * (1 - tx) + z11 * tx) * ty;
  return true;
}

// Into the DEM's system at the ellipsoid, read the DEM there, and the height
// read (of the DEM's kind and unit) back to an ellipsoidal height in metres.
bool DemGrid::EllipsoidalHeightAt(double lon, double lat, double* h) const {
  if (!from_wgs84) return HeightAt(lon, lat, h);
  constexpr double kRad = M_PI / 180.0;
  // A point that does not convert is a point with no height: the caller
  // reports it, so the toolkit's report is dropped rather than printed.
  struct Quiet {
    Eerr_ErrorReport* report = nullptr;
    ~Quiet() { eerr_DeleteErrorReport(report); }
  } quiet;
  double x = lon * kRad, y = lat * kRad, z = 0.0;
  if (!eprj_3DProject(from_wgs84.get(), 1, &x, &y, &z, &quiet.report)) return false;
  const double scale = degrees ? 1.0 / kRad : 1.0;
  double height = 0.0;
  if (!HeightAt(x * scale, y * scale, &height)) return false;
  if (!eprj_3DProjectInverse(from_wgs84.get(), 1, &x, &y, &height, &quiet.report)) return false;
  *h = height;
  return true;
}

}  // namespace epho::sensors
