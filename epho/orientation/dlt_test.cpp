#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <random>
#include <vector>

#include "epho/angles.h"
#include "epho/collinearity.h"
#include "epho/orientation.h"
#include "epho/orientation/dlt_internal.h"
#include "platform/eerr/error_frame.h"

namespace {

// An 11-parameter DLT made independently: P = Kc R^T [I | -C] with
// Kc = [[-f, -f k, x0], [0, -f a, y0], [0, 0, 1]], normalised to P(2,3) = 1.
std::vector<double> MakeDlt(double f, double x0, double y0, double aspect, double skew,
                            const Eigen::Matrix3d& R, const Eigen::Vector3d& C) {
  Eigen::Matrix3d K;
  K << -f, -f * skew, x0, 0, -f * aspect, y0, 0, 0, 1;
  Eigen::Matrix<double, 3, 4> P;
  P.leftCols<3>() = K * R.transpose();
  P.col(3) = -K * R.transpose() * C;
  P /= P(2, 3);
  return {P(0, 0), P(0, 1), P(0, 2), P(0, 3), P(1, 0), P(1, 1),
          P(1, 2), P(1, 3), P(2, 0), P(2, 1), P(2, 2)};
}

TEST(DltTest, SplitsIntoInnerAndOuterOrientation) {
  const double om = 0.3, ph = -0.2, ka = 2.1;
  const Eigen::Matrix3d R = (Eigen::AngleAxisd(om, Eigen::Vector3d::UnitX()) *
                             Eigen::AngleAxisd(ph, Eigen::Vector3d::UnitY()) *
                             Eigen::AngleAxisd(ka, Eigen::Vector3d::UnitZ()))
                                .matrix();
  // Pixel-like frame: f in pixels, principal point off the origin. The two
  // centres put the object origin in front of and behind the camera, which
  // flips the sign of the normalised DLT's 3x3 block.
  for (const Eigen::Vector3d& C :
       {Eigen::Vector3d(120.0, -45.0, 30.0), Eigen::Vector3d(-120.0, 45.0, -30.0)}) {
    std::vector<double> L = MakeDlt(2800.0, 1510.0, 990.0, 1.002, 0.001, R, C);
    double inner[5], outer[6];
    Eerr_ErrorReport* err = nullptr;
    ASSERT_TRUE(epho_DLT2Camera(L.data(), 0, inner, outer, &err));
    EXPECT_NEAR(inner[0], 2800.0, 1e-6);
    EXPECT_NEAR(inner[1], 1510.0, 1e-6);
    EXPECT_NEAR(inner[2], 990.0, 1e-6);
    EXPECT_NEAR(inner[3], 1.002, 1e-12);
    EXPECT_NEAR(inner[4], 0.001, 1e-12);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(outer[k], C(k), 1e-8);
    EXPECT_NEAR(outer[3], om, 1e-12);
    EXPECT_NEAR(outer[4], ph, 1e-12);
    EXPECT_NEAR(outer[5], ka, 1e-12);
  }
  // Other rotation systems describe the same rotation matrix.
  const std::vector<double> L = MakeDlt(100.0, 0.0, 0.0, 1.0, 0.0, R, Eigen::Vector3d(1, 2, 3));
  double inner[5], outer[6], Rb[9];
  ASSERT_TRUE(epho_DLT2Camera(L.data(), 1, inner, outer, nullptr));
  epho_RotateAll(outer + 3, Rb, 1);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(Rb[3 * r + c], R(r, c), 1e-12);
}

TEST(DltTest, SingularDltIsReported) {
  double L[11] = {1, 2, 3, 0, 2, 4, 6, 0, 0, 0, 1};  // rows 0 and 1 parallel
  double inner[5] = {-1}, outer[6];
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_DLT2Camera(L, 0, inner, outer, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"The DLT is singular: its 3x3 block has no inverse"));
  EXPECT_EQ(inner[0], -1);
  eerr_DeleteErrorReportEx(&err);
}

// The linear 11-parameter fit behind the resection's approximation, on
// points imaged through the projection matrix, splits into the true camera.
TEST(DltTest, LinearFitFromGroundAndFilmPoints) {
  const double truth[6] = {10.0, -40.0, 12.0, 1.4, 0.3, -0.2};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, truth, 50.0, 0, 0, m));
  std::vector<double> ground, film;
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> uni(-15.0, 15.0);
  for (int i = 0; i < 8; ++i) {
    const double X = uni(rng), Y = uni(rng), Z = 10 + uni(rng);
    double x, y;
    ASSERT_FALSE(epho_CameraObjectToImage(m, X, Y, Z, &x, &y));
    ground.insert(ground.end(), {X, Y, Z});
    film.insert(film.end(), {x, y});
  }
  Eigen::Matrix<double, 3, 4> P;
  ASSERT_EQ(epho::FitProjective3D(film.data(), ground.data(), 8, &P), nullptr);
  Eigen::Matrix3d K, R;
  Eigen::Vector3d C;
  ASSERT_TRUE(epho::SplitProjection(P, &K, &R, &C));
  EXPECT_NEAR(K(0, 0), 50.0, 1e-7);
  EXPECT_NEAR(K(1, 1), 50.0, 1e-7);
  EXPECT_NEAR(K(0, 2), 0.0, 1e-7);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(C(k), truth[k], 1e-8);
  double Rt[9];
  epho_RotateAll(truth + 3, Rt, 2);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(R(r, c), Rt[3 * r + c], 1e-10);
  // Coplanar ground points leave the 3D fit undetermined.
  for (int i = 0; i < 8; ++i) ground[3 * i + 2] = 4.0;
  EXPECT_NE(epho::FitProjective3D(film.data(), ground.data(), 8, &P), nullptr);
}

TEST(Dlt2DTest, RecoversAProjectiveTransform) {
  const double h[8] = {350.0, 1.2, -0.1, -80.0, 0.05, 0.9, 1e-4, -2e-4};
  std::vector<double> from, to;
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> uni(0.0, 1000.0);
  for (int i = 0; i < 40; ++i) {
    const double x = uni(rng), y = uni(rng);
    const double w = 1 + h[6] * x + h[7] * y;
    from.insert(from.end(), {x, y});
    to.insert(to.end(), {(h[0] + h[1] * x + h[2] * y) / w, (h[3] + h[4] * x + h[5] * y) / w});
  }
  for (int n : {4, 40}) {
    double c[8], rms = -1;
    ASSERT_TRUE(epho_DeriveDLT2D(from.data(), to.data(), n, c, &rms, nullptr));
    for (int k = 0; k < 8; ++k) EXPECT_NEAR(c[k], h[k], 1e-9 * (1 + std::fabs(h[k]))) << k;
    EXPECT_LT(rms, 1e-8);
    double X, Y;
    ASSERT_FALSE(epho_ApplyDLT2D(c, from[2], from[3], &X, &Y));
    EXPECT_NEAR(X, to[2], 1e-8);
    EXPECT_NEAR(Y, to[3], 1e-8);
  }
}

TEST(Dlt2DTest, DegenerateConfigurationsAreReported) {
  // Three of four points on a line.
  const double from[8] = {0, 0, 1, 1, 2, 2, 0, 5};
  const double to[8] = {10, 0, 11, 1, 12, 2, 10, 5};
  double c[8] = {0};
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_DeriveDLT2D(from, to, 4, c, nullptr, &err));
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->function, L"epho_DeriveDLT2D");
  eerr_DeleteErrorReportEx(&err);
  EXPECT_FALSE(epho_DeriveDLT2D(from, to, 3, c, nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"At least 4 point pairs are needed, 3 given"));
  eerr_DeleteErrorReportEx(&err);
  const double line[8] = {0, 0, 1, 1, 2, 2, 3, 3};
  EXPECT_FALSE(epho_DeriveDLT2D(line, to, 4, c, nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"The points lie on a line"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(c[0], 0.0);
}

}  // namespace
