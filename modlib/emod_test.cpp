// Geodetic conversions against PROJ's cartesian and topocentric operations.
#include "emod.h"

#include <gtest/gtest.h>

#include <cmath>

#include "proj_cli_test_util.h"

namespace {

constexpr double kA = 6378137.0;               // WGS 84
constexpr double kE2 = 0.0066943799901413165;  // WGS 84
constexpr double kDeg = 0.017453292519943295;
constexpr double kMetre = 1e-6;  // agreement asked of every conversion

// Longitude, latitude (degrees) and height over the globe, with the poles,
// the antimeridian from both sides and heights from below the geoid to orbit.
projcli::Rows GlobeSamples() {
  projcli::Rows rows;
  for (double lat : {-90.0, -89.9999999, -60.0, -33.3, 0.0, 12.5, 45.0, 78.9, 89.9999, 90.0})
    for (double lon : {-180.0, -179.9999999, -120.0, -0.5, 0.0, 33.0, 90.0, 179.9999999, 180.0})
      for (double h : {-430.0, 0.0, 8848.0, 400000.0}) rows.push_back({lon, lat, h});
  return rows;
}

// The forward conversion against PROJ, and the round trip through the
// inverse at every height (orbit heights included, see below).
TEST(EmodGeocentric, AgreesWithProjCartesianAndRoundTripsOverTheGlobe) {
  const projcli::Rows in = GlobeSamples();
  const projcli::Rows truth = projcli::Run("cct -d 9 +proj=cart +ellps=WGS84", in);
  ASSERT_EQ(truth.size(), in.size()) << "cct did not run";
  for (size_t i = 0; i < in.size(); ++i) {
    double x, y, z, lon, lat, h, x2, y2, z2;
    ASSERT_TRUE(emod_GeographicToGeocentric(in[i][0] * kDeg, in[i][1] * kDeg, in[i][2], &x, &y, &z,
                                            kE2, kA));
    EXPECT_NEAR(x, truth[i][0], kMetre) << "point " << i;
    EXPECT_NEAR(y, truth[i][1], kMetre) << "point " << i;
    EXPECT_NEAR(z, truth[i][2], kMetre) << "point " << i;
    ASSERT_TRUE(emod_GeocentricToGeographic(x, y, z, &lon, &lat, &h, kE2, kA));
    ASSERT_TRUE(emod_GeographicToGeocentric(lon, lat, h, &x2, &y2, &z2, kE2, kA));
    EXPECT_LT(std::hypot(x2 - x, y2 - y, z2 - z), kMetre) << "point " << i;
    EXPECT_NEAR(h, in[i][2], kMetre) << "point " << i;
  }
}

TEST(EmodGeocentric, InverseAgreesWithProjToOneMicrometreOnTheGround) {
  // Geocentric inputs from PROJ itself, converted back by both. PROJ's own
  // inverse loses accuracy far above the ellipsoid (millimetres at 400 km),
  // so the comparison keeps to terrain heights; orbit heights are checked by
  // the round trip above.
  projcli::Rows geo;
  for (const auto& r : GlobeSamples())
    if (r[2] < 10000.0) geo.push_back(r);
  const projcli::Rows xyz = projcli::Run("cct -d 9 +proj=cart +ellps=WGS84", geo);
  ASSERT_EQ(xyz.size(), geo.size());
  projcli::Rows in;
  for (const auto& r : xyz) in.push_back({r[0], r[1], r[2]});
  const projcli::Rows truth = projcli::Run("cct -d 13 -I +proj=cart +ellps=WGS84", in);
  ASSERT_EQ(truth.size(), in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    double lon, lat, h;
    ASSERT_TRUE(emod_GeocentricToGeographic(in[i][0], in[i][1], in[i][2], &lon, &lat, &h, kE2, kA));
    const double dlat = (lat / kDeg - truth[i][1]) * kDeg;
    double dlon = std::remainder(lon / kDeg - truth[i][0], 360.0) * kDeg;
    // Distances on the ground; at the pole the longitude carries no position.
    EXPECT_LT(std::fabs(dlat) * kA, kMetre) << "point " << i;
    EXPECT_LT(std::fabs(dlon) * kA * std::cos(lat), kMetre) << "point " << i;
    EXPECT_NEAR(h, truth[i][2], kMetre) << "point " << i;
  }
}

TEST(EmodGeocentric, RejectsAbsurdInputInsteadOfWritingNaN) {
  double x = 7, y = 7, z = 7;
  EXPECT_FALSE(emod_GeographicToGeocentric(0.1, NAN, 0, &x, &y, &z, kE2, kA));
  EXPECT_FALSE(emod_GeographicToGeocentric(0.1, 2.0, 0, &x, &y, &z, kE2, kA));  // |lat| > 90°
  EXPECT_FALSE(emod_GeographicToGeocentric(0.1, 0.2, 0, &x, &y, &z, 1.2, kA));  // e² >= 1
  EXPECT_FALSE(emod_GeographicToGeocentric(0.1, 0.2, 0, &x, &y, &z, kE2, -1.0));
  EXPECT_FALSE(emod_GeocentricToGeographic(0, 0, 0, &x, &y, &z, kE2, kA));  // Earth's centre
  EXPECT_FALSE(emod_GeocentricToGeographic(INFINITY, 0, 0, &x, &y, &z, kE2, kA));
  EXPECT_EQ(x, 7);
  EXPECT_EQ(y, 7);
  EXPECT_EQ(z, 7);
}

TEST(EmodGeocentric, SphereHasTheRadiusAsHeightOrigin) {
  double lon, lat, h;
  ASSERT_TRUE(emod_GeocentricToGeographic(0, 0, 6371000.0 + 12.0, &lon, &lat, &h, 0.0, 6371000.0));
  EXPECT_NEAR(lat, M_PI / 2, 1e-15);
  EXPECT_NEAR(h, 12.0, 1e-9);
}

// Tangent-plane origins, including a pole and the antimeridian.
struct Origin {
  double lon_deg, lat_deg, h;
};
const Origin kOrigins[] = {{2.35, 48.85, 35.0},
                           {-179.99, -45.0, 0.0},
                           {180.0, 10.0, 100.0},
                           {0.0, 90.0, 0.0},
                           {135.0, -89.5, 2800.0}};

TEST(EmodTangentPlane, AgreesWithProjTopocentric) {
  for (const Origin& o : kOrigins) {
    double frame[EMOD_TANGENT_FRAME_SIZE];
    ASSERT_TRUE(emod_DeriveTp2GcTransform(o.lat_deg * kDeg, o.lon_deg * kDeg, o.h, kA, kE2, frame));
    projcli::Rows in;
    for (double dx : {-25000.0, 0.0, 1234.5})
      for (double dy : {-3000.0, 0.0, 40000.0})
        for (double dz : {-500.0, 9000.0})
          in.push_back({frame[0] + dx, frame[1] + dy, frame[2] + dz});
    char cmd[256];
    std::snprintf(cmd, sizeof cmd,
                  "cct -d 9 +proj=topocentric +ellps=WGS84 +lon_0=%.12f +lat_0=%.12f +h_0=%.6f",
                  o.lon_deg, o.lat_deg, o.h);
    const projcli::Rows truth = projcli::Run(cmd, in);
    ASSERT_EQ(truth.size(), in.size()) << cmd;
    for (size_t i = 0; i < in.size(); ++i) {
      double e, n, u;
      ASSERT_TRUE(emod_GeocentricToTangentPlane(in[i][0], in[i][1], in[i][2], &e, &n, &u, frame));
      EXPECT_NEAR(e, truth[i][0], kMetre) << cmd << " point " << i;
      EXPECT_NEAR(n, truth[i][1], kMetre) << cmd << " point " << i;
      EXPECT_NEAR(u, truth[i][2], kMetre) << cmd << " point " << i;
      double x, y, z;
      ASSERT_TRUE(emod_TangentPlaneToGeocentric(e, n, u, &x, &y, &z, frame));
      EXPECT_NEAR(x, in[i][0], kMetre);
      EXPECT_NEAR(y, in[i][1], kMetre);
      EXPECT_NEAR(z, in[i][2], kMetre);
    }
  }
}

}  // namespace
