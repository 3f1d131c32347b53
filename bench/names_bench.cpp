// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of names: the hash, the comparison, the canonical path. The floors are one pass over
// the same bytes.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "perm_utils.h"
#include "tavrix_utils.h"

namespace tavrix::bench {
namespace {

const std::string kName = "Quarterly Report 2026 Draft";
const std::string kSameName = "QUARTERLY report 2026 dRAFT";
const std::string kPath = "Shared/Projects//Alpha/./Reports/../Reports/Quarterly Report.docx";

void name_hash(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        process_namecomponent_4hash(kName.data(), static_cast<uint32_t>(kName.size())));
  }
}
BENCHMARK(name_hash);

// The same mixing of bytes without folding their case.
void name_hash_floor(benchmark::State& state) {
  for (auto _ : state) {
    uint32_t hash = 0;
    for (const char c : kName) {
      hash += static_cast<unsigned char>(c);
      hash += hash << 10;
      hash ^= hash >> 6;
    }
    benchmark::DoNotOptimize(hash);
  }
}
BENCHMARK(name_hash_floor);

void name_compare(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tavrix_strncasecmp(kName.data(), kSameName.data(), static_cast<int>(kName.size())));
  }
}
BENCHMARK(name_compare);

// The C library's comparison that ignores case.
void name_compare_floor(benchmark::State& state) {
  for (auto _ : state) {
    const char* a = kName.data();
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(strncasecmp(a, kSameName.data(), kName.size()));
  }
}
BENCHMARK(name_compare_floor);

void normalize(benchmark::State& state) {
  for (auto _ : state) std::free(normalize_path(kPath.c_str()));
}
BENCHMARK(normalize);

// Zeroes a block of the path's size and copies byte by byte.
void normalize_floor(benchmark::State& state) {
  for (auto _ : state) {
    const std::size_t length = std::strlen(kPath.c_str());
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    std::memset(copy, 0, length + 1);
    for (std::size_t i = 0; i < length; ++i) {
      copy[i] = kPath[i];
      benchmark::ClobberMemory();
    }
    std::free(copy);
  }
}
BENCHMARK(normalize_floor);

}  // namespace
}  // namespace tavrix::bench
