// The object-codec interface of emif: design facts, the dictionary of an open
// file, and named field access on decoded records, over the internals.
#include "platform/emif/object_codec.h"

#include <cstring>

#include "emsc.h"
#include "etxt.h"
#include "platform/emif/codec_internal.h"
#include "platform/emif/dictionary_internal.h"

namespace kzdv {
namespace mif {

const DesignRef& DesignOf(const Emif_Design* handle) { return handle->impl; }
const std::string& DesignName(const DesignImpl& d) { return d.name; }
size_t RecordSize(const DesignImpl& d) { return d.size; }
size_t PackedMinimum(const DesignImpl& d) { return d.disk_min; }

// ---- the dictionary of a file ------------------------------------------------

void DictionaryDeleter::operator()(Emif_Dictionary* dictionary) const { delete dictionary; }

DictionaryPtr ParseDictionary(const char* text, size_t length, std::string* error) {
  DictionaryPtr d(new Emif_Dictionary);
  if (!Dictionary::Parse(text, length, &d->dict, error)) return nullptr;
  return d;
}

DesignRef FindDesign(const Emif_Dictionary& dictionary, const std::string& name) {
  return dictionary.dict.Find(name);
}

std::string UnusableReason(const Emif_Dictionary& dictionary, const std::string& name) {
  return dictionary.dict.Unusable(name);
}

const std::vector<DesignRef>& Designs(const Emif_Dictionary& dictionary) {
  return dictionary.dict.designs();
}

void AddDesign(Emif_Dictionary* dictionary, const DesignRef& d) {
  if (dictionary->dict.Add(d)) dictionary->changed = true;
}

bool Changed(const Emif_Dictionary& dictionary) { return dictionary.changed; }
void SetChanged(Emif_Dictionary* dictionary, bool changed) { dictionary->changed = changed; }
std::string DictionaryText(const Emif_Dictionary& dictionary) { return dictionary.dict.Text(); }

const Emif_Design* HandleOf(Emif_Dictionary* dictionary, const DesignRef& d) {
  return dictionary->Handle(d);
}

// ---- fields of a decoded record ----------------------------------------------

namespace {

const Field* Named(const DesignImpl& d, const char* name) {
  for (const Field& f : d.fields) {
    if (f.name == name) return &f;
  }
  return nullptr;
}

const Field* TextField(const DesignImpl& d, const char* name) {
  const Field* f = Named(d, name);
  return f && f->IsString() ? f : nullptr;
}

}  // namespace

const char* RecordView::FieldName(size_t index) const {
  return index < design_->fields.size() ? design_->fields[index].name.c_str() : nullptr;
}

bool RecordView::GetU32(const char* name, uint32_t* value) const {
  const Field* f = Named(*design_, name);
  if (!f || f->shape != Shape::kSingle || f->elem_size != 4) return false;
  std::memcpy(value, static_cast<const uint8_t*>(record_) + f->offset, 4);
  return true;
}

bool RecordView::SetU32(const char* name, uint32_t value) {
  const Field* f = Named(*design_, name);
  if (!f || f->shape != Shape::kSingle || f->elem_size != 4) return false;
  std::memcpy(static_cast<uint8_t*>(record_) + f->offset, &value, 4);
  return true;
}

bool RecordView::Objects(const char* name, std::vector<RecordView>* items) const {
  items->clear();
  const Field* f = Named(*design_, name);
  if (!f || f->shape != Shape::kCounted || !f->design) return false;
  const NativeBlock b = LoadBlock(f->shape, static_cast<const uint8_t*>(record_) + f->offset);
  uint8_t* data = static_cast<uint8_t*>(b.data);
  for (int32_t i = 0; data && i < b.count; ++i) {
    items->emplace_back(*f->design, data + f->elem_size * static_cast<size_t>(i));
  }
  return true;
}

bool RecordView::GetText(const char* name, const Etxt_Char** text) const {
  const Field* f = TextField(*design_, name);
  if (!f) return false;
  Emif_CountedString s;
  std::memcpy(&s, static_cast<const uint8_t*>(record_) + f->offset, sizeof s);
  *text = s.data;
  return true;
}

bool RecordView::SetText(const char* name, const std::wstring& text) {
  const Field* f = TextField(*design_, name);
  if (!f) return false;
  Etxt_Char* t = etxt_Text_strdup(text.c_str());
  if (!t) return false;
  uint8_t* slot = static_cast<uint8_t*>(record_) + f->offset;
  Emif_CountedString s;
  std::memcpy(&s, slot, sizeof s);
  emsc_HeapFree(s.data);
  s.data = t;
  s.count = static_cast<int32_t>(text.size() + 1);
  std::memcpy(slot, &s, sizeof s);
  return true;
}

}  // namespace mif
}  // namespace kzdv
