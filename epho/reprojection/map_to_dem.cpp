// Map coordinates of one system to file pixels of a DEM in another: the
// rigorous chain through PROJ, or a polynomial fitted to it where a
// polynomial is good enough.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "eint.h"
#include "epho/camera.h"
#include "epho/reprojection.h"
#include "epho/reprojection/poly_internal.h"
#include "epmg.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace epho::reprojection {
namespace {

struct XformDeleter {
  void operator()(Exfr_XForm* x) const { exfr_XFormFree(x); }
};
using XformPtr = std::unique_ptr<Exfr_XForm, XformDeleter>;
struct ParamsDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
using ParamsPtr = std::unique_ptr<Eprj_ProParameters, ParamsDeleter>;
struct ProjectionDeleter {
  void operator()(Eprj_MapProjection* p) const { eprj_ProjectionFree(p); }
};
using ProjectionPtr = std::unique_ptr<Eprj_MapProjection, ProjectionDeleter>;
struct LayerDeleter {
  void operator()(Eimg_Layer* l) const { eimg_LayerClose(l, nullptr); }
};
using LayerPtr = std::unique_ptr<Eimg_Layer, LayerDeleter>;
struct MapInfoDeleter {
  void operator()(Eimg_MapInfo* m) const { eimg_MapInfoFree(m); }
};

// The georeference of a DEM file's first layer; a file without projection is
// in the map's own system.
bool ReadDem(const Etxt_Char* name, Epho_DemGeoreference* dem, ParamsPtr* projection,
             kzdv::ErrorFrame& frame) {
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  if (!init || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"eint_GetInit failed");
    return false;
  }
  const std::wstring layer_name = std::wstring(name) + L"(:Layer_1)";
  LayerPtr layer(
      eimg_LayerOpen(layer_name.c_str(), init, nullptr, EIMG_ACCESS_READ, frame.Callee()));
  if (!layer || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"Cannot open the DEM \"%ls\"", name);
    return false;
  }
  std::unique_ptr<Eimg_MapInfo, MapInfoDeleter> info(
      eimg_LayerMapInformationRead(layer.get(), frame.Callee()));
  if (!info || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"The DEM \"%ls\" has no map information", name);
    return false;
  }
  std::copy(info->geoTransform, info->geoTransform + 6, dem->geoTransform);
  dem->width = layer->width;
  dem->height = layer->height;
  kzdv::HeapPtr<Etxt_Char> wkt(eimg_LayerMapProjectionRead(layer.get(), frame.Callee()));
  if (frame.CalleeFailed() || !wkt) {
    frame.Tolerate();
    return true;
  }
  projection->reset(eprj_ProParametersFromWkt(kzdv::ToUtf8(wkt.get()).c_str(), frame.Callee()));
  if (!*projection || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"The projection of the DEM \"%ls\" is not supported", name);
    return false;
  }
  return true;
}

// A "rasterprocess" preference; an unreadable one keeps its default.
double Preference(const Etxt_Char* name, double fallback) {
  Eerr_ErrorReport* report = nullptr;
  const double v = epmg_GetDoublePreference(L"rasterprocess", name, fallback, &report);
  if (report) {
    eerr_DeleteErrorReport(report);
    return fallback;
  }
  return v;
}

// Sample positions along one axis of `size` cells: 0, skip, 2 skip, ... and
// the far edge.
std::vector<double> Samples(long size, double skip) {
  std::vector<double> s;
  for (double v = 0.0; v < static_cast<double>(size); v += skip) s.push_back(v);
  s.push_back(static_cast<double>(size));
  return s;
}

}  // namespace
}  // namespace epho::reprojection

using namespace epho::reprojection;

extern "C" {

Exfr_XForm* epho_MapToDemXFormCreate(const Eprj_MapProjection* mapProjection,
                                     const Etxt_Char* demFileName, const Epho_DemGeoreference* dem,
                                     int32_t method, long* fitOrder, Epho_FitResidual* fit,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_MapToDemXFormCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!demFileName && !dem, frame, nullptr,
               L"Args: neither a DEM file nor its georeference");
  EERR_FAIL_IF(method != EPHO_MAP_TO_DEM_EXACT && method != EPHO_MAP_TO_DEM_POLYNOMIAL, frame,
               nullptr, L"The method %d is unknown", static_cast<int>(method));

  Epho_DemGeoreference g{};
  ParamsPtr file_projection;
  if (demFileName) {
    if (!ReadDem(demFileName, &g, &file_projection, frame)) return nullptr;
    g.projection = file_projection.get();
  } else {
    g = *dem;
  }
  for (double v : g.geoTransform)
    EERR_FAIL_IF(!std::isfinite(v), frame, nullptr, L"The DEM geotransform is not finite");
  EERR_FAIL_IF(g.width < 1 || g.height < 1, frame, nullptr, L"The DEM has no cells (%ld x %ld)",
               g.width, g.height);

  // File pixels to DEM map and back: the record's affine layout.
  const double* t = g.geoTransform;
  const double file_to_map[6] = {t[1], t[2], t[0], t[4], t[5], t[3]};
  XformPtr f2m(exfr_AffineXFormCreate(file_to_map, frame.Callee()));
  EERR_CHECK(f2m, frame, nullptr, L"exfr_AffineXFormCreate failed");
  XformPtr m2f(exfr_XFormInvert(f2m.get(), frame.Callee()));
  EERR_CHECK(m2f, frame, nullptr, L"The DEM geotransform is singular");
  XformPtr exact(
      epho_DeriveMapToLayerXformEx(mapProjection, m2f.get(), g.projection, frame.Callee()));
  EERR_CHECK(exact, frame, nullptr, L"epho_DeriveMapToLayerXformEx failed");

  Epho_FitResidual none{0.0, 0.0, 0};
  const long exact_order = exfr_XFormPolynomialOrder(exact.get());  // 1 for the same system
  if (method == EPHO_MAP_TO_DEM_EXACT || exact_order == 1) {
    if (fitOrder) *fitOrder = exact_order;
    if (fit) *fit = none;
    return exact.release();
  }

  const double max_order = Preference(L"rp_reprojmaxorder", EPHO_REPROJ_DEFAULT_MAX_ORDER);
  const double tolerance = Preference(L"rp_reprojtolerance", EPHO_REPROJ_DEFAULT_TOLERANCE);
  const double skip_x = Preference(L"rp_reprojskipx", EPHO_REPROJ_DEFAULT_SKIP);
  const double skip_y = Preference(L"rp_reprojskipy", EPHO_REPROJ_DEFAULT_SKIP);
  EERR_FAIL_IF(!(max_order >= 1.0 && max_order <= 5.0) || max_order != std::floor(max_order), frame,
               nullptr, L"The preference rp_reprojmaxorder (%g) is not an order of 1..5",
               max_order);
  EERR_FAIL_IF(!(tolerance > 0.0) || !std::isfinite(tolerance), frame, nullptr,
               L"The preference rp_reprojtolerance (%g) is not a positive number of pixels",
               tolerance);
  EERR_FAIL_IF(
      !(skip_x >= 1.0 && skip_y >= 1.0) || !std::isfinite(skip_x) || !std::isfinite(skip_y), frame,
      nullptr,
      L"The preferences rp_reprojskipx/rp_reprojskipy (%g, %g) are not at "
      L"least one pixel",
      skip_x, skip_y);

  // The samples in file pixels, taken rigorously to the map system: file to
  // DEM map to geographic to map.
  const double sample_count = (std::ceil(static_cast<double>(g.width) / skip_x) + 1.0) *
                              (std::ceil(static_cast<double>(g.height) / skip_y) + 1.0);
  EERR_FAIL_IF(sample_count > static_cast<double>(EPHO_REPROJ_MAX_SAMPLES), frame, nullptr,
               L"Sampling a DEM of %ld x %ld cells every %g x %g pixels takes %.0f samples, more "
               L"than %ld",
               g.width, g.height, skip_x, skip_y, sample_count, EPHO_REPROJ_MAX_SAMPLES);
  const std::vector<double> cols = Samples(g.width, skip_x), rows = Samples(g.height, skip_y);
  std::vector<double> pixels;
  for (double r : rows)
    for (double c : cols) pixels.insert(pixels.end(), {c, r});
  const long n = static_cast<long>(pixels.size() / 2);
  std::vector<double> mx(static_cast<size_t>(n)), my(static_cast<size_t>(n));
  for (long i = 0; i < n; ++i) {
    const double c = pixels[static_cast<size_t>(2 * i)], r = pixels[static_cast<size_t>(2 * i + 1)];
    mx[static_cast<size_t>(i)] = t[0] + c * t[1] + r * t[2];
    my[static_cast<size_t>(i)] = t[3] + c * t[4] + r * t[5];
  }
  ProjectionPtr dem_projection(eprj_ProjectionInit(g.projection, frame.Callee()));
  EERR_CHECK(dem_projection, frame, nullptr, L"eprj_ProjectionInit failed");
  EERR_CHECK(eprj_ProjectionToLL(dem_projection.get(), n, mx.data(), my.data(), frame.Callee()),
             frame, nullptr, L"The DEM's area does not convert to geographic coordinates");
  EERR_CHECK(eprj_ProjectionFromLL(mapProjection, n, mx.data(), my.data(), frame.Callee()), frame,
             nullptr, L"The DEM's area does not convert to the map system");
  std::vector<double> map_xy;
  map_xy.reserve(pixels.size());
  for (long i = 0; i < n; ++i)
    map_xy.insert(map_xy.end(), {mx[static_cast<size_t>(i)], my[static_cast<size_t>(i)]});

  // Raise the order until the samples are met within the tolerance.
  const Normalisation norm = Normalisation::OfPoints(map_xy);
  for (long order = 1; order <= static_cast<long>(max_order); ++order) {
    Poly2 px, py;
    if (!FitNormalised(order, map_xy, pixels, norm, &px, &py)) break;  // too few samples
    Epho_FitResidual r{0.0, 0.0, n};
    double sum = 0.0;
    for (long i = 0; i < n; ++i) {
      const double s = norm.S(map_xy[static_cast<size_t>(2 * i)]);
      const double u = norm.T(map_xy[static_cast<size_t>(2 * i + 1)]);
      const double d = std::hypot(px.Eval(s, u) - pixels[static_cast<size_t>(2 * i)],
                                  py.Eval(s, u) - pixels[static_cast<size_t>(2 * i + 1)]);
      r.maxError = std::max(r.maxError, d);
      sum += d * d;
    }
    r.rmsError = std::sqrt(sum / static_cast<double>(n));
    if (!(r.maxError <= tolerance)) continue;

    XformPtr result;
    if (order == 1) {
      // An affine is safe in raw coordinates: expand it.
      const Poly2 ax = Substitute(px, norm.SPoly(), norm.TPoly());
      const Poly2 ay = Substitute(py, norm.SPoly(), norm.TPoly());
      result.reset(exfr_PolynomialXFormCreate(1, ax.c.data(), ay.c.data(), frame.Callee()));
      EERR_CHECK(result, frame, nullptr, L"exfr_PolynomialXFormCreate failed");
    } else {
      const double to_unit[6] = {1.0 / norm.sx, 0.0,           -norm.cx / norm.sx,
                                 0.0,           1.0 / norm.sy, -norm.cy / norm.sy};
      XformPtr normalise(exfr_AffineXFormCreate(to_unit, frame.Callee()));
      EERR_CHECK(normalise, frame, nullptr, L"exfr_AffineXFormCreate failed");
      XformPtr poly(exfr_PolynomialXFormCreate(order, px.c.data(), py.c.data(), frame.Callee()));
      EERR_CHECK(poly, frame, nullptr, L"exfr_PolynomialXFormCreate failed");
      result.reset(exfr_XFormCompose(normalise.get(), poly.get(), frame.Callee()));
      EERR_CHECK(result, frame, nullptr, L"exfr_XFormCompose failed");
    }
    if (fitOrder) *fitOrder = order;
    if (fit) *fit = r;
    return result.release();
  }
  // No order is good enough: the rigorous transform.
  if (fitOrder) *fitOrder = 0;
  if (fit) *fit = none;
  return exact.release();
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
