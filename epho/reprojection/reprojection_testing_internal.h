// Helpers of the reprojection tests: a report slot and UTM projections.
#ifndef EPHO_REPROJECTION_REPROJECTION_TESTING_INTERNAL_H
#define EPHO_REPROJECTION_REPROJECTION_TESTING_INTERNAL_H

#include <gtest/gtest.h>

#include <string>

#include "eprj.h"
#include "test_util.h"

namespace reprojtest {

// A report slot; handing it to another call drops the report it held.
struct Report {
  Eerr_ErrorReport* r = nullptr;
  ~Report() { eerr_DeleteErrorReport(r); }
  Eerr_ErrorReport** operator&() {
    eerr_DeleteErrorReportEx(&r);
    return &r;
  }
  std::string Text() const { return kzdv::ToUtf8(kzdv::ReportText(r)); }
};

// Projection parameters (UTM `zone` north, or geographic for zone 0) and the
// projection object made from them.
struct Projection {
  Eprj_ProParameters* params = nullptr;
  Eprj_MapProjection* p = nullptr;
  explicit Projection(long zone, const wchar_t* spheroid = L"WGS 84",
                      const wchar_t* datum = L"WGS 84") {
    double values[EPRJ_PARAMETER_COUNT] = {0};
    params =
        zone ? eprj_ProParametersCreate(EPRJ_UTM, L"UTM", zone, values, spheroid, datum, nullptr)
             : eprj_ProParametersCreate(EPRJ_LATLONG, L"Geographic (Lat/Lon)", 0, nullptr, spheroid,
                                        datum, nullptr);
    EXPECT_NE(params, nullptr);
    p = eprj_ProjectionInit(params, nullptr);
    EXPECT_NE(p, nullptr);
  }
  ~Projection() {
    eprj_ProjectionFree(p);
    eprj_ProParametersFree(params);
  }
  Projection(const Projection&) = delete;
  Projection& operator=(const Projection&) = delete;
};

}  // namespace reprojtest

#endif  // EPHO_REPROJECTION_REPROJECTION_TESTING_INTERNAL_H
