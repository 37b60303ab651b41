/* Fiducial prediction: where the fiducial marks of a frame camera appear on a
 * scanned photograph, from their calibrated film coordinates (mm), the image
 * size (pixels) and the marks measured so far. Image coordinates are (column,
 * row) in pixels, rows growing downwards; film y grows upwards. */
#ifndef EPHO_FIDUCIAL_H
#define EPHO_FIDUCIAL_H

#include <stdint.h>

#include "epho/base.h"

/* A point with an id; packed to 4-byte alignment (20 bytes). */
#pragma pack(push, 4)
typedef struct point2DWithID {
  int32_t id;
  double x;
  double y;
} point2DWithID;
#pragma pack(pop)

/* How the film system lies on the scan: the angle added to each fiducial's
 * film direction (counter-clockwise in film terms). Other values act as 0. */
typedef enum {
  FIDUCIAL_AXIS_ROTATE_0 = 0,   /* 0 */
  FIDUCIAL_AXIS_ROTATE_270 = 1, /* 3 pi / 2 */
  FIDUCIAL_AXIS_ROTATE_180 = 2, /* pi */
  FIDUCIAL_AXIS_ROTATE_90 = 3   /* pi / 2 */
} Epho_FiducialAxis;

#ifdef __cplusplus

/* Predicts fiducial positions on a scan. Used by value; not thread-safe (one
 * object per thread). Holds 2 to 8 fiducials; an id is measured when its
 * stored id is negative. Takes no error report: results are codes. */
class EPHO_EXPORT FiducialPrediction {
 public:
  static const int kMaxFiducials = 8;

  /* Edge fraction 0.02, orientation 0, no fiducials, nothing measured. */
  FiducialPrediction();
  FiducialPrediction& operator=(const FiducialPrediction& other);
  FiducialPrediction(const FiducialPrediction& other) = default;

  /* Image size in pixels (absolute values kept); clears all measurements. */
  void put_ImageSize(int32_t width, int32_t height);
  /* Film coordinates (mm) of `count` fiducials, 2 to 8 (else ignored); slot
   * order is the array order; ids are kept as absolute values. Clears all
   * measurements. */
  void put_AllFilmCoordinates(int32_t count, const point2DWithID* film_mm);
  /* Distance of nominal marks from the image edge as a fraction of the image
   * size; taken only within [0, 0.4] (NaN is taken). Keeps measurements. */
  void put_FiducialToEdgePercent(double fraction);
  /* Orientation of the film system on the scan; clears all measurements. */
  void put_FiducialOrientation(Epho_FiducialAxis axis);
  /* Measured image position (column, row in pixels) of fiducial `id`; an
   * unknown id is ignored. An id of 0 is stored but never counted. Ids are
   * the magnitudes put_AllFilmCoordinates stored: a negative id is unknown
   * here, in RemoveMeasuredPoint and in get_Prediction. */
  void put_MeasuredCoordinates(int32_t id, double x, double y);
  /* 0 when removed; 1 with no fiducials, an unknown id or an unmeasured one. */
  int RemoveMeasuredPoint(int32_t id);

  /* Predicted image position (pixels) of fiducial `id`: with two or more
   * measured marks from the film-to-image transform fitted on them (affine
   * from three, similarity with a row flip from two); otherwise from nominal
   * positions near the image corners and edge midpoints (one measured mark
   * replacing its nominal position). Returns 0 (transform kept in the object),
   * 1 when there are no fiducials, 2 for an unknown id; x, y are untouched
   * unless 0. A degenerate fit (collinear marks, no image size set) is not
   * detected here: the coefficients the fit left are used. FinalSolve
   * detects it (returns -1). */
  int get_Prediction(int32_t id, double* x, double* y);

  /* Final film-to-image transform on all measured marks (affine from three,
   * similarity with a row flip from two). Fills `coefficients` (six doubles
   * a0..a5: column = a0 + a1*x + a2*y, row = a3 + a4*x + a5*y; may be null)
   * and, when `residuals` is not null, one record per fiducial in slot order:
   * id as stored (negative = measured) and x, y = measured minus transformed
   * film position in pixels (0 for unmeasured marks). Returns the root mean
   * square residual in pixels, sqrt(sum(dx^2 + dy^2) / measured marks), or -1
   * with nothing filled when fewer than two marks are measured or the fit
   * fails. The transform is kept in the object. */
  double FinalSolve(double* coefficients, point2DWithID* residuals);

  /* Read-only views of the state. */
  int32_t get_FiducialCount() const { return fiducialCount_; }
  int32_t get_MeasuredCount() const { return measuredCount_; }
  double get_FiducialToEdgePercent() const { return edgeFraction_; }
  double get_OrientationAngle() const { return orientation_radians_; }
  /* The six coefficients of the last prediction or final solve. */
  void get_Transform(double coefficients[6]) const;

 private:
  int FindSlot(int32_t id) const;
  void ClearMeasurements();
  // Collects film -> image pairs for the fit; returns their number.
  int MeasuredPairs(double* film_xy, double* image_xy) const;
  int NominalPairs(double* film_xy, double* image_xy) const;
  // Fits film -> image on n pairs into transform_; false when the fit fails.
  bool Fit(int n, const double* film_xy, const double* image_xy, bool check_geometry);

  double edgeFraction_;
  double orientation_radians_;
  int32_t imageWidth_;
  int32_t imageHeight_;
  int32_t fiducialCount_;
  int32_t measuredCount_;
  int32_t ids_[kMaxFiducials];
  double filmX_[kMaxFiducials];
  double filmY_[kMaxFiducials];
  double measuredX_[kMaxFiducials];
  double measuredY_[kMaxFiducials];
  double transform_[6];
};

#endif /* __cplusplus */

#endif /* EPHO_FIDUCIAL_H */
