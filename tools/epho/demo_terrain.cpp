// Demo stages "terrain" and "pyramids": a synthetic DEM and ortho texture in
// UTM zone 32N (demo_setup.h), the binomial pyramid levels of the ortho, and
// heights read back through the DEM cache.
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <string>
#include <vector>

#include "demo_setup.h"
#include "eimg.h"
#include "epho/dtm.h"
#include "epho/pyramid.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

using namespace epho_tool::demo;

bool WriteGeoTiff(const std::string& path, int size, int bands, GDALDataType type, double cell,
                  const std::vector<std::vector<double>>& data, const char* unit) {
  GDALAllRegister();
  const char* options[] = {"INTERLEAVE=PIXEL", "TILED=YES", nullptr};
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), size, size, bands, type,
                               const_cast<char**>(options));
  if (!ds) return false;
  double gt[6] = {kOriginE, cell, 0.0, kOriginN, 0.0, -cell};
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  bool ok = true;
  for (int b = 0; b < bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(ds, b + 1);
    if (unit) GDALSetRasterUnitType(band, unit);
    std::vector<double> copy = data[b];
    ok = ok && GDALRasterIO(band, GF_Write, 0, 0, size, size, copy.data(), size, size, GDT_Float64,
                            0, 0) == CE_None;
  }
  GDALClose(ds);
  return ok;
}

bool DemoTerrain(epho_tool::DemoContext& demo) {
  std::vector<std::vector<double>> dem(1, std::vector<double>(kDemSize * kDemSize));
  for (int r = 0; r < kDemSize; ++r)
    for (int c = 0; c < kDemSize; ++c)
      dem[0][r * kDemSize + c] =
          TerrainHeight(kOriginE + (c + 0.5) * kDemCell, kOriginN - (r + 0.5) * kDemCell);
  // Ortho texture: fields and a road pattern shaded by the terrain slope.
  std::vector<std::vector<double>> rgb(3, std::vector<double>(kOrthoSize * kOrthoSize));
  unsigned seed = 12345;
  for (int r = 0; r < kOrthoSize; ++r)
    for (int c = 0; c < kOrthoSize; ++c) {
      double e = kOriginE + (c + 0.5) * kOrthoCell, n = kOriginN - (r + 0.5) * kOrthoCell;
      double slope = TerrainHeight(e + 5, n) - TerrainHeight(e - 5, n);
      seed = seed * 1103515245u + 12345u;
      double noise = double((seed >> 16) & 31) - 16.0;
      int field = ((c / 192) + (r / 160)) % 3;
      bool road = (c + r) % 514 < 8;
      double base = road ? 200.0 : 70.0 + 40.0 * field;
      double shade = std::max(0.0, std::min(255.0, base + 6.0 * slope + noise));
      rgb[0][r * kOrthoSize + c] = shade * (field == 2 ? 1.1 : 0.8);
      rgb[1][r * kOrthoSize + c] = shade;
      rgb[2][r * kOrthoSize + c] = shade * 0.7;
      for (auto& ch : rgb) ch[r * kOrthoSize + c] = std::min(255.0, ch[r * kOrthoSize + c]);
    }
  std::string dem_path = demo.workdir + "/terrain_dem.tif";
  std::string ortho_path = demo.workdir + "/terrain_ortho.tif";
  if (!WriteGeoTiff(dem_path, kDemSize, 1, GDT_Float32, kDemCell, dem, "m") ||
      !WriteGeoTiff(ortho_path, kOrthoSize, 3, GDT_Byte, kOrthoCell, rgb, nullptr)) {
    std::printf("  cannot write the terrain rasters in %s\n", demo.workdir.c_str());
    return false;
  }
  demo.files["dem"] = dem_path;
  demo.files["ortho"] = ortho_path;
  demo.values["dem.cell_m"] = kDemCell;
  demo.Summary("terrain: DEM %dx%d cells of %.0f m, ortho %dx%d RGB at %.2f m (UTM 32N)", kDemSize,
               kDemSize, kDemCell, kOrthoSize, kOrthoSize, kOrthoCell);
  return true;
}

bool DemoPyramids(epho_tool::DemoContext& demo) {
  auto ortho = demo.files.find("ortho");
  auto dem = demo.files.find("dem");
  if (ortho == demo.files.end() || dem == demo.files.end()) {
    std::printf("  the terrain stage made no rasters\n");
    return false;
  }
  std::wstring ortho_name = kzdv::FromUtf8(ortho->second);
  Emet_MeterInfo* meter = demo.verbose ? emet_MeterInfoCreate(L"ortho", nullptr) : nullptr;
  Eerr_ErrorReport* err = nullptr;
  epho_ComputePyramidLayers3x3(ortho_name.c_str(), meter, &err);
  emet_MeterInfoDelete(meter);
  if (err) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
    return false;
  }
  if (!epho_PyramidLayersCheck(ortho_name.c_str(), nullptr)) {
    std::printf("  the ortho's pyramid levels do not check out\n");
    return false;
  }
  long levels = epho_PyramidLevelCount(kOrthoSize, kOrthoSize);

  // Heights at a few ground points through the DEM cache, against the terrain.
  boost::shared_ptr<EphoLib::DTMCache> entry;
  Eimg_Layer* layer = EphoLib::CachedDEMLayerGet(kzdv::FromUtf8(dem->second).c_str(), entry, &err);
  if (!layer) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
    return false;
  }
  Eimg_PixelRect* one = eimg_PixelRectCreate(1, 1, EGDA_TYPE_F32, nullptr);
  Efga_Matrix* point = efga_MatrixCreate(2, 1, nullptr);
  double worst = 0;
  int points = 0;
  bool ok = one && point;
  for (int i = 0; ok && i < 25; ++i) {
    // Cell centres, where the DEM holds the terrain exactly (to float precision).
    double e = kOriginE + (10 * i + 3.5) * kDemCell, n = kOriginN - (9 * i + 5.5) * kDemCell;
    EFGA_MATRIX_AT(point, 0, 0) = e, EFGA_MATRIX_AT(point, 1, 0) = n;
    ok = exfr_Transform(entry->GetMapToFileXForm(), point, point, nullptr) &&
         eimg_LayerRasterPixelRectGet(layer, long(EFGA_MATRIX_AT(point, 0, 0)),
                                      long(EFGA_MATRIX_AT(point, 1, 0)), one, nullptr);
    if (ok) {
      worst =
          std::max(worst, std::fabs(*reinterpret_cast<float*>(one->data) - TerrainHeight(e, n)));
      ++points;
    }
  }
  eimg_PixelRectDelete(one);
  efga_MatrixFree(point);
  eimg_LayerClose(layer, nullptr);
  if (!ok || worst > 1e-3) {
    std::printf("  DEM cache heights disagree with the terrain (%.4f m)\n", worst);
    return false;
  }
  demo.values["pyramids.levels"] = double(levels);
  demo.Summary("pyramids: ortho has %ld binomial levels (%dx%d down to %ldx%ld), checked", levels,
               kOrthoSize, kOrthoSize, long(kOrthoSize >> levels), long(kOrthoSize >> levels));
  demo.Summary("DEM cache: %d heights read through %s, max |dz| %.1e m", points,
               kzdv::ToUtf8(entry->GetName()).c_str(), worst);
  return true;
}

}  // namespace

EPHO_DEMO_STAGE(20, "terrain", DemoTerrain);
EPHO_DEMO_STAGE(30, "pyramids", DemoPyramids);
