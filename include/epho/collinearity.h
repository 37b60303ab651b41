/* Collinearity through a 3x4 projection matrix, lens distortion, and the
 * refraction / earth-curvature correction of a vertical frame photograph.
 *
 * Projection matrix: 12 doubles, three rows of four; row i evaluates to
 * m[4i] + m[4i+1]*X + m[4i+2]*Y + m[4i+3]*Z. Row 0 is the common denominator,
 * rows 1 and 2 the numerators of film x and y (built by
 * epho_Get3x4ParFromInnerOuter). Film coordinates are relative to the
 * principal point, in the units of the focal length.
 * All functions are numeric kernels: no report, no allocation, thread-safe;
 * a status result is EMSC_FALSE on success and nonzero on failure. */
#ifndef EPHO_COLLINEARITY_H
#define EPHO_COLLINEARITY_H

#include <stdint.h>

#include "epho/base.h"

KZDV_BEGIN_C

/* A counted vector of doubles (the camera record's lens-distortion and
 * additional-parameter vectors). Unless a model says otherwise p[0] is the
 * model code (rounded to the nearest whole number) and p[1] a model scale. */
typedef struct Epho_CountedDoubles {
  int32_t count;
  double* data;
} Epho_CountedDoubles;

/* Ground (X, Y, Z) to film (x, y). Nonzero, outputs untouched, when the
 * denominator row is exactly 0. */
EPHO_EXPORT Emsc_Boolean epho_CameraObjectToImage(const double* matrix, double X, double Y,
                                                  double Z, double* x, double* y) KZDV_NOEXCEPT;
/* Film (x, y) and a known height to the two other ground coordinates.
 * mode != 1: `height` is Z, outputs X, Y. mode 1: `height` is -Y (the object
 * Y axis points down), outputs X, Z. Nonzero, outputs untouched, when the
 * 2x2 determinant is exactly 0 (ray parallel to the height plane). */
EPHO_EXPORT Emsc_Boolean epho_CameraImageAndZToXY(const double* matrix, int32_t mode, double x,
                                                  double y, double height, double* first,
                                                  double* second) KZDV_NOEXCEPT;
/* Mean height of two ground points minus `offset`: the Y components when
 * mode is 1, the Z components otherwise. */
EPHO_EXPORT double epho_GetAverageGroundZ(const double* point_a, const double* point_b,
                                          double offset, int32_t mode) KZDV_NOEXCEPT;

/* Lens distortion (dx, dy) at film (x, y), film units. `primary` (lens
 * distortion) models by (count, code): (3, any) radial p0+p1 r^2+p2 r^4;
 * (5, 0) radial p1..p3; (26, 1), (11, 2), (13, 3) the extended models (p1
 * must be nonzero). `secondary` (additional parameters), codes 1..7, replaces
 * the primary result entirely. Null records, unknown models, a zero scale
 * and a secondary record shorter than its model needs give zero distortion
 * (guards against reading past the record); a secondary count below 1 means
 * no secondary record, and a p0 that is NaN or beyond the int range names no
 * model. */
EPHO_EXPORT void epho_CameraAwayDistortion(const Epho_CountedDoubles* primary,
                                           const Epho_CountedDoubles* secondary, double x, double y,
                                           double* dx, double* dy) KZDV_NOEXCEPT;
/* Distortion at the distorted position of (x, y) by fixed-point iteration
 * (at most 11 evaluations, 0.0001 film-unit tolerance; a first distortion
 * below 0.001 in both axes is returned as it is); (0, 0) when mode is not 1
 * or when the changes grow beyond `divergence_bound` or the previous change. (x + dx, y + dy) is
 * then where the lens puts the ideal point (x, y), and one epho_CameraAwayDistortion step there
 * brings it back. */
EPHO_EXPORT void epho_CameraAwayDistortionIterative(const Epho_CountedDoubles* primary,
                                                    const Epho_CountedDoubles* secondary, double x,
                                                    double y, double* dx, double* dy,
                                                    double divergence_bound,
                                                    int32_t mode) KZDV_NOEXCEPT;
/* Radial correction of film (x, y) in place for atmospheric refraction and
 * earth curvature of a vertical photograph: flying height and ground height
 * in meters, focal length in film units. kind 2 refraction, 3 curvature,
 * 4 both; other kinds and points within r^2 <= 0.001 are left unchanged.
 * direction 1 removes the displacement, any other value applies it. */
EPHO_EXPORT void epho_CameraAwayCorrection(int32_t kind, double flying_height, double ground_height,
                                           double focal, double* x, double* y,
                                           int32_t direction) KZDV_NOEXCEPT;

/* Inner orientation (null, or an affine of six doubles a0..a5 used as the
 * first two rows of the inner block), outer orientation (perspective centre
 * X0, Y0, Z0 then the angle triple in radians), focal length, the camera's
 * rotation system (0 omega-phi-kappa, 1 phi+ omega kappa, 2 or other
 * phi- omega kappa) and photo direction (1: object Y and Z axes exchanged,
 * Y pointing down) to the projection matrix (12 doubles, out). Nonzero when
 * the inner block is singular (e.g. focal length 0); the matrix is then
 * unusable. */
EPHO_EXPORT Emsc_Boolean epho_Get3x4ParFromInnerOuter(const double* inner, const double* outer,
                                                      double focal, int32_t rotation_system,
                                                      int32_t photo_direction,
                                                      double* matrix) KZDV_NOEXCEPT;

/* Direction (out, 3 doubles, not normalised) in ground space of the ray
 * through film (x, y) of the projection matrix, oriented towards the scene
 * (the denominator row grows along it). Nonzero when the matrix gives no ray. */
EPHO_EXPORT Emsc_Boolean epho_CameraImageToRay(const double* matrix, double x, double y,
                                               double* direction) KZDV_NOEXCEPT;

/* ---- Batch collinearity: arrays of points in one pass ------------------
 *
 * The orientation and the lens records of one frame camera, as the batch
 * functions apply them to every point:
 *   ground to film:  film = collinearity(ground); if correction_kind > 1
 *                    epho_CameraAwayCorrection(kind, flying_height, Z, focal,
 *                    direction 0); if a lens record is given, film += the
 *                    epho_CameraAwayDistortion at film;
 *   film to ground:  if a lens record is given, film -= the distortion at the
 *                    film point (one step, not iterated); if correction_kind
 *                    > 1 the correction with direction 1 at the given height;
 *                    then epho_CameraImageAndZToXY(matrix, mode, ...).
 * Each point's result equals, bit for bit, the per-point functions called in
 * that order: the batch uses the same operations in the same order (the
 * library is built without fused multiply-adds), so vector lanes cannot
 * change a result. The collinearity, the intersection and the lens models
 * radial (count 3, and count 5 with code 0) and decentring (count 11, code 2)
 * run on vector lanes (four with AVX2, two otherwise); the correction and the
 * other models are evaluated point by point after the collinearity. Nothing
 * is allocated; the arrays must not overlap the outputs. */
typedef struct Epho_FilmProjection {
  const double* matrix;                  /* 12 doubles, see epho_Get3x4ParFromInnerOuter */
  const Epho_CountedDoubles* lens;       /* lens distortion, may be null */
  const Epho_CountedDoubles* additional; /* additional parameters, may be null */
  int32_t mode;            /* as epho_CameraImageAndZToXY: 1 = height is -Y (outputs X, Z) */
  int32_t correction_kind; /* 2 refraction, 3 curvature, 4 both; 0 or 1 none */
  double flying_height;    /* meters, for the correction */
  double focal;            /* film units, for the correction */
} Epho_FilmProjection;

/* Ground points (X[i], Y[i], Z[i]) to film (x[i], y[i]), i < count. A point
 * whose denominator is exactly 0 gets NaN film coordinates and failed[i] = 1
 * (failed may be null; it is set to 0 for the others). Returns the number of
 * such points, or -1 (nothing written) for a null projection, matrix or
 * array, or a negative count. */
EPHO_EXPORT int32_t epho_CameraObjectToImageBatch(const Epho_FilmProjection* projection,
                                                  int32_t count, const double* X, const double* Y,
                                                  const double* Z, double* x, double* y,
                                                  uint8_t* failed) KZDV_NOEXCEPT;
/* Film points (x[i], y[i]) at heights height[i] to the two other ground
 * coordinates (first[i], second[i]): X, Y, or X, Z when mode is 1. A point
 * whose 2x2 determinant is exactly 0 gets NaN outputs and failed[i] = 1.
 * Returns the number of such points, or -1 as above. */
EPHO_EXPORT int32_t epho_CameraImageAndZToXYBatch(const Epho_FilmProjection* projection,
                                                  int32_t count, const double* x, const double* y,
                                                  const double* height, double* first,
                                                  double* second, uint8_t* failed) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_COLLINEARITY_H */
