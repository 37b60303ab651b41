// Internals shared by the block file's sources: the node registry entry, the
// stored records in design layout and the designs.
#ifndef EPHO_BLOCK_BLOCK_INTERNAL_H
#define EPHO_BLOCK_BLOCK_INTERNAL_H

#include <memory>
#include <string>

#include "epho/block.h"
#include "platform/eerr/error_frame.h"

/* One top-level node that the next save rewrites, copies through functions
 * or drops. */
struct _NodeInfo {
  EtxtTextU name;
  EphoBlockNodeWriter writer = nullptr;
  Ehfa_CopyFunction entryCopy = nullptr;
  Ehfa_CopyFunction dataCopy = nullptr;
  Emsc_Boolean copyChildren = EMSC_FALSE;
};

/* An object queued by EhfaObjectWriteInMemory (design and data owned). */
struct EphoBlockFile::InMemoryObject {
  Emif_Design* design = nullptr;
  EtxtTextU path;
  EtxtTextU name;
  Ehfa_WritePos position = EHFA_WRITE_REPLACE;
  void* data = nullptr;
};

namespace epho::block {

extern const char kSource[];  // "EphoBlockFile"

struct DesignDeleter {
  void operator()(Emif_Design* d) const { emif_DesignDestroy(d); }
};
using DesignPtr = std::unique_ptr<Emif_Design, DesignDeleter>;

// A record of a design held until the scope ends (contents and record freed).
class ObjectHolder {
 public:
  ObjectHolder(const Emif_Design* design, void* object) : design_(design), object_(object) {}
  ~ObjectHolder() { emif_ObjectFree(design_, object_, nullptr); }
  ObjectHolder(const ObjectHolder&) = delete;
  ObjectHolder& operator=(const ObjectHolder&) = delete;
  void* get() const { return object_; }

 private:
  const Emif_Design* design_;
  void* object_;
};

// Stored records, in the memory layout of their designs (the design test
// checks every offset against the design machinery).
struct AutotieRecord {
  int32_t ImageUsage, InitType, KeepPointsFlag, ImageLayerNumber, SearchSize, CorrelationSize,
      LeastSquareSize, TotalTiePoints, PointDensity, ExteriorAccuracy;
  double CoefficientLimit;
  int32_t TieUsage;
};
struct ExtraAutotieRecord {
  int32_t PatternUsage, PointsPerPattern, StartingColumn, StartingLine, ColumnIncrement,
      LineIncrement, FeatureUsage, AvoidShadow, ImageScanType;
};
struct BlockPropertyRecord {
  Emif_CountedString Modelname, HorizontalUnits, VerticalUnits, AngularUnits;
  double StdX, StdY, StdZ;
  int32_t PointCount;
  int32_t HorizontalReferType;
  Emif_CountedString HorizontalReferFile;
  int32_t VerticalReferType;
  Emif_CountedString VerticalReferFile;
  double ConstantElevation;
  Emif_CountedString VerticalReferUnits;
  int32_t TopocenterDefined;
  double TopocenterLongitude, TopocenterLatitude;
  AutotieRecord* AutoTieParameters;
};
struct VersionRecord {
  Emif_CountedString Version;
};
struct FrameDataRecord {
  int32_t ImageCount, CurrentImage;
};
struct GroundPointStatsRecord {
  double MaximumZ, MinimumZ;
};
struct MifObjectRecord {
  Emif_CountedString type;
  Emif_CountedString MIFDictionary;
  Emif_CountedBytes MIFObject;
};
struct DtmRecord {
  int32_t dtmsource;
  Emif_CountedString filename, namepart, tmpdemfilename;
  double meanz;
  double ul[2], lr[2], cellsize[2];
  double background;
  Emif_CountedString hunits, vunits;
  MifObjectRecord* proparm;
};
struct DtmListRecord {
  Emif_CountedObjects dtms;
};
struct OrthoRecord {
  Emif_CountedString orthoimagename, units;
  double ul[2], lr[2], cellsize[2], corners[8];
  MifObjectRecord* proparm;
};
struct OrthoListRecord {
  Emif_CountedObjects Orthos;
};

// Designs of the block's nodes. Each throws under `ctx` on failure.
DesignPtr VersionDesign(EerrException& ctx);
DesignPtr AutotieDesign(EerrException& ctx);
DesignPtr ExtraAutotieDesign(EerrException& ctx);
DesignPtr BlockPropertyDesign(const Emif_Design* autotie, EerrException& ctx);
DesignPtr FrameDataDesign(EerrException& ctx);
DesignPtr GroundPointDesign(EerrException& ctx);
DesignPtr ImagePointDesign(EerrException& ctx);
DesignPtr GroundPointStatsDesign(EerrException& ctx);
DesignPtr MifObjectDesign(EerrException& ctx);
DesignPtr DtmDesign(const Emif_Design* mif, EerrException& ctx);
DesignPtr DtmListDesign(const Emif_Design* dtm, EerrException& ctx);
DesignPtr OrthoDesign(const Emif_Design* mif, EerrException& ctx);
DesignPtr OrthoListDesign(const Emif_Design* ortho, EerrException& ctx);

// Counted-string helpers: a heap copy of `text` (count 0 and null for an
// empty text), and the text of a stored string.
bool SetCounted(Emif_CountedString* out, const std::wstring& text);
std::wstring CountedText(const Emif_CountedString& s);

// The block whose save runs on this thread (the copy callbacks find their
// block here instead of taking the class mutex under the object's mutex).
EphoBlockFile*& SavingBlock();

}  // namespace epho::block

#endif  // EPHO_BLOCK_BLOCK_INTERNAL_H
