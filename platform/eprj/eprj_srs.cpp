// Translation between projection parameters (GCTP layout, as HFA files keep
// them) and GDAL spatial references, in both directions.
#include <cpl_conv.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/eprj/eprj_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace eprj {
namespace {

constexpr double kR2D = 57.29577951308232;
constexpr double kD2R = 0.017453292519943295;
constexpr double kHalfPi = 1.5707963267948966;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kArcsecToRad = 4.84813681109536e-06;

double Param(const Eprj_ProParameters& p, int i) {
  return i < p.proParams.count && p.proParams.data ? p.proParams.data[i] : 0.0;
}

bool Fail(std::wstring& why, const std::wstring& text) {
  why = text;
  return false;
}

// The geographic part: the EPSG definition when the datum is a known one on
// the same spheroid, otherwise a datum named as given on our spheroid.
bool SetGeographic(const Eprj_Spheroid& s, OGRSpatialReference& srs, std::wstring& why) {
  const Etxt_Char* datum = s.datum ? s.datum->datumname : nullptr;
  const DatumDef* def = FindDatum(datum);
  const SpheroidDef* sdef = def ? FindSpheroid(def->spheroid) : nullptr;
  const double invf = s.a == s.b ? 0.0 : s.a / (s.a - s.b);
  if (def && def->epsg_geographic && sdef && std::fabs(sdef->a - s.a) < 1e-3 &&
      std::fabs(sdef->inv_flattening - invf) < 1e-6) {
    OGRSpatialReference geog;
    if (geog.importFromEPSG(def->epsg_geographic) == OGRERR_NONE &&
        srs.CopyGeogCSFrom(&geog) == OGRERR_NONE)
      return true;
  }
  const std::string dname = datum && *datum ? Narrow(datum) : std::string("unknown");
  const std::string sname = s.sphereName && *s.sphereName ? Narrow(s.sphereName) : "unnamed";
  if (srs.SetGeogCS(dname.c_str(), dname.c_str(), sname.c_str(), s.a, invf) != OGRERR_NONE)
    return Fail(why, L"The geographic system could not be set");
  return true;
}

bool ValidLatitude(double v) { return std::isfinite(v) && std::fabs(v) <= kHalfPi + 1e-12; }
bool ValidLongitude(double v) { return std::isfinite(v) && std::fabs(v) <= kTwoPi; }

}  // namespace

bool BuildSrs(const Eprj_ProParameters& p, OGRSpatialReference& srs, std::wstring& why) {
  srs.Clear();
  srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  if (p.proType != EPRJ_INTERNAL)
    return Fail(why, kzdv::Format(L"External projection \"%s\" is not supported",
                                  p.proExeName ? p.proExeName : L""));
  const Eprj_Spheroid* s = p.proSpheroid;
  if (!s) return Fail(why, L"The projection parameters have no spheroid");
  if (!std::isfinite(s->a) || !std::isfinite(s->b) || s->a < 1.0 || s->a > 1e8 || s->b > s->a ||
      s->b < 0.5 * s->a)
    return Fail(why, kzdv::Format(L"Spheroid axes a = %g, b = %g are not a spheroid", s->a, s->b));
  for (int i = 0; i < p.proParams.count && p.proParams.data; ++i)
    if (!std::isfinite(p.proParams.data[i]))
      return Fail(why, kzdv::Format(L"Projection parameter %d is not a finite number", i));

  const double p2 = Param(p, 2), p3 = Param(p, 3), p4 = Param(p, 4), p5 = Param(p, 5);
  const double fe = Param(p, 6), fn = Param(p, 7);
  auto need_lat = [&](double v, const wchar_t* what) {
    return ValidLatitude(v) ? true : Fail(why, kzdv::Format(L"%ls %g rad is beyond ±90°", what, v));
  };
  auto need_lon = [&](double v) {
    return ValidLongitude(v)
               ? true
               : Fail(why, kzdv::Format(L"Central meridian %g rad is beyond ±360°", v));
  };
  auto need_scale = [&](double v) {
    return v > 0.0 && v < 10.0 ? true
                               : Fail(why, kzdv::Format(L"Scale factor %g is not plausible", v));
  };
  OGRErr e = OGRERR_NONE;
  switch (p.proNumber) {
    case EPRJ_LATLONG:
      break;
    case EPRJ_UTM:
      if (p.proZone < 1 || p.proZone > 60)
        return Fail(why, kzdv::Format(L"UTM zone %ld is outside 1..60", p.proZone));
      e = srs.SetUTM(static_cast<int>(p.proZone), p3 >= 0.0);
      break;
    case EPRJ_STATE_PLANE: {
      // NAD83 on GRS 1980, NAD27 otherwise, as HFA files decide it.
      const bool nad83 = std::fabs(s->a - 6378137.0) < 1.0;
      CPLPushErrorHandler(CPLQuietErrorHandler);
      e = srs.SetStatePlane(static_cast<int>(p.proZone), nad83, nullptr, 0.0);
      CPLPopErrorHandler();
      if (e != OGRERR_NONE || !srs.IsProjected())
        return Fail(why, kzdv::Format(L"State plane zone %ld is unknown", p.proZone));
      srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
      return true;
    }
    case EPRJ_ALBERS_CONIC_EQUAL_AREA:
      if (!need_lat(p2, L"First standard parallel") || !need_lat(p3, L"Second standard parallel") ||
          !need_lat(p5, L"Latitude of origin") || !need_lon(p4))
        return false;
      e = srs.SetACEA(p2 * kR2D, p3 * kR2D, p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_LAMBERT_CONFORMAL_CONIC:
      if (!need_lat(p2, L"First standard parallel") || !need_lat(p3, L"Second standard parallel") ||
          !need_lat(p5, L"Latitude of origin") || !need_lon(p4))
        return false;
      if (std::fabs(p2 + p3) < 1e-12)
        return Fail(why, L"Standard parallels on opposite sides of the equator at equal distance");
      e = srs.SetLCC(p2 * kR2D, p3 * kR2D, p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_LAMBERT_CONFORMAL_CONIC_1SP:
      // Layout of this number in HFA files: [2] central meridian, [3] latitude
      // of origin, [4] scale, [5] false easting, [6] false northing.
      if (!need_lat(p3, L"Latitude of origin") || !need_lon(p2) || !need_scale(p4)) return false;
      if (std::fabs(p3) < 1e-12)
        return Fail(why, L"A one-parallel conic needs a non-zero parallel");
      e = srs.SetLCC1SP(p3 * kR2D, p2 * kR2D, p4, p5, Param(p, 6));
      break;
    case EPRJ_MERCATOR:
    case EPRJ_MERCATOR_VARIANT_A:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4)) return false;
      if (p.proNumber == EPRJ_MERCATOR_VARIANT_A && !need_scale(p2)) return false;
      e = srs.SetMercator(p5 * kR2D, p4 * kR2D, p.proNumber == EPRJ_MERCATOR ? 1.0 : p2, fe, fn);
      break;
    case EPRJ_PSEUDO_MERCATOR: {
      if (!need_lon(p4)) return false;
      // Spherical formulas on the semi-major axis over ellipsoidal latitudes;
      // GDAL carries that in the PROJ extension of the WKT.
      e = srs.SetMercator(0.0, p4 * kR2D, 1.0, fe, fn);
      if (e != OGRERR_NONE) break;
      if (!SetGeographic(*s, srs, why)) return false;
      char ext[256];
      std::snprintf(ext, sizeof ext,
                    "+proj=merc +a=%.17g +b=%.17g +lat_ts=0 +lon_0=%.17g +x_0=%.17g +y_0=%.17g "
                    "+k=1 +units=m +nadgrids=@null +wktext +no_defs",
                    s->a, s->a, p4 * kR2D, fe, fn);
      srs.SetProjCS("Pseudo-Mercator");
      srs.SetExtension("PROJCS", "PROJ4", ext);
      srs.SetLinearUnits(SRS_UL_METER, 1.0);
      srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
      return true;
    }
    case EPRJ_POLAR_STEREOGRAPHIC:
      if (!need_lat(p5, L"Latitude of true scale") || !need_lon(p4)) return false;
      if (p5 == 0.0)
        return Fail(why, L"A polar stereographic needs a pole (latitude of true scale 0)");
      e = srs.SetPS(p5 * kR2D, p4 * kR2D, 1.0, fe, fn);
      break;
    case EPRJ_POLYCONIC:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4)) return false;
      e = srs.SetPolyconic(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_EQUIDISTANT_CONIC:
      if (!need_lat(p2, L"First standard parallel") || !need_lat(p3, L"Second standard parallel") ||
          !need_lat(p5, L"Latitude of origin") || !need_lon(p4))
        return false;
      e = srs.SetEC(p2 * kR2D, Param(p, 8) != 0.0 ? p3 * kR2D : p2 * kR2D, p5 * kR2D, p4 * kR2D, fe,
                    fn);
      break;
    case EPRJ_TRANSVERSE_MERCATOR:
    case EPRJ_GAUSS_KRUGER:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4) || !need_scale(p2)) return false;
      e = srs.SetTM(p5 * kR2D, p4 * kR2D, p2, fe, fn);
      break;
    case EPRJ_STEREOGRAPHIC:
    case EPRJ_STEREOGRAPHIC_EXTENDED:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4)) return false;
      if (p.proNumber == EPRJ_STEREOGRAPHIC_EXTENDED && !need_scale(p2)) return false;
      e = srs.SetStereographic(p5 * kR2D, p4 * kR2D, p.proNumber == EPRJ_STEREOGRAPHIC ? 1.0 : p2,
                               fe, fn);
      break;
    case EPRJ_DOUBLE_STEREOGRAPHIC:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4) || !need_scale(p2)) return false;
      e = srs.SetOS(p5 * kR2D, p4 * kR2D, p2, fe, fn);
      break;
    case EPRJ_LAMBERT_AZIMUTHAL_EQUAL_AREA:
      if (!need_lat(p5, L"Latitude of centre") || !need_lon(p4)) return false;
      e = srs.SetLAEA(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_AZIMUTHAL_EQUIDISTANT:
      if (!need_lat(p5, L"Latitude of centre") || !need_lon(p4)) return false;
      e = srs.SetAE(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_GNOMONIC:
      if (!need_lat(p5, L"Latitude of centre") || !need_lon(p4)) return false;
      e = srs.SetGnomonic(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_ORTHOGRAPHIC:
      if (!need_lat(p5, L"Latitude of centre") || !need_lon(p4)) return false;
      e = srs.SetOrthographic(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    case EPRJ_SINUSOIDAL:
      if (!need_lon(p4)) return false;
      e = srs.SetSinusoidal(p4 * kR2D, fe, fn);
      break;
    case EPRJ_EQUIRECTANGULAR:
      if (!need_lat(p5, L"Latitude of true scale") || !need_lon(p4)) return false;
      e = srs.SetEquirectangular2(0.0, p4 * kR2D, p5 * kR2D, fe, fn);
      break;
    case EPRJ_MILLER_CYLINDRICAL:
      if (!need_lon(p4)) return false;
      e = srs.SetMC(0.0, p4 * kR2D, fe, fn);
      break;
    case EPRJ_CASSINI:
      if (!need_lat(p5, L"Latitude of origin") || !need_lon(p4)) return false;
      e = srs.SetCS(p5 * kR2D, p4 * kR2D, fe, fn);
      break;
    default:
      return Fail(why, kzdv::Format(L"Unknown projection number %ld", p.proNumber));
  }
  if (e != OGRERR_NONE) return Fail(why, L"GDAL rejected the projection parameters");
  if (!SetGeographic(*s, srs, why)) return false;
  if (srs.IsProjected()) srs.SetLinearUnits(SRS_UL_METER, 1.0);
  srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  return true;
}

}  // namespace eprj
}  // namespace kzdv

using kzdv::eprj::DupText;

namespace {

constexpr double kD2R = 0.017453292519943295;

struct ProDeleter {
  void operator()(Eprj_ProParameters* p) const { eprj_ProParametersFree(p); }
};

// Datum names that HFA files spell their own way.
std::wstring DatumNameOf(const OGRSpatialReference& srs) {
  switch (srs.GetEPSGGeogCS()) {
    case 4326:
      return L"WGS 84";
    case 4269:
      return L"NAD83";
    case 4267:
      return L"NAD27";
    case 4283:
      return L"GDA94";
    case 4322:
      return L"WGS 1972";
    default:
      break;
  }
  const char* d = srs.GetAttrValue("DATUM");
  if (!d) return L"";
  std::wstring name = kzdv::FromUtf8(d);
  const kzdv::eprj::DatumDef* def = kzdv::eprj::FindDatum(name.c_str());
  if (def) return def->name;
  for (auto& c : name)
    if (c == L'_') c = L' ';
  return name;
}

// Web maps' Mercator: GDAL writes it as Mercator_1SP on the ellipsoid with a
// PROJ extension that puts the formulas on a sphere of the semi-major axis.
bool IsPseudoMercator(const OGRSpatialReference& srs) {
  if (const char* code = srs.GetAuthorityCode(nullptr))
    if (std::strcmp(code, "3857") == 0) return true;
  const char* ext = srs.GetExtension("PROJCS", "PROJ4", nullptr);
  if (!ext || !std::strstr(ext, "+proj=merc")) return false;
  const char* a = std::strstr(ext, "+a=");
  const char* b = std::strstr(ext, "+b=");
  return a && b && std::atof(a + 3) == std::atof(b + 3) && srs.GetSemiMinor() != srs.GetSemiMajor();
}

struct Known {
  const char* wkt_name;
  long number;
  const wchar_t* pro_name;
};

}  // namespace

extern "C" {

Eprj_ProParameters* eprj_ProParametersFromWkt(const char* wkt, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersFromWkt";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!wkt || !*wkt, frame, nullptr, L"No coordinate system text");
  OGRSpatialReference srs;
  CPLPushErrorHandler(CPLQuietErrorHandler);
  const OGRErr imported = srs.SetFromUserInput(wkt);
  CPLPopErrorHandler();
  EERR_FAIL_IF(imported != OGRERR_NONE, frame, nullptr,
               L"Not a coordinate system GDAL understands: %hs", wkt);
  if (srs.IsCompound()) srs.StripVertical();
  EERR_FAIL_IF(!srs.IsGeographic() && !srs.IsProjected(), frame, nullptr,
               L"Only geographic and projected systems have projection parameters");

  // Our parameters count longitudes from Greenwich: a prime meridian of the
  // system moves the central meridian. Geographic systems on another prime
  // meridian would give map coordinates we cannot express.
  const double pm = srs.GetPrimeMeridian();
  EERR_FAIL_IF(srs.IsGeographic() && pm != 0.0, frame, nullptr,
               L"Geographic systems on a prime meridian other than Greenwich are not supported");
  double params[EPRJ_PARAMETER_COUNT] = {0};
  long number = -1, zone = 0;
  const wchar_t* name = L"";
  auto deg = [&](const char* key, double dflt = 0.0) {
    return srs.GetNormProjParm(key, dflt) * kD2R;
  };
  auto lin = [&](const char* key) { return srs.GetNormProjParm(key, 0.0); };
  int north = 0;
  const char* method = srs.IsProjected() ? srs.GetAttrValue("PROJECTION") : nullptr;
  if (srs.IsGeographic()) {
    number = EPRJ_LATLONG;
    name = L"Geographic (Lat/Lon)";
  } else if ((zone = srs.GetUTMZone(&north)) != 0) {
    number = EPRJ_UTM;
    name = L"UTM";
    params[3] = north ? 1.0 : -1.0;
  } else if (method) {
    params[6] = lin(SRS_PP_FALSE_EASTING);
    params[7] = lin(SRS_PP_FALSE_NORTHING);
    if (EQUAL(method, SRS_PT_TRANSVERSE_MERCATOR)) {
      number = EPRJ_TRANSVERSE_MERCATOR;
      name = L"Transverse Mercator";
      params[2] = srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0);
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
    } else if (EQUAL(method, SRS_PT_LAMBERT_CONFORMAL_CONIC_2SP)) {
      number = EPRJ_LAMBERT_CONFORMAL_CONIC;
      name = L"Lambert Conformal Conic";
      params[2] = deg(SRS_PP_STANDARD_PARALLEL_1);
      params[3] = deg(SRS_PP_STANDARD_PARALLEL_2);
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
    } else if (EQUAL(method, SRS_PT_LAMBERT_CONFORMAL_CONIC_1SP)) {
      number = EPRJ_LAMBERT_CONFORMAL_CONIC_1SP;
      name = L"Lambert Conformal Conic 1SP";
      params[2] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[3] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
      params[4] = srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0);
      params[5] = lin(SRS_PP_FALSE_EASTING);
      params[6] = lin(SRS_PP_FALSE_NORTHING);
      params[7] = 0.0;
    } else if (EQUAL(method, SRS_PT_ALBERS_CONIC_EQUAL_AREA)) {
      number = EPRJ_ALBERS_CONIC_EQUAL_AREA;
      name = L"Albers Conical Equal Area";
      params[2] = deg(SRS_PP_STANDARD_PARALLEL_1);
      params[3] = deg(SRS_PP_STANDARD_PARALLEL_2);
      params[4] = deg(SRS_PP_LONGITUDE_OF_CENTER);
      params[5] = deg(SRS_PP_LATITUDE_OF_CENTER);
    } else if (EQUAL(method, SRS_PT_MERCATOR_1SP) && IsPseudoMercator(srs)) {
      number = EPRJ_PSEUDO_MERCATOR;
      name = L"Pseudo Mercator";
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
    } else if (EQUAL(method, SRS_PT_MERCATOR_1SP)) {
      const double k = srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0);
      number = k == 1.0 ? EPRJ_MERCATOR : EPRJ_MERCATOR_VARIANT_A;
      name = k == 1.0 ? L"Mercator" : L"Mercator (Variant A)";
      if (k != 1.0) params[2] = k;
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
    } else if (EQUAL(method, SRS_PT_MERCATOR_2SP)) {
      number = EPRJ_MERCATOR;  // true scale at the standard parallel
      name = L"Mercator";
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_STANDARD_PARALLEL_1);
    } else if (EQUAL(method, SRS_PT_POLAR_STEREOGRAPHIC)) {
      number = EPRJ_POLAR_STEREOGRAPHIC;
      name = L"Polar Stereographic";
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
      EERR_FAIL_IF(
          srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0) != 1.0, frame, nullptr,
          L"Polar stereographic with a scale factor other than 1 has no projection number");
    } else if (EQUAL(method, SRS_PT_STEREOGRAPHIC)) {
      number = EPRJ_STEREOGRAPHIC_EXTENDED;
      name = L"Stereographic (Extended)";
      params[2] = srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0);
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
    } else if (EQUAL(method, SRS_PT_OBLIQUE_STEREOGRAPHIC)) {
      number = EPRJ_DOUBLE_STEREOGRAPHIC;
      name = L"Double Stereographic";
      params[2] = srs.GetNormProjParm(SRS_PP_SCALE_FACTOR, 1.0);
      params[4] = deg(SRS_PP_CENTRAL_MERIDIAN);
      params[5] = deg(SRS_PP_LATITUDE_OF_ORIGIN);
    } else {
      static const Known kSimple[] = {
          {SRS_PT_LAMBERT_AZIMUTHAL_EQUAL_AREA, EPRJ_LAMBERT_AZIMUTHAL_EQUAL_AREA,
           L"Lambert Azimuthal Equal-area"},
          {SRS_PT_AZIMUTHAL_EQUIDISTANT, EPRJ_AZIMUTHAL_EQUIDISTANT, L"Azimuthal Equidistant"},
          {SRS_PT_CASSINI_SOLDNER, EPRJ_CASSINI, L"Cassini"},
          {SRS_PT_POLYCONIC, EPRJ_POLYCONIC, L"Polyconic"},
          {SRS_PT_GNOMONIC, EPRJ_GNOMONIC, L"Gnomonic"},
          {SRS_PT_ORTHOGRAPHIC, EPRJ_ORTHOGRAPHIC, L"Orthographic"},
          {SRS_PT_SINUSOIDAL, EPRJ_SINUSOIDAL, L"Sinusoidal"},
          {SRS_PT_EQUIRECTANGULAR, EPRJ_EQUIRECTANGULAR, L"Equirectangular"},
          {SRS_PT_MILLER_CYLINDRICAL, EPRJ_MILLER_CYLINDRICAL, L"Miller Cylindrical"},
      };
      for (const Known& k : kSimple) {
        if (!EQUAL(method, k.wkt_name)) continue;
        number = k.number;
        name = k.pro_name;
        const bool centre = k.number == EPRJ_LAMBERT_AZIMUTHAL_EQUAL_AREA ||
                            k.number == EPRJ_AZIMUTHAL_EQUIDISTANT || k.number == EPRJ_SINUSOIDAL ||
                            k.number == EPRJ_MILLER_CYLINDRICAL;
        params[4] = deg(centre ? SRS_PP_LONGITUDE_OF_CENTER : SRS_PP_CENTRAL_MERIDIAN);
        if (k.number == EPRJ_EQUIRECTANGULAR)
          params[5] = deg(SRS_PP_STANDARD_PARALLEL_1);
        else if (k.number != EPRJ_SINUSOIDAL && k.number != EPRJ_MILLER_CYLINDRICAL)
          params[5] = deg(centre ? SRS_PP_LATITUDE_OF_CENTER : SRS_PP_LATITUDE_OF_ORIGIN);
      }
    }
  }
  EERR_FAIL_IF(number < 0, frame, nullptr, L"Projection method \"%hs\" has no projection number",
               method ? method : "?");
  if (pm != 0.0) {
    EERR_FAIL_IF(number == EPRJ_UTM, frame, nullptr,
                 L"UTM on a prime meridian other than Greenwich");
    params[number == EPRJ_LAMBERT_CONFORMAL_CONIC_1SP ? 2 : 4] += pm * kD2R;
  }

  std::unique_ptr<Eprj_ProParameters, ProDeleter> p(
      eprj_ProParametersCreate(number, name, zone, params, nullptr, nullptr, frame.Callee()));
  EERR_CHECK(p, frame, nullptr, L"eprj_ProParametersCreate failed");
  Eprj_Spheroid* s = static_cast<Eprj_Spheroid*>(emsc_HeapCalloc(1, sizeof(Eprj_Spheroid)));
  EERR_FAIL_IF(!s, frame, nullptr, L"Out of memory");
  p->proSpheroid = s;
  const char* sname = srs.GetAttrValue("SPHEROID");
  s->a = srs.GetSemiMajor();
  s->b = srs.GetSemiMinor();
  s->eSquared = (s->a * s->a - s->b * s->b) / (s->a * s->a);
  s->radius = s->a;
  EERR_FAIL_IF(!DupText(kzdv::FromUtf8(sname ? sname : "").c_str(), &s->sphereName), frame, nullptr,
               L"Out of memory");

  const std::wstring dname = DatumNameOf(srs);
  if (!dname.empty()) {
    s->datum = static_cast<Eprj_Datum*>(emsc_HeapCalloc(1, sizeof(Eprj_Datum)));
    EERR_FAIL_IF(!s->datum || !DupText(dname.c_str(), &s->datum->datumname), frame, nullptr,
                 L"Out of memory");
    double towgs84[7] = {0};
    s->datum->params.data = static_cast<double*>(emsc_HeapCalloc(7, sizeof(double)));
    EERR_FAIL_IF(!s->datum->params.data, frame, nullptr, L"Out of memory");
    s->datum->params.count = 7;
    if (srs.GetTOWGS84(towgs84, 7) == OGRERR_NONE) {
      // TOWGS84 is position vector, arc-seconds and ppm.
      kzdv::eprj::ShiftToStored(towgs84, s->datum->params.data);
      s->datum->type = EPRJ_DATUM_PARAMETRIC;
    } else if (dname == L"NAD27") {
      s->datum->type = EPRJ_DATUM_GRID;
      EERR_FAIL_IF(!DupText(L"nadcon.dat", &s->datum->gridname), frame, nullptr, L"Out of memory");
    } else {
      s->datum->type = EPRJ_DATUM_PARAMETRIC;
    }
  }
  return p.release();
}
EERR_BOUNDARY(err, nullptr)

char* eprj_ProParametersToWkt(const Eprj_ProParameters* parameters,
                              Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ProParametersToWkt";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!parameters, frame, nullptr, L"No projection parameters");
  OGRSpatialReference srs;
  std::wstring why;
  EERR_FAIL_IF(!kzdv::eprj::BuildSrs(*parameters, srs, why), frame, nullptr, L"%ls", why.c_str());
  char* wkt = nullptr;
  const OGRErr e = srs.exportToWkt(&wkt);
  if (e != OGRERR_NONE || !wkt) {
    CPLFree(wkt);
    EERR_FAIL(frame, nullptr, L"GDAL could not write the coordinate system as WKT");
  }
  char* out = static_cast<char*>(emsc_MemDup(wkt, std::strlen(wkt) + 1));
  CPLFree(wkt);
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

}  // extern "C"
