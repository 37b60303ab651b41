/* Automatic tie points between two overlapping frame photographs.
 *
 * Candidates lie on a regular grid of the left photograph. Each is taken to
 * the ground through the left camera (heights from its DEM or a constant),
 * predicted into the right photograph through the right camera, and searched
 * by NCC in a window around the prediction that is narrowed to the epipolar
 * line of the candidate (epho_AutoEpipoLine over the height range); the match
 * is refined by least-squares correlation. A candidate is kept when its NCC
 * coefficient reaches the minimum, its peak is inside the search window, it
 * lies within the tolerance of the epipolar line, and (with LSC) the
 * least-squares refinement converged.
 *
 * Positions are file pixels with pixel k's centre at k + 0.5 (the camera
 * transforms' convention). Images are 8-bit, row-major, caller-owned; a
 * stride is the row length in pixels.
 *
 * The call reads the two transform objects and works on private prepared
 * copies, so prepared or unprepared objects may be shared by calls running in
 * several threads at once. No thread is started, nothing global is kept, and
 * the result depends only on the arguments. */
#ifndef EPHO_AUTOTIE_H
#define EPHO_AUTOTIE_H

#include <stdint.h>

#include "epho/base.h"
#include "epho/camera.h"

/* An 8-bit image held by the caller. */
typedef struct Epho_ImageViewByte {
  const uint8_t* pixels; /* pixel (column c, row r) at pixels[r * stride + c] */
  uint32_t width, height;
  uint32_t stride; /* pixels, >= width */
} Epho_ImageViewByte;

/* `height_source` */
#define EPHO_AUTOTIE_HEIGHT_TRANSFORM 0 /* the left camera's own: its DEM or z_mean */
#define EPHO_AUTOTIE_HEIGHT_CONSTANT 1  /* `height` below for every candidate */

typedef struct Epho_AutoTieParams {
  uint32_t grid_spacing;  /* pixels between candidates (>= 1) */
  uint32_t template_half; /* correlation window 2*half+1 square (1..EPHO_NCC_SEARCH_MAX_HALF) */
  uint32_t search_radius; /* pixels around the prediction searched (>= 1) */
  double min_coefficient; /* NCC a match must reach (-1..1) */
  /* Largest distance (pixels) of a match from the epipolar line; the search
   * window is also cut to the band this wide around the line. */
  double epipolar_tolerance;
  /* Height range of the epipolar line; zmin >= zmax: the left DEM's minimum
   * to maximum, or z_mean +-100 m without a DEM (`height` +-100 m with
   * EPHO_AUTOTIE_HEIGHT_CONSTANT). Matches beyond the range are not found:
   * the search window is cut to the line's extent. */
  double zmin, zmax;
  int32_t height_source; /* EPHO_AUTOTIE_HEIGHT_... */
  double height;         /* metres, with EPHO_AUTOTIE_HEIGHT_CONSTANT */
  int32_t use_lsc;       /* nonzero: refine by least-squares correlation */
  int16_t lsc_max_iterations;
  float lsc_convergence; /* pixels */
  float lsc_max_shift;   /* pixels the refinement may move away from the NCC peak */
} Epho_AutoTieParams;

/* One measured pair. `candidate` numbers the left grid: row-major over the
 * grid, candidate k at left pixel (first + (k % columns) * spacing, first +
 * (k / columns) * spacing) with first = template_half + 1 and columns from
 * epho_AutoTieGridSize, so two calls with the same left photograph, grid and
 * template give the same number to the same left pixel (that is how
 * measurements of one ground point in several right photographs are linked). */
typedef struct Epho_AutoTiePoint {
  int32_t candidate;
  double left_x, left_y;    /* the candidate's pixel centre */
  double right_x, right_y;  /* the match */
  double coefficient;       /* NCC at the whole-pixel peak */
  double epipolar_distance; /* pixels from the epipolar line */
  int32_t lsc_iterations;   /* iterations to convergence; 0 without LSC */
} Epho_AutoTiePoint;

/* What became of the candidates (all counts). */
typedef struct Epho_AutoTieStats {
  int32_t candidates;   /* grid points tried */
  int32_t outside;      /* no prediction, or the search window leaves the right image */
  int32_t weak;         /* coefficient below the minimum, flat, or peak on the window border */
  int32_t off_epipolar; /* farther than the tolerance from the epipolar line */
  int32_t lsc_failed;   /* the refinement did not converge */
  int32_t accepted;
} Epho_AutoTieStats;

KZDV_BEGIN_C

/* Defaults: spacing 64, window 21 x 21 (half 10), radius 24 px, coefficient
 * 0.8, tolerance 2 px, the DEM's height range, heights from the transform,
 * LSC on with 10 iterations, convergence 0.002 px, shift 2 px. */
EPHO_EXPORT void epho_AutoTieParamsDefault(Epho_AutoTieParams* params) KZDV_NOEXCEPT;

/* Columns and rows of the candidate grid of a left image; their product is
 * the most points a call can return (a safe capacity). 0 for an image too
 * small for one window or a spacing of 0. */
EPHO_EXPORT int32_t epho_AutoTieGridSize(uint32_t width, uint32_t height, uint32_t grid_spacing,
                                         uint32_t template_half, int32_t* columns,
                                         int32_t* rows) KZDV_NOEXCEPT;

/* Measures tie points between `leftImage` (seen through `left`) and
 * `rightImage` (through `right`). Accepted points go to `points` in
 * candidate order, `*count` their number; `stats` (may be null) receives the
 * tally. False with a report for bad arguments or a camera that cannot be
 * prepared, and when more points are accepted than `capacity` (then the
 * first `capacity` are written and *count says so). A candidate whose ground
 * point or prediction does not exist (off the DEM, behind the camera) is
 * simply counted as outside. */
EPHO_EXPORT Emsc_Boolean
epho_AutoTiePair(const Epho_CameraXform* left, const Epho_ImageViewByte* leftImage,
                 const Epho_CameraXform* right, const Epho_ImageViewByte* rightImage,
                 const Epho_AutoTieParams* params, Epho_AutoTiePoint* points, int32_t capacity,
                 int32_t* count, Epho_AutoTieStats* stats, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_AUTOTIE_H */
