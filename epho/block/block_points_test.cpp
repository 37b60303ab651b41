// Ground and image points: the Z statistics, replacing the list, the two
// readers (in file order for files with a version, by name for older files
// whose nodes may lie in any order) and empty lists.
#include <cmath>
#include <functional>

#include "epho/block/block_internal.h"
#include "epho/block/block_test_support_internal.h"

using blocktest::BlockRef;
namespace fs = std::filesystem;

namespace {

// Names of the children of `path` in file order.
std::vector<std::string> Children(const std::wstring& file, const wchar_t* path) {
  std::vector<std::string> names;
  Ehfa_File* f = ehfa_FileOpen(file.c_str(), "r", nullptr, nullptr);
  if (!f) return names;
  if (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_INTO, path, nullptr, nullptr) &&
      ehfa_EntrySeekIfPresent(f, EHFA_SEEK_FIRST_CHILD, nullptr, nullptr, nullptr)) {
    do {
      Ehfa_EntryInfo info{};
      ehfa_EntryInfoGet(f, &info, nullptr);
      names.push_back(info.name);
    } while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_SIBLING, nullptr, nullptr, nullptr));
  }
  ehfa_FileClose(f, nullptr);
  return names;
}

long CountPrefixed(const std::vector<std::string>& names, const std::string& prefix) {
  long n = 0;
  for (const auto& s : names) n += s.rfind(prefix, 0) == 0;
  return n;
}

void PutPoints(EphoBlockFile* b, const std::vector<double>& zs, long images) {
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  for (size_t i = 0; i < zs.size(); ++i) {
    Epho_GroundPoint* gp = blocktest::MakePoint(static_cast<long>(i), images);
    gp->groundZ = zs[i];
    edlm_Add(points.Get(), gp, nullptr);
  }
  b->PutObjectPointsList(points);
}

}  // namespace

TEST(BlockPoints, StoredZRangeAlwaysHoldsZeroWhileMemoryScansThePoints) {
  testutil::ScratchDir dir("pts");
  const std::wstring name = dir.WFile("z.blk");
  struct Case {
    std::vector<double> zs;
    double memMin, memMax;    // scanned from the points in memory
    double fileMin, fileMax;  // stored statistics, read back
  } cases[] = {
      {{150, 100, 200, 175}, 100, 200, 0, 200},
      {{-20, -5, -40}, -40, -5, -40, 0},
      {{-10, 30}, -10, 30, -10, 30},
  };
  for (const Case& c : cases) {
    {
      BlockRef b(name, true);
      PutPoints(b.get(), c.zs, 2);
      double lo, hi;
      b->GetMinMaxZ(&lo, &hi);
      EXPECT_EQ(lo, c.memMin);
      EXPECT_EQ(hi, c.memMax);
      b->Save();
    }
    BlockRef b(name, false);
    double lo, hi;
    b->GetMinMaxZ(&lo, &hi);
    EXPECT_EQ(lo, c.fileMin);
    EXPECT_EQ(hi, c.fileMax);
    b.Close();
    fs::remove(dir.File("z.blk"));
  }
}

TEST(BlockPoints, FewerPointsAfterAPutLeaveNoOldNodes) {
  testutil::ScratchDir dir("pts");
  const std::wstring name = dir.WFile("p.blk");
  {
    BlockRef b(name, true);
    PutPoints(b.get(), std::vector<double>(12, 5.0), 3);
    b->Save();
  }
  auto children = Children(name, L":BlockProperty");
  EXPECT_EQ(CountPrefixed(children, "GroundPoint"), 13);  // 12 points and the statistics
  {
    BlockRef b(name, false);
    PutPoints(b.get(), {1.0, 2.0, 3.0}, 0);
    b->Save();
  }
  children = Children(name, L":BlockProperty");
  EXPECT_EQ(CountPrefixed(children, "GroundPoint"), 4);
  EXPECT_EQ(CountPrefixed(children, "ExtraAutoTieData"), 1)
      << "the tie-point node is written again";
  EXPECT_TRUE(Children(name, L":BlockProperty:GroundPoint0").empty());
  BlockRef b(name, false);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  ASSERT_EQ(b->GetObjectPointsListCopy(points), 3u);
  auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), 2, nullptr));
  EXPECT_EQ(gp->groundZ, 3.0);
  ASSERT_TRUE(gp->imagePoints) << "a point without image points has an empty list";
  EXPECT_EQ(edlm_CountList(gp->imagePoints), 0);
}

TEST(BlockPoints, AZeroPointCountMeansNoListAndTheCallersListIsLeftAlone) {
  testutil::ScratchDir dir("pts");
  const std::wstring name = dir.WFile("e.blk");
  {
    BlockRef b(name, true);
    EtxtTextU model(L"no points");
    b->PutModelName(model);
    b->Save();
  }
  BlockRef b(name, false);
  EdlmList mine(EphoBlockFile::freeGroundPoint);
  blocktest::MakePoints(mine, 2, 1);
  _edlm_list* before = mine.Get();
  EXPECT_EQ(b->GetObjectPointsListCopy(mine), 0u);
  EXPECT_EQ(mine.Get(), before);
  EXPECT_EQ(mine.Count(), 2);
}

// An older block: no version node, no statistics, point nodes written in
// another order than their numbers. Such files are read by name.
TEST(BlockPoints, FilesWithoutAVersionAreReadByNameInAnyNodeOrder) {
  testutil::ScratchDir dir("pts");
  const std::wstring name = dir.WFile("old.blk");
  const long n = 4;
  {
    EerrException ctx("test", "old layout");
    Ehfa_File* f = ehfa_FileCreate(name.c_str(), nullptr, ctx.Err());
    ctx.Check(__LINE__);
    epho::block::DesignPtr tie = epho::block::AutotieDesign(ctx);
    epho::block::DesignPtr prop = epho::block::BlockPropertyDesign(tie.get(), ctx);
    epho::block::DesignPtr gpd = epho::block::GroundPointDesign(ctx);
    epho::block::DesignPtr ipd = epho::block::ImagePointDesign(ctx);
    epho::block::BlockPropertyRecord rec{};
    rec.PointCount = n;
    ehfa_ObjectWrite(f, L":", L"BlockProperty", EHFA_WRITE_FIRST_CHILD, prop.get(), &rec,
                     ctx.Err());
    ctx.Check(__LINE__);
    // Each new point goes first, so the file holds GroundPoint3 ... GroundPoint0.
    for (long i = 0; i < n; ++i) {
      Epho_GroundPoint* gp = blocktest::MakePoint(i, 2);
      gp->groundZ = 10.0 * (i + 1);
      const std::wstring gname = L"GroundPoint" + std::to_wstring(i);
      ehfa_ObjectWrite(f, L":BlockProperty", gname.c_str(), EHFA_WRITE_FIRST_CHILD, gpd.get(), gp,
                       ctx.Err());
      ctx.Check(__LINE__);
      for (long j = 1; j >= 0; --j) {
        const std::wstring iname = L"ImagePoint" + std::to_wstring(j);
        ehfa_ObjectWrite(f, (L":BlockProperty:" + gname).c_str(), iname.c_str(),
                         EHFA_WRITE_FIRST_CHILD, ipd.get(),
                         edlm_GetAddr(gp->imagePoints, j, nullptr), ctx.Err());
        ctx.Check(__LINE__);
      }
      EphoBlockFile::freeGroundPoint(gp);
    }
    ehfa_FileClose(f, ctx.Err());
    ctx.Check(__LINE__);
  }
  ASSERT_EQ(Children(name, L":BlockProperty").front(), "GroundPoint3");
  const std::string before = blocktest::Bytes(dir.File("old.blk"));
  BlockRef b(name, false);
  EtxtTextU version;
  b->GetVersion(version);
  EXPECT_EQ(version, L"");
  double lo, hi;
  b->GetMinMaxZ(&lo, &hi);  // no statistics: the points are scanned
  EXPECT_EQ(lo, 10.0);
  EXPECT_EQ(hi, 40.0);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  ASSERT_EQ(b->GetObjectPointsListCopy(points), static_cast<unsigned long>(n));
  for (long i = 0; i < n; ++i) {
    Epho_GroundPoint* want = blocktest::MakePoint(i, 2);
    want->groundZ = 10.0 * (i + 1);
    EXPECT_EQ(blocktest::ComparePoints(
                  *want, *static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), i, nullptr))),
              "");
    EphoBlockFile::freeGroundPoint(want);
  }
  EXPECT_EQ(blocktest::Bytes(dir.File("old.blk")), before) << "reading changes nothing";

  // A file that claims a version (and has statistics) is read in file order,
  // and that order is checked: nodes out of order are refused, not misread.
  {
    EerrException ctx("test", "add version");
    Ehfa_File* f = ehfa_FileOpen(name.c_str(), "r+b", nullptr, ctx.Err());
    ctx.Check(__LINE__);
    epho::block::DesignPtr vd = epho::block::VersionDesign(ctx);
    epho::block::VersionRecord v{{4, const_cast<wchar_t*>(L"9.2")}};
    ehfa_ObjectWrite(f, L":", L"BlockFileVersion", EHFA_WRITE_FIRST_CHILD, vd.get(), &v, ctx.Err());
    ctx.Check(__LINE__);
    epho::block::DesignPtr sd = epho::block::GroundPointStatsDesign(ctx);
    epho::block::GroundPointStatsRecord stats{40, 0};
    ehfa_ObjectWrite(f, L":BlockProperty", L"GroundPointStats", EHFA_WRITE_REPLACE, sd.get(),
                     &stats, ctx.Err());
    ctx.Check(__LINE__);
    ehfa_FileClose(f, ctx.Err());
    ctx.Check(__LINE__);
  }
  b.Close();
  BlockRef versioned(name, false);
  EdlmList again(EphoBlockFile::freeGroundPoint);
  try {
    versioned->GetObjectPointsListCopy(again);
    ADD_FAILURE() << "points out of order were read in file order";
  } catch (const EerrException& e) {
    EXPECT_TRUE(blocktest::ReportMentions(e, L"EphoBlockFile::ReadPointsSequentially"));
  }
}

// Every copy is the caller's, whether the points come from the file (decoded
// straight into the copy, enough of them that the file gives families back
// while they are read) or from a put: changing or freeing one copy changes
// neither the next copy nor what a save writes, and a put replaces what the
// file held.
TEST(BlockPoints, CopiesAreTheCallersWhereverThePointsComeFrom) {
  testutil::ScratchDir dir("pts");
  const std::wstring name = dir.WFile("c.blk");
  const long kPoints = 400, kImages = 4;
  {
    BlockRef b(name, true);
    EdlmList points(EphoBlockFile::freeGroundPoint);
    blocktest::MakePoints(points, kPoints, kImages);
    b->PutObjectPointsList(points);
    b->Save();
  }
  // Spoils a copy: another height, a lost image point, another text.
  auto spoil = [](EdlmList& copy) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(copy.Get(), 1, nullptr));
    gp->groundZ = -1.0;
    EphoBlockFile::freeImagePoint(edlm_Remove(gp->imagePoints, 0, nullptr));
    gp->description.data[0] = L'X';
  };
  auto expectOriginal = [&](EphoBlockFile* b, long n) {
    EdlmList copy(EphoBlockFile::freeGroundPoint);
    ASSERT_EQ(b->GetObjectPointsListCopy(copy), static_cast<unsigned long>(n));
    ASSERT_EQ(copy.Count(), n);
    for (long i = 0; i < n; ++i) {
      Epho_GroundPoint* want = blocktest::MakePoint(i, kImages);
      EXPECT_EQ(blocktest::ComparePoints(
                    *want, *static_cast<Epho_GroundPoint*>(edlm_GetAddr(copy.Get(), i, nullptr))),
                "")
          << i;
      EphoBlockFile::freeGroundPoint(want);
    }
  };
  struct Case {
    const char* what;
    std::function<void(EphoBlockFile*)> prepare;
    long count;
  } cases[] = {
      {"points only in the file", [](EphoBlockFile*) {}, kPoints},
      {"points put in memory",
       [&](EphoBlockFile* b) {
         EdlmList fewer(EphoBlockFile::freeGroundPoint);
         blocktest::MakePoints(fewer, 7, kImages);
         b->PutObjectPointsList(fewer);
       },
       7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    {
      BlockRef b(name, false);
      c.prepare(b.get());
      {
        EdlmList first(EphoBlockFile::freeGroundPoint);
        ASSERT_EQ(b->GetObjectPointsListCopy(first), static_cast<unsigned long>(c.count));
        spoil(first);
      }
      expectOriginal(b.get(), c.count);
      b->Save();
      expectOriginal(b.get(), c.count);
    }
    BlockRef again(name, false);
    expectOriginal(again.get(), c.count);
  }
}
