// Pairwise tie-point measurement: grid candidates on the left photograph,
// predicted into the right one through both cameras, searched by NCC in a
// window cut to the epipolar band, refined by least-squares correlation.
#include "epho/autotie.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "epho/autotie/autotie_internal.h"
#include "epho/matching.h"
#include "platform/eerr/error_frame.h"

namespace epho::autotie {

double DistanceToPolyline(const std::vector<double>& line_xy, double x, double y) {
  double best = INFINITY;
  const size_t n = line_xy.size() / 2;
  for (size_t k = 0; k + 1 < n; ++k) {
    const double ax = line_xy[2 * k], ay = line_xy[2 * k + 1];
    const double bx = line_xy[2 * k + 2], by = line_xy[2 * k + 3];
    const double dx = bx - ax, dy = by - ay, len2 = dx * dx + dy * dy;
    double t = len2 > 0 ? ((x - ax) * dx + (y - ay) * dy) / len2 : 0.0;
    t = std::clamp(t, 0.0, 1.0);
    best = std::min(best, std::hypot(x - (ax + t * dx), y - (ay + t * dy)));
  }
  if (n == 1) best = std::hypot(x - line_xy[0], y - line_xy[1]);
  return best;
}

bool SearchWindow(double pred_x, double pred_y, const std::vector<double>& line_xy, double radius,
                  double tolerance, long half, long width, long height, Window* w) {
  // Whole-pixel index positions (pixel centre at the index) of the NCC search.
  const double px = pred_x - 0.5, py = pred_y - 0.5;
  double lo_x = INFINITY, hi_x = -INFINITY, lo_y = INFINITY, hi_y = -INFINITY;
  for (size_t k = 0; k < line_xy.size() / 2; ++k) {
    lo_x = std::min(lo_x, line_xy[2 * k] - 0.5), hi_x = std::max(hi_x, line_xy[2 * k] - 0.5);
    lo_y = std::min(lo_y, line_xy[2 * k + 1] - 0.5),
    hi_y = std::max(hi_y, line_xy[2 * k + 1] - 0.5);
  }
  // One pixel more than the tolerance, so that a match at the tolerance is
  // not on the window's border (where the sub-pixel peak is not defined).
  const double pad = std::ceil(tolerance) + 1.0;
  const double x0 = std::max({px - radius, lo_x - pad, double(half)});
  const double x1 = std::min({px + radius, hi_x + pad, double(width - 1 - half)});
  const double y0 = std::max({py - radius, lo_y - pad, double(half)});
  const double y1 = std::min({py + radius, hi_y + pad, double(height - 1 - half)});
  if (!(x0 <= x1 && y0 <= y1)) return false;
  w->x0 = long(std::ceil(x0)), w->x1 = long(std::floor(x1));
  w->y0 = long(std::ceil(y0)), w->y1 = long(std::floor(y1));
  return w->x0 <= w->x1 && w->y0 <= w->y1;
}

}  // namespace epho::autotie

namespace {

using epho::autotie::Window;

struct XformDeleter {
  void operator()(Epho_CameraXform* x) const { epho_CameraXformDelete(x); }
};
using XformPtr = std::unique_ptr<Epho_CameraXform, XformDeleter>;

bool ReplaceText(Emif_CountedString* to, const Emif_CountedString& from) {
  Etxt_Char* copy = nullptr;
  if (from.count > 0 && from.data) {
    copy = static_cast<Etxt_Char*>(emsc_MemDup(from.data, sizeof(Etxt_Char) * from.count));
    if (!copy) return false;
  }
  emsc_HeapFree(to->data);
  to->data = copy;
  to->count = copy ? from.count : 0;
  return true;
}

bool ViewUsable(const Epho_ImageViewByte* v) {
  return v && v->pixels && v->width > 0 && v->height > 0 && v->stride >= v->width;
}

}  // namespace

extern "C" {

void epho_AutoTieParamsDefault(Epho_AutoTieParams* p) KZDV_NOEXCEPT {
  if (!p) return;
  *p = Epho_AutoTieParams{};
  p->grid_spacing = 64;
  p->template_half = 10;
  p->search_radius = 24;
  p->min_coefficient = 0.8;
  p->epipolar_tolerance = 2.0;
  p->zmin = p->zmax = 0.0;
  p->height_source = EPHO_AUTOTIE_HEIGHT_TRANSFORM;
  p->height = 0.0;
  p->use_lsc = 1;
  p->lsc_max_iterations = 10;
  p->lsc_convergence = 0.002f;
  p->lsc_max_shift = 2.0f;
}

int32_t epho_AutoTieGridSize(uint32_t width, uint32_t height, uint32_t spacing, uint32_t half,
                             int32_t* columns, int32_t* rows) KZDV_NOEXCEPT {
  // Candidates from first = half + 1 to at most size - half - 2, so the
  // window and the one extra pixel the gradients read stay inside.
  auto count = [&](uint32_t size) -> int64_t {
    const int64_t span = int64_t(size) - 2 * int64_t(half) - 3;
    return spacing == 0 || span < 0 ? 0 : span / spacing + 1;
  };
  const int64_t c = count(width), r = count(height);
  const int64_t total = c * r > INT32_MAX ? 0 : c * r;
  if (columns) *columns = total ? int32_t(c) : 0;
  if (rows) *rows = total ? int32_t(r) : 0;
  return int32_t(total);
}

Emsc_Boolean epho_AutoTiePair(const Epho_CameraXform* left, const Epho_ImageViewByte* leftImage,
                              const Epho_CameraXform* right, const Epho_ImageViewByte* rightImage,
                              const Epho_AutoTieParams* params, Epho_AutoTiePoint* points,
                              int32_t capacity, int32_t* count, Epho_AutoTieStats* stats,
                              Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_AutoTiePair";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!left || !left->camera || !right || !right->camera, frame, EMSC_FALSE,
               L"Invalid input camera xform data.");
  EERR_FAIL_IF_NULL(params, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(count, frame, EMSC_FALSE);
  *count = 0;
  if (stats) *stats = Epho_AutoTieStats{};
  EERR_FAIL_IF(!ViewUsable(leftImage), frame, EMSC_FALSE,
               L"Args: left image is null, empty or its stride is below its width");
  EERR_FAIL_IF(!ViewUsable(rightImage), frame, EMSC_FALSE,
               L"Args: right image is null, empty or its stride is below its width");
  EERR_FAIL_IF(capacity < 0 || (capacity > 0 && !points), frame, EMSC_FALSE,
               L"Args: points is null or capacity is negative");
  const Epho_AutoTieParams& p = *params;
  EERR_FAIL_IF(p.grid_spacing < 1 || p.search_radius < 1 || p.template_half < 1 ||
                   p.template_half > EPHO_NCC_SEARCH_MAX_HALF,
               frame, EMSC_FALSE,
               L"Args: grid spacing, search radius or template size out of range");
  EERR_FAIL_IF(!(p.min_coefficient >= -1.0 && p.min_coefficient <= 1.0) ||
                   !(p.epipolar_tolerance > 0.0) || !std::isfinite(p.epipolar_tolerance),
               frame, EMSC_FALSE, L"Args: minimum coefficient or epipolar tolerance out of range");
  EERR_FAIL_IF(p.height_source != EPHO_AUTOTIE_HEIGHT_TRANSFORM &&
                   p.height_source != EPHO_AUTOTIE_HEIGHT_CONSTANT,
               frame, EMSC_FALSE, L"Args: unknown height source %d", int(p.height_source));
  EERR_FAIL_IF(p.height_source == EPHO_AUTOTIE_HEIGHT_CONSTANT && !std::isfinite(p.height), frame,
               EMSC_FALSE, L"Args: height is not finite");
  EERR_FAIL_IF(p.use_lsc && (p.lsc_max_iterations < 1 || !(p.lsc_convergence > 0.0f) ||
                             !(p.lsc_max_shift > 0.0f) || !std::isfinite(p.lsc_max_shift)),
               frame, EMSC_FALSE, L"Args: least-squares correlation settings out of range");

  // Private copies: the left one goes image -> ground, the right one
  // ground (x, y) -> image; both take heights from the same source.
  XformPtr to_ground(epho_CameraXformCopy(left, frame.Callee()));
  EERR_CHECK(to_ground, frame, EMSC_FALSE, L"epho_CameraXformCopy failed");
  XformPtr to_right(epho_CameraXformCopy(right, frame.Callee()));
  EERR_CHECK(to_right, frame, EMSC_FALSE, L"epho_CameraXformCopy failed");
  Epho_Camera* lc = to_ground->camera;
  Epho_Camera* rc = to_right->camera;
  lc->direction = EMOD_INVERSE;
  rc->direction = EMOD_FORWARD;
  if (p.height_source == EPHO_AUTOTIE_HEIGHT_CONSTANT) {
    lc->demsource = EMOD_DEM_CONSTANT;
    lc->z_mean = p.height;
  }
  rc->demsource = lc->demsource;
  rc->z_mean = lc->z_mean;
  EERR_FAIL_IF(!ReplaceText(&rc->demfilename, lc->demfilename) ||
                   !ReplaceText(&rc->demzunits, lc->demzunits),
               frame, EMSC_FALSE, L"No memory");
  EERR_CHECK(epho_CameraXformFillNoMIFData(to_ground.get(), frame.Callee()), frame, EMSC_FALSE,
             L"epho_CameraXformFillNoMIFData failed for the left camera");
  EERR_CHECK(epho_CameraXformFillNoMIFData(to_right.get(), frame.Callee()), frame, EMSC_FALSE,
             L"epho_CameraXformFillNoMIFData failed for the right camera");

  // Height range of the epipolar lines, once for all candidates.
  double zmin = p.zmin, zmax = p.zmax;
  if (!(zmin < zmax)) {
    zmin = lc->z_mean - 100.0;
    zmax = lc->z_mean + 100.0;
    if (to_ground->demLayer) {
      Eimg_Statistics dem{};
      EERR_CHECK(eimg_StatisticsRead(to_ground->demLayer, &dem, frame.Callee()), frame, EMSC_FALSE,
                 L"eimg_StatisticsRead failed");
      const Epho_CountedDoubles& zc = to_ground->demZCoeffs;
      zmin = epho_CalcZ(0, 0, dem.minimum, zc.count, zc.data);
      zmax = epho_CalcZ(0, 0, dem.maximum, zc.count, zc.data);
      if (zmin > zmax) std::swap(zmin, zmax);
      if (!(zmin < zmax)) zmin -= 1.0, zmax += 1.0;  // flat DEM
    }
  }

  int32_t columns = 0, rows = 0;
  epho_AutoTieGridSize(leftImage->width, leftImage->height, p.grid_spacing, p.template_half,
                       &columns, &rows);
  const long half = long(p.template_half);
  const long rw = long(rightImage->width), rh = long(rightImage->height);
  const uint32_t radius = p.search_radius;
  std::vector<unsigned char> scratch(
      epho_NccSearchScratchBytes(p.template_half, p.template_half, 2 * radius + 1, 2 * radius + 1));
  // The refinement works in a square patch around the NCC peak: room for the
  // window, the permitted shift and the window's affine growth.
  const long margin = p.use_lsc ? long(std::ceil(p.lsc_max_shift)) + 4 : 0;
  const long side = 2 * (half + margin) + 1;
  std::vector<uint8_t> patch(p.use_lsc ? size_t(side) * side : 0);
  constexpr int32_t kLineSamples = 17;
  std::vector<double> line(2 * kLineSamples);

  Epho_AutoTieStats tally{};
  int32_t written = 0;
  bool overflow = false;
  for (int32_t k = 0; k < columns * rows; ++k) {
    ++tally.candidates;
    const long lx = half + 1 + long(k % columns) * long(p.grid_spacing);
    const long ly = half + 1 + long(k / columns) * long(p.grid_spacing);
    double image[2] = {lx + 0.5, ly + 0.5}, ground[2], pred[2];
    // Candidates whose ground point or prediction does not exist are outside.
    if (!epho_CameraXformTransform(to_ground.get(), 1, image, ground, frame.Callee()) ||
        !epho_CameraXformTransform(to_right.get(), 1, ground, pred, frame.Callee())) {
      frame.Tolerate();
      ++tally.outside;
      continue;
    }
    EERR_CHECK(epho_AutoEpipoLine(to_ground.get(), to_right.get(), image[0], image[1], zmin, zmax,
                                  kLineSamples, line.data(), frame.Callee()),
               frame, EMSC_FALSE, L"epho_AutoEpipoLine failed");
    std::vector<double> valid;
    for (int32_t s = 0; s < kLineSamples; ++s)
      if (line[2 * s] != -999.0 || line[2 * s + 1] != -999.0)
        valid.insert(valid.end(), {line[2 * s], line[2 * s + 1]});
    Window w;
    if (valid.size() < 4 || !std::isfinite(pred[0]) || !std::isfinite(pred[1]) ||
        !epho::autotie::SearchWindow(pred[0], pred[1], valid, radius, p.epipolar_tolerance, half,
                                     rw, rh, &w)) {
      ++tally.outside;
      continue;
    }
    Epho_NccPeak peak{};
    const int rc_search = epho_NccSearchByte(
        leftImage->pixels, rightImage->pixels, leftImage->stride, rightImage->stride, uint32_t(lx),
        uint32_t(ly), p.template_half, p.template_half, uint32_t(w.x0), uint32_t(w.y0),
        uint32_t(w.x1), uint32_t(w.y1), scratch.data(), scratch.size(), &peak);
    if (rc_search != EPHO_NCC_SEARCH_OK || peak.on_border || peak.coefficient < p.min_coefficient) {
      ++tally.weak;
      continue;
    }
    double rx = peak.subpixel_column + 0.5, ry = peak.subpixel_row + 0.5;
    int32_t iterations = 0;
    if (p.use_lsc) {
      const long ox = peak.column - side / 2, oy = peak.row - side / 2;
      if (ox < 0 || oy < 0 || ox + side > rw || oy + side > rh) {
        ++tally.outside;
        continue;
      }
      for (long r = 0; r < side; ++r)
        std::copy_n(rightImage->pixels + size_t(oy + r) * rightImage->stride + ox, side,
                    patch.data() + size_t(r) * side);
      double px = rx - double(ox), py = ry - double(oy);
      const int16_t code = epho_OnePtLSCByteHalf(
          leftImage->pixels, int32_t(leftImage->stride), int32_t(lx), int32_t(ly), patch.data(),
          int32_t(side), &px, &py, p.template_half, p.template_half, p.lsc_max_iterations,
          p.lsc_convergence, p.lsc_max_shift);
      if (code >= 0) {
        ++tally.lsc_failed;
        continue;
      }
      iterations = -code;
      rx = px + double(ox), ry = py + double(oy);
    }
    const double off = epho::autotie::DistanceToPolyline(valid, rx, ry);
    if (off > p.epipolar_tolerance) {
      ++tally.off_epipolar;
      continue;
    }
    ++tally.accepted;
    if (written >= capacity) {
      overflow = true;
      continue;
    }
    points[written++] =
        Epho_AutoTiePoint{k, image[0], image[1], rx, ry, peak.coefficient, off, iterations};
  }
  *count = written;
  if (stats) *stats = tally;
  EERR_FAIL_IF(overflow, frame, EMSC_FALSE,
               L"%ld tie points were accepted, more than the capacity of %ld", long(tally.accepted),
               long(capacity));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

}  // extern "C"
