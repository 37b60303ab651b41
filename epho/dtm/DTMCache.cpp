// One open DEM with everything needed to address its cells.
#include <memory>

#include "eerr_frame.hpp"
#include "eint.h"
#include "epho/dtm.h"

namespace EphoLib {

namespace {

const char kSource[] = "DTMCache";

// Inverse of an affine x' = c0 x + c1 y + c2, y' = c3 x + c4 y + c5.
bool InvertAffine(const double c[6], double inv[6]) {
  const double det = c[0] * c[4] - c[1] * c[3];
  if (det == 0.0) return false;
  inv[0] = c[4] / det;
  inv[1] = -c[1] / det;
  inv[3] = -c[3] / det;
  inv[4] = c[0] / det;
  inv[2] = -(inv[0] * c[2] + inv[1] * c[5]);
  inv[5] = -(inv[3] * c[2] + inv[4] * c[5]);
  return true;
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

DTMCache::~DTMCache() { Release(); }

void DTMCache::Release() {
  eimg_LayerClose(m_layer, nullptr);
  m_layer = nullptr;
  eimg_MapInfoFree(m_mapInfo);
  m_mapInfo = nullptr;
  eimg_PrivateStorageDelete(m_storage);
  m_storage = nullptr;
}

DTMCache& DTMCache::operator=(const DTMCache& other) {
  if (this == &other) return *this;
  // Copies describe the same DEM: the copy opens it anew under the same name.
  Release();
  m_name.clear();
  if (!other.m_name.empty()) Open(other.m_name.c_str());
  return *this;
}

const Eimg_MapInfo& DTMCache::GetMapInfo() const {
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
  if (estr_Eqic(name, m_name.c_str())) return;  // already open under this name

  Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
  ctx.Check(__LINE__);
  // A file name stands for its first layer.
  EtxtTextU layer_name = name;
  if (layer_name.find(L"(:") == std::wstring::npos) {
    std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)> names(
        eimg_LayerGetNames(name, init, ctx.Err()), estr_StringListDelete);
    ctx.Check(__LINE__);
    layer_name = names->strings[0];
  }
  std::unique_ptr<Eimg_PrivateStorage, void (*)(Eimg_PrivateStorage*)> storage(
      eimg_LayerPrivateStorageCreate(layer_name.c_str(), EIMG_ACCESS_READ, ctx.Err()),
      eimg_PrivateStorageDelete);
  ctx.Check(__LINE__);
  std::unique_ptr<Eimg_Layer, void (*)(Eimg_Layer*)> layer(
      eimg_LayerOpen(layer_name.c_str(), init, storage.get(), EIMG_ACCESS_READ, ctx.Err()),
      [](Eimg_Layer* l) { eimg_LayerClose(l, nullptr); });
  ctx.Check(__LINE__);
  std::unique_ptr<Eimg_MapInfo, void (*)(Eimg_MapInfo*)> info(
      eimg_LayerMapInformationRead(layer.get(), ctx.Err()), eimg_MapInfoFree);
  ctx.Check(__LINE__);
  double file_to_map[6], map_to_file[6];
  const double* g = info->geoTransform;
  // GDAL's geotransform is file -> map with the coefficient order (c2, c0, c1).
  file_to_map[0] = g[1], file_to_map[1] = g[2], file_to_map[2] = g[0];
  file_to_map[3] = g[4], file_to_map[4] = g[5], file_to_map[5] = g[3];
  if (!InvertAffine(file_to_map, map_to_file))
    ctx.Throw(__LINE__, L"The map information of %s cannot be inverted", name);

  // Projection and height unit are optional: a DEM in a local frame has none.
  EtxtTextU projection;
  kzdv::HeapPtr<Etxt_Char> wkt(eimg_LayerMapProjectionRead(layer.get(), ctx.Err()));
  if (ctx.HasReport()) ctx.Clear();
  else projection = wkt.get();
  kzdv::HeapPtr<Etxt_Char> unit(eimg_LayerUnitTypeGet(layer.get(), ctx.Err()));
  ctx.Check(__LINE__);

  // Everything was read: replace the old members.
  Release();
  m_layer = layer.release();
  m_storage = storage.release();
  m_mapInfo = info.release();
  for (int i = 0; i < 6; ++i) m_mapToFile[i] = map_to_file[i], m_fileToMap[i] = file_to_map[i];
  m_projection = projection;
  m_elevationUnit = unit.get();
  m_horizontalUnits = m_mapInfo->units ? m_mapInfo->units : L"";
  m_name = name;
}

}  // namespace EphoLib
