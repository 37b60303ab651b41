// Internals shared by the projection sources: wide/narrow texts, the tables
// of spheroids and datums, and the translation of projection parameters to
// GDAL's spatial reference.
#ifndef EPRJ_INTERNAL_H
#define EPRJ_INTERNAL_H

#include <ogr_spatialref.h>

#include <string>

#include "eprj.h"

namespace kzdv {
namespace eprj {

struct SpheroidDef {
  const wchar_t* name;
  double a;
  double inv_flattening;  // 0 for a sphere
};

struct DatumDef {
  const wchar_t* name;
  const wchar_t* spheroid;
  int epsg_geographic;  // EPSG code of its geographic CRS, 0 when none
  Eprj_DatumType type;
  const wchar_t* grid;  // grid name for EPRJ_DATUM_GRID
  // Shift to WGS 84 of EPRJ_DATUM_PARAMETRIC: dx, dy, dz (metres), rx, ry, rz
  // (arc-seconds, position vector) and scale (ppm), from the EPSG
  // transformation named in the table.
  double shift[7];
};

// Table entries by name (case and the spelling variants listed in the
// sources ignored), or null.
const SpheroidDef* FindSpheroid(const Etxt_Char* name);
const DatumDef* FindDatum(const Etxt_Char* name);

// The stored form of a shift (HFA files' params: radians in the coordinate
// frame convention, unitless scale) from dx, dy, dz, rx, ry, rz, scale in
// metres, position-vector arc-seconds and ppm, and back.
void ShiftToStored(const double surveyed[7], double stored[7]);
void ShiftFromStored(const double stored[7], double surveyed[7]);

// PROJ string of the projection alone (our spheroid, metres); empty for the
// geographic "projection". False with a reason when there is none.
bool ProjDefinition(const Eprj_ProParameters& p, std::string& def, std::wstring& why);

// Heap copy of a wide text (null stays null); false on exhaustion.
bool DupText(const Etxt_Char* s, Etxt_Char** out);
std::string Narrow(const Etxt_Char* s);

// Describes the parameters as a GDAL spatial reference (map units metres).
// On failure returns false and a reason in `why`.
bool BuildSrs(const Eprj_ProParameters& p, OGRSpatialReference& srs, std::wstring& why);

}  // namespace eprj
}  // namespace kzdv

#endif  // EPRJ_INTERNAL_H
