// Bodies of the batch collinearity written once over a vector of L doubles
// (compiler vector extensions) and compiled per width: include only from
// collinearity_batch.cpp and collinearity_batch_x86.cpp, each with its own
// EPHO_COLL_NS so that the two builds never share a symbol.
//
// Every expression repeats the per-point functions' operations in their
// order (left to right, products before sums, nothing fused: the library is
// built with -ffp-contract=off), and a lane does exactly the scalar
// operation, so each point's result is the per-point result bit for bit.
#ifndef EPHO_COLL_NS
#error "define EPHO_COLL_NS before including collinearity_lanes_internal.h"
#endif

#include <cstdint>
#include <cstring>
#include <limits>

#include "epho/kernel/collinearity_batch_internal.h"

namespace epho::kernel {
namespace EPHO_COLL_NS {

template <class V>
inline V Load(const double* p) {
  V v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <class V>
inline void Store(double* p, V v) {
  std::memcpy(p, &v, sizeof v);
}

// The lens distortion (dx, dy) at film (x, y), as epho_CameraAwayDistortion
// evaluates the two models.
template <class V>
inline void Distortion(LensForm form, const double* c, V x, V y, V* dx, V* dy) {
  if (form == LensForm::kRadial) {
    const V r2 = x * x + y * y;
    const V f = c[0] + c[1] * r2 + c[2] * r2 * r2;
    *dx = x * f;
    *dy = y * f;
  } else {  // kBrown
    const V r2 = x * x + y * y;
    const V R = c[4] * r2 + c[5] * r2 * r2 + c[6] * r2 * r2 * r2;
    *dx = -(x * R + (2.0 * x * x + r2) * c[7] + 2.0 * x * y * c[8] + c[9] * x + c[10] * y);
    *dy = -(y * R + (2.0 * y * y + r2) * c[8] + 2.0 * x * y * c[7]);
  }
}

template <class V, int L, LensForm kForm, bool kFlags>
int32_t Forward(const double* m, const double* c, int32_t count, const double* __restrict X,
                const double* __restrict Y, const double* __restrict Z, double* __restrict x,
                double* __restrict y, uint8_t* __restrict failed) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const V vnan = V{} + nan, zero = V{};
  int32_t bad = 0;
  for (int32_t i = 0; i + L <= count; i += L) {
    const V gx = Load<V>(X + i), gy = Load<V>(Y + i), gz = Load<V>(Z + i);
    const V w = m[0] + m[1] * gx + m[2] * gy + m[3] * gz;
    V u = (m[4] + m[5] * gx + m[6] * gy + m[7] * gz) / w;
    V v = (m[8] + m[9] * gx + m[10] * gy + m[11] * gz) / w;
    if (kForm == LensForm::kRadial || kForm == LensForm::kBrown) {
      V dx, dy;
      Distortion(kForm, c, u, v, &dx, &dy);
      u = u + dx;
      v = v + dy;
    }
    const auto flat = w == zero;
    Store(x + i, flat ? vnan : u);
    Store(y + i, flat ? vnan : v);
    for (int l = 0; l < L; ++l) {
      bad += flat[l] != 0;
      if (kFlags) failed[i + l] = flat[l] != 0;
    }
  }
  return bad;
}

template <class V, int L>
int32_t ForwardAny(const LanePlan& p, int32_t count, const double* X, const double* Y,
                   const double* Z, double* x, double* y, uint8_t* failed) {
  switch (p.lens) {
    case LensForm::kRadial:
      return failed
                 ? Forward<V, L, LensForm::kRadial, true>(p.m, p.c, count, X, Y, Z, x, y, failed)
                 : Forward<V, L, LensForm::kRadial, false>(p.m, p.c, count, X, Y, Z, x, y, nullptr);
    case LensForm::kBrown:
      return failed
                 ? Forward<V, L, LensForm::kBrown, true>(p.m, p.c, count, X, Y, Z, x, y, failed)
                 : Forward<V, L, LensForm::kBrown, false>(p.m, p.c, count, X, Y, Z, x, y, nullptr);
    default:
      return failed
                 ? Forward<V, L, LensForm::kNone, true>(p.m, p.c, count, X, Y, Z, x, y, failed)
                 : Forward<V, L, LensForm::kNone, false>(p.m, p.c, count, X, Y, Z, x, y, nullptr);
  }
}

template <class V, int L, LensForm kForm>
void RemoveLens(const double* c, int32_t count, const double* __restrict x,
                const double* __restrict y, double* __restrict ix, double* __restrict iy) {
  for (int32_t i = 0; i + L <= count; i += L) {
    const V u = Load<V>(x + i), v = Load<V>(y + i);
    V dx, dy;
    Distortion(kForm, c, u, v, &dx, &dy);
    Store(ix + i, u - dx);
    Store(iy + i, v - dy);
  }
}

template <class V, int L>
void RemoveLensAny(const LanePlan& p, int32_t count, const double* x, const double* y, double* ix,
                   double* iy) {
  if (p.lens == LensForm::kRadial)
    RemoveLens<V, L, LensForm::kRadial>(p.c, count, x, y, ix, iy);
  else if (p.lens == LensForm::kBrown)
    RemoveLens<V, L, LensForm::kBrown>(p.c, count, x, y, ix, iy);
}

// The operations of epho_CameraImageAndZToXY: per row (A, B, C) for the two
// unknowns, then row1 - x row0 and row2 - y row0, Cramer's rule.
template <class V, int L, bool kHeightIsY, bool kFlags>
int32_t Intersect(const double* m, int32_t count, const double* __restrict h, double* __restrict ix,
                  double* __restrict iy, uint8_t* __restrict failed) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const V vnan = V{} + nan, zero = V{};
  const double A0 = m[1], A1 = m[5], A2 = m[9];
  const double B0 = kHeightIsY ? m[3] : m[2], B1 = kHeightIsY ? m[7] : m[6],
               B2 = kHeightIsY ? m[11] : m[10];
  const double K0 = kHeightIsY ? m[2] : m[3], K1 = kHeightIsY ? m[6] : m[7],
               K2 = kHeightIsY ? m[10] : m[11];
  int32_t bad = 0;
  for (int32_t i = 0; i + L <= count; i += L) {
    const V u = Load<V>(ix + i), v = Load<V>(iy + i), z = Load<V>(h + i);
    const V C0 = kHeightIsY ? m[0] - K0 * z : m[0] + K0 * z;
    const V C1 = kHeightIsY ? m[4] - K1 * z : m[4] + K1 * z;
    const V C2 = kHeightIsY ? m[8] - K2 * z : m[8] + K2 * z;
    const V a1 = A1 - u * A0, b1 = B1 - u * B0, c1 = C1 - u * C0;
    const V a2 = A2 - v * A0, b2 = B2 - v * B0, c2 = C2 - v * C0;
    const V det = a1 * b2 - a2 * b1;
    const V s = (b1 * c2 - b2 * c1) / det, t = (a2 * c1 - a1 * c2) / det;
    const auto flat = det == zero;
    Store(ix + i, flat ? vnan : s);
    Store(iy + i, flat ? vnan : t);
    for (int l = 0; l < L; ++l) {
      bad += flat[l] != 0;
      if (kFlags) failed[i + l] = flat[l] != 0;
    }
  }
  return bad;
}

template <class V, int L>
int32_t IntersectAny(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                     double* iy, uint8_t* failed) {
  if (mode == 1)
    return failed ? Intersect<V, L, true, true>(m, count, h, ix, iy, failed)
                  : Intersect<V, L, true, false>(m, count, h, ix, iy, nullptr);
  return failed ? Intersect<V, L, false, true>(m, count, h, ix, iy, failed)
                : Intersect<V, L, false, false>(m, count, h, ix, iy, nullptr);
}

}  // namespace EPHO_COLL_NS
}  // namespace epho::kernel
