// Camera and sensor frame information records: creation and release.
#include <cstring>

#include "epho/camerafile.h"
#include "platform/eerr/error_frame.h"

extern "C" {

Epho_CameraFrameInfo* epho_CameraFrameInfoCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_CameraFrameInfoCreate";
  kzdv::ErrorFrame frame(kFn, err);
  auto* camera =
      static_cast<Epho_CameraFrameInfo*>(emsc_HeapCalloc(1, sizeof(Epho_CameraFrameInfo)));
  EERR_FAIL_IF(!camera, frame, nullptr, L"Unable to allocation memory for camera information.");
  camera->version = EPHO_CAMERA_FRAME_INFO_VERSION;
  return camera;
}
EERR_BOUNDARY(err, nullptr)

void epho_CameraFrameInfoDelete(Epho_CameraFrameInfo* camera) KZDV_NOEXCEPT {
  if (!camera) return;
  emsc_HeapFree(camera->cameraName);
  emsc_HeapFree(camera->cameraDescription);
  emsc_HeapFree(camera->fiducials_mm);
  emsc_HeapFree(camera->observations);
  emsc_HeapFree(camera->extendedParameters);
  emsc_HeapFree(camera);
}

Epho_SensorFrameInfo* epho_SensorFrameInfoCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_SensorFrameInfoCreate";
  kzdv::ErrorFrame frame(kFn, err);
  auto* info = static_cast<Epho_SensorFrameInfo*>(emsc_HeapCalloc(1, sizeof(Epho_SensorFrameInfo)));
  EERR_FAIL_IF(!info, frame, nullptr, L"Unable to allocation memory for sensor frame information.");
  info->filmToImage[1] = 1.0;
  info->filmToImage[5] = 1.0;
  return info;
}
EERR_BOUNDARY(err, nullptr)

void epho_SensorFrameInfoDelete(Epho_SensorFrameInfo* frame) KZDV_NOEXCEPT {
  if (!frame) return;
  emsc_HeapFree(frame->fiducials_pixels);
  emsc_HeapFree(frame);
}

int epho_ExtendedLensModelValueCount(int32_t model) KZDV_NOEXCEPT {
  switch (model) {
    case EPHO_LENS_MODEL_TARVO:
      return 19;
    case EPHO_LENS_MODEL_AUSTRALIS:
      return 7;
    case EPHO_LENS_MODEL_SMAC:
      return 9;
    default:
      return 0;
  }
}

}  // extern "C"
