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

// A record of `count` values, zero but for the listed (index, value) pairs;
// count 0 stands for no record at all.
struct Sparse {
  int count;
  std::vector<std::pair<int, double>> set;
};

std::vector<double> Values(const Sparse& s) {
  std::vector<double> p(s.count, 0.0);
  for (const auto& [i, v] : s.set) p[i] = v;
  return p;
}

// Which record is read, and when nothing is: a secondary record replaces the
// primary one; an unknown, short or malformed one (a negative count, a NaN or
// huge code) is read safely and gives nothing, or leaves the primary result.
TEST(DistortionTest, ModelSelectionAndMalformedRecords) {
  const double f50 = 1e-4 - 2e-6 * 2500 + 3e-10 * 6.25e6;  // radial at r = 50
  const double f5 = 25.0 * (2e-6 - 1e-10 * 25.0);          // code 6 with p3 = 0 at r = 5
  const Sparse radial3{3, {{0, 1e-4}, {1, -2e-6}, {2, 3e-10}}};
  const Sparse radial5{5, {{1, 1e-4}, {2, -2e-6}, {3, 3e-10}, {4, 99.0}}};
  const Sparse lens{3, {{0, 1e-3}}}, none{0, {}};
  struct Case {
    const char* name;
    Sparse primary, secondary;
    int secondary_count;  // what the record claims, when not its size
    double x, y, dx, dy, tol;
  };
  const Case cases[] = {
      {"3-term radial", radial3, none, 0, 30, -40, 30 * f50, -40 * f50, 1e-15},
      {"5-term radial", radial5, none, 0, 30, -40, 30 * f50, -40 * f50, 1e-15},
      {"3-term at the centre", radial3, none, 0, 0, 0, 0, 0, 0},
      {"5-term at the centre", radial5, none, 0, 0, 0, 0, 0, 0},
      {"no record", none, none, 0, 10, 10, 0, 0, 0},
      {"26 with zero scale", {26, {{0, 1}, {4, 1e-5}}}, none, 0, 10, 10, 0, 0, 0},
      {"code 3 with 11 values", {11, {{0, 3}, {1, 1}}}, none, 0, 10, 10, 0, 0, 0},
      {"4 values", {4, {{1, 1e-4}, {2, 1e-5}, {3, 1e-6}}}, none, 0, 10, 10, 0, 0, 0},
      {"NaN code", {11, {{0, std::nan("")}, {1, 1}, {4, 1}}}, none, 0, 2, 3, 0, 0, 0},
      {"huge code", {11, {{0, 1e300}, {1, 1}, {4, 1}}}, none, 0, 2, 3, 0, 0, 0},
      {"huge negative code", {11, {{0, -1e300}, {1, 1}, {4, 1}}}, none, 0, 2, 3, 0, 0, 0},
      {"short secondary", lens, {3, {{0, 5}, {1, 1}, {2, 1}}}, 0, 10, 10, 0, 0, 0},
      {"negative secondary count", lens, {6, {{0, 6}, {4, 1}}}, -3, 2, 3, 2e-3, 3e-3, 1e-18},
      {"NaN secondary code", lens, {6, {{0, std::nan("")}, {4, 1}}}, 0, 2, 3, 2e-3, 3e-3, 1e-18},
      {"huge secondary code", lens, {6, {{0, 1e300}, {4, 1}}}, 0, 2, 3, 2e-3, 3e-3, 1e-18},
      {"secondary replaces",
       lens,
       {6, {{0, 6}, {4, 2e-6}, {5, -1e-10}}},
       0,
       3,
       4,
       3 * f5,
       4 * f5,
       1e-16},
      // Code 3 has constant terms: k = 2 p1^2 / 3 = 6, u = v = -6, dx = -2u p6 + p8 v.
      {"code 3 at the centre",
       none,
       {16, {{0, 3}, {1, 3}, {6, 1e-4}, {8, 2e-4}}},
       0,
       0,
       0,
       12e-4 - 12e-4,
       0,
       1e-18},
      // The tangential term is divided by |p1|: T = 49 / 49 = 1 exactly, so
      // dx = 7 (multiplying by a rounded 1/49 gives 6.999999999999999).
      {"tangential divided", {26, {{0, 1}, {1, 49}, {9, -1}}}, none, 0, 7, 0, 7, 0, 0},
      // Balanced radial: nothing at the zero-distortion radius r0 = 80.
      {"balanced at r0",
       {26, {{0, 1}, {1, 152}, {4, 2e-5}, {5, -3e-9}, {6, 1e-13}, {22, 80}}},
       none,
       0,
       48,
       64,
       0,
       0,
       1e-15},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<double> p = Values(c.primary), q = Values(c.secondary);
    Epho_CountedDoubles pr{c.primary.count, p.data()};
    Epho_CountedDoubles sr{c.secondary_count ? c.secondary_count : c.secondary.count, q.data()};
    double dx = -1, dy = -1;
    epho_CameraAwayDistortion(c.primary.count ? &pr : nullptr, c.secondary.count ? &sr : nullptr,
                              c.x, c.y, &dx, &dy);
    EXPECT_NEAR(dx, c.dx, c.tol);
    EXPECT_NEAR(dy, c.dy, c.tol);
  }
  // Off r0 the balanced model is radial and not zero.
  const Record balanced(
      Values({26, {{0, 1}, {1, 152}, {4, 2e-5}, {5, -3e-9}, {6, 1e-13}, {22, 80}}}));
  double dx, dy;
  epho_CameraAwayDistortion(balanced.get(), nullptr, 30.0, 40.0, &dx, &dy);  // r = 50
  EXPECT_NEAR(dx / 30.0, dy / 40.0, 1e-18);
  EXPECT_NE(dx, 0.0);
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
    const Record rec(Values({c.count, c.set}));
    double dx = -1, dy = -1;
    epho_CameraAwayDistortion(c.secondary ? nullptr : rec.get(), c.secondary ? rec.get() : nullptr,
                              2.0, 3.0, &dx, &dy);
    EXPECT_EQ(dx, c.dx) << c.name;
    EXPECT_EQ(dy, c.dy) << c.name;
  }
}

// The secondary code 5 is the 26-parameter model with p3 = r0^2 and the
// tangential scale |p2| in place of 1/|p1|: two independent code paths that
// must agree term by term.
TEST(DistortionTest, ExtendedModelAgreesWithItsSecondaryForm) {
  std::vector<double> a = Values({26, {{0, 1}, {1, 4}}});
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
