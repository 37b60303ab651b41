// Unit table: each unit is a factor to the base unit of its kind (meters or
// radians). Names are compared ignoring case; common spellings are aliases.
#include "ecvt.h"

#include <cmath>
#include <cwctype>
#include <string>

#include "platform/eerr/error_frame.h"

namespace {

enum class Kind { kLinear, kAngular };

struct Unit {
  const wchar_t* name;
  Kind kind;
  double to_base;
};

constexpr double kPi = 3.14159265358979323846;

const Unit kUnits[] = {
    {L"meters", Kind::kLinear, 1.0},
    {L"meter", Kind::kLinear, 1.0},
    {L"metres", Kind::kLinear, 1.0},
    {L"m", Kind::kLinear, 1.0},
    {L"kilometers", Kind::kLinear, 1000.0},
    {L"kilometer", Kind::kLinear, 1000.0},
    {L"km", Kind::kLinear, 1000.0},
    {L"centimeters", Kind::kLinear, 0.01},
    {L"centimeter", Kind::kLinear, 0.01},
    {L"cm", Kind::kLinear, 0.01},
    {L"millimeters", Kind::kLinear, 0.001},
    {L"millimeter", Kind::kLinear, 0.001},
    {L"mm", Kind::kLinear, 0.001},
    {L"microns", Kind::kLinear, 1e-6},
    {L"micron", Kind::kLinear, 1e-6},
    {L"feet", Kind::kLinear, 0.3048},
    {L"foot", Kind::kLinear, 0.3048},
    {L"international feet", Kind::kLinear, 0.3048},
    {L"ft", Kind::kLinear, 0.3048},
    {L"us_survey_feet", Kind::kLinear, 1200.0 / 3937.0},
    {L"us survey feet", Kind::kLinear, 1200.0 / 3937.0},
    {L"us survey foot", Kind::kLinear, 1200.0 / 3937.0},
    {L"us_survey_foot", Kind::kLinear, 1200.0 / 3937.0},
    {L"inches", Kind::kLinear, 0.0254},
    {L"inch", Kind::kLinear, 0.0254},
    {L"yards", Kind::kLinear, 0.9144},
    {L"yard", Kind::kLinear, 0.9144},
    {L"miles", Kind::kLinear, 1609.344},
    {L"mile", Kind::kLinear, 1609.344},
    {L"nautical miles", Kind::kLinear, 1852.0},
    {L"nautical mile", Kind::kLinear, 1852.0},
    {L"radians", Kind::kAngular, 1.0},
    {L"radian", Kind::kAngular, 1.0},
    {L"degrees", Kind::kAngular, kPi / 180.0},
    {L"degree", Kind::kAngular, kPi / 180.0},
    {L"gons", Kind::kAngular, kPi / 200.0},
    {L"gon", Kind::kAngular, kPi / 200.0},
    {L"grads", Kind::kAngular, kPi / 200.0},
    {L"grad", Kind::kAngular, kPi / 200.0},
    {L"arc minutes", Kind::kAngular, kPi / 10800.0},
    {L"minutes", Kind::kAngular, kPi / 10800.0},
    {L"arc seconds", Kind::kAngular, kPi / 648000.0},
    {L"seconds", Kind::kAngular, kPi / 648000.0},
};

const Unit* Find(const Etxt_Char* name) {
  if (!name) return nullptr;
  std::wstring key;
  for (const Etxt_Char* p = name; *p; ++p) key += static_cast<wchar_t>(std::towlower(*p));
  while (!key.empty() && std::iswspace(key.back())) key.pop_back();
  for (const Unit& u : kUnits)
    if (key == u.name) return &u;
  return nullptr;
}

}  // namespace

Emsc_Boolean ecvt_UnitsConvertByName(const Etxt_Char* from, const Etxt_Char* to, long count,
                                     double* values, long* status) KZDV_NOEXCEPT try {
  const Unit* a = Find(from);
  const Unit* b = Find(to);
  if (!a || !b || a->kind != b->kind || count < 0 || (count > 0 && !values)) {
    if (status) *status = !a ? 1 : !b ? 2 : 3;
    return EMSC_FALSE;
  }
  if (a->to_base != b->to_base) {
    const double factor = a->to_base / b->to_base;
    for (long i = 0; i < count; ++i) values[i] *= factor;
  }
  if (status) *status = 0;
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

double ecvt_UnitFactor(const Etxt_Char* unit) KZDV_NOEXCEPT try {
  const Unit* u = Find(unit);
  return u ? u->to_base : 0.0;
}
EERR_BOUNDARY(nullptr, 0.0)
