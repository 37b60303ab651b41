// Existence tests, copies and temporary names on std::filesystem.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <random>
#include <system_error>

#include "efio.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace fs = std::filesystem;

int efio_FileNameExistAsFileOrDir(const Etxt_Char* name) KZDV_NOEXCEPT try {
  if (!name || !*name) return EFIO_NOTHING;
  std::error_code ec;
  fs::file_status st = fs::status(fs::path(kzdv::ToUtf8(name)), ec);
  if (ec || !fs::exists(st)) return EFIO_NOTHING;
  return fs::is_directory(st) ? EFIO_DIRECTORY : EFIO_FILE;
}
EERR_BOUNDARY(nullptr, 0)

Emsc_Boolean efio_FileCopy(const Etxt_Char* from, const Etxt_Char* to, int /*flags*/,
                           void* /*meter*/, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_FileCopy", err);
  EERR_FAIL_IF(!from || !to, frame, EMSC_FALSE, L"No file name given");
  std::error_code ec;
  fs::copy_file(kzdv::ToUtf8(from), kzdv::ToUtf8(to), fs::copy_options::overwrite_existing, ec);
  EERR_FAIL_IF(ec, frame, EMSC_FALSE, L"Cannot copy %s to %s: %hs", from, to, ec.message().c_str());
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Etxt_Char* efio_DirectoryGetTemporary(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_DirectoryGetTemporary", err);
  std::error_code ec;
  fs::path dir = fs::temp_directory_path(ec);
  EERR_FAIL_IF(ec, frame, nullptr, L"No temporary directory: %hs", ec.message().c_str());
  std::wstring w = kzdv::FromUtf8(dir.string());
  if (w.empty() || w.back() != L'/') w += L'/';
  Etxt_Char* out = etxt_Text_strdup(w.c_str());
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* efio_TempName(const Etxt_Char* directory, const Etxt_Char* prefix,
                         const Etxt_Char* extension, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_TempName", err);
  std::wstring dir;
  if (directory && *directory) {
    dir = directory;
  } else {
    kzdv::HeapPtr<Etxt_Char> tmp(efio_DirectoryGetTemporary(frame.Callee()));
    EERR_CHECK(tmp, frame, nullptr, L"efio_DirectoryGetTemporary failed");
    dir = tmp.get();
  }
  if (dir.back() != L'/') dir += L'/';
  static thread_local std::mt19937_64 rng(std::random_device{}() ^
                                          static_cast<uint64_t>(std::time(nullptr)));
  static const wchar_t kChars[] = L"abcdefghijklmnopqrstuvwxyz0123456789";
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::wstring name = dir + (prefix ? prefix : L"");
    for (int i = 0; i < 6; ++i) name += kChars[rng() % 36];
    name += extension ? extension : L"";
    std::string narrow = kzdv::ToUtf8(name);
    // O_EXCL-style creation: "wx" fails when the name exists, so the name is ours.
    FILE* f = std::fopen(narrow.c_str(), "wx");
    if (f) {
      std::fclose(f);
      Etxt_Char* out = etxt_Text_strdup(name.c_str());
      EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
      return out;
    }
    if (errno != EEXIST) break;
  }
  EERR_FAIL(frame, nullptr, L"Cannot create a temporary file in %s", dir.c_str());
}
EERR_BOUNDARY(err, nullptr)

size_t etim_Strftime(Etxt_Char* buffer, size_t size, const Etxt_Char* format,
                     const struct tm* time) KZDV_NOEXCEPT {
  if (!buffer || !size || !format || !time) return 0;
  return std::wcsftime(buffer, size, format, time);
}
