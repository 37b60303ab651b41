// Helpers for tests: a scratch folder removed at the end of the test, whole
// files as bytes, and a capture of the error reports that library functions
// print when the caller passes no report pointer.
#ifndef EPHO_TEST_UTIL_H
#define EPHO_TEST_UTIL_H

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "eerr.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

namespace testutil {

// Test programs keep their temporary files (DEM proxies and the like) in the
// suite's own folder: TMPDIR points at EPHO_TEST_TMP when CTest sets it, so
// whatever a test leaves behind shows there and not in the host's /tmp.
inline const bool kTmpDirIsTheSuites = [] {
  const char* base = std::getenv("EPHO_TEST_TMP");
  if (!base || !*base) return false;
  std::error_code ec;
  std::filesystem::create_directories(base, ec);
  return !ec && ::setenv("TMPDIR", base, 1) == 0;
}();

class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag = "t") {
    static std::atomic<int> counter{0};
    const char* base = std::getenv("EPHO_TEST_TMP");
    std::filesystem::path root = base ? base : std::filesystem::temp_directory_path();
    path_ = root / (tag + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }
  std::string File(const std::string& name) const { return (path_ / name).string(); }
  std::wstring WFile(const std::string& name) const { return kzdv::FromUtf8(File(name)); }

 private:
  std::filesystem::path path_;
};

// A whole file's bytes ("" when it cannot be read).
inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Writes `bytes` as the whole file.
inline void Spit(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Names of the entries of a folder.
inline std::set<std::string> FilesIn(const std::filesystem::path& dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    names.insert(e.path().filename().string());
  return names;
}

// True when some link of the report chain mentions `text` (a substring of
// its text, where kzdv::ReportContains wants a whole message).
inline bool Mentions(const Eerr_ErrorReport* err, const std::wstring& text) {
  return kzdv::ReportText(err).find(text) != std::wstring::npos;
}

// While alive, reports printed by eerr_PrintErrorReport are collected here
// instead of going to standard error.
class PrintedReports {
 public:
  PrintedReports() { old_ = eerr_SetPrintHandler(&PrintedReports::Handler, this); }
  ~PrintedReports() { eerr_SetPrintHandler(old_, nullptr); }
  const std::vector<std::wstring>& texts() const { return texts_; }

 private:
  static void Handler(const Eerr_ErrorReport* r, void* ctx) {
    static_cast<PrintedReports*>(ctx)->texts_.push_back(kzdv::ReportText(r));
  }
  Eerr_PrintHandler old_;
  std::vector<std::wstring> texts_;
};

}  // namespace testutil

#endif  // EPHO_TEST_UTIL_H
