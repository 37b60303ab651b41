// Binomial pyramid levels of 8000 x 8000 8-bit images (one band, and three
// pixel-interleaved bands) against `gdaladdo -r gauss` with one GDAL thread,
// on copies of the same file in the same run. Each side runs in a child
// process so that its peak resident memory (VmHWM / ru_maxrss) is its own.
#include <gdal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "epho/pyramid.h"

namespace fs = std::filesystem;

namespace {

constexpr int kSize = 8000;
constexpr int kRepeats = 2;
constexpr double kMemoryLimitMiB = 64.0;

// Written row by row in a child, so the parent stays small before forking.
bool MakeImage(const std::string& path, int bands) {
  pid_t pid = fork();
  if (pid == 0) {
    GDALAllRegister();
    const char* opts[] = {"INTERLEAVE=PIXEL", nullptr};
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), kSize, kSize, bands,
                                 GDT_Byte, const_cast<char**>(opts));
    if (!ds) _exit(1);
    std::vector<unsigned char> row(size_t(kSize) * bands);
    unsigned seed = 7;
    for (int r = 0; r < kSize; ++r) {
      for (int c = 0; c < kSize * bands; ++c) {
        seed = seed * 1664525u + 1013904223u;
        row[c] = static_cast<unsigned char>((c / bands + r) / 8 % 200 + ((seed >> 24) & 31));
      }
      if (GDALDatasetRasterIO(ds, GF_Write, 0, r, kSize, 1, row.data(), kSize, 1, GDT_Byte, bands,
                              nullptr, bands, 0, 1) != CE_None)
        _exit(1);
    }
    GDALClose(ds);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double VmHwmMiB() {
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
  return -1;
}

struct Run {
  double seconds = -1;
  double peak_mib = -1;
};

// Our pyramids in a child; it reports time and its high-water mark through a pipe.
Run RunOurs(const std::string& path) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    // Start the high-water mark from here (Linux: 5 resets VmHWM).
    std::ofstream("/proc/self/clear_refs") << "5";
    Run r;
    Eerr_ErrorReport* err = nullptr;
    std::wstring name = kzdv::FromUtf8(path);
    r.seconds = bench::Seconds([&] { epho_ComputePyramidLayers3x3(name.c_str(), nullptr, &err); });
    if (err) {
      eerr_PrintErrorReport(err, nullptr, 0);
      r.seconds = -1;
    }
    r.peak_mib = VmHwmMiB();
    if (write(fds[1], &r, sizeof r) != sizeof r) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  Run r;
  if (read(fds[0], &r, sizeof r) != sizeof r) r = Run{};
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return r;
}

Run RunGdaladdo(const std::string& path) {
  auto t0 = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    setenv("GDAL_NUM_THREADS", "1", 1);
    execlp("gdaladdo", "gdaladdo", "-q", "-r", "gauss", path.c_str(), "2", "4", "8", "16", "32",
           "64", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  Run r;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    r.peak_mib = usage.ru_maxrss / 1024.0;
  }
  return r;
}

void Compare(const fs::path& dir, int bands) {
  std::string src = (dir / ("src" + std::to_string(bands) + ".tif")).string();
  if (!MakeImage(src, bands)) {
    std::printf("cannot write the %d-band test image\n", bands);
    return;
  }
  Run ours, peer;
  for (int i = 0; i < kRepeats; ++i) {
    std::string a = (dir / "ours.tif").string(), b = (dir / "peer.tif").string();
    fs::copy_file(src, a, fs::copy_options::overwrite_existing);
    fs::copy_file(src, b, fs::copy_options::overwrite_existing);
    Run o = RunOurs(a), p = RunGdaladdo(b);
    if (o.seconds > 0 && (ours.seconds < 0 || o.seconds < ours.seconds)) ours.seconds = o.seconds;
    if (p.seconds > 0 && (peer.seconds < 0 || p.seconds < peer.seconds)) peer.seconds = p.seconds;
    ours.peak_mib = std::max(ours.peak_mib, o.peak_mib);
    peer.peak_mib = std::max(peer.peak_mib, p.peak_mib);
  }
  if (ours.seconds <= 0 || peer.seconds <= 0) {
    std::printf("pyramids %d-band: a run failed (ours %.3f s, gdaladdo %.3f s)\n", bands,
                ours.seconds, peer.seconds);
    return;
  }
  std::string what = "pyramids 8000x8000 u8 " + std::to_string(bands) + " band(s), 6 levels";
  bench::PrintComparison(what, "gdaladdo -r gauss (1 thr)", ours.seconds, peer.seconds,
                         "(target x1.5)");
  std::printf("%-48s peak RSS ours %.1f MiB (limit %.0f MiB: %s), gdaladdo %.1f MiB\n",
              ("  memory, " + std::to_string(bands) + " band(s)").c_str(), ours.peak_mib,
              kMemoryLimitMiB, ours.peak_mib < kMemoryLimitMiB ? "ok" : "EXCEEDED", peer.peak_mib);
  std::fflush(stdout);
}

}  // namespace

int main() {
  fs::path dir = fs::temp_directory_path() / ("pyramid_bench_" + std::to_string(getpid()));
  fs::create_directories(dir);
  Compare(dir, 1);
  Compare(dir, 3);
  std::error_code ec;
  fs::remove_all(dir, ec);
  return 0;
}
