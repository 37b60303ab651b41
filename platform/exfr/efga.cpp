// Point matrices: column-major doubles on the toolkit heap.
#include "efga.h"

#include <cstring>

#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

extern "C" {

Efga_Matrix* efga_MatrixCreate(long numrows, long numcolumns, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"efga_MatrixCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(numrows < 1 || numcolumns < 1, frame, nullptr, L"Invalid matrix size %ld x %ld",
               numrows, numcolumns);
  const size_t cells = static_cast<size_t>(numrows) * static_cast<size_t>(numcolumns);
  EERR_FAIL_IF(cells / static_cast<size_t>(numcolumns) != static_cast<size_t>(numrows) ||
                   cells > (static_cast<size_t>(-1) / sizeof(double)),
               frame, nullptr, L"Invalid matrix size %ld x %ld", numrows, numcolumns);
  kzdv::HeapPtr<Efga_Matrix> m(static_cast<Efga_Matrix*>(emsc_HeapMalloc(sizeof(Efga_Matrix))));
  EERR_FAIL_IF(!m, frame, nullptr, L"Out of memory");
  m->data = static_cast<double*>(emsc_HeapCalloc(cells, sizeof(double)));
  EERR_FAIL_IF(!m->data, frame, nullptr, L"Out of memory");
  m->numrows = numrows;
  m->numcolumns = numcolumns;
  return m.release();
}
EERR_BOUNDARY(err, nullptr)

void efga_MatrixFree(Efga_Matrix* matrix) KZDV_NOEXCEPT {
  if (!matrix) return;
  emsc_HeapFree(matrix->data);
  emsc_HeapFree(matrix);
}

Efga_Matrix* efga_MatrixCopy(const Efga_Matrix* matrix, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"efga_MatrixCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!matrix || !matrix->data, frame, nullptr, L"No matrix to copy");
  Efga_Matrix* copy = efga_MatrixCreate(matrix->numrows, matrix->numcolumns, frame.Callee());
  EERR_CHECK(copy, frame, nullptr, L"efga_MatrixCreate failed");
  std::memcpy(copy->data, matrix->data,
              sizeof(double) * static_cast<size_t>(matrix->numrows) * matrix->numcolumns);
  return copy;
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
