// Transform objects: polynomial evaluation against closed forms, inverses and
// compositions by round trip, and the sensor-model hook with a pinhole model.
#include "exfr.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "efga.h"
#include "platform/eerr/error_frame.h"
#include "test_util.h"

namespace {

struct XFormDeleter {
  void operator()(Exfr_XForm* x) const { exfr_XFormFree(x); }
};
using XForm = std::unique_ptr<Exfr_XForm, XFormDeleter>;
struct MatrixDeleter {
  void operator()(Efga_Matrix* m) const { efga_MatrixFree(m); }
};
using Matrix = std::unique_ptr<Efga_Matrix, MatrixDeleter>;

using testutil::Mentions;

Matrix Points(const std::vector<double>& xy) {
  Matrix m(efga_MatrixCreate(2, static_cast<long>(xy.size() / 2), nullptr));
  std::copy(xy.begin(), xy.end(), m->data);
  return m;
}

// A grid of map-like coordinates (large offsets, as UTM eastings/northings).
Matrix Grid() {
  std::vector<double> xy;
  for (double x : {500000.0, 500777.7, 503000.0})
    for (double y : {4100000.0, 4101234.5, 4104000.0}) {
      xy.push_back(x);
      xy.push_back(y);
    }
  return Points(xy);
}

TEST(ExfrPolynomial, AffineAndSecondOrderMatchClosedForms) {
  const double c[6] = {0.5, -0.25, 10.0, 0.125, 2.0, -3.0};
  XForm affine(exfr_AffineXFormCreate(c, nullptr));
  ASSERT_TRUE(affine);
  EXPECT_EQ(exfr_XFormPolynomialOrder(affine.get()), 1);
  Matrix p = Points({3.0, 4.0, -1.0, 0.5});
  ASSERT_TRUE(exfr_Transform(affine.get(), p.get(), p.get(), nullptr));
  EXPECT_DOUBLE_EQ(p->data[0], 0.5 * 3 - 0.25 * 4 + 10);
  EXPECT_DOUBLE_EQ(p->data[1], 0.125 * 3 + 2 * 4 - 3);
  EXPECT_DOUBLE_EQ(p->data[2], 0.5 * -1 - 0.25 * 0.5 + 10);

  // Terms 1, x, y, x², xy, y².
  const double xc[6] = {1, 2, 3, 0.1, 0.2, 0.3};
  const double yc[6] = {-1, 0.5, 1, 0.01, -0.02, 0.03};
  XForm quad(exfr_PolynomialXFormCreate(2, xc, yc, nullptr));
  ASSERT_TRUE(quad);
  Matrix q = Points({2.0, -3.0});
  ASSERT_TRUE(exfr_Transform(quad.get(), q.get(), q.get(), nullptr));
  const double x = 2, y = -3;
  EXPECT_DOUBLE_EQ(q->data[0], 1 + 2 * x + 3 * y + 0.1 * x * x + 0.2 * x * y + 0.3 * y * y);
  EXPECT_DOUBLE_EQ(q->data[1], -1 + 0.5 * x + y + 0.01 * x * x - 0.02 * x * y + 0.03 * y * y);
}

TEST(ExfrPolynomial, InverseReturnsThePointForAffineAndHigherOrders) {
  // A map-to-file style affine (rotation, scale, offset) and a gently curved
  // cubic in normalised coordinates.
  const double c[6] = {0.5 * std::cos(0.3), -0.5 * std::sin(0.3), -250000.0,
                       0.5 * std::sin(0.3), 0.5 * std::cos(0.3),  -2050000.0};
  XForm affine(exfr_AffineXFormCreate(c, nullptr));
  double xc[10] = {3, 1.1, 0.05, 1e-3, 2e-3, -1e-3, 1e-5, 0, 2e-5, 0};
  double yc[10] = {-2, -0.04, 0.95, 5e-4, -1e-3, 2e-3, 0, 1e-5, 0, -2e-5};
  XForm cubic(exfr_PolynomialXFormCreate(3, xc, yc, nullptr));
  ASSERT_TRUE(affine && cubic);
  XForm affine_inv(exfr_XFormInvert(affine.get(), nullptr));
  XForm cubic_inv(exfr_XFormInvert(cubic.get(), nullptr));
  ASSERT_TRUE(affine_inv && cubic_inv);
  EXPECT_EQ(exfr_XFormPolynomialOrder(affine_inv.get()), 1);  // exact, still a polynomial

  Matrix grid = Grid();
  Matrix g = Grid();
  ASSERT_TRUE(exfr_Transform(affine.get(), g.get(), g.get(), nullptr));
  ASSERT_TRUE(exfr_Transform(affine_inv.get(), g.get(), g.get(), nullptr));
  for (long i = 0; i < 2 * grid->numcolumns; ++i) EXPECT_NEAR(g->data[i], grid->data[i], 1e-8);

  Matrix small = Points({-20, 15, 0, 0, 33.3, -41.2, 50, 50});
  Matrix s = Points({-20, 15, 0, 0, 33.3, -41.2, 50, 50});
  ASSERT_TRUE(exfr_Transform(cubic.get(), s.get(), s.get(), nullptr));
  ASSERT_TRUE(exfr_Transform(cubic_inv.get(), s.get(), s.get(), nullptr));
  for (long i = 0; i < 8; ++i) EXPECT_NEAR(s->data[i], small->data[i], 1e-9);

  // Inverting the inverse gives the forward map back.
  XForm again(exfr_XFormInvert(cubic_inv.get(), nullptr));
  ASSERT_EQ(exfr_XFormPolynomialOrder(again.get()), 3);
  double back_x[10], back_y[10];
  ASSERT_TRUE(exfr_PolynomialCoefficientsGet(again.get(), back_x, back_y, nullptr));
  for (int k = 0; k < 10; ++k) EXPECT_EQ(back_x[k], xc[k]);
}

TEST(ExfrCompose, CompositionEqualsSequentialApplicationAndInvertsInReverse) {
  const double a1[6] = {2, 0.1, 5, -0.2, 1.5, -7};
  const double a2[6] = {0.3, -1, 100, 1, 0.3, 50};
  double xc[6] = {0, 1, 0, 1e-4, 0, 0};
  double yc[6] = {0, 0, 1, 0, 0, -1e-4};
  XForm f(exfr_AffineXFormCreate(a1, nullptr));
  XForm g(exfr_AffineXFormCreate(a2, nullptr));
  XForm h(exfr_PolynomialXFormCreate(2, xc, yc, nullptr));
  XForm fg(exfr_XFormCompose(f.get(), g.get(), nullptr));
  XForm fgh(exfr_XFormCompose(fg.get(), h.get(), nullptr));
  ASSERT_TRUE(fg && fgh);
  EXPECT_EQ(exfr_XFormPolynomialOrder(fg.get()), 1);  // two affines fold into one

  Matrix seq = Points({1, 2, -30, 40, 7.5, 0});
  Matrix once = Points({1, 2, -30, 40, 7.5, 0});
  const Matrix start = Points({1, 2, -30, 40, 7.5, 0});
  for (auto* t : {f.get(), g.get(), h.get()})
    ASSERT_TRUE(exfr_Transform(t, seq.get(), seq.get(), nullptr));
  ASSERT_TRUE(exfr_Transform(fgh.get(), once.get(), once.get(), nullptr));
  for (int i = 0; i < 6; ++i)
    EXPECT_NEAR(once->data[i], seq->data[i], 1e-9 * (1 + std::fabs(seq->data[i])));

  XForm inv(exfr_XFormInvert(fgh.get(), nullptr));
  XForm copy(exfr_XFormCopy(inv.get(), nullptr));
  ASSERT_TRUE(inv && copy);
  ASSERT_TRUE(exfr_Transform(copy.get(), once.get(), once.get(), nullptr));
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(once->data[i], start->data[i], 1e-8);
}

TEST(ExfrFailures, BadInputIsReportedByTheFailingCall) {
  const double singular[6] = {1, 2, 0, 2, 4, 0};
  XForm s(exfr_AffineXFormCreate(singular, nullptr));
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(exfr_XFormInvert(s.get(), &err), nullptr);
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->function, L"exfr_XFormInvert");
  eerr_DeleteErrorReportEx(&err);

  double bad[6] = {1, 0, NAN, 0, 1, 0};
  EXPECT_EQ(exfr_AffineXFormCreate(bad, &err), nullptr);
  EXPECT_TRUE(Mentions(err, L"not a finite number"));
  eerr_DeleteErrorReportEx(&err);
  double xc[3] = {0, 1, 0}, yc[3] = {0, 0, 1};
  EXPECT_EQ(exfr_PolynomialXFormCreate(9, xc, yc, &err), nullptr);
  eerr_DeleteErrorReportEx(&err);

  // x' = x + x², y' = y: no preimage for x' < -1/4, so Newton cannot converge;
  // the output matrix must stay as it was.
  double qx[6] = {0, 1, 0, 1, 0, 0}, qy[6] = {0, 0, 1, 0, 0, 0};
  XForm q(exfr_PolynomialXFormCreate(2, qx, qy, nullptr));
  XForm qi(exfr_XFormInvert(q.get(), nullptr));
  ASSERT_TRUE(qi);
  Matrix in = Points({0.75, 1.0, -5.0, 2.0});
  Matrix out = Points({9, 9, 9, 9});
  EXPECT_FALSE(exfr_Transform(qi.get(), in.get(), out.get(), &err));
  EXPECT_STREQ(err->function, L"exfr_Transform");
  EXPECT_TRUE(Mentions(err, L"point 1"));
  eerr_DeleteErrorReportEx(&err);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out->data[i], 9);
  ASSERT_TRUE(exfr_Transform(qi.get(), Points({0.75, 1.0}).get(), out.get(), &err) == EMSC_FALSE);
  eerr_DeleteErrorReportEx(&err);  // size mismatch (1 vs 2 points)

  // Sensor calls on a polynomial, reported, and printed when no report slot.
  testutil::PrintedReports printed;
  double ground[3] = {1, 2, 3}, image[2];
  EXPECT_FALSE(exfr_GroundToImage(q.get(), 1, ground, image, nullptr));
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"exfr_GroundToImage"), std::wstring::npos);
}

// A vertical pinhole camera over flat ground, as the smallest sensor model:
// image = f * (ground - centre) / (centre height - z) + principal point.
struct Pinhole {
  double cx, cy, cz, f;
  int* alive;
};

Emsc_Boolean PinholeGroundToImage(void* m, long n, const double* g, double* im,
                                  Eerr_ErrorReport** err) {
  auto* p = static_cast<Pinhole*>(m);
  for (long i = 0; i < n; ++i) {
    const double d = p->cz - g[3 * i + 2];
    if (d <= 0) {
      *err = eerr_CreateErrorReport(L"PinholeGroundToImage", 1, 2, nullptr,
                                    L"Point above the camera", 0);
      return EMSC_FALSE;
    }
    im[2 * i] = p->f * (g[3 * i] - p->cx) / d;
    im[2 * i + 1] = p->f * (g[3 * i + 1] - p->cy) / d;
  }
  return EMSC_TRUE;
}
Emsc_Boolean PinholeRay(void* m, double x, double y, double o[3], double d[3], Eerr_ErrorReport**) {
  auto* p = static_cast<Pinhole*>(m);
  o[0] = p->cx, o[1] = p->cy, o[2] = p->cz;
  d[0] = x, d[1] = y, d[2] = -p->f;
  return EMSC_TRUE;
}
Emsc_Boolean PinholeImageAndZ(void* m, long n, const double* im, const double* z, double* g,
                              Eerr_ErrorReport**) {
  auto* p = static_cast<Pinhole*>(m);
  for (long i = 0; i < n; ++i) {
    const double d = p->cz - z[i];
    g[2 * i] = p->cx + im[2 * i] * d / p->f;
    g[2 * i + 1] = p->cy + im[2 * i + 1] * d / p->f;
  }
  return EMSC_TRUE;
}
void* PinholeCopy(const void* m, Eerr_ErrorReport**) {
  auto* c = new Pinhole(*static_cast<const Pinhole*>(m));
  ++*c->alive;
  return c;
}
void PinholeDestroy(void* m) {
  auto* p = static_cast<Pinhole*>(m);
  --*p->alive;
  delete p;
}
const Exfr_SensorModelOps kPinholeOps = {
    "pinhole", PinholeGroundToImage, PinholeRay,    PinholeImageAndZ,
    nullptr,   PinholeCopy,          PinholeDestroy};

TEST(ExfrSensorModel, RegisteredModelAnswersTheSensorCallsAndIsOwned) {
  int alive = 1;
  auto* model = new Pinhole{1000, 2000, 1500, 0.15, &alive};
  XForm t(exfr_SensorModelXFormCreate(&kPinholeOps, model, nullptr));
  ASSERT_TRUE(t);
  EXPECT_EQ(exfr_XFormSensorModelGet(t.get(), &kPinholeOps), model);
  EXPECT_EQ(exfr_XFormPolynomialOrder(t.get()), 0);

  const double ground[6] = {1100, 1950, 100, 900, 2100, 300};
  double image[4], back[4];
  ASSERT_TRUE(exfr_GroundToImage(t.get(), 2, ground, image, nullptr));
  EXPECT_NEAR(image[0], 0.15 * 100 / 1400, 1e-15);
  const double z[2] = {100, 300};
  ASSERT_TRUE(exfr_ImageAndGroundZToGroundXY(t.get(), 2, image, z, back, nullptr));
  EXPECT_NEAR(back[0], 1100, 1e-9);
  EXPECT_NEAR(back[3], 2100, 1e-9);
  double o[3], d[3];
  ASSERT_TRUE(exfr_ImageToGroundRay(t.get(), image[0], image[1], o, d, nullptr));
  const double s = (ground[2] - o[2]) / d[2];  // the ray passes through the ground point
  EXPECT_NEAR(o[0] + s * d[0], ground[0], 1e-9);
  EXPECT_NEAR(o[1] + s * d[1], ground[1], 1e-9);

  // The model's failure is chained under the exported call.
  Eerr_ErrorReport* err = nullptr;
  const double above[3] = {0, 0, 2000};
  EXPECT_FALSE(exfr_GroundToImage(t.get(), 1, above, image, &err));
  EXPECT_STREQ(err->function, L"exfr_GroundToImage");
  EXPECT_TRUE(Mentions(err, L"Point above the camera"));
  eerr_DeleteErrorReportEx(&err);
  // No 2D transform and no inverse for this model.
  Matrix pts = Points({1, 2});
  EXPECT_FALSE(exfr_Transform(t.get(), pts.get(), pts.get(), &err));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(exfr_XFormInvert(t.get(), &err), nullptr);
  eerr_DeleteErrorReportEx(&err);

  {
    XForm copy(exfr_XFormCopy(t.get(), nullptr));
    ASSERT_TRUE(copy);
    EXPECT_EQ(alive, 2);
    EXPECT_NE(exfr_XFormSensorModelGet(copy.get(), &kPinholeOps), model);
  }
  EXPECT_EQ(alive, 1);
  t.reset();
  EXPECT_EQ(alive, 0);  // the transform destroyed the model it owned
}

}  // namespace
