// Image layers and their binomial pyramid levels.
#include <cstring>
#include <string>

#include "common.h"
#include "eimg.h"
#include "epho/pyramid.h"

namespace {

using kzpy::CArray;

struct LayerCloser {
  Eimg_Layer* layer = nullptr;
  ~LayerCloser() { eimg_LayerClose(layer, nullptr); }
};

Eimg_Layer* OpenLayer(const std::wstring& name) {
  Eerr_ErrorReport* err = nullptr;
  Eimg_Layer* layer = eimg_LayerOpen(name.c_str(), nullptr, nullptr, EIMG_ACCESS_READ, &err);
  if (!layer) kzpy::RaiseReport(err, "cannot open the layer " + kzpy::ToUtf8(name.c_str()));
  return layer;
}

// numpy dtype of a layer's pixels; 1-, 2- and 4-bit pixels are read as bytes.
py::dtype DtypeOf(Egda_PixelType type) {
  switch (type) {
    case EGDA_TYPE_U1:
    case EGDA_TYPE_U2:
    case EGDA_TYPE_U4:
    case EGDA_TYPE_U8:
      return py::dtype::of<uint8_t>();
    case EGDA_TYPE_S8:
      return py::dtype::of<int8_t>();
    case EGDA_TYPE_U16:
      return py::dtype::of<uint16_t>();
    case EGDA_TYPE_S16:
      return py::dtype::of<int16_t>();
    case EGDA_TYPE_U32:
      return py::dtype::of<uint32_t>();
    case EGDA_TYPE_S32:
      return py::dtype::of<int32_t>();
    case EGDA_TYPE_F32:
      return py::dtype::of<float>();
    case EGDA_TYPE_F64:
      return py::dtype::of<double>();
    default:
      throw kzpy::LibraryError("complex or unknown pixels cannot be read into an array");
  }
}

Egda_PixelType MemoryType(Egda_PixelType type) {
  return type == EGDA_TYPE_U1 || type == EGDA_TYPE_U2 || type == EGDA_TYPE_U4 ? EGDA_TYPE_U8 : type;
}

// The whole layer (or one pyramid level of it) as a new array, read by the
// library straight into the array's buffer.
py::array ReadLayer(const std::wstring& name, long level) {
  if (level < 0) throw py::value_error("level: must be 0 (the layer) or a pyramid level");
  LayerCloser base{OpenLayer(name)};
  LayerCloser levelLayer;
  Eimg_Layer* layer = base.layer;
  Eerr_ErrorReport* err = nullptr;
  if (level > 0) {
    levelLayer.layer = eimg_LayerPyramidLevelOpen(base.layer, level, &err);
    if (!levelLayer.layer) kzpy::RaiseReport(err, "no pyramid level " + std::to_string(level));
    layer = levelLayer.layer;
  }
  const Egda_PixelType type = MemoryType(layer->pixelType);
  py::array out(DtypeOf(layer->pixelType), {layer->height, layer->width});
  Eimg_PixelRect rect{layer->width, layer->height, type,
                      static_cast<unsigned char*>(out.mutable_data())};
  bool ok;
  {
    py::gil_scoped_release release;
    ok = eimg_LayerRead(layer, 0, 0, &rect, &err);
  }
  if (!ok) kzpy::RaiseReport(err, "cannot read " + kzpy::ToUtf8(name.c_str()));
  return out;
}

py::dict LayerInfo(const std::wstring& name) {
  LayerCloser l{OpenLayer(name)};
  Eerr_ErrorReport* err = nullptr;
  const long levels = eimg_LayerPyramidLevelCount(l.layer, &err);
  kzpy::Check(err, "cannot count the pyramid levels");
  py::dict d;
  d["width"] = l.layer->width;
  d["height"] = l.layer->height;
  d["dtype"] = DtypeOf(l.layer->pixelType);
  d["levels"] = levels;
  std::vector<py::tuple> sizes;
  for (long k = 1; k <= levels; ++k) {
    Eimg_Layer* lv = eimg_LayerPyramidLevelOpen(l.layer, k, &err);
    if (!lv) kzpy::RaiseReport(err, "cannot open pyramid level " + std::to_string(k));
    sizes.push_back(py::make_tuple(lv->width, lv->height));
    eimg_LayerClose(lv, nullptr);
  }
  d["level_sizes"] = sizes;
  return d;
}

}  // namespace

void BindImage(py::module_& m) {
  m.def("read_layer", &ReadLayer, py::arg("name"), py::arg("level") = 0,
        "A layer (\"file\" or \"file:Layer_N\") or one of its pyramid levels (1, 2, ...) as a\n"
        "2-D array of the layer's pixel type, rows first.");
  m.def("layer_info", &LayerInfo, py::arg("name"),
        "Width, height, dtype and pyramid levels (count and sizes) of a layer.");
  m.def(
      "compute_pyramids",
      [](const std::wstring& file) {
        Eerr_ErrorReport* err = nullptr;
        {
          py::gil_scoped_release release;
          epho_ComputePyramidLayers3x3(file.c_str(), nullptr, &err);
        }
        kzpy::Check(err, "epho_ComputePyramidLayers3x3 failed");
      },
      py::arg("file"),
      "Builds the 3x3 binomial pyramid levels of every layer of the image file (replacing\n"
      "any levels it had), as GDAL overviews in the level file <file>.ovr beside it (the\n"
      "image is only read). The GIL is released meanwhile; the image is locked against a\n"
      "second writer.");
  m.def(
      "pyramid_level_count", [](long w, long h) { return epho_PyramidLevelCount(w, h); },
      py::arg("width"), py::arg("height"), "Number of binomial levels a layer of w x h gets.");
  m.def(
      "pyramids_check",
      [](const std::wstring& file, bool allowOther) {
        Eerr_ErrorReport* err = nullptr;
        const Emsc_Boolean ok = allowOther ? epho_PyramidLayersCheckAllowRSETS(file.c_str(), &err)
                                           : epho_PyramidLayersCheck(file.c_str(), &err);
        kzpy::Check(err, "cannot check the pyramid levels");
        return ok != 0;
      },
      py::arg("file"), py::arg("allow_other") = false,
      "True when every layer has usable binomial levels (allow_other: levels of any\n"
      "algorithm whose count and sizes fit).");
  m.def(
      "layer_effective_range",
      [](const std::wstring& layer) {
        double lo = 0, hi = 0;
        Eerr_ErrorReport* err = nullptr;
        if (!epho_LayerEffectiveRangeGet(layer.c_str(), &lo, &hi, &err))
          kzpy::RaiseReport(err, "epho_LayerEffectiveRangeGet failed");
        return py::make_tuple(lo, hi);
      },
      py::arg("layer"), "(minimum, maximum) of the layer's valid pixel values.");
}
