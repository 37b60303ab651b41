// The frame camera record and its transform object.
#include <cstring>
#include <memory>
#include <string>

#include "camera_binding.h"
#include "common.h"
#include "etxt.h"

using kzpy::CArray;

namespace kzpy {

Camera::Camera() {
  Eerr_ErrorReport* err = nullptr;
  ptr = epho_CameraCreate(&err);
  if (!ptr) RaiseReport(err, "epho_CameraCreate: out of memory");
}

Camera::Camera(Epho_Camera* owned) : ptr(owned) {}

Camera::~Camera() { epho_CameraDelete(ptr); }

Camera Camera::Copy() const {
  Eerr_ErrorReport* err = nullptr;
  Epho_Camera* c = epho_CameraCopy(ptr, &err);
  if (!c) RaiseReport(err, "epho_CameraCopy failed");
  return Camera(c);
}

}  // namespace kzpy

namespace {

using kzpy::Camera;

py::object CountedGet(const Epho_CountedDoubles& c) {
  if (c.count <= 0 || !c.data) return py::none();
  CArray<double> out(c.count);
  std::memcpy(out.mutable_data(), c.data, sizeof(double) * static_cast<size_t>(c.count));
  return std::move(out);
}

void CountedSet(Epho_CountedDoubles& c, const py::object& value, const char* name) {
  double* data = nullptr;
  int32_t count = 0;
  if (!value.is_none()) {
    auto a = kzpy::Doubles(value, name, {-1});
    count = static_cast<int32_t>(a.shape(0));
    if (count > 0) {
      data = static_cast<double*>(emsc_HeapMalloc(sizeof(double) * static_cast<size_t>(count)));
      if (!data) throw std::bad_alloc();
      std::memcpy(data, a.data(), sizeof(double) * static_cast<size_t>(count));
    }
  }
  emsc_HeapFree(c.data);
  c.data = data;
  c.count = count;
}

template <size_t N>
py::array FixedGet(const double (&values)[N]) {
  CArray<double> out(N);
  std::memcpy(out.mutable_data(), values, sizeof(values));
  return out;
}

template <size_t N>
void FixedSet(double (&values)[N], const py::object& value, const char* name) {
  auto a = kzpy::Doubles(value, name, {static_cast<long>(N)});
  std::memcpy(values, a.data(), sizeof(values));
}

std::wstring TextGet(const Emif_CountedString& s) {
  return s.data ? std::wstring(s.data) : std::wstring();
}

void TextSet(Emif_CountedString& s, const std::wstring& value) {
  Etxt_Char* copy = value.empty() ? nullptr : etxt_Text_strdup(value.c_str());
  if (!value.empty() && !copy) throw std::bad_alloc();
  emsc_HeapFree(s.data);
  s.data = copy;
  s.count = copy ? static_cast<int32_t>(value.size() + 1) : 0;
}

// The transform object around a deep copy of a camera.
class Xform {
 public:
  explicit Xform(const Camera& camera) {
    Eerr_ErrorReport* err = nullptr;
    Epho_Camera* copy = epho_CameraCopy(camera.ptr, &err);
    ptr_ = copy ? epho_CameraXformGetFromCameraData(copy, &err) : nullptr;
    if (!ptr_) kzpy::RaiseReport(err, "epho_CameraXformGetFromCameraData failed");
  }
  ~Xform() { epho_CameraXformDelete(ptr_); }
  Xform(const Xform&) = delete;
  Xform& operator=(const Xform&) = delete;

  void Fill() {
    Eerr_ErrorReport* err = nullptr;
    if (!epho_CameraXformFillNoMIFData(ptr_, &err))
      kzpy::RaiseReport(err, "epho_CameraXformFillNoMIFData failed");
  }
  bool Filled() const { return ptr_->filled != 0; }
  std::shared_ptr<Camera> GetCamera() const {
    Eerr_ErrorReport* err = nullptr;
    Epho_Camera* copy = epho_CameraCopy(ptr_->camera, &err);
    if (!copy) kzpy::RaiseReport(err, "epho_CameraCopy failed");
    return std::make_shared<Camera>(copy);
  }
  py::array Orientation() const {
    if (!ptr_->filled) throw kzpy::LibraryError("the transform object is not prepared (fill())");
    return FixedGet(ptr_->orientation);
  }

  CArray<double> Transform(const py::object& pointsObj) {
    auto points = kzpy::Strict<double>(pointsObj, "points", {-1, 2});
    CArray<double> out({points.shape(0), py::ssize_t{2}});
    if (points.shape(0) == 0) return out;
    Eerr_ErrorReport* err = nullptr;
    bool ok;
    {
      py::gil_scoped_release release;
      ok = epho_CameraXformTransform(ptr_, static_cast<long>(points.shape(0)),
                                     const_cast<double*>(points.data()), out.mutable_data(), &err);
    }
    if (!ok) kzpy::RaiseReport(err, "epho_CameraXformTransform failed");
    return out;
  }

  CArray<double> Transform3DTo2D(const py::object& pointsObj) {
    auto points = kzpy::Strict<double>(pointsObj, "points", {-1, 3});
    // The call packs in place when given no output; give it a copy so that
    // the caller's array stays as it was.
    CArray<double> work(py::array(points).attr("copy")());
    CArray<double> out({points.shape(0), py::ssize_t{2}});
    if (points.shape(0) == 0) return out;
    Eerr_ErrorReport* err = nullptr;
    bool ok;
    {
      py::gil_scoped_release release;
      ok = epho_CameraXformTransform3DTo2D(ptr_, static_cast<long>(points.shape(0)),
                                           work.mutable_data(), out.mutable_data(), &err);
    }
    if (!ok) kzpy::RaiseReport(err, "epho_CameraXformTransform3DTo2D failed");
    return out;
  }

  // The batch transforms: points (n, 2) and heights (n,) as toolkit matrices
  // over the numpy buffers (2 x n column-major is n consecutive pairs).
  CArray<double> Batch(const py::object& pointsObj, const py::object& heightsObj, bool forward,
                       bool tangent) {
    auto points = kzpy::Strict<double>(pointsObj, "points", {-1, 2});
    auto heights = kzpy::Doubles(heightsObj, "heights", {points.shape(0)});
    CArray<double> h(py::array(heights).attr("copy")());
    CArray<double> out({points.shape(0), py::ssize_t{2}});
    if (points.shape(0) == 0) return out;
    Efga_Matrix in{2, static_cast<long>(points.shape(0)), const_cast<double*>(points.data())};
    Efga_Matrix res{2, static_cast<long>(points.shape(0)), out.mutable_data()};
    Eerr_ErrorReport* err = nullptr;
    bool ok;
    {
      py::gil_scoped_release release;
      if (forward)
        ok = tangent ? epho_CameraForTransTangent(ptr_, h.mutable_data(), &in, &res, &err)
                     : epho_CameraForTransCartesian(ptr_, h.mutable_data(), &in, &res, &err);
      else
        ok = tangent ? epho_CameraInvTransTangent(ptr_, h.mutable_data(), &in, &res, &err)
                     : epho_CameraInvTransCartesian(ptr_, h.mutable_data(), &in, &res, &err);
    }
    if (!ok) kzpy::RaiseReport(err, "camera batch transform failed");
    return out;
  }

  Epho_CameraXform* ptr_ = nullptr;
};

CArray<double> PairTo3D(Xform& left, Xform& right, const py::object& lpObj,
                        const py::object& rpObj) {
  auto lp = kzpy::Strict<double>(lpObj, "left_points", {-1, 2});
  auto rp = kzpy::Strict<double>(rpObj, "right_points", {lp.shape(0), 2});
  CArray<double> out({lp.shape(0), py::ssize_t{3}});
  if (lp.shape(0) == 0) return out;
  Eerr_ErrorReport* err = nullptr;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = epho_CameraXformTransform2DPairTo3D(left.ptr_, right.ptr_, static_cast<long>(lp.shape(0)),
                                             lp.data(), rp.data(), out.mutable_data(), &err);
  }
  if (!ok) kzpy::RaiseReport(err, "epho_CameraXformTransform2DPairTo3D failed");
  return out;
}

CArray<double> EpipolarLine(Xform& left, Xform& right, double x, double y, double zmin, double zmax,
                            int32_t count) {
  if (count < 2) throw py::value_error("count: at least 2 points");
  CArray<double> out({py::ssize_t{count}, py::ssize_t{2}});
  Eerr_ErrorReport* err = nullptr;
  if (!epho_AutoEpipoLine(left.ptr_, right.ptr_, x, y, zmin, zmax, count, out.mutable_data(), &err))
    kzpy::RaiseReport(err, "epho_AutoEpipoLine failed");
  return out;
}

}  // namespace

Epho_CameraXform* XformHandle(const py::object& xform) {
  if (!py::isinstance<Xform>(xform)) throw py::type_error("expected a CameraXform");
  return xform.cast<Xform&>().ptr_;
}

void BindCamera(py::module_& m) {
  py::class_<Camera, std::shared_ptr<Camera>> cam(
      m, "Camera",
      "A frame camera record: focal length, perspective centre, angles, affines between\n"
      "file pixels and film, lens records and the height source.");
  cam.def(py::init<>(), "A camera with the library's defaults.")
      .def("copy", [](const Camera& c) { return std::make_shared<Camera>(c.Copy()); })
      .def(
          "same_as",
          [](const Camera& a, const Camera& b) { return epho_CamerasAreSame(a.ptr, b.ptr) != 0; },
          "True when both describe the same sensor model (doubles within 1e-10).")
#define KZPY_INT_FIELD(pyname, field)                       \
  .def_property(                                            \
      pyname, [](const Camera& c) { return c.ptr->field; }, \
      [](Camera& c, int32_t v) { c.ptr->field = v; })
          KZPY_INT_FIELD("direction", direction) KZPY_INT_FIELD("ref_type", refType)
              KZPY_INT_FIELD("dem_source", demsource)
                  KZPY_INT_FIELD("photo_direction", PhotoDirection)
                      KZPY_INT_FIELD("rotation_system", RotationSystem)
#undef KZPY_INT_FIELD
      .def_property(
          "z_mean", [](const Camera& c) { return c.ptr->z_mean; },
          [](Camera& c, double v) { c.ptr->z_mean = v; })
      .def_property(
          "focal", [](const Camera& c) { return c.ptr->coeffs[0]; },
          [](Camera& c, double v) { c.ptr->coeffs[0] = v; }, "Focal length, film units.")
      .def_property(
          "coeffs", [](const Camera& c) { return FixedGet(c.ptr->coeffs); },
          [](Camera& c, const py::object& v) { FixedSet(c.ptr->coeffs, v, "coeffs"); },
          "Nine coefficients: focal, 0, 0, X0, Y0, Z0, three angles (radians).")
#define KZPY_AFFINE(pyname, field)                                               \
  .def_property(                                                                 \
      pyname, [](const Camera& c) { return FixedGet(c.ptr->field); },            \
      [](Camera& c, const py::object& v) { FixedSet(c.ptr->field, v, pyname); }, \
      "Affine x' = c0 x + c1 y + c2, y' = c3 x + c4 y + c5 (identity 1,0,0,0,1,0).")
          KZPY_AFFINE("for_src_affine", forSrcAffine) KZPY_AFFINE("for_dst_affine", forDstAffine)
              KZPY_AFFINE("inv_src_affine", invSrcAffine)
                  KZPY_AFFINE("inv_dst_affine", invDstAffine)
#undef KZPY_AFFINE
      .def_property(
          "lens_distortion", [](const Camera& c) { return CountedGet(c.ptr->LensDistortion); },
          [](Camera& c, const py::object& v) {
            CountedSet(c.ptr->LensDistortion, v, "lens_distortion");
          },
          "Lens distortion record (1-D array, p[0] the model code) or None.")
      .def_property(
          "additional_parameters",
          [](const Camera& c) { return CountedGet(c.ptr->AdditionalParameters); },
          [](Camera& c, const py::object& v) {
            CountedSet(c.ptr->AdditionalParameters, v, "additional_parameters");
          })
      .def_property(
          "dem_filename", [](const Camera& c) { return TextGet(c.ptr->demfilename); },
          [](Camera& c, const std::wstring& v) { TextSet(c.ptr->demfilename, v); })
      .def("__repr__", [](const Camera& c) {
        return "<kzdvpholibu.Camera focal=" + std::to_string(c.ptr->coeffs[0]) + " centre=(" +
               std::to_string(c.ptr->coeffs[3]) + ", " + std::to_string(c.ptr->coeffs[4]) + ", " +
               std::to_string(c.ptr->coeffs[5]) + ")>";
      });
  m.attr("FORWARD") = EMOD_FORWARD;
  m.attr("INVERSE") = EMOD_INVERSE;
  m.attr("DEM_FILE") = EMOD_DEM_FILE;
  m.attr("DEM_CONSTANT") = EMOD_DEM_CONSTANT;

  py::class_<Xform>(m, "CameraXform",
                    "The transform object of a frame camera (holds a deep copy of the camera).")
      .def(py::init<const Camera&>(), py::arg("camera"))
      .def("fill", &Xform::Fill,
           "Prepares the object (projection, DEM, orientation matrix); raises Error when the\n"
           "camera cannot be used (zero focal length, singular affines, missing DEM).")
      .def_property_readonly("filled", &Xform::Filled)
      .def_property_readonly("camera", &Xform::GetCamera, "A copy of the object's camera.")
      .def_property_readonly("orientation", &Xform::Orientation,
                             "The prepared 3x4 projection matrix (12,).")
      .def("transform", &Xform::Transform, py::arg("points"),
           "Points (n, 2) float64 one way by the camera's direction (heights from the DEM or\n"
           "z_mean); returns (n, 2).")
      .def("transform_3d_to_2d", &Xform::Transform3DTo2D, py::arg("points"),
           "Points (n, 3) float64 (x, y, own height) to (n, 2).")
      .def(
          "forward_cartesian",
          [](Xform& x, const py::object& p, const py::object& h) {
            return x.Batch(p, h, true, false);
          },
          py::arg("points"), py::arg("heights"),
          "Ground (n, 2) with heights (n,) to film (n, 2) (a prepared Cartesian camera).")
      .def(
          "inverse_cartesian",
          [](Xform& x, const py::object& p, const py::object& h) {
            return x.Batch(p, h, false, false);
          },
          py::arg("points"), py::arg("heights"), "Film (n, 2) at heights (n,) to ground (n, 2).")
      .def_static("pair_to_3d", &PairTo3D, py::arg("left"), py::arg("right"),
                  py::arg("left_points"), py::arg("right_points"),
                  "Intersects pairs of image points (n, 2) of two cameras into ground (n, 3).")
      .def_static("epipolar_line", &EpipolarLine, py::arg("left"), py::arg("right"), py::arg("x"),
                  py::arg("y"), py::arg("zmin"), py::arg("zmax"), py::arg("count") = 2,
                  "Epipolar line (count, 2) in the right image of left file pixel (x, y).");
}
