// A planted exported function for the exception-escape check: as written it
// lets std::runtime_error out of a C function, which the check must refuse;
// built with -DSEALED it ends in the error frame's boundary and must pass.
#include <stdexcept>

#include "eerr.h"
#include "platform/eerr/error_frame.h"

KZDV_BEGIN_C
KZDV_EXPORT Emsc_Boolean planted_Parse(int value, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_END_C

namespace {
int Checked(int value) {
  if (value < 0) throw std::runtime_error("negative");
  return value;
}
}  // namespace

#ifdef SEALED
Emsc_Boolean planted_Parse(int value, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"planted_Parse", err);
  return Checked(value) > 0 ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
#else
Emsc_Boolean planted_Parse(int value, Eerr_ErrorReport** err) KZDV_NOEXCEPT {
  kzdv::ErrorFrame frame(L"planted_Parse", err);
  return Checked(value) > 0 ? EMSC_TRUE : EMSC_FALSE;
}
#endif
