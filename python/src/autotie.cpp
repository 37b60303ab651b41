// Tie points between two frame photographs, measured by the library.
#include "epho/autotie.h"

#include <string>
#include <vector>

#include "camera_binding.h"
#include "common.h"

namespace {

using kzpy::CArray;

Epho_ImageViewByte View(const kzpy::CArray<uint8_t>& a) {
  return Epho_ImageViewByte{a.data(), static_cast<uint32_t>(a.shape(1)),
                            static_cast<uint32_t>(a.shape(0)), static_cast<uint32_t>(a.shape(1))};
}

}  // namespace

// The transform object handle of the camera area.
Epho_CameraXform* XformHandle(const py::object& xform);

namespace {

py::dict AutoTiePair(const py::object& left, const py::object& leftImage, const py::object& right,
                     const py::object& rightImage, const py::dict& options) {
  auto li = kzpy::Strict<uint8_t>(leftImage, "left_image", {-1, -1});
  auto ri = kzpy::Strict<uint8_t>(rightImage, "right_image", {-1, -1});
  Epho_CameraXform* lx = XformHandle(left);
  Epho_CameraXform* rx = XformHandle(right);
  Epho_AutoTieParams p;
  epho_AutoTieParamsDefault(&p);
  for (const auto& item : options) {
    const std::string key = item.first.cast<std::string>();
    const py::handle v = item.second;
    if (key == "grid_spacing")
      p.grid_spacing = v.cast<uint32_t>();
    else if (key == "template_half")
      p.template_half = v.cast<uint32_t>();
    else if (key == "search_radius")
      p.search_radius = v.cast<uint32_t>();
    else if (key == "min_coefficient")
      p.min_coefficient = v.cast<double>();
    else if (key == "epipolar_tolerance")
      p.epipolar_tolerance = v.cast<double>();
    else if (key == "zmin")
      p.zmin = v.cast<double>();
    else if (key == "zmax")
      p.zmax = v.cast<double>();
    else if (key == "height") {
      p.height = v.cast<double>();
      p.height_source = EPHO_AUTOTIE_HEIGHT_CONSTANT;
    } else if (key == "use_lsc")
      p.use_lsc = v.cast<bool>() ? 1 : 0;
    else if (key == "lsc_max_iterations")
      p.lsc_max_iterations = v.cast<int16_t>();
    else if (key == "lsc_convergence")
      p.lsc_convergence = v.cast<float>();
    else if (key == "lsc_max_shift")
      p.lsc_max_shift = v.cast<float>();
    else
      throw py::value_error("auto_tie_pair: unknown setting '" + key + "'");
  }
  int32_t columns = 0, rows = 0;
  const int32_t capacity =
      epho_AutoTieGridSize(static_cast<uint32_t>(li.shape(1)), static_cast<uint32_t>(li.shape(0)),
                           p.grid_spacing, p.template_half, &columns, &rows);
  std::vector<Epho_AutoTiePoint> points(static_cast<size_t>(capacity > 0 ? capacity : 1));
  const Epho_ImageViewByte lv = View(li), rv = View(ri);
  int32_t count = 0;
  Epho_AutoTieStats stats{};
  Eerr_ErrorReport* err = nullptr;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = epho_AutoTiePair(lx, &lv, rx, &rv, &p, points.data(), capacity, &count, &stats, &err);
  }
  if (!ok) kzpy::RaiseReport(err, "epho_AutoTiePair failed");
  py::array_t<int32_t> cand(count), iters(count);
  CArray<double> lp(std::vector<py::ssize_t>{count, 2}), rp(std::vector<py::ssize_t>{count, 2});
  CArray<double> coef(count), dist(count);
  for (int32_t i = 0; i < count; ++i) {
    const Epho_AutoTiePoint& t = points[static_cast<size_t>(i)];
    cand.mutable_at(i) = t.candidate;
    lp.mutable_at(i, 0) = t.left_x;
    lp.mutable_at(i, 1) = t.left_y;
    rp.mutable_at(i, 0) = t.right_x;
    rp.mutable_at(i, 1) = t.right_y;
    coef.mutable_at(i) = t.coefficient;
    dist.mutable_at(i) = t.epipolar_distance;
    iters.mutable_at(i) = t.lsc_iterations;
  }
  py::dict s;
  s["candidates"] = stats.candidates;
  s["outside"] = stats.outside;
  s["weak"] = stats.weak;
  s["off_epipolar"] = stats.off_epipolar;
  s["lsc_failed"] = stats.lsc_failed;
  s["accepted"] = stats.accepted;
  py::dict out;
  out["candidate"] = cand;
  out["left"] = lp;
  out["right"] = rp;
  out["coefficient"] = coef;
  out["epipolar_distance"] = dist;
  out["lsc_iterations"] = iters;
  out["stats"] = s;
  out["grid"] = py::make_tuple(columns, rows);
  return out;
}

}  // namespace

void BindAutoTie(py::module_& m) {
  m.def(
      "auto_tie_pair",
      [](const py::object& l, const py::object& li, const py::object& r, const py::object& ri,
         const py::kwargs& kw) { return AutoTiePair(l, li, r, ri, kw); },
      py::arg("left"), py::arg("left_image"), py::arg("right"), py::arg("right_image"),
      "Tie points between two frame photographs (uint8 2-D arrays) seen through their\n"
      "CameraXform objects: a left grid predicted into the right image, NCC search in the\n"
      "epipolar band, least-squares refinement. Settings as keywords: grid_spacing,\n"
      "template_half, search_radius, min_coefficient, epipolar_tolerance, zmin, zmax,\n"
      "height (a constant ground height), use_lsc, lsc_max_iterations, lsc_convergence,\n"
      "lsc_max_shift. Returns a dict of arrays: candidate, left (n, 2), right (n, 2)\n"
      "(pixel centres at k + 0.5), coefficient, epipolar_distance, lsc_iterations, and\n"
      "stats and grid. The GIL is released during the measurement.");
}
