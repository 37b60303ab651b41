/* Triangulation refinement: a bundle adjustment of a block of images that are
 * already oriented by their own sensor models (one exfr transform per image,
 * ground to file pixels). For every image it estimates a small polynomial
 * correction in image coordinates (a[] for x, b[] for y, up to six terms per
 * axis), and the ground coordinates of every tie, control and check point,
 * and writes a plain-text report.
 *
 * Correction model. Image points are measured in pixels and mapped to image
 * units by the image's offset-first affine X = c0 + c1*x + c2*y,
 * Y = c3 + c4*x + c5*y. With the normalised terms t0 = 1, t1 = x/Ex,
 * t2 = y/Ey, t3 = t1^2, t4 = t1*t2, t5 = t2^2 (Ex, Ey: 0.85 of the image
 * extent in image units) the refined image position of a point is
 *     x_corrected = x - sum a[i]*t_i,  y_corrected = y - sum b[i]*t_i,
 * so a[] and b[] describe the systematic image error (measured minus ideal,
 * in image units) and are zero for an error-free image.
 *
 * Residual sign convention, ground and image alike: given (measured) minus
 * adjusted. Ground residuals of control and check points are the given
 * coordinates minus the adjusted ones (always 0 for control that is held
 * fixed); image residuals are the corrected measurement minus the projection
 * of the adjusted point, in pixels.
 *
 * Threads: a run touches only its own input record; runs on different
 * records may go on in parallel when the images' transforms allow it. */
#ifndef EPHO_TRIANGULATION_H
#define EPHO_TRIANGULATION_H

#include <stdint.h>

#include "epho/base.h"
#include "exfr.h"

/* Ground point type and usage codes. */
#define EPHO_TRI_TYPE_FULL 0       /* control in X, Y and Z */
#define EPHO_TRI_TYPE_HORIZONTAL 1 /* X, Y */
#define EPHO_TRI_TYPE_VERTICAL 2   /* Z */
#define EPHO_TRI_USAGE_CONTROL 0
#define EPHO_TRI_USAGE_CHECK 1
#define EPHO_TRI_USAGE_TIE 2
#define EPHO_TRI_USAGE_REJECTED 3

/* Image parameter modes. */
#define EPHO_TRI_MODE_FREE 0     /* no prior */
#define EPHO_TRI_MODE_WEIGHTED 1 /* prior standard deviations given */
#define EPHO_TRI_MODE_FIXED 3    /* not refined (weights 1.0e8) */

/* Which solver handles the reduced normal equations of the parameters. */
#define EPHO_TRI_SOLVER_AUTO 0   /* dense up to EPHO_TRI_DENSE_MAX_PARAMETERS, else sparse */
#define EPHO_TRI_SOLVER_DENSE 1  /* packed upper triangle, epho_Resolve1D and friends */
#define EPHO_TRI_SOLVER_SPARSE 2 /* image-block supernodal LL^T over a fill-reducing ordering */
/* The large-block path orders the images to reduce fill and factors the
 * reduced matrix as LL^T in dense image-block panels; its corrections, s0 and
 * accuracies equal the dense path's to rounding. A reduced matrix that is not
 * positive definite (a datum left free) ends its iteration unconverged, as an
 * exactly zero pivot ends the dense one. */
/* Largest parameter count (2n summed over the images) solved densely by the
 * automatic choice: 1200 is 100 images with six terms per axis. */
#define EPHO_TRI_DENSE_MAX_PARAMETERS 1200

/* A measured image point. */
typedef struct Epho_TriImagePoint {
  int32_t pointID; /* negated by the run once the point is taken into a ground point */
  double x;        /* pixels on input, image units once the run applied the affine */
  double y;
  float weightX; /* set by the run */
  float weightY;
} Epho_TriImagePoint;

/* A ground point: control, check or tie. */
typedef struct Epho_TriGroundPoint {
  int32_t pointID;
  int32_t type;  /* EPHO_TRI_TYPE_* */
  int32_t usage; /* EPHO_TRI_USAGE_* */
  double X;
  double Y;
  double Z;
  float stdX; /* standard deviations in ground units; turned into weights by the run */
  float stdY;
  float stdZ;
  int32_t firstImagePoint; /* index of its first ray; the next record holds the end */
} Epho_TriGroundPoint;

/* One image of the block. The arrays are owned by the record (toolkit heap)
 * and freed by epho_FreeTriRefineMemory. */
typedef struct Epho_TriImage {
  int32_t imageID;
  int32_t columns;
  int32_t rows;
  Exfr_XForm* xform;         /* ground to file pixels (a sensor-model transform) */
  double affine[6];          /* pixels to image units, offset first: X = c0 + c1*x + c2*y ... */
  double inverseAffine[6];   /* filled by the run */
  int16_t parameterCount;    /* a and b together (2 to 12; more is clamped to 6 per axis) */
  int16_t parameterMode;     /* EPHO_TRI_MODE_* */
  double* initialValues;     /* a[0..n-1] then b[0..n-1], image units */
  float* standardDeviations; /* sa[0..n-1] then sb[0..n-1]; turned into weights */
  double* currentParameters; /* allocated by the run: accumulated corrections, normalised */
  float* normalisation;      /* allocated and freed by the run */
  int32_t imagePointCount;
  Epho_TriImagePoint* imagePoints;
} Epho_TriImage;

/* The input of a run, partly rewritten with its results. */
typedef struct Epho_TriRefineInput {
  uint8_t converged; /* out: 1 when the iteration converged */
  int16_t maximumIterations;
  int16_t fixControl;        /* 0: control held fixed; non-zero: weighted observations */
  int16_t weightYSeparately; /* non-zero: y weight (sx/sy)^2, else 1 */
  float imageStdX;           /* a priori image standard deviations, pixels; both non-zero */
  float imageStdY;
  float convergenceThreshold; /* on the largest ground coordinate correction */
  int32_t imageCount;
  Epho_TriImage* images;
  int32_t groundPointCount;
  Epho_TriGroundPoint* groundPoints;
  int32_t resultPointCount;          /* out */
  Epho_TriGroundPoint* resultPoints; /* out: refined points; freed by epho_FreeTriRefineMemory */
  float unitWeightStdError;          /* out: s0 in image units (negative: see the report) */
  int32_t controlResidualCount[3];   /* out: X, Y (both the horizontal count) and Z */
  float controlResidualRmse[3];      /* out: X, Y, Z */
  float controlResidualMean[3];      /* out: X, Y, Z */
  Etxt_Char* reportFileName;         /* the text report; borrowed */
  Etxt_Char* groundXYUnits;          /* "degrees"/"radians" (any case): geographic; owned */
  Etxt_Char* groundZUnits;           /* owned */
  /* Extensions; zero-filled records get the defaults. */
  Etxt_Char* jsonFileName; /* borrowed; non-null: the results as JSON as well */
  Etxt_Char* plotFileName; /* borrowed; non-null: an SVG plot of the residuals */
  int16_t solver;          /* EPHO_TRI_SOLVER_* */
  int32_t iterations;      /* out: iterations run */
} Epho_TriRefineInput;

KZDV_BEGIN_C

/* Runs the refinement and writes the report (and the JSON and SVG outputs
 * when named). Returns 1 always; failures are told through `err` (null: the
 * report is printed). The report file is closed on every path, and what was
 * written before a failure stays in it. A run that ends unconverged without
 * an error leaves `converged` at 0; a diverging run fails with severity 1.
 * The ground step of the numerical derivatives is the ground size of one
 * pixel at the centre of each image, averaged over the images; the forward
 * intersection is the least-squares point nearest to the rays. */
EPHO_EXPORT int32_t epho_TriRefine(Epho_TriRefineInput* input,
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Frees every array the caller and the run attached to the record (the
 * images' arrays and transforms, the image, ground and result arrays, the two
 * unit strings) and nulls the pointers. Null is accepted. */
EPHO_EXPORT void epho_FreeTriRefineMemory(Epho_TriRefineInput* input,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_TRIANGULATION_H */
