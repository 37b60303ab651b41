// Polynomial inverse and composition against independent truth: Eigen's
// inverse of an affine, the toolkit's Newton inverse and chained transforms.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

#include "epho/reprojection.h"
#include "epho/reprojection/reprojection_testing_internal.h"

namespace {

using reprojtest::Report;

// Evaluates a polynomial through the toolkit's own transform object.
void Apply(long order, const double* xc, const double* yc, double x, double y, double* ox,
           double* oy) {
  Exfr_XForm* t = exfr_PolynomialXFormCreate(order, xc, yc, nullptr);
  ASSERT_NE(t, nullptr);
  double in[2] = {x, y};
  Efga_Matrix m{2, 1, in};
  ASSERT_TRUE(exfr_Transform(t, &m, &m, nullptr));
  *ox = in[0];
  *oy = in[1];
  exfr_XFormFree(t);
}

// A gently non-linear quadratic over [0, 1000]²: the second-order terms move
// the corners by about 1 % of the extent.
const double kQuadX[6] = {12.0, 1.02, 0.05, 4e-6, -3e-6, 2e-6};
const double kQuadY[6] = {-7.0, -0.04, 0.98, -2e-6, 5e-6, 3e-6};
const double kDomain[4] = {0.0, 0.0, 1000.0, 1000.0};

TEST(PolyInvert, AffineInverseIsExactAgainstEigen) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  for (int trial = 0; trial < 20; ++trial) {
    const double xc[3] = {u(rng) * 1e5, u(rng), u(rng)};
    const double yc[3] = {u(rng) * 1e5, u(rng), u(rng)};
    Eigen::Matrix2d A;
    A << xc[1], xc[2], yc[1], yc[2];
    if (std::fabs(A.determinant()) < 0.1) continue;
    const Eigen::Matrix2d Ai = A.inverse();
    const Eigen::Vector2d t = -Ai * Eigen::Vector2d(xc[0], yc[0]);
    double ix[3], iy[3];
    Epho_FitResidual res{};
    ASSERT_TRUE(epho_PolyCoefficientsInvert(1, xc, yc, kDomain, 0, 0, ix, iy, &res, nullptr));
    EXPECT_NEAR(ix[1], Ai(0, 0), 1e-12 * Ai.norm());
    EXPECT_NEAR(ix[2], Ai(0, 1), 1e-12 * Ai.norm());
    EXPECT_NEAR(iy[1], Ai(1, 0), 1e-12 * Ai.norm());
    EXPECT_NEAR(iy[2], Ai(1, 1), 1e-12 * Ai.norm());
    EXPECT_NEAR(ix[0], t(0), 1e-9 * t.norm());
    EXPECT_NEAR(iy[0], t(1), 1e-9 * t.norm());
    EXPECT_EQ(res.samples, 21 * 21 + 20 * 20);
    EXPECT_LT(res.maxError, 1e-8);
  }
}

// The fitted inverse of a quadratic, checked at random points against the
// toolkit's Newton inverse. The inverse of x + e(x) has the series
// x - e(x) + e'(x) e(x) - ...; with |e| about 1 % of the extent L the term
// left out by an order-n fit is about L (0.01)^n, so order 3 must stay
// within 1000 * 1e-6 = 1e-3 and each order must gain on the one before.
TEST(PolyInvert, QuadraticInverseResidualIsReportedAndHonest) {
  Exfr_XForm* fwd = exfr_PolynomialXFormCreate(2, kQuadX, kQuadY, nullptr);
  Exfr_XForm* newton = exfr_XFormInvert(fwd, nullptr);
  ASSERT_NE(newton, nullptr);
  double previous = HUGE_VAL;
  for (long order : {1L, 2L, 3L, 4L}) {
    SCOPED_TRACE(order);
    double ix[21], iy[21];
    Epho_FitResidual res{};
    ASSERT_TRUE(
        epho_PolyCoefficientsInvert(2, kQuadX, kQuadY, kDomain, 0, order, ix, iy, &res, nullptr));
    EXPECT_LT(res.maxError, previous * 0.5);
    EXPECT_LE(res.rmsError, res.maxError);
    previous = res.maxError;
    if (order == 3) {
      EXPECT_LT(res.maxError, 1e-3);
    }
    // Independent check: forward a random domain point, invert both ways.
    std::mt19937 rng{static_cast<unsigned>(order)};
    std::uniform_real_distribution<double> u(0.0, 1000.0);
    double worst = 0.0;
    for (int k = 0; k < 500; ++k) {
      double p[2] = {u(rng), u(rng)};
      Efga_Matrix m{2, 1, p};
      ASSERT_TRUE(exfr_Transform(fwd, &m, &m, nullptr));
      double q[2] = {p[0], p[1]};
      Efga_Matrix mq{2, 1, q};
      ASSERT_TRUE(exfr_Transform(newton, &mq, &mq, nullptr));
      double fx, fy;
      Apply(order, ix, iy, p[0], p[1], &fx, &fy);
      worst = std::max(worst, std::hypot(fx - q[0], fy - q[1]));
    }
    // Points between the check points stay near the reported maximum.
    EXPECT_LT(worst, 1.5 * res.maxError + 1e-9);
    EXPECT_GT(worst, 0.05 * res.maxError);
  }
  exfr_XFormFree(newton);
  exfr_XFormFree(fwd);
}

TEST(PolyMerge, ExactCompositionsMatchTheChain) {
  const double a1x[3] = {100.0, 0.5, -0.2}, a1y[3] = {-50.0, 0.1, 0.7};
  const double a2x[3] = {3.0, 2.0, 0.3}, a2y[3] = {4.0, -0.4, 1.5};
  struct Case {
    const char* what;
    long o1;
    const double *x1, *y1;
    long o2;
    const double *x2, *y2;
    long max_order, expect_order;
  } cases[] = {
      {"affine after affine", 1, a1x, a1y, 1, a2x, a2y, 1, 1},
      {"quadratic after affine", 1, a1x, a1y, 2, kQuadX, kQuadY, 5, 2},
      {"affine after quadratic", 2, kQuadX, kQuadY, 1, a2x, a2y, 2, 2},
      {"quadratic after quadratic", 2, kQuadX, kQuadY, 2, kQuadX, kQuadY, 4, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    double mx[21], my[21];
    long order = 0;
    Epho_FitResidual res{};
    ASSERT_TRUE(epho_MergePolynomials(c.o1, c.x1, c.y1, c.o2, c.x2, c.y2, c.max_order, kDomain, 0,
                                      &order, mx, my, &res, nullptr));
    EXPECT_EQ(order, c.expect_order);
    EXPECT_LT(res.maxError, 1e-9);
    // Against the toolkit's chain of the two transforms.
    Exfr_XForm* t1 = exfr_PolynomialXFormCreate(c.o1, c.x1, c.y1, nullptr);
    Exfr_XForm* t2 = exfr_PolynomialXFormCreate(c.o2, c.x2, c.y2, nullptr);
    Exfr_XForm* chain = exfr_XFormCompose(t1, t2, nullptr);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-200.0, 1200.0);  // outside the domain too
    for (int k = 0; k < 100; ++k) {
      double p[2] = {u(rng), u(rng)};
      double fx, fy;
      Apply(order, mx, my, p[0], p[1], &fx, &fy);
      Efga_Matrix m{2, 1, p};
      ASSERT_TRUE(exfr_Transform(chain, &m, &m, nullptr));
      EXPECT_NEAR(fx, p[0], 1e-9 * (1.0 + std::fabs(p[0])));
      EXPECT_NEAR(fy, p[1], 1e-9 * (1.0 + std::fabs(p[1])));
    }
    exfr_XFormFree(chain);
    exfr_XFormFree(t2);
    exfr_XFormFree(t1);
  }
  // Two affines: the product of their matrices (Eigen).
  double mx[3], my[3];
  long order = 0;
  ASSERT_TRUE(epho_MergePolynomials(1, a1x, a1y, 1, a2x, a2y, 1, nullptr, 0, &order, mx, my,
                                    nullptr, nullptr));
  Eigen::Matrix3d A1, A2;
  A1 << a1x[1], a1x[2], a1x[0], a1y[1], a1y[2], a1y[0], 0, 0, 1;
  A2 << a2x[1], a2x[2], a2x[0], a2y[1], a2y[2], a2y[0], 0, 0, 1;
  const Eigen::Matrix3d P = A2 * A1;
  EXPECT_NEAR(mx[0], P(0, 2), 1e-12);
  EXPECT_NEAR(mx[1], P(0, 0), 1e-12);
  EXPECT_NEAR(mx[2], P(0, 1), 1e-12);
  EXPECT_NEAR(my[0], P(1, 2), 1e-12);
  EXPECT_NEAR(my[1], P(1, 0), 1e-12);
  EXPECT_NEAR(my[2], P(1, 1), 1e-12);
}

TEST(PolyMerge, CappedOrderIsFittedWithItsResidual) {
  // Quadratic after quadratic is quartic; capped at 3 it is fitted, and the
  // quartic terms (products of 1e-6-size coefficients over 1000² squared)
  // leave a residual of a few hundredths to thousandths.
  double mx[21], my[21];
  long order = 0;
  Epho_FitResidual res{};
  ASSERT_TRUE(epho_MergePolynomials(2, kQuadX, kQuadY, 2, kQuadX, kQuadY, 3, kDomain, 0, &order, mx,
                                    my, &res, nullptr));
  EXPECT_EQ(order, 3);
  EXPECT_GT(res.maxError, 1e-7);
  EXPECT_LT(res.maxError, 0.1);
  // The report is the truth at the check points: recompute it here.
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(0.0, 1000.0);
  double worst = 0.0;
  for (int k = 0; k < 400; ++k) {
    const double x = u(rng), y = u(rng);
    double ux, uy, vx, vy, fx, fy;
    Apply(2, kQuadX, kQuadY, x, y, &ux, &uy);
    Apply(2, kQuadX, kQuadY, ux, uy, &vx, &vy);
    Apply(3, mx, my, x, y, &fx, &fy);
    worst = std::max(worst, std::hypot(fx - vx, fy - vy));
  }
  EXPECT_LT(worst, 1.5 * res.maxError);
  EXPECT_GT(worst, 0.05 * res.maxError);
}

TEST(PolyBadInput, IsReportedAndLeavesOutputsAlone) {
  const double nan = std::nan("");
  const double ax[3] = {0, 1, 0}, ay[3] = {0, 0, 1};
  const double nanx[3] = {0, nan, 0};
  const double flat_x[3] = {5, 1, 2}, flat_y[3] = {1, 2, 4};                    // rank 1
  const double fold_x[6] = {0, 0, 0, 1, 0, 0}, fold_y[6] = {0, 0, 1, 0, 0, 0};  // x' = x²
  const double sym[4] = {-1, -1, 1, 1};
  const double empty[4] = {1, 0, 1, 5};
  const double inf_box[4] = {0, 0, HUGE_VAL, 1};
  struct Case {
    const char* what;
    long order;
    const double *x, *y, *domain;
    long grid, inverse_order;
    const wchar_t* message;
  } inverts[] = {
      {"order 0", 0, ax, ay, kDomain, 0, 0, L"order 0 is outside 1..5"},
      {"order 6", 6, ax, ay, kDomain, 0, 0, L"order 6 is outside 1..5"},
      {"inverse order 7", 1, ax, ay, kDomain, 0, 7, L"inverse order 7 is outside 1..5"},
      {"NaN coefficient", 1, nanx, ay, kDomain, 0, 0, L"not finite"},
      {"null coefficients", 1, nullptr, ay, kDomain, 0, 0, L"null"},
      {"null domain", 1, ax, ay, nullptr, 0, 0, L"domain is null"},
      {"empty domain", 1, ax, ay, empty, 0, 0, L"is empty"},
      {"infinite domain", 1, ax, ay, inf_box, 0, 0, L"not finite"},
      {"grid too coarse", 1, ax, ay, kDomain, 1, 0, L"cannot fit order"},
      {"grid too fine", 1, ax, ay, kDomain, 501, 0, L"cannot fit order"},
      {"grid too coarse for the terms", 1, ax, ay, kDomain, 3, 5, L"cannot fit order"},
      {"singular", 1, flat_x, flat_y, kDomain, 0, 0, L"singular or folds"},
      {"folding", 2, fold_x, fold_y, sym, 0, 0, L"singular or folds"},
  };
  for (const Case& c : inverts) {
    SCOPED_TRACE(c.what);
    double ix[21], iy[21];
    std::fill(ix, ix + 21, 42.0);
    std::fill(iy, iy + 21, 42.0);
    Report err;
    EXPECT_FALSE(epho_PolyCoefficientsInvert(c.order, c.x, c.y, c.domain, c.grid, c.inverse_order,
                                             ix, iy, nullptr, &err));
    EXPECT_TRUE(testutil::Mentions(err.r, c.message)) << err.Text();
    EXPECT_EQ(ix[0], 42.0);
    EXPECT_EQ(iy[0], 42.0);
  }
  struct MergeCase {
    const char* what;
    long o1, o2, max_order;
    const double *x1, *domain;
    const wchar_t* message;
  } merges[] = {
      {"max order 0", 1, 1, 0, ax, kDomain, L"maximum order 0 is outside 1..5"},
      {"max order 6", 1, 1, 6, ax, kDomain, L"maximum order 6 is outside 1..5"},
      {"first order 9", 9, 1, 5, ax, kDomain, L"first order 9 is outside 1..5"},
      {"NaN in the first", 1, 1, 1, nanx, kDomain, L"first coefficients are not finite"},
      {"fit without domain", 1, 2, 1, ax, nullptr, L"a fit needs a domain"},
  };
  for (const MergeCase& c : merges) {
    SCOPED_TRACE(c.what);
    double mx[21], my[21];
    std::fill(mx, mx + 21, 42.0);
    long order = -1;
    Report err;
    const double* second_x = c.o2 == 2 ? kQuadX : ax;
    const double* second_y = c.o2 == 2 ? kQuadY : ay;
    EXPECT_FALSE(epho_MergePolynomials(c.o1, c.x1, ay, c.o2, second_x, second_y, c.max_order,
                                       c.domain, 0, &order, mx, my, nullptr, &err));
    EXPECT_TRUE(testutil::Mentions(err.r, c.message)) << err.Text();
    EXPECT_EQ(order, -1);
    EXPECT_EQ(mx[0], 42.0);
  }
}

}  // namespace
