// Small helpers shared by the benchmark programs: a wall-clock timer, a
// best-of-N runner and the one line format in which every program prints its
// comparison against a peer, so that `make bench` output reads as one table.
#ifndef EPHO_BENCH_UTIL_H
#define EPHO_BENCH_UTIL_H

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>

namespace bench {

inline double Seconds(const std::function<void()>& f) {
  auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Best of `repeats` runs: the least disturbed measurement on a shared machine.
inline double BestSeconds(int repeats, const std::function<void()>& f) {
  double best = std::numeric_limits<double>::infinity();
  for (int i = 0; i < repeats; ++i) best = std::min(best, Seconds(f));
  return best;
}

// Prints "case | ours | peer | peer/ours" ; a ratio above 1 means we are faster.
inline void PrintComparison(const std::string& what, const std::string& peer, double ours_s,
                            double peer_s, const std::string& target = "") {
  std::printf("%-48s ours %10.4f s  %-22s %10.4f s  speed-up x%.2f %s\n", what.c_str(), ours_s,
              peer.c_str(), peer_s, peer_s / ours_s, target.c_str());
  std::fflush(stdout);
}

}  // namespace bench

#endif  // EPHO_BENCH_UTIL_H
