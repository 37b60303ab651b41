// Ground points and their image points: read on first demand (in one forward
// pass for files written by this library, by name for older ones), written
// as child nodes of the block property with a statistics node of the Z range.
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "epho/block/block_internal.h"
#include "platform/ethr/lock_holder.h"

using epho::block::DesignPtr;
using epho::block::kSource;

namespace {

std::wstring GroundName(long i) { return L"GroundPoint" + std::to_wstring(i); }
std::wstring ImageName(long i) { return L"ImagePoint" + std::to_wstring(i); }

struct PointHolder {
  Epho_GroundPoint* p;
  ~PointHolder() { EphoBlockFile::freeGroundPoint(p); }
};

// Free function matching a copy function, so that a copied list frees its
// elements as its source does.
Edlm_FreeFunction FreeFor(void* (*copy)(void*, Eerr_ErrorReport**)) {
  if (copy == &EphoBlockFile::copyGroundPoint) return &EphoBlockFile::freeGroundPoint;
  if (copy == &EphoBlockFile::copyImagePoint) return &EphoBlockFile::freeImagePoint;
  if (copy == &EphoBlockFile::copyDtm) return &EphoBlockFile::freeDtm;
  if (copy == &EphoBlockFile::copyOrtho) return &EphoBlockFile::freeOrtho;
  return nullptr;
}

// Checks that a design's record fits the prefix of the memory record.
void CheckPrefix(const Emif_Design* design, size_t prefix, EerrException& ctx) {
  if (emif_DesignSizeGet(design) > prefix)
    ctx.Throw(__LINE__, L"Design %s does not match its record", emif_DesignNameGet(design));
}

}  // namespace

void EphoBlockFile::freeImagePoint(void* point) { emsc_HeapFree(point); }

void EphoBlockFile::freeGroundPoint(void* point) {
  auto* p = static_cast<Epho_GroundPoint*>(point);
  if (!p) return;
  emsc_HeapFree(p->description.data);
  if (p->imagePoints) edlm_FreeListAndContents(p->imagePoints);
  emsc_HeapFree(p);
}

void* EphoBlockFile::copyImagePoint(void* point, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"EphoBlockFile::copyImagePoint", err);
  EERR_FAIL_IF(!point, frame, nullptr, L"No image point given");
  void* copy = emsc_MemDup(point, sizeof(Epho_ImagePoint));
  EERR_FAIL_IF(!copy, frame, nullptr, L"Out of memory");
  return copy;
}

void* EphoBlockFile::copyGroundPoint(void* point, Eerr_ErrorReport** err) {
  kzdv::ErrorFrame frame(L"EphoBlockFile::copyGroundPoint", err);
  EERR_FAIL_IF(!point, frame, nullptr, L"No ground point given");
  const auto* from = static_cast<const Epho_GroundPoint*>(point);
  auto* to = static_cast<Epho_GroundPoint*>(emsc_MemDup(from, sizeof(Epho_GroundPoint)));
  EERR_FAIL_IF(!to, frame, nullptr, L"Out of memory");
  to->description = Emif_CountedString{0, nullptr};
  to->imagePoints = nullptr;
  PointHolder hold{to};
  if (from->description.data) {
    to->description.data = etxt_Text_strdup(from->description.data);
    EERR_FAIL_IF(!to->description.data, frame, nullptr, L"Out of memory");
    to->description.count = static_cast<int32_t>(wcslen(to->description.data) + 1);
  }
  if (from->imagePoints) {
    to->imagePoints = edlm_InitList(sizeof(void*), edlm_CountList(from->imagePoints),
                                    freeImagePoint, copyImagePoint, frame.Callee());
    EERR_CHECK(to->imagePoints, frame, nullptr, L"edlm_InitList failed");
    for (long i = 0, n = edlm_CountList(from->imagePoints); i < n; ++i) {
      void* ip = copyImagePoint(edlm_GetAddr(from->imagePoints, i, nullptr), frame.Callee());
      EERR_CHECK(ip, frame, nullptr, L"copyImagePoint failed");
      if (!edlm_Add(to->imagePoints, ip, frame.Callee())) freeImagePoint(ip);
      EERR_CHECK(!frame.CalleeFailed(), frame, nullptr, L"edlm_Add failed");
    }
  }
  hold.p = nullptr;
  return to;
}

_edlm_list* EphoBlockFile::CopyList(_edlm_list* list, void* (*copy)(void*, Eerr_ErrorReport**)) {
  EerrException ctx(kSource, "EphoBlockFile::CopyList");
  if (!list) return nullptr;
  const long n = edlm_CountList(list);
  EdlmList out(FreeFor(copy));
  out.Reset(edlm_InitList(sizeof(void*), n, FreeFor(copy), copy, ctx.Err()));
  ctx.Check(__LINE__);
  for (long i = 0; i < n; ++i) {
    void* element = edlm_GetAddr(list, i, ctx.Err());
    ctx.Check(__LINE__);
    void* dup = copy ? copy(element, ctx.Err()) : nullptr;
    ctx.Check(__LINE__);
    if (!dup) ctx.Throw(__LINE__, L"No copy function for list elements");
    if (!edlm_Add(out.Get(), dup, ctx.Err())) {
      Edlm_FreeFunction f = FreeFor(copy);
      if (f) f(dup);
    }
    ctx.Check(__LINE__);
  }
  return out.Release();
}

_edlm_list* EphoBlockFile::ReadStoredPoints() {
  // Files written before versions were stored may hold their point nodes in
  // any order: only files with a version are read in one forward pass.
  EtxtTextU version;
  GetVersion(version);
  return version.empty() ? ReadPointsBySeeking(true) : ReadPointsSequentially();
}

unsigned long EphoBlockFile::GetObjectPointsListCopy(EdlmList& out) {
  EerrException ctx(kSource, "EphoBlockFile::GetObjectPointsListCopy");
  EthrLockHolder lock(m_Mutex);
  if (!m_ObjectPointList.Get()) return 0;
  if (!m_ObjectPointsInMemory && m_ObjectPointList.Count() == 0 && m_StoredPointCount > 0 &&
      m_HFAFile.Get() && !m_NewFile) {
    // Points that only the file holds are decoded straight into the
    // caller's list: the block keeps no decoded copy of its own, which
    // would double the memory of a large block for every reader.
    out.Reset(ReadStoredPoints());
    return static_cast<unsigned long>(out.Count());
  }
  out.Reset(CopyList(m_ObjectPointList.Get(), copyGroundPoint));
  return static_cast<unsigned long>(m_ObjectPointList.Count());
}

void EphoBlockFile::PutObjectPointsList(EdlmList& list) {
  EerrException ctx(kSource, "EphoBlockFile::PutObjectPointsList");
  _edlm_list* copy = list.Get() ? CopyList(list.Get(), copyGroundPoint) : nullptr;
  EthrLockHolder lock(m_Mutex);
  m_ObjectPointList.Reset(copy);
  m_ObjectPointList.SetOwnsContents(true);
  m_ObjectPointsInMemory = true;
  // The old point nodes are children of the property node: drop them all
  // and write the new ones.
  RegisterBlockProperty();
  FindCEFInList(L"BlockProperty")->copyChildren = EMSC_FALSE;
  AddNodeToCEFList(L"ObjectPointList", &EphoBlockFile::ObjectPointListWrite);
}

namespace {

// How the point records are read: converted field by field from the stored
// designs, or, when the file's designs are this library's, decoded straight
// into place (the common case, and the one that counts for large blocks).
struct PointReader {
  const Emif_Design* ground;
  const Emif_Design* image;
  bool storedAsOurs;

  // Reads one node into `record` (`size` bytes of which the design fills).
  void Read(Ehfa_File* file, Ehfa_SeekMethod method, const wchar_t* path, const wchar_t* name,
            const Emif_Design* design, void* record, EerrException& ctx) const {
    if (!storedAsOurs) {
      ehfa_ObjectReadInto(file, method, path, name, design, record, ctx.Err());
      ctx.Check(__LINE__);
      return;
    }
    const Emif_Design* stored = nullptr;
    void* decoded = nullptr;
    ehfa_ObjectRead(file, method, path, name, &stored, &decoded, ctx.Err());
    ctx.Check(__LINE__);
    // The record's contents (the description) change hands with the bytes.
    std::memcpy(record, decoded, emif_DesignSizeGet(design));
    emsc_HeapFree(decoded);
  }
};

PointReader MakePointReader(Ehfa_File* file, const Emif_Design* ground, const Emif_Design* image) {
  Emif_Dictionary* dict = ehfa_FileDictionaryGet(file);
  const Emif_Design* storedGround = emif_FindDesignByName(dict, L"GroundPoint");
  const Emif_Design* storedImage = emif_FindDesignByName(dict, L"ImagePoint");
  const bool same = storedGround && storedImage && emif_DesignsEqual(storedGround, ground) &&
                    emif_DesignsEqual(storedImage, image);
  return PointReader{ground, image, same};
}

}  // namespace

// Reads one ground point (at the current position for `method` 18) and its
// image points; the record is handed over to the caller.
static Epho_GroundPoint* ReadOnePoint(Ehfa_File* file, long i, bool sequential,
                                      const PointReader& reader, EerrException& ctx) {
  auto* gp = static_cast<Epho_GroundPoint*>(emsc_HeapCalloc(1, sizeof(Epho_GroundPoint)));
  if (!gp) ctx.Throw(__LINE__, L"Out of memory");
  PointHolder hold{gp};
  const std::wstring name = GroundName(i);
  if (sequential && i > 0) {
    reader.Read(file, EHFA_SEEK_NEXT_IN_FILE, nullptr, name.c_str(), reader.ground, gp, ctx);
  } else {
    reader.Read(file, EHFA_SEEK_BY_NAME, L":BlockProperty", name.c_str(), reader.ground, gp, ctx);
  }
  gp->imagePoints = nullptr;
  const int32_t count = gp->imagePointCount;
  if (count < 0) ctx.Throw(__LINE__, L"Invalid image point count %d of %s", count, name.c_str());
  gp->imagePoints = edlm_InitList(sizeof(void*), count, EphoBlockFile::freeImagePoint,
                                  EphoBlockFile::copyImagePoint, ctx.Err());
  ctx.Check(__LINE__);
  const std::wstring parent = sequential ? std::wstring() : L":BlockProperty:" + name;
  for (int32_t j = 0; j < count; ++j) {
    auto* ip = static_cast<Epho_ImagePoint*>(emsc_HeapCalloc(1, sizeof(Epho_ImagePoint)));
    if (!ip) ctx.Throw(__LINE__, L"Out of memory");
    if (!edlm_Add(gp->imagePoints, ip, ctx.Err())) emsc_HeapFree(ip);
    ctx.Check(__LINE__);
    const std::wstring iname = ImageName(j);
    if (sequential) {
      reader.Read(file, EHFA_SEEK_NEXT_IN_FILE, nullptr, iname.c_str(), reader.image, ip, ctx);
    } else {
      reader.Read(file, EHFA_SEEK_BY_NAME, parent.c_str(), iname.c_str(), reader.image, ip, ctx);
    }
  }
  hold.p = nullptr;
  return gp;
}

_edlm_list* EphoBlockFile::ReadPointsSequentially() {
  EerrException ctx(kSource, "EphoBlockFile::ReadPointsSequentially");
  Ehfa_File* file = m_HFAFile.Get();
  Emif_Dictionary* dict = ehfa_FileDictionaryGet(file);
  if (!emif_FindDesignByName(dict, L"GroundPoint") || !emif_FindDesignByName(dict, L"ImagePoint"))
    ctx.Throw(__LINE__, L"The block holds %ld ground points but no point designs",
              m_StoredPointCount);
  DesignPtr gpDesign = epho::block::GroundPointDesign(ctx);
  DesignPtr ipDesign = epho::block::ImagePointDesign(ctx);
  CheckPrefix(gpDesign.get(), offsetof(Epho_GroundPoint, imagePoints), ctx);
  CheckPrefix(ipDesign.get(), sizeof(Epho_ImagePoint), ctx);
  // The list is handed over only when every point was read.
  const PointReader reader = MakePointReader(file, gpDesign.get(), ipDesign.get());
  EdlmList points(freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), m_StoredPointCount, freeGroundPoint, copyGroundPoint,
                             ctx.Err()));
  ctx.Check(__LINE__);
  for (long i = 0; i < m_StoredPointCount; ++i) {
    Epho_GroundPoint* gp = ReadOnePoint(file, i, true, reader, ctx);
    if (!edlm_Add(points.Get(), gp, ctx.Err())) freeGroundPoint(gp);
    ctx.Check(__LINE__);
  }
  return points.Release();
}

_edlm_list* EphoBlockFile::ReadPointsBySeeking(bool keep) {
  EerrException ctx(kSource, "EphoBlockFile::ReadPointsBySeeking");
  Ehfa_File* file = m_HFAFile.Get();
  DesignPtr gpDesign = epho::block::GroundPointDesign(ctx);
  DesignPtr ipDesign = epho::block::ImagePointDesign(ctx);
  CheckPrefix(gpDesign.get(), offsetof(Epho_GroundPoint, imagePoints), ctx);
  CheckPrefix(ipDesign.get(), sizeof(Epho_ImagePoint), ctx);
  const PointReader reader = MakePointReader(file, gpDesign.get(), ipDesign.get());
  EdlmList points(freeGroundPoint);
  if (keep) {
    points.Reset(edlm_InitList(sizeof(void*), m_StoredPointCount, freeGroundPoint, copyGroundPoint,
                               ctx.Err()));
    ctx.Check(__LINE__);
  }
  double minZ = std::numeric_limits<double>::quiet_NaN(), maxZ = minZ;
  for (long i = 0; i < m_StoredPointCount; ++i) {
    Epho_GroundPoint* gp = ReadOnePoint(file, i, false, reader, ctx);
    const double z = gp->groundZ;
    if (!keep) {
      freeGroundPoint(gp);
    } else if (!edlm_Add(points.Get(), gp, ctx.Err())) {
      freeGroundPoint(gp);
    }
    ctx.Check(__LINE__);
    if (i == 0) {
      minZ = maxZ = z;
    } else {
      if (z < minZ) minZ = z;
      if (z > maxZ) maxZ = z;
    }
  }
  m_MinZ = minZ;
  m_MaxZ = maxZ;
  return points.Release();
}

void EphoBlockFile::ObjectPointListWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::ObjectPointListWrite");
  DesignPtr gpDesign = epho::block::GroundPointDesign(ctx);
  DesignPtr ipDesign = epho::block::ImagePointDesign(ctx);
  CheckPrefix(gpDesign.get(), offsetof(Epho_GroundPoint, imagePoints), ctx);
  CheckPrefix(ipDesign.get(), sizeof(Epho_ImagePoint), ctx);
  ehfa_EntrySeek(file, EHFA_SEEK_INTO, L":BlockProperty", nullptr, ctx.Err());
  ctx.Check(__LINE__);
  ehfa_FileChange(file, EHFA_CHANGE_BULK, 0, nullptr, ctx.Err());
  ctx.Check(__LINE__);
  // The stored range starts at 0, not at the first point: it always holds 0.
  double maxZ = 0.0, minZ = 0.0;
  for (long i = 0, n = m_ObjectPointList.Count(); i < n; ++i) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(m_ObjectPointList.Get(), i, ctx.Err()));
    ctx.Check(__LINE__);
    const long images = edlm_CountList(gp->imagePoints);
    gp->imagePointCount = static_cast<int32_t>(images);
    ehfa_ObjectWrite(file, i == 0 ? L":BlockProperty" : nullptr, GroundName(i).c_str(),
                     i == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, gpDesign.get(), gp,
                     ctx.Err());
    ctx.Check(__LINE__);
    if (images > 0) {
      for (long j = 0; j < images; ++j) {
        void* ip = edlm_GetAddr(gp->imagePoints, j, ctx.Err());
        ctx.Check(__LINE__);
        ehfa_ObjectWrite(file, nullptr, ImageName(j).c_str(),
                         j == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, ipDesign.get(), ip,
                         ctx.Err());
        ctx.Check(__LINE__);
      }
      ehfa_EntrySeek(file, EHFA_SEEK_PARENT, nullptr, nullptr, ctx.Err());
      ctx.Check(__LINE__);
    }
    if (gp->groundZ > maxZ) maxZ = gp->groundZ;
    if (gp->groundZ < minZ) minZ = gp->groundZ;
  }
  ehfa_FileChange(file, EHFA_CHANGE_BULK, 1, nullptr, ctx.Err());
  ctx.Check(__LINE__);
  DesignPtr stats = epho::block::GroundPointStatsDesign(ctx);
  epho::block::GroundPointStatsRecord rec{maxZ, minZ};
  ehfa_ObjectWrite(file, L":BlockProperty", L"GroundPointStats", EHFA_WRITE_REPLACE, stats.get(),
                   &rec, ctx.Err());
  ctx.Check(__LINE__);
  // The property node's children were dropped for this save.
  if (!m_AutoTieInMemory) AutoTieNodeWrite(file);
}

void EphoBlockFile::ScanMinMaxZ() {
  const long n = m_ObjectPointList.Count();
  for (long i = 0; i < n; ++i) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(m_ObjectPointList.Get(), i, nullptr));
    if (i == 0) {
      m_MinZ = m_MaxZ = gp->groundZ;
    } else {
      if (gp->groundZ < m_MinZ) m_MinZ = gp->groundZ;
      if (gp->groundZ > m_MaxZ) m_MaxZ = gp->groundZ;
    }
  }
}

void EphoBlockFile::GetMinMaxZ(double* minZ, double* maxZ) {
  EerrException ctx(kSource, "EphoBlockFile::GetMinMaxZ");
  EthrLockHolder lock(m_Mutex);
  if (std::isnan(m_MinZ) || std::isnan(m_MaxZ)) {
    Ehfa_File* file = m_HFAFile.Get();
    if (m_ObjectPointsInMemory) {
      ScanMinMaxZ();
    } else if (file && !m_NewFile &&
               emif_FindDesignByName(ehfa_FileDictionaryGet(file), L"GroundPointStats")) {
      DesignPtr design = epho::block::GroundPointStatsDesign(ctx);
      epho::block::GroundPointStatsRecord rec{};
      ehfa_ObjectReadInto(file, EHFA_SEEK_BY_NAME, L":BlockProperty", L"GroundPointStats",
                          design.get(), &rec, ctx.Err());
      ctx.Check(__LINE__);
      m_MaxZ = rec.MaximumZ;
      m_MinZ = rec.MinimumZ;
    } else if (file && !m_NewFile && m_StoredPointCount > 0) {
      // No statistics node: the points are scanned one at a time.
      ReadPointsBySeeking(false);
    }
  }
  if (!std::isnan(m_MinZ) && !std::isnan(m_MaxZ) && m_ObjectPointsInMemory) ScanMinMaxZ();
  if (minZ) *minZ = m_MinZ;
  if (maxZ) *maxZ = m_MaxZ;
}
