// Designs, dictionaries and the object codec. Truth: the C compiler's struct
// layout (offsetof), the dictionary text GDAL writes into its HFA files, and
// hand-built packed bytes of the public format.
#include "emif.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

namespace {

struct ErrGuard {
  Eerr_ErrorReport* e = nullptr;
  ~ErrGuard() { eerr_DeleteErrorReport(e); }
  Eerr_ErrorReport** operator&() { return &e; }
  std::wstring Text() const { return kzdv::ReportText(e); }
};

// True when some link of the chain mentions `part`.
bool Mentions(const Eerr_ErrorReport* e, const std::wstring& part) {
  return kzdv::ReportText(e).find(part) != std::wstring::npos;
}

using DesignPtr = std::unique_ptr<Emif_Design, void (*)(Emif_Design*)>;
DesignPtr Own(Emif_Design* d) { return DesignPtr(d, emif_DesignDestroy); }

// A record the way a caller declares it; the design must agree with the C
// compiler on every offset.
struct Color3 {
  float rgb[3];
};
struct Sub {
  int32_t id;
  double value;
};
struct Everything {
  int32_t id;                   // 0xc
  Emif_CountedString text;      // 0x208
  double x;                     // 0xe
  int32_t flag;                 // 3
  float color[3];               // 0x10d
  double affine[6];             // 0x10e
  Emif_CountedLongs ints;       // 0x20c
  Emif_CountedDoubles doubles;  // 0x20e
  Emif_CountedBytes bytes;      // 0x207
  Emif_CountedObjects subs;     // 0x202
  Sub* pointed;                 // 0x402
  Sub inplace;                  // 0x002
  float f;                      // 0xd
  uint16_t u16;                 // 0x009
  Sub* pointed_too;             // 1
};

DesignPtr SubDesign() {
  ErrGuard err;
  DesignPtr d = Own(emif_DesignCreate(L"Sub", 0xc, L"id", 0xe, L"value", 0, &err));
  EXPECT_TRUE(d) << err.Text();
  return d;
}

DesignPtr EverythingDesign(const Emif_Design* sub) {
  ErrGuard err;
  DesignPtr d = Own(emif_DesignCreate(
      L"Everything", 0xc, L"id", 0x208, L"text", 0xe, L"x", 3, L"flag", L"FALSE", L"TRUE",
      (Etxt_Char*)nullptr, 0x10d, L"color", 3, 0x10e, L"affine", 6, 0x20c, L"ints", 0x20e,
      L"doubles", 0x207, L"bytes", 0x202, L"subs", sub, 0x402, L"pointed", sub, 0x002, L"inplace",
      sub, 0xd, L"f", 0x009, L"u16", 1, L"pointed_too", sub, 0, &err));
  EXPECT_TRUE(d) << err.Text();
  return d;
}

TEST(EmifDesign, MemoryLayoutMatchesTheCompiler) {
  DesignPtr sub = SubDesign();
  DesignPtr d = EverythingDesign(sub.get());
  ASSERT_TRUE(d);
  EXPECT_EQ(emif_DesignSizeGet(d.get()), sizeof(Everything));
  EXPECT_EQ(emif_DesignSizeGet(sub.get()), sizeof(Sub));
  const size_t expected[] = {
      offsetof(Everything, id),   offsetof(Everything, text),    offsetof(Everything, x),
      offsetof(Everything, flag), offsetof(Everything, color),   offsetof(Everything, affine),
      offsetof(Everything, ints), offsetof(Everything, doubles), offsetof(Everything, bytes),
      offsetof(Everything, subs), offsetof(Everything, pointed), offsetof(Everything, inplace),
      offsetof(Everything, f),    offsetof(Everything, u16),     offsetof(Everything, pointed_too)};
  ASSERT_EQ(emif_DesignFieldCount(d.get()), 15);
  for (int i = 0; i < 15; ++i) {
    Emif_FieldInfo info;
    ASSERT_TRUE(emif_DesignFieldGet(d.get(), i, &info));
    EXPECT_EQ(info.offset, expected[i]) << "field " << i;
  }
  Emif_FieldInfo flag;
  ASSERT_TRUE(emif_DesignFieldFind(d.get(), L"flag", &flag));
  ASSERT_EQ(flag.enum_count, 2);
  EXPECT_STREQ(flag.enum_names[1], L"TRUE");
  EXPECT_EQ(flag.enum_names[2], nullptr);
}

// The projection records as GDAL's HFA driver writes them (copied from the
// dictionary of a file made by gdal_create -of HFA).
const char kGdalSpheroid[] = "{0:pcsphereName,1:da,1:db,1:deSquared,1:dradius,}Eprj_Spheroid,";
const char kGdalProParameters[] =
    "{1:e2:EPRJ_INTERNAL,EPRJ_EXTERNAL,proType,1:lproNumber,0:pcproExeName,0:pcproName,"
    "1:lproZone,0:pdproParams,1:*oEprj_Spheroid,proSpheroid,}Eprj_ProParameters,";

TEST(EmifDesign, TextMatchesWhatGdalWrites) {
  ErrGuard err;
  DesignPtr sph = Own(emif_DesignCreate(L"Eprj_Spheroid", 0x208, L"sphereName", 0xe, L"a", 0xe,
                                        L"b", 0xe, L"eSquared", 0xe, L"radius", 0, &err));
  ASSERT_TRUE(sph) << err.Text();
  DesignPtr pro = Own(emif_DesignCreate(
      L"Eprj_ProParameters", 3, L"proType", L"EPRJ_INTERNAL", L"EPRJ_EXTERNAL", (Etxt_Char*)nullptr,
      0xb, L"proNumber", 0x208, L"proExeName", 0x208, L"proName", 0xb, L"proZone", 0x20e,
      L"proParams", 0x401, L"proSpheroid", sph.get(), 0, &err));
  ASSERT_TRUE(pro) << err.Text();
  char* t1 = emif_DesignTextGet(sph.get(), &err);
  char* t2 = emif_DesignTextGet(pro.get(), &err);
  EXPECT_STREQ(t1, kGdalSpheroid);
  EXPECT_STREQ(t2, kGdalProParameters);
  emsc_HeapFree(t1);
  emsc_HeapFree(t2);
}

TEST(EmifDesign, BadFieldListsAreReported) {
  DesignPtr sub = SubDesign();
  ErrGuard e1, e2, e3, e4;
  EXPECT_FALSE(Own(emif_DesignCreate(L"X", 0x77, L"a", 0, &e1)));
  EXPECT_TRUE(Mentions(e1.e, L"Unknown type code 119 of field a")) << e1.Text();
  EXPECT_FALSE(Own(emif_DesignCreate(L"X", 0xc, L"a", 0xe, L"a", 0, &e2)));
  EXPECT_FALSE(Own(emif_DesignCreate(L"X", 0x402, L"p", (Emif_Design*)nullptr, 0, &e3)));
  EXPECT_FALSE(Own(emif_DesignCreate(L"X", 0x10e, L"arr", 0, 0, &e4)));
  EXPECT_TRUE(e2.e && e3.e && e4.e);
}

// Fills every kind of field, with non-ASCII text, so that a round trip
// through bytes and a deep copy can be compared field by field.
void Fill(Everything* r, const Emif_Design* sub) {
  (void)sub;
  std::memset(r, 0, sizeof *r);
  r->id = -42;
  static const wchar_t kText[] = L"Grün ∆ photo";
  r->text.count = static_cast<int32_t>(wcslen(kText) + 1);
  r->text.data = static_cast<Etxt_Char*>(emsc_MemDup(kText, sizeof kText));
  r->x = 1234.5678901234;
  r->flag = 1;
  r->color[0] = 0.25f, r->color[1] = 0.5f, r->color[2] = 1.0f;
  for (int i = 0; i < 6; ++i) r->affine[i] = i * 1.5 - 2;
  r->ints.count = 3;
  r->ints.data = static_cast<int32_t*>(emsc_HeapMalloc(3 * sizeof(int32_t)));
  r->ints.data[0] = 7, r->ints.data[1] = -8, r->ints.data[2] = 2147483647;
  r->doubles.count = 2;
  r->doubles.data = static_cast<double*>(emsc_HeapMalloc(2 * sizeof(double)));
  r->doubles.data[0] = 1e-300, r->doubles.data[1] = -0.0;
  r->bytes.count = 4;
  r->bytes.data = static_cast<unsigned char*>(emsc_MemDup("\x00\xff\x10\x80", 4));
  r->subs.count = 2;
  Sub* subs = static_cast<Sub*>(emsc_HeapMalloc(2 * sizeof(Sub)));
  subs[0] = {1, 0.5};
  subs[1] = {2, -0.5};
  r->subs.data = subs;
  r->pointed = static_cast<Sub*>(emsc_HeapMalloc(sizeof(Sub)));
  *r->pointed = {99, 3.25};
  r->inplace = {5, 6.5};
  r->f = -3.5f;
  r->u16 = 65535;
  r->pointed_too = nullptr;
}

void ExpectSame(const Everything& a, const Everything& b) {
  EXPECT_EQ(a.id, b.id);
  ASSERT_EQ(a.text.count, b.text.count);
  EXPECT_EQ(std::wstring(a.text.data), std::wstring(b.text.data));
  EXPECT_EQ(a.x, b.x);
  EXPECT_EQ(a.flag, b.flag);
  EXPECT_EQ(0, std::memcmp(a.color, b.color, sizeof a.color));
  EXPECT_EQ(0, std::memcmp(a.affine, b.affine, sizeof a.affine));
  ASSERT_EQ(a.ints.count, b.ints.count);
  EXPECT_EQ(0, std::memcmp(a.ints.data, b.ints.data, 3 * sizeof(int32_t)));
  ASSERT_EQ(a.doubles.count, b.doubles.count);
  EXPECT_EQ(a.doubles.data[0], b.doubles.data[0]);
  EXPECT_TRUE(std::signbit(b.doubles.data[1]));
  ASSERT_EQ(a.bytes.count, b.bytes.count);
  EXPECT_EQ(0, std::memcmp(a.bytes.data, b.bytes.data, 4));
  ASSERT_EQ(a.subs.count, b.subs.count);
  const Sub* sa = static_cast<const Sub*>(a.subs.data);
  const Sub* sb = static_cast<const Sub*>(b.subs.data);
  EXPECT_EQ(sa[1].id, sb[1].id);
  EXPECT_EQ(sa[1].value, sb[1].value);
  ASSERT_TRUE(b.pointed);
  EXPECT_EQ(a.pointed->id, b.pointed->id);
  EXPECT_EQ(a.pointed->value, b.pointed->value);
  EXPECT_EQ(a.inplace.id, b.inplace.id);
  EXPECT_EQ(a.f, b.f);
  EXPECT_EQ(a.u16, b.u16);
  EXPECT_EQ(b.pointed_too, nullptr);
}

TEST(EmifObject, EncodeDecodeCopyAndFreeRoundTrip) {
  DesignPtr sub = SubDesign();
  DesignPtr d = EverythingDesign(sub.get());
  Everything r;
  Fill(&r, sub.get());
  ErrGuard err;
  uint32_t size = 0;
  unsigned char* bytes = emif_ObjectEncode(d.get(), &r, 1000, &size, &err);
  ASSERT_TRUE(bytes) << err.Text();
  // Packed, little-endian, in field order: id first, then the string's count
  // (UTF-8 bytes + 1) and its absolute offset (1000 + 4 + 8), then the text.
  int32_t id;
  std::memcpy(&id, bytes, 4);
  EXPECT_EQ(id, -42);
  uint32_t count, offset;
  std::memcpy(&count, bytes + 4, 4);
  std::memcpy(&offset, bytes + 8, 4);
  const std::string utf8 = kzdv::ToUtf8(r.text.data);
  EXPECT_EQ(count, utf8.size() + 1);
  EXPECT_EQ(offset, 1012u);
  EXPECT_EQ(0, std::memcmp(bytes + 12, utf8.c_str(), utf8.size() + 1));

  Everything* back = static_cast<Everything*>(emif_ObjectDecode(d.get(), bytes, size, &err));
  ASSERT_TRUE(back) << err.Text();
  ExpectSame(r, *back);
  Everything* copy = static_cast<Everything*>(emif_ObjectCopy(d.get(), back, &err));
  ASSERT_TRUE(copy);
  ExpectSame(r, *copy);
  EXPECT_NE(copy->text.data, back->text.data);
  EXPECT_TRUE(emif_ObjectFree(d.get(), back, &err));
  EXPECT_TRUE(emif_ObjectFree(d.get(), copy, &err));
  EXPECT_TRUE(emif_ObjectContentsFree(d.get(), &r, &err));
  EXPECT_EQ(r.text.data, nullptr);
  emsc_HeapFree(bytes);
}

TEST(EmifObject, DamagedBytesAreReportedWithoutLargeAllocations) {
  DesignPtr sub = SubDesign();
  DesignPtr d = EverythingDesign(sub.get());
  Everything r;
  Fill(&r, sub.get());
  ErrGuard err;
  uint32_t size = 0;
  unsigned char* bytes = emif_ObjectEncode(d.get(), &r, 0, &size, &err);
  ASSERT_TRUE(bytes);
  // Every truncation fails cleanly.
  for (uint32_t n = 0; n < size; ++n) {
    ErrGuard e;
    void* obj = emif_ObjectDecode(d.get(), bytes, n, &e);
    EXPECT_EQ(obj, nullptr) << n;
    EXPECT_TRUE(e.e) << n;
  }
  // An absurd string count.
  std::vector<unsigned char> bad(bytes, bytes + size);
  const uint32_t huge = 0xfffffff0u;
  std::memcpy(bad.data() + 4, &huge, 4);
  ErrGuard e;
  EXPECT_EQ(emif_ObjectDecode(d.get(), bad.data(), bad.size(), &e), nullptr);
  EXPECT_TRUE(Mentions(e.e, L"exceeds the data")) << e.Text();
  emsc_HeapFree(bytes);
  emif_ObjectContentsFree(d.get(), &r, nullptr);
}

// The dictionary GDAL 3.6 writes into every HFA file (taken verbatim from
// one), including inline definitions ("1:x{...}Emif_String,type,").
const char kGdalDictionary[] =
    "{1:lversion,1:LfreeList,1:LrootEntryPtr,1:sentryHeaderLength,1:LdictionaryPtr,}Ehfa_File,"
    "{1:Lnext,1:Lprev,1:Lparent,1:Lchild,1:Ldata,1:ldataSize,64:cname,32:ctype,1:tmodTime,}"
    "Ehfa_Entry,{1:lwidth,1:lheight,1:e3:thematic,athematic,fft of real-valued data,layerType,"
    "1:e13:u1,u2,u4,u8,s8,u16,s16,u32,s32,f32,f64,c64,c128,pixelType,1:lblockWidth,"
    "1:lblockHeight,}Eimg_Layer,{1:sfileCode,1:Loffset,1:lsize,1:e2:false,true,logvalid,"
    "1:e2:no compression,ESRI GRID compression,compressionType,}Edms_VirtualBlockInfo,"
    "{1:lmin,1:lmax,}Edms_FreeIDList,{1:lnumvirtualblocks,1:lnumobjectsperblock,"
    "1:lnextobjectnum,1:e2:no compression,RLC compression,compressionType,"
    "0:poEdms_VirtualBlockInfo,blockinfo,0:poEdms_FreeIDList,freelist,1:tmodTime,}Edms_State,"
    "{0:pcstring,}Emif_String,{1:oEmif_String,algorithm,0:poEmif_String,nameList,}"
    "Eimg_RRDNamesList,{1:*bvalueBD,}Eimg_NonInitializedValue,{1:dx,1:dy,}Eprj_Coordinate,"
    "{1:dwidth,1:dheight,}Eprj_Size,{0:pcproName,1:*oEprj_Coordinate,upperLeftCenter,"
    "1:*oEprj_Coordinate,lowerRightCenter,1:*oEprj_Size,pixelSize,0:pcunits,}Eprj_MapInfo,"
    "{1:x{0:pcstring,}Emif_String,type,1:x{0:pcstring,}Emif_String,MIFDictionary,"
    "0:pCMIFObject,}Emif_MIFObject,{1:x{1:x{0:pcstring,}Emif_String,type,1:x{0:pcstring,}"
    "Emif_String,MIFDictionary,0:pCMIFObject,}Emif_MIFObject,projection,1:x{0:pcstring,}"
    "Emif_String,title,}Eprj_MapProjection842,.";

TEST(EmifDictionary, ParsesGdalDictionaryAndWritesItBack) {
  ErrGuard err;
  Emif_Dictionary* dict = emif_DictionaryFromText(kGdalDictionary, sizeof kGdalDictionary, &err);
  ASSERT_TRUE(dict) << err.Text();
  for (const wchar_t* name :
       {L"Ehfa_Entry", L"Eimg_Layer", L"Edms_State", L"Eimg_RRDNamesList", L"Eprj_MapInfo",
        L"Emif_MIFObject", L"Eprj_MapProjection842", L"Eimg_NonInitializedValue"}) {
    EXPECT_TRUE(emif_FindDesignByName(dict, name)) << name;
  }
  const Emif_Design* layer = emif_FindDesignByName(dict, L"Eimg_Layer");
  Emif_FieldInfo pt;
  ASSERT_TRUE(emif_DesignFieldFind(layer, L"pixelType", &pt));
  EXPECT_EQ(pt.enum_count, 13);
  EXPECT_STREQ(pt.enum_names[5], L"u16");
  const Emif_Design* state = emif_FindDesignByName(dict, L"Edms_State");
  Emif_FieldInfo blocks;
  ASSERT_TRUE(emif_DesignFieldFind(state, L"blockinfo", &blocks));
  EXPECT_EQ(blocks.code, 0x202);
  // Written back and parsed again: the same designs.
  char* text = emif_DictionaryTextGet(dict, &err);
  Emif_Dictionary* again = emif_DictionaryFromText(text, strlen(text), &err);
  ASSERT_TRUE(again) << err.Text();
  ASSERT_EQ(emif_DictionaryDesignCount(again), emif_DictionaryDesignCount(dict));
  for (int i = 0; i < emif_DictionaryDesignCount(dict); ++i) {
    const Emif_Design* a = emif_DictionaryDesignGet(dict, i);
    EXPECT_TRUE(emif_DesignsEqual(a, emif_FindDesignByName(again, emif_DesignNameGet(a))));
  }
  emsc_HeapFree(text);
  emif_DictionaryDestroy(again);
  emif_DictionaryDestroy(dict);
}

TEST(EmifDictionary, DamagedTextIsReportedOrLeftOut) {
  // Syntax errors fail the whole text.
  for (const char* bad : {"{1:lx,", "{1:lx,}", "{99999999999:lx,}A,.", "{1:e5:a,b,x,}A,.",
                          "{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{1:x{"
                          "1:lx,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}A,a,}"
                          "A,a,}A,a,}A,a,}A,a,}A,.",
                          "{1:lx}A,."}) {
    ErrGuard err;
    Emif_Dictionary* d = emif_DictionaryFromText(bad, strlen(bad), &err);
    EXPECT_EQ(d, nullptr) << bad;
    EXPECT_TRUE(Mentions(err.e, L"Bad dictionary text")) << bad;
    emif_DictionaryDestroy(d);
  }
  // Unknown type characters and designs make just that design unusable.
  const char text[] = "{1:lok,}Good,{1:qx,}Strange,{1:oMissing,m,}Orphan,{1:oSelf,s,}Self,.";
  ErrGuard err;
  Emif_Dictionary* d = emif_DictionaryFromText(text, sizeof text, &err);
  ASSERT_TRUE(d) << err.Text();
  EXPECT_TRUE(emif_FindDesignByName(d, L"Good"));
  EXPECT_FALSE(emif_FindDesignByName(d, L"Strange"));
  EXPECT_FALSE(emif_FindDesignByName(d, L"Orphan"));
  EXPECT_FALSE(emif_FindDesignByName(d, L"Self"));
  ErrGuard fetch;
  EXPECT_FALSE(emif_DesignFetch(d, L"Orphan", &fetch));
  EXPECT_TRUE(kzdv::ReportContains(fetch.e, L"Design Orphan is not in the dictionary"));
  emif_DictionaryDestroy(d);
}

TEST(EmifMIF, ObjectTravelsWithItsDictionary) {
  DesignPtr sub = SubDesign();
  DesignPtr d = EverythingDesign(sub.get());
  Everything r;
  Fill(&r, sub.get());
  Emif_CountedString name{}, dict{};
  Emif_CountedBytes bytes{};
  ErrGuard err;
  ASSERT_TRUE(emif_MIFableObjectConvertToMIF(d.get(), &r, &name, &dict, &bytes, &err))
      << err.Text();
  EXPECT_EQ(std::wstring(name.data), L"Everything");
  EXPECT_EQ(name.count, 11);
  // The dictionary defines the used design before the user.
  const std::wstring text = dict.data;
  EXPECT_LT(text.find(L"}Sub,"), text.find(L"}Everything,"));
  Emif_Design* back_design = nullptr;
  void* back = nullptr;
  ASSERT_TRUE(emif_MIFableObjectConvertFromMIF(&name, &dict, &bytes, &back_design, &back, &err))
      << err.Text();
  EXPECT_TRUE(emif_DesignsEqual(back_design, d.get()));
  ExpectSame(r, *static_cast<Everything*>(back));
  emif_ObjectFree(back_design, back, nullptr);
  emif_DesignDestroy(back_design);
  emsc_HeapFree(name.data);
  emsc_HeapFree(dict.data);
  emsc_HeapFree(bytes.data);
  emif_ObjectContentsFree(d.get(), &r, nullptr);
}

}  // namespace

namespace {

TEST(EmifObject, ConvertsBetweenLayoutsByFieldName) {
  // An older layout: fewer fields, an int where a double is now, a sub-object
  // with one field less.
  ErrGuard err;
  DesignPtr old_sub = Own(emif_DesignCreate(L"Sub", 0xc, L"id", 0, &err));
  DesignPtr old_d = Own(emif_DesignCreate(L"Rec", 0xc, L"a", 0xc, L"scale", 0x208, L"name", 0x202,
                                          L"subs", old_sub.get(), 0xc, L"gone", 0, &err));
  DesignPtr new_sub = SubDesign();  // id, value
  DesignPtr new_d = Own(emif_DesignCreate(L"Rec", 0xe, L"scale", 0xc, L"a", 0x208, L"name", 0x202,
                                          L"subs", new_sub.get(), 0x20e, L"added", 0, &err));
  ASSERT_TRUE(old_d && new_d) << err.Text();
  struct Old {
    int32_t a, scale;
    Emif_CountedString name;
    Emif_CountedObjects subs;
    int32_t gone;
  };
  struct New {
    double scale;
    int32_t a;
    Emif_CountedString name;
    Emif_CountedObjects subs;
    Emif_CountedDoubles added;
  };
  int32_t old_subs[2] = {11, 12};
  Old o{5, -3, {4, const_cast<Etxt_Char*>(L"abc")}, {2, old_subs}, 9};
  New n;
  ASSERT_TRUE(emif_ObjectConvert(old_d.get(), &o, new_d.get(), &n, &err)) << err.Text();
  EXPECT_EQ(n.a, 5);
  EXPECT_EQ(n.scale, -3.0);
  EXPECT_EQ(std::wstring(n.name.data), L"abc");
  ASSERT_EQ(n.subs.count, 2);
  EXPECT_EQ(static_cast<Sub*>(n.subs.data)[1].id, 12);
  EXPECT_EQ(static_cast<Sub*>(n.subs.data)[1].value, 0.0);
  EXPECT_EQ(n.added.count, 0);
  // Back again: a double rounds into the int.
  n.scale = 2.6;
  Old back;
  ASSERT_TRUE(emif_ObjectConvert(new_d.get(), &n, old_d.get(), &back, &err));
  EXPECT_EQ(back.scale, 3);
  EXPECT_EQ(back.gone, 0);
  emif_ObjectContentsFree(new_d.get(), &n, nullptr);
  emif_ObjectContentsFree(old_d.get(), &back, nullptr);
}

}  // namespace

namespace {

// A chain of designs deeper than the limit is reported as too deep, a real
// cycle as a design that contains itself.
TEST(EmifMIF, DeepChainsAndCyclesAreToldApart) {
  auto convert = [](const std::wstring& top, const std::wstring& text) {
    Emif_CountedString name{static_cast<int32_t>(top.size() + 1),
                            const_cast<wchar_t*>(top.c_str())};
    Emif_CountedString dict{static_cast<int32_t>(text.size() + 1),
                            const_cast<wchar_t*>(text.c_str())};
    unsigned char none[1] = {0};
    Emif_CountedBytes bytes{0, none};
    Emif_Design* design = nullptr;
    void* object = nullptr;
    ErrGuard err;
    EXPECT_FALSE(emif_MIFableObjectConvertFromMIF(&name, &dict, &bytes, &design, &object, &err));
    return err.Text();
  };
  // Users before the designs they use, so the chain is followed from its top.
  std::wstring deep;
  for (int i = 40; i >= 1; --i)
    deep += L"{1:oD" + std::to_wstring(i - 1) + L",x,}D" + std::to_wstring(i) + L",";
  deep += L"{1:lx,}D0,.";
  const std::wstring deep_report = convert(L"D40", deep);
  EXPECT_NE(deep_report.find(L"is nested deeper than 32 levels"), std::wstring::npos)
      << deep_report;
  EXPECT_EQ(deep_report.find(L"contains itself"), std::wstring::npos) << deep_report;

  const std::wstring cycle_report = convert(L"A", L"{1:oB,b,}A,{1:oC,c,}B,{1:oA,a,}C,.");
  EXPECT_NE(cycle_report.find(L"contains itself"), std::wstring::npos) << cycle_report;
  EXPECT_EQ(cycle_report.find(L"deeper"), std::wstring::npos) << cycle_report;
}

}  // namespace
