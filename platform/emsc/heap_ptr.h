// Toolkit heap blocks held by std::unique_ptr, so that every path frees them.
// Internal to the libraries (not installed).
#ifndef PLATFORM_EMSC_HEAP_PTR_H
#define PLATFORM_EMSC_HEAP_PTR_H

#include <memory>

#include "emsc.h"

namespace kzdv {
struct HeapDeleter {
  void operator()(void* p) const { emsc_HeapFree(p); }
};
template <typename T>
using HeapPtr = std::unique_ptr<T, HeapDeleter>;
}  // namespace kzdv

#endif  // PLATFORM_EMSC_HEAP_PTR_H
