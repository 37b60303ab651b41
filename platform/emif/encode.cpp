// Native records to packed little-endian bytes, and placing packed bytes at
// a file position.
//
// Packed form: fields in order, no padding; single and fixed values in
// place; counted and pointed values as a uint32 count and a uint32 offset
// followed at once by their elements (the offset repeats where they start).
// Readers trust the order, not the offset, which is what other HFA readers do
// too; writers keep both consistent.
#include <cstring>

#include "etxt.h"
#include "platform/emif/byte_order.h"
#include "platform/emif/codec_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace mif {

namespace {

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
    AppendLe32(out_, static_cast<uint32_t>(count));
    const size_t at = out_->size();
    AppendLe32(out_, 0);
    if (count == 0) return true;
    StoreLe32(out_->data() + at, base_ + static_cast<uint32_t>(out_->size()));
    for (int32_t i = 0; i < count; ++i) {
      if (!Element(f, data + f.elem_size * static_cast<size_t>(i))) return false;
    }
    return true;
  }

  bool String(const Etxt_Char* s, int32_t count) {
    if (count == 0 || !s) {
      AppendLe32(out_, 0);
      AppendLe32(out_, 0);
      return true;
    }
    size_t n = 0;
    while (n + 1 < static_cast<size_t>(count) && s[n] != 0) ++n;
    const std::string u = ToUtf8(std::wstring(s, n));
    AppendLe32(out_, static_cast<uint32_t>(u.size() + 1));
    AppendLe32(out_, base_ + static_cast<uint32_t>(out_->size()) + 4);
    out_->insert(out_->end(), u.begin(), u.end());
    out_->push_back(0);
    return true;
  }

  bool Element(const Field& f, const uint8_t* p) {
    switch (f.base) {
      case EMIF_T_OBJECT:
      case EMIF_T_OBJECT_PTR:
        if (++depth_ > kMaxNesting) return Fail("objects nested too deeply");
        if (!Record(*f.design, p)) return false;
        --depth_;
        return true;
      case EMIF_T_ENUM: {
        int32_t v;
        std::memcpy(&v, p, 4);
        if (v < 0 || v > 0xffff) {
          return Fail("value " + std::to_string(v) + " of enumeration " + f.name + " out of range");
        }
        AppendLe16(out_, static_cast<uint16_t>(v));
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
        AppendLe32(out_, static_cast<uint32_t>(b.rows));
        AppendLe32(out_, static_cast<uint32_t>(b.columns));
        AppendLe16(out_, static_cast<uint16_t>(b.data_type));
        AppendLe16(out_, static_cast<uint16_t>(b.object_type));
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
        const uint32_t count = LoadLe32(p_ + pos_);
        StoreLe32(p_ + pos_ + 4, count ? base_ + static_cast<uint32_t>(pos_ + 8) : 0);
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
      if (++depth_ > kMaxNesting) {
        *error_ = "objects nested too deeply";
        return false;
      }
      if (!Record(*f.design)) return false;
      --depth_;
      return true;
    }
    if (f.base == EMIF_T_BASEDATA) {
      if (!Need(12, f)) return false;
      const uint64_t rows = LoadLe32(p_ + pos_), cols = LoadLe32(p_ + pos_ + 4);
      const int bits = BaseDataBits(LoadLe16(p_ + pos_ + 8));
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

bool Rebase(const DesignImpl& d, uint8_t* bytes, size_t size, uint32_t base_offset,
            std::string* error) {
  Rebaser r(bytes, size, base_offset, error);
  return r.Record(d);
}

}  // namespace mif
}  // namespace kzdv
