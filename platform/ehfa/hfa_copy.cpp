// Node-by-node copy of a hierarchical file, steered by a copy table.
//
// Image files hold data outside entry data: raster blocks (found through each
// "Edms_State" block table), layer dictionaries ("Ehfa_Layer"), column data of
// descriptor tables ("Edsc_Column"), and overview names that carry the file's
// own name ("Eimg_RRDNamesList"). A plain copy moves these too and rewrites
// the positions and names that point at them, so GDAL and other readers see
// the same image, georeferencing and overviews in the copy.
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <filesystem>

#include "platform/eerr/error_frame.h"
#include "platform/ehfa/hfa_internal.h"
#include "platform/estr/utf8.h"

using kzdv::ErrorFrame;
using kzdv::ToUtf8;
using namespace kzdv::hfa;
namespace mif = kzdv::mif;

namespace {

struct Closer {
  Ehfa_File* f = nullptr;
  ~Closer() {
    if (f) ehfa_FileClose(f, nullptr);
  }
};

// Moves `size` bytes at `from` in the source to the end of the target.
bool MoveBytes(Ehfa_File* src, Ehfa_File* dst, uint32_t from, uint32_t size, uint32_t* to,
               std::string* error) {
  if (static_cast<uint64_t>(from) + size > src->io.size()) {
    *error = std::to_string(size) + " bytes at offset " + std::to_string(from) +
             " lie beyond the end of the source";
    return false;
  }
  std::vector<uint8_t> buf(std::min<uint32_t>(size, 1u << 20));
  bool first = true;
  for (uint32_t done = 0; done < size;) {
    const uint32_t n = std::min<uint32_t>(size - done, static_cast<uint32_t>(buf.size()));
    uint32_t pos;
    if (!src->io.Read(from + done, n, buf.data(), error) ||
        !dst->io.Append(buf.data(), n, &pos, error)) {
      return false;
    }
    if (first) *to = pos;
    first = false;
    done += n;
  }
  if (size == 0) *to = 0;
  return true;
}

std::wstring BaseName(const std::wstring& path) {
  const size_t slash = path.find_last_of(L"/\\");
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

bool SameIgnoringCase(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::towlower(a[i]) != std::towlower(b[i])) return false;
  }
  return true;
}

// Rewrites what a record of a known image type points at outside itself.
// `rec` views a decoded record; returns false with *error on failure.
bool FixUp(Ehfa_File* src, Ehfa_File* dst, const Node* s, mif::RecordView rec, std::string* error) {
  if (s->type() == "Edms_State") {
    std::vector<mif::RecordView> blocks;
    if (!rec.Objects("blockinfo", &blocks)) return true;
    for (size_t i = 0; i < blocks.size(); ++i) {
      mif::RecordView& b = blocks[i];
      uint32_t offset = 0, size = 0, valid = 1;
      if (!b.GetU32("offset", &offset) || !b.GetU32("size", &size)) return true;
      b.GetU32("logvalid", &valid);
      if (size == 0 || offset == 0) continue;
      uint32_t to = 0;
      if (!MoveBytes(src, dst, offset, size, &to, error)) {
        if (!valid) {  // a block never written: keep its table entry as it is
          error->clear();
          continue;
        }
        *error = "raster block " + std::to_string(i) + " of " + src->PathOf(s) + ": " + *error;
        return false;
      }
      b.SetU32("offset", to);
    }
    return true;
  }
  if (s->type() == "Ehfa_Layer") {
    uint32_t ptr = 0;
    if (!rec.GetU32("dictionaryPtr", &ptr) || ptr == 0 || ptr >= src->io.size()) return true;
    // The layer's dictionary text, up to its terminating zero (at most 64 KiB).
    std::vector<char> text(static_cast<size_t>(std::min<uint64_t>(65536, src->io.size() - ptr)));
    if (!src->io.Read(ptr, text.size(), text.data(), error)) return false;
    const size_t len = strnlen(text.data(), text.size());
    uint32_t to;
    text.resize(len);
    text.push_back('\0');
    if (!dst->io.Append(text.data(), text.size(), &to, error)) return false;
    rec.SetU32("dictionaryPtr", to);
    return true;
  }
  if (s->type() == "Edsc_Column") {
    uint32_t ptr = 0, rows = 0, type = 0, chars = 0;
    if (!rec.GetU32("columnDataPtr", &ptr) || !rec.GetU32("numRows", &rows) ||
        !rec.GetU32("dataType", &type) || ptr == 0) {
      return true;
    }
    rec.GetU32("maxNumChars", &chars);
    const uint64_t item = type == 0 ? 4 : type == 1 ? 8 : type == 2 ? 16 : chars;
    const uint64_t size = item * rows;
    if (size > src->io.size()) {
      *error = "column data of " + src->PathOf(s) + " larger than the file";
      return false;
    }
    uint32_t to = 0;
    if (!MoveBytes(src, dst, ptr, static_cast<uint32_t>(size), &to, error)) return false;
    rec.SetU32("columnDataPtr", to);
    return true;
  }
  if (s->type() == "Eimg_RRDNamesList") {
    // Overview names read "file.img(:Layer_1:_ss_2_)"; names of the source
    // file itself become names of the copy. The name is the first field of
    // each list item.
    std::vector<mif::RecordView> list;
    if (!rec.Objects("nameList", &list)) return true;
    const std::wstring from = BaseName(src->name), to = BaseName(dst->name);
    for (mif::RecordView& item : list) {
      const char* field = item.FieldName(0);
      const Etxt_Char* text = nullptr;
      if (!field || !item.GetText(field, &text)) return true;
      if (!text) continue;
      const std::wstring name(text);
      const size_t paren = name.find(L"(:");
      if (paren == std::wstring::npos || !SameIgnoringCase(name.substr(0, paren), from)) continue;
      if (!item.SetText(field, to + name.substr(paren))) {
        *error = "Out of memory";
        return false;
      }
    }
  }
  return true;
}

bool NeedsFixUp(const std::string& type) {
  return type == "Edms_State" || type == "Ehfa_Layer" || type == "Edsc_Column" ||
         type == "Eimg_RRDNamesList";
}

// Copies the entry and data of `s` as they are into a new last child of `tp`.
Node* CopyNode(Ehfa_File* src, Ehfa_File* dst, const Node* s, Node* tp, std::string* error) {
  Node* t = dst->NewNode(s->name(), s->type());
  t->mtime = s->mtime;
  dst->LinkLast(tp, t);
  static const uint8_t kBlank[kEntryHeaderSize] = {};
  if (!dst->io.Append(kBlank, sizeof kBlank, &t->pos, error)) return nullptr;
  std::vector<uint8_t> bytes;
  if (!src->ReadData(s, &bytes, error)) return nullptr;
  if (bytes.empty()) return t;
  const std::string type(s->type());
  const mif::DesignRef d = mif::FindDesign(*src->dict, type);
  if (d && NeedsFixUp(type)) {
    std::vector<uint8_t> rec(mif::RecordSize(*d), 0);
    std::string why;
    if (mif::Decode(*d, bytes.data(), bytes.size(), rec.data(), &why)) {
      const bool ok = FixUp(src, dst, s, mif::RecordView(*d, rec.data()), error);
      std::vector<uint8_t> again;
      if (ok && !mif::Encode(*d, rec.data(), 0, &again, error)) {
        mif::FreeContents(*d, rec.data());
        return nullptr;
      }
      mif::FreeContents(*d, rec.data());
      if (!ok) return nullptr;
      bytes.swap(again);
    }
  }
  // Undecodable data are copied as they stand.
  std::vector<uint8_t> probe = bytes;
  std::string why;
  const bool known = d && mif::Rebase(*d, probe.data(), probe.size(), 0, &why);
  const uint32_t save = t->mtime;
  if (!dst->SetData(t, &bytes, known ? d.get() : nullptr, error)) return nullptr;
  t->mtime = save;
  return t;
}

const Ehfa_CEFRecord* FindInTable(const Ehfa_CEFRecord* table, const Ehfa_File* src,
                                  const Node* s) {
  if (!table) return nullptr;
  const std::string path = src->PathOf(s);
  for (const Ehfa_CEFRecord* r = table; r->name[0] != 0; ++r) {
    const std::wstring name(r->name, wcsnlen(r->name, 32));
    const std::string n8 = ToUtf8(name);
    if (n8[0] == ':') {
      if (n8 == path) return r;
    } else if (s->parent == src->root && n8 == s->name()) {
      return r;
    }
  }
  return nullptr;
}

}  // namespace

Emsc_Boolean ehfa_FileCopy(const Etxt_Char* source_name, const Etxt_Char* target_name,
                           const Ehfa_CEFRecord* table, Eint_InitToolkitData* init,
                           Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"ehfa_FileCopy", err);
  EERR_FAIL_IF_NULL(source_name, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(target_name, frame, EMSC_FALSE);
  // A copy that fails leaves no partial target behind.
  struct RemoveOnFailure {
    std::string path;
    bool armed = false;
    ~RemoveOnFailure() {
      if (armed) std::remove(path.c_str());
    }
  } cleanup{ToUtf8(target_name)};
  Closer src, dst;
  src.f = ehfa_FileOpen(source_name, "r", init, frame.Callee());
  EERR_CHECK(src.f, frame, EMSC_FALSE, L"ehfa_FileOpen failed");
  {
    std::error_code ec;
    EERR_FAIL_IF(std::filesystem::equivalent(ToUtf8(source_name), ToUtf8(target_name), ec), frame,
                 EMSC_FALSE, L"Cannot copy %s onto itself", source_name);
  }
  dst.f = ehfa_FileCreate(target_name, init, frame.Callee());
  EERR_CHECK(dst.f, frame, EMSC_FALSE, L"ehfa_FileCreate failed");
  cleanup.armed = true;
  Ehfa_File* s = src.f;
  Ehfa_File* t = dst.f;
  bool ok = true;
  std::wstring message;
  std::string error;
  try {
    // The target knows every design of the source.
    for (const auto& d : mif::Designs(*s->dict)) mif::AddDesign(t->dict.get(), d);
    mif::SetChanged(t->dict.get(), true);
    ++t->bulk_depth;
    // The walk holds source entries on its stack: none is released meanwhile.
    s->hold_families = true;
    std::vector<std::pair<Node*, Node*>> stack;  // (source node, target parent)
    for (Node* c = s->root->last; c; c = c->prev) stack.emplace_back(c, t->root);
    while (ok && !stack.empty()) {
      auto [sn, tp] = stack.back();
      stack.pop_back();
      Node* tn = nullptr;
      if (const Ehfa_CEFRecord* r = FindInTable(table, s, sn)) {
        if (!r->entryCopy && !r->dataCopy) continue;  // dropped with its children
        for (Ehfa_CopyFunction fn : {r->entryCopy, r->dataCopy}) {
          if (!fn) continue;
          s->current = sn;
          t->current = tp;
          Eerr_ErrorReport** callee = frame.Callee();
          fn(s, t, callee);
          if (frame.CalleeFailed()) {
            frame.Fail(__LINE__, L"The copy function of node %s failed", KZDV_W(s->PathOf(sn)));
            return EMSC_FALSE;
          }
        }
        if (!r->copyChildren) continue;
        tn = t->FindChild(tp, sn->name());
        if (!tn) {
          tn = t->NewNode(sn->name(), sn->type());
          t->LinkLast(tp, tn);
          static const uint8_t kBlank[kEntryHeaderSize] = {};
          if (!t->io.Append(kBlank, sizeof kBlank, &tn->pos, &error)) ok = false;
        }
      } else {
        tn = CopyNode(s, t, sn, tp, &error);
        if (!tn) ok = false;
      }
      if (ok && !s->EnsureChildren(sn)) {
        ok = false;
        error = s->family_error;
      }
      if (ok) {
        for (Node* c = sn->last; c; c = c->prev) stack.emplace_back(c, tn);
      }
    }
    if (t->bulk_depth > 0) --t->bulk_depth;  // a copy function may have ended it
    if (ok && !t->Flush(true, &error)) ok = false;
  } catch (const std::bad_alloc&) {
    ok = false;
    error = "Out of memory";
  }
  if (!ok) {
    frame.Fail(__LINE__, L"Cannot copy %s to %s: %s", source_name, target_name, KZDV_W(error));
    return EMSC_FALSE;
  }
  Ehfa_File* closing = dst.f;
  dst.f = nullptr;
  EERR_CHECK(ehfa_FileClose(closing, frame.Callee()), frame, EMSC_FALSE, L"ehfa_FileClose failed");
  cleanup.armed = false;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
