// Internals of the design machinery shared by emif and ehfa: the immutable
// design representation, its two layouts (native memory record and packed
// disk bytes), and the codec between them.
#ifndef PLATFORM_EMIF_EMIF_CODEC_H_
#define PLATFORM_EMIF_EMIF_CODEC_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "emif.h"

struct Emif_Design;

namespace kzdv {
namespace mif {

// How a field holds its values.
enum class Shape {
  kSingle,   // one value in place
  kFixed,    // n values in place
  kCounted,  // {int32 count; T* data}
  kPointer,  // T* (null or one value)
};

struct DesignImpl;
using DesignRef = std::shared_ptr<const DesignImpl>;

struct Field {
  std::string name;  // UTF-8
  std::wstring wname;
  int code = 0;  // as given
  int base = 0;  // low byte of the code
  Shape shape = Shape::kSingle;
  int fixed_count = 1;
  std::vector<std::string> enum_names;
  std::vector<std::wstring> wenum_names;
  std::vector<const Etxt_Char*> wenum_ptrs;   // closed by a null
  DesignRef design;                           // object fields
  std::shared_ptr<const Emif_Design> handle;  // of `design`, for emif_DesignFieldGet
  size_t offset = 0;                          // memory record
  size_t size = 0;
  size_t align = 1;
  size_t elem_size = 0;  // memory size of one element
  size_t elem_align = 1;
  size_t disk_min = 0;  // least packed size of the whole field

  bool IsObject() const { return base == EMIF_T_OBJECT || base == EMIF_T_OBJECT_PTR; }
  bool IsString() const { return base == EMIF_T_CHAR && shape == Shape::kCounted; }
};

struct DesignImpl {
  std::string name;  // UTF-8
  std::wstring wname;
  std::vector<Field> fields;
  size_t size = 0;  // memory record
  size_t align = 1;
  size_t disk_min = 0;  // least packed size of one record
  std::string text;     // "{...}Name,"
};

// Builds a design: checks the fields, computes both layouts and the text.
// Returns null and sets *error on a bad field.
DesignRef BuildDesign(const std::string& name, std::vector<Field> fields, std::string* error);

// Size in bytes of one disk element of a scalar base type; 0 for objects and
// base data (variable).
size_t DiskScalarSize(int base);
char DiskTypeChar(int base);

// Codec. Errors are described in *error (UTF-8); on failure no memory is
// left allocated (the partly built record is freed by the caller through
// FreeContents, which handles zeroed fields).
bool Encode(const DesignImpl& d, const void* record, uint32_t base_offset,
            std::vector<uint8_t>* out, std::string* error);
bool Decode(const DesignImpl& d, const uint8_t* bytes, size_t size, void* record,
            std::string* error);
void FreeContents(const DesignImpl& d, void* record);
bool CopyContents(const DesignImpl& d, const void* source, void* target, std::string* error);
// Fills `target` (a record of `to`) from `source` (of `from`), field by
// field by name: missing fields stay zero, numbers convert between types,
// objects convert recursively, incompatible fields stay zero.
bool Convert(const DesignImpl& from, const void* source, const DesignImpl& to, void* target,
             std::string* error);
// Rewrites the offsets of pointer fields in packed bytes so that they point
// at their inline data for bytes placed at `base_offset` (0: free-standing).
bool Rebase(const DesignImpl& d, uint8_t* bytes, size_t size, uint32_t base_offset,
            std::string* error);

// A dictionary: designs by name in definition order.
class Dictionary {
 public:
  // Adds `d` and the designs it uses (those first). Replaces a different
  // design of the same name. Returns true if anything changed.
  bool Add(const DesignRef& d);
  DesignRef Find(const std::string& name) const;
  const std::vector<DesignRef>& designs() const { return order_; }
  // Why a design read from text could not be built (e.g. an unknown design
  // used by one of its fields); empty when none is known.
  std::string Unusable(const std::string& name) const;
  std::string Text() const;
  // Parses dictionary text; false with *error on malformed text. Designs that
  // use unknown designs are left out and remembered as unusable.
  static bool Parse(const char* text, size_t length, Dictionary* out, std::string* error);

 private:
  std::vector<DesignRef> order_;
  std::unordered_map<std::string, size_t> index_;
  std::map<std::string, std::string> unusable_;
};

}  // namespace mif
}  // namespace kzdv

struct Emif_Design {
  kzdv::mif::DesignRef impl;
};

struct Emif_Dictionary {
  kzdv::mif::Dictionary dict;
  std::vector<std::unique_ptr<Emif_Design>> handles;  // borrowed handles handed out
  std::unordered_map<const kzdv::mif::DesignImpl*, Emif_Design*> handle_of;
  bool changed = false;
  const Emif_Design* Handle(const kzdv::mif::DesignRef& d);
};

#endif  // PLATFORM_EMIF_EMIF_CODEC_H_
