// Exterior orientation between ground systems: round trips, the centre and
// the meridian convergence against PROJ, image positions through the
// collinearity kernel, and bad input.
#include <gtest/gtest.h>
#include <proj.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "epho/angles.h"
#include "epho/camera.h"
#include "epho/collinearity.h"
#include "epho/reprojection.h"
#include "epho/reprojection/reprojection_testing_internal.h"

namespace {

constexpr double kDeg = M_PI / 180.0;
constexpr double kFocal = 152.0;  // mm
constexpr double kPixel = 0.01;   // mm

using reprojtest::Projection;
using reprojtest::Report;

// PROJ pipelines as independent truth.
struct Pipeline {
  PJ_CONTEXT* ctx = proj_context_create();
  PJ* pj = nullptr;
  explicit Pipeline(const std::string& def) {
    pj = proj_create(ctx, def.c_str());
    EXPECT_NE(pj, nullptr) << def;
  }
  ~Pipeline() {
    proj_destroy(pj);
    proj_context_destroy(ctx);
  }
  PJ_COORD Fwd(double x, double y, double z) const {
    return proj_trans(pj, PJ_FWD, proj_coord(x, y, z, 0));
  }
};

std::string Topocentric(double lat, double lon, double h) {
  char text[160];
  std::snprintf(text, sizeof text,
                "+proj=topocentric +ellps=WGS84 +lat_0=%.17g +lon_0=%.17g +h_0=%.17g", lat / kDeg,
                lon / kDeg, h);
  return text;
}
const char* const kUtm32 = "+proj=utm +zone=32 +ellps=WGS84";

// Longitude, latitude (radians) of a UTM 32 position.
void Geographic(double x, double y, double* lon, double* lat) {
  Pipeline p(std::string("+proj=pipeline +step +inv ") + kUtm32);
  PJ_COORD c = p.Fwd(x, y, 0);
  *lon = c.lp.lam;
  *lat = c.lp.phi;
}

// Pixel positions of ground points through the collinearity kernel.
std::vector<double> Image(const double* exterior, int32_t rotation_system,
                          const std::vector<double>& ground_xyz) {
  double m[12];
  EXPECT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, exterior, kFocal, rotation_system, 0, m));
  std::vector<double> xy;
  for (size_t k = 0; k < ground_xyz.size(); k += 3) {
    double x = 0, y = 0;
    EXPECT_FALSE(
        epho_CameraObjectToImage(m, ground_xyz[k], ground_xyz[k + 1], ground_xyz[k + 2], &x, &y));
    xy.push_back(x / kPixel);
    xy.push_back(y / kPixel);
  }
  return xy;
}

double MaxDistance(const std::vector<double>& a, const std::vector<double>& b) {
  double worst = 0.0;
  for (size_t k = 0; k + 1 < a.size(); k += 2)
    worst = std::max(worst, std::hypot(a[k] - b[k], a[k + 1] - b[k + 1]));
  return worst;
}

double AngleDiff(double a, double b) { return std::fabs(std::remainder(a - b, 2 * M_PI)); }

struct Camera {
  const char* what;
  double exterior[6];
  int32_t rotation_system;
};

const Camera kCameras[] = {
    {"vertical near the central meridian", {501500, 5201500, 1900, 0.0, 0.0, 0.35}, 0},
    {"tilted, omega-phi-kappa", {503000, 5199000, 2500, 0.05, -0.08, -2.7}, 0},
    {"far east in the zone", {730000, 5300000, 1200, -0.02, 0.03, 1.2}, 0},
    {"phi+ omega kappa", {480000, 5150000, 3000, 0.07, 0.02, 0.5}, 1},
    {"phi- omega kappa", {620000, 5050000, 800, -0.04, 0.06, 3.0}, 2},
};

TEST(ReprojectExterior, UtmToTangentPlaneAndBackIsTheSameCamera) {
  Projection utm(32);
  for (const Camera& cam : kCameras) {
    SCOPED_TRACE(cam.what);
    double lon, lat;
    Geographic(cam.exterior[0] + 1000.0, cam.exterior[1] - 2000.0, &lon, &lat);
    const Epho_ExteriorSystem map{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, nullptr};
    const Epho_ExteriorSystem tp{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, lat, lon, 350.0, nullptr};
    double there[6], back[6];
    Report err;
    ASSERT_TRUE(
        epho_ReprojectExteriorPars(&map, &tp, cam.rotation_system, cam.exterior, there, &err))
        << err.Text();
    ASSERT_TRUE(epho_ReprojectExteriorPars(&tp, &map, cam.rotation_system, there, back, &err));
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(back[k], cam.exterior[k], 1e-3);
    for (int k = 3; k < 6; ++k) EXPECT_LT(AngleDiff(back[k], cam.exterior[k]), 1e-9) << k;

    // The centre against PROJ's own topocentric conversion.
    Pipeline to_tp(std::string("+proj=pipeline +step +inv ") + kUtm32 +
                   " +step +proj=cart +ellps=WGS84 +step " + Topocentric(lat, lon, 350.0));
    PJ_COORD c = to_tp.Fwd(cam.exterior[0], cam.exterior[1], cam.exterior[2]);
    EXPECT_NEAR(there[0], c.xyz.x, 1e-3);
    EXPECT_NEAR(there[1], c.xyz.y, 1e-3);
    EXPECT_NEAR(there[2], c.xyz.z, 1e-3);
  }
}

// A vertical camera straight above the tangent-plane origin keeps a vertical
// axis; its kappa turns by the meridian convergence of the map projection,
// which PROJ gives independently.
TEST(ReprojectExterior, KappaTurnsByTheMeridianConvergence) {
  Projection utm(32);
  Pipeline proj_utm(kUtm32);
  for (double easting : {300000.0, 450000.0, 500000.0, 620000.0, 760000.0}) {
    SCOPED_TRACE(easting);
    const double exterior[6] = {easting, 5250000.0, 2000.0, 0.0, 0.0, 0.4};
    double lon, lat;
    Geographic(easting, 5250000.0, &lon, &lat);
    const Epho_ExteriorSystem map{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, nullptr};
    const Epho_ExteriorSystem tp{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, lat, lon, 0.0, nullptr};
    double there[6];
    ASSERT_TRUE(
        epho_ReprojectExteriorPars(&map, &tp, EPHO_OMEGA_PHI_KAPPA, exterior, there, nullptr));
    const PJ_FACTORS f = proj_factors(proj_utm.pj, proj_coord(lon, lat, 0, 0));
    EXPECT_LT(std::fabs(there[3]), 1e-9);
    EXPECT_LT(std::fabs(there[4]), 1e-9);
    EXPECT_NEAR(std::fabs(there[5] - exterior[5]), std::fabs(f.meridian_convergence), 1e-9);
    // East of the central meridian grid north lies east of true north, so a
    // direction fixed on the grid turns clockwise (kappa decreases) in the
    // east-north frame; west of it the other way.
    if (easting != 500000.0) {
      EXPECT_EQ(there[5]<exterior[5], easting> 500000.0);
    }
  }
}

// Ground points seen by the camera in two systems. Between two tangent
// planes the mapping is a rigid motion, so the images agree to rounding.
// Between UTM and a tangent plane they differ by the projection's scale and
// the earth's curvature: f |k - 1| d / H for a point at horizontal distance
// d of a camera H above it, plus f d (d² / 2R) / H² for the curvature drop.
TEST(ReprojectExterior, GroundPointsLandOnTheSameImagePositions) {
  Projection utm(32);
  const Camera& cam = kCameras[1];
  const double* e = cam.exterior;
  double lon, lat;
  Geographic(e[0], e[1], &lon, &lat);
  double lon_b, lat_b;
  Geographic(e[0] + 15000.0, e[1] + 12000.0, &lon_b, &lat_b);
  const double ground_z = 400.0, reach = 600.0;
  std::vector<double> ground_utm;
  for (double dx = -reach; dx <= reach; dx += 200.0)
    for (double dy = -reach; dy <= reach; dy += 200.0)
      ground_utm.insert(ground_utm.end(), {e[0] + dx, e[1] + dy, ground_z});

  Pipeline utm_to_a(std::string("+proj=pipeline +step +inv ") + kUtm32 +
                    " +step +proj=cart +ellps=WGS84 +step " + Topocentric(lat, lon, 300.0));
  Pipeline a_to_b("+proj=pipeline +step +inv " + Topocentric(lat, lon, 300.0) + " +step " +
                  Topocentric(lat_b, lon_b, 100.0));
  std::vector<double> ground_a, ground_b;
  for (size_t k = 0; k < ground_utm.size(); k += 3) {
    PJ_COORD a = utm_to_a.Fwd(ground_utm[k], ground_utm[k + 1], ground_utm[k + 2]);
    PJ_COORD b = a_to_b.Fwd(a.xyz.x, a.xyz.y, a.xyz.z);
    ground_a.insert(ground_a.end(), {a.xyz.x, a.xyz.y, a.xyz.z});
    ground_b.insert(ground_b.end(), {b.xyz.x, b.xyz.y, b.xyz.z});
  }
  const Epho_ExteriorSystem map{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, nullptr};
  const Epho_ExteriorSystem tp_a{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, lat, lon, 300.0, nullptr};
  const Epho_ExteriorSystem tp_b{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, lat_b, lon_b, 100.0, nullptr};
  double in_a[6], in_b[6];
  ASSERT_TRUE(epho_ReprojectExteriorPars(&map, &tp_a, cam.rotation_system, e, in_a, nullptr));
  ASSERT_TRUE(epho_ReprojectExteriorPars(&tp_a, &tp_b, cam.rotation_system, in_a, in_b, nullptr));

  const std::vector<double> image_a = Image(in_a, cam.rotation_system, ground_a);
  const std::vector<double> image_b = Image(in_b, cam.rotation_system, ground_b);
  EXPECT_LT(MaxDistance(image_a, image_b), 0.01);

  Pipeline proj_utm(kUtm32);
  const double k = proj_factors(proj_utm.pj, proj_coord(lon, lat, 0, 0)).meridional_scale;
  const double f_px = kFocal / kPixel, H = e[2] - ground_z, d = reach * std::sqrt(2.0);
  const double bound = f_px * (std::fabs(k - 1.0) * d / H + d * (d * d / (2 * 6.371e6)) / H / H);
  const double utm_vs_tp = MaxDistance(Image(e, cam.rotation_system, ground_utm), image_a);
  RecordProperty("utm_vs_tangent_plane_px", std::to_string(utm_vs_tp));
  EXPECT_LT(utm_vs_tp, 1.2 * bound);
  // The scale term dominates: the difference is of its size, not rounding.
  EXPECT_GT(utm_vs_tp, 0.2 * bound);
}

TEST(ReprojectExterior, DatumChangeRoundTrips) {
  Projection ed50(32, L"International 1909", L"ED50");
  Projection wgs(32);
  const double* e = kCameras[1].exterior;
  double lon, lat;
  Geographic(e[0], e[1], &lon, &lat);
  const Epho_ExteriorSystem map{EPHO_EXTERIOR_MAP, ed50.p, 0, 0, 0, nullptr};
  const Epho_ExteriorSystem tp{EPHO_EXTERIOR_TANGENT_PLANE, wgs.p, lat, lon, 0.0, nullptr};
  const Epho_ExteriorSystem same_datum_map{EPHO_EXTERIOR_MAP, wgs.p, 0, 0, 0, nullptr};
  double there[6], back[6], no_shift[6];
  Report err;
  ASSERT_TRUE(epho_ReprojectExteriorPars(&map, &tp, 0, e, there, &err)) << err.Text();
  ASSERT_TRUE(epho_ReprojectExteriorPars(&tp, &map, 0, there, back, &err));
  ASSERT_TRUE(epho_ReprojectExteriorPars(&same_datum_map, &tp, 0, e, no_shift, &err));
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(back[k], e[k], 1e-3);
  for (int k = 3; k < 6; ++k) EXPECT_LT(AngleDiff(back[k], e[k]), 1e-9);
  // ED50 and WGS 84 lie some 100 to 250 m apart in central Europe.
  const double shift = std::hypot(there[0] - no_shift[0], there[1] - no_shift[1]);
  EXPECT_GT(shift, 50.0);
  EXPECT_LT(shift, 400.0);
}

// Heights above the EGM96 geoid: the centre's height changes by the geoid
// undulation (PROJ's own vertical grid shift is the truth), its position and
// the rotation correction stay what they are for ellipsoidal heights.
TEST(ReprojectExterior, GeoidHeightsMoveTheCentreNotTheRotation) {
  Projection utm(32);
  Eprj_ElevationInfo* egm96 =
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"meters", L"height", nullptr);
  ASSERT_NE(egm96, nullptr);
  Pipeline undulation("+proj=vgridshift +grids=egm96_15.gtx +multiplier=1");
  ASSERT_NE(undulation.pj, nullptr);
  const Epho_ExteriorSystem geoid{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, egm96};
  const Epho_ExteriorSystem ellipsoid{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, nullptr};
  for (const Camera& cam : kCameras) {
    SCOPED_TRACE(cam.what);
    const double* e = cam.exterior;
    double lon, lat;
    Geographic(e[0], e[1], &lon, &lat);
    const double n = undulation.Fwd(lon, lat, 0.0).xyz.z;
    ASSERT_TRUE(std::isfinite(n));
    ASSERT_GT(std::fabs(n), 1.0);  // central Europe: some 45 m
    Report err;
    double lifted[6];
    ASSERT_TRUE(
        epho_ReprojectExteriorPars(&geoid, &ellipsoid, cam.rotation_system, e, lifted, &err))
        << err.Text();
    EXPECT_NEAR(lifted[0], e[0], 1e-6);
    EXPECT_NEAR(lifted[1], e[1], 1e-6);
    EXPECT_NEAR(lifted[2], e[2] + n, 1e-3);
    for (int k = 3; k < 6; ++k) EXPECT_LT(AngleDiff(lifted[k], e[k]), 1e-12) << k;

    // Into a tangent plane: the same camera as from its ellipsoidal height.
    const Epho_ExteriorSystem tp{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, lat, lon, 200.0, nullptr};
    double from_geoid[6], from_ellipsoid[6], back[6];
    ASSERT_TRUE(epho_ReprojectExteriorPars(&geoid, &tp, cam.rotation_system, e, from_geoid, &err))
        << err.Text();
    ASSERT_TRUE(epho_ReprojectExteriorPars(&ellipsoid, &tp, cam.rotation_system, lifted,
                                           from_ellipsoid, &err));
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(from_geoid[k], from_ellipsoid[k], 1e-3) << k;
    for (int k = 3; k < 6; ++k) EXPECT_LT(AngleDiff(from_geoid[k], from_ellipsoid[k]), 1e-9) << k;
    ASSERT_TRUE(
        epho_ReprojectExteriorPars(&tp, &geoid, cam.rotation_system, from_geoid, back, &err));
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(back[k], e[k], 1e-3) << k;
    for (int k = 3; k < 6; ++k) EXPECT_LT(AngleDiff(back[k], e[k]), 1e-9) << k;
  }
  eprj_ElevationInfoFree(egm96);
}

TEST(ReprojectExterior, BadInputIsReported) {
  Projection utm(32);
  Projection geo(0);
  Projection nowhere(32, L"WGS 84", L"Nowhere 1900");
  // A datum whose shift grid is not installed, heights of an unknown geoid.
  Projection gridded(32, L"GRS 1980", L"Gridded 2000");
  Eprj_DatumShift by_grid{};
  by_grid.kind = EPRJ_SHIFT_GRID;
  by_grid.grids = L"no_such_shift_grid.tif";
  // The exterior orientation reads the projection's own parameters.
  ASSERT_TRUE(eprj_DatumShiftSet(gridded.p->proParameters->proSpheroid->datum, &by_grid, nullptr));
  Eprj_ElevationInfo* navd =
      eprj_ElevationInfoCreateByName(L"GRS 1980", L"NAVD88", L"meters", L"height", nullptr);
  const double good[6] = {501500, 5201500, 1900, 0.01, 0.02, 0.3};
  const double nan_angle[6] = {501500, 5201500, 1900, std::nan(""), 0.02, 0.3};
  const double far_away[6] = {9e7, 5201500, 1900, 0, 0, 0};
  const Epho_ExteriorSystem map{EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, nullptr};
  const Epho_ExteriorSystem tp{EPHO_EXTERIOR_TANGENT_PLANE, utm.p, 47 * kDeg, 9 * kDeg, 0, nullptr};
  struct Case {
    const char* what;
    Epho_ExteriorSystem from, to;
    int32_t rotation_system;
    const double* exterior;
    const wchar_t* message;
  } cases[] = {
      {"geographic source",
       {EPHO_EXTERIOR_MAP, geo.p, 0, 0, 0, nullptr},
       tp,
       0,
       good,
       L"is geographic"},
      {"unknown datum",
       {EPHO_EXTERIOR_MAP, nowhere.p, 0, 0, 0, nullptr},
       tp,
       0,
       good,
       L"Unknown datum \"Nowhere 1900\""},
      {"no projection",
       {EPHO_EXTERIOR_MAP, nullptr, 0, 0, 0, nullptr},
       tp,
       0,
       good,
       L"no projection"},
      {"unknown kind", {7, utm.p, 0, 0, 0, nullptr}, tp, 0, good, L"kind 7 is unknown"},
      {"origin beyond the pole",
       map,
       {EPHO_EXTERIOR_TANGENT_PLANE, utm.p, 2.0, 0, 0, nullptr},
       0,
       good,
       L"not a geographic position"},
      {"rotation system", map, tp, 5, good, L"rotation system 5 is unknown"},
      {"NaN angle", map, tp, 0, nan_angle, L"not finite"},
      {"missing shift grid",
       {EPHO_EXTERIOR_MAP, gridded.p, 0, 0, 0, nullptr},
       tp,
       0,
       good,
       L"Grid \"no_such_shift_grid.tif\" of the datum \"Gridded 2000\" is not installed"},
      {"geoid with no model", {EPHO_EXTERIOR_MAP, utm.p, 0, 0, 0, navd}, tp, 0, good, L"NAVD88"},
      {"tangent plane with heights",
       map,
       {EPHO_EXTERIOR_TANGENT_PLANE, utm.p, 47 * kDeg, 9 * kDeg, 0, navd},
       0,
       good,
       L"takes no elevation info"},
      {"outside the projection", map, tp, 0, far_away, L"cannot be converted"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    double out[6] = {42, 42, 42, 42, 42, 42};
    Report err;
    EXPECT_FALSE(
        epho_ReprojectExteriorPars(&c.from, &c.to, c.rotation_system, c.exterior, out, &err));
    EXPECT_TRUE(testutil::Mentions(err.r, c.message)) << err.Text();
    for (double v : out) EXPECT_EQ(v, 42.0);
  }
  eprj_ElevationInfoFree(navd);
}

}  // namespace
