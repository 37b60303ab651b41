/* Sensor models besides the frame camera: the rational-function model (RPC),
 * the 3D polynomial model and the scanner model, each usable on its own and
 * as an exfr sensor-model transform (exfr_GroundToImage,
 * exfr_ImageToGroundRay, exfr_ImageAndGroundZToGroundXY, exfr_Transform).
 *
 * Image coordinates are (column, row) in pixels of the image file, origin at
 * the upper-left corner of the upper-left pixel (so the centre of the first
 * pixel is (0.5, 0.5)), as GDAL counts them. Points are passed interleaved:
 * ground (x, y, z) triples, image (x, y) pairs.
 *
 * Every function fails with a report (never a crash) on a bad argument; batch
 * functions leave their outputs unspecified when they fail. Models are
 * immutable after creation: one model may be used from several threads at
 * once. */
#ifndef EPHO_SENSORS_H
#define EPHO_SENSORS_H

#include "eerr.h"
#include "emsc.h"
#include "epho/base.h"
#include "exfr.h"

/* ==== Rational-function model ====
 *
 * Ground coordinates are longitude and latitude in degrees (east and north
 * positive) and ellipsoidal height in metres, as rational functions define
 * them; image coordinates as above. The model is the usual one with 20-term
 * cubic numerators and denominators in normalised coordinates
 *   P = (lat - LAT_OFF) / LAT_SCALE, L = (lon - LONG_OFF) / LONG_SCALE,
 *   H = (h - HEIGHT_OFF) / HEIGHT_SCALE,
 *   line   = LINE_NUM(P, L, H) / LINE_DEN(P, L, H) * LINE_SCALE + LINE_OFF,
 *   sample = SAMP_NUM(P, L, H) / SAMP_DEN(P, L, H) * SAMP_SCALE + SAMP_OFF,
 * with terms in the order 1, L, P, H, LP, LH, PH, L², P², H², PLH, L³, LP²,
 * LH², L²P, P³, PH², L²H, P²H, H³. Line and sample count from the centre of
 * the first pixel, so image x = sample + 0.5 and image y = line + 0.5.
 *
 * The 90 numbers of a model, in this order (the macros give the indices): */
#define EPHO_RPC_LINE_OFF 0
#define EPHO_RPC_SAMP_OFF 1
#define EPHO_RPC_LAT_OFF 2
#define EPHO_RPC_LONG_OFF 3
#define EPHO_RPC_HEIGHT_OFF 4
#define EPHO_RPC_LINE_SCALE 5
#define EPHO_RPC_SAMP_SCALE 6
#define EPHO_RPC_LAT_SCALE 7
#define EPHO_RPC_LONG_SCALE 8
#define EPHO_RPC_HEIGHT_SCALE 9
#define EPHO_RPC_LINE_NUM 10 /* 20 coefficients */
#define EPHO_RPC_LINE_DEN 30 /* 20 coefficients */
#define EPHO_RPC_SAMP_NUM 50 /* 20 coefficients */
#define EPHO_RPC_SAMP_DEN 70 /* 20 coefficients */
#define EPHO_RPC_NUMBER_COUNT 90

typedef struct Epho_RpcModel Epho_RpcModel;

/* The routines through which every RPC evaluation runs, looked up when first
 * used. `rpc` holds the 90 numbers above. groundToImage maps `count` ground
 * triples to image pairs; imageToGround maps `count` image pairs at the given
 * ellipsoidal heights to (lon, lat) pairs. Both return EMSC_FALSE with a
 * report on failure (a point that does not project, no convergence). */
typedef struct Epho_RpcEntryPoints {
  Emsc_Boolean (*groundToImage)(const double* rpc, long count, const double* ground_xyz,
                                double* image_xy, Eerr_ErrorReport** err);
  Emsc_Boolean (*imageToGround)(const double* rpc, long count, const double* image_xy,
                                const double* ground_z, double* ground_xy, Eerr_ErrorReport** err);
} Epho_RpcEntryPoints;

/* Limits of the built-in image-to-ground: Newton on the forward functions
 * (normalised coordinates, from the model's centre) stops when both image
 * residuals are below EPHO_RPC_INVERSE_TOLERANCE_PX pixels and fails after
 * EPHO_RPC_INVERSE_MAX_ITERATIONS steps. On the surface the height is iterated
 * until it changes by less than EPHO_RPC_HEIGHT_TOLERANCE_M metres, failing
 * after EPHO_RPC_HEIGHT_MAX_ITERATIONS steps. */
#define EPHO_RPC_INVERSE_TOLERANCE_PX 1e-9
#define EPHO_RPC_INVERSE_MAX_ITERATIONS 30
#define EPHO_RPC_HEIGHT_TOLERANCE_M 1e-3
#define EPHO_RPC_HEIGHT_MAX_ITERATIONS 50

KZDV_BEGIN_C

/* ---- Run-time binding. */

/* The library's own routines. */
EPHO_EXPORT const Epho_RpcEntryPoints* epho_RpcBuiltinEntryPoints(void) KZDV_NOEXCEPT;
/* The table in use: bound on first use to the built-in one unless an
 * application set its own before. Never null. */
EPHO_EXPORT const Epho_RpcEntryPoints* epho_RpcEntryPointsGet(void) KZDV_NOEXCEPT;
/* Plugs in an application's routines (null: back to the built-in ones). Both
 * routines are required. The table is not copied: it must stay valid while
 * any model may use it (a static table). Safe to call while other threads
 * evaluate: each evaluation uses the table in force when it started. */
EPHO_EXPORT Emsc_Boolean epho_RpcEntryPointsSet(const Epho_RpcEntryPoints* table,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- Models. */

/* A model from its 90 numbers (copied). Fails on a non-finite number, a zero
 * scale or a zero constant term of a denominator. Heights for
 * epho_RpcImageToGroundOnSurface: constant HEIGHT_OFF until set. */
EPHO_EXPORT Epho_RpcModel* epho_RpcModelCreate(const double* numbers,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The RPC metadata of an image through GDAL: TIFF tags, an .RPB or a
 * _RPC.TXT file beside the image all come through here. Fails when the image
 * does not open or carries no complete RPC set. */
EPHO_EXPORT Epho_RpcModel* epho_RpcModelRead(const Etxt_Char* image_file,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT Epho_RpcModel* epho_RpcModelCopy(const Epho_RpcModel* model,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
EPHO_EXPORT void epho_RpcModelFree(Epho_RpcModel* model) KZDV_NOEXCEPT;
/* Copies the 90 numbers into `numbers`. */
EPHO_EXPORT Emsc_Boolean epho_RpcModelNumbersGet(const Epho_RpcModel* model, double* numbers,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Where heights come from when a point is taken to the surface: the first
 * layer of `dem_file` (read whole into memory and interpolated bilinearly
 * between cell centres), or `constant_height` (ellipsoidal metres) when
 * `dem_file` is null. The DEM may be in any coordinate system the toolkit
 * relates to WGS 84 (eprj_3DProjectionCreate: geographic or projected, any
 * datum with a known shift); its heights are those of its elevation info
 * (eprj_ElevationInfoRead): ellipsoidal, or above the EGM96 or EGM2008 geoid
 * when its coordinate system has that vertical part, in the band's unit.
 * Each ground point is carried into the DEM's system, the DEM read there and
 * the height carried back to a WGS 84 ellipsoidal height. Fails, leaving the
 * source in force, on a DEM with no coordinate system, a system or vertical
 * datum that cannot be related to WGS 84, or a geoid grid that is not
 * installed (named in the report). Safe while other threads evaluate the
 * model: the source is swapped whole, and each call uses the source in force
 * when it started. */
EPHO_EXPORT Emsc_Boolean epho_RpcModelHeightSourceSet(Epho_RpcModel* model,
                                                      const Etxt_Char* dem_file,
                                                      double constant_height,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* `count` ground (lon, lat, h) triples to image (x, y) pairs. Fails on a
 * point whose denominator vanishes or whose result is not finite. */
EPHO_EXPORT Emsc_Boolean epho_RpcGroundToImage(const Epho_RpcModel* model, long count,
                                               const double* ground_xyz, double* image_xy,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* `count` image (x, y) pairs at ellipsoidal heights `ground_z` to (lon, lat)
 * pairs (the limits above). */
EPHO_EXPORT Emsc_Boolean epho_RpcImageToGround(const Epho_RpcModel* model, long count,
                                               const double* image_xy, const double* ground_z,
                                               double* ground_xy,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* `count` image pairs to ground (lon, lat, h) triples on the height source:
 * the ray is intersected at a height, the DEM read there, and the height
 * iterated (secant steps on DEM(h) - h) to the limits above. Fails, naming
 * the point, when the ground point leaves the DEM, meets a null cell (the
 * layer's no-data value) or does not converge. */
EPHO_EXPORT Emsc_Boolean epho_RpcImageToGroundOnSurface(const Epho_RpcModel* model, long count,
                                                        const double* image_xy, double* ground_xyz,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* The model as an exfr sensor-model transform (the model is copied, DEM
 * included). Ground is (lon, lat, h) as above; exfr_ImageToGroundRay gives
 * the point at HEIGHT_OFF and the direction towards the point one HEIGHT_SCALE
 * higher, in (degrees, degrees, metres); exfr_Transform takes (lon, lat) to
 * image at the height source's heights. */
EPHO_EXPORT Exfr_XForm* epho_RpcModelToExfr(const Epho_RpcModel* model,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT const Exfr_SensorModelOps* epho_RpcSensorOps(void) KZDV_NOEXCEPT;

KZDV_END_C

/* ==== 3D polynomial model ====
 *
 * Image x and y as polynomials of ground X, Y, Z of order 1 to 3, in
 * normalised coordinates: with u = (X - groundOffset[0]) / groundScale[0]
 * (v, w likewise for Y, Z),
 *   x = imageOffset[0] + imageScale[0] * sum_k xcoef[k] term_k(u, v, w),
 *   y = imageOffset[1] + imageScale[1] * sum_k ycoef[k] term_k(u, v, w).
 * Terms by total degree: 1; u, v, w; u², uv, uw, v², vw, w²; u³, u²v, u²w,
 * uv², uvw, uw², v³, v²w, vw², w³ (EPHO_POLY3D_TERM_COUNT(order) of them).
 * Ground and image units are the caller's (a map system and file pixels, or
 * film millimetres for use under a scanner model). */
#define EPHO_POLY3D_TERM_COUNT(order) (((order) + 1) * ((order) + 2) * ((order) + 3) / 6)
#define EPHO_POLY3D_MAX_TERMS 20

typedef struct Epho_Poly3DCoefficients {
  long order; /* 1..3 */
  double groundOffset[3];
  double groundScale[3]; /* non-zero */
  double imageOffset[2];
  double imageScale[2]; /* non-zero */
  double xcoef[EPHO_POLY3D_MAX_TERMS];
  double ycoef[EPHO_POLY3D_MAX_TERMS];
} Epho_Poly3DCoefficients;

typedef struct Epho_Poly3DModel Epho_Poly3DModel;

KZDV_BEGIN_C

/* Least-squares fit of order `order` (1..3) to `count` control points, at
 * least as many as terms. Normalisation: offsets are the means, scales the
 * largest deviation from them (1 for a coordinate that does not vary).
 * `residuals_xy` (null: not wanted) receives image minus fitted image per
 * point, `rmse` (null: not wanted) sqrt(sum of squared residual lengths /
 * count), in image units. Fails with a report on an order out of range, too
 * few points, non-finite input or control whose geometry does not determine
 * every term (e.g. all points at one height for a term in Z). */
EPHO_EXPORT Epho_Poly3DModel* epho_Poly3DModelFit(long order, long count, const double* ground_xyz,
                                                  const double* image_xy, double* residuals_xy,
                                                  double* rmse,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A model from its coefficients (copied, terms beyond the order ignored). */
EPHO_EXPORT Epho_Poly3DModel* epho_Poly3DModelCreate(const Epho_Poly3DCoefficients* coefficients,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Poly3DModelCoefficientsGet(const Epho_Poly3DModel* model,
                                                         Epho_Poly3DCoefficients* coefficients,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
EPHO_EXPORT void epho_Poly3DModelFree(Epho_Poly3DModel* model) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_Poly3DGroundToImage(const Epho_Poly3DModel* model, long count,
                                                  const double* ground_xyz, double* image_xy,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Image pairs at heights `ground_z` to ground (X, Y) pairs by Newton from the
 * ground offset (step below 1e-9 of the ground scale, at most 30 steps);
 * fails where the polynomial has no unique local solution. */
EPHO_EXPORT Emsc_Boolean epho_Poly3DImageToGround(const Epho_Poly3DModel* model, long count,
                                                  const double* image_xy, const double* ground_z,
                                                  double* ground_xy,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* As an exfr sensor-model transform (copied): exfr_ImageToGroundRay gives the
 * point at the ground Z offset and the direction towards the point one Z
 * scale higher; exfr_Transform takes (X, Y) to image at the Z offset. */
EPHO_EXPORT Exfr_XForm* epho_Poly3DModelToExfr(const Epho_Poly3DModel* model,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT const Exfr_SensorModelOps* epho_Poly3DSensorOps(void) KZDV_NOEXCEPT;

KZDV_END_C

/* ==== Scanner model ====
 *
 * A scanned photograph: file pixels reach film coordinates through the
 * fiducial affine, written offset first (unlike the camera record's
 * c0·x + c1·y + c2 affines):
 *   film X = a[0] + a[1]·x + a[2]·y,   film Y = b[0] + b[1]·x + b[2]·y,
 * identity a = (0, 1, 0), b = (0, 0, 1). */
typedef struct Epho_FiducialAffine {
  double a[3];
  double b[3];
} Epho_FiducialAffine;

KZDV_BEGIN_C

/* Pixel (x, y) pairs to film (X, Y) pairs and back (in place allowed). The
 * inverse fails on a singular affine. */
EPHO_EXPORT Emsc_Boolean epho_FiducialAffinePixelToFilm(const Epho_FiducialAffine* affine,
                                                        long count, const double* pixel_xy,
                                                        double* film_xy,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_FiducialAffineFilmToPixel(const Epho_FiducialAffine* affine,
                                                        long count, const double* film_xy,
                                                        double* pixel_xy,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The scanner model over `film_model`, any sensor-model transform whose image
 * side is film coordinates (copied): the result is a sensor-model transform
 * between the film model's ground and file pixels. Ground to image runs the
 * film model then the inverse affine; image to ground the affine then the
 * film model (its ray, its image-and-height routine). exfr_Transform runs
 * the film model's 2D transform then the inverse affine. Fails on a singular
 * affine or a transform that is not a sensor model. */
EPHO_EXPORT Exfr_XForm* epho_ScannerXformCreate(const Epho_FiducialAffine* pixel_to_film,
                                                const Exfr_XForm* film_model,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT const Exfr_SensorModelOps* epho_ScannerSensorOps(void) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_SENSORS_H */
