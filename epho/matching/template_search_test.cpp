#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "epho/matching.h"
#include "epho/matching/ncc_fft_internal.h"
#include "epho/matching/ncc_paths_internal.h"

namespace {

// Smooth texture: sinusoids of random direction, period 7-25 px.
struct Waves {
  double kx[12], ky[12], ph[12];
  explicit Waves(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    for (int k = 0; k < 12; ++k) {
      const double dir = 2 * M_PI * u(rng), period = 7 + 18 * u(rng);
      kx[k] = 2 * M_PI * std::cos(dir) / period;
      ky[k] = 2 * M_PI * std::sin(dir) / period;
      ph[k] = 2 * M_PI * u(rng);
    }
  }
  double operator()(double x, double y) const {
    double v = 0;
    for (int k = 0; k < 12; ++k) v += std::sin(kx[k] * x + ky[k] * y + ph[k]);
    return 128 + 30 * v;
  }
};

template <typename P>
std::vector<P> Render(const Waves& w, int width, int height, double dx, double dy) {
  std::vector<P> img(width * height);
  for (int r = 0; r < height; ++r)
    for (int c = 0; c < width; ++c) {
      const double v = std::max(0.0, std::min(255.0, w(c - dx, r - dy)));
      img[r * width + c] = static_cast<P>(std::is_integral<P>::value ? std::floor(v + 0.5) : v);
    }
  return img;
}

struct Best {
  int x, y;
  double c;
};

// Brute force with one kernel call per candidate, first maximum in raster order.
template <class Kernel>
Best BruteForce(Kernel k, int x0, int y0, int x1, int y1) {
  Best b{x0, y0, -2};
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) {
      const double c = k(x, y);
      if (c > b.c) b = {x, y, c};
    }
  return b;
}

// Every vector path (AVX2, SSE2, plain C++) against the kernel.
class TemplateSearchPaths : public testing::TestWithParam<epho::VectorPath> {
 protected:
  void SetUp() override {
    if (!epho::VectorPathRuns(GetParam())) GTEST_SKIP() << "not on this processor";
  }
};

TEST_P(TemplateSearchPaths, AgreesWithKernelAtEveryConfiguration) {
  const int W = 120, H = 110;
  // Search areas whose size is no multiple of the vector block, odd and
  // square templates, ranges touching the image edge.
  const int configs[][6] = {// hw, hh, x0, y0, x1, y1
                            {5, 5, 5, 5, 70, 60},   {10, 10, 30, 20, 96, 86},
                            {1, 7, 40, 40, 44, 49}, {12, 3, 12, 3, 107, 106},
                            {0, 4, 50, 50, 50, 58}, {7, 7, 20, 30, 20, 30},
                            {3, 9, 30, 20, 74, 35}, {6, 2, 20, 60, 39, 62}};
  for (unsigned seed = 1; seed <= 2; ++seed) {
    Waves waves(seed);
    auto left8 = Render<uint8_t>(waves, W, H, 0, 0);
    auto right8 = Render<uint8_t>(waves, W, H, 3, -2);
    for (auto& p : right8) p = uint8_t(std::min(255, p + (p % 7)));  // not a pure copy
    std::vector<float> leftf(left8.begin(), left8.end()), rightf(right8.begin(), right8.end());
    for (auto& v : rightf) v = 1000.0f + 0.37f * v;
    for (const auto& c : configs) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " hw " << c[0] << " hh " << c[1]);
      const uint32_t hw = c[0], hh = c[1];
      const int lx = 55, ly = 50;
      std::vector<char> scratch(epho::matching::NccSearchScratchBytes(
          epho::matching::SearchMethod::kDirect, hw, hh, c[4] - c[2] + 1, c[5] - c[3] + 1));
      ASSERT_GT(scratch.size(), 0u);
      Epho_NccPeak peak;
      ASSERT_EQ(epho::matching::NccSearchByte(GetParam(), epho::matching::SearchMethod::kDirect,
                                              left8.data(), right8.data(), W, W, lx, ly, hw, hh,
                                              c[2], c[3], c[4], c[5], scratch.data() + 1,
                                              scratch.size() - 1, &peak),
                EPHO_NCC_SEARCH_SCRATCH);  // one byte short
      ASSERT_EQ(
          epho::matching::NccSearchByte(GetParam(), epho::matching::SearchMethod::kDirect,
                                        left8.data(), right8.data(), W, W, lx, ly, hw, hh, c[2],
                                        c[3], c[4], c[5], scratch.data(), scratch.size(), &peak),
          EPHO_NCC_SEARCH_OK);
      const Best b8 = BruteForce(
          [&](int x, int y) {
            return epho_CrossCoefByteNoResample(left8.data(), right8.data(), W, W, lx, ly, x, y,
                                                2 * hw + 1, 2 * hh + 1);
          },
          c[2], c[3], c[4], c[5]);
      EXPECT_EQ(peak.column, b8.x);
      EXPECT_EQ(peak.row, b8.y);
      EXPECT_EQ(peak.coefficient, b8.c);  // bit for bit the kernel's value

      ASSERT_EQ(
          epho::matching::NccSearchFloat(GetParam(), epho::matching::SearchMethod::kDirect,
                                         leftf.data(), rightf.data(), W, W, lx, ly, hw, hh, c[2],
                                         c[3], c[4], c[5], scratch.data(), scratch.size(), &peak),
          EPHO_NCC_SEARCH_OK);
      const Best bf = BruteForce(
          [&](int x, int y) {
            return epho_CrossCoefFloatNoResample(leftf.data(), rightf.data(), W, W, lx, ly, x, y,
                                                 2 * hw + 1, 2 * hh + 1);
          },
          c[2], c[3], c[4], c[5]);
      // Float cross products may swap near-ties; the value is the kernel's.
      EXPECT_NEAR(peak.coefficient, bf.c, 1e-5);
      EXPECT_EQ(peak.coefficient,
                epho_CrossCoefFloatNoResample(leftf.data(), rightf.data(), W, W, lx, ly,
                                              peak.column, peak.row, 2 * hw + 1, 2 * hh + 1));
      if (bf.c - 1e-4 > -2) {
        EXPECT_LE(std::abs(peak.column - bf.x) + std::abs(peak.row - bf.y),
                  peak.coefficient == bf.c ? 0 : 2);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllPaths, TemplateSearchPaths, testing::ValuesIn(epho::kAllVectorPaths),
                         [](const testing::TestParamInfo<epho::VectorPath>& info) {
                           return std::string(epho::VectorPathName(info.param));
                         });

// The transform-domain search against the direct one on every path, for
// template sizes 3..41 (square and not), on smooth texture, on white noise
// and on a periodic pattern (many near-equal peaks). 8-bit: the same position
// and coefficient bit for bit; float: the coefficient to 1e-6.
TEST_P(TemplateSearchPaths, TransformAgreesWithDirect) {
  using epho::matching::SearchMethod;
  const int W = 150, H = 140;
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> noise(0, 255);
  for (int scene = 0; scene < 3; ++scene) {
    Waves waves(20 + scene);
    auto left8 = Render<uint8_t>(waves, W, H, 0, 0);
    auto right8 = Render<uint8_t>(waves, W, H, -2.5, 1.5);
    if (scene == 1)
      for (size_t k = 0; k < left8.size(); ++k)
        left8[k] = uint8_t(noise(rng)), right8[k] = left8[k];
    if (scene == 2)
      for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
          left8[r * W + c] = right8[r * W + c] = uint8_t(((r / 3 + c / 4) % 2) * 200 + (r + c) % 5);
    std::vector<float> leftf(left8.begin(), left8.end()), rightf(right8.begin(), right8.end());
    for (auto& v : rightf) v = 10.0f + 0.5f * v;
    for (int hw : {1, 5, 10, 15, 20}) {
      const int hh = hw == 15 ? 7 : hw;
      const int x0 = 25, y0 = 22, x1 = 125, y1 = 118, lx = 70, ly = 64;
      SCOPED_TRACE(testing::Message() << "scene " << scene << " hw " << hw << " hh " << hh);
      std::vector<char> scratch(epho::matching::NccSearchScratchBytes(
          SearchMethod::kTransform, hw, hh, x1 - x0 + 1, y1 - y0 + 1));
      Epho_NccPeak direct, transform;
      for (SearchMethod m : {SearchMethod::kDirect, SearchMethod::kTransform})
        ASSERT_EQ(
            epho::matching::NccSearchByte(GetParam(), m, left8.data(), right8.data(), W, W, lx, ly,
                                          hw, hh, x0, y0, x1, y1, scratch.data(), scratch.size(),
                                          m == SearchMethod::kDirect ? &direct : &transform),
            EPHO_NCC_SEARCH_OK);
      EXPECT_EQ(transform.column, direct.column);
      EXPECT_EQ(transform.row, direct.row);
      EXPECT_EQ(transform.coefficient, direct.coefficient);
      for (SearchMethod m : {SearchMethod::kDirect, SearchMethod::kTransform})
        ASSERT_EQ(
            epho::matching::NccSearchFloat(GetParam(), m, leftf.data(), rightf.data(), W, W, lx, ly,
                                           hw, hh, x0, y0, x1, y1, scratch.data(), scratch.size(),
                                           m == SearchMethod::kDirect ? &direct : &transform),
            EPHO_NCC_SEARCH_OK);
      EXPECT_NEAR(transform.coefficient, direct.coefficient, 1e-6);
      if (scene < 2) {  // the periodic scene has exact ties that float sums may order either way
        EXPECT_EQ(transform.column, direct.column);
        EXPECT_EQ(transform.row, direct.row);
      }
    }
  }
}

// Exact copies of the template at several places of the search area (two
// in one row, one in an earlier and one in a later row): for 8-bit pixels
// every method on every path reports the first copy in raster order, as the
// kernel called at every candidate does, whatever order the rows and
// columns are ranked in; for float pixels one of the copies.
TEST_P(TemplateSearchPaths, ExactTiesGoToTheFirstInRasterOrder) {
  using epho::matching::SearchMethod;
  const int W = 160, H = 150, hw = 10, hh = 10, t = 2 * hw + 1;
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> noise(0, 255);
  std::vector<uint8_t> left(W * H), right(W * H);
  for (auto& v : left) v = uint8_t(noise(rng));
  for (auto& v : right) v = uint8_t(noise(rng));
  const int lx = 40, ly = 40;
  const int copies[4][2] = {{120, 90}, {60, 90}, {100, 50}, {130, 120}};  // centres
  for (const auto& c : copies)
    for (int r = -hh; r <= hh; ++r)
      for (int k = -hw; k <= hw; ++k)
        right[(c[1] + r) * W + c[0] + k] = left[(ly + r) * W + lx + k];
  std::vector<float> leftf(left.begin(), left.end()), rightf(right.begin(), right.end());
  for (int x0 : {hw, 35})  // two ranges: all four copies, and the first row's one left out
    for (SearchMethod m : {SearchMethod::kDirect, SearchMethod::kTransform}) {
      const int y0 = x0 == hw ? hh : 60, x1 = W - hw - 1, y1 = H - hh - 1;
      SCOPED_TRACE(testing::Message() << "x0 " << x0 << " method " << int(m));
      const Best want = BruteForce(
          [&](int x, int y) {
            return epho_CrossCoefByteNoResample(left.data(), right.data(), W, W, lx, ly, x, y, t,
                                                t);
          },
          x0, y0, x1, y1);
      ASSERT_EQ(want.c, 1.0);
      std::vector<char> scratch(epho::matching::NccSearchScratchBytes(
          SearchMethod::kTransform, hw, hh, x1 - x0 + 1, y1 - y0 + 1));
      Epho_NccPeak peak;
      ASSERT_EQ(
          epho::matching::NccSearchByte(GetParam(), m, left.data(), right.data(), W, W, lx, ly, hw,
                                        hh, x0, y0, x1, y1, scratch.data(), scratch.size(), &peak),
          EPHO_NCC_SEARCH_OK);
      EXPECT_EQ(peak.column, want.x);
      EXPECT_EQ(peak.row, want.y);
      ASSERT_EQ(epho::matching::NccSearchFloat(GetParam(), m, leftf.data(), rightf.data(), W, W, lx,
                                               ly, hw, hh, x0, y0, x1, y1, scratch.data(),
                                               scratch.size(), &peak),
                EPHO_NCC_SEARCH_OK);
      // Single-precision sums may round the copies' ties apart: one of them.
      bool at_copy = false;
      for (const auto& c : copies) at_copy |= peak.column == c[0] && peak.row == c[1];
      EXPECT_TRUE(at_copy) << peak.column << " " << peak.row;
      EXPECT_NEAR(peak.coefficient, 1.0, 1e-9);
    }
}

// Ranges larger than one transform tile (an even and an odd number of
// tiles, which are transformed in pairs): the tiles' seams must not show.
TEST_P(TemplateSearchPaths, TransformTilesAgreeWithDirect) {
  using epho::matching::SearchMethod;
  const int W = 560, H = 340;
  Waves waves(31);
  auto left8 = Render<uint8_t>(waves, W, H, 0, 0);
  auto right8 = Render<uint8_t>(waves, W, H, 1.5, -0.5);
  const int configs[][4] = {
      // hw, lx, ly, last row; the range starts at (21, 21), ends at column 538
      {5, 290, 290, 318},    // 3 x 2 tiles
      {20, 450, 150, 200}};  // 3 x 1 tiles
  for (const auto& c : configs) {
    const int hw = c[0], lx = c[1], ly = c[2], x0 = 21, y0 = 21, x1 = 538, y1 = c[3];
    SCOPED_TRACE(testing::Message() << "hw " << hw);
    std::vector<char> scratch(epho::matching::NccSearchScratchBytes(SearchMethod::kTransform, hw,
                                                                    hw, x1 - x0 + 1, y1 - y0 + 1));
    Epho_NccPeak direct, transform;
    for (SearchMethod m : {SearchMethod::kDirect, SearchMethod::kTransform})
      ASSERT_EQ(
          epho::matching::NccSearchByte(GetParam(), m, left8.data(), right8.data(), W, W, lx, ly,
                                        hw, hw, x0, y0, x1, y1, scratch.data(), scratch.size(),
                                        m == SearchMethod::kDirect ? &direct : &transform),
          EPHO_NCC_SEARCH_OK);
    EXPECT_EQ(transform.column, direct.column);
    EXPECT_EQ(transform.row, direct.row);
    EXPECT_EQ(transform.coefficient, direct.coefficient);
    EXPECT_GT(direct.coefficient, 0.9);
    EXPECT_GE(direct.column, x0 + 256 - 2 * hw);  // beyond the first tile
  }
}

// The transform bodies promise the same single-precision operations in every
// lane on every path: the 8-lane (AVX2) correlation equals the 4-lane one
// bit for bit, and both equal the correlation computed directly.
TEST(TransformCorrelation, EveryBodyGivesTheSameBits) {
  if (!epho::VectorPathRuns(epho::VectorPath::kAvx2)) GTEST_SKIP() << "no AVX2";
  const int nr = 32, nc = 64, th = 5, tw = 7;
  std::vector<float> tw_r(nr), tw_c(nc);
  for (int k = 0; k < nr / 2; ++k)
    tw_r[2 * k] = float(std::cos(-2 * M_PI * k / nr)),
             tw_r[2 * k + 1] = float(std::sin(-2 * M_PI * k / nr));
  for (int k = 0; k < nc / 2; ++k)
    tw_c[2 * k] = float(std::cos(-2 * M_PI * k / nc)),
             tw_c[2 * k + 1] = float(std::sin(-2 * M_PI * k / nc));
  auto negated = [](int n) {  // bit-reversed position of -k
    int bits = 0;
    while ((1 << bits) < n) ++bits;
    auto rev = [bits](int v) {
      int r = 0;
      for (int b = 0; b < bits; ++b) r |= ((v >> b) & 1) << (bits - 1 - b);
      return r;
    };
    std::vector<int32_t> neg(n);
    for (int p = 0; p < n; ++p) neg[p] = rev((n - rev(p)) & (n - 1));
    return neg;
  };
  const std::vector<int32_t> neg_r = negated(nr), neg_c = negated(nc);
  std::vector<float> strip(4 * 64 * epho::matching::kFftMaxLanes);
  const epho::matching::FftPlan plan{nr,           nc,           tw_r.data(), tw_c.data(),
                                     neg_r.data(), neg_c.data(), strip.data()};
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-1, 1);
  std::vector<float> area(nr * nc), templ(nr * nc, 0.0f);
  for (auto& v : area) v = u(rng);
  for (int r = 0; r < th; ++r)
    for (int c = 0; c < tw; ++c) templ[r * nc + c] = u(rng);
  std::vector<float> re4 = area, im4 = templ, re8 = area, im8 = templ;
  // Every row whose window lies inside the area: even rows in re, odd in im.
  const int rows = nr - th + 1;
  epho::matching::CorrelateFftPortable(plan, re4.data(), im4.data(), rows);
  epho::matching::CorrelateFftAvx2(plan, re8.data(), im8.data(), rows);
  EXPECT_EQ(std::memcmp(re4.data(), re8.data(), re4.size() * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(im4.data(), im8.data(), im4.size() * sizeof(float)), 0);
  for (int y = 0; y < rows; ++y)
    for (int x = 0; x + tw <= nc; x += 5) {
      double direct = 0;
      for (int r = 0; r < th; ++r)
        for (int c = 0; c < tw; ++c)
          direct += double(templ[r * nc + c]) * area[(y + r) * nc + x + c];
      const float got = (y & 1 ? im4 : re4)[(y >> 1) * nc + x];
      EXPECT_NEAR(got / double(nr * nc), direct, 1e-5) << x << " " << y;
    }
  // The pair form: two areas against the template's spectrum.
  std::vector<float> sr = templ, si(nr * nc, 0.0f), sr8 = templ, si8 = si;
  epho::matching::SpectrumFftPortable(plan, sr.data(), si.data());
  epho::matching::SpectrumFftAvx2(plan, sr8.data(), si8.data());
  std::vector<float> a4 = area, b4(nr * nc), a8, b8;
  for (auto& v : b4) v = u(rng);
  a8 = a4, b8 = b4;
  epho::matching::CorrelatePairFftPortable(plan, a4.data(), b4.data(), sr.data(), si.data());
  epho::matching::CorrelatePairFftAvx2(plan, a8.data(), b8.data(), sr8.data(), si8.data());
  EXPECT_EQ(std::memcmp(a4.data(), a8.data(), a4.size() * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(b4.data(), b8.data(), b4.size() * sizeof(float)), 0);
  EXPECT_NEAR(a4[0] / double(nr * nc), re4[0] / double(nr * nc), 1e-5);
}

// The peak and its neighbours walked together give each window's own
// kernel value bit for bit: window sizes (odd, even, one row), counts below,
// at and above the five windows of one walk, windows at the image edge, and
// a flat right window (coefficient exactly 0).
TEST(TemplateSearch, NeighbourCoefficientsEqualTheKernel) {
  const int W = 90;
  std::vector<float> left = Render<float>(Waves(7), W, W, 0, 0);
  std::vector<float> right = Render<float>(Waves(7), W, W, 1.3, -0.6);
  for (int r = 60; r < 90; ++r)
    for (int c = 60; c < 90; ++c) right[r * W + c] = 42.5f;
  struct Case {
    int16_t w, h;
    std::vector<uint32_t> xs, ys;
  } cases[] = {
      {21, 21, {40, 39, 41, 40, 40}, {40, 40, 40, 39, 41}},
      {11, 7, {30, 31}, {20, 20}},
      {8, 1, {4, 5, 6, 40, 41, 42, 43}, {0, 1, 89, 2, 3, 4, 5}},
      {41,
       41,
       {20, 69, 20, 69, 45, 45, 44, 46, 45, 20, 69},
       {20, 20, 69, 69, 45, 44, 45, 45, 46, 45, 45}},
      {9, 9, {75, 74, 76, 40}, {75, 75, 75, 40}},
  };
  for (const Case& c : cases) {
    const int count = static_cast<int>(c.xs.size());
    std::vector<double> got(count);
    epho::matching::CrossCoefFloatNoResampleMany(left.data(), right.data(), W, W, 45, 44,
                                                 c.xs.data(), c.ys.data(), count, c.w, c.h,
                                                 got.data());
    for (int k = 0; k < count; ++k) {
      const double want = epho_CrossCoefFloatNoResample(left.data(), right.data(), W, W, 45, 44,
                                                        c.xs[k], c.ys[k], c.w, c.h);
      EXPECT_EQ(got[k], want) << c.w << "x" << c.h << " window " << k;
    }
  }
}

// The largest template on bright 8-bit pixels (window sums of squares
// beyond 2^31, the largest transform tile): both methods find the planted
// copy and give the kernel's coefficient there.
TEST(TemplateSearch, LargestTemplateOnBrightPixels) {
  using epho::matching::SearchMethod;
  const int W = 300, half = EPHO_NCC_SEARCH_MAX_HALF;
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> bright(235, 255);
  std::vector<uint8_t> left(W * W), right(W * W);
  for (auto& v : left) v = uint8_t(bright(rng));
  for (auto& v : right) v = uint8_t(bright(rng));
  const int lx = 140, ly = 145, bx = 150, by = 139;  // the template copied to (bx, by)
  for (int r = -half; r <= half; ++r)
    for (int c = -half; c <= half; ++c) right[(by + r) * W + bx + c] = left[(ly + r) * W + lx + c];
  const uint32_t x0 = 140, y0 = 130, x1 = 160, y1 = 150;
  std::vector<char> scratch(
      epho::matching::NccSearchScratchBytes(SearchMethod::kTransform, half, half, 21, 21));
  for (SearchMethod m : {SearchMethod::kDirect, SearchMethod::kTransform}) {
    Epho_NccPeak peak{};
    ASSERT_EQ(epho::matching::NccSearchByte(epho::BestVectorPath(), m, left.data(), right.data(), W,
                                            W, lx, ly, half, half, x0, y0, x1, y1, scratch.data(),
                                            scratch.size(), &peak),
              EPHO_NCC_SEARCH_OK);
    EXPECT_EQ(peak.column, bx);
    EXPECT_EQ(peak.row, by);
    EXPECT_EQ(peak.coefficient,
              epho_CrossCoefByteNoResample(left.data(), right.data(), W, W, lx, ly, bx, by,
                                           2 * half + 1, 2 * half + 1));
  }
}

TEST(TemplateSearch, SubPixelPeakFindsKnownShift) {
  Waves waves(9);
  const int W = 100;
  // Right image: the left texture moved by (4.3, -2.7) pixels.
  const double dx = 4.3, dy = -2.7;
  auto left = Render<float>(waves, W, W, 0, 0);
  auto right = Render<float>(waves, W, W, dx, dy);
  auto left8 = Render<uint8_t>(waves, W, W, 0, 0);
  auto right8 = Render<uint8_t>(waves, W, W, dx, dy);
  std::vector<char> scratch(epho_NccSearchScratchBytes(10, 10, 21, 21));
  Epho_NccPeak pf, p8;
  ASSERT_EQ(epho_NccSearchFloat(left.data(), right.data(), W, W, 45, 50, 10, 10, 40, 40, 60, 60,
                                scratch.data(), scratch.size(), &pf),
            EPHO_NCC_SEARCH_OK);
  ASSERT_EQ(epho_NccSearchByte(left8.data(), right8.data(), W, W, 45, 50, 10, 10, 40, 40, 60, 60,
                               scratch.data(), scratch.size(), &p8),
            EPHO_NCC_SEARCH_OK);
  for (const Epho_NccPeak& p : {pf, p8}) {
    EXPECT_EQ(p.column, 49);
    EXPECT_EQ(p.row, 47);
    EXPECT_EQ(p.on_border, 0);
    EXPECT_GT(p.coefficient, 0.95);
    EXPECT_NEAR(p.subpixel_column, 45 + dx, 0.1);
    EXPECT_NEAR(p.subpixel_row, 50 + dy, 0.1);
  }
}

TEST(TemplateSearch, BorderFlatAndBadArguments) {
  Waves waves(3);
  const int W = 80;
  auto left = Render<uint8_t>(waves, W, W, 0, 0);
  auto right = Render<uint8_t>(waves, W, W, 6, 0);  // true match at column 46
  std::vector<char> scratch(epho_NccSearchScratchBytes(5, 5, 30, 30));
  Epho_NccPeak p;
  // Range ending before the true match: best on the column border.
  ASSERT_EQ(epho_NccSearchByte(left.data(), right.data(), W, W, 40, 40, 5, 5, 30, 35, 44, 45,
                               scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_OK);
  EXPECT_EQ(p.column, 44);
  EXPECT_EQ(p.on_border, 1);
  EXPECT_EQ(p.subpixel_column, 44.0);
  // A flat template correlates with nothing.
  std::vector<uint8_t> flat(W * W, 40);
  EXPECT_EQ(epho_NccSearchByte(flat.data(), right.data(), W, W, 40, 40, 5, 5, 30, 35, 44, 45,
                               scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_FLAT);
  EXPECT_EQ(p.coefficient, 0.0);
  std::vector<float> flatf(W * W, 0.1f), rightf(right.begin(), right.end());
  EXPECT_EQ(epho_NccSearchFloat(rightf.data(), flatf.data(), W, W, 40, 40, 5, 5, 30, 35, 44, 45,
                                scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_FLAT);
  // Bad arguments.
  EXPECT_EQ(epho_NccSearchByte(left.data(), right.data(), W, W, 40, 40, 5, 5, 45, 35, 44, 45,
                               scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_BAD_ARGUMENT);  // empty range
  EXPECT_EQ(epho_NccSearchByte(left.data(), right.data(), W, W, 40, 40, 5, 5, 3, 35, 44, 45,
                               scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_BAD_ARGUMENT);  // window would start left of column 0
  EXPECT_EQ(epho_NccSearchByte(left.data(), right.data(), W, W, 40, 40, 128, 5, 30, 35, 44, 45,
                               scratch.data(), scratch.size(), &p),
            EPHO_NCC_SEARCH_BAD_ARGUMENT);
  EXPECT_EQ(epho_NccSearchByte(left.data(), right.data(), W, W, 40, 40, 5, 5, 30, 35, 44, 45,
                               nullptr, 0, &p),
            EPHO_NCC_SEARCH_SCRATCH);
  EXPECT_EQ(epho_NccSearchScratchBytes(128, 1, 10, 10), 0u);
}

}  // namespace
