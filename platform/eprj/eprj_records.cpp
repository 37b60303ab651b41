// Spheroids, datums, projection parameters and elevation info: the plain
// records and their create, copy, compare and free functions.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <cwctype>
#include <memory>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/eprj/eprj_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace eprj {
namespace {

// Names compare ignoring case, blanks, underscores and hyphens, so that
// "WGS_1984"-style spellings of GDAL and HFA files meet the table.
std::wstring Key(const Etxt_Char* s) {
  std::wstring k;
  for (; s && *s; ++s)
    if (!std::wcschr(L" _-()", *s)) k.push_back(static_cast<wchar_t>(std::towlower(*s)));
  return k;
}

const SpheroidDef kSpheroids[] = {
    {L"WGS 84", 6378137.0, 298.257223563},
    {L"GRS 1980", 6378137.0, 298.257222101},
    {L"Clarke 1866", 6378206.4, 294.978698213898},
    {L"International 1924", 6378388.0, 297.0},
    {L"Bessel 1841", 6377397.155, 299.1528128},
    {L"Airy 1830", 6377563.396, 299.3249646},
    {L"Clarke 1880 (RGS)", 6378249.145, 293.465},
    {L"Krassowsky 1940", 6378245.0, 298.3},
    {L"WGS 72", 6378135.0, 298.26},
    {L"GRS 1967", 6378160.0, 298.247167427},
    {L"Everest 1830", 6377276.345, 300.8017},
    {L"Sphere", 6371000.0, 0.0},
};

struct Alias {
  const wchar_t* alias;
  const wchar_t* name;
};
const Alias kSpheroidAliases[] = {
    {L"WGS84", L"WGS 84"},
    {L"WGS 1984", L"WGS 84"},
    {L"GRS80", L"GRS 1980"},
    {L"International 1909", L"International 1924"},
    {L"International", L"International 1924"},
    {L"Hayford", L"International 1924"},
    {L"Bessel", L"Bessel 1841"},
    {L"Airy", L"Airy 1830"},
    {L"Clarke 1880", L"Clarke 1880 (RGS)"},
    {L"Krasovsky", L"Krassowsky 1940"},
    {L"WGS 1972", L"WGS 72"},
    {L"Everest", L"Everest 1830"},
    {L"Clarke1866", L"Clarke 1866"},
};

// Shifts to WGS 84 (position vector, arc-seconds, ppm) of the EPSG
// transformations: ED50 1133, OSGB 1936 1314, DHDN 1777, Tokyo 1305,
// Pulkovo 1942 5044, WGS 72 1237. NAD27 uses NADCON's grid.
const DatumDef kDatums[] = {
    {L"WGS 84", L"WGS 84", 4326, EPRJ_DATUM_PARAMETRIC, nullptr, {0, 0, 0, 0, 0, 0, 0}},
    {L"NAD83", L"GRS 1980", 4269, EPRJ_DATUM_PARAMETRIC, nullptr, {0, 0, 0, 0, 0, 0, 0}},
    {L"NAD27", L"Clarke 1866", 4267, EPRJ_DATUM_GRID, L"nadcon.dat", {0, 0, 0, 0, 0, 0, 0}},
    {L"ETRS89", L"GRS 1980", 4258, EPRJ_DATUM_PARAMETRIC, nullptr, {0, 0, 0, 0, 0, 0, 0}},
    {L"GDA94", L"GRS 1980", 4283, EPRJ_DATUM_PARAMETRIC, nullptr, {0, 0, 0, 0, 0, 0, 0}},
    {L"ED50",
     L"International 1924",
     4230,
     EPRJ_DATUM_PARAMETRIC,
     nullptr,
     {-87, -98, -121, 0, 0, 0, 0}},
    {L"OSGB 1936",
     L"Airy 1830",
     4277,
     EPRJ_DATUM_PARAMETRIC,
     nullptr,
     {446.448, -125.157, 542.06, 0.15, 0.247, 0.842, -20.489}},
    {L"DHDN",
     L"Bessel 1841",
     4314,
     EPRJ_DATUM_PARAMETRIC,
     nullptr,
     {598.1, 73.7, 418.2, 0.202, 0.045, -2.455, 6.7}},
    {L"Tokyo", L"Bessel 1841", 4301, EPRJ_DATUM_PARAMETRIC, nullptr, {-147, 506, 687, 0, 0, 0, 0}},
    {L"Pulkovo 1942",
     L"Krassowsky 1940",
     4284,
     EPRJ_DATUM_PARAMETRIC,
     nullptr,
     {23.57, -140.95, -79.8, 0, 0.35, 0.79, -0.22}},
    {L"WGS 1972",
     L"WGS 72",
     4322,
     EPRJ_DATUM_PARAMETRIC,
     nullptr,
     {0, 0, 4.5, 0, 0, 0.554, 0.2263}},
};
const Alias kDatumAliases[] = {
    {L"WGS84", L"WGS 84"},
    {L"WGS 1984", L"WGS 84"},
    {L"North American Datum 1983", L"NAD83"},
    {L"North American Datum 1927", L"NAD27"},
    {L"European Datum 1950", L"ED50"},
    {L"European Terrestrial Reference System 1989", L"ETRS89"},
    {L"Geocentric Datum of Australia 1994", L"GDA94"},
    {L"OSGB36", L"OSGB 1936"},
    {L"Ordnance Survey of Great Britain 1936", L"OSGB 1936"},
    {L"Deutsches Hauptdreiecksnetz", L"DHDN"},
    {L"WGS 72", L"WGS 1972"},
};

}  // namespace

const SpheroidDef* FindSpheroid(const Etxt_Char* name) {
  const std::wstring k = Key(name);
  if (k.empty()) return nullptr;
  for (const SpheroidDef& s : kSpheroids)
    if (k == Key(s.name)) return &s;
  for (const Alias& a : kSpheroidAliases)
    if (k == Key(a.alias))
      for (const SpheroidDef& s : kSpheroids)
        if (Key(a.name) == Key(s.name)) return &s;
  return nullptr;
}

const DatumDef* FindDatum(const Etxt_Char* name) {
  const std::wstring k = Key(name);
  if (k.empty()) return nullptr;
  for (const DatumDef& d : kDatums)
    if (k == Key(d.name)) return &d;
  for (const Alias& a : kDatumAliases)
    if (k == Key(a.alias))
      for (const DatumDef& d : kDatums)
        if (Key(a.name) == Key(d.name)) return &d;
  return nullptr;
}

constexpr double kArcSecond = 4.84813681109536e-06;  // radians

void ShiftToStored(const double surveyed[7], double stored[7]) {
  for (int i = 0; i < 3; ++i) stored[i] = surveyed[i];
  // HFA files keep the rotations in the coordinate frame convention.
  for (int i = 3; i < 6; ++i) stored[i] = -surveyed[i] * kArcSecond;
  stored[6] = surveyed[6] * 1e-6;
}

void ShiftFromStored(const double stored[7], double surveyed[7]) {
  for (int i = 0; i < 3; ++i) surveyed[i] = stored[i];
  for (int i = 3; i < 6; ++i) surveyed[i] = -stored[i] / kArcSecond;
  surveyed[6] = stored[6] * 1e6;
}

bool DupText(const Etxt_Char* s, Etxt_Char** out) {
  *out = nullptr;
  if (!s) return true;
  *out = estr_Duplicate(s);
  return *out != nullptr;
}

std::string Narrow(const Etxt_Char* s) { return s ? kzdv::ToUtf8(s) : std::string(); }

}  // namespace eprj
}  // namespace kzdv

using kzdv::eprj::DupText;

namespace {

bool CopyArray(const Eprj_DoubleArray& from, Eprj_DoubleArray* to) {
  to->count = 0;
  to->data = nullptr;
  if (from.count <= 0 || !from.data) return true;
  to->data = static_cast<double*>(emsc_MemDup(from.data, sizeof(double) * from.count));
  if (!to->data) return false;
  to->count = from.count;
  return true;
}

template <typename T, void (*Free)(T*)>
struct RecordDeleter {
  void operator()(T* p) const { Free(p); }
};
using DatumPtr = std::unique_ptr<Eprj_Datum, RecordDeleter<Eprj_Datum, eprj_DatumFree>>;
using SpheroidPtr = std::unique_ptr<Eprj_Spheroid, RecordDeleter<Eprj_Spheroid, eprj_SpheroidFree>>;
using ProPtr =
    std::unique_ptr<Eprj_ProParameters, RecordDeleter<Eprj_ProParameters, eprj_ProParametersFree>>;
using ElevPtr =
    std::unique_ptr<Eprj_ElevationInfo, RecordDeleter<Eprj_ElevationInfo, eprj_ElevationInfoFree>>;

template <typename T>
T* NewRecord() {
  return static_cast<T*>(emsc_HeapCalloc(1, sizeof(T)));
}

bool Near(double a, double b, double tol) { return std::fabs(a - b) <= tol; }

const wchar_t* const kLinearUnits[] = {L"meters",
                                       L"meter",
                                       L"metre",
                                       L"metres",
                                       L"m",
                                       L"feet",
                                       L"foot",
                                       L"ft",
                                       L"us_survey_feet",
                                       L"us survey feet",
                                       L"us_survey_foot",
                                       L"kilometers",
                                       L"kilometer",
                                       L"km",
                                       L"centimeters",
                                       L"centimeter",
                                       L"millimeters",
                                       L"millimeter",
                                       L"inches",
                                       L"inch",
                                       L"yards",
                                       L"yard",
                                       L"miles",
                                       L"mile",
                                       L"Undefined"};

}  // namespace

extern "C" {

// ---------------------------------------------------------------- spheroids

Eprj_Spheroid* eprj_SpheroidCreateByName(const Etxt_Char* name,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_SpheroidCreateByName";
  kzdv::ErrorFrame frame(kFn, err);
  const kzdv::eprj::SpheroidDef* def = kzdv::eprj::FindSpheroid(name);
  EERR_FAIL_IF(!def, frame, nullptr, L"Unknown spheroid \"%s\"", name ? name : L"(null)");
  SpheroidPtr s(NewRecord<Eprj_Spheroid>());
  EERR_FAIL_IF(!s || !DupText(def->name, &s->sphereName), frame, nullptr, L"Out of memory");
  s->a = def->a;
  s->radius = def->a;
  if (def->inv_flattening > 0) {
    const double f = 1.0 / def->inv_flattening;
    s->b = def->a * (1.0 - f);
    s->eSquared = f * (2.0 - f);
  } else {
    s->b = def->a;
    s->eSquared = 0.0;
  }
  return s.release();
}
EERR_BOUNDARY(err, nullptr)

Eprj_Spheroid* eprj_SpheroidCopy(const Eprj_Spheroid* spheroid,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_SpheroidCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!spheroid, frame, nullptr, L"No spheroid");
  SpheroidPtr s(NewRecord<Eprj_Spheroid>());
  EERR_FAIL_IF(!s || !DupText(spheroid->sphereName, &s->sphereName), frame, nullptr,
               L"Out of memory");
  s->a = spheroid->a;
  s->b = spheroid->b;
  s->eSquared = spheroid->eSquared;
  s->radius = spheroid->radius;
  if (spheroid->datum) {
    s->datum = eprj_DatumCopy(spheroid->datum, frame.Callee());
    EERR_CHECK(s->datum, frame, nullptr, L"eprj_DatumCopy failed");
  }
  return s.release();
}
EERR_BOUNDARY(err, nullptr)

void eprj_SpheroidFree(Eprj_Spheroid* spheroid) KZDV_NOEXCEPT {
  if (!spheroid) return;
  emsc_HeapFree(spheroid->sphereName);
  eprj_DatumFree(spheroid->datum);
  emsc_HeapFree(spheroid);
}

// ------------------------------------------------------------------- datums

Eprj_Datum* eprj_DatumCreateByName(const Etxt_Char* name, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eprj_DatumCreateByName";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!name || !*name, frame, nullptr, L"No datum name");
  const kzdv::eprj::DatumDef* def = kzdv::eprj::FindDatum(name);
  DatumPtr d(NewRecord<Eprj_Datum>());
  EERR_FAIL_IF(!d, frame, nullptr, L"Out of memory");
  EERR_FAIL_IF(!DupText(def ? def->name : name, &d->datumname), frame, nullptr, L"Out of memory");
  d->type = def ? def->type : EPRJ_DATUM_NONE;
  if (d->type == EPRJ_DATUM_PARAMETRIC) {
    d->params.data = static_cast<double*>(emsc_HeapCalloc(7, sizeof(double)));
    EERR_FAIL_IF(!d->params.data, frame, nullptr, L"Out of memory");
    d->params.count = 7;
    kzdv::eprj::ShiftToStored(def->shift, d->params.data);
  }
  if (def && def->grid)
    EERR_FAIL_IF(!DupText(def->grid, &d->gridname), frame, nullptr, L"Out of memory");
  return d.release();
}
EERR_BOUNDARY(err, nullptr)

Eprj_Datum* eprj_DatumCopy(const Eprj_Datum* datum, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_DatumCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!datum, frame, nullptr, L"No datum");
  DatumPtr d(NewRecord<Eprj_Datum>());
  EERR_FAIL_IF(!d || !DupText(datum->datumname, &d->datumname) ||
                   !DupText(datum->gridname, &d->gridname) || !CopyArray(datum->params, &d->params),
               frame, nullptr, L"Out of memory");
  d->type = datum->type;
  return d.release();
}
EERR_BOUNDARY(err, nullptr)

void eprj_DatumFree(Eprj_Datum* datum) KZDV_NOEXCEPT {
  if (!datum) return;
  emsc_HeapFree(datum->datumname);
  emsc_HeapFree(datum->params.data);
  emsc_HeapFree(datum->gridname);
  emsc_HeapFree(datum);
}

Emsc_Boolean eprj_DatumShiftGet(const Eprj_Datum* datum, Eprj_RotationConvention convention,
                                Eprj_DatumShift* shift, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_DatumShiftGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(datum, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(shift, frame, EMSC_FALSE);
  EERR_FAIL_IF(
      convention != EPRJ_ROTATION_POSITION_VECTOR && convention != EPRJ_ROTATION_COORDINATE_FRAME,
      frame, EMSC_FALSE, L"Unknown rotation convention %d", static_cast<int>(convention));
  Eprj_DatumShift out{};
  out.convention = convention;
  const bool named_grid = datum->gridname && *datum->gridname;
  double surveyed[7] = {0};
  switch (datum->type) {
    case EPRJ_DATUM_PARAMETRIC: {
      double stored[7] = {0};
      for (int i = 0; i < 7 && i < datum->params.count && datum->params.data; ++i)
        stored[i] = datum->params.data[i];
      kzdv::eprj::ShiftFromStored(stored, surveyed);
      bool zero = true;
      for (double v : surveyed) zero = zero && v == 0.0;
      const kzdv::eprj::DatumDef* def = kzdv::eprj::FindDatum(datum->datumname);
      if (zero && def && def->type == EPRJ_DATUM_PARAMETRIC)
        for (int i = 0; i < 7; ++i) surveyed[i] = def->shift[i];
      for (double v : surveyed)
        EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE,
                     L"Datum \"%s\" has a shift parameter that is not a finite number",
                     datum->datumname ? datum->datumname : L"");
      const bool rotated =
          surveyed[3] != 0 || surveyed[4] != 0 || surveyed[5] != 0 || surveyed[6] != 0;
      const bool moved = surveyed[0] != 0 || surveyed[1] != 0 || surveyed[2] != 0;
      out.kind =
          rotated ? EPRJ_SHIFT_7_PARAMETER : (moved ? EPRJ_SHIFT_3_PARAMETER : EPRJ_SHIFT_NONE);
      break;
    }
    case EPRJ_DATUM_GRID:
      out.kind = EPRJ_SHIFT_GRID;
      break;
    case EPRJ_DATUM_REGRESSION:
      out.kind = named_grid ? EPRJ_SHIFT_GRID : EPRJ_SHIFT_REGRESSION;
      break;
    default:
      out.kind = EPRJ_SHIFT_UNKNOWN;
      break;
  }
  if (out.kind == EPRJ_SHIFT_GRID) {
    EERR_FAIL_IF(!named_grid, frame, EMSC_FALSE, L"Grid datum \"%s\" names no grid",
                 datum->datumname ? datum->datumname : L"");
    out.grids = datum->gridname;
  }
  const double sign = convention == EPRJ_ROTATION_COORDINATE_FRAME ? -1.0 : 1.0;
  out.dx = surveyed[0];
  out.dy = surveyed[1];
  out.dz = surveyed[2];
  out.rx = sign * surveyed[3];
  out.ry = sign * surveyed[4];
  out.rz = sign * surveyed[5];
  out.scale = surveyed[6];
  *shift = out;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eprj_DatumShiftSet(Eprj_Datum* datum, const Eprj_DatumShift* shift,
                                Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_DatumShiftSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(datum, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(shift, frame, EMSC_FALSE);
  EERR_FAIL_IF(shift->convention != EPRJ_ROTATION_POSITION_VECTOR &&
                   shift->convention != EPRJ_ROTATION_COORDINATE_FRAME,
               frame, EMSC_FALSE, L"Unknown rotation convention %d",
               static_cast<int>(shift->convention));
  const double sign = shift->convention == EPRJ_ROTATION_COORDINATE_FRAME ? -1.0 : 1.0;
  double surveyed[7] = {shift->dx,        shift->dy,        shift->dz,   sign * shift->rx,
                        sign * shift->ry, sign * shift->rz, shift->scale};
  Eprj_DatumType type = EPRJ_DATUM_PARAMETRIC;
  switch (shift->kind) {
    case EPRJ_SHIFT_NONE:
      for (double& v : surveyed) v = 0.0;
      break;
    case EPRJ_SHIFT_3_PARAMETER:
      for (int i = 3; i < 7; ++i) surveyed[i] = 0.0;
      break;
    case EPRJ_SHIFT_7_PARAMETER:
      break;
    case EPRJ_SHIFT_GRID:
      type = EPRJ_DATUM_GRID;
      EERR_FAIL_IF(!shift->grids || !*shift->grids, frame, EMSC_FALSE,
                   L"A grid shift needs grid names");
      break;
    case EPRJ_SHIFT_UNKNOWN:
      type = EPRJ_DATUM_NONE;
      break;
    default:
      EERR_FAIL(frame, EMSC_FALSE, L"Datum shift kind %d cannot be set",
                static_cast<int>(shift->kind));
  }
  for (double v : surveyed)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE, L"A shift parameter is not a finite number");
  Etxt_Char* grid = nullptr;
  EERR_FAIL_IF(!DupText(type == EPRJ_DATUM_GRID ? shift->grids : nullptr, &grid), frame, EMSC_FALSE,
               L"Out of memory");
  double* params = nullptr;
  if (type == EPRJ_DATUM_PARAMETRIC) {
    params = static_cast<double*>(emsc_HeapCalloc(7, sizeof(double)));
    if (!params) emsc_HeapFree(grid);
    EERR_FAIL_IF(!params, frame, EMSC_FALSE, L"Out of memory");
    kzdv::eprj::ShiftToStored(surveyed, params);
  }
  emsc_HeapFree(datum->params.data);
  emsc_HeapFree(datum->gridname);
  datum->params.data = params;
  datum->params.count = params ? 7 : 0;
  datum->gridname = grid;
  datum->type = type;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

// ------------------------------------------------------ projection parameters

Eprj_ProParameters* eprj_ProParametersCreate(long proNumber, const Etxt_Char* proName, long proZone,
                                             const double* params, const Etxt_Char* spheroidName,
                                             const Etxt_Char* datumName,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersCreate";
  kzdv::ErrorFrame frame(kFn, err);
  ProPtr p(NewRecord<Eprj_ProParameters>());
  EERR_FAIL_IF(!p, frame, nullptr, L"Out of memory");
  p->proType = EPRJ_INTERNAL;
  p->proNumber = proNumber;
  p->proZone = proZone;
  EERR_FAIL_IF(!DupText(proName ? proName : L"", &p->proName), frame, nullptr, L"Out of memory");
  p->proParams.data = static_cast<double*>(emsc_HeapCalloc(EPRJ_PARAMETER_COUNT, sizeof(double)));
  EERR_FAIL_IF(!p->proParams.data, frame, nullptr, L"Out of memory");
  p->proParams.count = EPRJ_PARAMETER_COUNT;
  if (params) std::memcpy(p->proParams.data, params, sizeof(double) * EPRJ_PARAMETER_COUNT);
  if (spheroidName) {
    p->proSpheroid = eprj_SpheroidCreateByName(spheroidName, frame.Callee());
    EERR_CHECK(p->proSpheroid, frame, nullptr, L"eprj_SpheroidCreateByName failed");
  }
  if (datumName) {
    EERR_FAIL_IF(!p->proSpheroid, frame, nullptr, L"A datum needs a spheroid");
    p->proSpheroid->datum = eprj_DatumCreateByName(datumName, frame.Callee());
    EERR_CHECK(p->proSpheroid->datum, frame, nullptr, L"eprj_DatumCreateByName failed");
  }
  return p.release();
}
EERR_BOUNDARY(err, nullptr)

Eprj_ProParameters* eprj_ProParametersCopy(const Eprj_ProParameters* source,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!source, frame, nullptr, L"No projection parameters");
  ProPtr p(NewRecord<Eprj_ProParameters>());
  EERR_FAIL_IF(!p || !DupText(source->proExeName, &p->proExeName) ||
                   !DupText(source->proName, &p->proName) ||
                   !CopyArray(source->proParams, &p->proParams),
               frame, nullptr, L"Out of memory");
  p->proType = source->proType;
  p->proNumber = source->proNumber;
  p->proZone = source->proZone;
  if (source->proSpheroid) {
    p->proSpheroid = eprj_SpheroidCopy(source->proSpheroid, frame.Callee());
    EERR_CHECK(p->proSpheroid, frame, nullptr, L"eprj_SpheroidCopy failed");
  }
  return p.release();
}
EERR_BOUNDARY(err, nullptr)

void eprj_ProParametersFree(Eprj_ProParameters* parameters) KZDV_NOEXCEPT {
  if (!parameters) return;
  emsc_HeapFree(parameters->proExeName);
  emsc_HeapFree(parameters->proName);
  emsc_HeapFree(parameters->proParams.data);
  eprj_SpheroidFree(parameters->proSpheroid);
  emsc_HeapFree(parameters);
}

Emsc_Boolean eprj_ProParametersEqual(const Eprj_ProParameters* a, const Eprj_ProParameters* b,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersEqual";
  kzdv::ErrorFrame frame(kFn, err);
  if (a == b) return EMSC_TRUE;
  if (!a || !b) return EMSC_FALSE;
  if (a->proType != b->proType || a->proNumber != b->proNumber || a->proZone != b->proZone)
    return EMSC_FALSE;
  if (a->proType == EPRJ_EXTERNAL && !estr_Eqic(a->proExeName, b->proExeName)) return EMSC_FALSE;
  // Missing trailing parameters count as zeros.
  const int n = std::max(a->proParams.count, b->proParams.count);
  for (int i = 0; i < n; ++i) {
    const double va = i < a->proParams.count && a->proParams.data ? a->proParams.data[i] : 0.0;
    const double vb = i < b->proParams.count && b->proParams.data ? b->proParams.data[i] : 0.0;
    if (!Near(va, vb, 1e-10)) return EMSC_FALSE;
  }
  const Eprj_Spheroid* sa = a->proSpheroid;
  const Eprj_Spheroid* sb = b->proSpheroid;
  if (!sa || !sb) return sa == sb ? EMSC_TRUE : EMSC_FALSE;
  if (!Near(sa->a, sb->a, 1e-6) || !Near(sa->b, sb->b, 1e-6)) return EMSC_FALSE;
  const Etxt_Char* da = sa->datum ? sa->datum->datumname : nullptr;
  const Etxt_Char* db = sb->datum ? sb->datum->datumname : nullptr;
  if ((da || db) && !estr_Eqic(da ? da : L"", db ? db : L"")) return EMSC_FALSE;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

// ------------------------------------------------------------ elevation info

Eprj_ElevationInfo* eprj_ElevationInfoCreateByName(const Etxt_Char* spheroidName,
                                                   const Etxt_Char* datumName,
                                                   const Etxt_Char* elevationUnit,
                                                   const Etxt_Char* elevationType,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoCreateByName";
  kzdv::ErrorFrame frame(kFn, err);
  ElevPtr e(NewRecord<Eprj_ElevationInfo>());
  EERR_FAIL_IF(!e || !DupText(spheroidName ? spheroidName : L"Undefined", &e->spheroidName) ||
                   !DupText(datumName ? datumName : L"Undefined", &e->datumName) ||
                   !DupText(elevationUnit ? elevationUnit : L"meters", &e->elevationUnit) ||
                   !DupText(elevationType ? elevationType : L"unknown", &e->elevationType),
               frame, nullptr, L"Out of memory");
  return e.release();
}
EERR_BOUNDARY(err, nullptr)

Eprj_ElevationInfo* eprj_ElevationInfoCopy(const Eprj_ElevationInfo* info,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!info, frame, nullptr, L"No elevation info");
  ElevPtr e(NewRecord<Eprj_ElevationInfo>());
  EERR_FAIL_IF(!e || !DupText(info->spheroidName, &e->spheroidName) ||
                   !DupText(info->datumName, &e->datumName) ||
                   !DupText(info->elevationUnit, &e->elevationUnit) ||
                   !DupText(info->elevationType, &e->elevationType),
               frame, nullptr, L"Out of memory");
  return e.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_ElevationInfoUnitSet(Eprj_ElevationInfo* info, const Etxt_Char* unit,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoUnitSet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(info, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(unit, frame, EMSC_FALSE);
  bool known = false;
  for (const wchar_t* u : kLinearUnits) known = known || estr_Eqic(u, unit);
  EERR_FAIL_IF(!known, frame, EMSC_FALSE, L"Unknown elevation unit \"%s\"", unit);
  Etxt_Char* copy = estr_Duplicate(unit);
  EERR_FAIL_IF(!copy, frame, EMSC_FALSE, L"Out of memory");
  emsc_HeapFree(info->elevationUnit);
  info->elevationUnit = copy;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void eprj_ElevationInfoFree(Eprj_ElevationInfo* info) KZDV_NOEXCEPT {
  if (!info) return;
  emsc_HeapFree(info->spheroidName);
  emsc_HeapFree(info->datumName);
  emsc_HeapFree(info->elevationUnit);
  emsc_HeapFree(info->elevationType);
  emsc_HeapFree(info);
}

Emsc_Boolean eprj_IsDatumVertical(const Etxt_Char* datumName) KZDV_NOEXCEPT {
  static const wchar_t* const kVertical[] = {L"EGM96",
                                             L"EGM2008",
                                             L"EGM84",
                                             L"EGM96 geoid",
                                             L"EGM2008 geoid",
                                             L"NAVD88",
                                             L"North American Vertical Datum 1988",
                                             L"NGVD29",
                                             L"National Geodetic Vertical Datum 1929",
                                             L"Mean Sea Level",
                                             L"MSL",
                                             L"DHHN92",
                                             L"DHHN2016",
                                             L"ODN",
                                             L"Ordnance Datum Newlyn",
                                             L"NAP",
                                             L"Normaal Amsterdams Peil",
                                             L"AHD",
                                             L"Australian Height Datum",
                                             L"CGVD2013",
                                             L"Geoid"};
  if (!datumName) return EMSC_FALSE;
  for (const wchar_t* v : kVertical)
    if (estr_Eqic(v, datumName)) return EMSC_TRUE;
  return EMSC_FALSE;
}

}  // extern "C"
