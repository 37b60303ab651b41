#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "epho/collinearity.h"

namespace {

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The per-point composition the batch promises to reproduce bit for bit.
bool ForwardOne(const Epho_FilmProjection& p, double X, double Y, double Z, double* x, double* y) {
  if (epho_CameraObjectToImage(p.matrix, X, Y, Z, x, y)) return false;
  if (p.correction_kind > 1)
    epho_CameraAwayCorrection(p.correction_kind, p.flying_height, Z, p.focal, x, y, 0);
  if ((p.lens && p.lens->count > 0) || (p.additional && p.additional->count > 0)) {
    double dx = 0, dy = 0;
    epho_CameraAwayDistortion(p.lens, p.additional, *x, *y, &dx, &dy);
    *x += dx, *y += dy;
  }
  return true;
}

bool InverseOne(const Epho_FilmProjection& p, double x, double y, double h, double* a, double* b) {
  if ((p.lens && p.lens->count > 0) || (p.additional && p.additional->count > 0)) {
    double dx = 0, dy = 0;
    epho_CameraAwayDistortion(p.lens, p.additional, x, y, &dx, &dy);
    x -= dx, y -= dy;
  }
  if (p.correction_kind > 1)
    epho_CameraAwayCorrection(p.correction_kind, p.flying_height, h, p.focal, &x, &y, 1);
  return !epho_CameraImageAndZToXY(p.matrix, p.mode, x, y, h, a, b);
}

// Every lens form the batch treats differently (none, the two radial loops,
// an extended model, an additional-parameter model replacing the lens, an
// additional record naming no model) with and without the correction, in
// both height modes; the points include one in the plane of the centre.
TEST(CollinearityBatchTest, EqualsThePerPointFunctionsBitForBit) {
  const double outer[6] = {500, -300, 1500, 0.02, -0.03, 0.4};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, 0.153, 0, 0, m));
  double radial3[3] = {1e-4, -2e-3, 5e-2}, radial5[5] = {0.2, 1e-4, -2e-3, 5e-2, 9};
  double model2[11] = {2, 0.15, 0, 0, 1e-3, -2e-2, 0.3, 1e-4, -2e-4, 3e-5, 1e-5};
  double add1[7] = {1, 0.15, 0, 1e-4, 2e-3, 1e-4, 3e-5}, add9[7] = {9, 0, 0, 0, 0, 0, 0};
  const Epho_CountedDoubles lens3{3, radial3}, lens5{5, radial5}, lens11{11, model2}, sec1{7, add1},
      sec9{7, add9};
  const struct {
    const Epho_CountedDoubles *lens, *additional;
  } lenses[] = {{nullptr, nullptr}, {&lens3, nullptr}, {&lens5, nullptr},
                {&lens11, nullptr}, {&lens3, &sec1},   {&lens5, &sec9}};
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-1, 1);
  const int n = 37;
  std::vector<double> X(n), Y(n), Z(n);
  for (int i = 0; i < n; ++i)
    X[i] = 500 + 800 * u(rng), Y[i] = -300 + 800 * u(rng), Z[i] = 100 + 50 * u(rng);
  for (const auto& l : lenses)
    for (int kind : {0, 4})
      for (int mode : {0, 1}) {
        SCOPED_TRACE(testing::Message() << "lens " << (l.lens ? l.lens->count : 0) << " additional "
                                        << (l.additional ? l.additional->data[0] : 0) << " kind "
                                        << kind << " mode " << mode);
        const Epho_FilmProjection p{m, l.lens, l.additional, mode, kind, 1650.0, 0.153};
        std::vector<double> x(n), y(n), a(n), b(n);
        std::vector<uint8_t> failed(n, 7);
        const int32_t bad = epho_CameraObjectToImageBatch(&p, n, X.data(), Y.data(), Z.data(),
                                                          x.data(), y.data(), failed.data());
        EXPECT_EQ(bad, 0);
        for (int i = 0; i < n; ++i) {
          double ex, ey;
          const bool ok = ForwardOne(p, X[i], Y[i], Z[i], &ex, &ey);
          ASSERT_EQ(failed[i], ok ? 0 : 1) << i;
          if (!ok) {
            EXPECT_TRUE(std::isnan(x[i]) && std::isnan(y[i]));
            continue;
          }
          EXPECT_TRUE(SameBits(x[i], ex) && SameBits(y[i], ey)) << i << " " << x[i] - ex;
        }
        // Back to the ground at the same heights (mode 1 reads -Y as the height).
        std::vector<double> h(Z);
        if (mode == 1)
          for (int i = 0; i < n; ++i) h[i] = -Y[i];
        ASSERT_GE(epho_CameraImageAndZToXYBatch(&p, n, x.data(), y.data(), h.data(), a.data(),
                                                b.data(), nullptr),
                  0);
        for (int i = 0; i < n; ++i) {
          if (failed[i]) continue;
          double ea = 0, eb = 0;
          if (!InverseOne(p, x[i], y[i], h[i], &ea, &eb)) {
            EXPECT_TRUE(std::isnan(a[i]));
            continue;
          }
          EXPECT_TRUE(SameBits(a[i], ea) && SameBits(b[i], eb)) << i << " " << a[i] - ea;
        }
      }
}

TEST(CollinearityBatchTest, PointInThePlaneOfTheCentreFailsAlone) {
  const double outer[6] = {0, 0, 0, 0, 0, 0};
  double m[12];
  ASSERT_FALSE(epho_Get3x4ParFromInnerOuter(nullptr, outer, 1.0, 0, 0, m));  // w = -Z
  const Epho_FilmProjection p{m, nullptr, nullptr, 0, 0, 0, 0};
  const double X[3] = {3, 1, 2}, Y[3] = {4, 1, 2}, Z[3] = {-2, 0, -4};
  double x[3], y[3];
  uint8_t failed[3];
  EXPECT_EQ(epho_CameraObjectToImageBatch(&p, 3, X, Y, Z, x, y, failed), 1);
  EXPECT_EQ(failed[0] + 2 * failed[1] + 4 * failed[2], 2);
  EXPECT_TRUE(std::isnan(x[1]) && std::isnan(y[1]));
  EXPECT_DOUBLE_EQ(x[0], 1.5);
  EXPECT_DOUBLE_EQ(y[2], 0.5);
}

TEST(CollinearityBatchTest, BadArgumentsWriteNothing) {
  double m[12] = {1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0};
  const Epho_FilmProjection p{m, nullptr, nullptr, 0, 0, 0, 0};
  double v[2] = {1, 2}, out[2] = {42, 42};
  EXPECT_EQ(epho_CameraObjectToImageBatch(nullptr, 2, v, v, v, out, out, nullptr), -1);
  EXPECT_EQ(epho_CameraObjectToImageBatch(&p, -1, v, v, v, out, out, nullptr), -1);
  EXPECT_EQ(epho_CameraImageAndZToXYBatch(&p, 2, v, nullptr, v, out, out, nullptr), -1);
  EXPECT_EQ(out[0], 42);
  EXPECT_EQ(epho_CameraObjectToImageBatch(&p, 0, v, v, v, out, out, nullptr), 0);
}

}  // namespace
