// The vector bodies of the batch collinearity, one set per vector width: two
// lanes (plain C++ vector extensions, SSE2 on x86-64) in
// collinearity_batch.cpp and four lanes (AVX2) in collinearity_batch_x86.cpp,
// both from the template in collinearity_lanes_internal.h. Each body handles
// whole vectors only (the first count - count % lanes points); the caller
// finishes the rest with the per-point functions.
#ifndef EPHO_KERNEL_COLLINEARITY_BATCH_INTERNAL_H_
#define EPHO_KERNEL_COLLINEARITY_BATCH_INTERNAL_H_

#include <cstdint>

namespace epho::kernel {

// The lens models the vector bodies evaluate themselves; any other model
// goes through epho_CameraAwayDistortion point by point.
enum class LensForm {
  kNone,    // no lens record
  kRadial,  // f = c0 + c1 r^2 + c2 r^4 (count 3, or count 5 with code 0)
  kBrown,   // count 11, code 2: radial r^2..r^6, decentring, affinity
  kOther
};

struct LanePlan {
  const double* m;  // the 3x4 projection matrix
  LensForm lens;    // kNone, kRadial or kBrown (kOther: the body skips the lens)
  const double* c;  // kRadial: c0, c1, c2; kBrown: the record's 11 values
};

// Ground to film through the collinearity and (unless kOther) the lens; a
// point whose denominator is 0 gets NaN and failed[i] = 1 (failed may be
// null). Returns the number of such points.
int32_t ForwardLanes2(const LanePlan& plan, int32_t count, const double* X, const double* Y,
                      const double* Z, double* x, double* y, uint8_t* failed);
int32_t ForwardLanes4(const LanePlan& plan, int32_t count, const double* X, const double* Y,
                      const double* Z, double* x, double* y, uint8_t* failed);

// Film minus the lens distortion at the film point (kRadial or kBrown).
void RemoveLensLanes2(const LanePlan& plan, int32_t count, const double* x, const double* y,
                      double* ix, double* iy);
void RemoveLensLanes4(const LanePlan& plan, int32_t count, const double* x, const double* y,
                      double* ix, double* iy);

// Ideal film points (ix, iy) at heights h to the two other ground
// coordinates, in place; mode 1: the height is -Y. Returns the number of
// points whose determinant is 0 (NaN outputs, failed[i] = 1).
int32_t IntersectLanes2(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                        double* iy, uint8_t* failed);
int32_t IntersectLanes4(const double* m, int32_t mode, int32_t count, const double* h, double* ix,
                        double* iy, uint8_t* failed);

}  // namespace epho::kernel

#endif  // EPHO_KERNEL_COLLINEARITY_BATCH_INTERNAL_H_
