// Transform objects: polynomials, their numerical inverses, chains and
// sensor models registered by a sensor library.
#include "exfr.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "platform/eerr/error_frame.h"

struct Exfr_XForm {
  enum Kind { kPolynomial, kPolynomialInverse, kChain, kSensorModel };
  Kind kind = kPolynomial;
  // kPolynomial: the map; kPolynomialInverse: the forward map it inverts.
  long order = 1;
  std::vector<double> xcoef, ycoef;
  std::vector<std::unique_ptr<Exfr_XForm>> chain;  // applied front to back
  const Exfr_SensorModelOps* ops = nullptr;
  void* model = nullptr;

  Exfr_XForm() = default;
  Exfr_XForm(const Exfr_XForm&) = delete;
  Exfr_XForm& operator=(const Exfr_XForm&) = delete;
  ~Exfr_XForm() {
    if (kind == kSensorModel && ops && ops->destroy && model) ops->destroy(model);
  }
};

namespace {

using XFormPtr = std::unique_ptr<Exfr_XForm>;

constexpr long kMaxOrder = 5;
constexpr int kMaxNewtonSteps = 60;
constexpr double kNewtonTolerance = 1e-10;  // relative to 1 + |target|

// Value and first derivatives of a polynomial at (x, y). Powers come from a
// small table on the stack: no pow, no allocation.
void EvalPolynomial(const Exfr_XForm& p, double x, double y, double* fx, double* fy,
                    double jac[4] = nullptr) {
  double xp[kMaxOrder + 1], yp[kMaxOrder + 1];
  xp[0] = yp[0] = 1.0;
  for (long k = 1; k <= p.order; ++k) {
    xp[k] = xp[k - 1] * x;
    yp[k] = yp[k - 1] * y;
  }
  double vx = 0, vy = 0, dxx = 0, dxy = 0, dyx = 0, dyy = 0;
  size_t k = 0;
  for (long d = 0; d <= p.order; ++d) {
    for (long i = d; i >= 0; --i, ++k) {
      const long j = d - i;
      const double t = xp[i] * yp[j];
      vx += p.xcoef[k] * t;
      vy += p.ycoef[k] * t;
      if (jac) {
        const double tdx = i ? i * xp[i - 1] * yp[j] : 0.0;
        const double tdy = j ? j * xp[i] * yp[j - 1] : 0.0;
        dxx += p.xcoef[k] * tdx;
        dxy += p.xcoef[k] * tdy;
        dyx += p.ycoef[k] * tdx;
        dyy += p.ycoef[k] * tdy;
      }
    }
  }
  *fx = vx;
  *fy = vy;
  if (jac) {
    jac[0] = dxx;
    jac[1] = dxy;
    jac[2] = dyx;
    jac[3] = dyy;
  }
}

// Solves p(x, y) = (tx, ty) by Newton from the inverse of the linear part.
// Converged when the Newton step is at rounding level; accepted then only if
// the residual is within kNewtonTolerance of the target.
bool InvertPoint(const Exfr_XForm& p, double tx, double ty, double* x, double* y) {
  const double a = p.xcoef[1], b = p.xcoef[2], c = p.ycoef[1], d = p.ycoef[2];
  const double det = a * d - b * c;
  if (det == 0.0 || !std::isfinite(det)) return false;
  double cx = (d * (tx - p.xcoef[0]) - b * (ty - p.ycoef[0])) / det;
  double cy = (-c * (tx - p.xcoef[0]) + a * (ty - p.ycoef[0])) / det;
  const double tol = kNewtonTolerance * (1.0 + std::max(std::fabs(tx), std::fabs(ty)));
  for (int step = 0; step < kMaxNewtonSteps; ++step) {
    double fx, fy, j[4];
    EvalPolynomial(p, cx, cy, &fx, &fy, j);
    const double rx = fx - tx, ry = fy - ty;
    const double jd = j[0] * j[3] - j[1] * j[2];
    if (!std::isfinite(rx) || !std::isfinite(ry) || jd == 0.0 || !std::isfinite(jd)) return false;
    const double sx = (j[3] * rx - j[1] * ry) / jd;
    const double sy = (-j[2] * rx + j[0] * ry) / jd;
    cx -= sx;
    cy -= sy;
    const double scale = 1.0 + std::max(std::fabs(cx), std::fabs(cy));
    if (std::max(std::fabs(sx), std::fabs(sy)) <= 1e-13 * scale) {
      EvalPolynomial(p, cx, cy, &fx, &fy);
      if (std::fabs(fx - tx) > tol || std::fabs(fy - ty) > tol) return false;
      *x = cx;
      *y = cy;
      return true;
    }
  }
  return false;
}

// Applies one transform in place to n points; on failure names the point.
bool ApplyInPlace(const Exfr_XForm& t, Efga_Matrix* pts, kzdv::ErrorFrame& frame) {
  const long n = pts->numcolumns;
  switch (t.kind) {
    case Exfr_XForm::kPolynomial:
      for (long i = 0; i < n; ++i) {
        double& x = EFGA_MATRIX_AT(pts, 0, i);
        double& y = EFGA_MATRIX_AT(pts, 1, i);
        EvalPolynomial(t, x, y, &x, &y);
      }
      return true;
    case Exfr_XForm::kPolynomialInverse:
      for (long i = 0; i < n; ++i) {
        double& x = EFGA_MATRIX_AT(pts, 0, i);
        double& y = EFGA_MATRIX_AT(pts, 1, i);
        if (!InvertPoint(t, x, y, &x, &y)) {
          frame.Fail(__LINE__, L"Polynomial inverse did not converge at point %ld (%.6f, %.6f)", i,
                     x, y);
          return false;
        }
      }
      return true;
    case Exfr_XForm::kChain:
      for (const auto& step : t.chain)
        if (!ApplyInPlace(*step, pts, frame)) return false;
      return true;
    case Exfr_XForm::kSensorModel:
      if (!t.ops->transform2D) {
        frame.Fail(__LINE__, L"Sensor model %hs has no 2D transform",
                   t.ops->name ? t.ops->name : "");
        return false;
      }
      if (!t.ops->transform2D(t.model, pts, frame.Callee()) || frame.CalleeFailed()) {
        frame.Fail(__LINE__, L"%hs transform failed", t.ops->name ? t.ops->name : "sensor model");
        return false;
      }
      return true;
  }
  return false;
}

XFormPtr CopyOf(const Exfr_XForm& t, kzdv::ErrorFrame& frame) {
  XFormPtr c(new Exfr_XForm);
  c->kind = t.kind;
  c->order = t.order;
  c->xcoef = t.xcoef;
  c->ycoef = t.ycoef;
  for (const auto& step : t.chain) {
    XFormPtr s = CopyOf(*step, frame);
    if (!s) return nullptr;
    c->chain.push_back(std::move(s));
  }
  if (t.kind == Exfr_XForm::kSensorModel) {
    if (!t.ops->copy) {
      frame.Fail(__LINE__, L"Sensor model %hs cannot be copied", t.ops->name ? t.ops->name : "");
      return nullptr;
    }
    void* m = t.ops->copy(t.model, frame.Callee());
    if (!m || frame.CalleeFailed()) {
      if (m && t.ops->destroy) t.ops->destroy(m);
      frame.Fail(__LINE__, L"%hs copy failed", t.ops->name ? t.ops->name : "sensor model");
      return nullptr;
    }
    c->ops = t.ops;
    c->model = m;
  }
  return c;
}

XFormPtr AffineFromLibraryForm(const double c[6]) {
  XFormPtr t(new Exfr_XForm);
  t->order = 1;
  t->xcoef = {c[2], c[0], c[1]};
  t->ycoef = {c[5], c[3], c[4]};
  return t;
}

bool IsAffine(const Exfr_XForm& t) { return t.kind == Exfr_XForm::kPolynomial && t.order == 1; }

// second(first(p)) for two affines, as one affine.
XFormPtr ComposeAffine(const Exfr_XForm& f, const Exfr_XForm& s) {
  XFormPtr t(new Exfr_XForm);
  t->order = 1;
  const double* fx = f.xcoef.data();
  const double* fy = f.ycoef.data();
  const double* sx = s.xcoef.data();
  const double* sy = s.ycoef.data();
  t->xcoef = {sx[0] + sx[1] * fx[0] + sx[2] * fy[0], sx[1] * fx[1] + sx[2] * fy[1],
              sx[1] * fx[2] + sx[2] * fy[2]};
  t->ycoef = {sy[0] + sy[1] * fx[0] + sy[2] * fy[0], sy[1] * fx[1] + sy[2] * fy[1],
              sy[1] * fx[2] + sy[2] * fy[2]};
  return t;
}

XFormPtr InverseOf(const Exfr_XForm& t, kzdv::ErrorFrame& frame) {
  switch (t.kind) {
    case Exfr_XForm::kPolynomial: {
      if (t.order > 1) {
        XFormPtr inv = CopyOf(t, frame);
        inv->kind = Exfr_XForm::kPolynomialInverse;
        const double det = t.xcoef[1] * t.ycoef[2] - t.xcoef[2] * t.ycoef[1];
        if (det == 0.0) {
          frame.Fail(__LINE__, L"The linear part of the polynomial is singular");
          return nullptr;
        }
        return inv;
      }
      const double a = t.xcoef[1], b = t.xcoef[2], c = t.ycoef[1], d = t.ycoef[2];
      const double det = a * d - b * c;
      if (det == 0.0 || !std::isfinite(det)) {
        frame.Fail(__LINE__, L"The affine transform is singular");
        return nullptr;
      }
      XFormPtr inv(new Exfr_XForm);
      inv->order = 1;
      const double e = t.xcoef[0], f = t.ycoef[0];
      inv->xcoef = {(b * f - d * e) / det, d / det, -b / det};
      inv->ycoef = {(c * e - a * f) / det, -c / det, a / det};
      return inv;
    }
    case Exfr_XForm::kPolynomialInverse: {
      XFormPtr fwd = CopyOf(t, frame);
      fwd->kind = Exfr_XForm::kPolynomial;
      return fwd;
    }
    case Exfr_XForm::kChain: {
      XFormPtr inv(new Exfr_XForm);
      inv->kind = Exfr_XForm::kChain;
      for (auto it = t.chain.rbegin(); it != t.chain.rend(); ++it) {
        XFormPtr s = InverseOf(**it, frame);
        if (!s) return nullptr;
        inv->chain.push_back(std::move(s));
      }
      return inv;
    }
    case Exfr_XForm::kSensorModel:
      frame.Fail(__LINE__, L"A sensor model transform has no inverse transform object");
      return nullptr;
  }
  return nullptr;
}

bool CheckXForm(const Exfr_XForm* t, kzdv::ErrorFrame& frame) {
  if (t) return true;
  frame.Fail(__LINE__, L"No transform");
  return false;
}

const Exfr_SensorModelOps* SensorOps(const Exfr_XForm* t, kzdv::ErrorFrame& frame) {
  if (!CheckXForm(t, frame)) return nullptr;
  if (t->kind != Exfr_XForm::kSensorModel) {
    frame.Fail(__LINE__, L"The transform is not a sensor model");
    return nullptr;
  }
  return t->ops;
}

}  // namespace

extern "C" {

Exfr_XForm* exfr_PolynomialXFormCreate(long order, const double* xcoef, const double* ycoef,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_PolynomialXFormCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(order < 1 || order > kMaxOrder, frame, nullptr,
               L"Polynomial order %ld is outside 1..%ld", order, kMaxOrder);
  EERR_FAIL_IF(!xcoef || !ycoef, frame, nullptr, L"No coefficients");
  const long terms = EXFR_POLY_TERM_COUNT(order);
  for (long k = 0; k < terms; ++k)
    EERR_FAIL_IF(!std::isfinite(xcoef[k]) || !std::isfinite(ycoef[k]), frame, nullptr,
                 L"Coefficient %ld is not a finite number", k);
  try {
    XFormPtr t(new Exfr_XForm);
    t->order = order;
    t->xcoef.assign(xcoef, xcoef + terms);
    t->ycoef.assign(ycoef, ycoef + terms);
    return t.release();
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

Exfr_XForm* exfr_AffineXFormCreate(const double coef[6], Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_AffineXFormCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!coef, frame, nullptr, L"No coefficients");
  for (int k = 0; k < 6; ++k)
    EERR_FAIL_IF(!std::isfinite(coef[k]), frame, nullptr, L"Coefficient %d is not a finite number",
                 k);
  try {
    return AffineFromLibraryForm(coef).release();
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

Exfr_XForm* exfr_IdentityXFormCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  const double identity[6] = {1, 0, 0, 0, 1, 0};
  return exfr_AffineXFormCreate(identity, err);
}
EERR_BOUNDARY(err, nullptr)

Exfr_XForm* exfr_XFormCompose(const Exfr_XForm* first, const Exfr_XForm* second,
                              Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_XFormCompose";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckXForm(first, frame) || !CheckXForm(second, frame)) return nullptr;
  try {
    if (IsAffine(*first) && IsAffine(*second)) return ComposeAffine(*first, *second).release();
    XFormPtr chain(new Exfr_XForm);
    chain->kind = Exfr_XForm::kChain;
    for (const Exfr_XForm* part : {first, second}) {
      if (part->kind == Exfr_XForm::kChain) {
        for (const auto& step : part->chain) {
          XFormPtr s = CopyOf(*step, frame);
          if (!s) return nullptr;
          chain->chain.push_back(std::move(s));
        }
      } else {
        XFormPtr s = CopyOf(*part, frame);
        if (!s) return nullptr;
        chain->chain.push_back(std::move(s));
      }
    }
    return chain.release();
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

Exfr_XForm* exfr_SensorModelXFormCreate(const Exfr_SensorModelOps* ops, void* model,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_SensorModelXFormCreate";
  kzdv::ErrorFrame frame(kFn, err);
  if (!ops || !model || !ops->groundToImage || !ops->imageAndGroundZToGroundXY) {
    if (ops && ops->destroy && model) ops->destroy(model);
    EERR_FAIL(frame, nullptr, L"A sensor model needs its object and ground/image routines");
  }
  Exfr_XForm* t = new (std::nothrow) Exfr_XForm;
  if (!t) {
    if (ops->destroy) ops->destroy(model);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  t->kind = Exfr_XForm::kSensorModel;
  t->ops = ops;
  t->model = model;
  return t;
}
EERR_BOUNDARY(err, nullptr)

Exfr_XForm* exfr_XFormCopy(const Exfr_XForm* xform, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_XFormCopy";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckXForm(xform, frame)) return nullptr;
  try {
    return CopyOf(*xform, frame).release();
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

void exfr_XFormFree(Exfr_XForm* xform) KZDV_NOEXCEPT { delete xform; }

Emsc_Boolean exfr_Transform(const Exfr_XForm* xform, const Efga_Matrix* in, Efga_Matrix* out,
                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_Transform";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckXForm(xform, frame)) return EMSC_FALSE;
  EERR_FAIL_IF(!in || !out || !in->data || !out->data, frame, EMSC_FALSE, L"No point matrix");
  EERR_FAIL_IF(in->numrows != 2 || out->numrows != 2 || in->numcolumns != out->numcolumns, frame,
               EMSC_FALSE,
               L"Point matrices must be 2 x n of equal size (got %ld x %ld and %ld x %ld)",
               in->numrows, in->numcolumns, out->numrows, out->numcolumns);
  try {
    // Work on a copy so that a failure leaves the caller's output unchanged.
    std::vector<double> work(in->data, in->data + 2 * in->numcolumns);
    Efga_Matrix w{2, in->numcolumns, work.data()};
    if (!ApplyInPlace(*xform, &w, frame)) return EMSC_FALSE;
    for (long i = 0; i < w.numcolumns; ++i)
      EERR_FAIL_IF(!std::isfinite(work[2 * i]) || !std::isfinite(work[2 * i + 1]), frame,
                   EMSC_FALSE, L"Point %ld has no finite transformed position", i);
    std::memcpy(out->data, work.data(), sizeof(double) * work.size());
    return EMSC_TRUE;
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

Exfr_XForm* exfr_XFormInvert(const Exfr_XForm* xform, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_XFormInvert";
  kzdv::ErrorFrame frame(kFn, err);
  if (!CheckXForm(xform, frame)) return nullptr;
  try {
    return InverseOf(*xform, frame).release();
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

long exfr_XFormPolynomialOrder(const Exfr_XForm* xform) KZDV_NOEXCEPT {
  return xform && xform->kind == Exfr_XForm::kPolynomial ? xform->order : 0;
}

Emsc_Boolean exfr_PolynomialCoefficientsGet(const Exfr_XForm* xform, double* xcoef, double* ycoef,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_PolynomialCoefficientsGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || xform->kind != Exfr_XForm::kPolynomial, frame, EMSC_FALSE,
               L"The transform is not a polynomial");
  EERR_FAIL_IF(!xcoef || !ycoef, frame, EMSC_FALSE, L"No coefficient arrays");
  std::copy(xform->xcoef.begin(), xform->xcoef.end(), xcoef);
  std::copy(xform->ycoef.begin(), xform->ycoef.end(), ycoef);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean exfr_GroundToImage(const Exfr_XForm* xform, long count, const double* ground_xyz,
                                double* image_xy, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_GroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  const Exfr_SensorModelOps* ops = SensorOps(xform, frame);
  if (!ops) return EMSC_FALSE;
  EERR_FAIL_IF(count < 0 || (count > 0 && (!ground_xyz || !image_xy)), frame, EMSC_FALSE,
               L"No points");
  EERR_CHECK(ops->groundToImage(xform->model, count, ground_xyz, image_xy, frame.Callee()), frame,
             EMSC_FALSE, L"%hs ground to image failed", ops->name ? ops->name : "sensor model");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean exfr_ImageToGroundRay(const Exfr_XForm* xform, double image_x, double image_y,
                                   double origin_xyz[3], double direction_xyz[3],
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"exfr_ImageToGroundRay";
  kzdv::ErrorFrame frame(kFn, err);
  const Exfr_SensorModelOps* ops = SensorOps(xform, frame);
  if (!ops) return EMSC_FALSE;
  EERR_FAIL_IF(!ops->imageToGroundRay, frame, EMSC_FALSE, L"Sensor model %hs has no image rays",
               ops->name ? ops->name : "");
  EERR_FAIL_IF(!origin_xyz || !direction_xyz, frame, EMSC_FALSE, L"No ray output");
  EERR_CHECK(ops->imageToGroundRay(xform->model, image_x, image_y, origin_xyz, direction_xyz,
                                   frame.Callee()),
             frame, EMSC_FALSE, L"%hs image to ground ray failed",
             ops->name ? ops->name : "sensor model");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean exfr_ImageAndGroundZToGroundXY(const Exfr_XForm* xform, long count,
                                            const double* image_xy, const double* ground_z,
                                            double* ground_xy, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"exfr_ImageAndGroundZToGroundXY";
  kzdv::ErrorFrame frame(kFn, err);
  const Exfr_SensorModelOps* ops = SensorOps(xform, frame);
  if (!ops) return EMSC_FALSE;
  EERR_FAIL_IF(count < 0 || (count > 0 && (!image_xy || !ground_z || !ground_xy)), frame,
               EMSC_FALSE, L"No points");
  EERR_CHECK(ops->imageAndGroundZToGroundXY(xform->model, count, image_xy, ground_z, ground_xy,
                                            frame.Callee()),
             frame, EMSC_FALSE, L"%hs image and height to ground failed",
             ops->name ? ops->name : "sensor model");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void* exfr_XFormSensorModelGet(const Exfr_XForm* xform,
                               const Exfr_SensorModelOps* ops) KZDV_NOEXCEPT {
  if (!xform || xform->kind != Exfr_XForm::kSensorModel || xform->ops != ops) return nullptr;
  return xform->model;
}

}  // extern "C"
