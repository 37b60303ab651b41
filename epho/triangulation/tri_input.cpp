// Input records of a refinement: validation, the weighting of image and
// ground observations, the per-image checks and the ordering of the control
// points.
#include <algorithm>
#include <cmath>

#include "epho/planar.h"
#include "epho/triangulation/triangulation_internal.h"

namespace epho::triangulation {

namespace {

bool Finite(double v) { return std::isfinite(v); }

// Group of a ground point in the working order: full, horizontal and
// vertical control first, then the rest in their given order.
int Group(const Epho_TriGroundPoint& p) {
  if (p.usage != EPHO_TRI_USAGE_CONTROL) return 3;
  return p.type == EPHO_TRI_TYPE_FULL ? 0 : p.type == EPHO_TRI_TYPE_HORIZONTAL ? 1 : 2;
}

}  // namespace

bool CheckAndWeight(Block& b, Report& r, kzdv::ErrorFrame& frame) {
  Epho_TriRefineInput* in = b.input;
  Settings& s = b.settings;
  if (in->imageStdX == 0.0f || in->imageStdY == 0.0f || !Finite(in->imageStdX) ||
      !Finite(in->imageStdY)) {
    frame.Fail(kSiteImageStdDev, L"The image standard deviation is not valid\n");
    return false;
  }
  if (in->imageCount < 1 || !in->images) {
    frame.Fail(kSiteNoImage, L"No image specified!\n");
    return false;
  }
  b.images = in->images;
  b.image_count = in->imageCount;

  // Pixel standard deviations to image units through the first image's affine.
  const double* c = b.images[0].affine;
  const double scale_x = std::sqrt(c[1] * c[1] + c[4] * c[4]);
  const double scale_y = std::sqrt(c[2] * c[2] + c[5] * c[5]);
  const double sx = in->imageStdX * scale_x;
  const double sy = in->imageStdY * scale_y;
  s.sx = sx;
  s.mean_scale = 0.5 * (scale_x + scale_y);
  const float weight_y = in->weightYSeparately ? static_cast<float>((sx / sy) * (sx / sy)) : 1.0f;

  r.Printf(L"\n                Input Image Coordinates\n");
  for (int i = 0; i < b.image_count; ++i) {
    Epho_TriImage& im = b.images[i];
    r.Printf(L"                     Image ID = %d\n", im.imageID);
    r.Printf(L"       Point ID            x             y\n");
    int n = im.parameterCount / 2;
    if (n < 1) {
      frame.Fail(kSiteFewParameters, L"Less than two parameters on image %d\n", im.imageID);
      return false;
    }
    if (!im.initialValues || !im.standardDeviations) {
      frame.Fail(kSiteNoInitialValues, L"No initial values or weights for image %d\n", im.imageID);
      return false;
    }
    if (im.imagePointCount < 1 || !im.imagePoints ||
        (im.imagePointCount < n && im.parameterMode == EPHO_TRI_MODE_FREE)) {
      frame.Fail(kSiteFewPoints, L"Not enough points on image %d\n", im.imageID);
      return false;
    }
    // Values that would poison the adjustment are refused up front.
    bool finite = std::all_of(im.affine, im.affine + 6, Finite);
    for (int k = 0; k < 2 * std::min(n, 6); ++k)
      finite = finite && Finite(im.initialValues[k]) && Finite(im.standardDeviations[k]);
    for (int k = 0; k < im.imagePointCount; ++k)
      finite = finite && Finite(im.imagePoints[k].x) && Finite(im.imagePoints[k].y);
    if (!finite) {
      frame.Fail(kSiteNoInitialValues, L"No initial values or weights for image %d\n", im.imageID);
      return false;
    }
    n = std::min(n, 6);
    im.parameterCount = static_cast<int16_t>(n);
    emsc_HeapFree(im.currentParameters);
    emsc_HeapFree(im.normalisation);
    im.currentParameters = static_cast<double*>(emsc_HeapCalloc(2 * n, sizeof(double)));
    im.normalisation = static_cast<float*>(emsc_HeapCalloc(2 * n, sizeof(float)));
    if (!im.currentParameters || !im.normalisation) {
      frame.Fail(kSiteImageMemory, L"Not enough memory for image %d\n", im.imageID);
      return false;
    }
    for (int k = 0; k < im.imagePointCount; ++k) {
      Epho_TriImagePoint& p = im.imagePoints[k];
      r.Printf(L"%14d%17.3f%14.3f\n", p.pointID, p.x, p.y);
      const double x = im.affine[0] + im.affine[1] * p.x + im.affine[2] * p.y;
      const double y = im.affine[3] + im.affine[4] * p.x + im.affine[5] * p.y;
      p.x = x;
      p.y = y;
      p.weightX = 1.0f;
      p.weightY = weight_y;
    }
    // Normalisation extents: columns and rows go into the affine crossed.
    const double* a = im.affine;
    im.normalisation[0] =
        static_cast<float>(std::fabs(a[0] + a[1] * im.rows + a[2] * im.columns) * 0.85);
    im.normalisation[1] =
        static_cast<float>(std::fabs(a[3] + a[4] * im.rows + a[5] * im.columns) * 0.85);
    std::copy(im.affine, im.affine + 6, im.inverseAffine);
    epho_ReverseAffine(im.inverseAffine);
    if (n == 1 && im.parameterMode == EPHO_TRI_MODE_FIXED) {
      r.Printf(L"\n");
    } else {
      WriteInitialParameters(r, im, n);
      r.Printf(L"\n\n");
    }
  }

  // Control first: full, horizontal, vertical; then the rest, each group in
  // its given order.
  Epho_TriGroundPoint* g = in->groundPoints;
  const int count = g ? in->groundPointCount : 0;
  std::stable_sort(g, g + count, [](const Epho_TriGroundPoint& l, const Epho_TriGroundPoint& r) {
    return Group(l) < Group(r);
  });
  b.n_full = b.n_horizontal = b.n_vertical = 0;
  for (int p = 0; p < count; ++p) {
    const int group = Group(g[p]);
    b.n_full += group == 0;
    b.n_horizontal += group == 1;
    b.n_vertical += group == 2;
  }

  // Ground weights of the control.
  s.fixed_control = in->fixControl == 0;
  for (int p = 0; p < b.ControlCount(); ++p) {
    float* std_xyz[3] = {&g[p].stdX, &g[p].stdY, &g[p].stdZ};
    for (float* v : std_xyz) {
      if (s.fixed_control)
        *v = 0.0f;
      else if (*v != 0.0f)
        *v = static_cast<float>((sx / *v) * (sx / *v));
    }
    if (g[p].type == EPHO_TRI_TYPE_HORIZONTAL) g[p].stdZ = 0.0f;
    if (g[p].type == EPHO_TRI_TYPE_VERTICAL) g[p].stdX = g[p].stdY = 0.0f;
  }
  return true;
}

}  // namespace epho::triangulation
