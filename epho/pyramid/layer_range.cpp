// The effective data range of a layer: its valid values, the null value left out.
#include <memory>

#include "eimg.h"
#include "eint.h"
#include "epho/pyramid.h"
#include "platform/eerr/error_frame.h"

Emsc_Boolean epho_LayerEffectiveRangeGet(const Etxt_Char* layer_name, double* minimum,
                                         double* maximum, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_LayerEffectiveRangeGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!layer_name || !minimum || !maximum, frame, EMSC_FALSE, L"Invalid arguments");
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  EERR_CHECK(init, frame, EMSC_FALSE, L"eint_GetInit failed");
  std::unique_ptr<Eimg_Layer, void (*)(Eimg_Layer*)> layer(
      eimg_LayerOpen(layer_name, init, nullptr, EIMG_ACCESS_READ, frame.Callee()),
      [](Eimg_Layer* l) { eimg_LayerClose(l, nullptr); });
  EERR_CHECK(layer, frame, EMSC_FALSE, L"Cannot open image layer %s!", layer_name);
  Eimg_Statistics stats{};
  EERR_CHECK(eimg_StatisticsRead(layer.get(), &stats, frame.Callee()), frame, EMSC_FALSE,
             L"eimg_StatisticsRead failed");
  *minimum = stats.minimum;
  *maximum = stats.maximum;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
