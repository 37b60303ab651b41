// What a layer knows about itself: null value, statistics, map information
// and projection, the file's raster data order, and file proxies.
#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>
#include <ogr_srs_api.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "platform/eerr/error_frame.h"
#include "platform/eimg/eimg_internal.h"
#include "platform/estr/utf8.h"

using kzdv::eimg::GdalQuiet;

namespace {

// Locks the layer's dataset and finds its band, or reports.
struct BandAccess {
  std::unique_lock<std::recursive_mutex> lock;
  GDALRasterBandH band = nullptr;
  BandAccess(Eimg_Layer* layer, kzdv::ErrorFrame& frame) {
    if (!layer || !layer->impl) {
      frame.Fail(__LINE__, L"Invalid layer");
      return;
    }
    lock = std::unique_lock<std::recursive_mutex>(kzdv::eimg::LayerDataset(layer)->mutex);
    band = kzdv::eimg::LayerBand(layer);
    if (!band) frame.Fail(__LINE__, L"Pyramid level of %s no longer exists", layer->name);
  }
};

// Our linear unit names for the units GDAL spells its own way.
std::wstring UnitName(const char* gdal_name, bool geographic) {
  if (geographic) return L"degrees";
  if (!gdal_name) return L"meters";
  std::string n = gdal_name;
  if (EQUAL(n.c_str(), "metre") || EQUAL(n.c_str(), "meter")) return L"meters";
  if (EQUAL(n.c_str(), "foot") || EQUAL(n.c_str(), "international foot")) return L"feet";
  if (STARTS_WITH_CI(n.c_str(), "US survey foot")) return L"us_survey_feet";
  if (EQUAL(n.c_str(), "kilometre")) return L"kilometers";
  return kzdv::FromUtf8(n);
}

}  // namespace

Emsc_Boolean eimg_LayerNullValueGet(Eimg_Layer* layer, double* value, Emsc_Boolean* defined,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerNullValueGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!value || !defined, frame, EMSC_FALSE, L"Invalid arguments");
  BandAccess access(layer, frame);
  if (!access.band) return EMSC_FALSE;
  int has = 0;
  double v = GDALGetRasterNoDataValue(access.band, &has);
  *defined = has ? EMSC_TRUE : EMSC_FALSE;
  *value = has ? v : 0.0;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerRasterNillValueSet(Eimg_Layer* layer, double value,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerRasterNillValueSet";
  kzdv::ErrorFrame frame(kFn, err);
  BandAccess access(layer, frame);
  if (!access.band) return EMSC_FALSE;
  GdalQuiet quiet;
  EERR_FAIL_IF(GDALSetRasterNoDataValue(access.band, value) != CE_None, frame, EMSC_FALSE,
               L"Cannot set the null value of %s: %s", layer->name, quiet.Message().c_str());
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_StatisticsRead(Eimg_Layer* layer, Eimg_Statistics* stats,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_StatisticsRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!stats, frame, EMSC_FALSE, L"Invalid arguments");
  EERR_FAIL_IF(layer && eimg_PixelTypeIsComplex(layer->pixelType), frame, EMSC_FALSE,
               L"Statistics of complex layer %s are not defined", layer->name);
  BandAccess access(layer, frame);
  if (!access.band) return EMSC_FALSE;
  GdalQuiet quiet;
  // Exact statistics; GDAL reads stored ones and otherwise computes and keeps
  // them (in the file, or beside it in .aux.xml), skipping the null value.
  double mn = 0, mx = 0, mean = 0, sd = 0;
  EERR_FAIL_IF(GDALGetRasterStatistics(access.band, FALSE, TRUE, &mn, &mx, &mean, &sd) != CE_None,
               frame, EMSC_FALSE, L"Cannot get statistics of %s: %s", layer->name,
               quiet.Message(L"no valid pixels").c_str());
  *stats = Eimg_Statistics{mn, mx, mean, sd};
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Eimg_MapInfo* eimg_LayerMapInformationRead(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eimg_LayerMapInformationRead";
  kzdv::ErrorFrame frame(kFn, err);
  BandAccess access(layer, frame);
  if (!access.band) return nullptr;
  GDALDatasetH ds = kzdv::eimg::LayerDataset(layer)->ds;
  double gt[6];
  EERR_FAIL_IF(GDALGetGeoTransform(ds, gt) != CE_None, frame, nullptr,
               L"Layer %s has no map information", layer->name);
  if (layer->pyramidLevel > 0) {
    // A level covers the same ground with larger pixels.
    double sx = double(GDALGetRasterXSize(ds)) / layer->width;
    double sy = double(GDALGetRasterYSize(ds)) / layer->height;
    gt[1] *= sx, gt[2] *= sy, gt[4] *= sx, gt[5] *= sy;
  }
  auto* info = static_cast<Eimg_MapInfo*>(emsc_HeapCalloc(1, sizeof(Eimg_MapInfo)));
  EERR_FAIL_IF(!info, frame, nullptr, L"Out of memory");
  for (int i = 0; i < 6; ++i) info->geoTransform[i] = gt[i];
  info->pixelSizeX = gt[1];
  info->pixelSizeY = -gt[5];
  info->upperLeftCenterX = gt[0] + 0.5 * gt[1] + 0.5 * gt[2];
  info->upperLeftCenterY = gt[3] + 0.5 * gt[4] + 0.5 * gt[5];
  std::wstring units = L"meters";
  OGRSpatialReferenceH srs = GDALGetSpatialRef(ds);
  if (srs) {
    char* name = nullptr;
    OSRGetLinearUnits(srs, &name);
    units = UnitName(name, OSRIsGeographic(srs) != 0);
  }
  info->units = etxt_Text_strdup(units.c_str());
  if (!info->units) {
    eimg_MapInfoFree(info);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  return info;
}
EERR_BOUNDARY(err, nullptr)

void eimg_MapInfoFree(Eimg_MapInfo* info) KZDV_NOEXCEPT {
  if (!info) return;
  emsc_HeapFree(info->units);
  emsc_HeapFree(info);
}

Etxt_Char* eimg_LayerMapProjectionRead(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eimg_LayerMapProjectionRead";
  kzdv::ErrorFrame frame(kFn, err);
  BandAccess access(layer, frame);
  if (!access.band) return nullptr;
  const char* wkt = GDALGetProjectionRef(kzdv::eimg::LayerDataset(layer)->ds);
  EERR_FAIL_IF(!wkt || !*wkt, frame, nullptr, L"Layer %s has no map projection", layer->name);
  Etxt_Char* out = etxt_FromUtf8(wkt);
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* eimg_LayerUnitTypeGet(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerUnitTypeGet";
  kzdv::ErrorFrame frame(kFn, err);
  BandAccess access(layer, frame);
  if (!access.band) return nullptr;
  const char* unit = GDALGetRasterUnitType(access.band);
  std::string u = unit ? unit : "";
  // GDAL's short spellings of the common height units.
  if (EQUAL(u.c_str(), "m") || EQUAL(u.c_str(), "metre") || EQUAL(u.c_str(), "meter"))
    u = "meters";
  else if (EQUAL(u.c_str(), "ft") || EQUAL(u.c_str(), "foot"))
    u = "feet";
  Etxt_Char* out = etxt_FromUtf8(u.c_str());
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* eimg_FileRasterDataOrderGet(const Etxt_Char* file_name, Eint_InitToolkitData* init,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_FileRasterDataOrderGet";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  kzdv::eimg::LayerNameParts parts;
  EERR_FAIL_IF(!file_name || !kzdv::eimg::ParseLayerName(file_name, &parts), frame, nullptr,
               L"Invalid file name");
  std::wstring error;
  auto ds = kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), EIMG_ACCESS_READ, &error);
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open %s: %s", parts.file.c_str(), error.c_str());
  const wchar_t* order = L"BSQ";
  if (GDALGetRasterCount(ds->ds) > 1) {
    const char* il = GDALGetMetadataItem(ds->ds, "INTERLEAVE", "IMAGE_STRUCTURE");
    if (il && EQUAL(il, "PIXEL"))
      order = L"BIP";
    else if (il && EQUAL(il, "LINE"))
      order = L"BIL";
  }
  Etxt_Char* out = etxt_Text_strdup(order);
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eimg_FileProxyWithName(const Etxt_Char* file_name, const Etxt_Char* proxy_name,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_FileProxyWithName";
  kzdv::ErrorFrame frame(kFn, err);
  kzdv::eimg::LayerNameParts parts;
  EERR_FAIL_IF(
      !file_name || !proxy_name || !*proxy_name || !kzdv::eimg::ParseLayerName(file_name, &parts),
      frame, EMSC_FALSE, L"Invalid file or proxy name");
  std::wstring error;
  auto src = kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), EIMG_ACCESS_READ, &error);
  EERR_FAIL_IF(!src, frame, EMSC_FALSE, L"Cannot open %s: %s", parts.file.c_str(), error.c_str());
  GDALDriverH vrt = GDALGetDriverByName("VRT");
  EERR_FAIL_IF(!vrt, frame, EMSC_FALSE, L"The VRT driver is not available");
  // Written beside its final name, then renamed over it: a reader that opens
  // the proxy meanwhile sees the old or the new one, never a partial file.
  static std::atomic<unsigned> counter{0};
  std::string final_name = kzdv::ToUtf8(proxy_name);
  std::string tmp =
      final_name + ".tmp" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1));
  GdalQuiet quiet;
  GDALDatasetH out = GDALCreateCopy(vrt, tmp.c_str(), src->ds, FALSE, nullptr, nullptr, nullptr);
  if (!out) {
    std::remove(tmp.c_str());
    EERR_FAIL(frame, EMSC_FALSE, L"Cannot write proxy %s: %s", proxy_name, quiet.Message().c_str());
  }
  GDALClose(out);
  bool ok = CPLGetLastErrorType() < CE_Failure;
  if (!ok || std::rename(tmp.c_str(), final_name.c_str()) != 0) {
    std::remove(tmp.c_str());
    EERR_FAIL(frame, EMSC_FALSE, L"Cannot write proxy %s", proxy_name);
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_SSLayerNamesSet(Eimg_Layer* layer, const Etxt_Char* algorithm,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_SSLayerNamesSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!algorithm, frame, EMSC_FALSE, L"Invalid algorithm name");
  BandAccess access(layer, frame);
  if (!access.band) return EMSC_FALSE;
  EERR_FAIL_IF(layer->readOnly, frame, EMSC_FALSE, L"Image layer %s is read only!", layer->name);
  GdalQuiet quiet;
  // Recorded on the layer itself, also when asked through one of its levels.
  GDALRasterBandH base = GDALGetRasterBand(kzdv::eimg::LayerDataset(layer)->ds, layer->impl->band);
  EERR_FAIL_IF(GDALSetMetadataItem(base, "PYRAMID_ALGORITHM", kzdv::ToUtf8(algorithm).c_str(),
                                   nullptr) != CE_None,
               frame, EMSC_FALSE, L"Cannot record the pyramid algorithm of %s: %s", layer->name,
               quiet.Message().c_str());
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Etxt_Char* eimg_SSLayerNamesGet(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_SSLayerNamesGet";
  kzdv::ErrorFrame frame(kFn, err);
  BandAccess access(layer, frame);
  if (!access.band) return nullptr;
  GDALRasterBandH base = GDALGetRasterBand(kzdv::eimg::LayerDataset(layer)->ds, layer->impl->band);
  const char* v = GDALGetMetadataItem(base, "PYRAMID_ALGORITHM", nullptr);
  Etxt_Char* out = etxt_FromUtf8(v ? v : "");
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)
