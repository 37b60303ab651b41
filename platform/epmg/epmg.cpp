// Preferences live in memory only: a host application sets them, the
// library reads them. Keys are "category/name", compared exactly.
#include "epmg.h"

#include <map>
#include <mutex>
#include <string>

#include "platform/eerr/error_frame.h"

namespace {

struct Store {
  std::mutex mutex;
  std::map<std::wstring, double> values;
};

Store& Prefs() {
  static Store store;
  return store;
}

std::wstring Key(const Etxt_Char* category, const Etxt_Char* name) {
  return std::wstring(category ? category : L"") + L"/" + (name ? name : L"");
}

}  // namespace

Emsc_Boolean epmg_GetBooleanPreference(const Etxt_Char* category, const Etxt_Char* name,
                                       Emsc_Boolean default_value,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  if (err) *err = nullptr;
  Store& s = Prefs();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.values.find(Key(category, name));
  return it == s.values.end() ? default_value : (it->second != 0 ? EMSC_TRUE : EMSC_FALSE);
}
EERR_BOUNDARY(err, default_value)

void epmg_SetBooleanPreference(const Etxt_Char* category, const Etxt_Char* name,
                               Emsc_Boolean value) KZDV_NOEXCEPT {
  epmg_SetDoublePreference(category, name, value ? 1.0 : 0.0);
}

double epmg_GetDoublePreference(const Etxt_Char* category, const Etxt_Char* name,
                                double default_value, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  if (err) *err = nullptr;
  Store& s = Prefs();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.values.find(Key(category, name));
  return it == s.values.end() ? default_value : it->second;
}
EERR_BOUNDARY(err, default_value)

void epmg_SetDoublePreference(const Etxt_Char* category, const Etxt_Char* name,
                              double value) KZDV_NOEXCEPT try {
  Store& s = Prefs();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values[Key(category, name)] = value;
}
EERR_BOUNDARY(nullptr, )

void epmg_ClearPreferences(void) KZDV_NOEXCEPT try {
  Store& s = Prefs();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values.clear();
}
EERR_BOUNDARY(nullptr, )
