// A failed save loses nothing: a failing application write function, a file
// size limit, a full or read-only file system and a process killed half-way
// each leave the old file byte-identical and no temporary file behind.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include "epho/block/block_test_support_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

using blocktest::BlockRef;
namespace fs = std::filesystem;

namespace {

// A small saved block: a model name and a few points.
void MakeSmallBlock(const std::wstring& name) {
  BlockRef b(name, true);
  EtxtTextU model(L"original");
  b->PutModelName(model);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  blocktest::MakePoints(points, 5, 2);
  b->PutObjectPointsList(points);
  b->Save();
}

// Puts enough points for a file of some megabytes.
void PutManyPoints(EphoBlockFile* b, long n) {
  EdlmList points(EphoBlockFile::freeGroundPoint);
  blocktest::MakePoints(points, n, 4);
  b->PutObjectPointsList(points);
}

long FailingWriter(void*, EhfaFile&) { return 0; }
long KillingWriter(void*, EhfaFile&) {
  kill(getpid(), SIGKILL);
  return 1;
}

// Everything in `dir` is the original block, unchanged.
void ExpectUntouched(const testutil::ScratchDir& dir, const std::string& before) {
  EXPECT_EQ(blocktest::Bytes(dir.File("a.blk")), before);
  EXPECT_EQ(blocktest::FilesIn(dir.path()), std::set<std::string>({"a.blk"}));
}

// Exit codes of the children.
const int kOk = 0, kNoException = 3, kSkip = 77;

}  // namespace

TEST(BlockSave, FailuresInsideTheProcessLeaveTheOldFileAndNoTemporary) {
  struct Case {
    const char* what;
    std::function<void(EphoBlockFile*)> prepare;
    const wchar_t* message;
  } cases[] = {
      {"application write function returns 0",
       [](EphoBlockFile* b) { b->AddAppDataWriteFunc(nullptr, FailingWriter); },
       L"Application Function Data failed to write data"},
      {"file size limit",
       [](EphoBlockFile*) {
         struct rlimit limit {
           64 * 1024, 64 * 1024
         };
         setrlimit(RLIMIT_FSIZE, &limit);
       },
       L"File too large"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    testutil::ScratchDir dir("save");
    const std::wstring name = dir.WFile("a.blk");
    MakeSmallBlock(name);
    const std::string before = blocktest::Bytes(dir.File("a.blk"));
    // In a child: the size limit must not stay with the test process.
    const int status = blocktest::InChild([&] {
      BlockRef b(name, false);
      PutManyPoints(b.get(), 3000);
      c.prepare(b.get());
      try {
        b->Save();
      } catch (const EerrException& e) {
        if (!blocktest::ReportMentions(e, c.message) ||
            !blocktest::ReportMentions(e, L"EphoBlockFile::SaveAs")) {
          fprintf(stderr, "%s\n", kzdv::ToUtf8(kzdv::ReportText(e.Report())).c_str());
          return 4;
        }
        // The block goes on with its old file and its unsaved changes.
        if (!b->IsDirty() || !b->GetHFAFile()) return 5;
        EtxtTextU model;
        b->GetModelName(model);
        return model == L"original" ? kOk : 6;
      }
      return kNoException;
    });
    EXPECT_EQ(status, kOk);
    ExpectUntouched(dir, before);
  }
}

TEST(BlockSave, ASaveKilledHalfWayLeavesTheOldFileAndNoTemporary) {
  testutil::ScratchDir dir("save");
  const std::wstring name = dir.WFile("a.blk");
  MakeSmallBlock(name);
  const std::string before = blocktest::Bytes(dir.File("a.blk"));
  // The application writer runs after every node of the new file is written.
  const int status = blocktest::InChild([&] {
    BlockRef b(name, false);
    PutManyPoints(b.get(), 2000);
    b->AddAppDataWriteFunc(nullptr, KillingWriter);
    b->Save();
    return kNoException;
  });
  EXPECT_EQ(status, 128 + SIGKILL);
  ExpectUntouched(dir, before);
  BlockRef b(name, false);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  EXPECT_EQ(b->GetObjectPointsListCopy(points), 5u);
}

// A full and a read-only file system, on a small memory file system mounted
// in a mount namespace of a child (skipped where mounting is not allowed).
TEST(BlockSave, FullAndReadOnlyFileSystemsLeaveTheOldFile) {
  testutil::ScratchDir dir("save");
  const std::string mountPoint = dir.File("fs");
  fs::create_directories(mountPoint);
  const int status = blocktest::InChild([&] {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=512k") != 0)
      return kSkip;
    const std::string file = mountPoint + "/a.blk";
    const std::wstring name = kzdv::FromUtf8(file);
    MakeSmallBlock(name);
    const std::string before = blocktest::Bytes(file);
    auto untouched = [&] {
      return blocktest::Bytes(file) == before &&
             blocktest::FilesIn(mountPoint) == std::set<std::string>({"a.blk"});
    };
    {
      BlockRef b(name, false);
      PutManyPoints(b.get(), 6000);  // several megabytes: the file system is full
      try {
        b->Save();
        return kNoException;
      } catch (const EerrException&) {
      }
    }
    if (!untouched()) return 10;
    if (mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
      return 11;
    {
      BlockRef b(name, false);
      EtxtTextU model(L"changed");
      b->PutModelName(model);
      try {
        b->Save();
        return kNoException;
      } catch (const EerrException& e) {
        if (!blocktest::ReportMentions(e, L"EphoBlockFile::SaveAs")) return 12;
      }
    }
    return untouched() ? kOk : 13;
  });
  if (status == kSkip) GTEST_SKIP() << "mounting a file system is not allowed here";
  EXPECT_EQ(status, kOk);
}
