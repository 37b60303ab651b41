// x86 bodies of the template search's cross products: SSE2 and AVX2 16-bit
// multiply-adds for 8-bit pixels (exact integers), AVX2 fused multiply-adds
// in single precision for float pixels.
#include "epho/matching/ncc_paths_internal.h"

#if EPHO_NCC_X86
#include <immintrin.h>

namespace epho::matching {

using std::size_t;

namespace {
constexpr size_t kBlock = kSearchBlock;
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
}  // namespace

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

}  // namespace epho::matching

#endif  // EPHO_NCC_X86
