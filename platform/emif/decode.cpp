// Packed little-endian bytes to native records. Counts are checked against
// the bytes left before anything is allocated, so damaged data cannot make
// large allocations or long loops.
#include <algorithm>
#include <cstring>
#include <cwchar>

#include "emsc.h"
#include "etxt.h"
#include "platform/emif/byte_order.h"
#include "platform/emif/codec_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace mif {

namespace {

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
        const uint32_t count = LoadLe32(p_ + pos_);
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
        if (++depth_ > kMaxNesting) {
          *error_ = "objects nested too deeply";
          return false;
        }
        if (!Record(*f.design, p)) return false;
        --depth_;
        return true;
      case EMIF_T_ENUM: {
        if (!Need(2, f)) return false;
        const int32_t v = LoadLe16(p_ + pos_);
        pos_ += 2;
        std::memcpy(p, &v, 4);
        return true;
      }
      case EMIF_T_BASEDATA: {
        if (!Need(12, f)) return false;
        Emif_BaseData b{};
        b.rows = static_cast<int32_t>(LoadLe32(p_ + pos_));
        b.columns = static_cast<int32_t>(LoadLe32(p_ + pos_ + 4));
        b.data_type = LoadLe16(p_ + pos_ + 8);
        b.object_type = LoadLe16(p_ + pos_ + 10);
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

}  // namespace

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

}  // namespace mif
}  // namespace kzdv
