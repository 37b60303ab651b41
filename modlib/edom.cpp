// Dense matrix routines on Eigen. Row-major in and out, as the C callers
// store their normal equations.
#include "edom.h"

#include <Eigen/Cholesky>
#include <Eigen/Dense>
#include <cmath>

#include "platform/eerr/error_frame.h"

namespace {

using RowMatrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using ConstMap = Eigen::Map<const RowMatrix>;
using Map = Eigen::Map<RowMatrix>;

// Below this reciprocal condition estimate a matrix counts as singular.
constexpr double kMinRcond = 1e-14;

bool AllFinite(const ConstMap& m) { return m.allFinite(); }

}  // namespace

extern "C" {

Emsc_Boolean edom_MatrixInv(long n, const double* a, double* inverse) KZDV_NOEXCEPT try {
  if (n < 1 || !a || !inverse) return EMSC_FALSE;
  ConstMap am(a, n, n);
  if (!AllFinite(am)) return EMSC_FALSE;
  Eigen::PartialPivLU<RowMatrix> lu(am);
  if (!(lu.rcond() >= kMinRcond)) return EMSC_FALSE;
  RowMatrix inv = lu.inverse();
  if (!inv.allFinite()) return EMSC_FALSE;
  Map(inverse, n, n) = inv;
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

Emsc_Boolean edom_MatrixSolve(long n, long m, const double* a, const double* b,
                              double* x) KZDV_NOEXCEPT try {
  if (n < 1 || m < 1 || !a || !b || !x) return EMSC_FALSE;
  ConstMap am(a, n, n);
  ConstMap bm(b, n, m);
  if (!AllFinite(am) || !AllFinite(bm)) return EMSC_FALSE;
  Eigen::PartialPivLU<RowMatrix> lu(am);
  if (!(lu.rcond() >= kMinRcond)) return EMSC_FALSE;
  RowMatrix sol = lu.solve(RowMatrix(bm));
  if (!sol.allFinite()) return EMSC_FALSE;
  Map(x, n, m) = sol;
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

Emsc_Boolean edom_SymmetricSolve(long n, const double* normal, const double* b,
                                 double* x) KZDV_NOEXCEPT try {
  if (n < 1 || !normal || !b || !x) return EMSC_FALSE;
  ConstMap nm(normal, n, n);
  Eigen::Map<const Eigen::VectorXd> bv(b, n);
  if (!AllFinite(nm) || !bv.allFinite()) return EMSC_FALSE;
  Eigen::LLT<RowMatrix> llt(nm);
  if (llt.info() != Eigen::Success) return EMSC_FALSE;
  Eigen::VectorXd sol = llt.solve(Eigen::VectorXd(bv));
  if (!sol.allFinite()) return EMSC_FALSE;
  Eigen::Map<Eigen::VectorXd>(x, n) = sol;
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

Emsc_Boolean edom_MatrixMultiply(long rows, long inner, long columns, const double* a,
                                 const double* b, double* c) KZDV_NOEXCEPT try {
  if (rows < 1 || inner < 1 || columns < 1 || !a || !b || !c) return EMSC_FALSE;
  Map(c, rows, columns).noalias() = ConstMap(a, rows, inner) * ConstMap(b, inner, columns);
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

Emsc_Boolean edom_MatrixTranspose(long rows, long columns, const double* a, double* t) KZDV_NOEXCEPT
    try {
  if (rows < 1 || columns < 1 || !a || !t) return EMSC_FALSE;
  Map(t, columns, rows) = ConstMap(a, rows, columns).transpose();
  return EMSC_TRUE;
}
EERR_BOUNDARY(nullptr, EMSC_FALSE)

double edom_MatrixDet(long n, const double* a) KZDV_NOEXCEPT try {
  if (n < 1 || !a) return 0.0;
  return ConstMap(a, n, n).determinant();
}
EERR_BOUNDARY(nullptr, 0.0)

}  // extern "C"
