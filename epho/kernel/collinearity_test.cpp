#include "epho/collinearity.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>

namespace {

// Independent pinhole model: R = Rx(omega) Ry(phi) Rz(kappa),
// (u, v, w) = R^T (P - C), x = -f u / w, y = -f v / w.
struct Pinhole {
  Eigen::Vector3d C;
  Eigen::Matrix3d R;
  double f;
  Eigen::Vector2d Project(const Eigen::Vector3d& P) const {
    const Eigen::Vector3d q = R.transpose() * (P - C);
    return {-f * q(0) / q(2), -f * q(1) / q(2)};
  }
};

Eigen::Matrix3d Opk(double o, double p, double k) {
  return (Eigen::AngleAxisd(o, Eigen::Vector3d::UnitX()) *
          Eigen::AngleAxisd(p, Eigen::Vector3d::UnitY()) *
          Eigen::AngleAxisd(k, Eigen::Vector3d::UnitZ()))
      .matrix();
}

TEST(ProjectionMatrixTest, SimplestCameraGivesTheTextbookRows) {
  const double outer[6] = {0, 0, 0, 0, 0, 0};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, 1.0, 0, 0, m));
  const double expect[12] = {0, 0, 0, -1, 0, 1, 0, 0, 0, 0, 1, 0};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(m[i] + 0.0, expect[i]) << i;
  double x, y;
  ASSERT_FALSE(epho_CameraObjectToImage(m, 3, 4, -2, &x, &y));
  EXPECT_DOUBLE_EQ(x, 1.5);
  EXPECT_DOUBLE_EQ(y, 2.0);
  // A point in the plane of the centre has no image.
  EXPECT_TRUE(epho_CameraObjectToImage(m, 3, 4, 0, &x, &y));
  // Zero focal length: no projection matrix. The inner block (rows (0, 1, 0),
  // (0, 0, 1), (-0, 0, 0)) is left in the left columns, the last column as it was.
  for (double& v : m) v = 9.0;
  EXPECT_TRUE(epho_Get3x4ParFromInnerOuter(nullptr, outer, 0.0, 0, 0, m));
  const double left[12] = {0, 1, 0, 9, 0, 0, 1, 9, 0, 0, 0, 9};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(m[i], left[i]) << i;
}

TEST(ProjectionMatrixTest, MatchesPinholeInEveryRotationSystem) {
  const double f = 153.2;
  const Eigen::Vector3d C(4200.0, -1300.0, 2500.0);
  const Eigen::Vector3d pts[] = {{4000, -1000, 120}, {4800, -2000, 30}, {3500, -900, 410}};
  const auto Ry = [](double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitY()).matrix(); };
  const auto Rx = [](double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitX()).matrix(); };
  const auto Rz = [](double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitZ()).matrix(); };
  const double a0 = 0.02, a1 = -0.03, a2 = 0.7;
  // Camera systems: 0 omega-phi-kappa; 1 phi+ (slot 0 phi); 2 phi-.
  const Eigen::Matrix3d Rs[3] = {Opk(a0, a1, a2), Ry(a0) * Rx(a1) * Rz(a2),
                                 Ry(-a0) * Rx(a1) * Rz(a2)};
  for (int sys = 0; sys < 3; ++sys) {
    const double outer[6] = {C(0), C(1), C(2), a0, a1, a2};
    double m[12];
    ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, f, sys, 0, m));
    const Pinhole cam{C, Rs[sys], f};
    for (const auto& P : pts) {
      double x, y;
      ASSERT_FALSE(epho_CameraObjectToImage(m, P(0), P(1), P(2), &x, &y));
      const Eigen::Vector2d e = cam.Project(P);
      EXPECT_NEAR(x, e(0), 1e-10) << "system " << sys;
      EXPECT_NEAR(y, e(1), 1e-10) << "system " << sys;
    }
  }
  // Any other camera system is the phi- one.
  double m2[12], m7[12];
  const double outer[6] = {C(0), C(1), C(2), a0, a1, a2};
  epho_Get3x4ParFromInnerOuter(nullptr, outer, f, 2, 0, m2);
  epho_Get3x4ParFromInnerOuter(nullptr, outer, f, 7, 0, m7);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(m2[i], m7[i]);
}

TEST(ProjectionMatrixTest, InnerAffineAndYDirection) {
  const double f = 100.0;
  const Eigen::Vector3d C(10, 20, 900);
  const double outer[6] = {C(0), C(1), C(2), 0.01, 0.02, 0.3};
  const Pinhole cam{C, Opk(0.01, 0.02, 0.3), f};
  const Eigen::Vector3d P(50, -40, 15);
  // The inner affine takes the matrix's film coordinates to the ideal ones:
  // a0 + a1 x + a2 y = -f u / w and a3 + a4 x + a5 y = -f v / w.
  const double inner[6] = {0.5, 1.01, 0.002, -0.3, -0.001, 0.99};
  double m[12], x, y;
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(inner, outer, f, 0, 0, m));
  ASSERT_FALSE(epho_CameraObjectToImage(m, P(0), P(1), P(2), &x, &y));
  const Eigen::Vector2d e = cam.Project(P);
  EXPECT_NEAR(inner[0] + inner[1] * x + inner[2] * y, e(0), 1e-10);
  EXPECT_NEAR(inner[3] + inner[4] * x + inner[5] * y, e(1), 1e-10);

  // Y direction: object axes (X, Y, Z) act as (X, Z, -Y) of a Z-direction
  // camera, for the point and the centre alike.
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, f, 0, 1, m));
  const Pinhole turned{Eigen::Vector3d(C(0), C(2), -C(1)), cam.R, f};
  ASSERT_FALSE(epho_CameraObjectToImage(m, P(0), P(1), P(2), &x, &y));
  const Eigen::Vector2d t = turned.Project(Eigen::Vector3d(P(0), P(2), -P(1)));
  EXPECT_NEAR(x, t(0), 1e-10);
  EXPECT_NEAR(y, t(1), 1e-10);
  // ... and the height-plane intersection in mode 1 takes -Y as the height.
  double X, Z;
  ASSERT_FALSE(epho_CameraImageAndZToXY(m, 1, x, y, -P(1), &X, &Z));
  EXPECT_NEAR(X, P(0), 1e-8);
  EXPECT_NEAR(Z, P(2), 1e-8);
}

TEST(CollinearityTest, ImageAndHeightInvertsProjection) {
  const double outer[6] = {500, 700, 1800, 0.04, -0.05, 1.2};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, 120.0, 0, 0, m));
  for (double X : {0.0, 350.0, 910.0}) {
    for (double Y : {200.0, 1250.0}) {
      const double Z = 0.1 * X - 0.05 * Y;
      double x, y, Xb, Yb;
      ASSERT_FALSE(epho_CameraObjectToImage(m, X, Y, Z, &x, &y));
      ASSERT_FALSE(epho_CameraImageAndZToXY(m, 0, x, y, Z, &Xb, &Yb));
      EXPECT_NEAR(Xb, X, 1e-8);
      EXPECT_NEAR(Yb, Y, 1e-8);
      // The film point found again from the intersected ground point.
      double x2, y2;
      ASSERT_FALSE(epho_CameraObjectToImage(m, Xb, Yb, Z, &x2, &y2));
      EXPECT_NEAR(x2, x, 1e-11);
      EXPECT_NEAR(y2, y, 1e-11);
      // The ray of the film point runs from the centre towards the ground point.
      double d[3];
      ASSERT_FALSE(epho_CameraImageToRay(m, x, y, d));
      const Eigen::Vector3d dir(d[0], d[1], d[2]);
      const Eigen::Vector3d toP = Eigen::Vector3d(X, Y, Z) - Eigen::Vector3d(500, 700, 1800);
      EXPECT_NEAR(dir.normalized().dot(toP.normalized()), 1.0, 1e-12);
    }
  }
}

TEST(CollinearityTest, RayParallelToHeightPlaneFails) {
  // Film coordinates that do not depend on X: every ray of this matrix is
  // parallel to the X axis, so the two equations cannot fix X and Y.
  const double m[12] = {1, 0, 0.5, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  double X = 7, Y = 8;
  EXPECT_TRUE(epho_CameraImageAndZToXY(m, 0, 0.1, 0.2, 3.0, &X, &Y));
  EXPECT_EQ(X, 7);
  EXPECT_EQ(Y, 8);
  double d[3];
  EXPECT_FALSE(epho_CameraImageToRay(m, 0.1, 0.2, d));
  EXPECT_EQ(d[1], 0.0);
  EXPECT_EQ(d[2], 0.0);
}

TEST(CollinearityTest, AverageGroundHeight) {
  const double a[3] = {1, 2, 3}, b[3] = {4, 6, 9};
  EXPECT_DOUBLE_EQ(epho_GetAverageGroundZ(a, b, 1.0, 0), 5.0);
  EXPECT_DOUBLE_EQ(epho_GetAverageGroundZ(a, b, 1.0, 1), 3.0);
}

}  // namespace
