// UTF-8 conversions and the toolkit's formatting; stateless, linked into
// every shipped library as a hidden copy (see kzdv_internal in CMakeLists.txt).
#include "platform/estr/utf8.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <vector>

namespace kzdv {

std::string ToUtf8(const std::wstring& s) {
  std::string out;
  out.reserve(s.size());
  for (wchar_t wc : s) {
    uint32_t c = static_cast<uint32_t>(wc);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::wstring FromUtf8(const std::string& s) {
  std::wstring out;
  out.reserve(s.size());
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    unsigned char b = static_cast<unsigned char>(s[i]);
    uint32_t c;
    int extra;
    if (b < 0x80) {
      c = b;
      extra = 0;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F;
      extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F;
      extra = 2;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07;
      extra = 3;
    } else {
      out += static_cast<wchar_t>(0xFFFD);
      ++i;
      continue;
    }
    bool ok = true;
    for (int k = 1; k <= extra; ++k) {
      if (i + k >= n || (static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    }
    if (!ok) {
      out += static_cast<wchar_t>(0xFFFD);
      ++i;
      continue;
    }
    out += static_cast<wchar_t>(c);
    i += extra + 1;
  }
  return out;
}

namespace {

// Formats one conversion `conv_text` (flags, width and precision resolved,
// no length modifier) of a single value with swprintf.
template <typename T>
void AppendOne(std::wstring& out, const std::wstring& conv_text, T value) {
  wchar_t small[128];
  int n = std::swprintf(small, 128, conv_text.c_str(), value);
  if (n >= 0) {
    out.append(small, static_cast<size_t>(n));
    return;
  }
  std::vector<wchar_t> big(4096);
  for (; big.size() <= (1u << 20); big.resize(big.size() * 4)) {
    n = std::swprintf(big.data(), big.size(), conv_text.c_str(), value);
    if (n >= 0) {
      out.append(big.data(), static_cast<size_t>(n));
      return;
    }
  }
  out += L"\uFFFD";  // a conversion that cannot be formatted
}

}  // namespace

// The toolkit's printf: "%s" takes a wide string and "%hs" a UTF-8 narrow one.
// Strings are converted here rather than by the C library, so the result does
// not depend on the process locale.
std::wstring FormatV(const Etxt_Char* format, va_list args) {
  if (!format) return std::wstring();
  va_list ap;
  va_copy(ap, args);
  std::wstring out;
  for (const wchar_t* p = format; *p;) {
    if (*p != L'%') {
      out += *p++;
      continue;
    }
    ++p;
    if (*p == L'%') {
      out += *p++;
      continue;
    }
    std::wstring conv_text = L"%";
    while (*p && std::wcschr(L"-+ #0'", *p)) conv_text += *p++;
    auto number = [&]() {
      if (*p == L'*') {
        conv_text += std::to_wstring(va_arg(ap, int));
        ++p;
      } else {
        while (*p && std::iswdigit(*p)) conv_text += *p++;
      }
    };
    number();
    if (*p == L'.') {
      conv_text += *p++;
      number();
    }
    std::wstring len;
    while (*p && std::wcschr(L"hlLqjzt", *p)) len += *p++;
    const wchar_t conv = *p;
    if (!conv) break;
    ++p;
    switch (conv) {
      case L'd':
      case L'i':
        if (len == L"l")
          AppendOne(out, conv_text + L"l" + conv, va_arg(ap, long));
        else if (len == L"ll" || len == L"q" || len == L"j")
          AppendOne(out, conv_text + L"ll" + conv, va_arg(ap, long long));
        else if (len == L"z" || len == L"t")
          AppendOne(out, conv_text + L"ll" + conv, static_cast<long long>(va_arg(ap, ptrdiff_t)));
        else
          AppendOne(out, conv_text + conv, va_arg(ap, int));
        break;
      case L'u':
      case L'o':
      case L'x':
      case L'X':
        if (len == L"l")
          AppendOne(out, conv_text + L"l" + conv, va_arg(ap, unsigned long));
        else if (len == L"ll" || len == L"q" || len == L"j")
          AppendOne(out, conv_text + L"ll" + conv, va_arg(ap, unsigned long long));
        else if (len == L"z" || len == L"t")
          AppendOne(out, conv_text + L"ll" + conv,
                    static_cast<unsigned long long>(va_arg(ap, size_t)));
        else
          AppendOne(out, conv_text + conv, va_arg(ap, unsigned int));
        break;
      case L'f':
      case L'F':
      case L'e':
      case L'E':
      case L'g':
      case L'G':
      case L'a':
      case L'A':
        if (len == L"L")
          AppendOne(out, conv_text + L"L" + conv, va_arg(ap, long double));
        else
          AppendOne(out, conv_text + conv, va_arg(ap, double));
        break;
      case L'c':
        if (len == L"h")
          AppendOne(out, conv_text + L"lc",
                    static_cast<wint_t>(static_cast<unsigned char>(va_arg(ap, int))));
        else
          AppendOne(out, conv_text + L"lc", static_cast<wint_t>(va_arg(ap, wint_t)));
        break;
      case L's': {
        std::wstring text;
        if (len == L"h") {
          const char* n = va_arg(ap, const char*);
          text = n ? FromUtf8(n) : L"(null)";
        } else {
          const wchar_t* w = va_arg(ap, const wchar_t*);
          text = w ? w : L"(null)";
        }
        AppendOne(out, conv_text + L"ls", text.c_str());
        break;
      }
      case L'p':
        AppendOne(out, conv_text + L"p", va_arg(ap, void*));
        break;
      default:  // unknown conversion: keep it visible, consume nothing
        out += conv_text + len + conv;
        break;
    }
  }
  va_end(ap);
  return out;
}

std::wstring Format(const Etxt_Char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::wstring s = FormatV(format, ap);
  va_end(ap);
  return s;
}

}  // namespace kzdv
