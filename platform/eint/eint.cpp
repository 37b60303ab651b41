#include "eint.h"

struct Eint_InitToolkitData {
  int version;
};

Eint_InitToolkitData* eint_GetInit(Eerr_ErrorReport** err) {
  if (err) *err = nullptr;
  static Eint_InitToolkitData init{1};
  return &init;
}
