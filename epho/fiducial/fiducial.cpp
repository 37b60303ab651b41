// Fiducial mark prediction on scanned photographs.
//
// Until two marks are measured, every mark is placed near the image corner or
// edge midpoint that its film direction points to; the film-to-image
// transform fitted on those nominal positions then gives the prediction. From
// two measured marks on, the transform is fitted on the measured marks alone.
#include "epho/fiducial.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "epho/planar.h"

namespace {

int32_t AbsId(int32_t id) {
  // |INT32_MIN| does not fit; such an id is kept at the largest magnitude.
  if (id == std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::max();
  return id < 0 ? -id : id;
}

double AxisAngle(Epho_FiducialAxis axis) {
  switch (static_cast<int>(axis)) {
    case FIDUCIAL_AXIS_ROTATE_270:
      return 4.71238898038469;
    case FIDUCIAL_AXIS_ROTATE_180:
      return 3.141592653589793;
    case FIDUCIAL_AXIS_ROTATE_90:
      return 1.5707963267948966;
    default:
      return 0.0;
  }
}

// True when the film points span the plane well enough for an affine fit.
// Marks on one line (e.g. three along one frame edge) make the normal matrix
// singular in exact arithmetic, but rarely exactly so in floating point.
bool SpanPlane(int n, const double* film_xy) {
  double mx = 0.0, my = 0.0;
  for (int i = 0; i < n; ++i) {
    mx += film_xy[2 * i];
    my += film_xy[2 * i + 1];
  }
  mx /= n;
  my /= n;
  double sxx = 0.0, syy = 0.0, sxy = 0.0;
  for (int i = 0; i < n; ++i) {
    const double dx = film_xy[2 * i] - mx, dy = film_xy[2 * i + 1] - my;
    sxx += dx * dx;
    syy += dy * dy;
    sxy += dx * dy;
  }
  const double trace = sxx + syy;
  return sxx * syy - sxy * sxy > 1e-12 * trace * trace;
}

}  // namespace

FiducialPrediction::FiducialPrediction()
    : edgeFraction_(0.02),
      orientation_radians_(0.0),
      imageWidth_(0),
      imageHeight_(0),
      fiducialCount_(0),
      measuredCount_(0),
      ids_{},
      filmX_{},
      filmY_{},
      measuredX_{},
      measuredY_{},
      transform_{0.0, 1.0, 0.0, 0.0, 0.0, 1.0} {}

FiducialPrediction& FiducialPrediction::operator=(const FiducialPrediction& other) {
  if (this == &other) return *this;
  edgeFraction_ = other.edgeFraction_;
  orientation_radians_ = other.orientation_radians_;
  imageWidth_ = other.imageWidth_;
  imageHeight_ = other.imageHeight_;
  fiducialCount_ = other.fiducialCount_;
  measuredCount_ = other.measuredCount_;
  for (int i = 0; i < kMaxFiducials; ++i) {
    ids_[i] = other.ids_[i];
    filmX_[i] = other.filmX_[i];
    filmY_[i] = other.filmY_[i];
    measuredX_[i] = other.measuredX_[i];
    measuredY_[i] = other.measuredY_[i];
  }
  for (int i = 0; i < 6; ++i) transform_[i] = other.transform_[i];
  return *this;
}

void FiducialPrediction::ClearMeasurements() {
  for (int i = 0; i < kMaxFiducials; ++i) ids_[i] = AbsId(ids_[i]);
  measuredCount_ = 0;
}

void FiducialPrediction::put_ImageSize(int32_t width, int32_t height) {
  imageWidth_ = AbsId(width);
  imageHeight_ = AbsId(height);
  ClearMeasurements();
}

void FiducialPrediction::put_AllFilmCoordinates(int32_t count, const point2DWithID* film_mm) {
  if (count < 2 || count > kMaxFiducials || !film_mm) return;
  fiducialCount_ = count;
  for (int i = 0; i < count; ++i) {
    ids_[i] = AbsId(film_mm[i].id);
    filmX_[i] = film_mm[i].x;
    filmY_[i] = film_mm[i].y;
  }
  measuredCount_ = 0;
}

void FiducialPrediction::put_FiducialToEdgePercent(double fraction) {
  // Written so that NaN passes: only a value known to be outside is refused.
  if (fraction < 0.0 || fraction > 0.4) return;
  edgeFraction_ = fraction;
}

void FiducialPrediction::put_FiducialOrientation(Epho_FiducialAxis axis) {
  orientation_radians_ = AxisAngle(axis);
  ClearMeasurements();
}

// The slot whose stored id, taken by magnitude, equals `id` as given: ids
// are not negative, so a negative `id` names no fiducial.
int FiducialPrediction::FindSlot(int32_t id) const {
  for (int i = 0; i < fiducialCount_; ++i)
    if (AbsId(ids_[i]) == id) return i;
  return -1;
}

void FiducialPrediction::put_MeasuredCoordinates(int32_t id, double x, double y) {
  const int k = FindSlot(id);
  if (k < 0) return;
  measuredX_[k] = x;
  measuredY_[k] = y;
  if (ids_[k] > 0) {
    ids_[k] = -ids_[k];
    ++measuredCount_;
  }
}

int FiducialPrediction::RemoveMeasuredPoint(int32_t id) {
  if (fiducialCount_ < 1) return 1;
  const int k = FindSlot(id);
  if (k < 0 || ids_[k] > 0) return 1;
  // An id of 0 counts as measured here although measuring it never counted
  // it; the measured count then drops below the number of negative ids.
  measuredX_[k] = 0.0;
  measuredY_[k] = 0.0;
  --measuredCount_;
  ids_[k] = AbsId(ids_[k]);
  return 0;
}

int FiducialPrediction::MeasuredPairs(double* film_xy, double* image_xy) const {
  int n = 0;
  for (int i = 0; i < fiducialCount_ && n < measuredCount_; ++i) {
    if (ids_[i] >= 0) continue;
    film_xy[2 * n] = filmX_[i];
    film_xy[2 * n + 1] = filmY_[i];
    image_xy[2 * n] = measuredX_[i];
    image_xy[2 * n + 1] = measuredY_[i];
    ++n;
  }
  return n;
}

int FiducialPrediction::NominalPairs(double* film_xy, double* image_xy) const {
  const double w = imageWidth_, h = imageHeight_, f = edgeFraction_;
  const double offset_x = w * f, step_x = (w - 2.0 * w * f) / 2.0;
  const double offset_y = h * f, step_y = (h - 2.0 * h * f) / 2.0;
  for (int i = 0; i < fiducialCount_; ++i) {
    const double theta = std::atan2(filmY_[i], filmX_[i]) + orientation_radians_;
    const double c = std::cos(theta), s = std::sin(theta);
    // Column class 0 left, 1 middle, 2 right; row class 0 top (positive film
    // y), 1 middle, 2 bottom, since rows grow downwards.
    const int cx = std::fabs(c) < 0.4 ? 1 : (c > 0.0 ? 2 : 0);
    const int sy = std::fabs(s) < 0.4 ? 1 : (s > 0.0 ? 0 : 2);
    film_xy[2 * i] = filmX_[i];
    film_xy[2 * i + 1] = filmY_[i];
    image_xy[2 * i] = cx * step_x + offset_x;
    image_xy[2 * i + 1] = sy * step_y + offset_y;
  }
  if (measuredCount_ == 1) {
    for (int i = 0; i < fiducialCount_; ++i) {
      if (ids_[i] < 0) {
        image_xy[2 * i] = measuredX_[i];
        image_xy[2 * i + 1] = measuredY_[i];
        break;
      }
    }
  }
  return fiducialCount_;
}

bool FiducialPrediction::Fit(int n, const double* film_xy, const double* image_xy,
                             bool check_geometry) {
  if (n < 2) return false;
  if (check_geometry && n >= 3 && !SpanPlane(n, film_xy)) return false;
  double target[2 * kMaxFiducials];
  for (int i = 0; i < 2 * n; ++i) target[i] = image_xy[i];
  // The similarity keeps handedness; flipping the rows lets it map the
  // right-handed film system onto the down-growing image rows.
  if (n == 2) {
    target[1] = -target[1];
    target[3] = -target[3];
  }
  double a[6];
  if (epho_Affine(n, film_xy, target, a) != 0) return false;
  if (n == 2) {
    a[3] = -a[3];
    a[4] = -a[4];
    a[5] = -a[5];
  }
  if (check_geometry) {
    for (int i = 0; i < 6; ++i)
      if (!std::isfinite(a[i])) return false;
  }
  for (int i = 0; i < 6; ++i) transform_[i] = a[i];
  return true;
}

int FiducialPrediction::get_Prediction(int32_t id, double* x, double* y) {
  if (fiducialCount_ < 1) return 1;
  const int k = FindSlot(id);
  if (k < 0) return 2;
  double film_xy[2 * kMaxFiducials], image_xy[2 * kMaxFiducials];
  const int n =
      measuredCount_ > 1 ? MeasuredPairs(film_xy, image_xy) : NominalPairs(film_xy, image_xy);
  // The fit is not checked here: a degenerate set of marks leaves what the fit
  // left (callers learn of it from FinalSolve).
  Fit(n, film_xy, image_xy, /*check_geometry=*/false);
  const double* a = transform_;
  if (x) *x = a[0] + a[1] * filmX_[k] + a[2] * filmY_[k];
  if (y) *y = a[3] + a[4] * filmX_[k] + a[5] * filmY_[k];
  return 0;
}

double FiducialPrediction::FinalSolve(double* coefficients, point2DWithID* residuals) {
  double film_xy[2 * kMaxFiducials], image_xy[2 * kMaxFiducials];
  int n = 0;
  for (int i = 0; i < fiducialCount_; ++i) {
    if (ids_[i] >= 0) continue;
    film_xy[2 * n] = filmX_[i];
    film_xy[2 * n + 1] = filmY_[i];
    image_xy[2 * n] = measuredX_[i];
    image_xy[2 * n + 1] = measuredY_[i];
    ++n;
  }
  if (n < 2 || !Fit(n, film_xy, image_xy, /*check_geometry=*/true)) return -1.0;
  const double* a = transform_;
  double sum = 0.0;
  for (int i = 0; i < fiducialCount_; ++i) {
    double dx = 0.0, dy = 0.0;
    if (ids_[i] < 0) {
      dx = measuredX_[i] - (a[0] + a[1] * filmX_[i] + a[2] * filmY_[i]);
      dy = measuredY_[i] - (a[3] + a[4] * filmX_[i] + a[5] * filmY_[i]);
      sum += dx * dx + dy * dy;
    }
    if (residuals) {
      residuals[i].id = ids_[i];
      residuals[i].x = dx;
      residuals[i].y = dy;
    }
  }
  if (coefficients)
    for (int i = 0; i < 6; ++i) coefficients[i] = a[i];
  return std::sqrt(sum / n);
}

void FiducialPrediction::get_Transform(double coefficients[6]) const {
  for (int i = 0; i < 6; ++i) coefficients[i] = transform_[i];
}
