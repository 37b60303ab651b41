// Matrix routines against closed forms and Eigen-independent identities.
#include "edom.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

TEST(EdomMatrixInv, InverseTimesMatrixIsIdentityAndSingularFails) {
  // A well-conditioned but non-symmetric 4 x 4 (Hilbert-like shifted).
  const long n = 4;
  std::vector<double> a(n * n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) a[i * n + j] = 1.0 / (i + 2 * j + 1) + (i == j ? 2.0 : 0.0);
  std::vector<double> inv(n * n), prod(n * n);
  ASSERT_TRUE(edom_MatrixInv(n, a.data(), inv.data()));
  ASSERT_TRUE(edom_MatrixMultiply(n, n, n, a.data(), inv.data(), prod.data()));
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) EXPECT_NEAR(prod[i * n + j], i == j ? 1.0 : 0.0, 1e-13);

  // 2 x 2 closed form, computed in place.
  double b[4] = {4, 7, 2, 6};
  ASSERT_TRUE(edom_MatrixInv(2, b, b));
  EXPECT_NEAR(b[0], 0.6, 1e-15);
  EXPECT_NEAR(b[1], -0.7, 1e-15);
  EXPECT_NEAR(b[2], -0.2, 1e-15);
  EXPECT_NEAR(b[3], 0.4, 1e-15);

  double singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};
  double out[9] = {42, 42, 42, 42, 42, 42, 42, 42, 42};
  EXPECT_FALSE(edom_MatrixInv(3, singular, out));
  EXPECT_EQ(out[0], 42);  // untouched on failure
  double with_nan[4] = {1, NAN, 0, 1};
  EXPECT_FALSE(edom_MatrixInv(2, with_nan, out));
  EXPECT_FALSE(edom_MatrixInv(0, singular, out));
}

TEST(EdomSolve, GeneralAndNormalEquationSolversAgreeWithKnownSolution) {
  const double a[9] = {4, -2, 1, -2, 4, -2, 1, -2, 4};  // symmetric positive definite
  const double x_true[3] = {1, -2, 3};
  double b[3];
  ASSERT_TRUE(edom_MatrixMultiply(3, 3, 1, a, x_true, b));
  double x[3], y[3];
  ASSERT_TRUE(edom_MatrixSolve(3, 1, a, b, x));
  ASSERT_TRUE(edom_SymmetricSolve(3, a, b, y));
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(x[i], x_true[i], 1e-14);
    EXPECT_NEAR(y[i], x_true[i], 1e-14);
  }
  const double indefinite[4] = {1, 2, 2, 1};
  EXPECT_FALSE(edom_SymmetricSolve(2, indefinite, b, y));
  EXPECT_NEAR(edom_MatrixDet(3, a), 4 * (16 - 4) + 2 * (-8 + 2) + 1 * (4 - 4), 1e-12);
  double t[6];
  const double r[6] = {1, 2, 3, 4, 5, 6};  // 2 x 3
  ASSERT_TRUE(edom_MatrixTranspose(2, 3, r, t));
  EXPECT_EQ(t[1], 4);
  EXPECT_EQ(t[4], 3);
}

}  // namespace
