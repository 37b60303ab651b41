// The transform-domain correlation used by the template search for large
// templates: the plan (sizes and tables, all in the caller's scratch) and
// one body per vector path. See fft_lanes_internal.h for the method.
#ifndef EPHO_MATCHING_NCC_FFT_INTERNAL_H_
#define EPHO_MATCHING_NCC_FFT_INTERNAL_H_

#include <cstdint>

namespace epho::matching {

constexpr int kFftMaxLanes = 8;

struct FftPlan {
  int nr, nc;               // transform size, powers of two, >= kFftMaxLanes
  const float* twiddle_r;   // cos, sin of -2 pi k / nr, k < nr / 2, interleaved
  const float* twiddle_c;   // the same for nc
  const int32_t* negate_r;  // bit-reversed position of -k for the one of k
  const int32_t* negate_c;
  float* strip;  // 2 * max(nr, nc) * kFftMaxLanes floats
};

// re holds the search area, im the template, both nr x nc (row stride nc),
// zero-padded; on return nr * nc times sum T(r, c) A(y + r, x + c) at (x, y)
// for y < rows (rows <= nr): rows 2m in row m of re, rows 2m + 1 in row m of
// im. Bit-identical on both bodies.
void CorrelateFftPortable(const FftPlan& plan, float* re, float* im, int rows);
void CorrelateFftAvx2(const FftPlan& plan, float* re, float* im, int rows);

// The spectrum of (re, im) in place, bit-reversed along both axes.
void SpectrumFftPortable(const FftPlan& plan, float* re, float* im);
void SpectrumFftAvx2(const FftPlan& plan, float* re, float* im);

// re and im hold two search areas (zero-padded); (sr, si) the spectrum of the
// template from SpectrumFft. On return re and im hold nr * nc times the
// correlation of each with the template.
void CorrelatePairFftPortable(const FftPlan& plan, float* re, float* im, const float* sr,
                              const float* si);
void CorrelatePairFftAvx2(const FftPlan& plan, float* re, float* im, const float* sr,
                          const float* si);

}  // namespace epho::matching

#endif  // EPHO_MATCHING_NCC_FFT_INTERNAL_H_
