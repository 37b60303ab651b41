// The interchange readers and writers: every bad line reported where it is,
// the checked-in COLMAP model read as written (its 2D points are the
// projections of its 3D points by COLMAP's equations, computed outside this
// library), the frame cameras made from it projecting like COLMAP's, and
// camera conversions that survive the trip there and back.
#include "epho/interchange/interchange.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "epho/angles.h"
#include "epho/interchange/line_reader_internal.h"
#include "test_util.h"

namespace {

using testutil::Slurp;
using testutil::Spit;

namespace ix = epho::interchange;
namespace fs = std::filesystem;

const std::string kData = std::string(EPHO_SOURCE_DIR) + "/testdata/interchange";

// `text` with line `line` (1-based) replaced.
std::string ReplaceLine(const std::string& text, int line, const std::string& by) {
  std::istringstream in(text);
  std::string out, l;
  for (int n = 1; std::getline(in, l); ++n) out += (n == line ? by : l) + "\n";
  return out;
}

// Pixel of ground point X through the frame camera's own transform object.
bool LibraryProject(const Epho_Camera& camera, const double X[3], double pixel[2]) {
  Epho_CameraXform* xf =
      epho_CameraXformGetFromCameraData(epho_CameraCopy(&camera, nullptr), nullptr);
  double g[3] = {X[0], X[1], X[2]};
  const bool ok = xf && epho_CameraXformTransform3DTo2D(xf, 1, g, pixel, nullptr);
  epho_CameraXformDelete(xf);
  return ok;
}

std::string ErrorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const ix::InterchangeError& e) {
    return e.what();
  }
  return "";
}

// ---- bad lines ---------------------------------------------------------------

TEST(ColmapRead, EveryBadLineIsReportedWithFileAndLine) {
  struct Case {
    const char* file;
    int line;
    const char* text;
    const char* expected;
  };
  // Line numbers of the checked-in model: cameras 4-7, images 5 and 6 the
  // first image's two lines, points 4 onwards.
  const Case cases[] = {
      {"cameras.txt", 5, "2 SIMPLE_RADIAL 1000 750 870.0 500.25 375.5",
       "cameras.txt:5: expected 8 values for a SIMPLE_RADIAL camera, found 7"},
      {"cameras.txt", 5, "2 FOV 1000 750 870.0 500.25 375.5 0.9",
       "cameras.txt:5: camera model FOV is not supported"},
      {"cameras.txt", 5, "2 SIMPLE_RADIAL 1000 -750 870.0 500.25 375.5 -0.052",
       "cameras.txt:5: width and height must be whole numbers"},
      {"cameras.txt", 5, "2 SIMPLE_RADIAL 1000 750 870,0 500.25 375.5 -0.052",
       "cameras.txt:5: parameter 1 \"870,0\" is not a number"},
      {"cameras.txt", 5, "1 SIMPLE_RADIAL 1000 750 870.0 500.25 375.5 -0.052",
       "cameras.txt:5: camera 1 is defined twice"},
      {"images.txt", 5, "1 0.02 0.99 -0.07 -0.001 38.7 -11.1 120.3",
       "images.txt:5: expected 10 values (IMAGE_ID QW QX QY QZ TX TY TZ CAMERA_ID NAME), found 8"},
      {"images.txt", 5, "1 0.02 0.99 -0.07 -0.001 38.7 -11.1 120.3 9 a.jpg",
       "images.txt:5: camera 9 is not in cameras.txt"},
      {"images.txt", 5, "1 0 0 0 0 38.7 -11.1 120.3 1 a.jpg",
       "images.txt:5: the rotation quaternion is zero"},
      {"images.txt", 5, "1 0.02 0.99 -0.07 nan 38.7 -11.1 120.3 1 a.jpg",
       "images.txt:5: pose value \"nan\" is not a number"},
      {"images.txt", 6, "797.111 575.4751", "images.txt:6: expected X Y POINT3D_ID triples"},
      {"images.txt", 6, "797.111 575.4751 1.5",
       "images.txt:6: 2D point 0 (\"797.111 575.4751 1.5\")"},
      {"points3D.txt", 4, "1 2 3", "points3D.txt:4: expected POINT3D_ID X Y Z R G B ERROR"},
      {"points3D.txt", 4, "1 1 2 3 300 0 0 0.1 1 0",
       "points3D.txt:4: colour \"300\" is not 0 to 255"},
      {"points3D.txt", 4, "1 1 2 3 10 10 10 0.1 77 0",
       "points3D.txt:4: track names image 77, which images.txt does not hold"},
      {"points3D.txt", 4, "1 1 2 3 10 10 10 0.1 1 999",
       "points3D.txt:4: track names 2D point 999 of image 1, which has"},
      {"points3D.txt", 4, "1 1 2 3 10 10 10 0.1 1 1",
       "points3D.txt:4: track names 2D point 1 of image 1, which belongs to point 4"},
  };
  for (const Case& c : cases) {
    testutil::ScratchDir dir("ix_bad");
    for (const char* f : {"cameras.txt", "images.txt", "points3D.txt"})
      fs::copy_file(kData + "/colmap/" + f, dir.File(f));
    Spit(dir.File(c.file), ReplaceLine(Slurp(dir.File(c.file)), c.line, c.text));
    const std::string what = ErrorOf([&] { ix::ReadColmapModel(dir.path().string()); });
    EXPECT_NE(what.find(c.expected), std::string::npos)
        << c.file << ":" << c.line << " \"" << c.text << "\" gave:\n"
        << what;
  }
}

TEST(ColmapRead, TwoDPointsOutsideTheirTrackAndNoiseLinesAreTold) {
  testutil::ScratchDir dir("ix_track");
  Spit(dir.File("cameras.txt"), "1 SIMPLE_PINHOLE 100 100 100 50 50\n");
  // Image 1 claims point 5 twice (the track holds one), image 2 has no 2D
  // points at all (its empty line is its points line, not a blank to skip),
  // and a -1 keypoint belongs to no point.
  const std::string rest = "2 1 0 0 0 1 0 10 1 b.jpg\n\n3 1 0 0 0 2 0 10 1 c.jpg\n50 50 5\n";
  Spit(dir.File("images.txt"),
       "# comment\n1 1 0 0 0 0 0 10 1 a.jpg\n10 20 5 30 40 5 1 1 -1\n" + rest);
  Spit(dir.File("points3D.txt"), "5 0 0 0 1 2 3 0.5 1 0 3 0\n");
  const std::string what = ErrorOf([&] { ix::ReadColmapModel(dir.path().string()); });
  EXPECT_NE(what.find("images.txt:3: 2D point 1 names point 5, whose track does not hold it"),
            std::string::npos)
      << what;
  EXPECT_EQ(what.find("2D point 2"), std::string::npos) << what;  // the -1 keypoint
  // Repaired, the model reads; the keypoint of no point is not an observation.
  Spit(dir.File("images.txt"), "1 1 0 0 0 0 0 10 1 a.jpg\n10 20 5 30 40 -1 1 1 -1\n" + rest);
  const ix::ColmapModel m = ix::ReadColmapModel(dir.path().string());
  ASSERT_EQ(m.images.size(), 3u);
  EXPECT_TRUE(m.images[1].points2D.empty());
  const ix::Project p = ix::ProjectFromColmap(m);
  ASSERT_EQ(p.points.size(), 1u);
  EXPECT_EQ(p.points[0].observations.size(), 2u);
}

// ---- the checked-in model ------------------------------------------------------

TEST(ColmapSample, TwoDPointsAreProjectionsAndFrameCamerasProjectAlike) {
  const ix::ColmapModel m = ix::ReadColmapModel(kData + "/colmap");
  ASSERT_EQ(m.cameras.size(), 4u);
  ASSERT_EQ(m.images.size(), 5u);
  ASSERT_GE(m.points.size(), 20u);
  std::map<uint32_t, const ix::ColmapCamera*> cams;
  for (const auto& c : m.cameras) cams[c.id] = &c;
  std::map<uint32_t, const ix::ColmapImage*> ims;
  for (const auto& im : m.images) ims[im.id] = &im;
  for (const auto& p : m.points) {
    double sum = 0;
    for (const auto& e : p.track) {
      const ix::ColmapImage& im = *ims.at(e.image);
      double px[2];
      ASSERT_TRUE(ix::ColmapProject(*cams.at(im.camera), im.q, im.t, p.xyz.data(), px));
      const auto& q = im.points2D.at(e.point2D);
      // The sample's measuring noise is at most 0.3 pixels an axis.
      EXPECT_LE(std::fabs(px[0] - q.x), 0.3 + 1e-4);
      EXPECT_LE(std::fabs(px[1] - q.y), 0.3 + 1e-4);
      sum += std::hypot(px[0] - q.x, px[1] - q.y);
    }
    EXPECT_NEAR(sum / p.track.size(), p.error, 1e-9) << "point " << p.id;
  }

  const ix::Project project = ix::ProjectFromColmap(m);
  ASSERT_EQ(project.images.size(), 5u);
  ASSERT_EQ(project.points.size(), m.points.size());
  std::map<int32_t, const ix::Image*> images;
  for (const auto& im : project.images) images[im.id] = &im;
  size_t checked = 0;
  for (size_t i = 0; i < m.points.size(); ++i) {
    const ix::Point& p = project.points[i];
    EXPECT_EQ(p.id, static_cast<int32_t>(m.points[i].id));
    EXPECT_EQ(p.usage, GCP_TIE);
    EXPECT_EQ(p.X, m.points[i].xyz[0]);
    EXPECT_EQ(p.Z, m.points[i].xyz[2]);
    ASSERT_EQ(p.observations.size(), m.points[i].track.size());
    for (const ix::Observation& o : p.observations) {
      const ix::ColmapImage& im = *ims.at(static_cast<uint32_t>(o.image));
      double colmap[2], ours[2];
      ASSERT_TRUE(
          ix::ColmapProject(*cams.at(im.camera), im.q, im.t, m.points[i].xyz.data(), colmap));
      ASSERT_TRUE(LibraryProject(*images.at(o.image)->camera, m.points[i].xyz.data(), ours));
      // Same pixel through the frame camera: axes, pixel origin and lens carried over.
      EXPECT_NEAR(ours[0], colmap[0], 1e-7) << "image " << o.image << " point " << p.id;
      EXPECT_NEAR(ours[1], colmap[1], 1e-7) << "image " << o.image << " point " << p.id;
      ++checked;
    }
  }
  EXPECT_GT(checked, 60u);
  // Sizes and names come from the cameras and images.
  EXPECT_EQ(images.at(3)->columns, 1000);
  EXPECT_EQ(images.at(3)->rows, 750);
  EXPECT_EQ(images.at(1)->name, "site/IMG_0101.JPG");
}

TEST(ColmapSample, ImportThenExportGivesTheSameFiles) {
  const ix::ColmapModel original = ix::ReadColmapModel(kData + "/colmap");
  testutil::ScratchDir dir("ix_rt");
  ix::WriteColmapModel(ix::ColmapFromProject(ix::ProjectFromColmap(original)), dir.path().string());
  const ix::ColmapModel back = ix::ReadColmapModel(dir.path().string());
  auto near = [](double a, double b) {
    return std::fabs(a - b) <= 1e-9 * std::max(1.0, std::fabs(a));
  };
  ASSERT_EQ(back.cameras.size(), original.cameras.size());
  for (size_t i = 0; i < original.cameras.size(); ++i) {
    const auto &a = original.cameras[i], &b = back.cameras[i];
    EXPECT_EQ(b.id, a.id);
    EXPECT_EQ(b.model, a.model);
    EXPECT_EQ(b.width, a.width);
    EXPECT_EQ(b.height, a.height);
    ASSERT_EQ(b.params.size(), a.params.size());
    for (size_t k = 0; k < a.params.size(); ++k)
      EXPECT_TRUE(near(a.params[k], b.params[k]))
          << a.model << " " << k << ": " << a.params[k] << " vs " << b.params[k];
  }
  ASSERT_EQ(back.images.size(), original.images.size());
  for (size_t i = 0; i < original.images.size(); ++i) {
    const auto &a = original.images[i], &b = back.images[i];
    EXPECT_EQ(b.id, a.id);
    EXPECT_EQ(b.camera, a.camera);
    EXPECT_EQ(b.name, a.name);
    const double sign = a.q[0] * b.q[0] < 0 ? -1 : 1;  // q and -q are one rotation
    for (int k = 0; k < 4; ++k) EXPECT_TRUE(near(a.q[k], sign * b.q[k])) << "image " << a.id;
    for (int k = 0; k < 3; ++k) EXPECT_TRUE(near(a.t[k], b.t[k])) << "image " << a.id;
    ASSERT_EQ(b.points2D.size(), a.points2D.size());
    for (size_t k = 0; k < a.points2D.size(); ++k) {
      EXPECT_EQ(b.points2D[k].x, a.points2D[k].x);
      EXPECT_EQ(b.points2D[k].y, a.points2D[k].y);
      EXPECT_EQ(b.points2D[k].point3D, a.points2D[k].point3D);
    }
  }
  ASSERT_EQ(back.points.size(), original.points.size());
  for (size_t i = 0; i < original.points.size(); ++i) {
    const auto &a = original.points[i], &b = back.points[i];
    EXPECT_EQ(b.id, a.id);
    EXPECT_EQ(b.xyz, a.xyz);
    EXPECT_EQ(b.rgb, a.rgb);
    EXPECT_TRUE(near(a.error, b.error)) << a.error << " vs " << b.error;
    ASSERT_EQ(b.track.size(), a.track.size());
    for (size_t k = 0; k < a.track.size(); ++k) {
      EXPECT_EQ(b.track[k].image, a.track[k].image);
      EXPECT_EQ(b.track[k].point2D, a.track[k].point2D);
    }
  }
}

// ---- camera conversions --------------------------------------------------------

ix::CameraPtr MillimetreCamera(const std::vector<double>& lens, double omega, double phi,
                               double kappa, int32_t system) {
  ix::CameraPtr c(epho_CameraCreate(nullptr));
  const double px = 0.006, half_w = 4000 * px / 2, half_h = 3000 * px / 2;
  const double src[6] = {px, 0, -half_w - 0.01, 0, -px, half_h + 0.02};
  const double inv[6] = {1 / px, 0, (half_w + 0.01) / px, 0, -1 / px, (half_h + 0.02) / px};
  std::copy(src, src + 6, c->forSrcAffine);
  std::copy(inv, inv + 6, c->invSrcAffine);
  c->coeffs[0] = 35.0;
  c->coeffs[3] = 1000, c->coeffs[4] = 2000, c->coeffs[5] = 500;
  c->coeffs[6] = omega, c->coeffs[7] = phi, c->coeffs[8] = kappa;
  c->RotationSystem = system;
  if (!lens.empty()) {
    c->LensDistortion.data =
        static_cast<double*>(emsc_MemDup(lens.data(), lens.size() * sizeof(double)));
    c->LensDistortion.count = static_cast<int32_t>(lens.size());
  }
  return c;
}

TEST(CameraConversion, ThereAndBackProjectsTheSame) {
  struct Case {
    const char* what;
    std::vector<double> lens;
    double omega, phi, kappa;
    int32_t system;
    const char* model;
  };
  const Case cases[] = {
      {"no lens", {}, 0.01, -0.02, 0.3, EPHO_OMEGA_PHI_KAPPA, "SIMPLE_PINHOLE"},
      {"radial with a linear term",
       {1e-4, -3e-5, 2e-8},
       0.0,
       0.0,
       2.5,
       EPHO_OMEGA_PHI_KAPPA,
       "RADIAL"},
      {"radial record of five",
       {0, 0, -2e-5, 0, 0},
       0.1,
       0.05,
       -1.0,
       EPHO_OMEGA_PHI_KAPPA,
       "SIMPLE_RADIAL"},
      {"radial-tangential",
       {2, 1, 0, 0, 3e-5, -1e-8, 2e-12, 4e-6, -2e-6, 0, 0},
       0.2,
       0.1,
       0.5,
       EPHO_OMEGA_PHI_KAPPA,
       "FULL_OPENCV"},
      {"tangential without k3",
       {2, 1, 0, 0, 3e-5, -1e-8, 0, 4e-6, -2e-6, 0, 0},
       0.2,
       0.1,
       0.5,
       EPHO_OMEGA_PHI_KAPPA,
       "OPENCV"},
      {"phi-omega-kappa system", {}, 0.3, -0.2, 0.1, EPHO_PHIPLUS_OMEGA_KAPPA, "SIMPLE_PINHOLE"},
      {"oblique, phi near 90 degrees",
       {},
       0.2,
       1.5707963,
       0.3,
       EPHO_OMEGA_PHI_KAPPA,
       "SIMPLE_PINHOLE"},
  };
  for (const Case& c : cases) {
    ix::CameraPtr ours = MillimetreCamera(c.lens, c.omega, c.phi, c.kappa, c.system);
    ix::ColmapCamera colmap;
    std::array<double, 4> q;
    std::array<double, 3> t;
    ix::ColmapFromCamera(*ours, 4000, 3000, &colmap, &q, &t);
    EXPECT_EQ(colmap.model, c.model) << c.what;
    ix::CameraPtr back = ix::CameraFromColmap(colmap, q, t);
    // Ground points in front of the camera, spread over the image.
    double R[9];
    epho_RotateAll(ours->coeffs + 6, R, c.system == EPHO_OMEGA_PHI_KAPPA ? 2 : 1);
    int tested = 0;
    for (double a = -0.3; a <= 0.3; a += 0.15)
      for (double b = -0.2; b <= 0.2; b += 0.1) {
        // Camera frame (a, b, -1) * 300 m to the ground: P = C + R (u, v, w).
        const double u = 300 * a, v = 300 * b, w = -300;
        const double X[3] = {ours->coeffs[3] + R[0] * u + R[1] * v + R[2] * w,
                             ours->coeffs[4] + R[3] * u + R[4] * v + R[5] * w,
                             ours->coeffs[5] + R[6] * u + R[7] * v + R[8] * w};
        double p1[2], p2[2], p3[2];
        ASSERT_TRUE(LibraryProject(*ours, X, p1)) << c.what;
        ASSERT_TRUE(LibraryProject(*back, X, p2)) << c.what;
        ASSERT_TRUE(ix::ColmapProject(colmap, q, t, X, p3)) << c.what;
        EXPECT_NEAR(p2[0], p1[0], 1e-7) << c.what;
        EXPECT_NEAR(p2[1], p1[1], 1e-7) << c.what;
        EXPECT_NEAR(p3[0], p1[0], 1e-7) << c.what;
        EXPECT_NEAR(p3[1], p1[1], 1e-7) << c.what;
        ++tested;
      }
    EXPECT_EQ(tested, 25) << c.what;
    for (int k = 3; k < 6; ++k) EXPECT_NEAR(back->coeffs[k], ours->coeffs[k], 1e-9) << c.what;
  }
}

TEST(CameraConversion, CamerasCOLMAPCannotHoldAreRefusedWithTheReason) {
  struct Case {
    const char* what;
    void (*change)(Epho_Camera*);
    const char* reason;
  };
  const Case cases[] = {
      {"tangent plane", [](Epho_Camera* c) { c->refType = EMOD_TANGENT_PLANE; }, "tangent plane"},
      {"terrestrial", [](Epho_Camera* c) { c->PhotoDirection = EPHO_Y_DIRECTION; }, "Y-direction"},
      {"refraction", [](Epho_Camera* c) { c->PhotoDirection = 2; }, "refraction"},
      {"skewed pixels", [](Epho_Camera* c) { c->invSrcAffine[1] = 1e-2; }, "pixel axes"},
      {"mirrored rows", [](Epho_Camera* c) { c->invSrcAffine[4] *= -1; }, "pixel axes"},
      {"affines disagree", [](Epho_Camera* c) { c->forSrcAffine[2] += 0.001; }, "not the inverse"},
      {"additional parameters",
       [](Epho_Camera* c) {
         const double p[7] = {6, 1, 0, 0, 1e-5, 1e-9, 0};
         c->AdditionalParameters.data = static_cast<double*>(emsc_MemDup(p, sizeof p));
         c->AdditionalParameters.count = 7;
       },
       "additional parameters"},
      {"affinity terms",
       [](Epho_Camera* c) {
         const double p[11] = {2, 1, 0, 0, 1e-5, 0, 0, 0, 0, 1e-4, 0};
         c->LensDistortion.data = static_cast<double*>(emsc_MemDup(p, sizeof p));
         c->LensDistortion.count = 11;
       },
       "affinity"},
      {"zero focal length", [](Epho_Camera* c) { c->coeffs[0] = 0; }, "focal length"},
  };
  for (const Case& c : cases) {
    ix::CameraPtr cam = MillimetreCamera({}, 0, 0, 0, EPHO_OMEGA_PHI_KAPPA);
    c.change(cam.get());
    ix::ColmapCamera colmap;
    std::array<double, 4> q;
    std::array<double, 3> t;
    const std::string what =
        ErrorOf([&] { ix::ColmapFromCamera(*cam, 4000, 3000, &colmap, &q, &t); });
    EXPECT_NE(what.find(c.reason), std::string::npos) << c.what << ": " << what;
  }
  ix::ColmapCamera rational{
      7, "FULL_OPENCV", 100, 100, {100, 100, 50, 50, 0, 0, 0, 0, 0, 0.1, 0, 0}};
  EXPECT_NE(ErrorOf([&] {
              ix::CameraFromColmap(rational, {1, 0, 0, 0}, {0, 0, 0});
            }).find("camera 7: FULL_OPENCV with a rational radial term"),
            std::string::npos);
}

// ---- the hand-written project ----------------------------------------------------

TEST(TextProject, SampleReadsWithItsCameraAndPoints) {
  const ix::Project p = ix::ReadTextProject(kData + "/project/project.txt");
  ASSERT_EQ(p.images.size(), 3u);
  EXPECT_EQ(p.images[1].name, "photos/strip_2.tif");
  EXPECT_EQ(p.images[1].id, 2);
  EXPECT_EQ(p.images[1].columns, 3000);
  const Epho_Camera& c = *p.images[1].camera;
  EXPECT_EQ(c.coeffs[0], 50.0);
  EXPECT_NEAR(c.coeffs[8], 0.553 * M_PI / 180, 1e-15);  // kappa, degrees in the file
  ASSERT_EQ(c.LensDistortion.count, 3);
  EXPECT_EQ(c.LensDistortion.data[1], -2.5e-5);
  // The principal point (x0 0.012, y0 -0.008 mm) is film (0, 0).
  double film[2];
  const double* a = c.forSrcAffine;
  const double col = (15.0 + 0.012) / 0.01, row = (10.0 + 0.008) / 0.01;
  film[0] = a[0] * col + a[1] * row + a[2];
  film[1] = a[3] * col + a[4] * row + a[5];
  EXPECT_NEAR(film[0], 0, 1e-12);
  EXPECT_NEAR(film[1], 0, 1e-12);
  int control = 0, check = 0, tie = 0;
  for (const ix::Point& q : p.points) {
    control += q.usage == GCP_CONTROL, check += q.usage == GCP_CHECK, tie += q.usage == GCP_TIE;
    EXPECT_GE(q.observations.size(), 2u) << q.id;
    if (q.usage == GCP_CHECK) {
      EXPECT_EQ(q.std[0], 0.0f);
    }
    if (q.usage == GCP_CONTROL) {
      EXPECT_EQ(q.std[2], 0.02f);
    }
  }
  EXPECT_EQ(control, 6);
  EXPECT_EQ(check, 2);
  EXPECT_GT(tie, 10);
}

TEST(TextProject, EveryBadLineIsReportedWithFileAndLine) {
  struct Case {
    const char* file;
    int line;
    const char* text;
    const char* expected;
  };
  const Case cases[] = {
      {"project.txt", 3, "image_size 3000",
       "project.txt:3: image_size: expected 2 values, found 1"},
      {"project.txt", 3, "image_size 3000 0", "project.txt:3: image_size: columns and rows"},
      {"project.txt", 4, "pixel_size -0.01", "project.txt:4: pixel_size: sizes must be positive"},
      {"project.txt", 5, "angles grads", "project.txt:5: angles: \"grads\" is not degrees"},
      {"project.txt", 5, "lens wide", "project.txt:5: unknown key \"lens\""},
      {"project.txt", 5, "images other.txt", "project.txt:6: images is given twice"},
      {"project.txt", 2, "# no camera", "project.txt: the key camera is missing"},
      {"images.txt", 2, "strip_1 a.tif 1 2 3 4 5",
       "images.txt:2: expected 8 values (name file X Y Z omega phi kappa), found 7"},
      {"images.txt", 2, "strip_1 a.tif 1 2 3 4 5 six", "images.txt:2: \"six\" is not a number"},
      {"images.txt", 2, "strip_2 a.tif 1 2 3 4 5 6",
       "images.txt:3: image \"strip_2\" is listed twice"},
      {"images.txt", 2, "\"strip 1 a.tif 1 2 3 4 5 6",
       "images.txt:2: a quoted name has no closing quote"},
      {"control.txt", 2, "101 37.5 -130 52.6 fixed",
       "control.txt:2: usage \"fixed\" is not control or check"},
      {"control.txt", 2, "101 37.5 -130 52.6 control 0",
       "control.txt:2: standard deviation \"0\" is not a positive number"},
      {"control.txt", 2, "101 37.5 -130 52.6 control 1 2",
       "control.txt:2: expected 5, 6 or 8 values"},
      {"control.txt", 2, "104 37.5 -130 52.6 control", "control.txt:3: point 104 is listed twice"},
      {"control.txt", 2, "0 37.5 -130 52.6 control",
       "control.txt:2: point id \"0\" is not a whole number"},
      {"measurements.txt", 2, "strip_9 101 10 10",
       "measurements.txt:2: image \"strip_9\" is not in the image list"},
      {"measurements.txt", 2, "strip_1 101 10",
       "measurements.txt:2: expected 4 values (image point x y), found 3"},
      {"measurements.txt", 2, "strip_1 101 3000.5 10",
       "measurements.txt:2: (3000.5, 10) lies outside the image"},
      {"measurements.txt", 2, "strip_1 101 1e5x 10", "measurements.txt:2: x and y must be numbers"},
      {"measurements.txt", 3, "strip_1 101 20 20",
       "measurements.txt:3: point 101 is measured twice in image \"strip_1\""},
  };
  for (const Case& c : cases) {
    testutil::ScratchDir dir("ix_text");
    for (const auto& e : fs::directory_iterator(kData + "/project"))
      fs::copy_file(e.path(), dir.path() / e.path().filename());
    Spit(dir.File(c.file), ReplaceLine(Slurp(dir.File(c.file)), c.line, c.text));
    const std::string what = ErrorOf([&] { ix::ReadTextProject(dir.File("project.txt")); });
    EXPECT_NE(what.find(c.expected), std::string::npos)
        << c.file << ":" << c.line << " \"" << c.text << "\" gave:\n"
        << what;
  }
}

TEST(TextProject, AllBadLinesOfAllFilesComeInOneReport) {
  testutil::ScratchDir dir("ix_all");
  for (const auto& e : fs::directory_iterator(kData + "/project"))
    fs::copy_file(e.path(), dir.path() / e.path().filename());
  Spit(dir.File("images.txt"), ReplaceLine(Slurp(dir.File("images.txt")), 3, "strip_2 x.tif 1 2"));
  Spit(dir.File("control.txt"),
       ReplaceLine(Slurp(dir.File("control.txt")), 4, "115 a b c control"));
  Spit(dir.File("measurements.txt"),
       ReplaceLine(ReplaceLine(Slurp(dir.File("measurements.txt")), 5, "x"), 9, "strip_1 1 -1 5"));
  try {
    ix::ReadTextProject(dir.File("project.txt"));
    FAIL() << "bad project read";
  } catch (const ix::InterchangeError& e) {
    // The image line, the control line, the bad measurement lines, and the
    // measurements of the image that could not be read.
    std::set<std::string> files;
    for (const std::string& p : e.problems()) files.insert(p.substr(0, p.find(':')));
    EXPECT_EQ(files, (std::set<std::string>{"images.txt", "control.txt", "measurements.txt"}))
        << e.what();
    EXPECT_NE(std::string(e.what()).find("measurements.txt:5: expected 4 values"),
              std::string::npos);
    EXPECT_NE(std::string(e.what()).find("measurements.txt:9: (-1, 5) lies outside"),
              std::string::npos);
  }
}

TEST(Numbers, CLocaleWholeTokensAndShortestExactText) {
  double v = 0;
  int64_t i = 0;
  EXPECT_TRUE(ix::ParseDouble("+1.5e3", &v));
  EXPECT_EQ(v, 1500.0);
  for (const char* bad : {"", "1,5", "0x10", "1.5.", "inf", "nan", "++1", "1e400", " 1"})
    EXPECT_FALSE(ix::ParseDouble(bad, &v)) << bad;
  EXPECT_TRUE(ix::ParseInt("-1", -1, 5, &i));
  EXPECT_FALSE(ix::ParseInt("6", -1, 5, &i));
  EXPECT_FALSE(ix::ParseInt("1.0", -1, 5, &i));
  for (double d : {0.1, 1.0 / 3, -123456.789012345678, 6.02214076e23, 5e-324}) {
    double back = 0;
    ASSERT_TRUE(ix::ParseDouble(ix::FormatDouble(d), &back)) << ix::FormatDouble(d);
    EXPECT_EQ(back, d);
  }
}

}  // namespace
