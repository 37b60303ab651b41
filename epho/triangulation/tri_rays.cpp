// Ray gathering: the image points of every control, check and tie point
// collected in image order, the tie points built from the points left, the
// initial forward intersection and the ground step of the derivatives.
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "epho/angles.h"
#include "epho/triangulation/triangulation_internal.h"

namespace epho::triangulation {

namespace {

struct Where {
  int image, index;
};

// Every image point by ID, in image order and list order.
using PointIndex = std::unordered_map<int32_t, std::vector<Where>>;

PointIndex IndexImagePoints(const Block& b) {
  PointIndex index;
  for (int i = 0; i < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    for (int k = 0; k < im.imagePointCount; ++k)
      if (im.imagePoints[k].pointID > 0) index[im.imagePoints[k].pointID].push_back({i, k});
  }
  return index;
}

// Takes the still unused image points of `id` (on images from `from_image`
// on) as rays, negating their IDs.
void TakeRays(Block& b, const PointIndex& index, int32_t id, int from_image) {
  auto it = index.find(id);
  if (it == index.end()) return;
  for (const Where& w : it->second) {
    if (w.image < from_image) continue;
    Epho_TriImagePoint& p = b.images[w.image].imagePoints[w.index];
    if (p.pointID <= 0) continue;
    b.rays.push_back({p.pointID, w.image, p.x, p.y, p.weightX, p.weightY});
    p.pointID = -p.pointID;
  }
}

bool FiniteXYZ(const Epho_TriGroundPoint& p) {
  return std::isfinite(p.X) && std::isfinite(p.Y) && std::isfinite(p.Z);
}

}  // namespace

bool GatherRays(Block& b, Report& r, kzdv::ErrorFrame& frame) {
  Epho_TriRefineInput* in = b.input;
  Epho_TriGroundPoint* g = in->groundPoints;
  const int count = g ? in->groundPointCount : 0;
  try {
    size_t total = 0;
    for (int i = 0; i < b.image_count; ++i) total += b.images[i].imagePointCount;
    b.points.clear();
    b.points.reserve(std::max(count, 100) + 1);
    b.rays.clear();
    b.rays.reserve(total + 1);
  } catch (const std::bad_alloc&) {
    frame.Fail(kSiteMemory, L"Not enough memory for Triangulation");
    return false;
  }
  const PointIndex index = IndexImagePoints(b);
  bool rejected_ground = false;
  for (int p = 0; p < count; ++p) {
    Epho_TriGroundPoint& q = g[p];
    if (q.usage == EPHO_TRI_USAGE_REJECTED) continue;  // refused by the caller
    const size_t first = b.rays.size();
    TakeRays(b, index, q.pointID, 0);
    const size_t rays = b.rays.size() - first;
    const bool full_control = q.usage == EPHO_TRI_USAGE_CONTROL && q.type == EPHO_TRI_TYPE_FULL;
    // A control or check point whose own coordinates are not numbers cannot
    // be used; it is rejected like one without rays.
    const bool usable = FiniteXYZ(q) || q.usage == EPHO_TRI_USAGE_TIE;
    if (rays == 0) {
      r.Printf(L"\n  ERROR! The GCP or Check point");
      r.Printf(L" %d has no image point!\n", q.pointID);
      q.usage = EPHO_TRI_USAGE_REJECTED;
    } else if (rays == 1 && !full_control) {
      r.Printf(L"\n  ERROR! The non-full GCP or Check");
      r.Printf(L" %d has only one image point!\n", q.pointID);
      q.usage = EPHO_TRI_USAGE_REJECTED;
    } else if (!usable) {
      q.usage = EPHO_TRI_USAGE_REJECTED;
    }
    if (q.usage == EPHO_TRI_USAGE_REJECTED) {
      b.rays.resize(first);
      rejected_ground = true;
      continue;
    }
    Epho_TriGroundPoint w = q;
    w.firstImagePoint = static_cast<int32_t>(first);
    if (rays == 1) w.usage = EPHO_TRI_USAGE_REJECTED;  // full control on one image only
    b.points.push_back(w);
  }

  // Tie points: what is left, started from the first image that has it.
  for (int i = 0; i + 1 < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    for (int k = 0; k < im.imagePointCount; ++k) {
      const int32_t id = im.imagePoints[k].pointID;
      if (id <= 0) continue;
      const size_t first = b.rays.size();
      b.rays.push_back({id, i, im.imagePoints[k].x, im.imagePoints[k].y, im.imagePoints[k].weightX,
                        im.imagePoints[k].weightY});
      im.imagePoints[k].pointID = -id;
      TakeRays(b, index, id, i + 1);
      if (b.rays.size() - first < 2) {
        r.Printf(L"\n  ERROR! The point");
        r.Printf(L" %d is on less than two images\n", id);
        b.rays.resize(first);
        continue;
      }
      try {
        if (b.points.size() == b.points.capacity()) b.points.reserve(b.points.size() + 100);
      } catch (const std::bad_alloc&) {
        frame.Fail(kSiteTieMemory, L"Not enough memory for Triangulate");
        return false;
      }
      Epho_TriGroundPoint w{};
      w.pointID = id;
      w.type = EPHO_TRI_TYPE_FULL;
      w.usage = EPHO_TRI_USAGE_TIE;
      w.firstImagePoint = static_cast<int32_t>(first);
      b.points.push_back(w);
    }
  }
  Epho_TriGroundPoint end{};
  end.firstImagePoint = static_cast<int32_t>(b.rays.size());
  b.points.push_back(end);

  // Remove the rejected input points. The working array holds only what
  // survived, so any rejected control or check point stops the run.
  int kept = 0;
  for (int p = 0; p < count; ++p)
    if (g[p].usage != EPHO_TRI_USAGE_REJECTED) g[kept++] = g[p];
  in->groundPointCount = kept;
  b.n_full = b.n_horizontal = b.n_vertical = b.n_check = 0;
  for (int p = 0; p < kept; ++p) {
    if (g[p].usage == EPHO_TRI_USAGE_CONTROL) {
      b.n_full += g[p].type == EPHO_TRI_TYPE_FULL;
      b.n_horizontal += g[p].type == EPHO_TRI_TYPE_HORIZONTAL;
      b.n_vertical += g[p].type == EPHO_TRI_TYPE_VERTICAL;
    } else if (g[p].usage == EPHO_TRI_USAGE_CHECK) {
      ++b.n_check;
    }
  }
  b.n_ground_input = kept;
  bool match = !rejected_ground && kept <= b.PointCount();
  for (int p = 0; match && p < kept; ++p) match = b.points[p].pointID == g[p].pointID;
  if (!match) {
    frame.Fail(kSiteGcpErrors, L"There are errors in GCP points !");
    return false;
  }
  return true;
}

void PrepareParameters(Block& b, Report& r) {
  const double sx = b.settings.sx;
  double sum_ex = 0, sum_ey = 0;
  b.param_start.assign(b.image_count, 0);
  b.n_params = 0;
  for (int i = 0; i < b.image_count; ++i) {
    Epho_TriImage& im = b.images[i];
    const int n = b.PerAxis(i);
    double ex = im.normalisation[0], ey = im.normalisation[1];
    // A degenerate extent (zero image size) leaves the terms unscaled.
    if (ex == 0.0) ex = 1.0;
    if (ey == 0.0) ey = 1.0;
    sum_ex += ex;
    sum_ey += ey;
    const double f[6] = {
        1.0, 1.0 / ex, 1.0 / ey, 1.0 / (ex * ex), 1.0 / (ex * ey), 1.0 / (ey * ey)};
    for (int k = 0; k < n; ++k) {
      im.normalisation[k] = im.normalisation[n + k] = static_cast<float>(f[k]);
    }
    for (int k = 0; k < 2 * n; ++k) {
      im.initialValues[k] /= im.normalisation[k];
      im.currentParameters[k] = 0.0;
      float& w = im.standardDeviations[k];
      if (im.parameterMode == EPHO_TRI_MODE_FIXED)
        w = 1.0e8f;
      else if (im.parameterMode == EPHO_TRI_MODE_FREE)
        w = 0.0f;
      else
        w = w == 0.0f ? 0.01f : static_cast<float>((sx / w) * (sx / w));
    }
    b.param_start[i] = b.n_params;
    b.n_params += 2 * n;
  }
  b.settings.mean_ex = sum_ex / b.image_count;
  b.settings.mean_ey = sum_ey / b.image_count;

  // Free images that the block cannot determine.
  std::vector<int> rays(b.image_count, 0), full(b.image_count, 0);
  for (int p = 0; p < b.PointCount(); ++p) {
    if (!b.TakesPart(p)) continue;
    const bool on_full = p < b.n_full;
    for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) {
      ++rays[b.rays[k].image];
      full[b.rays[k].image] += on_full;
    }
  }
  for (int i = 0; i < b.image_count; ++i) {
    Epho_TriImage& im = b.images[i];
    if (im.parameterMode != EPHO_TRI_MODE_FREE) continue;
    const int n = b.PerAxis(i);
    if (rays[i] < n) {
      r.Printf(L"\n  ERROR! Image %d has not enough image points! Use it as no refinement.\n",
               im.imageID);
      im.parameterMode = EPHO_TRI_MODE_FIXED;
      for (int k = 0; k < 2 * n; ++k) im.standardDeviations[k] = 1.0e8f;
    } else if (full[i] == 0) {
      im.parameterMode = EPHO_TRI_MODE_WEIGHTED;
      for (int k = 0; k < 2 * n; ++k) im.standardDeviations[k] = 0.01f;
    }
  }
}

bool InitialGround(Block& b, kzdv::ErrorFrame& frame) {
  const auto fail = [&frame](const Etxt_Char* message, int a, int c, int args) {
    // The specific failure becomes the previous link of the summary.
    if (args == 0)
      frame.Fail(kSiteIntersection, message);
    else if (args == 1)
      frame.Fail(kSiteIntersection, message, a);
    else
      frame.Fail(kSiteIntersection, message, a, c);
    return false;
  };
  std::vector<double> origins, directions;
  try {
    origins.resize(3 * b.rays.size());
    directions.resize(3 * b.rays.size());
  } catch (const std::bad_alloc&) {
    fail(L"Not enough memory for intial forward intersection!\n", 0, 0, 0);
    frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
    return false;
  }
  // The ray of every measurement, through the initial correction polynomial.
  for (size_t k = 0; k < b.rays.size(); ++k) {
    const Ray& ray = b.rays[k];
    const Epho_TriImage& im = b.images[ray.image];
    double col, row;
    CorrectedPixel(im, b.PerAxis(ray.image), ray.x, ray.y, &col, &row);
    if (!exfr_ImageToGroundRay(im.xform, col, row, &origins[3 * k], &directions[3 * k],
                               frame.Callee())) {
      fail(L"exfr_ImageToGround failed with image %d!", im.imageID, 0, 1);
      frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
      return false;
    }
  }
  // Least-squares point nearest to the rays: sum (I - d d^T) X = sum (I - d d^T) o.
  for (int p = 0; p < b.PointCount(); ++p) {
    const int first = b.RayBegin(p), end = b.RayEnd(p);
    if (end - first < 2) continue;  // a single ray on full control keeps its given point
    Eigen::Matrix3d m = Eigen::Matrix3d::Zero();
    Eigen::Vector3d v = Eigen::Vector3d::Zero();
    for (int k = first; k < end; ++k) {
      Eigen::Vector3d d(&directions[3 * k]);
      const Eigen::Vector3d o(&origins[3 * k]);
      const double len = d.norm();
      if (!(len > 0.0)) continue;
      d /= len;
      const Eigen::Matrix3d q = Eigen::Matrix3d::Identity() - d * d.transpose();
      m += q;
      v += q * o;
    }
    Eigen::LDLT<Eigen::Matrix3d> ldlt(m);
    const Eigen::Vector3d x = ldlt.solve(v);
    // Parallel rays leave the point undetermined.
    const double det = m.determinant();
    if (!x.allFinite() || !(std::fabs(det) > 1e-12 * std::pow(m.trace(), 3))) {
      fail(L"exfr_ImageToGround failed with image %d %d!", b.images[b.rays[first].image].imageID,
           b.points[p].pointID, 2);
      frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
      return false;
    }
    b.points[p].X = x(0);
    b.points[p].Y = x(1);
    b.points[p].Z = x(2);
  }

  // Ground step: the ground size of one pixel at the centre of each image,
  // at the height of its first point, averaged over the images.
  double sum = 0.0;
  int used = 0;
  for (int i = 0; i < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    double z = 0.0;
    bool found = false;
    for (int p = 0; p < b.PointCount() && !found; ++p)
      for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k)
        if (b.rays[k].image == i) {
          z = b.points[p].Z;
          found = true;
          break;
        }
    if (!found) continue;
    const double pixels[4] = {0.5 * im.columns, 0.5 * im.rows, 0.5 * im.columns + 1.0,
                              0.5 * im.rows};
    const double heights[2] = {z, z};
    double ground[4];
    double back[2];
    if (!exfr_ImageAndGroundZToGroundXY(im.xform, 2, pixels, heights, ground, frame.Callee())) {
      fail(L"error with computing default ground delta!", 0, 0, 0);
      frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
      return false;
    }
    // The ground point must come back to its pixel through the forward model.
    const double xyz[3] = {ground[0], ground[1], z};
    if (!exfr_GroundToImage(im.xform, 1, xyz, back, frame.Callee()) ||
        !(std::hypot(back[0] - pixels[0], back[1] - pixels[1]) < 0.5)) {
      fail(L"error with computing default ground delta!", 0, 0, 0);
      frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
      return false;
    }
    sum += std::hypot(ground[2] - ground[0], ground[3] - ground[1]);
    ++used;
  }
  if (used == 0 || !(sum > 0.0) || !std::isfinite(sum)) {
    fail(L"error with computing default ground delta!", 0, 0, 0);
    frame.Fail(kSiteInitialGround, L"Error to get the initial ground value estimation!");
    return false;
  }
  Settings& s = b.settings;
  s.ground_step_xy = sum / used;
  s.ground_step_z = s.ground_step_xy;
  if (s.angular) {
    // The same length in Z units: the angular step as a length on the
    // ellipsoid (WGS 84) at the block's first point.
    double ox = s.ground_step_xy, oy = 0.0;
    const double lat = b.PointCount() > 0 ? b.points[0].Y : 0.0;
    epho_Angular2LinearUnits(lat, s.xy_units.c_str(), 0.00669437999014, 6378137.0,
                             s.xy_units.c_str(), s.z_units.c_str(), &ox, &oy);
    s.ground_step_z = std::fabs(ox) > 0.0 ? std::fabs(ox) : s.ground_step_xy;
  }
  return true;
}

}  // namespace epho::triangulation
