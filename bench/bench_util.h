// Small helpers shared by the benchmark programs: a wall-clock timer, a
// best-of-N runner that watches the machine, and the one line format in
// which every program prints its comparison against a peer, so that
// `make bench` output reads as one table.
//
// The machine may be shared: before each timing the runner waits (up to a
// second) for the other processes to leave the processors, measures how
// much processor time they took during each run (from /proc/stat, minus our
// own), keeps the least disturbed of the best runs, and the row is marked
// "busy" when even that one shared the processors.
#ifndef EPHO_BENCH_UTIL_H
#define EPHO_BENCH_UTIL_H

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>

namespace bench {

// Processor time of the whole machine (all states but idle and iowait) and
// of this process with its children, in seconds.
inline double MachineBusySeconds() {
  std::ifstream f("/proc/stat");
  std::string cpu;
  double v[10] = {0};
  f >> cpu;
  for (double& x : v) f >> x;
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  return (v[0] + v[1] + v[2] + v[5] + v[6] + v[7]) / ticks;
}

inline double OwnSeconds() {
  double s = 0;
  for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage u{};
    getrusage(who, &u);
    s += u.ru_utime.tv_sec + u.ru_utime.tv_usec * 1e-6 + u.ru_stime.tv_sec +
         u.ru_stime.tv_usec * 1e-6;
  }
  return s;
}

// Processor time of the calling thread, in seconds.
inline double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Elapsed and own-thread processor time of one run, and the share of one
// processor that other processes used while it ran.
struct Sample {
  double seconds = 0, thread = 0, others = 0;
};

inline Sample Measure(const std::function<void()>& f) {
  const double busy0 = MachineBusySeconds(), own0 = OwnSeconds(), thread0 = ThreadSeconds();
  const auto t0 = std::chrono::steady_clock::now();
  f();
  Sample s;
  s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  s.thread = ThreadSeconds() - thread0;
  const double others = (MachineBusySeconds() - busy0) - (OwnSeconds() - own0);
  // /proc/stat counts in clock ticks: below ~50 ms the share is noise.
  s.others = s.seconds > 0.05 ? std::max(0.0, others / s.seconds) : 0.0;
  return s;
}

// Waits until other processes use less than a fifth of a processor, at most
// about a second.
inline void WaitForIdle() {
  for (int i = 0; i < 10; ++i) {
    const Sample s = Measure([] { std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
    if (s.others < 0.2) return;
  }
}

// The share of a processor other processes took in the last BestSeconds.
inline double& LastOthers() {
  static double others = 0;
  return others;
}

inline double Seconds(const std::function<void()>& f) { return Measure(f).seconds; }

// Best of `repeats` runs: the least disturbed measurement on a shared machine.
inline double BestSeconds(int repeats, const std::function<void()>& f) {
  WaitForIdle();
  Sample best{std::numeric_limits<double>::infinity(), 0};
  for (int i = 0; i < repeats; ++i) {
    const Sample s = Measure(f);
    if (s.seconds < best.seconds) best = s;
  }
  LastOthers() = best.others;
  return best.seconds;
}

// Best of `repeats` runs in processor time of the calling thread: what a
// single-threaded computation costs, which other processes on a shared
// machine inflate far less than its elapsed time (both sides of a
// comparison must then run on the calling thread).
inline double BestThreadSeconds(int repeats, const std::function<void()>& f) {
  WaitForIdle();
  Sample best{0, std::numeric_limits<double>::infinity(), 0};
  for (int i = 0; i < repeats; ++i) {
    const Sample s = Measure(f);
    if (s.thread < best.thread) best = s;
  }
  LastOthers() = best.others;
  return best.thread;
}

// "busy" note for a row whose two timings shared the processors.
inline std::string BusyNote(double others_a, double others_b) {
  const double o = std::max(others_a, others_b);
  if (o < 0.2) return "";
  char buf[64];
  std::snprintf(buf, sizeof buf, " [busy: others used %.0f%% of a cpu]", 100 * o);
  return buf;
}

// Prints "case | ours | peer | peer/ours | target": a ratio above 1 means we
// are faster; the target is the ratio the row must reach.
inline void PrintComparison(const std::string& what, const std::string& peer, double ours_s,
                            double peer_s, const std::string& target = "",
                            const std::string& note = "") {
  std::printf("%-48s ours %11.4f ms  %-22s %11.4f ms  speed-up x%.2f %s%s\n", what.c_str(),
              ours_s * 1e3, peer.c_str(), peer_s * 1e3, peer_s / ours_s, target.c_str(),
              note.c_str());
  std::fflush(stdout);
}

// Target text for a minimum speed-up, with the verdict.
inline std::string Target(double ratio, double minimum) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "(target >= x%.2f: %s)", minimum,
                ratio >= minimum ? "met" : "MISSED");
  return buf;
}

}  // namespace bench

#endif  // EPHO_BENCH_UTIL_H
