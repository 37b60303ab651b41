// The triangulation refinement: input from arrays and dicts, results back as
// arrays and a dict.
#include "epho/triangulation.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "camera_binding.h"
#include "common.h"
#include "etxt.h"

namespace {

using kzpy::Camera;
using kzpy::CArray;

struct InputHolder {
  Epho_TriRefineInput in{};
  ~InputHolder() { epho_FreeTriRefineMemory(&in, nullptr); }
};

template <typename T>
T* HeapArray(size_t count) {
  auto* p = static_cast<T*>(emsc_HeapCalloc(count + 1, sizeof(T)));
  if (!p) throw std::bad_alloc();
  return p;
}

using IntArray = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;

IntArray Ints(const py::handle& obj, const char* name, long n) {
  auto a = IntArray::ensure(obj);
  if (!a || a.ndim() != 1 || (n >= 0 && a.shape(0) != n))
    throw py::value_error(std::string(name) + ": expected a 1-D integer array" +
                          (n >= 0 ? " of " + std::to_string(n) + " values" : std::string()));
  return a;
}

py::dict Run(const py::list& images, const py::dict& ground, const std::wstring& report,
             const std::optional<std::wstring>& json, const std::optional<std::wstring>& plot,
             int maxIterations, double imageStd, double convergence, bool weightedControl,
             int solver, const std::wstring& xyUnits, const std::wstring& zUnits) {
  if (images.size() < 2) throw py::value_error("images: at least two images");
  if (!(imageStd > 0)) throw py::value_error("image_std: must be positive");
  if (maxIterations < 1 || maxIterations > 1000) throw py::value_error("max_iterations: 1 to 1000");
  for (const char* key : {"id", "xyz"})
    if (!ground.contains(key)) throw py::value_error(std::string("ground: missing '") + key + "'");
  auto gid = Ints(ground["id"], "ground['id']", -1);
  const long ng = static_cast<long>(gid.shape(0));
  auto gxyz = kzpy::Doubles(ground["xyz"], "ground['xyz']", {ng, 3});
  const bool hasType = ground.contains("type"), hasUsage = ground.contains("usage"),
             hasStd = ground.contains("std");
  auto gtype = ground.contains("type") ? Ints(ground["type"], "ground['type']", ng) : IntArray();
  auto gusage =
      ground.contains("usage") ? Ints(ground["usage"], "ground['usage']", ng) : IntArray();
  CArray<double> gstd;
  if (ground.contains("std")) gstd = kzpy::Doubles(ground["std"], "ground['std']", {ng, 3});

  InputHolder hold;
  Epho_TriRefineInput& in = hold.in;
  in.maximumIterations = static_cast<int16_t>(maxIterations);
  in.fixControl = weightedControl ? 1 : 0;
  in.imageStdX = in.imageStdY = static_cast<float>(imageStd);
  in.convergenceThreshold = static_cast<float>(convergence);
  in.solver = static_cast<int16_t>(solver);
  in.groundXYUnits = etxt_Text_strdup(xyUnits.c_str());
  in.groundZUnits = etxt_Text_strdup(zUnits.c_str());
  in.groundPointCount = static_cast<int32_t>(ng);
  in.groundPoints = HeapArray<Epho_TriGroundPoint>(static_cast<size_t>(ng));
  for (long k = 0; k < ng; ++k) {
    Epho_TriGroundPoint& g = in.groundPoints[k];
    g.pointID = gid.at(k);
    g.type = hasType ? gtype.at(k) : EPHO_TRI_TYPE_FULL;
    g.usage = hasUsage ? gusage.at(k) : EPHO_TRI_USAGE_CONTROL;
    g.X = gxyz.at(k, 0);
    g.Y = gxyz.at(k, 1);
    g.Z = gxyz.at(k, 2);
    g.stdX = hasStd ? static_cast<float>(gstd.at(k, 0)) : 0.05f;
    g.stdY = hasStd ? static_cast<float>(gstd.at(k, 1)) : 0.05f;
    g.stdZ = hasStd ? static_cast<float>(gstd.at(k, 2)) : 0.05f;
  }
  in.imageCount = static_cast<int32_t>(images.size());
  in.images = HeapArray<Epho_TriImage>(images.size());
  int i = 0;
  for (const py::handle& h : images) {
    const py::dict d = py::reinterpret_borrow<py::dict>(h);
    for (const char* key : {"id", "columns", "rows", "camera", "point_id", "xy"})
      if (!d.contains(key)) throw py::value_error(std::string("image: missing '") + key + "'");
    Epho_TriImage& im = in.images[i++];
    im.imageID = d["id"].cast<int32_t>();
    im.columns = d["columns"].cast<int32_t>();
    im.rows = d["rows"].cast<int32_t>();
    const auto& camera = d["camera"].cast<const Camera&>();
    Eerr_ErrorReport* err = nullptr;
    Epho_Camera* copy = epho_CameraCopy(camera.ptr, &err);
    if (copy) copy->direction = EMOD_FORWARD;
    Epho_CameraXform* xform = copy ? epho_CameraXformGetFromCameraData(copy, &err) : nullptr;
    im.xform = xform ? epho_CameraXformToExfr(xform, &err) : nullptr;
    epho_CameraXformDelete(xform);
    if (!im.xform) kzpy::RaiseReport(err, "camera of image " + std::to_string(im.imageID));
    if (d.contains("affine")) {
      auto a = kzpy::Doubles(d["affine"], "image['affine']", {6});
      std::copy(a.data(), a.data() + 6, im.affine);
    } else {
      // The camera's pixel-to-film affine (x' = c0 x + c1 y + c2) in the
      // offset-first layout of the refinement (X = a0 + a1 x + a2 y).
      const double* c = camera.ptr->forSrcAffine;
      const double affine[6] = {c[2], c[0], c[1], c[5], c[3], c[4]};
      std::copy(affine, affine + 6, im.affine);
    }
    const int terms = d.contains("terms") ? d["terms"].cast<int>() : 3;
    if (terms < 1 || terms > 6) throw py::value_error("image['terms']: 1 to 6");
    const double pstd = d.contains("parameter_std") ? d["parameter_std"].cast<double>() : 1e-3;
    im.parameterCount = static_cast<int16_t>(2 * terms);
    im.parameterMode = EPHO_TRI_MODE_WEIGHTED;
    im.initialValues = HeapArray<double>(static_cast<size_t>(2 * terms));
    im.standardDeviations = HeapArray<float>(static_cast<size_t>(2 * terms));
    for (int k = 0; k < 2 * terms; ++k) im.standardDeviations[k] = static_cast<float>(pstd);
    auto pid = Ints(d["point_id"], "image['point_id']", -1);
    const long np = static_cast<long>(pid.shape(0));
    auto xy = kzpy::Doubles(d["xy"], "image['xy']", {np, 2});
    if (np == 0)
      throw py::value_error("image " + std::to_string(im.imageID) + " has no measured point");
    im.imagePointCount = static_cast<int32_t>(np);
    im.imagePoints = HeapArray<Epho_TriImagePoint>(static_cast<size_t>(np));
    for (long k = 0; k < np; ++k) {
      im.imagePoints[k].pointID = pid.at(k);
      im.imagePoints[k].x = xy.at(k, 0);
      im.imagePoints[k].y = xy.at(k, 1);
    }
  }
  in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
  in.jsonFileName = json ? const_cast<Etxt_Char*>(json->c_str()) : nullptr;
  in.plotFileName = plot ? const_cast<Etxt_Char*>(plot->c_str()) : nullptr;
  Eerr_ErrorReport* err = nullptr;
  {
    py::gil_scoped_release release;
    epho_TriRefine(&in, &err);
  }
  // The borrowed names go back before the holder frees the record.
  in.reportFileName = in.jsonFileName = in.plotFileName = nullptr;
  kzpy::Check(err, "epho_TriRefine failed");

  const long nr = in.resultPointCount;
  py::array_t<int32_t> rid(nr), rtype(nr), rusage(nr);
  CArray<double> rxyz(std::vector<py::ssize_t>{nr, 3});
  for (long k = 0; k < nr; ++k) {
    const Epho_TriGroundPoint& g = in.resultPoints[k];
    rid.mutable_at(k) = g.pointID;
    rtype.mutable_at(k) = g.type;
    rusage.mutable_at(k) = g.usage;
    rxyz.mutable_at(k, 0) = g.X;
    rxyz.mutable_at(k, 1) = g.Y;
    rxyz.mutable_at(k, 2) = g.Z;
  }
  py::dict points;
  points["id"] = rid;
  points["type"] = rtype;
  points["usage"] = rusage;
  points["xyz"] = rxyz;
  py::dict out;
  out["converged"] = in.converged != 0;
  out["iterations"] = in.iterations;
  out["s0"] = in.unitWeightStdError;
  out["points"] = points;
  out["control_residual_count"] = py::make_tuple(
      in.controlResidualCount[0], in.controlResidualCount[1], in.controlResidualCount[2]);
  out["control_rmse"] = py::make_tuple(in.controlResidualRmse[0], in.controlResidualRmse[1],
                                       in.controlResidualRmse[2]);
  out["control_mean"] = py::make_tuple(in.controlResidualMean[0], in.controlResidualMean[1],
                                       in.controlResidualMean[2]);
  return out;
}

}  // namespace

void BindTriangulation(py::module_& m) {
  m.def("tri_refine", &Run, py::arg("images"), py::arg("ground"), py::arg("report"),
        py::arg("json") = py::none(), py::arg("plot") = py::none(), py::arg("max_iterations") = 10,
        py::arg("image_std") = 1.0, py::arg("convergence") = 1e-3,
        py::arg("weighted_control") = false, py::arg("solver") = 0, py::arg("xy_units") = L"meters",
        py::arg("z_units") = L"meters",
        "The triangulation refinement of images oriented by their frame cameras.\n"
        "images: list of dicts (id, columns, rows, camera, point_id (n,), xy (n, 2) pixels;\n"
        "optional affine (offset first, default the camera's pixel-to-film affine), terms\n"
        "1-6 per axis (3), parameter_std (1e-3)). ground: dict of arrays (id, xyz; optional\n"
        "type, usage (0 control, 1 check, 2 tie), std). Tie points need not be listed:\n"
        "every measured id not in ground is intersected. Writes the text report (and json,\n"
        "plot when named) and returns a dict: converged, iterations, s0, points (id, type,\n"
        "usage, xyz), control_residual_count, control_rmse, control_mean. The GIL is released\n"
        "during the run; a failure raises Error with the library's report.");
}
