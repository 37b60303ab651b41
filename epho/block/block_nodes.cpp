// The node registry that steers a save, objects and write functions that
// applications add to a block.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "epho/block/block_internal.h"
#include "platform/ethr/lock_holder.h"

using epho::block::kSource;

_NodeInfo* EphoBlockFile::FindCEFInList(const wchar_t* name) {
  for (_NodeInfo* node : m_NodeList) {
    if (node->name == name) return node;
  }
  return nullptr;
}

_NodeInfo* EphoBlockFile::AddNodeToCEFList(const wchar_t* name, Emsc_Boolean copyChildren,
                                           Ehfa_CopyFunction entryCopy,
                                           Ehfa_CopyFunction dataCopy) {
  _NodeInfo* node = FindCEFInList(name);
  if (!node) {
    auto made = std::make_unique<_NodeInfo>();
    made->name = name;
    made->copyChildren = copyChildren;
    m_NodeList.push_back(made.get());
    node = made.release();
  }
  node->entryCopy = entryCopy;
  node->dataCopy = dataCopy;
  m_Dirty = true;
  return node;
}

_NodeInfo* EphoBlockFile::AddNodeToCEFList(const wchar_t* name, EphoBlockNodeWriter writer) {
  _NodeInfo* node = AddNodeToCEFList(name, EMSC_FALSE, nullptr, nullptr);
  node->writer = writer;
  return node;
}

void EphoBlockFile::ExcludeNodeFromWrite(EtxtTextU& name) {
  EthrLockHolder lock(m_Mutex);
  _NodeInfo* node = AddNodeToCEFList(name.c_str(), EMSC_FALSE, nullptr, nullptr);
  node->writer = nullptr;
}

void EphoBlockFile::FreeCEFList() {
  for (_NodeInfo* node : m_NodeList) delete node;
  m_NodeList.clear();
}

void EphoBlockFile::FreeEhfaObjectList() {
  for (InMemoryObject* object : m_InMemoryObjects) {
    emif_ObjectFree(object->design, object->data, nullptr);
    emif_DesignDestroy(object->design);
    delete object;
  }
  m_InMemoryObjects.clear();
}

void EphoBlockFile::EhfaObjectWrite(EMIF_DESIGNEtxt_TextU* design, const wchar_t* path,
                                    const wchar_t* name, Ehfa_WritePos position, void* data) {
  EerrException ctx(kSource, "EphoBlockFile::EhfaObjectWrite");
  EthrLockHolder lock(m_Mutex);
  Ehfa_File* file = m_HFAFile.Get();
  if (!file) ctx.Throw(__LINE__, L"The block file is not open");
  ehfa_ObjectWrite(file, path, name, position, design, data, ctx.Err());
  ctx.Check(__LINE__);
  ehfa_FileFlush(file, ctx.Err());
  ctx.Check(__LINE__);
}

EMIF_DESIGNEtxt_TextU* EphoBlockFile::EhfaObjectRead(const wchar_t* path, const wchar_t* name,
                                                     Ehfa_SeekMethod method, void** data) {
  EerrException ctx(kSource, "EphoBlockFile::EhfaObjectRead");
  if (!data) ctx.Throw(__LINE__, L"No data pointer given");
  EthrLockHolder lock(m_Mutex);
  Ehfa_File* file = m_HFAFile.Get();
  if (!file) ctx.Throw(__LINE__, L"The block file is not open");
  const Emif_Design* design = nullptr;
  void* object = nullptr;
  ehfa_ObjectRead(file, method, path, name, &design, &object, ctx.Err());
  ctx.Check(__LINE__);
  // The dictionary's design dies with the file handle: the caller gets a copy.
  Emif_Design* copy = emif_DesignCopy(design, ctx.Err());
  if (!copy) emif_ObjectFree(design, object, nullptr);
  ctx.Check(__LINE__);
  *data = object;
  return copy;
}

void EphoBlockFile::EhfaObjectWriteInMemory(EMIF_DESIGNEtxt_TextU* design, const wchar_t* path,
                                            const wchar_t* name, Ehfa_WritePos position,
                                            void* data) {
  EerrException ctx(kSource, "EphoBlockFile::EhfaObjectWriteInMemory");
  if (!design || !data || !name) ctx.Throw(__LINE__, L"No design, data or node name given");
  auto object = std::make_unique<InMemoryObject>();
  object->design = emif_DesignCopy(design, ctx.Err());
  ctx.Check(__LINE__);
  object->data = emif_ObjectCopy(design, data, ctx.Err());
  if (!object->data) emif_DesignDestroy(object->design);
  ctx.Check(__LINE__);
  object->path = path ? path : L":";
  object->name = name;
  object->position = position;
  EthrLockHolder lock(m_Mutex);
  m_InMemoryObjects.push_back(object.release());
  m_Dirty = true;
}

void EphoBlockFile::AddAppDataWriteFunc(void* context, EphoAppDataWriteFunc function) {
  EerrException ctx(kSource, "EphoBlockFile::AddAppDataWriteFunc");
  if (!function) ctx.Throw(__LINE__, L"No write function given");
  EthrLockHolder lock(m_Mutex);
  m_AppWriteFunctions.push_back(AppWriteFunction{context, function});
  m_Dirty = true;
}

// ---- BlockIntList

BlockIntList::BlockIntList() : m_DesignName(L"IntList"), m_FieldName(L"Ints") {}

BlockIntList::BlockIntList(const wchar_t* designName, const wchar_t* fieldName)
    : m_DesignName(designName && *designName ? designName : L"IntList"),
      m_FieldName(fieldName && *fieldName ? fieldName : L"Ints") {}

void BlockIntList::Insert(long value) {
  auto it = std::lower_bound(m_Values.begin(), m_Values.end(), value);
  if (it != m_Values.end() && *it == value) return;
  m_Values.insert(it, value);
  m_Dirty = true;
}

void BlockIntList::Remove(long value) {
  auto it = std::lower_bound(m_Values.begin(), m_Values.end(), value);
  if (it == m_Values.end() || *it != value) return;
  m_Values.erase(it);
  m_Dirty = true;
}

bool BlockIntList::Contains(long value) const {
  return std::binary_search(m_Values.begin(), m_Values.end(), value);
}

void BlockIntList::MIFSave(EphoBlockFile* block) {
  EerrException ctx("BlockIntList", "BlockIntList::MIFSave");
  if (!block) ctx.Throw(__LINE__, L"No block given");
  // One field, a counted array of int32.
  epho::block::DesignPtr design(emif_DesignCreate(m_DesignName.c_str(), EMIF_T_LONG_ARRAY,
                                                  m_FieldName.c_str(), 0, ctx.Err()));
  ctx.Check(__LINE__);
  std::vector<int32_t> values;
  values.reserve(m_Values.size());
  for (long v : m_Values) {
    if (v < INT32_MIN || v > INT32_MAX) ctx.Throw(__LINE__, L"Value %ld does not fit the list", v);
    values.push_back(static_cast<int32_t>(v));
  }
  Emif_CountedLongs record{static_cast<int32_t>(values.size()), values.data()};
  block->EhfaObjectWriteInMemory(design.get(), L":", L"NoPairList", EHFA_WRITE_REPLACE, &record);
  m_Dirty = false;
}

void BlockIntList::MIFLoad(EphoBlockFile* block) {
  EerrException ctx("BlockIntList", "BlockIntList::MIFLoad");
  if (!block) ctx.Throw(__LINE__, L"No block given");
  EthrLockHolder lock(block->m_Mutex);
  Ehfa_File* file = block->m_HFAFile.Get();
  if (!file) return;
  const Emif_Design* design = nullptr;
  void* object = nullptr;
  const Emsc_Boolean present = ehfa_ObjectReadIfPresent(file, EHFA_SEEK_BY_NAME, L":",
                                                        L"NoPairList", &design, &object, ctx.Err());
  ctx.Check(__LINE__);
  if (!present || !object) return;
  epho::block::ObjectHolder hold(design, object);
  // The list's own field, or else the node's only field, when it is a
  // counted array of int32.
  Emif_FieldInfo field{};
  if (!emif_DesignFieldFind(design, m_FieldName.c_str(), &field) &&
      !(emif_DesignFieldCount(design) == 1 && emif_DesignFieldGet(design, 0, &field))) {
    ctx.Throw(__LINE__, L"The node NoPairList holds no field %s", m_FieldName.c_str());
  }
  if (field.code != EMIF_T_LONG_ARRAY)
    ctx.Throw(__LINE__, L"The field %s of NoPairList is not a list of integers", field.name);
  Emif_CountedLongs values{};
  std::memcpy(&values, static_cast<unsigned char*>(object) + field.offset, sizeof values);
  // What is read back is what was saved: loading does not make the list dirty.
  const bool wasDirty = m_Dirty;
  for (int32_t i = 0; i < values.count; ++i) Insert(values.data[i]);
  m_Dirty = wasDirty;
}
