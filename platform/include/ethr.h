/* ethr: mutexes and the process-wide thread-unsafe section.
 *
 * Toolkit mutexes are recursive (a thread may lock one it holds). The
 * thread-unsafe section is one process-wide recursive lock around code that
 * touches shared, lazily built state (the design dictionary, singletons). */
#ifndef ETHR_H
#define ETHR_H

#include "eerr.h"
#include "kzdv_export.h"

typedef struct Ethr_Mutex Ethr_Mutex;

KZDV_BEGIN_C

/* Creates a recursive mutex; null with a report on failure. */
KZDV_EXPORT Ethr_Mutex* ethr_MutexCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void ethr_MutexLock(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void ethr_MutexUnlock(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Destroys a mutex that no thread holds; null is ignored. */
KZDV_EXPORT void ethr_MutexDestroy(Ethr_Mutex* mutex, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void ethr_ThreadUnsafeCodeEnter(void) KZDV_NOEXCEPT;
KZDV_EXPORT void ethr_ThreadUnsafeCodeExit(void) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* ETHR_H */
