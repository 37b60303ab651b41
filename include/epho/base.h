/* Common ground of every exported header: the export macro, the toolkit's
 * error report, boolean and wide text. Exported functions report failure
 * through a trailing Eerr_ErrorReport** (null: the function prints its own
 * report and frees it); numeric kernels take no report and return a status.
 * No exported function lets a C++ exception out (they are noexcept to C++):
 * one that fails inside on exhausted memory or any other exception reports it
 * like any failure; one without a report argument prints the report and
 * returns its failure value (false, null, 0, its error status). */
#ifndef EPHO_BASE_H
#define EPHO_BASE_H

#include "eerr.h"
#include "emsc.h"
#include "etxt.h"
#include "kzdv_export.h"

#define EPHO_EXPORT KZDV_EXPORT

#endif /* EPHO_BASE_H */
