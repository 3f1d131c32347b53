// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmark of the historian: dump files into the database, links and all.

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tools/historian/dump_rows.hpp"
#include "tools/historian/historian.hpp"
#include "tools/historian/paths.hpp"
#include "tools/history/database.hpp"
#include "tools/history/statement.hpp"
#include "vfs_common.h"

namespace tavrix::bench {
namespace {

namespace fs = std::filesystem;

constexpr int kRecordsOfADump = 1000;
constexpr int kFolders = 5000;
const std::string kFile = "/scratch/history/history.db";

// A dump file of changes in folders that some users prefer.
std::string dump_bytes(std::mt19937& random, int64_t second) {
  std::string bytes;
  for (int number = 0; number < kRecordsOfADump; ++number) {
    const unsigned folder = static_cast<unsigned>(random() % kFolders);
    std::string path = "Shared/Department " + std::to_string(folder % 20) + "/Project " +
                       std::to_string(folder) + "/report " + std::to_string(random() % 1000) +
                       ".docx";
    std::string target = path + ".old";
    VFSEvent event = VFSEVENT__INIT;
    event.path = path.data();
    event.uid = 1000 + static_cast<unsigned>(random() % 200);
    event.client_pid = 4711;
    event.optype = VFSEVENT__OP_TYPE__OPTYPE_OPEN;
    if (number % 10 == 0) {
      event.optype = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
      event.rename_path = target.data();
    }
    event.time_sec = static_cast<int32_t>(second);
    event.time_usec = number * 1000;
    staging_data_s head{static_cast<uint32_t>(vfsevent__get_packed_size(&event)),
                        STAGING_DATA_SIGNATURE};
    const std::size_t at = bytes.size();
    bytes.resize(at + sizeof head + head.size);
    std::memcpy(bytes.data() + at, &head, sizeof head);
    vfsevent__pack(&event, reinterpret_cast<uint8_t*>(bytes.data() + at + sizeof head));
  }
  return bytes;
}

std::vector<std::string> dumps(int64_t records) {
  std::mt19937 random(1604);
  std::vector<std::string> all;
  for (int64_t i = 0; i < records / kRecordsOfADump; ++i) {
    all.push_back(dump_bytes(random, 1'700'000'000 + i));
  }
  return all;
}

// From the links of the dump files to a database that is on the disk, without the links.
void history_ingest(benchmark::State& state) {
  const auto all = dumps(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(fs::path(kFile).parent_path());
    fs::remove_all(historian::kLinks);
    historian::Settings settings;
    settings.database = kFile;
    settings.deletions = settings.renames = {1000, 60};
    historian::Historian keeper(settings);
    if (!keeper.switch_on() || !keeper.look([] { return false; })) state.SkipWithError("start");
    for (std::size_t i = 0; i < all.size(); ++i) {
      std::ofstream(std::string(historian::kLinks) + "/events.pending_1_" +
                    std::to_string(1'700'000'000 + i) + ".000000")
          << all[i];
    }
    state.ResumeTiming();
    if (!keeper.look([] { return false; })) state.SkipWithError("look");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(history_ingest)->Arg(100'000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The rows are in memory already; a prepared statement puts them into the same table.
void history_ingest_floor(benchmark::State& state) {
  std::vector<historian::DumpRows> all;
  const auto bytes = dumps(state.range(0));
  for (const std::string& dump : bytes) all.push_back(historian::rows_of(dump, false));
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(fs::path(kFile).parent_path());
    fs::create_directories(fs::path(kFile).parent_path());
    history::Problem problem;
    const auto database = history::open_to_write(kFile, problem);
    history::Statement insert(
        database.get(),
        "INSERT INTO records (time, op, folder, uid, pid, path, target, dump) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, 1)");
    state.ResumeTiming();
    history::Transaction transaction(database.get());
    for (const auto& dump : all) {
      for (const auto& row : dump.rows) {
        insert.bind(1, row.time);
        insert.bind(2, static_cast<int64_t>(row.op));
        insert.bind(3, static_cast<int64_t>(row.is_folder));
        insert.bind(4, static_cast<int64_t>(row.uid));
        insert.bind(5, static_cast<int64_t>(*row.pid));
        insert.bind(6, row.path);
        row.target ? insert.bind(7, *row.target) : insert.bind_null(7);
        if (!insert.run()) state.SkipWithError("insert");
      }
    }
    if (!transaction.commit()) state.SkipWithError("commit");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(history_ingest_floor)->Arg(100'000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace tavrix::bench
