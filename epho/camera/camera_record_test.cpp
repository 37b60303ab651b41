// Camera record: encoding, comparison rules, copy, the design layout and the
// output coordinate system.
#include <cstdarg>
#include <cstring>
#include <stdexcept>
#include <string>

#include "epho/camera/camera_internal.h"
#include "epho/camera/camera_testing_internal.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace {

using camtest::ErrSlot;
using CameraPtr = epho::camera::CameraPtr;

// Collects the encoder's output; the trailing argument is the text to append
// to (reached through the context), and a negative budget makes it fail.
int Collect(void* context, const Etxt_Char* format, ...) {
  va_list trailing;
  va_copy(trailing, *static_cast<va_list*>(context));
  std::wstring* out = va_arg(trailing, std::wstring*);
  int* budget = va_arg(trailing, int*);
  va_end(trailing);
  if ((*budget)-- == 0) return -1;
  va_list args;
  va_start(args, format);
  std::wstring piece = kzdv::FormatV(format, args);
  va_end(args);
  *out += piece;
  return static_cast<int>(piece.size());
}

std::wstring Encode(const Epho_Camera* c, int* result = nullptr, int budget = -1) {
  std::wstring text;
  int r = epho_CameraEncode(c, Collect, &text, &budget);
  if (result) *result = r;
  return text;
}

std::wstring E(double v) { return kzdv::Format(L"%-25.15le", v); }

TEST(CameraRecord, NewCameraEncodesDefaultsInOrder) {
  CameraPtr c(epho_CameraCreate(nullptr));
  ASSERT_TRUE(c);
  int total = 0;
  std::wstring text = Encode(c.get(), &total);
  std::wstring id =
      L";" + E(1) + L" " + E(0) + L" " + E(0) + L" " + E(0) + L" " + E(1) + L" " + E(0);
  std::wstring expected =
      L"0 0 1 0 0;0;0" + id + id + id + id + L";" + E(0) + L" " + E(0) + L" " + E(0) + L";" + E(1);
  for (int i = 0; i < 8; ++i) expected += L" " + E(0);
  expected += L";0;0;0";
  EXPECT_EQ(text, expected);
  EXPECT_EQ(total, static_cast<int>(expected.size()));
  // The first failing print ends the encoding with -1.
  Encode(c.get(), &total, 3);
  EXPECT_EQ(total, -1);
}

// A host's C++ print callback that throws: the encoder reports it (printed,
// as it takes no report) and fails with -1 instead of crossing into C.
int ThrowingPrint(void*, const Etxt_Char*, ...) { throw std::runtime_error("stream closed"); }

TEST(CameraRecord, ThrowingPrintCallbackIsTheEncodingsFailure) {
  CameraPtr c(epho_CameraCreate(nullptr));
  ASSERT_TRUE(c);
  testutil::PrintedReports printed;
  EXPECT_EQ(epho_CameraEncode(c.get(), ThrowingPrint), -1);
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"stream closed (epho_CameraEncode"), std::wstring::npos);
}

TEST(CameraRecord, EncodesStringsVectorsPhotoDirectionAndProjection) {
  CameraPtr c(camtest::MakeCamera());
  c->PhotoDirection = 4;  // refraction and curvature correction: kept as stored
  c->demsource = EMOD_DEM_FILE;
  camtest::SetText(&c->demfilename, L"dem.tif");
  camtest::SetVector(&c->LensDistortion, {3.0, 1e-9});
  c->obsoletePlaceHolder0 = camtest::Utm32();
  std::wstring text = Encode(c.get());
  EXPECT_EQ(text.rfind(L"0 0 0 4 0;8 dem.tif;0;", 0), 0u) << text;
  EXPECT_NE(text.find(L";2 " + E(3) + L" " + E(1e-9) + L";0;1;0 1 32;0;4 UTM;15 "),
            std::wstring::npos)
      << text;
  EXPECT_EQ(text.substr(text.size() - 14), L";WGS 84;WGS 84");
}

TEST(CameraRecord, ComparisonRules) {
  struct Case {
    const char* what;
    void (*change)(Epho_Camera*);
    bool same;
  };
  const Case cases[] = {
      {"inverse affines only",
       [](Epho_Camera* c) {
         c->invSrcAffine[2] += 7;
         c->invDstAffine[0] = 3;
       },
       true},
      {"forward source affine", [](Epho_Camera* c) { c->forSrcAffine[2] += 1e-9; }, false},
      {"within 1e-10", [](Epho_Camera* c) { c->coeffs[3] += 5e-11; }, true},
      {"DEM name case",
       [](Epho_Camera* c) {
         c->demsource = EMOD_DEM_FILE;
         camtest::SetText(&c->demfilename, L"DEM.TIF");
       },
       false},
      {"DEM unit case", [](Epho_Camera* c) { camtest::SetText(&c->demzunits, L"METERS"); }, true},
      {"z_mean with a DEM",
       [](Epho_Camera* c) {
         c->demsource = EMOD_DEM_FILE;
         c->z_mean = 9;
       },
       true},
      {"z_mean constant", [](Epho_Camera* c) { c->z_mean = 9; }, false},
      {"photo direction", [](Epho_Camera* c) { c->PhotoDirection = 2; }, false},
      {"lens vector", [](Epho_Camera* c) { c->LensDistortion.data[1] = 2e-9; }, false},
      {"horizontal units bytes",
       [](Epho_Camera* c) { camtest::SetText(&c->outputHorizontalUnits, L"Meters"); }, false},
      {"projection",
       [](Epho_Camera* c) {
         eprj_ProParametersFree(c->obsoletePlaceHolder0);
         c->obsoletePlaceHolder0 = camtest::Geographic();
       },
       false},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    CameraPtr a(camtest::MakeCamera());
    camtest::SetText(&a->demzunits, L"meters");
    camtest::SetText(&a->outputHorizontalUnits, L"meters");
    camtest::SetVector(&a->LensDistortion, {3.0, 1e-9});
    a->obsoletePlaceHolder0 = camtest::Utm32();
    if (std::string(k.what).find("DEM") != std::string::npos) {
      a->demsource = EMOD_DEM_FILE;
      camtest::SetText(&a->demfilename, L"dem.tif");
    }
    CameraPtr b(epho_CameraCopy(a.get(), nullptr));
    ASSERT_TRUE(b);
    EXPECT_TRUE(epho_CamerasAreSame(a.get(), b.get()));
    k.change(b.get());
    EXPECT_EQ(bool(epho_CamerasAreSame(a.get(), b.get())), k.same);
    EXPECT_EQ(bool(epho_CamerasAreSame(b.get(), a.get())), k.same);
  }
  CameraPtr a(camtest::MakeCamera());
  EXPECT_FALSE(epho_CamerasAreSame(a.get(), nullptr));
  EXPECT_TRUE(epho_CamerasAreSame(a.get(), a.get()));
  epho_CameraDelete(nullptr);  // allowed, does nothing
}

TEST(CameraRecord, CopyIsDeep) {
  CameraPtr a(camtest::MakeCamera());
  camtest::SetText(&a->demfilename, L"x.tif");
  camtest::SetVector(&a->AdditionalParameters, {6, 0, 0, 0, 1e-8, 1e-9});
  a->obsoletePlaceHolder0 = camtest::Utm32();
  CameraPtr b(epho_CameraCopy(a.get(), nullptr));
  ASSERT_TRUE(b);
  EXPECT_NE(a->demfilename.data, b->demfilename.data);
  EXPECT_NE(a->AdditionalParameters.data, b->AdditionalParameters.data);
  EXPECT_NE(a->obsoletePlaceHolder0, b->obsoletePlaceHolder0);
  EXPECT_EQ(Encode(a.get()), Encode(b.get()));
  ErrSlot err;
  EXPECT_EQ(epho_CameraCopy(nullptr, &err), nullptr);
  EXPECT_TRUE(err.From(L"epho_CameraCopy"));
}

TEST(CameraRecord, DesignDescribesTheRecordLayout) {
  ErrSlot err;
  const Emif_Design* d = epho::camera::EphoCameraDesign(&err);
  ASSERT_TRUE(d) << err.Text();
  ASSERT_EQ(emif_DesignFieldCount(d), 18);
  const struct {
    const wchar_t* name;
    size_t offset;
  } fields[] = {{L"direction", offsetof(Epho_Camera, direction)},
                {L"RotationSystem", offsetof(Epho_Camera, RotationSystem)},
                {L"demfilename", offsetof(Epho_Camera, demfilename)},
                {L"demzunits", offsetof(Epho_Camera, demzunits)},
                {L"forSrcAffine", offsetof(Epho_Camera, forSrcAffine)},
                {L"invDstAffine", offsetof(Epho_Camera, invDstAffine)},
                {L"z_mean", offsetof(Epho_Camera, z_mean)},
                {L"coeffs", offsetof(Epho_Camera, coeffs)},
                {L"LensDistortion", offsetof(Epho_Camera, LensDistortion)},
                {L"AdditionalParameters", offsetof(Epho_Camera, AdditionalParameters)},
                {L"obsoletePlaceHolder0", offsetof(Epho_Camera, obsoletePlaceHolder0)}};
  for (const auto& f : fields) {
    Emif_FieldInfo info;
    ASSERT_TRUE(emif_DesignFieldFind(d, f.name, &info)) << kzdv::ToUtf8(f.name);
    EXPECT_EQ(info.offset, f.offset) << kzdv::ToUtf8(f.name);
  }
  const Emif_Design* x = epho_CameraModelXDesignGet(&err);
  ASSERT_TRUE(x);
  EXPECT_EQ(x, epho_CameraModelXDesignGet(nullptr));  // cached
  EXPECT_EQ(emif_DesignSizeGet(x), sizeof(epho::camera::CameraModelX));
  kzdv::HeapPtr<char> text(emif_DesignTextGet(x, nullptr));
  EXPECT_NE(std::string(text.get()).find("cameraModel"), std::string::npos);
}

TEST(CameraRecord, OutputCoordinateSystemRoundTripAndDefaults) {
  CameraPtr c(camtest::MakeCamera());
  Eprj_MapProjection* proj = nullptr;
  Etxt_Char* units = nullptr;
  Eprj_ElevationInfo* elev = nullptr;
  ErrSlot err;
  // Defaults: no projection, metres, "Undefined" elevation info.
  ASSERT_TRUE(epho_CameraCoordinateSystemGet(c.get(), &proj, &units, &elev, &err)) << err.Text();
  EXPECT_EQ(proj, nullptr);
  EXPECT_STREQ(units, L"meters");
  EXPECT_STREQ(elev->datumName, L"Undefined");
  emsc_HeapFree(units);
  eprj_ElevationInfoFree(elev);
  c->obsoletePlaceHolder0 = camtest::Geographic();
  ASSERT_TRUE(epho_CameraCoordinateSystemGet(c.get(), &proj, &units, &elev, &err));
  EXPECT_STREQ(units, L"radians");
  eprj_ProjectionFree(proj);
  emsc_HeapFree(units);
  eprj_ElevationInfoFree(elev);

  // Set, then get back what was set.
  epho::camera::ParametersPtr utm(camtest::Utm32());
  epho::camera::ProjectionPtr p(eprj_ProjectionInit(utm.get(), nullptr));
  epho::camera::ElevationPtr e(
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"feet", L"height", nullptr));
  ASSERT_TRUE(epho_CameraCoordinateSystemSet(c.get(), p.get(), L"meters", e.get(), &err))
      << err.Text();
  EXPECT_TRUE(eprj_ProParametersEqual(c->obsoletePlaceHolder0, utm.get(), nullptr));
  EXPECT_EQ(c->outputHorizontalUnits.count, 7);
  ASSERT_TRUE(epho_CameraCoordinateSystemGet(c.get(), &proj, &units, &elev, &err));
  EXPECT_TRUE(eprj_ProParametersEqual(proj->proParameters, utm.get(), nullptr));
  EXPECT_STREQ(elev->datumName, L"EGM96");
  EXPECT_STREQ(elev->elevationUnit, L"feet");
  eprj_ProjectionFree(proj);
  emsc_HeapFree(units);
  eprj_ElevationInfoFree(elev);
  // Without the parameters the MIF form of the projection still gives it back
  // (the MIF form carries no datum).
  eprj_ProParametersFree(c->obsoletePlaceHolder0);
  c->obsoletePlaceHolder0 = nullptr;
  ASSERT_TRUE(epho_CameraCoordinateSystemGet(c.get(), &proj, &units, &elev, &err)) << err.Text();
  ASSERT_TRUE(proj);
  EXPECT_EQ(proj->proParameters->proNumber, EPRJ_UTM);
  EXPECT_EQ(proj->proParameters->proZone, 32);
  eprj_ProjectionFree(proj);
  emsc_HeapFree(units);
  eprj_ElevationInfoFree(elev);

  // Missing arguments: "Args", and the camera is as it was.
  std::wstring before = Encode(c.get());
  EXPECT_FALSE(epho_CameraCoordinateSystemSet(c.get(), p.get(), nullptr, e.get(), &err));
  EXPECT_TRUE(err.Has(L"Args"));
  EXPECT_FALSE(epho_CameraCoordinateSystemGet(c.get(), &proj, nullptr, &elev, &err));
  EXPECT_TRUE(err.Has(L"Args"));
  EXPECT_TRUE(err.From(L"epho_CameraCoordianteSystemGet"));
  EXPECT_EQ(Encode(c.get()), before);
}

TEST(CameraRecord, CameraModelDesignDefinedInCallersDictionary) {
  ErrSlot err;
  Emif_Dictionary* dict = emif_DictionaryCreate(nullptr);
  Emif_Design* d = epho_CameraDesignDefine(dict, &err);
  ASSERT_TRUE(d) << err.Text();
  EXPECT_TRUE(emif_FindDesignByName(dict, L"Camera_Model"));
  EXPECT_TRUE(emif_FindDesignByName(dict, L"Eprj_ProParameters"));
  Emif_FieldInfo info;
  ASSERT_TRUE(emif_DesignFieldFind(d, L"refParms", &info));
  EXPECT_EQ(info.code, 1026);
  EXPECT_EQ(info.offset, offsetof(Epho_Camera, obsoletePlaceHolder0));
  EXPECT_EQ(emif_DesignFieldCount(d), 18);
  emif_DesignDestroy(d);
  emif_DictionaryDestroy(dict);
  testutil::PrintedReports printed;
  EXPECT_EQ(epho_CameraDesignDefine(nullptr, nullptr), nullptr);
  ErrSlot kept;
  EXPECT_EQ(epho_CameraDesignDefine(nullptr, &kept), nullptr);
  EXPECT_EQ(kept.report, nullptr);  // printed and dropped, never handed out
  ASSERT_EQ(printed.texts().size(), 2u);
  EXPECT_NE(printed.texts()[0].find(L"epho_CameraDesignDefine"), std::wstring::npos);
}

}  // namespace
