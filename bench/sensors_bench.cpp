// The rational-function model on 1,000,000 ground points, single thread:
// ground to image through epho_RpcGroundToImage against GDAL's RPC
// transformer (GDALRPCTransform, destination to source) on the same
// coefficients. Timed in processor time of this process (the machine may be
// shared), best of several runs; the share of a processor other processes
// took meanwhile is printed beside it.
#include <gdal.h>
#include <gdal_alg.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "bench_util.h"
#include "epho/sensors.h"
#include "epho/sensors/rpc_testing_internal.h"

namespace {

constexpr long kPoints = 1000000;

// Best processor time of `repeats` runs, and the others' share of a
// processor during that run.
struct CpuSample {
  double seconds = 1e300, others = 0;
};

template <typename F>
CpuSample BestCpuSeconds(int repeats, F f) {
  bench::WaitForIdle();
  CpuSample best;
  for (int i = 0; i < repeats; ++i) {
    const double own0 = bench::OwnSeconds();
    const bench::Sample s = bench::Measure(f);
    const double cpu = bench::OwnSeconds() - own0;
    if (cpu < best.seconds) best = {cpu, s.others};
  }
  return best;
}

}  // namespace

int main() {
  GDALAllRegister();
  const auto n = epho::sensors::testing::SampleRpc();
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  std::vector<double> ground(3 * kPoints), ours(2 * kPoints);
  for (long i = 0; i < kPoints; ++i) {
    ground[3 * i] = n[EPHO_RPC_LONG_OFF] + uni(rng) * n[EPHO_RPC_LONG_SCALE];
    ground[3 * i + 1] = n[EPHO_RPC_LAT_OFF] + uni(rng) * n[EPHO_RPC_LAT_SCALE];
    ground[3 * i + 2] = n[EPHO_RPC_HEIGHT_OFF] + uni(rng) * n[EPHO_RPC_HEIGHT_SCALE];
  }
  Eerr_ErrorReport* err = nullptr;
  Epho_RpcModel* model = epho_RpcModelCreate(n.data(), &err);
  if (!model) {
    eerr_PrintErrorReport(err, nullptr, 0);
    return 1;
  }
  bool ok = true;
  const CpuSample t_ours = BestCpuSeconds(5, [&] {
    ok = epho_RpcGroundToImage(model, kPoints, ground.data(), ours.data(), nullptr) && ok;
  });

  GDALRPCInfoV2 info{};
  double* head[10] = {&info.dfLINE_OFF,    &info.dfSAMP_OFF,   &info.dfLAT_OFF,
                      &info.dfLONG_OFF,    &info.dfHEIGHT_OFF, &info.dfLINE_SCALE,
                      &info.dfSAMP_SCALE,  &info.dfLAT_SCALE,  &info.dfLONG_SCALE,
                      &info.dfHEIGHT_SCALE};
  for (int i = 0; i < 10; ++i) *head[i] = n[i];
  std::copy_n(&n[EPHO_RPC_LINE_NUM], 20, info.adfLINE_NUM_COEFF);
  std::copy_n(&n[EPHO_RPC_LINE_DEN], 20, info.adfLINE_DEN_COEFF);
  std::copy_n(&n[EPHO_RPC_SAMP_NUM], 20, info.adfSAMP_NUM_COEFF);
  std::copy_n(&n[EPHO_RPC_SAMP_DEN], 20, info.adfSAMP_DEN_COEFF);
  void* transformer = GDALCreateRPCTransformerV2(&info, FALSE, 0.0, nullptr);
  // GDAL transforms in place on separate x, y, z arrays: each run first
  // restores them (a copy of 24 MB, a few per cent of its time).
  std::vector<double> gx(kPoints), gy(kPoints), gz(kPoints), x(kPoints), y(kPoints), z(kPoints);
  for (long i = 0; i < kPoints; ++i)
    gx[i] = ground[3 * i], gy[i] = ground[3 * i + 1], gz[i] = ground[3 * i + 2];
  std::vector<int> success(kPoints);
  const CpuSample t_gdal = BestCpuSeconds(5, [&] {
    std::memcpy(x.data(), gx.data(), sizeof(double) * kPoints);
    std::memcpy(y.data(), gy.data(), sizeof(double) * kPoints);
    std::memcpy(z.data(), gz.data(), sizeof(double) * kPoints);
    GDALRPCTransform(transformer, TRUE, int(kPoints), x.data(), y.data(), z.data(), success.data());
  });
  GDALDestroyRPCTransformer(transformer);
  double max_diff = 0;
  for (long i = 0; i < kPoints; ++i)
    max_diff =
        std::max({max_diff, std::fabs(x[i] - ours[2 * i]), std::fabs(y[i] - ours[2 * i + 1])});
  std::printf("same pixels within %.2e px%s\n", max_diff, ok ? "" : " (ours reported a failure)");
  const double ratio = t_gdal.seconds / t_ours.seconds;
  bench::PrintComparison("RPC ground->image, 1M points, cpu time", "GDALRPCTransform",
                         t_ours.seconds, t_gdal.seconds, bench::Target(ratio, 2.0),
                         bench::BusyNote(t_ours.others, t_gdal.others));
  std::printf("%-48s ours %.1f million points/s, GDAL %.1f million points/s\n", "",
              kPoints / t_ours.seconds / 1e6, kPoints / t_gdal.seconds / 1e6);
  epho_RpcModelFree(model);
  return 0;
}
