// Body of the transform-domain correlation of the template search, written
// once over a vector of lanes and compiled per path (a build may supply
// EPHO_FFT_TRANSPOSE8, an 8 x 8 block transpose that moves rows into lanes
// and back, for its 8-lane vectors): ncc_fft_portable.cpp
// (4 lanes) and ncc_fft_x86.cpp (8 lanes, AVX2). Include it only from those
// two files, each with its own EPHO_FFT_NS, so that the two builds never
// share a symbol.
//
// The search area A and the template T (both zero-padded to nr x nc, powers
// of two) are packed as one complex image Z = A + iT and transformed with
// radix-2 decimation in frequency, which leaves the spectrum in bit-reversed
// order along both axes. The correlation spectrum follows from Z at k and -k
// (the spectra of two real images share one complex transform):
//   P(k) = conj(F_T(k)) F_A(k) = Im(Z(k) Z(-k)) / 2 + i (|Z(k)|^2 - |Z(-k)|^2) / 4,
// and the inverse (decimation in time, bit-reversed in, natural out) gives
// nr * nc * sum_{r,c} T(r, c) A(y + r, x + c) at (x, y), circularly (two
// rows to one complex row, see Correlate); the
// positions whose window lies inside A never wrap. A search area cut into
// several tiles takes them two at a time instead (CorrelatePair below), with
// the template's spectrum computed once. Every lane does the same
// single-precision operations in the same order and nothing is fused, so the
// result does not depend on the lane count.
#ifndef EPHO_FFT_NS
#error "define EPHO_FFT_NS before including fft_lanes_internal.h"
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "epho/matching/ncc_fft_internal.h"

namespace epho::matching {
namespace EPHO_FFT_NS {

template <class V>
inline V Load(const float* p) {
  V v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <class V>
inline void Store(float* p, V v) {
  std::memcpy(p, &v, sizeof v);
}

// Forward transform of n elements of E = K * L lanes (element k's real
// parts at br[k * E], imaginary at bi[k * E]), natural order in,
// bit-reversed order out; w holds cos and sin of -2 pi k / n for k < n / 2,
// interleaved. Radix-2 decimation in frequency; two levels at a time (spans
// h and h / 2 on four elements held in registers), which performs the very
// operations of the levels taken one by one, so the bits are the same. The
// first butterfly of a block (twiddle 1) only adds and subtracts.

// One level, span h (radix-2 form, for an odd number of levels).
template <class V, int L, int K>
inline void ForwardLevel(float* br, float* bi, int n, const float* w, int h, int step) {
  constexpr int E = K * L;
  for (int b = 0; b < n; b += 2 * h) {
    float* r0 = br + b * E;
    float* i0 = bi + b * E;
    float* r1 = r0 + h * E;
    float* i1 = i0 + h * E;
    for (int q = 0; q < E; q += L) {
      const V ar = Load<V>(r0 + q), ai = Load<V>(i0 + q), cr = Load<V>(r1 + q),
              ci = Load<V>(i1 + q);
      Store(r0 + q, ar + cr), Store(i0 + q, ai + ci);
      Store(r1 + q, ar - cr), Store(i1 + q, ai - ci);
    }
    for (int j = 1; j < h; ++j) {
      const float wr = w[2 * j * step], wi = w[2 * j * step + 1];
      for (int q = j * E; q < j * E + E; q += L) {
        const V ar = Load<V>(r0 + q), ai = Load<V>(i0 + q);
        const V cr = Load<V>(r1 + q), ci = Load<V>(i1 + q);
        const V dr = ar - cr, di = ai - ci;
        Store(r0 + q, ar + cr), Store(i0 + q, ai + ci);
        Store(r1 + q, dr * wr - di * wi), Store(i1 + q, dr * wi + di * wr);
      }
    }
  }
}

// Butterfly of decimation in frequency: (a, c) -> (a + c, (a - c) w), or
// (a + c, a - c) when kOne.
template <class V, bool kOne>
inline void ForwardButterfly(V& ar, V& ai, V& cr, V& ci, float wr, float wi) {
  const V dr = ar - cr, di = ai - ci;
  ar = ar + cr, ai = ai + ci;
  if (kOne) {
    cr = dr, ci = di;
  } else {
    cr = dr * wr - di * wi, ci = dr * wi + di * wr;
  }
}

// Levels of spans h and g = h / 2 on the four elements j, j + g, j + h,
// j + h + g of every block; kFirst: j = 0.
template <class V, int L, int K, bool kFirst>
inline void ForwardPairAt(float* r, float* i, int j, int g, const float* w, int step) {
  constexpr int E = K * L;
  const int h = 2 * g;
  const float ar = w[2 * j * step], ai = w[2 * j * step + 1];
  const float br = w[2 * (j + g) * step], bi = w[2 * (j + g) * step + 1];
  const float cr = w[4 * j * step], ci = w[4 * j * step + 1];
  for (int q = j * E; q < j * E + E; q += L) {
    V x0r = Load<V>(r + q), x0i = Load<V>(i + q);
    V x1r = Load<V>(r + q + g * E), x1i = Load<V>(i + q + g * E);
    V x2r = Load<V>(r + q + h * E), x2i = Load<V>(i + q + h * E);
    V x3r = Load<V>(r + q + (h + g) * E), x3i = Load<V>(i + q + (h + g) * E);
    ForwardButterfly<V, kFirst>(x0r, x0i, x2r, x2i, ar, ai);
    ForwardButterfly<V, false>(x1r, x1i, x3r, x3i, br, bi);
    ForwardButterfly<V, kFirst>(x0r, x0i, x1r, x1i, cr, ci);
    ForwardButterfly<V, kFirst>(x2r, x2i, x3r, x3i, cr, ci);
    Store(r + q, x0r), Store(i + q, x0i);
    Store(r + q + g * E, x1r), Store(i + q + g * E, x1i);
    Store(r + q + h * E, x2r), Store(i + q + h * E, x2i);
    Store(r + q + (h + g) * E, x3r), Store(i + q + (h + g) * E, x3i);
  }
}

template <class V, int L, int K>
void Forward(float* br, float* bi, int n, const float* w) {
  constexpr int E = K * L;
  int h = n / 2, step = 1;
  for (; h >= 2; h >>= 2, step <<= 2) {
    const int g = h / 2;
    for (int b = 0; b < n; b += 2 * h) {
      float* r = br + b * E;
      float* i = bi + b * E;
      ForwardPairAt<V, L, K, true>(r, i, 0, g, w, step);
      for (int j = 1; j < g; ++j) ForwardPairAt<V, L, K, false>(r, i, j, g, w, step);
    }
  }
  if (h == 1) ForwardLevel<V, L, K>(br, bi, n, w, 1, step);
}

// Inverse of Forward without the 1/n: bit-reversed in, natural order out.
// Radix-2 decimation in time, two levels at a time (spans g and 2 g) in the
// same way.
template <class V, int L, int K>
inline void InverseLevel(float* br, float* bi, int n, const float* w, int h, int step) {
  constexpr int E = K * L;
  for (int b = 0; b < n; b += 2 * h) {
    float* r0 = br + b * E;
    float* i0 = bi + b * E;
    float* r1 = r0 + h * E;
    float* i1 = i0 + h * E;
    for (int q = 0; q < E; q += L) {
      const V ar = Load<V>(r0 + q), ai = Load<V>(i0 + q), cr = Load<V>(r1 + q),
              ci = Load<V>(i1 + q);
      Store(r0 + q, ar + cr), Store(i0 + q, ai + ci);
      Store(r1 + q, ar - cr), Store(i1 + q, ai - ci);
    }
    for (int j = 1; j < h; ++j) {
      const float wr = w[2 * j * step], wi = w[2 * j * step + 1];
      for (int q = j * E; q < j * E + E; q += L) {
        const V ar = Load<V>(r0 + q), ai = Load<V>(i0 + q);
        const V cr = Load<V>(r1 + q), ci = Load<V>(i1 + q);
        const V er = cr * wr + ci * wi, ei = ci * wr - cr * wi;  // times conj(w)
        Store(r0 + q, ar + er), Store(i0 + q, ai + ei);
        Store(r1 + q, ar - er), Store(i1 + q, ai - ei);
      }
    }
  }
}

// Butterfly of decimation in time: (a, c) -> (a + c conj(w), a - c conj(w)),
// or (a + c, a - c) when kOne.
template <class V, bool kOne>
inline void InverseButterfly(V& ar, V& ai, V& cr, V& ci, float wr, float wi) {
  V er = cr, ei = ci;
  if (!kOne) er = cr * wr + ci * wi, ei = ci * wr - cr * wi;
  cr = ar - er, ci = ai - ei;
  ar = ar + er, ai = ai + ei;
}

// Levels of spans g and h = 2 g on the four elements j, j + g, j + h,
// j + h + g of every block; kFirst: j = 0.
template <class V, int L, int K, bool kFirst>
inline void InversePairAt(float* r, float* i, int j, int g, const float* w, int step) {
  constexpr int E = K * L;
  const int h = 2 * g;
  // Span g takes twiddle j at step 2 * step (= 2 * (step of span h)).
  const float ar = w[4 * j * step], ai = w[4 * j * step + 1];
  const float br = w[2 * j * step], bi = w[2 * j * step + 1];
  const float cr = w[2 * (j + g) * step], ci = w[2 * (j + g) * step + 1];
  for (int q = j * E; q < j * E + E; q += L) {
    V x0r = Load<V>(r + q), x0i = Load<V>(i + q);
    V x1r = Load<V>(r + q + g * E), x1i = Load<V>(i + q + g * E);
    V x2r = Load<V>(r + q + h * E), x2i = Load<V>(i + q + h * E);
    V x3r = Load<V>(r + q + (h + g) * E), x3i = Load<V>(i + q + (h + g) * E);
    InverseButterfly<V, kFirst>(x0r, x0i, x1r, x1i, ar, ai);
    InverseButterfly<V, kFirst>(x2r, x2i, x3r, x3i, ar, ai);
    InverseButterfly<V, kFirst>(x0r, x0i, x2r, x2i, br, bi);
    InverseButterfly<V, false>(x1r, x1i, x3r, x3i, cr, ci);
    Store(r + q, x0r), Store(i + q, x0i);
    Store(r + q + g * E, x1r), Store(i + q + g * E, x1i);
    Store(r + q + h * E, x2r), Store(i + q + h * E, x2i);
    Store(r + q + (h + g) * E, x3r), Store(i + q + (h + g) * E, x3i);
  }
}

template <class V, int L, int K>
void Inverse(float* br, float* bi, int n, const float* w) {
  constexpr int E = K * L;
  // step is that of span h = 2 g; span g has twice it.
  int g = 1, step = n / 4;
  for (; 2 * g < n; g <<= 2, step >>= 2) {
    for (int b = 0; b < n; b += 4 * g) {
      float* r = br + b * E;
      float* i = bi + b * E;
      InversePairAt<V, L, K, true>(r, i, 0, g, w, step);
      for (int j = 1; j < g; ++j) InversePairAt<V, L, K, false>(r, i, j, g, w, step);
    }
  }
  if (g < n) InverseLevel<V, L, K>(br, bi, n, w, g, n / (2 * g));
}

// One 2D pass. Along rows' index (vertical): strips of L columns copied into
// the strip buffer (contiguous, so the power-of-two row stride does not
// thrash the caches). Along columns' index (horizontal): L rows gathered
// lane-wise.
template <class V, int L, bool kForward>
void Vertical(const FftPlan& p, float* re, float* im) {
  constexpr int E = 2 * L;  // whole 64-byte lines of the 8-lane build
  float* br = p.strip;
  float* bi = p.strip + static_cast<std::size_t>(p.nr) * E;
  const std::size_t nc = p.nc;
  for (int c0 = 0; c0 < p.nc; c0 += E) {
    for (int r = 0; r < p.nr; ++r)
      for (int q = 0; q < E; q += L) {
        Store(br + r * E + q, Load<V>(re + r * nc + c0 + q));
        Store(bi + r * E + q, Load<V>(im + r * nc + c0 + q));
      }
    if (kForward)
      Forward<V, L, 2>(br, bi, p.nr, p.twiddle_r);
    else
      Inverse<V, L, 2>(br, bi, p.nr, p.twiddle_r);
    for (int r = 0; r < p.nr; ++r)
      for (int q = 0; q < E; q += L) {
        Store(re + r * nc + c0 + q, Load<V>(br + r * E + q));
        Store(im + r * nc + c0 + q, Load<V>(bi + r * E + q));
      }
  }
}

// (Rows 0 .. rows - 1 only, rounded up to whole groups of 2 L.)
template <class V, int L, bool kForward>
void Horizontal(const FftPlan& p, float* re, float* im, int rows) {
  constexpr int E = 2 * L;
  float* br = p.strip;
  float* bi = p.strip + static_cast<std::size_t>(p.nc) * E;
  const std::size_t nc = p.nc;
  for (int r0 = 0; r0 < rows; r0 += E) {
#ifdef EPHO_FFT_TRANSPOSE8
    if (L == 8) {
      EPHO_FFT_TRANSPOSE8(re + r0 * nc, nc, br, E, p.nc, true);
      EPHO_FFT_TRANSPOSE8(im + r0 * nc, nc, bi, E, p.nc, true);
    } else
#endif
      for (int l = 0; l < E; ++l) {
        const float* sr = re + (r0 + l) * nc;
        const float* si = im + (r0 + l) * nc;
        for (int c = 0; c < p.nc; ++c) br[c * E + l] = sr[c], bi[c * E + l] = si[c];
      }
    if (kForward)
      Forward<V, L, 2>(br, bi, p.nc, p.twiddle_c);
    else
      Inverse<V, L, 2>(br, bi, p.nc, p.twiddle_c);
#ifdef EPHO_FFT_TRANSPOSE8
    if (L == 8) {
      EPHO_FFT_TRANSPOSE8(re + r0 * nc, nc, br, E, p.nc, false);
      EPHO_FFT_TRANSPOSE8(im + r0 * nc, nc, bi, E, p.nc, false);
    } else
#endif
      for (int l = 0; l < E; ++l) {
        float* sr = re + (r0 + l) * nc;
        float* si = im + (r0 + l) * nc;
        for (int c = 0; c < p.nc; ++c) sr[c] = br[c * E + l], si[c] = bi[c * E + l];
      }
  }
}

template <class V, int L>
inline V Reversed(V v) {
  if constexpr (L == 8)
    return __builtin_shufflevector(v, v, 7, 6, 5, 4, 3, 2, 1, 0);
  else
    return __builtin_shufflevector(v, v, 3, 2, 1, 0);
}

// The correlation spectrum from Z at k and -k, in place. Every pair (k, -k)
// is formed once; P(-k) = conj P(k), and the formula gives the same bits
// from either end (the sums and the difference of squares only change
// sides), so the order of the work does not show in the result.
inline void PairScalar(float* re, float* im, std::size_t a, std::size_t b) {
  const float zr = re[a], zi = im[a], mr = re[b], mi = im[b];
  const float pre = 0.5f * (zr * mi + zi * mr);
  const float pim = 0.25f * ((zr * zr + zi * zi) - (mr * mr + mi * mi));
  re[a] = pre, im[a] = pim;
  re[b] = pre, im[b] = -pim;
}

template <class V, int L>
void Product(const FftPlan& p, float* re, float* im) {
  const std::size_t nc = p.nc;
  for (int pr = 0; pr < p.nr; ++pr) {
    const std::size_t qr = p.negate_r[pr];
    if (qr < static_cast<std::size_t>(pr)) continue;  // done from row qr
    if (qr == static_cast<std::size_t>(pr)) {         // rows paired with themselves
      for (int pc = 0; pc < p.nc; ++pc) {
        const std::size_t a = pr * nc + pc, b = qr * nc + p.negate_c[pc];
        if (b >= a) PairScalar(re, im, a, b);
      }
      continue;
    }
    float* ar = re + pr * nc;
    float* ai = im + pr * nc;
    float* br = re + qr * nc;
    float* bi = im + qr * nc;
    // In bit-reversed order -k of a column in [2^m, 2^(m+1)) is 3 * 2^m - 1
    // minus it: the blocks of L columns and more pair with reversed blocks.
    for (int pc = 0; pc < L && pc < p.nc; ++pc)
      PairScalar(re, im, pr * nc + pc, qr * nc + p.negate_c[pc]);
    for (int m = L; m < p.nc; m *= 2)
      for (int pc = m; pc < 2 * m; pc += L) {
        const int q = 3 * m - L - pc;
        const V zr = Load<V>(ar + pc), zi = Load<V>(ai + pc);
        const V mr = Reversed<V, L>(Load<V>(br + q)), mi = Reversed<V, L>(Load<V>(bi + q));
        const V pre = 0.5f * (zr * mi + zi * mr);
        const V pim = 0.25f * ((zr * zr + zi * zi) - (mr * mr + mi * mi));
        Store(ar + pc, pre), Store(ai + pc, pim);
        Store(br + q, Reversed<V, L>(pre)), Store(bi + q, Reversed<V, L>(-pim));
      }
  }
}

// Z = A + iT in (re, im) -> nr * nc times the correlation, rows 0 .. rows - 1
// (at least), row 2m in row m of re, row 2m + 1 in row m of im. After the
// vertical inverse every row's spectrum is Hermitian (its inverse is real),
// so two rows share one complex horizontal inverse: Q(2m) + i Q(2m+1) has
// the inverse q(2m) + i q(2m+1), and only half the rows are transformed.
template <class V, int L>
void Correlate(const FftPlan& p, float* re, float* im, int rows) {
  Vertical<V, L, true>(p, re, im);
  Horizontal<V, L, true>(p, re, im, p.nr);
  Product<V, L>(p, re, im);
  Vertical<V, L, false>(p, re, im);
  const int pairs = (rows + 1) / 2;
  const std::size_t nc = p.nc;
  for (int m = 0; m < pairs; ++m) {
    const float* ar = re + 2 * m * nc;
    const float* ai = im + 2 * m * nc;
    const float* br = ar + nc;
    const float* bi = ai + nc;
    float* cr = re + m * nc;
    float* ci = im + m * nc;
    for (std::size_t c = 0; c < nc; c += L) {
      const V zr = Load<V>(ar + c) - Load<V>(bi + c), zi = Load<V>(ai + c) + Load<V>(br + c);
      Store(cr + c, zr), Store(ci + c, zi);
    }
  }
  Horizontal<V, L, false>(p, re, im, pairs);
}

// The spectrum of (re, im), bit-reversed along both axes.
template <class V, int L>
void Spectrum(const FftPlan& p, float* re, float* im) {
  Vertical<V, L, true>(p, re, im);
  Horizontal<V, L, true>(p, re, im, p.nr);
}

// Two search-area tiles A1 (re) and A2 (im) against one template whose
// spectrum S came from Spectrum: Z = A1 + i A2 has the spectrum
// F_A1 + i F_A2, so the inverse of Z conj(S) holds nr * nc times the
// correlation of A1 in re and of A2 in im.
template <class V, int L>
void CorrelatePair(const FftPlan& p, float* re, float* im, const float* sr, const float* si) {
  Spectrum<V, L>(p, re, im);
  const std::size_t total = static_cast<std::size_t>(p.nr) * p.nc;
  for (std::size_t k = 0; k < total; k += L) {
    const V zr = Load<V>(re + k), zi = Load<V>(im + k);
    const V tr = Load<V>(sr + k), ti = Load<V>(si + k);
    Store(re + k, zr * tr + zi * ti);
    Store(im + k, zi * tr - zr * ti);
  }
  Horizontal<V, L, false>(p, re, im, p.nr);
  Vertical<V, L, false>(p, re, im);
}

}  // namespace EPHO_FFT_NS
}  // namespace epho::matching
