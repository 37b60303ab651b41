// Safe rewrites and one writer per file: the library's internal helpers for
// every place that replaces a file (camera files, pyramid runs, block saves).
// Not installed and not exported; include as "platform/efio/atomic_file.h".
//
// Replacing a file:
//
//   std::wstring why;
//   bool ok = kzdv::efio::ReplaceFile(target, [&](const std::string& temp, std::wstring* why) {
//     return WriteEverythingTo(temp, why);   // create or overwrite `temp` by name
//   }, &why);
//
// ReplaceFile makes an empty temporary in the target's folder (so the final
// rename never crosses file systems), lets the callback write it, then
// flushes it to disk (fsync), gives it the target's permissions, renames it
// over the target and syncs the folder. The temporary is a hidden named file
// by default; with TempKind::kUnnamed it is an unnamed file (O_TMPFILE),
// which the callback reaches as "/proc/self/fd/N" and which is linked under
// a name only for the rename, so that even a process killed while writing
// leaves nothing behind (file systems without unnamed files, or a process
// without /proc, get the named one). If anything fails (the callback, a write, the
// close, the sync, the rename) the temporary is removed and the target stays
// byte-identical. While it runs, SIGXFSZ cannot kill the process: a file
// size limit makes write() fail with EFBIG (see FileSizeSignalGuard); the
// callback must check every write and its close (efio_Close and
// std::fclose report such failures). The new file keeps the target's
// permission bits (and owner where permitted); other hard links of the target
// keep the old contents, as with any rename. With a named temporary the callback may
// also create sidecars named after `temp` (temp + ".aux.xml"); moving those
// is the caller's business. An unnamed temporary has no folder of its own to
// put sidecars in, nor an extension to detect a format by.
//
// One writer per file:
//
//   kzdv::efio::FileLock lock;
//   if (!lock.Lock(path, kzdv::efio::LockMode::kWait, &why)) ...report why...
//
// An advisory, exclusive flock(2) on the file itself, held until Unlock or
// destruction. It only excludes other users of this helper (in this process
// or any other), not programs that ignore it. The lock follows the file
// through ReplaceFile: a waiter that wakes up on a file that was meanwhile
// replaced takes the lock on the new file instead, so the holder may replace
// the file it locked. Locks taken on one file by two threads of one process
// exclude each other too (each Lock opens its own descriptor).
//
// Everything here is inline: each of our shared libraries carries its own
// hidden copy, so nothing of this leaves a library's exported interface.
#ifndef KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_
#define KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "etxt.h"
#include "platform/estr/utf8.h"

namespace kzdv::efio {

namespace atomic_file_detail {

inline std::wstring Wide(const std::string& s) { return kzdv::FromUtf8(s); }
inline std::wstring Errno(int e) { return Wide(std::strerror(e)); }

// The file a path finally names: a symlinked target is replaced where it
// points, so the link stays a link.
inline std::string Resolve(const std::string& target) {
  std::error_code ec;
  if (std::filesystem::is_symlink(std::filesystem::symlink_status(target, ec))) {
    std::filesystem::path real = std::filesystem::canonical(target, ec);
    if (!ec) return real.string();
  }
  return target;
}

inline void SyncFolder(const std::string& file) {
  std::filesystem::path dir = std::filesystem::path(file).parent_path();
  if (dir.empty()) dir = ".";
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);  // best effort: some file systems refuse fsync on folders
  ::close(fd);
}

}  // namespace atomic_file_detail

// While alive, a file size limit cannot kill the calling thread's process:
// SIGXFSZ is blocked in this thread (so write() fails with EFBIG, as it does
// when the signal is ignored), and a SIGXFSZ raised meanwhile is taken off
// the thread before the old signal mask comes back. Per thread, unlike a
// change of the process-wide disposition, so the host's other threads and
// its own handler are left alone.
class FileSizeSignalGuard {
 public:
  FileSizeSignalGuard() {
    sigset_t xfsz;
    sigemptyset(&xfsz);
    sigaddset(&xfsz, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &xfsz, &old_);
  }
  ~FileSizeSignalGuard() {
    if (!sigismember(&old_, SIGXFSZ)) {
      sigset_t xfsz;
      sigemptyset(&xfsz);
      sigaddset(&xfsz, SIGXFSZ);
      const struct timespec now = {0, 0};
      while (sigtimedwait(&xfsz, nullptr, &now) == SIGXFSZ) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  FileSizeSignalGuard(const FileSizeSignalGuard&) = delete;
  FileSizeSignalGuard& operator=(const FileSizeSignalGuard&) = delete;

 private:
  sigset_t old_;
};

// Writes the temporary (named by its path); false with *message set on failure.
using TempWriter = std::function<bool(const std::string& temp_path, std::wstring* message)>;

namespace atomic_file_detail {

// Gives a fresh name beside `target` ("dir/.name.tmpXXXXXX.ext") to
// `make`, which returns 0 once it made the file under that name, or the
// errno of its failure; names already taken (EEXIST) are tried again. The
// path made, or empty with *error set.
inline std::string NameBeside(const std::string& target,
                              const std::function<int(const char*)>& make, int* error) {
  const std::filesystem::path t(target);
  const std::filesystem::path dir = t.parent_path();
  const std::string stem = t.stem().string(), ext = t.extension().string();
  static thread_local std::mt19937_64 rng(std::random_device{}() ^
                                          static_cast<uint64_t>(::getpid()));
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  *error = EEXIST;
  for (int attempt = 0; attempt < 100 && *error == EEXIST; ++attempt) {
    std::string name = "." + stem + ".tmp";
    for (int i = 0; i < 6; ++i) name += kChars[rng() % 36];
    name += ext;
    const std::string path = (dir / name).string();
    *error = make(path.c_str());
    if (*error == 0) return path;
  }
  return std::string();
}

// An unnamed file in the folder of `target`, and the name by which the
// writer reaches it. Closing the descriptor before the file was linked
// makes it vanish.
struct UnnamedFile {
  int fd = -1;
  std::string path;  // "/proc/self/fd/N"
  ~UnnamedFile() {
    if (fd >= 0) ::close(fd);
  }
};

// Opens an unnamed file beside `target`. False with *error = 0 where the
// file system (or a process without /proc) cannot give one: the caller
// then makes a named file. False with the errno otherwise (a folder that
// is missing, read-only, full or not ours): no temporary can be made.
inline bool OpenUnnamedBeside(const std::string& target, UnnamedFile* out, int* error) {
  *error = 0;
#ifdef O_TMPFILE
  std::filesystem::path dir = std::filesystem::path(target).parent_path();
  if (dir.empty()) dir = ".";
  const int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
  if (fd < 0) {
    // Kernels and file systems without unnamed files answer one of these.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) *error = errno;
    return false;
  }
  out->fd = fd;
  out->path = "/proc/self/fd/" + std::to_string(fd);
  if (::access(out->path.c_str(), F_OK) != 0) {
    ::close(fd);
    out->fd = -1;
    return false;
  }
  return true;
#else
  (void)target;
  (void)out;
  return false;
#endif
}

}  // namespace atomic_file_detail

// Name of a temporary for `target`: in the same folder, hidden, unique, and
// ending with the target's extension so that format detection by name still
// works ("dir/.name.tmpXXXXXX.ext"). The file is created (empty, exclusively)
// with `mode`; empty string with *message set on failure.
inline std::string MakeTempBeside(const std::string& target, unsigned mode, std::wstring* message) {
  using namespace atomic_file_detail;
  int error = 0;
  const std::string path = NameBeside(
      target,
      [mode](const char* name) {
        const int fd = ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0) return errno;
        ::close(fd);
        return 0;
      },
      &error);
  if (path.empty() && message)
    *message = L"Cannot create a temporary file beside " + Wide(target) + L": " + Errno(error);
  return path;
}

// A hidden second name (hard link) of the existing file `target`, named as
// MakeTempBeside names temporaries, for work that must reach a file under
// another name without copying it; remove it with std::remove when done.
// Empty, with *message set, where the file system has no hard links or the
// folder takes no new name.
inline std::string LinkBeside(const std::string& target, std::wstring* message) {
  using namespace atomic_file_detail;
  int error = 0;
  const std::string path = NameBeside(
      target, [&target](const char* name) { return ::link(target.c_str(), name) == 0 ? 0 : errno; },
      &error);
  if (path.empty() && message)
    *message = L"Cannot give " + Wide(target) + L" a second name: " + Errno(error);
  return path;
}

// A new hidden folder beside `target` (named as MakeTempBeside names
// temporaries), for work files that must keep their own names; remove it
// with std::filesystem::remove_all when done. Empty with *message set on
// failure.
inline std::string MakeFolderBeside(const std::string& target, std::wstring* message) {
  using namespace atomic_file_detail;
  int error = 0;
  const std::string path = NameBeside(
      target, [](const char* name) { return ::mkdir(name, 0700) == 0 ? 0 : errno; }, &error);
  if (path.empty() && message)
    *message = L"Cannot create a folder beside " + Wide(target) + L": " + Errno(error);
  return path;
}

// Flushes the folder of `file` to disk, so that renames and new names in it
// last (best effort: some file systems refuse fsync on folders).
inline void SyncFolderOf(const std::string& file) { atomic_file_detail::SyncFolder(file); }

// Copies the bytes of `from` over `to` (created or truncated), keeping the
// holes of a sparse file as holes. False with *message on failure.
inline bool CopyFileContents(const std::string& from, const std::string& to,
                             std::wstring* message) {
  using namespace atomic_file_detail;
  std::wstring local;
  if (!message) message = &local;
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    *message = L"Cannot read " + Wide(from) + L": " + Errno(errno);
    return false;
  }
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (out < 0) {
    *message = L"Cannot write " + Wide(to) + L": " + Errno(errno);
    ::close(in);
    return false;
  }
  FileSizeSignalGuard no_sigxfsz;
  struct stat st {};
  bool ok = ::fstat(in, &st) == 0;
  int error = ok ? 0 : errno;
  const off_t size = st.st_size;
  std::vector<char> buffer(1 << 20);
  // Data extents only (SEEK_DATA / SEEK_HOLE); where the file system cannot
  // tell, the whole file is one extent.
  off_t pos = 0;
  while (ok && pos < size) {
    off_t data = ::lseek(in, pos, SEEK_DATA);
    if (data < 0) {
      if (errno == ENXIO) break;  // only a hole up to the end
      data = pos;
    }
    off_t hole = ::lseek(in, data, SEEK_HOLE);
    if (hole < 0) hole = size;
    for (off_t at = data; ok && at < hole;) {
      const size_t want = static_cast<size_t>(std::min<off_t>(hole - at, buffer.size()));
      const ssize_t got = ::pread(in, buffer.data(), want, at);
      if (got <= 0) {
        ok = false;
        error = got < 0 ? errno : EIO;
        break;
      }
      for (ssize_t done = 0; done < got;) {
        const ssize_t put = ::pwrite(out, buffer.data() + done, got - done, at + done);
        if (put < 0) {
          ok = false;
          error = errno;
          break;
        }
        done += put;
      }
      at += got;
    }
    pos = hole;
  }
  if (ok && ::ftruncate(out, size) != 0) ok = false, error = errno;
  if (::close(out) != 0 && ok) ok = false, error = errno;
  ::close(in);
  if (!ok) *message = L"Cannot copy " + Wide(from) + L" to " + Wide(to) + L": " + Errno(error);
  return ok;
}

// Flushes a finished file to disk: fsync of the file (false with *message on
// failure). Used by ReplaceFile; public for callers that build a temporary by
// other means.
inline bool SyncFile(const std::string& path, std::wstring* message) {
  using namespace atomic_file_detail;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) {
    const int e = errno;
    if (fd >= 0) ::close(fd);
    if (message) *message = L"Cannot flush " + Wide(path) + L" to disk: " + Errno(e);
    return false;
  }
  ::close(fd);
  return true;
}

// Where ReplaceFile writes the new content (see the top of this file).
enum class TempKind {
  kNamed,    // a hidden file beside the target, with its extension
  kUnnamed,  // an unnamed file in the target's folder where possible
};

// Replaces `target` (UTF-8 path; need not exist yet) with what `write`
// produces. True on success; false with *message (naming the target) set,
// the target unchanged and no temporary left behind.
inline bool ReplaceFile(const std::string& target_name, const TempWriter& write,
                        std::wstring* message, TempKind kind = TempKind::kNamed) {
  using namespace atomic_file_detail;
  std::wstring local;
  if (!message) message = &local;
  if (target_name.empty()) {
    *message = L"No file name given";
    return false;
  }
  const std::string target = Resolve(target_name);
  FileSizeSignalGuard no_sigxfsz;
  struct stat st {};
  const bool existed = ::stat(target.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode)) {
    *message = Wide(target_name) + L" is not a regular file";
    return false;
  }
  UnnamedFile unnamed;
  if (kind == TempKind::kUnnamed) {
    int error = 0;
    if (!OpenUnnamedBeside(target, &unnamed, &error) && error != 0) {
      *message = L"Cannot create a temporary file beside " + Wide(target_name) + L": " +
                 Errno(error) + L" (the file is unchanged)";
      return false;
    }
  }
  // The named temporary, removed unless the rename took it.
  std::string temp;
  if (unnamed.fd < 0) {
    temp = MakeTempBeside(target, 0666, message);
    if (temp.empty()) return false;
  }
  auto fail = [&](const std::wstring& why) {
    if (!temp.empty()) std::remove(temp.c_str());
    *message = why;
    return false;
  };
  std::wstring why;
  bool ok = false;
  try {
    ok = write(unnamed.fd >= 0 ? unnamed.path : temp, &why);
  } catch (const std::exception& e) {
    why = Wide(e.what());
  }
  if (!ok)
    return fail(L"Cannot write " + Wide(target_name) + (why.empty() ? L"" : L": " + why) +
                L" (the file is unchanged)");
  if (unnamed.fd >= 0 ? ::fsync(unnamed.fd) != 0 : !SyncFile(temp, &why)) {
    if (unnamed.fd >= 0) why = L"Cannot flush " + Wide(target_name) + L" to disk: " + Errno(errno);
    return fail(why + L" (" + Wide(target_name) + L" is unchanged)");
  }
  if (existed) {
    // The owner is kept where the process may set it (a run by root on a
    // user's file); otherwise the file becomes the writer's, as any new file.
    const bool owned = unnamed.fd >= 0 ? ::fchown(unnamed.fd, st.st_uid, st.st_gid) == 0
                                       : ::chown(temp.c_str(), st.st_uid, st.st_gid) == 0;
    (void)owned;
    const bool moded = unnamed.fd >= 0 ? ::fchmod(unnamed.fd, st.st_mode & 07777) == 0
                                       : ::chmod(temp.c_str(), st.st_mode & 07777) == 0;
    if (!moded)
      return fail(L"Cannot set the permissions of " + Wide(target_name) + L": " + Errno(errno));
  }
  if (unnamed.fd >= 0) {
    // The unnamed file gets a name beside the target only now, for the rename.
    int error = 0;
    temp = NameBeside(
        target,
        [&](const char* name) {
          return ::linkat(AT_FDCWD, unnamed.path.c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW) == 0
                     ? 0
                     : errno;
        },
        &error);
    if (temp.empty())
      return fail(L"Cannot name the new content of " + Wide(target_name) + L": " + Errno(error) +
                  L" (the file is unchanged)");
  }
  if (::rename(temp.c_str(), target.c_str()) != 0)
    return fail(L"Cannot replace " + Wide(target_name) + L": " + Errno(errno) +
                L" (the file is unchanged)");
  SyncFolder(target);
  return true;
}

// The same with the temporary opened as a stdio stream for writing; the
// stream is closed and checked by ReplaceFile (the callback must not close it).
inline bool ReplaceFileWithStream(
    const std::string& target, const std::function<bool(FILE* out, std::wstring* message)>& write,
    std::wstring* message, TempKind kind = TempKind::kNamed) {
  using namespace atomic_file_detail;
  return ReplaceFile(
      target,
      [&](const std::string& temp, std::wstring* why) {
        FILE* out = std::fopen(temp.c_str(), "wb");
        if (!out) {
          *why = Errno(errno);
          return false;
        }
        bool ok = write(out, why);
        errno = 0;
        const bool flushed = std::fflush(out) == 0 && !std::ferror(out);
        const int flush_errno = errno;
        errno = 0;
        const bool closed = std::fclose(out) == 0;
        if (ok && (!flushed || !closed)) {
          const int e = !flushed ? flush_errno : errno;
          *why = e ? Errno(e) : std::wstring(L"write error");
          ok = false;
        }
        return ok;
      },
      message, kind);
}

enum class LockMode {
  kWait,    // block until the other writer is done (see `cancelled` below)
  kRefuse,  // fail at once when another writer holds the file
};

class FileLock {
 public:
  FileLock() = default;
  ~FileLock() { Unlock(); }
  FileLock(FileLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  FileLock& operator=(FileLock&& other) noexcept {
    if (this != &other) {
      Unlock();
      fd_ = other.fd_;
      other.fd_ = -1;
    }
    return *this;
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Locks the existing file `path` exclusively. With kWait, `cancelled` (may
  // be empty) is polled while waiting and ends the wait with false. On
  // failure *message names the file: "<path> is being written by another
  // process or thread (locked)" (kRefuse), or why the file cannot be locked.
  bool Lock(const std::string& path, LockMode mode, std::wstring* message,
            const std::function<bool()>& cancelled = nullptr) {
    using namespace atomic_file_detail;
    std::wstring local;
    if (!message) message = &local;
    Unlock();
    for (int round = 0; round < 1000; ++round) {
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0 && errno == EACCES) fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
      if (fd < 0) {
        *message = L"Cannot lock " + Wide(path) + L": " + Errno(errno);
        return false;
      }
      int rc;
      if (mode == LockMode::kRefuse) {
        rc = ::flock(fd, LOCK_EX | LOCK_NB);
        if (rc != 0 && errno == EWOULDBLOCK) {
          ::close(fd);
          *message = Wide(path) + L" is being written by another process or thread (locked)";
          return false;
        }
      } else if (cancelled) {
        while ((rc = ::flock(fd, LOCK_EX | LOCK_NB)) != 0 && errno == EWOULDBLOCK) {
          if (cancelled()) {
            ::close(fd);
            *message = L"Waiting for the lock on " + Wide(path) + L" was cancelled";
            return false;
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
      } else {
        while ((rc = ::flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
        }
      }
      if (rc != 0) {
        const int e = errno;
        ::close(fd);
        *message = L"Cannot lock " + Wide(path) + L": " + Errno(e);
        return false;
      }
      // The holder before us may have replaced the file: lock the new one.
      struct stat held {
      }, now{};
      if (::fstat(fd, &held) == 0 && ::stat(path.c_str(), &now) == 0 && held.st_dev == now.st_dev &&
          held.st_ino == now.st_ino) {
        fd_ = fd;
        return true;
      }
      ::flock(fd, LOCK_UN);
      ::close(fd);
    }
    *message = L"Cannot lock " + Wide(path) + L": it keeps being replaced";
    return false;
  }

  void Unlock() {
    if (fd_ >= 0) {
      ::flock(fd_, LOCK_UN);
      ::close(fd_);
      fd_ = -1;
    }
  }
  bool locked() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace kzdv::efio

#endif  // KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_
