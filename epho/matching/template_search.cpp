// Exhaustive NCC search of a template over a range of right-window centres.
//
// Cost per call is one pass over the search area for the window statistics
// (running column sums, then running row sums) and one vectorised pass for
// the cross products, instead of one full kernel call per position:
//  - 8-bit: the search area is stored once as 16-bit pixel pairs (I[c],
//    I[c+1]) so that a 16-bit multiply-add against a pair of template values
//    gives two products per 32-bit lane; all window sums are exact integers;
//  - float: template made zero-mean and search area shifted to the template's
//    level, products summed in single precision, two output rows per pass.
// Candidates are ranked without square roots (BestTracker); the coefficient
// reported at the best position and the neighbours used for the sub-pixel
// peak come from the NoResample kernel itself, so the reported value is the
// kernel's. Vector width is chosen at run time (AVX2 when the processor has
// it, SSE2 otherwise). All work memory is the caller's scratch block.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define EPHO_SEARCH_X86 1
#endif

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"

namespace {

using std::ptrdiff_t;
using std::size_t;

constexpr size_t kBlock = 32;  // candidate columns computed together
constexpr size_t kPad = 8;     // candidate rows are padded to this many columns
constexpr uint32_t kMaxRange = 1u << 14;

inline size_t RoundUp(size_t v, size_t m) { return (v + m - 1) / m * m; }

struct Geometry {
  int hw, hh, tw, th;     // template half sizes and sizes
  size_t cols, rows;      // candidate range
  size_t cols_padded;     // cols rounded up to kPad
  size_t area_w, area_h;  // search area (candidates plus template margins)
  size_t work_stride;     // row length of the stored search area, elements
};

Geometry MakeGeometry(uint32_t hw, uint32_t hh, uint32_t cols, uint32_t rows) {
  Geometry g;
  g.hw = static_cast<int>(hw);
  g.hh = static_cast<int>(hh);
  g.tw = 2 * g.hw + 1;
  g.th = 2 * g.hh + 1;
  g.cols = cols;
  g.rows = rows;
  g.cols_padded = RoundUp(cols, kPad);
  g.area_w = cols + g.tw - 1;
  g.area_h = rows + g.th - 1;
  // Vector loads of the last block reach cols_padded - 1 + tw - 1 + 1.
  g.work_stride = g.cols_padded + g.tw + 1;
  return g;
}

// Scratch carve-up; each part aligned to 64 bytes. Both pixel types use 4
// bytes per stored search-area element and per template element.
struct Layout {
  size_t area, templ, cross, colsum, colsq, total;
};

Layout MakeLayout(const Geometry& g) {
  Layout l;
  size_t off = 0;
  auto take = [&](size_t bytes) {
    const size_t at = off;
    off += RoundUp(bytes, 64);
    return at;
  };
  l.area = take(4 * g.area_h * g.work_stride);
  l.templ = take(4 * static_cast<size_t>(g.th) * (g.tw + 1));
  l.cross = take(8 * g.cols_padded);  // two rows of results
  l.colsum = take(8 * g.area_w);
  l.colsq = take(8 * g.area_w);
  l.total = off + 64;  // room to align the block's start
  return l;
}

bool ArgumentsValid(uint32_t hw, uint32_t hh, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                    uint32_t ryMax) {
  return hw <= EPHO_NCC_SEARCH_MAX_HALF && hh <= EPHO_NCC_SEARCH_MAX_HALF && rxMin <= rxMax &&
         ryMin <= ryMax && rxMax - rxMin < kMaxRange && ryMax - ryMin < kMaxRange && rxMin >= hw &&
         ryMin >= hh;
}

#if EPHO_SEARCH_X86
bool HaveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  return have && epho_ncc::g_vector_path == 0;
}

// ---- 8-bit cross products: out[x] = sum T * I over the window at column x.
// `pairs` points at the first stored row of the window, `coef` holds per
// template row the packed pairs (T[2p], T[2p+1]) as 32-bit patterns.
__attribute__((target("avx2"))) void CrossRowByteAvx2(const int32_t* pairs, size_t stride,
                                                      const int32_t* coef, int th, int npairs,
                                                      size_t cols_padded, int32_t* out) {
  size_t xb = 0;
  for (; xb + kBlock <= cols_padded; xb += kBlock) {
    __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + xb;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p) {
        const __m256i k = _mm256_set1_epi32(c[p]);
        const int32_t* q = row + 2 * p;
        a0 = _mm256_add_epi32(a0, _mm256_madd_epi16(_mm256_loadu_si256((const __m256i*)q), k));
        a1 =
            _mm256_add_epi32(a1, _mm256_madd_epi16(_mm256_loadu_si256((const __m256i*)(q + 8)), k));
        a2 = _mm256_add_epi32(a2,
                              _mm256_madd_epi16(_mm256_loadu_si256((const __m256i*)(q + 16)), k));
        a3 = _mm256_add_epi32(a3,
                              _mm256_madd_epi16(_mm256_loadu_si256((const __m256i*)(q + 24)), k));
      }
    }
    _mm256_storeu_si256((__m256i*)(out + xb), a0);
    _mm256_storeu_si256((__m256i*)(out + xb + 8), a1);
    _mm256_storeu_si256((__m256i*)(out + xb + 16), a2);
    _mm256_storeu_si256((__m256i*)(out + xb + 24), a3);
  }
  for (; xb < cols_padded; xb += 8) {  // the last columns, 8 at a time
    __m256i a0 = _mm256_setzero_si256();
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + xb;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p)
        a0 = _mm256_add_epi32(a0,
                              _mm256_madd_epi16(_mm256_loadu_si256((const __m256i*)(row + 2 * p)),
                                                _mm256_set1_epi32(c[p])));
    }
    _mm256_storeu_si256((__m256i*)(out + xb), a0);
  }
}

void CrossRowByteSse2(const int32_t* pairs, size_t stride, const int32_t* coef, int th, int npairs,
                      size_t cols_padded, int32_t* out) {
  size_t xb = 0;
  for (; xb + 16 <= cols_padded; xb += 16) {
    __m128i a0 = _mm_setzero_si128(), a1 = a0, a2 = a0, a3 = a0;
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + xb;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p) {
        const __m128i k = _mm_set1_epi32(c[p]);
        const int32_t* q = row + 2 * p;
        a0 = _mm_add_epi32(a0, _mm_madd_epi16(_mm_loadu_si128((const __m128i*)q), k));
        a1 = _mm_add_epi32(a1, _mm_madd_epi16(_mm_loadu_si128((const __m128i*)(q + 4)), k));
        a2 = _mm_add_epi32(a2, _mm_madd_epi16(_mm_loadu_si128((const __m128i*)(q + 8)), k));
        a3 = _mm_add_epi32(a3, _mm_madd_epi16(_mm_loadu_si128((const __m128i*)(q + 12)), k));
      }
    }
    _mm_storeu_si128((__m128i*)(out + xb), a0);
    _mm_storeu_si128((__m128i*)(out + xb + 4), a1);
    _mm_storeu_si128((__m128i*)(out + xb + 8), a2);
    _mm_storeu_si128((__m128i*)(out + xb + 12), a3);
  }
  for (; xb < cols_padded; xb += 4) {
    __m128i a0 = _mm_setzero_si128();
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + xb;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p)
        a0 = _mm_add_epi32(a0, _mm_madd_epi16(_mm_loadu_si128((const __m128i*)(row + 2 * p)),
                                              _mm_set1_epi32(c[p])));
    }
    _mm_storeu_si128((__m128i*)(out + xb), a0);
  }
}

// ---- float cross products: out[x] = sum T' * F over the window at column x.
// Columns [from, cols_padded) of one row, 8 at a time, four independent chains.
__attribute__((target("avx2,fma"))) void CrossTailFloatAvx2(const float* area, size_t stride,
                                                            const float* templ, int th, int tw,
                                                            size_t from, size_t cols_padded,
                                                            float* out) {
  for (size_t xb = from; xb < cols_padded; xb += 8) {
    __m256 a0 = _mm256_setzero_ps(), a1 = a0, a2 = a0, a3 = a0;
    for (int tr = 0; tr < th; ++tr) {
      const float* row = area + tr * stride + xb;
      const float* t = templ + tr * tw;
      int tc = 0;
      for (; tc + 4 <= tw; tc += 4) {
        a0 = _mm256_fmadd_ps(_mm256_loadu_ps(row + tc), _mm256_set1_ps(t[tc]), a0);
        a1 = _mm256_fmadd_ps(_mm256_loadu_ps(row + tc + 1), _mm256_set1_ps(t[tc + 1]), a1);
        a2 = _mm256_fmadd_ps(_mm256_loadu_ps(row + tc + 2), _mm256_set1_ps(t[tc + 2]), a2);
        a3 = _mm256_fmadd_ps(_mm256_loadu_ps(row + tc + 3), _mm256_set1_ps(t[tc + 3]), a3);
      }
      for (; tc < tw; ++tc)
        a0 = _mm256_fmadd_ps(_mm256_loadu_ps(row + tc), _mm256_set1_ps(t[tc]), a0);
    }
    _mm256_storeu_ps(out + xb, _mm256_add_ps(_mm256_add_ps(a0, a1), _mm256_add_ps(a2, a3)));
  }
}

__attribute__((target("avx2,fma"))) void CrossRowFloatAvx2(const float* area, size_t stride,
                                                           const float* templ, int th, int tw,
                                                           size_t cols_padded, float* out) {
  size_t xb = 0;
  for (; xb + kBlock <= cols_padded; xb += kBlock) {
    __m256 a0 = _mm256_setzero_ps(), a1 = a0, a2 = a0, a3 = a0;
    for (int tr = 0; tr < th; ++tr) {
      const float* row = area + tr * stride + xb;
      const float* t = templ + tr * tw;
      for (int tc = 0; tc < tw; ++tc) {
        const __m256 k = _mm256_set1_ps(t[tc]);
        const float* q = row + tc;
        a0 = _mm256_fmadd_ps(_mm256_loadu_ps(q), k, a0);
        a1 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 8), k, a1);
        a2 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 16), k, a2);
        a3 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 24), k, a3);
      }
    }
    _mm256_storeu_ps(out + xb, a0);
    _mm256_storeu_ps(out + xb + 8, a1);
    _mm256_storeu_ps(out + xb + 16, a2);
    _mm256_storeu_ps(out + xb + 24, a3);
  }
  if (xb < cols_padded) CrossTailFloatAvx2(area, stride, templ, th, tw, xb, cols_padded, out);
}

// Two neighbouring output rows at once (windows starting at stored rows 0
// and 1): every loaded vector of the search area serves both, which halves
// the loads per multiply-add. Needs th + 1 stored rows.
__attribute__((target("avx2,fma"))) void CrossTwoRowsFloatAvx2(const float* area, size_t stride,
                                                               const float* templ, int th, int tw,
                                                               size_t cols_padded, float* out0,
                                                               float* out1) {
  size_t xb = 0;
  for (; xb + kBlock <= cols_padded; xb += kBlock) {
    __m256 p0 = _mm256_setzero_ps(), p1 = p0, p2 = p0, p3 = p0;  // row 0
    __m256 q0 = p0, q1 = p0, q2 = p0, q3 = p0;                   // row 1
    for (int r = 0; r <= th; ++r) {  // stored row r is template row r (row 0), r - 1 (row 1)
      const float* row = area + r * stride + xb;
      const float* t0 = templ + r * tw;
      const float* t1 = templ + (r - 1) * tw;
      if (r == 0) {
        for (int tc = 0; tc < tw; ++tc) {
          const __m256 k = _mm256_set1_ps(t0[tc]);
          const float* q = row + tc;
          p0 = _mm256_fmadd_ps(_mm256_loadu_ps(q), k, p0);
          p1 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 8), k, p1);
          p2 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 16), k, p2);
          p3 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 24), k, p3);
        }
      } else if (r == th) {
        for (int tc = 0; tc < tw; ++tc) {
          const __m256 k = _mm256_set1_ps(t1[tc]);
          const float* q = row + tc;
          q0 = _mm256_fmadd_ps(_mm256_loadu_ps(q), k, q0);
          q1 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 8), k, q1);
          q2 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 16), k, q2);
          q3 = _mm256_fmadd_ps(_mm256_loadu_ps(q + 24), k, q3);
        }
      } else {
        for (int tc = 0; tc < tw; ++tc) {
          const __m256 k0 = _mm256_set1_ps(t0[tc]), k1 = _mm256_set1_ps(t1[tc]);
          const float* q = row + tc;
          const __m256 v0 = _mm256_loadu_ps(q), v1 = _mm256_loadu_ps(q + 8);
          const __m256 v2 = _mm256_loadu_ps(q + 16), v3 = _mm256_loadu_ps(q + 24);
          p0 = _mm256_fmadd_ps(v0, k0, p0);
          p1 = _mm256_fmadd_ps(v1, k0, p1);
          p2 = _mm256_fmadd_ps(v2, k0, p2);
          p3 = _mm256_fmadd_ps(v3, k0, p3);
          q0 = _mm256_fmadd_ps(v0, k1, q0);
          q1 = _mm256_fmadd_ps(v1, k1, q1);
          q2 = _mm256_fmadd_ps(v2, k1, q2);
          q3 = _mm256_fmadd_ps(v3, k1, q3);
        }
      }
    }
    _mm256_storeu_ps(out0 + xb, p0);
    _mm256_storeu_ps(out0 + xb + 8, p1);
    _mm256_storeu_ps(out0 + xb + 16, p2);
    _mm256_storeu_ps(out0 + xb + 24, p3);
    _mm256_storeu_ps(out1 + xb, q0);
    _mm256_storeu_ps(out1 + xb + 8, q1);
    _mm256_storeu_ps(out1 + xb + 16, q2);
    _mm256_storeu_ps(out1 + xb + 24, q3);
  }
  // The last columns, still two rows a pass: 16 and then 8 columns, with the
  // template columns split over independent chains to keep the adds in flight.
  if (xb + 16 <= cols_padded) {
    __m256 p0 = _mm256_setzero_ps(), p1 = p0, p2 = p0,
           p3 = p0;                             // row 0: cols 0-7, 8-15, even/odd tc
    __m256 q0 = p0, q1 = p0, q2 = p0, q3 = p0;  // row 1
    for (int r = 0; r <= th; ++r) {
      const float* row = area + r * stride + xb;
      const float* t0 = templ + r * tw;
      const float* t1 = templ + (r - 1) * tw;
      const bool first = r<th, second = r> 0;
      int tc = 0;
      for (; tc + 2 <= tw; tc += 2) {
        const __m256 v0 = _mm256_loadu_ps(row + tc), v1 = _mm256_loadu_ps(row + tc + 8);
        const __m256 w0 = _mm256_loadu_ps(row + tc + 1), w1 = _mm256_loadu_ps(row + tc + 9);
        if (first) {
          const __m256 k = _mm256_set1_ps(t0[tc]), l = _mm256_set1_ps(t0[tc + 1]);
          p0 = _mm256_fmadd_ps(v0, k, p0);
          p1 = _mm256_fmadd_ps(v1, k, p1);
          p2 = _mm256_fmadd_ps(w0, l, p2);
          p3 = _mm256_fmadd_ps(w1, l, p3);
        }
        if (second) {
          const __m256 k = _mm256_set1_ps(t1[tc]), l = _mm256_set1_ps(t1[tc + 1]);
          q0 = _mm256_fmadd_ps(v0, k, q0);
          q1 = _mm256_fmadd_ps(v1, k, q1);
          q2 = _mm256_fmadd_ps(w0, l, q2);
          q3 = _mm256_fmadd_ps(w1, l, q3);
        }
      }
      if (tc < tw) {
        const __m256 v0 = _mm256_loadu_ps(row + tc), v1 = _mm256_loadu_ps(row + tc + 8);
        if (first) {
          const __m256 k = _mm256_set1_ps(t0[tc]);
          p0 = _mm256_fmadd_ps(v0, k, p0);
          p1 = _mm256_fmadd_ps(v1, k, p1);
        }
        if (second) {
          const __m256 k = _mm256_set1_ps(t1[tc]);
          q0 = _mm256_fmadd_ps(v0, k, q0);
          q1 = _mm256_fmadd_ps(v1, k, q1);
        }
      }
    }
    _mm256_storeu_ps(out0 + xb, _mm256_add_ps(p0, p2));
    _mm256_storeu_ps(out0 + xb + 8, _mm256_add_ps(p1, p3));
    _mm256_storeu_ps(out1 + xb, _mm256_add_ps(q0, q2));
    _mm256_storeu_ps(out1 + xb + 8, _mm256_add_ps(q1, q3));
    xb += 16;
  }
  if (xb < cols_padded) {  // 8 columns: four chains per row
    __m256 p0 = _mm256_setzero_ps(), p1 = p0, p2 = p0, p3 = p0;
    __m256 q0 = p0, q1 = p0, q2 = p0, q3 = p0;
    for (int r = 0; r <= th; ++r) {
      const float* row = area + r * stride + xb;
      const float* t0 = templ + r * tw;
      const float* t1 = templ + (r - 1) * tw;
      const bool first = r<th, second = r> 0;
      int tc = 0;
      for (; tc + 4 <= tw; tc += 4) {
        const __m256 v0 = _mm256_loadu_ps(row + tc), v1 = _mm256_loadu_ps(row + tc + 1);
        const __m256 v2 = _mm256_loadu_ps(row + tc + 2), v3 = _mm256_loadu_ps(row + tc + 3);
        if (first) {
          p0 = _mm256_fmadd_ps(v0, _mm256_set1_ps(t0[tc]), p0);
          p1 = _mm256_fmadd_ps(v1, _mm256_set1_ps(t0[tc + 1]), p1);
          p2 = _mm256_fmadd_ps(v2, _mm256_set1_ps(t0[tc + 2]), p2);
          p3 = _mm256_fmadd_ps(v3, _mm256_set1_ps(t0[tc + 3]), p3);
        }
        if (second) {
          q0 = _mm256_fmadd_ps(v0, _mm256_set1_ps(t1[tc]), q0);
          q1 = _mm256_fmadd_ps(v1, _mm256_set1_ps(t1[tc + 1]), q1);
          q2 = _mm256_fmadd_ps(v2, _mm256_set1_ps(t1[tc + 2]), q2);
          q3 = _mm256_fmadd_ps(v3, _mm256_set1_ps(t1[tc + 3]), q3);
        }
      }
      for (; tc < tw; ++tc) {
        const __m256 v0 = _mm256_loadu_ps(row + tc);
        if (first) p0 = _mm256_fmadd_ps(v0, _mm256_set1_ps(t0[tc]), p0);
        if (second) q0 = _mm256_fmadd_ps(v0, _mm256_set1_ps(t1[tc]), q0);
      }
    }
    _mm256_storeu_ps(out0 + xb, _mm256_add_ps(_mm256_add_ps(p0, p1), _mm256_add_ps(p2, p3)));
    _mm256_storeu_ps(out1 + xb, _mm256_add_ps(_mm256_add_ps(q0, q1), _mm256_add_ps(q2, q3)));
  }
}
#endif

// Portable versions (and the SSE2-only float path, which the compiler
// vectorises from this loop).
void CrossRowBytePortable(const int32_t* pairs, size_t stride, const int32_t* coef, int th,
                          int npairs, size_t cols_padded, int32_t* out) {
  for (size_t x = 0; x < cols_padded; ++x) {
    uint32_t s = 0;
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + x;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p) {
        const uint32_t v = static_cast<uint32_t>(row[2 * p]), k = static_cast<uint32_t>(c[p]);
        s += (v & 0xFFFF) * (k & 0xFFFF) + (v >> 16) * (k >> 16);
      }
    }
    out[x] = static_cast<int32_t>(s);
  }
}

void CrossRowFloatPortable(const float* area, size_t stride, const float* templ, int th, int tw,
                           size_t cols_padded, float* out) {
  std::fill(out, out + cols_padded, 0.0f);
  for (int tr = 0; tr < th; ++tr)
    for (int tc = 0; tc < tw; ++tc) {
      const float k = templ[tr * tw + tc];
      const float* q = area + tr * stride + tc;
      for (size_t x = 0; x < cols_padded; ++x) out[x] += k * q[x];
    }
}

// Window sums along one stored row of column sums: s[x] = sum colsum[x..x+tw-1].
// The row is cut into four runs slid side by side, so that four independent
// addition chains hide the latency of floating-point adds.
template <typename T, class Visit>
void SlideRow(const T* colsum, const T* colsq, const Geometry& g, Visit visit) {
  constexpr size_t kChains = 4;
  const size_t len = (g.cols + kChains - 1) / kChains;
  T s[kChains], ss[kChains];
  size_t begin[kChains], end[kChains];
  for (size_t k = 0; k < kChains; ++k) {
    begin[k] = std::min(k * len, g.cols);
    end[k] = std::min(begin[k] + len, g.cols);
    s[k] = ss[k] = 0;
    if (begin[k] == end[k]) continue;
    for (int c = 0; c < g.tw; ++c) s[k] += colsum[begin[k] + c], ss[k] += colsq[begin[k] + c];
  }
  for (size_t i = 0; i < len; ++i)
    for (size_t k = 0; k < kChains; ++k) {
      const size_t x = begin[k] + i;
      if (x >= end[k]) continue;
      visit(x, s[k], ss[k]);
      if (x + 1 < end[k]) {
        s[k] += colsum[x + g.tw] - colsum[x];
        ss[k] += colsq[x + g.tw] - colsq[x];
      }
    }
}

// Keeps the position of the largest coefficient seen. Coefficients are
// compared through score = num * |num| / var (a monotone function of the
// coefficient for a fixed template), kept as a fraction so that a candidate
// costs two multiplications and no square root or division. A flat window
// has coefficient 0: score 0 / 1.
struct BestTracker {
  double a = -std::numeric_limits<double>::infinity(), b = 1.0;
  size_t x = 0, y = 0;
  bool any = false;  // some coefficient was not 0
  void Offer(double num, double var, size_t cx, size_t cy) {
    double sa = 0.0, sb = 1.0;
    if (var > 0.0 && num != 0.0) {
      sa = num * std::fabs(num);
      sb = var;
      any = true;
    }
    // Ties go to the first position in raster order, whatever the visit order.
    const double lhs = sa * b, rhs = a * sb;
    if (lhs > rhs || (lhs == rhs && (cy < y || (cy == y && cx < x))))
      a = sa, b = sb, x = cx, y = cy;
  }
};

// Sub-pixel peak along one axis from three coefficients; 0 unless the middle
// one is a strict maximum of a downward parabola.
double ParabolaOffset(double before, double at, double after) {
  const double curvature = before - 2.0 * at + after;
  if (!(curvature < 0.0)) return 0.0;
  const double d = 0.5 * (before - after) / curvature;
  return std::max(-0.5, std::min(0.5, d));
}

// Best position done: exact coefficient and sub-pixel peak from the kernel.
template <class Kernel>
void FinishPeak(Kernel kernel, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax, uint32_t ryMax,
                int32_t bx, int32_t by, Epho_NccPeak* peak) {
  peak->column = bx;
  peak->row = by;
  peak->coefficient = kernel(bx, by);
  peak->on_border = 0;
  peak->subpixel_column = bx;
  peak->subpixel_row = by;
  if (static_cast<uint32_t>(bx) > rxMin && static_cast<uint32_t>(bx) < rxMax)
    peak->subpixel_column +=
        ParabolaOffset(kernel(bx - 1, by), peak->coefficient, kernel(bx + 1, by));
  else
    peak->on_border |= 1;
  if (static_cast<uint32_t>(by) > ryMin && static_cast<uint32_t>(by) < ryMax)
    peak->subpixel_row += ParabolaOffset(kernel(bx, by - 1), peak->coefficient, kernel(bx, by + 1));
  else
    peak->on_border |= 2;
}

char* Aligned(void* scratch) {
  const uintptr_t p = reinterpret_cast<uintptr_t>(scratch);
  return reinterpret_cast<char*>((p + 63) & ~uintptr_t(63));
}

int SearchByte(const uint8_t* left, const uint8_t* right, uint32_t ls, uint32_t rs, uint32_t lx,
               uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin, char* base,
               const Layout& lay, int32_t* best_x, int32_t* best_y, bool* any) {
  int32_t* pairs = reinterpret_cast<int32_t*>(base + lay.area);
  int32_t* coef = reinterpret_cast<int32_t*>(base + lay.templ);
  int32_t* cross = reinterpret_cast<int32_t*>(base + lay.cross);
  int64_t* colsum = reinterpret_cast<int64_t*>(base + lay.colsum);
  int64_t* colsq = reinterpret_cast<int64_t*>(base + lay.colsq);
  const int npairs = (g.tw + 1) / 2;

  // Template: packed pairs and its sums.
  int64_t st = 0, stt = 0;
  const uint8_t* t0 = left + (static_cast<ptrdiff_t>(ly) - g.hh) * ls + (lx - g.hw);
  for (int r = 0; r < g.th; ++r) {
    const uint8_t* t = t0 + static_cast<ptrdiff_t>(r) * ls;
    for (int p = 0; p < npairs; ++p) {
      const uint32_t a = t[2 * p], b = 2 * p + 1 < g.tw ? t[2 * p + 1] : 0;
      coef[r * npairs + p] = static_cast<int32_t>(a | (b << 16));
    }
    for (int c = 0; c < g.tw; ++c) st += t[c], stt += t[c] * t[c];
  }
  // Search area as pixel pairs, zero beyond its right edge.
  const uint8_t* a0 = right + (static_cast<ptrdiff_t>(ryMin) - g.hh) * rs + (rxMin - g.hw);
  for (size_t r = 0; r < g.area_h; ++r) {
    const uint8_t* a = a0 + r * rs;
    int32_t* out = pairs + r * g.work_stride;
    for (size_t c = 0; c < g.area_w; ++c) {
      const uint32_t hi = c + 1 < g.area_w ? a[c + 1] : 0;
      out[c] = static_cast<int32_t>(a[c] | (hi << 16));
    }
    std::fill(out + g.area_w, out + g.work_stride, 0);
  }
  std::fill(colsum, colsum + g.area_w, 0);
  std::fill(colsq, colsq + g.area_w, 0);
  for (int r = 0; r < g.th - 1; ++r)
    for (size_t c = 0; c < g.area_w; ++c) {
      const int64_t v = a0[r * rs + c];
      colsum[c] += v, colsq[c] += v * v;
    }

  const int64_t n = static_cast<int64_t>(g.tw) * g.th;
  BestTracker best;
  if (n * stt - st * st == 0) {  // flat template: every coefficient is 0
    *any = false;
    return EPHO_NCC_SEARCH_OK;
  }
#if EPHO_SEARCH_X86
  const bool avx2 = HaveAvx2();
#endif
  for (size_t y = 0; y < g.rows; ++y) {
    // Column sums over rows y .. y+th-1.
    const uint8_t* add = a0 + (y + g.th - 1) * rs;
    for (size_t c = 0; c < g.area_w; ++c) colsum[c] += add[c], colsq[c] += add[c] * add[c];
    const int32_t* prow = pairs + y * g.work_stride;
#if EPHO_SEARCH_X86
    if (avx2)
      CrossRowByteAvx2(prow, g.work_stride, coef, g.th, npairs, g.cols_padded, cross);
    else if (epho_ncc::g_vector_path != 2)
      CrossRowByteSse2(prow, g.work_stride, coef, g.th, npairs, g.cols_padded, cross);
    else
#endif
      CrossRowBytePortable(prow, g.work_stride, coef, g.th, npairs, g.cols_padded, cross);
    // Exact integers scaled by n: num = n*sum(TI) - sum(T)*sum(I), var = n*sum(II) - sum(I)^2.
    SlideRow(colsum, colsq, g, [&](size_t x, int64_t s, int64_t ss) {
      const int64_t num = n * static_cast<int64_t>(static_cast<uint32_t>(cross[x])) - st * s;
      best.Offer(static_cast<double>(num), static_cast<double>(n * ss - s * s), x, y);
    });
    const uint8_t* sub = a0 + y * rs;
    for (size_t c = 0; c < g.area_w; ++c) colsum[c] -= sub[c], colsq[c] -= sub[c] * sub[c];
  }
  *best_x = static_cast<int32_t>(rxMin + best.x);
  *best_y = static_cast<int32_t>(ryMin + best.y);
  *any = best.any;
  return EPHO_NCC_SEARCH_OK;
}

int SearchFloat(const float* left, const float* right, uint32_t ls, uint32_t rs, uint32_t lx,
                uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin, char* base,
                const Layout& lay, int32_t* best_x, int32_t* best_y, bool* any) {
  float* area = reinterpret_cast<float*>(base + lay.area);
  float* templ = reinterpret_cast<float*>(base + lay.templ);
  float* cross_rows = reinterpret_cast<float*>(base + lay.cross);
  double* colsum = reinterpret_cast<double*>(base + lay.colsum);
  double* colsq = reinterpret_cast<double*>(base + lay.colsq);

  // Zero-mean template; its variance in double.
  const float* t0 = left + (static_cast<ptrdiff_t>(ly) - g.hh) * ls + (lx - g.hw);
  double mt = 0;
  for (int r = 0; r < g.th; ++r)
    for (int c = 0; c < g.tw; ++c) mt += t0[r * static_cast<ptrdiff_t>(ls) + c];
  mt /= static_cast<double>(g.tw) * g.th;
  double vt = 0;
  for (int r = 0; r < g.th; ++r)
    for (int c = 0; c < g.tw; ++c) {
      const double d = t0[r * static_cast<ptrdiff_t>(ls) + c] - mt;
      templ[r * g.tw + c] = static_cast<float>(d);
      vt += d * d;
    }
  // Search area shifted to the template level (keeps the float products small).
  const float* a0 = right + (static_cast<ptrdiff_t>(ryMin) - g.hh) * rs + (rxMin - g.hw);
  const double ma = mt;  // the template's mean is close enough to the area's level
  for (size_t r = 0; r < g.area_h; ++r) {
    float* out = area + r * g.work_stride;
    for (size_t c = 0; c < g.area_w; ++c) out[c] = static_cast<float>(a0[r * rs + c] - ma);
    std::fill(out + g.area_w, out + g.work_stride, 0.0f);
  }
  std::fill(colsum, colsum + g.area_w, 0.0);
  std::fill(colsq, colsq + g.area_w, 0.0);
  for (int r = 0; r < g.th - 1; ++r)
    for (size_t c = 0; c < g.area_w; ++c) {
      const double v = area[r * g.work_stride + c];
      colsum[c] += v, colsq[c] += v * v;
    }

  const double inv_n = 1.0 / (static_cast<double>(g.tw) * g.th);
  BestTracker best;
  if (!(vt > 0.0)) {  // flat template
    *any = false;
    return EPHO_NCC_SEARCH_OK;
  }
#if EPHO_SEARCH_X86
  const bool avx2 = HaveAvx2();
#endif
  for (size_t y = 0; y < g.rows; ++y) {
    const float* add = area + (y + g.th - 1) * g.work_stride;
    for (size_t c = 0; c < g.area_w; ++c) {
      const double v = add[c];
      colsum[c] += v, colsq[c] += v * v;
    }
    const float* arow = area + y * g.work_stride;
    float* cross = cross_rows + (y & 1) * g.cols_padded;
#if EPHO_SEARCH_X86
    if (avx2) {
      if ((y & 1) == 0 && y + 1 < g.rows)  // rows y and y + 1 in one pass
        CrossTwoRowsFloatAvx2(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded, cross,
                              cross + g.cols_padded);
      else if ((y & 1) == 0)
        CrossRowFloatAvx2(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded, cross);
    } else
#endif
      CrossRowFloatPortable(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded, cross);
    SlideRow(colsum, colsq, g, [&](size_t x, double s, double ss) {
      const double vr = ss - s * inv_n * s;
      // Relative floor: a window flat up to float rounding counts as flat.
      best.Offer(cross[x], vr > 1e-9 * ss ? vr : 0.0, x, y);
    });
    const float* sub = area + y * g.work_stride;
    for (size_t c = 0; c < g.area_w; ++c) {
      const double v = sub[c];
      colsum[c] -= v, colsq[c] -= v * v;
    }
  }
  *best_x = static_cast<int32_t>(rxMin + best.x);
  *best_y = static_cast<int32_t>(ryMin + best.y);
  *any = best.any;
  return EPHO_NCC_SEARCH_OK;
}

template <typename P, class Search, class Kernel>
int RunSearch(const P* left, const P* right, uint32_t ls, uint32_t rs, uint32_t lx, uint32_t ly,
              uint32_t hw, uint32_t hh, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
              uint32_t ryMax, void* scratch, size_t scratchBytes, Epho_NccPeak* peak, Search search,
              Kernel kernel) {
  if (!left || !right || !peak || !ArgumentsValid(hw, hh, rxMin, ryMin, rxMax, ryMax) || lx < hw ||
      ly < hh)
    return EPHO_NCC_SEARCH_BAD_ARGUMENT;
  const Geometry g = MakeGeometry(hw, hh, rxMax - rxMin + 1, ryMax - ryMin + 1);
  const Layout lay = MakeLayout(g);
  if (!scratch || scratchBytes < lay.total) return EPHO_NCC_SEARCH_SCRATCH;
  int32_t bx = static_cast<int32_t>(rxMin), by = static_cast<int32_t>(ryMin);
  bool any = false;
  search(left, right, ls, rs, lx, ly, g, rxMin, ryMin, Aligned(scratch), lay, &bx, &by, &any);
  FinishPeak(kernel, rxMin, ryMin, rxMax, ryMax, bx, by, peak);
  return any ? EPHO_NCC_SEARCH_OK : EPHO_NCC_SEARCH_FLAT;
}

}  // namespace

extern "C" {

size_t epho_NccSearchScratchBytes(uint32_t halfWidth, uint32_t halfHeight, uint32_t rangeColumns,
                                  uint32_t rangeRows) {
  if (halfWidth > EPHO_NCC_SEARCH_MAX_HALF || halfHeight > EPHO_NCC_SEARCH_MAX_HALF ||
      rangeColumns == 0 || rangeRows == 0 || rangeColumns > kMaxRange || rangeRows > kMaxRange)
    return 0;
  return MakeLayout(MakeGeometry(halfWidth, halfHeight, rangeColumns, rangeRows)).total;
}

int epho_NccSearchByte(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                       uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t halfWidth,
                       uint32_t halfHeight, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                       uint32_t ryMax, void* scratch, size_t scratchBytes, Epho_NccPeak* peak) {
  const int16_t w = static_cast<int16_t>(2 * halfWidth + 1),
                h = static_cast<int16_t>(2 * halfHeight + 1);
  return RunSearch(left, right, leftStride, rightStride, lx, ly, halfWidth, halfHeight, rxMin,
                   ryMin, rxMax, ryMax, scratch, scratchBytes, peak, SearchByte,
                   [&](int32_t x, int32_t y) {
                     return epho_CrossCoefByteNoResample(left, right, leftStride, rightStride, lx,
                                                         ly, x, y, w, h);
                   });
}

int epho_NccSearchFloat(const float* left, const float* right, uint32_t leftStride,
                        uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t halfWidth,
                        uint32_t halfHeight, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                        uint32_t ryMax, void* scratch, size_t scratchBytes, Epho_NccPeak* peak) {
  const int16_t w = static_cast<int16_t>(2 * halfWidth + 1),
                h = static_cast<int16_t>(2 * halfHeight + 1);
  return RunSearch(left, right, leftStride, rightStride, lx, ly, halfWidth, halfHeight, rxMin,
                   ryMin, rxMax, ryMax, scratch, scratchBytes, peak, SearchFloat,
                   [&](int32_t x, int32_t y) {
                     return epho_CrossCoefFloatNoResample(left, right, leftStride, rightStride, lx,
                                                          ly, x, y, w, h);
                   });
}

}  // extern "C"
