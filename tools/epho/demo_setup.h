// The synthetic project of `epho demo`, shared by its stages: the terrain,
// the frame camera and its scans, and the flight plan of the block (true and
// approximate orientations). Everything is a fixed function of the photo
// index, so every stage and the demo's test derive the same truth.
#ifndef EPHO_TOOL_DEMO_SETUP_H
#define EPHO_TOOL_DEMO_SETUP_H

#include <string>

#include "epho/camera.h"
#include "registry.h"

namespace epho_tool::demo {

// ---- terrain: DEM and ortho texture in UTM zone 32N, upper-left corner.
constexpr double kOriginE = 480000.0, kOriginN = 5300000.0;
constexpr int kDemSize = 256;
constexpr double kDemCell = 10.0;  // m
constexpr int kOrthoSize = 2048;
constexpr double kOrthoCell = 1.25;  // m
// Terrain height (m) at map (e, n): gentle hills over a tilted plane.
double TerrainHeight(double e, double n);

// ---- the camera and its scans.
constexpr double kFocalMm = 50.0;
constexpr double kScanPixelMm = 0.05;  // scan pixel on the film
constexpr int kScanSize = 1160;        // pixels a side (58 mm of film)
constexpr double kFrameHalfMm = 24.0;  // image area 48 x 48 mm about the principal point
constexpr int kMarkCount = 8;
// Film positions (mm) of the fiducial marks: corners, then edge midpoints.
extern const double kMarksMm[2 * kMarkCount];
// Radial lens distortion of the camera record (5 values, film millimetres).
extern const double kLens[5];
// The part of every scan that holds the image area (for matching windows):
// a square of kWindowSize pixels from (kWindowOrigin, kWindowOrigin).
constexpr int kWindowOrigin = 108, kWindowSize = 944;

// ---- the block: strips flown west to east, south to north.
constexpr int kStrips = 3, kPhotosPerStrip = 5, kPhotos = kStrips * kPhotosPerStrip;
constexpr double kForwardOverlap = 0.6, kSideOverlap = 0.3;
constexpr double kFlyingZ = 1400.0;      // m above the datum
constexpr double kMeanTerrainZ = 460.0;  // m, for the flight plan
constexpr double kImageNoisePx = 0.5;    // measuring noise of control and check points

struct Exposure {
  double X, Y, Z;            // perspective centre, m
  double omega, phi, kappa;  // radians
};
// Ground side of the image area at the mean terrain height (m).
double Footprint();
double ForwardBase();
double StripSpacing();
Exposure TrueExposure(int photo);
// The true exposure moved by up to 0.6 m and 0.1 mrad, as navigation data
// would give it (about a pixel of y-parallax between neighbours).
Exposure ApproximateExposure(int photo);
// True scan-pixel-to-film affine of a scan (x' = c0 x + c1 y + c2, file
// pixels with centres at k + 0.5 to film mm): each scan lies a little turned,
// shifted and stretched on the scanner.
void TrueScanToFilm(int photo, double c[6]);
// Inverse of an affine of that layout; false when singular.
bool InvertAffine(const double c[6], double inverse[6]);

int StripOf(int photo);
int PhotoInStrip(int photo);
// Block image id of a photograph: 100 * strip + photo, both from 1.
int PhotoId(int photo);
std::string PhotoName(int photo);  // "photo_s1_p1"

// A camera record of a scan: exposure, scan-to-film affine, the demo lens,
// heights from `dem` (empty: constant z_mean = kMeanTerrainZ), `direction`
// EMOD_FORWARD or EMOD_INVERSE. Null when the heap is exhausted.
Epho_Camera* MakeCamera(const Exposure& e, const double scanToFilm[6], const std::string& dem,
                        int direction);

// The block's camera of a scan as a project starts with it: the approximate
// exposure and the film-to-scan affine the fiducial stage fitted (its values
// "scan.<photo>.film_to_scan.<i>"), heights from the demo's DEM. Null before
// those stages ran.
Epho_Camera* BlockCamera(const DemoContext& demo, int photo, int direction);

// Reports a library error and frees it; returns false for the stage.
bool PrintReport(Eerr_ErrorReport* err);

}  // namespace epho_tool::demo

#endif  // EPHO_TOOL_DEMO_SETUP_H
