// Saving a block: the old file is copied node by node into a new file as the
// node registry says, the registered writers, queued objects and application
// functions add what changed, and the new file replaces the old one at once.
#include <cstring>
#include <exception>
#include <string>

#include "efio.h"
#include "eint.h"
#include "epho/block/block_internal.h"
#include "platform/efio/atomic_file.h"
#include "platform/estr/utf8.h"
#include "platform/ethr/lock_holder.h"

using epho::block::kSource;

namespace {

// Marks the block whose save runs on this thread for the copy callbacks.
class SavingScope {
 public:
  explicit SavingScope(EphoBlockFile* block) : previous_(epho::block::SavingBlock()) {
    epho::block::SavingBlock() = block;
  }
  ~SavingScope() { epho::block::SavingBlock() = previous_; }

 private:
  EphoBlockFile* previous_;
};

}  // namespace

void EphoBlockFile::Save() {
  EtxtTextU name;
  GetFileName(name);
  SaveAs(name);
}

std::vector<Ehfa_CEFRecord> EphoBlockFile::BuildCopyTable() {
  std::vector<Ehfa_CEFRecord> table;
  table.reserve(m_NodeList.size() + 1);
  for (const _NodeInfo* node : m_NodeList) {
    Ehfa_CEFRecord r{};
    wcsncpy(r.name, node->name.c_str(), 32);
    r.entryCopy = node->entryCopy;
    r.dataCopy = node->dataCopy;
    r.reserved = 0;
    r.copyChildren = node->copyChildren;
    table.push_back(r);
  }
  table.push_back(Ehfa_CEFRecord{});
  return table;
}

void EphoBlockFile::SaveAs(EtxtTextU& name) {
  EerrException ctx(kSource, "EphoBlockFile::SaveAs");
  if (name.empty()) ctx.Throw(__LINE__, L"No block file name given");
  bool renamed = false;
  {
    EthrLockHolder lock(m_Mutex);
    if (!m_Dirty) return;  // nothing changed: no file is written, whatever the name
    if (m_NewFile) {
      AddNodeToCEFList(L"FrameData", &EphoBlockFile::FrameEntryWrite);
      // A new block always gets its property node (and so its tie-point
      // settings), even when no property was put.
      RegisterBlockProperty();
    }
    std::vector<Ehfa_CEFRecord> table = BuildCopyTable();
    InternalClose();
    try {
      SavingScope saving(this);
      // The new file is an unnamed file beside the old one, named and
      // renamed over it only once it is complete and on disk.
      std::exception_ptr writeFailure;
      std::wstring why;
      const bool saved = kzdv::efio::ReplaceFile(
          kzdv::ToUtf8(name),
          [&](const std::string& temporary, std::wstring*) {
            try {
              WriteDataToFile(kzdv::FromUtf8(temporary).c_str(), table.data());
              return true;
            } catch (...) {
              // The half-written file is closed here, while a file size
              // limit still cannot raise SIGXFSZ: closing flushes.
              writeFailure = std::current_exception();
              InternalClose();
              return false;
            }
          },
          &why, kzdv::efio::TempKind::kUnnamed);
      if (writeFailure) std::rethrow_exception(writeFailure);
      if (!saved) ctx.Throw(__LINE__, L"%s", why.c_str());
    } catch (...) {
      // The old file is untouched: continue with it.
      InternalClose();
      Eerr_ErrorReport* err = nullptr;
      m_HFAFile.Reset(ehfa_FileOpen(m_FileName.c_str(), m_NewFile ? "r+b" : "r", nullptr, &err));
      eerr_DeleteErrorReport(err);
      try {
        throw;
      } catch (EerrException& e) {
        *ctx.Err() = e.Release();
        ctx.Throw(__LINE__, L"The block was not saved to %s", name.c_str());
      }
    }
    if (name != m_FileName) {
      m_FileName = name;
      renamed = true;
    }
    Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
    ctx.Check(__LINE__);
    m_HFAFile.Reset(ehfa_FileOpen(m_FileName.c_str(), "r+b", init, ctx.Err()));
    ctx.Check(__LINE__);
    FreeCEFList();
    FreeEhfaObjectList();
    AddNodeToCEFList(L"BlockFileVersion", static_cast<EphoBlockNodeWriter>(nullptr));
    m_Version.clear();
    m_NewFile = false;
    m_Dirty = false;
  }
  if (renamed) {
    // The registry's key follows the file, under the class mutex, which is
    // taken only now that the object's mutex is released.
    EthrLockHolder classLock(m_ClassMutex);
    m_RegistryName = name;
  }
}

void EphoBlockFile::WriteDataToFile(const wchar_t* target, Ehfa_CEFRecord* records) {
  EerrException ctx(kSource, "EphoBlockFile::WriteDataToFile");
  Eint_InitToolkitData* init = eint_GetInit(ctx.Err());
  ctx.Check(__LINE__);
  ehfa_FileCopy(m_FileName.c_str(), target, records, init, ctx.Err());
  ctx.Check(__LINE__);
  m_HFAFile.Reset(ehfa_FileOpen(target, "r+b", init, ctx.Err()));
  ctx.Check(__LINE__);
  Ehfa_File* file = m_HFAFile.Get();

  BlockFileVersionWrite(file);
  for (_NodeInfo* node : m_NodeList) {
    if (node->writer) (this->*(node->writer))(file);
  }
  for (InMemoryObject* object : m_InMemoryObjects) {
    emif_DictionaryAddDesign(ehfa_FileDictionaryGet(file), object->design, ctx.Err());
    ctx.Check(__LINE__);
    ehfa_ObjectWrite(file, object->path.c_str(), object->name.c_str(), object->position,
                     object->design, object->data, ctx.Err());
    ctx.Check(__LINE__);
  }
  for (const AppWriteFunction& app : m_AppWriteFunctions) {
    if (app.function(app.context, m_HFAFile) <= 0)
      ctx.Throw(__LINE__, L"Application Function Data failed to write data");
    if (m_HFAFile.Get() != file)
      ctx.Throw(__LINE__, L"Application Function Data failed to write data");
  }
  ehfa_FileClose(m_HFAFile.Release(), ctx.Err());
  ctx.Check(__LINE__);
}
