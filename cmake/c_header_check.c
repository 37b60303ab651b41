/* Compiles the exported headers as C and calls through them, so that the C
 * interface stays usable from C and other languages. */
#include <stdio.h>

#include "epho/epho.h"

int main(void) {
  Eerr_ErrorReport* err = 0;
  Eerr_ErrorReport* r = eerr_CreateErrorReport(L"c_header_check", 1, 2, 0, L"%s", L"from C", 0);
  if (!r) return 1;
  eerr_DeleteErrorReportEx(&r);
  if (r) return 1;
  (void)err;
  puts("exported headers compile and link as C");
  return 0;
}
