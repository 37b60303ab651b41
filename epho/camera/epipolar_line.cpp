// The epipolar line of an image point of one photograph in another: the
// point's ray cut at a range of terrain heights and seen from the other
// camera.
#include <algorithm>
#include <cmath>

#include "epho/camera/camera_internal.h"
#include "platform/eerr/error_frame.h"

extern "C" {

Emsc_Boolean epho_AutoEpipoLine(Epho_CameraXform* left, Epho_CameraXform* right, double x, double y,
                                double zmin, double zmax, int32_t count, double* rightXY,
                                Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_AutoEpipoLine";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!left || !right || !left->camera || !right->camera, frame, EMSC_FALSE,
               L"Invalid input camera xform data.");
  EERR_FAIL_IF(count < 2, frame, EMSC_FALSE, L"Args: count is less than 2");
  EERR_FAIL_IF_NULL(rightXY, frame, EMSC_FALSE);
  EERR_FAIL_IF(!std::isfinite(x), frame, EMSC_FALSE, L"Args: x is not finite");
  EERR_FAIL_IF(!std::isfinite(y), frame, EMSC_FALSE, L"Args: y is not finite");
  for (Epho_CameraXform* c : {left, right})
    if (!c->filled)
      EERR_CHECK(epho_CameraXformFillNoMIFData(c, frame.Callee()), frame, EMSC_FALSE,
                 L"epho_CameraXformFillNoMIFData failed");
  if (!(zmin < zmax)) {
    // The height range of the terrain: the DEM's statistics, or around the
    // mean height without one.
    zmin = left->camera->z_mean - 100.0;
    zmax = left->camera->z_mean + 100.0;
    if (left->demLayer) {
      Eimg_Statistics stats{};
      EERR_CHECK(eimg_StatisticsRead(left->demLayer, &stats, frame.Callee()), frame, EMSC_FALSE,
                 L"eimg_StatisticsRead failed");
      zmin = epho_CalcZ(0, 0, stats.minimum, left->demZCoeffs.count, left->demZCoeffs.data);
      zmax = epho_CalcZ(0, 0, stats.maximum, left->demZCoeffs.count, left->demZCoeffs.data);
      if (zmin > zmax) std::swap(zmin, zmax);
    }
  }
  const Exfr_SensorModelOps* ops = epho_CameraXformSensorOps();
  const double image[2] = {x, y};
  for (int32_t k = 0; k < count; ++k) {
    const double z = zmin + (zmax - zmin) * k / (count - 1);
    double ground[3] = {0, 0, z}, out[2] = {-999.0, -999.0};
    Eerr_ErrorReport* report = nullptr;
    if (ops->imageAndGroundZToGroundXY(left, 1, image, &z, ground, &report) &&
        !ops->groundToImage(right, 1, ground, out, &report)) {
      out[0] = out[1] = -999.0;
    }
    eerr_DeleteErrorReport(report);
    rightXY[2 * k] = out[0];
    rightXY[2 * k + 1] = out[1];
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
