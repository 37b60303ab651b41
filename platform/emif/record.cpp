// The lifetime of native records: freeing what a record points to and deep
// copies.
#include <cstring>

#include "emsc.h"
#include "platform/emif/codec_internal.h"

namespace kzdv {
namespace mif {

void FreeRecord(const DesignImpl& d, uint8_t* rec) {
  for (const Field& f : d.fields) {
    uint8_t* p = rec + f.offset;
    switch (f.shape) {
      case Shape::kSingle:
        FreeElements(f, p, 1);
        break;
      case Shape::kFixed:
        FreeElements(f, p, static_cast<size_t>(f.fixed_count));
        break;
      case Shape::kCounted: {
        const auto [count, data] = LoadBlock(f.shape, p);
        if (data && !f.IsString() && count > 0) {
          FreeElements(f, static_cast<uint8_t*>(data), static_cast<size_t>(count));
        }
        emsc_HeapFree(data);
        std::memset(p, 0, f.size);
        break;
      }
      case Shape::kPointer: {
        void* data;
        std::memcpy(&data, p, sizeof data);
        if (data) FreeElements(f, static_cast<uint8_t*>(data), 1);
        emsc_HeapFree(data);
        std::memset(p, 0, f.size);
        break;
      }
    }
  }
}

void FreeElements(const Field& f, uint8_t* data, size_t count) {
  if (f.IsObject()) {
    for (size_t i = 0; i < count; ++i) FreeRecord(*f.design, data + f.elem_size * i);
  } else if (f.base == EMIF_T_BASEDATA) {
    for (size_t i = 0; i < count; ++i) {
      Emif_BaseData* b = reinterpret_cast<Emif_BaseData*>(data + f.elem_size * i);
      emsc_HeapFree(b->data);
      b->data = nullptr;
      b->byte_count = 0;
    }
  }
}

bool CopyRecord(const DesignImpl& d, const uint8_t* src, uint8_t* dst, std::string* error) {
  for (const Field& f : d.fields) {
    const uint8_t* s = src + f.offset;
    uint8_t* t = dst + f.offset;
    switch (f.shape) {
      case Shape::kSingle:
      case Shape::kFixed:
        if (!CopyElements(f, s, t, static_cast<size_t>(f.fixed_count), error)) return false;
        break;
      case Shape::kCounted:
      case Shape::kPointer: {
        const auto [count, data] = LoadBlock(f.shape, s);
        if (!data || count <= 0) break;  // an empty field stays zero
        void* block = emsc_HeapCalloc(static_cast<size_t>(count), f.elem_size);
        if (!block) {
          *error = "Out of memory";
          return false;
        }
        StoreBlock(f.shape, t, count, block);
        if (!CopyElements(f, static_cast<const uint8_t*>(data), static_cast<uint8_t*>(block),
                          static_cast<size_t>(count), error)) {
          return false;
        }
        break;
      }
    }
  }
  return true;
}

bool CopyElements(const Field& f, const uint8_t* src, uint8_t* dst, size_t count,
                  std::string* error) {
  if (f.IsObject()) {
    for (size_t i = 0; i < count; ++i) {
      if (!CopyRecord(*f.design, src + f.elem_size * i, dst + f.elem_size * i, error)) {
        return false;
      }
    }
    return true;
  }
  if (f.base == EMIF_T_BASEDATA) {
    for (size_t i = 0; i < count; ++i) {
      const Emif_BaseData* s = reinterpret_cast<const Emif_BaseData*>(src + f.elem_size * i);
      Emif_BaseData* t = reinterpret_cast<Emif_BaseData*>(dst + f.elem_size * i);
      *t = *s;
      t->data = nullptr;
      t->byte_count = 0;
      if (s->data && s->byte_count > 0) {
        t->data =
            static_cast<unsigned char*>(emsc_MemDup(s->data, static_cast<size_t>(s->byte_count)));
        if (!t->data) {
          *error = "Out of memory";
          return false;
        }
        t->byte_count = s->byte_count;
      }
    }
    return true;
  }
  std::memcpy(dst, src, f.elem_size * count);
  return true;
}

void FreeContents(const DesignImpl& d, void* record) {
  if (record) FreeRecord(d, static_cast<uint8_t*>(record));
}

bool CopyContents(const DesignImpl& d, const void* source, void* target, std::string* error) {
  std::memset(target, 0, d.size);
  if (!CopyRecord(d, static_cast<const uint8_t*>(source), static_cast<uint8_t*>(target), error)) {
    FreeRecord(d, static_cast<uint8_t*>(target));
    return false;
  }
  return true;
}

}  // namespace mif
}  // namespace kzdv
