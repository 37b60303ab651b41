// Batch transforms of a frame camera between ground and film, Cartesian and
// in a local tangent plane, with the inverse iterated against the DEM.
#include <algorithm>
#include <cmath>
#include <limits>

#include "emod.h"
#include "epho/camera/camera_internal.h"
#include "epho/kernel/collinearity_batch.h"
#include "platform/eerr/error_frame.h"

namespace epho::camera {

Epho_FilmProjection ProjectionOf(const Epho_CameraXform* xform) {
  const Epho_Camera* cam = xform->camera;
  return {xform->orientation,  &cam->LensDistortion, &cam->AdditionalParameters,
          cam->PhotoDirection, cam->PhotoDirection,  cam->coeffs[5],
          cam->coeffs[0]};
}

bool DemHeightAt(const Epho_CameraXform* xform, Efga_Matrix* one, Eimg_PixelRect* cell,
                 double map_x, double map_y, double* z, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraDemHeight";
  kzdv::ErrorFrame frame(kFn, err);
  const Epho_CameraXformPrivate* priv = xform->priv;
  double file_x, file_y;
  if (priv && priv->mapToDemAffine) {
    const double* a = priv->mapToDem;
    file_x = a[0] * map_x + a[1] * map_y + a[2];
    file_y = a[3] * map_x + a[4] * map_y + a[5];
  } else {
    one->data[0] = map_x;
    one->data[1] = map_y;
    EERR_CHECK(exfr_Transform(xform->mapToDem, one, one, frame.Callee()), frame, false,
               L"exfr_Transform failed");
    file_x = one->data[0];
    file_y = one->data[1];
  }
  EERR_FAIL_IF(!std::isfinite(file_x) || !std::isfinite(file_y) || std::fabs(file_x) > 1e15 ||
                   std::fabs(file_y) > 1e15,
               frame, false, L"exfr_Transform failed");
  // The cell that holds the point: file coordinates count from the corner of
  // the upper-left cell, truncated toward zero.
  const long cx = static_cast<long>(file_x);
  const long cy = static_cast<long>(file_y);
  double value;
  if (priv && priv->grid) {
    if (!priv->grid->Cell(cx, cy, &value))
      EERR_FAIL(frame, false, L"eimg_LayerRasterPixelRectGet failed");
  } else {
    Emsc_Boolean ok = eimg_LayerRasterPixelRectGet(xform->demLayer, cx, cy, cell, frame.Callee());
    EERR_CHECK(ok, frame, false, L"eimg_LayerRasterPixelRectGet failed");
    value = *reinterpret_cast<const double*>(cell->data);
  }
  if (std::fabs(value - xform->demNullValue) >= 1e-10)
    *z = epho_CalcZ(file_x, file_y, value, xform->demZCoeffs.count, xform->demZCoeffs.data);
  else
    *z = xform->camera->z_mean;
  return true;
}

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

long PointCount(const Efga_Matrix* m) { return m ? (m->numrows * m->numcolumns) / 2 : 0; }

// Points go through the batch collinearity in blocks that stay in the
// caches, staged as separate coordinate arrays.
constexpr long kStep = 256;

void SpheroidOf(const Epho_CameraXform* xform, double* a, double* e2) {
  const Eprj_Spheroid* s = xform->camera->obsoletePlaceHolder0->proSpheroid;
  *a = s->a;
  *e2 = s->eSquared;
}

// Work buffers of the DEM iteration.
struct DemBuffers {
  MatrixPtr one;
  PixelRectPtr cell;
};

bool MakeDemBuffers(kzdv::ErrorFrame& frame, DemBuffers* b) {
  b->one.reset(efga_MatrixCreate(2, 1, frame.Callee()));
  EERR_CHECK(b->one, frame, false, L"efga_MatrixCreate failed");
  b->cell.reset(eimg_PixelRectCreate(1, 1, EGDA_TYPE_F64, frame.Callee()));
  EERR_CHECK(b->cell, frame, false, L"eimg_PixelRectCreate failed");
  return true;
}

// One DEM read inside the iteration: a failure is printed and dropped, and
// the height of the previous read stands.
double IterationHeight(const Epho_CameraXform* xform, DemBuffers& b, double map_x, double map_y,
                       double previous) {
  Eerr_ErrorReport* report = nullptr;
  double z = previous;
  if (!DemHeightAt(xform, b.one.get(), b.cell.get(), map_x, map_y, &z, &report)) z = previous;
  if (report) {
    eerr_PrintErrorReport(report, nullptr, 0);
    eerr_DeleteErrorReport(report);
  }
  return z;
}

constexpr int kMaxDemReads = 10;
constexpr double kHeightSettled = 1.0;

// Ground of a film point in the tangent-plane frame at height Z above the
// caller's datum: steps 1 to 5 of the inverse, giving longitude and latitude.
bool TangentInverseOnce(const Epho_CameraXform* xform, double x, double y, double Z, double a,
                        double e2, double* lon, double* lat) {
  const Epho_Camera* cam = xform->camera;
  const double* f = xform->tangentFrame;
  double Xt, Yt, Xg, Yg, Zg, h;
  if (epho_CameraImageAndZToXY(xform->orientation, cam->PhotoDirection, x, y, Z, &Xt, &Yt))
    return false;
  if (!emod_TangentPlaneToGeocentric(Xt, Yt, Z, &Xg, &Yg, &Zg, f)) return false;
  if (!emod_GeocentricToGeographic(Xg, Yg, Zg, lon, lat, &h, e2, a)) return false;
  const double s = epho_CalculateZShift(xform->projectionDatum, xform->elevationDatum, *lon, *lat);
  if (!emod_GeographicToGeocentric(*lon, *lat, Z - s, &Xg, &Yg, &Zg, e2, a)) return false;
  // Tangent-plane height of the shifted ground point: third row of the frame.
  const double Zt = (Xg - f[0]) * f[9] + (Yg - f[1]) * f[10] + (Zg - f[2]) * f[11];
  if (epho_CameraImageAndZToXY(xform->orientation, cam->PhotoDirection, x, y, Zt, &Xt, &Yt))
    return false;
  // Back to geographic from the point on the ray at that tangent-plane height.
  if (!emod_TangentPlaneToGeocentric(Xt, Yt, Zt, &Xg, &Yg, &Zg, f)) return false;
  return emod_GeocentricToGeographic(Xg, Yg, Zg, lon, lat, &h, e2, a) != EMSC_FALSE;
}

}  // namespace

void ForwardCartesianTriples(const Epho_CameraXform* xform, long count, const double* xyz,
                             const double* in_affine, const double* out_affine, double* out_xy) {
  const Epho_FilmProjection projection = ProjectionOf(xform);
  const epho::VectorPath path = epho::BestVectorPath();
  const double* a = in_affine;
  const double* b = out_affine;
  double X[kStep], Y[kStep], Z[kStep], fx[kStep], fy[kStep];
  for (long first = 0; first < count; first += kStep) {
    const int32_t n = static_cast<int32_t>(std::min(kStep, count - first));
    const double* p = xyz + 3 * first;
    for (int32_t i = 0; i < n; ++i) {
      X[i] = a[0] * p[3 * i] + a[1] * p[3 * i + 1] + a[2];
      Y[i] = a[3] * p[3 * i] + a[4] * p[3 * i + 1] + a[5];
      Z[i] = p[3 * i + 2];
    }
    // A point in the plane of the centre comes back NaN and stays NaN.
    epho::kernel::ObjectToImageBatch(path, projection, n, X, Y, Z, fx, fy, nullptr);
    double* o = out_xy + 2 * first;
    for (int32_t i = 0; i < n; ++i) {
      o[2 * i] = b[0] * fx[i] + b[1] * fy[i] + b[2];
      o[2 * i + 1] = b[3] * fx[i] + b[4] * fy[i] + b[5];
    }
  }
}

}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

double epho_CalcZ(double fileX, double fileY, double value, int32_t n,
                  const double* c) KZDV_NOEXCEPT {
  if (n <= 0 || !c) return value;
  if (n == 1) return c[0] * value;
  if (n == 2) return c[0] * value + c[1];
  return c[0] * value + c[1] + c[2] * fileX + c[3] * fileY;
}

Emsc_Boolean epho_CameraForTransCartesian(const Epho_CameraXform* xform, double* heights,
                                          const Efga_Matrix* in, Efga_Matrix* out,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraForTransCartesian";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(xform, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(xform->camera, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(in, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(out, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(heights, frame, EMSC_FALSE);
  const Epho_FilmProjection projection = ProjectionOf(xform);
  const epho::VectorPath path = epho::BestVectorPath();
  const long n = PointCount(in);
  const double* src = in->data;
  double* dst = out->data;
  double X[kStep], Y[kStep], fx[kStep], fy[kStep];
  for (long first = 0; first < n; first += kStep) {
    const int32_t k = static_cast<int32_t>(std::min(kStep, n - first));
    for (int32_t i = 0; i < k; ++i) X[i] = src[2 * (first + i)], Y[i] = src[2 * (first + i) + 1];
    epho::kernel::ObjectToImageBatch(path, projection, k, X, Y, heights + first, fx, fy, nullptr);
    for (int32_t i = 0; i < k; ++i) dst[2 * (first + i)] = fx[i], dst[2 * (first + i) + 1] = fy[i];
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_CameraForTransTangent(const Epho_CameraXform* xform, double* heights,
                                        const Efga_Matrix* in, Efga_Matrix* out,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraForTransTangent";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(xform, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(xform->camera, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(in, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(out, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(heights, frame, EMSC_FALSE);
  EERR_FAIL_IF(!xform->camera->obsoletePlaceHolder0 ||
                   !xform->camera->obsoletePlaceHolder0->proSpheroid || !xform->tangentFrame,
               frame, EMSC_FALSE, L"The camera has no projection parameters for a tangent plane");
  const Epho_FilmProjection projection = ProjectionOf(xform);
  const epho::VectorPath path = epho::BestVectorPath();
  double a, e2;
  SpheroidOf(xform, &a, &e2);
  const long n = PointCount(in);
  double Xt[kStep], Yt[kStep], Zt[kStep], fx[kStep], fy[kStep];
  bool placed[kStep];
  for (long first = 0; first < n; first += kStep) {
    const int32_t k = static_cast<int32_t>(std::min(kStep, n - first));
    for (int32_t i = 0; i < k; ++i) {
      const long j = first + i;
      const double lon = in->data[2 * j], lat = in->data[2 * j + 1];
      // The shifted height goes back to the caller on purpose: it is the
      // ellipsoidal height the photogrammetry used.
      const double s =
          epho_CalculateZShift(xform->projectionDatum, xform->elevationDatum, lon, lat);
      heights[j] -= s;
      double Xg, Yg, Zg;
      placed[i] =
          emod_GeographicToGeocentric(lon, lat, heights[j], &Xg, &Yg, &Zg, e2, a) &&
          emod_GeocentricToTangentPlane(Xg, Yg, Zg, &Xt[i], &Yt[i], &Zt[i], xform->tangentFrame);
      if (!placed[i]) Xt[i] = Yt[i] = Zt[i] = 0.0;  // any finite point; its result is dropped
    }
    epho::kernel::ObjectToImageBatch(path, projection, k, Xt, Yt, Zt, fx, fy, nullptr);
    for (int32_t i = 0; i < k; ++i) {
      out->data[2 * (first + i)] = placed[i] ? fx[i] : kNaN;
      out->data[2 * (first + i) + 1] = placed[i] ? fy[i] : kNaN;
    }
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"

namespace epho::camera {

// The DEM refinement shared by both inverse transforms: at most kMaxDemReads
// reads, stopping once the height moves by kHeightSettled or less. `map_at`
// gives the map position of the current ground point, `move_to` puts the
// ground point at a new height (leaving it where it was when it cannot).
template <class MapAt, class MoveTo>
void RefineOnDem(const Epho_CameraXform* xform, DemBuffers& buffers, double Z, MapAt map_at,
                 MoveTo move_to) {
  for (int r = 0; r < kMaxDemReads; ++r) {
    double mx, my;
    map_at(&mx, &my);
    const double Zn = IterationHeight(xform, buffers, mx, my, Z);
    move_to(Zn);
    const bool settled = std::fabs(Zn - Z) <= kHeightSettled;
    Z = Zn;
    if (settled) break;
  }
}

Emsc_Boolean InvTransCartesianImpl(const Epho_CameraXform* xform, double* heights,
                                   const Efga_Matrix* in, Efga_Matrix* out, bool use_dem,
                                   Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraInvTransCartesian";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(xform, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(xform->camera, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(in, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(out, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(heights, frame, EMSC_FALSE);
  const Epho_Camera* cam = xform->camera;
  DemBuffers buffers;
  if (use_dem && !MakeDemBuffers(frame, &buffers)) return EMSC_FALSE;
  const Epho_FilmProjection projection = ProjectionOf(xform);
  const epho::VectorPath path = epho::BestVectorPath();
  const long n = PointCount(in);
  double fx[kStep], fy[kStep], ix[kStep], iy[kStep], gx[kStep], gy[kStep];
  uint8_t failed[kStep];
  for (long first = 0; first < n; first += kStep) {
    const int32_t k = static_cast<int32_t>(std::min(kStep, n - first));
    for (int32_t i = 0; i < k; ++i)
      fx[i] = in->data[2 * (first + i)], fy[i] = in->data[2 * (first + i) + 1];
    epho::kernel::FilmToIdealBatch(path, projection, k, fx, fy, heights + first, ix, iy);
    std::copy(ix, ix + k, gx);
    std::copy(iy, iy + k, gy);
    epho::kernel::IdealToGroundBatch(path, projection.matrix, projection.mode, k, heights + first,
                                     gx, gy, failed);
    for (int32_t i = 0; i < k; ++i) {
      const long j = first + i;
      double X = gx[i], Y = gy[i], Z = heights[j];
      if (failed[i]) {
        out->data[2 * j] = out->data[2 * j + 1] = kNaN;
        continue;
      }
      if (use_dem) {
        RefineOnDem(
            xform, buffers, Z, [&](double* mx, double* my) { *mx = X, *my = Y; },
            [&](double Zn) {
              double Xn, Yn;
              if (!epho_CameraImageAndZToXY(xform->orientation, cam->PhotoDirection, ix[i], iy[i],
                                            Zn, &Xn, &Yn))
                X = Xn, Y = Yn;
            });
      }
      out->data[2 * j] = X;
      out->data[2 * j + 1] = Y;
    }
  }
  return EMSC_TRUE;
}

Emsc_Boolean InvTransTangentImpl(const Epho_CameraXform* xform, double* heights,
                                 const Efga_Matrix* in, Efga_Matrix* out, bool use_dem,
                                 Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraInvTransTangent";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(xform, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(xform->camera, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(in, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(out, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(heights, frame, EMSC_FALSE);
  const Epho_Camera* cam = xform->camera;
  EERR_FAIL_IF(
      !cam->obsoletePlaceHolder0 || !cam->obsoletePlaceHolder0->proSpheroid || !xform->tangentFrame,
      frame, EMSC_FALSE, L"The camera has no projection parameters for a tangent plane");
  DemBuffers buffers;
  if (use_dem && !MakeDemBuffers(frame, &buffers)) return EMSC_FALSE;
  const Epho_FilmProjection projection = ProjectionOf(xform);
  const epho::VectorPath path = epho::BestVectorPath();
  double a, e2;
  SpheroidOf(xform, &a, &e2);
  const Eprj_MapProjection* proj = xform->projection;
  const long n = PointCount(in);
  double fx[kStep], fy[kStep], ix[kStep], iy[kStep];
  for (long first = 0; first < n; first += kStep) {
    const int32_t block = static_cast<int32_t>(std::min(kStep, n - first));
    for (int32_t j = 0; j < block; ++j)
      fx[j] = in->data[2 * (first + j)], fy[j] = in->data[2 * (first + j) + 1];
    epho::kernel::FilmToIdealBatch(path, projection, block, fx, fy, heights + first, ix, iy);
    for (long i = first; i < first + block; ++i) {
      const double x = ix[i - first], y = iy[i - first];
      double Z = heights[i];
      double lon = kNaN, lat = kNaN;
      if (!TangentInverseOnce(xform, x, y, Z, a, e2, &lon, &lat)) {
        out->data[2 * i] = out->data[2 * i + 1] = kNaN;
        continue;
      }
      if (use_dem) {
        RefineOnDem(
            xform, buffers, Z,
            [&](double* mx, double* my) {
              *mx = lon, *my = lat;
              if (proj && proj->fromLL) {
                Eerr_ErrorReport* report = nullptr;
                if (!eprj_ProjectionFromLL(proj, 1, mx, my, &report) && report) {
                  eerr_PrintErrorReport(report, nullptr, 0);
                }
                eerr_DeleteErrorReport(report);
              }
            },
            [&](double Zn) {
              double ln, lt;
              if (TangentInverseOnce(xform, x, y, Zn, a, e2, &ln, &lt)) lon = ln, lat = lt;
            });
      }
      out->data[2 * i] = lon;
      out->data[2 * i + 1] = lat;
    }
  }
  return EMSC_TRUE;
}

}  // namespace epho::camera

extern "C" {

Emsc_Boolean epho_CameraInvTransCartesian(const Epho_CameraXform* xform, double* heights,
                                          const Efga_Matrix* in, Efga_Matrix* out,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  return InvTransCartesianImpl(xform, heights, in, out,
                               xform && xform->camera && xform->camera->demsource == EMOD_DEM_FILE,
                               err);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_CameraInvTransTangent(const Epho_CameraXform* xform, double* heights,
                                        const Efga_Matrix* in, Efga_Matrix* out,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  return InvTransTangentImpl(xform, heights, in, out,
                             xform && xform->camera && xform->camera->demsource == EMOD_DEM_FILE,
                             err);
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
