// Stored records against their designs, the property node's reading rules,
// frames, DTM lists on any HFA file, excluded and application nodes, and
// BlockIntList.
#include <cstddef>

#include "epho/block/block_internal.h"
#include "epho/block/block_test_support_internal.h"
#include "platform/estr/utf8.h"

using blocktest::BlockRef;
using epho::block::DesignPtr;
namespace eb = epho::block;

namespace {

struct FieldAt {
  const wchar_t* name;
  size_t offset;
};

}  // namespace

// A record that does not match its design would be written and read as
// garbage: every field's offset and the record size must agree.
TEST(BlockDesigns, RecordsMatchTheirDesignsFieldByField) {
  EerrException ctx("test", "designs");
  DesignPtr tie = eb::AutotieDesign(ctx), mif = eb::MifObjectDesign(ctx);
  struct Case {
    DesignPtr design;
    size_t size;  // record size (the design's part of it)
    std::vector<FieldAt> fields;
  };
  std::vector<Case> cases;
  cases.push_back({eb::GroundPointDesign(ctx),
                   offsetof(Epho_GroundPoint, imagePoints),
                   {{L"id", offsetof(Epho_GroundPoint, id)},
                    {L"Description", offsetof(Epho_GroundPoint, description)},
                    {L"Ground Z", offsetof(Epho_GroundPoint, groundZ)},
                    {L"PointUsed", offsetof(Epho_GroundPoint, pointUsed)},
                    {L"color", offsetof(Epho_GroundPoint, color)},
                    {L"Standard Deviation X", offsetof(Epho_GroundPoint, stdX)},
                    {L"Standard Deviation Z", offsetof(Epho_GroundPoint, stdZ)},
                    {L"Residual X", offsetof(Epho_GroundPoint, residualX)},
                    {L"ImagePointCount", offsetof(Epho_GroundPoint, imagePointCount)}}});
  cases.push_back({eb::ImagePointDesign(ctx),
                   sizeof(Epho_ImagePoint),
                   {{L"Image X", offsetof(Epho_ImagePoint, imageX)},
                    {L"PointUsed", offsetof(Epho_ImagePoint, pointUsed)},
                    {L"color", offsetof(Epho_ImagePoint, color)},
                    {L"Residual X", offsetof(Epho_ImagePoint, residualX)},
                    {L"GrossError", offsetof(Epho_ImagePoint, grossError)}}});
  cases.push_back(
      {eb::BlockPropertyDesign(tie.get(), ctx),
       sizeof(eb::BlockPropertyRecord),
       {{L"StdX", offsetof(eb::BlockPropertyRecord, StdX)},
        {L"PointCount", offsetof(eb::BlockPropertyRecord, PointCount)},
        {L"HorizontalReferFile", offsetof(eb::BlockPropertyRecord, HorizontalReferFile)},
        {L"VerticalReferType", offsetof(eb::BlockPropertyRecord, VerticalReferType)},
        {L"ConstantElevation", offsetof(eb::BlockPropertyRecord, ConstantElevation)},
        {L"TopocenterDefined", offsetof(eb::BlockPropertyRecord, TopocenterDefined)},
        {L"TopocenterLatitude", offsetof(eb::BlockPropertyRecord, TopocenterLatitude)},
        {L"AutoTieParameters", offsetof(eb::BlockPropertyRecord, AutoTieParameters)}}});
  cases.push_back({eb::AutotieDesign(ctx),
                   sizeof(eb::AutotieRecord),
                   {{L"CoefficientLimit", offsetof(eb::AutotieRecord, CoefficientLimit)},
                    {L"TieUsage", offsetof(eb::AutotieRecord, TieUsage)}}});
  cases.push_back({eb::ExtraAutotieDesign(ctx),
                   sizeof(eb::ExtraAutotieRecord),
                   {{L"ImageScanType", offsetof(eb::ExtraAutotieRecord, ImageScanType)}}});
  cases.push_back({eb::DtmDesign(mif.get(), ctx),
                   sizeof(eb::DtmRecord),
                   {{L"meanz", offsetof(eb::DtmRecord, meanz)},
                    {L"cellsize", offsetof(eb::DtmRecord, cellsize)},
                    {L"vunits", offsetof(eb::DtmRecord, vunits)},
                    {L"proparm", offsetof(eb::DtmRecord, proparm)}}});
  cases.push_back({eb::OrthoDesign(mif.get(), ctx),
                   sizeof(eb::OrthoRecord),
                   {{L"corners", offsetof(eb::OrthoRecord, corners)},
                    {L"proparm", offsetof(eb::OrthoRecord, proparm)}}});
  cases.push_back({eb::MifObjectDesign(ctx),
                   sizeof(eb::MifObjectRecord),
                   {{L"MIFObject", offsetof(eb::MifObjectRecord, MIFObject)}}});
  for (const Case& c : cases) {
    SCOPED_TRACE(kzdv::ToUtf8(emif_DesignNameGet(c.design.get())));
    EXPECT_LE(emif_DesignSizeGet(c.design.get()), c.size);
    EXPECT_GT(emif_DesignSizeGet(c.design.get()), c.size - 8);
    for (const FieldAt& f : c.fields) {
      Emif_FieldInfo info{};
      ASSERT_TRUE(emif_DesignFieldFind(c.design.get(), f.name, &info)) << kzdv::ToUtf8(f.name);
      EXPECT_EQ(info.offset, f.offset) << kzdv::ToUtf8(f.name);
    }
  }
}

// ---- property node

namespace {

// Writes the property node (and the extra tie-point node) of `file` as
// another program might have stored them.
void StoreProperty(const std::wstring& file, const wchar_t* hunits, int32_t tieUsage) {
  EerrException ctx("test", "store");
  Ehfa_File* f = ehfa_FileOpen(file.c_str(), "r+b", nullptr, ctx.Err());
  ctx.Check(__LINE__);
  DesignPtr tie = eb::AutotieDesign(ctx), prop = eb::BlockPropertyDesign(tie.get(), ctx);
  eb::AutotieRecord t{};
  t.SearchSize = 99;
  t.TieUsage = tieUsage;
  eb::BlockPropertyRecord rec{};
  eb::SetCounted(&rec.HorizontalUnits, hunits);
  rec.AutoTieParameters = &t;
  ehfa_ObjectWrite(f, L":", L"BlockProperty", EHFA_WRITE_REPLACE, prop.get(), &rec, ctx.Err());
  emsc_HeapFree(rec.HorizontalUnits.data);
  ctx.Check(__LINE__);
  DesignPtr extra = eb::ExtraAutotieDesign(ctx);
  eb::ExtraAutotieRecord x{5, 6, 7, 8, 9, 10, 11, 1, 2};
  ehfa_ObjectWrite(f, L":BlockProperty", L"ExtraAutoTieData", EHFA_WRITE_REPLACE, extra.get(), &x,
                   ctx.Err());
  ctx.Check(__LINE__);
  ehfa_FileClose(f, ctx.Err());
  ctx.Check(__LINE__);
}

}  // namespace

TEST(BlockProperty, StoredUnitSpellingsAndTieUsage) {
  struct Case {
    const wchar_t* stored;
    const wchar_t* read;
    int32_t tieUsage;
    int32_t readTieUsage;
    int32_t patternUsage;  // 5 when "ExtraAutoTieData" was read, else the default 0
  } cases[] = {
      {L"Degree", L"degrees", 1, 1, 5},  {L"RADIAN", L"radians", 2, 2, 5},
      {L"degrees", L"degrees", 0, 1, 0}, {L"Feet", L"Feet", 0, 1, 0},
      {L"meters", L"meters", 3, 3, 5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(kzdv::ToUtf8(c.stored));
    testutil::ScratchDir dir("prop");
    const std::wstring name = dir.WFile("p.blk");
    {
      BlockRef b(name, true);
      EtxtTextU model(L"m");
      b->PutModelName(model);
      b->Save();
    }
    StoreProperty(name, c.stored, c.tieUsage);
    BlockRef b(name, false);
    EtxtTextU units;
    b->GetHorizontalUnits(units);
    EXPECT_EQ(units, c.read);
    Epho_AutoTieParameters* tie = b->GetAutoTieParameters();
    EXPECT_EQ(tie->SearchSize, 99);
    EXPECT_EQ(tie->TieUsage, c.readTieUsage);
    EXPECT_EQ(tie->PatternUsage, c.patternUsage);
    EXPECT_EQ(tie->ImageScanType, c.patternUsage ? 2 : 0);
    emsc_HeapFree(tie);
  }
}

TEST(BlockProperty, ANewBlockGetsDefaultTieParametersAndElevationInfoFromItsUnits) {
  testutil::ScratchDir dir("prop");
  struct Case {
    const wchar_t* verticalUnits;  // null: none put
    const wchar_t* elevationUnit;
  } cases[] = {{nullptr, L"meters"}, {L"feet", L"feet"}};
  for (const Case& c : cases) {
    const std::wstring name = dir.WFile(c.verticalUnits ? "feet.blk" : "none.blk");
    {
      BlockRef b(name, true);
      EtxtTextU units(c.verticalUnits ? c.verticalUnits : L"");
      if (c.verticalUnits) b->PutVerticalUnits(units);
      EdlmList images(EphoBlockFile::freeBlkImage);
      b->PutImageList(images, nullptr, nullptr);  // any change makes a first save
      b->Save();
    }
    // The stored tie-point node holds the defaults.
    EerrException ctx("test", "read");
    Ehfa_File* f = ehfa_FileOpen(name.c_str(), "r", nullptr, ctx.Err());
    ctx.Check(__LINE__);
    DesignPtr extra = eb::ExtraAutotieDesign(ctx);
    eb::ExtraAutotieRecord x{};
    EXPECT_TRUE(ehfa_ObjectReadInto(f, EHFA_SEEK_BY_NAME, L":BlockProperty", L"ExtraAutoTieData",
                                    extra.get(), &x, nullptr));
    DesignPtr frame = eb::FrameDataDesign(ctx);
    eb::FrameDataRecord fr{-1, -1};
    EXPECT_TRUE(
        ehfa_ObjectReadInto(f, EHFA_SEEK_BY_NAME, L":", L"FrameData", frame.get(), &fr, nullptr));
    ehfa_FileClose(f, nullptr);
    Epho_AutoTieParameters* defaults = epho_BlockInitTiePar(nullptr);
    EXPECT_EQ(x.PointsPerPattern, defaults->PointsPerPattern);
    EXPECT_EQ(x.FeatureUsage, defaults->FeatureUsage);
    emsc_HeapFree(defaults);
    EXPECT_EQ(fr.ImageCount, 0) << "a first save always writes FrameData";

    BlockRef b(name, false);
    LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> projection;
    LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> elevation;
    EtxtTextU units;
    b->GetCoordinateSystem(projection, elevation, units);
    EXPECT_FALSE(projection.HasValue()) << "a block without a projection is valid";
    ASSERT_TRUE(elevation.HasValue());
    EXPECT_EQ(std::wstring(elevation.Get()->elevationUnit), c.elevationUnit);
    EXPECT_EQ(std::wstring(elevation.Get()->elevationType), L"unknown");
  }
}

// ---- frames

TEST(BlockFrames, PuttingTheCurrentImageAloneRewritesTheUnchangedFrames) {
  testutil::ScratchDir dir("frm");
  const std::wstring name = dir.WFile("f.blk");
  {
    BlockRef b(name, true);
    EdlmList images(EphoBlockFile::freeBlkImage);
    images.Reset(edlm_InitList(sizeof(void*), 4, EphoBlockFile::freeBlkImage, nullptr, nullptr));
    long sizes[4];
    for (int i = 0; i < 4; ++i) {
      sizes[i] = 3 + i;
      auto* bytes = static_cast<unsigned char*>(emsc_HeapMalloc(static_cast<size_t>(sizes[i])));
      std::memset(bytes, 'a' + i, static_cast<size_t>(sizes[i]));
      edlm_Add(images.Get(), bytes, nullptr);
    }
    b->PutImageList(images, sizes, nullptr);
    b->Save();
  }
  {
    BlockRef b(name, false);
    EXPECT_EQ(b->GetCurrentImageIndex(), 0);
    b->PutCurrentImageIndex(3);
    b->Save();
  }
  BlockRef b(name, false);
  EXPECT_EQ(b->GetCurrentImageIndex(), 3);
  EdlmList images(EphoBlockFile::freeBlkImage);
  ASSERT_EQ(b->GetImageListCopy(images, nullptr), 4u);
  const std::vector<long> sizes = b->GetFrameDataSizes();
  for (long i = 0; i < 4; ++i) {
    ASSERT_EQ(sizes[static_cast<size_t>(i)], 3 + i);
    auto* bytes = static_cast<unsigned char*>(edlm_GetAddr(images.Get(), i, nullptr));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), static_cast<size_t>(3 + i)),
              std::string(static_cast<size_t>(3 + i), static_cast<char>('a' + i)));
  }
}

// ---- DTM list on any HFA file

TEST(BlockDtmList, StaticReadAndWriteWorkOnAnyHfaFile) {
  testutil::ScratchDir dir("dtm");
  const std::wstring name = dir.WFile("plain.img");
  Ehfa_File* f = ehfa_FileCreate(name.c_str(), nullptr, nullptr);
  ASSERT_TRUE(f);
  EdlmList none(EphoBlockFile::freeDtm);
  EXPECT_EQ(EphoBlockFile::ReadDTMListFromHFA(none, f), 0u);
  EphoBlockFile::WriteDTMListToHFA(none, f);  // an empty list: an empty array
  EdlmList read(EphoBlockFile::freeDtm);
  EXPECT_EQ(EphoBlockFile::ReadDTMListFromHFA(read, f), 0u);
  ASSERT_TRUE(read.Get()) << "the stored list exists and is empty";

  EdlmList list(EphoBlockFile::freeDtm);
  list.Reset(
      edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeDtm, EphoBlockFile::copyDtm, nullptr));
  Epho_BlockDTM* d = EphoBlockFile::BlockDTMCreate();
  EXPECT_EQ(d->dtmsource, DTM_TYPE_DEM);
  d->dtmsource = DTM_TYPE_TIN;
  d->filename = etxt_Text_strdup(L"terrain.tin");
  d->meanz = -12.5;
  edlm_Add(list.Get(), d, nullptr);
  EphoBlockFile::WriteDTMListToHFA(list, f);
  ehfa_FileClose(f, nullptr);
  f = ehfa_FileOpen(name.c_str(), "r", nullptr, nullptr);
  EdlmList back(EphoBlockFile::freeDtm);
  ASSERT_EQ(EphoBlockFile::ReadDTMListFromHFA(back, f), 1u);
  ehfa_FileClose(f, nullptr);
  auto* r = static_cast<Epho_BlockDTM*>(edlm_GetAddr(back.Get(), 0, nullptr));
  EXPECT_EQ(r->dtmsource, DTM_TYPE_TIN);
  EXPECT_EQ(std::wstring(r->filename), L"terrain.tin");
  EXPECT_EQ(r->meanz, -12.5);
  EXPECT_EQ(r->proparm, nullptr);
  EdlmList copied(EphoBlockFile::freeDtm);
  EphoBlockFile::CopyDTMList(back, copied);
  ASSERT_EQ(copied.Count(), 1);
  EXPECT_NE(edlm_GetAddr(copied.Get(), 0, nullptr), edlm_GetAddr(back.Get(), 0, nullptr));
}

// ---- application nodes

namespace {

long WriteMarker(void* context, EhfaFile& file) {
  ++*static_cast<int*>(context);
  return ehfa_EntrySeek(file.Get(), EHFA_SEEK_ROOT, nullptr, nullptr, nullptr) &&
                 ehfa_EntryWrite(file.Get(), EHFA_WRITE_REPLACE, L"AppMarker", L"", nullptr)
             ? 1
             : 0;
}

bool HasRootNode(const std::wstring& file, const wchar_t* node) {
  Ehfa_File* f = ehfa_FileOpen(file.c_str(), "r", nullptr, nullptr);
  const bool has = f && ehfa_EntrySeekIfPresent(f, EHFA_SEEK_BY_NAME, L":", node, nullptr);
  ehfa_FileClose(f, nullptr);
  return has;
}

}  // namespace

TEST(BlockNodes, QueuedObjectsAreWrittenOnceExcludedNodesDropAndWritersRunEverySave) {
  testutil::ScratchDir dir("nodes");
  const std::wstring name = dir.WFile("n.blk");
  EerrException ctx("test", "nodes");
  DesignPtr design(emif_DesignCreate(L"App_Note", EMIF_T_LONG, L"value", 0, ctx.Err()));
  ctx.Check(__LINE__);
  int calls = 0;
  {
    BlockRef b(name, true);
    int32_t value = 17;
    b->EhfaObjectWriteInMemory(design.get(), L":", L"AppNote", EHFA_WRITE_REPLACE, &value);
    b->AddAppDataWriteFunc(&calls, WriteMarker);
    b->Save();
    EXPECT_EQ(calls, 1);
    void* data = nullptr;
    Emif_Design* read = b->EhfaObjectRead(L":", L"AppNote", EHFA_SEEK_BY_NAME, &data);
    ASSERT_TRUE(read);
    EXPECT_EQ(*static_cast<int32_t*>(data), 17);
    emif_ObjectFree(read, data, nullptr);
    emif_DesignDestroy(read);

    // The next save copies the node; the queue was emptied.
    EtxtTextU model(L"again");
    b->PutModelName(model);
    b->Save();
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(HasRootNode(name, L"AppNote"));
    EXPECT_TRUE(HasRootNode(name, L"AppMarker"));

    EtxtTextU excluded(L"AppNote");
    b->ExcludeNodeFromWrite(excluded);
    EXPECT_TRUE(b->IsDirty());
    b->Save();
  }
  EXPECT_FALSE(HasRootNode(name, L"AppNote"));
  EXPECT_TRUE(HasRootNode(name, L"BlockProperty"));
}

TEST(BlockIntList, OnlyRealChangesMakeItDirtyAndSaveAndLoadAreSymmetric) {
  testutil::ScratchDir dir("ints");
  const std::wstring name = dir.WFile("i.blk");
  BlockIntList list(L"PairList", L"Pairs");
  {
    BlockRef b(name, true);
    EXPECT_FALSE(list.IsDirty());
    list.Insert(5);
    list.Insert(-2);
    list.Insert(5);
    EXPECT_TRUE(list.IsDirty());
    EXPECT_EQ(list.Values(), std::vector<long>({-2, 5}));
    list.MIFSave(b.get());
    EXPECT_FALSE(list.IsDirty());
    struct Step {
      bool insert;
      long value;
      bool dirty;
    } steps[] = {{true, 5, false}, {false, 7, false}, {false, -2, true}};
    for (const Step& s : steps) {
      if (s.insert)
        list.Insert(s.value);
      else
        list.Remove(s.value);
      EXPECT_EQ(list.IsDirty(), s.dirty) << s.value;
    }
    b->Save();
  }
  BlockRef b(name, false);
  BlockIntList loaded(L"PairList", L"Pairs");
  loaded.MIFLoad(b.get());
  EXPECT_EQ(loaded.Values(), std::vector<long>({-2, 5})) << "what was saved, not later changes";
  EXPECT_FALSE(loaded.IsDirty());
  // A list under the default names reads the node's only field.
  BlockIntList plain;
  plain.MIFLoad(b.get());
  EXPECT_EQ(plain.Values(), loaded.Values());
}
