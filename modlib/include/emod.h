/* emod: geodetic conversions of the model library.
 *
 * Geographic coordinates are longitude and latitude in radians and the
 * height above the spheroid in metres; geocentric coordinates are Earth-
 * centred, Earth-fixed X, Y, Z in metres. A spheroid is given by its
 * semi-major axis a (metres) and squared eccentricity e2 (0 <= e2 < 1).
 * The tangent-plane frame is twelve doubles: the geocentric origin X0, Y0, Z0
 * followed by the rows of the rotation from geocentric to tangent-plane axes
 * (x east, y north, z up at the origin). All functions are pure and
 * thread-safe; they return EMSC_FALSE (and write nothing) for non-finite
 * input or an invalid spheroid. */
#ifndef EMOD_H
#define EMOD_H

#include "emsc.h"
#include "kzdv_export.h"

#define EMOD_TANGENT_FRAME_SIZE 12

KZDV_BEGIN_C

KZDV_EXPORT Emsc_Boolean emod_GeographicToGeocentric(double longitude, double latitude,
                                                     double height, double* X, double* Y, double* Z,
                                                     double e2, double a) KZDV_NOEXCEPT;
/* Exact closed form (no iteration); valid everywhere except within about
 * 40 km of the Earth's centre. At the poles the longitude is atan2(Y, X)
 * (0 on the axis itself). */
KZDV_EXPORT Emsc_Boolean emod_GeocentricToGeographic(double X, double Y, double Z,
                                                     double* longitude, double* latitude,
                                                     double* height, double e2,
                                                     double a) KZDV_NOEXCEPT;
/* The tangent-plane frame at (lat0, lon0, h0) (radians, metres). */
KZDV_EXPORT Emsc_Boolean emod_DeriveTp2GcTransform(double lat0, double lon0, double h0, double a,
                                                   double e2, double frame[EMOD_TANGENT_FRAME_SIZE])
    KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean
emod_GeocentricToTangentPlane(double Xg, double Yg, double Zg, double* Xt, double* Yt, double* Zt,
                              const double frame[EMOD_TANGENT_FRAME_SIZE]) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean
emod_TangentPlaneToGeocentric(double Xt, double Yt, double Zt, double* Xg, double* Yg, double* Zg,
                              const double frame[EMOD_TANGENT_FRAME_SIZE]) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EMOD_H */
