// The common frame of an exported call (internal to the libraries: the
// modules include it as "platform/eerr/error_frame.h"; it is not installed).
//
//   Eerr_ErrorReport* epho_Foo(..., Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
//     static const Etxt_Char* const kFn = L"epho_Foo";
//     kzdv::ErrorFrame frame(kFn, err);
//     EERR_FAIL_IF(n < 3, frame, nullptr, L"At least %d points are needed", 3);
//     EERR_CHECK(bar(x, frame.Callee()), frame, nullptr, L"bar failed");
//     ...
//   }
//   EERR_BOUNDARY(err, nullptr)
//
// On entry the caller's report pointer is cleared. When the caller passed no
// report pointer the frame keeps its own holder and prints and frees whatever
// lands there when the function returns. Callee() hands out a fresh local slot
// for each call; a failure chains the callee's report under the function's name.
#ifndef PLATFORM_EERR_ERROR_FRAME_H
#define PLATFORM_EERR_ERROR_FRAME_H

#include <cstdarg>
#include <new>
#include <stdexcept>
#include <string>

#include "eerr.h"

namespace kzdv {

// Whole-chain text, one link a line, and a test for a message anywhere in it.
std::wstring ReportText(const Eerr_ErrorReport* report);
bool ReportContains(const Eerr_ErrorReport* report, const std::wstring& message);

// The handler of EERR_BOUNDARY: turns the exception being handled into a
// report under `function` (an EerrException hands on its own chain) and
// stores it in *err, chained over any report already there; a null `err`
// prints and frees it. Never throws: when even the report cannot be built
// for want of memory, "Out of memory" goes to standard error.
void ReportEscaped(const char* function, long site, Eerr_ErrorReport** err) noexcept;

class ErrorFrame {
 public:
  ErrorFrame(const Etxt_Char* function, Eerr_ErrorReport** err);
  ~ErrorFrame();
  ErrorFrame(const ErrorFrame&) = delete;
  ErrorFrame& operator=(const ErrorFrame&) = delete;

  // A clean local report slot for the next callee.
  Eerr_ErrorReport** Callee();
  // True when the last callee left a report.
  bool CalleeFailed() const { return local_ != nullptr; }
  // Frees a callee's report whose failure is tolerated.
  void Tolerate() { eerr_DeleteErrorReportEx(&local_); }
  // Reports a failure at `site`: the callee's report (if any) becomes the
  // previous link. `message` is a toolkit format closed by a 0 (added here).
  void Fail(long site, const Etxt_Char* message, ...);
  // As Fail, with a severity other than 2.
  void FailWithSeverity(long site, int severity, const Etxt_Char* message, ...);
  // Takes a finished report chain (e.g. from EerrException::Release()).
  void Adopt(Eerr_ErrorReport* report);
  // True once a report has been stored for the caller.
  bool Failed() const { return *out_ != nullptr; }
  const Etxt_Char* Function() const { return function_; }

 private:
  void Store(Eerr_ErrorReport* report);
  void FailV(long site, int severity, const Etxt_Char* message, va_list args);

  const Etxt_Char* function_;
  Eerr_ErrorReport* own_ = nullptr;
  Eerr_ErrorReport** out_;
  Eerr_ErrorReport* local_ = nullptr;
};

}  // namespace kzdv

// Report the function's own failure and return `ret`.
#define EERR_FAIL(frame, ret, ...)       \
  do {                                   \
    (frame).Fail(__LINE__, __VA_ARGS__); \
    return ret;                          \
  } while (0)

#define EERR_FAIL_IF(cond, frame, ret, ...)       \
  do {                                            \
    if (cond) EERR_FAIL(frame, ret, __VA_ARGS__); \
  } while (0)

// A required argument that is null: the report names it, "Args: file is null".
#define EERR_FAIL_IF_NULL(arg, frame, ret) \
  EERR_FAIL_IF(!(arg), frame, ret, L"Args: %hs is null", #arg)

// `ok` is a callee call (or its result) that is true on success; a report
// left in frame.Callee() also counts as failure.
#define EERR_CHECK(ok, frame, ret, ...)                                      \
  do {                                                                       \
    if (!(ok) || (frame).CalleeFailed()) EERR_FAIL(frame, ret, __VA_ARGS__); \
  } while (0)

// Closes a try block around class code or C++ that may throw: the toolkit
// exception's chain is handed to the caller, anything else becomes a report.
#define EERR_CATCH(frame, ret)                      \
  catch (EerrException & eerr_e_) {                 \
    (frame).Adopt(eerr_e_.Release());               \
    return ret;                                     \
  }                                                 \
  catch (const std::bad_alloc&) {                   \
    (frame).Fail(__LINE__, L"Out of memory");       \
    return ret;                                     \
  }                                                 \
  catch (const std::exception& eerr_e_) {           \
    (frame).Fail(__LINE__, L"%hs", eerr_e_.what()); \
    return ret;                                     \
  }                                                 \
  catch (...) {                                     \
    (frame).Fail(__LINE__, L"Unknown exception");   \
    return ret;                                     \
  }

// The seal of the C boundary: the handler of the function-try-block that is
// the body of every exported function which takes a report,
//
//   Emsc_Boolean ehfa_Foo(..., Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
//     ...
//   }
//   EERR_BOUNDARY(err, EMSC_FALSE)
//
// Whatever escapes the body (std::bad_alloc from a container, an
// EerrException of class code not caught nearer, anything else) becomes a
// report under the function's name in *err and the function returns `ret`
// (leave `ret` empty in a void function). The frame's locals are gone by then;
// a report the frame had stored stays, chained under the new one.
//
// Functions without a report argument pass nullptr: the report is printed (as
// for a caller who passed no report pointer) and `ret` is the failure value
// the function's header documents. Such a function needs the boundary only
// when its body can throw at all (allocation, wide strings, class code);
// arithmetic on caller buffers is simply noexcept, and the exception-escape
// check of the tests holds it to that.
#define EERR_BOUNDARY(err, ret)                       \
  catch (...) {                                       \
    ::kzdv::ReportEscaped(__func__, __LINE__, (err)); \
    return ret;                                       \
  }

// Class code: throw the context when the last toolkit call left a report.
#define EERR_EX_CHECK(ctx) (ctx).Check(__LINE__)
#define EERR_EX_THROW(ctx, ...) (ctx).Throw(__LINE__, __VA_ARGS__)

#endif  // PLATFORM_EERR_ERROR_FRAME_H
