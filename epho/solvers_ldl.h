// Internal engine of the symmetric solvers: the square-root-free factor
// A = U^T D U, the solve with it and the inverse V D^-1 V^T (V = U^-1), on any
// row addressing (fixed stride or a row-offset table) and any active block
// [first, end). Every sum is taken in increasing index order, so the fixed
// stride and the row-offset forms of one matrix give bit-identical results.
#ifndef EPHO_SOLVERS_LDL_H
#define EPHO_SOLVERS_LDL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

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

// sums[r][t] += f[k][r] * a(k, jb + t) for k = k0 .. k1-1 in increasing k
// (f row-major kChunk x R, sums R x kColumnBlock). Four columns at a time
// with the R x 4 partial sums in registers; each sum still receives its
// terms one by one in increasing k.
template <int R, class Rows>
inline void AccumulateRows(double* __restrict sums, const double* __restrict f,
                           const double* a, Rows rows, int k0, int k1, int jb, int width) {
  int t = 0;
  for (; t + 4 <= width; t += 4) {
    double acc[R][4];
    for (int r = 0; r < R; ++r)
      for (int c = 0; c < 4; ++c) acc[r][c] = sums[r * kColumnBlock + t + c];
    for (int k = k0; k < k1; ++k) {
      const double* x = a + rows[k] + jb + t;
      const double* fk = f + (k - k0) * R;
      for (int r = 0; r < R; ++r)
        for (int c = 0; c < 4; ++c) acc[r][c] += fk[r] * x[c];
    }
    for (int r = 0; r < R; ++r)
      for (int c = 0; c < 4; ++c) sums[r * kColumnBlock + t + c] = acc[r][c];
  }
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
      for (int k = i0; k < i; ++k) {  // rows of this block finished above
        const double* rk = a + rows[k] + jb;
        const double fk = a[rows[k] + i] * a[rows[k] + k];
        for (int t = t_first; t < width; ++t) s[t] += fk * rk[t];
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
    case 1: return FactorRows<kPivot, 1>(a, rows, first, end, i0, jb_start);
    case 2: return FactorRows<kPivot, 2>(a, rows, first, end, i0, jb_start);
    case 3: return FactorRows<kPivot, 3>(a, rows, first, end, i0, jb_start);
    default: return FactorRows<kPivot, kRowBlock>(a, rows, first, end, i0, jb_start);
  }
}

// Factorises the active block in place (first < end); true at the first
// exactly-zero pivot: rows above it are finished, its diagonal holds the zero
// pivot and the rows below keep their input values.
template <Pivot kPivot, class Rows>
bool Factor(double* a, Rows rows, int first, int end) {
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
  for (int i = first + 1; i < end; ++i) {
    double s = 0.0;
    for (int k = first; k < i; ++k) s += a[rows[k] + i] * b[k];
    b[i] = b[i] - s;
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
        const double f0 = rr[k], f1 = rr[k + 1], f2 = rr[k + 2], f3 = rr[k + 3];
        const double* x0 = a + rows[k] + cb;
        const double* x1 = a + rows[k + 1] + cb;
        const double* x2 = a + rows[k + 2] + cb;
        const double* x3 = a + rows[k + 3] + cb;
        for (int t = 0; t < width; ++t)
          sums[t] = (((sums[t] + f0 * x0[t]) + f1 * x1[t]) + f2 * x2[t]) + f3 * x3[t];
      }
      for (; k < cb; ++k) {
        const double f = rr[k];
        const double* x = a + rows[k] + cb;
        for (int t = 0; t < width; ++t) sums[t] += f * x[t];
      }
      for (int t = 0; t < width; ++t) {
        const int c = cb + t;
        const double v = -(rr[c] + sums[t]);
        rr[c] = v;
        const double* x = a + rows[c] + cb;
        for (int q = t + 1; q < width; ++q) sums[q] += v * x[q];
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

#endif  // EPHO_SOLVERS_LDL_H
