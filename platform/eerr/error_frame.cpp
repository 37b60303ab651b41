// The error frame's C++ helpers. They use only the exported C interface and
// keep no state, so every shipped library links its own hidden copy (see
// kzdv_internal in CMakeLists.txt): nothing C++ is exported for them.
#include "platform/eerr/error_frame.h"

#include <cstdarg>
#include <cstdio>
#include <new>
#include <string>

#include "platform/estr/utf8.h"

static const wchar_t* SeverityName(int severity) {
  switch (severity) {
    case EERR_SEVERITY_INFO:
      return L"info";
    case EERR_SEVERITY_WARNING:
      return L"warning";
    default:
      return L"error";
  }
}

std::wstring kzdv::ReportText(const Eerr_ErrorReport* report) {
  std::wstring text;
  for (const Eerr_ErrorReport* r = report; r; r = r->previous) {
    text += kzdv::Format(L"%s: %s (%s, site %ld)", SeverityName(r->severity),
                         r->message && *r->message ? r->message : L"call failed",
                         r->function ? r->function : L"", r->site);
    if (r->previous) text += L'\n';
  }
  return text;
}

bool kzdv::ReportContains(const Eerr_ErrorReport* report, const std::wstring& message) {
  for (const Eerr_ErrorReport* r = report; r; r = r->previous)
    if (r->message && message == r->message) return true;
  return false;
}

// ---------------------------------------------------------------- ErrorFrame

namespace kzdv {

ErrorFrame::ErrorFrame(const Etxt_Char* function, Eerr_ErrorReport** err)
    : function_(function), out_(err ? err : &own_) {
  *out_ = nullptr;
}

ErrorFrame::~ErrorFrame() {
  eerr_DeleteErrorReportEx(&local_);
  if (own_) {
    eerr_PrintErrorReport(own_, nullptr, 0);
    eerr_DeleteErrorReportEx(&own_);
  }
}

Eerr_ErrorReport** ErrorFrame::Callee() {
  eerr_DeleteErrorReportEx(&local_);
  return &local_;
}

void ErrorFrame::Store(Eerr_ErrorReport* report) {
  if (*out_ && report != *out_) eerr_DeleteErrorReport(*out_);
  *out_ = report;
}

void ErrorFrame::FailV(long site, int severity, const Etxt_Char* message, va_list args) {
  std::wstring text = FormatV(message, args);
  Eerr_ErrorReport* previous = local_ ? local_ : *out_;
  if (previous == *out_) *out_ = nullptr;
  local_ = nullptr;
  Store(eerr_CreateErrorReport(function_, site, severity, previous, L"%s", text.c_str(), 0));
}

void ErrorFrame::Fail(long site, const Etxt_Char* message, ...) {
  va_list ap;
  va_start(ap, message);
  FailV(site, EERR_SEVERITY_ERROR, message, ap);
  va_end(ap);
}

void ErrorFrame::FailWithSeverity(long site, int severity, const Etxt_Char* message, ...) {
  va_list ap;
  va_start(ap, message);
  FailV(site, severity, message, ap);
  va_end(ap);
}

void ErrorFrame::Adopt(Eerr_ErrorReport* report) {
  if (report) Store(report);
}

namespace {

// A report link built with the C heap only, so that it can still be made
// while std::bad_alloc is being handled.
Eerr_ErrorReport* MakeLink(const char* function, long site, const Etxt_Char* message,
                           Eerr_ErrorReport* previous) noexcept {
  Etxt_Char name[128];
  size_t n = 0;
  for (; function && function[n] && n + 1 < sizeof name / sizeof name[0]; ++n)
    name[n] = static_cast<unsigned char>(function[n]);
  name[n] = 0;
  auto* r = static_cast<Eerr_ErrorReport*>(emsc_HeapCalloc(1, sizeof(Eerr_ErrorReport)));
  if (r) {
    r->function = etxt_Text_strdup(name);
    r->message = etxt_Text_strdup(message);
  }
  if (!r || !r->function || !r->message) {
    if (r) eerr_DeleteErrorReport(r);
    eerr_DeleteErrorReport(previous);
    return nullptr;
  }
  r->site = site;
  r->severity = EERR_SEVERITY_ERROR;
  r->previous = previous;
  return r;
}

}  // namespace

void ReportEscaped(const char* function, long site, Eerr_ErrorReport** err) noexcept {
  Eerr_ErrorReport* earlier = err ? *err : nullptr;
  if (err) *err = nullptr;
  Eerr_ErrorReport* report = nullptr;
  try {
    try {
      throw;
    } catch (EerrException& e) {
      // Class code's own chain already names the method that failed.
      report = e.Release();
      if (earlier) eerr_DeleteErrorReport(earlier);
      earlier = nullptr;
    } catch (const std::bad_alloc&) {
      report = MakeLink(function, site, L"Out of memory", earlier);
      earlier = nullptr;
    } catch (const std::exception& e) {
      std::wstring what = FromUtf8(e.what());
      report = MakeLink(function, site, what.c_str(), earlier);
      earlier = nullptr;
    } catch (...) {
      report = MakeLink(function, site, L"Unknown exception", earlier);
      earlier = nullptr;
    }
  } catch (...) {
    // Converting the exception's text ran out of memory.
    report = MakeLink(function, site, L"Out of memory", earlier);
    earlier = nullptr;
  }
  if (!report) {
    std::fprintf(stderr, "%s: Out of memory\n", function ? function : "");
    return;
  }
  if (err) {
    *err = report;
    return;
  }
  // Printing can itself fail (a host's handler that throws lands here
  // again): the nested report then goes plainly to standard error.
  static thread_local bool printing = false;
  if (printing) {
    try {
      std::fprintf(stderr, "%s\n", ToUtf8(ReportText(report)).c_str());
    } catch (...) {
      std::fprintf(stderr, "%s: Out of memory\n", function ? function : "");
    }
  } else {
    printing = true;
    eerr_PrintErrorReport(report, nullptr, 0);
    printing = false;
  }
  eerr_DeleteErrorReport(report);
}

}  // namespace kzdv
