/* Camera calibration text file of a frame camera: focal length, principal
 * point, fiducial marks, radial distortion observations and coefficients and
 * an optional extended lens model. All records come from the toolkit heap
 * (emsc_HeapMalloc) and are freed with their Delete function. */
#ifndef EPHO_CAMERAFILE_H
#define EPHO_CAMERAFILE_H

#include <stdint.h>

#include "epho/base.h"

/* Kind of the radial distortion observations: the first value of each pair is
 * a field angle in degrees (any non-zero kind) or a radial distance in mm. */
#define EPHO_DISTORTION_RADIAL_DISTANCE 0
#define EPHO_DISTORTION_FIELD_ANGLE 1

/* Extended lens models; their values, in file and block order:
 * TARVO      a1 a2 a3 b1 b2 c1 c2 c3 d1 ... d10 r0  (19 values)
 * AUSTRALIS  k1 k2 k3 p1 p2 b1 b2                   (7 values)
 * SMAC       k0 k1 k2 k3 k4 p1 p2 p3 p4             (9 values) */
typedef enum {
  EPHO_LENS_MODEL_NONE = 0,
  EPHO_LENS_MODEL_TARVO = 1,
  EPHO_LENS_MODEL_AUSTRALIS = 2,
  EPHO_LENS_MODEL_SMAC = 3
} Epho_ExtendedLensModel;

/* Camera information record: one frame camera's calibration as the camera
 * file holds it (callers fill the frame camera model from it). Film
 * coordinates in mm; the record owns its texts and arrays. */
typedef struct Epho_CameraFrameInfo {
  int32_t id;                   /* application's id of the camera; not touched by the file */
  int32_t version;              /* record version, EPHO_CAMERA_FRAME_INFO_VERSION; not touched */
  Etxt_Char* cameraName;        /* owned, may be null (written as "") */
  int32_t applicationTag;       /* free for the application; not touched by the file */
  Etxt_Char* cameraDescription; /* owned, may be null */
  double focalLength_mm;
  double x0_mm; /* principal point */
  double y0_mm;
  int32_t fiducialValueCount;    /* twice the number of fiducials */
  double* fiducials_mm;          /* x, y per fiducial; owned, null when the count is 0 */
  int32_t observationKind;       /* EPHO_DISTORTION_FIELD_ANGLE (non-zero) or ..._RADIAL_DISTANCE */
  int32_t observationValueCount; /* twice the number of observations */
  double* observations;       /* (angle deg or distance mm, distortion microns) per observation */
  double k0, k1, k2;          /* radial lens distortion coefficients */
  int32_t extendedModel;      /* Epho_ExtendedLensModel */
  double* extendedParameters; /* owned block of epho_ExtendedLensModelValueCount values, or null */
} Epho_CameraFrameInfo;

#define EPHO_CAMERA_FRAME_INFO_VERSION 1

/* Interior orientation of one scanned photograph (a frame of a sensor): the
 * measured fiducials in pixels and the fitted film (mm) to image (pixel)
 * transform column = a0 + a1*x + a2*y, row = a3 + a4*x + a5*y. */
typedef struct Epho_SensorFrameInfo {
  int32_t cameraId;           /* Epho_CameraFrameInfo.id of the camera that took the frame */
  int32_t fiducialValueCount; /* twice the number of fiducials, as in the camera */
  double* fiducials_pixels;   /* measured column, row per fiducial in the camera's order; owned */
  double filmToImage[6];      /* a0 ... a5; identity (0, 1, 0, 0, 0, 1) when created */
  double rmsResidual_pixels;  /* root mean square fiducial residual of the fit; 0 when created */
} Epho_SensorFrameInfo;

/* The longest line (in characters, its LF or CR LF end not counted) that the
 * reader takes whole; it reads lines in pieces of this length. */
#define EPHO_CAMERA_FILE_LINE_LIMIT 127

KZDV_BEGIN_C

/* A zero-filled camera record (version set, no texts, no arrays); null with
 * "Unable to allocation memory for camera information." */
EPHO_EXPORT Epho_CameraFrameInfo* epho_CameraFrameInfoCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees the record, its texts and arrays. Null is allowed. */
EPHO_EXPORT void epho_CameraFrameInfoDelete(Epho_CameraFrameInfo* camera) KZDV_NOEXCEPT;
/* A sensor frame record with no fiducials and the identity transform. */
EPHO_EXPORT Epho_SensorFrameInfo* epho_SensorFrameInfoCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees the record and its fiducial array. Null is allowed. */
EPHO_EXPORT void epho_SensorFrameInfoDelete(Epho_SensorFrameInfo* frame) KZDV_NOEXCEPT;
/* Number of values of an extended lens model (19, 7, 9; 0 for none or unknown). */
EPHO_EXPORT int epho_ExtendedLensModelValueCount(int32_t model) KZDV_NOEXCEPT;

/* Writes the camera file (current layout, version line "2.0"). Numbers are
 * written in %g form (six significant digits; "nan", "inf" as printf gives
 * them). The record is checked before the file is opened, so that nothing is
 * written that would not read back: counts must be even and not negative
 * with their arrays present, and name and description free of double quotes
 * and line breaks and short enough for one line of the reader's limit. A null
 * extended block or model 0 writes the type "NONE"; a model outside 0-3
 * writes nothing after the "Extended Parameters:" line. A focal length that
 * is not a finite number is refused. Numbers are written with a decimal point
 * whatever locale the host set.
 *
 * The file is replaced, never rewritten in place: the text goes to a
 * temporary in the same folder, which is flushed to disk and renamed over the
 * file only when complete (the file keeps its permission bits). A failure of
 * any kind (full disk, quota, file size limit, which is reported, not fatal)
 * leaves an existing file byte-identical and no temporary behind; writing a
 * file onto the one it was read from is therefore safe. The folder must be
 * writable. EMSC_TRUE on success; EMSC_FALSE with a report otherwise. */
EPHO_EXPORT Emsc_Boolean CameraInfoFileWrite(const Etxt_Char* fileName,
                                             const Epho_CameraFrameInfo* camera,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Reads a camera file, current layout (first line "OVT Camera File Version:
 * ...", any version) or the older headerless one, into `camera` or, when it
 * is null, into a new record. Lines are read in pieces of 127 characters;
 * blank lines before items are skipped; names are matched by their exact key
 * before ":", other items by the key anywhere in the line. An observation type
 * other than "Field Angle" (case ignored) means radial distances; an extended
 * type other than the three model names means none. Numbers must parse whole
 * (nan and inf are taken as written, but not for the focal length), with a
 * decimal point whatever locale the host set. Reports of a damaged file name
 * the file and, where there is one, the line. Beyond the layout, the reader refuses
 * what it cannot take safely: counts that are negative, above 10000 rows or
 * not matched by rows of three numbers (older layout: odd value counts or
 * missing values), table rows longer than one line piece, and quoted items
 * without their two quotes. Returns the filled record (the caller's, whose
 * previous texts and arrays are freed and replaced, or the new one, which the
 * caller frees with epho_CameraFrameInfoDelete). On failure returns null with
 * a report; the caller's record is then left unchanged and nothing is leaked.
 * The id, version and applicationTag words are never touched. */
EPHO_EXPORT Epho_CameraFrameInfo* CameraInfoFileRead(const Etxt_Char* fileName,
                                                     Epho_CameraFrameInfo* camera,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_CAMERAFILE_H */
