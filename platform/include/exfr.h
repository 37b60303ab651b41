/* exfr: transform objects of the toolkit.
 *
 * An Exfr_XForm maps 2D points (a 2 x n efga matrix, one point per column).
 * Kinds: polynomial (order 1 is affine), the numerical inverse of a
 * polynomial, a chain of transforms applied in order, and a sensor model that
 * a sensor library registers through Exfr_SensorModelOps (its 2D direction
 * is the model's own, e.g. ground to image). Transform objects are immutable
 * after creation, so concurrent exfr_Transform calls on one object are safe
 * when the sensor model's own routines are. Free with exfr_XFormFree. */
#ifndef EXFR_H
#define EXFR_H

#include "eerr.h"
#include "efga.h"
#include "emsc.h"
#include "kzdv_export.h"

typedef struct Exfr_XForm Exfr_XForm;

/* Polynomial term order for order n: 1, x, y, x², xy, y², x³, x²y, xy², y³,
 * ... (all x^i·y^j with i + j <= n, by total degree, x power descending). */
#define EXFR_POLY_TERM_COUNT(order) (((order) + 1) * ((order) + 2) / 2)

/* The routines by which a sensor model plugs into the transform machinery.
 * `model` is the sensor's own object. Ground coordinates are in the model's
 * ground system (x, y and height z); image coordinates in its image system
 * (file pixels for a frame camera). Each routine returns EMSC_TRUE on
 * success or EMSC_FALSE with a report. Any routine except the ground/image
 * ones may be null. */
typedef struct Exfr_SensorModelOps {
  const char* name; /* kind of model, e.g. "frame camera" */
  /* count ground points (x, y, z triples) to image (x, y pairs). */
  Emsc_Boolean (*groundToImage)(void* model, long count, const double* ground_xyz, double* image_xy,
                                Eerr_ErrorReport** err);
  /* The ray of an image point: a ground point on it and a direction. */
  Emsc_Boolean (*imageToGroundRay)(void* model, double image_x, double image_y,
                                   double origin_xyz[3], double direction_xyz[3],
                                   Eerr_ErrorReport** err);
  /* count image points with known ground heights to ground (x, y). */
  Emsc_Boolean (*imageAndGroundZToGroundXY)(void* model, long count, const double* image_xy,
                                            const double* ground_z, double* ground_xy,
                                            Eerr_ErrorReport** err);
  /* The model's 2D transform for exfr_Transform (in place on a 2 x n
   * matrix); null: exfr_Transform reports that the model has none. */
  Emsc_Boolean (*transform2D)(void* model, Efga_Matrix* points, Eerr_ErrorReport** err);
  /* Deep copy of the model (null: the transform cannot be copied). */
  void* (*copy)(const void* model, Eerr_ErrorReport** err);
  /* Frees the model (null: the model is not owned). */
  void (*destroy)(void* model);
} Exfr_SensorModelOps;

KZDV_BEGIN_C

/* ---- Creation. */

/* Polynomial of `order` (1..5): x' = sum xcoef[k]·term_k(x, y), y' likewise,
 * each array EXFR_POLY_TERM_COUNT(order) long (copied). */
KZDV_EXPORT Exfr_XForm* exfr_PolynomialXFormCreate(long order, const double* xcoef,
                                                   const double* ycoef,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Affine in the library's six-coefficient form: x' = c0·x + c1·y + c2,
 * y' = c3·x + c4·y + c5. */
KZDV_EXPORT Exfr_XForm* exfr_AffineXFormCreate(const double coef[6],
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Identity transform. */
KZDV_EXPORT Exfr_XForm* exfr_IdentityXFormCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* `second` after `first` (both copied). */
KZDV_EXPORT Exfr_XForm* exfr_XFormCompose(const Exfr_XForm* first, const Exfr_XForm* second,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Wraps a sensor model; the transform takes ownership of `model` (freed with
 * ops->destroy), even on failure. `ops` must outlive the transform (a static
 * table). */
KZDV_EXPORT Exfr_XForm* exfr_SensorModelXFormCreate(const Exfr_SensorModelOps* ops, void* model,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Deep copy. */
KZDV_EXPORT Exfr_XForm* exfr_XFormCopy(const Exfr_XForm* xform,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void exfr_XFormFree(Exfr_XForm* xform) KZDV_NOEXCEPT;

/* ---- Use. */

/* Transforms the points of `in` (2 x n) into `out` (2 x n; may be `in`).
 * On failure (a singular inverse, a non-finite result, a sensor model
 * failure) reports naming "exfr_Transform" and leaves `out` unchanged. */
KZDV_EXPORT Emsc_Boolean exfr_Transform(const Exfr_XForm* xform, const Efga_Matrix* in,
                                        Efga_Matrix* out, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Inverse transform: exact for affine and chains of affines; for a higher
 * polynomial a transform that inverts it point by point by Newton iteration
 * (to 1e-10 of the input), started from the inverse of its linear part.
 * Sensor models have no inverse here (reported). */
KZDV_EXPORT Exfr_XForm* exfr_XFormInvert(const Exfr_XForm* xform,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Polynomial order (1 affine), or 0 for other kinds. */
KZDV_EXPORT long exfr_XFormPolynomialOrder(const Exfr_XForm* xform) KZDV_NOEXCEPT;
/* Copies the coefficients of a polynomial transform into the caller's
 * arrays (EXFR_POLY_TERM_COUNT(order) each). */
KZDV_EXPORT Emsc_Boolean exfr_PolynomialCoefficientsGet(const Exfr_XForm* xform, double* xcoef,
                                                        double* ycoef,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- Sensor models. All fail with a report on a transform that is not a
 * sensor model or whose model lacks the routine. */
KZDV_EXPORT Emsc_Boolean exfr_GroundToImage(const Exfr_XForm* xform, long count,
                                            const double* ground_xyz, double* image_xy,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean exfr_ImageToGroundRay(const Exfr_XForm* xform, double image_x,
                                               double image_y, double origin_xyz[3],
                                               double direction_xyz[3],
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean exfr_ImageAndGroundZToGroundXY(const Exfr_XForm* xform, long count,
                                                        const double* image_xy,
                                                        const double* ground_z, double* ground_xy,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The model object of a sensor-model transform when it was registered with
 * `ops` (the same table), else null. Borrowed. */
KZDV_EXPORT void* exfr_XFormSensorModelGet(const Exfr_XForm* xform,
                                           const Exfr_SensorModelOps* ops) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EXFR_H */
