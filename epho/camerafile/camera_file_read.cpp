// Reader of the camera calibration text file: the current layout, which
// starts with a version line and names every item, and the older headerless
// layout (name and description lines, then bare numbers).
//
// Everything is read into a fresh record first and counts are only trusted
// for the rows actually present: arrays are sized from the rows read, never
// from a count in the file, so a damaged file cannot ask for huge blocks.
//
// Lines are taken 127 characters at a time, as fgets with a 128 limit gives
// them: the rest of a longer line comes as the next piece. A piece that is
// only a line end (a 127-character line followed by LF or CR LF) is a blank
// line and skipped like any other before an item.
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "efio.h"
#include "epho/camerafile.h"
#include "epho/camerafile/camera_file_format_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/efio/c_locale.h"
#include "platform/estr/utf8.h"

using namespace epho::camerafile;

namespace {

constexpr const Etxt_Char* kUnsupported =
    L"You have selected an unsupported format of Frame Camera Parameters file!";

constexpr const Etxt_Char* kFirstLineUnreadable = L"Error reading Frame Camera parameters file.";

// Thrown once the failure has been reported through the frame.
struct Reported {};

struct CameraDeleter {
  void operator()(Epho_CameraFrameInfo* c) const { epho_CameraFrameInfoDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_CameraFrameInfo, CameraDeleter>;

struct FileCloser {
  void operator()(Efio_File* f) const {
    Eerr_ErrorReport* ignored = nullptr;  // a failed close after reading loses nothing
    efio_Close(f, &ignored);
    eerr_DeleteErrorReportEx(&ignored);
  }
};

std::wstring Trim(const std::wstring& s) {
  const wchar_t* blanks = L" \t\r\n";
  const size_t b = s.find_first_not_of(blanks);
  if (b == std::wstring::npos) return L"";
  return s.substr(b, s.find_last_not_of(blanks) - b + 1);
}

// Text before the first ':' (the whole line when there is none), as is.
std::wstring KeyOf(const std::wstring& line) { return line.substr(0, line.find(L':')); }

class Reader {
 public:
  Reader(kzdv::ErrorFrame& frame, Efio_File* file, const Etxt_Char* name)
      : frame_(frame), file_(file), name_(name) {}

  int LineNumber() const { return line_no_; }
  const Etxt_Char* Name() const { return name_; }
  // Message for a failed read of the next line.
  void SetReadErrorMessage(const Etxt_Char* message) { read_error_ = message; }

  // Reports `format` under the frame (a callee's report left in the frame's
  // slot becomes the previous link) and throws.
  [[noreturn]] void Fail(long site, const Etxt_Char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const std::wstring text = kzdv::FormatV(format, ap);
    va_end(ap);
    frame_.Fail(site, L"%s", text.c_str());
    throw Reported{};
  }

  // Next piece of at most 127 characters (a whole line unless the line is
  // longer) with its line end cut off; false at the end of the file.
  bool Next(std::wstring& line) {
    Etxt_Char buffer[EPHO_CAMERA_FILE_LINE_LIMIT + 1];
    buffer[0] = 0;
    if (!efio_Fgets(buffer, EPHO_CAMERA_FILE_LINE_LIMIT + 1, file_, frame_.Callee())) {
      if (frame_.CalleeFailed()) Fail(__LINE__, L"%s", read_error_);
      return false;
    }
    if (!cut_) ++line_no_;
    size_t n = std::wcslen(buffer);
    cut_ = n == EPHO_CAMERA_FILE_LINE_LIMIT && buffer[n - 1] != L'\n';
    while (n > 0 && (buffer[n - 1] == L'\n' || buffer[n - 1] == L'\r')) --n;
    line.assign(buffer, n);
    return true;
  }

  [[noreturn]] void FailLongLine() {
    Fail(__LINE__, L"Line %d of camera parameter file %s is longer than %d characters", line_no_,
         name_, EPHO_CAMERA_FILE_LINE_LIMIT);
  }

  // After a table row: the row must have ended within the piece just read
  // (what follows a cut piece may only be its line end), so that the rest of
  // a long row is never taken for the next row.
  void RowEnded() {
    if (!cut_) return;
    std::wstring rest;
    if (Next(rest) && !rest.empty()) FailLongLine();
  }

  // Next line that is not empty; false at the end of the file.
  bool NextNonBlank(std::wstring& line) {
    while (Next(line))
      if (!line.empty()) return true;
    return false;
  }

  // Next non-empty line, which must contain `key` (or, with `exact`, have
  // it as the text before its ':').
  std::wstring Item(const Etxt_Char* key, bool exact = false) {
    std::wstring line;
    if (!NextNonBlank(line)) {
      Where(L"Camera parameter file %s ends before \"%s\"", name_, key);
      Fail(__LINE__, kUnsupported);
    }
    const bool ok = exact ? KeyOf(line) == key : line.find(key) != std::wstring::npos;
    if (!ok) {
      Where(L"Line %d of camera parameter file %s: \"%s\" expected", line_no_, name_, key);
      Fail(__LINE__, kUnsupported);
    }
    return line;
  }

  // A report naming the file and line, chained under the next Fail.
  void Where(const Etxt_Char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const std::wstring text = kzdv::FormatV(format, ap);
    va_end(ap);
    *frame_.Callee() = eerr_CreateErrorReport(L"CameraInfoFileRead", __LINE__, EERR_SEVERITY_ERROR,
                                              nullptr, L"%s", text.c_str());
  }

  std::wstring Quoted(const std::wstring& line) {
    const size_t a = line.find(L'"');
    const size_t b = a == std::wstring::npos ? a : line.find(L'"', a + 1);
    if (b == std::wstring::npos && cut_) FailLongLine();
    if (b == std::wstring::npos)
      Fail(__LINE__, L"Line %d of camera parameter file %s: the value must be in double quotes",
           line_no_, name_);
    return line.substr(a + 1, b - a - 1);
  }

  std::wstring AfterColon(const std::wstring& line) {
    const size_t c = line.find(L':');
    return c == std::wstring::npos ? std::wstring() : line.substr(c + 1);
  }

  double Number(const std::wstring& line) {
    const std::wstring text = AfterColon(line);
    double v = 0.0;
    if (!estr_StringToDouble(text.c_str(), &v)) {
      if (cut_) FailLongLine();
      Fail(__LINE__, L"Line %d of camera parameter file %s: \"%s\" is not a number", line_no_,
           name_, Trim(text).c_str());
    }
    return v;
  }

  long Count(const std::wstring& line, long max, const Etxt_Char* what) {
    const std::wstring text = AfterColon(line);
    long v = 0;
    if (!estr_StringToLong(text.c_str(), &v))
      Fail(__LINE__, L"Line %d of camera parameter file %s: \"%s\" is not a whole number", line_no_,
           name_, Trim(text).c_str());
    if (v < 0 || v > max)
      Fail(__LINE__, L"Line %d of camera parameter file %s: %ld %s is out of range (0 to %ld)",
           line_no_, name_, v, what, max);
    return v;
  }

  // `count` table rows "number value value" after an optional header line
  // holding "ID"; the row numbers are not checked.
  std::vector<double> Rows(long count, const Etxt_Char* what) {
    std::vector<double> values;
    std::wstring line;
    for (long i = 0; i < count; ++i) {
      if (!NextNonBlank(line))
        Fail(__LINE__, L"Camera parameter file %s ends before %s %ld of %ld", name_, what, i + 1,
             count);
      double number = 0.0, a = 0.0, b = 0.0;
      int got = std::swscanf(line.c_str(), L"%lg %lg %lg", &number, &a, &b);
      if (got != 3 && i == 0 && values.empty() && line.find(L"ID") != std::wstring::npos) {
        --i;  // the table's header line
        continue;
      }
      if (got != 3) {
        if (cut_) FailLongLine();
        Fail(__LINE__,
             L"Line %d of camera parameter file %s: %s %ld of %ld is not a row of numbers",
             line_no_, name_, what, i + 1, count);
      }
      RowEnded();
      values.push_back(a);
      values.push_back(b);
    }
    return values;
  }

 private:
  kzdv::ErrorFrame& frame_;
  Efio_File* file_;
  const Etxt_Char* name_;
  int line_no_ = 0;
  bool cut_ = false;  // the last piece stopped at the limit, not at a line end
  const Etxt_Char* read_error_ = L"efio_Fgets failed";
};

Etxt_Char* HeapText(kzdv::ErrorFrame& frame, const std::wstring& s) {
  Etxt_Char* t = etxt_Text_strdup(s.c_str());
  if (!t) {
    frame.Fail(__LINE__, L"Unable to allocation memory for camera information.");
    throw Reported{};
  }
  return t;
}

// Heap copy of the values (null for none) and their count.
void HeapValues(kzdv::ErrorFrame& frame, const std::vector<double>& v, int32_t* count,
                double** block) {
  *count = 0;
  *block = nullptr;
  if (v.empty()) return;
  *block = static_cast<double*>(emsc_MemDup(v.data(), v.size() * sizeof(double)));
  if (!*block) {
    frame.Fail(__LINE__, L"Not enough memory for camera info setup");
    throw Reported{};
  }
  *count = static_cast<int32_t>(v.size());
}

void ReadCurrent(Reader& r, kzdv::ErrorFrame& frame, Epho_CameraFrameInfo& c) {
  c.cameraName = HeapText(frame, r.Quoted(r.Item(kNameKey, true)));
  c.cameraDescription = HeapText(frame, r.Quoted(r.Item(kDescriptionKey, true)));
  c.focalLength_mm = r.Number(r.Item(kFocalKey));
  if (!std::isfinite(c.focalLength_mm))
    r.Fail(__LINE__,
           L"Line %d of camera parameter file %s: the focal length is not a finite number",
           r.LineNumber(), r.Name());
  r.Item(kPrincipalSection);
  c.x0_mm = r.Number(r.Item(kX0Key));
  c.y0_mm = r.Number(r.Item(kY0Key));

  r.Item(kFiducialSection);
  const long fiducials = r.Count(r.Item(kFiducialCountKey), kMaxFiducials, L"fiducials");
  HeapValues(frame, r.Rows(fiducials, L"fiducial"), &c.fiducialValueCount, &c.fiducials_mm);

  r.Item(kObservationSection);
  // Only "Field Angle" is looked for: any other type means radial distances.
  const std::wstring kind = r.Quoted(r.Item(kTypeKey));
  c.observationKind = estr_Eqic(kind.c_str(), kFieldAngle) ? EPHO_DISTORTION_FIELD_ANGLE
                                                           : EPHO_DISTORTION_RADIAL_DISTANCE;
  const long observations =
      r.Count(r.Item(kObservationCountKey), kMaxObservations, L"observations");
  HeapValues(frame, r.Rows(observations, L"observation"), &c.observationValueCount,
             &c.observations);

  r.Item(kCoefficientSection);
  c.k0 = r.Number(r.Item(L"k0"));
  c.k1 = r.Number(r.Item(L"k1"));
  c.k2 = r.Number(r.Item(L"k2"));

  // A model this reader does not know is written without a type line; such a
  // file, like one that ends here or names a type other than the three
  // models, has no extended parameters.
  r.Item(kExtendedSection);
  c.extendedModel = EPHO_LENS_MODEL_NONE;
  std::wstring line;
  if (!r.NextNonBlank(line)) return;
  if (line.find(kTypeKey) == std::wstring::npos) r.Fail(__LINE__, kUnsupported);
  const std::wstring type = r.Quoted(line);
  int model = 0;
  for (int m = 1; m <= 3; ++m)
    if (estr_Eqic(type.c_str(), kModelNames[m])) model = m;
  if (!model) return;
  // Each value from the next line holding its key, as the other items.
  const Etxt_Char* const* keys = ExtendedKeys(model);
  std::vector<double> values;
  for (int i = 0; i < epho_ExtendedLensModelValueCount(model); ++i)
    values.push_back(r.Number(r.Item(keys[i])));
  int32_t count = 0;
  HeapValues(frame, values, &count, &c.extendedParameters);
  c.extendedModel = model;
}

// Older layout: `first` (the first line) is the camera name.
void ReadOlder(Reader& r, kzdv::ErrorFrame& frame, Efio_File* file, const Etxt_Char* name,
               const std::wstring& first, Epho_CameraFrameInfo& c) {
  c.cameraName = HeapText(frame, first);
  std::wstring description;
  if (!r.Next(description))
    r.Fail(__LINE__, L"Camera parameter file %s ends before the camera description", name);
  c.cameraDescription = HeapText(frame, description);
  int kind = 0;
  if (efio_Fscanf(file, "%lg %lg %lg %lg %lg %lg %d", &c.focalLength_mm, &c.x0_mm, &c.y0_mm, &c.k0,
                  &c.k1, &c.k2, &kind) != 7)
    r.Fail(__LINE__,
           L"Camera parameter file %s: cannot read the focal length, principal point, k0, k1, "
           L"k2 and observation kind",
           name);
  if (!std::isfinite(c.focalLength_mm))
    r.Fail(__LINE__, L"Camera parameter file %s: the focal length is not a finite number", name);
  c.observationKind = kind;  // as written: non-zero means field angles

  // Value counts (twice the rows) followed by that many values in pairs.
  auto values = [&](long max_rows, const Etxt_Char* what) {
    long count = 0;
    if (efio_Fscanf(file, "%ld", &count) != 1)
      r.Fail(__LINE__, L"Camera parameter file %s: cannot read the number of %s values", name,
             what);
    if (count < 0 || count % 2 != 0 || count > 2 * max_rows)
      r.Fail(__LINE__,
             L"Camera parameter file %s: %ld %s values is not an even count from 0 to %ld", name,
             count, what, 2 * max_rows);
    std::vector<double> v;
    for (long i = 0; i < count; i += 2) {
      double a = 0.0, b = 0.0;
      if (efio_Fscanf(file, "%lg %lg", &a, &b) != 2)
        r.Fail(__LINE__, L"Camera parameter file %s: %s values %ld and %ld of %ld cannot be read",
               name, what, i + 1, i + 2, count);
      v.push_back(a);
      v.push_back(b);
    }
    return v;
  };
  std::vector<double> fiducials = values(kMaxFiducials, L"fiducial");
  HeapValues(frame, fiducials, &c.fiducialValueCount, &c.fiducials_mm);
  std::vector<double> observations = values(kMaxObservations, L"observation");
  HeapValues(frame, observations, &c.observationValueCount, &c.observations);
  c.extendedModel = EPHO_LENS_MODEL_NONE;
}

// Moves the file's fields from `from` into `to`, freeing what `to` held;
// the id, version and application words of `to` stay.
void MoveFields(Epho_CameraFrameInfo& from, Epho_CameraFrameInfo& to) {
  emsc_HeapFree(to.cameraName);
  emsc_HeapFree(to.cameraDescription);
  emsc_HeapFree(to.fiducials_mm);
  emsc_HeapFree(to.observations);
  emsc_HeapFree(to.extendedParameters);
  to.cameraName = from.cameraName;
  to.cameraDescription = from.cameraDescription;
  to.focalLength_mm = from.focalLength_mm;
  to.x0_mm = from.x0_mm;
  to.y0_mm = from.y0_mm;
  to.fiducialValueCount = from.fiducialValueCount;
  to.fiducials_mm = from.fiducials_mm;
  to.observationKind = from.observationKind;
  to.observationValueCount = from.observationValueCount;
  to.observations = from.observations;
  to.k0 = from.k0;
  to.k1 = from.k1;
  to.k2 = from.k2;
  to.extendedModel = from.extendedModel;
  to.extendedParameters = from.extendedParameters;
  from.cameraName = from.cameraDescription = nullptr;
  from.fiducials_mm = from.observations = from.extendedParameters = nullptr;
}

}  // namespace

extern "C" Epho_CameraFrameInfo* CameraInfoFileRead(const Etxt_Char* fileName,
                                                    Epho_CameraFrameInfo* camera,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"CameraInfoFileRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!fileName, frame, nullptr, L"Null file name passed.");
  kzdv::efio::ScopedCLocale c_numbers;  // "153.25" whatever the host's locale
  std::unique_ptr<Efio_File, FileCloser> file(efio_Open(fileName, "r", frame.Callee()));
  if (!file || frame.CalleeFailed()) {
    frame.FailWithSeverity(__LINE__, EERR_SEVERITY_WARNING,
                           L"Error opening camera parameter file: %s", fileName);
    return nullptr;
  }
  CameraPtr fresh(epho_CameraFrameInfoCreate(frame.Callee()));
  EERR_CHECK(fresh, frame, nullptr, L"Unable to allocation memory for camera information.");
  try {
    Reader reader(frame, file.get(), fileName);
    std::wstring first;
    reader.SetReadErrorMessage(kFirstLineUnreadable);
    if (!reader.Next(first)) EERR_FAIL(frame, nullptr, kFirstLineUnreadable);
    reader.SetReadErrorMessage(L"efio_Fgets failed");
    if (first.find(L':') != std::wstring::npos && first.substr(0, first.find(L':')) == kVersionKey)
      ReadCurrent(reader, frame, *fresh);
    else
      ReadOlder(reader, frame, file.get(), fileName, first, *fresh);
  } catch (const Reported&) {
    return nullptr;
  }
  EERR_CATCH(frame, nullptr)
  if (!camera) return fresh.release();
  MoveFields(*fresh, *camera);
  return camera;
}
EERR_BOUNDARY(err, nullptr)
