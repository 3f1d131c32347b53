// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of finding a path's governing ACL in an attached image. The floor reads the same path
// as a key from an LMDB database, in a warm read transaction.

#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include "bench/sample_map.hpp"
#include "perm_map.h"
#include "perm_utils.h"

namespace tavrix::bench {
namespace {

constexpr std::size_t kPaths = 4096;

void lookup(benchmark::State& state) {
  const sample::Shape shape = shape_of(static_cast<uint64_t>(state.range(0)));
  publish(shape);
  void* map = get_perm_map_addr();
  if (map == nullptr) throw std::runtime_error("no table");
  const auto paths = some_paths(shape, kPaths);
  std::size_t next = 0;
  for (auto _ : state) {
    tavrix_acl_t* acl = nullptr;
    get_tavrix_acl(map, paths[next++ % kPaths].c_str(), &acl);
    free_ACL(acl);
    std::free(acl);
  }
  put_perm_map_addr(map);
}
BENCHMARK(lookup)->Arg(200'000)->Arg(1'000'000);

void check(int result) {
  if (result != 0) throw std::runtime_error(mdb_strerror(result));
}

// A database with the path of every folder as a key, and the bytes of a small ACL as its value.
MDB_env* filled_database(const sample::Shape& shape) {
  const std::string folder = "/scratch/lmdb" + std::to_string(shape.folders);
  const bool is_new = mkdir(folder.c_str(), 0700) == 0;
  MDB_env* env = nullptr;
  check(mdb_env_create(&env));
  check(mdb_env_set_mapsize(env, std::size_t{2} << 30));
  check(mdb_env_open(env, folder.c_str(), MDB_NOSYNC, 0600));
  if (!is_new) return env;
  MDB_txn* txn = nullptr;
  check(mdb_txn_begin(env, nullptr, 0, &txn));
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn, nullptr, 0, &dbi));
  char acl[44] = {};
  for (uint64_t number = 1; number <= shape.folders - 3; ++number) {
    std::string path = sample::sample_path(shape, number);
    MDB_val key{path.size(), path.data()};
    MDB_val value{sizeof acl, acl};
    check(mdb_put(txn, dbi, &key, &value, 0));
  }
  check(mdb_txn_commit(txn));
  return env;
}

void lookup_floor(benchmark::State& state) {
  const sample::Shape shape = shape_of(static_cast<uint64_t>(state.range(0)));
  static std::map<uint64_t, MDB_env*> databases;
  MDB_env*& env = databases[shape.folders];
  if (env == nullptr) env = filled_database(shape);
  const auto paths = some_paths(shape, kPaths);
  MDB_txn* txn = nullptr;
  check(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn, nullptr, 0, &dbi));
  std::size_t next = 0;
  for (auto _ : state) {
    const std::string& path = paths[next++ % kPaths];
    MDB_val key{path.size(), const_cast<char*>(path.data())};
    MDB_val value{};
    if (mdb_get(txn, dbi, &key, &value) != 0) state.SkipWithError("missing");
    benchmark::DoNotOptimize(value);
  }
  mdb_txn_abort(txn);
}
BENCHMARK(lookup_floor)->Arg(200'000)->Arg(1'000'000);

}  // namespace
}  // namespace tavrix::bench
