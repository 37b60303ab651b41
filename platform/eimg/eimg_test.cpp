// eimg layers against what GDAL itself reads and writes in the same files.
#include "eimg.h"

#include <gdal.h>
#include <gdal_alg.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

std::string MakeFile(const std::string& path, int w, int h, int bands, GDALDataType t,
                     const char* interleave = "BAND") {
  GDALAllRegister();
  std::string il = std::string("INTERLEAVE=") + interleave;
  const char* opts[] = {il.c_str(), nullptr};
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), w, h, bands, t,
                               const_cast<char**>(opts));
  for (int b = 1; b <= bands; ++b) {
    std::vector<double> v(size_t(w) * h);
    for (size_t i = 0; i < v.size(); ++i) v[i] = double((i * 7 + b * 13) % 250);
    EXPECT_EQ(CE_None, GDALRasterIO(GDALGetRasterBand(ds, b), GF_Write, 0, 0, w, h, v.data(), w, h,
                                    GDT_Float64, 0, 0));
  }
  double gt[6] = {300000.0, 2.0, 0.0, 4000000.0, 0.0, -2.0};
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32633);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  GDALClose(ds);
  return path;
}

double GdalPixel(const std::string& path, int band, int x, int y) {
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  double v = 0;
  EXPECT_EQ(CE_None, GDALRasterIO(GDALGetRasterBand(ds, band), GF_Read, x, y, 1, 1, &v, 1, 1,
                                  GDT_Float64, 0, 0));
  GDALClose(ds);
  return v;
}

struct LayerCloser {
  void operator()(Eimg_Layer* l) const { eimg_LayerClose(l, nullptr); }
};
using LayerPtr = std::unique_ptr<Eimg_Layer, LayerCloser>;

TEST(EimgLayer, NamesOpenReadWriteMatchGdal) {
  testutil::ScratchDir dir("eimg_rw");
  std::string path = MakeFile(dir.File("a.tif"), 40, 30, 3, GDT_Int16);
  std::wstring wpath = kzdv::FromUtf8(path);
  Estr_StringList* names = eimg_LayerGetNames(wpath.c_str(), nullptr, nullptr);
  ASSERT_NE(names, nullptr);
  ASSERT_EQ(names->count, 3);
  EXPECT_EQ(std::wstring(names->strings[1]), wpath + L"(:Layer_2)");

  Eerr_ErrorReport* err = nullptr;
  LayerPtr layer(eimg_LayerOpen(names->strings[1], nullptr, nullptr, EIMG_ACCESS_UPDATE, &err));
  estr_StringListDelete(names);
  ASSERT_TRUE(layer) << kzdv::ReportText(err);
  EXPECT_EQ(layer->width, 40);
  EXPECT_EQ(layer->height, 30);
  EXPECT_EQ(layer->pixelType, EGDA_TYPE_S16);
  EXPECT_FALSE(layer->readOnly);

  // A window read as doubles equals GDAL's pixels of band 2.
  Eimg_PixelRect* rect = eimg_PixelRectCreate(5, 4, EGDA_TYPE_F64, nullptr);
  ASSERT_TRUE(eimg_LayerRead(layer.get(), 33, 25, rect, &err)) << kzdv::ReportText(err);
  const double* px = reinterpret_cast<const double*>(rect->data);
  EXPECT_EQ(px[0], GdalPixel(path, 2, 33, 25));
  EXPECT_EQ(px[3 * 5 + 4], GdalPixel(path, 2, 37, 28));
  // One cell, as a DEM read does it.
  Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_F64, nullptr);
  ASSERT_TRUE(eimg_LayerRasterPixelRectGet(layer.get(), 39, 29, one, &err));
  EXPECT_EQ(*reinterpret_cast<double*>(one->data), GdalPixel(path, 2, 39, 29));
  // Windows reaching outside the layer are refused, not clipped.
  EXPECT_FALSE(eimg_LayerRead(layer.get(), 36, 25, rect, &err));
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
  EXPECT_FALSE(eimg_LayerRasterPixelRectGet(layer.get(), -1, 0, one, &err));
  eerr_DeleteErrorReportEx(&err);

  // Written values reach the file (converted to the layer's type).
  for (int i = 0; i < 20; ++i) reinterpret_cast<double*>(rect->data)[i] = -1000.0 - i;
  ASSERT_TRUE(eimg_LayerWrite(layer.get(), 1, 2, rect, &err)) << kzdv::ReportText(err);
  layer.reset();
  EXPECT_EQ(GdalPixel(path, 2, 1, 2), -1000.0);
  EXPECT_EQ(GdalPixel(path, 2, 5, 5), -1019.0);
  EXPECT_EQ(GdalPixel(path, 1, 1, 2), double((size_t(2 * 40 + 1) * 7 + 13) % 250));
  eimg_PixelRectDelete(rect);
  eimg_PixelRectDelete(one);

  // Bad names and missing layers report.
  EXPECT_EQ(
      eimg_LayerOpen((wpath + L"(:Layer_4)").c_str(), nullptr, nullptr, EIMG_ACCESS_READ, &err),
      nullptr);
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(eimg_LayerGetNames(L"/no/such/file.tif", nullptr, &err), nullptr);
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
}

TEST(EimgLayer, InformationNullValueStatisticsAndDataOrder) {
  testutil::ScratchDir dir("eimg_info");
  std::string path = MakeFile(dir.File("a.tif"), 50, 20, 1, GDT_Float32);
  std::wstring layer_name = kzdv::FromUtf8(path) + L"(:Layer_1)";
  Eerr_ErrorReport* err = nullptr;
  LayerPtr layer(eimg_LayerOpen(layer_name.c_str(), nullptr, nullptr, EIMG_ACCESS_UPDATE, &err));
  ASSERT_TRUE(layer);

  Eimg_MapInfo* info = eimg_LayerMapInformationRead(layer.get(), &err);
  ASSERT_NE(info, nullptr) << kzdv::ReportText(err);
  EXPECT_DOUBLE_EQ(info->upperLeftCenterX, 300001.0);
  EXPECT_DOUBLE_EQ(info->upperLeftCenterY, 3999999.0);
  EXPECT_DOUBLE_EQ(info->pixelSizeX, 2.0);
  EXPECT_DOUBLE_EQ(info->pixelSizeY, 2.0);
  EXPECT_EQ(std::wstring(info->units), L"meters");
  eimg_MapInfoFree(info);
  Etxt_Char* wkt = eimg_LayerMapProjectionRead(layer.get(), &err);
  ASSERT_NE(wkt, nullptr);
  EXPECT_NE(std::wstring(wkt).find(L"UTM zone 33N"), std::wstring::npos);
  emsc_HeapFree(wkt);

  // Null value 0: statistics leave those cells out.
  double nv = 1;
  Emsc_Boolean defined = EMSC_TRUE;
  ASSERT_TRUE(eimg_LayerNullValueGet(layer.get(), &nv, &defined, &err));
  EXPECT_FALSE(defined);
  ASSERT_TRUE(eimg_LayerRasterNillValueSet(layer.get(), 0.0, &err));
  ASSERT_TRUE(eimg_LayerNullValueGet(layer.get(), &nv, &defined, &err));
  EXPECT_TRUE(defined);
  EXPECT_EQ(nv, 0.0);
  Eimg_Statistics st{};
  ASSERT_TRUE(eimg_StatisticsRead(layer.get(), &st, &err)) << kzdv::ReportText(err);
  double sum = 0, mn = 1e9, mx = -1e9;
  long n = 0;
  for (size_t i = 0; i < 50 * 20; ++i) {
    double v = double((i * 7 + 13) % 250);
    if (v == 0) continue;
    sum += v, ++n, mn = std::min(mn, v), mx = std::max(mx, v);
  }
  EXPECT_EQ(st.minimum, mn);
  EXPECT_EQ(st.maximum, mx);
  EXPECT_NEAR(st.mean, sum / n, 1e-9);
  layer.reset();
  // Computed statistics were stored with the file for the next reader.
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  const char* stored = GDALGetMetadataItem(GDALGetRasterBand(ds, 1), "STATISTICS_MEAN", nullptr);
  ASSERT_NE(stored, nullptr);
  EXPECT_NEAR(std::atof(stored), sum / n, 1e-6);
  GDALClose(ds);

  struct Order {
    const char* interleave;
    int bands;
    const wchar_t* expected;
  } orders[] = {{"PIXEL", 3, L"BIP"}, {"BAND", 3, L"BSQ"}, {"PIXEL", 1, L"BSQ"}};
  int i = 0;
  for (const auto& o : orders) {
    std::string f = MakeFile(dir.File("o" + std::to_string(i++) + ".tif"), 8, 8, o.bands, GDT_Byte,
                             o.interleave);
    Etxt_Char* order = eimg_FileRasterDataOrderGet(kzdv::FromUtf8(f).c_str(), nullptr, &err);
    ASSERT_NE(order, nullptr);
    EXPECT_EQ(std::wstring(order), o.expected) << o.interleave << " " << o.bands;
    emsc_HeapFree(order);
  }
  // GDAL's line-interleaved ENVI files are BIL.
  std::string envi = dir.File("bil.img");
  const char* opts[] = {"INTERLEAVE=BIL", nullptr};
  GDALClose(GDALCreate(GDALGetDriverByName("ENVI"), envi.c_str(), 8, 8, 2, GDT_Byte,
                       const_cast<char**>(opts)));
  Etxt_Char* order = eimg_FileRasterDataOrderGet(kzdv::FromUtf8(envi).c_str(), nullptr, &err);
  ASSERT_NE(order, nullptr);
  EXPECT_EQ(std::wstring(order), L"BIL");
  emsc_HeapFree(order);
}

TEST(EimgLayer, PrivateStorageSharesOneDatasetAndProxyReadsTheFile) {
  testutil::ScratchDir dir("eimg_share");
  std::string path = MakeFile(dir.File("a.tif"), 64, 64, 1, GDT_Byte);
  std::wstring name = kzdv::FromUtf8(path) + L"(:Layer_1)";
  Eerr_ErrorReport* err = nullptr;
  Eimg_PrivateStorage* storage =
      eimg_LayerPrivateStorageCreate(name.c_str(), EIMG_ACCESS_UPDATE, &err);
  ASSERT_NE(storage, nullptr);
  LayerPtr writer(eimg_LayerOpen(name.c_str(), nullptr, storage, EIMG_ACCESS_UPDATE, &err));
  LayerPtr reader(eimg_LayerOpen(name.c_str(), nullptr, storage, EIMG_ACCESS_READ, &err));
  LayerPtr separate(eimg_LayerOpen(name.c_str(), nullptr, nullptr, EIMG_ACCESS_READ, &err));
  eimg_PrivateStorageDelete(storage);  // the handles keep the dataset open
  ASSERT_TRUE(writer && reader && separate);
  Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_U8, nullptr);
  one->data[0] = 251;
  ASSERT_TRUE(eimg_LayerWrite(writer.get(), 10, 10, one, &err));
  one->data[0] = 0;
  // Not yet flushed: only a handle on the same dataset (same block cache) sees it.
  ASSERT_TRUE(eimg_LayerRead(reader.get(), 10, 10, one, &err));
  EXPECT_EQ(one->data[0], 251);
  ASSERT_TRUE(eimg_LayerRead(separate.get(), 10, 10, one, &err));
  EXPECT_NE(one->data[0], 251);
  eimg_PixelRectDelete(one);
  writer.reset();
  reader.reset();
  separate.reset();

  // A proxy is a VRT that GDAL reads as the same image.
  std::string proxy = dir.File("a.uai");
  ASSERT_TRUE(
      eimg_FileProxyWithName(kzdv::FromUtf8(path).c_str(), kzdv::FromUtf8(proxy).c_str(), &err))
      << kzdv::ReportText(err);
  GDALDatasetH a = GDALOpen(path.c_str(), GA_ReadOnly);
  GDALDatasetH p = GDALOpen(proxy.c_str(), GA_ReadOnly);
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(GDALGetDriverShortName(GDALGetDatasetDriver(p)), "VRT");
  EXPECT_EQ(GDALChecksumImage(GDALGetRasterBand(p, 1), 0, 0, 64, 64),
            GDALChecksumImage(GDALGetRasterBand(a, 1), 0, 0, 64, 64));
  GDALClose(p);
  GDALClose(a);
}

// Levels inside the file (update access) or beside it in GDAL's level file
// (levels access, the file itself never written): the same calls, the same
// levels as GDAL sees them.
TEST(EimgLayer, PyramidLevelsAreGdalOverviews) {
  testutil::ScratchDir dir("eimg_levels");
  for (int access : {EIMG_ACCESS_UPDATE, EIMG_ACCESS_LEVELS}) {
    SCOPED_TRACE(access);
    const bool beside = access == EIMG_ACCESS_LEVELS;
    std::string path = MakeFile(dir.File(beside ? "b.tif" : "a.tif"), 100, 60, 2, GDT_UInt16);
    const std::string bytes = testutil::Slurp(path);
    std::wstring name = kzdv::FromUtf8(path) + L"(:Layer_2)";
    Eerr_ErrorReport* err = nullptr;
    LayerPtr layer(eimg_LayerOpen(name.c_str(), nullptr, nullptr, access, &err));
    ASSERT_TRUE(layer);
    EXPECT_FALSE(layer->readOnly);
    ASSERT_TRUE(eimg_LayerPyramidLevelsCreate(layer.get(), 3, &err)) << kzdv::ReportText(err);
    EXPECT_EQ(eimg_LayerPyramidLevelCount(layer.get(), &err), 3);
    LayerPtr level(eimg_LayerPyramidLevelOpen(layer.get(), 2, &err));
    ASSERT_TRUE(level) << kzdv::ReportText(err);
    EXPECT_EQ(level->width, 25);
    EXPECT_EQ(level->height, 15);
    Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_U16, nullptr);
    reinterpret_cast<uint16_t*>(one->data)[0] = 4242;
    ASSERT_TRUE(eimg_LayerWrite(level.get(), 24, 14, one, &err));
    // The pixels of the layer itself stay as they are under levels access.
    EXPECT_EQ(eimg_LayerWrite(layer.get(), 0, 0, one, &err), beside ? EMSC_FALSE : EMSC_TRUE);
    if (beside) {
      EXPECT_TRUE(kzdv::ReportContains(
          err, L"Image layer " + name + L" is open for its pyramid levels only"))
          << kzdv::ReportText(err);
    }
    eerr_DeleteErrorReportEx(&err);
    eimg_PixelRectDelete(one);
    ASSERT_TRUE(eimg_SSLayerNamesSet(layer.get(), L"KordaBino3", &err));
    level.reset();
    layer.reset();
    if (beside) {
      EXPECT_TRUE(testutil::Slurp(path) == bytes);
    }
    EXPECT_EQ(std::filesystem::exists(path + ".ovr"), beside);
    GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
    GDALRasterBandH b2 = GDALGetRasterBand(ds, 2);
    ASSERT_EQ(GDALGetOverviewCount(b2), 3);
    EXPECT_EQ(GDALGetOverviewCount(GDALGetRasterBand(ds, 1)), 3);  // levels are per file
    double v = 0;
    EXPECT_EQ(CE_None, GDALRasterIO(GDALGetOverview(b2, 1), GF_Read, 24, 14, 1, 1, &v, 1, 1,
                                    GDT_Float64, 0, 0));
    EXPECT_EQ(v, 4242.0);
    EXPECT_STREQ(GDALGetMetadataItem(b2, "PYRAMID_ALGORITHM", nullptr), "KordaBino3");
    GDALClose(ds);
    // Level names open the level directly; removal leaves none.
    LayerPtr by_name(
        eimg_LayerOpen((name + L":ephoPyramid_1").c_str(), nullptr, nullptr, access, &err));
    ASSERT_TRUE(by_name) << kzdv::ReportText(err);
    EXPECT_EQ(by_name->width, 50);
    by_name.reset();
    layer.reset(eimg_LayerOpen(name.c_str(), nullptr, nullptr, access, &err));
    ASSERT_TRUE(eimg_LayerPyramidLevelsRemove(layer.get(), &err)) << kzdv::ReportText(err);
    EXPECT_EQ(eimg_LayerPyramidLevelCount(layer.get(), &err), 0);
  }
}

}  // namespace
