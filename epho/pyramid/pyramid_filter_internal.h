// The 3x3 binomial reduction kernel: one output row from three input rows.
//
// Rows are given in "padded" column order: index j stands for input column
// 2*c0 - 1 + j of the level, already clamped to the image (the caller repeats
// the border), so output column c of the tile uses indices 2c, 2c+1, 2c+2.
// The vertical 1-2-1 pass runs over contiguous memory and vectorises; the
// horizontal pass reads every other sum.
#ifndef EPHO_PYRAMID_PYRAMID_FILTER_INTERNAL_H_
#define EPHO_PYRAMID_PYRAMID_FILTER_INTERNAL_H_

#include <cstdint>
#include <type_traits>

namespace epho::pyramid {

// Accumulator wide enough for 16 times the largest pixel value, and the
// rounding of the sum to a pixel: integers (s + 8) / 16 rounded toward minus
// infinity, i.e. half up; floats s / 16.
template <typename T>
struct Binomial;
template <>
struct Binomial<uint8_t> {
  using Acc = uint16_t;
};
template <>
struct Binomial<int8_t> {
  using Acc = int16_t;
};
template <>
struct Binomial<uint16_t> {
  using Acc = uint32_t;
};
template <>
struct Binomial<int16_t> {
  using Acc = int32_t;
};
template <>
struct Binomial<uint32_t> {
  using Acc = uint64_t;
};
template <>
struct Binomial<int32_t> {
  using Acc = int64_t;
};
template <>
struct Binomial<float> {
  using Acc = double;
};
template <>
struct Binomial<double> {
  using Acc = double;
};

template <typename T, typename Acc>
inline T RoundSixteenth(Acc s) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(s * (1.0 / 16.0));
  } else {
    // Arithmetic shift: floor((s + 8) / 16) also for negative sums.
    return static_cast<T>((s + 8) >> 4);
  }
}

// Vertical pass: v[j] = top[j] + 2 mid[j] + bottom[j] for j in [0, n).
template <typename T, typename Acc>
inline void VerticalSum(const T* __restrict top, const T* __restrict mid,
                        const T* __restrict bottom, Acc* __restrict v, long n) {
  for (long j = 0; j < n; ++j)
    v[j] = static_cast<Acc>(static_cast<Acc>(top[j]) + static_cast<Acc>(mid[j]) * 2 +
                            static_cast<Acc>(bottom[j]));
}

// Horizontal pass over the padded sums: out[c] from v[2c], v[2c+1], v[2c+2].
template <typename T, typename Acc>
inline void HorizontalReduce(const Acc* __restrict v, T* __restrict out, long out_width) {
  for (long c = 0; c < out_width; ++c)
    out[c] = RoundSixteenth<T, Acc>(static_cast<Acc>(v[2 * c] + v[2 * c + 1] * 2 + v[2 * c + 2]));
}

}  // namespace epho::pyramid

#endif  // EPHO_PYRAMID_PYRAMID_FILTER_INTERNAL_H_
