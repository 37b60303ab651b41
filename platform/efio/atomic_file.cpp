// Safe rewrites through a temporary beside the target, and advisory locks.
#include "platform/efio/atomic_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

#include "etxt.h"

namespace fs = std::filesystem;

namespace kzdv::efio {

namespace {

std::wstring Wide(const std::string& s) { return kzdv::FromUtf8(s); }

std::wstring Errno(int e) { return Wide(std::strerror(e)); }

std::mutex g_signal_mutex;
int g_signal_users = 0;
struct sigaction g_old_action;

// The file a path finally names: a symlinked target is replaced where it
// points, so the link stays a link.
std::string Resolve(const std::string& target) {
  std::error_code ec;
  if (fs::is_symlink(fs::symlink_status(target, ec))) {
    fs::path real = fs::canonical(target, ec);
    if (!ec) return real.string();
  }
  return target;
}

void SyncFolder(const std::string& file) {
  fs::path dir = fs::path(file).parent_path();
  if (dir.empty()) dir = ".";
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);  // best effort: some file systems refuse fsync on folders
  ::close(fd);
}

}  // namespace

IgnoreFileSizeSignal::IgnoreFileSizeSignal() {
  std::lock_guard<std::mutex> lock(g_signal_mutex);
  if (g_signal_users++ == 0) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGXFSZ, &ignore, &g_old_action);
  }
}

IgnoreFileSizeSignal::~IgnoreFileSizeSignal() {
  std::lock_guard<std::mutex> lock(g_signal_mutex);
  if (--g_signal_users == 0) ::sigaction(SIGXFSZ, &g_old_action, nullptr);
}

std::string MakeTempBeside(const std::string& target, unsigned mode, std::wstring* message) {
  const fs::path t(target);
  fs::path dir = t.parent_path();
  const std::string stem = t.stem().string(), ext = t.extension().string();
  static thread_local std::mt19937_64 rng(std::random_device{}() ^
                                          static_cast<uint64_t>(::getpid()));
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  int last = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = "." + stem + ".tmp";
    for (int i = 0; i < 6; ++i) name += kChars[rng() % 36];
    name += ext;
    const std::string path = (dir / name).string();
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0) {
      ::close(fd);
      return path;
    }
    last = errno;
    if (last != EEXIST) break;
  }
  if (message)
    *message = L"Cannot create a temporary file beside " + Wide(target) + L": " + Errno(last);
  return std::string();
}

bool CopyFileContents(const std::string& from, const std::string& to, std::wstring* message) {
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

bool SyncFile(const std::string& path, std::wstring* message) {
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

bool ReplaceFile(const std::string& target_name, const TempWriter& write, std::wstring* message) {
  std::wstring local;
  if (!message) message = &local;
  if (target_name.empty()) {
    *message = L"No file name given";
    return false;
  }
  const std::string target = Resolve(target_name);
  IgnoreFileSizeSignal no_sigxfsz;
  struct stat st {};
  const bool existed = ::stat(target.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode)) {
    *message = Wide(target_name) + L" is not a regular file";
    return false;
  }
  const std::string temp = MakeTempBeside(target, 0666, message);
  if (temp.empty()) return false;
  auto fail = [&](const std::wstring& why) {
    std::remove(temp.c_str());
    *message = why;
    return false;
  };
  std::wstring why;
  bool ok = false;
  try {
    ok = write(temp, &why);
  } catch (const std::exception& e) {
    why = Wide(e.what());
  }
  if (!ok)
    return fail(L"Cannot write " + Wide(target_name) + (why.empty() ? L"" : L": " + why) +
                L" (the file is unchanged)");
  if (!SyncFile(temp, &why)) return fail(why + L" (" + Wide(target_name) + L" is unchanged)");
  if (existed && ::chmod(temp.c_str(), st.st_mode & 07777) != 0)
    return fail(L"Cannot set the permissions of " + Wide(target_name) + L": " + Errno(errno));
  if (::rename(temp.c_str(), target.c_str()) != 0)
    return fail(L"Cannot replace " + Wide(target_name) + L": " + Errno(errno) +
                L" (the file is unchanged)");
  SyncFolder(target);
  return true;
}

bool ReplaceFileWithStream(const std::string& target,
                           const std::function<bool(FILE* out, std::wstring* message)>& write,
                           std::wstring* message) {
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
      message);
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    Unlock();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void FileLock::Unlock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
    fd_ = -1;
  }
}

bool FileLock::Lock(const std::string& path, LockMode mode, std::wstring* message,
                    const std::function<bool()>& cancelled) {
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

}  // namespace kzdv::efio
