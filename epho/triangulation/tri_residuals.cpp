// Residuals of a finished adjustment, given (measured) minus adjusted: of the
// control and check coordinates in linear units, and of every ray in pixels.
#include <cmath>

#include "epho/angles.h"
#include "epho/triangulation/triangulation_internal.h"

namespace epho::triangulation {

std::vector<GroundResidual> GroundResiduals(const Block& b, bool check) {
  std::vector<GroundResidual> out;
  const int first = check ? b.ControlCount() : 0;
  const int last = check ? b.ControlCount() + b.n_check : b.ControlCount();
  for (int p = first; p < last && p < b.PointCount(); ++p) {
    const Epho_TriGroundPoint& given = b.input->groundPoints[p];
    const Epho_TriGroundPoint& adj = b.points[p];
    GroundResidual g{};
    g.point = p;
    g.has_xy = given.type != EPHO_TRI_TYPE_VERTICAL;
    g.has_z = given.type != EPHO_TRI_TYPE_HORIZONTAL;
    g.r[0] = given.X - adj.X;
    g.r[1] = given.Y - adj.Y;
    g.r[2] = given.Z - adj.Z;
    if (b.settings.angular && g.has_xy) {
      // Angular offsets to lengths on the ellipsoid (WGS 84), in Z units.
      const Etxt_Char* unit = b.settings.xy_units.c_str();
      epho_Angular2LinearUnits(given.Y, unit, 0.00669437999014, 6378137.0, unit,
                               b.settings.z_units.c_str(), &g.r[0], &g.r[1]);
    }
    if (!g.has_xy) g.r[0] = g.r[1] = 0.0;
    if (!g.has_z) g.r[2] = 0.0;
    out.push_back(g);
  }
  return out;
}

bool ImageResiduals(const Block& b, std::vector<ImageResidual>* out) {
  out->assign(b.rays.size(), ImageResidual{0.0, 0.0});
  bool ok = true;
  for (int p = 0; p < b.PointCount(); ++p) {
    const Epho_TriGroundPoint& pt = b.points[p];
    const double xyz[3] = {pt.X, pt.Y, pt.Z};
    for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) {
      const Ray& ray = b.rays[k];
      const Epho_TriImage& im = b.images[ray.image];
      double px[2], col, row;
      Eerr_ErrorReport* err = nullptr;
      if (!exfr_GroundToImage(im.xform, 1, xyz, px, &err)) {
        eerr_DeleteErrorReportEx(&err);
        ok = false;
        continue;
      }
      CorrectedPixel(im, b.PerAxis(ray.image), ray.x, ray.y, &col, &row);
      (*out)[k] = {col - px[0], row - px[1]};
    }
  }
  return ok;
}

}  // namespace epho::triangulation
