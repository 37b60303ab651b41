// Which names denote one DEM, and the lifetime of DEM proxy files.
#include <atomic>
#include <cwctype>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>

#include "efio.h"
#include "epho/dtm/dtm_files_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace epho::dtm {

namespace {

namespace fs = std::filesystem;

// "file(:Layer_1)" -> file part and layer part.
void Split(const std::wstring& name, std::wstring* file, std::wstring* layer) {
  const size_t k = name.rfind(L"(:");
  *file = k == std::wstring::npos ? name : name.substr(0, k);
  *layer = k == std::wstring::npos ? std::wstring() : name.substr(k);
}

bool IsProxy(const std::wstring& name) {
  if (name.size() < 4) return false;
  std::wstring ext = name.substr(name.size() - 4);
  for (auto& c : ext) c = static_cast<wchar_t>(std::towlower(c));
  if (ext != L".uai") return false;
  kzdv::HeapPtr<Etxt_Char> tmp(efio_DirectoryGetTemporary(nullptr));
  return tmp && name.rfind(tmp.get(), 0) == 0;
}

void Remove(const std::wstring& name) {
  std::error_code ec;
  const std::string path = kzdv::ToUtf8(name);
  fs::remove(path, ec);
  fs::remove(path + ".aux.xml", ec);  // statistics GDAL may have kept beside it
}

// Proxies held by entries, with their holder counts. Entries that live to
// the end of the process (the list is never destroyed) release nothing, so
// the registry removes the proxies still held when the process ends.
struct Registry {
  std::mutex mutex;
  std::map<std::wstring, int> holders;
  ~Registry();
};
std::atomic<bool> g_registry_gone{false};

Registry& Proxies() {
  static Registry registry;
  return registry;
}

Registry::~Registry() {
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto& held : holders) Remove(held.first);
  holders.clear();
  g_registry_gone = true;
}

}  // namespace

bool SameDem(const std::wstring& a, const std::wstring& b) {
  if (a == b) return true;
  if (!estr_Eqic(a.c_str(), b.c_str())) return false;
  std::wstring fa, la, fb, lb;
  Split(a, &fa, &la);
  Split(b, &fb, &lb);
  if (!estr_Eqic(la.c_str(), lb.c_str())) return false;
  std::error_code ec;
  const bool same = fs::equivalent(kzdv::ToUtf8(fa), kzdv::ToUtf8(fb), ec);
  return same && !ec;
}

void ProxyHold(const std::wstring& name) {
  if (g_registry_gone || !IsProxy(name)) return;
  Registry& r = Proxies();
  std::lock_guard<std::mutex> lock(r.mutex);
  ++r.holders[name];
}

void ProxyRelease(const std::wstring& name) {
  if (g_registry_gone || !IsProxy(name)) return;  // after the end: removed already
  Registry& r = Proxies();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.holders.find(name);
  if (it == r.holders.end()) return;
  if (--it->second > 0) return;
  r.holders.erase(it);
  Remove(name);
}

void ProxyDropIfUnheld(const std::wstring& name) {
  if (g_registry_gone || !IsProxy(name)) return;
  Registry& r = Proxies();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (r.holders.count(name) == 0) Remove(name);
}

}  // namespace epho::dtm
