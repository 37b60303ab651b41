// Projection records in HFA files written by GDAL and read by GDAL, compared
// with what GDAL's gdalsrsinfo says about the same files.
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_spatialref.h>

#include <cstdio>
#include <memory>
#include <string>

#include "ehfa.h"
#include "eprj.h"
#include "exfr.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

constexpr double kDeg = 0.017453292519943295;

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
using Pro = std::unique_ptr<Eprj_ProParameters, ProDeleter>;
struct FileCloser {
  void operator()(Ehfa_File* f) const { ehfa_FileClose(f, nullptr); }
};
using File = std::unique_ptr<Ehfa_File, FileCloser>;

std::string Report(Eerr_ErrorReport* err) {
  std::string s = kzdv::ToUtf8(kzdv::ReportText(err));
  eerr_DeleteErrorReport(err);
  return s;
}

// WKT1 of a file's coordinate system as the gdalsrsinfo program prints it.
std::string SrsInfo(const std::string& file) {
  std::string out;
  FILE* p = ::popen(("gdalsrsinfo -o wkt1 --single-line " + file + " 2>/dev/null").c_str(), "r");
  if (!p) return out;
  char buf[4096];
  while (std::fgets(buf, sizeof buf, p)) out += buf;
  ::pclose(p);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

// A 4 x 4 HFA raster made by GDAL, with `epsg` as its system (0: none).
// With `utm`, GDAL stores UTM systems by zone instead of as transverse Mercator.
std::string MakeImg(const testutil::ScratchDir& dir, const std::string& name, int epsg,
                    bool utm = false) {
  GDALAllRegister();
  const std::string file = dir.File(name);
  char* options[] = {const_cast<char*>("IGNORE_UTM=FALSE"), nullptr};
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("HFA"), file.c_str(), 4, 4, 1, GDT_Byte,
                               utm ? options : nullptr);
  double gt[6] = {500000, 10, 0, 4100000, 0, -10};
  GDALSetGeoTransform(ds, gt);
  if (epsg) {
    OGRSpatialReference srs;
    srs.importFromEPSG(epsg);
    GDALSetSpatialRef(ds, OGRSpatialReference::ToHandle(&srs));
  }
  GDALClose(ds);
  return file;
}

// Map coordinates of (lon, lat) degrees under a GDAL system.
bool GdalProject(const std::string& wkt, double lon, double lat, double* x, double* y) {
  OGRSpatialReference srs;
  if (srs.importFromWkt(wkt.c_str()) != OGRERR_NONE) return false;
  srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  std::unique_ptr<OGRSpatialReference> geog(srs.CloneGeogCS());
  geog->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  std::unique_ptr<OGRCoordinateTransformation> ct(
      OGRCreateCoordinateTransformation(geog.get(), &srs));
  *x = lon;
  *y = lat;
  return ct && ct->Transform(1, x, y);
}

// Our map coordinates of (lon, lat) degrees.
bool OursProject(const Eprj_ProParameters* p, double lon, double lat, double* x, double* y) {
  Eprj_MapProjection* proj = eprj_ProjectionInit(p, nullptr);
  if (!proj) return false;
  *x = lon * kDeg;
  *y = lat * kDeg;
  const bool ok = eprj_ProjectionFromLL(proj, 1, x, y, nullptr);
  eprj_ProjectionFree(proj);
  return ok;
}

TEST(EprjHfa, ParametersInGdalWrittenFilesAgreeWithGdalsrsinfo) {
  testutil::ScratchDir dir("eprjhfa");
  struct Sys {
    int epsg;
    long number;
    const wchar_t* datum;
    double lon, lat;
    bool utm = false;
  };
  const Sys systems[] = {{32633, EPRJ_TRANSVERSE_MERCATOR, L"WGS 84", 15.2, 52.1},
                         {32633, EPRJ_UTM, L"WGS 84", 15.2, 52.1, true},
                         {32719, EPRJ_UTM, L"WGS 84", -69.1, -33.0, true},
                         {26717, EPRJ_TRANSVERSE_MERCATOR, L"NAD27", -81.0, 40.0},
                         {2154, EPRJ_LAMBERT_CONFORMAL_CONIC, nullptr, 2.3, 48.8},
                         {3031, EPRJ_POLAR_STEREOGRAPHIC, L"WGS 84", 166.0, -77.8},
                         {5070, EPRJ_ALBERS_CONIC_EQUAL_AREA, L"NAD83", -100.0, 40.0},
                         {4326, EPRJ_LATLONG, L"WGS 84", 10.0, 50.0}};
  for (const Sys& s : systems) {
    SCOPED_TRACE(s.epsg);
    const std::string img =
        MakeImg(dir, "p" + std::to_string(s.epsg) + (s.utm ? "u" : "") + ".img", s.epsg, s.utm);
    const std::string wkt = SrsInfo(img);
    ASSERT_FALSE(wkt.empty()) << "gdalsrsinfo did not run";
    OGRSpatialReference gdal;
    ASSERT_EQ(gdal.importFromWkt(wkt.c_str()), OGRERR_NONE) << wkt;

    Eerr_ErrorReport* err = nullptr;
    File f(ehfa_FileOpen(kzdv::FromUtf8(img).c_str(), "r", nullptr, &err));
    ASSERT_TRUE(f) << Report(err);
    Pro p(eprj_ProParametersRead(f.get(), L":Layer_1", &err));
    ASSERT_TRUE(p) << Report(err);
    EXPECT_EQ(p->proType, EPRJ_INTERNAL);
    // GDAL stores UTM as transverse Mercator (its default); either is fine.
    EXPECT_TRUE(p->proNumber == s.number ||
                (s.number == EPRJ_TRANSVERSE_MERCATOR && p->proNumber == EPRJ_UTM))
        << p->proNumber;
    ASSERT_TRUE(p->proSpheroid);
    EXPECT_NEAR(p->proSpheroid->a, gdal.GetSemiMajor(), 1e-6);
    EXPECT_NEAR(p->proSpheroid->b, gdal.GetSemiMinor(), 1e-6);
    if (s.datum) {
      ASSERT_TRUE(p->proSpheroid->datum);
      EXPECT_STREQ(p->proSpheroid->datum->datumname, s.datum);
    }
    if (s.utm) {
      EXPECT_EQ(p->proNumber, EPRJ_UTM);
      EXPECT_EQ(p->proZone, s.epsg % 100);
      EXPECT_EQ(p->proParams.data[3] >= 0.0, s.epsg / 100 == 326);  // hemisphere
    }
    if (s.number == EPRJ_LATLONG) continue;
    double gx, gy, ox, oy;
    ASSERT_TRUE(GdalProject(wkt, s.lon, s.lat, &gx, &gy));
    ASSERT_TRUE(OursProject(p.get(), s.lon, s.lat, &ox, &oy));
    EXPECT_NEAR(ox, gx, 1e-3);
    EXPECT_NEAR(oy, gy, 1e-3);
  }
}

TEST(EprjHfa, ParametersWeWriteAreWhatGdalReads) {
  testutil::ScratchDir dir("eprjhfaw");
  // Oblique stereographic on Bessel, datum named, into a GDAL-made raster.
  const std::string img = MakeImg(dir, "ours.img", 0);
  double params[EPRJ_PARAMETER_COUNT] = {
      0, 0, 0.9999079, 0, 5.38763888888889 * kDeg, 52.15616055555555 * kDeg, 155000, 463000};
  Pro p(eprj_ProParametersCreate(EPRJ_DOUBLE_STEREOGRAPHIC, L"Double Stereographic", 0, params,
                                 L"Bessel 1841", L"Amersfoort", nullptr));
  ASSERT_TRUE(p);
  Eprj_MapInfo info = {const_cast<Etxt_Char*>(L"Double Stereographic"),
                       {155005, 463005},
                       {155035, 462975},
                       {10, 10},
                       const_cast<Etxt_Char*>(L"meters")};
  Eerr_ErrorReport* err = nullptr;
  {
    File f(ehfa_FileOpen(kzdv::FromUtf8(img).c_str(), "r+b", nullptr, &err));
    ASSERT_TRUE(f) << Report(err);
    ASSERT_TRUE(eprj_ProParametersWrite(f.get(), L":Layer_1", L"Projection", p.get(), &err))
        << Report(err);
    ASSERT_TRUE(eprj_MapInfoWrite(f.get(), L":Layer_1", &info, &err)) << Report(err);
  }
  // Our reader gives back what we wrote.
  {
    File f(ehfa_FileOpen(kzdv::FromUtf8(img).c_str(), "r", nullptr, &err));
    Pro back(eprj_ProParametersRead(f.get(), L":Layer_1", &err));
    ASSERT_TRUE(back) << Report(err);
    EXPECT_TRUE(eprj_ProParametersEqual(back.get(), p.get(), nullptr));
    EXPECT_STREQ(back->proSpheroid->datum->datumname, L"Amersfoort");
    Eprj_MapInfo* mi = eprj_MapInfoRead(f.get(), L":Layer_1", &err);
    ASSERT_TRUE(mi) << Report(err);
    EXPECT_EQ(mi->upperLeftCenter.x, 155005);
    EXPECT_EQ(mi->pixelSize.height, 10);
    EXPECT_STREQ(mi->units, L"meters");
    eprj_MapInfoFree(mi);
  }
  // GDAL sees the same mapping and the same georeferencing.
  const std::string wkt = SrsInfo(img);
  ASSERT_FALSE(wkt.empty());
  double gx, gy, ox, oy;
  ASSERT_TRUE(GdalProject(wkt, 4.9, 52.37, &gx, &gy)) << wkt;
  ASSERT_TRUE(OursProject(p.get(), 4.9, 52.37, &ox, &oy));
  EXPECT_NEAR(ox, gx, 1e-3) << wkt;
  EXPECT_NEAR(oy, gy, 1e-3) << wkt;
  GDALDatasetH ds = GDALOpen(img.c_str(), GA_ReadOnly);
  double gt[6], inv[6];
  ASSERT_EQ(GDALGetGeoTransform(ds, gt), CE_None);
  GDALClose(ds);
  EXPECT_NEAR(gt[0], 155000, 1e-9);  // corner = upper-left centre - half a pixel
  EXPECT_NEAR(gt[3], 463010, 1e-9);

  // Our map-to-file transform addresses the pixels as GDAL's inverse
  // geotransform does.
  ASSERT_TRUE(GDALInvGeoTransform(gt, inv));
  Exfr_XForm* m2f = eprj_MapInfoToFileXForm(&info, nullptr);
  ASSERT_TRUE(m2f);
  Efga_Matrix* pts = efga_MatrixCreate(2, 3, nullptr);
  const double map[6] = {155000, 463010, 155012.5, 462987.5, 155040, 462970};
  std::copy(map, map + 6, pts->data);
  ASSERT_TRUE(exfr_Transform(m2f, pts, pts, nullptr));
  for (int i = 0; i < 3; ++i) {
    const double px = inv[0] + inv[1] * map[2 * i] + inv[2] * map[2 * i + 1];
    const double py = inv[3] + inv[4] * map[2 * i] + inv[5] * map[2 * i + 1];
    EXPECT_NEAR(pts->data[2 * i], px, 1e-9);
    EXPECT_NEAR(pts->data[2 * i + 1], py, 1e-9);
  }
  efga_MatrixFree(pts);
  exfr_XFormFree(m2f);
  Eprj_MapInfo flat = info;
  flat.pixelSize.width = 0;
  Eerr_ErrorReport* err2 = nullptr;
  EXPECT_EQ(eprj_MapInfoToFileXForm(&flat, &err2), nullptr);
  EXPECT_STREQ(err2->function, L"eprj_MapInfoToFileXForm");
  eerr_DeleteErrorReportEx(&err2);
}

TEST(EprjHfa, MifFormsRoundTripAndMissingNodesAreReported) {
  double params[EPRJ_PARAMETER_COUNT] = {0, 0, 0, 1};
  Pro p(eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 32, params, L"WGS 84", L"WGS 84", nullptr));
  Eprj_MapProjection* proj = eprj_ProjectionInit(p.get(), nullptr);
  ASSERT_TRUE(proj);
  Emif_Dictionary* dict = emif_DictionaryCreate(nullptr);
  Emif_Design* design = nullptr;
  void* object = nullptr;
  // Without a projection only the design enters the dictionary.
  ASSERT_TRUE(eprj_ProjectionConvertToMIFable(dict, nullptr, nullptr, nullptr, nullptr));
  EXPECT_NE(emif_FindDesignByName(dict, L"Eprj_ProParameters"), nullptr);
  ASSERT_TRUE(eprj_ProjectionConvertToMIFable(nullptr, proj, &design, &object, nullptr));
  Emif_CountedString name{}, text{};
  Emif_CountedBytes bytes{};
  ASSERT_TRUE(emif_MIFableObjectConvertToMIF(design, object, &name, &text, &bytes, nullptr));
  Emif_Design* d2 = nullptr;
  void* o2 = nullptr;
  ASSERT_TRUE(emif_MIFableObjectConvertFromMIF(&name, &text, &bytes, &d2, &o2, nullptr));
  Eprj_MapProjection* proj2 = eprj_ProjectionConvertFromMIFable(d2, o2, nullptr);
  ASSERT_TRUE(proj2);
  EXPECT_EQ(proj2->proParameters->proZone, 32);
  EXPECT_EQ(proj2->proParameters->proParams.data[3], 1.0);
  EXPECT_NEAR(proj2->proParameters->proSpheroid->a, 6378137.0, 0);
  emsc_HeapFree(name.data);
  emsc_HeapFree(text.data);
  emsc_HeapFree(bytes.data);
  emif_ObjectFree(design, object, nullptr);
  emif_ObjectFree(d2, o2, nullptr);
  emif_DesignDestroy(design);
  emif_DesignDestroy(d2);
  eprj_ProjectionFree(proj);
  eprj_ProjectionFree(proj2);
  emif_DictionaryDestroy(dict);

  Eprj_ElevationInfo* e =
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"meter", L"height", nullptr);
  ASSERT_TRUE(eprj_ElevationInfoConvertToMIFable(e, &design, &object, nullptr));
  Eprj_ElevationInfo* e2 = eprj_ElevationInfoConvertFromMIFable(design, object, nullptr);
  ASSERT_TRUE(e2);
  EXPECT_STREQ(e2->datumName, L"EGM96");
  EXPECT_STREQ(e2->elevationType, L"height");
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(eprj_ProjectionConvertFromMIFable(design, object, &err), nullptr);  // wrong design
  EXPECT_STREQ(err->function, L"eprj_ProjectionConvertFromMIFable");
  eerr_DeleteErrorReportEx(&err);
  emif_ObjectFree(design, object, nullptr);
  emif_DesignDestroy(design);

  // A block-file root: elevation info and parameters at ":", read back.
  testutil::ScratchDir dir("eprjmif");
  const std::wstring name_w = dir.WFile("block.blk");
  {
    File f(ehfa_FileCreate(name_w.c_str(), nullptr, &err));
    ASSERT_TRUE(f) << Report(err);
    EXPECT_EQ(eprj_ProParametersRead(f.get(), L":", &err), nullptr);
    EXPECT_NE(kzdv::ReportText(err).find(L"No projection parameters under :"), std::wstring::npos);
    eerr_DeleteErrorReportEx(&err);
    ASSERT_TRUE(eprj_ProParametersWrite(f.get(), L":", nullptr, p.get(), &err)) << Report(err);
    ASSERT_TRUE(eprj_ElevationInfoHfaWrite(f.get(), L":", e2, &err)) << Report(err);
  }
  File f(ehfa_FileOpen(name_w.c_str(), "r", nullptr, &err));
  Pro back(eprj_ProParametersRead(f.get(), L":", &err));
  ASSERT_TRUE(back) << Report(err);
  EXPECT_TRUE(eprj_ProParametersEqual(back.get(), p.get(), nullptr));
  Eprj_ElevationInfo* e3 = eprj_ElevationInfoHfaRead(f.get(), L":", &err);
  ASSERT_TRUE(e3) << Report(err);
  EXPECT_STREQ(e3->elevationUnit, L"meter");
  eprj_ElevationInfoFree(e);
  eprj_ElevationInfoFree(e2);
  eprj_ElevationInfoFree(e3);
}

}  // namespace
