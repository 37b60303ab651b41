#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "eerr.h"
#include "epho/matching.h"
#include "test_util.h"

namespace {

// A smooth synthetic texture: a sum of Gaussian blobs, defined everywhere in
// continuous coordinates (pixel (c, r) is sampled at its centre c+0.5, r+0.5).
struct Texture {
  struct Blob {
    double x, y, s, a;
  };
  std::vector<Blob> blobs;
  explicit Texture(unsigned seed, double extent = 120) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> pos(-extent, extent), sig(1.8, 4.0), amp(-60, 60);
    for (int k = 0; k < 2000; ++k) blobs.push_back({pos(rng), pos(rng), sig(rng), amp(rng)});
  }
  double operator()(double x, double y) const {
    double v = 128;
    for (const auto& b : blobs) {
      const double dx = x - b.x, dy = y - b.y;
      const double d2 = dx * dx + dy * dy;
      if (d2 < 36 * b.s * b.s) v += b.a * std::exp(-d2 / (2 * b.s * b.s));
    }
    return std::min(250.0, std::max(5.0, v));
  }
};

// Right patch: pixel (c, r) shows the texture at M * (centre - truth), so the
// texture's origin appears at right position `truth` and the template axes
// (j, i) appear along the columns of M^-1.
template <typename P>
std::vector<P> RenderPatch(const Texture& tex, int size, double tx, double ty, double m00,
                           double m01, double m10, double m11) {
  std::vector<P> img(size * size);
  for (int r = 0; r < size; ++r)
    for (int c = 0; c < size; ++c) {
      const double dx = c + 0.5 - tx, dy = r + 0.5 - ty;
      const double v = tex(m00 * dx + m01 * dy, m10 * dx + m11 * dy);
      img[r * size + c] = static_cast<P>(std::is_integral<P>::value ? std::floor(v + 0.5) : v);
    }
  return img;
}

constexpr int kPatch = 44;                          // right patch: twice a 21x21 window plus margin
constexpr double kTruthX = 21.87, kTruthY = 22.21;  // texture origin in the right patch

TEST(LeastSquaresCorrelation, RecoversSubPixelShiftForEveryMember) {
  Texture tex(7);
  // Left image: the texture origin at the centre of pixel (22, 22).
  auto left8 = RenderPatch<uint8_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  auto leftd = RenderPatch<double>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  auto left32 = RenderPatch<uint32_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  auto right8 = RenderPatch<uint8_t>(tex, kPatch, kTruthX, kTruthY, 1, 0, 0, 1);
  auto rightd = RenderPatch<double>(tex, kPatch, kTruthX, kTruthY, 1, 0, 0, 1);
  auto right32 = RenderPatch<uint32_t>(tex, kPatch, kTruthX, kTruthY, 1, 0, 0, 1);
  const double sx = kTruthX - 0.62, sy = kTruthY + 0.45;  // start 0.77 px away

  double x = sx, y = sy;
  Eerr_ErrorReport* err = nullptr;
  int code = epho_OnePtLSCByte(left8.data(), kPatch, 0, 22.5, 22.5, right8.data(), kPatch, 0, &x,
                               &y, 21, 21, 20, 0.001f, 3.0f, &err);
  EXPECT_TRUE(code < 0 && code >= -8) << code;
  EXPECT_EQ(err, nullptr);
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);

  x = sx, y = sy;
  code = epho_OnePtLSCDouble(leftd.data(), kPatch, 0, 22.5, 22.5, rightd.data(), kPatch, 0, &x, &y,
                             21, 21, 20, 0.001f, 3.0f, &err);
  EXPECT_TRUE(code < 0 && code >= -8) << code;
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);

  // Whole-pixel template: left pixel 22 lines up with right position 22.5.
  x = sx, y = sy;
  code = epho_OnePtLSCByteHalf(left8.data(), kPatch, 22, 22, right8.data(), kPatch, &x, &y, 10, 10,
                               20, 0.001f, 3.0f);
  EXPECT_TRUE(code < 0 && code >= -8) << code;
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);

  x = sx, y = sy;
  code = epho_OnePtLSCU32(left32.data(), kPatch, 22, 22, right32.data(), kPatch, &x, &y, 10, 10, 20,
                          0.001f, 3.0f);
  EXPECT_TRUE(code < 0 && code >= -8) << code;
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);
}

TEST(LeastSquaresCorrelation, RecoversRotationScaleAndRadiometry) {
  Texture tex(11);
  auto left = RenderPatch<double>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  // Right: turned by 4 degrees, scaled by 1.03, darker and with less contrast.
  const double a = 4 * M_PI / 180, k = 1 / 1.03;
  auto right = RenderPatch<double>(tex, kPatch, kTruthX, kTruthY, k * std::cos(a), k * std::sin(a),
                                   -k * std::sin(a), k * std::cos(a));
  for (auto& v : right) v = 0.8 * v + 12;
  double x = kTruthX + 0.4, y = kTruthY - 0.5;
  Eerr_ErrorReport* err = nullptr;
  const int code = epho_OnePtLSCDouble(left.data(), kPatch, 0, 22.5, 22.5, right.data(), kPatch, 0,
                                       &x, &y, 21, 21, 20, 0.001f, 3.0f, &err);
  EXPECT_TRUE(code < 0 && code >= -10) << code;
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);

  // A large rotation is found when both windows start turned by their angle:
  // the right patch turned by 50 degrees, the template by 20, the start by 30.
  const double b = 50 * M_PI / 180;
  auto turned = RenderPatch<uint8_t>(tex, kPatch, kTruthX, kTruthY, std::cos(b), std::sin(b),
                                     -std::sin(b), std::cos(b));
  auto left8 = RenderPatch<uint8_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  // Template turned by 20 degrees shows the texture turned by 20: seen from
  // the right patch the window must start turned by 50 + 20 = 70 degrees.
  x = kTruthX - 0.3, y = kTruthY + 0.3;
  const int code2 =
      epho_OnePtLSCByte(left8.data(), kPatch, 20 * M_PI / 180, 22.5, 22.5, turned.data(), kPatch,
                        68 * M_PI / 180, &x, &y, 21, 21, 20, 0.001f, 3.0f, &err);
  EXPECT_TRUE(code2 < 0 && code2 >= -10) << code2;
  EXPECT_NEAR(x, kTruthX, 0.02);
  EXPECT_NEAR(y, kTruthY, 0.02);
}

TEST(LeastSquaresCorrelation, ReturnCodes) {
  Texture tex(13);
  auto img = RenderPatch<uint8_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  double x = 22.5, y = 22.5;
  // Identical at the start: converged at the second iteration, shift ~0.
  EXPECT_EQ(epho_OnePtLSCByteHalf(img.data(), kPatch, 22, 22, img.data(), kPatch, &x, &y, 10, 10,
                                  10, 0.01f, 2.0f),
            -2);
  EXPECT_NEAR(x, 22.5, 1e-6);
  EXPECT_NEAR(y, 22.5, 1e-6);
  // No iteration: code 1, position untouched.
  x = 22.9, y = 22.1;
  EXPECT_EQ(epho_OnePtLSCByteHalf(img.data(), kPatch, 22, 22, img.data(), kPatch, &x, &y, 10, 10, 0,
                                  0.01f, 2.0f),
            1);
  EXPECT_EQ(x, 22.9);
  // One iteration cannot converge: limit code M + 1, position moved.
  EXPECT_EQ(epho_OnePtLSCByteHalf(img.data(), kPatch, 22, 22, img.data(), kPatch, &x, &y, 10, 10, 1,
                                  0.01f, 2.0f),
            2);
  EXPECT_NE(x, 22.9);
  EXPECT_NEAR(x, 22.5, 0.1);
  // A start 1.6 px off with a maximum shift of 1 px: failure, position moved
  // by the shift reached.
  x = 24.1, y = 22.5;
  EXPECT_EQ(epho_OnePtLSCByteHalf(img.data(), kPatch, 22, 22, img.data(), kPatch, &x, &y, 10, 10,
                                  10, 0.01f, 1.0f),
            20);
  EXPECT_LT(x, 24.1 - 1.0);
  // Samples leaving the patch: failure, position untouched.
  x = 8.0, y = 22.5;
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(epho_OnePtLSCByte(img.data(), kPatch, 0, 22.5, 22.5, img.data(), kPatch, 0, &x, &y, 21,
                              21, 7, 0.01f, 2.0f, &err),
            14);
  EXPECT_EQ(x, 8.0);
  EXPECT_EQ(err, nullptr);  // not a reported failure
  x = std::nan(""), y = 22.5;
  EXPECT_EQ(epho_OnePtLSCByteHalf(img.data(), kPatch, 22, 22, img.data(), kPatch, &x, &y, 10, 10,
                                  10, 0.01f, 1.0f),
            20);
}

// Whole-pixel members on a square right patch of exactly kPatch x kPatch
// pixels, 21x21 window: the first iteration's samples decide. Columns may
// reach cell kPatch - 2, rows kPatch - 3 (the y gradient reads one row
// below the cell). With M = 1 a run that samples returns M + 1 = 2 and
// moves the position; a sampling failure returns 2M = 2 and leaves it.
TEST(LeastSquaresCorrelation, WholePixelSamplingAreaOnSquarePatch) {
  Texture tex(19);
  const auto left = RenderPatch<uint8_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  const auto right = RenderPatch<uint8_t>(tex, kPatch, 24.5, 23.5, 1, 0, 0, 1);
  std::vector<uint32_t> left32(left.begin(), left.end()), right32(right.begin(), right.end());
  struct Start {
    double x, y;
    bool inside;
  };
  // Bottom-right sample at (x + 10, y + 10); its cell index is floor(. - 0.5).
  const Start starts[] = {
      {33.0, 32.0, true},   // cells 42 (last column), 41 (last row)
      {33.0, 33.0, false},  // row cell 42: the gradient would read row 44
      {34.0, 32.0, false},  // column cell 43
      {11.5, 11.5, true},   // top-left cell 1, 1
      {11.0, 11.5, false},  // column cell 0
      {11.5, 11.0, false},  // row cell 0
  };
  for (const auto& s : starts) {
    SCOPED_TRACE(testing::Message() << s.x << ", " << s.y);
    double x = s.x, y = s.y;
    EXPECT_EQ(epho_OnePtLSCByteHalf(left.data(), kPatch, 22, 22, right.data(), kPatch, &x, &y, 10,
                                    10, 1, 0.01f, 100.0f),
              2);
    EXPECT_EQ(x != s.x || y != s.y, s.inside);
    x = s.x, y = s.y;
    EXPECT_EQ(epho_OnePtLSCU32(left32.data(), kPatch, 22, 22, right32.data(), kPatch, &x, &y, 10,
                               10, 1, 0.01f, 100.0f),
              2);
    EXPECT_EQ(x != s.x || y != s.y, s.inside);
  }
}

TEST(LeastSquaresCorrelation, FlatTemplateReportsSingularMatrix) {
  Texture tex(17);
  auto textured = RenderPatch<uint8_t>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  std::vector<uint8_t> flat(kPatch * kPatch, 93);
  std::vector<double> flatd(kPatch * kPatch, 0.1);
  auto texturedd = RenderPatch<double>(tex, kPatch, 22.5, 22.5, 1, 0, 0, 1);
  double x = 22.3, y = 22.6;
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(epho_OnePtLSCByte(flat.data(), kPatch, 0.2, 22.5, 22.5, textured.data(), kPatch, 0, &x,
                              &y, 21, 21, 10, 0.01f, 2.0f, &err),
            20);
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->message, L"Least Square Matching with inversible matrix!");
  EXPECT_STREQ(err->function, L"epho_OnePtLSCByte");
  EXPECT_EQ(err->severity, 2);
  EXPECT_EQ(x, 22.3);
  EXPECT_EQ(y, 22.6);
  eerr_DeleteErrorReportEx(&err);
  {
    // Without a report pointer the function prints its own report.
    testutil::PrintedReports printed;
    EXPECT_EQ(epho_OnePtLSCDouble(flatd.data(), kPatch, 0, 22.5, 22.5, texturedd.data(), kPatch, 0,
                                  &x, &y, 21, 21, 10, 0.01f, 2.0f, nullptr),
              20);
    ASSERT_EQ(printed.texts().size(), 1u);
    EXPECT_NE(printed.texts()[0].find(L"Least Square Matching with inversible matrix!"),
              std::wstring::npos);
  }
  EXPECT_EQ(epho_OnePtLSCByteHalf(flat.data(), kPatch, 22, 22, textured.data(), kPatch, &x, &y, 10,
                                  10, 10, 0.01f, 2.0f),
            20);
  EXPECT_EQ(x, 22.3);
}

}  // namespace
