/* Dense inverses and normal-equation solvers for least-squares adjustments.
 *
 * Every routine works in place on row-major doubles, allocates nothing, takes
 * no error report and is thread-safe on distinct arrays. Result: EMSC_FALSE
 * (0) when done, EMSC_TRUE (1) when a pivot or determinant is exactly 0.0 (a
 * tiny or NaN pivot is accepted; no pivoting, so a zero first diagonal fails
 * even for an invertible matrix). On failure the matrix is lost (partly
 * overwritten), except for the two 3x3 inverses, which leave it unchanged.
 *
 * The symmetric solvers use the square-root-free factor A = U^T D U (U unit
 * upper triangular): after a Resolve call the diagonal holds D and the cells
 * above it hold U; only the diagonal and upper triangle are read or written.
 * Calling order: Resolve, then any number of Solution calls, and/or one
 * Inverld (which replaces the factor by the upper triangle of the inverse). */
#ifndef EPHO_SOLVERS_H
#define EPHO_SOLVERS_H

#include <stdint.h>

#include "epho/base.h"

KZDV_BEGIN_C

/* Inverse of a general 3x3 matrix (9 doubles, row-major) by its adjugate;
 * unchanged when the determinant is 0.0. */
EPHO_EXPORT Emsc_Boolean epho_Com_Reverse3(double* matrix3x3) KZDV_NOEXCEPT;

/* Inverse of a symmetric 3x3 matrix: reads only the upper triangle (cells 0,
 * 1, 2, 4, 5, 8) and writes all nine cells; unchanged when det is 0.0. */
EPHO_EXPORT Emsc_Boolean epho_Reverse3S(double* matrix3x3) KZDV_NOEXCEPT;

/* 8x8 family (stride 8, e.g. least-squares correlation): factor in place,
 * solve A x = b (x replaces b[0..7]), or turn the factor into the upper
 * triangle of the inverse. Pivots are divided by. */
EPHO_EXPORT Emsc_Boolean epho_Resolve8(double* matrix8x8) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Solution8(const double* factor8x8, double* rhs8) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Inverld8(double* factor8x8) KZDV_NOEXCEPT;

/* Row-offset family: element (i, j), j >= i, lies at a[rows[i] + j], so one
 * routine serves full storage (rows[i] = i*n) and the packed upper triangle
 * (rows[i] = start of row i's diagonal minus i). Only the active block
 * [first, end) is used; the right-hand side is b[first..end-1] (x replaces
 * it). Pivots are applied as reciprocals. An empty block (end <= first) is
 * a no-op returning EMSC_FALSE; a negative first or a null array is refused
 * with EMSC_TRUE. */
EPHO_EXPORT Emsc_Boolean epho_Resolve1D(double* a, const uint32_t* rows, int32_t first,
                                        int32_t end) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Solution1D(const double* a, const uint32_t* rows, int32_t first,
                                         int32_t end, double* b) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Inverld1D(double* a, const uint32_t* rows, int32_t first,
                                        int32_t end) KZDV_NOEXCEPT;

/* One-call inverse of the leading n x n block of a symmetric matrix stored
 * with row stride 6; result in the upper triangle, the strictly lower
 * triangle is left untouched. n > 6 cannot fit the rows and is refused
 * (EMSC_TRUE, nothing written); n <= 0 is a no-op. */
EPHO_EXPORT Emsc_Boolean epho_Inver6x6(double* matrix6, int32_t n) KZDV_NOEXCEPT;

/* One-call inverse of a symmetric n x n matrix (stride n); the result is the
 * full symmetric inverse (upper triangle mirrored into the lower). n <= 0 is
 * a no-op. */
EPHO_EXPORT Emsc_Boolean epho_InverNxN(double* matrix, int32_t n) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_SOLVERS_H */
