// One open DEM with everything needed to address its cells.
#include <cmath>
#include <cwctype>
#include <memory>

#include "efio.h"
#include "eint.h"
#include "epho/dtm.h"
#include "epho/dtm/dtm_files_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace EphoLib {

namespace {

const char kSource[] = "DTMCache";

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, Deleter<T, Free>>;

void FreeMapInfo(Eprj_MapInfo* info) {
  if (!info) return;
  emsc_HeapFree(info->proName);
  emsc_HeapFree(info->units);
  emsc_HeapFree(info);
}
void CloseLayer(Eimg_Layer* layer) { eimg_LayerClose(layer, nullptr); }

// Band number of "file(:Layer_N)"; 1 for anything else.
long BandOf(const std::wstring& layer_name) {
  size_t k = layer_name.rfind(L"(:Layer_");
  if (k == std::wstring::npos) return 1;
  long band = 0;
  for (size_t i = k + 8; i < layer_name.size() && std::iswdigit(layer_name[i]); ++i)
    band = band * 10 + (layer_name[i] - L'0');
  return band > 0 ? band : 1;
}

}  // namespace

DTMCache::DTMCache(const wchar_t* name) {
  // A half-built entry is released before the exception leaves.
  try {
    Open(name);
  } catch (...) {
    Release();
    throw;
  }
}

DTMCache::~DTMCache() {
  Release();
  epho::dtm::ProxyRelease(m_name);
}

void DTMCache::Release() {
  eimg_LayerClose(m_layer, nullptr);
  m_layer = nullptr;
  exfr_XFormFree(m_mapToFile);
  m_mapToFile = nullptr;
  exfr_XFormFree(m_fileToMap);
  m_fileToMap = nullptr;
  FreeMapInfo(m_mapInfo);
  m_mapInfo = nullptr;
  eprj_ProParametersFree(m_projection);
  m_projection = nullptr;
  eprj_ElevationInfoFree(m_elevationInfo);
  m_elevationInfo = nullptr;
  eimg_PrivateStorageDelete(m_storage);
  m_storage = nullptr;
}

DTMCache& DTMCache::operator=(const DTMCache& other) {
  if (this == &other) return *this;
  // A copy describes the same DEM: it opens it anew under the same name, so
  // both entries own their records and layer.
  Release();
  epho::dtm::ProxyRelease(m_name);
  m_name.clear();
  if (!other.m_name.empty()) Open(other.m_name.c_str());
  return *this;
}

const Eprj_MapInfo& DTMCache::GetMapInfo() const {
  EerrException ctx(kSource, "DTMCache::GetMapInfo");
  if (!m_mapInfo) ctx.Throw(__LINE__, L"Layer not opened");
  return *m_mapInfo;
}

int DTMCache::GetLayerWidth() const {
  EerrException ctx(kSource, "DTMCache::GetLayerWidth");
  if (!m_layer) ctx.Throw(__LINE__, L"Layer not opened");
  return static_cast<int>(m_layer->width);
}

int DTMCache::GetLayerHeight() const {
  EerrException ctx(kSource, "DTMCache::GetLayerHeight");
  if (!m_layer) ctx.Throw(__LINE__, L"Layer not opened");
  return static_cast<int>(m_layer->height);
}

void DTMCache::Open(const wchar_t* name) {
  EerrException ctx(kSource, "DTMCache::Open");
  if (!name || !*name) ctx.Throw(__LINE__, L"Invalid DEM name");
  if (!m_name.empty() && epho::dtm::SameDem(name, m_name)) return;  // already open under this name

  Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
  ctx.Check(__LINE__);
  // A file name stands for its first layer.
  EtxtTextU layer_name = name;
  if (layer_name.find(L"(:") == std::wstring::npos) {
    Owned<Estr_StringList, estr_StringListDelete> names(eimg_LayerGetNames(name, init, ctx.Err()));
    ctx.Check(__LINE__);
    layer_name = names->strings[0];
  }
  Owned<Eimg_PrivateStorage, eimg_PrivateStorageDelete> storage(
      eimg_LayerPrivateStorageCreate(layer_name.c_str(), EIMG_ACCESS_READ, ctx.Err()));
  ctx.Check(__LINE__);
  Owned<Eimg_Layer, CloseLayer> layer(
      eimg_LayerOpen(layer_name.c_str(), init, storage.get(), EIMG_ACCESS_READ, ctx.Err()));
  ctx.Check(__LINE__);

  // Map information and the two transforms between map and file pixels.
  Owned<Eimg_MapInfo, eimg_MapInfoFree> info(eimg_LayerMapInformationRead(layer.get(), ctx.Err()));
  ctx.Check(__LINE__);
  const double* g = info->geoTransform;
  // GDAL's geotransform is file -> map with the coefficients in another order.
  const double file_to_map[6] = {g[1], g[2], g[0], g[4], g[5], g[3]};
  Owned<Exfr_XForm, exfr_XFormFree> f2m(exfr_AffineXFormCreate(file_to_map, ctx.Err()));
  ctx.Check(__LINE__);
  Owned<Exfr_XForm, exfr_XFormFree> m2f(exfr_XFormInvert(f2m.get(), ctx.Err()));
  ctx.Check(__LINE__);

  // Projection: a DEM in a local frame has none, and a projection without an
  // internal number keeps only its WKT.
  EtxtTextU wkt_text;
  Owned<Eprj_ProParameters, eprj_ProParametersFree> projection;
  kzdv::HeapPtr<Etxt_Char> wkt(eimg_LayerMapProjectionRead(layer.get(), ctx.Err()));
  if (ctx.HasReport()) {
    ctx.Clear();
  } else {
    wkt_text = wkt.get();
    projection.reset(eprj_ProParametersFromWkt(kzdv::ToUtf8(wkt_text).c_str(), ctx.Err()));
    if (ctx.HasReport()) ctx.Clear();
  }
  kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(layer_name.c_str(), ctx.Err()));
  ctx.Check(__LINE__);
  Owned<Eprj_ElevationInfo, eprj_ElevationInfoFree> elevation(
      eprj_ElevationInfoRead(file.get(), BandOf(layer_name), ctx.Err()));
  ctx.Check(__LINE__);

  auto* map_info = static_cast<Eprj_MapInfo*>(emsc_HeapCalloc(1, sizeof(Eprj_MapInfo)));
  if (!map_info) ctx.Throw(__LINE__, L"Out of memory");
  Owned<Eprj_MapInfo, FreeMapInfo> map_info_owner(map_info);
  map_info->proName =
      estr_Duplicate(projection && projection->proName ? projection->proName : L"Unknown");
  map_info->units = estr_Duplicate(info->units);
  if (!map_info->proName || !map_info->units) ctx.Throw(__LINE__, L"Out of memory");
  map_info->upperLeftCenter = {info->upperLeftCenterX, info->upperLeftCenterY};
  map_info->lowerRightCenter = {
      info->upperLeftCenterX + (layer->width - 1) * g[1] + (layer->height - 1) * g[2],
      info->upperLeftCenterY + (layer->width - 1) * g[4] + (layer->height - 1) * g[5]};
  map_info->pixelSize = {std::abs(info->pixelSizeX), std::abs(info->pixelSizeY)};

  // Everything was read: replace the old members.
  Release();
  m_layer = layer.release();
  m_storage = storage.release();
  m_mapToFile = m2f.release();
  m_fileToMap = f2m.release();
  m_mapInfo = map_info_owner.release();
  m_projection = projection.release();
  m_elevationInfo = elevation.release();
  m_projectionWkt = wkt_text;
  m_horizontalUnits = m_mapInfo->units;
  epho::dtm::ProxyHold(name);
  epho::dtm::ProxyRelease(m_name);
  m_name = name;
}

}  // namespace EphoLib
