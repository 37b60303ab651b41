#include "epho/angles.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>

namespace {

constexpr double kPi = 3.14159265358979323846;

Eigen::Matrix3d Rx(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitX()).matrix(); }
Eigen::Matrix3d Ry(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitY()).matrix(); }
Eigen::Matrix3d Rz(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitZ()).matrix(); }

// The three systems as compositions of elementary rotations about the fixed
// axes, built independently with Eigen.
Eigen::Matrix3d Expected(const double* t, short code) {
  if (code == 0) return Ry(-t[0]) * Rx(t[1]) * Rz(t[2]);
  if (code == 1) return Ry(t[0]) * Rx(t[1]) * Rz(t[2]);
  return Rx(t[0]) * Ry(t[1]) * Rz(t[2]);
}

void ExpectMatrixNear(const double* R, const Eigen::Matrix3d& E, double tol) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(R[3 * r + c], E(r, c), tol) << r << "," << c;
}

TEST(AnglesTest, ConversionConstantsAndUnitNames) {
  EXPECT_EQ(epho_deg2rad(180.0), kPi);
  EXPECT_DOUBLE_EQ(epho_rad2deg(kPi / 2), 90.0);
  // Unit names are case-exact: anything else is taken as radians already.
  struct Case {
    const wchar_t* unit;
    double value, radians;
  } cases[] = {{L"gons", 100.0, kPi / 2},
               {L"degrees", 45.0, kPi / 4},
               {epho_GonsUnitName, 50.0, kPi / 4},
               {epho_DegreesUnitName, 45.0, kPi / 4},
               {L"Degrees", 0.3, 0.3},
               {L"degree", 0.3, 0.3},
               {L"GONS", 0.3, 0.3},
               {nullptr, 0.3, 0.3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.unit);
    const double tol = c.value == c.radians ? 0.0 : 1e-14;  // pass-through is exact
    EXPECT_NEAR(epho_input2rad(c.value, c.unit), c.radians, tol);
    EXPECT_NEAR(epho_rad2input(c.radians, c.unit), c.value, tol * 100);
  }
}

// Every system, including the codes that fall back to the third one, on
// angles from zero to near the gimbal limits: the matrix is the Eigen
// composition, a proper rotation (the identity exactly at zero), and its
// angles come back.
TEST(AnglesTest, RotationMatricesMatchElementaryRotationsAndRoundTrip) {
  const double samples[][3] = {{0.0, 0.0, 0.0},      {0.11, -0.27, 2.3},  {-1.2, 1.4, -3.0},
                               {3.1, -1.5, 3.14159}, {-2.9, 0.0, -0.001}, {0.0, -0.7, 1.57},
                               {2.0, 1.0, -2.5}};
  for (short code : {0, 1, 2, 5, -1, -7, 32767}) {
    for (const auto& t : samples) {
      SCOPED_TRACE(::testing::Message()
                   << "code " << code << " angles " << t[0] << " " << t[1] << " " << t[2]);
      double R[9], back[3];
      epho_RotateAll(t, R, code);
      ExpectMatrixNear(R, Expected(t, code), 1e-15);
      Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>> M(R);
      EXPECT_NEAR((M * M.transpose() - Eigen::Matrix3d::Identity()).norm(), 0, 1e-15);
      EXPECT_NEAR(M.determinant(), 1.0, 1e-15);
      if (t[0] == 0 && t[1] == 0 && t[2] == 0) {
        for (int i = 0; i < 9; ++i) EXPECT_EQ(R[i], i % 4 == 0 ? 1.0 : 0.0);
      }
      epho_GetAngleFromRotMatrix(back, R, code);
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(back[k], t[k], 1e-12);
    }
  }
  // Codes 0 and 1 differ only in the sign of sin(phi), to the bit.
  const double t[3] = {0.11, -0.27, 2.3}, neg[3] = {-t[0], t[1], t[2]};
  double R0[9], R1[9];
  epho_RotateAll(t, R0, 0);
  epho_RotateAll(neg, R1, 1);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(R0[i], R1[i]);
}

// Geocentric chord between two points of the ellipsoid, from the textbook
// geodetic-to-geocentric formulas.
double Chord(double a, double e2, double lat1, double lon1, double lat2, double lon2) {
  auto xyz = [&](double lat, double lon) {
    const double n = a / std::sqrt(1 - e2 * std::sin(lat) * std::sin(lat));
    return Eigen::Vector3d(n * std::cos(lat) * std::cos(lon), n * std::cos(lat) * std::sin(lon),
                           n * (1 - e2) * std::sin(lat));
  };
  return (xyz(lat1, lon1) - xyz(lat2, lon2)).norm();
}

TEST(AnglesTest, AngularOffsetsToChordsAndBack) {
  const double a = 6378137.0, e2 = 0.00669437999014;
  // Longitude offset: the chord on the parallel of latitude 48 degrees.
  double x = 0.01, y = 0.0;
  EXPECT_TRUE(epho_Angular2LinearUnits(48.0, L"Degrees", e2, a, L"degree", L"meters", &x, &y));
  EXPECT_NEAR(x, Chord(a, e2, epho_deg2rad(48), 0, epho_deg2rad(48), epho_deg2rad(0.01)), 1e-6);
  EXPECT_EQ(y, 0.0);
  // Latitude offset on a sphere: the chord along the meridian.
  x = 0.0, y = 0.02;
  epho_Angular2LinearUnits(0.3, L"radians", 0.0, a, L"radians", L"meter", &x, &y);
  EXPECT_NEAR(y, Chord(a, 0.0, 0.3, 0, 0.32, 0), 1e-6);

  // Feet go through the toolkit's unit table.
  double xf = 0.01, yf = 0.01, xm = 0.01, ym = 0.01;
  epho_Angular2LinearUnits(0.5, L"degrees", e2, a, L"radians", L"meters", &xm, &ym);
  EXPECT_TRUE(epho_Angular2LinearUnits(0.5, L"degrees", e2, a, L"radians", L"feet", &xf, &yf));
  EXPECT_NEAR(xf, xm / 0.3048, 1e-6);
  EXPECT_NEAR(yf, ym / 0.3048, 1e-6);

  // Back to degrees: the inverse for meters.
  EXPECT_TRUE(
      epho_Linear2AngularUnits(0.5 * 180 / kPi, nullptr, e2, a, L"meters", L"DEGREES", &xm, &ym));
  EXPECT_NEAR(xm, 0.01, 1e-12);
  EXPECT_NEAR(ym, 0.01, 1e-12);
  // Radians out: result 0, values still written.
  double xr = 1000, yr = 1000;
  EXPECT_FALSE(epho_Linear2AngularUnits(0.0, nullptr, 0.0, a, L"meter", L"radians", &xr, &yr));
  EXPECT_NEAR(xr, 2 * std::asin(500 / a), 1e-15);
  // Unknown linear unit: the toolkit's failure is the result; offsets stored.
  double xu = 0.001, yu = 0.001;
  EXPECT_FALSE(epho_Angular2LinearUnits(0.0, nullptr, 0.0, a, nullptr, L"furlongs", &xu, &yu));
  EXPECT_NEAR(xu, 2 * a * std::sin(0.0005), 1e-9);
  // A null linear name is no "meters": it goes to the unit table too, which
  // refuses it; the chord is still stored in meters.
  double xn = 0.001, yn = 0.001;
  EXPECT_FALSE(epho_Angular2LinearUnits(0.0, nullptr, 0.0, a, nullptr, nullptr, &xn, &yn));
  EXPECT_NEAR(xn, 2 * a * std::sin(0.0005), 1e-9);
  EXPECT_NEAR(yn, 2 * a * std::sin(0.0005), 1e-9);
}

// The inverse takes the same meters-to-unit factor as the forward conversion
// and multiplies by it: 1000 ft become 1000/0.3048 "meters" before the asin.
TEST(AnglesTest, InverseAppliesTheMetersToUnitFactor) {
  const double a = 6378137.0;
  double x = 1000.0, y = 1000.0;
  EXPECT_FALSE(epho_Linear2AngularUnits(0.0, nullptr, 0.0, a, L"feet", L"radians", &x, &y));
  EXPECT_NEAR(y, 2 * std::asin(1000.0 / 0.3048 / (2 * a)), 1e-15);
  EXPECT_NEAR(x, y, 1e-15);  // cos(0) = 1 on the equator
  // At latitude 60 degrees the longitude offset grows by 1/cos(lat).
  double x60 = 1000.0, y60 = 1000.0;
  EXPECT_TRUE(epho_Linear2AngularUnits(60.0, nullptr, 0.0, a, L"Meter", L"Degree", &x60, &y60));
  EXPECT_NEAR(x60, 2 * std::asin(1000.0 / (2 * a) / 0.5) * 180 / kPi, 1e-12);
  EXPECT_NEAR(y60, 2 * std::asin(1000.0 / (2 * a)) * 180 / kPi, 1e-12);
}

}  // namespace
