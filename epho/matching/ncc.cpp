// Normalised cross-correlation of one pair of windows per call.
//
// Every member walks the window row by row (i = -hh..hh) and column by column
// (j = -hw..hw) and forms the five sums L, LL, R, RR, LR. Two accumulation
// schemes are used, both giving the textbook coefficient:
//  - whole grey values (Byte members, U16) are summed as exact integers, so
//    the result does not depend on the order of additions;
//  - real values (U32, Float, Double) are summed in double relative to the
//    window's first sample. The coefficient does not change under a constant
//    offset, and the shift keeps a flat window at exactly zero variance and
//    avoids cancellation for large values (U32 near 2^32).
#include <algorithm>
#include <cmath>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"

int epho_ncc::g_vector_path = 0;

namespace {

using epho_ncc::BilinearHalfPixel;
using epho_ncc::CrossCoefficient;
using std::ptrdiff_t;

inline double WindowCount(int hw, int hh) {
  return static_cast<double>(static_cast<int64_t>(2 * hw + 1) * static_cast<int64_t>(2 * hh + 1));
}

// Integer sums: left(j, i) and right(j, i) return whole numbers (int32).
template <class Left, class Right>
double CorrelateWhole(int hw, int hh, Left left, Right right) {
  int64_t sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const int32_t l = left(j, i);
      const int32_t r = right(j, i);
      sl += l;
      sll += l * l;
      sr += r;
      srr += r * r;
      slr += l * r;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), static_cast<double>(sl), static_cast<double>(sll),
                          static_cast<double>(sr), static_cast<double>(srr),
                          static_cast<double>(slr));
}

// Real sums, relative to the first sample of each window.
template <class Left, class Right>
double CorrelateReal(int hw, int hh, Left left, Right right) {
  if (hw < 0 || hh < 0) return 0.0;
  const double l0 = left(-hw, -hh);
  const double r0 = right(-hw, -hh);
  double sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const double l = left(j, i) - l0;
      const double r = right(j, i) - r0;
      sl += l;
      sll += l * l;
      sr += r;
      srr += r * r;
      slr += l * r;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), sl, sll, sr, srr, slr);
}

// Top-left pixel of a whole-pixel window.
template <typename P>
inline const P* Corner(const P* image, uint32_t stride, int64_t x, int64_t y, int hw, int hh) {
  return image + (y - hh) * static_cast<ptrdiff_t>(stride) + (x - hw);
}

template <typename P>
double WholePixelReal(const P* left, const P* right, uint32_t ls, uint32_t rs, uint32_t lx,
                      uint32_t ly, uint32_t rx, uint32_t ry, int16_t width, int16_t height) {
  const int hw = width / 2, hh = height / 2;
  const P* pl = Corner(left, ls, lx, ly, hw, hh);
  const P* pr = Corner(right, rs, rx, ry, hw, hh);
  const ptrdiff_t sl = ls, sr = rs;
  return CorrelateReal(
      hw, hh, [&](int j, int i) { return static_cast<double>(pl[(i + hh) * sl + (j + hw)]); },
      [&](int j, int i) { return static_cast<double>(pr[(i + hh) * sr + (j + hw)]); });
}

// Rounds an interpolated grey value half up to a whole number.
inline int32_t RoundGrey(double v) { return static_cast<int32_t>(v + 0.5); }

// Byte whole-pixel kernel, the hot path of a search. The five sums are
// exact integers; 16-bit multiply-adds put two products in each 32-bit lane,
// and lanes are flushed into 64-bit totals before they could overflow (a step
// adds at most 2 * 255^2 = 130050 to a lane). A row whose width is not a
// multiple of the vector is finished by reloading its last pixels with the
// ones already counted masked to zero, so no load leaves the window.
struct ByteSums {
  int64_t l = 0, ll = 0, r = 0, rr = 0, lr = 0;
};

// The coefficient with every sum scaled by n, in exact integers up to the
// final square root: n * var = n * sum(x^2) - sum(x)^2.
inline double ByteCoefficient(const ByteSums& t, int64_t n) {
  if (n > 10000000)  // n * sum(x^2) could leave 64 bits: plain double sums
    return CrossCoefficient(static_cast<double>(n), static_cast<double>(t.l),
                            static_cast<double>(t.ll), static_cast<double>(t.r),
                            static_cast<double>(t.rr), static_cast<double>(t.lr));
  const int64_t var_l = n * t.ll - t.l * t.l, var_r = n * t.rr - t.r * t.r;
  if (var_l == 0 || var_r == 0) return 0.0;
  return static_cast<double>(n * t.lr - t.l * t.r) /
         std::sqrt(static_cast<double>(var_l) * static_cast<double>(var_r));
}

constexpr int kFlushSteps = 16000;

// 16 zero bytes then 16 0xFF bytes: 16 (or 8) bytes loaded from
// kLeadZeros + 16 - m have m leading zero bytes.
alignas(32) const uint8_t kLeadZeros[32] = {
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

double ByteCoefScalar(const uint8_t* pl, const uint8_t* pr, ptrdiff_t ls, ptrdiff_t rs, int w,
                      int h, int64_t n) {
  ByteSums t;
  for (int i = 0; i < h; ++i, pl += ls, pr += rs)
    for (int j = 0; j < w; ++j) {
      const int64_t a = pl[j], b = pr[j];
      t.l += a, t.ll += a * a, t.r += b, t.rr += b * b, t.lr += a * b;
    }
  return ByteCoefficient(t, n);
}

#if defined(__SSE2__)
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
#endif

#if defined(__x86_64__) || defined(__i386__)
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
#endif

using ByteCoefFn = double (*)(const uint8_t*, const uint8_t*, ptrdiff_t, ptrdiff_t, int, int,
                              int64_t);

ByteCoefFn ChooseByteCoef() {
#if defined(__x86_64__) || defined(__i386__)
  if (__builtin_cpu_supports("avx2")) return ByteCoefAvx2;
#endif
#if defined(__SSE2__)
  return ByteCoefSse2;
#else
  return ByteCoefScalar;
#endif
}

double ByteWholePixel(const uint8_t* left, const uint8_t* right, uint32_t ls, uint32_t rs,
                      uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry, int16_t width,
                      int16_t height) {
  static const ByteCoefFn vector_coef = ChooseByteCoef();
  const int hw = width / 2, hh = height / 2;
  if (hw < 0 || hh < 0) return 0.0;
  const int w = 2 * hw + 1, h = 2 * hh + 1;
  const uint8_t* pl = Corner(left, ls, lx, ly, hw, hh);
  const uint8_t* pr = Corner(right, rs, rx, ry, hw, hh);
  ByteCoefFn coef = w < 8 ? ByteCoefScalar : vector_coef;
  if (epho_ncc::g_vector_path != 0) {  // pinned by a test
#if defined(__SSE2__)
    if (epho_ncc::g_vector_path == 1 && w >= 8) coef = ByteCoefSse2;
#endif
    if (epho_ncc::g_vector_path == 2) coef = ByteCoefScalar;
  }
  return coef(pl, pr, ls, rs, w, h, static_cast<int64_t>(w) * h);
}

// Sampling rules of the resampling members: u = x + j*c - i*s,
// v = y + j*s + i*c around (x, y), half-pixel centres.
template <typename P>
struct TurnedSampler {
  const P* image;
  ptrdiff_t stride;
  double x, y, c, s;
  double operator()(int j, int i) const {
    return BilinearHalfPixel(image, stride, x + j * c - i * s, y + j * s + i * c);
  }
};

template <typename P>
struct ShiftedSampler {  // NoRotation: a pure shift, still half-pixel centres
  const P* image;
  ptrdiff_t stride;
  double x, y;
  double operator()(int j, int i) const { return BilinearHalfPixel(image, stride, x + j, y + i); }
};

template <typename P>
struct WholeSampler {
  const P* image;
  ptrdiff_t stride;
  int64_t x, y;
  P operator()(int j, int i) const { return image[(y + i) * stride + (x + j)]; }
};

// The Shift members' sampler: pixel centres at whole numbers, split once per
// call, and the deliberate +0.5 rounding bias of the shifted value.
template <typename P>
struct BiasedShiftSampler {
  const P* image;
  ptrdiff_t stride;
  ptrdiff_t kc, kr;
  double fc, fr;
  BiasedShiftSampler(const P* img, uint32_t s, double rx, double ry) : image(img), stride(s) {
    kc = static_cast<ptrdiff_t>(rx);
    kr = static_cast<ptrdiff_t>(ry);
    fc = rx - static_cast<double>(kc);
    fr = ry - static_cast<double>(kr);
  }
  double operator()(int j, int i) const {
    const P* p = image + (kr + i) * stride + (kc + j);
    const double top = (1.0 - fc) * static_cast<double>(p[0]) + fc * static_cast<double>(p[1]);
    const double bottom =
        (1.0 - fc) * static_cast<double>(p[stride]) + fc * static_cast<double>(p[stride + 1]);
    return top * (1.0 - fr) + 0.5 + bottom * fr;
  }
};

}  // namespace

extern "C" {

double epho_CrossCoefByteNoResample(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                                    uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                    uint32_t ry, int16_t width, int16_t height) {
  return ByteWholePixel(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefU16NoResample(const uint16_t* left, const uint16_t* right, uint32_t leftStride,
                                   uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                   uint32_t ry, int16_t width, int16_t height) {
  // 16-bit squares exceed int32: exact 64-bit sums instead.
  const int hw = width / 2, hh = height / 2;
  WholeSampler<uint16_t> l{left, leftStride, lx, ly};
  WholeSampler<uint16_t> r{right, rightStride, rx, ry};
  uint64_t sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const uint64_t a = l(j, i), b = r(j, i);
      sl += a;
      sll += a * a;
      sr += b;
      srr += b * b;
      slr += a * b;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), static_cast<double>(sl), static_cast<double>(sll),
                          static_cast<double>(sr), static_cast<double>(srr),
                          static_cast<double>(slr));
}

double epho_CrossCoefU32NoResample(const uint32_t* left, const uint32_t* right, uint32_t leftStride,
                                   uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                   uint32_t ry, int16_t width, int16_t height) {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefFloatNoResample(const float* left, const float* right, uint32_t leftStride,
                                     uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                     uint32_t ry, int16_t width, int16_t height) {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefDoubleNoResample(const double* left, const double* right, uint32_t leftStride,
                                      uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                      uint32_t ry, int16_t width, int16_t height) {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefByteNoRotation(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                                    uint32_t rightStride, double lx, double ly, double rx,
                                    double ry, int16_t width, int16_t height) {
  ShiftedSampler<uint8_t> l{left, leftStride, lx, ly};
  ShiftedSampler<uint8_t> r{right, rightStride, rx, ry};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return RoundGrey(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleNoRotation(const double* left, const double* right, uint32_t leftStride,
                                      uint32_t rightStride, double lx, double ly, double rx,
                                      double ry, int16_t width, int16_t height) {
  return CorrelateReal(width / 2, height / 2, ShiftedSampler<double>{left, leftStride, lx, ly},
                       ShiftedSampler<double>{right, rightStride, rx, ry});
}

double epho_CrossCoefByteBothResample(const uint8_t* left, const uint8_t* right,
                                      uint32_t leftStride, uint32_t rightStride, double leftAngle,
                                      double rightAngle, double lx, double ly, double rx, double ry,
                                      int16_t width, int16_t height) {
  TurnedSampler<uint8_t> l{left, leftStride, lx, ly, std::cos(leftAngle), std::sin(leftAngle)};
  TurnedSampler<uint8_t> r{right, rightStride, rx, ry, std::cos(rightAngle), std::sin(rightAngle)};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return RoundGrey(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleBothResample(const double* left, const double* right,
                                        uint32_t leftStride, uint32_t rightStride, double leftAngle,
                                        double rightAngle, double lx, double ly, double rx,
                                        double ry, int16_t width, int16_t height) {
  return CorrelateReal(
      width / 2, height / 2,
      TurnedSampler<double>{left, leftStride, lx, ly, std::cos(leftAngle), std::sin(leftAngle)},
      TurnedSampler<double>{right, rightStride, rx, ry, std::cos(rightAngle),
                            std::sin(rightAngle)});
}

double epho_CrossCoefByteRightResample(const uint8_t* left, const uint8_t* right,
                                       uint32_t leftStride, uint32_t rightStride, double angle,
                                       uint32_t lx, uint32_t ly, double rx, double ry,
                                       int16_t width, int16_t height) {
  WholeSampler<uint8_t> l{left, leftStride, lx, ly};
  TurnedSampler<uint8_t> r{right, rightStride, rx, ry, std::cos(angle), std::sin(angle)};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return static_cast<int32_t>(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleRightResample(const double* left, const double* right,
                                         uint32_t leftStride, uint32_t rightStride, double angle,
                                         uint32_t lx, uint32_t ly, double rx, double ry,
                                         int16_t width, int16_t height) {
  WholeSampler<double> l{left, leftStride, lx, ly};
  return CorrelateReal(
      width / 2, height / 2, l,
      TurnedSampler<double>{right, rightStride, rx, ry, std::cos(angle), std::sin(angle)});
}

double epho_CrossCoefByteShift(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                               uint32_t rightStride, int32_t lx, int32_t ly, double rx, double ry,
                               uint32_t halfWidth, uint32_t halfHeight) {
  WholeSampler<uint8_t> l{left, leftStride, lx, ly};
  BiasedShiftSampler<uint8_t> r(right, rightStride, rx, ry);
  // The biased value truncated: the bilinear value rounded half up.
  return CorrelateWhole(
      static_cast<int16_t>(halfWidth), static_cast<int16_t>(halfHeight),
      [&](int j, int i) { return static_cast<int32_t>(l(j, i)); },
      [&](int j, int i) { return static_cast<int32_t>(r(j, i)); });
}

double epho_CrossCoefU32Shift(const uint32_t* left, const uint32_t* right, uint32_t leftStride,
                              uint32_t rightStride, int32_t lx, int32_t ly, double rx, double ry,
                              uint32_t halfWidth, uint32_t halfHeight) {
  WholeSampler<uint32_t> l{left, leftStride, lx, ly};
  return CorrelateReal(
      static_cast<int16_t>(halfWidth), static_cast<int16_t>(halfHeight),
      [&](int j, int i) { return static_cast<double>(l(j, i)); },
      BiasedShiftSampler<uint32_t>(right, rightStride, rx, ry));
}

}  // extern "C"
