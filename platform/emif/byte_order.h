// Little-endian loads and stores for hierarchical files and packed objects,
// which are little-endian whatever the host. Wider scalars (floats, doubles,
// complex values) are copied as they lie in memory, which is their packed
// form on the little-endian hosts the library is built for.
#ifndef PLATFORM_EMIF_BYTE_ORDER_H_
#define PLATFORM_EMIF_BYTE_ORDER_H_

#include <cstdint>
#include <vector>

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "packed HFA scalars are copied from memory: a little-endian host is required"
#endif

namespace kzdv {
namespace mif {

inline uint16_t LoadLe16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | static_cast<unsigned>(p[1]) << 8);
}

inline uint32_t LoadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline void StoreLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

inline void StoreLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline void AppendLe16(std::vector<uint8_t>* out, uint16_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}

inline void AppendLe32(std::vector<uint8_t>* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

}  // namespace mif
}  // namespace kzdv

#endif  // PLATFORM_EMIF_BYTE_ORDER_H_
