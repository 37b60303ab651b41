#include "eerr.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/eerr/eerr_print.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

namespace {

std::mutex g_print_mutex;
Eerr_PrintHandler g_handler = nullptr;
void* g_handler_context = nullptr;

Eerr_ErrorReport* MakeReport(const Etxt_Char* function, long site, int severity,
                             Eerr_ErrorReport* previous, const std::wstring& message) {
  auto* r = static_cast<Eerr_ErrorReport*>(emsc_HeapCalloc(1, sizeof(Eerr_ErrorReport)));
  if (!r) {
    eerr_DeleteErrorReport(previous);
    return nullptr;
  }
  r->function = etxt_Text_strdup(function ? function : L"");
  r->message = etxt_Text_strdup(message.c_str());
  r->site = site;
  r->severity = severity;
  r->previous = previous;
  return r;
}

}  // namespace

Eerr_ErrorReport* eerr_CreateErrorReport(const Etxt_Char* function, long site, int severity,
                                         Eerr_ErrorReport* previous, const Etxt_Char* message,
                                         ...) KZDV_NOEXCEPT try {
  va_list ap;
  va_start(ap, message);
  std::wstring text = kzdv::FormatV(message ? message : L"", ap);
  va_end(ap);
  return MakeReport(function, site, severity, previous, text);
}
EERR_BOUNDARY(nullptr, nullptr)

void eerr_DeleteErrorReport(Eerr_ErrorReport* report) KZDV_NOEXCEPT {
  // Iterative so that a long chain cannot exhaust the stack.
  while (report) {
    Eerr_ErrorReport* prev = report->previous;
    emsc_HeapFree(report->function);
    emsc_HeapFree(report->message);
    emsc_HeapFree(report);
    report = prev;
  }
}

void eerr_DeleteErrorReportEx(Eerr_ErrorReport** report) KZDV_NOEXCEPT try {
  if (!report) return;
  eerr_DeleteErrorReport(*report);
  *report = nullptr;
}
EERR_BOUNDARY(report, )

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

void eerr_PrintErrorReport(const Eerr_ErrorReport* report, FILE* stream,
                           int /*flags*/) KZDV_NOEXCEPT try {
  if (!report) return;
  std::lock_guard<std::mutex> lock(g_print_mutex);
  if (g_handler) {
    g_handler(report, g_handler_context);
    return;
  }
  std::string text = kzdv::ToUtf8(kzdv::ReportText(report));
  std::fprintf(stream ? stream : stderr, "%s\n", text.c_str());
}
EERR_BOUNDARY(nullptr, )

Eerr_PrintHandler eerr_SetPrintHandler(Eerr_PrintHandler handler, void* context) KZDV_NOEXCEPT try {
  std::lock_guard<std::mutex> lock(g_print_mutex);
  Eerr_PrintHandler old = g_handler;
  g_handler = handler;
  g_handler_context = context;
  return old;
}
EERR_BOUNDARY(nullptr, nullptr)

void kzdv::CurrentPrintHandler(Eerr_PrintHandler* handler, void** context) {
  std::lock_guard<std::mutex> lock(g_print_mutex);
  *handler = g_handler;
  *context = g_handler_context;
}

const Eerr_ErrorReport* eerr_ErrorReportInnermost(const Eerr_ErrorReport* report) KZDV_NOEXCEPT {
  while (report && report->previous) report = report->previous;
  return report;
}

Etxt_Char* eerr_ErrorReportText(const Eerr_ErrorReport* report) KZDV_NOEXCEPT try {
  return etxt_Text_strdup(kzdv::ReportText(report).c_str());
}
EERR_BOUNDARY(nullptr, nullptr)

// ---------------------------------------------------------------- EerrException

EerrException::EerrException(const char* source, const char* context)
    : source_(source ? source : ""), context_(context ? context : "") {}

EerrException::EerrException(EerrException&& other) noexcept
    : source_(std::move(other.source_)),
      context_(std::move(other.context_)),
      report_(other.report_) {
  other.report_ = nullptr;
}

// Exceptions may be copied by the runtime; the copy takes the chain over so
// that exactly one holder frees it.
EerrException::EerrException(const EerrException& other)
    : source_(other.source_), context_(other.context_), report_(other.report_) {
  const_cast<EerrException&>(other).report_ = nullptr;
}

EerrException::~EerrException() { eerr_DeleteErrorReport(report_); }

void EerrException::Check(long site) {
  if (!report_) return;
  std::wstring name = kzdv::FromUtf8(context_);
  report_ = MakeReport(name.c_str(), site, EERR_SEVERITY_ERROR, report_, std::wstring());
  throw EerrException(std::move(*this));
}

void EerrException::Throw(long site, const Etxt_Char* message, ...) {
  va_list ap;
  va_start(ap, message);
  std::wstring text = kzdv::FormatV(message ? message : L"", ap);
  va_end(ap);
  std::wstring name = kzdv::FromUtf8(context_);
  report_ = MakeReport(name.c_str(), site, EERR_SEVERITY_ERROR, report_, text);
  throw EerrException(std::move(*this));
}

Eerr_ErrorReport* EerrException::Release() {
  Eerr_ErrorReport* r = report_;
  report_ = nullptr;
  return r;
}

void EerrException::Clear() { eerr_DeleteErrorReportEx(&report_); }

void EerrException::Log() {
  eerr_PrintErrorReport(report_, nullptr, 0);
  Clear();
}

const char* EerrException::what() const noexcept {
  try {
    what_ = report_ ? kzdv::ToUtf8(kzdv::ReportText(report_)) : context_;
  } catch (...) {
    return "EerrException";
  }
  return what_.c_str();
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
  Store(MakeReport(function_, site, severity, previous, text));
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
