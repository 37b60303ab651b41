// Objects of a design: create, free, copy, encode, decode, and the MIF form
// (design name, dictionary text, packed bytes) that lets an object travel
// inside another object or a file without its dictionary.
#include <cstring>
#include <cwchar>

#include "platform/eerr/error_frame.h"
#include "platform/emif/dictionary_internal.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

using kzdv::ErrorFrame;
using namespace kzdv::mif;

void* emif_ObjectCreate(const Emif_Design* design, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectCreate", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  void* rec = emsc_HeapCalloc(1, design->impl->size);
  EERR_FAIL_IF(!rec, frame, nullptr, L"Out of memory");
  return rec;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean emif_ObjectContentsFree(const Emif_Design* design, void* object,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectContentsFree", err);
  EERR_FAIL_IF(!design && object, frame, EMSC_FALSE, L"Args: design is null");
  if (object) FreeContents(*design->impl, object);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean emif_ObjectFree(const Emif_Design* design, void* object,
                             Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectFree", err);
  if (!object) return EMSC_TRUE;
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  FreeContents(*design->impl, object);
  emsc_HeapFree(object);
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

void* emif_ObjectCopy(const Emif_Design* design, const void* object,
                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectCopy", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  EERR_FAIL_IF_NULL(object, frame, nullptr);
  kzdv::HeapPtr<void> rec(emsc_HeapMalloc(design->impl->size));
  EERR_FAIL_IF(!rec, frame, nullptr, L"Out of memory");
  std::string error;
  EERR_FAIL_IF(!CopyContents(*design->impl, object, rec.get(), &error), frame, nullptr, L"%s",
               KZDV_W(error));
  return rec.release();
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean emif_ObjectCopyContents(const Emif_Design* design, const void* source, void* target,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectCopyContents", err);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(source, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(target, frame, EMSC_FALSE);
  std::string error;
  EERR_FAIL_IF(!CopyContents(*design->impl, source, target, &error), frame, EMSC_FALSE, L"%s",
               KZDV_W(error));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean emif_ObjectConvert(const Emif_Design* from, const void* source, const Emif_Design* to,
                                void* target, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectConvert", err);
  EERR_FAIL_IF_NULL(from, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(source, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(to, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(target, frame, EMSC_FALSE);
  std::string error;
  EERR_FAIL_IF(!Convert(*from->impl, source, *to->impl, target, &error), frame, EMSC_FALSE,
               L"Cannot convert design %s to %s: %s", from->impl->wname.c_str(),
               to->impl->wname.c_str(), KZDV_W(error));
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

unsigned char* emif_ObjectEncode(const Emif_Design* design, const void* object,
                                 uint32_t base_offset, uint32_t* size,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectEncode", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  EERR_FAIL_IF_NULL(object, frame, nullptr);
  EERR_FAIL_IF_NULL(size, frame, nullptr);
  std::vector<uint8_t> bytes;
  std::string error;
  EERR_FAIL_IF(!Encode(*design->impl, object, base_offset, &bytes, &error), frame, nullptr,
               L"Cannot encode an object of design %s: %s", design->impl->wname.c_str(),
               KZDV_W(error));
  unsigned char* out = static_cast<unsigned char*>(emsc_MemDup(bytes.data(), bytes.size()));
  EERR_FAIL_IF(!out, frame, nullptr, L"Out of memory");
  *size = static_cast<uint32_t>(bytes.size());
  return out;
}
EERR_BOUNDARY(err, nullptr)

void* emif_ObjectDecode(const Emif_Design* design, const unsigned char* bytes, size_t size,
                        Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_ObjectDecode", err);
  EERR_FAIL_IF_NULL(design, frame, nullptr);
  EERR_FAIL_IF(!bytes && size > 0, frame, nullptr, L"Args: bytes is null");
  void* rec = emsc_HeapCalloc(1, design->impl->size);
  EERR_FAIL_IF(!rec, frame, nullptr, L"Out of memory");
  std::string error;
  static const unsigned char kNone = 0;
  if (!Decode(*design->impl, bytes ? bytes : &kNone, size, rec, &error)) {
    FreeContents(*design->impl, rec);
    emsc_HeapFree(rec);
    EERR_FAIL(frame, nullptr, L"Cannot decode an object of design %s: %s",
              design->impl->wname.c_str(), KZDV_W(error));
  }
  return rec;
}
EERR_BOUNDARY(err, nullptr)

// ---- MIF form ------------------------------------------------------------

static bool SetCountedText(const std::wstring& s, Emif_CountedString* out) {
  Etxt_Char* t = static_cast<Etxt_Char*>(emsc_HeapMalloc((s.size() + 1) * sizeof(Etxt_Char)));
  if (!t) return false;
  std::wmemcpy(t, s.c_str(), s.size() + 1);
  out->count = static_cast<int32_t>(s.size() + 1);
  out->data = t;
  return true;
}

static std::wstring CountedText(const Emif_CountedString* s) {
  if (!s || s->count <= 0 || !s->data) return std::wstring();
  size_t n = 0;
  while (n + 1 < static_cast<size_t>(s->count) && s->data[n] != 0) ++n;
  return std::wstring(s->data, n);
}

Emsc_Boolean emif_MIFableObjectConvertToMIF(const Emif_Design* design, const void* object,
                                            Emif_CountedString* design_name,
                                            Emif_CountedString* dictionary,
                                            Emif_CountedBytes* bytes,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  ErrorFrame frame(L"emif_MIFableObjectConvertToMIF", err);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(design_name, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(dictionary, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(bytes, frame, EMSC_FALSE);
  std::vector<uint8_t> packed;
  std::string error;
  EERR_FAIL_IF(!Encode(*design->impl, object, 0, &packed, &error), frame, EMSC_FALSE,
               L"Cannot encode an object of design %s: %s", design->impl->wname.c_str(),
               KZDV_W(error));
  Dictionary dict;
  dict.Add(design->impl);
  Emif_CountedString name{}, text{};
  Emif_CountedBytes data{};
  bool ok = SetCountedText(design->impl->wname, &name) &&
            SetCountedText(kzdv::FromUtf8(dict.Text()), &text);
  if (ok && !packed.empty()) {
    data.data = static_cast<unsigned char*>(emsc_MemDup(packed.data(), packed.size()));
    data.count = static_cast<int32_t>(packed.size());
    ok = data.data != nullptr;
  }
  if (!ok) {
    emsc_HeapFree(name.data);
    emsc_HeapFree(text.data);
    emsc_HeapFree(data.data);
    EERR_FAIL(frame, EMSC_FALSE, L"Out of memory");
  }
  *design_name = name;
  *dictionary = text;
  *bytes = data;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

Emsc_Boolean emif_MIFableObjectConvertFromMIF(const Emif_CountedString* design_name,
                                              const Emif_CountedString* dictionary,
                                              const Emif_CountedBytes* bytes, Emif_Design** design,
                                              void** object, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  ErrorFrame frame(L"emif_MIFableObjectConvertFromMIF", err);
  EERR_FAIL_IF_NULL(design_name, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(dictionary, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(bytes, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(design, frame, EMSC_FALSE);
  EERR_FAIL_IF_NULL(object, frame, EMSC_FALSE);
  *design = nullptr;
  *object = nullptr;
  const std::wstring name = CountedText(design_name);
  const std::string text = kzdv::ToUtf8(CountedText(dictionary));
  EERR_FAIL_IF(name.empty(), frame, EMSC_FALSE, L"The MIF object has no design name");
  Dictionary dict;
  std::string error;
  EERR_FAIL_IF(!Dictionary::Parse(text.c_str(), text.size(), &dict, &error), frame, EMSC_FALSE,
               L"%s", KZDV_W(error));
  DesignRef d = dict.Find(kzdv::ToUtf8(name));
  if (!d) {
    const std::string why = dict.Unusable(kzdv::ToUtf8(name));
    EERR_FAIL(frame, EMSC_FALSE, L"The MIF dictionary does not define design %s%s", name.c_str(),
              KZDV_W(why.empty() ? std::string() : " (" + why + ")"));
  }
  std::unique_ptr<Emif_Design> handle(new (std::nothrow) Emif_Design);
  EERR_FAIL_IF(!handle, frame, EMSC_FALSE, L"Out of memory");
  handle->impl = d;
  const size_t n = bytes->count > 0 && bytes->data ? static_cast<size_t>(bytes->count) : 0;
  void* rec = emif_ObjectDecode(handle.get(), bytes->data, n, frame.Callee());
  EERR_CHECK(rec, frame, EMSC_FALSE, L"emif_ObjectDecode failed");
  *design = handle.release();
  *object = rec;
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)
