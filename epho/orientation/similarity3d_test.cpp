#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <random>
#include <vector>

#include "epho/orientation.h"
#include "platform/eerr/error_frame.h"

namespace {

TEST(Similarity3DTest, RecoversAKnownTransform) {
  const double s = 0.9996;
  const Eigen::Matrix3d R =
      Eigen::AngleAxisd(0.7, Eigen::Vector3d(0.2, -0.5, 1.0).normalized()).matrix();
  const Eigen::Vector3d t(512000.0, 5400000.0, 310.0);
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> uni(-500.0, 500.0);
  std::vector<double> from, to;
  for (int i = 0; i < 10; ++i) {
    const Eigen::Vector3d p(uni(rng), uni(rng), 0.1 * uni(rng));
    const Eigen::Vector3d q = s * R * p + t;
    from.insert(from.end(), {p(0), p(1), p(2)});
    to.insert(to.end(), {q(0), q(1), q(2)});
  }
  for (int n : {3, 10}) {
    double scale, rot[9], shift[3], rms = -1;
    ASSERT_TRUE(
        epho_Solve3DLinearTrans(from.data(), to.data(), n, &scale, rot, shift, &rms, nullptr));
    EXPECT_NEAR(scale, s, 1e-12);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(rot[3 * r + c], R(r, c), 1e-11);
      EXPECT_NEAR(shift[r], t(r), 1e-6);
    }
    EXPECT_LT(rms, 1e-6);
  }
}

TEST(Similarity3DTest, MirroredPointsGiveAProperRotationAndAResidual) {
  const double from[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  const double to[12] = {0, 0, 0, -1, 0, 0, 0, 1, 0, 0, 0, 1};  // x mirrored
  double scale, rot[9], shift[3], rms;
  ASSERT_TRUE(epho_Solve3DLinearTrans(from, to, 4, &scale, rot, shift, &rms, nullptr));
  Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>> R(rot);
  EXPECT_NEAR(R.determinant(), 1.0, 1e-12);
  EXPECT_GT(rms, 0.1);
}

TEST(Similarity3DTest, CollinearPointsAreReported) {
  const double from[9] = {0, 0, 0, 1, 1, 1, 3, 3, 3};
  const double to[9] = {5, 0, 0, 6, 1, 1, 7, 0, 2};
  double scale = -1, rot[9], shift[3];
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_Solve3DLinearTrans(from, to, 3, &scale, rot, shift, nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(
      err, L"The points lie on a line: the rotation about it is not determined"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(scale, -1);
  EXPECT_FALSE(epho_Solve3DLinearTrans(from, to, 2, &scale, rot, shift, nullptr, &err));
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
