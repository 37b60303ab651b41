// The immutable design representation private to emif: fields with their
// native (LP64) record layout and their least packed size. Modules above
// emif hold designs through platform/emif/object_codec.h only.
#ifndef PLATFORM_EMIF_DESIGN_INTERNAL_H_
#define PLATFORM_EMIF_DESIGN_INTERNAL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emif.h"
#include "platform/emif/object_codec.h"

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

}  // namespace mif
}  // namespace kzdv

struct Emif_Design {
  kzdv::mif::DesignRef impl;
};

#endif  // PLATFORM_EMIF_DESIGN_INTERNAL_H_
