// Projection objects: parameters turned into a PROJ operation that converts
// between map coordinates (metres) and geographic longitude/latitude
// (radians) on the projection's own spheroid.
#include <cpl_conv.h>
#include <proj.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/eprj/eprj_internal.h"

namespace {

constexpr double kHalfPi = 1.5707963267948966;
// Round-trip limits that separate points inside a projection's domain from
// points PROJ maps to something that does not come back.
constexpr double kAngleRoundTrip = 1e-9;  // radians (6 mm on the ground)
constexpr double kMapRoundTrip = 1e-3;    // metres
// Map coordinates beyond 100 000 km (2.5 times round the Earth) are not a
// position: PROJ's answer for a singular point such as a pole on Mercator.
constexpr double kMaxMapCoordinate = 1e8;  // metres

struct ProjImpl {
  PJ_CONTEXT* ctx = nullptr;
  PJ* pj = nullptr;  // null for the geographic "projection"
  std::string definition;
  std::mutex mutex;  // a PJ is not safe for concurrent use
  ~ProjImpl() {
    if (pj) proj_destroy(pj);
    if (ctx) proj_context_destroy(ctx);
  }
};

ProjImpl* Impl(const Eprj_MapProjection* p) { return static_cast<ProjImpl*>(p->impl); }

}  // namespace

namespace kzdv {
namespace eprj {

// PROJ string of the projection alone: the datum, grids and units of the
// GDAL description are dropped, our spheroid and metres are imposed.
bool ProjDefinition(const Eprj_ProParameters& p, std::string& def, std::wstring& why) {
  OGRSpatialReference srs;
  if (!kzdv::eprj::BuildSrs(p, srs, why)) return false;
  if (p.proNumber == EPRJ_LATLONG) {
    def.clear();
    return true;
  }
  if (p.proNumber == EPRJ_PSEUDO_MERCATOR) {
    auto at = [&](int i) {
      return i < p.proParams.count && p.proParams.data ? p.proParams.data[i] : 0.0;
    };
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "+proj=webmerc +lon_0=%.17g +x_0=%.17g +y_0=%.17g +a=%.17g +b=%.17g +units=m",
                  at(4) * 57.29577951308232, at(6), at(7), p.proSpheroid->a, p.proSpheroid->b);
    def = buf;
    return true;
  }
  char* p4 = nullptr;
  CPLPushErrorHandler(CPLQuietErrorHandler);
  const OGRErr e = srs.exportToProj4(&p4);
  CPLPopErrorHandler();
  if (e != OGRERR_NONE || !p4) {
    CPLFree(p4);
    why = L"PROJ has no definition of these projection parameters";
    return false;
  }
  std::istringstream in(p4);
  CPLFree(p4);
  std::ostringstream out;
  std::string tok;
  static const char* const kDrop[] = {"+units=", "+to_meter=", "+no_defs",    "+type=",
                                      "+datum=", "+towgs84=",  "+nadgrids=",  "+wktext",
                                      "+ellps=", "+a=",        "+b=",         "+rf=",
                                      "+f=",     "+R=",        "+geoidgrids="};
  while (in >> tok) {
    bool drop = false;
    for (const char* d : kDrop) drop = drop || tok.compare(0, std::strlen(d), d) == 0;
    if (!drop) out << tok << ' ';
  }
  char axes[96];
  std::snprintf(axes, sizeof axes, "+a=%.17g +b=%.17g +units=m", p.proSpheroid->a,
                p.proSpheroid->b);
  out << axes;
  def = out.str();
  return true;
}

}  // namespace eprj
}  // namespace kzdv

namespace {

bool Convert(const Eprj_MapProjection* projection, Efga_Matrix* points, PJ_DIRECTION dir,
             kzdv::ErrorFrame& frame) {
  if (!projection || !projection->impl) {
    frame.Fail(__LINE__, L"No projection");
    return false;
  }
  if (!points || !points->data || points->numrows != 2) {
    frame.Fail(__LINE__, L"Points must be a 2 x n matrix");
    return false;
  }
  ProjImpl* impl = Impl(projection);
  const long n = points->numcolumns;
  std::vector<double> work(points->data, points->data + 2 * n);
  // Input checks first: a NaN or a latitude beyond the pole is never sent on.
  for (long i = 0; i < n; ++i) {
    const double x = work[2 * i], y = work[2 * i + 1];
    if (!std::isfinite(x) || !std::isfinite(y) ||
        ((dir == PJ_FWD || !impl->pj) && std::fabs(y) > kHalfPi + 1e-12)) {
      frame.Fail(__LINE__, L"Point %ld (%g, %g) is outside the projection's domain", i, x, y);
      return false;
    }
  }
  if (impl->pj) {
    std::vector<double> back(work);
    {
      std::lock_guard<std::mutex> lock(impl->mutex);
      proj_errno_reset(impl->pj);
      proj_trans_generic(impl->pj, dir, work.data(), 2 * sizeof(double), n, work.data() + 1,
                         2 * sizeof(double), n, nullptr, 0, 0, nullptr, 0, 0);
      back = work;
      proj_trans_generic(impl->pj, dir == PJ_FWD ? PJ_INV : PJ_FWD, back.data(), 2 * sizeof(double),
                         n, back.data() + 1, 2 * sizeof(double), n, nullptr, 0, 0, nullptr, 0, 0);
    }
    for (long i = 0; i < n; ++i) {
      const double x0 = points->data[2 * i], y0 = points->data[2 * i + 1];
      const double x = work[2 * i], y = work[2 * i + 1];
      bool ok = std::isfinite(x) && std::isfinite(y) && x != HUGE_VAL && y != HUGE_VAL &&
                std::isfinite(back[2 * i]) && std::isfinite(back[2 * i + 1]);
      if (ok && dir == PJ_FWD) {
        ok = std::fabs(x) <= kMaxMapCoordinate && std::fabs(y) <= kMaxMapCoordinate;
        const double dlon = std::remainder(back[2 * i] - x0, 2 * M_PI) * std::cos(y0);
        ok = ok && std::fabs(dlon) <= kAngleRoundTrip &&
             std::fabs(back[2 * i + 1] - y0) <= kAngleRoundTrip;
      } else if (ok) {
        ok = std::fabs(back[2 * i] - x0) <= kMapRoundTrip &&
             std::fabs(back[2 * i + 1] - y0) <= kMapRoundTrip && std::fabs(y) <= kHalfPi + 1e-12;
      }
      if (!ok) {
        frame.Fail(__LINE__, L"Point %ld (%.10g, %.10g) is outside the projection's domain", i, x0,
                   y0);
        return false;
      }
    }
  }
  std::memcpy(points->data, work.data(), sizeof(double) * work.size());
  return true;
}

Emsc_Boolean ToLL(const Eprj_MapProjection* projection, Efga_Matrix* points,
                  Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"toLL";
  kzdv::ErrorFrame frame(kFn, err);
  return Convert(projection, points, PJ_INV, frame) ? EMSC_TRUE : EMSC_FALSE;
}

Emsc_Boolean FromLL(const Eprj_MapProjection* projection, Efga_Matrix* points,
                    Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"fromLL";
  kzdv::ErrorFrame frame(kFn, err);
  return Convert(projection, points, PJ_FWD, frame) ? EMSC_TRUE : EMSC_FALSE;
}

Eprj_MapProjection* Init(const Eprj_ProParameters* parameters, kzdv::ErrorFrame& frame) {
  if (!parameters) {
    frame.Fail(__LINE__, L"No projection parameters");
    return nullptr;
  }
  std::string def;
  std::wstring why;
  if (!kzdv::eprj::ProjDefinition(*parameters, def, why)) {
    frame.Fail(__LINE__, L"%ls", why.c_str());
    return nullptr;
  }
  std::unique_ptr<ProjImpl> impl(new ProjImpl);
  impl->definition = def;
  if (!def.empty()) {
    impl->ctx = proj_context_create();
    proj_log_level(impl->ctx, PJ_LOG_NONE);
    impl->pj = proj_create(impl->ctx, def.c_str());
    if (!impl->pj) {
      const int e = proj_context_errno(impl->ctx);
      frame.Fail(__LINE__, L"PROJ rejected \"%hs\": %hs", def.c_str(),
                 proj_context_errno_string(impl->ctx, e));
      return nullptr;
    }
  }
  Eprj_ProParameters* copy = eprj_ProParametersCopy(parameters, frame.Callee());
  if (!copy || frame.CalleeFailed()) {
    eprj_ProParametersFree(copy);
    frame.Fail(__LINE__, L"eprj_ProParametersCopy failed");
    return nullptr;
  }
  auto* p = static_cast<Eprj_MapProjection*>(emsc_HeapCalloc(1, sizeof(Eprj_MapProjection)));
  if (!p) {
    eprj_ProParametersFree(copy);
    frame.Fail(__LINE__, L"Out of memory");
    return nullptr;
  }
  p->proParameters = copy;
  p->toLL = ToLL;
  p->fromLL = FromLL;
  p->impl = impl.release();
  return p;
}

Emsc_Boolean ConvertArrays(const Eprj_MapProjection* projection, long count, double* x, double* y,
                           bool to_ll, kzdv::ErrorFrame& frame) {
  EERR_FAIL_IF(!projection, frame, EMSC_FALSE, L"No projection");
  Eprj_ConvertPoints fn = to_ll ? projection->toLL : projection->fromLL;
  EERR_FAIL_IF(!fn, frame, EMSC_FALSE, L"The projection cannot convert in this direction");
  EERR_FAIL_IF(count < 0 || (count > 0 && (!x || !y)), frame, EMSC_FALSE, L"No points");
  if (count == 0) return EMSC_TRUE;
  Efga_Matrix* m = efga_MatrixCreate(2, count, frame.Callee());
  EERR_CHECK(m, frame, EMSC_FALSE, L"efga_MatrixCreate failed");
  std::unique_ptr<Efga_Matrix, void (*)(Efga_Matrix*)> hold(m, efga_MatrixFree);
  for (long i = 0; i < count; ++i) {
    m->data[2 * i] = x[i];
    m->data[2 * i + 1] = y[i];
  }
  EERR_CHECK(fn(projection, m, frame.Callee()), frame, EMSC_FALSE,
             to_ll ? L"toLL failed" : L"fromLL failed");
  for (long i = 0; i < count; ++i) {
    x[i] = m->data[2 * i];
    y[i] = m->data[2 * i + 1];
  }
  return EMSC_TRUE;
}

}  // namespace

extern "C" {

Eprj_MapProjection* eprj_ProjectionInit(const Eprj_ProParameters* parameters,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionInit";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    return Init(parameters, frame);
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

Eprj_MapProjection* eprj_MapProjectionInit(const Eprj_ProParameters* parameters,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_MapProjectionInit";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    return Init(parameters, frame);
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

void eprj_ProjectionFree(Eprj_MapProjection* projection) KZDV_NOEXCEPT {
  if (!projection) return;
  delete Impl(projection);
  eprj_ProParametersFree(projection->proParameters);
  emsc_HeapFree(projection);
}

Eprj_MapProjection* eprj_ProjectionCopy(const Eprj_MapProjection* projection,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionCopy";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!projection, frame, nullptr, L"No projection");
  try {
    return Init(projection->proParameters, frame);
  }
  EERR_CATCH(frame, nullptr)
}
EERR_BOUNDARY(err, nullptr)

const Eprj_ProParameters* eprj_MapProjectionCSRGet(const Eprj_MapProjection* projection,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_MapProjectionCSRGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!projection || !projection->proParameters, frame, nullptr, L"No projection");
  return projection->proParameters;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean eprj_ProjectionToLL(const Eprj_MapProjection* projection, long count, double* x,
                                 double* y, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionToLL";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    return ConvertArrays(projection, count, x, y, true, frame);
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean eprj_ProjectionFromLL(const Eprj_MapProjection* projection, long count, double* x,
                                   double* y, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProjectionFromLL";
  kzdv::ErrorFrame frame(kFn, err);
  try {
    return ConvertArrays(projection, count, x, y, false, frame);
  }
  EERR_CATCH(frame, EMSC_FALSE)
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
