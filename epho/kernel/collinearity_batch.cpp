// Batch collinearity: ground to film and film plus height to ground for
// arrays, with the orientation, the refraction / earth-curvature correction
// and the lens records of one camera applied in one pass. The collinearity,
// the radial and the decentring lens models and the intersection run on
// vector lanes (collinearity_lanes_internal.h), the correction and the other
// lens models point by point; every expression repeats the per-point
// functions' operations in their order, so the results are theirs bit for
// bit whatever the path.
#include "epho/kernel/collinearity_batch.h"

#include <cmath>
#include <limits>

#include "epho/kernel/collinearity_batch_internal.h"

#define EPHO_COLL_NS lanes2
#include "epho/kernel/collinearity_lanes_internal.h"

namespace epho::kernel {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
typedef double V2 __attribute__((vector_size(16)));

bool HasLens(const Epho_FilmProjection& p) {
  return (p.lens && p.lens->count > 0) || (p.additional && p.additional->count > 0);
}

// Which lens model the vector bodies can evaluate; the model code is read as
// epho_CameraAwayDistortion reads it (p0 + 0.5 truncated).
LensForm FormOf(const Epho_FilmProjection& p, const double** coefficients) {
  *coefficients = nullptr;
  if (!HasLens(p)) return LensForm::kNone;
  if (p.additional && p.additional->count >= 1) return LensForm::kOther;  // it may replace the lens
  const Epho_CountedDoubles* lens = p.lens;
  if (!lens || !lens->data) return LensForm::kOther;
  const double code = lens->data[0] + 0.5;
  if (lens->count == 3) {
    *coefficients = lens->data;
    return LensForm::kRadial;
  }
  if (lens->count == 5 && code > -1.0 && code < 1.0) {
    *coefficients = lens->data + 1;
    return LensForm::kRadial;
  }
  if (lens->count == 11 && code >= 2.0 && code < 3.0 && lens->data[1] != 0.0) {
    *coefficients = lens->data;
    return LensForm::kBrown;
  }
  return LensForm::kOther;
}

int Lanes(VectorPath path) {
#if defined(__x86_64__)
  if (path == VectorPath::kAvx2) return 4;
#endif
  (void)path;
  return 2;
}

}  // namespace

int32_t ObjectToImageBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count,
                           const double* X, const double* Y, const double* Z, double* x, double* y,
                           uint8_t* failed) {
  const double* c = nullptr;
  const LensForm form = FormOf(p, &c);
  // The lens runs in the lanes unless the correction must come before it.
  const bool lens_in_lanes =
      p.correction_kind <= 1 && (form == LensForm::kRadial || form == LensForm::kBrown);
  const LanePlan plan{p.matrix, lens_in_lanes ? form : LensForm::kNone, c};
  const int lanes = Lanes(path);
  const int32_t whole = count - count % lanes;
  int32_t bad = lanes == 4 ? ForwardLanes4(plan, whole, X, Y, Z, x, y, failed)
                           : ForwardLanes2(plan, whole, X, Y, Z, x, y, failed);
  const bool lens = HasLens(p);
  if (!lens_in_lanes && (p.correction_kind > 1 || lens))
    for (int32_t i = 0; i < whole; ++i) {
      if (p.correction_kind > 1)
        epho_CameraAwayCorrection(p.correction_kind, p.flying_height, Z[i], p.focal, &x[i], &y[i],
                                  0);
      if (lens) {
        double dx = 0.0, dy = 0.0;
        epho_CameraAwayDistortion(p.lens, p.additional, x[i], y[i], &dx, &dy);
        x[i] += dx;
        y[i] += dy;
      }
    }
  for (int32_t i = whole; i < count; ++i) {  // the last points, one by one
    double u, v;
    const bool flat = epho_CameraObjectToImage(p.matrix, X[i], Y[i], Z[i], &u, &v) != EMSC_FALSE;
    if (flat) {
      u = v = kNaN;
    } else {
      if (p.correction_kind > 1)
        epho_CameraAwayCorrection(p.correction_kind, p.flying_height, Z[i], p.focal, &u, &v, 0);
      if (lens) {
        double dx = 0.0, dy = 0.0;
        epho_CameraAwayDistortion(p.lens, p.additional, u, v, &dx, &dy);
        u += dx;
        v += dy;
      }
    }
    x[i] = u;
    y[i] = v;
    bad += flat;
    if (failed) failed[i] = flat;
  }
  return bad;
}

void FilmToIdealBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count, const double* x,
                      const double* y, const double* height, double* ix, double* iy) {
  const double* c = nullptr;
  const LensForm form = FormOf(p, &c);
  int32_t from = 0;  // points before `from` have the lens removed
  if (form == LensForm::kRadial || form == LensForm::kBrown) {
    const LanePlan plan{p.matrix, form, c};
    const int lanes = Lanes(path);
    from = count - count % lanes;
    if (lanes == 4)
      RemoveLensLanes4(plan, from, x, y, ix, iy);
    else
      RemoveLensLanes2(plan, from, x, y, ix, iy);
  }
  const bool lens = form != LensForm::kNone;
  for (int32_t i = from; i < count; ++i) {
    double u = x[i], v = y[i];
    if (lens) {
      double dx = 0.0, dy = 0.0;
      epho_CameraAwayDistortion(p.lens, p.additional, u, v, &dx, &dy);
      u -= dx;
      v -= dy;
    }
    ix[i] = u;
    iy[i] = v;
  }
  if (p.correction_kind > 1)
    for (int32_t i = 0; i < count; ++i)
      epho_CameraAwayCorrection(p.correction_kind, p.flying_height, height[i], p.focal, &ix[i],
                                &iy[i], 1);
}

int32_t IdealToGroundBatch(VectorPath path, const double* m, int32_t mode, int32_t count,
                           const double* height, double* first, double* second, uint8_t* failed) {
  const int lanes = Lanes(path);
  const int32_t whole = count - count % lanes;
  int32_t bad = lanes == 4 ? IntersectLanes4(m, mode, whole, height, first, second, failed)
                           : IntersectLanes2(m, mode, whole, height, first, second, failed);
  for (int32_t i = whole; i < count; ++i) {
    double a, b;
    const bool flat =
        epho_CameraImageAndZToXY(m, mode, first[i], second[i], height[i], &a, &b) != EMSC_FALSE;
    first[i] = flat ? kNaN : a;
    second[i] = flat ? kNaN : b;
    bad += flat;
    if (failed) failed[i] = flat;
  }
  return bad;
}

int32_t ImageAndZToXYBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count,
                           const double* x, const double* y, const double* height, double* first,
                           double* second, uint8_t* failed) {
  FilmToIdealBatch(path, p, count, x, y, height, first, second);
  return IdealToGroundBatch(path, p.matrix, p.mode, count, height, first, second, failed);
}

// ---- the two-lane bodies ----

int32_t ForwardLanes2(const LanePlan& plan, int32_t count, const double* X, const double* Y,
                      const double* Z, double* x, double* y, uint8_t* failed) {
  return lanes2::ForwardAny<V2, 2>(plan, count, X, Y, Z, x, y, failed);
}

void RemoveLensLanes2(const LanePlan& plan, int32_t count, const double* x, const double* y,
                      double* ix, double* iy) {
  lanes2::RemoveLensAny<V2, 2>(plan, count, x, y, ix, iy);
}

int32_t IntersectLanes2(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                        double* iy, uint8_t* failed) {
  return lanes2::IntersectAny<V2, 2>(m, mode, count, h, ix, iy, failed);
}

#if !defined(__x86_64__)
// No four-lane build: the path selector never picks it (Lanes() gives 2).
int32_t ForwardLanes4(const LanePlan& plan, int32_t count, const double* X, const double* Y,
                      const double* Z, double* x, double* y, uint8_t* failed) {
  return ForwardLanes2(plan, count, X, Y, Z, x, y, failed);
}
void RemoveLensLanes4(const LanePlan& plan, int32_t count, const double* x, const double* y,
                      double* ix, double* iy) {
  RemoveLensLanes2(plan, count, x, y, ix, iy);
}
int32_t IntersectLanes4(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                        double* iy, uint8_t* failed) {
  return IntersectLanes2(m, mode, count, h, ix, iy, failed);
}
#endif

}  // namespace epho::kernel

extern "C" {

int32_t epho_CameraObjectToImageBatch(const Epho_FilmProjection* projection, int32_t count,
                                      const double* X, const double* Y, const double* Z, double* x,
                                      double* y, uint8_t* failed) KZDV_NOEXCEPT {
  if (!projection || !projection->matrix || count < 0 || !X || !Y || !Z || !x || !y) return -1;
  return epho::kernel::ObjectToImageBatch(epho::BestVectorPath(), *projection, count, X, Y, Z, x, y,
                                          failed);
}

int32_t epho_CameraImageAndZToXYBatch(const Epho_FilmProjection* projection, int32_t count,
                                      const double* x, const double* y, const double* height,
                                      double* first, double* second,
                                      uint8_t* failed) KZDV_NOEXCEPT {
  if (!projection || !projection->matrix || count < 0 || !x || !y || !height || !first || !second)
    return -1;
  return epho::kernel::ImageAndZToXYBatch(epho::BestVectorPath(), *projection, count, x, y, height,
                                          first, second, failed);
}

}  // extern "C"
