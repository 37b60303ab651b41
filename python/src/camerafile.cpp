// The camera calibration file: read into a dict, written from one.
#include "epho/camerafile.h"

#include <cstring>
#include <string>
#include <vector>

#include "common.h"

namespace {

using kzpy::CArray;

struct InfoHolder {
  Epho_CameraFrameInfo* p = nullptr;
  ~InfoHolder() { epho_CameraFrameInfoDelete(p); }
};

py::object Values(const double* data, int32_t count, long columns) {
  if (!data || count <= 0) return CArray<double>(std::vector<py::ssize_t>{0, columns});
  CArray<double> out(std::vector<py::ssize_t>{count / columns, columns});
  std::memcpy(out.mutable_data(), data,
              sizeof(double) * static_cast<size_t>(count / columns * columns));
  return std::move(out);
}

// A heap copy of an (n, 2) array for the record; sets the value count.
double* HeapPairs(const py::object& obj, const char* name, int32_t* count) {
  auto a = kzpy::Doubles(obj, name, {-1, 2});
  *count = static_cast<int32_t>(a.size());
  if (a.size() == 0) return nullptr;
  auto* p = static_cast<double*>(emsc_HeapMalloc(sizeof(double) * static_cast<size_t>(a.size())));
  if (!p) throw std::bad_alloc();
  std::memcpy(p, a.data(), sizeof(double) * static_cast<size_t>(a.size()));
  return p;
}

py::dict Read(const std::wstring& path) {
  Eerr_ErrorReport* err = nullptr;
  InfoHolder info{CameraInfoFileRead(path.c_str(), nullptr, &err)};
  if (!info.p) kzpy::RaiseReport(err, "CameraInfoFileRead failed");
  const Epho_CameraFrameInfo& c = *info.p;
  py::dict d;
  d["name"] = c.cameraName ? std::wstring(c.cameraName) : std::wstring();
  d["description"] = c.cameraDescription ? std::wstring(c.cameraDescription) : std::wstring();
  d["focal_length_mm"] = c.focalLength_mm;
  d["principal_point_mm"] = py::make_tuple(c.x0_mm, c.y0_mm);
  d["fiducials_mm"] = Values(c.fiducials_mm, c.fiducialValueCount, 2);
  d["observation_kind"] = c.observationKind;
  d["observations"] = Values(c.observations, c.observationValueCount, 2);
  d["k"] = py::make_tuple(c.k0, c.k1, c.k2);
  d["extended_model"] = c.extendedModel;
  const int n = epho_ExtendedLensModelValueCount(c.extendedModel);
  if (c.extendedParameters && n > 0) {
    CArray<double> ext(n);
    std::memcpy(ext.mutable_data(), c.extendedParameters, sizeof(double) * static_cast<size_t>(n));
    d["extended_parameters"] = ext;
  } else {
    d["extended_parameters"] = py::none();
  }
  return d;
}

void Write(const std::wstring& path, const py::dict& d) {
  Eerr_ErrorReport* err = nullptr;
  InfoHolder info{epho_CameraFrameInfoCreate(&err)};
  if (!info.p) kzpy::RaiseReport(err, "epho_CameraFrameInfoCreate failed");
  Epho_CameraFrameInfo& c = *info.p;
  auto text = [&](const char* key) -> Etxt_Char* {
    if (!d.contains(key) || d[key].is_none()) return nullptr;
    const std::wstring s = d[key].cast<std::wstring>();
    Etxt_Char* p = etxt_Text_strdup(s.c_str());
    if (!p) throw std::bad_alloc();
    return p;
  };
  if (!d.contains("focal_length_mm"))
    throw py::value_error("camera: 'focal_length_mm' is required");
  c.cameraName = text("name");
  c.cameraDescription = text("description");
  c.focalLength_mm = d["focal_length_mm"].cast<double>();
  if (d.contains("principal_point_mm")) {
    auto pp = kzpy::Doubles(d["principal_point_mm"], "principal_point_mm", {2});
    c.x0_mm = pp.data()[0];
    c.y0_mm = pp.data()[1];
  }
  if (d.contains("fiducials_mm"))
    c.fiducials_mm = HeapPairs(d["fiducials_mm"], "fiducials_mm", &c.fiducialValueCount);
  if (d.contains("observation_kind")) c.observationKind = d["observation_kind"].cast<int32_t>();
  if (d.contains("observations"))
    c.observations = HeapPairs(d["observations"], "observations", &c.observationValueCount);
  if (d.contains("k")) {
    auto k = kzpy::Doubles(d["k"], "k", {3});
    c.k0 = k.data()[0];
    c.k1 = k.data()[1];
    c.k2 = k.data()[2];
  }
  if (d.contains("extended_model")) c.extendedModel = d["extended_model"].cast<int32_t>();
  if (d.contains("extended_parameters") && !d["extended_parameters"].is_none()) {
    const int n = epho_ExtendedLensModelValueCount(c.extendedModel);
    auto ext = kzpy::Doubles(d["extended_parameters"], "extended_parameters", {n});
    c.extendedParameters =
        static_cast<double*>(emsc_HeapMalloc(sizeof(double) * static_cast<size_t>(n > 0 ? n : 1)));
    if (!c.extendedParameters) throw std::bad_alloc();
    std::memcpy(c.extendedParameters, ext.data(), sizeof(double) * static_cast<size_t>(n));
  }
  if (!CameraInfoFileWrite(path.c_str(), &c, &err))
    kzpy::RaiseReport(err, "CameraInfoFileWrite failed");
}

}  // namespace

void BindCameraFile(py::module_& m) {
  m.def("read_camera_file", &Read, py::arg("path"),
        "Reads a camera calibration file into a dict: name, description, focal_length_mm,\n"
        "principal_point_mm, fiducials_mm (n, 2), observation_kind, observations (n, 2),\n"
        "k (k0, k1, k2), extended_model and extended_parameters (array or None).");
  m.def("write_camera_file", &Write, py::arg("path"), py::arg("camera"),
        "Writes a camera calibration file from a dict with the keys read_camera_file gives\n"
        "(focal_length_mm required). The file is replaced atomically.");
  m.attr("LENS_MODEL_NONE") = static_cast<int>(EPHO_LENS_MODEL_NONE);
  m.attr("LENS_MODEL_TARVO") = static_cast<int>(EPHO_LENS_MODEL_TARVO);
  m.attr("LENS_MODEL_AUSTRALIS") = static_cast<int>(EPHO_LENS_MODEL_AUSTRALIS);
  m.attr("LENS_MODEL_SMAC") = static_cast<int>(EPHO_LENS_MODEL_SMAC);
}
