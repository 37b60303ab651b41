// 3D polynomial model: fits against a known polynomial and against an
// independent least-squares solution, the inverse at a height, the exfr
// registration and bad control. Scanner model: the fiducial affine both ways
// and composed with a film-coordinate sensor model.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "epho/sensors/sensors_internal.h"
#include "test_util.h"

namespace {

struct ErrSlot {
  Eerr_ErrorReport* report = nullptr;
  ~ErrSlot() { eerr_DeleteErrorReport(report); }
  Eerr_ErrorReport** operator&() {
    eerr_DeleteErrorReportEx(&report);
    return &report;
  }
  std::wstring Text() const { return kzdv::ReportText(report); }
  bool Mentions(const std::wstring& text) const { return testutil::Mentions(report, text); }
};

using PolyPtr = epho::sensors::Owned<Epho_Poly3DModel, epho_Poly3DModelFree>;
using epho::sensors::ExfrPtr;

// Control in a UTM-like system: a 4 x 3 km block, heights 300 to 700 m.
std::vector<double> Control(int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> e(0, 4000), n(0, 3000), h(300, 700);
  std::vector<double> g;
  for (int i = 0; i < count; ++i) g.insert(g.end(), {512000 + e(rng), 5123000 + n(rng), h(rng)});
  return g;
}

// Image of a ground point by monomials of kilometre offsets, written out
// term by term.
void Truth(long order, const double* g, double* image) {
  const double u = (g[0] - 514000) / 1000, v = (g[1] - 5124500) / 1000, w = (g[2] - 500) / 1000;
  image[0] = 6000 + 1500 * u + 12 * v + 80 * w;
  image[1] = 5000 - 9 * u - 1490 * v + 35 * w;
  if (order >= 2) {
    image[0] += 3 * u * u - 2 * u * v + 5 * u * w + 1.5 * v * v - 4 * v * w + 6 * w * w;
    image[1] += -1 * u * u + 2.5 * u * v - 3 * u * w + 2 * v * v + 7 * v * w - 5 * w * w;
  }
  if (order >= 3) {
    image[0] += 0.4 * u * u * u - 0.3 * u * u * v + 0.2 * u * u * w + 0.5 * u * v * v -
                0.6 * u * v * w + 0.7 * u * w * w - 0.8 * v * v * v + 0.9 * v * v * w -
                1.1 * v * w * w + 1.2 * w * w * w;
    image[1] += -0.5 * u * u * u + 0.6 * u * u * v - 0.2 * u * u * w - 0.4 * u * v * v +
                0.3 * u * v * w - 0.9 * u * w * w + 0.8 * v * v * v - 0.7 * v * v * w +
                1.0 * v * w * w - 1.3 * w * w * w;
  }
}

TEST(Poly3DModel, EachOrderRecoversItsPolynomialAndInvertsAtAHeight) {
  for (long order : {1L, 2L, 3L}) {
    SCOPED_TRACE(order);
    const int count = 40;
    const std::vector<double> ground = Control(count, unsigned(order));
    std::vector<double> image(2 * count), residuals(2 * count, -1.0);
    for (int i = 0; i < count; ++i) Truth(order, &ground[3 * i], &image[2 * i]);
    ErrSlot err;
    double rmse = -1;
    PolyPtr m(epho_Poly3DModelFit(order, count, ground.data(), image.data(), residuals.data(),
                                  &rmse, &err));
    ASSERT_TRUE(m) << err.Text();
    EXPECT_LT(rmse, 1e-8);
    for (double r : residuals) EXPECT_LT(std::fabs(r), 1e-8);
    // Fresh points, not used in the fit.
    const std::vector<double> check = Control(25, 100 + unsigned(order));
    std::vector<double> got(50), want(50), xy(50), z(25);
    ASSERT_TRUE(epho_Poly3DGroundToImage(m.get(), 25, check.data(), got.data(), &err));
    for (int i = 0; i < 25; ++i) Truth(order, &check[3 * i], &want[2 * i]), z[i] = check[3 * i + 2];
    for (int i = 0; i < 50; ++i) EXPECT_NEAR(got[i], want[i], 1e-7);
    ASSERT_TRUE(epho_Poly3DImageToGround(m.get(), 25, want.data(), z.data(), xy.data(), &err))
        << err.Text();
    for (int i = 0; i < 25; ++i) {
      EXPECT_NEAR(xy[2 * i], check[3 * i], 1e-6);  // metres
      EXPECT_NEAR(xy[2 * i + 1], check[3 * i + 1], 1e-6);
    }
    // The coefficients rebuild the same model.
    Epho_Poly3DCoefficients c;
    ASSERT_TRUE(epho_Poly3DModelCoefficientsGet(m.get(), &c, &err));
    EXPECT_EQ(c.order, order);
    PolyPtr rebuilt(epho_Poly3DModelCreate(&c, &err));
    ASSERT_TRUE(rebuilt) << err.Text();
    std::vector<double> again(50);
    ASSERT_TRUE(epho_Poly3DGroundToImage(rebuilt.get(), 25, check.data(), again.data(), &err));
    EXPECT_EQ(again, got);
  }
}

TEST(Poly3DModel, CoefficientsFollowTheDocumentedTermOrder) {
  // Truth's coefficients listed in the header's order: 1; u, v, w; u², uv,
  // uw, v², vw, w²; u³, u²v, u²w, uv², uvw, uw², v³, v²w, vw², w³.
  Epho_Poly3DCoefficients c{};
  c.order = 3;
  const double offset[3] = {514000, 5124500, 500};
  for (int k = 0; k < 3; ++k) c.groundOffset[k] = offset[k], c.groundScale[k] = 1000;
  c.imageScale[0] = c.imageScale[1] = 1;
  const double x[20] = {6000, 1500, 12,  80,  3,    -2,  5,    1.5, -4,   6,
                        0.4,  -0.3, 0.2, 0.5, -0.6, 0.7, -0.8, 0.9, -1.1, 1.2};
  const double y[20] = {5000, -9,  -1490, 35,   -1,  2.5,  -3,  2,    7,   -5,
                        -0.5, 0.6, -0.2,  -0.4, 0.3, -0.9, 0.8, -0.7, 1.0, -1.3};
  std::copy(x, x + 20, c.xcoef);
  std::copy(y, y + 20, c.ycoef);
  ErrSlot err;
  PolyPtr m(epho_Poly3DModelCreate(&c, &err));
  ASSERT_TRUE(m) << err.Text();
  const std::vector<double> ground = Control(30, 9);
  std::vector<double> got(60);
  ASSERT_TRUE(epho_Poly3DGroundToImage(m.get(), 30, ground.data(), got.data(), &err));
  for (int i = 0; i < 30; ++i) {
    double want[2];
    Truth(3, &ground[3 * i], want);
    EXPECT_NEAR(got[2 * i], want[0], 1e-9);
    EXPECT_NEAR(got[2 * i + 1], want[1], 1e-9);
  }
}

TEST(Poly3DModel, NoisyFitMatchesAnIndependentLeastSquaresSolution) {
  // Order-2 fit of noisy order-3 data: the fitted image of every control
  // point must equal the projection of the observations on the span of the
  // raw monomials, whatever the normalisation inside.
  const int count = 60;
  const std::vector<double> ground = Control(count, 7);
  std::vector<double> image(2 * count), residuals(2 * count);
  std::mt19937 rng(3);
  std::normal_distribution<double> noise(0, 0.3);
  for (int i = 0; i < count; ++i) {
    Truth(3, &ground[3 * i], &image[2 * i]);
    image[2 * i] += noise(rng), image[2 * i + 1] += noise(rng);
  }
  ErrSlot err;
  double rmse = 0;
  PolyPtr m(
      epho_Poly3DModelFit(2, count, ground.data(), image.data(), residuals.data(), &rmse, &err));
  ASSERT_TRUE(m) << err.Text();
  Eigen::MatrixXd a(count, 10);
  Eigen::MatrixXd b(count, 2);
  for (int i = 0; i < count; ++i) {
    const double x = (ground[3 * i] - 512000) / 1000, y = (ground[3 * i + 1] - 5123000) / 1000,
                 z = ground[3 * i + 2] / 1000;
    a.row(i) << 1, x, y, z, x * x, x * y, x * z, y * y, y * z, z * z;
    b.row(i) << image[2 * i], image[2 * i + 1];
  }
  const Eigen::MatrixXd fitted = a * a.colPivHouseholderQr().solve(b);
  double sum = 0;
  for (int i = 0; i < count; ++i)
    for (int k = 0; k < 2; ++k) {
      const double r = b(i, k) - fitted(i, k);
      EXPECT_NEAR(residuals[2 * i + k], r, 1e-7);
      sum += r * r;
    }
  EXPECT_NEAR(rmse, std::sqrt(sum / count), 1e-9);
  EXPECT_GT(rmse, 0.1);  // the noise and the missing cubic terms show
}

TEST(Poly3DModel, BadControlIsReported) {
  const std::vector<double> ground = Control(30, 5);
  std::vector<double> image(60);
  for (int i = 0; i < 30; ++i) Truth(3, &ground[3 * i], &image[2 * i]);
  std::vector<double> flat = ground;  // all at one height
  for (int i = 0; i < 30; ++i) flat[3 * i + 2] = 450.0;
  std::vector<double> line = ground;  // all on one line in plan
  for (int i = 0; i < 30; ++i) line[3 * i + 1] = 5123000 + 0.5 * (line[3 * i] - 512000);
  std::vector<double> with_nan = ground;
  with_nan[3 * 17 + 1] = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* what;
    long order;
    long count;
    const std::vector<double>* ground;
    const wchar_t* message;
  };
  const Case cases[] = {
      {"order 0", 0, 30, &ground, L"out of range"},
      {"order 4", 4, 30, &ground, L"out of range"},
      {"too few points for order 3", 3, 19, &ground, L"at least 20 control points"},
      {"one height, term in Z", 1, 30, &flat, L"do not determine"},
      {"points on a line", 2, 30, &line, L"do not determine"},
      {"NaN control", 1, 30, &with_nan, L"Control point 17 is not finite"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ErrSlot err;
    EXPECT_FALSE(epho_Poly3DModelFit(c.order, c.count, c.ground->data(), image.data(), nullptr,
                                     nullptr, &err));
    EXPECT_TRUE(err.Mentions(c.message)) << err.Text();
  }
  Epho_Poly3DCoefficients c{};
  c.order = 1;
  c.groundScale[0] = c.groundScale[1] = c.groundScale[2] = 1;
  c.imageScale[0] = c.imageScale[1] = 1;
  c.xcoef[1] = std::numeric_limits<double>::infinity();
  ErrSlot err;
  EXPECT_FALSE(epho_Poly3DModelCreate(&c, &err));
  EXPECT_TRUE(err.Mentions(L"non-finite coefficient")) << err.Text();
}

// A near-vertical frame photograph in film millimetres (focal 153 mm, 1:10000
// over the control block), fitted by an order-3 polynomial: the film model
// under the scanner tests.
PolyPtr FilmModel() {
  const std::vector<double> ground = Control(80, 11);
  std::vector<double> film(160);
  for (int i = 0; i < 80; ++i) {
    const double dx = ground[3 * i] - 514000, dy = ground[3 * i + 1] - 5124500,
                 dz = ground[3 * i + 2] - 2030;
    film[2 * i] = -153.0 * (dx + 0.01 * dy) / dz;
    film[2 * i + 1] = -153.0 * (dy - 0.01 * dx) / dz;
  }
  double rmse = 0;
  PolyPtr m(epho_Poly3DModelFit(3, 80, ground.data(), film.data(), nullptr, &rmse, nullptr));
  EXPECT_LT(rmse, 0.1);  // mm: a cubic stands in for the perspective
  return m;
}

TEST(ScannerModel, FiducialAffineBothWaysAndItsLayout) {
  // 21 micrometre pixels, 0.3 degree rotation, film origin near the centre
  // of a 11000 x 11000 scan, rows growing down while film y grows up.
  const double s = 0.021, r = 0.3 * M_PI / 180;
  const Epho_FiducialAffine affine = {{-115.4, s * std::cos(r), s * std::sin(r)},
                                      {116.1, s * std::sin(r), -s * std::cos(r)}};
  const double pixels[6] = {0, 0, 5500.5, 5500.5, 10999, 123};
  double film[6], back[6];
  ErrSlot err;
  ASSERT_TRUE(epho_FiducialAffinePixelToFilm(&affine, 3, pixels, film, &err));
  Eigen::Matrix2d lin;
  lin << affine.a[1], affine.a[2], affine.b[1], affine.b[2];
  for (int i = 0; i < 3; ++i) {
    const Eigen::Vector2d f = Eigen::Vector2d(affine.a[0], affine.b[0]) +
                              lin * Eigen::Vector2d(pixels[2 * i], pixels[2 * i + 1]);
    EXPECT_NEAR(film[2 * i], f.x(), 1e-12);
    EXPECT_NEAR(film[2 * i + 1], f.y(), 1e-12);
  }
  ASSERT_TRUE(epho_FiducialAffineFilmToPixel(&affine, 3, film, back, &err));
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(back[i], pixels[i], 1e-9);
  const Epho_FiducialAffine identity = {{0, 1, 0}, {0, 0, 1}};
  ASSERT_TRUE(epho_FiducialAffinePixelToFilm(&identity, 3, pixels, film, &err));
  for (int i = 0; i < 6; ++i) EXPECT_EQ(film[i], pixels[i]);
  const Epho_FiducialAffine singular = {{1, 0.02, 0.04}, {2, 0.01, 0.02}};
  EXPECT_FALSE(epho_FiducialAffineFilmToPixel(&singular, 3, film, back, &err));
  EXPECT_TRUE(err.Mentions(L"singular")) << err.Text();
}

TEST(ScannerModel, ComposesWithAFilmSensorModel) {
  PolyPtr poly = FilmModel();
  ASSERT_TRUE(poly);
  ErrSlot err;
  ExfrPtr film(epho_Poly3DModelToExfr(poly.get(), &err));
  ASSERT_TRUE(film) << err.Text();
  const double s = 0.021, r = -0.2 * M_PI / 180;
  const Epho_FiducialAffine affine = {{-115.4, s * std::cos(r), s * std::sin(r)},
                                      {116.1, s * std::sin(r), -s * std::cos(r)}};
  ExfrPtr scanner(epho_ScannerXformCreate(&affine, film.get(), &err));
  ASSERT_TRUE(scanner) << err.Text();
  EXPECT_TRUE(exfr_XFormSensorModelGet(scanner.get(), epho_ScannerSensorOps()));
  ExfrPtr copy(exfr_XFormCopy(scanner.get(), &err));
  ASSERT_TRUE(copy) << err.Text();
  const std::vector<double> ground = Control(20, 21);
  std::vector<double> film_xy(40), pixels(40), xy(40), z(20);
  ASSERT_TRUE(epho_Poly3DGroundToImage(poly.get(), 20, ground.data(), film_xy.data(), &err));
  ASSERT_TRUE(exfr_GroundToImage(copy.get(), 20, ground.data(), pixels.data(), &err)) << err.Text();
  // Pixels by the inverse of the affine, solved here with Eigen.
  Eigen::Matrix2d lin;
  lin << affine.a[1], affine.a[2], affine.b[1], affine.b[2];
  for (int i = 0; i < 20; ++i) {
    const Eigen::Vector2d p = lin.lu().solve(
        Eigen::Vector2d(film_xy[2 * i] - affine.a[0], film_xy[2 * i + 1] - affine.b[0]));
    EXPECT_NEAR(pixels[2 * i], p.x(), 1e-7);
    EXPECT_NEAR(pixels[2 * i + 1], p.y(), 1e-7);
    z[i] = ground[3 * i + 2];
  }
  ASSERT_TRUE(
      exfr_ImageAndGroundZToGroundXY(scanner.get(), 20, pixels.data(), z.data(), xy.data(), &err))
      << err.Text();
  for (int i = 0; i < 20; ++i) {
    EXPECT_NEAR(xy[2 * i], ground[3 * i], 1e-4);
    EXPECT_NEAR(xy[2 * i + 1], ground[3 * i + 1], 1e-4);
  }
  // Both ends of a pixel's ray project back into that pixel.
  double origin[3], dir[3];
  ASSERT_TRUE(exfr_ImageToGroundRay(scanner.get(), pixels[0], pixels[1], origin, dir, &err))
      << err.Text();
  const double ends[6] = {origin[0],          origin[1],          origin[2],
                          origin[0] + dir[0], origin[1] + dir[1], origin[2] + dir[2]};
  double on_ray[4];
  ASSERT_TRUE(exfr_GroundToImage(scanner.get(), 2, ends, on_ray, &err));
  for (int k = 0; k < 2; ++k) {
    EXPECT_NEAR(on_ray[2 * k], pixels[0], 1e-6);
    EXPECT_NEAR(on_ray[2 * k + 1], pixels[1], 1e-6);
  }
  EXPECT_GT(std::fabs(dir[2]), 0);
  // exfr_Transform: plan positions to pixels at the film model's mean height.
  Epho_Poly3DCoefficients c;
  ASSERT_TRUE(epho_Poly3DModelCoefficientsGet(poly.get(), &c, &err));
  const double at_mean[3] = {ground[0], ground[1], c.groundOffset[2]};
  double want[2];
  ASSERT_TRUE(exfr_GroundToImage(scanner.get(), 1, at_mean, want, &err));
  Efga_Matrix* pts = efga_MatrixCreate(2, 1, &err);
  ASSERT_TRUE(pts) << err.Text();
  pts->data[0] = ground[0], pts->data[1] = ground[1];
  EXPECT_TRUE(exfr_Transform(scanner.get(), pts, pts, &err)) << err.Text();
  EXPECT_NEAR(pts->data[0], want[0], 1e-9);
  EXPECT_NEAR(pts->data[1], want[1], 1e-9);
  efga_MatrixFree(pts);
  // A transform that is no sensor model is refused.
  const double unit[6] = {1, 0, 0, 0, 1, 0};
  ExfrPtr plain(exfr_AffineXFormCreate(unit, &err));
  EXPECT_FALSE(epho_ScannerXformCreate(&affine, plain.get(), &err));
  EXPECT_TRUE(err.Mentions(L"not a sensor model")) << err.Text();
}

}  // namespace
