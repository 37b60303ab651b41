// epho_TriRefine: the steps of a refinement run in their order, and
// epho_FreeTriRefineMemory.
#include <algorithm>
#include <cstring>
#include <new>

#include "epho/triangulation/triangulation_internal.h"
#include "platform/eerr/error_frame.h"

namespace epho::triangulation {
namespace {

// Closes the report on every path.
struct ReportFile {
  Efio_File* file = nullptr;
  ~ReportFile() {
    Eerr_ErrorReport* local = nullptr;
    efio_Close(file, &local);
    eerr_DeleteErrorReportEx(&local);
  }
};

// Leaves the images as the caller gave them, whatever the outcome: the
// parameter count doubled back, the initial values unnormalised and the
// normalisation freed.
struct ImageRestore {
  Block* b;
  bool normalised = false;
  ~ImageRestore() {
    for (int i = 0; i < b->image_count; ++i) {
      Epho_TriImage& im = b->images[i];
      if (!im.normalisation) continue;  // never reached by the run
      const int n = im.parameterCount;
      if (normalised && im.initialValues)
        for (int k = 0; k < 2 * n; ++k) im.initialValues[k] *= im.normalisation[k];
      im.parameterCount = static_cast<int16_t>(2 * n);
      emsc_HeapFreeEx(reinterpret_cast<void**>(&im.normalisation));
    }
  }
};

void Run(Block& b, Report& r, kzdv::ErrorFrame& frame) {
  Epho_TriRefineInput* in = b.input;
  WriteHeader(b, r);
  ImageRestore restore{&b};
  if (!CheckAndWeight(b, r, frame)) return;
  if (!GatherRays(b, r, frame)) return;
  PrepareParameters(b, r);
  restore.normalised = true;
  if (!InitialGround(b, frame)) return;
  WritePointTables(b, r);
  for (int p = 0; p < b.ControlCount(); ++p) {
    b.points[p].X = in->groundPoints[p].X;
    b.points[p].Y = in->groundPoints[p].Y;
    b.points[p].Z = in->groundPoints[p].Z;
  }
  Settings& s = b.settings;
  int max_overlap = 0;
  for (int p = 0; p < b.PointCount(); ++p) max_overlap = std::max(max_overlap, b.Overlap(p));
  s.max_overlap = std::min(max_overlap + 1, b.image_count);
  s.max_rays = max_overlap;
  s.step_floor = 1.0e-8;
  s.step_divisor = 10.8;
  s.convergence_threshold = in->convergenceThreshold;
  s.relative_threshold = 0.02;
  s.max_iterations = in->maximumIterations;
  s.solver = in->solver;
  if (!RunBundle(b, r, frame)) return;

  std::vector<ImageResidual> residuals;
  ImageResiduals(b, &residuals);
  WriteResults(b, r, residuals);
  if (in->jsonFileName) WriteJson(b, residuals, in->jsonFileName, frame);
  if (in->plotFileName) WriteSvg(b, residuals, in->plotFileName, frame);

  // The refined points, with the end record after the last.
  const size_t bytes = sizeof(Epho_TriGroundPoint) * b.points.size();
  auto* out = static_cast<Epho_TriGroundPoint*>(emsc_HeapMalloc(bytes));
  if (!out) {
    frame.Fail(kSiteMemory, L"Not enough memory for Triangulation");
    return;
  }
  std::memcpy(out, b.points.data(), bytes);
  emsc_HeapFree(in->resultPoints);
  in->resultPoints = out;
  in->resultPointCount = b.PointCount();
}

}  // namespace
}  // namespace epho::triangulation

extern "C" {

int32_t epho_TriRefine(Epho_TriRefineInput* input, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  using namespace epho::triangulation;
  kzdv::ErrorFrame frame(L"epho_TriRefine", err);
  if (!input || !input->reportFileName) {
    frame.Fail(kSiteReportOpen, L"Temporary file can not be opened for triangulation results");
    return 1;
  }
  ReportFile file;
  file.file = efio_Open(input->reportFileName, "w", frame.Callee());
  if (!file.file) {
    frame.Fail(kSiteReportOpen, L"Temporary file can not be opened for triangulation results");
    return 1;
  }
  input->converged = 0;
  try {
    Block b;
    b.input = input;
    Report report(file.file);
    Run(b, report, frame);
  }
  EERR_CATCH(frame, 1)
  return 1;
}
EERR_BOUNDARY(err, 1)

void epho_FreeTriRefineMemory(Epho_TriRefineInput* input, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  kzdv::ErrorFrame frame(L"epho_FreeTriRefineMemory", err);
  if (!input) return;
  for (int i = 0; input->images && i < input->imageCount; ++i) {
    Epho_TriImage& im = input->images[i];
    emsc_HeapFreeEx(reinterpret_cast<void**>(&im.currentParameters));
    emsc_HeapFreeEx(reinterpret_cast<void**>(&im.normalisation));
    emsc_HeapFreeEx(reinterpret_cast<void**>(&im.initialValues));
    emsc_HeapFreeEx(reinterpret_cast<void**>(&im.standardDeviations));
    emsc_HeapFreeEx(reinterpret_cast<void**>(&im.imagePoints));
    exfr_XFormFree(im.xform);
    im.xform = nullptr;
  }
  emsc_HeapFreeEx(reinterpret_cast<void**>(&input->images));
  emsc_HeapFreeEx(reinterpret_cast<void**>(&input->groundPoints));
  emsc_HeapFreeEx(reinterpret_cast<void**>(&input->resultPoints));
  emsc_HeapFreeEx(reinterpret_cast<void**>(&input->groundXYUnits));
  emsc_HeapFreeEx(reinterpret_cast<void**>(&input->groundZUnits));
  input->imageCount = 0;
  input->groundPointCount = 0;
  input->resultPointCount = 0;
}
EERR_BOUNDARY(err, )

}  // extern "C"
