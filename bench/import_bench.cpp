// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of a whole import with its standard output in a file. The floor is a bare parse of the
// same bytes.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yajl/yajl_parse.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "bench/sample_map.hpp"
#include "mkperms_shm.h"
#include "perm_map.h"

namespace tavrix::bench {
namespace {

void import_once(const JsonPair& files) {
  memsummary_s* summary = nullptr;
  get_permbe_shmsize(files.size.c_str(), files.data.c_str(), &summary);
  int shmid = -1;
  summary->membuf = create_perm_map_shm(TAVRIX_PERM_TABLE0_KEY + 16, summary->memsize, &shmid);
  if (summary->membuf == nullptr || init_permbe_shm(summary) != SHM_MEMBE_OK) std::abort();
  shmdt(summary->membuf);
  shmctl(shmid, IPC_RMID, nullptr);
  std::free(summary->perm_map_name_size);
  std::free(summary->perm_map_name_data);
  std::free(summary);
}

// The peak memory of an import beyond the image. It runs in a process of its own, whose peak is the
// import's.
double extra_memory_mib(const sample::Shape& shape) {
  const auto image = static_cast<double>(image_of(shape).size());
  const JsonPair files = json_pair(shape);  // the image's own import has removed its pair
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    struct rusage before {
    }, after{};
    getrusage(RUSAGE_SELF, &before);
    {
      const OutputToFile output;
      import_once(files);
    }
    getrusage(RUSAGE_SELF, &after);
    const double grown = static_cast<double>(after.ru_maxrss - before.ru_maxrss) * 1024;
    const double extra = (grown - image) / (1 << 20);
    std::ofstream("/scratch/extra") << extra;
    _exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) std::abort();
  double extra = 0;
  std::ifstream("/scratch/extra") >> extra;
  return extra;
}

void import_map(benchmark::State& state) {
  const sample::Shape shape = shape_of(static_cast<uint64_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const JsonPair files = json_pair(shape);
    state.ResumeTiming();
    const OutputToFile output;
    import_once(files);
  }
  state.counters["extra_MiB"] = extra_memory_mib(shape);
}
BENCHMARK(import_map)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(2);

int nothing(void*) { return 1; }
int no_text(void*, const unsigned char*, std::size_t) { return 1; }
int no_number(void*, const char*, std::size_t) { return 1; }

void import_map_floor(benchmark::State& state) {
  const yajl_callbacks callbacks{.yajl_null = nothing,
                                 .yajl_boolean = nullptr,
                                 .yajl_integer = nullptr,
                                 .yajl_double = nullptr,
                                 .yajl_number = no_number,
                                 .yajl_string = no_text,
                                 .yajl_start_map = nothing,
                                 .yajl_map_key = no_text,
                                 .yajl_end_map = nothing,
                                 .yajl_start_array = nothing,
                                 .yajl_end_array = nothing};
  const JsonPair files = json_pair(shape_of(static_cast<uint64_t>(state.range(0))));
  std::ifstream in(files.data, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  for (auto _ : state) {
    yajl_handle parser = yajl_alloc(&callbacks, nullptr, nullptr);
    yajl_parse(parser, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    if (yajl_complete_parse(parser) != yajl_status_ok) state.SkipWithError("parse");
    yajl_free(parser);
  }
}
BENCHMARK(import_map_floor)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
}  // namespace tavrix::bench
