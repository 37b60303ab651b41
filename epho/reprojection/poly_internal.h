// Bivariate polynomials in the toolkit's term order, their algebra, and the
// least-squares fit on normalised coordinates shared by the inverse, the
// merge and the map-to-DEM approximation.
#ifndef EPHO_REPROJECTION_POLY_INTERNAL_H
#define EPHO_REPROJECTION_POLY_INTERNAL_H

#include <vector>

namespace epho::reprojection {

constexpr long kMaxOrder = 5;

inline long TermCount(long order) { return (order + 1) * (order + 2) / 2; }
// Index of x^i y^j: terms of total degree n start at n(n+1)/2, x power
// descending within a degree.
inline long TermIndex(long i, long j) { return (i + j) * (i + j + 1) / 2 + j; }

// p(x, y) = sum c[TermIndex(i, j)] x^i y^j with i + j <= order. The order of
// a product may exceed 5 inside the algebra; only orders up to 5 leave it.
struct Poly2 {
  long order = 0;
  std::vector<double> c{0.0};

  static Poly2 Zero(long order);
  static Poly2 Constant(double v);
  static Poly2 FromCoefficients(long order, const double* coef);

  double Eval(double x, double y) const;
  Poly2 operator+(const Poly2& o) const;
  Poly2 operator*(const Poly2& o) const;
  Poly2 operator*(double s) const;
};

// p(X(u, v), Y(u, v)): exact substitution.
Poly2 Substitute(const Poly2& p, const Poly2& X, const Poly2& Y);

// An affine map of the plane to [-1, 1]² around a box: s = (x - cx) / sx.
struct Normalisation {
  double cx = 0.0, cy = 0.0, sx = 1.0, sy = 1.0;
  static Normalisation OfPoints(const std::vector<double>& xy);
  double S(double x) const { return (x - cx) / sx; }
  double T(double y) const { return (y - cy) / sy; }
  // s and t as polynomials of order 1 in raw x, y.
  Poly2 SPoly() const;
  Poly2 TPoly() const;
};

// Least-squares fit of order `order` from points `from_xy` (pairs) to the
// values `to_xy` (pairs), on coordinates normalised by `norm`. False when the
// design matrix is rank deficient (too few or degenerate points). The result
// polynomials take normalised coordinates.
bool FitNormalised(long order, const std::vector<double>& from_xy, const std::vector<double>& to_xy,
                   const Normalisation& norm, Poly2* px, Poly2* py);

// Nodes of an n x n grid over box (x0, y0, x1, y1), then the centres of its
// (n-1)² cells when `with_centres` (pairs).
std::vector<double> GridPoints(const double box[4], long n, bool with_centres);

}  // namespace epho::reprojection

#endif  // EPHO_REPROJECTION_POLY_INTERNAL_H
