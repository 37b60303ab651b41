// MIF form of a camera transform object: the "Camera_ModelX" record both
// ways, and the older "Camera_Model" record whose projection is "refParms".
#include <cstring>

#include "epho/camera/camera_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/emif/object_codec.h"

namespace epho::camera {
namespace {

// A camera's output projection as a MIF object record, built aside.
struct MifObjectParts {
  EmifString type{{0, nullptr}};
  EmifMIFObject object{nullptr, {0, nullptr}, {0, nullptr}};
  bool owned = false;
  ~MifObjectParts() {
    if (!owned) return;
    CountedFree(&type.string);
    CountedFree(&object.MIFDictionary);
    CountedFree(&object.MIFObject);
  }
};

// Parameters of a projection in MIF form (design name, dictionary, bytes).
Eprj_ProParameters* ParametersFromMif(const Emif_CountedString& name,
                                      const Emif_CountedString& dictionary,
                                      const Emif_CountedBytes& bytes, kzdv::ErrorFrame& frame) {
  Emif_Design* design = nullptr;
  void* object = nullptr;
  Emsc_Boolean ok = emif_MIFableObjectConvertFromMIF(&name, &dictionary, &bytes, &design, &object,
                                                     frame.Callee());
  DesignPtr design_owner(design);
  MifRecord record(design, object);
  EERR_CHECK(ok, frame, nullptr, L"emif_MIFableObjectConvertFromMIF failed");
  ProjectionPtr proj(eprj_ProjectionConvertFromMIFable(design, object, frame.Callee()));
  EERR_CHECK(proj, frame, nullptr, L"eprj_ProjectionConvertFromMIFable failed");
  Eprj_ProParameters* p = eprj_ProParametersCopy(proj->proParameters, frame.Callee());
  EERR_CHECK(p, frame, nullptr, L"eprj_ProParametersCopy failed");
  return p;
}

// The datum carried in MIF form by field 18 of a camera record.
Eprj_Datum* DatumFromMif(const EmifMIFObject* mif, kzdv::ErrorFrame& frame) {
  if (!mif || !mif->type || mif->MIFObject.count <= 0) return nullptr;
  Emif_Design* design = nullptr;
  void* object = nullptr;
  Emsc_Boolean ok = emif_MIFableObjectConvertFromMIF(
      &mif->type->string, &mif->MIFDictionary, &mif->MIFObject, &design, &object, frame.Callee());
  DesignPtr design_owner(design);
  MifRecord record_owner(design, object);
  EERR_CHECK(ok, frame, nullptr, L"emif_MIFableObjectConvertFromMIF failed");
  const Emif_Design* ours = DatumDesign(frame.Callee());
  EERR_CHECK(ours, frame, nullptr, L"emif_DesignFetch failed");
  DatumRecord rec{};
  EERR_CHECK(emif_ObjectConvert(design, object, ours, &rec, frame.Callee()), frame, nullptr,
             L"emif_ObjectConvert failed");
  auto* d = static_cast<Eprj_Datum*>(emsc_HeapCalloc(1, sizeof(Eprj_Datum)));
  if (d) {
    d->datumname = estr_Duplicate(CountedText(rec.datumname));
    d->type = static_cast<Eprj_DatumType>(rec.type);
    d->params.count = rec.params.count;
    d->params.data = rec.params.data;  // handed over
    rec.params = {0, nullptr};
    d->gridname = estr_Duplicate(CountedText(rec.gridname));
  }
  emif_ObjectContentsFree(ours, &rec, nullptr);
  EERR_FAIL_IF(!d, frame, nullptr, L"No memory");
  return d;
}

// The 18 design fields of an "Epho_Camera" record into a new camera. The
// pointer slot of field 18 holds the MIF form of the projection's datum
// there, never parameters: it is taken out into *datum.
Epho_Camera* CameraFromRecord(const void* record, kzdv::ErrorFrame& frame,
                              Eprj_Datum** datum = nullptr) {
  const Emif_Design* camera_design = EphoCameraDesign(frame.Callee());
  EERR_CHECK(camera_design, frame, nullptr, L"emif_DesignFetch failed");
  CameraPtr camera(epho_CameraCreate(nullptr));
  EERR_FAIL_IF(!camera, frame, nullptr, L"epho_CameraCreate failed");
  EERR_CHECK(emif_ObjectCopyContents(camera_design, record, camera.get(), frame.Callee()), frame,
             nullptr, L"emif_ObjectCopyContents failed");
  if (camera->obsoletePlaceHolder0) {
    const Emif_Design* mif = EmifMIFObjectDesign(nullptr);
    MifRecord carried(mif, camera->obsoletePlaceHolder0);
    camera->obsoletePlaceHolder0 = nullptr;
    if (datum) {
      *datum = DatumFromMif(static_cast<const EmifMIFObject*>(carried.get()), frame);
      if (frame.CalleeFailed() || frame.Failed()) return nullptr;
    }
  }
  return camera.release();
}

Epho_CameraXform* FromObsolete(const Emif_Design* design, const void* object,
                               kzdv::ErrorFrame& outer) {
  static const Etxt_Char* const kFn = L"epho_CameraXformConvertFromMIFableOBSOLETE";
  Eerr_ErrorReport* report = nullptr;
  Epho_CameraXform* result = [&]() -> Epho_CameraXform* {
    kzdv::ErrorFrame frame(kFn, &report);
    Emif_FieldInfo refparms{};
    EERR_FAIL_IF(!emif_DesignFieldFind(design, L"refParms", &refparms), frame, nullptr,
                 L"Cannot find refParms item");
    const Emif_Design* camera_design = EphoCameraDesign(frame.Callee());
    EERR_CHECK(camera_design, frame, nullptr, L"emif_DesignFetch failed");
    // The first seventeen fields match "Epho_Camera" by name.
    MifRecord converted(camera_design, emif_ObjectCreate(camera_design, frame.Callee()));
    EERR_CHECK(converted.get(), frame, nullptr, L"emif_ObjectCreate failed");
    EERR_CHECK(emif_ObjectConvert(design, object, camera_design, converted.get(), frame.Callee()),
               frame, nullptr, L"emif_ObjectConvert failed");
    CameraPtr camera(CameraFromRecord(converted.get(), frame));
    if (!camera) return nullptr;
    const void* parms =
        *reinterpret_cast<void* const*>(static_cast<const char*>(object) + refparms.offset);
    if (parms && refparms.design) {
      ProjectionPtr proj(eprj_ProjectionConvertFromMIFable(refparms.design, parms, frame.Callee()));
      EERR_CHECK(proj, frame, nullptr, L"eprj_ProjectionConvertFromMIFable failed");
      camera->obsoletePlaceHolder0 = eprj_ProParametersCopy(proj->proParameters, frame.Callee());
      EERR_CHECK(camera->obsoletePlaceHolder0, frame, nullptr, L"eprj_ProParametersCopy failed");
    }
    Epho_CameraXform* xform = epho_CameraXformGetFromCameraData(camera.release(), frame.Callee());
    EERR_CHECK(xform, frame, nullptr, L"epho_CameraXformGetFromCameraData failed");
    return xform;
  }();
  if (!result) {
    outer.Adopt(report);
    outer.Fail(__LINE__, L"epho_CameraXformConvertFromMIFableOBSOLETE failed");
  }
  return result;
}

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Emsc_Boolean epho_CameraXformConvertToMIFable(const Epho_CameraXform* xform, Emif_Design** design,
                                              void** object, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_CameraXformConvertToMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!design || !object || !xform || !xform->camera, frame, EMSC_FALSE, L"Args");
  const Epho_Camera* cam = xform->camera;
  const Emif_Design* model_x = CameraModelXDesign(frame.Callee());
  EERR_CHECK(model_x, frame, EMSC_FALSE, L"emif_DesignFetch failed");
  DesignPtr design_copy(emif_DesignCopy(model_x, frame.Callee()));
  EERR_CHECK(design_copy, frame, EMSC_FALSE, L"emif_DesignCopy failed");

  // The camera's design fields; its projection goes beside it.
  Epho_Camera camera_fields;
  std::memcpy(&camera_fields, cam, sizeof(Epho_Camera));
  camera_fields.obsoletePlaceHolder0 = nullptr;

  MifObjectParts projection;
  if (cam->obsoletePlaceHolder0) {
    ProjectionPtr proj(eprj_MapProjectionInit(cam->obsoletePlaceHolder0, frame.Callee()));
    EERR_CHECK(proj, frame, EMSC_FALSE, L"eprj_MapProjectionInit failed");
    Emif_Design* d = nullptr;
    void* o = nullptr;
    Emsc_Boolean ok = eprj_ProjectionConvertToMIFable(nullptr, proj.get(), &d, &o, frame.Callee());
    DesignPtr d_owner(d);
    MifRecord o_owner(d, o);
    EERR_CHECK(ok && o, frame, EMSC_FALSE, L"eprj_ProjectionConvertToMIFable failed");
    projection.owned = true;
    ok = emif_MIFableObjectConvertToMIF(d, o, &projection.type.string,
                                        &projection.object.MIFDictionary,
                                        &projection.object.MIFObject, frame.Callee());
    EERR_CHECK(ok, frame, EMSC_FALSE, L"emif_MIFableObjectConvertToMIF failed");
  } else if (cam->outputProjectionObject.count > 0) {
    projection.type.string = cam->outputProjectionDesign;  // borrowed
    projection.object.MIFDictionary = cam->outputProjectionDictionary;
    projection.object.MIFObject = cam->outputProjectionObject;
  }
  const bool has_projection = projection.object.MIFObject.count > 0;
  // The datum of the parameters, which their MIF form leaves out.
  MifObjectParts datum;
  const Eprj_Spheroid* sph =
      cam->obsoletePlaceHolder0 ? cam->obsoletePlaceHolder0->proSpheroid : nullptr;
  if (sph && sph->datum) {
    const Eprj_Datum* d = sph->datum;
    const Emif_Design* dd = DatumDesign(frame.Callee());
    EERR_CHECK(dd, frame, EMSC_FALSE, L"emif_DesignFetch failed");
    auto counted = [](Etxt_Char* t) {
      return t ? Emif_CountedString{static_cast<int32_t>(etxt_Text_strlen(t) + 1), t}
               : Emif_CountedString{0, nullptr};
    };
    DatumRecord rec{counted(d->datumname),
                    static_cast<int32_t>(d->type),
                    {d->params.count, d->params.data},
                    counted(d->gridname)};
    datum.owned = true;
    EERR_CHECK(
        emif_MIFableObjectConvertToMIF(dd, &rec, &datum.type.string, &datum.object.MIFDictionary,
                                       &datum.object.MIFObject, frame.Callee()),
        frame, EMSC_FALSE, L"emif_MIFableObjectConvertToMIF failed");
    datum.object.type = &datum.type;
    camera_fields.obsoletePlaceHolder0 = reinterpret_cast<Eprj_ProParameters*>(&datum.object);
  }
  projection.object.type = &projection.type;

  EmifString units{cam->outputHorizontalUnits};
  EmifString elevation_type{cam->outputElevationInfoDesign};
  EmifMIFObject elevation{&elevation_type, cam->outputElevationInfoDictionary,
                          cam->outputElevationInfoObject};
  CameraModelX record{&camera_fields, has_projection ? &projection.object : nullptr,
                      cam->outputHorizontalUnits.count > 0 ? &units : nullptr,
                      cam->outputElevationInfoObject.count > 0 ? &elevation : nullptr};
  void* copy = emif_ObjectCopy(model_x, &record, frame.Callee());
  EERR_CHECK(copy, frame, EMSC_FALSE, L"emif_ObjectCopy failed");
  *design = design_copy.release();
  *object = copy;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Epho_CameraXform* epho_CameraXformConvertFromMIFable(const Emif_Design* design, const void* object,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformConvertFromMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!design, frame, nullptr, L"NULL xFormDesign");
  EERR_FAIL_IF(!object, frame, nullptr, L"Args");
  const Etxt_Char* name = emif_DesignNameGet(design);
  if (name && etxt_Text_strcmp(name, L"Camera_Model") == 0)
    return FromObsolete(design, object, frame);
  EERR_FAIL_IF(!name || etxt_Text_strcmp(name, L"Camera_ModelX") != 0, frame, nullptr,
               L"The object is of design %s, not Camera_ModelX", name ? name : L"");
  const Emif_Design* model_x = CameraModelXDesign(frame.Callee());
  EERR_CHECK(model_x, frame, nullptr, L"emif_DesignFetch failed");
  // The caller's design may come from a file: read the record by field name.
  CameraModelX record{};
  EERR_CHECK(emif_ObjectConvert(design, object, model_x, &record, frame.Callee()), frame, nullptr,
             L"emif_ObjectConvert failed");
  kzdv::mif::ContentsHolder record_owner(model_x, &record);
  EERR_FAIL_IF(!record.cameraModel, frame, nullptr, L"The object holds no camera");
  Eprj_Datum* datum_raw = nullptr;
  CameraPtr camera(CameraFromRecord(record.cameraModel, frame, &datum_raw));
  std::unique_ptr<Eprj_Datum, FnDeleter<Eprj_Datum, eprj_DatumFree>> datum(datum_raw);
  if (!camera) {
    if (!frame.Failed()) frame.Fail(__LINE__, L"epho_CameraCreate failed");
    return nullptr;
  }
  if (const EmifMIFObject* p = record.outputProjection) {
    if (p->MIFObject.count > 0 && p->type) {
      camera->obsoletePlaceHolder0 =
          ParametersFromMif(p->type->string, p->MIFDictionary, p->MIFObject, frame);
      if (!camera->obsoletePlaceHolder0) return nullptr;
      Eprj_Spheroid* spheroid = camera->obsoletePlaceHolder0->proSpheroid;
      if (spheroid && datum) {
        eprj_DatumFree(spheroid->datum);
        spheroid->datum = datum.release();
      }
      EERR_FAIL_IF(!CountedCopy(p->type->string, &camera->outputProjectionDesign) ||
                       !CountedCopy(p->MIFDictionary, &camera->outputProjectionDictionary) ||
                       !CountedCopy(p->MIFObject, &camera->outputProjectionObject),
                   frame, nullptr, L"No memory");
    }
  }
  if (record.outputHorizontalUnits)
    EERR_FAIL_IF(!CountedCopy(record.outputHorizontalUnits->string, &camera->outputHorizontalUnits),
                 frame, nullptr, L"No memory");
  if (const EmifMIFObject* e = record.outputElevationInfo) {
    EERR_FAIL_IF((e->type && !CountedCopy(e->type->string, &camera->outputElevationInfoDesign)) ||
                     !CountedCopy(e->MIFDictionary, &camera->outputElevationInfoDictionary) ||
                     !CountedCopy(e->MIFObject, &camera->outputElevationInfoObject),
                 frame, nullptr, L"No memory");
  }
  Epho_CameraXform* xform = epho_CameraXformGetFromCameraData(camera.release(), frame.Callee());
  EERR_CHECK(xform, frame, nullptr, L"epho_CameraXformGetFromCameraData failed");
  return xform;
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
