// Portable body of the 8-bit whole-pixel coefficient: exact 64-bit integer
// sums, one pixel at a time (also the body for windows narrower than 8).
#include "epho/matching/ncc_paths_internal.h"

namespace epho::matching {

double ByteCoefPortable(const uint8_t* pl, const uint8_t* pr, std::ptrdiff_t ls, std::ptrdiff_t rs,
                        int w, int h, int64_t n) {
  ByteSums t;
  for (int i = 0; i < h; ++i, pl += ls, pr += rs)
    for (int j = 0; j < w; ++j) {
      const int64_t a = pl[j], b = pr[j];
      t.l += a, t.ll += a * a, t.r += b, t.rr += b * b, t.lr += a * b;
    }
  return ByteCoefficient(t, n);
}

}  // namespace epho::matching
