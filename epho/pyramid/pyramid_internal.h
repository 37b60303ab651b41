// Internal steps of the pyramid computation, visible to the tests.
#ifndef EPHO_PYRAMID_PYRAMID_INTERNAL_H_
#define EPHO_PYRAMID_PYRAMID_INTERNAL_H_

#include "eimg.h"
#include "emet.h"
#include "platform/eerr/error_frame.h"

namespace epho::pyramid {

// Fills level `dst` (already created, half the size) from level `src` for
// every layer of the two stacks, streaming by tiles of whole blocks so memory
// stays bounded whatever the image size. Progress goes to `meter` (0..100 for
// this level); a cancel seen between tiles stops with a report.
bool ReduceLevel(Eimg_LayerStack* src, Eimg_LayerStack* dst, Emet_MeterInfo* meter,
                 kzdv::ErrorFrame& frame);

}  // namespace epho::pyramid

// The work on one layer stack: checks, (on the first call) replaces the
// file's levels with `n` empty ones, fills them level by level and records
// the algorithm name. *levels_changed tells the caller whether the file's
// levels were touched, so that a failure can leave it without levels.
Emsc_Boolean computeBinomialPyramid(const Etxt_Char* task, Eimg_LayerStack* stack,
                                    Emsc_Boolean first_call, Emet_MeterInfo* meter,
                                    Eint_InitToolkitData* init, bool* levels_changed,
                                    Eerr_ErrorReport** err);

#endif  // EPHO_PYRAMID_PYRAMID_INTERNAL_H_
