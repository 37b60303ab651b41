// Internal: the planar projective fit shared by epho_DeriveDLT2D and the
// resection's approximation.
#ifndef EPHO_DLT_H
#define EPHO_DLT_H

namespace epho {

// Fits h0..h7 (layout of epho_DeriveDLT2D) to n >= 4 pairs. Returns null on
// success, else a message (a wide format with no arguments) naming why.
const wchar_t* FitProjective2D(const double* from_xy, const double* to_xy, int n, double* h);

// Smallest / largest spread of n points (2 or 3 coordinates each) about
// their centroid: the ratio of the second to the first singular value of the
// centred coordinates. Near 0 when the points lie on a line.
double LineDegeneracy(const double* pts, int n, int dim);

}  // namespace epho

#endif  // EPHO_DLT_H
