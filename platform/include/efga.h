/* efga: the toolkit's point matrix.
 *
 * A matrix of doubles stored column by column: element (row, column) is
 * data[column * numrows + row]. A batch of n planar points is a 2 x n matrix,
 * so its data are the consecutive (x, y) pairs of the points; n 3D points are
 * a 3 x n matrix of (x, y, z) triples. Matrices come from the toolkit heap;
 * not thread-safe (one owner at a time). */
#ifndef EFGA_H
#define EFGA_H

#include <stddef.h>

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

typedef struct Efga_Matrix {
  long numrows;
  long numcolumns;
  double* data; /* numrows * numcolumns doubles, column-major */
} Efga_Matrix;

/* Element (row, column) of a matrix (no bounds check). */
#define EFGA_MATRIX_AT(m, row, column) \
  ((m)->data[(size_t)(column) * (size_t)(m)->numrows + (size_t)(row)])

KZDV_BEGIN_C

/* A zero-filled numrows x numcolumns matrix. Both sizes must be at least 1.
 * Null with a report naming "efga_MatrixCreate" on bad sizes or exhaustion. */
KZDV_EXPORT Efga_Matrix* efga_MatrixCreate(long numrows, long numcolumns,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees a matrix and its data; null is ignored. */
KZDV_EXPORT void efga_MatrixFree(Efga_Matrix* matrix) KZDV_NOEXCEPT;
/* A deep copy, or null with a report. */
KZDV_EXPORT Efga_Matrix* efga_MatrixCopy(const Efga_Matrix* matrix,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EFGA_H */
