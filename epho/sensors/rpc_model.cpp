// The rational-function model: creation from numbers or from an image's RPC
// metadata through GDAL, the routine table bound at run time, the height
// source (a DEM in any system related to WGS 84, or a constant) and the
// iteration onto it, and the exfr registration.
#include <cpl_error.h>
#include <gdal.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <string>

#include "eimg.h"
#include "eint.h"
#include "epho/sensors/sensors_internal.h"
#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace epho::sensors {
namespace {

// DEMs larger than this are refused rather than read whole.
constexpr long long kMaxDemCells = 64LL * 1024 * 1024;

Emsc_Boolean BuiltinGroundToImage(const double* rpc, long count, const double* ground_xyz,
                                  double* image_xy, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_RpcGroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  if (RpcForwardBatch(rpc, count, ground_xyz, image_xy, BestVectorPath())) return EMSC_TRUE;
  for (long i = 0; i < count; ++i)
    EERR_FAIL_IF(!std::isfinite(image_xy[2 * i]) || !std::isfinite(image_xy[2 * i + 1]), frame,
                 EMSC_FALSE, L"Ground point %ld does not project into the image", i);
  return EMSC_TRUE;
}

Emsc_Boolean BuiltinImageToGround(const double* rpc, long count, const double* image_xy,
                                  const double* ground_z, double* ground_xy,
                                  Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_RpcImageToGround";
  kzdv::ErrorFrame frame(kFn, err);
  for (long i = 0; i < count; ++i)
    EERR_FAIL_IF(!RpcInverseAt(rpc, image_xy[2 * i], image_xy[2 * i + 1], ground_z[i],
                               &ground_xy[2 * i], &ground_xy[2 * i + 1]),
                 frame, EMSC_FALSE,
                 L"Image point %ld at height %f: the RPC inverse did not converge", i, ground_z[i]);
  return EMSC_TRUE;
}

const Epho_RpcEntryPoints kBuiltin = {BuiltinGroundToImage, BuiltinImageToGround};

// The table in force. Bound when first asked for (a function-local static,
// initialised once under the language's own once-guard), unless an
// application plugged its own in before.
std::atomic<const Epho_RpcEntryPoints*> g_table{nullptr};

const Epho_RpcEntryPoints* Table() {
  static const bool bound = [] {
    const Epho_RpcEntryPoints* none = nullptr;
    g_table.compare_exchange_strong(none, &kBuiltin, std::memory_order_acq_rel);
    return true;
  }();
  (void)bound;
  return g_table.load(std::memory_order_acquire);
}

// GDAL's error messages go to the report, not to standard error.
class GdalQuiet {
 public:
  GdalQuiet() {
    CPLPushErrorHandler(CPLQuietErrorHandler);
    CPLErrorReset();
  }
  ~GdalQuiet() { CPLPopErrorHandler(); }
  GdalQuiet(const GdalQuiet&) = delete;
  GdalQuiet& operator=(const GdalQuiet&) = delete;
  std::wstring Message() const {
    const char* m = CPLGetLastErrorMsg();
    return kzdv::FromUtf8(m && *m ? m : "no further detail");
  }
};

void CloseDataset(void* ds) { GDALClose(static_cast<GDALDatasetH>(ds)); }
using DatasetPtr = Owned<void, CloseDataset>;
void CloseLayer(Eimg_Layer* layer) { eimg_LayerClose(layer, nullptr); }
using LayerPtr = Owned<Eimg_Layer, CloseLayer>;

void FreeParams(Eprj_ProParameters* p) { eprj_ProParametersFree(p); }
using ParamsPtr = Owned<Eprj_ProParameters, FreeParams>;
void FreeHeights(Eprj_ElevationInfo* e) { eprj_ElevationInfoFree(e); }
using HeightsPtr = Owned<Eprj_ElevationInfo, FreeHeights>;

// The reprojection from WGS 84 with ellipsoidal heights to the DEM's system
// and heights (its elevation info: geoid heights, unit), left null when that
// does nothing (a geographic WGS 84 DEM of ellipsoidal metres).
bool DemReprojection(const std::wstring& dem_file, const Etxt_Char* wkt, DemGrid& grid,
                     kzdv::ErrorFrame& frame) {
  ParamsPtr dem(eprj_ProParametersFromWkt(kzdv::ToUtf8(wkt).c_str(), frame.Callee()));
  EERR_CHECK(dem, frame, false,
             L"The coordinate system of the DEM %s is not one the library can relate to WGS 84",
             dem_file.c_str());
  HeightsPtr heights(eprj_ElevationInfoRead(dem_file.c_str(), 1, frame.Callee()));
  EERR_CHECK(heights, frame, false, L"eprj_ElevationInfoRead failed");
  ParamsPtr wgs84(eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr,
                                           L"WGS 84", L"WGS 84", frame.Callee()));
  EERR_CHECK(wgs84, frame, false, L"eprj_ProParametersCreate failed");
  Eprj_3DProjection* p =
      eprj_3DProjectionCreate(wgs84.get(), nullptr, dem.get(), heights.get(), frame.Callee());
  EERR_CHECK(p, frame, false, L"The DEM %s cannot be related to WGS 84 longitude and latitude",
             dem_file.c_str());
  grid.from_wgs84.reset(p, eprj_3DProjectionFree);
  grid.degrees = dem->proType == EPRJ_INTERNAL && dem->proNumber == EPRJ_LATLONG;
  if (grid.degrees && std::strcmp(eprj_3DProjectionDefinitionGet(p), "+proj=noop") == 0)
    grid.from_wgs84.reset();
  return true;
}

// Reads the first layer of `dem_file` into memory.
std::shared_ptr<const DemGrid> ReadDem(const std::wstring& dem_file, kzdv::ErrorFrame& frame) {
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  EERR_CHECK(init, frame, nullptr, L"eint_GetInit failed");
  const std::wstring name = dem_file + L"(:Layer_1)";
  LayerPtr layer(eimg_LayerOpen(name.c_str(), init, nullptr, EIMG_ACCESS_READ, frame.Callee()));
  EERR_CHECK(layer, frame, nullptr, L"Cannot open the DEM %s", dem_file.c_str());
  EERR_FAIL_IF(static_cast<long long>(layer->width) * layer->height > kMaxDemCells, frame, nullptr,
               L"The DEM %s has more than %lld cells", dem_file.c_str(), kMaxDemCells);
  kzdv::HeapPtr<Etxt_Char> wkt(eimg_LayerMapProjectionRead(layer.get(), frame.Callee()));
  EERR_CHECK(wkt && *wkt.get(), frame, nullptr, L"The DEM %s has no coordinate system",
             dem_file.c_str());
  auto grid = std::make_shared<DemGrid>();
  if (!DemReprojection(dem_file, wkt.get(), *grid, frame)) return nullptr;
  std::unique_ptr<Eimg_MapInfo, void (*)(Eimg_MapInfo*)> info(
      eimg_LayerMapInformationRead(layer.get(), frame.Callee()), eimg_MapInfoFree);
  EERR_CHECK(info, frame, nullptr, L"eimg_LayerMapInformationRead failed");
  const double* g = info->geoTransform;
  const double det = g[1] * g[5] - g[2] * g[4];
  EERR_FAIL_IF(!(std::fabs(det) > 0), frame, nullptr, L"The DEM %s has a singular georeference",
               dem_file.c_str());
  // Inverse of x = g0 + col g1 + row g2, y = g3 + col g4 + row g5.
  grid->to_file[1] = g[5] / det;
  grid->to_file[2] = -g[2] / det;
  grid->to_file[0] = -(grid->to_file[1] * g[0] + grid->to_file[2] * g[3]);
  grid->to_file[4] = -g[4] / det;
  grid->to_file[5] = g[1] / det;
  grid->to_file[3] = -(grid->to_file[4] * g[0] + grid->to_file[5] * g[3]);
  grid->width = layer->width;
  grid->height = layer->height;
  grid->cells.resize(size_t(layer->width) * size_t(layer->height));
  Eimg_PixelRect rect{layer->width, layer->height, EGDA_TYPE_F64,
                      reinterpret_cast<unsigned char*>(grid->cells.data())};
  EERR_CHECK(eimg_LayerRead(layer.get(), 0, 0, &rect, frame.Callee()), frame, nullptr,
             L"eimg_LayerRead failed");
  Emsc_Boolean defined = EMSC_FALSE;
  double null_value = 0;
  EERR_CHECK(eimg_LayerNullValueGet(layer.get(), &null_value, &defined, frame.Callee()), frame,
             nullptr, L"eimg_LayerNullValueGet failed");
  grid->has_null = defined != EMSC_FALSE;
  grid->null_value = null_value;
  return grid;
}

// One image point onto the surface: the height is iterated on
// f(h) = surface(ground(h)) - h, a plain substitution step first and secant
// steps after it (quadratic-like convergence where the terrain is smooth,
// and no failure where the ray meets the terrain at a grazing angle that
// makes substitution alone oscillate).
bool OntoSurface(const Epho_RpcModel* m, const HeightSource& source,
                 const Epho_RpcEntryPoints* table, double x, double y, double* ground,
                 kzdv::ErrorFrame& frame, long index) {
  const double xy[2] = {x, y};
  double h = source.dem ? m->numbers[EPHO_RPC_HEIGHT_OFF] : source.constant_height;
  double h_prev = 0, f_prev = 0, f = 0;
  for (int it = 0; it < EPHO_RPC_HEIGHT_MAX_ITERATIONS; ++it) {
    double g[2], s;
    EERR_CHECK(table->imageToGround(m->numbers, 1, xy, &h, g, frame.Callee()), frame, false,
               L"Image point %ld: imageToGround failed", index);
    EERR_FAIL_IF(!source.At(g[0], g[1], &s), frame, false,
                 L"Image point %ld: no DEM height at lon %f, lat %f (outside the DEM or a null "
                 L"cell)",
                 index, g[0], g[1]);
    f = s - h;
    if (std::fabs(f) < EPHO_RPC_HEIGHT_TOLERANCE_M) {
      ground[0] = g[0];
      ground[1] = g[1];
      ground[2] = s;
      return true;
    }
    double next = s;
    if (it > 0 && std::fabs(f - f_prev) > 1e-12) next = h - f * (h - h_prev) / (f - f_prev);
    h_prev = h;
    f_prev = f;
    h = std::isfinite(next) ? next : s;
  }
  EERR_FAIL(frame, false,
            L"Image point %ld: the height iteration did not converge in %d steps (last change "
            L"%g m)",
            index, EPHO_RPC_HEIGHT_MAX_ITERATIONS, f);
}

// ---- exfr routines.

using RpcModelOps = HeightModelOps<Epho_RpcModel, epho_RpcGroundToImage, epho_RpcImageToGround>;

// The ray through the ground points at the offset height and one scale above.
Emsc_Boolean OpsImageToGroundRay(void* model, double image_x, double image_y, double origin[3],
                                 double direction[3], Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_RpcImageToGroundRay";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const Epho_RpcModel*>(model);
  EERR_CHECK(RpcModelOps::RayBetweenHeights(
                 m, image_x, image_y, m->numbers[EPHO_RPC_HEIGHT_OFF],
                 m->numbers[EPHO_RPC_HEIGHT_OFF] + m->numbers[EPHO_RPC_HEIGHT_SCALE], origin,
                 direction, frame.Callee()),
             frame, EMSC_FALSE, L"epho_RpcImageToGround failed");
  return EMSC_TRUE;
}

Emsc_Boolean OpsTransform2D(void* model, Efga_Matrix* points, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_RpcTransform";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const Epho_RpcModel*>(model);
  const std::shared_ptr<const HeightSource> source = m->Heights();
  const long n = points->numrows * points->numcolumns / 2;
  std::vector<double> ground(3 * size_t(n));
  for (long i = 0; i < n; ++i) {
    ground[3 * i] = points->data[2 * i];
    ground[3 * i + 1] = points->data[2 * i + 1];
    EERR_FAIL_IF(!source->At(ground[3 * i], ground[3 * i + 1], &ground[3 * i + 2]), frame,
                 EMSC_FALSE, L"Ground point %ld: no DEM height (outside the DEM or a null cell)",
                 i);
  }
  std::vector<double> image(2 * size_t(n));
  EERR_CHECK(epho_RpcGroundToImage(m, n, ground.data(), image.data(), frame.Callee()), frame,
             EMSC_FALSE, L"epho_RpcGroundToImage failed");
  std::memcpy(points->data, image.data(), sizeof(double) * 2 * size_t(n));
  return EMSC_TRUE;
}

void* OpsCopy(const void* model, Eerr_ErrorReport** err) {
  return epho_RpcModelCopy(static_cast<const Epho_RpcModel*>(model), err);
}

void OpsDestroy(void* model) { epho_RpcModelFree(static_cast<Epho_RpcModel*>(model)); }

const Exfr_SensorModelOps kRpcOps = {"rational function", RpcModelOps::GroundToImage,
                                     OpsImageToGroundRay, RpcModelOps::ImageAndZToXY,
                                     OpsTransform2D,      OpsCopy,
                                     OpsDestroy};

}  // namespace
}  // namespace epho::sensors

using namespace epho::sensors;

extern "C" {

const Epho_RpcEntryPoints* epho_RpcBuiltinEntryPoints(void) KZDV_NOEXCEPT { return &kBuiltin; }

const Epho_RpcEntryPoints* epho_RpcEntryPointsGet(void) KZDV_NOEXCEPT { return Table(); }

Emsc_Boolean epho_RpcEntryPointsSet(const Epho_RpcEntryPoints* table,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcEntryPointsSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(table && (!table->groundToImage || !table->imageToGround), frame, EMSC_FALSE,
               L"The RPC routine table lacks a routine");
  g_table.store(table ? table : &kBuiltin, std::memory_order_release);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Epho_RpcModel* epho_RpcModelCreate(const double* numbers, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_RpcModelCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(numbers, frame, nullptr);
  const std::wstring problem = RpcNumbersProblem(numbers);
  EERR_FAIL_IF(!problem.empty(), frame, nullptr, L"%s", problem.c_str());
  auto model = std::make_unique<Epho_RpcModel>();
  std::memcpy(model->numbers, numbers, sizeof model->numbers);
  auto source = std::make_shared<HeightSource>();
  source->constant_height = numbers[EPHO_RPC_HEIGHT_OFF];
  model->SetHeights(std::move(source));
  return model.release();
}
EERR_BOUNDARY(err, nullptr)

Epho_RpcModel* epho_RpcModelRead(const Etxt_Char* image_file, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_RpcModelRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(image_file, frame, nullptr);
  static std::once_flag registered;
  std::call_once(registered, [] { GDALAllRegister(); });
  GdalQuiet quiet;
  DatasetPtr ds(GDALOpenEx(kzdv::ToUtf8(image_file).c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY,
                           nullptr, nullptr, nullptr));
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open the image %s: %s", image_file,
               quiet.Message().c_str());
  char** md = GDALGetMetadata(ds.get(), "RPC");
  EERR_FAIL_IF(!md, frame, nullptr, L"The image %s has no RPC metadata", image_file);
  GDALRPCInfoV2 info{};
  EERR_FAIL_IF(!GDALExtractRPCInfoV2(md, &info), frame, nullptr,
               L"The RPC metadata of the image %s is incomplete or unreadable: %s", image_file,
               quiet.Message().c_str());
  double numbers[EPHO_RPC_NUMBER_COUNT];
  const double head[10] = {info.dfLINE_OFF,    info.dfSAMP_OFF,   info.dfLAT_OFF,
                           info.dfLONG_OFF,    info.dfHEIGHT_OFF, info.dfLINE_SCALE,
                           info.dfSAMP_SCALE,  info.dfLAT_SCALE,  info.dfLONG_SCALE,
                           info.dfHEIGHT_SCALE};
  std::memcpy(numbers, head, sizeof head);
  std::memcpy(numbers + EPHO_RPC_LINE_NUM, info.adfLINE_NUM_COEFF, 20 * sizeof(double));
  std::memcpy(numbers + EPHO_RPC_LINE_DEN, info.adfLINE_DEN_COEFF, 20 * sizeof(double));
  std::memcpy(numbers + EPHO_RPC_SAMP_NUM, info.adfSAMP_NUM_COEFF, 20 * sizeof(double));
  std::memcpy(numbers + EPHO_RPC_SAMP_DEN, info.adfSAMP_DEN_COEFF, 20 * sizeof(double));
  Epho_RpcModel* model = epho_RpcModelCreate(numbers, frame.Callee());
  EERR_CHECK(model, frame, nullptr, L"The RPC metadata of the image %s is not usable", image_file);
  return model;
}
EERR_BOUNDARY(err, nullptr)

Epho_RpcModel* epho_RpcModelCopy(const Epho_RpcModel* model, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_RpcModelCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, nullptr);
  return new Epho_RpcModel(*model);  // the height source is shared: it never changes
}
EERR_BOUNDARY(err, nullptr)

void epho_RpcModelFree(Epho_RpcModel* model) KZDV_NOEXCEPT { delete model; }

Emsc_Boolean epho_RpcModelNumbersGet(const Epho_RpcModel* model, double* numbers,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcModelNumbersGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(numbers, frame, EMSC_FALSE);
  std::memcpy(numbers, model->numbers, sizeof model->numbers);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_RpcModelHeightSourceSet(Epho_RpcModel* model, const Etxt_Char* dem_file,
                                          double constant_height,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcModelHeightSourceSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  auto source = std::make_shared<HeightSource>();
  if (dem_file) {
    source->dem = ReadDem(dem_file, frame);
    if (!source->dem) return EMSC_FALSE;
  } else {
    EERR_FAIL_IF(!std::isfinite(constant_height), frame, EMSC_FALSE,
                 L"The constant height is not finite");
    source->constant_height = constant_height;
  }
  model->SetHeights(std::move(source));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_RpcGroundToImage(const Epho_RpcModel* model, long count, const double* ground_xyz,
                                   double* image_xy, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcGroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(ground_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  EERR_CHECK(Table()->groundToImage(model->numbers, count, ground_xyz, image_xy, frame.Callee()),
             frame, EMSC_FALSE, L"groundToImage failed");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_RpcImageToGround(const Epho_RpcModel* model, long count, const double* image_xy,
                                   const double* ground_z, double* ground_xy,
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcImageToGround";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_z, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_xy, frame, EMSC_FALSE);
  EERR_CHECK(
      Table()->imageToGround(model->numbers, count, image_xy, ground_z, ground_xy, frame.Callee()),
      frame, EMSC_FALSE, L"imageToGround failed");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_RpcImageToGroundOnSurface(const Epho_RpcModel* model, long count,
                                            const double* image_xy, double* ground_xyz,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_RpcImageToGroundOnSurface";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(model, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_xyz, frame, EMSC_FALSE);
  const Epho_RpcEntryPoints* table = Table();
  const std::shared_ptr<const HeightSource> source = model->Heights();
  for (long i = 0; i < count; ++i)
    if (!OntoSurface(model, *source, table, image_xy[2 * i], image_xy[2 * i + 1],
                     &ground_xyz[3 * i], frame, i))
      return EMSC_FALSE;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Exfr_XForm* epho_RpcModelToExfr(const Epho_RpcModel* model, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_RpcModelToExfr";
  kzdv::ErrorFrame frame(kFn, err);
  Epho_RpcModel* copy = epho_RpcModelCopy(model, frame.Callee());
  EERR_CHECK(copy, frame, nullptr, L"epho_RpcModelCopy failed");
  Exfr_XForm* t = exfr_SensorModelXFormCreate(&kRpcOps, copy, frame.Callee());
  EERR_CHECK(t, frame, nullptr, L"exfr_SensorModelXFormCreate failed");
  return t;
}
EERR_BOUNDARY(err, nullptr)

const Exfr_SensorModelOps* epho_RpcSensorOps(void) KZDV_NOEXCEPT { return &kRpcOps; }

}  // extern "C"
