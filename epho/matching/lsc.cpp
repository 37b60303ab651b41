// Least-squares correlation: affine geometry plus linear radiometry of a
// template window against the right image, by Gauss-Newton iterations.
//
// Unknowns p = (a0, a1, a2, b0, b1, b2, r0, r1). Window offset (j, i) samples
// the right image at column rx + a0 + a1*j + a2*i, row ry + b0 + b1*j + b2*i
// (bilinear, pixel centres at k + 0.5) and models it as r1*T(j, i) + r0. Each
// sample contributes the design row (gx, gx*j, gx*i, gy, gy*j, gy*i, -1, -T)
// and the observation r1*T + r0 - G to 8x8 normal equations, solved with the
// square-root-free factor of the dense solvers.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "emsc.h"
#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"
#include "epho/solvers.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace {

using epho::matching::BilinearHalfPixel;
using epho::matching::SplitHalfPixel;
using std::ptrdiff_t;

// Pivots of a normal matrix below this fraction of their diagonal cell are
// taken as zero: such a system (flat template, flat search patch) is singular
// in exact arithmetic and only rounding keeps the pivot off 0.
constexpr double kRelativePivot = 1e-12;

enum class Ending { kConverged, kLimit, kShift, kSampling, kFactor, kSolve };

struct LscResult {
  Ending ending;
  int iterations;
  double a0, b0;
};

// Sampling area: the 2x2 neighbourhood index k of every sample must satisfy
// 1 <= k <= limit along each axis.
struct Area {
  ptrdiff_t column_limit, row_limit;
};

inline bool InsideArea(double u, double v, const Area& area) {
  // Far-off or non-finite positions fail before any integer conversion.
  if (!(std::fabs(u) < 1e9) || !(std::fabs(v) < 1e9)) return false;
  ptrdiff_t kc, kr;
  double f;
  SplitHalfPixel(u, &kc, &f);
  SplitHalfPixel(v, &kr, &f);
  return kc >= 1 && kc <= area.column_limit && kr >= 1 && kr <= area.row_limit;
}

// T(j, i) is the template value at window offset (j, i).
template <typename P, class Template>
LscResult Iterate(const Template& T, int hw, int hh, const P* right, ptrdiff_t stride, double rx,
                  double ry, double angle, int max_iterations, double threshold, double max_shift,
                  const Area& area) {
  double p[8] = {0, std::cos(angle), -std::sin(angle), 0, std::sin(angle), std::cos(angle), 0, 1};
  for (int n = 1;; ++n) {
    double N[64] = {0};
    double rhs[8] = {0};
    for (int i = -hh; i <= hh; ++i) {
      for (int j = -hw; j <= hw; ++j) {
        const double u = rx + p[0] + p[1] * j + p[2] * i;
        const double v = ry + p[3] + p[4] * j + p[5] * i;
        if (!InsideArea(u, v, area)) return {Ending::kSampling, n, 0, 0};
        const double g = BilinearHalfPixel(right, stride, u, v);
        const double gx = BilinearHalfPixel(right, stride, u + 0.5, v) -
                          BilinearHalfPixel(right, stride, u - 0.5, v);
        const double gy = BilinearHalfPixel(right, stride, u, v + 0.5) -
                          BilinearHalfPixel(right, stride, u, v - 0.5);
        const double t = T(j, i);
        const double row[8] = {gx, gx * j, gx * i, gy, gy * j, gy * i, -1.0, -t};
        const double l = p[7] * t + p[6] - g;
        for (int a = 0; a < 8; ++a) {
          for (int b = a; b < 8; ++b) N[a * 8 + b] += row[a] * row[b];
          rhs[a] += row[a] * l;
        }
      }
    }
    double diagonal[8];
    for (int a = 0; a < 8; ++a) diagonal[a] = N[a * 9];
    if (epho_Resolve8(N)) return {Ending::kFactor, n, 0, 0};
    for (int a = 0; a < 8; ++a)
      if (!(N[a * 9] > kRelativePivot * diagonal[a])) return {Ending::kFactor, n, 0, 0};
    if (epho_Solution8(N, rhs)) return {Ending::kSolve, n, 0, 0};
    for (int a = 0; a < 8; ++a) p[a] += rhs[a];
    if (!std::isfinite(p[0]) || !std::isfinite(p[3])) return {Ending::kSolve, n, 0, 0};
    if (std::fabs(p[0]) > max_shift || std::fabs(p[3]) > max_shift)
      return {Ending::kShift, n, p[0], p[3]};
    if (n > 1 && std::fabs(rhs[0]) < threshold && std::fabs(rhs[3]) < threshold)
      return {Ending::kConverged, n, p[0], p[3]};
    if (n >= max_iterations) return {Ending::kLimit, n, p[0], p[3]};
  }
}

// Applies the ending to the caller's position and gives the return code.
int16_t Finish(const LscResult& r, int max_iterations, double* rx, double* ry) {
  const int16_t failure = static_cast<int16_t>(2 * max_iterations);
  switch (r.ending) {
    case Ending::kConverged:
    case Ending::kLimit:
    case Ending::kShift:
      *rx += r.a0;
      *ry += r.b0;
      if (r.ending == Ending::kConverged) return static_cast<int16_t>(-r.iterations);
      if (r.ending == Ending::kLimit) return static_cast<int16_t>(max_iterations + 1);
      return failure;
    default:
      return failure;
  }
}

// The resampled-template members (Byte, Double).
template <typename P>
int16_t LscResampled(const wchar_t* fn, const P* left, int32_t left_stride, double left_angle,
                     double lx, double ly, const P* right, int32_t right_stride, double right_angle,
                     double* rx, double* ry, int16_t width, int16_t height, int16_t max_iterations,
                     float threshold, float max_shift, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(fn, err);
  const int16_t failure = static_cast<int16_t>(2 * max_iterations);
  if (!rx || !ry || !left || !right) {
    frame.Fail(__LINE__, L"Null image or position pointer");
    return failure;
  }
  if (max_iterations < 1) return 1;
  const int hw = width / 2, hh = height / 2;
  const int64_t count = static_cast<int64_t>(2 * hh + 1) * (2 * hw + 1) + 1;
  kzdv::HeapPtr<float> templ(static_cast<float*>(
      emsc_HeapMalloc(sizeof(float) * static_cast<size_t>(count > 0 ? count : 1))));
  if (!templ) {
    frame.Fail(2572, L"Not enough memory for point Least Square Correlation!");
    return failure;
  }
  const double c = std::cos(left_angle), s = std::sin(left_angle);
  float* t = templ.get();
  for (int i = -hh; i <= hh; ++i)
    for (int j = -hw; j <= hw; ++j)
      *t++ = static_cast<float>(
          BilinearHalfPixel(left, left_stride, lx + j * c - i * s, ly + j * s + i * c));
  const float* tp = templ.get();
  const int tw = 2 * hw + 1;
  auto T = [tp, tw, hw, hh](int j, int i) {
    return static_cast<double>(tp[(i + hh) * tw + j + hw]);
  };
  // The right buffer is a search patch of twice the window.
  const Area area{4 * hw, 4 * hh};
  const LscResult r = Iterate(T, hw, hh, right, right_stride, *rx, *ry, right_angle, max_iterations,
                              threshold, max_shift, area);
  if (r.ending == Ending::kFactor)
    frame.Fail(2666, L"Least Square Matching with inversible matrix!");
  if (r.ending == Ending::kSolve)
    frame.Fail(2670, L"Least Square Matching with inversible matrix!");
  return Finish(r, max_iterations, rx, ry);
}

// The whole-pixel members (ByteHalf, U32): template read in place.
template <typename P>
int16_t LscWholePixel(const P* left, int32_t left_stride, int32_t lx, int32_t ly, const P* right,
                      int32_t right_stride, double* rx, double* ry, uint32_t half_width,
                      uint32_t half_height, int16_t max_iterations, float threshold,
                      float max_shift) {
  const int16_t failure = static_cast<int16_t>(2 * max_iterations);
  if (!rx || !ry || !left || !right) return failure;
  if (max_iterations < 1) return 1;
  const int hw = static_cast<int32_t>(half_width), hh = static_cast<int32_t>(half_height);
  const P* centre = left + static_cast<ptrdiff_t>(ly) * left_stride + lx;
  auto T = [centre, left_stride](int j, int i) {
    return static_cast<double>(centre[static_cast<ptrdiff_t>(i) * left_stride + j]);
  };
  // Columns up to stride - 2 keep the 2x2 neighbourhood in the row. The right
  // buffer is taken to be a square patch of stride rows; the y gradient samples
  // half a pixel below the cell and so reaches row k + 2, hence rows up to
  // stride - 3 (the x gradient's column k + 2 then lies at worst on the next
  // row's first pixel, still inside the patch).
  const Area area{right_stride - 2, right_stride - 3};
  const LscResult r = Iterate(T, hw, hh, right, right_stride, *rx, *ry, 0.0, max_iterations,
                              threshold, max_shift, area);
  return Finish(r, max_iterations, rx, ry);
}

}  // namespace

extern "C" {

int16_t epho_OnePtLSCByte(const uint8_t* left, int32_t leftStride, double leftAngle, double lx,
                          double ly, const uint8_t* right, int32_t rightStride, double rightAngle,
                          double* rx, double* ry, int16_t width, int16_t height,
                          int16_t maxIterations, float convergence, float maxShift,
                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_OnePtLSCByte";
  return LscResampled(kFn, left, leftStride, leftAngle, lx, ly, right, rightStride, rightAngle, rx,
                      ry, width, height, maxIterations, convergence, maxShift, err);
}
EERR_BOUNDARY(err, static_cast<int16_t>(2 * maxIterations))

int16_t epho_OnePtLSCDouble(const double* left, int32_t leftStride, double leftAngle, double lx,
                            double ly, const double* right, int32_t rightStride, double rightAngle,
                            double* rx, double* ry, int16_t width, int16_t height,
                            int16_t maxIterations, float convergence, float maxShift,
                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_OnePtLSCDouble";
  return LscResampled(kFn, left, leftStride, leftAngle, lx, ly, right, rightStride, rightAngle, rx,
                      ry, width, height, maxIterations, convergence, maxShift, err);
}
EERR_BOUNDARY(err, static_cast<int16_t>(2 * maxIterations))

int16_t epho_OnePtLSCByteHalf(const uint8_t* left, int32_t leftStride, int32_t lx, int32_t ly,
                              const uint8_t* right, int32_t rightStride, double* rx, double* ry,
                              uint32_t halfWidth, uint32_t halfHeight, int16_t maxIterations,
                              float convergence, float maxShift) KZDV_NOEXCEPT {
  return LscWholePixel(left, leftStride, lx, ly, right, rightStride, rx, ry, halfWidth, halfHeight,
                       maxIterations, convergence, maxShift);
}

int16_t epho_OnePtLSCU32(const uint32_t* left, int32_t leftStride, int32_t lx, int32_t ly,
                         const uint32_t* right, int32_t rightStride, double* rx, double* ry,
                         uint32_t halfWidth, uint32_t halfHeight, int16_t maxIterations,
                         float convergence, float maxShift) KZDV_NOEXCEPT {
  return LscWholePixel(left, leftStride, lx, ly, right, rightStride, rx, ry, halfWidth, halfHeight,
                       maxIterations, convergence, maxShift);
}

}  // extern "C"
