// Internals shared by the frame camera files: the MIF records of the
// library's designs, counted-field helpers, owners with toolkit deleters and
// the private part of a transform object.
#ifndef EPHO_CAMERA_CAMERA_INTERNAL_H
#define EPHO_CAMERA_CAMERA_INTERNAL_H

#include <boost/shared_ptr.hpp>
#include <memory>
#include <vector>

#include "epho/camera.h"
#include "epho/dtm.h"
#include "platform/eerr/error_frame.h"

namespace epho::camera {

inline constexpr char kSource[] = "epho_Camera";

// Memory records of the library's MIF designs.
struct EmifString {
  Emif_CountedString string;
};
struct EmifMIFObject {
  EmifString* type;  // design name
  Emif_CountedString MIFDictionary;
  Emif_CountedBytes MIFObject;
};
struct CameraModelX {
  Epho_Camera* cameraModel;  // only the first 18 fields are the design's
  EmifMIFObject* outputProjection;
  EmifString* outputHorizontalUnits;
  EmifMIFObject* outputElevationInfo;
};

// A datum in MIF form. The MIF form of projection parameters leaves the
// datum out; the camera record's field 18 carries it beside them.
struct DatumRecord {
  Emif_CountedString datumname;
  int32_t type;
  Emif_CountedDoubles params;
  Emif_CountedString gridname;
};
const Emif_Design* DatumDesign(Eerr_ErrorReport** err);

// The cached designs of the library-wide dictionary (borrowed; made on first
// use inside the thread-unsafe section).
const Emif_Design* EmifStringDesign(Eerr_ErrorReport** err);
const Emif_Design* EmifMIFObjectDesign(Eerr_ErrorReport** err);
const Emif_Design* EphoCameraDesign(Eerr_ErrorReport** err);
const Emif_Design* CameraModelXDesign(Eerr_ErrorReport** err);

// Counted strings and byte blocks: heap copies, exact comparisons, release.
bool CountedCopy(const Emif_CountedString& from, Emif_CountedString* to);
bool CountedCopy(const Emif_CountedBytes& from, Emif_CountedBytes* to);
bool CountedEqual(const Emif_CountedString& a, const Emif_CountedString& b);
bool CountedEqual(const Emif_CountedBytes& a, const Emif_CountedBytes& b);
void CountedFree(Emif_CountedString* s);
void CountedFree(Emif_CountedBytes* s);
void CountedFree(Epho_CountedDoubles* v);
// A counted string holding `text` (null: the empty field).
bool CountedSet(const Etxt_Char* text, Emif_CountedString* to);
inline const Etxt_Char* CountedText(const Emif_CountedString& s) {
  return s.count > 0 ? s.data : nullptr;
}

template <typename T, void (*Free)(T*)>
struct FnDeleter {
  void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, FnDeleter<T, Free>>;

inline void DeleteCameraXform(Epho_CameraXform* x) { epho_CameraXformDelete(x); }
using CameraPtr = Owned<Epho_Camera, epho_CameraDelete>;
using XformPtr = Owned<Epho_CameraXform, DeleteCameraXform>;
using MatrixPtr = Owned<Efga_Matrix, efga_MatrixFree>;
using PixelRectPtr = Owned<Eimg_PixelRect, eimg_PixelRectDelete>;
using ProjectionPtr = Owned<Eprj_MapProjection, eprj_ProjectionFree>;
using ParametersPtr = Owned<Eprj_ProParameters, eprj_ProParametersFree>;
using ElevationPtr = Owned<Eprj_ElevationInfo, eprj_ElevationInfoFree>;
using ExfrPtr = Owned<Exfr_XForm, exfr_XFormFree>;
inline void FreeDesign(Emif_Design* d) { emif_DesignDestroy(d); }
using DesignPtr = Owned<Emif_Design, FreeDesign>;

// A MIF record with its design, freed together.
class MifRecord {
 public:
  MifRecord() = default;
  MifRecord(const Emif_Design* design, void* object) : design_(design), object_(object) {}
  ~MifRecord() { Reset(); }
  MifRecord(const MifRecord&) = delete;
  MifRecord& operator=(const MifRecord&) = delete;
  void Reset() {
    if (object_) emif_ObjectFree(design_, object_, nullptr);
    object_ = nullptr;
  }
  void* Release() {
    void* o = object_;
    object_ = nullptr;
    return o;
  }
  void* get() const { return object_; }

 private:
  const Emif_Design* design_ = nullptr;
  void* object_ = nullptr;
};

// A DEM held by a prepared transform object: its cells in memory, so that the
// one-cell reads of the height iteration cost an array access. The grid is
// shared by every object that reads the same DEM file.
struct DemGrid {
  long width = 0;
  long height = 0;
  std::vector<double> cells;  // row-major, the values as a one-cell read gives them
  bool Cell(long x, long y, double* value) const {
    if (x < 0 || y < 0 || x >= width || y >= height) return false;
    *value = cells[size_t(y) * size_t(width) + size_t(x)];
    return true;
  }
};

}  // namespace epho::camera

struct Epho_CameraXformPrivate {
  boost::shared_ptr<EphoLib::DTMCache> demSlot;  // keeps the cached DEM alive
  std::shared_ptr<const epho::camera::DemGrid> grid;
  double mapToDem[6] = {0, 0, 0, 0, 0, 0};  // affine form of mapToDem when it is one
  bool mapToDemAffine = false;
};

namespace epho::camera {

// One DEM height at output-system map (x, y): map-to-file transform, the
// cell at the truncated file position, epho_CalcZ, or z_mean for a null cell.
// False with a report when the position maps off the DEM or the read fails.
bool DemHeightAt(const Epho_CameraXform* xform, Efga_Matrix* one, Eimg_PixelRect* cell,
                 double map_x, double map_y, double* z, Eerr_ErrorReport** err);

// The camera's orientation, correction and lens records as the batch
// collinearity ("epho/kernel/collinearity_batch.h") applies them: the photo
// direction names both the correction (2 to 4) and the height mode of the
// intersection (1). Every transform of the camera goes through it.
Epho_FilmProjection ProjectionOf(const Epho_CameraXform* xform);

// Ground (x, y, z) triples to image pairs of a Cartesian camera in one pass:
// input affine, collinearity with correction and distortion, output affine.
// The same arithmetic as the staged batch; `out_xy` may overlay `xyz` from
// its start (a block's pairs are written after its triples are read).
void ForwardCartesianTriples(const Epho_CameraXform* xform, long count, const double* xyz,
                             const double* in_affine, const double* out_affine, double* out_xy);

// The inverse batch transforms with the DEM iteration on or off, whatever the
// camera's `demsource` says (the exfr routines intersect at given heights).
Emsc_Boolean InvTransCartesianImpl(const Epho_CameraXform* xform, double* heights,
                                   const Efga_Matrix* in, Efga_Matrix* out, bool use_dem,
                                   Eerr_ErrorReport** err);
Emsc_Boolean InvTransTangentImpl(const Epho_CameraXform* xform, double* heights,
                                 const Efga_Matrix* in, Efga_Matrix* out, bool use_dem,
                                 Eerr_ErrorReport** err);

}  // namespace epho::camera

#endif  // EPHO_CAMERA_CAMERA_INTERNAL_H
