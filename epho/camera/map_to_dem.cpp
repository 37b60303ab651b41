// Map coordinates of a camera's output system to the file pixels of its DEM,
// reprojecting when the DEM lies in another system.
#include "epho/camera/camera_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::camera {
namespace {

// Map of one projection to map of another through longitude and latitude.
struct Reprojection {
  Eprj_MapProjection* from = nullptr;
  Eprj_MapProjection* to = nullptr;
};

void ReprojectionFree(void* model) {
  auto* r = static_cast<Reprojection*>(model);
  eprj_ProjectionFree(r->from);
  eprj_ProjectionFree(r->to);
  delete r;
}

void* ReprojectionCopy(const void* model, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ReprojectionCopy";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* r = static_cast<const Reprojection*>(model);
  auto copy = std::make_unique<Reprojection>();
  copy->from = eprj_ProjectionCopy(r->from, frame.Callee());
  EERR_CHECK(copy->from, frame, nullptr, L"eprj_ProjectionCopy failed");
  copy->to = eprj_ProjectionCopy(r->to, frame.Callee());
  if (!copy->to || frame.CalleeFailed()) {
    eprj_ProjectionFree(copy->from);
    EERR_FAIL(frame, nullptr, L"eprj_ProjectionCopy failed");
  }
  return copy.release();
}

Emsc_Boolean ReprojectionTransform(void* model, Efga_Matrix* points, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_Reprojection";
  kzdv::ErrorFrame frame(kFn, err);
  auto* r = static_cast<Reprojection*>(model);
  EERR_FAIL_IF(!r->from->toLL || !r->to->fromLL, frame, EMSC_FALSE,
               L"The projections cannot convert through geographic coordinates");
  EERR_CHECK(r->from->toLL(r->from, points, frame.Callee()), frame, EMSC_FALSE, L"toLL failed");
  EERR_CHECK(r->to->fromLL(r->to, points, frame.Callee()), frame, EMSC_FALSE, L"fromLL failed");
  return EMSC_TRUE;
}

Emsc_Boolean NoGround(void*, long, const double*, double*, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"epho_Reprojection", err);
  EERR_FAIL(frame, EMSC_FALSE, L"A reprojection has no image side");
}
Emsc_Boolean NoRay(void*, double, double, double*, double*, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"epho_Reprojection", err);
  EERR_FAIL(frame, EMSC_FALSE, L"A reprojection has no image side");
}
Emsc_Boolean NoXY(void*, long, const double*, const double*, double*, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"epho_Reprojection", err);
  EERR_FAIL(frame, EMSC_FALSE, L"A reprojection has no image side");
}

const Exfr_SensorModelOps kReprojectionOps = {
    "reprojection",        NoGround,         NoRay,           NoXY,
    ReprojectionTransform, ReprojectionCopy, ReprojectionFree};

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Exfr_XForm* epho_DeriveMapToLayerXformEx(const Eprj_MapProjection* projection,
                                         const Exfr_XForm* demMapToFile,
                                         const Eprj_ProParameters* demProjection,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_DeriveMapToLayerXformEx";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(demMapToFile, frame, nullptr);
  bool same = !projection || !demProjection;
  if (!same) {
    same = eprj_ProParametersEqual(projection->proParameters, demProjection, frame.Callee()) != 0;
    EERR_CHECK(!frame.CalleeFailed(), frame, nullptr, L"eprj_ProParametersEqual failed");
  }
  if (same) {
    Exfr_XForm* copy = exfr_XFormCopy(demMapToFile, frame.Callee());
    EERR_CHECK(copy, frame, nullptr, L"exfr_XFormCopy failed");
    return copy;
  }
  auto model = std::make_unique<Reprojection>();
  model->from = eprj_ProjectionCopy(projection, frame.Callee());
  EERR_CHECK(model->from, frame, nullptr, L"eprj_ProjectionCopy failed");
  model->to = eprj_ProjectionInit(demProjection, frame.Callee());
  if (!model->to || frame.CalleeFailed()) {
    eprj_ProjectionFree(model->from);
    EERR_FAIL(frame, nullptr, L"eprj_ProjectionInit failed");
  }
  ExfrPtr reproject(
      exfr_SensorModelXFormCreate(&kReprojectionOps, model.release(), frame.Callee()));
  EERR_CHECK(reproject, frame, nullptr, L"exfr_SensorModelXFormCreate failed");
  Exfr_XForm* chain = exfr_XFormCompose(reproject.get(), demMapToFile, frame.Callee());
  EERR_CHECK(chain, frame, nullptr, L"exfr_XFormCompose failed");
  return chain;
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
