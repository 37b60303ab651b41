// Symmetric solvers on full row-major storage of fixed stride: the 8x8 factor
// family of least-squares correlation and the one-call 6x6 and n x n inverses.
// Pivots are divided by.
#include "epho/kernel/solvers_ldl_internal.h"
#include "epho/solvers.h"

namespace {

using epho::ldl::Pivot;
using epho::ldl::StrideRows;

constexpr StrideRows kRows8{8};

}  // namespace

extern "C" {

Emsc_Boolean epho_Resolve8(double* a) KZDV_NOEXCEPT {
  return epho::ldl::Factor<Pivot::kDivide>(a, kRows8, 0, 8) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean epho_Solution8(const double* a, double* b) KZDV_NOEXCEPT {
  return epho::ldl::Solve(a, kRows8, 0, 8, b) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean epho_Inverld8(double* a) KZDV_NOEXCEPT {
  return epho::ldl::Invert(a, kRows8, 0, 8) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean epho_Inver6x6(double* a, int32_t n) KZDV_NOEXCEPT {
  if (n <= 0) return EMSC_FALSE;  // empty block: nothing to invert
  if (n > 6) return EMSC_TRUE;    // rows of six cannot hold a larger block
  const StrideRows rows{6};
  if (epho::ldl::Factor<Pivot::kDivide>(a, rows, 0, n)) return EMSC_TRUE;
  return epho::ldl::Invert(a, rows, 0, n) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean epho_InverNxN(double* a, int32_t n) KZDV_NOEXCEPT {
  if (n <= 0) return EMSC_FALSE;
  const StrideRows rows{static_cast<std::size_t>(n)};
  if (epho::ldl::Factor<Pivot::kDivide>(a, rows, 0, n)) return EMSC_TRUE;
  if (epho::ldl::Invert(a, rows, 0, n)) return EMSC_TRUE;
  for (int i = 0; i < n; ++i) {
    for (int j = i + 1; j < n; ++j) a[rows[j] + i] = a[rows[i] + j];
  }
  return EMSC_FALSE;
}

}  // extern "C"
