/* Image matching: correlation of two image windows held in memory.
 *
 * Buffers are caller-owned, row-major; a stride is the row length in PIXELS.
 * Pixel (column c, row r) is element r * stride + c. Positions are given as
 * (column, row). No function checks bounds: the caller keeps every window,
 * plus one more column and row for the interpolating members, inside its
 * buffers. All functions here are stateless, allocate nothing unless stated,
 * and may be called from several threads at once. */
#ifndef EPHO_MATCHING_H
#define EPHO_MATCHING_H

#include <stddef.h>
#include <stdint.h>

#include "epho/base.h"

KZDV_BEGIN_C

/* ------------------------------------------------------------------------ */
/* Normalised cross-correlation: one coefficient in -1..1 per call.
 *
 * Window, full-size form (width, height): half sizes hw = width / 2 and
 * hh = height / 2 (truncated), and the window used is always odd, 2*hw+1 by
 * 2*hh+1, centred on the given position (8x8 and 9x9 are the same window).
 * A flat (zero-variance) window on either side gives exactly 0.0; otherwise
 * the coefficient is returned as computed, so a NaN pixel gives NaN.
 *
 * Resampling members (NoRotation, BothResample, RightResample): pixel k spans
 * k..k+1 with its centre at k + 0.5, so a position of 10.5 reads pixel 10 and
 * 10.0 averages pixels 9 and 10. Bilinear, reads one pixel beyond the window.
 * Rotated windows are turned about their centre: offset (j, i) samples column
 * x + j*cos(a) - i*sin(a), row y + j*sin(a) + i*cos(a) (angles in radians).
 * The Byte members round each interpolated value half up to a whole grey
 * value and correlate whole numbers. */
EPHO_EXPORT double epho_CrossCoefByteNoResample(const uint8_t* left, const uint8_t* right,
                                                uint32_t leftStride, uint32_t rightStride,
                                                uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry,
                                                int16_t width, int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefU16NoResample(const uint16_t* left, const uint16_t* right,
                                               uint32_t leftStride, uint32_t rightStride,
                                               uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry,
                                               int16_t width, int16_t height) KZDV_NOEXCEPT;
/* U32 pixels are unsigned: 0x80000000 and above are large positive values. */
EPHO_EXPORT double epho_CrossCoefU32NoResample(const uint32_t* left, const uint32_t* right,
                                               uint32_t leftStride, uint32_t rightStride,
                                               uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry,
                                               int16_t width, int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefFloatNoResample(const float* left, const float* right,
                                                 uint32_t leftStride, uint32_t rightStride,
                                                 uint32_t lx, uint32_t ly, uint32_t rx, uint32_t ry,
                                                 int16_t width, int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefDoubleNoResample(const double* left, const double* right,
                                                  uint32_t leftStride, uint32_t rightStride,
                                                  uint32_t lx, uint32_t ly, uint32_t rx,
                                                  uint32_t ry, int16_t width,
                                                  int16_t height) KZDV_NOEXCEPT;

/* Both windows at sub-pixel positions, not turned (half-pixel centres). */
EPHO_EXPORT double epho_CrossCoefByteNoRotation(const uint8_t* left, const uint8_t* right,
                                                uint32_t leftStride, uint32_t rightStride,
                                                double lx, double ly, double rx, double ry,
                                                int16_t width, int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefDoubleNoRotation(const double* left, const double* right,
                                                  uint32_t leftStride, uint32_t rightStride,
                                                  double lx, double ly, double rx, double ry,
                                                  int16_t width, int16_t height) KZDV_NOEXCEPT;

/* Each window at a sub-pixel position and turned by its own angle. */
EPHO_EXPORT double epho_CrossCoefByteBothResample(const uint8_t* left, const uint8_t* right,
                                                  uint32_t leftStride, uint32_t rightStride,
                                                  double leftAngle, double rightAngle, double lx,
                                                  double ly, double rx, double ry, int16_t width,
                                                  int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefDoubleBothResample(const double* left, const double* right,
                                                    uint32_t leftStride, uint32_t rightStride,
                                                    double leftAngle, double rightAngle, double lx,
                                                    double ly, double rx, double ry, int16_t width,
                                                    int16_t height) KZDV_NOEXCEPT;

/* Left window at whole pixels, not turned; right window sub-pixel, turned. */
EPHO_EXPORT double epho_CrossCoefByteRightResample(const uint8_t* left, const uint8_t* right,
                                                   uint32_t leftStride, uint32_t rightStride,
                                                   double angle, uint32_t lx, uint32_t ly,
                                                   double rx, double ry, int16_t width,
                                                   int16_t height) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefDoubleRightResample(const double* left, const double* right,
                                                     uint32_t leftStride, uint32_t rightStride,
                                                     double angle, uint32_t lx, uint32_t ly,
                                                     double rx, double ry, int16_t width,
                                                     int16_t height) KZDV_NOEXCEPT;

/* Left window at whole pixels; right window shifted by a sub-pixel amount.
 * NOTE the other pixel convention: here pixel centres are at whole numbers,
 * so rx = 10.0 reads pixel 10 and 10.5 averages pixels 10 and 11 (bilinear,
 * reads the column and row after the window). Window given by half sizes
 * (2*halfWidth+1 by 2*halfHeight+1, taken as signed 16-bit). The Byte member
 * rounds the right values half up and correlates whole numbers. */
EPHO_EXPORT double epho_CrossCoefByteShift(const uint8_t* left, const uint8_t* right,
                                           uint32_t leftStride, uint32_t rightStride, int32_t lx,
                                           int32_t ly, double rx, double ry, uint32_t halfWidth,
                                           uint32_t halfHeight) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_CrossCoefU32Shift(const uint32_t* left, const uint32_t* right,
                                          uint32_t leftStride, uint32_t rightStride, int32_t lx,
                                          int32_t ly, double rx, double ry, uint32_t halfWidth,
                                          uint32_t halfHeight) KZDV_NOEXCEPT;

/* Window sums over the 2*halfWidth+1 by 2*halfHeight+1 window centred on
 * (x, y). Half sizes whose signed value is negative give an empty window:
 * sums 0. *sum and *sumSquares are set to 0 first. */
EPHO_EXPORT void epho_getPixelSumSquareSumByte(const uint8_t* image, uint32_t stride, int32_t x,
                                               int32_t y, uint32_t halfWidth, uint32_t halfHeight,
                                               double* sum, double* sumSquares) KZDV_NOEXCEPT;
EPHO_EXPORT void epho_getPixelSumSquareSumU32(const uint32_t* image, uint32_t stride, int32_t x,
                                              int32_t y, uint32_t halfWidth, uint32_t halfHeight,
                                              double* sum, double* sumSquares) KZDV_NOEXCEPT;
/* Sum over i, j of A(x1+j, y1+i) * B(x2+j, y2+i), same window rule. */
EPHO_EXPORT double epho_getCrossSumByte(const uint8_t* first, uint32_t firstStride, int32_t x1,
                                        int32_t y1, const uint8_t* second, uint32_t secondStride,
                                        int32_t x2, int32_t y2, uint32_t halfWidth,
                                        uint32_t halfHeight) KZDV_NOEXCEPT;
EPHO_EXPORT double epho_getCrossSumU32(const uint32_t* first, uint32_t firstStride, int32_t x1,
                                       int32_t y1, const uint32_t* second, uint32_t secondStride,
                                       int32_t x2, int32_t y2, uint32_t halfWidth,
                                       uint32_t halfHeight) KZDV_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Least-squares correlation: refines one right-image position (column *rx,
 * row *ry, pixel centres at k + 0.5) of a left template by Gauss-Newton
 * iterations on an affine geometric and linear radiometric model (8
 * unknowns). Return code k, with M = maxIterations:
 *   k < 0   converged after -k iterations (never on the first): position updated;
 *   M + 1   iteration limit reached: position updated with the last shifts;
 *   2M      failure: a sample left the permitted area or the normal matrix
 *           was singular (position unchanged), or a total shift exceeded
 *           maxShift (position updated with the shifts reached);
 *   1       M < 1: nothing done.
 * Convergence: both shift corrections of an iteration below `convergence`
 * (pixels). A normal matrix is singular when a pivot of its factor is 0 or
 * below 1e-12 of its diagonal cell (e.g. a flat template): "Least Square
 * Matching with inversible matrix!". */

/* Template of (2*hw+1) x (2*hh+1) samples (full sizes made odd, as above)
 * resampled around (lx, ly), turned by leftAngle (radians), half-pixel
 * centres; the right window starts turned by rightAngle. The right buffer is
 * a search patch of twice the window: every sample's bilinear cell index must
 * stay within 1..4*hw (columns) and 1..4*hh (rows), so the patch must hold
 * columns 0..4*hw+2 and rows 0..4*hh+2. Reports in the common way. */
EPHO_EXPORT int16_t epho_OnePtLSCByte(const uint8_t* left, int32_t leftStride, double leftAngle,
                                      double lx, double ly, const uint8_t* right,
                                      int32_t rightStride, double rightAngle, double* rx,
                                      double* ry, int16_t width, int16_t height,
                                      int16_t maxIterations, float convergence, float maxShift,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT int16_t epho_OnePtLSCDouble(const double* left, int32_t leftStride, double leftAngle,
                                        double lx, double ly, const double* right,
                                        int32_t rightStride, double rightAngle, double* rx,
                                        double* ry, int16_t width, int16_t height,
                                        int16_t maxIterations, float convergence, float maxShift,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Template read in place at whole pixels around left pixel (lx, ly), not
 * turned; window 2*halfWidth+1 by 2*halfHeight+1. Template pixel lx lines up
 * with right position lx + 0.5 (half-pixel centres on the right side). The
 * right buffer is taken as a square patch of rightStride rows: cell indices
 * must stay within columns 1..rightStride-2 and rows 1..rightStride-3 (the
 * gradient samples reach one row below the 2x2 cell). No report: the code
 * alone tells the outcome. */
EPHO_EXPORT int16_t epho_OnePtLSCByteHalf(const uint8_t* left, int32_t leftStride, int32_t lx,
                                          int32_t ly, const uint8_t* right, int32_t rightStride,
                                          double* rx, double* ry, uint32_t halfWidth,
                                          uint32_t halfHeight, int16_t maxIterations,
                                          float convergence, float maxShift) KZDV_NOEXCEPT;
EPHO_EXPORT int16_t epho_OnePtLSCU32(const uint32_t* left, int32_t leftStride, int32_t lx,
                                     int32_t ly, const uint32_t* right, int32_t rightStride,
                                     double* rx, double* ry, uint32_t halfWidth,
                                     uint32_t halfHeight, int16_t maxIterations, float convergence,
                                     float maxShift) KZDV_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Gradient angle: the dominant gradient direction of a window, so that a
 * matcher can turn both windows to a common orientation before correlating
 * (e.g. epho_CrossCoef...BothResample with each window's angle).
 *
 * Angle in radians in (-pi, pi], measured from the +column axis toward the
 * +row axis, the turning sense of the resampling members: content turned by
 * t about the window centre has its angle increased by t. Computed from
 * central-difference gradients over the 2*halfWidth+1 by 2*halfHeight+1
 * window centred on pixel (x, y) (reads one pixel beyond it on every side),
 * weighted by magnitude and a Gaussian of half the window size, as the peak
 * of a smoothed 36-bin direction histogram refined by a parabola.
 * Returns 0, or 1 when the window has no gradient (flat; angle set to 0). */
EPHO_EXPORT int epho_GradiAngleByte(const uint8_t* image, uint32_t stride, int32_t x, int32_t y,
                                    uint32_t halfWidth, uint32_t halfHeight,
                                    double* angle_radians) KZDV_NOEXCEPT;
EPHO_EXPORT int epho_GradiAngleDouble(const double* image, uint32_t stride, int32_t x, int32_t y,
                                      uint32_t halfWidth, uint32_t halfHeight,
                                      double* angle_radians) KZDV_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Symmetry centre of a mark (fiducial cross, circle, ring) near pixel (x, y):
 * the window 2*halfWidth+1 by 2*halfHeight+1 is correlated with its column
 * mirror image about every vertical axis within searchRadius pixels of x, in
 * half-pixel steps, and with its row mirror image about every horizontal axis
 * near y; each axis is the peak of its coefficient, refined by a parabola,
 * and the windows are re-centred once on the first estimate.
 * Output in pixel index units with pixel k's centre at k (add 0.5 for the
 * half-pixel convention of the resampling members). Reads columns
 * x-searchRadius-halfWidth-2 .. x+searchRadius+halfWidth+2 and the same
 * margin of rows. *coefficient (may be null) receives the weaker of the two
 * mirror correlations at the centre (1 for a perfectly symmetric mark).
 * Returns 0; 1 when no axis peak lies inside the search range (flat or
 * asymmetric window; outputs then hold the best whole-step estimate);
 * 2 for a null pointer or a half size above 32767. */
EPHO_EXPORT int epho_FindSymmetryCenter(const uint32_t* image, uint32_t stride, int32_t x,
                                        int32_t y, uint32_t halfWidth, uint32_t halfHeight,
                                        uint32_t searchRadius, double* centre_x, double* centre_y,
                                        double* coefficient) KZDV_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Template search: the best whole-pixel NCC position of a left window inside
 * a range of right-window centres, with a sub-pixel peak.
 *
 * The left window is centred on (lx, ly) with half sizes halfWidth,
 * halfHeight (at most EPHO_NCC_SEARCH_MAX_HALF each); candidate right centres
 * are every (rx, ry) with rxMin <= rx <= rxMax, ryMin <= ry <= ryMax, so the
 * right buffer must hold columns rxMin-halfWidth .. rxMax+halfWidth and rows
 * ryMin-halfHeight .. ryMax+halfHeight. The coefficient reported at the best
 * position is exactly the value of the matching NoResample member there.
 * Work memory is the caller's: `scratch` of at least
 * epho_NccSearchScratchBytes(...) bytes, any alignment; nothing is allocated,
 * so one scratch block per thread makes the search thread-safe. */
#define EPHO_NCC_SEARCH_MAX_HALF 127

typedef struct Epho_NccPeak {
  int32_t column, row; /* best whole-pixel right centre */
  double coefficient;  /* NCC there, as epho_CrossCoef...NoResample returns it */
  /* Sub-pixel peak (whole-pixel convention: pixel centres at whole numbers,
   * as column/row): a parabola through the best value and its two neighbours
   * along each axis, the offset limited to +-0.5. Along an axis where the
   * best position lies on the border of the range the offset is 0 and the
   * flag below is set. */
  double subpixel_column, subpixel_row;
  int32_t on_border; /* bit 0: column range border, bit 1: row range border */
} Epho_NccPeak;

/* Result codes of the search. */
#define EPHO_NCC_SEARCH_OK 0
#define EPHO_NCC_SEARCH_BAD_ARGUMENT 1 /* empty range, half size too large, null pointer */
#define EPHO_NCC_SEARCH_SCRATCH 2      /* scratch missing or too small */
#define EPHO_NCC_SEARCH_FLAT 3         /* every coefficient is 0 (flat template or search area) */

/* Bytes of scratch the search needs for these window and range sizes
 * (0 when the arguments are out of range). The same size serves both pixel
 * types. */
EPHO_EXPORT size_t epho_NccSearchScratchBytes(uint32_t halfWidth, uint32_t halfHeight,
                                              uint32_t rangeColumns,
                                              uint32_t rangeRows) KZDV_NOEXCEPT;
EPHO_EXPORT int epho_NccSearchByte(const uint8_t* left, const uint8_t* right, uint32_t leftStride,
                                   uint32_t rightStride, uint32_t lx, uint32_t ly,
                                   uint32_t halfWidth, uint32_t halfHeight, uint32_t rxMin,
                                   uint32_t ryMin, uint32_t rxMax, uint32_t ryMax, void* scratch,
                                   size_t scratchBytes, Epho_NccPeak* peak) KZDV_NOEXCEPT;
EPHO_EXPORT int epho_NccSearchFloat(const float* left, const float* right, uint32_t leftStride,
                                    uint32_t rightStride, uint32_t lx, uint32_t ly,
                                    uint32_t halfWidth, uint32_t halfHeight, uint32_t rxMin,
                                    uint32_t ryMin, uint32_t rxMax, uint32_t ryMax, void* scratch,
                                    size_t scratchBytes, Epho_NccPeak* peak) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_MATCHING_H */
