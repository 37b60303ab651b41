// The 3D polynomial sensor model: image x, y as polynomials of ground X, Y, Z
// of order 1 to 3 in normalised coordinates, fitted from control points by
// least squares, inverted at a given height by Newton's method.
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "epho/sensors/sensors_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::sensors {

void Poly3DTerms(long order, double u, double v, double w, double* t) {
  t[0] = 1;
  t[1] = u;
  t[2] = v;
  t[3] = w;
  if (order < 2) return;
  t[4] = u * u;
  t[5] = u * v;
  t[6] = u * w;
  t[7] = v * v;
  t[8] = v * w;
  t[9] = w * w;
  if (order < 3) return;
  t[10] = u * t[4];
  t[11] = t[4] * v;
  t[12] = t[4] * w;
  t[13] = u * t[7];
  t[14] = u * t[8];
  t[15] = u * t[9];
  t[16] = v * t[7];
  t[17] = t[7] * w;
  t[18] = v * t[9];
  t[19] = w * t[9];
}

void Poly3DTermDerivatives(long order, double u, double v, double w, double* du, double* dv) {
  const double d_u[20] = {0,         1,         0,         0,     2 * u, v,     w, 0, 0, 0,
                          3 * u * u, 2 * u * v, 2 * u * w, v * v, v * w, w * w, 0, 0, 0, 0};
  const double d_v[20] = {0, 0,     1, 0,         0,     u, 0,         2 * v,     w,     0,
                          0, u * u, 0, 2 * u * v, u * w, 0, 3 * v * v, 2 * v * w, w * w, 0};
  const long n = EPHO_POLY3D_TERM_COUNT(order);
  std::copy(d_u, d_u + n, du);
  std::copy(d_v, d_v + n, dv);
}

namespace {

constexpr int kMaxNewtonSteps = 30;

// Relative size below which a singular value of the normalised design
// matrix counts as zero: the control does not determine that combination of
// terms.
constexpr double kRankTolerance = 1e-9;

void Forward(const Epho_Poly3DCoefficients& c, const double* g, double* image) {
  double t[EPHO_POLY3D_MAX_TERMS];
  Poly3DTerms(c.order, (g[0] - c.groundOffset[0]) / c.groundScale[0],
              (g[1] - c.groundOffset[1]) / c.groundScale[1],
              (g[2] - c.groundOffset[2]) / c.groundScale[2], t);
  double x = 0, y = 0;
  for (long k = 0; k < EPHO_POLY3D_TERM_COUNT(c.order); ++k) {
    x += c.xcoef[k] * t[k];
    y += c.ycoef[k] * t[k];
  }
  image[0] = c.imageOffset[0] + c.imageScale[0] * x;
  image[1] = c.imageOffset[1] + c.imageScale[1] * y;
}

bool Inverse(const Epho_Poly3DCoefficients& c, const double* image, double z, double* ground) {
  const long n = EPHO_POLY3D_TERM_COUNT(c.order);
  const double tx = (image[0] - c.imageOffset[0]) / c.imageScale[0];
  const double ty = (image[1] - c.imageOffset[1]) / c.imageScale[1];
  const double w = (z - c.groundOffset[2]) / c.groundScale[2];
  if (!std::isfinite(tx) || !std::isfinite(ty) || !std::isfinite(w)) return false;
  double u = 0, v = 0;
  for (int it = 0; it < kMaxNewtonSteps; ++it) {
    double t[EPHO_POLY3D_MAX_TERMS], du[EPHO_POLY3D_MAX_TERMS], dv[EPHO_POLY3D_MAX_TERMS];
    Poly3DTerms(c.order, u, v, w, t);
    Poly3DTermDerivatives(c.order, u, v, w, du, dv);
    double fx = -tx, fy = -ty, a = 0, b = 0, cc = 0, d = 0;
    for (long k = 0; k < n; ++k) {
      fx += c.xcoef[k] * t[k];
      fy += c.ycoef[k] * t[k];
      a += c.xcoef[k] * du[k];
      b += c.xcoef[k] * dv[k];
      cc += c.ycoef[k] * du[k];
      d += c.ycoef[k] * dv[k];
    }
    const double det = a * d - b * cc;
    if (!(std::fabs(det) > 1e-14) || !std::isfinite(det)) return false;
    const double su = (d * fx - b * fy) / det, sv = (a * fy - cc * fx) / det;
    u -= su;
    v -= sv;
    if (!std::isfinite(u) || !std::isfinite(v)) return false;
    if (std::fabs(su) < 1e-9 && std::fabs(sv) < 1e-9) {
      ground[0] = c.groundOffset[0] + c.groundScale[0] * u;
      ground[1] = c.groundOffset[1] + c.groundScale[1] * v;
      return true;
    }
  }
  return false;
}

// Mean and largest deviation of `count` values `stride` apart.
void Normalisation(long count, const double* values, int stride, double* offset, double* scale) {
  double sum = 0;
  for (long i = 0; i < count; ++i) sum += values[i * stride];
  *offset = sum / double(count);
  double dev = 0;
  for (long i = 0; i < count; ++i) dev = std::max(dev, std::fabs(values[i * stride] - *offset));
  *scale = dev > 0 ? dev : 1.0;
}

// ---- exfr routines.

using Poly3DModelOps =
    HeightModelOps<Epho_Poly3DModel, epho_Poly3DGroundToImage, epho_Poly3DImageToGround>;

// The ray through the ground points at the offset height and one scale above.
Emsc_Boolean OpsImageToGroundRay(void* model, double image_x, double image_y, double origin[3],
                                 double direction[3], Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_Poly3DImageToGroundRay";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const Epho_Poly3DModel*>(model);
  EERR_CHECK(Poly3DModelOps::RayBetweenHeights(m, image_x, image_y, m->c.groundOffset[2],
                                               m->c.groundOffset[2] + m->c.groundScale[2], origin,
                                               direction, frame.Callee()),
             frame, EMSC_FALSE, L"epho_Poly3DImageToGround failed");
  return EMSC_TRUE;
}

Emsc_Boolean OpsTransform2D(void* model, Efga_Matrix* points, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_Poly3DTransform";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const Epho_Poly3DModel*>(model);
  const long n = points->numrows * points->numcolumns / 2;
  for (long i = 0; i < n; ++i) {
    const double g[3] = {points->data[2 * i], points->data[2 * i + 1], m->c.groundOffset[2]};
    double image[2];
    Forward(m->c, g, image);
    EERR_FAIL_IF(!std::isfinite(image[0]) || !std::isfinite(image[1]), frame, EMSC_FALSE,
                 L"Ground point %ld does not project into the image", i);
    points->data[2 * i] = image[0];
    points->data[2 * i + 1] = image[1];
  }
  return EMSC_TRUE;
}

void* OpsCopy(const void* model, Eerr_ErrorReport** err) {
  return epho_Poly3DModelCreate(&static_cast<const Epho_Poly3DModel*>(model)->c, err);
}

void OpsDestroy(void* model) { epho_Poly3DModelFree(static_cast<Epho_Poly3DModel*>(model)); }

const Exfr_SensorModelOps kPoly3DOps = {"3D polynomial",     Poly3DModelOps::GroundToImage,
                                        OpsImageToGroundRay, Poly3DModelOps::ImageAndZToXY,
                                        OpsTransform2D,      OpsCopy,
                                        OpsDestroy};

}  // namespace
}  // namespace epho::sensors

using namespace epho::sensors;

extern "C" {

Epho_Poly3DModel* epho_Poly3DModelFit(long order, long count, const double* ground_xyz,
                                      const double* image_xy, double* residuals_xy, double* rmse,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DModelFit";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(order < 1 || order > 3, frame, nullptr,
               L"The polynomial order %ld is out of range (1 to 3)", order);
  EERR_FAIL_IF_NULL(ground_xyz, frame, nullptr);
  EERR_FAIL_IF_NULL(image_xy, frame, nullptr);
  const long n = EPHO_POLY3D_TERM_COUNT(order);
  EERR_FAIL_IF(count < n, frame, nullptr,
               L"An order %ld fit needs at least %ld control points, %ld given", order, n, count);
  for (long i = 0; i < count; ++i) {
    const double* g = ground_xyz + 3 * i;
    const double* p = image_xy + 2 * i;
    EERR_FAIL_IF(!std::isfinite(g[0]) || !std::isfinite(g[1]) || !std::isfinite(g[2]) ||
                     !std::isfinite(p[0]) || !std::isfinite(p[1]),
                 frame, nullptr, L"Control point %ld is not finite", i);
  }
  auto model = std::make_unique<Epho_Poly3DModel>();
  Epho_Poly3DCoefficients& c = model->c;
  std::memset(&c, 0, sizeof c);
  c.order = order;
  for (int k = 0; k < 3; ++k)
    Normalisation(count, ground_xyz + k, 3, &c.groundOffset[k], &c.groundScale[k]);
  for (int k = 0; k < 2; ++k)
    Normalisation(count, image_xy + k, 2, &c.imageOffset[k], &c.imageScale[k]);
  Eigen::MatrixXd a(count, n);
  Eigen::MatrixXd rhs(count, 2);
  for (long i = 0; i < count; ++i) {
    const double* g = ground_xyz + 3 * i;
    double t[EPHO_POLY3D_MAX_TERMS];
    Poly3DTerms(order, (g[0] - c.groundOffset[0]) / c.groundScale[0],
                (g[1] - c.groundOffset[1]) / c.groundScale[1],
                (g[2] - c.groundOffset[2]) / c.groundScale[2], t);
    for (long k = 0; k < n; ++k) a(i, k) = t[k];
    rhs(i, 0) = (image_xy[2 * i] - c.imageOffset[0]) / c.imageScale[0];
    rhs(i, 1) = (image_xy[2 * i + 1] - c.imageOffset[1]) / c.imageScale[1];
  }
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a, Eigen::ComputeThinU | Eigen::ComputeThinV);
  svd.setThreshold(kRankTolerance);
  EERR_FAIL_IF(svd.rank() < n, frame, nullptr,
               L"The control points do not determine an order %ld polynomial (rank %ld of %ld "
               L"terms): they lie on a surface of too low an order, e.g. all at one height",
               order, long(svd.rank()), n);
  const Eigen::MatrixXd x = svd.solve(rhs);
  for (long k = 0; k < n; ++k) {
    c.xcoef[k] = x(k, 0);
    c.ycoef[k] = x(k, 1);
  }
  double sum = 0;
  for (long i = 0; i < count; ++i) {
    double fit[2];
    Forward(c, ground_xyz + 3 * i, fit);
    const double dx = image_xy[2 * i] - fit[0], dy = image_xy[2 * i + 1] - fit[1];
    if (residuals_xy) {
      residuals_xy[2 * i] = dx;
      residuals_xy[2 * i + 1] = dy;
    }
    sum += dx * dx + dy * dy;
  }
  if (rmse) *rmse = std::sqrt(sum / double(count));
  return model.release();
}
EERR_BOUNDARY(err, nullptr)

Epho_Poly3DModel* epho_Poly3DModelCreate(const Epho_Poly3DCoefficients* coefficients,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DModelCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(coefficients, frame, nullptr);
  const Epho_Poly3DCoefficients& in = *coefficients;
  EERR_FAIL_IF(in.order < 1 || in.order > 3, frame, nullptr,
               L"The polynomial order %ld is out of range (1 to 3)", in.order);
  const long n = EPHO_POLY3D_TERM_COUNT(in.order);
  bool finite = true;
  for (int k = 0; k < 3; ++k)
    finite = finite && std::isfinite(in.groundOffset[k]) && std::isfinite(in.groundScale[k]) &&
             in.groundScale[k] != 0;
  for (int k = 0; k < 2; ++k)
    finite = finite && std::isfinite(in.imageOffset[k]) && std::isfinite(in.imageScale[k]) &&
             in.imageScale[k] != 0;
  for (long k = 0; k < n; ++k)
    finite = finite && std::isfinite(in.xcoef[k]) && std::isfinite(in.ycoef[k]);
  EERR_FAIL_IF(!finite, frame, nullptr,
               L"The polynomial has a non-finite coefficient or a zero or non-finite scale");
  auto model = std::make_unique<Epho_Poly3DModel>();
  model->c = in;
  for (long k = n; k < EPHO_POLY3D_MAX_TERMS; ++k) model->c.xcoef[k] = model->c.ycoef[k] = 0;
  return model.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean epho_Poly3DModelCoefficientsGet(const Epho_Poly3DModel* model,
                                             Epho_Poly3DCoefficients* coefficients,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DModelCoefficientsGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(coefficients, frame, EMSC_FALSE);
  *coefficients = model->c;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void epho_Poly3DModelFree(Epho_Poly3DModel* model) KZDV_NOEXCEPT { delete model; }

Emsc_Boolean epho_Poly3DGroundToImage(const Epho_Poly3DModel* model, long count,
                                      const double* ground_xyz, double* image_xy,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DGroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(ground_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  for (long i = 0; i < count; ++i) {
    Forward(model->c, ground_xyz + 3 * i, image_xy + 2 * i);
    EERR_FAIL_IF(!std::isfinite(image_xy[2 * i]) || !std::isfinite(image_xy[2 * i + 1]), frame,
                 EMSC_FALSE, L"Ground point %ld does not project into the image", i);
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_Poly3DImageToGround(const Epho_Poly3DModel* model, long count,
                                      const double* image_xy, const double* ground_z,
                                      double* ground_xy, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DImageToGround";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_z, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_xy, frame, EMSC_FALSE);
  for (long i = 0; i < count; ++i)
    EERR_FAIL_IF(
        !Inverse(model->c, image_xy + 2 * i, ground_z[i], ground_xy + 2 * i), frame, EMSC_FALSE,
        L"Image point %ld at height %g: the polynomial has no unique ground point", i, ground_z[i]);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Exfr_XForm* epho_Poly3DModelToExfr(const Epho_Poly3DModel* model,
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_Poly3DModelToExfr";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, nullptr);
  Epho_Poly3DModel* copy = epho_Poly3DModelCreate(&model->c, frame.Callee());
  EERR_CHECK(copy, frame, nullptr, L"epho_Poly3DModelCreate failed");
  Exfr_XForm* t = exfr_SensorModelXFormCreate(&kPoly3DOps, copy, frame.Callee());
  EERR_CHECK(t, frame, nullptr, L"exfr_SensorModelXFormCreate failed");
  return t;
}
EERR_BOUNDARY(err, nullptr)

const Exfr_SensorModelOps* epho_Poly3DSensorOps(void) KZDV_NOEXCEPT { return &kPoly3DOps; }

}  // extern "C"
