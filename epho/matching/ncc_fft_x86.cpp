// AVX2 body of the transform-domain correlation: the portable method on
// 8-lane vectors (no fused multiply-add, so the results equal the portable
// body's bit for bit).
#include "epho/matching/ncc_fft_internal.h"

#if defined(__x86_64__)
#pragma GCC push_options
#pragma GCC target("avx2")
#define EPHO_FFT_NS avx2
#include "epho/matching/fft_lanes_internal.h"

namespace epho_ncc {

void CorrelateFftAvx2(const FftPlan& plan, float* re, float* im) {
  typedef float V8 __attribute__((vector_size(32)));
  avx2::Correlate<V8, 8>(plan, re, im);
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

}  // namespace epho_ncc
#pragma GCC pop_options
#endif
