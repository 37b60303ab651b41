#include "edlm.h"

#include <gtest/gtest.h>

#include "platform/eerr/error_frame.h"

namespace {

struct Point {
  int id;
  double* values;  // owned, 2 doubles
};

int g_freed = 0;

void FreePoint(void* p) {
  auto* pt = static_cast<Point*>(p);
  emsc_HeapFree(pt->values);
  emsc_HeapFree(pt);
  ++g_freed;
}

void* CopyPoint(void* p, Eerr_ErrorReport** err) {
  auto* src = static_cast<Point*>(p);
  if (src->id < 0) {
    *err = eerr_CreateErrorReport(L"CopyPoint", 1, 2, nullptr, L"refused", 0);
    return nullptr;
  }
  auto* dst = static_cast<Point*>(emsc_HeapMalloc(sizeof(Point)));
  dst->id = src->id;
  dst->values = static_cast<double*>(emsc_MemDup(src->values, 2 * sizeof(double)));
  return dst;
}

Point* NewPoint(int id) {
  auto* p = static_cast<Point*>(emsc_HeapMalloc(sizeof(Point)));
  p->id = id;
  p->values = static_cast<double*>(emsc_HeapMalloc(2 * sizeof(double)));
  p->values[0] = id * 1.5;
  p->values[1] = -id;
  return p;
}

TEST(List, DeepCopyIsIndependentAndFreesWithElementFunction) {
  g_freed = 0;
  _edlm_list* list = edlm_InitList(8, 4, FreePoint, CopyPoint, nullptr);
  ASSERT_NE(list, nullptr);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(edlm_Add(list, NewPoint(i), nullptr));
  ASSERT_TRUE(edlm_Insert(list, 0, NewPoint(99), nullptr));
  EXPECT_EQ(edlm_CountList(list), 6);
  EXPECT_EQ(static_cast<Point*>(edlm_GetAddr(list, 0, nullptr))->id, 99);

  _edlm_list* copy = edlm_CopyList(list, nullptr);
  ASSERT_NE(copy, nullptr);
  static_cast<Point*>(edlm_GetAddr(list, 1, nullptr))->values[0] = 1234;
  EXPECT_DOUBLE_EQ(static_cast<Point*>(edlm_GetAddr(copy, 1, nullptr))->values[0], 0.0);

  void* taken = edlm_Remove(list, 0, nullptr);
  EXPECT_EQ(static_cast<Point*>(taken)->id, 99);
  EXPECT_EQ(edlm_CountList(list), 5);
  FreePoint(taken);
  edlm_FreeListAndContents(list);
  edlm_FreeListAndContents(copy);
  EXPECT_EQ(g_freed, 1 + 5 + 6);
}

TEST(List, OutOfRangeAndFailedCopyReportWithoutLeaks) {
  _edlm_list* list = edlm_InitList(8, 0, FreePoint, CopyPoint, nullptr);
  ASSERT_TRUE(edlm_Add(list, NewPoint(1), nullptr));
  ASSERT_TRUE(edlm_Add(list, NewPoint(-1), nullptr));
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(edlm_GetAddr(list, 2, &err), nullptr);
  ASSERT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(edlm_CopyList(list, &err), nullptr);  // second element refuses; first copy freed
  ASSERT_NE(err, nullptr);
  EXPECT_TRUE(kzdv::ReportContains(err, L"refused"));
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(edlm_InitList(8, -5, nullptr, nullptr, &err), nullptr);
  eerr_DeleteErrorReportEx(&err);
  edlm_FreeListAndContents(list);
}

}  // namespace
