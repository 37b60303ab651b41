#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "epho/collinearity.h"
#include "epho/orientation.h"
#include "platform/eerr/error_frame.h"
#include "test_util.h"

namespace {

// A vertical aerial photograph (f = 153 mm, 1500 m above ground) over control
// points with 100 m of relief, imaged through the projection matrix.
struct Scene {
  double focal = 153.0;
  double outer[6] = {5200.0, 3100.0, 1620.0, 0.031, -0.022, 1.17};
  std::vector<double> ground, film;
  Scene(int sys, int n, double noise_mm = 0.0, unsigned seed = 7) {
    double m[12];
    epho_Get3x4ParFromInnerOuter(nullptr, outer, focal, sys, 0, m);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    std::normal_distribution<double> gauss(0.0, noise_mm);
    for (int i = 0; i < n; ++i) {
      const double X = outer[0] + 800 * uni(rng), Y = outer[1] + 800 * uni(rng);
      const double Z = 100 + 50 * uni(rng);
      double x, y;
      epho_CameraObjectToImage(m, X, Y, Z, &x, &y);
      ground.insert(ground.end(), {X, Y, Z});
      film.insert(film.end(),
                  {x + (noise_mm > 0 ? gauss(rng) : 0), y + (noise_mm > 0 ? gauss(rng) : 0)});
    }
  }
  int count() const { return static_cast<int>(ground.size() / 3); }
};

// Exact observations give the orientation back in every rotation system,
// from no approximation or, with three points and no redundancy, from one.
TEST(ResectionTest, RecoversOrientationExactlyInEverySystem) {
  const struct {
    int sys, points;
    bool approximate;
  } cases[] = {{0, 9, false}, {1, 9, false}, {2, 9, false}, {0, 3, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "system " << c.sys << ", " << c.points << " points");
    const Scene s(c.sys, c.points);
    double outer[6] = {5150.0, 3150.0, 1500.0, 0.0, 0.0, 1.1}, sigma[6], s0 = -1;
    Eerr_ErrorReport* err = nullptr;
    ASSERT_TRUE(epho_Resection(s.film.data(), s.ground.data(), s.count(), s.focal, c.sys,
                               c.approximate ? EMSC_TRUE : EMSC_FALSE, outer, sigma, &s0, &err));
    EXPECT_EQ(err, nullptr);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(outer[k], s.outer[k], c.approximate ? 1e-5 : 1e-6);
    for (int k = 3; k < 6 && !c.approximate; ++k) EXPECT_NEAR(outer[k], s.outer[k], 1e-10);
    EXPECT_LT(s0, 1e-9);
    if (c.approximate) {
      EXPECT_EQ(s0, 0.0);  // no redundancy
      EXPECT_EQ(sigma[0], 0.0);
    }
  }
}

TEST(ResectionTest, TerrestrialCameraWithoutApproximation) {
  // A horizontal camera (omega near 90 degrees) 50 m in front of a 3D object;
  // its control is far from planar, so no plane fits it.
  const double truth[6] = {2.0, -50.0, 10.0, 1.62, 0.1, 0.05};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, truth, 35.0, 0, 0, m));
  std::vector<double> ground, film;
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  for (int i = 0; i < 10; ++i) {
    const double X = -20 + 40 * uni(rng), Y = -10 + 30 * uni(rng), Z = 20 * uni(rng);
    double x, y;
    ASSERT_FALSE(epho_CameraObjectToImage(m, X, Y, Z, &x, &y));
    ground.insert(ground.end(), {X, Y, Z});
    film.insert(film.end(), {x, y});
  }
  double outer[6];
  ASSERT_TRUE(epho_Resection(film.data(), ground.data(), 10, 35.0, 0, EMSC_FALSE, outer, nullptr,
                             nullptr, nullptr));
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(outer[k], truth[k], 1e-8) << k;
}

TEST(ResectionTest, NoisyObservationsStayWithinTheirStandardErrors) {
  const double noise = 0.005;  // 5 micrometres on the film
  int within = 0, total = 0;
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const Scene s(0, 12, noise, seed);
    double outer[6], sigma[6], s0;
    ASSERT_TRUE(epho_Resection(s.film.data(), s.ground.data(), s.count(), s.focal, 0, EMSC_FALSE,
                               outer, sigma, &s0, nullptr));
    EXPECT_GT(s0, 0.4 * noise);
    EXPECT_LT(s0, 1.7 * noise);
    for (int k = 0; k < 6; ++k) {
      EXPECT_LT(std::fabs(outer[k] - s.outer[k]), 5 * sigma[k]) << "seed " << seed << " " << k;
      within += std::fabs(outer[k] - s.outer[k]) < sigma[k];
      ++total;
    }
  }
  // About 68 % of the errors fall within one standard error.
  EXPECT_GT(within, 0.5 * total);
  EXPECT_LT(within, 0.85 * total);
}

TEST(ResectionTest, DegenerateInputIsReported) {
  const Scene s(0, 6);
  double outer[6] = {0, 0, 0, 0, 0, 0};
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_Resection(s.film.data(), s.ground.data(), 2, s.focal, 0, EMSC_FALSE, outer,
                              nullptr, nullptr, &err));
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->function, L"epho_Resection");
  eerr_DeleteErrorReportEx(&err);

  std::vector<double> line = s.ground;
  for (int i = 0; i < 6; ++i) line[3 * i + 1] = 2 * line[3 * i], line[3 * i + 2] = 10.0;
  EXPECT_FALSE(epho_Resection(s.film.data(), line.data(), 6, s.focal, 0, EMSC_FALSE, outer, nullptr,
                              nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"The control points lie on a line"));
  eerr_DeleteErrorReportEx(&err);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(outer[k], 0.0);  // untouched on failure

  // Without a report argument the report is printed once.
  testutil::PrintedReports printed;
  EXPECT_FALSE(epho_Resection(s.film.data(), s.ground.data(), 6, 0.0, 0, EMSC_FALSE, outer, nullptr,
                              nullptr, nullptr));
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"focal length"), std::wstring::npos);

  // An approximation turned half a revolution about X puts the points behind
  // the camera: reported, and the approximation is not overwritten.
  const Scene eight(0, 8);
  double upside_down[6] = {5200.0, 3100.0, 1620.0, 3.0, 0.0, 0.0};
  EXPECT_FALSE(epho_Resection(eight.film.data(), eight.ground.data(), 8, eight.focal, 0, EMSC_TRUE,
                              upside_down, nullptr, nullptr, &err));
  EXPECT_TRUE(kzdv::ReportContains(err, L"The solution places control points behind the camera"))
      << kzdv::ReportText(err);
  EXPECT_EQ(upside_down[3], 3.0);
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
