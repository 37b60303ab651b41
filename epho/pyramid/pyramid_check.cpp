// Whether an image already carries usable pyramid levels.
#include <memory>

#include "eimg.h"
#include "eint.h"
#include "epho/pyramid.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace {

using NamesPtr = std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)>;
void CloseLayer(Eimg_Layer* l) { eimg_LayerClose(l, nullptr); }
using LayerPtr = std::unique_ptr<Eimg_Layer, void (*)(Eimg_Layer*)>;

// One layer: its levels 1..n exist with halving sizes (and, unless any
// algorithm is allowed, carry the binomial marker).
bool LayerUsable(Eimg_Layer* layer, bool allow_other, kzdv::ErrorFrame& frame, bool* failed) {
  const long n = epho_PyramidLevelCount(layer->width, layer->height);
  if (n == 0) return true;  // nothing to look for
  long have = eimg_LayerPyramidLevelCount(layer, frame.Callee());
  if (frame.CalleeFailed()) {
    *failed = true;
    frame.Fail(__LINE__, L"eimg_LayerPyramidLevelCount failed");
    return false;
  }
  if (have < n) return false;
  LayerPtr level1(eimg_LayerPyramidLevelOpen(layer, 1, frame.Callee()), CloseLayer);
  if (!level1) {
    *failed = true;
    frame.Fail(__LINE__, L"Can't open the first pyramid layer!");
    return false;
  }
  long w = layer->width, h = layer->height;
  for (long k = 1; k <= n; ++k) {
    LayerPtr level(k == 1 ? level1.release() : eimg_LayerPyramidLevelOpen(layer, k, frame.Callee()),
                   CloseLayer);
    if (!level) {
      frame.Tolerate();
      return false;
    }
    w = (w + 1) / 2, h = (h + 1) / 2;
    if (level->width != w || level->height != h) return false;
  }
  if (allow_other) return true;
  kzdv::HeapPtr<Etxt_Char> algorithm(eimg_SSLayerNamesGet(layer, frame.Callee()));
  if (!algorithm) {
    *failed = true;
    frame.Fail(__LINE__, L"eimg_SSLayerNamesGet failed");
    return false;
  }
  return estr_Eqic(algorithm.get(), EIMG_PYRAMID_ALGORITHM_BINOMIAL3) != EMSC_FALSE;
}

Emsc_Boolean Check(const Etxt_Char* file_name, bool allow_other, kzdv::ErrorFrame& frame) {
  EERR_FAIL_IF(!file_name || !*file_name, frame, EMSC_FALSE, L"Invalid file name");
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  EERR_CHECK(init, frame, EMSC_FALSE, L"eint_GetInit failed");
  kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(file_name, frame.Callee()));
  EERR_CHECK(file, frame, EMSC_FALSE, L"epho_PyramidLayersCheck::efnp_FileNameGet failed");
  NamesPtr names(eimg_LayerGetNames(file.get(), init, frame.Callee()), estr_StringListDelete);
  EERR_CHECK(names, frame, EMSC_FALSE, L"Cannot get layer names from file %s!", file.get());
  for (long i = 0; i < names->count; ++i) {
    LayerPtr layer(
        eimg_LayerOpen(names->strings[i], init, nullptr, EIMG_ACCESS_READ, frame.Callee()),
        CloseLayer);
    EERR_CHECK(layer, frame, EMSC_FALSE, L"Cannot open image layer %s!", names->strings[i]);
    EERR_FAIL_IF(layer->pixelType == EGDA_TYPE_U1, frame, EMSC_FALSE,
                 L"This program doesn't support 1bit image!");
    EERR_FAIL_IF(layer->pixelType == EGDA_TYPE_U2, frame, EMSC_FALSE,
                 L"This program doesn't support 2bit image!");
    EERR_FAIL_IF(eimg_PixelTypeIsComplex(layer->pixelType), frame, EMSC_FALSE,
                 L"This program doesn't support complex type image!");
    bool failed = false;
    if (!LayerUsable(layer.get(), allow_other, frame, &failed)) return EMSC_FALSE;
  }
  return EMSC_TRUE;
}

}  // namespace

Emsc_Boolean epho_PyramidLayersCheck(const Etxt_Char* file_name,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_PyramidLayersCheck";
  kzdv::ErrorFrame frame(kFn, err);
  return Check(file_name, false, frame);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_PyramidLayersCheckAllowRSETS(const Etxt_Char* file_name,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_PyramidLayersCheckAllowRSETS";
  kzdv::ErrorFrame frame(kFn, err);
  return Check(file_name, true, frame);
}
EERR_BOUNDARY(err, EMSC_FALSE)
