/* eerr: error reports of the toolkit.
 *
 * A report is a chain read from the outermost call inwards: each link names
 * the function that failed, a site number inside it, a severity and a
 * message, and points at the report of the callee that failed first.
 * Exported functions take an `Eerr_ErrorReport **` last; a null pointer there
 * means the caller wants no report (the function then prints its own). */
#ifndef EERR_H
#define EERR_H

#include <stdio.h>

#include "etxt.h"
#include "kzdv_export.h"

/* Severities used by the library. */
#define EERR_SEVERITY_INFO 0
#define EERR_SEVERITY_WARNING 1
#define EERR_SEVERITY_ERROR 2

typedef struct Eerr_ErrorReport {
  Etxt_Char* function;               /* heap copy of the reporting function's name */
  long site;                         /* report site inside that function */
  int severity;                      /* 0 info, 1 warning, 2 error */
  Etxt_Char* message;                /* formatted message */
  struct Eerr_ErrorReport* previous; /* the callee's report, or null */
} Eerr_ErrorReport;

/* Receives each printed report; replaces printing to the stream. */
typedef void (*Eerr_PrintHandler)(const Eerr_ErrorReport* report, void* context);

KZDV_BEGIN_C

/* Creates a report. `message` is a toolkit format (%s is a wide string) whose
 * arguments follow it; the argument list is closed by a 0. The new report
 * takes ownership of `previous`. Returns null only when memory is exhausted
 * (then `previous` is freed). */
KZDV_EXPORT Eerr_ErrorReport* eerr_CreateErrorReport(const Etxt_Char* function, long site,
                                                     int severity, Eerr_ErrorReport* previous,
                                                     const Etxt_Char* message, ...) KZDV_NOEXCEPT;
/* Frees a whole chain. */
KZDV_EXPORT void eerr_DeleteErrorReport(Eerr_ErrorReport* report) KZDV_NOEXCEPT;
/* Frees the chain at *report and stores null there. */
KZDV_EXPORT void eerr_DeleteErrorReportEx(Eerr_ErrorReport** report) KZDV_NOEXCEPT;
/* Prints the chain, outermost first, one line per link, to `stream` (null:
 * standard error) or to the installed print handler. `flags` is reserved. */
KZDV_EXPORT void eerr_PrintErrorReport(const Eerr_ErrorReport* report, FILE* stream,
                                       int flags) KZDV_NOEXCEPT;
/* Installs a handler for printed reports (null restores printing). Returns the
 * previous one. Meant for host applications that route reports to a log. */
KZDV_EXPORT Eerr_PrintHandler eerr_SetPrintHandler(Eerr_PrintHandler handler,
                                                   void* context) KZDV_NOEXCEPT;
/* The innermost (first-failing) link of a chain. */
KZDV_EXPORT const Eerr_ErrorReport* eerr_ErrorReportInnermost(const Eerr_ErrorReport* report)
    KZDV_NOEXCEPT;
/* Heap text of the whole chain, one link a line. Free with emsc_HeapFree. */
KZDV_EXPORT Etxt_Char* eerr_ErrorReportText(const Eerr_ErrorReport* report) KZDV_NOEXCEPT;

KZDV_END_C

#ifdef __cplusplus
#include <exception>
#include <string>

/* The toolkit's exception, used by class code.
 *
 * A method constructs one as its error context (source name and qualified
 * method name), passes Err() as the report argument of each toolkit call, and
 * calls Check(site) right after: when a report was left, Check throws the
 * context. Throw(site, message...) reports the method's own failure. An
 * exported function running class code catches it and hands the chain on
 * with Release(). A context left without a failure has no effect. */
class KZDV_EXPORT EerrException : public std::exception {
 public:
  EerrException(const char* source, const char* context);
  EerrException(EerrException&& other) noexcept;
  EerrException(const EerrException& other);
  EerrException& operator=(const EerrException&) = delete;
  ~EerrException() override;

  /* The context's report slot, for toolkit calls. */
  Eerr_ErrorReport** Err() { return &report_; }
  /* Throws the context when a callee left a report in Err(). */
  void Check(long site);
  /* Builds a report under the context's name (previous: any report in the
   * slot) and throws. The message is a toolkit format closed by a 0. */
  [[noreturn]] void Throw(long site, const Etxt_Char* message, ...);
  /* Gives up ownership of the report chain and returns it. */
  Eerr_ErrorReport* Release();
  /* Discards a report that is tolerated. */
  void Clear();
  /* Prints the report (eerr_PrintErrorReport) and discards it. */
  void Log();
  bool HasReport() const { return report_ != nullptr; }
  const Eerr_ErrorReport* Report() const { return report_; }
  const char* Source() const { return source_.c_str(); }
  const char* Context() const { return context_.c_str(); }
  const char* what() const noexcept override;

 private:
  std::string source_;
  std::string context_;
  Eerr_ErrorReport* report_ = nullptr;
  mutable std::string what_;
};
#endif

#endif /* EERR_H */
