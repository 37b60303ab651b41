// `epho pyramids IMAGE...`: binomial pyramid levels of each image, with a
// progress bar; Ctrl-C cancels cleanly (the image is left without levels).
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "eimg.h"
#include "emet.h"
#include "epho/pyramid.h"
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

int RunPyramids(int argc, char** argv) {
  bool check_only = false;
  int first = 1;
  if (argc > 1 && !std::strcmp(argv[1], "--check")) check_only = true, first = 2;
  if (first >= argc) {
    std::fprintf(stderr,
                 "usage: epho pyramids [--check] IMAGE...\n"
                 "  builds the 3x3 binomial pyramid levels of every layer of each image\n"
                 "  (stored as GDAL overviews); --check only tells whether usable ones exist\n");
    return 2;
  }
  int failures = 0;
  auto old_handler = std::signal(SIGINT, CancelOnSignal);
  for (int i = first; i < argc; ++i) {
    std::wstring image = kzdv::FromUtf8(argv[i]);
    Eerr_ErrorReport* err = nullptr;
    if (check_only) {
      Emsc_Boolean ok = epho_PyramidLayersCheck(image.c_str(), &err);
      if (err) {
        eerr_PrintErrorReport(err, nullptr, 0);
        eerr_DeleteErrorReport(err);
        ++failures;
        continue;
      }
      std::printf("%s: %s\n", argv[i], ok ? "usable binomial pyramid levels" : "no usable levels");
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
    std::printf("%s: %ld pyramid levels\n", argv[i], LevelCount(image));
  }
  std::signal(SIGINT, old_handler);
  return failures ? 1 : 0;
}

}  // namespace

EPHO_COMMAND("pyramids", "[--check] IMAGE...  build 3x3 binomial pyramid levels", RunPyramids);
