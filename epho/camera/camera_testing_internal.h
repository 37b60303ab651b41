// Test scenes of the frame camera tests: a vertical aerial camera over a
// synthetic DEM in UTM zone 32N, written with GDAL.
#ifndef EPHO_CAMERA_CAMERA_TESTING_INTERNAL_H
#define EPHO_CAMERA_CAMERA_TESTING_INTERNAL_H

#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "epho/camera.h"
#include "platform/eerr/error_frame.h"
#include "test_util.h"

namespace camtest {

// Film: 230 mm square, 20 micrometre pixels, 11500 x 11500 pixels; focal
// length 152 mm; flying 1500 m above a ground at about 400 m.
constexpr double kPixel = 0.02;   // mm
constexpr double kHalf = 5750.0;  // pixels
constexpr double kFocal = 152.0;  // mm
constexpr double kX0 = 501500.0, kY0 = 5201500.0, kZ0 = 1900.0;
// DEM: 300 x 300 cells of 10 m from (500000, 5203000) downwards.
constexpr double kDemX = 500000.0, kDemY = 5203000.0, kCell = 10.0;
constexpr int kDemSize = 300;

struct ErrSlot {
  Eerr_ErrorReport* report = nullptr;
  ~ErrSlot() { eerr_DeleteErrorReport(report); }
  // Handing the slot to another call drops the report it held.
  Eerr_ErrorReport** operator&() {
    eerr_DeleteErrorReportEx(&report);
    return &report;
  }
  std::wstring Text() const { return kzdv::ReportText(report); }
  // A link carries exactly this message.
  bool Has(const std::wstring& m) const { return kzdv::ReportContains(report, m); }
  // The outermost link names this function.
  bool From(const std::wstring& fn) const {
    return report && report->function && fn == report->function;
  }
};

inline void SetAffine(double* a, std::initializer_list<double> v) {
  std::copy(v.begin(), v.end(), a);
}

// A forward Cartesian camera in file pixels, constant height 400 m.
inline Epho_Camera* MakeCamera() {
  Epho_Camera* c = epho_CameraCreate(nullptr);
  SetAffine(c->forSrcAffine, {kPixel, 0, -kHalf * kPixel, 0, -kPixel, kHalf * kPixel});
  SetAffine(c->invSrcAffine, {1 / kPixel, 0, kHalf, 0, -1 / kPixel, kHalf});
  c->coeffs[0] = kFocal;
  c->coeffs[3] = kX0;
  c->coeffs[4] = kY0;
  c->coeffs[5] = kZ0;
  c->coeffs[6] = 0.012;
  c->coeffs[7] = -0.021;
  c->coeffs[8] = 0.35;
  c->z_mean = 400.0;
  return c;
}

inline void SetVector(Epho_CountedDoubles* v, const std::vector<double>& values) {
  emsc_HeapFree(v->data);
  v->count = static_cast<int32_t>(values.size());
  v->data = static_cast<double*>(emsc_MemDup(values.data(), sizeof(double) * values.size()));
}

inline void SetText(Emif_CountedString* s, const wchar_t* text) {
  emsc_HeapFree(s->data);
  s->data = etxt_Text_strdup(text);
  s->count = static_cast<int32_t>(wcslen(text) + 1);
}

inline Eprj_ProParameters* Utm32() {
  double p[EPRJ_PARAMETER_COUNT] = {0};
  return eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 32, p, L"WGS 84", L"WGS 84", nullptr);
}

inline Eprj_ProParameters* Geographic() {
  return eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr, L"WGS 84",
                                  L"WGS 84", nullptr);
}

// A DEM GeoTIFF (float32, UTM 32N) with heights height(col, row).
inline std::string WriteDem(const std::string& path, const std::function<float(int, int)>& height,
                            double nodata = std::nan(""), int size = kDemSize) {
  GDALAllRegister();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), size, size, 1, GDT_Float32, nullptr);
  double gt[6] = {kDemX, kCell, 0.0, kDemY, 0.0, -kCell};
  GDALSetGeoTransform(ds, gt);
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  GDALSetSpatialRef(ds, srs);
  OSRDestroySpatialReference(srs);
  std::vector<float> z(size_t(size) * size);
  for (int r = 0; r < size; ++r)
    for (int c = 0; c < size; ++c) z[size_t(r) * size + c] = height(c, r);
  GDALRasterBandH b = GDALGetRasterBand(ds, 1);
  if (!std::isnan(nodata)) GDALSetRasterNoDataValue(b, nodata);
  GDALSetRasterUnitType(b, "m");
  EXPECT_EQ(GDALRasterIO(b, GF_Write, 0, 0, size, size, z.data(), size, size, GDT_Float32, 0, 0),
            CE_None);
  GDALClose(ds);
  return path;
}

// Distortion vectors of every model, scaled so that the largest
// displacement inside the film is 5 micrometres.
struct DistortionCase {
  const char* name;
  bool secondary;
  std::vector<double> values;
};

inline std::vector<double> ScaledModel(bool secondary, int count, int code, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> p(size_t(count), 0.0);
  std::vector<bool> fixed(size_t(count), false);
  auto fix = [&](int i, double v) {
    p[size_t(i)] = v;
    fixed[size_t(i)] = true;
  };
  if (secondary) {
    fix(0, code), fix(1, 0.0), fix(2, 1.0), fix(3, 0.0);
  } else if (count == 5) {
    fix(0, 0.0);
  } else if (count != 3) {
    fix(0, code), fix(1, 1.0);
    if (count == 26) fix(22, 0.0);
  }
  for (int i = 0; i < count; ++i)
    if (!fixed[size_t(i)]) p[size_t(i)] = u(rng);
  // Each coefficient scaled to a unit effect of its own over the film is not
  // needed: the displacement is linear in the free coefficients, so one
  // common factor brings the largest one to 5 micrometres.
  for (int pass = 0; pass < 2; ++pass) {
    Epho_CountedDoubles rec{count, p.data()};
    double worst = 0.0;
    for (double x = -115; x <= 115; x += 11.5)
      for (double y = -115; y <= 115; y += 11.5) {
        double dx, dy;
        epho_CameraAwayDistortion(secondary ? nullptr : &rec, secondary ? &rec : nullptr, x, y, &dx,
                                  &dy);
        worst = std::max(worst, std::hypot(dx, dy));
      }
    if (worst == 0.0) break;
    for (int i = 0; i < count; ++i)
      if (!fixed[size_t(i)]) p[size_t(i)] *= 5e-3 / worst;
  }
  return p;
}

inline std::vector<DistortionCase> AllDistortionModels() {
  std::vector<DistortionCase> cases = {
      {"none", false, {}},
      {"radial3", false, ScaledModel(false, 3, 0, 1)},
      {"radial5", false, ScaledModel(false, 5, 0, 2)},
      {"modelA", false, ScaledModel(false, 26, 1, 3)},
      {"modelB", false, ScaledModel(false, 11, 2, 4)},
      {"modelC", false, ScaledModel(false, 13, 3, 5)},
  };
  const int counts[8] = {0, 7, 8, 16, 18, 22, 6, 7};
  for (int code = 1; code <= 7; ++code)
    cases.push_back({"secondary", true, ScaledModel(true, counts[code], code, 10 + code)});
  return cases;
}

}  // namespace camtest

#endif  // EPHO_CAMERA_CAMERA_TESTING_INTERNAL_H
