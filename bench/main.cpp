// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs the benchmarks. They publish maps and change identities, so scripts/bench.sh gives them a
// private world.

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <array>
#include <cstdio>

#include "eventstore.h"

int main(int argc, char** argv) {
  if (access("/scratch", W_OK) != 0) {
    std::fprintf(stderr, "run scripts/bench.sh\n");
    return 2;
  }
  // Zeroed settings: errors are logged and nothing else, as in a server process.
  static std::array<global_param_s, PARAM_MAX_INDEX> block;
  global_params = block.data();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
