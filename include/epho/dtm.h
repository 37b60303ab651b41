/* DEM cache: each DEM opened once per process and shared by every sensor
 * model that reads heights from it.
 *
 * A DTMCache is one open DEM layer with what is needed to address it: map
 * information, the map-to-file and file-to-map transforms (file coordinates
 * in pixels, (0, 0) at the upper-left corner of the upper-left cell, so that
 * truncating a file coordinate gives its cell), the projection parameters,
 * the elevation info, the horizontal unit and the private storage through
 * which further layer handles share the entry's dataset and block cache.
 * DTMCacheList is the process-wide list of entries, handed out as
 * boost::shared_ptr: an entry lives while the list or any caller holds it.
 * Class methods throw EerrException. */
#ifndef EPHO_DTM_H
#define EPHO_DTM_H

#include "eimg.h"
#include "epho/base.h"
#include "eprj.h"
#include "exfr.h"

#ifdef __cplusplus
#include <boost/shared_ptr.hpp>
#include <vector>

#include "ethr.h"

namespace EphoLib {

class EPHO_EXPORT DTMCache {
 public:
  /* Opens `name` (a DEM file or one of its layers) at once. */
  explicit DTMCache(const wchar_t* name);
  virtual ~DTMCache();
  DTMCache& operator=(const DTMCache& other);
  DTMCache(const DTMCache&) = delete;

  /* Map information of the layer (owned by the entry; throws "Layer not
   * opened" before a successful open). */
  const Eprj_MapInfo& GetMapInfo() const;
  /* Map -> file pixels and its inverse, file pixels -> map (owned). */
  const Exfr_XForm* GetMapToFileXForm() const { return m_mapToFile; }
  const Exfr_XForm* GetFileToMapXForm() const { return m_fileToMap; }
  /* Projection parameters of the DEM; null when it has none or its
   * projection has no internal number (its WKT is then still kept). */
  const Eprj_ProParameters* GetMapProjection() const { return m_projection; }
  const EtxtTextU& GetMapProjectionWkt() const { return m_projectionWkt; }
  /* Elevation info: unit, datum and spheroid of the heights (owned). */
  const Eprj_ElevationInfo* GetElevationInfo() const { return m_elevationInfo; }
  Eimg_PrivateStorage* GetPrivateStorage() const { return m_storage; }
  /* The name the entry was opened under (the cache key). */
  EtxtTextU GetName() const { return m_name; }
  EtxtTextU GetHorizontalUnits() const { return m_horizontalUnits; }
  /* Columns and rows of the DEM; throw "Layer not opened" when it is not. */
  int GetLayerWidth() const;
  int GetLayerHeight() const;
  /* The entry's own layer handle (null before a successful open). Reads on it
   * are serialised with every handle sharing the entry's storage. */
  Eimg_Layer* GetLayer() const { return m_layer; }

 private:
  void Open(const wchar_t* name);
  void Release();

  Eimg_Layer* m_layer = nullptr;
  Exfr_XForm* m_mapToFile = nullptr;
  Exfr_XForm* m_fileToMap = nullptr;
  Eprj_MapInfo* m_mapInfo = nullptr;
  Eprj_ProParameters* m_projection = nullptr;
  Eprj_ElevationInfo* m_elevationInfo = nullptr;
  EtxtTextU m_projectionWkt;
  EtxtTextU m_name;
  EtxtTextU m_horizontalUnits;
  Eimg_PrivateStorage* m_storage = nullptr;
};

class EPHO_EXPORT DTMCacheList {
 public:
  /* The process-wide list, created on first call (thread-safe). */
  static DTMCacheList& Instance();
  virtual ~DTMCacheList();
  /* The shared entry for the DEM `name` (path expanded), opening it on first
   * request. Two names share an entry when they are equal ignoring letter
   * case AND denote the same file (std::filesystem::equivalent): on a
   * case-sensitive file system "dem.tif" and "DEM.tif" are two DEMs with two
   * entries. When two threads open the same new DEM at once, both get the
   * entry that was listed first. */
  boost::shared_ptr<DTMCache> Open(const wchar_t* name);
  /* Drops the list's references; entries held by callers stay usable. An
   * entry opened on a proxy (CachedDEMLayerGet) removes the proxy file when
   * its last holder releases it, so Clear removes the proxies nobody else
   * holds. */
  void Clear();
  /* Number of entries in the list. */
  size_t Size() const;

 private:
  DTMCacheList();
  DTMCacheList(const DTMCacheList&) = delete;
  DTMCacheList& operator=(const DTMCacheList&) = delete;

  std::vector<boost::shared_ptr<DTMCache>> m_list;
  Ethr_Mutex* m_mutex = nullptr;
};

/* A fresh layer handle on the cached DEM of `dem_file_name`: the DEM is
 * reached through its proxy in the temporary directory
 * (epho_ProxyImageNameGet), its cache entry is stored in `slot` (which keeps
 * it alive) and the handle shares the entry's storage. Close the handle with
 * eimg_LayerClose before releasing `slot`. Null with a report on failure. */
EPHO_EXPORT Eimg_Layer* CachedDEMLayerGet(const wchar_t* dem_file_name,
                                          boost::shared_ptr<DTMCache>& slot,
                                          Eerr_ErrorReport** err);

}  // namespace EphoLib
#endif /* __cplusplus */

#endif /* EPHO_DTM_H */
