// The name of the proxy file that stands for an image in the temporary folder.
#include <sys/stat.h>

#include <cwctype>
#include <string>

#include "efio.h"
#include "epho/pyramid.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

Etxt_Char* epho_ProxyImageNameGet(const Etxt_Char* file_name, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  static const Etxt_Char* const kFn = L"epho_ProxyImageNameGet";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file_name || !*file_name, frame, nullptr, L"Invalid file name");
  kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(file_name, frame.Callee()));
  EERR_CHECK(file, frame, nullptr, L"efnp_FileNameGet failed");
  kzdv::HeapPtr<Etxt_Char> full(estr_PathExpand(file.get(), frame.Callee()));
  EERR_CHECK(full, frame, nullptr, L"estr_PathExpand failed");
  kzdv::HeapPtr<Etxt_Char> root(estr_GetPathPart(full.get(), ESTR_PATH_ROOT));
  kzdv::HeapPtr<Etxt_Char> tmp(efio_DirectoryGetTemporary(frame.Callee()));
  EERR_CHECK(tmp && root, frame, nullptr, L"efio_DirectoryGetTemporary failed");
  // FNV-1a over the file's identity (device and inode), so every spelling of
  // one file (letter case, links, "..") maps to one proxy and two files never
  // share one; over the exact path when the file cannot be examined.
  std::string key = kzdv::ToUtf8(full.get());
  struct stat st {};
  if (::stat(key.c_str(), &st) == 0)
    key = "file:" + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  unsigned long long h = 1469598103934665603ULL;
  for (unsigned char b : key) {
    h ^= b;
    h *= 1099511628211ULL;
  }
  std::wstring lower_root = root.get();
  for (auto& c : lower_root) c = static_cast<wchar_t>(std::towlower(c));
  Etxt_Char* out = estr_Sprintf(L"%s%s-%016llx.uai", tmp.get(), lower_root.c_str(), h);
  EERR_FAIL_IF(!out, frame, nullptr, L"estr_Sprintf failed");
  return out;
}
EERR_BOUNDARY(err, nullptr)
