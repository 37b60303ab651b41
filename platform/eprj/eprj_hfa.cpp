// Projection parameters, datums, map info and elevation info in HFA files and
// in MIF form. The designs are the ones GDAL's HFA driver uses, so that what
// we write GDAL reads and the other way round; a layer keeps its parameters in
// a child "Projection" (with a child "Datum") and its map info in "Map_Info",
// a block file keeps them at the root as "Eprj_ProParameters".
#include "eprj_hfa.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ehfa.h"
#include "emif.h"
#include "eprj.h"
#include "exfr.h"
#include "platform/eerr/error_frame.h"
#include "platform/eprj/eprj_internal.h"
#include "platform/estr/utf8.h"

namespace {

// The designs as GDAL's HFA driver defines them, plus our elevation info.
const char kDesignText[] =
    "{0:pcsphereName,1:da,1:db,1:deSquared,1:dradius,}Eprj_Spheroid,"
    "{1:e2:EPRJ_INTERNAL,EPRJ_EXTERNAL,proType,1:lproNumber,0:pcproExeName,0:pcproName,"
    "1:lproZone,0:pdproParams,1:*oEprj_Spheroid,proSpheroid,}Eprj_ProParameters,"
    "{0:pcdatumname,1:e3:EPRJ_DATUM_PARAMETRIC,EPRJ_DATUM_GRID,EPRJ_DATUM_REGRESSION,type,"
    "0:pdparams,0:pcgridname,}Eprj_Datum,"
    "{1:dx,1:dy,}Eprj_Coordinate,"
    "{1:dwidth,1:dheight,}Eprj_Size,"
    "{0:pcproName,1:*oEprj_Coordinate,upperLeftCenter,1:*oEprj_Coordinate,lowerRightCenter,"
    "1:*oEprj_Size,pixelSize,0:pcunits,}Eprj_MapInfo,"
    "{0:pcspheroidName,0:pcdatumName,0:pcelevationUnit,0:pcelevationType,}Eprj_ElevationInfo,"
    ".";

// Memory records of those designs (checked against the design at first use).
struct MifSpheroid {
  Emif_CountedString sphereName;
  double a, b, eSquared, radius;
};
struct MifProParameters {
  int32_t proType;
  uint32_t proNumber;
  Emif_CountedString proExeName;
  Emif_CountedString proName;
  uint32_t proZone;
  Emif_CountedDoubles proParams;
  MifSpheroid* proSpheroid;
};
struct MifDatum {
  Emif_CountedString datumname;
  int32_t type;
  Emif_CountedDoubles params;
  Emif_CountedString gridname;
};
struct MifCoordinate {
  double x, y;
};
struct MifSize {
  double width, height;
};
struct MifMapInfo {
  Emif_CountedString proName;
  MifCoordinate* upperLeftCenter;
  MifCoordinate* lowerRightCenter;
  MifSize* pixelSize;
  Emif_CountedString units;
};
struct MifElevationInfo {
  Emif_CountedString spheroidName, datumName, elevationUnit, elevationType;
};

struct Designs {
  Emif_Dictionary* dictionary = nullptr;
  const Emif_Design* spheroid = nullptr;
  const Emif_Design* pro = nullptr;
  const Emif_Design* datum = nullptr;
  const Emif_Design* mapinfo = nullptr;
  const Emif_Design* elevation = nullptr;
  std::wstring fault;  // why the designs are unusable, empty when fine
};

bool FieldAt(const Emif_Design* d, const wchar_t* name, size_t offset) {
  Emif_FieldInfo f;
  return emif_DesignFieldFind(d, name, &f) && f.offset == offset;
}

// Built once; immutable afterwards, so threads may share it.
const Designs& TheDesigns() {
  static const Designs designs = [] {
    Designs d;
    Eerr_ErrorReport* err = nullptr;
    d.dictionary = emif_DictionaryFromText(kDesignText, sizeof kDesignText, &err);
    if (!d.dictionary) {
      d.fault = L"The projection designs could not be made: " + kzdv::ReportText(err);
      eerr_DeleteErrorReport(err);
      return d;
    }
    d.spheroid = emif_FindDesignByName(d.dictionary, L"Eprj_Spheroid");
    d.pro = emif_FindDesignByName(d.dictionary, L"Eprj_ProParameters");
    d.datum = emif_FindDesignByName(d.dictionary, L"Eprj_Datum");
    d.mapinfo = emif_FindDesignByName(d.dictionary, L"Eprj_MapInfo");
    d.elevation = emif_FindDesignByName(d.dictionary, L"Eprj_ElevationInfo");
    const bool layout = d.spheroid && d.pro && d.datum && d.mapinfo && d.elevation &&
                        emif_DesignSizeGet(d.spheroid) == sizeof(MifSpheroid) &&
                        emif_DesignSizeGet(d.pro) == sizeof(MifProParameters) &&
                        emif_DesignSizeGet(d.datum) == sizeof(MifDatum) &&
                        emif_DesignSizeGet(d.mapinfo) == sizeof(MifMapInfo) &&
                        emif_DesignSizeGet(d.elevation) == sizeof(MifElevationInfo) &&
                        FieldAt(d.pro, L"proParams", offsetof(MifProParameters, proParams)) &&
                        FieldAt(d.pro, L"proSpheroid", offsetof(MifProParameters, proSpheroid)) &&
                        FieldAt(d.pro, L"proZone", offsetof(MifProParameters, proZone)) &&
                        FieldAt(d.spheroid, L"radius", offsetof(MifSpheroid, radius)) &&
                        FieldAt(d.datum, L"gridname", offsetof(MifDatum, gridname)) &&
                        FieldAt(d.mapinfo, L"units", offsetof(MifMapInfo, units));
    if (!layout) d.fault = L"The projection designs do not have the expected memory layout";
    return d;
  }();
  return designs;
}

bool DesignsReady(kzdv::ErrorFrame& frame) {
  const Designs& d = TheDesigns();
  if (d.fault.empty()) return true;
  frame.Fail(__LINE__, L"%ls", d.fault.c_str());
  return false;
}

// ---- reading fields by name from a record of whatever design a file has.

template <typename T>
const T* At(const void* obj, const Emif_FieldInfo& f) {
  return reinterpret_cast<const T*>(static_cast<const unsigned char*>(obj) + f.offset);
}

bool Field(const Emif_Design* d, const wchar_t* name, Emif_FieldInfo* f) {
  return d && emif_DesignFieldFind(d, name, f);
}

long GetLong(const Emif_Design* d, const void* obj, const wchar_t* name, long dflt = 0) {
  Emif_FieldInfo f;
  if (!Field(d, name, &f)) return dflt;
  switch (f.code & 0xff) {
    case EMIF_T_ENUM:
    case EMIF_T_LONG:
      return *At<int32_t>(obj, f);
    case EMIF_T_ULONG:
      return static_cast<long>(*At<uint32_t>(obj, f));
    case EMIF_T_SHORT:
      return *At<int16_t>(obj, f);
    case EMIF_T_USHORT:
      return *At<uint16_t>(obj, f);
    default:
      return dflt;
  }
}

double GetDouble(const Emif_Design* d, const void* obj, const wchar_t* name) {
  Emif_FieldInfo f;
  if (!Field(d, name, &f)) return 0.0;
  if (f.code == EMIF_T_DOUBLE) return *At<double>(obj, f);
  if (f.code == EMIF_T_FLOAT) return *At<float>(obj, f);
  return 0.0;
}

// A string field; `present` tells a missing or empty string from "".
const Etxt_Char* GetString(const Emif_Design* d, const void* obj, const wchar_t* name) {
  Emif_FieldInfo f;
  if (!Field(d, name, &f) || f.code != EMIF_T_STRING) return nullptr;
  const Emif_CountedString* s = At<Emif_CountedString>(obj, f);
  return s->count > 0 ? s->data : nullptr;
}

std::vector<double> GetDoubles(const Emif_Design* d, const void* obj, const wchar_t* name) {
  Emif_FieldInfo f;
  if (!Field(d, name, &f) || f.code != EMIF_T_DOUBLE_ARRAY) return {};
  const Emif_CountedDoubles* a = At<Emif_CountedDoubles>(obj, f);
  if (a->count <= 0 || !a->data) return {};
  return std::vector<double>(a->data, a->data + a->count);
}

// An object field held by pointer: the record and its design.
const void* GetObject(const Emif_Design* d, const void* obj, const wchar_t* name,
                      const Emif_Design** sub) {
  Emif_FieldInfo f;
  if (!Field(d, name, &f) || !f.design) return nullptr;
  const int base = f.code & 0xff;
  if (base != EMIF_T_OBJECT_PTR && base != EMIF_T_OBJECT) return nullptr;
  *sub = f.design;
  if (f.code == EMIF_T_OBJECT) return At<unsigned char>(obj, f);  // in place
  return *At<void*>(obj, f);
}

// ---- writing our designs' records.

bool SetString(Emif_CountedString* s, const Etxt_Char* text) {
  s->count = 0;
  s->data = nullptr;
  if (!text) return true;
  s->data = estr_Duplicate(text);
  if (!s->data) return false;
  s->count = static_cast<int32_t>(std::wcslen(text) + 1);
  return true;
}

struct MifObject {
  const Emif_Design* design;
  void* object;
  ~MifObject() {
    if (object) emif_ObjectFree(design, object, nullptr);
  }
  void* release() {
    void* o = object;
    object = nullptr;
    return o;
  }
};

// Our parameters as a record of the Eprj_ProParameters design.
void* ProToMif(const Eprj_ProParameters& p, kzdv::ErrorFrame& frame) {
  const Designs& d = TheDesigns();
  MifObject rec{d.pro, emif_ObjectCreate(d.pro, frame.Callee())};
  if (!rec.object || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"emif_ObjectCreate failed");
    return nullptr;
  }
  auto* m = static_cast<MifProParameters*>(rec.object);
  m->proType = p.proType;
  m->proNumber = static_cast<uint32_t>(p.proNumber);
  m->proZone = static_cast<uint32_t>(p.proZone);
  bool ok = SetString(&m->proExeName, p.proExeName) &&
            SetString(&m->proName, p.proName ? p.proName : L"");
  if (ok && p.proParams.count > 0 && p.proParams.data) {
    m->proParams.data =
        static_cast<double*>(emsc_MemDup(p.proParams.data, sizeof(double) * p.proParams.count));
    ok = m->proParams.data != nullptr;
    if (ok) m->proParams.count = p.proParams.count;
  }
  if (ok && p.proSpheroid) {
    m->proSpheroid = static_cast<MifSpheroid*>(emif_ObjectCreate(d.spheroid, frame.Callee()));
    ok = m->proSpheroid && !frame.CalleeFailed();
    if (ok) {
      const Eprj_Spheroid& s = *p.proSpheroid;
      ok = SetString(&m->proSpheroid->sphereName, s.sphereName ? s.sphereName : L"");
      m->proSpheroid->a = s.a;
      m->proSpheroid->b = s.b;
      m->proSpheroid->eSquared = s.eSquared;
      m->proSpheroid->radius = s.radius;
    }
  }
  if (!ok) {
    frame.Fail(__LINE__, L"Out of memory");
    return nullptr;
  }
  return rec.release();
}

void* DatumToMif(const Eprj_Datum& datum, kzdv::ErrorFrame& frame) {
  const Designs& d = TheDesigns();
  MifObject rec{d.datum, emif_ObjectCreate(d.datum, frame.Callee())};
  if (!rec.object || frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"emif_ObjectCreate failed");
    return nullptr;
  }
  auto* m = static_cast<MifDatum*>(rec.object);
  // The stored enumeration has no "none": such datums are stored parametric
  // with zero shifts, which is what they amount to.
  m->type = datum.type == EPRJ_DATUM_NONE ? EPRJ_DATUM_PARAMETRIC : datum.type;
  bool ok = SetString(&m->datumname, datum.datumname ? datum.datumname : L"") &&
            SetString(&m->gridname, datum.gridname);
  if (ok && datum.params.count > 0 && datum.params.data) {
    m->params.data =
        static_cast<double*>(emsc_MemDup(datum.params.data, sizeof(double) * datum.params.count));
    ok = m->params.data != nullptr;
    if (ok) m->params.count = datum.params.count;
  }
  if (!ok) {
    frame.Fail(__LINE__, L"Out of memory");
    return nullptr;
  }
  return rec.release();
}

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};
using ProPtr = std::unique_ptr<Eprj_ProParameters, ProDeleter>;

bool Dup(const Etxt_Char* s, Etxt_Char** out) {
  *out = nullptr;
  if (!s) return true;
  *out = estr_Duplicate(s);
  return *out != nullptr;
}

// A record of a file's Eprj_ProParameters design (fields found by name) as
// our parameters; `datum` (may be null) is a record of its Eprj_Datum.
Eprj_ProParameters* ProFromMif(const Emif_Design* d, const void* obj, const Emif_Design* dd,
                               const void* datum, kzdv::ErrorFrame& frame) {
  ProPtr p(static_cast<Eprj_ProParameters*>(emsc_HeapCalloc(1, sizeof(Eprj_ProParameters))));
  if (!p) {
    frame.Fail(__LINE__, L"Out of memory");
    return nullptr;
  }
  p->proType = GetLong(d, obj, L"proType") == 1 ? EPRJ_EXTERNAL : EPRJ_INTERNAL;
  p->proNumber = GetLong(d, obj, L"proNumber");
  p->proZone = GetLong(d, obj, L"proZone");
  bool ok = Dup(GetString(d, obj, L"proExeName"), &p->proExeName) &&
            Dup(GetString(d, obj, L"proName"), &p->proName);
  const std::vector<double> params = GetDoubles(d, obj, L"proParams");
  if (ok && !params.empty()) {
    p->proParams.data =
        static_cast<double*>(emsc_MemDup(params.data(), sizeof(double) * params.size()));
    ok = p->proParams.data != nullptr;
    if (ok) p->proParams.count = static_cast<int>(params.size());
  }
  const Emif_Design* sd = nullptr;
  const void* so = ok ? GetObject(d, obj, L"proSpheroid", &sd) : nullptr;
  if (so) {
    p->proSpheroid = static_cast<Eprj_Spheroid*>(emsc_HeapCalloc(1, sizeof(Eprj_Spheroid)));
    ok = p->proSpheroid && Dup(GetString(sd, so, L"sphereName"), &p->proSpheroid->sphereName);
    if (ok) {
      p->proSpheroid->a = GetDouble(sd, so, L"a");
      p->proSpheroid->b = GetDouble(sd, so, L"b");
      p->proSpheroid->eSquared = GetDouble(sd, so, L"eSquared");
      p->proSpheroid->radius = GetDouble(sd, so, L"radius");
    }
  }
  if (ok && datum && p->proSpheroid) {
    Eprj_Datum* dt = static_cast<Eprj_Datum*>(emsc_HeapCalloc(1, sizeof(Eprj_Datum)));
    p->proSpheroid->datum = dt;
    ok = dt && Dup(GetString(dd, datum, L"datumname"), &dt->datumname) &&
         Dup(GetString(dd, datum, L"gridname"), &dt->gridname);
    if (ok) {
      const long t = GetLong(dd, datum, L"type");
      dt->type = t >= 0 && t <= 3 ? static_cast<Eprj_DatumType>(t) : EPRJ_DATUM_NONE;
      const std::vector<double> dp = GetDoubles(dd, datum, L"params");
      if (!dp.empty()) {
        dt->params.data = static_cast<double*>(emsc_MemDup(dp.data(), sizeof(double) * dp.size()));
        ok = dt->params.data != nullptr;
        if (ok) dt->params.count = static_cast<int>(dp.size());
      }
    }
  }
  if (!ok) {
    frame.Fail(__LINE__, L"Out of memory");
    return nullptr;
  }
  return p.release();
}

// Name of the first child of `path` whose type is `type`, or empty.
std::wstring ChildOfType(Ehfa_File* file, const Etxt_Char* path, const char* type,
                         kzdv::ErrorFrame& frame) {
  if (!ehfa_EntrySeekIfPresent(file, EHFA_SEEK_INTO, path, nullptr, frame.Callee())) {
    frame.Tolerate();
    return L"";
  }
  if (!ehfa_EntrySeekIfPresent(file, EHFA_SEEK_FIRST_CHILD, nullptr, nullptr, frame.Callee())) {
    frame.Tolerate();
    return L"";
  }
  for (;;) {
    Ehfa_EntryInfo info;
    if (!ehfa_EntryInfoGet(file, &info, frame.Callee())) {
      frame.Tolerate();
      return L"";
    }
    if (info.type && std::strcmp(info.type, type) == 0) return kzdv::FromUtf8(info.name);
    if (!ehfa_EntrySeekIfPresent(file, EHFA_SEEK_NEXT_SIBLING, nullptr, nullptr, frame.Callee())) {
      frame.Tolerate();
      return L"";
    }
  }
}

std::wstring JoinPath(const Etxt_Char* path, const std::wstring& name) {
  std::wstring p = path && *path ? path : L":";
  if (p.back() != L':') p += L':';
  return p + name;
}

}  // namespace

extern "C" {

Eprj_ProParameters* eprj_ProParametersRead(Ehfa_File* file, const Etxt_Char* path,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file, frame, nullptr, L"No file");
  const Etxt_Char* at = path && *path ? path : L":";
  const std::wstring name = ChildOfType(file, at, "Eprj_ProParameters", frame);
  EERR_FAIL_IF(name.empty(), frame, nullptr, L"No projection parameters under %s", at);
  const Emif_Design* d = nullptr;
  void* obj = nullptr;
  EERR_CHECK(ehfa_ObjectRead(file, EHFA_SEEK_BY_NAME, at, name.c_str(), &d, &obj, frame.Callee()),
             frame, nullptr, L"ehfa_ObjectRead failed");
  MifObject hold{d, obj};
  // The datum is a child of the parameters node.
  const std::wstring pro_path = JoinPath(at, name);
  const std::wstring dname = ChildOfType(file, pro_path.c_str(), "Eprj_Datum", frame);
  const Emif_Design* dd = nullptr;
  void* dobj = nullptr;
  if (!dname.empty())
    EERR_CHECK(ehfa_ObjectRead(file, EHFA_SEEK_BY_NAME, pro_path.c_str(), dname.c_str(), &dd, &dobj,
                               frame.Callee()),
               frame, nullptr, L"ehfa_ObjectRead failed");
  MifObject dhold{dd, dobj};
  return ProFromMif(d, obj, dd, dobj, frame);
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_ProParametersWrite(Ehfa_File* file, const Etxt_Char* path, const Etxt_Char* name,
                                     const Eprj_ProParameters* parameters,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersWrite";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(parameters, frame, EMSC_FALSE);
  if (!DesignsReady(frame)) return EMSC_FALSE;
  const Etxt_Char* at = path && *path ? path : L":";
  const Etxt_Char* node = name && *name ? name : L"Eprj_ProParameters";
  const Designs& d = TheDesigns();
  MifObject rec{d.pro, ProToMif(*parameters, frame)};
  if (!rec.object) return EMSC_FALSE;
  EERR_CHECK(
      ehfa_ObjectWrite(file, at, node, EHFA_WRITE_REPLACE, d.pro, rec.object, frame.Callee()),
      frame, EMSC_FALSE, L"ehfa_ObjectWrite failed");
  const Eprj_Datum* datum = parameters->proSpheroid ? parameters->proSpheroid->datum : nullptr;
  if (datum) {
    MifObject drec{d.datum, DatumToMif(*datum, frame)};
    if (!drec.object) return EMSC_FALSE;
    const std::wstring pro_path = JoinPath(at, node);
    EERR_CHECK(ehfa_ObjectWrite(file, pro_path.c_str(), L"Datum", EHFA_WRITE_REPLACE, d.datum,
                                drec.object, frame.Callee()),
               frame, EMSC_FALSE, L"ehfa_ObjectWrite failed");
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Eprj_MapInfo* eprj_MapInfoRead(Ehfa_File* file, const Etxt_Char* path,
                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_MapInfoRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file, frame, nullptr, L"No file");
  const Etxt_Char* at = path && *path ? path : L":";
  const std::wstring name = ChildOfType(file, at, "Eprj_MapInfo", frame);
  EERR_FAIL_IF(name.empty(), frame, nullptr, L"No map info under %s", at);
  const Emif_Design* d = nullptr;
  void* obj = nullptr;
  EERR_CHECK(ehfa_ObjectRead(file, EHFA_SEEK_BY_NAME, at, name.c_str(), &d, &obj, frame.Callee()),
             frame, nullptr, L"ehfa_ObjectRead failed");
  MifObject hold{d, obj};
  auto* m = static_cast<Eprj_MapInfo*>(emsc_HeapCalloc(1, sizeof(Eprj_MapInfo)));
  EERR_FAIL_IF(!m, frame, nullptr, L"Out of memory");
  std::unique_ptr<Eprj_MapInfo, void (*)(Eprj_MapInfo*)> out(m, eprj_MapInfoFree);
  EERR_FAIL_IF(!Dup(GetString(d, obj, L"proName"), &m->proName) ||
                   !Dup(GetString(d, obj, L"units"), &m->units),
               frame, nullptr, L"Out of memory");
  const Emif_Design* sd = nullptr;
  if (const void* ul = GetObject(d, obj, L"upperLeftCenter", &sd))
    m->upperLeftCenter = {GetDouble(sd, ul, L"x"), GetDouble(sd, ul, L"y")};
  if (const void* lr = GetObject(d, obj, L"lowerRightCenter", &sd))
    m->lowerRightCenter = {GetDouble(sd, lr, L"x"), GetDouble(sd, lr, L"y")};
  if (const void* px = GetObject(d, obj, L"pixelSize", &sd))
    m->pixelSize = {GetDouble(sd, px, L"width"), GetDouble(sd, px, L"height")};
  return out.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_MapInfoWrite(Ehfa_File* file, const Etxt_Char* path, const Eprj_MapInfo* info,
                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_MapInfoWrite";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(info, frame, EMSC_FALSE);
  if (!DesignsReady(frame)) return EMSC_FALSE;
  const Designs& d = TheDesigns();
  MifObject rec{d.mapinfo, emif_ObjectCreate(d.mapinfo, frame.Callee())};
  EERR_CHECK(rec.object, frame, EMSC_FALSE, L"emif_ObjectCreate failed");
  auto* m = static_cast<MifMapInfo*>(rec.object);
  m->upperLeftCenter = static_cast<MifCoordinate*>(emsc_HeapMalloc(sizeof(MifCoordinate)));
  m->lowerRightCenter = static_cast<MifCoordinate*>(emsc_HeapMalloc(sizeof(MifCoordinate)));
  m->pixelSize = static_cast<MifSize*>(emsc_HeapMalloc(sizeof(MifSize)));
  EERR_FAIL_IF(!m->upperLeftCenter || !m->lowerRightCenter || !m->pixelSize ||
                   !SetString(&m->proName, info->proName ? info->proName : L"") ||
                   !SetString(&m->units, info->units ? info->units : L"meters"),
               frame, EMSC_FALSE, L"Out of memory");
  *m->upperLeftCenter = {info->upperLeftCenter.x, info->upperLeftCenter.y};
  *m->lowerRightCenter = {info->lowerRightCenter.x, info->lowerRightCenter.y};
  *m->pixelSize = {info->pixelSize.width, info->pixelSize.height};
  EERR_CHECK(ehfa_ObjectWrite(file, path && *path ? path : L":", L"Map_Info", EHFA_WRITE_REPLACE,
                              d.mapinfo, rec.object, frame.Callee()),
             frame, EMSC_FALSE, L"ehfa_ObjectWrite failed");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Exfr_XForm* eprj_MapInfoToFileXForm(const Eprj_MapInfo* info, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eprj_MapInfoToFileXForm";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!info, frame, nullptr, L"No map info");
  const double w = info->pixelSize.width, h = info->pixelSize.height;
  EERR_FAIL_IF(!std::isfinite(w) || !std::isfinite(h) || w == 0.0 || h == 0.0 ||
                   !std::isfinite(info->upperLeftCenter.x) ||
                   !std::isfinite(info->upperLeftCenter.y),
               frame, nullptr, L"Map info with pixel size %g x %g cannot address pixels", w, h);
  // Map y grows north, rows grow south; the pixel size is positive.
  const double x0 = info->upperLeftCenter.x - 0.5 * std::fabs(w);
  const double y0 = info->upperLeftCenter.y + 0.5 * std::fabs(h);
  const double c[6] = {1.0 / std::fabs(w), 0.0, -x0 / std::fabs(w), 0.0, -1.0 / std::fabs(h),
                       y0 / std::fabs(h)};
  Exfr_XForm* x = exfr_AffineXFormCreate(c, frame.Callee());
  EERR_CHECK(x, frame, nullptr, L"exfr_AffineXFormCreate failed");
  return x;
}
EERR_BOUNDARY(err, nullptr)

void eprj_MapInfoFree(Eprj_MapInfo* info) KZDV_NOEXCEPT {
  if (!info) return;
  emsc_HeapFree(info->proName);
  emsc_HeapFree(info->units);
  emsc_HeapFree(info);
}

Emsc_Boolean eprj_ProjectionConvertToMIFable(Emif_Dictionary* dictionary,
                                             const Eprj_MapProjection* projection,
                                             Emif_Design** design, void** object,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionConvertToMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  if (!DesignsReady(frame)) return EMSC_FALSE;
  const Designs& d = TheDesigns();
  if (dictionary)
    EERR_CHECK(emif_DictionaryAddDesign(dictionary, d.pro, frame.Callee()), frame, EMSC_FALSE,
               L"emif_DictionaryAddDesign failed");
  if (!projection) return EMSC_TRUE;
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(projection->proParameters, frame, EMSC_FALSE);
  MifObject rec{d.pro, ProToMif(*projection->proParameters, frame)};
  if (!rec.object) return EMSC_FALSE;
  Emif_Design* copy = emif_DesignCopy(d.pro, frame.Callee());
  EERR_CHECK(copy, frame, EMSC_FALSE, L"emif_DesignCopy failed");
  *design = copy;
  *object = rec.release();
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Eprj_MapProjection* eprj_ProjectionConvertFromMIFable(const Emif_Design* design, const void* object,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionConvertFromMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  EERR_FAIL_IF_NULL(object, frame, nullptr);
  EERR_FAIL_IF(!estr_Eqic(emif_DesignNameGet(design), L"Eprj_ProParameters"), frame, nullptr,
               L"A projection in MIF form has the design Eprj_ProParameters, not %s",
               emif_DesignNameGet(design));
  ProPtr p(ProFromMif(design, object, nullptr, nullptr, frame));
  if (!p) return nullptr;
  Eprj_MapProjection* proj = eprj_ProjectionInit(p.get(), frame.Callee());
  EERR_CHECK(proj, frame, nullptr, L"eprj_ProjectionInit failed");
  return proj;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_ElevationInfoConvertToMIFable(const Eprj_ElevationInfo* info,
                                                Emif_Design** design, void** object,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoConvertToMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(info, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  if (!DesignsReady(frame)) return EMSC_FALSE;
  const Designs& d = TheDesigns();
  MifObject rec{d.elevation, emif_ObjectCreate(d.elevation, frame.Callee())};
  EERR_CHECK(rec.object, frame, EMSC_FALSE, L"emif_ObjectCreate failed");
  auto* m = static_cast<MifElevationInfo*>(rec.object);
  EERR_FAIL_IF(!SetString(&m->spheroidName, info->spheroidName) ||
                   !SetString(&m->datumName, info->datumName) ||
                   !SetString(&m->elevationUnit, info->elevationUnit) ||
                   !SetString(&m->elevationType, info->elevationType),
               frame, EMSC_FALSE, L"Out of memory");
  Emif_Design* copy = emif_DesignCopy(d.elevation, frame.Callee());
  EERR_CHECK(copy, frame, EMSC_FALSE, L"emif_DesignCopy failed");
  *design = copy;
  *object = rec.release();
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Eprj_ElevationInfo* eprj_ElevationInfoConvertFromMIFable(const Emif_Design* design,
                                                         const void* object,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoConvertFromMIFable";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  EERR_FAIL_IF_NULL(object, frame, nullptr);
  EERR_FAIL_IF(!estr_Eqic(emif_DesignNameGet(design), L"Eprj_ElevationInfo"), frame, nullptr,
               L"An elevation info in MIF form has the design Eprj_ElevationInfo, not %s",
               emif_DesignNameGet(design));
  Eprj_ElevationInfo* e = eprj_ElevationInfoCreateByName(
      GetString(design, object, L"spheroidName"), GetString(design, object, L"datumName"),
      GetString(design, object, L"elevationUnit"), GetString(design, object, L"elevationType"),
      frame.Callee());
  EERR_CHECK(e, frame, nullptr, L"eprj_ElevationInfoCreateByName failed");
  return e;
}
EERR_BOUNDARY(err, nullptr)

Eprj_ElevationInfo* eprj_ElevationInfoHfaRead(Ehfa_File* file, const Etxt_Char* path,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoHfaRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file, frame, nullptr, L"No file");
  const Etxt_Char* at = path && *path ? path : L":";
  const std::wstring name = ChildOfType(file, at, "Eprj_ElevationInfo", frame);
  EERR_FAIL_IF(name.empty(), frame, nullptr, L"No elevation info under %s", at);
  const Emif_Design* d = nullptr;
  void* obj = nullptr;
  EERR_CHECK(ehfa_ObjectRead(file, EHFA_SEEK_BY_NAME, at, name.c_str(), &d, &obj, frame.Callee()),
             frame, nullptr, L"ehfa_ObjectRead failed");
  MifObject hold{d, obj};
  Eprj_ElevationInfo* e = eprj_ElevationInfoConvertFromMIFable(d, obj, frame.Callee());
  EERR_CHECK(e, frame, nullptr, L"eprj_ElevationInfoConvertFromMIFable failed");
  return e;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_ElevationInfoHfaWrite(Ehfa_File* file, const Etxt_Char* path,
                                        const Eprj_ElevationInfo* info,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoHfaWrite";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(info, frame, EMSC_FALSE);
  Emif_Design* d = nullptr;
  void* obj = nullptr;
  EERR_CHECK(eprj_ElevationInfoConvertToMIFable(info, &d, &obj, frame.Callee()), frame, EMSC_FALSE,
             L"eprj_ElevationInfoConvertToMIFable failed");
  std::unique_ptr<Emif_Design, void (*)(Emif_Design*)> dhold(d, emif_DesignDestroy);
  MifObject hold{d, obj};
  EERR_CHECK(ehfa_ObjectWrite(file, path && *path ? path : L":", L"Eprj_ElevationInfo",
                              EHFA_WRITE_REPLACE, d, obj, frame.Callee()),
             frame, EMSC_FALSE, L"ehfa_ObjectWrite failed");
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
