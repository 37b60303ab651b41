/* Orientation from control: space resection of a frame camera, least-squares
 * intersection of rays, the 11-parameter DLT split into inner and outer
 * orientation, the 8-parameter planar projective fit and the 7-parameter 3D
 * similarity transform.
 *
 * Camera convention (the one of epho_Get3x4ParFromInnerOuter without an
 * inner affine and with photo direction 0): with R the rotation matrix of the
 * angle triple and (u, v, w) = R^T (P - C), film x = -f u / w, y = -f v / w,
 * film coordinates relative to the principal point, in the units of f.
 * Rotation systems use the camera numbering: 0 omega-phi-kappa, 1 phi+ omega
 * kappa, 2 phi- omega kappa. Arrays of points are packed: x0 y0 x1 y1 ... or
 * X0 Y0 Z0 X1 ...
 * Every function reports failure through the trailing report argument (null:
 * printed and freed) and returns EMSC_TRUE on success, EMSC_FALSE on failure;
 * on failure the outputs are left untouched. Thread-safe, no state. */
#ifndef EPHO_ORIENTATION_H
#define EPHO_ORIENTATION_H

#include <stdint.h>

#include "epho/base.h"

KZDV_BEGIN_C

/* Space resection of a frame camera by iterated least squares (Gauss-Newton
 * on the collinearity equations, all film residuals of equal weight).
 * In: `count` >= 3 film points `film_xy` and ground points `ground_xyz`,
 * focal length `focal`, the rotation system. `outer` (6 doubles: X0, Y0, Z0
 * and the angle triple in radians) holds the approximation on entry when
 * `use_approximation` is nonzero; otherwise it is computed: from a linear
 * 11-parameter DLT when 6 or more ground points are well spread in depth,
 * else from a projective fit to the best plane through the ground points
 * (needs 4 points, no three on a line). On success `outer` receives the solution;
 * `sigma` (6 doubles, may be null) the standard errors of its elements
 * (ground units, radians) and `sigma0` (may be null) the a-posteriori RMS of
 * unit weight in film units. With 3 points (no redundancy) both are 0.
 * Fails on too few points, ground points on a line, a singular normal matrix
 * or no convergence within 30 iterations. */
EPHO_EXPORT Emsc_Boolean epho_Resection(const double* film_xy, const double* ground_xyz,
                                        int32_t count, double focal, int32_t rotation_system,
                                        Emsc_Boolean use_approximation, double* outer,
                                        double* sigma, double* sigma0,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Least-squares intersection of `count` >= 2 rays (origins `origins_xyz`,
 * directions `directions_xyz`, need not be unit length): the point (out, 3
 * doubles) with the least sum of squared perpendicular distances.
 * `rms_distance` (may be null) receives the RMS perpendicular distance of the
 * point from the rays, in ground units. Fails on a zero direction and on
 * (nearly) parallel rays, whose intersection is undetermined. */
EPHO_EXPORT Emsc_Boolean epho_GetIntersectionWithPointRays(const double* origins_xyz,
                                                           const double* directions_xyz,
                                                           int32_t count, double* point_xyz,
                                                           double* rms_distance,
                                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Inner and outer orientation of the 11-parameter DLT
 *   x = (L0 X + L1 Y + L2 Z + L3) / (L8 X + L9 Y + L10 Z + 1),
 *   y = (L4 X + L5 Y + L6 Z + L7) / (L8 X + L9 Y + L10 Z + 1)
 * (x, y in the film or pixel frame the DLT was fitted in). `interior` (out,
 * 5 doubles): focal length f (x scale), principal point x0, y0, aspect
 * (y scale / x scale) and skew (shear term / x scale), so that
 * x - x0 = -f (u + skew v) / w, y - y0 = -f aspect v / w in the camera
 * convention above. `outer` (out, 6 doubles) in the rotation system given.
 * Fails when the left 3x3 block of the DLT is singular or not finite. */
EPHO_EXPORT Emsc_Boolean epho_DLT2Camera(const double* dlt, int32_t rotation_system,
                                         double* interior, double* outer,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Planar projective transform from `count` >= 4 point pairs, least squares
 * (normalised linear fit):
 *   X = (h0 + h1 x + h2 y) / (1 + h6 x + h7 y),
 *   Y = (h3 + h4 x + h5 y) / (1 + h6 x + h7 y),
 * from `from_xy` (x, y) to `to_xy` (X, Y); `coeffs` (out) h0..h7.
 * `rms` (may be null) receives the RMS distance of the fitted points from
 * `to_xy`. Fails on fewer than 4 points, on three of four points on a line
 * (or all on one line), and when the fit has a vanishing constant term. */
EPHO_EXPORT Emsc_Boolean epho_DeriveDLT2D(const double* from_xy, const double* to_xy, int32_t count,
                                          double* coeffs, double* rms,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Applies the coefficients of epho_DeriveDLT2D. Numeric kernel: returns
 * nonzero (outputs untouched) when the denominator is exactly 0. */
EPHO_EXPORT Emsc_Boolean epho_ApplyDLT2D(const double* coeffs, double x, double y, double* X,
                                         double* Y) KZDV_NOEXCEPT;

/* 7-parameter 3D similarity to = s R from + t from `count` >= 3 point pairs
 * (closed-form least squares). `scale` (out), `rotation` (out, 9 doubles
 * row-major, a proper rotation), `translation` (out, 3 doubles), `rms` (may
 * be null) the RMS 3D residual in `to` units. Fails on fewer than 3 points
 * and on points on a line (rotation about it undetermined). */
EPHO_EXPORT Emsc_Boolean epho_Solve3DLinearTrans(const double* from_xyz, const double* to_xyz,
                                                 int32_t count, double* scale, double* rotation,
                                                 double* translation, double* rms,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_ORIENTATION_H */
