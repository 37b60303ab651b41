// The GDAL side of eimg: opening shared datasets, pixel-type mapping, layer
// names and the construction of layer handles.
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>
#include <sys/stat.h>

#include <cstring>
#include <cwctype>
#include <mutex>
#include <new>

#include "etxt.h"
#include "platform/eimg/eimg_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv::eimg {

SharedDataset::~SharedDataset() {
  if (ds) {
    GdalQuiet quiet;
    GDALClose(ds);
  }
}

void EnsureGdalRegistered() {
  static std::once_flag once;
  std::call_once(once, [] { GDALAllRegister(); });
}

GdalQuiet::GdalQuiet() {
  CPLPushErrorHandler(CPLQuietErrorHandler);
  CPLErrorReset();
}

GdalQuiet::~GdalQuiet() { CPLPopErrorHandler(); }

std::wstring GdalQuiet::Message(const wchar_t* fallback) const {
  const char* m = CPLGetLastErrorMsg();
  if (m && *m) return kzdv::FromUtf8(m);
  return fallback;
}

DatasetPtr OpenDataset(const std::string& path, int access, std::wstring* error) {
  EnsureGdalRegistered();
  GdalQuiet quiet;
  bool want_update = access == EIMG_ACCESS_UPDATE;
  if (want_update) {
    // A file whose owner removed every write bit is read-only to us, even
    // when a privileged user could still write it.
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && (st.st_mode & 0222) == 0) want_update = false;
  }
  GDALDatasetH ds = nullptr;
  bool update = false;
  if (want_update) {
    ds = GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE, nullptr, nullptr, nullptr);
    update = ds != nullptr;
  }
  if (!ds) {
    CPLErrorReset();
    ds = GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR,
                    nullptr, nullptr, nullptr);
  }
  if (!ds) {
    *error = quiet.Message(L"cannot open the raster file");
    return nullptr;
  }
  auto shared = std::make_shared<SharedDataset>();
  shared->ds = ds;
  shared->update = update;
  shared->levels_only = access == EIMG_ACCESS_LEVELS;
  shared->path = path;
  return shared;
}

GDALDataType ToGdalType(Egda_PixelType type) {
  switch (type) {
    case EGDA_TYPE_U1:
    case EGDA_TYPE_U2:
    case EGDA_TYPE_U4:
    case EGDA_TYPE_U8:
    case EGDA_TYPE_S8:
      return GDT_Byte;
    case EGDA_TYPE_U16:
      return GDT_UInt16;
    case EGDA_TYPE_S16:
      return GDT_Int16;
    case EGDA_TYPE_U32:
      return GDT_UInt32;
    case EGDA_TYPE_S32:
      return GDT_Int32;
    case EGDA_TYPE_F32:
      return GDT_Float32;
    case EGDA_TYPE_F64:
      return GDT_Float64;
    case EGDA_TYPE_C64:
      return GDT_CFloat32;
    case EGDA_TYPE_C128:
      return GDT_CFloat64;
    default:
      return GDT_Unknown;
  }
}

Egda_PixelType FromGdalBand(GDALRasterBandH band) {
  switch (GDALGetRasterDataType(band)) {
    case GDT_Byte: {
      const char* nbits = GDALGetMetadataItem(band, "NBITS", "IMAGE_STRUCTURE");
      if (nbits) {
        int n = std::atoi(nbits);
        if (n == 1) return EGDA_TYPE_U1;
        if (n == 2) return EGDA_TYPE_U2;
        if (n > 2 && n <= 4) return EGDA_TYPE_U4;
      }
      const char* pt = GDALGetMetadataItem(band, "PIXELTYPE", "IMAGE_STRUCTURE");
      if (pt && EQUAL(pt, "SIGNEDBYTE")) return EGDA_TYPE_S8;
      return EGDA_TYPE_U8;
    }
    case GDT_UInt16:
      return EGDA_TYPE_U16;
    case GDT_Int16:
      return EGDA_TYPE_S16;
    case GDT_UInt32:
      return EGDA_TYPE_U32;
    case GDT_Int32:
      return EGDA_TYPE_S32;
    case GDT_Float32:
      return EGDA_TYPE_F32;
    case GDT_Float64:
      return EGDA_TYPE_F64;
    case GDT_CInt16:
    case GDT_CFloat32:
      return EGDA_TYPE_C64;
    case GDT_CInt32:
    case GDT_CFloat64:
      return EGDA_TYPE_C128;
    default:
      return EGDA_TYPE_INVALID;
  }
}

namespace {

const wchar_t kLevelTag[] = L":ephoPyramid_";

// Strips a trailing ":ephoPyramid_K" from `s`; false when the K is bad.
bool StripLevel(std::wstring* s, long* level) {
  size_t pos = s->rfind(kLevelTag);
  if (pos == std::wstring::npos) return true;
  std::wstring digits = s->substr(pos + wcslen(kLevelTag));
  if (digits.empty() || digits.size() > 6) return false;
  for (wchar_t c : digits)
    if (!std::iswdigit(c)) return false;
  *level = std::stol(digits);
  s->erase(pos);
  return *level >= 1;
}

}  // namespace

bool ParseLayerName(const std::wstring& name, LayerNameParts* parts) {
  *parts = LayerNameParts{};
  std::wstring s = name;
  // The level may follow the node, "f(:Layer_1):ephoPyramid_2", or sit in it.
  if (!s.empty() && s.back() != L')' && !StripLevel(&s, &parts->level)) return false;
  size_t open = s.rfind(L"(:");
  if (open != std::wstring::npos && !s.empty() && s.back() == L')') {
    parts->file = s.substr(0, open);
    parts->node = s.substr(open + 2, s.size() - open - 3);
    if (parts->level == 0 && !StripLevel(&parts->node, &parts->level)) return false;
  } else {
    parts->file = s;
  }
  return !parts->file.empty();
}

Eimg_Layer* MakeLayer(const DatasetPtr& dataset, int band, long level, const std::wstring& name,
                      std::wstring* error) {
  std::lock_guard<std::recursive_mutex> lock(dataset->mutex);
  if (band < 1 || band > GDALGetRasterCount(dataset->ds)) {
    *error = kzdv::Format(L"the file has no layer %d", band);
    return nullptr;
  }
  GDALRasterBandH h = GDALGetRasterBand(dataset->ds, band);
  if (level > 0) {
    if (level > GDALGetOverviewCount(h)) {
      *error = kzdv::Format(L"the layer has no pyramid level %ld", level);
      return nullptr;
    }
    h = GDALGetOverview(h, static_cast<int>(level - 1));
    if (!h) {
      *error = kzdv::Format(L"pyramid level %ld cannot be read", level);
      return nullptr;
    }
  }
  auto* layer = static_cast<Eimg_Layer*>(emsc_HeapCalloc(1, sizeof(Eimg_Layer)));
  auto* impl = new (std::nothrow) Eimg_LayerImpl;
  Etxt_Char* copy = etxt_Text_strdup(name.c_str());
  if (!layer || !impl || !copy) {
    emsc_HeapFree(layer);
    delete impl;
    emsc_HeapFree(copy);
    *error = L"Out of memory";
    return nullptr;
  }
  impl->dataset = dataset;
  impl->band = band;
  layer->impl = impl;
  layer->name = copy;
  layer->width = GDALGetRasterBandXSize(h);
  layer->height = GDALGetRasterBandYSize(h);
  layer->pixelType = FromGdalBand(GDALGetRasterBand(dataset->ds, band));
  int bw = 0, bh = 0;
  GDALGetBlockSize(h, &bw, &bh);
  layer->blockWidth = bw;
  layer->blockHeight = bh;
  layer->readOnly = dataset->update || dataset->levels_only ? EMSC_FALSE : EMSC_TRUE;
  layer->pyramidLevel = level;
  return layer;
}

SharedDataset* LayerDataset(const Eimg_Layer* layer) { return layer->impl->dataset.get(); }
const DatasetPtr& LayerDatasetPtr(const Eimg_Layer* layer) { return layer->impl->dataset; }

GDALRasterBandH LayerBand(const Eimg_Layer* layer) {
  GDALDatasetH ds = layer->impl->dataset->ds;
  GDALRasterBandH h = GDALGetRasterBand(ds, layer->impl->band);
  if (!h || layer->pyramidLevel == 0) return h;
  if (layer->pyramidLevel > GDALGetOverviewCount(h)) return nullptr;
  h = GDALGetOverview(h, static_cast<int>(layer->pyramidLevel - 1));
  // A level that was rebuilt with another size is not the level we opened.
  if (h &&
      (GDALGetRasterBandXSize(h) != layer->width || GDALGetRasterBandYSize(h) != layer->height))
    return nullptr;
  return h;
}

}  // namespace kzdv::eimg
