/* etxt/estr: wide strings of the toolkit.
 *
 * Text is wide (wchar_t) in memory and UTF-8 at file and operating-system
 * boundaries. In the toolkit's printf-style formats "%s" takes a wide string
 * (Etxt_Char*); use "%hs" for a narrow UTF-8 string. */
#ifndef ETXT_H
#define ETXT_H

#include <stddef.h>
#include <wchar.h>

#include "emsc.h"
#include "kzdv_export.h"

typedef wchar_t Etxt_Char;
typedef Etxt_Char* Etxt_Text;

KZDV_BEGIN_C

/* Exact (case-sensitive) comparison like wcscmp; null sorts before any text. */
KZDV_EXPORT int etxt_Text_strcmp(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT;
KZDV_EXPORT size_t etxt_Text_strlen(const Etxt_Char* s) KZDV_NOEXCEPT;
/* Heap copy of `s` (null gives null). Free with emsc_HeapFree. */
KZDV_EXPORT Etxt_Char* etxt_Text_strdup(const Etxt_Char* s) KZDV_NOEXCEPT;
/* Case-ignoring equality; two nulls are equal, null and text are not. */
KZDV_EXPORT Emsc_Boolean estr_Eqic(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT;
/* Case-ignoring comparison like wcscasecmp. */
KZDV_EXPORT int estr_Cmpic(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT;
/* Heap copy of `s`; alias of etxt_Text_strdup under the estr name. */
KZDV_EXPORT Etxt_Char* estr_Duplicate(const Etxt_Char* s) KZDV_NOEXCEPT;
/* Formats into a new heap string (toolkit format: %s is wide). Null on a
 * bad format or exhaustion. */
KZDV_EXPORT Etxt_Char* estr_Sprintf(const Etxt_Char* format, ...) KZDV_NOEXCEPT;
/* Parses a whole string as a number (surrounding blanks allowed). Returns
 * EMSC_FALSE and leaves *value untouched when the text is not a number. */
KZDV_EXPORT Emsc_Boolean estr_StringToDouble(const Etxt_Char* s, double* value) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean estr_StringToLong(const Etxt_Char* s, long* value) KZDV_NOEXCEPT;
/* Heap UTF-8 copy of a wide string, and the reverse. Null on bad input. */
KZDV_EXPORT char* etxt_ToUtf8(const Etxt_Char* s) KZDV_NOEXCEPT;
KZDV_EXPORT Etxt_Char* etxt_FromUtf8(const char* s) KZDV_NOEXCEPT;

KZDV_END_C

#ifdef __cplusplus
#include <string>

/* The toolkit's wide string class used by the class interfaces. */
class KZDV_EXPORT EtxtTextU : public std::wstring {
 public:
  using std::wstring::wstring;
  EtxtTextU() = default;
  EtxtTextU(const std::wstring& s) : std::wstring(s) {}
  EtxtTextU(const Etxt_Char* s) : std::wstring(s ? s : L"") {}
  /* From UTF-8. */
  static EtxtTextU FromUtf8(const std::string& s);
  std::string ToUtf8() const;
  bool EqualsIgnoreCase(const Etxt_Char* other) const;
};
#endif

#endif /* ETXT_H */
