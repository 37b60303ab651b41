// Four-lane (AVX2) bodies of the batch collinearity: the template of
// collinearity_lanes_internal.h on 256-bit vectors. No fused multiply-add,
// so the results equal the two-lane bodies' and the per-point functions'.
#include "epho/kernel/collinearity_batch_internal.h"

#if defined(__x86_64__)

// Every function below is compiled for AVX2 (gcc and clang spell it apart).
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

#define EPHO_COLL_NS lanes4
#include "epho/kernel/collinearity_lanes_internal.h"

namespace epho::kernel {

namespace {
typedef double V4 __attribute__((vector_size(32)));
}  // namespace

int32_t ForwardLanes4(const LanePlan& plan, int32_t count, const double* X, const double* Y,
                      const double* Z, double* x, double* y, uint8_t* failed) {
  return lanes4::ForwardAny<V4, 4>(plan, count, X, Y, Z, x, y, failed);
}

void RemoveLensLanes4(const LanePlan& plan, int32_t count, const double* x, const double* y,
                      double* ix, double* iy) {
  lanes4::RemoveLensAny<V4, 4>(plan, count, x, y, ix, iy);
}

int32_t IntersectLanes4(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                        double* iy, uint8_t* failed) {
  return lanes4::IntersectAny<V4, 4>(m, mode, count, h, ix, iy, failed);
}

}  // namespace epho::kernel

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif  // __x86_64__
