// Records: spheroid constants against PROJ's EPSG database, copies and
// comparisons, elevation info from a GDAL raster.
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_spatialref.h>
#include <proj.h>

#include <cmath>
#include <memory>
#include <string>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
using Pro = std::unique_ptr<Eprj_ProParameters, ProDeleter>;

TEST(EprjSpheroid, ConstantsMatchTheEpsgEllipsoids) {
  struct Named {
    const wchar_t* name;
    const char* epsg;
  };
  const Named spheroids[] = {{L"WGS 84", "7030"},
                             {L"GRS 1980", "7019"},
                             {L"Clarke 1866", "7008"},
                             {L"International 1924", "7022"},
                             {L"Bessel 1841", "7004"},
                             {L"Airy 1830", "7001"},
                             {L"Clarke 1880 (RGS)", "7012"},
                             {L"Krassowsky 1940", "7024"},
                             {L"WGS 72", "7043"},
                             {L"GRS 1967", "7036"},
                             {L"Everest 1830", "7015"},
                             // Spellings of GDAL and HFA files.
                             {L"WGS_1984", "7030"},
                             {L"International 1909", "7022"},
                             {L"bessel", "7004"},
                             {L"GRS80", "7019"}};
  PJ_CONTEXT* ctx = proj_context_create();
  for (const Named& n : spheroids) {
    SCOPED_TRACE(n.epsg);
    PJ* e = proj_create_from_database(ctx, "EPSG", n.epsg, PJ_CATEGORY_ELLIPSOID, 0, nullptr);
    ASSERT_TRUE(e);
    double a, b, invf;
    int computed;
    ASSERT_TRUE(proj_ellipsoid_get_parameters(ctx, e, &a, &b, &computed, &invf));
    proj_destroy(e);
    Eprj_Spheroid* s = eprj_SpheroidCreateByName(n.name, nullptr);
    ASSERT_TRUE(s);
    EXPECT_NEAR(s->a, a, 1e-6);
    EXPECT_NEAR(s->b, b, 1e-4);
    EXPECT_NEAR(s->eSquared, (a * a - b * b) / (a * a), 1e-14);
    EXPECT_EQ(s->radius, s->a);
    eprj_SpheroidFree(s);
  }
  proj_context_destroy(ctx);
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(eprj_SpheroidCreateByName(L"Flat Earth", &err), nullptr);
  EXPECT_STREQ(err->function, L"eprj_SpheroidCreateByName");
  eerr_DeleteErrorReportEx(&err);
}

TEST(EprjProParameters, CopiesAreDeepAndComparisonsSeeEveryStoredPart) {
  double params[EPRJ_PARAMETER_COUNT] = {0, 0, 0.9996, 0, 0.15, 0, 500000, 0};
  Pro a(eprj_ProParametersCreate(EPRJ_TRANSVERSE_MERCATOR, L"Transverse Mercator", 0, params,
                                 L"WGS 84", L"WGS 84", nullptr));
  ASSERT_TRUE(a && a->proSpheroid && a->proSpheroid->datum);
  EXPECT_EQ(a->proParams.count, EPRJ_PARAMETER_COUNT);
  EXPECT_EQ(a->proSpheroid->datum->type, EPRJ_DATUM_PARAMETRIC);
  Pro b(eprj_ProParametersCopy(a.get(), nullptr));
  ASSERT_TRUE(b);
  EXPECT_NE(b->proParams.data, a->proParams.data);
  EXPECT_NE(b->proSpheroid, a->proSpheroid);
  EXPECT_NE(b->proSpheroid->datum, a->proSpheroid->datum);
  EXPECT_TRUE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));

  b->proParams.data[4] += 1e-9;  // 6 mm of central meridian
  EXPECT_FALSE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  b->proParams.data[4] = a->proParams.data[4] + 1e-12;  // rounding only
  EXPECT_TRUE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  b->proZone = 3;
  EXPECT_FALSE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  b->proZone = 0;
  b->proSpheroid->a += 1.0;
  EXPECT_FALSE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  b->proSpheroid->a -= 1.0;
  emsc_HeapFree(b->proSpheroid->datum->datumname);
  b->proSpheroid->datum->datumname = estr_Duplicate(L"wgs 84");  // case only
  EXPECT_TRUE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  eprj_DatumFree(b->proSpheroid->datum);
  b->proSpheroid->datum = nullptr;
  EXPECT_FALSE(eprj_ProParametersEqual(a.get(), b.get(), nullptr));
  EXPECT_TRUE(eprj_ProParametersEqual(nullptr, nullptr, nullptr));
  EXPECT_FALSE(eprj_ProParametersEqual(a.get(), nullptr, nullptr));

  // Known datums carry their type and grid; unknown ones are named only.
  Eprj_Datum* nad27 = eprj_DatumCreateByName(L"North American Datum 1927", nullptr);
  ASSERT_TRUE(nad27);
  EXPECT_STREQ(nad27->datumname, L"NAD27");
  EXPECT_EQ(nad27->type, EPRJ_DATUM_GRID);
  EXPECT_STREQ(nad27->gridname, L"nadcon.dat");
  Eprj_Datum* local = eprj_DatumCreateByName(L"Site grid 7", nullptr);
  EXPECT_EQ(local->type, EPRJ_DATUM_NONE);
  Eprj_Datum* copy = eprj_DatumCopy(nad27, nullptr);
  EXPECT_STREQ(copy->gridname, L"nadcon.dat");
  eprj_DatumFree(nad27);
  eprj_DatumFree(local);
  eprj_DatumFree(copy);
  eprj_ProParametersFree(nullptr);
}

TEST(EprjElevationInfo, DefaultsUnitsAndVerticalDatums) {
  Eprj_ElevationInfo* e =
      eprj_ElevationInfoCreateByName(L"Undefined", L"Undefined", L"meter", L"height", nullptr);
  ASSERT_TRUE(e);
  Eerr_ErrorReport* err = nullptr;
  EXPECT_TRUE(eprj_ElevationInfoUnitSet(e, L"US Survey Feet", nullptr));
  EXPECT_STREQ(e->elevationUnit, L"US Survey Feet");
  EXPECT_FALSE(eprj_ElevationInfoUnitSet(e, L"furlongs", &err));
  EXPECT_STREQ(err->function, L"eprj_ElevationInfoUnitSet");
  eerr_DeleteErrorReportEx(&err);
  EXPECT_STREQ(e->elevationUnit, L"US Survey Feet");  // kept on failure
  Eprj_ElevationInfo* c = eprj_ElevationInfoCopy(e, nullptr);
  EXPECT_STREQ(c->elevationType, L"height");
  eprj_ElevationInfoFree(c);
  eprj_ElevationInfoFree(e);
  e = eprj_ElevationInfoCreateByName(nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(e->datumName, L"Undefined");
  EXPECT_STREQ(e->elevationUnit, L"meters");
  eprj_ElevationInfoFree(e);

  EXPECT_TRUE(eprj_IsDatumVertical(L"EGM96"));
  EXPECT_TRUE(eprj_IsDatumVertical(L"navd88"));
  EXPECT_FALSE(eprj_IsDatumVertical(L"WGS 84"));
  EXPECT_FALSE(eprj_IsDatumVertical(L"Undefined"));
  EXPECT_FALSE(eprj_IsDatumVertical(nullptr));
}

TEST(EprjElevationInfo, ReadFromAGeoTiffWithAVerticalSystem) {
  GDALAllRegister();
  testutil::ScratchDir dir("eprjelev");
  const std::string file = dir.File("dem.tif");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), file.c_str(), 2, 2, 1, GDT_Float32, nullptr);
  OGRSpatialReference srs;
  ASSERT_EQ(srs.SetFromUserInput("EPSG:4326+5773"), OGRERR_NONE);
  GDALSetSpatialRef(ds, OGRSpatialReference::ToHandle(&srs));
  GDALSetRasterUnitType(GDALGetRasterBand(ds, 1), "ft");
  GDALClose(ds);
  Eerr_ErrorReport* err = nullptr;
  Eprj_ElevationInfo* e = eprj_ElevationInfoRead(kzdv::FromUtf8(file).c_str(), 1, &err);
  ASSERT_TRUE(e) << kzdv::ToUtf8(kzdv::ReportText(err));
  EXPECT_STREQ(e->datumName, L"EGM96 geoid");
  EXPECT_TRUE(eprj_IsDatumVertical(e->datumName));
  EXPECT_STREQ(e->spheroidName, L"WGS 84");
  EXPECT_STREQ(e->elevationUnit, L"feet");
  eprj_ElevationInfoFree(e);
  EXPECT_EQ(eprj_ElevationInfoRead(kzdv::FromUtf8(file).c_str(), 2, &err), nullptr);
  EXPECT_STREQ(err->function, L"eprj_ElevationInfoRead");
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(eprj_ElevationInfoRead(L"/nonexistent/dem.tif", 1, &err), nullptr);
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
