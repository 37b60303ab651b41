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

// Coefficient layout of every model: each model is linear in its
// coefficients, so setting one (or a scale plus one) and evaluating at
// (x, y) = (2, 3), r^2 = 13, must give that coefficient's monomial, worked out
// by hand: e.g. x^2 y = 12, x y^2 = 18, x^2 y^2 = 36, x r^4 = 338. All values
// are exact in doubles, so the comparison is exact.
struct LayoutCase {
  const char* name;
  bool secondary;
  int count;
  std::vector<std::pair<int, double>> set;  // p0 (the code) and the coefficients
  double dx, dy;
};

TEST(DistortionTest, EveryModelPutsEachCoefficientOnItsMonomial) {
  const LayoutCase cases[] = {
      // count 3: p0 is a coefficient.
      {"3 p0", false, 3, {{0, 1}}, 2, 3},
      {"3 p1", false, 3, {{1, 1}}, 26, 39},
      {"3 p2", false, 3, {{2, 1}}, 338, 507},
      // 26 parameters, code 1 (p1 the tangential divisor, p22 r0).
      {"A p4", false, 26, {{0, 1}, {1, 1}, {4, 1}}, 26, 39},
      {"A p5", false, 26, {{0, 1}, {1, 1}, {5, 1}}, 338, 507},
      {"A p6", false, 26, {{0, 1}, {1, 1}, {6, 1}}, 4394, 6591},
      {"A r0", false, 26, {{0, 1}, {1, 1}, {4, 1}, {22, 1}}, 24, 36},
      {"A p7", false, 26, {{0, 1}, {1, 1}, {7, 1}}, 2, 0},
      {"A p8", false, 26, {{0, 1}, {1, 1}, {8, 1}}, 3, 0},
      {"A p9", false, 26, {{0, 1}, {1, 1}, {9, 1}}, 10, 15},
      {"A p9/2", false, 26, {{0, 1}, {1, -2}, {9, 1}}, 5, 7.5},
      {"A p10", false, 26, {{0, 1}, {1, 1}, {10, 1}}, -72, -108},
      {"A p11", false, 26, {{0, 1}, {1, 1}, {11, 1}}, 130, 195},
      {"A p12", false, 26, {{0, 1}, {1, 1}, {12, 1}}, 6, 0},
      {"A p13", false, 26, {{0, 1}, {1, 1}, {13, 1}}, 9, 0},
      {"A p14", false, 26, {{0, 1}, {1, 1}, {14, 1}}, 12, 0},
      {"A p15", false, 26, {{0, 1}, {1, 1}, {15, 1}}, 18, 0},
      {"A p16", false, 26, {{0, 1}, {1, 1}, {16, 1}}, 36, 0},
      {"A p17", false, 26, {{0, 1}, {1, 1}, {17, 1}}, 0, 6},
      {"A p18", false, 26, {{0, 1}, {1, 1}, {18, 1}}, 0, 4},
      {"A p19", false, 26, {{0, 1}, {1, 1}, {19, 1}}, 0, 12},
      {"A p20", false, 26, {{0, 1}, {1, 1}, {20, 1}}, 0, 18},
      {"A p21", false, 26, {{0, 1}, {1, 1}, {21, 1}}, 0, 36},
      // 11 parameters, code 2: everything negated.
      {"B p4", false, 11, {{0, 2}, {1, 1}, {4, 1}}, -26, -39},
      {"B p5", false, 11, {{0, 2}, {1, 1}, {5, 1}}, -338, -507},
      {"B p6", false, 11, {{0, 2}, {1, 1}, {6, 1}}, -4394, -6591},
      {"B p7", false, 11, {{0, 2}, {1, 1}, {7, 1}}, -21, -12},
      {"B p8", false, 11, {{0, 2}, {1, 1}, {8, 1}}, -12, -31},
      {"B p9", false, 11, {{0, 2}, {1, 1}, {9, 1}}, -2, 0},
      {"B p10", false, 11, {{0, 2}, {1, 1}, {10, 1}}, -3, 0},
      // 13 parameters, code 3: radial to r^8, decentring times 1 + p11 r^2 + p12 r^4.
      {"C p4", false, 13, {{0, 3}, {1, 1}, {4, 1}}, 2, 3},
      {"C p5", false, 13, {{0, 3}, {1, 1}, {5, 1}}, 26, 39},
      {"C p6", false, 13, {{0, 3}, {1, 1}, {6, 1}}, 338, 507},
      {"C p7", false, 13, {{0, 3}, {1, 1}, {7, 1}}, 4394, 6591},
      {"C p8", false, 13, {{0, 3}, {1, 1}, {8, 1}}, 57122, 85683},
      {"C p9", false, 13, {{0, 3}, {1, 1}, {9, 1}}, 21, 12},
      {"C p10", false, 13, {{0, 3}, {1, 1}, {10, 1}}, 12, 31},
      {"C p9 p11", false, 13, {{0, 3}, {1, 1}, {9, 1}, {11, 1}}, 294, 168},
      {"C p10 p12", false, 13, {{0, 3}, {1, 1}, {10, 1}, {12, 1}}, 2040, 5270},
      // Additional parameters, q = r^2 - p3.
      {"1 p4", true, 7, {{0, 1}, {4, 1}}, 26, 39},
      {"1 p3 p4", true, 7, {{0, 1}, {3, 5}, {4, 1}}, 16, 24},
      {"1 p5", true, 7, {{0, 1}, {5, 1}}, 2, -3},
      {"1 p6", true, 7, {{0, 1}, {6, 1}}, 0, 2},
      {"2 p4", true, 8, {{0, 2}, {4, 1}}, 26, 39},
      {"2 p5", true, 8, {{0, 2}, {5, 1}}, 2, -3},
      {"2 p6", true, 8, {{0, 2}, {6, 1}}, 3, 2},
      {"2 p7", true, 8, {{0, 2}, {7, 1}}, 0, 4},
      // Code 3 with p1 = 0 (k = 0): u = x^2 = 4, v = y^2 = 9.
      {"3 p4", true, 16, {{0, 3}, {4, 1}}, 2, -3},
      {"3 p5", true, 16, {{0, 3}, {5, 1}}, 3, 2},
      {"3 p6", true, 16, {{0, 3}, {6, 1}}, -8, 6},
      {"3 p7", true, 16, {{0, 3}, {7, 1}}, 6, -18},
      {"3 p8", true, 16, {{0, 3}, {8, 1}}, 9, 0},
      {"3 p9", true, 16, {{0, 3}, {9, 1}}, 0, 4},
      {"3 p10", true, 16, {{0, 3}, {10, 1}}, 18, 0},
      {"3 p11", true, 16, {{0, 3}, {11, 1}}, 0, 12},
      {"3 p12", true, 16, {{0, 3}, {12, 1}}, 12, 0},
      {"3 p13", true, 16, {{0, 3}, {13, 1}}, 0, 18},
      {"3 p14", true, 16, {{0, 3}, {14, 1}}, 36, 0},
      {"3 p15", true, 16, {{0, 3}, {15, 1}}, 0, 36},
      // k = 2 p1^2 / 3 = 6 with p1 = 3: u = -2, v = 3.
      {"3 k p8", true, 16, {{0, 3}, {1, 3}, {8, 1}}, 3, 0},
      {"3 k p9", true, 16, {{0, 3}, {1, 3}, {9, 1}}, 0, -2},
      {"4 p4", true, 18, {{0, 4}, {4, 1}}, 2, 0},
      {"4 p5", true, 18, {{0, 4}, {5, 1}}, 3, 0},
      {"4 p6", true, 18, {{0, 4}, {6, 1}}, 6, 0},
      {"4 p7", true, 18, {{0, 4}, {7, 1}}, 9, 0},
      {"4 p8", true, 18, {{0, 4}, {8, 1}}, 12, 0},
      {"4 p9", true, 18, {{0, 4}, {9, 1}}, 18, 0},
      {"4 p10", true, 18, {{0, 4}, {10, 1}}, 36, 0},
      {"4 p11", true, 18, {{0, 4}, {11, 1}}, 0, 6},
      {"4 p12", true, 18, {{0, 4}, {12, 1}}, 0, 4},
      {"4 p13", true, 18, {{0, 4}, {13, 1}}, 0, 12},
      {"4 p14", true, 18, {{0, 4}, {14, 1}}, 0, 18},
      {"4 p15", true, 18, {{0, 4}, {15, 1}}, 0, 36},
      {"4 p16", true, 18, {{0, 4}, {16, 1}}, 72, 108},
      {"4 p17", true, 18, {{0, 4}, {17, 1}}, 26, 39},
      // Code 5: p2 multiplies the tangential term, p3 is r0^2.
      {"5 p9", true, 22, {{0, 5}, {2, 1}, {9, 1}}, 10, 15},
      {"5 p9*2", true, 22, {{0, 5}, {2, -2}, {9, 1}}, 20, 30},
      {"5 p3 p5", true, 22, {{0, 5}, {2, 1}, {3, 1}, {5, 1}}, 336, 504},
      {"5 p21", true, 22, {{0, 5}, {2, 1}, {21, 1}}, 0, 36},
      {"6 p4", true, 6, {{0, 6}, {4, 1}}, 26, 39},
      {"6 p5", true, 6, {{0, 6}, {5, 1}}, 338, 507},
      {"6 p3 p5", true, 6, {{0, 6}, {3, 10}, {5, 1}}, 18, 27},
      {"7 p4", true, 7, {{0, 7}, {4, 1}}, 3, 0},
      {"7 p5", true, 7, {{0, 7}, {5, 1}}, 0, 3},
      {"7 p6", true, 7, {{0, 7}, {6, 1}}, 26, 39},
  };
  for (const LayoutCase& c : cases) {
    std::vector<double> p(c.count, 0.0);
    for (const auto& [i, v] : c.set) p[i] = v;
    const Record rec(p);
    double dx = -1, dy = -1;
    epho_CameraAwayDistortion(c.secondary ? nullptr : rec.get(), c.secondary ? rec.get() : nullptr,
                              2.0, 3.0, &dx, &dy);
    EXPECT_EQ(dx, c.dx) << c.name;
    EXPECT_EQ(dy, c.dy) << c.name;
  }
}

// The tangential term is divided by |p1| in the 26-parameter model: with
// (x, y) = (7, 0), p9 = -1 and p1 = 49, T = 49 / 49 = 1 exactly, so dx = 7.
// (Multiplying by a rounded 1/49 instead gives 6.999999999999999.)
TEST(DistortionTest, TangentialTermIsDividedByTheScale) {
  std::vector<double> a = Zeros(26, 1.0, 49.0);
  a[9] = -1.0;
  const Record model(a);
  double dx, dy;
  epho_CameraAwayDistortion(model.get(), nullptr, 7.0, 0.0, &dx, &dy);
  EXPECT_EQ(dx, 7.0);
  EXPECT_EQ(dy, 0.0);
}

// Guards against reading outside the record: a negative secondary count is
// no record (the primary result stands), a NaN or huge code names no model.
TEST(DistortionTest, MalformedRecordsAreReadSafely) {
  const Record radial({1e-3, 0.0, 0.0});
  std::vector<double> six = {6.0, 0.0, 0.0, 0.0, 1.0, 0.0};
  Epho_CountedDoubles negative{-3, six.data()};
  double dx, dy;
  epho_CameraAwayDistortion(radial.get(), &negative, 2.0, 3.0, &dx, &dy);
  EXPECT_EQ(dx, 2e-3);
  EXPECT_DOUBLE_EQ(dy, 3e-3);
  for (double code : {std::nan(""), 1e300, -1e300}) {
    std::vector<double> p = Zeros(11, code, 1.0);
    p[4] = 1.0;
    const Record bad(p);
    epho_CameraAwayDistortion(bad.get(), nullptr, 2.0, 3.0, &dx, &dy);
    EXPECT_EQ(dx, 0.0);
    six[0] = code;
    const Record bad2(six);
    epho_CameraAwayDistortion(radial.get(), bad2.get(), 2.0, 3.0, &dx, &dy);
    EXPECT_EQ(dx, 2e-3);  // unknown secondary code: primary result kept
  }
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

// The stopping rules of the fixed-point iteration, on a linear lens dx = c x
// (count 3, f = p0) whose iterates have the closed form
// e_k = c x (1 - c^(k+1)) / (1 - c) and changes |c|^(k+1) |x|.
TEST(DistortionTest, IterationStopsAsDocumented) {
  double dx, dy;
  // A first distortion below 0.001 is taken as it is (one evaluation only).
  const Record tiny({1e-5, 0.0, 0.0});
  epho_CameraAwayDistortionIterative(tiny.get(), nullptr, 10.0, 10.0, &dx, &dy, 1.0, 1);
  EXPECT_EQ(dx, 10.0 * 1e-5);
  EXPECT_EQ(dy, 10.0 * 1e-5);
  // c = -0.9: changes shrink too slowly for the 0.0001 tolerance, so the
  // eleventh evaluation (k = 10) is returned.
  const double c = -0.9, x = 10.0;
  const Record slow({c, 0.0, 0.0});
  epho_CameraAwayDistortionIterative(slow.get(), nullptr, x, 0.0, &dx, &dy, 1e9, 1);
  EXPECT_NEAR(dx, c * x * (1 - std::pow(c, 11)) / (1 - c), 1e-12);
  EXPECT_EQ(dy, 0.0);
  // c = 0.05: the change 0.05^(k+1) * 10 first falls below 0.0001 at k = 3,
  // and that evaluation is returned.
  const Record fast({0.05, 0.0, 0.0});
  epho_CameraAwayDistortionIterative(fast.get(), nullptr, x, 0.0, &dx, &dy, 1e9, 1);
  EXPECT_NEAR(dx, 0.05 * x * (1 - std::pow(0.05, 4)) / (1 - 0.05), 1e-12);
  // A first change already beyond the divergence bound gives nothing.
  epho_CameraAwayDistortionIterative(slow.get(), nullptr, x, 0.0, &dx, &dy, 0.5, 1);
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
