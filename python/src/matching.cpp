// Image matching: normalised cross-correlation, the NCC template search and
// least-squares matching. The library's matching kernels read the buffers
// without bounds checks; every window is checked here against the arrays
// before the call, so a position too near the border raises ValueError.
#include "epho/matching.h"

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "common.h"

namespace {

using kzpy::CArray;

// A 2-D C-contiguous image of one of the pixel types the kernels take.
struct Image {
  py::array array;
  char kind;  // 'B' uint8, 'H' uint16, 'I' uint32, 'f' float32, 'd' float64
  long width, height;
  const void* data() const { return array.data(); }
};

Image TakeImage(const py::handle& obj, const char* name, const char* accepted) {
  if (!py::isinstance<py::array>(obj))
    throw py::type_error(std::string(name) + ": expected a numpy array");
  py::array a = py::reinterpret_borrow<py::array>(obj);
  char kind = 0;
  const py::dtype dt = a.dtype();
  if (dt.equal(py::dtype::of<uint8_t>()))
    kind = 'B';
  else if (dt.equal(py::dtype::of<uint16_t>()))
    kind = 'H';
  else if (dt.equal(py::dtype::of<uint32_t>()))
    kind = 'I';
  else if (dt.equal(py::dtype::of<float>()))
    kind = 'f';
  else if (dt.equal(py::dtype::of<double>()))
    kind = 'd';
  if (!kind || !std::strchr(accepted, kind)) {
    std::string list;
    for (const char* c = accepted; *c; ++c) {
      if (!list.empty()) list += ", ";
      list += *c == 'B'   ? "uint8"
              : *c == 'H' ? "uint16"
              : *c == 'I' ? "uint32"
              : *c == 'f' ? "float32"
                          : "float64";
    }
    throw py::type_error(std::string(name) + ": expected dtype " + list + ", got " +
                         kzpy::DtypeName(dt));
  }
  if (a.ndim() != 2)
    throw py::value_error(std::string(name) + ": expected a 2-D image (rows, columns)");
  if (!(a.flags() & py::array::c_style))
    throw py::value_error(std::string(name) + ": the array must be C-contiguous");
  if (a.shape(1) > UINT32_MAX / 2 || a.shape(0) > UINT32_MAX / 2)
    throw py::value_error(std::string(name) + ": too large");
  return Image{a, kind, static_cast<long>(a.shape(1)), static_cast<long>(a.shape(0))};
}

void SameType(const Image& a, const Image& b) {
  if (a.kind != b.kind) throw py::type_error("left and right images must have the same dtype");
}

// Pixels [x0, x1] x [y0, y1] (inclusive) inside the image.
void Inside(const Image& im, const char* name, double x0, double y0, double x1, double y1) {
  if (!(x0 >= 0 && y0 >= 0 && x1 <= im.width - 1 && y1 <= im.height - 1))
    throw py::value_error(std::string(name) + ": the window reaches beyond the image (columns " +
                          std::to_string(x0) + ".." + std::to_string(x1) + ", rows " +
                          std::to_string(y0) + ".." + std::to_string(y1) + " of " +
                          std::to_string(im.width) + " x " + std::to_string(im.height) + ")");
}

void CheckSize(long w, long h) {
  if (w < 1 || h < 1 || w > 32767 || h > 32767) throw py::value_error("size: 1 to 32767 pixels");
}

template <typename T>
const T* P(const Image& im) {
  return static_cast<const T*>(im.data());
}

double NccWhole(const py::object& l, const py::object& r, long lx, long ly, long rx, long ry,
                long w, long h) {
  Image L = TakeImage(l, "left", "BHIfd"), R = TakeImage(r, "right", "BHIfd");
  SameType(L, R);
  CheckSize(w, h);
  const long hw = w / 2, hh = h / 2;
  Inside(L, "left", lx - hw, ly - hh, lx + hw, ly + hh);
  Inside(R, "right", rx - hw, ry - hh, rx + hw, ry + hh);
  const auto ls = static_cast<uint32_t>(L.width), rs = static_cast<uint32_t>(R.width);
  const auto a = static_cast<uint32_t>(lx), b = static_cast<uint32_t>(ly),
             c = static_cast<uint32_t>(rx), d = static_cast<uint32_t>(ry);
  const auto W = static_cast<int16_t>(w), H = static_cast<int16_t>(h);
  switch (L.kind) {
    case 'B':
      return epho_CrossCoefByteNoResample(P<uint8_t>(L), P<uint8_t>(R), ls, rs, a, b, c, d, W, H);
    case 'H':
      return epho_CrossCoefU16NoResample(P<uint16_t>(L), P<uint16_t>(R), ls, rs, a, b, c, d, W, H);
    case 'I':
      return epho_CrossCoefU32NoResample(P<uint32_t>(L), P<uint32_t>(R), ls, rs, a, b, c, d, W, H);
    case 'f':
      return epho_CrossCoefFloatNoResample(P<float>(L), P<float>(R), ls, rs, a, b, c, d, W, H);
    default:
      return epho_CrossCoefDoubleNoResample(P<double>(L), P<double>(R), ls, rs, a, b, c, d, W, H);
  }
}

// Sub-pixel, optionally turned windows (half-pixel centres). The reach of a
// turned window is its half diagonal plus the interpolation cell.
double NccSubpixel(const py::object& l, const py::object& r, double lx, double ly, double rx,
                   double ry, long w, long h, double leftAngle, double rightAngle) {
  Image L = TakeImage(l, "left", "Bd"), R = TakeImage(r, "right", "Bd");
  SameType(L, R);
  CheckSize(w, h);
  const double reach = std::ceil(std::hypot(w / 2, h / 2)) + 2;
  if (!std::isfinite(lx + ly + rx + ry + leftAngle + rightAngle))
    throw py::value_error("positions and angles must be finite");
  Inside(L, "left", lx - reach, ly - reach, lx + reach, ly + reach);
  Inside(R, "right", rx - reach, ry - reach, rx + reach, ry + reach);
  const auto ls = static_cast<uint32_t>(L.width), rs = static_cast<uint32_t>(R.width);
  const auto W = static_cast<int16_t>(w), H = static_cast<int16_t>(h);
  const bool turned = leftAngle != 0.0 || rightAngle != 0.0;
  if (L.kind == 'B')
    return turned ? epho_CrossCoefByteBothResample(P<uint8_t>(L), P<uint8_t>(R), ls, rs, leftAngle,
                                                   rightAngle, lx, ly, rx, ry, W, H)
                  : epho_CrossCoefByteNoRotation(P<uint8_t>(L), P<uint8_t>(R), ls, rs, lx, ly, rx,
                                                 ry, W, H);
  return turned ? epho_CrossCoefDoubleBothResample(P<double>(L), P<double>(R), ls, rs, leftAngle,
                                                   rightAngle, lx, ly, rx, ry, W, H)
                : epho_CrossCoefDoubleNoRotation(P<double>(L), P<double>(R), ls, rs, lx, ly, rx, ry,
                                                 W, H);
}

py::object NccSearch(const py::object& l, const py::object& r, long lx, long ly, long hw, long hh,
                     long rxMin, long ryMin, long rxMax, long ryMax) {
  Image L = TakeImage(l, "left", "Bf"), R = TakeImage(r, "right", "Bf");
  SameType(L, R);
  if (hw < 0 || hh < 0 || hw > EPHO_NCC_SEARCH_MAX_HALF || hh > EPHO_NCC_SEARCH_MAX_HALF)
    throw py::value_error("half sizes: 0 to " + std::to_string(EPHO_NCC_SEARCH_MAX_HALF));
  if (rxMin > rxMax || ryMin > ryMax) throw py::value_error("search range: empty");
  Inside(L, "left", lx - hw, ly - hh, lx + hw, ly + hh);
  Inside(R, "right (search range)", rxMin - hw, ryMin - hh, rxMax + hw, ryMax + hh);
  const size_t bytes = epho_NccSearchScratchBytes(
      static_cast<uint32_t>(hw), static_cast<uint32_t>(hh),
      static_cast<uint32_t>(rxMax - rxMin + 1), static_cast<uint32_t>(ryMax - ryMin + 1));
  if (bytes == 0) throw py::value_error("search range: too large for the search");
  std::vector<unsigned char> scratch(bytes);
  Epho_NccPeak peak{};
  int rc;
  {
    py::gil_scoped_release release;
    const auto a = static_cast<uint32_t>(lx), b = static_cast<uint32_t>(ly);
    const auto c = static_cast<uint32_t>(hw), d = static_cast<uint32_t>(hh);
    const auto e = static_cast<uint32_t>(rxMin), f = static_cast<uint32_t>(ryMin);
    const auto g = static_cast<uint32_t>(rxMax), h = static_cast<uint32_t>(ryMax);
    rc = L.kind == 'B'
             ? epho_NccSearchByte(P<uint8_t>(L), P<uint8_t>(R), static_cast<uint32_t>(L.width),
                                  static_cast<uint32_t>(R.width), a, b, c, d, e, f, g, h,
                                  scratch.data(), scratch.size(), &peak)
             : epho_NccSearchFloat(P<float>(L), P<float>(R), static_cast<uint32_t>(L.width),
                                   static_cast<uint32_t>(R.width), a, b, c, d, e, f, g, h,
                                   scratch.data(), scratch.size(), &peak);
  }
  if (rc == EPHO_NCC_SEARCH_FLAT) return py::none();
  if (rc != EPHO_NCC_SEARCH_OK)
    throw kzpy::LibraryError("epho_NccSearch: refused its arguments (code " + std::to_string(rc) +
                             ")");
  py::dict d;
  d["column"] = peak.column;
  d["row"] = peak.row;
  d["coefficient"] = peak.coefficient;
  d["subpixel_column"] = peak.subpixel_column;
  d["subpixel_row"] = peak.subpixel_row;
  d["on_border"] = peak.on_border;
  return std::move(d);
}

// Least-squares matching with a resampled, optionally turned template; the
// right array is the search patch (at least 4*hw+3 columns, 4*hh+3 rows).
py::tuple Lsm(const py::object& l, const py::object& r, double lx, double ly, double rx, double ry,
              long w, long h, double leftAngle, double rightAngle, int maxIterations,
              double convergence, double maxShift) {
  Image L = TakeImage(l, "left", "Bd"), R = TakeImage(r, "right", "Bd");
  SameType(L, R);
  CheckSize(w, h);
  if (maxIterations < 0 || maxIterations > 1000) throw py::value_error("max_iterations: 0 to 1000");
  const long hw = w / 2, hh = h / 2;
  if (R.width < 4 * hw + 3 || R.height < 4 * hh + 3)
    throw py::value_error("right: the search patch needs at least " + std::to_string(4 * hw + 3) +
                          " columns and " + std::to_string(4 * hh + 3) + " rows");
  const double reach = std::ceil(std::hypot(hw, hh)) + 2;
  if (!std::isfinite(lx + ly + rx + ry)) throw py::value_error("positions must be finite");
  Inside(L, "left", lx - reach, ly - reach, lx + reach, ly + reach);
  Eerr_ErrorReport* err = nullptr;
  int16_t code;
  {
    py::gil_scoped_release release;
    const auto W = static_cast<int16_t>(w), H = static_cast<int16_t>(h);
    const auto M = static_cast<int16_t>(maxIterations);
    code = L.kind == 'B'
               ? epho_OnePtLSCByte(P<uint8_t>(L), static_cast<int32_t>(L.width), leftAngle, lx, ly,
                                   P<uint8_t>(R), static_cast<int32_t>(R.width), rightAngle, &rx,
                                   &ry, W, H, M, static_cast<float>(convergence),
                                   static_cast<float>(maxShift), &err)
               : epho_OnePtLSCDouble(P<double>(L), static_cast<int32_t>(L.width), leftAngle, lx, ly,
                                     P<double>(R), static_cast<int32_t>(R.width), rightAngle, &rx,
                                     &ry, W, H, M, static_cast<float>(convergence),
                                     static_cast<float>(maxShift), &err);
  }
  // A failure code comes with a report when the normal matrix was singular;
  // the code tells the caller, the report text goes with it.
  std::string message = kzpy::TakeReportText(err);
  return py::make_tuple(code, rx, ry, message);
}

// Least-squares matching with the template read in place at whole pixels;
// the right array must be square (the kernel takes its stride as its height).
py::tuple LsmHalf(const py::object& l, const py::object& r, long lx, long ly, double rx, double ry,
                  long hw, long hh, int maxIterations, double convergence, double maxShift) {
  Image L = TakeImage(l, "left", "BI"), R = TakeImage(r, "right", "BI");
  SameType(L, R);
  if (hw < 0 || hh < 0 || hw > 16383 || hh > 16383) throw py::value_error("half sizes: 0 to 16383");
  if (maxIterations < 0 || maxIterations > 1000) throw py::value_error("max_iterations: 0 to 1000");
  if (R.width != R.height) throw py::value_error("right: must be a square patch (rows == columns)");
  Inside(L, "left", lx - hw - 1, ly - hh - 1, lx + hw + 1, ly + hh + 1);
  if (!std::isfinite(rx + ry)) throw py::value_error("positions must be finite");
  int16_t code;
  {
    py::gil_scoped_release release;
    const auto M = static_cast<int16_t>(maxIterations);
    code = L.kind == 'B'
               ? epho_OnePtLSCByteHalf(
                     P<uint8_t>(L), static_cast<int32_t>(L.width), static_cast<int32_t>(lx),
                     static_cast<int32_t>(ly), P<uint8_t>(R), static_cast<int32_t>(R.width), &rx,
                     &ry, static_cast<uint32_t>(hw), static_cast<uint32_t>(hh), M,
                     static_cast<float>(convergence), static_cast<float>(maxShift))
               : epho_OnePtLSCU32(P<uint32_t>(L), static_cast<int32_t>(L.width),
                                  static_cast<int32_t>(lx), static_cast<int32_t>(ly),
                                  P<uint32_t>(R), static_cast<int32_t>(R.width), &rx, &ry,
                                  static_cast<uint32_t>(hw), static_cast<uint32_t>(hh), M,
                                  static_cast<float>(convergence), static_cast<float>(maxShift));
  }
  return py::make_tuple(code, rx, ry);
}

py::object GradientAngle(const py::object& img, long x, long y, long hw, long hh) {
  Image I = TakeImage(img, "image", "Bd");
  if (hw < 0 || hh < 0 || hw > 16383 || hh > 16383) throw py::value_error("half sizes: 0 to 16383");
  Inside(I, "image", x - hw - 1, y - hh - 1, x + hw + 1, y + hh + 1);
  double angle = 0;
  const int rc =
      I.kind == 'B'
          ? epho_GradiAngleByte(P<uint8_t>(I), static_cast<uint32_t>(I.width),
                                static_cast<int32_t>(x), static_cast<int32_t>(y),
                                static_cast<uint32_t>(hw), static_cast<uint32_t>(hh), &angle)
          : epho_GradiAngleDouble(P<double>(I), static_cast<uint32_t>(I.width),
                                  static_cast<int32_t>(x), static_cast<int32_t>(y),
                                  static_cast<uint32_t>(hw), static_cast<uint32_t>(hh), &angle);
  if (rc != 0) return py::none();
  return py::float_(angle);
}

}  // namespace

void BindMatching(py::module_& m) {
  m.def("ncc", &NccWhole, py::arg("left"), py::arg("right"), py::arg("lx"), py::arg("ly"),
        py::arg("rx"), py::arg("ry"), py::arg("width"), py::arg("height"),
        "Normalised cross-correlation of two windows at whole pixels (column, row), window\n"
        "made odd (8 and 9 are the same). Images: 2-D uint8, uint16, uint32, float32 or\n"
        "float64 of one dtype. A flat window gives 0.0.");
  m.def("ncc_subpixel", &NccSubpixel, py::arg("left"), py::arg("right"), py::arg("lx"),
        py::arg("ly"), py::arg("rx"), py::arg("ry"), py::arg("width"), py::arg("height"),
        py::arg("left_angle") = 0.0, py::arg("right_angle") = 0.0,
        "NCC of two windows at sub-pixel positions (pixel k spans k..k+1), each turned by\n"
        "its angle (radians); uint8 or float64 images.");
  m.def("ncc_search", &NccSearch, py::arg("left"), py::arg("right"), py::arg("lx"), py::arg("ly"),
        py::arg("half_width"), py::arg("half_height"), py::arg("rx_min"), py::arg("ry_min"),
        py::arg("rx_max"), py::arg("ry_max"),
        "Best NCC position of the left template (centre lx, ly) over right centres in\n"
        "[rx_min, rx_max] x [ry_min, ry_max]; uint8 or float32 images. Returns a dict\n"
        "(column, row, coefficient, subpixel_column, subpixel_row, on_border) or None when\n"
        "every coefficient is 0 (flat template or area). The GIL is released.");
  m.def("lsm", &Lsm, py::arg("left"), py::arg("right"), py::arg("lx"), py::arg("ly"), py::arg("rx"),
        py::arg("ry"), py::arg("width"), py::arg("height"), py::arg("left_angle") = 0.0,
        py::arg("right_angle") = 0.0, py::arg("max_iterations") = 10, py::arg("convergence") = 0.01,
        py::arg("max_shift") = 2.0,
        "Least-squares matching of a resampled template at (lx, ly) in a right search patch\n"
        "starting at (rx, ry) (half-pixel centres). Returns (code, rx, ry, message): code < 0\n"
        "converged after -code iterations; max_iterations + 1 the limit was reached;\n"
        "2 * max_iterations failed (message: the library's report, if any).");
  m.def("lsm_half", &LsmHalf, py::arg("left"), py::arg("right"), py::arg("lx"), py::arg("ly"),
        py::arg("rx"), py::arg("ry"), py::arg("half_width"), py::arg("half_height"),
        py::arg("max_iterations") = 10, py::arg("convergence") = 0.002, py::arg("max_shift") = 2.0,
        "Least-squares matching with the template at whole left pixel (lx, ly) and a square\n"
        "right patch (uint8 or uint32). Returns (code, rx, ry) with the codes of lsm().");
  m.def("gradient_angle", &GradientAngle, py::arg("image"), py::arg("x"), py::arg("y"),
        py::arg("half_width"), py::arg("half_height"),
        "Dominant gradient direction (radians) of a window, or None when it is flat.");
}
