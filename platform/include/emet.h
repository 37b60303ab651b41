/* emet: the progress meter of long work.
 *
 * On a terminal the meter draws a progress bar with the task name; otherwise
 * (a pipe, a log file) it prints a plain line at each whole 10 percent. A host
 * application may install its own sink. Cancelling is cooperative: the work
 * asks emet_MeterInfoCancelled between steps. */
#ifndef EMET_H
#define EMET_H

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

typedef struct Emet_MeterInfo Emet_MeterInfo;

/* Receives every update (task, percent 0..100); replaces console drawing. */
typedef void (*Emet_Sink)(const Etxt_Char* task, double percent, void* context);

KZDV_BEGIN_C
/* A meter that writes to standard error (null with a report on failure). */
KZDV_EXPORT Emet_MeterInfo* emet_MeterInfoCreate(const Etxt_Char* task,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A meter that hands updates to `sink` instead of the console. */
KZDV_EXPORT Emet_MeterInfo* emet_MeterInfoCreateWithSink(const Etxt_Char* task, Emet_Sink sink,
                                                         void* context,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void emet_MeterInfoDelete(Emet_MeterInfo* meter) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean emet_MeterInfoChangeTaskName(Emet_MeterInfo* meter, const Etxt_Char* task,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Shows `percent` (clamped to 0..100). A null meter is accepted and ignored. */
KZDV_EXPORT Emsc_Boolean emet_MeterInfoPrint(Emet_MeterInfo* meter, double percent,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Asks the work to stop; safe from another thread or a signal handler. */
KZDV_EXPORT void emet_MeterInfoCancel(Emet_MeterInfo* meter) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean emet_MeterInfoCancelled(const Emet_MeterInfo* meter) KZDV_NOEXCEPT;
KZDV_END_C

#endif /* EMET_H */
