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

/* Datum. params holds, for parametric datums, dx, dy, dz (metres), rx, ry,
 * rz (radians) and the scale difference (unitless), as HFA files store them. */
typedef struct Eprj_Datum {
  Etxt_Char* datumname;
  Eprj_DatumType type;
  Eprj_DoubleArray params;
  Etxt_Char* gridname; /* null unless type is EPRJ_DATUM_GRID */
} Eprj_Datum;

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
