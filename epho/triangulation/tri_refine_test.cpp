// Input checks and edge cases of a refinement run: each case changes one
// thing in a small synthetic block and names the report (message and site)
// or the report line it must produce.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <functional>

#include "epho/triangulation/synthetic_block_internal.h"
#include "test_util.h"

namespace {

using epho::tri::synthetic::Build;
using epho::tri::synthetic::Options;
using epho::tri::synthetic::Truth;

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
  testutil::ScratchDir dir("tricase");
  const std::wstring report = dir.WFile("report.txt");
  in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(epho_TriRefine(&in, &err), 1);
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
  std::ifstream f(kzdv::ToUtf8(report));
  const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
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

}  // namespace
