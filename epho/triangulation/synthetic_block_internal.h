// Test and benchmark support: a pinhole frame camera with an omega-phi-kappa
// rotation as an exfr sensor-model transform, and synthetic blocks built with
// it (strips of overlapping photographs over a smooth terrain, control, check
// and tie points, Gaussian image noise and polynomial systematic errors).
#ifndef EPHO_TRIANGULATION_SYNTHETIC_BLOCK_INTERNAL_H
#define EPHO_TRIANGULATION_SYNTHETIC_BLOCK_INTERNAL_H

#include <Eigen/Dense>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "epho/triangulation.h"
#include "etxt.h"
#include "exfr.h"

namespace epho::triangulation::synthetic {

// Ground to file pixels: p = M^T (X - C), x = -f p0 / p2, y = -f p1 / p2,
// column = cx + x, row = cy - y; M = Rx(omega) Ry(phi) Rz(kappa).
struct Pinhole {
  Eigen::Vector3d centre;
  Eigen::Matrix3d m;
  double focal_pixels, cx, cy;

  static Pinhole Make(const Eigen::Vector3d& c, double omega, double phi, double kappa, double f,
                      double cx, double cy) {
    Pinhole p;
    p.centre = c;
    p.m = (Eigen::AngleAxisd(omega, Eigen::Vector3d::UnitX()) *
           Eigen::AngleAxisd(phi, Eigen::Vector3d::UnitY()) *
           Eigen::AngleAxisd(kappa, Eigen::Vector3d::UnitZ()))
              .toRotationMatrix();
    p.focal_pixels = f;
    p.cx = cx;
    p.cy = cy;
    return p;
  }
  Eigen::Vector2d Project(const Eigen::Vector3d& g) const {
    const Eigen::Vector3d q = m.transpose() * (g - centre);
    return {cx - focal_pixels * q(0) / q(2), cy + focal_pixels * q(1) / q(2)};
  }
  // d(column, row) / d(X, Y, Z).
  Eigen::Matrix<double, 2, 3> Jacobian(const Eigen::Vector3d& g) const {
    const Eigen::Vector3d q = m.transpose() * (g - centre);
    Eigen::Matrix<double, 2, 3> dq;
    dq << -focal_pixels / q(2), 0, focal_pixels * q(0) / (q(2) * q(2)), 0, focal_pixels / q(2),
        -focal_pixels * q(1) / (q(2) * q(2));
    return dq * m.transpose();
  }
  Eigen::Vector3d Direction(double col, double row) const {
    return m * Eigen::Vector3d(col - cx, cy - row, -focal_pixels);
  }
};

inline Emsc_Boolean PinholeGroundToImage(void* model, long count, const double* g, double* xy,
                                         Eerr_ErrorReport** err) {
  const auto* p = static_cast<const Pinhole*>(model);
  for (long k = 0; k < count; ++k) {
    const Eigen::Vector3d q = p->m.transpose() * (Eigen::Vector3d(g + 3 * k) - p->centre);
    if (!(q(2) < 0.0)) {
      *err = eerr_CreateErrorReport(L"PinholeGroundToImage", 1, 2, nullptr,
                                    L"Point behind the camera", 0);
      return EMSC_FALSE;
    }
    const Eigen::Vector2d v = p->Project(Eigen::Vector3d(g + 3 * k));
    xy[2 * k] = v(0);
    xy[2 * k + 1] = v(1);
  }
  return EMSC_TRUE;
}
inline Emsc_Boolean PinholeRay(void* model, double x, double y, double o[3], double d[3],
                               Eerr_ErrorReport**) {
  const auto* p = static_cast<const Pinhole*>(model);
  const Eigen::Vector3d dir = p->Direction(x, y);
  for (int k = 0; k < 3; ++k) o[k] = p->centre(k), d[k] = dir(k);
  return EMSC_TRUE;
}
inline Emsc_Boolean PinholeToGroundXY(void* model, long count, const double* xy, const double* z,
                                      double* out, Eerr_ErrorReport** err) {
  const auto* p = static_cast<const Pinhole*>(model);
  for (long k = 0; k < count; ++k) {
    const Eigen::Vector3d dir = p->Direction(xy[2 * k], xy[2 * k + 1]);
    if (dir(2) == 0.0) {
      *err = eerr_CreateErrorReport(L"PinholeToGroundXY", 1, 2, nullptr, L"Horizontal ray", 0);
      return EMSC_FALSE;
    }
    const double t = (z[k] - p->centre(2)) / dir(2);
    out[2 * k] = p->centre(0) + t * dir(0);
    out[2 * k + 1] = p->centre(1) + t * dir(1);
  }
  return EMSC_TRUE;
}
inline void* PinholeCopy(const void* model, Eerr_ErrorReport**) {
  return new Pinhole(*static_cast<const Pinhole*>(model));
}
inline void PinholeDestroy(void* model) { delete static_cast<Pinhole*>(model); }

inline const Exfr_SensorModelOps* PinholeOps() {
  static const Exfr_SensorModelOps ops = {"pinhole frame camera",
                                          PinholeGroundToImage,
                                          PinholeRay,
                                          PinholeToGroundXY,
                                          nullptr,
                                          PinholeCopy,
                                          PinholeDestroy};
  return &ops;
}

inline Exfr_XForm* MakePinholeXForm(const Pinhole& p) {
  return exfr_SensorModelXFormCreate(PinholeOps(), new Pinhole(p), nullptr);
}

// Pixels to image units (10 micrometre pixels to millimetres, y up, origin
// at the image centre): offset-first affine.
inline void PixelAffine(int columns, int rows, double a[6]) {
  const double s = 0.01;
  a[0] = -0.5 * columns * s;
  a[1] = s;
  a[2] = 0.0;
  a[3] = 0.5 * rows * s;
  a[4] = 0.0;
  a[5] = -s;
}

struct Options {
  int strips = 3, per_strip = 4;
  int columns = 1000, rows = 1000;
  double focal = 1000.0, height = 1000.0;
  double base = 400.0, strip_gap = 700.0;  // 60 % forward, 30 % side overlap
  double point_spacing = 100.0;
  double noise_pixels = 0.0;
  int per_axis = 3;  // correction terms per axis
  int mode = EPHO_TRI_MODE_WEIGHTED;
  float parameter_std = 0.05f;
  double systematic = 0.002;  // size of the true polynomial terms, image units
  int control_every = 5;      // every k-th grid point in each direction is control
  int check_every = 7;
  int fix_control = 0;
  float control_std = 0.05f;
  unsigned seed = 7;
  double attitude_noise = 0.002;  // radians
};

struct Truth {
  std::map<int32_t, Eigen::Vector3d> points;
  std::vector<Pinhole> cameras;
  std::vector<std::vector<double>> coefficients;  // per image a then b (image units)
};

inline double Terrain(double x, double y) {
  return 100.0 + 40.0 * std::sin(x / 350.0) * std::cos(y / 420.0);
}

inline Etxt_Char* HeapText(const wchar_t* s) { return etxt_Text_strdup(s); }

// Builds a block into a zero-initialised record; the caller frees it with
// epho_FreeTriRefineMemory.
inline void Build(const Options& o, Epho_TriRefineInput* in, Truth* truth) {
  std::mt19937 rng(o.seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::memset(in, 0, sizeof *in);
  in->maximumIterations = 10;
  in->fixControl = static_cast<int16_t>(o.fix_control);
  in->imageStdX = in->imageStdY = 0.5f;
  in->convergenceThreshold = 1e-4f;
  in->groundXYUnits = HeapText(L"meters");
  in->groundZUnits = HeapText(L"meters");
  const int images = o.strips * o.per_strip;
  in->imageCount = images;
  in->images = static_cast<Epho_TriImage*>(emsc_HeapCalloc(images, sizeof(Epho_TriImage)));
  truth->cameras.clear();
  truth->coefficients.assign(images, {});
  for (int s = 0; s < o.strips; ++s)
    for (int k = 0; k < o.per_strip; ++k) {
      const Eigen::Vector3d c(k * o.base, s * o.strip_gap, o.height + 100.0);
      truth->cameras.push_back(
          Pinhole::Make(c, o.attitude_noise * gauss(rng), o.attitude_noise * gauss(rng),
                        o.attitude_noise * gauss(rng), o.focal, 0.5 * o.columns, 0.5 * o.rows));
    }
  // Ground points on a grid over the block.
  const double x1 = (o.per_strip - 1) * o.base + 400.0, y1 = (o.strips - 1) * o.strip_gap + 400.0;
  std::vector<Epho_TriGroundPoint> ground;
  std::vector<std::pair<int32_t, Eigen::Vector3d>> all;
  int32_t id = 1000;
  int gi = 0;
  for (double y = -400.0; y <= y1; y += o.point_spacing, ++gi) {
    int gj = 0;
    for (double x = -400.0; x <= x1; x += o.point_spacing, ++gj) {
      const Eigen::Vector3d g(x + 13.0 * gauss(rng), y + 13.0 * gauss(rng), 0.0);
      const Eigen::Vector3d p(g(0), g(1), Terrain(g(0), g(1)));
      ++id;
      int seen = 0;
      for (const Pinhole& cam : truth->cameras) {
        const Eigen::Vector2d px = cam.Project(p);
        seen += px(0) >= 5 && px(1) >= 5 && px(0) <= o.columns - 5 && px(1) <= o.rows - 5;
      }
      all.emplace_back(id, p);
      truth->points[id] = p;
      Epho_TriGroundPoint q{};
      q.pointID = id;
      q.X = p(0);
      q.Y = p(1);
      q.Z = p(2);
      if (seen < 2) continue;
      if (o.control_every > 0 && gi % o.control_every == 0 && gj % o.control_every == 0) {
        q.usage = EPHO_TRI_USAGE_CONTROL;
        q.stdX = q.stdY = q.stdZ = o.control_std;
        ground.push_back(q);
      } else if (o.check_every > 0 && gi % o.check_every == 3 && gj % o.check_every == 3) {
        q.usage = EPHO_TRI_USAGE_CHECK;
        ground.push_back(q);
      }
    }
  }
  in->groundPointCount = static_cast<int32_t>(ground.size());
  in->groundPoints = static_cast<Epho_TriGroundPoint*>(
      emsc_HeapMalloc(sizeof(Epho_TriGroundPoint) * (ground.size() + 1)));
  std::copy(ground.begin(), ground.end(), in->groundPoints);

  for (int i = 0; i < images; ++i) {
    Epho_TriImage& im = in->images[i];
    im.imageID = 1 + i;
    im.columns = o.columns;
    im.rows = o.rows;
    im.xform = MakePinholeXForm(truth->cameras[i]);
    PixelAffine(o.columns, o.rows, im.affine);
    const int n = o.per_axis;
    im.parameterCount = static_cast<int16_t>(2 * n);
    im.parameterMode = static_cast<int16_t>(o.mode);
    im.initialValues = static_cast<double*>(emsc_HeapCalloc(2 * n, sizeof(double)));
    im.standardDeviations = static_cast<float*>(emsc_HeapMalloc(2 * n * sizeof(float)));
    for (int k = 0; k < 2 * n; ++k) im.standardDeviations[k] = o.parameter_std;
    // True systematic error (image units), normalised by the image extent.
    const double ex =
        std::fabs(im.affine[0] + im.affine[1] * o.rows + im.affine[2] * o.columns) * 0.85;
    const double ey =
        std::fabs(im.affine[3] + im.affine[4] * o.rows + im.affine[5] * o.columns) * 0.85;
    const double scale[6] = {
        1.0, 1.0 / ex, 1.0 / ey, 1.0 / (ex * ex), 1.0 / (ex * ey), 1.0 / (ey * ey)};
    std::vector<double>& coef = truth->coefficients[i];
    coef.assign(2 * n, 0.0);
    for (int k = 0; k < 2 * n; ++k) coef[k] = o.systematic * gauss(rng) * scale[k % n];
    std::vector<Epho_TriImagePoint> pts;
    for (const auto& [pid, p] : all) {
      const Eigen::Vector2d px = truth->cameras[i].Project(p);
      if (px(0) < 5 || px(1) < 5 || px(0) > o.columns - 5 || px(1) > o.rows - 5) continue;
      // Image units of the true point plus noise, then the measurement that
      // the systematic error displaces: x_m - poly(x_m) = x_true.
      const double xt = im.affine[0] + im.affine[1] * px(0) + im.affine[2] * px(1) +
                        0.01 * o.noise_pixels * gauss(rng);
      const double yt = im.affine[3] + im.affine[4] * px(0) + im.affine[5] * px(1) +
                        0.01 * o.noise_pixels * gauss(rng);
      double xm = xt, ym = yt;
      for (int iter = 0; iter < 50; ++iter) {
        const double u[6] = {1, xm, ym, xm * xm, xm * ym, ym * ym};
        double dx = 0, dy = 0;
        for (int k = 0; k < n; ++k) dx += coef[k] * u[k], dy += coef[n + k] * u[k];
        xm = xt + dx;
        ym = yt + dy;
      }
      // Back to pixels: the inverse of the affine above.
      Epho_TriImagePoint q{};
      q.pointID = pid;
      q.x = (xm - im.affine[0]) / im.affine[1];
      q.y = (ym - im.affine[3]) / im.affine[5];
      pts.push_back(q);
    }
    im.imagePointCount = static_cast<int32_t>(pts.size());
    im.imagePoints = static_cast<Epho_TriImagePoint*>(
        emsc_HeapMalloc(sizeof(Epho_TriImagePoint) * (pts.size() + 1)));
    std::copy(pts.begin(), pts.end(), im.imagePoints);
  }
}

}  // namespace epho::triangulation::synthetic

#endif  // EPHO_TRIANGULATION_SYNTHETIC_BLOCK_INTERNAL_H
