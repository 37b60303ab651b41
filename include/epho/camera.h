/* Frame camera sensor model: the camera record, its batch transforms between
 * ground and film, and the transform object that prepares and runs them.
 *
 * Frames and units. Ground points are in the camera's output system: map
 * coordinates (metres, or radians for a geographic system) with heights in
 * metres. With the tangent-plane reference the photogrammetry is done in a
 * local east-north-up plane at (lat0, lon0) and ground points cross the
 * interface as map or geographic coordinates. Film coordinates are relative to
 * the principal point in the units of the focal length; image coordinates are
 * file pixels, reached from film through the camera's affines.
 *
 * Camera coefficients (`coeffs`): [0] focal length (film units); [1], [2]
 * reserved, 0 (the principal point and film-to-pixel scaling live in the
 * affines); [3..5] perspective centre X0, Y0, Z0 in the ground frame; [6..8]
 * the rotation angles in radians in `RotationSystem`. [5] doubles as the flying
 * height of the refraction / earth-curvature correction.
 *
 * Two affine layouts meet in this library; the camera record's are
 * x' = c0 x + c1 y + c2, y' = c3 x + c4 y + c5 (identity 1,0,0,0,1,0).
 *
 * Thread safety: a record or transform object has one owner at a time; a
 * filled transform object may run transforms from several threads at once
 * (its DEM reads are serialised by the layer). Filling is not thread-safe. */
#ifndef EPHO_CAMERA_H
#define EPHO_CAMERA_H

#include <stdint.h>

#include "efga.h"
#include "eimg.h"
#include "emif.h"
#include "epho/base.h"
#include "epho/collinearity.h"
#include "epho/geodesy.h"
#include "eprj.h"
#include "exfr.h"

/* `direction` */
#define EMOD_FORWARD 0 /* ground to image */
#define EMOD_INVERSE 1 /* image to ground */
/* `refType` */
#define EMOD_CARTESIAN 0
#define EMOD_TANGENT_PLANE 1
/* `demsource` */
#define EMOD_DEM_FILE 0
#define EMOD_DEM_CONSTANT 1
/* `PhotoDirection`: 0 Z_DIRECTION, 1 Y_DIRECTION; 2, 3, 4 also select the
 * refraction (2), earth-curvature (3) or both (4) image-coordinate correction
 * (epho_CameraAwayCorrection kinds) on a Z-direction photograph. */
#define EPHO_Z_DIRECTION 0
#define EPHO_Y_DIRECTION 1
/* `RotationSystem` */
#define EPHO_OMEGA_PHI_KAPPA 0
#define EPHO_PHIPLUS_OMEGA_KAPPA 1
#define EPHO_PHIMINUS_OMEGA_KAPPA 2

/* The frame camera record (toolkit heap). Fields 1 to 18 are the ones the
 * "Epho_Camera" design describes, in its memory layout; the output system
 * fields follow. Counted strings count the terminating zero. */
typedef struct Epho_Camera {
  int32_t direction;
  int32_t refType;
  int32_t demsource;
  int32_t PhotoDirection;
  int32_t RotationSystem;
  Emif_CountedString demfilename;
  Emif_CountedString demzunits;
  double forSrcAffine[6]; /* image-side inputs: file pixels to film */
  double forDstAffine[6]; /* ground-side inputs */
  double invSrcAffine[6]; /* image-side results: film to file pixels */
  double invDstAffine[6]; /* ground-side results */
  double z_mean;          /* constant ground height; mean DEM height once prepared */
  double lat0;            /* tangent-plane origin, radians */
  double lon0;
  double coeffs[9];
  Epho_CountedDoubles LensDistortion;
  Epho_CountedDoubles AdditionalParameters;
  Eprj_ProParameters* obsoletePlaceHolder0; /* output projection parameters, owned, or null */
  /* Output projection in MIF form: design name, dictionary text, object bytes. */
  Emif_CountedString outputProjectionDesign;
  Emif_CountedString outputProjectionDictionary;
  Emif_CountedBytes outputProjectionObject;
  Emif_CountedString outputHorizontalUnits;
  Emif_CountedString outputElevationInfoDesign;
  Emif_CountedString outputElevationInfoDictionary;
  Emif_CountedBytes outputElevationInfoObject;
} Epho_Camera;

/* Print callback of epho_CameraEncode: `format` is a toolkit format (%s is a
 * wide string) and its values follow; `context` is the address of the
 * encoder's own trailing arguments (a va_list*; va_copy it to read them).
 * Returns the characters written, negative on failure. */
typedef int (*Epho_CameraPrint)(void* context, const Etxt_Char* format, ...);

struct Epho_CameraXformPrivate;

/* The camera transform object. Everything after `camera` is made by the
 * preparation (epho_CameraXformFillNoMIFData) and owned by the object. */
typedef struct Epho_CameraXform {
  Epho_Camera* camera;            /* owned */
  Eprj_MapProjection* projection; /* output system, or null */
  double* tangentFrame;           /* 12 doubles (emod frame) for the tangent plane */
  Exfr_XForm* mapToDem;           /* output-system map to DEM file pixels */
  Eimg_Layer* demLayer;           /* open DEM layer */
  Epho_CountedDoubles demZCoeffs; /* epho_CalcZ conversion of raw DEM values */
  double orientation[12];         /* projection matrix of the collinearity kernel */
  EphoDatum* projectionDatum;     /* datum of the projection's spheroid */
  EphoDatum* elevationDatum;      /* datum of the heights (vertical datum) */
  int32_t filled;                 /* set once prepared */
  double demNullValue;
  struct Epho_CameraXformPrivate* priv; /* DEM cache slot and fast DEM reader */
} Epho_CameraXform;

KZDV_BEGIN_C

/* ---- the record --------------------------------------------------------- */

/* A camera with the defaults: forward, Cartesian, constant height 0, Z
 * direction, omega-phi-kappa, identity affines, coeffs (1, 0, ...). Null when
 * the heap is exhausted (no report). */
EPHO_EXPORT Epho_Camera* epho_CameraCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees the camera and everything it owns; null is ignored. */
EPHO_EXPORT void epho_CameraDelete(Epho_Camera* camera) KZDV_NOEXCEPT;
/* Deep copy; null with a report naming "epho_CameraCopy" on failure. */
EPHO_EXPORT Epho_Camera* epho_CameraCopy(const Epho_Camera* source,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* True when both describe the same sensor model, doubles within 1e-10. The
 * inverse affines are not compared (they follow from the forward ones); DEM
 * file names compare case-sensitively, DEM height units ignoring case. */
EPHO_EXPORT Emsc_Boolean epho_CamerasAreSame(const Epho_Camera* a,
                                             const Epho_Camera* b) KZDV_NOEXCEPT;
/* Writes the record as text through `print` (fields 1 to 18); returns the sum
 * of the callback's counts, or -1 at the first negative count. */
EPHO_EXPORT int epho_CameraEncode(const Epho_Camera* camera, Epho_CameraPrint print,
                                  ...) KZDV_NOEXCEPT;
/* Stores the output system: projection (may be null), horizontal unit name and
 * elevation info (required). All or nothing: on failure the camera is as it
 * was. */
EPHO_EXPORT Emsc_Boolean epho_CameraCoordinateSystemSet(Epho_Camera* camera,
                                                        const Eprj_MapProjection* projection,
                                                        const Etxt_Char* horizontalUnits,
                                                        const Eprj_ElevationInfo* elevationInfo,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The output system as new objects the caller frees (eprj_ProjectionFree,
 * emsc_HeapFree, eprj_ElevationInfoFree); *projection is null when the camera
 * has none. Horizontal units default to "radians" for geographic parameters,
 * else "meters"; the elevation info to "Undefined" metres. Nothing is handed
 * out on failure. */
EPHO_EXPORT Emsc_Boolean epho_CameraCoordinateSystemGet(const Epho_Camera* camera,
                                                        Eprj_MapProjection** projection,
                                                        Etxt_Char** horizontalUnits,
                                                        Eprj_ElevationInfo** elevationInfo,
                                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Defines the older "Camera_Model" design (projection as "refParms") in the
 * caller's dictionary; returns a design the caller owns (emif_DesignDestroy),
 * or null after printing and dropping the report (`err` stays null). */
EPHO_EXPORT Emif_Design* epho_CameraDesignDefine(Emif_Dictionary* dictionary,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The library's "Camera_ModelX" design (borrowed; lives as long as the
 * process), made on first use. */
EPHO_EXPORT const Emif_Design* epho_CameraModelXDesignGet(Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- batch transforms -----------------------------------------------------
 * Points are the data of `in` as consecutive (x, y) pairs (a 2 x n toolkit
 * matrix); n = elements / 2, `heights` holds n heights. `out` has the same
 * size and may be `in`. The object must be prepared; the tangent-plane forms
 * need the camera's projection parameters (ground points are longitude,
 * latitude in radians). Forward: film coordinates out. Inverse: ground out,
 * iterated against the DEM (at most ten reads) when `demsource` is the file. */
EPHO_EXPORT Emsc_Boolean epho_CameraForTransCartesian(const Epho_CameraXform* xform,
                                                      double* heights, const Efga_Matrix* in,
                                                      Efga_Matrix* out,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Also writes the datum-shifted height Z - s back into `heights`. */
EPHO_EXPORT Emsc_Boolean epho_CameraForTransTangent(const Epho_CameraXform* xform, double* heights,
                                                    const Efga_Matrix* in, Efga_Matrix* out,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_CameraInvTransCartesian(const Epho_CameraXform* xform,
                                                      double* heights, const Efga_Matrix* in,
                                                      Efga_Matrix* out,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
EPHO_EXPORT Emsc_Boolean epho_CameraInvTransTangent(const Epho_CameraXform* xform, double* heights,
                                                    const Efga_Matrix* in, Efga_Matrix* out,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A raw DEM value at file (x, y) as a height: n 0 the value, 1 c0 v, 2
 * c0 v + c1, 3 or more c0 v + c1 + c2 x + c3 y. */
EPHO_EXPORT double epho_CalcZ(double fileX, double fileY, double value, int32_t n,
                              const double* c) KZDV_NOEXCEPT;

/* ---- transform objects ---------------------------------------------------- */

/* An empty object (every field zero). */
EPHO_EXPORT Epho_CameraXform* epho_CameraXformCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* An object around `camera`, which it owns from then on (also on failure). */
EPHO_EXPORT Epho_CameraXform* epho_CameraXformGetFromCameraData(
    Epho_Camera* camera, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees the object and all it owns; null is ignored. */
EPHO_EXPORT void epho_CameraXformDelete(Epho_CameraXform* xform) KZDV_NOEXCEPT;
/* A new, unprepared object with a deep copy of the camera. */
EPHO_EXPORT Epho_CameraXform* epho_CameraXformCopy(const Epho_CameraXform* xform,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Prepares the object: projection, tangent frame, DEM (through the DEM cache
 * when the "rasterprocess" preference "use_dem_layer_cache" is set, else the
 * layer "Layer_1" of `demfilename`), map-to-DEM transform, z_mean from the DEM
 * statistics, datums, orientation matrix. DEMs of up to 32 Mi cells are read
 * into memory once and shared by every prepared object on the same DEM name,
 * so the height iteration reads cells without I/O (a DEM rewritten on disk is
 * seen by objects prepared after the last holder is deleted). Refuses a zero
 * focal length and singular affines. Does nothing once filled; a failure
 * leaves it unfilled. */
EPHO_EXPORT Emsc_Boolean epho_CameraXformFillNoMIFData(Epho_CameraXform* xform,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* `count` points (x, y pairs) one way by the camera's `direction`, with heights
 * from the DEM or z_mean. Null `outPoints`: results overwrite `inPoints`. */
EPHO_EXPORT Emsc_Boolean epho_CameraXformTransform(Epho_CameraXform* xform, long count,
                                                   double* inPoints, double* outPoints,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* `count` (x, y, z) triples to (x, y) pairs with each point's own height.
 * Null `out`: the pairs are packed into the start of `points`. Switches the
 * object's DEM off for the call, so it must not run concurrently with other
 * calls on the same object (the exfr routines are the thread-safe form). */
EPHO_EXPORT Emsc_Boolean epho_CameraXformTransform3DTo2D(Epho_CameraXform* xform, long count,
                                                         double* points, double* out,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Intersects `count` pairs of image points (x, y pairs in each camera's file
 * pixels) into ground points (x, y, z triples in `out`). Both cameras need the
 * same reference type and projection. */
EPHO_EXPORT Emsc_Boolean epho_CameraXformTransform2DPairTo3D(Epho_CameraXform* left,
                                                             Epho_CameraXform* right, long count,
                                                             const double* leftPoints,
                                                             const double* rightPoints, double* out,
                                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* "Camera_ModelX" form: *design a design copy (emif_DesignDestroy), *object a
 * record of it (emif_ObjectFree). */
EPHO_EXPORT Emsc_Boolean epho_CameraXformConvertToMIFable(const Epho_CameraXform* xform,
                                                          Emif_Design** design, void** object,
                                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A new, unprepared object from a "Camera_ModelX" record, or from the older
 * "Camera_Model" record with its projection as "refParms". */
EPHO_EXPORT Epho_CameraXform* epho_CameraXformConvertFromMIFable(
    const Emif_Design* design, const void* object, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* The transform object as an exfr sensor-model transform, so that
 * exfr_GroundToImage (ground x, y, z to file pixels), exfr_ImageToGroundRay
 * (a ground point on the ray and its direction; Cartesian reference only) and
 * exfr_ImageAndGroundZToGroundXY work on it; exfr_Transform runs the camera's
 * `direction` at its own heights. The transform owns a prepared deep copy of
 * the object. */
EPHO_EXPORT Exfr_XForm* epho_CameraXformToExfr(const Epho_CameraXform* xform,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The routine table of that registration (for exfr_XFormSensorModelGet, which
 * then hands out the Epho_CameraXform*). */
EPHO_EXPORT const Exfr_SensorModelOps* epho_CameraXformSensorOps(void) KZDV_NOEXCEPT;

/* ---- members built on the transform object -------------------------------- */

/* Intersection of two image rays: from each projection matrix and its film
 * point the two equations (row1 - x row0).(1,X,Y,Z) = 0 and
 * (row2 - y row0).(1,X,Y,Z) = 0, solved for `ground` (3 doubles) by least
 * squares through the 3x3 normal equations. Numeric kernel: nonzero (ground
 * untouched) when the normal matrix is singular to rounding (determinant at
 * most 1e-13 of its diagonal product: parallel rays) or the result is not
 * finite. */
EPHO_EXPORT Emsc_Boolean epho_ImageToObject(const double* matrixA, const double* matrixB, double xA,
                                            double yA, double xB, double yB,
                                            double* ground) KZDV_NOEXCEPT;
/* Transform from map coordinates of `projection` (the camera's output system;
 * null: the DEM's own system) to file pixels of a DEM whose map-to-file
 * transform and projection are given (file coordinates: (0, 0) the upper-left
 * corner of the upper-left cell, so truncation gives the cell). When the two
 * systems differ, points are first reprojected through PROJ (geographic
 * coordinates on each projection's own datum); a DEM without projection is
 * taken to be in the camera's system. */
EPHO_EXPORT Exfr_XForm* epho_DeriveMapToLayerXformEx(const Eprj_MapProjection* projection,
                                                     const Exfr_XForm* demMapToFile,
                                                     const Eprj_ProParameters* demProjection,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Image coordinates (file pixels) of a grid of map positions: grid cell (c, r)
 * is at map (x0 + c dx, y0 + r dy) with height heights[r * width + c] (null
 * heights: the object's height source, the DEM or z_mean). Writes (x, y) pairs
 * row by row into `imageXY` (2 * width * height doubles), -999.0 for both
 * where the position does not project. Forward cameras are approximated by 2D
 * projective transforms fitted (epho_DeriveDLT2D) to 40 rigorous samples of
 * each tile. A fit is accepted when it reproduces 95 held-out rigorous cells
 * (halfway between the samples, edges included) within half of `tolerance`
 * pixels (<= 0 means 0.05); otherwise, or when a sample does not project, the
 * tile is split in four. Tiles of 64 cells or fewer are computed cell by
 * cell. Inverse cameras are computed point by point. Measured against the
 * rigorous transform on every cell of smooth terrain, the grid holds the
 * tolerance. */
EPHO_EXPORT Emsc_Boolean epho_GetImageCoordCameraApx(Epho_CameraXform* xform, double x0, double y0,
                                                     double dx, double dy, long width, long height,
                                                     const double* heights, double tolerance,
                                                     double* imageXY,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Epipolar line in `right` of file pixel (x, y) of `left`: the ray of the left
 * point is cut at `count` (>= 2) heights evenly spread from zmin to zmax and
 * each ground point projected into the right image; `rightXY` gets `count`
 * (x, y) pairs, -999.0 where a point does not project. With zmin >= zmax the
 * range is the left DEM's minimum to maximum (its statistics), or z_mean
 * +-100 m without a DEM. Forward (ground-to-image) cameras. */
EPHO_EXPORT Emsc_Boolean epho_AutoEpipoLine(Epho_CameraXform* left, Epho_CameraXform* right,
                                            double x, double y, double zmin, double zmax,
                                            int32_t count, double* rightXY,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_CAMERA_H */
