// `epho triangulate` and the block frames it reads: shared with the demo's
// block and triangulation stages and with the tests.
//
// Frame design. Each image of a block is one "Epho_BlockFrame" record in the
// block's frame list:
//   imageName  string   the photograph's file
//   imageId    int32    the id its image points refer to ("ImageIDNumber")
//   columns    int32    size of the photograph in pixels
//   rows       int32
//   camera     object   the frame camera as a "Camera_ModelX" record
// The record's packed bytes are the frame's bytes; the design goes into the
// block file's dictionary, so `epho hfa dump` decodes every frame.
#ifndef EPHO_TOOL_TRIANGULATE_COMMAND_H
#define EPHO_TOOL_TRIANGULATE_COMMAND_H

#include <memory>
#include <string>
#include <vector>

#include "epho/block.h"
#include "epho/camera.h"

namespace epho_tool {

struct CameraDelete {
  void operator()(Epho_Camera* c) const { epho_CameraDelete(c); }
};
using CameraPtr = std::unique_ptr<Epho_Camera, CameraDelete>;

struct BlockFrame {
  std::string image;
  int32_t id = 0;
  int32_t columns = 0;
  int32_t rows = 0;
  CameraPtr camera;
};

// Replaces the block's images by `frames` (in memory; the caller saves).
// False with a message in *error when a camera cannot be put in MIF form.
bool PutBlockFrames(EphoBlockFile* block, const std::vector<BlockFrame>& frames,
                    std::string* error);
// The block's frames; false with a message when the block has none, when
// they are not "Epho_BlockFrame" records or cannot be decoded.
bool GetBlockFrames(EphoBlockFile* block, std::vector<BlockFrame>* frames, std::string* error);

// One measurement for MakeGroundPoint: file pixels of image `image`.
struct ImageMeasure {
  int32_t image;
  double x, y;
};
// A new ground point (free with EphoBlockFile::freeGroundPoint), every
// coordinate defined, a-priori standard deviation `std` in X, Y and Z.
Epho_GroundPoint* MakeGroundPoint(int32_t id, Epho_PointUsage usage, double x, double y, double z,
                                  float std, const std::vector<ImageMeasure>& measures);

struct TriangulateOptions {
  std::string block;
  std::string report;         // empty: the block's name with "_triangulation.txt"
  std::string json;           // empty: none
  std::string plot;           // empty: none
  int terms = 3;              // correction terms per axis, 1 to 6
  double imageStd = 0.5;      // pixels
  double parameterStd = 0.1;  // prior of the correction terms, image units
  int maxIterations = 10;
  bool quiet = false;  // no summary on standard output
};

struct TriangulateResult {
  bool converged = false;
  int iterations = 0;
  double s0 = 0;  // image units
  int control = 0, check = 0, tie = 0, images = 0;
  double checkRmse[3] = {0, 0, 0};  // X, Y, Z: given minus adjusted
  std::string report;               // the report file written
};

// The whole command: 0 when the refinement converged and the block was saved
// with its results, 1 on any failure (printed on standard error; the block
// file is then left as it was).
int Triangulate(const TriangulateOptions& options, TriangulateResult* result);

}  // namespace epho_tool

#endif  // EPHO_TOOL_TRIANGULATE_COMMAND_H
