// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of a connection's permission check when its cache has the answer.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tavrix_vfs_utils.h"

namespace tavrix::bench {
namespace {

constexpr int kPaths = 1024;
constexpr std::size_t kLength = 100;

// Paths that differ in their last bytes only.
std::string path_number(int number) {
  std::string path = "Shared/Design/" + std::string(kLength, 'x');
  path.resize(kLength - 5);
  char tail[8];
  std::snprintf(tail, sizeof tail, "%05d", number);
  return path + tail;
}

struct Connection {
  Connection() {
    init_tlb(&record->vfs_table_cache);
    record->reserved_user = 1;  // needs no map, so only the cache is measured
  }
  ~Connection() { destroy_tlb(&record->vfs_table_cache); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  e_vfs_enforce_perms check(const std::string& path) {
    return check_perms("/tavrix", path.c_str(), FSOP_STAT, record.get(), 0);
  }
  void fill() {
    for (int number = 0; number < kPaths; ++number) check(path_number(number));
  }
  std::unique_ptr<connection_private_data_s> record = std::make_unique<connection_private_data_s>();
};

void check_front(benchmark::State& state) {
  Connection connection;
  const std::string path = "Shared/Design/plan.txt";
  for (auto _ : state) benchmark::DoNotOptimize(connection.check(path));
}
BENCHMARK(check_front);

// Every check needs the canonical path and at least one comparison.
void check_front_floor(benchmark::State& state) {
  const std::string path = "Shared/Design/plan.txt";
  for (auto _ : state) {
    char* clean = normalize_path(path.c_str());
    benchmark::DoNotOptimize(std::strcmp(clean, path.c_str()));
    std::free(clean);
  }
}
BENCHMARK(check_front_floor);

// Each check finds its path at the last position and moves it to the front.
void cache_worst(benchmark::State& state) {
  Connection connection;
  connection.fill();
  std::vector<std::string> paths;
  for (int number = 0; number < kPaths; ++number) paths.push_back(path_number(number));
  int next = 0;
  for (auto _ : state) {
    int index = 0;
    benchmark::DoNotOptimize(check_tlb(paths[static_cast<std::size_t>(next)].c_str(), FSOP_STAT,
                                       &index, &connection.record->vfs_table_cache));
    next = (next + 1) % kPaths;
  }
}
BENCHMARK(cache_worst);

void cache_miss(benchmark::State& state) {
  Connection connection;
  connection.fill();
  const std::string path = path_number(99999);
  for (auto _ : state) {
    int index = 0;
    benchmark::DoNotOptimize(
        check_tlb(path.c_str(), FSOP_STAT, &index, &connection.record->vfs_table_cache));
  }
}
BENCHMARK(cache_miss);

// strncmp() over the same paths, each in a block of its own as in the cache.
void scan_all(benchmark::State& state) {
  std::vector<std::unique_ptr<char, decltype(&std::free)>> paths;
  for (int number = 0; number < kPaths; ++number) {
    paths.emplace_back(strdup(path_number(number).c_str()), &std::free);
  }
  const std::string wanted = path_number(99999);
  for (auto _ : state) {
    for (const auto& path : paths)
      benchmark::DoNotOptimize(std::strncmp(wanted.c_str(), path.get(), 4096));
  }
}
void cache_worst_floor(benchmark::State& state) { scan_all(state); }
BENCHMARK(cache_worst_floor);
void cache_miss_floor(benchmark::State& state) { scan_all(state); }
BENCHMARK(cache_miss_floor);

}  // namespace
}  // namespace tavrix::bench
