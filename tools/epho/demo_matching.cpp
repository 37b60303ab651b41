// Demo stage "matching": tie points between two overlapping synthetic
// images. The right image shows the same ground texture moved by a known
// sub-pixel offset; points on a grid of the left image are found in the right
// one by an NCC search around the offset a rough orientation would predict,
// then refined by least-squares correlation. The summary compares both
// against the known offset. The two images are also written as GeoTIFFs to
// the work folder for inspection.
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "epho/matching.h"
#include "gdal.h"
#include "registry.h"

namespace {

constexpr int kSize = 256;
constexpr double kShiftX = 5.37, kShiftY = -3.62;  // right = left moved by this (pixels)

// Ground texture: smooth random waves and blobs, defined everywhere.
struct GroundTexture {
  double kx[14], ky[14], ph[14], am[14];
  double bx[400], by[400], bs[400], ba[400];
  GroundTexture() {
    std::mt19937 rng(2026);
    std::uniform_real_distribution<double> u(0, 1);
    for (int k = 0; k < 14; ++k) {
      const double dir = 2 * M_PI * u(rng), period = 9 + 40 * u(rng);
      kx[k] = 2 * M_PI * std::cos(dir) / period;
      ky[k] = 2 * M_PI * std::sin(dir) / period;
      ph[k] = 2 * M_PI * u(rng);
      am[k] = 6 + 10 * u(rng);
    }
    for (int k = 0; k < 400; ++k) {
      bx[k] = -20 + (kSize + 40) * u(rng);
      by[k] = -20 + (kSize + 40) * u(rng);
      bs[k] = 1.5 + 3 * u(rng);
      ba[k] = 60 * (u(rng) - 0.5);
    }
  }
  double operator()(double x, double y) const {
    double v = 128;
    for (int k = 0; k < 14; ++k) v += am[k] * std::sin(kx[k] * x + ky[k] * y + ph[k]);
    for (int k = 0; k < 400; ++k) {
      const double dx = x - bx[k], dy = y - by[k];
      const double d2 = dx * dx + dy * dy;
      if (d2 < 25 * bs[k] * bs[k]) v += ba[k] * std::exp(-d2 / (2 * bs[k] * bs[k]));
    }
    return v;
  }
};

// Pixel (c, r) shows the ground at its centre moved by (-dx, -dy), with a
// little sensor noise, as 8-bit grey values.
std::vector<uint8_t> Photograph(const GroundTexture& ground, double dx, double dy, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::vector<uint8_t> img(kSize * kSize);
  for (int r = 0; r < kSize; ++r)
    for (int c = 0; c < kSize; ++c) {
      const double v = ground(c + 0.5 - dx, r + 0.5 - dy) + noise(rng);
      img[r * kSize + c] = static_cast<uint8_t>(std::lround(std::fmin(255.0, std::fmax(0.0, v))));
    }
  return img;
}

bool WriteGeoTiff(const std::string& path, std::vector<uint8_t>& pixels) {
  GDALAllRegister();
  GDALDriverH driver = GDALGetDriverByName("GTiff");
  if (!driver) return false;
  GDALDatasetH ds = GDALCreate(driver, path.c_str(), kSize, kSize, 1, GDT_Byte, nullptr);
  if (!ds) return false;
  const CPLErr e = GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, kSize, kSize,
                                pixels.data(), kSize, kSize, GDT_Byte, 0, 0);
  GDALClose(ds);
  return e == CE_None;
}

bool DemoMatching(epho_tool::DemoContext& demo) {
  const GroundTexture ground;
  auto left = Photograph(ground, 0.0, 0.0, 1);
  auto right = Photograph(ground, kShiftX, kShiftY, 2);
  const std::string left_path = demo.workdir + "/matching_left.tif";
  const std::string right_path = demo.workdir + "/matching_right.tif";
  if (!WriteGeoTiff(left_path, left) || !WriteGeoTiff(right_path, right)) {
    std::printf("  cannot write %s\n", left_path.c_str());
    return false;
  }
  demo.files["matching.left"] = left_path;
  demo.files["matching.right"] = right_path;

  // A rough orientation predicts the offset to a few pixels.
  const int predict_x = 4, predict_y = -2;
  const uint32_t half = 10, radius = 8;
  std::vector<char> scratch(epho_NccSearchScratchBytes(half, half, 2 * radius + 1, 2 * radius + 1));
  int points = 0, rejected = 0;
  double ncc_sq = 0, lsc_sq = 0;
  for (int ly = 24; ly <= kSize - 24; ly += 16)
    for (int lx = 24; lx <= kSize - 24; lx += 16) {
      const int cx = lx + predict_x, cy = ly + predict_y;
      Epho_NccPeak peak;
      const int rc = epho_NccSearchByte(left.data(), right.data(), kSize, kSize, lx, ly, half, half,
                                        cx - radius, cy - radius, cx + radius, cy + radius,
                                        scratch.data(), scratch.size(), &peak);
      if (rc != EPHO_NCC_SEARCH_OK || peak.on_border || peak.coefficient < 0.8) {
        ++rejected;
        continue;
      }
      // Least squares from the NCC peak; its positions have pixel centres at
      // k + 0.5, so the left pixel lx lines up with right position lx + 0.5.
      double rx = peak.subpixel_column + 0.5, ry = peak.subpixel_row + 0.5;
      const int code = epho_OnePtLSCByteHalf(left.data(), kSize, lx, ly, right.data(), kSize, &rx,
                                             &ry, half, half, 10, 0.002f, 2.0f);
      if (code >= 0) {
        ++rejected;
        continue;
      }
      const double ex_ncc = peak.subpixel_column - lx - kShiftX,
                   ey_ncc = peak.subpixel_row - ly - kShiftY;
      const double ex = rx - 0.5 - lx - kShiftX, ey = ry - 0.5 - ly - kShiftY;
      ncc_sq += ex_ncc * ex_ncc + ey_ncc * ey_ncc;
      lsc_sq += ex * ex + ey * ey;
      ++points;
    }
  if (points == 0) {
    std::printf("  no tie point found\n");
    return false;
  }
  const double ncc_rmse = std::sqrt(ncc_sq / points), lsc_rmse = std::sqrt(lsc_sq / points);
  demo.values["matching.tie_points"] = points;
  demo.values["matching.rmse_px"] = lsc_rmse;
  demo.Summary(
      "matching: %d tie points (%d rejected), RMSE against the known shift: NCC %.3f px, "
      "NCC+LSC %.3f px",
      points, rejected, ncc_rmse, lsc_rmse);
  return lsc_rmse < 0.1;
}

}  // namespace

EPHO_DEMO_STAGE(40, "matching", DemoMatching);
