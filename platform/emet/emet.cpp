// Console progress meter: a redrawn bar on a terminal, a plain line per 10 %
// otherwise, so logs stay readable. Updates that do not change what is shown
// cost one comparison.
#include "emet.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <new>
#include <string>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

struct Emet_MeterInfo {
  std::wstring task;
  Emet_Sink sink = nullptr;
  void* context = nullptr;
  bool terminal = false;
  int last_shown = -1;  // last whole percent drawn (terminal) or decile printed (plain)
  std::atomic<bool> cancelled{false};
};

namespace {

Emet_MeterInfo* Create(const Etxt_Char* task, Emet_Sink sink, void* context, Eerr_ErrorReport** err,
                       const Etxt_Char* fn) {
  kzdv::ErrorFrame frame(fn, err);
  auto* m = new (std::nothrow) Emet_MeterInfo;
  EERR_FAIL_IF(!m, frame, nullptr, L"Out of memory");
  m->task = task ? task : L"";
  m->sink = sink;
  m->context = context;
  m->terminal = !sink && isatty(STDERR_FILENO);
  return m;
}

void Draw(Emet_MeterInfo* m, double percent) {
  const std::string task = kzdv::ToUtf8(m->task);
  if (m->terminal) {
    const int whole = static_cast<int>(percent);
    if (whole == m->last_shown) return;
    m->last_shown = whole;
    const int width = 30;
    const int filled = static_cast<int>(std::lround(percent * width / 100.0));
    std::fprintf(stderr, "\r%s [%s%s] %3d%%", task.c_str(), std::string(filled, '#').c_str(),
                 std::string(width - filled, ' ').c_str(), whole);
    if (whole >= 100) std::fputc('\n', stderr);
  } else {
    const int decile = static_cast<int>(percent / 10.0);
    if (decile == m->last_shown) return;
    m->last_shown = decile;
    std::fprintf(stderr, "%s: %d%%\n", task.c_str(), decile * 10);
  }
  std::fflush(stderr);
}

}  // namespace

Emet_MeterInfo* emet_MeterInfoCreate(const Etxt_Char* task, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  return Create(task, nullptr, nullptr, err, L"emet_MeterInfoCreate");
}
EERR_BOUNDARY(err, nullptr)

Emet_MeterInfo* emet_MeterInfoCreateWithSink(const Etxt_Char* task, Emet_Sink sink, void* context,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  return Create(task, sink, context, err, L"emet_MeterInfoCreateWithSink");
}
EERR_BOUNDARY(err, nullptr)

void emet_MeterInfoDelete(Emet_MeterInfo* meter) KZDV_NOEXCEPT {
  if (meter && meter->terminal && meter->last_shown >= 0 && meter->last_shown < 100)
    std::fputc('\n', stderr);
  delete meter;
}

Emsc_Boolean emet_MeterInfoChangeTaskName(Emet_MeterInfo* meter, const Etxt_Char* task,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"emet_MeterInfoChangeTaskName", err);
  if (!meter) return EMSC_TRUE;
  if (meter->terminal && meter->last_shown >= 0 && meter->last_shown < 100)
    std::fputc('\n', stderr);
  meter->task = task ? task : L"";
  meter->last_shown = -1;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean emet_MeterInfoPrint(Emet_MeterInfo* meter, double percent,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"emet_MeterInfoPrint", err);
  if (!meter) return EMSC_TRUE;
  if (!(percent >= 0)) percent = 0;  // also catches NaN
  percent = std::min(percent, 100.0);
  if (meter->sink)
    meter->sink(meter->task.c_str(), percent, meter->context);
  else
    Draw(meter, percent);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void emet_MeterInfoCancel(Emet_MeterInfo* meter) KZDV_NOEXCEPT {
  if (meter) meter->cancelled.store(true);
}

Emsc_Boolean emet_MeterInfoCancelled(const Emet_MeterInfo* meter) KZDV_NOEXCEPT {
  return meter && meter->cancelled.load() ? EMSC_TRUE : EMSC_FALSE;
}
