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

// Columns handled per pass: the partial sums of one row for this many
// columns live on the stack (no allocation) and stay in L1.
constexpr int kColumnBlock = 256;

// Factorises the active block in place; true at the first exactly-zero pivot
// (rows above it are finished, rows below keep their input values).
template <Pivot kPivot, class Rows>
bool Factor(double* a, Rows rows, int first, int end) {
  double* row0 = a + rows[first];
  const double d0 = row0[first];
  if (d0 == 0.0) return true;
  if (kPivot == Pivot::kDivide) {
    for (int j = first + 1; j < end; ++j) row0[j] = row0[j] / d0;
  } else {
    const double r0 = 1.0 / d0;
    for (int j = first + 1; j < end; ++j) row0[j] = row0[j] * r0;
  }
  double sums[kColumnBlock];
  for (int i = first + 1; i < end; ++i) {
    double* ri = a + rows[i];
    double di = 0.0;
    for (int jb = i; jb < end; jb += kColumnBlock) {
      const int width = std::min(end - jb, kColumnBlock);
      for (int t = 0; t < width; ++t) sums[t] = 0.0;
      // sums[t] = sum over k of u_ki * d_k * u_k(jb+t), taken in increasing k;
      // the update runs along contiguous row cells so it vectorises.
      for (int k = first; k < i; ++k) {
        const double* rk = a + rows[k] + jb;
        const double f = a[rows[k] + i] * a[rows[k] + k];
        double* __restrict s = sums;
        for (int t = 0; t < width; ++t) s[t] += f * rk[t];
      }
      double* __restrict out = ri + jb;
      int t0 = 0;
      if (jb == i) {
        di = out[0] - sums[0];
        out[0] = di;
        if (di == 0.0) return true;
        t0 = 1;
      }
      if (kPivot == Pivot::kDivide) {
        for (int t = t0; t < width; ++t) out[t] = (out[t] - sums[t]) / di;
      } else {
        const double r = 1.0 / di;
        for (int t = t0; t < width; ++t) out[t] = (out[t] - sums[t]) * r;
      }
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
  // V = U^-1, row by row from the top. Row r's cells left of c are already V,
  // the rows below are still U.
  for (int r = first; r < end - 1; ++r) {
    double* rr = a + rows[r];
    for (int c = r + 1; c < end; ++c) {
      double s = 0.0;
      for (int k = r + 1; k < c; ++k) s += rr[k] * a[rows[k] + c];
      rr[c] = -(rr[c] + s);
    }
  }
  for (int i = first; i < end; ++i) {
    double& d = a[rows[i] + i];
    if (d == 0.0) return true;
    d = 1.0 / d;
  }
  // A^-1 = V D^-1 V^T, top row first and left to right: every cell read later
  // still holds V or 1/d when it is read.
  for (int i = first; i < end - 1; ++i) {
    double* ri = a + rows[i];
    for (int j = i; j < end; ++j) {
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
