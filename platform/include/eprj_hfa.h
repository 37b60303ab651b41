/* eprj in hierarchical files and MIF form: projection parameters, map info
 * and elevation info stored with the designs GDAL's HFA driver uses
 * ("Eprj_ProParameters" with "Eprj_Spheroid", "Eprj_Datum", "Eprj_MapInfo")
 * and the design "Eprj_ElevationInfo" (four strings: spheroidName, datumName,
 * elevationUnit, elevationType). Included by eprj.h. */
#ifndef EPRJ_HFA_H
#define EPRJ_HFA_H

#include "ehfa.h"
#include "emif.h"
#include "eprj.h"

KZDV_BEGIN_C

/* Parameters stored under node `path` (":" for a block file's root,
 * ":Layer_1" for a layer): the first child of type "Eprj_ProParameters"
 * (named "Projection" in layers) and its child of type "Eprj_Datum". Null
 * with a report ("No projection parameters under %s") when there is none. */
KZDV_EXPORT Eprj_ProParameters* eprj_ProParametersRead(Ehfa_File* file, const Etxt_Char* path,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Writes (replacing a node of that name) the parameters as node `name`
 * (null: "Eprj_ProParameters"; "Projection" for a layer) under `path`, with
 * the spheroid's datum as its child "Datum". A datum of type
 * EPRJ_DATUM_NONE is stored as parametric with zero shifts. */
KZDV_EXPORT Emsc_Boolean eprj_ProParametersWrite(Ehfa_File* file, const Etxt_Char* path,
                                                 const Etxt_Char* name,
                                                 const Eprj_ProParameters* parameters,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Map info: the child of type "Eprj_MapInfo" of `path` ("Map_Info" when
 * written). Free with eprj_MapInfoFree. */
KZDV_EXPORT Eprj_MapInfo* eprj_MapInfoRead(Ehfa_File* file, const Etxt_Char* path,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eprj_MapInfoWrite(Ehfa_File* file, const Etxt_Char* path,
                                           const Eprj_MapInfo* info,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eprj_MapInfoFree(Eprj_MapInfo* info) KZDV_NOEXCEPT;
/* The affine transform from map coordinates to file coordinates of a layer
 * with this map info. File coordinates count pixels from the upper-left
 * corner of the upper-left pixel (its centre is (0.5, 0.5)), so truncating
 * them gives the cell that holds the point. Fails on a zero or non-finite
 * pixel size. Free with exfr_XFormFree. */
KZDV_EXPORT struct Exfr_XForm* eprj_MapInfoToFileXForm(const Eprj_MapInfo* info,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* MIF form of a projection: a record of the "Eprj_ProParameters" design
 * (the datum is not part of it). With a dictionary, the design (and the
 * spheroid design) are added to it; with no projection nothing else is done.
 * Otherwise *design gets a design copy (emif_DesignDestroy) and *object a
 * record (emif_ObjectFree). */
KZDV_EXPORT Emsc_Boolean eprj_ProjectionConvertToMIFable(Emif_Dictionary* dictionary,
                                                         const Eprj_MapProjection* projection,
                                                         Emif_Design** design, void** object,
                                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The projection of a record of the "Eprj_ProParameters" design. */
KZDV_EXPORT Eprj_MapProjection* eprj_ProjectionConvertFromMIFable(
    const Emif_Design* design, const void* object, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eprj_ElevationInfoConvertToMIFable(const Eprj_ElevationInfo* info,
                                                            Emif_Design** design, void** object,
                                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Eprj_ElevationInfo* eprj_ElevationInfoConvertFromMIFable(
    const Emif_Design* design, const void* object, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Elevation info as node "Eprj_ElevationInfo" under `path`. */
KZDV_EXPORT Eprj_ElevationInfo* eprj_ElevationInfoHfaRead(Ehfa_File* file, const Etxt_Char* path,
                                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eprj_ElevationInfoHfaWrite(Ehfa_File* file, const Etxt_Char* path,
                                                    const Eprj_ElevationInfo* info,
                                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPRJ_HFA_H */
