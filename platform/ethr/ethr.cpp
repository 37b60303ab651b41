#include "ethr.h"

#include <mutex>
#include <new>

#include "platform/eerr/error_frame.h"

struct Ethr_Mutex {
  std::recursive_mutex mutex;
};

Ethr_Mutex* ethr_MutexCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"ethr_MutexCreate", err);
  Ethr_Mutex* m = new (std::nothrow) Ethr_Mutex;
  EERR_FAIL_IF(!m, frame, nullptr, L"Out of memory");
  return m;
}
EERR_BOUNDARY(err, nullptr)

void ethr_MutexLock(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"ethr_MutexLock", err);
  EERR_FAIL_IF(!mutex, frame, , L"Null mutex");
  mutex->mutex.lock();
}
EERR_BOUNDARY(err, )

void ethr_MutexUnlock(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"ethr_MutexUnlock", err);
  EERR_FAIL_IF(!mutex, frame, , L"Null mutex");
  mutex->mutex.unlock();
}
EERR_BOUNDARY(err, )

void ethr_MutexDestroy(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"ethr_MutexDestroy", err);
  delete mutex;
}
EERR_BOUNDARY(err, )

static std::recursive_mutex& UnsafeSection() {
  static std::recursive_mutex m;
  return m;
}

void ethr_ThreadUnsafeCodeEnter(void) KZDV_NOEXCEPT try { UnsafeSection().lock(); }
EERR_BOUNDARY(nullptr, )
void ethr_ThreadUnsafeCodeExit(void) KZDV_NOEXCEPT try { UnsafeSection().unlock(); }
EERR_BOUNDARY(nullptr, )
