/* edlm: the toolkit's list of owned elements.
 *
 * A list holds element pointers (the element size given at creation is kept
 * for the record; elements are pointer-sized on this platform) together with
 * the functions that free and copy an element. Lists handed across the
 * interface are copies that the receiver owns. Not thread-safe. */
#ifndef EDLM_H
#define EDLM_H

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

typedef void (*Edlm_FreeFunction)(void* element);
typedef void* (*Edlm_CopyFunction)(void* element, Eerr_ErrorReport** err);

typedef struct _edlm_list EdlmList;
typedef struct _edlm_list _edlm_list;

KZDV_BEGIN_C

/* Creates an empty list. `element_size` is the declared element size (4 or 8
 * for pointer lists), `initial_count` a capacity hint. The free and copy
 * functions may be null: then elements are freed with emsc_HeapFree and
 * cannot be deep-copied (edlm_CopyList copies pointers to heap duplicates of
 * `element_size` bytes). Null with a report on failure. */
KZDV_EXPORT EdlmList* edlm_InitList(long element_size, long initial_count,
                                    Edlm_FreeFunction free_element, Edlm_CopyFunction copy_element,
                                    Eerr_ErrorReport** err);
KZDV_EXPORT long edlm_CountList(const EdlmList* list);
/* Appends an element; the list owns it from now on. */
KZDV_EXPORT Emsc_Boolean edlm_Add(EdlmList* list, void* element, Eerr_ErrorReport** err);
/* Inserts before `index` (0..count); the list owns the element. */
KZDV_EXPORT Emsc_Boolean edlm_Insert(EdlmList* list, long index, void* element,
                                     Eerr_ErrorReport** err);
/* The element at `index`, or null (with a report) when out of range. */
KZDV_EXPORT void* edlm_GetAddr(const EdlmList* list, long index, Eerr_ErrorReport** err);
/* Takes the element at `index` out of the list and hands it to the caller. */
KZDV_EXPORT void* edlm_Remove(EdlmList* list, long index, Eerr_ErrorReport** err);
/* Frees the list but not its elements. */
KZDV_EXPORT void edlm_FreeList(EdlmList* list);
/* Frees the list and every element with the list's free function. */
KZDV_EXPORT void edlm_FreeListAndContents(EdlmList* list);
/* Deep copy through the copy function; null with a report on failure. */
KZDV_EXPORT EdlmList* edlm_CopyList(const EdlmList* list, Eerr_ErrorReport** err);

KZDV_END_C

#endif /* EDLM_H */
