// Images of a block: one frame object per image (raw bytes of an
// application design), the sensor object and the current image index.
#include <string>

#include "epho/block/block_internal.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/ethr/lock_holder.h"

using epho::block::DesignPtr;
using epho::block::kSource;

void EphoBlockFile::freeBlkImage(void* element) { emsc_HeapFree(element); }

namespace {

std::wstring FrameName(long i) { return L"Frame" + std::to_wstring(i); }

// A list of heap copies of `n` frames.
_edlm_list* CopyFrames(_edlm_list* from, const long* sizes, EerrException& ctx) {
  const long n = edlm_CountList(from);
  EdlmList out(EphoBlockFile::freeBlkImage);
  out.Reset(edlm_InitList(sizeof(void*), n, EphoBlockFile::freeBlkImage, nullptr, ctx.Err()));
  ctx.Check(__LINE__);
  for (long i = 0; i < n; ++i) {
    void* data = edlm_GetAddr(from, i, ctx.Err());
    ctx.Check(__LINE__);
    if (sizes[i] < 0) ctx.Throw(__LINE__, L"Invalid size %ld of frame %ld", sizes[i], i);
    void* dup = emsc_MemDup(data, static_cast<size_t>(sizes[i]));
    if (!dup) ctx.Throw(__LINE__, L"Out of memory");
    if (!edlm_Add(out.Get(), dup, ctx.Err())) emsc_HeapFree(dup);
    ctx.Check(__LINE__);
  }
  return out.Release();
}

}  // namespace

void EphoBlockFile::ReadImagesFromFile() {
  EerrException ctx(kSource, "EphoBlockFile::GetImageListCopy");
  m_ImagesRead = true;
  Ehfa_File* file = m_HFAFile.Get();
  if (!file || m_NewFile) return;
  if (!emif_FindDesignByName(ehfa_FileDictionaryGet(file), L"Frame_Data")) return;  // no images
  DesignPtr design = epho::block::FrameDataDesign(ctx);
  epho::block::FrameDataRecord rec{};
  ehfa_ObjectReadInto(file, EHFA_SEEK_BY_NAME, L":", L"FrameData", design.get(), &rec, ctx.Err());
  ctx.Check(__LINE__);
  if (rec.ImageCount < 0) ctx.Throw(__LINE__, L"Invalid image count %d", rec.ImageCount);

  // Frames are found by name ("Frame%d") in every file, so frames that
  // another program wrote in any order are read; the count is checked
  // against the nodes there before anything is allocated for it.
  EdlmList images(freeBlkImage);
  kzdv::HeapPtr<long> sizes;
  const long n = rec.ImageCount;
  if (n > 0) {
    ehfa_EntrySeek(file, EHFA_SEEK_INTO, L":FrameData", nullptr, ctx.Err());
    ctx.Check(__LINE__);
    Ehfa_EntryInfo info{};
    ehfa_EntryInfoGet(file, &info, ctx.Err());
    ctx.Check(__LINE__);
    if (info.child_count < n) ctx.Throw(__LINE__, L"Frame Information not found");
    sizes.reset(static_cast<long*>(emsc_HeapCalloc(static_cast<size_t>(n), sizeof(long))));
    if (!sizes) ctx.Throw(__LINE__, L"Out of memory");
  }
  images.Reset(edlm_InitList(sizeof(void*), n, freeBlkImage, nullptr, ctx.Err()));
  ctx.Check(__LINE__);
  std::wstring frameType;
  for (long i = 0; i < n; ++i) {
    unsigned char* data = nullptr;
    uint32_t size = 0;
    Etxt_Char* type = nullptr;
    const Emsc_Boolean present =
        ehfa_ObjectDataReadIfPresent(file, EHFA_SEEK_BY_NAME, L":FrameData", FrameName(i).c_str(),
                                     &data, &size, i == 0 ? &type : nullptr, ctx.Err());
    kzdv::HeapPtr<Etxt_Char> typeHold(type);
    ctx.Check(__LINE__);
    if (!present) ctx.Throw(__LINE__, L"Frame Information not found");
    if (type) frameType = type;
    sizes.get()[i] = static_cast<long>(size);
    if (!edlm_Add(images.Get(), data, ctx.Err())) emsc_HeapFree(data);
    ctx.Check(__LINE__);
  }
  Emif_Design* frameDesign = nullptr;
  if (const Emif_Design* d =
          emif_FindDesignByName(ehfa_FileDictionaryGet(file), frameType.c_str())) {
    frameDesign = emif_DesignCopy(d, ctx.Err());
    ctx.Check(__LINE__);
  }
  m_ImageList.Reset(images.Release());
  emsc_HeapFree(m_FrameDataSizes);
  m_FrameDataSizes = sizes.release();
  emif_DesignDestroy(m_FrameDesign);
  m_FrameDesign = frameDesign;
  m_CurrentImageIndex = rec.CurrentImage;
}

unsigned long EphoBlockFile::GetImageListCopy(EdlmList& images,
                                              EMIF_DESIGNEtxt_TextU** frameDesign) {
  EerrException ctx(kSource, "EphoBlockFile::GetImageListCopy");
  EthrLockHolder lock(m_Mutex);
  if (!m_ImageListInMemory && !m_ImagesRead) ReadImagesFromFile();
  const long n = m_ImageList.Count();
  Emif_Design* design = nullptr;
  if (frameDesign && m_FrameDesign) {
    design = emif_DesignCopy(m_FrameDesign, ctx.Err());
    ctx.Check(__LINE__);
  }
  DesignPtr designHold(design);
  _edlm_list* copy = m_ImageList.Get()
                         ? CopyFrames(m_ImageList.Get(), m_FrameDataSizes, ctx)
                         : edlm_InitList(sizeof(void*), 0, freeBlkImage, nullptr, ctx.Err());
  ctx.Check(__LINE__);
  images.Reset(copy);
  images.SetOwnsContents(true);
  if (frameDesign) *frameDesign = designHold.release();
  return static_cast<unsigned long>(n);
}

std::vector<long> EphoBlockFile::GetFrameDataSizes() {
  EthrLockHolder lock(m_Mutex);
  if (!m_ImageListInMemory && !m_ImagesRead) ReadImagesFromFile();
  const long n = m_ImageList.Count();
  if (!m_FrameDataSizes) return std::vector<long>(static_cast<size_t>(n), 0);
  return std::vector<long>(m_FrameDataSizes, m_FrameDataSizes + n);
}

void EphoBlockFile::PutImageList(EdlmList& images, long* sizes,
                                 EMIF_DESIGNEtxt_TextU* frameDesign) {
  EerrException ctx(kSource, "EphoBlockFile::PutImageList");
  EthrLockHolder lock(m_Mutex);
  if (!images.Get()) {
    emsc_HeapFree(m_FrameDataSizes);
    m_FrameDataSizes = nullptr;
    m_ImageList.Reset();
  } else {
    const long n = images.Count();
    if (n > 0 && !sizes) ctx.Throw(__LINE__, L"No frame data sizes given");
    kzdv::HeapPtr<long> newSizes(
        static_cast<long*>(n > 0 ? emsc_MemDup(sizes, static_cast<size_t>(n) * sizeof(long))
                                 : emsc_HeapCalloc(1, sizeof(long))));
    if (!newSizes) ctx.Throw(__LINE__, L"Out of memory");
    _edlm_list* copy = CopyFrames(images.Get(), newSizes.get(), ctx);
    m_ImageList.Reset(copy);
    emsc_HeapFree(m_FrameDataSizes);
    m_FrameDataSizes = newSizes.release();
  }
  m_ImageListInMemory = true;
  if (!frameDesign) {
    emif_DesignDestroy(m_FrameDesign);
    m_FrameDesign = nullptr;
  } else {
    Emif_Design* copy = emif_DesignCopy(frameDesign, ctx.Err());
    ctx.Check(__LINE__);
    emif_DesignDestroy(m_FrameDesign);
    m_FrameDesign = copy;
  }
  m_Dirty = true;
  AddNodeToCEFList(L"FrameData", &EphoBlockFile::FrameEntryWrite);
}

long EphoBlockFile::GetCurrentImageIndex() {
  EthrLockHolder lock(m_Mutex);
  if (!m_ImageListInMemory && !m_ImagesRead) ReadImagesFromFile();
  return m_CurrentImageIndex;
}

void EphoBlockFile::PutCurrentImageIndex(long index) {
  EthrLockHolder lock(m_Mutex);
  // The frames are rewritten with the index: read them while the old file
  // is at hand.
  if (!m_ImageListInMemory && !m_ImagesRead) ReadImagesFromFile();
  m_CurrentImageIndex = index;
  AddNodeToCEFList(L"FrameData", &EphoBlockFile::FrameEntryWrite);
}

void EphoBlockFile::FrameEntryWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tFrameEntryWrite");
  DesignPtr design = epho::block::FrameDataDesign(ctx);
  const long n = m_ImageList.Count();
  epho::block::FrameDataRecord rec{static_cast<int32_t>(n),
                                   static_cast<int32_t>(m_CurrentImageIndex)};
  ehfa_ObjectWrite(file, L":", L"FrameData", EHFA_WRITE_REPLACE, design.get(), &rec, ctx.Err());
  ctx.Check(__LINE__);
  if (!m_ImageList.Get()) return;
  ehfa_FileChange(file, EHFA_CHANGE_BULK, 0, nullptr, ctx.Err());
  ctx.Check(__LINE__);
  if (m_FrameDesign) {
    emif_DictionaryAddDesign(ehfa_FileDictionaryGet(file), m_FrameDesign, ctx.Err());
    ctx.Check(__LINE__);
  }
  const wchar_t* type = m_FrameDesign ? emif_DesignNameGet(m_FrameDesign) : L"";
  for (long i = 0; i < n; ++i) {
    void* data = edlm_GetAddr(m_ImageList.Get(), i, ctx.Err());
    ctx.Check(__LINE__);
    ehfa_ObjectDataWrite(file, i == 0 ? L":FrameData" : nullptr, FrameName(i).c_str(),
                         i == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, type, data,
                         static_cast<uint32_t>(m_FrameDataSizes ? m_FrameDataSizes[i] : 0),
                         ctx.Err());
    ctx.Check(__LINE__);
  }
  ehfa_FileChange(file, EHFA_CHANGE_BULK, 1, nullptr, ctx.Err());
  ctx.Check(__LINE__);
}

void EphoBlockFile::GetSensorData(unsigned char** data, EMIF_DESIGNEtxt_TextU** design) {
  EerrException ctx(kSource, "EphoBlockFile::GetSensorData");
  EthrLockHolder lock(m_Mutex);
  Ehfa_File* file = m_HFAFile.Get();
  if (!m_SensorDataInMemory && !m_SensorDataRead && file && !m_NewFile) {
    unsigned char* bytes = nullptr;
    uint32_t size = 0;
    Etxt_Char* type = nullptr;
    const Emsc_Boolean present = ehfa_ObjectDataReadIfPresent(
        file, EHFA_SEEK_BY_NAME, L":", L"SensorData", &bytes, &size, &type, ctx.Err());
    kzdv::HeapPtr<unsigned char> bytesHold(bytes);
    kzdv::HeapPtr<Etxt_Char> typeHold(type);
    ctx.Check(__LINE__);
    if (present) {
      Emif_Design* copy = nullptr;
      if (const Emif_Design* d = emif_FindDesignByName(ehfa_FileDictionaryGet(file), type)) {
        copy = emif_DesignCopy(d, ctx.Err());
        ctx.Check(__LINE__);
      }
      emif_DesignDestroy(m_SensorDesign);
      m_SensorDesign = copy;
      emsc_HeapFree(m_SensorData);
      m_SensorData = bytesHold.release();
      m_SensorDataLength = static_cast<long>(size);
    }
    m_SensorDataRead = true;
  }
  Emif_Design* designCopy = nullptr;
  if (design && m_SensorDesign) {
    designCopy = emif_DesignCopy(m_SensorDesign, ctx.Err());
    ctx.Check(__LINE__);
  }
  DesignPtr designHold(designCopy);
  unsigned char* bytes = nullptr;
  if (data && m_SensorData) {
    bytes = static_cast<unsigned char*>(
        emsc_MemDup(m_SensorData, static_cast<size_t>(m_SensorDataLength)));
    if (!bytes) ctx.Throw(__LINE__, L"Out of memory");
  }
  if (data) *data = bytes;
  if (design) *design = designHold.release();
}

long EphoBlockFile::GetSensorDataLength() {
  GetSensorData(nullptr, nullptr);
  EthrLockHolder lock(m_Mutex);
  return m_SensorData ? m_SensorDataLength : 0;
}

void EphoBlockFile::PutSensorData(unsigned char* data, long length, EMIF_DESIGNEtxt_TextU* design) {
  EerrException ctx(kSource, "EphoBlockFile::PutSensorData");
  if (length < 0 || (length > 0 && !data)) ctx.Throw(__LINE__, L"Invalid sensor data");
  unsigned char* bytes = nullptr;
  if (data) {
    bytes = static_cast<unsigned char*>(emsc_MemDup(data, static_cast<size_t>(length)));
    if (!bytes) ctx.Throw(__LINE__, L"Out of memory");
  }
  kzdv::HeapPtr<unsigned char> bytesHold(bytes);
  Emif_Design* copy = nullptr;
  if (design) {
    copy = emif_DesignCopy(design, ctx.Err());
    ctx.Check(__LINE__);
  }
  EthrLockHolder lock(m_Mutex);
  emsc_HeapFree(m_SensorData);
  m_SensorData = bytesHold.release();
  m_SensorDataLength = data ? length : 0;
  emif_DesignDestroy(m_SensorDesign);
  m_SensorDesign = copy;
  m_SensorDataInMemory = true;
  AddNodeToCEFList(L"SensorData", &EphoBlockFile::SensorInfoWrite);
}

void EphoBlockFile::SensorInfoWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tSensorInfoWrite");
  if (!m_SensorData) return;
  if (m_SensorDesign) {
    emif_DictionaryAddDesign(ehfa_FileDictionaryGet(file), m_SensorDesign, ctx.Err());
    ctx.Check(__LINE__);
  }
  ehfa_ObjectDataWrite(file, L":", L"SensorData", EHFA_WRITE_REPLACE,
                       m_SensorDesign ? emif_DesignNameGet(m_SensorDesign) : L"", m_SensorData,
                       static_cast<uint32_t>(m_SensorDataLength), ctx.Err());
  ctx.Check(__LINE__);
}
