// Normalised cross-correlation of one pair of windows per call.
//
// Every member walks the window row by row (i = -hh..hh) and column by column
// (j = -hw..hw) and forms the five sums L, LL, R, RR, LR. Two accumulation
// schemes are used, both giving the textbook coefficient:
//  - whole grey values (Byte members, U16) are summed as exact integers, so
//    the result does not depend on the order of additions;
//  - real values (U32, Float, Double) are summed in double relative to the
//    window's first sample. The coefficient does not change under a constant
//    offset, and the shift keeps a flat window at exactly zero variance and
//    avoids cancellation for large values (U32 near 2^32).
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"
#include "epho/matching/ncc_paths_internal.h"

namespace {

using epho::matching::BilinearHalfPixel;
using epho::matching::CrossCoefficient;
using std::ptrdiff_t;

inline double WindowCount(int hw, int hh) {
  return static_cast<double>(static_cast<int64_t>(2 * hw + 1) * static_cast<int64_t>(2 * hh + 1));
}

// Integer sums: left(j, i) and right(j, i) return whole numbers (int32).
template <class Left, class Right>
double CorrelateWhole(int hw, int hh, Left left, Right right) {
  int64_t sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const int32_t l = left(j, i);
      const int32_t r = right(j, i);
      sl += l;
      sll += l * l;
      sr += r;
      srr += r * r;
      slr += l * r;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), static_cast<double>(sl), static_cast<double>(sll),
                          static_cast<double>(sr), static_cast<double>(srr),
                          static_cast<double>(slr));
}

// Real sums, relative to the first sample of each window.
template <class Left, class Right>
double CorrelateReal(int hw, int hh, Left left, Right right) {
  if (hw < 0 || hh < 0) return 0.0;
  const double l0 = left(-hw, -hh);
  const double r0 = right(-hw, -hh);
  double sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const double l = left(j, i) - l0;
      const double r = right(j, i) - r0;
      sl += l;
      sll += l * l;
      sr += r;
      srr += r * r;
      slr += l * r;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), sl, sll, sr, srr, slr);
}

// Top-left pixel of a whole-pixel window.
template <typename P>
inline const P* Corner(const P* image, uint32_t stride, int64_t x, int64_t y, int hw, int hh) {
  return image + (y - hh) * static_cast<ptrdiff_t>(stride) + (x - hw);
}

template <typename P>
double WholePixelReal(const P* left, const P* right, uint32_t ls, uint32_t rs, uint32_t lx,
                      uint32_t ly, uint32_t rx, uint32_t ry, int16_t width, int16_t height) {
  const int hw = width / 2, hh = height / 2;
  const P* pl = Corner(left, ls, lx, ly, hw, hh);
  const P* pr = Corner(right, rs, rx, ry, hw, hh);
  const ptrdiff_t sl = ls, sr = rs;
  return CorrelateReal(
      hw, hh, [&](int j, int i) { return static_cast<double>(pl[(i + hh) * sl + (j + hw)]); },
      [&](int j, int i) { return static_cast<double>(pr[(i + hh) * sr + (j + hw)]); });
}

// WholePixelReal of one left window against up to kMaxRightWindows right
// windows in one walk: each right window's sums take exactly the operations
// CorrelateReal performs for it, in the same order (nothing fused or
// regrouped), so every coefficient equals that of its own call. The
// windows ride two to a vector (lanes do the scalar operations), the left
// window in the lane beside the fifth: its sums are the same operations on
// l (l * l in the lane of l * r).
constexpr int kMaxRightWindows = 5;
template <typename P>
void WholePixelRealMany(const P* left, const P* right, uint32_t ls, uint32_t rs, uint32_t lx,
                        uint32_t ly, const uint32_t* rx, const uint32_t* ry, int count,
                        int16_t width, int16_t height, double* out) {
  typedef double D2 __attribute__((vector_size(16)));
  const int hw = width / 2, hh = height / 2;
  if (hw < 0 || hh < 0) {
    for (int k = 0; k < count; ++k) out[k] = 0.0;
    return;
  }
  const ptrdiff_t sl = ls, sr = rs;
  const P* pl = Corner(left, ls, lx, ly, hw, hh);
  const P* pr[kMaxRightWindows];
  for (int k = 0; k < kMaxRightWindows; ++k)  // missing windows repeat the first
    pr[k] = Corner(right, rs, rx[k < count ? k : 0], ry[k < count ? k : 0], hw, hh);
  auto at = [](const P* p, ptrdiff_t i) { return static_cast<double>(p[i]); };
  // Lanes: (window 0, window 1), (window 2, window 3), (window 4, left).
  const D2 o01 = {at(pr[0], 0), at(pr[1], 0)}, o23 = {at(pr[2], 0), at(pr[3], 0)},
           o4l = {at(pr[4], 0), at(pl, 0)};
  D2 s01 = {0, 0}, s23 = s01, s4l = s01, q01 = s01, q23 = s01, q4l = s01, c01 = s01, c23 = s01,
     c4l = s01;
  for (int i = 0; i <= 2 * hh; ++i)
    for (int j = 0; j <= 2 * hw; ++j) {
      const ptrdiff_t r = i * sr + j;
      const D2 v4l = D2{at(pr[4], r), at(pl, i * sl + j)} - o4l;
      const D2 v01 = D2{at(pr[0], r), at(pr[1], r)} - o01;
      const D2 v23 = D2{at(pr[2], r), at(pr[3], r)} - o23;
      const double l = v4l[1];
      s01 += v01, q01 += v01 * v01, c01 += l * v01;
      s23 += v23, q23 += v23 * v23, c23 += l * v23;
      s4l += v4l, q4l += v4l * v4l, c4l += l * v4l;
    }
  const double n = WindowCount(hw, hh), s_l = s4l[1], s_ll = q4l[1];
  const double s_r[kMaxRightWindows] = {s01[0], s01[1], s23[0], s23[1], s4l[0]};
  const double s_rr[kMaxRightWindows] = {q01[0], q01[1], q23[0], q23[1], q4l[0]};
  const double s_lr[kMaxRightWindows] = {c01[0], c01[1], c23[0], c23[1], c4l[0]};
  for (int k = 0; k < count; ++k) out[k] = CrossCoefficient(n, s_l, s_ll, s_r[k], s_rr[k], s_lr[k]);
}

// Rounds an interpolated grey value half up to a whole number.
inline int32_t RoundGrey(double v) { return static_cast<int32_t>(v + 0.5); }

// The 8-bit whole-pixel kernel on a given vector path (the bodies are in
// ncc_byte_portable.cpp and ncc_byte_x86.cpp; all form the same exact
// integer sums). Windows narrower than 8 pixels always take the portable body.
double ByteWholePixel(epho::VectorPath path, const uint8_t* left, const uint8_t* right, uint32_t ls,
                      uint32_t rs, uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry,
                      int16_t width, int16_t height) {
  const int hw = width / 2, hh = height / 2;
  if (hw < 0 || hh < 0) return 0.0;
  const int w = 2 * hw + 1, h = 2 * hh + 1;
  const uint8_t* pl = Corner(left, ls, lx, ly, hw, hh);
  const uint8_t* pr = Corner(right, rs, rx, ry, hw, hh);
  epho::matching::ByteCoefFn coef = epho::matching::ByteCoefPortable;
#if EPHO_NCC_X86
  if (w >= 8 && path == epho::VectorPath::kAvx2) coef = epho::matching::ByteCoefAvx2;
  if (w >= 8 && path == epho::VectorPath::kSse2) coef = epho::matching::ByteCoefSse2;
#else
  (void)path;
#endif
  return coef(pl, pr, ls, rs, w, h, static_cast<int64_t>(w) * h);
}

// Sampling rules of the resampling members: u = x + j*c - i*s,
// v = y + j*s + i*c around (x, y), half-pixel centres.
template <typename P>
struct TurnedSampler {
  const P* image;
  ptrdiff_t stride;
  double x, y, c, s;
  double operator()(int j, int i) const {
    return BilinearHalfPixel(image, stride, x + j * c - i * s, y + j * s + i * c);
  }
};

template <typename P>
struct ShiftedSampler {  // NoRotation: a pure shift, still half-pixel centres
  const P* image;
  ptrdiff_t stride;
  double x, y;
  double operator()(int j, int i) const { return BilinearHalfPixel(image, stride, x + j, y + i); }
};

template <typename P>
struct WholeSampler {
  const P* image;
  ptrdiff_t stride;
  int64_t x, y;
  P operator()(int j, int i) const { return image[(y + i) * stride + (x + j)]; }
};

// The Shift members' sampler: pixel centres at whole numbers, split once per
// call, and the deliberate +0.5 rounding bias of the shifted value.
template <typename P>
struct BiasedShiftSampler {
  const P* image;
  ptrdiff_t stride;
  ptrdiff_t kc, kr;
  double fc, fr;
  BiasedShiftSampler(const P* img, uint32_t s, double rx, double ry) : image(img), stride(s) {
    kc = static_cast<ptrdiff_t>(rx);
    kr = static_cast<ptrdiff_t>(ry);
    fc = rx - static_cast<double>(kc);
    fr = ry - static_cast<double>(kr);
  }
  double operator()(int j, int i) const {
    const P* p = image + (kr + i) * stride + (kc + j);
    const double top = (1.0 - fc) * static_cast<double>(p[0]) + fc * static_cast<double>(p[1]);
    const double bottom =
        (1.0 - fc) * static_cast<double>(p[stride]) + fc * static_cast<double>(p[stride + 1]);
    return top * (1.0 - fr) + 0.5 + bottom * fr;
  }
};

}  // namespace

extern "C" {

double epho_CrossCoefByteNoResample(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                                    uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                    uint32_t ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  static const epho::VectorPath path = epho::BestVectorPath();
  return ByteWholePixel(path, left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefU16NoResample(const uint16_t* left, const uint16_t* right, uint32_t leftStride,
                                   uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                   uint32_t ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  // 16-bit squares exceed int32: exact 64-bit sums instead.
  const int hw = width / 2, hh = height / 2;
  WholeSampler<uint16_t> l{left, leftStride, lx, ly};
  WholeSampler<uint16_t> r{right, rightStride, rx, ry};
  uint64_t sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i) {
    for (int j = -hw; j <= hw; ++j) {
      const uint64_t a = l(j, i), b = r(j, i);
      sl += a;
      sll += a * a;
      sr += b;
      srr += b * b;
      slr += a * b;
    }
  }
  return CrossCoefficient(WindowCount(hw, hh), static_cast<double>(sl), static_cast<double>(sll),
                          static_cast<double>(sr), static_cast<double>(srr),
                          static_cast<double>(slr));
}

double epho_CrossCoefU32NoResample(const uint32_t* left, const uint32_t* right, uint32_t leftStride,
                                   uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                   uint32_t ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefFloatNoResample(const float* left, const float* right, uint32_t leftStride,
                                     uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                     uint32_t ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefDoubleNoResample(const double* left, const double* right, uint32_t leftStride,
                                      uint32_t rightStride, uint32_t lx, uint32_t ly, uint32_t rx,
                                      uint32_t ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  return WholePixelReal(left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

double epho_CrossCoefByteNoRotation(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                                    uint32_t rightStride, double lx, double ly, double rx,
                                    double ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  ShiftedSampler<uint8_t> l{left, leftStride, lx, ly};
  ShiftedSampler<uint8_t> r{right, rightStride, rx, ry};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return RoundGrey(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleNoRotation(const double* left, const double* right, uint32_t leftStride,
                                      uint32_t rightStride, double lx, double ly, double rx,
                                      double ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  return CorrelateReal(width / 2, height / 2, ShiftedSampler<double>{left, leftStride, lx, ly},
                       ShiftedSampler<double>{right, rightStride, rx, ry});
}

double epho_CrossCoefByteBothResample(const uint8_t* left, const uint8_t* right,
                                      uint32_t leftStride, uint32_t rightStride, double leftAngle,
                                      double rightAngle, double lx, double ly, double rx, double ry,
                                      int16_t width, int16_t height) KZDV_NOEXCEPT {
  TurnedSampler<uint8_t> l{left, leftStride, lx, ly, std::cos(leftAngle), std::sin(leftAngle)};
  TurnedSampler<uint8_t> r{right, rightStride, rx, ry, std::cos(rightAngle), std::sin(rightAngle)};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return RoundGrey(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleBothResample(const double* left, const double* right,
                                        uint32_t leftStride, uint32_t rightStride, double leftAngle,
                                        double rightAngle, double lx, double ly, double rx,
                                        double ry, int16_t width, int16_t height) KZDV_NOEXCEPT {
  return CorrelateReal(
      width / 2, height / 2,
      TurnedSampler<double>{left, leftStride, lx, ly, std::cos(leftAngle), std::sin(leftAngle)},
      TurnedSampler<double>{right, rightStride, rx, ry, std::cos(rightAngle),
                            std::sin(rightAngle)});
}

double epho_CrossCoefByteRightResample(const uint8_t* left, const uint8_t* right,
                                       uint32_t leftStride, uint32_t rightStride, double angle,
                                       uint32_t lx, uint32_t ly, double rx, double ry,
                                       int16_t width, int16_t height) KZDV_NOEXCEPT {
  WholeSampler<uint8_t> l{left, leftStride, lx, ly};
  TurnedSampler<uint8_t> r{right, rightStride, rx, ry, std::cos(angle), std::sin(angle)};
  return CorrelateWhole(
      width / 2, height / 2, [&](int j, int i) { return static_cast<int32_t>(l(j, i)); },
      [&](int j, int i) { return RoundGrey(r(j, i)); });
}

double epho_CrossCoefDoubleRightResample(const double* left, const double* right,
                                         uint32_t leftStride, uint32_t rightStride, double angle,
                                         uint32_t lx, uint32_t ly, double rx, double ry,
                                         int16_t width, int16_t height) KZDV_NOEXCEPT {
  WholeSampler<double> l{left, leftStride, lx, ly};
  return CorrelateReal(
      width / 2, height / 2, l,
      TurnedSampler<double>{right, rightStride, rx, ry, std::cos(angle), std::sin(angle)});
}

double epho_CrossCoefByteShift(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                               uint32_t rightStride, int32_t lx, int32_t ly, double rx, double ry,
                               uint32_t halfWidth, uint32_t halfHeight) KZDV_NOEXCEPT {
  WholeSampler<uint8_t> l{left, leftStride, lx, ly};
  BiasedShiftSampler<uint8_t> r(right, rightStride, rx, ry);
  // The biased value truncated: the bilinear value rounded half up.
  return CorrelateWhole(
      static_cast<int16_t>(halfWidth), static_cast<int16_t>(halfHeight),
      [&](int j, int i) { return static_cast<int32_t>(l(j, i)); },
      [&](int j, int i) { return static_cast<int32_t>(r(j, i)); });
}

double epho_CrossCoefU32Shift(const uint32_t* left, const uint32_t* right, uint32_t leftStride,
                              uint32_t rightStride, int32_t lx, int32_t ly, double rx, double ry,
                              uint32_t halfWidth, uint32_t halfHeight) KZDV_NOEXCEPT {
  WholeSampler<uint32_t> l{left, leftStride, lx, ly};
  return CorrelateReal(
      static_cast<int16_t>(halfWidth), static_cast<int16_t>(halfHeight),
      [&](int j, int i) { return static_cast<double>(l(j, i)); },
      BiasedShiftSampler<uint32_t>(right, rightStride, rx, ry));
}

}  // extern "C"

double epho::matching::CrossCoefByteNoResample(epho::VectorPath path, const uint8_t* left,
                                               const uint8_t* right, uint32_t leftStride,
                                               uint32_t rightStride, uint32_t lx, uint32_t ly,
                                               uint32_t rx, uint32_t ry, int16_t width,
                                               int16_t height) {
  return ByteWholePixel(path, left, right, leftStride, rightStride, lx, ly, rx, ry, width, height);
}

void epho::matching::CrossCoefFloatNoResampleMany(const float* left, const float* right,
                                                  uint32_t leftStride, uint32_t rightStride,
                                                  uint32_t lx, uint32_t ly, const uint32_t* rx,
                                                  const uint32_t* ry, int count, int16_t width,
                                                  int16_t height, double* coefficients) {
  for (int k0 = 0; k0 < count; k0 += kMaxRightWindows)
    WholePixelRealMany(left, right, leftStride, rightStride, lx, ly, rx + k0, ry + k0,
                       std::min(kMaxRightWindows, count - k0), width, height, coefficients + k0);
}
