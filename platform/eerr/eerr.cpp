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

void eerr_DeleteErrorReportEx(Eerr_ErrorReport** report) KZDV_NOEXCEPT {
  if (!report) return;
  eerr_DeleteErrorReport(*report);
  *report = nullptr;
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
