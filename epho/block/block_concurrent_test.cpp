// Eight threads opening, reading, changing, saving and closing the same block
// and a second one at once: reference counts come back to zero, every save
// leaves a whole file, and what is read is always one writer's whole state.
#include <atomic>
#include <thread>

#include "epho/block/block_test_support_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

using blocktest::BlockRef;

TEST(BlockConcurrent, EightThreadsShareSaveAndCloseTwoBlocks) {
  testutil::ScratchDir dir("conc");
  const std::wstring names[2] = {dir.WFile("a.blk"), dir.WFile("b.blk")};
  for (const std::wstring& name : names) {
    BlockRef b(name, true);
    EdlmList points(EphoBlockFile::freeGroundPoint);
    blocktest::MakePoints(points, 20, 2);
    b->PutObjectPointsList(points);
    b->Save();
  }
  const int kThreads = 8, kRounds = 12;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r) {
        try {
          BlockRef b(names[(t + r) % 2], false);
          if (!b.get()) {
            ++failures;
            continue;
          }
          EtxtTextU model;
          b->GetModelName(model);
          EdlmList points(EphoBlockFile::freeGroundPoint);
          const unsigned long n = b->GetObjectPointsListCopy(points);
          double lo, hi;
          b->GetMinMaxZ(&lo, &hi);
          if (n == 0 || lo > hi) ++failures;
          if (r % 3 == 0) {
            const long count = 5 + t;
            EdlmList mine(EphoBlockFile::freeGroundPoint);
            blocktest::MakePoints(mine, count, 1);
            b->PutObjectPointsList(mine);
            EtxtTextU name(std::to_wstring(count));
            b->PutModelName(name);
            b->Save();
          }
          EtxtTextU version;
          b->GetVersion(version);
          if (version != L"9.2") ++failures;
        } catch (const EerrException& e) {
          fprintf(stderr, "%s\n", kzdv::ToUtf8(kzdv::ReportText(e.Report())).c_str());
          ++failures;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  for (const std::wstring& name : names) {
    BlockRef b(name, false);
    ASSERT_TRUE(b.get());
    EXPECT_EQ(b->GetReferenceCount(), 1) << "every reference was given back";
    EtxtTextU model;
    b->GetModelName(model);
    EdlmList points(EphoBlockFile::freeGroundPoint);
    const unsigned long n = b->GetObjectPointsListCopy(points);
    // Whole states only: the name one writer put (or none), the points one
    // writer put (the first 20, or 5 + thread).
    long named = 0;
    EXPECT_TRUE(model.empty() ||
                (estr_StringToLong(model.c_str(), &named) && named >= 5 && named < 5 + kThreads))
        << kzdv::ToUtf8(model);
    EXPECT_TRUE(n == 20 || (n >= 5 && n < 5u + kThreads)) << n;
    EXPECT_EQ(blocktest::FilesIn(dir.path()), std::set<std::string>({"a.blk", "b.blk"}));
  }
}
