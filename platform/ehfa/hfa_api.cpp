// Exported calls on hierarchical files: open, create, close, navigation,
// entry and object reads and writes, bulk writes.
#include <algorithm>
#include <cstring>
#include <cwchar>

#include "platform/eerr/error_frame.h"
#include "platform/ehfa/hfa_internal.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

using kzdv::ErrorFrame;
using kzdv::FromUtf8;
using kzdv::ToUtf8;
using namespace kzdv::hfa;

namespace {

std::string U8(const Etxt_Char* s) { return s ? ToUtf8(s) : std::string(); }

// Finds the node a seek asks for; null with *missing set to the name looked
// for when it is not there, or *error on misuse.
Node* SeekTarget(Ehfa_File* f, Ehfa_SeekMethod method, const Etxt_Char* path, const Etxt_Char* name,
                 std::string* missing, std::string* error) {
  Node* cur = f->current;
  switch (method) {
    case EHFA_SEEK_ROOT:
      return f->root;
    case EHFA_SEEK_FIRST_CHILD:
      f->EnsureChildren(cur);
      if (!cur->child) *missing = "first child of " + f->PathOf(cur);
      return cur->child;
    case EHFA_SEEK_NEXT_SIBLING:
      if (!cur->next) *missing = "next sibling of " + f->PathOf(cur);
      return cur->next;
    case EHFA_SEEK_PARENT:
      if (!cur->parent) *missing = "parent of the root";
      return cur->parent;
    case EHFA_SEEK_INTO: {
      if (!path && (!name || !*name)) return cur;  // the current node itself
      std::string p = path ? U8(path) : f->PathOf(cur);
      if (name && *name) p += (p.empty() || p.back() != ':' ? ":" : "") + U8(name);
      Node* n = f->Resolve(p);
      if (!n) *missing = p;
      return n;
    }
    case EHFA_SEEK_BY_NAME: {
      if (!name) {
        *error = "a seek by name needs a name";
        return nullptr;
      }
      Node* parent = path ? f->Resolve(U8(path)) : cur;
      Node* n = parent ? f->FindChild(parent, U8(name)) : nullptr;
      if (!n) {
        std::string where = path ? U8(path) : f->PathOf(cur);
        if (where.empty() || where.back() != ':') where += ":";
        *missing = where + U8(name);
      }
      return n;
    }
    case EHFA_SEEK_NEXT_IN_FILE: {
      f->EnsureChildren(cur);
      Node* n = cur->child;
      for (Node* up = cur; !n && up; up = up->parent) n = up->next;
      if (!n) {
        *missing = "entry after " + f->PathOf(cur);
      } else if (name && *name && n->name() != U8(name)) {
        *error = "the entry after " + f->PathOf(cur) + " is " + std::string(n->name()) + ", not " +
                 U8(name);
        return nullptr;
      }
      return n;
    }
  }
  *error = "unknown seek method " + std::to_string(static_cast<int>(method));
  return nullptr;
}

// Seek shared by the seek and read calls. Returns 1 found, 0 missing, -1
// failed (frame filled).
int DoSeek(ErrorFrame& frame, Ehfa_File* f, Ehfa_SeekMethod method, const Etxt_Char* path,
           const Etxt_Char* name, bool missing_is_error) {
  std::string missing, error;
  f->ReleaseFamilies();
  Node* n = SeekTarget(f, method, path, name, &missing, &error);
  if (error.empty() && !f->family_error.empty()) {
    // A family read on the way (a damaged file) is reported once.
    error.swap(f->family_error);
  }
  if (!error.empty()) {
    frame.Fail(__LINE__, L"%s", KZDV_W(error));
    return -1;
  }
  if (!n) {
    if (missing_is_error) {
      frame.Fail(__LINE__, L"Node %s not found in %s", KZDV_W(missing), f->name.c_str());
      return -1;
    }
    return 0;
  }
  f->current = n;
  return 1;
}

bool AfterWrite(ErrorFrame& frame, Ehfa_File* f) {
  std::string error;
  if (!f->family_error.empty()) {
    // The write reached a damaged family: say so rather than go on quietly.
    error.swap(f->family_error);
    frame.Fail(__LINE__, L"Cannot write %s: %s", f->name.c_str(), KZDV_W(error));
    return false;
  }
  if (!f->Flush(false, &error)) {
    frame.Fail(__LINE__, L"Cannot write %s: %s", f->name.c_str(), KZDV_W(error));
    return false;
  }
  return true;
}

// Finds or makes the node a write goes to (see Ehfa_WritePos).
Node* Place(ErrorFrame& frame, Ehfa_File* f, const Etxt_Char* path, const Etxt_Char* name,
            Ehfa_WritePos position, const std::string& type) {
  if (!f->writable) {
    frame.Fail(__LINE__, L"%s is open for reading only", f->name.c_str());
    return nullptr;
  }
  if (!name || !*name) {
    frame.Fail(__LINE__, L"A node needs a name");
    return nullptr;
  }
  const std::string n8 = U8(name);
  if (n8.size() >= kNameSize || type.size() >= kTypeSize || n8.find(':') != std::string::npos) {
    frame.Fail(__LINE__, L"Node name %s or type %s is too long or holds ':'", name, KZDV_W(type));
    return nullptr;
  }
  Node* parent;
  if (path) {
    parent = f->Resolve(U8(path));
    if (!parent) {
      frame.Fail(__LINE__, L"Node %s not found in %s", path, f->name.c_str());
      return nullptr;
    }
  } else if (position == EHFA_WRITE_AFTER) {
    parent = f->current->parent;
    if (!parent) {
      frame.Fail(__LINE__, L"Nothing can be written after the root");
      return nullptr;
    }
  } else {
    parent = f->current;
  }
  Node* n = nullptr;
  switch (position) {
    case EHFA_WRITE_AFTER:
      n = f->NewNode(n8, type);
      if (f->current->parent == parent) {
        f->LinkAfter(f->current, n);
      } else {
        f->LinkLast(parent, n);
      }
      break;
    case EHFA_WRITE_FIRST_CHILD:
      n = f->NewNode(n8, type);
      f->LinkFirst(parent, n);
      break;
    case EHFA_WRITE_REPLACE:
      n = f->FindChild(parent, n8);
      if (n) {
        f->SetType(n, type);
        f->MarkDirty(n);
      } else {
        n = f->NewNode(n8, type);
        f->LinkLast(parent, n);
      }
      break;
    default:
      frame.Fail(__LINE__, L"Unknown write position %d", static_cast<int>(position));
      return nullptr;
  }
  if (n->pos == 0) {
    // A new entry: its header goes to the end now, its links with the flush.
    static const uint8_t kBlank[kEntryHeaderSize] = {};
    std::string error;
    if (!f->io.Append(kBlank, sizeof kBlank, &n->pos, &error)) {
      f->Unlink(n);
      frame.Fail(__LINE__, L"Cannot write %s: %s", f->name.c_str(), KZDV_W(error));
      return nullptr;
    }
  }
  f->current = n;
  return n;
}

}  // namespace

// ---- files -------------------------------------------------------------------

Ehfa_File* ehfa_FileCreate(const Etxt_Char* name, Eint_InitToolkitData*,
                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileCreate", err);
  EERR_FAIL_IF_NULL(name, frame, nullptr);
  EERR_FAIL_IF(!*name, frame, nullptr, L"Args: name is empty");
  std::unique_ptr<Ehfa_File> f(new (std::nothrow) Ehfa_File);
  EERR_FAIL_IF(!f, frame, nullptr, L"Out of memory");
  f->name = name;
  f->writable = true;
  std::string error;
  EERR_FAIL_IF(!f->io.Open(ToUtf8(name), true, true, &error), frame, nullptr,
               L"Cannot create %s: %s", name, KZDV_W(error));
  EERR_FAIL_IF(!f->InitNew(&error), frame, nullptr, L"Cannot write %s: %s", name, KZDV_W(error));
  return f.release();
}
EERR_BOUNDARY(err, nullptr)

Ehfa_File* ehfa_FileOpen(const Etxt_Char* name, const char* mode, Eint_InitToolkitData*,
                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileOpen", err);
  EERR_FAIL_IF_NULL(name, frame, nullptr);
  EERR_FAIL_IF(!*name, frame, nullptr, L"Args: name is empty");
  EERR_FAIL_IF_NULL(mode, frame, nullptr);
  const bool writable = std::strchr(mode, '+') || std::strchr(mode, 'w');
  EERR_FAIL_IF(std::strchr(mode, 'w'), frame, nullptr,
               L"Mode %s would truncate %s; use ehfa_FileCreate", KZDV_W(mode), name);
  std::unique_ptr<Ehfa_File> f(new (std::nothrow) Ehfa_File);
  EERR_FAIL_IF(!f, frame, nullptr, L"Out of memory");
  f->name = name;
  f->writable = writable;
  std::string error;
  EERR_FAIL_IF(!f->io.Open(ToUtf8(name), writable, false, &error), frame, nullptr,
               L"Cannot open %s: %s", name, KZDV_W(error));
  try {
    EERR_FAIL_IF(!f->Load(&error), frame, nullptr, L"%s is not a valid hierarchical file: %s", name,
                 KZDV_W(error));
  } catch (const std::bad_alloc&) {
    EERR_FAIL(frame, nullptr, L"Out of memory reading %s", name);
  }
  return f.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean ehfa_FileFlush(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileFlush", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  std::string error;
  EERR_FAIL_IF(!file->Flush(true, &error), frame, EMSC_FALSE, L"Cannot write %s: %s",
               file->name.c_str(), KZDV_W(error));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_FileClose(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileClose", err);
  if (!file) return EMSC_TRUE;
  std::unique_ptr<Ehfa_File> owned(file);
  std::string error;
  bool ok = file->Flush(true, &error);
  std::string close_error;
  if (!file->io.Close(&close_error) && ok) {
    ok = false;
    error = close_error;
  }
  EERR_FAIL_IF(!ok, frame, EMSC_FALSE, L"Cannot write %s: %s", file->name.c_str(), KZDV_W(error));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

const Etxt_Char* ehfa_FileNameGet(const Ehfa_File* file) KZDV_NOEXCEPT {
  return file ? file->name.c_str() : nullptr;
}

Emif_Dictionary* ehfa_FileDictionaryGet(Ehfa_File* file) KZDV_NOEXCEPT {
  return file ? file->dict.get() : nullptr;
}

Emsc_Boolean ehfa_FileChange(Ehfa_File* file, int kind, int value, void*,
                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileChange", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF(kind != EHFA_CHANGE_BULK, frame, EMSC_FALSE, L"Unknown file change %d", kind);
  if (value == 0) {
    ++file->bulk_depth;
    return EMSC_TRUE;
  }
  EERR_FAIL_IF(value != 1, frame, EMSC_FALSE, L"Unknown file change value %d", value);
  EERR_FAIL_IF(file->bulk_depth == 0, frame, EMSC_FALSE, L"No bulk write to end");
  if (--file->bulk_depth == 0 && !AfterWrite(frame, file)) return EMSC_FALSE;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

// ---- navigation --------------------------------------------------------------

Emsc_Boolean ehfa_EntrySeek(Ehfa_File* file, Ehfa_SeekMethod method, const Etxt_Char* path,
                            const Etxt_Char* name, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_EntrySeek", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  return DoSeek(frame, file, method, path, name, true) == 1 ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_EntrySeekIfPresent(Ehfa_File* file, Ehfa_SeekMethod method, const Etxt_Char* path,
                                     const Etxt_Char* name, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  ErrorFrame frame(L"ehfa_EntrySeekIfPresent", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  return DoSeek(frame, file, method, path, name, false) == 1 ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_EntryInfoGet(Ehfa_File* file, Ehfa_EntryInfo* info,
                               Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_EntryInfoGet", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(info, frame, EMSC_FALSE);
  Node* n = file->current;
  EERR_FAIL_IF(!file->EnsureChildren(n), frame, EMSC_FALSE, L"%s", KZDV_W(file->family_error));
  file->info_name = n->name();
  file->info_type = n->type();
  info->name = file->info_name.c_str();
  info->type = file->info_type.c_str();
  info->file_offset = n->pos;
  info->data_offset = n->data_pos;
  info->data_size = n->data_size;
  info->modification_time = n->mtime;
  info->child_count = n->children;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Etxt_Char* ehfa_EntryPathGet(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_EntryPathGet", err);
  EERR_FAIL_IF_NULL(file, frame, nullptr);
  Etxt_Char* p = etxt_Text_strdup(FromUtf8(file->PathOf(file->current)).c_str());
  EERR_FAIL_IF(!p, frame, nullptr, L"Out of memory");
  return p;
}
EERR_BOUNDARY(err, nullptr)

// ---- writing -------------------------------------------------------------------

Emsc_Boolean ehfa_EntryWrite(Ehfa_File* file, Ehfa_WritePos position, const Etxt_Char* name,
                             const Etxt_Char* type, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_EntryWrite", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(type, frame, EMSC_FALSE);
  if (!Place(frame, file, nullptr, name, position, U8(type))) return EMSC_FALSE;
  return AfterWrite(frame, file) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_EntryDelete(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_EntryDelete", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF(!file->writable, frame, EMSC_FALSE, L"%s is open for reading only",
               file->name.c_str());
  Node* n = file->current;
  EERR_FAIL_IF(n == file->root, frame, EMSC_FALSE, L"The root cannot be removed");
  Node* parent = n->parent;
  file->Unlink(n);
  file->current = parent;
  return AfterWrite(frame, file) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectWrite(Ehfa_File* file, const Etxt_Char* path, const Etxt_Char* name,
                              Ehfa_WritePos position, const Emif_Design* design, const void* object,
                              Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectWrite", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  std::vector<uint8_t> bytes;
  std::string error;
  const kzdv::mif::DesignImpl& d = *kzdv::mif::DesignOf(design);
  try {
    EERR_FAIL_IF(!kzdv::mif::Encode(d, object, 0, &bytes, &error), frame, EMSC_FALSE,
                 L"Cannot encode %s of design %s: %s", name ? name : L"",
                 emif_DesignNameGet(design), KZDV_W(error));
    kzdv::mif::AddDesign(file->dict.get(), kzdv::mif::DesignOf(design));
  } catch (const std::bad_alloc&) {
    EERR_FAIL(frame, EMSC_FALSE, L"Out of memory");
  }
  Node* n = Place(frame, file, path, name, position, kzdv::mif::DesignName(d));
  if (!n) return EMSC_FALSE;
  EERR_FAIL_IF(!file->SetData(n, &bytes, &d, &error), frame, EMSC_FALSE, L"Cannot write %s: %s",
               file->name.c_str(), KZDV_W(error));
  return AfterWrite(frame, file) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectDataWrite(Ehfa_File* file, const Etxt_Char* path, const Etxt_Char* name,
                                  Ehfa_WritePos position, const Etxt_Char* type, const void* data,
                                  uint32_t size, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectDataWrite", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(type, frame, EMSC_FALSE);
  EERR_FAIL_IF(!data && size > 0, frame, EMSC_FALSE, L"Args: data is null");
  const std::string t8 = U8(type);
  kzdv::mif::DesignRef d = kzdv::mif::FindDesign(*file->dict, t8);
  std::vector<uint8_t> bytes(static_cast<const uint8_t*>(data),
                             static_cast<const uint8_t*>(data) + size);
  std::string error;
  // Check the bytes against the design before anything is placed.
  if (d && size > 0) {
    std::vector<uint8_t> probe = bytes;
    EERR_FAIL_IF(!kzdv::mif::Rebase(*d, probe.data(), probe.size(), 0, &error), frame, EMSC_FALSE,
                 L"The data of %s do not match design %s: %s", name ? name : L"", type,
                 KZDV_W(error));
  }
  Node* n = Place(frame, file, path, name, position, t8);
  if (!n) return EMSC_FALSE;
  EERR_FAIL_IF(!file->SetData(n, &bytes, d.get(), &error), frame, EMSC_FALSE,
               L"Cannot write %s: %s", file->name.c_str(), KZDV_W(error));
  return AfterWrite(frame, file) ? EMSC_TRUE : EMSC_FALSE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

// ---- reading -------------------------------------------------------------------

namespace {

Emsc_Boolean ReadObject(ErrorFrame& frame, Ehfa_File* file, Ehfa_SeekMethod method,
                        const Etxt_Char* path, const Etxt_Char* name, const Emif_Design** design,
                        void** object, bool missing_is_error) {
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  *object = nullptr;
  if (design) *design = nullptr;
  const int found = DoSeek(frame, file, method, path, name, missing_is_error);
  if (found <= 0) return EMSC_FALSE;
  const Node* n = file->current;
  const kzdv::mif::DesignRef d = kzdv::mif::FindDesign(*file->dict, std::string(n->type()));
  if (!d) {
    const std::string why = kzdv::mif::UnusableReason(*file->dict, std::string(n->type()));
    frame.Fail(__LINE__, L"Node %s has type %s, which the dictionary of %s does not define%s",
               KZDV_W(file->PathOf(n)), KZDV_W(std::string(n->type())), file->name.c_str(),
               KZDV_W(why.empty() ? std::string() : " usably: " + why));
    return EMSC_FALSE;
  }
  std::vector<uint8_t> bytes;
  std::string error;
  void* rec = nullptr;
  try {
    if (!file->ReadData(n, &bytes, &error)) {
      frame.Fail(__LINE__, L"Cannot read %s: %s", file->name.c_str(), KZDV_W(error));
      return EMSC_FALSE;
    }
    const size_t least = kzdv::mif::PackedMinimum(*d);
    if (kzdv::mif::RecordSize(*d) > std::max<uint64_t>(file->io.size(), 1u << 20) ||
        (!bytes.empty() && least > bytes.size())) {
      frame.Fail(__LINE__, L"Node %s holds %u bytes, not an object of type %s (%u bytes or more)",
                 KZDV_W(file->PathOf(n)), n->data_size, KZDV_W(std::string(n->type())),
                 static_cast<unsigned>(least));
      return EMSC_FALSE;
    }
    rec = emsc_HeapCalloc(1, kzdv::mif::RecordSize(*d));
    if (!rec) {
      frame.Fail(__LINE__, L"Out of memory");
      return EMSC_FALSE;
    }
    if (!bytes.empty() && !kzdv::mif::Decode(*d, bytes.data(), bytes.size(), rec, &error)) {
      kzdv::mif::FreeContents(*d, rec);
      emsc_HeapFree(rec);
      frame.Fail(__LINE__, L"Cannot decode %s of type %s in %s: %s", KZDV_W(file->PathOf(n)),
                 KZDV_W(std::string(n->type())), file->name.c_str(), KZDV_W(error));
      return EMSC_FALSE;
    }
  } catch (const std::bad_alloc&) {
    emsc_HeapFree(rec);
    frame.Fail(__LINE__, L"Out of memory");
    return EMSC_FALSE;
  }
  *object = rec;
  if (design) *design = kzdv::mif::HandleOf(file->dict.get(), d);
  return EMSC_TRUE;
}

// Reads into the caller's record of the caller's design.
Emsc_Boolean ReadInto(ErrorFrame& frame, Ehfa_File* file, Ehfa_SeekMethod method,
                      const Etxt_Char* path, const Etxt_Char* name, const Emif_Design* design,
                      void* record, bool missing_is_error) {
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(record, frame, EMSC_FALSE);
  const kzdv::mif::DesignImpl& to = *kzdv::mif::DesignOf(design);
  std::memset(record, 0, kzdv::mif::RecordSize(to));
  const Emif_Design* stored = nullptr;
  void* rec = nullptr;
  if (!ReadObject(frame, file, method, path, name, &stored, &rec, missing_is_error)) {
    return EMSC_FALSE;
  }
  std::string error;
  const kzdv::mif::DesignImpl& from = *kzdv::mif::DesignOf(stored);
  const bool ok = kzdv::mif::Convert(from, rec, to, record, &error);
  kzdv::mif::FreeContents(from, rec);
  emsc_HeapFree(rec);
  if (!ok) {
    frame.Fail(__LINE__, L"Cannot read %s as design %s: %s", KZDV_W(file->PathOf(file->current)),
               emif_DesignNameGet(design), KZDV_W(error));
    return EMSC_FALSE;
  }
  return EMSC_TRUE;
}

}  // namespace

Emsc_Boolean ehfa_ObjectReadInto(Ehfa_File* file, Ehfa_SeekMethod method, const Etxt_Char* path,
                                 const Etxt_Char* name, const Emif_Design* design, void* record,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectReadInto", err);
  return ReadInto(frame, file, method, path, name, design, record, true);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectReadIntoIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                          const Etxt_Char* path, const Etxt_Char* name,
                                          const Emif_Design* design, void* record,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectReadIntoIfPresent", err);
  return ReadInto(frame, file, method, path, name, design, record, false);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectRead(Ehfa_File* file, Ehfa_SeekMethod method, const Etxt_Char* path,
                             const Etxt_Char* name, const Emif_Design** design, void** object,
                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectRead", err);
  return ReadObject(frame, file, method, path, name, design, object, true);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectReadIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                      const Etxt_Char* path, const Etxt_Char* name,
                                      const Emif_Design** design, void** object,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectReadIfPresent", err);
  return ReadObject(frame, file, method, path, name, design, object, false);
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean ehfa_ObjectDataReadIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                          const Etxt_Char* path, const Etxt_Char* name,
                                          unsigned char** data, uint32_t* size, Etxt_Char** type,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_ObjectDataReadIfPresent", err);
  EERR_FAIL_IF_NULL(file, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(data, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(size, frame, EMSC_FALSE);
  *data = nullptr;
  *size = 0;
  if (type) *type = nullptr;
  if (DoSeek(frame, file, method, path, name, false) <= 0) return EMSC_FALSE;
  const Node* n = file->current;
  std::vector<uint8_t> bytes;
  std::string error;
  EERR_FAIL_IF(!file->ReadData(n, &bytes, &error), frame, EMSC_FALSE, L"Cannot read %s: %s",
               file->name.c_str(), KZDV_W(error));
  const kzdv::mif::DesignRef d = kzdv::mif::FindDesign(*file->dict, std::string(n->type()));
  if (d && !bytes.empty()) {
    EERR_FAIL_IF(!kzdv::mif::Rebase(*d, bytes.data(), bytes.size(), 0, &error), frame, EMSC_FALSE,
                 L"Cannot read %s in %s: %s", KZDV_W(file->PathOf(n)), file->name.c_str(),
                 KZDV_W(error));
  }
  kzdv::HeapPtr<unsigned char> out(
      static_cast<unsigned char*>(emsc_MemDup(bytes.data(), bytes.size())));
  EERR_FAIL_IF(!out, frame, EMSC_FALSE, L"Out of memory");
  if (type) {
    *type = etxt_Text_strdup(FromUtf8(std::string(n->type())).c_str());
    EERR_FAIL_IF(!*type, frame, EMSC_FALSE, L"Out of memory");
  }
  *size = static_cast<uint32_t>(bytes.size());
  *data = out.release();
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
