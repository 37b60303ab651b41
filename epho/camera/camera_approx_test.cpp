// Grid approximation of the ground-to-image transform against the rigorous
// one, and the epipolar line through the true homologous point.
#include <cmath>
#include <vector>

#include "epho/camera/camera_internal.h"
#include "epho/camera/camera_testing_internal.h"
#include "platform/estr/utf8.h"

namespace {

using camtest::ErrSlot;
using epho::camera::ExfrPtr;
using epho::camera::XformPtr;

struct ApproxCase {
  const char* name;
  bool dem;
  bool distortion;
  bool inverse;
};

TEST(CameraApprox, GridHoldsTheToleranceAgainstTheRigorousTransform) {
  testutil::ScratchDir dir("camera_apx");
  const std::string dem = camtest::WriteDem(dir.File("dem.tif"), [](int c, int r) {
    return float(400 + 30 * std::sin(c / 25.0) + 20 * std::cos(r / 40.0));
  });
  const ApproxCase cases[] = {{"flat", false, false, false},
                              {"flat, distortion", false, true, false},
                              {"DEM", true, true, false},
                              {"inverse camera", true, false, true}};
  for (const ApproxCase& k : cases) {
    SCOPED_TRACE(k.name);
    Epho_Camera* c = camtest::MakeCamera();
    if (k.distortion) camtest::SetVector(&c->LensDistortion, camtest::ScaledModel(false, 13, 3, 4));
    if (k.dem) {
      c->demsource = EMOD_DEM_FILE;
      camtest::SetText(&c->demfilename, kzdv::FromUtf8(dem).c_str());
    }
    if (k.inverse) c->direction = EMOD_INVERSE;
    XformPtr x(epho_CameraXformGetFromCameraData(c, nullptr));
    // 12 m cells over the footprint; the last columns run off the DEM.
    const long w = 200, h = 120;
    const double x0 = camtest::kX0 - 700, y0 = camtest::kY0 + 700, step = 12.0;
    std::vector<double> grid(2 * w * h);
    ErrSlot err;
    ASSERT_TRUE(epho_GetImageCoordCameraApx(x.get(), x0, y0, step, -step, w, h, nullptr, 0.05,
                                            grid.data(), &err))
        << err.Text();
    ExfrPtr t(epho_CameraXformToExfr(x.get(), &err));
    ASSERT_TRUE(t);
    double worst = 0;
    long missing = 0;
    for (long r = 0; r < h; ++r)
      for (long col = 0; col < w; ++col) {
        const double mx = x0 + col * step, my = y0 - r * step;
        const bool on_dem = mx < camtest::kDemX + camtest::kDemSize * camtest::kCell;
        const double* got = &grid[2 * (r * w + col)];
        if (k.dem && !on_dem) {
          EXPECT_EQ(got[0], -999.0);
          ++missing;
          continue;
        }
        double z = x->camera->z_mean;
        if (k.dem) {
          const long dc = long((mx - camtest::kDemX) / camtest::kCell);
          const long dr = long((camtest::kDemY - my) / camtest::kCell);
          z = 400 + 30 * std::sin(dc / 25.0) + 20 * std::cos(dr / 40.0);
          z = double(float(z));
        }
        const double g[3] = {mx, my, z};
        double image[2];
        ASSERT_TRUE(exfr_GroundToImage(t.get(), 1, g, image, nullptr));
        worst = std::max(worst, std::hypot(got[0] - image[0], got[1] - image[1]));
      }
    EXPECT_LE(worst, 0.05);  // pixels
    if (k.dem) {
      EXPECT_GT(missing, 0);
    }
  }
}

TEST(CameraApprox, EpipolarLinePassesThroughTheHomologousPoint) {
  Epho_Camera* a = camtest::MakeCamera();
  Epho_Camera* b = camtest::MakeCamera();
  b->coeffs[3] += 600.0;
  camtest::SetVector(&b->LensDistortion, camtest::ScaledModel(false, 11, 2, 3));
  XformPtr xa(epho_CameraXformGetFromCameraData(a, nullptr));
  XformPtr xb(epho_CameraXformGetFromCameraData(b, nullptr));
  double g[3] = {camtest::kX0 + 250, camtest::kY0 - 120, 431.0}, pa[2], pb[2];
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(xa.get(), 1, g, pa, nullptr));
  ASSERT_TRUE(epho_CameraXformTransform3DTo2D(xb.get(), 1, g, pb, nullptr));
  std::vector<double> line(2 * 5);
  ErrSlot err;
  ASSERT_TRUE(
      epho_AutoEpipoLine(xa.get(), xb.get(), pa[0], pa[1], 331.0, 531.0, 5, line.data(), &err))
      << err.Text();
  EXPECT_NEAR(line[4], pb[0], 1e-3);  // the middle sample is at the true height
  EXPECT_NEAR(line[5], pb[1], 1e-3);
  // The line runs along the base (x) and moves with height.
  EXPECT_GT(std::fabs(line[8] - line[0]), 100.0);
  // Without a range, z_mean +- 100 m.
  ASSERT_TRUE(epho_AutoEpipoLine(xa.get(), xb.get(), pa[0], pa[1], 0, 0, 3, line.data(), &err));
  ErrSlot err2;
  EXPECT_FALSE(epho_AutoEpipoLine(xa.get(), xb.get(), pa[0], pa[1], 0, 0, 1, line.data(), &err2));
  EXPECT_TRUE(err2.Has(L"Args: count is less than 2"));
}

}  // namespace
