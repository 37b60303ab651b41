/* Block file: the project file of a whole photogrammetric block.
 *
 * A block holds its images (one frame object each), the sensor object, the
 * ground points with their image measurements, the DTMs and ortho images,
 * units, reference system and automatic tie-point settings. It is one
 * hierarchical (HFA) file. EphoBlockFile is its in-memory object: Open hands
 * out one shared, reference-counted object per file, accessors hand out
 * copies and Put… methods change the cache; only Save/SaveAs write, by
 * rebuilding the whole file and replacing the old one in one step.
 *
 * Choices made here (callers rely on them):
 *  - Sharing: Open shares an object between two names only when they are
 *    equal ignoring letter case AND name the same file
 *    (std::filesystem::equivalent). On a case-sensitive file system
 *    "a.blk" and "A.blk" are two files and never share.
 *  - Locks: a class mutex guards the registry of open blocks; each object
 *    has its own (recursive) mutex, taken by every accessor. The class mutex
 *    is never taken while an object mutex is held; the save's copy callbacks
 *    find their block through the saving thread, not through the registry.
 *  - Saving is atomic: the new file is written as an unnamed (or, where the
 *    file system cannot, a named) temporary in the target's folder, flushed
 *    to disk, and renamed over the target. A failed save (a write error, a
 *    full disk, a file size limit, a failing application write function, a
 *    killed process) leaves the old file byte-identical and no temporary
 *    behind. While saving, SIGXFSZ is blocked in the saving thread, so a
 *    file size limit becomes a write error (EFBIG) instead of killing the
 *    process; the process's signal handlers are left as they are.
 *  - Frames are read back by name ("Frame%d") in every file, so frame nodes
 *    written in any order by another program are found.
 *
 * Class methods throw EerrException; plain functions report through their
 * trailing Eerr_ErrorReport**. */
#ifndef EPHO_BLOCK_H
#define EPHO_BLOCK_H

#include <stdint.h>

#include "edlm.h"
#include "ehfa.h"
#include "emif.h"
#include "epho/base.h"
#include "eprj.h"

/* Source of the block's horizontal reference coordinates. */
typedef enum {
  H_REF_KEYBOARD = 0,
  H_REF_IMAGE,
  H_REF_VECTOR,
  H_REF_ANNOTATION,
  H_REF_GCC,
  H_REF_ASCII,
  H_REF_SHAPE,
  H_REF_TABLET
} Epho_HoriRefType;

/* Source of the block's vertical reference (heights). */
typedef enum { V_REF_KEYBOARD = 0, V_REF_IMAGE, V_REF_CONSTANT } Epho_VertRefType;

/* Which coordinates of a ground point are control, and its role. */
typedef enum { GCP_FULL = 0, GCP_HORIZ, GCP_VERT, GCP_NONE } Epho_PointType;
typedef enum { GCP_CONTROL = 0, GCP_CHECK, GCP_TIE } Epho_PointUsage;

/* Kind of height source of a DTM. */
typedef enum {
  DTM_TYPE_CONSTANT = 0,
  DTM_TYPE_DEM,
  DTM_TYPE_TIN,
  DTM_TYPE_SHAPE,
  DTM_TYPE_ASCII,
  DTM_TYPE_SOCETSET_TIN
} Epho_DTMType;

/* Automatic tie-point settings (toolkit heap; free with emsc_HeapFree). The
 * first twelve are stored in the block property node, the next nine in its
 * child "ExtraAutoTieData"; the last two are not stored. */
typedef struct Epho_AutoTieParameters {
  int32_t ImageUsage;
  int32_t InitType;
  int32_t KeepPointsFlag;
  int32_t ImageLayerNumber;
  int32_t SearchSize;      /* pixels */
  int32_t CorrelationSize; /* pixels */
  int32_t LeastSquareSize; /* pixels */
  int32_t TotalTiePoints;
  int32_t PointDensity;
  int32_t ExteriorAccuracy;
  double CoefficientLimit; /* minimum correlation coefficient */
  int32_t TieUsage;
  int32_t PatternUsage;
  int32_t PointsPerPattern;
  int32_t StartingColumn;
  int32_t StartingLine;
  int32_t ColumnIncrement;
  int32_t LineIncrement;
  int32_t FeatureUsage;
  int32_t AvoidShadow;
  int32_t ImageScanType;
  int32_t Reserved[2];
} Epho_AutoTieParameters;

/* One measurement of a ground point in an image (toolkit heap). Its layout
 * is that of the "ImagePoint" design; booleans are EMSC_FALSE/EMSC_TRUE. */
typedef struct Epho_ImagePoint {
  int32_t imageId; /* "ImageIDNumber" */
  double imageX;   /* measured image coordinates */
  double imageY;
  int32_t xDefined;
  int32_t yDefined;
  int32_t pointUsed;
  float color[3];
  double residualX;
  double residualY;
  int32_t grossError; /* flagged as a blunder */
} Epho_ImagePoint;

/* A control, check or tie point (toolkit heap). Up to imagePoints its
 * layout is that of the "GroundPoint" design; it owns its description and
 * its list of Epho_ImagePoint (null: none). Free with
 * EphoBlockFile::freeGroundPoint. */
typedef struct Epho_GroundPoint {
  int32_t id;
  Emif_CountedString description; /* count = length + 1, or 0 */
  double groundX;                 /* ground coordinates, block units */
  double groundY;
  double groundZ;
  int32_t xDefined;
  int32_t yDefined;
  int32_t zDefined;
  int32_t pointType;  /* Epho_PointType */
  int32_t pointUsage; /* Epho_PointUsage */
  int32_t pointUsed;
  float color[3];
  float stdX; /* a-priori standard deviations */
  float stdY;
  float stdZ;
  double residualX;
  double residualY;
  double residualZ;
  int32_t imagePointCount; /* written from the list on save */
  _edlm_list* imagePoints;
} Epho_GroundPoint;

/* A terrain model of the block (toolkit heap; free with
 * EphoBlockFile::freeDtm). Texts and the projection are owned (null: none). */
typedef struct Epho_BlockDTM {
  int32_t dtmsource; /* Epho_DTMType */
  Etxt_Char* filename;
  Etxt_Char* namepart;
  Etxt_Char* tmpdemfilename;
  double meanz;
  double ul[2]; /* upper-left corner, map units */
  double lr[2]; /* lower-right corner */
  double cellsize[2];
  double background;
  Etxt_Char* hunits;
  Etxt_Char* vunits;
  Eprj_ProParameters* proparm; /* map projection of the DTM */
} Epho_BlockDTM;

/* An ortho image made from the block (toolkit heap; free with
 * EphoBlockFile::freeOrtho). */
typedef struct Epho_BlockOrtho {
  Etxt_Char* orthoimagename;
  Etxt_Char* units;
  double ul[2];
  double lr[2];
  double cellsize[2];
  double corners[8]; /* four corner points, x and y each */
  Eprj_ProParameters* proparm;
} Epho_BlockOrtho;

KZDV_BEGIN_C

/* A new record of default automatic tie-point settings (toolkit heap), or
 * null with the report "emsc_New failed." when memory is exhausted. */
EPHO_EXPORT Epho_AutoTieParameters* epho_BlockInitTiePar(Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#ifdef __cplusplus
#include <atomic>
#include <vector>

#include "ethr.h"

typedef Eprj_MapProjection _eprj_MapProjectionExEtxt_TextU;
typedef Eprj_ElevationInfo _eprj_ElevationInfoEtxt_TextU;

/* How a LegacyHelperTemplate frees what it holds. */
template <typename T>
struct LegacyHelperFree;
template <>
struct LegacyHelperFree<Eprj_MapProjection> {
  static void Free(Eprj_MapProjection* p) { eprj_ProjectionFree(p); }
};
template <>
struct LegacyHelperFree<Eprj_ElevationInfo> {
  static void Free(Eprj_ElevationInfo* p) { eprj_ElevationInfoFree(p); }
};

/* Owner of one toolkit record, with a flag telling that the value was given
 * in memory (and so must not be re-read from the file). */
template <typename T>
class LegacyHelperTemplate {
 public:
  LegacyHelperTemplate() = default;
  explicit LegacyHelperTemplate(T* p) : m_ptr(p) {}
  ~LegacyHelperTemplate() { LegacyHelperFree<T>::Free(m_ptr); }
  LegacyHelperTemplate(const LegacyHelperTemplate&) = delete;
  LegacyHelperTemplate& operator=(const LegacyHelperTemplate&) = delete;

  T* Get() const { return m_ptr; }
  bool HasValue() const { return m_ptr != nullptr; }
  void Reset(T* p = nullptr) {
    if (p != m_ptr) LegacyHelperFree<T>::Free(m_ptr);
    m_ptr = p;
  }
  T* Release() {
    T* p = m_ptr;
    m_ptr = nullptr;
    return p;
  }
  bool GivenInMemory() const { return m_givenInMemory; }
  void SetGivenInMemory(bool given) { m_givenInMemory = given; }

 private:
  T* m_ptr = nullptr;
  bool m_givenInMemory = false;
};

/* An open HFA file handle; replacing or destroying it closes the old handle
 * (a close error is discarded: callers that must know close explicitly). */
class EPHO_EXPORT EhfaFile {
 public:
  EhfaFile() = default;
  explicit EhfaFile(Ehfa_File* file) : m_file(file) {}
  ~EhfaFile();
  EhfaFile(const EhfaFile&) = delete;
  EhfaFile& operator=(const EhfaFile&) = delete;
  Ehfa_File* Get() const { return m_file; }
  void Reset(Ehfa_File* file = nullptr);
  Ehfa_File* Release() {
    Ehfa_File* f = m_file;
    m_file = nullptr;
    return f;
  }

 private:
  Ehfa_File* m_file = nullptr;
};

class EphoBlockFile;
struct _NodeInfo;
typedef void (EphoBlockFile::*EphoBlockNodeWriter)(Ehfa_File* file);
/* An application's own writer, run last on every save; a result of 0 or
 * less fails the save. */
typedef long (*EphoAppDataWriteFunc)(void* context, EhfaFile& file);

class EPHO_EXPORT EphoBlockFile {
 public:
  /* ---- lifetime and files ---- */

  /* The shared object of the block file `name`: a new one (the file made
   * when `create` is true and nothing is there), or the open one with its
   * reference count raised (its block property node is then read again
   * unless units were put in memory). Null for a missing file without
   * `create` and for a directory. Throws on a file that cannot be read. */
  static EphoBlockFile* Open(EtxtTextU& name, bool create);
  /* Gives one reference back; the last one destroys the object (unsaved
   * changes are lost). Do not use the pointer afterwards. */
  void Close();
  void Save();
  /* Writes the block to `name` (nothing at all when nothing changed) and
   * continues with that file. */
  void SaveAs(EtxtTextU& name);
  bool IsDirty();
  /* The open HFA handle (borrowed; a new one after every save). */
  Ehfa_File* GetHFAFile();
  /* The version stored in the file ("9.2"), or empty for an older file. */
  void GetVersion(EtxtTextU& version);
  /* The name under which the block was opened or last saved. */
  void GetFileName(EtxtTextU& name);
  /* Current number of references (diagnostics and tests). */
  int GetReferenceCount() const;
  /* Copies the cached block of `other`: lists, texts, numbers, projection,
   * designs and the held-in-memory flags as they stand (not the file, its
   * name, the reference count or what the next save must write). Both
   * objects are locked, in address order. */
  EphoBlockFile& operator=(const EphoBlockFile& other);

  /* ---- block property (all accessors lock the object) ---- */
  long GetCurrentImageIndex();
  Epho_HoriRefType GetHorizontalReferenceType();
  Epho_VertRefType GetVerticalReferenceType();
  Emsc_Boolean GetTopocenterDefined();
  double GetVerticalConstant();
  void GetCenterLatLon(double* lat, double* lon);
  void GetDefaultStdXYZ(double* x, double* y, double* z);
  void GetModelName(EtxtTextU& out);
  void GetHorizontalUnits(EtxtTextU& out);
  void GetVerticalUnits(EtxtTextU& out);
  void GetAngularUnits(EtxtTextU& out);
  void GetHorizontalReferenceName(EtxtTextU& out);
  void GetVerticalReferenceUnits(EtxtTextU& out);
  void GetVerticalReferenceName(EtxtTextU& out);
  void PutModelName(EtxtTextU& value);
  void PutHorizontalUnits(EtxtTextU& value);
  void PutVerticalUnits(EtxtTextU& value);
  void PutAngularUnits(EtxtTextU& value);
  void PutHorizontalReferenceName(EtxtTextU& value);
  void PutVerticalReferenceUnits(EtxtTextU& value);
  void PutVerticalReferenceName(EtxtTextU& value);
  void PutHorizontalReferenceType(Epho_HoriRefType value);
  void PutVerticalReferenceType(Epho_VertRefType value);
  void PutTopocenterDefined(Emsc_Boolean value);
  void PutCenterLatLon(double lat, double lon);
  void PutVerticalConstant(double value);
  void PutDefaultStdXYZ(double x, double y, double z);
  /* Copies of the projection, elevation info and horizontal units (the
   * holders' old values are freed). */
  void GetCoordinateSystem(LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU>& projection,
                           LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU>& elevation,
                           EtxtTextU& units);
  /* Stores copies of what the holders hold; units are stored when they
   * differ ignoring case, and stop later re-reads of the property node. */
  void PutCoordinateSystem(LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU>& projection,
                           LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU>& elevation,
                           EtxtTextU& units);
  /* A copy the caller frees with emsc_HeapFree. */
  Epho_AutoTieParameters* GetAutoTieParameters();
  void PutAutoTieParameters(Epho_AutoTieParameters* parameters);

  /* ---- images, frames, sensor ---- */

  /* A copy of the image list (elements: frame data bytes) and of the frame
   * design (null when none; caller destroys it); returns the image count. */
  unsigned long GetImageListCopy(EdlmList& images, EMIF_DESIGNEtxt_TextU** frameDesign);
  /* `sizes[i]`: bytes of frame i. The data are copied. */
  void PutImageList(EdlmList& images, long* sizes, EMIF_DESIGNEtxt_TextU* frameDesign);
  /* Copies of the sensor bytes (heap; null when none) and design. */
  void GetSensorData(unsigned char** data, EMIF_DESIGNEtxt_TextU** design);
  /* Byte count of the sensor data (0 when none). */
  long GetSensorDataLength();
  void PutSensorData(unsigned char* data, long length, EMIF_DESIGNEtxt_TextU* design);
  void PutCurrentImageIndex(long index);
  /* Byte count of each image's frame data, in list order. */
  std::vector<long> GetFrameDataSizes();
  static void freeBlkImage(void* element);

  /* ---- object points ---- */

  /* Replaces `out`'s contents by a deep copy of the ground points; 0 (and
   * `out` untouched) when the block has no point list. Points that only the
   * file holds (none were put since the block was opened or saved) are
   * decoded from the file on every call, straight into `out`: the block
   * keeps no decoded copy of its own, so a large block costs its readers
   * one copy each, not two. Points put in memory are copied from there. */
  unsigned long GetObjectPointsListCopy(EdlmList& out);
  void PutObjectPointsList(EdlmList& list);
  void GetMinMaxZ(double* minZ, double* maxZ);
  static void* copyGroundPoint(void* point, Eerr_ErrorReport** err);
  static void* copyImagePoint(void* point, Eerr_ErrorReport** err);
  static void freeGroundPoint(void* point);
  static void freeImagePoint(void* point);
  /* A new list of the same element size holding copies, in order. */
  static _edlm_list* CopyList(_edlm_list* list, void* (*copy)(void*, Eerr_ErrorReport**));

  /* ---- DTMs and orthos ---- */
  unsigned long GetDTMListCopy(EdlmList& out);
  void PutDTMList(EdlmList& list);
  unsigned long GetOrthoListCopy(EdlmList& out);
  void PutOrthoList(EdlmList& list);
  /* Read and write the "DTMList" object of any HFA file. */
  static unsigned long ReadDTMListFromHFA(EdlmList& out, Ehfa_File* file);
  static void WriteDTMListToHFA(EdlmList& list, Ehfa_File* file);
  static void CopyDTMList(EdlmList& from, EdlmList& to);
  static Epho_BlockDTM* BlockDTMCreate();
  static Epho_BlockOrtho* BlockOrthoCreate();
  static void freeDtm(void* dtm);
  static void freeOrtho(void* ortho);
  static void* copyDtm(void* dtm, Eerr_ErrorReport** err);
  static void* copyOrtho(void* ortho, Eerr_ErrorReport** err);

  /* ---- node registry and application data ---- */

  /* Registers a top-level node for the next save (sets the dirty flag). A
   * node with copy functions is handed to them during the copy of the old
   * file; one without is dropped and written anew by its writer, if any. */
  _NodeInfo* AddNodeToCEFList(const wchar_t* name, Emsc_Boolean copyChildren,
                              Ehfa_CopyFunction entryCopy, Ehfa_CopyFunction dataCopy);
  _NodeInfo* AddNodeToCEFList(const wchar_t* name, EphoBlockNodeWriter writer);
  _NodeInfo* FindCEFInList(const wchar_t* name);
  /* The next save drops the node `name` (a child of the root). */
  void ExcludeNodeFromWrite(EtxtTextU& name);
  /* Writes an object into the open block file at once. */
  void EhfaObjectWrite(EMIF_DESIGNEtxt_TextU* design, const wchar_t* path, const wchar_t* name,
                       Ehfa_WritePos position, void* data);
  /* Reads an object of the open block file: *data a new record (free with
   * emif_ObjectFree and the returned design, which the caller owns). */
  EMIF_DESIGNEtxt_TextU* EhfaObjectRead(const wchar_t* path, const wchar_t* name,
                                        Ehfa_SeekMethod method, void** data);
  /* Queues a copy of the object for the next save. */
  void EhfaObjectWriteInMemory(EMIF_DESIGNEtxt_TextU* design, const wchar_t* path,
                               const wchar_t* name, Ehfa_WritePos position, void* data);
  void AddAppDataWriteFunc(void* context, EphoAppDataWriteFunc function);
  void FreeCEFList();
  void FreeEhfaObjectList();

 private:
  struct InMemoryObject;
  struct AppWriteFunction {
    void* context;
    EphoAppDataWriteFunc function;
  };

  EphoBlockFile();
  ~EphoBlockFile();
  EphoBlockFile(const EphoBlockFile&) = delete;

  int IncrementRefCount();
  int DecrementRefCount();
  void InternalClose();
  void BlockFileVersionWrite(Ehfa_File* file);
  static EphoBlockFile* FindHFAOnList(Ehfa_File* file);
  void WriteDataToFile(const wchar_t* target, Ehfa_CEFRecord* records);
  std::vector<Ehfa_CEFRecord> BuildCopyTable();

  void ReadCS();
  void ElevInfoWrite(Ehfa_File* file);
  void ProParamsWrite(Ehfa_File* file);
  void AutoTieNodeWrite(Ehfa_File* file);
  static void BlockPropertyDataCopy(Ehfa_File* source, Ehfa_File* target, Eerr_ErrorReport** err);
  static void dummyBlockPropertyEntryCopy(Ehfa_File* source, Ehfa_File* target,
                                          Eerr_ErrorReport** err);
  void RegisterBlockProperty();

  void FrameEntryWrite(Ehfa_File* file);
  void SensorInfoWrite(Ehfa_File* file);
  void ReadImagesFromFile();

  _edlm_list* ReadStoredPoints();
  _edlm_list* ReadPointsBySeeking(bool keep);
  _edlm_list* ReadPointsSequentially();
  void ObjectPointListWrite(Ehfa_File* file);
  void ScanMinMaxZ();

  void DTMListWrite(Ehfa_File* file);
  void OrthoImageListWrite(Ehfa_File* file);
  void ReadOrthoListFromHFA();

  // 1-4: lists
  EdlmList m_ImageList;
  EdlmList m_OrthoList;
  EdlmList m_DTMList;
  EdlmList m_ObjectPointList;
  // 5: held-in-memory flags
  bool m_ImageListInMemory = false;
  bool m_OrthoListInMemory = false;
  bool m_DTMListInMemory = false;
  bool m_ObjectPointsInMemory = false;
  bool m_SensorDataInMemory = false;
  bool m_AutoTieInMemory = false;
  // 6-9
  LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> m_MapProjection;
  LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> m_ElevationInfo;
  EtxtTextU m_HorizontalUnits;
  bool m_UnitsInMemory = false;
  // 10-13
  EtxtTextU m_Version;
  EhfaFile m_HFAFile;
  EtxtTextU m_FileName;
  Ethr_Mutex* m_Mutex = nullptr;
  // 14-16
  std::atomic<int> m_RefCount{0};
  double m_MaxZ;
  double m_MinZ;
  std::vector<_NodeInfo*> m_NodeList;
  // 17-19
  long m_CurrentImageIndex = 0;
  EMIF_DESIGNEtxt_TextU* m_FrameDesign = nullptr;
  EMIF_DESIGNEtxt_TextU* m_SensorDesign = nullptr;
  unsigned char* m_SensorData = nullptr;
  long m_SensorDataLength = 0;
  long* m_FrameDataSizes = nullptr;
  // 20-21
  bool m_NewFile = false;
  Epho_AutoTieParameters* m_AutoTie = nullptr;
  // 22-24
  EtxtTextU m_ModelName;
  EtxtTextU m_VerticalUnits;
  EtxtTextU m_AngularUnits;
  EtxtTextU m_HorizontalReferenceName;
  EtxtTextU m_VerticalReferenceUnits;
  EtxtTextU m_VerticalReferenceName;
  Epho_HoriRefType m_HorizontalReferenceType = H_REF_KEYBOARD;
  Epho_VertRefType m_VerticalReferenceType = V_REF_KEYBOARD;
  Emsc_Boolean m_TopocenterDefined = EMSC_FALSE;
  double m_CenterLongitude = 0.0;
  double m_VerticalConstant = 0.0;
  double m_StdX = 0.0;
  double m_StdY = 0.0;
  double m_StdZ = 0.0;
  double m_CenterLatitude = 0.0;
  // 25-27
  bool m_Dirty = false;
  std::vector<InMemoryObject*> m_InMemoryObjects;
  std::vector<AppWriteFunction> m_AppWriteFunctions;
  // Point count stored in the property node as read (the list is loaded on
  // first demand).
  long m_StoredPointCount = 0;
  // Whether the image list and the sensor data were read from the file.
  bool m_ImagesRead = false;
  bool m_SensorDataRead = false;
  // Registry key: the file name as the registry sees it, changed only under
  // the class mutex (m_FileName is guarded by the object's mutex).
  EtxtTextU m_RegistryName;

  static Ethr_Mutex* m_ClassMutex;
  static _edlm_list* m_FileObjectList;

  friend class BlockIntList;
};

/* A persistent set of integers of a block (sorted, no duplicates), saved as
 * the root node "NoPairList" with a one-field design (default "IntList"
 * with the counted int32 field "Ints"). */
class EPHO_EXPORT BlockIntList {
 public:
  BlockIntList();
  BlockIntList(const wchar_t* designName, const wchar_t* fieldName);
  BlockIntList(const BlockIntList& other) = default;
  BlockIntList& operator=(const BlockIntList& other) = default;
  ~BlockIntList() = default;

  /* Adds a value; the list becomes dirty when it was new. */
  void Insert(long value);
  /* Removes a value; the list becomes dirty when one was removed. */
  void Remove(long value);
  bool IsDirty() const { return m_Dirty; }
  bool Contains(long value) const;
  const std::vector<long>& Values() const { return m_Values; }
  /* Queues the set for the block's next save (clears the dirty flag). */
  void MIFSave(EphoBlockFile* block);
  /* Reads the saved set from the block file and adds its values (nothing
   * when the block holds none). */
  void MIFLoad(EphoBlockFile* block);

 private:
  std::vector<long> m_Values;
  EtxtTextU m_DesignName;
  EtxtTextU m_FieldName;
  bool m_Dirty = false;
};
#endif /* __cplusplus */

#endif /* EPHO_BLOCK_H */
