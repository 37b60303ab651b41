// Camera transform objects: bad input, image pairs, the exfr registration,
// MIF and HFA round trips (read back in another process, opened by GDAL),
// the older layout, and many threads on one cached DEM.
#include <gdal_alg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "ehfa.h"
#include "eint.h"
#include "epho/camera/camera_internal.h"
#include "epho/camera/camera_testing_internal.h"
#include "epmg.h"
#include "platform/estr/utf8.h"

#if defined(__SANITIZE_THREAD__)
// GDAL creates its global mutexes under another mutex in an order that
// ThreadSanitizer reports as a possible inversion inside libgdal itself.
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions() {
  return "deadlock:libgdal.so\n";
}
#endif

namespace {

using camtest::ErrSlot;
using epho::camera::CameraPtr;
using epho::camera::ExfrPtr;
using epho::camera::XformPtr;

std::wstring Encoded(const Epho_Camera* c) {
  struct Sink {
    static int Print(void* ctx, const Etxt_Char* format, ...) {
      va_list trailing;
      va_copy(trailing, *static_cast<va_list*>(ctx));
      std::wstring* out = va_arg(trailing, std::wstring*);
      va_end(trailing);
      va_list args;
      va_start(args, format);
      *out += kzdv::FormatV(format, args);
      va_end(args);
      return 1;
    }
  };
  std::wstring text;
  epho_CameraEncode(c, Sink::Print, &text);
  return text;
}

TEST(CameraXform, BadInputIsReportedAndLeavesTheObjectAsItWas) {
  testutil::ScratchDir dir("camera_bad");
  const std::string junk = dir.File("junk.tif");
  std::ofstream(junk) << "not a raster";
  struct Case {
    const char* what;
    void (*spoil)(Epho_Camera*, const std::wstring&);
    bool cached;
    const wchar_t* message;
  };
  const Case cases[] = {
      {"tangent plane without projection",
       [](Epho_Camera* c, const std::wstring&) { c->refType = EMOD_TANGENT_PLANE; }, false,
       L"The camera has no projection parameters for a tangent plane"},
      {"missing DEM",
       [](Epho_Camera* c, const std::wstring&) {
         c->demsource = EMOD_DEM_FILE;
         camtest::SetText(&c->demfilename, L"/nonexistent/dem.tif");
       },
       false, L"Cannot open DEM file."},
      {"missing DEM through the cache",
       [](Epho_Camera* c, const std::wstring&) {
         c->demsource = EMOD_DEM_FILE;
         camtest::SetText(&c->demfilename, L"/nonexistent/dem.tif");
       },
       true, L"CachedDEMLayerGet failed"},
      {"unreadable DEM",
       [](Epho_Camera* c, const std::wstring& junk) {
         c->demsource = EMOD_DEM_FILE;
         camtest::SetText(&c->demfilename, junk.c_str());
       },
       false, L"Cannot open DEM file."},
      {"no DEM name", [](Epho_Camera* c, const std::wstring&) { c->demsource = EMOD_DEM_FILE; },
       false, L"DEM file not available"},
      {"singular affine",
       [](Epho_Camera* c, const std::wstring&) {
         camtest::SetAffine(c->forSrcAffine, {1, 2, 0, 2, 4, 0});
       },
       false, L"The affine forSrcAffine is singular"},
      {"zero focal length", [](Epho_Camera* c, const std::wstring&) { c->coeffs[0] = 0.0; }, false,
       L"The focal length is zero or not finite"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    Epho_Camera* c = camtest::MakeCamera();
    k.spoil(c, kzdv::FromUtf8(junk));
    XformPtr x(epho_CameraXformGetFromCameraData(c, nullptr));
    const std::wstring before = Encoded(x->camera);
    epmg_SetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", k.cached);
    ErrSlot err;
    EXPECT_FALSE(epho_CameraXformFillNoMIFData(x.get(), &err));
    EXPECT_TRUE(err.From(L"epho_CameraXformFillNoMIFData")) << err.Text();
    EXPECT_TRUE(err.Has(k.message)) << err.Text();
    EXPECT_FALSE(x->filled);
    EXPECT_EQ(x->demLayer, nullptr);
    EXPECT_EQ(Encoded(x->camera), before);
    // A transform tries the preparation again and names it.
    double p[2] = {100, 100};
    ErrSlot err2;
    EXPECT_FALSE(epho_CameraXformTransform(x.get(), 1, p, nullptr, &err2));
    EXPECT_TRUE(err2.Has(L"epho_CameraXformFillNoMIFData failed")) << err2.Text();
    EXPECT_EQ(p[0], 100.0);
    epmg_ClearPreferences();
  }
  // Not-a-number coordinates, and no camera at all.
  XformPtr x(epho_CameraXformGetFromCameraData(camtest::MakeCamera(), nullptr));
  double p[3] = {100, std::nan(""), 400};
  ErrSlot err;
  EXPECT_FALSE(epho_CameraXformTransform(x.get(), 1, p, nullptr, &err));
  EXPECT_TRUE(err.Has(L"Point 0 is not finite"));
  ErrSlot err2;
  EXPECT_FALSE(epho_CameraXformTransform3DTo2D(x.get(), 1, p, nullptr, &err2));
  EXPECT_TRUE(err2.From(L"epho_CameraXformTransform3DTo2D"));
  EXPECT_TRUE(std::isnan(p[1]));
  XformPtr empty(epho_CameraXformCreate(nullptr));
  ErrSlot err3;
  EXPECT_FALSE(epho_CameraXformFillNoMIFData(empty.get(), &err3));
  EXPECT_TRUE(err3.Has(L"Invalid input camera xform data."));
  epho_CameraXformDelete(nullptr);
}

// Two overlapping photographs 600 m apart.
std::pair<XformPtr, XformPtr> Pair() {
  Epho_Camera* a = camtest::MakeCamera();
  Epho_Camera* b = camtest::MakeCamera();
  b->coeffs[3] += 600.0;
  b->coeffs[8] = 0.33;
  camtest::SetVector(&b->LensDistortion, camtest::ScaledModel(false, 11, 2, 7));
  XformPtr xa(epho_CameraXformGetFromCameraData(a, nullptr));
  XformPtr xb(epho_CameraXformGetFromCameraData(b, nullptr));
  return {std::move(xa), std::move(xb)};
}

TEST(CameraXform, ImagePairIntersectsAtTheGroundPoint) {
  auto [a, b] = Pair();
  std::vector<double> ground, pa, pb;
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 5; ++j)
      ground.insert(ground.end(), {camtest::kX0 + 100 + 120.0 * i, camtest::kY0 - 300 + 130.0 * j,
                                   350.0 + 17 * i});
  const long n = long(ground.size() / 3);
  pa.resize(2 * n), pb.resize(2 * n);
  ErrSlot err;
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(a.get(), n, ground.data(), pa.data(), &err));
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(b.get(), n, ground.data(), pb.data(), &err));
  std::vector<double> out(3 * n);
  ASSERT_TRUE(epho_CameraXformTransform2DPairTo3D(a.get(), b.get(), n, pa.data(), pb.data(),
                                                  out.data(), &err))
      << err.Text();
  for (long i = 0; i < 3 * n; ++i) EXPECT_NEAR(out[i], ground[i], 2e-3);  // metres
  // The kernel reports parallel rays (the same ray twice).
  double g[3];
  EXPECT_TRUE(epho_ImageToObject(a->orientation, a->orientation, 1, 2, 1, 2, g));
  // Different reference frames cannot be intersected.
  b->camera->refType = EMOD_TANGENT_PLANE;
  ErrSlot err2;
  EXPECT_FALSE(epho_CameraXformTransform2DPairTo3D(a.get(), b.get(), n, pa.data(), pb.data(),
                                                   out.data(), &err2));
  EXPECT_TRUE(err2.Has(L"Different reference types for two xforms."));
}

TEST(CameraXform, ExfrSensorModelGivesRaysThroughTheGround) {
  auto [a, b] = Pair();
  ErrSlot err;
  ExfrPtr t(epho_CameraXformToExfr(b.get(), &err));
  ASSERT_TRUE(t) << err.Text();
  ASSERT_TRUE(exfr_XFormSensorModelGet(t.get(), epho_CameraXformSensorOps()));
  const double ground[3] = {camtest::kX0 + 450, camtest::kY0 - 220, 380};
  double image[2], origin[3], dir[3];
  ASSERT_TRUE(exfr_GroundToImage(t.get(), 1, ground, image, &err)) << err.Text();
  ASSERT_TRUE(exfr_ImageToGroundRay(t.get(), image[0], image[1], origin, dir, &err)) << err.Text();
  // The ground point lies on the ray: (P - O) x d = 0, and ahead of the camera.
  const double v[3] = {ground[0] - origin[0], ground[1] - origin[1], ground[2] - origin[2]};
  const double cx = v[1] * dir[2] - v[2] * dir[1], cy = v[2] * dir[0] - v[0] * dir[2],
               cz = v[0] * dir[1] - v[1] * dir[0];
  const double norm = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
  EXPECT_LT(std::sqrt(cx * cx + cy * cy + cz * cz) / norm, 1e-4);  // metres off the ray
  EXPECT_GT(v[0] * dir[0] + v[1] * dir[1] + v[2] * dir[2], 0.0);
  // exfr_Transform runs the camera's own direction at its heights.
  Efga_Matrix* m = efga_MatrixCreate(2, 1, nullptr);
  m->data[0] = ground[0], m->data[1] = ground[1];
  ASSERT_TRUE(exfr_Transform(t.get(), m, m, &err)) << err.Text();
  double expected[3] = {ground[0], ground[1], b->camera->z_mean}, px[2];
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(b.get(), 1, expected, px, nullptr));
  EXPECT_NEAR(m->data[0], px[0], 1e-9);
  efga_MatrixFree(m);
}

// A camera with everything a record can hold.
Epho_Camera* FullCamera() {
  Epho_Camera* c = camtest::MakeCamera();
  c->PhotoDirection = 3;
  c->demsource = EMOD_DEM_FILE;
  camtest::SetText(&c->demfilename, L"/data/Block 7/dem.img");
  camtest::SetText(&c->demzunits, L"feet");
  camtest::SetVector(&c->LensDistortion, camtest::ScaledModel(false, 26, 1, 9));
  camtest::SetVector(&c->AdditionalParameters, camtest::ScaledModel(true, 18, 4, 9));
  epho::camera::ParametersPtr utm(camtest::Utm32());
  epho::camera::ProjectionPtr p(eprj_ProjectionInit(utm.get(), nullptr));
  epho::camera::ElevationPtr e(
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"meter", L"height", nullptr));
  EXPECT_TRUE(epho_CameraCoordinateSystemSet(c, p.get(), L"meters", e.get(), nullptr));
  return c;
}

TEST(CameraXform, MifConversionRoundTrip) {
  XformPtr x(epho_CameraXformGetFromCameraData(FullCamera(), nullptr));
  Emif_Design* design = nullptr;
  void* object = nullptr;
  ErrSlot err;
  ASSERT_TRUE(epho_CameraXformConvertToMIFable(x.get(), &design, &object, &err)) << err.Text();
  EXPECT_STREQ(emif_DesignNameGet(design), L"Camera_ModelX");
  XformPtr back(epho_CameraXformConvertFromMIFable(design, object, &err));
  ASSERT_TRUE(back) << err.Text();
  EXPECT_TRUE(epho_CamerasAreSame(x->camera, back->camera));
  EXPECT_EQ(Encoded(x->camera), Encoded(back->camera));
  emif_ObjectFree(design, object, nullptr);
  emif_DesignDestroy(design);
  ErrSlot err2;
  EXPECT_EQ(epho_CameraXformConvertFromMIFable(nullptr, object, &err2), nullptr);
  EXPECT_TRUE(err2.Has(L"NULL xFormDesign"));
  EXPECT_FALSE(epho_CameraXformConvertToMIFable(x.get(), nullptr, &object, &err2));
  EXPECT_TRUE(err2.Has(L"Args"));
}

TEST(CameraXform, HfaRoundTripInAnotherProcessAndGdalStillOpensTheFile) {
  testutil::ScratchDir dir("camera_hfa");
  const std::string path = dir.File("block.img");
  GDALAllRegister();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), path.c_str(), 8, 8, 1, GDT_Byte, nullptr);
  std::vector<unsigned char> pixels(64);
  for (int i = 0; i < 64; ++i) pixels[i] = static_cast<unsigned char>(i * 3);
  ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, 8, 8, pixels.data(), 8, 8,
                         GDT_Byte, 0, 0),
            CE_None);
  const int checksum = GDALChecksumImage(GDALGetRasterBand(ds, 1), 0, 0, 8, 8);
  GDALClose(ds);

  XformPtr x(epho_CameraXformGetFromCameraData(FullCamera(), nullptr));
  Emif_Design* design = nullptr;
  void* object = nullptr;
  ErrSlot err;
  ASSERT_TRUE(epho_CameraXformConvertToMIFable(x.get(), &design, &object, &err)) << err.Text();
  Ehfa_File* f = ehfa_FileOpen(kzdv::FromUtf8(path).c_str(), "r+b", eint_GetInit(nullptr), &err);
  ASSERT_TRUE(f) << err.Text();
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"CameraModel", EHFA_WRITE_REPLACE, design, object, &err))
      << err.Text();
  ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();
  emif_ObjectFree(design, object, nullptr);
  emif_DesignDestroy(design);

  // A fresh process reads the node with the file's own dictionary.
  fflush(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Ehfa_File* in =
        ehfa_FileOpen(kzdv::FromUtf8(path).c_str(), "r", eint_GetInit(nullptr), nullptr);
    const Emif_Design* d = nullptr;
    void* o = nullptr;
    if (!in || !ehfa_ObjectRead(in, EHFA_SEEK_BY_NAME, L":", L"CameraModel", &d, &o, nullptr))
      _exit(2);
    Epho_CameraXform* back = epho_CameraXformConvertFromMIFable(d, o, nullptr);
    Epho_Camera* expected = FullCamera();
    const bool same = back && epho_CamerasAreSame(expected, back->camera) &&
                      Encoded(expected) == Encoded(back->camera);
    _exit(same ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: not read, 3: not the same camera";

  ds = GDALOpen(path.c_str(), GA_ReadOnly);
  ASSERT_TRUE(ds) << CPLGetLastErrorMsg();
  EXPECT_EQ(GDALChecksumImage(GDALGetRasterBand(ds, 1), 0, 0, 8, 8), checksum);
  GDALClose(ds);
}

TEST(CameraXform, OlderCameraModelLayoutReads) {
  Emif_Dictionary* dict = emif_DictionaryCreate(nullptr);
  ErrSlot err;
  Emif_Design* old = epho_CameraDesignDefine(dict, &err);
  ASSERT_TRUE(old) << err.Text();
  CameraPtr c(camtest::MakeCamera());
  c->RotationSystem = EPHO_PHIPLUS_OMEGA_KAPPA;
  camtest::SetVector(&c->LensDistortion, {3.0, 1e-9, 2e-14});
  epho::camera::ParametersPtr utm(camtest::Utm32());
  epho::camera::ProjectionPtr p(eprj_ProjectionInit(utm.get(), nullptr));
  Emif_Design* pd = nullptr;
  void* parms = nullptr;
  ASSERT_TRUE(eprj_ProjectionConvertToMIFable(nullptr, p.get(), &pd, &parms, &err)) << err.Text();
  // An older record: the camera's seventeen fields, then "refParms".
  Epho_Camera record;
  std::memcpy(&record, c.get(), sizeof record);
  record.obsoletePlaceHolder0 = static_cast<Eprj_ProParameters*>(parms);
  XformPtr x(epho_CameraXformConvertFromMIFable(old, &record, &err));
  ASSERT_TRUE(x) << err.Text();
  ASSERT_TRUE(x->camera->obsoletePlaceHolder0);
  EXPECT_EQ(x->camera->obsoletePlaceHolder0->proNumber, EPRJ_UTM);
  EXPECT_EQ(x->camera->obsoletePlaceHolder0->proZone, 32);
  eprj_ProParametersFree(x->camera->obsoletePlaceHolder0);
  x->camera->obsoletePlaceHolder0 = nullptr;
  EXPECT_TRUE(epho_CamerasAreSame(c.get(), x->camera));
  emif_ObjectFree(pd, parms, nullptr);
  emif_DesignDestroy(pd);
  emif_DesignDestroy(old);
  emif_DictionaryDestroy(dict);
}

TEST(CameraXform, ConcurrentTransformObjectsOnOneCachedDem) {
  testutil::ScratchDir dir("camera_threads");
  const std::string dem = camtest::WriteDem(dir.File("dem.tif"), [](int c, int r) {
    return float(380 + 0.5 * c - 0.3 * r + (c * r % 5));
  });
  auto run = [&](std::vector<double>* out) {
    Epho_Camera* c = camtest::MakeCamera();
    c->direction = EMOD_INVERSE;
    c->demsource = EMOD_DEM_FILE;
    camtest::SetText(&c->demfilename, kzdv::FromUtf8(dem).c_str());
    XformPtr x(epho_CameraXformGetFromCameraData(c, nullptr));
    Eerr_ErrorReport* err = nullptr;
    std::vector<double> pts;
    for (int i = 0; i < 400; ++i) pts.insert(pts.end(), {1000.0 + 23.5 * i, 9000.0 - 17.25 * i});
    out->resize(pts.size());
    if (!epho_CameraXformTransform(x.get(), long(pts.size() / 2), pts.data(), out->data(), &err))
      out->clear();
    eerr_DeleteErrorReport(err);
  };
  epmg_SetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", EMSC_TRUE);
  std::vector<double> single;
  run(&single);
  ASSERT_EQ(single.size(), 800u);
  std::vector<std::vector<double>> results(8);
  std::vector<std::thread> threads;
  for (auto& r : results) threads.emplace_back(run, &r);
  for (auto& t : threads) t.join();
  epmg_ClearPreferences();
  for (const auto& r : results) EXPECT_EQ(r, single);
}

}  // namespace
