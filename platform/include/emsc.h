/* emsc: toolkit heap and the toolkit boolean.
 *
 * Every block that crosses the library interface comes from this heap, so a
 * caller frees what it receives with emsc_HeapFree whatever language it is
 * written in. The heap is malloc/realloc/free underneath. */
#ifndef EMSC_H
#define EMSC_H

#include <stddef.h>

#include "kzdv_export.h"

typedef int Emsc_Boolean;
#define EMSC_FALSE 0
#define EMSC_TRUE 1

KZDV_BEGIN_C

/* Returns a block of `size` bytes (a zero request yields a valid 1-byte
 * block), or null when memory is exhausted. */
KZDV_EXPORT void* emsc_HeapMalloc(size_t size) KZDV_NOEXCEPT;
/* Zero-filled variant of emsc_HeapMalloc for `count` elements of `size`. */
KZDV_EXPORT void* emsc_HeapCalloc(size_t count, size_t size) KZDV_NOEXCEPT;
/* Resizes `block` (null acts as malloc). On failure returns null and leaves
 * the old block valid. */
KZDV_EXPORT void* emsc_HeapRealloc(void* block, size_t size) KZDV_NOEXCEPT;
/* Frees a block from this heap; null is ignored. */
KZDV_EXPORT void emsc_HeapFree(void* block) KZDV_NOEXCEPT;
/* Frees *block and stores null through the pointer. */
KZDV_EXPORT void emsc_HeapFreeEx(void** block) KZDV_NOEXCEPT;
/* Copies `size` bytes of `src` into a new heap block; null on exhaustion. */
KZDV_EXPORT void* emsc_MemDup(const void* src, size_t size) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EMSC_H */
