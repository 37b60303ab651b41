// The geometric steps of the pair measurement, open to the module's tests.
#ifndef EPHO_AUTOTIE_AUTOTIE_INTERNAL_H
#define EPHO_AUTOTIE_AUTOTIE_INTERNAL_H

#include <vector>

namespace epho::autotie {

// Whole-pixel range of right-window centres (pixel centre at the index).
struct Window {
  long x0 = 0, y0 = 0, x1 = -1, y1 = -1;
};

// Shortest distance (pixels) from (x, y) to the polyline of (x, y) pairs.
double DistanceToPolyline(const std::vector<double>& line_xy, double x, double y);

// The NCC search window of a prediction (file pixels, centres at k + 0.5):
// `radius` around it, cut to the bounding box of the epipolar polyline
// widened by the tolerance and a pixel, and to the centres whose window of
// `half` stays in a width x height image. False when nothing is left.
bool SearchWindow(double pred_x, double pred_y, const std::vector<double>& line_xy, double radius,
                  double tolerance, long half, long width, long height, Window* w);

}  // namespace epho::autotie

#endif  // EPHO_AUTOTIE_AUTOTIE_INTERNAL_H
