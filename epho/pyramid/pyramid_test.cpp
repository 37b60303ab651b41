// Pyramid levels checked against a plain 3x3 binomial filter written here,
// with the files written and read back by GDAL itself.
#include "epho/pyramid.h"

#include <gdal.h>
#include <gdal_alg.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "eimg.h"
#include "emet.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using testutil::Slurp;

using Plane = std::vector<double>;  // row-major pixel values

struct Raster {
  long w, h;
  std::vector<Plane> bands;
};

// The reference: every output pixel straight from its 3x3 neighbourhood,
// border pixels repeated, integer results rounded half up.
Plane ReferenceLevel(const Plane& in, long w, long h, bool integer) {
  long ow = (w + 1) / 2, oh = (h + 1) / 2;
  Plane out(ow * oh);
  const double k[3] = {1, 2, 1};
  for (long r = 0; r < oh; ++r)
    for (long c = 0; c < ow; ++c) {
      double s = 0;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          long y = std::min(std::max(2 * r + dy, 0L), h - 1);
          long x = std::min(std::max(2 * c + dx, 0L), w - 1);
          s += k[dy + 1] * k[dx + 1] * in[y * w + x];
        }
      out[r * ow + c] = integer ? std::floor((s + 8) / 16) : s / 16;
    }
  return out;
}

void Fill(Plane& p, GDALDataType t, std::mt19937& rng) {
  double lo = 0, hi = 255;
  switch (t) {
    case GDT_UInt16:
      hi = 65535;
      break;
    case GDT_Int16:
      lo = -32768, hi = 32767;
      break;
    case GDT_UInt32:
      hi = 4294967295.0;
      break;
    case GDT_Int32:
      lo = -2147483648.0, hi = 2147483647.0;
      break;
    case GDT_Float32:
    case GDT_Float64:
      lo = -1e4, hi = 1e4;
      break;
    default:
      break;
  }
  std::uniform_real_distribution<double> d(lo, hi);
  bool integer = t != GDT_Float32 && t != GDT_Float64;
  for (auto& v : p) v = integer ? std::floor(d(rng)) : d(rng);
  if (t == GDT_Float32)
    for (auto& v : p) v = static_cast<float>(v);
  // Extremes, so that accumulators that are too narrow show.
  p[0] = lo, p[1] = hi, p[p.size() - 1] = hi;
}

std::string WriteTiff(const std::string& path, const Raster& r, GDALDataType t,
                      std::vector<const char*> options = {}) {
  GDALAllRegister();
  options.push_back(nullptr);
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), int(r.w), int(r.h),
                               int(r.bands.size()), t, const_cast<char**>(options.data()));
  EXPECT_NE(ds, nullptr);
  for (size_t b = 0; b < r.bands.size(); ++b) {
    Plane copy = r.bands[b];
    EXPECT_EQ(GDALRasterIO(GDALGetRasterBand(ds, int(b + 1)), GF_Write, 0, 0, int(r.w), int(r.h),
                           copy.data(), int(r.w), int(r.h), GDT_Float64, 0, 0),
              CE_None);
  }
  GDALClose(ds);
  return path;
}

Plane ReadOverview(GDALDatasetH ds, int band, int level, long* w, long* h) {
  GDALRasterBandH b = GDALGetOverview(GDALGetRasterBand(ds, band), level - 1);
  *w = GDALGetRasterBandXSize(b), *h = GDALGetRasterBandYSize(b);
  Plane p(*w * *h);
  EXPECT_EQ(GDALRasterIO(b, GF_Read, 0, 0, int(*w), int(*h), p.data(), int(*w), int(*h),
                         GDT_Float64, 0, 0),
            CE_None);
  return p;
}

// Compares every level of every band with the reference.
void ExpectLevelsAreReference(const std::string& path, const Raster& r, bool integer,
                              double tolerance = 0) {
  long n = epho_PyramidLevelCount(r.w, r.h);
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  for (size_t b = 0; b < r.bands.size(); ++b) {
    GDALRasterBandH band = GDALGetRasterBand(ds, int(b + 1));
    ASSERT_EQ(GDALGetOverviewCount(band), n);
    const char* algo = GDALGetMetadataItem(band, "PYRAMID_ALGORITHM", nullptr);
    EXPECT_STREQ(algo ? algo : "", "KordaBino3");
    Plane ref = r.bands[b];
    long w = r.w, h = r.h;
    for (long k = 1; k <= n; ++k) {
      ref = ReferenceLevel(ref, w, h, integer);
      if (GDALGetRasterDataType(band) == GDT_Float32)
        for (auto& v : ref) v = static_cast<float>(v);
      w = (w + 1) / 2, h = (h + 1) / 2;
      long gw, gh;
      Plane got = ReadOverview(ds, int(b + 1), int(k), &gw, &gh);
      ASSERT_EQ(gw, w);
      ASSERT_EQ(gh, h);
      long bad = 0;
      for (size_t i = 0; i < got.size(); ++i)
        if (std::fabs(got[i] - ref[i]) > tolerance * std::max(1.0, std::fabs(ref[i]))) {
          if (bad++ < 3)
            ADD_FAILURE() << path << " band " << b + 1 << " level " << k << " pixel (" << i % w
                          << "," << i / w << "): " << got[i] << " != " << ref[i];
        }
      EXPECT_EQ(bad, 0);
    }
  }
  GDALClose(ds);
}

// Runs the pyramids, then compares the levels with the reference.
void ExpectLevelsMatch(const std::string& path, const Raster& r, bool integer,
                       double tolerance = 0) {
  Eerr_ErrorReport* err = nullptr;
  epho_ComputePyramidLayers3x3(kzdv::FromUtf8(path).c_str(), nullptr, &err);
  ASSERT_EQ(err, nullptr) << kzdv::ReportText(err);
  ExpectLevelsAreReference(path, r, integer, tolerance);
}

Raster RandomRaster(long w, long h, int bands, GDALDataType t, unsigned seed) {
  std::mt19937 rng(seed);
  Raster r{w, h, std::vector<Plane>(bands, Plane(w * h))};
  for (auto& p : r.bands) Fill(p, t, rng);
  return r;
}

TEST(PyramidLayers, EveryPixelTypeMatchesBinomialReferenceEdgesIncluded) {
  testutil::ScratchDir dir("pyr_types");
  // Odd sizes, so the last column and row of each level lean on the border.
  const long w = 301, h = 257;
  struct Case {
    GDALDataType type;
    bool integer;
    double tolerance;
  } cases[] = {{GDT_Byte, true, 0},        {GDT_UInt16, true, 0}, {GDT_Int16, true, 0},
               {GDT_UInt32, true, 0},      {GDT_Int32, true, 0},  {GDT_Float32, false, 1e-6},
               {GDT_Float64, false, 1e-12}};
  unsigned seed = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(GDALGetDataTypeName(c.type));
    Raster r = RandomRaster(w, h, 1, c.type, seed++);
    std::string path =
        WriteTiff(dir.File(std::string(GDALGetDataTypeName(c.type)) + ".tif"), r, c.type);
    ExpectLevelsMatch(path, r, c.integer, c.tolerance);
  }
}

TEST(PyramidLayers, TiledAndInterleavedFilesMatchReference) {
  testutil::ScratchDir dir("pyr_layout");
  // Several column tiles and row chunks per level, tiled storage.
  Raster wide = RandomRaster(2501, 700, 1, GDT_Byte, 11);
  ExpectLevelsMatch(WriteTiff(dir.File("tiled.tif"), wide, GDT_Byte,
                              {"TILED=YES", "BLOCKXSIZE=128", "BLOCKYSIZE=64"}),
                    wide, true);
  // Pixel-interleaved three bands: read in one pass for all bands.
  Raster rgb = RandomRaster(517, 389, 3, GDT_Byte, 12);
  ExpectLevelsMatch(WriteTiff(dir.File("bip.tif"), rgb, GDT_Byte, {"INTERLEAVE=PIXEL"}), rgb, true);
  // Line-interleaved ENVI: one pass, levels in GDAL's external overview file.
  Raster bil = RandomRaster(333, 301, 2, GDT_UInt16, 15);
  std::string bil_src = WriteTiff(dir.File("bil_src.tif"), bil, GDT_UInt16);
  std::string bil_path = dir.File("bil.img");
  GDALDatasetH src = GDALOpen(bil_src.c_str(), GA_ReadOnly);
  const char* bil_opts[] = {"INTERLEAVE=BIL", nullptr};
  GDALClose(GDALCreateCopy(GDALGetDriverByName("ENVI"), bil_path.c_str(), src, FALSE,
                           const_cast<char**>(bil_opts), nullptr, nullptr));
  GDALClose(src);
  ExpectLevelsMatch(bil_path, bil, true);
  // Band-sequential: band after band.
  Raster bsq = RandomRaster(300, 260, 3, GDT_Int16, 13);
  ExpectLevelsMatch(WriteTiff(dir.File("bsq.tif"), bsq, GDT_Int16, {"INTERLEAVE=BAND"}), bsq, true);
  // Rows so wide that a chunk holds fewer rows than a block of the level.
  Raster widef = RandomRaster(9001, 300, 1, GDT_Float64, 14);
  ExpectLevelsMatch(WriteTiff(dir.File("wide.tif"), widef, GDT_Float64), widef, false, 1e-12);
  // Run twice: old levels are replaced, not added to.
  ExpectLevelsMatch(dir.File("bsq.tif"), bsq, true);
}

TEST(PyramidLayers, LevelCountFollowsSizeRuleAndGdalSeesLevels) {
  testutil::ScratchDir dir("pyr_count");
  struct Case {
    long w, h;
    int levels;
  } cases[] = {{200, 50, 0}, {200, 56, 1}, {1024, 1024, 4}, {128, 127, 0}, {128, 128, 1}};
  for (const auto& c : cases) {
    EXPECT_EQ(epho_PyramidLevelCount(c.w, c.h), c.levels) << c.w << "x" << c.h;
    Raster r{c.w, c.h, {Plane(c.w * c.h, 7.0)}};
    std::string path = WriteTiff(
        dir.File("c" + std::to_string(c.w) + "x" + std::to_string(c.h) + ".tif"), r, GDT_Byte);
    Eerr_ErrorReport* err = nullptr;
    epho_ComputePyramidLayers3x3(kzdv::FromUtf8(path).c_str(), nullptr, &err);
    ASSERT_EQ(err, nullptr) << kzdv::ReportText(err);
    GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
    EXPECT_EQ(GDALGetOverviewCount(GDALGetRasterBand(ds, 1)), c.levels) << c.w << "x" << c.h;
    GDALClose(ds);
    EXPECT_TRUE(epho_PyramidLayersCheck(kzdv::FromUtf8(path).c_str(), nullptr));
  }
}

struct CancelAt {
  std::wstring task_part;
  double percent;
};

void CancelSink(const Etxt_Char* task, double percent, void* ctx) {
  auto* meter_and_rule = static_cast<std::pair<Emet_MeterInfo**, CancelAt>*>(ctx);
  if (std::wstring(task).find(meter_and_rule->second.task_part) != std::wstring::npos &&
      percent >= meter_and_rule->second.percent)
    emet_MeterInfoCancel(*meter_and_rule->first);
}

long FilesIn(const testutil::ScratchDir& dir) {
  return std::distance(std::filesystem::directory_iterator(dir.path()), {});
}

// The levels go in GDAL's level file beside the image, whose bytes are never
// written, and a second run replaces them there; an image that holds levels
// of its own (internal GeoTIFF overviews) has them rebuilt inside it.
TEST(PyramidLayers, LevelsGoBesideTheImageUnlessItHoldsItsOwn) {
  testutil::ScratchDir dir("pyr_beside");
  Raster r = RandomRaster(700, 600, 2, GDT_Byte, 51);
  const std::string plain = WriteTiff(dir.File("plain.tif"), r, GDT_Byte);
  const std::string bytes = Slurp(plain);
  // What a run killed while it worked leaves: a hidden second name of the
  // image and a part of its level file. The next run removes them.
  const std::string killed = dir.File(".plain.tmpk1lled.tif");
  ASSERT_EQ(::link(plain.c_str(), killed.c_str()), 0);
  std::ofstream(killed + ".ovr") << "part of a level file";
  const std::string killed_copy = dir.File(".plain.tmpk1ll3d.tif");
  std::filesystem::create_directory(killed_copy);
  std::ofstream(killed_copy + "/plain.tif") << "part of a copy";
  for (int run = 0; run < 2; ++run) {
    ExpectLevelsMatch(plain, r, true);
    EXPECT_TRUE(Slurp(plain) == bytes) << "run " << run;
    EXPECT_TRUE(std::filesystem::exists(plain + ".ovr"));
    EXPECT_EQ(FilesIn(dir), 3);  // the image, its level file and its .aux.xml
  }
  // Through a symbolic link: the link stays a link and gets its own level
  // file, where GDAL looks when it opens the link.
  const std::string alias = dir.File("alias.tif");
  std::filesystem::create_symlink("plain.tif", alias);
  ExpectLevelsMatch(alias, r, true);
  EXPECT_TRUE(std::filesystem::is_symlink(alias));
  EXPECT_TRUE(std::filesystem::exists(alias + ".ovr"));
  // Levels inside a GeoTIFF, and inside an HFA image, whose level references
  // name the file itself: rebuilt there, through a copy that must not touch
  // the original by that name.
  const std::string tif = WriteTiff(dir.File("inside.tif"), r, GDT_Byte);
  const std::string img = dir.File("inside.img");
  GDALDatasetH src = GDALOpen(tif.c_str(), GA_ReadOnly);
  GDALClose(GDALCreateCopy(GDALGetDriverByName("HFA"), img.c_str(), src, FALSE, nullptr, nullptr,
                           nullptr));
  GDALClose(src);
  for (const std::string& inside : {tif, img}) {
    SCOPED_TRACE(inside);
    GDALDatasetH ds = GDALOpen(inside.c_str(), GA_Update);
    int f[] = {2, 4, 8, 16, 32};
    ASSERT_EQ(GDALBuildOverviews(ds, "AVERAGE", 5, f, 0, nullptr, nullptr, nullptr), CE_None);
    GDALClose(ds);
    ExpectLevelsMatch(inside, r, true);
    EXPECT_FALSE(std::filesystem::exists(inside + ".ovr"));
  }
  std::string names;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    names += e.path().filename().string() + " ";
  EXPECT_EQ(FilesIn(dir), 9) << names;  // no level file, no work folder left beside them
}

// Runs the pyramids with a meter that cancels at `at`; expects the report.
void RunCancelled(const std::string& path, const CancelAt& at, const wchar_t* message) {
  Emet_MeterInfo* meter = nullptr;
  std::pair<Emet_MeterInfo**, CancelAt> ctx{&meter, at};
  meter = emet_MeterInfoCreateWithSink(L"pyramids", CancelSink, &ctx, nullptr);
  Eerr_ErrorReport* err = nullptr;
  epho_ComputePyramidLayers3x3(kzdv::FromUtf8(path).c_str(), meter, &err);
  emet_MeterInfoDelete(meter);
  ASSERT_NE(err, nullptr);
  EXPECT_TRUE(kzdv::ReportContains(err, message)) << kzdv::ReportText(err);
  eerr_DeleteErrorReport(err);
}

// A cancelled run reports the cancel and leaves the image exactly as it was,
// the levels it had before included, with nothing else left in the folder.
TEST(PyramidLayers, CancelReportsAndLeavesTheImageAsItWas) {
  testutil::ScratchDir dir("pyr_cancel");
  Raster r = RandomRaster(1500, 1300, 1, GDT_Byte, 21);
  struct Case {
    CancelAt at;
    const wchar_t* message;
    bool beside;  // the levels from before in GDAL's level file, not inside the image
  } cases[] = {
      // Inside level 1, between tiles.
      {{L"pyramid layer 1 of", 1.0}, L"Pyramid generaton is canceled!", false},
      {{L"pyramid layer 1 of", 1.0}, L"Pyramid generaton is canceled!", true},
      // As level 2 starts.
      {{L"pyramid layer 2 of", 0.0}, L"Pyramid generation has been canceled!", false},
      {{L"pyramid layer 2 of", 0.0}, L"Pyramid generation has been canceled!", true},
  };
  int i = 0;
  for (const auto& c : cases) {
    std::string path = WriteTiff(dir.File("c" + std::to_string(i++) + ".tif"), r, GDT_Byte);
    GDALDatasetH ds = GDALOpen(path.c_str(), c.beside ? GA_ReadOnly : GA_Update);
    int f[] = {2, 4};
    ASSERT_EQ(GDALBuildOverviews(ds, "AVERAGE", 2, f, 0, nullptr, nullptr, nullptr), CE_None);
    GDALClose(ds);
    ASSERT_EQ(std::filesystem::exists(path + ".ovr"), c.beside);
    const std::string before = Slurp(path), levels_before = c.beside ? Slurp(path + ".ovr") : "";
    const long files_before = FilesIn(dir);
    RunCancelled(path, c.at, c.message);
    EXPECT_TRUE(Slurp(path) == before) << "the image changed";
    if (c.beside) {
      EXPECT_TRUE(Slurp(path + ".ovr") == levels_before) << "the levels changed";
    }
    EXPECT_EQ(FilesIn(dir), files_before);
    ds = GDALOpen(path.c_str(), GA_ReadOnly);
    EXPECT_EQ(GDALGetOverviewCount(GDALGetRasterBand(ds, 1)), 2);
    GDALClose(ds);
  }

  // A large sparse image (blocks never written take no room) keeps its size
  // and the room it takes on disk when cancelled while level 1 is written.
  const std::string sparse = dir.File("sparse.tif");
  const char* options[] = {"TILED=YES", "SPARSE_OK=TRUE", nullptr};
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), sparse.c_str(), 24000, 24000, 1,
                               GDT_Byte, const_cast<char**>(options));
  ASSERT_NE(ds, nullptr);
  std::vector<unsigned char> patch(256 * 256, 200);
  ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 1024, 1024, 256, 256, patch.data(),
                         256, 256, GDT_Byte, 0, 0),
            CE_None);
  GDALClose(ds);
  struct stat before {};
  ASSERT_EQ(::stat(sparse.c_str(), &before), 0);
  const std::string bytes = Slurp(sparse);
  const long files_before = FilesIn(dir);
  RunCancelled(sparse, CancelAt{L"pyramid layer 1 of", 3.0}, L"Pyramid generaton is canceled!");
  struct stat after {};
  ASSERT_EQ(::stat(sparse.c_str(), &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_LE(after.st_blocks, before.st_blocks + before.st_blocks / 20 + 8);
  EXPECT_TRUE(Slurp(sparse) == bytes);
  EXPECT_EQ(FilesIn(dir), files_before);
}

// A file size limit below the size of the level file (or of the copy of an
// image with levels inside) fails the run with a report, not a signal, and
// leaves the image, its levels from before and the folder as they were.
TEST(PyramidLayers, FileSizeLimitFailsTheRunAndKeepsTheLevels) {
  testutil::ScratchDir dir("pyr_fsize");
  Raster r = RandomRaster(1200, 1000, 1, GDT_Byte, 61);
  for (bool inside : {false, true}) {
    SCOPED_TRACE(inside ? "levels inside" : "levels beside");
    const std::string path = WriteTiff(dir.File(inside ? "in.tif" : "be.tif"), r, GDT_Byte);
    GDALDatasetH ds = GDALOpen(path.c_str(), inside ? GA_Update : GA_ReadOnly);
    int f[] = {2, 4};
    ASSERT_EQ(GDALBuildOverviews(ds, "AVERAGE", 2, f, 0, nullptr, nullptr, nullptr), CE_None);
    GDALClose(ds);
    const std::string image = Slurp(path), levels = inside ? "" : Slurp(path + ".ovr");
    const long files = FilesIn(dir);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 64 * 1024;
    setrlimit(RLIMIT_FSIZE, &small);
    Eerr_ErrorReport* err = nullptr;
    epho_ComputePyramidLayers3x3(kzdv::FromUtf8(path).c_str(), nullptr, &err);
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_NE(err, nullptr);
    eerr_DeleteErrorReportEx(&err);
    EXPECT_TRUE(Slurp(path) == image);
    if (!inside) {
      EXPECT_TRUE(Slurp(path + ".ovr") == levels);
    }
    EXPECT_EQ(FilesIn(dir), files);
  }
}

// Two runs on one image at once (two users, a batch started twice): the
// second waits for the first, and the image ends with the same levels as
// after one run, readable by GDAL.
TEST(PyramidLayers, ConcurrentRunsOnOneImageGiveOneRunsLevels) {
  testutil::ScratchDir dir("pyr_concurrent");
  Raster r = RandomRaster(900, 700, 2, GDT_Byte, 77);
  const std::string path = WriteTiff(dir.File("twice.tif"), r, GDT_Byte);
  std::vector<std::wstring> reports(3);
  std::vector<std::thread> runs;
  for (int t = 0; t < 3; ++t)
    runs.emplace_back([&, t] {
      Eerr_ErrorReport* err = nullptr;
      epho_ComputePyramidLayers3x3(kzdv::FromUtf8(path).c_str(), nullptr, &err);
      if (err) reports[t] = kzdv::ReportText(err);
      eerr_DeleteErrorReportEx(&err);
    });
  for (auto& t : runs) t.join();
  for (const auto& report : reports) EXPECT_EQ(report, L"");
  EXPECT_TRUE(epho_PyramidLayersCheck(kzdv::FromUtf8(path).c_str(), nullptr));
  ExpectLevelsAreReference(path, r, true);
  EXPECT_EQ(FilesIn(dir), 3);  // the image, its level file and its .aux.xml
}

void RecordTasks(const Etxt_Char* task, double, void* ctx) {
  auto* seen = static_cast<std::vector<std::wstring>*>(ctx);
  if (seen->empty() || seen->back() != task) seen->push_back(task);
}

// The meter names the file, the pass (all layers at once or one layer) and
// the level: interleaved files in one pass, band-sequential ones band by band.
TEST(PyramidLayers, MeterNamesFilePassAndLevel) {
  testutil::ScratchDir dir("pyr_meter");
  Raster r = RandomRaster(300, 300, 2, GDT_Byte, 41);  // 600 -> 300, 150: two levels
  struct Case {
    std::string path;
    std::vector<std::wstring> passes;
  } cases[] = {
      {WriteTiff(dir.File("bip.tif"), r, GDT_Byte, {"INTERLEAVE=PIXEL"}), {L": All Layers"}},
      {WriteTiff(dir.File("bsq.tif"), r, GDT_Byte, {"INTERLEAVE=BAND"}),
       {L": Layer 1", L": Layer 2"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const std::wstring file = kzdv::FromUtf8(c.path);
    std::vector<std::wstring> expected;
    for (const auto& pass : c.passes)
      for (int k = 1; k <= 2; ++k)
        expected.push_back(file + pass + L", pyramid layer " + std::to_wstring(k) + L" of 2");
    std::vector<std::wstring> seen;
    Emet_MeterInfo* meter = emet_MeterInfoCreateWithSink(L"start", RecordTasks, &seen, nullptr);
    Eerr_ErrorReport* err = nullptr;
    epho_ComputePyramidLayers3x3(file.c_str(), meter, &err);
    emet_MeterInfoDelete(meter);
    ASSERT_EQ(err, nullptr) << kzdv::ReportText(err);
    if (!seen.empty() && seen.front() == L"start") seen.erase(seen.begin());
    EXPECT_EQ(seen, expected);
  }
}

// Images the run refuses are left as they were, with nothing added to the
// folder; the check refuses complex and 1- and 2-bit images with its own
// reasons, so the run and the check agree.
TEST(PyramidLayers, RefusedFilesAreLeftUntouched) {
  testutil::ScratchDir dir("pyr_refuse");
  Raster r = RandomRaster(300, 300, 1, GDT_Byte, 31);
  // A format GDAL cannot update in place.
  std::string tif = WriteTiff(dir.File("src.tif"), r, GDT_Byte);
  std::string png = dir.File("image.png");
  GDALDatasetH src = GDALOpen(tif.c_str(), GA_ReadOnly);
  GDALClose(GDALCreateCopy(GDALGetDriverByName("PNG"), png.c_str(), src, FALSE, nullptr, nullptr,
                           nullptr));
  GDALClose(src);
  // A GeoTIFF whose write permission was taken away.
  std::string locked = WriteTiff(dir.File("locked.tif"), r, GDT_Byte);
  ::chmod(locked.c_str(), 0444);
  // Complex pixels.
  Raster cr{300, 300, {Plane(300 * 300, 3.0)}};
  std::string cplx = WriteTiff(dir.File("complex.tif"), cr, GDT_CFloat32);
  // 1- and 2-bit pixels.
  for (auto& v : r.bands[0]) v = static_cast<double>(static_cast<int>(v) % 2);
  std::string bit1 = WriteTiff(dir.File("1bit.tif"), r, GDT_Byte, {"NBITS=1"});
  std::string bit2 = WriteTiff(dir.File("2bit.tif"), r, GDT_Byte, {"NBITS=2"});

  struct Case {
    std::string path;
    std::wstring message, check_message;
  } cases[] = {
      {png, L"Image layer " + kzdv::FromUtf8(png) + L"(:Layer_1) is read only!", L""},
      {locked, L"Image layer " + kzdv::FromUtf8(locked) + L"(:Layer_1) is read only!", L""},
      {cplx, L"Binomial (3x3) pyramid layers cannot be computed on complex pixels!",
       L"This program doesn't support complex type image!"},
      {bit1, L"Image layer " + kzdv::FromUtf8(bit1) + L"(:Layer_1) has an unsupported pixel type!",
       L"This program doesn't support 1bit image!"},
      {bit2, L"Image layer " + kzdv::FromUtf8(bit2) + L"(:Layer_1) has an unsupported pixel type!",
       L"This program doesn't support 2bit image!"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    std::string before = Slurp(c.path);
    const long files_before = FilesIn(dir);
    Eerr_ErrorReport* err = nullptr;
    epho_ComputePyramidLayers3x3(kzdv::FromUtf8(c.path).c_str(), nullptr, &err);
    ASSERT_NE(err, nullptr);
    EXPECT_TRUE(kzdv::ReportContains(err, c.message)) << kzdv::ReportText(err);
    eerr_DeleteErrorReportEx(&err);
    EXPECT_EQ(Slurp(c.path), before);
    EXPECT_EQ(FilesIn(dir), files_before);
    if (c.check_message.empty()) continue;
    EXPECT_FALSE(epho_PyramidLayersCheck(kzdv::FromUtf8(c.path).c_str(), &err));
    EXPECT_TRUE(kzdv::ReportContains(err, c.check_message)) << kzdv::ReportText(err);
    eerr_DeleteErrorReportEx(&err);
  }
  // With no report pointer, the report is printed, not lost.
  testutil::PrintedReports printed;
  epho_ComputePyramidLayers3x3(kzdv::FromUtf8(cplx).c_str(), nullptr, nullptr);
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"complex pixels"), std::wstring::npos);
}

TEST(PyramidLayers, CheckTellsBinomialFromOtherLevels) {
  testutil::ScratchDir dir("pyr_check");
  Raster r = RandomRaster(400, 300, 2, GDT_UInt16, 41);
  std::string path = WriteTiff(dir.File("a.tif"), r, GDT_UInt16);
  std::wstring wpath = kzdv::FromUtf8(path);
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_PyramidLayersCheck(wpath.c_str(), &err));
  EXPECT_EQ(err, nullptr);
  // Levels of another tool: right sizes, no binomial marker.
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_Update);
  int f[] = {2, 4};
  ASSERT_EQ(GDALBuildOverviews(ds, "AVERAGE", 2, f, 0, nullptr, nullptr, nullptr), CE_None);
  GDALClose(ds);
  EXPECT_FALSE(epho_PyramidLayersCheck(wpath.c_str(), &err));
  EXPECT_TRUE(epho_PyramidLayersCheckAllowRSETS(wpath.c_str(), &err));
  // One level too few is not usable by either.
  ds = GDALOpen(path.c_str(), GA_Update);
  ASSERT_EQ(GDALBuildOverviews(ds, "NONE", 0, nullptr, 0, nullptr, nullptr, nullptr), CE_None);
  ASSERT_EQ(GDALBuildOverviews(ds, "AVERAGE", 1, f, 0, nullptr, nullptr, nullptr), CE_None);
  GDALClose(ds);
  EXPECT_FALSE(epho_PyramidLayersCheckAllowRSETS(wpath.c_str(), &err));
  epho_ComputePyramidLayers3x3(wpath.c_str(), nullptr, &err);
  ASSERT_EQ(err, nullptr) << kzdv::ReportText(err);
  EXPECT_TRUE(epho_PyramidLayersCheck(wpath.c_str(), &err));
  EXPECT_FALSE(epho_PyramidLayersCheck(kzdv::FromUtf8(dir.File("missing.tif")).c_str(), &err));
  EXPECT_TRUE(kzdv::ReportContains(
      err, L"Cannot get layer names from file " + kzdv::FromUtf8(dir.File("missing.tif")) + L"!"));
  eerr_DeleteErrorReport(err);
}

TEST(PyramidLayers, EffectiveRangeLeavesOutNullValue) {
  testutil::ScratchDir dir("pyr_range");
  Raster r = RandomRaster(120, 80, 1, GDT_Int16, 51);
  for (long i = 0; i < 120 * 80; i += 7) r.bands[0][i] = -32768;  // null cells
  r.bands[0][5] = 20000;
  std::string path = WriteTiff(dir.File("dem.tif"), r, GDT_Int16);
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_Update);
  GDALSetRasterNoDataValue(GDALGetRasterBand(ds, 1), -32768);
  GDALClose(ds);
  double lo = 1e300, hi = -1e300;
  for (double v : r.bands[0])
    if (v != -32768) lo = std::min(lo, v), hi = std::max(hi, v);
  double mn = 0, mx = 0;
  Eerr_ErrorReport* err = nullptr;
  std::wstring layer = kzdv::FromUtf8(path) + L"(:Layer_1)";
  ASSERT_TRUE(epho_LayerEffectiveRangeGet(layer.c_str(), &mn, &mx, &err)) << kzdv::ReportText(err);
  EXPECT_EQ(mn, lo);
  EXPECT_EQ(mx, hi);
  // A layer of null cells only has no range.
  Raster empty{50, 50, {Plane(2500, -5.0)}};
  std::string e = WriteTiff(dir.File("empty.tif"), empty, GDT_Float32);
  ds = GDALOpen(e.c_str(), GA_Update);
  GDALSetRasterNoDataValue(GDALGetRasterBand(ds, 1), -5.0);
  GDALClose(ds);
  EXPECT_FALSE(epho_LayerEffectiveRangeGet(kzdv::FromUtf8(e).c_str(), &mn, &mx, &err));
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReport(err);
}

TEST(PyramidLayers, ProxyNameIsStablePerImageAndDistinctAcrossFolders) {
  auto name = [](const std::wstring& f) {
    Etxt_Char* n = epho_ProxyImageNameGet(f.c_str(), nullptr);
    std::wstring s = n ? n : L"";
    emsc_HeapFree(n);
    return s;
  };
  testutil::ScratchDir dir("pyr_proxy");
  std::filesystem::create_directories(dir.path() / "block1" / "sub");
  std::filesystem::create_directories(dir.path() / "block2");
  for (const char* f : {"block1/dem.tif", "block1/DEM.tif", "block2/dem.tif"})
    std::ofstream(dir.File(f)) << f;
  std::wstring a = name(dir.WFile("block1/dem.tif"));
  EXPECT_EQ(a, name(dir.WFile("block1/./sub/../dem.tif(:Layer_1)")));
  EXPECT_NE(a, name(dir.WFile("block2/dem.tif")));
  // Another file whose name differs only in letter case has its own proxy.
  if (!std::filesystem::equivalent(dir.File("block1/dem.tif"), dir.File("block1/DEM.tif"))) {
    EXPECT_NE(a, name(dir.WFile("block1/DEM.tif")));
  }
  // A file that cannot be examined: its path as written.
  EXPECT_EQ(name(L"/nonexistent/x/dem.tif"), name(L"/nonexistent/x/dem.tif"));
  EXPECT_NE(name(L"/nonexistent/x/dem.tif"), name(L"/nonexistent/x/DEM.tif"));
  std::wstring tmp = std::filesystem::temp_directory_path().wstring();
  EXPECT_EQ(a.rfind(tmp, 0), 0u) << a;
  EXPECT_NE(a.find(L"/dem-"), std::wstring::npos);
  EXPECT_EQ(a.substr(a.size() - 4), L".uai");
}

}  // namespace
