/* edom: dense matrix routines of the model library (Eigen underneath).
 *
 * Matrices are row-major arrays of doubles; sizes are counts of rows and
 * columns. The routines take no error report and return EMSC_TRUE on success;
 * outputs may not alias inputs unless stated. Pure and thread-safe. */
#ifndef EDOM_H
#define EDOM_H

#include "emsc.h"
#include "kzdv_export.h"

KZDV_BEGIN_C

/* Inverse of the n x n matrix `a` into `inverse` (may alias `a`). Fails
 * (EMSC_FALSE, `inverse` untouched) when n < 1, an entry is not finite, or
 * the matrix is singular: reciprocal condition below 1e-14 by the pivoted LU. */
KZDV_EXPORT Emsc_Boolean edom_MatrixInv(long n, const double* a, double* inverse) KZDV_NOEXCEPT;
/* Solves a·x = b for x (n x n matrix, b and x of n x m; x may alias b) with
 * the same singularity rule. */
KZDV_EXPORT Emsc_Boolean edom_MatrixSolve(long n, long m, const double* a, const double* b,
                                          double* x) KZDV_NOEXCEPT;
/* Solves the symmetric positive-definite normal equations n·x = b by
 * Cholesky (x may alias b); fails when n is not positive definite. */
KZDV_EXPORT Emsc_Boolean edom_SymmetricSolve(long n, const double* normal, const double* b,
                                             double* x) KZDV_NOEXCEPT;
/* c = a·b with a of r x k and b of k x c_cols; c must not alias. */
KZDV_EXPORT Emsc_Boolean edom_MatrixMultiply(long rows, long inner, long columns, const double* a,
                                             const double* b, double* c) KZDV_NOEXCEPT;
/* t = aᵀ (a of rows x columns); t must not alias. */
KZDV_EXPORT Emsc_Boolean edom_MatrixTranspose(long rows, long columns, const double* a,
                                              double* t) KZDV_NOEXCEPT;
/* Determinant of an n x n matrix (0 for n < 1). */
KZDV_EXPORT double edom_MatrixDet(long n, const double* a) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EDOM_H */
