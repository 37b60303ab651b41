// Normal-equation solve: our packed-storage factor + solve (epho_Resolve1D,
// epho_Solution1D) against Eigen's LDLT (compute + solve, single thread) on
// the same symmetric positive-definite systems. Each side copies its input
// matrix once per run (ours works in place, Eigen copies inside compute).
#include <Eigen/Dense>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "epho/solvers.h"

namespace {

struct System {
  Eigen::MatrixXd full;
  Eigen::VectorXd rhs;
  std::vector<double> packed;  // upper triangle, row after row
  std::vector<uint32_t> rows;  // packed row offsets: a[rows[i] + j]
};

System MakeSystem(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Eigen::MatrixXd b(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) b(i, j) = u(rng);
  System s;
  s.full = b * b.transpose() / n + Eigen::MatrixXd::Identity(n, n);
  s.rhs.resize(n);
  for (int i = 0; i < n; ++i) s.rhs(i) = u(rng);
  s.rows.resize(n);
  size_t start = 0;
  for (int i = 0; i < n; ++i) {
    s.rows[i] = static_cast<uint32_t>(start - i);
    for (int j = i; j < n; ++j) s.packed.push_back(s.full(i, j));
    start += n - i;
  }
  return s;
}

}  // namespace

int main() {
  Eigen::setNbThreads(1);
  for (int n : {100, 500, 1000}) {
    const System sys = MakeSystem(n, 1234u + n);
    const int repeats = n <= 100 ? 200 : (n <= 500 ? 10 : 5);

    std::vector<double> work(sys.packed.size());
    std::vector<double> x(n);
    bool failed = false;
    const double ours = bench::BestSeconds(repeats, [&] {
      std::memcpy(work.data(), sys.packed.data(), sys.packed.size() * sizeof(double));
      std::memcpy(x.data(), sys.rhs.data(), n * sizeof(double));
      failed |= epho_Resolve1D(work.data(), sys.rows.data(), 0, n) != EMSC_FALSE;
      failed |= epho_Solution1D(work.data(), sys.rows.data(), 0, n, x.data()) != EMSC_FALSE;
    });

    Eigen::LDLT<Eigen::MatrixXd> ldlt(n);
    Eigen::VectorXd xe(n);
    const double peer = bench::BestSeconds(repeats, [&] {
      ldlt.compute(sys.full);
      xe = ldlt.solve(sys.rhs);
    });

    double diff = 0.0;
    for (int i = 0; i < n; ++i) diff = std::max(diff, std::abs(x[i] - xe(i)));
    if (failed || !(diff < 1e-9)) {
      std::printf("solvers_bench: results disagree at N=%d (max |dx| %g)\n", n, diff);
      return 1;
    }
    bench::PrintComparison("packed LDL^T factor+solve N=" + std::to_string(n),
                           "Eigen LDLT 1 thread", ours, peer,
                           n == 1000 ? "(target: x0.50 or better)" : "");
  }
  return 0;
}
