// Triangulation refinement on synthetic blocks of 20 to 2000 images (about
// 100 points per image): wall time and peak memory of the dense packed
// reduced system and of the image-block sparse path, each run in its own
// child process, with the growth exponent between successive sizes.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "epho/triangulation/synthetic_block_internal.h"

namespace {

using epho::tri::synthetic::Build;
using epho::tri::synthetic::Options;
using epho::tri::synthetic::Truth;

struct Measure {
  double seconds = -1.0;
  double peak_mib = -1.0;
  bool ok = false;
};

// Runs one refinement in a child; the child writes its time to a pipe.
Measure RunChild(int images, int16_t solver) {
  int fd[2];
  if (pipe(fd) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fd[0]);
    Options o;
    o.strips = std::max(1, static_cast<int>(std::lround(std::sqrt(images / 2.0))));
    o.per_strip = images / o.strips;
    o.noise_pixels = 0.3;
    o.per_axis = 6;
    o.check_every = 0;
    o.fix_control = 1;
    Epho_TriRefineInput in{};
    Truth truth;
    Build(o, &in, &truth);
    const std::wstring report = (std::filesystem::temp_directory_path() /
                                 ("tri_bench_" + std::to_string(getpid()) + ".txt"))
                                    .wstring();
    in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
    in.solver = solver;
    in.maximumIterations = 5;
    Eerr_ErrorReport* err = nullptr;
    const auto t0 = std::chrono::steady_clock::now();
    epho_TriRefine(&in, &err);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double out = err ? -1.0 : s;
    if (write(fd[1], &out, sizeof out) != sizeof out) _exit(2);
    std::filesystem::remove(report);
    _exit(0);
  }
  close(fd[1]);
  Measure m;
  double s = -1.0;
  if (read(fd[0], &s, sizeof s) == sizeof s && s >= 0.0) {
    m.seconds = s;
    m.ok = true;
  }
  close(fd[0]);
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  m.peak_mib = usage.ru_maxrss / 1024.0;
  return m;
}

}  // namespace

int main() {
  const int sizes[] = {20, 100, 500, 1000, 2000};
  // The dense path needs N^2/2 doubles for N = 12 parameters per image and
  // N^3/6 operations: it is measured up to 500 images.
  const int dense_max = 500;
  std::printf("%8s %12s %10s %8s %12s %10s %8s\n", "images", "dense s", "dense MiB", "exp",
              "sparse s", "sparse MiB", "exp");
  Measure prev_dense, prev_sparse;
  int prev = 0;
  for (int n : sizes) {
    const Measure d = n <= dense_max ? RunChild(n, EPHO_TRI_SOLVER_DENSE) : Measure{};
    const Measure s = RunChild(n, EPHO_TRI_SOLVER_SPARSE);
    auto exponent = [&](const Measure& a, const Measure& b) {
      return (prev > 0 && a.ok && b.ok && b.seconds > 0)
                 ? std::log(a.seconds / b.seconds) / std::log(double(n) / prev)
                 : NAN;
    };
    std::printf("%8d %12.3f %10.1f %8.2f %12.3f %10.1f %8.2f\n", n, d.ok ? d.seconds : NAN,
                d.ok ? d.peak_mib : NAN, exponent(d, prev_dense), s.ok ? s.seconds : NAN,
                s.ok ? s.peak_mib : NAN, exponent(s, prev_sparse));
    std::fflush(stdout);
    prev_dense = d;
    prev_sparse = s;
    prev = n;
  }
  return 0;
}
