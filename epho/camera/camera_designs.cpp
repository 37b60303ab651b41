// MIF designs of the frame camera: the library-wide dictionary with its four
// cached designs, and the older "Camera_Model" design defined into a caller's
// dictionary.
#include "epho/camera/camera_internal.h"
#include "ethr.h"
#include "platform/eerr/error_frame.h"
#include "platform/ethr/lock_holder.h"

namespace epho::camera {
namespace {

using Text = const Etxt_Char*;
constexpr Text kEnd = nullptr;  // closes an enumeration's value names

// The dictionary and the designs live until the process ends.
Emif_Dictionary* g_dictionary = nullptr;
Emif_Design* g_string = nullptr;
Emif_Design* g_mif_object = nullptr;
Emif_Design* g_camera = nullptr;
Emif_Design* g_model_x = nullptr;
Emif_Design* g_datum = nullptr;

// The frame of every getter: inside the thread-unsafe section, make the
// dictionary, return the cached design or create, register and cache it.
template <typename Make>
const Emif_Design* CachedDesign(Text getter, Emif_Design** slot, Make make,
                                Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(getter, err);
  EthrThreadUnsafeSection section;
  if (!g_dictionary) {
    g_dictionary = emif_DictionaryCreate(frame.Callee());
    EERR_CHECK(g_dictionary, frame, nullptr, L"Dictionary create fail");
  }
  if (*slot) return *slot;
  DesignPtr design(make(frame));
  if (!design) {
    if (!frame.Failed()) frame.Fail(__LINE__, L"Design create failed");
    return nullptr;
  }
  EERR_CHECK(emif_DictionaryAddDesign(g_dictionary, design.get(), frame.Callee()), frame, nullptr,
             L"emif_DictionaryAddDesign failed");
  *slot = design.release();
  return *slot;
}

// Fields 1 to 17 of the camera record, shared by "Epho_Camera" and the older
// "Camera_Model". Returns the design or null with the report in `err`.
#define EPHO_CAMERA_FIELDS                                                                         \
  EMIF_T_ENUM, L"direction", L"EMOD_FORWARD", L"EMOD_INVERSE", kEnd, EMIF_T_ENUM, L"refType",      \
      L"EMOD_CARTESIAN", L"EMOD_TANGENT_PLANE", kEnd, EMIF_T_ENUM, L"demsource", L"EMOD_DEM_FILE", \
      L"EMOD_DEM_CONSTANT", kEnd, EMIF_T_ENUM, L"PhotoDirection", L"Z_DIRECTION", L"Y_DIRECTION",  \
      kEnd, EMIF_T_ENUM, L"RotationSystem", L"OMEGA_PHI_KAPPA", L"PHIPLUS_OMEGA_KAPPA",            \
      L"PHIMINUS_OMEGA_KAPPA", kEnd, 520, L"demfilename", 520, L"demzunits", 270, L"forSrcAffine", \
      6, 270, L"forDstAffine", 6, 270, L"invSrcAffine", 6, 270, L"invDstAffine", 6, 14, L"z_mean", \
      14, L"lat0", 14, L"lon0", 270, L"coeffs", 9, 526, L"LensDistortion", 526,                    \
      L"AdditionalParameters"

}  // namespace

const Emif_Design* EmifStringDesign(Eerr_ErrorReport** err) {
  return CachedDesign(
      L"Emif_String_Design", &g_string,
      [](kzdv::ErrorFrame& frame) {
        return emif_DesignCreate(L"Emif_String", 520, L"string", 0, frame.Callee());
      },
      err);
}

const Emif_Design* EmifMIFObjectDesign(Eerr_ErrorReport** err) {
  return CachedDesign(
      L"Emif_MIFObject_Design", &g_mif_object,
      [](kzdv::ErrorFrame& frame) -> Emif_Design* {
        const Emif_Design* string = EmifStringDesign(frame.Callee());
        if (!string) return nullptr;
        return emif_DesignCreate(L"Emif_MIFObject", 1, L"type", string, 520, L"MIFDictionary", 519,
                                 L"MIFObject", 0, frame.Callee());
      },
      err);
}

const Emif_Design* EphoCameraDesign(Eerr_ErrorReport** err) {
  return CachedDesign(
      L"Epho_Camera_Design", &g_camera,
      [](kzdv::ErrorFrame& frame) -> Emif_Design* {
        const Emif_Design* mif = EmifMIFObjectDesign(frame.Callee());
        if (!mif) return nullptr;
        return emif_DesignCreate(L"Epho_Camera", EPHO_CAMERA_FIELDS, 1025, L"obsoletePlaceHolder0",
                                 mif, 0, frame.Callee());
      },
      err);
}

const Emif_Design* DatumDesign(Eerr_ErrorReport** err) {
  return CachedDesign(
      L"Eprj_Datum_Design", &g_datum,
      [](kzdv::ErrorFrame& frame) {
        return emif_DesignCreate(L"Eprj_Datum", 520, L"datumname", EMIF_T_ENUM, L"type",
                                 L"EPRJ_DATUM_PARAMETRIC", L"EPRJ_DATUM_GRID",
                                 L"EPRJ_DATUM_REGRESSION", L"EPRJ_DATUM_NONE", kEnd, 526, L"params",
                                 520, L"gridname", 0, frame.Callee());
      },
      err);
}

const Emif_Design* CameraModelXDesign(Eerr_ErrorReport** err) {
  return CachedDesign(
      L"Camera_ModelX_Design", &g_model_x,
      [](kzdv::ErrorFrame& frame) -> Emif_Design* {
        const Emif_Design* camera = EphoCameraDesign(frame.Callee());
        if (!camera) return nullptr;
        const Emif_Design* mif = EmifMIFObjectDesign(frame.Callee());
        if (!mif) return nullptr;
        const Emif_Design* string = EmifStringDesign(frame.Callee());
        if (!string) return nullptr;
        return emif_DesignCreate(L"Camera_ModelX", 1, L"cameraModel", camera, 1,
                                 L"outputProjection", mif, 1, L"outputHorizontalUnits", string, 1,
                                 L"outputElevationInfo", mif, 0, frame.Callee());
      },
      err);
}

}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

const Emif_Design* epho_CameraModelXDesignGet(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraModelXDesignGet";
  kzdv::ErrorFrame frame(kFn, err);
  const Emif_Design* design = CameraModelXDesign(frame.Callee());
  EERR_CHECK(design, frame, nullptr, L"emif_DesignFetch failed");
  return design;
}
EERR_BOUNDARY(err, nullptr)

Emif_Design* epho_CameraDesignDefine(Emif_Dictionary* dictionary,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraDesignDefine";
  if (err) *err = nullptr;
  Eerr_ErrorReport* report = nullptr;
  DesignPtr design;
  {
    kzdv::ErrorFrame frame(kFn, &report);
    [&] {
      EERR_FAIL_IF(!dictionary, frame, , L"Args");
      // The projection conversion puts its parameter design into the
      // dictionary; "refParms" points at records of it.
      EERR_CHECK(
          eprj_ProjectionConvertToMIFable(dictionary, nullptr, nullptr, nullptr, frame.Callee()),
          frame, , L"eprj_ProjectionConvertToMIFable failed");
      const Emif_Design* parms =
          emif_DesignFetch(dictionary, L"Eprj_ProParameters", frame.Callee());
      EERR_CHECK(parms, frame, , L"eprj_ProjectionConvertToMIFable failed");
      design.reset(emif_DesignCreate(L"Camera_Model", EPHO_CAMERA_FIELDS, 1026, L"refParms", parms,
                                     0, frame.Callee()));
      EERR_CHECK(design, frame, , L"DefineObject failed");
      if (!emif_DictionaryAddDesign(dictionary, design.get(), frame.Callee()) ||
          frame.CalleeFailed()) {
        design.reset();
        EERR_FAIL(frame, , L"emif_DictionaryAddDesign failed");
      }
    }();
  }
  if (report) {
    // This definer prints its failure and keeps nothing of it.
    eerr_PrintErrorReport(report, nullptr, 0);
    eerr_DeleteErrorReport(report);
    return nullptr;
  }
  return design.release();
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
