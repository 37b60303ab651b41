#include "emsc.h"

#include <cstdlib>
#include <cstring>

void* emsc_HeapMalloc(size_t size) KZDV_NOEXCEPT { return std::malloc(size ? size : 1); }

void* emsc_HeapCalloc(size_t count, size_t size) KZDV_NOEXCEPT {
  if (count == 0 || size == 0) return std::calloc(1, 1);
  return std::calloc(count, size);
}

void* emsc_HeapRealloc(void* block, size_t size) KZDV_NOEXCEPT {
  return std::realloc(block, size ? size : 1);
}

void emsc_HeapFree(void* block) KZDV_NOEXCEPT { std::free(block); }

void emsc_HeapFreeEx(void** block) KZDV_NOEXCEPT {
  if (!block) return;
  std::free(*block);
  *block = nullptr;
}

void* emsc_MemDup(const void* src, size_t size) KZDV_NOEXCEPT {
  void* out = emsc_HeapMalloc(size);
  if (out && size && src) std::memcpy(out, src, size);
  return out;
}
