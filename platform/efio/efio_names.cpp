// Path parts, path expansion, string lists and file-node names.
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "efio.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace fs = std::filesystem;

namespace {

Etxt_Char* Dup(const std::wstring& s) { return etxt_Text_strdup(s.c_str()); }

// Index of the "(:" that starts the node part of "file(:node)", or npos.
size_t NodeStart(const std::wstring& s) { return s.find(L"(:"); }

}  // namespace

Etxt_Char* estr_GetPathPart(const Etxt_Char* path, Estr_PathPart part) KZDV_NOEXCEPT try {
  std::wstring p = path ? path : L"";
  const size_t slash = p.find_last_of(L"/\\");
  const std::wstring dir = slash == std::wstring::npos ? L"" : p.substr(0, slash + 1);
  const std::wstring file = slash == std::wstring::npos ? p : p.substr(slash + 1);
  const size_t dot = file.find_last_of(L'.');
  const bool has_ext = dot != std::wstring::npos && dot != 0;
  switch (part) {
    case ESTR_PATH_DIRECTORY:
      return Dup(dir);
    case ESTR_PATH_FILE:
      return Dup(file);
    case ESTR_PATH_ROOT:
      return Dup(has_ext ? file.substr(0, dot) : file);
    case ESTR_PATH_EXTENSION:
      return Dup(has_ext ? file.substr(dot) : L"");
    case ESTR_PATH_NO_EXTENSION:
      return Dup(dir + (has_ext ? file.substr(0, dot) : file));
  }
  return Dup(L"");
}
EERR_BOUNDARY(nullptr, nullptr)

Etxt_Char* estr_PathExpand(const Etxt_Char* path, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"estr_PathExpand", err);
  EERR_FAIL_IF(!path || !*path, frame, nullptr, L"No path given");
  std::string p = kzdv::ToUtf8(path);
  if (p[0] == '~' && (p.size() == 1 || p[1] == '/')) {
    const char* home = std::getenv("HOME");
    if (home) p = std::string(home) + p.substr(1);
  }
  std::error_code ec;
  fs::path abs = fs::absolute(fs::path(p), ec);
  EERR_FAIL_IF(ec, frame, nullptr, L"Cannot expand %s: %hs", path, ec.message().c_str());
  std::wstring out = kzdv::FromUtf8(abs.lexically_normal().string());
  Etxt_Char* r = Dup(out);
  EERR_FAIL_IF(!r, frame, nullptr, L"Out of memory");
  return r;
}
EERR_BOUNDARY(err, nullptr)

Estr_StringList* estr_StringListCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"estr_StringListCreate", err);
  auto* list = static_cast<Estr_StringList*>(emsc_HeapCalloc(1, sizeof(Estr_StringList)));
  EERR_FAIL_IF(!list, frame, nullptr, L"Out of memory");
  return list;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean estr_StringListAppend(Estr_StringList* list, const Etxt_Char* s,
                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"estr_StringListAppend", err);
  EERR_FAIL_IF(!list, frame, EMSC_FALSE, L"Null string list");
  Etxt_Char* copy = etxt_Text_strdup(s ? s : L"");
  EERR_FAIL_IF(!copy, frame, EMSC_FALSE, L"Out of memory");
  auto* grown = static_cast<Etxt_Char**>(
      emsc_HeapRealloc(list->strings, sizeof(Etxt_Char*) * static_cast<size_t>(list->count + 1)));
  if (!grown) {
    emsc_HeapFree(copy);
    EERR_FAIL(frame, EMSC_FALSE, L"Out of memory");
  }
  list->strings = grown;
  list->strings[list->count++] = copy;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void estr_StringListDelete(Estr_StringList* list) KZDV_NOEXCEPT {
  if (!list) return;
  for (long i = 0; i < list->count; ++i) emsc_HeapFree(list->strings[i]);
  emsc_HeapFree(list->strings);
  emsc_HeapFree(list);
}

Etxt_Char* efnp_FileNameGet(const Etxt_Char* file_node, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efnp_FileNameGet", err);
  EERR_FAIL_IF(!file_node, frame, nullptr, L"No file name given");
  std::wstring s = file_node;
  size_t k = NodeStart(s);
  Etxt_Char* r = Dup(k == std::wstring::npos ? s : s.substr(0, k));
  EERR_FAIL_IF(!r, frame, nullptr, L"Out of memory");
  return r;
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* efnp_FileNodeGet(const Etxt_Char* file_node, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efnp_FileNodeGet", err);
  std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)> nodes(
      efnp_FileNodeListGet(file_node, frame.Callee()), estr_StringListDelete);
  EERR_CHECK(nodes, frame, nullptr, L"efnp_FileNodeListGet failed");
  std::wstring joined;
  for (long i = 0; i < nodes->count; ++i) {
    if (i) joined += L':';
    joined += nodes->strings[i];
  }
  Etxt_Char* r = Dup(joined);
  EERR_FAIL_IF(!r, frame, nullptr, L"Out of memory");
  return r;
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* efnp_FileNameSet(const Etxt_Char* file_name, const Etxt_Char* extension,
                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efnp_FileNameSet", err);
  EERR_FAIL_IF(!file_name || !*file_name, frame, nullptr, L"No file name given");
  kzdv::HeapPtr<Etxt_Char> base(estr_GetPathPart(file_name, ESTR_PATH_NO_EXTENSION));
  EERR_FAIL_IF(!base, frame, nullptr, L"Out of memory");
  std::wstring ext = extension ? extension : L"";
  if (!ext.empty() && ext[0] != L'.') ext = L"." + ext;
  Etxt_Char* r = Dup(std::wstring(base.get()) + ext);
  EERR_FAIL_IF(!r, frame, nullptr, L"Out of memory");
  return r;
}
EERR_BOUNDARY(err, nullptr)

Estr_StringList* efnp_FileNodeListGet(const Etxt_Char* file_node,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efnp_FileNodeListGet", err);
  EERR_FAIL_IF(!file_node, frame, nullptr, L"No file name given");
  std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)> list(
      estr_StringListCreate(frame.Callee()), estr_StringListDelete);
  EERR_CHECK(list, frame, nullptr, L"estr_StringListCreate failed");
  std::wstring s = file_node;
  // "file(:a)(:b)" -> {"a", "b"}; a missing ")" is an error, not a guess.
  for (size_t k = NodeStart(s); k != std::wstring::npos; k = s.find(L"(:", k)) {
    size_t close = s.find(L')', k + 2);
    EERR_FAIL_IF(close == std::wstring::npos, frame, nullptr, L"Malformed file node name %s",
                 file_node);
    EERR_CHECK(
        estr_StringListAppend(list.get(), s.substr(k + 2, close - k - 2).c_str(), frame.Callee()),
        frame, nullptr, L"estr_StringListAppend failed");
    k = close + 1;
  }
  return list.release();
}
EERR_BOUNDARY(err, nullptr)

Etxt_Char* efnp_FileNodeListSet(const Etxt_Char* file_name, const Estr_StringList* nodes,
                                Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efnp_FileNodeListSet", err);
  EERR_FAIL_IF(!file_name, frame, nullptr, L"No file name given");
  std::wstring s = file_name;
  size_t k = NodeStart(s);
  if (k != std::wstring::npos) s.resize(k);
  for (long i = 0; nodes && i < nodes->count; ++i)
    s += L"(:" + std::wstring(nodes->strings[i]) + L")";
  Etxt_Char* r = Dup(s);
  EERR_FAIL_IF(!r, frame, nullptr, L"Out of memory");
  return r;
}
EERR_BOUNDARY(err, nullptr)
