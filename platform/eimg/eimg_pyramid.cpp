// Pyramid levels as GDAL overviews. Levels are made empty (GDAL's "NONE"
// resampling) and filled by the caller through level handles, so that the
// library's own filter, not GDAL's, computes them, while GDAL keeps the
// bookkeeping that every GDAL-based tool reads.
#include <gdal.h>

#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/eimg/eimg_internal.h"
#include "platform/estr/utf8.h"

using kzdv::eimg::GdalQuiet;

namespace {

bool CheckBaseLayer(Eimg_Layer* layer, kzdv::ErrorFrame& frame, bool for_change) {
  if (!layer || !layer->impl) {
    frame.Fail(__LINE__, L"Invalid layer");
    return false;
  }
  if (layer->pyramidLevel != 0) {
    frame.Fail(__LINE__, L"%s is a pyramid level, not a layer", layer->name);
    return false;
  }
  if (for_change && layer->readOnly) {
    frame.Fail(__LINE__, L"Image layer %s is read only!", layer->name);
    return false;
  }
  return true;
}

bool BuildLevels(Eimg_Layer* layer, long count, kzdv::ErrorFrame& frame) {
  kzdv::eimg::SharedDataset* ds = kzdv::eimg::LayerDataset(layer);
  std::lock_guard<std::recursive_mutex> lock(ds->mutex);
  std::vector<int> bands(GDALGetRasterCount(ds->ds));
  for (size_t i = 0; i < bands.size(); ++i) bands[i] = static_cast<int>(i + 1);
  std::vector<int> factors;
  for (long k = 1; k <= count; ++k) factors.push_back(1 << k);
  GdalQuiet quiet;
  // Flush first: GDAL rebuilds overview directories of the open file.
  GDALFlushCache(ds->ds);
  const bool had_levels = !bands.empty() && GDALGetOverviewCount(GDALGetRasterBand(ds->ds, 1)) > 0;
  CPLErr e = GDALBuildOverviews(ds->ds, "NONE", static_cast<int>(factors.size()),
                                factors.empty() ? nullptr : factors.data(),
                                static_cast<int>(bands.size()), bands.data(), nullptr, nullptr);
  if (e != CE_None) {
    frame.Fail(__LINE__, L"%s pyramid levels of %s failed: %s", count ? L"Creating" : L"Removing",
               layer->name, quiet.Message().c_str());
    return false;
  }
  if (count == 0 && had_levels) {
    // Some formats (HFA) keep records of removed levels in the open dataset,
    // and levels made next would be added to them: the file is opened anew.
    // Handles of the dataset find their bands again by number.
    GDALClose(ds->ds);
    ds->ds = GDALOpenEx(ds->path.c_str(),
                        GDAL_OF_RASTER | (ds->update ? GDAL_OF_UPDATE : GDAL_OF_READONLY), nullptr,
                        nullptr, nullptr);
    if (!ds->ds) {
      frame.Fail(__LINE__, L"Cannot open %s again after removing its pyramid levels: %s",
                 layer->name, quiet.Message().c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

long eimg_LayerPyramidLevelCount(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerPyramidLevelCount";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckBaseLayer(layer, frame, false)) return 0;
  kzdv::eimg::SharedDataset* ds = kzdv::eimg::LayerDataset(layer);
  std::lock_guard<std::recursive_mutex> lock(ds->mutex);
  GDALRasterBandH band = kzdv::eimg::LayerBand(layer);
  return band ? GDALGetOverviewCount(band) : 0;
}
EERR_BOUNDARY(err, 0)

Emsc_Boolean eimg_LayerPyramidLevelsRemove(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eimg_LayerPyramidLevelsRemove";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckBaseLayer(layer, frame, true)) return EMSC_FALSE;
  return BuildLevels(layer, 0, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerPyramidLevelsCreate(Eimg_Layer* layer, long count,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerPyramidLevelsCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(count < 1 || count > 30, frame, EMSC_FALSE, L"Invalid pyramid level count %ld",
               count);
  if (!CheckBaseLayer(layer, frame, true)) return EMSC_FALSE;
  return BuildLevels(layer, count, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Eimg_Layer* eimg_LayerPyramidLevelOpen(Eimg_Layer* layer, long level,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerPyramidLevelOpen";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckBaseLayer(layer, frame, false)) return nullptr;
  std::wstring name = kzdv::Format(L"%s:ephoPyramid_%ld", layer->name, level);
  std::wstring error;
  Eimg_Layer* out = kzdv::eimg::MakeLayer(kzdv::eimg::LayerDatasetPtr(layer), layer->impl->band,
                                          level, name, &error);
  EERR_FAIL_IF(!out, frame, nullptr, L"Cannot open %s: %s", name.c_str(), error.c_str());
  return out;
}
EERR_BOUNDARY(err, nullptr)
