// Portable bodies of the template search's cross products (also the float
// body of the SSE2 path, which the compiler vectorises from these loops).
#include <algorithm>

#include "epho/matching/ncc_paths_internal.h"

namespace epho::matching {

using std::size_t;

void CrossRowBytePortable(const int32_t* pairs, size_t stride, const int32_t* coef, int th,
                          int npairs, size_t cols_padded, int32_t* out) {
  for (size_t x = 0; x < cols_padded; ++x) {
    uint32_t s = 0;
    for (int tr = 0; tr < th; ++tr) {
      const int32_t* row = pairs + tr * stride + x;
      const int32_t* c = coef + tr * npairs;
      for (int p = 0; p < npairs; ++p) {
        const uint32_t v = static_cast<uint32_t>(row[2 * p]), k = static_cast<uint32_t>(c[p]);
        s += (v & 0xFFFF) * (k & 0xFFFF) + (v >> 16) * (k >> 16);
      }
    }
    out[x] = static_cast<int32_t>(s);
  }
}

void CrossRowFloatPortable(const float* area, size_t stride, const float* templ, int th, int tw,
                           size_t cols_padded, float* out) {
  std::fill(out, out + cols_padded, 0.0f);
  for (int tr = 0; tr < th; ++tr)
    for (int tc = 0; tc < tw; ++tc) {
      const float k = templ[tr * tw + tc];
      const float* q = area + tr * stride + tc;
      for (size_t x = 0; x < cols_padded; ++x) out[x] += k * q[x];
    }
}

}  // namespace epho::matching
