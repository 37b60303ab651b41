// Rational-function model: agreement with GDAL's RPC transformer, round
// trips, the three ways GDAL finds RPCs beside an image, the height iteration
// on a DEM, bad input and the run-time routine table.
#include <cpl_string.h>
#include <gdal.h>
#include <gdal_alg.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>
#include <proj.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "epho/sensors/rpc_testing_internal.h"
#include "epho/sensors/sensors_internal.h"
#include "test_util.h"

namespace {

using epho::sensors::testing::SampleRpc;
using Numbers = std::array<double, EPHO_RPC_NUMBER_COUNT>;

struct ErrSlot {
  Eerr_ErrorReport* report = nullptr;
  ~ErrSlot() { eerr_DeleteErrorReport(report); }
  Eerr_ErrorReport** operator&() {
    eerr_DeleteErrorReportEx(&report);
    return &report;
  }
  std::wstring Text() const { return kzdv::ReportText(report); }
  bool Mentions(const std::wstring& text) const { return testutil::Mentions(report, text); }
};

using ModelPtr = epho::sensors::Owned<Epho_RpcModel, epho_RpcModelFree>;
using epho::sensors::ExfrPtr;

ModelPtr Model(const Numbers& n = SampleRpc()) {
  ErrSlot err;
  ModelPtr m(epho_RpcModelCreate(n.data(), &err));
  EXPECT_TRUE(m) << err.Text();
  return m;
}

// Ground points over the model's whole validity cube (normalised -1..1).
std::vector<double> GroundCube(const Numbers& n, int steps = 9) {
  std::vector<double> g;
  for (int i = 0; i < steps; ++i)
    for (int j = 0; j < steps; ++j)
      for (int k = 0; k < 3; ++k) {
        const double u = -1 + 2.0 * i / (steps - 1), v = -1 + 2.0 * j / (steps - 1), w = k - 1.0;
        g.insert(g.end(), {n[EPHO_RPC_LONG_OFF] + u * n[EPHO_RPC_LONG_SCALE],
                           n[EPHO_RPC_LAT_OFF] + v * n[EPHO_RPC_LAT_SCALE],
                           n[EPHO_RPC_HEIGHT_OFF] + w * n[EPHO_RPC_HEIGHT_SCALE]});
      }
  return g;
}

GDALRPCInfoV2 GdalInfo(const Numbers& n) {
  GDALRPCInfoV2 info{};
  double* head[10] = {&info.dfLINE_OFF,    &info.dfSAMP_OFF,   &info.dfLAT_OFF,
                      &info.dfLONG_OFF,    &info.dfHEIGHT_OFF, &info.dfLINE_SCALE,
                      &info.dfSAMP_SCALE,  &info.dfLAT_SCALE,  &info.dfLONG_SCALE,
                      &info.dfHEIGHT_SCALE};
  for (int i = 0; i < 10; ++i) *head[i] = n[i];
  std::copy_n(&n[EPHO_RPC_LINE_NUM], 20, info.adfLINE_NUM_COEFF);
  std::copy_n(&n[EPHO_RPC_LINE_DEN], 20, info.adfLINE_DEN_COEFF);
  std::copy_n(&n[EPHO_RPC_SAMP_NUM], 20, info.adfSAMP_NUM_COEFF);
  std::copy_n(&n[EPHO_RPC_SAMP_DEN], 20, info.adfSAMP_DEN_COEFF);
  info.dfMIN_LONG = n[EPHO_RPC_LONG_OFF] - n[EPHO_RPC_LONG_SCALE];
  info.dfMAX_LONG = n[EPHO_RPC_LONG_OFF] + n[EPHO_RPC_LONG_SCALE];
  info.dfMIN_LAT = n[EPHO_RPC_LAT_OFF] - n[EPHO_RPC_LAT_SCALE];
  info.dfMAX_LAT = n[EPHO_RPC_LAT_OFF] + n[EPHO_RPC_LAT_SCALE];
  return info;
}

// GDAL's RPC metadata list of the numbers, as GDALSetMetadata(..., "RPC") takes it.
char** GdalMetadata(const Numbers& n) {
  GDALRPCInfoV2 info = GdalInfo(n);
  return RPCInfoV2ToMD(&info);
}

// Ground (lon, lat, h) to image through GDAL's own RPC transformer.
std::vector<double> GdalGroundToImage(const Numbers& n, const std::vector<double>& ground) {
  GDALRPCInfoV2 info = GdalInfo(n);
  void* t = GDALCreateRPCTransformerV2(&info, FALSE, 0.0, nullptr);
  const size_t count = ground.size() / 3;
  std::vector<double> x(count), y(count), z(count), out(2 * count);
  std::vector<int> ok(count);
  for (size_t i = 0; i < count; ++i)
    x[i] = ground[3 * i], y[i] = ground[3 * i + 1], z[i] = ground[3 * i + 2];
  GDALRPCTransform(t, TRUE, int(count), x.data(), y.data(), z.data(), ok.data());
  GDALDestroyRPCTransformer(t);
  for (size_t i = 0; i < count; ++i) {
    EXPECT_TRUE(ok[i]);
    out[2 * i] = x[i], out[2 * i + 1] = y[i];
  }
  return out;
}

double WorstPixelDifference(const std::vector<double>& a, const std::vector<double>& b) {
  double worst = 0;
  for (size_t i = 0; i < a.size(); i += 2)
    worst = std::max(worst, std::hypot(a[i] - b[i], a[i + 1] - b[i + 1]));
  return worst;
}

// A single-band float image in geographic WGS 84 degrees (geotransform `gt`,
// heights from `height(lon, lat)` at cell centres), written through GDAL.
template <typename F>
void WriteGeographicRaster(const std::string& path, int width, int height, const double gt[6],
                           F heightAt, char** options = nullptr, const char* crs = "EPSG:4326") {
  GDALAllRegister();
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), width, height, 1,
                               GDT_Float64, options);
  ASSERT_TRUE(ds);
  GDALSetGeoTransform(ds, const_cast<double*>(gt));
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  if (*crs) {
    ASSERT_EQ(OSRSetFromUserInput(srs, crs), OGRERR_NONE) << crs;
    OSRSetAxisMappingStrategy(srs, OAMS_TRADITIONAL_GIS_ORDER);
    GDALSetSpatialRef(ds, srs);
  }
  OSRDestroySpatialReference(srs);
  std::vector<double> z(size_t(width) * height);
  for (int r = 0; r < height; ++r)
    for (int c = 0; c < width; ++c)
      z[size_t(r) * width + c] = heightAt(gt[0] + (c + 0.5) * gt[1] + (r + 0.5) * gt[2],
                                          gt[3] + (c + 0.5) * gt[4] + (r + 0.5) * gt[5]);
  ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, width, height, z.data(), width,
                         height, GDT_Float64, 0, 0),
            CE_None);
  GDALClose(ds);
}

TEST(RpcModel, GroundToImageEqualsGdalsTransformer) {
  // The sample set, and one with a stronger denominator (a wide-angle scene).
  Numbers strong = SampleRpc();
  strong[EPHO_RPC_LINE_DEN + 1] = 0.03, strong[EPHO_RPC_LINE_DEN + 2] = -0.02;
  strong[EPHO_RPC_SAMP_DEN + 1] = -0.025, strong[EPHO_RPC_SAMP_DEN + 3] = 0.01;
  for (const Numbers& n : {SampleRpc(), strong}) {
    ModelPtr m = Model(n);
    const std::vector<double> ground = GroundCube(n);
    std::vector<double> ours(ground.size() / 3 * 2);
    ErrSlot err;
    ASSERT_TRUE(
        epho_RpcGroundToImage(m.get(), long(ours.size() / 2), ground.data(), ours.data(), &err))
        << err.Text();
    EXPECT_LT(WorstPixelDifference(ours, GdalGroundToImage(n, ground)), 1e-6);
    // Every vector path gives the same bits (243 points: a partial group too).
    for (epho::VectorPath path : epho::kAllVectorPaths) {
      if (!epho::VectorPathRuns(path)) continue;
      SCOPED_TRACE(epho::VectorPathName(path));
      std::vector<double> on_path(ours.size());
      ASSERT_TRUE(epho::sensors::RpcForwardBatch(n.data(), long(on_path.size() / 2), ground.data(),
                                                 on_path.data(), path));
      EXPECT_EQ(on_path, ours);
    }
  }
}

TEST(RpcModel, GroundImageGroundRoundTripsAcrossTheCube) {
  const Numbers n = SampleRpc();
  ModelPtr m = Model(n);
  const std::vector<double> ground = GroundCube(n, 11);
  const long count = long(ground.size() / 3);
  std::vector<double> image(2 * count), z(count), back(2 * count), again(3 * count),
      image2(2 * count);
  ErrSlot err;
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, ground.data(), image.data(), &err));
  for (long i = 0; i < count; ++i) z[i] = ground[3 * i + 2];
  ASSERT_TRUE(epho_RpcImageToGround(m.get(), count, image.data(), z.data(), back.data(), &err))
      << err.Text();
  double worst_deg = 0;
  for (long i = 0; i < count; ++i) {
    worst_deg = std::max({worst_deg, std::fabs(back[2 * i] - ground[3 * i]),
                          std::fabs(back[2 * i + 1] - ground[3 * i + 1])});
    again[3 * i] = back[2 * i], again[3 * i + 1] = back[2 * i + 1], again[3 * i + 2] = z[i];
  }
  EXPECT_LT(worst_deg, 1e-10);  // about 10 micrometres
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, again.data(), image2.data(), &err));
  EXPECT_LT(WorstPixelDifference(image, image2), 0.01);
  EXPECT_LT(WorstPixelDifference(image, image2), 1e-6);
}

TEST(RpcModel, ExfrRegistrationRunsTheModel) {
  const Numbers n = SampleRpc();
  ModelPtr m = Model(n);
  ErrSlot err;
  ExfrPtr t(epho_RpcModelToExfr(m.get(), &err));
  ASSERT_TRUE(t) << err.Text();
  EXPECT_TRUE(exfr_XFormSensorModelGet(t.get(), epho_RpcSensorOps()));
  ExfrPtr copy(exfr_XFormCopy(t.get(), &err));
  ASSERT_TRUE(copy) << err.Text();
  const std::vector<double> ground = GroundCube(n, 3);
  const long count = long(ground.size() / 3);
  std::vector<double> direct(2 * count), through(2 * count);
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, ground.data(), direct.data(), &err));
  ASSERT_TRUE(exfr_GroundToImage(copy.get(), count, ground.data(), through.data(), &err));
  EXPECT_EQ(direct, through);
  // The ray passes through the pixel at both of its heights.
  double origin[3], dir[3];
  ASSERT_TRUE(exfr_ImageToGroundRay(t.get(), direct[0], direct[1], origin, dir, &err))
      << err.Text();
  EXPECT_DOUBLE_EQ(origin[2], n[EPHO_RPC_HEIGHT_OFF]);
  const double ends[6] = {origin[0],          origin[1],          origin[2],
                          origin[0] + dir[0], origin[1] + dir[1], origin[2] + dir[2]};
  double on_ray[4];
  ASSERT_TRUE(exfr_GroundToImage(t.get(), 2, ends, on_ray, &err));
  for (int k = 0; k < 2; ++k)
    EXPECT_LT(std::hypot(on_ray[2 * k] - direct[0], on_ray[2 * k + 1] - direct[1]), 1e-6);
  // exfr_Transform takes (lon, lat) at the constant height of the model.
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), nullptr, 1234.5, &err));
  ExfrPtr at_height(epho_RpcModelToExfr(m.get(), &err));
  Efga_Matrix* pts = efga_MatrixCreate(2, 1, &err);
  pts->data[0] = ground[0], pts->data[1] = ground[1];
  ASSERT_TRUE(exfr_Transform(at_height.get(), pts, pts, &err)) << err.Text();
  const double g[3] = {ground[0], ground[1], 1234.5};
  double want[2];
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), 1, g, want, &err));
  EXPECT_DOUBLE_EQ(pts->data[0], want[0]);
  EXPECT_DOUBLE_EQ(pts->data[1], want[1]);
  efga_MatrixFree(pts);
}

TEST(RpcModel, ReadsTiffTagsRpbAndRpcTxtThroughOnePath) {
  testutil::ScratchDir dir("rpc_files");
  const Numbers n = SampleRpc();
  const double gt[6] = {0, 1, 0, 0, 0, 1};
  auto flat = [](double, double) { return 0.0; };
  char** md = GdalMetadata(n);
  // TIFF tags (the default) and an .RPB beside a baseline TIFF.
  struct Case {
    const char* file;
    std::vector<std::string> options;
    const char* sidecar;
  };
  const Case cases[] = {{"tags.tif", {}, nullptr},
                        {"rpb.tif", {"PROFILE=BASELINE", "RPB=YES"}, "rpb.RPB"}};
  std::vector<std::string> files;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    char** opts = nullptr;
    for (const auto& o : c.options) opts = CSLAddString(opts, o.c_str());
    const std::string path = dir.File(c.file);
    GDALAllRegister();
    GDALDatasetH ds =
        GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), 8, 8, 1, GDT_Byte, opts);
    CSLDestroy(opts);
    ASSERT_TRUE(ds);
    GDALSetGeoTransform(ds, const_cast<double*>(gt));
    ASSERT_EQ(GDALSetMetadata(ds, md, "RPC"), CE_None);
    GDALClose(ds);
    if (c.sidecar) {
      ASSERT_TRUE(std::filesystem::exists(dir.File(c.sidecar)));
    }
    files.push_back(path);
  }
  CSLDestroy(md);
  // A plain image with a hand-written _RPC.TXT beside it.
  const std::string plain = dir.File("scene.tif");
  WriteGeographicRaster(plain, 8, 8, gt, flat);
  {
    std::ofstream txt(dir.File("scene_RPC.TXT"));
    const char* head[10] = {"LINE_OFF",   "SAMP_OFF",   "LAT_OFF",   "LONG_OFF",   "HEIGHT_OFF",
                            "LINE_SCALE", "SAMP_SCALE", "LAT_SCALE", "LONG_SCALE", "HEIGHT_SCALE"};
    char buf[128];
    for (int i = 0; i < 10; ++i) {
      std::snprintf(buf, sizeof buf, "%s: %.17g\n", head[i], n[i]);
      txt << buf;
    }
    const char* polys[4] = {"LINE_NUM_COEFF", "LINE_DEN_COEFF", "SAMP_NUM_COEFF", "SAMP_DEN_COEFF"};
    for (int p = 0; p < 4; ++p)
      for (int k = 0; k < 20; ++k) {
        std::snprintf(buf, sizeof buf, "%s_%d: %.17g\n", polys[p], k + 1, n[10 + 20 * p + k]);
        txt << buf;
      }
  }
  files.push_back(plain);
  const std::vector<double> ground = GroundCube(n, 3);
  const long count = long(ground.size() / 3);
  ModelPtr reference = Model(n);
  std::vector<double> want(2 * count);
  ASSERT_TRUE(epho_RpcGroundToImage(reference.get(), count, ground.data(), want.data(), nullptr));
  for (const std::string& f : files) {
    SCOPED_TRACE(f);
    ErrSlot err;
    ModelPtr m(epho_RpcModelRead(kzdv::FromUtf8(f).c_str(), &err));
    ASSERT_TRUE(m) << err.Text();
    double read[EPHO_RPC_NUMBER_COUNT];
    ASSERT_TRUE(epho_RpcModelNumbersGet(m.get(), read, &err));
    for (int i = 0; i < EPHO_RPC_NUMBER_COUNT; ++i)
      EXPECT_NEAR(read[i], n[i], 1e-12 * std::max(1.0, std::fabs(n[i]))) << "number " << i;
    std::vector<double> got(2 * count);
    ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, ground.data(), got.data(), &err));
    EXPECT_LT(WorstPixelDifference(got, want), 1e-6);
  }
  // Without its sidecar the baseline TIFF has no RPCs: the .RPB was the source.
  std::filesystem::remove(dir.File("rpb.RPB"));
  std::filesystem::remove(dir.File("rpb.tif.aux.xml"));
  ErrSlot err;
  EXPECT_FALSE(epho_RpcModelRead(kzdv::FromUtf8(files[1]).c_str(), &err));
  EXPECT_TRUE(err.Mentions(L"no RPC metadata")) << err.Text();
}

// A 7 x 7 spread of ground points over the sample scene on the terrain
// `height(lon, lat)`, and their image positions through `m`.
template <typename F>
void SceneOnTerrain(const Epho_RpcModel* m, const Numbers& n, F height, std::vector<double>& ground,
                    std::vector<double>& image) {
  ground.clear();
  for (int i = -3; i <= 3; ++i)
    for (int j = -3; j <= 3; ++j) {
      const double lon = n[EPHO_RPC_LONG_OFF] + 0.02 * i + 0.001;
      const double lat = n[EPHO_RPC_LAT_OFF] + 0.015 * j - 0.002;
      ground.insert(ground.end(), {lon, lat, height(lon, lat)});
    }
  image.resize(ground.size() / 3 * 2);
  ASSERT_TRUE(
      epho_RpcGroundToImage(m, long(image.size() / 2), ground.data(), image.data(), nullptr));
}

// Points found on a surface against the ground points they were seen from:
// the same place to 1e-7 degrees (about 1 cm), the height within `dh` of
// `height_at(found lon, found lat)`.
template <typename F>
void ExpectLandsOn(const std::vector<double>& found, const std::vector<double>& ground, F height_at,
                   double dh) {
  for (size_t i = 0; i + 2 < found.size(); i += 3) {
    EXPECT_NEAR(found[i], ground[i], 1e-7) << i / 3;
    EXPECT_NEAR(found[i + 1], ground[i + 1], 1e-7) << i / 3;
    EXPECT_NEAR(found[i + 2], height_at(found[i], found[i + 1]), dh) << i / 3;
  }
}

TEST(RpcModel, InverseOnADemLandsOnTheSurface) {
  testutil::ScratchDir dir("rpc_dem");
  const Numbers n = SampleRpc();
  ModelPtr m = Model(n);
  // A tilted plane: bilinear interpolation reproduces it exactly, so the
  // true intersection is known without our interpolation.
  const double lon0 = n[EPHO_RPC_LONG_OFF], lat0 = n[EPHO_RPC_LAT_OFF];
  auto plane = [&](double lon, double lat) {
    return 700.0 + 2500.0 * (lon - lon0) - 4000.0 * (lat - lat0);
  };
  const double gt[6] = {lon0 - 0.1, 0.001, 0, lat0 + 0.08, 0, -0.001};
  const std::string dem = dir.File("plane_dem.tif");
  WriteGeographicRaster(dem, 200, 160, gt, plane);
  ErrSlot err;
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(dem).c_str(), 0, &err))
      << err.Text();
  std::vector<double> ground, image;
  SceneOnTerrain(m.get(), n, plane, ground, image);
  const long count = long(ground.size() / 3);
  std::vector<double> found(3 * count);
  ASSERT_TRUE(epho_RpcImageToGroundOnSurface(m.get(), count, image.data(), found.data(), &err))
      << err.Text();
  ExpectLandsOn(found, ground, plane, 2e-3);
  // Rough terrain (slopes up to 50 degrees): the point found projects back
  // into its pixel and lies on the terrain.
  auto ridge = [&](double lon, double lat) {
    return 800.0 + 300.0 * std::sin((lon - lon0) * 300.0) * std::cos((lat - lat0) * 200.0);
  };
  const std::string steep = dir.File("ridge_dem.tif");
  WriteGeographicRaster(steep, 200, 160, gt, ridge);
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(steep).c_str(), 0, &err));
  ASSERT_TRUE(epho_RpcImageToGroundOnSurface(m.get(), count, image.data(), found.data(), &err))
      << err.Text();
  std::vector<double> reprojected(2 * count);
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, found.data(), reprojected.data(), &err));
  EXPECT_LT(WorstPixelDifference(reprojected, image), 0.01);
  for (long i = 0; i < count; ++i)  // bilinear cells of 0.001 degree: a few metres
    EXPECT_NEAR(found[3 * i + 2], ridge(found[3 * i], found[3 * i + 1]), 5.0);
  // A constant height source intersects at that height.
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), nullptr, 321.0, &err));
  ASSERT_TRUE(epho_RpcImageToGroundOnSurface(m.get(), 1, image.data(), found.data(), &err));
  EXPECT_EQ(found[2], 321.0);
}

// PROJ operations as independent truth: UTM zone 32 on WGS 84, the EGM96
// undulation.
struct ProjOp {
  PJ_CONTEXT* ctx = proj_context_create();
  PJ* pj;
  explicit ProjOp(const char* def) : pj(proj_create(ctx, def)) { EXPECT_NE(pj, nullptr) << def; }
  ~ProjOp() {
    proj_destroy(pj);
    proj_context_destroy(ctx);
  }
  PJ_XYZ Fwd(double lon_deg, double lat_deg) const {
    const double r = M_PI / 180.0;
    return proj_trans(pj, PJ_FWD, proj_coord(lon_deg * r, lat_deg * r, 0, 0)).xyz;
  }
};

// The same terrain as a UTM DEM (with ellipsoidal or EGM96 heights) and as a
// geographic one: the inverse lands on the surface of each, and the ground
// points agree. The terrain is a plane in UTM, which bilinear interpolation
// on the UTM grid reproduces exactly.
TEST(RpcModel, InverseOnAProjectedDemLandsOnTheSurface) {
  testutil::ScratchDir dir("rpc_utm_dem");
  const Numbers n = SampleRpc();
  const double lon0 = n[EPHO_RPC_LONG_OFF], lat0 = n[EPHO_RPC_LAT_OFF];
  const ProjOp utm("+proj=utm +zone=32 +ellps=WGS84");
  const ProjOp geoid("+proj=vgridshift +grids=egm96_15.gtx +multiplier=1");
  const PJ_XYZ c = utm.Fwd(lon0, lat0);
  auto plane = [&](double e, double nn) { return 700.0 + 0.05 * (e - c.x) - 0.03 * (nn - c.y); };
  auto terrain = [&](double lon, double lat) {
    const PJ_XYZ p = utm.Fwd(lon, lat);
    return plane(p.x, p.y);
  };
  const double utm_gt[6] = {std::floor(c.x / 50) * 50 - 12000, 50, 0,
                            std::floor(c.y / 50) * 50 + 14000, 0,  -50};
  const std::string ellipsoidal = dir.File("utm_dem.tif"), egm96 = dir.File("utm_egm96.tif");
  WriteGeographicRaster(ellipsoidal, 480, 560, utm_gt, plane, nullptr, "EPSG:32632");
  // Orthometric heights: the geoid undulation at each cell centre taken off.
  const ProjOp inv_utm("+proj=utm +zone=32 +ellps=WGS84 +inv");
  WriteGeographicRaster(
      egm96, 480, 560, utm_gt,
      [&](double e, double nn) {
        const PJ_XY ll = proj_trans(inv_utm.pj, PJ_FWD, proj_coord(e, nn, 0, 0)).xy;
        const double r = 180.0 / M_PI;
        return plane(e, nn) - geoid.Fwd(ll.x * r, ll.y * r).z;
      },
      nullptr, "EPSG:32632+5773");
  const std::string geographic = dir.File("geo_dem.tif");
  const double geo_gt[6] = {lon0 - 0.1, 0.0005, 0, lat0 + 0.08, 0, -0.0005};
  WriteGeographicRaster(geographic, 400, 320, geo_gt, terrain);

  ModelPtr m = Model(n);
  std::vector<double> ground, image;
  SceneOnTerrain(m.get(), n, terrain, ground, image);
  const long count = long(ground.size() / 3);
  ErrSlot err;
  std::vector<double> on_geographic(3 * count);
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(geographic).c_str(), 0, &err));
  ASSERT_TRUE(
      epho_RpcImageToGroundOnSurface(m.get(), count, image.data(), on_geographic.data(), &err))
      << err.Text();
  ExpectLandsOn(on_geographic, ground, terrain, 5e-3);
  for (const std::string& dem : {ellipsoidal, egm96}) {
    SCOPED_TRACE(dem);
    ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(dem).c_str(), 0, &err))
        << err.Text();
    std::vector<double> found(3 * count);
    ASSERT_TRUE(epho_RpcImageToGroundOnSurface(m.get(), count, image.data(), found.data(), &err))
        << err.Text();
    ExpectLandsOn(found, ground, terrain, 5e-3);
    ExpectLandsOn(found, on_geographic, terrain, 5e-3);
  }
}

// Evaluations on several threads while another swaps the height source:
// each point lands on one of the two surfaces, never on a mixture.
TEST(RpcModel, HeightSourceSwapsWhileThreadsEvaluate) {
  ModelPtr m = Model();
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), nullptr, 300.0, nullptr));
  const double image[2] = {6000.5, 5000.5};
  std::atomic<bool> stop{false};
  std::atomic<long> bad{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < 2; ++t)
    workers.emplace_back([&] {
      while (!stop.load()) {
        double g[3];
        if (!epho_RpcImageToGroundOnSurface(m.get(), 1, image, g, nullptr) ||
            (g[2] != 300.0 && g[2] != 900.0))
          ++bad;
      }
    });
  for (int k = 0; k < 2000; ++k)
    ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), nullptr, k % 2 ? 300.0 : 900.0, nullptr));
  stop = true;
  for (std::thread& w : workers) w.join();
  EXPECT_EQ(bad.load(), 0);
}

TEST(RpcModel, BadInputIsReportedNeverCrashes) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* what;
    int index;
    double value;
    const wchar_t* message;
  };
  const Case cases[] = {
      {"NaN coefficient", EPHO_RPC_SAMP_NUM + 7, nan, L"not finite"},
      {"infinite offset", EPHO_RPC_LAT_OFF, HUGE_VAL, L"not finite"},
      {"zero scale", EPHO_RPC_HEIGHT_SCALE, 0.0, L"is zero"},
      {"zero denominator constant", EPHO_RPC_LINE_DEN, 0.0, L"denominator is zero"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Numbers n = SampleRpc();
    n[c.index] = c.value;
    ErrSlot err;
    EXPECT_FALSE(epho_RpcModelCreate(n.data(), &err));
    EXPECT_TRUE(err.Mentions(c.message)) << err.Text();
  }
  ErrSlot err;
  EXPECT_FALSE(epho_RpcModelCreate(nullptr, &err));
  EXPECT_TRUE(err.Mentions(L"numbers is null")) << err.Text();
  EXPECT_FALSE(epho_RpcModelRead(L"/nonexistent/scene.tif", &err));
  EXPECT_TRUE(err.Mentions(L"Cannot open the image")) << err.Text();

  testutil::ScratchDir dir("rpc_bad");
  const double gt[6] = {7.2, 0.001, 0, 45.3, 0, -0.001};
  const std::string plain = dir.File("plain.tif");
  WriteGeographicRaster(plain, 8, 8, gt, [](double, double) { return 1.0; });
  EXPECT_FALSE(epho_RpcModelRead(kzdv::FromUtf8(plain).c_str(), &err));
  EXPECT_TRUE(err.Mentions(L"no RPC metadata")) << err.Text();
  // An _RPC.TXT that stops half way: GDAL finds no complete set.
  const std::string cut = dir.File("cut.tif");
  WriteGeographicRaster(cut, 8, 8, gt, [](double, double) { return 1.0; });
  std::ofstream(dir.File("cut_RPC.TXT")) << "LINE_OFF: 10\nSAMP_OFF: 10\nLAT_OFF: 45\n";
  EXPECT_FALSE(epho_RpcModelRead(kzdv::FromUtf8(cut).c_str(), &err));

  // Points: a NaN ground point, an image point the inverse cannot reach, DEMs
  // with no coordinate system or heights of a geoid with no model here, a DEM
  // that does not cover the scene.
  ModelPtr m = Model();
  const double bad_ground[6] = {7.3, 45.2, 800, 7.3, nan, 800};
  double image[4];
  EXPECT_FALSE(epho_RpcGroundToImage(m.get(), 2, bad_ground, image, &err));
  EXPECT_TRUE(err.Mentions(L"Ground point 1")) << err.Text();
  EXPECT_FALSE(epho_RpcGroundToImage(m.get(), 0, bad_ground, image, &err));
  const double far_image[2] = {nan, 10};
  const double h = 800, ground_xy[2] = {0, 0};
  double out[3];
  EXPECT_FALSE(epho_RpcImageToGround(m.get(), 1, far_image, &h, out, &err));
  EXPECT_TRUE(err.Mentions(L"did not converge")) << err.Text();
  (void)ground_xy;
  const double utm_gt[6] = {350000, 30, 0, 5010000, 0, -30};
  const struct {
    const char* file;
    const char* crs;
    const wchar_t* message;
  } unusable[] = {{"nowhere.tif", "", L"has no coordinate system"},
                  {"navd88.tif", "EPSG:32632+5703",
                   L"\"North American Vertical Datum 1988\" has no geoid model"}};
  for (const auto& u : unusable) {
    SCOPED_TRACE(u.file);
    const std::string path = dir.File(u.file);
    WriteGeographicRaster(
        path, 16, 16, utm_gt, [](double, double) { return 1.0; }, nullptr, u.crs);
    EXPECT_FALSE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(path).c_str(), 0, &err));
    EXPECT_TRUE(err.Mentions(u.message)) << err.Text();
  }
  const std::string small = dir.File("corner.tif");
  const double corner_gt[6] = {7.35, 0.001, 0, 45.25, 0, -0.001};
  WriteGeographicRaster(small, 10, 10, corner_gt, [](double, double) { return 900.0; });
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(small).c_str(), 0, &err));
  const double centre[2] = {6000.5, 5000.5};
  EXPECT_FALSE(epho_RpcImageToGroundOnSurface(m.get(), 1, centre, out, &err));
  EXPECT_TRUE(err.Mentions(L"no DEM height")) << err.Text();
  // A DEM whose cells under the scene are all null.
  const std::string holes = dir.File("holes.tif");
  const double cover_gt[6] = {7.2, 0.002, 0, 45.3, 0, -0.002};
  WriteGeographicRaster(holes, 100, 100, cover_gt, [](double, double) { return -9999.0; });
  GDALDatasetH ds = GDALOpen(holes.c_str(), GA_Update);
  ASSERT_TRUE(ds);
  GDALSetRasterNoDataValue(GDALGetRasterBand(ds, 1), -9999.0);
  GDALClose(ds);
  ASSERT_TRUE(epho_RpcModelHeightSourceSet(m.get(), kzdv::FromUtf8(holes).c_str(), 0, &err))
      << err.Text();
  EXPECT_FALSE(epho_RpcImageToGroundOnSurface(m.get(), 1, centre, out, &err));
  EXPECT_TRUE(err.Mentions(L"no DEM height")) << err.Text();
}

// An application's routines: the sample model shifted by a known offset, so
// the calls that went through them can be told apart.
int g_plugged_calls = 0;
Emsc_Boolean ShiftedGroundToImage(const double* rpc, long count, const double* ground_xyz,
                                  double* image_xy, Eerr_ErrorReport** err) {
  ++g_plugged_calls;
  if (!epho_RpcBuiltinEntryPoints()->groundToImage(rpc, count, ground_xyz, image_xy, err))
    return EMSC_FALSE;
  for (long i = 0; i < count; ++i) image_xy[2 * i] += 100.0;
  return EMSC_TRUE;
}
Emsc_Boolean ShiftedImageToGround(const double* rpc, long count, const double* image_xy,
                                  const double* ground_z, double* ground_xy,
                                  Eerr_ErrorReport** err) {
  ++g_plugged_calls;
  std::vector<double> shifted(image_xy, image_xy + 2 * count);
  for (long i = 0; i < count; ++i) shifted[2 * i] -= 100.0;
  return epho_RpcBuiltinEntryPoints()->imageToGround(rpc, count, shifted.data(), ground_z,
                                                     ground_xy, err);
}

TEST(RpcModel, ApplicationRoutinesReplaceTheBuiltInOnes) {
  EXPECT_EQ(epho_RpcEntryPointsGet(), epho_RpcBuiltinEntryPoints());
  ModelPtr m = Model();
  const double g[3] = {7.31, 45.21, 900};
  double before[2], after[2], back[2];
  ErrSlot err;
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), 1, g, before, &err));
  static const Epho_RpcEntryPoints plugged = {ShiftedGroundToImage, ShiftedImageToGround};
  ASSERT_TRUE(epho_RpcEntryPointsSet(&plugged, &err)) << err.Text();
  EXPECT_EQ(epho_RpcEntryPointsGet(), &plugged);
  g_plugged_calls = 0;
  ExfrPtr t(epho_RpcModelToExfr(m.get(), &err));
  ASSERT_TRUE(exfr_GroundToImage(t.get(), 1, g, after, &err));
  ASSERT_TRUE(epho_RpcImageToGround(m.get(), 1, after, &g[2], back, &err));
  EXPECT_EQ(g_plugged_calls, 2);
  EXPECT_DOUBLE_EQ(after[0], before[0] + 100.0);
  EXPECT_DOUBLE_EQ(after[1], before[1]);
  EXPECT_NEAR(back[0], g[0], 1e-10);
  EXPECT_NEAR(back[1], g[1], 1e-10);
  // A table with a hole is refused and leaves the one in force.
  const Epho_RpcEntryPoints holed = {ShiftedGroundToImage, nullptr};
  EXPECT_FALSE(epho_RpcEntryPointsSet(&holed, &err));
  EXPECT_TRUE(err.Mentions(L"lacks a routine")) << err.Text();
  EXPECT_EQ(epho_RpcEntryPointsGet(), &plugged);
  ASSERT_TRUE(epho_RpcEntryPointsSet(nullptr, &err));
  EXPECT_EQ(epho_RpcEntryPointsGet(), epho_RpcBuiltinEntryPoints());
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), 1, g, after, &err));
  EXPECT_EQ(after[0], before[0]);
}

// Delegates to the built-in routines unchanged.
Emsc_Boolean SameGroundToImage(const double* rpc, long count, const double* ground_xyz,
                               double* image_xy, Eerr_ErrorReport** err) {
  return epho_RpcBuiltinEntryPoints()->groundToImage(rpc, count, ground_xyz, image_xy, err);
}

TEST(RpcModel, ThreadsEvaluateWhileTheTableIsReplaced) {
  static const Epho_RpcEntryPoints same = {SameGroundToImage,
                                           epho_RpcBuiltinEntryPoints()->imageToGround};
  const Numbers n = SampleRpc();
  ModelPtr m = Model(n);
  const std::vector<double> ground = GroundCube(n, 5);
  const long count = long(ground.size() / 3);
  std::vector<double> want(2 * count);
  ASSERT_TRUE(epho_RpcGroundToImage(m.get(), count, ground.data(), want.data(), nullptr));
  std::atomic<bool> stop{false};
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      std::vector<double> got(2 * count);
      for (int i = 0; i < 200 && !stop; ++i) {
        Eerr_ErrorReport* err = nullptr;
        if (!epho_RpcGroundToImage(m.get(), count, ground.data(), got.data(), &err) || got != want)
          ++mismatches;
        eerr_DeleteErrorReport(err);
      }
    });
  for (int i = 0; i < 200; ++i)
    EXPECT_TRUE(epho_RpcEntryPointsSet(i % 2 ? &same : nullptr, nullptr));
  stop = true;
  for (auto& t : threads) t.join();
  ASSERT_TRUE(epho_RpcEntryPointsSet(nullptr, nullptr));
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
