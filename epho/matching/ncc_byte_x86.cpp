// x86 bodies of the 8-bit whole-pixel coefficient (SSE2 and AVX2). The five
// sums are exact integers; 16-bit multiply-adds put two products in each
// 32-bit lane, and lanes are flushed into 64-bit totals before they could
// overflow (a step adds at most 2 * 255^2 = 130050 to a lane). A row whose
// width is not a multiple of the vector is finished by reloading its last
// pixels with the ones already counted masked to zero, so no load leaves the
// window.
#include <algorithm>

#include "epho/matching/ncc_paths_internal.h"

#if EPHO_NCC_X86
#include <immintrin.h>

namespace epho::matching {

using std::ptrdiff_t;

constexpr int kFlushSteps = 16000;

// 16 zero bytes then 16 0xFF bytes: 16 (or 8) bytes loaded from
// kLeadZeros + 16 - m have m leading zero bytes.
alignas(32) const uint8_t kLeadZeros[32] = {
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// SSE2: 16 and 8 pixels a step; needs w >= 8.
double ByteCoefSse2(const uint8_t* pl, const uint8_t* pr, ptrdiff_t ls, ptrdiff_t rs, int w, int h,
                    int64_t n) {
  const __m128i zero = _mm_setzero_si128(), ones = _mm_set1_epi16(1);
  __m128i vl = zero, vll = zero, vr = zero, vrr = zero, vlr = zero;
  ByteSums t;
  int steps = 0;
  auto total = [](__m128i v) {
    alignas(16) int32_t q[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(q), v);
    return static_cast<int64_t>(q[0]) + q[1] + q[2] + q[3];
  };
  auto flush = [&]() {
    t.l += total(vl), t.ll += total(vll), t.r += total(vr), t.rr += total(vrr), t.lr += total(vlr);
    vl = vll = vr = vrr = vlr = zero;
    steps = 0;
  };
  auto step = [&](__m128i a, __m128i b) {  // eight 16-bit pixels each
    vl = _mm_add_epi32(vl, _mm_madd_epi16(a, ones));
    vll = _mm_add_epi32(vll, _mm_madd_epi16(a, a));
    vr = _mm_add_epi32(vr, _mm_madd_epi16(b, ones));
    vrr = _mm_add_epi32(vrr, _mm_madd_epi16(b, b));
    vlr = _mm_add_epi32(vlr, _mm_madd_epi16(a, b));
    ++steps;
  };
  for (int i = 0; i < h; ++i, pl += ls, pr += rs) {
    int j = 0;
    for (; j + 16 <= w; j += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pl + j));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pr + j));
      step(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero));
      step(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero));
    }
    if (j + 8 <= w) {
      step(_mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pl + j)), zero),
           _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pr + j)), zero));
      j += 8;
    }
    if (j < w) {  // the last 8 pixels, those already counted masked out
      const __m128i m = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kLeadZeros + 8 + (w - j)));
      const __m128i a =
          _mm_and_si128(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pl + w - 8)), m);
      const __m128i b =
          _mm_and_si128(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pr + w - 8)), m);
      step(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero));
    }
    if (steps >= kFlushSteps) flush();
  }
  flush();
  return ByteCoefficient(t, n);
}

struct Avx2Lanes {
  __m256i l, ll, r, rr, lr;
};

__attribute__((target("avx2"))) inline void Avx2Clear(Avx2Lanes* v) {
  v->l = v->ll = v->r = v->rr = v->lr = _mm256_setzero_si256();
}

__attribute__((target("avx2"))) inline int64_t Avx2Total(const __m256i* v) {
  alignas(32) int32_t q[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(q), *v);
  return static_cast<int64_t>(q[0]) + q[1] + q[2] + q[3] + q[4] + q[5] + q[6] + q[7];
}

// Adds the lanes into t when the lane totals fit in 32 bits (at most
// kQuickSteps steps since the last flush): a few horizontal adds instead of
// eight scalar ones per sum.
constexpr int kQuickSteps = 2000;  // 2000 * 8 lanes * 130050 < 2^31

__attribute__((target("avx2"))) inline void Avx2QuickFlush(const Avx2Lanes* v, ByteSums* t) {
  const __m256i a =
      _mm256_hadd_epi32(_mm256_hadd_epi32(v->l, v->ll), _mm256_hadd_epi32(v->r, v->rr));
  const __m256i b =
      _mm256_hadd_epi32(_mm256_hadd_epi32(v->lr, v->lr), _mm256_hadd_epi32(v->lr, v->lr));
  const __m128i sa = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
  const __m128i sb = _mm_add_epi32(_mm256_castsi256_si128(b), _mm256_extracti128_si256(b, 1));
  t->l += _mm_cvtsi128_si32(sa);
  t->ll += _mm_extract_epi32(sa, 1);
  t->r += _mm_extract_epi32(sa, 2);
  t->rr += _mm_extract_epi32(sa, 3);
  t->lr += _mm_cvtsi128_si32(sb);
}

__attribute__((target("avx2"))) inline void Avx2Flush(Avx2Lanes* v, ByteSums* t) {
  t->l += Avx2Total(&v->l), t->ll += Avx2Total(&v->ll), t->r += Avx2Total(&v->r);
  t->rr += Avx2Total(&v->rr), t->lr += Avx2Total(&v->lr);
  Avx2Clear(v);
}

// Sixteen 8-bit pixels of each side.
__attribute__((target("avx2"))) inline void Avx2Step(Avx2Lanes* v, __m128i a8, __m128i b8) {
  const __m256i ones = _mm256_set1_epi16(1);
  const __m256i a = _mm256_cvtepu8_epi16(a8), b = _mm256_cvtepu8_epi16(b8);
  v->l = _mm256_add_epi32(v->l, _mm256_madd_epi16(a, ones));
  v->ll = _mm256_add_epi32(v->ll, _mm256_madd_epi16(a, a));
  v->r = _mm256_add_epi32(v->r, _mm256_madd_epi16(b, ones));
  v->rr = _mm256_add_epi32(v->rr, _mm256_madd_epi16(b, b));
  v->lr = _mm256_add_epi32(v->lr, _mm256_madd_epi16(a, b));
}

// First 8 and last 8 pixels of a row 8..16 wide, the overlap masked by m.
inline __m128i HeadAndTail8(const uint8_t* p, int w, __m128i m) {
  return _mm_unpacklo_epi64(
      _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
      _mm_and_si128(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + w - 8)), m));
}

// AVX2: 16 pixels a step; a row of 8..16 pixels is one step. Needs w >= 8.
__attribute__((target("avx2"))) double ByteCoefAvx2(const uint8_t* pl, const uint8_t* pr,
                                                    ptrdiff_t ls, ptrdiff_t rs, int w, int h,
                                                    int64_t n) {
  Avx2Lanes v;
  Avx2Clear(&v);
  ByteSums t;
  int steps = 0;
  const __m128i tail16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kLeadZeros + (w & 15)));
  const __m128i tail8 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kLeadZeros + (w & 15)));
  if (w < 16) {
    // The common template widths 9..15: one step per row, no inner loop.
    for (int i0 = 0; i0 < h; i0 += kFlushSteps) {
      const int rows = std::min(h - i0, kFlushSteps);
      for (int i = 0; i < rows; ++i, pl += ls, pr += rs)
        Avx2Step(&v, HeadAndTail8(pl, w, tail8), HeadAndTail8(pr, w, tail8));
      steps = rows;
      if (i0 + rows < h) {
        Avx2Flush(&v, &t);
        steps = 0;
      }
    }
  } else {
    for (int i = 0; i < h; ++i, pl += ls, pr += rs) {
      int j = 0;
      for (; j + 16 <= w; j += 16, ++steps)
        Avx2Step(&v, _mm_loadu_si128(reinterpret_cast<const __m128i*>(pl + j)),
                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(pr + j)));
      if (j < w) {  // the last 16 pixels, the first 16 - (w - j) masked out
        Avx2Step(
            &v,
            _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pl + w - 16)), tail16),
            _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pr + w - 16)), tail16));
        ++steps;
      }
      if (steps >= kFlushSteps) {
        Avx2Flush(&v, &t);
        steps = 0;
      }
    }
  }
  if (steps <= kQuickSteps)
    Avx2QuickFlush(&v, &t);
  else
    Avx2Flush(&v, &t);
  return ByteCoefficient(t, n);
}

}  // namespace epho::matching

#endif  // EPHO_NCC_X86
