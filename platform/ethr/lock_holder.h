// Scope-bound holders of the toolkit's locks for C++ code inside the
// libraries (not installed, not exported).
#ifndef PLATFORM_ETHR_LOCK_HOLDER_H
#define PLATFORM_ETHR_LOCK_HOLDER_H

#include "ethr.h"

// Locks a non-null mutex on construction and unlocks it when the scope ends,
// also when an exception passes.
class EthrLockHolder {
 public:
  explicit EthrLockHolder(Ethr_Mutex* mutex);
  ~EthrLockHolder();
  EthrLockHolder(const EthrLockHolder&) = delete;
  EthrLockHolder& operator=(const EthrLockHolder&) = delete;

 private:
  Ethr_Mutex* mutex_;
};

// Scope-bound thread-unsafe section.
class EthrThreadUnsafeSection {
 public:
  EthrThreadUnsafeSection() { ethr_ThreadUnsafeCodeEnter(); }
  ~EthrThreadUnsafeSection() { ethr_ThreadUnsafeCodeExit(); }
  EthrThreadUnsafeSection(const EthrThreadUnsafeSection&) = delete;
  EthrThreadUnsafeSection& operator=(const EthrThreadUnsafeSection&) = delete;
};

#endif  // PLATFORM_ETHR_LOCK_HOLDER_H
