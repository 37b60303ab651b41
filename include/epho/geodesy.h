/* Datums and height shifts between them.
 *
 * The datum manager hands out datum objects by name (GetDatum): horizontal
 * datums ("WGS 84", "NAD83", ...; heights above their ellipsoid) and
 * vertical datums ("EGM96", "EGM2008", "NAVD88", ...; heights above a geoid).
 * epho_CalculateZShift gives the height shift between two datums at a
 * geographic position through PROJ, using the geoid grid of a vertical datum
 * when one is installed. Datum objects are immutable after creation except
 * for an internal PROJ cache guarded by a lock, so threads may share them. */
#ifndef EPHO_GEODESY_H
#define EPHO_GEODESY_H

#include "epho/base.h"

typedef struct EphoDatum EphoDatum;

KZDV_BEGIN_C

/* A datum object by name (case ignored); unknown names give a datum of
 * unknown kind (its shifts are 0). Null only on a null name or exhaustion.
 * Free with epho_DatumDelete. */
EPHO_EXPORT EphoDatum* epho_DatumGet(const Etxt_Char* name, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Null is ignored. */
EPHO_EXPORT void epho_DatumDelete(EphoDatum* datum) KZDV_NOEXCEPT;

/* Height shift s, in metres, at (longitude, latitude) in radians, such that a
 * height Z above datumB is Z - s above datumA: for datumA an ellipsoidal
 * datum and datumB a geoid, s = -N (N the geoid undulation). A null or
 * unknown datum counts as ellipsoidal. The shift is 0 when neither datum is
 * vertical (differences between ellipsoidal datums are not modelled), when
 * both are the same geoid, and when the geoid grid of a vertical datum is not
 * installed:
 * the first time that happens for a datum a warning naming the missing grid
 * is printed (eerr_PrintErrorReport), and epho_DatumZShiftNote tells why. */
EPHO_EXPORT double epho_CalculateZShift(const EphoDatum* datumA, const EphoDatum* datumB,
                                        double longitude, double latitude) KZDV_NOEXCEPT;
/* Why epho_CalculateZShift gives 0 for this pair, as heap text (emsc_HeapFree),
 * or null when the shift is computed from a geoid model. */
EPHO_EXPORT Etxt_Char* epho_DatumZShiftNote(const EphoDatum* datumA,
                                            const EphoDatum* datumB) KZDV_NOEXCEPT;

KZDV_END_C

#ifdef __cplusplus
#include <memory>
#include <mutex>
#include <string>

/* C++ view of the same objects (EphoDatum is an EphoLib::Datum). */
struct EphoDatum {
  virtual ~EphoDatum() = default;
};

namespace EphoLib {

class EPHO_EXPORT Datum : public EphoDatum {
 public:
  enum Kind { kUnknown, kEllipsoidal, kVertical };
  ~Datum() override;
  const std::wstring& Name() const { return name_; }
  Kind GetKind() const { return kind_; }
  bool IsVertical() const { return kind_ == kVertical; }
  /* EPSG code of the vertical coordinate system of a vertical datum, else 0. */
  int VerticalEpsg() const { return vertical_epsg_; }
  /* Geoid undulation N (metres) at (longitude, latitude) radians; false with
   * `why` set when it cannot be had (not vertical, grid missing, outside the
   * grid). */
  bool Undulation(double longitude, double latitude, double* n, std::wstring* why) const;

 private:
  friend class DatumManager;
  Datum(std::wstring name, Kind kind, int vertical_epsg);
  std::wstring name_;
  Kind kind_;
  int vertical_epsg_;  // EPSG code of the vertical CRS (geoid heights), 0 none
  struct Proj;
  mutable std::unique_ptr<Proj> proj_;
  mutable std::mutex mutex_;
  mutable bool warned_ = false;

 public:
  /* True the first time it is called: the missing-grid warning is printed
   * once per datum object. */
  bool ClaimWarning() const;
};

/* The process-wide datum manager. */
class EPHO_EXPORT DatumManager {
 public:
  static DatumManager& Instance();
  /* A new datum object the caller owns (delete it); throws EerrException
   * ("DatumManager::GetDatum") on a null name. */
  Datum* GetDatum(const wchar_t* name) const;

 private:
  DatumManager() = default;
};

/* Shorthand for DatumManager::Instance().GetDatum(name). */
EPHO_EXPORT Datum* GetDatum(const wchar_t* name);

}  // namespace EphoLib
#endif

#endif /* EPHO_GEODESY_H */
