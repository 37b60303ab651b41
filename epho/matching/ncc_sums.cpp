// Window sums and cross sums, the building blocks of the symmetry-centre
// search. Rows are taken top to bottom, each row left to right (right to left
// for the column mirror), four pixels per step and then the remainder one by
// one, into one double accumulator, so the order of additions is fixed.
#include <cstdint>

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"

namespace {

using std::ptrdiff_t;

// Sum over one row of n values a[k * da] * b[k], four per step.
template <typename P>
inline void AddRowProducts(const P* a, ptrdiff_t da, const P* b, int n, double* acc) {
  double s = *acc;
  int k = 0;
  for (; k + 4 <= n; k += 4) {
    s += static_cast<double>(a[k * da]) * static_cast<double>(b[k]);
    s += static_cast<double>(a[(k + 1) * da]) * static_cast<double>(b[k + 1]);
    s += static_cast<double>(a[(k + 2) * da]) * static_cast<double>(b[k + 2]);
    s += static_cast<double>(a[(k + 3) * da]) * static_cast<double>(b[k + 3]);
  }
  for (; k < n; ++k) s += static_cast<double>(a[k * da]) * static_cast<double>(b[k]);
  *acc = s;
}

template <typename P>
void SumSquareSum(const P* image, uint32_t stride, int32_t x, int32_t y, uint32_t halfWidth,
                  uint32_t halfHeight, double* sum, double* sumSquares) {
  *sum = 0.0;
  *sumSquares = 0.0;
  const int32_t hw = static_cast<int32_t>(halfWidth), hh = static_cast<int32_t>(halfHeight);
  if (hw < 0 || hh < 0) return;
  const int n = 2 * hw + 1;
  double s = 0.0, ss = 0.0;
  for (int32_t i = -hh; i <= hh; ++i) {
    const P* p =
        image + (static_cast<ptrdiff_t>(y) + i) * stride + (static_cast<ptrdiff_t>(x) - hw);
    int k = 0;
    for (; k + 4 <= n; k += 4) {
      const double a = p[k], b = p[k + 1], c = p[k + 2], d = p[k + 3];
      s += a;
      s += b;
      s += c;
      s += d;
      ss += a * a;
      ss += b * b;
      ss += c * c;
      ss += d * d;
    }
    for (; k < n; ++k) {
      const double a = p[k];
      s += a;
      ss += a * a;
    }
  }
  *sum = s;
  *sumSquares = ss;
}

// rowStep: +1 reads the first window downwards, -1 upwards (row mirror);
// colStep: +1 left to right, -1 right to left (column mirror).
template <typename P>
double CrossSum(const P* first, uint32_t firstStride, int32_t x1, int32_t y1, const P* second,
                uint32_t secondStride, int32_t x2, int32_t y2, uint32_t halfWidth,
                uint32_t halfHeight, int rowStep, int colStep) {
  const int32_t hw = static_cast<int32_t>(halfWidth), hh = static_cast<int32_t>(halfHeight);
  if (hw < 0 || hh < 0) return 0.0;
  const int n = 2 * hw + 1;
  double acc = 0.0;
  for (int32_t i = -hh; i <= hh; ++i) {
    const P* a = first + (static_cast<ptrdiff_t>(y1) + rowStep * i) * firstStride +
                 (static_cast<ptrdiff_t>(x1) - colStep * hw);
    const P* b = second + (static_cast<ptrdiff_t>(y2) + i) * secondStride +
                 (static_cast<ptrdiff_t>(x2) - hw);
    AddRowProducts(a, colStep, b, n, &acc);
  }
  return acc;
}

}  // namespace

extern "C" {

void epho_getPixelSumSquareSumByte(const uint8_t* image, uint32_t stride, int32_t x, int32_t y,
                                   uint32_t halfWidth, uint32_t halfHeight, double* sum,
                                   double* sumSquares) KZDV_NOEXCEPT {
  SumSquareSum(image, stride, x, y, halfWidth, halfHeight, sum, sumSquares);
}

void epho_getPixelSumSquareSumU32(const uint32_t* image, uint32_t stride, int32_t x, int32_t y,
                                  uint32_t halfWidth, uint32_t halfHeight, double* sum,
                                  double* sumSquares) KZDV_NOEXCEPT {
  SumSquareSum(image, stride, x, y, halfWidth, halfHeight, sum, sumSquares);
}

double epho_getCrossSumByte(const uint8_t* first, uint32_t firstStride, int32_t x1, int32_t y1,
                            const uint8_t* second, uint32_t secondStride, int32_t x2, int32_t y2,
                            uint32_t halfWidth, uint32_t halfHeight) KZDV_NOEXCEPT {
  return CrossSum(first, firstStride, x1, y1, second, secondStride, x2, y2, halfWidth, halfHeight,
                  1, 1);
}

double epho_getCrossSumU32(const uint32_t* first, uint32_t firstStride, int32_t x1, int32_t y1,
                           const uint32_t* second, uint32_t secondStride, int32_t x2, int32_t y2,
                           uint32_t halfWidth, uint32_t halfHeight) KZDV_NOEXCEPT {
  return CrossSum(first, firstStride, x1, y1, second, secondStride, x2, y2, halfWidth, halfHeight,
                  1, 1);
}

}  // extern "C"

double getCrossSumU32RowMirror(const uint32_t* first, uint32_t firstStride, int32_t x1, int32_t y1,
                               const uint32_t* second, uint32_t secondStride, int32_t x2,
                               int32_t y2, uint32_t halfWidth, uint32_t halfHeight) {
  return CrossSum(first, firstStride, x1, y1, second, secondStride, x2, y2, halfWidth, halfHeight,
                  -1, 1);
}

double getCrossSumU32ColumnMirror(const uint32_t* first, uint32_t firstStride, int32_t x1,
                                  int32_t y1, const uint32_t* second, uint32_t secondStride,
                                  int32_t x2, int32_t y2, uint32_t halfWidth, uint32_t halfHeight) {
  return CrossSum(first, firstStride, x1, y1, second, secondStride, x2, y2, halfWidth, halfHeight,
                  1, -1);
}
