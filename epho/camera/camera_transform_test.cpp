// Frame camera transforms: round trips in both reference frames for every
// distortion model and correction, the DEM iteration against an independent
// run of its rule on GDAL's cells, and agreement with OpenCV and PROJ.
#include <proj.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "emod.h"
#include "epho/angles.h"
#include "epho/camera/camera_internal.h"
#include "epho/camera/camera_testing_internal.h"
#include "epmg.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

#ifdef EPHO_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

using camtest::ErrSlot;
using epho::camera::CameraPtr;
using epho::camera::ExfrPtr;
using epho::camera::XformPtr;

constexpr double kEarth = 6378137.0;
constexpr double kLat0 = 0.82, kLon0 = 0.17;  // radians

XformPtr Prepared(Epho_Camera* camera) {
  XformPtr x(epho_CameraXformGetFromCameraData(camera, nullptr));
  ErrSlot err;
  EXPECT_TRUE(epho_CameraXformFillNoMIFData(x.get(), &err)) << err.Text();
  return x;
}

// A tangent-plane camera 1500 m above the origin of its plane, ground in
// geographic coordinates (radians) on WGS 84.
Epho_Camera* TangentCamera() {
  Epho_Camera* c = camtest::MakeCamera();
  c->refType = EMOD_TANGENT_PLANE;
  c->lat0 = kLat0;
  c->lon0 = kLon0;
  c->coeffs[3] = 40.0;
  c->coeffs[4] = -25.0;
  c->coeffs[5] = 1500.0;
  c->z_mean = 0.0;
  c->obsoletePlaceHolder0 = camtest::Geographic();
  return c;
}

// Ground points of the footprint: (x, y, z) in the camera's ground system.
std::vector<double> GroundGrid(bool tangent) {
  std::vector<double> g;
  for (int i = -3; i <= 3; ++i)
    for (int j = -3; j <= 3; ++j) {
      const double e = 260.0 * i + 7.0, n = 250.0 * j - 11.0, h = 10.0 * ((i * j) % 3);
      if (tangent) {
        g.insert(g.end(), {kLon0 + e / (kEarth * std::cos(kLat0)), kLat0 + n / kEarth, h});
      } else {
        g.insert(g.end(), {camtest::kX0 + e, camtest::kY0 + n, 400.0 + h});
      }
    }
  return g;
}

// Ground distance in metres between two ground points of the system.
double GroundDistance(bool tangent, const double* a, const double* b) {
  if (!tangent) return std::hypot(a[0] - b[0], a[1] - b[1]);
  return std::hypot((a[0] - b[0]) * kEarth * std::cos(kLat0), (a[1] - b[1]) * kEarth);
}

TEST(CameraTransform, RoundTripsEveryDistortionModelCorrectionAndFrame) {
  for (bool tangent : {false, true})
    for (const auto& model : camtest::AllDistortionModels())
      for (int photo_direction : {0, 2, 3, 4}) {
        SCOPED_TRACE(std::string(tangent ? "tangent " : "cartesian ") + model.name + " " +
                     (model.values.empty() ? "" : std::to_string(int(model.values[0]))) +
                     " correction " + std::to_string(photo_direction));
        Epho_Camera* c = tangent ? TangentCamera() : camtest::MakeCamera();
        c->PhotoDirection = photo_direction;
        if (!model.values.empty())
          camtest::SetVector(model.secondary ? &c->AdditionalParameters : &c->LensDistortion,
                             model.values);
        XformPtr x = Prepared(c);
        ErrSlot err;
        ExfrPtr t(epho_CameraXformToExfr(x.get(), &err));
        ASSERT_TRUE(t) << err.Text();
        std::vector<double> ground = GroundGrid(tangent);
        const long n = long(ground.size() / 3);
        std::vector<double> image(2 * n), back(2 * n), z(n), again(2 * n);
        for (long i = 0; i < n; ++i) z[i] = ground[3 * i + 2];
        ASSERT_TRUE(exfr_GroundToImage(t.get(), n, ground.data(), image.data(), &err))
            << err.Text();
        ASSERT_TRUE(
            exfr_ImageAndGroundZToGroundXY(t.get(), n, image.data(), z.data(), back.data(), &err))
            << err.Text();
        double worst_ground = 0, worst_pixels = 0;
        for (long i = 0; i < n; ++i) {
          const double g[2] = {back[2 * i], back[2 * i + 1]};
          worst_ground = std::max(worst_ground, GroundDistance(tangent, &ground[3 * i], g));
        }
        EXPECT_LT(worst_ground, 1e-3);  // metres
        // Image -> ground -> image from the pixels found.
        std::vector<double> ground2(3 * n);
        for (long i = 0; i < n; ++i)
          ground2[3 * i] = back[2 * i], ground2[3 * i + 1] = back[2 * i + 1],
                      ground2[3 * i + 2] = z[i];
        ASSERT_TRUE(exfr_GroundToImage(t.get(), n, ground2.data(), again.data(), &err));
        for (long i = 0; i < n; ++i)
          worst_pixels = std::max(worst_pixels, std::hypot(again[2 * i] - image[2 * i],
                                                           again[2 * i + 1] - image[2 * i + 1]));
        EXPECT_LT(worst_pixels, 0.01);
        // The points really lie on the film.
        for (long i = 0; i < n; ++i) {
          EXPECT_GT(image[2 * i], 0);
          EXPECT_LT(image[2 * i], 2 * camtest::kHalf);
        }
      }
}

// The Cartesian batch transforms give, bit for bit, the per-point functions
// composed in their documented order, for every distortion model and
// correction; 300 points span more than one staging block and leave a tail
// after the vector lanes.
TEST(CameraTransform, CartesianTransformsAreThePerPointComposition) {
  const long n = 300;
  std::vector<double> X(n), Y(n), Z(n);
  for (long i = 0; i < n; ++i)
    X[i] = camtest::kX0 + 37.0 * (i % 20) - 350.0, Y[i] = camtest::kY0 + 41.0 * (i / 20) - 300.0,
    Z[i] = 400.0 + 3.0 * (i % 7);
  for (const auto& model : camtest::AllDistortionModels())
    for (int photo_direction : {0, 2, 4}) {
      SCOPED_TRACE(std::string(model.name) + " correction " + std::to_string(photo_direction));
      Epho_Camera* c = camtest::MakeCamera();
      c->PhotoDirection = photo_direction;
      const Epho_CountedDoubles* lens = nullptr;
      const Epho_CountedDoubles* additional = nullptr;
      if (!model.values.empty()) {
        Epho_CountedDoubles* record =
            model.secondary ? &c->AdditionalParameters : &c->LensDistortion;
        camtest::SetVector(record, model.values);
        (model.secondary ? additional : lens) = record;
      }
      XformPtr x = Prepared(c);
      epho::camera::MatrixPtr in(efga_MatrixCreate(2, n, nullptr)),
          out(efga_MatrixCreate(2, n, nullptr)), back(efga_MatrixCreate(2, n, nullptr));
      for (long i = 0; i < n; ++i) in->data[2 * i] = X[i], in->data[2 * i + 1] = Y[i];
      std::vector<double> z(Z);
      ASSERT_TRUE(epho_CameraForTransCartesian(x.get(), z.data(), in.get(), out.get(), nullptr));
      ASSERT_TRUE(epho_CameraInvTransCartesian(x.get(), z.data(), out.get(), back.get(), nullptr));
      int differ = 0;
      for (long i = 0; i < n; ++i) {
        double fx, fy, dx = 0, dy = 0;
        ASSERT_FALSE(epho_CameraObjectToImage(x->orientation, X[i], Y[i], Z[i], &fx, &fy));
        if (photo_direction > 1)
          epho_CameraAwayCorrection(photo_direction, c->coeffs[5], Z[i], c->coeffs[0], &fx, &fy, 0);
        if (lens || additional) {
          epho_CameraAwayDistortion(lens, additional, fx, fy, &dx, &dy);
          fx += dx, fy += dy;
        }
        differ += out->data[2 * i] != fx || out->data[2 * i + 1] != fy;
        // Inverse: distortion off in one step, correction undone, intersection.
        double ix = out->data[2 * i], iy = out->data[2 * i + 1], gx, gy;
        if (lens || additional) {
          epho_CameraAwayDistortion(lens, additional, ix, iy, &dx, &dy);
          ix -= dx, iy -= dy;
        }
        if (photo_direction > 1)
          epho_CameraAwayCorrection(photo_direction, c->coeffs[5], Z[i], c->coeffs[0], &ix, &iy, 1);
        ASSERT_FALSE(
            epho_CameraImageAndZToXY(x->orientation, photo_direction, ix, iy, Z[i], &gx, &gy));
        differ += back->data[2 * i] != gx || back->data[2 * i + 1] != gy;
      }
      EXPECT_EQ(differ, 0);
    }
}

TEST(CameraTransform, TangentForwardWritesTheShiftedHeightBack) {
  Epho_Camera* c = TangentCamera();
  epho::camera::ProjectionPtr p(eprj_ProjectionInit(c->obsoletePlaceHolder0, nullptr));
  epho::camera::ElevationPtr e(
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"meter", L"height", nullptr));
  ASSERT_TRUE(epho_CameraCoordinateSystemSet(c, p.get(), L"radians", e.get(), nullptr));
  XformPtr x = Prepared(c);
  ASSERT_TRUE(x->elevationDatum);
  kzdv::HeapPtr<Etxt_Char> note(epho_DatumZShiftNote(x->projectionDatum, x->elevationDatum));
  if (note) GTEST_SKIP() << "no geoid grid: " << kzdv::ToUtf8(note.get());
  std::vector<double> g = GroundGrid(true);
  const long n = long(g.size() / 3);
  epho::camera::MatrixPtr in(efga_MatrixCreate(2, n, nullptr));
  std::vector<double> z(n);
  for (long i = 0; i < n; ++i)
    in->data[2 * i] = g[3 * i], in->data[2 * i + 1] = g[3 * i + 1], z[i] = g[3 * i + 2];
  ASSERT_TRUE(epho_CameraForTransTangent(x.get(), z.data(), in.get(), in.get(), nullptr));
  for (long i = 0; i < n; ++i) {
    const double s =
        epho_CalculateZShift(x->projectionDatum, x->elevationDatum, g[3 * i], g[3 * i + 1]);
    EXPECT_GT(std::fabs(s), 1.0);  // EGM96 is tens of metres off the ellipsoid here
    EXPECT_EQ(z[i], g[3 * i + 2] - s);
  }
}

TEST(CameraTransform, TangentFrameAgreesWithProjTopocentric) {
  XformPtr tangent = Prepared(TangentCamera());
  // The same camera in a Cartesian frame that is PROJ's topocentric frame.
  Epho_Camera* c = TangentCamera();
  c->refType = EMOD_CARTESIAN;
  XformPtr cartesian = Prepared(c);
  PJ_CONTEXT* ctx = proj_context_create();
  char def[256];
  std::snprintf(def, sizeof def,
                "+proj=pipeline +step +proj=cart +ellps=WGS84 +step +proj=topocentric "
                "+ellps=WGS84 +lat_0=%.17g +lon_0=%.17g +h_0=0",
                kLat0 * 180 / M_PI, kLon0 * 180 / M_PI);
  PJ* topo = proj_create(ctx, def);
  ASSERT_TRUE(topo);
  std::vector<double> g = GroundGrid(true);
  for (size_t i = 0; i < g.size(); i += 3) {
    PJ_COORD in = proj_coord(g[i], g[i + 1], g[i + 2], 0);
    PJ_COORD t = proj_trans(topo, PJ_FWD, in);
    // Film of the geographic point through the tangent camera ...
    double h = g[i + 2], film[2];
    Efga_Matrix m{2, 1, film};
    film[0] = g[i], film[1] = g[i + 1];
    ASSERT_TRUE(epho_CameraForTransTangent(tangent.get(), &h, &m, &m, nullptr));
    // ... back to the ground of PROJ's frame at PROJ's height.
    double zt = t.xyz.z;
    ASSERT_TRUE(epho_CameraInvTransCartesian(cartesian.get(), &zt, &m, &m, nullptr));
    EXPECT_NEAR(film[0], t.xyz.x, 1e-6);
    EXPECT_NEAR(film[1], t.xyz.y, 1e-6);
  }
  proj_destroy(topo);
  proj_context_destroy(ctx);
}

#ifdef EPHO_HAVE_OPENCV
TEST(CameraTransform, ModelBDistortionMatchesOpenCvProjectPoints) {
  const double k1 = -0.08, k2 = 0.03, k3 = -0.01, p1 = 4e-4, p2 = -3e-4, f = camtest::kFocal;
  Epho_Camera* c = camtest::MakeCamera();
  camtest::SetAffine(c->invSrcAffine, {1, 0, 0, 0, 1, 0});  // film out
  camtest::SetVector(&c->LensDistortion, {2, 1, 0, 0, -k1 / (f * f), -k2 / std::pow(f, 4),
                                          -k3 / std::pow(f, 6), -p2 / f, p1 / f, 0, 0});
  XformPtr x = Prepared(c);
  // Camera frame of the kernel: (u, v, w) = R^T (P - C), film x = -f u / w,
  // y = -f v / w. OpenCV looks along +z: X_c = (u, -v, -w), fy = -f.
  double angles[3] = {x->camera->coeffs[6], x->camera->coeffs[7], x->camera->coeffs[8]};
  double r[9];
  epho_RotateAll(angles, r, 2);
  cv::Matx33d rt(r[0], r[3], r[6], r[1], r[4], r[7], r[2], r[5], r[8]);
  cv::Matx33d cv_r = cv::Matx33d(1, 0, 0, 0, -1, 0, 0, 0, -1) * rt;
  // World origin at the perspective centre, so that OpenCV's rotation meets
  // no five-million-metre coordinates.
  cv::Vec3d tvec(0, 0, 0);
  cv::Mat rvec;
  cv::Rodrigues(cv::Mat(cv_r), rvec);
  cv::Matx33d k(f, 0, 0, 0, -f, 0, 0, 0, 1);
  std::vector<double> dist = {k1, k2, p1, p2, k3};
  std::vector<double> g = GroundGrid(false);
  const long n = long(g.size() / 3);
  std::vector<cv::Point3d> object;
  for (long i = 0; i < n; ++i)
    object.emplace_back(g[3 * i] - camtest::kX0, g[3 * i + 1] - camtest::kY0,
                        g[3 * i + 2] - camtest::kZ0);
  std::vector<cv::Point2d> expected;
  cv::projectPoints(object, rvec, cv::Mat(tvec), cv::Mat(k), dist, expected);
  std::vector<double> ours(3 * n, 0.0);
  std::copy(g.begin(), g.end(), ours.begin());
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(x.get(), n, ours.data(), nullptr, nullptr));
  for (long i = 0; i < n; ++i) {
    EXPECT_NEAR(ours[2 * i], expected[i].x, 1e-9);
    EXPECT_NEAR(ours[2 * i + 1], expected[i].y, 1e-9);
  }
}
#endif

// ---- heights from a DEM -------------------------------------------------------

struct DemScene {
  testutil::ScratchDir dir{"camera_dem"};
  std::string path;
  std::vector<float> cells;
  double nodata;
  DemScene(const std::function<float(int, int)>& h, double null_value = -9999.0)
      : nodata(null_value) {
    path = camtest::WriteDem(dir.File("dem.tif"), h, null_value);
    cells.resize(size_t(camtest::kDemSize) * camtest::kDemSize);
    for (int r = 0; r < camtest::kDemSize; ++r)
      for (int c = 0; c < camtest::kDemSize; ++c)
        cells[size_t(r) * camtest::kDemSize + c] = h(c, r);
  }
  double Mean() const {
    double s = 0;
    long k = 0;
    for (float v : cells)
      if (v != nodata) s += v, ++k;
    return s / k;
  }
  // The iteration rule run on GDAL's cells: at most ten reads, null cells to
  // z_mean, stop once the height changes by 1.0 or less.
  // Returns the number of reads.
  int Iterate(const Epho_CameraXform* x, double fx, double fy, double* X, double* Y) const {
    double Z = x->camera->z_mean;
    epho_CameraImageAndZToXY(x->orientation, 0, fx, fy, Z, X, Y);
    int k = 0;
    while (k < 10) {
      ++k;
      const long c = long((*X - camtest::kDemX) / camtest::kCell);
      const long r = long((camtest::kDemY - *Y) / camtest::kCell);
      const double v = cells[size_t(r) * camtest::kDemSize + size_t(c)];
      const double Zn = std::fabs(v - nodata) >= 1e-10 ? v : x->camera->z_mean;
      epho_CameraImageAndZToXY(x->orientation, 0, fx, fy, Zn, X, Y);
      const bool settled = std::fabs(Zn - Z) <= 1.0;
      Z = Zn;
      if (settled) break;
    }
    return k;
  }
  XformPtr Inverse(bool cached) const {
    Epho_Camera* c = camtest::MakeCamera();
    c->direction = EMOD_INVERSE;
    c->demsource = EMOD_DEM_FILE;
    camtest::SetText(&c->demfilename, kzdv::FromUtf8(path).c_str());
    epmg_SetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", cached);
    XformPtr x = Prepared(c);
    epmg_ClearPreferences();
    return x;
  }
};

std::vector<double> PixelGrid() {
  std::vector<double> p;
  for (int i = 0; i < 9; ++i)
    for (int j = 0; j < 9; ++j) p.insert(p.end(), {1500.0 + 1000.0 * i + 3, 1400.0 + 1010.0 * j});
  return p;
}

TEST(CameraTransform, DemIterationFollowsItsRuleOnEveryKindOfTerrain) {
  struct Terrain {
    const char* name;
    std::function<float(int, int)> height;
  };
  const Terrain terrains[] = {
      {"gentle slope", [](int c, int r) { return float(380 + 0.5 * c - 0.3 * r); }},
      {"rough: never settles", [](int c, int r) { return float((c / 3 + r / 5) % 2 ? 900 : 100); }},
      {"null hole",
       [](int c, int r) { return (c > 100 && c < 200) ? -9999.0f : float(400 + 0.2 * r); }},
  };
  for (const Terrain& t : terrains)
    for (bool cached : {false, true}) {
      SCOPED_TRACE(std::string(t.name) + (cached ? " cached" : " direct"));
      DemScene scene(t.height);
      XformPtr x = scene.Inverse(cached);
      ASSERT_TRUE(x->filled);
      EXPECT_NEAR(x->camera->z_mean, scene.Mean(), 1e-3);
      std::vector<double> pixels = PixelGrid();
      const long n = long(pixels.size() / 2);
      std::vector<double> ground(2 * n);
      ErrSlot err;
      ASSERT_TRUE(epho_CameraXformTransform(x.get(), n, pixels.data(), ground.data(), &err))
          << err.Text();
      int most_reads = 0;
      for (long i = 0; i < n; ++i) {
        const double* a = x->camera->forSrcAffine;
        const double fx = a[0] * pixels[2 * i] + a[1] * pixels[2 * i + 1] + a[2];
        const double fy = a[3] * pixels[2 * i] + a[4] * pixels[2 * i + 1] + a[5];
        double X, Y;
        most_reads = std::max(most_reads, scene.Iterate(x.get(), fx, fy, &X, &Y));
        EXPECT_DOUBLE_EQ(ground[2 * i], X);
        EXPECT_DOUBLE_EQ(ground[2 * i + 1], Y);
      }
      // The rough terrain runs into the cap of ten reads somewhere.
      if (std::string(t.name).rfind("rough", 0) == 0) {
        EXPECT_EQ(most_reads, 10);
      }
    }
}

TEST(CameraTransform, DemIteratedInverseLandsOnTheSurface) {
  DemScene scene([](int c, int r) { return float(380 + 0.5 * c - 0.3 * r); });
  XformPtr inverse = scene.Inverse(false);
  Epho_Camera* fc = epho_CameraCopy(inverse->camera, nullptr);
  fc->direction = EMOD_FORWARD;
  XformPtr forward = Prepared(fc);
  // Ground points at cell centres with the cell's height, to pixels and back.
  for (int c = 60; c < 240; c += 17)
    for (int r = 60; r < 240; r += 19) {
      double p[3] = {camtest::kDemX + (c + 0.5) * camtest::kCell,
                     camtest::kDemY - (r + 0.5) * camtest::kCell,
                     scene.cells[size_t(r) * camtest::kDemSize + c]};
      double pixel[2], g[2];
      ASSERT_TRUE(epho_CameraXformTransform3DTo2D(forward.get(), 1, p, pixel, nullptr));
      ASSERT_TRUE(epho_CameraXformTransform(inverse.get(), 1, pixel, g, nullptr));
      // The forward object takes the same height from the DEM itself.
      double xy[2] = {p[0], p[1]}, from_dem[2];
      ASSERT_TRUE(epho_CameraXformTransform(forward.get(), 1, xy, from_dem, nullptr));
      EXPECT_EQ(from_dem[0], pixel[0]);
      EXPECT_EQ(from_dem[1], pixel[1]);
      // One metre of height (the stop test) moves a ray by distance/height.
      const double lean = std::hypot(p[0] - camtest::kX0, p[1] - camtest::kY0) / 1500.0;
      EXPECT_LE(std::hypot(g[0] - p[0], g[1] - p[1]), lean * 1.0 + 1e-6);
    }
}

TEST(CameraTransform, ConstantHeightInverseIsOneIntersection) {
  Epho_Camera* c = camtest::MakeCamera();
  c->direction = EMOD_INVERSE;
  XformPtr x = Prepared(c);
  std::vector<double> pts = {100, 200, 350.0, 9000, 7000, 412.5};
  std::vector<double> film = {pts[0], pts[1], pts[3], pts[4]};
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(x.get(), 2, pts.data(), nullptr, nullptr));
  for (int i = 0; i < 2; ++i) {
    const double* a = x->camera->forSrcAffine;
    double X, Y;
    epho_CameraImageAndZToXY(x->orientation, 0, a[0] * film[2 * i] + a[2],
                             a[4] * film[2 * i + 1] + a[5], i ? 412.5 : 350.0, &X, &Y);
    EXPECT_EQ(pts[2 * i], X);
    EXPECT_EQ(pts[2 * i + 1], Y);
  }
  EXPECT_EQ(pts[5], 412.5);  // the packed form leaves the rest of the array
}

}  // namespace
