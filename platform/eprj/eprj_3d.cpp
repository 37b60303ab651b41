// 3D reprojection and datum shifts: both ends described as PROJ steps to
// geographic coordinates on their own datum, joined through WGS 84 by each
// datum's shift, and run as one PROJ pipeline.
#include <proj.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/eprj/eprj_internal.h"
#include "platform/estr/utf8.h"

namespace {

constexpr double kHalfPi = 1.5707963267948966;
// Round trips that separate converted points from points PROJ maps to
// something that does not come back (outside a domain or a grid). PROJ
// undoes a Helmert step with the transposed small-angle rotation, which
// misses by a millimetre or two for rotations of a few arc-seconds: the
// limits stay above that.
constexpr double kAngleRoundTrip = 2e-9;   // radians (13 mm on the ground)
constexpr double kLinearRoundTrip = 1e-2;  // metres
constexpr double kWgs84A = 6378137.0;
constexpr double kWgs84B = 6356752.314245179;

enum class Frame { kMap, kGeographic, kGeocentric };

// One end of a conversion.
struct System {
  Frame frame = Frame::kGeographic;
  std::string projection;  // PROJ definition (kMap)
  double a = 0, b = 0;     // the datum's ellipsoid, metres
  const Eprj_Datum* datum = nullptr;
  std::string geoid_grid;  // empty: ellipsoidal heights
  std::wstring geoid_name;
  std::string z_unit = "m";  // PROJ's name of the height unit
};

struct Step {
  std::string def;
  bool inverse;
};

struct Grid {
  std::string name;
  bool vertical;
  std::wstring owner;  // the datum or geoid that needs it
};

std::string Num(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

std::string Axes(double a, double b) { return "+a=" + Num(a) + " +b=" + Num(b); }

std::wstring DatumName(const System& s) {
  return s.datum && s.datum->datumname ? s.datum->datumname : L"(no datum)";
}

std::vector<Step> Reversed(const std::vector<Step>& steps) {
  std::vector<Step> r;
  for (auto it = steps.rbegin(); it != steps.rend(); ++it) r.push_back({it->def, !it->inverse});
  return r;
}

void Append(std::vector<Step>& to, const std::vector<Step>& steps) {
  to.insert(to.end(), steps.begin(), steps.end());
}

std::wstring Key(const Etxt_Char* s) {
  std::wstring k;
  for (; s && *s; ++s) k.push_back(static_cast<wchar_t>(std::towlower(*s)));
  return k;
}

// The effective shift of a system's datum (unknown when it has none).
bool ShiftOf(const System& s, Eprj_DatumShift& shift, kzdv::ErrorFrame& frame) {
  shift = Eprj_DatumShift{};
  if (!s.datum) {
    shift.kind = EPRJ_SHIFT_UNKNOWN;
    return true;
  }
  if (!eprj_DatumShiftGet(s.datum, EPRJ_ROTATION_POSITION_VECTOR, &shift, frame.Callee())) {
    frame.Fail(__LINE__, L"eprj_DatumShiftGet failed");
    return false;
  }
  return true;
}

bool SameShift(const Eprj_DatumShift& p, const Eprj_DatumShift& q) {
  if (p.kind != q.kind) return false;
  if (p.kind == EPRJ_SHIFT_GRID) return Key(p.grids) == Key(q.grids);
  return p.dx == q.dx && p.dy == q.dy && p.dz == q.dz && p.rx == q.rx && p.ry == q.ry &&
         p.rz == q.rz && p.scale == q.scale;
}

// Grid names of a datum record as PROJ knows them. HFA files name the
// NADCON shift of NAD27 "nadcon.dat"; PROJ's CONUS grid is that shift.
std::vector<std::string> GridNames(const Etxt_Char* list) {
  std::vector<std::string> names;
  std::string all = kzdv::eprj::Narrow(list);
  size_t at = 0;
  while (at <= all.size()) {
    size_t end = all.find(',', at);
    if (end == std::string::npos) end = all.size();
    std::string name = all.substr(at, end - at);
    while (!name.empty() && name.front() == ' ') name.erase(0, 1);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    if (estr_Eqic(kzdv::FromUtf8(name).c_str(), L"nadcon.dat")) name = "us_noaa_conus.tif";
    if (!name.empty()) names.push_back(name);
    at = end + 1;
  }
  return names;
}

// Steps from geographic coordinates on the system's datum to WGS 84.
bool DatumSteps(const System& s, std::vector<Step>& steps, std::vector<Grid>& grids,
                kzdv::ErrorFrame& frame) {
  Eprj_DatumShift shift;
  if (!ShiftOf(s, shift, frame)) return false;
  const std::wstring name = DatumName(s);
  const std::string cart = "+proj=cart " + Axes(s.a, s.b);
  const std::string wgs84 = "+proj=cart +ellps=WGS84";
  switch (shift.kind) {
    case EPRJ_SHIFT_NONE:
      // Geocentric coordinates coincide; geographic ones too on WGS 84's axes.
      if (std::fabs(s.a - kWgs84A) > 1e-4 || std::fabs(s.b - kWgs84B) > 1e-4)
        steps = {{cart, false}, {wgs84, true}};
      return true;
    case EPRJ_SHIFT_3_PARAMETER:
    case EPRJ_SHIFT_7_PARAMETER: {
      std::string helmert =
          "+proj=helmert +x=" + Num(shift.dx) + " +y=" + Num(shift.dy) + " +z=" + Num(shift.dz);
      if (shift.kind == EPRJ_SHIFT_7_PARAMETER)
        helmert += " +rx=" + Num(shift.rx) + " +ry=" + Num(shift.ry) + " +rz=" + Num(shift.rz) +
                   " +s=" + Num(shift.scale) + " +convention=position_vector";
      steps = {{cart, false}, {helmert, false}, {wgs84, true}};
      return true;
    }
    case EPRJ_SHIFT_GRID: {
      std::string list;
      for (const std::string& g : GridNames(shift.grids)) {
        list += (list.empty() ? "" : ",") + g;
        grids.push_back({g, false, L"datum \"" + name + L"\""});
      }
      EERR_FAIL_IF(list.empty(), frame, false, L"Grid datum \"%ls\" names no grid", name.c_str());
      steps = {{"+proj=hgridshift +grids=" + list, false}};
      return true;
    }
    case EPRJ_SHIFT_REGRESSION:
      EERR_FAIL(frame, false,
                L"Datum \"%ls\" has a polynomial regression shift, which is not supported: the "
                L"record keeps bare coefficients without the polynomial's order, term layout or "
                L"normalisation",
                name.c_str());
    default:
      EERR_FAIL(frame, false, L"Unknown datum \"%ls\": it has no known shift to WGS 84",
                name.c_str());
  }
}

// Steps from the system's own coordinates to geographic radians with
// heights in metres on its datum.
std::vector<Step> FrameSteps(const System& s) {
  std::vector<Step> steps;
  if (s.z_unit != "m")
    steps.push_back({"+proj=unitconvert +z_in=" + s.z_unit + " +z_out=m", false});
  if (s.frame == Frame::kMap) steps.push_back({s.projection, true});
  if (s.frame == Frame::kGeocentric) steps.push_back({"+proj=cart " + Axes(s.a, s.b), true});
  return steps;
}

// Steps from geographic coordinates (heights of the system's kind) to WGS 84
// ellipsoidal. Geoid heights are held while the position moves, then the
// geoid undulation is added on WGS 84.
bool ToWgs84(const System& s, std::vector<Step>& steps, std::vector<Grid>& grids,
             kzdv::ErrorFrame& frame) {
  std::vector<Step> datum;
  if (!DatumSteps(s, datum, grids, frame)) return false;
  if (s.geoid_grid.empty()) {
    steps = datum;
    return true;
  }
  if (!datum.empty()) {
    steps.push_back({"+proj=push +v_3", false});
    Append(steps, datum);
    steps.push_back({"+proj=pop +v_3", false});
  }
  steps.push_back({"+proj=vgridshift +grids=" + s.geoid_grid + " +multiplier=1", false});
  grids.push_back({s.geoid_grid, true, L"geoid \"" + s.geoid_name + L"\""});
  return true;
}

bool SameDatum(const System& p, const System& q, kzdv::ErrorFrame& frame, bool& same) {
  same = false;
  if (std::fabs(p.a - q.a) > 1e-6 || std::fabs(p.b - q.b) > 1e-6) return true;
  if (!p.datum || !q.datum) {
    same = !p.datum && !q.datum;
    return true;
  }
  if (Key(p.datum->datumname) != Key(q.datum->datumname)) return true;
  Eprj_DatumShift sp, sq;
  if (!ShiftOf(p, sp, frame) || !ShiftOf(q, sq, frame)) return false;
  same = SameShift(sp, sq);
  return true;
}

// A PROJ operation with its own context.
class Pipeline {
 public:
  ~Pipeline() {
    if (pj_) proj_destroy(pj_);
    if (ctx_) proj_context_destroy(ctx_);
  }

  bool Build(const System& from, const System& to, kzdv::ErrorFrame& frame) {
    from_ = from.frame;
    to_ = to.frame;
    std::vector<Step> steps = FrameSteps(from);
    std::vector<Grid> grids;
    bool same = false;
    if (!SameDatum(from, to, frame, same)) return false;
    if (!same || from.geoid_grid != to.geoid_grid) {
      std::vector<Step> out, back;
      if (!ToWgs84(from, out, grids, frame) || !ToWgs84(to, back, grids, frame)) return false;
      Append(steps, out);
      Append(steps, Reversed(back));
    }
    Append(steps, Reversed(FrameSteps(to)));
    definition_ = "+proj=pipeline";
    for (const Step& s : steps)
      definition_ += std::string(" +step ") + (s.inverse ? "+inv " : "") + s.def;
    if (steps.empty()) definition_ = "+proj=noop";

    ctx_ = proj_context_create();
    EERR_FAIL_IF(!ctx_, frame, false, L"PROJ context could not be created");
    proj_log_level(ctx_, PJ_LOG_NONE);
    proj_context_set_enable_network(ctx_, 0);
    // Each grid on its own first, so that a missing one is named.
    for (const Grid& g : grids) {
      if (!g.name.empty() && g.name[0] == '@') continue;
      const std::string probe =
          std::string(g.vertical ? "+proj=vgridshift" : "+proj=hgridshift") + " +grids=" + g.name;
      PJ* pj = proj_create(ctx_, probe.c_str());
      if (pj) {
        proj_destroy(pj);
        continue;
      }
      const int e = proj_context_errno(ctx_);
      EERR_FAIL(frame, false, L"Grid \"%hs\" of the %ls is not installed or not readable (%hs)",
                g.name.c_str(), g.owner.c_str(), proj_context_errno_string(ctx_, e));
    }
    pj_ = proj_create(ctx_, definition_.c_str());
    if (!pj_) {
      const int e = proj_context_errno(ctx_);
      EERR_FAIL(frame, false, L"PROJ rejected \"%hs\": %hs", definition_.c_str(),
                proj_context_errno_string(ctx_, e));
    }
    return true;
  }

  bool Run(bool forward, long count, double* x, double* y, double* z,
           kzdv::ErrorFrame& frame) const {
    EERR_FAIL_IF(count < 0 || (count > 0 && (!x || !y || !z)), frame, false, L"No points");
    const Frame in = forward ? from_ : to_;
    for (long i = 0; i < count; ++i) {
      EERR_FAIL_IF(!std::isfinite(x[i]) || !std::isfinite(y[i]) || !std::isfinite(z[i]), frame,
                   false, L"Point %ld (%g, %g, %g) is not a finite position", i, x[i], y[i], z[i]);
      EERR_FAIL_IF(in == Frame::kGeographic && std::fabs(y[i]) > kHalfPi + 1e-12, frame, false,
                   L"Point %ld has a latitude of %g radians, beyond the pole", i, y[i]);
    }
    if (count == 0) return true;
    const size_t n = static_cast<size_t>(count);
    std::vector<double> ox(x, x + n), oy(y, y + n), oz(z, z + n);
    std::vector<double> bx, by, bz;
    int error = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const PJ_DIRECTION dir = forward ? PJ_FWD : PJ_INV;
      proj_errno_reset(pj_);
      proj_trans_generic(pj_, dir, ox.data(), sizeof(double), n, oy.data(), sizeof(double), n,
                         oz.data(), sizeof(double), n, nullptr, 0, 0);
      error = proj_errno(pj_);
      bx = ox;
      by = oy;
      bz = oz;
      proj_trans_generic(pj_, forward ? PJ_INV : PJ_FWD, bx.data(), sizeof(double), n, by.data(),
                         sizeof(double), n, bz.data(), sizeof(double), n, nullptr, 0, 0);
      proj_errno_reset(pj_);
    }
    for (size_t i = 0; i < n; ++i) {
      bool ok = std::isfinite(ox[i]) && std::isfinite(oy[i]) && std::isfinite(oz[i]) &&
                ox[i] != HUGE_VAL && oy[i] != HUGE_VAL && std::isfinite(bx[i]) &&
                std::isfinite(by[i]) && std::isfinite(bz[i]);
      if (ok && in == Frame::kGeographic) {
        const double dlon = std::remainder(bx[i] - x[i], 2 * M_PI) * std::cos(y[i]);
        ok = std::fabs(dlon) <= kAngleRoundTrip && std::fabs(by[i] - y[i]) <= kAngleRoundTrip;
      } else if (ok) {
        ok = std::fabs(bx[i] - x[i]) <= kLinearRoundTrip &&
             std::fabs(by[i] - y[i]) <= kLinearRoundTrip;
      }
      ok = ok && std::fabs(bz[i] - z[i]) <= kLinearRoundTrip;
      if (!ok) {
        const char* why = error ? proj_context_errno_string(ctx_, error)
                                : "outside a projection's domain or a grid's extent";
        EERR_FAIL(frame, false, L"Point %zu (%.10g, %.10g, %.10g) cannot be converted: %hs", i,
                  x[i], y[i], z[i], why);
      }
    }
    std::memcpy(x, ox.data(), n * sizeof(double));
    std::memcpy(y, oy.data(), n * sizeof(double));
    std::memcpy(z, oz.data(), n * sizeof(double));
    return true;
  }

  const char* Definition() const { return definition_.c_str(); }

 private:
  PJ_CONTEXT* ctx_ = nullptr;
  PJ* pj_ = nullptr;
  std::string definition_;
  Frame from_ = Frame::kGeographic, to_ = Frame::kGeographic;
  mutable std::mutex mutex_;  // a PJ is not safe for concurrent use
};

bool CheckAxes(double a, double b, const wchar_t* what, kzdv::ErrorFrame& frame) {
  EERR_FAIL_IF(!std::isfinite(a) || !std::isfinite(b) || a < 1.0 || a > 1e8 || b > a || b < 0.5 * a,
               frame, false, L"The %ls spheroid's axes a = %g, b = %g are not a spheroid", what, a,
               b);
  return true;
}

// Heights of an elevation info: the geoid model of a vertical datum and the
// unit.
bool SetHeights(const Eprj_ElevationInfo* info, System& s, const wchar_t* what,
                kzdv::ErrorFrame& frame) {
  if (!info) return true;
  const Etxt_Char* datum = info->datumName;
  if (eprj_IsDatumVertical(datum)) {
    if (estr_Eqic(datum, L"EGM96") || estr_Eqic(datum, L"EGM96 geoid"))
      s.geoid_grid = "us_nga_egm96_15.tif";
    else if (estr_Eqic(datum, L"EGM2008") || estr_Eqic(datum, L"EGM2008 geoid"))
      s.geoid_grid = "us_nga_egm08_25.tif";
    else
      EERR_FAIL(frame, false, L"The %ls heights' vertical datum \"%s\" has no geoid model here",
                what, datum);
    s.geoid_name = datum;
  }
  struct Unit {
    const wchar_t* name;
    const char* proj;
  };
  static const Unit kUnits[] = {{L"meters", "m"},
                                {L"meter", "m"},
                                {L"metres", "m"},
                                {L"metre", "m"},
                                {L"m", "m"},
                                {L"Undefined", "m"},
                                {L"feet", "ft"},
                                {L"foot", "ft"},
                                {L"ft", "ft"},
                                {L"us_survey_feet", "us-ft"},
                                {L"us survey feet", "us-ft"},
                                {L"us_survey_foot", "us-ft"},
                                {L"kilometers", "km"},
                                {L"km", "km"}};
  if (!info->elevationUnit) return true;
  for (const Unit& u : kUnits)
    if (estr_Eqic(u.name, info->elevationUnit)) {
      s.z_unit = u.proj;
      return true;
    }
  EERR_FAIL(frame, false, L"The %ls heights' unit \"%s\" is not a known length unit", what,
            info->elevationUnit);
}

bool MapSystem(const Eprj_ProParameters* p, const Eprj_ElevationInfo* heights, const wchar_t* what,
               System& s, kzdv::ErrorFrame& frame) {
  EERR_FAIL_IF(!p, frame, false, L"No %ls projection parameters", what);
  std::wstring why;
  EERR_FAIL_IF(!kzdv::eprj::ProjDefinition(*p, s.projection, why), frame, false,
               L"The %ls projection: %ls", what, why.c_str());
  s.frame = s.projection.empty() ? Frame::kGeographic : Frame::kMap;
  s.a = p->proSpheroid->a;
  s.b = p->proSpheroid->b;
  s.datum = p->proSpheroid->datum;
  return SetHeights(heights, s, what, frame);
}

}  // namespace

struct Eprj_3DProjection {
  Pipeline pipeline;
};

struct Eprj_3DDatumShift {
  Pipeline pipeline;
};

extern "C" {

Eprj_3DProjection* eprj_3DProjectionCreate(const Eprj_ProParameters* source,
                                           const Eprj_ElevationInfo* sourceHeights,
                                           const Eprj_ProParameters* target,
                                           const Eprj_ElevationInfo* targetHeights,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_3DProjectionCreate";
  kzdv::ErrorFrame frame(kFn, err);
  System from, to;
  if (!MapSystem(source, sourceHeights, L"source", from, frame) ||
      !MapSystem(target, targetHeights, L"target", to, frame))
    return nullptr;
  std::unique_ptr<Eprj_3DProjection> p(new Eprj_3DProjection);
  if (!p->pipeline.Build(from, to, frame)) return nullptr;
  return p.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_3DProject(const Eprj_3DProjection* projection, long count, double* x, double* y,
                            double* z, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_3DProject";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!projection, frame, EMSC_FALSE, L"No 3D projection");
  return projection->pipeline.Run(true, count, x, y, z, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eprj_3DProjectInverse(const Eprj_3DProjection* projection, long count, double* x,
                                   double* y, double* z, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_3DProjectInverse";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!projection, frame, EMSC_FALSE, L"No 3D projection");
  return projection->pipeline.Run(false, count, x, y, z, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

const char* eprj_3DProjectionDefinitionGet(const Eprj_3DProjection* projection) KZDV_NOEXCEPT {
  return projection ? projection->pipeline.Definition() : nullptr;
}

void eprj_3DProjectionFree(Eprj_3DProjection* projection) KZDV_NOEXCEPT { delete projection; }

Eprj_3DDatumShift* eprj_3DDatumShiftCreate(const Eprj_Spheroid* source, const Eprj_Spheroid* target,
                                           Eprj_3DCoordinates coordinates,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_3DDatumShiftCreate";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!source || !target, frame, nullptr, L"No spheroid");
  EERR_FAIL_IF(coordinates != EPRJ_3D_GEOGRAPHIC && coordinates != EPRJ_3D_GEOCENTRIC, frame,
               nullptr, L"Unknown kind of coordinates %d", static_cast<int>(coordinates));
  if (!CheckAxes(source->a, source->b, L"source", frame) ||
      !CheckAxes(target->a, target->b, L"target", frame))
    return nullptr;
  System from, to;
  from.frame = to.frame =
      coordinates == EPRJ_3D_GEOCENTRIC ? Frame::kGeocentric : Frame::kGeographic;
  from.a = source->a;
  from.b = source->b;
  from.datum = source->datum;
  to.a = target->a;
  to.b = target->b;
  to.datum = target->datum;
  std::unique_ptr<Eprj_3DDatumShift> s(new Eprj_3DDatumShift);
  if (!s->pipeline.Build(from, to, frame)) return nullptr;
  return s.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_3DDatumShift(const Eprj_3DDatumShift* shift, long count, double* x, double* y,
                               double* z, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_3DDatumShift";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!shift, frame, EMSC_FALSE, L"No 3D datum shift");
  return shift->pipeline.Run(true, count, x, y, z, frame) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

const char* eprj_3DDatumShiftDefinitionGet(const Eprj_3DDatumShift* shift) KZDV_NOEXCEPT {
  return shift ? shift->pipeline.Definition() : nullptr;
}

void eprj_3DDatumShiftFree(Eprj_3DDatumShift* shift) KZDV_NOEXCEPT { delete shift; }

}  // extern "C"
