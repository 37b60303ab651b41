/* Planar transforms fitted between two point sets (for example film
 * coordinates and scanned-image pixels). Point lists are n consecutive (x, y)
 * pairs of doubles; source and target hold the same n points. Pure
 * computations: no error report, no allocation, thread-safe; results are
 * return codes (degenerate sets that do not hit a code yield Inf/NaN). A null
 * point list or output counts as too few points.
 *
 * Coefficient layouts used here (note: OFFSET FIRST, unlike the camera
 * record's affine x' = c0*x + c1*y + c2, which puts the offset last):
 *   similarity  (tx, ty, scale, angle_radians):
 *               X = tx + scale*(cos a*x - sin a*y), Y = ty + scale*(sin a*x + cos a*y)
 *   offset-first affine a0..a5:  X = a0 + a1*x + a2*y,  Y = a3 + a4*x + a5*y;
 *               identity (0, 1, 0, 0, 0, 1)
 *   projective a0..a7:  X = (a0 + a1*x + a2*y) / (1 + a6*x + a7*y),
 *                       Y = (a3 + a4*x + a5*y) / (1 + a6*x + a7*y) */
#ifndef EPHO_PLANAR_H
#define EPHO_PLANAR_H

#include <stdint.h>

#include "epho/base.h"

KZDV_BEGIN_C

/* Similarity anchored at the first point: angle from the summed cross and dot
 * products of the differences to point 0, scale = ratio of the spreads about
 * point 0 (not the least-squares scale), shifts through the means.
 * EMSC_TRUE when n < 2. */
EPHO_EXPORT Emsc_Boolean epho_Similar(int32_t n, const double* source_xy, const double* target_xy,
                                      double* similarity_tx_ty_scale_angle) KZDV_NOEXCEPT;

/* Least-squares offset-first affine (n == 2: the similarity, no shear).
 * Returns 0 on success, 1 when n < 2 (output untouched), 2 when the normal
 * matrix is singular: the output then holds the right-hand sums that were
 * accumulated in it (sum X, x*X, y*X, Y, x*Y, y*Y), not a transform. */
EPHO_EXPORT int32_t epho_Affine(int32_t n, const double* source_xy, const double* target_xy,
                                double* offset_first_affine) KZDV_NOEXCEPT;

/* Linearised least-squares projective transform (8 coefficients).
 * Returns 0 on success, 1 when n < 4, 2 when the normal matrix of the affine
 * part is singular; a singular 2x2 perspective block yields Inf/NaN. */
EPHO_EXPORT int32_t epho_Perspect(int32_t n, const double* source_xy, const double* target_xy,
                                  double* projective_coefficients) KZDV_NOEXCEPT;

/* Replaces an offset-first affine by its inverse transform; EMSC_TRUE (and
 * unchanged) when a1*a5 - a4*a2 is 0.0. */
EPHO_EXPORT Emsc_Boolean epho_ReverseAffine(double* offset_first_affine) KZDV_NOEXCEPT;

/* Bounding box (x0, y0, x1, y1) of a rectangle's four corners mapped by an
 * offset-first affine, each coordinate moved outwards by one: truncated
 * towards zero, then -1 when the mapped value is <= 0 and +1 when it is > 0
 * (so 0.5 gives 1, -0.5 gives -1; saturated to the 32-bit range, NaN gives
 * the minimum). Returns rect_out. */
EPHO_EXPORT int32_t* epho_GetNewBondingBox(const int32_t* rect_in,
                                           const double* offset_first_affine,
                                           int32_t* rect_out) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_PLANAR_H */
