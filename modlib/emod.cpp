// Geographic, geocentric and tangent-plane conversions.
//
// Geocentric to geographic uses Vermeille's closed form (J. Geodesy 76, 2002),
// exact to rounding everywhere outside the evolute of the meridian ellipse,
// a region within about 43 km of the Earth's centre that no photogrammetric
// point reaches; there the conversion reports failure.
#include "emod.h"

#include <cmath>

namespace {

constexpr double kHalfPi = 1.5707963267948966;
// Latitudes may exceed ±90° by rounding of a caller's degree conversion.
constexpr double kLatitudeSlack = 1e-12;

bool ValidSpheroid(double e2, double a) {
  return std::isfinite(a) && a > 0.0 && std::isfinite(e2) && e2 >= 0.0 && e2 < 1.0;
}

bool Finite3(double x, double y, double z) {
  return std::isfinite(x) && std::isfinite(y) && std::isfinite(z);
}

bool ValidFrame(const double* f) {
  if (!f) return false;
  for (int i = 0; i < EMOD_TANGENT_FRAME_SIZE; ++i)
    if (!std::isfinite(f[i])) return false;
  return true;
}

}  // namespace

extern "C" {

Emsc_Boolean emod_GeographicToGeocentric(double longitude, double latitude, double height,
                                         double* X, double* Y, double* Z, double e2,
                                         double a) KZDV_NOEXCEPT {
  if (!X || !Y || !Z || !ValidSpheroid(e2, a) || !Finite3(longitude, latitude, height))
    return EMSC_FALSE;
  if (std::fabs(latitude) > kHalfPi + kLatitudeSlack) return EMSC_FALSE;
  const double sin_lat = std::sin(latitude), cos_lat = std::cos(latitude);
  const double n = a / std::sqrt(1.0 - e2 * sin_lat * sin_lat);  // prime vertical radius
  *X = (n + height) * cos_lat * std::cos(longitude);
  *Y = (n + height) * cos_lat * std::sin(longitude);
  *Z = (n * (1.0 - e2) + height) * sin_lat;
  return EMSC_TRUE;
}

Emsc_Boolean emod_GeocentricToGeographic(double X, double Y, double Z, double* longitude,
                                         double* latitude, double* height, double e2,
                                         double a) KZDV_NOEXCEPT {
  if (!longitude || !latitude || !height || !ValidSpheroid(e2, a) || !Finite3(X, Y, Z))
    return EMSC_FALSE;
  const double w2 = X * X + Y * Y;
  const double w = std::sqrt(w2);
  if (e2 == 0.0) {  // sphere
    const double r = std::hypot(w, Z);
    if (r == 0.0) return EMSC_FALSE;
    *longitude = std::atan2(Y, X);
    *latitude = std::atan2(Z, w);
    *height = r - a;
    return EMSC_TRUE;
  }
  const double e4 = e2 * e2;
  const double p = w2 / (a * a);
  const double q = (1.0 - e2) * Z * Z / (a * a);
  const double r = (p + q - e4) / 6.0;
  const double r3 = r * r * r;
  if (!(8.0 * r3 + e4 * p * q > 0.0)) return EMSC_FALSE;  // inside the evolute
  const double s = e4 * p * q / (4.0 * r3);
  const double t = std::cbrt(1.0 + s + std::sqrt(s * (2.0 + s)));
  const double u = r * (1.0 + t + 1.0 / t);
  const double v = std::sqrt(u * u + e4 * q);
  const double ww = e2 * (u + v - q) / (2.0 * v);
  const double k = std::sqrt(u + v + ww * ww) - ww;
  const double d = k * w / (k + e2);
  const double dz = std::hypot(d, Z);
  *longitude = std::atan2(Y, X);
  *latitude = 2.0 * std::atan2(Z, d + dz);
  *height = (k + e2 - 1.0) / k * dz;
  return EMSC_TRUE;
}

Emsc_Boolean emod_DeriveTp2GcTransform(double lat0, double lon0, double h0, double a, double e2,
                                       double frame[EMOD_TANGENT_FRAME_SIZE]) KZDV_NOEXCEPT {
  if (!frame) return EMSC_FALSE;
  double origin[3];
  if (!emod_GeographicToGeocentric(lon0, lat0, h0, &origin[0], &origin[1], &origin[2], e2, a))
    return EMSC_FALSE;
  const double sf = std::sin(lat0), cf = std::cos(lat0);
  const double sl = std::sin(lon0), cl = std::cos(lon0);
  const double f[EMOD_TANGENT_FRAME_SIZE] = {origin[0], origin[1], origin[2], -sl, cl, 0.0,  // east
                                             -sf * cl,  -sf * sl,  cf,   // north
                                             cf * cl,   cf * sl,   sf};  // up
  for (int i = 0; i < EMOD_TANGENT_FRAME_SIZE; ++i) frame[i] = f[i];
  return EMSC_TRUE;
}

Emsc_Boolean emod_GeocentricToTangentPlane(double Xg, double Yg, double Zg, double* Xt, double* Yt,
                                           double* Zt, const double frame[EMOD_TANGENT_FRAME_SIZE])
    KZDV_NOEXCEPT {
  if (!Xt || !Yt || !Zt || !ValidFrame(frame) || !Finite3(Xg, Yg, Zg)) return EMSC_FALSE;
  const double dx = Xg - frame[0], dy = Yg - frame[1], dz = Zg - frame[2];
  const double* r = frame + 3;
  *Xt = r[0] * dx + r[1] * dy + r[2] * dz;
  *Yt = r[3] * dx + r[4] * dy + r[5] * dz;
  *Zt = r[6] * dx + r[7] * dy + r[8] * dz;
  return EMSC_TRUE;
}

Emsc_Boolean emod_TangentPlaneToGeocentric(double Xt, double Yt, double Zt, double* Xg, double* Yg,
                                           double* Zg, const double frame[EMOD_TANGENT_FRAME_SIZE])
    KZDV_NOEXCEPT {
  if (!Xg || !Yg || !Zg || !ValidFrame(frame) || !Finite3(Xt, Yt, Zt)) return EMSC_FALSE;
  const double* r = frame + 3;  // rotation rows; its transpose takes tangent axes back
  *Xg = frame[0] + r[0] * Xt + r[3] * Yt + r[6] * Zt;
  *Yg = frame[1] + r[1] * Xt + r[4] * Yt + r[7] * Zt;
  *Zg = frame[2] + r[2] * Xt + r[5] * Yt + r[8] * Zt;
  return EMSC_TRUE;
}

}  // extern "C"
