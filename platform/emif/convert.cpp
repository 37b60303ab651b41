// Conversion of records between designs, field by field by name (reading an
// object stored under an older layout into the current one).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "emsc.h"
#include "platform/emif/codec_internal.h"

namespace kzdv {
namespace mif {

namespace {

bool IsNumeric(const Field& f) {
  switch (f.base) {
    case EMIF_T_ENUM:
    case EMIF_T_TIME:
    case EMIF_T_UCHAR:
    case EMIF_T_USHORT:
    case EMIF_T_SHORT:
    case EMIF_T_ULONG:
    case EMIF_T_LONG:
    case EMIF_T_FLOAT:
    case EMIF_T_DOUBLE:
      return true;
    case EMIF_T_CHAR:
      return f.shape != Shape::kCounted;
    default:
      return false;
  }
}

double ReadNumber(const Field& f, const uint8_t* p) {
  switch (f.base) {
    case EMIF_T_ENUM:
    case EMIF_T_LONG: {
      int32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
    case EMIF_T_TIME:
    case EMIF_T_ULONG: {
      uint32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
    case EMIF_T_SHORT: {
      int16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    case EMIF_T_USHORT: {
      uint16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    case EMIF_T_UCHAR:
      return *p;
    case EMIF_T_CHAR:
      return static_cast<signed char>(*p);
    case EMIF_T_FLOAT: {
      float v;
      std::memcpy(&v, p, 4);
      return v;
    }
    default: {
      double v;
      std::memcpy(&v, p, 8);
      return v;
    }
  }
}

template <typename T>
void PutInteger(uint8_t* p, double v) {
  const double lo = static_cast<double>(std::numeric_limits<T>::min());
  const double hi = static_cast<double>(std::numeric_limits<T>::max());
  v = std::nearbyint(v);
  const T x = static_cast<T>(v != v ? 0 : v < lo ? lo : v > hi ? hi : v);
  std::memcpy(p, &x, sizeof x);
}

void WriteNumber(const Field& f, uint8_t* p, double v) {
  switch (f.base) {
    case EMIF_T_ENUM:
    case EMIF_T_LONG:
      return PutInteger<int32_t>(p, v);
    case EMIF_T_TIME:
    case EMIF_T_ULONG:
      return PutInteger<uint32_t>(p, v);
    case EMIF_T_SHORT:
      return PutInteger<int16_t>(p, v);
    case EMIF_T_USHORT:
      return PutInteger<uint16_t>(p, v);
    case EMIF_T_UCHAR:
      return PutInteger<uint8_t>(p, v);
    case EMIF_T_CHAR:
      return PutInteger<int8_t>(p, v);
    case EMIF_T_FLOAT: {
      const float x = static_cast<float>(v);
      std::memcpy(p, &x, 4);
      return;
    }
    default:
      std::memcpy(p, &v, 8);
  }
}

bool ConvertRecord(const DesignImpl& a, const uint8_t* s, const DesignImpl& b, uint8_t* t,
                   std::string* error, int depth);

// One element of field `a` into one of field `b`; incompatible kinds stay zero.
bool ConvertElement(const Field& a, const uint8_t* s, const Field& b, uint8_t* t,
                    std::string* error, int depth) {
  if (a.IsObject() && b.IsObject()) return ConvertRecord(*a.design, s, *b.design, t, error, depth);
  if (a.base == b.base && a.elem_size == b.elem_size) return CopyElements(a, s, t, 1, error);
  if (IsNumeric(a) && IsNumeric(b)) WriteNumber(b, t, ReadNumber(a, s));
  return true;
}

bool ConvertField(const Field& a, const uint8_t* s, const Field& b, uint8_t* t, std::string* error,
                  int depth) {
  // The source as (count, elements).
  int32_t count = a.fixed_count;
  const uint8_t* data = s;
  if (a.shape == Shape::kCounted || a.shape == Shape::kPointer) {
    const NativeBlock block = LoadBlock(a.shape, s);
    data = static_cast<const uint8_t*>(block.data);
    count = block.data ? block.count : 0;
  }
  if (!data || count <= 0) return true;
  if (b.shape == Shape::kSingle || b.shape == Shape::kFixed) {
    const int32_t n = std::min(count, b.fixed_count);
    for (int32_t i = 0; i < n; ++i) {
      if (!ConvertElement(a, data + a.elem_size * static_cast<size_t>(i), b,
                          t + b.elem_size * static_cast<size_t>(i), error, depth)) {
        return false;
      }
    }
    return true;
  }
  if (b.shape == Shape::kPointer) count = 1;
  void* block = emsc_HeapCalloc(static_cast<size_t>(count), b.elem_size);
  if (!block) {
    *error = "Out of memory";
    return false;
  }
  StoreBlock(b.shape, t, count, block);
  for (int32_t i = 0; i < count; ++i) {
    if (!ConvertElement(a, data + a.elem_size * static_cast<size_t>(i), b,
                        static_cast<uint8_t*>(block) + b.elem_size * static_cast<size_t>(i), error,
                        depth)) {
      return false;
    }
  }
  return true;
}

bool ConvertRecord(const DesignImpl& a, const uint8_t* s, const DesignImpl& b, uint8_t* t,
                   std::string* error, int depth) {
  if (&a == &b) return CopyRecord(a, s, t, error);
  if (depth > kMaxNesting) {
    *error = "objects nested too deeply";
    return false;
  }
  for (const Field& fb : b.fields) {
    for (const Field& fa : a.fields) {
      if (fa.name != fb.name) continue;
      if (!ConvertField(fa, s + fa.offset, fb, t + fb.offset, error, depth + 1)) return false;
      break;
    }
  }
  return true;
}

}  // namespace

bool Convert(const DesignImpl& from, const void* source, const DesignImpl& to, void* target,
             std::string* error) {
  std::memset(target, 0, to.size);
  if (!ConvertRecord(from, static_cast<const uint8_t*>(source), to, static_cast<uint8_t*>(target),
                     error, 0)) {
    FreeRecord(to, static_cast<uint8_t*>(target));
    return false;
  }
  return true;
}

}  // namespace mif
}  // namespace kzdv
