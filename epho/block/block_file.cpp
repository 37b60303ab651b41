// The block file object: the registry of open blocks, opening and closing,
// the version node and the cached-data copy.
#include <cmath>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>

#include "efio.h"
#include "eint.h"
#include "epho/block/block_internal.h"
#include "platform/estr/utf8.h"
#include "platform/ethr/lock_holder.h"

using epho::block::kSource;

Ethr_Mutex* EphoBlockFile::m_ClassMutex = nullptr;
_edlm_list* EphoBlockFile::m_FileObjectList = nullptr;

namespace {

// The class mutex is made on first use; a failure to make it is reported on
// every later Open.
Ethr_Mutex* ClassMutex(EerrException& ctx, Ethr_Mutex*& slot) {
  static std::once_flag once;
  std::call_once(once, [&] {
    Eerr_ErrorReport* err = nullptr;
    slot = ethr_MutexCreate(&err);
    eerr_DeleteErrorReport(err);
  });
  if (!slot) ctx.Throw(__LINE__, L"ethr_MutexCreate returned EMSC_FALSE");
  return slot;
}

// Two names denote one open block only when they are equal ignoring case and
// name the same file: on a case-sensitive file system "a.blk" and "A.blk"
// are different blocks.
bool SameBlockFile(const std::wstring& a, const std::wstring& b) {
  if (!estr_Eqic(a.c_str(), b.c_str())) return false;
  if (a == b) return true;
  std::error_code ec;
  return std::filesystem::equivalent(kzdv::ToUtf8(a), kzdv::ToUtf8(b), ec) && !ec;
}

// Raises a count that is still above 0: an object whose count reached 0 is
// being destroyed and must not be handed out again.
bool AddReferenceIfAlive(std::atomic<int>& count) {
  int c = count.load();
  while (c > 0) {
    if (count.compare_exchange_weak(c, c + 1)) return true;
  }
  return false;
}

}  // namespace

EhfaFile::~EhfaFile() { Reset(); }

void EhfaFile::Reset(Ehfa_File* file) {
  if (m_file && m_file != file) {
    Eerr_ErrorReport* err = nullptr;
    ehfa_FileClose(m_file, &err);
    eerr_DeleteErrorReport(err);
  }
  m_file = file;
}

EphoBlockFile::EphoBlockFile()
    : m_ImageList(freeBlkImage),
      m_OrthoList(freeOrtho),
      m_DTMList(freeDtm),
      m_ObjectPointList(freeGroundPoint),
      m_MaxZ(std::numeric_limits<double>::quiet_NaN()),
      m_MinZ(std::numeric_limits<double>::quiet_NaN()) {
  EerrException ctx(kSource, "EphoBlockFile::EphoBlockFile");
  m_Mutex = ethr_MutexCreate(ctx.Err());
  if (!m_Mutex) ctx.Throw(__LINE__, L"ethr_MutexCreate returned EMSC_FALSE");
  m_AutoTie = epho_BlockInitTiePar(ctx.Err());
  if (!m_AutoTie) {
    ethr_MutexDestroy(m_Mutex, nullptr);
    ctx.Check(__LINE__);
  }
  // A save never copies the old version node; it writes a fresh one.
  AddNodeToCEFList(L"BlockFileVersion", static_cast<EphoBlockNodeWriter>(nullptr));
  m_Dirty = false;
}

EphoBlockFile::~EphoBlockFile() {
  InternalClose();
  emsc_HeapFree(m_AutoTie);
  emsc_HeapFree(m_SensorData);
  emsc_HeapFree(m_FrameDataSizes);
  FreeCEFList();
  FreeEhfaObjectList();
  emif_DesignDestroy(m_FrameDesign);
  emif_DesignDestroy(m_SensorDesign);
  ethr_MutexDestroy(m_Mutex, nullptr);
}

EphoBlockFile* EphoBlockFile::Open(EtxtTextU& name, bool create) {
  EerrException ctx(kSource, "EphoBlockFile::Open");
  if (name.empty()) ctx.Throw(__LINE__, L"No block file name given");
  EthrLockHolder classLock(ClassMutex(ctx, m_ClassMutex));

  if (!m_FileObjectList) {
    m_FileObjectList = edlm_InitList(sizeof(void*), 1, nullptr, nullptr, ctx.Err());
    ctx.Check(__LINE__);
  }
  EphoBlockFile* found = nullptr;
  for (long i = 0, n = edlm_CountList(m_FileObjectList); i < n; ++i) {
    auto* block = static_cast<EphoBlockFile*>(edlm_GetAddr(m_FileObjectList, i, nullptr));
    if (block && block->m_RefCount.load() > 0 && SameBlockFile(block->m_RegistryName, name) &&
        AddReferenceIfAlive(block->m_RefCount)) {
      found = block;
      break;
    }
  }

  if (found) {
    try {
      found->ReadCS();
    } catch (...) {
      --found->m_RefCount;  // still above 0: the caller's reference is not kept
      throw;
    }
    EthrLockHolder lock(found->m_Mutex);
    found->m_FileName = name;
    return found;
  }

  const int kind = efio_FileNameExistAsFileOrDir(name.c_str());
  if (kind != EFIO_FILE && (kind != EFIO_NOTHING || !create)) return nullptr;

  // Not registered until it is complete: a failure leaves the registry as it was.
  struct NewBlock {
    EphoBlockFile* block = new EphoBlockFile();
    bool createdFile = false;
    std::wstring name;
    ~NewBlock() {
      if (!block) return;
      delete block;
      if (createdFile) std::remove(kzdv::ToUtf8(name).c_str());
    }
  } made;
  made.name = name;
  EphoBlockFile* block = made.block;
  Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
  ctx.Check(__LINE__);
  if (kind == EFIO_NOTHING) {
    Ehfa_File* file = ehfa_FileCreate(name.c_str(), init, ctx.Err());
    ctx.Check(__LINE__);
    made.createdFile = true;
    block->m_HFAFile.Reset(file);
    block->m_NewFile = true;
    ehfa_EntryWrite(file, EHFA_WRITE_FIRST_CHILD, L"BlockProperty", L"Block_Property", ctx.Err());
    ctx.Check(__LINE__);
    ehfa_FileFlush(file, ctx.Err());
    ctx.Check(__LINE__);
  } else {
    Ehfa_File* file = ehfa_FileOpen(name.c_str(), "r", init, ctx.Err());
    ctx.Check(__LINE__);
    block->m_HFAFile.Reset(file);
    // Every block, even one never saved, has its property node at the root.
    const Emsc_Boolean isBlock =
        ehfa_EntrySeekIfPresent(file, EHFA_SEEK_BY_NAME, L":", L"BlockProperty", ctx.Err());
    ctx.Check(__LINE__);
    if (!isBlock) ctx.Throw(__LINE__, L"%s is not a block file", name.c_str());
  }
  block->m_RefCount = 1;
  block->m_FileName = name;
  block->m_RegistryName = name;
  if (!block->m_NewFile) block->ReadCS();
  edlm_Add(m_FileObjectList, block, ctx.Err());
  ctx.Check(__LINE__);
  made.block = nullptr;
  return block;
}

void EphoBlockFile::Close() { DecrementRefCount(); }

int EphoBlockFile::IncrementRefCount() { return ++m_RefCount; }

int EphoBlockFile::DecrementRefCount() {
  int count;
  {
    EthrLockHolder lock(m_Mutex);
    count = --m_RefCount;
  }
  if (count > 0) return count;
  // The object mutex is released before the class mutex is taken.
  EerrException ctx(kSource, "EphoBlockFile::DecrementRefCount");
  EthrLockHolder classLock(ClassMutex(ctx, m_ClassMutex));
  for (long i = 0, n = edlm_CountList(m_FileObjectList); i < n; ++i) {
    if (edlm_GetAddr(m_FileObjectList, i, nullptr) == this) {
      edlm_Remove(m_FileObjectList, i, nullptr);
      break;
    }
  }
  if (m_FileObjectList && edlm_CountList(m_FileObjectList) == 0) {
    edlm_FreeList(m_FileObjectList);
    m_FileObjectList = nullptr;
  }
  delete this;
  return 0;
}

int EphoBlockFile::GetReferenceCount() const { return m_RefCount.load(); }

void EphoBlockFile::InternalClose() { m_HFAFile.Reset(); }

bool EphoBlockFile::IsDirty() {
  EthrLockHolder lock(m_Mutex);
  return m_Dirty;
}

Ehfa_File* EphoBlockFile::GetHFAFile() {
  EthrLockHolder lock(m_Mutex);
  return m_HFAFile.Get();
}

void EphoBlockFile::GetFileName(EtxtTextU& name) {
  EthrLockHolder lock(m_Mutex);
  name = m_FileName;
}

EphoBlockFile* EphoBlockFile::FindHFAOnList(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::FindHFAOnList");
  if (!file) return nullptr;
  EthrLockHolder classLock(ClassMutex(ctx, m_ClassMutex));
  const Etxt_Char* name = ehfa_FileNameGet(file);
  for (long i = 0, n = edlm_CountList(m_FileObjectList); i < n; ++i) {
    auto* block = static_cast<EphoBlockFile*>(edlm_GetAddr(m_FileObjectList, i, nullptr));
    if (block && estr_Eqic(block->m_RegistryName.c_str(), name)) return block;
  }
  return nullptr;
}

void EphoBlockFile::GetVersion(EtxtTextU& version) {
  EerrException ctx(kSource, "EphoBlockFile::GetVersion");
  EthrLockHolder lock(m_Mutex);
  Ehfa_File* file = m_HFAFile.Get();
  if (m_Version.empty() && file &&
      emif_FindDesignByName(ehfa_FileDictionaryGet(file), L"BlockFileVersion")) {
    epho::block::DesignPtr design = epho::block::VersionDesign(ctx);
    epho::block::VersionRecord rec{};
    // A file may keep the design after its version node was dropped.
    const Emsc_Boolean present = ehfa_ObjectReadIntoIfPresent(
        file, EHFA_SEEK_BY_NAME, L":", L"BlockFileVersion", design.get(), &rec, ctx.Err());
    const std::wstring text = epho::block::CountedText(rec.Version);
    emif_ObjectContentsFree(design.get(), &rec, nullptr);
    ctx.Check(__LINE__);
    if (present) m_Version = text;
  }
  version = m_Version;
}

void EphoBlockFile::BlockFileVersionWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::BlockFileVersionWrite");
  epho::block::DesignPtr design = epho::block::VersionDesign(ctx);
  static const wchar_t kVersion[] = L"9.2";
  epho::block::VersionRecord rec{};
  rec.Version.count = static_cast<int32_t>(wcslen(kVersion) + 1);
  rec.Version.data = const_cast<Etxt_Char*>(kVersion);
  ehfa_ObjectWrite(file, L":", L"BlockFileVersion", EHFA_WRITE_FIRST_CHILD, design.get(), &rec,
                   ctx.Err());
  ctx.Check(__LINE__);
}

EphoBlockFile& EphoBlockFile::operator=(const EphoBlockFile& other) {
  if (this == &other) return *this;
  EerrException ctx(kSource, "EphoBlockFile::operator=");
  // Both objects are locked in address order, so two assignments in opposite
  // directions cannot wait on each other.
  Ethr_Mutex* first = this < &other ? m_Mutex : other.m_Mutex;
  Ethr_Mutex* second = this < &other ? other.m_Mutex : m_Mutex;
  EthrLockHolder lock1(first);
  EthrLockHolder lock2(second);

  auto copyList = [&](const EdlmList& from, EdlmList& to,
                      void* (*copy)(void*, Eerr_ErrorReport**)) {
    to.Reset(from.Get() ? CopyList(from.Get(), copy) : nullptr);
  };
  m_ImageList.Reset();
  if (other.m_ImageList.Get() && other.m_FrameDataSizes) {
    // Frame data are raw bytes: copy each with its size.
    EdlmList images(freeBlkImage);
    const long n = other.m_ImageList.Count();
    images.Reset(edlm_InitList(sizeof(void*), n, freeBlkImage, nullptr, ctx.Err()));
    ctx.Check(__LINE__);
    for (long i = 0; i < n; ++i) {
      void* data = edlm_GetAddr(other.m_ImageList.Get(), i, ctx.Err());
      ctx.Check(__LINE__);
      void* dup = emsc_MemDup(data, static_cast<size_t>(other.m_FrameDataSizes[i]));
      if (!dup) ctx.Throw(__LINE__, L"Out of memory");
      edlm_Add(images.Get(), dup, ctx.Err());
      ctx.Check(__LINE__);
    }
    m_ImageList.Reset(images.Release());
  }
  copyList(other.m_OrthoList, m_OrthoList, copyOrtho);
  copyList(other.m_DTMList, m_DTMList, copyDtm);
  copyList(other.m_ObjectPointList, m_ObjectPointList, copyGroundPoint);
  m_ImageListInMemory = other.m_ImageListInMemory;
  m_OrthoListInMemory = other.m_OrthoListInMemory;
  m_DTMListInMemory = other.m_DTMListInMemory;
  m_ObjectPointsInMemory = other.m_ObjectPointsInMemory;
  m_SensorDataInMemory = other.m_SensorDataInMemory;
  m_AutoTieInMemory = other.m_AutoTieInMemory;
  m_ImagesRead = other.m_ImagesRead;
  m_SensorDataRead = other.m_SensorDataRead;

  m_MapProjection.Reset(other.m_MapProjection.Get()
                            ? eprj_ProjectionCopy(other.m_MapProjection.Get(), ctx.Err())
                            : nullptr);
  ctx.Check(__LINE__);
  m_MapProjection.SetGivenInMemory(other.m_MapProjection.GivenInMemory());
  m_ElevationInfo.Reset(other.m_ElevationInfo.Get()
                            ? eprj_ElevationInfoCopy(other.m_ElevationInfo.Get(), ctx.Err())
                            : nullptr);
  ctx.Check(__LINE__);
  m_ElevationInfo.SetGivenInMemory(other.m_ElevationInfo.GivenInMemory());

  m_HorizontalUnits = other.m_HorizontalUnits;
  m_UnitsInMemory = other.m_UnitsInMemory;
  m_MaxZ = other.m_MaxZ;
  m_MinZ = other.m_MinZ;
  m_CurrentImageIndex = other.m_CurrentImageIndex;
  m_StoredPointCount = other.m_StoredPointCount;

  emif_DesignDestroy(m_FrameDesign);
  m_FrameDesign = other.m_FrameDesign ? emif_DesignCopy(other.m_FrameDesign, ctx.Err()) : nullptr;
  ctx.Check(__LINE__);
  emif_DesignDestroy(m_SensorDesign);
  m_SensorDesign =
      other.m_SensorDesign ? emif_DesignCopy(other.m_SensorDesign, ctx.Err()) : nullptr;
  ctx.Check(__LINE__);
  emsc_HeapFree(m_SensorData);
  m_SensorData = nullptr;
  m_SensorDataLength = 0;
  if (other.m_SensorData) {
    m_SensorData = static_cast<unsigned char*>(
        emsc_MemDup(other.m_SensorData, static_cast<size_t>(other.m_SensorDataLength)));
    if (!m_SensorData) ctx.Throw(__LINE__, L"Out of memory");
    m_SensorDataLength = other.m_SensorDataLength;
  }
  emsc_HeapFree(m_FrameDataSizes);
  m_FrameDataSizes = nullptr;
  if (other.m_FrameDataSizes) {
    const size_t n = static_cast<size_t>(other.m_ImageList.Count());
    m_FrameDataSizes = static_cast<long*>(emsc_MemDup(other.m_FrameDataSizes, n * sizeof(long)));
    if (!m_FrameDataSizes && n) ctx.Throw(__LINE__, L"Out of memory");
  }
  *m_AutoTie = *other.m_AutoTie;

  m_ModelName = other.m_ModelName;
  m_VerticalUnits = other.m_VerticalUnits;
  m_AngularUnits = other.m_AngularUnits;
  m_HorizontalReferenceName = other.m_HorizontalReferenceName;
  m_VerticalReferenceUnits = other.m_VerticalReferenceUnits;
  m_VerticalReferenceName = other.m_VerticalReferenceName;
  m_HorizontalReferenceType = other.m_HorizontalReferenceType;
  m_VerticalReferenceType = other.m_VerticalReferenceType;
  m_TopocenterDefined = other.m_TopocenterDefined;
  m_CenterLongitude = other.m_CenterLongitude;
  m_VerticalConstant = other.m_VerticalConstant;
  m_StdX = other.m_StdX;
  m_StdY = other.m_StdY;
  m_StdZ = other.m_StdZ;
  m_CenterLatitude = other.m_CenterLatitude;
  return *this;
}
