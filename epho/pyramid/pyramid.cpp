// Binomial pyramid levels of an image file: the exported entry and the work
// on one layer stack.
#include "epho/pyramid.h"

#include <memory>
#include <string>

#include "eimg.h"
#include "eint.h"
#include "epho/pyramid/pyramid_internal.h"

namespace {

using StackPtr = std::unique_ptr<Eimg_LayerStack, void (*)(Eimg_LayerStack*)>;
void CloseStack(Eimg_LayerStack* s) { eimg_LayerStackClose(s, nullptr); }
void FreeStructure(Eimg_LayerStack* s) {
  if (s) s->ownsLayers = EMSC_FALSE;
  eimg_LayerStackClose(s, nullptr);
}
using NamesPtr = std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)>;

// Level `level` of every layer of `stack` as a stack that owns the handles.
Eimg_LayerStack* OpenLevel(Eimg_LayerStack* stack, long level, kzdv::ErrorFrame& frame) {
  Eimg_LayerStack* out = eimg_LayerStackStructureCreate(stack->count, frame.Callee());
  if (!out) {
    frame.Fail(__LINE__, L"eimg_LayerStackStructureCreate failed");
    return nullptr;
  }
  out->ownsLayers = EMSC_TRUE;
  for (long i = 0; i < stack->count; ++i) {
    out->layers[i] = eimg_LayerPyramidLevelOpen(stack->layers[i], level, frame.Callee());
    if (!out->layers[i]) {
      eimg_LayerStackClose(out, nullptr);
      frame.Fail(__LINE__, L"eimg_LayerPyramidLevelOpen failed");
      return nullptr;
    }
  }
  return out;
}

bool SameLayout(const Eimg_Layer* a, const Eimg_Layer* b) {
  return a->width == b->width && a->height == b->height && a->pixelType == b->pixelType &&
         a->blockWidth == b->blockWidth && a->blockHeight == b->blockHeight;
}

}  // namespace

long epho_PyramidLevelCount(long width, long height) {
  long s = width + height, n = 0;
  while ((s = s / 2) > 127) ++n;
  return n;
}

Emsc_Boolean computeBinomialPyramid(const Etxt_Char* task, Eimg_LayerStack* stack,
                                    Emsc_Boolean first_call, Emet_MeterInfo* meter,
                                    Eint_InitToolkitData* init, bool* levels_changed,
                                    Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"computeBinomialPyramid";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  EERR_FAIL_IF(!stack || stack->count < 1 || !task, frame, EMSC_FALSE, L"Invalid arguments");
  Eimg_Layer* first = stack->layers[0];
  const long n = epho_PyramidLevelCount(first->width, first->height);

  // Everything that refuses the work is checked before the file is changed.
  for (long i = 0; i < stack->count; ++i) {
    const Eimg_Layer* l = stack->layers[i];
    EERR_FAIL_IF(eimg_PixelTypeIsComplex(l->pixelType), frame, EMSC_FALSE,
                 L"Binomial (3x3) pyramid layers cannot be computed on complex pixels!");
    EERR_FAIL_IF(l->readOnly, frame, EMSC_FALSE, L"Image layer %s is read only!", l->name);
    EERR_FAIL_IF(l->pixelType == EGDA_TYPE_INVALID, frame, EMSC_FALSE,
                 L"Image layer %s has an unsupported pixel type!", l->name);
  }
  if (first_call) {
    // Levels belong to the whole file: replaced once, filled layer by layer.
    *levels_changed = true;
    EERR_CHECK(eimg_LayerPyramidLevelsRemove(first, frame.Callee()), frame, EMSC_FALSE,
               L"Cannot remove pyramid layers of %s!", first->name);
    if (n > 0)
      EERR_CHECK(eimg_LayerPyramidLevelsCreate(first, n, frame.Callee()), frame, EMSC_FALSE,
                 L"eimg_LayerPyramidLevelsCreate failed");
  }

  for (long k = 1; k <= n; ++k) {
    kzdv::HeapPtr<Etxt_Char> name(
        estr_Sprintf(L"%s, pyramid layer %d of %d", task, int(k), int(n)));
    EERR_FAIL_IF(!name, frame, EMSC_FALSE, L"estr_Sprintf failed");
    if (meter) {
      EERR_CHECK(emet_MeterInfoChangeTaskName(meter, name.get(), frame.Callee()), frame, EMSC_FALSE,
                 L"emet_MeterInfoChangeTaskName failed");
      EERR_CHECK(emet_MeterInfoPrint(meter, 0.0, frame.Callee()), frame, EMSC_FALSE,
                 L"emet_MeterInfoPrint failed");
    }
    EERR_FAIL_IF(emet_MeterInfoCancelled(meter), frame, EMSC_FALSE,
                 L"Pyramid generation has been canceled!");
    StackPtr src(k == 1 ? nullptr : OpenLevel(stack, k - 1, frame), CloseStack);
    if (k > 1 && !src) return EMSC_FALSE;
    StackPtr dst(OpenLevel(stack, k, frame), CloseStack);
    if (!dst) return EMSC_FALSE;
    if (!epho::pyramid::ReduceLevel(k == 1 ? stack : src.get(), dst.get(), meter, frame))
      return EMSC_FALSE;
    EERR_CHECK(eimg_LayerStackClose(dst.release(), frame.Callee()), frame, EMSC_FALSE,
               L"eimg_LayerStackClose failed");
  }
  EERR_CHECK(emet_MeterInfoPrint(meter, 100.0, frame.Callee()), frame, EMSC_FALSE,
             L"emet_MeterInfoPrint failed");
  for (long i = 0; i < stack->count; ++i)
    EERR_CHECK(
        eimg_SSLayerNamesSet(stack->layers[i], EIMG_PYRAMID_ALGORITHM_BINOMIAL3, frame.Callee()),
        frame, EMSC_FALSE, L"eimg_SSLayerNamesSet failed");
  return EMSC_TRUE;
}

void epho_ComputePyramidLayers3x3(const Etxt_Char* file_name, Emet_MeterInfo* meter,
                                  Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ComputePyramidLayers3x3";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file_name || !*file_name, frame, , L"Invalid file name");
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  EERR_CHECK(init, frame, , L"eint_GetInit failed");
  NamesPtr names(eimg_LayerGetNames(file_name, init, frame.Callee()), estr_StringListDelete);
  EERR_CHECK(names, frame, , L"Cannot get layer names from file %s!", file_name);
  kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(file_name, frame.Callee()));
  EERR_CHECK(file, frame, , L"efnp_FileNameGet failed");
  StackPtr stack(eimg_LayerStackOpen(names.get(), init, EIMG_ACCESS_UPDATE, frame.Callee()),
                 CloseStack);
  EERR_CHECK(stack, frame, , L"Cannot open image layers!");

  kzdv::HeapPtr<Etxt_Char> order(eimg_FileRasterDataOrderGet(file.get(), init, frame.Callee()));
  EERR_CHECK(order, frame, , L"eimg_FileRasterDataOrderGet failed");
  bool one_pass = estr_Eqic(order.get(), L"BIP") || estr_Eqic(order.get(), L"BIL");
  for (long i = 1; one_pass && i < stack->count; ++i)
    one_pass = SameLayout(stack->layers[0], stack->layers[i]);

  bool levels_changed = false;
  bool ok = true;
  if (one_pass) {
    // Interleaved files are read once for all bands.
    kzdv::HeapPtr<Etxt_Char> task(estr_Sprintf(L"%s: All Layers", file.get()));
    EERR_FAIL_IF(!task, frame, , L"estr_Sprintf failed");
    ok = computeBinomialPyramid(task.get(), stack.get(), EMSC_TRUE, meter, init, &levels_changed,
                                frame.Callee());
    if (!ok) frame.Fail(__LINE__, L"computeBinomialPyramid failed");
  } else {
    StackPtr one(eimg_LayerStackStructureCreate(1, frame.Callee()), FreeStructure);
    EERR_CHECK(one, frame, , L"Unable to create Layer Stack structure for sequential processing");
    for (long i = 0; ok && i < stack->count; ++i) {
      one->layers[0] = stack->layers[i];
      kzdv::HeapPtr<Etxt_Char> task(estr_Sprintf(L"%s: Layer %d", file.get(), int(i + 1)));
      EERR_FAIL_IF(!task, frame, , L"Error producing layer name");
      ok = computeBinomialPyramid(task.get(), one.get(), i == 0 ? EMSC_TRUE : EMSC_FALSE, meter,
                                  init, &levels_changed, frame.Callee());
      if (!ok) frame.Fail(__LINE__, L"computeBinomialPyramid failed");
    }
  }
  if (!ok && levels_changed) {
    // No half-made levels stay behind: the file is left without levels.
    Eerr_ErrorReport* ignored = nullptr;
    eimg_LayerPyramidLevelsRemove(stack->layers[0], &ignored);
    eerr_DeleteErrorReportEx(&ignored);
  }
  if (!ok) return;
  EERR_CHECK(eimg_LayerStackClose(stack.release(), frame.Callee()), frame, ,
             L"eimg_LayerStackClose failed");
}
