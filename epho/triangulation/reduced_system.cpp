// The two solve paths of the reduced parameter system.
//
// Dense: the packed upper triangle, row p starting at p*(2N-1-p)/2 so that
// element (p, q), q >= p, lies at that start plus q, factored, solved and
// inverted by the row-offset solvers. Memory grows as N^2, time as N^3.
//
// Sparse: only the blocks of image pairs that share a point are kept, in a
// compressed-column upper triangle whose pattern is fixed for the whole run;
// the LDL^T factor uses an approximate-minimum-degree ordering (analysed
// once), and the diagonal of the inverse comes from the selected inverse on
// the factor's pattern (Takahashi's recurrences), so no dense inverse is ever
// formed.
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCholesky>
#include <algorithm>
#include <new>

#include "epho/solvers.h"
#include "epho/triangulation/reduced_system_internal.h"

namespace epho::tri {
namespace {

class DenseSystem : public ReducedSystem {
 public:
  DenseSystem(const std::vector<int>& start, const std::vector<int>& size)
      : start_(start), size_(size) {
    n_ = 0;
    for (int s : size) n_ += s;
    const size_t n = static_cast<size_t>(n_);
    if (n * (n + 1) / 2 > 0xFFFFFFFFull) throw std::bad_alloc();
    a_.resize(n * (n + 1) / 2);
    rows_.resize(n);
    for (size_t p = 0; p < n; ++p) rows_[p] = static_cast<uint32_t>(p * (2 * n - 1 - p) / 2);
  }
  void Clear() override { std::fill(a_.begin(), a_.end(), 0.0); }
  void AddBlock(int i, int j, const double* block) override {
    const int ri = size_[i], cj = size_[j];
    for (int r = 0; r < ri; ++r) {
      const int p = start_[i] + r;
      double* row = a_.data() + rows_[p];
      for (int c = (i == j ? r : 0); c < cj; ++c) row[start_[j] + c] += block[r * cj + c];
    }
  }
  bool Factor() override { return !epho_Resolve1D(a_.data(), rows_.data(), 0, n_); }
  bool Solve(double* rhs) override { return !epho_Solution1D(a_.data(), rows_.data(), 0, n_, rhs); }
  bool InverseDiagonal(std::vector<double>* diagonal) override {
    if (epho_Inverld1D(a_.data(), rows_.data(), 0, n_)) return false;
    diagonal->resize(n_);
    for (int p = 0; p < n_; ++p) (*diagonal)[p] = a_[rows_[p] + p];
    return true;
  }
  bool IsSparse() const override { return false; }

 private:
  std::vector<int> start_, size_;
  int n_;
  std::vector<double> a_;
  std::vector<uint32_t> rows_;
};

class SparseSystem : public ReducedSystem {
  using Matrix = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;

 public:
  SparseSystem(const std::vector<int>& start, const std::vector<int>& size,
               const std::vector<std::pair<int, int>>& pairs)
      : start_(start), size_(size) {
    const int images = static_cast<int>(size.size());
    n_ = 0;
    for (int s : size) n_ += s;
    // Images coupled to image j from above (i < j), sorted, then j itself.
    std::vector<std::vector<int>> above(images);
    for (const auto& pr : pairs) above[pr.second].push_back(pr.first);
    for (int j = 0; j < images; ++j) {
      auto& v = above[j];
      std::sort(v.begin(), v.end());
      v.erase(std::unique(v.begin(), v.end()), v.end());
      v.push_back(j);
    }
    // Column pointers; each block (i, j) starts, in column c of block j, at
    // a fixed offset, remembered per block column.
    std::vector<int> outer(n_ + 1, 0);
    block_index_.resize(images);
    int64_t nnz = 0;
    for (int j = 0; j < images; ++j) {
      for (int c = 0; c < size[j]; ++c) {
        const int col = start[j] + c;
        outer[col] = static_cast<int>(nnz);
        for (int i : above[j]) nnz += (i == j) ? c + 1 : size[i];
        if (nnz > 0x7FFFFFFF) throw std::bad_alloc();
      }
    }
    outer[n_] = static_cast<int>(nnz);
    a_.resize(n_, n_);
    a_.resizeNonZeros(static_cast<Eigen::Index>(nnz));
    std::copy(outer.begin(), outer.end(), a_.outerIndexPtr());
    int* inner = a_.innerIndexPtr();
    for (int j = 0; j < images; ++j) {
      for (int c = 0; c < size[j]; ++c) {
        int k = outer[start[j] + c];
        for (int i : above[j]) {
          if (c == 0) block_index_[j].emplace_back(i, static_cast<int>(offsets_.size()));
          const int rows = (i == j) ? c + 1 : size[i];
          if (c == 0)
            for (int cc = 0; cc < size[j]; ++cc) offsets_.push_back(0);
          const int base = FindBlock(i, j);
          offsets_[base + c] = k;
          for (int r = 0; r < rows; ++r) inner[k++] = start[i] + r;
        }
      }
    }
    Clear();
    ldlt_.analyzePattern(a_);
  }

  void Clear() override { std::fill(a_.valuePtr(), a_.valuePtr() + a_.nonZeros(), 0.0); }

  void AddBlock(int i, int j, const double* block) override {
    const int base = FindBlock(i, j);
    const int ri = size_[i], cj = size_[j];
    double* values = a_.valuePtr();
    for (int c = 0; c < cj; ++c) {
      double* col = values + offsets_[base + c];
      const int rows = (i == j) ? c + 1 : ri;
      for (int r = 0; r < rows; ++r) col[r] += block[r * cj + c];
    }
  }

  bool Factor() override {
    ldlt_.factorize(a_);
    return ldlt_.info() == Eigen::Success;
  }

  bool Solve(double* rhs) override {
    Eigen::Map<Eigen::VectorXd> b(rhs, n_);
    Eigen::VectorXd x = ldlt_.solve(b);
    if (ldlt_.info() != Eigen::Success || !x.allFinite()) return false;
    b = x;
    return true;
  }

  // Takahashi: with P A P^T = L D L^T and Z = (L D L^T)^-1, for column i
  // (last to first) and its pattern s: Z(j, i) = -sum_{k in s} L(k, i) Z(k, j)
  // for j in s, then Z(i, i) = 1/D(i) - sum_{k in s} L(k, i) Z(k, i). Every
  // Z(k, j) needed lies on the factor's pattern, so Z is kept there.
  bool InverseDiagonal(std::vector<double>* diagonal) override {
    const Matrix& L = ldlt_.matrixL().nestedExpression();
    const Eigen::VectorXd& D = ldlt_.vectorD();
    const int n = n_;
    const int* lp = L.outerIndexPtr();
    const int* li = L.innerIndexPtr();
    const double* lx = L.valuePtr();
    std::vector<double> z(static_cast<size_t>(L.nonZeros()), 0.0);
    std::vector<double> zdiag(n, 0.0);
    std::vector<int> pos(n, -1);
    std::vector<double> acc;
    for (int i = n - 1; i >= 0; --i) {
      if (D(i) == 0.0) return false;
      const int b0 = lp[i], b1 = lp[i + 1];
      const int m = b1 - b0;
      acc.assign(m, 0.0);
      for (int t = 0; t < m; ++t) pos[li[b0 + t]] = t;
      // acc[t] = sum_k L(k, i) Z(k, j_t), over k in s.
      for (int u = 0; u < m; ++u) {
        const int k = li[b0 + u];
        const double lki = lx[b0 + u];
        acc[u] += lki * zdiag[k];
        // Z(j, k) for j > k in column k's pattern, intersected with s.
        for (int q = lp[k]; q < lp[k + 1]; ++q) {
          const int t = pos[li[q]];
          if (t < 0) continue;
          const double zjk = z[q];
          acc[t] += lki * zjk;         // k contributes to row j
          acc[u] += lx[b0 + t] * zjk;  // j contributes to row k
        }
      }
      double dsum = 0.0;
      for (int t = 0; t < m; ++t) {
        z[b0 + t] = -acc[t];
        dsum += lx[b0 + t] * z[b0 + t];
      }
      zdiag[i] = 1.0 / D(i) - dsum;
      for (int t = 0; t < m; ++t) pos[li[b0 + t]] = -1;
    }
    diagonal->resize(n);
    const auto& perm = ldlt_.permutationP().indices();
    for (int k = 0; k < n; ++k) (*diagonal)[k] = zdiag[perm(k)];
    return true;
  }

  bool IsSparse() const override { return true; }

 private:
  int FindBlock(int i, int j) const {
    const auto& v = block_index_[j];
    auto it = std::lower_bound(v.begin(), v.end(), std::make_pair(i, 0),
                               [](const std::pair<int, int>& a, const std::pair<int, int>& b) {
                                 return a.first < b.first;
                               });
    return it->second;
  }

  std::vector<int> start_, size_;
  int n_;
  Matrix a_;
  // Per image j: (i, index into offsets_) of the blocks (i, j), i sorted.
  std::vector<std::vector<std::pair<int, int>>> block_index_;
  std::vector<int> offsets_;  // per block column: value index of its first row
  Eigen::SimplicialLDLT<Matrix, Eigen::Upper, Eigen::AMDOrdering<int>> ldlt_;
};

}  // namespace

std::unique_ptr<ReducedSystem> MakeDenseSystem(const std::vector<int>& start,
                                               const std::vector<int>& size) {
  return std::make_unique<DenseSystem>(start, size);
}

std::unique_ptr<ReducedSystem> MakeSparseSystem(const std::vector<int>& start,
                                                const std::vector<int>& size,
                                                const std::vector<std::pair<int, int>>& pairs) {
  return std::make_unique<SparseSystem>(start, size, pairs);
}

}  // namespace epho::tri
