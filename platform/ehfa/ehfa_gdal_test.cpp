// Interchange with GDAL's HFA driver: files GDAL writes (georeferenced,
// several bands and pixel types, overviews, metadata) are read by us with the
// values GDAL reports, and our copies of them open in GDAL unchanged.
#include <cpl_conv.h>
#include <gdal.h>
#include <gdal_alg.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "ehfa.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

struct ErrGuard {
  Eerr_ErrorReport* e = nullptr;
  ~ErrGuard() { eerr_DeleteErrorReport(e); }
  Eerr_ErrorReport** operator&() { return &e; }
  std::wstring Text() const { return kzdv::ReportText(e); }
};

constexpr double kGeo[6] = {500000.0, 10.0, 0.0, 4000000.0, 0.0, -10.0};  // metres

// Writes an HFA file through GDAL: UTM 33N, a pixel pattern per band,
// overviews 2 and 4, one metadata item and, if asked, a colour table on the
// first band (a thematic layer's colours live in descriptor-table columns
// outside the entries).
std::string MakeGdalImage(const testutil::ScratchDir& dir, const std::string& name,
                          GDALDataType type, int bands, int width = 100, int height = 80,
                          bool colours = false) {
  GDALAllRegister();
  const std::string path = dir.File(name);
  GDALDriverH drv = GDALGetDriverByName("HFA");
  GDALDatasetH ds = GDALCreate(drv, path.c_str(), width, height, bands, type, nullptr);
  EXPECT_TRUE(ds);
  double gt[6];
  std::memcpy(gt, kGeo, sizeof gt);
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32633);
  char* wkt = nullptr;
  OSRExportToWkt(srs, &wkt);
  GDALSetProjection(ds, wkt);
  CPLFree(wkt);
  OSRDestroySpatialReference(srs);
  std::vector<double> row(static_cast<size_t>(width));
  for (int b = 1; b <= bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(ds, b);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) row[static_cast<size_t>(x)] = (x * 3 + y * 7 + b * 11) % 251;
      EXPECT_EQ(
          GDALRasterIO(band, GF_Write, 0, y, width, 1, row.data(), width, 1, GDT_Float64, 0, 0),
          CE_None);
    }
  }
  GDALSetMetadataItem(ds, "FOO", "bar", nullptr);
  if (colours) {
    GDALColorTableH ct = GDALCreateColorTable(GPI_RGB);
    for (int i = 0; i < 5; ++i) {
      const GDALColorEntry e{static_cast<short>(i * 50), static_cast<short>(255 - i * 40),
                             static_cast<short>(i * 7), 255};
      GDALSetColorEntry(ct, i, &e);
    }
    EXPECT_EQ(GDALSetRasterColorTable(GDALGetRasterBand(ds, 1), ct), CE_None);
    GDALDestroyColorTable(ct);
  }
  int levels[2] = {2, 4};
  EXPECT_EQ(GDALBuildOverviews(ds, "NEAREST", 2, levels, 0, nullptr, nullptr, nullptr), CE_None);
  GDALClose(ds);
  std::filesystem::remove(path + ".aux.xml");  // everything must come from the .img itself
  return path;
}

// What GDAL reports about an image: band checksums (overviews included),
// georeferencing, metadata and the first band's colours.
struct GdalView {
  bool opened = false;
  int width = 0, height = 0, bands = 0;
  std::vector<int> checksums;
  std::vector<int> overview_counts;
  double gt[6] = {};
  std::string wkt;
  std::string foo;
  std::vector<short> colours;  // r, g, b of each entry
};

GdalView ViewWithGdal(const std::string& path) {
  GdalView v;
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  if (!ds) return v;
  v.opened = true;
  v.width = GDALGetRasterXSize(ds);
  v.height = GDALGetRasterYSize(ds);
  v.bands = GDALGetRasterCount(ds);
  for (int b = 1; b <= v.bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(ds, b);
    v.checksums.push_back(GDALChecksumImage(band, 0, 0, v.width, v.height));
    const int n = GDALGetOverviewCount(band);
    v.overview_counts.push_back(n);
    for (int o = 0; o < n; ++o) {
      GDALRasterBandH ov = GDALGetOverview(band, o);
      v.checksums.push_back(
          GDALChecksumImage(ov, 0, 0, GDALGetRasterBandXSize(ov), GDALGetRasterBandYSize(ov)));
    }
  }
  GDALGetGeoTransform(ds, v.gt);
  v.wkt = GDALGetProjectionRef(ds);
  const char* foo = GDALGetMetadataItem(ds, "FOO", nullptr);
  v.foo = foo ? foo : "";
  if (GDALColorTableH ct = GDALGetRasterColorTable(GDALGetRasterBand(ds, 1)))
    for (int i = 0; i < GDALGetColorEntryCount(ct); ++i) {
      const GDALColorEntry* e = GDALGetColorEntry(ct, i);
      v.colours.insert(v.colours.end(), {e->c1, e->c2, e->c3});
    }
  GDALClose(ds);
  return v;
}

// Field access through the design, so the test does not assume layouts.
template <typename T>
T FieldOf(const Emif_Design* d, const void* rec, const wchar_t* name) {
  Emif_FieldInfo info;
  EXPECT_TRUE(emif_DesignFieldFind(d, name, &info)) << name;
  T v{};
  std::memcpy(&v, static_cast<const char*>(rec) + info.offset, sizeof v);
  return v;
}
const Emif_Design* SubDesignOf(const Emif_Design* d, const wchar_t* name) {
  Emif_FieldInfo info;
  EXPECT_TRUE(emif_DesignFieldFind(d, name, &info)) << name;
  return info.design;
}
std::wstring TextOf(const Emif_Design* d, const void* rec, const wchar_t* name) {
  const Emif_CountedString s = FieldOf<Emif_CountedString>(d, rec, name);
  return s.data ? std::wstring(s.data) : std::wstring();
}
std::wstring EnumOf(const Emif_Design* d, const void* rec, const wchar_t* name) {
  Emif_FieldInfo info;
  EXPECT_TRUE(emif_DesignFieldFind(d, name, &info));
  const int32_t v = FieldOf<int32_t>(d, rec, name);
  return v >= 0 && v < info.enum_count ? info.enum_names[v] : L"?";
}

struct Object {
  const Emif_Design* design = nullptr;
  void* rec = nullptr;
  ~Object() { emif_ObjectFree(design, rec, nullptr); }
};

TEST(EhfaGdal, FilesWrittenByGdalDecodeToWhatGdalReports) {
  testutil::ScratchDir dir("ehfa_gdal");
  struct Case {
    GDALDataType type;
    int bands;
    const wchar_t* pixel_type;
  };
  for (const Case& c :
       {Case{GDT_UInt16, 2, L"u16"}, Case{GDT_Float32, 3, L"f32"}, Case{GDT_Byte, 1, L"u8"}}) {
    const std::string path =
        MakeGdalImage(dir, "g" + std::to_string(c.type) + ".img", c.type, c.bands);
    ErrGuard err;
    Ehfa_File* f = ehfa_FileOpen(kzdv::FromUtf8(path).c_str(), "r", nullptr, &err);
    ASSERT_TRUE(f) << err.Text();

    // Every node is reachable in file order and every object decodes.
    int nodes = 0, layers = 0, overviews = 0;
    ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_ROOT, nullptr, nullptr, &err));
    while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &err)) {
      ++nodes;
      Ehfa_EntryInfo info;
      ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
      if (std::string(info.type) == "Eimg_Layer") ++layers;
      if (std::string(info.type) == "Eimg_Layer_SubSample") ++overviews;
      if (info.data_size == 0) continue;
      Object o;
      EXPECT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_INTO, nullptr, nullptr, &o.design, &o.rec, &err))
          << info.name << " " << info.type << " " << err.Text().c_str();
    }
    EXPECT_FALSE(err.e) << err.Text();
    EXPECT_GT(nodes, 10);
    EXPECT_EQ(layers, c.bands);
    EXPECT_EQ(overviews, 2 * c.bands);

    OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
    OSRImportFromEPSG(srs, 32633);
    for (int b = 1; b <= c.bands; ++b) {
      const std::wstring layer = L":Layer_" + std::to_wstring(b);
      Object l;
      ASSERT_TRUE(
          ehfa_ObjectRead(f, EHFA_SEEK_INTO, layer.c_str(), nullptr, &l.design, &l.rec, &err))
          << err.Text();
      EXPECT_EQ(FieldOf<uint32_t>(l.design, l.rec, L"width"), 100u);
      EXPECT_EQ(FieldOf<uint32_t>(l.design, l.rec, L"height"), 80u);
      EXPECT_EQ(EnumOf(l.design, l.rec, L"pixelType"), c.pixel_type);

      Object mi;
      ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, layer.c_str(), L"Map_Info", &mi.design,
                                  &mi.rec, &err))
          << err.Text();
      const Emif_Design* coord = SubDesignOf(mi.design, L"upperLeftCenter");
      const void* ul = FieldOf<const void*>(mi.design, mi.rec, L"upperLeftCenter");
      ASSERT_TRUE(ul && coord);
      // The map info holds pixel centres; GDAL's geotransform pixel corners.
      EXPECT_DOUBLE_EQ(FieldOf<double>(coord, ul, L"x"), kGeo[0] + kGeo[1] / 2);
      EXPECT_DOUBLE_EQ(FieldOf<double>(coord, ul, L"y"), kGeo[3] + kGeo[5] / 2);
      const Emif_Design* size = SubDesignOf(mi.design, L"pixelSize");
      const void* ps = FieldOf<const void*>(mi.design, mi.rec, L"pixelSize");
      EXPECT_DOUBLE_EQ(FieldOf<double>(size, ps, L"width"), kGeo[1]);
      EXPECT_DOUBLE_EQ(FieldOf<double>(size, ps, L"height"), -kGeo[5]);
      EXPECT_EQ(TextOf(mi.design, mi.rec, L"units"), L"meters");

      Object pro;
      ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, layer.c_str(), L"Projection", &pro.design,
                                  &pro.rec, &err))
          << err.Text();
      int north = 0;
      EXPECT_EQ(static_cast<int>(FieldOf<uint32_t>(pro.design, pro.rec, L"proZone")),
                OSRGetUTMZone(srs, &north));
      EXPECT_EQ(TextOf(pro.design, pro.rec, L"proName"), L"UTM");
      const Emif_Design* sph = SubDesignOf(pro.design, L"proSpheroid");
      const void* sp = FieldOf<const void*>(pro.design, pro.rec, L"proSpheroid");
      ASSERT_TRUE(sp);
      OGRErr oe;
      EXPECT_DOUBLE_EQ(FieldOf<double>(sph, sp, L"a"), OSRGetSemiMajor(srs, &oe));
      EXPECT_NEAR(FieldOf<double>(sph, sp, L"b"), OSRGetSemiMinor(srs, &oe), 1e-6);

      // The datum sits under the projection.
      Object datum;
      EXPECT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, L"Datum", &datum.design,
                                  &datum.rec, &err))
          << err.Text();
    }
    OSRDestroySpatialReference(srs);
    EXPECT_TRUE(ehfa_FileClose(f, &err));
  }
}

// Copy of a GDAL file by name; `table` may be null.
GdalView CopyAndView(const std::string& from, const std::string& to, const Ehfa_CEFRecord* table) {
  ErrGuard err;
  EXPECT_TRUE(
      ehfa_FileCopy(kzdv::FromUtf8(from).c_str(), kzdv::FromUtf8(to).c_str(), table, nullptr, &err))
      << err.Text();
  return ViewWithGdal(to);
}

// A plain copy opens in GDAL with the same pixels, overviews, georeferencing,
// metadata and colours.
TEST(EhfaGdal, PlainCopyOpensInGdalUnchanged) {
  testutil::ScratchDir dir("ehfa_copy");
  const std::string sources[] = {MakeGdalImage(dir, "src.img", GDT_UInt16, 2, 300, 200),
                                 MakeGdalImage(dir, "thematic.img", GDT_Byte, 1, 32, 32, true)};
  for (const std::string& src : sources) {
    SCOPED_TRACE(src);
    const GdalView before = ViewWithGdal(src);
    ASSERT_TRUE(before.opened);
    ASSERT_EQ(before.overview_counts, std::vector<int>(before.bands, 2));
    ASSERT_EQ(before.colours.size(), src == sources[1] ? 5 * 3 : 0u);
    const std::string copy = src + ".copy.img";
    ErrGuard err;
    ASSERT_TRUE(ehfa_FileCopy(kzdv::FromUtf8(src).c_str(), kzdv::FromUtf8(copy).c_str(), nullptr,
                              nullptr, &err))
        << err.Text();
    // The source goes away, so the copy cannot lean on it (overview names).
    std::filesystem::remove(src);
    const GdalView after = ViewWithGdal(copy);
    ASSERT_TRUE(after.opened);
    EXPECT_EQ(after.bands, before.bands);
    EXPECT_EQ(after.checksums, before.checksums);
    EXPECT_EQ(after.overview_counts, before.overview_counts);
    for (int i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(after.gt[i], before.gt[i]);
    EXPECT_EQ(after.wkt, before.wkt);
    EXPECT_EQ(after.foo, "bar");
    EXPECT_EQ(after.colours, before.colours);
  }
}

// Copy functions used through the table.
Ehfa_File* g_seen_source = nullptr;
void CopyLayerObject(Ehfa_File* source, Ehfa_File* target, Eerr_ErrorReport** err) {
  // Rewrites the layer from the source object, as a save rewrites a node.
  g_seen_source = source;
  const Emif_Design* d = nullptr;
  void* rec = nullptr;
  if (!ehfa_ObjectRead(source, EHFA_SEEK_INTO, nullptr, nullptr, &d, &rec, err)) return;
  ehfa_ObjectWrite(target, L":", L"Layer_1", EHFA_WRITE_AFTER, d, rec, err);
  emif_ObjectFree(d, rec, nullptr);
}
void WriteNote(Ehfa_File*, Ehfa_File* target, Eerr_ErrorReport** err) {
  Emif_Design* d = emif_DesignCreate(L"Note", 0x208, L"text", 0, err);
  Emif_CountedString s{6, const_cast<Etxt_Char*>(L"hello")};
  ehfa_ObjectWrite(target, L":", L"Note", EHFA_WRITE_REPLACE, d, &s, err);
  emif_DesignDestroy(d);
}
void Fails(Ehfa_File*, Ehfa_File*, Eerr_ErrorReport** err) {
  *err = eerr_CreateErrorReport(L"Fails", 1, 2, nullptr, L"refused", 0);
}

Ehfa_CEFRecord Record(const wchar_t* name, Ehfa_CopyFunction entry, Ehfa_CopyFunction data,
                      bool children) {
  Ehfa_CEFRecord r{};
  wcsncpy(r.name, name, 32);
  r.entryCopy = entry;
  r.dataCopy = data;
  r.copyChildren = children ? EMSC_TRUE : EMSC_FALSE;
  return r;
}

TEST(EhfaGdal, CopyTableDropsOrRewritesExactlyItsNodes) {
  testutil::ScratchDir dir("ehfa_table");
  const std::string src = MakeGdalImage(dir, "src.img", GDT_Byte, 2);
  const GdalView before = ViewWithGdal(src);

  // Dropping the metadata table loses the metadata and nothing else.
  const Ehfa_CEFRecord drop[] = {Record(L"GDAL_MetaData", nullptr, nullptr, true),
                                 Ehfa_CEFRecord{}};
  GdalView v = CopyAndView(src, dir.File("drop.img"), drop);
  ASSERT_TRUE(v.opened);
  EXPECT_EQ(v.foo, "");
  EXPECT_EQ(v.checksums, before.checksums);

  // Dropping the second layer leaves a one-band image.
  const Ehfa_CEFRecord drop_layer[] = {Record(L"Layer_2", nullptr, nullptr, false),
                                       Ehfa_CEFRecord{}};
  v = CopyAndView(src, dir.File("oneband.img"), drop_layer);
  ASSERT_TRUE(v.opened);
  EXPECT_EQ(v.bands, 1);
  EXPECT_EQ(v.checksums[0], before.checksums[0]);

  // A node named by its full path: only that one goes.
  const Ehfa_CEFRecord drop_path[] = {Record(L":Layer_1:Map_Info", nullptr, nullptr, false),
                                      Ehfa_CEFRecord{}};
  const std::string no_map = dir.File("nomap.img");
  v = CopyAndView(src, no_map, drop_path);
  ASSERT_TRUE(v.opened);
  {
    ErrGuard e;
    Ehfa_File* g = ehfa_FileOpen(kzdv::FromUtf8(no_map).c_str(), "r", nullptr, &e);
    ASSERT_TRUE(g) << e.Text();
    EXPECT_FALSE(ehfa_EntrySeekIfPresent(g, EHFA_SEEK_INTO, L":Layer_1:Map_Info", nullptr, &e));
    EXPECT_TRUE(ehfa_EntrySeekIfPresent(g, EHFA_SEEK_INTO, L":Layer_2:Map_Info", nullptr, &e));
    EXPECT_TRUE(ehfa_EntrySeekIfPresent(g, EHFA_SEEK_INTO, L":Layer_1:Projection", nullptr, &e));
    ehfa_FileClose(g, nullptr);
  }

  // A layer rewritten by its data function, with its children copied under
  // it, and a new node written in place of the format info.
  const Ehfa_CEFRecord rewrite[] = {Record(L"Layer_1", nullptr, CopyLayerObject, true),
                                    Record(L"IMGFormatInfo", WriteNote, nullptr, false),
                                    Ehfa_CEFRecord{}};
  const std::string out = dir.File("rewritten.img");
  v = CopyAndView(src, out, rewrite);
  ASSERT_TRUE(v.opened);
  EXPECT_TRUE(g_seen_source);
  EXPECT_EQ(v.checksums, before.checksums);
  EXPECT_EQ(v.foo, "bar");
  ErrGuard err;
  Ehfa_File* f = ehfa_FileOpen(kzdv::FromUtf8(out).c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  EXPECT_FALSE(ehfa_EntrySeekIfPresent(f, EHFA_SEEK_INTO, L":IMGFormatInfo", nullptr, &err));
  {
    Object note;  // its design is the file's: freed before the file closes
    ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, L":", L"Note", &note.design, &note.rec, &err))
        << err.Text();
    EXPECT_EQ(TextOf(note.design, note.rec, L"text"), L"hello");
  }
  ehfa_FileClose(f, nullptr);

  // A failing copy function fails the copy and leaves no target behind.
  const Ehfa_CEFRecord failing[] = {Record(L"Layer_2", Fails, nullptr, false), Ehfa_CEFRecord{}};
  const std::string failed = dir.File("failed.img");
  ErrGuard fail_err;
  EXPECT_FALSE(ehfa_FileCopy(kzdv::FromUtf8(src).c_str(), kzdv::FromUtf8(failed).c_str(), failing,
                             nullptr, &fail_err));
  EXPECT_NE(kzdv::ReportText(fail_err.e).find(L"refused"), std::wstring::npos);
  EXPECT_FALSE(std::filesystem::exists(failed));

  // A copy onto its own source is refused and leaves the source intact.
  ErrGuard self_err;
  EXPECT_FALSE(ehfa_FileCopy(kzdv::FromUtf8(src).c_str(), kzdv::FromUtf8(src).c_str(), nullptr,
                             nullptr, &self_err));
  EXPECT_NE(self_err.Text().find(L"onto itself"), std::wstring::npos);
  EXPECT_EQ(ViewWithGdal(src).checksums, before.checksums);
}

}  // namespace
