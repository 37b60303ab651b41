// Degree/gon/radian conversion by name and the rotation matrices of the three
// rotation systems.
#include "epho/angles.h"

#include <cmath>

#include "ecvt.h"

namespace {

constexpr double kDegToRad = 0.017453292519943295;  // pi / 180
constexpr double kRadToDeg = 57.29577951308232;     // 180 / pi
constexpr double kGonToRad = 0.015707963267948967;  // pi / 200
constexpr double kRadToGon = 63.66197723675813;     // 200 / pi

bool IsDegrees(const Etxt_Char* unit) {
  return unit == epho_DegreesUnitName || (unit && etxt_Text_strcmp(unit, L"degrees") == 0);
}
bool IsGons(const Etxt_Char* unit) {
  return unit == epho_GonsUnitName || (unit && etxt_Text_strcmp(unit, L"gons") == 0);
}
// The ellipsoid conversions accept the singular too and ignore case.
bool IsDegreesIgnoreCase(const Etxt_Char* unit) {
  return unit && (estr_Eqic(unit, L"degrees") || estr_Eqic(unit, L"degree"));
}
// A null linear name is not meters: it goes to the unit table like any other
// name (which refuses it and leaves the factor at 1).
bool IsMeters(const Etxt_Char* unit) {
  return unit && (estr_Eqic(unit, L"meters") || estr_Eqic(unit, L"meter"));
}

}  // namespace

extern "C" {

const Etxt_Char epho_DegreesUnitName[] = L"degrees";
const Etxt_Char epho_GonsUnitName[] = L"gons";

double epho_deg2rad(double degrees) KZDV_NOEXCEPT { return degrees * kDegToRad; }
double epho_rad2deg(double radians) KZDV_NOEXCEPT { return radians * kRadToDeg; }

double epho_input2rad(double value, const Etxt_Char* unit) KZDV_NOEXCEPT {
  if (IsDegrees(unit)) return value * kDegToRad;
  if (IsGons(unit)) return value * kGonToRad;
  return value;
}

double epho_rad2input(double radians, const Etxt_Char* unit) KZDV_NOEXCEPT {
  if (IsDegrees(unit)) return radians * kRadToDeg;
  if (IsGons(unit)) return radians * kRadToGon;
  return radians;
}

// The matrix is assembled in R itself: sines and cosines go into cells first,
// then the first two rows are combined from them, and the third row is the
// cross product of the finished first two (exactly orthogonal to them up to
// rounding, as the adjustment code downstream expects).
void epho_RotateAll(const double* angles, double* R, short code) KZDV_NOEXCEPT {
  if (code == 0 || code == 1) {
    // Phi-first: slot 0 phi (primary), slot 1 omega, slot 2 kappa.
    const double phi = angles[0];
    R[0] = std::cos(phi);                               // cos phi
    R[8] = code == 0 ? std::sin(-phi) : std::sin(phi);  // sin p
    R[3] = std::sin(angles[1]);                         // sin omega
    R[4] = std::cos(angles[1]);                         // cos omega
    R[6] = std::sin(angles[2]);                         // sin kappa
    R[7] = std::cos(angles[2]);                         // cos kappa
    const double cphi = R[0], sp = R[8], so = R[3], co = R[4], sk = R[6], ck = R[7];
    R[0] = cphi * ck + sp * so * sk;
    R[1] = sp * so * ck - cphi * sk;
    R[2] = sp * co;
    R[3] = sk * co;
    R[4] = ck * co;
    R[5] = -so;
    R[8] = cphi * co;
  } else {
    // Omega-phi-kappa: slot 0 omega, slot 1 phi, slot 2 kappa.
    R[3] = std::sin(angles[0]);  // sin omega
    R[4] = std::cos(angles[0]);  // cos omega
    R[2] = std::sin(angles[1]);  // sin phi
    R[8] = std::cos(angles[1]);  // cos phi
    R[6] = std::sin(angles[2]);  // sin kappa
    R[7] = std::cos(angles[2]);  // cos kappa
    const double so = R[3], co = R[4], sphi = R[2], cphi = R[8], sk = R[6], ck = R[7];
    R[0] = cphi * ck;
    R[1] = -cphi * sk;
    R[3] = co * sk + so * sphi * ck;
    R[4] = co * ck - so * sphi * sk;
    R[5] = -so * cphi;
    R[8] = co * cphi;
  }
  R[6] = R[1] * R[5] - R[4] * R[2];
  R[7] = R[2] * R[3] - R[5] * R[0];
}

void epho_GetAngleFromRotMatrix(double* angles, const double* R, short code) KZDV_NOEXCEPT {
  if (code < 0 || code > 1) {
    angles[0] = std::atan2(-R[5], R[8]);
    angles[1] = std::asin(R[2]);
    angles[2] = std::atan2(-R[1], R[0]);
    return;
  }
  // For code 0 R[2] carries sin(-phi), so the atan2 already yields +phi.
  angles[0] = std::atan2(-R[2], R[8]);
  angles[1] = std::asin(-R[5]);
  angles[2] = std::atan2(R[3], R[4]);
  if (code == 1) angles[0] = -angles[0];
}

// Chords on the ellipsoid: D is twice the prime-vertical radius of curvature;
// a longitude difference is measured on the parallel (radius N cos(lat)), a
// latitude difference with the same radius along the meridian.
Emsc_Boolean epho_Angular2LinearUnits(double latitude, const Etxt_Char* offset_unit, double ecc2,
                                      double semi_major, const Etxt_Char* latitude_unit,
                                      const Etxt_Char* linear_unit, double* offset_x,
                                      double* offset_y) KZDV_NOEXCEPT {
  if (IsDegreesIgnoreCase(latitude_unit)) latitude *= kDegToRad;
  double x = *offset_x;
  double y = *offset_y;
  if (IsDegreesIgnoreCase(offset_unit)) {
    x *= kDegToRad;
    y *= kDegToRad;
  }
  const double s = std::sin(latitude);
  const double d = 2.0 * semi_major / std::sqrt(1.0 - ecc2 * s * s);
  x = d * std::sin(x / 2.0) * std::cos(latitude);
  y = d * std::sin(y / 2.0);
  if (IsMeters(linear_unit)) {
    *offset_x = x;
    *offset_y = y;
    return EMSC_TRUE;
  }
  double factor = 1.0;
  long status = 0;
  const Emsc_Boolean ok = ecvt_UnitsConvertByName(L"meters", linear_unit, 1, &factor, &status);
  *offset_x = x * factor;
  *offset_y = y * factor;
  return ok;
}

Emsc_Boolean epho_Linear2AngularUnits(double latitude, const Etxt_Char* /*unused_unit*/,
                                      double ecc2, double semi_major, const Etxt_Char* linear_unit,
                                      const Etxt_Char* angular_unit, double* offset_x,
                                      double* offset_y) KZDV_NOEXCEPT {
  double x = *offset_x;
  double y = *offset_y;
  if (!IsMeters(linear_unit)) {
    // Same call and direction as the forward conversion: the factor is applied.
    double factor = 1.0;
    long status = 0;
    ecvt_UnitsConvertByName(L"meters", linear_unit, 1, &factor, &status);
    x *= factor;
    y *= factor;
  }
  const bool degrees = IsDegreesIgnoreCase(angular_unit);
  if (degrees) latitude *= kDegToRad;
  const double s = std::sin(latitude);
  const double d = 2.0 * semi_major / std::sqrt(1.0 - ecc2 * s * s);
  x = 2.0 * std::asin((x / d) / std::cos(latitude));
  y = 2.0 * std::asin(y / d);
  if (degrees) {
    x *= kRadToDeg;
    y *= kRadToDeg;
  }
  *offset_x = x;
  *offset_y = y;
  return degrees ? EMSC_TRUE : EMSC_FALSE;
}

}  // extern "C"
