// Uses the installed headers and libraries the way an application would.
#include <epho/epho.h>

#include <cstdio>

int main() {
  Eerr_ErrorReport* err = nullptr;
  Eerr_ErrorReport* r = eerr_CreateErrorReport(L"consumer", 1, 2, nullptr, L"%s", L"ok", 0);
  if (!r) return 1;
  eerr_DeleteErrorReportEx(&r);
  (void)err;
  std::puts("consumer linked against the installed kzdvpholibu");
  return 0;
}
