/* Reprojection of photogrammetric data between coordinate systems: 2D
 * polynomial transforms (inverse and composition), map-to-DEM transforms, and
 * exterior orientation carried from one map system to another.
 *
 * Polynomials use the toolkit's term order (exfr.h): for order n the
 * EXFR_POLY_TERM_COUNT(n) terms 1, x, y, x², xy, y², x³, ... with
 * x' = sum xcoef[k]·term_k(x, y), y' likewise; orders 1 (affine) to 5.
 * Coefficients are in the caller's raw coordinates; far from the origin high
 * orders lose digits, which the measured residuals show.
 *
 * Every function here fails with a report (never a crash, never a partial
 * result: outputs are written only on success) on null arguments, orders out
 * of 1..5, non-finite coefficients or boxes, singular fits and unknown
 * datums. All are thread-safe on distinct outputs. */
#ifndef EPHO_REPROJECTION_H
#define EPHO_REPROJECTION_H

#include <stdint.h>

#include "epho/base.h"
#include "eprj.h"
#include "exfr.h"

/* Residual of a fitted transform, measured on check points: max and RMS of
 * the distance between the fitted and the rigorous result, in the units of
 * the fitted transform's output. `samples` is the number of check points (0
 * when nothing was measured, e.g. an exact composition without a domain). */
typedef struct Epho_FitResidual {
  double maxError;
  double rmsError;
  long samples;
} Epho_FitResidual;

/* Grid density used when the caller passes grid <= 0: 21 x 21 nodes. */
#define EPHO_POLY_DEFAULT_GRID 21

KZDV_BEGIN_C

/* ---- polynomial transforms ------------------------------------------------ */

/* The inverse of the polynomial (order, xcoef, ycoef) over `domain` (xmin,
 * ymin, xmax, ymax of its input, xmin < xmax, ymin < ymax), as a polynomial of
 * `inverseOrder` (1..5; 0 means `order`) written to inverseXcoef/inverseYcoef
 * (EXFR_POLY_TERM_COUNT(inverseOrder) each).
 *
 * The domain is sampled by a grid of grid x grid nodes (grid <= 0: 21;
 * 2..500 and enough nodes for the terms); the forward transform maps them,
 * and the inverse is fitted by least squares from the mapped nodes back to the
 * nodes, in coordinates centred on the mapped nodes' bounding box and scaled
 * by its half extent (so the normal equations stay conditioned whatever the
 * units), then expanded to raw coordinates. An affine is inverted exactly.
 * `residual` (may be null) is measured at the nodes and at the centres of the
 * grid cells: |inverse(forward(p)) - p| in input units.
 * Fails when the forward transform folds or degenerates over the domain (its
 * Jacobian determinant vanishes or changes sign at a node: no inverse exists)
 * or the fit is singular. */
EPHO_EXPORT Emsc_Boolean epho_PolyCoefficientsInvert(long order, const double* xcoef,
                                                     const double* ycoef, const double domain[4],
                                                     long grid, long inverseOrder,
                                                     double* inverseXcoef, double* inverseYcoef,
                                                     Epho_FitResidual* residual,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* The composition second(first(p)) of two polynomials. When
 * firstOrder·secondOrder <= maxOrder (1..5) the result is exact, by
 * substituting the first into the second, of order firstOrder·secondOrder;
 * otherwise it is fitted, of order maxOrder, by least squares on a grid x grid
 * grid over `domain` (the first transform's input box, as in
 * epho_PolyCoefficientsInvert) with the same normalisation. *mergedOrder gets
 * the order; mergedX/mergedY need room for EXFR_POLY_TERM_COUNT(maxOrder)
 * each. `domain` may be null for an exact composition (the residual then has
 * no samples); a fit needs it. `residual` (may be null) is measured at the
 * grid nodes and cell centres against the rigorous composition, in the second
 * transform's output units. */
EPHO_EXPORT Emsc_Boolean epho_MergePolynomials(long firstOrder, const double* firstX,
                                               const double* firstY, long secondOrder,
                                               const double* secondX, const double* secondY,
                                               long maxOrder, const double domain[4], long grid,
                                               long* mergedOrder, double* mergedX, double* mergedY,
                                               Epho_FitResidual* residual,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- map to DEM ----------------------------------------------------------- */

/* Where a DEM lies: its projection (null: the same system as the map
 * coordinates), GDAL's geotransform (map x = g0 + col·g1 + row·g2, map y =
 * g3 + col·g4 + row·g5 at a cell's upper-left corner) and its size in cells. */
typedef struct Epho_DemGeoreference {
  const Eprj_ProParameters* projection;
  double geoTransform[6];
  long width;
  long height;
} Epho_DemGeoreference;

/* How epho_MapToDemXFormCreate builds the transform. */
#define EPHO_MAP_TO_DEM_EXACT 0      /* through PROJ at every point */
#define EPHO_MAP_TO_DEM_POLYNOMIAL 1 /* a fitted polynomial where it is good enough */

/* Defaults of the "rasterprocess" preferences that steer the polynomial. */
#define EPHO_REPROJ_DEFAULT_MAX_ORDER 3   /* "rp_reprojmaxorder", 1..5 */
#define EPHO_REPROJ_DEFAULT_TOLERANCE 0.1 /* "rp_reprojtolerance", DEM pixels, > 0 */
#define EPHO_REPROJ_DEFAULT_SKIP 32.0     /* "rp_reprojskipx", "rp_reprojskipy", pixels, >= 1 */
#define EPHO_REPROJ_MAX_SAMPLES 1048576L  /* the most samples one fit takes */

/* The transform from map coordinates (x, y) of `mapProjection` (null: the
 * DEM's own system) to file pixels (column, row; (0, 0) the upper-left corner
 * of the upper-left cell) of a DEM, given by its file (`demFileName`, its
 * layer "Layer_1" read through GDAL) or, when that is null, by `dem`.
 *
 * EPHO_MAP_TO_DEM_EXACT: map to longitude/latitude to DEM map through PROJ
 * (epho_DeriveMapToLayerXformEx), then the DEM's affine. An affine when both
 * systems are the same.
 * EPHO_MAP_TO_DEM_POLYNOMIAL: the DEM is sampled every "rp_reprojskipx" by
 * "rp_reprojskipy" pixels (its far edges included), the samples are taken to
 * the map system rigorously, and polynomials of order 1, 2, ... up to
 * "rp_reprojmaxorder" are fitted from map to pixels until the largest error
 * at the samples is within "rp_reprojtolerance" pixels; the preferences are
 * those of the category "rasterprocess", with the defaults above. The
 * polynomial runs on centred and scaled map coordinates, so a fitted
 * transform of order 2 or more is a chain (a normalising affine, then the
 * polynomial) and exfr_XFormPolynomialOrder gives 0 for it; an affine fit is
 * a plain affine. When no order meets the tolerance, or the systems are the
 * same, the exact transform is returned.
 *
 * `fit` (may be null) gets the polynomial order returned (0 for the exact
 * transform through PROJ, 1 for an affine of identical systems) and the
 * error at the samples in pixels (0 with 0 samples when exact). More than
 * EPHO_REPROJ_MAX_SAMPLES samples (a small skip on a large DEM) is refused. */
EPHO_EXPORT Exfr_XForm* epho_MapToDemXFormCreate(const Eprj_MapProjection* mapProjection,
                                                 const Etxt_Char* demFileName,
                                                 const Epho_DemGeoreference* dem, int32_t method,
                                                 long* fitOrder, Epho_FitResidual* fit,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- exterior orientation between systems ----------------------------------- */

/* Kinds of Epho_ExteriorSystem. */
#define EPHO_EXTERIOR_MAP 0           /* projected map coordinates and heights */
#define EPHO_EXTERIOR_TANGENT_PLANE 1 /* local east-north-up Cartesian frame */

/* A ground system of exterior orientation. Map: x, y of `projection` (metres;
 * geographic systems are refused: they have no Cartesian frame), z the height
 * that `heights` describes: null (or a datum that is not vertical) means
 * metres above the projection's spheroid; "EGM96" or "EGM2008" means heights
 * above that geoid (see eprj_3DProjectionCreate, which also reads the unit).
 * Tangent plane: x east, y north, z up from the point (lat0, lon0 in radians,
 * h0 metres above the spheroid) of the spheroid and datum of `projection`
 * (whose map kind does not matter); its z is Cartesian, so `heights` must be
 * null. Initialisers that stop before `heights` leave it null. */
typedef struct Epho_ExteriorSystem {
  int32_t kind;
  const Eprj_MapProjection* projection;
  double lat0;
  double lon0;
  double h0;
  const Eprj_ElevationInfo* heights;
} Epho_ExteriorSystem;

/* Carries an exterior orientation (perspective centre X, Y, Z then the three
 * angles in radians of the camera's `rotationSystem`: EPHO_OMEGA_PHI_KAPPA,
 * EPHO_PHIPLUS_OMEGA_KAPPA or EPHO_PHIMINUS_OMEGA_KAPPA of camera.h, the
 * rotation taking camera axes to ground axes of a Z-direction photograph)
 * from system `from` to system `to`: the centre rigorously through the
 * toolkit's 3D reprojection (eprj_3DProjectionCreate: each datum's shift to
 * WGS 84, geoid heights through their geoid model), the rotation by the local
 * rotation between the two ground frames at the centre: the nearest rotation
 * to the Jacobian of the point mapping there (central differences of 100 m),
 * which removes the meridian convergence and the tilt of the local vertical
 * (earth curvature). The frames are the ellipsoidal ones: geoid heights move
 * the centre by the undulation but leave the rotation as it is (the geoid's
 * slope is a deflection of the plumb line, not a turn of the map frame).
 * Between tangent planes this is exact; a map projection is not conformal in
 * 3D (horizontal scale k, vertical 1), so image positions of the same ground
 * point differ by about f·|k - 1|·tan(off-nadir angle) plus the curvature
 * drop d²/2R seen at distance d. Writes exteriorOut (may be exteriorIn) only
 * on success; fails on a geographic map system, points outside a
 * projection's domain or a grid's extent, datums with no known shift to WGS
 * 84 ("Unknown datum"), polynomial regression shifts, a grid or geoid model
 * that is not installed (the report names the grid file), and a mapping that
 * reverses handedness. */
EPHO_EXPORT Emsc_Boolean epho_ReprojectExteriorPars(
    const Epho_ExteriorSystem* from, const Epho_ExteriorSystem* to, int32_t rotationSystem,
    const double exteriorIn[6], double exteriorOut[6], Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_REPROJECTION_H */
