// `epho camera show FILE` prints a camera calibration file readably (either
// layout); `epho camera convert OLD NEW` rewrites a file in the current layout.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "epho/camerafile.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace {

struct CameraDeleter {
  void operator()(Epho_CameraFrameInfo* c) const { epho_CameraFrameInfoDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_CameraFrameInfo, CameraDeleter>;

std::string Narrow(const Etxt_Char* s) { return s ? kzdv::ToUtf8(s) : std::string(); }

// "current" when the first line carries the version key, else "older".
const char* LayoutOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string first;
  std::getline(in, first);
  return first.rfind("OVT Camera File Version:", 0) == 0 ? "current" : "older";
}

CameraPtr Read(const std::string& path) {
  Eerr_ErrorReport* err = nullptr;
  const std::wstring wide = kzdv::FromUtf8(path);
  CameraPtr camera(CameraInfoFileRead(wide.c_str(), nullptr, &err));
  if (err) {
    eerr_PrintErrorReport(err, stderr, 0);
    eerr_DeleteErrorReport(err);
  }
  return camera;
}

void PrintPairs(const char* title, const double* values, int value_count, const char* first,
                const char* second) {
  std::printf("%s (%d):\n", title, value_count / 2);
  if (value_count > 0) std::printf("  %4s %14s %14s\n", "ID", first, second);
  for (int i = 0; i < value_count / 2; ++i)
    std::printf("  %4d %14.6g %14.6g\n", i + 1, values[2 * i], values[2 * i + 1]);
}

void Show(const Epho_CameraFrameInfo& c) {
  std::printf("Name:             %s\n", Narrow(c.cameraName).c_str());
  std::printf("Description:      %s\n", Narrow(c.cameraDescription).c_str());
  std::printf("Focal length:     %.6g mm\n", c.focalLength_mm);
  std::printf("Principal point:  x0 %.6g mm, y0 %.6g mm\n", c.x0_mm, c.y0_mm);
  PrintPairs("Fiducials", c.fiducials_mm, c.fiducialValueCount, "x [mm]", "y [mm]");
  const bool angle = c.observationKind != EPHO_DISTORTION_RADIAL_DISTANCE;
  PrintPairs(angle ? "Radial distortion by field angle" : "Radial distortion by radial distance",
             c.observations, c.observationValueCount, angle ? "angle [deg]" : "distance [mm]",
             "dist. [um]");
  std::printf("Radial distortion coefficients: k0 %.6g, k1 %.6g, k2 %.6g\n", c.k0, c.k1, c.k2);
  static const char* const kModels[] = {"none", "TARVO", "AUSTRALIS", "SMAC"};
  const int n = c.extendedParameters ? epho_ExtendedLensModelValueCount(c.extendedModel) : 0;
  if (n == 0) {
    std::printf("Extended parameters: none\n");
    return;
  }
  std::printf("Extended parameters: %s, %d values:", kModels[c.extendedModel], n);
  for (int i = 0; i < n; ++i) std::printf("%s%.6g", i % 6 ? " " : "\n  ", c.extendedParameters[i]);
  std::printf("\n");
}

int RunShow(const std::string& file) {
  CameraPtr camera = Read(file);
  if (!camera) return epho_tool::kExitFailure;
  std::printf("Camera file:      %s (%s layout)\n", file.c_str(), LayoutOf(file));
  Show(*camera);
  return epho_tool::kExitOk;
}

int RunConvert(const std::string& from, const std::string& to) {
  CameraPtr camera = Read(from);
  if (!camera) return epho_tool::kExitFailure;
  if (!std::strcmp(LayoutOf(from), "current"))
    std::printf("%s is already in the current layout; writing a copy\n", from.c_str());
  Eerr_ErrorReport* err = nullptr;
  const std::wstring out = kzdv::FromUtf8(to);
  if (!CameraInfoFileWrite(out.c_str(), camera.get(), &err)) {
    std::fflush(stdout);
    eerr_PrintErrorReport(err, stderr, 0);
    eerr_DeleteErrorReport(err);
    return epho_tool::kExitFailure;
  }
  std::printf("wrote %s (camera \"%s\", %d fiducials)\n", to.c_str(),
              Narrow(camera->cameraName).c_str(), camera->fiducialValueCount / 2);
  return epho_tool::kExitOk;
}

struct CameraArgs {
  std::string file, from, to;
};

epho_tool::Run DeclareShow(CLI::App& app) {
  auto args = std::make_shared<CameraArgs>();
  app.add_option("FILE", args->file, "camera file")->required();
  return [args] { return RunShow(args->file); };
}

epho_tool::Run DeclareConvert(CLI::App& app) {
  auto args = std::make_shared<CameraArgs>();
  app.add_option("OLD", args->from, "camera file to read")->required();
  app.add_option("NEW", args->to, "camera file to write (may be OLD itself)")->required();
  return [args] { return RunConvert(args->from, args->to); };
}

}  // namespace

EPHO_COMMAND_GROUP("camera", "camera calibration files");
EPHO_COMMAND("camera show", "print a camera calibration file (either layout)", DeclareShow);
EPHO_COMMAND("camera convert",
             "rewrite a camera file in the current layout (the target is replaced safely)",
             DeclareConvert);
