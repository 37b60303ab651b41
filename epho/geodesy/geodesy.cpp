// Datum objects and the height shift between datums through PROJ's geoid
// models.
#include "epho/geodesy.h"

#include <proj.h>

#include <cmath>
#include <mutex>

#include "eprj.h"
#include "platform/eerr/error_frame.h"

namespace EphoLib {

namespace {

constexpr double kR2D = 57.29577951308232;

struct VerticalDef {
  const wchar_t* name;
  int epsg;  // vertical CRS of heights above that geoid
};
const VerticalDef kVertical[] = {
    {L"EGM96", 5773},
    {L"EGM96 geoid", 5773},
    {L"EGM96 height", 5773},
    {L"EGM2008", 3855},
    {L"EGM2008 geoid", 3855},
    {L"EGM2008 height", 3855},
    {L"EGM84", 5798},
    {L"EGM84 geoid", 5798},
    {L"EGM84 height", 5798},
    {L"NAVD88", 5703},
    {L"North American Vertical Datum 1988", 5703},
    {L"NAVD88 height", 5703},
};

}  // namespace

struct Datum::Proj {
  PJ_CONTEXT* ctx = nullptr;
  PJ* pj = nullptr;
  std::wstring failure;  // why no operation could be made
  ~Proj() {
    if (pj) proj_destroy(pj);
    if (ctx) proj_context_destroy(ctx);
  }
};

Datum::Datum(std::wstring name, Kind kind, int vertical_epsg)
    : name_(std::move(name)), kind_(kind), vertical_epsg_(vertical_epsg) {}

Datum::~Datum() = default;

bool Datum::ClaimWarning() const {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool first = !warned_;
  warned_ = true;
  return first;
}

bool Datum::Undulation(double longitude, double latitude, double* n, std::wstring* why) const {
  if (kind_ != kVertical) {
    if (why) *why = name_ + L" is not a vertical datum";
    return false;
  }
  if (!std::isfinite(longitude) || !std::isfinite(latitude) || std::fabs(latitude) > M_PI / 2) {
    if (why) *why = L"The position is not a geographic position";
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!proj_) {
    proj_.reset(new Proj);
    proj_->ctx = proj_context_create();
    proj_log_level(proj_->ctx, PJ_LOG_NONE);
    // Ellipsoidal heights on WGS 84 to heights above the geoid model.
    const std::string target = "EPSG:4326+" + std::to_string(vertical_epsg_);
    PJ* p = proj_create_crs_to_crs(proj_->ctx, "EPSG:4979", target.c_str(), nullptr);
    if (p) {
      proj_->pj = proj_normalize_for_visualization(proj_->ctx, p);
      proj_destroy(p);
    }
    if (!proj_->pj) proj_->failure = L"PROJ has no transformation to the heights of " + name_;
  }
  if (!proj_->pj) {
    if (why) *why = proj_->failure;
    return false;
  }
  PJ_COORD c = proj_coord(longitude * kR2D, latitude * kR2D, 0.0, HUGE_VAL);
  proj_errno_reset(proj_->pj);
  const PJ_COORD out = proj_trans(proj_->pj, PJ_FWD, c);
  if (out.xyz.z == HUGE_VAL || !std::isfinite(out.xyz.z)) {
    if (why) *why = L"The position is outside the geoid model of " + name_;
    return false;
  }
  // Without the grid PROJ falls back to a "ballpark" operation that leaves
  // heights as they are: that is no geoid model.
  PJ* used = proj_trans_get_last_used_operation(proj_->pj);
  const bool ballpark = !used || proj_coordoperation_has_ballpark_transformation(proj_->ctx, used);
  if (used) proj_destroy(used);
  if (ballpark) {
    if (why) *why = L"No geoid grid for " + name_ + L" is installed";
    return false;
  }
  *n = -out.xyz.z;
  return true;
}

DatumManager& DatumManager::Instance() {
  static DatumManager manager;
  return manager;
}

Datum* DatumManager::GetDatum(const wchar_t* name) const {
  EerrException ctx("geodesy", "DatumManager::GetDatum");
  if (!name) ctx.Throw(__LINE__, L"No datum name", 0);
  for (const VerticalDef& v : kVertical)
    if (estr_Eqic(v.name, name)) return new Datum(name, Datum::kVertical, v.epsg);
  // A horizontal datum of the projection records' table is ellipsoidal; the
  // records give any other name the type "none" (the datum is then unknown).
  Eerr_ErrorReport* lookup = nullptr;
  Eprj_Datum* known = eprj_DatumCreateByName(name, &lookup);
  eerr_DeleteErrorReportEx(&lookup);
  const bool in_table = known && known->type != EPRJ_DATUM_NONE;
  eprj_DatumFree(known);
  if (in_table) return new Datum(name, Datum::kEllipsoidal, 0);
  return new Datum(name, Datum::kUnknown, 0);
}

Datum* GetDatum(const wchar_t* name) { return DatumManager::Instance().GetDatum(name); }

}  // namespace EphoLib

namespace {

const EphoLib::Datum* AsDatum(const EphoDatum* d) { return dynamic_cast<const EphoLib::Datum*>(d); }

// The shift and, when it is zero for want of data, why.
double Shift(const EphoDatum* a_in, const EphoDatum* b_in, double lon, double lat,
             std::wstring* why, const EphoLib::Datum** missing) {
  const EphoLib::Datum* a = AsDatum(a_in);
  const EphoLib::Datum* b = AsDatum(b_in);
  *missing = nullptr;
  // A missing datum counts as a horizontal one: its heights are ellipsoidal.
  const bool va = a && a->IsVertical(), vb = b && b->IsVertical();
  if (!va && !vb) {
    *why = L"Neither " + (a ? a->Name() : std::wstring(L"(no datum)")) + L" nor " +
           (b ? b->Name() : std::wstring(L"(no datum)")) + L" is a vertical datum";
    return 0.0;
  }
  if (va && vb && a->VerticalEpsg() == b->VerticalEpsg()) {
    *why = L"Both heights refer to " + a->Name();
    return 0.0;
  }
  double na = 0.0, nb = 0.0;
  if (va && !a->Undulation(lon, lat, &na, why)) {
    *missing = a;
    return 0.0;
  }
  if (vb && !b->Undulation(lon, lat, &nb, why)) {
    *missing = b;
    return 0.0;
  }
  why->clear();
  return na - nb;
}

}  // namespace

extern "C" {

EphoDatum* epho_DatumGet(const Etxt_Char* name, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_DatumGet";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    return EphoLib::GetDatum(name);
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

void epho_DatumDelete(EphoDatum* datum) KZDV_NOEXCEPT { delete datum; }

double epho_CalculateZShift(const EphoDatum* datumA, const EphoDatum* datumB, double longitude,
                            double latitude) KZDV_NOEXCEPT try {
  std::wstring why;
  const EphoLib::Datum* missing = nullptr;
  double s = 0.0;
  try {
    s = Shift(datumA, datumB, longitude, latitude, &why, &missing);
  } catch (const std::exception&) {
    why = L"Out of memory";
  }
  if (missing && missing->ClaimWarning()) {
    Eerr_ErrorReport* r =
        eerr_CreateErrorReport(L"epho_CalculateZShift", __LINE__, EERR_SEVERITY_WARNING, nullptr,
                               L"%s: heights are used without a geoid shift", why.c_str(), 0);
    eerr_PrintErrorReport(r, nullptr, 0);
    eerr_DeleteErrorReport(r);
  }
  return s;
}
EERR_BOUNDARY(nullptr, 0.0)

Etxt_Char* epho_DatumZShiftNote(const EphoDatum* datumA, const EphoDatum* datumB) KZDV_NOEXCEPT
    try {
  // The note does not depend on the position unless a grid ends: ask at a
  // position every geoid model covers.
  std::wstring why;
  const EphoLib::Datum* missing = nullptr;
  try {
    Shift(datumA, datumB, 0.0, 0.0, &why, &missing);
  } catch (const std::exception&) {
    return nullptr;
  }
  return why.empty() ? nullptr : estr_Duplicate(why.c_str());
}
EERR_BOUNDARY(nullptr, nullptr)

}  // extern "C"
