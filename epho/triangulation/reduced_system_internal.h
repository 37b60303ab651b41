// The reduced normal equations of the image parameters, once the ground
// points are eliminated. Images couple only through the points they share,
// so the matrix is a pattern of dense image blocks: the dense path keeps the
// whole packed upper triangle (the reference), the sparse path keeps only the
// blocks of image pairs that share a point and factors them with a
// fill-reducing ordering.
#ifndef EPHO_TRIANGULATION_REDUCED_SYSTEM_INTERNAL_H
#define EPHO_TRIANGULATION_REDUCED_SYSTEM_INTERNAL_H

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace epho::triangulation {

class ReducedSystem {
 public:
  virtual ~ReducedSystem() = default;
  // Zeroes the matrix.
  virtual void Clear() = 0;
  // Adds `block` (size(i) x size(j), row-major) to the block of images i and
  // j, i <= j; for i == j only its upper triangle is read.
  virtual void AddBlock(int i, int j, const double* block) = 0;
  // Factors the matrix; false on an exactly zero pivot.
  virtual bool Factor() = 0;
  // Solves with the factor; x replaces `rhs` (all parameters).
  virtual bool Solve(double* rhs) = 0;
  // Diagonal of the inverse, from the factor (the factor may be lost).
  virtual bool InverseDiagonal(std::vector<double>* diagonal) = 0;
  virtual bool IsSparse() const = 0;
};

// `start[i]` and `size[i]`: the parameter range of image i. `pairs`: the
// image pairs (i < j) that share at least one point. Throw std::bad_alloc
// when the matrix does not fit.
std::unique_ptr<ReducedSystem> MakeDenseSystem(const std::vector<int>& start,
                                               const std::vector<int>& size);
std::unique_ptr<ReducedSystem> MakeSparseSystem(const std::vector<int>& start,
                                                const std::vector<int>& size,
                                                const std::vector<std::pair<int, int>>& pairs);

}  // namespace epho::triangulation

#endif  // EPHO_TRIANGULATION_REDUCED_SYSTEM_INTERNAL_H
