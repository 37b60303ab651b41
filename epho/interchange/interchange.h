// Moving a block between tools: a user's hand-written text project and
// COLMAP's text model (cameras.txt, images.txt, points3D.txt), both read into
// and written from one neutral in-memory project. The formats, the axes and
// pixel conventions are described in docs/interchange.md.
//
// A module interface (C++, not exported): the `epho block import|export`
// commands call it, and other C++ front ends (the Python module) may link it
// from the static library. Everything here throws InterchangeError on bad
// input; a reader reports every bad line it finds, each as "file:line: what".
#ifndef EPHO_INTERCHANGE_INTERCHANGE_H
#define EPHO_INTERCHANGE_INTERCHANGE_H

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "epho/block.h"
#include "epho/camera.h"

namespace epho::interchange {

// Bad input or an inexpressible block: what() holds one line per problem.
class InterchangeError : public std::runtime_error {
 public:
  explicit InterchangeError(const std::vector<std::string>& problems);
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  std::vector<std::string> problems_;
};

struct CameraDelete {
  void operator()(Epho_Camera* c) const { epho_CameraDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_Camera, CameraDelete>;

// One photograph: its frame camera carries interior and exterior orientation
// (ground-to-image direction, constant height `z_mean`).
struct Image {
  int32_t id = 0;
  std::string name;  // the photograph's file, as the project names it
  int32_t columns = 0, rows = 0;
  CameraPtr camera;
};

// A measurement in file pixels: (0, 0) is the upper-left corner of the
// upper-left pixel, whose centre is (0.5, 0.5).
struct Observation {
  int32_t image = 0;
  double x = 0, y = 0;
};

struct Point {
  int32_t id = 0;
  Epho_PointUsage usage = GCP_TIE;
  bool known = false;  // ground coordinates given (control, check, or reconstructed tie)
  double X = 0, Y = 0, Z = 0;
  std::array<float, 3> std{{0, 0, 0}};  // a-priori standard deviations, 0: none given
  std::array<float, 3> color{{0, 0, 0}};
  std::vector<Observation> observations;
};

struct Project {
  std::vector<Image> images;  // ids unique
  std::vector<Point> points;  // ids unique
};

// ---- the hand-written project ----------------------------------------------

// Reads a project file and the files it names (relative to its folder).
Project ReadTextProject(const std::string& projectFile);
// Reads a control-point file ("id X Y Z control|check [std | stdX stdY stdZ]")
// and marks the points of `project` with those ids as control or check with
// the given coordinates; a point of the file the project lacks is an error.
void ApplyControlFile(const std::string& file, Project* project);

// ---- COLMAP's text model ------------------------------------------------------

struct ColmapCamera {
  uint32_t id = 0;
  std::string model;  // SIMPLE_PINHOLE, PINHOLE, SIMPLE_RADIAL, RADIAL, OPENCV, FULL_OPENCV
  int32_t width = 0, height = 0;
  std::vector<double> params;  // in the model's order
};

struct ColmapPoint2D {
  double x = 0, y = 0;
  int64_t point3D = -1;  // -1: not part of a reconstructed point
};

struct ColmapImage {
  uint32_t id = 0;
  std::array<double, 4> q{{1, 0, 0, 0}};  // world to camera, w x y z
  std::array<double, 3> t{{0, 0, 0}};     // world to camera translation
  uint32_t camera = 0;
  std::string name;
  std::vector<ColmapPoint2D> points2D;
};

struct ColmapTrackElement {
  uint32_t image = 0;
  uint32_t point2D = 0;  // index into the image's 2D points
};

struct ColmapPoint3D {
  uint64_t id = 0;
  std::array<double, 3> xyz{{0, 0, 0}};
  std::array<int, 3> rgb{{0, 0, 0}};
  double error = 0;  // mean reprojection error, pixels
  std::vector<ColmapTrackElement> track;
};

struct ColmapModel {
  std::vector<ColmapCamera> cameras;
  std::vector<ColmapImage> images;
  std::vector<ColmapPoint3D> points;
};

// Reads cameras.txt, images.txt and points3D.txt of `folder` and checks that
// they agree (cameras and images referred to exist, each track element names
// a 2D point that names the track's point and the other way round).
ColmapModel ReadColmapModel(const std::string& folder);
// Writes the three files into `folder` (which must exist), each replaced in
// one step. Numbers are written in their shortest exact decimal form.
void WriteColmapModel(const ColmapModel& model, const std::string& folder);

// The project of a model, images and points in id order: one image per
// COLMAP image (its camera's intrinsics copied into each frame camera, film
// units = pixels), one tie point per 3D point with its observations; 2D
// points of no 3D point are not kept.
Project ProjectFromColmap(const ColmapModel& model);
// The model of a project, images and points in id order: images with equal
// intrinsics share a camera (numbered from 1 in the order of the images),
// each camera in the simplest model that holds it; 2D points in the order of
// the points; each 3D point's error recomputed from its observations. Throws
// for a camera COLMAP cannot express (see docs/interchange.md) and for
// measured points without ground coordinates.
ColmapModel ColmapFromProject(const Project& project);

// ---- camera conversions (exposed for tests and other front ends) ----------

// Number of parameters of a supported COLMAP model; 0 for any other name.
int ColmapParamCount(const std::string& model);
// The frame camera of a COLMAP camera and pose. Throws for a model our lens
// models cannot hold (FULL_OPENCV with k4..k6 not zero).
CameraPtr CameraFromColmap(const ColmapCamera& camera, const std::array<double, 4>& q,
                           const std::array<double, 3>& t);
// COLMAP camera (id 0) and pose of a frame camera; throws with the reason
// when the camera cannot be expressed.
void ColmapFromCamera(const Epho_Camera& camera, int32_t columns, int32_t rows,
                      ColmapCamera* colmap, std::array<double, 4>* q, std::array<double, 3>* t);
// Pixel position of world point `X` in a COLMAP camera and pose (COLMAP's own
// equations); false behind the camera.
bool ColmapProject(const ColmapCamera& camera, const std::array<double, 4>& q,
                   const std::array<double, 3>& t, const double X[3], double pixel[2]);

}  // namespace epho::interchange

#endif  // EPHO_INTERCHANGE_INTERCHANGE_H
