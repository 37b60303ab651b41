// The synthetic project of `epho demo`: see demo_setup.h.
#include "demo_setup.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/estr/utf8.h"

namespace epho_tool::demo {

const double kMarksMm[2 * kMarkCount] = {25.6, 25.6, -25.6, 25.6, -25.6, -25.6, 25.6, -25.6,
                                         26.6, 0.0,  0.0,   26.6, -26.6, 0.0,   0.0,  -26.6};
// A slight barrel: f(r) = p1 + p2 r^2 + p3 r^4 on film millimetres.
const double kLens[5] = {0.0, 0.0, -2e-6, 1e-10, 0.0};

double TerrainHeight(double e, double n) {
  const double x = e - kOriginE, y = kOriginN - n;
  return 450.0 + 0.02 * x - 0.01 * y + 35.0 * std::sin(x / 400.0) * std::cos(y / 300.0);
}

double Footprint() { return 2.0 * kFrameHalfMm / kFocalMm * (kFlyingZ - kMeanTerrainZ); }
double ForwardBase() { return (1.0 - kForwardOverlap) * Footprint(); }
double StripSpacing() { return (1.0 - kSideOverlap) * Footprint(); }

int StripOf(int photo) { return photo / kPhotosPerStrip; }
int PhotoInStrip(int photo) { return photo % kPhotosPerStrip; }
int PhotoId(int photo) { return 100 * (StripOf(photo) + 1) + PhotoInStrip(photo) + 1; }
std::string PhotoName(int photo) {
  return "photo_s" + std::to_string(StripOf(photo) + 1) + "_p" +
         std::to_string(PhotoInStrip(photo) + 1);
}

Exposure TrueExposure(int k) {
  const double centreE = kOriginE + kDemSize * kDemCell / 2;
  const double centreN = kOriginN - kDemSize * kDemCell / 2;
  Exposure e;
  e.X = centreE + (PhotoInStrip(k) - (kPhotosPerStrip - 1) / 2.0) * ForwardBase();
  e.Y = centreN + (StripOf(k) - (kStrips - 1) / 2.0) * StripSpacing();
  e.Z = kFlyingZ + 4.0 * std::sin(0.8 * k + 0.4);
  e.omega = 0.004 * std::sin(1.7 * k + 0.3);
  e.phi = 0.005 * std::cos(2.3 * k + 1.0);
  e.kappa = 0.006 * std::sin(0.9 * k + 2.0);
  return e;
}

Exposure ApproximateExposure(int k) {
  Exposure e = TrueExposure(k);
  e.X += 0.6 * std::sin(3.1 * k + 1.0);
  e.Y += 0.6 * std::cos(2.7 * k);
  e.Z += 0.4 * std::sin(1.3 * k + 2.0);
  e.omega += 1e-4 * std::sin(2.2 * k + 0.5);
  e.phi += 1e-4 * std::cos(1.9 * k + 0.2);
  e.kappa += 1e-4 * std::sin(1.1 * k + 1.4);
  return e;
}

void TrueScanToFilm(int k, double c[6]) {
  const double a = 0.003 * std::sin(k + 0.5);  // radians on the scanner
  const double sx = kScanPixelMm * (1.0 + 2e-4 * std::cos(k));
  const double sy = kScanPixelMm * (1.0 - 1e-4 * std::sin(2.0 * k));
  const double u0 = kScanSize / 2.0 + 3.0 * std::sin(1.3 * k),
               v0 = kScanSize / 2.0 - 2.5 * std::cos(k);
  // Film x along the columns, film y against the rows, turned by a.
  c[0] = sx * std::cos(a), c[1] = sy * std::sin(a), c[2] = -(c[0] * u0 + c[1] * v0);
  c[3] = sx * std::sin(a), c[4] = -sy * std::cos(a), c[5] = -(c[3] * u0 + c[4] * v0);
}

bool InvertAffine(const double c[6], double inv[6]) {
  const double det = c[0] * c[4] - c[1] * c[3];
  if (!(std::fabs(det) > 0)) return false;
  inv[0] = c[4] / det, inv[1] = -c[1] / det;
  inv[3] = -c[3] / det, inv[4] = c[0] / det;
  inv[2] = -(inv[0] * c[2] + inv[1] * c[5]);
  inv[5] = -(inv[3] * c[2] + inv[4] * c[5]);
  return true;
}

Epho_Camera* MakeCamera(const Exposure& e, const double scanToFilm[6], const std::string& dem,
                        int direction) {
  Epho_Camera* c = epho_CameraCreate(nullptr);
  if (!c) return nullptr;
  std::copy(scanToFilm, scanToFilm + 6, c->forSrcAffine);
  if (!InvertAffine(scanToFilm, c->invSrcAffine)) {
    epho_CameraDelete(c);
    return nullptr;
  }
  c->direction = direction;
  c->coeffs[0] = kFocalMm;
  c->coeffs[3] = e.X, c->coeffs[4] = e.Y, c->coeffs[5] = e.Z;
  c->coeffs[6] = e.omega, c->coeffs[7] = e.phi, c->coeffs[8] = e.kappa;
  c->LensDistortion.data = static_cast<double*>(emsc_MemDup(kLens, sizeof kLens));
  c->LensDistortion.count = c->LensDistortion.data ? 5 : 0;
  if (dem.empty()) {
    c->demsource = EMOD_DEM_CONSTANT;
    c->z_mean = kMeanTerrainZ;
  } else {
    c->demsource = EMOD_DEM_FILE;
    const std::wstring name = kzdv::FromUtf8(dem);
    c->demfilename.data = etxt_Text_strdup(name.c_str());
    c->demfilename.count = c->demfilename.data ? static_cast<int32_t>(name.size() + 1) : 0;
  }
  if (!c->LensDistortion.data || (!dem.empty() && !c->demfilename.data)) {
    epho_CameraDelete(c);
    return nullptr;
  }
  return c;
}

Epho_Camera* BlockCamera(const DemoContext& demo, int photo, int direction) {
  auto dem = demo.files.find("dem");
  if (dem == demo.files.end()) return nullptr;
  double filmToScan[6], scanToFilm[6];
  for (int i = 0; i < 6; ++i) {
    auto v =
        demo.values.find("scan." + std::to_string(photo) + ".film_to_scan." + std::to_string(i));
    if (v == demo.values.end()) return nullptr;
    filmToScan[i] = v->second;
  }
  if (!InvertAffine(filmToScan, scanToFilm)) return nullptr;
  return MakeCamera(ApproximateExposure(photo), scanToFilm, dem->second, direction);
}

bool PrintReport(Eerr_ErrorReport* err) {
  if (err) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
  }
  return false;
}

}  // namespace epho_tool::demo
