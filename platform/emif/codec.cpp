// Between native records and packed little-endian bytes.
//
// Packed form: fields in order, no padding; single and fixed values in
// place; counted and pointed values as a uint32 count and a uint32 offset
// followed at once by their elements (the offset repeats where they start).
// Readers trust the order, not the offset, which is what other HFA readers do
// too; writers keep both consistent.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <cwchar>
#include <limits>

#include "emsc.h"
#include "etxt.h"
#include "platform/emif/emif_codec.h"

namespace kzdv {
namespace mif {

namespace {

inline void Put16(std::vector<uint8_t>* o, uint32_t v) {
  o->push_back(static_cast<uint8_t>(v));
  o->push_back(static_cast<uint8_t>(v >> 8));
}
inline void Put32(std::vector<uint8_t>* o, uint32_t v) {
  for (int i = 0; i < 4; ++i) o->push_back(static_cast<uint8_t>(v >> (8 * i)));
}
inline void Set32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint32_t Get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

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
int BaseDataBits(int type) {
  static const int kBits[] = {1, 2, 4, 8, 8, 16, 16, 32, 32, 32, 64, 64, 128};
  return type >= 0 && type < 13 ? kBits[type] : 0;
}

std::string Where(const Field& f) { return "field " + f.name; }

// ---- encoding ----------------------------------------------------------

class Encoder {
 public:
  Encoder(std::vector<uint8_t>* out, uint32_t base, std::string* error)
      : out_(out), base_(base), error_(error) {}

  bool Record(const DesignImpl& d, const uint8_t* rec) {
    for (const Field& f : d.fields) {
      if (!FieldValue(f, rec + f.offset)) return false;
    }
    return true;
  }

 private:
  bool FieldValue(const Field& f, const uint8_t* p) {
    switch (f.shape) {
      case Shape::kSingle:
        return Element(f, p);
      case Shape::kFixed:
        for (int i = 0; i < f.fixed_count; ++i) {
          if (!Element(f, p + f.elem_size * static_cast<size_t>(i))) return false;
        }
        return true;
      case Shape::kCounted: {
        const auto [count, data] = LoadBlock(f.shape, p);
        if (count < 0) return Fail("negative count in " + Where(f));
        if (count > 0 && !data) return Fail("count without data in " + Where(f));
        if (f.IsString()) return String(static_cast<const Etxt_Char*>(data), count);
        return Elements(f, static_cast<const uint8_t*>(data), count);
      }
      case Shape::kPointer: {
        void* data;
        std::memcpy(&data, p, sizeof data);
        return Elements(f, static_cast<const uint8_t*>(data), data ? 1 : 0);
      }
    }
    return false;
  }

  // Count/offset pair, then the elements.
  bool Elements(const Field& f, const uint8_t* data, int32_t count) {
    Put32(out_, static_cast<uint32_t>(count));
    const size_t at = out_->size();
    Put32(out_, 0);
    if (count == 0) return true;
    Set32(out_->data() + at, base_ + static_cast<uint32_t>(out_->size()));
    for (int32_t i = 0; i < count; ++i) {
      if (!Element(f, data + f.elem_size * static_cast<size_t>(i))) return false;
    }
    return true;
  }

  bool String(const Etxt_Char* s, int32_t count) {
    if (count == 0 || !s) {
      Put32(out_, 0);
      Put32(out_, 0);
      return true;
    }
    size_t n = 0;
    while (n + 1 < static_cast<size_t>(count) && s[n] != 0) ++n;
    const std::string u = ToUtf8(std::wstring(s, n));
    Put32(out_, static_cast<uint32_t>(u.size() + 1));
    Put32(out_, base_ + static_cast<uint32_t>(out_->size()) + 4);
    out_->insert(out_->end(), u.begin(), u.end());
    out_->push_back(0);
    return true;
  }

  bool Element(const Field& f, const uint8_t* p) {
    switch (f.base) {
      case EMIF_T_OBJECT:
      case EMIF_T_OBJECT_PTR:
        if (++depth_ > 64) return Fail("objects nested too deeply");
        if (!Record(*f.design, p)) return false;
        --depth_;
        return true;
      case EMIF_T_ENUM: {
        int32_t v;
        std::memcpy(&v, p, 4);
        if (v < 0 || v > 0xffff) {
          return Fail("value " + std::to_string(v) + " of enumeration " + f.name + " out of range");
        }
        Put16(out_, static_cast<uint32_t>(v));
        return true;
      }
      case EMIF_T_BASEDATA: {
        Emif_BaseData b;
        std::memcpy(&b, p, sizeof b);
        const int bits = BaseDataBits(b.data_type);
        if (bits == 0 || b.rows < 0 || b.columns < 0) return Fail("bad base data in " + Where(f));
        const uint64_t bytes = (static_cast<uint64_t>(b.rows) * static_cast<uint64_t>(b.columns) *
                                    static_cast<uint64_t>(bits) +
                                7) /
                               8;
        if (bytes != static_cast<uint64_t>(b.byte_count < 0 ? 0 : b.byte_count) ||
            (bytes > 0 && !b.data)) {
          return Fail("base data size does not match its shape in " + Where(f));
        }
        Put32(out_, static_cast<uint32_t>(b.rows));
        Put32(out_, static_cast<uint32_t>(b.columns));
        Put16(out_, static_cast<uint32_t>(b.data_type));
        Put16(out_, static_cast<uint32_t>(b.object_type));
        out_->insert(out_->end(), b.data, b.data + bytes);
        return true;
      }
      case EMIF_T_CHAR:
        if (f.shape == Shape::kCounted) {  // one wide character of a counted text
          Etxt_Char c;
          std::memcpy(&c, p, sizeof c);
          out_->push_back(static_cast<uint8_t>(c));
          return true;
        }
        out_->push_back(*p);
        return true;
      default: {
        // Scalars: native little-endian bytes of the disk size.
        const size_t n = DiskScalarSize(f.base);
        out_->insert(out_->end(), p, p + n);
        return true;
      }
    }
  }

  bool Fail(const std::string& m) {
    *error_ = m;
    return false;
  }

  std::vector<uint8_t>* out_;
  uint32_t base_;
  std::string* error_;
  int depth_ = 0;
};

// ---- decoding ----------------------------------------------------------

class Decoder {
 public:
  Decoder(const uint8_t* bytes, size_t size, std::string* error)
      : p_(bytes), n_(size), error_(error) {}

  bool Record(const DesignImpl& d, uint8_t* rec) {
    for (const Field& f : d.fields) {
      if (!FieldValue(f, rec + f.offset)) return false;
    }
    return true;
  }

  size_t position() const { return pos_; }

 private:
  bool Need(size_t k, const Field& f) {
    if (n_ - pos_ < k) {
      *error_ = "data end inside " + Where(f) + " (at byte " + std::to_string(pos_) + " of " +
                std::to_string(n_) + ")";
      return false;
    }
    return true;
  }

  bool FieldValue(const Field& f, uint8_t* p) {
    switch (f.shape) {
      case Shape::kSingle:
        return Element(f, p);
      case Shape::kFixed:
        for (int i = 0; i < f.fixed_count; ++i) {
          if (!Element(f, p + f.elem_size * static_cast<size_t>(i))) return false;
        }
        return true;
      case Shape::kCounted:
      case Shape::kPointer: {
        if (!Need(8, f)) return false;
        const uint32_t count = Get32(p_ + pos_);
        pos_ += 8;  // the offset is not trusted; data follow inline
        if (count == 0) return true;
        if (f.shape == Shape::kPointer && count != 1) {
          *error_ = "pointer " + Where(f) + " holds " + std::to_string(count) + " values";
          return false;
        }
        const size_t least =
            std::max<size_t>(1, f.IsObject()                ? f.design->disk_min
                                : f.base == EMIF_T_BASEDATA ? 12
                                                            : DiskScalarSize(f.base));
        if (count > 0x7fffffffu || static_cast<uint64_t>(count) * least > n_ - pos_) {
          *error_ = "count " + std::to_string(count) + " of " + Where(f) + " exceeds the data (" +
                    std::to_string(n_ - pos_) + " bytes left)";
          return false;
        }
        if (f.IsString()) return String(f, p, count);
        void* block = emsc_HeapCalloc(count, f.elem_size);
        if (!block) {
          *error_ = "Out of memory";
          return false;
        }
        StoreBlock(f.shape, p, static_cast<int32_t>(count), block);
        uint8_t* data = static_cast<uint8_t*>(block);
        for (uint32_t i = 0; i < count; ++i) {
          if (!Element(f, data + f.elem_size * i)) return false;
        }
        return true;
      }
    }
    return false;
  }

  bool String(const Field& f, uint8_t* p, uint32_t count) {
    if (!Need(count, f)) return false;
    const char* s = reinterpret_cast<const char*>(p_ + pos_);
    const size_t len = strnlen(s, count);
    const std::wstring w = FromUtf8(std::string(s, len));
    pos_ += count;
    Etxt_Char* text = static_cast<Etxt_Char*>(emsc_HeapMalloc((w.size() + 1) * sizeof(Etxt_Char)));
    if (!text) {
      *error_ = "Out of memory";
      return false;
    }
    std::wmemcpy(text, w.c_str(), w.size() + 1);
    const int32_t c = static_cast<int32_t>(w.size() + 1);
    std::memcpy(p, &c, sizeof c);
    std::memcpy(p + offsetof(Emif_CountedString, data), &text, sizeof text);
    return true;
  }

  bool Element(const Field& f, uint8_t* p) {
    switch (f.base) {
      case EMIF_T_OBJECT:
      case EMIF_T_OBJECT_PTR:
        if (++depth_ > 64) {
          *error_ = "objects nested too deeply";
          return false;
        }
        if (!Record(*f.design, p)) return false;
        --depth_;
        return true;
      case EMIF_T_ENUM: {
        if (!Need(2, f)) return false;
        const int32_t v = Get16(p_ + pos_);
        pos_ += 2;
        std::memcpy(p, &v, 4);
        return true;
      }
      case EMIF_T_BASEDATA: {
        if (!Need(12, f)) return false;
        Emif_BaseData b{};
        b.rows = static_cast<int32_t>(Get32(p_ + pos_));
        b.columns = static_cast<int32_t>(Get32(p_ + pos_ + 4));
        b.data_type = Get16(p_ + pos_ + 8);
        b.object_type = Get16(p_ + pos_ + 10);
        pos_ += 12;
        const int bits = BaseDataBits(b.data_type);
        if (bits == 0 || b.rows < 0 || b.columns < 0) {
          *error_ = "bad base data header in " + Where(f);
          return false;
        }
        const uint64_t bytes = (static_cast<uint64_t>(b.rows) * static_cast<uint64_t>(b.columns) *
                                    static_cast<uint64_t>(bits) +
                                7) /
                               8;
        if (bytes > n_ - pos_) {
          *error_ = "base data of " + Where(f) + " exceeds the data";
          return false;
        }
        if (bytes > 0) {
          b.data = static_cast<unsigned char*>(emsc_MemDup(p_ + pos_, bytes));
          if (!b.data) {
            *error_ = "Out of memory";
            return false;
          }
        }
        b.byte_count = static_cast<int32_t>(bytes);
        pos_ += bytes;
        std::memcpy(p, &b, sizeof b);
        return true;
      }
      case EMIF_T_CHAR:
        if (!Need(1, f)) return false;
        if (f.shape == Shape::kCounted) {
          const Etxt_Char c = p_[pos_];
          std::memcpy(p, &c, sizeof c);
        } else {
          *p = p_[pos_];
        }
        ++pos_;
        return true;
      default: {
        const size_t k = DiskScalarSize(f.base);
        if (!Need(k, f)) return false;
        std::memcpy(p, p_ + pos_, k);
        pos_ += k;
        return true;
      }
    }
  }

  const uint8_t* p_;
  size_t n_;
  size_t pos_ = 0;
  std::string* error_;
  int depth_ = 0;
};

// ---- walking packed bytes (rebasing offsets) ---------------------------

class Rebaser {
 public:
  Rebaser(uint8_t* bytes, size_t size, uint32_t base, std::string* error)
      : p_(bytes), n_(size), base_(base), error_(error) {}

  bool Record(const DesignImpl& d) {
    for (const Field& f : d.fields) {
      if (!FieldValue(f)) return false;
    }
    return true;
  }

 private:
  bool Need(size_t k, const Field& f) {
    if (n_ - pos_ < k) {
      *error_ = "data end inside " + Where(f);
      return false;
    }
    return true;
  }
  bool FieldValue(const Field& f) {
    switch (f.shape) {
      case Shape::kSingle:
        return Element(f);
      case Shape::kFixed:
        for (int i = 0; i < f.fixed_count; ++i) {
          if (!Element(f)) return false;
        }
        return true;
      default: {
        if (!Need(8, f)) return false;
        const uint32_t count = Get32(p_ + pos_);
        Set32(p_ + pos_ + 4, count ? base_ + static_cast<uint32_t>(pos_ + 8) : 0);
        pos_ += 8;
        if (f.IsString() || (!f.IsObject() && f.base != EMIF_T_BASEDATA)) {
          const uint64_t k = static_cast<uint64_t>(count) * DiskScalarSize(f.base);
          if (k > n_ - pos_) {
            *error_ = "count of " + Where(f) + " exceeds the data";
            return false;
          }
          pos_ += k;
          return true;
        }
        if (static_cast<uint64_t>(count) > n_ - pos_ + 1) {
          *error_ = "count of " + Where(f) + " exceeds the data";
          return false;
        }
        for (uint32_t i = 0; i < count; ++i) {
          if (!Element(f)) return false;
        }
        return true;
      }
    }
  }
  bool Element(const Field& f) {
    if (f.IsObject()) {
      if (++depth_ > 64) {
        *error_ = "objects nested too deeply";
        return false;
      }
      if (!Record(*f.design)) return false;
      --depth_;
      return true;
    }
    if (f.base == EMIF_T_BASEDATA) {
      if (!Need(12, f)) return false;
      const uint64_t rows = Get32(p_ + pos_), cols = Get32(p_ + pos_ + 4);
      const int bits = BaseDataBits(Get16(p_ + pos_ + 8));
      pos_ += 12;
      const uint64_t bytes = (rows * cols * static_cast<uint64_t>(bits) + 7) / 8;
      if (bits == 0 || rows > 0x7fffffff || cols > 0x7fffffff || bytes > n_ - pos_) {
        *error_ = "bad base data in " + Where(f);
        return false;
      }
      pos_ += bytes;
      return true;
    }
    const size_t k = DiskScalarSize(f.base);
    if (!Need(k, f)) return false;
    pos_ += k;
    return true;
  }

  uint8_t* p_;
  size_t n_;
  size_t pos_ = 0;
  uint32_t base_;
  std::string* error_;
  int depth_ = 0;
};

void FreeElements(const Field& f, uint8_t* data, size_t count);

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

// Frees what elements in place point to (not the elements themselves).
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

bool CopyElements(const Field& f, const uint8_t* src, uint8_t* dst, size_t count,
                  std::string* error);

// `dst` is zeroed on entry; on failure it may hold some copied blocks, which
// FreeRecord releases.
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

// ---- conversion between designs (fields matched by name) ------------------

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
  if (depth > 64) {
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

bool Encode(const DesignImpl& d, const void* record, uint32_t base_offset,
            std::vector<uint8_t>* out, std::string* error) {
  out->clear();
  out->reserve(d.disk_min + 16);
  Encoder e(out, base_offset, error);
  if (!e.Record(d, static_cast<const uint8_t*>(record))) return false;
  if (out->size() > 0x7fffffffu) {
    *error = "object too large";
    return false;
  }
  return true;
}

bool Decode(const DesignImpl& d, const uint8_t* bytes, size_t size, void* record,
            std::string* error) {
  if (d.disk_min > size) {
    // Checked first, so a damaged count in a design cannot make a huge loop.
    *error = std::to_string(size) + " bytes are fewer than an object of design " + d.name +
             " needs (" + std::to_string(d.disk_min) + ")";
    return false;
  }
  Decoder dec(bytes, size, error);
  return dec.Record(d, static_cast<uint8_t*>(record));
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

bool Rebase(const DesignImpl& d, uint8_t* bytes, size_t size, uint32_t base_offset,
            std::string* error) {
  Rebaser r(bytes, size, base_offset, error);
  return r.Record(d);
}

}  // namespace mif
}  // namespace kzdv
