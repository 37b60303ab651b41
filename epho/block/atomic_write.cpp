// Replacing a file in one step: the new content is written beside the target,
// flushed to disk and renamed over it, so a reader (or a crash) sees either
// the whole old file or the whole new one.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>

#include "efio.h"
#include "epho/block/block_internal.h"
#include "platform/estr/utf8.h"

namespace epho::block {

namespace {

// A file size limit must fail the write (EFBIG), not kill the process. A
// handler the host application installed is left alone.
void IgnoreFileSizeSignal() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction old {};
    if (sigaction(SIGXFSZ, nullptr, &old) == 0 && old.sa_handler == SIG_DFL &&
        !(old.sa_flags & SA_SIGINFO)) {
      signal(SIGXFSZ, SIG_IGN);
    }
  });
}

// Temporary names begin with the hour and seconds of their making.
std::string TimePrefix() {
  std::time_t now = std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  Etxt_Char buffer[126];
  etim_Strftime(buffer, 126, L"%H%S", &local);
  return kzdv::ToUtf8(buffer);
}

// What a failed save must clean up: the unnamed file's descriptor and the
// temporary name, unless the rename took it.
struct Temporary {
  int fd = -1;
  std::string name;
  bool renamed = false;
  ~Temporary() {
    if (fd >= 0) ::close(fd);
    if (!name.empty() && !renamed) ::unlink(name.c_str());
  }
};

std::string Errno() { return std::strerror(errno); }

}  // namespace

void WriteFileAtomically(const std::wstring& target,
                         const std::function<void(const std::wstring& temporary)>& write,
                         const char* context) {
  EerrException ctx(kSource, context);
  IgnoreFileSizeSignal();
  const std::string target8 = kzdv::ToUtf8(target);
  std::string dir = std::filesystem::path(target8).parent_path().string();
  if (dir.empty()) dir = ".";
  const std::string prefix = TimePrefix();

  // An unnamed file in the target's folder disappears with the process when
  // a save dies half-way; file systems without unnamed files get a named one.
  Temporary tmp;
  std::wstring writeName;
#ifdef O_TMPFILE
  tmp.fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
#endif
  if (tmp.fd >= 0) {
    writeName = kzdv::FromUtf8("/proc/self/fd/" + std::to_string(tmp.fd));
  } else {
    if (errno == EACCES || errno == EROFS || errno == ENOENT || errno == ENOSPC ||
        errno == EDQUOT) {
      ctx.Throw(__LINE__, L"Cannot create a temporary file in %hs: %hs", dir.c_str(),
                Errno().c_str());
    }
    Etxt_Char* name = efio_TempName(kzdv::FromUtf8(dir + "/").c_str(),
                                    kzdv::FromUtf8(prefix).c_str(), L".tmp", ctx.Err());
    ctx.Check(__LINE__);
    writeName = name;
    tmp.name = kzdv::ToUtf8(name);
    emsc_HeapFree(name);
  }

  write(writeName);

  // Flush the new content and give it the old file's permission bits.
  int fd = tmp.fd;
  int ownFd = -1;
  if (fd < 0) {
    fd = ownFd = ::open(tmp.name.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) ctx.Throw(__LINE__, L"Cannot open %hs: %hs", tmp.name.c_str(), Errno().c_str());
  }
  struct stat old {};
  bool failed = false;
  std::string why;
  if (::stat(target8.c_str(), &old) == 0 && ::fchmod(fd, old.st_mode & 07777) != 0) {
    failed = true;
    why = "cannot set permissions: " + Errno();
  }
  if (!failed && ::fsync(fd) != 0) {
    failed = true;
    why = "cannot flush: " + Errno();
  }
  if (ownFd >= 0 && ::close(ownFd) != 0 && !failed) {
    failed = true;
    why = "cannot close: " + Errno();
  }
  if (failed) ctx.Throw(__LINE__, L"Cannot write %s: %hs", target.c_str(), why.c_str());

  // Name the unnamed file, then rename it over the target.
  if (tmp.name.empty()) {
    static thread_local std::mt19937_64 rng(std::random_device{}());
    const std::string from = "/proc/self/fd/" + std::to_string(tmp.fd);
    for (int attempt = 0; attempt < 100 && tmp.name.empty(); ++attempt) {
      const std::string name = dir + "/" + prefix + std::to_string(rng() % 1000000000) + ".tmp";
      if (::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        tmp.name = name;
      } else if (errno != EEXIST) {
        ctx.Throw(__LINE__, L"Cannot name the new file in %hs: %hs", dir.c_str(), Errno().c_str());
      }
    }
    if (tmp.name.empty()) ctx.Throw(__LINE__, L"Cannot name the new file in %hs", dir.c_str());
  }
  if (::rename(tmp.name.c_str(), target8.c_str()) != 0)
    ctx.Throw(__LINE__, L"Cannot replace %s: %hs", target.c_str(), Errno().c_str());
  tmp.renamed = true;
  // Make the rename itself durable.
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
}

}  // namespace epho::block
