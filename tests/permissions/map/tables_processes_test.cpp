// SPDX-License-Identifier: LGPL-3.0-or-later
// Loaders and readers at the same time, in real processes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>
#include <cstring>
#include <memory>
#include <vector>

#include "perm_map.h"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr int kSwaps = 1500;
constexpr std::size_t kTableSize = 3 * 4096;

class MapProcesses : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    set_debug_level(-1);
    write_file("/etc/tavrix/.permbe_map", "copy");
    create_perm_map_semaphore();
    load(0);
    map_initialized(1);
  }

  // Publishes a table that holds the generation's number everywhere.
  static bool load(uint32_t generation) {
    const int current = get_current_perm_table_index_for_fill();
    int shmid = -1;
    auto* table = static_cast<uint32_t*>(
        create_perm_map_shm(get_next_perm_table_key(current), kTableSize, &shmid));
    if (table == nullptr) return false;  // another loader is at it
    for (std::size_t i = 0; i < kTableSize / 4; ++i) table[i] = generation;
    shmdt(table);
    return swap_maps(static_cast<unsigned>(current)) == 0;
  }

  static void read_until_stopped() {
    int rounds = 0;
    while (!exists("/scratch/stop") || rounds < 10) {
      ++rounds;
      const auto* table = static_cast<const uint32_t*>(get_perm_map_addr());
      ASSERT_NE(nullptr, table) << "round " << rounds;
      const uint32_t first = table[0];
      for (std::size_t i = 0; i < kTableSize / 4; i += 64) ASSERT_EQ(first, table[i]);
      put_perm_map_addr(const_cast<uint32_t*>(table));
    }
  }
};

TEST_F(MapProcesses, ReadersAlwaysFindAWholeMap) {
  std::vector<std::unique_ptr<Child>> readers;
  for (int i = 0; i < 4; ++i)
    readers.push_back(std::make_unique<Child>([] { read_until_stopped(); }));
  for (uint32_t generation = 1; generation <= kSwaps; ++generation) ASSERT_TRUE(load(generation));
  write_file("/scratch/stop", "");
  for (auto& reader : readers) {
    const Outcome outcome = reader->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(MapProcesses, TwoLoadersTakeTurnsAndLeaveOneTable) {
  std::vector<std::unique_ptr<Child>> readers;
  for (int i = 0; i < 2; ++i)
    readers.push_back(std::make_unique<Child>([] { read_until_stopped(); }));
  // Loaders are excluded by the exclusive creation of the next table: while one fills it, the other
  // is refused. Each holds a lock around a load, as the appliance's service does.
  const auto loader = [](uint32_t base) {
    const int lock = open("/scratch/lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    int loaded = 0;
    for (uint32_t round = 0; loaded < kSwaps / 4; ++round) {
      ASSERT_EQ(0, lockf(lock, F_LOCK, 0));
      if (load(base + round)) ++loaded;
      ASSERT_EQ(0, lockf(lock, F_ULOCK, 0));
    }
  };
  Child one([&] { loader(1000000); });
  Child two([&] { loader(2000000); });
  EXPECT_TRUE(one.wait().ok());
  EXPECT_TRUE(two.wait().ok());
  write_file("/scratch/stop", "");
  for (auto& reader : readers) {
    const Outcome outcome = reader->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(MapProcesses, AKilledReaderLeavesNoTable) {
  Child reader([] {
    get_perm_map_addr();
    write_file("/scratch/attached", "");
    pause();
  });
  while (!exists("/scratch/attached")) usleep(1000);
  load(5);
  EXPECT_EQ(2, segments_in_use());
  reader.kill();
  reader.wait();
  EXPECT_EQ(1, segments_in_use());
}

}  // namespace
}  // namespace tavrix::test
