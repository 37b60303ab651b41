#include <gtest/gtest.h>

#include <cmath>

#include "epho/collinearity.h"
#include "epho/orientation.h"
#include "platform/eerr/error_frame.h"

namespace {

TEST(IntersectionTest, SkewRaysMeetAtTheMidpointOfTheirCommonPerpendicular) {
  // Along X through the origin and along Y through (0, 0, 2): the closest
  // points are (0, 0, 0) and (0, 0, 2), one unit from the midpoint each.
  const double o[6] = {-5, 0, 0, 0, 3, 2};
  const double d[6] = {2, 0, 0, 0, -7, 0};
  double p[3], rms = -1;
  ASSERT_TRUE(epho_GetIntersectionWithPointRays(o, d, 2, p, &rms, nullptr));
  EXPECT_NEAR(p[0], 0.0, 1e-12);
  EXPECT_NEAR(p[1], 0.0, 1e-12);
  EXPECT_NEAR(p[2], 1.0, 1e-12);
  EXPECT_NEAR(rms, 1.0, 1e-12);
}

TEST(IntersectionTest, RaysOfTwoAndThreePhotosRecoverGroundPoints) {
  const double f = 153.0;
  const double outers[3][6] = {{1000, 2000, 1600, 0.02, -0.01, 0.10},
                               {1900, 2050, 1580, -0.01, 0.03, 0.12},
                               {1450, 2800, 1620, 0.00, 0.02, -0.05}};
  double m[3][12];
  for (int c = 0; c < 3; ++c)
    ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outers[c], f, c, 0, m[c]));
  const double pts[][3] = {{1400, 2100, 120}, {1500, 2500, 80}, {1300, 2300, 250}};
  for (const auto& P : pts) {
    double o[9], d[9];
    for (int c = 0; c < 3; ++c) {
      double x, y;
      ASSERT_FALSE(epho_CameraObjectToImage(m[c], P[0], P[1], P[2], &x, &y));
      ASSERT_FALSE(epho_CameraImageToRay(m[c], x, y, d + 3 * c));
      for (int k = 0; k < 3; ++k) o[3 * c + k] = outers[c][k];
    }
    for (int n : {2, 3}) {
      double X[3], rms;
      ASSERT_TRUE(epho_GetIntersectionWithPointRays(o, d, n, X, &rms, nullptr));
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(X[k], P[k], 1e-7);
      EXPECT_LT(rms, 1e-7);
    }
  }
}

TEST(IntersectionTest, ParallelOrMissingRaysAreReported) {
  const double o[6] = {0, 0, 0, 10, 0, 0};
  const double parallel[6] = {0, 0, -1, 0, 0, -2};
  double p[3] = {9, 9, 9};
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_GetIntersectionWithPointRays(o, parallel, 2, p, nullptr, &err));
  EXPECT_TRUE(
      kzdv::ReportContains(err, L"The rays are parallel: their intersection is not determined"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(p[0], 9.0);
  const double zero[6] = {0, 0, -1, 0, 0, 0};
  EXPECT_FALSE(epho_GetIntersectionWithPointRays(o, zero, 2, p, nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"Ray 1 has no direction"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_FALSE(epho_GetIntersectionWithPointRays(o, parallel, 1, p, nullptr, &err));
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
