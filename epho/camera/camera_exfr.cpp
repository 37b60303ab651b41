// The camera transform object as an exfr sensor-model transform: the routines
// through which exfr_GroundToImage, exfr_ImageToGroundRay and
// exfr_ImageAndGroundZToGroundXY reach a frame camera.
#include <cmath>

#include "epho/camera/camera_internal.h"
#include "epho/kernel/collinearity_batch.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace epho::camera {
namespace {

inline void Affine(const double* c, double x, double y, double* ox, double* oy) {
  *ox = c[0] * x + c[1] * y + c[2];
  *oy = c[3] * x + c[4] * y + c[5];
}

Emsc_Boolean GroundToImage(void* model, long count, const double* ground_xyz, double* image_xy,
                           Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraGroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* xform = static_cast<const Epho_CameraXform*>(model);
  const Epho_Camera* cam = xform->camera;
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(ground_xyz, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  if (cam->refType == EMOD_CARTESIAN) {
    ForwardCartesianTriples(xform, count, ground_xyz, cam->forDstAffine, cam->invSrcAffine,
                            image_xy);
    for (long i = 0; i < count; ++i)
      EERR_FAIL_IF(!std::isfinite(image_xy[2 * i]) || !std::isfinite(image_xy[2 * i + 1]), frame,
                   EMSC_FALSE, L"Ground point %ld does not project into the image", i);
    return EMSC_TRUE;
  }
  MatrixPtr m(efga_MatrixCreate(2, count, frame.Callee()));
  EERR_CHECK(m, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  kzdv::HeapPtr<double> z(static_cast<double*>(emsc_HeapMalloc(sizeof(double) * count)));
  EERR_FAIL_IF(!z, frame, EMSC_FALSE, L"No memory");
  for (long i = 0; i < count; ++i) {
    Affine(cam->forDstAffine, ground_xyz[3 * i], ground_xyz[3 * i + 1], &m->data[2 * i],
           &m->data[2 * i + 1]);
    z.get()[i] = ground_xyz[3 * i + 2];
  }
  const bool tangent = cam->refType == EMOD_TANGENT_PLANE;
  if (tangent && xform->projection && xform->projection->toLL)
    EERR_CHECK(xform->projection->toLL(xform->projection, m.get(), frame.Callee()), frame,
               EMSC_FALSE, L"toLL failed");
  Emsc_Boolean ok =
      tangent ? epho_CameraForTransTangent(xform, z.get(), m.get(), m.get(), frame.Callee())
              : epho_CameraForTransCartesian(xform, z.get(), m.get(), m.get(), frame.Callee());
  EERR_CHECK(ok, frame, EMSC_FALSE, L"Transform failed");
  for (long i = 0; i < count; ++i)
    EERR_FAIL_IF(!std::isfinite(m->data[2 * i]) || !std::isfinite(m->data[2 * i + 1]), frame,
                 EMSC_FALSE, L"Ground point %ld does not project into the image", i);
  for (long i = 0; i < count; ++i)
    Affine(cam->invSrcAffine, m->data[2 * i], m->data[2 * i + 1], &image_xy[2 * i],
           &image_xy[2 * i + 1]);
  return EMSC_TRUE;
}

Emsc_Boolean ImageToGroundRay(void* model, double image_x, double image_y, double origin[3],
                              double direction[3], Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraImageToGroundRay";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* xform = static_cast<const Epho_CameraXform*>(model);
  const Epho_Camera* cam = xform->camera;
  EERR_FAIL_IF(cam->refType != EMOD_CARTESIAN, frame, EMSC_FALSE,
               L"Rays are given in the Cartesian reference only");
  double fx, fy, x, y;
  Affine(cam->forSrcAffine, image_x, image_y, &fx, &fy);
  // The ideal film point as the batch inverse forms it, at the mean height.
  epho::kernel::FilmToIdealBatch(epho::BestVectorPath(), ProjectionOf(xform), 1, &fx, &fy,
                                 &cam->z_mean, &x, &y);
  double d[3];
  EERR_FAIL_IF(epho_CameraImageToRay(xform->orientation, x, y, d), frame, EMSC_FALSE,
               L"The image point has no ray");
  const double* a = cam->invDstAffine;
  Affine(a, cam->coeffs[3], cam->coeffs[4], &origin[0], &origin[1]);
  origin[2] = cam->coeffs[5];
  direction[0] = a[0] * d[0] + a[1] * d[1];
  direction[1] = a[3] * d[0] + a[4] * d[1];
  direction[2] = d[2];
  return EMSC_TRUE;
}

Emsc_Boolean ImageAndZToXY(void* model, long count, const double* image_xy, const double* ground_z,
                           double* ground_xy, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraImageAndGroundZToGroundXY";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* xform = static_cast<const Epho_CameraXform*>(model);
  const Epho_Camera* cam = xform->camera;
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_z, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(ground_xy, frame, EMSC_FALSE);
  MatrixPtr m(efga_MatrixCreate(2, count, frame.Callee()));
  EERR_CHECK(m, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  kzdv::HeapPtr<double> z(static_cast<double*>(emsc_HeapMalloc(sizeof(double) * count)));
  EERR_FAIL_IF(!z, frame, EMSC_FALSE, L"No memory");
  for (long i = 0; i < count; ++i) {
    Affine(cam->forSrcAffine, image_xy[2 * i], image_xy[2 * i + 1], &m->data[2 * i],
           &m->data[2 * i + 1]);
    z.get()[i] = ground_z[i];
  }
  const bool tangent = cam->refType == EMOD_TANGENT_PLANE;
  Emsc_Boolean ok =
      tangent ? InvTransTangentImpl(xform, z.get(), m.get(), m.get(), false, frame.Callee())
              : InvTransCartesianImpl(xform, z.get(), m.get(), m.get(), false, frame.Callee());
  EERR_CHECK(ok, frame, EMSC_FALSE, L"Transform failed");
  if (tangent && xform->projection && xform->projection->fromLL)
    EERR_CHECK(xform->projection->fromLL(xform->projection, m.get(), frame.Callee()), frame,
               EMSC_FALSE, L"fromLL failed");
  for (long i = 0; i < count; ++i)
    EERR_FAIL_IF(!std::isfinite(m->data[2 * i]) || !std::isfinite(m->data[2 * i + 1]), frame,
                 EMSC_FALSE, L"Image point %ld does not reach the ground", i);
  for (long i = 0; i < count; ++i)
    Affine(cam->invDstAffine, m->data[2 * i], m->data[2 * i + 1], &ground_xy[2 * i],
           &ground_xy[2 * i + 1]);
  return EMSC_TRUE;
}

Emsc_Boolean Transform2D(void* model, Efga_Matrix* points, Eerr_ErrorReport** err) {
  auto* xform = static_cast<Epho_CameraXform*>(model);
  return epho_CameraXformTransform(xform, points->numcolumns * points->numrows / 2, points->data,
                                   nullptr, err);
}

void* CopyModel(const void* model, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_CameraXformToExfr";
  kzdv::ErrorFrame frame(kFn, err);
  XformPtr copy(epho_CameraXformCopy(static_cast<const Epho_CameraXform*>(model), frame.Callee()));
  EERR_CHECK(copy, frame, nullptr, L"epho_CameraXformCopy failed");
  EERR_CHECK(epho_CameraXformFillNoMIFData(copy.get(), frame.Callee()), frame, nullptr,
             L"epho_CameraXformFillNoMIFData failed");
  return copy.release();
}

void DestroyModel(void* model) { epho_CameraXformDelete(static_cast<Epho_CameraXform*>(model)); }

const Exfr_SensorModelOps kCameraOps = {"frame camera", GroundToImage, ImageToGroundRay,
                                        ImageAndZToXY,  Transform2D,   CopyModel,
                                        DestroyModel};

}  // namespace
}  // namespace epho::camera

using namespace epho::camera;

extern "C" {

const Exfr_SensorModelOps* epho_CameraXformSensorOps(void) KZDV_NOEXCEPT { return &kCameraOps; }

Exfr_XForm* epho_CameraXformToExfr(const Epho_CameraXform* xform,
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraXformToExfr";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!xform || !xform->camera, frame, nullptr, L"Invalid input camera xform data.");
  void* model = CopyModel(xform, frame.Callee());
  EERR_CHECK(model, frame, nullptr, L"epho_CameraXformCopy failed");
  Exfr_XForm* t = exfr_SensorModelXFormCreate(&kCameraOps, model, frame.Callee());
  EERR_CHECK(t, frame, nullptr, L"exfr_SensorModelXFormCreate failed");
  return t;
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
