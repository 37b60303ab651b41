// Input checks and edge cases of a refinement run: each case changes one
// thing in a small synthetic block and names the report (message and site)
// or the report line it must produce.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <vector>

#include "epho/triangulation/synthetic_block_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using epho::triangulation::synthetic::Build;
using epho::triangulation::synthetic::Options;
using epho::triangulation::synthetic::Pinhole;
using epho::triangulation::synthetic::Truth;

struct Case {
  const char* name;
  std::function<void(Epho_TriRefineInput&)> change;
  const wchar_t* message;  // null: the run must succeed
  long site;
  const char* report_line;  // null: not checked
};

int FirstOf(const Epho_TriRefineInput& in, int usage) {
  for (int p = 0; p < in.groundPointCount; ++p)
    if (in.groundPoints[p].usage == usage) return p;
  return -1;
}

// Leaves the point measured on its first image only.
void KeepOneMeasurement(Epho_TriRefineInput& in, int32_t id) {
  bool first = true;
  for (int i = 0; i < in.imageCount; ++i)
    for (int k = 0; k < in.images[i].imagePointCount; ++k)
      if (in.images[i].imagePoints[k].pointID == id) {
        if (!first) in.images[i].imagePoints[k].pointID = 500000 + 100 * i + k;
        first = false;
      }
}

// Runs the refinement with its report in a scratch folder; returns the
// report's text (read after the run, so the run must have closed it).
std::string RunWithReport(Epho_TriRefineInput& in, Eerr_ErrorReport** err) {
  testutil::ScratchDir dir("trirun");
  const std::wstring report = dir.WFile("report.txt");
  in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
  EXPECT_EQ(epho_TriRefine(&in, err), 1);
  in.reportFileName = nullptr;
  std::ifstream f(kzdv::ToUtf8(report));
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// How many images measure each point.
std::map<int32_t, int> ImagesPerPoint(const Epho_TriRefineInput& in) {
  std::map<int32_t, int> seen;
  for (int i = 0; i < in.imageCount; ++i)
    for (int k = 0; k < in.images[i].imagePointCount; ++k)
      ++seen[in.images[i].imagePoints[k].pointID];
  return seen;
}

const Case kCases[] = {
    {"ZeroImageStdDev", [](Epho_TriRefineInput& in) { in.imageStdY = 0.0f; },
     L"The image standard deviation is not valid\n", 147, nullptr},
    {"NoImage", [](Epho_TriRefineInput& in) { in.imageCount = 0; }, L"No image specified!\n", 150,
     nullptr},
    {"OneParameter", [](Epho_TriRefineInput& in) { in.images[2].parameterCount = 1; },
     L"Less than two parameters on image 3\n", 193, nullptr},
    {"NoInitialValues",
     [](Epho_TriRefineInput& in) {
       emsc_HeapFreeEx(reinterpret_cast<void**>(&in.images[1].initialValues));
     },
     L"No initial values or weights for image 2\n", 196, nullptr},
    {"NaNImageCoordinate",
     [](Epho_TriRefineInput& in) { in.images[0].imagePoints[0].x = std::nan(""); },
     L"No initial values or weights for image 1\n", 196, nullptr},
    {"ImageWithoutPoints", [](Epho_TriRefineInput& in) { in.images[3].imagePointCount = 0; },
     L"Not enough points on image 4\n", 199, nullptr},
    {"NaNControlCoordinate",
     [](Epho_TriRefineInput& in) { in.groundPoints[FirstOf(in, 0)].Z = std::nan(""); },
     L"There are errors in GCP points !", 561, nullptr},
    {"CheckPointOnOneImage",
     [](Epho_TriRefineInput& in) {
       KeepOneMeasurement(in, in.groundPoints[FirstOf(in, EPHO_TRI_USAGE_CHECK)].pointID);
     },
     L"There are errors in GCP points !", 561, "has only one image point!"},
    {"TiePointOnOneImageIsDropped",
     [](Epho_TriRefineInput& in) { in.images[0].imagePoints[0].pointID = 777777; }, nullptr, 0,
     " 777777 is on less than two images\n"},
    {"TwentyParametersAreClampedToSix",
     [](Epho_TriRefineInput& in) {
       Epho_TriImage& im = in.images[0];
       emsc_HeapFree(im.initialValues);
       emsc_HeapFree(im.standardDeviations);
       im.initialValues = static_cast<double*>(emsc_HeapCalloc(20, sizeof(double)));
       im.standardDeviations = static_cast<float*>(emsc_HeapMalloc(20 * sizeof(float)));
       for (int k = 0; k < 20; ++k) im.standardDeviations[k] = 0.05f;
       im.parameterCount = 20;
     },
     nullptr, 0, "  a[5]="},
    {"FreeImageWithTooFewRaysBecomesFixed",
     [](Epho_TriRefineInput& in) {
       Epho_TriImage& im = in.images[0];
       im.parameterMode = EPHO_TRI_MODE_FREE;
       // Two tie points and its control and check points are seen
       // elsewhere; the rest only here: fewer rays than terms.
       int ties = 0;
       for (int k = 0; k < im.imagePointCount; ++k) {
         bool ground = false;
         for (int p = 0; p < in.groundPointCount; ++p)
           ground = ground || in.groundPoints[p].pointID == im.imagePoints[k].pointID;
         if (!ground && ++ties > 2) im.imagePoints[k].pointID = 600000 + k;
       }
       im.parameterCount = 12;
       emsc_HeapFree(im.initialValues);
       emsc_HeapFree(im.standardDeviations);
       im.initialValues = static_cast<double*>(emsc_HeapCalloc(12, sizeof(double)));
       im.standardDeviations = static_cast<float*>(emsc_HeapCalloc(12, sizeof(float)));
     },
     nullptr, 0, "  ERROR! Image 1 has not enough image points! Use it as no refinement.\n"},
    {"IterationLimit", [](Epho_TriRefineInput& in) { in.maximumIterations = 1; }, nullptr, 0,
     "\n\n      Warning:  The iteration is not converged!"},
};

class TriRefineCases : public ::testing::TestWithParam<Case> {};

TEST_P(TriRefineCases, ReportsOrRuns) {
  const Case& c = GetParam();
  Options o;
  o.strips = 2;
  o.per_strip = 3;
  o.point_spacing = 200.0;
  o.check_every = 4;
  o.noise_pixels = 0.3;
  Epho_TriRefineInput in{};
  Truth truth;
  Build(o, &in, &truth);
  const int image_count = in.imageCount;
  c.change(in);
  Eerr_ErrorReport* err = nullptr;
  const std::string text = RunWithReport(in, &err);
  in.imageCount = image_count;  // so that everything is freed
  if (c.message) {
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->message, c.message);
    EXPECT_EQ(err->site, c.site);
    EXPECT_EQ(err->severity, EERR_SEVERITY_ERROR);
    EXPECT_EQ(in.resultPoints, nullptr);
  } else {
    EXPECT_EQ(err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
    EXPECT_NE(in.resultPoints, nullptr);
  }
  // The report is closed: it can be read whole, header first.
  EXPECT_EQ(text.rfind("              Triangulation Report With OVT\n\n", 0), 0u);
  if (c.report_line) {
    EXPECT_NE(text.find(c.report_line), std::string::npos) << c.report_line;
  }
  // Parameter counts are handed back doubled, as given (20 comes back as 12).
  for (int i = 0; c.message == nullptr && i < in.imageCount; ++i)
    EXPECT_EQ(in.images[i].parameterCount % 2, 0);
  eerr_DeleteErrorReportEx(&err);
  epho_FreeTriRefineMemory(&in, nullptr);
  EXPECT_EQ(in.images, nullptr);
  EXPECT_EQ(in.groundPoints, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Inputs, TriRefineCases, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TriRefine, UnwritableReportStopsBeforeAnything) {
  Options o;
  o.strips = 1;
  o.per_strip = 2;
  Epho_TriRefineInput in{};
  Truth truth;
  Build(o, &in, &truth);
  std::wstring name = L"/nonexistent-folder/report.txt";
  in.reportFileName = const_cast<Etxt_Char*>(name.c_str());
  const double x = in.images[0].imagePoints[0].x;
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(epho_TriRefine(&in, &err), 1);
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->message, L"Temporary file can not be opened for triangulation results");
  EXPECT_EQ(in.images[0].imagePoints[0].x, x);  // nothing was touched
  eerr_DeleteErrorReportEx(&err);
  epho_FreeTriRefineMemory(&in, nullptr);
  epho_FreeTriRefineMemory(nullptr, nullptr);
}

// ---- Divergence: the test of s0 growing by more than 20 % in one step and
// then by more than 10 % in the next.

// Per-iteration amplitude of a disturbance that the adjustment cannot
// absorb, shared by the images of a block.
struct Drift {
  std::vector<double> growth;  // amplitude ratio of each iteration to the one before
  long rays = 0;               // derivative calls per iteration (one per ray)
  long calls = 0;
  double Amplitude() const {
    const long it = rays ? calls / rays : 0;
    double a = 0.5;  // pixels
    for (long k = 0; k < it && k < static_cast<long>(growth.size()); ++k) a *= growth[k];
    return a;
  }
};

// A pinhole whose derivative evaluations (seven points per call) see a
// smooth disturbance of the ground position, different on every image and
// scaled by the drift's amplitude of the current iteration.
struct DriftingCamera {
  Pinhole cam;
  int image;
  Drift* drift;
};

Emsc_Boolean DriftGroundToImage(void* model, long count, const double* g, double* xy,
                                Eerr_ErrorReport** err) {
  auto* d = static_cast<DriftingCamera*>(model);
  if (!epho::triangulation::synthetic::PinholeGroundToImage(&d->cam, count, g, xy, err))
    return EMSC_FALSE;
  if (count != 7) return EMSC_TRUE;
  const double a = d->drift->Amplitude();
  ++d->drift->calls;
  for (long k = 0; k < count; ++k) {
    const double x = g[3 * k], y = g[3 * k + 1];
    xy[2 * k] += a * std::sin(x / 37.0 + 1.3 * d->image) * std::cos(y / 23.0 + 0.7 * d->image);
    xy[2 * k + 1] += a * std::cos(x / 29.0 + 0.4 * d->image) * std::sin(y / 31.0 + 1.1 * d->image);
  }
  return EMSC_TRUE;
}
Emsc_Boolean DriftRay(void* model, double x, double y, double o[3], double dir[3],
                      Eerr_ErrorReport** err) {
  return epho::triangulation::synthetic::PinholeRay(&static_cast<DriftingCamera*>(model)->cam, x, y,
                                                    o, dir, err);
}
Emsc_Boolean DriftToGroundXY(void* model, long count, const double* xy, const double* z,
                             double* out, Eerr_ErrorReport** err) {
  return epho::triangulation::synthetic::PinholeToGroundXY(
      &static_cast<DriftingCamera*>(model)->cam, count, xy, z, out, err);
}
void* DriftCopy(const void* model, Eerr_ErrorReport**) {
  return new DriftingCamera(*static_cast<const DriftingCamera*>(model));
}
void DriftDestroy(void* model) { delete static_cast<DriftingCamera*>(model); }
const Exfr_SensorModelOps kDriftOps = {
    "drifting pinhole", DriftGroundToImage, DriftRay, DriftToGroundXY, nullptr,
    DriftCopy,          DriftDestroy};

struct DivergenceCase {
  const char* name;
  std::vector<double> growth;
  int diverges_at;  // iteration of the divergence error; 0: none
};

class Divergence : public ::testing::TestWithParam<DivergenceCase> {};

TEST_P(Divergence, GrowthOfTwentyThenTenPercentStopsTheRun) {
  const DivergenceCase& c = GetParam();
  Options o;
  o.strips = 2;
  o.per_strip = 3;
  o.point_spacing = 150.0;
  o.check_every = 0;
  Epho_TriRefineInput in{};
  Truth truth;
  Build(o, &in, &truth);
  in.maximumIterations = 8;
  in.convergenceThreshold = 0.0f;  // only the s0 tests end the iteration
  Drift drift;
  drift.growth = c.growth;
  // Every point measured on two or more images is a ray of each of them.
  for (const auto& [id, n] : ImagesPerPoint(in)) drift.rays += n >= 2 ? n : 0;
  for (int i = 0; i < in.imageCount; ++i) {
    exfr_XFormFree(in.images[i].xform);
    in.images[i].xform = exfr_SensorModelXFormCreate(
        &kDriftOps, new DriftingCamera{truth.cameras[i], i, &drift}, nullptr);
  }
  Eerr_ErrorReport* err = nullptr;
  const std::string text = RunWithReport(in, &err);
  // Every iteration made one derivative pass.
  EXPECT_EQ(drift.calls, drift.rays * in.iterations) << text;
  const char* line =
      "\n\nWarning:  The iteration can not be converged! There are probably errors in your data!";
  if (c.diverges_at) {
    ASSERT_NE(err, nullptr) << text;
    EXPECT_EQ(err->site, 2031);
    EXPECT_EQ(err->severity, 1);
    EXPECT_STREQ(err->message,
                 L"The iteration can not be converged! There are probably errors in your data!");
    EXPECT_EQ(in.iterations, c.diverges_at);
    EXPECT_EQ(in.converged, 0);
    EXPECT_NE(text.find(line), std::string::npos);
  } else {
    EXPECT_EQ(err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
    EXPECT_EQ(text.find(line), std::string::npos);
    EXPECT_EQ(in.iterations, static_cast<int>(in.maximumIterations));
  }
  eerr_DeleteErrorReportEx(&err);
  epho_FreeTriRefineMemory(&in, nullptr);
}

// s0 follows the amplitude: growth by 50 % twice, or by 30 % then 15 %,
// diverges at the third iteration; 30 % then 5 % resets the first test, so only the next two 30 %
// steps stop it (fifth iteration); a steady 15 % never reaches 20 %.
INSTANTIATE_TEST_SUITE_P(
    Runs, Divergence,
    ::testing::Values(DivergenceCase{"FiftyPercentTwice", {1.5, 1.5, 1.5, 1.5}, 3},
                      DivergenceCase{"ThirtyThenFifteenPercent", {1.3, 1.15, 1.15, 1.15}, 3},
                      DivergenceCase{"ResetByASmallStep", {1.3, 1.05, 1.3, 1.3, 1.3}, 5},
                      DivergenceCase{"SteadyFifteenPercent", std::vector<double>(8, 1.15), 0}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Too few observations: with at least seven control coordinates the
// run writes the error line and goes on; with fewer it stops (site 1506).

struct ControlCase {
  const char* name;
  std::vector<int32_t> types;  // of the first control points, in order
  bool runs;
};

class TooFewObservations : public ::testing::TestWithParam<ControlCase> {};

TEST_P(TooFewObservations, SevenControlCoordinatesKeepTheRunGoing) {
  const ControlCase& c = GetParam();
  // Two free images with six terms per axis; the points seen on both (15)
  // give 60 observations against 3 x 15 + 24 unknowns less the fixed
  // control coordinates: 62 with seven, 63 with six.
  Options o;
  o.strips = 1;
  o.per_strip = 2;
  o.point_spacing = 200.0;
  o.per_axis = 6;
  o.control_every = 0;
  o.check_every = 0;
  o.mode = EPHO_TRI_MODE_FREE;
  Epho_TriRefineInput in{};
  Truth truth;
  Build(o, &in, &truth);
  std::vector<int32_t> both;
  for (const auto& [id, n] : ImagesPerPoint(in))
    if (n == 2) both.push_back(id);
  ASSERT_EQ(both.size(), 15u);
  emsc_HeapFree(in.groundPoints);
  const int nc = static_cast<int>(c.types.size());
  in.groundPoints =
      static_cast<Epho_TriGroundPoint*>(emsc_HeapCalloc(nc + 1, sizeof(Epho_TriGroundPoint)));
  in.groundPointCount = nc;
  for (int k = 0; k < nc; ++k) {
    // Spread over the overlap: first, middle and last of the shared points.
    const int32_t id = both[k * (both.size() - 1) / std::max(1, nc - 1)];
    Epho_TriGroundPoint& g = in.groundPoints[k];
    const Eigen::Vector3d t = truth.points.at(id);
    g.pointID = id;
    g.type = c.types[k];
    g.usage = EPHO_TRI_USAGE_CONTROL;
    g.X = t(0);
    g.Y = t(1);
    g.Z = t(2);
    g.stdX = g.stdY = g.stdZ = 0.05f;
  }
  Eerr_ErrorReport* err = nullptr;
  const std::string text = RunWithReport(in, &err);
  EXPECT_NE(text.find("\n      Error: Unknowns are more than observations !"), std::string::npos)
      << text;
  if (c.runs) {
    EXPECT_EQ(err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
    EXPECT_NE(in.resultPoints, nullptr);
  } else {
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->site, 1506);
    EXPECT_STREQ(err->message, L"Unknowns are more than observations!");
    EXPECT_EQ(in.resultPoints, nullptr);
  }
  eerr_DeleteErrorReportEx(&err);
  epho_FreeTriRefineMemory(&in, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Control, TooFewObservations,
    ::testing::Values(ControlCase{"TwoFullOneVertical",
                                  {EPHO_TRI_TYPE_FULL, EPHO_TRI_TYPE_FULL, EPHO_TRI_TYPE_VERTICAL},
                                  true},
                      ControlCase{
                          "OneFullTwoHorizontal",
                          {EPHO_TRI_TYPE_FULL, EPHO_TRI_TYPE_HORIZONTAL, EPHO_TRI_TYPE_HORIZONTAL},
                          true},
                      ControlCase{"TwoFull", {EPHO_TRI_TYPE_FULL, EPHO_TRI_TYPE_FULL}, false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
