// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of the hooks and of listings. The floor is the decision and the system calls that the
// hook has to make.

#include <benchmark/benchmark.h>
#include <vector>

#include "bench/hook_cases.hpp"
#include "perm_enforcer.h"
#include "tavrix_vfs_utils.h"

namespace tavrix::bench {
namespace {

void run(benchmark::State& state, const std::function<void(HookWorld&)>& action) {
  HookWorld world;
  action(world);  // fills caches
  for (auto _ : state) action(world);
}

const bool registered = [] {
  for (const HookCase& one : hook_cases()) {
    benchmark::RegisterBenchmark(("hook_" + one.name).c_str(), run, one.hook);
    benchmark::RegisterBenchmark(("hook_" + one.name + "_floor").c_str(), run, one.floor);
  }
  return true;
}();

void list(HookWorld& world) {
  char path[4096];
  int allowed = 0;
  for (const std::string& name : world.entries) {
    readir_postprocess(&allowed, name.c_str(), world.folder.c_str(), path, 512, "/tavrix",
                       world.record());
    if (allowed != TXPERMS_HAS_PERMS) std::abort();
  }
}

// The cache starts empty and the larger folder exceeds it, so each entry costs a decision.
void listing(benchmark::State& state) {
  HookWorld world;
  world.entries.resize(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    destroy_tlb(&world.record()->vfs_table_cache);
    state.ResumeTiming();
    list(world);
  }
}
BENCHMARK(listing)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMillisecond);

// One decision per entry.
void listing_floor(benchmark::State& state) {
  HookWorld world;
  world.entries.resize(static_cast<std::size_t>(state.range(0)));
  int is_nav = 0;
  for (auto _ : state) {
    for (const std::string& name : world.entries) {
      vfs_enforce_perms("/tavrix", (world.full_folder + "/" + name).c_str(), FSOP_STAT,
                        &world.record()->groupmap, 0, &is_nav);
    }
  }
}
BENCHMARK(listing_floor)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMillisecond);

void listing_again(benchmark::State& state) {
  HookWorld world;
  world.entries.resize(static_cast<std::size_t>(state.range(0)));
  list(world);
  for (auto _ : state) list(world);
}
BENCHMARK(listing_again)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMillisecond);

void listing_again_floor(benchmark::State& state) {
  HookWorld world;
  world.entries.resize(static_cast<std::size_t>(state.range(0)));
  list(world);
  for (auto _ : state) {
    for (const std::string& name : world.entries) {
      const std::string path = world.folder + "/" + name;
      check_perms("/tavrix", path.c_str(), FSOP_STAT, world.record(), 0);
    }
  }
}
BENCHMARK(listing_again_floor)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
