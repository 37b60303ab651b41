// Image matching: per-call throughput of every correlation kernel family (in
// template pixels per second), the 8-bit kernel against a plain scalar loop,
// least-squares correlation per point, and the template search against
// OpenCV matchTemplate (TM_CCOEFF_NORMED, one thread) on the same data.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "epho/kernel/vector_path.h"
#include "epho/matching.h"
#include "epho/matching/ncc_paths_internal.h"

#ifdef EPHO_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

volatile double g_sink = 0;

// Search windows to measure (all of 64, 128, 256, 1024 unless the command
// line names some).
std::vector<int> g_windows = {64, 128, 256, 1024};

constexpr int kImage = 256;

// Smooth random texture, 8-bit.
std::vector<uint8_t> Texture(unsigned seed, int size) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0, 1);
  double kx[10], ky[10], ph[10];
  for (int k = 0; k < 10; ++k) {
    const double dir = 2 * M_PI * u(rng), period = 5 + 20 * u(rng);
    kx[k] = 2 * M_PI * std::cos(dir) / period;
    ky[k] = 2 * M_PI * std::sin(dir) / period;
    ph[k] = 2 * M_PI * u(rng);
  }
  std::vector<uint8_t> img(size * size);
  for (int r = 0; r < size; ++r)
    for (int c = 0; c < size; ++c) {
      double v = 0;
      for (int k = 0; k < 10; ++k) v += std::sin(kx[k] * c + ky[k] * r + ph[k]);
      img[r * size + c] =
          static_cast<uint8_t>(std::max(0.0, std::min(255.0, 128 + 35 * v + 20 * (u(rng) - 0.5))));
    }
  return img;
}

// The baseline: the coefficient written as the plain scalar loop one would
// write first, double accumulators, one pixel at a time.
double PlainScalarByte(const uint8_t* l, const uint8_t* r, uint32_t ls, uint32_t rs, uint32_t lx,
                       uint32_t ly, uint32_t rx, uint32_t ry, int hw, int hh) {
  double sl = 0, sll = 0, sr = 0, srr = 0, slr = 0;
  for (int i = -hh; i <= hh; ++i)
    for (int j = -hw; j <= hw; ++j) {
      const double a = l[(ly + i) * ls + lx + j], b = r[(ry + i) * rs + rx + j];
      sl += a, sll += a * a, sr += b, srr += b * b, slr += a * b;
    }
  const double n = (2 * hw + 1) * (2 * hh + 1);
  const double vl = sll - sl / n * sl, vr = srr - sr / n * sr;
  return vl == 0 || vr == 0 ? 0 : (slr - sl / n * sr) / std::sqrt(vl * vr);
}

// Runs `call(k)` for k = 0..calls-1 (k varies the position) and returns the
// best-of-5 processor time of this thread per call (OpenCV runs on this
// thread too: one thread).
template <class F>
double PerCall(int calls, F call) {
  return bench::BestThreadSeconds(5,
                                  [&] {
                                    double s = 0;
                                    for (int k = 0; k < calls; ++k) s += call(k);
                                    g_sink = g_sink + s;
                                  }) /
         calls;
}

void Throughput(const std::string& name, int size, double seconds_per_call) {
  std::printf("%-48s %8.1f Mpix/s  (%.3f us/call)\n",
              (name + " " + std::to_string(size) + "x" + std::to_string(size)).c_str(),
              double(size) * size / seconds_per_call * 1e-6, seconds_per_call * 1e6);
}

void Kernels() {
  auto a8 = Texture(1, kImage), b8 = Texture(2, kImage);
  std::vector<uint16_t> a16(a8.begin(), a8.end()), b16(b8.begin(), b8.end());
  std::vector<uint32_t> a32(a8.begin(), a8.end()), b32(b8.begin(), b8.end());
  std::vector<float> af(a8.begin(), a8.end()), bf(b8.begin(), b8.end());
  std::vector<double> ad(a8.begin(), a8.end()), bd(b8.begin(), b8.end());
  const uint8_t *A8 = a8.data(), *B8 = b8.data();
  const int calls = 20000;
  std::printf("-- correlation kernels, one coefficient per call\n");
  for (int size : {11, 21}) {
    const int16_t s = static_cast<int16_t>(size);
    const uint32_t h = size / 2;
    auto p = [](int k) { return uint32_t(40 + (k * 7) % 150); };
    auto q = [](int k) { return uint32_t(45 + (k * 11) % 150); };
    auto d = [](int k) { return 40.3 + (k * 7) % 150; };
    const double ours = PerCall(calls, [&](int k) {
      return epho_CrossCoefByteNoResample(A8, B8, kImage, kImage, p(k), q(k), q(k), p(k), s, s);
    });
    const double plain = PerCall(calls, [&](int k) {
      return PlainScalarByte(A8, B8, kImage, kImage, p(k), q(k), q(k), p(k), h, h);
    });
    bench::PrintComparison(
        "ByteNoResample " + std::to_string(size) + "x" + std::to_string(size) + " (1e5 calls)",
        "plain scalar loop", ours * 1e5, plain * 1e5, "(target x4)");
    Throughput("ByteNoResample", size, ours);
    Throughput("U16NoResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefU16NoResample(a16.data(), b16.data(), kImage, kImage, p(k),
                                                    q(k), q(k), p(k), s, s);
               }));
    Throughput("U32NoResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefU32NoResample(a32.data(), b32.data(), kImage, kImage, p(k),
                                                    q(k), q(k), p(k), s, s);
               }));
    Throughput("FloatNoResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefFloatNoResample(af.data(), bf.data(), kImage, kImage, p(k),
                                                      q(k), q(k), p(k), s, s);
               }));
    Throughput("DoubleNoResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefDoubleNoResample(ad.data(), bd.data(), kImage, kImage, p(k),
                                                       q(k), q(k), p(k), s, s);
               }));
    Throughput("ByteNoRotation", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefByteNoRotation(A8, B8, kImage, kImage, d(k), d(k + 3),
                                                     d(k + 5), d(k), s, s);
               }));
    Throughput("DoubleNoRotation", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefDoubleNoRotation(ad.data(), bd.data(), kImage, kImage, d(k),
                                                       d(k + 3), d(k + 5), d(k), s, s);
               }));
    Throughput("ByteBothResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefByteBothResample(A8, B8, kImage, kImage, 0.1, 0.3, d(k),
                                                       d(k + 3), d(k + 5), d(k), s, s);
               }));
    Throughput("DoubleBothResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefDoubleBothResample(ad.data(), bd.data(), kImage, kImage, 0.1,
                                                         0.3, d(k), d(k + 3), d(k + 5), d(k), s, s);
               }));
    Throughput("ByteRightResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefByteRightResample(A8, B8, kImage, kImage, 0.3, p(k), q(k),
                                                        d(k + 5), d(k), s, s);
               }));
    Throughput("DoubleRightResample", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefDoubleRightResample(ad.data(), bd.data(), kImage, kImage, 0.3,
                                                          p(k), q(k), d(k + 5), d(k), s, s);
               }));
    Throughput("ByteShift", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefByteShift(A8, B8, kImage, kImage, p(k), q(k), d(k + 5), d(k),
                                                h, h);
               }));
    Throughput("U32Shift", size, PerCall(calls, [&](int k) {
                 return epho_CrossCoefU32Shift(a32.data(), b32.data(), kImage, kImage, p(k), q(k),
                                               d(k + 5), d(k), h, h);
               }));
    Throughput("getCrossSumU32 (sum of products only)", size, PerCall(calls, [&](int k) {
                 return epho_getCrossSumU32(a32.data(), kImage, p(k), q(k), b32.data(), kImage,
                                            q(k), p(k), h, h);
               }));
  }
}

void LeastSquares() {
  // One point refined from 0.6 px away on a 21x21 window.
  auto left = Texture(5, 64);
  std::vector<uint8_t> right(64 * 64);
  for (int r = 0; r < 63; ++r)
    for (int c = 0; c < 63; ++c)  // shifted by half a pixel both ways
      right[r * 64 + c] = uint8_t((left[r * 64 + c] + left[r * 64 + c + 1] +
                                   left[(r + 1) * 64 + c] + left[(r + 1) * 64 + c + 1] + 2) /
                                  4);
  int iterations = 0;
  const double t = PerCall(200, [&](int) {
    double x = 22.4, y = 21.9;
    const int code = epho_OnePtLSCByteHalf(left.data(), 64, 22, 22, right.data(), 64, &x, &y, 10,
                                           10, 20, 0.001f, 3.0f);
    iterations = -code;
    return x;
  });
  std::printf("%-48s %8.1f us/point (%d iterations)\n", "OnePtLSCByteHalf 21x21", t * 1e6,
              iterations);
}

// Best processor time of this thread over `repeats` runs: the cost model is
// a property of the code, which other processes on a shared machine should
// not skew.
double BestCpuSeconds(int repeats, const std::function<void()>& f) {
  double best = 1e30;
  for (int i = 0; i < repeats; ++i) {
    timespec a{}, b{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &a);
    f();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &b);
    best = std::min(best, double(b.tv_sec - a.tv_sec) + 1e-9 * double(b.tv_nsec - a.tv_nsec));
  }
  return best;
}

// The direct and the transform-domain search on the best vector path over
// the sizes the cost model of template_search.cpp was fitted to, each
// beside the model's time, and the method the model chooses: the
// calibration of the switch point (refit the model's figures when the
// measured and modelled columns part).
void SwitchPoint() {
  using epho::matching::SearchMethod;
  const epho::VectorPath path = epho::BestVectorPath();
  std::printf(
      "-- switch point of the template search (%s path, processor time, ms): measured (model)\n",
      epho::VectorPathName(path));
  const int W = 1100;
  auto img8 = Texture(21, W);
  std::vector<float> imgf(img8.begin(), img8.end());
  for (int s : g_windows)
    for (int t : {11, 21, 31, 41}) {
      const int h = t / 2, cand = s - t + 1, x0 = 30 + h;
      std::vector<char> scratch(
          epho::matching::NccSearchScratchBytes(SearchMethod::kTransform, h, h, cand, cand));
      Epho_NccPeak peak{};
      double tm[2][2], model[2][2];
      for (int m = 0; m < 2; ++m)
        for (int type = 0; type < 2; ++type) {
          const SearchMethod method = m == 0 ? SearchMethod::kDirect : SearchMethod::kTransform;
          tm[m][type] = BestCpuSeconds(s >= 1024 ? 3 : (s >= 256 ? 5 : 20), [&] {
            if (type == 0)
              epho::matching::NccSearchByte(path, method, img8.data(), img8.data(), W, W, 500, 500,
                                            h, h, x0, x0, x0 + cand - 1, x0 + cand - 1,
                                            scratch.data(), scratch.size(), &peak);
            else
              epho::matching::NccSearchFloat(path, method, imgf.data(), imgf.data(), W, W, 500, 500,
                                             h, h, x0, x0, x0 + cand - 1, x0 + cand - 1,
                                             scratch.data(), scratch.size(), &peak);
          });
        }
      for (int type = 0; type < 2; ++type)
        epho::matching::NccSearchModelCosts(path, type == 0, h, h, cand, cand, &model[0][type],
                                            &model[1][type]);
      std::printf(
          "  window %4d template %2d: direct u8 %7.3f (%7.3f) f32 %7.3f (%7.3f)  transform u8 "
          "%7.3f (%7.3f) f32 %7.3f (%7.3f)  chosen: u8 %s, f32 %s\n",
          s, t, tm[0][0] * 1e3, model[0][0] * 1e-6, tm[0][1] * 1e3, model[0][1] * 1e-6,
          tm[1][0] * 1e3, model[1][0] * 1e-6, tm[1][1] * 1e3, model[1][1] * 1e-6,
          epho::matching::NccSearchUsesTransform(path, true, h, h, cand, cand) ? "transform"
                                                                               : "direct",
          epho::matching::NccSearchUsesTransform(path, false, h, h, cand, cand) ? "transform"
                                                                                : "direct");
      std::fflush(stdout);
    }
}

#ifdef EPHO_HAVE_OPENCV
void Search() {
  cv::setNumThreads(1);
  std::printf("-- template search vs OpenCV matchTemplate TM_CCOEFF_NORMED, one thread\n");
  const int W = 1100;
  auto left8 = Texture(11, W), right8 = Texture(11, W);
  for (auto& v : right8) v = uint8_t(std::min(255, v + (v % 5)));  // near copy
  std::vector<float> leftf(left8.begin(), left8.end()), rightf(right8.begin(), right8.end());
  std::vector<char> scratch;
  for (int s : g_windows)
    for (int t : {11, 21, 31, 41}) {
      const int h = t / 2;
      const int x0 = 20, y0 = 16;                          // search area origin in the right image
      const int lx = x0 + s / 2 + 1, ly = y0 + s / 2 - 2;  // template centre (left image)
      scratch.resize(epho_NccSearchScratchBytes(h, h, s - t + 1, s - t + 1));
      const std::string what = std::to_string(t) + "x" + std::to_string(t) + " in " +
                               std::to_string(s) + "x" + std::to_string(s);
      const int calls = std::max(2, int(2e5 / (double(s) * s)) * 10);
      for (int type = 0; type < 2; ++type) {
        Epho_NccPeak peak{};
        const double ours = PerCall(calls, [&](int) {
          int rc = type == 0 ? epho_NccSearchByte(left8.data(), right8.data(), W, W, lx, ly, h, h,
                                                  x0 + h, y0 + h, x0 + s - h - 1, y0 + s - h - 1,
                                                  scratch.data(), scratch.size(), &peak)
                             : epho_NccSearchFloat(leftf.data(), rightf.data(), W, W, lx, ly, h, h,
                                                   x0 + h, y0 + h, x0 + s - h - 1, y0 + s - h - 1,
                                                   scratch.data(), scratch.size(), &peak);
          return rc + peak.subpixel_column;
        });
        const double ours_others = bench::LastOthers();
        cv::Mat result;
        cv::Mat image, templ;
        if (type == 0) {
          image = cv::Mat(W, W, CV_8U, right8.data())(cv::Rect(x0, y0, s, s));
          templ = cv::Mat(W, W, CV_8U, left8.data())(cv::Rect(lx - h, ly - h, t, t));
        } else {
          image = cv::Mat(W, W, CV_32F, rightf.data())(cv::Rect(x0, y0, s, s));
          templ = cv::Mat(W, W, CV_32F, leftf.data())(cv::Rect(lx - h, ly - h, t, t));
        }
        const double peer = PerCall(calls, [&](int) {
          cv::matchTemplate(image, templ, result, cv::TM_CCOEFF_NORMED);
          double mx;
          cv::Point at;
          cv::minMaxLoc(result, nullptr, &mx, nullptr, &at);
          return mx + at.x;
        });
        bench::PrintComparison(
            std::string(type == 0 ? "NccSearchByte  " : "NccSearchFloat ") + what + " (per call)",
            "cv::matchTemplate", ours, peer, bench::Target(peer / ours, t <= 21 ? 3.0 : 2.0),
            bench::BusyNote(ours_others, bench::LastOthers()));
        // Same data, same answer: position and coefficient.
        double mx;
        cv::Point at;
        cv::minMaxLoc(result, nullptr, &mx, nullptr, &at);
        const float cv_at_ours = result.at<float>(peak.row - h - y0, peak.column - h - x0);
        if (at.x + h + x0 != peak.column || at.y + h + y0 != peak.row ||
            std::fabs(peak.coefficient - cv_at_ours) >= 1e-5)
          std::printf("    best ours (%d,%d) r=%.9f  OpenCV (%d,%d) r=%.9f: MISMATCH\n",
                      peak.column, peak.row, peak.coefficient, at.x + h + x0, at.y + h + y0, mx);
      }
    }
  // Whole-pixel kernel against every OpenCV coefficient of one map.
  {
    const int t = 21, s = 64, h = t / 2, x0 = 30, y0 = 30, lx = 70, ly = 66;
    cv::Mat image = cv::Mat(W, W, CV_8U, right8.data())(cv::Rect(x0, y0, s, s));
    cv::Mat templ = cv::Mat(W, W, CV_8U, left8.data())(cv::Rect(lx - h, ly - h, t, t));
    cv::Mat result;
    cv::matchTemplate(image, templ, result, cv::TM_CCOEFF_NORMED);
    double worst = 0, sum = 0;
    int above = 0;
    for (int y = 0; y < result.rows; ++y)
      for (int x = 0; x < result.cols; ++x) {
        const double d =
            std::fabs(result.at<float>(y, x) -
                      epho_CrossCoefByteNoResample(left8.data(), right8.data(), W, W, lx, ly,
                                                   x0 + x + h, y0 + y + h, t, t));
        worst = std::max(worst, d);
        sum += d;
        above += d > 1e-6;
      }
    std::printf(
        "    ByteNoResample vs OpenCV (32-bit float result) over a %dx%d map: mean |difference| "
        "%.2e, max %.2e, %d of %d above 1e-6\n",
        result.cols, result.rows, sum / (result.cols * result.rows), worst, above,
        result.cols * result.rows);
  }
}
#endif

}  // namespace

// Without arguments every part; otherwise only the parts named
// ("kernels", "lsc", "switch", "search"), and numbers name the search
// windows of "switch" and "search" (e.g. `matching_bench search 64 128`).
int main(int argc, char** argv) {
  std::vector<int> windows;
  for (int i = 1; i < argc; ++i)
    if (std::atoi(argv[i]) > 0) windows.push_back(std::atoi(argv[i]));
  if (!windows.empty()) g_windows = windows;
  auto wanted = [&](const char* part) {
    if (argc < 2) return true;
    for (int i = 1; i < argc; ++i)
      if (std::string(argv[i]) == part) return true;
    return false;
  };
  if (wanted("kernels")) Kernels();
  if (wanted("lsc")) LeastSquares();
  if (wanted("switch")) SwitchPoint();
#ifdef EPHO_HAVE_OPENCV
  if (wanted("search")) Search();
#else
  std::printf("OpenCV not found: search comparison skipped\n");
#endif
  return 0;
}
