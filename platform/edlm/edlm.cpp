#include "edlm.h"

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include "platform/eerr/error_frame.h"

struct _edlm_list {
  long element_size;
  Edlm_FreeFunction free_element;
  Edlm_CopyFunction copy_element;
  std::vector<void*> items;
};

namespace {
void FreeElement(const _edlm_list* list, void* element) {
  if (!element) return;
  if (list->free_element)
    list->free_element(element);
  else
    emsc_HeapFree(element);
}
}  // namespace

_edlm_list* edlm_InitList(long element_size, long initial_count, Edlm_FreeFunction free_element,
                          Edlm_CopyFunction copy_element, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  kzdv::ErrorFrame frame(L"edlm_InitList", err);
  EERR_FAIL_IF(element_size <= 0, frame, nullptr, L"Invalid list element size %ld", element_size);
  EERR_FAIL_IF(initial_count < 0, frame, nullptr, L"Invalid list size %ld", initial_count);
  try {
    auto* list = new _edlm_list{element_size, free_element, copy_element, {}};
    // The count is a capacity hint only; a hint from a damaged file must not
    // turn into a huge allocation, so it is capped.
    list->items.reserve(static_cast<size_t>(std::min<long>(initial_count, 1 << 16)));
    return list;
  } catch (const std::bad_alloc&) {
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
}
EERR_BOUNDARY(err, nullptr)

long edlm_CountList(const _edlm_list* list) KZDV_NOEXCEPT {
  return list ? static_cast<long>(list->items.size()) : 0;
}

Emsc_Boolean edlm_Add(_edlm_list* list, void* element, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  return edlm_Insert(list, edlm_CountList(list), element, err);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean edlm_Insert(_edlm_list* list, long index, void* element,
                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"edlm_Insert", err);
  EERR_FAIL_IF(!list, frame, EMSC_FALSE, L"Null list");
  EERR_FAIL_IF(index < 0 || index > edlm_CountList(list), frame, EMSC_FALSE,
               L"List index %ld out of range 0..%ld", index, edlm_CountList(list));
  try {
    list->items.insert(list->items.begin() + index, element);
  } catch (const std::bad_alloc&) {
    EERR_FAIL(frame, EMSC_FALSE, L"Out of memory");
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void* edlm_GetAddr(const _edlm_list* list, long index, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"edlm_GetAddr", err);
  EERR_FAIL_IF(!list, frame, nullptr, L"Null list");
  EERR_FAIL_IF(index < 0 || index >= edlm_CountList(list), frame, nullptr,
               L"List index %ld out of range 0..%ld", index, edlm_CountList(list) - 1);
  return list->items[static_cast<size_t>(index)];
}
EERR_BOUNDARY(err, nullptr)

void* edlm_Remove(_edlm_list* list, long index, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"edlm_Remove", err);
  EERR_FAIL_IF(!list, frame, nullptr, L"Null list");
  EERR_FAIL_IF(index < 0 || index >= edlm_CountList(list), frame, nullptr,
               L"List index %ld out of range 0..%ld", index, edlm_CountList(list) - 1);
  void* element = list->items[static_cast<size_t>(index)];
  list->items.erase(list->items.begin() + index);
  return element;
}
EERR_BOUNDARY(err, nullptr)

void edlm_FreeList(_edlm_list* list) KZDV_NOEXCEPT { delete list; }

void edlm_FreeListAndContents(_edlm_list* list) KZDV_NOEXCEPT {
  if (!list) return;
  for (void* e : list->items) FreeElement(list, e);
  delete list;
}

_edlm_list* edlm_CopyList(const _edlm_list* list, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"edlm_CopyList", err);
  EERR_FAIL_IF(!list, frame, nullptr, L"Null list");
  std::unique_ptr<_edlm_list, void (*)(_edlm_list*)> copy(
      edlm_InitList(list->element_size, edlm_CountList(list), list->free_element,
                    list->copy_element, frame.Callee()),
      edlm_FreeListAndContents);
  EERR_CHECK(copy, frame, nullptr, L"edlm_InitList failed");
  for (void* e : list->items) {
    void* dup = nullptr;
    if (e) {
      if (list->copy_element) {
        dup = list->copy_element(e, frame.Callee());
        EERR_CHECK(dup, frame, nullptr, L"List element copy failed");
      } else {
        dup = emsc_MemDup(e, static_cast<size_t>(list->element_size));
        EERR_FAIL_IF(!dup, frame, nullptr, L"Out of memory");
      }
    }
    if (!edlm_Add(copy.get(), dup, frame.Callee())) {
      FreeElement(list, dup);
      EERR_FAIL(frame, nullptr, L"edlm_Add failed");
    }
  }
  return copy.release();
}
EERR_BOUNDARY(err, nullptr)
