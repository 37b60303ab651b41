// The object codec as the modules above emif use it (ehfa, its copy
// machinery, the epho tool): designs held by reference, the codec between
// native records and packed little-endian bytes, the dictionary of an open
// file, and named access to the fields of a decoded record. The design
// layouts themselves stay inside emif.
//
// Errors are described in *error (UTF-8). Designs are immutable and shared;
// a record is a native object of its design (emif.h describes the layout).
#ifndef PLATFORM_EMIF_OBJECT_CODEC_H_
#define PLATFORM_EMIF_OBJECT_CODEC_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emif.h"

namespace kzdv {
namespace mif {

struct DesignImpl;
using DesignRef = std::shared_ptr<const DesignImpl>;

// ---- designs ----------------------------------------------------------------

const DesignRef& DesignOf(const Emif_Design* handle);
const std::string& DesignName(const DesignImpl& d);  // UTF-8
size_t RecordSize(const DesignImpl& d);              // bytes of the native record
size_t PackedMinimum(const DesignImpl& d);           // least packed bytes of one record

// Bytes of one native element of a field as emif_DesignFieldGet describes it:
// the stride of its fixed, counted or pointed values. 0 for an unknown code.
size_t ElementSize(const Emif_FieldInfo& field);

// ---- codec ------------------------------------------------------------------

// Packs `record`; the offsets of counted and pointed values count from
// `base_offset` (0: free-standing bytes, else the file position they go to).
bool Encode(const DesignImpl& d, const void* record, uint32_t base_offset,
            std::vector<uint8_t>* out, std::string* error);
// Unpacks into the zeroed `record`. On failure the record may hold some
// allocations: FreeContents releases them.
bool Decode(const DesignImpl& d, const uint8_t* bytes, size_t size, void* record,
            std::string* error);
// Frees what the record points to (not the record); zeroed fields are fine.
void FreeContents(const DesignImpl& d, void* record);
// Deep copy into `target` (overwritten); on failure nothing stays allocated.
bool CopyContents(const DesignImpl& d, const void* source, void* target, std::string* error);
// Fills `target` (a record of `to`, overwritten) from `source` (of `from`),
// field by field by name: missing fields stay zero, numbers convert between
// types, objects convert recursively, incompatible fields stay zero.
bool Convert(const DesignImpl& from, const void* source, const DesignImpl& to, void* target,
             std::string* error);
// Checks packed bytes against the design and rewrites the offsets of counted
// and pointed values so that they point at their inline data for bytes placed
// at `base_offset` (0: free-standing).
bool Rebase(const DesignImpl& d, uint8_t* bytes, size_t size, uint32_t base_offset,
            std::string* error);

// ---- the dictionary of a file ------------------------------------------------

struct DictionaryDeleter {
  void operator()(Emif_Dictionary* dictionary) const;
};
using DictionaryPtr = std::unique_ptr<Emif_Dictionary, DictionaryDeleter>;

// Null with *error on malformed text; designs that use unknown designs are
// left out (UnusableReason tells why). A new dictionary is unchanged.
DictionaryPtr ParseDictionary(const char* text, size_t length, std::string* error);
DesignRef FindDesign(const Emif_Dictionary& dictionary, const std::string& name);
// Why the text defined `name` but it could not be built; empty when unknown.
std::string UnusableReason(const Emif_Dictionary& dictionary, const std::string& name);
const std::vector<DesignRef>& Designs(const Emif_Dictionary& dictionary);
// Adds `d` and the designs it uses; marks the dictionary changed if it did.
void AddDesign(Emif_Dictionary* dictionary, const DesignRef& d);
// Whether the text changed since it was last written (SetChanged(false)).
bool Changed(const Emif_Dictionary& dictionary);
void SetChanged(Emif_Dictionary* dictionary, bool changed);
std::string DictionaryText(const Emif_Dictionary& dictionary);
// A handle of `d` owned by the dictionary (as emif_FindDesignByName's).
const Emif_Design* HandleOf(Emif_Dictionary* dictionary, const DesignRef& d);

// ---- fields of a decoded record, by name --------------------------------------

// A decoded record with its design, for callers that patch records before
// they are encoded again. Looks fields up by name; never owns the record.
class RecordView {
 public:
  RecordView(const DesignImpl& d, void* record) : design_(&d), record_(record) {}

  // Name of field `index`; null past the last field.
  const char* FieldName(size_t index) const;
  // A single 4-byte value (32-bit integer, enumeration, time; a float's
  // bits); false when the design has no such field of that name.
  bool GetU32(const char* name, uint32_t* value) const;
  bool SetU32(const char* name, uint32_t value);
  // The objects of a counted object field; false when there is no such field.
  bool Objects(const char* name, std::vector<RecordView>* items) const;
  // The text of a counted text field (null when empty); false when there is
  // no such field.
  bool GetText(const char* name, const Etxt_Char** text) const;
  // Replaces the text; false when there is no such field or out of memory.
  bool SetText(const char* name, const std::wstring& text);

 private:
  const DesignImpl* design_;
  void* record_;
};

// Frees what a decoded record owns (not the record itself) when the scope
// ends, so every early return of a reader leaves nothing behind.
class ContentsHolder {
 public:
  ContentsHolder(const Emif_Design* design, void* record) : design_(design), record_(record) {}
  ~ContentsHolder() { emif_ObjectContentsFree(design_, record_, nullptr); }
  ContentsHolder(const ContentsHolder&) = delete;
  ContentsHolder& operator=(const ContentsHolder&) = delete;

 private:
  const Emif_Design* design_;
  void* record_;
};

}  // namespace mif
}  // namespace kzdv

#endif  // PLATFORM_EMIF_OBJECT_CODEC_H_
