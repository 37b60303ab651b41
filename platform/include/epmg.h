/* epmg: preferences set by the host application.
 *
 * An in-memory store of named values by category. The library reads no
 * configuration file or environment variable: the host application (or the
 * epho tool's command line) sets what it wants. Thread-safe. */
#ifndef EPMG_H
#define EPMG_H

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

KZDV_BEGIN_C
/* The value stored for category/name, or `default_value` when none is. */
KZDV_EXPORT Emsc_Boolean epmg_GetBooleanPreference(const Etxt_Char* category, const Etxt_Char* name,
                                                   Emsc_Boolean default_value,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void epmg_SetBooleanPreference(const Etxt_Char* category, const Etxt_Char* name,
                                           Emsc_Boolean value) KZDV_NOEXCEPT;
KZDV_EXPORT double epmg_GetDoublePreference(const Etxt_Char* category, const Etxt_Char* name,
                                            double default_value,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void epmg_SetDoublePreference(const Etxt_Char* category, const Etxt_Char* name,
                                          double value) KZDV_NOEXCEPT;
/* Forgets every preference (back to defaults). */
KZDV_EXPORT void epmg_ClearPreferences(void) KZDV_NOEXCEPT;
KZDV_END_C

#endif /* EPMG_H */
