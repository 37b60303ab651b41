#include "etxt.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

EtxtTextU EtxtTextU::FromUtf8(const std::string& s) { return EtxtTextU(kzdv::FromUtf8(s)); }
std::string EtxtTextU::ToUtf8() const { return kzdv::ToUtf8(*this); }
bool EtxtTextU::EqualsIgnoreCase(const Etxt_Char* other) const {
  return estr_Eqic(c_str(), other) != EMSC_FALSE;
}

int etxt_Text_strcmp(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT {
  if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
  return std::wcscmp(a, b);
}

size_t etxt_Text_strlen(const Etxt_Char* s) KZDV_NOEXCEPT { return s ? std::wcslen(s) : 0; }

Etxt_Char* etxt_Text_strdup(const Etxt_Char* s) KZDV_NOEXCEPT {
  if (!s) return nullptr;
  return static_cast<Etxt_Char*>(emsc_MemDup(s, (std::wcslen(s) + 1) * sizeof(Etxt_Char)));
}

Etxt_Char* estr_Duplicate(const Etxt_Char* s) KZDV_NOEXCEPT { return etxt_Text_strdup(s); }

int estr_Cmpic(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT {
  if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
  for (;; ++a, ++b) {
    wint_t ca = std::towlower(*a), cb = std::towlower(*b);
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
}

Emsc_Boolean estr_Eqic(const Etxt_Char* a, const Etxt_Char* b) KZDV_NOEXCEPT {
  return estr_Cmpic(a, b) == 0 ? EMSC_TRUE : EMSC_FALSE;
}

Etxt_Char* estr_Sprintf(const Etxt_Char* format, ...) KZDV_NOEXCEPT try {
  if (!format) return nullptr;
  va_list ap;
  va_start(ap, format);
  std::wstring s = kzdv::FormatV(format, ap);
  va_end(ap);
  return etxt_Text_strdup(s.c_str());
}
EERR_BOUNDARY(nullptr, nullptr)

Emsc_Boolean estr_StringToDouble(const Etxt_Char* s, double* value) KZDV_NOEXCEPT {
  if (!s || !value) return EMSC_FALSE;
  wchar_t* end = nullptr;
  errno = 0;
  double v = std::wcstod(s, &end);
  if (end == s || errno == ERANGE) return EMSC_FALSE;
  while (*end && std::iswspace(*end)) ++end;
  if (*end) return EMSC_FALSE;
  *value = v;
  return EMSC_TRUE;
}

Emsc_Boolean estr_StringToLong(const Etxt_Char* s, long* value) KZDV_NOEXCEPT {
  if (!s || !value) return EMSC_FALSE;
  wchar_t* end = nullptr;
  errno = 0;
  long v = std::wcstol(s, &end, 10);
  if (end == s || errno == ERANGE) return EMSC_FALSE;
  while (*end && std::iswspace(*end)) ++end;
  if (*end) return EMSC_FALSE;
  *value = v;
  return EMSC_TRUE;
}

char* etxt_ToUtf8(const Etxt_Char* s) KZDV_NOEXCEPT try {
  if (!s) return nullptr;
  std::string u = kzdv::ToUtf8(s);
  return static_cast<char*>(emsc_MemDup(u.c_str(), u.size() + 1));
}
EERR_BOUNDARY(nullptr, nullptr)

Etxt_Char* etxt_FromUtf8(const char* s) KZDV_NOEXCEPT try {
  if (!s) return nullptr;
  return etxt_Text_strdup(kzdv::FromUtf8(s).c_str());
}
EERR_BOUNDARY(nullptr, nullptr)
