// Design dictionaries and their text form ("{1:lwidth,...}Eimg_Layer,...,.").
#include <functional>
#include <set>

#include "platform/eerr/error_frame.h"
#include "platform/emif/dictionary_internal.h"
#include "platform/estr/utf8.h"

namespace kzdv {
namespace mif {

namespace {

// Designs may use designs to this depth; deeper chains are refused (a
// damaged or hostile dictionary must not exhaust the stack).
constexpr int kMaxDesignDepth = 32;

bool SameDesign(const DesignImpl& a, const DesignImpl& b) {
  if (&a == &b) return true;
  if (a.text != b.text || a.fields.size() != b.fields.size()) return false;
  for (size_t i = 0; i < a.fields.size(); ++i) {
    const auto& fa = a.fields[i].design;
    const auto& fb = b.fields[i].design;
    if (fa && fb && !SameDesign(*fa, *fb)) return false;
  }
  return true;
}

struct RawField {
  uint64_t count = 0;
  char pointer = 0;  // 'p', '*' or 0
  char type = 0;
  std::vector<std::string> enums;
  std::string design;  // object designs
  std::string name;
  size_t at = 0;  // text offset, for messages
};

struct RawDesign {
  std::string name;
  std::vector<RawField> fields;
};

class Parser {
 public:
  Parser(const char* text, size_t length) : t_(text), n_(length) {}

  bool Run(std::vector<RawDesign>* out, std::string* error) {
    out_ = out;
    error_ = error;
    for (;;) {
      while (pos_ < n_ &&
             (t_[pos_] == ' ' || t_[pos_] == '\n' || t_[pos_] == '\r' || t_[pos_] == '\t')) {
        ++pos_;
      }
      if (pos_ >= n_ || t_[pos_] == '.' || t_[pos_] == '\0') return true;
      std::string name;
      if (!Design(0, &name)) return false;
    }
  }

 private:
  bool Fail(const std::string& what) {
    *error_ = "Bad dictionary text at offset " + std::to_string(pos_) + ": " + what;
    return false;
  }
  bool Expect(char c) {
    if (pos_ >= n_ || t_[pos_] != c) return Fail(std::string("'") + c + "' expected");
    ++pos_;
    return true;
  }
  // Text up to the next ',' (consumed).
  bool Item(std::string* s) {
    const size_t start = pos_;
    while (pos_ < n_ && t_[pos_] != ',' && t_[pos_] != '\0' && t_[pos_] != '{' && t_[pos_] != '}') {
      ++pos_;
    }
    if (pos_ >= n_ || t_[pos_] != ',') return Fail("',' expected");
    s->assign(t_ + start, pos_ - start);
    ++pos_;
    if (s->empty()) return Fail("empty name");
    return true;
  }
  bool Number(uint64_t* v) {
    const size_t start = pos_;
    *v = 0;
    while (pos_ < n_ && t_[pos_] >= '0' && t_[pos_] <= '9') {
      *v = *v * 10 + static_cast<uint64_t>(t_[pos_] - '0');
      if (*v > 100000000) return Fail("number too large");
      ++pos_;
    }
    if (pos_ == start) return Fail("number expected");
    return true;
  }

  bool Design(int depth, std::string* name) {
    if (depth > 16) return Fail("definitions nested too deeply");
    if (!Expect('{')) return false;
    RawDesign d;
    while (pos_ < n_ && t_[pos_] != '}') {
      RawField f;
      f.at = pos_;
      if (!Number(&f.count) || !Expect(':')) return false;
      if (pos_ < n_ && (t_[pos_] == 'p' || t_[pos_] == '*')) f.pointer = t_[pos_++];
      if (pos_ >= n_) return Fail("type expected");
      f.type = t_[pos_++];
      if (f.type == 'e') {
        uint64_t k;
        if (!Number(&k) || !Expect(':')) return false;
        if (k > 65536) return Fail("too many enumeration names");
        for (uint64_t i = 0; i < k; ++i) {
          std::string e;
          if (!Item(&e)) return false;
          f.enums.push_back(std::move(e));
        }
      } else if (f.type == 'o') {
        if (!Item(&f.design)) return false;
      } else if (f.type == 'x') {
        if (!Design(depth + 1, &f.design)) return false;
        f.type = 'o';
      }
      if (!Item(&f.name)) return false;
      d.fields.push_back(std::move(f));
    }
    if (!Expect('}')) return false;
    if (!Item(&d.name)) return false;
    *name = d.name;
    out_->push_back(std::move(d));
    return true;
  }

  const char* t_;
  size_t n_;
  size_t pos_ = 0;
  std::vector<RawDesign>* out_ = nullptr;
  std::string* error_ = nullptr;
};

int BaseOfChar(char c) {
  switch (c) {
    case 'o':
      return EMIF_T_OBJECT;
    case 'e':
      return EMIF_T_ENUM;
    case 't':
      return EMIF_T_TIME;
    case 'b':
      return EMIF_T_BASEDATA;
    case 'C':
      return EMIF_T_UCHAR;
    case 'c':
      return EMIF_T_CHAR;
    case 's':
      return EMIF_T_USHORT;
    case 'S':
      return EMIF_T_SHORT;
    case 'l':
      return EMIF_T_ULONG;
    case 'L':
      return EMIF_T_LONG;
    case 'f':
      return EMIF_T_FLOAT;
    case 'd':
      return EMIF_T_DOUBLE;
    case 'm':
      return EMIF_T_COMPLEX;
    case 'M':
      return EMIF_T_DCOMPLEX;
    default:
      return 0;
  }
}

}  // namespace

bool Dictionary::Add(const DesignRef& d) {
  bool changed = false;
  for (const Field& f : d->fields) {
    if (f.design) changed = Add(f.design) || changed;
  }
  auto it = index_.find(d->name);
  if (it != index_.end()) {
    if (SameDesign(*order_[it->second], *d)) return changed;
    order_[it->second] = d;
    return true;
  }
  index_[d->name] = order_.size();
  order_.push_back(d);
  unusable_.erase(d->name);
  return true;
}

DesignRef Dictionary::Find(const std::string& name) const {
  auto it = index_.find(name);
  return it == index_.end() ? nullptr : order_[it->second];
}

std::string Dictionary::Unusable(const std::string& name) const {
  auto it = unusable_.find(name);
  return it == unusable_.end() ? std::string() : it->second;
}

std::string Dictionary::Text() const {
  std::string t;
  for (const auto& d : order_) t += d->text;
  return t + ".";
}

bool Dictionary::Parse(const char* text, size_t length, Dictionary* out, std::string* error) {
  std::vector<RawDesign> raw;
  Parser parser(text, length);
  if (!parser.Run(&raw, error)) return false;

  std::map<std::string, const RawDesign*> by_name;
  for (const auto& r : raw) by_name.emplace(r.name, &r);  // the first definition wins
  Dictionary result;
  std::map<std::string, DesignRef> built;
  std::set<std::string> in_progress;

  // Builds a design after the designs it uses; records why one cannot be built.
  std::function<DesignRef(const std::string&, int)> build = [&](const std::string& name,
                                                                int depth) -> DesignRef {
    auto done = built.find(name);
    if (done != built.end()) return done->second;
    if (!result.Unusable(name).empty()) return nullptr;
    auto it = by_name.find(name);
    if (it == by_name.end()) return nullptr;
    if (in_progress.count(name)) {
      result.unusable_[name] = "design " + name + " contains itself";
      return nullptr;
    }
    if (depth > kMaxDesignDepth) {
      result.unusable_[name] = "design " + name + " is nested deeper than " +
                               std::to_string(kMaxDesignDepth) + " levels";
      return nullptr;
    }
    in_progress.insert(name);
    std::vector<Field> fields;
    std::string why;
    for (const RawField& rf : it->second->fields) {
      Field f;
      f.name = rf.name;
      const int base = BaseOfChar(rf.type);
      if (base == 0) {
        why = "field " + rf.name + " has the unknown type '" + std::string(1, rf.type) + "'";
        break;
      }
      if (rf.pointer == 'p') {
        f.code = EMIF_M_COUNTED | base;
      } else if (rf.pointer == '*') {
        f.code =
            base == EMIF_T_OBJECT ? (EMIF_M_POINTER | EMIF_T_OBJECT_PTR) : (EMIF_M_POINTER | base);
      } else if (rf.count == 1) {
        f.code = base;
      } else if (rf.count > 1) {
        f.code = EMIF_M_FIXED | base;
        f.fixed_count = static_cast<int>(rf.count);
      } else {
        why = "field " + rf.name + " has no element count";
        break;
      }
      f.enum_names = rf.enums;
      if (base == EMIF_T_ENUM && f.enum_names.empty()) f.enum_names.push_back("0");
      if (base == EMIF_T_OBJECT) {
        f.design = build(rf.design, depth + 1);
        if (!f.design) {
          const std::string sub = result.Unusable(rf.design);
          why = "field " + rf.name + " uses design " + rf.design +
                (sub.empty() ? " which is not defined" : " (" + sub + ")");
          break;
        }
      }
      fields.push_back(std::move(f));
    }
    in_progress.erase(name);
    DesignRef d;
    if (why.empty()) {
      d = BuildDesign(name, std::move(fields), &why);
    }
    if (!d) {
      result.unusable_[name] = why;
      return nullptr;
    }
    built[name] = d;
    return d;
  };

  for (const auto& r : raw) {
    DesignRef d = build(r.name, 0);
    if (d && !result.Find(r.name)) result.Add(d);
  }
  *out = std::move(result);
  return true;
}

}  // namespace mif
}  // namespace kzdv

using kzdv::ErrorFrame;
using namespace kzdv::mif;

const Emif_Design* Emif_Dictionary::Handle(const DesignRef& d) {
  if (!d) return nullptr;
  auto it = handle_of.find(d.get());
  if (it != handle_of.end()) return it->second;
  auto h = std::make_unique<Emif_Design>();
  h->impl = d;
  Emif_Design* raw = h.get();
  handles.push_back(std::move(h));
  handle_of[d.get()] = raw;
  return raw;
}

Emif_Dictionary* emif_DictionaryCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DictionaryCreate", err);
  Emif_Dictionary* d = new (std::nothrow) Emif_Dictionary;
  EERR_FAIL_IF(!d, frame, nullptr, L"Out of memory");
  return d;
}
EERR_BOUNDARY(err, nullptr)

void emif_DictionaryDestroy(Emif_Dictionary* dictionary) KZDV_NOEXCEPT { delete dictionary; }

Emsc_Boolean emif_DictionaryAddDesign(Emif_Dictionary* dictionary, const Emif_Design* design,
                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DictionaryAddDesign", err);
  EERR_FAIL_IF_NULL(dictionary, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  try {
    if (dictionary->dict.Add(design->impl)) dictionary->changed = true;
  } catch (const std::bad_alloc&) {
    EERR_FAIL(frame, EMSC_FALSE, L"Out of memory");
  }
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

const Emif_Design* emif_FindDesignByName(const Emif_Dictionary* dictionary,
                                         const Etxt_Char* name) KZDV_NOEXCEPT try {
  if (!dictionary || !name) return nullptr;
  Emif_Dictionary* d = const_cast<Emif_Dictionary*>(dictionary);
  return d->Handle(d->dict.Find(kzdv::ToUtf8(name)));
}
EERR_BOUNDARY(nullptr, nullptr)

const Emif_Design* emif_DesignFetch(const Emif_Dictionary* dictionary, const Etxt_Char* name,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DesignFetch", err);
  EERR_FAIL_IF_NULL(dictionary, frame, nullptr);
  EERR_FAIL_IF_NULL(name, frame, nullptr);
  const Emif_Design* d = emif_FindDesignByName(dictionary, name);
  EERR_FAIL_IF(!d, frame, nullptr, L"Design %s is not in the dictionary", name);
  return d;
}
EERR_BOUNDARY(err, nullptr)

int emif_DictionaryDesignCount(const Emif_Dictionary* dictionary) KZDV_NOEXCEPT {
  return dictionary ? static_cast<int>(dictionary->dict.designs().size()) : 0;
}

const Emif_Design* emif_DictionaryDesignGet(const Emif_Dictionary* dictionary,
                                            int index) KZDV_NOEXCEPT {
  if (!dictionary || index < 0 || index >= emif_DictionaryDesignCount(dictionary)) return nullptr;
  Emif_Dictionary* d = const_cast<Emif_Dictionary*>(dictionary);
  return d->Handle(d->dict.designs()[static_cast<size_t>(index)]);
}

char* emif_DictionaryTextGet(const Emif_Dictionary* dictionary,
                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DictionaryTextGet", err);
  EERR_FAIL_IF_NULL(dictionary, frame, nullptr);
  const std::string t = dictionary->dict.Text();
  char* out = static_cast<char*>(emsc_MemDup(t.c_str(), t.size() + 1));
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  return out;
}
EERR_BOUNDARY(err, nullptr)

Emif_Dictionary* emif_DictionaryFromText(const char* text, size_t length,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_DictionaryFromText", err);
  EERR_FAIL_IF_NULL(text, frame, nullptr);
  std::unique_ptr<Emif_Dictionary> d(new (std::nothrow) Emif_Dictionary);
  EERR_FAIL_IF(!d, frame, nullptr, L"Out of memory");
  std::string error;
  EERR_FAIL_IF(!Dictionary::Parse(text, length, &d->dict, &error), frame, nullptr, L"%s",
               KZDV_W(error));
  return d.release();
}
EERR_BOUNDARY(err, nullptr)
