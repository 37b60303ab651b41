// Symmetric solvers on row-offset storage (full or packed upper triangle, any
// active sub-block), used by the bundle adjustment's normal equations. Pivots
// are applied as reciprocals.
#include "epho/kernel/solvers_ldl_internal.h"
#include "epho/solvers.h"

namespace {

using epho::ldl::Pivot;
using epho::ldl::TableRows;

// An empty block is a finished no-op; a negative start or a missing array is
// refused like a singular matrix rather than read out of bounds.
enum class Block { kEmpty, kValid, kInvalid };

Block CheckBlock(const double* a, const uint32_t* rows, int32_t first, int32_t end) {
  if (a == nullptr || rows == nullptr || first < 0) return Block::kInvalid;
  return end <= first ? Block::kEmpty : Block::kValid;
}

}  // namespace

extern "C" {

Emsc_Boolean epho_Resolve1D(double* a, const uint32_t* rows, int32_t first,
                            int32_t end) KZDV_NOEXCEPT {
  const Block block = CheckBlock(a, rows, first, end);
  if (block != Block::kValid) return block == Block::kEmpty ? EMSC_FALSE : EMSC_TRUE;
  return epho::ldl::Factor<Pivot::kReciprocal>(a, TableRows{rows}, first, end) ? EMSC_TRUE
                                                                               : EMSC_FALSE;
}

Emsc_Boolean epho_Solution1D(const double* a, const uint32_t* rows, int32_t first, int32_t end,
                             double* b) KZDV_NOEXCEPT {
  const Block block = CheckBlock(a, rows, first, end);
  if (block != Block::kValid || b == nullptr) {
    return block == Block::kEmpty ? EMSC_FALSE : EMSC_TRUE;
  }
  return epho::ldl::Solve(a, TableRows{rows}, first, end, b) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean epho_Inverld1D(double* a, const uint32_t* rows, int32_t first,
                            int32_t end) KZDV_NOEXCEPT {
  const Block block = CheckBlock(a, rows, first, end);
  if (block != Block::kValid) return block == Block::kEmpty ? EMSC_FALSE : EMSC_TRUE;
  return epho::ldl::Invert(a, TableRows{rows}, first, end) ? EMSC_TRUE : EMSC_FALSE;
}

}  // extern "C"
