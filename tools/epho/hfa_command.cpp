// epho hfa dump FILE [--node PATH] [--json] [--items N]
//
// Prints the entry tree of a hierarchical file (block files, .img images)
// with each entry's type, size and decoded object values. Long arrays show
// their first N items (default 8).
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ehfa.h"
#include "platform/emif/object_codec.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace epho_tool {
namespace {

// A decoded value: a scalar text, an object (named fields) or an array.
struct Value {
  enum Kind { kScalar, kString, kObject, kArray } kind = kScalar;
  std::string text;
  std::vector<std::pair<std::string, Value>> fields;
  std::vector<Value> items;
  long more = 0;  // array items left out
};

std::string Narrow(const wchar_t* s) { return s ? kzdv::ToUtf8(s) : std::string(); }

std::string Number(double v) {
  char b[64];
  std::snprintf(b, sizeof b, "%.15g", v);
  return b;
}

Value Record(const Emif_Design* d, const uint8_t* rec, int max_items, int depth);

Value Element(const Emif_FieldInfo& f, const uint8_t* p, int max_items, int depth) {
  Value v;
  switch (f.code & 0xff) {
    case EMIF_T_OBJECT:
    case EMIF_T_OBJECT_PTR:
      return Record(f.design, p, max_items, depth + 1);
    case EMIF_T_ENUM: {
      int32_t e;
      std::memcpy(&e, p, 4);
      v.text = e >= 0 && e < f.enum_count ? Narrow(f.enum_names[e]) + " (" + std::to_string(e) + ")"
                                          : std::to_string(e);
      return v;
    }
    case EMIF_T_BASEDATA: {
      Emif_BaseData b;
      std::memcpy(&b, p, sizeof b);
      v.text = "base data " + std::to_string(b.rows) + "x" + std::to_string(b.columns) + " type " +
               std::to_string(b.data_type) + ", " + std::to_string(b.byte_count) + " bytes";
      return v;
    }
    case EMIF_T_UCHAR:
      v.text = std::to_string(*p);
      return v;
    case EMIF_T_CHAR:
      v.text = std::to_string(static_cast<int>(static_cast<signed char>(*p)));
      return v;
    case EMIF_T_USHORT: {
      uint16_t x;
      std::memcpy(&x, p, 2);
      v.text = std::to_string(x);
      return v;
    }
    case EMIF_T_SHORT: {
      int16_t x;
      std::memcpy(&x, p, 2);
      v.text = std::to_string(x);
      return v;
    }
    case EMIF_T_LONG: {
      int32_t x;
      std::memcpy(&x, p, 4);
      v.text = std::to_string(x);
      return v;
    }
    case EMIF_T_FLOAT: {
      float x;
      std::memcpy(&x, p, 4);
      v.text = Number(x);
      return v;
    }
    case EMIF_T_DOUBLE: {
      double x;
      std::memcpy(&x, p, 8);
      v.text = Number(x);
      return v;
    }
    case EMIF_T_COMPLEX: {
      float x[2];
      std::memcpy(x, p, 8);
      v.text = "(" + Number(x[0]) + ", " + Number(x[1]) + ")";
      return v;
    }
    case EMIF_T_DCOMPLEX: {
      double x[2];
      std::memcpy(x, p, 16);
      v.text = "(" + Number(x[0]) + ", " + Number(x[1]) + ")";
      return v;
    }
    default: {  // time and unsigned 32-bit
      uint32_t x;
      std::memcpy(&x, p, 4);
      v.text = std::to_string(x);
      return v;
    }
  }
}

Value Items(const Emif_FieldInfo& f, const uint8_t* data, long count, int max_items, int depth) {
  Value v;
  v.kind = Value::kArray;
  const size_t size = kzdv::mif::ElementSize(f);
  for (long i = 0; i < count && i < max_items; ++i) {
    v.items.push_back(Element(f, data + size * static_cast<size_t>(i), max_items, depth));
  }
  v.more = count > max_items ? count - max_items : 0;
  return v;
}

Value Field(const Emif_FieldInfo& f, const uint8_t* p, int max_items, int depth) {
  const int modifier = f.code & ~0xff;
  const int base = f.code & 0xff;
  Value v;
  if (modifier == EMIF_M_COUNTED) {
    Emif_CountedObjects c;
    std::memcpy(&c, p, sizeof c);
    if (base == EMIF_T_CHAR) {  // text
      v.kind = Value::kString;
      v.text = c.data ? Narrow(static_cast<const wchar_t*>(c.data)) : "";
      if (!c.data) v.kind = Value::kScalar, v.text = "null";
      return v;
    }
    return Items(f, static_cast<const uint8_t*>(c.data), c.data ? c.count : 0, max_items, depth);
  }
  if (modifier == EMIF_M_POINTER || base == EMIF_T_OBJECT_PTR) {
    const uint8_t* ptr;
    std::memcpy(&ptr, p, sizeof ptr);
    if (!ptr) {
      v.text = "null";
      return v;
    }
    return Element(f, ptr, max_items, depth);
  }
  if (modifier == EMIF_M_FIXED) {
    if (base == EMIF_T_CHAR) {
      v.kind = Value::kString;
      v.text.assign(reinterpret_cast<const char*>(p),
                    strnlen(reinterpret_cast<const char*>(p), static_cast<size_t>(f.fixed_count)));
      return v;
    }
    return Items(f, p, f.fixed_count, max_items, depth);
  }
  return Element(f, p, max_items, depth);
}

Value Record(const Emif_Design* d, const uint8_t* rec, int max_items, int depth) {
  Value v;
  v.kind = Value::kObject;
  if (depth > 32) return v;
  for (int i = 0; i < emif_DesignFieldCount(d); ++i) {
    Emif_FieldInfo f;
    emif_DesignFieldGet(d, i, &f);
    v.fields.emplace_back(Narrow(f.name), Field(f, rec + f.offset, max_items, depth));
  }
  return v;
}

// ---- output -------------------------------------------------------------------

// Length of the valid UTF-8 sequence at s[i] (1-4), or 0 when the bytes
// there are no valid sequence (stray continuation, overlong form, surrogate,
// beyond U+10FFFF, cut short).
size_t Utf8Length(const std::string& s, size_t i) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = b(i);
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF)
    n = 2, cp = c & 0x1F;
  else if (c >= 0xE0 && c <= 0xEF)
    n = 3, cp = c & 0x0F;
  else if (c >= 0xF0 && c <= 0xF4)
    n = 4, cp = c & 0x07;
  else
    return 0;
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
      (cp >= 0xD800 && cp <= 0xDFFF))
    return 0;
  return n;
}

// A JSON string of the bytes of `s`: valid UTF-8 as it is, control
// characters escaped, and every byte of an invalid sequence escaped as the
// character of that code (\u00e9 for a lone byte E9), so that the output is
// always valid UTF-8 JSON whatever the file holds.
std::string Json(const std::string& s) {
  std::string o = "\"";
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const size_t n = Utf8Length(s, i);
    if (c == '"' || c == '\\') {
      o += '\\';
      o += static_cast<char>(c);
    } else if (n == 0 || c < 0x20 || c == 0x7F) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      o += b;
    } else {
      o.append(s, i, n);
      i += n;
      continue;
    }
    ++i;
  }
  return o + "\"";
}

// Text for the terminal: control characters and bytes of invalid UTF-8
// sequences as \xHH, so a damaged or hostile file cannot drive the terminal.
std::string Printable(const std::string& s) {
  std::string o;
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const size_t n = Utf8Length(s, i);
    if (n == 0 || c < 0x20 || c == 0x7F) {
      char b[8];
      std::snprintf(b, sizeof b, "\\x%02x", c);
      o += b;
      ++i;
    } else {
      o.append(s, i, n);
      i += n;
    }
  }
  return o;
}

void PrintJson(FILE* out, const Value& v) {
  switch (v.kind) {
    case Value::kScalar:
      // Numbers stay numbers; anything else is quoted.
      if (!v.text.empty() && v.text.find_first_not_of("0123456789+-.e") == std::string::npos) {
        std::fputs(v.text.c_str(), out);
      } else {
        std::fputs(Json(v.text).c_str(), out);
      }
      return;
    case Value::kString:
      std::fputs(Json(v.text).c_str(), out);
      return;
    case Value::kObject: {
      std::fputc('{', out);
      for (size_t i = 0; i < v.fields.size(); ++i) {
        std::fprintf(out, "%s%s:", i ? "," : "", Json(v.fields[i].first).c_str());
        PrintJson(out, v.fields[i].second);
      }
      std::fputc('}', out);
      return;
    }
    case Value::kArray:
      std::fputc('[', out);
      for (size_t i = 0; i < v.items.size(); ++i) {
        if (i) std::fputc(',', out);
        PrintJson(out, v.items[i]);
      }
      if (v.more) std::fprintf(out, "%s{\"more\":%ld}", v.items.empty() ? "" : ",", v.more);
      std::fputc(']', out);
      return;
  }
}

std::string Inline(const Value& v) {
  switch (v.kind) {
    case Value::kScalar:
      return Printable(v.text);
    case Value::kString:
      return "\"" + Printable(v.text) + "\"";
    case Value::kObject: {
      std::string s = "{";
      for (size_t i = 0; i < v.fields.size(); ++i) {
        s += (i ? ", " : "") + Printable(v.fields[i].first) + " " + Inline(v.fields[i].second);
      }
      return s + "}";
    }
    case Value::kArray: {
      std::string s = "[";
      for (size_t i = 0; i < v.items.size(); ++i) s += (i ? ", " : "") + Inline(v.items[i]);
      if (v.more) s += ", ... " + std::to_string(v.more) + " more";
      return s + "]";
    }
  }
  return "";
}

void PrintText(FILE* out, const Value& v, int indent) {
  for (const auto& [raw_name, value] : v.fields) {
    const std::string name = Printable(raw_name);
    const std::string flat = Inline(value);
    if (flat.size() + name.size() + static_cast<size_t>(indent) <= 100 ||
        (value.kind != Value::kObject && value.kind != Value::kArray)) {
      std::fprintf(out, "%*s%s = %s\n", indent, "", name.c_str(), flat.c_str());
    } else if (value.kind == Value::kObject) {
      std::fprintf(out, "%*s%s:\n", indent, "", name.c_str());
      PrintText(out, value, indent + 2);
    } else {
      std::fprintf(
          out, "%*s%s: %zu%s items\n", indent, "", name.c_str(), value.items.size(),
          value.more ? (" of " + std::to_string(value.items.size() + value.more)).c_str() : "");
      for (size_t i = 0; i < value.items.size(); ++i) {
        std::fprintf(out, "%*s[%zu] %s\n", indent + 2, "", i, Inline(value.items[i]).c_str());
      }
    }
  }
}

struct DumpOptions {
  bool json = false;
  int max_items = 8;
};

// Prints the current node and its subtree; returns the number of entries
// whose data could not be decoded.
int DumpNode(FILE* out, Ehfa_File* f, const DumpOptions& o, int depth, bool first) {
  Ehfa_EntryInfo info;
  Eerr_ErrorReport* err = nullptr;
  ehfa_EntryInfoGet(f, &info, &err);
  const std::string name = info.name, type = info.type;
  const uint32_t size = info.data_size, offset = info.data_offset;
  int bad = 0;
  Value value;
  std::string problem;
  bool has_value = false;
  if (size > 0) {
    const Emif_Design* d = nullptr;
    void* rec = nullptr;
    if (ehfa_ObjectRead(f, EHFA_SEEK_INTO, nullptr, nullptr, &d, &rec, &err)) {
      value = Record(d, static_cast<const uint8_t*>(rec), o.max_items, 0);
      has_value = true;
      emif_ObjectFree(d, rec, nullptr);
    } else {
      const Eerr_ErrorReport* inner = eerr_ErrorReportInnermost(err);
      problem = inner && inner->message ? kzdv::ToUtf8(inner->message) : "cannot decode";
      ++bad;
    }
    eerr_DeleteErrorReportEx(&err);
  }
  const int indent = 2 * depth;
  if (o.json) {
    std::fprintf(out, "%s{\"name\":%s,\"type\":%s,\"offset\":%u,\"size\":%u", first ? "" : ",",
                 Json(name).c_str(), Json(type).c_str(), offset, size);
    if (has_value) {
      std::fputs(",\"value\":", out);
      PrintJson(out, value);
    }
    if (!problem.empty()) std::fprintf(out, ",\"error\":%s", Json(problem).c_str());
  } else {
    std::fprintf(out, "%*s%s  (%s", indent, "",
                 depth == 0 && name == "root" ? ":" : Printable(name).c_str(),
                 Printable(type).c_str());
    if (size) std::fprintf(out, ", %u bytes at %u", size, offset);
    std::fprintf(out, ")\n");
    if (has_value) PrintText(out, value, indent + 4);
    if (!problem.empty())
      std::fprintf(out, "%*s! %s\n", indent + 4, "", Printable(problem).c_str());
  }
  if (o.json) std::fputs(",\"children\":[", out);
  if (depth > 200) {
    if (!o.json) std::fprintf(out, "%*s... deeper entries left out\n", indent + 2, "");
  } else if (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_FIRST_CHILD, nullptr, nullptr, &err)) {
    bool first_child = true;
    do {
      bad += DumpNode(out, f, o, depth + 1, first_child);
      first_child = false;
    } while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_SIBLING, nullptr, nullptr, &err));
    ehfa_EntrySeek(f, EHFA_SEEK_PARENT, nullptr, nullptr, &err);
  }
  eerr_DeleteErrorReportEx(&err);
  if (o.json) std::fputs("]}", out);
  return bad;
}

}  // namespace

// Dumps `file` (from node `node`, or the root) to `out`; 0 when every entry
// decoded, 3 when some could not, 1 when the file cannot be opened.
int HfaDump(FILE* out, const std::string& file, const std::string& node, bool json, int max_items);
int HfaDump(FILE* out, const std::string& file, const std::string& node, bool json, int max_items) {
  Eerr_ErrorReport* err = nullptr;
  const std::wstring wfile = kzdv::FromUtf8(file);
  Ehfa_File* f = ehfa_FileOpen(wfile.c_str(), "r", nullptr, &err);
  if (!f) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
    return 1;
  }
  if (!node.empty() &&
      !ehfa_EntrySeek(f, EHFA_SEEK_INTO, kzdv::FromUtf8(node).c_str(), nullptr, &err)) {
    eerr_PrintErrorReport(err, nullptr, 0);
    eerr_DeleteErrorReport(err);
    ehfa_FileClose(f, nullptr);
    return 1;
  }
  DumpOptions o;
  o.json = json;
  o.max_items = max_items;
  if (!json) {
    std::fprintf(out, "%s: %d designs in the dictionary\n", file.c_str(),
                 emif_DictionaryDesignCount(ehfa_FileDictionaryGet(f)));
  }
  const int bad = DumpNode(out, f, o, 0, true);
  if (json) std::fputc('\n', out);
  ehfa_FileClose(f, nullptr);
  return bad ? 3 : 0;
}

namespace {

struct HfaArgs {
  std::string file, node;
  bool json = false;
  int items = 8;
};

epho_tool::Run DeclareHfaDump(CLI::App& dump) {
  auto args = std::make_shared<HfaArgs>();
  dump.add_option("FILE", args->file, "block file or .img image")->required();
  dump.add_option("--node", args->node, "start at this node path (e.g. :Layer_1)");
  dump.add_flag("--json", args->json, "print JSON instead of text");
  IntegerOption(dump, "--items", args->items, "array items shown per field", 0, 1000000);
  return [args] {
    const int bad = HfaDump(stdout, args->file, args->node, args->json, args->items);
    if (bad == 3) {
      std::fflush(stdout);
      std::fprintf(stderr, "epho hfa dump: some entries of %s could not be decoded\n",
                   args->file.c_str());
    }
    return bad ? kExitFailure : kExitOk;
  };
}

}  // namespace
}  // namespace epho_tool

EPHO_COMMAND_GROUP("hfa", "hierarchical (HFA) files: block files, .img images");
EPHO_COMMAND("hfa dump", "print the entry tree, types and decoded values of a hierarchical file",
             epho_tool::DeclareHfaDump);
