#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "epho/collinearity.h"

namespace {

struct Record {
  std::vector<double> p;
  Epho_CountedDoubles rec;
  explicit Record(std::vector<double> v) : p(std::move(v)) {
    rec.count = static_cast<int32_t>(p.size());
    rec.data = p.data();
  }
  const Epho_CountedDoubles* get() const { return &rec; }
};

std::vector<double> Zeros(int n, double code, double scale) {
  std::vector<double> v(n, 0.0);
  v[0] = code;
  if (n > 1) v[1] = scale;
  return v;
}

TEST(DistortionTest, RadialModelsAreRadialAndVanishAtTheCentre) {
  const Record three({1e-4, -2e-6, 3e-10});
  const Record five({0.0, 1e-4, -2e-6, 3e-10, 99.0});
  for (const Record* r : {&three, &five}) {
    double dx, dy;
    epho_CameraAwayDistortion(r->get(), nullptr, 30.0, -40.0, &dx, &dy);
    // Closed form: r = 50, f = 1e-4 - 2e-6 * 2500 + 3e-10 * 6.25e6.
    const double f = 1e-4 - 2e-6 * 2500 + 3e-10 * 6.25e6;
    EXPECT_NEAR(dx, 30.0 * f, 1e-15);
    EXPECT_NEAR(dy, -40.0 * f, 1e-15);
    epho_CameraAwayDistortion(r->get(), nullptr, 0.0, 0.0, &dx, &dy);
    EXPECT_EQ(dx, 0.0);
    EXPECT_EQ(dy, 0.0);
  }
}

TEST(DistortionTest, UnknownModelsAndMissingScaleGiveNothing) {
  double dx = 1, dy = 1;
  epho_CameraAwayDistortion(nullptr, nullptr, 10, 10, &dx, &dy);
  EXPECT_EQ(dx, 0.0);
  std::vector<double> a = Zeros(26, 1.0, 0.0);  // 26-parameter model, zero scale
  a[4] = 1e-5;
  const Record bad_scale(a);
  const Record wrong_code(Zeros(11, 3.0, 1.0));
  const Record four({0.0, 1e-4, 1e-5, 1e-6});
  const Record short_secondary({5.0, 1.0, 1.0});  // code 5 needs 22 values
  for (const Record* r : {&bad_scale, &wrong_code, &four}) {
    epho_CameraAwayDistortion(r->get(), nullptr, 10, 10, &dx, &dy);
    EXPECT_EQ(dx, 0.0);
    EXPECT_EQ(dy, 0.0);
  }
  const Record radial({1e-3, 0.0, 0.0});
  epho_CameraAwayDistortion(radial.get(), short_secondary.get(), 10, 10, &dx, &dy);
  EXPECT_EQ(dx, 0.0);
}

TEST(DistortionTest, BalancedRadialVanishesAtTheZeroDistortionRadius) {
  std::vector<double> a = Zeros(26, 1.0, 152.0);
  a[4] = 2e-5, a[5] = -3e-9, a[6] = 1e-13, a[22] = 80.0;
  const Record model(a);
  double dx, dy;
  epho_CameraAwayDistortion(model.get(), nullptr, 48.0, 64.0, &dx, &dy);  // r = 80
  EXPECT_NEAR(dx, 0.0, 1e-15);
  EXPECT_NEAR(dy, 0.0, 1e-15);
  epho_CameraAwayDistortion(model.get(), nullptr, 30.0, 40.0, &dx, &dy);  // r = 50
  EXPECT_NEAR(dx / 30.0, dy / 40.0, 1e-18);
  EXPECT_NE(dx, 0.0);
}

// The secondary code 5 is the 26-parameter model with p3 = r0^2 and the
// tangential scale |p2| in place of 1/|p1|: two independent code paths that
// must agree term by term.
TEST(DistortionTest, ExtendedModelAgreesWithItsSecondaryForm) {
  std::vector<double> a = Zeros(26, 1.0, 4.0);
  for (int i = 4; i <= 21; ++i) a[i] = 1e-6 * (i % 5 + 1) * (i % 2 ? -1 : 1);
  a[22] = 70.0;
  std::vector<double> b(a.begin(), a.begin() + 22);
  b[0] = 5.0, b[1] = 0.0, b[2] = 0.25, b[3] = 70.0 * 70.0;
  const Record primary(a), secondary(b);
  for (const auto& xy : {std::pair<double, double>{12.5, -33.0}, {-71.0, 5.0}, {0.3, 0.9}}) {
    double dx1, dy1, dx2, dy2;
    epho_CameraAwayDistortion(primary.get(), nullptr, xy.first, xy.second, &dx1, &dy1);
    epho_CameraAwayDistortion(nullptr, secondary.get(), xy.first, xy.second, &dx2, &dy2);
    EXPECT_NEAR(dx1, dx2, 1e-12 * (1 + std::fabs(dx1)));
    EXPECT_NEAR(dy1, dy2, 1e-12 * (1 + std::fabs(dy1)));
  }
}

TEST(DistortionTest, SecondaryReplacesPrimary) {
  const Record primary({1e-3, 0.0, 0.0});
  // Code 6 with p3 = 0: f = r^2 (p4 + p5 r^2).
  const Record secondary({6.0, 0.0, 0.0, 0.0, 2e-6, -1e-10});
  double dx, dy;
  epho_CameraAwayDistortion(primary.get(), secondary.get(), 3.0, 4.0, &dx, &dy);
  const double f = 25.0 * (2e-6 - 1e-10 * 25.0);
  EXPECT_NEAR(dx, 3.0 * f, 1e-16);
  EXPECT_NEAR(dy, 4.0 * f, 1e-16);
  // Decentring/affinity code 3 has constant terms at the principal point.
  std::vector<double> c = Zeros(16, 3.0, 3.0);
  c[6] = 1e-4, c[8] = 2e-4;
  const Record code3(c);
  epho_CameraAwayDistortion(nullptr, code3.get(), 0.0, 0.0, &dx, &dy);
  // k = 2 p1^2 / 3 = 6, u = v = -6: dx = -2u p6 + p8 v.
  EXPECT_NEAR(dx, 12 * 1e-4 - 6 * 2e-4, 1e-18);
  EXPECT_EQ(dy, 0.0);
}

TEST(DistortionTest, IterativeDistortionIsRemovedByOneStep) {
  // A strong radial lens: tens of micrometres at the format edge (mm units).
  const Record lens({0.0, 4e-4, -8e-8, 2e-12, 0.0});
  for (const auto& xy : {std::pair<double, double>{80.0, 60.0}, {-100.0, 20.0}, {5.0, -110.0}}) {
    double dx, dy;
    epho_CameraAwayDistortionIterative(lens.get(), nullptr, xy.first, xy.second, &dx, &dy, 1.0, 1);
    ASSERT_GT(std::hypot(dx, dy), 0.001);
    // (x + dx, y + dy) is the distorted position: removing the distortion
    // there (one evaluation, as the inverse transforms do) gives the point back.
    const double xd = xy.first + dx, yd = xy.second + dy;
    double ex, ey;
    epho_CameraAwayDistortion(lens.get(), nullptr, xd, yd, &ex, &ey);
    EXPECT_NEAR(xd - ex, xy.first, 2e-5);
    EXPECT_NEAR(yd - ey, xy.second, 2e-5);
  }
  double dx = 1, dy = 1;
  epho_CameraAwayDistortionIterative(lens.get(), nullptr, 80.0, 60.0, &dx, &dy, 1.0, 0);
  EXPECT_EQ(dx, 0.0);
  EXPECT_EQ(dy, 0.0);
  // A distortion steeper than the identity makes the iteration diverge.
  const Record wild({0.0, 0.0, 5e-4, 0.0, 0.0});
  epho_CameraAwayDistortionIterative(wild.get(), nullptr, 80.0, 60.0, &dx, &dy, 1e6, 1);
  EXPECT_EQ(dx, 0.0);
  EXPECT_EQ(dy, 0.0);
}

// Refraction from the standard-atmosphere coefficient, worked by hand for
// H = 2000 m, h = 500 m: K = 0.00241 (2/242 - 0.25/(2 * 247.25)) =
// 1.8698953e-5; radial displacement K r (1 + r^2/f^2). Earth curvature:
// r^3 (H - h) / (2 R f^2) with R = 6380 km.
TEST(CorrectionTest, RefractionAndCurvatureMatchClosedForms) {
  const double H = 2000, h = 500, f = 152.0, x0 = 60.0, y0 = 80.0;  // r = 100 mm
  const double r = 100.0, K = 1.8698953e-5;
  const double refr = K * r * (1 + r * r / (f * f));
  const double curv = r * r * r * (H - h) / (2 * 6380000.0 * f * f);
  struct Case {
    int kind, direction;
    double dr;
  } cases[] = {{2, 0, refr}, {2, 1, -refr},       {3, 0, -curv},
               {3, 1, curv}, {4, 0, refr - curv}, {4, 1, curv - refr}};
  for (const auto& c : cases) {
    double x = x0, y = y0;
    epho_CameraAwayCorrection(c.kind, H, h, f, &x, &y, c.direction);
    // 1e-8 mm: the curvature constant 1/(2R) is kept to four digits.
    EXPECT_NEAR(std::hypot(x, y) - r, c.dr, 1e-8) << c.kind << "/" << c.direction;
    EXPECT_NEAR(x / y, x0 / y0, 1e-14);  // purely radial
  }
  EXPECT_GT(refr, 2.6e-3);  // a few micrometres, as expected at 2 km
  EXPECT_LT(refr, 2.8e-3);
  // No curvature when the ground is at flying height; unknown kinds and the
  // principal point are left alone.
  double x = x0, y = y0;
  epho_CameraAwayCorrection(3, 800, 800, f, &x, &y, 0);
  EXPECT_EQ(x, x0);
  epho_CameraAwayCorrection(7, H, h, f, &x, &y, 0);
  EXPECT_EQ(y, y0);
  double xs = 0.02, ys = 0.02;
  epho_CameraAwayCorrection(4, H, h, f, &xs, &ys, 1);
  EXPECT_EQ(xs, 0.02);
}

}  // namespace
