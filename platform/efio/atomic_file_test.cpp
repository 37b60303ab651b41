#include "platform/efio/atomic_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using testutil::FilesIn;
using testutil::Slurp;
using testutil::Spit;

namespace fs = std::filesystem;
using kzdv::efio::FileLock;
using kzdv::efio::LockMode;
using kzdv::efio::TempKind;

void FailuresLeaveTargetAndNoTemporary(TempKind kind) {
  testutil::ScratchDir dir("atomic");
  const std::string target = dir.File("t.txt");
  Spit(target, "old contents\n");
  std::wstring why;

  // The writer gives up half-way.
  EXPECT_FALSE(kzdv::efio::ReplaceFile(
      target,
      [](const std::string& temp, std::wstring* m) {
        Spit(temp, "half");
        *m = L"gave up";
        return false;
      },
      &why, kind));
  EXPECT_NE(why.find(L"gave up"), std::wstring::npos);
  EXPECT_NE(why.find(kzdv::FromUtf8(target)), std::wstring::npos) << why;

  // The writer throws.
  EXPECT_FALSE(kzdv::efio::ReplaceFile(
      target, [](const std::string&, std::wstring*) -> bool { throw std::runtime_error("boom"); },
      &why, kind));
  EXPECT_NE(why.find(L"boom"), std::wstring::npos);

  // A write beyond the file size limit fails with EFBIG instead of a signal.
  {
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &small);
    const bool ok = kzdv::efio::ReplaceFileWithStream(
        target,
        [](FILE* out, std::wstring*) {
          const std::string block(1000, 'y');
          for (int i = 0; i < 10; ++i) std::fwrite(block.data(), 1, block.size(), out);
          return true;  // the stream's error is found at the flush and close
        },
        &why, kind);
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_FALSE(ok);
    EXPECT_NE(why.find(L"too large"), std::wstring::npos) << why;
    // Nothing of the signal is left: not pending, and no longer blocked.
    sigset_t pending, mask;
    sigpending(&pending);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&pending, SIGXFSZ));
    EXPECT_FALSE(sigismember(&mask, SIGXFSZ));
  }

  // The target's folder cannot take a temporary.
  EXPECT_FALSE(kzdv::efio::ReplaceFile(
      dir.File("missing/t.txt"), [](const std::string&, std::wstring*) { return true; }, &why,
      kind));
  EXPECT_NE(why.find(L"missing/t.txt"), std::wstring::npos) << why;

  EXPECT_EQ(Slurp(target), "old contents\n");
  EXPECT_EQ(FilesIn(dir.path()), std::set<std::string>{"t.txt"});

  // Success replaces the file (a symlink keeps pointing at it) and keeps its mode.
  fs::permissions(target, fs::perms(0600));
  fs::create_symlink(target, dir.File("link.txt"));
  ASSERT_TRUE(kzdv::efio::ReplaceFileWithStream(
      dir.File("link.txt"), [](FILE* out, std::wstring*) { return std::fputs("new\n", out) >= 0; },
      &why, kind))
      << kzdv::ToUtf8(why);
  EXPECT_EQ(Slurp(target), "new\n");
  EXPECT_TRUE(fs::is_symlink(dir.File("link.txt")));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0600));
  EXPECT_EQ(FilesIn(dir.path()), (std::set<std::string>{"link.txt", "t.txt"}));

  // A target that does not exist yet is created.
  ASSERT_TRUE(kzdv::efio::ReplaceFileWithStream(
      dir.File("fresh.txt"), [](FILE* out, std::wstring*) { return std::fputs("x", out) >= 0; },
      &why, kind));
  EXPECT_EQ(Slurp(dir.File("fresh.txt")), "x");
}

// Every way a rewrite can fail leaves the target as it was and nothing else,
// with either kind of temporary.
TEST(ReplaceFile, FailuresLeaveTargetAndNoTemporary) {
  for (const TempKind kind : {TempKind::kNamed, TempKind::kUnnamed}) {
    SCOPED_TRACE(kind == TempKind::kNamed ? "named temporary" : "unnamed temporary");
    FailuresLeaveTargetAndNoTemporary(kind);
  }
}

// An unnamed temporary has no name in the folder while it is written, so a
// writer killed half-way leaves nothing behind; it gets one only for the
// rename. The new file keeps the old one's permission bits.
TEST(ReplaceFile, AnUnnamedTemporaryLeavesNothingWhenTheWriterIsKilled) {
  testutil::ScratchDir dir("atomic_unnamed");
  const std::string target = dir.File("block.blk");
  Spit(target, "old");
  fs::permissions(target, fs::perms(0640));
  std::wstring why;
  std::set<std::string> seenWhileWriting;
  std::string written;
  ASSERT_TRUE(kzdv::efio::ReplaceFile(
      target,
      [&](const std::string& temp, std::wstring*) {
        written = temp;
        Spit(temp, "new");
        seenWhileWriting = FilesIn(dir.path());
        return true;
      },
      &why, TempKind::kUnnamed))
      << kzdv::ToUtf8(why);
  EXPECT_EQ(written.rfind("/proc/self/fd/", 0), 0u) << written;
  EXPECT_EQ(seenWhileWriting, std::set<std::string>{"block.blk"});
  EXPECT_EQ(Slurp(target), "new");
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
  EXPECT_EQ(FilesIn(dir.path()), std::set<std::string>{"block.blk"});

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    kzdv::efio::ReplaceFile(
        target,
        [](const std::string& temp, std::wstring*) {
          Spit(temp, std::string(1 << 16, 'z'));
          kill(getpid(), SIGKILL);
          return true;
        },
        nullptr, TempKind::kUnnamed);
    _exit(3);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_EQ(Slurp(target), "new");
  EXPECT_EQ(FilesIn(dir.path()), std::set<std::string>{"block.blk"});
}

// Temporaries keep the target's extension, live beside it and never clash.
TEST(ReplaceFile, TemporariesBesideTheTarget) {
  testutil::ScratchDir dir("atomic_names");
  std::set<std::string> seen;
  for (int i = 0; i < 20; ++i) {
    const std::string t = kzdv::efio::MakeTempBeside(dir.File("image.tif"), 0600, nullptr);
    ASSERT_FALSE(t.empty());
    EXPECT_EQ(fs::path(t).parent_path(), dir.path());
    EXPECT_EQ(fs::path(t).extension(), ".tif");
    EXPECT_TRUE(fs::exists(t));
    EXPECT_TRUE(seen.insert(t).second);
  }
}

// One holder at a time: a second locker is refused at once or waits until
// the first lets go; a wait can be cancelled; a waiter follows the file when
// the holder replaced it.
TEST(FileLock, OneHolderAtATime) {
  testutil::ScratchDir dir("lock");
  const std::string path = dir.File("image.img");
  Spit(path, "data");
  FileLock first;
  std::wstring why;
  ASSERT_TRUE(first.Lock(path, LockMode::kRefuse, &why));

  FileLock second;
  EXPECT_FALSE(second.Lock(path, LockMode::kRefuse, &why));
  EXPECT_NE(why.find(kzdv::FromUtf8(path)), std::wstring::npos) << why;
  EXPECT_NE(why.find(L"being written"), std::wstring::npos) << why;

  std::atomic<bool> cancel{false};
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    cancel = true;
  });
  EXPECT_FALSE(second.Lock(path, LockMode::kWait, &why, [&] { return cancel.load(); }));
  canceller.join();
  EXPECT_NE(why.find(L"cancelled"), std::wstring::npos);

  // The waiter gets the lock once the holder has replaced the file and let go.
  std::atomic<bool> got{false};
  std::thread waiter([&] {
    FileLock lock;
    std::wstring w;
    got = lock.Lock(path, LockMode::kWait, &w);
    if (got) {
      EXPECT_EQ(Slurp(path), "replaced");
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(got);
  ASSERT_TRUE(kzdv::efio::ReplaceFileWithStream(
      path, [](FILE* out, std::wstring*) { return std::fputs("replaced", out) >= 0; }, &why));
  first.Unlock();
  waiter.join();
  EXPECT_TRUE(got);

  EXPECT_FALSE(second.Lock(dir.File("none.img"), LockMode::kWait, &why));
  EXPECT_NE(why.find(L"none.img"), std::wstring::npos);
}

}  // namespace
