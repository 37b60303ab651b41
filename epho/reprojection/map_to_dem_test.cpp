// Map-to-DEM transforms against PROJ and GDAL: the rigorous chain, the fitted
// polynomial and the preferences that steer it, a DEM read from its file, and
// bad input.
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>
#include <proj.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "epho/reprojection.h"
#include "epho/reprojection/reprojection_testing_internal.h"
#include "epmg.h"

namespace {

using reprojtest::Projection;
using reprojtest::Report;

// A DEM of 1000 x 800 cells of 30 m in UTM 32N, east of its zone's centre;
// the map system is UTM 33N, the neighbouring zone.
const double kGeo[6] = {700000.0, 30.0, 0.0, 5300000.0, 0.0, -30.0};
constexpr long kWidth = 1000, kHeight = 800;

struct Fixture : testing::Test {
  Projection dem_system{32}, map_system{33};
  const Eprj_MapProjection* map = map_system.p;
  Epho_DemGeoreference dem{dem_system.params, {}, kWidth, kHeight};
  PJ_CONTEXT* ctx = proj_context_create();
  PJ* truth = nullptr;
  Fixture() {
    std::copy(kGeo, kGeo + 6, dem.geoTransform);
    PJ* raw = proj_create_crs_to_crs(ctx, "EPSG:32633", "EPSG:32632", nullptr);
    truth = proj_normalize_for_visualization(ctx, raw);
    proj_destroy(raw);
    epmg_ClearPreferences();
  }
  ~Fixture() override {
    epmg_ClearPreferences();
    proj_destroy(truth);
    proj_context_destroy(ctx);
  }
  // File pixel of a map point by PROJ and the inverse geotransform.
  void TruePixel(double x, double y, double* col, double* row) const {
    PJ_COORD c = proj_trans(truth, PJ_FWD, proj_coord(x, y, 0, 0));
    *col = (c.xy.x - kGeo[0]) / kGeo[1];
    *row = (c.xy.y - kGeo[3]) / kGeo[5];
  }
  // Worst pixel error of a transform at random map points over the DEM.
  double WorstError(const Exfr_XForm* t, int count = 400) const {
    PJ* back = proj_create_crs_to_crs(ctx, "EPSG:32632", "EPSG:32633", nullptr);
    PJ* norm = proj_normalize_for_visualization(ctx, back);
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    double worst = 0.0;
    for (int k = 0; k < count; ++k) {
      const double col = u(rng) * kWidth, row = u(rng) * kHeight;
      PJ_COORD m = proj_trans(norm, PJ_FWD,
                              proj_coord(kGeo[0] + col * kGeo[1], kGeo[3] + row * kGeo[5], 0, 0));
      double p[2] = {m.xy.x, m.xy.y};
      Efga_Matrix mat{2, 1, p};
      EXPECT_TRUE(exfr_Transform(t, &mat, &mat, nullptr));
      double tc, tr;
      TruePixel(m.xy.x, m.xy.y, &tc, &tr);
      worst = std::max(worst, std::hypot(p[0] - tc, p[1] - tr));
    }
    proj_destroy(norm);
    proj_destroy(back);
    return worst;
  }
};

using MapToDem = Fixture;

void SetPreferences(double max_order, double tolerance, double skip) {
  epmg_SetDoublePreference(L"rasterprocess", L"rp_reprojmaxorder", max_order);
  epmg_SetDoublePreference(L"rasterprocess", L"rp_reprojtolerance", tolerance);
  epmg_SetDoublePreference(L"rasterprocess", L"rp_reprojskipx", skip);
  epmg_SetDoublePreference(L"rasterprocess", L"rp_reprojskipy", skip);
}

TEST_F(MapToDem, ExactTransformFollowsProj) {
  long order = -1;
  Epho_FitResidual fit{1, 1, 1};
  Exfr_XForm* t =
      epho_MapToDemXFormCreate(map, nullptr, &dem, EPHO_MAP_TO_DEM_EXACT, &order, &fit, nullptr);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(order, 0);
  EXPECT_EQ(fit.samples, 0);
  EXPECT_LT(WorstError(t), 1e-6);
  exfr_XFormFree(t);
}

TEST_F(MapToDem, PreferencesSteerTheOrderAndTheFallback) {
  struct Case {
    const char* what;
    double max_order, tolerance, skip;
    long min_order, max_order_expected, samples;
  } cases[] = {
      // Over these 30 x 24 km an affine is good to about 0.07 pixels. The
      // defaults (order 0 here: none set) sample every 32 pixels and the far
      // edges: 33 columns, 26 rows.
      {"defaults", 0, EPHO_REPROJ_DEFAULT_TOLERANCE, 0, 1, EPHO_REPROJ_DEFAULT_MAX_ORDER, 33 * 26},
      {"loose tolerance: an affine", 3, 50.0, 32, 1, 1, 33 * 26},
      {"a twentieth of a pixel needs order 2", 3, 0.05, 32, 2, 2, 33 * 26},
      {"affine only, tight tolerance: exact", 1, 1e-4, 32, 0, 0, 0},
      {"a millionth of a pixel", 5, 1e-6, 50, 3, 5, 21 * 17},
      {"sparse samples", 2, 1.0, 100, 1, 1, 11 * 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    epmg_ClearPreferences();
    if (c.max_order > 0) SetPreferences(c.max_order, c.tolerance, c.skip);
    long order = -1;
    Epho_FitResidual fit{};
    Exfr_XForm* t = epho_MapToDemXFormCreate(map, nullptr, &dem, EPHO_MAP_TO_DEM_POLYNOMIAL, &order,
                                             &fit, nullptr);
    ASSERT_NE(t, nullptr);
    EXPECT_GE(order, c.min_order);
    EXPECT_LE(order, c.max_order_expected);
    EXPECT_EQ(fit.samples, c.samples);
    if (order > 0) {
      EXPECT_LE(fit.maxError, c.tolerance);
    }
    // An affine fit is a plain polynomial transform; higher orders are chains.
    EXPECT_EQ(exfr_XFormPolynomialOrder(t), order == 1 ? 1 : 0);
    EXPECT_LT(WorstError(t, 100), order == 0 ? 1e-6 : 2 * c.tolerance + 1e-3);
    exfr_XFormFree(t);
  }
}

TEST_F(MapToDem, DemFileAndSameSystem) {
  testutil::ScratchDir dir("map_to_dem");
  const std::string path = dir.File("dem.tif");
  GDALAllRegister();
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), kWidth, kHeight, 1,
                               GDT_Float32, nullptr);
  ASSERT_NE(ds, nullptr);
  double gt[6];
  std::copy(kGeo, kGeo + 6, gt);
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  GDALClose(ds);

  Report err;
  long order = -1;
  Exfr_XForm* t = epho_MapToDemXFormCreate(map, dir.WFile("dem.tif").c_str(), nullptr,
                                           EPHO_MAP_TO_DEM_EXACT, &order, nullptr, &err);
  ASSERT_NE(t, nullptr) << err.Text();
  EXPECT_LT(WorstError(t, 50), 1e-6);
  exfr_XFormFree(t);

  // Map coordinates already in the DEM's system: the inverse geotransform.
  t = epho_MapToDemXFormCreate(dem_system.p, nullptr, &dem, EPHO_MAP_TO_DEM_POLYNOMIAL, &order,
                               nullptr, &err);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(order, 1);
  double xc[3], yc[3];
  ASSERT_TRUE(exfr_PolynomialCoefficientsGet(t, xc, yc, nullptr));
  EXPECT_NEAR(xc[1], 1.0 / 30.0, 1e-15);
  EXPECT_NEAR(yc[2], -1.0 / 30.0, 1e-15);
  EXPECT_NEAR(xc[0], -700000.0 / 30.0, 1e-8);
  EXPECT_NEAR(yc[0], 5300000.0 / 30.0, 1e-8);
  exfr_XFormFree(t);
}

TEST_F(MapToDem, BadInputIsReported) {
  Epho_DemGeoreference empty = dem, nan_geo = dem, singular = dem, huge = dem;
  empty.width = 0;
  huge.width = huge.height = 2000;  // 2001² samples at every pixel
  nan_geo.geoTransform[1] = std::nan("");
  singular.geoTransform[1] = 0.0;
  singular.geoTransform[2] = 0.0;
  struct Case {
    const char* what;
    const Epho_DemGeoreference* dem;
    const wchar_t* file;
    int32_t method;
    double max_order, tolerance, skip;
    const wchar_t* message;
  } cases[] = {
      {"no DEM", nullptr, nullptr, 0, 3, 0.1, 32, L"neither a DEM file"},
      {"unknown method", &dem, nullptr, 4, 3, 0.1, 32, L"method 4 is unknown"},
      {"missing file", nullptr, L"/nonexistent/dem.tif", 0, 3, 0.1, 32, L"Cannot open the DEM"},
      {"no cells", &empty, nullptr, 0, 3, 0.1, 32, L"has no cells"},
      {"NaN geotransform", &nan_geo, nullptr, 0, 3, 0.1, 32, L"not finite"},
      {"singular geotransform", &singular, nullptr, 0, 3, 0.1, 32, L"is singular"},
      {"order 6", &dem, nullptr, 1, 6, 0.1, 32, L"rp_reprojmaxorder (6)"},
      {"fractional order", &dem, nullptr, 1, 2.5, 0.1, 32, L"rp_reprojmaxorder (2.5)"},
      {"negative tolerance", &dem, nullptr, 1, 3, -1, 32, L"rp_reprojtolerance (-1)"},
      {"sub-pixel skip", &dem, nullptr, 1, 3, 0.1, 0.5, L"rp_reprojskipx/rp_reprojskipy"},
      {"too many samples", &huge, nullptr, 1, 3, 0.1, 1, L"takes 4004001 samples"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SetPreferences(c.max_order, c.tolerance, c.skip);
    long order = -1;
    Report err;
    EXPECT_EQ(epho_MapToDemXFormCreate(map, c.file, c.dem, c.method, &order, nullptr, &err),
              nullptr);
    EXPECT_TRUE(testutil::Mentions(err.r, c.message)) << err.Text();
    EXPECT_EQ(order, -1);
  }
}

}  // namespace
