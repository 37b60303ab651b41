// `epho pyramids IMAGE...`: binomial pyramid levels of each image, with a
// progress bar; Ctrl-C cancels cleanly (the image is left without levels).
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "eimg.h"
#include "emet.h"
#include "epho/pyramid.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

Emet_MeterInfo* volatile g_meter = nullptr;

extern "C" void CancelOnSignal(int) {
  if (g_meter) emet_MeterInfoCancel(g_meter);
}

long LevelCount(const std::wstring& image) {
  Eimg_Layer* layer = eimg_LayerOpen(image.c_str(), nullptr, nullptr, EIMG_ACCESS_READ, nullptr);
  long n = layer ? eimg_LayerPyramidLevelCount(layer, nullptr) : -1;
  eimg_LayerClose(layer, nullptr);
  return n;
}

struct PyramidsArgs {
  bool check_only = false;
  std::vector<std::string> images;
};

int RunPyramids(const PyramidsArgs& args) {
  int failures = 0;
  auto old_handler = std::signal(SIGINT, CancelOnSignal);
  for (const std::string& name : args.images) {
    std::wstring image = kzdv::FromUtf8(name);
    Eerr_ErrorReport* err = nullptr;
    if (args.check_only) {
      Emsc_Boolean ok = epho_PyramidLayersCheck(image.c_str(), &err);
      if (err) {
        eerr_PrintErrorReport(err, nullptr, 0);
        eerr_DeleteErrorReport(err);
        ++failures;
        continue;
      }
      std::printf("%s: %s\n", name.c_str(),
                  ok ? "usable binomial pyramid levels" : "no usable levels");
      if (!ok) ++failures;
      continue;
    }
    g_meter = emet_MeterInfoCreate(image.c_str(), nullptr);
    epho_ComputePyramidLayers3x3(image.c_str(), g_meter, &err);
    Emet_MeterInfo* meter = g_meter;
    g_meter = nullptr;
    emet_MeterInfoDelete(meter);
    if (err) {
      eerr_PrintErrorReport(err, nullptr, 0);
      eerr_DeleteErrorReport(err);
      ++failures;
      continue;
    }
    std::printf("%s: %ld pyramid levels\n", name.c_str(), LevelCount(image));
  }
  std::signal(SIGINT, old_handler);
  return failures ? epho_tool::kExitFailure : epho_tool::kExitOk;
}

epho_tool::Run DeclarePyramids(CLI::App& app) {
  auto args = std::make_shared<PyramidsArgs>();
  app.add_flag("--check", args->check_only,
               "only tell whether usable levels exist (exit 1 when some image has none)");
  app.add_option("IMAGE", args->images, "image files")->required();
  app.footer(
      "Builds the 3x3 binomial pyramid levels of every layer of each image (GDAL overviews, "
      "written to IMAGE.ovr beside it; levels already inside an image are rebuilt there). "
      "Ctrl-C cancels.");
  return [args] { return RunPyramids(*args); };
}

}  // namespace

EPHO_COMMAND("pyramids", "build 3x3 binomial pyramid levels of images", DeclarePyramids);
