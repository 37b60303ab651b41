// The compiled core of the kzdvpholibu Python package.
#include <sstream>

#include "common.h"
#include "emsc.h"
#include "etxt.h"

namespace kzpy {

std::string ToUtf8(const wchar_t* text) {
  if (!text) return {};
  char* narrow = etxt_ToUtf8(text);
  if (!narrow) return "<text not convertible to UTF-8>";
  std::string out(narrow);
  emsc_HeapFree(narrow);
  return out;
}

std::string TakeReportText(Eerr_ErrorReport* report) {
  if (!report) return {};
  Etxt_Char* text = eerr_ErrorReportText(report);
  std::string out = text ? ToUtf8(text) : "unreadable error report";
  emsc_HeapFree(text);
  eerr_DeleteErrorReport(report);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

void RaiseReport(Eerr_ErrorReport* report, const std::string& fallback) {
  if (!report) throw LibraryError(fallback);
  throw LibraryError(TakeReportText(report));
}

std::string DtypeName(const py::dtype& dt) {
  return py::str(static_cast<const py::handle&>(dt)).cast<std::string>();
}

void CheckShape(const py::array& a, const char* name, std::initializer_list<long> shape) {
  bool ok = a.ndim() == static_cast<py::ssize_t>(shape.size());
  py::ssize_t axis = 0;
  for (long want : shape) {
    if (!ok) break;
    if (want >= 0 && a.shape(axis) != want) ok = false;
    ++axis;
  }
  if (ok) return;
  std::ostringstream os;
  os << name << ": expected shape (";
  axis = 0;
  for (long want : shape) {
    if (axis++) os << ", ";
    if (want < 0)
      os << "n";
    else
      os << want;
  }
  if (shape.size() == 1) os << ",";
  os << "), got (";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) os << (i ? ", " : "") << a.shape(i);
  if (a.ndim() == 1) os << ",";
  os << ")";
  throw py::value_error(os.str());
}

CArray<double> Doubles(const py::handle& obj, const char* name, std::initializer_list<long> shape) {
  py::array raw = py::array::ensure(obj);
  if (!raw) throw py::type_error(std::string(name) + ": expected an array of numbers");
  const char kind = raw.dtype().kind();
  if (kind != 'f' && kind != 'i' && kind != 'u')
    throw py::type_error(std::string(name) + ": expected real numbers, got dtype " +
                         DtypeName(raw.dtype()));
  auto a = CArray<double>::ensure(raw);
  if (!a) throw py::type_error(std::string(name) + ": cannot be read as float64");
  CheckShape(a, name, shape);
  return a;
}

}  // namespace kzpy

PYBIND11_MODULE(_core, m) {
  m.doc() =
      "Compiled core of kzdvpholibu: the photogrammetry kernel, frame cameras, matching, "
      "pyramids, camera files, block files and the triangulation refinement.";
  py::register_exception<kzpy::LibraryError>(m, "Error", PyExc_RuntimeError);
  BindKernel(m);
  BindCamera(m);
  BindMatching(m);
  BindImage(m);
  BindCameraFile(m);
  BindBlock(m);
  BindTriangulation(m);
  BindAutoTie(m);
}
