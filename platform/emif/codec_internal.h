// What the codec's parts (encode, decode, record lifetime, conversion) share:
// the native slot of counted and pointed fields, base data sizes, the nesting
// limit, and the record walks the conversion reuses.
#ifndef PLATFORM_EMIF_CODEC_INTERNAL_H_
#define PLATFORM_EMIF_CODEC_INTERNAL_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/emif/design_internal.h"

namespace kzdv {
namespace mif {

// Objects nest at most this deep (in designs read from damaged text a
// design can reach itself).
constexpr int kMaxNesting = 64;

// The native slot of a counted field is {int32 count; T* data}; that of a
// pointer field is the bare pointer (one element). These read and store the
// slot for either shape.
struct NativeBlock {
  int32_t count;
  void* data;
};

inline NativeBlock LoadBlock(Shape shape, const uint8_t* slot) {
  NativeBlock b{1, nullptr};
  if (shape == Shape::kCounted) {
    std::memcpy(&b.count, slot, sizeof b.count);
    std::memcpy(&b.data, slot + offsetof(Emif_CountedObjects, data), sizeof b.data);
  } else {
    std::memcpy(&b.data, slot, sizeof b.data);
  }
  return b;
}

inline void StoreBlock(Shape shape, uint8_t* slot, int32_t count, void* data) {
  if (shape == Shape::kCounted) {
    std::memcpy(slot, &count, sizeof count);
    std::memcpy(slot + offsetof(Emif_CountedObjects, data), &data, sizeof data);
  } else {
    std::memcpy(slot, &data, sizeof data);
  }
}

// Bits per value of a base-data pixel type (0 u1 .. 12 c128), 0 if unknown.
inline int BaseDataBits(int type) {
  static const int kBits[] = {1, 2, 4, 8, 8, 16, 16, 32, 32, 32, 64, 64, 128};
  return type >= 0 && type < 13 ? kBits[type] : 0;
}

inline std::string Where(const Field& f) { return "field " + f.name; }

// Record lifetime (record.cpp). FreeRecord frees what the record points to
// and zeroes those slots; FreeElements frees what elements in place point to
// (not the elements). CopyRecord fills the zeroed `dst`; on failure it may
// hold some copied blocks, which FreeRecord releases.
void FreeRecord(const DesignImpl& d, uint8_t* rec);
void FreeElements(const Field& f, uint8_t* data, size_t count);
bool CopyRecord(const DesignImpl& d, const uint8_t* src, uint8_t* dst, std::string* error);
bool CopyElements(const Field& f, const uint8_t* src, uint8_t* dst, size_t count,
                  std::string* error);

}  // namespace mif
}  // namespace kzdv

#endif  // PLATFORM_EMIF_CODEC_INTERNAL_H_
