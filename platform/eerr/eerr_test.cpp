#include "eerr.h"

#include <gtest/gtest.h>

#include "eerr_frame.hpp"
#include "test_util.h"

namespace {

// A library-style function: fails on a negative argument, chains a callee.
int Callee(int x, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"callee_fn", err);
  EERR_FAIL_IF(x < 0, frame, 0, L"Negative value %d for %s", x, L"x");
  return 1;
}

int Caller(int x, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"caller_fn", err);
  EERR_CHECK(Callee(x, frame.Callee()), frame, 0, L"callee_fn failed");
  return 1;
}

TEST(ErrorFrame, ChainsCalleeReportOutermostFirst) {
  Eerr_ErrorReport* err = reinterpret_cast<Eerr_ErrorReport*>(0x1);  // garbage must be cleared
  EXPECT_EQ(Caller(-3, &err), 0);
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->function, L"caller_fn");
  EXPECT_STREQ(err->message, L"callee_fn failed");
  EXPECT_EQ(err->severity, 2);
  ASSERT_NE(err->previous, nullptr);
  EXPECT_STREQ(err->previous->function, L"callee_fn");
  EXPECT_STREQ(err->previous->message, L"Negative value -3 for x");
  EXPECT_EQ(err->previous->previous, nullptr);
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(err, nullptr);

  EXPECT_EQ(Caller(2, &err), 1);
  EXPECT_EQ(err, nullptr);
}

TEST(ErrorFrame, NullReportArgumentPrintsOnceAndFrees) {
  testutil::PrintedReports printed;
  EXPECT_EQ(Caller(-1, nullptr), 0);
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"callee_fn failed"), std::wstring::npos);
  EXPECT_NE(printed.texts()[0].find(L"Negative value -1"), std::wstring::npos);
  EXPECT_EQ(Caller(1, nullptr), 1);
  EXPECT_EQ(printed.texts().size(), 1u);
}

// Tolerates one callee failure, then reports a warning over a second one, or
// its own failure with nothing beneath it.
int Tolerant(int x, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"tolerant_fn", err);
  Callee(-1, frame.Callee());
  if (frame.CalleeFailed()) frame.Tolerate();
  if (x < 0) {
    if (!Callee(x, frame.Callee())) {
      frame.FailWithSeverity(__LINE__, EERR_SEVERITY_WARNING, L"Error opening %s", L"a.cam");
      return 0;
    }
  }
  EERR_FAIL_IF(x == 0, frame, 0, L"Zero");
  return 1;
}

TEST(ErrorFrame, SeverityAndPreviousLinkFollowTheFailingSite) {
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(Tolerant(-2, &err), 0);
  ASSERT_NE(err, nullptr);
  EXPECT_EQ(err->severity, EERR_SEVERITY_WARNING);
  EXPECT_STREQ(err->message, L"Error opening a.cam");
  ASSERT_NE(err->previous, nullptr);  // the second callee's report, not the tolerated one
  EXPECT_STREQ(err->previous->message, L"Negative value -2 for x");
  EXPECT_EQ(err->previous->severity, EERR_SEVERITY_ERROR);
  EXPECT_EQ(err->previous->previous, nullptr);
  eerr_DeleteErrorReportEx(&err);

  EXPECT_EQ(Tolerant(0, &err), 0);  // own failure: no previous link
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->message, L"Zero");
  EXPECT_EQ(err->severity, EERR_SEVERITY_ERROR);
  EXPECT_EQ(err->previous, nullptr);
  eerr_DeleteErrorReportEx(&err);

  testutil::PrintedReports printed;  // the tolerated report is never printed
  EXPECT_EQ(Tolerant(1, nullptr), 1);
  EXPECT_EQ(printed.texts().size(), 0u);
}

TEST(ErrorReport, FormatsWideAndNarrowStrings) {
  Eerr_ErrorReport* r =
      eerr_CreateErrorReport(L"f", 7, 1, nullptr, L"file %s, %hs, %d%%", L"a.img", "b", 5, 0);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(r->message, L"file a.img, b, 5%");
  EXPECT_EQ(r->site, 7);
  EXPECT_EQ(r->severity, 1);
  eerr_DeleteErrorReport(r);
}

void ClassMethod(bool fail_callee) {
  EerrException ctx("EerrTest", "Thing::Method");
  Callee(fail_callee ? -1 : 1, ctx.Err());
  ctx.Check(__LINE__);
  ctx.Throw(__LINE__, L"own failure %s", L"here");
}

TEST(EerrException, CheckThrowsContextWithCalleeChain) {
  try {
    ClassMethod(true);
    FAIL() << "no throw";
  } catch (EerrException& e) {
    Eerr_ErrorReport* r = e.Release();
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->function, L"Thing::Method");
    ASSERT_NE(r->previous, nullptr);
    EXPECT_STREQ(r->previous->function, L"callee_fn");
    EXPECT_EQ(e.Release(), nullptr);
    eerr_DeleteErrorReport(r);
  }
  try {
    ClassMethod(false);
    FAIL() << "no throw";
  } catch (EerrException& e) {
    EXPECT_TRUE(kzdv::ReportContains(e.Report(), L"own failure here"));
    EXPECT_NE(std::string(e.what()).find("own failure here"), std::string::npos);
  }
}

int ExportedOverClassCode(Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"epho_Exported", err);
  try {
    ClassMethod(false);
  }
  EERR_CATCH(frame, 0)
  return 1;
}

TEST(EerrException, ReleasedIntoExportedFunctionReport) {
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(ExportedOverClassCode(&err), 0);
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->function, L"Thing::Method");
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
