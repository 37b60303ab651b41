// The object-codec interface the modules above emif use. Truth: the C
// compiler's sizes, packed bytes laid out by hand, and the public emif calls.
#include "platform/emif/object_codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/emif/byte_order.h"

namespace {

namespace mif = kzdv::mif;

using DesignPtr = std::unique_ptr<Emif_Design, void (*)(Emif_Design*)>;
DesignPtr Own(Emif_Design* d) { return DesignPtr(d, emif_DesignDestroy); }

struct Sub {
  int32_t id;
  double value;
};

DesignPtr SubDesign() {
  return Own(emif_DesignCreate(L"Sub", 0xc, L"id", 0xe, L"value", 0, nullptr));
}

TEST(ObjectCodec, ElementSizesAreTheCompilersForEveryTypeAndShape) {
  DesignPtr sub = SubDesign();
  ASSERT_TRUE(sub);
  struct Row {
    int code;
    size_t expected;
  };
  const Row rows[] = {
      {0x0c, sizeof(int32_t)},    {0x0b, sizeof(uint32_t)},   {0x0d, sizeof(float)},
      {0x0e, sizeof(double)},     {0x09, sizeof(uint16_t)},   {0x0a, sizeof(int16_t)},
      {0x07, sizeof(uint8_t)},    {0x08, sizeof(char)},       {0x04, sizeof(uint32_t)},
      {0x0f, 2 * sizeof(float)},  {0x10, 2 * sizeof(double)}, {0x05, sizeof(Emif_BaseData)},
      {0x208, sizeof(Etxt_Char)}, {0x207, sizeof(uint8_t)},   {0x20c, sizeof(int32_t)},
      {0x20e, sizeof(double)},    {0x10e, sizeof(double)},    {0x10d, sizeof(float)},
      {0x108, sizeof(char)},      {0x202, sizeof(Sub)},       {0x402, sizeof(Sub)},
      {0x001, sizeof(Sub)},       {0x002, sizeof(Sub)},       {0x405, sizeof(Emif_BaseData)},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE("code " + std::to_string(r.code));
    Emif_FieldSpec field_spec{};
    field_spec.code = r.code;
    field_spec.name = L"f";
    field_spec.fixed_count = 3;
    const int base = r.code & 0xff;
    if (base == EMIF_T_OBJECT || base == EMIF_T_OBJECT_PTR) field_spec.design = sub.get();
    DesignPtr d = Own(emif_DesignCreateFromFields(L"One", &field_spec, 1, nullptr));
    ASSERT_TRUE(d);
    Emif_FieldInfo info;
    ASSERT_TRUE(emif_DesignFieldGet(d.get(), 0, &info));
    EXPECT_EQ(mif::ElementSize(info), r.expected);
    if (r.code & EMIF_M_FIXED) {
      EXPECT_EQ(mif::ElementSize(info) * 3, info.size);
    }
  }
  // Neither a code the format lacks nor an object field without its design
  // has a size.
  Emif_FieldInfo bad{};
  bad.code = 0x06;
  EXPECT_EQ(mif::ElementSize(bad), 0u);
  bad.code = EMIF_T_OBJECT;
  EXPECT_EQ(mif::ElementSize(bad), 0u);
}

// A table of blocks the way image files keep them, with a name and a fixed
// array; the copy machinery patches such records through RecordView.
struct Block {
  uint32_t offset;
  uint32_t size;
  int32_t valid;  // enumeration
  double weight;
  uint16_t flags;
};
struct Table {
  int32_t count;
  Emif_CountedObjects blocks;
  Emif_CountedString name;
  float scale[2];
};
constexpr size_t kPackedBlock = 4 + 4 + 2 + 8 + 2;

TEST(ObjectCodec, RecordViewPatchesOnlyFieldsOfTheRightKind) {
  DesignPtr block =
      Own(emif_DesignCreate(L"Block", 0xb, L"offset", 0xb, L"size", 3, L"valid", L"false", L"true",
                            (Etxt_Char*)nullptr, 0xe, L"weight", 0x9, L"flags", 0, nullptr));
  ASSERT_TRUE(block);
  DesignPtr table = Own(emif_DesignCreate(L"Table", 0xc, L"count", 0x202, L"blocks", block.get(),
                                          0x208, L"name", 0x10d, L"scale", 2, 0, nullptr));
  ASSERT_TRUE(table);
  ASSERT_EQ(emif_DesignSizeGet(table.get()), sizeof(Table));
  Block blocks[3] = {{100, 10, 1, 0.5, 7}, {200, 20, 0, 1.5, 8}, {300, 30, 1, 2.5, 9}};
  wchar_t name[] = L"img.img(:Layer_1)";
  Table t{3, {3, blocks}, {static_cast<int32_t>(std::wcslen(name) + 1), name}, {1, 2}};
  const mif::DesignImpl& d = *mif::DesignOf(table.get());
  std::vector<uint8_t> packed;
  std::string error;
  ASSERT_TRUE(mif::Encode(d, &t, 0, &packed, &error)) << error;
  Table back{};
  ASSERT_TRUE(mif::Decode(d, packed.data(), packed.size(), &back, &error)) << error;

  mif::RecordView view(d, &back);
  uint32_t v = 0;
  EXPECT_TRUE(view.GetU32("count", &v));
  EXPECT_EQ(v, 3u);
  for (const char* refused : {"scale", "name", "blocks", "missing"}) {
    EXPECT_FALSE(view.GetU32(refused, &v)) << refused;
    EXPECT_FALSE(view.SetU32(refused, 1)) << refused;
  }
  EXPECT_STREQ(view.FieldName(2), "name");
  EXPECT_EQ(view.FieldName(4), nullptr);

  std::vector<mif::RecordView> items;
  EXPECT_FALSE(view.Objects("name", &items));
  EXPECT_FALSE(view.Objects("count", &items));
  ASSERT_TRUE(view.Objects("blocks", &items));
  ASSERT_EQ(items.size(), 3u);
  for (const char* refused : {"weight", "flags"}) EXPECT_FALSE(items[0].GetU32(refused, &v));
  ASSERT_TRUE(items[2].GetU32("offset", &v));
  EXPECT_EQ(v, 300u);
  ASSERT_TRUE(items[1].GetU32("valid", &v));
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(items[1].SetU32("offset", 0x12345678u));

  const Etxt_Char* text = nullptr;
  EXPECT_FALSE(view.GetText("count", &text));
  ASSERT_TRUE(view.GetText("name", &text));
  EXPECT_EQ(std::wstring(text), name);
  EXPECT_TRUE(view.SetText("name", L"copy.img(:Layer_1)"));

  // The patched record packs with the new offset in the second block and the
  // new name; nothing else moves.
  std::vector<uint8_t> again;
  ASSERT_TRUE(mif::Encode(d, &back, 0, &again, &error)) << error;
  EXPECT_EQ(mif::LoadLe32(again.data() + 12 + kPackedBlock), 0x12345678u);
  EXPECT_EQ(mif::LoadLe32(again.data() + 12), 100u);
  EXPECT_EQ(mif::LoadLe32(again.data() + 12 + 2 * kPackedBlock), 300u);
  Table* decoded =
      static_cast<Table*>(emif_ObjectDecode(table.get(), again.data(), again.size(), nullptr));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(std::wstring(decoded->name.data), L"copy.img(:Layer_1)");
  EXPECT_EQ(decoded->name.count, 19);
  EXPECT_EQ(static_cast<Block*>(decoded->blocks.data)[1].size, 20u);
  EXPECT_EQ(decoded->scale[1], 2.0f);
  emif_ObjectFree(table.get(), decoded, nullptr);
  mif::FreeContents(d, &back);

  Table empty{};
  mif::RecordView none(d, &empty);
  ASSERT_TRUE(none.GetText("name", &text));
  EXPECT_EQ(text, nullptr);
  ASSERT_TRUE(none.Objects("blocks", &items));
  EXPECT_TRUE(items.empty());
}

TEST(ObjectCodec, FileDictionaryTracksChangesAndKeepsHandles) {
  std::string error;
  EXPECT_FALSE(mif::ParseDictionary("{1:lx", 5, &error));
  EXPECT_FALSE(error.empty());
  const std::string text = "{1:lx,}A,{1:oA,a,}B,{1:oMissing,m,}C,.";
  mif::DictionaryPtr dict = mif::ParseDictionary(text.c_str(), text.size(), &error);
  ASSERT_TRUE(dict) << error;
  EXPECT_FALSE(mif::Changed(*dict));
  ASSERT_EQ(mif::Designs(*dict).size(), 2u);
  EXPECT_EQ(mif::DesignName(*mif::Designs(*dict)[0]), "A");
  EXPECT_FALSE(mif::FindDesign(*dict, "C"));
  EXPECT_NE(mif::UnusableReason(*dict, "C").find("Missing"), std::string::npos);
  EXPECT_EQ(mif::UnusableReason(*dict, "B"), "");

  const mif::DesignRef b = mif::FindDesign(*dict, "B");
  ASSERT_TRUE(b);
  EXPECT_EQ(mif::RecordSize(*b), sizeof(int32_t));
  EXPECT_EQ(mif::PackedMinimum(*b), 4u);
  const Emif_Design* h = mif::HandleOf(dict.get(), b);
  EXPECT_EQ(mif::HandleOf(dict.get(), b), h);
  EXPECT_EQ(mif::DesignOf(h), b);
  EXPECT_EQ(emif_FindDesignByName(dict.get(), L"B"), h);

  // Adding what is there already changes nothing; a different A does.
  mif::AddDesign(dict.get(), b);
  EXPECT_FALSE(mif::Changed(*dict));
  DesignPtr other = Own(emif_DesignCreate(L"A", 0xe, L"x", 0, nullptr));
  ASSERT_TRUE(other);
  mif::AddDesign(dict.get(), mif::DesignOf(other.get()));
  EXPECT_TRUE(mif::Changed(*dict));
  EXPECT_NE(mif::DictionaryText(*dict).find("{1:dx,}A,"), std::string::npos);
  mif::SetChanged(dict.get(), false);
  EXPECT_FALSE(mif::Changed(*dict));
}

TEST(ObjectCodec, LittleEndianLoadsAndStores) {
  const struct {
    uint32_t value;
    uint8_t bytes[4];
  } rows[] = {{0x12345678u, {0x78, 0x56, 0x34, 0x12}},
              {0xfffffffeu, {0xfe, 0xff, 0xff, 0xff}},
              {0x00800001u, {0x01, 0x00, 0x80, 0x00}}};
  for (const auto& r : rows) {
    EXPECT_EQ(mif::LoadLe32(r.bytes), r.value);
    EXPECT_EQ(mif::LoadLe16(r.bytes), r.value & 0xffff);
    uint8_t out[4] = {};
    mif::StoreLe32(out, r.value);
    EXPECT_EQ(0, std::memcmp(out, r.bytes, 4));
    mif::StoreLe16(out, static_cast<uint16_t>(r.value >> 16));
    EXPECT_EQ(0, std::memcmp(out, r.bytes + 2, 2));
    std::vector<uint8_t> appended;
    mif::AppendLe32(&appended, r.value);
    mif::AppendLe16(&appended, static_cast<uint16_t>(r.value));
    EXPECT_EQ(0, std::memcmp(appended.data(), r.bytes, 4));
    EXPECT_EQ(0, std::memcmp(appended.data() + 4, r.bytes, 2));
  }
}

}  // namespace
