// The block property node: project-wide settings, the automatic tie-point
// parameters, and the projection and elevation info at the root.
#include <cstring>

#include "epho/block/block_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/ethr/lock_holder.h"

using epho::block::CountedText;
using epho::block::DesignPtr;
using epho::block::kSource;
using epho::block::SetCounted;

extern "C" Epho_AutoTieParameters* epho_BlockInitTiePar(Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"epho_BlockInitTiePar", err);
  auto* p =
      static_cast<Epho_AutoTieParameters*>(emsc_HeapCalloc(1, sizeof(Epho_AutoTieParameters)));
  EERR_FAIL_IF(!p, frame, nullptr, L"emsc_New failed.");
  // Defaults of automatic tie-point collection: 21-pixel search and
  // least-squares windows, 7-pixel correlation window, 25 points per image,
  // correlation coefficient at least 0.8.
  p->ImageLayerNumber = 1;
  p->SearchSize = 21;
  p->CorrelationSize = 7;
  p->LeastSquareSize = 21;
  p->TotalTiePoints = 25;
  p->PointDensity = 100;
  p->ExteriorAccuracy = 10;
  p->CoefficientLimit = 0.8;
  p->TieUsage = 1;
  p->PointsPerPattern = 1;
  p->FeatureUsage = 1;
  return p;
}
EERR_BOUNDARY(err, nullptr)

namespace {

void ToAutotieRecord(const Epho_AutoTieParameters& p, epho::block::AutotieRecord* r) {
  r->ImageUsage = p.ImageUsage;
  r->InitType = p.InitType;
  r->KeepPointsFlag = p.KeepPointsFlag;
  r->ImageLayerNumber = p.ImageLayerNumber;
  r->SearchSize = p.SearchSize;
  r->CorrelationSize = p.CorrelationSize;
  r->LeastSquareSize = p.LeastSquareSize;
  r->TotalTiePoints = p.TotalTiePoints;
  r->PointDensity = p.PointDensity;
  r->ExteriorAccuracy = p.ExteriorAccuracy;
  r->CoefficientLimit = p.CoefficientLimit;
  r->TieUsage = p.TieUsage;
}

void FromAutotieRecord(const epho::block::AutotieRecord& r, Epho_AutoTieParameters* p) {
  p->ImageUsage = r.ImageUsage;
  p->InitType = r.InitType;
  p->KeepPointsFlag = r.KeepPointsFlag;
  p->ImageLayerNumber = r.ImageLayerNumber;
  p->SearchSize = r.SearchSize;
  p->CorrelationSize = r.CorrelationSize;
  p->LeastSquareSize = r.LeastSquareSize;
  p->TotalTiePoints = r.TotalTiePoints;
  p->PointDensity = r.PointDensity;
  p->ExteriorAccuracy = r.ExteriorAccuracy;
  p->CoefficientLimit = r.CoefficientLimit;
  p->TieUsage = r.TieUsage;
}

// Frees what a stored record points to when the scope ends.
struct ContentsHolder {
  const Emif_Design* design;
  void* record;
  ~ContentsHolder() { emif_ObjectContentsFree(design, record, nullptr); }
};

}  // namespace

void EphoBlockFile::RegisterBlockProperty() {
  AddNodeToCEFList(L"BlockProperty", EMSC_TRUE, &EphoBlockFile::dummyBlockPropertyEntryCopy,
                   &EphoBlockFile::BlockPropertyDataCopy);
}

void EphoBlockFile::ReadCS() {
  EerrException ctx(kSource, "EphoBlockFile::ReadCS");
  EthrLockHolder lock(m_Mutex);
  Ehfa_File* file = m_HFAFile.Get();
  if (!file) return;
  Emif_Dictionary* dict = ehfa_FileDictionaryGet(file);
  std::wstring verticalUnits = L"meters";

  // Without the design the file is older or not a block: members keep their
  // constructor values.
  if (!m_UnitsInMemory && emif_FindDesignByName(dict, L"Block_Property")) {
    DesignPtr autotie = epho::block::AutotieDesign(ctx);
    DesignPtr design = epho::block::BlockPropertyDesign(autotie.get(), ctx);
    epho::block::BlockPropertyRecord rec{};
    ContentsHolder hold{design.get(), &rec};
    ehfa_ObjectReadInto(file, EHFA_SEEK_BY_NAME, L":", L"BlockProperty", design.get(), &rec,
                        ctx.Err());
    ctx.Check(__LINE__);

    m_HorizontalUnits = CountedText(rec.HorizontalUnits);
    if (estr_Eqic(m_HorizontalUnits.c_str(), L"radian"))
      m_HorizontalUnits = L"radians";
    else if (estr_Eqic(m_HorizontalUnits.c_str(), L"degree"))
      m_HorizontalUnits = L"degrees";
    m_VerticalUnits = CountedText(rec.VerticalUnits);
    m_AngularUnits = CountedText(rec.AngularUnits);
    m_HorizontalReferenceName = CountedText(rec.HorizontalReferFile);
    m_VerticalReferenceUnits = CountedText(rec.VerticalReferUnits);
    m_VerticalReferenceName = CountedText(rec.VerticalReferFile);
    m_ModelName = CountedText(rec.Modelname);
    m_CenterLongitude = rec.TopocenterLongitude;
    m_VerticalConstant = rec.ConstantElevation;
    m_TopocenterDefined = rec.TopocenterDefined ? EMSC_TRUE : EMSC_FALSE;
    m_StdX = rec.StdX;
    m_StdY = rec.StdY;
    m_StdZ = rec.StdZ;
    m_VerticalReferenceType = static_cast<Epho_VertRefType>(rec.VerticalReferType);
    m_HorizontalReferenceType = static_cast<Epho_HoriRefType>(rec.HorizontalReferType);
    m_CenterLatitude = rec.TopocenterLatitude;
    if (rec.VerticalUnits.data && rec.VerticalUnits.count > 0) verticalUnits = m_VerticalUnits;

    if (rec.PointCount < 0)
      ctx.Throw(__LINE__, L"Invalid ground point count %d in the block property",
                static_cast<int>(rec.PointCount));
    // The points themselves are read on first demand; points put in memory
    // are kept.
    if (!m_ObjectPointsInMemory) {
      const bool loaded = m_ObjectPointList.Get() && m_ObjectPointList.Count() > 0 &&
                          m_ObjectPointList.Count() == rec.PointCount;
      if (rec.PointCount != 0 && !loaded) {
        m_ObjectPointList.Reset(edlm_InitList(sizeof(void*), rec.PointCount, freeGroundPoint,
                                              copyGroundPoint, ctx.Err()));
        ctx.Check(__LINE__);
      } else if (rec.PointCount == 0) {
        m_ObjectPointList.Reset();
      }
      m_StoredPointCount = rec.PointCount;
    }

    if (rec.AutoTieParameters && !m_AutoTieInMemory) {
      const int32_t storedTieUsage = rec.AutoTieParameters->TieUsage;
      FromAutotieRecord(*rec.AutoTieParameters, m_AutoTie);
      if (m_AutoTie->TieUsage == 0) m_AutoTie->TieUsage = 1;
      if (storedTieUsage >= 1) {
        DesignPtr extraDesign = epho::block::ExtraAutotieDesign(ctx);
        epho::block::ExtraAutotieRecord extra{};
        // Fields an older node lacks ("AvoidShadow", "ImageScanType") read as 0.
        const Emsc_Boolean present =
            ehfa_ObjectReadIntoIfPresent(file, EHFA_SEEK_BY_NAME, L":BlockProperty",
                                         L"ExtraAutoTieData", extraDesign.get(), &extra, ctx.Err());
        ctx.Check(__LINE__);
        if (present) {
          m_AutoTie->PatternUsage = extra.PatternUsage;
          m_AutoTie->PointsPerPattern = extra.PointsPerPattern;
          m_AutoTie->StartingColumn = extra.StartingColumn;
          m_AutoTie->StartingLine = extra.StartingLine;
          m_AutoTie->ColumnIncrement = extra.ColumnIncrement;
          m_AutoTie->LineIncrement = extra.LineIncrement;
          m_AutoTie->FeatureUsage = extra.FeatureUsage;
          m_AutoTie->AvoidShadow = extra.AvoidShadow;
          m_AutoTie->ImageScanType = extra.ImageScanType;
        }
      }
    }
  }

  if (!m_MapProjection.HasValue() && !m_MapProjection.GivenInMemory()) {
    // A block without a projection is valid.
    Eprj_ProParameters* parameters = eprj_ProParametersRead(file, L":", ctx.Err());
    ctx.Clear();
    if (parameters) {
      Eprj_MapProjection* projection = eprj_ProjectionInit(parameters, ctx.Err());
      eprj_ProParametersFree(parameters);
      ctx.Check(__LINE__);
      m_MapProjection.Reset(projection);
    }
  }
  if (!m_ElevationInfo.HasValue() && !m_ElevationInfo.GivenInMemory()) {
    Eprj_ElevationInfo* info = nullptr;
    if (emif_FindDesignByName(dict, L"Eprj_ElevationInfo")) {
      info = eprj_ElevationInfoHfaRead(file, L":", ctx.Err());
    } else {
      info = eprj_ElevationInfoCreateByName(L"Undefined", L"Undefined", verticalUnits.c_str(),
                                            L"unknown", ctx.Err());
    }
    ctx.Check(__LINE__);
    m_ElevationInfo.Reset(info);
  }
}

void EphoBlockFile::BlockPropertyDataCopy(Ehfa_File* source, Ehfa_File* target,
                                          Eerr_ErrorReport** err) {
  EerrException ctx(kSource, "EphoBlockFile::BlockPropertyDataCopy");
  try {
    // The saving thread holds the block's mutex; its block is found through
    // the thread, so the class mutex is never taken under the object's one.
    EphoBlockFile* block = epho::block::SavingBlock();
    if (!block || !estr_Eqic(block->m_FileName.c_str(), ehfa_FileNameGet(source)))
      ctx.Throw(__LINE__, L"Failed to find source file in the file list");

    DesignPtr autotie = epho::block::AutotieDesign(ctx);
    DesignPtr design = epho::block::BlockPropertyDesign(autotie.get(), ctx);
    epho::block::AutotieRecord tie{};
    ToAutotieRecord(*block->m_AutoTie, &tie);
    epho::block::BlockPropertyRecord rec{};
    struct Strings {
      epho::block::BlockPropertyRecord* r;
      ~Strings() {
        for (Emif_CountedString* s :
             {&r->Modelname, &r->HorizontalUnits, &r->VerticalUnits, &r->AngularUnits,
              &r->HorizontalReferFile, &r->VerticalReferFile, &r->VerticalReferUnits})
          emsc_HeapFree(s->data);
      }
    } strings{&rec};
    if (!SetCounted(&rec.Modelname, block->m_ModelName) ||
        !SetCounted(&rec.HorizontalUnits, block->m_HorizontalUnits) ||
        !SetCounted(&rec.VerticalUnits, block->m_VerticalUnits) ||
        !SetCounted(&rec.AngularUnits, block->m_AngularUnits) ||
        !SetCounted(&rec.HorizontalReferFile, block->m_HorizontalReferenceName) ||
        !SetCounted(&rec.VerticalReferFile, block->m_VerticalReferenceName) ||
        !SetCounted(&rec.VerticalReferUnits, block->m_VerticalReferenceUnits))
      ctx.Throw(__LINE__, L"Out of memory");
    rec.StdX = block->m_StdX;
    rec.StdY = block->m_StdY;
    rec.StdZ = block->m_StdZ;
    if (!block->m_ObjectPointList.Get())
      rec.PointCount = 0;
    else if (block->m_ObjectPointsInMemory)
      rec.PointCount = static_cast<int32_t>(block->m_ObjectPointList.Count());
    else
      rec.PointCount = static_cast<int32_t>(block->m_StoredPointCount);
    rec.HorizontalReferType = block->m_HorizontalReferenceType;
    rec.VerticalReferType = block->m_VerticalReferenceType;
    rec.ConstantElevation = block->m_VerticalConstant;
    rec.TopocenterDefined = block->m_TopocenterDefined ? 1 : 0;
    rec.TopocenterLongitude = block->m_CenterLongitude;
    rec.TopocenterLatitude = block->m_CenterLatitude;
    rec.AutoTieParameters = &tie;
    ehfa_ObjectWrite(target, L":", L"BlockProperty", EHFA_WRITE_FIRST_CHILD, design.get(), &rec,
                     ctx.Err());
    ctx.Check(__LINE__);
    // A new file always gets its "ExtraAutoTieData" node.
    if (block->m_NewFile && !block->m_AutoTieInMemory) block->AutoTieNodeWrite(target);
  } catch (EerrException& e) {
    *err = e.Release();
  } catch (const std::bad_alloc&) {
    *err = eerr_CreateErrorReport(L"EphoBlockFile::BlockPropertyDataCopy", __LINE__, 2, nullptr,
                                  L"Out of memory", 0);
  }
}

void EphoBlockFile::dummyBlockPropertyEntryCopy(Ehfa_File*, Ehfa_File*, Eerr_ErrorReport**) {
  // The node's entry is not copied: BlockPropertyDataCopy writes it anew.
}

void EphoBlockFile::AutoTieNodeWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::AutoTieNodeWrite");
  DesignPtr design = epho::block::ExtraAutotieDesign(ctx);
  const Epho_AutoTieParameters& p = *m_AutoTie;
  epho::block::ExtraAutotieRecord rec{p.PatternUsage, p.PointsPerPattern, p.StartingColumn,
                                      p.StartingLine, p.ColumnIncrement,  p.LineIncrement,
                                      p.FeatureUsage, p.AvoidShadow,      p.ImageScanType};
  ehfa_EntrySeek(file, EHFA_SEEK_INTO, L":BlockProperty", nullptr, ctx.Err());
  ctx.Check(__LINE__);
  // Written in place when the node was copied from the old file, so the
  // property node never holds two of them.
  ehfa_ObjectWrite(file, L":BlockProperty", L"ExtraAutoTieData", EHFA_WRITE_REPLACE, design.get(),
                   &rec, ctx.Err());
  ctx.Check(__LINE__);
}

void EphoBlockFile::ElevInfoWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tElevInfoWrite");
  if (!m_ElevationInfo.Get()) return;
  Emif_Design* design = nullptr;
  void* object = nullptr;
  eprj_ElevationInfoConvertToMIFable(m_ElevationInfo.Get(), &design, &object, ctx.Err());
  ctx.Check(__LINE__);
  DesignPtr hold(design);
  epho::block::ObjectHolder objectHold(design, object);
  emif_DictionaryAddDesign(ehfa_FileDictionaryGet(file), design, ctx.Err());
  ctx.Check(__LINE__);
  ehfa_ObjectWrite(file, L":", L"Eprj_ElevationInfo", EHFA_WRITE_REPLACE, design, object,
                   ctx.Err());
  ctx.Check(__LINE__);
}

void EphoBlockFile::ProParamsWrite(Ehfa_File* file) {
  EerrException ctx(kSource, "EphoBlockFile::\tProParamsWrite");
  if (!m_MapProjection.Get()) return;
  ehfa_EntrySeek(file, EHFA_SEEK_ROOT, nullptr, nullptr, ctx.Err());
  ctx.Check(__LINE__);
  const Eprj_ProParameters* parameters = eprj_MapProjectionCSRGet(m_MapProjection.Get(), ctx.Err());
  ctx.Check(__LINE__);
  eprj_ProParametersWrite(file, L":", L"Eprj_ProParameters", parameters, ctx.Err());
  ctx.Check(__LINE__);
}

// ---- accessors

#define EPHO_BLOCK_TEXT_ACCESSORS(Name, member)     \
  void EphoBlockFile::Get##Name(EtxtTextU& out) {   \
    EthrLockHolder lock(m_Mutex);                   \
    out = member;                                   \
  }                                                 \
  void EphoBlockFile::Put##Name(EtxtTextU& value) { \
    EthrLockHolder lock(m_Mutex);                   \
    member = value;                                 \
    RegisterBlockProperty();                        \
  }
EPHO_BLOCK_TEXT_ACCESSORS(ModelName, m_ModelName)
EPHO_BLOCK_TEXT_ACCESSORS(HorizontalUnits, m_HorizontalUnits)
EPHO_BLOCK_TEXT_ACCESSORS(VerticalUnits, m_VerticalUnits)
EPHO_BLOCK_TEXT_ACCESSORS(AngularUnits, m_AngularUnits)
EPHO_BLOCK_TEXT_ACCESSORS(HorizontalReferenceName, m_HorizontalReferenceName)
EPHO_BLOCK_TEXT_ACCESSORS(VerticalReferenceUnits, m_VerticalReferenceUnits)
EPHO_BLOCK_TEXT_ACCESSORS(VerticalReferenceName, m_VerticalReferenceName)
#undef EPHO_BLOCK_TEXT_ACCESSORS

Epho_HoriRefType EphoBlockFile::GetHorizontalReferenceType() {
  EthrLockHolder lock(m_Mutex);
  return m_HorizontalReferenceType;
}
Epho_VertRefType EphoBlockFile::GetVerticalReferenceType() {
  EthrLockHolder lock(m_Mutex);
  return m_VerticalReferenceType;
}
Emsc_Boolean EphoBlockFile::GetTopocenterDefined() {
  EthrLockHolder lock(m_Mutex);
  return m_TopocenterDefined;
}
double EphoBlockFile::GetVerticalConstant() {
  EthrLockHolder lock(m_Mutex);
  return m_VerticalConstant;
}
void EphoBlockFile::GetCenterLatLon(double* lat, double* lon) {
  EthrLockHolder lock(m_Mutex);
  if (lat) *lat = m_CenterLatitude;
  if (lon) *lon = m_CenterLongitude;
}
void EphoBlockFile::GetDefaultStdXYZ(double* x, double* y, double* z) {
  EthrLockHolder lock(m_Mutex);
  if (x) *x = m_StdX;
  if (y) *y = m_StdY;
  if (z) *z = m_StdZ;
}
void EphoBlockFile::PutHorizontalReferenceType(Epho_HoriRefType value) {
  EthrLockHolder lock(m_Mutex);
  m_HorizontalReferenceType = value;
  RegisterBlockProperty();
}
void EphoBlockFile::PutVerticalReferenceType(Epho_VertRefType value) {
  EthrLockHolder lock(m_Mutex);
  m_VerticalReferenceType = value;
  RegisterBlockProperty();
}
void EphoBlockFile::PutTopocenterDefined(Emsc_Boolean value) {
  EthrLockHolder lock(m_Mutex);
  m_TopocenterDefined = value;
  RegisterBlockProperty();
}
void EphoBlockFile::PutCenterLatLon(double lat, double lon) {
  EthrLockHolder lock(m_Mutex);
  m_CenterLatitude = lat;
  m_CenterLongitude = lon;
  RegisterBlockProperty();
}
void EphoBlockFile::PutVerticalConstant(double value) {
  EthrLockHolder lock(m_Mutex);
  m_VerticalConstant = value;
  RegisterBlockProperty();
}
void EphoBlockFile::PutDefaultStdXYZ(double x, double y, double z) {
  EthrLockHolder lock(m_Mutex);
  m_StdX = x;
  m_StdY = y;
  m_StdZ = z;
  RegisterBlockProperty();
}

void EphoBlockFile::GetCoordinateSystem(
    LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU>& projection,
    LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU>& elevation, EtxtTextU& units) {
  EerrException ctx(kSource, "EphoBlockFile::GetCoordinateSystem");
  ReadCS();
  EthrLockHolder lock(m_Mutex);
  Eprj_MapProjection* p = nullptr;
  if (m_MapProjection.Get()) {
    p = eprj_ProjectionCopy(m_MapProjection.Get(), ctx.Err());
    ctx.Check(__LINE__);
  }
  Eprj_ElevationInfo* e = nullptr;
  if (m_ElevationInfo.Get()) {
    e = eprj_ElevationInfoCopy(m_ElevationInfo.Get(), ctx.Err());
    if (!e) eprj_ProjectionFree(p);
    ctx.Check(__LINE__);
  }
  projection.Reset(p);
  elevation.Reset(e);
  units = m_HorizontalUnits;
}

void EphoBlockFile::PutCoordinateSystem(
    LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU>& projection,
    LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU>& elevation, EtxtTextU& units) {
  EerrException ctx(kSource, "EphoBlockFile::PutCoordinateSystem");
  EthrLockHolder lock(m_Mutex);
  if (elevation.Get()) {
    Eprj_ElevationInfo* e = eprj_ElevationInfoCopy(elevation.Get(), ctx.Err());
    ctx.Check(__LINE__);
    m_ElevationInfo.Reset(e);
    m_ElevationInfo.SetGivenInMemory(true);
    AddNodeToCEFList(L"Eprj_ElevationInfo", &EphoBlockFile::ElevInfoWrite);
  }
  if (projection.Get()) {
    Eprj_MapProjection* p = eprj_ProjectionCopy(projection.Get(), ctx.Err());
    ctx.Check(__LINE__);
    m_MapProjection.Reset(p);
    m_MapProjection.SetGivenInMemory(true);
    AddNodeToCEFList(L"Eprj_ProParameters", &EphoBlockFile::ProParamsWrite);
  }
  if (!estr_Eqic(units.c_str(), m_HorizontalUnits.c_str())) {
    m_HorizontalUnits = units;
    m_UnitsInMemory = true;
    RegisterBlockProperty();
  }
}

Epho_AutoTieParameters* EphoBlockFile::GetAutoTieParameters() {
  EerrException ctx(kSource, "EphoBlockFile::GetAutoTieParameters");
  Epho_AutoTieParameters* copy = epho_BlockInitTiePar(ctx.Err());
  ctx.Check(__LINE__);
  EthrLockHolder lock(m_Mutex);
  *copy = *m_AutoTie;
  return copy;
}

void EphoBlockFile::PutAutoTieParameters(Epho_AutoTieParameters* parameters) {
  EerrException ctx(kSource, "EphoBlockFile::PutAutoTieParameters");
  if (!parameters) ctx.Throw(__LINE__, L"No automatic tie-point parameters given");
  EthrLockHolder lock(m_Mutex);
  *m_AutoTie = *parameters;
  RegisterBlockProperty();
  AddNodeToCEFList(L"ExtraAutoTieData", &EphoBlockFile::AutoTieNodeWrite);
  m_AutoTieInMemory = true;
}
