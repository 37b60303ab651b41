// Writer of the camera calibration text file (current layout).
#include <cmath>
#include <cwchar>
#include <string>

#include "efio.h"
#include "epho/camerafile.h"
#include "epho/camerafile/camera_file_format_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/efio/atomic_file.h"
#include "platform/efio/c_locale.h"
#include "platform/estr/utf8.h"

using namespace epho::camerafile;

namespace {

// A quoted text line must come back whole: no quote or line break inside,
// and within the reader's line limit (line end not counted).
bool QuotedTextFits(const Etxt_Char* key, const Etxt_Char* text) {
  const size_t n = text ? std::wcslen(text) : 0;
  for (size_t i = 0; i < n; ++i)
    if (text[i] == L'"' || text[i] == L'\n' || text[i] == L'\r') return false;
  // key + ": \"" + text + "\""
  return std::wcslen(key) + 3 + n + 1 <= EPHO_CAMERA_FILE_LINE_LIMIT;
}

// The text of the whole file.
std::wstring FileText(const Epho_CameraFrameInfo& c) {
  using kzdv::Format;
  const Etxt_Char* name = c.cameraName ? c.cameraName : L"";
  const Etxt_Char* description = c.cameraDescription ? c.cameraDescription : L"";
  std::wstring t;
  t += Format(L"%s: %#.2g\n", kVersionKey, kVersion);
  t += Format(L"%s: \"%s\"\n", kNameKey, name);
  t += Format(L"%s: \"%s\"\n", kDescriptionKey, description);
  t += Format(L"\n%s: %g\n", kFocalKey, c.focalLength_mm);
  t += Format(L"%s\n\t%s: %g\n\t%s: %g\n", kPrincipalSection, kX0Key, c.x0_mm, kY0Key, c.y0_mm);

  const int fiducials = c.fiducialValueCount / 2;
  t += Format(L"\n%s\n\t%s: %d\n", kFiducialSection, kFiducialCountKey, fiducials);
  if (fiducials > 0) {
    t += L"      ID       X[mm]         Y[mm]\n";
    for (int i = 0; i < fiducials; ++i)
      t += Format(L"%8d %12g %12g\n", i + 1, c.fiducials_mm[2 * i], c.fiducials_mm[2 * i + 1]);
  }

  const bool field_angle = c.observationKind != EPHO_DISTORTION_RADIAL_DISTANCE;
  const int observations = c.observationValueCount / 2;
  t += Format(L"\n%s\n\t%s: \"%s\"\n\t%s: %d\n", kObservationSection, kTypeKey,
              field_angle ? kFieldAngle : kRadialDistance, kObservationCountKey, observations);
  if (observations > 0) {
    t += field_angle ? L"      ID    Angle[deg]\tDistortion[microns]\n"
                     : L"      ID   Distance[mm]\tDistortion[microns]\n";
    for (int i = 0; i < observations; ++i)
      t += Format(L"%8d %12g %16g\n", i + 1, c.observations[2 * i], c.observations[2 * i + 1]);
  }

  t += Format(L"\n%s\n\tk0: %g\n\tk1: %g\n\tk2: %g\n", kCoefficientSection, c.k0, c.k1, c.k2);

  t += Format(L"\n%s\n", kExtendedSection);
  if (!c.extendedParameters || c.extendedModel == EPHO_LENS_MODEL_NONE) {
    t += Format(L"\t%s: \"%s\"\n", kTypeKey, kNone);
  } else if (const Etxt_Char* const* keys = ExtendedKeys(c.extendedModel)) {
    t += Format(L"\t%s: \"%s\"\n", kTypeKey, kModelNames[c.extendedModel]);
    const int n = epho_ExtendedLensModelValueCount(c.extendedModel);
    for (int i = 0; i < n; ++i) t += Format(L"\t%s: %g\n", keys[i], c.extendedParameters[i]);
  }
  return t;
}

}  // namespace

extern "C" Emsc_Boolean CameraInfoFileWrite(const Etxt_Char* fileName,
                                            const Epho_CameraFrameInfo* camera,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"CameraInfoFileWrite";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!camera, frame, EMSC_FALSE, L"Null camera pointer passed.");
  EERR_FAIL_IF(!fileName, frame, EMSC_FALSE, L"Null file name passed.");
  const Epho_CameraFrameInfo& c = *camera;
  EERR_FAIL_IF(c.fiducialValueCount < 0 || c.fiducialValueCount % 2 != 0 ||
                   (c.fiducialValueCount > 0 && !c.fiducials_mm),
               frame, EMSC_FALSE, L"Camera record has an invalid fiducial value count %d",
               c.fiducialValueCount);
  EERR_FAIL_IF(c.observationValueCount < 0 || c.observationValueCount % 2 != 0 ||
                   (c.observationValueCount > 0 && !c.observations),
               frame, EMSC_FALSE, L"Camera record has an invalid observation value count %d",
               c.observationValueCount);
  EERR_FAIL_IF(!QuotedTextFits(kNameKey, c.cameraName), frame, EMSC_FALSE,
               L"The camera name holds a double quote or a line break, or is too long for one "
               L"line of %d characters",
               EPHO_CAMERA_FILE_LINE_LIMIT);
  EERR_FAIL_IF(!QuotedTextFits(kDescriptionKey, c.cameraDescription), frame, EMSC_FALSE,
               L"The camera description holds a double quote or a line break, or is too long "
               L"for one line of %d characters",
               EPHO_CAMERA_FILE_LINE_LIMIT);

  // Other values may be written as "nan" or "inf" and read back as such, but
  // a camera without a finite focal length is no camera.
  EERR_FAIL_IF(!std::isfinite(c.focalLength_mm), frame, EMSC_FALSE,
               L"Camera record has a focal length that is not a finite number (%g)",
               c.focalLength_mm);

  std::wstring text;
  try {
    kzdv::efio::ScopedCLocale c_numbers;  // "153.25" whatever the host's locale
    text = FileText(c);
  }
  EERR_CATCH(frame, EMSC_FALSE)

  // The new text goes to a temporary beside the file, which replaces the file
  // only once it is complete and on disk: a full disk, a quota or a file size
  // limit leaves the old file as it was (and converting a file onto itself
  // cannot lose it).
  bool opened = false;  // the temporary was created and opened
  std::wstring why;
  const bool ok = kzdv::efio::ReplaceFile(
      kzdv::ToUtf8(fileName),
      [&](const std::string& temp, std::wstring* message) {
        Eerr_ErrorReport* local = nullptr;
        const std::wstring wtemp = kzdv::FromUtf8(temp);
        Efio_File* file = efio_Open(wtemp.c_str(), "w", &local);
        if (!file) {
          *message = kzdv::ReportText(local);
          eerr_DeleteErrorReportEx(&local);
          return false;
        }
        opened = true;
        // One efio_Fprintf per line, as a text file is written line by line.
        bool written = true;
        for (size_t start = 0; written && start < text.size();) {
          size_t end = text.find(L'\n', start);
          end = end == std::wstring::npos ? text.size() : end + 1;
          const std::wstring line = text.substr(start, end - start);
          written = efio_Fprintf(file, &local, L"%s", line.c_str()) >= 0 && !local;
          start = end;
        }
        Eerr_ErrorReport* close_err = nullptr;
        if (!efio_Close(file, &close_err)) written = false;
        if (!local) std::swap(local, close_err);
        eerr_DeleteErrorReportEx(&close_err);
        if (!written) *message = local ? kzdv::ReportText(local) : L"efio_Fprintf failed";
        eerr_DeleteErrorReportEx(&local);
        return written;
      },
      &why);
  if (!ok) {
    // The reason (naming the file) is the previous link of the report.
    *frame.Callee() = eerr_CreateErrorReport(L"kzdv::efio::ReplaceFile", __LINE__,
                                             EERR_SEVERITY_ERROR, nullptr, L"%s", why.c_str());
    if (!opened)
      frame.FailWithSeverity(__LINE__, EERR_SEVERITY_WARNING,
                             L"Error opening camera parameter file: %s", fileName);
    else
      frame.Fail(__LINE__, L"Cannot write camera parameter file %s; it is unchanged", fileName);
    return EMSC_FALSE;
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
