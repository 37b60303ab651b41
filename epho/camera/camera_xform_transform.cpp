// Running a camera transform object: a batch one way, 3D to 2D at given
// heights, and the intersection of image pairs.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "emod.h"
#include "epho/camera/camera_internal.h"
#include "epho/solvers.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace epho::camera {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

inline void Affine(const double* c, double x, double y, double* ox, double* oy) {
  *ox = c[0] * x + c[1] * y + c[2];
  *oy = c[3] * x + c[4] * y + c[5];
}

// Points per block of the batch entry points.
constexpr long kBlock = 1024;

bool Tangent(const Epho_CameraXform* x) { return x->camera->refType == EMOD_TANGENT_PLANE; }

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

Emsc_Boolean epho_ImageToObject(const double* matrixA, const double* matrixB, double xA, double yA,
                                double xB, double yB, double* ground) KZDV_NOEXCEPT {
  // Four equations r . (1, X, Y, Z) = 0, least squares for (X, Y, Z).
  double rows[4][4];
  const double* ms[2] = {matrixA, matrixB};
  const double xs[2] = {xA, xB}, ys[2] = {yA, yB};
  for (int k = 0; k < 2; ++k) {
    const double* m = ms[k];
    for (int j = 0; j < 4; ++j) {
      rows[2 * k][j] = m[4 + j] - xs[k] * m[j];
      rows[2 * k + 1][j] = m[8 + j] - ys[k] * m[j];
    }
  }
  double n[9] = {0}, b[3] = {0};
  for (auto& r : rows)
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) n[3 * i + j] += r[1 + i] * r[1 + j];
      b[i] -= r[1 + i] * r[0];
    }
  // Cramer's rule on the symmetric 3x3 normal matrix.
  const double det = n[0] * (n[4] * n[8] - n[5] * n[7]) - n[1] * (n[3] * n[8] - n[5] * n[6]) +
                     n[2] * (n[3] * n[7] - n[4] * n[6]);
  // Parallel rays leave a normal matrix singular to rounding: its determinant
  // vanishes against the product of its diagonal.
  if (!std::isfinite(det) || std::fabs(det) <= 1e-13 * std::fabs(n[0] * n[4] * n[8]))
    return EMSC_TRUE;
  const double X = (b[0] * (n[4] * n[8] - n[5] * n[7]) - n[1] * (b[1] * n[8] - n[5] * b[2]) +
                    n[2] * (b[1] * n[7] - n[4] * b[2])) /
                   det;
  const double Y = (n[0] * (b[1] * n[8] - n[5] * b[2]) - b[0] * (n[3] * n[8] - n[5] * n[6]) +
                    n[2] * (n[3] * b[2] - b[1] * n[6])) /
                   det;
  const double Z = (n[0] * (n[4] * b[2] - b[1] * n[7]) - n[1] * (n[3] * b[2] - b[1] * n[6]) +
                    b[0] * (n[3] * n[7] - n[4] * n[6])) /
                   det;
  if (!std::isfinite(X) || !std::isfinite(Y) || !std::isfinite(Z)) return EMSC_TRUE;
  ground[0] = X;
  ground[1] = Y;
  ground[2] = Z;
  return EMSC_FALSE;
}

Emsc_Boolean epho_CameraXformTransform(Epho_CameraXform* xform, long count, double* inPoints,
                                       double* outPoints, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_CameraXformTransform";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, EMSC_FALSE, L"Invalid input camera xform data.");
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(inPoints, frame, EMSC_FALSE);
  if (!xform->filled)
    EERR_CHECK(epho_CameraXformFillNoMIFData(xform, frame.Callee()), frame, EMSC_FALSE,
               L"epho_CameraXformFillNoMIFData failed");
  for (long i = 0; i < 2 * count; ++i)
    EERR_FAIL_IF(!std::isfinite(inPoints[i]), frame, EMSC_FALSE, L"Point %ld is not finite", i / 2);
  const Epho_Camera* cam = xform->camera;
  const bool forward = cam->direction == EMOD_FORWARD;
  const double* in_affine = forward ? cam->forDstAffine : cam->forSrcAffine;
  const double* out_affine = forward ? cam->invSrcAffine : cam->invDstAffine;
  kzdv::HeapPtr<double> heights(static_cast<double*>(emsc_HeapMalloc(sizeof(double) * count)));
  EERR_FAIL_IF(!heights, frame, EMSC_FALSE, L"No memory");
  MatrixPtr points(efga_MatrixCreate(2, count, frame.Callee()));
  EERR_CHECK(points, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  double* p = points->data;
  for (long i = 0; i < count; ++i)
    Affine(in_affine, inPoints[2 * i], inPoints[2 * i + 1], &p[2 * i], &p[2 * i + 1]);
  // Ground points of the forward direction take their heights from the DEM;
  // the inverse starts from the mean height and iterates itself.
  if (forward && cam->demsource == EMOD_DEM_FILE) {
    MatrixPtr one(efga_MatrixCreate(2, 1, frame.Callee()));
    EERR_CHECK(one, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
    PixelRectPtr cell(eimg_PixelRectCreate(1, 1, EGDA_TYPE_F64, frame.Callee()));
    EERR_CHECK(cell, frame, EMSC_FALSE, L"eimg_PixelRectCreate failed");
    for (long i = 0; i < count; ++i)
      EERR_CHECK(DemHeightAt(xform, one.get(), cell.get(), p[2 * i], p[2 * i + 1],
                             &heights.get()[i], frame.Callee()),
                 frame, EMSC_FALSE, L"eimg_LayerRasterPixelRectGet failed");
  } else {
    for (long i = 0; i < count; ++i) heights.get()[i] = cam->z_mean;
  }
  const bool tangent = Tangent(xform);
  if (forward) {
    if (tangent && xform->projection && xform->projection->toLL)
      EERR_CHECK(xform->projection->toLL(xform->projection, points.get(), frame.Callee()), frame,
                 EMSC_FALSE, L"toLL failed");
    Emsc_Boolean ok = tangent ? epho_CameraForTransTangent(xform, heights.get(), points.get(),
                                                           points.get(), frame.Callee())
                              : epho_CameraForTransCartesian(xform, heights.get(), points.get(),
                                                             points.get(), frame.Callee());
    EERR_CHECK(ok, frame, EMSC_FALSE, L"Transform failed");
  } else {
    Emsc_Boolean ok = tangent ? epho_CameraInvTransTangent(xform, heights.get(), points.get(),
                                                           points.get(), frame.Callee())
                              : epho_CameraInvTransCartesian(xform, heights.get(), points.get(),
                                                             points.get(), frame.Callee());
    EERR_CHECK(ok, frame, EMSC_FALSE, L"Transform failed");
    if (tangent && xform->projection && xform->projection->fromLL)
      EERR_CHECK(xform->projection->fromLL(xform->projection, points.get(), frame.Callee()), frame,
                 EMSC_FALSE, L"fromLL failed");
  }
  double* out = outPoints ? outPoints : inPoints;
  for (long i = 0; i < count; ++i)
    Affine(out_affine, p[2 * i], p[2 * i + 1], &out[2 * i], &out[2 * i + 1]);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_CameraXformTransform3DTo2D(Epho_CameraXform* xform, long count, double* points,
                                             double* out, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_CameraXformTransform3DTo2D";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, EMSC_FALSE, L"Invalid input camera xform data.");
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(points, frame, EMSC_FALSE);
  if (!xform->filled) {
    // The report names the preparation as callers have always matched it.
    Emsc_Boolean ok = epho_CameraXformFillNoMIFData(xform, frame.Callee());
    EERR_CHECK(ok && xform->filled, frame, EMSC_FALSE, L"emod_CameraXformFillNoMIFData failed");
  }
  for (long i = 0; i < 3 * count; ++i)
    EERR_FAIL_IF(!std::isfinite(points[i]), frame, EMSC_FALSE, L"Point %ld is not finite", i / 3);
  Epho_Camera* cam = xform->camera;
  // Every point keeps its own height: the DEM and its height conversion are
  // switched off for the call and put back on every path.
  struct DemSwitch {
    Epho_CameraXform* x;
    bool active;
    Epho_CountedDoubles saved;
    ~DemSwitch() {
      if (!active) return;
      x->camera->demsource = EMOD_DEM_FILE;
      x->demZCoeffs = saved;
    }
  } dem_switch{xform, cam->demsource == EMOD_DEM_FILE, xform->demZCoeffs};
  if (dem_switch.active) {
    cam->demsource = EMOD_DEM_CONSTANT;
    xform->demZCoeffs = {0, nullptr};
  }
  const bool forward = cam->direction == EMOD_FORWARD;
  const double* in_affine = forward ? cam->forDstAffine : cam->forSrcAffine;
  const double* out_affine = forward ? cam->invSrcAffine : cam->invDstAffine;
  if (forward && cam->refType == EMOD_CARTESIAN) {
    // The common case in one pass, without staging.
    ForwardCartesianTriples(xform, count, points, in_affine, out_affine, out ? out : points);
    return EMSC_TRUE;
  }
  // Points go through in blocks that stay in cache; the in-place packed form
  // is safe because a block's pairs end before its triples do.
  const long block = std::min(count, kBlock);
  kzdv::HeapPtr<double> heights(static_cast<double*>(emsc_HeapMalloc(sizeof(double) * block)));
  EERR_FAIL_IF(!heights, frame, EMSC_FALSE, L"No memory");
  MatrixPtr m(efga_MatrixCreate(2, block, frame.Callee()));
  EERR_CHECK(m, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  const bool tangent = cam->refType != EMOD_CARTESIAN;
  double* dst = out ? out : points;  // null `out`: pairs packed from the start
  for (long first = 0; first < count; first += block) {
    const long n = std::min(block, count - first);
    m->numcolumns = n;
    const double* src = points + 3 * first;
    for (long i = 0; i < n; ++i) {
      heights.get()[i] = src[3 * i + 2];
      Affine(in_affine, src[3 * i], src[3 * i + 1], &m->data[2 * i], &m->data[2 * i + 1]);
    }
    if (forward) {
      if (cam->refType == EMOD_TANGENT_PLANE && xform->projection && xform->projection->toLL)
        EERR_CHECK(xform->projection->toLL(xform->projection, m.get(), frame.Callee()), frame,
                   EMSC_FALSE, L"toLL failed");
      if (!tangent)
        EERR_CHECK(
            epho_CameraForTransCartesian(xform, heights.get(), m.get(), m.get(), frame.Callee()),
            frame, EMSC_FALSE, L"epho_CameraForTransCartesian failed");
      else
        EERR_CHECK(
            epho_CameraForTransTangent(xform, heights.get(), m.get(), m.get(), frame.Callee()),
            frame, EMSC_FALSE, L"epho_CameraForTransTangent failed");
    } else {
      if (!tangent)
        EERR_CHECK(
            epho_CameraInvTransCartesian(xform, heights.get(), m.get(), m.get(), frame.Callee()),
            frame, EMSC_FALSE, L"epho_CameraInvTransCartesian failed");
      else
        EERR_CHECK(
            epho_CameraInvTransTangent(xform, heights.get(), m.get(), m.get(), frame.Callee()),
            frame, EMSC_FALSE, L"epho_CameraInvTransTangent failed");
      if (cam->refType == EMOD_TANGENT_PLANE && xform->projection && xform->projection->fromLL)
        EERR_CHECK(xform->projection->fromLL(xform->projection, m.get(), frame.Callee()), frame,
                   EMSC_FALSE, L"fromLL failed");
    }
    double* d = dst + 2 * first;
    for (long i = 0; i < n; ++i)
      Affine(out_affine, m->data[2 * i], m->data[2 * i + 1], &d[2 * i], &d[2 * i + 1]);
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_CameraXformTransform2DPairTo3D(Epho_CameraXform* left, Epho_CameraXform* right,
                                                 long count, const double* leftPoints,
                                                 const double* rightPoints, double* out,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformTransform2DPairTo3D";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!left || !right || !left->camera || !right->camera, frame, EMSC_FALSE,
               L"Invalid input camera xform data.");
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(leftPoints, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(rightPoints, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(out, frame, EMSC_FALSE);
  for (long i = 0; i < 2 * count; ++i)
    EERR_FAIL_IF(!std::isfinite(leftPoints[i]) || !std::isfinite(rightPoints[i]), frame, EMSC_FALSE,
                 L"Point %ld is not finite", i / 2);
  EERR_FAIL_IF(left->camera->refType != right->camera->refType, frame, EMSC_FALSE,
               L"Different reference types for two xforms.");
  Emsc_Boolean same = eprj_ProParametersEqual(left->camera->obsoletePlaceHolder0,
                                              right->camera->obsoletePlaceHolder0, frame.Callee());
  EERR_CHECK(!frame.CalleeFailed(), frame, EMSC_FALSE, L"eprj_ProParametersEqual failed");
  EERR_FAIL_IF(!same, frame, EMSC_FALSE, L"Different projection systems for two xforms.");
  for (Epho_CameraXform* x : {left, right})
    if (!x->filled) {
      Emsc_Boolean ok = epho_CameraXformFillNoMIFData(x, frame.Callee());
      EERR_CHECK(ok && x->filled, frame, EMSC_FALSE, L"emod_CameraXformFillNoMIFData failed");
    }
  const Epho_CameraXform* xs[2] = {left, right};
  const double* pts[2] = {leftPoints, rightPoints};
  const bool tangent = Tangent(left);
  double a = 0, e2 = 0;
  if (tangent) {
    EERR_FAIL_IF(!left->camera->obsoletePlaceHolder0 || !left->tangentFrame, frame, EMSC_FALSE,
                 L"The camera has no projection parameters for a tangent plane");
    a = left->camera->obsoletePlaceHolder0->proSpheroid->a;
    e2 = left->camera->obsoletePlaceHolder0->proSpheroid->eSquared;
  }
  MatrixPtr geo;
  if (tangent) {
    geo.reset(efga_MatrixCreate(2, count, frame.Callee()));
    EERR_CHECK(geo, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  }
  const Epho_Camera* lc = left->camera;
  for (long i = 0; i < count; ++i) {
    double film[2][2];
    for (int k = 0; k < 2; ++k) {
      const Epho_Camera* c = xs[k]->camera;
      Affine(c->forSrcAffine, pts[k][2 * i], pts[k][2 * i + 1], &film[k][0], &film[k][1]);
      if (c->LensDistortion.count > 0 || c->AdditionalParameters.count > 0) {
        double dx, dy;
        epho_CameraAwayDistortion(&c->LensDistortion, &c->AdditionalParameters, film[k][0],
                                  film[k][1], &dx, &dy);
        film[k][0] -= dx;
        film[k][1] -= dy;
      }
      if (c->PhotoDirection > 1)
        epho_CameraAwayCorrection(c->PhotoDirection, c->coeffs[5], c->z_mean, c->coeffs[0],
                                  &film[k][0], &film[k][1], 1);
    }
    double g[3] = {kNaN, kNaN, kNaN};
    epho_ImageToObject(left->orientation, right->orientation, film[0][0], film[0][1], film[1][0],
                       film[1][1], g);
    if (tangent) {
      // Tangent plane to geographic, height above the elevation datum.
      double Xg, Yg, Zg, lon = kNaN, lat = kNaN, h = kNaN;
      if (emod_TangentPlaneToGeocentric(g[0], g[1], g[2], &Xg, &Yg, &Zg, left->tangentFrame) &&
          emod_GeocentricToGeographic(Xg, Yg, Zg, &lon, &lat, &h, e2, a))
        h += epho_CalculateZShift(left->projectionDatum, left->elevationDatum, lon, lat);
      geo->data[2 * i] = lon;
      geo->data[2 * i + 1] = lat;
      out[3 * i + 2] = h;
    } else {
      Affine(lc->invDstAffine, g[0], g[1], &out[3 * i], &out[3 * i + 1]);
      out[3 * i + 2] = g[2];
    }
  }
  if (tangent) {
    if (left->projection && left->projection->fromLL)
      EERR_CHECK(left->projection->fromLL(left->projection, geo.get(), frame.Callee()), frame,
                 EMSC_FALSE, L"fromLL failed");
    for (long i = 0; i < count; ++i)
      Affine(lc->invDstAffine, geo->data[2 * i], geo->data[2 * i + 1], &out[3 * i],
             &out[3 * i + 1]);
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
