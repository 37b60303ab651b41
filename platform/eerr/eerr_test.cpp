#include "eerr.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "platform/eerr/error_frame.h"
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

// ---------------------------------------------------------------- the C boundary

enum class Escape { kNone, kBadAlloc, kRuntime, kClassCode, kOther, kAfterOwnFailure };

// An exported-style function whose body lets each kind of exception out.
extern "C" int boundary_fn(Escape what, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"boundary_fn", err);
  switch (what) {
    case Escape::kNone:
      return 1;
    case Escape::kBadAlloc:
      throw std::bad_alloc();
    case Escape::kRuntime:
      throw std::runtime_error("grid \xc3\xa9t\xc3\xa9 missing");
    case Escape::kClassCode:
      ClassMethod(false);
      return 1;
    case Escape::kOther:
      throw 42;
    case Escape::kAfterOwnFailure:
      frame.Fail(__LINE__, L"first failure");
      throw std::runtime_error("then a throw");
  }
  return 1;
}
EERR_BOUNDARY(err, -1)

static_assert(noexcept(boundary_fn(Escape::kNone, nullptr)), "exported functions are noexcept");

TEST(ErrorBoundary, EveryEscapingExceptionBecomesTheFunctionsReport) {
  struct Case {
    Escape what;
    const wchar_t* function;  // outermost link
    const wchar_t* message;
    const wchar_t* previous;  // message of the next link, or null
  };
  const Case cases[] = {
      {Escape::kBadAlloc, L"boundary_fn", L"Out of memory", nullptr},
      {Escape::kRuntime, L"boundary_fn", L"grid \u00e9t\u00e9 missing", nullptr},
      {Escape::kClassCode, L"Thing::Method", L"own failure here", nullptr},
      {Escape::kOther, L"boundary_fn", L"Unknown exception", nullptr},
      {Escape::kAfterOwnFailure, L"boundary_fn", L"then a throw", L"first failure"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.what));
    Eerr_ErrorReport* err = nullptr;
    EXPECT_EQ(boundary_fn(c.what, &err), -1);
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->function, c.function);
    EXPECT_STREQ(err->message, c.message);
    EXPECT_EQ(err->severity, EERR_SEVERITY_ERROR);
    if (c.previous) {
      ASSERT_NE(err->previous, nullptr);
      EXPECT_STREQ(err->previous->message, c.previous);
    } else {
      EXPECT_EQ(err->previous, nullptr);
    }
    eerr_DeleteErrorReportEx(&err);
  }
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(boundary_fn(Escape::kNone, &err), 1);
  EXPECT_EQ(err, nullptr);
}

TEST(ErrorBoundary, NullReportArgumentPrintsTheEscape) {
  testutil::PrintedReports printed;
  EXPECT_EQ(boundary_fn(Escape::kBadAlloc, nullptr), -1);
  EXPECT_EQ(boundary_fn(Escape::kClassCode, nullptr), -1);
  ASSERT_EQ(printed.texts().size(), 2u);
  EXPECT_NE(printed.texts()[0].find(L"Out of memory (boundary_fn"), std::wstring::npos);
  EXPECT_NE(printed.texts()[1].find(L"own failure here (Thing::Method"), std::wstring::npos);
}

// A host's print handler is the caller's C++ code: when it throws, the
// exported printer must still return (the nested escape goes to stderr).
TEST(ErrorBoundary, ThrowingPrintHandlerDoesNotCrossThePrinter) {
  struct Throwing {
    static void Handler(const Eerr_ErrorReport*, void* calls) {
      ++*static_cast<int*>(calls);
      throw std::runtime_error("log full");
    }
  };
  int calls = 0;
  Eerr_PrintHandler old = eerr_SetPrintHandler(&Throwing::Handler, &calls);
  Eerr_ErrorReport* r = eerr_CreateErrorReport(L"fn", 1, 2, nullptr, L"message", 0);
  testing::internal::CaptureStderr();
  eerr_PrintErrorReport(r, nullptr, 0);
  const std::string text = testing::internal::GetCapturedStderr();
  eerr_SetPrintHandler(old, nullptr);
  eerr_DeleteErrorReport(r);
  EXPECT_EQ(calls, 2);  // the report, then the report of its escape
  EXPECT_NE(text.find("log full (eerr_PrintErrorReport"), std::string::npos);
}

int NeedsArguments(const int* first, const int* second, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"needs_fn", err);
  EERR_FAIL_IF_NULL(first, frame, 0);
  EERR_FAIL_IF_NULL(second, frame, 0);
  return 1;
}

TEST(ErrorFrame, NullArgumentReportNamesTheArgument) {
  const int one = 1;
  const struct {
    const int* first;
    const int* second;
    const wchar_t* message;
  } cases[] = {{nullptr, &one, L"Args: first is null"},
               {&one, nullptr, L"Args: second is null"},
               {nullptr, nullptr, L"Args: first is null"}};
  for (const auto& c : cases) {
    Eerr_ErrorReport* err = nullptr;
    EXPECT_EQ(NeedsArguments(c.first, c.second, &err), 0);
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->message, c.message);
    eerr_DeleteErrorReportEx(&err);
  }
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(NeedsArguments(&one, &one, &err), 1);
  EXPECT_EQ(err, nullptr);
}

}  // namespace
