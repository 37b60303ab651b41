// Shared pieces of the Python bindings: the library's error reports as
// Python exceptions, text conversion and numpy argument checks.
#ifndef KZDVPHOLIBU_PYTHON_COMMON_H
#define KZDVPHOLIBU_PYTHON_COMMON_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "eerr.h"

namespace py = pybind11;

namespace kzpy {

// Raised as kzdvpholibu.Error (a RuntimeError); the message is the full text
// of the library's report, outermost call first.
class LibraryError : public std::runtime_error {
 public:
  explicit LibraryError(const std::string& message) : std::runtime_error(message) {}
};

// Text of a report chain (one link a line). Frees the chain.
std::string TakeReportText(Eerr_ErrorReport* report);
// Throws LibraryError with the report's text, prefixed by `context` when it
// is not empty; frees the report. A null report gives `fallback`.
[[noreturn]] void RaiseReport(Eerr_ErrorReport* report, const std::string& fallback);
// Throws when `report` is set (and frees it).
inline void Check(Eerr_ErrorReport* report, const std::string& fallback) {
  if (report) RaiseReport(report, fallback);
}

std::string ToUtf8(const wchar_t* text);

// Numpy arrays the bindings take without copying: C-contiguous, of exactly
// the element type asked for (no silent conversion). A wrong dtype raises
// TypeError, a wrong shape ValueError, both naming the argument.
template <typename T>
using CArray = py::array_t<T, py::array::c_style>;

std::string DtypeName(const py::dtype& dt);

// Requires `obj` to be a numpy array of dtype T, C-contiguous, of `ndim`
// dimensions (the shape entries that are not -1 must match).
void CheckShape(const py::array& a, const char* name, std::initializer_list<long> shape);

template <typename T>
CArray<T> Strict(const py::handle& obj, const char* name, std::initializer_list<long> shape) {
  if (!py::isinstance<py::array>(obj))
    throw py::type_error(std::string(name) + ": expected a numpy array of " +
                         DtypeName(py::dtype::of<T>()));
  py::array a = py::reinterpret_borrow<py::array>(obj);
  if (!a.dtype().is(py::dtype::of<T>()) && !a.dtype().equal(py::dtype::of<T>()))
    throw py::type_error(std::string(name) + ": expected dtype " + DtypeName(py::dtype::of<T>()) +
                         ", got " + DtypeName(a.dtype()));
  if (!(a.flags() & py::array::c_style))
    throw py::value_error(std::string(name) + ": the array must be C-contiguous");
  CheckShape(a, name, shape);
  return py::reinterpret_borrow<CArray<T>>(a);
}

// A float64 array of any contiguity and numeric dtype converted (copied only
// when it has to be) to C-contiguous double, checked for shape. For the small
// coordinate arrays where a conversion costs nothing.
CArray<double> Doubles(const py::handle& obj, const char* name, std::initializer_list<long> shape);

}  // namespace kzpy

// One registration function per area.
void BindKernel(py::module_& m);
void BindCamera(py::module_& m);
void BindMatching(py::module_& m);
void BindImage(py::module_& m);
void BindCameraFile(py::module_& m);
void BindBlock(py::module_& m);
void BindTriangulation(py::module_& m);
void BindAutoTie(py::module_& m);

#endif  // KZDVPHOLIBU_PYTHON_COMMON_H
