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
// rename never crosses file systems) with the target's permissions, lets the
// callback write it, then flushes it to disk (fsync), renames it over the
// target and syncs the folder. If anything fails (the callback, a write, the
// close, the sync, the rename) the temporary is removed and the target stays
// byte-identical. While it runs, SIGXFSZ is ignored, so a file size limit
// makes write() fail with EFBIG instead of killing the process; the callback
// must check every write and its close (efio_Close and std::fclose report
// such failures). The callback may also create sidecars named after `temp`
// (temp + ".aux.xml"); moving those is the caller's business.
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
#ifndef KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_
#define KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_

#include <cstdio>
#include <functional>
#include <string>

namespace kzdv::efio {

// Writes the temporary (named by its path); false with *message set on failure.
using TempWriter = std::function<bool(const std::string& temp_path, std::wstring* message)>;

// Replaces `target` (UTF-8 path; need not exist yet) with what `write`
// produces. True on success; false with *message (naming the target) set,
// the target unchanged and no temporary left behind.
bool ReplaceFile(const std::string& target, const TempWriter& write, std::wstring* message);

// The same with the temporary opened as a stdio stream for writing; the
// stream is closed and checked by ReplaceFile (the callback must not close it).
bool ReplaceFileWithStream(const std::string& target,
                           const std::function<bool(FILE* out, std::wstring* message)>& write,
                           std::wstring* message);

// Name of a temporary for `target`: in the same folder, hidden, unique, and
// ending with the target's extension so that format detection by name still
// works ("dir/.name.tmpXXXXXX.ext"). The file is created (empty, exclusively)
// with `mode`; empty string with *message set on failure.
std::string MakeTempBeside(const std::string& target, unsigned mode, std::wstring* message);

// Copies the bytes of `from` over `to` (created or truncated), keeping the
// holes of a sparse file as holes. False with *message on failure.
bool CopyFileContents(const std::string& from, const std::string& to, std::wstring* message);

// Flushes a finished file to disk: fsync of the file (false with *message on
// failure). Used by ReplaceFile; public for callers that build a temporary by
// other means.
bool SyncFile(const std::string& path, std::wstring* message);

// While alive, SIGXFSZ is ignored process-wide (nested and concurrent users
// are counted; the previous disposition comes back with the last one).
class IgnoreFileSizeSignal {
 public:
  IgnoreFileSizeSignal();
  ~IgnoreFileSizeSignal();
  IgnoreFileSizeSignal(const IgnoreFileSizeSignal&) = delete;
  IgnoreFileSizeSignal& operator=(const IgnoreFileSizeSignal&) = delete;
};

enum class LockMode {
  kWait,    // block until the other writer is done (see `cancelled` below)
  kRefuse,  // fail at once when another writer holds the file
};

class FileLock {
 public:
  FileLock() = default;
  ~FileLock() { Unlock(); }
  FileLock(FileLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Locks the existing file `path` exclusively. With kWait, `cancelled` (may
  // be empty) is polled while waiting and ends the wait with false. On
  // failure *message names the file: "<path> is being written by another
  // process or thread" (kRefuse), or why the file cannot be locked.
  bool Lock(const std::string& path, LockMode mode, std::wstring* message,
            const std::function<bool()>& cancelled = nullptr);
  void Unlock();
  bool locked() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace kzdv::efio

#endif  // KZDV_PLATFORM_EFIO_ATOMIC_FILE_H_
