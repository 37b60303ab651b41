// Internals of the eimg layers: the shared GDAL dataset behind layer handles,
// layer-name parsing and GDAL error capture. Not exported.
#ifndef PLATFORM_EIMG_EIMG_INTERNAL_H_
#define PLATFORM_EIMG_EIMG_INTERNAL_H_

#include <gdal.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "eimg.h"

namespace kzdv::eimg {

// One open GDAL dataset shared by every handle opened through the same
// private storage or stack. GDAL datasets are not thread-safe, so every call
// that touches `ds` (or one of its bands) holds `mutex`.
struct SharedDataset {
  GDALDatasetH ds = nullptr;
  std::recursive_mutex mutex;
  bool update = false;
  bool levels_only = false;  // EIMG_ACCESS_LEVELS: read-only file, levels beside it
  std::chrono::steady_clock::time_point last_write_back{};  // of written levels
  std::string path;                                         // UTF-8, as opened
  ~SharedDataset();
};
using DatasetPtr = std::shared_ptr<SharedDataset>;

// Parts of a layer name "file(:node)" with an optional ":ephoPyramid_K".
struct LayerNameParts {
  std::wstring file;
  std::wstring node;  // "" for a bare file name
  long level = 0;
};
bool ParseLayerName(const std::wstring& name, LayerNameParts* parts);

// Opens `path` (UTF-8) for the given EIMG_ACCESS_*; null with `error` set.
DatasetPtr OpenDataset(const std::string& path, int access, std::wstring* error);

// Silences GDAL's own printing while alive and keeps its last message.
class GdalQuiet {
 public:
  GdalQuiet();
  ~GdalQuiet();
  GdalQuiet(const GdalQuiet&) = delete;
  GdalQuiet& operator=(const GdalQuiet&) = delete;
  // The last GDAL error message, or `fallback` when GDAL left none.
  std::wstring Message(const wchar_t* fallback = L"GDAL call failed") const;
};

GDALDataType ToGdalType(Egda_PixelType type);
Egda_PixelType FromGdalBand(GDALRasterBandH band);

// The band (or overview band) a layer handle addresses; null when a level
// went away (for example after its levels were removed).
GDALRasterBandH LayerBand(const Eimg_Layer* layer);
SharedDataset* LayerDataset(const Eimg_Layer* layer);
const DatasetPtr& LayerDatasetPtr(const Eimg_Layer* layer);

// Builds a layer handle for band `band` (1-based), level `level` of `dataset`.
Eimg_Layer* MakeLayer(const DatasetPtr& dataset, int band, long level, const std::wstring& name,
                      std::wstring* error);

void EnsureGdalRegistered();

}  // namespace kzdv::eimg

struct Eimg_LayerImpl {
  kzdv::eimg::DatasetPtr dataset;
  int band = 1;
};

struct Eimg_PrivateStorage {
  kzdv::eimg::DatasetPtr dataset;
};

#endif  // PLATFORM_EIMG_EIMG_INTERNAL_H_
