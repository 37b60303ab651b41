// The bundle iteration: Gauss-Newton on the image observations, the control
// observations and the parameter priors, with the ground points eliminated
// point by point so that only the parameters' reduced normal equations are
// solved. Observation equations, with P the accumulated parameter
// corrections and l the misclosure in image units:
//     -t . dP + J . dX = l = corrected measurement - projection(X),
// where the corrected measurement is x - sum (a_initial - P) t, so that
// d(corrected)/dP = +t; control: dX = given - current; prior: dP = -P.
#include <algorithm>
#include <cmath>
#include <new>

#include "epho/solvers.h"
#include "epho/triangulation/reduced_system_internal.h"
#include "epho/triangulation/triangulation_internal.h"

namespace epho::triangulation {

void PolynomialTerms(const Epho_TriImage& image, int per_axis, double x, double y, double* t) {
  const double u[6] = {1.0, x, y, x * x, x * y, y * y};
  for (int k = 0; k < per_axis; ++k) t[k] = u[k] * static_cast<double>(image.normalisation[k]);
}

void CorrectedPixel(const Epho_TriImage& image, int per_axis, double x, double y, double* col,
                    double* row) {
  double t[6];
  PolynomialTerms(image, per_axis, x, y, t);
  double dx = 0.0, dy = 0.0;
  for (int k = 0; k < per_axis; ++k) {
    const double* a = image.initialValues;
    const double* p = image.currentParameters;
    dx += (a[k] - p[k]) * t[k];
    dy += (a[per_axis + k] - p[per_axis + k]) * t[k];
  }
  const double xc = x - dx, yc = y - dy;
  const double* ia = image.inverseAffine;
  *col = ia[0] + ia[1] * xc + ia[2] * yc;
  *row = ia[3] + ia[4] * xc + ia[5] * yc;
}

namespace {

// Image-unit misclosure of one ray and its derivatives with respect to the
// point, by central differences through the image's transform.
struct RayLinearisation {
  double lx, ly;
  double jx[3], jy[3];
};

class Linearizer {
 public:
  explicit Linearizer(const Block& b) : b_(b) {}

  bool Run(const Ray& ray, const Epho_TriGroundPoint& p, RayLinearisation* out) {
    const Epho_TriImage& im = b_.images[ray.image];
    const Settings& s = b_.settings;
    double h[3];
    const double coord[3] = {p.X, p.Y, p.Z};
    const double base[3] = {s.ground_step_xy, s.ground_step_xy, s.ground_step_z};
    for (int k = 0; k < 3; ++k)
      h[k] = std::max(base[k] / s.step_divisor, s.step_floor * std::max(1.0, std::fabs(coord[k])));
    double g[21];
    for (int q = 0; q < 7; ++q) std::copy(coord, coord + 3, g + 3 * q);
    for (int k = 0; k < 3; ++k) {
      g[3 * (1 + 2 * k) + k] += h[k];
      g[3 * (2 + 2 * k) + k] -= h[k];
    }
    double px[14];
    Eerr_ErrorReport* err = nullptr;
    const bool ok = exfr_GroundToImage(im.xform, 7, g, px, &err) != EMSC_FALSE;
    eerr_DeleteErrorReportEx(&err);
    if (!ok) return false;
    const double* c = im.affine;
    for (int k = 0; k < 3; ++k) {
      const double dc = (px[2 * (1 + 2 * k)] - px[2 * (2 + 2 * k)]) / (2.0 * h[k]);
      const double dr = (px[2 * (1 + 2 * k) + 1] - px[2 * (2 + 2 * k) + 1]) / (2.0 * h[k]);
      out->jx[k] = c[1] * dc + c[2] * dr;
      out->jy[k] = c[4] * dc + c[5] * dr;
    }
    double col, row;
    CorrectedPixel(im, b_.PerAxis(ray.image), ray.x, ray.y, &col, &row);
    const double ex = col - px[0], ey = row - px[1];
    out->lx = c[1] * ex + c[2] * ey;
    out->ly = c[4] * ex + c[5] * ey;
    return std::isfinite(out->lx) && std::isfinite(out->ly);
  }

 private:
  const Block& b_;
};

// Which coordinates of point p are unknowns.
void UnknownMask(const Block& b, int p, bool mask[3]) {
  mask[0] = mask[1] = mask[2] = true;
  if (!b.settings.fixed_control || !b.IsControl(p)) return;
  if (p < b.n_full) {
    mask[0] = mask[1] = mask[2] = false;
  } else if (p < b.n_full + b.n_horizontal) {
    mask[0] = mask[1] = false;
  } else {
    mask[2] = false;
  }
}

// Inverse of the point block on its unknown coordinates (zero elsewhere).
bool InvertPointBlock(const double n[9], const bool mask[3], double m[9]) {
  std::fill(m, m + 9, 0.0);
  const int free = mask[0] + mask[1] + mask[2];
  if (free == 0) return true;
  if (free == 3) {
    std::copy(n, n + 9, m);
    return !epho_Reverse3S(m);
  }
  if (free == 1) {  // Z only
    if (n[8] == 0.0) return false;
    m[8] = 1.0 / n[8];
    return true;
  }
  const double det = n[0] * n[4] - n[1] * n[1];  // X and Y
  if (det == 0.0) return false;
  m[0] = n[4] / det;
  m[4] = n[0] / det;
  m[1] = m[3] = -n[1] / det;
  return true;
}

struct PointState {
  double m[9];  // inverse block
  double b[3];  // right-hand side
};

}  // namespace

bool RunBundle(Block& b, Report& r, kzdv::ErrorFrame& frame) {
  Settings& s = b.settings;
  BundleResult& res = b.result;
  res = BundleResult();
  r.Printf(L"\n\n               OUTPUT OF BUNDLE BLOCK REFINEMENT\n");

  // Counting.
  long rays = 0, taking = 0;
  for (int p = 0; p < b.PointCount(); ++p) {
    if (!b.TakesPart(p)) continue;
    ++taking;
    rays += b.Overlap(p);
  }
  long observations = 2 * rays;
  for (int i = 0; i < b.image_count; ++i)
    if (b.images[i].parameterMode != EPHO_TRI_MODE_FREE) observations += 2 * b.PerAxis(i);
  const long control_coords = 3L * b.n_full + 2L * b.n_horizontal + b.n_vertical;
  if (!s.fixed_control) observations += control_coords;
  long unknowns = 3 * taking + b.n_params;
  if (s.fixed_control) unknowns -= control_coords;
  if (observations < unknowns || observations < 1) {
    r.Printf(L"\n      Error: Unknowns are more than observations !");
    if (control_coords < 7) {
      frame.Fail(kSiteUnknowns, L"Unknowns are more than observations!");
      return false;
    }
  }
  const long redundancy = observations - unknowns;
  // A block without redundancy still runs; its s0 is then the bare square
  // sum (divided by 1).
  const double divisor = redundancy > 0 ? static_cast<double>(redundancy) : 1.0;
  s.step_divisor *= 0.75;

  bool any_free = false;
  for (int i = 0; i < b.image_count; ++i)
    any_free = any_free || b.images[i].parameterMode == EPHO_TRI_MODE_FREE;
  const bool skip_elimination =
      any_free && b.n_full == 0 && (b.n_horizontal == 0 || b.n_vertical == 0);

  std::vector<int> sizes(b.image_count);
  for (int i = 0; i < b.image_count; ++i) sizes[i] = 2 * b.PerAxis(i);
  std::unique_ptr<ReducedSystem> system;
  std::vector<PointState> state;
  std::vector<double> jac, rhs, delta;
  std::vector<std::vector<double>> diag(b.image_count);
  try {
    const bool sparse =
        s.solver == EPHO_TRI_SOLVER_SPARSE ||
        (s.solver != EPHO_TRI_SOLVER_DENSE && b.n_params > EPHO_TRI_DENSE_MAX_PARAMETERS);
    if (sparse) {
      std::vector<std::pair<int, int>> pairs;
      std::vector<int> imgs;
      for (int p = 0; p < b.PointCount(); ++p) {
        if (!b.TakesPart(p)) continue;
        imgs.clear();
        for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) imgs.push_back(b.rays[k].image);
        std::sort(imgs.begin(), imgs.end());
        imgs.erase(std::unique(imgs.begin(), imgs.end()), imgs.end());
        for (size_t u = 0; u < imgs.size(); ++u)
          for (size_t v = u + 1; v < imgs.size(); ++v) pairs.emplace_back(imgs[u], imgs[v]);
      }
      std::sort(pairs.begin(), pairs.end());
      pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
      system = MakeSparseSystem(b.param_start, sizes, pairs);
    } else {
      system = MakeDenseSystem(b.param_start, sizes);
    }
    res.used_sparse = system->IsSparse();
    state.resize(b.PointCount());
    jac.resize(6 * b.rays.size());
    rhs.resize(b.n_params);
    delta.resize(b.n_params);
    for (int i = 0; i < b.image_count; ++i) diag[i].resize(sizes[i] * sizes[i]);
  } catch (const std::bad_alloc&) {
    frame.Fail(kSiteBundleMemory, L"Not enough memory for RefineBundle !");
    return false;
  }

  Linearizer lin(b);
  double prev_s0 = 0.0;
  bool growing = false;
  bool factored = false;
  std::vector<double> cross;  // per distinct image of a point: 2n x 3
  std::vector<int> cross_image;
  std::vector<double> schur;
  for (int it = 1;; ++it) {
    res.iterations = it;
    factored = false;
    system->Clear();
    std::fill(rhs.begin(), rhs.end(), 0.0);
    for (auto& d : diag) std::fill(d.begin(), d.end(), 0.0);
    double omega = 0.0, point_part = 0.0;
    bool point_failed = false, ray_failed = false;

    for (int p = 0; p < b.PointCount() && !point_failed && !ray_failed; ++p) {
      if (!b.TakesPart(p)) continue;
      const Epho_TriGroundPoint& pt = b.points[p];
      double npp[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
      double bp[3] = {0, 0, 0};
      cross.clear();
      cross_image.clear();
      for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) {
        const Ray& ray = b.rays[k];
        RayLinearisation l;
        if (!lin.Run(ray, pt, &l)) {
          ray_failed = true;
          break;
        }
        std::copy(l.jx, l.jx + 3, &jac[6 * k]);
        std::copy(l.jy, l.jy + 3, &jac[6 * k + 3]);
        const int i = ray.image;
        const int n = b.PerAxis(i);
        const double wx = ray.weightX, wy = ray.weightY;
        double t[6];
        PolynomialTerms(b.images[i], n, ray.x, ray.y, t);
        omega += wx * l.lx * l.lx + wy * l.ly * l.ly;
        const int base = b.param_start[i];
        double* d = diag[i].data();
        const int w = 2 * n;
        for (int u = 0; u < n; ++u) {
          for (int v = 0; v < n; ++v) {
            d[u * w + v] += wx * t[u] * t[v];
            d[(n + u) * w + n + v] += wy * t[u] * t[v];
          }
          rhs[base + u] -= t[u] * wx * l.lx;
          rhs[base + n + u] -= t[u] * wy * l.ly;
        }
        for (int u = 0; u < 3; ++u) {
          for (int v = 0; v < 3; ++v)
            npp[3 * u + v] += wx * l.jx[u] * l.jx[v] + wy * l.jy[u] * l.jy[v];
          bp[u] += wx * l.jx[u] * l.lx + wy * l.jy[u] * l.ly;
        }
        if (cross_image.empty() || cross_image.back() != i) {
          cross_image.push_back(i);
          cross.resize(cross.size() + 6 * 12, 0.0);
          std::fill(cross.end() - 72, cross.end(), 0.0);
        }
        double* c = &cross[cross.size() - 72];
        for (int u = 0; u < n; ++u)
          for (int v = 0; v < 3; ++v) {
            c[u * 3 + v] -= t[u] * wx * l.jx[v];
            c[(n + u) * 3 + v] -= t[u] * wy * l.jy[v];
          }
      }
      if (ray_failed) break;
      // Control observations.
      if (!s.fixed_control && b.IsControl(p)) {
        const Epho_TriGroundPoint& given = b.input->groundPoints[p];
        const double diff[3] = {given.X - pt.X, given.Y - pt.Y, given.Z - pt.Z};
        const double wgt[3] = {given.stdX, given.stdY, given.stdZ};
        for (int u = 0; u < 3; ++u) {
          if (wgt[u] == 0.0) continue;
          npp[4 * u] += wgt[u];
          bp[u] += wgt[u] * diff[u];
          omega += wgt[u] * diff[u] * diff[u];
        }
      }
      bool mask[3];
      UnknownMask(b, p, mask);
      PointState& ps = state[p];
      std::copy(bp, bp + 3, ps.b);
      if (!InvertPointBlock(npp, mask, ps.m)) {
        point_failed = true;
        break;
      }
      if (skip_elimination) continue;
      // Schur complement: N -= C M C^T, rhs -= C M b.
      const int groups = static_cast<int>(cross_image.size());
      for (int gi = 0; gi < groups; ++gi) {
        const int i = cross_image[gi];
        const int ri = sizes[i];
        const double* ci = &cross[72 * gi];
        double cm[36];  // C_i M, ri x 3
        for (int u = 0; u < ri; ++u)
          for (int v = 0; v < 3; ++v)
            cm[u * 3 + v] =
                ci[u * 3] * ps.m[v] + ci[u * 3 + 1] * ps.m[3 + v] + ci[u * 3 + 2] * ps.m[6 + v];
        for (int u = 0; u < ri; ++u)
          rhs[b.param_start[i] + u] -=
              cm[u * 3] * bp[0] + cm[u * 3 + 1] * bp[1] + cm[u * 3 + 2] * bp[2];
        for (int gj = gi; gj < groups; ++gj) {
          const int j = cross_image[gj];
          const int rj = sizes[j];
          const double* cj = &cross[72 * gj];
          schur.assign(ri * rj, 0.0);
          for (int u = 0; u < ri; ++u)
            for (int v = 0; v < rj; ++v)
              schur[u * rj + v] = -(cm[u * 3] * cj[v * 3] + cm[u * 3 + 1] * cj[v * 3 + 1] +
                                    cm[u * 3 + 2] * cj[v * 3 + 2]);
          if (i == j) {
            for (int u = 0; u < ri; ++u)
              for (int v = 0; v < rj; ++v) diag[i][u * ri + v] += schur[u * rj + v];
          } else {
            system->AddBlock(i, j, schur.data());
          }
        }
      }
    }
    if (ray_failed || point_failed) break;  // unconverged, no error

    // Parameter priors, then the image blocks into the system.
    for (int i = 0; i < b.image_count; ++i) {
      const Epho_TriImage& im = b.images[i];
      const int w = sizes[i];
      for (int k = 0; k < w; ++k) {
        const double wt = im.standardDeviations[k];
        const double pk = im.currentParameters[k];
        diag[i][k * w + k] += wt;
        rhs[b.param_start[i] + k] -= wt * pk;
        omega += wt * pk * pk;
      }
      system->AddBlock(i, i, diag[i].data());
    }
    // The reduced right-hand side hides the points' share of the decrease
    // of the square sum: add it back, b^T M b per point.
    if (!skip_elimination) {
      for (int p = 0; p < b.PointCount(); ++p) {
        if (!b.TakesPart(p)) continue;
        const PointState& ps = state[p];
        for (int u = 0; u < 3; ++u)
          for (int v = 0; v < 3; ++v) point_part += ps.b[u] * ps.m[3 * u + v] * ps.b[v];
      }
    }

    std::copy(rhs.begin(), rhs.end(), delta.begin());
    if (!system->Factor()) break;
    if (!system->Solve(delta.data())) break;
    factored = true;

    // Back-substitution of the points.
    double max_corr = -1.0;
    double vtpl = point_part;
    for (int k = 0; k < b.n_params; ++k) vtpl += delta[k] * rhs[k];
    std::vector<double>& dX = schur;  // reuse as scratch: 3 doubles per point
    dX.assign(3 * static_cast<size_t>(b.PointCount()), 0.0);
    for (int p = 0; p < b.PointCount(); ++p) {
      if (!b.TakesPart(p)) continue;
      const PointState& ps = state[p];
      double g[3] = {ps.b[0], ps.b[1], ps.b[2]};
      for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) {
        const Ray& ray = b.rays[k];
        const int i = ray.image, n = b.PerAxis(i);
        double t[6];
        PolynomialTerms(b.images[i], n, ray.x, ray.y, t);
        double ta = 0.0, tb = 0.0;
        for (int u = 0; u < n; ++u) {
          ta += t[u] * delta[b.param_start[i] + u];
          tb += t[u] * delta[b.param_start[i] + n + u];
        }
        // C^T dP = -wx Jx (t.da) - wy Jy (t.db)
        for (int u = 0; u < 3; ++u)
          g[u] += ray.weightX * jac[6 * k + u] * ta + ray.weightY * jac[6 * k + 3 + u] * tb;
      }
      for (int u = 0; u < 3; ++u)
        dX[3 * p + u] = ps.m[3 * u] * g[0] + ps.m[3 * u + 1] * g[1] + ps.m[3 * u + 2] * g[2];
      if (skip_elimination) {
        // Without elimination the point part is not in the reduced system.
        vtpl += dX[3 * p] * ps.b[0] + dX[3 * p + 1] * ps.b[1] + dX[3 * p + 2] * ps.b[2];
      }
    }

    const double numerator = omega - vtpl;
    const double s0 = numerator > 0.0 ? std::sqrt(numerator / divisor)
                                      : -std::sqrt(std::fabs(numerator) / divisor);
    s.s0 = s0;
    res.s0 = s0;
    r.Printf(L"\n\n      iteration number = %d", it);
    r.Printf(L"    unit-weight standard error = %-8.4f", s0);

    for (int i = 0; i < b.image_count; ++i) {
      Epho_TriImage& im = b.images[i];
      if (im.parameterMode == EPHO_TRI_MODE_FIXED) continue;
      for (int k = 0; k < sizes[i]; ++k) im.currentParameters[k] += delta[b.param_start[i] + k];
    }
    bool any_point = false;
    for (int p = 0; p < b.PointCount(); ++p) {
      if (!b.TakesPart(p)) continue;
      Epho_TriGroundPoint& pt = b.points[p];
      pt.X += dX[3 * p];
      pt.Y += dX[3 * p + 1];
      pt.Z += dX[3 * p + 2];
      bool mask[3];
      UnknownMask(b, p, mask);
      for (int u = 0; u < 3; ++u) {
        if (!mask[u]) continue;
        any_point = true;
        max_corr = std::max(max_corr, std::fabs(dX[3 * p + u]));
      }
    }
    r.Printf(L"\n        maximum correction of the object points =");
    r.Printf(L"%-.5f", any_point ? max_corr : 0.0);

    const double c = any_point ? max_corr : 2.0 * s.convergence_threshold;
    double rel = 2.0 * s.relative_threshold;
    if (it > 1) rel = prev_s0 == 0.0 ? 0.0 : (std::fabs(s0) - std::fabs(prev_s0)) / prev_s0;
    if (it > 1) {
      if (growing && std::fabs(s0) > 1.1 * std::fabs(prev_s0)) {
        r.Printf(
            L"\n\nWarning:  The iteration can not be converged! There are probably errors "
            L"in your data!");
        frame.FailWithSeverity(kSiteDivergence, EERR_SEVERITY_WARNING,
                               L"The iteration can not be converged! There are probably errors "
                               L"in your data!");
        res.diverged = true;
        break;
      }
      growing = std::fabs(s0) > 1.2 * std::fabs(prev_s0);
      if (c < s.convergence_threshold || std::fabs(rel) < s.relative_threshold) {
        res.converged = true;
        break;
      }
    }
    if (it >= s.max_iterations) {
      r.Printf(L"\n\n      Warning:  The");
      r.Printf(L" iteration is not converged!");
      break;
    }
    prev_s0 = s0;
  }

  b.input->converged = res.converged ? 1 : 0;
  b.input->unitWeightStdError = static_cast<float>(res.s0);
  b.input->iterations = res.iterations;
  res.accuracy_valid = false;
  if (factored && system->InverseDiagonal(&res.parameter_sigma)) {
    for (double& q : res.parameter_sigma) q = std::fabs(res.s0) * std::sqrt(std::fabs(q));
    res.accuracy_valid = true;
  }
  return true;
}

}  // namespace epho::triangulation
