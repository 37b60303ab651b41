/* eprj: map projections, spheroids, datums, map information and elevation
 * information of the toolkit, computed through PROJ.
 *
 * Records are plain C structs on the toolkit heap (texts are wide strings).
 * Projection parameters follow the GCTP convention that HFA files use:
 * angles in radians, proParams[2] scale factor or first standard parallel,
 * [3] second standard parallel (UTM: hemisphere, >= 0 north), [4] central
 * meridian, [5] latitude of origin, [6] false easting, [7] false northing
 * (metres). A projection object converts map coordinates (metres; for the
 * geographic projection, radians) to geographic longitude/latitude in radians
 * on the projection's own datum ("toLL") and back ("fromLL"). */
#ifndef EPRJ_H
#define EPRJ_H

#include "eerr.h"
#include "efga.h"
#include "emsc.h"
#include "etxt.h"
#include "kzdv_export.h"

/* ---- Projection numbers of internal projections (proType EPRJ_INTERNAL). */
#define EPRJ_LATLONG 0
#define EPRJ_UTM 1
#define EPRJ_STATE_PLANE 2
#define EPRJ_ALBERS_CONIC_EQUAL_AREA 3
#define EPRJ_LAMBERT_CONFORMAL_CONIC 4
#define EPRJ_MERCATOR 5
#define EPRJ_POLAR_STEREOGRAPHIC 6
#define EPRJ_POLYCONIC 7
#define EPRJ_EQUIDISTANT_CONIC 8
#define EPRJ_TRANSVERSE_MERCATOR 9
#define EPRJ_STEREOGRAPHIC 10
#define EPRJ_LAMBERT_AZIMUTHAL_EQUAL_AREA 11
#define EPRJ_AZIMUTHAL_EQUIDISTANT 12
#define EPRJ_GNOMONIC 13
#define EPRJ_ORTHOGRAPHIC 14
#define EPRJ_SINUSOIDAL 16
#define EPRJ_EQUIRECTANGULAR 17
#define EPRJ_MILLER_CYLINDRICAL 18
#define EPRJ_GAUSS_KRUGER 36
#define EPRJ_CASSINI 51
#define EPRJ_STEREOGRAPHIC_EXTENDED 50
#define EPRJ_DOUBLE_STEREOGRAPHIC 55 /* oblique stereographic of the EPSG guidance */
#define EPRJ_LAMBERT_CONFORMAL_CONIC_1SP 67
#define EPRJ_PSEUDO_MERCATOR 68 /* spherical Mercator of web maps on the semi-major axis */
#define EPRJ_MERCATOR_VARIANT_A 69

/* Number of GCTP parameters carried by every projection. */
#define EPRJ_PARAMETER_COUNT 15

typedef enum { EPRJ_INTERNAL = 0, EPRJ_EXTERNAL = 1 } Eprj_ProType;

typedef enum {
  EPRJ_DATUM_PARAMETRIC = 0, /* seven parameters to WGS 84 */
  EPRJ_DATUM_GRID = 1,       /* grid file named by gridname */
  EPRJ_DATUM_REGRESSION = 2,
  EPRJ_DATUM_NONE = 3
} Eprj_DatumType;

/* A counted array of doubles: a 32-bit count then a heap block. */
typedef struct Eprj_DoubleArray {
  int count;
  double* data;
} Eprj_DoubleArray;

/* Datum. params holds, for parametric datums, the shift from the datum to
 * WGS 84 as HFA files store it: dx, dy, dz (metres), rx, ry, rz (radians, in
 * the coordinate-frame rotation convention) and the scale difference
 * (unitless). Read and set it in surveyors' units with eprj_DatumShiftGet /
 * eprj_DatumShiftSet. gridname may list several grids separated by commas
 * (PROJ's convention; a leading '@' marks a grid as optional). */
typedef struct Eprj_Datum {
  Etxt_Char* datumname;
  Eprj_DatumType type;
  Eprj_DoubleArray params;
  Etxt_Char* gridname; /* null unless type is EPRJ_DATUM_GRID */
} Eprj_Datum;

/* How a datum reaches WGS 84 (see eprj_DatumShiftGet). */
typedef enum {
  EPRJ_SHIFT_NONE = 0,        /* coincides with WGS 84: zero geocentric shift */
  EPRJ_SHIFT_3_PARAMETER = 1, /* geocentric translation dx, dy, dz */
  EPRJ_SHIFT_7_PARAMETER = 2, /* translation, rotations and scale (Helmert) */
  EPRJ_SHIFT_GRID = 3,        /* horizontal offset grid(s) in `grids` */
  EPRJ_SHIFT_REGRESSION = 4,  /* polynomial regression: refused (see below) */
  EPRJ_SHIFT_UNKNOWN = 5      /* no shift known: the datum cannot be left */
} Eprj_DatumShiftKind;

/* Sign convention of the three small rotations of a 7-parameter shift.
 * Position vector (EPSG method 1033, PROJ's +convention=position_vector,
 * the order of +towgs84): X_wgs84 = T + (1 + s) R X with R = [[1, -rz, ry],
 * [rz, 1, -rx], [-ry, rx, 1]]. Coordinate frame (EPSG method 1032) uses the
 * same formula with the three rotations negated. */
typedef enum {
  EPRJ_ROTATION_POSITION_VECTOR = 0,
  EPRJ_ROTATION_COORDINATE_FRAME = 1
} Eprj_RotationConvention;

/* The shift of a datum TO WGS 84 in surveyors' units: translations in
 * metres, rotations in arc-seconds in `convention`, scale in parts per
 * million. `grids` (kind EPRJ_SHIFT_GRID) names the offset grids that take
 * geographic coordinates of the datum to WGS 84 (or a frame that coincides
 * with it at the metre level, such as NAD83 or ETRS89). */
typedef struct Eprj_DatumShift {
  Eprj_DatumShiftKind kind;
  double dx, dy, dz;
  double rx, ry, rz;
  double scale;
  Eprj_RotationConvention convention;
  const Etxt_Char* grids; /* borrowed: from the datum on Get, copied on Set */
} Eprj_DatumShift;

/* 3D reprojection and datum shifts: opaque objects built once over a PROJ
 * pipeline (see eprj_3DProjectionCreate). */
typedef struct Eprj_3DProjection Eprj_3DProjection;
typedef struct Eprj_3DDatumShift Eprj_3DDatumShift;

/* The coordinates a 3D datum shift works on. Geographic: longitude, latitude
 * in radians (as eprj_ProjectionToLL gives them), ellipsoidal height in
 * metres. Geocentric: Earth-centred, Earth-fixed X, Y, Z in metres. */
typedef enum { EPRJ_3D_GEOGRAPHIC = 0, EPRJ_3D_GEOCENTRIC = 1 } Eprj_3DCoordinates;

/* Spheroid: semi-axes in metres, eSquared = (a² - b²) / a², radius of the
 * sphere used by spherical projections. `datum` is not part of the stored
 * spheroid: HFA files keep the datum as the child node "Datum" of the
 * projection parameters; in memory it hangs here (owned, may be null). */
typedef struct Eprj_Spheroid {
  Etxt_Char* sphereName;
  double a;
  double b;
  double eSquared;
  double radius;
  Eprj_Datum* datum;
} Eprj_Spheroid;

/* Projection parameters. For EPRJ_STATE_PLANE, proZone is the USGS (FIPS)
 * zone code; the spheroid decides NAD83 (GRS 1980) or NAD27 (Clarke 1866). */
typedef struct Eprj_ProParameters {
  Eprj_ProType proType;
  long proNumber;             /* internal projection number (EPRJ_*) */
  Etxt_Char* proExeName;      /* external projections only, else null */
  Etxt_Char* proName;         /* e.g. "UTM", "Transverse Mercator" */
  long proZone;               /* UTM and state plane zone, else 0 */
  Eprj_DoubleArray proParams; /* EPRJ_PARAMETER_COUNT GCTP parameters */
  Eprj_Spheroid* proSpheroid; /* owned; null for no spheroid */
} Eprj_ProParameters;

typedef struct Eprj_Coordinate {
  double x;
  double y;
} Eprj_Coordinate;

typedef struct Eprj_Size {
  double width;
  double height;
} Eprj_Size;

/* Map information of a raster layer: map coordinates of the centres of the
 * upper-left and lower-right pixels, the pixel size (both positive) and the
 * unit name of the map coordinates ("meters", "feet", "degrees" ...). */
typedef struct Eprj_MapInfo {
  Etxt_Char* proName;
  Eprj_Coordinate upperLeftCenter;
  Eprj_Coordinate lowerRightCenter;
  Eprj_Size pixelSize;
  Etxt_Char* units;
} Eprj_MapInfo;

/* Elevation information of heights: the spheroid and datum they refer to
 * (datum "Undefined" when unknown; a vertical datum such as "EGM96" means
 * heights above that geoid), their unit name ("meter", "feet" ...) and their
 * kind ("height", "depth", "unknown"). */
typedef struct Eprj_ElevationInfo {
  Etxt_Char* spheroidName;
  Etxt_Char* datumName;
  Etxt_Char* elevationUnit;
  Etxt_Char* elevationType;
} Eprj_ElevationInfo;

typedef struct Eprj_MapProjection Eprj_MapProjection;

/* Conversion routines of a projection: convert a 2 x n point matrix in place
 * (map <-> longitude/latitude in radians). A point outside the projection's
 * domain fails the call with a report naming the point; the matrix is then
 * left unchanged. */
typedef Emsc_Boolean (*Eprj_ConvertPoints)(const Eprj_MapProjection* projection,
                                           Efga_Matrix* points, Eerr_ErrorReport** err);

/* A map projection ready to convert points. toLL and fromLL are null when the
 * projection cannot convert in that direction. Concurrent conversions on one
 * object are safe (they take turns on its PROJ object). Each conversion is
 * checked by a round trip, so points PROJ maps to something that does not
 * come back are reported instead of returned. Free with eprj_ProjectionFree. */
struct Eprj_MapProjection {
  Eprj_ProParameters* proParameters; /* owned */
  Eprj_ConvertPoints toLL;
  Eprj_ConvertPoints fromLL;
  void* impl; /* PROJ definitions; internal */
};

KZDV_BEGIN_C

/* ---- Records. All creators return null with a report on failure. */

/* A spheroid by name ("WGS 84", "GRS 1980", "Clarke 1866", "International
 * 1909", "Bessel", "Airy", ...; case ignored). Unknown names fail. */
KZDV_EXPORT Eprj_Spheroid* eprj_SpheroidCreateByName(const Etxt_Char* name,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_Spheroid* eprj_SpheroidCopy(const Eprj_Spheroid* spheroid,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eprj_SpheroidFree(Eprj_Spheroid* spheroid) KZDV_NOEXCEPT;
/* A datum by name ("WGS 84", "NAD83", "NAD27", "ED50", ...). Unknown names
 * give a datum of type EPRJ_DATUM_NONE with that name. */
KZDV_EXPORT Eprj_Datum* eprj_DatumCreateByName(const Etxt_Char* name,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_Datum* eprj_DatumCopy(const Eprj_Datum* datum,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eprj_DatumFree(Eprj_Datum* datum) KZDV_NOEXCEPT;
/* The datum's shift to WGS 84, rotations given in `convention`. Datum types
 * map to kinds: parametric -> none, 3- or 7-parameter (3 when rotations and
 * scale are zero); grid -> grid; regression -> grid when it names a grid,
 * else regression; none -> unknown. A parametric record whose parameters
 * are all zero but whose name the datum table knows with a shift (files
 * written before records carried shifts) gives the table's shift. */
KZDV_EXPORT Emsc_Boolean eprj_DatumShiftGet(const Eprj_Datum* datum,
                                            Eprj_RotationConvention convention,
                                            Eprj_DatumShift* shift,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Stores a shift in the record (type, params and gridname replaced). Fails,
 * leaving the record unchanged, on non-finite parameters, an unknown kind or
 * convention, and a grid kind without grid names. */
KZDV_EXPORT Emsc_Boolean eprj_DatumShiftSet(Eprj_Datum* datum, const Eprj_DatumShift* shift,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Projection parameters from their parts (params: EPRJ_PARAMETER_COUNT
 * values or null for zeros; spheroid and datum by name, datum may be null). */
KZDV_EXPORT Eprj_ProParameters* eprj_ProParametersCreate(long proNumber, const Etxt_Char* proName,
                                                         long proZone, const double* params,
                                                         const Etxt_Char* spheroidName,
                                                         const Etxt_Char* datumName,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_ProParameters* eprj_ProParametersCopy(const Eprj_ProParameters* source,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void eprj_ProParametersFree(Eprj_ProParameters* parameters) KZDV_NOEXCEPT;
/* True when both describe the same projection: type, number, zone, names of
 * the executable (case ignored), parameters within 1e-10, spheroid axes
 * within 1e-6 m and datum names (case ignored). Two nulls are equal. */
KZDV_EXPORT Emsc_Boolean eprj_ProParametersEqual(const Eprj_ProParameters* a,
                                                 const Eprj_ProParameters* b,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- Projection objects. */

/* Builds a projection from parameters (copied). Fails on unknown projection
 * numbers, external projections, a missing spheroid, and absurd parameters
 * (non-finite values, latitudes beyond ±90°, UTM zone outside 1..60 ...). */
KZDV_EXPORT Eprj_MapProjection* eprj_ProjectionInit(const Eprj_ProParameters* parameters,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Same as eprj_ProjectionInit (the name used where a map projection of an
 * output system is rebuilt). */
KZDV_EXPORT Eprj_MapProjection* eprj_MapProjectionInit(const Eprj_ProParameters* parameters,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void eprj_ProjectionFree(Eprj_MapProjection* projection) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_MapProjection* eprj_ProjectionCopy(const Eprj_MapProjection* projection,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The parameters of a projection (borrowed: owned by the projection). */
KZDV_EXPORT const Eprj_ProParameters* eprj_MapProjectionCSRGet(
    const Eprj_MapProjection* projection, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Convenience forms of toLL / fromLL on separate coordinate arrays (in place,
 * `count` points). Fail with a report when the projection lacks the routine
 * or a point is outside its domain; nothing is written then. */
KZDV_EXPORT Emsc_Boolean eprj_ProjectionToLL(const Eprj_MapProjection* projection, long count,
                                             double* x, double* y,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eprj_ProjectionFromLL(const Eprj_MapProjection* projection, long count,
                                               double* x, double* y,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- 3D reprojection and datum shifts.
 *
 * Points pass from the source system to WGS 84 and on to the target system
 * in one PROJ pipeline: the source datum's shift (eprj_DatumShiftGet), then
 * the inverse of the target's. Two systems on the same datum (same name,
 * spheroid and shift) skip the datum steps. Geoid (orthometric) heights are
 * turned into ellipsoidal heights on WGS 84, the geoid model's own frame,
 * while the horizontal position is shifted with its height held, as PROJ
 * does for compound systems. The library downloads nothing: a grid that is
 * not installed fails the creation with a report naming it.
 *
 * Thread safety: each object owns its PROJ context; concurrent calls on one
 * object are safe (they take turns), separate objects run in parallel. */

/* Builds the reprojection from map coordinates of `source` to those of
 * `target` (parameters with their spheroid's datum; copied). Map
 * coordinates are metres, or longitude/latitude in radians for the
 * geographic projection (number 0), x east and y north. Heights follow the
 * elevation infos: null, or a datum that is not vertical, means ellipsoidal
 * heights on the projection's datum; "EGM96" (grid us_nga_egm96_15.tif) or
 * "EGM2008" (us_nga_egm08_25.tif) means heights above that geoid. The unit
 * of heights is the info's elevationUnit (meters, feet, US survey feet).
 * Fails on missing parameters or spheroids, a datum with no known shift when
 * one is needed ("unknown datum"), regression shifts, other vertical datums,
 * and missing grids (the report names the grid). A regression record keeps
 * bare coefficients in `params`, without the polynomial's order, its term
 * layout, the normalisation of its inputs or the frames it maps between, so
 * no shift can be evaluated from it exactly; rather than guess at a layout,
 * such datums are refused (a regression record that names a grid runs as
 * that grid). */
KZDV_EXPORT Eprj_3DProjection* eprj_3DProjectionCreate(const Eprj_ProParameters* source,
                                                       const Eprj_ElevationInfo* sourceHeights,
                                                       const Eprj_ProParameters* target,
                                                       const Eprj_ElevationInfo* targetHeights,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Reprojects `count` points in place. Fails with a report naming the first
 * point that is not finite, lies outside a projection's domain or a grid's
 * extent, or does not come back through the inverse within 1 cm; nothing is
 * written then. */
KZDV_EXPORT Emsc_Boolean eprj_3DProject(const Eprj_3DProjection* projection, long count, double* x,
                                        double* y, double* z, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The same, from target to source. */
KZDV_EXPORT Emsc_Boolean eprj_3DProjectInverse(const Eprj_3DProjection* projection, long count,
                                               double* x, double* y, double* z,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The PROJ pipeline the object runs (borrowed UTF-8 text), for reports. */
KZDV_EXPORT const char* eprj_3DProjectionDefinitionGet(const Eprj_3DProjection* projection)
    KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void eprj_3DProjectionFree(Eprj_3DProjection* projection) KZDV_NOEXCEPT;

/* Builds the datum-to-datum shift between the datums of two spheroids
 * (each with its `datum`; the spheroid's axes are the datum's ellipsoid) on
 * geographic or geocentric coordinates. Fails as eprj_3DProjectionCreate. */
KZDV_EXPORT Eprj_3DDatumShift* eprj_3DDatumShiftCreate(const Eprj_Spheroid* source,
                                                       const Eprj_Spheroid* target,
                                                       Eprj_3DCoordinates coordinates,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Shifts `count` points in place (x, y, z: longitude, latitude, height or
 * X, Y, Z). Fails as eprj_3DProject, writing nothing. */
KZDV_EXPORT Emsc_Boolean eprj_3DDatumShift(const Eprj_3DDatumShift* shift, long count, double* x,
                                           double* y, double* z,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT const char* eprj_3DDatumShiftDefinitionGet(const Eprj_3DDatumShift* shift)
    KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void eprj_3DDatumShiftFree(Eprj_3DDatumShift* shift) KZDV_NOEXCEPT;

/* ---- WKT / EPSG. */

/* Parameters from a WKT, PROJ string or "EPSG:n" text (as GDAL gives a
 * GeoTIFF's projection). Projections that have no internal number fail. */
KZDV_EXPORT Eprj_ProParameters* eprj_ProParametersFromWkt(const char* wkt,
                                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* WKT (WKT1 as GDAL writes it) of the parameters; heap UTF-8 text, free with
 * emsc_HeapFree. */
KZDV_EXPORT char* eprj_ProParametersToWkt(const Eprj_ProParameters* parameters,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- Elevation info. */

/* An elevation info from its four texts; any null text becomes "Undefined"
 * (units: "meters", type: "unknown"). */
KZDV_EXPORT Eprj_ElevationInfo* eprj_ElevationInfoCreateByName(
    const Etxt_Char* spheroidName, const Etxt_Char* datumName, const Etxt_Char* elevationUnit,
    const Etxt_Char* elevationType, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_ElevationInfo* eprj_ElevationInfoCopy(const Eprj_ElevationInfo* info,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Replaces the unit name (must be a known linear unit). */
KZDV_EXPORT Emsc_Boolean eprj_ElevationInfoUnitSet(Eprj_ElevationInfo* info, const Etxt_Char* unit,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
KZDV_EXPORT void eprj_ElevationInfoFree(Eprj_ElevationInfo* info) KZDV_NOEXCEPT;
/* Elevation info of band `band` (from 1) of a raster file opened with GDAL:
 * units from the band's unit type, datum from the vertical part of the
 * file's coordinate system ("Undefined" when there is none), spheroid from
 * its horizontal part. */
KZDV_EXPORT Eprj_ElevationInfo* eprj_ElevationInfoRead(const Etxt_Char* fileName, long band,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* True when `datumName` names a vertical (geoid) datum, e.g. "EGM96",
 * "EGM2008", "NAVD88", "NGVD29"; false for ellipsoidal datums, "Undefined"
 * and null. */
KZDV_EXPORT Emsc_Boolean eprj_IsDatumVertical(const Etxt_Char* datumName) KZDV_NOEXCEPT;

KZDV_END_C

/* Storage in hierarchical files and MIF form. */
#include "eprj_hfa.h"

#endif /* EPRJ_H */
