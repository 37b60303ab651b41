// Pieces shared by the correlation kernels, the template search, the
// least-squares matcher and the symmetry search. Internal, not exported.
#ifndef EPHO_NCC_INTERNAL_H
#define EPHO_NCC_INTERNAL_H

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace epho::matching {

// The coefficient from the five window sums over n samples. A window whose
// variance is 0 (flat) gives exactly 0; a variance below 0 or NaN can only
// come from rounding on a flat window or from NaN pixels, and also gives 0 so
// that no caller ever sees NaN.
inline double CoefficientFromSums(double n, double sumL, double sumLL, double sumR, double sumRR,
                                  double sumLR) {
  const double varL = sumLL - (sumL / n) * sumL;
  const double varR = sumRR - (sumR / n) * sumR;
  if (!(varL > 0.0) || !(varR > 0.0)) return 0.0;
  return (sumLR - (sumL / n) * sumR) / std::sqrt(varL * varR);
}

// The coefficient of the exported correlation members: exactly 0 when either
// variance compares equal to 0 (a flat window), otherwise the formula as it
// stands, so a NaN pixel gives NaN and the caller sees that the data is bad.
// The real-valued members sum relative to the window's first sample, which
// keeps a flat window at exactly zero variance.
inline double CrossCoefficient(double n, double sumL, double sumLL, double sumR, double sumRR,
                               double sumLR) {
  const double varL = sumLL - (sumL / n) * sumL;
  const double varR = sumRR - (sumR / n) * sumR;
  if (varL == 0.0 || varR == 0.0) return 0.0;
  return (sumLR - (sumL / n) * sumR) / std::sqrt(varL * varR);
}

// Splits a coordinate for bilinear sampling with pixel centres at k + 0.5:
// k = floor(u - 0.5) and the fraction f in [0, 1) toward pixel k + 1.
inline void SplitHalfPixel(double u, std::ptrdiff_t* k, double* f) {
  std::ptrdiff_t t = static_cast<std::ptrdiff_t>(u);  // toward zero
  double frac = u - (static_cast<double>(t) + 0.5);
  if (frac < 0.0) {
    frac += 1.0;
    --t;
  }
  *k = t;
  *f = frac;
}

// Bilinear value at (u, v) with pixel centres at k + 0.5 (column u, row v).
template <typename P>
inline double BilinearHalfPixel(const P* image, std::ptrdiff_t stride, double u, double v) {
  std::ptrdiff_t kc, kr;
  double fc, fr;
  SplitHalfPixel(u, &kc, &fc);
  SplitHalfPixel(v, &kr, &fr);
  const P* p = image + kr * stride + kc;
  const double top = (1.0 - fc) * static_cast<double>(p[0]) + fc * static_cast<double>(p[1]);
  const double bottom =
      (1.0 - fc) * static_cast<double>(p[stride]) + fc * static_cast<double>(p[stride + 1]);
  return (1.0 - fr) * top + fr * bottom;
}

}  // namespace epho::matching

// Cross sums with the first window mirrored, for the symmetry-centre search:
//   RowMirror:    sum A(x1+j, y1-i) * B(x2+j, y2+i)  (first window bottom row first)
//   ColumnMirror: sum A(x1-j, y1+i) * B(x2+j, y2+i)  (first window right to left)
// i over -halfHeight..halfHeight, j over -halfWidth..halfWidth; a negative
// signed half size gives 0.
double getCrossSumU32RowMirror(const uint32_t* first, uint32_t firstStride, int32_t x1, int32_t y1,
                               const uint32_t* second, uint32_t secondStride, int32_t x2,
                               int32_t y2, uint32_t halfWidth, uint32_t halfHeight);
double getCrossSumU32ColumnMirror(const uint32_t* first, uint32_t firstStride, int32_t x1,
                                  int32_t y1, const uint32_t* second, uint32_t secondStride,
                                  int32_t x2, int32_t y2, uint32_t halfWidth, uint32_t halfHeight);

#endif  // EPHO_NCC_INTERNAL_H
