#include "eint.h"

#include "platform/eerr/error_frame.h"

struct Eint_InitToolkitData {
  int version;
};

Eint_InitToolkitData* eint_GetInit(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  if (err) *err = nullptr;
  static Eint_InitToolkitData init{1};
  return &init;
}
EERR_BOUNDARY(err, nullptr)
