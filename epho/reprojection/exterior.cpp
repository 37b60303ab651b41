// Exterior orientation carried from one ground system to another: the
// perspective centre through PROJ, the rotation through the local rotation
// between the two ground frames at the centre.
#include <proj.h>
#include <proj_experimental.h>

#include <Eigen/Dense>
#include <cmath>
#include <cwctype>
#include <memory>
#include <string>
#include <vector>

#include "emod.h"
#include "epho/angles.h"
#include "epho/camera.h"
#include "epho/reprojection.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"

namespace epho::reprojection {
namespace {

// Half the step of the central differences, metres. The mapping's third
// derivatives are of order 1/R² (R the earth radius), so the truncation error
// of the Jacobian is about (100 m / 6400 km)² / 6 = 4e-11; the rounding error,
// a few nanometres of PROJ's arithmetic over 200 m, is of the same order.
constexpr double kStep = 100.0;

struct PjDeleter {
  void operator()(PJ* p) const { proj_destroy(p); }
};
using PjPtr = std::unique_ptr<PJ, PjDeleter>;
struct CtxDeleter {
  void operator()(PJ_CONTEXT* c) const { proj_context_destroy(c); }
};
using CtxPtr = std::unique_ptr<PJ_CONTEXT, CtxDeleter>;

bool EqualIgnoringCase(const Etxt_Char* a, const Etxt_Char* b) {
  if (!a || !b) return a == b;
  for (; *a && *b; ++a, ++b)
    if (std::towlower(static_cast<wint_t>(*a)) != std::towlower(static_cast<wint_t>(*b)))
      return false;
  return *a == *b;
}

// One ground system, ready to convert points to and from geographic
// coordinates (radians, ellipsoidal height) on its own datum.
struct System {
  const Epho_ExteriorSystem* def = nullptr;
  double a = 0.0, e2 = 0.0;
  double frame[EMOD_TANGENT_FRAME_SIZE] = {};

  bool Init(const Epho_ExteriorSystem* s, const wchar_t* which, kzdv::ErrorFrame& f) {
    def = s;
    if (!s->projection || !s->projection->proParameters) {
      f.Fail(__LINE__, L"The %s system has no projection", which);
      return false;
    }
    const Eprj_ProParameters* p = s->projection->proParameters;
    if (!p->proSpheroid || !(p->proSpheroid->a > 0.0)) {
      f.Fail(__LINE__, L"The %s system has no spheroid", which);
      return false;
    }
    a = p->proSpheroid->a;
    e2 = p->proSpheroid->eSquared;
    if (s->kind == EPHO_EXTERIOR_TANGENT_PLANE) {
      if (!std::isfinite(s->lat0) || !std::isfinite(s->lon0) || !std::isfinite(s->h0) ||
          std::fabs(s->lat0) > M_PI / 2) {
        f.Fail(__LINE__, L"The %s tangent-plane origin is not a geographic position", which);
        return false;
      }
      if (!emod_DeriveTp2GcTransform(s->lat0, s->lon0, s->h0, a, e2, frame)) {
        f.Fail(__LINE__, L"emod_DeriveTp2GcTransform failed for the %s system", which);
        return false;
      }
      return true;
    }
    if (s->kind != EPHO_EXTERIOR_MAP) {
      f.Fail(__LINE__, L"The %s system kind %d is unknown", which, static_cast<int>(s->kind));
      return false;
    }
    if (p->proType == EPRJ_INTERNAL && p->proNumber == EPRJ_LATLONG) {
      f.Fail(__LINE__, L"The %s system is geographic: it has no Cartesian frame for a camera",
             which);
      return false;
    }
    if (!s->projection->toLL || !s->projection->fromLL) {
      f.Fail(__LINE__, L"The %s projection cannot convert through geographic coordinates", which);
      return false;
    }
    return true;
  }

  // x, y, z arrays in place: system to longitude, latitude (radians), height.
  bool ToGeographic(std::vector<double>& x, std::vector<double>& y, std::vector<double>& z,
                    kzdv::ErrorFrame& f) const {
    const long n = static_cast<long>(x.size());
    if (def->kind == EPHO_EXTERIOR_MAP) {
      if (!eprj_ProjectionToLL(def->projection, n, x.data(), y.data(), f.Callee()) ||
          f.CalleeFailed()) {
        f.Fail(__LINE__, L"eprj_ProjectionToLL failed");
        return false;
      }
      return true;
    }
    for (long i = 0; i < n; ++i) {
      double X, Y, Z;
      if (!emod_TangentPlaneToGeocentric(x[i], y[i], z[i], &X, &Y, &Z, frame) ||
          !emod_GeocentricToGeographic(X, Y, Z, &x[i], &y[i], &z[i], e2, a)) {
        f.Fail(__LINE__, L"The tangent-plane point (%g, %g, %g) has no geographic position", x[i],
               y[i], z[i]);
        return false;
      }
    }
    return true;
  }

  bool FromGeographic(std::vector<double>& x, std::vector<double>& y, std::vector<double>& z,
                      kzdv::ErrorFrame& f) const {
    const long n = static_cast<long>(x.size());
    if (def->kind == EPHO_EXTERIOR_MAP) {
      if (!eprj_ProjectionFromLL(def->projection, n, x.data(), y.data(), f.Callee()) ||
          f.CalleeFailed()) {
        f.Fail(__LINE__, L"eprj_ProjectionFromLL failed");
        return false;
      }
      return true;
    }
    for (long i = 0; i < n; ++i) {
      double X, Y, Z;
      if (!emod_GeographicToGeocentric(x[i], y[i], z[i], &X, &Y, &Z, e2, a) ||
          !emod_GeocentricToTangentPlane(X, Y, Z, &x[i], &y[i], &z[i], frame)) {
        f.Fail(__LINE__, L"The geographic point (%g, %g, %g) has no tangent-plane position", x[i],
               y[i], z[i]);
        return false;
      }
    }
    return true;
  }
};

// The geographic 3D system of a projection's datum, as PROJ knows it.
PJ* Geographic3D(PJ_CONTEXT* ctx, const Eprj_ProParameters* p, kzdv::ErrorFrame& f) {
  kzdv::HeapPtr<char> wkt(eprj_ProParametersToWkt(p, f.Callee()));
  if (!wkt || f.CalleeFailed()) {
    f.Fail(__LINE__, L"eprj_ProParametersToWkt failed");
    return nullptr;
  }
  PjPtr crs(proj_create(ctx, wkt.get()));
  PjPtr geod(crs ? proj_crs_get_geodetic_crs(ctx, crs.get()) : nullptr);
  PJ* g3 = geod ? proj_crs_promote_to_3D(ctx, nullptr, geod.get()) : nullptr;
  if (!g3) f.Fail(__LINE__, L"PROJ cannot read the geographic system of the projection");
  return g3;
}

// Transformation between the geographic systems of two datums (lon, lat in
// degrees, ellipsoidal heights), or null when the datums are the same.
bool DatumShift(PJ_CONTEXT* ctx, const Eprj_ProParameters* from, const Eprj_ProParameters* to,
                PjPtr* op, kzdv::ErrorFrame& f) {
  const Eprj_Datum* d1 = from->proSpheroid->datum;
  const Eprj_Datum* d2 = to->proSpheroid->datum;
  const bool same_axes = std::fabs(from->proSpheroid->a - to->proSpheroid->a) < 1e-6 &&
                         std::fabs(from->proSpheroid->b - to->proSpheroid->b) < 1e-6;
  if (!d1 && !d2 && same_axes) return true;
  if (d1 && d2 && EqualIgnoringCase(d1->datumname, d2->datumname) && same_axes) return true;
  for (const Eprj_Datum* d : {d1, d2}) {
    if (!d || d->type == EPRJ_DATUM_NONE) {
      f.Fail(__LINE__, L"The datum \"%ls\" is unknown: no transformation to the other system",
             d && d->datumname ? d->datumname : L"(none)");
      return false;
    }
  }
  PjPtr g1(Geographic3D(ctx, from, f));
  if (!g1) return false;
  PjPtr g2(Geographic3D(ctx, to, f));
  if (!g2) return false;
  PjPtr raw(proj_create_crs_to_crs_from_pj(ctx, g1.get(), g2.get(), nullptr, nullptr));
  PjPtr norm(raw ? proj_normalize_for_visualization(ctx, raw.get()) : nullptr);
  if (!norm || proj_coordoperation_has_ballpark_transformation(ctx, norm.get())) {
    f.Fail(__LINE__, L"PROJ knows no transformation from datum \"%ls\" to \"%ls\"",
           d1->datumname ? d1->datumname : L"", d2->datumname ? d2->datumname : L"");
    return false;
  }
  *op = std::move(norm);
  return true;
}

// The point mapping of the whole chain, in place.
struct Mapping {
  System from, to;
  PJ* shift = nullptr;

  bool Apply(std::vector<double>& x, std::vector<double>& y, std::vector<double>& z,
             kzdv::ErrorFrame& f) const {
    if (!from.ToGeographic(x, y, z, f)) return false;
    if (shift) {
      for (size_t i = 0; i < x.size(); ++i) {
        PJ_COORD c = proj_coord(x[i] * 180.0 / M_PI, y[i] * 180.0 / M_PI, z[i], 0.0);
        c = proj_trans(shift, PJ_FWD, c);
        if (!std::isfinite(c.xyz.x) || !std::isfinite(c.xyz.y) || !std::isfinite(c.xyz.z) ||
            c.xyz.x == HUGE_VAL) {
          f.Fail(__LINE__, L"The datum transformation failed at the perspective centre");
          return false;
        }
        x[i] = c.xyz.x * M_PI / 180.0;
        y[i] = c.xyz.y * M_PI / 180.0;
        z[i] = c.xyz.z;
      }
    }
    return to.FromGeographic(x, y, z, f);
  }
};

// The rotation code of epho_RotateAll for a camera's rotation system, as the
// projection matrix uses it.
short RotationCode(int32_t rotation_system) {
  return rotation_system == EPHO_OMEGA_PHI_KAPPA       ? 2
         : rotation_system == EPHO_PHIPLUS_OMEGA_KAPPA ? 1
                                                       : 0;
}

}  // namespace
}  // namespace epho::reprojection

using namespace epho::reprojection;

extern "C" {

Emsc_Boolean epho_ReprojectExteriorPars(const Epho_ExteriorSystem* from,
                                        const Epho_ExteriorSystem* to, int32_t rotationSystem,
                                        const double exteriorIn[6], double exteriorOut[6],
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_ReprojectExteriorPars";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF_NULL(from, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(to, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(exteriorIn, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(exteriorOut, frame, EMSC_FALSE);
  EERR_FAIL_IF(rotationSystem < EPHO_OMEGA_PHI_KAPPA || rotationSystem > EPHO_PHIMINUS_OMEGA_KAPPA,
               frame, EMSC_FALSE, L"The rotation system %d is unknown",
               static_cast<int>(rotationSystem));
  for (int k = 0; k < 6; ++k)
    EERR_FAIL_IF(!std::isfinite(exteriorIn[k]), frame, EMSC_FALSE,
                 L"The exterior orientation is not finite (element %d)", k);

  Mapping m;
  if (!m.from.Init(from, L"source", frame) || !m.to.Init(to, L"target", frame)) return EMSC_FALSE;
  CtxPtr ctx(proj_context_create());
  EERR_FAIL_IF(!ctx, frame, EMSC_FALSE, L"proj_context_create failed");
  proj_log_level(ctx.get(), PJ_LOG_NONE);
  PjPtr shift;
  if (!DatumShift(ctx.get(), from->projection->proParameters, to->projection->proParameters, &shift,
                  frame))
    return EMSC_FALSE;
  m.shift = shift.get();

  // The centre and its six neighbours at +-kStep along each axis.
  const double* c = exteriorIn;
  std::vector<double> x(7, c[0]), y(7, c[1]), z(7, c[2]);
  for (int k = 0; k < 3; ++k) {
    std::vector<double>& axis = k == 0 ? x : k == 1 ? y : z;
    axis[static_cast<size_t>(1 + 2 * k)] += kStep;
    axis[static_cast<size_t>(2 + 2 * k)] -= kStep;
  }
  if (!m.Apply(x, y, z, frame)) return EMSC_FALSE;

  Eigen::Matrix3d J;
  for (int k = 0; k < 3; ++k) {
    const size_t p = static_cast<size_t>(1 + 2 * k), q = p + 1;
    J.col(k) = Eigen::Vector3d(x[p] - x[q], y[p] - y[q], z[p] - z[q]) / (2.0 * kStep);
  }
  EERR_FAIL_IF(!J.allFinite() || !(J.determinant() > 0.0), frame, EMSC_FALSE,
               L"The mapping between the systems is degenerate or reverses handedness");
  // The nearest rotation to J (polar decomposition): the scale of the map
  // projection goes, the convergence of the meridians and the tilt between
  // the two local verticals stay.
  Eigen::JacobiSVD<Eigen::Matrix3d> svd(J, Eigen::ComputeFullU | Eigen::ComputeFullV);
  const Eigen::Matrix3d Q = svd.matrixU() * svd.matrixV().transpose();

  const short code = RotationCode(rotationSystem);
  double r[9];
  epho_RotateAll(c + 3, r, code);
  const Eigen::Matrix3d R = Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(r);
  Eigen::Matrix<double, 3, 3, Eigen::RowMajor> R2 = Q * R;
  double out[6] = {x[0], y[0], z[0], 0.0, 0.0, 0.0};
  epho_GetAngleFromRotMatrix(out + 3, R2.data(), code);
  for (double v : out)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE,
                 L"The reprojected orientation is not finite");
  std::copy(out, out + 6, exteriorOut);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
