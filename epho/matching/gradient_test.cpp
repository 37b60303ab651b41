#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "epho/matching.h"

namespace {

constexpr int kSize = 80;

double AngleDiff(double a, double b) {
  double d = std::fmod(a - b, 2 * M_PI);
  if (d > M_PI) d -= 2 * M_PI;
  if (d < -M_PI) d += 2 * M_PI;
  return d;
}

// A blurred step edge whose normal points along `dir`, through (cx, cy),
// with faint blobs so that the gradient field is not a single direction.
std::vector<double> EdgeScene(double dir, double cx, double cy, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-12, 12);
  double bx[30], by[30];
  for (int k = 0; k < 30; ++k) bx[k] = u(rng), by[k] = u(rng);
  std::vector<double> img(kSize * kSize);
  const double c = std::cos(dir), s = std::sin(dir);
  for (int r = 0; r < kSize; ++r)
    for (int col = 0; col < kSize; ++col) {
      // Scene coordinates: turned back by dir, so the edge normal is +p.
      const double dx = col - cx, dy = r - cy;
      const double p = c * dx + s * dy, q = -s * dx + c * dy;
      double v = 100 + 80 * 0.5 * (1 + std::erf(p / 2.0));
      for (int k = 0; k < 30; ++k)
        v += 8 * std::exp(-((p - bx[k]) * (p - bx[k]) + (q - by[k]) * (q - by[k])) / 4.0);
      img[r * kSize + col] = v;
    }
  return img;
}

TEST(GradientAngle, LinearRampPointsUpTheSlope) {
  for (double a : {0.0, 0.3, 1.2, 2.0, M_PI, -2.5, -0.7}) {
    std::vector<double> img(kSize * kSize);
    for (int r = 0; r < kSize; ++r)
      for (int c = 0; c < kSize; ++c)
        img[r * kSize + c] = 500 + 3 * std::cos(a) * c + 3 * std::sin(a) * r;
    double angle = 99;
    ASSERT_EQ(epho_GradiAngleDouble(img.data(), kSize, 40, 40, 10, 7, &angle), 0);
    EXPECT_NEAR(AngleDiff(angle, a), 0.0, 1.0 * M_PI / 180) << "slope direction " << a;
    EXPECT_GT(angle, -M_PI);
    EXPECT_LE(angle, M_PI);
  }
}

TEST(GradientAngle, FollowsTurnedContentAndLetsTurnedWindowsMatch) {
  const auto base = EdgeScene(0.0, 40, 40, 3);
  double a0;
  ASSERT_EQ(epho_GradiAngleDouble(base.data(), kSize, 40, 40, 12, 12, &a0), 0);
  for (double t : {0.4, 1.5, -2.2, 3.0}) {
    const auto turned = EdgeScene(t, 40, 40, 3);
    double at;
    ASSERT_EQ(epho_GradiAngleDouble(turned.data(), kSize, 40, 40, 12, 12, &at), 0);
    EXPECT_NEAR(AngleDiff(at - a0, t), 0.0, 2.0 * M_PI / 180) << "turn " << t;
    // Both windows turned to their own gradient angle show the same content
    // (window centres at the pixel centre 40.5 of the resampling members).
    EXPECT_GT(epho_CrossCoefDoubleBothResample(base.data(), turned.data(), kSize, kSize, a0, at,
                                               40.5, 40.5, 40.5, 40.5, 21, 21),
              0.98);
    std::vector<uint8_t> b8(base.begin(), base.end()), t8(turned.begin(), turned.end());
    double a8, t8a;
    ASSERT_EQ(epho_GradiAngleByte(b8.data(), kSize, 40, 40, 12, 12, &a8), 0);
    ASSERT_EQ(epho_GradiAngleByte(t8.data(), kSize, 40, 40, 12, 12, &t8a), 0);
    EXPECT_NEAR(AngleDiff(t8a - a8, t), 0.0, 3.0 * M_PI / 180);
  }
}

TEST(GradientAngle, FlatWindowHasNoAngle) {
  std::vector<uint8_t> flat(kSize * kSize, 42);
  double angle = 5;
  EXPECT_EQ(epho_GradiAngleByte(flat.data(), kSize, 40, 40, 6, 6, &angle), 1);
  EXPECT_EQ(angle, 0.0);
  // A ramp outside the window (beyond its one-pixel margin) does not count.
  for (int r = 0; r < kSize; ++r)
    for (int c = 50; c < kSize; ++c) flat[r * kSize + c] = uint8_t(c);
  EXPECT_EQ(epho_GradiAngleByte(flat.data(), kSize, 40, 40, 6, 6, &angle), 1);
  EXPECT_EQ(epho_GradiAngleByte(flat.data(), kSize, 40, 40, 0xFFFFFFFFu, 6, &angle), 1);
}

}  // namespace
