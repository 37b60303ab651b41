// Names and proxy files of DEM cache entries (internal).
#ifndef EPHO_DTM_DTM_FILES_INTERNAL_H_
#define EPHO_DTM_DTM_FILES_INTERNAL_H_

#include <string>

namespace epho::dtm {

// True when `a` and `b` name the same DEM: equal ignoring letter case, and
// denoting the same file (std::filesystem::equivalent) with the same layer.
// On a case-sensitive file system "dem.tif" and "DEM.tif" are two files and
// never the same DEM; where the file system ignores case they are one.
bool SameDem(const std::wstring& a, const std::wstring& b);

// Proxy files (".uai" in the temporary directory) belong to the cache
// entries opened on them: each entry holds its proxy, and the last release
// of a proxy removes the file. ProxyHold and ProxyRelease ignore other names.
void ProxyHold(const std::wstring& name);
void ProxyRelease(const std::wstring& name);
// Removes `name` when no entry holds it (a proxy whose entry failed to open).
void ProxyDropIfUnheld(const std::wstring& name);

}  // namespace epho::dtm

#endif  // EPHO_DTM_DTM_FILES_INTERNAL_H_
