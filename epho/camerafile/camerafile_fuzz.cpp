// Fuzz target of the camera file reader: the bytes become a file on disk,
// which is read with a report pointer and without one; whatever the bytes,
// the read must end in a record or a report, never a crash or a leak.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "epho/camerafile.h"

namespace {

const std::wstring& ScratchFile() {
  static const std::wstring path = (std::filesystem::temp_directory_path() /
                                    ("camerafile_fuzz_" + std::to_string(::getpid()) + ".cam"))
                                       .wstring();
  return path;
}

void SilentPrint(const Eerr_ErrorReport*, void*) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::wstring& path = ScratchFile();
  const std::string narrow = std::filesystem::path(path).string();
  FILE* f = std::fopen(narrow.c_str(), "wb");
  if (!f) return 0;
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);

  Eerr_ErrorReport* err = nullptr;
  Epho_CameraFrameInfo* camera = CameraInfoFileRead(path.c_str(), nullptr, &err);
  if (camera) {
    // What was read must write out again (or be refused with a report).
    const std::wstring copy = path + L".out";
    Eerr_ErrorReport* werr = nullptr;
    CameraInfoFileWrite(copy.c_str(), camera, &werr);
    eerr_DeleteErrorReport(werr);
    std::filesystem::remove(std::filesystem::path(copy));
    epho_CameraFrameInfoDelete(camera);
  }
  eerr_DeleteErrorReport(err);

  // Into a caller's record, with the report printed by the reader itself.
  Eerr_PrintHandler old = eerr_SetPrintHandler(&SilentPrint, nullptr);
  Epho_CameraFrameInfo* mine = epho_CameraFrameInfoCreate(nullptr);
  CameraInfoFileRead(path.c_str(), mine, nullptr);
  epho_CameraFrameInfoDelete(mine);
  eerr_SetPrintHandler(old, nullptr);

  std::filesystem::remove(std::filesystem::path(path));
  return 0;
}
