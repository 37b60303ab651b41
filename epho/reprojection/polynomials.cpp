// 2D polynomial transforms: algebra, normalised least-squares fits, the
// inverse fitted on a grid and the composition of two transforms.
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>

#include "epho/reprojection.h"
#include "epho/reprojection/poly_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::reprojection {

Poly2 Poly2::Zero(long order) {
  Poly2 p;
  p.order = order;
  p.c.assign(static_cast<size_t>(TermCount(order)), 0.0);
  return p;
}

Poly2 Poly2::Constant(double v) {
  Poly2 p = Zero(0);
  p.c[0] = v;
  return p;
}

Poly2 Poly2::FromCoefficients(long order, const double* coef) {
  Poly2 p = Zero(order);
  std::copy(coef, coef + TermCount(order), p.c.begin());
  return p;
}

double Poly2::Eval(double x, double y) const {
  // Powers once, then the terms in term order. Products inside the algebra
  // reach order 25 (5 after 5); larger ones take the heap.
  constexpr long kOnStack = kMaxOrder * kMaxOrder + 1;
  double xs[kOnStack], ys[kOnStack];
  std::vector<double> xv, yv;
  double* px = xs;
  double* py = ys;
  if (order >= kOnStack) {
    xv.resize(static_cast<size_t>(order + 1));
    yv.resize(static_cast<size_t>(order + 1));
    px = xv.data();
    py = yv.data();
  }
  px[0] = py[0] = 1.0;
  for (long k = 1; k <= order; ++k) {
    px[k] = px[k - 1] * x;
    py[k] = py[k - 1] * y;
  }
  double sum = 0.0;
  for (long n = 0; n <= order; ++n) {
    for (long j = 0; j <= n; ++j)
      sum += c[static_cast<size_t>(TermIndex(n - j, j))] * px[n - j] * py[j];
  }
  return sum;
}

Poly2 Poly2::operator+(const Poly2& o) const {
  Poly2 r = Zero(std::max(order, o.order));
  for (size_t k = 0; k < c.size(); ++k) r.c[k] += c[k];
  for (size_t k = 0; k < o.c.size(); ++k) r.c[k] += o.c[k];
  return r;
}

Poly2 Poly2::operator*(const Poly2& o) const {
  Poly2 r = Zero(order + o.order);
  for (long n1 = 0; n1 <= order; ++n1) {
    for (long j1 = 0; j1 <= n1; ++j1) {
      const double a = c[static_cast<size_t>(TermIndex(n1 - j1, j1))];
      if (a == 0.0) continue;
      for (long n2 = 0; n2 <= o.order; ++n2) {
        for (long j2 = 0; j2 <= n2; ++j2) {
          const double b = o.c[static_cast<size_t>(TermIndex(n2 - j2, j2))];
          r.c[static_cast<size_t>(TermIndex(n1 - j1 + n2 - j2, j1 + j2))] += a * b;
        }
      }
    }
  }
  return r;
}

Poly2 Poly2::operator*(double s) const {
  Poly2 r = *this;
  for (double& v : r.c) v *= s;
  return r;
}

Poly2 Substitute(const Poly2& p, const Poly2& X, const Poly2& Y) {
  // Powers of X and Y once, then sum a_ij X^i Y^j.
  std::vector<Poly2> xp{Poly2::Constant(1.0)}, yp{Poly2::Constant(1.0)};
  for (long k = 1; k <= p.order; ++k) {
    xp.push_back(xp.back() * X);
    yp.push_back(yp.back() * Y);
  }
  Poly2 r = Poly2::Zero(0);
  for (long n = 0; n <= p.order; ++n) {
    for (long j = 0; j <= n; ++j) {
      const double a = p.c[static_cast<size_t>(TermIndex(n - j, j))];
      if (a == 0.0) continue;
      r = r + (xp[static_cast<size_t>(n - j)] * yp[static_cast<size_t>(j)]) * a;
    }
  }
  return r;
}

Normalisation Normalisation::OfPoints(const std::vector<double>& xy) {
  double x0 = HUGE_VAL, y0 = HUGE_VAL, x1 = -HUGE_VAL, y1 = -HUGE_VAL;
  for (size_t k = 0; k + 1 < xy.size(); k += 2) {
    x0 = std::min(x0, xy[k]);
    x1 = std::max(x1, xy[k]);
    y0 = std::min(y0, xy[k + 1]);
    y1 = std::max(y1, xy[k + 1]);
  }
  Normalisation n;
  n.cx = 0.5 * (x0 + x1);
  n.cy = 0.5 * (y0 + y1);
  // A box of no width keeps scale 1: the fit then finds the points singular.
  n.sx = x1 > x0 ? 0.5 * (x1 - x0) : 1.0;
  n.sy = y1 > y0 ? 0.5 * (y1 - y0) : 1.0;
  return n;
}

Poly2 Normalisation::SPoly() const {
  Poly2 p = Poly2::Zero(1);
  p.c[0] = -cx / sx;
  p.c[1] = 1.0 / sx;
  return p;
}

Poly2 Normalisation::TPoly() const {
  Poly2 p = Poly2::Zero(1);
  p.c[0] = -cy / sy;
  p.c[2] = 1.0 / sy;
  return p;
}

bool FitNormalised(long order, const std::vector<double>& from_xy, const std::vector<double>& to_xy,
                   const Normalisation& norm, Poly2* px, Poly2* py) {
  const long n = static_cast<long>(from_xy.size() / 2);
  const long terms = TermCount(order);
  if (n < terms) return false;
  Eigen::MatrixXd A(n, terms);
  Eigen::MatrixXd b(n, 2);
  for (long r = 0; r < n; ++r) {
    const double s = norm.S(from_xy[2 * r]), t = norm.T(from_xy[2 * r + 1]);
    double sp[kMaxOrder + 1], tp[kMaxOrder + 1];
    sp[0] = tp[0] = 1.0;
    for (long k = 1; k <= order; ++k) {
      sp[k] = sp[k - 1] * s;
      tp[k] = tp[k - 1] * t;
    }
    for (long d = 0; d <= order; ++d) {
      for (long j = 0; j <= d; ++j) A(r, TermIndex(d - j, j)) = sp[d - j] * tp[j];
    }
    b(r, 0) = to_xy[2 * r];
    b(r, 1) = to_xy[2 * r + 1];
  }
  // Monomials of [-1, 1] coordinates are of order one, so a fixed relative
  // threshold on the pivots tells a degenerate point set from a poor one.
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr(A);
  qr.setThreshold(1e-10);
  if (qr.rank() < terms) return false;
  const Eigen::MatrixXd x = qr.solve(b);
  if (!x.allFinite()) return false;
  *px = Poly2::Zero(order);
  *py = Poly2::Zero(order);
  for (long k = 0; k < terms; ++k) {
    px->c[static_cast<size_t>(k)] = x(k, 0);
    py->c[static_cast<size_t>(k)] = x(k, 1);
  }
  return true;
}

std::vector<double> GridPoints(const double box[4], long n, bool with_centres) {
  std::vector<double> xy;
  const double dx = (box[2] - box[0]) / static_cast<double>(n - 1);
  const double dy = (box[3] - box[1]) / static_cast<double>(n - 1);
  for (long r = 0; r < n; ++r) {
    for (long c = 0; c < n; ++c) {
      xy.push_back(c == n - 1 ? box[2] : box[0] + static_cast<double>(c) * dx);
      xy.push_back(r == n - 1 ? box[3] : box[1] + static_cast<double>(r) * dy);
    }
  }
  if (with_centres) {
    for (long r = 0; r + 1 < n; ++r) {
      for (long c = 0; c + 1 < n; ++c) {
        xy.push_back(box[0] + (static_cast<double>(c) + 0.5) * dx);
        xy.push_back(box[1] + (static_cast<double>(r) + 0.5) * dy);
      }
    }
  }
  return xy;
}

namespace {

// Checks shared by the exported functions; false after a report in `frame`.
bool CoefficientsOk(kzdv::ErrorFrame& frame, const wchar_t* what, long order, const double* x,
                    const double* y) {
  if (order < 1 || order > kMaxOrder) {
    frame.Fail(__LINE__, L"The %s order %ld is outside 1..5", what, order);
    return false;
  }
  if (!x || !y) {
    frame.Fail(__LINE__, L"Args: %s coefficients are null", what);
    return false;
  }
  for (long k = 0; k < TermCount(order); ++k) {
    if (!std::isfinite(x[k]) || !std::isfinite(y[k])) {
      frame.Fail(__LINE__, L"The %s coefficients are not finite (term %ld)", what, k);
      return false;
    }
  }
  return true;
}

bool BoxOk(kzdv::ErrorFrame& frame, const double* box) {
  for (int k = 0; k < 4; ++k) {
    if (!std::isfinite(box[k])) {
      frame.Fail(__LINE__, L"The domain is not finite");
      return false;
    }
  }
  if (!(box[0] < box[2]) || !(box[1] < box[3])) {
    frame.Fail(__LINE__, L"The domain (%g, %g, %g, %g) is empty", box[0], box[1], box[2], box[3]);
    return false;
  }
  return true;
}

// 500 x 500 nodes keep the design matrix of an order-5 fit near 40 MB.
constexpr long kMaxGrid = 500;

bool GridOk(kzdv::ErrorFrame& frame, long* grid, long order) {
  if (*grid <= 0) *grid = EPHO_POLY_DEFAULT_GRID;
  if (*grid < 2 || *grid * *grid < TermCount(order) || *grid > kMaxGrid) {
    frame.Fail(__LINE__, L"A grid of %ld x %ld nodes cannot fit order %ld", *grid, *grid, order);
    return false;
  }
  return true;
}

// Measures |fitted(p) - truth(p)| over the points.
template <typename Fitted, typename Truth>
Epho_FitResidual Measure(const std::vector<double>& xy, Fitted fitted, Truth truth) {
  Epho_FitResidual r{0.0, 0.0, 0};
  double sum = 0.0;
  for (size_t k = 0; k + 1 < xy.size(); k += 2) {
    double fx, fy, tx, ty;
    fitted(xy[k], xy[k + 1], &fx, &fy);
    truth(xy[k], xy[k + 1], &tx, &ty);
    const double d = std::hypot(fx - tx, fy - ty);
    r.maxError = std::max(r.maxError, std::isfinite(d) ? d : HUGE_VAL);
    sum += d * d;
    ++r.samples;
  }
  r.rmsError = r.samples ? std::sqrt(sum / static_cast<double>(r.samples)) : 0.0;
  return r;
}

void Store(const Poly2& p, long order, double* out) {
  for (long k = 0; k < TermCount(order); ++k)
    out[k] = k < static_cast<long>(p.c.size()) ? p.c[static_cast<size_t>(k)] : 0.0;
}

}  // namespace
}  // namespace epho::reprojection

using namespace epho::reprojection;

extern "C" {

Emsc_Boolean epho_PolyCoefficientsInvert(long order, const double* xcoef, const double* ycoef,
                                         const double domain[4], long grid, long inverseOrder,
                                         double* inverseXcoef, double* inverseYcoef,
                                         Epho_FitResidual* residual,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_PolyCoefficientsInvert";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(domain, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(inverseXcoef, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(inverseYcoef, frame, EMSC_FALSE);
  if (!CoefficientsOk(frame, L"forward", order, xcoef, ycoef)) return EMSC_FALSE;
  if (inverseOrder == 0) inverseOrder = order;
  EERR_FAIL_IF(inverseOrder < 1 || inverseOrder > kMaxOrder, frame, EMSC_FALSE,
               L"The inverse order %ld is outside 1..5", inverseOrder);
  if (!BoxOk(frame, domain) || !GridOk(frame, &grid, inverseOrder)) return EMSC_FALSE;

  const Poly2 fx = Poly2::FromCoefficients(order, xcoef);
  const Poly2 fy = Poly2::FromCoefficients(order, ycoef);
  // Partial derivatives as polynomials, for the fold test.
  auto derivative = [](const Poly2& p, bool by_x) {
    Poly2 d = Poly2::Zero(std::max(0L, p.order - 1));
    for (long n = 1; n <= p.order; ++n) {
      for (long j = 0; j <= n; ++j) {
        const long i = n - j;
        const double a = p.c[static_cast<size_t>(TermIndex(i, j))];
        if (by_x && i > 0)
          d.c[static_cast<size_t>(TermIndex(i - 1, j))] += a * static_cast<double>(i);
        if (!by_x && j > 0)
          d.c[static_cast<size_t>(TermIndex(i, j - 1))] += a * static_cast<double>(j);
      }
    }
    return d;
  };
  const Poly2 fxx = derivative(fx, true), fxy = derivative(fx, false);
  const Poly2 fyx = derivative(fy, true), fyy = derivative(fy, false);

  const std::vector<double> nodes = GridPoints(domain, grid, false);
  const std::vector<double> checks = GridPoints(domain, grid, true);
  std::vector<double> mapped(nodes.size());
  double det_min = HUGE_VAL, det_max = -HUGE_VAL, jac_scale = 0.0;
  for (size_t k = 0; k < nodes.size(); k += 2) {
    const double x = nodes[k], y = nodes[k + 1];
    mapped[k] = fx.Eval(x, y);
    mapped[k + 1] = fy.Eval(x, y);
    EERR_FAIL_IF(!std::isfinite(mapped[k]) || !std::isfinite(mapped[k + 1]), frame, EMSC_FALSE,
                 L"The forward transform overflows at (%g, %g)", x, y);
    const double a = fxx.Eval(x, y), b = fxy.Eval(x, y), c = fyx.Eval(x, y), d = fyy.Eval(x, y);
    const double det = a * d - b * c;
    det_min = std::min(det_min, det);
    det_max = std::max(det_max, det);
    jac_scale = std::max(jac_scale, std::fabs(a * d) + std::fabs(b * c));
  }
  // A determinant that reaches zero (relative to its terms) or changes sign
  // means the transform folds: no single-valued inverse over the domain.
  const double tiny = 1e-12 * jac_scale;
  EERR_FAIL_IF(jac_scale == 0.0 || (det_min <= tiny && det_max >= -tiny), frame, EMSC_FALSE,
               L"The transform is singular or folds over the domain: it has no inverse there");

  const Normalisation norm = Normalisation::OfPoints(mapped);
  Poly2 inv_s, inv_t;
  EERR_FAIL_IF(!FitNormalised(inverseOrder, mapped, nodes, norm, &inv_s, &inv_t), frame, EMSC_FALSE,
               L"The inverse fit of order %ld is singular", inverseOrder);
  const Poly2 ix = Substitute(inv_s, norm.SPoly(), norm.TPoly());
  const Poly2 iy = Substitute(inv_t, norm.SPoly(), norm.TPoly());
  for (double v : ix.c)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"The inverse overflows");
  for (double v : iy.c)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"The inverse overflows");

  if (residual) {
    *residual = Measure(
        checks,
        [&](double x, double y, double* ox, double* oy) {
          const double u = fx.Eval(x, y), v = fy.Eval(x, y);
          *ox = ix.Eval(u, v);
          *oy = iy.Eval(u, v);
        },
        [](double x, double y, double* ox, double* oy) {
          *ox = x;
          *oy = y;
        });
  }
  Store(ix, inverseOrder, inverseXcoef);
  Store(iy, inverseOrder, inverseYcoef);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_MergePolynomials(long firstOrder, const double* firstX, const double* firstY,
                                   long secondOrder, const double* secondX, const double* secondY,
                                   long maxOrder, const double domain[4], long grid,
                                   long* mergedOrder, double* mergedX, double* mergedY,
                                   Epho_FitResidual* residual, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_MergePolynomials";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(mergedOrder, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(mergedX, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(mergedY, frame, EMSC_FALSE);
  if (!CoefficientsOk(frame, L"first", firstOrder, firstX, firstY) ||
      !CoefficientsOk(frame, L"second", secondOrder, secondX, secondY))
    return EMSC_FALSE;
  EERR_FAIL_IF(maxOrder < 1 || maxOrder > kMaxOrder, frame, EMSC_FALSE,
               L"The maximum order %ld is outside 1..5", maxOrder);
  const bool exact = firstOrder * secondOrder <= maxOrder;
  const long order = exact ? firstOrder * secondOrder : maxOrder;
  EERR_FAIL_IF(!exact && !domain, frame, EMSC_FALSE,
               L"Order %ld of the composition exceeds %ld: a fit needs a domain",
               firstOrder * secondOrder, maxOrder);
  if (domain && (!BoxOk(frame, domain) || !GridOk(frame, &grid, order))) return EMSC_FALSE;

  const Poly2 ax = Poly2::FromCoefficients(firstOrder, firstX);
  const Poly2 ay = Poly2::FromCoefficients(firstOrder, firstY);
  const Poly2 bx = Poly2::FromCoefficients(secondOrder, secondX);
  const Poly2 by = Poly2::FromCoefficients(secondOrder, secondY);
  auto rigorous = [&](double x, double y, double* ox, double* oy) {
    const double u = ax.Eval(x, y), v = ay.Eval(x, y);
    *ox = bx.Eval(u, v);
    *oy = by.Eval(u, v);
  };

  Poly2 mx, my;
  if (exact) {
    mx = Substitute(bx, ax, ay);
    my = Substitute(by, ax, ay);
  } else {
    const std::vector<double> nodes = GridPoints(domain, grid, false);
    std::vector<double> values(nodes.size());
    for (size_t k = 0; k < nodes.size(); k += 2) {
      rigorous(nodes[k], nodes[k + 1], &values[k], &values[k + 1]);
      EERR_FAIL_IF(!std::isfinite(values[k]) || !std::isfinite(values[k + 1]), frame, EMSC_FALSE,
                   L"The composition overflows at (%g, %g)", nodes[k], nodes[k + 1]);
    }
    const Normalisation norm = Normalisation::OfPoints(nodes);
    Poly2 s, t;
    EERR_FAIL_IF(!FitNormalised(order, nodes, values, norm, &s, &t), frame, EMSC_FALSE,
                 L"The fit of order %ld is singular", order);
    mx = Substitute(s, norm.SPoly(), norm.TPoly());
    my = Substitute(t, norm.SPoly(), norm.TPoly());
  }
  for (double v : mx.c)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"The composition overflows");
  for (double v : my.c)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"The composition overflows");

  if (residual) {
    *residual = Epho_FitResidual{0.0, 0.0, 0};
    if (domain) {
      *residual = Measure(
          GridPoints(domain, grid, true),
          [&](double x, double y, double* ox, double* oy) {
            *ox = mx.Eval(x, y);
            *oy = my.Eval(x, y);
          },
          rigorous);
    }
  }
  *mergedOrder = order;
  Store(mx, order, mergedX);
  Store(my, order, mergedY);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
