// Internal engine of the symmetric solvers: the square-root-free factor
// A = U^T D U, the solve with it and the inverse V D^-1 V^T (V = U^-1), on any
// row addressing (fixed stride or a row-offset table) and any active block
// [first, end). Every sum is taken term by term in increasing index order, as
// the plain recurrences are written, so blocking changes speed only: full and
// packed storage of one matrix give bit-identical results.
#ifndef EPHO_KERNEL_SOLVERS_LDL_INTERNAL_H_
#define EPHO_KERNEL_SOLVERS_LDL_INTERNAL_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace epho {
namespace ldl {

// Row start of a full-storage matrix with a fixed row stride.
struct StrideRows {
  std::size_t stride;
  std::size_t operator[](int i) const { return static_cast<std::size_t>(i) * stride; }
};

// Row start from a caller's offset table: element (i, j) at a[rows[i] + j].
struct TableRows {
  const uint32_t* rows;
  std::size_t operator[](int i) const { return rows[i]; }
};

// How a row is scaled by its pivot: divided (fixed-size family) or multiplied
// by the reciprocal (row-offset family); the two may differ in the last bit.
enum class Pivot { kDivide, kReciprocal };

// Blocking of the factorisation. Rows are finished kRowBlock at a time so
// that every earlier row is read once per block instead of once per row; the
// partial sums of the block's rows are kept on the stack (no allocation) for
// kColumnBlock columns at a time, and the pivot-weighted column cells of the
// earlier rows are gathered kChunk rows at a time.
constexpr int kRowBlock = 4;
constexpr int kColumnBlock = 256;
constexpr int kChunk = 128;

// Two-lane vectors (SSE2 on x86-64, NEON on arm64) so that the kernels are
// vectorised at every optimisation level. Each lane does the same multiply
// and add as the scalar code, so the results do not depend on the lanes.
#if defined(__GNUC__)
#define EPHO_LDL_PAIRS 1
typedef double Pair __attribute__((vector_size(16)));
inline Pair LoadPair(const double* p) {
  Pair v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void StorePair(double* p, Pair v) { std::memcpy(p, &v, sizeof v); }
#endif

// y[t] += f * x[t], t = 0 .. n-1.
inline void AddScaled(double* __restrict y, double f, const double* __restrict x, int n) {
  int t = 0;
#ifdef EPHO_LDL_PAIRS
  const Pair fv = {f, f};
  for (; t + 2 <= n; t += 2) StorePair(y + t, LoadPair(y + t) + fv * LoadPair(x + t));
#endif
  for (; t < n; ++t) y[t] += f * x[t];
}

// y[t] = (((y[t] + f0 x0[t]) + f1 x1[t]) + f2 x2[t]) + f3 x3[t]: four terms of
// the sums in increasing order with one pass over y.
inline void AddScaled4(double* __restrict y, const double* f, const double* x0, const double* x1,
                       const double* x2, const double* x3, int n) {
  int t = 0;
#ifdef EPHO_LDL_PAIRS
  const Pair f0 = {f[0], f[0]}, f1 = {f[1], f[1]}, f2 = {f[2], f[2]}, f3 = {f[3], f[3]};
  for (; t + 2 <= n; t += 2) {
    const Pair v = (((LoadPair(y + t) + f0 * LoadPair(x0 + t)) + f1 * LoadPair(x1 + t)) +
                    f2 * LoadPair(x2 + t)) +
                   f3 * LoadPair(x3 + t);
    StorePair(y + t, v);
  }
#endif
  for (; t < n; ++t) y[t] = (((y[t] + f[0] * x0[t]) + f[1] * x1[t]) + f[2] * x2[t]) + f[3] * x3[t];
}

// sums[r][t] += f[k][r] * a(k, jb + t) for k = k0 .. k1-1 in increasing k
// (f row-major kChunk x R, sums R x kColumnBlock). Four columns at a time
// with the R x 4 partial sums in registers; each sum still receives its
// terms one by one in increasing k.
template <int R, class Rows>
inline void AccumulateRows(double* __restrict sums, const double* __restrict f, const double* a,
                           Rows rows, int k0, int k1, int jb, int width) {
  int t = 0;
#ifdef EPHO_LDL_PAIRS
  for (; t + 4 <= width; t += 4) {
    Pair acc[R][2];
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      acc[r][0] = LoadPair(sums + r * kColumnBlock + t);
      acc[r][1] = LoadPair(sums + r * kColumnBlock + t + 2);
    }
    for (int k = k0; k < k1; ++k) {
      const double* x = a + rows[k] + jb + t;
      const Pair x0 = LoadPair(x), x1 = LoadPair(x + 2);
      const double* fk = f + (k - k0) * R;
#pragma GCC unroll 4
      for (int r = 0; r < R; ++r) {
        const Pair fr = {fk[r], fk[r]};
        acc[r][0] += fr * x0;
        acc[r][1] += fr * x1;
      }
    }
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      StorePair(sums + r * kColumnBlock + t, acc[r][0]);
      StorePair(sums + r * kColumnBlock + t + 2, acc[r][1]);
    }
  }
#endif
  for (; t < width; ++t) {
    double acc[R];
    for (int r = 0; r < R; ++r) acc[r] = sums[r * kColumnBlock + t];
    for (int k = k0; k < k1; ++k) {
      const double x = a[rows[k] + jb + t];
      for (int r = 0; r < R; ++r) acc[r] += f[(k - k0) * R + r] * x;
    }
    for (int r = 0; r < R; ++r) sums[r * kColumnBlock + t] = acc[r];
  }
}

// Finishes rows i0 .. i0+R-1, column blocks from jb_start on (jb_start == i0
// includes the diagonal). Each cell is
//   d_i  = a(i,i) - sum_k u_ki d_k u_ki,
//   u_ij = (a(i,j) - sum_k u_ki d_k u_kj) / d_i    (k = first .. i-1),
// with the sum in increasing k. Returns R, or the block index of the first
// exactly-zero pivot (its d is stored; later rows keep their input).
template <Pivot kPivot, int R, class Rows>
int FactorRows(double* a, Rows rows, int first, int end, int i0, int jb_start) {
  double sums[R * kColumnBlock];
  double f[kChunk * R];
  for (int jb = jb_start; jb < end; jb += kColumnBlock) {
    const int width = std::min(end - jb, kColumnBlock);
    for (int r = 0; r < R; ++r)
      for (int t = 0; t < width; ++t) sums[r * kColumnBlock + t] = 0.0;
    for (int k0 = first; k0 < i0; k0 += kChunk) {
      const int k1 = std::min(i0, k0 + kChunk);
      for (int k = k0; k < k1; ++k) {
        const double* rk = a + rows[k];
        for (int r = 0; r < R; ++r) f[(k - k0) * R + r] = rk[i0 + r] * rk[k];
      }
      AccumulateRows<R>(sums, f, a, rows, k0, k1, jb, width);
    }
    for (int m = 0; m < R; ++m) {
      const int i = i0 + m;
      double* ri = a + rows[i];
      double* s = sums + m * kColumnBlock;
      const int t_first = (jb == i0) ? m : 0;  // columns j >= i only
      // Rows of this block finished above.
      for (int k = i0; k < i; ++k) {
        const double* rk = a + rows[k] + jb;
        const double fk = a[rows[k] + i] * a[rows[k] + k];
        AddScaled(s + t_first, fk, rk + t_first, width - t_first);
      }
      int t0 = t_first;
      if (jb == i0) {
        const double di = ri[i] - s[m];
        ri[i] = di;
        if (di == 0.0) return m;
        t0 = m + 1;
      }
      const double di = ri[i];
      double* out = ri + jb;
      if (kPivot == Pivot::kDivide) {
        for (int t = t0; t < width; ++t) out[t] = (out[t] - s[t]) / di;
      } else {
        const double rcp = 1.0 / di;
        for (int t = t0; t < width; ++t) out[t] = (out[t] - s[t]) * rcp;
      }
    }
  }
  return R;
}

template <Pivot kPivot, class Rows>
int FactorRowsN(int n_rows, double* a, Rows rows, int first, int end, int i0, int jb_start) {
  switch (n_rows) {
    case 1:
      return FactorRows<kPivot, 1>(a, rows, first, end, i0, jb_start);
    case 2:
      return FactorRows<kPivot, 2>(a, rows, first, end, i0, jb_start);
    case 3:
      return FactorRows<kPivot, 3>(a, rows, first, end, i0, jb_start);
    default:
      return FactorRows<kPivot, kRowBlock>(a, rows, first, end, i0, jb_start);
  }
}

// Blocks up to this size skip the blocking: its set-up costs more than it
// saves on systems such as the 8x8 of least-squares correlation.
constexpr int kSmallBlock = 24;

// The plain row-by-row recurrence (same terms, same order as FactorRows).
template <Pivot kPivot, class Rows>
bool FactorSmall(double* a, Rows rows, int first, int end) {
  for (int i = first; i < end; ++i) {
    double* ri = a + rows[i];
    double s = 0.0;
    for (int k = first; k < i; ++k) s += a[rows[k] + i] * a[rows[k] + k] * a[rows[k] + i];
    const double di = ri[i] - s;
    ri[i] = di;
    if (di == 0.0) return true;
    const double rcp = 1.0 / di;
    for (int j = i + 1; j < end; ++j) {
      double sj = 0.0;
      for (int k = first; k < i; ++k) sj += a[rows[k] + i] * a[rows[k] + k] * a[rows[k] + j];
      ri[j] = (kPivot == Pivot::kDivide) ? (ri[j] - sj) / di : (ri[j] - sj) * rcp;
    }
  }
  return false;
}

// Factorises the active block in place (first < end); true at the first
// exactly-zero pivot: rows above it are finished, its diagonal holds the zero
// pivot and the rows below keep their input values.
template <Pivot kPivot, class Rows>
bool Factor(double* a, Rows rows, int first, int end) {
  if (end - first <= kSmallBlock) return FactorSmall<kPivot>(a, rows, first, end);
  for (int i0 = first; i0 < end; i0 += kRowBlock) {
    const int n_rows = std::min(kRowBlock, end - i0);
    const int done = FactorRowsN<kPivot>(n_rows, a, rows, first, end, i0, i0);
    if (done < n_rows) {
      // Finish the rows above the failing one in the remaining column blocks.
      if (done > 0) FactorRowsN<kPivot>(done, a, rows, first, end, i0, i0 + kColumnBlock);
      return true;
    }
  }
  return false;
}

// Solves U^T D U x = b with a finished factor; x replaces b[first..end-1].
// True when a diagonal cell is exactly zero (b is then partly transformed).
template <class Rows>
bool Solve(const double* a, Rows rows, int first, int end, double* b) {
  // Forward: b_i -= sum_k u_ki b_k (k = first .. i-1, increasing); on large
  // blocks the sums of a block of unknowns are built along contiguous rows.
  if (end - first <= kSmallBlock) {
    for (int i = first + 1; i < end; ++i) {
      double s = 0.0;
      for (int k = first; k < i; ++k) s += a[rows[k] + i] * b[k];
      b[i] = b[i] - s;
    }
  }
  double sums[kColumnBlock];
  for (int ib = (end - first <= kSmallBlock) ? end : first; ib < end; ib += kColumnBlock) {
    const int width = std::min(end - ib, kColumnBlock);
    for (int t = 0; t < width; ++t) sums[t] = 0.0;
    for (int k = first; k < ib; ++k) AddScaled(sums, b[k], a + rows[k] + ib, width);
    for (int t = 0; t < width; ++t) {
      const int i = ib + t;
      if (i > first) b[i] = b[i] - sums[t];
      AddScaled(sums + t + 1, b[i], a + rows[i] + ib + t + 1, width - t - 1);
    }
  }
  for (int i = first; i < end; ++i) {
    const double d = a[rows[i] + i];
    if (d == 0.0) return true;
    b[i] = b[i] / d;
  }
  for (int i = end - 2; i >= first; --i) {
    const double* ri = a + rows[i];
    double s = 0.0;
    for (int j = i + 1; j < end; ++j) s += ri[j] * b[j];
    b[i] = b[i] - s;
  }
  return false;
}

// Replaces a finished factor by the upper triangle of the inverse of the
// active block, in place; true when a diagonal cell is exactly zero.
template <class Rows>
bool Invert(double* a, Rows rows, int first, int end) {
  // V = U^-1, row by row from the top: v_rc = -(u_rc + sum_k v_rk u_kc),
  // k = r+1 .. c-1 in increasing order. Row r's cells left of c are already
  // V, the rows below are still U. The sums of a column block are built on the
  // stack by running along contiguous rows of U.
  double sums[kColumnBlock];
  for (int r = first; r < end - 1; ++r) {
    double* rr = a + rows[r];
    for (int cb = r + 1; cb < end; cb += kColumnBlock) {
      const int width = std::min(end - cb, kColumnBlock);
      for (int t = 0; t < width; ++t) sums[t] = 0.0;
      int k = r + 1;
      for (; k + 4 <= cb; k += 4) {  // four finished cells of row r at a time
        AddScaled4(sums, rr + k, a + rows[k] + cb, a + rows[k + 1] + cb, a + rows[k + 2] + cb,
                   a + rows[k + 3] + cb, width);
      }
      for (; k < cb; ++k) AddScaled(sums, rr[k], a + rows[k] + cb, width);
      for (int t = 0; t < width; ++t) {
        const int c = cb + t;
        const double v = -(rr[c] + sums[t]);
        rr[c] = v;
        AddScaled(sums + t + 1, v, a + rows[c] + cb + t + 1, width - t - 1);
      }
    }
  }
  for (int i = first; i < end; ++i) {
    double& d = a[rows[i] + i];
    if (d == 0.0) return true;
    d = 1.0 / d;
  }
  // A^-1 = V D^-1 V^T, top row first and left to right:
  //   c_ij = v_ij / d_j + sum_k (v_ik / d_k) v_jk,  k = j+1 .. end-1,
  // (c_ii = 1/d_i + ...). Every cell read later still holds V or 1/d when it
  // is read. Four cells of row i at a time share the weights v_ik / d_k;
  // they are written back after all four sums are complete.
  for (int i = first; i < end - 1; ++i) {
    double* ri = a + rows[i];
    int j0 = i;
    for (; j0 + 4 <= end; j0 += 4) {
      const double* rj[4] = {a + rows[j0], a + rows[j0 + 1], a + rows[j0 + 2], a + rows[j0 + 3]};
      double sum[4] = {0.0, 0.0, 0.0, 0.0};
      for (int q = 0; q < 3; ++q) {
        for (int k = j0 + q + 1; k < j0 + 4; ++k) sum[q] += ri[k] * a[rows[k] + k] * rj[q][k];
      }
      for (int k = j0 + 4; k < end; ++k) {
        const double w = ri[k] * a[rows[k] + k];
        sum[0] += w * rj[0][k];
        sum[1] += w * rj[1][k];
        sum[2] += w * rj[2][k];
        sum[3] += w * rj[3][k];
      }
      double out[4];
      for (int q = 0; q < 4; ++q) {
        const int j = j0 + q;
        const double s = (j > i) ? ri[j] * rj[q][j] : ri[i];
        out[q] = s + sum[q];
      }
      for (int q = 0; q < 4; ++q) ri[j0 + q] = out[q];
    }
    for (int j = j0; j < end; ++j) {
      const double* rj = a + rows[j];
      const double s = (j > i) ? ri[j] * rj[j] : ri[i];
      double sum = 0.0;
      for (int k = j + 1; k < end; ++k) sum += ri[k] * a[rows[k] + k] * rj[k];
      ri[j] = s + sum;
    }
  }
  return false;
}

}  // namespace ldl
}  // namespace epho

#endif  // EPHO_KERNEL_SOLVERS_LDL_INTERNAL_H_
