/* eint: the toolkit initialisation handle that file and image calls take.
 * The handle carries no state of its own today; it exists so that calls keep
 * the toolkit's signatures. */
#ifndef EINT_H
#define EINT_H

#include "eerr.h"
#include "kzdv_export.h"

typedef struct Eint_InitToolkitData Eint_InitToolkitData;

KZDV_BEGIN_C
/* The process-wide handle (created on first use; never null). */
KZDV_EXPORT Eint_InitToolkitData* eint_GetInit(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_END_C

#endif /* EINT_H */
