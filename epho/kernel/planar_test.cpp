// Planar fits against known transforms (noise-free points) and against an
// independent QR least-squares fit by Eigen (noisy points); inverse and
// bounding-box rules on hand-checked cases.
#include "epho/planar.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

namespace {

constexpr double kPi = 3.14159265358979323846;

// Film-like source points (mm) spread over a photograph.
std::vector<double> FilmPoints(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-110.0, 110.0);
  std::vector<double> xy(2 * n);
  for (double& v : xy) v = u(rng);
  return xy;
}

template <class Map>
std::vector<double> MapPoints(const std::vector<double>& xy, Map map) {
  std::vector<double> out(xy.size());
  for (size_t i = 0; i < xy.size(); i += 2) map(xy[i], xy[i + 1], &out[i], &out[i + 1]);
  return out;
}

void AddNoise(std::vector<double>* xy, double sigma, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0.0, sigma);
  for (double& v : *xy) v += g(rng);
}

// Scan-like affine, mm to pixels (offset-first layout).
const double kScanAffine[6] = {5012.5, 40.0, 0.35, 4987.0, -0.28, -40.1};

TEST(PlanarSimilar, RecoversExactSimilarityAndIdentity) {
  const double tx = 120.5, ty = -33.25, scale = 2.5, angle = 0.7;
  const auto src = FilmPoints(7, 1);
  const auto dst = MapPoints(src, [&](double x, double y, double* X, double* Y) {
    *X = tx + scale * (std::cos(angle) * x - std::sin(angle) * y);
    *Y = ty + scale * (std::sin(angle) * x + std::cos(angle) * y);
  });
  double sim[4];
  ASSERT_EQ(epho_Similar(7, src.data(), dst.data(), sim), EMSC_FALSE);
  EXPECT_NEAR(sim[0], tx, 1e-9);
  EXPECT_NEAR(sim[1], ty, 1e-9);
  EXPECT_NEAR(sim[2], scale, 1e-12);
  EXPECT_NEAR(sim[3], angle, 1e-12);

  ASSERT_EQ(epho_Similar(7, src.data(), src.data(), sim), EMSC_FALSE);
  EXPECT_NEAR(sim[0], 0.0, 1e-12);
  EXPECT_NEAR(sim[1], 0.0, 1e-12);
  EXPECT_EQ(sim[2], 1.0);
  EXPECT_EQ(sim[3], 0.0);

  EXPECT_NE(epho_Similar(1, src.data(), dst.data(), sim), EMSC_FALSE);
}

TEST(PlanarSimilar, ScaleIsSpreadRatioAboutFirstPoint) {
  // Target shrinks one far point towards the anchor: the spread ratio
  // sqrt(Sd/Ss) differs from the least-squares scale.
  const double src[] = {0, 0, 10, 0, 0, 10};
  const double dst[] = {0, 0, 10, 0, 0, 5};
  double sim[4];
  ASSERT_EQ(epho_Similar(3, src, dst, sim), EMSC_FALSE);
  EXPECT_DOUBLE_EQ(sim[2], std::sqrt(125.0 / 200.0));
  EXPECT_DOUBLE_EQ(sim[3], 0.0);
}

// The linearised least-squares problem of both fits, solved by Eigen's QR:
// rows [1 x y 0 0 0 -xX -yX] and [0 0 0 1 x y -xY -yY]; the affine fit is the
// same without the last two columns.
Eigen::VectorXd LinearisedQr(const std::vector<double>& src, const std::vector<double>& dst,
                             int params) {
  const int n = static_cast<int>(src.size() / 2);
  Eigen::MatrixXd design = Eigen::MatrixXd::Zero(2 * n, params);
  Eigen::VectorXd obs(2 * n);
  for (int i = 0; i < n; ++i) {
    const double x = src[2 * i], y = src[2 * i + 1], X = dst[2 * i], Y = dst[2 * i + 1];
    design.block(2 * i, 0, 1, 3) << 1, x, y;
    design.block(2 * i + 1, 3, 1, 3) << 1, x, y;
    if (params == 8) {
      design.block(2 * i, 6, 1, 2) << -x * X, -y * X;
      design.block(2 * i + 1, 6, 1, 2) << -x * Y, -y * Y;
    }
    obs(2 * i) = X;
    obs(2 * i + 1) = Y;
  }
  return design.colPivHouseholderQr().solve(obs);
}

void ApplyPlanar(const double* c, int params, double x, double y, double* X, double* Y) {
  const double w = params == 8 ? 1.0 + c[6] * x + c[7] * y : 1.0;
  *X = (c[0] + c[1] * x + c[2] * y) / w;
  *Y = (c[3] + c[4] * x + c[5] * y) / w;
}

// Noise-free points give the transform back; noisy ones the QR solution.
TEST(PlanarFits, ReproduceExactTransformsAndMatchEigenLeastSquares) {
  const double projective[8] = {2.0, 1.1, 0.05, -3.0, -0.04, 0.95, 1.5e-3, -8e-4};
  struct Case {
    const char* name;
    int params;
    const double* truth;
    std::vector<int> exact_sizes;
    double sigma;
    int32_t (*fit)(int32_t, const double*, const double*, double*);
  };
  const Case cases[] = {{"affine", 6, kScanAffine, {3, 4, 12}, 0.5, epho_Affine},
                        {"projective", 8, projective, {4, 9}, 0.05, epho_Perspect}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto map = [&](double x, double y, double* X, double* Y) {
      ApplyPlanar(c.truth, c.params, x, y, X, Y);
    };
    for (int n : c.exact_sizes) {
      const auto src = FilmPoints(n, 10 + n);
      const auto dst = MapPoints(src, map);
      double fit[8];
      ASSERT_EQ(c.fit(n, src.data(), dst.data(), fit), 0);
      for (int k = 0; k < c.params; ++k)
        EXPECT_NEAR(fit[k], c.truth[k], 1e-8 * (1.0 + std::abs(c.truth[k])))
            << "n=" << n << " " << k;
    }
    const int n = 30;
    const auto src = FilmPoints(n, 77);
    auto dst = MapPoints(src, map);
    AddNoise(&dst, c.sigma, 78);
    const Eigen::VectorXd ref = LinearisedQr(src, dst, c.params);
    double fit[8];
    ASSERT_EQ(c.fit(n, src.data(), dst.data(), fit), 0);
    for (int k = 0; k < c.params; ++k)
      EXPECT_NEAR(fit[k], ref(k), 1e-9 * (1.0 + std::abs(ref(k)))) << k;
  }
}

TEST(PlanarAffine, TwoPointsGiveSimilarityAndDegenerateSetsFail) {
  const double src[] = {-100.0, 20.0, 80.0, -50.0};
  const double dst[] = {1000.0, 2000.0, 7000.0, 5000.0};
  double a[6];
  ASSERT_EQ(epho_Affine(2, src, dst, a), 0);
  EXPECT_DOUBLE_EQ(a[1], a[5]);
  EXPECT_DOUBLE_EQ(a[2], -a[4]);
  for (int i = 0; i < 2; ++i) {  // a similarity through two points is exact
    EXPECT_NEAR(a[0] + a[1] * src[2 * i] + a[2] * src[2 * i + 1], dst[2 * i], 1e-9);
    EXPECT_NEAR(a[3] + a[4] * src[2 * i] + a[5] * src[2 * i + 1], dst[2 * i + 1], 1e-9);
  }
  EXPECT_EQ(epho_Affine(1, src, dst, a), 1);
  EXPECT_EQ(epho_Affine(0, nullptr, nullptr, a), 1);

  // Collinear integer points: the normal matrix is exactly singular. The
  // right-hand sums were accumulated in the output and are left there:
  // sum X = 0+1+2+3, sum x*X = sum y*X = 0+1+4+9, the same for Y.
  const double line[] = {0, 0, 1, 1, 2, 2, 3, 3};
  EXPECT_EQ(epho_Affine(4, line, line, a), 2);
  EXPECT_EQ(std::vector<double>(a, a + 6), std::vector<double>({6, 14, 14, 6, 14, 14}));

  const double ident[] = {0, 0, 1, 0, 0, 1, 5, 7};
  ASSERT_EQ(epho_Affine(4, ident, ident, a), 0);
  const double expected[6] = {0, 1, 0, 0, 0, 1};
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(a[k], expected[k], 1e-14);
}

TEST(PlanarPerspect, IdentityTooFewPointsAndSingularAffinePart) {
  const double ident[] = {0, 0, 1, 0, 0, 1, 1, 1, 3, -2};
  double fit[8];
  ASSERT_EQ(epho_Perspect(5, ident, ident, fit), 0);
  const double expected[8] = {0, 1, 0, 0, 0, 1, 0, 0};
  for (int k = 0; k < 8; ++k) EXPECT_NEAR(fit[k], expected[k], 1e-13) << k;

  for (double& v : fit) v = 42.0;
  EXPECT_EQ(epho_Perspect(3, ident, ident, fit), 1);
  EXPECT_EQ(fit[0], 42.0);  // untouched on too few points

  const double line[] = {0, 0, 1, 1, 2, 2, 3, 3};
  EXPECT_EQ(epho_Perspect(4, line, line, fit), 2);
  for (int k = 0; k < 8; ++k) EXPECT_EQ(fit[k], 0.0) << k;  // cleared before the sums
}

TEST(PlanarReverseAffine, InverseRoundTripsAndSingularIsRefused) {
  double inv[6];
  std::copy(kScanAffine, kScanAffine + 6, inv);
  ASSERT_EQ(epho_ReverseAffine(inv), EMSC_FALSE);
  for (const auto& pt : {std::pair<double, double>{-100.0, 50.0}, {33.3, 99.9}, {0.0, 0.0}}) {
    const double* a = kScanAffine;
    const double X = a[0] + a[1] * pt.first + a[2] * pt.second;
    const double Y = a[3] + a[4] * pt.first + a[5] * pt.second;
    EXPECT_NEAR(inv[0] + inv[1] * X + inv[2] * Y, pt.first, 1e-10);
    EXPECT_NEAR(inv[3] + inv[4] * X + inv[5] * Y, pt.second, 1e-10);
  }
  ASSERT_EQ(epho_ReverseAffine(inv), EMSC_FALSE);
  for (int k = 0; k < 6; ++k)
    EXPECT_NEAR(inv[k], kScanAffine[k], 1e-12 * (1.0 + std::abs(kScanAffine[k])));

  double singular[6] = {1, 2, 4, 3, 1, 2};  // a1*a5 - a4*a2 = 0
  EXPECT_NE(epho_ReverseAffine(singular), EMSC_FALSE);
  EXPECT_EQ(singular[2], 4.0);
}

// The box of the four mapped corners, each side moved outwards by one after
// truncation; the outward step is decided on the mapped value, not on its
// truncation.
TEST(PlanarBoundingBox, CornersMoveOutwardsByOne) {
  struct Case {
    const char* name;
    int32_t rect[4];
    double affine[6];
    int32_t expected[4];
  } cases[] = {
      {"identity", {5, 5, 10, 10}, {0, 1, 0, 0, 0, 1}, {6, 6, 11, 11}},
      {"identity at zero", {0, 0, 10, 10}, {0, 1, 0, 0, 0, 1}, {-1, -1, 11, 11}},
      // X = 100 - x, Y = y - 0.5: min and max swap; -0.5 and 9.5 truncate to 0 and 9.
      {"mirror", {10, 0, 30, 10}, {100, -1, 0, -0.5, 0, 1}, {71, -1, 91, 10}},
      // X = x + 0.5: 0 -> 0.5 (positive, so 1), -1 -> -0.5 (-1); Y = y - 0.25:
      // 0 -> -0.25 (-1), 2 -> 1.75 (2).
      {"half shifts", {-1, 0, 0, 2}, {0.5, 1, 0, -0.25, 0, 1}, {-1, -1, 1, 2}},
      {"quarter turn", {2, 3, 8, 5}, {0, 0, -1, 0, 1, 0}, {-6, 3, -4, 9}},
  };
  for (const Case& c : cases) {
    int32_t out[4];
    EXPECT_EQ(epho_GetNewBondingBox(c.rect, c.affine, out), out);
    EXPECT_EQ(std::vector<int32_t>(out, out + 4), std::vector<int32_t>(c.expected, c.expected + 4))
        << c.name;
  }
}

}  // namespace
