// Projections against PROJ's cs2cs run on the fly, WKT round trips through
// GDAL, and the reports for bad parameters and points.
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "proj_cli_test_util.h"
#include "test_util.h"

namespace {

constexpr double kDeg = 0.017453292519943295;
constexpr double kMapTolerance = 1e-3;    // metres
constexpr double kAngleTolerance = 1e-9;  // degrees

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
struct ProjDeleter {
  void operator()(Eprj_MapProjection* p) const { eprj_ProjectionFree(p); }
};
using Pro = std::unique_ptr<Eprj_ProParameters, ProDeleter>;
using Proj = std::unique_ptr<Eprj_MapProjection, ProjDeleter>;

using testutil::Mentions;

struct Case {
  const char* what;
  long number;
  long zone;
  std::vector<double> params;  // GCTP layout, angles in degrees here
  const wchar_t* spheroid;
  const wchar_t* datum;
  std::string proj;                               // the same system written for cs2cs
  std::string ellps;                              // its geographic system
  std::vector<std::pair<double, double>> lonlat;  // sample points, degrees
};

// Angles of the cases are given in degrees and turned into radians here,
// except scale factors, false origins and the hemisphere flag.
Pro Make(const Case& c) {
  double p[EPRJ_PARAMETER_COUNT] = {0};
  for (size_t i = 0; i < c.params.size(); ++i) p[i] = c.params[i];
  const bool lcc1 = c.number == EPRJ_LAMBERT_CONFORMAL_CONIC_1SP;
  for (int i : {2, 3, 4, 5}) {
    const bool angle = lcc1 ? (i == 2 || i == 3)
                            : (i == 4 || i == 5 ||
                               ((i == 2 || i == 3) && (c.number == EPRJ_LAMBERT_CONFORMAL_CONIC ||
                                                       c.number == EPRJ_ALBERS_CONIC_EQUAL_AREA)));
    if (angle) p[i] *= kDeg;
  }
  Eerr_ErrorReport* err = nullptr;
  Pro pro(eprj_ProParametersCreate(c.number, L"", c.zone, p, c.spheroid, c.datum, &err));
  EXPECT_EQ(err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
  eerr_DeleteErrorReportEx(&err);
  return pro;
}

std::vector<Case> Cases() {
  return {
      {"UTM 33 north",
       EPRJ_UTM,
       33,
       {0, 0, 0, 1},
       L"WGS 84",
       L"WGS 84",
       "+proj=utm +zone=33 +ellps=WGS84",
       "+ellps=WGS84",
       {{15.0, 52.5}, {12.1, 0.5}, {17.9, 78.0}, {9.0, 45.0}}},
      {"UTM 19 south",
       EPRJ_UTM,
       19,
       {0, 0, 0, -1},
       L"GRS 1980",
       L"NAD83",
       "+proj=utm +zone=19 +south +ellps=GRS80",
       "+ellps=GRS80",
       {{-69.0, -33.4}, {-71.9, -0.1}, {-66.5, -79.9}}},
      {"UTM 31 on International 1924",
       EPRJ_UTM,
       31,
       {0, 0, 0, 1},
       L"International 1924",
       L"ED50",
       "+proj=utm +zone=31 +ellps=intl",
       "+ellps=intl",
       {{2.35, 48.85}, {0.1, 38.0}}},
      {"Transverse Mercator on Bessel",
       EPRJ_TRANSVERSE_MERCATOR,
       0,
       {0, 0, 1.0, 0, 9.0, 0, 3500000, 0},
       L"Bessel 1841",
       L"DHDN",
       "+proj=tmerc +lat_0=0 +lon_0=9 +k=1 +x_0=3500000 +y_0=0 +ellps=bessel",
       "+ellps=bessel",
       {{9.0, 50.0}, {10.7, 47.3}, {7.2, 54.9}}},
      {"Transverse Mercator with origin latitude",
       EPRJ_TRANSVERSE_MERCATOR,
       0,
       {0, 0, 0.9996012717, 0, -2.0, 49.0, 400000, -100000},
       L"Airy 1830",
       L"OSGB 1936",
       "+proj=tmerc +lat_0=49 +lon_0=-2 +k=0.9996012717 +x_0=400000 +y_0=-100000 +ellps=airy",
       "+ellps=airy",
       {{-1.5, 51.5}, {-5.7, 50.1}, {-3.0, 58.6}}},
      {"Lambert conformal conic, two parallels",
       EPRJ_LAMBERT_CONFORMAL_CONIC,
       0,
       {0, 0, 33.0, 45.0, -96.0, 23.0, 0, 0},
       L"GRS 1980",
       L"NAD83",
       "+proj=lcc +lat_1=33 +lat_2=45 +lat_0=23 +lon_0=-96 +x_0=0 +y_0=0 +ellps=GRS80",
       "+ellps=GRS80",
       {{-96.0, 23.0}, {-120.5, 47.2}, {-75.0, 30.0}}},
      {"Lambert conformal conic, one parallel",
       EPRJ_LAMBERT_CONFORMAL_CONIC_1SP,
       0,
       {0, 0, 2.337229167, 46.8, 0.99987742, 600000, 2200000},
       L"Clarke 1880",
       nullptr,
       "+proj=lcc +lat_1=46.8 +lat_0=46.8 +lon_0=2.337229167 +k_0=0.99987742 +x_0=600000 "
       "+y_0=2200000 +a=6378249.145 +rf=293.465",
       "+a=6378249.145 +rf=293.465",
       {{2.35, 48.85}, {-4.5, 48.4}, {7.7, 43.7}}},
      {"Polar stereographic south",
       EPRJ_POLAR_STEREOGRAPHIC,
       0,
       {0, 0, 0, 0, 0.0, -71.0, 0, 0},
       L"WGS 84",
       L"WGS 84",
       "+proj=stere +lat_0=-90 +lat_ts=-71 +lon_0=0 +x_0=0 +y_0=0 +ellps=WGS84",
       "+ellps=WGS84",
       {{0.0, -90.0 + 1e-7}, {166.7, -77.8}, {-60.0, -64.0}, {180.0, -70.0}}},
      {"Polar stereographic north",
       EPRJ_POLAR_STEREOGRAPHIC,
       0,
       {0, 0, 0, 0, -45.0, 70.0, 0, 0},
       L"WGS 84",
       L"WGS 84",
       "+proj=stere +lat_0=90 +lat_ts=70 +lon_0=-45 +x_0=0 +y_0=0 +ellps=WGS84",
       "+ellps=WGS84",
       {{-45.0, 80.0}, {-51.7, 64.2}, {20.0, 78.2}}},
      {"Mercator",
       EPRJ_MERCATOR,
       0,
       {0, 0, 0, 0, 10.0, 0, 1000, 2000},
       L"WGS 84",
       L"WGS 84",
       "+proj=merc +lon_0=10 +k=1 +x_0=1000 +y_0=2000 +ellps=WGS84",
       "+ellps=WGS84",
       {{10.0, 0.0}, {-170.0, -60.0}, {179.9, 84.0}}},
      {"Albers equal-area",
       EPRJ_ALBERS_CONIC_EQUAL_AREA,
       0,
       {0, 0, 29.5, 45.5, -96.0, 23.0, 0, 0},
       L"GRS 1980",
       L"NAD83",
       "+proj=aea +lat_1=29.5 +lat_2=45.5 +lat_0=23 +lon_0=-96 +x_0=0 +y_0=0 +ellps=GRS80",
       "+ellps=GRS80",
       {{-96.0, 37.5}, {-122.4, 37.8}, {-70.0, 44.0}}},
      {"Oblique stereographic",
       EPRJ_DOUBLE_STEREOGRAPHIC,
       0,
       {0, 0, 0.9999079, 0, 5.38763888888889, 52.15616055555555, 155000, 463000},
       L"Bessel 1841",
       nullptr,
       "+proj=sterea +lat_0=52.15616055555555 +lon_0=5.38763888888889 +k=0.9999079 "
       "+x_0=155000 +y_0=463000 +ellps=bessel",
       "+ellps=bessel",
       {{5.387638889, 52.156160556}, {4.9, 52.37}, {6.9, 53.2}}},
      {"State plane NAD83 zone 405",
       EPRJ_STATE_PLANE,
       405,
       {},
       L"GRS 1980",
       L"NAD83",
       "+proj=lcc +lat_1=35.46666666666667 +lat_2=34.03333333333333 +lat_0=33.5 +lon_0=-118 "
       "+x_0=2000000 +y_0=500000 +ellps=GRS80",
       "+ellps=GRS80",
       {{-118.24, 34.05}, {-117.2, 34.9}}},
      {"State plane NAD27 zone 405",
       EPRJ_STATE_PLANE,
       405,
       {},
       L"Clarke 1866",
       L"NAD27",
       "+proj=lcc +lat_1=35.46666666666667 +lat_2=34.03333333333333 +lat_0=33.5 +lon_0=-118 "
       "+x_0=609601.2192024384 +y_0=0 +ellps=clrk66",
       "+ellps=clrk66",
       {{-118.24, 34.05}, {-117.2, 34.9}}},
  };
}

// Forward to a millimetre of cs2cs; back, from cs2cs's own map points, to
// nanodegrees of its inverse.
TEST(EprjProjection, AgreesWithCs2csBothWays) {
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.what);
    Pro pro = Make(c);
    ASSERT_TRUE(pro);
    Eerr_ErrorReport* err = nullptr;
    Proj proj(eprj_ProjectionInit(pro.get(), &err));
    ASSERT_TRUE(proj && proj->toLL) << kzdv::ToUtf8(kzdv::ReportText(err));
    projcli::Rows ll;
    for (const auto& p : c.lonlat) ll.push_back({p.first, p.second});
    const projcli::Rows map =
        projcli::Run("cs2cs -f %.6f +proj=longlat " + c.ellps + " +to " + c.proj, ll);
    ASSERT_EQ(map.size(), ll.size());
    const projcli::Rows back =
        projcli::Run("cs2cs -f %.12f " + c.proj + " +to +proj=longlat " + c.ellps, map);
    ASSERT_EQ(back.size(), map.size());
    std::vector<double> x, y, mx, my;
    for (size_t i = 0; i < ll.size(); ++i) {
      x.push_back(ll[i][0] * kDeg);
      y.push_back(ll[i][1] * kDeg);
      mx.push_back(map[i][0]);
      my.push_back(map[i][1]);
    }
    const long n = static_cast<long>(x.size());
    ASSERT_TRUE(eprj_ProjectionFromLL(proj.get(), n, x.data(), y.data(), &err))
        << kzdv::ToUtf8(kzdv::ReportText(err));
    ASSERT_TRUE(eprj_ProjectionToLL(proj.get(), n, mx.data(), my.data(), &err))
        << kzdv::ToUtf8(kzdv::ReportText(err));
    for (size_t i = 0; i < map.size(); ++i) {
      EXPECT_NEAR(x[i], map[i][0], kMapTolerance) << "point " << i;
      EXPECT_NEAR(y[i], map[i][1], kMapTolerance) << "point " << i;
      EXPECT_NEAR(std::remainder(mx[i] / kDeg - back[i][0], 360.0), 0.0, kAngleTolerance) << i;
      EXPECT_NEAR(my[i] / kDeg, back[i][1], kAngleTolerance) << i;
    }
  }
}

TEST(EprjProjection, GeographicIsIdentityAndCopiesConvertAlike) {
  Pro geo(eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr, L"WGS 84",
                                   L"WGS 84", nullptr));
  Proj p(eprj_ProjectionInit(geo.get(), nullptr));
  ASSERT_TRUE(p && p->toLL && p->fromLL);
  double x = 0.3, y = -0.2;
  ASSERT_TRUE(eprj_ProjectionToLL(p.get(), 1, &x, &y, nullptr));
  EXPECT_EQ(x, 0.3);
  EXPECT_EQ(y, -0.2);

  Pro utm = Make(Cases()[0]);
  Proj a(eprj_ProjectionInit(utm.get(), nullptr));
  Proj b(eprj_ProjectionCopy(a.get(), nullptr));
  ASSERT_TRUE(b);
  EXPECT_TRUE(
      eprj_ProParametersEqual(eprj_MapProjectionCSRGet(b.get(), nullptr), utm.get(), nullptr));
  double xa = 15.1 * kDeg, ya = 52.0 * kDeg, xb = xa, yb = ya;
  ASSERT_TRUE(eprj_ProjectionFromLL(a.get(), 1, &xa, &ya, nullptr));
  ASSERT_TRUE(eprj_ProjectionFromLL(b.get(), 1, &xb, &yb, nullptr));
  EXPECT_EQ(xa, xb);
  EXPECT_EQ(ya, yb);
}

TEST(EprjProjection, BadParametersAndPointsAreReportedNotWritten) {
  Eerr_ErrorReport* err = nullptr;
  // Unknown projection number.
  Pro unknown(eprj_ProParametersCreate(999, L"", 0, nullptr, L"WGS 84", nullptr, nullptr));
  EXPECT_EQ(eprj_ProjectionInit(unknown.get(), &err), nullptr);
  EXPECT_STREQ(err->function, L"eprj_ProjectionInit");
  EXPECT_TRUE(Mentions(err, L"Unknown projection number 999"));
  eerr_DeleteErrorReportEx(&err);
  // Missing spheroid.
  Pro bare(eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 33, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(eprj_MapProjectionInit(bare.get(), &err), nullptr);
  EXPECT_STREQ(err->function, L"eprj_MapProjectionInit");
  EXPECT_TRUE(Mentions(err, L"no spheroid"));
  eerr_DeleteErrorReportEx(&err);
  // Unknown spheroid name.
  EXPECT_EQ(eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 33, nullptr, L"Potato 2000", nullptr, &err),
            nullptr);
  EXPECT_TRUE(Mentions(err, L"Potato 2000"));
  eerr_DeleteErrorReportEx(&err);
  // Absurd parameters: zone 61, latitude of origin of 3 rad, NaN, scale 0.
  Pro zone(eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 61, nullptr, L"WGS 84", nullptr, nullptr));
  EXPECT_EQ(eprj_ProjectionInit(zone.get(), &err), nullptr);
  EXPECT_TRUE(Mentions(err, L"UTM zone 61"));
  eerr_DeleteErrorReportEx(&err);
  for (auto change : std::vector<std::pair<int, double>>{{5, 3.0}, {4, NAN}, {2, 0.0}}) {
    double p[EPRJ_PARAMETER_COUNT] = {0, 0, 0.9996, 0, 0.1, 0.2, 500000, 0};
    p[change.first] = change.second;
    Pro tm(
        eprj_ProParametersCreate(EPRJ_TRANSVERSE_MERCATOR, L"", 0, p, L"WGS 84", nullptr, nullptr));
    EXPECT_EQ(eprj_ProjectionInit(tm.get(), &err), nullptr) << change.first;
    EXPECT_NE(err, nullptr);
    eerr_DeleteErrorReportEx(&err);
  }
  // A state plane zone that does not exist.
  Pro sp(eprj_ProParametersCreate(EPRJ_STATE_PLANE, L"", 9999, nullptr, L"GRS 1980", nullptr,
                                  nullptr));
  EXPECT_EQ(eprj_ProjectionInit(sp.get(), &err), nullptr);
  EXPECT_TRUE(Mentions(err, L"State plane zone 9999"));
  eerr_DeleteErrorReportEx(&err);

  // Points outside the domain: the pole on Mercator, a latitude beyond 90°,
  // a NaN; the arrays keep their values.
  Pro merc = Make(Cases()[9]);
  Proj m(eprj_ProjectionInit(merc.get(), nullptr));
  ASSERT_TRUE(m);
  double x[3] = {0.1, 0.2, 0.3}, y[3] = {0.5, 90.0 * kDeg, 0.1};
  EXPECT_FALSE(eprj_ProjectionFromLL(m.get(), 3, x, y, &err));
  EXPECT_STREQ(err->function, L"eprj_ProjectionFromLL");
  EXPECT_TRUE(Mentions(err, L"fromLL failed"));
  EXPECT_TRUE(Mentions(err, L"Point 1"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(x[0], 0.1);
  EXPECT_EQ(y[1], 90.0 * kDeg);
  double bx = 0.0, by = 2.0;
  EXPECT_FALSE(eprj_ProjectionFromLL(m.get(), 1, &bx, &by, &err));
  eerr_DeleteErrorReportEx(&err);
  double nx = NAN, ny = 0.0;
  EXPECT_FALSE(eprj_ProjectionToLL(m.get(), 1, &nx, &ny, &err));
  eerr_DeleteErrorReportEx(&err);
  // Transverse Mercator 90° from its meridian on the equator is singular.
  Pro utm = Make(Cases()[0]);
  Proj u(eprj_ProjectionInit(utm.get(), nullptr));
  double fx = (15.0 + 90.0) * kDeg, fy = 0.0;
  EXPECT_FALSE(eprj_ProjectionFromLL(u.get(), 1, &fx, &fy, &err));
  EXPECT_TRUE(Mentions(err, L"outside the projection's domain"));
  eerr_DeleteErrorReportEx(&err);
}

// A system on the Paris meridian (in grads): our parameters count from
// Greenwich, and the projection agrees with cs2cs's own Paris definition.
TEST(EprjWkt, PrimeMeridianMovesTheCentralMeridian) {
  Eerr_ErrorReport* err = nullptr;
  Pro p(eprj_ProParametersFromWkt("EPSG:27572", &err));
  ASSERT_TRUE(p) << kzdv::ToUtf8(kzdv::ReportText(err));
  ASSERT_EQ(p->proNumber, EPRJ_LAMBERT_CONFORMAL_CONIC_1SP);
  EXPECT_NEAR(p->proParams.data[2] / kDeg, 2.33722917, 1e-8);
  EXPECT_NEAR(p->proParams.data[3] / kDeg, 46.8, 1e-9);
  Proj proj(eprj_ProjectionInit(p.get(), nullptr));
  ASSERT_TRUE(proj);
  const projcli::Rows in = {{2.35, 48.85}, {-1.5, 47.2}, {7.7, 48.6}};
  const projcli::Rows truth = projcli::Run(
      "cs2cs -f %.6f +proj=longlat +a=6378249.2 +b=6356515 +to +proj=lcc +lat_1=46.8 +lat_0=46.8 "
      "+lon_0=0 +k_0=0.99987742 +x_0=600000 +y_0=2200000 +a=6378249.2 +b=6356515 +pm=paris",
      in);
  ASSERT_EQ(truth.size(), in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    double x = in[i][0] * kDeg, y = in[i][1] * kDeg;
    ASSERT_TRUE(eprj_ProjectionFromLL(proj.get(), 1, &x, &y, nullptr));
    EXPECT_NEAR(x, truth[i][0], kMapTolerance) << i;
    EXPECT_NEAR(y, truth[i][1], kMapTolerance) << i;
  }
  EXPECT_EQ(eprj_ProParametersFromWkt("EPSG:4807", &err), nullptr);  // NTF (Paris) geographic
  EXPECT_NE(kzdv::ReportText(err).find(L"prime meridian"), std::wstring::npos);
  eerr_DeleteErrorReportEx(&err);
}

// A GeoTIFF's coordinate system becomes our parameters, and our parameters
// written back as WKT describe the same mapping (checked point by point with
// GDAL's own transformation of the original system).
TEST(EprjWkt, GeoTiffSystemsRoundTripThroughParameters) {
  GDALAllRegister();
  struct Sys {
    int epsg;
    long number;
    double lon, lat;
  };
  const Sys systems[] = {{32633, EPRJ_UTM, 15.2, 52.1},
                         {32719, EPRJ_UTM, -69.1, -33.0},
                         {4326, EPRJ_LATLONG, 10.0, 50.0},
                         {2154, EPRJ_LAMBERT_CONFORMAL_CONIC, 2.3, 48.8},
                         {3031, EPRJ_POLAR_STEREOGRAPHIC, 166.0, -77.8},
                         {5070, EPRJ_ALBERS_CONIC_EQUAL_AREA, -100.0, 40.0},
                         {28992, EPRJ_DOUBLE_STEREOGRAPHIC, 5.0, 52.0},
                         {27700, EPRJ_TRANSVERSE_MERCATOR, -1.5, 53.0},
                         {3395, EPRJ_MERCATOR, 30.0, 60.0},
                         {3857, EPRJ_PSEUDO_MERCATOR, 30.0, 60.0}};
  testutil::ScratchDir dir("eprjwkt");
  for (const Sys& s : systems) {
    SCOPED_TRACE(s.epsg);
    // Write a GeoTIFF with that system and read its WKT back, as a layer would.
    const std::string file = dir.File("sys" + std::to_string(s.epsg) + ".tif");
    GDALDriverH gtiff = GDALGetDriverByName("GTiff");
    GDALDatasetH ds = GDALCreate(gtiff, file.c_str(), 4, 4, 1, GDT_Byte, nullptr);
    OGRSpatialReference epsg;
    ASSERT_EQ(epsg.importFromEPSG(s.epsg), OGRERR_NONE);
    GDALSetSpatialRef(ds, OGRSpatialReference::ToHandle(&epsg));
    GDALClose(ds);
    ds = GDALOpen(file.c_str(), GA_ReadOnly);
    const std::string wkt = GDALGetProjectionRef(ds);
    GDALClose(ds);

    Eerr_ErrorReport* err = nullptr;
    Pro pro(eprj_ProParametersFromWkt(wkt.c_str(), &err));
    ASSERT_TRUE(pro) << kzdv::ToUtf8(kzdv::ReportText(err));
    EXPECT_EQ(pro->proNumber, s.number);
    char* back = eprj_ProParametersToWkt(pro.get(), &err);
    ASSERT_TRUE(back) << kzdv::ToUtf8(kzdv::ReportText(err));
    Pro again(eprj_ProParametersFromWkt(back, nullptr));
    emsc_HeapFree(back);
    EXPECT_TRUE(eprj_ProParametersEqual(pro.get(), again.get(), nullptr));

    if (s.number == EPRJ_LATLONG) continue;
    OGRSpatialReference original;
    original.importFromWkt(wkt.c_str());
    original.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRSpatialReference> geog(original.CloneGeogCS());
    geog->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRCoordinateTransformation> ct(
        OGRCreateCoordinateTransformation(geog.get(), &original));
    double gx = s.lon, gy = s.lat;
    ASSERT_TRUE(ct && ct->Transform(1, &gx, &gy));
    Proj proj(eprj_ProjectionInit(pro.get(), nullptr));
    double ox = s.lon * kDeg, oy = s.lat * kDeg;
    ASSERT_TRUE(eprj_ProjectionFromLL(proj.get(), 1, &ox, &oy, nullptr));
    EXPECT_NEAR(ox, gx, kMapTolerance);
    EXPECT_NEAR(oy, gy, kMapTolerance);
  }
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(eprj_ProParametersFromWkt("not a coordinate system", &err), nullptr);
  EXPECT_STREQ(err->function, L"eprj_ProParametersFromWkt");
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
