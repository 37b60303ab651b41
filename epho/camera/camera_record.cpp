// The frame camera record: creation, release, deep copy, comparison, text
// encoding and the output coordinate system.
#include <cmath>
#include <cstdarg>
#include <cstring>

#include "epho/camera/camera_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace epho::camera {

bool CountedCopy(const Emif_CountedString& from, Emif_CountedString* to) {
  to->count = 0;
  to->data = nullptr;
  if (from.count <= 0 || !from.data) return true;
  to->data = static_cast<Etxt_Char*>(emsc_MemDup(from.data, sizeof(Etxt_Char) * from.count));
  if (!to->data) return false;
  to->count = from.count;
  return true;
}

bool CountedCopy(const Emif_CountedBytes& from, Emif_CountedBytes* to) {
  to->count = 0;
  to->data = nullptr;
  if (from.count <= 0 || !from.data) return true;
  to->data = static_cast<unsigned char*>(emsc_MemDup(from.data, size_t(from.count)));
  if (!to->data) return false;
  to->count = from.count;
  return true;
}

bool CountedEqual(const Emif_CountedString& a, const Emif_CountedString& b) {
  if (a.count != b.count) return false;
  if (a.count <= 0 || a.data == b.data) return true;
  if (!a.data || !b.data) return false;
  return std::memcmp(a.data, b.data, sizeof(Etxt_Char) * a.count) == 0;
}

bool CountedEqual(const Emif_CountedBytes& a, const Emif_CountedBytes& b) {
  if (a.count != b.count) return false;
  if (a.count <= 0 || a.data == b.data) return true;
  if (!a.data || !b.data) return false;
  return std::memcmp(a.data, b.data, size_t(a.count)) == 0;
}

void CountedFree(Emif_CountedString* s) {
  emsc_HeapFree(s->data);
  s->data = nullptr;
  s->count = 0;
}
void CountedFree(Emif_CountedBytes* s) {
  emsc_HeapFree(s->data);
  s->data = nullptr;
  s->count = 0;
}
void CountedFree(Epho_CountedDoubles* v) {
  emsc_HeapFree(v->data);
  v->data = nullptr;
  v->count = 0;
}

bool CountedSet(const Etxt_Char* text, Emif_CountedString* to) {
  to->count = 0;
  to->data = nullptr;
  if (!text) return true;
  to->data = estr_Duplicate(text);
  if (!to->data) return false;
  to->count = static_cast<int32_t>(etxt_Text_strlen(text) + 1);
  return true;
}

namespace {

bool VectorCopy(const Epho_CountedDoubles& from, Epho_CountedDoubles* to) {
  to->count = 0;
  to->data = nullptr;
  if (from.count <= 0 || !from.data) return true;
  to->data = static_cast<double*>(emsc_MemDup(from.data, sizeof(double) * from.count));
  if (!to->data) return false;
  to->count = from.count;
  return true;
}

bool Near(double a, double b) { return std::fabs(a - b) <= 1e-10; }

bool AllNear(const double* a, const double* b, int n) {
  for (int i = 0; i < n; ++i)
    if (!Near(a[i], b[i])) return false;
  return true;
}

bool VectorsSame(const Epho_CountedDoubles& a, const Epho_CountedDoubles& b) {
  if (a.count != b.count) return false;
  if (a.count <= 0) return true;
  if (!a.data || !b.data) return a.data == b.data;
  return AllNear(a.data, b.data, a.count);
}

// The three MIF fields of a projection or elevation info, built aside and
// swapped into the camera only when everything has succeeded.
struct MifFields {
  Emif_CountedString design{0, nullptr};
  Emif_CountedString dictionary{0, nullptr};
  Emif_CountedBytes bytes{0, nullptr};
  ~MifFields() {
    CountedFree(&design);
    CountedFree(&dictionary);
    CountedFree(&bytes);
  }
};

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Epho_Camera* epho_CameraCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  if (err) *err = nullptr;
  auto* camera = static_cast<Epho_Camera*>(emsc_HeapCalloc(1, sizeof(Epho_Camera)));
  if (!camera) return nullptr;
  camera->direction = EMOD_FORWARD;
  camera->refType = EMOD_CARTESIAN;
  camera->demsource = EMOD_DEM_CONSTANT;
  camera->PhotoDirection = EPHO_Z_DIRECTION;
  camera->RotationSystem = EPHO_OMEGA_PHI_KAPPA;
  for (double* a :
       {camera->forSrcAffine, camera->forDstAffine, camera->invSrcAffine, camera->invDstAffine}) {
    a[0] = 1.0;
    a[4] = 1.0;
  }
  camera->coeffs[0] = 1.0;
  return camera;
}
EERR_BOUNDARY(err, nullptr)

void epho_CameraDelete(Epho_Camera* camera) KZDV_NOEXCEPT {
  if (!camera) return;
  CountedFree(&camera->demfilename);
  CountedFree(&camera->demzunits);
  CountedFree(&camera->LensDistortion);
  CountedFree(&camera->AdditionalParameters);
  eprj_ProParametersFree(camera->obsoletePlaceHolder0);
  CountedFree(&camera->outputProjectionDesign);
  CountedFree(&camera->outputProjectionDictionary);
  CountedFree(&camera->outputProjectionObject);
  CountedFree(&camera->outputHorizontalUnits);
  CountedFree(&camera->outputElevationInfoDesign);
  CountedFree(&camera->outputElevationInfoDictionary);
  CountedFree(&camera->outputElevationInfoObject);
  emsc_HeapFree(camera);
}

Epho_Camera* epho_CameraCopy(const Epho_Camera* source, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!source, frame, nullptr, L"Args");
  // Start from a bitwise copy with every owned pointer cleared, then copy
  // the owned parts one by one; the partial copy is deleted on failure.
  auto* raw = static_cast<Epho_Camera*>(emsc_HeapMalloc(sizeof(Epho_Camera)));
  EERR_FAIL_IF(!raw, frame, nullptr, L"No memory");
  std::memcpy(raw, source, sizeof(Epho_Camera));
  raw->demfilename = raw->demzunits = {0, nullptr};
  raw->LensDistortion = raw->AdditionalParameters = {0, nullptr};
  raw->obsoletePlaceHolder0 = nullptr;
  raw->outputProjectionDesign = raw->outputProjectionDictionary = {0, nullptr};
  raw->outputProjectionObject = {0, nullptr};
  raw->outputHorizontalUnits = {0, nullptr};
  raw->outputElevationInfoDesign = raw->outputElevationInfoDictionary = {0, nullptr};
  raw->outputElevationInfoObject = {0, nullptr};
  CameraPtr copy(raw);
  EERR_FAIL_IF(!CountedCopy(source->demfilename, &copy->demfilename) ||
                   !CountedCopy(source->demzunits, &copy->demzunits),
               frame, nullptr, L"No memory");
  EERR_FAIL_IF(!VectorCopy(source->LensDistortion, &copy->LensDistortion) ||
                   !VectorCopy(source->AdditionalParameters, &copy->AdditionalParameters),
               frame, nullptr, L"PTRCopyContents failed");
  if (source->obsoletePlaceHolder0) {
    copy->obsoletePlaceHolder0 =
        eprj_ProParametersCopy(source->obsoletePlaceHolder0, frame.Callee());
    EERR_CHECK(copy->obsoletePlaceHolder0, frame, nullptr, L"eprj_ProParametersCopy failed");
  }
  EERR_FAIL_IF(
      !CountedCopy(source->outputProjectionDesign, &copy->outputProjectionDesign) ||
          !CountedCopy(source->outputProjectionDictionary, &copy->outputProjectionDictionary) ||
          !CountedCopy(source->outputProjectionObject, &copy->outputProjectionObject) ||
          !CountedCopy(source->outputHorizontalUnits, &copy->outputHorizontalUnits) ||
          !CountedCopy(source->outputElevationInfoDesign, &copy->outputElevationInfoDesign) ||
          !CountedCopy(source->outputElevationInfoDictionary,
                       &copy->outputElevationInfoDictionary) ||
          !CountedCopy(source->outputElevationInfoObject, &copy->outputElevationInfoObject),
      frame, nullptr, L"MIFObjectCopyContents failed");
  return copy.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean epho_CamerasAreSame(const Epho_Camera* a, const Epho_Camera* b) KZDV_NOEXCEPT {
  if (a == b) return EMSC_TRUE;
  if (!a || !b) return EMSC_FALSE;
  if (a->direction != b->direction || a->refType != b->refType || a->demsource != b->demsource ||
      a->PhotoDirection != b->PhotoDirection || a->RotationSystem != b->RotationSystem)
    return EMSC_FALSE;
  if (a->demsource == EMOD_DEM_CONSTANT && !Near(a->z_mean, b->z_mean)) return EMSC_FALSE;
  if (a->demsource == EMOD_DEM_FILE) {
    // The DEM is named as the caller wrote it: another spelling may be
    // another file on a case-sensitive file system.
    if (a->demfilename.count != b->demfilename.count) return EMSC_FALSE;
    if (a->demfilename.count > 0 && a->demfilename.data != b->demfilename.data &&
        (!a->demfilename.data || !b->demfilename.data ||
         etxt_Text_strcmp(a->demfilename.data, b->demfilename.data) != 0))
      return EMSC_FALSE;
  }
  if (a->demzunits.count != b->demzunits.count) return EMSC_FALSE;
  if (a->demzunits.count > 0 && !estr_Eqic(a->demzunits.data, b->demzunits.data)) return EMSC_FALSE;
  // The inverse affines follow from the forward ones and are left out.
  if (!AllNear(a->forSrcAffine, b->forSrcAffine, 6) ||
      !AllNear(a->forDstAffine, b->forDstAffine, 6))
    return EMSC_FALSE;
  if (!Near(a->lat0, b->lat0) || !Near(a->lon0, b->lon0) || !AllNear(a->coeffs, b->coeffs, 9))
    return EMSC_FALSE;
  if (!VectorsSame(a->LensDistortion, b->LensDistortion) ||
      !VectorsSame(a->AdditionalParameters, b->AdditionalParameters))
    return EMSC_FALSE;
  if (a->obsoletePlaceHolder0 != b->obsoletePlaceHolder0) {
    Eerr_ErrorReport* report = nullptr;
    Emsc_Boolean same =
        eprj_ProParametersEqual(a->obsoletePlaceHolder0, b->obsoletePlaceHolder0, &report);
    if (report) {
      eerr_PrintErrorReport(report, nullptr, 0);
      eerr_DeleteErrorReport(report);
      return EMSC_FALSE;
    }
    if (!same) return EMSC_FALSE;
  }
  if (!a->obsoletePlaceHolder0 &&
      (!CountedEqual(a->outputProjectionDesign, b->outputProjectionDesign) ||
       !CountedEqual(a->outputProjectionDictionary, b->outputProjectionDictionary) ||
       !CountedEqual(a->outputProjectionObject, b->outputProjectionObject)))
    return EMSC_FALSE;
  if (!CountedEqual(a->outputHorizontalUnits, b->outputHorizontalUnits)) return EMSC_FALSE;
  if (!CountedEqual(a->outputElevationInfoDesign, b->outputElevationInfoDesign) ||
      !CountedEqual(a->outputElevationInfoDictionary, b->outputElevationInfoDictionary) ||
      !CountedEqual(a->outputElevationInfoObject, b->outputElevationInfoObject))
    return EMSC_FALSE;
  return EMSC_TRUE;
}

int epho_CameraEncode(const Epho_Camera* camera, Epho_CameraPrint print, ...) KZDV_NOEXCEPT try {
  if (!camera || !print) return -1;
  va_list args;
  va_start(args, print);
  void* ctx = static_cast<void*>(&args);
  int total = 0;
  bool failed = false;
  auto add = [&](int n) {
    if (n < 0)
      failed = true;
    else
      total += n;
    return !failed;
  };
  auto text = [&](int32_t count, const Etxt_Char* s) {
    return count > 0 ? add(print(ctx, L";%d %s", count, s ? s : L""))
                     : add(print(ctx, L";%d", count));
  };
  const wchar_t* six = L";%-25.15le %-25.15le %-25.15le %-25.15le %-25.15le %-25.15le";
  auto affine = [&](const double* a) {
    return add(print(ctx, six, a[0], a[1], a[2], a[3], a[4], a[5]));
  };
  auto vector = [&](const Epho_CountedDoubles& v) {
    if (!add(print(ctx, L";%d", v.count))) return false;
    for (int32_t i = 0; i < v.count && v.data; ++i)
      if (!add(print(ctx, L" %-25.15le", v.data[i]))) return false;
    return true;
  };
  const double* c = camera->coeffs;
  bool ok = add(print(ctx, L"%d %d %d %d %d", camera->direction, camera->refType, camera->demsource,
                      camera->PhotoDirection, camera->RotationSystem)) &&
            text(camera->demfilename.count, camera->demfilename.data) &&
            text(camera->demzunits.count, camera->demzunits.data) && affine(camera->forSrcAffine) &&
            affine(camera->forDstAffine) && affine(camera->invSrcAffine) &&
            affine(camera->invDstAffine) &&
            add(print(ctx, L";%-25.15le %-25.15le %-25.15le", camera->z_mean, camera->lat0,
                      camera->lon0)) &&
            add(print(ctx,
                      L";%-25.15le %-25.15le %-25.15le %-25.15le %-25.15le %-25.15le %-25.15le "
                      L"%-25.15le %-25.15le",
                      c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7], c[8])) &&
            vector(camera->LensDistortion) && vector(camera->AdditionalParameters);
  const Eprj_ProParameters* p = camera->obsoletePlaceHolder0;
  if (ok && !p) {
    ok = add(print(ctx, L";%d", 0));
  } else if (ok) {
    auto name_count = [](const Etxt_Char* s) {
      return s ? static_cast<int32_t>(etxt_Text_strlen(s) + 1) : 0;
    };
    const Eprj_Spheroid* sph = p->proSpheroid;
    ok = add(print(ctx, L";%d", 1)) &&
         add(print(ctx, L";%d %d %d", int(p->proType), int(p->proNumber), int(p->proZone))) &&
         text(name_count(p->proExeName), p->proExeName) &&
         text(name_count(p->proName), p->proName) &&
         vector(Epho_CountedDoubles{p->proParams.count, p->proParams.data}) &&
         add(print(ctx, L";%s", sph && sph->sphereName ? sph->sphereName : L"")) &&
         add(print(ctx, L";%s",
                   sph && sph->datum && sph->datum->datumname ? sph->datum->datumname : L""));
  }
  va_end(args);
  return failed ? -1 : total;
}
// A print callback in C++ may throw: that is the encoding's failure too.
EERR_BOUNDARY(nullptr, -1)

Emsc_Boolean epho_CameraCoordinateSystemSet(Epho_Camera* camera,
                                            const Eprj_MapProjection* projection,
                                            const Etxt_Char* horizontalUnits,
                                            const Eprj_ElevationInfo* elevationInfo,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraCoordinateSystemSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!camera || !horizontalUnits || !elevationInfo, frame, EMSC_FALSE, L"Args");
  // Everything is built aside first: a failure leaves the camera unchanged.
  ParametersPtr parameters;
  MifFields proj;
  if (projection) {
    const Eprj_ProParameters* csr = eprj_MapProjectionCSRGet(projection, frame.Callee());
    EERR_CHECK(csr, frame, EMSC_FALSE, L"eprj_MapProjectionCSRGet failed");
    parameters.reset(eprj_ProParametersCopy(csr, frame.Callee()));
    EERR_CHECK(parameters, frame, EMSC_FALSE, L"eprj_ProParametersCopy failed");
    Emif_Design* design = nullptr;
    void* object = nullptr;
    Emsc_Boolean ok =
        eprj_ProjectionConvertToMIFable(nullptr, projection, &design, &object, frame.Callee());
    DesignPtr design_owner(design);
    MifRecord record(design, object);
    EERR_CHECK(ok && object, frame, EMSC_FALSE, L"eprj_ProjectionConvertToMIFable failed");
    ok = emif_MIFableObjectConvertToMIF(design, object, &proj.design, &proj.dictionary, &proj.bytes,
                                        frame.Callee());
    EERR_CHECK(ok, frame, EMSC_FALSE, L"emif_MIFableObjectConvertToMIF failed");
  }
  Emif_CountedString units{0, nullptr};
  EERR_FAIL_IF(!CountedSet(horizontalUnits, &units), frame, EMSC_FALSE, L"estr_Duplicate failed");
  MifFields units_holder;  // frees `units` on the failure paths below
  units_holder.design = units;
  MifFields elev;
  {
    Emif_Design* design = nullptr;
    void* object = nullptr;
    Emsc_Boolean ok =
        eprj_ElevationInfoConvertToMIFable(elevationInfo, &design, &object, frame.Callee());
    DesignPtr design_owner(design);
    MifRecord record(design, object);
    EERR_CHECK(ok && object, frame, EMSC_FALSE, L"eprj_ElevationInfoConvertToMIFable failed");
    ok = emif_MIFableObjectConvertToMIF(design, object, &elev.design, &elev.dictionary, &elev.bytes,
                                        frame.Callee());
    EERR_CHECK(ok, frame, EMSC_FALSE, L"emif_MIFableObjectConvertToMIF failed");
  }
  // Swap in; the old values leave with the temporaries.
  std::swap(camera->outputProjectionDesign, proj.design);
  std::swap(camera->outputProjectionDictionary, proj.dictionary);
  std::swap(camera->outputProjectionObject, proj.bytes);
  std::swap(camera->outputHorizontalUnits, units_holder.design);
  std::swap(camera->outputElevationInfoDesign, elev.design);
  std::swap(camera->outputElevationInfoDictionary, elev.dictionary);
  std::swap(camera->outputElevationInfoObject, elev.bytes);
  Eprj_ProParameters* old = camera->obsoletePlaceHolder0;
  camera->obsoletePlaceHolder0 = parameters.release();
  parameters.reset(old);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_CameraCoordinateSystemGet(const Epho_Camera* camera,
                                            Eprj_MapProjection** projection,
                                            Etxt_Char** horizontalUnits,
                                            Eprj_ElevationInfo** elevationInfo,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  // The report name is the one callers have always matched on.
  static const Etxt_Char* const kFn = L"epho_CameraCoordianteSystemGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!camera || !projection || !horizontalUnits || !elevationInfo, frame, EMSC_FALSE,
               L"Args");
  ProjectionPtr proj;
  if (camera->obsoletePlaceHolder0) {
    proj.reset(eprj_MapProjectionInit(camera->obsoletePlaceHolder0, frame.Callee()));
    EERR_CHECK(proj, frame, EMSC_FALSE, L"eprj_MapProjectionInit failed");
  } else if (camera->outputProjectionObject.count > 0) {
    Emif_Design* design = nullptr;
    void* object = nullptr;
    Emsc_Boolean ok = emif_MIFableObjectConvertFromMIF(
        &camera->outputProjectionDesign, &camera->outputProjectionDictionary,
        &camera->outputProjectionObject, &design, &object, frame.Callee());
    DesignPtr design_owner(design);
    MifRecord record(design, object);
    EERR_CHECK(ok, frame, EMSC_FALSE, L"emif_MIFableObjectConvertFromMIF failed");
    proj.reset(eprj_ProjectionConvertFromMIFable(design, object, frame.Callee()));
    EERR_CHECK(proj, frame, EMSC_FALSE, L"eprj_ProjectionConvertFromMIFable failed");
  }
  kzdv::HeapPtr<Etxt_Char> units;
  if (camera->outputHorizontalUnits.count > 0) {
    units.reset(estr_Duplicate(camera->outputHorizontalUnits.data));
    EERR_FAIL_IF(!units, frame, EMSC_FALSE, L"estr_Duplicate failed");
  } else {
    const Eprj_ProParameters* p = camera->obsoletePlaceHolder0;
    bool geographic = p && p->proType == EPRJ_INTERNAL && p->proNumber == EPRJ_LATLONG;
    units.reset(estr_Duplicate(geographic ? L"radians" : L"meters"));
    EERR_FAIL_IF(!units, frame, EMSC_FALSE, L"estr_Duplicate failed");
  }
  ElevationPtr elevation;
  if (camera->outputElevationInfoObject.count > 0) {
    Emif_Design* design = nullptr;
    void* object = nullptr;
    Emsc_Boolean ok = emif_MIFableObjectConvertFromMIF(
        &camera->outputElevationInfoDesign, &camera->outputElevationInfoDictionary,
        &camera->outputElevationInfoObject, &design, &object, frame.Callee());
    DesignPtr design_owner(design);
    MifRecord record(design, object);
    EERR_CHECK(ok, frame, EMSC_FALSE, L"emif_MIFableObjectConvertFromMIF failed");
    elevation.reset(eprj_ElevationInfoConvertFromMIFable(design, object, frame.Callee()));
    EERR_CHECK(elevation, frame, EMSC_FALSE, L"eprj_ElevationInfoConvertFromMIFable failed");
  } else {
    elevation.reset(eprj_ElevationInfoCreateByName(L"Undefined", L"Undefined", L"meter", L"height",
                                                   frame.Callee()));
    EERR_CHECK(elevation, frame, EMSC_FALSE, L"eprj_ElevationInfoCreateByName failed");
  }
  *projection = proj.release();
  *horizontalUnits = units.release();
  *elevationInfo = elevation.release();
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
