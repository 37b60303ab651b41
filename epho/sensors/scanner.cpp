// The scanner model: file pixels reach film coordinates through the fiducial
// affine (offset first), and any sensor model in film coordinates becomes one
// between its ground and file pixels.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "epho/sensors/sensors_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::sensors {
namespace {

// The film-to-pixel inverse in the same offset-first layout, or false when
// the affine is singular (relative to the size of its linear part).
bool InvertAffine(const Epho_FiducialAffine& f, Epho_FiducialAffine* inv) {
  for (int k = 0; k < 3; ++k)
    if (!std::isfinite(f.a[k]) || !std::isfinite(f.b[k])) return false;
  const double det = f.a[1] * f.b[2] - f.a[2] * f.b[1];
  const double size =
      (std::fabs(f.a[1]) + std::fabs(f.a[2])) * (std::fabs(f.b[1]) + std::fabs(f.b[2]));
  if (!(std::fabs(det) > 1e-12 * size)) return false;
  inv->a[1] = f.b[2] / det;
  inv->a[2] = -f.a[2] / det;
  inv->b[1] = -f.b[1] / det;
  inv->b[2] = f.a[1] / det;
  inv->a[0] = -(inv->a[1] * f.a[0] + inv->a[2] * f.b[0]);
  inv->b[0] = -(inv->b[1] * f.a[0] + inv->b[2] * f.b[0]);
  return true;
}

void Apply(const Epho_FiducialAffine& f, long count, const double* in, double* out) {
  for (long i = 0; i < count; ++i) {
    const double x = in[2 * i], y = in[2 * i + 1];
    out[2 * i] = f.a[0] + f.a[1] * x + f.a[2] * y;
    out[2 * i + 1] = f.b[0] + f.b[1] * x + f.b[2] * y;
  }
}

struct ScannerModel {
  Epho_FiducialAffine pixel_to_film;
  Epho_FiducialAffine film_to_pixel;
  ExfrPtr film;
};

Emsc_Boolean OpsGroundToImage(void* model, long count, const double* ground_xyz, double* image_xy,
                              Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ScannerGroundToImage";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const ScannerModel*>(model);
  EERR_CHECK(exfr_GroundToImage(m->film.get(), count, ground_xyz, image_xy, frame.Callee()), frame,
             EMSC_FALSE, L"The film model's ground to image failed");
  Apply(m->film_to_pixel, count, image_xy, image_xy);
  return EMSC_TRUE;
}

Emsc_Boolean OpsImageToGroundRay(void* model, double image_x, double image_y, double origin[3],
                                 double direction[3], Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ScannerImageToGroundRay";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const ScannerModel*>(model);
  const double pixel[2] = {image_x, image_y};
  double film[2];
  Apply(m->pixel_to_film, 1, pixel, film);
  EERR_CHECK(
      exfr_ImageToGroundRay(m->film.get(), film[0], film[1], origin, direction, frame.Callee()),
      frame, EMSC_FALSE, L"The film model's image to ground ray failed");
  return EMSC_TRUE;
}

Emsc_Boolean OpsImageAndZToXY(void* model, long count, const double* image_xy,
                              const double* ground_z, double* ground_xy, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ScannerImageAndGroundZToGroundXY";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const ScannerModel*>(model);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(image_xy, frame, EMSC_FALSE);
  std::vector<double> film(2 * size_t(count));
  Apply(m->pixel_to_film, count, image_xy, film.data());
  EERR_CHECK(exfr_ImageAndGroundZToGroundXY(m->film.get(), count, film.data(), ground_z, ground_xy,
                                            frame.Callee()),
             frame, EMSC_FALSE, L"The film model's image and height to ground failed");
  return EMSC_TRUE;
}

Emsc_Boolean OpsTransform2D(void* model, Efga_Matrix* points, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ScannerTransform";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const ScannerModel*>(model);
  EERR_CHECK(exfr_Transform(m->film.get(), points, points, frame.Callee()), frame, EMSC_FALSE,
             L"The film model's transform failed");
  Apply(m->film_to_pixel, points->numrows * points->numcolumns / 2, points->data, points->data);
  return EMSC_TRUE;
}

void* OpsCopy(const void* model, Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"epho_ScannerCopy";
  kzdv::ErrorFrame frame(kFn, err);
  const auto* m = static_cast<const ScannerModel*>(model);
  auto copy = std::make_unique<ScannerModel>();
  copy->pixel_to_film = m->pixel_to_film;
  copy->film_to_pixel = m->film_to_pixel;
  copy->film.reset(exfr_XFormCopy(m->film.get(), frame.Callee()));
  EERR_CHECK(copy->film, frame, nullptr, L"exfr_XFormCopy failed");
  return copy.release();
}

void OpsDestroy(void* model) { delete static_cast<ScannerModel*>(model); }

const Exfr_SensorModelOps kScannerOps = {"scanner",        OpsGroundToImage, OpsImageToGroundRay,
                                         OpsImageAndZToXY, OpsTransform2D,   OpsCopy,
                                         OpsDestroy};

}  // namespace
}  // namespace epho::sensors

using namespace epho::sensors;

extern "C" {

Emsc_Boolean epho_FiducialAffinePixelToFilm(const Epho_FiducialAffine* affine, long count,
                                            const double* pixel_xy, double* film_xy,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_FiducialAffinePixelToFilm";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(affine, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(pixel_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(film_xy, frame, EMSC_FALSE);
  Apply(*affine, count, pixel_xy, film_xy);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean epho_FiducialAffineFilmToPixel(const Epho_FiducialAffine* affine, long count,
                                            const double* film_xy, double* pixel_xy,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_FiducialAffineFilmToPixel";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(affine, frame, EMSC_FALSE);
  EERR_FAIL_IF(count < 1, frame, EMSC_FALSE, L"Args: count is less than 1");
  EERR_FAIL_IF_NULL(film_xy, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(pixel_xy, frame, EMSC_FALSE);
  Epho_FiducialAffine inv{};
  EERR_FAIL_IF(!InvertAffine(*affine, &inv), frame, EMSC_FALSE,
               L"The fiducial affine is singular or not finite");
  Apply(inv, count, film_xy, pixel_xy);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Exfr_XForm* epho_ScannerXformCreate(const Epho_FiducialAffine* pixel_to_film,
                                    const Exfr_XForm* film_model,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_ScannerXformCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(pixel_to_film, frame, nullptr);
  EERR_FAIL_IF_NULL(film_model, frame, nullptr);
  auto model = std::make_unique<ScannerModel>();
  model->pixel_to_film = *pixel_to_film;
  EERR_FAIL_IF(!InvertAffine(*pixel_to_film, &model->film_to_pixel), frame, nullptr,
               L"The fiducial affine is singular or not finite");
  // Only a sensor model answers exfr_GroundToImage (an empty batch here).
  Eerr_ErrorReport* probe = nullptr;
  exfr_GroundToImage(film_model, 0, nullptr, nullptr, &probe);
  const bool sensor =
      !probe || kzdv::ReportText(probe).find(L"not a sensor model") == std::wstring::npos;
  eerr_DeleteErrorReport(probe);
  EERR_FAIL_IF(!sensor, frame, nullptr, L"The film model is not a sensor model");
  model->film.reset(exfr_XFormCopy(film_model, frame.Callee()));
  EERR_CHECK(model->film, frame, nullptr, L"exfr_XFormCopy failed");
  Exfr_XForm* t = exfr_SensorModelXFormCreate(&kScannerOps, model.release(), frame.Callee());
  EERR_CHECK(t, frame, nullptr, L"exfr_SensorModelXFormCreate failed");
  return t;
}
EERR_BOUNDARY(err, nullptr)

const Exfr_SensorModelOps* epho_ScannerSensorOps(void) KZDV_NOEXCEPT { return &kScannerOps; }

}  // extern "C"
