#include "epho/fiducial.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstddef>
#include <vector>

namespace {

static_assert(sizeof(point2DWithID) == 20, "point2DWithID is packed to 4 bytes");
static_assert(offsetof(point2DWithID, x) == 4, "x follows the id directly");

constexpr double kCorner = 106.0, kMid = 110.0;

// Eight marks: ids 1-4 at the corners, 5-8 at the edge midpoints (film mm,
// y up). The midpoints lie on the corner square, so the nominal targets are
// exactly affine in them.
std::vector<point2DWithID> EightMarks(double mid = kCorner) {
  return {{1, kCorner, kCorner},  {2, -kCorner, kCorner}, {3, -kCorner, -kCorner},
          {4, kCorner, -kCorner}, {5, mid, 0.0},          {6, 0.0, mid},
          {7, -mid, 0.0},         {8, 0.0, -mid}};
}

struct Affine {
  double a[6];
  void Apply(double x, double y, double* X, double* Y) const {
    *X = a[0] + a[1] * x + a[2] * y;
    *Y = a[3] + a[4] * x + a[5] * y;
  }
};

// A scan of a 230 mm frame at ~21 um: slight rotation, different scales
// in x and y, a little shear, rows growing downwards.
const Affine kScan{{5013.5, 47.1, 0.35, 4987.25, 0.42, -47.3}};
// The same without shear and with equal scales: a similarity with a row flip.
const Affine kScanSimilar{{5013.5, 47.2 * std::cos(0.01), -47.2 * std::sin(0.01), 4987.25,
                           -47.2 * std::sin(0.01), -47.2 * std::cos(0.01)}};

FiducialPrediction Nominal(int count, int size_x = 10000, int size_y = 10000,
                           double mid = kCorner) {
  FiducialPrediction p;
  std::vector<point2DWithID> marks = EightMarks(mid);
  p.put_AllFilmCoordinates(count, marks.data());
  p.put_ImageSize(size_x, size_y);
  return p;
}

void ExpectPrediction(FiducialPrediction& p, int id, double x, double y, double tol = 1e-6) {
  double px = -1, py = -1;
  ASSERT_EQ(p.get_Prediction(id, &px, &py), 0) << "id " << id;
  EXPECT_NEAR(px, x, tol) << "id " << id;
  EXPECT_NEAR(py, y, tol) << "id " << id;
}

}  // namespace

// Nothing measured: corners inset by 2 % of the 10000 px image and edge
// midpoints in the middle of each edge.
TEST(FiducialPrediction, NominalCornersAndMidpoints) {
  FiducialPrediction four = Nominal(4);
  ExpectPrediction(four, 1, 9800, 200);
  ExpectPrediction(four, 2, 200, 200);
  ExpectPrediction(four, 3, 200, 9800);
  ExpectPrediction(four, 4, 9800, 9800);

  FiducialPrediction eight = Nominal(8);
  ExpectPrediction(eight, 1, 9800, 200);
  ExpectPrediction(eight, 5, 9800, 5000);
  ExpectPrediction(eight, 6, 5000, 200);
  ExpectPrediction(eight, 7, 200, 5000);
  ExpectPrediction(eight, 8, 5000, 9800);

  // A landscape scan with a wider edge fraction; negative sizes count by size.
  FiducialPrediction wide = Nominal(4, -12000, 8000);
  wide.put_FiducialToEdgePercent(0.05);
  ExpectPrediction(wide, 1, 11400, 400);
  ExpectPrediction(wide, 3, 600, 7600);
}

TEST(FiducialPrediction, OrientationTurnsTheNominalPositions) {
  FiducialPrediction upright = Nominal(8), turned = Nominal(8);
  turned.put_FiducialOrientation(FIDUCIAL_AXIS_ROTATE_180);
  EXPECT_DOUBLE_EQ(turned.get_OrientationAngle(), M_PI);
  for (int id = 1; id <= 8; ++id) {
    double x, y, tx, ty;
    ASSERT_EQ(upright.get_Prediction(id, &x, &y), 0);
    ASSERT_EQ(turned.get_Prediction(id, &tx, &ty), 0);
    EXPECT_NEAR(tx, 10000 - x, 1e-6) << id;
    EXPECT_NEAR(ty, 10000 - y, 1e-6) << id;
  }
  // A quarter turn counter-clockwise moves the +x mark to the top edge, and
  // three quarters to the bottom edge.
  FiducialPrediction quarter = Nominal(8);
  quarter.put_FiducialOrientation(FIDUCIAL_AXIS_ROTATE_90);
  ExpectPrediction(quarter, 5, 5000, 200);
  quarter.put_FiducialOrientation(FIDUCIAL_AXIS_ROTATE_270);
  EXPECT_DOUBLE_EQ(quarter.get_OrientationAngle(), 1.5 * M_PI);
  ExpectPrediction(quarter, 5, 5000, 9800);
  quarter.put_FiducialOrientation(static_cast<Epho_FiducialAxis>(9));
  EXPECT_EQ(quarter.get_OrientationAngle(), 0.0);
}

TEST(FiducialPrediction, SettingsAndMeasurementBookkeeping) {
  FiducialPrediction p;
  double x = 0, y = 0;
  EXPECT_EQ(p.get_Prediction(1, &x, &y), 1);
  EXPECT_EQ(p.RemoveMeasuredPoint(1), 1);
  std::vector<point2DWithID> marks = EightMarks();
  p.put_AllFilmCoordinates(1, marks.data());
  p.put_AllFilmCoordinates(9, marks.data());
  EXPECT_EQ(p.get_FiducialCount(), 0);

  p.put_AllFilmCoordinates(4, marks.data());
  EXPECT_EQ(p.get_Prediction(1, &x, &y), 0);  // no image size yet: not detected
  EXPECT_EQ(p.FinalSolve(nullptr, nullptr), -1.0);
  p = Nominal(4);
  EXPECT_EQ(p.get_Prediction(5, &x, &y), 2);
  EXPECT_EQ(p.get_Prediction(-1, &x, &y), 2);  // stored ids match by magnitude, not the argument

  p.put_FiducialToEdgePercent(0.4);
  EXPECT_EQ(p.get_FiducialToEdgePercent(), 0.4);
  p.put_FiducialToEdgePercent(0.41);
  p.put_FiducialToEdgePercent(-0.01);
  EXPECT_EQ(p.get_FiducialToEdgePercent(), 0.4);
  p.put_FiducialToEdgePercent(NAN);
  EXPECT_TRUE(std::isnan(p.get_FiducialToEdgePercent()));
  p.put_FiducialToEdgePercent(0.02);

  p.put_MeasuredCoordinates(1, 9700, 300);
  p.put_MeasuredCoordinates(1, 9750, 250);  // re-measuring does not count twice
  p.put_MeasuredCoordinates(17, 1, 1);      // unknown: ignored
  p.put_MeasuredCoordinates(-2, 250, 250);  // no fiducial has id -2: ignored
  EXPECT_EQ(p.get_MeasuredCount(), 1);
  p.put_MeasuredCoordinates(2, 250, 250);
  EXPECT_EQ(p.get_MeasuredCount(), 2);
  EXPECT_EQ(p.get_Prediction(2, &x, &y), 0);  // id 2, stored as -2, still found
  EXPECT_EQ(p.RemoveMeasuredPoint(-2), 1);
  EXPECT_EQ(p.RemoveMeasuredPoint(3), 1);  // not measured
  EXPECT_EQ(p.RemoveMeasuredPoint(17), 1);
  EXPECT_EQ(p.RemoveMeasuredPoint(2), 0);
  EXPECT_EQ(p.get_MeasuredCount(), 1);
  p.put_FiducialToEdgePercent(0.1);  // keeps measurements
  EXPECT_EQ(p.get_MeasuredCount(), 1);
  p.put_ImageSize(10000, 10000);
  EXPECT_EQ(p.get_MeasuredCount(), 0);
  EXPECT_EQ(p.RemoveMeasuredPoint(1), 1);
  p.put_MeasuredCoordinates(1, 9700, 300);
  p.put_FiducialOrientation(FIDUCIAL_AXIS_ROTATE_0);
  EXPECT_EQ(p.get_MeasuredCount(), 0);
  p.put_MeasuredCoordinates(1, 9700, 300);
  p.put_AllFilmCoordinates(4, marks.data());
  EXPECT_EQ(p.get_MeasuredCount(), 0);

  // Id 0 is stored but never counted, while removing it still counts down.
  std::vector<point2DWithID> zero = {{0, 100, 100}, {1, -100, -100}, {2, 100, -100}};
  p.put_AllFilmCoordinates(3, zero.data());
  p.put_MeasuredCoordinates(0, 10, 10);
  EXPECT_EQ(p.get_MeasuredCount(), 0);
  EXPECT_EQ(p.RemoveMeasuredPoint(0), 0);
  EXPECT_EQ(p.get_MeasuredCount(), -1);
}

// Two, three and four measured marks give back the scanner's film-to-image
// transform exactly, and with it every mark not yet measured.
TEST(FiducialPrediction, MeasuredMarksReproduceTheScanTransform) {
  struct Case {
    std::vector<int> measured;
    const Affine* truth;
  };
  const std::vector<Case> cases = {{{1, 3}, &kScanSimilar},
                                   {{2, 6}, &kScanSimilar},
                                   {{1, 2, 3}, &kScan},
                                   {{1, 2, 3, 4}, &kScan},
                                   {{5, 6, 7, 8}, &kScan}};
  const std::vector<point2DWithID> marks = EightMarks(kMid);
  for (const Case& c : cases) {
    FiducialPrediction p = Nominal(8, 10000, 10000, kMid);
    for (int id : c.measured) {
      double X, Y;
      c.truth->Apply(marks[id - 1].x, marks[id - 1].y, &X, &Y);
      p.put_MeasuredCoordinates(id, X, Y);
    }
    ASSERT_EQ(p.get_MeasuredCount(), static_cast<int>(c.measured.size()));
    for (const point2DWithID& m : marks) {
      double X, Y;
      c.truth->Apply(m.x, m.y, &X, &Y);
      SCOPED_TRACE(testing::Message() << c.measured.size() << " measured");
      ExpectPrediction(p, m.id, X, Y);
    }
    double kept[6];
    p.get_Transform(kept);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(kept[i], c.truth->a[i], 1e-9) << i;
    // The final solve passes through the marks: nothing is left over, and the
    // measured marks are flagged by a negative id.
    point2DWithID results[8];
    EXPECT_NEAR(p.FinalSolve(nullptr, results), 0.0, 1e-9);
    for (int id : c.measured) EXPECT_EQ(results[id - 1].id, -id);
  }
}

// One measured mark moves the nominal frame towards it: the mark itself is
// predicted between its nominal place and its measured one.
TEST(FiducialPrediction, OneMeasuredMarkShiftsTheNominalFrame) {
  FiducialPrediction p = Nominal(4);
  p.put_MeasuredCoordinates(1, 9900, 100);
  double x, y;
  ASSERT_EQ(p.get_Prediction(1, &x, &y), 0);
  EXPECT_GT(x, 9800);
  EXPECT_LT(x, 9900);
  EXPECT_LT(y, 200);
  EXPECT_GT(y, 100);
}

// Collinear marks cannot carry an affine: the prediction does not detect it
// (it answers from whatever the fit left), the final solve does.
TEST(FiducialPrediction, CollinearMarksAreCaughtByFinalSolveOnly) {
  FiducialPrediction p = Nominal(8);
  const std::vector<point2DWithID> marks = EightMarks();
  for (int id : {1, 5, 4}) {  // the right-hand frame edge
    double X, Y;
    kScan.Apply(marks[id - 1].x, marks[id - 1].y, &X, &Y);
    p.put_MeasuredCoordinates(id, X, Y);
  }
  double x = -1, y = -1;
  EXPECT_EQ(p.get_Prediction(2, &x, &y), 0);
  double coefficients[6] = {7, 7, 7, 7, 7, 7};
  EXPECT_EQ(p.FinalSolve(coefficients, nullptr), -1.0);
  EXPECT_EQ(coefficients[0], 7);
}

// The final transform on noisy measurements equals an independent least-
// squares affine (Eigen QR on the design matrix [1 x y]), the residuals are
// its residuals and the returned value their root mean square.
TEST(FiducialPrediction, FinalSolveIsTheLeastSquaresAffine) {
  const std::vector<point2DWithID> marks = EightMarks(kMid);
  const double noise[8][2] = {{0.7, -0.3}, {-0.4, 0.9}, {0.2, 0.5},  {-0.8, -0.6},
                              {0.3, 0.1},  {0.6, -0.9}, {-0.5, 0.4}, {0.1, 0.8}};
  for (int measured : {4, 6, 8}) {
    SCOPED_TRACE(measured);
    FiducialPrediction p = Nominal(8, 10000, 10000, kMid);
    Eigen::MatrixXd A(measured, 3);
    Eigen::MatrixXd b(measured, 2);
    for (int i = 0; i < measured; ++i) {
      double X, Y;
      kScan.Apply(marks[i].x, marks[i].y, &X, &Y);
      X += noise[i][0];
      Y += noise[i][1];
      p.put_MeasuredCoordinates(marks[i].id, X, Y);
      const double film_x = marks[i].x, film_y = marks[i].y;  // packed: copy out
      A.row(i) << 1.0, film_x, film_y;
      b.row(i) << X, Y;
    }
    const Eigen::MatrixXd solution = A.colPivHouseholderQr().solve(b);
    const Eigen::MatrixXd residual = b - A * solution;

    double coefficients[6];
    point2DWithID results[8];
    const double rms = p.FinalSolve(coefficients, results);
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(coefficients[k], solution(k, 0), 1e-8) << k;
      EXPECT_NEAR(coefficients[3 + k], solution(k, 1), 1e-8) << k;
    }
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(results[i].id, i < measured ? -marks[i].id : marks[i].id);
      EXPECT_NEAR(results[i].x, i < measured ? residual(i, 0) : 0.0, 1e-8) << i;
      EXPECT_NEAR(results[i].y, i < measured ? residual(i, 1) : 0.0, 1e-8) << i;
    }
    EXPECT_NEAR(rms, std::sqrt(residual.squaredNorm() / measured), 1e-9);
    EXPECT_GT(rms, 0.1);
  }

  // One mark: no solution, nothing filled.
  FiducialPrediction one = Nominal(8);
  one.put_MeasuredCoordinates(3, 100, 9000);
  point2DWithID results[8];
  results[0].id = 99;
  EXPECT_EQ(one.FinalSolve(nullptr, results), -1.0);
  EXPECT_EQ(results[0].id, 99);
}

TEST(FiducialPrediction, AssignmentCopiesTheState) {
  FiducialPrediction a = Nominal(8, 9000, 11000);
  a.put_FiducialToEdgePercent(0.03);
  a.put_FiducialOrientation(FIDUCIAL_AXIS_ROTATE_90);
  a.put_MeasuredCoordinates(1, 300, 400);
  FiducialPrediction b;
  b = a;
  EXPECT_EQ(b.get_MeasuredCount(), 1);
  EXPECT_EQ(b.get_FiducialToEdgePercent(), 0.03);
  for (int id = 1; id <= 8; ++id) {
    double ax, ay, bx, by;
    ASSERT_EQ(a.get_Prediction(id, &ax, &ay), 0);
    ASSERT_EQ(b.get_Prediction(id, &bx, &by), 0);
    EXPECT_EQ(ax, bx);
    EXPECT_EQ(ay, by);
  }
  b.put_ImageSize(100, 100);
  EXPECT_EQ(a.get_MeasuredCount(), 1);
}
