/* Angles and rotation matrices of the photogrammetric kernel.
 *
 * Angle triple: three doubles in radians (slots 0, 1, 2). Rotation matrix:
 * nine doubles, row-major (row i, column j in cell 3*i + j). Rotation-system
 * code: 0 and 1 are the two phi-first systems (slots phi, omega, kappa; code 0
 * negates the primary angle phi, code 1 keeps it); every other value,
 * negative ones included, is omega-phi-kappa (slots omega, phi, kappa).
 * All functions are pure, thread-safe and cannot fail. */
#ifndef EPHO_ANGLES_H
#define EPHO_ANGLES_H

#include "epho/base.h"

KZDV_BEGIN_C

/* Unit names recognised by epho_input2rad / epho_rad2input ("degrees", "gons").
 * Passing these pointers skips the string comparison. */
EPHO_EXPORT extern const Etxt_Char epho_DegreesUnitName[];
EPHO_EXPORT extern const Etxt_Char epho_GonsUnitName[];

/* degrees * pi/180. */
EPHO_EXPORT double epho_deg2rad(double degrees) KZDV_NOEXCEPT;
/* radians * 180/pi. */
EPHO_EXPORT double epho_rad2deg(double radians) KZDV_NOEXCEPT;
/* `value` in the named unit to radians. Only "degrees" and "gons" are known,
 * compared case-exactly; any other name (or null) means radians already. */
EPHO_EXPORT double epho_input2rad(double value, const Etxt_Char* unit) KZDV_NOEXCEPT;
/* Radians to the named unit, with the names and rules of epho_input2rad. */
EPHO_EXPORT double epho_rad2input(double radians, const Etxt_Char* unit) KZDV_NOEXCEPT;

/* Rotation matrix R (out) of the angle triple (in) in the system `code`.
 * R must not alias `angles` (the matrix is built in place in R). */
EPHO_EXPORT void epho_RotateAll(const double* angles, double* rotation, short code) KZDV_NOEXCEPT;
/* Angle triple (out) of the rotation matrix (in): the inverse of
 * epho_RotateAll for |secondary angle| < 90 degrees. No gimbal-lock test, no
 * clamping of the asin argument. */
EPHO_EXPORT void epho_GetAngleFromRotMatrix(double* angles, const double* rotation,
                                            short code) KZDV_NOEXCEPT;

/* Small angular offsets (longitude difference *offset_x, latitude difference
 * *offset_y, in `offset_unit`) at `latitude` (in `latitude_unit`) to chord
 * lengths on the ellipsoid (semi-major axis `semi_major` in meters,
 * eccentricity squared `ecc2`), in `linear_unit`. Angular names "degree(s)"
 * (case ignored) mean degrees, anything else radians; a linear unit other
 * than "meter(s)", null included, goes through ecvt_UnitsConvertByName (an
 * unknown or null name leaves meters and gives its failure, 0). Returns
 * nonzero for meters, otherwise the conversion's result; the offsets are
 * always written. */
EPHO_EXPORT Emsc_Boolean epho_Angular2LinearUnits(double latitude, const Etxt_Char* offset_unit,
                                                  double ecc2, double semi_major,
                                                  const Etxt_Char* latitude_unit,
                                                  const Etxt_Char* linear_unit, double* offset_x,
                                                  double* offset_y) KZDV_NOEXCEPT;
/* The inverse: ground lengths (*offset_x along the parallel, *offset_y along
 * the meridian, in `linear_unit`) to angular offsets in `angular_unit`, which
 * also gives the unit of `latitude`. `unused_unit` is not consulted. A linear
 * unit other than "meter(s)" is scaled by the meters-to-unit factor (the same
 * direction as epho_Angular2LinearUnits, by design). Returns nonzero when the
 * angular unit is "degree(s)", else 0. */
EPHO_EXPORT Emsc_Boolean epho_Linear2AngularUnits(double latitude, const Etxt_Char* unused_unit,
                                                  double ecc2, double semi_major,
                                                  const Etxt_Char* linear_unit,
                                                  const Etxt_Char* angular_unit, double* offset_x,
                                                  double* offset_y) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_ANGLES_H */
