// The working state of a triangulation refinement run, shared by its steps:
// input checks, ray gathering and the initial intersection, the bundle
// iteration, the reduced-system solvers, the report and the JSON/SVG output.
#ifndef EPHO_TRIANGULATION_TRIANGULATION_INTERNAL_H
#define EPHO_TRIANGULATION_TRIANGULATION_INTERNAL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "efio.h"
#include "epho/triangulation.h"
#include "platform/eerr/error_frame.h"

namespace epho::triangulation {

// Site numbers of the run's own failures.
enum Site : long {
  kSiteReportOpen = 120,
  kSiteImageStdDev = 147,
  kSiteNoImage = 150,
  kSiteFewParameters = 193,
  kSiteNoInitialValues = 196,
  kSiteFewPoints = 199,
  kSiteImageMemory = 210,
  kSiteMemory = 409,
  kSiteTieMemory = 470,
  kSiteGcpErrors = 561,
  kSiteIntersection = 605,
  kSiteInitialGround = 610,
  kSiteBundleMemory = 1476,
  kSiteUnknowns = 1506,
  kSiteDivergence = 2031,
};

// A gathered ray: one image point of a ground point, in image units.
struct Ray {
  int32_t pointID;
  int32_t image;  // index into the image array
  double x, y;
  float weightX, weightY;
};

// The text report, written through the toolkit's formatted output. A write
// failure is remembered, not fatal: what was written stays.
class Report {
 public:
  explicit Report(Efio_File* file) : file_(file) {}
  void Printf(const Etxt_Char* format, ...);
  bool WriteFailed() const { return failed_; }

 private:
  Efio_File* file_;
  bool failed_ = false;
};

// Settings handed from the input checks to the bundle iteration.
struct Settings {
  bool fixed_control = true;   // fix control == 0
  bool angular = false;        // ground X, Y in degrees or radians: 8 decimals
  bool degrees = false;        // which angular unit
  double sx = 0.0;             // reference standard deviation, image units
  double mean_scale = 1.0;     // mean pixel-to-image scale of the first image
  double step_floor = 1.0e-8;  // smallest derivative step, relative to |coordinate|
  double step_divisor = 10.8;  // ground step / this = derivative step (x 0.75 at start)
  double convergence_threshold = 0.0;
  double relative_threshold = 0.02;
  double mean_ex = 1.0, mean_ey = 1.0;
  int max_overlap = 0;  // largest overlap + 1, at most the image count
  int max_rays = 0;
  double ground_step_xy = 0.0;  // ground size of one pixel (X, Y units)
  double ground_step_z = 0.0;   // the same in Z units
  int max_iterations = 0;
  int solver = EPHO_TRI_SOLVER_AUTO;
  double s0 = 0.0;
  std::wstring xy_units, z_units;
};

// Results of the bundle iteration that the report and outputs read.
struct BundleResult {
  bool converged = false;
  bool diverged = false;
  int iterations = 0;
  double s0 = 0.0;
  bool accuracy_valid = false;
  std::vector<double> parameter_sigma;  // per parameter, normalised units
  bool used_sparse = false;
};

// The whole run.
struct Block {
  Epho_TriRefineInput* input = nullptr;
  Epho_TriImage* images = nullptr;
  int image_count = 0;
  // Working points: control (full, horizontal, vertical), check, tie; the
  // record after the last holds the end index of the rays.
  std::vector<Epho_TriGroundPoint> points;
  std::vector<Ray> rays;
  int n_full = 0, n_horizontal = 0, n_vertical = 0;  // control groups, first in `points`
  int n_check = 0;                                   // check points after the control
  int n_ground_input = 0;                            // control + check records of the input
  std::vector<int> param_start;                      // per image, into the parameter vector
  int n_params = 0;
  Settings settings;
  BundleResult result;

  int PointCount() const { return points.empty() ? 0 : static_cast<int>(points.size()) - 1; }
  int ControlCount() const { return n_full + n_horizontal + n_vertical; }
  bool IsControl(int p) const { return p < ControlCount(); }
  int RayBegin(int p) const { return points[p].firstImagePoint; }
  int RayEnd(int p) const { return points[p + 1].firstImagePoint; }
  int Overlap(int p) const { return RayEnd(p) - RayBegin(p); }
  // Points that take part in the adjustment: not rejected, or control.
  bool TakesPart(int p) const { return IsControl(p) || points[p].usage != EPHO_TRI_USAGE_REJECTED; }
  int PerAxis(int i) const { return images[i].parameterCount; }
};

// ---- Steps (each returns false after reporting through `frame`).

// Header lines and the unit mode (step 2).
void WriteHeader(Block& b, Report& r);
// Validation, weighting, per-image checks, ordering and ground weights
// (steps 3-7).
bool CheckAndWeight(Block& b, Report& r, kzdv::ErrorFrame& frame);
// Ray gathering, tie points, removal of rejected points (steps 8-10).
bool GatherRays(Block& b, Report& r, kzdv::ErrorFrame& frame);
// Normalisation and weights of the parameters, mode switches (steps 11-12).
void PrepareParameters(Block& b, Report& r);
// Initial forward intersection and ground step (step 13).
bool InitialGround(Block& b, kzdv::ErrorFrame& frame);
// Control and check point tables (step 14).
void WritePointTables(Block& b, Report& r);
// The bundle iteration, accuracies and result tables.
bool RunBundle(Block& b, Report& r, kzdv::ErrorFrame& frame);

// Corrected measurement of a ray in pixels, through the image's current
// polynomial (initial values minus the accumulated corrections).
void CorrectedPixel(const Epho_TriImage& image, int per_axis, double x, double y, double* col,
                    double* row);
// The normalised polynomial terms t0..t(n-1) at image point (x, y).
void PolynomialTerms(const Epho_TriImage& image, int per_axis, double x, double y, double* t);

// ---- Residuals, shared by the report and the outputs.
struct GroundResidual {
  int point;  // index into Block::points
  double r[3];
  bool has_xy, has_z;
};
struct ImageResidual {
  double vx, vy;  // pixels
};
// Ground residuals (given minus adjusted, linear units) of the control
// (check == false) or check points.
std::vector<GroundResidual> GroundResiduals(const Block& b, bool check);
// Residuals of every ray, in ray order (pixels). False when a projection
// failed.
bool ImageResiduals(const Block& b, std::vector<ImageResidual>* out);

// Initial parameter lines of one image (n per axis).
void WriteInitialParameters(Report& r, const Epho_TriImage& image, int n);
// Writes the final parameter, accuracy and residual tables (after the loop).
void WriteResults(Block& b, Report& r, const std::vector<ImageResidual>& residuals);

// ---- Outputs beside the report.
bool WriteJson(const Block& b, const std::vector<ImageResidual>& residuals, const Etxt_Char* name,
               kzdv::ErrorFrame& frame);
bool WriteSvg(const Block& b, const std::vector<ImageResidual>& residuals, const Etxt_Char* name,
              kzdv::ErrorFrame& frame);

}  // namespace epho::triangulation

#endif  // EPHO_TRIANGULATION_TRIANGULATION_INTERNAL_H
