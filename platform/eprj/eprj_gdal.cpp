// Elevation info of a raster file opened with GDAL.
#include <gdal.h>
#include <ogr_spatialref.h>

#include <string>

#include "eprj.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

namespace {

// GDAL's unit names of heights, in the spellings of elevation info.
std::wstring UnitName(const char* gdal_unit) {
  const std::string u = gdal_unit ? gdal_unit : "";
  if (u.empty()) return L"meters";
  if (u == "m" || u == "metre" || u == "meter" || u == "metres" || u == "meters") return L"meters";
  if (u == "ft" || u == "foot" || u == "feet") return L"feet";
  if (u == "US survey foot" || u == "ftUS" || u == "us-ft") return L"us_survey_feet";
  return kzdv::FromUtf8(u);
}

}  // namespace

extern "C" Eprj_ElevationInfo* eprj_ElevationInfoRead(const Etxt_Char* fileName, long band,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"eprj_ElevationInfoRead";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!fileName || !*fileName, frame, nullptr, L"No file name");
  GDALAllRegister();
  const std::string name = kzdv::ToUtf8(fileName);
  GDALDatasetH ds =
      GDALOpenEx(name.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  EERR_FAIL_IF(!ds, frame, nullptr, L"Cannot open %s", fileName);
  struct Closer {
    GDALDatasetH ds;
    ~Closer() { GDALClose(ds); }
  } closer{ds};
  EERR_FAIL_IF(band < 1 || band > GDALGetRasterCount(ds), frame, nullptr, L"%s has no band %ld",
               fileName, band);
  const std::wstring unit =
      UnitName(GDALGetRasterUnitType(GDALGetRasterBand(ds, static_cast<int>(band))));
  std::wstring spheroid = L"Undefined", datum = L"Undefined";
  if (OGRSpatialReferenceH h = GDALGetSpatialRef(ds)) {
    const OGRSpatialReference* srs = OGRSpatialReference::FromHandle(h);
    if (const char* s = srs->GetAttrValue("SPHEROID")) spheroid = kzdv::FromUtf8(s);
    if (srs->IsCompound())
      if (const char* v = srs->GetAttrValue("VERT_DATUM")) datum = kzdv::FromUtf8(v);
  }
  Eprj_ElevationInfo* e = eprj_ElevationInfoCreateByName(spheroid.c_str(), datum.c_str(),
                                                         unit.c_str(), L"height", frame.Callee());
  EERR_CHECK(e, frame, nullptr, L"eprj_ElevationInfoCreateByName failed");
  return e;
}
EERR_BOUNDARY(err, nullptr)
