/* ecvt: conversion between named linear and angular units.
 *
 * Known units (names compared ignoring case, singular or plural): meters,
 * kilometers, centimeters, millimeters, feet (international), us_survey_feet
 * ("US Survey Feet"), inches, yards, miles, nautical miles; radians, degrees,
 * gons/grads, arc minutes, arc seconds. */
#ifndef ECVT_H
#define ECVT_H

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

KZDV_BEGIN_C

/* Converts `count` values in place from unit `from` to unit `to`. Returns
 * EMSC_TRUE on success; on an unknown name or a linear/angular mix returns
 * EMSC_FALSE, stores a nonzero status and leaves the values unchanged. */
KZDV_EXPORT Emsc_Boolean ecvt_UnitsConvertByName(const Etxt_Char* from, const Etxt_Char* to,
                                                 long count, double* values,
                                                 long* status) KZDV_NOEXCEPT;
/* Factor that takes a value in `unit` to meters (linear) or radians (angular);
 * 0 for an unknown name. */
KZDV_EXPORT double ecvt_UnitFactor(const Etxt_Char* unit) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* ECVT_H */
