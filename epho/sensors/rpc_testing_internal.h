// A realistic rational-function set for the tests and the benchmark: a
// 12000 x 10000 pixel scene of about 8 x 11 km at 45.2 N 7.3 E, heights
// 200 to 1400 m, dominant linear terms with a few pixels of higher-order
// distortion and a relief displacement of about 4 % of the normalised height.
#ifndef EPHO_SENSORS_RPC_TESTING_INTERNAL_H_
#define EPHO_SENSORS_RPC_TESTING_INTERNAL_H_

#include <array>

#include "epho/sensors.h"

namespace epho::sensors::testing {

inline std::array<double, EPHO_RPC_NUMBER_COUNT> SampleRpc() {
  std::array<double, EPHO_RPC_NUMBER_COUNT> r{};
  const double head[10] = {5000.0, 6000.0, 45.2, 7.3, 800.0, 5000.0, 6000.0, 0.05, 0.07, 600.0};
  const double line_num[20] = {1.2e-3,  -2.13e-2, -1.0271, 1.35e-2, 3.1e-4,  -1.2e-5, 2.7e-4,
                               -4.2e-4, 1.9e-3,   2.0e-6,  1.1e-6,  -3.4e-6, 5.2e-6,  1.0e-7,
                               2.2e-6,  -1.3e-5,  4.0e-7,  3.0e-7,  -2.0e-7, 1.0e-8};
  const double line_den[20] = {1.0,     1.2e-4,  -3.1e-4, 2.3e-5, 1.0e-6, -2.0e-7, 3.0e-7,
                               -1.0e-6, 2.0e-6,  1.0e-8,  0.0,    1.0e-8, -2.0e-8, 0.0,
                               3.0e-8,  -1.0e-8, 0.0,     0.0,    0.0,    0.0};
  const double samp_num[20] = {-2.1e-3, 1.0143,  1.87e-2, -4.12e-2, 4.1e-4, 2.2e-5,  -1.1e-5,
                               1.3e-3,  -2.4e-4, 1.0e-6,  -2.0e-6,  8.0e-6, -1.5e-6, 2.0e-7,
                               3.3e-6,  1.0e-6,  -2.0e-7, 1.0e-7,   2.0e-7, -1.0e-8};
  const double samp_den[20] = {1.0,    -2.2e-4, 1.4e-4, -1.1e-5, 2.0e-6,  1.0e-7, -3.0e-7,
                               1.0e-6, 5.0e-7,  0.0,    1.0e-8,  -1.0e-8, 0.0,    0.0,
                               2.0e-8, 0.0,     0.0,    1.0e-8,  0.0,     0.0};
  for (int i = 0; i < 10; ++i) r[i] = head[i];
  for (int i = 0; i < 20; ++i) {
    r[EPHO_RPC_LINE_NUM + i] = line_num[i];
    r[EPHO_RPC_LINE_DEN + i] = line_den[i];
    r[EPHO_RPC_SAMP_NUM + i] = samp_num[i];
    r[EPHO_RPC_SAMP_DEN + i] = samp_den[i];
  }
  return r;
}

}  // namespace epho::sensors::testing

#endif  // EPHO_SENSORS_RPC_TESTING_INTERNAL_H_
