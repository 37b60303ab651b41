#include "ecvt.h"

#include <gtest/gtest.h>

TEST(Units, LinearAndAngularConversions) {
  long status = -1;
  double v[2] = {1.0, 1000.0};
  ASSERT_TRUE(ecvt_UnitsConvertByName(L"meters", L"feet", 2, v, &status));
  EXPECT_EQ(status, 0);
  EXPECT_NEAR(v[0], 3.280839895013123, 1e-12);
  EXPECT_NEAR(v[1], 3280.839895013123, 1e-9);
  double s = 1.0;
  ASSERT_TRUE(ecvt_UnitsConvertByName(L"Meters", L"US Survey Feet", 1, &s, &status));
  EXPECT_NEAR(s, 3937.0 / 1200.0, 1e-12);  // the survey foot is 1200/3937 m exactly
  double a = 100.0;
  ASSERT_TRUE(ecvt_UnitsConvertByName(L"gons", L"degrees", 1, &a, &status));
  EXPECT_NEAR(a, 90.0, 1e-12);
  double k = 2.5;
  ASSERT_TRUE(ecvt_UnitsConvertByName(L"kilometers", L"miles", 1, &k, nullptr));
  EXPECT_NEAR(k, 2500.0 / 1609.344, 1e-12);
}

TEST(Units, UnknownOrMixedKindsLeaveValuesAlone) {
  long status = 0;
  double v = 7.0;
  EXPECT_FALSE(ecvt_UnitsConvertByName(L"meters", L"furlongs", 1, &v, &status));
  EXPECT_NE(status, 0);
  EXPECT_FALSE(ecvt_UnitsConvertByName(L"meters", L"degrees", 1, &v, &status));
  EXPECT_FALSE(ecvt_UnitsConvertByName(nullptr, L"meters", 1, &v, &status));
  EXPECT_EQ(v, 7.0);
  EXPECT_EQ(ecvt_UnitFactor(L"nonsense"), 0.0);
}
