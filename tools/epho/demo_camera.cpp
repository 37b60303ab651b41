// Demo stage "camera file": the calibration file of the block's camera (focal
// length, the fiducial marks the scans show, lens distortion observations)
// is written and read back field by field.
#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "demo_setup.h"
#include "epho/camerafile.h"
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

const std::vector<double> kMarks(epho_tool::demo::kMarksMm,
                                 epho_tool::demo::kMarksMm + 2 * epho_tool::demo::kMarkCount);

CameraPtr DemoCamera() {
  CameraPtr c(epho_CameraFrameInfoCreate(nullptr));
  if (!c) return c;
  c->cameraName = etxt_Text_strdup(L"epho demo camera");
  c->cameraDescription = etxt_Text_strdup(L"synthetic 58 mm frame, 8 fiducials");
  c->focalLength_mm = epho_tool::demo::kFocalMm;
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
  CameraPtr camera = DemoCamera();
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

  return true;
}

}  // namespace

EPHO_DEMO_STAGE(25, "camera file", DemoCameraFile);
