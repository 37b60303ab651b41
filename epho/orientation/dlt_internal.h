// Internal: the planar projective fit shared by epho_DeriveDLT2D and the
// resection's approximation.
#ifndef EPHO_ORIENTATION_DLT_INTERNAL_H_
#define EPHO_ORIENTATION_DLT_INTERNAL_H_

#include <Eigen/Core>

namespace epho {

// Fits h0..h7 (layout of epho_DeriveDLT2D) to n >= 4 pairs. Returns null on
// success, else a message (a wide format with no arguments) naming why.
const wchar_t* FitProjective2D(const double* from_xy, const double* to_xy, int n, double* h);

// Smallest / largest spread of n points (2 or 3 coordinates each) about
// their centroid: the ratio of the second to the first singular value of the
// centred coordinates. Near 0 when the points lie on a line.
double LineDegeneracy(const double* pts, int n, int dim);

// Thickness of n 3D points about their best plane: the ratio of the third to
// the first singular value of the centred coordinates (0 when coplanar).
double PlaneDegeneracy(const double* pts, int n);

// Splits a 3x4 projective camera P ~ Kc R^T [I | -C] (camera convention of
// epho/orientation.h) into K = Kc diag(-1, -1, 1) (upper triangular, positive
// diagonal, K(2,2) = 1), the rotation R and the centre C. False when the
// left 3x3 block is singular.
bool SplitProjection(const Eigen::Matrix<double, 3, 4>& P, Eigen::Matrix3d* K, Eigen::Matrix3d* R,
                     Eigen::Vector3d* C);

// Linear (normalised) fit of a 3x4 projective camera to n >= 6 pairs of
// ground and film points. Returns null or a reason.
const wchar_t* FitProjective3D(const double* film_xy, const double* ground_xyz, int n,
                               Eigen::Matrix<double, 3, 4>* P);

}  // namespace epho

#endif  // EPHO_ORIENTATION_DLT_INTERNAL_H_
