// AVX2 body of the transform-domain correlation: the portable method on
// 8-lane vectors (no fused multiply-add, so the results equal the portable
// body's bit for bit).
#include "epho/matching/ncc_fft_internal.h"

#if defined(__x86_64__)
#include <immintrin.h>

#include <cstddef>

// Every function below is compiled for AVX2 (gcc and clang spell it apart).
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace epho::matching {
namespace {

// Rows <-> lanes for the horizontal passes: 2 x 8 rows of `columns` floats
// (row stride `stride`) to `columns` elements of 16 lanes (to_lanes), or
// back. Moves data only, so the results equal the portable gather's.
inline void Transpose8x8(__m256* r) {
  const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
  const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
  const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
  const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
  const __m256 u0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 u1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 u2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 u3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 u4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 u5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 u6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 u7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
  r[0] = _mm256_permute2f128_ps(u0, u4, 0x20);
  r[1] = _mm256_permute2f128_ps(u1, u5, 0x20);
  r[2] = _mm256_permute2f128_ps(u2, u6, 0x20);
  r[3] = _mm256_permute2f128_ps(u3, u7, 0x20);
  r[4] = _mm256_permute2f128_ps(u0, u4, 0x31);
  r[5] = _mm256_permute2f128_ps(u1, u5, 0x31);
  r[6] = _mm256_permute2f128_ps(u2, u6, 0x31);
  r[7] = _mm256_permute2f128_ps(u3, u7, 0x31);
}

void RowsToLanes(float* rows, std::size_t stride, float* lanes, int width, int columns,
                 bool to_lanes) {
  __m256 r[8];
  for (int g = 0; g < width; g += 8)
    for (int c0 = 0; c0 < columns; c0 += 8) {
      if (to_lanes) {
        for (int l = 0; l < 8; ++l) r[l] = _mm256_loadu_ps(rows + (g + l) * stride + c0);
        Transpose8x8(r);
        for (int k = 0; k < 8; ++k) _mm256_storeu_ps(lanes + (c0 + k) * width + g, r[k]);
      } else {
        for (int k = 0; k < 8; ++k) r[k] = _mm256_loadu_ps(lanes + (c0 + k) * width + g);
        Transpose8x8(r);
        for (int l = 0; l < 8; ++l) _mm256_storeu_ps(rows + (g + l) * stride + c0, r[l]);
      }
    }
}

}  // namespace
}  // namespace epho::matching

#define EPHO_FFT_TRANSPOSE8 RowsToLanes
#define EPHO_FFT_NS avx2
#include "epho/matching/fft_lanes_internal.h"

namespace epho::matching {

void CorrelateFftAvx2(const FftPlan& plan, float* re, float* im, int rows) {
  typedef float V8 __attribute__((vector_size(32)));
  avx2::Correlate<V8, 8>(plan, re, im, rows);
}

void SpectrumFftAvx2(const FftPlan& plan, float* re, float* im) {
  typedef float V8 __attribute__((vector_size(32)));
  avx2::Spectrum<V8, 8>(plan, re, im);
}

void CorrelatePairFftAvx2(const FftPlan& plan, float* re, float* im, const float* sr,
                          const float* si) {
  typedef float V8 __attribute__((vector_size(32)));
  avx2::CorrelatePair<V8, 8>(plan, re, im, sr, si);
}

}  // namespace epho::matching
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif
