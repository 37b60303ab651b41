// 3D reprojection and datum shifts against PROJ: pipelines written out by
// hand, EPSG transformations from PROJ's database and cs2cs run on compound
// systems; datum shifts in HFA files against what GDAL reads from them.
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_spatialref.h>
#include <proj.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ehfa.h"
#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "proj_cli_test_util.h"
#include "test_util.h"

namespace {

constexpr double kDeg = 0.017453292519943295;
constexpr double kEarthRadius = 6378137.0;  // metres, to express angle errors
constexpr double kTolerance = 1e-3;         // metres

using Point = std::array<double, 3>;
using Points = std::vector<Point>;

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
struct ElevDeleter {
  void operator()(Eprj_ElevationInfo* e) const { eprj_ElevationInfoFree(e); }
};
struct P3Deleter {
  void operator()(Eprj_3DProjection* p) const { eprj_3DProjectionFree(p); }
};
struct S3Deleter {
  void operator()(Eprj_3DDatumShift* p) const { eprj_3DDatumShiftFree(p); }
};
struct SpheroidDeleter {
  void operator()(Eprj_Spheroid* s) const { eprj_SpheroidFree(s); }
};
using Pro = std::shared_ptr<Eprj_ProParameters>;
using Elev = std::shared_ptr<Eprj_ElevationInfo>;
using P3 = std::unique_ptr<Eprj_3DProjection, P3Deleter>;
using S3 = std::unique_ptr<Eprj_3DDatumShift, S3Deleter>;
using Spheroid = std::unique_ptr<Eprj_Spheroid, SpheroidDeleter>;

std::string Report(Eerr_ErrorReport* err) {
  std::string s = kzdv::ToUtf8(kzdv::ReportText(err));
  eerr_DeleteErrorReport(err);
  return s;
}

Pro Utm(long zone, const wchar_t* spheroid, const wchar_t* datum) {
  double p[EPRJ_PARAMETER_COUNT] = {0};
  p[3] = 1;  // north
  return Pro(eprj_ProParametersCreate(EPRJ_UTM, L"UTM", zone, p, spheroid, datum, nullptr),
             ProDeleter());
}
Pro Geographic(const wchar_t* spheroid, const wchar_t* datum) {
  return Pro(eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr, spheroid,
                                      datum, nullptr),
             ProDeleter());
}
Elev Heights(const wchar_t* datum, const wchar_t* unit = L"meters") {
  return Elev(eprj_ElevationInfoCreateByName(L"WGS 84", datum, unit, L"height", nullptr),
              ElevDeleter());
}

// A PROJ pipeline written out in the test, run forward on radians/metres.
Points RunPipeline(const std::string& pipeline, Points in) {
  PJ_CONTEXT* ctx = proj_context_create();
  PJ* pj = proj_create(ctx, pipeline.c_str());
  EXPECT_TRUE(pj) << pipeline;
  for (Point& p : in) {
    PJ_COORD c = proj_coord(p[0], p[1], p[2], 0);
    c = pj ? proj_trans(pj, PJ_FWD, c) : proj_coord(NAN, NAN, NAN, NAN);
    p = {c.xyz.x, c.xyz.y, c.xyz.z};
  }
  if (pj) proj_destroy(pj);
  proj_context_destroy(ctx);
  return in;
}

// cs2cs between EPSG systems; geographic axes there are latitude, longitude
// in degrees, swapped here to our longitude, latitude in radians.
Points Cs2cs(const std::string& from, const std::string& to, bool geo_in, bool geo_out, Points in) {
  projcli::Rows rows;
  for (const Point& p : in)
    rows.push_back(geo_in ? std::vector<double>{p[1] / kDeg, p[0] / kDeg, p[2]}
                          : std::vector<double>{p[0], p[1], p[2]});
  const projcli::Rows out = projcli::Run("cs2cs -f %.12f " + from + " " + to, rows);
  Points r;
  for (const auto& row : out) {
    if (row.size() < 3) continue;
    r.push_back(geo_out ? Point{row[1] * kDeg, row[0] * kDeg, row[2]}
                        : Point{row[0], row[1], row[2]});
  }
  return r;
}

// Differences in metres; geographic coordinates (radians) are scaled.
void ExpectSame(const Points& got, const Points& want, bool geographic, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    const double sx = geographic ? kEarthRadius * std::cos(want[i][1]) : 1.0;
    const double sy = geographic ? kEarthRadius : 1.0;
    EXPECT_NEAR(got[i][0] * sx, want[i][0] * sx, kTolerance) << what << ", point " << i;
    EXPECT_NEAR(got[i][1] * sy, want[i][1] * sy, kTolerance) << what << ", point " << i;
    EXPECT_NEAR(got[i][2], want[i][2], kTolerance) << what << ", point " << i;
  }
}

bool Apply3D(const Eprj_3DProjection* p, Points& pts, Eerr_ErrorReport** err) {
  std::vector<double> x, y, z;
  for (const Point& q : pts) {
    x.push_back(q[0]);
    y.push_back(q[1]);
    z.push_back(q[2]);
  }
  if (!eprj_3DProject(p, static_cast<long>(pts.size()), x.data(), y.data(), z.data(), err))
    return false;
  for (size_t i = 0; i < pts.size(); ++i) pts[i] = {x[i], y[i], z[i]};
  return true;
}

bool GridInstalled(const char* step) {
  PJ_CONTEXT* ctx = proj_context_create();
  proj_log_level(ctx, PJ_LOG_NONE);
  proj_context_set_enable_network(ctx, 0);
  PJ* pj = proj_create(ctx, step);
  if (pj) proj_destroy(pj);
  proj_context_destroy(ctx);
  return pj != nullptr;
}

struct ProjectCase {
  const char* what;
  Pro source;
  Elev source_heights;
  Pro target;
  Elev target_heights;
  Points in;
  bool geographic_out;
  std::function<Points(const Points&)> truth;
};

TEST(Eprj3DProject, AgreesWithProjAcrossDatumsAndHeights) {
  ASSERT_TRUE(GridInstalled("+proj=vgridshift +grids=us_nga_egm96_15.tif"))
      << "proj-data's EGM96 grid is missing";
  const Points utm32 = {{500000, 5500000, 100}, {412345.6, 5320000, 2500}, {690000, 5900000, -30}};
  const Points utm33 = {{500000, 5500000, 100}, {350000, 5100000, 1800}};
  const Points london = {{0.5 * kDeg, 51.5 * kDeg, 45}, {1.9 * kDeg, 52.6 * kDeg, 310}};
  const Points world = {
      {15 * kDeg, 49.65 * kDeg, 100}, {-70 * kDeg, -33 * kDeg, 2000}, {140 * kDeg, 36 * kDeg, 0}};
  std::vector<ProjectCase> cases = {
      {"UTM 32N on ED50 to geographic WGS 84 (3 parameters)",
       Utm(32, L"International 1924", L"ED50"), nullptr, Geographic(L"WGS 84", L"WGS 84"), nullptr,
       utm32, true,
       [](const Points& in) {
         return RunPipeline(
             "+proj=pipeline +step +inv +proj=utm +zone=32 +ellps=intl +step +proj=cart "
             "+ellps=intl +step +proj=helmert +x=-87 +y=-98 +z=-121 +step +inv +proj=cart "
             "+ellps=WGS84",
             in);
       }},
      {"geographic WGS 84 to UTM 31N on OSGB 1936 (7 parameters)", Geographic(L"WGS 84", L"WGS 84"),
       nullptr, Utm(31, L"Airy 1830", L"OSGB 1936"), nullptr, london, false,
       [](const Points& in) {
         return RunPipeline(
             "+proj=pipeline +step +proj=cart +ellps=WGS84 +step +inv +proj=helmert +x=446.448 "
             "+y=-125.157 +z=542.06 +rx=0.15 +ry=0.247 +rz=0.842 +s=-20.489 "
             "+convention=position_vector +step +inv +proj=cart +ellps=airy +step +proj=utm "
             "+zone=31 +ellps=airy",
             in);
       }},
      {"UTM 32N to UTM 33N on ED50 (one datum)", Utm(32, L"International 1924", L"ED50"), nullptr,
       Utm(33, L"International 1924", L"ED50"), nullptr, utm32, false,
       [](const Points& in) {
         return RunPipeline(
             "+proj=pipeline +step +inv +proj=utm +zone=32 +ellps=intl +step +proj=utm +zone=33 "
             "+ellps=intl",
             in);
       }},
      {"UTM 33N with EGM96 heights to geographic WGS 84", Utm(33, L"WGS 84", L"WGS 84"),
       Heights(L"EGM96"), Geographic(L"WGS 84", L"WGS 84"), nullptr, utm33, true,
       [](const Points& in) { return Cs2cs("EPSG:32633+5773", "EPSG:4979", false, true, in); }},
      {"ellipsoidal to EGM96 heights", Geographic(L"WGS 84", L"WGS 84"), nullptr,
       Geographic(L"WGS 84", L"WGS 84"), Heights(L"EGM96"), world, true,
       [](const Points& in) { return Cs2cs("EPSG:4979", "EPSG:4326+5773", true, true, in); }},
      {"ellipsoidal heights in feet to EGM96 heights", Geographic(L"WGS 84", L"WGS 84"),
       Heights(L"WGS 84", L"feet"), Geographic(L"WGS 84", L"WGS 84"), Heights(L"EGM96"), world,
       true,
       [](const Points& in) {
         Points metres = in;
         for (Point& p : metres) p[2] *= 0.3048;
         return Cs2cs("EPSG:4979", "EPSG:4326+5773", true, true, metres);
       }},
  };
  for (const ProjectCase& c : cases) {
    ASSERT_TRUE(c.source && c.target) << c.what;
    Eerr_ErrorReport* err = nullptr;
    P3 p(eprj_3DProjectionCreate(c.source.get(), c.source_heights.get(), c.target.get(),
                                 c.target_heights.get(), &err));
    ASSERT_TRUE(p) << c.what << ": " << Report(err);
    Points got = c.in;
    ASSERT_TRUE(Apply3D(p.get(), got, &err)) << c.what << ": " << Report(err);
    ExpectSame(got, c.truth(c.in), c.geographic_out,
               std::string(c.what) + " via " + eprj_3DProjectionDefinitionGet(p.get()));
    // The inverse brings the points back.
    std::vector<double> x, y, z;
    for (const Point& q : got) x.push_back(q[0]), y.push_back(q[1]), z.push_back(q[2]);
    ASSERT_TRUE(eprj_3DProjectInverse(p.get(), static_cast<long>(got.size()), x.data(), y.data(),
                                      z.data(), &err))
        << c.what << ": " << Report(err);
    Points back;
    for (size_t i = 0; i < x.size(); ++i) back.push_back({x[i], y[i], z[i]});
    ExpectSame(back, c.in, c.source->proNumber == EPRJ_LATLONG, std::string(c.what) + " back");
  }
}

// The table's shifts reproduce the EPSG transformations they come from.
TEST(Eprj3DDatumShift, DatumTableAgreesWithEpsgTransformations) {
  struct Case {
    const wchar_t* datum;
    const wchar_t* spheroid;
    const char* operation;
    double lon, lat;  // degrees, inside the transformation's area
  };
  const Case cases[] = {
      {L"ED50", L"International 1924", "urn:ogc:def:coordinateOperation:EPSG::1133", 10, 50},
      {L"OSGB 1936", L"Airy 1830", "urn:ogc:def:coordinateOperation:EPSG::1314", -1.5, 52.5},
      {L"DHDN", L"Bessel 1841", "urn:ogc:def:coordinateOperation:EPSG::1777", 10, 51},
      {L"Tokyo", L"Bessel 1841", "urn:ogc:def:coordinateOperation:EPSG::1305", 139.7, 35.7},
      {L"Pulkovo 1942", L"Krassowsky 1940", "urn:ogc:def:coordinateOperation:EPSG::5044", 37.6,
       55.7},
      {L"WGS 1972", L"WGS 72", "urn:ogc:def:coordinateOperation:EPSG::1237", -60, -20},
  };
  Spheroid wgs84(eprj_SpheroidCreateByName(L"WGS 84", nullptr));
  wgs84->datum = eprj_DatumCreateByName(L"WGS 84", nullptr);
  PJ_CONTEXT* ctx = proj_context_create();
  for (const Case& c : cases) {
    const std::string what = kzdv::ToUtf8(c.datum);
    Spheroid s(eprj_SpheroidCreateByName(c.spheroid, nullptr));
    ASSERT_TRUE(s) << what;
    s->datum = eprj_DatumCreateByName(c.datum, nullptr);
    Eerr_ErrorReport* err = nullptr;
    S3 shift(eprj_3DDatumShiftCreate(s.get(), wgs84.get(), EPRJ_3D_GEOGRAPHIC, &err));
    ASSERT_TRUE(shift) << what << ": " << Report(err);
    double x = c.lon * kDeg, y = c.lat * kDeg, z = 0;
    ASSERT_TRUE(eprj_3DDatumShift(shift.get(), 1, &x, &y, &z, &err)) << what << Report(err);

    PJ* raw = proj_create(ctx, c.operation);
    ASSERT_TRUE(raw) << c.operation;
    PJ* op = proj_normalize_for_visualization(ctx, raw);  // longitude, latitude in degrees
    proj_destroy(raw);
    PJ_COORD t = proj_trans(op, PJ_FWD, proj_coord(c.lon, c.lat, 0, 0));
    proj_destroy(op);
    ExpectSame({{x, y, 0}}, {{t.xyz.x * kDeg, t.xyz.y * kDeg, 0}}, true, what + " " + c.operation);
    // A real shift, not a zero one.
    EXPECT_GT(std::hypot(x / kDeg - c.lon, y / kDeg - c.lat), 1e-6) << what;
  }
  proj_context_destroy(ctx);
}

// The same numbers in either rotation convention, on geocentric
// coordinates, against PROJ's Helmert step told the convention.
TEST(Eprj3DDatumShift, RotationConventionsAgreeWithProjHelmert) {
  struct Case {
    Eprj_RotationConvention convention;
    const char* proj;
  };
  const Case cases[] = {{EPRJ_ROTATION_POSITION_VECTOR, "position_vector"},
                        {EPRJ_ROTATION_COORDINATE_FRAME, "coordinate_frame"}};
  const Points geocentric = {{4157222.543, 664789.307, 4774952.099},
                             {3962961.9, 1020178.2, 4842001.1},
                             {-3911000.5, 3478000.25, 3570000.75}};
  Spheroid wgs84(eprj_SpheroidCreateByName(L"WGS 84", nullptr));
  wgs84->datum = eprj_DatumCreateByName(L"WGS 84", nullptr);
  Points pv_result;
  for (const Case& c : cases) {
    Spheroid s(eprj_SpheroidCreateByName(L"Bessel 1841", nullptr));
    s->datum = eprj_DatumCreateByName(L"Test Helmert", nullptr);
    Eprj_DatumShift set{EPRJ_SHIFT_7_PARAMETER, 598.1,  73.7, 418.2, 1.5, -2.2, 3.1, 6.7,
                        c.convention,           nullptr};
    Eerr_ErrorReport* err = nullptr;
    ASSERT_TRUE(eprj_DatumShiftSet(s->datum, &set, &err)) << Report(err);
    // Read back in the other convention: the rotations change sign.
    Eprj_DatumShift other;
    const Eprj_RotationConvention flip = c.convention == EPRJ_ROTATION_POSITION_VECTOR
                                             ? EPRJ_ROTATION_COORDINATE_FRAME
                                             : EPRJ_ROTATION_POSITION_VECTOR;
    ASSERT_TRUE(eprj_DatumShiftGet(s->datum, flip, &other, nullptr));
    EXPECT_EQ(other.kind, EPRJ_SHIFT_7_PARAMETER);
    EXPECT_NEAR(other.rx, -1.5, 1e-9);
    EXPECT_NEAR(other.rz, -3.1, 1e-9);
    EXPECT_NEAR(other.scale, 6.7, 1e-9);

    S3 shift(eprj_3DDatumShiftCreate(s.get(), wgs84.get(), EPRJ_3D_GEOCENTRIC, &err));
    ASSERT_TRUE(shift) << Report(err);
    Points got = geocentric;
    for (Point& p : got)
      ASSERT_TRUE(eprj_3DDatumShift(shift.get(), 1, &p[0], &p[1], &p[2], &err)) << Report(err);
    const Points want = RunPipeline(
        std::string("+proj=helmert +x=598.1 +y=73.7 +z=418.2 +rx=1.5 +ry=-2.2 +rz=3.1 +s=6.7 "
                    "+convention=") +
            c.proj,
        geocentric);
    ExpectSame(got, want, false, c.proj);
    if (c.convention == EPRJ_ROTATION_POSITION_VECTOR)
      pv_result = got;
    else  // the conventions differ by metres here: a sign slip cannot hide
      EXPECT_GT(std::fabs(got[0][0] - pv_result[0][0]) + std::fabs(got[0][2] - pv_result[0][2]),
                1.0);
  }
}

// Shifts in datum records: surveyors' units in, HFA's units stored, GDAL's
// reading of the file agrees, and old records without shifts fall back on
// the datum table.
TEST(EprjDatumShift, RecordsRoundTripThroughHfaFilesAsGdalReadsThem) {
  testutil::ScratchDir dir("eprj3d");
  GDALAllRegister();
  const std::string img = dir.File("shift.img");
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("HFA"), img.c_str(), 4, 4, 1, GDT_Byte, nullptr);
  ASSERT_TRUE(ds);
  double gt[6] = {500000, 10, 0, 5500000, 0, -10};
  GDALSetGeoTransform(ds, gt);
  GDALClose(ds);

  Pro p = Utm(32, L"Bessel 1841", L"Test Helmert");
  const Eprj_DatumShift set{
      EPRJ_SHIFT_7_PARAMETER,         582,    105, 414, -1.04, -0.35, 3.08, 8.3,
      EPRJ_ROTATION_COORDINATE_FRAME, nullptr};
  Eerr_ErrorReport* err = nullptr;
  ASSERT_TRUE(eprj_DatumShiftSet(p->proSpheroid->datum, &set, &err)) << Report(err);
  {
    Ehfa_File* f = ehfa_FileOpen(kzdv::FromUtf8(img).c_str(), "r+b", nullptr, &err);
    ASSERT_TRUE(f) << Report(err);
    EXPECT_TRUE(eprj_ProParametersWrite(f, L":Layer_1", L"Projection", p.get(), &err))
        << Report(err);
    ehfa_FileClose(f, nullptr);
  }
  Ehfa_File* f = ehfa_FileOpen(kzdv::FromUtf8(img).c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << Report(err);
  Pro back(eprj_ProParametersRead(f, L":Layer_1", &err), ProDeleter());
  ehfa_FileClose(f, nullptr);
  ASSERT_TRUE(back && back->proSpheroid && back->proSpheroid->datum) << Report(err);
  Eprj_DatumShift got;
  ASSERT_TRUE(
      eprj_DatumShiftGet(back->proSpheroid->datum, EPRJ_ROTATION_COORDINATE_FRAME, &got, &err))
      << Report(err);
  const double want[7] = {582, 105, 414, -1.04, -0.35, 3.08, 8.3};
  const double have[7] = {got.dx, got.dy, got.dz, got.rx, got.ry, got.rz, got.scale};
  EXPECT_EQ(got.kind, EPRJ_SHIFT_7_PARAMETER);
  for (int i = 0; i < 7; ++i) EXPECT_NEAR(have[i], want[i], 1e-9) << "parameter " << i;

  // GDAL's HFA reader gives TOWGS84 (position vector): rotations negated.
  GDALDatasetH gds = GDALOpen(img.c_str(), GA_ReadOnly);
  ASSERT_TRUE(gds);
  const OGRSpatialReference* srs = OGRSpatialReference::FromHandle(GDALGetSpatialRef(gds));
  ASSERT_TRUE(srs);
  double towgs84[7] = {0};
  EXPECT_EQ(srs->GetTOWGS84(towgs84, 7), OGRERR_NONE);
  const double pv[7] = {582, 105, 414, 1.04, 0.35, -3.08, 8.3};
  for (int i = 0; i < 7; ++i) EXPECT_NEAR(towgs84[i], pv[i], 1e-6) << "TOWGS84 " << i;
  GDALClose(gds);

  // Records as older files hold them.
  struct Old {
    const wchar_t* name;
    Eprj_DatumType type;
    Eprj_DatumShiftKind kind;
    double dx;
  };
  const Old olds[] = {{L"ED50", EPRJ_DATUM_PARAMETRIC, EPRJ_SHIFT_3_PARAMETER, -87},
                      {L"European Datum 1950", EPRJ_DATUM_PARAMETRIC, EPRJ_SHIFT_3_PARAMETER, -87},
                      {L"Site grid 7", EPRJ_DATUM_PARAMETRIC, EPRJ_SHIFT_NONE, 0},
                      {L"Site grid 7", EPRJ_DATUM_NONE, EPRJ_SHIFT_UNKNOWN, 0},
                      {L"Old regression", EPRJ_DATUM_REGRESSION, EPRJ_SHIFT_REGRESSION, 0}};
  for (const Old& o : olds) {
    double zeros[7] = {0};
    Eprj_Datum d{const_cast<Etxt_Char*>(o.name), o.type, {7, zeros}, nullptr};
    Eprj_DatumShift s;
    ASSERT_TRUE(eprj_DatumShiftGet(&d, EPRJ_ROTATION_POSITION_VECTOR, &s, nullptr));
    EXPECT_EQ(s.kind, o.kind) << kzdv::ToUtf8(o.name);
    EXPECT_EQ(s.dx, o.dx) << kzdv::ToUtf8(o.name);
  }

  // Bad shifts leave the record as it was.
  Eprj_DatumShift bad = set;
  bad.dz = NAN;
  EXPECT_FALSE(eprj_DatumShiftSet(back->proSpheroid->datum, &bad, &err));
  EXPECT_TRUE(testutil::Mentions(err, L"not a finite number")) << Report(err);
  eerr_DeleteErrorReportEx(&err);
  bad = set;
  bad.kind = EPRJ_SHIFT_GRID;
  EXPECT_FALSE(eprj_DatumShiftSet(back->proSpheroid->datum, &bad, &err));
  eerr_DeleteErrorReportEx(&err);
  ASSERT_TRUE(
      eprj_DatumShiftGet(back->proSpheroid->datum, EPRJ_ROTATION_COORDINATE_FRAME, &got, nullptr));
  EXPECT_EQ(got.kind, EPRJ_SHIFT_7_PARAMETER);
  EXPECT_NEAR(got.dz, 414, 1e-9);
}

// Grid datums: an installed grid matches PROJ's own choice of operation,
// points off the grid are reported, and a missing grid is named.
TEST(Eprj3DProject, GridShiftsUseInstalledGridsAndNameMissingOnes) {
  Pro wgs84 = Geographic(L"WGS 84", L"WGS 84");
  if (GridInstalled("+proj=hgridshift +grids=BETA2007.gsb")) {
    Pro dhdn = Geographic(L"Bessel 1841", L"DHDN");
    const Eprj_DatumShift grid{EPRJ_SHIFT_GRID, 0, 0, 0, 0, 0, 0, 0, EPRJ_ROTATION_POSITION_VECTOR,
                               L"BETA2007.gsb"};
    ASSERT_TRUE(eprj_DatumShiftSet(dhdn->proSpheroid->datum, &grid, nullptr));
    Eerr_ErrorReport* err = nullptr;
    P3 p(eprj_3DProjectionCreate(dhdn.get(), nullptr, wgs84.get(), nullptr, &err));
    ASSERT_TRUE(p) << Report(err);
    const Points in = {{10 * kDeg, 50 * kDeg, 200}, {7.1 * kDeg, 53.2 * kDeg, 12}};
    Points got = in;
    ASSERT_TRUE(Apply3D(p.get(), got, &err)) << Report(err);
    // PROJ picks BETA2007 for DHDN to ETRS89, which WGS 84 meets here.
    ExpectSame(got, Cs2cs("EPSG:4314", "EPSG:4258", true, true, in), true, "BETA2007");
    Points far = {{10 * kDeg, 50 * kDeg, 0}, {100 * kDeg, 10 * kDeg, 0}};
    const Points before = far;
    EXPECT_FALSE(Apply3D(p.get(), far, &err));
    EXPECT_TRUE(testutil::Mentions(err, L"Point 1")) << Report(err);
    eerr_DeleteErrorReportEx(&err);
    EXPECT_EQ(far, before);
  }
  struct Missing {
    const char* what;
    const wchar_t* grids;  // datum grids, or null
    const wchar_t* heights;
    const wchar_t* named;
    const char* probe;  // the case holds when this does not open
  };
  const Missing cases[] = {
      {"made-up datum grid", L"no_such_shift_grid.gsb", nullptr, L"no_such_shift_grid.gsb",
       "+proj=hgridshift +grids=no_such_shift_grid.gsb"},
      {"one of two grids", L"BETA2007.gsb, missing_second.gsb", nullptr, L"missing_second.gsb",
       "+proj=hgridshift +grids=missing_second.gsb"},
      {"NAD27 as HFA files name it", L"nadcon.dat", nullptr, L"us_noaa_conus.tif",
       "+proj=hgridshift +grids=us_noaa_conus.tif"},
      {"EGM2008 geoid", nullptr, L"EGM2008", L"us_nga_egm08_25.tif",
       "+proj=vgridshift +grids=us_nga_egm08_25.tif"},
  };
  for (const Missing& m : cases) {
    if (GridInstalled(m.probe)) continue;
    Pro source = Geographic(L"Bessel 1841", L"Gridded");
    if (m.grids) {
      const Eprj_DatumShift grid{
          EPRJ_SHIFT_GRID, 0, 0, 0, 0, 0, 0, 0, EPRJ_ROTATION_POSITION_VECTOR, m.grids};
      ASSERT_TRUE(eprj_DatumShiftSet(source->proSpheroid->datum, &grid, nullptr));
    } else {
      source = Geographic(L"WGS 84", L"WGS 84");
    }
    Elev heights = m.heights ? Heights(m.heights) : nullptr;
    Eerr_ErrorReport* err = nullptr;
    P3 p(eprj_3DProjectionCreate(source.get(), heights.get(), wgs84.get(), nullptr, &err));
    EXPECT_FALSE(p) << m.what;
    EXPECT_TRUE(testutil::Mentions(err, m.named)) << m.what << ": " << Report(err);
    eerr_DeleteErrorReportEx(&err);
  }
}

TEST(Eprj3DProject, BadInputIsReportedAndNothingIsWritten) {
  Pro wgs84 = Geographic(L"WGS 84", L"WGS 84");
  Pro site = Utm(32, L"WGS 84", L"Site grid 7");  // unknown: no shift known
  Pro regression = Utm(32, L"WGS 84", L"Old regression");
  regression->proSpheroid->datum->type = EPRJ_DATUM_REGRESSION;
  Pro no_spheroid = Utm(32, nullptr, nullptr);
  struct CreateCase {
    const char* what;
    const Eprj_ProParameters* source;
    Elev heights;
    const Eprj_ProParameters* target;
    const wchar_t* message;
  };
  const CreateCase creates[] = {
      {"unknown datum", site.get(), nullptr, wgs84.get(), L"Unknown datum \"Site grid 7\""},
      {"regression", regression.get(), nullptr, wgs84.get(), L"regression"},
      {"no spheroid", no_spheroid.get(), nullptr, wgs84.get(), L"no spheroid"},
      {"no parameters", nullptr, nullptr, wgs84.get(), L"No source projection parameters"},
      {"vertical datum without geoid", wgs84.get(), Heights(L"NAVD88"), wgs84.get(), L"NAVD88"},
      {"unknown unit", wgs84.get(), Heights(L"WGS 84", L"furlongs"), wgs84.get(), L"furlongs"},
      {"geoid heights on an unknown datum", site.get(), Heights(L"EGM96"), site.get(),
       L"Site grid 7"},
  };
  for (const CreateCase& c : creates) {
    Eerr_ErrorReport* err = nullptr;
    P3 p(eprj_3DProjectionCreate(c.source, c.heights.get(), c.target, nullptr, &err));
    EXPECT_FALSE(p) << c.what;
    EXPECT_TRUE(testutil::Mentions(err, c.message)) << c.what << ": " << Report(err);
    eerr_DeleteErrorReportEx(&err);
  }

  // An unknown datum on both ends needs no shift.
  Pro site33 = Utm(33, L"WGS 84", L"Site grid 7");
  P3 same(eprj_3DProjectionCreate(site.get(), nullptr, site33.get(), nullptr, nullptr));
  ASSERT_TRUE(same);
  P3 geo(eprj_3DProjectionCreate(wgs84.get(), nullptr, Utm(32, L"WGS 84", L"WGS 84").get(), nullptr,
                                 nullptr));
  ASSERT_TRUE(geo);
  struct PointCase {
    const char* what;
    const Eprj_3DProjection* p;
    Points pts;
    const wchar_t* message;
  };
  const PointCase points[] = {
      {"NaN height", same.get(), {{500000, 5500000, 0}, {500000, 5500000, NAN}}, L"Point 1"},
      {"infinite easting", same.get(), {{INFINITY, 5500000, 0}}, L"Point 0"},
      {"beyond the pole", geo.get(), {{0.1, 0.8, 0}, {0.1, 1.6, 0}}, L"beyond the pole"},
  };
  for (const PointCase& c : points) {
    Points pts = c.pts;
    Eerr_ErrorReport* err = nullptr;
    EXPECT_FALSE(Apply3D(c.p, pts, &err)) << c.what;
    EXPECT_TRUE(testutil::Mentions(err, c.message)) << c.what << ": " << Report(err);
    eerr_DeleteErrorReportEx(&err);
    for (size_t i = 0; i < pts.size(); ++i)
      for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(pts[i][k] == c.pts[i][k] || (std::isnan(pts[i][k]) && std::isnan(c.pts[i][k])))
            << c.what;
  }
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(eprj_3DProject(nullptr, 0, nullptr, nullptr, nullptr, &err));
  EXPECT_TRUE(testutil::Mentions(err, L"No 3D projection")) << Report(err);
  eerr_DeleteErrorReportEx(&err);
}

// One object shared by threads gives each the answer it gives alone.
TEST(Eprj3DProject, ThreadsSharingOneObjectGetTheSameAnswers) {
  Pro ed50 = Utm(32, L"International 1924", L"ED50");
  Pro osgb = Geographic(L"Airy 1830", L"OSGB 1936");
  P3 p(eprj_3DProjectionCreate(ed50.get(), nullptr, osgb.get(), Heights(L"EGM96").get(), nullptr));
  ASSERT_TRUE(p);
  Points in;
  for (int i = 0; i < 200; ++i) in.push_back({400000.0 + 500 * i, 5300000.0 + 900 * i, 10.0 * i});
  Points alone = in;
  ASSERT_TRUE(Apply3D(p.get(), alone, nullptr));
  std::vector<Points> results(4, in);
  std::vector<std::thread> threads;
  for (Points& r : results)
    threads.emplace_back([&p, &r] { EXPECT_TRUE(Apply3D(p.get(), r, nullptr)); });
  for (std::thread& t : threads) t.join();
  for (const Points& r : results) EXPECT_EQ(r, alone);
}

}  // namespace
