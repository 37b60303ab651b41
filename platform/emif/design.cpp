// Designs: field checking, the native (LP64) and packed layouts, the
// dictionary text of a design, and the exported design calls.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <set>

#include "platform/eerr/error_frame.h"
#include "platform/emif/design_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace mif {

size_t DiskScalarSize(int base) {
  switch (base) {
    case EMIF_T_UCHAR:
    case EMIF_T_CHAR:
      return 1;
    case EMIF_T_ENUM:
    case EMIF_T_USHORT:
    case EMIF_T_SHORT:
      return 2;
    case EMIF_T_TIME:
    case EMIF_T_ULONG:
    case EMIF_T_LONG:
    case EMIF_T_FLOAT:
      return 4;
    case EMIF_T_DOUBLE:
    case EMIF_T_COMPLEX:
      return 8;
    case EMIF_T_DCOMPLEX:
      return 16;
    default:
      return 0;
  }
}

char DiskTypeChar(int base) {
  switch (base) {
    case EMIF_T_OBJECT_PTR:
    case EMIF_T_OBJECT:
      return 'o';
    case EMIF_T_ENUM:
      return 'e';
    case EMIF_T_TIME:
      return 't';
    case EMIF_T_BASEDATA:
      return 'b';
    case EMIF_T_UCHAR:
      return 'C';
    case EMIF_T_CHAR:
      return 'c';
    case EMIF_T_USHORT:
      return 's';
    case EMIF_T_SHORT:
      return 'S';
    case EMIF_T_ULONG:
      return 'l';
    case EMIF_T_LONG:
      return 'L';
    case EMIF_T_FLOAT:
      return 'f';
    case EMIF_T_DOUBLE:
      return 'd';
    case EMIF_T_COMPLEX:
      return 'm';
    case EMIF_T_DCOMPLEX:
      return 'M';
    default:
      return 0;
  }
}

// Native size and alignment of one element.
static bool ElementLayout(const Field& f, size_t* size, size_t* align) {
  switch (f.base) {
    case EMIF_T_OBJECT_PTR:
    case EMIF_T_OBJECT:
      *size = f.design->size;
      *align = f.design->align;
      return true;
    case EMIF_T_ENUM:
    case EMIF_T_TIME:
    case EMIF_T_ULONG:
    case EMIF_T_LONG:
    case EMIF_T_FLOAT:
      *size = *align = 4;
      return true;
    case EMIF_T_BASEDATA:
      *size = sizeof(Emif_BaseData);
      *align = alignof(Emif_BaseData);
      return true;
    case EMIF_T_UCHAR:
      *size = *align = 1;
      return true;
    case EMIF_T_CHAR:
      // Counted and pointed characters are wide text in memory.
      if (f.shape == Shape::kCounted) {
        *size = *align = sizeof(Etxt_Char);
      } else {
        *size = *align = 1;
      }
      return true;
    case EMIF_T_USHORT:
    case EMIF_T_SHORT:
      *size = *align = 2;
      return true;
    case EMIF_T_DOUBLE:
      *size = *align = 8;
      return true;
    case EMIF_T_COMPLEX:
      *size = 8;
      *align = 4;
      return true;
    case EMIF_T_DCOMPLEX:
      *size = 16;
      *align = 8;
      return true;
    default:
      return false;
  }
}

size_t ElementSize(const Emif_FieldInfo& info) {
  Field f;
  f.code = info.code;
  f.base = info.code & 0xff;
  const int modifier = info.code & ~0xff;
  if (modifier == EMIF_M_COUNTED) {
    f.shape = Shape::kCounted;
  } else if (modifier == EMIF_M_FIXED) {
    f.shape = Shape::kFixed;
  } else if (modifier == EMIF_M_POINTER || f.base == EMIF_T_OBJECT_PTR) {
    f.shape = Shape::kPointer;
  }
  if (f.IsObject()) {
    if (!info.design) return 0;
    f.design = info.design->impl;
  }
  size_t size = 0, align = 1;
  return ElementLayout(f, &size, &align) ? size : 0;
}

static size_t ElementDiskMin(const Field& f) {
  if (f.IsObject()) return f.design->disk_min;
  if (f.base == EMIF_T_BASEDATA) return 12;
  return DiskScalarSize(f.base);
}

static std::string FieldText(const Field& f) {
  std::string t;
  switch (f.shape) {
    case Shape::kSingle:
      t = "1:";
      break;
    case Shape::kFixed:
      t = std::to_string(f.fixed_count) + ":";
      break;
    case Shape::kCounted:
      t = "0:p";
      break;
    case Shape::kPointer:
      t = "1:*";
      break;
  }
  t += DiskTypeChar(f.base);
  if (f.base == EMIF_T_ENUM) {
    t += std::to_string(f.enum_names.size()) + ":";
    for (const auto& n : f.enum_names) t += n + ",";
  } else if (f.IsObject()) {
    t += f.design->name + ",";
  }
  t += f.name + ",";
  return t;
}

static bool ValidName(const std::string& n) {
  if (n.empty()) return false;
  for (char c : n) {
    if (c == ',' || c == '{' || c == '}' || c == '\0') return false;
  }
  return true;
}

DesignRef BuildDesign(const std::string& name, std::vector<Field> fields, std::string* error) {
  if (!ValidName(name) || name[0] == '.' || name.find(':') != std::string::npos) {
    *error = "Bad design name \"" + name + "\"";
    return nullptr;
  }
  auto d = std::make_shared<DesignImpl>();
  d->name = name;
  d->wname = FromUtf8(name);
  std::set<std::string> seen;
  size_t offset = 0;
  size_t align = 1;
  size_t disk_min = 0;
  std::string text = "{";
  for (Field& f : fields) {
    if (!ValidName(f.name)) {
      *error = "Bad field name \"" + f.name + "\" in design " + name;
      return nullptr;
    }
    if (!seen.insert(f.name).second) {
      *error = "Field " + f.name + " appears twice in design " + name;
      return nullptr;
    }
    f.wname = FromUtf8(f.name);
    f.base = f.code & 0xff;
    const int modifier = f.code & ~0xff;
    if (DiskTypeChar(f.base) == 0 || (modifier != 0 && modifier != EMIF_M_FIXED &&
                                      modifier != EMIF_M_COUNTED && modifier != EMIF_M_POINTER)) {
      *error = "Unknown type code " + std::to_string(f.code) + " of field " + f.name;
      return nullptr;
    }
    if (modifier == EMIF_M_FIXED) {
      f.shape = Shape::kFixed;
      if (f.fixed_count < 1 || f.fixed_count > (1 << 24)) {
        *error = "Bad element count " + std::to_string(f.fixed_count) + " of field " + f.name;
        return nullptr;
      }
    } else if (modifier == EMIF_M_COUNTED) {
      f.shape = Shape::kCounted;
    } else if (modifier == EMIF_M_POINTER || f.base == EMIF_T_OBJECT_PTR) {
      f.shape = Shape::kPointer;
    } else {
      f.shape = Shape::kSingle;
    }
    if (f.shape != Shape::kFixed) f.fixed_count = 1;
    if (f.base == EMIF_T_BASEDATA && f.shape != Shape::kPointer && f.shape != Shape::kSingle) {
      *error = "Base data field " + f.name + " must be single or a pointer";
      return nullptr;
    }
    if (f.IsObject() && !f.design) {
      *error = "Field " + f.name + " of design " + name + " needs the design of its objects";
      return nullptr;
    }
    if (!f.IsObject()) f.design = nullptr;
    if (f.design) {
      auto h = std::make_shared<Emif_Design>();
      h->impl = f.design;
      f.handle = std::move(h);
    }
    if (f.base == EMIF_T_ENUM) {
      if (f.enum_names.empty()) {
        *error = "Enumeration " + f.name + " has no names";
        return nullptr;
      }
      for (const auto& e : f.enum_names) {
        if (!ValidName(e)) {
          *error = "Bad enumeration name \"" + e + "\" in field " + f.name;
          return nullptr;
        }
      }
      f.wenum_names.clear();
      for (const auto& e : f.enum_names) f.wenum_names.push_back(FromUtf8(e));
      f.wenum_ptrs.clear();
      for (const auto& e : f.wenum_names) f.wenum_ptrs.push_back(e.c_str());
      f.wenum_ptrs.push_back(nullptr);
    } else {
      f.enum_names.clear();
    }
    if (!ElementLayout(f, &f.elem_size, &f.elem_align)) {
      *error = "Unknown type code " + std::to_string(f.code) + " of field " + f.name;
      return nullptr;
    }
    switch (f.shape) {
      case Shape::kSingle:
        f.size = f.elem_size;
        f.align = f.elem_align;
        f.disk_min = ElementDiskMin(f);
        break;
      case Shape::kFixed:
        f.size = f.elem_size * static_cast<size_t>(f.fixed_count);
        f.align = f.elem_align;
        f.disk_min = ElementDiskMin(f) * static_cast<size_t>(f.fixed_count);
        break;
      case Shape::kCounted:
        f.size = sizeof(Emif_CountedObjects);
        f.align = alignof(Emif_CountedObjects);
        f.disk_min = 8;
        break;
      case Shape::kPointer:
        f.size = sizeof(void*);
        f.align = alignof(void*);
        f.disk_min = 8;
        break;
    }
    offset = (offset + f.align - 1) / f.align * f.align;
    f.offset = offset;
    offset += f.size;
    align = std::max(align, f.align);
    disk_min += f.disk_min;
    text += FieldText(f);
  }
  d->size = std::max<size_t>(1, (offset + align - 1) / align * align);
  d->align = align;
  d->disk_min = disk_min;
  d->text = text + "}" + name + ",";
  d->fields = std::move(fields);
  return d;
}

}  // namespace mif
}  // namespace kzdv

using kzdv::ErrorFrame;
using namespace kzdv::mif;

static Emif_Design* NewHandle(const DesignRef& d) {
  Emif_Design* h = new (std::nothrow) Emif_Design;
  if (h) h->impl = d;
  return h;
}

// Reads the variadic field list of emif_DesignCreate up to its closing 0 and
// then the report pointer.
Emif_Design* emif_DesignCreate(const Etxt_Char* name, ...) KZDV_NOEXCEPT try {
  std::vector<Emif_FieldSpec> fields_in;
  std::vector<std::vector<const Etxt_Char*>> enums;
  va_list ap;
  va_start(ap, name);
  bool bad = false;
  for (int guard = 0; guard < 4096; ++guard) {
    const int code = va_arg(ap, int);
    if (code == 0) break;
    Emif_FieldSpec s{};
    s.code = code;
    s.name = va_arg(ap, const Etxt_Char*);
    const int base = code & 0xff;
    if (base == EMIF_T_ENUM) {
      std::vector<const Etxt_Char*> names;
      for (int i = 0; i < 65536; ++i) {
        const Etxt_Char* e = va_arg(ap, const Etxt_Char*);
        names.push_back(e);
        if (!e) break;
      }
      enums.push_back(std::move(names));
    } else {
      enums.emplace_back();
    }
    if ((code & EMIF_M_FIXED) && !(code & (EMIF_M_COUNTED | EMIF_M_POINTER))) {
      s.fixed_count = va_arg(ap, int);
    }
    if (base == EMIF_T_OBJECT || base == EMIF_T_OBJECT_PTR) {
      s.design = va_arg(ap, const Emif_Design*);
    }
    fields_in.push_back(s);
    if (!s.name) {
      bad = true;
      break;
    }
  }
  Eerr_ErrorReport** err = bad ? nullptr : va_arg(ap, Eerr_ErrorReport**);
  va_end(ap);
  for (size_t i = 0; i < fields_in.size(); ++i) {
    if (!enums[i].empty()) fields_in[i].enum_names = enums[i].data();
  }
  if (bad) {
    ErrorFrame frame(L"emif_DesignCreate", err);
    EERR_FAIL(frame, nullptr, L"A field of design %s has no name", name ? name : L"");
  }
  return emif_DesignCreateFromFields(name, fields_in.data(), static_cast<int>(fields_in.size()),
                                     err);
}
EERR_BOUNDARY(nullptr, nullptr)

Emif_Design* emif_DesignCreateFromFields(const Etxt_Char* name, const Emif_FieldSpec* fields_in,
                                         int count, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DesignCreate", err);
  EERR_FAIL_IF_NULL(name, frame, nullptr);
  EERR_FAIL_IF(count < 0, frame, nullptr, L"Args: count is negative");
  EERR_FAIL_IF(count > 0 && !fields_in, frame, nullptr, L"Args: fields_in is null");
  std::vector<Field> fields;
  for (int i = 0; i < count; ++i) {
    Field f;
    EERR_FAIL_IF(!fields_in[i].name, frame, nullptr, L"A field of design %s has no name", name);
    f.name = kzdv::ToUtf8(fields_in[i].name);
    f.code = fields_in[i].code;
    f.fixed_count = fields_in[i].fixed_count;
    if (fields_in[i].design) f.design = fields_in[i].design->impl;
    if (fields_in[i].enum_names) {
      for (int k = 0; fields_in[i].enum_names[k] && k < 65536; ++k) {
        f.enum_names.push_back(kzdv::ToUtf8(fields_in[i].enum_names[k]));
      }
    }
    fields.push_back(std::move(f));
  }
  std::string error;
  DesignRef d = BuildDesign(kzdv::ToUtf8(name), std::move(fields), &error);
  EERR_FAIL_IF(!d, frame, nullptr, L"%s", KZDV_W(error));
  Emif_Design* h = NewHandle(d);
  EERR_FAIL_IF(!h, frame, nullptr, L"Out of memory");
  return h;
}
EERR_BOUNDARY(err, nullptr)

Emif_Design* emif_DesignCopy(const Emif_Design* design, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DesignCopy", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  Emif_Design* h = NewHandle(design->impl);
  EERR_FAIL_IF(!h, frame, nullptr, L"Out of memory");
  return h;
}
EERR_BOUNDARY(err, nullptr)

void emif_DesignDestroy(Emif_Design* design) KZDV_NOEXCEPT { delete design; }

const Etxt_Char* emif_DesignNameGet(const Emif_Design* design) KZDV_NOEXCEPT {
  return design ? design->impl->wname.c_str() : nullptr;
}

size_t emif_DesignSizeGet(const Emif_Design* design) KZDV_NOEXCEPT {
  return design ? design->impl->size : 0;
}

int emif_DesignFieldCount(const Emif_Design* design) KZDV_NOEXCEPT {
  return design ? static_cast<int>(design->impl->fields.size()) : 0;
}

static void FillInfo(const Field& f, Emif_FieldInfo* info) {
  info->name = f.wname.c_str();
  info->code = f.code;
  info->fixed_count = f.fixed_count;
  info->offset = f.offset;
  info->size = f.size;
  info->design = f.handle.get();
  info->enum_count = static_cast<int>(f.wenum_names.size());
  info->enum_names = f.wenum_ptrs.empty() ? nullptr : f.wenum_ptrs.data();
}

Emsc_Boolean emif_DesignFieldGet(const Emif_Design* design, int index,
                                 Emif_FieldInfo* info) KZDV_NOEXCEPT {
  if (!design || !info || index < 0 || index >= emif_DesignFieldCount(design)) return EMSC_FALSE;
  FillInfo(design->impl->fields[static_cast<size_t>(index)], info);
  return EMSC_TRUE;
}

Emsc_Boolean emif_DesignFieldFind(const Emif_Design* design, const Etxt_Char* name,
                                  Emif_FieldInfo* info) KZDV_NOEXCEPT {
  if (!design || !name || !info) return EMSC_FALSE;
  for (const Field& f : design->impl->fields) {
    if (f.wname == name) {
      FillInfo(f, info);
      return EMSC_TRUE;
    }
  }
  return EMSC_FALSE;
}

static bool SameLayout(const DesignImpl& a, const DesignImpl& b) {
  if (a.text != b.text || a.fields.size() != b.fields.size()) return false;
  for (size_t i = 0; i < a.fields.size(); ++i) {
    const auto& fa = a.fields[i];
    const auto& fb = b.fields[i];
    if (fa.design && fb.design && fa.design != fb.design && !SameLayout(*fa.design, *fb.design)) {
      return false;
    }
  }
  return true;
}

Emsc_Boolean emif_DesignsEqual(const Emif_Design* a, const Emif_Design* b) KZDV_NOEXCEPT {
  if (!a || !b) return a == b ? EMSC_TRUE : EMSC_FALSE;
  return SameLayout(*a->impl, *b->impl) ? EMSC_TRUE : EMSC_FALSE;
}

char* emif_DesignTextGet(const Emif_Design* design, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DesignTextGet", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  const std::string& t = design->impl->text;
  char* out = static_cast<char*>(emsc_MemDup(t.c_str(), t.size() + 1));
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)
