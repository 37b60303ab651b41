#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "epho/matching.h"

namespace {

constexpr int kSize = 64;

// Smooth step: 1 inside |t| < half, 0 outside, edges blurred by 0.7 px.
double Bar(double t, double half) {
  return 0.5 * (std::erf((half - t) / 0.7) + std::erf((half + t) / 0.7));
}

// Pixel k's centre is at k. Intensities scaled into large unsigned values.
std::vector<uint32_t> Cross(double cx, double cy, unsigned noise_seed) {
  std::mt19937 rng(noise_seed);
  std::normal_distribution<double> noise(0, noise_seed ? 1.5 : 0.0);
  std::vector<uint32_t> img(kSize * kSize);
  for (int r = 0; r < kSize; ++r)
    for (int c = 0; c < kSize; ++c) {
      const double dx = c - cx, dy = r - cy;
      const double v = std::max(Bar(dy, 2.0) * Bar(dx, 14.0), Bar(dx, 2.0) * Bar(dy, 14.0));
      img[r * kSize + c] = static_cast<uint32_t>(3000000000.0 + 200 * v * 1000 + noise(rng) * 1000);
    }
  return img;
}

std::vector<uint32_t> Ring(double cx, double cy) {
  std::vector<uint32_t> img(kSize * kSize);
  for (int r = 0; r < kSize; ++r)
    for (int c = 0; c < kSize; ++c) {
      const double rho = std::hypot(c - cx, r - cy);
      img[r * kSize + c] = static_cast<uint32_t>(20 + 200 * std::exp(-(rho - 7) * (rho - 7) / 3.0) +
                                                 100 * std::exp(-rho * rho / 4.0));
    }
  return img;
}

TEST(SymmetryCentre, CrossAndRingAtSubPixelPositions) {
  const double truth[][2] = {{30.3, 27.8}, {33.0, 31.5}, {29.77, 34.12}};
  for (const auto& t : truth) {
    SCOPED_TRACE(testing::Message() << t[0] << ", " << t[1]);
    double x, y, c;
    // Start 2-3 pixels away from the centre.
    auto cross = Cross(t[0], t[1], 0);
    ASSERT_EQ(epho_FindSymmetryCenter(cross.data(), kSize, 32, 30, 12, 12, 5, &x, &y, &c), 0);
    EXPECT_NEAR(x, t[0], 0.05);
    EXPECT_NEAR(y, t[1], 0.05);
    EXPECT_GT(c, 0.95);
    auto noisy = Cross(t[0], t[1], 7);
    ASSERT_EQ(epho_FindSymmetryCenter(noisy.data(), kSize, 32, 30, 12, 12, 5, &x, &y, nullptr), 0);
    EXPECT_NEAR(x, t[0], 0.05);
    EXPECT_NEAR(y, t[1], 0.05);
    auto ring = Ring(t[0], t[1]);
    ASSERT_EQ(epho_FindSymmetryCenter(ring.data(), kSize, 31, 31, 11, 11, 5, &x, &y, &c), 0);
    EXPECT_NEAR(x, t[0], 0.05);
    EXPECT_NEAR(y, t[1], 0.05);
  }
}

TEST(SymmetryCentre, FailsWithoutSymmetricMark) {
  double x, y, c;
  std::vector<uint32_t> flat(kSize * kSize, 77);
  EXPECT_EQ(epho_FindSymmetryCenter(flat.data(), kSize, 32, 32, 8, 8, 4, &x, &y, &c), 1);
  EXPECT_EQ(c, 0.0);
  // The mark's centre lies outside the search range: the peak is on its border.
  auto cross = Cross(40.0, 32.0, 0);
  EXPECT_EQ(epho_FindSymmetryCenter(cross.data(), kSize, 35, 32, 12, 12, 2, &x, &y, &c), 1);
  EXPECT_EQ(x, 37.0);
  EXPECT_EQ(epho_FindSymmetryCenter(nullptr, kSize, 30, 32, 8, 8, 3, &x, &y, &c), 2);
  EXPECT_EQ(epho_FindSymmetryCenter(cross.data(), kSize, 30, 32, 40000, 8, 3, &x, &y, &c), 2);
}

}  // namespace
