// The process-wide list of open DEMs.
#include <atomic>
#include <mutex>

#include "efio.h"
#include "epho/dtm.h"
#include "epho/dtm/dtm_files_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/ethr/lock_holder.h"

namespace EphoLib {

namespace {
std::atomic<DTMCacheList*> g_instance{nullptr};
std::mutex g_instance_section;
const char kSource[] = "DTMCache";
}  // namespace

DTMCacheList::DTMCacheList() {
  EerrException ctx(kSource, "DTMCacheList::DTMCacheList");
  m_mutex = ethr_MutexCreate(ctx.Err());
  ctx.Check(__LINE__);
}

DTMCacheList::~DTMCacheList() { ethr_MutexDestroy(m_mutex, nullptr); }

DTMCacheList& DTMCacheList::Instance() {
  // Double-checked creation; the list lives until the process ends.
  DTMCacheList* list = g_instance.load(std::memory_order_acquire);
  if (list) return *list;
  std::lock_guard<std::mutex> section(g_instance_section);
  list = g_instance.load(std::memory_order_relaxed);
  if (!list) {
    list = new DTMCacheList;
    g_instance.store(list, std::memory_order_release);
  }
  return *list;
}

boost::shared_ptr<DTMCache> DTMCacheList::Open(const wchar_t* name) {
  EerrException ctx(kSource, "DTMCacheList::Open");
  kzdv::HeapPtr<Etxt_Char> full(estr_PathExpand(name, ctx.Err()));
  ctx.Check(__LINE__);
  // The search takes the lock too: a vector being appended to by another
  // thread cannot be walked safely.
  {
    EthrLockHolder lock(m_mutex);
    for (const auto& entry : m_list)
      if (epho::dtm::SameDem(entry->GetName(), full.get())) return entry;
  }
  // Opened outside the lock, so a slow DEM does not hold up other callers.
  boost::shared_ptr<DTMCache> fresh(new DTMCache(full.get()));
  EthrLockHolder lock(m_mutex);
  for (const auto& entry : m_list)
    if (epho::dtm::SameDem(entry->GetName(), full.get())) return entry;  // another thread won
  m_list.push_back(fresh);
  return fresh;
}

void DTMCacheList::Clear() {
  std::vector<boost::shared_ptr<DTMCache>> dropped;
  {
    EthrLockHolder lock(m_mutex);
    dropped.swap(m_list);
  }
  // Entries nobody else holds close here, outside the lock.
}

size_t DTMCacheList::Size() const {
  EthrLockHolder lock(m_mutex);
  return m_list.size();
}

}  // namespace EphoLib
