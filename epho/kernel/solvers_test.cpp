// The solvers against Eigen's LU/LDLT on random systems, the factor against
// its own definition A = U^T D U, and the exact-zero-pivot failures.
#include "epho/solvers.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Eigen::MatrixXd;
using Eigen::VectorXd;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Random symmetric positive-definite matrix B B^T / n + I: its eigenvalues lie
// in [1, ~5], so the condition number is small and any backward-stable solver
// agrees with Eigen to a few hundred ulps at the sizes used here.
MatrixXd RandomSpd(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  MatrixXd b(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) b(i, j) = u(rng);
  return b * b.transpose() / n + MatrixXd::Identity(n, n);
}

VectorXd RandomVector(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  VectorXd v(n);
  for (int i = 0; i < n; ++i) v(i) = u(rng);
  return v;
}

// Relative agreement bound for well-conditioned systems (cond <= ~5): error
// grows like n * cond * eps ~ 3e-13 at n = 300; 1e-11 leaves margin without
// hiding a wrong formula (which errs by O(1)).
constexpr double kRelTol = 1e-11;

double MaxAbs(const MatrixXd& m) { return m.cwiseAbs().maxCoeff(); }

// Row-offset storage of a symmetric matrix embedded at [first, first+m) of an
// n x n index space: packed upper triangle or full storage with NaN in the
// strictly lower triangle and outside the active block, so that reading any
// cell the solver must not read poisons the result.
struct RowOffsetMatrix {
  std::vector<double> a;
  std::vector<uint32_t> rows;

  RowOffsetMatrix(const MatrixXd& block, int n, int first, bool packed) {
    const int m = static_cast<int>(block.rows());
    rows.resize(n);
    size_t start = 0;
    for (int i = 0; i < n; ++i) {
      rows[i] = packed ? static_cast<uint32_t>(start - i) : static_cast<uint32_t>(i * n);
      start += packed ? n - i : 0;
    }
    a.assign(packed ? start : static_cast<size_t>(n) * n, kNaN);
    for (int i = 0; i < m; ++i)
      for (int j = i; j < m; ++j) at(first + i, first + j) = block(i, j);
  }
  double& at(int i, int j) { return a[rows[i] + j]; }
  // Upper triangle of the active block, mirrored into a symmetric matrix.
  MatrixXd UpperSymmetric(int first, int m) {
    MatrixXd out(m, m);
    for (int i = 0; i < m; ++i)
      for (int j = i; j < m; ++j) out(i, j) = out(j, i) = at(first + i, first + j);
    return out;
  }
};

// U^T D U of a finished factor held in the upper triangle (D on the diagonal).
MatrixXd Reassemble(const MatrixXd& factor) {
  const int n = static_cast<int>(factor.rows());
  MatrixXd u = MatrixXd::Identity(n, n);
  VectorXd d(n);
  for (int i = 0; i < n; ++i) {
    d(i) = factor(i, i);
    for (int j = i + 1; j < n; ++j) u(i, j) = factor(i, j);
  }
  return u.transpose() * d.asDiagonal() * u;
}

TEST(Solvers3x3, GeneralAndSymmetricInverseMatchEigen) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-5.0, 5.0);
  for (int trial = 0; trial < 50; ++trial) {
    Eigen::Matrix<double, 3, 3, Eigen::RowMajor> m;
    for (int k = 0; k < 9; ++k) m.data()[k] = u(rng);
    if (std::abs(m.determinant()) < 1e-2) continue;
    Eigen::Matrix<double, 3, 3, Eigen::RowMajor> inv = m;
    ASSERT_EQ(epho_Com_Reverse3(inv.data()), EMSC_FALSE);
    const double scale = m.inverse().cwiseAbs().maxCoeff();
    EXPECT_LE((inv - m.inverse()).cwiseAbs().maxCoeff(), 1e-12 * scale);

    // Symmetric inverse reads the upper triangle only: garbage below.
    Eigen::Matrix<double, 3, 3, Eigen::RowMajor> s = m * m.transpose();
    Eigen::Matrix<double, 3, 3, Eigen::RowMajor> sinv = s;
    sinv(1, 0) = sinv(2, 0) = sinv(2, 1) = 1e6;
    ASSERT_EQ(epho_Reverse3S(sinv.data()), EMSC_FALSE);
    const double sscale = s.inverse().cwiseAbs().maxCoeff();
    EXPECT_LE((sinv - s.inverse()).cwiseAbs().maxCoeff(), 1e-10 * sscale);
    EXPECT_EQ(sinv(1, 0), sinv(0, 1));
    EXPECT_EQ(sinv(2, 0), sinv(0, 2));
    EXPECT_EQ(sinv(2, 1), sinv(1, 2));
  }
}

TEST(Solvers3x3, ZeroDeterminantLeavesMatrixUnchanged) {
  double rank2[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};  // det exactly 0 in doubles
  const std::vector<double> before(rank2, rank2 + 9);
  EXPECT_NE(epho_Com_Reverse3(rank2), EMSC_FALSE);
  EXPECT_EQ(std::vector<double>(rank2, rank2 + 9), before);

  double sym[9] = {1, 2, 3, 2, 4, 6, 3, 6, 9};
  const std::vector<double> sym_before(sym, sym + 9);
  EXPECT_NE(epho_Reverse3S(sym), EMSC_FALSE);
  EXPECT_EQ(std::vector<double>(sym, sym + 9), sym_before);

  // A tiny but nonzero determinant is accepted.
  double tiny[9] = {1e-100, 0, 0, 0, 1e-100, 0, 0, 0, 1e-100};  // det 1e-300
  EXPECT_EQ(epho_Com_Reverse3(tiny), EMSC_FALSE);
  EXPECT_DOUBLE_EQ(tiny[0], 1e100);
}

// Factor + solve + inverse on the packed and the full form of one system, on
// a sub-block surrounded by NaN, against Eigen. Sizes cross the column block.
TEST(SolversRowOffset, FactorSolveInverseMatchEigenPackedAndFull) {
  const int sizes[] = {1, 2, 3, 5, 8, 31, 64, 257, 300};
  for (int m : sizes) {
    for (int first : {0, 3}) {
      const int n = first + m + 2;  // two unused rows after the block
      const int end = first + m;
      const MatrixXd a = RandomSpd(m, 100 + m);
      const VectorXd rhs = RandomVector(m, 200 + m);
      const VectorXd x_eigen = a.ldlt().solve(rhs);
      const MatrixXd inv_eigen = a.inverse();

      std::vector<double> x_by_storage[2];
      for (bool packed : {true, false}) {
        SCOPED_TRACE(::testing::Message()
                     << "m=" << m << " first=" << first << " packed=" << packed);
        RowOffsetMatrix s(a, n, first, packed);
        ASSERT_EQ(epho_Resolve1D(s.a.data(), s.rows.data(), first, end), EMSC_FALSE);
        EXPECT_LE(MaxAbs(Reassemble(s.UpperSymmetric(first, m)) - a), kRelTol * MaxAbs(a));

        std::vector<double> b(n, kNaN);
        for (int i = 0; i < m; ++i) b[first + i] = rhs(i);
        ASSERT_EQ(epho_Solution1D(s.a.data(), s.rows.data(), first, end, b.data()), EMSC_FALSE);
        for (int i = 0; i < m; ++i)
          EXPECT_NEAR(b[first + i], x_eigen(i), kRelTol * x_eigen.cwiseAbs().maxCoeff());
        EXPECT_TRUE(std::isnan(b[end]));  // nothing outside the block written
        x_by_storage[packed ? 0 : 1].assign(b.begin() + first, b.begin() + end);

        ASSERT_EQ(epho_Inverld1D(s.a.data(), s.rows.data(), first, end), EMSC_FALSE);
        EXPECT_LE(MaxAbs(s.UpperSymmetric(first, m) - inv_eigen), kRelTol * MaxAbs(inv_eigen));
        if (!packed) {  // strictly lower triangle and outside cells untouched
          for (int i = 1; i < n; ++i) EXPECT_TRUE(std::isnan(s.at(i, i - 1)));
          EXPECT_TRUE(std::isnan(s.at(end, end)));
        }
      }
      // Same arithmetic in both storages: identical to the last bit.
      EXPECT_EQ(x_by_storage[0], x_by_storage[1]);
    }
  }
}

// Row-by-row recurrence of the factor exactly as written in its definition:
// d_i = a_ii - sum_k u_ki d_k u_ki, u_ij = (a_ij - sum_k u_ki d_k u_kj) / d_i,
// sums in increasing k. The blocked kernels must reproduce it to the bit.
bool TextbookFactor(MatrixXd* m, bool reciprocal) {
  MatrixXd& a = *m;
  const int n = static_cast<int>(a.rows());
  for (int i = 0; i < n; ++i) {
    double s = 0.0;
    for (int k = 0; k < i; ++k) s += a(k, i) * a(k, k) * a(k, i);
    const double d = a(i, i) - s;
    a(i, i) = d;
    if (d == 0.0) return true;
    for (int j = i + 1; j < n; ++j) {
      double sj = 0.0;
      for (int k = 0; k < i; ++k) sj += a(k, i) * a(k, k) * a(k, j);
      a(i, j) = reciprocal ? (a(i, j) - sj) * (1.0 / d) : (a(i, j) - sj) / d;
    }
  }
  return false;
}

// Forward, diagonal and backward substitution with a factor, as defined.
VectorXd TextbookSolve(const MatrixXd& a, VectorXd b) {
  const int n = static_cast<int>(a.rows());
  for (int i = 1; i < n; ++i) {
    double s = 0.0;
    for (int k = 0; k < i; ++k) s += a(k, i) * b(k);
    b(i) = b(i) - s;
  }
  for (int i = 0; i < n; ++i) b(i) = b(i) / a(i, i);
  for (int i = n - 2; i >= 0; --i) {
    double s = 0.0;
    for (int j = i + 1; j < n; ++j) s += a(i, j) * b(j);
    b(i) = b(i) - s;
  }
  return b;
}

// In-place inverse from a factor, straight from its recurrences:
// v_rc = -(u_rc + sum_k v_rk u_kc), then c_ij = v_ij / d_j + sum_k v_ik / d_k v_jk.
void TextbookInvert(MatrixXd* m) {
  MatrixXd& a = *m;
  const int n = static_cast<int>(a.rows());
  for (int r = 0; r < n - 1; ++r) {
    for (int c = r + 1; c < n; ++c) {
      double s = 0.0;
      for (int k = r + 1; k < c; ++k) s += a(r, k) * a(k, c);
      a(r, c) = -(a(r, c) + s);
    }
  }
  for (int i = 0; i < n; ++i) a(i, i) = 1.0 / a(i, i);
  for (int i = 0; i < n - 1; ++i) {
    for (int j = i; j < n; ++j) {
      const double s = (j > i) ? a(i, j) * a(j, j) : a(i, i);
      double sum = 0.0;
      for (int k = j + 1; k < n; ++k) sum += a(i, k) * a(k, k) * a(j, k);
      a(i, j) = s + sum;
    }
  }
}

TEST(SolversRowOffset, BlockedKernelsEqualTextbookRecurrencesBitForBit) {
  // Up to 24 the plain loops run; above, rows are finished four at a time, so
  // 25..28 end on a block of 1, 2, 3 and 4 rows; beyond 256 the columns and
  // beyond 128 the earlier rows are taken in several blocks.
  for (int m : {3, 8, 13, 24, 25, 26, 27, 28, 64, 257, 258, 259, 300}) {
    const MatrixXd a = RandomSpd(m, 300 + m);
    MatrixXd reference = a;
    ASSERT_FALSE(TextbookFactor(&reference, true));
    RowOffsetMatrix s(a, m + 5, 5, true);
    ASSERT_EQ(epho_Resolve1D(s.a.data(), s.rows.data(), 5, 5 + m), EMSC_FALSE);
    for (int i = 0; i < m; ++i)
      for (int j = i; j < m; ++j) ASSERT_EQ(s.at(5 + i, 5 + j), reference(i, j)) << i << "," << j;
    const VectorXd rhs = RandomVector(m, 400 + m);
    const VectorXd x = TextbookSolve(reference, rhs);
    std::vector<double> b(m + 5, kNaN);
    for (int i = 0; i < m; ++i) b[5 + i] = rhs(i);
    ASSERT_EQ(epho_Solution1D(s.a.data(), s.rows.data(), 5, 5 + m, b.data()), EMSC_FALSE);
    for (int i = 0; i < m; ++i) ASSERT_EQ(b[5 + i], x(i)) << i;
    TextbookInvert(&reference);
    ASSERT_EQ(epho_Inverld1D(s.a.data(), s.rows.data(), 5, 5 + m), EMSC_FALSE);
    for (int i = 0; i < m; ++i)
      for (int j = i; j < m; ++j) ASSERT_EQ(s.at(5 + i, 5 + j), reference(i, j)) << i << "," << j;
  }
  // The 8x8 family divides by its pivots and never reads the lower triangle.
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    const MatrixXd a8 = RandomSpd(8, seed);
    MatrixXd reference8 = a8;
    ASSERT_FALSE(TextbookFactor(&reference8, false));
    Eigen::Matrix<double, 8, 8, Eigen::RowMajor> m8 = a8;
    m8.triangularView<Eigen::StrictlyLower>().setConstant(kNaN);
    ASSERT_EQ(epho_Resolve8(m8.data()), EMSC_FALSE);
    for (int i = 0; i < 8; ++i)
      for (int j = i; j < 8; ++j) ASSERT_EQ(m8(i, j), reference8(i, j)) << i << "," << j;
    const VectorXd rhs8 = RandomVector(8, seed);
    const VectorXd x8 = TextbookSolve(reference8, rhs8);
    VectorXd b8 = rhs8;
    ASSERT_EQ(epho_Solution8(m8.data(), b8.data()), EMSC_FALSE);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(b8(i), x8(i)) << i;
    TextbookInvert(&reference8);
    ASSERT_EQ(epho_Inverld8(m8.data()), EMSC_FALSE);
    for (int i = 0; i < 8; ++i)
      for (int j = i; j < 8; ++j) ASSERT_EQ(m8(i, j), reference8(i, j)) << i << "," << j;
    EXPECT_TRUE(std::isnan(m8(7, 0)));
  }
}

// The one-call inverses divide by their pivots; on large n their factor runs
// through the blocked kernel in its dividing form, which must also match the
// plain recurrences to the bit, mirrored in full by epho_InverNxN.
TEST(SolversOneCall, InverNxNAndInver6x6EqualTextbookRecurrencesBitForBit) {
  for (int n : {1, 2, 6, 9, 24, 25, 26, 27, 28, 130, 259}) {
    const MatrixXd a = RandomSpd(n, 500 + n);
    MatrixXd reference = a;
    ASSERT_FALSE(TextbookFactor(&reference, false));
    TextbookInvert(&reference);
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> m = a;
    m.triangularView<Eigen::StrictlyLower>().setConstant(kNaN);  // never read
    ASSERT_EQ(epho_InverNxN(m.data(), n), EMSC_FALSE);
    for (int i = 0; i < n; ++i) {
      for (int j = i; j < n; ++j) {
        ASSERT_EQ(m(i, j), reference(i, j)) << "n=" << n << " " << i << "," << j;
        ASSERT_EQ(m(j, i), reference(i, j)) << "n=" << n << " " << j << "," << i;
      }
    }
    if (n == 6) {
      Eigen::Matrix<double, 6, 6, Eigen::RowMajor> m6 = a;
      ASSERT_EQ(epho_Inver6x6(m6.data(), 6), EMSC_FALSE);
      for (int i = 0; i < 6; ++i)
        for (int j = i; j < 6; ++j) EXPECT_EQ(m6(i, j), reference(i, j)) << i << "," << j;
    }
  }
}

TEST(SolversRowOffset, ZeroPivotInsideWideRowFinishesEarlierRows) {
  // Rows 0..5 couple only to columns 7.. and a(6,6) = 0, so d_6 is exactly 0;
  // the rows above must be finished across the whole width (300 columns).
  const int n = 300;
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  MatrixXd a = MatrixXd::Identity(n, n) * 4.0;
  for (int i = 0; i < 6; ++i)
    for (int j = 7; j < n; ++j) a(i, j) = a(j, i) = u(rng);
  a(6, 6) = 0.0;
  MatrixXd reference = a;
  ASSERT_TRUE(TextbookFactor(&reference, true));
  RowOffsetMatrix s(a, n, 0, false);
  EXPECT_NE(epho_Resolve1D(s.a.data(), s.rows.data(), 0, n), EMSC_FALSE);
  for (int i = 0; i < 6; ++i)
    for (int j = i; j < n; ++j) ASSERT_EQ(s.at(i, j), reference(i, j)) << i << "," << j;
  EXPECT_EQ(s.at(6, 6), 0.0);
  for (int i = 7; i < n; ++i)
    for (int j = i; j < n; ++j) ASSERT_EQ(s.at(i, j), a(i, j)) << i << "," << j;
}

TEST(SolversRowOffset, SingleElementBlockIsOneDivision) {
  RowOffsetMatrix s(MatrixXd::Constant(1, 1, 4.0), 4, 2, true);
  double b[4] = {kNaN, kNaN, 10.0, kNaN};
  ASSERT_EQ(epho_Resolve1D(s.a.data(), s.rows.data(), 2, 3), EMSC_FALSE);
  ASSERT_EQ(epho_Solution1D(s.a.data(), s.rows.data(), 2, 3, b), EMSC_FALSE);
  EXPECT_EQ(b[2], 2.5);
  ASSERT_EQ(epho_Inverld1D(s.a.data(), s.rows.data(), 2, 3), EMSC_FALSE);
  EXPECT_EQ(s.at(2, 2), 0.25);
}

TEST(SolversRowOffset, ZeroPivotFailsAndKeepsLaterRows) {
  // Invertible but with a zero first diagonal: no pivoting, so it fails.
  RowOffsetMatrix swap((MatrixXd(2, 2) << 0, 1, 1, 0).finished(), 2, 0, false);
  EXPECT_NE(epho_Resolve1D(swap.a.data(), swap.rows.data(), 0, 2), EMSC_FALSE);

  // Second pivot 1 - 1*1 = 0 exactly: row 0 finished, row 2 keeps its input.
  const MatrixXd a = (MatrixXd(3, 3) << 4, 2, 6, 2, 1, 5, 6, 5, 9).finished();
  RowOffsetMatrix s(a, 3, 0, true);
  EXPECT_NE(epho_Resolve1D(s.a.data(), s.rows.data(), 0, 3), EMSC_FALSE);
  EXPECT_EQ(s.at(0, 0), 4.0);
  EXPECT_EQ(s.at(0, 1), 0.5);
  EXPECT_EQ(s.at(0, 2), 1.5);
  EXPECT_EQ(s.at(1, 1), 0.0);
  EXPECT_EQ(s.at(2, 2), 9.0);

  // A tiny nonzero pivot is accepted.
  RowOffsetMatrix tiny(MatrixXd::Identity(2, 2) * 1e-300, 2, 0, true);
  EXPECT_EQ(epho_Resolve1D(tiny.a.data(), tiny.rows.data(), 0, 2), EMSC_FALSE);

  // Solve and inverse refuse a zero diagonal in what they are given.
  RowOffsetMatrix zero_d((MatrixXd(2, 2) << 1, 0, 0, 0).finished(), 2, 0, true);
  double b[2] = {1, 1};
  EXPECT_NE(epho_Solution1D(zero_d.a.data(), zero_d.rows.data(), 0, 2, b), EMSC_FALSE);
  EXPECT_NE(epho_Inverld1D(zero_d.a.data(), zero_d.rows.data(), 0, 2), EMSC_FALSE);
}

TEST(SolversRowOffset, EmptyBlockIsNoOpAndBadArgumentsAreRefused) {
  std::vector<double> a = {1.0};
  std::vector<uint32_t> rows = {0};
  EXPECT_EQ(epho_Resolve1D(a.data(), rows.data(), 1, 1), EMSC_FALSE);
  EXPECT_NE(epho_Resolve1D(a.data(), rows.data(), -1, 1), EMSC_FALSE);
  EXPECT_NE(epho_Resolve1D(nullptr, rows.data(), 0, 1), EMSC_FALSE);
  EXPECT_NE(epho_Solution1D(a.data(), rows.data(), 0, 1, nullptr), EMSC_FALSE);
  EXPECT_EQ(a[0], 1.0);
}

TEST(SolversOneCall, Inver6x6MatchesEigenOnLeadingBlocks) {
  for (int n = 1; n <= 6; ++n) {
    const MatrixXd a = RandomSpd(n, 40 + n);
    Eigen::Matrix<double, 6, 6, Eigen::RowMajor> m =
        Eigen::Matrix<double, 6, 6, Eigen::RowMajor>::Constant(-7.0);
    m.topLeftCorner(n, n) = a.triangularView<Eigen::Upper>();
    for (int i = 1; i < n; ++i)
      for (int j = 0; j < i; ++j) m(i, j) = -7.0;
    ASSERT_EQ(epho_Inver6x6(m.data(), n), EMSC_FALSE);
    MatrixXd got = m.topLeftCorner(n, n).triangularView<Eigen::Upper>();
    got.triangularView<Eigen::StrictlyLower>() = got.transpose();
    const MatrixXd inv = a.inverse();
    EXPECT_LE(MaxAbs(got - inv), kRelTol * MaxAbs(inv)) << "n=" << n;
    // Lower triangle and everything outside the leading block untouched.
    for (int i = 0; i < 6; ++i)
      for (int j = 0; j < 6; ++j)
        if (i > j || i >= n || j >= n) {
          EXPECT_EQ(m(i, j), -7.0);
        }
  }
  double one = 8.0;
  ASSERT_EQ(epho_InverNxN(&one, 1), EMSC_FALSE);
  EXPECT_EQ(one, 0.125);
  double rows_of_six[42] = {};
  EXPECT_NE(epho_Inver6x6(rows_of_six, 7), EMSC_FALSE);  // would overrun the rows
}

TEST(SolversAll, ZeroFirstPivotFails) {
  // Invertible, zero first diagonal: every symmetric member fails.
  Eigen::Matrix<double, 8, 8, Eigen::RowMajor> p8 = Eigen::Matrix<double, 8, 8>::Identity();
  p8(0, 0) = 0.0;
  p8(0, 1) = p8(1, 0) = 1.0;
  auto f8 = p8;
  EXPECT_NE(epho_Resolve8(f8.data()), EMSC_FALSE);
  Eigen::Matrix<double, 6, 6, Eigen::RowMajor> p6 = p8.topLeftCorner(6, 6);
  EXPECT_NE(epho_Inver6x6(p6.data(), 6), EMSC_FALSE);
  Eigen::Matrix<double, 8, 8, Eigen::RowMajor> pn = p8;
  EXPECT_NE(epho_InverNxN(pn.data(), 8), EMSC_FALSE);
  double b[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_NE(epho_Solution8(p8.data(), b), EMSC_FALSE);  // zero diagonal in the factor
}

}  // namespace
