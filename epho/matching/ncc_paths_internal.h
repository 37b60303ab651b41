// The processor-specific bodies of the 8-bit correlation kernel and of the
// template search, one declaration per path. The portable bodies live in
// *_portable.cpp, the x86 ones (SSE2, AVX2) in *_x86.cpp; the logic that
// picks and drives them takes an epho::VectorPath (see
// "epho/kernel/vector_path.h" for what each path guarantees).
#ifndef EPHO_MATCHING_NCC_PATHS_INTERNAL_H_
#define EPHO_MATCHING_NCC_PATHS_INTERNAL_H_

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "epho/kernel/vector_path.h"
#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"

#if defined(__x86_64__)  // SSE2 is part of the x86-64 baseline
#define EPHO_NCC_X86 1
#else
#define EPHO_NCC_X86 0
#endif

namespace epho::matching {

// ---- 8-bit whole-pixel coefficient --------------------------------------

// Exact integer window sums of the 8-bit kernel.
struct ByteSums {
  int64_t l = 0, ll = 0, r = 0, rr = 0, lr = 0;
};

// The coefficient with every sum scaled by n, in exact integers up to the
// final square root: n * var = n * sum(x^2) - sum(x)^2.
inline double ByteCoefficient(const ByteSums& t, int64_t n) {
  if (n > 10000000)  // n * sum(x^2) could leave 64 bits: plain double sums
    return CrossCoefficient(static_cast<double>(n), static_cast<double>(t.l),
                            static_cast<double>(t.ll), static_cast<double>(t.r),
                            static_cast<double>(t.rr), static_cast<double>(t.lr));
  const int64_t var_l = n * t.ll - t.l * t.l, var_r = n * t.rr - t.r * t.r;
  if (var_l == 0 || var_r == 0) return 0.0;
  return static_cast<double>(n * t.lr - t.l * t.r) /
         std::sqrt(static_cast<double>(var_l) * static_cast<double>(var_r));
}

// Coefficient of a w x h window pair whose top-left pixels are pl and pr.
// All bodies form the same exact integer sums, so they agree bit for bit.
using ByteCoefFn = double (*)(const uint8_t* pl, const uint8_t* pr, std::ptrdiff_t ls,
                              std::ptrdiff_t rs, int w, int h, int64_t n);
double ByteCoefPortable(const uint8_t* pl, const uint8_t* pr, std::ptrdiff_t ls, std::ptrdiff_t rs,
                        int w, int h, int64_t n);
#if EPHO_NCC_X86
double ByteCoefSse2(const uint8_t* pl, const uint8_t* pr, std::ptrdiff_t ls, std::ptrdiff_t rs,
                    int w, int h, int64_t n);  // w >= 8
double ByteCoefAvx2(const uint8_t* pl, const uint8_t* pr, std::ptrdiff_t ls, std::ptrdiff_t rs,
                    int w, int h, int64_t n);  // w >= 8
#endif

// epho_CrossCoefByteNoResample on the given path.
double CrossCoefByteNoResample(epho::VectorPath path, const uint8_t* left, const uint8_t* right,
                               uint32_t leftStride, uint32_t rightStride, uint32_t lx, uint32_t ly,
                               uint32_t rx, uint32_t ry, int16_t width, int16_t height);

// epho_CrossCoefFloatNoResample of one left window at (lx, ly) against the
// right windows at (rx[k], ry[k]), k < count, each coefficient bit for bit
// that of its own call; the windows are walked together (a peak and its
// neighbours cost little more than the peak alone).
void CrossCoefFloatNoResampleMany(const float* left, const float* right, uint32_t leftStride,
                                  uint32_t rightStride, uint32_t lx, uint32_t ly,
                                  const uint32_t* rx, const uint32_t* ry, int count, int16_t width,
                                  int16_t height, double* coefficients);

// ---- template search: cross products of one candidate row ----------------

constexpr std::size_t kSearchBlock = 32;  // candidate columns computed together
constexpr std::size_t kSearchPad = 8;     // candidate rows are padded to this many columns

// 8-bit: out[x] = sum T * I over the window at column x, for x < cols_padded.
// `pairs` is the first stored row of the window, each element the 16-bit
// pixel pair (I[c], I[c+1]); `coef` holds per template row the packed pairs
// (T[2p], T[2p+1]). Exact modulo 2^32 on every path.
void CrossRowBytePortable(const int32_t* pairs, std::size_t stride, const int32_t* coef, int th,
                          int npairs, std::size_t cols_padded, int32_t* out);
#if EPHO_NCC_X86
void CrossRowByteSse2(const int32_t* pairs, std::size_t stride, const int32_t* coef, int th,
                      int npairs, std::size_t cols_padded, int32_t* out);
void CrossRowByteAvx2(const int32_t* pairs, std::size_t stride, const int32_t* coef, int th,
                      int npairs, std::size_t cols_padded, int32_t* out);
#endif

// float: out[x] = sum T' * F over the window at column x, single precision.
void CrossRowFloatPortable(const float* area, std::size_t stride, const float* templ, int th,
                           int tw, std::size_t cols_padded, float* out);
#if EPHO_NCC_X86
void CrossRowFloatAvx2(const float* area, std::size_t stride, const float* templ, int th, int tw,
                       std::size_t cols_padded, float* out);
// Rows starting at stored rows 0 and 1 in one pass; needs th + 1 stored rows.
void CrossTwoRowsFloatAvx2(const float* area, std::size_t stride, const float* templ, int th,
                           int tw, std::size_t cols_padded, float* out0, float* out1);
#endif

// How the template search forms the cross products: one kernel-like pass per
// candidate row (direct; cost grows with the template area) or one
// transform of the search area and the template (cost independent of the
// template size); kAuto picks the cheaper by a cost model measured per path.
enum class SearchMethod { kAuto, kDirect, kTransform };

// The template search on the given path (the exported functions pass
// epho::BestVectorPath() and kAuto). kTransform beyond the transform's size
// limit searches directly.
int NccSearchByte(epho::VectorPath path, SearchMethod method, const uint8_t* left,
                  const uint8_t* right, uint32_t leftStride, uint32_t rightStride, uint32_t lx,
                  uint32_t ly, uint32_t halfWidth, uint32_t halfHeight, uint32_t rxMin,
                  uint32_t ryMin, uint32_t rxMax, uint32_t ryMax, void* scratch,
                  std::size_t scratchBytes, Epho_NccPeak* peak);
int NccSearchFloat(epho::VectorPath path, SearchMethod method, const float* left,
                   const float* right, uint32_t leftStride, uint32_t rightStride, uint32_t lx,
                   uint32_t ly, uint32_t halfWidth, uint32_t halfHeight, uint32_t rxMin,
                   uint32_t ryMin, uint32_t rxMax, uint32_t ryMax, void* scratch,
                   std::size_t scratchBytes, Epho_NccPeak* peak);

// Scratch for a method (kAuto: what the exported search asks for).
std::size_t NccSearchScratchBytes(SearchMethod method, uint32_t halfWidth, uint32_t halfHeight,
                                  uint32_t rangeColumns, uint32_t rangeRows);
// Whether kAuto takes the transform for these sizes on this path.
bool NccSearchUsesTransform(epho::VectorPath path, bool bytePixels, uint32_t halfWidth,
                            uint32_t halfHeight, uint32_t rangeColumns, uint32_t rangeRows);
// The cost model's times of the two methods (nanoseconds), for the
// calibration bench.
void NccSearchModelCosts(epho::VectorPath path, bool bytePixels, uint32_t halfWidth,
                         uint32_t halfHeight, uint32_t rangeColumns, uint32_t rangeRows,
                         double* directNs, double* transformNs);

}  // namespace epho::matching

#endif  // EPHO_MATCHING_NCC_PATHS_INTERNAL_H_
