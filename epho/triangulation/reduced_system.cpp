// The two solve paths of the reduced parameter system.
//
// Dense: the packed upper triangle, row p starting at p*(2N-1-p)/2 so that
// element (p, q), q >= p, lies at that start plus q, factored, solved and
// inverted by the row-offset solvers. Memory grows as N^2, time as N^3.
//
// Sparse: the images are ordered to reduce fill, the factor's structure is
// worked out once on the image graph, and the factor is kept as dense
// supernode panels of whole image blocks, so that the numerical work runs in
// dense matrix products rather than entry by entry. The diagonal of the
// inverse comes from the selected inverse on the factor's pattern
// (Takahashi's recurrences by supernode), so no dense inverse is ever formed.
// Memory grows with the factor's fill, about N log N for a block of strips.
#include <Eigen/Dense>
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCore>
#include <algorithm>
#include <new>

#include "epho/solvers.h"
#include "epho/triangulation/reduced_system_internal.h"

namespace epho::triangulation {
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

// Image-block supernodal Cholesky. The images are ordered by approximate
// minimum degree on the image graph (an image per node, an edge per pair of
// images that share a point); the symbolic factorization runs on that graph,
// so every index set is a set of images and every numerical step works on
// dense image blocks. Consecutive images whose factor columns have the same
// structure form a supernode, stored as one dense column-major panel: its own
// parameters (the diagonal block) on top, then the parameters of the images
// below it. Factorization is right-looking: each panel is factored (LL^T),
// its off-diagonal part solved, and its rank update subtracted block by block
// from the panels of its ancestors.
class SparseSystem : public ReducedSystem {
  using Mat = Eigen::MatrixXd;
  using MapMat = Eigen::Map<Mat>;

  struct Super {
    int first, last;        // images first..last-1 of the new order: the columns
    int w = 0, h = 0;       // scalar columns, scalar rows below the diagonal block
    size_t panel = 0;       // offset of the (w + h) x w panel in values_
    std::vector<int> rows;  // images of the panel rows: the columns, then those below
    std::vector<int> off;   // scalar row offset of each entry of `rows`
  };

 public:
  SparseSystem(const std::vector<int>& start, const std::vector<int>& size,
               const std::vector<std::pair<int, int>>& pairs)
      : start_(start), size_(size) {
    const int images = static_cast<int>(size.size());
    n_ = 0;
    for (int s : size) n_ += s;
    Order(images, pairs);
    // Column structures of the block factor (images below each image) and
    // the elimination tree, in the new order.
    std::vector<std::vector<int>> upper(images), below(images);
    for (const auto& pr : pairs) {
      const int a = newpos_[pr.first], c = newpos_[pr.second];
      upper[std::min(a, c)].push_back(std::max(a, c));
    }
    std::vector<int> parent(images, -1);
    std::vector<std::vector<int>> children(images);
    for (int k = 0; k < images; ++k) {
      std::vector<int>& st = below[k];
      st = std::move(upper[k]);
      for (int c : children[k])
        for (int q : below[c])
          if (q != k) st.push_back(q);
      std::sort(st.begin(), st.end());
      st.erase(std::unique(st.begin(), st.end()), st.end());
      if (!st.empty()) {
        parent[k] = st.front();
        children[st.front()].push_back(k);
      }
    }
    // Scalar offsets of the images in the new order.
    sstart_.assign(images + 1, 0);
    for (int k = 0; k < images; ++k) sstart_[k + 1] = sstart_[k] + size[order_[k]];
    // Supernodes: k joins k-1 when k is its parent and they share the rest.
    snode_of_.assign(images, -1);
    size_t total = 0;
    for (int k = 0; k < images;) {
      int e = k + 1;
      while (e < images && parent[e - 1] == e && below[e - 1].size() == below[e].size() + 1) ++e;
      Super s;
      s.first = k;
      s.last = e;
      for (int q = k; q < e; ++q) s.rows.push_back(q);
      s.rows.insert(s.rows.end(), below[e - 1].begin(), below[e - 1].end());
      int o = 0;
      for (int q : s.rows) {
        s.off.push_back(o);
        o += size[order_[q]];
      }
      s.w = sstart_[e] - sstart_[k];
      s.h = o - s.w;
      s.panel = total;
      total += static_cast<size_t>(s.w + s.h) * static_cast<size_t>(s.w);
      for (int q = k; q < e; ++q) snode_of_[q] = static_cast<int>(supers_.size());
      supers_.push_back(std::move(s));
      for (int q = k; q < e; ++q) std::vector<int>().swap(below[q]);
      k = e;
    }
    values_.assign(total, 0.0);
  }

  void Clear() override { std::fill(values_.begin(), values_.end(), 0.0); }

  void AddBlock(int i, int j, const double* block) override {
    const int pi = newpos_[i], pj = newpos_[j];
    const int ri = size_[i], cj = size_[j];
    if (pi == pj) {
      const Super& s = supers_[snode_of_[pi]];
      const int c0 = sstart_[pi] - sstart_[s.first];
      MapMat p(&values_[s.panel], s.w + s.h, s.w);
      for (int u = 0; u < ri; ++u)
        for (int v = u; v < cj; ++v) p(c0 + v, c0 + u) += block[u * cj + v];
      return;
    }
    // The factor keeps the lower triangle: row image after column image.
    const bool direct = pi > pj;  // block rows are the later image
    const int col = direct ? pj : pi, row = direct ? pi : pj;
    const Super& s = supers_[snode_of_[col]];
    const int c0 = sstart_[col] - sstart_[s.first];
    const int r0 = s.off[Find(s, row)];
    MapMat p(&values_[s.panel], s.w + s.h, s.w);
    for (int u = 0; u < ri; ++u)
      for (int v = 0; v < cj; ++v) {
        if (direct)
          p(r0 + u, c0 + v) += block[u * cj + v];
        else
          p(r0 + v, c0 + u) += block[u * cj + v];
      }
  }

  // Working matrices are allocated as the factor needs them: running out of
  // memory there ends the iteration like a failed factorization.
  bool Factor() override {
    return Guard([&] { return FactorPanels(); });
  }
  bool Solve(double* rhs) override {
    return Guard([&] { return SolvePanels(rhs); });
  }
  bool InverseDiagonal(std::vector<double>* diagonal) override {
    return Guard([&] { return InvertPanels(diagonal); });
  }
  bool IsSparse() const override { return true; }

 private:
  template <typename F>
  static bool Guard(F f) {
    try {
      return f();
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  bool FactorPanels() {
    Mat update;
    for (size_t si = 0; si < supers_.size(); ++si) {
      const Super& s = supers_[si];
      MapMat p(&values_[s.panel], s.w + s.h, s.w);
      auto top = p.topRows(s.w);
      Eigen::LLT<Eigen::Ref<Mat>> llt(top);
      if (llt.info() != Eigen::Success) return false;
      if (s.h == 0) continue;
      auto low = p.bottomRows(s.h);
      top.triangularView<Eigen::Lower>().transpose().solveInPlace<Eigen::OnTheRight>(low);
      update.setZero(s.h, s.h);
      update.selfadjointView<Eigen::Lower>().rankUpdate(low);
      // Subtract each image block of the update from the panel that holds it.
      const int ncol = s.last - s.first;
      const int nb = static_cast<int>(s.rows.size());
      for (int g = ncol; g < nb; ++g) {
        const int q = s.rows[g];
        const Super& t = supers_[snode_of_[q]];
        MapMat pt(&values_[t.panel], t.w + t.h, t.w);
        const int tc = sstart_[q] - sstart_[t.first];
        const int sq = s.off[g] - s.w;
        const int wq = sstart_[q + 1] - sstart_[q];
        size_t ti = Find(t, q);
        for (int g2 = g; g2 < nb; ++g2) {
          const int q2 = s.rows[g2];
          while (t.rows[ti] != q2) ++ti;  // both lists ascend; q2 is in t
          const int hq = sstart_[q2 + 1] - sstart_[q2];
          pt.block(t.off[ti], tc, hq, wq) -= update.block(s.off[g2] - s.w, sq, hq, wq);
        }
      }
    }
    return true;
  }

  bool SolvePanels(double* rhs) {
    Eigen::VectorXd x(n_);
    for (int i = 0; i < static_cast<int>(size_.size()); ++i)
      for (int u = 0; u < size_[i]; ++u) x(sstart_[newpos_[i]] + u) = rhs[start_[i] + u];
    Eigen::VectorXd t;
    for (const Super& s : supers_) {
      MapMat p(&values_[s.panel], s.w + s.h, s.w);
      auto xs = x.segment(sstart_[s.first], s.w);
      p.topRows(s.w).triangularView<Eigen::Lower>().solveInPlace(xs);
      if (s.h == 0) continue;
      t.noalias() = p.bottomRows(s.h) * xs;
      SubtractBelow(s, t, &x);
    }
    for (size_t si = supers_.size(); si-- > 0;) {
      const Super& s = supers_[si];
      MapMat p(&values_[s.panel], s.w + s.h, s.w);
      auto xs = x.segment(sstart_[s.first], s.w);
      if (s.h > 0) {
        t.resize(s.h);
        GatherBelow(s, x, &t);
        xs.noalias() -= p.bottomRows(s.h).transpose() * t;
      }
      p.topRows(s.w).triangularView<Eigen::Lower>().transpose().solveInPlace(xs);
    }
    if (!x.allFinite()) return false;
    for (int i = 0; i < static_cast<int>(size_.size()); ++i)
      for (int u = 0; u < size_[i]; ++u) rhs[start_[i] + u] = x(sstart_[newpos_[i]] + u);
    return true;
  }

  // Takahashi's recurrences by supernode, from the last to the first, with
  // Z = A^-1: for the panel's L_ss (top) and L_bs (below), W = L_bs L_ss^-1,
  //     Z_bs = -Z_bb W,    Z_ss = L_ss^-T L_ss^-1 - Z_bs^T W,
  // where Z_bb, on the rows below the supernode, lies in the panels of its
  // ancestors, already overwritten by Z. Each panel is overwritten in turn,
  // so the factor is lost; only Z on the factor's pattern is formed.
  bool InvertPanels(std::vector<double>* diagonal) {
    Eigen::VectorXd zdiag(n_);
    Mat zbb, wm, linv, zbs;
    for (size_t si = supers_.size(); si-- > 0;) {
      const Super& s = supers_[si];
      MapMat p(&values_[s.panel], s.w + s.h, s.w);
      auto top = p.topRows(s.w);
      linv.setIdentity(s.w, s.w);
      top.triangularView<Eigen::Lower>().solveInPlace(linv);
      Mat zss = linv.transpose() * linv;
      if (s.h > 0) {
        wm = p.bottomRows(s.h);
        top.triangularView<Eigen::Lower>().solveInPlace<Eigen::OnTheRight>(wm);
        zbb.resize(s.h, s.h);
        const int ncol = s.last - s.first;
        const int nb = static_cast<int>(s.rows.size());
        for (int g = ncol; g < nb; ++g) {
          const int q = s.rows[g];
          const Super& t = supers_[snode_of_[q]];
          MapMat pt(&values_[t.panel], t.w + t.h, t.w);
          const int tc = sstart_[q] - sstart_[t.first];
          const int sq = s.off[g] - s.w;
          const int wq = sstart_[q + 1] - sstart_[q];
          size_t ti = Find(t, q);
          for (int g2 = g; g2 < nb; ++g2) {
            const int q2 = s.rows[g2];
            while (t.rows[ti] != q2) ++ti;
            const int hq = sstart_[q2 + 1] - sstart_[q2];
            zbb.block(s.off[g2] - s.w, sq, hq, wq) = pt.block(t.off[ti], tc, hq, wq);
          }
        }
        zbs.noalias() = -(zbb.selfadjointView<Eigen::Lower>() * wm);
        zss.noalias() -= zbs.transpose() * wm;
        p.bottomRows(s.h) = zbs;
      }
      top = 0.5 * (zss + zss.transpose());
      zdiag.segment(sstart_[s.first], s.w) = top.diagonal();
    }
    diagonal->resize(n_);
    for (int i = 0; i < static_cast<int>(size_.size()); ++i)
      for (int u = 0; u < size_[i]; ++u)
        (*diagonal)[start_[i] + u] = zdiag(sstart_[newpos_[i]] + u);
    return zdiag.allFinite();
  }

  // Approximate minimum degree on the image graph.
  void Order(int images, const std::vector<std::pair<int, int>>& pairs) {
    std::vector<Eigen::Triplet<double, int>> t;
    t.reserve(2 * pairs.size() + images);
    for (int i = 0; i < images; ++i) t.emplace_back(i, i, 1.0);
    for (const auto& pr : pairs) {
      t.emplace_back(pr.first, pr.second, 1.0);
      t.emplace_back(pr.second, pr.first, 1.0);
    }
    Eigen::SparseMatrix<double, Eigen::ColMajor, int> g(images, images);
    g.setFromTriplets(t.begin(), t.end());
    Eigen::PermutationMatrix<Eigen::Dynamic, Eigen::Dynamic, int> perm;
    Eigen::AMDOrdering<int> amd;
    amd(g, perm);
    order_.assign(perm.indices().data(), perm.indices().data() + images);  // new -> old
    newpos_.assign(images, 0);
    for (int k = 0; k < images; ++k) newpos_[order_[k]] = k;
  }

  // Index of image q in the rows of supernode s.
  static size_t Find(const Super& s, int q) {
    return static_cast<size_t>(std::lower_bound(s.rows.begin(), s.rows.end(), q) - s.rows.begin());
  }

  // x(rows below s) -= t.
  void SubtractBelow(const Super& s, const Eigen::VectorXd& t, Eigen::VectorXd* x) {
    for (size_t g = s.last - s.first; g < s.rows.size(); ++g) {
      const int q = s.rows[g];
      const int hq = sstart_[q + 1] - sstart_[q];
      x->segment(sstart_[q], hq) -= t.segment(s.off[g] - s.w, hq);
    }
  }
  void GatherBelow(const Super& s, const Eigen::VectorXd& x, Eigen::VectorXd* t) {
    for (size_t g = s.last - s.first; g < s.rows.size(); ++g) {
      const int q = s.rows[g];
      const int hq = sstart_[q + 1] - sstart_[q];
      t->segment(s.off[g] - s.w, hq) = x.segment(sstart_[q], hq);
    }
  }

  std::vector<int> start_, size_;
  int n_;
  std::vector<int> order_, newpos_;  // new -> original image, original -> new
  std::vector<int> sstart_;          // scalar offset of each image, new order
  std::vector<int> snode_of_;        // supernode of each image, new order
  std::vector<Super> supers_;
  std::vector<double> values_;
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

}  // namespace epho::triangulation
