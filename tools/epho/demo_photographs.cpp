// Demo stage "photographs": two overlapping vertical photographs rendered
// through the frame camera model from the terrain stage's ortho texture and
// DEM. Every photograph pixel goes image -> ground through the camera's
// transform object (heights iterated against the DEM) and takes the ortho's
// value there; the summary checks ground -> photograph -> ground at known
// terrain points. The photographs and their cameras (as values) are left in
// the demo context for the stages after it.
#include <gdal.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "demo_photo.h"
#include "epho/camera.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

constexpr int kPhoto = epho_tool::kDemoPhotoSize;
constexpr double kPixelMm = 0.05;  // film pixel
constexpr double kFocalMm = 50.0;
constexpr double kBase = 600.0;  // m between the two exposures
constexpr double kCentreE = 481280.0, kCentreN = 5298720.0, kFlying = 2000.0;

struct Raster {
  int width = 0, height = 0;
  double gt[6] = {0, 1, 0, 0, 0, 1};
  std::vector<float> cells;
  bool Read(const std::string& path, int band) {
    GDALAllRegister();
    GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
    if (!ds) return false;
    width = GDALGetRasterXSize(ds), height = GDALGetRasterYSize(ds);
    GDALGetGeoTransform(ds, gt);
    cells.resize(size_t(width) * height);
    const bool ok = GDALRasterIO(GDALGetRasterBand(ds, band), GF_Read, 0, 0, width, height,
                                 cells.data(), width, height, GDT_Float32, 0, 0) == CE_None;
    GDALClose(ds);
    return ok;
  }
  // Bilinear value at map (e, n); false off the raster.
  bool At(double e, double n, double* v) const {
    const double c = (e - gt[0]) / gt[1] - 0.5, r = (n - gt[3]) / gt[5] - 0.5;
    const long c0 = long(std::floor(c)), r0 = long(std::floor(r));
    if (c0 < 0 || r0 < 0 || c0 + 1 >= width || r0 + 1 >= height) return false;
    const double fc = c - c0, fr = r - r0;
    auto cell = [&](long cc, long rr) { return double(cells[size_t(rr) * width + cc]); };
    *v = (1 - fr) * ((1 - fc) * cell(c0, r0) + fc * cell(c0 + 1, r0)) +
         fr * ((1 - fc) * cell(c0, r0 + 1) + fc * cell(c0 + 1, r0 + 1));
    return true;
  }
};

Epho_Camera* PhotoCamera(double e, const std::string& dem, int direction) {
  Epho_Camera* c = epho_CameraCreate(nullptr);
  if (!c) return nullptr;
  const double half = kPhoto * kPixelMm / 2;
  const double src[6] = {kPixelMm, 0, -half, 0, -kPixelMm, half};
  const double inv[6] = {1 / kPixelMm, 0, half / kPixelMm, 0, -1 / kPixelMm, half / kPixelMm};
  std::copy(src, src + 6, c->forSrcAffine);
  std::copy(inv, inv + 6, c->invSrcAffine);
  c->direction = direction;
  c->coeffs[0] = kFocalMm;
  c->coeffs[3] = e, c->coeffs[4] = kCentreN, c->coeffs[5] = kFlying;
  c->coeffs[6] = 0.004, c->coeffs[7] = -0.006, c->coeffs[8] = 0.02;
  // A slight barrel of the lens: f(r) = p1 + p2 r^2 + p3 r^4 on film millimetres.
  const double lens[5] = {0.0, 0.0, -2e-6, 1e-10, 0.0};
  c->LensDistortion.data = static_cast<double*>(emsc_MemDup(lens, sizeof lens));
  c->LensDistortion.count = c->LensDistortion.data ? 5 : 0;
  c->demsource = EMOD_DEM_FILE;
  const std::wstring name = kzdv::FromUtf8(dem);
  c->demfilename.data = etxt_Text_strdup(name.c_str());
  c->demfilename.count = static_cast<int32_t>(name.size() + 1);
  return c;
}

bool Report(Eerr_ErrorReport* err) {
  eerr_PrintErrorReport(err, nullptr, 0);
  eerr_DeleteErrorReport(err);
  return false;
}

bool DemoPhotographs(epho_tool::DemoContext& demo) {
  auto dem = demo.files.find("dem");
  auto ortho = demo.files.find("ortho");
  if (dem == demo.files.end() || ortho == demo.files.end()) {
    std::printf("  the terrain stage made no rasters\n");
    return false;
  }
  Raster texture, terrain;
  if (!texture.Read(ortho->second, 2) || !terrain.Read(dem->second, 1)) {
    std::printf("  cannot read the terrain rasters\n");
    return false;
  }
  double worst_m = 0;
  int checked = 0;
  const char* names[2] = {"left", "right"};
  for (int k = 0; k < 2; ++k) {
    const double e = kCentreE + (k ? kBase / 2 : -kBase / 2);
    Eerr_ErrorReport* err = nullptr;
    Epho_CameraXform* inverse =
        epho_CameraXformGetFromCameraData(PhotoCamera(e, dem->second, EMOD_INVERSE), &err);
    if (!inverse || !epho_CameraXformFillNoMIFData(inverse, &err)) {
      epho_CameraXformDelete(inverse);
      return Report(err);
    }
    // Every pixel centre to the ground, then the ortho's value there.
    std::vector<uint8_t> photo(size_t(kPhoto) * kPhoto, 0);
    std::vector<double> row(2 * kPhoto), ground(2 * kPhoto);
    for (int r = 0; r < kPhoto; ++r) {
      for (int c = 0; c < kPhoto; ++c) row[2 * c] = c + 0.5, row[2 * c + 1] = r + 0.5;
      if (!epho_CameraXformTransform(inverse, kPhoto, row.data(), ground.data(), &err)) {
        epho_CameraXformDelete(inverse);
        return Report(err);
      }
      for (int c = 0; c < kPhoto; ++c) {
        double v;
        if (texture.At(ground[2 * c], ground[2 * c + 1], &v))
          photo[size_t(r) * kPhoto + c] = uint8_t(std::lround(std::fmin(255.0, std::fmax(0.0, v))));
      }
    }
    // Known terrain points: ground -> photograph -> ground through the model.
    Epho_CameraXform* forward =
        epho_CameraXformGetFromCameraData(PhotoCamera(e, dem->second, EMOD_FORWARD), &err);
    bool ok = forward != nullptr;
    for (int i = 0; ok && i < 100; ++i) {
      double g[3] = {e - 500 + 97.3 * (i % 10) + 3.1, kCentreN - 480 + 101.7 * (i / 10), 0}, p[2],
             back[2];
      if (!terrain.At(g[0], g[1], &g[2])) continue;
      ok = epho_CameraXformTransform3DTo2D(forward, 1, g, p, &err) &&
           epho_CameraXformTransform(inverse, 1, p, back, &err);
      if (ok) {
        worst_m = std::fmax(worst_m, std::hypot(back[0] - g[0], back[1] - g[1]));
        ++checked;
      }
    }
    epho_CameraXformDelete(forward);
    epho_CameraXformDelete(inverse);
    if (!ok) return Report(err);

    const std::string path = demo.workdir + "/photo_" + names[k] + ".tif";
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), kPhoto, kPhoto, 1,
                                 GDT_Byte, nullptr);
    const bool written =
        ds && GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, kPhoto, kPhoto, photo.data(),
                           kPhoto, kPhoto, GDT_Byte, 0, 0) == CE_None;
    if (ds) GDALClose(ds);
    if (!written) {
      std::printf("  cannot write %s\n", path.c_str());
      return false;
    }
    demo.files[std::string("photo.") + names[k]] = path;
    demo.values[std::string("photo.") + names[k] + ".X0"] = e;
  }
  demo.values["photo.Y0"] = kCentreN;
  demo.values["photo.Z0"] = kFlying;
  demo.values["photo.focal_mm"] = kFocalMm;
  demo.values["photo.pixel_mm"] = kPixelMm;
  // The DEM cells are flat steps and the height iteration stops within 1 m,
  // so a point comes back within the lean of the ray over a metre or two.
  if (checked < 100 || worst_m > 2.0) {
    std::printf("  ground -> photograph -> ground misses by %.3f m\n", worst_m);
    return false;
  }
  demo.Summary(
      "photographs: 2 of %dx%d px rendered through the frame camera (f %.0f mm, base %.0f m);"
      " %d ground points back within %.2f m",
      kPhoto, kPhoto, kFocalMm, kBase, checked, worst_m);
  return true;
}

}  // namespace

namespace epho_tool {

Epho_Camera* DemoPhotoCamera(const DemoContext& demo, const std::string& which, int direction) {
  auto x0 = demo.values.find("photo." + which + ".X0");
  auto dem = demo.files.find("dem");
  if (x0 == demo.values.end() || dem == demo.files.end()) return nullptr;
  return PhotoCamera(x0->second, dem->second, direction);
}

}  // namespace epho_tool

EPHO_DEMO_STAGE(35, "photographs", DemoPhotographs);
