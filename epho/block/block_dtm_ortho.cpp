// The block's DTM and ortho image lists: one root object each, an array of
// records that carry their map projection as a self-describing MIF object.
#include <cstring>
#include <vector>

#include "epho/block/block_internal.h"
#include "platform/emif/object_codec.h"
#include "platform/ethr/lock_holder.h"

using epho::block::CountedText;
using epho::block::DesignPtr;
using epho::block::kSource;
using epho::block::MifObjectRecord;
using epho::block::SetCounted;

namespace {

void FreeCounted(Emif_CountedString* s) {
  emsc_HeapFree(s->data);
  s->data = nullptr;
  s->count = 0;
}

void FreeMif(MifObjectRecord* m) {
  FreeCounted(&m->type);
  FreeCounted(&m->MIFDictionary);
  emsc_HeapFree(m->MIFObject.data);
  m->MIFObject = Emif_CountedBytes{0, nullptr};
}

// The projection of a record as a MIF object; no projection gives an empty
// object (a constant DTM still carries one).
void ProjectionToMif(const Eprj_ProParameters* parameters, MifObjectRecord* out,
                     EerrException& ctx) {
  *out = MifObjectRecord{};
  if (!parameters) return;
  Eprj_MapProjection* projection = eprj_ProjectionInit(parameters, ctx.Err());
  ctx.Check(__LINE__);
  struct ProjectionHold {
    Eprj_MapProjection* p;
    ~ProjectionHold() { eprj_ProjectionFree(p); }
  } projectionHold{projection};
  Emif_Design* design = nullptr;
  void* object = nullptr;
  eprj_ProjectionConvertToMIFable(nullptr, projection, &design, &object, ctx.Err());
  ctx.Check(__LINE__);
  DesignPtr designHold(design);
  epho::block::ObjectHolder objectHold(design, object);
  emif_MIFableObjectConvertToMIF(design, object, &out->type, &out->MIFDictionary, &out->MIFObject,
                                 ctx.Err());
  if (ctx.HasReport()) FreeMif(out);
  ctx.Check(__LINE__);
}

// Projection parameters of a stored MIF object (null for an empty one).
Eprj_ProParameters* ProjectionFromMif(const MifObjectRecord* mif, EerrException& ctx) {
  if (!mif || !mif->type.data || mif->type.count <= 0 || !mif->MIFObject.data) return nullptr;
  Emif_Design* design = nullptr;
  void* object = nullptr;
  emif_MIFableObjectConvertFromMIF(&mif->type, &mif->MIFDictionary, &mif->MIFObject, &design,
                                   &object, ctx.Err());
  ctx.Check(__LINE__);
  DesignPtr designHold(design);
  epho::block::ObjectHolder objectHold(design, object);
  Eprj_MapProjection* projection = eprj_ProjectionConvertFromMIFable(design, object, ctx.Err());
  ctx.Check(__LINE__);
  Eprj_ProParameters* parameters = eprj_ProParametersCopy(projection->proParameters, ctx.Err());
  eprj_ProjectionFree(projection);
  ctx.Check(__LINE__);
  return parameters;
}

Etxt_Char* Dup(const Etxt_Char* s, EerrException& ctx) {
  if (!s) return nullptr;
  Etxt_Char* d = etxt_Text_strdup(s);
  if (!d) ctx.Throw(__LINE__, L"Out of memory");
  return d;
}

Etxt_Char* TextOf(const Emif_CountedString& s, EerrException& ctx) {
  if (!s.data || s.count <= 0) return nullptr;
  return Dup(CountedText(s).c_str(), ctx);
}

// Stored records of a list, freed (strings and MIF objects) with the scope.
template <typename Record>
struct Records {
  std::vector<Record> records;
  std::vector<MifObjectRecord> mifs;
  explicit Records(size_t n) : records(n), mifs(n) {}
  ~Records();
};

template <>
Records<epho::block::DtmRecord>::~Records() {
  for (auto& r : records) {
    for (Emif_CountedString* s :
         {&r.filename, &r.namepart, &r.tmpdemfilename, &r.hunits, &r.vunits})
      FreeCounted(s);
  }
  for (auto& m : mifs) FreeMif(&m);
}
template <>
Records<epho::block::OrthoRecord>::~Records() {
  for (auto& r : records) {
    FreeCounted(&r.orthoimagename);
    FreeCounted(&r.units);
  }
  for (auto& m : mifs) FreeMif(&m);
}

void SetText(Emif_CountedString* out, const Etxt_Char* text, EerrException& ctx) {
  if (!SetCounted(out, text ? text : L"")) ctx.Throw(__LINE__, L"Out of memory");
}

}  // namespace

Epho_BlockDTM* EphoBlockFile::BlockDTMCreate() {
  auto* d = static_cast<Epho_BlockDTM*>(emsc_HeapCalloc(1, sizeof(Epho_BlockDTM)));
  if (d) d->dtmsource = DTM_TYPE_DEM;
  return d;
}

Epho_BlockOrtho* EphoBlockFile::BlockOrthoCreate() {
  return static_cast<Epho_BlockOrtho*>(emsc_HeapCalloc(1, sizeof(Epho_BlockOrtho)));
}

void EphoBlockFile::freeDtm(void* dtm) {
  auto* d = static_cast<Epho_BlockDTM*>(dtm);
  if (!d) return;
  emsc_HeapFree(d->filename);
  emsc_HeapFree(d->namepart);
  emsc_HeapFree(d->tmpdemfilename);
  emsc_HeapFree(d->hunits);
  emsc_HeapFree(d->vunits);
  eprj_ProParametersFree(d->proparm);
  emsc_HeapFree(d);
}

void EphoBlockFile::freeOrtho(void* ortho) {
  auto* o = static_cast<Epho_BlockOrtho*>(ortho);
  if (!o) return;
  emsc_HeapFree(o->orthoimagename);
  emsc_HeapFree(o->units);
  eprj_ProParametersFree(o->proparm);
  emsc_HeapFree(o);
}

void* EphoBlockFile::copyDtm(void* dtm, Eerr_ErrorReport** err) {
  EerrException ctx(kSource, "EphoBlockFile::copyDtm");
  try {
    if (!dtm) ctx.Throw(__LINE__, L"No DTM given");
    const auto* from = static_cast<const Epho_BlockDTM*>(dtm);
    auto* to = static_cast<Epho_BlockDTM*>(emsc_HeapCalloc(1, sizeof(Epho_BlockDTM)));
    if (!to) ctx.Throw(__LINE__, L"Out of memory");
    struct Hold {
      Epho_BlockDTM* d;
      ~Hold() { freeDtm(d); }
    } hold{to};
    *to = *from;
    to->filename = to->namepart = to->tmpdemfilename = to->hunits = to->vunits = nullptr;
    to->proparm = nullptr;
    to->filename = Dup(from->filename, ctx);
    to->namepart = Dup(from->namepart, ctx);
    to->tmpdemfilename = Dup(from->tmpdemfilename, ctx);
    to->hunits = Dup(from->hunits, ctx);
    to->vunits = Dup(from->vunits, ctx);
    if (from->proparm) {
      to->proparm = eprj_ProParametersCopy(from->proparm, ctx.Err());
      ctx.Check(__LINE__);
    }
    hold.d = nullptr;
    return to;
  } catch (EerrException& e) {
    if (err) *err = e.Release();
    return nullptr;
  }
}

void* EphoBlockFile::copyOrtho(void* ortho, Eerr_ErrorReport** err) {
  EerrException ctx(kSource, "EphoBlockFile::copyOrtho");
  try {
    if (!ortho) ctx.Throw(__LINE__, L"No ortho image given");
    const auto* from = static_cast<const Epho_BlockOrtho*>(ortho);
    auto* to = static_cast<Epho_BlockOrtho*>(emsc_HeapCalloc(1, sizeof(Epho_BlockOrtho)));
    if (!to) ctx.Throw(__LINE__, L"Out of memory");
    struct Hold {
      Epho_BlockOrtho* o;
      ~Hold() { freeOrtho(o); }
    } hold{to};
    *to = *from;
    to->orthoimagename = to->units = nullptr;
    to->proparm = nullptr;
    to->orthoimagename = Dup(from->orthoimagename, ctx);
    to->units = Dup(from->units, ctx);
    if (from->proparm) {
      to->proparm = eprj_ProParametersCopy(from->proparm, ctx.Err());
      ctx.Check(__LINE__);
    }
    hold.o = nullptr;
    return to;
  } catch (EerrException& e) {
    if (err) *err = e.Release();
    return nullptr;
  }
}

void EphoBlockFile::CopyDTMList(EdlmList& from, EdlmList& to) {
  to.Reset(from.Get() ? CopyList(from.Get(), copyDtm) : nullptr);
}

void EphoBlockFile::WriteDTMListToHFA(EdlmList& list, Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tWriteDTMListToHFA");
  if (!file) ctx.Throw(__LINE__, L"No file given");
  DesignPtr mif = epho::block::MifObjectDesign(ctx);
  DesignPtr dtm = epho::block::DtmDesign(mif.get(), ctx);
  DesignPtr listDesign = epho::block::DtmListDesign(dtm.get(), ctx);
  if (emif_DesignSizeGet(dtm.get()) != sizeof(epho::block::DtmRecord))
    ctx.Throw(__LINE__, L"Design Epho_BlockDTM does not match its record");
  const long n = list.Count();
  Records<epho::block::DtmRecord> records(static_cast<size_t>(n));
  for (long i = 0; i < n; ++i) {
    const auto* d = static_cast<const Epho_BlockDTM*>(edlm_GetAddr(list.Get(), i, ctx.Err()));
    ctx.Check(__LINE__);
    epho::block::DtmRecord& r = records.records[static_cast<size_t>(i)];
    r.dtmsource = d->dtmsource;
    SetText(&r.filename, d->filename, ctx);
    SetText(&r.namepart, d->namepart, ctx);
    SetText(&r.tmpdemfilename, d->tmpdemfilename, ctx);
    r.meanz = d->meanz;
    std::memcpy(r.ul, d->ul, sizeof r.ul);
    std::memcpy(r.lr, d->lr, sizeof r.lr);
    std::memcpy(r.cellsize, d->cellsize, sizeof r.cellsize);
    r.background = d->background;
    SetText(&r.hunits, d->hunits, ctx);
    SetText(&r.vunits, d->vunits, ctx);
    ProjectionToMif(d->proparm, &records.mifs[static_cast<size_t>(i)], ctx);
    r.proparm = &records.mifs[static_cast<size_t>(i)];
  }
  epho::block::DtmListRecord rec{{static_cast<int32_t>(n), n ? records.records.data() : nullptr}};
  Emif_Dictionary* dict = ehfa_FileDictionaryGet(file);
  for (const Emif_Design* d : {mif.get(), dtm.get(), listDesign.get()}) {
    emif_DictionaryAddDesign(dict, d, ctx.Err());
    ctx.Check(__LINE__);
  }
  ehfa_ObjectWrite(file, L":", L"DTMList", EHFA_WRITE_REPLACE, listDesign.get(), &rec, ctx.Err());
  ctx.Check(__LINE__);
}

unsigned long EphoBlockFile::ReadDTMListFromHFA(EdlmList& out, Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::ReadDTMListFromHFA");
  if (!file) ctx.Throw(__LINE__, L"No file given");
  if (!emif_FindDesignByName(ehfa_FileDictionaryGet(file), L"DTMList")) return 0;
  DesignPtr mif = epho::block::MifObjectDesign(ctx);
  DesignPtr dtm = epho::block::DtmDesign(mif.get(), ctx);
  DesignPtr listDesign = epho::block::DtmListDesign(dtm.get(), ctx);
  epho::block::DtmListRecord rec{};
  const Emsc_Boolean present = ehfa_ObjectReadIntoIfPresent(
      file, EHFA_SEEK_BY_NAME, L":", L"DTMList", listDesign.get(), &rec, ctx.Err());
  kzdv::mif::ContentsHolder hold(listDesign.get(), &rec);
  ctx.Check(__LINE__);
  if (!present) return 0;
  EdlmList list(freeDtm);
  list.Reset(edlm_InitList(sizeof(void*), rec.dtms.count, freeDtm, copyDtm, ctx.Err()));
  ctx.Check(__LINE__);
  const auto* stored = static_cast<const epho::block::DtmRecord*>(rec.dtms.data);
  for (int32_t i = 0; i < rec.dtms.count; ++i) {
    const epho::block::DtmRecord& r = stored[i];
    Epho_BlockDTM* d = BlockDTMCreate();
    if (!d) ctx.Throw(__LINE__, L"Out of memory");
    if (!edlm_Add(list.Get(), d, ctx.Err())) freeDtm(d);
    ctx.Check(__LINE__);
    d->dtmsource = r.dtmsource;
    d->filename = TextOf(r.filename, ctx);
    d->namepart = TextOf(r.namepart, ctx);
    d->tmpdemfilename = TextOf(r.tmpdemfilename, ctx);
    d->meanz = r.meanz;
    std::memcpy(d->ul, r.ul, sizeof d->ul);
    std::memcpy(d->lr, r.lr, sizeof d->lr);
    std::memcpy(d->cellsize, r.cellsize, sizeof d->cellsize);
    d->background = r.background;
    d->hunits = TextOf(r.hunits, ctx);
    d->vunits = TextOf(r.vunits, ctx);
    d->proparm = ProjectionFromMif(r.proparm, ctx);
  }
  const unsigned long n = static_cast<unsigned long>(list.Count());
  out.Reset(list.Release());
  out.SetOwnsContents(true);
  return n;
}

void EphoBlockFile::DTMListWrite(Ehfa_File* file) { WriteDTMListToHFA(m_DTMList, file); }

unsigned long EphoBlockFile::GetDTMListCopy(EdlmList& out) {
  EerrException ctx(kSource, "EphoBlockFile::GetDTMListCopy");
  EthrLockHolder lock(m_Mutex);
  if (!m_DTMListInMemory && !m_DTMList.Get() && m_HFAFile.Get() && !m_NewFile)
    ReadDTMListFromHFA(m_DTMList, m_HFAFile.Get());
  if (!m_DTMList.Get()) return 0;
  out.Reset(CopyList(m_DTMList.Get(), copyDtm));
  return static_cast<unsigned long>(m_DTMList.Count());
}

void EphoBlockFile::PutDTMList(EdlmList& list) {
  EerrException ctx(kSource, "EphoBlockFile::PutDTMList");
  _edlm_list* copy = list.Get() ? CopyList(list.Get(), copyDtm) : nullptr;
  EthrLockHolder lock(m_Mutex);
  m_DTMList.Reset(copy);
  m_DTMListInMemory = true;
  AddNodeToCEFList(L"DTMList", &EphoBlockFile::DTMListWrite);
}

void EphoBlockFile::OrthoImageListWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tOrthoImageListWrite");
  DesignPtr mif = epho::block::MifObjectDesign(ctx);
  DesignPtr ortho = epho::block::OrthoDesign(mif.get(), ctx);
  DesignPtr listDesign = epho::block::OrthoListDesign(ortho.get(), ctx);
  if (emif_DesignSizeGet(ortho.get()) != sizeof(epho::block::OrthoRecord))
    ctx.Throw(__LINE__, L"Design xorthoimage does not match its record");
  const long n = m_OrthoList.Count();
  Records<epho::block::OrthoRecord> records(static_cast<size_t>(n));
  for (long i = 0; i < n; ++i) {
    const auto* o =
        static_cast<const Epho_BlockOrtho*>(edlm_GetAddr(m_OrthoList.Get(), i, ctx.Err()));
    ctx.Check(__LINE__);
    epho::block::OrthoRecord& r = records.records[static_cast<size_t>(i)];
    SetText(&r.orthoimagename, o->orthoimagename, ctx);
    SetText(&r.units, o->units, ctx);
    std::memcpy(r.ul, o->ul, sizeof r.ul);
    std::memcpy(r.lr, o->lr, sizeof r.lr);
    std::memcpy(r.cellsize, o->cellsize, sizeof r.cellsize);
    std::memcpy(r.corners, o->corners, sizeof r.corners);
    ProjectionToMif(o->proparm, &records.mifs[static_cast<size_t>(i)], ctx);
    r.proparm = &records.mifs[static_cast<size_t>(i)];
  }
  epho::block::OrthoListRecord rec{{static_cast<int32_t>(n), n ? records.records.data() : nullptr}};
  Emif_Dictionary* dict = ehfa_FileDictionaryGet(file);
  for (const Emif_Design* d : {mif.get(), ortho.get(), listDesign.get()}) {
    emif_DictionaryAddDesign(dict, d, ctx.Err());
    ctx.Check(__LINE__);
  }
  ehfa_ObjectWrite(file, L":", L"OrthoImageList", EHFA_WRITE_REPLACE, listDesign.get(), &rec,
                   ctx.Err());
  ctx.Check(__LINE__);
}

void EphoBlockFile::ReadOrthoListFromHFA() {
  EerrException ctx(kSource, "EphoBlockFile::GetOrthoListCopy");
  Ehfa_File* file = m_HFAFile.Get();
  if (!file || !emif_FindDesignByName(ehfa_FileDictionaryGet(file), L"OrthoImageList")) return;
  DesignPtr mif = epho::block::MifObjectDesign(ctx);
  DesignPtr ortho = epho::block::OrthoDesign(mif.get(), ctx);
  DesignPtr listDesign = epho::block::OrthoListDesign(ortho.get(), ctx);
  epho::block::OrthoListRecord rec{};
  const Emsc_Boolean present = ehfa_ObjectReadIntoIfPresent(
      file, EHFA_SEEK_BY_NAME, L":", L"OrthoImageList", listDesign.get(), &rec, ctx.Err());
  kzdv::mif::ContentsHolder hold(listDesign.get(), &rec);
  ctx.Check(__LINE__);
  if (!present) return;
  EdlmList list(freeOrtho);
  list.Reset(edlm_InitList(sizeof(void*), rec.Orthos.count, freeOrtho, copyOrtho, ctx.Err()));
  ctx.Check(__LINE__);
  const auto* stored = static_cast<const epho::block::OrthoRecord*>(rec.Orthos.data);
  for (int32_t i = 0; i < rec.Orthos.count; ++i) {
    const epho::block::OrthoRecord& r = stored[i];
    Epho_BlockOrtho* o = BlockOrthoCreate();
    if (!o) ctx.Throw(__LINE__, L"Out of memory");
    if (!edlm_Add(list.Get(), o, ctx.Err())) freeOrtho(o);
    ctx.Check(__LINE__);
    o->orthoimagename = TextOf(r.orthoimagename, ctx);
    o->units = TextOf(r.units, ctx);
    std::memcpy(o->ul, r.ul, sizeof o->ul);
    std::memcpy(o->lr, r.lr, sizeof o->lr);
    std::memcpy(o->cellsize, r.cellsize, sizeof o->cellsize);
    std::memcpy(o->corners, r.corners, sizeof o->corners);
    o->proparm = ProjectionFromMif(r.proparm, ctx);
  }
  m_OrthoList.Reset(list.Release());
}

unsigned long EphoBlockFile::GetOrthoListCopy(EdlmList& out) {
  EerrException ctx(kSource, "EphoBlockFile::GetOrthoListCopy");
  EthrLockHolder lock(m_Mutex);
  if (!m_OrthoListInMemory && !m_OrthoList.Get() && !m_NewFile) ReadOrthoListFromHFA();
  if (!m_OrthoList.Get()) return 0;
  out.Reset(CopyList(m_OrthoList.Get(), copyOrtho));
  return static_cast<unsigned long>(m_OrthoList.Count());
}

void EphoBlockFile::PutOrthoList(EdlmList& list) {
  EerrException ctx(kSource, "EphoBlockFile::PutOrthoList");
  _edlm_list* copy = list.Get() ? CopyList(list.Get(), copyOrtho) : nullptr;
  EthrLockHolder lock(m_Mutex);
  m_OrthoList.Reset(copy);
  m_OrthoListInMemory = true;
  AddNodeToCEFList(L"OrthoImageList", &EphoBlockFile::OrthoImageListWrite);
}
