// The refinement against an independent least-squares adjustment of the same
// model (dense Eigen Gauss-Newton with the analytic pinhole Jacobian), the
// dense and sparse solve paths against each other, and the behaviour of
// control and check points on synthetic blocks with known truth.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "epho/triangulation/synthetic_block_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using epho::triangulation::synthetic::Build;
using epho::triangulation::synthetic::Options;
using epho::triangulation::synthetic::Pinhole;
using epho::triangulation::synthetic::Truth;

// What the independent adjustment needs, copied before the run rewrites it.
struct Measurements {
  struct Obs {
    int32_t id;
    double x, y;  // image units
  };
  std::vector<std::vector<Obs>> per_image;
  std::vector<std::array<double, 6>> affine;
  std::vector<std::array<double, 6>> factor;  // normalisation factors (single precision)
  std::vector<double> prior_weight;           // per image (all terms alike here)
  std::map<int32_t, Epho_TriGroundPoint> control;
};

Measurements Copy(const Epho_TriRefineInput& in, const Options& o) {
  Measurements m;
  const double sx = in.imageStdX * 0.01;
  for (int i = 0; i < in.imageCount; ++i) {
    const Epho_TriImage& im = in.images[i];
    std::array<double, 6> a;
    std::copy(im.affine, im.affine + 6, a.begin());
    m.affine.push_back(a);
    std::vector<Measurements::Obs> obs;
    for (int k = 0; k < im.imagePointCount; ++k) {
      const auto& p = im.imagePoints[k];
      obs.push_back({p.pointID, a[0] + a[1] * p.x + a[2] * p.y, a[3] + a[4] * p.x + a[5] * p.y});
    }
    m.per_image.push_back(obs);
    const float ex =
        static_cast<float>(std::fabs(a[0] + a[1] * im.rows + a[2] * im.columns) * 0.85);
    const float ey =
        static_cast<float>(std::fabs(a[3] + a[4] * im.rows + a[5] * im.columns) * 0.85);
    const double dx = ex, dy = ey;
    m.factor.push_back({1.0, static_cast<float>(1.0 / dx), static_cast<float>(1.0 / dy),
                        static_cast<float>(1.0 / (dx * dx)), static_cast<float>(1.0 / (dx * dy)),
                        static_cast<float>(1.0 / (dy * dy))});
    const double s = o.parameter_std;
    m.prior_weight.push_back(static_cast<float>((sx / s) * (sx / s)));
  }
  for (int p = 0; p < in.groundPointCount; ++p)
    if (in.groundPoints[p].usage == EPHO_TRI_USAGE_CONTROL)
      m.control[in.groundPoints[p].pointID] = in.groundPoints[p];
  return m;
}

struct Independent {
  std::map<int32_t, Eigen::Vector3d> points;
  std::vector<std::vector<double>> coefficients;
};

// Gauss-Newton on: image residual = (x - sum a_k u_k(x, y)) - affine(project(X)),
// weight 1; prior on (a_initial - a)/f with the image's prior weight;
// control either fixed or observed with weight (sx/s)^2.
Independent Solve(const Measurements& m, const Truth& truth, int n, bool fixed_control, double sx,
                  double control_std) {
  const int images = static_cast<int>(m.per_image.size());
  std::map<int32_t, int> count;
  for (const auto& obs : m.per_image)
    for (const auto& o : obs) ++count[o.id];
  std::map<int32_t, int> index;  // point unknown block, -1: fixed
  int unknowns = 2 * n * images;
  for (const auto& [id, c] : count) {
    if (c < 2) continue;
    const bool control = m.control.count(id) > 0;
    if (control && fixed_control) {
      index[id] = -1;
    } else {
      index[id] = unknowns;
      unknowns += 3;
    }
  }
  Independent r;
  r.coefficients.assign(images, std::vector<double>(2 * n, 0.0));
  for (const auto& [id, k] : index) {
    auto c = m.control.find(id);
    r.points[id] = c != m.control.end() ? Eigen::Vector3d(c->second.X, c->second.Y, c->second.Z)
                                        : truth.points.at(id) + Eigen::Vector3d(0.5, -0.5, 1.0);
  }
  const double wc = (sx / control_std) * (sx / control_std);
  for (int it = 0; it < 30; ++it) {
    Eigen::MatrixXd N = Eigen::MatrixXd::Zero(unknowns, unknowns);
    Eigen::VectorXd g = Eigen::VectorXd::Zero(unknowns);
    for (int i = 0; i < images; ++i) {
      const auto& a = m.affine[i];
      Eigen::Matrix2d lin;
      lin << a[1], a[2], a[4], a[5];
      for (const auto& o : m.per_image[i]) {
        auto ix = index.find(o.id);
        if (ix == index.end()) continue;
        const Eigen::Vector3d& X = r.points[o.id];
        const Eigen::Vector2d px = truth.cameras[i].Project(X);
        const Eigen::Matrix<double, 2, 3> J = lin * truth.cameras[i].Jacobian(X);
        const double u[6] = {1, o.x, o.y, o.x * o.x, o.x * o.y, o.y * o.y};
        double dx = 0, dy = 0;
        for (int k = 0; k < n; ++k)
          dx += r.coefficients[i][k] * u[k], dy += r.coefficients[i][n + k] * u[k];
        const Eigen::Vector2d res(o.x - dx - (a[0] + a[1] * px(0) + a[2] * px(1)),
                                  o.y - dy - (a[3] + a[4] * px(0) + a[5] * px(1)));
        // Jacobian rows of the residual.
        for (int axis = 0; axis < 2; ++axis) {
          std::vector<std::pair<int, double>> row;
          for (int k = 0; k < n; ++k) row.emplace_back(2 * n * i + axis * n + k, -u[k]);
          if (ix->second >= 0)
            for (int c = 0; c < 3; ++c) row.emplace_back(ix->second + c, -J(axis, c));
          for (auto& [p, v] : row) {
            g(p) += v * res(axis);
            for (auto& [q, w] : row) N(p, q) += v * w;
          }
        }
      }
      for (int k = 0; k < 2 * n; ++k) {
        const double f = m.factor[i][k % n];
        const double P = -r.coefficients[i][k] / f;  // initial values are 0
        const double d = -1.0 / f;                   // dP/da
        const int p = 2 * n * i + k;
        N(p, p) += m.prior_weight[i] * d * d;
        g(p) += m.prior_weight[i] * d * P;
      }
    }
    if (!fixed_control)
      for (const auto& [id, c] : m.control) {
        auto ix = index.find(id);
        if (ix == index.end() || ix->second < 0) continue;
        const Eigen::Vector3d& X = r.points[id];
        const double given[3] = {c.X, c.Y, c.Z};
        for (int k = 0; k < 3; ++k) {
          N(ix->second + k, ix->second + k) += wc;
          g(ix->second + k) += wc * (X(k) - given[k]);
        }
      }
    const Eigen::VectorXd delta = N.ldlt().solve(-g);
    for (int i = 0; i < images; ++i)
      for (int k = 0; k < 2 * n; ++k) r.coefficients[i][k] += delta(2 * n * i + k);
    for (auto& [id, X] : r.points) {
      const int k = index[id];
      if (k >= 0) X += delta.segment<3>(k);
    }
    if (delta.lpNorm<Eigen::Infinity>() < 1e-12) break;
  }
  return r;
}

// The sigma_a and sigma_b arrays of a result file, in file order.
std::vector<double> Sigmas(const std::string& path) {
  std::ifstream f(path);
  const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  std::vector<double> out;
  size_t pos = 0;
  while ((pos = text.find("\"sigma_", pos)) != std::string::npos) {
    pos = text.find('[', pos) + 1;
    const size_t end = text.find(']', pos);
    std::istringstream in(text.substr(pos, end - pos));
    std::string item;
    while (std::getline(in, item, ',')) out.push_back(std::stod(item));
    pos = end;
  }
  return out;
}

struct BlockRun {
  Epho_TriRefineInput in{};
  Truth truth;
  Measurements m;
  testutil::ScratchDir dir{"tri"};
  std::wstring report;
  Eerr_ErrorReport* err = nullptr;
  ~BlockRun() {
    eerr_DeleteErrorReportEx(&err);
    epho_FreeTriRefineMemory(&in, nullptr);
  }
  std::wstring json;
  void Go(const Options& o, int16_t solver, bool with_json = false,
          const std::function<void(Epho_TriRefineInput&)>& tweak = {}) {
    Build(o, &in, &truth);
    if (tweak) tweak(in);
    json = dir.WFile("result.json");
    if (with_json) in.jsonFileName = const_cast<Etxt_Char*>(json.c_str());
    m = Copy(in, o);
    report = dir.WFile("report.txt");
    in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
    in.solver = solver;
    epho_TriRefine(&in, &err);
  }
  double Parameter(int i, int k, int n) const {
    const Epho_TriImage& im = in.images[i];
    return im.initialValues[k] - im.currentParameters[k] * m.factor[i][k % n];
  }
};

struct Case {
  const char* name;
  int fix_control;
  int16_t solver;
  int per_axis;
};

class AgainstIndependent : public ::testing::TestWithParam<Case> {};

TEST_P(AgainstIndependent, GroundPointsAndCorrections) {
  const Case c = GetParam();
  Options o;
  o.fix_control = c.fix_control;
  o.per_axis = c.per_axis;
  o.noise_pixels = 0.3;
  // The iteration stops once s0 changes by less than 2 %, usually after the
  // second step; a first step of about a metre leaves the second one at a
  // few millimetres and the remaining linearisation error far below 1e-6.
  o.systematic = 0.0005;
  BlockRun run;
  run.Go(o, c.solver);
  ASSERT_EQ(run.err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(run.err));
  ASSERT_EQ(run.in.converged, 1);
  const Independent ind =
      Solve(run.m, run.truth, o.per_axis, c.fix_control == 0, 0.005, o.control_std);
  int compared = 0;
  for (int p = 0; p < run.in.resultPointCount; ++p) {
    const Epho_TriGroundPoint& q = run.in.resultPoints[p];
    auto it = ind.points.find(q.pointID);
    ASSERT_NE(it, ind.points.end()) << q.pointID;
    EXPECT_NEAR(q.X, it->second(0), 1e-6) << q.pointID;  // metres
    EXPECT_NEAR(q.Y, it->second(1), 1e-6) << q.pointID;
    EXPECT_NEAR(q.Z, it->second(2), 1e-6) << q.pointID;
    ++compared;
  }
  EXPECT_EQ(compared, static_cast<int>(ind.points.size()));
  for (int i = 0; i < run.in.imageCount; ++i)
    for (int k = 0; k < 2 * o.per_axis; ++k)
      EXPECT_NEAR(run.Parameter(i, k, o.per_axis), ind.coefficients[i][k],
                  1e-9 + 1e-6 * std::fabs(ind.coefficients[i][k]))
          << "image " << i << " term " << k;
}

INSTANTIATE_TEST_SUITE_P(Blocks, AgainstIndependent,
                         ::testing::Values(Case{"FixedDense", 0, EPHO_TRI_SOLVER_DENSE, 3},
                                           Case{"WeightedDense", 1, EPHO_TRI_SOLVER_DENSE, 6},
                                           Case{"FixedSparse", 0, EPHO_TRI_SOLVER_SPARSE, 6},
                                           Case{"WeightedSparse", 1, EPHO_TRI_SOLVER_SPARSE, 1}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TriRefine, FixedControlNeverMovesAndCheckPointsReachTheNoise) {
  Options o;
  o.fix_control = 0;
  o.noise_pixels = 0.3;
  o.systematic = 0.01;  // ten pixels at the image edge
  BlockRun run;
  run.Go(o, EPHO_TRI_SOLVER_AUTO);
  ASSERT_EQ(run.err, nullptr);
  int control = 0, check = 0;
  double sq_xy = 0, sq_z = 0;
  for (int p = 0; p < run.in.resultPointCount; ++p) {
    const Epho_TriGroundPoint& q = run.in.resultPoints[p];
    const Eigen::Vector3d t = run.truth.points.at(q.pointID);
    auto c = run.m.control.find(q.pointID);
    if (c != run.m.control.end()) {
      EXPECT_EQ(q.X, c->second.X);
      EXPECT_EQ(q.Y, c->second.Y);
      EXPECT_EQ(q.Z, c->second.Z);
      ++control;
    } else if (q.usage == EPHO_TRI_USAGE_CHECK) {
      sq_xy += (q.X - t(0)) * (q.X - t(0)) + (q.Y - t(1)) * (q.Y - t(1));
      sq_z += (q.Z - t(2)) * (q.Z - t(2));
      ++check;
    }
  }
  ASSERT_GT(control, 3);
  ASSERT_GT(check, 3);
  // One pixel is one metre on the ground; 0.3 px of noise over 2-4 rays and
  // a base-to-height ratio of 0.4 give some decimetres in X, Y and about
  // twice that in Z. The 10-pixel systematic error would give metres.
  EXPECT_LT(std::sqrt(sq_xy / (2 * check)), 0.4);
  EXPECT_LT(std::sqrt(sq_z / check), 1.0);
  EXPECT_GT(run.in.unitWeightStdError, 0.0f);
  EXPECT_LT(run.in.unitWeightStdError, 0.005f * 1.5f);  // s0 near the 0.3 px noise, image units
}

// Blocks for the two solve paths: a regular one, and one whose images carry
// different term counts (1 to 6 per axis) with a fixed and a free image in
// it, so that the supernodes mix block sizes.
struct PathCase {
  const char* name;
  int strips, per_strip, fix_control;
  bool mixed;
};

class DenseAndSparse : public ::testing::TestWithParam<PathCase> {};

TEST_P(DenseAndSparse, PathsAgree) {
  const PathCase c = GetParam();
  Options o;
  o.fix_control = c.fix_control;
  o.noise_pixels = 0.5;
  o.strips = c.strips;
  o.per_strip = c.per_strip;
  o.per_axis = 6;
  auto mix = [&](Epho_TriRefineInput& in) {
    if (!c.mixed) return;
    for (int i = 0; i < in.imageCount; ++i)
      in.images[i].parameterCount = static_cast<int16_t>(2 * (1 + i % 6));
    in.images[1].parameterMode = EPHO_TRI_MODE_FIXED;
    in.images[in.imageCount / 2].parameterMode = EPHO_TRI_MODE_FREE;
  };
  BlockRun dense, sparse;
  dense.Go(o, EPHO_TRI_SOLVER_DENSE, true, mix);
  sparse.Go(o, EPHO_TRI_SOLVER_SPARSE, true, mix);
  ASSERT_EQ(dense.err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(dense.err));
  ASSERT_EQ(sparse.err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(sparse.err));
  EXPECT_EQ(dense.in.iterations, sparse.in.iterations);
  EXPECT_NEAR(dense.in.unitWeightStdError, sparse.in.unitWeightStdError,
              1e-6 * std::fabs(dense.in.unitWeightStdError));
  ASSERT_EQ(dense.in.resultPointCount, sparse.in.resultPointCount);
  size_t params = 0;
  for (int i = 0; i < dense.in.imageCount; ++i) {
    const int n = dense.in.images[i].parameterCount;
    ASSERT_EQ(n, sparse.in.images[i].parameterCount);
    params += n;
    for (int k = 0; k < n; ++k) {
      const double a = dense.in.images[i].currentParameters[k];
      const double b = sparse.in.images[i].currentParameters[k];
      EXPECT_NEAR(a, b, 1e-9 * std::max(1.0, std::fabs(a))) << i << " " << k;
    }
  }
  for (int p = 0; p < dense.in.resultPointCount; ++p) {
    EXPECT_NEAR(dense.in.resultPoints[p].X, sparse.in.resultPoints[p].X, 1e-9 * 2000);
    EXPECT_NEAR(dense.in.resultPoints[p].Y, sparse.in.resultPoints[p].Y, 1e-9 * 2000);
    EXPECT_NEAR(dense.in.resultPoints[p].Z, sparse.in.resultPoints[p].Z, 1e-9 * 2000);
  }
  // Parameter accuracies, from the dense inverse and from the selected
  // inverse of the sparse factor.
  const std::vector<double> sd = Sigmas(kzdv::ToUtf8(dense.json));
  const std::vector<double> ss = Sigmas(kzdv::ToUtf8(sparse.json));
  ASSERT_EQ(sd.size(), params);
  ASSERT_EQ(ss.size(), sd.size());
  for (size_t k = 0; k < sd.size(); ++k) {
    EXPECT_GT(sd[k], 0.0);
    EXPECT_NEAR(sd[k], ss[k], 1e-9 * sd[k]) << k;
  }
}

INSTANTIATE_TEST_SUITE_P(Blocks, DenseAndSparse,
                         ::testing::Values(PathCase{"Regular", 4, 4, 1, false},
                                           PathCase{"MixedTermCounts", 5, 7, 0, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// The JSON beside the report, read by Python's own parser: it must be valid
// JSON and hold what the run handed back in the input record, the points'
// rays as measured, and ground residuals of control and check points as
// given minus adjusted.
TEST(TriRefine, JsonHoldsTheResultsOfTheRun) {
  if (std::system("/usr/bin/python3 -c 'import json' > /dev/null 2>&1") != 0)
    GTEST_SKIP() << "no python3";
  Options o;
  o.fix_control = 1;  // weighted control: its residuals are not zero
  o.noise_pixels = 0.3;
  std::map<int32_t, Epho_TriGroundPoint> given;
  BlockRun run;
  run.Go(o, EPHO_TRI_SOLVER_AUTO, true, [&](Epho_TriRefineInput& in) {
    for (int p = 0; p < in.groundPointCount; ++p)
      given[in.groundPoints[p].pointID] = in.groundPoints[p];
  });
  ASSERT_EQ(run.err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(run.err));
  const std::string script = run.dir.File("read.py"), out = run.dir.File("out.txt");
  std::ofstream(script) << R"(import json, sys
d = json.load(open(sys.argv[1]))
print("run", int(d["converged"]), int(d["diverged"]), d["iterations"],
      repr(d["unit_weight_standard_error"]), len(d["images"]))
for p in d["points"]:
    r = p.get("residual") or []
    print("point", p["id"], p["usage"], repr(p["X"]), repr(p["Y"]), repr(p["Z"]),
          p["overlap"], len(p["rays"]), *["nan" if v is None else repr(v) for v in r])
for k in ("control", "check"):
    s = d[k]
    print(k, s["count_xy"], s["count_z"], *map(repr, s["mean"] + s["rmse"]))
for im in d["images"]:
    print("image", im["id"], len(im["a"]), len(im["b"]), len(im["sigma_a"]), len(im["sigma_b"]))
)";
  ASSERT_EQ(
      std::system(
          ("/usr/bin/python3 " + script + " " + kzdv::ToUtf8(run.json) + " > " + out).c_str()),
      0);
  std::map<int32_t, int> rays;
  for (const auto& obs : run.m.per_image)
    for (const auto& ob : obs) ++rays[ob.id];
  std::map<int32_t, const Epho_TriGroundPoint*> result;
  for (int p = 0; p < run.in.resultPointCount; ++p)
    result[run.in.resultPoints[p].pointID] = &run.in.resultPoints[p];

  std::ifstream f(out);
  std::string line;
  int points = 0, images = 0;
  double check_sq[3] = {0, 0, 0};
  int check_n = 0;
  while (std::getline(f, line)) {
    std::istringstream in(line);
    std::string kind;
    in >> kind;
    if (kind == "run") {
      int converged, diverged, iterations, image_count;
      double s0;
      in >> converged >> diverged >> iterations >> s0 >> image_count;
      EXPECT_EQ(converged, run.in.converged);
      EXPECT_EQ(diverged, 0);
      EXPECT_EQ(iterations, run.in.iterations);
      EXPECT_NEAR(s0, run.in.unitWeightStdError, 1e-6 * s0);
      EXPECT_EQ(image_count, run.in.imageCount);
    } else if (kind == "point") {
      int32_t id;
      std::string usage;
      double x, y, z;
      int overlap, n_rays;
      in >> id >> usage >> x >> y >> z >> overlap >> n_rays;
      ++points;
      ASSERT_TRUE(result.count(id)) << id;
      EXPECT_EQ(x, result[id]->X);
      EXPECT_EQ(y, result[id]->Y);
      EXPECT_EQ(z, result[id]->Z);
      EXPECT_EQ(overlap, rays[id]) << id;
      EXPECT_EQ(n_rays, rays[id]) << id;
      auto g = given.find(id);
      const char* expected = g == given.end()                            ? "tie"
                             : g->second.usage == EPHO_TRI_USAGE_CONTROL ? "control"
                                                                         : "check";
      EXPECT_EQ(usage, expected) << id;
      if (g == given.end()) continue;
      double r[3];
      ASSERT_TRUE(in >> r[0] >> r[1] >> r[2]) << line;
      const double d[3] = {g->second.X - x, g->second.Y - y, g->second.Z - z};
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(r[k], d[k], 1e-9) << id;
      if (usage == "check") {
        ++check_n;
        for (int k = 0; k < 3; ++k) check_sq[k] += d[k] * d[k];
      }
    } else if (kind == "control" || kind == "check") {
      int nxy, nz;
      double mean[3], rmse[3];
      in >> nxy >> nz >> mean[0] >> mean[1] >> mean[2] >> rmse[0] >> rmse[1] >> rmse[2];
      if (kind == "control") {
        EXPECT_EQ(nxy, run.in.controlResidualCount[0]);
        EXPECT_EQ(nz, run.in.controlResidualCount[2]);
        EXPECT_GT(nxy, 3);
        for (int k = 0; k < 3; ++k) {
          EXPECT_NEAR(mean[k], run.in.controlResidualMean[k], 1e-6 * rmse[k]);
          EXPECT_NEAR(rmse[k], run.in.controlResidualRmse[k], 1e-6 * rmse[k]);
          EXPECT_GT(rmse[k], 0.0);
        }
      } else {
        ASSERT_GT(check_n, 3);
        EXPECT_EQ(nxy, check_n);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(rmse[k], std::sqrt(check_sq[k] / check_n), 1e-9);
      }
    } else if (kind == "image") {
      int id, na, nb, nsa, nsb;
      in >> id >> na >> nb >> nsa >> nsb;
      EXPECT_EQ(id, run.in.images[images].imageID);
      EXPECT_EQ(na, o.per_axis);
      EXPECT_EQ(nb, o.per_axis);
      EXPECT_EQ(nsa, o.per_axis);
      EXPECT_EQ(nsb, o.per_axis);
      ++images;
    }
  }
  EXPECT_EQ(points, run.in.resultPointCount);
  EXPECT_EQ(images, run.in.imageCount);
}

}  // namespace
