// Portable body of the transform-domain correlation: 4-lane vectors (SSE2 on
// x86-64, the compiler's own lowering elsewhere).
#define EPHO_FFT_NS portable
#include "epho/matching/fft_lanes_internal.h"

namespace epho::matching {

void CorrelateFftPortable(const FftPlan& plan, float* re, float* im, int rows) {
  typedef float V4 __attribute__((vector_size(16)));
  portable::Correlate<V4, 4>(plan, re, im, rows);
}

void SpectrumFftPortable(const FftPlan& plan, float* re, float* im) {
  typedef float V4 __attribute__((vector_size(16)));
  portable::Spectrum<V4, 4>(plan, re, im);
}

void CorrelatePairFftPortable(const FftPlan& plan, float* re, float* im, const float* sr,
                              const float* si) {
  typedef float V4 __attribute__((vector_size(16)));
  portable::CorrelatePair<V4, 4>(plan, re, im, sr, si);
}

}  // namespace epho::matching
