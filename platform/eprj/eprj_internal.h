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
};

// Table entries by name (case and the spelling variants listed in the
// sources ignored), or null.
const SpheroidDef* FindSpheroid(const Etxt_Char* name);
const DatumDef* FindDatum(const Etxt_Char* name);

// Heap copy of a wide text (null stays null); false on exhaustion.
bool DupText(const Etxt_Char* s, Etxt_Char** out);
std::string Narrow(const Etxt_Char* s);

// Describes the parameters as a GDAL spatial reference (map units metres).
// On failure returns false and a reason in `why`.
bool BuildSrs(const Eprj_ProParameters& p, OGRSpatialReference& srs, std::wstring& why);

}  // namespace eprj
}  // namespace kzdv

#endif  // EPRJ_INTERNAL_H
