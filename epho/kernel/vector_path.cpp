#include "epho/kernel/vector_path.h"

namespace epho {

namespace {

VectorPath QueryProcessor() {
#if defined(__x86_64__)  // SSE2 is part of the baseline
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return VectorPath::kAvx2;
  return VectorPath::kSse2;
#endif
  return VectorPath::kPortable;
}

}  // namespace

VectorPath BestVectorPath() {
  static const VectorPath best = QueryProcessor();
  return best;
}

bool VectorPathRuns(VectorPath path) {
  return static_cast<int>(path) <= static_cast<int>(BestVectorPath());
}

const char* VectorPathName(VectorPath path) {
  switch (path) {
    case VectorPath::kAvx2:
      return "avx2";
    case VectorPath::kSse2:
      return "sse2";
    case VectorPath::kPortable:
      break;
  }
  return "portable";
}

}  // namespace epho
