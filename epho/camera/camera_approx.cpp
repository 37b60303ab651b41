// Image coordinates of a whole grid of map positions, through planar
// projective approximations of the rigorous ground-to-image transform fitted
// tile by tile, refined where they miss.
#include <cmath>
#include <vector>

#include "epho/camera/camera_internal.h"
#include "epho/orientation.h"
#include "platform/eerr/error_frame.h"

namespace epho::camera {
namespace {

constexpr double kNoValue = -999.0;
constexpr int kSampleColumns = 8, kSampleRows = 5;  // the 40 fitting samples
constexpr long kRigorousCells = 64;                 // tiles this small are computed point by point

struct Grid {
  Epho_CameraXform* xform;
  double x0, y0, dx, dy;
  long width, height;
  const double* heights;
  double tolerance;
  double* out;
  Efga_Matrix* one;
  Eimg_PixelRect* cell;
};

// The rigorous forward chain for one grid position (column c, row r, may be
// fractional): false where it does not project or has no height.
bool Rigorous(const Grid& g, double c, double r, double* ix, double* iy) {
  const Epho_CameraXform* x = g.xform;
  const Epho_Camera* cam = x->camera;
  const double mx = g.x0 + c * g.dx, my = g.y0 + r * g.dy;
  double z = cam->z_mean;
  if (g.heights) {
    const long ci = std::lround(c), ri = std::lround(r);
    if (ci < 0 || ri < 0 || ci >= g.width || ri >= g.height) return false;
    z = g.heights[ri * g.width + ci];
  } else if (cam->demsource == EMOD_DEM_FILE) {
    Eerr_ErrorReport* report = nullptr;
    const bool ok = DemHeightAt(x, g.one, g.cell, mx, my, &z, &report);
    eerr_DeleteErrorReport(report);
    if (!ok) return false;
  }
  const double ground[3] = {mx, my, z};
  double image[2];
  Eerr_ErrorReport* report = nullptr;
  const bool ok =
      epho_CameraXformSensorOps()->groundToImage(g.xform, 1, ground, image, &report) != 0;
  eerr_DeleteErrorReport(report);
  if (!ok || !std::isfinite(image[0]) || !std::isfinite(image[1])) return false;
  *ix = image[0];
  *iy = image[1];
  return true;
}

void Put(const Grid& g, long c, long r, double ix, double iy) {
  g.out[2 * (r * g.width + c)] = ix;
  g.out[2 * (r * g.width + c) + 1] = iy;
}

void RigorousTile(const Grid& g, long c0, long r0, long c1, long r1) {
  for (long r = r0; r < r1; ++r)
    for (long c = c0; c < c1; ++c) {
      double ix, iy;
      if (Rigorous(g, double(c), double(r), &ix, &iy))
        Put(g, c, r, ix, iy);
      else
        Put(g, c, r, kNoValue, kNoValue);
    }
}

void Tile(const Grid& g, long c0, long r0, long c1, long r1) {
  const long w = c1 - c0, h = r1 - r0;
  if (w * h <= kRigorousCells || w < 4 || h < 4) return RigorousTile(g, c0, r0, c1, r1);
  auto split = [&] {
    const long cm = c0 + w / 2, rm = r0 + h / 2;
    Tile(g, c0, r0, cm, rm);
    Tile(g, cm, r0, c1, rm);
    Tile(g, c0, rm, cm, r1);
    Tile(g, cm, rm, c1, r1);
  };
  // Fit on a lattice of 40 cells spanning the tile, in grid coordinates.
  std::vector<double> from, to;
  for (int i = 0; i < kSampleRows; ++i)
    for (int j = 0; j < kSampleColumns; ++j) {
      const double c = std::round(c0 + (w - 1) * double(j) / (kSampleColumns - 1));
      const double r = std::round(r0 + (h - 1) * double(i) / (kSampleRows - 1));
      double ix, iy;
      if (!Rigorous(g, c, r, &ix, &iy)) return split();
      from.insert(from.end(), {c, r});
      to.insert(to.end(), {ix, iy});
    }
  double h8[8];
  Eerr_ErrorReport* report = nullptr;
  const bool fitted =
      epho_DeriveDLT2D(from.data(), to.data(), kSampleRows * kSampleColumns, h8, nullptr, &report);
  eerr_DeleteErrorReport(report);
  if (!fitted) return split();
  // Held-out checks: every cell halfway between neighbouring samples, along
  // the tile's edges too (95 cells), where a fit of the wrong shape misses;
  // they must hold half the tolerance, so that the cells between them hold
  // all of it.
  for (int i = 0; i <= 2 * (kSampleRows - 1); ++i)
    for (int j = 0; j <= 2 * (kSampleColumns - 1); ++j) {
      if (i % 2 == 0 && j % 2 == 0) continue;  // a sample
      const double c = std::floor(c0 + (w - 1) * (0.5 * j) / (kSampleColumns - 1));
      const double r = std::floor(r0 + (h - 1) * (0.5 * i) / (kSampleRows - 1));
      double ix, iy, ax, ay;
      if (!Rigorous(g, c, r, &ix, &iy) || epho_ApplyDLT2D(h8, c, r, &ax, &ay) ||
          std::hypot(ax - ix, ay - iy) > 0.5 * g.tolerance)
        return split();
    }
  for (long r = r0; r < r1; ++r)
    for (long c = c0; c < c1; ++c) {
      double ax, ay;
      if (epho_ApplyDLT2D(h8, double(c), double(r), &ax, &ay))
        Put(g, c, r, kNoValue, kNoValue);
      else
        Put(g, c, r, ax, ay);
    }
}

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Emsc_Boolean epho_GetImageCoordCameraApx(Epho_CameraXform* xform, double x0, double y0, double dx,
                                         double dy, long width, long height, const double* heights,
                                         double tolerance, double* imageXY,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_GetImageCoordCameraApx";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, EMSC_FALSE, L"Invalid input camera xform data.");
  EERR_FAIL_IF(width < 1, frame, EMSC_FALSE, L"Args: width is less than 1");
  EERR_FAIL_IF(height < 1, frame, EMSC_FALSE, L"Args: height is less than 1");
  EERR_FAIL_IF_NULL(imageXY, frame, EMSC_FALSE);
  EERR_FAIL_IF(!std::isfinite(x0), frame, EMSC_FALSE, L"Args: x0 is not finite");
  EERR_FAIL_IF(!std::isfinite(y0), frame, EMSC_FALSE, L"Args: y0 is not finite");
  EERR_FAIL_IF(!std::isfinite(dx), frame, EMSC_FALSE, L"Args: dx is not finite");
  EERR_FAIL_IF(!std::isfinite(dy), frame, EMSC_FALSE, L"Args: dy is not finite");
  EERR_FAIL_IF(dx == 0.0, frame, EMSC_FALSE, L"Args: dx is zero");
  EERR_FAIL_IF(dy == 0.0, frame, EMSC_FALSE, L"Args: dy is zero");
  if (!xform->filled)
    EERR_CHECK(epho_CameraXformFillNoMIFData(xform, frame.Callee()), frame, EMSC_FALSE,
               L"epho_CameraXformFillNoMIFData failed");
  MatrixPtr one(efga_MatrixCreate(2, 1, frame.Callee()));
  EERR_CHECK(one, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  PixelRectPtr cell(eimg_PixelRectCreate(1, 1, EGDA_TYPE_F64, frame.Callee()));
  EERR_CHECK(cell, frame, EMSC_FALSE, L"eimg_PixelRectCreate failed");
  Grid g{xform,   x0,        y0,
         dx,      dy,        width,
         height,  heights,   tolerance > 0 ? tolerance : 0.05,
         imageXY, one.get(), cell.get()};
  // An image-to-ground camera is computed point by point.
  if (xform->camera->direction == EMOD_INVERSE)
    RigorousTile(g, 0, 0, width, height);
  else
    Tile(g, 0, 0, width, height);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
}  // extern "C"
