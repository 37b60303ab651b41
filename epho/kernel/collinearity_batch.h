// The batch collinearity with the vector path named by the caller: the
// exported epho_CameraObjectToImageBatch / epho_CameraImageAndZToXYBatch
// pass epho::BestVectorPath(); the frame camera's transforms and the tests
// call these. Every path gives the per-point functions' results bit for bit
// (see "epho/collinearity.h"). Inputs must not overlap the outputs.
#ifndef EPHO_KERNEL_COLLINEARITY_BATCH_H_
#define EPHO_KERNEL_COLLINEARITY_BATCH_H_

#include <cstdint>

#include "epho/collinearity.h"
#include "epho/kernel/vector_path.h"

namespace epho::kernel {

// Ground to film: collinearity, correction, lens (epho_CameraObjectToImageBatch).
int32_t ObjectToImageBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count,
                           const double* X, const double* Y, const double* Z, double* x, double* y,
                           uint8_t* failed);

// Film at heights to ground (epho_CameraImageAndZToXYBatch).
int32_t ImageAndZToXYBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count,
                           const double* x, const double* y, const double* height, double* first,
                           double* second, uint8_t* failed);

// Its two stages, for callers that intersect one film point at several
// heights: the ideal film point (lens distortion removed in one step, the
// correction undone at `height`), then the intersection of ideal film
// points (first, second; in place) at `height`.
void FilmToIdealBatch(VectorPath path, const Epho_FilmProjection& p, int32_t count, const double* x,
                      const double* y, const double* height, double* ix, double* iy);
int32_t IdealToGroundBatch(VectorPath path, const double* m, int32_t mode, int32_t count,
                           const double* height, double* first, double* second, uint8_t* failed);

}  // namespace epho::kernel

#endif  // EPHO_KERNEL_COLLINEARITY_BATCH_H_
