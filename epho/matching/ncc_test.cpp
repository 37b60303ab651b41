#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "epho/matching.h"
#include "epho/matching/ncc_internal.h"
#include "epho/matching/ncc_paths_internal.h"

namespace {

constexpr int kSize = 64;  // test images are kSize x kSize, stride kSize

// Reference correlation: two-pass Pearson over the collected samples.
double Pearson(const std::vector<double>& a, const std::vector<double>& b) {
  double ma = 0, mb = 0;
  for (size_t k = 0; k < a.size(); ++k) ma += a[k], mb += b[k];
  ma /= a.size();
  mb /= b.size();
  double sab = 0, saa = 0, sbb = 0;
  for (size_t k = 0; k < a.size(); ++k) {
    sab += (a[k] - ma) * (b[k] - mb);
    saa += (a[k] - ma) * (a[k] - ma);
    sbb += (b[k] - mb) * (b[k] - mb);
  }
  if (saa == 0 || sbb == 0) return 0;
  return sab / std::sqrt(saa * sbb);
}

template <typename P>
std::vector<P> RandomImage(unsigned seed, double lo, double hi) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(lo, hi);
  std::vector<P> img(kSize * kSize);
  for (auto& p : img) p = static_cast<P>(d(rng));
  return img;
}

template <typename P>
std::vector<double> Window(const std::vector<P>& img, int x, int y, int hw, int hh) {
  std::vector<double> v;
  for (int i = -hh; i <= hh; ++i)
    for (int j = -hw; j <= hw; ++j) v.push_back(static_cast<double>(img[(y + i) * kSize + x + j]));
  return v;
}

// The pixel value a resampling member sees at the window centre x + 0.0:
// half way between pixels x-1 and x (centres at k + 0.5).
template <typename P>
std::vector<double> MidpointWindow(const std::vector<P>& img, int x, int y, int hw, int hh,
                                   bool round) {
  std::vector<double> v;
  for (int i = -hh; i <= hh; ++i)
    for (int j = -hw; j <= hw; ++j) {
      const int c = x + j, r = y + i;
      double s = (double(img[(r - 1) * kSize + c - 1]) + img[(r - 1) * kSize + c] +
                  img[r * kSize + c - 1] + img[r * kSize + c]) /
                 4.0;
      v.push_back(round ? std::floor(s + 0.5) : s);
    }
  return v;
}

// The 8-bit kernel on every vector path and window width 1..41 against the
// reference (the masked row tails are the risk).
class ByteKernelPaths : public testing::TestWithParam<epho::VectorPath> {
 protected:
  void SetUp() override {
    if (!epho::VectorPathRuns(GetParam())) GTEST_SKIP() << "not on this processor";
  }
};

TEST_P(ByteKernelPaths, AllWidthsMatchPearson) {
  auto a = RandomImage<uint8_t>(61, 0, 256), b = RandomImage<uint8_t>(62, 0, 256);
  for (int k = 0; k < kSize * kSize; ++k) b[k] = uint8_t((a[k] + b[k]) / 2);
  for (int w = 1; w <= 41; w += 2)
    for (int h : {1, 5}) {
      SCOPED_TRACE(testing::Message() << "width " << w << " height " << h);
      const double c = epho::matching::CrossCoefByteNoResample(GetParam(), a.data(), b.data(),
                                                               kSize, kSize, 21, 30, 23, 29, w, h);
      EXPECT_NEAR(c, Pearson(Window(a, 21, 30, w / 2, h / 2), Window(b, 23, 29, w / 2, h / 2)),
                  1e-12);
      // Exact integer sums: every path gives the portable value bit for bit.
      EXPECT_EQ(
          c, epho::matching::CrossCoefByteNoResample(epho::VectorPath::kPortable, a.data(),
                                                     b.data(), kSize, kSize, 21, 30, 23, 29, w, h));
    }
}

INSTANTIATE_TEST_SUITE_P(AllPaths, ByteKernelPaths, testing::ValuesIn(epho::kAllVectorPaths),
                         [](const testing::TestParamInfo<epho::VectorPath>& info) {
                           return std::string(epho::VectorPathName(info.param));
                         });

TEST(CrossCoefWholePixel, EveryPixelTypeMatchesPearson) {
  auto b1 = RandomImage<uint8_t>(1, 0, 256), b2 = RandomImage<uint8_t>(2, 0, 256);
  auto u1 = RandomImage<uint16_t>(3, 0, 65536), u2 = RandomImage<uint16_t>(4, 0, 65536);
  auto w1 = RandomImage<uint32_t>(5, 0, 4294967295.0),
       w2 = RandomImage<uint32_t>(6, 0, 4294967295.0);
  auto f1 = RandomImage<float>(7, -5, 5), f2 = RandomImage<float>(8, -5, 5);
  auto d1 = RandomImage<double>(9, 1e6, 1e6 + 1), d2 = RandomImage<double>(10, -1, 1);
  // Left and right images share a component so coefficients are not all ~0.
  for (int k = 0; k < kSize * kSize; ++k) b2[k] = uint8_t((b1[k] + b2[k]) / 2);
  const int sizes[][2] = {{21, 21}, {11, 7}, {16, 24}, {1, 5}, {33, 3}};
  for (auto& s : sizes) {
    const int hw = s[0] / 2, hh = s[1] / 2;
    const int lx = 30, ly = 31, rx = 25, ry = 28;
    SCOPED_TRACE(testing::Message() << s[0] << "x" << s[1]);
    EXPECT_NEAR(epho_CrossCoefByteNoResample(b1.data(), b2.data(), kSize, kSize, lx, ly, rx, ry,
                                             s[0], s[1]),
                Pearson(Window(b1, lx, ly, hw, hh), Window(b2, rx, ry, hw, hh)), 1e-12);
    EXPECT_NEAR(
        epho_CrossCoefU16NoResample(u1.data(), u2.data(), kSize, kSize, lx, ly, rx, ry, s[0], s[1]),
        Pearson(Window(u1, lx, ly, hw, hh), Window(u2, rx, ry, hw, hh)), 1e-12);
    EXPECT_NEAR(
        epho_CrossCoefU32NoResample(w1.data(), w2.data(), kSize, kSize, lx, ly, rx, ry, s[0], s[1]),
        Pearson(Window(w1, lx, ly, hw, hh), Window(w2, rx, ry, hw, hh)), 1e-12);
    EXPECT_NEAR(epho_CrossCoefFloatNoResample(f1.data(), f2.data(), kSize, kSize, lx, ly, rx, ry,
                                              s[0], s[1]),
                Pearson(Window(f1, lx, ly, hw, hh), Window(f2, rx, ry, hw, hh)), 1e-12);
    // Values near 1e6 with unit spread: the one-pass sums must not cancel.
    EXPECT_NEAR(epho_CrossCoefDoubleNoResample(d1.data(), d2.data(), kSize, kSize, lx, ly, rx, ry,
                                               s[0], s[1]),
                Pearson(Window(d1, lx, ly, hw, hh), Window(d2, rx, ry, hw, hh)), 1e-9);
  }
}

TEST(CrossCoefWholePixel, WindowSizeRules) {
  auto a = RandomImage<uint8_t>(11, 0, 256), b = RandomImage<uint8_t>(12, 0, 256);
  // An even size means the next odd window.
  EXPECT_EQ(epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 8, 8),
            epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 9, 9));
  auto da = RandomImage<double>(13, 0, 1), db = RandomImage<double>(14, 0, 1);
  EXPECT_EQ(epho_CrossCoefDoubleNoRotation(da.data(), db.data(), kSize, kSize, 20.3, 20.5, 21.3,
                                           20.1, 8, 8),
            epho_CrossCoefDoubleNoRotation(da.data(), db.data(), kSize, kSize, 20.3, 20.5, 21.3,
                                           20.1, 9, 9));
  // Width 0 and width 1 both give a single column.
  EXPECT_NEAR(epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 0, 9),
              Pearson(Window(a, 20, 20, 0, 4), Window(b, 22, 23, 0, 4)), 1e-12);
  EXPECT_EQ(epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 1, 9),
            epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 0, 9));
  // A single pixel has no variance; a negative size is an empty window.
  EXPECT_EQ(epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, 1, 1),
            0.0);
  EXPECT_EQ(epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 20, 20, 22, 23, -5, 9),
            0.0);
  EXPECT_EQ(
      epho_CrossCoefByteShift(a.data(), b.data(), kSize, kSize, 20, 20, 22.0, 23.0, 0xFFFFFFFFu, 3),
      0.0);
}

// Flat, identical and negative-contrast windows, for every member.
TEST(CrossCoefAllMembers, FlatIdenticalAndInverted) {
  auto a = RandomImage<uint8_t>(21, 0, 256);
  std::vector<uint8_t> neg(a.size()), flat(a.size(), 77);
  for (size_t k = 0; k < a.size(); ++k) neg[k] = uint8_t(255 - a[k]);
  std::vector<double> ad(a.begin(), a.end()), negd(neg.begin(), neg.end());
  std::vector<double> flatd(a.size(), 0.1);  // 0.1 is not a binary fraction
  std::vector<uint32_t> a32(a.begin(), a.end()), neg32(a.size()), flat32(a.size(), 0xF0000000u);
  for (size_t k = 0; k < a.size(); ++k) neg32[k] = 0xFFFFFFFFu - 1000u * a[k];
  std::vector<uint16_t> a16(a.size()), neg16(a.size()), flat16(a.size(), 65535);
  for (size_t k = 0; k < a.size(); ++k)
    a16[k] = uint16_t(a[k] * 257), neg16[k] = uint16_t(65535 - a16[k]);
  std::vector<float> af(a.begin(), a.end()), negf(a.size()), flatf(a.size(), 0.3f);
  for (size_t k = 0; k < a.size(); ++k) negf[k] = -0.5f * af[k];

  struct Case {
    const char* name;
    double flat, same, inverted;
  };
  const double p = 0.6;  // rotation angle in radians
  const Case cases[] = {
      {"ByteNoResample",
       epho_CrossCoefByteNoResample(a.data(), flat.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefByteNoResample(a.data(), a.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefByteNoResample(a.data(), neg.data(), kSize, kSize, 30, 30, 30, 30, 15, 15)},
      {"U16NoResample",
       epho_CrossCoefU16NoResample(flat16.data(), a16.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefU16NoResample(a16.data(), a16.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefU16NoResample(a16.data(), neg16.data(), kSize, kSize, 30, 30, 30, 30, 15, 15)},
      {"U32NoResample",
       epho_CrossCoefU32NoResample(a32.data(), flat32.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefU32NoResample(a32.data(), a32.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefU32NoResample(a32.data(), neg32.data(), kSize, kSize, 30, 30, 30, 30, 15, 15)},
      {"FloatNoResample",
       epho_CrossCoefFloatNoResample(flatf.data(), af.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefFloatNoResample(af.data(), af.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefFloatNoResample(af.data(), negf.data(), kSize, kSize, 30, 30, 30, 30, 15, 15)},
      {"DoubleNoResample",
       epho_CrossCoefDoubleNoResample(ad.data(), flatd.data(), kSize, kSize, 30, 30, 30, 30, 15,
                                      15),
       epho_CrossCoefDoubleNoResample(ad.data(), ad.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
       epho_CrossCoefDoubleNoResample(ad.data(), negd.data(), kSize, kSize, 30, 30, 30, 30, 15,
                                      15)},
      {"ByteNoRotation",
       epho_CrossCoefByteNoRotation(a.data(), flat.data(), kSize, kSize, 30.2, 30.7, 20.1, 20.9, 15,
                                    15),
       epho_CrossCoefByteNoRotation(a.data(), a.data(), kSize, kSize, 30.2, 30.7, 30.2, 30.7, 15,
                                    15),
       epho_CrossCoefByteNoRotation(a.data(), neg.data(), kSize, kSize, 30.2, 30.7, 30.2, 30.7, 15,
                                    15)},
      {"DoubleNoRotation",
       epho_CrossCoefDoubleNoRotation(flatd.data(), ad.data(), kSize, kSize, 30.2, 30.7, 20.1, 20.9,
                                      15, 15),
       epho_CrossCoefDoubleNoRotation(ad.data(), ad.data(), kSize, kSize, 30.2, 30.7, 30.2, 30.7,
                                      15, 15),
       epho_CrossCoefDoubleNoRotation(ad.data(), negd.data(), kSize, kSize, 30.2, 30.7, 30.2, 30.7,
                                      15, 15)},
      {"ByteBothResample",
       epho_CrossCoefByteBothResample(a.data(), flat.data(), kSize, kSize, p, -p, 30.2, 30.7, 29.0,
                                      31.0, 15, 15),
       epho_CrossCoefByteBothResample(a.data(), a.data(), kSize, kSize, p, p, 30.2, 30.7, 30.2,
                                      30.7, 15, 15),
       epho_CrossCoefByteBothResample(a.data(), neg.data(), kSize, kSize, p, p, 30.2, 30.7, 30.2,
                                      30.7, 15, 15)},
      {"DoubleBothResample",
       epho_CrossCoefDoubleBothResample(flatd.data(), ad.data(), kSize, kSize, p, -p, 30.2, 30.7,
                                        29.0, 31.0, 15, 15),
       epho_CrossCoefDoubleBothResample(ad.data(), ad.data(), kSize, kSize, p, p, 30.2, 30.7, 30.2,
                                        30.7, 15, 15),
       epho_CrossCoefDoubleBothResample(ad.data(), negd.data(), kSize, kSize, p, p, 30.2, 30.7,
                                        30.2, 30.7, 15, 15)},
      {"ByteRightResample",
       epho_CrossCoefByteRightResample(a.data(), flat.data(), kSize, kSize, p, 30, 30, 29.3, 31.1,
                                       15, 15),
       epho_CrossCoefByteRightResample(a.data(), a.data(), kSize, kSize, 0.0, 30, 30, 30.5, 30.5,
                                       15, 15),
       epho_CrossCoefByteRightResample(a.data(), neg.data(), kSize, kSize, 0.0, 30, 30, 30.5, 30.5,
                                       15, 15)},
      {"DoubleRightResample",
       epho_CrossCoefDoubleRightResample(ad.data(), flatd.data(), kSize, kSize, p, 30, 30, 29.3,
                                         31.1, 15, 15),
       epho_CrossCoefDoubleRightResample(ad.data(), ad.data(), kSize, kSize, 0.0, 30, 30, 30.5,
                                         30.5, 15, 15),
       epho_CrossCoefDoubleRightResample(ad.data(), negd.data(), kSize, kSize, 0.0, 30, 30, 30.5,
                                         30.5, 15, 15)},
      {"ByteShift",
       epho_CrossCoefByteShift(a.data(), flat.data(), kSize, kSize, 30, 30, 29.3, 31.1, 7, 7),
       epho_CrossCoefByteShift(a.data(), a.data(), kSize, kSize, 30, 30, 30.0, 30.0, 7, 7),
       epho_CrossCoefByteShift(a.data(), neg.data(), kSize, kSize, 30, 30, 30.0, 30.0, 7, 7)},
      {"U32Shift",
       epho_CrossCoefU32Shift(a32.data(), flat32.data(), kSize, kSize, 30, 30, 29.3, 31.1, 7, 7),
       epho_CrossCoefU32Shift(a32.data(), a32.data(), kSize, kSize, 30, 30, 30.0, 30.0, 7, 7),
       epho_CrossCoefU32Shift(a32.data(), neg32.data(), kSize, kSize, 30, 30, 30.0, 30.0, 7, 7)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.flat, 0.0);
    EXPECT_NEAR(c.same, 1.0, 1e-12);
    EXPECT_NEAR(c.inverted, -1.0, 1e-12);
  }
  // A NaN pixel is bad data, not a flat window: it shows in the coefficient
  // instead of passing for "no correlation".
  ad[31 * kSize + 29] = std::nan("");
  af[31 * kSize + 29] = std::nanf("");
  EXPECT_TRUE(std::isnan(epho_CrossCoefDoubleNoResample(ad.data(), negd.data(), kSize, kSize, 30,
                                                        30, 30, 30, 15, 15)));
  EXPECT_TRUE(std::isnan(
      epho_CrossCoefFloatNoResample(negf.data(), af.data(), kSize, kSize, 30, 30, 30, 30, 15, 15)));
  EXPECT_TRUE(std::isnan(epho_CrossCoefDoubleNoRotation(ad.data(), negd.data(), kSize, kSize, 30.2,
                                                        30.7, 30.2, 30.7, 15, 15)));
  // Still exactly 0 when the other window is flat.
  EXPECT_EQ(
      epho_CrossCoefDoubleNoResample(ad.data(), flatd.data(), kSize, kSize, 30, 30, 30, 30, 15, 15),
      0.0);
}

TEST(CrossCoefWholePixel, U32IsUnsigned) {
  // Left values straddle 0x80000000; read as signed they would reverse order.
  std::vector<uint32_t> l(kSize * kSize), r(kSize * kSize);
  std::mt19937 rng(5);
  for (size_t k = 0; k < l.size(); ++k) {
    r[k] = rng() % 1000;
    l[k] = 0x7FFFFE00u + r[k];
  }
  EXPECT_NEAR(epho_CrossCoefU32NoResample(l.data(), r.data(), kSize, kSize, 30, 30, 30, 30, 11, 11),
              1.0, 1e-9);
  EXPECT_NEAR(epho_CrossCoefU32Shift(l.data(), r.data(), kSize, kSize, 30, 30, 30.0, 30.0, 5, 5),
              1.0, 1e-9);
}

// Half-pixel centres for the resampling members, whole-pixel centres for the
// Shift members.
TEST(CrossCoefResampling, PixelCentreConventions) {
  auto a = RandomImage<uint8_t>(31, 0, 256), b = RandomImage<uint8_t>(32, 0, 256);
  std::vector<double> ad(a.begin(), a.end()), bd(b.begin(), b.end());
  const double whole =
      epho_CrossCoefByteNoResample(a.data(), b.data(), kSize, kSize, 10, 12, 20, 22, 9, 9);
  // 10.5 is the centre of pixel 10: the whole-pixel value, exactly.
  EXPECT_EQ(
      epho_CrossCoefByteNoRotation(a.data(), b.data(), kSize, kSize, 10.5, 12.5, 20.5, 22.5, 9, 9),
      whole);
  EXPECT_NEAR(epho_CrossCoefByteBothResample(a.data(), b.data(), kSize, kSize, 0, 0, 10.5, 12.5,
                                             20.5, 22.5, 9, 9),
              whole, 1e-15);
  EXPECT_NEAR(epho_CrossCoefByteRightResample(a.data(), b.data(), kSize, kSize, 0, 10, 12, 20.5,
                                              22.5, 9, 9),
              whole, 1e-15);
  EXPECT_NEAR(epho_CrossCoefDoubleNoRotation(ad.data(), bd.data(), kSize, kSize, 10.5, 12.5, 20.5,
                                             22.5, 9, 9),
              whole, 1e-12);
  EXPECT_NEAR(epho_CrossCoefDoubleRightResample(ad.data(), bd.data(), kSize, kSize, 0, 10, 12, 20.5,
                                                22.5, 9, 9),
              whole, 1e-12);
  // 10.0 lies between pixels 9 and 10: the mean of the four neighbours, and
  // the Byte members round it half up.
  auto lw = Window(a, 10, 12, 4, 4);
  EXPECT_NEAR(
      epho_CrossCoefByteNoRotation(a.data(), b.data(), kSize, kSize, 10.5, 12.5, 20.0, 22.0, 9, 9),
      Pearson(lw, MidpointWindow(b, 20, 22, 4, 4, true)), 1e-12);
  EXPECT_NEAR(epho_CrossCoefByteRightResample(a.data(), b.data(), kSize, kSize, 0, 10, 12, 20.0,
                                              22.0, 9, 9),
              Pearson(lw, MidpointWindow(b, 20, 22, 4, 4, true)), 1e-12);
  EXPECT_NEAR(epho_CrossCoefDoubleNoRotation(ad.data(), bd.data(), kSize, kSize, 10.5, 12.5, 20.0,
                                             22.0, 9, 9),
              Pearson(lw, MidpointWindow(b, 20, 22, 4, 4, false)), 1e-12);
  EXPECT_NEAR(
      epho_CrossCoefDoubleBothResample(ad.data(), bd.data(), kSize, kSize, 0, 0, 10.0, 12.0, 20.0,
                                       22.0, 9, 9),
      Pearson(MidpointWindow(a, 10, 12, 4, 4, false), MidpointWindow(b, 20, 22, 4, 4, false)),
      1e-12);
  // Shift members: 20.0 reads pixel 20 itself ...
  EXPECT_EQ(epho_CrossCoefByteShift(a.data(), b.data(), kSize, kSize, 10, 12, 20.0, 22.0, 4, 4),
            whole);
  std::vector<uint32_t> a32(a.begin(), a.end()), b32(b.begin(), b.end());
  EXPECT_NEAR(
      epho_CrossCoefU32Shift(a32.data(), b32.data(), kSize, kSize, 10, 12, 20.0, 22.0, 4, 4), whole,
      1e-12);
  // ... and 20.5 averages pixels 20 and 21 (the midpoint window one pixel on).
  EXPECT_NEAR(epho_CrossCoefByteShift(a.data(), b.data(), kSize, kSize, 10, 12, 20.5, 22.5, 4, 4),
              Pearson(lw, MidpointWindow(b, 21, 23, 4, 4, true)), 1e-12);
  EXPECT_NEAR(
      epho_CrossCoefU32Shift(a32.data(), b32.data(), kSize, kSize, 10, 12, 20.5, 22.5, 4, 4),
      Pearson(lw, MidpointWindow(b, 21, 23, 4, 4, false)), 1e-12);
  // Shifting along one axis only: columns at 20.25 weigh pixels 20 and 21 by 3:1.
  std::vector<double> quarter;
  for (int i = -4; i <= 4; ++i)
    for (int j = -4; j <= 4; ++j)
      quarter.push_back(0.75 * bd[(22 + i) * kSize + 20 + j] +
                        0.25 * bd[(22 + i) * kSize + 21 + j]);
  EXPECT_NEAR(
      epho_CrossCoefU32Shift(a32.data(), b32.data(), kSize, kSize, 10, 12, 20.25, 22.0, 4, 4),
      Pearson(lw, quarter), 1e-12);
  EXPECT_NEAR(epho_CrossCoefDoubleNoRotation(ad.data(), bd.data(), kSize, kSize, 10.5, 12.5, 20.75,
                                             22.5, 9, 9),
              Pearson(lw, quarter), 1e-12);
}

// A window turned by a quarter turn reads the image transposed and mirrored:
// build the right image as that copy and the coefficient must be 1.
TEST(CrossCoefResampling, QuarterTurnFindsRotatedCopy) {
  auto a = RandomImage<uint8_t>(41, 0, 256);
  std::vector<uint8_t> rot(a.size());
  // rot(c, r) = a(r, kSize-1-c): turning offsets (j, i) by +90 degrees maps
  // them to (-i, j) around the centre.
  for (int r = 0; r < kSize; ++r)
    for (int c = 0; c < kSize; ++c) rot[r * kSize + c] = a[(kSize - 1 - c) * kSize + r];
  std::vector<double> ad(a.begin(), a.end()), rotd(rot.begin(), rot.end());
  // Left centre pixel (20, 25) becomes pixel (kSize-1-25, 20) = (38, 20).
  const double q = M_PI / 2;
  EXPECT_NEAR(epho_CrossCoefByteRightResample(a.data(), rot.data(), kSize, kSize, q, 20, 25, 38.5,
                                              20.5, 11, 11),
              1.0, 1e-12);
  EXPECT_NEAR(epho_CrossCoefDoubleBothResample(ad.data(), rotd.data(), kSize, kSize, 0.3, 0.3 + q,
                                               20.5, 25.5, 38.5, 20.5, 11, 11),
              1.0, 1e-12);  // bilinear sampling commutes with the quarter turn
  EXPECT_NEAR(epho_CrossCoefDoubleBothResample(ad.data(), rotd.data(), kSize, kSize, 0, q, 20.5,
                                               25.5, 38.5, 20.5, 11, 11),
              1.0, 1e-12);
  // Unturned, the same windows do not correlate.
  EXPECT_LT(std::fabs(epho_CrossCoefByteNoRotation(a.data(), rot.data(), kSize, kSize, 20.5, 25.5,
                                                   38.5, 20.5, 11, 11)),
            0.5);
}

TEST(SummationHelpers, SumsCrossSumsAndMirrors) {
  auto a = RandomImage<uint8_t>(51, 0, 256), b = RandomImage<uint8_t>(52, 0, 256);
  std::vector<uint32_t> a32(a.size()), b32(b.size());
  for (size_t k = 0; k < a.size(); ++k) a32[k] = 0xFFFF0000u + a[k] * 37u, b32[k] = b[k] * 1000u;
  double s = -1, ss = -1, s32 = -1, ss32 = -1;
  epho_getPixelSumSquareSumByte(a.data(), kSize, 20, 30, 6, 3, &s, &ss);
  epho_getPixelSumSquareSumU32(a32.data(), kSize, 20, 30, 6, 3, &s32, &ss32);
  double rs = 0, rss = 0, rs32 = 0, rss32 = 0, cross = 0, cross32 = 0, rowm = 0, colm = 0;
  for (int i = -3; i <= 3; ++i)
    for (int j = -6; j <= 6; ++j) {
      const double p = a[(30 + i) * kSize + 20 + j], p32 = a32[(30 + i) * kSize + 20 + j];
      rs += p, rss += p * p, rs32 += p32, rss32 += p32 * p32;
      cross += p * b[(10 + i) * kSize + 40 + j];
      cross32 += p32 * double(b32[(10 + i) * kSize + 40 + j]);
      rowm += double(a32[(30 - i) * kSize + 20 + j]) * b32[(10 + i) * kSize + 40 + j];
      colm += double(a32[(30 + i) * kSize + 20 - j]) * b32[(10 + i) * kSize + 40 + j];
    }
  EXPECT_EQ(s, rs);
  EXPECT_EQ(ss, rss);
  EXPECT_DOUBLE_EQ(s32, rs32);
  EXPECT_DOUBLE_EQ(ss32, rss32);
  EXPECT_EQ(epho_getCrossSumByte(a.data(), kSize, 20, 30, b.data(), kSize, 40, 10, 6, 3), cross);
  EXPECT_DOUBLE_EQ(epho_getCrossSumU32(a32.data(), kSize, 20, 30, b32.data(), kSize, 40, 10, 6, 3),
                   cross32);
  EXPECT_DOUBLE_EQ(
      getCrossSumU32RowMirror(a32.data(), kSize, 20, 30, b32.data(), kSize, 40, 10, 6, 3), rowm);
  EXPECT_DOUBLE_EQ(
      getCrossSumU32ColumnMirror(a32.data(), kSize, 20, 30, b32.data(), kSize, 40, 10, 6, 3), colm);
  // A patch symmetric about its centre column equals its column mirror.
  std::vector<uint32_t> sym(kSize * kSize);
  for (int r = 0; r < kSize; ++r)
    for (int c = 0; c < kSize; ++c)
      sym[r * kSize + c] = b32[r * kSize + std::min(c, 64 - c) % kSize];
  EXPECT_EQ(getCrossSumU32ColumnMirror(sym.data(), kSize, 32, 20, sym.data(), kSize, 32, 20, 7, 5),
            epho_getCrossSumU32(sym.data(), kSize, 32, 20, sym.data(), kSize, 32, 20, 7, 5));
  // Negative half sizes: empty window.
  epho_getPixelSumSquareSumByte(a.data(), kSize, 20, 30, 0x80000000u, 3, &s, &ss);
  EXPECT_EQ(s, 0.0);
  EXPECT_EQ(ss, 0.0);
  epho_getPixelSumSquareSumU32(a32.data(), kSize, 20, 30, 2, 0xFFFFFFFFu, &s32, &ss32);
  EXPECT_EQ(s32 + ss32, 0.0);
  EXPECT_EQ(epho_getCrossSumByte(a.data(), kSize, 20, 30, b.data(), kSize, 40, 10, 0xFFFFFFFEu, 3),
            0.0);
  EXPECT_EQ(
      getCrossSumU32RowMirror(a32.data(), kSize, 20, 30, b32.data(), kSize, 40, 10, 3, 0xFFFFFFFFu),
      0.0);
}

}  // namespace
