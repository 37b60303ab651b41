// Numbers in text files are read and written in the C locale whatever the
// host application set (a GUI toolkit often sets a decimal comma). Internal;
// include as "platform/efio/c_locale.h".
//
//   {
//     kzdv::efio::ScopedCLocale c_numbers;   // this thread only
//     ... printf/scanf/strtod/wcstod family, kzdv::Format, efio_Fprintf ...
//   }
//
// uselocale(3) switches the calling thread only, so other threads of the host
// keep their locale, and the previous one comes back at the end of the scope.
#ifndef KZDV_PLATFORM_EFIO_C_LOCALE_H_
#define KZDV_PLATFORM_EFIO_C_LOCALE_H_

#include <locale.h>

namespace kzdv::efio {

class ScopedCLocale {
 public:
  ScopedCLocale() {
    // One C locale object for the process, made on first use and never freed.
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    previous_ = c_locale ? uselocale(c_locale) : static_cast<locale_t>(0);
  }
  ~ScopedCLocale() {
    if (previous_) uselocale(previous_);
  }
  ScopedCLocale(const ScopedCLocale&) = delete;
  ScopedCLocale& operator=(const ScopedCLocale&) = delete;

 private:
  locale_t previous_;
};

}  // namespace kzdv::efio

#endif  // KZDV_PLATFORM_EFIO_C_LOCALE_H_
