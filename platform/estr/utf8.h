// Wide text inside, UTF-8 at every file and operating-system boundary, and
// the toolkit's formatting. Internal to the libraries (not installed).
#ifndef PLATFORM_ESTR_UTF8_H
#define PLATFORM_ESTR_UTF8_H

#include <cstdarg>
#include <string>

#include "etxt.h"

namespace kzdv {
// UTF-8 <-> wide conversions, independent of the process locale. Invalid
// UTF-8 bytes become U+FFFD; the conversion never fails.
std::string ToUtf8(const std::wstring& s);
std::wstring FromUtf8(const std::string& s);
// vswprintf with the toolkit's %s-is-wide rule; returns the formatted text.
std::wstring FormatV(const Etxt_Char* format, va_list args);
std::wstring Format(const Etxt_Char* format, ...);
}  // namespace kzdv

// Narrow UTF-8 text (char* or std::string) as a wide C string for a toolkit
// format's %s. A macro, so that the temporary lives to the end of the full
// expression that uses it.
#define KZDV_W(s) ::kzdv::FromUtf8(s).c_str()

#endif  // PLATFORM_ESTR_UTF8_H
