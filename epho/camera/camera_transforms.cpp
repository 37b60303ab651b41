// Batch transforms of a frame camera between ground and film, Cartesian and
// in a local tangent plane, with the inverse iterated against the DEM.
#include <algorithm>
#include <cmath>
#include <limits>

#include "emod.h"
#include "epho/camera/camera_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::camera {

CameraFlags FlagsOf(const Epho_Camera* camera) {
  return {camera->LensDistortion.count > 0 || camera->AdditionalParameters.count > 0,
          camera->PhotoDirection > 1};
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

// Ground (X, Y, Z) in the photogrammetric frame to film, with the refraction
// and curvature correction and the lens distortion when the camera has them.
inline void GroundToFilm(const Epho_CameraXform* xform, const CameraFlags& flags, double X,
                         double Y, double Z, double* x, double* y) {
  const Epho_Camera* cam = xform->camera;
  // The collinearity kernel's arithmetic, inline.
  const double* m = xform->orientation;
  const double w = m[0] + m[1] * X + m[2] * Y + m[3] * Z;
  if (w == 0.0) {
    *x = *y = kNaN;  // the point lies in the plane of the perspective centre
    return;
  }
  *x = (m[4] + m[5] * X + m[6] * Y + m[7] * Z) / w;
  *y = (m[8] + m[9] * X + m[10] * Y + m[11] * Z) / w;
  if (flags.correction)
    epho_CameraAwayCorrection(cam->PhotoDirection, cam->coeffs[5], Z, cam->coeffs[0], x, y, 0);
  if (flags.distortion) {
    double dx, dy;
    epho_CameraAwayDistortion(&cam->LensDistortion, &cam->AdditionalParameters, *x, *y, &dx, &dy);
    *x += dx;
    *y += dy;
  }
}

// Film to the ideal film point of the collinearity: distortion removed (one
// step) and the correction undone.
inline void FilmToIdeal(const Epho_CameraXform* xform, const CameraFlags& flags, double Z,
                        double* x, double* y) {
  const Epho_Camera* cam = xform->camera;
  if (flags.distortion) {
    double dx, dy;
    epho_CameraAwayDistortion(&cam->LensDistortion, &cam->AdditionalParameters, *x, *y, &dx, &dy);
    *x -= dx;
    *y -= dy;
  }
  if (flags.correction)
    epho_CameraAwayCorrection(cam->PhotoDirection, cam->coeffs[5], Z, cam->coeffs[0], x, y, 1);
}

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
  const Epho_Camera* cam = xform->camera;
  const CameraFlags flags = FlagsOf(cam);
  const double* a = in_affine;
  const double* b = out_affine;
  const double* m = xform->orientation;
  // Blocks of points: first the collinearity of the whole block in a loop
  // the compiler can vectorise, then the lens and the output affine.
  constexpr long kStep = 256;
  double fx[kStep], fy[kStep], fz[kStep];
  for (long first = 0; first < count; first += kStep) {
    const long n = std::min(kStep, count - first);
    const double* p = xyz + 3 * first;
    for (long i = 0; i < n; ++i) {
      const double X = a[0] * p[3 * i] + a[1] * p[3 * i + 1] + a[2];
      const double Y = a[3] * p[3 * i] + a[4] * p[3 * i + 1] + a[5];
      const double Z = p[3 * i + 2];
      const double w = m[0] + m[1] * X + m[2] * Y + m[3] * Z;
      fx[i] = (m[4] + m[5] * X + m[6] * Y + m[7] * Z) / w;
      fy[i] = (m[8] + m[9] * X + m[10] * Y + m[11] * Z) / w;
      fz[i] = w == 0.0 ? kNaN : Z;  // a point in the plane of the centre projects nowhere
    }
    double* o = out_xy + 2 * first;
    for (long i = 0; i < n; ++i) {
      double x = fx[i], y = fy[i];
      if (std::isnan(fz[i])) {
        o[2 * i] = o[2 * i + 1] = kNaN;
        continue;
      }
      if (flags.correction)
        epho_CameraAwayCorrection(cam->PhotoDirection, cam->coeffs[5], fz[i], cam->coeffs[0], &x,
                                  &y, 0);
      if (flags.distortion) {
        double dx, dy;
        epho_CameraAwayDistortion(&cam->LensDistortion, &cam->AdditionalParameters, x, y, &dx, &dy);
        x += dx;
        y += dy;
      }
      o[2 * i] = b[0] * x + b[1] * y + b[2];
      o[2 * i + 1] = b[3] * x + b[4] * y + b[5];
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
  const CameraFlags flags = FlagsOf(xform->camera);
  const long n = PointCount(in);
  const double* src = in->data;
  double* dst = out->data;
  if (!flags.distortion && !flags.correction) {
    // Fast loop: collinearity alone.
    const double* m = xform->orientation;
    for (long i = 0; i < n; ++i) {
      const double X = src[2 * i], Y = src[2 * i + 1], Z = heights[i];
      const double w = m[0] + m[1] * X + m[2] * Y + m[3] * Z;
      if (w == 0.0) {
        dst[2 * i] = dst[2 * i + 1] = kNaN;
        continue;
      }
      const double u = m[4] + m[5] * X + m[6] * Y + m[7] * Z;
      const double v = m[8] + m[9] * X + m[10] * Y + m[11] * Z;
      dst[2 * i] = u / w;
      dst[2 * i + 1] = v / w;
    }
    return EMSC_TRUE;
  }
  for (long i = 0; i < n; ++i) {
    double x, y;
    GroundToFilm(xform, flags, src[2 * i], src[2 * i + 1], heights[i], &x, &y);
    dst[2 * i] = x;
    dst[2 * i + 1] = y;
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
  const CameraFlags flags = FlagsOf(xform->camera);
  double a, e2;
  SpheroidOf(xform, &a, &e2);
  const long n = PointCount(in);
  for (long i = 0; i < n; ++i) {
    const double lon = in->data[2 * i], lat = in->data[2 * i + 1];
    // The shifted height goes back to the caller on purpose: it is the
    // ellipsoidal height the photogrammetry used.
    const double s = epho_CalculateZShift(xform->projectionDatum, xform->elevationDatum, lon, lat);
    heights[i] -= s;
    double Xg, Yg, Zg, Xt, Yt, Zt, x = kNaN, y = kNaN;
    if (emod_GeographicToGeocentric(lon, lat, heights[i], &Xg, &Yg, &Zg, e2, a) &&
        emod_GeocentricToTangentPlane(Xg, Yg, Zg, &Xt, &Yt, &Zt, xform->tangentFrame))
      GroundToFilm(xform, flags, Xt, Yt, Zt, &x, &y);
    out->data[2 * i] = x;
    out->data[2 * i + 1] = y;
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"

namespace epho::camera {

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
  const CameraFlags flags = FlagsOf(cam);
  const long n = PointCount(in);
  for (long i = 0; i < n; ++i) {
    double x = in->data[2 * i], y = in->data[2 * i + 1];
    double Z = heights[i];
    FilmToIdeal(xform, flags, Z, &x, &y);
    double X = kNaN, Y = kNaN;
    if (epho_CameraImageAndZToXY(xform->orientation, cam->PhotoDirection, x, y, Z, &X, &Y)) {
      out->data[2 * i] = out->data[2 * i + 1] = kNaN;
      continue;
    }
    if (use_dem) {
      for (int k = 0; k < kMaxDemReads; ++k) {
        const double Zn = IterationHeight(xform, buffers, X, Y, Z);
        double Xn, Yn;
        if (!epho_CameraImageAndZToXY(xform->orientation, cam->PhotoDirection, x, y, Zn, &Xn,
                                      &Yn)) {
          X = Xn;
          Y = Yn;
        }
        const bool settled = std::fabs(Zn - Z) <= kHeightSettled;
        Z = Zn;
        if (settled) break;
      }
    }
    out->data[2 * i] = X;
    out->data[2 * i + 1] = Y;
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
  const CameraFlags flags = FlagsOf(cam);
  double a, e2;
  SpheroidOf(xform, &a, &e2);
  const Eprj_MapProjection* proj = xform->projection;
  const long n = PointCount(in);
  for (long i = 0; i < n; ++i) {
    double x = in->data[2 * i], y = in->data[2 * i + 1];
    double Z = heights[i];
    FilmToIdeal(xform, flags, Z, &x, &y);
    double lon = kNaN, lat = kNaN;
    if (!TangentInverseOnce(xform, x, y, Z, a, e2, &lon, &lat)) {
      out->data[2 * i] = out->data[2 * i + 1] = kNaN;
      continue;
    }
    if (use_dem) {
      for (int k = 0; k < kMaxDemReads; ++k) {
        double mx = lon, my = lat;
        if (proj && proj->fromLL) {
          Eerr_ErrorReport* report = nullptr;
          if (!eprj_ProjectionFromLL(proj, 1, &mx, &my, &report) && report) {
            eerr_PrintErrorReport(report, nullptr, 0);
          }
          eerr_DeleteErrorReport(report);
        }
        const double Zn = IterationHeight(xform, buffers, mx, my, Z);
        double ln, lt;
        if (TangentInverseOnce(xform, x, y, Zn, a, e2, &ln, &lt)) {
          lon = ln;
          lat = lt;
        }
        const bool settled = std::fabs(Zn - Z) <= kHeightSettled;
        Z = Zn;
        if (settled) break;
      }
    }
    out->data[2 * i] = lon;
    out->data[2 * i + 1] = lat;
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
