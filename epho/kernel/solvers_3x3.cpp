// Closed-form 3x3 inverses by the adjugate: the general one for orientation
// and projection matrices, the symmetric one for small normal matrices.
#include "epho/solvers.h"

extern "C" {

Emsc_Boolean epho_Com_Reverse3(double* m) KZDV_NOEXCEPT {
  const double det = m[0] * (m[4] * m[8] - m[7] * m[5]) + m[1] * (m[6] * m[5] - m[3] * m[8]) +
                     m[2] * (m[7] * m[3] - m[6] * m[4]);
  if (det == 0.0) return EMSC_TRUE;
  const double r = 1.0 / det;
  const double in[9] = {m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8]};
  m[0] = (in[4] * in[8] - in[7] * in[5]) * r;
  m[1] = (in[7] * in[2] - in[1] * in[8]) * r;
  m[2] = (in[1] * in[5] - in[4] * in[2]) * r;
  m[3] = (in[6] * in[5] - in[3] * in[8]) * r;
  m[4] = (in[0] * in[8] - in[6] * in[2]) * r;
  m[5] = (in[3] * in[2] - in[5] * in[0]) * r;
  m[6] = (in[7] * in[3] - in[6] * in[4]) * r;
  m[7] = (in[6] * in[1] - in[7] * in[0]) * r;
  m[8] = (in[4] * in[0] - in[3] * in[1]) * r;
  return EMSC_FALSE;
}

Emsc_Boolean epho_Reverse3S(double* m) KZDV_NOEXCEPT {
  const double m0 = m[0], m1 = m[1], m2 = m[2], m4 = m[4], m5 = m[5], m8 = m[8];
  const double c0 = m4 * m8 - m5 * m5;
  const double c1 = m5 * m2 - m8 * m1;
  const double c2 = m5 * m1 - m4 * m2;
  const double det = m0 * c0 + c1 * m1 + c2 * m2;
  if (det == 0.0) return EMSC_TRUE;
  const double r = 1.0 / det;
  m[0] = c0 * r;
  m[1] = c1 * r;
  m[2] = c2 * r;
  m[4] = (m0 * m8 - m2 * m2) * r;
  m[5] = (m2 * m1 - m5 * m0) * r;
  m[8] = (m4 * m0 - m1 * m1) * r;
  m[3] = m[1];
  m[6] = m[2];
  m[7] = m[5];
  return EMSC_FALSE;
}

}  // extern "C"
