// COLMAP cameras and poses to frame cameras and back.
//
// Axes. The frame camera's vector of a ground point P is (u, v, w) =
// R^T (P - C), R the rotation of its angles, C the perspective centre, and
// film x = -f u / w, y = -f v / w: x right, y up, the camera looking along -w.
// COLMAP's camera frame has x right, y down and looks along +z, so its
// world-to-camera rotation is D R^T with D = diag(1, -1, -1), and its
// normalised coordinates are (u / -w, -v / -w) = (x / f, -y / f).
//
// Pixels. Our file pixels and COLMAP's both put the upper-left corner of the
// upper-left pixel at (0, 0) and its centre at (0.5, 0.5), so pixel
// coordinates carry over unchanged.
//
// Lens. COLMAP distorts normalised coordinates; our lens records distort film
// coordinates (x_film = f x_norm), so a coefficient of r^(2k) is divided by
// f^(2k) (tangential terms by f) on the way in and multiplied on the way out.
#include <Eigen/Geometry>
#include <cmath>
#include <cstring>
#include <map>

#include "epho/angles.h"
#include "epho/interchange/interchange.h"
#include "epho/interchange/line_reader_internal.h"

namespace epho::interchange {

namespace {

// Radial record (count 3): dx = x (p0 + p1 r^2 + p2 r^4), film units.
constexpr int kRadialCount = 3;
// Radial-tangential record (count 11, model code 2): with R = p4 r^2 + p5 r^4
// + p6 r^6, dx = -(x R + (2x^2 + r^2) p7 + 2xy p8 + p9 x + p10 y),
// dy = -(y R + (2y^2 + r^2) p8 + 2xy p7); p1 a model scale that must not be 0.
constexpr int kTangentialCount = 11;
constexpr int kTangentialCode = 2;
// Relative size below which a skew or rotation term of the pixel affine
// counts as zero.
constexpr double kAxisTolerance = 1e-12;

struct ModelInfo {
  const char* name;
  int params;
};
const ModelInfo kModels[] = {{"SIMPLE_PINHOLE", 3}, {"PINHOLE", 4}, {"SIMPLE_RADIAL", 4},
                             {"RADIAL", 5},         {"OPENCV", 8},  {"FULL_OPENCV", 12}};

// The intrinsics every supported model reduces to.
struct Intrinsics {
  double fx = 0, fy = 0, cx = 0, cy = 0;
  double k1 = 0, k2 = 0, k3 = 0, p1 = 0, p2 = 0;
};

Intrinsics FromParams(const ColmapCamera& c) {
  const std::vector<double>& p = c.params;
  Intrinsics in;
  const std::string& m = c.model;
  if (m == "SIMPLE_PINHOLE" || m == "SIMPLE_RADIAL" || m == "RADIAL") {
    in.fx = in.fy = p[0];
    in.cx = p[1], in.cy = p[2];
    if (m != "SIMPLE_PINHOLE") in.k1 = p[3];
    if (m == "RADIAL") in.k2 = p[4];
  } else {
    in.fx = p[0], in.fy = p[1], in.cx = p[2], in.cy = p[3];
    if (m == "OPENCV" || m == "FULL_OPENCV") {
      in.k1 = p[4], in.k2 = p[5], in.p1 = p[6], in.p2 = p[7];
    }
    if (m == "FULL_OPENCV") {
      in.k3 = p[8];
      if (p[9] != 0 || p[10] != 0 || p[11] != 0)
        throw InterchangeError({"camera " + std::to_string(c.id) +
                                ": FULL_OPENCV with a rational radial term (k4, k5, k6 not 0) "
                                "cannot be held by the frame camera's lens models"});
    }
  }
  return in;
}

// The simplest supported model that holds the intrinsics exactly.
void ToParams(const Intrinsics& in, ColmapCamera* c) {
  const bool square = in.fx == in.fy;
  const bool tangential = in.p1 != 0 || in.p2 != 0;
  if (in.k3 != 0) {
    c->model = "FULL_OPENCV";
    c->params = {in.fx, in.fy, in.cx, in.cy, in.k1, in.k2, in.p1, in.p2, in.k3, 0, 0, 0};
  } else if (tangential || (!square && (in.k1 != 0 || in.k2 != 0))) {
    c->model = "OPENCV";
    c->params = {in.fx, in.fy, in.cx, in.cy, in.k1, in.k2, in.p1, in.p2};
  } else if (!square) {
    c->model = "PINHOLE";
    c->params = {in.fx, in.fy, in.cx, in.cy};
  } else if (in.k2 != 0) {
    c->model = "RADIAL";
    c->params = {in.fx, in.cx, in.cy, in.k1, in.k2};
  } else if (in.k1 != 0) {
    c->model = "SIMPLE_RADIAL";
    c->params = {in.fx, in.cx, in.cy, in.k1};
  } else {
    c->model = "SIMPLE_PINHOLE";
    c->params = {in.fx, in.cx, in.cy};
  }
}

bool SetDoubles(Epho_CountedDoubles* v, const std::vector<double>& values) {
  emsc_HeapFree(v->data);
  v->data = nullptr;
  v->count = 0;
  if (values.empty()) return true;
  v->data = static_cast<double*>(emsc_MemDup(values.data(), values.size() * sizeof(double)));
  if (!v->data) return false;
  v->count = static_cast<int32_t>(values.size());
  return true;
}

short AngleCode(int32_t rotationSystem) {
  return rotationSystem == EPHO_OMEGA_PHI_KAPPA ? 2 : rotationSystem == 1 ? 1 : 0;
}

Eigen::Matrix3d RotationOf(const Epho_Camera& c) {
  double R[9];
  epho_RotateAll(c.coeffs + 6, R, AngleCode(c.RotationSystem));
  Eigen::Matrix3d m;
  m << R[0], R[1], R[2], R[3], R[4], R[5], R[6], R[7], R[8];
  return m;
}

const Eigen::Matrix3d kFlipYZ = Eigen::Vector3d(1, -1, -1).asDiagonal();

// Angles of rotation R in one of the camera's systems, chosen so that the
// angles give R back (omega-phi-kappa unless phi is too near 90 degrees).
void SetAngles(const Eigen::Matrix3d& R, Epho_Camera* c) {
  double r[9];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r[3 * i + j] = R(i, j);
  double best = 1e300;
  for (int32_t system : {EPHO_OMEGA_PHI_KAPPA, EPHO_PHIPLUS_OMEGA_KAPPA}) {
    double a[3], back[9];
    epho_GetAngleFromRotMatrix(a, r, AngleCode(system));
    epho_RotateAll(a, back, AngleCode(system));
    double err = 0;
    for (int k = 0; k < 9; ++k) err = std::max(err, std::fabs(back[k] - r[k]));
    if (err < best) {
      best = err;
      c->RotationSystem = system;
      std::memcpy(c->coeffs + 6, a, sizeof a);
    }
    if (err < 1e-12) break;
  }
}

}  // namespace

int ColmapParamCount(const std::string& model) {
  for (const ModelInfo& m : kModels)
    if (model == m.name) return m.params;
  return 0;
}

CameraPtr CameraFromColmap(const ColmapCamera& colmap, const std::array<double, 4>& q,
                           const std::array<double, 3>& t) {
  if (ColmapParamCount(colmap.model) == 0 ||
      colmap.params.size() != static_cast<size_t>(ColmapParamCount(colmap.model)))
    throw InterchangeError({"camera " + std::to_string(colmap.id) + ": model " + colmap.model +
                            " with " + std::to_string(colmap.params.size()) +
                            " parameters is not supported"});
  const Intrinsics in = FromParams(colmap);
  if (!(in.fx > 0) || !(in.fy > 0))
    throw InterchangeError(
        {"camera " + std::to_string(colmap.id) + ": focal lengths must be positive"});
  CameraPtr camera(epho_CameraCreate(nullptr));
  if (!camera) throw std::bad_alloc();
  Epho_Camera& c = *camera;
  // Film units are pixels of the x axis: focal fx, film x = column - cx and
  // film y = -(row - cy) fx / fy.
  const double f = in.fx, sy = in.fx / in.fy;
  c.coeffs[0] = f;
  const double forSrc[6] = {1, 0, -in.cx, 0, -sy, in.cy * sy};
  const double invSrc[6] = {1, 0, in.cx, 0, -1 / sy, in.cy};
  std::memcpy(c.forSrcAffine, forSrc, sizeof forSrc);
  std::memcpy(c.invSrcAffine, invSrc, sizeof invSrc);
  const double f2 = f * f;
  bool ok = true;
  if (in.p1 != 0 || in.p2 != 0 || in.k3 != 0) {
    // Tangential terms flip with the y axis: see the header comment.
    ok = SetDoubles(&c.LensDistortion,
                    {double(kTangentialCode), 1.0, 0.0, 0.0, -in.k1 / f2, -in.k2 / (f2 * f2),
                     -in.k3 / (f2 * f2 * f2), -in.p2 / f, in.p1 / f, 0.0, 0.0});
  } else if (in.k1 != 0 || in.k2 != 0) {
    ok = SetDoubles(&c.LensDistortion, {0.0, in.k1 / f2, in.k2 / (f2 * f2)});
  }
  if (!ok) throw std::bad_alloc();

  Eigen::Quaterniond quat(q[0], q[1], q[2], q[3]);
  const double norm = quat.norm();
  if (!(norm > 0) || !std::isfinite(norm))
    throw InterchangeError({"image of camera " + std::to_string(colmap.id) +
                            ": the rotation quaternion is zero or not finite"});
  quat.normalize();
  const Eigen::Matrix3d Rcw = quat.toRotationMatrix();
  const Eigen::Vector3d centre = -Rcw.transpose() * Eigen::Vector3d(t[0], t[1], t[2]);
  SetAngles(Rcw.transpose() * kFlipYZ, &c);
  c.coeffs[3] = centre.x(), c.coeffs[4] = centre.y(), c.coeffs[5] = centre.z();
  c.direction = EMOD_FORWARD;
  c.demsource = EMOD_DEM_CONSTANT;
  return camera;
}

void ColmapFromCamera(const Epho_Camera& c, int32_t columns, int32_t rows, ColmapCamera* colmap,
                      std::array<double, 4>* q, std::array<double, 3>* t) {
  auto refuse = [](const std::string& why) {
    throw InterchangeError({"the camera cannot be written as a COLMAP camera: " + why});
  };
  if (c.refType != EMOD_CARTESIAN) refuse("it works in a tangent plane");
  if (c.PhotoDirection != EPHO_Z_DIRECTION)
    refuse(c.PhotoDirection == EPHO_Y_DIRECTION
               ? "it is a Y-direction (terrestrial) photograph"
               : "it applies the refraction or earth-curvature correction");
  const double f = c.coeffs[0];
  if (!(f > 0)) refuse("its focal length is not positive");
  // Film to pixels (the side a ground-to-image projection ends on): col =
  // a0 x + a1 y + a2, row = a3 x + a4 y + a5. COLMAP needs the columns along
  // film x and the rows against film y; the pixels-to-film affine must be
  // its inverse, or the camera would project one way and measure another.
  const double* a = c.invSrcAffine;
  const double* b = c.forSrcAffine;
  const double scale = std::max(std::fabs(a[0]), std::fabs(a[4]));
  if (!(a[0] > 0) || !(a[4] < 0) || std::fabs(a[1]) > kAxisTolerance * scale ||
      std::fabs(a[3]) > kAxisTolerance * scale)
    refuse("its pixel axes are not the film axes (x along the columns, y against the rows)");
  {
    // Film points of the image's corners through both affines.
    bool inverse = true;
    for (const double col : {0.0, double(columns)})
      for (const double row : {0.0, double(rows)}) {
        const double x = b[0] * col + b[1] * row + b[2], y = b[3] * col + b[4] * row + b[5];
        const double col2 = a[0] * x + a[1] * y + a[2], row2 = a[3] * x + a[4] * y + a[5];
        inverse = inverse && std::fabs(col2 - col) <= 1e-6 && std::fabs(row2 - row) <= 1e-6;
      }
    if (!inverse) refuse("its film-to-pixel affine is not the inverse of its pixel-to-film one");
  }
  Intrinsics in;
  in.fx = f * a[0];
  in.fy = -f * a[4];
  in.cx = a[2];
  in.cy = a[5];

  // Lens: a constant radial term p0 scales the focal length exactly:
  // x (1 + p0 + p1 r^2 + ...) = (1 + p0) x (1 + p1 / (1 + p0) r^2 + ...).
  const Epho_CountedDoubles& lens = c.LensDistortion;
  const Epho_CountedDoubles& extra = c.AdditionalParameters;
  if (extra.count >= 1 && extra.data) {
    const double code = std::floor(extra.data[0] + 0.5);
    if (code >= 1 && code <= 7) refuse("it has additional parameters (self-calibration terms)");
  }
  const double f2 = f * f;
  if (lens.count >= 1 && lens.data) {
    const double* p = lens.data;
    const double code = std::floor(p[0] + 0.5);
    if (lens.count == kRadialCount || (lens.count == 5 && code == 0)) {
      const double* k = lens.count == kRadialCount ? p : p + 1;
      const double s = 1 + k[0];
      if (!(s > 0)) refuse("its radial distortion turns the image over");
      in.fx *= s, in.fy *= s;
      in.k1 = k[1] * f2 / s;
      in.k2 = k[2] * f2 * f2 / s;
    } else if (lens.count == kTangentialCount && code == kTangentialCode && p[1] != 0) {
      if (p[9] != 0 || p[10] != 0) refuse("its lens model has affinity terms");
      in.k1 = -p[4] * f2;
      in.k2 = -p[5] * f2 * f2;
      in.k3 = -p[6] * f2 * f2 * f2;
      in.p2 = -p[7] * f;
      in.p1 = p[8] * f;
    } else if ((lens.count == 26 && code == 1) || (lens.count == 13 && code == 3)) {
      refuse("its extended lens model has no COLMAP equivalent");
    }
  }
  colmap->id = 0;
  colmap->width = columns;
  colmap->height = rows;
  ToParams(in, colmap);

  const Eigen::Matrix3d Rcw = kFlipYZ * RotationOf(c).transpose();
  Eigen::Quaterniond quat(Rcw);
  quat.normalize();
  if (quat.w() < 0) quat.coeffs() *= -1;  // one of the two equal quaternions: w >= 0
  const Eigen::Vector3d tv = -Rcw * Eigen::Vector3d(c.coeffs[3], c.coeffs[4], c.coeffs[5]);
  *q = {quat.w(), quat.x(), quat.y(), quat.z()};
  *t = {tv.x(), tv.y(), tv.z()};
}

bool ColmapProject(const ColmapCamera& camera, const std::array<double, 4>& q,
                   const std::array<double, 3>& t, const double X[3], double pixel[2]) {
  Eigen::Quaterniond quat(q[0], q[1], q[2], q[3]);
  quat.normalize();
  const Eigen::Vector3d p = quat.toRotationMatrix() * Eigen::Vector3d(X[0], X[1], X[2]) +
                            Eigen::Vector3d(t[0], t[1], t[2]);
  if (!(p.z() > 0)) return false;
  const double u = p.x() / p.z(), v = p.y() / p.z();
  Intrinsics in;
  const std::vector<double>& prm = camera.params;
  double k4 = 0, k5 = 0, k6 = 0;
  if (camera.model == "FULL_OPENCV") {
    in.fx = prm[0], in.fy = prm[1], in.cx = prm[2], in.cy = prm[3];
    in.k1 = prm[4], in.k2 = prm[5], in.p1 = prm[6], in.p2 = prm[7], in.k3 = prm[8];
    k4 = prm[9], k5 = prm[10], k6 = prm[11];
  } else {
    in = FromParams(camera);
  }
  const double u2 = u * u, v2 = v * v, uv = u * v, r2 = u2 + v2;
  const double radial = (1 + in.k1 * r2 + in.k2 * r2 * r2 + in.k3 * r2 * r2 * r2) /
                        (1 + k4 * r2 + k5 * r2 * r2 + k6 * r2 * r2 * r2);
  const double du = u * radial + 2 * in.p1 * uv + in.p2 * (r2 + 2 * u2);
  const double dv = v * radial + 2 * in.p2 * uv + in.p1 * (r2 + 2 * v2);
  pixel[0] = in.fx * du + in.cx;
  pixel[1] = in.fy * dv + in.cy;
  return true;
}

}  // namespace epho::interchange
