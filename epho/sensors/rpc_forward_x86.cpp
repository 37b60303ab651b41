// The 256-bit body of the RPC forward functions: four points per vector, the
// portable body's operations in its order in each lane (multiplies and adds,
// never fused), so the pixels are bit-identical to it.
#include "epho/sensors/sensors_internal.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace epho::sensors {

namespace {

__attribute__((target("avx2"))) inline __m256d Dot20(const __m256d* c, const __m256d* t) {
  __m256d s = c[0];
  for (int k = 1; k < 20; ++k) s = _mm256_add_pd(s, _mm256_mul_pd(c[k], t[k]));
  return s;
}

}  // namespace

__attribute__((target("avx2"))) long RpcForwardAvx2(const RpcForward& f, long count,
                                                    const double* ground_xyz, double* image_xy) {
  // The 80 coefficients broadcast once per batch (2.5 KB, first-level cache).
  alignas(32) __m256d coef[80];
  for (int k = 0; k < 80; ++k) coef[k] = _mm256_set1_pd(f.coef[k]);
  const __m256d lon_off = _mm256_set1_pd(f.lon_off), lat_off = _mm256_set1_pd(f.lat_off),
                h_off = _mm256_set1_pd(f.h_off), lon_k = _mm256_set1_pd(f.lon_k),
                lat_k = _mm256_set1_pd(f.lat_k), h_k = _mm256_set1_pd(f.h_k);
  const __m256d line_off = _mm256_set1_pd(f.line_off), samp_off = _mm256_set1_pd(f.samp_off),
                line_scale = _mm256_set1_pd(f.line_scale),
                samp_scale = _mm256_set1_pd(f.samp_scale);
  const long groups = count / 4;
  for (long q = 0; q < groups; ++q) {
    const double* g = ground_xyz + 12 * q;
    const __m256d x = _mm256_set_pd(g[9], g[6], g[3], g[0]);
    const __m256d y = _mm256_set_pd(g[10], g[7], g[4], g[1]);
    const __m256d z = _mm256_set_pd(g[11], g[8], g[5], g[2]);
    const __m256d l = _mm256_mul_pd(_mm256_sub_pd(x, lon_off), lon_k);
    const __m256d p = _mm256_mul_pd(_mm256_sub_pd(y, lat_off), lat_k);
    const __m256d h = _mm256_mul_pd(_mm256_sub_pd(z, h_off), h_k);
    const __m256d lh = _mm256_mul_pd(l, h), ll = _mm256_mul_pd(l, l), pp = _mm256_mul_pd(p, p),
                  hh = _mm256_mul_pd(h, h);
    const __m256d t[20] = {_mm256_set1_pd(1.0),
                           l,
                           p,
                           h,
                           _mm256_mul_pd(l, p),
                           lh,
                           _mm256_mul_pd(p, h),
                           ll,
                           pp,
                           hh,
                           _mm256_mul_pd(p, lh),
                           _mm256_mul_pd(l, ll),
                           _mm256_mul_pd(l, pp),
                           _mm256_mul_pd(l, hh),
                           _mm256_mul_pd(ll, p),
                           _mm256_mul_pd(p, pp),
                           _mm256_mul_pd(p, hh),
                           _mm256_mul_pd(ll, h),
                           _mm256_mul_pd(pp, h),
                           _mm256_mul_pd(h, hh)};
    const __m256d line = _mm256_add_pd(
        _mm256_mul_pd(_mm256_div_pd(Dot20(coef, t), Dot20(coef + 20, t)), line_scale), line_off);
    const __m256d samp = _mm256_add_pd(
        _mm256_mul_pd(_mm256_div_pd(Dot20(coef + 40, t), Dot20(coef + 60, t)), samp_scale),
        samp_off);
    // (s0 l0 s2 l2), (s1 l1 s3 l3) -> (s0 l0 s1 l1), (s2 l2 s3 l3)
    const __m256d lo = _mm256_unpacklo_pd(samp, line), hi = _mm256_unpackhi_pd(samp, line);
    _mm256_storeu_pd(image_xy + 8 * q, _mm256_permute2f128_pd(lo, hi, 0x20));
    _mm256_storeu_pd(image_xy + 8 * q + 4, _mm256_permute2f128_pd(lo, hi, 0x31));
  }
  return 4 * groups;
}

}  // namespace epho::sensors

#else

namespace epho::sensors {
long RpcForwardAvx2(const RpcForward&, long, const double*, double*) { return 0; }
}  // namespace epho::sensors

#endif
