// Angles, rotation matrices, collinearity and lens distortion.
#include "epho/kernel.h"

#include <cmath>
#include <optional>
#include <vector>

#include "common.h"
#include "epho/camera.h"

namespace {

using kzpy::CArray;

// A lens record (lens distortion or additional parameters) from an optional
// 1-D array; the record points into the array, which must outlive it.
struct CountedView {
  CArray<double> array;
  Epho_CountedDoubles record{0, nullptr};
  bool present = false;
  CountedView(const std::optional<py::object>& obj, const char* name) {
    if (!obj || obj->is_none()) return;
    array = kzpy::Doubles(*obj, name, {-1});
    record.count = static_cast<int32_t>(array.shape(0));
    record.data = const_cast<double*>(array.data());
    present = true;
  }
  const Epho_CountedDoubles* get() const { return present ? &record : nullptr; }
};

// Angle triples (3,) or (n, 3) to rotation matrices (3, 3) or (n, 3, 3).
py::array RotationMatrices(const py::object& angles, short code) {
  py::array raw = py::array::ensure(angles);
  const bool single = raw && raw.ndim() == 1;
  auto a = single ? kzpy::Doubles(angles, "angles", {3}) : kzpy::Doubles(angles, "angles", {-1, 3});
  const py::ssize_t n = single ? 1 : a.shape(0);
  CArray<double> out(single ? std::vector<py::ssize_t>{3, 3} : std::vector<py::ssize_t>{n, 3, 3});
  const double* src = a.data();
  double* dst = out.mutable_data();
  for (py::ssize_t i = 0; i < n; ++i) epho_RotateAll(src + 3 * i, dst + 9 * i, code);
  return out;
}

py::array AnglesFromRotations(const py::object& rotations, short code) {
  py::array raw = py::array::ensure(rotations);
  const bool single = raw && raw.ndim() == 2;
  auto r = single ? kzpy::Doubles(rotations, "rotation", {3, 3})
                  : kzpy::Doubles(rotations, "rotation", {-1, 3, 3});
  const py::ssize_t n = single ? 1 : r.shape(0);
  CArray<double> out(single ? std::vector<py::ssize_t>{3} : std::vector<py::ssize_t>{n, 3});
  for (py::ssize_t i = 0; i < n; ++i)
    epho_GetAngleFromRotMatrix(out.mutable_data() + 3 * i, r.data() + 9 * i, code);
  return out;
}

py::array ProjectionMatrix(const std::optional<py::object>& inner, const py::object& outer,
                           double focal, int32_t rotationSystem, int32_t photoDirection) {
  const bool hasInner = inner && !inner->is_none();
  CArray<double> in;
  if (hasInner) in = kzpy::Doubles(*inner, "inner", {6});
  auto out = kzpy::Doubles(outer, "outer", {6});
  CArray<double> matrix(12);
  if (epho_Get3x4ParFromInnerOuter(hasInner ? in.data() : nullptr, out.data(), focal,
                                   rotationSystem, photoDirection, matrix.mutable_data()))
    throw kzpy::LibraryError(
        "epho_Get3x4ParFromInnerOuter: the inner orientation is singular (focal length " +
        std::to_string(focal) + ")");
  return matrix;
}

Epho_FilmProjection Projection(const CArray<double>& matrix, const CountedView& lens,
                               const CountedView& additional, int32_t mode, int32_t correction,
                               double flyingHeight, double focal) {
  Epho_FilmProjection p{};
  p.matrix = matrix.data();
  p.lens = lens.get();
  p.additional = additional.get();
  p.mode = mode;
  p.correction_kind = correction;
  p.flying_height = flyingHeight;
  p.focal = focal;
  return p;
}

// Three equal-length 1-D float64 arrays, used in place.
void SameLength(const CArray<double>& a, const CArray<double>& b, const CArray<double>& c,
                const char* names) {
  if (a.shape(0) != b.shape(0) || a.shape(0) != c.shape(0))
    throw py::value_error(std::string(names) + ": the arrays must have the same length");
  if (a.shape(0) > INT32_MAX) throw py::value_error(std::string(names) + ": too many points");
}

// A batch collinearity call: three coordinate arrays in, two out and the
// failed flags, the arrays named as the caller sees them.
using BatchCall = int32_t (*)(const Epho_FilmProjection*, int32_t, const double*, const double*,
                              const double*, double*, double*, uint8_t*);

py::tuple RunBatch(BatchCall call, const char* const names[4], const py::object& matrixObj,
                   const py::object& aObj, const py::object& bObj, const py::object& cObj,
                   const std::optional<py::object>& lensObj,
                   const std::optional<py::object>& additionalObj, int32_t mode, int32_t correction,
                   double flyingHeight, double focal) {
  auto matrix = kzpy::Doubles(matrixObj, "matrix", {12});
  auto a = kzpy::Strict<double>(aObj, names[0], {-1}),
       b = kzpy::Strict<double>(bObj, names[1], {-1}),
       c = kzpy::Strict<double>(cObj, names[2], {-1});
  SameLength(a, b, c, names[3]);
  CountedView lens(lensObj, "lens"), additional(additionalObj, "additional");
  const Epho_FilmProjection p =
      Projection(matrix, lens, additional, mode, correction, flyingHeight, focal);
  const auto n = static_cast<int32_t>(a.shape(0));
  CArray<double> first(n), second(n);
  py::array_t<bool> failed(n);
  {
    py::gil_scoped_release release;
    call(&p, n, a.data(), b.data(), c.data(), first.mutable_data(), second.mutable_data(),
         reinterpret_cast<uint8_t*>(failed.mutable_data()));
  }
  return py::make_tuple(first, second, failed);
}

py::tuple ObjectToImage(const py::object& matrixObj, const py::object& X, const py::object& Y,
                        const py::object& Z, const std::optional<py::object>& lensObj,
                        const std::optional<py::object>& additionalObj, int32_t mode,
                        int32_t correction, double flyingHeight, double focal) {
  static const char* const kNames[4] = {"X", "Y", "Z", "X, Y, Z"};
  return RunBatch(epho_CameraObjectToImageBatch, kNames, matrixObj, X, Y, Z, lensObj, additionalObj,
                  mode, correction, flyingHeight, focal);
}

py::tuple ImageAndZToXY(const py::object& matrixObj, const py::object& xObj, const py::object& yObj,
                        const py::object& hObj, const std::optional<py::object>& lensObj,
                        const std::optional<py::object>& additionalObj, int32_t mode,
                        int32_t correction, double flyingHeight, double focal) {
  static const char* const kNames[4] = {"x", "y", "height", "x, y, height"};
  return RunBatch(epho_CameraImageAndZToXYBatch, kNames, matrixObj, xObj, yObj, hObj, lensObj,
                  additionalObj, mode, correction, flyingHeight, focal);
}

py::tuple Distortion(const py::object& xObj, const py::object& yObj,
                     const std::optional<py::object>& lensObj,
                     const std::optional<py::object>& additionalObj, bool iterative,
                     double divergenceBound) {
  auto x = kzpy::Doubles(xObj, "x", {-1}), y = kzpy::Doubles(yObj, "y", {-1});
  if (x.shape(0) != y.shape(0)) throw py::value_error("x, y: the arrays must have the same length");
  CountedView lens(lensObj, "lens"), additional(additionalObj, "additional");
  const py::ssize_t n = x.shape(0);
  CArray<double> dx(n), dy(n);
  for (py::ssize_t i = 0; i < n; ++i) {
    if (iterative)
      epho_CameraAwayDistortionIterative(lens.get(), additional.get(), x.data()[i], y.data()[i],
                                         dx.mutable_data() + i, dy.mutable_data() + i,
                                         divergenceBound, 1);
    else
      epho_CameraAwayDistortion(lens.get(), additional.get(), x.data()[i], y.data()[i],
                                dx.mutable_data() + i, dy.mutable_data() + i);
  }
  return py::make_tuple(dx, dy);
}

py::object Intersect(const py::object& a, const py::object& b, const py::object& pa,
                     const py::object& pb) {
  auto ma = kzpy::Doubles(a, "matrix_a", {12}), mb = kzpy::Doubles(b, "matrix_b", {12});
  auto fa = kzpy::Doubles(pa, "film_a", {2}), fb = kzpy::Doubles(pb, "film_b", {2});
  CArray<double> ground(3);
  if (epho_ImageToObject(ma.data(), mb.data(), fa.data()[0], fa.data()[1], fb.data()[0],
                         fb.data()[1], ground.mutable_data()))
    throw kzpy::LibraryError("epho_ImageToObject: the rays do not intersect (parallel rays)");
  return ground;
}

}  // namespace

void BindKernel(py::module_& m) {
  m.def("deg2rad", py::vectorize([](double d) { return epho_deg2rad(d); }),
        "Degrees to radians (element-wise).");
  m.def("rad2deg", py::vectorize([](double r) { return epho_rad2deg(r); }),
        "Radians to degrees (element-wise).");
  m.def("rotation_matrix", &RotationMatrices, py::arg("angles"), py::arg("code") = 0,
        "Rotation matrix of an angle triple (radians): angles (3,) gives (3, 3), (n, 3) gives\n"
        "(n, 3, 3). code: 0 and 1 the phi-first systems (0 negates phi), any other value\n"
        "omega-phi-kappa.");
  m.def("angles_from_rotation", &AnglesFromRotations, py::arg("rotation"), py::arg("code") = 0,
        "Angle triple(s) of rotation matrices (3, 3) or (n, 3, 3), inverse of rotation_matrix.");
  m.def("projection_matrix", &ProjectionMatrix, py::arg("inner"), py::arg("outer"),
        py::arg("focal"), py::arg("rotation_system") = 0, py::arg("photo_direction") = 0,
        "The 3x4 collinearity matrix (12,) of an inner affine (6,) or None and an outer\n"
        "orientation (X0, Y0, Z0, three angles in radians). Raises Error when the inner\n"
        "block is singular.");
  m.def("object_to_image", &ObjectToImage, py::arg("matrix"), py::arg("X"), py::arg("Y"),
        py::arg("Z"), py::arg("lens") = py::none(), py::arg("additional") = py::none(),
        py::arg("mode") = 0, py::arg("correction_kind") = 0, py::arg("flying_height") = 0.0,
        py::arg("focal") = 0.0,
        "Ground points (float64 arrays X, Y, Z, used in place) to film coordinates through the\n"
        "projection matrix, lens distortion and the refraction / curvature correction.\n"
        "Returns (x, y, failed); failed points have NaN coordinates.");
  m.def("image_and_z_to_xy", &ImageAndZToXY, py::arg("matrix"), py::arg("x"), py::arg("y"),
        py::arg("height"), py::arg("lens") = py::none(), py::arg("additional") = py::none(),
        py::arg("mode") = 0, py::arg("correction_kind") = 0, py::arg("flying_height") = 0.0,
        py::arg("focal") = 0.0,
        "Film points at known heights to the two other ground coordinates. Returns\n"
        "(first, second, failed): X, Y (mode 1: X, Z).");
  m.def(
      "distortion",
      [](const py::object& x, const py::object& y, const std::optional<py::object>& lens,
         const std::optional<py::object>& additional) {
        return Distortion(x, y, lens, additional, false, 0.0);
      },
      py::arg("x"), py::arg("y"), py::arg("lens") = py::none(), py::arg("additional") = py::none(),
      "Lens distortion (dx, dy) at film points; lens and additional are the camera's counted\n"
      "records as 1-D arrays (p[0] the model code, p[1] the scale).");
  m.def(
      "distortion_iterative",
      [](const py::object& x, const py::object& y, const std::optional<py::object>& lens,
         const std::optional<py::object>& additional,
         double bound) { return Distortion(x, y, lens, additional, true, bound); },
      py::arg("x"), py::arg("y"), py::arg("lens") = py::none(), py::arg("additional") = py::none(),
      py::arg("divergence_bound") = 1.0,
      "Distortion at the distorted position of ideal film points (fixed-point iteration).");
  m.def("intersect", &Intersect, py::arg("matrix_a"), py::arg("matrix_b"), py::arg("film_a"),
        py::arg("film_b"),
        "Ground point (3,) where the rays of two film points of two projection matrices meet\n"
        "(least squares). Raises Error for parallel rays.");
}
