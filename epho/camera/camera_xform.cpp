// The camera transform object: creation, copy, release and the preparation
// that opens the DEM, builds the frames and the orientation matrix.
#include <cmath>
#include <limits>
#include <map>
#include <mutex>
#include <string>

#include "ecvt.h"
#include "efio.h"
#include "eint.h"
#include "emod.h"
#include "epho/camera/camera_internal.h"
#include "epmg.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace epho::camera {
namespace {

// DEM grids in memory, shared by name among the objects that read them; an
// entry lives as long as some object holds it.
std::mutex g_grids_mutex;
std::map<std::wstring, std::weak_ptr<const DemGrid>>& Grids() {
  static auto* grids = new std::map<std::wstring, std::weak_ptr<const DemGrid>>();
  return *grids;
}

// DEMs up to this many cells are held in memory for the height iteration;
// larger ones are read cell by cell through the layer.
constexpr long long kMaxGridCells = 32LL * 1024 * 1024;  // 256 MiB of doubles

std::shared_ptr<const DemGrid> GridOf(Eimg_Layer* layer, const std::wstring& key,
                                      Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraDemGrid";
  kzdv::ErrorFrame frame(kFn, err);
  if (static_cast<long long>(layer->width) * layer->height > kMaxGridCells) return nullptr;
  std::lock_guard<std::mutex> lock(g_grids_mutex);
  auto& grids = Grids();
  auto found = grids.find(key);
  if (found != grids.end())
    if (auto grid = found->second.lock()) return grid;
  auto grid = std::make_shared<DemGrid>();
  grid->width = layer->width;
  grid->height = layer->height;
  grid->cells.resize(size_t(layer->width) * size_t(layer->height));
  Eimg_PixelRect rect{layer->width, layer->height, EGDA_TYPE_F64,
                      reinterpret_cast<unsigned char*>(grid->cells.data())};
  EERR_CHECK(eimg_LayerRead(layer, 0, 0, &rect, frame.Callee()), frame, nullptr,
             L"eimg_LayerRead failed");
  grids[key] = grid;
  return grid;
}

void CloseLayer(Eimg_Layer* layer) { eimg_LayerClose(layer, nullptr); }
using LayerPtr = Owned<Eimg_Layer, CloseLayer>;
void DeleteDatum(EphoDatum* d) { epho_DatumDelete(d); }
using DatumPtr = Owned<EphoDatum, DeleteDatum>;

// The DEM's own map-to-file transform and projection when it is opened
// directly (the cache keeps both with its entry).
bool DirectDemGeoreference(Eimg_Layer* layer, kzdv::ErrorFrame& frame, ExfrPtr* map_to_file,
                           ParametersPtr* projection) {
  Owned<Eimg_MapInfo, eimg_MapInfoFree> info(eimg_LayerMapInformationRead(layer, frame.Callee()));
  EERR_CHECK(info, frame, false, L"eimg_LayerMapInformationRead failed");
  const double* g = info->geoTransform;
  const double file_to_map[6] = {g[1], g[2], g[0], g[4], g[5], g[3]};
  ExfrPtr f2m(exfr_AffineXFormCreate(file_to_map, frame.Callee()));
  EERR_CHECK(f2m, frame, false, L"exfr_AffineXFormCreate failed");
  map_to_file->reset(exfr_XFormInvert(f2m.get(), frame.Callee()));
  EERR_CHECK(*map_to_file, frame, false, L"exfr_XFormInvert failed");
  // A DEM in a local frame has no projection; that is not an error.
  kzdv::HeapPtr<Etxt_Char> wkt(eimg_LayerMapProjectionRead(layer, frame.Callee()));
  if (frame.CalleeFailed()) {
    frame.Tolerate();
    return true;
  }
  projection->reset(eprj_ProParametersFromWkt(kzdv::ToUtf8(wkt.get()).c_str(), frame.Callee()));
  if (frame.CalleeFailed()) frame.Tolerate();
  return true;
}

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Epho_CameraXform* epho_CameraXformCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformCreate";
  kzdv::ErrorFrame frame(kFn, err);
  auto* xform = static_cast<Epho_CameraXform*>(emsc_HeapCalloc(1, sizeof(Epho_CameraXform)));
  EERR_FAIL_IF(!xform, frame, nullptr, L"No memory");
  xform->demNullValue = 0.0;
  return xform;
}
EERR_BOUNDARY(err, nullptr)

Epho_CameraXform* epho_CameraXformGetFromCameraData(Epho_Camera* camera,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformGetFromCameraData";
  kzdv::ErrorFrame frame(kFn, err);
  CameraPtr owned(camera);
  Epho_CameraXform* xform = epho_CameraXformCreate(frame.Callee());
  EERR_CHECK(xform, frame, nullptr, L"epho_CameraXformCreate failed");
  xform->camera = owned.release();
  return xform;
}
EERR_BOUNDARY(err, nullptr)

void epho_CameraXformDelete(Epho_CameraXform* xform) KZDV_NOEXCEPT {
  if (!xform) return;
  epho_CameraDelete(xform->camera);
  eprj_ProjectionFree(xform->projection);
  emsc_HeapFree(xform->tangentFrame);
  exfr_XFormFree(xform->mapToDem);
  if (xform->demZCoeffs.count > 0) emsc_HeapFree(xform->demZCoeffs.data);
  // The layer goes before the cache slot that keeps its dataset alive.
  eimg_LayerClose(xform->demLayer, nullptr);
  epho_DatumDelete(xform->projectionDatum);
  epho_DatumDelete(xform->elevationDatum);
  delete xform->priv;
  emsc_HeapFree(xform);
}

Epho_CameraXform* epho_CameraXformCopy(const Epho_CameraXform* xform,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, nullptr, L"Invalid input camera xform data.");
  auto* raw = static_cast<Epho_CameraXform*>(emsc_HeapCalloc(1, sizeof(Epho_CameraXform)));
  EERR_FAIL_IF(!raw, frame, nullptr, L"No memory");
  XformPtr copy(raw);
  copy->camera = epho_CameraCopy(xform->camera, frame.Callee());
  EERR_CHECK(copy->camera, frame, nullptr, L"epho_CameraCopy failed");
  return copy.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean epho_CameraXformFillNoMIFData(Epho_CameraXform* xform,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformFillNoMIFData";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, EMSC_FALSE, L"Invalid input camera xform data.");
  if (xform->filled) return EMSC_TRUE;
  Epho_Camera* cam = xform->camera;
  try {
    // Everything is prepared aside and stored only when all steps succeed.
    Eprj_MapProjection* proj_raw = nullptr;
    Etxt_Char* units_raw = nullptr;
    Eprj_ElevationInfo* elev_raw = nullptr;
    EERR_CHECK(
        epho_CameraCoordinateSystemGet(cam, &proj_raw, &units_raw, &elev_raw, frame.Callee()),
        frame, EMSC_FALSE, L"epho_CameraCoordinateSystemGet failed");
    ProjectionPtr projection(proj_raw);
    kzdv::HeapPtr<Etxt_Char> units(units_raw);
    ElevationPtr elevation(elev_raw);
    const Eprj_ProParameters* params = cam->obsoletePlaceHolder0;

    DatumPtr projection_datum, elevation_datum;
    const Eprj_ProParameters* csr =
        projection ? projection->proParameters : (params ? params : nullptr);
    if (csr && csr->proSpheroid && csr->proSpheroid->datum && csr->proSpheroid->datum->datumname)
      projection_datum.reset(EphoLib::GetDatum(csr->proSpheroid->datum->datumname));
    if (elevation->datumName && eprj_IsDatumVertical(elevation->datumName))
      elevation_datum.reset(EphoLib::GetDatum(elevation->datumName));

    if (params && !projection && !xform->projection) {
      projection.reset(eprj_ProjectionInit(params, frame.Callee()));
      EERR_CHECK(projection, frame, EMSC_FALSE, L"eprj_ProjectionInit failed");
    }
    kzdv::HeapPtr<double> tangent;
    if (cam->refType == EMOD_TANGENT_PLANE && !xform->tangentFrame) {
      EERR_FAIL_IF(!params || !params->proSpheroid, frame, EMSC_FALSE,
                   L"The camera has no projection parameters for a tangent plane");
      tangent.reset(
          static_cast<double*>(emsc_HeapMalloc(sizeof(double) * EMOD_TANGENT_FRAME_SIZE)));
      EERR_FAIL_IF(!tangent, frame, EMSC_FALSE, L"No memory");
      EERR_FAIL_IF(!emod_DeriveTp2GcTransform(cam->lat0, cam->lon0, 0.0, params->proSpheroid->a,
                                              params->proSpheroid->eSquared, tangent.get()),
                   frame, EMSC_FALSE, L"emod_DeriveTp2GcTransform failed");
    }

    // Affines that collapse the plane lose the points for good.
    const struct {
      const double* a;
      const wchar_t* name;
    } affines[] = {{cam->forSrcAffine, L"forSrcAffine"},
                   {cam->forDstAffine, L"forDstAffine"},
                   {cam->invSrcAffine, L"invSrcAffine"},
                   {cam->invDstAffine, L"invDstAffine"}};
    for (const auto& f : affines) {
      const double det = f.a[0] * f.a[4] - f.a[1] * f.a[3];
      bool finite = std::isfinite(det);
      for (int k = 0; k < 6; ++k) finite = finite && std::isfinite(f.a[k]);
      EERR_FAIL_IF(!finite || det == 0.0, frame, EMSC_FALSE, L"The affine %s is singular", f.name);
    }
    // The orientation matrix; a zero focal length or a degenerate rotation
    // leaves no usable camera.
    double orientation[12];
    EERR_FAIL_IF(!std::isfinite(cam->coeffs[0]) || cam->coeffs[0] == 0.0, frame, EMSC_FALSE,
                 L"The focal length is zero or not finite");
    EERR_FAIL_IF(
        epho_Get3x4ParFromInnerOuter(nullptr, &cam->coeffs[3], cam->coeffs[0], cam->RotationSystem,
                                     cam->PhotoDirection == EPHO_Y_DIRECTION ? 1 : 0, orientation),
        frame, EMSC_FALSE, L"epho_Get3x4ParFromInnerOuter failed");
    for (double v : orientation)
      EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"epho_Get3x4ParFromInnerOuter failed");

    auto priv = std::make_unique<Epho_CameraXformPrivate>();
    LayerPtr layer;
    ExfrPtr map_to_dem;
    kzdv::HeapPtr<double> zcoeffs;
    int32_t zcount = 0;
    double null_value = xform->demNullValue;
    double z_mean = cam->z_mean;
    if (cam->demsource == EMOD_DEM_FILE && !xform->demLayer) {
      Eerr_ErrorReport* pref_report = nullptr;
      Emsc_Boolean use_cache = epmg_GetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache",
                                                         EMSC_FALSE, &pref_report);
      if (pref_report) {  // an unreadable preference means: open directly
        eerr_DeleteErrorReport(pref_report);
        use_cache = EMSC_FALSE;
      }
      ExfrPtr dem_map_to_file_owned;
      ParametersPtr dem_projection_owned;
      const Exfr_XForm* dem_map_to_file = nullptr;
      const Eprj_ProParameters* dem_projection = nullptr;
      std::wstring grid_key;
      if (use_cache == 1) {
        layer.reset(EphoLib::CachedDEMLayerGet(CountedText(cam->demfilename), priv->demSlot,
                                               frame.Callee()));
        EERR_CHECK(layer, frame, EMSC_FALSE, L"CachedDEMLayerGet failed");
        dem_map_to_file = priv->demSlot->GetMapToFileXForm();
        dem_projection = priv->demSlot->GetMapProjection();
        grid_key = priv->demSlot->GetName();
      } else {
        EERR_FAIL_IF(!CountedText(cam->demfilename), frame, EMSC_FALSE, L"DEM file not available");
        Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
        EERR_CHECK(init, frame, EMSC_FALSE, L"Cannot get DEM file.");
        std::wstring name = std::wstring(cam->demfilename.data) + L"(:Layer_1)";
        layer.reset(eimg_LayerOpen(name.c_str(), init, nullptr, EIMG_ACCESS_READ, frame.Callee()));
        EERR_CHECK(layer, frame, EMSC_FALSE, L"Cannot open DEM file.");
        if (!DirectDemGeoreference(layer.get(), frame, &dem_map_to_file_owned,
                                   &dem_projection_owned))
          return EMSC_FALSE;
        dem_map_to_file = dem_map_to_file_owned.get();
        dem_projection = dem_projection_owned.get();
        grid_key = name;
      }
      map_to_dem.reset(
          epho_DeriveMapToLayerXformEx(projection ? projection.get() : xform->projection,
                                       dem_map_to_file, dem_projection, frame.Callee()));
      EERR_CHECK(map_to_dem, frame, EMSC_FALSE, L"epho_DeriveMapToLayerXform failed");
      if (exfr_XFormPolynomialOrder(map_to_dem.get()) == 1) {
        double xc[3], yc[3];
        if (exfr_PolynomialCoefficientsGet(map_to_dem.get(), xc, yc, nullptr)) {
          const double a[6] = {xc[1], xc[2], xc[0], yc[1], yc[2], yc[0]};
          std::copy(a, a + 6, priv->mapToDem);
          priv->mapToDemAffine = true;
        }
      }
      // Raw DEM values to heights in the camera's elevation unit.
      const Etxt_Char* dem_unit = CountedText(cam->demzunits);
      Eprj_ElevationInfo* dem_elev = nullptr;
      if (!dem_unit && priv->demSlot) {
        dem_elev = const_cast<Eprj_ElevationInfo*>(priv->demSlot->GetElevationInfo());
        if (dem_elev) dem_unit = dem_elev->elevationUnit;
      }
      const double from = dem_unit ? ecvt_UnitFactor(dem_unit) : 1.0;
      const double to = elevation->elevationUnit ? ecvt_UnitFactor(elevation->elevationUnit) : 1.0;
      if (from > 0.0 && to > 0.0 && std::fabs(from / to - 1.0) > 1e-15) {
        zcoeffs.reset(static_cast<double*>(emsc_HeapMalloc(sizeof(double))));
        EERR_FAIL_IF(!zcoeffs, frame, EMSC_FALSE, L"No memory");
        zcoeffs.get()[0] = from / to;
        zcount = 1;
      }
      // A DEM without a null value gets one no height can take.
      double nodata = 0.0;
      Emsc_Boolean defined = EMSC_FALSE;
      EERR_CHECK(eimg_LayerNullValueGet(layer.get(), &nodata, &defined, frame.Callee()), frame,
                 EMSC_FALSE, L"eimg_LayerRasterNillValueSet failed");
      null_value = defined ? nodata : -std::numeric_limits<float>::max();
      Eimg_Statistics stats{};
      EERR_CHECK(eimg_StatisticsRead(layer.get(), &stats, frame.Callee()), frame, EMSC_FALSE,
                 L"eimg_StatisticsRead failed");
      z_mean = epho_CalcZ(0.0, 0.0, stats.mean, zcount, zcoeffs.get());
      priv->grid = GridOf(layer.get(), grid_key, frame.Callee());
      EERR_CHECK(!frame.CalleeFailed(), frame, EMSC_FALSE, L"eimg_LayerRasterPixelRectGet failed");
    }

    // Store.
    if (projection && !xform->projection) xform->projection = projection.release();
    if (tangent) xform->tangentFrame = tangent.release();
    if (layer) {
      xform->demLayer = layer.release();
      exfr_XFormFree(xform->mapToDem);
      xform->mapToDem = map_to_dem.release();
      if (xform->demZCoeffs.count > 0) emsc_HeapFree(xform->demZCoeffs.data);
      xform->demZCoeffs.count = zcount;
      xform->demZCoeffs.data = zcoeffs.release();
      xform->demNullValue = null_value;
      cam->z_mean = z_mean;
      delete xform->priv;
      xform->priv = priv.release();
    }
    if (!xform->projectionDatum) xform->projectionDatum = projection_datum.release();
    if (!xform->elevationDatum) xform->elevationDatum = elevation_datum.release();
    std::copy(orientation, orientation + 12, xform->orientation);
    xform->filled = 1;
    return EMSC_TRUE;
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
