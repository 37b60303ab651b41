// DEM cache: entries shared by name, kept alive by holders, read by many
// threads; heights compared with what GDAL reads from the same file.
#include "epho/dtm.h"

#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>

#include <algorithm>
#include <cstdlib>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

const double kGeo[6] = {500000.0, 10.0, 0.0, 5200000.0, 0.0, -10.0};  // UTM 32N, 10 m cells

std::string WriteDem(const std::string& path, int w, int h) {
  GDALAllRegister();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), w, h, 1, GDT_Float32, nullptr);
  double gt[6];
  std::copy(kGeo, kGeo + 6, gt);
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  std::vector<float> z(size_t(w) * h);
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c)
      z[size_t(r) * w + c] = float(400 + 0.5 * c - 0.25 * r + (c * r % 7));
  GDALRasterBandH b = GDALGetRasterBand(ds, 1);
  GDALSetRasterUnitType(b, "m");
  EXPECT_EQ(GDALRasterIO(b, GF_Write, 0, 0, w, h, z.data(), w, h, GDT_Float32, 0, 0), CE_None);
  GDALClose(ds);
  return path;
}

std::vector<float> ReadAll(const std::string& path, int* w, int* h) {
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  *w = GDALGetRasterXSize(ds), *h = GDALGetRasterYSize(ds);
  std::vector<float> z(size_t(*w) * *h);
  EXPECT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Read, 0, 0, *w, *h, z.data(), *w, *h,
                         GDT_Float32, 0, 0),
            CE_None);
  GDALClose(ds);
  return z;
}

float Cell(Eimg_Layer* layer, long x, long y) {
  Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_F32, nullptr);
  Eerr_ErrorReport* err = nullptr;
  eimg_LayerRasterPixelRectGet(layer, x, y, one, &err);
  EXPECT_EQ(err, nullptr) << kzdv::ReportText(err);
  eerr_DeleteErrorReport(err);
  float v = *reinterpret_cast<float*>(one->data);
  eimg_PixelRectDelete(one);
  return v;
}

TEST(DTMCache, EntryAddressesDemCellsThroughMapInformation) {
  testutil::ScratchDir dir("dtm_info");
  std::string path = WriteDem(dir.File("dem.tif"), 60, 40);
  auto entry = EphoLib::DTMCacheList::Instance().Open(kzdv::FromUtf8(path).c_str());
  EXPECT_EQ(entry->GetLayerWidth(), 60);
  EXPECT_EQ(entry->GetLayerHeight(), 40);
  EXPECT_EQ(entry->GetHorizontalUnits(), L"meters");
  ASSERT_NE(entry->GetElevationInfo(), nullptr);
  EXPECT_EQ(std::wstring(entry->GetElevationInfo()->elevationUnit), L"meters");
  ASSERT_NE(entry->GetMapProjection(), nullptr);
  EXPECT_EQ(entry->GetMapProjection()->proNumber, EPRJ_UTM);
  EXPECT_EQ(entry->GetMapProjection()->proZone, 32);
  EXPECT_NE(entry->GetMapProjectionWkt().find(L"UTM zone 32N"), std::wstring::npos);
  const Eprj_MapInfo& info = entry->GetMapInfo();
  EXPECT_DOUBLE_EQ(info.upperLeftCenter.x, 500005.0);
  EXPECT_DOUBLE_EQ(info.upperLeftCenter.y, 5199995.0);
  EXPECT_DOUBLE_EQ(info.lowerRightCenter.x, 500000.0 + 59.5 * 10);
  EXPECT_DOUBLE_EQ(info.lowerRightCenter.y, 5200000.0 - 39.5 * 10);
  EXPECT_DOUBLE_EQ(info.pixelSize.width, 10.0);
  EXPECT_DOUBLE_EQ(info.pixelSize.height, 10.0);
  // Map point inside cell (col 12, row 7): file coordinates truncate to it,
  // and the file-to-map transform brings them back.
  Efga_Matrix* pt = efga_MatrixCreate(2, 1, nullptr);
  double X = 500000.0 + 12.3 * 10, Y = 5200000.0 - 7.8 * 10;
  EFGA_MATRIX_AT(pt, 0, 0) = X, EFGA_MATRIX_AT(pt, 1, 0) = Y;
  ASSERT_TRUE(exfr_Transform(entry->GetMapToFileXForm(), pt, pt, nullptr));
  EXPECT_NEAR(EFGA_MATRIX_AT(pt, 0, 0), 12.3, 1e-9);
  EXPECT_NEAR(EFGA_MATRIX_AT(pt, 1, 0), 7.8, 1e-9);
  ASSERT_TRUE(exfr_Transform(entry->GetFileToMapXForm(), pt, pt, nullptr));
  EXPECT_NEAR(EFGA_MATRIX_AT(pt, 0, 0), X, 1e-6);
  EXPECT_NEAR(EFGA_MATRIX_AT(pt, 1, 0), Y, 1e-6);
  efga_MatrixFree(pt);
  int w, h;
  std::vector<float> truth = ReadAll(path, &w, &h);
  EXPECT_EQ(Cell(entry->GetLayer(), 12, 7), truth[7 * w + 12]);
  EphoLib::DTMCacheList::Instance().Clear();
}

// Spellings of one file share its entry; names that differ only in letter
// case are one DEM only where they denote one file: on a case-sensitive file
// system dem.tif and DEM.tif are two DEMs, each with its own heights.
TEST(DTMCache, OneEntryPerFileNotPerSpelling) {
  testutil::ScratchDir dir("dtm_case");
  std::string path = WriteDem(dir.File("dem.tif"), 30, 20);
  auto& list = EphoLib::DTMCacheList::Instance();
  list.Clear();
  std::wstring wpath = kzdv::FromUtf8(path);
  auto a = list.Open(wpath.c_str());
  std::wstring dotted = kzdv::FromUtf8(dir.File("./sub/../dem.tif"));
  auto c = list.Open(dotted.c_str());
  EXPECT_EQ(a.get(), c.get());
  EXPECT_EQ(list.Size(), 1u);
  EXPECT_EQ(a.use_count(), 3);  // the list and two holders

  // A second DEM under the upper-case name, with other heights.
  const std::string upper_path = dir.File("DEM.tif");
  {
    WriteDem(upper_path, 30, 20);
    GDALDatasetH ds = GDALOpen(upper_path.c_str(), GA_Update);
    std::vector<float> z(30 * 20, 1234.5f);
    ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, 30, 20, z.data(), 30, 20,
                           GDT_Float32, 0, 0),
              CE_None);
    GDALClose(ds);
  }
  const bool case_sensitive = !std::filesystem::equivalent(path, upper_path);
  auto b = list.Open(kzdv::FromUtf8(upper_path).c_str());
  int w, h;
  std::vector<float> truth = ReadAll(path, &w, &h);
  if (case_sensitive) {
    EXPECT_NE(a.get(), b.get());
    EXPECT_EQ(list.Size(), 2u);
    EXPECT_EQ(Cell(b->GetLayer(), 3, 4), 1234.5f);
    EXPECT_EQ(Cell(a->GetLayer(), 3, 4), truth[4 * w + 3]);
    EXPECT_NE(truth[4 * w + 3], 1234.5f);
    // Through the proxies too: two DEMs, two proxies, two entries.
    boost::shared_ptr<EphoLib::DTMCache> sa, sb;
    Eimg_Layer* la = EphoLib::CachedDEMLayerGet(wpath.c_str(), sa, nullptr);
    Eimg_Layer* lb = EphoLib::CachedDEMLayerGet(kzdv::FromUtf8(upper_path).c_str(), sb, nullptr);
    ASSERT_TRUE(la && lb);
    EXPECT_NE(sa.get(), sb.get());
    EXPECT_NE(sa->GetName(), sb->GetName());
    EXPECT_EQ(Cell(la, 3, 4), truth[4 * w + 3]);
    EXPECT_EQ(Cell(lb, 3, 4), 1234.5f);
    eimg_LayerClose(la, nullptr);
    eimg_LayerClose(lb, nullptr);
  } else {
    EXPECT_EQ(a.get(), b.get());
  }
  // A failing open throws the toolkit exception and leaves the list as it was.
  const size_t size = list.Size();
  std::wstring missing = kzdv::FromUtf8(dir.File("missing.tif"));
  try {
    list.Open(missing.c_str());
    ADD_FAILURE() << "opening a missing DEM did not throw";
  } catch (EerrException& e) {
    EXPECT_NE(kzdv::ReportText(e.Report()).find(L"missing.tif"), std::wstring::npos);
  }
  EXPECT_EQ(list.Size(), size);
  list.Clear();
}

// Proxies live as long as their entries: the last release (or Clear, for
// entries nobody holds) removes them, and a failed open leaves none.
TEST(DTMCache, ProxiesGoWithTheirLastHolder) {
  testutil::ScratchDir dir("dtm_proxy");
  testutil::ScratchDir tmp("dtm_proxy_tmp");
  const char* old_tmp = std::getenv("TMPDIR");
  const std::string saved = old_tmp ? old_tmp : "";
  setenv("TMPDIR", tmp.path().c_str(), 1);
  auto uai = [&] {
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator(tmp.path()))
      n += e.path().extension() == ".uai";
    return n;
  };
  auto& list = EphoLib::DTMCacheList::Instance();
  list.Clear();
  const std::wstring one = kzdv::FromUtf8(WriteDem(dir.File("one.tif"), 30, 20));
  const std::wstring two = kzdv::FromUtf8(WriteDem(dir.File("two.tif"), 30, 20));
  boost::shared_ptr<EphoLib::DTMCache> s1, s2, s3;
  eimg_LayerClose(EphoLib::CachedDEMLayerGet(one.c_str(), s1, nullptr), nullptr);
  eimg_LayerClose(EphoLib::CachedDEMLayerGet(one.c_str(), s2, nullptr), nullptr);
  eimg_LayerClose(EphoLib::CachedDEMLayerGet(two.c_str(), s3, nullptr), nullptr);
  ASSERT_TRUE(s1 && s2 && s3);
  EXPECT_EQ(uai(), 2);
  list.Clear();
  EXPECT_EQ(uai(), 2);  // still held
  s1.reset();
  EXPECT_EQ(uai(), 2);  // s2 holds the same entry
  s2.reset();
  EXPECT_EQ(uai(), 1);
  s3.reset();
  EXPECT_EQ(uai(), 0);
  eimg_LayerClose(EphoLib::CachedDEMLayerGet(one.c_str(), s1, nullptr), nullptr);
  s1.reset();
  EXPECT_EQ(uai(), 1);  // the list holds it
  list.Clear();
  EXPECT_EQ(uai(), 0);
  // A file that is no DEM: no entry, no proxy.
  testutil::PrintedReports quiet;
  std::ofstream(dir.File("junk.tif")) << "not an image";
  EXPECT_EQ(EphoLib::CachedDEMLayerGet(kzdv::FromUtf8(dir.File("junk.tif")).c_str(), s1, nullptr),
            nullptr);
  EXPECT_EQ(uai(), 0);
  if (old_tmp)
    setenv("TMPDIR", saved.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

TEST(DTMCache, HeldEntrySurvivesClearAndLaterOpenMakesNewOne) {
  testutil::ScratchDir dir("dtm_clear");
  std::string path = WriteDem(dir.File("dem.tif"), 30, 20);
  int w, h;
  std::vector<float> truth = ReadAll(path, &w, &h);
  auto& list = EphoLib::DTMCacheList::Instance();
  std::wstring wpath = kzdv::FromUtf8(path);
  auto held = list.Open(wpath.c_str());
  list.Clear();
  EXPECT_EQ(list.Size(), 0u);
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(Cell(held->GetLayer(), 29, 19), truth[19 * w + 29]);
  auto fresh = list.Open(wpath.c_str());
  EXPECT_NE(fresh.get(), held.get());
  list.Clear();
}

TEST(DTMCacheConcurrent, EightThreadsOpenAndReadSameDemConsistently) {
  testutil::ScratchDir dir("dtm_threads");
  std::string path = WriteDem(dir.File("dem.tif"), 300, 200);
  int w, h;
  std::vector<float> truth = ReadAll(path, &w, &h);
  EphoLib::DTMCacheList::Instance().Clear();
  const int kThreads = 8;
  std::vector<boost::shared_ptr<EphoLib::DTMCache>> slots(kThreads);
  std::vector<long> mismatches(kThreads, -1);
  std::vector<std::wstring> reports(kThreads);
  std::vector<std::thread> threads;
  std::wstring wpath = kzdv::FromUtf8(path);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      Eerr_ErrorReport* err = nullptr;
      Eimg_Layer* layer = EphoLib::CachedDEMLayerGet(wpath.c_str(), slots[t], &err);
      if (!layer) {
        reports[t] = kzdv::ReportText(err);
        eerr_DeleteErrorReport(err);
        return;
      }
      Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_F32, nullptr);
      long bad = 0;
      for (int i = 0; i < 2000; ++i) {
        long x = (i * 37 + t * 11) % w, y = (i * 53 + t * 7) % h;
        if (!eimg_LayerRasterPixelRectGet(layer, x, y, one, nullptr) ||
            *reinterpret_cast<float*>(one->data) != truth[y * w + x])
          ++bad;
      }
      eimg_PixelRectDelete(one);
      eimg_LayerClose(layer, nullptr);
      mismatches[t] = bad;
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(mismatches[t], 0) << "thread " << t << ": " << reports[t];
    ASSERT_TRUE(slots[t]);
    EXPECT_EQ(slots[t].get(), slots[0].get()) << "thread " << t;
  }
  EXPECT_EQ(EphoLib::DTMCacheList::Instance().Size(), 1u);
  EphoLib::DTMCacheList::Instance().Clear();
}

TEST(DTMCache, CachedLayerReportsBadNames) {
  boost::shared_ptr<EphoLib::DTMCache> slot;
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(EphoLib::CachedDEMLayerGet(nullptr, slot, &err), nullptr);
  EXPECT_TRUE(kzdv::ReportContains(err, L"Invalid DEM file name"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(EphoLib::CachedDEMLayerGet(L"/nonexistent/dem.tif", slot, &err), nullptr);
  EXPECT_NE(err, nullptr);
  EXPECT_FALSE(slot);
  eerr_DeleteErrorReport(err);
}

}  // namespace
