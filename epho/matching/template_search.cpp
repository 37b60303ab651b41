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
// kernel's. The vector bodies are in template_search_x86.cpp and
// template_search_portable.cpp; the caller names the path. All work memory
// is the caller's scratch block.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "epho/matching.h"
#include "epho/matching/ncc_fft_internal.h"
#include "epho/matching/ncc_internal.h"
#include "epho/matching/ncc_paths_internal.h"

namespace {

using std::ptrdiff_t;
using std::size_t;

using epho::VectorPath;
using epho::matching::SearchMethod;
constexpr size_t kPad = epho::matching::kSearchPad;
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
  size_t area, templ, cross, colsum, colsq, run_s, run_q, num, var, score, total;
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
  l.run_s = take(8 * (g.area_w + 1));
  l.run_q = take(8 * (g.area_w + 1));
  l.num = take(8 * g.cols);
  l.var = take(8 * g.cols);
  l.score = take(8 * g.cols);
  l.total = off + 64;  // room to align the block's start
  return l;
}

bool ArgumentsValid(uint32_t hw, uint32_t hh, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                    uint32_t ryMax) {
  return hw <= EPHO_NCC_SEARCH_MAX_HALF && hh <= EPHO_NCC_SEARCH_MAX_HALF && rxMin <= rxMax &&
         ryMin <= ryMax && rxMax - rxMin < kMaxRange && ryMax - ryMin < kMaxRange && rxMin >= hw &&
         ryMin >= hh;
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

// The columns 0..cols-1 in the order SlideRow visits them.
template <class Visit>
void VisitInSlideOrder(const Geometry& g, Visit visit) {
  constexpr size_t kChains = 4;
  const size_t len = (g.cols + kChains - 1) / kChains;
  for (size_t i = 0; i < len; ++i)
    for (size_t k = 0; k < kChains; ++k) {
      const size_t begin = std::min(k * len, g.cols), end = std::min(begin + len, g.cols);
      if (begin + i < end) visit(begin + i);
    }
}

// Column sums (and sums of squares) of the window rows, moved down one row:
// row `leave` (null for the first window) leaves, row `enter` enters, in
// that order for every column. In double: exact for 8-bit pixels (integers
// far below 2^53); the arrays never overlap, so the loop runs on vector lanes.
template <typename P, class Value>
inline __attribute__((always_inline)) void StepColumns(double* __restrict colsum,
                                                       double* __restrict colsq,
                                                       const P* __restrict leave,
                                                       const P* __restrict enter, size_t w,
                                                       Value value) {
  if (leave)
    for (size_t c = 0; c < w; ++c) {
      const double v = value(leave[c]);
      colsum[c] -= v, colsq[c] -= v * v;
    }
  for (size_t c = 0; c < w; ++c) {
    const double v = value(enter[c]);
    colsum[c] += v, colsq[c] += v * v;
  }
}

// Window sums s[x] and ss[x] (x < cols) of a row of column sums, as
// differences of running sums along the row (exact for 8-bit pixels). The
// running sums are formed in four runs side by side (four independent
// chains of additions), each then raised by the total of the runs before
// it; the differences have no dependences between columns.
inline __attribute__((always_inline)) void WindowRowBody(
    const double* colsum, const double* colsq, const Geometry& g, double* __restrict run_s,
    double* __restrict run_q, double* __restrict s, double* __restrict ss) {
  constexpr size_t kRuns = 4;
  const size_t w = g.area_w, len = (w + kRuns - 1) / kRuns;
  double a[kRuns] = {0, 0, 0, 0}, b[kRuns] = {0, 0, 0, 0};
  run_s[0] = run_q[0] = 0.0;
  for (size_t i = 0; i < len; ++i)
    for (size_t k = 0; k < kRuns; ++k) {
      const size_t c = k * len + i;
      if (c >= w) continue;
      a[k] += colsum[c], b[k] += colsq[c];
      run_s[c + 1] = a[k], run_q[c + 1] = b[k];
    }
  double off_s = 0.0, off_q = 0.0;
  for (size_t k = 1; k < kRuns && k * len < w; ++k) {
    off_s += a[k - 1], off_q += b[k - 1];
    const size_t end = std::min(w, (k + 1) * len);
    for (size_t c = k * len; c < end; ++c) run_s[c + 1] += off_s, run_q[c + 1] += off_q;
  }
  const size_t tw = static_cast<size_t>(g.tw);
  for (size_t x = 0; x < g.cols; ++x) {
    s[x] = run_s[x + tw] - run_s[x];
    ss[x] = run_q[x + tw] - run_q[x];
  }
}

// The per-candidate loops above and RowBounds below are compiled twice: for
// the baseline and, taken on the AVX2 path, for AVX2 (four double lanes).
// Neither fuses a multiply and an add, so both give the same bits.
#if EPHO_NCC_X86
#define EPHO_TS_AVX2 __attribute__((target("avx2")))
#endif

void WindowRowBase(const double* colsum, const double* colsq, const Geometry& g, double* run_s,
                   double* run_q, double* s, double* ss) {
  WindowRowBody(colsum, colsq, g, run_s, run_q, s, ss);
}
#if EPHO_NCC_X86
EPHO_TS_AVX2 void WindowRowAvx2(const double* colsum, const double* colsq, const Geometry& g,
                                double* run_s, double* run_q, double* s, double* ss) {
  WindowRowBody(colsum, colsq, g, run_s, run_q, s, ss);
}
#endif
void WindowRow(VectorPath path, const double* colsum, const double* colsq, const Geometry& g,
               double* run_s, double* run_q, double* s, double* ss) {
#if EPHO_NCC_X86
  if (path == VectorPath::kAvx2) return WindowRowAvx2(colsum, colsq, g, run_s, run_q, s, ss);
#endif
  (void)path;
  WindowRowBase(colsum, colsq, g, run_s, run_q, s, ss);
}

// StepColumns on the given path.
template <typename P, class Value>
void StepColumnsBase(double* colsum, double* colsq, const P* leave, const P* enter, size_t w,
                     Value value) {
  StepColumns(colsum, colsq, leave, enter, w, value);
}
#if EPHO_NCC_X86
template <typename P, class Value>
EPHO_TS_AVX2 void StepColumnsAvx2(double* colsum, double* colsq, const P* leave, const P* enter,
                                  size_t w, Value value) {
  StepColumns(colsum, colsq, leave, enter, w, value);
}
#endif
template <typename P, class Value>
void StepColumns(VectorPath path, double* colsum, double* colsq, const P* leave, const P* enter,
                 size_t w, Value value) {
#if EPHO_NCC_X86
  if (path == VectorPath::kAvx2) return StepColumnsAvx2(colsum, colsq, leave, enter, w, value);
#endif
  (void)path;
  StepColumnsBase(colsum, colsq, leave, enter, w, value);
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

// Offers one candidate row to `best` given each candidate's (num, var) as
// BestTracker reads them. The row is first compared with the best so far in
// a loop without branches or divisions (vector lanes), by the same two
// products as BestTracker; only the candidates that come within a margin far
// above their rounding are offered, in the order of the running sums: the
// others would lose every comparison, so the result is the one of offering
// them all.
void OfferRow(const double* num, const double* var, double* gap, const Geometry& g, size_t y,
              BestTracker* best) {
  const double a = best->a, b = best->b;
  const bool first = a == -std::numeric_limits<double>::infinity();
  // Two candidates per step on explicit vectors (the compiler keeps the
  // selects of a scalar loop as branches); each lane does the scalar
  // operations. A flat candidate (var <= 0) is the fraction 0 / 1.
  typedef double V2 __attribute__((vector_size(16)));
  const V2 zero = {0.0, 0.0}, one = {1.0, 1.0};
  V2 most = {-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
  size_t x = 0;
  for (; x + 2 <= g.cols; x += 2) {
    V2 n, v;
    std::memcpy(&n, num + x, sizeof n);
    std::memcpy(&v, var + x, sizeof v);
    const auto counts = (v > zero) & (n != zero);
    const V2 an = n < zero ? -n : n;
    const V2 sa = counts ? n * an : zero, sb = counts ? v : one;
    const V2 rhs = a * sb;
    const V2 arhs = rhs < zero ? -rhs : rhs;
    const V2 d = sa * b - (rhs - 1e-12 * arhs);
    std::memcpy(gap + x, &d, sizeof d);
    most = most > d ? most : d;
  }
  bool any = most[0] >= 0.0 || most[1] >= 0.0;
  for (; x < g.cols; ++x) {
    const bool counts = var[x] > 0.0 && num[x] != 0.0;
    const double sa = counts ? num[x] * std::fabs(num[x]) : 0.0, sb = counts ? var[x] : 1.0;
    const double rhs = a * sb;
    gap[x] = sa * b - (rhs - 1e-12 * std::fabs(rhs));
    any = any || gap[x] >= 0.0;
  }
  if (!any && !first) return;
  VisitInSlideOrder(g, [&](size_t x) {
    if (gap[x] >= 0.0 || first) best->Offer(num[x], var[x], x, y);
  });
}

// Sub-pixel peak along one axis from three coefficients; 0 unless the middle
// one is a strict maximum of a downward parabola.
double ParabolaOffset(double before, double at, double after) {
  const double curvature = before - 2.0 * at + after;
  if (!(curvature < 0.0)) return 0.0;
  const double d = 0.5 * (before - after) / curvature;
  return std::max(-0.5, std::min(0.5, d));
}

// Best position done: exact coefficient and sub-pixel peak from the kernel.
// `kernel(xs, ys, count, out)` gives the kernel's coefficients at `count`
// positions: the peak, then its inner neighbours along x, then along y.
template <class Kernel>
void FinishPeak(Kernel kernel, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax, uint32_t ryMax,
                int32_t bx, int32_t by, Epho_NccPeak* peak) {
  const bool inner_x = static_cast<uint32_t>(bx) > rxMin && static_cast<uint32_t>(bx) < rxMax;
  const bool inner_y = static_cast<uint32_t>(by) > ryMin && static_cast<uint32_t>(by) < ryMax;
  uint32_t xs[5] = {static_cast<uint32_t>(bx)}, ys[5] = {static_cast<uint32_t>(by)};
  int count = 1;
  if (inner_x)
    for (int d : {-1, 1}) xs[count] = static_cast<uint32_t>(bx + d), ys[count++] = by;
  if (inner_y)
    for (int d : {-1, 1}) xs[count] = static_cast<uint32_t>(bx), ys[count++] = by + d;
  double c[5];
  kernel(xs, ys, count, c);
  peak->column = bx;
  peak->row = by;
  peak->coefficient = c[0];
  peak->on_border = (inner_x ? 0 : 1) | (inner_y ? 0 : 2);
  peak->subpixel_column = bx;
  peak->subpixel_row = by;
  if (inner_x) peak->subpixel_column += ParabolaOffset(c[1], c[0], c[2]);
  if (inner_y) peak->subpixel_row += ParabolaOffset(c[inner_x ? 3 : 1], c[0], c[inner_x ? 4 : 2]);
}

char* Aligned(void* scratch) {
  const uintptr_t p = reinterpret_cast<uintptr_t>(scratch);
  return reinterpret_cast<char*>((p + 63) & ~uintptr_t(63));
}

int SearchByte(VectorPath path, const uint8_t* left, const uint8_t* right, uint32_t ls, uint32_t rs,
               uint32_t lx, uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin,
               char* base, const Layout& lay, int32_t* best_x, int32_t* best_y, bool* any) {
  int32_t* pairs = reinterpret_cast<int32_t*>(base + lay.area);
  int32_t* coef = reinterpret_cast<int32_t*>(base + lay.templ);
  int32_t* cross = reinterpret_cast<int32_t*>(base + lay.cross);
  double* colsum = reinterpret_cast<double*>(base + lay.colsum);
  double* colsq = reinterpret_cast<double*>(base + lay.colsq);
  double* run_s = reinterpret_cast<double*>(base + lay.run_s);
  double* run_q = reinterpret_cast<double*>(base + lay.run_q);
  double* row_num = reinterpret_cast<double*>(base + lay.num);
  double* row_var = reinterpret_cast<double*>(base + lay.var);
  double* row_score = reinterpret_cast<double*>(base + lay.score);
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
  auto pixel = [](uint8_t v) { return static_cast<double>(v); };
  std::fill(colsum, colsum + g.area_w, 0.0);
  std::fill(colsq, colsq + g.area_w, 0.0);
  for (int r = 0; r < g.th - 1; ++r)
    StepColumns(path, colsum, colsq, static_cast<const uint8_t*>(nullptr), a0 + r * rs, g.area_w,
                pixel);

  const int64_t n = static_cast<int64_t>(g.tw) * g.th;
  BestTracker best;
  if (n * stt - st * st == 0) {  // flat template: every coefficient is 0
    *any = false;
    return EPHO_NCC_SEARCH_OK;
  }
  for (size_t y = 0; y < g.rows; ++y) {
    // Column sums over rows y .. y+th-1.
    StepColumns(path, colsum, colsq, y > 0 ? a0 + (y - 1) * rs : nullptr, a0 + (y + g.th - 1) * rs,
                g.area_w, pixel);
    const int32_t* prow = pairs + y * g.work_stride;
#if EPHO_NCC_X86
    if (path == VectorPath::kAvx2)
      epho::matching::CrossRowByteAvx2(prow, g.work_stride, coef, g.th, npairs, g.cols_padded,
                                       cross);
    else if (path == VectorPath::kSse2)
      epho::matching::CrossRowByteSse2(prow, g.work_stride, coef, g.th, npairs, g.cols_padded,
                                       cross);
    else
#endif
      epho::matching::CrossRowBytePortable(prow, g.work_stride, coef, g.th, npairs, g.cols_padded,
                                           cross);
    // Exact integers scaled by n: num = n*sum(TI) - sum(T)*sum(I), var = n*sum(II) - sum(I)^2.
    // Every term an integer below 2^53: exact in double.
    WindowRow(path, colsum, colsq, g, run_s, run_q, row_num, row_var);
    const double dn = static_cast<double>(n), dst = static_cast<double>(st);
    for (size_t x = 0; x < g.cols; ++x) {
      const double ws = row_num[x], wss = row_var[x];
      row_num[x] = dn * static_cast<double>(static_cast<uint32_t>(cross[x])) - dst * ws;
      row_var[x] = dn * wss - ws * ws;
    }
    OfferRow(row_num, row_var, row_score, g, y, &best);
  }
  *best_x = static_cast<int32_t>(rxMin + best.x);
  *best_y = static_cast<int32_t>(ryMin + best.y);
  *any = best.any;
  return EPHO_NCC_SEARCH_OK;
}

int SearchFloat(VectorPath path, const float* left, const float* right, uint32_t ls, uint32_t rs,
                uint32_t lx, uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin,
                char* base, const Layout& lay, int32_t* best_x, int32_t* best_y, bool* any) {
  float* area = reinterpret_cast<float*>(base + lay.area);
  float* templ = reinterpret_cast<float*>(base + lay.templ);
  float* cross_rows = reinterpret_cast<float*>(base + lay.cross);
  double* colsum = reinterpret_cast<double*>(base + lay.colsum);
  double* colsq = reinterpret_cast<double*>(base + lay.colsq);
  double* run_s = reinterpret_cast<double*>(base + lay.run_s);
  double* run_q = reinterpret_cast<double*>(base + lay.run_q);
  double* row_num = reinterpret_cast<double*>(base + lay.num);
  double* row_var = reinterpret_cast<double*>(base + lay.var);
  double* row_score = reinterpret_cast<double*>(base + lay.score);

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
    float* __restrict out = area + r * g.work_stride;
    const float* __restrict in = a0 + r * rs;
    for (size_t c = 0; c < g.area_w; ++c) out[c] = static_cast<float>(in[c] - ma);
    std::fill(out + g.area_w, out + g.work_stride, 0.0f);
  }
  auto widen = [](float v) { return static_cast<double>(v); };
  std::fill(colsum, colsum + g.area_w, 0.0);
  std::fill(colsq, colsq + g.area_w, 0.0);
  for (int r = 0; r < g.th - 1; ++r)
    StepColumns(path, colsum, colsq, static_cast<const float*>(nullptr), area + r * g.work_stride,
                g.area_w, widen);

  const double inv_n = 1.0 / (static_cast<double>(g.tw) * g.th);
  BestTracker best;
  if (!(vt > 0.0)) {  // flat template
    *any = false;
    return EPHO_NCC_SEARCH_OK;
  }
  for (size_t y = 0; y < g.rows; ++y) {
    StepColumns(path, colsum, colsq, y > 0 ? area + (y - 1) * g.work_stride : nullptr,
                area + (y + g.th - 1) * g.work_stride, g.area_w, widen);
    const float* arow = area + y * g.work_stride;
    float* cross = cross_rows + (y & 1) * g.cols_padded;
#if EPHO_NCC_X86
    if (path == VectorPath::kAvx2) {
      if ((y & 1) == 0 && y + 1 < g.rows)  // rows y and y + 1 in one pass
        epho::matching::CrossTwoRowsFloatAvx2(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded,
                                              cross, cross + g.cols_padded);
      else if ((y & 1) == 0)
        epho::matching::CrossRowFloatAvx2(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded,
                                          cross);
    } else
#endif
      epho::matching::CrossRowFloatPortable(arow, g.work_stride, templ, g.th, g.tw, g.cols_padded,
                                            cross);
    WindowRow(path, colsum, colsq, g, run_s, run_q, row_num, row_var);
    for (size_t x = 0; x < g.cols; ++x) {
      const double ws = row_num[x], wss = row_var[x];
      const double vr = wss - ws * inv_n * ws;
      // Relative floor: a window flat up to float rounding counts as flat.
      row_num[x] = cross[x];
      row_var[x] = vr > 1e-9 * wss ? vr : 0.0;
    }
    OfferRow(row_num, row_var, row_score, g, y, &best);
  }
  *best_x = static_cast<int32_t>(rxMin + best.x);
  *best_y = static_cast<int32_t>(ryMin + best.y);
  *any = best.any;
  return EPHO_NCC_SEARCH_OK;
}

// ---- transform-domain search -------------------------------------------
//
// The cross products of every candidate at once from one packed complex
// transform of the search area and the template (ncc_fft_internal.h), in
// single precision; the window statistics from the same running sums as the
// direct search. Single precision only ranks: every candidate whose
// coefficient could, within a bound on the transform's rounding, reach the
// best one's is evaluated again exactly (integer sums for 8-bit pixels,
// double for float), and the ranking and tie rule of the direct search
// decide among them. For 8-bit pixels the position found is therefore the
// direct search's.

constexpr size_t kFftMaxPoints = size_t(1) << 22;  // 32 MiB of transform planes

size_t Pow2AtLeast(size_t v) {
  size_t p = epho::matching::kFftMaxLanes * 2;
  while (p < v) p *= 2;
  return p;
}

// The search area is cut into tiles whose transform stays in the caches:
// a tile of nr x nc pixels yields (nr - th + 1) x (nc - tw + 1) candidates.
// Its side is the smallest power of two holding the whole area, but no
// larger than needed for four template sizes (at least 256).
struct FftLayout {
  size_t nr, nc;          // transform (tile) size
  size_t step_r, step_c;  // candidates per tile
  size_t tiles;           // tiles over the candidate range
  size_t re, im, spec_re, spec_im, strip, tw_r, tw_c, neg_r, neg_c, cross, colsum, colsq, run_s,
      run_q, row_s, row_var, row_top, total;
  bool ok;  // the candidate range fits the size limit
};

size_t TileSide(size_t area, int template_side) {
  const size_t cap = Pow2AtLeast(std::max<size_t>(256, 4 * static_cast<size_t>(template_side)));
  return std::min(Pow2AtLeast(area), cap);
}

FftLayout MakeFftLayout(const Geometry& g) {
  FftLayout l{};
  l.nr = TileSide(g.area_h, g.th);
  l.nc = TileSide(g.area_w, g.tw);
  l.step_r = l.nr - g.th + 1;
  l.step_c = l.nc - g.tw + 1;
  l.tiles = ((g.rows + l.step_r - 1) / l.step_r) * ((g.cols + l.step_c - 1) / l.step_c);
  l.ok = g.rows * g.cols <= kFftMaxPoints;
  if (!l.ok) return l;
  size_t off = 0;
  auto take = [&](size_t bytes) {
    const size_t at = off;
    off += RoundUp(bytes, 64);
    return at;
  };
  l.re = take(4 * l.nr * l.nc);
  l.im = take(4 * l.nr * l.nc);
  if (l.tiles > 1) {  // the template's own spectrum, for tiles taken in pairs
    l.spec_re = take(4 * l.nr * l.nc);
    l.spec_im = take(4 * l.nr * l.nc);
  }
  l.strip = take(4 * 4 * std::max(l.nr, l.nc) * epho::matching::kFftMaxLanes);
  l.tw_r = take(4 * l.nr);
  l.tw_c = take(4 * l.nc);
  l.neg_r = take(4 * l.nr);
  l.neg_c = take(4 * l.nc);
  l.cross = take(4 * g.rows * g.cols);
  l.colsum = take(8 * g.area_w);
  l.colsq = take(8 * g.area_w);
  l.run_s = take(8 * (g.area_w + 1));
  l.run_q = take(8 * (g.area_w + 1));
  l.row_s = take(8 * g.cols);
  l.row_var = take(8 * g.cols);
  l.row_top = take(4 * g.rows);
  l.total = off + 64;
  return l;
}

// Measured cost model, in nanoseconds of processor time per path:
//  - direct search: per candidate, a fixed part (window statistics,
//    ranking) plus a part per template pixel (the cross products), over the
//    candidate rows rounded up to whole blocks of kSearchBlock columns (the
//    vector body's unit of work);
//  - transform: per point and level of one packed correlation (n log2 n for
//    an n-point tile; several tiles cost half a correlation each, plus half
//    for the template's spectrum, at a figure of their own), plus a part per
//    candidate (window statistics, bounds).
// The AVX2 figures were fitted by least squares to the "switch point" rows
// of bench/matching_bench.cpp (`matching_bench switch`, which prints the
// measured times beside this model's) on one AMD EPYC (Zen 5) core of the
// optimised (-O3) build, windows of 64 to 1024 pixels, templates of 11 to
// 41, the best of several runs in processor time so that a shared machine
// does not skew them. The transform's time hardly depends on the template
// size (a free fit of its per-candidate figure comes out slightly below 0),
// so that figure is set from the window statistics and bounds alone and the
// per-level figures fitted with it. The other paths keep figures per
// template pixel only, from the -O2 build.
struct CostModel {
  double direct_byte_candidate, direct_byte_pixel, direct_float_candidate, direct_float_pixel,
      transform, transform_tiled, transform_candidate;
};

CostModel Costs(VectorPath path) {
  switch (path) {
    case VectorPath::kAvx2:  // the optimised (-O3) build's figures
      return {3.3, 0.0139, 3.1, 0.0256, 0.29, 0.38, 0.25};
    case VectorPath::kSse2:
      return {0.0, 0.036, 0.0, 0.29, 0.75, 0.75, 0.0};
    case VectorPath::kPortable:
      break;
  }
  return {0.0, 0.37, 0.0, 0.29, 0.75, 0.75, 0.0};
}

// The model's time of both methods, nanoseconds.
void ModelCosts(VectorPath path, const Geometry& g, const FftLayout& f, bool byte, double* direct,
                double* transform) {
  const CostModel c = Costs(path);
  const double candidates = static_cast<double>(g.cols) * g.rows;
  const double blocks = static_cast<double>(RoundUp(g.cols, epho::matching::kSearchBlock)) * g.rows;
  const double pixels = static_cast<double>(g.tw) * g.th;
  *direct = blocks * (byte ? c.direct_byte_candidate + pixels * c.direct_byte_pixel
                           : c.direct_float_candidate + pixels * c.direct_float_pixel);
  const double points = static_cast<double>(f.nr) * f.nc;
  // One packed correlation per tile, or for several tiles one per pair plus
  // half of one for the template's spectrum.
  const double units = f.tiles == 1 ? 1.0 : 0.5 + static_cast<double>((f.tiles + 1) / 2);
  *transform =
      units * points * std::log2(points) * (f.tiles == 1 ? c.transform : c.transform_tiled) +
      candidates * c.transform_candidate;
}

bool TransformPays(VectorPath path, const Geometry& g, const FftLayout& f, bool byte) {
  if (!f.ok) return false;
  double direct, transform;
  ModelCosts(path, g, f, byte, &direct, &transform);
  return transform < direct;
}

// cos and sin of -2 pi k / n, k < n / 2, rounded to float. Sines and
// cosines are taken once per 64 entries and carried between by rotation in
// double (its drift stays far below float rounding).
void Twiddles(size_t n, float* w) {
  const double step = -2.0 * M_PI / static_cast<double>(n);
  const double cs = std::cos(step), sn = std::sin(step);
  for (size_t k0 = 0; k0 < n / 2; k0 += 64) {
    double c = std::cos(step * static_cast<double>(k0)),
           s = std::sin(step * static_cast<double>(k0));
    for (size_t k = k0; k < std::min(n / 2, k0 + 64); ++k) {
      w[2 * k] = static_cast<float>(c);
      w[2 * k + 1] = static_cast<float>(s);
      const double c2 = c * cs - s * sn;
      s = s * cs + c * sn;
      c = c2;
    }
  }
}

// Position of frequency -k in bit-reversed order, for every position (n is
// a power of two of at most kMaxTileSide).
constexpr size_t kMaxTileSide = 1024;
void NegatedPositions(size_t n, int32_t* neg) {
  int bits = 0;
  while ((size_t(1) << bits) < n) ++bits;
  int32_t reversed[kMaxTileSide];
  reversed[0] = 0;
  for (size_t p = 1; p < n; ++p)
    reversed[p] = static_cast<int32_t>((static_cast<size_t>(reversed[p >> 1]) >> 1) |
                                       ((p & 1) << (bits - 1)));
  for (size_t p = 0; p < n; ++p)
    neg[p] = reversed[(n - static_cast<size_t>(reversed[p])) & (n - 1)];
}

// Bounds of the coefficients of one candidate row from the transform's cross
// products, the window variances (0: flat, coefficient exactly 0) and the
// rounding bound, as signed squares c |c| (monotone in c, and free of square
// roots); the upper bounds go to `high`.
inline __attribute__((always_inline)) void RowBoundsBody(const float* num_row, double* var_low,
                                                         size_t cols, double scale, double bound,
                                                         double vt, float* high, double* best_low,
                                                         bool* nonzero, float* top_high) {
  // Four candidates per step on explicit vectors (the compiler keeps the
  // selects and the division of a scalar loop scalar); every lane does the
  // scalar operations, so the bounds do not depend on the lane count.
  // var_low's variances become the lower bounds; the largest lower and the
  // smallest and largest upper bound are kept per lane.
  typedef double D4 __attribute__((vector_size(32)));
  typedef float F4 __attribute__((vector_size(16)));
  const D4 zero = {0, 0, 0, 0}, one = {1, 1, 1, 1};
  const float none = -std::numeric_limits<float>::infinity();
  D4 best = {*best_low, *best_low, *best_low, *best_low};
  F4 least = {1.0f, 1.0f, 1.0f, 1.0f}, most = {none, none, none, none};
  size_t x = 0;
  for (; x + 4 <= cols; x += 4) {
    D4 var;
    F4 nf;
    std::memcpy(&var, var_low + x, sizeof var);
    std::memcpy(&nf, num_row + x, sizeof nf);
    const auto varies = var > zero;
    const D4 den = varies ? vt * var : one;
    const D4 inv = (varies ? one : zero) / den;
    const D4 num = __builtin_convertvector(nf, D4) * scale;
    const D4 lo = num - bound, up = num + bound;
    const D4 low = lo * (lo < zero ? -lo : lo) * inv;
    const F4 hi = __builtin_convertvector(up * (up < zero ? -up : up) * inv, F4);
    std::memcpy(var_low + x, &low, sizeof low);
    std::memcpy(high + x, &hi, sizeof hi);
    best = best > low ? best : low;
    least = least < hi ? least : hi;
    most = most > hi ? most : hi;
  }
  double best1 = std::max(std::max(best[0], best[1]), std::max(best[2], best[3]));
  float least1 = std::min(std::min(least[0], least[1]), std::min(least[2], least[3]));
  float most1 = std::max(std::max(most[0], most[1]), std::max(most[2], most[3]));
  for (; x < cols; ++x) {
    const double var = var_low[x];
    const double den = var > 0.0 ? vt * var : 1.0;
    const double inv = (var > 0.0 ? 1.0 : 0.0) / den;
    const double num = num_row[x] * scale;
    const double lo = num - bound, up = num + bound;
    var_low[x] = lo * std::fabs(lo) * inv;
    high[x] = static_cast<float>(up * std::fabs(up) * inv);
    best1 = best1 > var_low[x] ? best1 : var_low[x];
    least1 = least1 < high[x] ? least1 : high[x];
    most1 = most1 > high[x] ? most1 : high[x];
  }
  *top_high = most1;
  *best_low = best1;
  *nonzero = *nonzero || *best_low > 0.0 || least1 < 0.0f;
}

void RowBoundsBase(const float* num_row, double* var_low, size_t cols, double scale, double bound,
                   double vt, float* high, double* best_low, bool* nonzero, float* top_high) {
  RowBoundsBody(num_row, var_low, cols, scale, bound, vt, high, best_low, nonzero, top_high);
}
#if EPHO_NCC_X86
EPHO_TS_AVX2 void RowBoundsAvx2(const float* num_row, double* var_low, size_t cols, double scale,
                                double bound, double vt, float* high, double* best_low,
                                bool* nonzero, float* top_high) {
  RowBoundsBody(num_row, var_low, cols, scale, bound, vt, high, best_low, nonzero, top_high);
}
#endif
void RowBounds(VectorPath path, const float* num_row, double* var_low, size_t cols, double scale,
               double bound, double vt, float* high, double* best_low, bool* nonzero,
               float* top_high) {
#if EPHO_NCC_X86
  if (path == VectorPath::kAvx2)
    return RowBoundsAvx2(num_row, var_low, cols, scale, bound, vt, high, best_low, nonzero,
                         top_high);
#endif
  (void)path;
  RowBoundsBase(num_row, var_low, cols, scale, bound, vt, high, best_low, nonzero, top_high);
}

// Sum of a block of pixels (exact integers for 8-bit pixels).
template <typename P>
inline __attribute__((always_inline)) double BlockSum(const P* a, ptrdiff_t stride, size_t w,
                                                      size_t h) {
  using Acc = typename std::conditional<std::is_integral<P>::value, int64_t, double>::type;
  double total = 0;
  for (size_t r = 0; r < h; ++r) {
    const P* row = a + static_cast<ptrdiff_t>(r) * stride;
    Acc s[4] = {0, 0, 0, 0};
    size_t c = 0;
    for (; c + 4 <= w; c += 4)
      for (int k = 0; k < 4; ++k) s[k] += static_cast<Acc>(row[c + k]);
    for (; c < w; ++c) s[0] += static_cast<Acc>(row[c]);
    total += static_cast<double>((s[0] + s[1]) + (s[2] + s[3]));
  }
  return total;
}

// Copies a block of pixels less `shift` into a transform plane (row length
// nc) and returns its energy (sum of squares; it only scales the rounding
// bound, so single-precision partial sums serve).
template <typename P>
inline __attribute__((always_inline)) double CopyShifted(const P* a, ptrdiff_t stride, size_t w,
                                                         size_t h, float shift, float* out,
                                                         size_t nc) {
  double energy = 0;
  for (size_t r = 0; r < h; ++r) {
    const P* row = a + static_cast<ptrdiff_t>(r) * stride;
    float* o = out + r * nc;
    float e[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    size_t c = 0;
    for (; c + 8 <= w; c += 8)
      for (int k = 0; k < 8; ++k) {
        const float v = static_cast<float>(row[c + k]) - shift;
        o[c + k] = v;
        e[k] += v * v;
      }
    for (; c < w; ++c) {
      const float v = static_cast<float>(row[c]) - shift;
      o[c] = v;
      e[0] += v * v;
    }
    energy +=
        static_cast<double>(((e[0] + e[1]) + (e[2] + e[3])) + ((e[4] + e[5]) + (e[6] + e[7])));
  }
  return energy;
}

// 8-bit column sums (and sums of squares) moved down one row, as in
// StepColumns, in 32-bit integers (on vector lanes where the caller's
// target has them).
inline __attribute__((always_inline)) void StepColumnsBytes(uint32_t* __restrict colsum,
                                                            uint32_t* __restrict colsq,
                                                            const uint8_t* __restrict leave,
                                                            const uint8_t* __restrict enter,
                                                            size_t w) {
  if (leave)
    for (size_t c = 0; c < w; ++c) {
      const uint32_t v = leave[c];
      colsum[c] -= v, colsq[c] -= v * v;
    }
  for (size_t c = 0; c < w; ++c) {
    const uint32_t v = enter[c];
    colsum[c] += v, colsq[c] += v * v;
  }
}

// The 8-bit windows' sums of squared deviations from their mean, (n sum(I^2)
// - sum(I)^2) / n, along one row of column sums, from running sums along
// the row modulo 2^32: a window's sum of squares is at
// most 255^2 * 255^2 < 2^32 (templates of at most 255 x 255 pixels), so the
// differences are the exact sums, and so are their products in double
// (below 2^53): the same values as the double running sums give.
inline __attribute__((always_inline)) void WindowRowBytes(const uint32_t* __restrict colsum,
                                                          const uint32_t* __restrict colsq,
                                                          const Geometry& g,
                                                          uint32_t* __restrict run_s,
                                                          uint32_t* __restrict run_q, double dn,
                                                          double inv_n, double* __restrict var) {
  uint32_t a = 0, b = 0;
  run_s[0] = run_q[0] = 0;
  for (size_t c = 0; c < g.area_w; ++c) {
    a += colsum[c], b += colsq[c];
    run_s[c + 1] = a, run_q[c + 1] = b;
  }
  const size_t tw = static_cast<size_t>(g.tw);
  for (size_t x = 0; x < g.cols; ++x) {
    const double ws = static_cast<double>(run_s[x + tw] - run_s[x]);
    const double wss = static_cast<double>(run_q[x + tw] - run_q[x]);
    var[x] = (dn * wss - ws * ws) * inv_n;
  }
}

// The body is compiled for the baseline and, taken on the AVX2 path, for
// AVX2 (wider lanes for its copies and sums; nothing fused, same bits).
template <typename P>
inline __attribute__((always_inline)) int SearchTransformBody(
    VectorPath path, const P* left, const P* right, uint32_t ls, uint32_t rs, uint32_t lx,
    uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin, char* base, const FftLayout& f,
    int32_t* best_x, int32_t* best_y, bool* any) {
  constexpr bool kByte = std::is_same<P, uint8_t>::value;
  using Sum = typename std::conditional<kByte, int64_t, double>::type;
  float* re = reinterpret_cast<float*>(base + f.re);
  float* im = reinterpret_cast<float*>(base + f.im);
  double* colsum = reinterpret_cast<double*>(base + f.colsum);
  double* colsq = reinterpret_cast<double*>(base + f.colsq);
  double* run_s = reinterpret_cast<double*>(base + f.run_s);
  double* run_q = reinterpret_cast<double*>(base + f.run_q);
  double* row_s = reinterpret_cast<double*>(base + f.row_s);
  double* row_var = reinterpret_cast<double*>(base + f.row_var);
  float* row_top = reinterpret_cast<float*>(base + f.row_top);
  const ptrdiff_t lst = ls, rst = rs;
  const P* t0 = left + (static_cast<ptrdiff_t>(ly) - g.hh) * lst + (lx - g.hw);
  const P* a0 = right + (static_cast<ptrdiff_t>(ryMin) - g.hh) * rst + (rxMin - g.hw);
  const int64_t n = static_cast<int64_t>(g.tw) * g.th;

  // Template: zero mean, its sums (exact integers for 8-bit, as the direct
  // search; in double over four chains for float).
  Sum st = 0, stt = 0;
  if (kByte) {
    for (int r = 0; r < g.th; ++r)
      for (int c = 0; c < g.tw; ++c) {
        const Sum v = static_cast<Sum>(t0[r * lst + c]);
        st += v, stt += v * v;
      }
    if (n * stt - st * st == 0) {
      *any = false;
      return EPHO_NCC_SEARCH_OK;
    }
  }
  const double mt =
      (kByte ? static_cast<double>(st) : BlockSum(t0, lst, g.tw, g.th)) / static_cast<double>(n);
  double vt = 0;
  for (int r = 0; r < g.th; ++r) {
    double e[4] = {0, 0, 0, 0};
    int c = 0;
    for (; c + 4 <= g.tw; c += 4)
      for (int k = 0; k < 4; ++k) {
        const double d = static_cast<double>(t0[r * lst + c + k]) - mt;
        e[k] += d * d;
      }
    for (; c < g.tw; ++c) {
      const double d = static_cast<double>(t0[r * lst + c]) - mt;
      e[0] += d * d;
    }
    vt += (e[0] + e[1]) + (e[2] + e[3]);
  }
  if (!(vt > 0.0)) {
    *any = false;
    return EPHO_NCC_SEARCH_OK;
  }
  const float ma = static_cast<float>(BlockSum(a0, rst, g.area_w, g.area_h) /
                                      static_cast<double>(g.area_h * g.area_w));

  float* tw_r = reinterpret_cast<float*>(base + f.tw_r);
  float* tw_c = reinterpret_cast<float*>(base + f.tw_c);
  int32_t* neg_r = reinterpret_cast<int32_t*>(base + f.neg_r);
  int32_t* neg_c = reinterpret_cast<int32_t*>(base + f.neg_c);
  float* cross = reinterpret_cast<float*>(base + f.cross);
  Twiddles(f.nr, tw_r);
  Twiddles(f.nc, tw_c);
  NegatedPositions(f.nr, neg_r);
  NegatedPositions(f.nc, neg_c);
  const epho::matching::FftPlan plan{static_cast<int>(f.nr),
                                     static_cast<int>(f.nc),
                                     tw_r,
                                     tw_c,
                                     neg_r,
                                     neg_c,
                                     reinterpret_cast<float*>(base + f.strip)};
  const double points = static_cast<double>(f.nr) * f.nc;
  // Rounding bound of the single-precision transform on one cross product:
  // a few units of rounding per level on the product of the two norms (and
  // on the input rounding of the area's values); the largest over the tiles.
  double bound = 0.0;
  const size_t tiles_x = (g.cols + f.step_c - 1) / f.step_c;
  // Tile k's search area (about the area's mean) into `plane`; its energy.
  auto load_tile = [&](size_t k, float* plane) {
    const size_t ty = k / tiles_x * f.step_r, tx = k % tiles_x * f.step_c;
    const size_t h = std::min(f.nr, g.area_h - ty), w = std::min(f.nc, g.area_w - tx);
    std::fill(plane, plane + f.nr * f.nc, 0.0f);
    return CopyShifted(a0 + static_cast<ptrdiff_t>(ty) * rst + static_cast<ptrdiff_t>(tx), rst, w,
                       h, ma, plane, f.nc);
  };
  // Tile k's cross products from `plane`, scaled to sum T' A (`odd`: rows
  // paired, the even ones in `plane`, the odd ones in `odd`).
  auto keep_tile = [&](size_t k, const float* plane, const float* odd, float scale) {
    const size_t ty = k / tiles_x * f.step_r, tx = k % tiles_x * f.step_c;
    const size_t rows = std::min(f.step_r, g.rows - ty), cols = std::min(f.step_c, g.cols - tx);
    for (size_t r = 0; r < rows; ++r) {
      const float* in = odd ? ((r & 1) ? odd : plane) + (r >> 1) * f.nc : plane + r * f.nc;
      float* out = cross + (ty + r) * g.cols + tx;
      for (size_t c = 0; c < cols; ++c) out[c] = in[c] * scale;
    }
  };
  // Rounding bound of the single-precision transform on one cross product:
  // a few units of rounding per level on the product of the two norms (and
  // on the input rounding of the area's values); the largest over the tiles.
  const double units = 16.0 * 1.2e-7 * std::log2(points);
  if (f.tiles == 1) {
    // The search area and the template packed into one transform, the
    // template scaled to the area's energy: the rounding of the packed
    // transform grows with the larger of the two energies.
    const double aa = load_tile(0, re);
    const double gain = aa > 0.0 ? std::sqrt(aa / vt) : 1.0;
    std::fill(im, im + f.nr * f.nc, 0.0f);
    for (int r = 0; r < g.th; ++r)
      for (int c = 0; c < g.tw; ++c)
        im[r * f.nc + c] = static_cast<float>((static_cast<double>(t0[r * lst + c]) - mt) * gain);
    const int rows = static_cast<int>(g.rows);
#if EPHO_NCC_X86
    if (path == VectorPath::kAvx2)
      epho::matching::CorrelateFftAvx2(plan, re, im, rows);
    else
#endif
      epho::matching::CorrelateFftPortable(plan, re, im, rows);
    bound = units * std::sqrt(aa * vt);
    keep_tile(0, re, im, static_cast<float>(1.0 / (points * gain)));
  } else {
    // The template's spectrum once, then the tiles two at a time.
    float* sr = reinterpret_cast<float*>(base + f.spec_re);
    float* si = reinterpret_cast<float*>(base + f.spec_im);
    std::fill(sr, sr + f.nr * f.nc, 0.0f);
    std::fill(si, si + f.nr * f.nc, 0.0f);
    for (int r = 0; r < g.th; ++r)
      for (int c = 0; c < g.tw; ++c)
        sr[r * f.nc + c] = static_cast<float>(static_cast<double>(t0[r * lst + c]) - mt);
#if EPHO_NCC_X86
    if (path == VectorPath::kAvx2)
      epho::matching::SpectrumFftAvx2(plan, sr, si);
    else
#endif
      epho::matching::SpectrumFftPortable(plan, sr, si);
    const float scale = static_cast<float>(1.0 / points);
    for (size_t k = 0; k < f.tiles; k += 2) {
      double aa = load_tile(k, re);
      if (k + 1 < f.tiles)
        aa += load_tile(k + 1, im);
      else
        std::fill(im, im + f.nr * f.nc, 0.0f);
#if EPHO_NCC_X86
      if (path == VectorPath::kAvx2)
        epho::matching::CorrelatePairFftAvx2(plan, re, im, sr, si);
      else
#endif
        epho::matching::CorrelatePairFftPortable(plan, re, im, sr, si);
      bound = std::max(bound, units * std::sqrt(aa * vt));
      keep_tile(k, re, nullptr, scale);
      if (k + 1 < f.tiles) keep_tile(k + 1, im, nullptr, scale);
    }
  }
  (void)path;
  const double scale = 1.0;

  // Pass 1: bounds of every coefficient; the upper one replaces the cross
  // product in `cross`.
  const double inv_n = 1.0 / static_cast<double>(n), dn = static_cast<double>(n);
  double best_low = -std::numeric_limits<double>::infinity();
  bool nonzero = false;  // some coefficient is certainly not 0
  if constexpr (kByte) {
    // Window sums as 32-bit integers (exact: see WindowRowBytes).
    uint32_t* col_s = reinterpret_cast<uint32_t*>(colsum);
    uint32_t* col_q = reinterpret_cast<uint32_t*>(colsq);
    std::fill(col_s, col_s + g.area_w, 0u);
    std::fill(col_q, col_q + g.area_w, 0u);
    for (int r = 0; r < g.th - 1; ++r)
      StepColumnsBytes(col_s, col_q, nullptr, a0 + r * rst, g.area_w);
    for (size_t y = 0; y < g.rows; ++y) {
      StepColumnsBytes(col_s, col_q, y > 0 ? a0 + (y - 1) * rst : nullptr,
                       a0 + (y + g.th - 1) * rst, g.area_w);
      float* row_high = cross + y * g.cols;
      WindowRowBytes(col_s, col_q, g, reinterpret_cast<uint32_t*>(run_s),
                     reinterpret_cast<uint32_t*>(run_q), dn, inv_n, row_var);
      RowBounds(path, row_high, row_var, g.cols, scale, bound, vt, row_high, &best_low, &nonzero,
                &row_top[y]);
    }
  } else {
    std::fill(colsum, colsum + g.area_w, 0.0);
    std::fill(colsq, colsq + g.area_w, 0.0);
    // Window statistics in double, about the template's mean.
    auto value = [mt](P v) { return static_cast<double>(v) - mt; };
    for (int r = 0; r < g.th - 1; ++r)
      StepColumns(path, colsum, colsq, static_cast<const P*>(nullptr), a0 + r * rst, g.area_w,
                  value);
    for (size_t y = 0; y < g.rows; ++y) {
      StepColumns(path, colsum, colsq, y > 0 ? a0 + (y - 1) * rst : nullptr,
                  a0 + (y + g.th - 1) * rst, g.area_w, value);
      // Window variances of the row, then the bounds of its coefficients.
      float* row_high = cross + y * g.cols;
      WindowRow(path, colsum, colsq, g, run_s, run_q, row_s, row_var);
      for (size_t x = 0; x < g.cols; ++x) {
        const double ws = row_s[x], wss = row_var[x];
        const double vr = wss - ws * inv_n * ws;
        row_var[x] = vr > 1e-9 * wss ? vr : 0.0;
      }
      RowBounds(path, row_high, row_var, g.cols, scale, bound, vt, row_high, &best_low, &nonzero,
                &row_top[y]);
    }
  }
  // Pass 2: exact values of the candidates that may be best, offered in the
  // direct search's visiting order so that rounding in the comparison of
  // equal coefficients resolves the same way.
  // (Slightly below the best lower bound: the upper bounds were rounded to float.)
  const float threshold = static_cast<float>(best_low - 1e-6 * std::fabs(best_low) - 1e-12);
  BestTracker best;
  for (size_t y = 0; y < g.rows; ++y) {
    const float* row_high = cross + y * g.cols;
    if (!(row_top[y] >= threshold)) continue;
    VisitInSlideOrder(g, [&](size_t x) {
      if (!(row_high[x] >= threshold)) return;
      const P* w = a0 + y * rst + x;
      if (kByte) {
        int64_t si = 0, sii = 0, sti = 0;
        for (int r = 0; r < g.th; ++r)
          for (int c = 0; c < g.tw; ++c) {
            const int64_t v = static_cast<int64_t>(w[r * rst + c]);
            si += v, sii += v * v, sti += v * static_cast<int64_t>(t0[r * lst + c]);
          }
        best.Offer(static_cast<double>(n * sti - static_cast<int64_t>(st) * si),
                   static_cast<double>(n * sii - si * si), x, y);
      } else {
        // Four chains of sums along the row (the additions overlap).
        double s4[4] = {0, 0, 0, 0}, ss4[4] = {0, 0, 0, 0}, st4[4] = {0, 0, 0, 0};
        for (int r = 0; r < g.th; ++r) {
          const P* wr = w + r * rst;
          const P* tr = t0 + r * lst;
          int c = 0;
          for (; c + 4 <= g.tw; c += 4)
            for (int k = 0; k < 4; ++k) {
              const double v = static_cast<double>(wr[c + k]) - mt;
              s4[k] += v, ss4[k] += v * v, st4[k] += v * (static_cast<double>(tr[c + k]) - mt);
            }
          for (; c < g.tw; ++c) {
            const double v = static_cast<double>(wr[c]) - mt;
            s4[0] += v, ss4[0] += v * v, st4[0] += v * (static_cast<double>(tr[c]) - mt);
          }
        }
        const double si = (s4[0] + s4[1]) + (s4[2] + s4[3]);
        const double sii = (ss4[0] + ss4[1]) + (ss4[2] + ss4[3]);
        const double sti = (st4[0] + st4[1]) + (st4[2] + st4[3]);
        const double vr = sii - si * inv_n * si;
        best.Offer(sti, vr > 1e-9 * sii ? vr : 0.0, x, y);
      }
    });
  }
  *best_x = static_cast<int32_t>(rxMin + best.x);
  *best_y = static_cast<int32_t>(ryMin + best.y);
  *any = best.any || nonzero;
  return EPHO_NCC_SEARCH_OK;
}

template <typename P>
int SearchTransformBase(VectorPath path, const P* left, const P* right, uint32_t ls, uint32_t rs,
                        uint32_t lx, uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin,
                        char* base, const FftLayout& f, int32_t* best_x, int32_t* best_y,
                        bool* any) {
  return SearchTransformBody(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, base, f, best_x,
                             best_y, any);
}
#if EPHO_NCC_X86
template <typename P>
EPHO_TS_AVX2 int SearchTransformAvx2(VectorPath path, const P* left, const P* right, uint32_t ls,
                                     uint32_t rs, uint32_t lx, uint32_t ly, const Geometry& g,
                                     uint32_t rxMin, uint32_t ryMin, char* base, const FftLayout& f,
                                     int32_t* best_x, int32_t* best_y, bool* any) {
  return SearchTransformBody(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, base, f, best_x,
                             best_y, any);
}
#endif
template <typename P>
int SearchTransform(VectorPath path, const P* left, const P* right, uint32_t ls, uint32_t rs,
                    uint32_t lx, uint32_t ly, const Geometry& g, uint32_t rxMin, uint32_t ryMin,
                    char* base, const FftLayout& f, int32_t* best_x, int32_t* best_y, bool* any) {
#if EPHO_NCC_X86
  if (path == VectorPath::kAvx2)
    return SearchTransformAvx2(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, base, f, best_x,
                               best_y, any);
#endif
  return SearchTransformBase(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, base, f, best_x,
                             best_y, any);
}

bool TransformPaysOnSomePath(const Geometry& g, const FftLayout& f) {
  for (VectorPath p : epho::kAllVectorPaths)
    if (TransformPays(p, g, f, true) || TransformPays(p, g, f, false)) return true;
  return false;
}

// Scratch for a method; kAuto covers whichever the call may choose.
size_t ScratchBytes(SearchMethod method, const Geometry& g) {
  const size_t direct = MakeLayout(g).total;
  const FftLayout f = MakeFftLayout(g);
  if (!f.ok || method == SearchMethod::kDirect) return direct;
  if (method == SearchMethod::kAuto && !TransformPaysOnSomePath(g, f)) return direct;
  return std::max(direct, f.total);
}

template <typename P, class Search, class Kernel>
int RunSearch(VectorPath path, SearchMethod method, const P* left, const P* right, uint32_t ls,
              uint32_t rs, uint32_t lx, uint32_t ly, uint32_t hw, uint32_t hh, uint32_t rxMin,
              uint32_t ryMin, uint32_t rxMax, uint32_t ryMax, void* scratch, size_t scratchBytes,
              Epho_NccPeak* peak, Search search, Kernel kernel) {
  if (!left || !right || !peak || !ArgumentsValid(hw, hh, rxMin, ryMin, rxMax, ryMax) || lx < hw ||
      ly < hh)
    return EPHO_NCC_SEARCH_BAD_ARGUMENT;
  const Geometry g = MakeGeometry(hw, hh, rxMax - rxMin + 1, ryMax - ryMin + 1);
  const Layout lay = MakeLayout(g);
  const FftLayout fl = MakeFftLayout(g);
  if (!scratch || scratchBytes < ScratchBytes(method, g)) return EPHO_NCC_SEARCH_SCRATCH;
  const bool transform = fl.ok && (method == SearchMethod::kTransform ||
                                   (method == SearchMethod::kAuto &&
                                    TransformPays(path, g, fl, std::is_same<P, uint8_t>::value)));
  int32_t bx = static_cast<int32_t>(rxMin), by = static_cast<int32_t>(ryMin);
  bool any = false;
  if (transform)
    SearchTransform(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, Aligned(scratch), fl, &bx,
                    &by, &any);
  else
    search(path, left, right, ls, rs, lx, ly, g, rxMin, ryMin, Aligned(scratch), lay, &bx, &by,
           &any);
  FinishPeak(kernel, rxMin, ryMin, rxMax, ryMax, bx, by, peak);
  return any ? EPHO_NCC_SEARCH_OK : EPHO_NCC_SEARCH_FLAT;
}

bool RangeValid(uint32_t halfWidth, uint32_t halfHeight, uint32_t rangeColumns,
                uint32_t rangeRows) {
  return halfWidth <= EPHO_NCC_SEARCH_MAX_HALF && halfHeight <= EPHO_NCC_SEARCH_MAX_HALF &&
         rangeColumns > 0 && rangeRows > 0 && rangeColumns <= kMaxRange && rangeRows <= kMaxRange;
}

}  // namespace

size_t epho::matching::NccSearchScratchBytes(SearchMethod method, uint32_t halfWidth,
                                             uint32_t halfHeight, uint32_t rangeColumns,
                                             uint32_t rangeRows) {
  if (!RangeValid(halfWidth, halfHeight, rangeColumns, rangeRows)) return 0;
  return ScratchBytes(method, MakeGeometry(halfWidth, halfHeight, rangeColumns, rangeRows));
}

void epho::matching::NccSearchModelCosts(VectorPath path, bool bytePixels, uint32_t halfWidth,
                                         uint32_t halfHeight, uint32_t rangeColumns,
                                         uint32_t rangeRows, double* directNs,
                                         double* transformNs) {
  *directNs = *transformNs = 0.0;
  if (!RangeValid(halfWidth, halfHeight, rangeColumns, rangeRows)) return;
  const Geometry g = MakeGeometry(halfWidth, halfHeight, rangeColumns, rangeRows);
  ModelCosts(path, g, MakeFftLayout(g), bytePixels, directNs, transformNs);
}

bool epho::matching::NccSearchUsesTransform(VectorPath path, bool bytePixels, uint32_t halfWidth,
                                            uint32_t halfHeight, uint32_t rangeColumns,
                                            uint32_t rangeRows) {
  if (!RangeValid(halfWidth, halfHeight, rangeColumns, rangeRows)) return false;
  const Geometry g = MakeGeometry(halfWidth, halfHeight, rangeColumns, rangeRows);
  return TransformPays(path, g, MakeFftLayout(g), bytePixels);
}

int epho::matching::NccSearchByte(VectorPath path, SearchMethod method, const uint8_t* left,
                                  const uint8_t* right, uint32_t leftStride, uint32_t rightStride,
                                  uint32_t lx, uint32_t ly, uint32_t halfWidth, uint32_t halfHeight,
                                  uint32_t rxMin, uint32_t ryMin, uint32_t rxMax, uint32_t ryMax,
                                  void* scratch, size_t scratchBytes, Epho_NccPeak* peak) {
  const int16_t w = static_cast<int16_t>(2 * halfWidth + 1),
                h = static_cast<int16_t>(2 * halfHeight + 1);
  return RunSearch(path, method, left, right, leftStride, rightStride, lx, ly, halfWidth,
                   halfHeight, rxMin, ryMin, rxMax, ryMax, scratch, scratchBytes, peak, SearchByte,
                   [&](const uint32_t* xs, const uint32_t* ys, int count, double* out) {
                     for (int k = 0; k < count; ++k)
                       out[k] = CrossCoefByteNoResample(path, left, right, leftStride, rightStride,
                                                        lx, ly, xs[k], ys[k], w, h);
                   });
}

int epho::matching::NccSearchFloat(VectorPath path, SearchMethod method, const float* left,
                                   const float* right, uint32_t leftStride, uint32_t rightStride,
                                   uint32_t lx, uint32_t ly, uint32_t halfWidth,
                                   uint32_t halfHeight, uint32_t rxMin, uint32_t ryMin,
                                   uint32_t rxMax, uint32_t ryMax, void* scratch,
                                   size_t scratchBytes, Epho_NccPeak* peak) {
  const int16_t w = static_cast<int16_t>(2 * halfWidth + 1),
                h = static_cast<int16_t>(2 * halfHeight + 1);
  return RunSearch(path, method, left, right, leftStride, rightStride, lx, ly, halfWidth,
                   halfHeight, rxMin, ryMin, rxMax, ryMax, scratch, scratchBytes, peak, SearchFloat,
                   [&](const uint32_t* xs, const uint32_t* ys, int count, double* out) {
                     CrossCoefFloatNoResampleMany(left, right, leftStride, rightStride, lx, ly, xs,
                                                  ys, count, w, h, out);
                   });
}

extern "C" {

size_t epho_NccSearchScratchBytes(uint32_t halfWidth, uint32_t halfHeight, uint32_t rangeColumns,
                                  uint32_t rangeRows) KZDV_NOEXCEPT {
  return epho::matching::NccSearchScratchBytes(epho::matching::SearchMethod::kAuto, halfWidth,
                                               halfHeight, rangeColumns, rangeRows);
}

int epho_NccSearchByte(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                       uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t halfWidth,
                       uint32_t halfHeight, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                       uint32_t ryMax, void* scratch, size_t scratchBytes,
                       Epho_NccPeak* peak) KZDV_NOEXCEPT {
  return epho::matching::NccSearchByte(epho::BestVectorPath(), epho::matching::SearchMethod::kAuto,
                                       left, right, leftStride, rightStride, lx, ly, halfWidth,
                                       halfHeight, rxMin, ryMin, rxMax, ryMax, scratch,
                                       scratchBytes, peak);
}

int epho_NccSearchFloat(const float* left, const float* right, uint32_t leftStride,
                        uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t halfWidth,
                        uint32_t halfHeight, uint32_t rxMin, uint32_t ryMin, uint32_t rxMax,
                        uint32_t ryMax, void* scratch, size_t scratchBytes,
                        Epho_NccPeak* peak) KZDV_NOEXCEPT {
  return epho::matching::NccSearchFloat(epho::BestVectorPath(), epho::matching::SearchMethod::kAuto,
                                        left, right, leftStride, rightStride, lx, ly, halfWidth,
                                        halfHeight, rxMin, ryMin, rxMax, ryMax, scratch,
                                        scratchBytes, peak);
}

}  // extern "C"
