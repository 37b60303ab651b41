// Exterior orientation carried from one ground system to another: the
// perspective centre through the toolkit's 3D reprojection (datum shifts and
// geoid heights included), the rotation through the local rotation between
// the two ground frames at the centre.
#include <Eigen/Dense>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "emod.h"
#include "epho/angles.h"
#include "epho/camera.h"
#include "epho/reprojection.h"
#include "platform/eerr/error_frame.h"

namespace epho::reprojection {
namespace {

// Half the step of the central differences, metres. The mapping's third
// derivatives are of order 1/R² (R the earth radius), so the truncation error
// of the Jacobian is about (100 m / 6400 km)² / 6 = 4e-11; the rounding error,
// a few nanometres of PROJ's arithmetic over 200 m, is of the same order.
constexpr double kStep = 100.0;

template <typename T, void (*Free)(T*)>
struct FnDeleter {
  void operator()(T* p) const { Free(p); }
};
using ParamsPtr =
    std::unique_ptr<Eprj_ProParameters, FnDeleter<Eprj_ProParameters, eprj_ProParametersFree>>;
using HeightsPtr =
    std::unique_ptr<Eprj_ElevationInfo, FnDeleter<Eprj_ElevationInfo, eprj_ElevationInfoFree>>;
using Projection3DPtr =
    std::unique_ptr<Eprj_3DProjection, FnDeleter<Eprj_3DProjection, eprj_3DProjectionFree>>;

// One ground system: its end of the 3D reprojection (a map system with its
// heights, or the geographic system of a tangent plane's datum with
// ellipsoidal heights) and, for a tangent plane, its frame.
struct System {
  const Epho_ExteriorSystem* def = nullptr;
  double a = 0.0, e2 = 0.0;
  double frame[EMOD_TANGENT_FRAME_SIZE] = {};
  ParamsPtr geographic;    // tangent plane only
  HeightsPtr ellipsoidal;  // map heights with the same unit, on the ellipsoid

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
    if (s->kind == EPHO_EXTERIOR_TANGENT_PLANE) return InitTangentPlane(s, p, which, f);
    if (s->kind != EPHO_EXTERIOR_MAP) {
      f.Fail(__LINE__, L"The %s system kind %d is unknown", which, static_cast<int>(s->kind));
      return false;
    }
    if (p->proType == EPRJ_INTERNAL && p->proNumber == EPRJ_LATLONG) {
      f.Fail(__LINE__, L"The %s system is geographic: it has no Cartesian frame for a camera",
             which);
      return false;
    }
    if (s->heights && eprj_IsDatumVertical(s->heights->datumName)) {
      const Eprj_ElevationInfo* h = s->heights;
      ellipsoidal.reset(eprj_ElevationInfoCreateByName(h->spheroidName, nullptr, h->elevationUnit,
                                                       h->elevationType, f.Callee()));
      if (!ellipsoidal) {
        f.Fail(__LINE__, L"eprj_ElevationInfoCreateByName failed");
        return false;
      }
    }
    return true;
  }

  bool InitTangentPlane(const Epho_ExteriorSystem* s, const Eprj_ProParameters* p,
                        const wchar_t* which, kzdv::ErrorFrame& f) {
    if (!std::isfinite(s->lat0) || !std::isfinite(s->lon0) || !std::isfinite(s->h0) ||
        std::fabs(s->lat0) > M_PI / 2) {
      f.Fail(__LINE__, L"The %s tangent-plane origin is not a geographic position", which);
      return false;
    }
    if (s->heights) {
      f.Fail(__LINE__,
             L"The %s system is a tangent plane: its z is Cartesian and takes no elevation info",
             which);
      return false;
    }
    if (!emod_DeriveTp2GcTransform(s->lat0, s->lon0, s->h0, a, e2, frame)) {
      f.Fail(__LINE__, L"emod_DeriveTp2GcTransform failed for the %s system", which);
      return false;
    }
    geographic.reset(eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr,
                                              nullptr, nullptr, f.Callee()));
    if (geographic) geographic->proSpheroid = eprj_SpheroidCopy(p->proSpheroid, f.Callee());
    if (!geographic || !geographic->proSpheroid) {
      f.Fail(__LINE__, L"The geographic system of the %s tangent plane cannot be made", which);
      return false;
    }
    return true;
  }

  // The end of the 3D reprojection and its heights; `frame_heights` asks
  // for ellipsoidal heights in place of geoid heights.
  const Eprj_ProParameters* End() const {
    return geographic ? geographic.get() : def->projection->proParameters;
  }
  const Eprj_ElevationInfo* Heights(bool frame_heights) const {
    if (geographic) return nullptr;
    return frame_heights && ellipsoidal ? ellipsoidal.get() : def->heights;
  }

  // Tangent plane to longitude, latitude (radians), ellipsoidal height, in
  // place; map systems are left as they are.
  bool TangentToGeographic(std::vector<double>& x, std::vector<double>& y, std::vector<double>& z,
                           kzdv::ErrorFrame& f) const {
    for (size_t i = 0; geographic && i < x.size(); ++i) {
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

  bool GeographicToTangent(std::vector<double>& x, std::vector<double>& y, std::vector<double>& z,
                           kzdv::ErrorFrame& f) const {
    for (size_t i = 0; geographic && i < x.size(); ++i) {
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

// The point mapping of the whole chain, in place: tangent plane to
// geographic, the 3D reprojection between the two ends, geographic to
// tangent plane.
struct Mapping {
  System from, to;

  Projection3DPtr Create(bool frame_heights, kzdv::ErrorFrame& f) const {
    Projection3DPtr p(eprj_3DProjectionCreate(from.End(), from.Heights(frame_heights), to.End(),
                                              to.Heights(frame_heights), f.Callee()));
    if (!p) f.Fail(__LINE__, L"The two ground systems cannot be related");
    return p;
  }

  bool Apply(const Eprj_3DProjection* p, std::vector<double>& x, std::vector<double>& y,
             std::vector<double>& z, kzdv::ErrorFrame& f) const {
    if (!from.TangentToGeographic(x, y, z, f)) return false;
    if (!eprj_3DProject(p, static_cast<long>(x.size()), x.data(), y.data(), z.data(), f.Callee())) {
      f.Fail(__LINE__, L"The perspective centre cannot be carried to the target system");
      return false;
    }
    return to.GeographicToTangent(x, y, z, f);
  }

  bool NeedsFrameHeights() const { return from.ellipsoidal || to.ellipsoidal; }
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
  // The centre goes through the heights' own kinds. The rotation is that of
  // the ellipsoidal frames: a geoid's slope (a few arc-seconds) is the
  // deflection of the plumb line, not a turn of the map frame, so it must not
  // tilt the camera.
  Projection3DPtr centre = m.Create(false, frame);
  if (!centre) return EMSC_FALSE;
  Projection3DPtr ellipsoidal = m.NeedsFrameHeights() ? m.Create(true, frame) : nullptr;
  if (m.NeedsFrameHeights() && !ellipsoidal) return EMSC_FALSE;
  const Eprj_3DProjection* rotation = ellipsoidal ? ellipsoidal.get() : centre.get();

  // The centre and its six neighbours at +-kStep along each axis.
  const double* c = exteriorIn;
  std::vector<double> x(7, c[0]), y(7, c[1]), z(7, c[2]);
  for (int k = 0; k < 3; ++k) {
    std::vector<double>& axis = k == 0 ? x : k == 1 ? y : z;
    axis[static_cast<size_t>(1 + 2 * k)] += kStep;
    axis[static_cast<size_t>(2 + 2 * k)] -= kStep;
  }
  if (!m.Apply(rotation, x, y, z, frame)) return EMSC_FALSE;
  std::vector<double> cx(1, x[0]), cy(1, y[0]), cz(1, z[0]);
  if (ellipsoidal) {
    cx[0] = c[0], cy[0] = c[1], cz[0] = c[2];
    if (!m.Apply(centre.get(), cx, cy, cz, frame)) return EMSC_FALSE;
  }

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
  double out[6] = {cx[0], cy[0], cz[0], 0.0, 0.0, 0.0};
  epho_GetAngleFromRotMatrix(out + 3, R2.data(), code);
  for (double v : out)
    EERR_FAIL_IF(!std::isfinite(v), frame, EMSC_FALSE,
                 L"The reprojected orientation is not finite");
  std::copy(out, out + 6, exteriorOut);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
