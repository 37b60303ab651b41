// The installed print handler with its context, for code that wraps it
// (the epho tool counts printed reports). Internal; include as
// "platform/eerr/eerr_print.h".
#ifndef KZDV_PLATFORM_EERR_EERR_PRINT_H_
#define KZDV_PLATFORM_EERR_EERR_PRINT_H_

#include "eerr.h"

namespace kzdv {

// The handler eerr_SetPrintHandler installed last (null: printing to the
// stream) and its context.
void CurrentPrintHandler(Eerr_PrintHandler* handler, void** context);

}  // namespace kzdv

#endif  // KZDV_PLATFORM_EERR_EERR_PRINT_H_
