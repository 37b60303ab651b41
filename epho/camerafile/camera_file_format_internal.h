// Keys and names of the camera calibration text file shared by its writer
// and reader (internal).
#ifndef EPHO_CAMERAFILE_CAMERA_FILE_FORMAT_INTERNAL_H_
#define EPHO_CAMERAFILE_CAMERA_FILE_FORMAT_INTERNAL_H_

#include "epho/camerafile.h"

namespace epho::camerafile {

inline constexpr const Etxt_Char* kVersionKey = L"OVT Camera File Version";
inline constexpr double kVersion = 2.0;
inline constexpr const Etxt_Char* kNameKey = L"Camera Name";
inline constexpr const Etxt_Char* kDescriptionKey = L"Camera Description";
inline constexpr const Etxt_Char* kFocalKey = L"Focal Length [mm]";
inline constexpr const Etxt_Char* kPrincipalSection = L"Principal Point:";
inline constexpr const Etxt_Char* kX0Key = L"x0 [mm]";
inline constexpr const Etxt_Char* kY0Key = L"y0 [mm]";
inline constexpr const Etxt_Char* kFiducialSection = L"Fiducial Coordinates:";
inline constexpr const Etxt_Char* kFiducialCountKey = L"Number of Fiducials";
inline constexpr const Etxt_Char* kObservationSection = L"Radial Distortion Observations:";
inline constexpr const Etxt_Char* kTypeKey = L"Type";
inline constexpr const Etxt_Char* kObservationCountKey = L"Number of Observations";
inline constexpr const Etxt_Char* kCoefficientSection = L"Radial Lens Distortion Coefficients:";
inline constexpr const Etxt_Char* kExtendedSection = L"Extended Parameters:";

inline constexpr const Etxt_Char* kFieldAngle = L"Field Angle";
inline constexpr const Etxt_Char* kRadialDistance = L"Radial Distance";
inline constexpr const Etxt_Char* kNone = L"NONE";

// Names of the extended models 1-3, indexed by model.
inline constexpr const Etxt_Char* kModelNames[4] = {L"NONE", L"TARVO Parameters",
                                                    L"AUSTRALIS Parameters", L"SMAC Parameters"};

inline constexpr const Etxt_Char* kTarvoKeys[19] = {
    L"a1", L"a2", L"a3", L"b1", L"b2", L"c1", L"c2", L"c3",  L"d1", L"d2",
    L"d3", L"d4", L"d5", L"d6", L"d7", L"d8", L"d9", L"d10", L"r0"};
inline constexpr const Etxt_Char* kAustralisKeys[7] = {L"k1", L"k2", L"k3", L"p1",
                                                       L"p2", L"b1", L"b2"};
inline constexpr const Etxt_Char* kSmacKeys[9] = {L"k0", L"k1", L"k2", L"k3", L"k4",
                                                  L"p1", L"p2", L"p3", L"p4"};

// Keys of an extended model's values (null for none or unknown).
inline const Etxt_Char* const* ExtendedKeys(int model) {
  switch (model) {
    case EPHO_LENS_MODEL_TARVO:
      return kTarvoKeys;
    case EPHO_LENS_MODEL_AUSTRALIS:
      return kAustralisKeys;
    case EPHO_LENS_MODEL_SMAC:
      return kSmacKeys;
    default:
      return nullptr;
  }
}

// Sanity bounds on the number of fiducials and observations a file may hold;
// far beyond any real camera, they stop absurd counts early.
inline constexpr long kMaxFiducials = 10000;
inline constexpr long kMaxObservations = 10000;

}  // namespace epho::camerafile

#endif  // EPHO_CAMERAFILE_CAMERA_FILE_FORMAT_INTERNAL_H_
