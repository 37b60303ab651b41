#include "emet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "epmg.h"

namespace {

struct Seen {
  std::vector<std::pair<std::wstring, double>> updates;
};

void Sink(const Etxt_Char* task, double percent, void* ctx) {
  static_cast<Seen*>(ctx)->updates.emplace_back(task, percent);
}

TEST(Meter, SinkSeesTaskNamesClampedPercentagesAndCancel) {
  Seen seen;
  Emet_MeterInfo* m = emet_MeterInfoCreateWithSink(L"dem.tif", Sink, &seen, nullptr);
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(emet_MeterInfoPrint(m, 12.5, nullptr));
  EXPECT_TRUE(emet_MeterInfoChangeTaskName(m, L"dem.tif, level 2", nullptr));
  EXPECT_TRUE(emet_MeterInfoPrint(m, 250.0, nullptr));
  EXPECT_TRUE(emet_MeterInfoPrint(m, -3.0, nullptr));
  ASSERT_EQ(seen.updates.size(), 3u);
  EXPECT_EQ(seen.updates[0].first, L"dem.tif");
  EXPECT_EQ(seen.updates[1].first, L"dem.tif, level 2");
  EXPECT_EQ(seen.updates[1].second, 100.0);
  EXPECT_EQ(seen.updates[2].second, 0.0);
  EXPECT_FALSE(emet_MeterInfoCancelled(m));
  emet_MeterInfoCancel(m);
  EXPECT_TRUE(emet_MeterInfoCancelled(m));
  emet_MeterInfoDelete(m);
  EXPECT_TRUE(emet_MeterInfoPrint(nullptr, 50, nullptr));  // a null meter is accepted
}

TEST(Meter, ConsoleMeterPrintsPlainLinesWhenNotATerminal) {
  testing::internal::CaptureStderr();
  Emet_MeterInfo* m = emet_MeterInfoCreate(L"task", nullptr);
  for (int i = 0; i <= 100; ++i) emet_MeterInfoPrint(m, i, nullptr);
  emet_MeterInfoDelete(m);
  std::string out = testing::internal::GetCapturedStderr();
  // Under ctest stderr is a pipe: one line per decile, 0 to 100.
  if (out.find('\r') == std::string::npos) {
    EXPECT_NE(out.find("task: 0%\n"), std::string::npos);
    EXPECT_NE(out.find("task: 50%\n"), std::string::npos);
    EXPECT_NE(out.find("task: 100%\n"), std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 11);
  }
}

TEST(Preferences, HostSetsLibraryReads) {
  epmg_ClearPreferences();
  EXPECT_TRUE(
      epmg_GetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", EMSC_TRUE, nullptr));
  epmg_SetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", EMSC_FALSE);
  EXPECT_FALSE(
      epmg_GetBooleanPreference(L"rasterprocess", L"use_dem_layer_cache", EMSC_TRUE, nullptr));
  EXPECT_TRUE(epmg_GetBooleanPreference(L"other", L"use_dem_layer_cache", EMSC_TRUE, nullptr));
  epmg_SetDoublePreference(L"rasterprocess", L"rp_reprojtolerance", 0.25);
  EXPECT_EQ(epmg_GetDoublePreference(L"rasterprocess", L"rp_reprojtolerance", 1.0, nullptr), 0.25);
  epmg_ClearPreferences();
  EXPECT_EQ(epmg_GetDoublePreference(L"rasterprocess", L"rp_reprojtolerance", 1.0, nullptr), 1.0);
}

}  // namespace
