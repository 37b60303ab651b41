#include "epho/camerafile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "efio.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using testutil::FilesIn;
using testutil::Slurp;
using testutil::Spit;

struct CameraDeleter {
  void operator()(Epho_CameraFrameInfo* c) const { epho_CameraFrameInfoDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_CameraFrameInfo, CameraDeleter>;
struct ReportDeleter {
  void operator()(Eerr_ErrorReport* r) const { eerr_DeleteErrorReport(r); }
};
using ReportPtr = std::unique_ptr<Eerr_ErrorReport, ReportDeleter>;

double* HeapCopy(const std::vector<double>& v) {
  if (v.empty()) return nullptr;
  return static_cast<double*>(emsc_MemDup(v.data(), v.size() * sizeof(double)));
}

// A camera whose numbers all have six significant digits or fewer, so that the
// %g text of the file holds them exactly.
CameraPtr MakeCamera(int fiducials, int32_t kind, int32_t model) {
  CameraPtr c(epho_CameraFrameInfoCreate(nullptr));
  c->cameraName = etxt_Text_strdup(L"wide-angle #5103");
  c->cameraDescription = etxt_Text_strdup(L"wide angle, calibrated 2019-04-02 (lab 7)");
  c->focalLength_mm = 153.456;
  c->x0_mm = -0.004;
  c->y0_mm = 0.012;
  const double corner = 106.004, mid = 112.998;
  const std::vector<double> marks = {-corner, corner,  corner, -corner, corner, corner,
                                     -corner, -corner, 0.0,    mid,     0.0,    -mid,
                                     -mid,    0.0,     mid,    0.0};
  c->fiducialValueCount = 2 * fiducials;
  c->fiducials_mm = HeapCopy(std::vector<double>(marks.begin(), marks.begin() + 2 * fiducials));
  c->observationKind = kind;
  const std::vector<double> obs =
      kind ? std::vector<double>{7.5, 1.2, 15, 2.5, 22.5, -0.7, 30, -3.25}
           : std::vector<double>{20, 1.2, 40, 2.5, 60, -0.7};
  c->observationValueCount = static_cast<int32_t>(obs.size());
  c->observations = HeapCopy(obs);
  c->k0 = 1.5e-05;
  c->k1 = -2.25e-09;
  c->k2 = 3.125e-13;
  c->extendedModel = model;
  const int n = epho_ExtendedLensModelValueCount(model);
  std::vector<double> ext;
  for (int i = 0; i < n; ++i)  // -1.25e-06, 2.25e-06, ... as the text would hold them
    ext.push_back(
        std::strtod(((i % 2 ? "-" : "") + std::to_string(i + 1) + ".25e-06").c_str(), nullptr));
  c->extendedParameters = HeapCopy(ext);
  return c;
}

void ExpectValues(const double* a, const double* b, int n, const char* what) {
  for (int i = 0; i < n; ++i) EXPECT_EQ(a[i], b[i]) << what << " " << i;
}

void ExpectSameCamera(const Epho_CameraFrameInfo& a, const Epho_CameraFrameInfo& b) {
  EXPECT_STREQ(a.cameraName, b.cameraName);
  EXPECT_STREQ(a.cameraDescription, b.cameraDescription);
  EXPECT_EQ(a.focalLength_mm, b.focalLength_mm);
  EXPECT_EQ(a.x0_mm, b.x0_mm);
  EXPECT_EQ(a.y0_mm, b.y0_mm);
  ASSERT_EQ(a.fiducialValueCount, b.fiducialValueCount);
  EXPECT_EQ(a.fiducials_mm == nullptr, b.fiducials_mm == nullptr);
  ExpectValues(a.fiducials_mm, b.fiducials_mm, a.fiducialValueCount, "fiducial");
  EXPECT_EQ(a.observationKind != 0, b.observationKind != 0);
  ASSERT_EQ(a.observationValueCount, b.observationValueCount);
  ExpectValues(a.observations, b.observations, a.observationValueCount, "observation");
  EXPECT_EQ(a.k0, b.k0);
  EXPECT_EQ(a.k1, b.k1);
  EXPECT_EQ(a.k2, b.k2);
  ASSERT_EQ(a.extendedModel, b.extendedModel);
  ASSERT_EQ(a.extendedParameters == nullptr, b.extendedParameters == nullptr);
  ExpectValues(a.extendedParameters, b.extendedParameters,
               epho_ExtendedLensModelValueCount(a.extendedModel), "extended");
}

// True when some link of the report chain holds `text`.
bool ReportHas(const Eerr_ErrorReport* err, const std::wstring& text) {
  return kzdv::ReportText(err).find(text) != std::wstring::npos;
}

// The current layout of a four-fiducial field-angle camera, written out by
// hand from the format description.
const char* const kCurrentFile =
    "OVT Camera File Version: 2.0\n"
    "Camera Name: \"normal-angle 10/1318\"\n"
    "Camera Description: \"normal angle\"\n"
    "\n"
    "Focal Length [mm]: 99.82\n"
    "Principal Point:\n"
    "\tx0 [mm]: 0.01\n"
    "\ty0 [mm]: -0.02\n"
    "\n"
    "Fiducial Coordinates:\n"
    "\tNumber of Fiducials: 4\n"
    "      ID       X[mm]         Y[mm]\n"
    "       1     -106.001      106.002\n"
    "       2      106.003     -106.004\n"
    "       3      106.005      106.006\n"
    "       4     -106.007     -106.008\n"
    "\n"
    "Radial Distortion Observations:\n"
    "\tType: \"Field Angle\"\n"
    "\tNumber of Observations: 2\n"
    "      ID    Angle[deg]\tDistortion[microns]\n"
    "       1           10              1.5\n"
    "       2           20             -2.5\n"
    "\n"
    "Radial Lens Distortion Coefficients:\n"
    "\tk0: 1e-05\n"
    "\tk1: -2e-09\n"
    "\tk2: 0\n"
    "\n"
    "Extended Parameters:\n"
    "\tType: \"AUSTRALIS Parameters\"\n"
    "\tk1: 1\n"
    "\tk2: 2\n"
    "\tk3: 3\n"
    "\tp1: 4\n"
    "\tp2: 5\n"
    "\tb1: 6\n"
    "\tb2: 7\n";

}  // namespace

// Every field comes back from the file for cameras with 0, 4 and 8 marks,
// both observation kinds and every extended model.
TEST(CameraFile, WriteThenReadKeepsEveryField) {
  testutil::ScratchDir dir("camfile");
  for (int fiducials : {0, 4, 8})
    for (int32_t kind : {EPHO_DISTORTION_RADIAL_DISTANCE, EPHO_DISTORTION_FIELD_ANGLE})
      for (int32_t model : {0, 1, 2, 3}) {
        SCOPED_TRACE(testing::Message()
                     << fiducials << " fiducials, kind " << kind << ", model " << model);
        CameraPtr written = MakeCamera(fiducials, kind, model);
        const std::wstring path = dir.WFile("cam.cam");
        Eerr_ErrorReport* err = nullptr;
        ASSERT_TRUE(CameraInfoFileWrite(path.c_str(), written.get(), &err));
        ASSERT_EQ(err, nullptr);
        CameraPtr read(CameraInfoFileRead(path.c_str(), nullptr, &err));
        ASSERT_EQ(err, nullptr) << kzdv::ReportText(err);
        ASSERT_TRUE(read);
        ExpectSameCamera(*written, *read);
        EXPECT_EQ(read->fiducials_mm == nullptr, fiducials == 0);
      }
}

// The file text itself, line by line, for a camera written from the record
// the hand-written file describes; the reader gives that record back.
TEST(CameraFile, TextMatchesTheLayout) {
  testutil::ScratchDir dir("camfile");
  Spit(dir.File("hand.cam"), kCurrentFile);
  Eerr_ErrorReport* err = nullptr;
  CameraPtr c(CameraInfoFileRead(dir.WFile("hand.cam").c_str(), nullptr, &err));
  ASSERT_TRUE(c) << kzdv::ReportText(err);
  EXPECT_STREQ(c->cameraName, L"normal-angle 10/1318");
  EXPECT_EQ(c->focalLength_mm, 99.82);
  ASSERT_EQ(c->fiducialValueCount, 8);
  EXPECT_EQ(c->fiducials_mm[6], -106.007);
  EXPECT_EQ(c->fiducials_mm[7], -106.008);
  EXPECT_NE(c->observationKind, 0);
  ASSERT_EQ(c->observationValueCount, 4);
  EXPECT_EQ(c->observations[3], -2.5);
  EXPECT_EQ(c->k1, -2e-09);
  ASSERT_EQ(c->extendedModel, EPHO_LENS_MODEL_AUSTRALIS);
  EXPECT_EQ(c->extendedParameters[6], 7.0);

  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("again.cam").c_str(), c.get(), &err));
  EXPECT_EQ(Slurp(dir.File("again.cam")), kCurrentFile);
}

TEST(CameraFile, NoFiducialsAndNullExtendedBlock) {
  testutil::ScratchDir dir("camfile");
  CameraPtr c = MakeCamera(0, EPHO_DISTORTION_RADIAL_DISTANCE, EPHO_LENS_MODEL_SMAC);
  emsc_HeapFreeEx(reinterpret_cast<void**>(&c->extendedParameters));
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("c.cam").c_str(), c.get(), nullptr));
  const std::string text = Slurp(dir.File("c.cam"));
  EXPECT_EQ(text.rfind("OVT Camera File Version: 2.0\n", 0), 0u);
  EXPECT_NE(text.find("\tNumber of Fiducials: 0\n\n"), std::string::npos);
  EXPECT_EQ(text.find("X[mm]"), std::string::npos);
  EXPECT_NE(text.find("      ID   Distance[mm]\tDistortion[microns]\n"), std::string::npos);
  EXPECT_NE(text.find("Extended Parameters:\n\tType: \"NONE\"\n"), std::string::npos);

  CameraPtr back(CameraInfoFileRead(dir.WFile("c.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->extendedModel, EPHO_LENS_MODEL_NONE);
  EXPECT_EQ(back->extendedParameters, nullptr);

  // A model the file does not know writes no type line and reads as none.
  c->extendedModel = 7;
  c->extendedParameters = HeapCopy({1.0, 2.0});
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("c.cam").c_str(), c.get(), nullptr));
  const std::string text7 = Slurp(dir.File("c.cam"));
  EXPECT_EQ(text7.substr(text7.size() - 22), "\nExtended Parameters:\n");
  back.reset(CameraInfoFileRead(dir.WFile("c.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->extendedModel, EPHO_LENS_MODEL_NONE);
}

// Any version number after the key reads as the current layout; blank lines
// (also CR LF ones) between items and a missing table header are tolerated,
// and names and types compare as the layout says.
TEST(CameraFile, CurrentLayoutVariants) {
  testutil::ScratchDir dir("camfile");
  std::string text = kCurrentFile;
  text.replace(text.find("2.0"), 3, "3.7");
  text.replace(text.find("      ID       X[mm]         Y[mm]\n"), 35, "");
  text.replace(text.find("\"Field Angle\""), 13, "\"field ANGLE\"");
  text.replace(text.find("\"AUSTRALIS Parameters\""), 22, "\"australis parameters\"");
  std::string crlf;
  for (char ch : text) crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
  crlf.insert(crlf.find("Focal"), "\r\n\r\n");
  Spit(dir.File("v.cam"), crlf);
  Eerr_ErrorReport* err = nullptr;
  CameraPtr c(CameraInfoFileRead(dir.WFile("v.cam").c_str(), nullptr, &err));
  ASSERT_TRUE(c) << kzdv::ReportText(err);
  EXPECT_STREQ(c->cameraDescription, L"normal angle");
  EXPECT_EQ(c->fiducialValueCount, 8);
  EXPECT_EQ(c->fiducials_mm[0], -106.001);
  EXPECT_NE(c->observationKind, 0);
  EXPECT_EQ(c->extendedModel, EPHO_LENS_MODEL_AUSTRALIS);
}

TEST(CameraFile, OlderLayoutReadsAndConverts) {
  testutil::ScratchDir dir("camfile");
  Spit(dir.File("old.cam"),
       "Frame camera A-15/23\r\n"
       "old headerless calibration\n"
       "153.26 0.002 -0.003 1e-05 -2e-09 0\n"
       "5\n"
       "8\n"
       "-106 106 106 -106\n"
       "106 106\n"
       "-106 -106\n"
       "4 10 3.5 20 -1.25\n");
  Eerr_ErrorReport* err = nullptr;
  CameraPtr c(CameraInfoFileRead(dir.WFile("old.cam").c_str(), nullptr, &err));
  ASSERT_TRUE(c) << kzdv::ReportText(err);
  EXPECT_STREQ(c->cameraName, L"Frame camera A-15/23");
  EXPECT_STREQ(c->cameraDescription, L"old headerless calibration");
  EXPECT_EQ(c->focalLength_mm, 153.26);
  EXPECT_EQ(c->x0_mm, 0.002);
  EXPECT_EQ(c->y0_mm, -0.003);
  EXPECT_EQ(c->k0, 1e-05);
  EXPECT_EQ(c->k1, -2e-09);
  EXPECT_EQ(c->k2, 0.0);
  EXPECT_EQ(c->observationKind, 5);  // kept as written: any non-zero kind is field angles
  const double fid[] = {-106, 106, 106, -106, 106, 106, -106, -106};
  ASSERT_EQ(c->fiducialValueCount, 8);
  ExpectValues(c->fiducials_mm, fid, 8, "fiducial");
  const double obs[] = {10, 3.5, 20, -1.25};
  ASSERT_EQ(c->observationValueCount, 4);
  ExpectValues(c->observations, obs, 4, "observation");
  EXPECT_EQ(c->extendedModel, EPHO_LENS_MODEL_NONE);
  EXPECT_EQ(c->extendedParameters, nullptr);

  // Written again it is in the current layout and reads back the same.
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("new.cam").c_str(), c.get(), nullptr));
  CameraPtr again(CameraInfoFileRead(dir.WFile("new.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(again);
  ExpectSameCamera(*c, *again);
}

// Reading into the caller's record replaces its contents but keeps the words
// the file does not own; a failed read leaves the record as it was.
TEST(CameraFile, ReadIntoCallersRecord) {
  testutil::ScratchDir dir("camfile");
  CameraPtr target = MakeCamera(8, 1, 1);
  target->id = 42;
  target->applicationTag = -7;
  Spit(dir.File("hand.cam"), kCurrentFile);
  Spit(dir.File("bad.cam"), std::string(kCurrentFile).substr(0, 200));

  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(CameraInfoFileRead(dir.WFile("bad.cam").c_str(), target.get(), &err), nullptr);
  ReportPtr hold(err);
  EXPECT_STREQ(target->cameraName, L"wide-angle #5103");
  EXPECT_EQ(target->fiducialValueCount, 16);

  EXPECT_EQ(CameraInfoFileRead(dir.WFile("hand.cam").c_str(), target.get(), &err), target.get());
  EXPECT_EQ(err, nullptr);
  EXPECT_EQ(target->id, 42);
  EXPECT_EQ(target->version, EPHO_CAMERA_FRAME_INFO_VERSION);
  EXPECT_EQ(target->applicationTag, -7);
  EXPECT_STREQ(target->cameraName, L"normal-angle 10/1318");
  EXPECT_EQ(target->fiducialValueCount, 8);
  EXPECT_EQ(target->extendedModel, EPHO_LENS_MODEL_AUSTRALIS);
}

// Damaged files: each read fails with its messages (those of a damaged
// item name the file and the line), returns null, leaks nothing (checked
// under the sanitizers) and prints the report when the caller passes no
// report pointer. A focal length that is not a finite number is refused in
// both layouts.
TEST(CameraFile, BadInputIsReported) {
  testutil::ScratchDir dir("camfile");
  const std::string good = kCurrentFile;
  const std::wstring file = dir.WFile("bad.cam");
  auto replace = [&](const std::string& from, const std::string& to) {
    std::string s = good;
    s.replace(s.find(from), from.size(), to);
    return s;
  };
  const std::wstring unsupported =
      L"You have selected an unsupported format of Frame Camera Parameters file!";
  struct Case {
    const char* name;
    std::string bytes;
    std::vector<std::wstring> messages;
  };
  std::string binary;
  for (int i = 0; i < 600; ++i) binary += static_cast<char>((i * 97 + 13) % 256);
  const std::vector<Case> cases = {
      {"empty", "", {L"Error reading Frame Camera parameters file."}},
      {"wrong first line",
       "Camera: nothing here\nmore\nnot numbers\n",
       {L"cannot read the focal length"}},
      {"missing name",
       replace("Camera Name", "Camera Nom"),
       {unsupported, L"Line 2 of camera parameter file " + file + L": \"Camera Name\" expected"}},
      {"missing section", replace("Principal Point:\n", ""), {unsupported}},
      {"misspelt section",
       replace("Principal Point:", "Principal Pt:"),
       {L"Line 6 of camera parameter file " + file + L": \"Principal Point:\" expected"}},
      {"missing coefficients", replace("Radial Lens", "Lens"), {unsupported}},
      {"ends early",
       good.substr(0, good.find("Radial Lens")),
       {unsupported, L"Camera parameter file " + file + L" ends before \"Radial Lens"}},
      {"more fiducials than rows",
       replace("Fiducials: 4", "Fiducials: 6"),
       {L"fiducial 5 of 6 is not a row of numbers"}},
      {"count beyond the end",
       replace("Observations: 2", "Observations: 900"),
       {L"is not a row of numbers"}},
      {"negative count",
       replace("Fiducials: 4", "Fiducials: -4"),
       {L"-4 fiducials is out of range"}},
      {"absurd count",
       replace("Fiducials: 4", "Fiducials: 2000000000"),
       {L"2000000000 fiducials is out of range"}},
      {"count not a number",
       replace("Fiducials: 4", "Fiducials: four"),
       {L"is not a whole number"}},
      {"focal not a number", replace("99.82", "9x9"), {L"\"9x9\" is not a number"}},
      {"focal nan",
       replace("99.82", "nan"),
       {L"Line 5 of camera parameter file " + file + L": the focal length is not a finite"}},
      {"focal -inf", replace("99.82", "-inf"), {L"focal length is not a finite number"}},
      {"no quotes", replace("\"normal-angle 10/1318\"", "unquoted"), {L"must be in double quotes"}},
      {"name key not exact", replace("Camera Name:", "Camera Name :"), {unsupported}},
      {"name key indented", replace("Camera Name:", " Camera Name:"), {unsupported}},
      {"missing extended value", replace("\tp2: 5\n", ""), {unsupported}},
      {"extended key in other case", replace("\tp2: 5\n", "\tP2: 5\n"), {unsupported}},
      {"blanks are not a blank line", replace("\nRadial Lens", " \nRadial Lens"), {unsupported}},
      {"long row",
       replace("       2      106.003", std::string(120, ' ') + "2      106.003"),
       {L"longer than 127 characters"}},
      {"long line",
       replace("normal angle", std::string(140, 'x')),
       {L"longer than 127 characters"}},
      {"binary", binary, {}},
      {"older, no description", "name only\n", {L"ends before the camera description"}},
      {"older, negative count", "n\nd\n1 2 3 4 5 6 0\n-8\n", {L"-8 fiducial values"}},
      {"older, odd count", "n\nd\n1 2 3 4 5 6 0\n3\n1 2 3\n", {L"3 fiducial values"}},
      {"older, absurd count", "n\nd\n1 2 3 4 5 6 0\n2147483646\n1 2\n", {L"2147483646 fiducial"}},
      {"older, short rows", "n\nd\n1 2 3 4 5 6 0\n8\n1 2 3 4\n", {L"values 5 and 6 of 8"}},
      {"older, no observations",
       "n\nd\n1 2 3 4 5 6 0\n2\n1 2\n",
       {L"number of observation values"}},
      {"older, focal nan",
       "n\nd\nnan 2 3 4 5 6 0\n0\n0\n",
       {L"Camera parameter file " + file + L": the focal length is not a finite number"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Spit(dir.File("bad.cam"), c.bytes);
    Eerr_ErrorReport* err = nullptr;
    EXPECT_EQ(CameraInfoFileRead(file.c_str(), nullptr, &err), nullptr);
    ReportPtr hold(err);
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->function, L"CameraInfoFileRead");
    EXPECT_EQ(err->severity, EERR_SEVERITY_ERROR);
    for (const std::wstring& m : c.messages)
      EXPECT_TRUE(ReportHas(err, m)) << kzdv::ReportText(err);
  }

  // A missing file: a warning naming the file, printed when nobody takes it.
  const std::wstring missing = dir.WFile("nowhere.cam");
  Eerr_ErrorReport* open_err = nullptr;
  EXPECT_EQ(CameraInfoFileRead(missing.c_str(), nullptr, &open_err), nullptr);
  ReportPtr open_hold(open_err);
  ASSERT_NE(open_err, nullptr);
  EXPECT_EQ(open_err->severity, EERR_SEVERITY_WARNING);
  EXPECT_EQ(std::wstring(open_err->message), L"Error opening camera parameter file: " + missing);
  testutil::PrintedReports printed;
  EXPECT_EQ(CameraInfoFileRead(missing.c_str(), nullptr, nullptr), nullptr);
  ASSERT_EQ(printed.texts().size(), 1u);
  EXPECT_NE(printed.texts()[0].find(L"Error opening camera parameter file: " + missing),
            std::wstring::npos);
}

// Records the file could not hold are refused with their reason and leave
// no file; a focal length that is not finite is one of them.
TEST(CameraFile, WriteRefusesRecordsItCouldNotReadBack) {
  testutil::ScratchDir dir("camfile");
  const std::wstring path = dir.WFile("w.cam");
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(CameraInfoFileWrite(path.c_str(), nullptr, &err));
  ASSERT_NE(err, nullptr);
  EXPECT_STREQ(err->message, L"Null camera pointer passed.");
  eerr_DeleteErrorReportEx(&err);

  auto text = [](wchar_t*& field, const std::wstring& value) {
    emsc_HeapFree(field);
    field = etxt_Text_strdup(value.c_str());
  };
  const struct {
    std::function<void(Epho_CameraFrameInfo*)> damage;
    std::wstring message;
  } cases[] = {
      {[](auto* c) { c->fiducialValueCount = 7; }, L"invalid fiducial value count 7"},
      {[](auto* c) { emsc_HeapFreeEx(reinterpret_cast<void**>(&c->observations)); },
       L"invalid observation value count 8"},
      {[&](auto* c) { text(c->cameraName, L"the \"best\" camera"); },
       L"camera name holds a double quote"},
      {[&](auto* c) { text(c->cameraDescription, std::wstring(110, L'd')); },
       L"camera description holds"},
      {[&](auto* c) { text(c->cameraDescription, std::wstring(127 - 21, L'd')); },
       L"camera description holds"},
      {[](auto* c) { c->focalLength_mm = NAN; }, L"focal length"},
      {[](auto* c) { c->focalLength_mm = INFINITY; }, L"focal length"},
      {[](auto* c) { c->focalLength_mm = -INFINITY; }, L"focal length"},
  };
  for (const auto& k : cases) {
    CameraPtr c = MakeCamera(4, 1, 0);
    k.damage(c.get());
    EXPECT_FALSE(CameraInfoFileWrite(path.c_str(), c.get(), &err));
    ReportPtr hold(err);
    EXPECT_TRUE(ReportHas(err, k.message)) << kzdv::ReportText(err);
    EXPECT_EQ(efio_FileNameExistAsFileOrDir(path.c_str()), EFIO_NOTHING);
  }

  // The longest description that still fits one line (127 characters
  // without the line end) comes back whole, also from a CR LF copy.
  CameraPtr c = MakeCamera(4, 1, 0);
  const std::wstring longest(127 - 22, L'\x00e9');  // "Camera Description: \"" + "\""
  text(c->cameraDescription, longest);
  ASSERT_TRUE(CameraInfoFileWrite(path.c_str(), c.get(), &err)) << kzdv::ReportText(err);
  CameraPtr back(CameraInfoFileRead(path.c_str(), nullptr, &err));
  ASSERT_TRUE(back) << kzdv::ReportText(err);
  EXPECT_EQ(std::wstring(back->cameraDescription), longest);
  std::string crlf;
  for (char ch : Slurp(dir.File("w.cam")))
    crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
  Spit(dir.File("crlf.cam"), crlf);
  CameraPtr back_crlf(CameraInfoFileRead(dir.WFile("crlf.cam").c_str(), nullptr, &err));
  ASSERT_TRUE(back_crlf) << kzdv::ReportText(err);
  ExpectSameCamera(*back, *back_crlf);

  // An unwritable place: the open failure is a warning naming the file.
  const std::wstring nowhere = dir.WFile("no/such/dir/w.cam");
  EXPECT_FALSE(CameraInfoFileWrite(nowhere.c_str(), back.get(), &err));
  ReportPtr hold(err);
  ASSERT_NE(err, nullptr);
  EXPECT_EQ(err->severity, EERR_SEVERITY_WARNING);
  EXPECT_EQ(std::wstring(err->message), L"Error opening camera parameter file: " + nowhere);
}

// Values that are not finite are written as printf writes them and read
// back as the same values (only the focal length must be finite).
TEST(CameraFile, NonFiniteValuesRoundTrip) {
  testutil::ScratchDir dir("camfile");
  CameraPtr c = MakeCamera(4, 0, 3);
  c->fiducials_mm[3] = INFINITY;
  c->observations[0] = -INFINITY;
  c->extendedParameters[8] = NAN;
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("n.cam").c_str(), c.get(), nullptr));
  const std::string text = Slurp(dir.File("n.cam"));
  EXPECT_NE(text.find("\tp4: nan\n"), std::string::npos) << text;
  Eerr_ErrorReport* err = nullptr;
  CameraPtr back(CameraInfoFileRead(dir.WFile("n.cam").c_str(), nullptr, &err));
  ASSERT_TRUE(back) << kzdv::ReportText(err);
  EXPECT_EQ(back->fiducials_mm[3], INFINITY);
  EXPECT_EQ(back->observations[0], -INFINITY);
  EXPECT_TRUE(std::isnan(back->extendedParameters[8]));
  EXPECT_EQ(back->extendedParameters[7], c->extendedParameters[7]);
}

// What the layout leaves to the values themselves: the observation type
// is only tested for "Field Angle", an unknown extended type means none,
// item keys other than the name keys may stand anywhere in their line, and
// a line of exactly 127 characters is followed by its line end alone.
TEST(CameraFile, LenientItemsReadAsTheLayoutSays) {
  testutil::ScratchDir dir("camfile");
  auto read = [&](const std::string& bytes) {
    Spit(dir.File("l.cam"), bytes);
    Eerr_ErrorReport* err = nullptr;
    CameraPtr c(CameraInfoFileRead(dir.WFile("l.cam").c_str(), nullptr, &err));
    EXPECT_TRUE(c) << kzdv::ReportText(err);
    eerr_DeleteErrorReport(err);
    return c;
  };
  auto replace = [](std::string s, const std::string& from, const std::string& to) {
    s.replace(s.find(from), from.size(), to);
    return s;
  };
  CameraPtr c = read(replace(kCurrentFile, "\"Field Angle\"", "\"Field Angel\""));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->observationKind, EPHO_DISTORTION_RADIAL_DISTANCE);
  EXPECT_EQ(c->observationValueCount, 4);

  c = read(replace(kCurrentFile, "\"AUSTRALIS Parameters\"", "\"OTHER\""));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->extendedModel, EPHO_LENS_MODEL_NONE);
  EXPECT_EQ(c->extendedParameters, nullptr);
  EXPECT_EQ(c->k1, -2e-09);

  std::string keys = replace(kCurrentFile, "\tb1: 6", "\tb1 (affinity): 6");
  keys = replace(keys, "Focal Length [mm]: 99.82", "Calibrated Focal Length [mm]: 99.82");
  c = read(keys);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->focalLength_mm, 99.82);
  EXPECT_EQ(c->extendedParameters[5], 6.0);

  // 127 characters, then LF or CR LF: the same line.
  std::string row = "       1     -106.001      106.002";
  std::string padded = row + std::string(127 - row.size(), ' ');
  std::string focal = "Focal Length [mm]: 99.82";
  std::string focal127 = "Focal Length [mm]:" + std::string(127 - focal.size(), ' ') + " 99.82";
  ASSERT_EQ(focal127.size(), 127u);
  ASSERT_EQ(padded.size(), 127u);
  for (const char* end : {"\n", "\r\n"}) {
    SCOPED_TRACE(end[0] == '\r' ? "CR LF" : "LF");
    std::string text = replace(kCurrentFile, row + "\n", padded + end);
    text = replace(text, focal + "\n", focal127 + end);
    c = read(text);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->focalLength_mm, 99.82);
    ASSERT_EQ(c->fiducialValueCount, 8);
    EXPECT_EQ(c->fiducials_mm[1], 106.002);
    EXPECT_EQ(c->fiducials_mm[2], 106.003);
  }
}

TEST(CameraFile, RecordsCreateEmpty) {
  CameraPtr c(epho_CameraFrameInfoCreate(nullptr));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->version, EPHO_CAMERA_FRAME_INFO_VERSION);
  EXPECT_EQ(c->cameraName, nullptr);
  EXPECT_EQ(c->fiducialValueCount, 0);
  Epho_SensorFrameInfo* f = epho_SensorFrameInfoCreate(nullptr);
  ASSERT_TRUE(f);
  const double identity[6] = {0, 1, 0, 0, 0, 1};
  ExpectValues(f->filmToImage, identity, 6, "identity");
  f->fiducialValueCount = 4;
  f->fiducials_pixels = HeapCopy({1, 2, 3, 4});
  epho_SensorFrameInfoDelete(f);
  epho_SensorFrameInfoDelete(nullptr);
  epho_CameraFrameInfoDelete(nullptr);
  EXPECT_EQ(epho_ExtendedLensModelValueCount(EPHO_LENS_MODEL_TARVO), 19);
  EXPECT_EQ(epho_ExtendedLensModelValueCount(EPHO_LENS_MODEL_AUSTRALIS), 7);
  EXPECT_EQ(epho_ExtendedLensModelValueCount(EPHO_LENS_MODEL_SMAC), 9);
  EXPECT_EQ(epho_ExtendedLensModelValueCount(4), 0);
}

namespace {

// A camera whose file is several kilobytes.
CameraPtr BigCamera() {
  CameraPtr c = MakeCamera(4, 1, 3);
  std::vector<double> many;
  for (int i = 0; i < 400; ++i) many.push_back(i * 0.25 - 50);
  emsc_HeapFree(c->fiducials_mm);
  c->fiducials_mm = HeapCopy(many);
  c->fiducialValueCount = static_cast<int32_t>(many.size());
  return c;
}

// Sets the process's file size limit for the life of the object.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit now = old_;
    now.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &now);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &old_); }

 private:
  rlimit old_;
};

}  // namespace

// A write that cannot finish leaves the file it would replace byte-identical
// and no temporary behind, and says so; the process is not killed by SIGXFSZ.
// (A full file system fails at the same flush; the block save tests fill a
// real one.)
TEST(CameraFile, FailedWriteLeavesTheOldFile) {
  testutil::ScratchDir dir("camfile_limit");
  const std::string old_text = kCurrentFile;
  Spit(dir.File("target.cam"), old_text);
  CameraPtr big = BigCamera();
  {
    FileSizeLimit limit(old_text.size() + 100);
    Eerr_ErrorReport* err = nullptr;
    EXPECT_FALSE(CameraInfoFileWrite(dir.WFile("target.cam").c_str(), big.get(), &err));
    ReportPtr hold(err);
    ASSERT_NE(err, nullptr);
    EXPECT_TRUE(ReportHas(err, dir.WFile("target.cam"))) << kzdv::ReportText(err);
    EXPECT_TRUE(ReportHas(err, L"too large")) << kzdv::ReportText(err);
  }
  EXPECT_EQ(Slurp(dir.File("target.cam")), old_text);
  EXPECT_EQ(FilesIn(dir.path()), std::set<std::string>{"target.cam"});

  // Without the limit the same write replaces the file and keeps its mode.
  std::filesystem::permissions(dir.File("target.cam"), std::filesystem::perms(0640));
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("target.cam").c_str(), big.get(), nullptr));
  CameraPtr back(CameraInfoFileRead(dir.WFile("target.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(back);
  ExpectSameCamera(*big, *back);
  EXPECT_EQ(std::filesystem::status(dir.File("target.cam")).permissions(),
            std::filesystem::perms(0640));
  EXPECT_EQ(FilesIn(dir.path()), std::set<std::string>{"target.cam"});
}

// A host that set a decimal-comma locale writes files that the C locale
// reads, and reads files written in the C locale (both layouts).
TEST(CameraFile, DecimalCommaHostReadsAndWritesCLocaleFiles) {
  testutil::ScratchDir dir("camfile_locale");
  struct Restore {
    ~Restore() {
      std::setlocale(LC_ALL, "C");
      unsetenv("LOCPATH");
    }
  } restore;
  bool comma = false;
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"})
    if (std::setlocale(LC_ALL, name)) {
      comma = true;
      break;
    }
  if (!comma) {
    if (std::system("command -v localedef >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "no decimal-comma locale installed and localedef is missing";
    const std::string cmd =
        "localedef -i de_DE -f UTF-8 '" + dir.File("de_DE.UTF-8") + "' >/dev/null 2>&1";
    const int rc = std::system(cmd.c_str());
    ASSERT_TRUE(std::filesystem::exists(dir.File("de_DE.UTF-8"))) << "localedef exit " << rc;
    setenv("LOCPATH", dir.path().c_str(), 1);
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  }
  char probe[32];
  std::snprintf(probe, sizeof probe, "%g", 1.5);
  ASSERT_STREQ(probe, "1,5") << "the host locale does not use a decimal comma";

  CameraPtr c = MakeCamera(4, 1, 3);
  c->focalLength_mm = 153.25;
  ASSERT_TRUE(CameraInfoFileWrite(dir.WFile("comma.cam").c_str(), c.get(), nullptr));
  const std::string text = Slurp(dir.File("comma.cam"));
  EXPECT_NE(text.find("Focal Length [mm]: 153.25\n"), std::string::npos) << text;
  for (size_t i = 1; i + 1 < text.size(); ++i)  // no decimal comma anywhere
    EXPECT_FALSE(text[i] == ',' && std::isdigit(static_cast<unsigned char>(text[i - 1])) &&
                 std::isdigit(static_cast<unsigned char>(text[i + 1])))
        << text.substr(i - 1, 3);
  CameraPtr same_host(CameraInfoFileRead(dir.WFile("comma.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(same_host);
  ExpectSameCamera(*c, *same_host);
  Spit(dir.File("older.cam"),
       "name\ndescription\n152.5 0.001 -0.002 0 1.5e-08 0 0\n"
       "4\n-100.25 100.5 100.75 -100.125\n2\n3.5 4.25\n");
  CameraPtr older(CameraInfoFileRead(dir.WFile("older.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(older);
  EXPECT_EQ(older->focalLength_mm, 152.5);
  EXPECT_EQ(older->k1, 1.5e-08);
  EXPECT_EQ(older->fiducials_mm[3], -100.125);
  EXPECT_EQ(older->observations[1], 4.25);

  // The host locale is untouched, and the C locale reads the file the same.
  std::snprintf(probe, sizeof probe, "%g", 1.5);
  EXPECT_STREQ(probe, "1,5");
  std::setlocale(LC_ALL, "C");
  CameraPtr c_host(CameraInfoFileRead(dir.WFile("comma.cam").c_str(), nullptr, nullptr));
  ASSERT_TRUE(c_host);
  ExpectSameCamera(*c, *c_host);
}
