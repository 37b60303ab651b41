// Fuzz target of the hierarchical file reader: the input is a whole file. It
// is opened, every entry visited in file order, every object decoded and its
// raw data read, and the input is also parsed as dictionary text.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "ehfa.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The dictionary parser on its own.
  Eerr_ErrorReport* err = nullptr;
  Emif_Dictionary* dict = emif_DictionaryFromText(reinterpret_cast<const char*>(data), size, &err);
  eerr_DeleteErrorReportEx(&err);
  if (dict && emif_DictionaryDesignCount(dict) > 0) {
    const Emif_Design* d = emif_DictionaryDesignGet(dict, 0);
    void* rec = emif_ObjectDecode(d, data, size, &err);
    eerr_DeleteErrorReportEx(&err);
    emif_ObjectFree(d, rec, nullptr);
  }
  emif_DictionaryDestroy(dict);

  // The file reader works on files: one scratch file per process.
  static const std::string path = "/tmp/hfa_reader_fuzz_" + std::to_string(::getpid()) + ".img";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  const std::wstring wpath(path.begin(), path.end());
  Ehfa_File* f = ehfa_FileOpen(wpath.c_str(), "r", nullptr, &err);
  eerr_DeleteErrorReportEx(&err);
  if (f) {
    for (int guard = 0; guard < 100000; ++guard) {
      if (!ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &err)) break;
      const Emif_Design* d = nullptr;
      void* rec = nullptr;
      if (ehfa_ObjectRead(f, EHFA_SEEK_INTO, nullptr, nullptr, &d, &rec, &err)) {
        emif_ObjectFree(d, rec, nullptr);
      }
      eerr_DeleteErrorReportEx(&err);
      unsigned char* bytes = nullptr;
      uint32_t n = 0;
      ehfa_ObjectDataReadIfPresent(f, EHFA_SEEK_INTO, nullptr, nullptr, &bytes, &n, nullptr, &err);
      eerr_DeleteErrorReportEx(&err);
      emsc_HeapFree(bytes);
    }
    eerr_DeleteErrorReportEx(&err);
    ehfa_FileClose(f, nullptr);
  }
  std::remove(path.c_str());
  return 0;
}
