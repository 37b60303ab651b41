// The block file object: sharing and reference counts, opening rules, saving
// and continuing with the saved file, re-reading the property node, a full
// round trip read back by a new process and by GDAL, and bad input.
#include <gdal.h>

#include <cmath>

#include "efio.h"
#include "epho/block/block_internal.h"
#include "epho/block/block_test_support_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

using blocktest::BlockRef;
namespace fs = std::filesystem;

namespace {

void SaveNew(const std::wstring& name, const std::function<void(EphoBlockFile*)>& fill) {
  BlockRef b(name, true);
  ASSERT_TRUE(b.get());
  fill(b.get());
  b->Save();
}

}  // namespace

TEST(BlockFile, OneSharedObjectPerFileCountedUntilTheLastClose) {
  testutil::ScratchDir dir("blk");
  const std::wstring name = dir.WFile("a.blk");
  EtxtTextU n(name);
  EphoBlockFile* first = EphoBlockFile::Open(n, true);
  ASSERT_TRUE(first);
  EXPECT_TRUE(fs::exists(dir.File("a.blk")));
  EphoBlockFile* second = EphoBlockFile::Open(n, false);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->GetReferenceCount(), 2);
  second->Close();
  EXPECT_EQ(first->GetReferenceCount(), 1);
  EtxtTextU units(L"feet");
  first->PutHorizontalUnits(units);  // still usable after the first Close
  first->Close();

  BlockRef viaFolder(dir.WFile("a.blk"), false);
  ASSERT_TRUE(viaFolder.get());
  EXPECT_EQ(viaFolder->GetReferenceCount(), 1);
  EtxtTextU units2;
  viaFolder->GetHorizontalUnits(units2);
  EXPECT_EQ(units2, L"") << "unsaved changes die with the last reference";

  // On a case-sensitive file system, "a.blk" and "A.blk" are two blocks.
  const std::wstring upper = dir.WFile("A.blk");
  EtxtTextU u(upper);
  EXPECT_EQ(EphoBlockFile::Open(u, false), nullptr) << "no file A.blk yet";
  BlockRef upperBlock(upper, true);
  ASSERT_TRUE(upperBlock.get());
  EXPECT_NE(upperBlock.get(), viaFolder.get());
  EXPECT_EQ(viaFolder->GetReferenceCount(), 1);
}

TEST(BlockFile, NamesEqualIgnoringCaseShareOnlyWhenTheyNameOneFile) {
  testutil::ScratchDir dir("blk");
  fs::create_directories(dir.path() / "work");
  fs::create_symlink(dir.path() / "work", dir.path() / "WORK");
  const std::wstring lower = kzdv::FromUtf8((dir.path() / "work" / "b.blk").string());
  const std::wstring upper = kzdv::FromUtf8((dir.path() / "WORK" / "b.blk").string());
  BlockRef a(lower, true);
  BlockRef b(upper, false);
  ASSERT_TRUE(a.get());
  EXPECT_EQ(a.get(), b.get());
  EXPECT_EQ(a->GetReferenceCount(), 2);
  EtxtTextU name;
  a->GetFileName(name);
  EXPECT_EQ(name, upper) << "the object takes the name of its latest Open";
}

TEST(BlockFile, OpenOfMissingFilesAndDirectories) {
  testutil::ScratchDir dir("blk");
  fs::create_directories(dir.path() / "folder");
  struct Case {
    const char* name;
    bool create;
    bool opens;
  } cases[] = {{"missing.blk", false, false},
               {"folder", false, false},
               {"folder", true, false},
               {"new.blk", true, true}};
  for (const Case& c : cases) {
    BlockRef b(dir.WFile(c.name), c.create);
    EXPECT_EQ(b.get() != nullptr, c.opens) << c.name << " create=" << c.create;
    if (!c.opens) {
      EXPECT_EQ(fs::exists(dir.File(c.name)), std::string(c.name) == "folder");
    }
  }
}

TEST(BlockFile, SaveAsWritesNothingForAnUnchangedBlockAndContinuesWithTheNewFile) {
  testutil::ScratchDir dir("blk");
  const std::wstring a = dir.WFile("a.blk"), b = dir.WFile("b.blk");
  SaveNew(a, [](EphoBlockFile* blk) {
    EtxtTextU model(L"frame camera");
    blk->PutModelName(model);
  });
  BlockRef blk(a, false);
  ASSERT_TRUE(blk.get());
  EXPECT_FALSE(blk->IsDirty());
  EtxtTextU other(b);
  blk->SaveAs(other);
  EXPECT_FALSE(fs::exists(dir.File("b.blk"))) << "nothing changed, nothing written";

  EtxtTextU version;
  blk->GetVersion(version);
  EXPECT_EQ(version, L"9.2");
  const std::string before = blocktest::Bytes(dir.File("a.blk"));
  EtxtTextU model(L"pushbroom");
  blk->PutModelName(model);
  EXPECT_TRUE(blk->IsDirty());
  blk->SaveAs(other);
  EXPECT_FALSE(blk->IsDirty());
  EtxtTextU name;
  blk->GetFileName(name);
  EXPECT_EQ(name, b);
  EXPECT_EQ(blocktest::Bytes(dir.File("a.blk")), before) << "the old file is left alone";
  Ehfa_File* handle = blk->GetHFAFile();
  ASSERT_TRUE(handle);
  EXPECT_EQ(std::wstring(ehfa_FileNameGet(handle)), b);
  // The new handle is open for writing.
  Eerr_ErrorReport* err = nullptr;
  EXPECT_TRUE(ehfa_EntryWrite(handle, EHFA_WRITE_REPLACE, L"Probe", L"", &err));
  eerr_DeleteErrorReport(err);
  // The registry follows the file: opening b shares the object.
  BlockRef again(b, false);
  EXPECT_EQ(again.get(), blk.get());
  BlockRef stillA(a, false);
  EXPECT_NE(stillA.get(), blk.get());
  EtxtTextU oldModel;
  stillA->GetModelName(oldModel);
  EXPECT_EQ(oldModel, L"frame camera");
}

TEST(BlockFile, ReopeningRereadsThePropertyNodeUnlessUnitsWereGivenInMemory) {
  testutil::ScratchDir dir("blk");
  const std::wstring a = dir.WFile("a.blk");
  SaveNew(a, [](EphoBlockFile* blk) {
    EtxtTextU model(L"stored"), units(L"meters");
    blk->PutModelName(model);
    blk->PutHorizontalUnits(units);
  });
  BlockRef blk(a, false);
  EtxtTextU changed(L"changed in memory"), out;
  blk->PutModelName(changed);
  { BlockRef second(a, false); }
  blk->GetModelName(out);
  EXPECT_EQ(out, L"stored") << "a second Open reads the node again";

  LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> noProjection;
  LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> noElevation;
  EtxtTextU feet(L"feet");
  blk->PutCoordinateSystem(noProjection, noElevation, feet);
  blk->PutModelName(changed);
  { BlockRef second(a, false); }
  blk->GetModelName(out);
  EXPECT_EQ(out, L"changed in memory") << "units given in memory stop the re-read";
  blk->GetHorizontalUnits(out);
  EXPECT_EQ(out, L"feet");
  EXPECT_TRUE(blk->IsDirty());
}

// ---- full round trip

namespace {

const long kPoints = 40, kImagesPerPoint = 3;

Eprj_ProParameters* Utm32() {
  double params[EPRJ_PARAMETER_COUNT] = {};
  return eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 32, params, L"WGS 84", L"WGS 84", nullptr);
}

void FillEverything(EphoBlockFile* blk) {
  EtxtTextU model(L"Frame Camera"), vunits(L"meters"), aunits(L"degrees"), href(L"gcp.img"),
      vrefUnits(L"feet"), vref(L"dem.img");
  blk->PutModelName(model);
  blk->PutVerticalUnits(vunits);
  blk->PutAngularUnits(aunits);
  blk->PutHorizontalReferenceName(href);
  blk->PutVerticalReferenceUnits(vrefUnits);
  blk->PutVerticalReferenceName(vref);
  blk->PutHorizontalReferenceType(H_REF_SHAPE);
  blk->PutVerticalReferenceType(V_REF_CONSTANT);
  blk->PutTopocenterDefined(EMSC_TRUE);
  blk->PutCenterLatLon(0.75, -1.25);
  blk->PutVerticalConstant(312.5);
  blk->PutDefaultStdXYZ(0.5, 0.6, 0.7);

  Eprj_ProParameters* utm = Utm32();
  LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> projection(
      eprj_ProjectionInit(utm, nullptr));
  LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> elevation(
      eprj_ElevationInfoCreateByName(L"WGS 84", L"EGM96", L"meters", L"height", nullptr));
  EtxtTextU units(L"meters");
  blk->PutCoordinateSystem(projection, elevation, units);

  Epho_AutoTieParameters* tie = epho_BlockInitTiePar(nullptr);
  tie->SearchSize = 31;
  tie->CoefficientLimit = 0.7;
  tie->TieUsage = 2;
  tie->ImageScanType = 3;
  tie->AvoidShadow = 1;
  blk->PutAutoTieParameters(tie);
  emsc_HeapFree(tie);

  // Frames: raw bytes of an application design.
  Emif_Design* frameDesign =
      emif_DesignCreate(L"Test_Frame", EMIF_T_LONG, L"id", EMIF_T_DOUBLE, L"f", 0, nullptr);
  EdlmList images(EphoBlockFile::freeBlkImage);
  images.Reset(edlm_InitList(sizeof(void*), 3, EphoBlockFile::freeBlkImage, nullptr, nullptr));
  long sizes[3];
  for (int i = 0; i < 3; ++i) {
    unsigned char* bytes = static_cast<unsigned char*>(emsc_HeapMalloc(12));
    int32_t id = 7 + i;
    double f = 152.5 + i;
    std::memcpy(bytes, &id, 4);
    std::memcpy(bytes + 4, &f, 8);
    edlm_Add(images.Get(), bytes, nullptr);
    sizes[i] = 12;
  }
  blk->PutImageList(images, sizes, frameDesign);
  blk->PutCurrentImageIndex(2);
  emif_DesignDestroy(frameDesign);

  Emif_Design* sensorDesign =
      emif_DesignCreate(L"Test_Sensor", EMIF_T_DOUBLE, L"pixel", 0, nullptr);
  double pixel = 0.012;
  blk->PutSensorData(reinterpret_cast<unsigned char*>(&pixel), sizeof pixel, sensorDesign);
  emif_DesignDestroy(sensorDesign);

  EdlmList points(EphoBlockFile::freeGroundPoint);
  blocktest::MakePoints(points, kPoints, kImagesPerPoint);
  blk->PutObjectPointsList(points);

  EdlmList dtms(EphoBlockFile::freeDtm);
  dtms.Reset(
      edlm_InitList(sizeof(void*), 2, EphoBlockFile::freeDtm, EphoBlockFile::copyDtm, nullptr));
  Epho_BlockDTM* dem = EphoBlockFile::BlockDTMCreate();
  dem->filename = etxt_Text_strdup(L"/data/dem.tif");
  dem->namepart = etxt_Text_strdup(L"dem");
  dem->tmpdemfilename = etxt_Text_strdup(L"/tmp/dem.img");
  dem->meanz = 250.5;
  dem->ul[0] = 500000;
  dem->ul[1] = 4200000;
  dem->lr[0] = 510000;
  dem->lr[1] = 4190000;
  dem->cellsize[0] = dem->cellsize[1] = 10;
  dem->background = -9999;
  dem->hunits = etxt_Text_strdup(L"meters");
  dem->vunits = etxt_Text_strdup(L"feet");
  dem->proparm = eprj_ProParametersCopy(utm, nullptr);
  edlm_Add(dtms.Get(), dem, nullptr);
  Epho_BlockDTM* constant = EphoBlockFile::BlockDTMCreate();
  constant->dtmsource = DTM_TYPE_CONSTANT;
  constant->meanz = 120;
  edlm_Add(dtms.Get(), constant, nullptr);
  blk->PutDTMList(dtms);

  EdlmList orthos(EphoBlockFile::freeOrtho);
  orthos.Reset(
      edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeOrtho, EphoBlockFile::copyOrtho, nullptr));
  Epho_BlockOrtho* ortho = EphoBlockFile::BlockOrthoCreate();
  ortho->orthoimagename = etxt_Text_strdup(L"ortho.img");
  ortho->units = etxt_Text_strdup(L"meters");
  for (int k = 0; k < 8; ++k) ortho->corners[k] = 1000.0 * k + 0.5;
  ortho->ul[0] = 1;
  ortho->lr[1] = 2;
  ortho->cellsize[0] = 0.5;
  ortho->cellsize[1] = 0.25;
  ortho->proparm = eprj_ProParametersCopy(utm, nullptr);
  edlm_Add(orthos.Get(), ortho, nullptr);
  blk->PutOrthoList(orthos);
  eprj_ProParametersFree(utm);

  BlockIntList pairs;
  for (long v : {42L, -3L, 7L, 42L}) pairs.Insert(v);
  pairs.MIFSave(blk);
}

// The MIF form of a projection carries no datum: compare the rest.
bool SameProjectionWithoutDatum(const Eprj_ProParameters* a, const Eprj_ProParameters* b) {
  if (!a || !b || a->proNumber != b->proNumber || a->proZone != b->proZone ||
      a->proParams.count != b->proParams.count || !a->proSpheroid || !b->proSpheroid ||
      std::wstring(a->proSpheroid->sphereName) != b->proSpheroid->sphereName ||
      std::fabs(a->proSpheroid->a - b->proSpheroid->a) > 1e-6)
    return false;
  for (int k = 0; k < a->proParams.count; ++k)
    if (a->proParams.data[k] != b->proParams.data[k]) return false;
  return true;
}

// Checks everything FillEverything put; returns "" or what differs.
std::string CheckEverything(EphoBlockFile* blk) {
  std::ostringstream bad;
  auto text = [&](void (EphoBlockFile::*get)(EtxtTextU&), const wchar_t* want, const char* what) {
    EtxtTextU v;
    (blk->*get)(v);
    if (v != want) bad << what << " ";
  };
  text(&EphoBlockFile::GetModelName, L"Frame Camera", "model");
  text(&EphoBlockFile::GetHorizontalUnits, L"meters", "hunits");
  text(&EphoBlockFile::GetVerticalUnits, L"meters", "vunits");
  text(&EphoBlockFile::GetAngularUnits, L"degrees", "aunits");
  text(&EphoBlockFile::GetHorizontalReferenceName, L"gcp.img", "href");
  text(&EphoBlockFile::GetVerticalReferenceUnits, L"feet", "vrefunits");
  text(&EphoBlockFile::GetVerticalReferenceName, L"dem.img", "vref");
  if (blk->GetHorizontalReferenceType() != H_REF_SHAPE) bad << "htype ";
  if (blk->GetVerticalReferenceType() != V_REF_CONSTANT) bad << "vtype ";
  if (blk->GetTopocenterDefined() != EMSC_TRUE) bad << "topo ";
  double lat, lon, x, y, z;
  blk->GetCenterLatLon(&lat, &lon);
  if (lat != 0.75 || lon != -1.25) bad << "center ";
  if (blk->GetVerticalConstant() != 312.5) bad << "constant ";
  blk->GetDefaultStdXYZ(&x, &y, &z);
  if (x != 0.5 || y != 0.6 || z != 0.7) bad << "std ";

  LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> projection;
  LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> elevation;
  EtxtTextU units;
  blk->GetCoordinateSystem(projection, elevation, units);
  Eprj_ProParameters* utm = Utm32();
  if (!projection.Get() || !eprj_ProParametersEqual(projection.Get()->proParameters, utm, nullptr))
    bad << "projection ";
  if (!elevation.Get() || std::wstring(elevation.Get()->datumName) != L"EGM96" ||
      std::wstring(elevation.Get()->elevationType) != L"height")
    bad << "elevation ";

  Epho_AutoTieParameters* tie = blk->GetAutoTieParameters();
  if (tie->SearchSize != 31 || tie->CoefficientLimit != 0.7 || tie->TieUsage != 2 ||
      tie->ImageScanType != 3 || tie->AvoidShadow != 1 || tie->CorrelationSize != 7)
    bad << "autotie ";
  emsc_HeapFree(tie);

  EdlmList images(EphoBlockFile::freeBlkImage);
  Emif_Design* frameDesign = nullptr;
  if (blk->GetImageListCopy(images, &frameDesign) != 3 || !frameDesign ||
      std::wstring(emif_DesignNameGet(frameDesign)) != L"Test_Frame")
    bad << "images ";
  for (long i = 0; i < images.Count(); ++i) {
    auto* bytes = static_cast<unsigned char*>(edlm_GetAddr(images.Get(), i, nullptr));
    int32_t id;
    double f;
    std::memcpy(&id, bytes, 4);
    std::memcpy(&f, bytes + 4, 8);
    if (id != 7 + i || f != 152.5 + i) bad << "frame" << i << " ";
  }
  emif_DesignDestroy(frameDesign);
  if (blk->GetCurrentImageIndex() != 2) bad << "current ";
  unsigned char* sensor = nullptr;
  Emif_Design* sensorDesign = nullptr;
  blk->GetSensorData(&sensor, &sensorDesign);
  double pixel = 0;
  if (sensor) std::memcpy(&pixel, sensor, sizeof pixel);
  if (pixel != 0.012 || !sensorDesign || blk->GetSensorDataLength() != 8) bad << "sensor ";
  emsc_HeapFree(sensor);
  emif_DesignDestroy(sensorDesign);

  EdlmList points(EphoBlockFile::freeGroundPoint), expected(EphoBlockFile::freeGroundPoint);
  blocktest::MakePoints(expected, kPoints, kImagesPerPoint);
  if (blk->GetObjectPointsListCopy(points) != static_cast<unsigned long>(kPoints)) bad << "points ";
  for (long i = 0; i < points.Count() && i < kPoints; ++i) {
    std::string why = blocktest::ComparePoints(
        *static_cast<Epho_GroundPoint*>(edlm_GetAddr(expected.Get(), i, nullptr)),
        *static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), i, nullptr)));
    if (!why.empty()) bad << why << " ";
  }

  EdlmList dtms(EphoBlockFile::freeDtm);
  if (blk->GetDTMListCopy(dtms) != 2) bad << "dtms ";
  if (dtms.Count() == 2) {
    auto* d = static_cast<Epho_BlockDTM*>(edlm_GetAddr(dtms.Get(), 0, nullptr));
    auto* c = static_cast<Epho_BlockDTM*>(edlm_GetAddr(dtms.Get(), 1, nullptr));
    if (d->dtmsource != DTM_TYPE_DEM || std::wstring(d->filename) != L"/data/dem.tif" ||
        std::wstring(d->namepart) != L"dem" || std::wstring(d->tmpdemfilename) != L"/tmp/dem.img" ||
        d->meanz != 250.5 || d->ul[0] != 500000 || d->ul[1] != 4200000 || d->lr[0] != 510000 ||
        d->lr[1] != 4190000 || d->cellsize[0] != 10 || d->cellsize[1] != 10 ||
        d->background != -9999 || std::wstring(d->hunits) != L"meters" ||
        std::wstring(d->vunits) != L"feet" || !d->proparm ||
        !SameProjectionWithoutDatum(d->proparm, utm))
      bad << "dem ";
    if (c->dtmsource != DTM_TYPE_CONSTANT || c->meanz != 120 || c->filename || c->proparm)
      bad << "constant dtm ";
  }
  EdlmList orthos(EphoBlockFile::freeOrtho);
  if (blk->GetOrthoListCopy(orthos) != 1) bad << "orthos ";
  if (orthos.Count() == 1) {
    auto* o = static_cast<Epho_BlockOrtho*>(edlm_GetAddr(orthos.Get(), 0, nullptr));
    bool corners = true;
    for (int k = 0; k < 8; ++k) corners = corners && o->corners[k] == 1000.0 * k + 0.5;
    if (std::wstring(o->orthoimagename) != L"ortho.img" || std::wstring(o->units) != L"meters" ||
        !corners || o->ul[0] != 1 || o->lr[1] != 2 || o->cellsize[0] != 0.5 ||
        o->cellsize[1] != 0.25 || !SameProjectionWithoutDatum(o->proparm, utm))
      bad << "ortho ";
  }
  eprj_ProParametersFree(utm);

  BlockIntList pairs;
  pairs.MIFLoad(blk);
  if (pairs.Values() != std::vector<long>({-3, 7, 42}) || pairs.IsDirty()) bad << "intlist ";
  double minZ, maxZ;
  blk->GetMinMaxZ(&minZ, &maxZ);
  if (minZ != 0.0 || maxZ != 100.0 + kPoints - 1) bad << "zrange " << minZ << " " << maxZ;
  EtxtTextU version;
  blk->GetVersion(version);
  if (version != L"9.2") bad << "version ";
  return bad.str();
}

}  // namespace

TEST(BlockFile, EveryNodeRoundTripsThroughSaveCloseAndANewProcess) {
  testutil::ScratchDir dir("blk");
  const std::wstring name = dir.WFile("full.blk");
  SaveNew(name, FillEverything);
  {
    BlockRef blk(name, false);
    ASSERT_TRUE(blk.get());
    EXPECT_EQ(CheckEverything(blk.get()), "");
  }
  // A new process has nothing cached: everything comes from the file.
  const int status = blocktest::InChild([&] {
    BlockRef blk(name, false);
    if (!blk.get()) return 2;
    const std::string bad = CheckEverything(blk.get());
    if (!bad.empty()) fprintf(stderr, "child: %s\n", bad.c_str());
    return bad.empty() ? 0 : 1;
  });
  EXPECT_EQ(status, 0);

  // Saving again after one property change copies every other node as it is.
  {
    BlockRef blk(name, false);
    EtxtTextU model(L"Frame Camera");
    blk->PutModelName(model);
    blk->Save();
  }
  EXPECT_EQ(blocktest::InChild([&] {
              BlockRef blk(name, false);
              return blk.get() && CheckEverything(blk.get()).empty() ? 0 : 1;
            }),
            0);
}

TEST(BlockFile, GdalsHfaDriverReadsTheBlockFileTree) {
  testutil::ScratchDir dir("blk");
  SaveNew(dir.WFile("gdal.blk"), FillEverything);
  const std::string bytes = blocktest::Bytes(dir.File("gdal.blk"));
  std::ofstream(dir.File("cut.blk"), std::ios::binary) << bytes.substr(0, 40);
  GDALAllRegister();
  auto openMessage = [](const std::string& path) {
    CPLPushErrorHandler(CPLQuietErrorHandler);
    CPLErrorReset();
    GDALDatasetH ds = GDALOpenEx(path.c_str(), GDAL_OF_RASTER, nullptr, nullptr, nullptr);
    std::string msg = CPLGetLastErrorMsg();
    CPLPopErrorHandler();
    if (ds) GDALClose(ds);
    return msg;
  };
  GDALDriverH drv = GDALIdentifyDriver(dir.File("gdal.blk").c_str(), nullptr);
  ASSERT_TRUE(drv);
  EXPECT_STREQ(GDALGetDriverShortName(drv), "HFA");
  // The driver reads the header, the dictionary and the tree, walks the
  // root's children for image layers and finds none: a block has no raster.
  EXPECT_NE(openMessage(dir.File("gdal.blk")).find("zero usable bands"), std::string::npos);
  // A file whose header points nowhere fails before that point.
  EXPECT_EQ(openMessage(dir.File("cut.blk")).find("zero usable bands"), std::string::npos);
}

// ---- bad input

TEST(BlockFile, BadInputGivesAClearExceptionNamingTheMethod) {
  testutil::ScratchDir dir("blk");
  const std::wstring good = dir.WFile("good.blk");
  SaveNew(good, FillEverything);
  const std::string bytes = blocktest::Bytes(dir.File("good.blk"));

  auto write = [&](const char* file, const std::string& content) {
    std::ofstream(dir.File(file), std::ios::binary) << content;
    return dir.WFile(file);
  };
  // A stored object overwritten in place through the toolkit.
  auto patch = [&](const char* file, const std::function<void(Ehfa_File*, EerrException&)>& fn) {
    fs::copy_file(dir.File("good.blk"), dir.File(file));
    EerrException ctx("test", "patch");
    Ehfa_File* f = ehfa_FileOpen(dir.WFile(file).c_str(), "r+b", nullptr, ctx.Err());
    ctx.Check(__LINE__);
    fn(f, ctx);
    ehfa_FileClose(f, ctx.Err());
    ctx.Check(__LINE__);
    return dir.WFile(file);
  };
  const std::wstring notHfa = write("text.blk", "this is a text file, not a block\n");
  const std::wstring truncated = write("truncated.blk", bytes.substr(0, bytes.size() / 3));
  const std::wstring foreign = dir.WFile("foreign.img");
  {
    Ehfa_File* f = ehfa_FileCreate(foreign.c_str(), nullptr, nullptr);
    ehfa_EntryWrite(f, EHFA_WRITE_FIRST_CHILD, L"Layer_1", L"Eimg_Layer", nullptr);
    ehfa_FileClose(f, nullptr);
  }
  auto setProperty = [&](const char* file, int32_t points) {
    return patch(file, [&](Ehfa_File* f, EerrException& ctx) {
      epho::block::DesignPtr tie = epho::block::AutotieDesign(ctx);
      epho::block::DesignPtr design = epho::block::BlockPropertyDesign(tie.get(), ctx);
      epho::block::BlockPropertyRecord rec{};
      rec.PointCount = points;
      ehfa_ObjectWrite(f, L":", L"BlockProperty", EHFA_WRITE_REPLACE, design.get(), &rec,
                       ctx.Err());
      ctx.Check(__LINE__);
    });
  };
  const std::wstring hugeCount = setProperty("huge_points.blk", 2000000000);
  const std::wstring negativeCount = setProperty("negative_points.blk", -5);
  const std::wstring hugeImages = patch("huge_images.blk", [](Ehfa_File* f, EerrException& ctx) {
    epho::block::DesignPtr design = epho::block::FrameDataDesign(ctx);
    epho::block::FrameDataRecord rec{1000000000, 0};
    ehfa_ObjectWrite(f, L":", L"FrameData", EHFA_WRITE_REPLACE, design.get(), &rec, ctx.Err());
    ctx.Check(__LINE__);
  });

  struct Case {
    std::wstring file;
    std::function<void(EphoBlockFile*)> read;  // null: Open itself must throw
    const wchar_t* context;
    const wchar_t* message;
  } cases[] = {
      {notHfa, nullptr, L"EphoBlockFile::Open", L"hierarchical file"},
      {truncated, nullptr, L"EphoBlockFile::Open", L""},
      {foreign, nullptr, L"EphoBlockFile::Open", L"is not a block file"},
      {negativeCount, nullptr, L"EphoBlockFile::ReadCS", L"Invalid ground point count"},
      {hugeCount,
       [](EphoBlockFile* b) {
         EdlmList out(EphoBlockFile::freeGroundPoint);
         b->GetObjectPointsListCopy(out);
       },
       L"EphoBlockFile::ReadPointsSequentially", L"GroundPoint"},
      {hugeImages,
       [](EphoBlockFile* b) {
         EdlmList out(EphoBlockFile::freeBlkImage);
         b->GetImageListCopy(out, nullptr);
       },
       L"EphoBlockFile::GetImageListCopy", L"Frame Information not found"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(kzdv::ToUtf8(c.file));
    try {
      BlockRef b(c.file, false);
      ASSERT_TRUE(b.get());
      ASSERT_TRUE(c.read) << "Open should have failed";
      c.read(b.get());
      ADD_FAILURE() << "no exception";
    } catch (const EerrException& e) {
      EXPECT_TRUE(blocktest::ReportMentions(e, c.context))
          << kzdv::ToUtf8(kzdv::ReportText(e.Report()));
      EXPECT_TRUE(blocktest::ReportMentions(e, c.message))
          << kzdv::ToUtf8(kzdv::ReportText(e.Report()));
    }
  }
  // A failed Open leaves nothing registered: the good file still opens alone.
  BlockRef b(good, false);
  ASSERT_TRUE(b.get());
  EXPECT_EQ(b->GetReferenceCount(), 1);
}
