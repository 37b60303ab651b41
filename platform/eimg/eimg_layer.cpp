// Layer names, private storages, opening and closing layers, and pixel I/O
// by rectangle.
#include <fcntl.h>
#include <gdal.h>
#include <unistd.h>

#include <chrono>
#include <cwctype>
#include <new>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/eimg/eimg_internal.h"
#include "platform/estr/utf8.h"

using kzdv::eimg::DatasetPtr;
using kzdv::eimg::GdalQuiet;

namespace {

// Heap string list in the toolkit layout (freed by estr_StringListDelete).
Estr_StringList* NewStringList(long count) {
  auto* list = static_cast<Estr_StringList*>(emsc_HeapCalloc(1, sizeof(Estr_StringList)));
  if (!list) return nullptr;
  list->strings =
      static_cast<Etxt_Char**>(emsc_HeapCalloc(count > 0 ? count : 1, sizeof(Etxt_Char*)));
  if (!list->strings) {
    emsc_HeapFree(list);
    return nullptr;
  }
  return list;
}

void FreeStringList(Estr_StringList* list) {
  if (!list) return;
  for (long i = 0; i < list->count; ++i) emsc_HeapFree(list->strings[i]);
  emsc_HeapFree(list->strings);
  emsc_HeapFree(list);
}

// Band number of a node: "Layer_N" (any case), or a band whose description
// equals the node; 0 when none matches.
int BandOfNode(GDALDatasetH ds, const std::wstring& node) {
  if (node.empty()) return 1;
  if (node.size() > 6 && estr_Eqic(node.substr(0, 6).c_str(), L"Layer_")) {
    std::wstring digits = node.substr(6);
    bool ok = !digits.empty() && digits.size() < 7;
    for (wchar_t c : digits) ok = ok && std::iswdigit(c);
    if (ok) return std::stoi(digits);
  }
  for (int b = 1; b <= GDALGetRasterCount(ds); ++b) {
    const char* d = GDALGetDescription(GDALGetRasterBand(ds, b));
    if (d && *d && estr_Eqic(kzdv::FromUtf8(d).c_str(), node.c_str())) return b;
  }
  return 0;
}

Eimg_Layer* OpenOnDataset(const DatasetPtr& dataset, const kzdv::eimg::LayerNameParts& parts,
                          const std::wstring& name, std::wstring* error) {
  int band;
  {
    std::lock_guard<std::recursive_mutex> lock(dataset->mutex);
    band = BandOfNode(dataset->ds, parts.node);
  }
  if (band == 0) {
    *error = L"the file has no layer " + parts.node;
    return nullptr;
  }
  return kzdv::eimg::MakeLayer(dataset, band, parts.level, name, error);
}

bool RectFits(const Eimg_Layer* layer, long x, long y, const Eimg_PixelRect* rect) {
  return rect && rect->data && rect->width > 0 && rect->height > 0 && x >= 0 && y >= 0 &&
         x + rect->width <= layer->width && y + rect->height <= layer->height;
}

// Reads or writes one rectangle; the caller holds the frame.
bool LayerIO(Eimg_Layer* layer, GDALRWFlag flag, long x, long y, Eimg_PixelRect* rect,
             kzdv::ErrorFrame& frame) {
  if (!layer || !layer->impl) {
    frame.Fail(__LINE__, L"Invalid layer");
    return false;
  }
  if (!RectFits(layer, x, y, rect)) {
    frame.Fail(__LINE__, L"Pixel window %ld,%ld %ldx%ld lies outside layer %s (%ldx%ld)", x, y,
               rect ? rect->width : 0L, rect ? rect->height : 0L, layer->name, layer->width,
               layer->height);
    return false;
  }
  if (flag == GF_Write && layer->readOnly) {
    frame.Fail(__LINE__, L"Image layer %s is read only!", layer->name);
    return false;
  }
  if (flag == GF_Write && layer->pyramidLevel == 0 &&
      kzdv::eimg::LayerDataset(layer)->levels_only) {
    frame.Fail(__LINE__, L"Image layer %s is open for its pyramid levels only", layer->name);
    return false;
  }
  GDALDataType t = kzdv::eimg::ToGdalType(rect->pixelType);
  if (t == GDT_Unknown) {
    frame.Fail(__LINE__, L"Unsupported pixel type of the pixel rectangle");
    return false;
  }
  kzdv::eimg::SharedDataset* ds = kzdv::eimg::LayerDataset(layer);
  std::lock_guard<std::recursive_mutex> lock(ds->mutex);
  GdalQuiet quiet;
  GDALRasterBandH band = kzdv::eimg::LayerBand(layer);
  if (!band) {
    frame.Fail(__LINE__, L"Pyramid level of %s no longer exists", layer->name);
    return false;
  }
  if (GDALRasterIO(band, flag, static_cast<int>(x), static_cast<int>(y),
                   static_cast<int>(rect->width), static_cast<int>(rect->height), rect->data,
                   static_cast<int>(rect->width), static_cast<int>(rect->height), t, 0,
                   0) != CE_None) {
    frame.Fail(__LINE__, L"%s of %s failed: %s", flag == GF_Read ? L"Read" : L"Write", layer->name,
               quiet.Message().c_str());
    return false;
  }
  return true;
}

}  // namespace

int eimg_PixelTypeBytes(Egda_PixelType type) KZDV_NOEXCEPT {
  switch (type) {
    case EGDA_TYPE_U1:
    case EGDA_TYPE_U2:
    case EGDA_TYPE_U4:
    case EGDA_TYPE_U8:
    case EGDA_TYPE_S8:
      return 1;
    case EGDA_TYPE_U16:
    case EGDA_TYPE_S16:
      return 2;
    case EGDA_TYPE_U32:
    case EGDA_TYPE_S32:
    case EGDA_TYPE_F32:
      return 4;
    case EGDA_TYPE_F64:
    case EGDA_TYPE_C64:
      return 8;
    case EGDA_TYPE_C128:
      return 16;
    default:
      return 0;
  }
}

Emsc_Boolean eimg_PixelTypeIsComplex(Egda_PixelType type) KZDV_NOEXCEPT {
  return type == EGDA_TYPE_C64 || type == EGDA_TYPE_C128 ? EMSC_TRUE : EMSC_FALSE;
}

Estr_StringList* eimg_LayerGetNames(const Etxt_Char* file_name, Eint_InitToolkitData* init,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerGetNames";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  EERR_FAIL_IF(!file_name || !*file_name, frame, nullptr, L"Invalid file name");
  kzdv::eimg::LayerNameParts parts;
  EERR_FAIL_IF(!kzdv::eimg::ParseLayerName(file_name, &parts), frame, nullptr,
               L"Invalid layer name %s", file_name);
  std::wstring error;
  DatasetPtr ds = kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), EIMG_ACCESS_READ, &error);
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open %s: %s", parts.file.c_str(), error.c_str());
  long count = GDALGetRasterCount(ds->ds);
  EERR_FAIL_IF(count < 1, frame, nullptr, L"%s has no raster layers", parts.file.c_str());
  Estr_StringList* list = NewStringList(count);
  EERR_FAIL_IF(!list, frame, nullptr, L"Out of memory");
  for (long b = 1; b <= count; ++b) {
    std::wstring n = kzdv::Format(L"%s(:Layer_%ld)", parts.file.c_str(), b);
    list->strings[b - 1] = etxt_Text_strdup(n.c_str());
    if (!list->strings[b - 1]) {
      FreeStringList(list);
      EERR_FAIL(frame, nullptr, L"Out of memory");
    }
    list->count = b;
  }
  return list;
}
EERR_BOUNDARY(err, nullptr)

Eimg_PrivateStorage* eimg_LayerPrivateStorageCreate(const Etxt_Char* layer_name, int access,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerPrivateStorageCreate";
  kzdv::ErrorFrame frame(kFn, err);
  kzdv::eimg::LayerNameParts parts;
  EERR_FAIL_IF(!layer_name || !kzdv::eimg::ParseLayerName(layer_name, &parts), frame, nullptr,
               L"Invalid layer name %s", layer_name ? layer_name : L"(null)");
  std::wstring error;
  DatasetPtr ds = kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), access, &error);
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open %s: %s", parts.file.c_str(), error.c_str());
  auto* storage = new (std::nothrow) Eimg_PrivateStorage;
  EERR_FAIL_IF(!storage, frame, nullptr, L"Out of memory");
  storage->dataset = ds;
  return storage;
}
EERR_BOUNDARY(err, nullptr)

void eimg_PrivateStorageDelete(Eimg_PrivateStorage* storage) KZDV_NOEXCEPT { delete storage; }

Eimg_Layer* eimg_LayerOpen(const Etxt_Char* layer_name, Eint_InitToolkitData* init,
                           Eimg_PrivateStorage* storage, int access,
                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerOpen";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  kzdv::eimg::LayerNameParts parts;
  EERR_FAIL_IF(!layer_name || !kzdv::eimg::ParseLayerName(layer_name, &parts), frame, nullptr,
               L"Invalid layer name %s", layer_name ? layer_name : L"(null)");
  std::wstring error;
  DatasetPtr ds = storage ? storage->dataset
                          : kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), access, &error);
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open %s: %s", parts.file.c_str(), error.c_str());
  Eimg_Layer* layer = OpenOnDataset(ds, parts, layer_name, &error);
  EERR_FAIL_IF(!layer, frame, nullptr, L"Cannot open layer %s: %s", layer_name, error.c_str());
  return layer;
}
EERR_BOUNDARY(err, nullptr)

namespace {

// Asks the system to start writing the file behind `band` to disk, without
// waiting for it. Pyramid levels are written once and not touched again, so
// their pages can go to disk while the rest is computed (at most every 2 ms
// while a level is written, and when it is closed), and the flush to disk
// that ends a safe replacement finds most of the file written. Best effort:
// nothing happens where the file has no local name. The caller holds the
// dataset's mutex.
void StartWriteBack(kzdv::eimg::SharedDataset* ds, GDALRasterBandH band, bool now) {
#ifdef SYNC_FILE_RANGE_WRITE
  const auto time = std::chrono::steady_clock::now();
  if (!now && time - ds->last_write_back < std::chrono::milliseconds(2)) return;
  ds->last_write_back = time;
  GDALDatasetH owner = GDALGetBandDataset(band);
  const char* path = owner ? GDALGetDescription(owner) : nullptr;
  if (!path || !*path) return;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
  ::close(fd);
#else
  (void)ds, (void)band, (void)now;
#endif
}

}  // namespace

Emsc_Boolean eimg_LayerClose(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerClose";
  kzdv::ErrorFrame frame(kFn, err);
  if (!layer) return EMSC_TRUE;
  bool ok = true;
  std::wstring message;
  if (layer->impl && layer->impl->dataset) {
    kzdv::eimg::SharedDataset* ds = layer->impl->dataset.get();
    std::lock_guard<std::recursive_mutex> lock(ds->mutex);
    if (!layer->readOnly) {
      GdalQuiet quiet;
      GDALRasterBandH band = kzdv::eimg::LayerBand(layer);
      if (band && GDALFlushRasterCache(band) != CE_None) {
        ok = false;
        message = quiet.Message();
      } else if (band && layer->pyramidLevel > 0) {
        StartWriteBack(ds, band, true);
      }
    }
  }
  std::wstring name = layer->name ? layer->name : L"";
  {
    // The last handle of a dataset closes it; do that outside the lock.
    DatasetPtr keep = layer->impl ? std::move(layer->impl->dataset) : nullptr;
    delete layer->impl;
    emsc_HeapFree(layer->name);
    emsc_HeapFree(layer);
  }
  EERR_FAIL_IF(!ok, frame, EMSC_FALSE, L"Writing %s failed: %s", name.c_str(), message.c_str());
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerRead(Eimg_Layer* layer, long x, long y, Eimg_PixelRect* rect,
                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerRead";
  kzdv::ErrorFrame frame(kFn, err);
  return LayerIO(layer, GF_Read, x, y, rect, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerWrite(Eimg_Layer* layer, long x, long y, const Eimg_PixelRect* rect,
                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerWrite";
  kzdv::ErrorFrame frame(kFn, err);
  return LayerIO(layer, GF_Write, x, y, const_cast<Eimg_PixelRect*>(rect), frame) ? EMSC_TRUE
                                                                                  : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerRasterPixelRectGet(Eimg_Layer* layer, long x, long y, Eimg_PixelRect* rect,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerRasterPixelRectGet";
  kzdv::ErrorFrame frame(kFn, err);
  return LayerIO(layer, GF_Read, x, y, rect, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerFlush(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerFlush";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!layer || !layer->impl, frame, EMSC_FALSE, L"Invalid layer");
  kzdv::eimg::SharedDataset* ds = kzdv::eimg::LayerDataset(layer);
  std::lock_guard<std::recursive_mutex> lock(ds->mutex);
  GdalQuiet quiet;
  GDALRasterBandH band = kzdv::eimg::LayerBand(layer);
  EERR_FAIL_IF(!band, frame, EMSC_FALSE, L"Pyramid level of %s no longer exists", layer->name);
  EERR_FAIL_IF(GDALFlushRasterCache(band) != CE_None, frame, EMSC_FALSE, L"Writing %s failed: %s",
               layer->name, quiet.Message().c_str());
  if (!layer->readOnly && layer->pyramidLevel > 0) StartWriteBack(ds, band, false);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

// --- pixel rectangles

Eimg_PixelRect* eimg_PixelRectCreate(long width, long height, Egda_PixelType type,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_PixelRectCreate";
  kzdv::ErrorFrame frame(kFn, err);
  int bytes = eimg_PixelTypeBytes(type);
  EERR_FAIL_IF(width <= 0 || height <= 0 || bytes == 0 || width > (1L << 30) / height, frame,
               nullptr, L"Invalid pixel rectangle %ldx%ld", width, height);
  auto* rect = static_cast<Eimg_PixelRect*>(emsc_HeapCalloc(1, sizeof(Eimg_PixelRect)));
  EERR_FAIL_IF(!rect, frame, nullptr, L"Out of memory");
  rect->data = static_cast<unsigned char*>(
      emsc_HeapCalloc(static_cast<size_t>(width) * static_cast<size_t>(height), bytes));
  if (!rect->data) {
    emsc_HeapFree(rect);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  rect->width = width;
  rect->height = height;
  rect->pixelType = type;
  return rect;
}
EERR_BOUNDARY(err, nullptr)

void eimg_PixelRectDelete(Eimg_PixelRect* rect) KZDV_NOEXCEPT {
  if (!rect) return;
  emsc_HeapFree(rect->data);
  emsc_HeapFree(rect);
}

Eimg_PixelRectStack* eimg_PixelRectStackCreate(long count, long width, long height,
                                               Egda_PixelType type,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_PixelRectStackCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(count <= 0, frame, nullptr, L"Invalid rectangle count %ld", count);
  auto* stack = static_cast<Eimg_PixelRectStack*>(emsc_HeapCalloc(1, sizeof(Eimg_PixelRectStack)));
  EERR_FAIL_IF(!stack, frame, nullptr, L"Out of memory");
  stack->rects = static_cast<Eimg_PixelRect**>(emsc_HeapCalloc(count, sizeof(Eimg_PixelRect*)));
  if (!stack->rects) {
    emsc_HeapFree(stack);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  stack->count = count;
  for (long i = 0; i < count; ++i) {
    stack->rects[i] = eimg_PixelRectCreate(width, height, type, frame.Callee());
    if (frame.CalleeFailed()) {
      eimg_PixelRectStackDelete(stack);
      EERR_FAIL(frame, nullptr, L"eimg_PixelRectCreate failed");
    }
  }
  return stack;
}
EERR_BOUNDARY(err, nullptr)

void eimg_PixelRectStackDelete(Eimg_PixelRectStack* stack) KZDV_NOEXCEPT {
  if (!stack) return;
  for (long i = 0; i < stack->count; ++i) eimg_PixelRectDelete(stack->rects[i]);
  emsc_HeapFree(stack->rects);
  emsc_HeapFree(stack);
}

// --- layer stacks

Eimg_LayerStack* eimg_LayerStackStructureCreate(long count, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eimg_LayerStackStructureCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(count <= 0, frame, nullptr, L"Invalid layer count %ld", count);
  auto* stack = static_cast<Eimg_LayerStack*>(emsc_HeapCalloc(1, sizeof(Eimg_LayerStack)));
  EERR_FAIL_IF(!stack, frame, nullptr, L"Out of memory");
  stack->layers = static_cast<Eimg_Layer**>(emsc_HeapCalloc(count, sizeof(Eimg_Layer*)));
  if (!stack->layers) {
    emsc_HeapFree(stack);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  stack->count = count;
  stack->ownsLayers = EMSC_FALSE;
  return stack;
}
EERR_BOUNDARY(err, nullptr)

Eimg_LayerStack* eimg_LayerStackOpen(const Estr_StringList* layer_names, Eint_InitToolkitData* init,
                                     int access, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerStackOpen";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  EERR_FAIL_IF(!layer_names || layer_names->count <= 0, frame, nullptr, L"No layer names");
  Eimg_LayerStack* stack = eimg_LayerStackStructureCreate(layer_names->count, frame.Callee());
  EERR_CHECK(stack, frame, nullptr, L"eimg_LayerStackStructureCreate failed");
  stack->ownsLayers = EMSC_TRUE;
  // Layers of one file share one dataset, so an interleaved file is decoded
  // once for all of its bands.
  std::vector<std::pair<std::wstring, DatasetPtr>> files;
  for (long i = 0; i < layer_names->count; ++i) {
    const Etxt_Char* name = layer_names->strings[i];
    kzdv::eimg::LayerNameParts parts;
    std::wstring error;
    Eimg_Layer* layer = nullptr;
    if (name && kzdv::eimg::ParseLayerName(name, &parts)) {
      DatasetPtr ds;
      for (auto& f : files)
        if (f.first == parts.file) ds = f.second;
      if (!ds) {
        ds = kzdv::eimg::OpenDataset(kzdv::ToUtf8(parts.file), access, &error);
        if (ds) files.emplace_back(parts.file, ds);
      }
      if (ds) layer = OpenOnDataset(ds, parts, name, &error);
    } else {
      error = L"invalid layer name";
    }
    if (!layer) {
      eimg_LayerStackClose(stack, nullptr);
      EERR_FAIL(frame, nullptr, L"Cannot open layer %s: %s", name ? name : L"(null)",
                error.c_str());
    }
    stack->layers[i] = layer;
  }
  return stack;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eimg_LayerStackClose(Eimg_LayerStack* stack, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eimg_LayerStackClose";
  kzdv::ErrorFrame frame(kFn, err);
  if (!stack) return EMSC_TRUE;
  bool ok = true;
  if (stack->ownsLayers) {
    for (long i = 0; i < stack->count; ++i) {
      eimg_LayerClose(stack->layers[i], frame.Callee());
      if (frame.CalleeFailed()) {
        if (ok)
          frame.Fail(__LINE__, L"eimg_LayerClose failed");
        else
          frame.Tolerate();
        ok = false;
      }
    }
  }
  emsc_HeapFree(stack->layers);
  emsc_HeapFree(stack);
  return ok ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

static Emsc_Boolean StackIO(Eimg_LayerStack* stack, GDALRWFlag flag, long x, long y,
                            Eimg_PixelRectStack* rects, kzdv::ErrorFrame& frame) {
  if (!stack || !rects || rects->count < stack->count) {
    frame.Fail(__LINE__, L"Layer stack and pixel rectangles do not match");
    return EMSC_FALSE;
  }
  for (long i = 0; i < stack->count; ++i)
    if (!LayerIO(stack->layers[i], flag, x, y, rects->rects[i], frame)) return EMSC_FALSE;
  return EMSC_TRUE;
}

Emsc_Boolean eimg_LayerStackRead(Eimg_LayerStack* stack, long x, long y, Eimg_PixelRectStack* rects,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerStackRead";
  kzdv::ErrorFrame frame(kFn, err);
  return StackIO(stack, GF_Read, x, y, rects, frame);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eimg_LayerStackWrite(Eimg_LayerStack* stack, long x, long y,
                                  const Eimg_PixelRectStack* rects,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eimg_LayerStackWrite";
  kzdv::ErrorFrame frame(kFn, err);
  return StackIO(stack, GF_Write, x, y, const_cast<Eimg_PixelRectStack*>(rects), frame);
}
EERR_BOUNDARY(err, EMSC_FALSE)
