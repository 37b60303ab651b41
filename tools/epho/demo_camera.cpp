// Demo stage: the demo camera's calibration file is written and read back,
// and its fiducials are found on a synthetic scan the way an operator would:
// predict, measure, predict the next one better, then solve the final
// film-to-image transform.
#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "epho/camerafile.h"
#include "epho/fiducial.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

struct CameraDeleter {
  void operator()(Epho_CameraFrameInfo* c) const { epho_CameraFrameInfoDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_CameraFrameInfo, CameraDeleter>;

double* HeapCopy(const std::vector<double>& v) {
  return static_cast<double*>(emsc_MemDup(v.data(), v.size() * sizeof(double)));
}

// Film positions (mm) of the demo camera's eight marks: corners, then edge
// midpoints.
const std::vector<double> kMarks = {106, 106, -106, 106, -106, -106, 106, -106,
                                    110, 0,   0,    110, -110, 0,    0,   -110};

CameraPtr DemoCamera(const epho_tool::DemoContext& demo) {
  CameraPtr c(epho_CameraFrameInfoCreate(nullptr));
  if (!c) return c;
  auto focal = demo.values.find("camera.focal_mm");
  c->cameraName = etxt_Text_strdup(L"epho demo camera");
  c->cameraDescription = etxt_Text_strdup(L"synthetic 230 mm frame, 8 fiducials");
  c->focalLength_mm = focal != demo.values.end() ? focal->second : 153.0;
  c->x0_mm = 0.002;
  c->y0_mm = -0.004;
  c->fiducialValueCount = static_cast<int32_t>(kMarks.size());
  c->fiducials_mm = HeapCopy(kMarks);
  c->observationKind = EPHO_DISTORTION_FIELD_ANGLE;
  const std::vector<double> obs = {7.5, 1.5, 15, 2.75, 22.5, 1.25, 30, -2.5, 37.5, -4};
  c->observationValueCount = static_cast<int32_t>(obs.size());
  c->observations = HeapCopy(obs);
  c->k0 = 1.2e-05;
  c->k1 = -3.1e-09;
  c->k2 = 2.5e-13;
  c->extendedModel = EPHO_LENS_MODEL_SMAC;
  c->extendedParameters = HeapCopy({0, 1.2e-05, -3.1e-09, 2.5e-13, 0, 1e-07, -2e-07, 0, 0});
  return c;
}

// Number of fields that differ between the written and the read camera.
int Differences(const Epho_CameraFrameInfo& a, const Epho_CameraFrameInfo& b) {
  auto same = [](const double* x, const double* y, int n) {
    for (int i = 0; i < n; ++i)
      if (std::fabs(x[i] - y[i]) > 1e-6 * std::max(1.0, std::fabs(x[i]))) return false;
    return true;
  };
  int d = 0;
  d += etxt_Text_strcmp(a.cameraName, b.cameraName) != 0;
  d += etxt_Text_strcmp(a.cameraDescription, b.cameraDescription) != 0;
  d += !same(&a.focalLength_mm, &b.focalLength_mm, 1) + !same(&a.x0_mm, &b.x0_mm, 1) +
       !same(&a.y0_mm, &b.y0_mm, 1);
  d += a.fiducialValueCount != b.fiducialValueCount ||
       !same(a.fiducials_mm, b.fiducials_mm, a.fiducialValueCount);
  d += (a.observationKind != 0) != (b.observationKind != 0);
  d += a.observationValueCount != b.observationValueCount ||
       !same(a.observations, b.observations, a.observationValueCount);
  d += !same(&a.k0, &b.k0, 1) + !same(&a.k1, &b.k1, 1) + !same(&a.k2, &b.k2, 1);
  d += a.extendedModel != b.extendedModel ||
       !same(a.extendedParameters, b.extendedParameters,
             epho_ExtendedLensModelValueCount(a.extendedModel));
  return d;
}

bool DemoCameraFile(epho_tool::DemoContext& demo) {
  CameraPtr camera = DemoCamera(demo);
  if (!camera) return false;
  const std::string path = demo.workdir + "/demo_camera.cam";
  const std::wstring wide = kzdv::FromUtf8(path);
  if (!CameraInfoFileWrite(wide.c_str(), camera.get(), nullptr)) return false;
  CameraPtr back(CameraInfoFileRead(wide.c_str(), nullptr, nullptr));
  if (!back) return false;
  const int differences = Differences(*camera, *back);
  demo.files["camera_file"] = path;
  demo.Summary(
      "camera file demo_camera.cam: %d fiducials, %d distortion observations, SMAC "
      "model; read back with %d differing fields",
      back->fiducialValueCount / 2, back->observationValueCount / 2, differences);
  if (differences) return false;

  // A 10000 x 10000 px scan at about 23 um, turned by 0.3 degrees and a
  // little sheared, rows growing downwards.
  const double a = 0.3 * M_PI / 180.0, s = 43.48;
  const double truth[6] = {5003.2, s * std::cos(a),  -s * std::sin(a) + 0.02,
                           4996.7, -s * std::sin(a), -s * std::cos(a) * 1.0004};
  FiducialPrediction fiducials;
  std::vector<point2DWithID> film;
  for (int i = 0; i < 8; ++i)
    film.push_back({i + 1, back->fiducials_mm[2 * i], back->fiducials_mm[2 * i + 1]});
  fiducials.put_AllFilmCoordinates(8, film.data());
  fiducials.put_ImageSize(10000, 10000);

  // Measure the marks in order; each measurement is the true position plus a
  // few tenths of a pixel of pointing error. Record how far each prediction
  // was from the truth before the mark was measured.
  const double pointing[8][2] = {{0.3, -0.2}, {-0.25, 0.15}, {0.1, 0.3},    {-0.3, -0.1},
                                 {0.2, 0.25}, {-0.15, -0.3}, {0.25, -0.05}, {-0.1, 0.2}};
  std::vector<double> miss;
  for (int i = 0; i < 8; ++i) {
    const double X = truth[0] + truth[1] * film[i].x + truth[2] * film[i].y;
    const double Y = truth[3] + truth[4] * film[i].x + truth[5] * film[i].y;
    double px = 0, py = 0;
    if (fiducials.get_Prediction(film[i].id, &px, &py) != 0) return false;
    miss.push_back(std::hypot(px - X, py - Y));
    fiducials.put_MeasuredCoordinates(film[i].id, X + pointing[i][0], Y + pointing[i][1]);
  }
  double coefficients[6];
  point2DWithID residuals[8];
  const double rms = fiducials.FinalSolve(coefficients, residuals);
  const double worst_later = *std::max_element(miss.begin() + 3, miss.end());
  demo.values["fiducial.rms_px"] = rms;
  demo.Summary(
      "fiducials on a 10000 x 10000 px scan: first prediction %.0f px off, third "
      "%.2f px, later ones within %.2f px",
      miss[0], miss[2], worst_later);
  demo.Summary("final film-to-image affine on 8 marks: RMS residual %.2f px, scale %.3f px/mm", rms,
               std::hypot(coefficients[1], coefficients[4]));
  return rms >= 0.0 && rms < 1.0 && worst_later < 2.0;
}

}  // namespace

EPHO_DEMO_STAGE(50, "camera file and fiducials", DemoCameraFile);
