// Through the exported C interface only, so that every shipped library links
// its own hidden copy (see kzdv_internal in CMakeLists.txt).
#include "platform/ethr/lock_holder.h"

EthrLockHolder::EthrLockHolder(Ethr_Mutex* mutex) : mutex_(mutex) {
  if (mutex_) ethr_MutexLock(mutex_, nullptr);
}

EthrLockHolder::~EthrLockHolder() {
  if (mutex_) ethr_MutexUnlock(mutex_, nullptr);
}
