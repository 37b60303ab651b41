// Datum manager and height shifts, against PROJ's cs2cs with the installed
// EGM96 grid and the published undulation at the origin.
#include "epho/geodesy.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "platform/eerr/error_frame.h"
#include "proj_cli_test_util.h"
#include "test_util.h"

namespace {

constexpr double kDeg = 0.017453292519943295;

struct DatumDeleter {
  void operator()(EphoDatum* d) const { epho_DatumDelete(d); }
};
using Datum = std::unique_ptr<EphoDatum, DatumDeleter>;

std::wstring Note(const EphoDatum* a, const EphoDatum* b) {
  Etxt_Char* n = epho_DatumZShiftNote(a, b);
  std::wstring s = n ? n : L"";
  emsc_HeapFree(n);
  return s;
}

TEST(EphoGeodesy, Egm96ShiftAgreesWithProjAndIsMinusTheUndulation) {
  Datum wgs(epho_DatumGet(L"WGS 84", nullptr));
  Datum egm(epho_DatumGet(L"EGM96", nullptr));
  ASSERT_TRUE(wgs && egm);
  const projcli::Rows pts = {{0.0, 0.0, 0.0},      {50.0, 10.0, 0.0},    {-75.5, 40.2, 0.0},
                             {179.99, -60.0, 0.0}, {-179.99, 89.5, 0.0}, {135.0, -89.9, 0.0}};
  // Heights above the geoid of points on the ellipsoid: -N. (EPSG order:
  // latitude first.)
  projcli::Rows latlon;
  for (const auto& p : pts) latlon.push_back({p[1], p[0], p[2]});
  const projcli::Rows truth = projcli::Run("cs2cs -f %.6f EPSG:4979 EPSG:4326+5773", latlon);
  ASSERT_EQ(truth.size(), pts.size());
  if (Note(wgs.get(), egm.get()).find(L"No geoid grid") != std::wstring::npos)
    GTEST_SKIP() << "EGM96 grid not installed";
  for (size_t i = 0; i < pts.size(); ++i) {
    const double s = epho_CalculateZShift(wgs.get(), egm.get(), pts[i][0] * kDeg, pts[i][1] * kDeg);
    EXPECT_NEAR(s, truth[i][2], 1e-4) << i;
    // Reversed roles give the opposite shift.
    EXPECT_NEAR(epho_CalculateZShift(egm.get(), wgs.get(), pts[i][0] * kDeg, pts[i][1] * kDeg), -s,
                1e-12);
  }
  // Published EGM96 undulation at (0°, 0°): 17.16 m, so s = -17.16.
  EXPECT_NEAR(epho_CalculateZShift(wgs.get(), egm.get(), 0.0, 0.0), -17.16, 0.01);
  EXPECT_EQ(Note(wgs.get(), egm.get()), L"");
}

TEST(EphoGeodesy, ZeroShiftsComeWithTheirReason) {
  Datum wgs(epho_DatumGet(L"WGS 84", nullptr));
  Datum nad(epho_DatumGet(L"nad83", nullptr));
  Datum odd(epho_DatumGet(L"Undefined", nullptr));
  Datum egm(epho_DatumGet(L"egm96 geoid", nullptr));
  Datum egm2(epho_DatumGet(L"EGM96", nullptr));
  EXPECT_EQ(epho_CalculateZShift(wgs.get(), nad.get(), 0.3, 0.7), 0.0);
  EXPECT_NE(Note(wgs.get(), nad.get()).find(L"Neither"), std::wstring::npos);
  EXPECT_EQ(epho_CalculateZShift(odd.get(), nullptr, 0.3, 0.7), 0.0);
  EXPECT_NE(Note(odd.get(), nullptr).find(L"(no datum)"), std::wstring::npos);
  // A projection without a datum still has ellipsoidal heights: the geoid
  // shift applies (where the grid is installed).
  EXPECT_EQ(epho_CalculateZShift(nullptr, egm.get(), 0.3, 0.7),
            epho_CalculateZShift(wgs.get(), egm.get(), 0.3, 0.7));
  EXPECT_EQ(epho_CalculateZShift(egm.get(), egm2.get(), 0.3, 0.7), 0.0);
  EXPECT_NE(Note(egm.get(), egm2.get()).find(L"Both heights refer"), std::wstring::npos);

  EphoLib::Datum* d = dynamic_cast<EphoLib::Datum*>(egm.get());
  ASSERT_TRUE(d);
  EXPECT_TRUE(d->IsVertical());
  EXPECT_EQ(dynamic_cast<EphoLib::Datum*>(nad.get())->GetKind(), EphoLib::Datum::kEllipsoidal);
  EXPECT_EQ(dynamic_cast<EphoLib::Datum*>(odd.get())->GetKind(), EphoLib::Datum::kUnknown);
  double n = 0;
  std::wstring why;
  EXPECT_FALSE(d->Undulation(0.0, 2.0, &n, &why));  // beyond the pole
  EXPECT_FALSE(why.empty());

  // A geoid whose grid is not installed here: zero, a warning printed once,
  // and the note names the model. (Skipped where the grid is present.)
  Datum egm08(epho_DatumGet(L"EGM2008", nullptr));
  const std::wstring note = Note(wgs.get(), egm08.get());
  if (note.empty()) GTEST_SKIP() << "EGM2008 grid installed";
  EXPECT_NE(note.find(L"EGM2008"), std::wstring::npos);
  testutil::PrintedReports printed;
  EXPECT_EQ(epho_CalculateZShift(wgs.get(), egm08.get(), 0.5, 0.5), 0.0);
  EXPECT_EQ(epho_CalculateZShift(wgs.get(), egm08.get(), 0.6, 0.5), 0.0);
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"No geoid grid for EGM2008 is installed"), std::wstring::npos);
}

TEST(EphoGeodesy, NullNameIsReported) {
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(epho_DatumGet(nullptr, &err), nullptr);
  ASSERT_NE(err, nullptr);
  EXPECT_NE(kzdv::ReportText(err).find(L"DatumManager::GetDatum"), std::wstring::npos);
  eerr_DeleteErrorReportEx(&err);
}

}  // namespace
