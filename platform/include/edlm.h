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

typedef struct _edlm_list _edlm_list;
#ifndef __cplusplus
/* In C the list handle goes by this name too; C++ code has the owning
 * EdlmList holder below. */
typedef struct _edlm_list EdlmList;
#endif

KZDV_BEGIN_C

/* Creates an empty list. `element_size` is the declared element size (4 or 8
 * for pointer lists), `initial_count` a capacity hint. The free and copy
 * functions may be null: then elements are freed with emsc_HeapFree and
 * cannot be deep-copied (edlm_CopyList copies pointers to heap duplicates of
 * `element_size` bytes). Null with a report on failure. */
KZDV_EXPORT _edlm_list* edlm_InitList(long element_size, long initial_count,
                                      Edlm_FreeFunction free_element,
                                      Edlm_CopyFunction copy_element,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT long edlm_CountList(const _edlm_list* list) KZDV_NOEXCEPT;
/* Appends an element; the list owns it from now on. */
KZDV_EXPORT Emsc_Boolean edlm_Add(_edlm_list* list, void* element,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Inserts before `index` (0..count); the list owns the element. */
KZDV_EXPORT Emsc_Boolean edlm_Insert(_edlm_list* list, long index, void* element,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The element at `index`, or null (with a report) when out of range. */
KZDV_EXPORT void* edlm_GetAddr(const _edlm_list* list, long index,
                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Takes the element at `index` out of the list and hands it to the caller. */
KZDV_EXPORT void* edlm_Remove(_edlm_list* list, long index, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees the list but not its elements. */
KZDV_EXPORT void edlm_FreeList(_edlm_list* list) KZDV_NOEXCEPT;
/* Frees the list and every element with the list's free function. */
KZDV_EXPORT void edlm_FreeListAndContents(_edlm_list* list) KZDV_NOEXCEPT;
/* Deep copy through the copy function; null with a report on failure. */
KZDV_EXPORT _edlm_list* edlm_CopyList(const _edlm_list* list, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#ifdef __cplusplus
/* A list held by class code: the toolkit handle (null until used), the free
 * function of its elements and whether the holder owns the contents. When it
 * does, destroying or resetting the holder frees the list and every element. */
class EdlmList {
 public:
  EdlmList() = default;
  explicit EdlmList(Edlm_FreeFunction free_element, bool owns_contents = true)
      : m_ownsContents(owns_contents), m_freeElement(free_element) {}
  ~EdlmList() { Reset(); }
  EdlmList(const EdlmList&) = delete;
  EdlmList& operator=(const EdlmList&) = delete;

  _edlm_list* Get() const { return m_list; }
  /* Replaces the handle (freeing the old list when owned). */
  void Reset(_edlm_list* list = nullptr) {
    if (m_list && m_list != list) {
      if (m_ownsContents)
        edlm_FreeListAndContents(m_list);
      else
        edlm_FreeList(m_list);
    }
    m_list = list;
  }
  /* Gives the handle up without freeing it. */
  _edlm_list* Release() {
    _edlm_list* list = m_list;
    m_list = nullptr;
    return list;
  }
  long Count() const { return edlm_CountList(m_list); }
  bool OwnsContents() const { return m_ownsContents; }
  void SetOwnsContents(bool owns) { m_ownsContents = owns; }
  Edlm_FreeFunction FreeFunction() const { return m_freeElement; }

 private:
  bool m_ownsContents = true;
  Edlm_FreeFunction m_freeElement = nullptr;
  _edlm_list* m_list = nullptr;
};
#endif

#endif /* EDLM_H */
